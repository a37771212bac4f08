// Volume: a long run of messages from another process and many connections at once, each test
// under a watchdog.
#include "streamtest.h"

#include <sys/wait.h>

#include <string>

using namespace nStreamTest;

namespace {

// Message `i` of a run: its type and subtype carry i, its body has i % 29 bytes derived from i.
std::string bodyOf(unsigned i) {
    std::string body(i % 29, '\0');
    for (size_t k = 0; k < body.size(); ++k) body[k] = static_cast<char>(i * 31 + k);
    return body;
}

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

TEST(StreamVolume, HundredThousandMessagesFromAnotherProcessArriveInOrder) {
    constexpr unsigned kCount = 100000;
    StreamSocket listener;
    listener.CreateListenerSocket(0);
    unsigned short const port = nSock::gLocalPort(listener.GetHandle());
    pid_t const child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {  // connects and sends the run, within its own bound
        ::alarm(60);
        unsigned sent = 0;
        try {
            StreamSocket socket;
            socket.ConnectLocal(port, boundedOptions());
            while (sent < kCount && sendNumbered(socket, sent)) ++sent;
        } catch (...) {
        }
        ::_exit(sent == kCount ? 0 : 2);
    }
    {
        Watchdog watchdog(60);
        StreamSocket server(listener.Accept(boundedOptions()));
        for (unsigned i = 0; i < kCount && receiveNumbered(server, i); ++i) {
        }
    }  // closing the connection ends a child that is still sending
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
}

TEST(StreamVolume, SixtyFourConnectionsAtOnceEachExchangingAThousandMessages) {
    constexpr int kConnections = 64;
    constexpr unsigned kMessages = 1000;
    Watchdog watchdog(90);
    StreamSocket listener;
    listener.CreateListenerSocket(0);
    // All clients connect before the first is accepted: the listener's queue holds them.
    std::vector<std::unique_ptr<StreamSocket>> clients;
    for (int c = 0; c < kConnections; ++c) {
        clients.push_back(std::make_unique<StreamSocket>());
        clients.back()->ConnectLocal(nSock::gLocalPort(listener.GetHandle()), boundedOptions());
    }
    // The server echoes every message of each connection on its own thread; each client sends
    // its run (small enough for the socket buffers), then reads the echoes.
    std::vector<std::thread> threads;
    for (int c = 0; c < kConnections; ++c) {
        auto server = std::make_shared<StreamSocket>(listener.Accept(boundedOptions()));
        threads.emplace_back([server] {
            for (unsigned i = 0; i < kMessages; ++i) {
                Received const r(*server);
                if (!r.ok || !server->SendTypedMessageZ2(r.type, r.subType, r.length > 0 ? r.data : "", r.length))
                    return;
            }
        });
    }
    std::vector<unsigned> received(kConnections, 0);
    for (int c = 0; c < kConnections; ++c)
        threads.emplace_back([&, c] {
            for (unsigned i = 0; i < kMessages; ++i)
                if (!sendNumbered(*clients[c], i + c)) return;
            while (received[c] < kMessages && receiveNumbered(*clients[c], received[c] + c)) ++received[c];
        });
    for (auto& t : threads) t.join();
    for (int c = 0; c < kConnections; ++c) EXPECT_EQ(received[c], kMessages) << "connection " << c;
}

}  // namespace
