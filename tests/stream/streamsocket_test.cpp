// The socket owner and the stream socket against a raw POSIX peer: wire images, receiving,
// failure paths and their log records.
#include "streamtest.h"

#include <fcntl.h>
#include <sys/syscall.h>

#include <cstring>
#include <new>
#include <string>

using namespace nStreamTest;

namespace {
thread_local int tSendCalls = 0;
}

// This program's own send, counting the calls per thread: the libraries resolve send here.
extern "C" __attribute__((visibility("default"))) ssize_t send(int fd, void const* buffer, size_t size, int flags) {
    ++tSendCalls;
    return syscall(SYS_sendto, fd, buffer, size, flags, nullptr, 0);
}

namespace {

std::vector<nLog::cRecord> recordsOf(nLog::cCapture const& capture, std::string const& tag) {
    std::vector<nLog::cRecord> out;
    for (auto const& r : capture.records())
        if (r.tag == tag) out.push_back(r);
    return out;
}

// Receives one message; `data` starts as `sentinel` so that an untouched output shows.
struct Received {
    bool ok = false;
    short type = 111;
    short subType = 222;
    char* data = nullptr;
    int length = 333;
};

char sentinel[1];

Received waitFor(StreamSocket& socket, nSock::iLatencyConfiguration* latency = patience()) {
    Received r;
    r.data = sentinel;
    r.ok = socket.WaitTypedMessageZ1(r.type, r.subType, r.data, r.length, latency);
    return r;
}

void expectUntouched(Received const& r) {
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.type, 111);
    EXPECT_EQ(r.subType, 222);
    EXPECT_EQ(r.data, sentinel);
    EXPECT_EQ(r.length, 333);
}

TEST(SocketOwner, TracesEachOperationClosesAndReleasesItsHandle) {
    TagScope trace("ColloquyT", true);
    nLog::cCapture capture;
    int listenerFd = -1;
    {
        c_Socket empty;  // default constructor: no record
        EXPECT_FALSE(empty.CloseSocket());
        c_Socket listener;
        listener.CreateListenerSocket(0);
        listenerFd = listener.GetHandle().descriptor();
        ASSERT_GE(listenerFd, 0);
    }
    // CloseSocket, CreateListenerSocket and two destructors, each an empty basesocket trace.
    ASSERT_EQ(capture.records().size(), 4u);
    for (auto const& r : capture.records()) {
        EXPECT_EQ(r.tag, "ColloquyT");
        EXPECT_EQ(r.file, "../src/basesocket");
        EXPECT_EQ(r.text, "");
    }
    EXPECT_EQ(::fcntl(listenerFd, F_GETFD), -1) << "the destructor releases the listener";

    // Closing an adopted connection ends it for the peer and keeps the handle object.
    unsigned short port = 0;
    RawFd rawListener = rawListen(port);
    nSock::cHandleValid connection = nSock::gCreateConnectedLocal(port, boundedOptions());
    RawFd peer = rawAccept(rawListener);
    capture.clear();
    {
        c_Socket owner(connection);
        nSock::cHandleOptional const* before = &owner.GetHandle();
        EXPECT_TRUE(owner.CloseSocket());
        EXPECT_EQ(&owner.GetHandle(), before);
        EXPECT_TRUE(rawSeesEnd(peer));
        EXPECT_FALSE(owner.CloseSocket());
    }
    EXPECT_EQ(recordsOf(capture, "ColloquyT").size(), 4u);  // adopting, two closes, destructor
}

