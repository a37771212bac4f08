// Streams of small messages: batches (their wire image against one send per message, short
// writes and signals inside headers and bodies, a peer that closes part-way, a long run in
// order) and the receive into a caller's buffer.
#include "streamtest.h"

#include <signal.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <optional>
#include <string>

using namespace nStreamTest;

namespace {

// What one sendmsg call of the test thread does.
struct Step {
    enum Kind { kPass, kCut, kInterrupt, kAwaitReset } kind;
    size_t bytes = 0;  // kCut: at most this many bytes go out
};
Step cut(size_t bytes) { return {Step::kCut, bytes}; }
Step const kPass{Step::kPass};
Step const kInterrupt{Step::kInterrupt};
Step const kAwaitReset{Step::kAwaitReset};  // wait until the peer has reset the connection

// The steps of the calling thread's next sendmsg calls; a call beyond them goes out unchanged.
thread_local std::deque<Step> tScript;
thread_local int tSendmsgCalls = 0;

ssize_t forward(int fd, msghdr const* message, int flags) { return syscall(SYS_sendmsg, fd, message, flags); }

// Forwards the first `bytes` bytes of `message` only.
ssize_t forwardCut(int fd, msghdr const* message, int flags, size_t bytes) {
    std::vector<iovec> pieces;
    for (size_t i = 0; i < static_cast<size_t>(message->msg_iovlen) && bytes > 0; ++i) {
        iovec piece = message->msg_iov[i];
        piece.iov_len = std::min(piece.iov_len, bytes);
        bytes -= piece.iov_len;
        pieces.push_back(piece);
    }
    msghdr shorter = *message;
    shorter.msg_iov = pieces.data();
    shorter.msg_iovlen = pieces.size();
    return forward(fd, &shorter, flags);
}

}  // namespace

// This program's own sendmsg: the libraries resolve it here. It plays the calling thread's
// script, then forwards to the kernel.
extern "C" __attribute__((visibility("default"))) ssize_t sendmsg(int fd, msghdr const* message, int flags) {
    ++tSendmsgCalls;
    if (tScript.empty()) return forward(fd, message, flags);
    Step const step = tScript.front();
    tScript.pop_front();
    switch (step.kind) {
        case Step::kPass:
            break;
        case Step::kCut:
            return forwardCut(fd, message, flags, step.bytes);
        case Step::kInterrupt:
            errno = EINTR;
            return -1;
        case Step::kAwaitReset: {
            pollfd p{fd, 0, 0};  // POLLERR and POLLHUP are always reported
            if (::poll(&p, 1, static_cast<int>(kPatience.milliseconds())) != 1) ADD_FAILURE() << "no reset arrived";
            return forward(fd, message, flags);
        }
    }
    return forward(fd, message, flags);
}

