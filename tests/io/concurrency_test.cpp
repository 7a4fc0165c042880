// Races the I/O manager must survive on real threads: cancellation against a
// completer claiming the same parked reads, cancel-and-flush against a timer
// that is firing, and many threads with many handles at once.
#include <atomic>
#include <random>
#include <thread>

#include "iotest.h"

namespace iotest {
namespace {

using namespace std::chrono_literals;

class ConcurrencyTest : public IoTest {};

// Each round parks a read; a completer thread claims parked reads by the
// cancel-routine exchange while the caller cancels at the same moment. The
// verifier catches a second completion; the statuses show who won.
TEST_F(ConcurrencyTest, CancelRacesCompletionAndEveryReadCompletesOnce)
{
    constexpr int kRounds = 3000;
    hk::Process app(100);
    hk::Handle h = 0;
    ASSERT_EQ(app.open(kDevice, GENERIC_READ, &h), STATUS_SUCCESS);
    std::atomic<bool> stop{false};
    std::atomic<int> claimed{0};
    std::thread completer([&] {
        while (!stop) {
            if (PIRP irp = claimParked()) {
                completeRead(irp, {0x90});
                claimed++;
            } else {
                std::this_thread::yield();
            }
        }
    });
    int succeeded = 0, cancelled = 0;
    std::mt19937 random(1234);
    for (int round = 0; round < kRounds; round++) {
        auto read = app.readAsync(h, 4);
        if (random() % 2) {
            std::this_thread::yield();
        }
        NTSTATUS cancel = read->cancel();
        ASSERT_TRUE(read->wait(10s)) << "round " << round;
        hk::IoResult r = read->result();
        if (r.status == STATUS_SUCCESS) {
            EXPECT_EQ(r.information, 1u);
            EXPECT_EQ(read->output()[0], 0x90);
            succeeded++;
        } else {
            ASSERT_EQ(r.status, STATUS_CANCELLED) << "round " << round;
            EXPECT_EQ(r.information, 0u);
            EXPECT_EQ(cancel, STATUS_SUCCESS);
            cancelled++;
        }
    }
    stop = true;
    completer.join();
    // Both sides must win sometimes, or the race was not run.
    EXPECT_GT(succeeded, 0);
    EXPECT_GT(cancelled, 0);
    EXPECT_EQ(succeeded, claimed.load());
    EXPECT_EQ(succeeded + cancelled, kRounds);
    EXPECT_EQ(parkedCount(), 0u);
    app.close(h);
}

TEST_F(ConcurrencyTest, ManyThreadsManyHandlesManyProcesses)
{
    constexpr int kThreads = 6;
    constexpr int kIterations = 300;
    std::vector<std::unique_ptr<hk::Process>> processes;
    for (int i = 0; i < 3; i++) {
        processes.push_back(std::make_unique<hk::Process>(1000 + i));
    }
    g.readData = {1, 2, 3};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([&, t] {
            hk::Process &app = *processes[t % 3];
            for (int i = 0; i < kIterations; i++) {
                hk::Handle h = 0;
                if (app.open(kLink + u"\\T", GENERIC_READ | GENERIC_WRITE, &h) != STATUS_SUCCESS) {
                    failures++;
                    continue;
                }
                char buffer[4];
                UCHAR in[2] = {UCHAR(t), UCHAR(i)}, out[2] = {};
                failures += app.read(h, buffer, sizeof buffer).information != 3;
                failures += app.write(h, buffer, 2).information != 2;
                auto r = app.deviceControl(h, CTL_CODE(0x8001, 0x800, METHOD_BUFFERED, 0), in, 2, out, 2);
                failures += r.status != STATUS_SUCCESS || out[0] != UCHAR(i) || out[1] != UCHAR(t);
                failures += app.close(h) != STATUS_SUCCESS;
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(g.count(IRP_MJ_CREATE), size_t(kThreads * kIterations));
    EXPECT_EQ(g.count(IRP_MJ_CLOSE), size_t(kThreads * kIterations));
    for (auto &s : g.seen) {
        if (s.major == IRP_MJ_CREATE) {
            ASSERT_TRUE(s.processId == HANDLE(1000) || s.processId == HANDLE(1001) || s.processId == HANDLE(1002));
        }
    }
}

// After a successful cancel and a flush the timer's DPC must never run again.
TEST(TimerRaceTest, NoDpcRunsAfterCancelAndFlush)
{
    static std::atomic<bool> stopped{false};
    static std::atomic<int> lateRuns{0}, runs{0};
    KTIMER timer;
    KDPC dpc;
    KeInitializeTimer(&timer);
    KeInitializeDpc(&dpc,
                    [](PKDPC, PVOID, PVOID, PVOID) NTAPI {
                        runs++;
                        if (stopped) {
                            lateRuns++;
                        }
                    },
                    nullptr);
    std::mt19937 random(99);
    int cancelledInTime = 0;
    for (int round = 0; round < 2000; round++) {
        stopped = false;
        LARGE_INTEGER due;
        due.QuadPart = -LONGLONG(random() % 3) * 2000; // 0 to 0.4 ms
        KeSetTimer(&timer, due, &dpc);
        if (random() % 2) {
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 300));
        }
        cancelledInTime += KeCancelTimer(&timer);
        KeFlushQueuedDpcs();
        stopped = true;
        if (round % 100 == 0) {
            std::this_thread::sleep_for(1ms); // room for a wrongly late DPC to show up
        }
    }
    KeFlushQueuedDpcs();
    EXPECT_EQ(lateRuns, 0);
    EXPECT_EQ(runs + cancelledInTime, 2000) << "every round either fired once or was cancelled";
}

} // namespace
} // namespace iotest
