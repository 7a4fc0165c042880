// DPCs, timers and the dispatcher objects (events, timers) with their waits.
//
// One host thread plays the processor that runs deferred work: it expires
// timers (queueing their DPCs as KeInsertQueueDpc does) and runs queued DPCs
// in order at DISPATCH_LEVEL. Every queued KTIMER and KDPC is also known by
// address, so that freed memory can be checked against them.
#include <chrono>
#include <deque>
#include <stdexcept>

#include "../executive/internal.h"
#include "hostkernel/delay.h"
#include "internal.h"

namespace hostkernel::detail {

namespace {

using Clock = std::chrono::steady_clock;
constexpr UCHAR kDpcObjectType = 0x13;

// A due time as KeSetTimer gets it: negative relative 100-ns units,
// positive absolute system time.
Clock::time_point dueTimeFrom(LONGLONG due)
{
    Clock::time_point now = Clock::now();
    if (due < 0) {
        return now + std::chrono::nanoseconds(-due * 100);
    }
    LARGE_INTEGER systemNow;
    KeQuerySystemTime(&systemNow);
    LONGLONG ahead = due - systemNow.QuadPart;
    return ahead <= 0 ? now : now + std::chrono::nanoseconds(ahead * 100);
}

class Engine {
public:
    ~Engine()
    {
        std::unique_lock<std::mutex> lock(mutex);
        stop = true;
        cv.notify_all();
        lock.unlock();
        if (thread.joinable()) {
            thread.join();
        }
    }

    using TimerKey = std::pair<Clock::time_point, std::uint64_t>;

    std::mutex mutex;
    std::condition_variable cv;     // wakes the engine thread
    std::condition_variable idleCv; // wakes flushes
    std::deque<PKDPC> queue;
    std::map<ULONG_PTR, std::uint64_t> queuedDpcs; // address -> insertion number
    std::map<TimerKey, PKTIMER> timers;
    std::map<ULONG_PTR, TimerKey> queuedTimers; // address -> key in `timers`
    std::uint64_t nextSequence = 1;
    bool running = false;
    std::uint64_t runningSequence = 0;
    unsigned flushWaiters = 0; // threads in KeFlushQueuedDpcs
    bool stop = false;
    std::thread thread;

    void wake()
    {
        if (!thread.joinable()) {
            thread = std::thread([this] { run(); });
        }
        cv.notify_all();
    }

    bool insertDpcLocked(PKDPC dpc, PVOID argument1, PVOID argument2)
    {
        if (queuedDpcs.count(ULONG_PTR(dpc)) != 0) {
            return false;
        }
        dpc->SystemArgument1 = argument1;
        dpc->SystemArgument2 = argument2;
        dpc->DpcData = dpc;
        queuedDpcs[ULONG_PTR(dpc)] = nextSequence++;
        if (dpc->Importance == HighImportance) {
            queue.push_front(dpc);
        } else {
            queue.push_back(dpc);
        }
        wake();
        return true;
    }

    bool removeDpcLocked(PKDPC dpc)
    {
        auto it = queuedDpcs.find(ULONG_PTR(dpc));
        if (it == queuedDpcs.end()) {
            return false;
        }
        queuedDpcs.erase(it);
        for (auto q = queue.begin(); q != queue.end(); ++q) {
            if (*q == dpc) {
                queue.erase(q);
                break;
            }
        }
        dpc->DpcData = nullptr;
        idleCv.notify_all();
        return true;
    }

    bool removeTimerLocked(PKTIMER timer)
    {
        auto it = queuedTimers.find(ULONG_PTR(timer));
        if (it == queuedTimers.end()) {
            return false;
        }
        timers.erase(it->second);
        queuedTimers.erase(it);
        timer->Header.Inserted = 0;
        return true;
    }

    void insertTimerLocked(PKTIMER timer, Clock::time_point due)
    {
        TimerKey key{due, nextSequence++};
        timers[key] = timer;
        queuedTimers[ULONG_PTR(timer)] = key;
        timer->Header.Inserted = 1;
        timer->DueTime.QuadPart = ULONGLONG(due.time_since_epoch().count());
        wake();
    }

