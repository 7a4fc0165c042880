// The miniport object: creation, interfaces and reference counting,
// initialisation, technology, pin names, teardown.
#include "mp_harness.h"

using hostkernel::LogCapture;

static ULONG liveTagged(const char (&tag)[5])
{
    return (ULONG)hostkernel::poolStats(hostkernel::tag(tag)).liveAllocations;
}

TEST(MiniportObject, FifoIsTheNextPowerOfTwoAboveTheSysexSize)
{
    struct Row {
        ULONG sysex, size, mask;
    } rows[] = {{0, 2, 0x1}, {8176, 8192, 0x1FFF}, {8192, 16384, 0x3FFF}, {0xFFFF0, 1048576, 0xFFFFF}};
    for (const Row &row : rows) {
        LogCapture log;
        PortHarness h(u"Piano", 3, row.sysex, false);
        EXPECT_EQ(h.miniport->m_Fifo.m_FifoSize, row.size) << row.sysex;
        EXPECT_EQ(h.miniport->m_Fifo.m_FifoMask, row.mask) << row.sysex;
        EXPECT_EQ(h.miniport->m_SysexSize, row.sysex);
        EXPECT_EQ(h.fifoSpace(), row.size - 1);
        EXPECT_TRUE(log.contains("Ambrel:Miniport: CreateMiniportAmbrel ----- RX-Buffer-Size: " +
                                 std::to_string(row.size)));
    }
}

TEST(MiniportObject, CreationLinksTheRecordAndCopiesItsIdentity)
{
    LogCapture log;
    PortHarness h(u"Piano", PORT_FLAG_RENDER);
    EXPECT_EQ(h.record->record.Miniport, h.miniport);
    EXPECT_EQ(h.miniport->m_PortRecord, &h.record->record);
    EXPECT_EQ(toU16(h.miniport->m_PortName), u"Piano");
    EXPECT_EQ(h.miniport->m_PortFlags, (ULONG)PORT_FLAG_RENDER);
    EXPECT_EQ(h.miniport->m_ManufacturerGuid.Data1, 0x11111111u);
    EXPECT_EQ(h.miniport->m_ProductGuid.Data1, 0x44444444u);
    EXPECT_EQ(h.miniport->GetReferenceCount(), 1);
    EXPECT_TRUE(log.contains("Ambrel:Miniport: CreateMiniportAmbrel +++++ succeeded"));

    PortHarness unlinked(nullptr);
    EXPECT_EQ(unlinked.miniport->m_PortRecord, nullptr);
    EXPECT_EQ(toU16(unlinked.miniport->m_PortName), u"");
}

TEST(MiniportObject, FailedAllocationsLeaveNothingBehind)
{
    struct Row {
        uint64_t skip;  // allocations that succeed before the failing one
        const char *message;
        bool destroyed;
    } rows[] = {
        {0, "CreateMiniportAmbrel ------ insufficient resources!", false},
        {1, "CreateMiniportAmbrel ------ insufficient resources for data-buffer (8192)", true},
    };
    for (const Row &row : rows) {
        LogCapture log;
        TestRecord record(u"Piano");
        PUNKNOWN unknown = reinterpret_cast<PUNKNOWN>(0x1234);
        size_t before = hostkernel::poolLiveAllocations();
        hostkernel::failNextPoolAllocations(row.skip);
        NTSTATUS status = CreateMiniportAmbrel(&unknown, CLSID_PortDMus, NULL, NonPagedPool, &record.record, 8176,
                                               3, &GUID_NULL, &GUID_NULL);
        hostkernel::clearPoolFaults();
        EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(unknown, reinterpret_cast<PUNKNOWN>(0x1234));
        EXPECT_EQ(record.record.Miniport, nullptr);
        EXPECT_EQ(hostkernel::poolLiveAllocations(), before);
        EXPECT_TRUE(log.contains(std::string("Ambrel:Miniport: ") + row.message));
        EXPECT_EQ(log.contains("CMiniportAmbrel::~CMiniportAmbrel +++++ succeeded"), row.destroyed);
    }
}

