// The DMus port's event allocator and master clock.
//
// Every event and large buffer the allocator hands out is remembered until it
// comes back, so that one given back twice, or never handed out, is reported
// (ObjectDoubleRelease) and one never given back shows at the end of the test.
#include "internal.h"

namespace hostkernel::detail::pc {

class Allocator : public IAllocatorMXF, public Object {
public:
    explicit Allocator(USHORT bufferSize) : Object("DMus event allocator"), bufferSize_(bufferSize) {}

    HK_PC_UNKNOWN()

    STDMETHODIMP_(NTSTATUS) SetState(KSSTATE) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(NTSTATUS) ConnectOutput(PMXF) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(NTSTATUS) DisconnectOutput(PMXF) override { return STATUS_SUCCESS; }

    STDMETHODIMP_(NTSTATUS) PutMessage(PDMUS_KERNEL_EVENT list) override
    {
        while (list != NULL) {
            PDMUS_KERNEL_EVENT next = list->pNextEvt;
            giveBack(list);
            list = next;
        }
        return STATUS_SUCCESS;
    }

    STDMETHODIMP_(NTSTATUS) GetMessage(PDMUS_KERNEL_EVENT *event) override
    {
        if (event == NULL) {
            return STATUS_INVALID_PARAMETER;
        }
        *event = NULL;
        size_t limit = settings().eventLimit;
        std::lock_guard<std::mutex> lock(mutex_);
        if (limit != 0 && outstandingEventsTotal() >= limit) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        auto *e = new DMUS_KERNEL_EVENT{};
        e->cbStruct = sizeof(DMUS_KERNEL_EVENT);
        e->ullBytePosition = kBytePositionNone;
        events_.insert(e);
        countEvents(1);
        *event = e;
        return STATUS_SUCCESS;
    }

    STDMETHODIMP_(USHORT) GetBufferSize() override { return bufferSize_; }

    STDMETHODIMP_(NTSTATUS) GetBuffer(PBYTE *buffer) override
    {
        if (buffer == NULL) {
            return STATUS_INVALID_PARAMETER;
        }
        *buffer = NULL;
        if (bufferSize_ == 0) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        auto *b = new BYTE[bufferSize_]();
        std::lock_guard<std::mutex> lock(mutex_);
        buffers_.insert(b);
        countBuffers(1);
        *buffer = b;
        return STATUS_SUCCESS;
    }

    STDMETHODIMP_(NTSTATUS) PutBuffer(PBYTE buffer) override
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (buffers_.erase(buffer) == 0) {
                reportViolation(Rule::ObjectDoubleRelease,
                                "a large buffer given back to the DMus allocator twice or never taken from it");
            }
        }
        countBuffers(-1);
        delete[] buffer;
        return STATUS_SUCCESS;
    }

    bool ownsBuffer(PBYTE buffer)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return buffers_.count(buffer) != 0;
    }

private:
    static size_t outstandingEventsTotal()
    {
        PortclsStats s = portclsStats();
        return s.outstandingEvents;
    }

    void giveBack(PDMUS_KERNEL_EVENT event)
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (events_.erase(event) == 0) {
                reportViolation(Rule::ObjectDoubleRelease,
                                "a DMus event given back to its allocator twice or never taken from it");
            }
        }
        countEvents(-1);
        if (event->cbEvent > sizeof(PBYTE)) {
            if (PACKAGE_EVT(event)) {
                PutMessage(event->uData.pPackageEvt);
            } else if (event->uData.pbData != NULL && ownsBuffer(event->uData.pbData)) {
                PutBuffer(event->uData.pbData);
            }
        }
        delete event;
    }

    void finalRelease() override
    {
        // Whatever is still out stays counted as outstanding; the storage goes
        // with the quarantine only if it came back, so nothing is freed here.
    }

    USHORT bufferSize_;
    std::mutex mutex_;
    std::set<PDMUS_KERNEL_EVENT> events_;
    std::set<PBYTE> buffers_;
};

