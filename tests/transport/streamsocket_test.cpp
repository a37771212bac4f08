// The message header in both word sizes, the socket owner, and receiving headers and messages
// against a raw POSIX peer, with their log records.
#include "streamtest.h"

#include <fcntl.h>

using namespace nStreamTest;

namespace {

// Each header is written between guard bytes, which must stay as they were, and reads back as
// the low 32 bits of the length and the two classifiers.
TEST(MessageHeader, EightBigEndianBytesWithOnlyTheLowThirtyTwoBitsOfTheLength) {
    struct Case {
        long long length;
        short type, subType;
        Bytes image;
    } const cases[] = {
        {0x01020304, 0x0506, -0x8000, {1, 2, 3, 4, 5, 6, 0x80, 0x00}},
        {-0x7fffffffLL - 1, 0x7fff, 0, {0x80, 0, 0, 0, 0x7f, 0xff, 0, 0}},
        // Where long has 64 bits the high half is dropped; with 32 the conversion keeps the same bits.
        {0x123456789LL, 1, 1, {0x23, 0x45, 0x67, 0x89, 0, 1, 0, 1}},
        {-0x100000000LL + 7, 0, 0, {0, 0, 0, 7, 0, 0, 0, 0}},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.length);
        alignas(c_MessageHeader) unsigned char memory[16];
        std::memset(memory, 0x5A, sizeof memory);
        auto* const header = reinterpret_cast<c_MessageHeader*>(memory + 4);
        SSMMakeMessageHeader(static_cast<long>(c.length), c.type, c.subType, header);
        Bytes expected(16, 0x5A);  // the image between guard bytes
        std::copy(c.image.begin(), c.image.end(), expected.begin() + 4);
        EXPECT_EQ(Bytes(memory, memory + 16), expected);
        EXPECT_EQ((std::vector<long>{gBodyLengthOf(*header), gMessageTypeOf(*header), gMessageSubTypeOf(*header)}),
                  (std::vector<long>{static_cast<int32_t>(static_cast<uint32_t>(c.length)), c.type, c.subType}));
    }
    SSMMakeMessageHeader(1, 2, 3, nullptr);  // ignored
}

// Closing an adopted connection ends it for the peer and for every copy of the handle, and
// keeps the handle object; the destructor releases a listener.
TEST(SocketOwner, TracesEachOperationClosesAndReleasesItsHandle) {
    RawPeerPair pair;
    nSock::cHandleValid const connection = nSock::gValidate(pair.socket.GetHandle());
    TagScope trace("ColloquyT", true);
    nLog::cCapture capture;
    int listenerFd = -1;
    {
        c_Socket empty, listener;  // default construction leaves no record
        listener.CreateListenerSocket(0);
        listenerFd = listener.GetHandle().descriptor();
        ASSERT_GE(listenerFd, 0);
        c_Socket owner(connection);
        nSock::cHandleOptional const* before = &owner.GetHandle();
        EXPECT_TRUE(owner.CloseSocket() && &owner.GetHandle() == before);
        char c = 0;
        EXPECT_TRUE(readable(pair.peer.get()) && ::recv(pair.peer.get(), &c, 1, 0) == 0) << "the peer sees the end";
        EXPECT_EQ((std::vector<bool>{owner.CloseSocket(), nSock::gIsValid(pair.socket.GetHandle()),
                                     nSock::gSend(connection, 1, &c),
                                     nSock::gReceive(connection, 1, &c, false, patience()), nSock::gClose(connection)}),
                  std::vector<bool>(5, false));
    }
    EXPECT_EQ(::fcntl(listenerFd, F_GETFD), -1) << "the destructor releases the listener";
    nSock::gDelete(nSock::gInvalidHandle());  // ignored
    // CreateListenerSocket, adopting, two closes and three destructors.
    ASSERT_EQ(capture.records().size(), 7u);
    for (auto const& r : capture.records())
        EXPECT_TRUE(r.tag == "ColloquyT" && r.file == "../src/basesocket" && r.text == "") << r.file << r.text;
}

// A binary body arrives with its trace; GetMessageHeaderZ1 leaves the header in network order,
// returns the length as it is (also the most negative), -1 when the peer has ended the stream;
// a socket without a connection refuses to send.
TEST(StreamSocket, ReceivesMessagesAndHeaders) {
    RawPeerPair pair;
    TagScope trace("ColloquyT", true);
    nLog::cCapture capture;
    rawSend(pair.peer, Bytes{0, 0, 0, 3, 0, 1, 0, 2, 'a', 0, 'b', 0, 0, 1, 2, 0, 3, 0, 4, 0x80, 0, 0, 0, 0, 1, 0, 1});
    EXPECT_EQ(Received(pair.socket).body(), std::string("a\0b", 3));
    StreamSocket::FreeMessage(nullptr);
    // Entry traces of WaitTypedMessageZ1 and GetMessageHeaderZ1, then the body trace.
    ASSERT_EQ(capture.records().size(), 3u);
    EXPECT_EQ(capture.records()[2].text, std::string("StreamSocket:WaitTypedMessageZ1\t3\ta\0b", 37));
    EXPECT_EQ(capture.records()[2].file, "../src/streamsocket");
    c_MessageHeader header, expected;
    EXPECT_EQ(pair.socket.GetMessageHeaderZ1(&header, patience()), 258);
    SSMMakeMessageHeader(258, 3, 4, &expected);
    EXPECT_EQ(std::memcmp(&header, &expected, sizeof header), 0);
    EXPECT_EQ(pair.socket.GetMessageHeaderZ1(&header, patience()), -0x7fffffff - 1);
    pair.peer.reset();
    EXPECT_EQ(pair.socket.GetMessageHeaderZ1(&header, patience()), -1);
    EXPECT_THROW(StreamSocket().SendTypedMessageZ2(1, 1, "a", 1), nSock::cSocketException);
}

}  // namespace
