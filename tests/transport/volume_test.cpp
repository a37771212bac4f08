// Volume: large bodies, long runs of messages between two processes, many connections at
// once, and a sender whose peer has gone. Each test runs under a watchdog.
#include "streamtest.h"

#include <signal.h>
#include <sys/wait.h>

#include <cstring>
#include <string>

using namespace nStreamTest;

namespace {

// The body of message `i` of a run: a length of i % 29 bytes derived from i.
std::string bodyOf(unsigned i) {
    std::string body(i % 29, '\0');
    for (size_t k = 0; k < body.size(); ++k) body[k] = static_cast<char>(i * 31 + k);
    return body;
}

// Sends message `i` of a run: its type and subtype carry i.
bool sendNumbered(StreamSocket& socket, unsigned i) {
    std::string const body = bodyOf(i);
    return socket.SendTypedMessageZ2(static_cast<short>(i & 0x7fff), static_cast<short>(i >> 15), body.data(),
                                     static_cast<int>(body.size()));
}

// Receives message `i` of a run and checks it; false at the first fault.
bool receiveNumbered(StreamSocket& socket, unsigned i) {
    Received const r(socket);
    bool const same = r.ok && r.type == static_cast<short>(i & 0x7fff) && r.subType == static_cast<short>(i >> 15) &&
                      r.body() == bodyOf(i);
    if (!same) ADD_FAILURE() << "message " << i << (r.ok ? " arrived changed or out of order" : " did not arrive");
    return same;
}

TEST(StreamVolume, FourMebibyteBodies) {
    Watchdog watchdog(std::chrono::seconds(60));
    StreamPair pair;
    constexpr int kSize = 4 * 1024 * 1024;
    std::vector<std::string> bodies;
    for (char fill : {'a', 'b', 'c'}) {
        std::string body(kSize, fill);
        for (size_t k = 0; k < body.size(); k += 4093) body[k] = static_cast<char>(k / 4093);
        bodies.push_back(body);
    }
    std::thread sender([&] {
        for (size_t m = 0; m < bodies.size(); ++m)
            EXPECT_TRUE(pair.client.SendTypedMessageZ2(static_cast<short>(m), 0, bodies[m].data(), kSize));
    });
    for (size_t m = 0; m < bodies.size(); ++m) {
        Received const r(*pair.server);
        ASSERT_TRUE(r.ok);
        EXPECT_EQ(r.type, static_cast<short>(m));
        EXPECT_TRUE(r.body() == bodies[m]) << "body " << m;
    }
    sender.join();
}

// The child process of the two-process run: connects and sends `count` messages.
[[noreturn]] void sendRunAndExit(unsigned short port, unsigned count) {
    ::alarm(60);  // the child's own bound
    int status = 0;
    try {
        StreamSocket socket;
        socket.ConnectLocal(port, boundedOptions());
        for (unsigned i = 0; i < count && status == 0; ++i)
            if (!sendNumbered(socket, i)) status = 2;
    } catch (...) {
        status = 3;
    }
    ::_exit(status);
}

TEST(StreamVolume, HundredThousandMessagesFromAnotherProcessArriveInOrder) {
    constexpr unsigned kCount = 100000;
    StreamSocket listener;
    listener.CreateListenerSocket(0);
    unsigned short const port = nSock::gLocalPort(listener.GetHandle());
    pid_t const child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) sendRunAndExit(port, kCount);
    {
        Watchdog watchdog(std::chrono::seconds(60));
        StreamSocket server(listener.Accept(boundedOptions()));
        for (unsigned i = 0; i < kCount; ++i)
            if (!receiveNumbered(server, i)) break;
    }  // closing the connection ends a child that is still sending
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
}

TEST(StreamVolume, SixtyFourConnectionsAtOnceEachExchangingAThousandMessages) {
    constexpr int kConnections = 64;
    constexpr unsigned kMessages = 1000;
    Watchdog watchdog(std::chrono::seconds(90));
    StreamSocket listener;
    listener.CreateListenerSocket(0);
    unsigned short const port = nSock::gLocalPort(listener.GetHandle());

    // All clients connect before the first is accepted: the listener's queue holds them.
    std::vector<std::unique_ptr<StreamSocket>> clients;
    for (int c = 0; c < kConnections; ++c) {
        clients.push_back(std::make_unique<StreamSocket>());
        clients.back()->ConnectLocal(port, boundedOptions());
    }
    // The server echoes every message of each connection on its own thread.
    std::vector<std::thread> echoes;
    for (int c = 0; c < kConnections; ++c) {
        auto server = std::make_shared<StreamSocket>(listener.Accept(boundedOptions()));
        echoes.emplace_back([server] {
            for (unsigned i = 0; i < kMessages; ++i) {
                Received const r(*server);
                if (!r.ok || !server->SendTypedMessageZ2(r.type, r.subType, r.length > 0 ? r.data : "", r.length))
                    return;
            }
        });
    }
    // Each client sends its run (small enough for the socket buffers), then reads the echoes.
    std::vector<std::thread> senders;
    std::vector<int> received(kConnections, 0);
    for (int c = 0; c < kConnections; ++c)
        senders.emplace_back([&, c] {
            for (unsigned i = 0; i < kMessages; ++i)
                if (!sendNumbered(*clients[c], i + c)) return;
            for (unsigned i = 0; i < kMessages; ++i) {
                if (!receiveNumbered(*clients[c], i + c)) return;
                ++received[c];
            }
        });
    for (auto& t : senders) t.join();
    for (auto& t : echoes) t.join();
    for (int c = 0; c < kConnections; ++c) EXPECT_EQ(received[c], static_cast<int>(kMessages)) << "connection " << c;
}

TEST(StreamVolume, ASenderWhosePeerHasGoneGetsFalseNotASignal) {
    struct sigaction fatal {};
    fatal.sa_handler = SIG_DFL;  // SIGPIPE would end the test program
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGPIPE, &fatal, &previous), 0);
    {
        Watchdog watchdog(std::chrono::seconds(30));
        StreamPair pair;
        pair.server.reset();  // the peer releases its end
        std::string const body(16 * 1024, 'q');
        bool sent = true;
        for (int i = 0; i < 1000 && sent; ++i)
            sent = pair.client.SendTypedMessageZ2(1, 1, body.data(), static_cast<int>(body.size()));
        EXPECT_FALSE(sent);
    }
    ::sigaction(SIGPIPE, &previous, nullptr);
}

}  // namespace