namespace {

// A message of a test batch.
struct Message {
    short type, subType;
    std::string body;
    char const* data() const { return body.data(); }
    int length() const { return static_cast<int>(body.size()); }
};

// The wire image of `messages`: each header, then its body.
Bytes imageOf(std::vector<Message> const& messages) {
    Bytes image;
    for (Message const& m : messages) {
        c_MessageHeader header;
        SSMMakeMessageHeader(m.length(), m.type, m.subType, &header);
        auto const* h = reinterpret_cast<unsigned char const*>(&header);
        image.insert(image.end(), h, h + sizeof header);
        image.insert(image.end(), m.body.begin(), m.body.end());
    }
    return image;
}

// `count` messages of `size` bytes, each body and type different.
std::vector<Message> numbered(int count, size_t size) {
    std::vector<Message> messages;
    for (int i = 0; i < count; ++i) {
        std::string body(size, '\0');
        for (size_t k = 0; k < size; ++k) body[k] = static_cast<char>(i * 7 + k);
        messages.push_back({static_cast<short>(i), static_cast<short>(-i), body});
    }
    return messages;
}

cTypedMessageBatch batchOf(std::vector<Message> const& messages) {
    cTypedMessageBatch batch;
    for (Message const& m : messages) EXPECT_TRUE(batch.Add(m.type, m.subType, m.data(), m.length()));
    return batch;
}

// The bytes the raw peer receives (exactly `count`, or fewer when the stream ends) while
// `send` runs on this thread.
template <class Send>
Bytes receivedWhile(RawFd const& peer, size_t count, Send send) {
    Bytes received;
    std::thread reader([&] { received = rawReceive(peer, count); });
    send();
    reader.join();
    return received;
}

// Whole messages at the start of `bytes`.
long wholeMessagesIn(Bytes const& bytes) {
    long whole = 0;
    for (size_t at = 0; at + 8 <= bytes.size(); ++whole) {
        uint32_t length = 0;
        std::memcpy(&length, bytes.data() + at, 4);
        at += 8 + ntohl(length);
        if (at > bytes.size()) break;
    }
    return whole;
}

// A batch goes out as the bytes of the same messages sent one at a time, in as many calls as
// its pieces (a header and a body each, at most 1024 a call) and its bytes (1 MiB a call) need.
TEST(MessageBatch, SendsTheBytesOfOneSendPerMessage) {
    struct Case {
        char const* what;
        std::vector<Message> messages;
        int calls;
    } const cases[] = {
        {"empty batch", {}, 0},
        {"one message", {{7, 9, "abc"}}, 1},
        {"extreme types, binary and empty bodies",
         {{-32768, 32767, std::string("\0\xff", 2)}, {0, 0, ""}, {1, -1, "x"}, {2, 2, ""}},
         1},
        {"more pieces than one call takes", numbered(600, 10), 2},
        {"more bytes than one call takes", numbered(3, 700000), 3},
        {"a zero-length and a 4 MiB body", {{1, 2, ""}, {3, 4, std::string(4 << 20, 'm')}}, 5},
    };
    Watchdog watchdog(std::chrono::seconds(60));  // a sender with more bytes than expected blocks
    RawPeerPair pair;
    TagScope trace("ColloquyT", true);
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        size_t const size = imageOf(c.messages).size();
        cTypedMessageBatch const batch = batchOf(c.messages);
        ASSERT_EQ(batch.Count(), static_cast<long>(c.messages.size()));
        nLog::cCapture capture;
        tSendmsgCalls = 0;
        long written = -1;
        bool sent = false;
        Bytes const batched =
            receivedWhile(pair.peer, size, [&] { sent = pair.socket.SendTypedMessageBatch(batch, &written); });
        EXPECT_TRUE(sent);
        EXPECT_EQ(written, batch.Count());
        EXPECT_EQ(tSendmsgCalls, c.calls);
        ASSERT_EQ(capture.records().size(), 1u);  // the entry trace
        EXPECT_EQ(capture.records()[0].file, "../src/streamsocket");

        Bytes const oneByOne = receivedWhile(pair.peer, size, [&] {
            for (Message const& m : c.messages)
                ASSERT_TRUE(pair.socket.SendTypedMessageZ2(m.type, m.subType, m.data(), m.length()));
        });
        EXPECT_EQ(batched.size(), size);
        EXPECT_TRUE(batched == oneByOne) << "the wire images differ";
    }
}

// Adding refuses a message the batch cannot frame, with an Error record; the messages around
// it go out as if it had never been added. A null body of length 0 is an empty message.
TEST(MessageBatch, RefusesANegativeLengthAndAMissingBody) {
    struct Case {
        char const* what;
        char const* data;
        int length;
        bool added;
    } const cases[] = {
        {"negative length", "x", -1, false},
        {"null body of positive length", nullptr, 5, false},
        {"null body of length 0", nullptr, 0, true},
    };
    RawPeerPair pair;
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        nTagScope::ErrorRecords errors;
        cTypedMessageBatch batch;
        ASSERT_TRUE(batch.Add(1, 1, "a", 1));
        EXPECT_EQ(batch.Add(5, 5, c.data, c.length), c.added);
        ASSERT_TRUE(batch.Add(2, 2, "b", 1));
        EXPECT_EQ(errors.count("streamsocket"), c.added ? 0u : 1u);
        std::vector<Message> expected{{1, 1, "a"}, {2, 2, "b"}};
        if (c.added) expected.insert(expected.begin() + 1, Message{5, 5, ""});
        EXPECT_EQ(batch.Count(), static_cast<long>(expected.size()));
        ASSERT_TRUE(pair.socket.SendTypedMessageBatch(batch));
        EXPECT_EQ(rawReceive(pair.peer, imageOf(expected).size()), imageOf(expected));
    }
    cTypedMessageBatch batch = batchOf(numbered(3, 10));
    batch.Clear();
    EXPECT_EQ(batch.Count(), 0);
    tSendmsgCalls = 0;
    EXPECT_TRUE(pair.socket.SendTypedMessageBatch(batch));
    EXPECT_EQ(tSendmsgCalls, 0);
}

