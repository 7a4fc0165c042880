// DPCs, timers and events: queueing rules, return values, the thread and
// IRQL deferred work runs at, and waits with timeouts.
#include <atomic>
#include <thread>

#include "iotest.h"

namespace iotest {
namespace {

using namespace std::chrono_literals;

struct DpcProbe {
    std::atomic<int> runs{0};
    std::atomic<KIRQL> irql{PASSIVE_LEVEL};
    std::atomic<bool> onCallerThread{false};
    std::thread::id caller = std::this_thread::get_id();
    PVOID argument1 = nullptr;
    KEVENT ran;

    static void NTAPI routine(PKDPC, PVOID context, PVOID a1, PVOID)
    {
        auto *self = static_cast<DpcProbe *>(context);
        self->irql = KeGetCurrentIrql();
        self->onCallerThread = std::this_thread::get_id() == self->caller;
        self->argument1 = a1;
        self->runs++;
        KeSetEvent(&self->ran, IO_NO_INCREMENT, FALSE);
    }
};

class TimerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        KeInitializeEvent(&probe_.ran, SynchronizationEvent, FALSE);
        KeInitializeDpc(&dpc_, DpcProbe::routine, &probe_);
        KeInitializeTimer(&timer_);
    }
    // The timer and DPC live in the fixture: neither may stay queued past it.
    void TearDown() override
    {
        KeCancelTimer(&timer_);
        KeFlushQueuedDpcs();
    }
    bool waitRun(LONGLONG milliseconds)
    {
        LARGE_INTEGER timeout = relativeMs(milliseconds);
        return KeWaitForSingleObject(&probe_.ran, Executive, KernelMode, FALSE, &timeout) == STATUS_SUCCESS;
    }

    DpcProbe probe_;
    KDPC dpc_;
    KTIMER timer_;
};

TEST_F(TimerTest, TimerFiresOnceAndReportsQueuedStateCorrectly)
{
    struct Case {
        const char *name;
        LONGLONG due; // < 0 relative; 1: absolute one 5 ms ahead; 0: now
    } cases[] = {{"relative", relativeMs(5).QuadPart}, {"absolute", 1}, {"zero", 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        int before = probe_.runs;
        LARGE_INTEGER due;
        due.QuadPart = c.due;
        if (c.due == 1) {
            KeQuerySystemTime(&due);
            due.QuadPart += 5 * 10000;
        }
        EXPECT_FALSE(KeSetTimer(&timer_, due, &dpc_));
        EXPECT_TRUE(waitRun(5000));
        std::this_thread::sleep_for(20ms);
        EXPECT_EQ(probe_.runs, before + 1) << "one-shot";
        EXPECT_TRUE(KeReadStateTimer(&timer_));
        EXPECT_FALSE(KeCancelTimer(&timer_)) << "an expired timer is not queued";
    }
    EXPECT_FALSE(KeSetTimer(&timer_, relativeMs(60000), &dpc_));
    EXPECT_FALSE(KeReadStateTimer(&timer_));
    EXPECT_TRUE(KeSetTimer(&timer_, relativeMs(60000), &dpc_)) << "re-arming a queued timer";
    EXPECT_TRUE(KeCancelTimer(&timer_));
    EXPECT_FALSE(KeCancelTimer(&timer_));
}

TEST_F(TimerTest, DpcQueuesOnceAndRunsOnceOnTheDpcThreadAtDispatchLevel)
{
    // Keep the DPC thread busy so that the probe stays queued meanwhile.
    static std::atomic<bool> release{false}, entered{false};
    KDPC blocker;
    KeInitializeDpc(&blocker,
                    [](PKDPC, PVOID, PVOID, PVOID) NTAPI {
                        entered = true;
                        while (!release) {
                            std::this_thread::yield();
                        }
                    },
                    nullptr);
    release = false;
    entered = false;
    ASSERT_TRUE(KeInsertQueueDpc(&blocker, nullptr, nullptr));
    while (!entered) {
        std::this_thread::yield();
    }
    EXPECT_TRUE(KeInsertQueueDpc(&dpc_, reinterpret_cast<PVOID>(1), nullptr));
    EXPECT_FALSE(KeInsertQueueDpc(&dpc_, reinterpret_cast<PVOID>(2), nullptr));
    EXPECT_TRUE(KeRemoveQueueDpc(&dpc_));
    EXPECT_FALSE(KeRemoveQueueDpc(&dpc_));
    EXPECT_TRUE(KeInsertQueueDpc(&dpc_, reinterpret_cast<PVOID>(3), nullptr));
    release = true;
    KeFlushQueuedDpcs();
    EXPECT_EQ(probe_.runs, 1);
    EXPECT_EQ(probe_.argument1, reinterpret_cast<PVOID>(3));
    EXPECT_EQ(probe_.irql, DISPATCH_LEVEL);
    EXPECT_FALSE(probe_.onCallerThread);
    EXPECT_FALSE(KeRemoveQueueDpc(&dpc_)) << "it ran, it is no longer queued";
}

TEST_F(TimerTest, PeriodicTimerKeepsFiringUntilCancelled)
{
    KeSetTimerEx(&timer_, relativeMs(1), 1, &dpc_);
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(waitRun(5000));
    }
    EXPECT_TRUE(KeCancelTimer(&timer_));
    KeFlushQueuedDpcs();
    int settled = probe_.runs;
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(probe_.runs, settled);
}

TEST(EventTest, WaitsTimeOutOrReturnWhenSignalled)
{
    KEVENT notification, synchronization;
    KeInitializeEvent(&notification, NotificationEvent, FALSE);
    KeInitializeEvent(&synchronization, SynchronizationEvent, FALSE);
    LARGE_INTEGER shortWait = relativeMs(10), zero = relativeMs(0);
    EXPECT_EQ(KeWaitForSingleObject(&notification, Executive, KernelMode, FALSE, &shortWait), STATUS_TIMEOUT);
    std::thread setter([&] {
        std::this_thread::sleep_for(5ms);
        KeSetEvent(&notification, IO_NO_INCREMENT, FALSE);
        KeSetEvent(&synchronization, IO_NO_INCREMENT, FALSE);
    });
    EXPECT_EQ(KeWaitForSingleObject(&notification, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
    setter.join();
    EXPECT_EQ(KeWaitForSingleObject(&notification, Executive, KernelMode, FALSE, &zero), STATUS_SUCCESS)
        << "a notification event stays signalled";
    EXPECT_EQ(KeWaitForSingleObject(&synchronization, Executive, KernelMode, FALSE, &zero), STATUS_SUCCESS);
    EXPECT_EQ(KeWaitForSingleObject(&synchronization, Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT)
        << "a synchronization event is consumed by the wait it satisfies";
    EXPECT_EQ(KeSetEvent(&notification, IO_NO_INCREMENT, FALSE), 1);
    EXPECT_EQ(KeResetEvent(&notification), 1);
    EXPECT_EQ(KeReadStateEvent(&notification), 0);
}

} // namespace
} // namespace iotest
