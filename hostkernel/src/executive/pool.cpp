// Executive pool on top of the C heap, with the accounting and fault
// injection that let tests drive every allocation failure and see every leak.
//
// Blocks come from malloc so that AddressSanitizer sees each one as its own
// heap block (overruns, use after free). What the pool knows about a block
// (tag, size, type, sequence number) lives in a side table keyed by address,
// never in a header in front of the block: a driver that frees a pointer the
// pool never handed out must get a verifier report, not a read of whatever
// precedes that pointer.
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "hk/ex.h"
#include "hk/ke.h"
#include "internal.h"

namespace {

using hostkernel::PoolTagStats;
using hostkernel::Rule;
using hostkernel::reportViolation;
using hostkernel::tagName;
using hostkernel::detail::callerSite;
using hostkernel::detail::hexAddress;

// Fresh pool is never zero on Windows; a pattern makes a driver that reads
// memory it did not initialise misbehave visibly (0xCDCD... is not a
// canonical address either, so a pointer read from it faults at once).
constexpr int kFreshFill = 0xCD;
constexpr int kFreedFill = 0xDD;
// Larger requests fail as an exhausted pool would, instead of letting a
// bogus size from a driver take the host's memory.
constexpr size_t kLargestAllocation = size_t(256) << 20;
// Freed addresses remembered to tell a double free from a stranger pointer.
constexpr size_t kFreedMemory = size_t(1) << 20;
constexpr ULONG kProtectedPoolBit = 0x80000000u;

struct Block {
    ULONG tag;
    size_t size;
    bool paged;
    uint64_t number; // attempt number of its allocation
    bool abandoned;  // leaked by a test that failed; no longer counted
};

struct Faults {
    bool numberArmed = false;
    uint64_t number = 0;
    bool windowArmed = false;
    uint64_t windowStart = 0;
    uint64_t windowEnd = 0;
    bool tagArmed = false;
    ULONG tag = 0;
    bool randomArmed = false;
    double probability = 0;
    std::mt19937_64 random;
};

struct Pool {
    std::mutex mutex;
    std::unordered_map<const void *, Block> live;
    std::unordered_set<const void *> freed;
    std::map<ULONG, PoolTagStats> stats;
    uint64_t attempts = 0;
    Faults faults;
};

Pool &pool()
{
    static Pool *p = new Pool; // outlives threads still running at exit
    return *p;
}

bool isPaged(POOL_TYPE type)
{
    return type == PagedPool || type == PagedPoolCacheAligned;
}

// Pool mutex held.
bool injectFault(Faults &f, uint64_t number, ULONG tag)
{
    bool fail = false;
    if (f.numberArmed && number == f.number) {
        f.numberArmed = false;
        fail = true;
    }
    if (f.windowArmed && number >= f.windowStart && number < f.windowEnd) {
        fail = true;
    }
    if (f.tagArmed && tag == f.tag) {
        fail = true;
    }
    if (f.randomArmed) {
        // One draw per attempt whatever the other faults say, so a seed
        // gives the same failures for the same sequence of allocations.
        double draw = std::uniform_real_distribution<double>(0.0, 1.0)(f.random);
        fail = fail || draw < f.probability;
    }
    return fail;
}

void checkIrql(bool paged, const char *routine, const void *site)
{
    KIRQL irql = KeGetCurrentIrql();
    KIRQL allowed = paged ? APC_LEVEL : DISPATCH_LEVEL;
    if (irql > allowed) {
        reportViolation(Rule::IrqlTooHigh, std::string(routine) + " of " + (paged ? "paged" : "non-paged") +
                                               " pool called at IRQL " + std::to_string(irql) +
                                               " (allowed up to " + std::to_string(allowed) + ")" +
                                               callerSite(site));
    }
}

PVOID allocate(POOL_TYPE type, SIZE_T bytes, ULONG tag, const char *routine, const void *site)
{
    bool paged = isPaged(type);
    checkIrql(paged, routine, site);
    Pool &p = pool();
    uint64_t number;
    bool fail;
    {
        std::lock_guard<std::mutex> lock(p.mutex);
        number = p.attempts++;
        fail = injectFault(p.faults, number, tag) || bytes > kLargestAllocation;
    }
    void *block = fail ? nullptr : std::malloc(bytes == 0 ? 1 : bytes);
    if (block != nullptr) {
        std::memset(block, kFreshFill, bytes);
    }
    std::lock_guard<std::mutex> lock(p.mutex);
    PoolTagStats &stats = p.stats[tag];
    if (block == nullptr) {
        stats.failedAllocations++;
        return nullptr;
    }
    p.live.emplace(block, Block{tag, bytes, paged, number, false});
    p.freed.erase(block);
    stats.liveAllocations++;
    stats.liveBytes += bytes;
    stats.totalAllocations++;
    return block;
}

void release(PVOID address, bool checkTag, ULONG tag, const char *routine, const void *site)
{
    Pool &p = pool();
    Block block;
    {
        std::unique_lock<std::mutex> lock(p.mutex);
        auto it = p.live.find(address);
        if (it == p.live.end()) {
            bool wasFreed = p.freed.count(address) != 0;
            lock.unlock();
            reportViolation(Rule::PoolDoubleFree, std::string(routine) + "(" + hexAddress(address) + ")" +
                                                      callerSite(site) + ": " +
                                                      (address == nullptr ? "a null pointer"
                                                       : wasFreed         ? "the block was already freed"
                                                                          : "not the start of a pool allocation"));
        }
        block = it->second;
        if (checkTag && (tag & ~kProtectedPoolBit) != (block.tag & ~kProtectedPoolBit)) {
            lock.unlock();
            reportViolation(Rule::PoolTagMismatch, std::string(routine) + "(" + hexAddress(address) + ", '" +
                                                       tagName(tag) + "')" + callerSite(site) +
                                                       ": the block was allocated with tag '" + tagName(block.tag) +
                                                       "'");
        }
    }
    checkIrql(block.paged, routine, site);
    // Timers and DPCs still queued inside the block would fire into freed
    // memory: the I/O manager looks before the memory goes.
    hostkernel::detail::checkFreedMemory(address, block.size);
    {
        std::lock_guard<std::mutex> lock(p.mutex);
        if (p.live.erase(address) == 0) {
            // Another thread freed it meanwhile: a double free after all.
            reportViolation(Rule::PoolDoubleFree, std::string(routine) + "(" + hexAddress(address) + ")" +
                                                      callerSite(site) + ": freed twice at the same time");
        }
        if (!block.abandoned) {
            PoolTagStats &stats = p.stats[block.tag];
            stats.liveAllocations--;
            stats.liveBytes -= block.size;
        }
        if (p.freed.size() >= kFreedMemory) {
            p.freed.clear();
        }
        p.freed.insert(address);
    }
    std::memset(address, kFreedFill, block.size);
    std::free(address);
}

} // namespace

