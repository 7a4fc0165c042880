// The pool: per-tag accounting, fresh memory that is not zero, and fault
// injection that hits exactly the chosen allocations.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <vector>

#include "hostkernel/executive.h"
#include "amplatform.h"

namespace {

namespace hk = hostkernel;

constexpr ULONG T = hk::tag("PlTs");
constexpr ULONG O = hk::tag("PlOt");

// Allocates one block per tag in order, reports which attempts failed, and
// frees what it got.
std::vector<bool> attempt(const std::vector<ULONG> &tags)
{
    std::vector<bool> failed;
    std::vector<void *> blocks;
    for (ULONG t : tags) {
        void *p = ExAllocatePoolWithTag(NonPagedPoolNx, 16, t);
        failed.push_back(p == nullptr);
        if (p != nullptr) {
            blocks.push_back(p);
        }
    }
    for (void *p : blocks) {
        ExFreePool(p);
    }
    return failed;
}

TEST(Pool, AccountsBlocksPerTagInMemoryThatIsNeverZero)
{
    hk::PoolTagStats before = hk::poolStats(T);
    void *a = ExAllocatePoolWithTag(NonPagedPoolNx, 100, T);
    void *b = ExAllocatePoolWithTag(PagedPool, 28, T);
    void *c = ExAllocatePool(NonPagedPool, 5); // untagged pool carries 'None'
    void *empty = ExAllocatePoolWithTag(NonPagedPoolNx, 0, T);
    ASSERT_TRUE(a && b && c && empty);
    EXPECT_TRUE(empty != a && empty != b);
    // Fresh memory is never zero, so code that forgets to clear it shows.
    for (auto [p, size] : {std::pair{a, 100}, {b, 28}, {c, 5}}) {
        EXPECT_EQ(std::count(static_cast<char *>(p), static_cast<char *>(p) + size, 0), 0) << size;
    }

    hk::PoolTagStats during = hk::poolStats(T);
    EXPECT_EQ(during.liveAllocations, before.liveAllocations + 3);
    EXPECT_EQ(during.liveBytes, before.liveBytes + 128);
    EXPECT_EQ(hk::poolStats(hk::tag("None")).liveBytes, 5u);
    EXPECT_EQ(hk::poolLiveAllocations(), 4u);
    // Larger than any pool: refused, counted as a failure.
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPoolNx, SIZE_T(1) << 40, T), nullptr);

    ExFreePoolWithTag(a, T);
    EXPECT_EQ(hk::poolStats(T).liveBytes, before.liveBytes + 28);
    ExFreePool(b);
    ExFreePoolWithTag(c, hk::tag("None"));
    ExFreePool(empty);
    hk::PoolTagStats after = hk::poolStats(T);
    EXPECT_EQ(after.liveAllocations, before.liveAllocations);
    EXPECT_EQ(after.liveBytes, before.liveBytes);
    EXPECT_EQ(after.totalAllocations, before.totalAllocations + 3);
    EXPECT_EQ(after.failedAllocations, before.failedAllocations + 1);
    EXPECT_EQ(hk::poolLiveAllocations(), 0u);
}

TEST(Pool, FaultInjectionHitsExactlyTheChosenAttempts)
{
    struct Case {
        const char *name;
        std::function<void()> arm;
        std::vector<ULONG> tags;
        std::vector<bool> failed;
    };
    const Case cases[] = {
        {"the next one", [] { hk::failNextPoolAllocations(0); }, {T, T, T}, {true, false, false}},
        {"after skipping two", [] { hk::failNextPoolAllocations(2); }, {T, T, T, T}, {false, false, true, false}},
        {"a run of three after one", [] { hk::failNextPoolAllocations(1, 3); }, {T, O, T, O, T},
         {false, true, true, true, false}},
        {"by absolute number", [] { hk::failPoolAllocationNumber(hk::poolAllocationAttempts() + 3); },
         {T, T, T, T, T}, {false, false, false, true, false}},
        {"by tag, every time", [] { hk::failPoolAllocationsOfTag(O); }, {T, O, T, O, O},
         {false, true, false, true, true}},
        {"never at probability 0", [] { hk::failPoolAllocationsRandomly(0.0, 1); }, {T, T, T}, {false, false, false}},
        {"always at probability 1", [] { hk::failPoolAllocationsRandomly(1.0, 1); }, {T, O, T}, {true, true, true}},
        {"none once cleared",
         [] {
             hk::failNextPoolAllocations(0, 10);
             hk::failPoolAllocationsOfTag(O);
             hk::clearPoolFaults();
         },
         {T, O, T}, {false, false, false}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        uint64_t first = hk::poolAllocationAttempts();
        size_t failedBefore = hk::poolStats(O).failedAllocations;
        c.arm();
        std::vector<bool> failed = attempt(c.tags);
        EXPECT_EQ(failed, c.failed);
        EXPECT_EQ(hk::poolAllocationAttempts(), first + c.tags.size());
        size_t failedO = 0;
        for (size_t i = 0; i < failed.size(); i++) {
            failedO += failed[i] && c.tags[i] == O ? 1 : 0;
        }
        EXPECT_EQ(hk::poolStats(O).failedAllocations, failedBefore + failedO);
        hk::clearPoolFaults();
    }
}

TEST(Pool, SeededRandomFailuresRepeatAndFollowTheProbability)
{
    auto run = [](double probability, uint64_t seed) {
        hk::failPoolAllocationsRandomly(probability, seed);
        std::vector<bool> failed = attempt(std::vector<ULONG>(400, T));
        return std::make_pair(failed, size_t(std::count(failed.begin(), failed.end(), true)));
    };
    auto [first, firstCount] = run(0.5, 42);
    EXPECT_EQ(run(0.5, 42).first, first);
    EXPECT_NE(run(0.5, 43).first, first);
    // Far from the binomial tails: 400 draws at 0.5 give 200 +- 10.
    EXPECT_TRUE(firstCount > 150 && firstCount < 250) << firstCount;
    size_t rare = run(0.1, 42).second;
    EXPECT_TRUE(rare > 15 && rare < 70) << rare;
}

} // namespace
