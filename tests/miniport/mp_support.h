// Test support for the miniport unit: small stand-ins for the framework
// objects it talks to (DMus port, master clock, event allocator, capture
// sink) and a harness that creates and initialises a port's miniport the way
// publication and the DMus port do.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <hostkernel/executive.h>

#include "eventually.h"

#include "miniport/amminiport.h"

using Bytes = std::vector<uint8_t>;

std::u16string toU16(const WCHAR *s);

// Runs the enclosed calls at DISPATCH_LEVEL, as event delivery and DPCs do.
struct AtDispatch {
    AtDispatch() { KeRaiseIrql(DISPATCH_LEVEL, &old); }
    ~AtDispatch() { KeLowerIrql(old); }
    KIRQL old;
};

#define FAKE_UNKNOWN(iidMain)                                                      \
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID iid, PVOID *object) override     \
    {                                                                              \
        if (!IsEqualGUID(iid, IID_IUnknown) && !IsEqualGUID(iid, iidMain)) {        \
            *object = NULL;                                                        \
            return STATUS_INVALID_PARAMETER;                                       \
        }                                                                          \
        *object = this;                                                            \
        AddRef();                                                                  \
        return STATUS_SUCCESS;                                                     \
    }                                                                              \
    STDMETHODIMP_(ULONG) AddRef() override { return (ULONG)++refs; }              \
    STDMETHODIMP_(ULONG) Release() override { return (ULONG)--refs; }             \
    std::atomic<long> refs{1};

struct FakeClock : IMasterClock {
    FAKE_UNKNOWN(IID_IUnknown)
    STDMETHODIMP_(NTSTATUS) GetTime(REFERENCE_TIME *time) override
    {
        *time = now;
        return STATUS_SUCCESS;
    }
    std::atomic<REFERENCE_TIME> now{0};
};

struct FakePort : IPortDMus {
    FAKE_UNKNOWN(IID_IPortDMus)
    STDMETHODIMP_(NTSTATUS) Init(PDEVICE_OBJECT, PIRP, PUNKNOWN, PUNKNOWN, PRESOURCELIST) override
    {
        return STATUS_NOT_IMPLEMENTED;
    }
    STDMETHODIMP_(NTSTATUS) GetDeviceProperty(DEVICE_REGISTRY_PROPERTY, ULONG, PVOID, PULONG) override
    {
        return STATUS_NOT_IMPLEMENTED;
    }
    STDMETHODIMP_(NTSTATUS) NewRegistryKey(PREGISTRYKEY *, PUNKNOWN, ULONG, ACCESS_MASK, POBJECT_ATTRIBUTES, ULONG,
                                           PULONG) override
    {
        return STATUS_NOT_IMPLEMENTED;
    }
    STDMETHODIMP_(void) Notify(PSERVICEGROUP group) override
    {
        notified = group;
        notifications++;
    }
    STDMETHODIMP_(void) RegisterServiceGroup(PSERVICEGROUP group) override { registered = group; }
    std::atomic<int> notifications{0};
    PSERVICEGROUP notified = NULL, registered = NULL;
};

// Events and large buffers come from the C++ heap, so that pool accounting
// shows only what the driver allocated. Each must come back exactly once;
// anything else counts as an error.
class FakeAllocator : public IAllocatorMXF {
public:
    explicit FakeAllocator(USHORT bufferSize = 240) : bufferSize_(bufferSize) {}
    ~FakeAllocator();
    FAKE_UNKNOWN(IID_IAllocatorMXF)
    STDMETHODIMP_(NTSTATUS) SetState(KSSTATE) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(NTSTATUS) PutMessage(PDMUS_KERNEL_EVENT events) override;
    STDMETHODIMP_(NTSTATUS) ConnectOutput(PMXF) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(NTSTATUS) DisconnectOutput(PMXF) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(NTSTATUS) GetMessage(PDMUS_KERNEL_EVENT *event) override;
    STDMETHODIMP_(USHORT) GetBufferSize() override { return bufferSize_; }
    STDMETHODIMP_(NTSTATUS) GetBuffer(PBYTE *buffer) override;
    STDMETHODIMP_(NTSTATUS) PutBuffer(PBYTE buffer) override;

