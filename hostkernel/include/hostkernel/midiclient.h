// A MIDI client of the host kernel, as a Windows application reaches a
// kernel-streaming MIDI device: find the published ports through their
// device interfaces, open a filter, read its description and properties,
// open render and capture pins, run them, send and receive MIDI. Every call
// is a request through the I/O manager's caller API on behalf of one
// Process, so it passes the driver's dispatch routines as on Windows.
// Never included by driver sources.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "io.h"

namespace hostkernel::midi {

struct PortInfo {
    std::u16string name;            // the interface's "FriendlyName"
    std::u16string path;            // the audio interface's link: what Filter::open takes
    std::u16string referenceString; // the sub-device's name
    bool render = false;            // a render interface is published with it
    bool capture = false;           // a capture interface is published with it
};
// Enabled KSCATEGORY_AUDIO interfaces that carry a FriendlyName, in
// registration order.
std::vector<PortInfo> findPorts();
std::optional<PortInfo> findPort(std::u16string_view name);

struct Message {
    std::vector<std::uint8_t> bytes;
    LONGLONG time = 0;  // the port's master clock at the write, 100-ns units
    ULONG deltaMs = 0;  // the record's TimeDeltaMs
};

struct PinDescription {
    KSPIN_DATAFLOW dataFlow = KSPIN_DATAFLOW_IN;
    KSPIN_COMMUNICATION communication = KSPIN_COMMUNICATION_NONE;
    KSPIN_CINSTANCES instances{};
    GUID category{};
    std::vector<GUID> subFormats; // of its data ranges, in order
};

// A kernel-streaming object a client process has open: a filter or a pin.
// The handle is closed with the object unless close() came first.
class KsObject {
public:
    ~KsObject();
    KsObject(const KsObject &) = delete;
    KsObject &operator=(const KsObject &) = delete;
    NTSTATUS close();

    Process &process() const { return process_; }
    Handle handle() const { return handle_; }

    // One IOCTL_KS_PROPERTY: KSPROPERTY (KSP_NODE when a node is named)
    // followed by the instance bytes; the value buffer is the output.
    IoResult property(const GUID &set, ULONG id, ULONG verb, void *value, ULONG valueSize,
                      const void *instance = nullptr, ULONG instanceSize = 0,
                      std::optional<ULONG> node = std::nullopt);

protected:
    KsObject(Process &process, Handle handle) : process_(process), handle_(handle) {}

private:
    Process &process_;
    Handle handle_;
};

class Filter : public KsObject {
public:
    static NTSTATUS open(Process &process, std::u16string_view path, std::unique_ptr<Filter> *out);

    NTSTATUS pinCount(ULONG *count);
    NTSTATUS describePin(ULONG pinId, PinDescription *out);
    NTSTATUS pinName(ULONG pinId, std::u16string *name);
    NTSTATUS synthCaps(ULONG node, SYNTHCAPS *caps);
    NTSTATUS componentId(KSCOMPONENTID *id);
    // The first connectable pin of that direction offering the sub-format.
    std::optional<ULONG> findPin(KSPIN_DATAFLOW dataFlow, const GUID &subFormat);

private:
    using KsObject::KsObject;
};

class Pin : public KsObject {
public:
    // A pin created on the filter with a KSPIN_CONNECT for pinId and a
    // music KSDATAFORMAT of that sub-format.
    static NTSTATUS open(Filter &filter, ULONG pinId, const GUID &subFormat, std::unique_ptr<Pin> *out);

    NTSTATUS setState(KSSTATE state);
    NTSTATUS state(KSSTATE *state);
    // One IOCTL_KS_WRITE_STREAM; each message is one KSMUSICFORMAT record.
    NTSTATUS send(const std::vector<std::uint8_t> &message, ULONG deltaMs = 0);
    NTSTATUS send(const std::vector<std::vector<std::uint8_t>> &messages);
    // One IOCTL_KS_READ_STREAM with a buffer of bufferSize bytes: the records
    // it returns. Waits for data; with a timeout, STATUS_TIMEOUT when none
    // came (the read is cancelled; nothing queued is lost).
    NTSTATUS receive(std::vector<Message> *out, std::optional<std::chrono::milliseconds> timeout = std::nullopt,
                     ULONG bufferSize = 4096);

private:
    using KsObject::KsObject;
    NTSTATUS readOnce(std::vector<Message> *out, ULONG bufferSize);
};

// The name a pin creation carries: KSSTRING_Pin, a backslash, then the
// connection request and the data format in binary.
std::u16string pinCreateName(const KSPIN_CONNECT &connect, const void *format, ULONG formatSize);
// The default connection request and a music data format of that sub-format.
KSPIN_CONNECT defaultConnect(ULONG pinId);
KSDATAFORMAT musicFormat(const GUID &subFormat);

} // namespace hostkernel::midi
