// The socket layer's handles and byte transfer: validity, send, receive, close and delete.
#include "net/nsocketstate.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace nCommunication {
namespace nSocket {

namespace {

// The read buffer: large enough that one recv brings many small messages at once, small
// enough that the copy out of it adds little to a large message whose start it caught.
constexpr std::size_t kBufferSize = 16 * 1024;
// Receives larger than this go straight into the caller's buffer, without a copy.
constexpr std::size_t kDirectThreshold = kBufferSize / 2;

// The end of a receive's wait, if it has one.
class cDeadline {
  public:
    explicit cDeadline(std::optional<nTime::cDiff> limit) {
        if (limit) mEnd = std::chrono::steady_clock::now() + std::max(limit->chrono(), std::chrono::milliseconds(0));
    }
    bool bounded() const { return mEnd.has_value(); }
    // Milliseconds left for poll, rounded up so that a wait never ends before the deadline.
    int pollMilliseconds() const {
        auto left = *mEnd - std::chrono::steady_clock::now();
        if (left <= left.zero()) return 0;
        auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
        return static_cast<int>(std::min<decltype(ms)>(ms, 1 << 30));
    }

  private:
    std::optional<std::chrono::steady_clock::time_point> mEnd;
};

// Results of readSome besides a byte count.
constexpr ssize_t kClosed = 0;     // peer closed, reset, or another socket error
constexpr ssize_t kTimedOut = -1;  // the deadline passed; the connection is intact

// Waits until `fd` is readable or the deadline passes (false).
bool waitReadable(int fd, cDeadline const& deadline) {
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        int rc = ::poll(&p, 1, deadline.pollMilliseconds());
        if (rc > 0) return true;  // readable, or an error/hang-up that recv will report
        if (rc == 0) return false;
        if (errno != EINTR) return true;  // let recv report the error
    }
}

// Reads up to `size` bytes: a count > 0, kClosed or kTimedOut. Without a deadline it blocks in
// recv (with `blockingFlags`); with one it tries recv without waiting and polls in between.
ssize_t readSome(int fd, char* into, std::size_t size, cDeadline const& deadline, int blockingFlags) {
    for (;;) {
        ssize_t n = ::recv(fd, into, size, deadline.bounded() ? MSG_DONTWAIT : blockingFlags);
        if (n > 0) return n;
        if (n == 0) return kClosed;
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) return kClosed;
        if (!deadline.bounded() || !waitReadable(fd, deadline)) return kTimedOut;
    }
}

std::size_t available(cSocketState const& s) { return s.end - s.begin; }

void take(cSocketState& s, char* out, std::size_t count) {
    if (count == 0) return;  // the buffer may not exist yet
    std::memcpy(out, s.buffer.data() + s.begin, count);
    s.begin += count;
    if (s.begin == s.end) s.begin = s.end = 0;
}

// A small receive: fill the read buffer until it holds `count` bytes, then copy them out.
// A failure takes nothing out of the buffer.
bool receiveBuffered(cSocketState& s, int fd, std::size_t count, char* out, cDeadline const& deadline) {
    if (s.buffer.size() < kBufferSize) s.buffer.resize(kBufferSize);
    if (s.buffer.size() - s.begin < count) {  // move the pending bytes to the front to make room
        std::memmove(s.buffer.data(), s.buffer.data() + s.begin, available(s));
        s.end -= s.begin;
        s.begin = 0;
    }
    while (available(s) < count) {
        ssize_t n = readSome(fd, s.buffer.data() + s.end, s.buffer.size() - s.end, deadline, 0);
        if (n <= 0) return false;
        s.end += static_cast<std::size_t>(n);
    }
    take(s, out, count);
    return true;
}

