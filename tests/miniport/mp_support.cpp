#include "mp_support.h"

#include <cstring>

std::u16string toU16(const WCHAR *s)
{
    return std::u16string(reinterpret_cast<const char16_t *>(s));
}

// ------------------------------------------------------------------ allocator

FakeAllocator::~FakeAllocator()
{
    for (PDMUS_KERNEL_EVENT e : events_) {
        delete e;
    }
    for (PBYTE b : buffers_) {
        delete[] b;
    }
}

long FakeAllocator::outstanding() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return (long)(events_.size() + buffers_.size());
}

PDMUS_KERNEL_EVENT FakeAllocator::newEvent()
{
    auto *e = new DMUS_KERNEL_EVENT;
    memset(e, 0, sizeof(*e));
    e->cbStruct = sizeof(*e);
    events_.insert(e);
    return e;
}

STDMETHODIMP_(NTSTATUS) FakeAllocator::GetMessage(PDMUS_KERNEL_EVENT *event)
{
    std::lock_guard<std::mutex> lock(mutex_);
    *event = (failMessageAt_-- == 0) ? NULL : newEvent();
    return *event ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

STDMETHODIMP_(NTSTATUS) FakeAllocator::GetBuffer(PBYTE *buffer)
{
    std::lock_guard<std::mutex> lock(mutex_);
    *buffer = NULL;
    if (failBufferAt_-- == 0) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *buffer = new BYTE[bufferSize_ + 1];
    buffers_.insert(*buffer);
    return STATUS_SUCCESS;
}

STDMETHODIMP_(NTSTATUS) FakeAllocator::PutBuffer(PBYTE buffer)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (buffers_.erase(buffer) == 0) {
        errors_++;
        return STATUS_INVALID_PARAMETER;
    }
    delete[] buffer;
    return STATUS_SUCCESS;
}

void FakeAllocator::freeEvent(PDMUS_KERNEL_EVENT event)
{
    // As the framework's allocator does: a package's events and a long
    // event's buffer go back with it.
    if (events_.erase(event) == 0) {
        errors_++;
        return;
    }
    if (event->cbEvent > sizeof(PBYTE) && (event->usFlags & DMUS_KEF_PACKAGE_EVENT)) {
        for (PDMUS_KERNEL_EVENT inner = event->uData.pPackageEvt, next; inner != NULL; inner = next) {
            next = inner->pNextEvt;
            freeEvent(inner);
        }
    } else if (event->cbEvent > sizeof(PBYTE)) {
        if (buffers_.erase(event->uData.pbData) == 0) {
            errors_++;
        } else {
            delete[] event->uData.pbData;
        }
    }
    delete event;
    returned_++;
}

STDMETHODIMP_(NTSTATUS) FakeAllocator::PutMessage(PDMUS_KERNEL_EVENT events)
{
    std::lock_guard<std::mutex> lock(mutex_);
    for (PDMUS_KERNEL_EVENT next; events != NULL; events = next) {
        next = events->pNextEvt;
        freeEvent(events);
    }
    return STATUS_SUCCESS;
}

PDMUS_KERNEL_EVENT FakeAllocator::event(const Bytes &bytes)
{
    std::lock_guard<std::mutex> lock(mutex_);
    PDMUS_KERNEL_EVENT e = newEvent();
    e->cbEvent = (USHORT)bytes.size();
    e->usChannelGroup = 1;
    if (bytes.size() <= sizeof(PBYTE)) {
        std::copy(bytes.begin(), bytes.end(), e->uData.abData);
    } else {
        e->uData.pbData = new BYTE[bytes.size()];
        std::copy(bytes.begin(), bytes.end(), e->uData.pbData);
        buffers_.insert(e->uData.pbData);
    }
    return e;
}

PDMUS_KERNEL_EVENT FakeAllocator::package(PDMUS_KERNEL_EVENT packaged)
{
    std::lock_guard<std::mutex> lock(mutex_);
    PDMUS_KERNEL_EVENT e = newEvent();
    e->cbEvent = sizeof(DMUS_KERNEL_EVENT);
    e->usFlags = DMUS_KEF_PACKAGE_EVENT;
    e->uData.pPackageEvt = packaged;
    return e;
}

PDMUS_KERNEL_EVENT FakeAllocator::chain(std::initializer_list<PDMUS_KERNEL_EVENT> events)
{
    PDMUS_KERNEL_EVENT head = NULL, *link = &head;
    for (PDMUS_KERNEL_EVENT e : events) {
        *link = e;
        link = &e->pNextEvt;
    }
    return head;
}

// ------------------------------------------------------------------ sink

STDMETHODIMP_(NTSTATUS) FakeSink::PutMessage(PDMUS_KERNEL_EVENT events)
{
    std::vector<CapturedEvent> list;
    for (PDMUS_KERNEL_EVENT e = events; e != NULL; e = e->pNextEvt) {
        bool inlineData = e->cbEvent <= sizeof(PBYTE);
        const BYTE *data = inlineData ? e->uData.abData : e->uData.pbData;
        list.push_back({Bytes(data, data + e->cbEvent), e->ullPresTime100ns, e->usChannelGroup, e->usFlags,
                        inlineData});
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        lists_.push_back(std::move(list));
    }
    return allocator_->PutMessage(events);
}

