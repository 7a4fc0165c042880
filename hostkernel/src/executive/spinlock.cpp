// Spin locks with real mutual exclusion, and the verifier's view of them.
//
// A KSPIN_LOCK stays one pointer-sized word, as drivers lay it out: 0 when
// free, the owning thread's token while held. Acquisition spins on the word
// with atomics and yields the processor after a short while, because the host
// may have fewer cores than threads (and ThreadSanitizer slows every spin).
//
// Beside the word the verifier keeps, per thread, the locks held with the
// IRQL each acquisition saved, and, globally, every "A held while B acquired"
// order seen so far. An acquisition whose order closes a cycle in that graph
// is reported even when no deadlock happened this time: two threads taking
// the same locks in opposite orders will deadlock some day. Locks are known
// by address only; re-initialising an address forgets its history, because
// pool memory that held one lock is later reused for another.
#include <sched.h>

#include <atomic>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "hk/ke.h"
#include "hostkernel/delay.h"
#include "internal.h"

namespace {

using hostkernel::Rule;
using hostkernel::reportViolation;
using hostkernel::detail::callerSite;
using hostkernel::detail::hexAddress;

struct Held {
    PKSPIN_LOCK lock;
    KIRQL savedIrql; // what the release must restore
    const void *site;
};

thread_local std::vector<Held> heldLocks;
// Its address identifies the thread in the word of a lock it holds.
thread_local char threadToken;
std::atomic<long> heldEverywhere{0};

KSPIN_LOCK cancelSpinLock = 0;

ULONG_PTR myToken()
{
    return reinterpret_cast<ULONG_PTR>(&threadToken);
}

std::string lockName(const void *lock)
{
    if (lock == &cancelSpinLock) {
        return "the cancel spin lock (" + hexAddress(lock) + ")";
    }
    return "spin lock " + hexAddress(lock);
}

// ------------------------------------------------------------------ order graph
struct OrderGraph {
    std::mutex mutex;
    // successors[a][b]: where b was first acquired while a was held.
    std::unordered_map<ULONG_PTR, std::unordered_map<ULONG_PTR, const void *>> successors;
    std::unordered_map<ULONG_PTR, std::unordered_set<ULONG_PTR>> predecessors;
    // Bumped whenever edges disappear, so threads drop their caches.
    std::atomic<uint64_t> generation{1};
};

OrderGraph &graph()
{
    static OrderGraph *g = new OrderGraph; // outlives threads still running at exit
    return *g;
}

struct PairHash {
    size_t operator()(const std::pair<ULONG_PTR, ULONG_PTR> &p) const
    {
        return std::hash<ULONG_PTR>()(p.first * 31 + p.second);
    }
};

// Orders this thread has already put in the graph: the common case, taking
// the same two locks in the same order again, costs no global lock.
struct KnownOrders {
    uint64_t generation = 0;
    std::unordered_set<std::pair<ULONG_PTR, ULONG_PTR>, PairHash> edges;
};
thread_local KnownOrders knownOrders;

// A path from `from` to `to` (graph mutex held); empty if there is none.
std::vector<ULONG_PTR> findPath(OrderGraph &g, ULONG_PTR from, ULONG_PTR to)
{
    std::unordered_map<ULONG_PTR, ULONG_PTR> cameFrom{{from, from}};
    std::vector<ULONG_PTR> stack{from};
    while (!stack.empty()) {
        ULONG_PTR node = stack.back();
        stack.pop_back();
        if (node == to) {
            std::vector<ULONG_PTR> path{to};
            while (path.back() != from) {
                path.push_back(cameFrom[path.back()]);
            }
            return std::vector<ULONG_PTR>(path.rbegin(), path.rend());
        }
        auto it = g.successors.find(node);
        if (it == g.successors.end()) {
            continue;
        }
        for (auto &edge : it->second) {
            if (cameFrom.emplace(edge.first, node).second) {
                stack.push_back(edge.first);
            }
        }
    }
    return {};
}

void recordOrder(PKSPIN_LOCK lock, const void *site)
{
    if (heldLocks.empty()) {
        return;
    }
    OrderGraph &g = graph();
    uint64_t generation = g.generation.load(std::memory_order_acquire);
    if (knownOrders.generation != generation) {
        knownOrders.edges.clear();
        knownOrders.generation = generation;
    }
    auto acquired = reinterpret_cast<ULONG_PTR>(lock);
    for (const Held &held : heldLocks) {
        auto before = reinterpret_cast<ULONG_PTR>(held.lock);
        if (knownOrders.edges.count({before, acquired}) != 0) {
            continue;
        }
        std::string cycle;
        {
            std::lock_guard<std::mutex> guard(g.mutex);
            auto &edges = g.successors[before];
            if (edges.count(acquired) == 0) {
                std::vector<ULONG_PTR> path = findPath(g, acquired, before);
                if (path.empty()) {
                    edges.emplace(acquired, site);
                    g.predecessors[acquired].insert(before);
                } else {
                    cycle = lockName(lock) + " acquired" + callerSite(site) + " while holding " +
                            lockName(held.lock) + " (acquired" + callerSite(held.site) +
                            "), but the opposite order was seen before:";
                    for (size_t i = 0; i + 1 < path.size(); i++) {
                        cycle += " " + lockName(reinterpret_cast<void *>(path[i])) + " then " +
                                 lockName(reinterpret_cast<void *>(path[i + 1])) + " (acquired" +
                                 callerSite(g.successors[path[i]][path[i + 1]]) + ");";
                    }
                }
            }
        }
        if (!cycle.empty()) {
            reportViolation(Rule::SpinLockOrder, cycle);
        }
        knownOrders.edges.insert({before, acquired});
    }
}

void forgetOrders(ULONG_PTR lock)
{
    OrderGraph &g = graph();
    std::lock_guard<std::mutex> guard(g.mutex);
    bool changed = false;
    if (auto out = g.successors.find(lock); out != g.successors.end()) {
        for (auto &edge : out->second) {
            g.predecessors[edge.first].erase(lock);
        }
        g.successors.erase(out);
        changed = true;
    }
    if (auto in = g.predecessors.find(lock); in != g.predecessors.end()) {
        for (ULONG_PTR before : in->second) {
            g.successors[before].erase(lock);
        }
        g.predecessors.erase(in);
        changed = true;
    }
    if (changed) {
        g.generation.fetch_add(1, std::memory_order_acq_rel);
    }
}

// ------------------------------------------------------------------ acquire and release
void spinAcquire(PKSPIN_LOCK lock)
{
    ULONG_PTR token = myToken();
    for (unsigned spins = 0;; spins++) {
        ULONG_PTR expected = 0;
        if (__atomic_load_n(lock, __ATOMIC_RELAXED) == 0 &&
            __atomic_compare_exchange_n(lock, &expected, token, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
            return;
        }
        if (spins < 64) {
            __builtin_ia32_pause();
        } else {
            sched_yield();
        }
    }
}

void acquire(PKSPIN_LOCK lock, KIRQL savedIrql, const char *routine, const void *site)
{
    if (__atomic_load_n(lock, __ATOMIC_RELAXED) == myToken()) {
        reportViolation(Rule::SpinLockRecursion, std::string(routine) + " of " + lockName(lock) +
                                                     callerSite(site) +
                                                     ": the thread already holds it, so it would spin forever");
    }
    // Checked before spinning: an order that can deadlock is reported
    // instead of hanging on the day it does deadlock.
    recordOrder(lock, site);
    hostkernel::detail::delayPoint(hostkernel::DelayPoint::SpinLockAcquire);
    spinAcquire(lock);
    heldLocks.push_back({lock, savedIrql, site});
    heldEverywhere.fetch_add(1, std::memory_order_relaxed);
}

// Takes the lock out of this thread's list and frees the word; returns the
// IRQL its acquisition saved.
KIRQL release(PKSPIN_LOCK lock, const char *routine, const void *site)
{
    ULONG_PTR owner = __atomic_load_n(lock, __ATOMIC_RELAXED);
    size_t index = heldLocks.size();
    for (size_t i = heldLocks.size(); i-- > 0;) {
        if (heldLocks[i].lock == lock) {
            index = i;
            break;
        }
    }
    if (owner != myToken() || index == heldLocks.size()) {
        reportViolation(Rule::SpinLockNotHeld, std::string(routine) + " of " + lockName(lock) + callerSite(site) +
                                                   ": " +
                                                   (owner == 0 ? "the lock is not held" : "another thread holds it"));
    }
    KIRQL saved = heldLocks[index].savedIrql;
    heldLocks.erase(heldLocks.begin() + ptrdiff_t(index));
    heldEverywhere.fetch_sub(1, std::memory_order_relaxed);
    hostkernel::detail::delayPoint(hostkernel::DelayPoint::SpinLockRelease);
    __atomic_store_n(lock, ULONG_PTR(0), __ATOMIC_RELEASE);
    return saved;
}

void requireLevel(KIRQL wanted, const char *routine, const void *site)
{
    KIRQL irql = KeGetCurrentIrql();
    if (irql != wanted) {
        reportViolation(irql < wanted ? Rule::IrqlTooLow : Rule::IrqlTooHigh,
                        std::string(routine) + " called at IRQL " + std::to_string(irql) + " (needs " +
                            std::to_string(wanted) + ")" + callerSite(site));
    }
}

KIRQL acquireRaisingToDpc(PKSPIN_LOCK lock, const char *routine, const void *site)
{
    KIRQL old = KeGetCurrentIrql();
    if (old > DISPATCH_LEVEL) {
        reportViolation(Rule::IrqlTooHigh, std::string(routine) + " called at IRQL " + std::to_string(old) +
                                               " (allowed up to 2)" + callerSite(site));
    }
    hostkernel::detail::setCurrentIrqlUnchecked(DISPATCH_LEVEL);
    acquire(lock, old, routine, site);
    return old;
}

void releaseLowering(PKSPIN_LOCK lock, KIRQL newIrql, const char *routine, const void *site)
{
    // Below DISPATCH_LEVEL the holder could have been preempted by a thread
    // spinning on the lock forever: the level must still be raised here.
    requireLevel(DISPATCH_LEVEL, routine, site);
    KIRQL saved = release(lock, routine, site);
    if (newIrql != saved) {
        reportViolation(Rule::IrqlNotRestored, std::string(routine) + " of " + lockName(lock) + callerSite(site) +
                                                   " restores IRQL " + std::to_string(newIrql) +
                                                   ", but its acquisition saved IRQL " + std::to_string(saved));
    }
    if (newIrql < DISPATCH_LEVEL && !heldLocks.empty()) {
        reportViolation(Rule::IrqlNotRestored, std::string(routine) + " of " + lockName(lock) + callerSite(site) +
                                                   " lowers to IRQL " + std::to_string(newIrql) +
                                                   " while the thread still holds " +
                                                   lockName(heldLocks.back().lock));
    }
    hostkernel::detail::setCurrentIrqlUnchecked(newIrql);
}

} // namespace

namespace hostkernel {

void resetLockOrderHistory()
{
    OrderGraph &g = graph();
    std::lock_guard<std::mutex> guard(g.mutex);
    g.successors.clear();
    g.predecessors.clear();
    g.generation.fetch_add(1, std::memory_order_acq_rel);
}

namespace detail {

size_t heldSpinLockCount()
{
    long everywhere = heldEverywhere.load(std::memory_order_relaxed);
    return size_t(everywhere > 0 ? everywhere : 0);
}

bool thisThreadHoldsSpinLocks()
{
    return !heldLocks.empty();
}

std::string heldSpinLockDescription()
{
    std::string text;
    for (const Held &held : heldLocks) {
        text += (text.empty() ? "" : ", ") + lockName(held.lock) + " (acquired" + callerSite(held.site) + ")";
    }
    size_t total = heldSpinLockCount();
    if (total > heldLocks.size()) {
        text += (text.empty() ? "" : ", ") + std::to_string(total - heldLocks.size()) + " held by other threads";
    }
    return text;
}

void forgetHeldSpinLocks()
{
    heldEverywhere.fetch_sub(long(heldLocks.size()), std::memory_order_relaxed);
    heldLocks.clear();
}

} // namespace detail
} // namespace hostkernel

void KeInitializeSpinLock(PKSPIN_LOCK lock)
{
    forgetOrders(reinterpret_cast<ULONG_PTR>(lock));
    __atomic_store_n(lock, ULONG_PTR(0), __ATOMIC_RELEASE);
}

KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK lock)
{
    return acquireRaisingToDpc(lock, "KeAcquireSpinLockRaiseToDpc", __builtin_return_address(0));
}

void KeReleaseSpinLock(PKSPIN_LOCK lock, KIRQL newIrql)
{
    releaseLowering(lock, newIrql, "KeReleaseSpinLock", __builtin_return_address(0));
}

void KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK lock)
{
    const void *site = __builtin_return_address(0);
    requireLevel(DISPATCH_LEVEL, "KeAcquireSpinLockAtDpcLevel", site);
    acquire(lock, DISPATCH_LEVEL, "KeAcquireSpinLockAtDpcLevel", site);
}

void KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK lock)
{
    const void *site = __builtin_return_address(0);
    requireLevel(DISPATCH_LEVEL, "KeReleaseSpinLockFromDpcLevel", site);
    release(lock, "KeReleaseSpinLockFromDpcLevel", site);
}

void IoAcquireCancelSpinLock(PKIRQL irql)
{
    *irql = acquireRaisingToDpc(&cancelSpinLock, "IoAcquireCancelSpinLock", __builtin_return_address(0));
}

void IoReleaseCancelSpinLock(KIRQL irql)
{
    releaseLowering(&cancelSpinLock, irql, "IoReleaseCancelSpinLock", __builtin_return_address(0));
}
