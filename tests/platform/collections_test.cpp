#include "ntime.h"
#include "rwcstring.h"
#include "rwhashdict.h"
#include "rwhashtable.h"
#include "rwordered.h"
#include "testing.h"

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
void destroy(RWHashDictionary& d, std::string const& key) {
    RWCollectableString const probe(key.c_str());
    d.removeAndDestroy(&probe);
}
using Ptrs = std::vector<RWCollectable const*>;
using Sizes = std::vector<size_t>;

class CollectionsTest : public ::testing::Test {
  protected:
    void SetUp() override { gDestroyed = 0; }
};

TEST_F(CollectionsTest, StringsAreLengthCountedAndNulSafeAndTokenized) {
    RWCString s("a\0b", 3);
    s.append("\0c", 2).append(RWCString("d")).append('e', 2).append("f").append(static_cast<char const*>(nullptr));
    ((s += "g") += RWCString("h")) += 'i';
    s.prepend("<", 1).insert(2, "+", 1).replace(0, 1, "[[", 2).remove(11, 1);
    EXPECT_EQ(s.stdString() + s.data()[14], "[[a+\0b\0cdeeghi\0"s);  // NUL-terminated too
    EXPECT_EQ((Sizes{s.remove(4).index("+"), s.index("a", 3), s.first('a'), s.index("[[")}),
              (Sizes{3, RWCString::npos, 2, 0}));
    EXPECT_TRUE(s.contains("[a") && !s.contains("b"));
    s(0) = '{', s[1] = '(';
    EXPECT_EQ(s, "{(a+");
    s.resize(1);
    EXPECT_EQ(s, RWCString('{', 1));
    EXPECT_TRUE((s = static_cast<char const*>(nullptr)).isNull());
    EXPECT_EQ(s.assign("yz", 1), "y");
    EXPECT_TRUE(RWCString("a\0b", 3) != RWCString("a") && RWCString("a") != "b" && !(RWCString("a") != "a") &&
                RWCString("a\0b", 3).hash() != RWCString("a\0c", 3).hash() &&
                RWCString("xyz").hash() == RWCString::hash("xyz", 3) &&
                RWCString("a").hash() != RWCString("b").hash() && RWCString("a") < RWCString("b") &&
                !(RWCString("a") < RWCString("a")));

    RWCString const text("  one two\tthree\n");
    RWCTokenizer next(text);
    std::string tokens;
    for (RWCString t = next(" \t\n"); !t.isNull(); t = next(" \t\n")) tokens += t.stdString() + "|";
    EXPECT_EQ(tokens + (next(" ").isNull() ? "end" : "more"), "one|two|three|end");  // and stays at the end
}

// Strings by bytes, ints by value, anything else (and a mix) by identity and address; intervals.
TEST_F(CollectionsTest, EqualityAndOrder) {
    RWCollectableString const a("a"), b("b"), a2("a");
    RWCollectableInt const one(1), two(2), one2(1);
    RWCollectable plain[2];
    int const mixed = reinterpret_cast<uintptr_t>(&a) < reinterpret_cast<uintptr_t>(&one) ? -1 : 1;
    RWCollectable const* const pairs[][2] = {
        {&a, &b}, {&a, &a2}, {&one, &two}, {&one, &one2}, {&a, &one}, {&plain[0], &plain[1]}, {&plain[0], &plain[0]}};
    int const orders[] = {-1, 0, -1, 0, mixed, -1, 0};  // 0: equal
    for (size_t i = 0; i < std::size(orders); ++i) {
        auto const [x, y] = pairs[i];
        EXPECT_TRUE(x->isEqual(y) == !orders[i] && y->isEqual(x) == !orders[i]) << i;
        EXPECT_EQ(sign(x->compareTo(y)), orders[i]) << i;
        EXPECT_EQ(sign(y->compareTo(x)), -orders[i]) << i;
    }
    // Keyed string hashes see every byte and the length, in short and long strings alike.
    for (size_t length : {1, 5, 9, 17, 33, 41}) {
        std::string const text(length, 'a');
        EXPECT_TRUE(hashOf(text) != hashOf(text.substr(1) + "b") && hashOf(text) != hashOf(text + '\0')) << length;
    }
    EXPECT_TRUE(sign(one.compareTo(nullptr)) == 1 && one.hash() == 1u);

    using nTime::cDiff;
    EXPECT_TRUE(cDiff(1000) == cDiff::fromSeconds(1) && !(cDiff(1) == cDiff(2)) && cDiff(1) != cDiff(2) &&
                !(cDiff(2) != cDiff(2)) && cDiff(1) < cDiff(2) && !(cDiff(2) < cDiff(2)));
    EXPECT_EQ((cDiff(5) + cDiff::fromMilliseconds(2) - cDiff(10)).milliseconds(), -3);
    EXPECT_EQ(cDiff(7).chrono().count() + cDiff().milliseconds(), 7);
}

