// The library's diagnostics: its own trace tag and the macros through which every module
// writes log records under the log module "ColloquyUtil".
#ifndef COLLOQUY_LOG_H
#define COLLOQUY_LOG_H

#include "nlog.h"

namespace nColloquy {

// The library's own simple tag, "ColloquyT" (socket layer, function-entry traces); off by default.
COLLOQUY_EXPORT extern nLog::cTag const sTraceTag_;

// The log module every record of the library carries.
inline constexpr char const kLogModule[] = "ColloquyUtil";

// A record position: file "../src/" + `sourceModule`, at `line`.
inline nLog::cSource gSource(char const* sourceModule, int line) { return {kLogModule, sourceModule, line}; }

}  // namespace nColloquy

// Writes a record from `sourceModule` at the current line when `tag` is enabled; the pieces
// are evaluated only then. COLLOQUY_LOG_AT names the line explicitly.
#define COLLOQUY_LOG(tag, sourceModule, ...) \
    COLLOQUY_LOG_RECORD(tag, ::nColloquy::gSource(sourceModule, __LINE__), ##__VA_ARGS__)
#define COLLOQUY_LOG_AT(tag, sourceModule, line, ...) \
    COLLOQUY_LOG_RECORD(tag, ::nColloquy::gSource(sourceModule, line), ##__VA_ARGS__)

#endif
