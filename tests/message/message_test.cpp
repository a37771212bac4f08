// Packed buffers, the message envelope and addresses: byte images, reading back, Error records, and hostile
// bytes (heap copies of exactly their size, which the sanitizer build watches).
#include "netmsg.h"
#include "packmsg.h"
#include "zepnames.h"
#include "zeppackmsg.h"

#include "tagscope.h"

namespace {

using nTagScope::ErrorRecords;
char const* const kEnd = nullptr;
char const* const kNull = nullptr;

// The bytes of a built buffer, which the reader must map as the builder did; frees the buffer.
std::string roundTrip(c_Pack const& built) {
    c_Pack const read(built.theBuffer);
    EXPECT_EQ(std::pair(read.theCount, read.thePackedMsgLen()), std::pair(built.theCount, built.thePackedMsgLen()));
    for (int i = 0; i < built.theCount && i < 10; ++i)
        EXPECT_EQ(std::pair(read.theLengths[i], read.field(i)), std::pair(built.theLengths[i], built.field(i))) << i;
    std::string const bytes(built.theBuffer, built.thePackedMsgLen());
    return PCKFreeData(built.theBuffer), bytes;
}

TEST(Pack, BuffersBuilderImagesAndTheReaderWithTheirRecords) {
    ErrorRecords on;
    char* empty = PCKAlloc(0);  // reported, and still an array
    EXPECT_EQ(std::pair(on.count("packmsg"), on.records().at(0).text), std::pair(size_t(1), ""s));
    EXPECT_EQ(PCKFreeData(empty) + PCKFreeData(nullptr), 2);  // only the null handle is reported
    char* some = PCKAlloc(16);
    EXPECT_EQ(std::tuple(PCKGetData(some), PCKGetDataVar(some), on.count("packmsg")),
              std::tuple(some, some, size_t(2)));
    delete[] some;                           // the array delete may release a packed buffer
    EXPECT_EQ(PCKFreeData(new char[8]), 1);  // and PCKFreeData an array-new block
    std::tuple<c_Pack (*)(), std::string, size_t> const cases[] = {
        {[] { return c_Pack("ab", 3, "hello", 5, kEnd); }, "2 3 5 ab\0hello"s, 0},
        {[] { return c_Pack("", 0, "x", 1, kEnd); }, "2 0 1 x", 1},  // an empty or null first field is reported
        {[] { return c_Pack(nullptr, 0, "x", 1, kEnd); }, "2 0 1 x", 1},
        {[] { return c_Pack("ab", 2, "", 0, "cd", 2, kEnd); }, "3 2 0 2 abcd", 0},
        {[] {  // fields past the tenth are dropped, and reported once
             return c_Pack("0", 1, "1", 1, "2", 1, "3", 1, "4", 1, "5", 1, "6", 1, "7", 1, "8", 1, "9", 1, "A", 1, "B",
                           1, kEnd);
         },
         "10 1 1 1 1 1 1 1 1 1 1 0123456789", 1},
    };
    for (auto const& [build, image, records] : cases) {
        ErrorRecords row;
        EXPECT_EQ(roundTrip(build()), image);
        EXPECT_EQ(row.count("packmsg"), records) << image;
    }
    EXPECT_THROW(c_Pack("a", 1, "b", -1, kEnd), std::invalid_argument);
    EXPECT_THROW(c_Pack("a", 1, "b", 2147483600, kEnd), std::length_error);
    // The reader maps up to ten fields in place and reports slots above nine.
    c_Pack none(kNull);
    EXPECT_EQ(std::tuple(none.theCount, none.theBuffer, none.field(0)), std::tuple(0, nullptr, nullptr));
    char const twelve[] = "12 1 1 1 1 1 1 1 1 1 1 1 1 abcdefghijkl";  // ten mapped, the rest is data
    c_Pack const many(twelve);
    EXPECT_EQ(std::tuple(many.theCount, many.theLengths[9], many.thePackedMsgLen(), many.field(0), many.field(9)),
              std::tuple(12, 1, 33, twelve + 23, twelve + 32));
    char const eleven[] = "1 00000000005 hello";  // a token is read up to eleven characters
    EXPECT_EQ(std::pair(c_Pack(eleven).field(0), c_Pack(eleven).thePackedMsgLen()), std::pair(eleven + 14, 19));
    c_Pack const negative("-3 1 x");  // none mapped
    EXPECT_EQ(std::tuple(negative.theCount, negative.thePackedMsgLen(), negative.field(0)), std::tuple(-3, 3, kNull));
    on.clear();
    none.theFields[10] = twelve;  // slot 10 is still read, any higher one is null; both are reported
    EXPECT_EQ((std::tuple{none.field(10), none.field(11), on.count("packmsg")}), std::tuple(twelve, kNull, size_t(2)));
}

// The worked example: 7, to svc@hostB, from agent@hostA, QType 3, type (1,2), "hi".
std::string const kExampleBytes = "8 6 4 6 6 2 2 2 4 hostB\0svc\0hostA\0agent\0"s + "3\0hi7\0"s + "352\0"s;

std::string packedBytes(cColloquyMessage const& m) { return std::string(m.packedBuffer, m.packedLen); }
std::string bodyBytes(cColloquyMessage const& m) { return std::string(m.body, m.bodyLen); }
auto texts(cColloquyMessage const& m) { return m.toHost + "|"s + m.toName + '|' + m.fromHost + '|' + m.fromName; }
void expectViewsIntoOwnBuffer(cColloquyMessage const& m) {
    for (char const* p : {m.toHost, m.toName, m.fromHost, m.fromName, m.body})
        EXPECT_TRUE(p >= m.packedBuffer && p < m.packedBuffer + m.packedLen);
}
// A heap copy of exactly the bytes (never null, even when empty).
std::unique_ptr<char[]> exactCopy(std::string const& bytes) {
    return std::unique_ptr<char[]>(static_cast<char*>(std::memcpy(new char[bytes.size()], bytes.data(), bytes.size())));
}

TEST(Message, PacksPrintsReadsBackAndRepacks) {
    ErrorRecords on;
    cColloquyMessage m(7, "hostB", "svc", "hostA", "agent", QType(3), 1, 2, "hi", 2);
    expectViewsIntoOwnBuffer(m);
    char* const before = m.packedBuffer;
    m.userValue = 99;
    m.packMe();  // a packed message stays as it is
    EXPECT_EQ(std::pair(m.packedBuffer, packedBytes(m)), std::pair(before, kExampleBytes));
    // The print buffer is shared and cuts what does not fit its 4096 bytes.
    std::string const longName(5000, 'n');
    auto b =
        std::make_unique<cColloquyMessage>(0x80000000u, "h", longName.c_str(), "f", "g", QType(-5), -3, 4, "b\0c", 3);
    EXPECT_EQ(b->printOnString(), m.printOnString());
    EXPECT_STREQ(m.printOnString(),
                 "ColloquyMessage: , Message len:2, type (1,2), QType=3 from agent@hostA to svc@hostB\n");
    EXPECT_EQ(std::string(b->printOnString()),
              ("ColloquyMessage: , Message len:3, type (-3,4), QType=-5 from g@f to " + longName).substr(0, 4095));
    // Reading back keeps every member but the two shorts; the numbers are signed "%d" texts.
    EXPECT_NE(packedBytes(*b).find("-5\0b\0c-2147483648\0"s), std::string::npos);
    cColloquyMessage got(b->packedBuffer, b->packedLen, 9, 10);
    EXPECT_NE(got.packedBuffer, b->packedBuffer);  // a copy
    b.reset();
    EXPECT_EQ(std::tuple(got.userValue, got.formatStamp, texts(got), got.qType, bodyBytes(got), got.messageSubType),
              std::tuple(0x80000000u, 352u, "h|" + longName + "|f|g", QType(-5), "b\0c"s, short(10)));
    EXPECT_EQ(on.total(), 0u);
    // Re-addressing keeps sender, body and numbers; a reply's new address points into the old buffer.
    m.rePackMe("otherHost", "otherName");
    EXPECT_NE(m.packedBuffer, before);  // the old one is released (the sanitizer build checks it)
    EXPECT_EQ(packedBytes(m), "8 10 10 6 6 2 2 3 4 otherHost\0otherName\0hostA\0agent\0"s + "3\0hi99\0"s + "352\0"s);
    expectViewsIntoOwnBuffer(m);
    m.rePackMe(m.fromHost, m.fromName);
    EXPECT_EQ(std::pair(texts(m), bodyBytes(m)), std::pair("hostA|agent|hostA|agent"s, "hi"s));
    cColloquyMessage empty;  // holds no buffer and no texts
    EXPECT_EQ(empty.packedBuffer, nullptr);
    EXPECT_STREQ(empty.printOnString(),
                 "ColloquyMessage: , Message len:0, type (0,0), QType=0 from (null)@(null) to (null)@(null)\n");
}

TEST(Message, TakesOverTypedMessagesAndReportsMissingBodiesAndBuffers) {
    for (c_Pack const& pack :  // six or nine fields: all-bits-one numbers
         {c_Pack("h", 2, "n", 2, "f", 2, "g", 2, "12", 3, "xyz", 3, kEnd),
          c_Pack("h", 2, "n", 2, "f", 2, "g", 2, "12", 3, "xyz", 3, "44", 3, "351", 4, "more", 4, kEnd)}) {
        cColloquyMessage m(pack.theBuffer, pack.thePackedMsgLen(), 0, 0);
        PCKFreeData(pack.theBuffer);
        EXPECT_EQ(std::tuple(m.userValue, m.formatStamp, m.qType, bodyBytes(m)),
                  std::tuple(0xFFFFFFFFu, 0xFFFFFFFFu, QType(12), "xyz"s));
    }
    // Taken over and the typed message deleted (the sanitizer sees a leak or double release); trailing bytes ignored.
    char* data = exactCopy(kExampleBytes + "trailing").release();
    cColloquyMessage* m = ZEPTmo2Cqm(new cTypedMessageObject(5, 6, data, 58u));
    EXPECT_EQ(std::tuple(m->packedBuffer, m->messageType, m->messageSubType, bodyBytes(*m), m->formatStamp),
              std::tuple(data, short(5), short(6), "hi"s, 352u));
    ZEPDeleteMsg(m), ZEPDeleteMsg(nullptr);
    cTypedMessageObject owner(1, 2, new char[10], 10);  // owns its data
    ErrorRecords on;  // a null body (reported as null, as empty, and when packed) ends the field list
    cColloquyMessage n(1, "a", "b", "c", "d", QType(4), 0, 0, nullptr, 0);
    EXPECT_EQ(std::tuple(on.count("netmsg"), packedBytes(n), n.body, n.userValue),
              std::tuple(size_t(3), "5 2 2 2 2 2 a\0b\0c\0d\0"s + "4\0"s, kNull, 0xFFFFFFFFu));
    std::pair<void (*)(), size_t> const cases[] = {
        {[] { cColloquyMessage m(1, "a", "b", "c", "d", QType(0), 0, 0, "x", 0); }, 2},
        {[] {
             c_Pack const p("a", 2, "b", 2, "c", 2, "d", 2, "0", 2, "", 0, "1", 2, "352", 4, kEnd);
             ZEPDeleteMsg(ZEPTmo2Cqm(new cTypedMessageObject(0, 0, p.theBuffer, p.thePackedMsgLen())));
         },
         1},
        {[] { cColloquyMessage m(nullptr, 50, 0, 0); }, 2},  // malformed too
        {[] { ZEPDeleteMsg(ZEPTmo2Cqm(nullptr)); }, 2},
        {[] { ZEPDeleteMsg(ZEPTmo2Cqm(new cTypedMessageObject(0, 0, nullptr, 50))); }, 2},  // a length but no data
    };
    for (auto const& c : cases) {
        ErrorRecords row;
        c.first();
        EXPECT_EQ(row.count("netmsg"), c.second) << &c - cases;
    }
}

// The outcome every malformed buffer maps to; the message still prints and re-addresses into a valid one.
void expectMalformedMapping(cColloquyMessage& m) {
    EXPECT_EQ(std::tuple(texts(m), std::string(m.body), m.bodyLen, m.qType, m.userValue, m.formatStamp),
              std::tuple("|||"s, ""s, 0u, QType(-1), 0xFFFFFFFFu, 0xFFFFFFFFu));
    EXPECT_STREQ(m.printOnString(), "ColloquyMessage: , Message len:0, type (1,2), QType=-1 from @ to @\n");
    m.rePackMe("host", "name");
    EXPECT_EQ(packedBytes(m), "8 5 5 1 1 3 0 3 3 host\0name\0\0\0-1\0-1\0-1\0"s);
}

TEST(MalformedBuffer, EveryOneCopiedOrTakenOverMapsToTheEmptyOutcome) {
    std::string const data = kExampleBytes.substr(18);
    // Counts 0, 11 (before a header that would fit), -1; no last blank; five fields; a length no number; host or stamp
    // without its zero byte; a first length negative, after a double blank, 11 digits, above INT_MAX, past the end.
    std::vector<std::string> cases = {"0 ",
                                      "11 6 4 6 6 2 2 2 4 0 0 8 " + data + "123456789",
                                      "-1 ",
                                      kExampleBytes.substr(0, 17) + "X" + data,
                                      "5 2 2 2 2 2 a\0b\0c\0d\0e\0"s,
                                      "6 3 2 2 2 2 \0x\0b\0c\0d\0005\0"s,
                                      "6 1 2 2 2 2 1 Xb\0c\0d\0e\0Z"s,
                                      "8 6 4 6 6 2 2 2 3 "s + data.substr(0, 31) + "352"};
    for (char const* length : {"-6", " 6", "00000000006", "2147483648", "2147483647"})
        cases.push_back("8 " + (length + (" 4 6 6 2 2 2 4 " + data)));
    for (std::size_t n = 0; n < kExampleBytes.size(); ++n) cases.push_back(kExampleBytes.substr(0, n));

    for (std::string const& bytes : cases) {
        SCOPED_TRACE(&bytes - cases.data());
        unsigned int const size = static_cast<unsigned int>(bytes.size());
        std::unique_ptr<char[]> exact = exactCopy(bytes);
        {
            ErrorRecords on;
            cColloquyMessage m(exact.get(), size, 1, 2);
            EXPECT_EQ(std::tuple(on.count("netmsg"), on.records().at(0).text, m.packedLen),
                      std::tuple(size_t(1), "malformed packed message\t" + std::to_string(size), size));
            expectMalformedMapping(m);
        }
        ErrorRecords on;
        char* const owned = exact.release();
        cColloquyMessage* m = ZEPTmo2Cqm(new cTypedMessageObject(1, 2, owned, size));
        EXPECT_EQ(std::pair(on.count("netmsg"), m->packedBuffer), std::pair(size_t(2), owned));  // and the empty body
        expectMalformedMapping(*m);
        ZEPDeleteMsg(m);
    }
}

// Addresses split at '@' only, repeats skipped, and join with the separator always written.
TEST(Address, SplitsAtTheFirstTwoTokensAndJoinsWithTheSeparator) {
    char const* const cases[][3] = {
        {"agent@host7", "agent", "host7"}, {"agent", "agent", ""}, {"@host7", "host7", ""},
        {"@@a@@@b@c", "a", "b"},           {"", "", ""},           {"name with blanks@h-1", "name with blanks", "h-1"}};
    for (auto& [text, name, host] : cases) {
        CColloquyAddress const address(text);
        EXPECT_EQ(std::tuple(address.namePart, address.hostPart, address.fullAddress), std::tuple(name, host, text));
    }
    EXPECT_EQ(CColloquyAddress("agent", "host7").fullAddress + CColloquyAddress("a@b", "").fullAddress,
              "agent@host7a@b@");
    EXPECT_THROW(CColloquyAddress{kNull}, std::invalid_argument);
    EXPECT_THROW(CColloquyAddress(nullptr, "host"), std::invalid_argument);
    EXPECT_THROW(CColloquyAddress("name", nullptr), std::invalid_argument);
}

}  // namespace
