// The socket owner and the stream socket against a raw POSIX peer: wire images, headers, failure
// paths and their log records.
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

// Closing an adopted connection ends it for the peer and for every copy of the handle, and
// keeps the handle object; the destructor releases a listener.
TEST(SocketOwner, TracesEachOperationClosesAndReleasesItsHandle) {
    RawPeerPair pair;
    nSock::cHandleValid const connection = nSock::gValidate(pair.socket.GetHandle());
    TagScope trace("ColloquyT", true);
    nLog::cCapture capture;
    int listenerFd = -1;
    {
        c_Socket empty;  // default constructor: no record
        c_Socket listener;
        listener.CreateListenerSocket(0);
        listenerFd = listener.GetHandle().descriptor();
        ASSERT_GE(listenerFd, 0);
        c_Socket owner(connection);
        nSock::cHandleOptional const* before = &owner.GetHandle();
        EXPECT_TRUE(owner.CloseSocket());
        EXPECT_EQ(&owner.GetHandle(), before);
        char c = 0;
        EXPECT_TRUE(readable(pair.peer.get()) && ::recv(pair.peer.get(), &c, 1, 0) == 0) << "the peer sees the end";
        EXPECT_FALSE(owner.CloseSocket());
        EXPECT_FALSE(nSock::gIsValid(pair.socket.GetHandle()));
        EXPECT_FALSE(nSock::gSend(connection, 1, &c));
        EXPECT_FALSE(nSock::gReceive(connection, 1, &c, false, patience()));
        EXPECT_FALSE(nSock::gClose(connection));
    }
    EXPECT_EQ(::fcntl(listenerFd, F_GETFD), -1) << "the destructor releases the listener";
    nSock::gDelete(nSock::gInvalidHandle());  // ignored
    // CreateListenerSocket, adopting, two closes and three destructors.
    ASSERT_EQ(capture.records().size(), 7u);
    for (auto const& r : capture.records())
        EXPECT_TRUE(r.tag == "ColloquyT" && r.file == "../src/basesocket" && r.text == "") << r.file << r.text;
}

// Each message leaves as one wire image in one send call, after an entry trace; a missing body
// or a negative length is reported on the Error tag and the stream stays framed.
TEST(StreamSocket, SendsHeaderAndBodyAsOneWireImage) {
    struct Case {
        char const* what;
        short type, subType;
        char const* body;
        int length;
        Bytes image;
        size_t errors;
    } const cases[] = {
        {"binary body", -2, 0x1234, "\0\xff", 2, {0, 0, 0, 2, 0xFF, 0xFE, 0x12, 0x34, 0, 0xFF}, 0},
        {"no body", 1, 2, nullptr, 0, {0, 0, 0, 0, 0, 1, 0, 2}, 1},
        // The header shortened to nothing: no bytes, no system call.
        {"length -8", 1, 2, "x", -8, {}, 1},
        // The (shortened) header still goes out.
        {"negative length", 1, 2, "x", -1, {0xFF, 0xFF, 0xFF, 0xFF, 0, 1, 0}, 1},
        // Zero bytes stand for the missing body.
        {"missing body of positive length", 3, 4, nullptr, 2, {0, 0, 0, 2, 0, 3, 0, 4, 0, 0}, 2},
    };
    RawPeerPair pair;
    TagScope trace("ColloquyT", true);
    TagScope error("Error", true);
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        nLog::cCapture capture;
        tSendCalls = 0;
        ASSERT_TRUE(pair.socket.SendTypedMessageZ2(c.type, c.subType, c.body, c.length));
        EXPECT_EQ(tSendCalls, c.image.empty() ? 0 : 1);
        EXPECT_EQ(rawReceive(pair.peer, c.image.size()), c.image);
        ASSERT_EQ(capture.records().size(), 1 + c.errors);
        for (auto const& r : capture.records())
            EXPECT_TRUE(r.tag == (&r == &capture.records()[0] ? "ColloquyT" : "Error") &&
                        r.file == "../src/streamsocket" && r.text == "")
                << r.tag << r.file << r.text;
    }
    EXPECT_THROW(pair.socket.SendTypedMessageZ2(1, 2, "x", -9), std::bad_array_new_length);
}

// Extreme classifiers and a binary body arrive with the body's trace; GetMessageHeaderZ1 leaves
// the header in network order, returns the length as it is (also the most negative), -1 when the
// peer has ended the stream.
TEST(StreamSocket, ReceivesMessagesAndHeaders) {
    RawPeerPair pair;
    TagScope trace("ColloquyT", true);
    nLog::cCapture capture;
    rawSend(pair.peer, Bytes{0, 0, 0, 3, 0x80, 0, 0x7F, 0xFF, 'a', 0, 'b'});
    {
        Received const body(pair.socket);
        EXPECT_TRUE(body.ok && body.type == -32768 && body.subType == 32767);
        EXPECT_EQ(body.body(), std::string("a\0b", 3));
    }
    StreamSocket::FreeMessage(nullptr);
    // Entry traces of WaitTypedMessageZ1 and GetMessageHeaderZ1, then the body trace.
    ASSERT_EQ(capture.records().size(), 3u);
    EXPECT_EQ(capture.records()[0].text + capture.records()[1].text, "");
    EXPECT_EQ(capture.records()[2].text, std::string("StreamSocket:WaitTypedMessageZ1\t3\ta\0b", 37));
    EXPECT_EQ(capture.records()[2].file, "../src/streamsocket");

    rawSend(pair.peer, Bytes{0, 0, 1, 2, 0, 3, 0, 4, 0x80, 0, 0, 0, 0, 1, 0, 1});
    c_MessageHeader header, expected;
    EXPECT_EQ(pair.socket.GetMessageHeaderZ1(&header, patience()), 258);
    SSMMakeMessageHeader(258, 3, 4, &expected);
    EXPECT_EQ(std::memcmp(&header, &expected, sizeof header), 0);
    EXPECT_EQ(pair.socket.GetMessageHeaderZ1(&header, patience()), -0x7fffffff - 1);
    pair.peer.reset();
    EXPECT_EQ(pair.socket.GetMessageHeaderZ1(&header, patience()), -1);
}

// (Accepting through the stream socket's own listener is exercised by every StreamPair.)
TEST(StreamSocket, RefusesWithoutAConnection) {
    StreamSocket unconnected;
    EXPECT_THROW(unconnected.SendTypedMessageZ2(1, 1, "a", 1), nSock::cSocketException);
    EXPECT_THROW(unconnected.Connect("127.0.0.1", 1, nSock::cSocketOptions()), nSock::cSocketException);
}

}  // namespace
