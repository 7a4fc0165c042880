// The verifier's rules: each fires on a deliberate violation, naming the rule,
// and none fires on the legal patterns next to it.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "hostkernel/executive.h"
#include "amplatform.h"

namespace {

namespace hk = hostkernel;

constexpr ULONG kTag = hk::tag("VfTs");
KSPIN_LOCK lockA, lockB, lockC;

KIRQL raise(KIRQL level)
{
    KIRQL old;
    KeRaiseIrql(level, &old);
    return old;
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

void initLocks()
{
    KeInitializeSpinLock(&lockA);
    KeInitializeSpinLock(&lockB);
    KeInitializeSpinLock(&lockC);
}

void *allocate(POOL_TYPE type = NonPagedPoolNx, size_t bytes = 8)
{
    return ExAllocatePoolWithTag(type, bytes, kTag);
}

struct Case {
    const char *name;
    std::function<void()> action;
    const char *report; // for violations: what the report must match
};

const Case kViolations[] = {
    {"raise to a lower level", [] { raise(DISPATCH_LEVEL), raise(APC_LEVEL); },
     "HOST VERIFIER: IrqlTooHigh: KeRaiseIrql from IRQL 2 to 1"},
    {"lower to a higher level", [] { KeLowerIrql(DISPATCH_LEVEL); },
     "HOST VERIFIER: IrqlNotRestored: KeLowerIrql from IRQL 0 to 2"},
    {"lower below DISPATCH_LEVEL holding a lock", [] { KeAcquireSpinLockRaiseToDpc(&lockA), KeLowerIrql(0); },
     "IrqlNotRestored: KeLowerIrql .* while the thread holds a spin lock"},
    {"DPC-level acquire at PASSIVE_LEVEL", [] { KeAcquireSpinLockAtDpcLevel(&lockA); },
     "HOST VERIFIER: IrqlTooLow: KeAcquireSpinLockAtDpcLevel called at IRQL 0"},
    {"DPC-level release at PASSIVE_LEVEL", [] { KeReleaseSpinLockFromDpcLevel(&lockA); },
     "HOST VERIFIER: IrqlTooLow: KeReleaseSpinLockFromDpcLevel called at IRQL 0"},
    {"DPC-level acquire above DISPATCH_LEVEL", [] { raise(HIGH_LEVEL), KeAcquireSpinLockAtDpcLevel(&lockA); },
     "HOST VERIFIER: IrqlTooHigh: KeAcquireSpinLockAtDpcLevel called at IRQL 15"},
    {"acquire above DISPATCH_LEVEL", [] { raise(HIGH_LEVEL), KeAcquireSpinLockRaiseToDpc(&lockA); },
     "HOST VERIFIER: IrqlTooHigh: KeAcquireSpinLockRaiseToDpc called at IRQL 15"},
    {"paged pool at DISPATCH_LEVEL", [] { raise(DISPATCH_LEVEL), allocate(PagedPool); },
     "HOST VERIFIER: IrqlTooHigh: ExAllocatePoolWithTag of paged pool called at IRQL 2"},
    {"non-paged pool above DISPATCH_LEVEL", [] { raise(HIGH_LEVEL), allocate(); },
     "HOST VERIFIER: IrqlTooHigh: ExAllocatePoolWithTag of non-paged pool called at IRQL 15"},
    {"paged pool freed at DISPATCH_LEVEL",
     [] {
         void *p = allocate(PagedPool);
         raise(DISPATCH_LEVEL);
         ExFreePoolWithTag(p, kTag);
     },
     "HOST VERIFIER: IrqlTooHigh: ExFreePoolWithTag of paged pool called at IRQL 2"},
    {"wide string printed at APC_LEVEL",
     [] {
         hk::LogCapture log;
         raise(APC_LEVEL), DbgPrint("port %ls\n", u"Piano");
     },
     "HOST VERIFIER: IrqlTooHigh: DbgPrint of a wide string at IRQL 1"},
    {"release of a free lock", [] { KeReleaseSpinLock(&lockA, raise(DISPATCH_LEVEL)); },
     "HOST VERIFIER: SpinLockNotHeld: KeReleaseSpinLock of spin lock 0x[0-9a-f]+ .*the lock is not held"},
    {"release of a lock another thread holds",
     [] {
         std::thread([] { KeAcquireSpinLockRaiseToDpc(&lockA); }).join();
         raise(DISPATCH_LEVEL);
         KeReleaseSpinLockFromDpcLevel(&lockA);
     },
     "HOST VERIFIER: SpinLockNotHeld: KeReleaseSpinLockFromDpcLevel of spin lock .*another thread holds it"},
    {"recursive acquisition", [] { KeAcquireSpinLockRaiseToDpc(&lockA), KeAcquireSpinLockAtDpcLevel(&lockA); },
     "HOST VERIFIER: SpinLockRecursion: KeAcquireSpinLockAtDpcLevel of spin lock"},
    {"cancel spin lock taken twice",
     [] {
         KIRQL old;
         IoAcquireCancelSpinLock(&old);
         IoAcquireCancelSpinLock(&old);
     },
     "SpinLockRecursion: IoAcquireCancelSpinLock of the cancel spin lock"},
    {"release restoring another IRQL than was saved",
     [] { KeAcquireSpinLockRaiseToDpc(&lockA), KeReleaseSpinLock(&lockA, DISPATCH_LEVEL); },
     "HOST VERIFIER: IrqlNotRestored: KeReleaseSpinLock of spin lock .* restores IRQL 2, but its acquisition "
     "saved IRQL 0"},
    {"release lowering with another lock still held",
     [] {
         KIRQL old = KeAcquireSpinLockRaiseToDpc(&lockA);
         KeAcquireSpinLockRaiseToDpc(&lockB);
         KeReleaseSpinLock(&lockA, old);
     },
     "IrqlNotRestored: KeReleaseSpinLock .* lowers to IRQL 0 while the thread still holds"},
    {"opposite orders on two threads, without a deadlock",
     [] { nestOnThread(&lockA, &lockB), nestOnThread(&lockB, &lockA); },
     "HOST VERIFIER: SpinLockOrder: spin lock 0x[0-9a-f]+ acquired .*while holding spin lock"},
    {"a cycle through three locks",
     [] { nestOnThread(&lockA, &lockB), nestOnThread(&lockB, &lockC), nestOnThread(&lockC, &lockA); },
     "SpinLockOrder: .*opposite order was seen before: .* then .* then "},
    {"pageable code at DISPATCH_LEVEL",
     [] {
         raise(DISPATCH_LEVEL);
         PAGED_CODE();
     },
     "HOST VERIFIER: PageableCodeAtRaisedIrql: pageable code called at IRQL 2 \\(at .*verifier_test.cpp:[0-9]+\\)"},
    {"free with another tag", [] { ExFreePoolWithTag(allocate(), hk::tag("Othr")); },
     "HOST VERIFIER: PoolTagMismatch: ExFreePoolWithTag\\(0x[0-9a-f]+, 'Othr'\\).* allocated with tag 'VfTs'"},
    {"double free",
     [] {
         void *p = allocate();
         ExFreePool(p);
         ExFreePool(p);
     },
     "HOST VERIFIER: PoolDoubleFree: ExFreePool\\(0x[0-9a-f]+\\).*the block was already freed"},
    {"free of a pointer inside a block", [] { ExFreePool(static_cast<char *>(allocate()) + 4); },
     "HOST VERIFIER: PoolDoubleFree: .*not the start of a pool allocation"},
    {"free of null", [] { ExFreePoolWithTag(nullptr, kTag); }, "PoolDoubleFree: .*a null pointer"},
    {"leak at the end", [] { allocate(NonPagedPoolNx, 24), allocate(PagedPool, 40), hk::verifyQuiescent(); },
     "HOST VERIFIER: PoolLeak: 2 pool allocation\\(s\\) still live: tag 'VfTs' 2 block\\(s\\) 64 bytes"},
    {"unexpected assertion at the end",
     [] { RtlAssert(PVOID("x == 1"), PVOID("unit.cpp"), 12, nullptr), hk::verifyQuiescent(); },
     "HOST VERIFIER: UnexpectedAssertion: x == 1 \\(unit.cpp, line 12\\)"},
    {"expected assertion that never came", [] { hk::acknowledgeAssertions(1), hk::verifyQuiescent(); },
     "UnexpectedAssertion: 1 assertion\\(s\\) acknowledged but only 0 happened"},
    {"IRQL left raised at the end", [] { raise(APC_LEVEL), hk::verifyQuiescent(); },
     "HOST VERIFIER: IrqlNotRestored: the test ends at IRQL 1"},
    {"lock left held by a thread at the end",
     [] {
         std::thread([] { KeAcquireSpinLockRaiseToDpc(&lockA); }).join();
         hk::verifyQuiescent();
     },
     "HOST VERIFIER: SpinLockLeftHeld: the test ends with 1 held by other threads"},
};

TEST(Verifier, EachRuleFiresOnItsViolation)
{
    for (const Case &c : kViolations) {
        SCOPED_TRACE(c.name);
        EXPECT_DEATH(
            {
                initLocks();
                c.action();
            },
            c.report);
    }
}

// Patterns drivers use that look close to the violations above.
const Case kLegal[] = {
    {"the same orders again on other threads",
     [] { nestOnThread(&lockA, &lockB), nestOnThread(&lockA, &lockB), nestOnThread(&lockB, &lockC); }},
    {"a re-initialised lock starts without history",
     [] { nestOnThread(&lockA, &lockB), KeInitializeSpinLock(&lockA), nestOnThread(&lockB, &lockA); }},
    {"DPC-level locks released in another order than taken",
     [] {
         KIRQL old = raise(DISPATCH_LEVEL);
         KeAcquireSpinLockAtDpcLevel(&lockA);
         KeAcquireSpinLockAtDpcLevel(&lockB);
         KeReleaseSpinLockFromDpcLevel(&lockA);
         KeReleaseSpinLockFromDpcLevel(&lockB);
         KeLowerIrql(old);
     }},
    {"raised acquisition released from DPC level, then lowered",
     [] {
         KIRQL old = KeAcquireSpinLockRaiseToDpc(&lockA);
         KeReleaseSpinLockFromDpcLevel(&lockA);
         KeLowerIrql(old);
     }},
    {"the cancel spin lock at DISPATCH_LEVEL",
     [] {
         KIRQL raised = raise(DISPATCH_LEVEL), old;
         IoAcquireCancelSpinLock(&old);
         IoReleaseCancelSpinLock(old);
         KeLowerIrql(raised);
     }},
    {"pool at the highest level each type allows, freed with the protected tag",
     [] {
         KIRQL old = raise(APC_LEVEL);
         ExFreePoolWithTag(allocate(PagedPool), kTag | 0x80000000u);
         raise(DISPATCH_LEVEL);
         ExFreePool(allocate());
         KeLowerIrql(old);
     }},
    {"pageable code at APC_LEVEL",
     [] {
         KIRQL old = raise(APC_LEVEL);
         PAGED_CODE();
         KeLowerIrql(old);
     }},
    {"an assertion the test expects",
     [] { RtlAssert(PVOID("expected"), PVOID(__FILE__), __LINE__, nullptr), hk::acknowledgeAssertions(1); }},
};

TEST(Verifier, LegalPatternsLeaveTheKernelQuiet)
{
    for (const Case &c : kLegal) {
        SCOPED_TRACE(c.name);
        initLocks();
        c.action();
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        EXPECT_EQ(hk::quiescenceProblems(), std::vector<std::string>{});
    }
}

// What the test main reports for a dirty test, without stopping: every
// problem with its rule; once forgotten, a clean slate.
TEST(Verifier, QuiescenceProblemsListEveryProblemAndForgetClearsThem)
{
    void *first = allocate(NonPagedPoolNx, 16);
    void *second = ExAllocatePoolWithTag(NonPagedPoolNx, 32, hk::tag("VfT2"));
    RtlAssert(PVOID("a < b"), PVOID("unit.cpp"), 7, nullptr);
    raise(APC_LEVEL);

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
    // Forgotten blocks are still pool: freeing them later is no violation.
    ExFreePool(first);
    ExFreePool(second);
    EXPECT_EQ(hk::poolStats(kTag).liveAllocations, 0u);
}

} // namespace
