// A host program that links only the installed ColloquyUtil package.
#include "Log.h"
#include "colloquyplatform.h"

#include <cstdio>

int main() {
    // One symbol from each library: the library's trace tag and the platform's tokenizer.
    RWCString const text("name@host");
    RWCTokenizer next(text);
    RWCString const name = next("@");
    std::printf("%s %s\n", nColloquy::sTraceTag_.name(), name.data());
    return 0;
}
