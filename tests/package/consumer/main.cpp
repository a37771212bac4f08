// A host program that links only the installed ColloquyUtil package.
#include "Log.h"
#include "associativearray.h"
#include "colloquyplatform.h"

#include <cstdio>

int main() {
    // Symbols from both libraries: the library's trace tag and record, the platform's tokenizer.
    RWCString const text("name@host");
    RWCTokenizer next(text);
    RWCString const name = next("@");
    CAssociativeArray record;
    record.AddCouple("ab", "xyz");
    std::printf("%s %s [%s]\n", nColloquy::sTraceTag_.name(), name.data(), record.ToString(false, false));
    return 0;
}