// Short writes and signals resume where the system stopped, inside a header or a body, also
// in the second call of a batch that needs two.
TEST(MessageBatch, ResumesAfterShortWritesAndSignals) {
    struct Case {
        char const* what;
        int count;
        size_t size;
        std::deque<Step> script;
        int calls;
    } const cases[] = {
        {"signal before the first byte", 3, 100, {kInterrupt}, 2},
        {"short write inside the first header", 3, 100, {cut(3)}, 2},
        {"short write inside a body", 3, 100, {cut(58)}, 2},
        {"short write at the end of a message", 3, 100, {cut(108)}, 2},
        {"short write inside a later header, then a signal", 3, 100, {cut(112), kInterrupt}, 3},
        {"short write inside a body, then a signal", 3, 100, {cut(150), kInterrupt}, 3},
        {"a header one byte at a time", 3, 100, std::deque<Step>(8, cut(1)), 9},
        {"short write in the second call", 600, 10, {kPass, cut(5)}, 3},
    };
    Watchdog watchdog(std::chrono::seconds(60));
    RawPeerPair pair;
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<Message> const messages = numbered(c.count, c.size);
        cTypedMessageBatch const batch = batchOf(messages);
        Bytes const image = imageOf(messages);
        nTagScope::ErrorRecords errors;
        tScript = c.script;
        tSendmsgCalls = 0;
        long written = -1;
        bool sent = false;
        Bytes const received =
            receivedWhile(pair.peer, image.size(), [&] { sent = pair.socket.SendTypedMessageBatch(batch, &written); });
        EXPECT_TRUE(sent);
        EXPECT_EQ(written, c.count);
        EXPECT_TRUE(received == image) << "the wire image differs";
        EXPECT_EQ(tSendmsgCalls, c.calls);
        EXPECT_TRUE(tScript.empty());
        EXPECT_EQ(errors.total(), 0u);
    }
}

// The peer resets the connection after reading what the system took of a batch: the count of
// messages written whole is what the peer received whole, and an Error record says so. A
// second batch on the broken connection fails at once, without SIGPIPE.
TEST(MessageBatch, ReportsTheMessagesWrittenWholeWhenThePeerCloses) {
    struct Case {
        char const* what;
        size_t taken;  // bytes the system takes before the reset
        long whole;
    } const cases[] = {
        {"before the first byte", 0, 0},
        {"inside the second header", 1008 + 4, 1},
        {"inside the third body", 2016 + 500, 2},
        {"after the third message", 3024, 3},
    };
    struct sigaction fatal {};
    fatal.sa_handler = SIG_DFL;  // SIGPIPE would end the test program
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGPIPE, &fatal, &previous), 0);
    std::vector<Message> const messages = numbered(4, 1000);
    cTypedMessageBatch const batch = batchOf(messages);
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        RawPeerPair pair;
        nTagScope::ErrorRecords errors;
        tScript = c.taken > 0 ? std::deque<Step>{cut(c.taken), kAwaitReset} : std::deque<Step>{kAwaitReset};
        Bytes received;
        std::thread peer([&] {
            received = rawReceive(pair.peer, c.taken);
            pair.peer.abort();
        });
        long written = -1;
        EXPECT_FALSE(pair.socket.SendTypedMessageBatch(batch, &written));
        peer.join();
        EXPECT_EQ(received.size(), c.taken);
        EXPECT_EQ(wholeMessagesIn(received), c.whole);
        EXPECT_EQ(written, c.whole);
        ASSERT_EQ(errors.count("streamsocket"), 1u);
        std::string const text = errors.records()[0].text;
        std::string const counts = "StreamSocket:SendTypedMessageBatch\t" + std::to_string(c.whole) + "\t4\t";
        EXPECT_EQ(text.substr(0, counts.size()), counts);
        EXPECT_EQ(text.substr(counts.size()), std::strerror(ECONNRESET));

        EXPECT_FALSE(pair.socket.SendTypedMessageBatch(batch, &written));
        EXPECT_EQ(written, 0);
    }
    ::sigaction(SIGPIPE, &previous, nullptr);
}

