// The verifier's rules: each fires on a deliberate violation, naming the rule,
// and none fires on the legal patterns next to it.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "hostkernel/executive.h"
#include "amplatform.h"

namespace {

namespace hk = hostkernel;

constexpr ULONG kTag = hk::tag("VfTs");

struct Violation {
    const char *name;
    std::function<void()> action;
    const char *report; // regular expression the report must match
};

KSPIN_LOCK lockA;
KSPIN_LOCK lockB;
KSPIN_LOCK lockC;

void initLocks()
{
    KeInitializeSpinLock(&lockA);
    KeInitializeSpinLock(&lockB);
    KeInitializeSpinLock(&lockC);
}

// Takes `second` while holding `first`, on a thread of its own.
void nestOnThread(PKSPIN_LOCK first, PKSPIN_LOCK second)
{
    std::thread([=] {
        KIRQL old;
        KeAcquireSpinLock(first, &old);
        KeAcquireSpinLockAtDpcLevel(second);
        KeReleaseSpinLockFromDpcLevel(second);
        KeReleaseSpinLock(first, old);
    }).join();
}

const Violation kViolations[] = {
    {"raise to a lower level",
     [] {
         KIRQL old;
         KeRaiseIrql(DISPATCH_LEVEL, &old);
         KeRaiseIrql(APC_LEVEL, &old);
     },
     "HOST VERIFIER: IrqlTooHigh: KeRaiseIrql from IRQL 2 to 1"},
    {"lower to a higher level",
     [] { KeLowerIrql(DISPATCH_LEVEL); },
     "HOST VERIFIER: IrqlNotRestored: KeLowerIrql from IRQL 0 to 2"},
    {"lower below DISPATCH_LEVEL while holding a lock",
     [] {
         KIRQL old;
         KeAcquireSpinLock(&lockA, &old);
         KeLowerIrql(PASSIVE_LEVEL);
     },
     "IrqlNotRestored: KeLowerIrql .* while the thread holds a spin lock"},
    {"acquire at DPC level from PASSIVE_LEVEL",
     [] { KeAcquireSpinLockAtDpcLevel(&lockA); },
     "HOST VERIFIER: IrqlTooLow: KeAcquireSpinLockAtDpcLevel called at IRQL 0"},
    {"release from DPC level at PASSIVE_LEVEL",
     [] { KeReleaseSpinLockFromDpcLevel(&lockA); },
     "HOST VERIFIER: IrqlTooLow: KeReleaseSpinLockFromDpcLevel called at IRQL 0"},
    {"acquire at DPC level above DISPATCH_LEVEL",
     [] {
         KIRQL old;
         KeRaiseIrql(HIGH_LEVEL, &old);
         KeAcquireSpinLockAtDpcLevel(&lockA);
     },
     "HOST VERIFIER: IrqlTooHigh: KeAcquireSpinLockAtDpcLevel called at IRQL 15"},
    {"acquire above DISPATCH_LEVEL",
     [] {
         KIRQL old;
         KeRaiseIrql(HIGH_LEVEL, &old);
         KeAcquireSpinLock(&lockA, &old);
     },
     "HOST VERIFIER: IrqlTooHigh: KeAcquireSpinLockRaiseToDpc called at IRQL 15"},
    {"paged pool at DISPATCH_LEVEL",
     [] {
         KIRQL old;
         KeRaiseIrql(DISPATCH_LEVEL, &old);
         ExAllocatePoolWithTag(PagedPool, 8, kTag);
     },
     "HOST VERIFIER: IrqlTooHigh: ExAllocatePoolWithTag of paged pool called at IRQL 2"},
    {"non-paged pool above DISPATCH_LEVEL",
     [] {
         KIRQL old;
         KeRaiseIrql(HIGH_LEVEL, &old);
         ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTag);
     },
     "HOST VERIFIER: IrqlTooHigh: ExAllocatePoolWithTag of non-paged pool called at IRQL 15"},
    {"paged pool freed at DISPATCH_LEVEL",
     [] {
         void *p = ExAllocatePoolWithTag(PagedPool, 8, kTag);
         KIRQL old;
         KeRaiseIrql(DISPATCH_LEVEL, &old);
         ExFreePoolWithTag(p, kTag);
     },
     "HOST VERIFIER: IrqlTooHigh: ExFreePoolWithTag of paged pool called at IRQL 2"},
    {"release of a lock nobody holds",
     [] {
         KIRQL old;
         KeRaiseIrql(DISPATCH_LEVEL, &old);
         KeReleaseSpinLock(&lockA, old);
     },
     "HOST VERIFIER: SpinLockNotHeld: KeReleaseSpinLock of spin lock 0x[0-9a-f]+ .*the lock is not held"},
    {"release of a lock another thread holds",
     [] {
         std::thread([] {
             KIRQL old;
             KeAcquireSpinLock(&lockA, &old);
         }).join();
         KIRQL old;
         KeRaiseIrql(DISPATCH_LEVEL, &old);
         KeReleaseSpinLockFromDpcLevel(&lockA);
     },
     "HOST VERIFIER: SpinLockNotHeld: KeReleaseSpinLockFromDpcLevel of spin lock .*another thread holds it"},
    {"recursive acquisition",
     [] {
         KIRQL old;
         KeAcquireSpinLock(&lockA, &old);
         KeAcquireSpinLockAtDpcLevel(&lockA);
     },
     "HOST VERIFIER: SpinLockRecursion: KeAcquireSpinLockAtDpcLevel of spin lock"},
    {"release restoring another IRQL than the acquisition saved",
     [] {
         KIRQL old;
         KeAcquireSpinLock(&lockA, &old);
         KeReleaseSpinLock(&lockA, DISPATCH_LEVEL);
     },
     "HOST VERIFIER: IrqlNotRestored: KeReleaseSpinLock of spin lock .* restores IRQL 2, but its acquisition saved IRQL 0"},
    {"release lowering below DISPATCH_LEVEL with another lock still held",
     [] {
         KIRQL oldA, oldB;
         KeAcquireSpinLock(&lockA, &oldA);
         KeAcquireSpinLock(&lockB, &oldB);
         KeReleaseSpinLock(&lockA, oldA);
     },
     "IrqlNotRestored: KeReleaseSpinLock .* lowers to IRQL 0 while the thread still holds"},
    {"cancel spin lock taken twice",
     [] {
         KIRQL old, again;
         IoAcquireCancelSpinLock(&old);
         IoAcquireCancelSpinLock(&again);
     },
     "SpinLockRecursion: IoAcquireCancelSpinLock of the cancel spin lock"},
    {"opposite orders on two threads, without a deadlock",
     [] {
         nestOnThread(&lockA, &lockB);
         nestOnThread(&lockB, &lockA);
     },
     "HOST VERIFIER: SpinLockOrder: spin lock 0x[0-9a-f]+ acquired .*while holding spin lock"},
    {"a cycle through three locks",
     [] {
         nestOnThread(&lockA, &lockB);
         nestOnThread(&lockB, &lockC);
         nestOnThread(&lockC, &lockA);
     },
     "SpinLockOrder: .*opposite order was seen before: .* then .* then "},
    {"pageable code at DISPATCH_LEVEL",
     [] {
         KIRQL old;
         KeRaiseIrql(DISPATCH_LEVEL, &old);
         PAGED_CODE();
     },
     "HOST VERIFIER: PageableCodeAtRaisedIrql: pageable code called at IRQL 2 \\(at .*verifier_test.cpp:[0-9]+\\)"},
    {"free with another tag",
     [] { ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTag), hk::tag("Othr")); },
     "HOST VERIFIER: PoolTagMismatch: ExFreePoolWithTag\\(0x[0-9a-f]+, 'Othr'\\).* allocated with tag 'VfTs'"},
    {"double free",
     [] {
         void *p = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTag);
         ExFreePool(p);
         ExFreePool(p);
     },
     "HOST VERIFIER: PoolDoubleFree: ExFreePool\\(0x[0-9a-f]+\\).*the block was already freed"},
    {"free of memory the pool never gave",
     [] {
         static char notPool[16];
         ExFreePool(notPool);
     },
     "HOST VERIFIER: PoolDoubleFree: .*not the start of a pool allocation"},
    {"free of a pointer inside a block",
     [] { ExFreePool(static_cast<char *>(ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTag)) + 4); },
     "PoolDoubleFree: .*not the start of a pool allocation"},
    {"free of null",
     [] { ExFreePoolWithTag(nullptr, kTag); },
     "PoolDoubleFree: .*a null pointer"},
    {"leak at the end",
     [] {
         ExAllocatePoolWithTag(NonPagedPoolNx, 24, kTag);
         ExAllocatePoolWithTag(NonPagedPoolNx, 40, kTag);
         hk::verifyQuiescent();
     },
     "HOST VERIFIER: PoolLeak: 2 pool allocation\\(s\\) still live: tag 'VfTs' 2 block\\(s\\) 64 bytes"},
    {"unexpected assertion at the end",
     [] {
         RtlAssert(PVOID("x == 1"), PVOID("unit.cpp"), 12, nullptr);
         hk::verifyQuiescent();
     },
     "HOST VERIFIER: UnexpectedAssertion: x == 1 \\(unit.cpp, line 12\\)"},
    {"expected assertion that never came",
     [] {
         hk::acknowledgeAssertions(1);
         hk::verifyQuiescent();
     },
     "UnexpectedAssertion: 1 assertion\\(s\\) acknowledged but only 0 happened"},
    {"IRQL left raised at the end",
     [] {
         KIRQL old;
         KeAcquireSpinLock(&lockA, &old);
         hk::verifyQuiescent();
     },
     "HOST VERIFIER: IrqlNotRestored: the test ends at IRQL 2"},
    {"lock left held by a thread at the end",
     [] {
         std::thread([] {
             KIRQL old;
             KeAcquireSpinLock(&lockA, &old);
         }).join();
         hk::verifyQuiescent();
     },
     "HOST VERIFIER: SpinLockLeftHeld: the test ends with 1 held by other threads"},
};

