// nLog: tagged log records, composed only when their tag is enabled.
//
// A record carries a tag, the log module ("ColloquyUtil" for the library), the source file
// ("../src/" and the module name), the line, the calling thread's id and a text made of the
// statement's pieces joined by tabs. Records go to standard error, or are appended to the
// file named by COLLOQUY_LOG_FILE, one line each:
//     tag \t module \t file \t line \t thread \t text
// Enabled by default: Error, Warning, Execution. COLLOQUY_LOG replaces that set with a
// comma-separated list of tag names ("all" and "none" allowed). Both variables are read once,
// when the first tag is set up.
#ifndef COLLOQUY_NLOG_H
#define COLLOQUY_NLOG_H

#include "cplatformdefs.h"
#include "rwcstring.h"
#include "stringcoe.h"

#include <atomic>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace nLog {

// A log tag. Its on/off state is shared by every tag object of the same name.
class COLLOQUY_EXPORT cTag {
  public:
    explicit cTag(char const* name);
    cTag(cTag const&) = delete;
    cTag& operator=(cTag const&) = delete;
    char const* name() const { return mName; }
    bool enabled() const { return mState->load(std::memory_order_relaxed); }

  private:
    char const* mName;
    std::atomic<bool>* mState;  // owned by the process-wide tag registry, never freed
};

namespace nBasic {
COLLOQUY_EXPORT extern cTag const sErrorTag_;      // "Error"
COLLOQUY_EXPORT extern cTag const sWarningTag_;    // "Warning"
COLLOQUY_EXPORT extern cTag const sTraceTag_;      // "Trace"
COLLOQUY_EXPORT extern cTag const sExecutionTag_;  // "Execution"
}  // namespace nBasic

// Where a record comes from: the log module and the source module, and the line.
// The file of the record is "../src/" followed by `sourceModule`.
struct cSource {
    char const* logModule;     // e.g. "ColloquyUtil"
    char const* sourceModule;  // e.g. "packmsg"
    int line;
};

struct cRecord {
    std::string tag;       // "Error", "Warning", "Trace", "Execution" or "ColloquyT"
    std::string module;    // "ColloquyUtil" for every record of the library
    std::string file;      // "../src/" followed by the module name, e.g. "../src/packmsg"
    int line;              // the source line
    unsigned long thread;  // the calling thread's id
    std::string text;      // the pieces joined by tabs, "<NullChar*>" for a null text piece
};

COLLOQUY_EXPORT void gEnable(char const* tag, bool on);  // switch one tag on or off, process-wide
COLLOQUY_EXPORT bool gIsEnabled(char const* tag);

// While one exists, every record written is also kept here (records of all threads).
class COLLOQUY_EXPORT cCapture {
  public:
    cCapture();
    ~cCapture();
    cCapture(cCapture const&) = delete;
    cCapture& operator=(cCapture const&) = delete;
    std::vector<cRecord> const& records() const;
    void clear();

  private:
    friend struct cCaptureAccess;
    std::vector<cRecord> mRecords;
};

// Text pieces of a record. Each overload appends one piece's text.
COLLOQUY_EXPORT void gAppendPiece(std::string& out, char const* text);  // null: "<NullChar*>"
inline void gAppendPiece(std::string& out, char* text) { gAppendPiece(out, static_cast<char const*>(text)); }
inline void gAppendPiece(std::string& out, std::string_view bytes) { out.append(bytes.data(), bytes.size()); }
inline void gAppendPiece(std::string& out, std::string const& text) { out.append(text); }
inline void gAppendPiece(std::string& out, RWCString const& text) { out.append(text.data(), text.length()); }
inline void gAppendPiece(std::string& out, cStringCoeImpl const& text) { out.append(text.data(), text.length()); }
inline void gAppendPiece(std::string& out, char c) { out.push_back(c); }
COLLOQUY_EXPORT void gAppendPiece(std::string& out, long long number);
COLLOQUY_EXPORT void gAppendPiece(std::string& out, unsigned long long number);
COLLOQUY_EXPORT void gAppendPiece(std::string& out, double number);
COLLOQUY_EXPORT void gAppendPiece(std::string& out, void const* pointer);
template <class T,
          std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, char> && !std::is_same_v<T, bool>, int> = 0>
inline void gAppendPiece(std::string& out, T number) {
    if constexpr (std::is_signed_v<T>)
        gAppendPiece(out, static_cast<long long>(number));
    else
        gAppendPiece(out, static_cast<unsigned long long>(number));
}
inline void gAppendPiece(std::string& out, bool b) { gAppendPiece(out, static_cast<long long>(b)); }

// Hands a finished record to the captures and the output (called under a cGuard).
COLLOQUY_EXPORT void gDeliver(cRecord const& record);

// The recursion guard: entered() is false when this thread is already composing or
// delivering a record, and the nested record is then dropped.
class COLLOQUY_EXPORT cGuard {
  public:
    cGuard();
    ~cGuard();
    bool entered() const { return mEntered; }

  private:
    bool mEntered;
};

COLLOQUY_EXPORT unsigned long gThreadId();

// Composes and writes one record. Callers test tag.enabled() first (see COLLOQUY_LOG_RECORD),
// so that nothing is composed for a disabled tag.
template <class... Pieces>
void gWrite(cTag const& tag, cSource const& source, Pieces const&... pieces) {
    cGuard guard;
    if (!guard.entered()) return;
    cRecord record{tag.name(),  source.logModule, std::string("../src/") + source.sourceModule,
                   source.line, gThreadId(),      std::string()};
    [[maybe_unused]] bool first = true;
    ((first ? void(first = false) : record.text.push_back('\t'), gAppendPiece(record.text, pieces)), ...);
    gDeliver(record);
}

}  // namespace nLog

// Writes a record when `tag` is enabled; the pieces are not evaluated otherwise.
#define COLLOQUY_LOG_RECORD(tag, source, ...)                                \
    do {                                                                     \
        if ((tag).enabled()) ::nLog::gWrite((tag), (source), ##__VA_ARGS__); \
    } while (0)

#endif
