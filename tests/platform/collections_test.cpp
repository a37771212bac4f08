// The string and collection classes: NUL safety, tokens, ownership (clear forgets, clearAndDestroy
// deletes), replacement, removal while walking, growth, and bounds.
#include "rwcstring.h"
#include "rwhashdict.h"
#include "rwhashtable.h"
#include "rwordered.h"

#include <gtest/gtest.h>

#include <new>
#include <set>
#include <string>
#include <vector>

namespace {

int gDestroyed = 0;

// A collectable string that counts its destructions.
struct Tracked : RWCollectableString {
    explicit Tracked(std::string const& text) : RWCollectableString(text.c_str()) {}
    ~Tracked() override { ++gDestroyed; }
};

// Lookups by a temporary key object.
RWCollectable* valueOf(RWHashDictionary const& d, std::string const& key) {
    RWCollectableString const probe(key.c_str());
    return d.findValue(&probe);
}
auto keyIs(std::string const& key) {
    return [&key](RWCollectable const* k) { return static_cast<RWCollectableString const*>(k)->view() == key; };
}
unsigned hashOf(std::string const& key) { return RWCString::hash(key.data(), key.size()); }

class CollectionsTest : public ::testing::Test {
  protected:
    void SetUp() override { gDestroyed = 0; }
};

TEST_F(CollectionsTest, StringIsLengthCountedAndNulSafe) {
    RWCString s("a\0b", 3);
    s.append("\0c", 2);
    EXPECT_EQ(std::string(s.data(), s.length()), std::string("a\0b\0c", 5));
    EXPECT_EQ(s.data()[5], '\0');
    EXPECT_NE(s, RWCString("a"));
    EXPECT_EQ(RWCString("xyz").hash(), RWCString::hash("xyz", 3));
    EXPECT_NE(RWCString("a\0b", 3).hash(), RWCString("a\0c", 3).hash());
    EXPECT_LT(RWCString("ab").compareTo(RWCString("b")), 0);
    EXPECT_EQ(RWCString(static_cast<char const*>(nullptr)).length(), 0u);
}

// The tokenizer skips leading delimiters, yields the next run, and "" once nothing is left (the
// single-delimiter cases are covered through the address split of the registry suite).
TEST_F(CollectionsTest, TokenizerTakesSeveralDelimitersAndStaysAtTheEnd) {
    RWCString const s("  one two\tthree\n");
    RWCTokenizer next(s);
    std::vector<std::string> tokens;
    for (RWCString t = next(" \t\n"); !t.isNull(); t = next(" \t\n")) tokens.emplace_back(t.data());
    EXPECT_EQ(tokens, (std::vector<std::string>{"one", "two", "three"}));
    EXPECT_TRUE(next(" ").isNull());  // stays empty
    RWCString const delimitersOnly("@@@");
    EXPECT_TRUE(RWCTokenizer(delimitersOnly)("@").isNull());
}

// Who owns what: a refused key, a replaced or removed value and clear() leave the objects to the
// caller (stack objects here, so a wrong delete shows); removeAndDestroy and clearAndDestroy
// delete keys and values.
TEST_F(CollectionsTest, DictionaryOwnershipAndReplacement) {
    Tracked k2("k"), v2("2"), v4("4"), a("a"), a2("a");
    {
        RWHashDictionary d;
        auto* k1 = new Tracked("k");
        auto* v1 = new Tracked("1");
        EXPECT_EQ(d.insertKeyAndValue(k1, v1), k1);
        EXPECT_EQ(d.insertKeyAndValue(&k2, &v2), nullptr);  // refused: key present
        EXPECT_EQ(d.entries(), 1u);
        RWCollectableString probe("k");
        EXPECT_EQ(d.find(&probe), k1);
        auto* v3 = new Tracked("3");
        EXPECT_EQ(d.findValue(&probe, v3), v1);  // old value handed back, not destroyed
        EXPECT_EQ(gDestroyed, 0);
        EXPECT_EQ(valueOf(d, "k"), v3);
        delete v1;
        RWCollectableString absent("nope");
        EXPECT_EQ(d.findValue(&absent, &v4), nullptr);  // nothing stored for an absent key
        EXPECT_EQ(d.entries(), 1u);

        RWCollectable* value = nullptr;
        EXPECT_EQ(d.removeKeyAndValue(&probe, value), k1);
        EXPECT_EQ(value, v3);
        d.insertKeyAndValue(k1, v3);
        d.removeAndDestroy(&probe);
        EXPECT_EQ(gDestroyed, 3);  // v1, k1, v3
        EXPECT_EQ(d.remove(&probe), nullptr);

        // insert is a set insert: an equal key present is returned and nothing is added.
        EXPECT_EQ(d.insert(&a), &a);
        EXPECT_EQ(d.insert(&a2), &a);
        EXPECT_EQ(d.entries(), 1u);
        EXPECT_EQ(d.findValue(&a2), nullptr);
        d.clear();
        EXPECT_TRUE(d.isEmpty());
        d.insertKeyAndValue(&k2, &v2);
    }  // the destructor forgets too
    EXPECT_EQ(gDestroyed, 3);
}

// Growth from four buckets, removed slots, reserve (smaller and larger than the contents) and
// removal while walking: every entry is found by key object and by hash, and visited once.
TEST_F(CollectionsTest, GrowthReserveAndRemovalWhileWalkingKeepEveryEntryOnce) {
    RWHashDictionary d(4);
    auto const name = [](int i) { return "k" + std::to_string(i); };
    constexpr int kCount = 5000;
    for (int i = 0; i < kCount; ++i) {
        auto* key = new Tracked(name(i));
        ASSERT_EQ(d.insertKeyAndValue(key, new RWCollectableInt(i)), key);
    }
    for (int i = 0; i < kCount; i += 3) {
        RWCollectableString const probe(name(i).c_str());
        d.removeAndDestroy(&probe);
    }
    d.reserve(10);  // fewer than stored: nothing changes
    d.reserve(20000);
    for (int i = 0; i < kCount; i += 7) {
        std::string const key = name(i);
        auto* value = static_cast<RWCollectableInt*>(valueOf(d, key));
        EXPECT_EQ(d.findValueIf(hashOf(key), keyIs(key)), value);
        EXPECT_EQ(value ? value->value() : -1, i % 3 ? i : -1) << key;
    }
    RWHashDictionaryIterator it(d);
    std::set<std::string> seen;
    size_t removed = 0;
    while (RWCollectable* key = it()) {
        std::string const text = static_cast<RWCollectableString*>(key)->stdString();
        EXPECT_TRUE(seen.insert(text).second) << text;
        if (std::stoi(text.substr(1)) % 2 == 0) {
            RWCollectable* value = it.value();
            EXPECT_EQ(it.remove(), key);
            EXPECT_EQ(it.key(), nullptr);  // the current item is gone
            delete key;
            delete value;
            ++removed;
        }
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kCount - (kCount + 2) / 3));
    EXPECT_EQ(it(), nullptr);  // stays at the end
    it.reset();
    size_t walked = 0;
    while (it()) ++walked;
    EXPECT_EQ(walked, seen.size() - removed);
    d.clearAndDestroy();
}

