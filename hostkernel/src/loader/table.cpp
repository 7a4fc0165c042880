// The table of mapped images by address range. The fault handler reads it
// without a lock (a signal may arrive at any time, in any thread), so each
// slot is a few atomics published in order: the range first, the state last.
#include <sys/mman.h>

#include <atomic>
#include <deque>
#include <mutex>

#include "internal.h"

namespace hostkernel::loader::detail {

namespace {

constexpr int kSlots = 64;
// Unloaded drivers whose ranges stay reserved, as Windows keeps a list of
// recently unloaded drivers to name a late call into one.
constexpr size_t kRetiredImages = 8;

struct Slot {
    std::atomic<std::uintptr_t> begin{0};
    std::atomic<std::uintptr_t> end{0};
    std::atomic<const Image *> image{nullptr};
    std::atomic<int> state{int(ImageState::Free)};
};

Slot gSlots[kSlots];
std::mutex gMutex; // registration and the retired list; never taken by the handler

std::deque<std::unique_ptr<Image>> &retired()
{
    static auto *list = new std::deque<std::unique_ptr<Image>>;
    return *list;
}

} // namespace

int registerImage(const Image *image)
{
    std::lock_guard<std::mutex> lock(gMutex);
    for (int i = 0; i < kSlots; i++) {
        Slot &slot = gSlots[i];
        if (slot.state.load(std::memory_order_relaxed) == int(ImageState::Free)) {
            slot.begin.store(image->base(), std::memory_order_relaxed);
            slot.end.store(image->base() + image->size(), std::memory_order_relaxed);
            slot.image.store(image, std::memory_order_relaxed);
            slot.state.store(int(ImageState::Loaded), std::memory_order_release);
            return i;
        }
    }
    return -1;
}

void markImageUnloaded(int slot)
{
    gSlots[slot].state.store(int(ImageState::Unloaded), std::memory_order_release);
}

void unregisterImage(int slot)
{
    std::lock_guard<std::mutex> lock(gMutex);
    gSlots[slot].state.store(int(ImageState::Free), std::memory_order_release);
    gSlots[slot].image.store(nullptr, std::memory_order_relaxed);
}

ImageHit imageAt(std::uintptr_t address)
{
    for (Slot &slot : gSlots) {
        int state = slot.state.load(std::memory_order_acquire);
        if (state != int(ImageState::Free) && address >= slot.begin.load(std::memory_order_relaxed) &&
            address < slot.end.load(std::memory_order_relaxed)) {
            return {slot.image.load(std::memory_order_relaxed), ImageState(state)};
        }
    }
    return {};
}

void retireImage(std::unique_ptr<Image> image)
{
    void *base = reinterpret_cast<void *>(image->base());
    mprotect(base, image->size(), PROT_NONE);
    madvise(base, image->size(), MADV_DONTNEED);
    markImageUnloaded(ImageBuilder::registration(*image));
    std::unique_ptr<Image> oldest;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        retired().push_back(std::move(image));
        if (retired().size() > kRetiredImages) {
            oldest = std::move(retired().front());
            retired().pop_front();
        }
    }
    // Unmapped outside the lock: the destructor unregisters under it.
}

} // namespace hostkernel::loader::detail

namespace hostkernel::loader {

std::string describeAddress(const void *address)
{
    detail::ImageHit hit = detail::imageAt(reinterpret_cast<std::uintptr_t>(address));
    if (hit.image == nullptr) {
        return {};
    }
    return hit.image->describe(address) + (hit.state == detail::ImageState::Unloaded ? " [unloaded]" : "");
}

} // namespace hostkernel::loader
