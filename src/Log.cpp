#include "Log.h"

namespace nColloquy {

nLog::cTag const sTraceTag_("ColloquyT");

}  // namespace nColloquy