// Who owns what: a refused key, a replaced or removed value and clear() leave the objects to the
// caller (stack objects here, so a wrong delete shows); removeAndDestroy and clearAndDestroy
// delete keys and values.
TEST_F(CollectionsTest, DictionaryOwnershipAndReplacement) {
    Tracked k2("k"), v2("2"), v4("4"), a("a"), a2("a");
    {
        RWHashDictionary d;
        auto *k1 = new Tracked("k"), *v1 = new Tracked("1"), *v3 = new Tracked("3");
        RWCollectableString probe("k"), absent("nope");
        RWCollectable *value = nullptr, *absentValue = &v2;
        // refused: key present, null key; the old value is handed back, not destroyed; an absent
        // key stores nothing and leaves the output value
        EXPECT_EQ((Ptrs{d.insertKeyAndValue(k1, v1), d.insertKeyAndValue(&k2, &v2), d.insertKeyAndValue(nullptr, &v2),
                        d.find(&probe), d.findValue(&probe, v3), d.findKeyAndValue(&probe, value), value,
                        d.findValue(&absent, &v4), d.findKeyAndValue(&absent, absentValue), absentValue}),
                  (Ptrs{k1, nullptr, nullptr, k1, v1, k1, v3, nullptr, nullptr, &v2}));
        EXPECT_EQ(d.entries() + gDestroyed, 1u);
        delete v1;
        EXPECT_EQ(d.findValue(&probe, v1 = new Tracked("5")), v3);
        EXPECT_EQ((Ptrs{d.removeKeyAndValue(&probe, value), value}), (Ptrs{k1, v1}));
        d.insertKeyAndValue(k1, v3);
        d.removeAndDestroy(&probe);
        EXPECT_EQ(gDestroyed, 3);  // v1, k1, v3
        delete v1;
        // insert is a set insert: an equal key present is returned and nothing is added.
        EXPECT_EQ((Ptrs{d.remove(&probe), d.insert(nullptr), d.insert(&a), d.insert(&a2), d.findValue(&a2)}),
                  (Ptrs{nullptr, nullptr, &a, &a, nullptr}));
        EXPECT_TRUE(d.entries() == 1u && d.remove(&a2) == &a);
        d.insert(&a);
        d.clear();
        EXPECT_TRUE(d.isEmpty());
        d.insertKeyAndValue(&k2, &v2);
    }  // the destructor forgets too
    EXPECT_EQ(gDestroyed, 4);
    // A key that is its own value is deleted once.
    RWHashDictionary d;
    for (auto* self : {new Tracked("self"), new Tracked("other")}) d.insertKeyAndValue(self, self);
    d.insertKeyAndValue(new Tracked("k"), nullptr);
    destroy(d, "self");
    EXPECT_EQ(gDestroyed, 5);
    d.clearAndDestroy();
    EXPECT_EQ(gDestroyed, 7);
    // A key hashing to 0 lives in slot 0, a slot like the others.
    RWCollectableInt zero(0), one(1), two(2);
    RWCollectable* old = nullptr;
    EXPECT_EQ((Ptrs{d.insertKeyAndValue(&zero, &one), d.findValue(&zero, &two), d.findKeyAndValue(&zero, old), old,
                    d.removeKeyAndValue(&zero, old), old}),
              (Ptrs{&zero, &one, &zero, &two, &zero, &two}));
}