TEST(MiniportObject, QueryInterfaceHandsOutEachFaceWithOneReference)
{
    PortHarness h;
    struct Row {
        const GUID *iid;
        PVOID face;
        const char *message;
    } rows[] = {
        {&IID_IUnknown, static_cast<PMINIPORTDMUS>(h.miniport), "is unknown"},
        {&IID_IMiniport, static_cast<PMINIPORTDMUS>(h.miniport), "is miniport"},
        {&IID_IMiniportDMus, static_cast<PMINIPORTDMUS>(h.miniport), "is miniportdmus"},
        {&IID_IMusicTechnology, static_cast<IMusicTechnology *>(h.miniport), "is imusic"},
        {&IID_IPowerNotify, static_cast<IPowerNotify *>(h.miniport), "is ipowernotify"},
        {&IID_IPinCount, static_cast<IPinCount *>(h.miniport), "is ipincount"},
        {&IID_IPinName, static_cast<IPinName *>(h.miniport), "is ipinname"},
    };
    for (const Row &row : rows) {
        LogCapture log;
        PVOID object = nullptr;
        LONG before = h.miniport->GetReferenceCount();
        ASSERT_EQ(h.unknown->QueryInterface(*row.iid, &object), STATUS_SUCCESS) << row.message;
        EXPECT_EQ(object, row.face) << row.message;
        EXPECT_EQ(h.miniport->GetReferenceCount(), before + 1);
        EXPECT_TRUE(log.contains(std::string("CMiniportAmbrel::NonDelegatingQueryInterface ***** ") + row.message));
        EXPECT_EQ(static_cast<PUNKNOWN>(object)->Release(), (ULONG)before);
    }

    LogCapture log;
    PVOID object = reinterpret_cast<PVOID>(0x1);
    EXPECT_EQ(h.unknown->QueryInterface(IID_IMXF, &object), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(h.miniport->GetReferenceCount(), 1);
    EXPECT_TRUE(log.contains("CMiniportAmbrel::NonDelegatingQueryInterface ***** is nul!!!! "
                             "{C096DF9E-FB09-11D1-81B0-0060083316C1}"));
    EXPECT_TRUE(log.contains("CMiniportAmbrel::NonDelegatingQueryInterface ----- failed to query"));
}

TEST(MiniportObject, LastReleaseDestroysAndReleasesPortAndGroup)
{
    LogCapture log;
    auto *h = new PortHarness;
    EXPECT_EQ(h->port.counter.refs(), 2);  // the miniport's reference
    EXPECT_EQ(h->port.registered, h->miniport->m_ServiceGroup);
    EXPECT_EQ(h->unknown->AddRef(), 2u);
    EXPECT_EQ(h->unknown->Release(), 1u);
    EXPECT_FALSE(log.contains("CMiniportAmbrel::~CMiniportAmbrel"));
    delete h;  // drops the last reference and checks the port's count is back
    EXPECT_TRUE(log.contains("Ambrel:Miniport: CMiniportAmbrel::~CMiniportAmbrel +++++ succeeded"));
}

TEST(MiniportObject, TechnologyIsSetBeforeInitOnly)
{
    static const GUID x = {0xABCDEF01, 0x1234, 0x5678, {9, 9, 9, 9, 9, 9, 9, 9}};
    {
        PortHarness h(u"Piano", 3, 8176, false);
        EXPECT_EQ(h.miniport->SetTechnology(&x), STATUS_SUCCESS);
        ASSERT_EQ(h.miniport->Init(NULL, NULL, &h.port, &h.group), STATUS_SUCCESS);
        EXPECT_EQ(h.miniport->m_Technology, x);
        EXPECT_EQ(RangeMidiStream.Technology, x);
        EXPECT_EQ(RangeDirectMusicStream.Technology, x);

        LogCapture log;
        static const GUID y = {0x1, 0x2, 0x3, {4}};
        EXPECT_EQ(h.miniport->SetTechnology(&y), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(h.miniport->m_Technology, x);
        EXPECT_TRUE(log.contains("CMiniportAmbrel::SetTechnology ----- was already inited!!!"));
    }
    PortHarness h(u"Piano", 3, 8176, false);
    EXPECT_EQ(h.miniport->SetTechnology(&GUID_NULL), STATUS_SUCCESS);
    ASSERT_EQ(h.miniport->Init(NULL, NULL, &h.port, &h.group), STATUS_SUCCESS);
    EXPECT_EQ(h.miniport->m_Technology, KSMUSIC_TECHNOLOGY_PORT);
    EXPECT_EQ(RangeMidiStream.Technology, KSMUSIC_TECHNOLOGY_PORT);
}

TEST(MiniportObject, InitWithoutAServiceGroupHoldsNothing)
{
    PortHarness h(u"Piano", 3, 8176, false);
    size_t before = hostkernel::poolLiveAllocations();
    hostkernel::failNextPoolAllocations(0, 1000);
    PSERVICEGROUP group = reinterpret_cast<PSERVICEGROUP>(0x1);
    NTSTATUS status = h.miniport->Init(NULL, NULL, &h.port, &group);
    hostkernel::clearPoolFaults();
    EXPECT_FALSE(NT_SUCCESS(status));
    EXPECT_EQ(group, nullptr);
    EXPECT_EQ(h.miniport->m_Port, nullptr);
    EXPECT_EQ(h.miniport->m_ServiceGroup, nullptr);
    EXPECT_EQ(h.port.counter.refs(), 1);
    EXPECT_EQ(hostkernel::poolLiveAllocations(), before);
}

TEST(MiniportObject, PowerPinCountAndIntersectionChangeNothingElse)
{
    LogCapture log;
    PortHarness h;
    POWER_STATE state;
    state.DeviceState = PowerDeviceD3;
    h.miniport->PowerChangeNotify(state);
    EXPECT_EQ(h.miniport->m_PowerState, (ULONG)PowerDeviceD3);
    EXPECT_TRUE(log.contains("CMiniportAmbrel::PoweChangeNotify D3"));

    ULONG values[5] = {11, 22, 33, 44, 55};
    h.miniport->PinCount(1, &values[0], &values[1], &values[2], &values[3], &values[4]);
    EXPECT_EQ(std::vector<ULONG>(values, values + 5), (std::vector<ULONG>{11, 22, 33, 44, 55}));

    ULONG length = 7;
    EXPECT_EQ(h.miniport->DataRangeIntersection(0, &RangeMidiBridge, &RangeMidiBridge, 100, NULL, &length),
              STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(length, 7u);
}
