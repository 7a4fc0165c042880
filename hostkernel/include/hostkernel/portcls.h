// The test side of the host's portcls: what the framework holds (objects,
// events of the DMus allocator, sub-devices, filters, pins), the settings a
// test may change, and the end-of-test check. Never included by driver
// sources.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "../amplatform.h"

namespace hostkernel {

struct PortclsStats {
    size_t liveObjects = 0;         // framework COM objects with references left
    size_t outstandingEvents = 0;   // DMUS_KERNEL_EVENTs handed out and not yet returned
    size_t outstandingBuffers = 0;  // large buffers handed out and not yet returned
    size_t registeredSubdevices = 0;
    size_t openFilters = 0;
    size_t openPins = 0;
    // MaxObjects of each adapter device PcAddAdapterDevice made and that is
    // not yet removed: the sub-devices its driver announced.
    std::vector<ULONG> adapterMaxObjects;
};
PortclsStats portclsStats();
// "<kind> (<references>)" for every live framework object.
std::vector<std::string> portclsLiveObjects();

// The large-buffer size of the event allocators of ports made from now on
// (240 unless a test says otherwise; 0 is allowed, to test a miniport's
// handling of it).
void setDmusLargeBufferSize(USHORT bytes);
// GetMessage fails while this many events are outstanding in total (0: no
// limit), as a pool that runs dry would.
void setDmusEventLimit(size_t events);
// Bytes a capture pin keeps for a reader that does not read; what arrives
// beyond is dropped and logged ("portcls: capture pin dropped %u bytes").
void setCaptureQueueLimit(size_t bytes);
// The next PcNewServiceGroup call answers `status` and hands out no group:
// a failure when `status` is an error, or (with a success status) the broken
// framework a miniport must still survive. One call only; a reset disarms it.
void failNextServiceGroup(NTSTATUS status);

// The framework's part of the end-of-test check: no framework object with
// references left (ObjectReferenceLeak), no event or large buffer never
// given back to its allocator (ObjectReferenceLeak). Reports the first
// problem as a violation.
void verifyPortclsQuiescent();
// Default settings again, and the memory of released objects returned. Only
// between tests, with nothing live.
void resetPortclsState();

} // namespace hostkernel
