#include "nlog.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>

namespace nLog {

namespace {

// Which tags start enabled: the default set, or what COLLOQUY_LOG names.
class cDefaults {
  public:
    cDefaults() {
        char const* chosen = std::getenv("COLLOQUY_LOG");
        if (!chosen) {
            mNamed = {"Error", "Warning", "Execution"};
            return;
        }
        std::string const all(chosen);
        size_t start = 0;
        while (start <= all.size()) {
            size_t end = all.find(',', start);
            if (end == std::string::npos) end = all.size();
            std::string name = all.substr(start, end - start);
            name.erase(0, name.find_first_not_of(" \t"));
            name.erase(name.find_last_not_of(" \t") + 1);
            if (name == "all")
                mAll = true;
            else if (!name.empty() && name != "none")
                mNamed.insert(name);
            start = end + 1;
        }
    }
    bool on(std::string const& name) const { return mAll || mNamed.count(name) != 0; }

  private:
    bool mAll = false;
    std::set<std::string> mNamed;
};

// Process-wide logging state. Allocated once and never freed, so that records written
// while the process shuts down still find it.
struct cLogState {
    std::mutex mutex;
    cDefaults defaults;
    std::map<std::string, std::unique_ptr<std::atomic<bool>>> states;
    std::vector<cCapture*> captures;
    std::atomic<int> captureCount{0};
    std::once_flag outputOnce;
    int fd = STDERR_FILENO;

    std::atomic<bool>* stateFor(char const* name) {
        std::string const key(name ? name : "");
        std::lock_guard<std::mutex> lock(mutex);
        auto& slot = states[key];
        if (!slot) slot = std::make_unique<std::atomic<bool>>(defaults.on(key));
        return slot.get();
    }

    int output() {
        std::call_once(outputOnce, [this] {
            char const* path = std::getenv("COLLOQUY_LOG_FILE");
            if (path && *path) {
                int f = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
                if (f >= 0) fd = f;
            }
        });
        return fd;
    }
};

cLogState& logState() {
    static cLogState* const r = new cLogState();
    return *r;
}

thread_local bool tInsideLog = false;

void writeAll(int fd, std::string const& line) {
    char const* p = line.data();
    size_t left = line.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;  // nowhere to report a failing log output
        p += n;
        left -= static_cast<size_t>(n);
    }
}

}  // namespace

struct cCaptureAccess {
    static void add(cCapture& capture, cRecord const& record) { capture.mRecords.push_back(record); }
    static void clear(cCapture& capture) { capture.mRecords.clear(); }
};

cTag::cTag(char const* name) : mName(name), mState(logState().stateFor(name)) {}

namespace nBasic {
cTag const sErrorTag_("Error");
cTag const sWarningTag_("Warning");
cTag const sTraceTag_("Trace");
cTag const sExecutionTag_("Execution");
}  // namespace nBasic

void gEnable(char const* tag, bool on) { logState().stateFor(tag)->store(on, std::memory_order_relaxed); }

bool gIsEnabled(char const* tag) { return logState().stateFor(tag)->load(std::memory_order_relaxed); }

cCapture::cCapture() {
    cLogState& r = logState();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.captures.push_back(this);
    r.captureCount.fetch_add(1);
}

cCapture::~cCapture() {
    cLogState& r = logState();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.captures.erase(std::remove(r.captures.begin(), r.captures.end(), this), r.captures.end());
    r.captureCount.fetch_sub(1);
}

std::vector<cRecord> const& cCapture::records() const { return mRecords; }

void cCapture::clear() {
    std::lock_guard<std::mutex> lock(logState().mutex);
    cCaptureAccess::clear(*this);
}

void gAppendPiece(std::string& out, char const* text) { out.append(text ? text : "<NullChar*>"); }

void gAppendPiece(std::string& out, long long number) {
    char buffer[24];
    int n = std::snprintf(buffer, sizeof buffer, "%lld", number);
    out.append(buffer, static_cast<size_t>(n));
}

void gAppendPiece(std::string& out, unsigned long long number) {
    char buffer[24];
    int n = std::snprintf(buffer, sizeof buffer, "%llu", number);
    out.append(buffer, static_cast<size_t>(n));
}

void gAppendPiece(std::string& out, double number) {
    char buffer[32];
    int n = std::snprintf(buffer, sizeof buffer, "%g", number);
    out.append(buffer, static_cast<size_t>(n));
}

void gAppendPiece(std::string& out, void const* pointer) {
    char buffer[24];
    int n = std::snprintf(buffer, sizeof buffer, "%p", pointer);
    out.append(buffer, static_cast<size_t>(n));
}

unsigned long gThreadId() {
    thread_local unsigned long const id = static_cast<unsigned long>(::syscall(SYS_gettid));
    return id;
}

cGuard::cGuard() : mEntered(!tInsideLog) { tInsideLog = true; }

cGuard::~cGuard() {
    if (mEntered) tInsideLog = false;
}

void gDeliver(cRecord const& record) {
    cLogState& r = logState();
    if (r.captureCount.load() > 0) {
        std::lock_guard<std::mutex> lock(r.mutex);
        for (cCapture* capture : r.captures) cCaptureAccess::add(*capture, record);
    }
    std::string line;
    line.reserve(record.tag.size() + record.module.size() + record.file.size() + record.text.size() + 48);
    line.append(record.tag).push_back('\t');
    line.append(record.module).push_back('\t');
    line.append(record.file).push_back('\t');
    line.append(std::to_string(record.line)).push_back('\t');
    line.append(std::to_string(record.thread)).push_back('\t');
    line.append(record.text).push_back('\n');
    writeAll(r.output(), line);
}

}  // namespace nLog