std::vector<std::vector<CapturedEvent>> FakeSink::lists() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return lists_;
}

std::vector<Bytes> FakeSink::writes() const
{
    std::vector<Bytes> out;
    for (const auto &list : lists()) {
        out.emplace_back();
        for (const CapturedEvent &e : list) {
            out.back().insert(out.back().end(), e.bytes.begin(), e.bytes.end());
        }
    }
    return out;
}

// ------------------------------------------------------------------ harness

TestRecord::TestRecord(const std::u16string &name)
{
    memset(&record, 0, sizeof(record));
    std::copy_n(name.begin(), std::min<size_t>(name.size(), AM_PORT_NAME_CCH - 1), record.Name);
}

PortHarness::PortHarness(const char16_t *name, ULONG flags, ULONG sysexSize, bool init, USHORT largeBufferSize)
    : allocator(largeBufferSize)
{
    static const GUID manufacturer = {0x11111111, 0x2222, 0x3333, {1, 2, 3, 4, 5, 6, 7, 8}};
    static const GUID product = {0x44444444, 0x5555, 0x6666, {8, 7, 6, 5, 4, 3, 2, 1}};
    record = name ? new TestRecord(name) : nullptr;
    NTSTATUS status = CreateMiniportAmbrel(&unknown, CLSID_PortDMus, NULL, NonPagedPool,
                                           record ? &record->record : NULL, sysexSize, flags, &manufacturer, &product);
    EXPECT_EQ(status, STATUS_SUCCESS);
    miniport = static_cast<CMiniportAmbrel *>(static_cast<PMINIPORTDMUS>(unknown));
    if (init) {
        EXPECT_EQ(miniport->Init(NULL, NULL, &port, &group), STATUS_SUCCESS);
    }
}

PortHarness::~PortHarness()
{
    for (PMXF stream : streams) {
        stream->Release();
    }
    if (group != nullptr) {
        group->Release();
    }
    // The creation reference is the last one: the miniport goes now, and
    // with it its references on the port and the service group.
    EXPECT_EQ(unknown->Release(), 0u);
    EXPECT_EQ(port.refs, 1);
    EXPECT_EQ(allocator.refs, 1);
    EXPECT_EQ(allocator.outstanding(), 0);
    EXPECT_EQ(allocator.errors(), 0);
    delete record;
}

PMXF PortHarness::newStream(DMUS_STREAM_TYPE type, NTSTATUS *statusOut, bool withAllocator, bool withClock)
{
    PMXF mxf = NULL;
    PSERVICEGROUP streamGroup = NULL;
    ULONGLONG prefetch = 99;
    NTSTATUS status = miniport->NewStream(&mxf, NULL, NonPagedPool, 0, type, NULL, &streamGroup,
                                          withAllocator ? &allocator : NULL, withClock ? &clock : NULL, &prefetch);
    if (statusOut != nullptr) {
        *statusOut = status;
    }
    EXPECT_EQ(prefetch, 0u);
    // A capture stream gets the port's service group, a render stream none.
    EXPECT_EQ(streamGroup, NT_SUCCESS(status) && type == DMUS_STREAM_MIDI_CAPTURE ? miniport->m_ServiceGroup : NULL);
    if (streamGroup != NULL) {
        streamGroup->Release();
    }
    if (NT_SUCCESS(status)) {
        streams.push_back(mxf);
    }
    return mxf;
}

void PortHarness::closeStream(PMXF stream)
{
    streams.erase(std::find(streams.begin(), streams.end(), stream));
    stream->Release();
}

PMXF PortHarness::runningCapture(FakeSink *target)
{
    PMXF s = newStream(DMUS_STREAM_MIDI_CAPTURE);
    EXPECT_EQ(s->ConnectOutput(target), STATUS_SUCCESS);
    EXPECT_EQ(s->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    return s;
}

void PortHarness::play(PMXF stream, PDMUS_KERNEL_EVENT events)
{
    AtDispatch dispatch;
    stream->PutMessage(events);
}

void PortHarness::pump(PMXF stream)
{
    AtDispatch dispatch;
    stream->PutMessage(NULL);
}

bool PortHarness::write(const Bytes &bytes)
{
    return miniport->PutData(const_cast<PUCHAR>(bytes.data()), (ULONG)bytes.size());
}

Bytes PortHarness::readFifo(ULONG max)
{
    Bytes out(miniport->m_Fifo.m_FifoSize);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&miniport->m_Lock);
    out.resize(miniport->m_Fifo.FifoGet(out.data(), std::min<ULONG>(max, (ULONG)out.size())));
    KeReleaseSpinLock(&miniport->m_Lock, irql);
    return out;
}

ULONG PortHarness::fifoSpace()
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&miniport->m_Lock);
    ULONG space = miniport->m_Fifo.FifoSpace();
    KeReleaseSpinLock(&miniport->m_Lock, irql);
    return space;
}

void PortHarness::detach()
{
    miniport->DetachPortRecord();
    delete record;
    record = nullptr;
}
