// The socket layer: connection set-up and its errors, exact receives with the read buffer,
// time-outs, signals, closing and a peer that has gone.
#include "streamtest.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <functional>
#include <optional>
#include <cerrno>
#include <cstring>
#include <string>

using namespace nStreamTest;

namespace {

// A connected pair of socket-layer handles and a raw peer on the other end.
struct LayerPair {
    explicit LayerPair(nSock::cSocketOptions options = boundedOptions())
        : listener(rawListen(port)), handle(nSock::gCreateConnectedLocal(port, options)), peer(rawAccept(listener)) {}
    ~LayerPair() { nSock::gDelete(handle); }
    bool receive(Bytes& out, size_t count, nSock::iLatencyConfiguration* latency, bool continuation = false) {
        out.assign(count, 0);
        return nSock::gReceive(handle, static_cast<int>(count), reinterpret_cast<char*>(out.data()), continuation,
                               latency);
    }
    unsigned short port = 0;
    RawFd listener;
    nSock::cHandleValid handle;
    RawFd peer;
};

// Records which flag each receive asked about, answering with a short limit.
class RecordingLatency : public nSock::iLatencyConfiguration {
public:
    std::optional<nTime::cDiff> receiveLimit(bool continuation) const override {
        (continuation ? continuations : firsts)++;
        return nTime::cDiff(30);
    }
    mutable int firsts = 0;
    mutable int continuations = 0;
};

std::string errorOf(std::function<void()> const& action) {
    try {
        action();
    } catch (nSock::cSocketException const& e) {
        return e.what();
    }
    return "no exception";
}

// Whether this machine has the IPv6 loopback address (some containers turn IPv6 off).
bool hasIPv6Loopback() {
    RawFd fd(::socket(AF_INET6, SOCK_STREAM, 0));
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    return fd.get() >= 0 && ::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

TEST(SocketLayer, ListenerConnectAndAcceptOverIPv4IPv6AndNames) {
    nSock::cHandleValid listener = nSock::gCreateListener(0);
    unsigned short const port = nSock::gLocalPort(listener);
    ASSERT_NE(port, 0);
    std::vector<std::string> hosts{"127.0.0.1", "localhost"};
    if (hasIPv6Loopback()) hosts.push_back("::1");
    for (std::string const& host : hosts) {
        nSock::cHandleValid client = nSock::gCreateConnected(host, port, nSock::cSocketOptions());
        nSock::cHandleValid server = nSock::gAccept(listener, boundedOptions());
        EXPECT_TRUE(nSock::gSend(client, 5, "hello")) << host;
        char got[5];
        EXPECT_TRUE(nSock::gReceive(server, 5, got, false, patience())) << host;
        EXPECT_EQ(std::string(got, 5), "hello");
        EXPECT_EQ(nSock::gLocalPort(server), port);
        nSock::gDelete(client);
        nSock::gDelete(server);
    }
    nSock::gDelete(listener);
    EXPECT_EQ(nSock::gLocalPort(nSock::gInvalidHandle()), 0);
}

TEST(SocketLayer, FailuresThrowNamingHostPortAndSystemError) {
    nSock::cHandleValid listener = nSock::gCreateListener(0);
    unsigned short const port = nSock::gLocalPort(listener);

    // The port is taken by the listener above.
    std::string const taken = errorOf([&] { nSock::gCreateListener(port); });
    EXPECT_NE(taken.find("port " + std::to_string(port)), std::string::npos) << taken;
    EXPECT_NE(taken.find(std::strerror(EADDRINUSE)), std::string::npos) << taken;

    // Nobody accepts in time.
    nSock::cSocketOptions quick;
    quick.receiveTimeout = nTime::cDiff(20);
    std::string const late = errorOf([&] { nSock::gAccept(listener, quick); });
    EXPECT_NE(late.find(std::strerror(ETIMEDOUT)), std::string::npos) << late;
    nSock::gDelete(listener);

    // Nobody listens any more.
    std::string const refused = errorOf([&] { nSock::gCreateConnected("127.0.0.1", port, nSock::cSocketOptions()); });
    EXPECT_NE(refused.find("127.0.0.1 port " + std::to_string(port)), std::string::npos) << refused;
    EXPECT_NE(refused.find(std::strerror(ECONNREFUSED)), std::string::npos) << refused;

    std::string const unknown = errorOf([&] { nSock::gCreateConnected("no-such-host.invalid", 7, nSock::cSocketOptions()); });
    EXPECT_NE(unknown.find("no-such-host.invalid port 7"), std::string::npos) << unknown;

    try {
        nSock::gValidate(nSock::gInvalidHandle());
        ADD_FAILURE() << "validating an invalid handle must throw";
    } catch (nSock::cSocketException const& e) {
        EXPECT_EQ(e.systemError(), EBADF);
    }
}

TEST(SocketLayer, ReceivesExactCountsAcrossFragmentsAndReadAhead) {
    LayerPair pair;
    Bytes got;
    // One segment serves two receives; a receive gathers several segments.
    rawSend(pair.peer, bytesOf("abcdefgh"));
    ASSERT_TRUE(pair.receive(got, 3, patience()));
    EXPECT_EQ(got, bytesOf("abc"));
    std::thread sender([&] {
        rawSend(pair.peer, bytesOf("ij"));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        rawSend(pair.peer, bytesOf("klm"));
    });
    ASSERT_TRUE(pair.receive(got, 10, patience()));
    sender.join();
    EXPECT_EQ(got, bytesOf("defghijklm"));

    // Copies of a handle share what was read ahead.
    rawSend(pair.peer, bytesOf("nopq"));
    ASSERT_TRUE(pair.receive(got, 1, patience()));
    nSock::cHandleValid copy = nSock::gValidate(nSock::cHandleOptional(pair.handle));
    char rest[3];
    ASSERT_TRUE(nSock::gReceive(copy, 3, rest, true, patience()));
    EXPECT_EQ(std::string(rest, 3), "opq");

    // A large receive takes the read-ahead bytes first and the rest straight from the socket.
    Bytes large(200000);
    for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<unsigned char>(i * 7 + i / 251);
    Bytes message = bytesOf("head");
    message.insert(message.end(), large.begin(), large.end());
    std::thread bulk([&] { rawSend(pair.peer, message); });
    ASSERT_TRUE(pair.receive(got, 4, patience()));
    EXPECT_EQ(got, bytesOf("head"));
    ASSERT_TRUE(pair.receive(got, large.size(), patience()));
    bulk.join();
    EXPECT_EQ(got, large);

    EXPECT_TRUE(nSock::gReceive(pair.handle, 0, nullptr, false, patience()));
    EXPECT_FALSE(nSock::gReceive(pair.handle, -1, reinterpret_cast<char*>(got.data()), false, patience()));
}

TEST(SocketLayer, TimeOutKeepsTheBytesForTheNextReceive) {
    LayerPair pair;
    nSock::cFixedLatencyConfiguration quick(nTime::cDiff(20));
    Bytes got;
    rawSend(pair.peer, bytesOf("abc"));
    EXPECT_FALSE(pair.receive(got, 8, &quick));
    rawSend(pair.peer, bytesOf("defgh"));
    ASSERT_TRUE(pair.receive(got, 8, &quick));
    EXPECT_EQ(got, bytesOf("abcdefgh"));

    // The same for a receive too large for the read buffer.
    Bytes large(100000, 'x');
    large[0] = 'A';
    large.back() = 'Z';
    rawSend(pair.peer, Bytes(large.begin(), large.begin() + 60000));
    EXPECT_FALSE(pair.receive(got, large.size(), &quick));
    rawSend(pair.peer, Bytes(large.begin() + 60000, large.end()));
    ASSERT_TRUE(pair.receive(got, large.size(), &quick));
    EXPECT_EQ(got, large);

    // Options alone bound a receive that has no latency configuration.
    nSock::cSocketOptions options;
    options.receiveTimeout = nTime::cDiff(20);
    unsigned short port = 0;
    RawFd listener = rawListen(port);
    nSock::cHandleValid bounded = nSock::gCreateConnectedLocal(port, options);
    char c;
    EXPECT_FALSE(nSock::gReceive(bounded, 1, &c, false, nullptr));
    nSock::gDelete(bounded);
}

TEST(SocketLayer, TheContinuationFlagChoosesTheLimit) {
    LayerPair pair;
    RecordingLatency latency;
    Bytes got;
    EXPECT_FALSE(pair.receive(got, 8, &latency, false));
    EXPECT_FALSE(pair.receive(got, 8, &latency, true));
    EXPECT_EQ(latency.firsts, 1);
    EXPECT_EQ(latency.continuations, 1);
}

TEST(SocketLayer, ReceiveEndsWhenThePeerClosesOrResets) {
    for (bool reset : {false, true}) {
        LayerPair pair;
        rawSend(pair.peer, bytesOf("abc"));
        reset ? pair.peer.abort() : pair.peer.reset();
        Bytes got;  // a reset ends even an unbounded wait
        EXPECT_FALSE(pair.receive(got, 4, reset ? nullptr : patience())) << reset;
    }
}

void onSignal(int) {}

// Receives 6 bytes in a thread that is sent signals while it waits.
void receiveUnderSignals(LayerPair& pair, nSock::iLatencyConfiguration* latency) {
    std::atomic<bool> done{false};
    Bytes got;
    std::thread receiver([&] {
        EXPECT_TRUE(pair.receive(got, 6, latency));
        done = true;
    });
    pthread_t const target = receiver.native_handle();
    for (int i = 0; i < 20 && !done; ++i) {
        ::pthread_kill(target, SIGUSR1);
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
        LayerPair bounded;  // waits in poll
        receiveUnderSignals(bounded, patience());
    }
    {
        Watchdog watchdog(std::chrono::seconds(30));
        LayerPair unbounded{nSock::cSocketOptions()};  // waits in recv
        receiveUnderSignals(unbounded, nullptr);
    }
    ::sigaction(SIGUSR1, &previous, nullptr);
}

TEST(SocketLayer, CloseEndsTheConnectionForEveryCopyOfTheHandle) {
    LayerPair pair;
    nSock::cHandleOptional copy(pair.handle);
    EXPECT_TRUE(nSock::gClose(pair.handle));
    EXPECT_TRUE(rawSeesEnd(pair.peer));
    EXPECT_FALSE(nSock::gIsValid(copy));
    EXPECT_FALSE(nSock::gClose(pair.handle));
    char c = 0;
    EXPECT_FALSE(nSock::gSend(pair.handle, 1, &c));
    EXPECT_FALSE(nSock::gReceive(pair.handle, 1, &c, false, patience()));
    nSock::gDelete(nSock::gInvalidHandle());  // ignored
}

}  // namespace
