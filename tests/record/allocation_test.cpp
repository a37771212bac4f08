// Heap use: lookups allocate nothing, and the reader never reserves in proportion to the lengths
// or the count it is told.
#include "assoc_test_util.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
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

struct HeapUse {
    size_t count, largest;
};

// The heap allocations `run` makes: how many, and the largest.
template <class Run>
HeapUse heapUse(Run run) {
    gAllocations = 0;
    gLargest = 0;
    gCounting = true;
    run();
    gCounting = false;
    return {gAllocations, gLargest};
}

}  // namespace

void* operator new(size_t size) { return allocate(size); }
void* operator new[](size_t size) { return allocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }

namespace {

TEST(AssociativeArrayAllocation, LookupsAllocateNothingAndAReplacedValueOnlyItself) {
    CAssociativeArray record;
    std::string const longKey(200, 'k');
    record.AddCouple("a", "1");
    record.AddCouple(longKey.c_str(), "2");
    record.AddArrayCouple("Item", 5L, 3);
    bool found = false;  // compared inside, without allocating
    EXPECT_EQ(heapUse([&] {
                  found = std::strcmp(record.GetValueOfParameter(longKey.c_str(), "none"), "2") == 0 &&
                          record.GetInt32ValueOfParameterArray("Item", 3) == 5 && !record.KeyExists("b");
              }).count,
              0u);
    EXPECT_TRUE(found);
    EXPECT_EQ(heapUse([&] { record.AddCouple("a", "new"); }).count, 1u);
}

TEST(AssociativeArrayAllocation, FalseLengthsAndCountsReserveNoMoreThanTheInputHolds) {
    struct Case {
        char const* text;
        size_t pairsKept;  // read before the failure
    } const cases[] = {
        {"1 '999999999 ab '3 xyz ", 0},
        {"100000000 '1 a '1 1 '1 b '1 2 '1 c '1 3 ", 3},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.text);
        CAssociativeArray record;
        HeapUse const use = heapUse([&] { EXPECT_THROW(record.FromStringZTS(c.text), CIllegalAssoSyntaxException); });
        EXPECT_LT(use.largest, 4096u);
        EXPECT_EQ(record.entries(), c.pairsKept);
    }
}

}  // namespace
