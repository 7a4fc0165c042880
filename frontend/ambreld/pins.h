// The MIDI-client side of the mount: a port's "out" file is a render pin on
// the port's filter, its "in" file a capture pin, both opened as the Linux
// process that opened the file, so the driver records that process's pid.
#pragma once

#include <fuse_lowlevel.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <functional>
#include <string>

#include <hostkernel/io.h>
#include <hostkernel/midiclient.h>

#include "portlink.h"
#include "ports.h"

namespace ambreld {

class PinFile {
public:
    virtual ~PinFile() = default;

    // render: a pin that plays into the port; otherwise one that records
    // from it. The first render pin kind that still has room is used.
    // `link` is the port's, as its owner's file holds it.
    static NTSTATUS open(std::shared_ptr<hostkernel::Process> process, const PortView &port,
                         std::shared_ptr<PortLink> link, bool render, std::unique_ptr<PinFile> *pin);

    // Each of these answers `req` itself, at once or later.
    // Render pins take any byte stream and hand it to the driver as whole
    // messages, no faster than the port's FIFO takes them: a write is
    // answered once its bytes are in the driver (non-blocking: EAGAIN while
    // earlier bytes still wait). Bytes the driver would drop are refused:
    // EBADMSG for stray data and cut messages, EMSGSIZE for a SysEx longer
    // than the port carries (after a short write of what came before). A
    // withdrawn port answers ESHUTDOWN (ENODEV while ambreld stops).
    virtual void write(fuse_req_t req, const std::uint8_t *data, std::size_t length, bool nonBlocking) = 0;
    // close() and fsync(): waits until every accepted byte is in the driver;
    // ETIMEDOUT (and the bytes dropped) when the port takes none for
    // kDrainPatience, EBADMSG when a message is begun and not complete.
    virtual void flush(fuse_req_t req) = 0;
    // Capture pins: whole messages (EMSGSIZE when the next one does not fit).
    virtual void read(fuse_req_t req, std::size_t size, bool nonBlocking) = 0;
    virtual unsigned poll(fuse_pollhandle *ph) = 0;
    // Messages a render pin holds for the driver (0 for capture pins).
    virtual std::size_t backlog() { return 0; }
    // Closes the pin (and the filter under it) in the host kernel; a render
    // pin first hands on what it still holds, with the same patience.
    virtual void close() = 0;
};

// How long a render pin waits at flush or close for a port that takes none
// of its bytes (a port whose owner reads, however slowly, is waited for).
extern const std::chrono::milliseconds kDrainPatience;

// A running pin on the port's filter, opened as `process`: render (the
// first render kind with room) or capture. The filter stays open under it.
NTSTATUS openPortPin(hostkernel::Process &process, const PortView &port, bool render,
                     std::unique_ptr<hostkernel::midi::Filter> *filter, std::unique_ptr<hostkernel::midi::Pin> *pin);
// Closes what openPortPin opened (either may be empty), the pin first.
void closePortPin(std::unique_ptr<hostkernel::midi::Filter> *filter, std::unique_ptr<hostkernel::midi::Pin> *pin);

// The records of one capture read's header: bytes and the driver's time of
// each (100-ns units).
using CaptureRecordSink = std::function<void(const std::uint8_t *bytes, std::size_t length, LONGLONG time)>;
void forEachCaptureRecord(const KSSTREAM_HEADER &header, const std::uint8_t *data, const CaptureRecordSink &sink);

// Pin creation fails with the framework's statuses; a pin kind that is full
// reads as EBUSY.
int errnoFromPinStatus(NTSTATUS status);

// "pin N: ...", "caps node N: ...", "manufacturer: ..." lines: what a MIDI
// client learns from the port's filter, asked as `process`.
std::string describeFilter(hostkernel::Process &process, const PortView &port);

} // namespace ambreld