    // A render event holding these bytes (inline up to 8), a package event,
    // and a list of events.
    PDMUS_KERNEL_EVENT event(const Bytes &bytes);
    PDMUS_KERNEL_EVENT package(PDMUS_KERNEL_EVENT packaged);
    static PDMUS_KERNEL_EVENT chain(std::initializer_list<PDMUS_KERNEL_EVENT> events);

    // The GetMessage / GetBuffer after `skip` more successful ones fails.
    void failMessage(int skip) { failMessageAt_ = skip; }
    void failBuffer(int skip) { failBufferAt_ = skip; }

    long outstanding() const;  // events and buffers not yet returned
    long returned() const { return returned_; }
    long errors() const { return errors_; }

private:
    PDMUS_KERNEL_EVENT newEvent();
    void freeEvent(PDMUS_KERNEL_EVENT event);

    USHORT bufferSize_;
    mutable std::mutex mutex_;
    std::set<PDMUS_KERNEL_EVENT> events_;
    std::set<PBYTE> buffers_;
    std::atomic<long> returned_{0}, errors_{0};
    int failMessageAt_ = -1, failBufferAt_ = -1;
};

// A capture sink: records each list it receives and gives the events back
// to the allocator.
struct CapturedEvent {
    Bytes bytes;
    REFERENCE_TIME time;
    USHORT channelGroup, flags;
    bool inlineData;
};

class FakeSink : public IMXF {
public:
    explicit FakeSink(FakeAllocator *allocator) : allocator_(allocator) {}
    FAKE_UNKNOWN(IID_IMXF)
    STDMETHODIMP_(NTSTATUS) SetState(KSSTATE) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(NTSTATUS) PutMessage(PDMUS_KERNEL_EVENT events) override;
    STDMETHODIMP_(NTSTATUS) ConnectOutput(PMXF) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(NTSTATUS) DisconnectOutput(PMXF) override { return STATUS_SUCCESS; }

    std::vector<std::vector<CapturedEvent>> lists() const;
    std::vector<Bytes> writes() const;  // each list's bytes joined

private:
    FakeAllocator *allocator_;
    mutable std::mutex mutex_;
    std::vector<std::vector<CapturedEvent>> lists_;
};

// A port record as the port table holds it (from the C++ heap here).
struct TestRecord {
    explicit TestRecord(const std::u16string &name);
    MidiPort record;
};

class PortHarness {
public:
    // The miniport of a port of that name (null: no record), initialised
    // with the fake port unless `init` is false.
    explicit PortHarness(const char16_t *name = u"Piano", ULONG flags = 3, ULONG sysexSize = 8176,
                         bool init = true, USHORT largeBufferSize = 240);
    ~PortHarness();

    PMXF newStream(DMUS_STREAM_TYPE type, NTSTATUS *status = nullptr, bool withAllocator = true,
                   bool withClock = true);
    void closeStream(PMXF stream);
    static CMiniportAmbrelStream *of(PMXF stream) { return static_cast<CMiniportAmbrelStream *>(stream); }
    // A capture stream, connected to `sink` and running.
    PMXF runningCapture(FakeSink *sink);

    void play(PMXF stream, PDMUS_KERNEL_EVENT events);  // the framework's delivery
    void pump(PMXF stream);                             // the framework asking for capture data
    bool write(const Bytes &bytes);                     // the application's write
    Bytes readFifo(ULONG max = 0xFFFFFFFF);             // the application's read, at once
    ULONG fifoSpace();
    void detach();                                      // the application's close

    FakePort port;
    FakeClock clock;
    FakeAllocator allocator;
    FakeSink sink{&allocator};
    TestRecord *record = nullptr;
    CMiniportAmbrel *miniport = nullptr;
    PUNKNOWN unknown = nullptr;
    PSERVICEGROUP group = nullptr;
    std::vector<PMXF> streams;
};
