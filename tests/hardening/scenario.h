// One whole life of the driver as the hardening tests drive it: boot, an
// application's port, a player and a recorder on it, a note each way, the
// owner's process-id query, every handle closed, the adapter removed and the
// driver unloaded. Each step reports its status; a step that fails stops the
// story and the rest is torn down the way a system would (handles closed by
// process exit, the adapter removed, the driver unloaded).
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <hostkernel/executive.h>
#include <hostkernel/io.h>
#include <hostkernel/midiclient.h>
#include <hostkernel/pnp.h>
#include <hostkernel/registry.h>

#include "adapter/amadapter.h"
#include "ambrel_host.h"
#include "driver_build.h"

namespace hardening {

namespace hk = hostkernel;
namespace midi = hostkernel::midi;
using Bytes = std::vector<std::uint8_t>;

inline const GUID kMidiSubFormat = {0x1D262760, 0xE957, 0x11CF, {0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00}};
inline constexpr ACCESS_MASK kReadWrite = FILE_GENERIC_READ | FILE_GENERIC_WRITE;

enum class Step {
    Load,
    AddAdapter,
    Start,
    OpenPort,
    OpenFilters,
    OpenRenderPin,
    OpenCapturePin,
    Play,
    Record,
    QueryIds,
    Close,
    Remove,
    Unload,
    Done,
};
const char *stepName(Step step);

struct Outcome {
    Step failedAt = Step::Done; // Done: every step succeeded
    NTSTATUS status = STATUS_SUCCESS;
    // Problems a step saw besides its status: data torn or lost, a status
    // that no table allows.
    std::vector<std::string> problems;
};

// Runs the whole story once. `recordWait` bounds how long the recorder waits
// for a write the driver accepted.
Outcome runScenario(std::chrono::milliseconds recordWait = std::chrono::milliseconds(2000));

} // namespace hardening