// ------------------------------------------------------------------ kernel routines
PVOID ExAllocatePoolWithTag(POOL_TYPE poolType, SIZE_T numberOfBytes, ULONG tag)
{
    return allocate(poolType, numberOfBytes, tag, "ExAllocatePoolWithTag", __builtin_return_address(0));
}

PVOID ExAllocatePool(POOL_TYPE poolType, SIZE_T numberOfBytes)
{
    // Untagged allocations carry 'None', as Windows gives them.
    return allocate(poolType, numberOfBytes, hostkernel::tag("None"), "ExAllocatePool",
                    __builtin_return_address(0));
}

void ExFreePool(PVOID p)
{
    release(p, false, 0, "ExFreePool", __builtin_return_address(0));
}

void ExFreePoolWithTag(PVOID p, ULONG tag)
{
    release(p, true, tag, "ExFreePoolWithTag", __builtin_return_address(0));
}

// ------------------------------------------------------------------ host side
namespace hostkernel {

std::string tagName(ULONG tag)
{
    std::string name;
    for (int i = 0; i < 4; i++) {
        auto c = char((tag >> (8 * i)) & 0xFF);
        name += (c >= 0x20 && c < 0x7F) ? c : '.';
    }
    return name;
}

PoolTagStats poolStats(ULONG tag)
{
    Pool &p = pool();
    std::lock_guard<std::mutex> lock(p.mutex);
    auto it = p.stats.find(tag);
    return it == p.stats.end() ? PoolTagStats{} : it->second;
}

size_t poolLiveAllocations()
{
    Pool &p = pool();
    std::lock_guard<std::mutex> lock(p.mutex);
    size_t count = 0;
    for (auto &entry : p.stats) {
        count += entry.second.liveAllocations;
    }
    return count;
}

uint64_t poolAllocationAttempts()
{
    Pool &p = pool();
    std::lock_guard<std::mutex> lock(p.mutex);
    return p.attempts;
}

void failPoolAllocationNumber(uint64_t attemptNumber)
{
    Pool &p = pool();
    std::lock_guard<std::mutex> lock(p.mutex);
    p.faults.numberArmed = true;
    p.faults.number = attemptNumber;
}

void failNextPoolAllocations(uint64_t skip, uint64_t count)
{
    Pool &p = pool();
    std::lock_guard<std::mutex> lock(p.mutex);
    p.faults.windowArmed = true;
    p.faults.windowStart = p.attempts + skip;
    p.faults.windowEnd = p.attempts + skip + count;
}

void failPoolAllocationsOfTag(ULONG tag)
{
    Pool &p = pool();
    std::lock_guard<std::mutex> lock(p.mutex);
    p.faults.tagArmed = true;
    p.faults.tag = tag;
}

void failPoolAllocationsRandomly(double probability, uint64_t seed)
{
    Pool &p = pool();
    std::lock_guard<std::mutex> lock(p.mutex);
    p.faults.randomArmed = true;
    p.faults.probability = probability;
    p.faults.random.seed(seed);
}

void clearPoolFaults()
{
    Pool &p = pool();
    std::lock_guard<std::mutex> lock(p.mutex);
    p.faults = Faults{};
}

namespace detail {

std::string poolLeakReport()
{
    Pool &p = pool();
    std::lock_guard<std::mutex> lock(p.mutex);
    // By tag, oldest first within a tag, as a pool dump of the leaking
    // driver would read.
    std::map<ULONG, std::map<uint64_t, size_t>> byTag;
    size_t total = 0;
    for (auto &entry : p.live) {
        const Block &block = entry.second;
        if (!block.abandoned) {
            byTag[block.tag][block.number] = block.size;
            total++;
        }
    }
    if (total == 0) {
        return {};
    }
    std::string text = std::to_string(total) + " pool allocation(s) still live:";
    for (auto &[tag, blocks] : byTag) {
        size_t bytes = 0;
        for (auto &entry : blocks) {
            bytes += entry.second;
        }
        text += " tag '" + tagName(tag) + "' " + std::to_string(blocks.size()) + " block(s) " +
                std::to_string(bytes) + " bytes [";
        size_t shown = 0;
        for (auto &[number, size] : blocks) {
            if (shown == 8) {
                text += ", ...";
                break;
            }
            text += (shown++ > 0 ? ", " : "") + std::to_string(size) + " bytes from allocation #" +
                    std::to_string(number);
        }
        text += "];";
    }
    return text;
}

void abandonLivePool()
{
    Pool &p = pool();
    std::lock_guard<std::mutex> lock(p.mutex);
    for (auto &entry : p.live) {
        Block &block = entry.second;
        if (!block.abandoned) {
            block.abandoned = true;
            PoolTagStats &stats = p.stats[block.tag];
            stats.liveAllocations--;
            stats.liveBytes -= block.size;
        }
    }
}

} // namespace detail
} // namespace hostkernel