// Growth from four buckets, removed slots, reserve (smaller and larger than the contents), copies
// and removal while walking: every entry is found by key object and by hash, and visited once.
TEST_F(CollectionsTest, GrowthReserveAndRemovalWhileWalkingKeepEveryEntryOnce) {
    RWHashDictionary d(4);
    auto const name = [](int i) { return "k" + std::to_string(i); };
    constexpr int kCount = 5000;
    for (int i = 0; i < kCount; ++i) d.insertKeyAndValue(new Tracked(name(i)), new RWCollectableInt(i));
    for (int i = 0; i < kCount; i += 3) destroy(d, name(i));
    d.reserve(10);  // fewer than stored: nothing changes
    d.reserve(20000);
    RWHashDictionary const copy(d);
    for (int i = 0; i < kCount; i += 7) {
        std::string const key = name(i);
        auto* value = static_cast<RWCollectableInt*>(valueOf(d, key));
        EXPECT_EQ((Ptrs{d.findValueIf(hashOf(key), keyIs(key)), valueOf(copy, key)}), Ptrs(2, value));
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
            EXPECT_EQ((Ptrs{it.remove(), it.key(), it.remove()}), (Ptrs{key, nullptr, nullptr}));  // the item is gone
            delete key;
            delete value;
            ++removed;
        }
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kCount - (kCount + 2) / 3));
    EXPECT_EQ((Ptrs{it(), it.value()}), Ptrs(2, nullptr));  // stays at the end
    it.reset();
    EXPECT_EQ(it.value(&d), nullptr);  // before the first pair: nothing replaced
    it();
    RWCollectable* const first = it.value(nullptr);
    EXPECT_EQ((Ptrs{it.value(first), it.value()}), (Ptrs{nullptr, first}));
    size_t walked = 1;
    while (it()) ++walked;
    size_t pairs = 0;
    d.forEachPair([&](RWCollectable const* k, RWCollectable const* v) { pairs += d.findValue(k) == v; });
    EXPECT_EQ((Sizes{walked, d.entries(), pairs}), Sizes(3, seen.size() - removed));
    d.clearAndDestroy();
}

// Adding or replacing in one probe (the key made only when adding); a removed slot is taken again;
// a key maker that throws stores nothing; unequal keys of one hash are two pairs. Sixteen full small
// tables (five keys in eight slots, the first slot taken in some) find every key by hash too.
TEST_F(CollectionsTest, PutValueIfAndLookupByHash) {
    RWHashDictionary d(2);
    RWCollectable* old = nullptr;
    auto const put = [&](std::string const& key, RWCollectable* value, unsigned hash = 0) {
        return d.putValueIf(
            hash ? hash : hashOf(key), keyIs(key), value, [&] { return new Tracked(key); }, old);
    };
    auto *one = new Tracked("1"), *two = new Tracked("2"), *three = new Tracked("3");
    EXPECT_EQ((Ptrs{put("a", one), old}), (Ptrs{nullptr, nullptr}));  // added
    RWCollectableString const a("a");
    RWCollectable const* const key = d.find(&a);
    EXPECT_EQ((Ptrs{put("a", two), old, valueOf(d, "a")}), (Ptrs{key, one, two}));  // replaced: the key is kept
    delete one;
    destroy(d, "a");
    EXPECT_EQ(d.entries() + gDestroyed, 3u);  // one, and the stored key and value
    EXPECT_THROW(d.putValueIf(
                     hashOf("a"), [](RWCollectable const*) { return true; }, three,
                     []() -> RWCollectable* { throw std::bad_alloc(); }, old),
                 std::bad_alloc);
    EXPECT_EQ((Ptrs{d.isEmpty() ? nullptr : three, put("a", three), valueOf(d, "a")}), (Ptrs{nullptr, nullptr, three}));
    for (int i = 0; i < 100; ++i) put("k" + std::to_string(i), new Tracked("v"));  // grows on the way
    EXPECT_TRUE(d.entries() == 101u && valueOf(d, "k99"));
    gDestroyed = 0;
    d.clearAndDestroy();
    EXPECT_EQ(gDestroyed, 202);
    // Unequal keys of one hash, each found as itself, side by side in a roomy table: 1 + 2 slots probed.
    d.reserve(64);
    one = new Tracked("1"), two = new Tracked("2");
    EXPECT_EQ((Ptrs{put("p", one, 7), put("q", two, 7), d.findValueIf(7, keyIs("p")), d.findValueIf(7, keyIs("q"))}),
              (Ptrs{nullptr, nullptr, one, two}));
    EXPECT_EQ(d.probeCount(), 3u);
    d.clearAndDestroy();

    for (int table = 0; table < 16; ++table) {
        RWHashDictionary small(8);
        auto const name = [table](int i) { return std::to_string(table) + "k" + std::to_string(i); };
        for (int i = 0; i < 5; ++i) small.insertKeyAndValue(new Tracked(name(i)), new Tracked(name(i)));
        for (int i = 0; i < 5; ++i) {
            std::string const k = name(i);
            RWCollectable* const value = valueOf(small, k);
            RWCollectable* const key = small.putValueIf(
                hashOf(k), keyIs(k), value, [] { return nullptr; }, old);
            EXPECT_TRUE(value && key && small.findValueIf(hashOf(k), keyIs(k)) == value && old == value) << k;
            RWCollectableString duplicate(k.c_str());  // a key present in any slot is refused
            EXPECT_EQ(small.insertKeyAndValue(&duplicate, nullptr), nullptr) << k;
        }
        small.clearAndDestroy();
    }
}

