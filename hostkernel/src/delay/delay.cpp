// Synchronization delay injection (hostkernel/delay.h).
#include "hostkernel/delay.h"

#include <sched.h>

#include <chrono>
#include <mutex>
#include <thread>

namespace hostkernel {

namespace detail {
std::atomic<bool> delayInjectionOn{false};
} // namespace detail

namespace {

struct State {
    std::mutex mutex;
    DelaySettings settings;
    // Bumped by every enable, so a thread's generator from an earlier run is
    // reseeded rather than continuing where it stopped.
    std::atomic<uint64_t> generation{0};
    std::atomic<uint64_t> threadsSeen{0};
    std::atomic<uint64_t> visits[kDelayPointCount];
    std::atomic<uint64_t> pauses[kDelayPointCount];
    // Probability as a threshold on a 32-bit draw: no floating point per visit.
    std::atomic<uint32_t> threshold{0};
    std::atomic<uint32_t> maxMicroseconds{0};
};

State &state()
{
    static State s;
    return s;
}

uint64_t splitmix(uint64_t &x)
{
    uint64_t z = (x += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

struct ThreadRng {
    uint64_t generation = ~0ull;
    uint64_t x = 0;
};
thread_local ThreadRng rng;

} // namespace

const char *delayPointName(DelayPoint point)
{
    switch (point) {
    case DelayPoint::SpinLockAcquire: return "spin-lock acquire";
    case DelayPoint::SpinLockRelease: return "spin-lock release";
    case DelayPoint::IrpCompletion: return "IRP completion";
    case DelayPoint::DpcDelivery: return "DPC delivery";
    }
    return "?";
}

void DelayInjection::enable(const DelaySettings &settings)
{
    State &s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.settings = settings;
    double p = settings.probability < 0 ? 0 : settings.probability > 1 ? 1 : settings.probability;
    s.threshold.store(uint32_t(p * 4294967295.0), std::memory_order_relaxed);
    s.maxMicroseconds.store(settings.maxDelayMicroseconds, std::memory_order_relaxed);
    for (int i = 0; i < kDelayPointCount; i++) {
        s.visits[i].store(0, std::memory_order_relaxed);
        s.pauses[i].store(0, std::memory_order_relaxed);
    }
    s.threadsSeen.store(0, std::memory_order_relaxed);
    s.generation.fetch_add(1, std::memory_order_release);
    detail::delayInjectionOn.store(true, std::memory_order_release);
}

void DelayInjection::disable()
{
    detail::delayInjectionOn.store(false, std::memory_order_release);
}

bool DelayInjection::enabled()
{
    return detail::delayInjectionOn.load(std::memory_order_acquire);
}

uint64_t DelayInjection::visits(DelayPoint point)
{
    return state().visits[int(point)].load(std::memory_order_relaxed);
}

uint64_t DelayInjection::pauses(DelayPoint point)
{
    return state().pauses[int(point)].load(std::memory_order_relaxed);
}

void detail::injectDelay(DelayPoint point)
{
    State &s = state();
    s.visits[int(point)].fetch_add(1, std::memory_order_relaxed);
    uint64_t generation = s.generation.load(std::memory_order_acquire);
    if (rng.generation != generation) {
        uint64_t seed;
        {
            std::lock_guard<std::mutex> guard(s.mutex);
            seed = s.settings.seed;
        }
        rng.generation = generation;
        rng.x = seed ^ (s.threadsSeen.fetch_add(1, std::memory_order_relaxed) * 0xD1B54A32D192ED03ull);
    }
    uint64_t draw = splitmix(rng.x);
    if (uint32_t(draw) > s.threshold.load(std::memory_order_relaxed)) {
        return;
    }
    s.pauses[int(point)].fetch_add(1, std::memory_order_relaxed);
    uint32_t maxUs = s.maxMicroseconds.load(std::memory_order_relaxed);
    uint32_t kind = uint32_t(draw >> 32);
    if (maxUs == 0 || kind % 3 == 0) {
        // Giving up the processor is the shortest pause that still lets
        // another thread run in the window.
        sched_yield();
        return;
    }
    // A sleeping holder of a spin lock is not what Windows allows, but the
    // window it opens is the one a preempted hypervisor vCPU opens.
    std::this_thread::sleep_for(std::chrono::microseconds(1 + (kind >> 2) % maxUs));
}

} // namespace hostkernel
