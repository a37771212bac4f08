// Sending one message in one system call and batches of messages: the wire image against one send
// per message, short writes and signals inside headers and bodies, a peer closing part-way, a long run.
#include "streamtest.h"

#include <sys/syscall.h>
#include <sys/uio.h>

#include <deque>

using namespace nStreamTest;

// The steps of the test thread's next sendmsg calls: a count passes at most that many bytes,
// kInterrupt fails with EINTR, kAwaitReset waits until the peer has reset the connection and
// passes; calls beyond them pass.
static constexpr long kPass = LONG_MAX, kInterrupt = -1, kAwaitReset = -2;
static thread_local std::deque<long> tScript;
static thread_local int tCalls = 0;  // send and sendmsg calls

// This program's own send and sendmsg (the libraries resolve them here), counted; sendmsg plays the script.
extern "C" __attribute__((visibility("default"))) ssize_t send(int fd, void const* buffer, size_t size, int flags) {
    ++tCalls;
    return syscall(SYS_sendto, fd, buffer, size, flags, nullptr, 0);
}

extern "C" __attribute__((visibility("default"))) ssize_t sendmsg(int fd, msghdr const* message, int flags) {
    ++tCalls;
    long const step = tScript.empty() ? kPass : tScript.front();
    if (!tScript.empty()) tScript.pop_front();
    if (step == kAwaitReset && !readable(fd)) ADD_FAILURE() << "no reset arrived";  // a reset makes it readable
    if (step == kInterrupt) return errno = EINTR, -1;
    std::vector<iovec> pieces(message->msg_iov, message->msg_iov + message->msg_iovlen);
    size_t left = step < 0 ? SIZE_MAX : static_cast<size_t>(step);
    for (iovec& piece : pieces) left -= piece.iov_len = std::min(piece.iov_len, left);
    msghdr shorter = *message;
    shorter.msg_iov = pieces.data();
    return syscall(SYS_sendmsg, fd, &shorter, flags);
}

namespace {

struct Message {
    short type, subType;
    std::string body;
};

// `count` messages of `size` bytes, each body and type different.
std::vector<Message> numbered(int count, size_t size) {
    std::vector<Message> messages;
    for (int i = 0; i < count; ++i) {
        messages.push_back({static_cast<short>(i), static_cast<short>(-i), std::string(size, '\0')});
        for (size_t k = 0; k < size; ++k) messages.back().body[k] = static_cast<char>(i * 7 + k);
    }
    return messages;
}

// Each message leaves as one wire image in one send call; a missing body or a negative length
// is reported on the Error tag and the stream stays framed.
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
        {"length -8: the header shortened to nothing, no system call", 1, 2, "x", -8, {}, 1},
        {"negative length: the shortened header goes out", 1, 2, "x", -1, {0xFF, 0xFF, 0xFF, 0xFF, 0, 1, 0}, 1},
        {"missing body of positive length: zeros", 3, 4, nullptr, 2, {0, 0, 0, 2, 0, 3, 0, 4, 0, 0}, 2},
    };
    RawPeerPair pair;
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        nTagScope::ErrorRecords errors;
        tCalls = 0;
        ASSERT_TRUE(pair.socket.SendTypedMessageZ2(c.type, c.subType, c.body, c.length));
        EXPECT_EQ(rawReceive(pair.peer, c.image.size()), c.image);
        EXPECT_EQ((std::vector<size_t>{size_t(tCalls), errors.count("streamsocket"), errors.total()}),
                  (std::vector<size_t>{c.image.empty() ? 0u : 1u, c.errors, c.errors}));
    }
    EXPECT_THROW(pair.socket.SendTypedMessageZ2(1, 2, "x", -9), std::bad_array_new_length);
}