// Another thread closing the connection ends a batch blocked on a peer that does not read: the
// system's partial write and the error after it make a failure with the count of messages the
// system took whole.
TEST(MessageBatch, ClosingFromAnotherThreadEndsABlockedBatch) {
    Watchdog watchdog(std::chrono::seconds(30));
    RawPeerPair pair;
    std::string const body(64 * 1024, 'c');
    cTypedMessageBatch batch;
    for (int i = 0; i < 256; ++i) ASSERT_TRUE(batch.Add(1, 2, body.data(), static_cast<int>(body.size())));
    nTagScope::ErrorRecords errors;
    std::thread closer([&] {
        // Once the peer's queue holds bytes the sender is under way; 16 MiB cannot all fit.
        EXPECT_TRUE(readable(pair.peer.get()));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        pair.socket.CloseSocket();
    });
    long written = -1;
    EXPECT_FALSE(pair.socket.SendTypedMessageBatch(batch, &written));
    closer.join();
    EXPECT_GE(written, 0);
    EXPECT_LT(written, 256);
    EXPECT_EQ(errors.count("streamsocket"), 1u);
}

// A long run of small messages in batches of changing sizes arrives whole, in order, with its
// types: every batch boundary falls somewhere else in the receiver's read-ahead.
TEST(MessageBatch, AMillionSmallMessagesArriveInOrder) {
    constexpr unsigned kCount = 1000000;
    constexpr int kSize = 100;
    Watchdog watchdog(std::chrono::seconds(100));
    StreamPair pair;
    auto bodyOf = [](unsigned i, char* body) {
        for (int k = 0; k < kSize; ++k) body[k] = static_cast<char>(i * 131 + static_cast<unsigned>(k) * 7);
    };
    std::thread sender([&] {
        static unsigned const kBatchSizes[] = {1, 2, 7, 64, 333, 1000};
        std::vector<char> bodies(1000 * kSize);
        cTypedMessageBatch batch;
        for (unsigned i = 0, round = 0; i < kCount; ++round) {
            unsigned const n = std::min(kBatchSizes[round % 6], kCount - i);
            batch.Clear();
            for (unsigned m = 0; m < n; ++m, ++i) {
                bodyOf(i, &bodies[m * kSize]);
                batch.Add(static_cast<short>(i & 0x7fff), static_cast<short>(i >> 15), &bodies[m * kSize], kSize);
            }
            if (!pair.client.SendTypedMessageBatch(batch)) return;
        }
    });
    char expected[kSize];
    unsigned i = 0;
    for (; i < kCount; ++i) {
        short type = 0, subType = 0;
        char* data = nullptr;
        int length = 0;
        if (!pair.server->WaitTypedMessageZ1(type, subType, data, length, patience())) break;
        bodyOf(i, expected);
        bool const same = length == kSize && type == static_cast<short>(i & 0x7fff) &&
                          subType == static_cast<short>(i >> 15) && std::memcmp(data, expected, kSize) == 0;
        StreamSocket::FreeMessage(data);
        if (!same) break;
    }
    EXPECT_EQ(i, kCount) << "message " << i << " did not arrive, or arrived changed or out of order";
    pair.server.reset();  // ends a sender that is still sending
    sender.join();
}