    // Whether a DPC queued at or before `sequence` is still queued or running.
    bool busyUpTo(std::uint64_t sequence) const
    {
        if (running && runningSequence <= sequence) {
            return true;
        }
        for (auto &[address, queued] : queuedDpcs) {
            (void)address;
            if (queued <= sequence) {
                return true;
            }
        }
        return false;
    }

private:
    void expireLocked(PKTIMER timer, TimerKey key) // a copy: the node goes
    {
        timers.erase(key);
        queuedTimers.erase(ULONG_PTR(timer));
        timer->Header.Inserted = 0;
        signalTimer(timer);
        if (timer->Period > 0) {
            // A periodic timer that fell behind fires once and goes on from
            // now, as on Windows: no burst of catch-up expiries holding the
            // engine while other threads wait for it.
            Clock::time_point next = key.first + std::chrono::milliseconds(timer->Period);
            Clock::time_point now = Clock::now();
            insertTimerLocked(timer, next > now ? next : now + std::chrono::milliseconds(timer->Period));
        }
        if (timer->Dpc != nullptr) {
            LARGE_INTEGER now;
            KeQuerySystemTime(&now);
            insertDpcLocked(timer->Dpc, reinterpret_cast<PVOID>(ULONG_PTR(now.LowPart)),
                            reinterpret_cast<PVOID>(ULONG_PTR(ULONG(now.HighPart))));
        }
    }

    static void signalTimer(PKTIMER timer);

    void run()
    {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            if (stop) {
                return;
            }
            Clock::time_point now = Clock::now();
            while (!timers.empty() && timers.begin()->first.first <= now) {
                auto first = timers.begin();
                expireLocked(first->second, first->first);
            }
            if (!queue.empty()) {
                PKDPC dpc = queue.front();
                queue.pop_front();
                runningSequence = queuedDpcs[ULONG_PTR(dpc)];
                queuedDpcs.erase(ULONG_PTR(dpc));
                dpc->DpcData = nullptr;
                running = true;
                // The kernel is done with the KDPC once its routine starts:
                // the routine may free it.
                PKDEFERRED_ROUTINE routine = dpc->DeferredRoutine;
                PVOID context = dpc->DeferredContext;
                PVOID argument1 = dpc->SystemArgument1;
                PVOID argument2 = dpc->SystemArgument2;
                lock.unlock();
                KIRQL old;
                KeRaiseIrql(DISPATCH_LEVEL, &old);
                delayPoint(DelayPoint::DpcDelivery);
                routine(dpc, context, argument1, argument2);
                KIRQL after = KeGetCurrentIrql();
                if (after != DISPATCH_LEVEL) {
                    violation(Rule::IrqlNotRestored, "DPC routine " + hex(ULONG_PTR(routine)) + " returned at IRQL " +
                                                         std::to_string(after) + ", called at DISPATCH_LEVEL");
                }
                KeLowerIrql(old);
                lock.lock();
                running = false;
                idleCv.notify_all();
                if (flushWaiters > 0) {
                    // Let a flush woken just now take the lock before the
                    // next round of expiries: a busy engine would starve it.
                    lock.unlock();
                    std::this_thread::yield();
                    lock.lock();
                }
                continue;
            }
            if (timers.empty()) {
                cv.wait(lock);
            } else {
                Clock::time_point next = timers.begin()->first.first; // the node may go while we wait
                cv.wait_until(lock, next);
            }
        }
    }
};

Engine &engine()
{
    static Engine e;
    return e;
}

// The dispatcher database: one lock and one condition for every event and
// timer state. Waits are rare and short on the host; simplicity wins.
std::mutex gDispatcherMutex;
std::condition_variable gDispatcherCv;

void Engine::signalTimer(PKTIMER timer)
{
    std::lock_guard<std::mutex> lock(gDispatcherMutex);
    timer->Header.SignalState = 1;
    gDispatcherCv.notify_all();
}

void initializeTimer(PKTIMER timer, TIMER_TYPE type)
{
    Engine &e = engine();
    std::lock_guard<std::mutex> lock(e.mutex);
    if (e.queuedTimers.count(ULONG_PTR(timer)) != 0) {
        violation(Rule::TimerFreedWhileQueued, "KeInitializeTimer on timer " + hex(ULONG_PTR(timer)) +
                                                   " while it is queued");
    }
    std::lock_guard<std::mutex> dispatcher(gDispatcherMutex);
    timer->Header.Type = type == SynchronizationTimer ? HK_TIMER_SYNCHRONIZATION_OBJECT : HK_TIMER_NOTIFICATION_OBJECT;
    timer->Header.Size = sizeof(KTIMER) / sizeof(LONG);
    timer->Header.Inserted = 0;
    timer->Header.SignalState = 0;
    InitializeListHead(&timer->Header.WaitListHead);
    InitializeListHead(&timer->TimerListEntry);
    timer->DueTime.QuadPart = 0;
    timer->Dpc = nullptr;
    timer->Period = 0;
    timer->Processor = 0;
}

// The live TimerArmingLog's records; armed says whether one lives, so that
// a KeSetTimer with nobody listening costs one relaxed load.
std::atomic<bool> gArmingLogOn{false};
std::mutex gArmingMutex;
std::vector<hostkernel::TimerArming> gArmings;

void recordArming(PKTIMER timer, LONGLONG dueTime, LONG period)
{
    if (!gArmingLogOn.load(std::memory_order_relaxed)) {
        return;
    }
    std::lock_guard<std::mutex> lock(gArmingMutex);
    gArmings.push_back({timer, dueTime, period});
}

} // namespace