TEST(StreamSocket, SendsHeaderAndBodyAsOneWireImage) {
    RawPeerPair pair;
    tSendCalls = 0;
    ASSERT_TRUE(pair.socket.SendTypedMessageZ2(7, 9, "abc", 3));
    EXPECT_EQ(tSendCalls, 1) << "header and body leave in one call";
    EXPECT_EQ(rawReceive(pair.peer, 11), (Bytes{0, 0, 0, 3, 0, 7, 0, 9, 'a', 'b', 'c'}));
    ASSERT_TRUE(pair.socket.SendTypedMessageZ2(-2, 0x1234, std::string("\0\xff", 2).c_str(), 2));
    EXPECT_EQ(rawReceive(pair.peer, 10), (Bytes{0, 0, 0, 2, 0xFF, 0xFE, 0x12, 0x34, 0, 0xFF}));
    ASSERT_TRUE(pair.socket.WriteDataZ1(2, "xy"));
    EXPECT_EQ(rawReceive(pair.peer, 2), bytesOf("xy"));
}

TEST(StreamSocket, ReportsAMissingBodyAndANegativeLength) {
    RawPeerPair pair;
    TagScope error("Error", true);
    TagScope trace("ColloquyT", true);
    nLog::cCapture capture;

    ASSERT_TRUE(pair.socket.SendTypedMessageZ2(1, 2, nullptr, 0));
    EXPECT_EQ(rawReceive(pair.peer, 8), (Bytes{0, 0, 0, 0, 0, 1, 0, 2}));
    ASSERT_EQ(capture.records().size(), 2u);  // one Error and one trace, both from streamsocket
    for (auto const& r : capture.records()) {
        EXPECT_EQ(r.file, "../src/streamsocket");
        EXPECT_EQ(r.text, "");
    }
    EXPECT_EQ(recordsOf(capture, "Error").size(), 1u);

    // A negative length is reported and the (shortened) message still goes out.
    capture.clear();
    ASSERT_TRUE(pair.socket.SendTypedMessageZ2(1, 2, "x", -1));
    EXPECT_EQ(rawReceive(pair.peer, 7), (Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0, 1, 0}));
    EXPECT_EQ(recordsOf(capture, "Error").size(), 1u);
    EXPECT_THROW(pair.socket.SendTypedMessageZ2(1, 2, "x", -9), std::bad_array_new_length);

    // A missing body of positive length: two reports, and zero bytes keep the stream framed.
    capture.clear();
    ASSERT_TRUE(pair.socket.SendTypedMessageZ2(3, 4, nullptr, 2));
    EXPECT_EQ(rawReceive(pair.peer, 10), (Bytes{0, 0, 0, 2, 0, 3, 0, 4, 0, 0}));
    EXPECT_EQ(recordsOf(capture, "Error").size(), 2u);

    // With the Error tag off, nothing is reported.
    nLog::gEnable("Error", false);
    capture.clear();
    ASSERT_TRUE(pair.socket.SendTypedMessageZ2(1, 2, nullptr, 0));
    EXPECT_TRUE(recordsOf(capture, "Error").empty());
}

TEST(StreamSocket, ReceivesMessagesAndTracesTheirBodies) {
    RawPeerPair pair;
    // An empty message leaves `data` as it was.
    rawSend(pair.peer, Bytes{0, 0, 0, 0, 0, 5, 0xFF, 0xFF});
    Received empty = waitFor(pair.socket);
    EXPECT_TRUE(empty.ok && empty.length == 0 && empty.type == 5 && empty.subType == -1);
    EXPECT_EQ(empty.data, sentinel);

    TagScope trace("ColloquyT", true);
    nLog::cCapture capture;
    rawSend(pair.peer, Bytes{0, 0, 0, 3, 0x80, 0, 0x7F, 0xFF, 'a', 0, 'b'});
    Received body = waitFor(pair.socket);
    ASSERT_TRUE(body.ok);
    EXPECT_EQ(body.type, -32768);
    EXPECT_EQ(body.subType, 32767);
    ASSERT_EQ(body.length, 3);
    EXPECT_EQ(std::string(body.data, 3), std::string("a\0b", 3));
    StreamSocket::FreeMessage(body.data);
    StreamSocket::FreeMessage(nullptr);

    // Entry traces of WaitTypedMessageZ1 and GetMessageHeaderZ1, then the body trace.
    auto traces = recordsOf(capture, "ColloquyT");
    ASSERT_EQ(traces.size(), 3u);
    EXPECT_EQ(traces[0].text, "");
    EXPECT_EQ(traces[1].text, "");
    EXPECT_EQ(traces[2].text, std::string("StreamSocket:WaitTypedMessageZ1\t3\ta\0b", 37));
    EXPECT_EQ(traces[2].file, "../src/streamsocket");

    // GetMessageHeaderZ1 leaves the header in network order.
    rawSend(pair.peer, Bytes{0, 0, 1, 2, 0, 3, 0, 4});
    c_MessageHeader header;
    EXPECT_EQ(pair.socket.GetMessageHeaderZ1(&header, patience()), 258);
    c_MessageHeader expected;
    SSMMakeMessageHeader(258, 3, 4, &expected);
    EXPECT_EQ(std::memcmp(&header, &expected, sizeof header), 0);
}

