// The socket layer beyond the stream socket: host names, IPv6 and a system without it, connection
// errors, time-outs that keep the bytes, refused arguments, descriptor 0, signals, closing from another thread.
#include "streamtest.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/syscall.h>

#include <atomic>
#include <functional>
#include <optional>

using namespace nStreamTest;

static thread_local bool tNoIPv6 = false;            // the calling thread's system has no IPv6
static thread_local std::vector<int> tAcceptErrors;  // the errors of its next accept4 calls

// This program's own accept4 and socket, which the libraries resolve here: accept4 fails with the
// calling thread's errors first.
extern "C" __attribute__((visibility("default"))) int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    if (tAcceptErrors.empty()) return static_cast<int>(syscall(SYS_accept4, fd, address, length, flags));
    errno = tAcceptErrors.back();
    tAcceptErrors.pop_back();
    return -1;
}

extern "C" __attribute__((visibility("default"))) int socket(int domain, int type, int protocol) {
    if (tNoIPv6 && domain == AF_INET6) return errno = EAFNOSUPPORT, -1;
    return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

namespace {

// A socket-layer receive of `count` bytes into `out` on the library end of `pair`.
bool receive(RawPeerPair& pair, Bytes& out, size_t count, nSock::iLatencyConfiguration* latency,
             bool continuation = false) {
    out.assign(count, 0);
    return nSock::gReceive(nSock::gValidate(pair.socket.GetHandle()), static_cast<int>(count),
                           reinterpret_cast<char*>(out.data()), continuation, latency);
}

// The text of the cSocketException that `action` throws; `resolveError` receives its resolver code.
std::string errorOf(std::function<void()> const& action, int* resolveError = nullptr) {
    try {
        action();
    } catch (nSock::cSocketException const& e) {
        if (resolveError) *resolveError = e.resolveError();
        return e.what();
    }
    return "no exception";
}

// Whether this machine has the IPv6 loopback address (some containers turn IPv6 off).
bool hasIPv6Loopback() {
    RawFd fd(::socket(AF_INET6, SOCK_STREAM, 0));
    sockaddr_in6 address{AF_INET6, 0, 0, in6addr_loopback, 0};
    return fd.get() >= 0 && ::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

TEST(SocketLayer, ConnectsByAddressNameAndIPv6AndReportsFailuresWithHostPortAndError) {
    nSock::cSocketOptions const defaults;  // connect time-out 10 s, no receive limit, no maximum size
    EXPECT_TRUE(defaults.connectTimeout.milliseconds() == 10000 && !defaults.receiveTimeout &&
                !defaults.maxMessageSize);
    for (bool noIPv6 : {false, true}) {
        tNoIPv6 = noIPv6;  // the listener falls back to IPv4
        nSock::cHandleValid listener = nSock::gCreateListener(0);
        unsigned short const port = nSock::gLocalPort(listener);
        std::vector<std::string> hosts{"127.0.0.1", "localhost"};
        if (!noIPv6 && hasIPv6Loopback()) hosts.push_back("::1");
        for (std::string const& host : hosts) {
            SCOPED_TRACE(host + (noIPv6 ? " without IPv6" : ""));
            nSock::cHandleValid client = nSock::gCreateConnected(host, port, defaults);
            int noDelay = 0;  // the default options turn TCP_NODELAY on
            socklen_t size = sizeof noDelay;
            // A signal, a connection reset while queued, one taken by another thread: accept goes on.
            tAcceptErrors = {EINTR, ECONNABORTED, EAGAIN};
            nSock::cHandleValid server = nSock::gAccept(listener, boundedOptions());
            char got[5];
            EXPECT_TRUE(::getsockopt(client.descriptor(), IPPROTO_TCP, TCP_NODELAY, &noDelay, &size) == 0 && noDelay &&
                        tAcceptErrors.empty() && nSock::gLocalPort(server) == port &&
                        nSock::gSend(client, 5, "hello") && nSock::gReceive(server, 5, got, false, patience()) &&
                        std::string(got, 5) == "hello");
            nSock::gDelete(client);
            nSock::gDelete(server);
        }
        auto text = [port](std::string const& operation, std::string const& host, int error) {
            return operation + " " + host + " port " + std::to_string(port) + ": " + std::strerror(error) + " (errno " +
                   std::to_string(error) + ")";
        };
        if (noIPv6) {  // a socket the system cannot make is reported with its reason
            EXPECT_EQ(errorOf([&] { nSock::gCreateConnected("::1", port, defaults); }),
                      text("connect to", "::1", EAFNOSUPPORT));
        }
        tNoIPv6 = false;
        std::string const local = nSock::gGetLocalHostName().stdString();
        EXPECT_EQ(errorOf([&] { nSock::gCreateListener(port); }), text("listen on", local, EADDRINUSE));
        EXPECT_EQ(errorOf([&] { nSock::gAccept(listener, boundedOptions(nTime::cDiff(20))); }),
                  text("accept on", local, ETIMEDOUT));
        nSock::gDelete(listener);
        EXPECT_EQ(nSock::gLocalPort(listener), 0);
        EXPECT_EQ(errorOf([&] { nSock::gCreateConnected("127.0.0.1", port, defaults); }),
                  text("connect to", "127.0.0.1", ECONNREFUSED));
    }
    int resolveError = 0;  // a name that does not resolve says so, with the resolver's reason
    std::string const unresolved =
        errorOf([&] { nSock::gCreateConnected("no-such-host.invalid", 7, defaults); }, &resolveError);
    EXPECT_NE(resolveError, 0);
    EXPECT_EQ(unresolved, "resolve no-such-host.invalid port 7: the name did not resolve: " +
                              std::string(::gai_strerror(resolveError)));
}

// A receive, small (through the read buffer) or large (straight into the caller's buffer), that
// times out keeps what arrived for the next one; each receive asks for the limit of its own
// kind. Refused arguments send and receive nothing.
TEST(SocketLayer, TimeOutKeepsTheBytesForTheNextReceive) {
    struct RecordingLatency : nSock::iLatencyConfiguration {
        std::optional<nTime::cDiff> receiveLimit(bool continuation) const override {
            asked.push_back(continuation);
            return nTime::cDiff(20);
        }
        mutable std::vector<bool> asked;
    };
    RawPeerPair pair;
    Bytes got;
    for (size_t size : {size_t(8), size_t(100000)}) {
        SCOPED_TRACE(size);
        RecordingLatency quick;
        Bytes message(size);
        for (size_t k = 0; k < size; ++k) message[k] = static_cast<unsigned char>(k * 7 + k / 251);
        auto const split = message.begin() + static_cast<long>(size * 3 / 5);
        rawSend(pair.peer, Bytes(message.begin(), split));
        EXPECT_FALSE(receive(pair, got, message.size(), &quick));
        rawSend(pair.peer, Bytes(split, message.end()));
        EXPECT_TRUE(receive(pair, got, message.size(), &quick, true) && got == message);
        EXPECT_EQ(quick.asked, (std::vector<bool>{false, true}));
    }
    nSock::cHandleValid const h = nSock::gValidate(pair.socket.GetHandle());
    char byte = 0;
    EXPECT_EQ((std::vector<bool>{nSock::gReceive(h, -1, &byte, false, patience()),
                                 nSock::gReceive(h, 1, nullptr, false, patience()),
                                 nSock::gReceive(h, 0, nullptr, false, patience()), nSock::gSend(h, -1, "x"),
                                 nSock::gSend(h, 1, nullptr), nSock::gSend(h, 0, nullptr), nSock::gSend(h, 2, "ok")}),
              (std::vector<bool>{false, false, true, false, false, true, true}));
    EXPECT_EQ(rawReceive(pair.peer, 2), bytesOf("ok"));
    RawPeerPair bounded(boundedOptions(nTime::cDiff(20)));  // options alone bound a receive without latency
    EXPECT_FALSE(receive(bounded, got, 1, nullptr));
}

// A daemon that has closed its standard input gets its next socket on descriptor 0: there a
// listener, then a connection, work like any other socket.
TEST(SocketLayer, DescriptorZeroIsASocketLikeAnyOther) {
    struct InputClosed {
        RawFd saved{::dup(0)};
        InputClosed() { ::close(0); }
        ~InputClosed() { ::dup2(saved.get(), 0); }
    };
    unsigned short rawPort = 0;
    RawFd const raw = rawListener(rawPort);
    InputClosed const closed;
    nSock::cHandleValid const listener = nSock::gCreateListener(0);
    ASSERT_EQ(listener.descriptor(), 0);
    nSock::cHandleValid const client = nSock::gCreateConnectedLocal(nSock::gLocalPort(listener), boundedOptions());
    nSock::cHandleValid const server = nSock::gAccept(listener, boundedOptions());
    EXPECT_TRUE(nSock::gClose(listener));
    nSock::cHandleValid const zero = nSock::gCreateConnectedLocal(rawPort, boundedOptions());
    RawFd const peer = rawAccept(raw);
    nSock::cSendPiece const piece{"def", 3};
    EXPECT_TRUE(zero.descriptor() == 0 && nSock::gSend(zero, 3, "abc") && nSock::gSendPieces(zero, &piece, 1) == 3);
    EXPECT_EQ(rawReceive(peer, 6), bytesOf("abcdef"));
    rawSend(peer, bytesOf("xyz"));
    char got[3] = {};
    EXPECT_TRUE(nSock::gReceive(zero, 3, got, false, patience()) && std::string(got, 3) == "xyz" &&
                nSock::gClose(zero));
}

// A receive of the library, waiting in poll (with a limit) or in recv (without one), in a thread
// that is sent signals before and after the bytes arrive.
TEST(SocketLayer, SignalsDoNotInterruptAReceive) {
    SignalScope signals(SIGUSR1, [](int) {});
    Watchdog watchdog(60);
    for (nSock::iLatencyConfiguration* latency : {patience(), static_cast<nSock::iLatencyConfiguration*>(nullptr)}) {
        RawPeerPair pair{latency ? boundedOptions() : nSock::cSocketOptions()};
        Bytes got;
        std::thread receiver([&] { EXPECT_TRUE(receive(pair, got, 6, latency)); });
        for (int i = 0; i < 20; ++i) {
            ::pthread_kill(receiver.native_handle(), SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            if (i == 10) rawSend(pair.peer, bytesOf("abcdef"));
        }
        receiver.join();
        EXPECT_EQ(got, bytesOf("abcdef"));
    }
}

// What a thread of the close test waits for; true when the wait did not fail.
enum Wait { kSmallReceive, kLargeReceive, kSend, kGatheredSend, kAccept };
bool waitOn(Wait wait, nSock::cHandleValid const& h) {
    static char bytes[1 << 20];
    int small = 4096;  // a send into a connection whose peer does not read blocks at once
    if (wait == kSend || wait == kGatheredSend)
        ::setsockopt(h.descriptor(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    nSock::cSendPiece const pieces[] = {{bytes, 1000}, {bytes + 1000, sizeof bytes - 1000}};
    try {  // a small receive fills the read buffer (no limit), a large one the caller's (poll)
        return wait == kSmallReceive   ? nSock::gReceive(h, 64, bytes, false, nullptr)
               : wait == kLargeReceive ? nSock::gReceive(h, 100000, bytes, false, patience())
               : wait == kSend         ? nSock::gSend(h, sizeof bytes, bytes)
               : wait == kGatheredSend ? nSock::gSendPieces(h, pieces, 2) == sizeof bytes
                                       : (nSock::gAccept(h, nSock::cSocketOptions()), true);
    } catch (nSock::cSocketException const& e) {
        return e.systemError() != EBADF;
    }
}

// A thread waits on a handle (or is about to) while another closes it, thousands of times: the
// close wakes the wait, which fails, and the descriptor is closed once the wait has ended. A
// read buffer freed or a descriptor closed under the waiting thread shows as a data race (or a
// use after free) in the sanitizer builds.
TEST(SocketLayer, ClosingFromAnotherThreadEndsTheWaitAndReleasesAfterIt) {
    Watchdog watchdog(240);
    nSock::cHandleValid listener = nSock::gCreateListener(0);
    for (Wait wait : {kSmallReceive, kLargeReceive, kSend, kGatheredSend, kAccept}) {
        SCOPED_TRACE(wait);
        int const rounds = wait <= kLargeReceive ? 1500 : wait == kAccept ? 200 : 50;
        // Bytes the peer sends first, fewer than the receive waits for.
        size_t const partial = wait == kSmallReceive ? 5 : wait == kLargeReceive ? 70000 : 0;
        for (int round = 0; round < rounds && !HasFailure(); ++round) {
            nSock::cHandleOptional peer;  // the other end of the connection
            if (wait != kAccept) peer = nSock::gCreateConnectedLocal(nSock::gLocalPort(listener), boundedOptions());
            nSock::cHandleValid const target =
                wait == kAccept ? nSock::gCreateListener(0) : nSock::gAccept(listener, boundedOptions());
            int const fd = target.descriptor();
            std::vector<char> const bytes(partial, 'p');
            ASSERT_TRUE(partial == 0 || nSock::gSend(nSock::gValidate(peer), int(partial), bytes.data()));
            std::atomic<bool> succeeded{true};
            std::thread waiter([&] { succeeded = waitOn(wait, target); });
            // Close at once, after a yield or after a pause: before, during and after the wait begins.
            if (round % 3 == 1) std::this_thread::yield();
            if (round % 3 == 2) std::this_thread::sleep_for(std::chrono::microseconds(200));
            EXPECT_TRUE(nSock::gClose(nSock::cHandleValid(target)) && !nSock::gIsValid(target));  // through a copy
            waiter.join();
            EXPECT_EQ((std::vector<bool>{succeeded, ::fcntl(fd, F_GETFD) != -1, nSock::gClose(target)}),
                      (std::vector<bool>(3, false)))
                << "round " << round;
            nSock::gDelete(peer);
        }
    }
    // The descriptor number of a closed handle passes to a new socket, which the end of the
    // handle's last copy leaves open.
    std::optional<nSock::cHandleValid> closed = nSock::gCreateListener(0);
    int const fd = closed->descriptor();
    EXPECT_TRUE(nSock::gClose(*closed));
    RawFd const reused(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(reused.get(), fd);
    closed.reset();
    EXPECT_NE(::fcntl(reused.get(), F_GETFD), -1);
}

}  // namespace