void checkFreedMemory(const void *base, size_t bytes)
{
    ULONG_PTR begin = ULONG_PTR(base);
    ULONG_PTR end = begin + bytes;
    Engine &e = engine();
    std::lock_guard<std::mutex> lock(e.mutex);
    auto timer = e.queuedTimers.lower_bound(begin);
    if (timer != e.queuedTimers.end() && timer->first < end) {
        violation(Rule::TimerFreedWhileQueued, "memory " + hex(begin) + " (" + std::to_string(bytes) +
                                                   " bytes) freed while it holds queued timer " + hex(timer->first));
    }
    auto dpc = e.queuedDpcs.lower_bound(begin);
    if (dpc != e.queuedDpcs.end() && dpc->first < end) {
        violation(Rule::DpcFreedWhileQueued, "memory " + hex(begin) + " (" + std::to_string(bytes) +
                                                 " bytes) freed while it holds queued DPC " + hex(dpc->first));
    }
    for (auto &[key, queued] : e.timers) {
        (void)key;
        if (ULONG_PTR(queued->Dpc) >= begin && ULONG_PTR(queued->Dpc) < end) {
            violation(Rule::DpcFreedWhileQueued, "memory " + hex(begin) + " freed while it holds DPC " +
                                                     hex(ULONG_PTR(queued->Dpc)) + " of queued timer " +
                                                     hex(ULONG_PTR(queued)));
        }
    }
}

void dpcQuiesce()
{
    Engine &e = engine();
    std::unique_lock<std::mutex> lock(e.mutex);
    e.idleCv.wait(lock, [&] { return e.queue.empty() && !e.running; });
}

std::vector<std::string> queuedTimerDescriptions()
{
    Engine &e = engine();
    std::lock_guard<std::mutex> lock(e.mutex);
    std::vector<std::string> out;
    for (auto &[key, timer] : e.timers) {
        (void)key;
        out.push_back("timer " + hex(ULONG_PTR(timer)) + " still queued" +
                      (timer->Dpc != nullptr ? " with DPC routine " + hex(ULONG_PTR(timer->Dpc->DeferredRoutine)) : ""));
    }
    return out;
}

std::vector<std::string> queuedDpcDescriptions()
{
    Engine &e = engine();
    std::lock_guard<std::mutex> lock(e.mutex);
    std::vector<std::string> out;
    for (PKDPC dpc : e.queue) {
        out.push_back("DPC " + hex(ULONG_PTR(dpc)) + " (routine " + hex(ULONG_PTR(dpc->DeferredRoutine)) +
                      ") still queued");
    }
    return out;
}

