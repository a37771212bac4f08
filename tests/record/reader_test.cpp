// The text form reader: the worked examples, every entry point, the hardened limits (negative
// lengths, pieces running past the end), the failure path with its Error records, the
// cursor-level steps gParseInt and gLoadString, round trips of random binary records, and keys
// chosen to collide.
#include "assoc_test_util.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

using namespace std::string_literals;
using assoctest::pairsOf;

namespace {

std::string readOk(std::string const& text) {
    CAssociativeArray record;
    record.FromString(text.data(), static_cast<int>(text.size()));
    return pairsOf(record);
}

// The argument of the CIllegalAssoSyntaxException that `read` ends in.
template <class Read>
std::string failureOf(Read read) {
    try {
        read();
    } catch (CIllegalAssoSyntaxException const& e) {
        EXPECT_EQ(e.messageNumber(), 10);
        EXPECT_EQ(e.arguments().size(), 1u);
        return e.arguments().empty() ? std::string() : e.arguments()[0];
    }
    ADD_FAILURE() << "no CIllegalAssoSyntaxException";
    return std::string();
}

std::string failureOf(std::string const& text) {
    CAssociativeArray record;
    return failureOf([&] { record.FromString(text.data(), static_cast<int>(text.size())); });
}

TEST(AssociativeArrayReader, WorkedExamplesAndEveryEntryPoint) {
    std::string const abxyz = "ab=xyz\n";
    // The byte after the last piece may be missing; the byte skipped after a piece is not looked at.
    for (char const* text : {"1 '2 ab '3 xyz ", "1 '2 ab '3 xyz", "1 '2 ab '3 xyz trailing junk", "1 '2 abX'3 xyzY"})
        EXPECT_EQ(readOk(text), abxyz) << text;
    EXPECT_EQ(readOk("-3 "), "");
    EXPECT_EQ(readOk(std::string("1 '3 a\0b '1 v ", 14)), "a=v\n");  // keys stop at their first NUL

    std::string const text("1 '2 ab '3 x\0z ", 15);
    std::string const expected = "ab=x\0z\n"s;
    CAssociativeArray a, b, c, d, e;
    a.FromStringZ1(text);
    b.FromStringZ1(RWCString(text));
    c.FromStringRef(RWCString(text));
    for (CAssociativeArray* r : {&a, &b, &c}) EXPECT_EQ(pairsOf(*r), expected);
    // The NUL-ended forms: the text ends where the skipped byte would be.
    d.FromStringX2_deprecate("1 '2 ab '3 xyz");
    e.FromStringZTS("1 '2 ab '3 xyz");
    EXPECT_EQ(pairsOf(d), abxyz);
    EXPECT_EQ(pairsOf(e), abxyz);
    // Reading adds to what is there; a failure keeps the pairs read before it.
    EXPECT_THROW(e.FromStringZTS("2 '1 b '1 3 '1 c 4 "), CIllegalAssoSyntaxException);
    EXPECT_EQ(pairsOf(e), "ab=xyz\nb=3\n");
}

TEST(AssociativeArrayReader, SyntaxErrorsCarryTheWholeInput) {
    for (std::string const text : {"", "x ", "1 '2 ab 3 xyz ", "2 '1 a '1 b ", "1 '-1 a '1 b ", "1 '2 ab '4 xyz",
                                   "1 '2147483648 a ", "1 '2 ab '0x3 xyz ", "1 '00 a ", "1 ' a '1 b "}) {
        EXPECT_EQ(failureOf(text), text) << text;
    }
    std::string const binary("1 '2 a\0 '9 \0\0 ", 14);
    EXPECT_EQ(failureOf(binary), binary);
    // Lengths are checked against the given length, not against what follows in memory.
    std::string const text("1 '2 ab '3 xyz ");
    CAssociativeArray record;
    EXPECT_EQ(failureOf([&] { record.FromString(text.data(), 12); }), text.substr(0, 12));
    EXPECT_EQ(failureOf([&] { record.FromString(text.data(), -1); }), "");
    EXPECT_EQ(failureOf([&] { record.FromString(nullptr, 5); }), "");
    // The bare char const* forms end at the NUL: a value cannot run past it.
    std::string const withNul("1 '2 ab '5 x\0yz ", 16);
    EXPECT_EQ(readOk(withNul), "ab=x\0yz \n"s);
    EXPECT_EQ(failureOf([&] { record.FromStringZTS(withNul.data()); }), "1 '2 ab '5 x");
    EXPECT_EQ(failureOf([&] { record.FromStringZTS(nullptr); }), "");
}

TEST(AssociativeArrayReader, FailureIsLoggedInTwoLayers) {
    nTagScope::ErrorRecords errors;
    std::string const text("1 '2 ab 3 xyz ");
    CAssociativeArray record;
    EXPECT_THROW(record.FromString(text.data(), static_cast<int>(text.size())), CIllegalAssoSyntaxException);
    // The inner record shows the first exception: the rest of the text where the apostrophe was missing.
    EXPECT_EQ(assoctest::texts(errors),
              (std::vector<std::string>{"Illegal associative array syntax: 3 xyz ", "14\t" + text}));
    EXPECT_EQ(errors.count("associativearray"), 2u);
    // The bare char const* forms log 14 bytes at most, whatever the input's length.
    errors.clear();
    std::string const longBad("1 '2 ab '30 xyz and more text after it");
    EXPECT_THROW(record.FromStringX2_deprecate(longBad.c_str()), CIllegalAssoSyntaxException);
    EXPECT_EQ(assoctest::texts(errors),
              (std::vector<std::string>{"Illegal associative array syntax: Error", "14\t" + longBad.substr(0, 14)}));
}

TEST(AssociativeArrayReader, ParseIntStep) {
    struct {
        char const* text;
        int value;
        size_t consumed;
    } const cases[] = {{"12x rest", 12, 4},
                       {"-5 ", -5, 3},
                       {"0 ", 0, 2},
                       {"000000000000000001 ", 1, 19},
                       {"99999999999999 ", 2147483647, 15},
                       {"-99999999999999 ", -2147483647 - 1, 16}};
    for (auto const& c : cases) {
        char const* cursor = c.text;
        EXPECT_EQ(gParseInt(cursor), c.value) << c.text;
        EXPECT_EQ(cursor, c.text + c.consumed) << c.text;
    }
    for (char const* bad : {"", "12", "00 ", "-0 ", "0000000000000000001 ", "1\0 "}) {
        char const* cursor = bad;
        EXPECT_THROW(gParseInt(cursor), CIllegalAssoSyntaxException) << bad;
    }
    // The cursor has moved past the blank before the number is refused.
    char const* const refused = "x rest";
    char const* cursor = refused;
    EXPECT_THROW(gParseInt(cursor), CIllegalAssoSyntaxException);
    EXPECT_EQ(cursor, refused + 2);
}

TEST(AssociativeArrayReader, LoadStringStep) {
    int size = 1024;
    char* buffer = new char[size + 1];
    RWCString out("old");
    std::string const big(2000, 'q');
    std::string const text = std::string("'3 a\0b ", 7) + "'2000 " + big + " '0  ";
    char const* cursor = gLoadString(text.data(), buffer, size, out);
    EXPECT_EQ(out.stdString(), std::string("a\0b", 3));
    EXPECT_EQ(std::memcmp(buffer, "a\0b\0", 4), 0);
    cursor = gLoadString(cursor, buffer, size, out, true);
    EXPECT_EQ(out.stdString(), big);
    EXPECT_EQ(size, 2000);  // grown once, to the piece's length
    EXPECT_EQ(buffer[2000], '\0');
    cursor = gLoadString(cursor, buffer, size, out);
    EXPECT_EQ(out.stdString(), "");
    EXPECT_EQ(size, 2000);
    EXPECT_EQ(cursor, text.data() + text.size());
    EXPECT_EQ(failureOf([&] { gLoadString("3 abc rest", buffer, size, out); }), "3 abc rest");  // the rest of the text
    EXPECT_THROW(gLoadString("'-1 x ", buffer, size, out), CIllegalAssoSyntaxException);
    delete[] buffer;
    char* none = nullptr;  // no buffer yet: one is made
    int noSize = 0;
    gLoadString("'1 z ", none, noSize, out);
    EXPECT_STREQ(none, "z");
    delete[] none;
}

// Random records of awkward bytes: NULs, blanks, apostrophes, digits after an apostrophe,
// empty values.
TEST(AssociativeArrayReader, RandomBinaryRecordsRoundTrip) {
    std::mt19937 random(20240611u);
    auto const piece = [&random](bool key) {
        static char const awkward[] = {' ', '\'', '0', '5', '9', '\0', '\n', '\xff', 'a'};
        std::uniform_int_distribution<int> length(0, 40), pick(0, 9), byte(0, 255);
        std::string text;
        for (int n = length(random); n > 0; --n) {
            int const p = pick(random);
            char const c = p < 9 ? awkward[p] : static_cast<char>(byte(random));
            text.push_back(key && c == '\0' ? '\'' : c);
        }
        return text;
    };
    for (int round = 0; round < 200; ++round) {
        CAssociativeArray record;
        for (int n = std::uniform_int_distribution<int>(1, 20)(random); n > 0; --n) {
            std::string const key = piece(true), value = piece(false);
            record.AddCouple(key.c_str(), value.data(), static_cast<int>(value.size()));
        }
        CAssociativeArray back;
        back.FromStringRef(record.ToStringRef(false, false));
        ASSERT_EQ(pairsOf(back), pairsOf(record)) << "round " << round;
    }
}

// Letters at random.
std::string lettersOf(size_t length, std::mt19937& random) {
    std::string letters(length, 'a');
    for (char& c : letters) c = static_cast<char>('a' + random() % 26);
    return letters;
}

// Keys as a sender can compute them for RWCString::hash(), which is FNV-1a without a key: two
// blocks that collide from the same state collide with whatever follows, so a colliding pair of
// 8-letter blocks per stage (found by the birthday bound) doubles the keys that share one hash.
// Gives `groups` groups of 2^stages keys; a group's keys end in the same 8 letters (none when
// there is one group) and share one hash.
std::vector<std::string> collidingKeys(int stages, int groups, std::mt19937& random) {
    auto fnv = [](uint32_t h, std::string const& bytes) {
        for (unsigned char c : bytes) h = (h ^ c) * 16777619u;
        return h;
    };
    std::vector<std::string> prefixes{""};
    uint32_t state = 2166136261u;
    for (int stage = 0; stage < stages; ++stage) {
        std::unordered_map<uint32_t, std::string> seen;
        for (;;) {
            std::string const block = lettersOf(8, random);
            uint32_t const after = fnv(state, block);
            auto const [other, added] = seen.emplace(after, block);
            if (added || other->second == block) continue;
            std::vector<std::string> doubled;
            for (std::string const& prefix : prefixes) {
                doubled.push_back(prefix + other->second);
                doubled.push_back(prefix + block);
            }
            prefixes.swap(doubled);
            state = after;
            break;
        }
    }
    std::vector<std::string> keys;
    for (int group = 0; group < groups; ++group) {
        std::string const suffix = groups > 1 ? lettersOf(8, random) : "";
        for (std::string const& prefix : prefixes) keys.push_back(prefix + suffix);
    }
    return keys;
}

std::string textOf(std::vector<std::string> const& keys) {
    std::string text = std::to_string(keys.size());
    for (std::string const& key : keys) text += " '" + std::to_string(key.size()) + " " + key + " '1 v";
    return text + " ";
}

// Keys that collide in RWCString::hash() (whose value hosts may rely on, so it stays as it is)
// spread over the record's table as well as random keys of their length do: reading them visits
// about as many slots, not a number growing with the square of the keys that share a hash.
TEST(AssociativeArrayReader, KeysChosenToCollideSpreadLikeRandomKeys) {
    struct Case {
        char const* what;
        int stages, groups;
    } const cases[] = {
        {"256 groups of 8 keys of 32 bytes", 3, 256},
        {"2048 keys of 88 bytes", 11, 1},
    };
    std::mt19937 random(20240612u);
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<std::string> const flooding = collidingKeys(c.stages, c.groups, random);
        std::vector<std::string> ordinary;
        for (size_t i = 0; i < flooding.size(); ++i) {
            std::string const& key = flooding[i];
            std::string const& first = flooding[i - i % (size_t{1} << c.stages)];
            ASSERT_EQ(RWCString::hash(key.data(), key.size()), RWCString::hash(first.data(), first.size()));
            ordinary.push_back(lettersOf(key.size(), random));
        }
        CAssociativeArray flooded, spread;
        std::string const floodingText = textOf(flooding), ordinaryText = textOf(ordinary);
        flooded.FromString(floodingText.data(), static_cast<int>(floodingText.size()));
        spread.FromString(ordinaryText.data(), static_cast<int>(ordinaryText.size()));
        ASSERT_EQ(flooded.entries(), flooding.size());
        ASSERT_EQ(spread.entries(), ordinary.size());
        EXPECT_LT(flooded.probeCount(), 2 * spread.probeCount());
        // The keys are found by key object as well as by their bytes.
        RWCollectableString const key(flooding[7].c_str());
        EXPECT_NE(flooded.findValue(&key), nullptr);
        EXPECT_STREQ(flooded.GetValueOfParameter(flooding[7].c_str(), nullptr), "v");
    }
}

}  // namespace
