// Synchronization delay injection: seeded random pauses at the points where
// the kernel hands control between processors (spin-lock acquire and release,
// IRP completion, DPC delivery). Stretching those windows makes races that a
// real machine hits once a week show up in a test run of seconds. Off, each
// point costs one predictable branch on a relaxed atomic load.
// Never included by driver sources.
#pragma once

#include <atomic>
#include <cstdint>

namespace hostkernel {

enum class DelayPoint {
    SpinLockAcquire, // before the acquiring thread starts to spin
    SpinLockRelease, // while the lock is still held, just before it is freed
    IrpCompletion,   // on entry to IoCompleteRequest
    DpcDelivery,     // before a DPC's routine runs
};
inline constexpr int kDelayPointCount = 4;
const char *delayPointName(DelayPoint point);

struct DelaySettings {
    uint64_t seed = 1;
    // Chance that one visit of a point pauses, 0..1.
    double probability = 0.05;
    // Upper bound of one pause; a third of the pauses only yield the processor.
    uint32_t maxDelayMicroseconds = 200;
};

class DelayInjection {
public:
    // Threads draw from their own generator, seeded from `seed` and the order
    // in which they first reach a point, so a seed gives the same
    // distribution of pauses (not the same interleaving: the scheduler still
    // decides that).
    static void enable(const DelaySettings &settings);
    static void disable();
    static bool enabled();
    // Visits and pauses per point since the last enable.
    static uint64_t visits(DelayPoint point);
    static uint64_t pauses(DelayPoint point);
};

// Enabled for the life of a scope (a test's stress phase).
class DelayInjectionScope {
public:
    explicit DelayInjectionScope(const DelaySettings &settings) { DelayInjection::enable(settings); }
    ~DelayInjectionScope() { DelayInjection::disable(); }
    DelayInjectionScope(const DelayInjectionScope &) = delete;
    DelayInjectionScope &operator=(const DelayInjectionScope &) = delete;
};

namespace detail {
extern std::atomic<bool> delayInjectionOn;
void injectDelay(DelayPoint point);
// The hook the kernel calls at each point.
inline void delayPoint(DelayPoint point)
{
    if (__builtin_expect(delayInjectionOn.load(std::memory_order_relaxed), 0)) {
        injectDelay(point);
    }
}
} // namespace detail

} // namespace hostkernel
