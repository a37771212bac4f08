// Heap use: lookups allocate nothing, and the reader allocates only the key and value objects
// (plus the table), never in proportion to the lengths it is told.
#include "assoc_test_util.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

namespace {

std::atomic<bool> gCounting{false};
std::atomic<size_t> gAllocations{0};
std::atomic<size_t> gLargest{0};

void* allocate(size_t size) {
    if (gCounting.load(std::memory_order_relaxed)) {
        ++gAllocations;
        size_t largest = gLargest.load();
        while (size > largest && !gLargest.compare_exchange_weak(largest, size)) {
        }
    }
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}

// Counts the heap allocations made while it exists.
class AllocationCount {
public:
    AllocationCount() {
        gAllocations = 0;
        gLargest = 0;
        gCounting = true;
    }
    ~AllocationCount() { gCounting = false; }
    size_t count() const { return gAllocations; }
    size_t largest() const { return gLargest; }
};

}  // namespace

void* operator new(size_t size) { return allocate(size); }
void* operator new[](size_t size) { return allocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }

namespace {

TEST(AssociativeArrayAllocation, LookupsAllocateNothing) {
    CAssociativeArray record;
    std::string const longKey(200, 'k');
    record.AddCouple("a", "1");
    record.AddCouple(longKey.c_str(), "2");
    record.AddArrayCouple("Item", 5L, 3);
    record.AddCouple("d", 0.5);
    char const* a = nullptr;
    char const* l = nullptr;
    char const* missing = "x";
    long item = 0;
    double d = 0;
    bool hasA = false, hasB = true;
    size_t allocations = 0;
    {
        AllocationCount count;
        a = record.GetValueOfParameter("a");
        l = record.GetValueOfParameter(longKey.c_str(), "none");
        item = record.GetInt32ValueOfParameterArray("Item", 3);
        d = record.GetDoubleValueOfParameter("d");
        missing = record.GetValueOfParameter("missing", nullptr);
        hasA = record.KeyExists("a");
        hasB = record.KeyExists("b");
        allocations = count.count();
    }
    EXPECT_EQ(allocations, 0u);
    EXPECT_STREQ(a, "1");
    EXPECT_STREQ(l, "2");
    EXPECT_EQ(item, 5);
    EXPECT_EQ(d, 0.5);
    EXPECT_EQ(missing, nullptr);
    EXPECT_TRUE(hasA);
    EXPECT_FALSE(hasB);
}

TEST(AssociativeArrayAllocation, ReplacingAValueAllocatesOnlyTheValue) {
    CAssociativeArray record;
    record.AddCouple("key", "old");
    size_t allocations = 0;
    {
        AllocationCount count;
        record.AddCouple("key", "new");
        allocations = count.count();
    }
    EXPECT_EQ(allocations, 1u);
}

TEST(AssociativeArrayAllocation, ReaderAllocationIsBoundedByItsInput) {
    // Claimed lengths far beyond the input are refused before anything is allocated for them.
    std::string const text("1 '999999999 ab '3 xyz ");
    CAssociativeArray record;
    size_t largest = 0;
    {
        AllocationCount count;
        EXPECT_THROW(record.FromString(text.data(), static_cast<int>(text.size())), CIllegalAssoSyntaxException);
        largest = count.largest();
    }
    EXPECT_LT(largest, 4096u);

    // A valid text: one key object and one value object per pair, plus the table.
    std::string const four("4 '1 a '1 1 '1 b '1 2 '1 c '1 3 '1 d '1 4 ");
    size_t allocations = 0;
    {
        AllocationCount count;
        record.FromString(four.data(), static_cast<int>(four.size()));
        allocations = count.count();
    }
    EXPECT_LE(allocations, 2u * 4u + 1u);
}

TEST(AssociativeArrayAllocation, ReaderMakesItsObjectsInAFewBlocks) {
    // Short keys and values (kept inside their string objects): the table and the blocks of
    // key and value objects are all the reader allocates, however many pairs there are.
    for (int pairs : {16, 200}) {
        CAssociativeArray source;
        for (int i = 0; i < pairs; ++i) source.AddCouple(("key" + std::to_string(i)).c_str(), static_cast<long>(i));
        std::string const text = source.ToStringRef(false, false).stdString();
        CAssociativeArray record;
        size_t allocations = 0;
        {
            AllocationCount count;
            record.FromString(text.data(), static_cast<int>(text.size()));
            allocations = count.count();
        }
        EXPECT_EQ(record.entries(), static_cast<size_t>(pairs));
        EXPECT_LE(allocations, 1u + (2u * static_cast<size_t>(pairs) + 63u) / 64u) << pairs << " pairs";
    }
}

TEST(AssociativeArrayAllocation, AFalseCountReservesNoMoreThanTheInputHolds) {
    // 100 million pairs announced, three present: the reader sizes for the three at most.
    std::string const text("100000000 '1 a '1 1 '1 b '1 2 '1 c '1 3 ");
    CAssociativeArray record;
    size_t largest = 0;
    {
        AllocationCount count;
        EXPECT_THROW(record.FromString(text.data(), static_cast<int>(text.size())), CIllegalAssoSyntaxException);
        largest = count.largest();
    }
    EXPECT_EQ(record.entries(), 3u);  // the pairs read before the failure stay
    EXPECT_LT(largest, 4096u);
}

}  // namespace
