// The whole driver through its real dispatch path, booted once on the host
// kernel. The first input byte picks what the rest drives:
//   0 create: a file name and an access mask on the control device;
//   1 device control: any code with any buffer sizes on a port's handle;
//   2 kernel streaming: property requests (set, id, verb, node, instance and
//     value sizes) on a port's filter or on one of its pins;
//   3 MIDI: arbitrary bytes played into a port while its owner reads with
//     buffers of arbitrary sizes.
// After each input every handle is closed again; the pool and the framework's
// objects must be back where they were, no driver assertion may have fired,
// and the verifier (always on) stops on any broken kernel rule.
//
// With AMBREL_DRIVER_IMAGE naming ambrel.sys the same inputs drive the
// shipped image instead of the host build (scripts/fuzz.sh replays the corpus
// that way). Its code carries no coverage counters, so it is a replay, not a
// search.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <hostkernel/executive.h>
#include <hostkernel/io.h>
#include <hostkernel/midiclient.h>
#include <hostkernel/pnp.h>
#include <hostkernel/portcls.h>
#include <hostkernel/registry.h>

#include "adapter/amadapter.h"
#include "adapter/openparams.h"
#include "ambrel_host.h"

namespace {

namespace hk = hostkernel;
namespace midi = hostkernel::midi;

const GUID kMidi = {0x1D262760, 0xE957, 0x11CF, {0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00}};
constexpr ACCESS_MASK kReadWrite = FILE_GENERIC_READ | FILE_GENERIC_WRITE;

void check(bool ok, const char *what)
{
    if (!ok) {
        std::fprintf(stderr, "dispatch fuzzer: %s\n", what);
        std::abort();
    }
}

// Consumes the input front to back; past its end every read gives zeros.
class Input {
public:
    Input(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    size_t left() const { return size_ - pos_; }
    uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
    uint16_t u16() { return uint16_t(byte() | byte() << 8); }
    uint32_t u32() { return uint32_t(u16()) | uint32_t(u16()) << 16; }
    std::vector<uint8_t> bytes(size_t n)
    {
        n = n < left() ? n : left();
        std::vector<uint8_t> out(data_ + pos_, data_ + pos_ + n);
        pos_ += n;
        return out;
    }

private:
    const uint8_t *data_;
    size_t size_;
    size_t pos_ = 0;
};

struct Driver {
    PDRIVER_OBJECT object = nullptr;
    std::shared_ptr<hk::DeviceNode> node;
    std::unique_ptr<hk::Process> owner, client;
    size_t baseline = 0;
    hk::PortclsStats framework; // what the booted adapter holds of the framework
};

Driver &driver()
{
    static Driver d = [] {
        Driver b;
        // Ports at the smallest System Exclusive size unless an open names
        // another: every input creates a port, and at the default size its
        // FIFO and each render stream's parser take 128 KiB apiece, most of an
        // input's time in allocation and page faults. No input is long
        // enough to reach either limit at any size.
        hk::registry::setDword(hk::serviceKeyPath(u"ambrel") + u"\\Configuration", u"SysexSize", AM_SYSEX_SIZE_MIN);
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        const char *image = std::getenv("AMBREL_DRIVER_IMAGE");
        b.object = ambrelhost::loadAmbrel(u"ambrel", image != nullptr ? image : "", &status);
        check(b.object != nullptr, "driver did not load");
        b.node = hk::addRootDevice(b.object);
        check(NT_SUCCESS(b.node->addDeviceStatus()) && NT_SUCCESS(b.node->start()), "adapter did not start");
        b.owner = std::make_unique<hk::Process>(100);
        b.client = std::make_unique<hk::Process>(200);
        hk::drainIo();
        b.baseline = hk::poolLiveAllocations();
        b.framework = hk::portclsStats();
        return b;
    }();
    return d;
}

hk::Handle openPort(Driver &d)
{
    hk::Handle h = 0;
    check(d.owner->open(u"\\DosDevices\\Ambrel\\Fuzz", kReadWrite, &h) == STATUS_SUCCESS, "the fuzz port did not open");
    return h;
}

void fuzzCreate(Driver &d, Input &in)
{
    ACCESS_MASK access = in.u32();
    std::u16string name = u"\\DosDevices\\Ambrel";
    while (in.left() >= 2) {
        name.push_back(char16_t(in.u16()));
    }
    hk::Handle h = 0;
    NTSTATUS s = d.owner->open(name, access, &h);
    if (NT_SUCCESS(s)) {
        check(h != 0, "a successful open without a handle");
        check(d.owner->close(h) == STATUS_SUCCESS, "close of a fuzzed open failed");
    } else {
        check(h == 0, "a failed open left a handle");
    }
}

void fuzzDeviceControl(Driver &d, Input &in)
{
    hk::Handle h = openPort(d);
    ULONG code = in.byte() & 1 ? IOCTL_AMBREL_PROCESS_IDS : in.u32();
    ULONG inputLength = in.u16() % 4097, outputLength = in.u16() % 4097;
    std::vector<uint8_t> input = in.bytes(inputLength);
    input.resize(inputLength);
    std::vector<uint8_t> output(outputLength + 1, 0xEE);
    hk::IoResult r = d.owner->deviceControl(h, code, input.data(), inputLength, output.data(), outputLength);
    check(r.status != STATUS_PENDING, "a device control left pending");
    check(r.information <= outputLength || !NT_SUCCESS(r.status), "more output than the buffer holds");
    d.owner->close(h);
}

const GUID *propertySet(uint8_t pick, Input &in, GUID *raw)
{
    static const GUID *const sets[] = {&KSPROPSETID_Pin, &KSPROPSETID_Topology, &KSPROPSETID_Synth,
                                       &KSPROPSETID_General, &KSPROPSETID_Connection};
    if (pick < 5) {
        return sets[pick];
    }
    std::vector<uint8_t> b = in.bytes(sizeof(GUID));
    b.resize(sizeof(GUID));
    std::memcpy(raw, b.data(), sizeof(GUID));
    return raw;
}

void fuzzProperties(Driver &d, Input &in)
{
    hk::Handle h = openPort(d);
    auto port = midi::findPort(u"Fuzz");
    check(port.has_value(), "the fuzz port is not published");
    std::unique_ptr<midi::Filter> filter;
    check(midi::Filter::open(*d.client, port->path, &filter) == STATUS_SUCCESS, "filter did not open");
    std::unique_ptr<midi::Pin> pin;
    uint8_t target = in.byte();
    if (target & 1) {
        auto id = filter->findPin(target & 2 ? KSPIN_DATAFLOW_OUT : KSPIN_DATAFLOW_IN, kMidi);
        check(id.has_value(), "no MIDI pin");
        check(midi::Pin::open(*filter, *id, kMidi, &pin) == STATUS_SUCCESS, "pin did not open");
        if (target & 4) {
            pin->setState(KSSTATE_RUN);
        }
    }
    for (int requests = 0; requests < 8 && in.left() > 0; requests++) {
        GUID raw{};
        const GUID *set = propertySet(in.byte() % 6, in, &raw);
        ULONG id = in.byte() & 0x80 ? in.u32() : in.byte() % 16;
        static const ULONG verbs[] = {KSPROPERTY_TYPE_GET, KSPROPERTY_TYPE_SET, KSPROPERTY_TYPE_BASICSUPPORT};
        uint8_t v = in.byte();
        ULONG verb = v < 0xF0 ? verbs[v % 3] : in.u32();
        std::optional<ULONG> node;
        uint8_t n = in.byte();
        if (n & 1) {
            node = n & 0x80 ? in.u32() : ULONG(n >> 1) % 4;
        }
        ULONG instanceSize = in.byte() % 65;
        std::vector<uint8_t> instance = in.bytes(instanceSize);
        instance.resize(instanceSize);
        ULONG valueSize = in.u16() % 1025;
        std::vector<uint8_t> value = in.bytes(valueSize);
        value.resize(valueSize + 1, 0);
        hk::IoResult r = pin ? pin->property(*set, id, verb, value.data(), valueSize, instance.data(), instanceSize, node)
                             : filter->property(*set, id, verb, value.data(), valueSize, instance.data(), instanceSize,
                                                node);
        check(r.status != STATUS_PENDING, "a property request left pending");
        check(r.information <= valueSize || r.status == STATUS_BUFFER_OVERFLOW || !NT_SUCCESS(r.status),
              "a property answered more than its buffer holds");
    }
    pin.reset();
    filter.reset();
    d.owner->close(h);
}

// Bytes of a message by its status (System Exclusive aside).
size_t messageLength(uint8_t status)
{
    if (status < 0xF0) {
        return (status & 0xE0) == 0xC0 ? 2 : 3;
    }
    return status == 0xF1 || status == 0xF3 ? 2 : status == 0xF2 ? 3 : 1;
}

void fuzzMidi(Driver &d, Input &in)
{
    hk::Handle h = openPort(d);
    auto port = midi::findPort(u"Fuzz");
    check(port.has_value(), "the fuzz port is not published");
    std::unique_ptr<midi::Filter> filter;
    check(midi::Filter::open(*d.client, port->path, &filter) == STATUS_SUCCESS, "filter did not open");
    auto id = filter->findPin(KSPIN_DATAFLOW_IN, kMidi);
    std::unique_ptr<midi::Pin> pin;
    check(id && midi::Pin::open(*filter, *id, kMidi, &pin) == STATUS_SUCCESS, "render pin did not open");
    check(pin->setState(KSSTATE_RUN) == STATUS_SUCCESS, "render pin did not run");
    std::vector<uint8_t> received;
    while (in.left() > 0) {
        size_t chunk = 1 + in.byte() % 64;
        std::vector<uint8_t> bytes = in.bytes(chunk);
        if (!bytes.empty()) {
            pin->send(bytes);
        }
        ULONG readSize = 1 + in.byte() % 48;
        auto read = d.owner->readAsync(h, readSize);
        if (!read->wait(std::chrono::milliseconds(0))) {
            read->cancel();
            read->wait();
        }
        if (read->status() == STATUS_SUCCESS) {
            check(read->information() >= 1 && read->information() <= readSize, "a read returned a bad count");
            received.insert(received.end(), read->output().begin(), read->output().begin() + read->information());
        } else {
            check(read->status() == STATUS_CANCELLED, "a read ended with an unexpected status");
        }
    }
    // Whatever is still waiting, then the whole stream the owner got must be
    // whole messages back to back: a read may cut a message, the FIFO never.
    for (;;) {
        auto read = d.owner->readAsync(h, 4096);
        if (!read->wait(std::chrono::milliseconds(0))) {
            read->cancel();
            read->wait();
        }
        if (read->status() != STATUS_SUCCESS) {
            break;
        }
        received.insert(received.end(), read->output().begin(), read->output().begin() + read->information());
    }
    for (size_t i = 0; i < received.size();) {
        const uint8_t status = received[i];
        check(status >= 0x80 && status != 0xF7, "the owner's stream has a message without its status byte");
        size_t length = status == 0xF0 ? 0 : messageLength(status);
        if (status == 0xF0) {
            size_t end = i + 1;
            while (end < received.size() && received[end] < 0x80) {
                end++;
            }
            check(end < received.size() && received[end] == 0xF7, "a System Exclusive message reached the owner torn");
            length = end + 1 - i;
        }
        check(i + length <= received.size(), "the owner's stream ends inside a message");
        for (size_t k = 1; k < length && status != 0xF0; k++) {
            check(received[i + k] < 0x80, "a status byte inside a message");
        }
        i += length;
    }
    pin.reset();
    filter.reset();
    d.owner->close(h);
}

} // namespace

// Booting before the first input keeps the boot's coverage out of it: the
// first input would otherwise look richer than the same bytes run later.
extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    driver();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Driver &d = driver();
    Input in(data, size);
    switch (in.byte() % 4) {
    case 0: fuzzCreate(d, in); break;
    case 1: fuzzDeviceControl(d, in); break;
    case 2: fuzzProperties(d, in); break;
    default: fuzzMidi(d, in); break;
    }
    hk::drainIo();
    check(hk::poolLiveAllocations() == d.baseline, "pool blocks left after every handle was closed");
    check(hk::registry::openHandleCount() == 0, "registry handle left open");
    // Framework objects live outside the pool: a reference the driver never
    // gives back (a port, a stream, an event of the DMus allocator) shows
    // here and nowhere else.
    hk::PortclsStats framework = hk::portclsStats();
    check(framework.liveObjects == d.framework.liveObjects, "a framework object kept after every handle was closed");
    check(framework.outstandingEvents == 0 && framework.outstandingBuffers == 0,
          "a DMus event or buffer never given back to its allocator");
    check(framework.registeredSubdevices == d.framework.registeredSubdevices && framework.openFilters == 0 &&
              framework.openPins == 0,
          "a sub-device, filter or pin left after every handle was closed");
    // Released framework objects are kept, dead, to catch one Release too
    // many; over millions of inputs they would fill the memory. With nothing
    // of this input live any more they go (a late Release is then ASan's).
    hk::resetPortclsState();
    // A driver assertion is a broken invariant of the driver's own, whatever
    // the input.
    if (hk::assertionCount() != 0) {
        std::fprintf(stderr, "dispatch fuzzer: driver assertion: %s\n", hk::assertions().front().c_str());
        std::abort();
    }
    return 0;
}