// A large receive: the buffered bytes first, the rest straight into `out`. After a time-out
// the bytes received so far go back into the read buffer, so that a later receive gets them.
bool receiveDirect(cSocketState& s, int fd, std::size_t count, char* out, cDeadline const& deadline) {
    std::size_t done = available(s);
    take(s, out, done);
    while (done < count) {
        ssize_t n = readSome(fd, out + done, count - done, deadline, MSG_WAITALL);
        if (n == kTimedOut) {
            s.buffer.resize(std::max(kBufferSize, done));
            std::memcpy(s.buffer.data(), out, done);
            s.begin = 0;
            s.end = done;
        }
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

bool cSocketState::release() {
    if (released.exchange(true, std::memory_order_acq_rel)) return true;  // done by another thread
    std::vector<char>().swap(buffer);
    begin = end = 0;
    return ::close(fd) == 0;
}

bool cSocketState::close(bool shutDown) {
    cOperation closing(this);  // the descriptor stays open until the shutdown is done
    if (closing.descriptor() < 0) return false;
    if (use.fetch_or(kClosed, std::memory_order_acq_rel) & kClosed) return false;  // closed by another thread
    // Shutting down ends the connection for every process that shares the descriptor and
    // wakes the threads that are blocked sending, receiving or accepting on it.
    if (shutDown) ::shutdown(fd, SHUT_RDWR);
    return closing.end();
}

int cHandleValid::descriptor() const { return mState ? mState->descriptor() : -1; }
int cHandleOptional::descriptor() const { return mState ? mState->descriptor() : -1; }

iLatencyConfiguration::~iLatencyConfiguration() = default;
cFixedLatencyConfiguration::~cFixedLatencyConfiguration() = default;

std::optional<nTime::cDiff> cFixedLatencyConfiguration::receiveLimit(bool continuation) const {
    return continuation ? mContinuation : mFirst;
}

cSocketException::cSocketException(std::string const& operation, std::string host, unsigned short port, int systemError)
    : cSocketException(operation + " " + host + " port " + std::to_string(port) + ": " + std::strerror(systemError) +
                           " (errno " + std::to_string(systemError) + ")",
                       host, port, systemError, 0) {}

cSocketException cSocketException::unresolved(std::string host, unsigned short port, int resolveError) {
    std::string const message = "resolve " + host + " port " + std::to_string(port) +
                                ": the name did not resolve: " + ::gai_strerror(resolveError);
    return cSocketException(message, std::move(host), port, 0, resolveError);
}

cSocketException::cSocketException(std::string const& message, std::string host, unsigned short port, int systemError,
                                   int resolveError)
    : std::runtime_error(message),
      mHost(std::move(host)),
      mPort(port),
      mSystemError(systemError),
      mResolveError(resolveError) {}

cSocketException::~cSocketException() = default;

cHandleOptional gInvalidHandle() { return cHandleOptional(); }

bool gIsValid(cHandleOptional const& handle) { return handle.descriptor() >= 0; }

cHandleValid gValidate(cHandleOptional const& handle) {
    if (!gIsValid(handle)) throw cSocketException("validate", "(invalid handle)", 0, EBADF);
    return cHandleAccess::valid(handle);
}

bool gSend(cHandleValid const& handle, int count, char const* buffer) {
    cOperation sending(cHandleAccess::state(handle));
    int fd = sending.descriptor();
    if (fd < 0 || count < 0 || (count > 0 && buffer == nullptr)) return false;
    std::size_t left = static_cast<std::size_t>(count);
    while (left > 0) {
        ssize_t n = ::send(fd, buffer, left, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        buffer += n;
        left -= static_cast<std::size_t>(n);
    }
    return true;
}

bool gReceive(cHandleValid const& handle, int count, char* buffer, bool continuation, iLatencyConfiguration* latency) {
    cSocketState* state = cHandleAccess::state(handle);
    cOperation receiving(state);
    int fd = receiving.descriptor();
    if (fd < 0 || count < 0 || (count > 0 && buffer == nullptr)) return false;
    if (count == 0) return true;
    std::size_t wanted = static_cast<std::size_t>(count);
    if (available(*state) >= wanted) {  // served from memory, no system call
        take(*state, buffer, wanted);
        return true;
    }
    cDeadline deadline(latency ? latency->receiveLimit(continuation) : state->receiveTimeout);
    return wanted <= kDirectThreshold ? receiveBuffered(*state, fd, wanted, buffer, deadline)
                                      : receiveDirect(*state, fd, wanted, buffer, deadline);
}

std::optional<int> gMaxMessageSize(cHandleOptional const& handle) {
    cSocketState const* state = cHandleAccess::state(handle);
    return state ? state->maxMessageSize : std::nullopt;
}

bool gClose(cHandleValid const& handle) {
    cSocketState* state = cHandleAccess::state(handle);
    return state && state->close(true);
}

void gDelete(cHandleOptional const& handle) {
    if (cSocketState* state = cHandleAccess::state(handle)) state->close(false);
}

}  // namespace nSocket
}  // namespace nCommunication
