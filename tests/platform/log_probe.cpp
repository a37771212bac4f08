// Writes one record on each tag, so that a test can see which tags the environment enabled
// and where the records went. Prints the enabled tags (and whether one named "none" is) on standard output.
#include "Log.h"

#include <cstdio>

int main() {
    nLog::cTag const* tags[] = {&nLog::nBasic::sErrorTag_, &nLog::nBasic::sWarningTag_, &nLog::nBasic::sTraceTag_,
                                &nLog::nBasic::sExecutionTag_, &nColloquy::sTraceTag_};
    for (nLog::cTag const* tag : tags) {
        COLLOQUY_LOG_AT(*tag, "probe", 7, "probe", tag->name());
        if (tag->enabled()) std::printf("%s ", tag->name());
    }
    std::printf(nLog::gIsEnabled("none") ? "none \n" : "\n");
}