TEST(Verifier, EachRuleFiresOnItsViolation)
{
    for (const Violation &v : kViolations) {
        SCOPED_TRACE(v.name);
        EXPECT_DEATH(
            {
                initLocks();
                v.action();
            },
            v.report);
    }
}

// Patterns drivers use that look close to the violations above.
const std::pair<const char *, std::function<void()>> kLegal[] = {
    {"the same order again on other threads",
     [] {
         nestOnThread(&lockA, &lockB);
         nestOnThread(&lockA, &lockB);
         nestOnThread(&lockB, &lockC);
         nestOnThread(&lockA, &lockC);
     }},
    {"a re-initialised lock starts without history",
     [] {
         nestOnThread(&lockA, &lockB);
         KeInitializeSpinLock(&lockA);
         nestOnThread(&lockB, &lockA);
     }},
    {"locks released in another order than taken, at DISPATCH_LEVEL",
     [] {
         KIRQL old;
         KeRaiseIrql(DISPATCH_LEVEL, &old);
         KeAcquireSpinLockAtDpcLevel(&lockA);
         KeAcquireSpinLockAtDpcLevel(&lockB);
         KeReleaseSpinLockFromDpcLevel(&lockA);
         KeReleaseSpinLockFromDpcLevel(&lockB);
         KeLowerIrql(old);
     }},
    {"raise-to-DPC acquisition released from DPC level, then lowered",
     [] {
         KIRQL old;
         KeAcquireSpinLock(&lockA, &old);
         KeReleaseSpinLockFromDpcLevel(&lockA);
         KeLowerIrql(old);
     }},
    {"nested raise-to-DPC acquisitions released in reverse",
     [] {
         KIRQL oldA, oldB;
         KeAcquireSpinLock(&lockA, &oldA);
         KeAcquireSpinLock(&lockB, &oldB);
         KeReleaseSpinLock(&lockB, oldB);
         KeReleaseSpinLock(&lockA, oldA);
     }},
    {"the cancel spin lock at PASSIVE_LEVEL and at DISPATCH_LEVEL",
     [] {
         KIRQL old;
         IoAcquireCancelSpinLock(&old);
         IoReleaseCancelSpinLock(old);
         KIRQL raised;
         KeRaiseIrql(DISPATCH_LEVEL, &raised);
         IoAcquireCancelSpinLock(&old);
         IoReleaseCancelSpinLock(old);
         KeLowerIrql(raised);
     }},
    {"pool at the highest level each type allows, freed with the protected tag",
     [] {
         KIRQL old;
         KeRaiseIrql(APC_LEVEL, &old);
         void *paged = ExAllocatePoolWithTag(PagedPool, 8, kTag);
         ExFreePoolWithTag(paged, kTag | 0x80000000u);
         KeLowerIrql(old);
         KeRaiseIrql(DISPATCH_LEVEL, &old);
         ExFreePool(ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTag));
         KeLowerIrql(old);
     }},
    {"pageable code at APC_LEVEL",
     [] {
         KIRQL old;
         KeRaiseIrql(APC_LEVEL, &old);
         PAGED_CODE();
         KeLowerIrql(old);
     }},
    {"an assertion the test expects",
     [] {
         RtlAssert(PVOID("expected"), PVOID(__FILE__), __LINE__, nullptr);
         hk::acknowledgeAssertions(1);
     }},
};

