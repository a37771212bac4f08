// The message envelope: the packed image, reading back, re-addressing, taking over typed
// messages, the printed line and the Error records; and messages made from bytes that came
// over the network, where whatever the bytes nothing is read outside the buffer (each case gets
// a heap copy of exactly its size, which the sanitizer build watches) and a malformed buffer
// maps to empty texts, no body and all-bits-one numbers.
#include "netmsg.h"
#include "zepnames.h"
#include "zeppackmsg.h"

#include "tagscope.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using nTagScope::ErrorRecords;

using namespace std::string_literals;

char const* const kEnd = nullptr;

// The message of the worked example: 7, to svc@hostB, from agent@hostA, QType 3, type (1,2), "hi".
cColloquyMessage* newExample() {
    return new cColloquyMessage(7, "hostB", "svc", "hostA", "agent", QType(3), 1, 2, "hi", 2);
}

std::string const kExampleBytes =
    "8 6 4 6 6 2 2 2 4 "s + "hostB\0svc\0hostA\0agent\0"s + "3\0"s + "hi"s + "7\0"s + "352\0"s;
char const kExampleLine[] = "ColloquyMessage: , Message len:2, type (1,2), QType=3 from agent@hostA to svc@hostB\n";

std::string packedBytes(cColloquyMessage const& m) { return std::string(m.packedBuffer, m.packedLen); }
std::string bodyBytes(cColloquyMessage const& m) { return std::string(m.body, m.bodyLen); }

void expectViewsIntoOwnBuffer(cColloquyMessage const& m) {
    for (char const* p : {m.toHost, m.toName, m.fromHost, m.fromName, m.body})
        EXPECT_TRUE(p >= m.packedBuffer && p < m.packedBuffer + m.packedLen);
}

// A heap copy of exactly the bytes (never null, even when empty).
std::unique_ptr<char[]> exactCopy(std::string const& bytes) {
    std::unique_ptr<char[]> copy(new char[bytes.size()]);
    std::memcpy(copy.get(), bytes.data(), bytes.size());
    return copy;
}

// Records its own destruction, so that a test can see a message deleted virtually.
template <class Message>
struct Watched : Message {
    template <class... Args>
    explicit Watched(bool* gone, Args... args) : Message(args...), gone(gone) {}
    ~Watched() override { *gone = true; }
    bool* gone;
};

TEST(Message, WorkedExamplePacksFiftyBytesAndPrintsItsLine) {
    ErrorRecords on;
    std::unique_ptr<cColloquyMessage> m(newExample());
    EXPECT_EQ(packedBytes(*m), kExampleBytes);
    expectViewsIntoOwnBuffer(*m);
    EXPECT_STREQ(m->printOnString(), kExampleLine);
    EXPECT_EQ(on.total(), 0u);
    // packMe on a packed message changes nothing.
    char* const before = m->packedBuffer;
    m->userValue = 99;
    m->packMe();
    EXPECT_EQ(m->packedBuffer, before);
    EXPECT_EQ(packedBytes(*m), kExampleBytes);
}

TEST(Message, ReadBackFromItsOwnBufferKeepsEveryMemberButTheShorts) {
    std::unique_ptr<cColloquyMessage> sent(
        new cColloquyMessage(0x80000000u, "h1", "n1", "h2", "n2", QType(-5), 1, 2, "body\0bytes", 10));
    EXPECT_NE(packedBytes(*sent).find("-2147483648\0"s), std::string::npos);  // a signed "%d" text
    ErrorRecords on;
    cColloquyMessage got(sent->packedBuffer, sent->packedLen, 9, 10);
    EXPECT_NE(got.packedBuffer, sent->packedBuffer);  // a copy
    sent.reset();
    EXPECT_EQ(got.userValue, 0x80000000u);
    EXPECT_EQ(std::string(got.toHost) + got.toName + got.fromHost + got.fromName, "h1n1h2n2");
    EXPECT_EQ(got.qType, -5);
    EXPECT_EQ(bodyBytes(got), "body\0bytes"s);
    EXPECT_EQ(got.messageSubType, 10);
    EXPECT_EQ(on.total(), 0u);
}

TEST(Message, SixOrNineFieldsGiveAllBitsOneNumbers) {
    for (c_Pack const& pack :
         {c_Pack("h", 2, "n", 2, "f", 2, "g", 2, "12", 3, "xyz", 3, kEnd),
          c_Pack("h", 2, "n", 2, "f", 2, "g", 2, "12", 3, "xyz", 3, "44", 3, "351", 4, "more", 4, kEnd)}) {
        SCOPED_TRACE(pack.theCount);
        cColloquyMessage m(pack.theBuffer, pack.thePackedMsgLen(), 0, 0);
        PCKFreeData(pack.theBuffer);
        EXPECT_EQ(m.userValue, 0xFFFFFFFFu);
        EXPECT_EQ(m.formatStamp, 0xFFFFFFFFu);
        EXPECT_EQ(bodyBytes(m), "xyz");
    }
}

