// What the library's log records share beyond Log.h: the bare Error record of a failed check,
// and the fixed line numbers that some records carry. Not installed.
#ifndef COLLOQUY_LOG_RECORDS_H
#define COLLOQUY_LOG_RECORDS_H

namespace nLogRecords {

// Writes an Error record without text from `sourceModule` at `line` (the failed check's own
// line: pass __LINE__).
void logError(char const* sourceModule, int line);

// The lines below are not where the records are written: they are part of the record format,
// as the texts are, and stay as they are whatever the code around them becomes.

// supportinformationgenerator
namespace nSupport {
constexpr int kDoingLinuxInfo = 414;
constexpr int kKernelFailed = 421;
constexpr int kCpuFailed = 434;
constexpr int kDiskFailed = 442;
constexpr int kMemoryFailed = 450;
constexpr int kInterfacesFailed = 494;
constexpr int kInterfacesDone = 499;
constexpr int kSystemInfoDone = 535;
constexpr int kReportFailed = 659;
constexpr int kReportFailedUnknown = 663;
}  // namespace nSupport

// processgroupmanager
namespace nProcessGroups {
constexpr int kAlreadyTerminated = 50;
constexpr int kKilled = 54;
constexpr int kCannotKill = 58;
constexpr int kCannotFind = 62;
constexpr int kUnknownKillError = 66;
constexpr int kNoSuchMember = 80;
constexpr int kAlreadyInGroup = 122;
constexpr int kAddedToGroup = 130;
constexpr int kTerminatingGroup = 171;
constexpr int kUnknownGroup = 176;
}  // namespace nProcessGroups

}  // namespace nLogRecords

#endif
