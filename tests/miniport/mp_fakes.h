// Small stand-ins for the framework objects the miniport talks to: the DMus
// port, the event allocator, a capture sink and the master clock. Each counts
// what passes through it so that tests can check the miniport's side of every
// contract (references, events and buffers returned exactly once).
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include <amplatform.h>

// Reference counting shared by the fakes: starts at 1 (the test's own).
class FakeRefCounted {
public:
    ULONG addRef() { return (ULONG)++refs_; }
    ULONG release() { return (ULONG)--refs_; }
    long refs() const { return refs_.load(); }

private:
    std::atomic<long> refs_{1};
};

#define FAKE_UNKNOWN(iidMain)                                                        \
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID iid, PVOID *object) override       \
    {                                                                                \
        if (IsEqualGUID(iid, IID_IUnknown) || IsEqualGUID(iid, iidMain)) {           \
            *object = this;                                                          \
            AddRef();                                                                \
            return STATUS_SUCCESS;                                                   \
        }                                                                            \
        *object = NULL;                                                              \
        return STATUS_INVALID_PARAMETER;                                             \
    }                                                                                \
    STDMETHODIMP_(ULONG) AddRef() override { return counter.addRef(); }             \
    STDMETHODIMP_(ULONG) Release() override { return counter.release(); }

// ------------------------------------------------------------------ master clock
class FakeClock : public IMasterClock {
public:
    FAKE_UNKNOWN(IID_IUnknown)
    STDMETHODIMP_(NTSTATUS) GetTime(REFERENCE_TIME *time) override
    {
        *time = now.load();
        return STATUS_SUCCESS;
    }
    FakeRefCounted counter;
    std::atomic<REFERENCE_TIME> now{0};
};

// ------------------------------------------------------------------ DMus port
class FakePort : public IPortDMus {
public:
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
        notifications++;
        lastNotified = group;
    }
    STDMETHODIMP_(void) RegisterServiceGroup(PSERVICEGROUP group) override { registered = group; }

    FakeRefCounted counter;
    std::atomic<int> notifications{0};
    PSERVICEGROUP lastNotified = NULL;
    PSERVICEGROUP registered = NULL;
};

// ------------------------------------------------------------------ allocator
// Events and large buffers come from the C++ heap, so that pool accounting
// shows only what the driver allocated. Every event and buffer handed out
// must come back through PutMessage exactly once; a second return or an
// unknown pointer is recorded as an error.
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

    // A render event of the given bytes: inline up to 8, else in a buffer of
    // exactly that size.
    PDMUS_KERNEL_EVENT makeEvent(const std::vector<uint8_t> &bytes);
    PDMUS_KERNEL_EVENT makePackage(PDMUS_KERNEL_EVENT packaged);
    static PDMUS_KERNEL_EVENT chain(std::initializer_list<PDMUS_KERNEL_EVENT> events);

    // Fault injection: the next `count` GetMessage / GetBuffer calls after
    // `skip` successful ones fail.
    void failMessages(int skip, int count = 1) { failMsgSkip_ = skip, failMsgCount_ = count; }
    void failBuffers(int skip, int count = 1) { failBufSkip_ = skip, failBufCount_ = count; }

    long outstandingEvents() const { return outEvents_.load(); }
    long outstandingBuffers() const { return outBuffers_.load(); }
    long returnedEvents() const { return returned_.load(); }
    long errors() const { return errors_.load(); }

    FakeRefCounted counter;

private:
    void freeOne(PDMUS_KERNEL_EVENT event);

    USHORT bufferSize_;
    std::mutex mutex_;
    std::vector<PDMUS_KERNEL_EVENT> liveEvents_;
    std::vector<PBYTE> liveBuffers_;
    std::atomic<long> outEvents_{0}, outBuffers_{0}, returned_{0}, errors_{0};
    int failMsgSkip_ = 0, failMsgCount_ = 0, failBufSkip_ = 0, failBufCount_ = 0;
};

// ------------------------------------------------------------------ capture sink
// Records every event list it receives (bytes of each event, time, group,
// flags) and returns the events to the allocator, as the framework would
// after passing them on.
struct CapturedEvent {
    std::vector<uint8_t> bytes;
    REFERENCE_TIME time;
    USHORT channelGroup;
    USHORT flags;
    bool inlineData;
};

class FakeSink : public IMXF {
public:
    // A sink that does not record only counts (for benchmarks).
    explicit FakeSink(FakeAllocator *allocator, bool record = true) : allocator_(allocator), record_(record) {}
    FAKE_UNKNOWN(IID_IUnknown)
    STDMETHODIMP_(NTSTATUS) SetState(KSSTATE) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(NTSTATUS) PutMessage(PDMUS_KERNEL_EVENT events) override;
    STDMETHODIMP_(NTSTATUS) ConnectOutput(PMXF) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(NTSTATUS) DisconnectOutput(PMXF) override { return STATUS_SUCCESS; }

    std::vector<std::vector<CapturedEvent>> lists() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return lists_;
    }
    // Lists received so far (cheap, for pollers).
    size_t received() const { return received_.load(); }
    // The bytes of each list, events joined.
    std::vector<std::vector<uint8_t>> writes() const;

    FakeRefCounted counter;

private:
    FakeAllocator *allocator_;
    bool record_;
    mutable std::mutex mutex_;
    std::vector<std::vector<CapturedEvent>> lists_;
    std::atomic<size_t> received_{0};
};