void checkNoQueuedWorkIn(const std::u16string &driverName, const void *start, ULONG size)
{
    auto inImage = [&](PKDEFERRED_ROUTINE routine) {
        auto at = reinterpret_cast<ULONG_PTR>(routine), base = reinterpret_cast<ULONG_PTR>(start);
        return at >= base && at - base < size;
    };
    ULONG_PTR kind = 0, object = 0;
    {
        Engine &e = engine();
        std::lock_guard<std::mutex> lock(e.mutex);
        for (auto &[key, timer] : e.timers) {
            (void)key;
            if (timer->Dpc != nullptr && inImage(timer->Dpc->DeferredRoutine)) {
                kind = 0; // a timer object
                object = ULONG_PTR(timer);
                break;
            }
        }
        for (PKDPC dpc : e.queue) {
            if (object == 0 && inImage(dpc->DeferredRoutine)) {
                kind = 2; // a DPC object
                object = ULONG_PTR(dpc);
            }
        }
    }
    if (object != 0) {
        ULONG_PTR base = ULONG_PTR(start);
        stopWithReport(bugCheckLine(0xC7, kind, object, base, base + size) + "\n*** TIMER_OR_DPC_INVALID: " +
                       (kind == 0 ? "timer " : "DPC ") + hex(object) + " still queued, its routine in " +
                       narrow(driverName) + ", which is being unloaded");
    }
}

} // namespace hostkernel::detail

using namespace hostkernel;
using namespace hostkernel::detail;

// ------------------------------------------------------------------ DPCs
void KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext)
{
    Engine &e = engine();
    std::lock_guard<std::mutex> lock(e.mutex);
    if (e.queuedDpcs.count(ULONG_PTR(Dpc)) != 0) {
        violation(Rule::DpcFreedWhileQueued, "KeInitializeDpc on DPC " + hex(ULONG_PTR(Dpc)) + " while it is queued");
    }
    Dpc->Type = kDpcObjectType;
    Dpc->Importance = MediumImportance;
    Dpc->Number = 0;
    InitializeListHead(&Dpc->DpcListEntry);
    Dpc->DeferredRoutine = DeferredRoutine;
    Dpc->DeferredContext = DeferredContext;
    Dpc->SystemArgument1 = nullptr;
    Dpc->SystemArgument2 = nullptr;
    Dpc->DpcData = nullptr;
}

BOOLEAN KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2)
{
    Engine &e = engine();
    std::lock_guard<std::mutex> lock(e.mutex);
    return e.insertDpcLocked(Dpc, SystemArgument1, SystemArgument2);
}

BOOLEAN KeRemoveQueueDpc(PRKDPC Dpc)
{
    Engine &e = engine();
    std::lock_guard<std::mutex> lock(e.mutex);
    return e.removeDpcLocked(Dpc);
}

void KeSetImportanceDpc(PRKDPC Dpc, KDPC_IMPORTANCE Importance)
{
    Dpc->Importance = UCHAR(Importance);
}

void KeFlushQueuedDpcs(void)
{
    requirePassive("KeFlushQueuedDpcs");
    Engine &e = engine();
    std::unique_lock<std::mutex> lock(e.mutex);
    std::uint64_t last = e.nextSequence - 1;
    ++e.flushWaiters;
    e.idleCv.wait(lock, [&] { return !e.busyUpTo(last); });
    --e.flushWaiters;
}

// ------------------------------------------------------------------ timers
void KeInitializeTimer(PKTIMER Timer)
{
    initializeTimer(Timer, NotificationTimer);
}

void KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type)
{
    initializeTimer(Timer, Type);
}

BOOLEAN KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc)
{
    requireIrqlAtMost(DISPATCH_LEVEL, "KeSetTimer");
    recordArming(Timer, DueTime.QuadPart, Period);
    Engine &e = engine();
    std::lock_guard<std::mutex> lock(e.mutex);
    BOOLEAN wasQueued = e.removeTimerLocked(Timer);
    {
        std::lock_guard<std::mutex> dispatcher(gDispatcherMutex);
        Timer->Header.SignalState = 0;
    }
    Timer->Dpc = Dpc;
    Timer->Period = Period > 0 ? ULONG(Period) : 0;
    e.insertTimerLocked(Timer, dueTimeFrom(DueTime.QuadPart));
    return wasQueued;
}

BOOLEAN KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc)
{
    return KeSetTimerEx(Timer, DueTime, 0, Dpc);
}

BOOLEAN KeCancelTimer(PKTIMER Timer)
{
    requireIrqlAtMost(DISPATCH_LEVEL, "KeCancelTimer");
    Engine &e = engine();
    std::lock_guard<std::mutex> lock(e.mutex);
    return e.removeTimerLocked(Timer);
}

BOOLEAN KeReadStateTimer(PKTIMER Timer)
{
    std::lock_guard<std::mutex> lock(gDispatcherMutex);
    return Timer->Header.SignalState != 0;
}