STDMETHODIMP_(NTSTATUS) Allocator::QueryInterface(REFIID iid, PVOID *object)
{
    if (object == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (IsEqualGUID(iid, IID_IUnknown) || IsEqualGUID(iid, IID_IMXF) || IsEqualGUID(iid, IID_IAllocatorMXF)) {
        *object = static_cast<IAllocatorMXF *>(this);
        addRef();
        return STATUS_SUCCESS;
    }
    *object = NULL;
    return STATUS_INVALID_PARAMETER;
}

Allocator *newAllocator(USHORT bufferSize) { return new Allocator(bufferSize); }
IAllocatorMXF *allocatorInterface(Allocator *allocator) { return allocator; }

PDMUS_KERNEL_EVENT buildEvents(Allocator *allocator, const UCHAR *bytes, ULONG length, REFERENCE_TIME time,
                               ULONGLONG bytePosition, NTSTATUS *status)
{
    *status = STATUS_SUCCESS;
    if (length == 0) {
        return NULL;
    }
    ULONG chunk = allocator->GetBufferSize();
    if (chunk < sizeof(PBYTE)) {
        chunk = sizeof(PBYTE); // without large buffers every piece travels inline
    }
    PDMUS_KERNEL_EVENT head = NULL;
    PDMUS_KERNEL_EVENT *tail = &head;
    ULONG pieces = 0;
    for (ULONG pos = 0; pos < length; pos += chunk) {
        ULONG n = length - pos < chunk ? length - pos : chunk;
        PDMUS_KERNEL_EVENT e = NULL;
        *status = allocator->GetMessage(&e);
        if (NT_SUCCESS(*status) && n > sizeof(PBYTE)) {
            *status = allocator->GetBuffer(&e->uData.pbData);
            if (!NT_SUCCESS(*status)) {
                e->cbEvent = 0;
            }
        }
        if (!NT_SUCCESS(*status)) {
            if (e != NULL) {
                allocator->PutMessage(e);
            }
            allocator->PutMessage(head);
            return NULL;
        }
        e->cbEvent = USHORT(n);
        e->usChannelGroup = 1;
        e->ullPresTime100ns = time;
        e->ullBytePosition = bytePosition + pos;
        memcpy(n > sizeof(PBYTE) ? e->uData.pbData : e->uData.abData, bytes + pos, n);
        if (pos + n < length) {
            e->usFlags |= DMUS_KEF_EVENT_INCOMPLETE;
        }
        *tail = e;
        tail = &e->pNextEvt;
        pieces++;
    }
    if (pieces == 1) {
        return head;
    }
    // More than one allocator buffer: the pieces travel as one package.
    PDMUS_KERNEL_EVENT package = NULL;
    *status = allocator->GetMessage(&package);
    if (!NT_SUCCESS(*status)) {
        allocator->PutMessage(head);
        return NULL;
    }
    package->cbEvent = USHORT(length > 0xFFFF ? 0xFFFF : length);
    package->usChannelGroup = 1;
    package->usFlags = DMUS_KEF_PACKAGE_EVENT;
    package->ullPresTime100ns = time;
    package->ullBytePosition = bytePosition;
    package->uData.pPackageEvt = head;
    return package;
}

void appendBytes(PDMUS_KERNEL_EVENT list, std::vector<uint8_t> *out)
{
    for (; list != NULL; list = list->pNextEvt) {
        if (list->cbEvent > sizeof(PBYTE) && PACKAGE_EVT(list)) {
            appendBytes(list->uData.pPackageEvt, out);
        } else if (list->cbEvent <= sizeof(PBYTE)) {
            out->insert(out->end(), list->uData.abData, list->uData.abData + list->cbEvent);
        } else if (list->uData.pbData != NULL) {
            out->insert(out->end(), list->uData.pbData, list->uData.pbData + list->cbEvent);
        }
    }
}

// ------------------------------------------------------------------ master clock
// The port's reference time: the interrupt-time counter, 100-ns units, never
// going backwards.
class MasterClock : public IMasterClock, public Object {
public:
    MasterClock() : Object("DMus master clock") {}
    HK_PC_UNKNOWN()
    STDMETHODIMP_(NTSTATUS) GetTime(REFERENCE_TIME *time) override
    {
        if (time == NULL) {
            return STATUS_INVALID_PARAMETER;
        }
        *time = REFERENCE_TIME(KeQueryInterruptTime());
        return STATUS_SUCCESS;
    }
};

STDMETHODIMP_(NTSTATUS) MasterClock::QueryInterface(REFIID iid, PVOID *object)
{
    if (object == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (IsEqualGUID(iid, IID_IUnknown)) {
        *object = static_cast<IMasterClock *>(this);
        addRef();
        return STATUS_SUCCESS;
    }
    *object = NULL;
    return STATUS_INVALID_PARAMETER;
}

IMasterClock *newMasterClock() { return new MasterClock; }

} // namespace hostkernel::detail::pc
