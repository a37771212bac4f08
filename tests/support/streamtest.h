// Helpers of the stream tests: a raw POSIX peer, a connected pair, received messages, bounded
// waits, a signal disposition for one scope and a watchdog.
#ifndef COLLOQUY_STREAMTEST_H
#define COLLOQUY_STREAMTEST_H

#include "streamsocket.h"
#include "tagscope.h"
#include "testing.h"

#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <chrono>

namespace nStreamTest {

namespace nSock = nCommunication::nSocket;

// Every wait of the tests is bounded by this (a fault shows as a failure, not a hang).
inline constexpr nTime::cDiff kPatience = nTime::cDiff::fromSeconds(10);

// Options whose waits (accept, receive without latency configuration) end after `limit`.
inline nSock::cSocketOptions boundedOptions(nTime::cDiff limit = kPatience) {
    nSock::cSocketOptions options;
    options.receiveTimeout = limit;
    return options;
}

inline nSock::iLatencyConfiguration* patience() {
    static nSock::cFixedLatencyConfiguration latency(kPatience);
    return &latency;
}

using Bytes = std::vector<unsigned char>;
inline Bytes bytesOf(std::string const& text) { return Bytes(text.begin(), text.end()); }

// A descriptor of the raw peer, closed at the end of its scope.
class RawFd {
  public:
    explicit RawFd(int fd = -1) : mFd(fd) {}
    ~RawFd() { reset(); }
    RawFd(RawFd&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    RawFd& operator=(RawFd&& other) noexcept { return reset(std::exchange(other.mFd, -1)), *this; }
    int get() const { return mFd; }
    void reset(int fd = -1) {
        if (mFd >= 0) ::close(mFd);
        mFd = fd;
    }
    void abort() {  // a reset (RST) instead of an orderly end
        linger l{1, 0};
        ::setsockopt(mFd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
        reset();
    }

  private:
    int mFd;
};

// True when `fd` becomes readable within kPatience.
inline bool readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    int rc = 0;
    while ((rc = ::poll(&p, 1, static_cast<int>(kPatience.milliseconds()))) < 0 && errno == EINTR) {
    }
    return rc == 1;
}

inline void rawSend(RawFd const& fd, Bytes const& bytes) {
    ASSERT_EQ(::send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

// Reads exactly `count` bytes (each wait bounded by kPatience), fewer when the stream ends first.
inline Bytes rawReceive(RawFd const& fd, size_t count) {
    Bytes out(count);
    size_t done = 0;
    for (ssize_t n = 0; done < count && readable(fd.get()); done += static_cast<size_t>(n))
        if ((n = ::recv(fd.get(), out.data() + done, count - done, 0)) < 0 && errno == EINTR)
            n = 0;
        else if (n <= 0)
            break;
    out.resize(done);
    return out;
}

// A raw listener on an ephemeral port of the loopback address; its port is stored in `port`.
inline RawFd rawListener(unsigned short& port) {
    RawFd listener(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    if (::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener.get(), 4) != 0 ||
        ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
        ADD_FAILURE() << "raw listener";
    port = ntohs(address.sin_port);
    return listener;
}

// The next connection on a raw listener, waited for within kPatience.
inline RawFd rawAccept(RawFd const& listener) {
    if (readable(listener.get())) return RawFd(::accept(listener.get(), nullptr, nullptr));
    ADD_FAILURE() << "raw accept timed out";
    return RawFd();
}

// A StreamSocket connected to a raw POSIX peer.
struct RawPeerPair {
    explicit RawPeerPair(nSock::cSocketOptions options = boundedOptions()) {
        unsigned short port = 0;
        RawFd const listener = rawListener(port);
        socket.ConnectLocal(port, options);
        peer = rawAccept(listener);
    }
    StreamSocket socket;
    RawFd peer;
};

// One message received with WaitTypedMessageZ1. The outputs start with marker values so that an
// untouched output shows; a body is released at the end.
struct Received {
    explicit Received(StreamSocket& socket, nSock::iLatencyConfiguration* latency = patience())
        : ok(socket.WaitTypedMessageZ1(type, subType, data, length, latency)) {}
    ~Received() {
        if (ok && length > 0) StreamSocket::FreeMessage(data);
    }
    Received(Received const&) = delete;
    std::string body() const { return ok && length > 0 ? std::string(data, static_cast<size_t>(length)) : ""; }
    bool untouched() const { return type == 111 && subType == 222 && data == sentinel && length == 333; }
    static inline char sentinel[1] = {};
    short type = 111, subType = 222;
    char* data = sentinel;
    int length = 333;
    bool const ok;
};

// The disposition of a signal for one scope; no SA_RESTART: interrupted system calls return EINTR.
struct SignalScope {
    SignalScope(int signal, void (*handler)(int)) : number(signal) {
        struct sigaction action {};
        action.sa_handler = handler;
        EXPECT_EQ(::sigaction(signal, &action, &previous), 0);
    }
    ~SignalScope() { ::sigaction(number, &previous, nullptr); }
    int number;
    struct sigaction previous {};
};

// Ends the process (SIGALRM) when a test runs longer than its bound, instead of a hang.
struct Watchdog {
    explicit Watchdog(unsigned seconds) { ::alarm(seconds); }
    ~Watchdog() { ::alarm(0); }
};

}  // namespace nStreamTest

#endif