// A batch goes out as the bytes of the same messages sent one at a time, in as many calls as its
// pieces (a header and a non-empty body each, at most 1024 a call) and its bytes (1 MiB a call)
// need, resuming where a short write or a signal stopped the system, inside a header or a body.
TEST(MessageBatch, SendsTheBytesOfOneSendPerMessage) {
    struct Case {
        char const* what;
        std::vector<Message> messages;
        std::deque<long> script;
        int calls;
    } const cases[] = {
        {"empty batch", {}, {}, 0},
        {"extreme types", {{-32768, 32767, std::string("\0\xff", 2)}, {0, 0, ""}, {1, -1, "x"}, {2, 2, ""}}, {}, 1},
        {"more pieces than one call takes", numbered(600, 10), {}, 2},
        {"more bytes than one call takes", numbered(3, 700000), {}, 3},
        {"a zero-length and a 4 MiB body", {{1, 2, ""}, {3, 4, std::string(4 << 20, 'm')}}, {}, 5},
        {"signal before the first byte", numbered(3, 100), {kInterrupt}, 2},
        {"short write at the end of a message", numbered(3, 100), {108}, 2},
        {"short write inside a later header, then a signal", numbered(3, 100), {112, kInterrupt}, 3},
        {"short write inside a body, then a signal", numbered(3, 100), {150, kInterrupt}, 3},
        {"the first header one byte at a time", numbered(3, 100), std::deque<long>(8, 1), 9},
        {"short write in the second call", numbered(600, 10), {kPass, 5}, 3},
    };
    Watchdog watchdog(60);  // a sender with more bytes than expected blocks
    RawPeerPair pair;
    cTypedMessageBatch batch;  // one batch for every row
    TagScope trace("ColloquyT", true), error("Error", true);
    // The bytes the raw peer receives (`count`, or fewer when the stream ends) while `send` runs.
    auto receivedWhile = [&](size_t count, auto send) {
        Bytes received;
        std::thread reader([&] { received = rawReceive(pair.peer, count); });
        send();
        reader.join();
        return received;
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        size_t size = 0;  // of the wire image
        batch.Clear();
        for (Message const& m : c.messages)
            size += 8 + m.body.size(), batch.Add(m.type, m.subType, m.body.data(), int(m.body.size()));
        ASSERT_EQ(batch.Count(), static_cast<long>(c.messages.size()));
        nLog::cCapture capture;  // the entry trace, no Error
        tScript = c.script, tCalls = 0;
        long written = -1, sent = 0;
        Bytes const batched = receivedWhile(size, [&] { sent = pair.socket.SendTypedMessageBatch(batch, &written); });
        EXPECT_EQ((std::vector<long>{sent, written, tCalls, long(tScript.size()), long(capture.records().size())}),
                  (std::vector<long>{1, batch.Count(), c.calls, 0, 1}));
        EXPECT_EQ(capture.records().at(0).file, "../src/streamsocket");
        Bytes const oneByOne = receivedWhile(size, [&] {
            for (Message const& m : c.messages)
                ASSERT_TRUE(pair.socket.SendTypedMessageZ2(m.type, m.subType, m.body.data(), int(m.body.size())));
        });
        EXPECT_TRUE(batched.size() == size && batched == oneByOne) << "the wire images differ";
    }
}

// Adding refuses a message the batch cannot frame, with an Error record; the messages around it
// go out as if it had never been added. A null body of length 0 is an empty message.
TEST(MessageBatch, RefusesANegativeLengthAndAMissingBody) {
    RawPeerPair pair;
    nTagScope::ErrorRecords errors;
    cTypedMessageBatch batch;
    EXPECT_EQ((std::vector<bool>{batch.Add(1, 1, "a", 1), batch.Add(5, 5, "x", -1), batch.Add(5, 5, nullptr, 5),
                                 batch.Add(2, 2, nullptr, 0)}),
              (std::vector<bool>{true, false, false, true}));
    EXPECT_EQ(std::make_pair(errors.count("streamsocket"), batch.Count()), std::make_pair(size_t(2), 2L));
    tScript = {0};  // a system that takes nothing: an error, not an endless loop
    EXPECT_FALSE(pair.socket.SendTypedMessageBatch(batch));
    EXPECT_EQ(errors.records().back().text,
              "StreamSocket:SendTypedMessageBatch\t0\t2\t" + std::string(std::strerror(EIO)));
    ASSERT_TRUE(pair.socket.SendTypedMessageBatch(batch));
    EXPECT_EQ(rawReceive(pair.peer, 17), (Bytes{0, 0, 0, 1, 0, 1, 0, 1, 'a', 0, 0, 0, 0, 0, 2, 0, 2}));
    nSock::cSendPiece const empty[] = {{"", 0}, {nullptr, 0}};  // nothing to send: no system call
    tCalls = 0;
    EXPECT_TRUE(nSock::gSendPieces(nSock::gValidate(pair.socket.GetHandle()), empty, 2) == 0 && tCalls == 0);
}

