// The string and collection classes: NUL safety, editing, tokens, equality and order, ownership
// (clear forgets, clearAndDestroy deletes), replacement, removal while walking, growth, bounds.
#include "ntime.h"
#include "rwcstring.h"
#include "rwhashdict.h"
#include "rwhashtable.h"
#include "rwordered.h"

#include <gtest/gtest.h>

#include <cstdint>
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

RWCollectable* valueOf(RWHashDictionary const& d, std::string const& key) {
    RWCollectableString const probe(key.c_str());
    return d.findValue(&probe);
}
auto keyIs(std::string const& key) {
    return [&key](RWCollectable const* k) { return static_cast<RWCollectableString const*>(k)->view() == key; };
}
unsigned hashOf(std::string const& key) { return RWCollectableString::hash(key.data(), key.size()); }
int sign(int n) { return (n > 0) - (n < 0); }

class CollectionsTest : public ::testing::Test {
  protected:
    void SetUp() override { gDestroyed = 0; }
};

TEST_F(CollectionsTest, StringEditsAreLengthCountedAndNulSafe) {
    RWCString s("a\0b", 3);
    s.append("\0c", 2).append(RWCString("d")).append('e', 2).append("f").append(static_cast<char const*>(nullptr));
    (s += "g") += RWCString("h");
    s += 'i';
    s.prepend("<", 1).insert(2, "+", 1).replace(0, 1, "[[", 2).remove(11, 1);
    EXPECT_EQ(s.stdString(), std::string("[[a+\0b\0cdeeghi", 14));
    EXPECT_EQ(s.data()[14], '\0');
    EXPECT_EQ(s.remove(4).index("+"), 3u);
    EXPECT_EQ(s.index("a", 3), RWCString::npos);
    EXPECT_TRUE(s.contains("[a") && !s.contains("b"));
    EXPECT_EQ(s.first('a'), 2u);
    EXPECT_EQ(s.index("[["), 0u);
    s(0) = '{';
    s[1] = '(';
    EXPECT_EQ(s, "{(a+");
    s.resize(1);
    EXPECT_EQ(s, RWCString('{', 1));
    EXPECT_TRUE((s = static_cast<char const*>(nullptr)).isNull());
    EXPECT_EQ(s.assign("yz", 1), "y");
    EXPECT_NE(RWCString("a\0b", 3), RWCString("a"));
    EXPECT_NE(RWCString("a\0b", 3).hash(), RWCString("a\0c", 3).hash());
    EXPECT_EQ(RWCString("xyz").hash(), RWCString::hash("xyz", 3));
    EXPECT_NE(RWCString("a").hash(), RWCString("b").hash());
}

TEST_F(CollectionsTest, TokenizerSkipsDelimitersAndStaysAtTheEnd) {
    RWCString const s("  one two\tthree\n");
    RWCTokenizer next(s);
    std::vector<std::string> tokens;
    for (RWCString t = next(" \t\n"); !t.isNull(); t = next(" \t\n")) tokens.emplace_back(t.data());
    EXPECT_EQ(tokens, (std::vector<std::string>{"one", "two", "three"}));
    EXPECT_TRUE(next(" ").isNull());
}

