// The socket layer where the stream socket does not reach it: host names and IPv6, connection
// errors, time-outs that keep the bytes, the continuation flag and signals.
#include "streamtest.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <optional>
#include <string>

using namespace nStreamTest;

namespace {

// A socket-layer receive of `count` bytes into `out` on the library end of `pair`.
bool receive(RawPeerPair& pair, Bytes& out, size_t count, nSock::iLatencyConfiguration* latency,
             bool continuation = false) {
    out.assign(count, 0);
    return nSock::gReceive(nSock::gValidate(pair.socket.GetHandle()), static_cast<int>(count),
                           reinterpret_cast<char*>(out.data()), continuation, latency);
}

// `action` must throw a cSocketException whose text contains each of `parts`.
void expectError(std::function<void()> const& action, std::vector<std::string> const& parts) {
    try {
        action();
        ADD_FAILURE() << "no exception";
    } catch (nSock::cSocketException const& e) {
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
    nSock::cHandleValid listener = nSock::gCreateListener(0);
    unsigned short const port = nSock::gLocalPort(listener);
    std::vector<std::string> hosts{"127.0.0.1", "localhost"};
    if (hasIPv6Loopback()) hosts.push_back("::1");
    for (std::string const& host : hosts) {
        SCOPED_TRACE(host);
        nSock::cHandleValid client = nSock::gCreateConnected(host, port, nSock::cSocketOptions());
        nSock::cHandleValid server = nSock::gAccept(listener, boundedOptions());
        EXPECT_TRUE(nSock::gSend(client, 5, "hello"));
        char got[5];
        EXPECT_TRUE(nSock::gReceive(server, 5, got, false, patience()));
        EXPECT_EQ(std::string(got, 5), "hello");
        nSock::gDelete(client);
        nSock::gDelete(server);
    }
    std::string const portText = "port " + std::to_string(port);
    expectError([&] { nSock::gCreateListener(port); }, {portText, std::strerror(EADDRINUSE)});
    expectError([&] { nSock::gAccept(listener, boundedOptions(nTime::cDiff(20))); }, {std::strerror(ETIMEDOUT)});
    nSock::gDelete(listener);
    expectError([&] { nSock::gCreateConnected("127.0.0.1", port, nSock::cSocketOptions()); },
                {"127.0.0.1 " + portText, std::strerror(ECONNREFUSED)});
    expectError([&] { nSock::gCreateConnected("no-such-host.invalid", 7, nSock::cSocketOptions()); },
                {"no-such-host.invalid port 7"});
}

// A large receive (straight into the caller's buffer) that times out keeps what arrived for the
// next one; each receive asks for the limit of its own kind.
TEST(SocketLayer, TimeOutKeepsTheBytesForTheNextReceive) {
    struct RecordingLatency : nSock::iLatencyConfiguration {
        std::optional<nTime::cDiff> receiveLimit(bool continuation) const override {
            asked.push_back(continuation);
            return nTime::cDiff(20);
        }
        mutable std::vector<bool> asked;
    } quick;
    RawPeerPair pair;
    Bytes message(100000, 'x'), got;
    message.front() = 'A';
    message.back() = 'Z';
    auto const split = message.begin() + 60000;
    rawSend(pair.peer, Bytes(message.begin(), split));
    EXPECT_FALSE(receive(pair, got, message.size(), &quick));
    rawSend(pair.peer, Bytes(split, message.end()));
    ASSERT_TRUE(receive(pair, got, message.size(), &quick, true));
    EXPECT_EQ(got, message);
    EXPECT_EQ(quick.asked, (std::vector<bool>{false, true}));
    EXPECT_FALSE(nSock::gReceive(nSock::gValidate(pair.socket.GetHandle()), -1, reinterpret_cast<char*>(got.data()),
                                 false, patience()));
    // Options alone bound a receive that has no latency configuration.
    RawPeerPair bounded(boundedOptions(nTime::cDiff(20)));
    EXPECT_FALSE(receive(bounded, got, 1, nullptr));
}

void onSignal(int) {}

// Receives 6 bytes in a thread that is sent signals while it waits.
void receiveUnderSignals(RawPeerPair& pair, nSock::iLatencyConfiguration* latency) {
    std::atomic<bool> done{false};
    Bytes got;
    std::thread receiver([&] {
        EXPECT_TRUE(receive(pair, got, 6, latency));
        done = true;
    });
    for (int i = 0; i < 20 && !done; ++i) {
        ::pthread_kill(receiver.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        if (i == 10) rawSend(pair.peer, bytesOf("abcdef"));
    }
    if (!done) rawSend(pair.peer, bytesOf("abcdef"));
    receiver.join();
    EXPECT_EQ(got, bytesOf("abcdef"));
}

TEST(SocketLayer, SignalsDoNotInterruptATransfer) {
    struct sigaction action {};
    action.sa_handler = onSignal;  // no SA_RESTART: system calls return EINTR
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);
    {
        RawPeerPair bounded;  // waits in poll
        receiveUnderSignals(bounded, patience());
    }
    {
        Watchdog watchdog(std::chrono::seconds(30));
        RawPeerPair unbounded{nSock::cSocketOptions()};  // waits in recv
        receiveUnderSignals(unbounded, nullptr);
    }
    ::sigaction(SIGUSR1, &previous, nullptr);
}

}  // namespace
