// A MIDI graph of the machine (JACK today; an ALSA sequencer could follow)
// in which every Ambrel port appears while it exists. The daemon tells the
// graph of each port its owner opens; the graph hears the port go through
// its link. What the graph plays into a port goes through a render pin of
// ambreld's own, what the owner writes comes from a capture pin: the graph
// is a MIDI client of the driver like any other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include <hostkernel/io.h>

#include "portlink.h"
#include "ports.h"

namespace ambreld {

class MidiGraph {
public:
    virtual ~MidiGraph() = default;
    // A port its owner has just opened (the link is the owner's).
    virtual void portAdded(const PortView &port, std::shared_ptr<PortLink> link) = 0;
    // "key: value" lines for the port's info file ("" when the graph does
    // not show the port). `owner` is the link of the port's owner now: a
    // slot's earlier port may linger in the graph a moment after its close,
    // and its names are not the new port's.
    virtual std::string describe(const std::u16string &referenceString, const PortLink *owner) = 0;
    // Bytes still on their way to owners through the graph.
    virtual std::size_t inFlight() = 0;
    // Leaves the graph and closes every pin; said once, before the driver goes.
    virtual void stop() = 0;
};

struct JackSettings {
    std::string clientName = "ambrel";
    bool verbose = false; // JACK's own messages on stderr too
};

// The host process the graph's pins are opened as (ambreld's own).
using ProcessSource = std::function<std::shared_ptr<hostkernel::Process>()>;

// Starts following a JACK server: attaches when one runs, and again after
// it stopped or restarted.
std::unique_ptr<MidiGraph> startJackGraph(const JackSettings &settings, ProcessSource process);

// The JACK short name for a port's side: `name` (UTF-8) with the characters
// JACK cannot take in a port name (':' separates client and port, control
// characters) as '_', cut at a character boundary so that it and `suffix`
// (" in", " out") fit `limit` bytes, and made unique among `taken` with
// "~2", "~3", ... before the suffix.
std::string jackPortName(const std::string &name, const std::string &suffix, std::size_t limit,
                         const std::set<std::string> &taken);

// Where in a JACK period a captured event goes: events are placed one
// period after the frame they happened at, so a period's events keep their
// distances. `eventFrame` and `periodStart` are JACK frame times (they
// wrap); `floor` is the offset of the event placed before it in this
// period (order is kept). Returns the offset, or `frames` when the event
// belongs to a later period.
std::uint32_t captureOffset(std::uint32_t eventFrame, std::uint32_t periodStart, std::uint32_t frames,
                            std::uint32_t floor);

} // namespace ambreld