// Strings by bytes, ints by value, anything else (and a mix) by identity and address.
TEST_F(CollectionsTest, EqualityAndOrderOfCollectables) {
    RWCollectableString const a("a"), b("b"), a2("a");
    RWCollectableInt const one(1), two(2), one2(1);
    RWCollectable plain[2];
    auto const address = [](RWCollectable const* c) { return reinterpret_cast<uintptr_t>(c); };
    int const mixed = address(&a) < address(&one) ? -1 : 1;
    struct {
        RWCollectable const *x, *y;
        bool equal;
        int order;
    } const cases[] = {{&a, &b, false, -1},
                       {&b, &a, false, 1},
                       {&a, &a2, true, 0},
                       {&one, &two, false, -1},
                       {&two, &one, false, 1},
                       {&one, &one2, true, 0},
                       {&plain[0], &plain[1], false, -1},
                       {&plain[1], &plain[0], false, 1},
                       {&plain[0], &plain[0], true, 0},
                       {&a, &one, false, mixed},
                       {&one, &a, false, -mixed}};
    for (auto const& c : cases) {
        EXPECT_EQ(c.x->isEqual(c.y), c.equal) << c.x << " " << c.y;
        EXPECT_EQ(sign(c.x->compareTo(c.y)), c.order) << c.x << " " << c.y;
    }
    EXPECT_EQ(sign(one.compareTo(nullptr)), 1);
    EXPECT_EQ(one.hash(), 1u);
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
        EXPECT_EQ(d.insertKeyAndValue(nullptr, &v2), nullptr);
        EXPECT_EQ(d.entries(), 1u);
        RWCollectableString probe("k");
        EXPECT_EQ(d.find(&probe), k1);
        auto* v3 = new Tracked("3");
        EXPECT_EQ(d.findValue(&probe, v3), v1);  // old value handed back, not destroyed
        EXPECT_EQ(gDestroyed, 0);
        RWCollectable* value = nullptr;
        EXPECT_EQ(d.findKeyAndValue(&probe, value), k1);
        EXPECT_EQ(value, v3);
        delete v1;
        RWCollectableString absent("nope");
        EXPECT_EQ(d.findValue(&absent, &v4), nullptr);  // nothing stored for an absent key
        EXPECT_EQ(d.findKeyAndValue(&absent, value), nullptr);
        EXPECT_EQ(value, v3);  // untouched
        EXPECT_EQ(d.replaceValueIf(hashOf("nope"), keyIs("nope"), &v4), nullptr);
        EXPECT_EQ(d.replaceValueIf(hashOf("k"), keyIs("k"), v1 = new Tracked("5")), v3);
        EXPECT_EQ(d.entries(), 1u);
        EXPECT_EQ(d.removeKeyAndValue(&probe, value), k1);
        EXPECT_EQ(value, v1);
        d.insertKeyAndValue(k1, v3);
        d.removeAndDestroy(&probe);
        EXPECT_EQ(gDestroyed, 3);  // v1, k1, v3
        delete v1;
        EXPECT_EQ(d.remove(&probe), nullptr);

        // insert is a set insert: an equal key present is returned and nothing is added.
        EXPECT_EQ(d.insert(nullptr), nullptr);
        EXPECT_EQ(d.insert(&a), &a);
        EXPECT_EQ(d.insert(&a2), &a);
        EXPECT_EQ(d.entries(), 1u);
        EXPECT_EQ(d.findValue(&a2), nullptr);
        EXPECT_EQ(d.remove(&a2), &a);
        d.insert(&a);
        d.clear();
        EXPECT_TRUE(d.isEmpty());
        d.insertKeyAndValue(&k2, &v2);
    }  // the destructor forgets too
    EXPECT_EQ(gDestroyed, 4);
    // A key that is its own value is deleted once.
    RWHashDictionary d;
    for (char const* name : {"self", "other"}) {
        auto* self = new Tracked(name);
        d.insertKeyAndValue(self, self);
    }
    d.insertKeyAndValue(new Tracked("k"), nullptr);
    RWCollectableString const self("self");
    d.removeAndDestroy(&self);
    EXPECT_EQ(gDestroyed, 5);
    d.clearAndDestroy();
    EXPECT_EQ(gDestroyed, 7);
}

