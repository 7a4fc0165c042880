// The pool: per-tag accounting, fresh memory that is not zero, and fault
// injection that hits exactly the chosen allocations.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "hostkernel/executive.h"
#include "amplatform.h"

namespace {

namespace hk = hostkernel;

constexpr ULONG kTag = hk::tag("PlTs");
constexpr ULONG kOther = hk::tag("PlOt");

// Allocates `tags.size()` blocks in order and reports which failed; frees
// everything it got.
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

std::vector<bool> attempt(size_t count)
{
    return attempt(std::vector<ULONG>(count, kTag));
}

TEST(Pool, AccountsLiveBlocksPerTag)
{
    hk::PoolTagStats before = hk::poolStats(kTag);
    size_t liveBefore = hk::poolLiveAllocations();
    void *a = ExAllocatePoolWithTag(NonPagedPoolNx, 100, kTag);
    void *b = ExAllocatePoolWithTag(PagedPool, 28, kTag);
    void *c = ExAllocatePoolWithTag(NonPagedPoolNx, 5, kOther);
    ASSERT_TRUE(a && b && c);

    hk::PoolTagStats during = hk::poolStats(kTag);
    EXPECT_EQ(during.liveAllocations, before.liveAllocations + 2);
    EXPECT_EQ(during.liveBytes, before.liveBytes + 128);
    EXPECT_EQ(during.totalAllocations, before.totalAllocations + 2);
    EXPECT_EQ(hk::poolStats(kOther).liveBytes, 5u);
    EXPECT_EQ(hk::poolLiveAllocations(), liveBefore + 3);

    ExFreePoolWithTag(a, kTag);
    EXPECT_EQ(hk::poolStats(kTag).liveBytes, before.liveBytes + 28);
    ExFreePool(b);
    ExFreePool(c);
    hk::PoolTagStats after = hk::poolStats(kTag);
    EXPECT_EQ(after.liveAllocations, before.liveAllocations);
    EXPECT_EQ(after.liveBytes, before.liveBytes);
    EXPECT_EQ(after.totalAllocations, before.totalAllocations + 2);
    EXPECT_EQ(hk::poolLiveAllocations(), liveBefore);
}

TEST(Pool, FreshMemoryIsNeverZeroAndBlocksAreDistinct)
{
    std::vector<unsigned char *> blocks;
    for (size_t size : {1u, 16u, 4096u}) {
        auto p = static_cast<unsigned char *>(ExAllocatePoolWithTag(NonPagedPoolNx, size, kTag));
        ASSERT_NE(p, nullptr);
        size_t zeros = 0;
        for (size_t i = 0; i < size; i++) {
            zeros += p[i] == 0 ? 1 : 0;
        }
        EXPECT_EQ(zeros, 0u) << size;
        blocks.push_back(p);
    }
    // A zero-byte request still gets a block of its own.
    void *empty1 = ExAllocatePoolWithTag(NonPagedPoolNx, 0, kTag);
    void *empty2 = ExAllocatePoolWithTag(NonPagedPoolNx, 0, kTag);
    EXPECT_TRUE(empty1 != nullptr && empty2 != nullptr && empty1 != empty2);
    ExFreePool(empty1);
    ExFreePool(empty2);
    for (void *p : blocks) {
        ExFreePool(p);
    }
}

TEST(Pool, UntaggedAllocationsCarryNoneAndHugeOnesFail)
{
    void *p = ExAllocatePool(NonPagedPool, 12);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(hk::poolStats(hk::tag("None")).liveBytes, 12u);
    ExFreePoolWithTag(p, hk::tag("None"));

    size_t failedBefore = hk::poolStats(kTag).failedAllocations;
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPoolNx, SIZE_T(1) << 40, kTag), nullptr);
    EXPECT_EQ(hk::poolStats(kTag).failedAllocations, failedBefore + 1);
}

struct FaultCase {
    const char *name;
    std::function<void()> arm;
    std::vector<ULONG> tags;
    std::vector<bool> expected; // which attempts fail
};

TEST(Pool, FaultInjectionHitsExactlyTheChosenAttempts)
{
    const ULONG T = kTag;
    const ULONG O = kOther;
    const FaultCase cases[] = {
        {"the next one", [] { hk::failNextPoolAllocations(0); }, {T, T, T}, {true, false, false}},
        {"after skipping two", [] { hk::failNextPoolAllocations(2); }, {T, T, T, T}, {false, false, true, false}},
        {"a run of three after one", [] { hk::failNextPoolAllocations(1, 3); }, {T, O, T, O, T},
         {false, true, true, true, false}},
        {"by absolute number",
         [] { hk::failPoolAllocationNumber(hk::poolAllocationAttempts() + 3); }, {T, T, T, T, T},
         {false, false, false, true, false}},
        {"by tag, every time", [O] { hk::failPoolAllocationsOfTag(O); }, {T, O, T, O, O},
         {false, true, false, true, true}},
        {"never at probability 0", [] { hk::failPoolAllocationsRandomly(0.0, 1); }, {T, T, T, T},
         {false, false, false, false}},
        {"always at probability 1", [] { hk::failPoolAllocationsRandomly(1.0, 1); }, {T, O, T},
         {true, true, true}},
        {"none once cleared", [O] {
             hk::failNextPoolAllocations(0, 10);
             hk::failPoolAllocationsOfTag(O);
             hk::clearPoolFaults();
         },
         {T, O, T}, {false, false, false}},
    };
    for (const FaultCase &c : cases) {
        SCOPED_TRACE(c.name);
        c.arm();
        EXPECT_EQ(attempt(c.tags), c.expected);
        hk::clearPoolFaults();
    }
}

TEST(Pool, FailedAttemptsAreCountedAndNumbered)
{
    uint64_t first = hk::poolAllocationAttempts();
    size_t failedBefore = hk::poolStats(kOther).failedAllocations;
    hk::failPoolAllocationsOfTag(kOther);
    attempt({kTag, kOther, kOther});
    EXPECT_EQ(hk::poolAllocationAttempts(), first + 3);
    EXPECT_EQ(hk::poolStats(kOther).failedAllocations, failedBefore + 2);
}

TEST(Pool, SeededRandomFailuresRepeatAndFollowTheProbability)
{
    hk::failPoolAllocationsRandomly(0.5, 42);
    std::vector<bool> run1 = attempt(400);
    hk::failPoolAllocationsRandomly(0.5, 42);
    std::vector<bool> run2 = attempt(400);
    hk::failPoolAllocationsRandomly(0.5, 43);
    std::vector<bool> other = attempt(400);
    hk::failPoolAllocationsRandomly(0.1, 42);
    std::vector<bool> rare = attempt(400);

    EXPECT_EQ(run1, run2);
    EXPECT_NE(run1, other);
    auto failures = [](const std::vector<bool> &v) { return size_t(std::count(v.begin(), v.end(), true)); };
    // Far from the binomial tails: 400 draws at 0.5 give 200 +- 10.
    EXPECT_GT(failures(run1), 150u);
    EXPECT_LT(failures(run1), 250u);
    EXPECT_GT(failures(rare), 15u);
    EXPECT_LT(failures(rare), 70u);
}

} // namespace
