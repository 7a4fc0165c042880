// The MIDI-client side of the mount: a port's "out" file is a render pin on
// the port's filter, its "in" file a capture pin, both opened as the Linux
// process that opened the file, so the driver records that process's pid.
#pragma once

#include <fuse_lowlevel.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <hostkernel/io.h>

#include "ports.h"

namespace ambreld {

class PinFile {
public:
    virtual ~PinFile() = default;

    // render: a pin that plays into the port; otherwise one that records
    // from it. The first render pin kind that still has room is used.
    static NTSTATUS open(std::shared_ptr<hostkernel::Process> process, const PortView &port, bool render,
                         std::unique_ptr<PinFile> *pin);

    // Render pins: any byte stream; the driver cuts it into messages.
    virtual NTSTATUS write(const std::uint8_t *data, std::size_t length) = 0;
    // Capture pins: whole messages (EMSGSIZE when the next one does not fit).
    virtual void read(fuse_req_t req, std::size_t size, bool nonBlocking) = 0;
    virtual unsigned poll(fuse_pollhandle *ph) = 0;
    // Closes the pin (and the filter under it) in the host kernel.
    virtual void close() = 0;
};

// Pin creation fails with the framework's statuses; a pin kind that is full
// reads as EBUSY.
int errnoFromPinStatus(NTSTATUS status);

// "pin N: ...", "caps node N: ...", "manufacturer: ..." lines: what a MIDI
// client learns from the port's filter, asked as `process`.
std::string describeFilter(hostkernel::Process &process, const PortView &port);

} // namespace ambreld
