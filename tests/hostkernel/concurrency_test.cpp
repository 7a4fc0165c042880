// The executive under real threads: spin locks exclude, lines stay whole,
// IRQL stays per thread, pool accounting stays exact. Also run under
// ThreadSanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "hostkernel/executive.h"
#include "amplatform.h"

namespace {

namespace hk = hostkernel;

constexpr int kThreads = 8;

template <typename Body> void onThreads(Body body)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back(body, t);
    }
    for (auto &thread : threads) {
        thread.join();
    }
}

TEST(Concurrency, SpinLocksExcludeEachOther)
{
    constexpr int kRounds = 20000;
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    // Plain integers: only the locks keep the increments from being lost
    // (and ThreadSanitizer reports a race if they do not exclude).
    long counter = 0;
    long underCancelLock = 0;
    onThreads([&](int t) {
        for (int i = 0; i < kRounds; i++) {
            if ((i + t) % 2 == 0) {
                KIRQL old;
                KeAcquireSpinLock(&lock, &old);
                counter++;
                KeReleaseSpinLock(&lock, old);
            } else {
                // The DPC-level pair on the same lock.
                KIRQL old = KeRaiseIrqlToDpcLevel();
                KeAcquireSpinLockAtDpcLevel(&lock);
                counter++;
                KeReleaseSpinLockFromDpcLevel(&lock);
                KeLowerIrql(old);
            }
            if (i % 16 == 0) {
                KIRQL old;
                IoAcquireCancelSpinLock(&old);
                underCancelLock++;
                IoReleaseCancelSpinLock(old);
            }
        }
    });
    EXPECT_EQ(counter, long(kThreads) * kRounds);
    EXPECT_EQ(underCancelLock, long(kThreads) * ((kRounds + 15) / 16));
}

TEST(Concurrency, ThreePrintMessagesStayWholeLines)
{
    constexpr int kMessages = 300;
    hk::LogCapture log;
    onThreads([](int t) {
        for (int m = 0; m < kMessages; m++) {
            DbgPrint("Ambrel:Miniport: ");
            DbgPrint("thread %d message %d %ls", t, m, L"\u00E9");
            DbgPrint("\n");
        }
    });
    std::vector<std::string> lines = log.lines();
    ASSERT_EQ(lines.size(), size_t(kThreads) * kMessages);
    std::set<std::string> distinct(lines.begin(), lines.end());
    EXPECT_EQ(distinct.size(), lines.size());
    for (int t = 0; t < kThreads; t++) {
        for (int m = 0; m < kMessages; m++) {
            std::string expected =
                "Ambrel:Miniport: thread " + std::to_string(t) + " message " + std::to_string(m) + " \xC3\xA9";
            ASSERT_EQ(distinct.count(expected), 1u) << expected;
        }
    }
}

TEST(Concurrency, IrqlIsPerThread)
{
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    std::atomic<int> atPassive{0};
    onThreads([&](int) { atPassive += KeGetCurrentIrql() == PASSIVE_LEVEL ? 1 : 0; });
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeLowerIrql(old);
    EXPECT_EQ(atPassive.load(), kThreads);
}

// Many threads allocating, freeing and agreeing on one lock order: the
// accounting stays exact and the shared order graph reports nothing.
TEST(Concurrency, PoolAndLockOrderBookkeepingStayExact)
{
    constexpr ULONG kTag = hk::tag("CcPl");
    constexpr int kRounds = 2000;
    KSPIN_LOCK outer, inner;
    KeInitializeSpinLock(&outer);
    KeInitializeSpinLock(&inner);
    onThreads([&](int t) {
        std::vector<void *> kept;
        for (int i = 0; i < kRounds; i++) {
            KIRQL old;
            KeAcquireSpinLock(&outer, &old);
            KeAcquireSpinLockAtDpcLevel(&inner);
            void *p = ExAllocatePoolWithTag(NonPagedPoolNx, size_t(8 + t), kTag);
            KeReleaseSpinLockFromDpcLevel(&inner);
            KeReleaseSpinLock(&outer, old);
            ASSERT_NE(p, nullptr);
            if (i % 3 == 0) {
                kept.push_back(p);
            } else {
                ExFreePoolWithTag(p, kTag);
            }
        }
        for (void *p : kept) {
            ExFreePool(p);
        }
    });
    hk::PoolTagStats stats = hk::poolStats(kTag);
    EXPECT_EQ(stats.totalAllocations, size_t(kThreads) * kRounds);
    EXPECT_EQ(stats.liveAllocations, 0u);
    EXPECT_EQ(stats.liveBytes, 0u);
    EXPECT_TRUE(hk::quiescenceProblems().empty());
}

} // namespace