// The receive into a caller's buffer: bodies of every size, the buffer kept from one message
// to the next, the connection's maximum message size, and failures that leave the classifiers
// untouched and allocate no more than what arrived.
TEST(ReceiveInto, ReceivesIntoTheCallersBuffer) {
    struct Case {
        char const* what;
        Bytes sent;  // the wire bytes, after which the peer closes when `closes`
        bool closes;
        bool ok;
        short type;
        size_t length;                              // of the body received
        std::optional<int> maxSize = std::nullopt;  // the connection's maximum message size
        size_t errors = 0;
    };
    auto message = [](short type, size_t size) {
        std::vector<Message> m{{type, static_cast<short>(-type), std::string(size, static_cast<char>('a' + type))}};
        return imageOf(m);
    };
    Case const cases[] = {
        {"empty body", message(1, 0), false, true, 1, 0},
        {"small body", message(2, 100), false, true, 2, 100},
        {"body beyond the read-ahead", message(3, 100000), false, true, 3, 100000},
        {"body beyond the first step of the buffer", message(4, 3 << 20), false, true, 4, 3 << 20},
        {"negative length", {0x80, 0, 0, 0, 0, 1, 0, 1}, false, false, 0, 0},
        {"peer closes inside the body", {0, 0, 0, 9, 0, 1, 0, 1, 'a'}, true, false, 0, 0},
        {"2 GiB announced, then the peer closes", {0x7f, 0xff, 0xff, 0xff, 0, 1, 0, 1, 'a'}, true, false, 0, 0},
        {"body over the connection's maximum", message(7, 101), false, false, 0, 0, 100, 1},
        {"body at the connection's maximum", message(7, 100), false, true, 7, 100, 100},
    };
    Watchdog watchdog(std::chrono::seconds(60));
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        nSock::cSocketOptions options = boundedOptions();
        options.maxMessageSize = c.maxSize;
        RawPeerPair pair(options);
        std::thread peer([&] {
            rawSend(pair.peer, c.sent);
            if (c.closes) pair.peer.reset();
        });
        nTagScope::ErrorRecords errors;
        short type = 111, subType = 222;
        std::vector<char> body;
        bool const ok = pair.socket.WaitTypedMessageInto(type, subType, body, patience());
        peer.join();
        EXPECT_EQ(errors.count("streamsocket"), c.errors);
        ASSERT_EQ(ok, c.ok);
        if (ok) {
            EXPECT_EQ(type, c.type);
            EXPECT_EQ(subType, -c.type);
            ASSERT_EQ(body.size(), c.length);
            EXPECT_TRUE(std::all_of(body.begin(), body.end(), [&](char b) { return b == 'a' + c.type; }));
        } else {
            EXPECT_TRUE(type == 111 && subType == 222);
            EXPECT_LE(body.capacity(), size_t(1) << 20) << "allocated for bytes that never came";
        }
    }
    // A later, smaller message reuses the buffer; after a negative length the stream goes on.
    RawPeerPair pair;
    Bytes stream = message(5, 1000);
    for (unsigned char b : Bytes{0xff, 0xff, 0xff, 0xff, 0, 1, 0, 1}) stream.push_back(b);
    Bytes const small = message(6, 10);
    stream.insert(stream.end(), small.begin(), small.end());
    rawSend(pair.peer, stream);
    short type = 0, subType = 0;
    std::vector<char> body;
    ASSERT_TRUE(pair.socket.WaitTypedMessageInto(type, subType, body, patience()));
    char const* const buffer = body.data();
    EXPECT_FALSE(pair.socket.WaitTypedMessageInto(type, subType, body, patience()));
    ASSERT_TRUE(pair.socket.WaitTypedMessageInto(type, subType, body, patience()));
    EXPECT_EQ(type, 6);
    EXPECT_EQ(std::string(body.begin(), body.end()), std::string(10, 'g'));
    EXPECT_EQ(body.data(), buffer);
}

}  // namespace