// Growth from four buckets, removed slots, reserve (smaller and larger than the contents), copies
// and removal while walking: every entry is found by key object and by hash, and visited once.
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
    RWHashDictionary const copy(d);
    for (int i = 0; i < kCount; i += 7) {
        std::string const key = name(i);
        auto* value = static_cast<RWCollectableInt*>(valueOf(d, key));
        EXPECT_EQ(d.findValueIf(hashOf(key), keyIs(key)), value);
        EXPECT_EQ(valueOf(copy, key), value);
        EXPECT_EQ(value ? value->value() : -1, i % 3 ? i : -1) << key;
    }
    RWHashDictionaryIterator it(d);
    EXPECT_EQ(it.key(), nullptr);
    std::set<std::string> seen;
    size_t removed = 0;
    while (RWCollectable* key = it()) {
        EXPECT_EQ(it.key(), key);
        std::string const text = static_cast<RWCollectableString*>(key)->stdString();
        EXPECT_TRUE(seen.insert(text).second) << text;
        if (std::stoi(text.substr(1)) % 2 == 0) {
            RWCollectable* value = it.value();
            EXPECT_EQ(it.remove(), key);
            EXPECT_EQ(it.key(), nullptr);  // the current item is gone
            EXPECT_EQ(it.remove(), nullptr);
            delete key;
            delete value;
            ++removed;
        }
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kCount - (kCount + 2) / 3));
    EXPECT_EQ(it(), nullptr);  // stays at the end
    EXPECT_EQ(it.value(), nullptr);
    it.reset();
    size_t walked = 0;
    while (it()) ++walked;
    EXPECT_EQ(walked, seen.size() - removed);
    EXPECT_EQ(d.entries(), walked);
    d.clearAndDestroy();
    EXPECT_TRUE(d.isEmpty());
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

// Every pair of full small tables is found by hash as by key object, in whichever slot it sits
// (sixteen tables of five keys in eight slots: the first slot is taken in some).
TEST_F(CollectionsTest, EveryPairOfFullSmallTablesIsFoundByHash) {
    for (int table = 0; table < 16; ++table) {
        RWHashDictionary d(8);
        std::vector<std::string> keys;
        for (int i = 0; i < 5; ++i) {
            keys.push_back(std::to_string(table) + "k" + std::to_string(i));
            d.insertKeyAndValue(new Tracked(keys.back()), new Tracked(keys.back()));
        }
        for (std::string const& key : keys) {
            RWCollectable* const value = valueOf(d, key);
            ASSERT_NE(value, nullptr) << key;
            EXPECT_EQ(d.findValueIf(hashOf(key), keyIs(key)), value) << key;
            EXPECT_NE(d.findIf(hashOf(key), keyIs(key)), nullptr) << key;
            EXPECT_EQ(d.replaceValueIf(hashOf(key), keyIs(key), value), value) << key;
        }
        d.clearAndDestroy();
    }
}

TEST_F(CollectionsTest, IntervalsCompareAndAdd) {
    using nTime::cDiff;
    EXPECT_TRUE(cDiff(1000) == cDiff::fromSeconds(1) && !(cDiff(1) == cDiff(2)));
    EXPECT_TRUE(cDiff(1) != cDiff(2) && !(cDiff(2) != cDiff(2)));
    EXPECT_TRUE(cDiff(1) < cDiff(2) && !(cDiff(2) < cDiff(2)));
    EXPECT_EQ((cDiff(5) + cDiff::fromMilliseconds(2) - cDiff(10)).milliseconds(), -3);
    EXPECT_EQ(cDiff(7).chrono().count(), 7);
    EXPECT_EQ(cDiff().milliseconds(), 0);
}

// A collection of a host's own, which inherits isEmpty and contains.
struct Counter : RWCollection {
    size_t count = 0;
    void clear() override {}
    void clearAndDestroy() override {}
    size_t entries() const override { return count; }
    RWCollectable* find(RWCollectable const* c) const override {
        return count ? const_cast<RWCollectable*>(c) : nullptr;
    }
    RWCollectable* insert(RWCollectable* c) override { return ++count, c; }
    RWCollectable* remove(RWCollectable const*) override { return nullptr; }
    void removeAndDestroy(RWCollectable const*) override {}
};

