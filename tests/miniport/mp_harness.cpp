#include "mp_harness.h"

std::u16string toU16(const WCHAR *s)
{
    return std::u16string(reinterpret_cast<const char16_t *>(s));
}

PortHarness::PortHarness(const char16_t *name, ULONG flags, ULONG sysexSize, bool init, USHORT largeBufferSize)
    : allocator(largeBufferSize)
{
    if (name != nullptr) {
        record = new TestRecord(name);
    }
    static const GUID manufacturer = {0x11111111, 0x2222, 0x3333, {1, 2, 3, 4, 5, 6, 7, 8}};
    static const GUID product = {0x44444444, 0x5555, 0x6666, {8, 7, 6, 5, 4, 3, 2, 1}};
    NTSTATUS status = CreateMiniportAmbrel(&unknown, CLSID_PortDMus, NULL, NonPagedPool,
                                           record ? &record->record : NULL, sysexSize, flags, &manufacturer,
                                           &product);
    EXPECT_EQ(status, STATUS_SUCCESS);
    if (!NT_SUCCESS(status)) {
        unknown = nullptr;
        return;
    }
    miniport = static_cast<CMiniportAmbrel *>(static_cast<PMINIPORTDMUS>(unknown));
    if (init) {
        initStatus = miniport->Init(NULL, NULL, &port, &group);
        EXPECT_EQ(initStatus, STATUS_SUCCESS);
    }
}

PortHarness::~PortHarness()
{
    for (PMXF stream : streams) {
        stream->Release();
    }
    streams.clear();
    if (group != nullptr) {
        group->Release();
    }
    if (unknown != nullptr) {
        // The creation reference is the last: the miniport goes now, and
        // with it its references on the port and the service group.
        EXPECT_EQ(unknown->Release(), 0u);
    }
    EXPECT_EQ(port.counter.refs(), 1);
    EXPECT_EQ(allocator.counter.refs(), 1);
    EXPECT_EQ(allocator.outstandingEvents(), 0);
    EXPECT_EQ(allocator.outstandingBuffers(), 0);
    EXPECT_EQ(allocator.errors(), 0);
    delete record;
}

PMXF PortHarness::newStream(DMUS_STREAM_TYPE type, NTSTATUS *statusOut, bool withAllocator, bool withClock)
{
    PMXF mxf = reinterpret_cast<PMXF>(0x1);
    PSERVICEGROUP streamGroup = reinterpret_cast<PSERVICEGROUP>(0x1);
    ULONGLONG prefetch = 99;
    NTSTATUS status = miniport->NewStream(&mxf, NULL, NonPagedPool, 0, type, NULL, &streamGroup,
                                          withAllocator ? &allocator : NULL, withClock ? &clock : NULL, &prefetch);
    if (statusOut != nullptr) {
        *statusOut = status;
    }
    EXPECT_EQ(prefetch, 0u);
    if (!NT_SUCCESS(status)) {
        EXPECT_EQ(mxf, nullptr);
        return nullptr;
    }
    if (type == DMUS_STREAM_MIDI_CAPTURE) {
        EXPECT_EQ(streamGroup, miniport->m_ServiceGroup);
        if (streamGroup != nullptr) {
            streamGroup->Release();
        }
    } else {
        EXPECT_EQ(streamGroup, nullptr);
    }
    streams.push_back(mxf);
    return mxf;
}

void PortHarness::closeStream(PMXF stream)
{
    for (auto it = streams.begin(); it != streams.end(); ++it) {
        if (*it == stream) {
            streams.erase(it);
            break;
        }
    }
    stream->Release();
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

std::vector<uint8_t> PortHarness::readFifo(ULONG max)
{
    std::vector<uint8_t> out(miniport->m_Fifo.m_FifoSize);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&miniport->m_Lock);
    ULONG n = miniport->m_Fifo.FifoGet(out.data(), std::min<ULONG>(max, (ULONG)out.size()));
    KeReleaseSpinLock(&miniport->m_Lock, irql);
    out.resize(n);
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