// The peer resets the connection after reading what the system took of a batch: the count of
// messages written whole is what the peer received whole, and an Error record says so. Later
// sends on the broken connection fail at once, without SIGPIPE.
TEST(MessageBatch, ReportsTheMessagesWrittenWholeWhenThePeerCloses) {
    struct Case {
        long taken, whole;  // bytes the system takes before the reset, messages written whole
    } const cases[] = {{0, 0}, {1008 + 4, 1}, {2016 + 500, 2}, {3024, 3}};  // 1008 bytes a message
    SignalScope fatal(SIGPIPE, SIG_DFL);
    std::vector<Message> const messages = numbered(4, 1000);  // the batch refers to their bodies
    cTypedMessageBatch batch;
    for (Message const& m : messages) batch.Add(m.type, m.subType, m.body.data(), 1000);
    for (Case const& c : cases) {
        SCOPED_TRACE(c.taken);
        RawPeerPair pair;
        nTagScope::ErrorRecords errors;
        tScript = c.taken > 0 ? std::deque<long>{c.taken, kAwaitReset} : std::deque<long>{kAwaitReset};
        Bytes received;
        std::thread peer([&] {
            received = rawReceive(pair.peer, static_cast<size_t>(c.taken));
            pair.peer.abort();
        });
        long written = -1;
        EXPECT_FALSE(pair.socket.SendTypedMessageBatch(batch, &written));
        peer.join();
        EXPECT_EQ((std::vector<long>{long(received.size()), written, long(errors.count("streamsocket"))}),
                  (std::vector<long>{c.taken, c.whole, 1}));
        EXPECT_EQ(errors.records().at(0).text, "StreamSocket:SendTypedMessageBatch\t" + std::to_string(c.whole) +
                                                   "\t4\t" + std::strerror(ECONNRESET));
        EXPECT_FALSE(pair.socket.SendTypedMessageBatch(batch, &written) || written != 0 ||
                     pair.socket.SendTypedMessageZ2(1, 1, "x", 1));
    }
}

// A long run of small messages in batches of changing sizes arrives whole, in order, with its
// types: every batch boundary falls somewhere else in the receiver's read-ahead.
TEST(MessageBatch, AMillionSmallMessagesArriveInOrder) {
    constexpr unsigned kCount = 1000000, kSize = 100;
    std::vector<char> bodies(1000 * kSize);  // message i has body i % 1000
    for (size_t k = 0; k < bodies.size(); ++k) bodies[k] = static_cast<char>(k % 251);
    Watchdog watchdog(200);
    StreamSocket listener;
    listener.CreateListenerSocket(0);
    bool sent = true;
    std::thread sender([&] {
        static unsigned const kBatchSizes[] = {1, 2, 7, 64, 333, 1000};
        cTypedMessageBatch batch;
        StreamSocket client;
        client.ConnectLocal(nSock::gLocalPort(listener.GetHandle()), boundedOptions());
        for (unsigned i = 0, round = 0; i < kCount && sent; ++round) {
            batch.Clear();
            for (unsigned n = std::min(kBatchSizes[round % 6], kCount - i); n > 0; --n, ++i)
                batch.Add(short(i & 0x7fff), short(i >> 15), &bodies[i % 1000 * kSize], kSize);
            sent = client.SendTypedMessageBatch(batch);
        }
    });
    StreamSocket server(listener.Accept(boundedOptions()));
    auto const intact = [&](Received const& r, unsigned i) {
        return r.ok && r.length == int(kSize) && r.type == short(i & 0x7fff) && r.subType == short(i >> 15) &&
               std::memcmp(r.data, &bodies[i % 1000 * kSize], kSize) == 0;
    };
    unsigned i = 0;
    while (i < kCount && intact(Received(server), i)) ++i;
    EXPECT_EQ(i, kCount) << "message " << i << " did not arrive, or arrived changed or out of order";
    server.CloseSocket();  // ends a sender that is still sending
    sender.join();
    EXPECT_TRUE(sent);
}

}  // namespace