TEST(StreamSocket, ANegativeLengthOnTheWireFailsWithoutReadingFurther) {
    RawPeerPair pair;
    rawSend(pair.peer, Bytes{0xFF, 0xFF, 0xFF, 0xFE, 0, 1, 0, 1, 0, 0, 0, 1, 0, 2, 0, 3, 'z'});
    expectUntouched(waitFor(pair.socket));
    Received next = waitFor(pair.socket);  // the bytes behind the bad header are still there
    ASSERT_TRUE(next.ok);
    EXPECT_EQ(next.type, 2);
    EXPECT_EQ(next.length, 1);
    EXPECT_EQ(next.data[0], 'z');
    StreamSocket::FreeMessage(next.data);

    rawSend(pair.peer, Bytes{0x80, 0, 0, 0, 0, 1, 0, 1});
    c_MessageHeader header;
    EXPECT_EQ(pair.socket.GetMessageHeaderZ1(&header, patience()), -0x7fffffff - 1);
}

TEST(StreamSocket, FailedReadsLeaveTheOutputsUntouched) {
    struct Case {
        char const* what;
        Bytes sent;
        bool reset;
    } const cases[] = {
        {"peer closes inside the header", {0, 0, 0}, false},
        {"peer closes inside the body", {0, 0, 0, 4, 0, 1, 0, 1, 'a', 'b'}, false},
        {"peer resets the connection", {0, 0, 0, 4, 0, 1, 0, 1, 'a'}, true},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        RawPeerPair pair;
        rawSend(pair.peer, c.sent);
        c.reset ? pair.peer.abort() : pair.peer.reset();
        expectUntouched(waitFor(pair.socket));
        c_MessageHeader header;
        EXPECT_EQ(pair.socket.GetMessageHeaderZ1(&header, patience()), -1);
    }
    // Nothing arrives within the fixed latency configuration's limit; the connection stays usable.
    RawPeerPair pair;
    nSock::cFixedLatencyConfiguration quick(nTime::cDiff(20));
    expectUntouched(waitFor(pair.socket, &quick));
    rawSend(pair.peer, Bytes{0, 0, 0, 0, 0, 6, 0, 7});
    Received late = waitFor(pair.socket, &quick);
    EXPECT_TRUE(late.ok);
    EXPECT_EQ(late.subType, 7);
}

TEST(StreamSocket, AcceptsThroughItsListenerAndRefusesWithoutAConnection) {
    StreamPair pair;
    ASSERT_TRUE(pair.server->SendTypedMessageZ2(10, 20, "pong", 4));
    Received r = waitFor(pair.client);
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(std::string(r.data, 4), "pong");
    StreamSocket::FreeMessage(r.data);

    StreamSocket unconnected;
    EXPECT_THROW(unconnected.SendTypedMessageZ2(1, 1, "a", 1), nSock::cSocketException);
    EXPECT_THROW(unconnected.Connect("127.0.0.1", 1, nSock::cSocketOptions()), nSock::cSocketException);
}

}  // namespace