TEST_F(CollectionsTest, PutValueIfAddsOrReplacesInOneProbe) {
    RWHashDictionary d(2);
    RWCollectable* old = nullptr;
    bool made = false;
    auto const put = [&](std::string const& key, RWCollectable* value) {
        made = false;
        return d.putValueIf(
            hashOf(key), keyIs(key), value,
            [&] {
                made = true;
                return new Tracked(key);
            },
            old);
    };
    auto* one = new Tracked("1");
    EXPECT_EQ(put("a", one), nullptr);  // added
    EXPECT_TRUE(made);
    EXPECT_EQ(old, nullptr);
    auto* two = new Tracked("2");
    ASSERT_NE(put("a", two), nullptr);  // replaced: the stored key is kept
    EXPECT_FALSE(made);
    EXPECT_EQ(old, one);
    delete old;
    EXPECT_EQ(valueOf(d, "a"), two);
    EXPECT_EQ(d.entries(), 1u);

    // A removed slot is taken again, and a key maker that throws stores nothing.
    RWCollectableString const probeA("a");
    d.removeAndDestroy(&probeA);
    EXPECT_EQ(d.entries(), 0u);
    auto* three = new Tracked("3");
    EXPECT_THROW(d.putValueIf(
                     hashOf("a"), [](RWCollectable const*) { return true; }, three,
                     []() -> RWCollectable* { throw std::bad_alloc(); }, old),
                 std::bad_alloc);
    EXPECT_EQ(d.entries(), 0u);
    EXPECT_EQ(put("a", three), nullptr);
    EXPECT_EQ(valueOf(d, "a"), three);
    for (int i = 0; i < 100; ++i) put("k" + std::to_string(i), new Tracked("v"));  // grows on the way
    EXPECT_EQ(d.entries(), 101u);
    EXPECT_NE(valueOf(d, "k99"), nullptr);
    gDestroyed = 0;
    d.clearAndDestroy();
    EXPECT_EQ(gDestroyed, 202);
}

// (Duplicates, matching by isEqual and removal while walking in the hash table, and positions
// of the ordered sequence, are exercised through the event registry and the process groups.)
TEST_F(CollectionsTest, HashTableRefusesNullAndMatchesPlainCollectablesByIdentity) {
    RWHashTable t(2);
    RWCollectable x, y;
    EXPECT_EQ(t.insert(nullptr), nullptr);
    EXPECT_EQ(t.insert(&x), &x);
    EXPECT_EQ(t.find(&x), &x);
    EXPECT_EQ(t.find(&y), nullptr);
    EXPECT_EQ(t.entries(), 1u);
}

TEST_F(CollectionsTest, OrderedSequenceRefusesPositionsPastTheEnd) {
    RWOrdered o;
    RWCollectable a, other;
    o.insert(&a);
    EXPECT_EQ(o.index(&other), RW_NPOS);
    EXPECT_THROW(o.at(1), std::out_of_range);
    EXPECT_THROW(o.removeAt(1), RWBoundsErr);
}

}  // namespace