// The plain hash table keeps duplicates and finds plain collectables by identity.
TEST_F(CollectionsTest, HashTableKeepsDuplicatesAndRefusesNull) {
    RWHashTable t(2);
    RWCollectable x, y;
    RWCollectableInt one(1), otherOne(1);
    Counter own;
    EXPECT_TRUE(own.isEmpty() && !own.contains(&x));
    own.insert(&x);
    EXPECT_TRUE(!own.isEmpty() && own.contains(&x));
    EXPECT_TRUE(t.isEmpty());
    EXPECT_EQ(t.find(&x), nullptr);
    EXPECT_EQ(t.insert(nullptr), nullptr);
    EXPECT_TRUE(t.isEmpty());
    EXPECT_EQ(t.insert(&x), &x);
    EXPECT_EQ(t.insert(&one), &one);
    EXPECT_EQ(t.insert(&otherOne), &otherOne);
    EXPECT_FALSE(t.isEmpty());
    EXPECT_EQ(t.find(&x), &x);
    EXPECT_EQ(t.find(&y), nullptr);
    EXPECT_TRUE(t.contains(&otherOne));
    EXPECT_EQ(t.entries(), 3u);
    RWHashTable copy(4);
    copy = t;
    EXPECT_NE(t.remove(&one), nullptr);
    EXPECT_NE(t.remove(&one), nullptr);
    EXPECT_EQ(t.remove(&one), nullptr);
    EXPECT_EQ(copy.entries(), 3u);
    copy = RWHashTable();
    EXPECT_EQ(copy.find(&x), nullptr);
    t.clear();
    EXPECT_EQ(t.find(&x), nullptr);
    t.insert(new Tracked("gone"));
    t.clearAndDestroy();
    EXPECT_EQ(gDestroyed, 1);
    EXPECT_TRUE(t.isEmpty());
    EXPECT_EQ(t.find(&x), nullptr);
}

TEST_F(CollectionsTest, OrderedSequenceFindsByEqualityAndRefusesPositionsPastTheEnd) {
    RWOrdered o;
    RWCollectableInt one(1), two(2), otherTwo(2), three(3);
    EXPECT_TRUE(o.isEmpty());
    o.insert(&one);
    o.append(&two);
    o.insertAt(0, &otherTwo);  // otherTwo one two
    o.insertAt(3, nullptr);    // at the end
    EXPECT_FALSE(o.isEmpty());
    EXPECT_EQ(o.index(&two), 0u);  // the first equal item
    EXPECT_EQ(o.find(&two), &otherTwo);
    EXPECT_EQ(o.index(&three), RW_NPOS);
    EXPECT_EQ(o.find(&three), nullptr);
    EXPECT_EQ(o.index(nullptr), 3u);
    EXPECT_EQ(o.first(), &otherTwo);
    EXPECT_EQ(o.last(), nullptr);
    EXPECT_EQ(o.removeAt(3), nullptr);
    EXPECT_EQ(o[2], &two);
    EXPECT_EQ(o.remove(&two), &otherTwo);
    EXPECT_EQ(o.remove(&three), nullptr);
    EXPECT_EQ(o.entries(), 2u);
    for (size_t bad : {size_t{2}, RW_NPOS}) {
        EXPECT_THROW(o.at(bad), RWBoundsErr);
        EXPECT_THROW(o.removeAt(bad), RWBoundsErr);
    }
    EXPECT_THROW(o.insertAt(3, &three), RWBoundsErr);
    o.clear();
    try {
        o.last();
        ADD_FAILURE() << "no exception";
    } catch (RWBoundsErr const& e) {
        EXPECT_STREQ(e.what(), "RWOrdered: position 0 is out of range (0 entries)");
    }
    o.insert(new Tracked("a"));
    o.insert(new Tracked("b"));
    RWCollectableString const b("b");
    o.removeAndDestroy(&b);
    EXPECT_EQ(gDestroyed, 1);
    o.clearAndDestroy();
    EXPECT_EQ(gDestroyed, 2);
    EXPECT_EQ(o.entries(), 0u);
}

}  // namespace
