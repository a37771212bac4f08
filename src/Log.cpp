#include "Log.h"

#include "log_records.h"

namespace nColloquy {

nLog::cTag const sTraceTag_("ColloquyT");

}  // namespace nColloquy

namespace nLogRecords {

void logError(char const* sourceModule, int line) { COLLOQUY_LOG_AT(nLog::nBasic::sErrorTag_, sourceModule, line); }

}  // namespace nLogRecords
