// The socket layer where the stream socket does not reach it: host names, IPv6 and a system
// without it, connection errors, time-outs that keep the bytes, the continuation flag, refused
// arguments, signals and closing from another thread.
#include "streamtest.h"

#include <fcntl.h>
#include <netdb.h>
#include <pthread.h>
#include <sys/syscall.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <optional>
#include <string>

using namespace nStreamTest;

namespace {
thread_local bool tNoIPv6 = false;  // the calling thread's system has no IPv6
}

// This program's own socket, which the libraries resolve here.
extern "C" __attribute__((visibility("default"))) int socket(int domain, int type, int protocol) {
    if (!tNoIPv6 || domain != AF_INET6) return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
    errno = EAFNOSUPPORT;
    return -1;
}

namespace {

// A socket-layer receive of `count` bytes into `out` on the library end of `pair`.
bool receive(RawPeerPair& pair, Bytes& out, size_t count, nSock::iLatencyConfiguration* latency,
             bool continuation = false) {
    out.assign(count, 0);
    return nSock::gReceive(nSock::gValidate(pair.socket.GetHandle()), static_cast<int>(count),
                           reinterpret_cast<char*>(out.data()), continuation, latency);
}

// `action` must throw a cSocketException whose text is `text` (when given) or contains `parts`.
void expectError(std::function<void()> const& action, std::vector<std::string> const& parts, std::string text = "") {
    try {
        action();
        ADD_FAILURE() << "no exception";
    } catch (nSock::cSocketException const& e) {
        if (!text.empty()) EXPECT_EQ(e.what(), text);
        for (std::string const& part : parts)
            EXPECT_NE(std::string(e.what()).find(part), std::string::npos) << e.what();
    }
}

// Whether this machine has the IPv6 loopback address (some containers turn IPv6 off).
bool hasIPv6Loopback() {
    RawFd fd(::socket(AF_INET6, SOCK_STREAM, 0));
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    return fd.get() >= 0 && ::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

TEST(SocketLayer, ConnectsByAddressNameAndIPv6AndReportsFailuresWithHostPortAndError) {
    for (bool noIPv6 : {false, true}) {
        tNoIPv6 = noIPv6;  // the listener falls back to IPv4
        nSock::cHandleValid listener = nSock::gCreateListener(0);
        unsigned short const port = nSock::gLocalPort(listener);
        std::vector<std::string> hosts{"127.0.0.1", "localhost"};
        if (!noIPv6 && hasIPv6Loopback()) hosts.push_back("::1");
        for (std::string const& host : hosts) {
            SCOPED_TRACE(host + (noIPv6 ? " without IPv6" : ""));
            nSock::cHandleValid client = nSock::gCreateConnected(host, port, nSock::cSocketOptions());
            nSock::cHandleValid server = nSock::gAccept(listener, boundedOptions());
            EXPECT_EQ(nSock::gLocalPort(server), port);
            EXPECT_TRUE(nSock::gSend(client, 5, "hello"));
            char got[5];
            EXPECT_TRUE(nSock::gReceive(server, 5, got, false, patience()));
            EXPECT_EQ(std::string(got, 5), "hello");
            nSock::gDelete(client);
            nSock::gDelete(server);
        }
        tNoIPv6 = false;
        std::string const portText = "port " + std::to_string(port);
        expectError([&] { nSock::gCreateListener(port); }, {portText, std::strerror(EADDRINUSE)});
        expectError([&] { nSock::gAccept(listener, boundedOptions(nTime::cDiff(20))); }, {std::strerror(ETIMEDOUT)});
        nSock::gDelete(listener);
        EXPECT_EQ(nSock::gLocalPort(listener), 0);
        expectError([&] { nSock::gCreateConnected("127.0.0.1", port, nSock::cSocketOptions()); }, {},
                    "connect to 127.0.0.1 " + portText + ": " + std::strerror(ECONNREFUSED) + " (errno " +
                        std::to_string(ECONNREFUSED) + ")");
    }
    // A name that does not resolve says so, with the resolver's reason.
    try {
        nSock::gCreateConnected("no-such-host.invalid", 7, nSock::cSocketOptions());
        ADD_FAILURE() << "no exception";
    } catch (nSock::cSocketException const& e) {
        EXPECT_NE(e.resolveError(), 0);
        EXPECT_EQ(std::string(e.what()),
                  std::string("resolve no-such-host.invalid port 7: the name did not resolve: ") +
                      ::gai_strerror(e.resolveError()));
    }
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
    for (size_t size : {size_t(8), size_t(100000)}) {
        SCOPED_TRACE(size);
        RecordingLatency quick;
        Bytes message(size, 'x'), got;
        message.front() = 'A';
        message.back() = 'Z';
        auto const split = message.begin() + static_cast<long>(size * 3 / 5);
        rawSend(pair.peer, Bytes(message.begin(), split));
        EXPECT_FALSE(receive(pair, got, message.size(), &quick));
        rawSend(pair.peer, Bytes(split, message.end()));
        ASSERT_TRUE(receive(pair, got, message.size(), &quick, true));
        EXPECT_EQ(got, message);
        EXPECT_EQ(quick.asked, (std::vector<bool>{false, true}));
    }
    nSock::cHandleValid const handle = nSock::gValidate(pair.socket.GetHandle());
    char byte = 0;
    EXPECT_FALSE(nSock::gReceive(handle, -1, &byte, false, patience()));
    EXPECT_FALSE(nSock::gReceive(handle, 1, nullptr, false, patience()));
    EXPECT_TRUE(nSock::gReceive(handle, 0, nullptr, false, patience()));
    EXPECT_FALSE(nSock::gSend(handle, -1, "x"));
    EXPECT_FALSE(nSock::gSend(handle, 1, nullptr));
    EXPECT_TRUE(nSock::gSend(handle, 0, nullptr));
    EXPECT_TRUE(nSock::gSend(handle, 2, "ok"));
    EXPECT_EQ(rawReceive(pair.peer, 2), bytesOf("ok"));
    // Options alone bound a receive that has no latency configuration.
    RawPeerPair bounded(boundedOptions(nTime::cDiff(20)));
    EXPECT_FALSE(receive(bounded, got, 1, nullptr));
}

void onSignal(int) {}

// `receive` gets 6 bytes in a thread that is sent signals while it waits; `send` sends them.
void receiveUnderSignals(std::function<Bytes()> const& receive, std::function<void()> const& send) {
    std::atomic<bool> done{false};
    Bytes got;
    std::thread receiver([&] {
        got = receive();
        done = true;
    });
    for (int i = 0; i < 20 && !done; ++i) {
        ::pthread_kill(receiver.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        if (i == 10) send();
    }
    if (!done) send();
    receiver.join();
    EXPECT_EQ(got, bytesOf("abcdef"));
}

// The library's receive, waiting in poll (with a limit) or in recv (without one), and the test
// peer's own raw receive while the library sends.
TEST(SocketLayer, SignalsDoNotInterruptATransfer) {
    SignalScope signals(SIGUSR1, onSignal);
    Watchdog watchdog(60);
    for (nSock::iLatencyConfiguration* latency : {patience(), static_cast<nSock::iLatencyConfiguration*>(nullptr)}) {
        RawPeerPair pair{latency ? boundedOptions() : nSock::cSocketOptions()};
        receiveUnderSignals(
            [&] {
                Bytes got;
                EXPECT_TRUE(receive(pair, got, 6, latency));
                return got;
            },
            [&] { rawSend(pair.peer, bytesOf("abcdef")); });
    }
    RawPeerPair pair;
    receiveUnderSignals([&] { return rawReceive(pair.peer, 6); },
                        [&] { EXPECT_TRUE(pair.socket.WriteDataZ1(6, "abcdef")); });
}

// What one round of the close test waits on: `target`, which another thread closes, and the
// other end of its connection (none for a listener).
struct CloseRound {
    nSock::cHandleValid target;
    nSock::cHandleOptional peer;
};

// A thread waits on a handle (or is about to) while another closes it, thousands of times: the
// close wakes the wait, which fails, and the descriptor is closed once the wait has ended. A
// read buffer freed or a descriptor closed under the waiting thread shows as a data race (or a
// use after free) in the sanitizer builds.
TEST(SocketLayer, ClosingFromAnotherThreadEndsTheWaitAndReleasesAfterIt) {
    Watchdog watchdog(240);
    nSock::cHandleValid listener = nSock::gCreateListener(0);
    auto connected = [&] {
        nSock::cHandleValid client = nSock::gCreateConnectedLocal(nSock::gLocalPort(listener), boundedOptions());
        return CloseRound{nSock::gAccept(listener, boundedOptions()), client};
    };
    auto receive = [](nTime::cDiff const* limit, int count) {
        return [limit, count](nSock::cHandleValid const& h) {
            nSock::cFixedLatencyConfiguration latency(limit ? *limit : kPatience);
            std::vector<char> into(static_cast<size_t>(count));
            return nSock::gReceive(h, count, into.data(), false, limit ? &latency : nullptr);
        };
    };
    // A send of 1 MiB into a connection whose peer does not read, plain or gathered.
    auto send = [](bool gathered) {
        return [gathered](nSock::cHandleValid const& h) {
            int small = 4096;
            ::setsockopt(h.descriptor(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
            std::vector<char> bytes(1 << 20, 's');
            nSock::cSendPiece const pieces[] = {{bytes.data(), 1000}, {bytes.data() + 1000, bytes.size() - 1000}};
            return gathered ? nSock::gSendPieces(h, pieces, 2) == bytes.size()
                            : nSock::gSend(h, static_cast<int>(bytes.size()), bytes.data());
        };
    };
    struct Case {
        char const* what;
        int rounds;
        std::function<CloseRound()> make;
        std::function<bool(nSock::cHandleValid const&)> wait;  // true: the wait did not fail
        size_t partial;  // bytes the peer sends first, fewer than the receive waits for
    } const cases[] = {
        {"small receive into the read buffer, no limit", 1500, connected, receive(nullptr, 64), 5},
        {"large receive with a limit (poll)", 1500, connected, receive(&kPatience, 100000), 70000},
        {"send into a full connection", 50, connected, send(false), 0},
        {"gathered send into a full connection", 50, connected, send(true), 0},
        {"accept on a listener", 200,
         [] {
             return CloseRound{nSock::gCreateListener(0), nSock::gInvalidHandle()};
         },
         [](nSock::cHandleValid const& h) {
             try {
                 nSock::gAccept(h, nSock::cSocketOptions());
                 return true;
             } catch (nSock::cSocketException const& e) {
                 return e.systemError() != EBADF;
             }
         },
         0},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        for (int round = 0; round < c.rounds && !HasFailure(); ++round) {
            CloseRound r = c.make();
            int const fd = r.target.descriptor();
            std::vector<char> const bytes(c.partial, 'p');
            if (c.partial > 0) ASSERT_TRUE(nSock::gSend(nSock::gValidate(r.peer), int(c.partial), bytes.data()));
            std::atomic<bool> succeeded{true};
            std::thread waiter([&] { succeeded = c.wait(r.target); });
            // Close at once, after a yield or after a pause: before, during and after the wait begins.
            if (round % 3 == 1) std::this_thread::yield();
            if (round % 3 == 2) std::this_thread::sleep_for(std::chrono::microseconds(200));
            nSock::cHandleValid const copy = r.target;
            EXPECT_TRUE(nSock::gClose(copy));
            EXPECT_FALSE(nSock::gIsValid(r.target));
            waiter.join();
            EXPECT_FALSE(succeeded) << "round " << round;
            EXPECT_EQ(::fcntl(fd, F_GETFD), -1) << "round " << round << ": the descriptor is still open";
            EXPECT_FALSE(nSock::gClose(r.target));
            nSock::gDelete(r.peer);
        }
    }
}

}  // namespace