TEST(Message, RePackMeReaddressesAndKeepsSenderBodyAndNumbers) {
    cColloquyMessage m(kExampleBytes.data(), static_cast<unsigned int>(kExampleBytes.size()), 1, 2);
    char* const old = m.packedBuffer;
    m.rePackMe("otherHost", "otherName");
    EXPECT_NE(m.packedBuffer, old);  // the old one is released (the sanitizer build checks it)
    EXPECT_EQ(packedBytes(m),
              "8 10 10 6 6 2 2 2 4 "s + "otherHost\0otherName\0hostA\0agent\0"s + "3\0"s + "hi7\0"s + "352\0"s);
    expectViewsIntoOwnBuffer(m);

    // Replying: the new destination is the old sender, whose views point into the buffer being replaced.
    m.rePackMe(m.fromHost, m.fromName);
    EXPECT_EQ(std::string(m.toHost) + m.toName + m.fromHost + m.fromName, "hostAagenthostAagent");
    EXPECT_EQ(bodyBytes(m), "hi");
}

TEST(Message, TypedMessagesAreTakenOverAndDeletionIsVirtual) {
    ErrorRecords on;
    bool gone = false;
    char* data = exactCopy(kExampleBytes).release();
    cColloquyMessage* m = ZEPTmo2Cqm(new Watched<cTypedMessageObject>(&gone, 5, 6, data, 50u));
    EXPECT_TRUE(gone);
    EXPECT_EQ(m->packedBuffer, data);
    EXPECT_EQ(m->messageSubType, 6);
    EXPECT_EQ(bodyBytes(*m), "hi");
    EXPECT_EQ(on.total(), 0u);
    ZEPDeleteMsg(m);

    ZEPDeleteMsg(nullptr);
    gone = false;
    ZEPDeleteMsg(new Watched<cColloquyMessage>(&gone));
    EXPECT_TRUE(gone);
    cTypedMessageObject owner(1, 2, new char[10], 10);  // the sanitizer build reports a leak otherwise
}

TEST(Message, ErrorRecordsForNullOrEmptyBodiesAndNullBuffers) {
    {
        ErrorRecords on;
        cColloquyMessage m(1, "a", "b", "c", "d", QType(4), 0, 0, nullptr, 0);
        EXPECT_EQ(on.count("netmsg"), 3u);                                // a null body, an empty one, and packing it
        EXPECT_EQ(packedBytes(m), "5 2 2 2 2 2 a\0b\0c\0d\0"s + "4\0"s);  // the null body ends the field list
        EXPECT_EQ(m.body, nullptr);
        EXPECT_EQ(m.userValue, 0xFFFFFFFFu);
    }
    struct {
        void (*run)();
        std::size_t records;
    } const cases[] = {
        {[] { cColloquyMessage m(1, "a", "b", "c", "d", QType(0), 0, 0, "x", 0); }, 2},
        {[] {
             c_Pack const p("a", 2, "b", 2, "c", 2, "d", 2, "0", 2, "", 0, "1", 2, "352", 4, kEnd);
             ZEPDeleteMsg(ZEPTmo2Cqm(new cTypedMessageObject(0, 0, p.theBuffer, p.thePackedMsgLen())));
         },
         1},
        {[] { cColloquyMessage m(nullptr, 50, 0, 0); }, 2},  // also malformed
        {[] { ZEPDeleteMsg(ZEPTmo2Cqm(nullptr)); }, 2},
    };
    for (auto const& c : cases) {
        ErrorRecords on;
        c.run();
        EXPECT_EQ(on.count("netmsg"), c.records) << &c - cases;
    }
}

TEST(Message, PrintOnStringSharesOneBufferAndNeverOverflowsIt) {
    std::unique_ptr<cColloquyMessage> a(newExample());
    std::string const longName(5000, 'n');
    cColloquyMessage b(1, "h", longName.c_str(), "f", "g", QType(-1), -3, 4, "body", 4);
    char* first = a->printOnString();
    char* second = b.printOnString();
    EXPECT_EQ(first, second);
    std::string const expected =
        "ColloquyMessage: , Message len:4, type (-3,4), QType=-1 from g@f to " + longName + "@h\n";
    EXPECT_EQ(std::string(second), expected.substr(0, 4095));  // cut to the 4096-byte buffer
    EXPECT_STREQ(a->printOnString(), kExampleLine);

    cColloquyMessage empty;  // holds no buffer and no texts
    EXPECT_EQ(empty.packedBuffer, nullptr);
    EXPECT_STREQ(empty.printOnString(),
                 "ColloquyMessage: , Message len:0, type (0,0), QType=0 from (null)@(null) to (null)@(null)\n");
}

