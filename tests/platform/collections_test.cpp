// The string and collection classes: NUL safety, tokens, ownership (clear forgets, clearAndDestroy deletes), replacement,
// removal while walking, growth, and the ordered sequence's bounds.
#include "rwhashdict.h"
#include "rwcstring.h"
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
bool holds(RWHashDictionary const& d, std::string const& key) {
    RWCollectableString const probe(key.c_str());
    return d.find(&probe) != nullptr;
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
    RWHashDictionary d;
    for (int i = 0; i < 3; ++i) d.insertKeyAndValue(new Tracked(std::to_string(i)), new Tracked("v"));
    d.clearAndDestroy();
    EXPECT_EQ(gDestroyed, 9);
}

TEST_F(CollectionsTest, RemovalDuringIterationVisitsEveryItemOnce) {
    RWHashDictionary d;
    for (int i = 0; i < 1000; ++i) d.insertKeyAndValue(new Tracked(std::to_string(i)), new Tracked("x"));
    RWHashDictionaryIterator it(d);
    std::set<std::string> seen;
    while (RWCollectable* key = it()) {
        std::string const name(static_cast<RWCollectableString*>(key)->data());
        EXPECT_TRUE(seen.insert(name).second);
        if (std::stoi(name) % 2 == 0) {
            RWCollectable* value = it.value();
            EXPECT_EQ(it.remove(), key);
            EXPECT_EQ(it.key(), nullptr);  // the current item is gone
            delete key;
            delete value;
        }
    }
    EXPECT_EQ(seen.size(), 1000u);
    EXPECT_EQ(it(), nullptr);  // stays at the end
    it.reset();
    size_t walked = 0;
    while (it()) ++walked;
    EXPECT_EQ(walked, 500u);
    d.clearAndDestroy();
    EXPECT_EQ(gDestroyed, 2000);
}

// Removed slots, reserve (smaller and larger than the contents) and growth from four buckets to
// one hundred thousand entries, with lookups by key object and by hash.
TEST_F(CollectionsTest, ReserveAndGrowthKeepEveryEntryAndForgetRemovedOnes) {
    RWHashDictionary d(4);
    auto const name = [](int i) { return "k" + std::to_string(i); };
    for (int i = 0; i < 40; ++i) d.insertKeyAndValue(new Tracked(name(i)), new RWCollectableInt(i));
    for (int i = 0; i < 40; i += 3) {
        RWCollectableString const probe(name(i).c_str());
        d.removeAndDestroy(&probe);
    }
    size_t const kept = d.entries();
    d.reserve(10);  // fewer than stored: nothing changes
    d.reserve(5000);
    EXPECT_EQ(d.entries(), kept);
    for (int i = 0; i < 40; ++i) EXPECT_EQ(holds(d, name(i)), i % 3 != 0) << i;

    constexpr int kCount = 100000;
    for (int i = 40; i < kCount; ++i) {
        auto* key = new Tracked(name(i));
        ASSERT_EQ(d.insertKeyAndValue(key, new RWCollectableInt(i)), key);
    }
    for (int i = 1; i < kCount; i += 997) {
        std::string const key = name(i);
        auto* value = static_cast<RWCollectableInt*>(valueOf(d, key));
        ASSERT_NE(value, nullptr) << key;
        EXPECT_EQ(value->value(), i);
        EXPECT_EQ(d.findValueIf(hashOf(key), keyIs(key)), value);
    }
    EXPECT_EQ(valueOf(d, name(kCount)), nullptr);
    std::set<std::string> walked;
    RWHashDictionaryIterator next(d);
    while (RWCollectable* key = next()) walked.insert(static_cast<RWCollectableString*>(key)->stdString());
    EXPECT_EQ(walked.size(), kept + kCount - 40);
    gDestroyed = 0;
    d.clearAndDestroy();
    EXPECT_EQ(gDestroyed, static_cast<int>(walked.size()));
}

TEST_F(CollectionsTest, PutValueIfAddsOrReplacesInOneProbe) {
    RWHashDictionary d(2);
    RWCollectable* old = nullptr;
    bool made = false;
    auto const put = [&](std::string const& key, RWCollectable* value) {
        made = false;
        return d.putValueIf(hashOf(key), keyIs(key), value, [&] { made = true; return new Tracked(key); }, old);
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
    EXPECT_THROW(d.putValueIf(hashOf("a"), [](RWCollectable const*) { return true; }, three,
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

TEST_F(CollectionsTest, HashTableKeepsDuplicatesAndMatchesByIsEqual) {
    RWHashTable t(2);
    RWCollectableInt a(5), b(5), c(6);
    EXPECT_EQ(t.insert(&a), &a);
    EXPECT_EQ(t.insert(&b), &b);
    EXPECT_EQ(t.insert(nullptr), nullptr);
    EXPECT_EQ(t.entries(), 2u);
    RWCollectableInt probe(5);
    RWCollectable* first = t.remove(&probe);
    EXPECT_TRUE(first == &a || first == &b);
    EXPECT_NE(t.find(&probe), nullptr);
    EXPECT_EQ(t.find(&c), nullptr);

    // Plain collectables are equal only to themselves.
    RWCollectable x, y;
    t.insert(&x);
    EXPECT_EQ(t.find(&x), &x);
    EXPECT_EQ(t.find(&y), nullptr);

    RWHashTableIterator it(t);
    size_t n = 0;
    for (; it(); ++n) it.remove();
    EXPECT_EQ(n, 2u);
    EXPECT_TRUE(t.isEmpty());
}

TEST_F(CollectionsTest, OrderedSequence) {
    RWOrdered o;
    RWCollectable a, b, c, other;
    for (RWCollectable* p : {&a, &b, &c}) o.insert(p);
    EXPECT_EQ(o.index(&b), 1u);
    EXPECT_EQ(o.index(&other), RW_NPOS);
    EXPECT_EQ(o.removeAt(2), &c);
    EXPECT_EQ(o.last(), &b);
    EXPECT_THROW(o.removeAt(2), RWBoundsErr);
    EXPECT_THROW(o.at(5), std::out_of_range);
    EXPECT_EQ(o.remove(&a), &a);
    EXPECT_EQ(o.first(), &b);

    RWOrdered owned;
    owned.insert(new Tracked("1"));
    owned.insert(new Tracked("2"));
    owned.clearAndDestroy();
    EXPECT_EQ(gDestroyed, 2);
}

}  // namespace