// The plain hash table keeps duplicates and finds plain collectables by identity.
TEST_F(CollectionsTest, HashTableKeepsDuplicatesAndRefusesNull) {
    RWHashTable t(2), copy(4);
    RWCollectable x, y;
    RWCollectableInt one(1), otherOne(1);
    EXPECT_TRUE(t.isEmpty() && !t.contains(&x));
    EXPECT_EQ((Ptrs{t.insert(nullptr), t.isEmpty() ? &y : nullptr, t.insert(&x), t.insert(&one), t.insert(&otherOne),
                    t.isEmpty() ? &y : nullptr, t.find(&x), t.find(&y)}),
              (Ptrs{nullptr, &y, &x, &one, &otherOne, nullptr, &x, nullptr}));
    EXPECT_TRUE(t.contains(&otherOne) && t.entries() == 3u);
    copy = t;
    EXPECT_EQ((Ptrs{t.remove(&one) ? &one : nullptr, t.remove(&one) ? &one : nullptr, t.remove(&one)}),
              (Ptrs{&one, &one, nullptr}));
    EXPECT_EQ(copy.entries(), 3u);
    copy = RWHashTable();
    t.clear();
    EXPECT_EQ((Ptrs{copy.find(&x), t.find(&x)}), (Ptrs{nullptr, nullptr}));
    t.insert(new Tracked("gone"));
    t.clearAndDestroy();
    EXPECT_EQ(gDestroyed, 1);
    EXPECT_TRUE(t.isEmpty() && !t.contains(&x));
}

TEST_F(CollectionsTest, OrderedSequenceFindsByEqualityAndRefusesPositionsPastTheEnd) {
    RWOrdered o;
    RWCollectableInt one(1), two(2), otherTwo(2), three(3);
    EXPECT_TRUE(o.isEmpty() && o.RWCollection::isEmpty());  // the latter for collections of a host's own
    EXPECT_EQ((Ptrs{o.insert(&one), o.append(&two), o.insertAt(0, &otherTwo), o.insertAt(3, nullptr)}),
              (Ptrs{&one, &two, &otherTwo, nullptr}));  // otherTwo one two null: at the front and at the end
    EXPECT_FALSE(o.isEmpty() || o.RWCollection::isEmpty());
    EXPECT_EQ((Sizes{o.index(&two), o.index(&three), o.index(nullptr)}), (Sizes{0, RW_NPOS, 3}));  // the first equal
    EXPECT_EQ((Ptrs{o.find(&two), o.find(&three), o.first(), o.last(), o.removeAt(3), o[2], o.remove(&two),
                    o.remove(&three)}),
              (Ptrs{&otherTwo, nullptr, &otherTwo, nullptr, nullptr, &two, &otherTwo, nullptr}));
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
    for (char const* text : {"a", "b"}) o.insert(new Tracked(text));
    RWCollectableString const b("b");
    o.removeAndDestroy(&b);
    EXPECT_EQ(gDestroyed, 1);
    o.clearAndDestroy();
    EXPECT_EQ(gDestroyed + o.entries(), 2u);
}

}  // namespace