std::vector<std::pair<char const*, std::string>> malformedCases() {
    std::string noSeparator = kExampleBytes;
    noSeparator[17] = 'X';
    std::string const data = kExampleBytes.substr(18);
    return {
        {"count 0", "0 "},
        {"count 11", "11 1 1 1 1 1 1 1 1 1 1 1 abcdefghijk"},
        {"negative count", "-1 "},
        {"negative length", "8 -6 4 6 6 2 2 2 4 " + data},
        {"missing last separator", noSeparator},
        {"double blank", "8  6 4 6 6 2 2 2 4 " + data},
        {"eleven-digit length", "8 99999999999 4 6 6 2 2 2 4 " + data},
        {"length above the int range", "8 2147483648 4 6 6 2 2 2 4 " + data},
        {"length runs past the end", "8 2147483647 4 6 6 2 2 2 4 " + data},
        {"five fields", "5 2 2 2 2 2 a\0b\0c\0d\0e\0"s},
        {"a length that is no number", "6 3 2 2 2 2 \0x\0b\0c\0d\0"s + "5\0"s},
        {"host without its zero byte", "6 1 2 2 2 2 1 Xb\0c\0d\0e\0Z"s},
        {"formatStamp without its zero byte at the very end", "8 6 4 6 6 2 2 2 3 "s + data.substr(0, 31) + "352"s},
    };
}

// The outcome every malformed buffer maps to; the message can still be printed and
// re-addressed into a valid one.
void expectMalformedMapping(cColloquyMessage& m) {
    for (char const* text : {m.toHost, m.toName, m.fromHost, m.fromName}) EXPECT_STREQ(text, "");
    EXPECT_STREQ(m.body, "");
    EXPECT_EQ(m.bodyLen, 0u);
    EXPECT_EQ(m.qType, -1);
    EXPECT_EQ(m.userValue, 0xFFFFFFFFu);
    EXPECT_EQ(m.formatStamp, 0xFFFFFFFFu);
    EXPECT_STREQ(m.printOnString(), "ColloquyMessage: , Message len:0, type (1,2), QType=-1 from @ to @\n");
    m.rePackMe("host", "name");
    EXPECT_EQ(packedBytes(m), "8 5 5 1 1 3 0 3 3 host\0name\0\0\0-1\0-1\0-1\0"s);
}

TEST(MalformedBuffer, CopiedOrTakenOverMapsToTheEmptyOutcome) {
    for (auto const& [what, bytes] : malformedCases()) {
        SCOPED_TRACE(what);
        unsigned int const size = static_cast<unsigned int>(bytes.size());
        std::unique_ptr<char[]> exact = exactCopy(bytes);
        {
            ErrorRecords on;
            cColloquyMessage m(exact.get(), size, 1, 2);
            ASSERT_EQ(on.count("netmsg"), 1u);
            EXPECT_EQ(on.records()[0].text, "malformed packed message\t" + std::to_string(size));
            EXPECT_EQ(m.packedLen, size);
            expectMalformedMapping(m);
        }
        ErrorRecords on;
        char* data = exact.release();
        cColloquyMessage* m = ZEPTmo2Cqm(new cTypedMessageObject(1, 2, data, size));
        EXPECT_EQ(on.count("netmsg"), 2u);  // malformed, then the empty body
        EXPECT_EQ(m->packedBuffer, data);
        expectMalformedMapping(*m);
        ZEPDeleteMsg(m);
    }
}

TEST(MalformedBuffer, EveryTruncationOfAValidMessageIsRejectedAndTrailingBytesIgnored) {
    ErrorRecords off(false);
    for (std::size_t n = 0; n < kExampleBytes.size(); ++n) {
        SCOPED_TRACE(n);
        std::unique_ptr<char[]> prefix = exactCopy(kExampleBytes.substr(0, n));
        cColloquyMessage m(prefix.get(), static_cast<unsigned int>(n), 1, 2);
        expectMalformedMapping(m);
    }
    std::string const longer = kExampleBytes + "trailing";
    cColloquyMessage m(longer.data(), static_cast<unsigned int>(longer.size()), 1, 2);
    EXPECT_EQ(m.formatStamp, 352u);
    EXPECT_EQ(bodyBytes(m), "hi");
}

// Addresses: split by the tokenizer rule ('@' only, repeats skipped), joined with the separator
// always written, null texts refused.
TEST(Address, SplitsAtTheFirstTwoTokensAndJoinsWithTheSeparator) {
    struct {
        char const *text, *name, *host;
    } const cases[] = {
        {"agent@host7", "agent", "host7"},
        {"agent", "agent", ""},
        {"@host7", "host7", ""},
        {"@@a@@@b@c", "a", "b"},
        {"", "", ""},
        {"name with blanks@host-1", "name with blanks", "host-1"},  // blanks do not separate
    };
    for (auto const& c : cases) {
        CColloquyAddress const address(c.text);
        EXPECT_EQ(address.namePart, c.name) << c.text;
        EXPECT_EQ(address.hostPart, c.host) << c.text;
        EXPECT_EQ(address.fullAddress, c.text);
    }
    EXPECT_THROW(CColloquyAddress(static_cast<char const*>(nullptr)), std::invalid_argument);
    EXPECT_EQ(CColloquyAddress("agent", "host7").fullAddress, "agent@host7");
    EXPECT_EQ(CColloquyAddress("", "").fullAddress, "@");
    EXPECT_EQ(CColloquyAddress("a@b", "c").fullAddress, "a@b@c");
    EXPECT_THROW(CColloquyAddress(nullptr, "host"), std::invalid_argument);
    EXPECT_THROW(CColloquyAddress("name", nullptr), std::invalid_argument);
}

}  // namespace