TEST(Verifier, LegalPatternsLeaveTheKernelQuiet)
{
    for (const auto &[name, action] : kLegal) {
        SCOPED_TRACE(name);
        initLocks();
        action();
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        EXPECT_EQ(hk::quiescenceProblems(), std::vector<std::string>{});
    }
}

// What the test main reports for a dirty test, without stopping: every
// problem, each with its rule; and once forgotten, a clean slate.
TEST(Verifier, QuiescenceProblemsListEveryProblemAndForgetClearsThem)
{
    void *first = ExAllocatePoolWithTag(NonPagedPoolNx, 16, kTag);
    void *second = ExAllocatePoolWithTag(NonPagedPoolNx, 32, hk::tag("VfT2"));
    RtlAssert(PVOID("a < b"), PVOID("unit.cpp"), 7, nullptr);
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);

    std::vector<std::string> problems = hk::quiescenceProblems();
    ASSERT_EQ(problems.size(), 3u);
    EXPECT_EQ(problems[0], "IrqlNotRestored: the test ends at IRQL 1 instead of PASSIVE_LEVEL");
    EXPECT_EQ(problems[1], "UnexpectedAssertion: a < b (unit.cpp, line 7)");
    EXPECT_NE(problems[2].find("PoolLeak: 2 pool allocation(s) still live: tag 'VfT2' 1 block(s) 32 bytes"),
              std::string::npos)
        << problems[2];
    EXPECT_NE(problems[2].find("tag 'VfTs' 1 block(s) 16 bytes"), std::string::npos) << problems[2];
    EXPECT_EQ(hk::quiescenceProblems(false).size(), 2u);

    hk::forgetFailedTestState();
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_EQ(hk::quiescenceProblems(), std::vector<std::string>{});
    EXPECT_EQ(hk::poolStats(kTag).liveAllocations, 0u);
    // Forgotten blocks are still pool: freeing them later is no violation.
    ExFreePool(first);
    ExFreePool(second);
    EXPECT_EQ(hk::poolStats(kTag).liveAllocations, 0u);
}

TEST(Verifier, RuleNamesAreDistinct)
{
    std::set<std::string> names;
    for (int r = int(hk::Rule::IrqlTooHigh); r <= int(hk::Rule::ObjectDoubleRelease); r++) {
        names.insert(hk::ruleName(hk::Rule(r)));
    }
    EXPECT_EQ(names.size(), size_t(int(hk::Rule::ObjectDoubleRelease) + 1));
    EXPECT_EQ(names.count("UnknownRule"), 0u);
}

} // namespace