// ------------------------------------------------------------------ events
void KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State)
{
    std::lock_guard<std::mutex> lock(gDispatcherMutex);
    Event->Header.Type = Type == SynchronizationEvent ? HK_EVENT_SYNCHRONIZATION_OBJECT : HK_EVENT_NOTIFICATION_OBJECT;
    Event->Header.Size = sizeof(KEVENT) / sizeof(LONG);
    Event->Header.Inserted = 0;
    Event->Header.SignalState = State ? 1 : 0;
    InitializeListHead(&Event->Header.WaitListHead);
}

LONG KeSetEvent(PRKEVENT Event, LONG Increment, BOOLEAN Wait)
{
    (void)Increment;
    (void)Wait;
    requireIrqlAtMost(DISPATCH_LEVEL, "KeSetEvent");
    std::lock_guard<std::mutex> lock(gDispatcherMutex);
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 1;
    gDispatcherCv.notify_all();
    return previous;
}

void KeClearEvent(PRKEVENT Event)
{
    std::lock_guard<std::mutex> lock(gDispatcherMutex);
    Event->Header.SignalState = 0;
}

LONG KeResetEvent(PRKEVENT Event)
{
    requireIrqlAtMost(DISPATCH_LEVEL, "KeResetEvent");
    std::lock_guard<std::mutex> lock(gDispatcherMutex);
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 0;
    return previous;
}

LONG KeReadStateEvent(PRKEVENT Event)
{
    std::lock_guard<std::mutex> lock(gDispatcherMutex);
    return Event->Header.SignalState;
}

NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                               PLARGE_INTEGER Timeout)
{
    (void)WaitReason;
    (void)WaitMode;
    (void)Alertable;
    if (Timeout != nullptr && Timeout->QuadPart == 0) {
        requireIrqlAtMost(DISPATCH_LEVEL, "KeWaitForSingleObject (zero timeout)");
    } else {
        requireIrqlAtMost(APC_LEVEL, "KeWaitForSingleObject");
    }
    auto *header = static_cast<DISPATCHER_HEADER *>(Object);
    UCHAR type = header->Type;
    if (type != HK_EVENT_NOTIFICATION_OBJECT && type != HK_EVENT_SYNCHRONIZATION_OBJECT &&
        type != HK_TIMER_NOTIFICATION_OBJECT && type != HK_TIMER_SYNCHRONIZATION_OBJECT) {
        bugCheck(0xC9, ULONG_PTR(Object), 0, "KeWaitForSingleObject: not an event or timer");
    }
    std::unique_lock<std::mutex> lock(gDispatcherMutex);
    auto signalled = [header] { return header->SignalState > 0; };
    if (Timeout == nullptr) {
        gDispatcherCv.wait(lock, signalled);
    } else if (!gDispatcherCv.wait_until(lock, dueTimeFrom(Timeout->QuadPart), signalled)) {
        return STATUS_TIMEOUT;
    }
    if (type == HK_EVENT_SYNCHRONIZATION_OBJECT || type == HK_TIMER_SYNCHRONIZATION_OBJECT) {
        header->SignalState = 0; // satisfying the wait consumes the signal
    }
    return STATUS_SUCCESS;
}

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval)
{
    (void)WaitMode;
    (void)Alertable;
    requireIrqlAtMost(APC_LEVEL, "KeDelayExecutionThread");
    if (Interval != nullptr) {
        std::this_thread::sleep_until(dueTimeFrom(Interval->QuadPart));
    }
    return STATUS_SUCCESS;
}

namespace hostkernel {

TimerArmingLog::TimerArmingLog()
{
    std::lock_guard<std::mutex> lock(detail::gArmingMutex);
    if (detail::gArmingLogOn.exchange(true)) {
        throw std::logic_error("a second TimerArmingLog while one lives");
    }
    detail::gArmings.clear();
}

TimerArmingLog::~TimerArmingLog()
{
    std::lock_guard<std::mutex> lock(detail::gArmingMutex);
    detail::gArmingLogOn = false;
    detail::gArmings.clear();
}

std::vector<TimerArming> TimerArmingLog::armings() const
{
    std::lock_guard<std::mutex> lock(detail::gArmingMutex);
    return detail::gArmings;
}

} // namespace hostkernel
