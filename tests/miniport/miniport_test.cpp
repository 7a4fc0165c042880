// The miniport object, its filter description and its properties, as the
// framework and its clients see them.
#include "mp_support.h"
#include "published.h"

#include <hostkernel/portcls.h>

using hostkernel::LogCapture;

TEST(Miniport, CreationSizesTheFifoAndLinksTheRecord)
{
    // The size rule itself is the FIFO's (PortFifo); the SysEx size reaches it.
    LogCapture log;
    PortHarness h(u"Piano", 2, 8192, false);
    EXPECT_EQ(h.miniport->m_Fifo.m_FifoSize, 16384u);
    EXPECT_EQ(h.fifoSpace(), 16383u);
    EXPECT_TRUE(log.contains("Ambrel:Miniport: CreateMiniportAmbrel ----- RX-Buffer-Size: 16384"));
    EXPECT_EQ(h.record->record.Miniport, h.miniport);
    EXPECT_EQ(toU16(h.miniport->m_PortName), u"Piano");
    EXPECT_EQ(h.miniport->m_ManufacturerGuid.Data1, 0x11111111u);
    EXPECT_EQ(h.miniport->GetReferenceCount(), 1);
    PortHarness unlinked(nullptr);
    EXPECT_EQ(unlinked.miniport->AttachedPortRecord(), nullptr);
}

TEST(Miniport, FailedCreationLeavesNothingBehind)
{
    struct Row {
        uint64_t skip;  // allocations that succeed first: the object, then its FIFO
        const char *message;
    } rows[] = {{0, "CreateMiniportAmbrel ------ insufficient resources!"},
                {1, "CreateMiniportAmbrel ------ insufficient resources for data-buffer (8192)"}};
    for (const Row &row : rows) {
        LogCapture log;
        TestRecord record(u"Piano");
        PUNKNOWN unknown = reinterpret_cast<PUNKNOWN>(0x1234);
        size_t live = hostkernel::poolLiveAllocations();
        hostkernel::failNextPoolAllocations(row.skip);
        EXPECT_EQ(CreateMiniportAmbrel(&unknown, CLSID_PortDMus, NULL, NonPagedPool, &record.record, 8176, 3,
                                       &GUID_NULL, &GUID_NULL),
                  STATUS_INSUFFICIENT_RESOURCES);
        hostkernel::clearPoolFaults();
        EXPECT_EQ(unknown, reinterpret_cast<PUNKNOWN>(0x1234));
        EXPECT_EQ(record.record.Miniport, nullptr);
        EXPECT_EQ(hostkernel::poolLiveAllocations(), live);
        EXPECT_TRUE(log.contains(row.message));
    }
}

TEST(Miniport, QueryInterfaceHandsOutEachFaceWithOneReference)
{
    PortHarness h;
    CMiniportAmbrel *m = h.miniport;
    PVOID dmus = static_cast<PMINIPORTDMUS>(m);
    struct Row {
        const GUID *iid;
        PVOID face;
        const char *message;
    } rows[] = {{&IID_IUnknown, dmus, "is unknown"},
                {&IID_IMiniport, dmus, "is miniport"},
                {&IID_IMiniportDMus, dmus, "is miniportdmus"},
                {&IID_IMusicTechnology, static_cast<IMusicTechnology *>(m), "is imusic"},
                {&IID_IPowerNotify, static_cast<IPowerNotify *>(m), "is ipowernotify"},
                {&IID_IPinCount, static_cast<IPinCount *>(m), "is ipincount"},
                {&IID_IPinName, static_cast<IPinName *>(m), "is ipinname"},
                {&IID_IMXF, nullptr, "is nul!!!! {C096DF9E-FB09-11D1-81B0-0060083316C1}"}};
    for (const Row &row : rows) {
        LogCapture log;
        PVOID object = reinterpret_cast<PVOID>(0x1);
        EXPECT_EQ(h.unknown->QueryInterface(*row.iid, &object), row.face ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER);
        EXPECT_EQ(object, row.face);
        EXPECT_EQ(m->GetReferenceCount(), row.face ? 2 : 1);
        EXPECT_TRUE(log.contains(std::string("CMiniportAmbrel::NonDelegatingQueryInterface ***** ") + row.message));
        if (object != nullptr) {
            EXPECT_EQ(static_cast<PUNKNOWN>(object)->Release(), 1u);
        }
    }

    // Paged code may run at APC_LEVEL, where no wide string may be printed.
    LogCapture log;
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    PVOID object = reinterpret_cast<PVOID>(0x1);
    EXPECT_EQ(h.unknown->QueryInterface(IID_IMXF, &object), STATUS_INVALID_PARAMETER);
    KeLowerIrql(old);
    EXPECT_EQ(object, nullptr);
    EXPECT_TRUE(log.contains("CMiniportAmbrel::NonDelegatingQueryInterface ***** is nul!!!!"));
    EXPECT_FALSE(log.contains("is nul!!!! {"));
}

// Pageable code says where it was called from, asserts, and the verifier
// stops the system (as PAGED_CODE does on a checked Windows).
TEST(MiniportDeathTest, PageableRoutineAtDispatchLevelIsReportedAndStops)
{
    auto callAtDispatch = [] {
        hostkernel::setLogToStderr(true);
        PortHarness h(u"Piano");
        KIRQL old;
        KeRaiseIrql(DISPATCH_LEVEL, &old);
        PPCFILTER_DESCRIPTOR d = nullptr;
        h.miniport->GetDescription(&d);
    };
    EXPECT_DEATH(callAtDispatch(), "EX: Pageable code called at IRQL 2\n.*Assertion failed: FALSE");
}

TEST(Miniport, TechnologyIsSetBeforeInitAndRewritesTheSharedRanges)
{
    static const GUID x = {0xABCDEF01, 0x1234, 0x5678, {9, 9, 9, 9, 9, 9, 9, 9}};
    for (const GUID *given : {&x, &GUID_NULL}) {
        const GUID &expected = (*given == GUID_NULL) ? published::TechnologyPort : x;
        PortHarness h(u"Piano", 3, 8176, false);
        EXPECT_EQ(h.miniport->SetTechnology(given), STATUS_SUCCESS);
        ASSERT_EQ(h.miniport->Init(NULL, NULL, &h.port, &h.group), STATUS_SUCCESS);
        EXPECT_EQ(h.port.refs, 2);
        EXPECT_EQ(h.port.registered, h.miniport->m_ServiceGroup);
        EXPECT_EQ(RangeMidiStream.Technology, expected);
        EXPECT_EQ(RangeDirectMusicStream.Technology, expected);

        LogCapture log;
        EXPECT_EQ(h.miniport->SetTechnology(&x), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(h.miniport->m_Technology, expected);
        EXPECT_TRUE(log.contains("CMiniportAmbrel::SetTechnology ----- was already inited!!!"));
    }
}

TEST(Miniport, InitWithoutAServiceGroupFailsAndGivesThePortBack)
{
    struct Row {
        NTSTATUS frameworkAnswer;  // PcNewServiceGroup's status; it hands out no group either way
        NTSTATUS result;
        const char *message;  // null: nothing is logged for it
    } rows[] = {
        {NTSTATUS(0xC000009A), NTSTATUS(0xC000009A), nullptr},
        {NTSTATUS(0xC0000017), NTSTATUS(0xC0000017), nullptr},
        {NTSTATUS(0x00000000), NTSTATUS(0xC000009A), "Ambrel:Miniport: CMiniportAmbrel::Init ----- PcNewServiceGroup failed: 0"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(testing::Message() << std::hex << row.frameworkAnswer);
        LogCapture log;
        PortHarness h(u"Piano", 3, 8176, false);
        hostkernel::failNextServiceGroup(row.frameworkAnswer);
        h.group = reinterpret_cast<PSERVICEGROUP>(0x1234);
        EXPECT_EQ(h.miniport->Init(NULL, NULL, &h.port, &h.group), row.result);
        EXPECT_EQ(h.group, nullptr);
        EXPECT_EQ(h.miniport->m_ServiceGroup, nullptr);
        EXPECT_EQ(h.port.refs, 1);  // the reference Init took is given back
        EXPECT_EQ(h.port.registered, nullptr);
        EXPECT_FALSE(log.contains("CMiniportAmbrel::Init +++++ succeeded"));
        EXPECT_EQ(log.contains("PcNewServiceGroup failed"), row.message != nullptr);
        if (row.message != nullptr) {
            EXPECT_TRUE(log.contains(row.message));
        }
    }
}

TEST(Miniport, PowerChangesAreOnlyNoted)
{
    PortHarness h;
    LogCapture log;
    // IPowerNotify, {3DD648B8-969F-11D1-95A9-00C04FB925D3}: the state is
    // logged and kept, nothing else happens.
    PVOID face = nullptr;
    ASSERT_EQ(h.unknown->QueryInterface(published::guid("{3DD648B8-969F-11D1-95A9-00C04FB925D3}"), &face),
              STATUS_SUCCESS);
    POWER_STATE d3;
    d3.DeviceState = PowerDeviceD3;
    log.clear();
    static_cast<IPowerNotify *>(face)->PowerChangeNotify(d3);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Ambrel:Miniport: CMiniportAmbrel::PoweChangeNotify D4",
                                                     "Ambrel:Miniport: CMiniportAmbrel::PoweChangeNotify +++++ succeeded"}));
    static_cast<IPowerNotify *>(face)->Release();
}

TEST(Miniport, DataRangeIntersectionIsLeftToTheFramework)
{
    PortHarness h;
    ULONG size = 0;
    EXPECT_EQ(h.miniport->DataRangeIntersection(0, &RangeMidiBridge, &RangeMidiBridge, 100, NULL, &size),
              STATUS_NOT_IMPLEMENTED);
}

// ------------------------------------------------------------------ filter description

TEST(FilterDescription, DirectionChoosesPinsConnectionsAndCategories)
{
    const ULONG F = PCFILTER_NODE;
    struct Pin {
        ULONG instances;
        KSPIN_DATAFLOW flow;
        KSPIN_COMMUNICATION communication;
        const GUID *name;
        std::vector<const GUID *> subFormats;
    };
    using namespace published;
    const Pin legacy{8, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_SINK, &PinNameMidi, {&SubtypeMidi}};
    const Pin dmusic{8, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_SINK, &PinNameMpuOut, {&SubtypeDirectMusic}};
    const Pin renderBridge{0, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_NONE, nullptr, {&SubtypeMidiBus}};
    const Pin captureBridge{0, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_NONE, nullptr, {&SubtypeMidiBus}};
    const Pin capture{8, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_SINK, &PinNameMpuIn, {&SubtypeMidi, &SubtypeDirectMusic}};
    using Connections = std::vector<std::vector<ULONG>>;
    const std::vector<Pin> all = {legacy, dmusic, renderBridge, captureBridge, capture};
    const Connections full = {{F, 0, F, 2}, {F, 1, 0, 1}, {0, 0, F, 2}, {F, 3, 1, 1}, {1, 0, F, 4}};
    const std::vector<GUID> both = {CategoryAudio, CategoryRender, CategoryCapture};
    struct Variant {
        ULONG flags; // no direction bit means both; other bits are ignored
        const char *log;
        std::vector<Pin> pins;
        Connections connections;
        std::vector<GUID> categories;
    } variants[] = {
        {0, "Render & Capture", all, full, both},
        {3 | 0x10, "Render & Capture", all, full, both},
        {0x4, "Render & Capture", all, full, both},
        {1, "Capture only", {captureBridge, capture}, {{F, 0, 0, 1}, {0, 0, F, 1}},
         {CategoryAudio, CategoryCapture}},
        {2, "Render only", {legacy, dmusic, renderBridge}, {{F, 0, F, 2}, {F, 1, 0, 1}, {0, 0, F, 2}},
         {CategoryAudio, CategoryRender}},
    };
    for (const Variant &v : variants) {
        SCOPED_TRACE(v.flags);
        LogCapture log;
        PortHarness h(u"Piano", v.flags);
        PPCFILTER_DESCRIPTOR d = nullptr;
        ASSERT_EQ(h.miniport->GetDescription(&d), STATUS_SUCCESS);
        EXPECT_TRUE(log.contains(std::string("Ambrel:Miniport: GetDescription::") + v.log));
        ASSERT_EQ(d->PinCount, v.pins.size());
        for (size_t id = 0; id < v.pins.size(); id++) {
            const PCPIN_DESCRIPTOR &got = d->Pins[id];
            const KSPIN_DESCRIPTOR &ks = got.KsPinDescriptor;
            const Pin &want = v.pins[id];
            EXPECT_EQ(std::vector<ULONG>({got.MaxGlobalInstanceCount, got.MaxFilterInstanceCount,
                                          got.MinFilterInstanceCount}),
                      std::vector<ULONG>({want.instances, want.instances, 0}))
                << "pin " << id;
            EXPECT_EQ(ks.DataFlow, want.flow) << "pin " << id;
            EXPECT_EQ(ks.Communication, want.communication) << "pin " << id;
            EXPECT_EQ(*ks.Category, CategoryAudio);
            EXPECT_TRUE(want.name ? ks.Name && *ks.Name == *want.name : ks.Name == nullptr) << "pin " << id;
            ASSERT_EQ(ks.DataRangesCount, want.subFormats.size());
            for (size_t r = 0; r < want.subFormats.size(); r++) {
                const KSDATARANGE &range = *ks.DataRanges[r];
                EXPECT_EQ(range.SubFormat, *want.subFormats[r]) << "pin " << id;
                EXPECT_EQ(range.MajorFormat, FormatTypeMusic);
                EXPECT_EQ(range.Specifier, SpecifierNone);
                EXPECT_EQ(std::vector<ULONG>({range.Flags, range.SampleSize, range.Reserved}),
                          std::vector<ULONG>({0, 0, 0}))
                    << "pin " << id;
                if (range.SubFormat == SubtypeMidiBus) {
                    EXPECT_EQ(range.FormatSize, 64u);
                    continue;
                }
                // Both music ranges: the published 96-byte layout, any channel.
                const KSDATARANGE_MUSIC &music = reinterpret_cast<const KSDATARANGE_MUSIC &>(range);
                EXPECT_EQ(range.FormatSize, 96u) << "pin " << id;
                EXPECT_EQ(music.Technology, TechnologyPort);
                EXPECT_EQ(std::vector<ULONG>({music.Channels, music.Notes, music.ChannelMask}),
                          std::vector<ULONG>({0, 0, 0xFFFF}))
                    << "pin " << id;
            }
        }
        Connections connections;
        for (ULONG c = 0; c < d->ConnectionCount; c++) {
            const PCCONNECTION_DESCRIPTOR &x = d->Connections[c];
            connections.push_back({x.FromNode, x.FromNodePin, x.ToNode, x.ToNodePin});
        }
        EXPECT_EQ(connections, v.connections);
        EXPECT_EQ(std::vector<GUID>(d->Categories, d->Categories + d->CategoryCount), v.categories);
        ASSERT_EQ(d->NodeCount, 2u);
        for (ULONG n = 0; n < 2; n++) {
            EXPECT_EQ(*d->Nodes[n].Type, NodeSynthesizer);
            EXPECT_EQ(d->Nodes[n].Flags, 0u) << "node " << n;
            EXPECT_EQ(d->Nodes[n].Name, nullptr) << "node " << n;
            const PCAUTOMATION_TABLE *t = d->Nodes[n].AutomationTable;
            ASSERT_EQ(t->PropertyCount, 4u);
            std::vector<ULONG> ids, flags;
            for (ULONG i = 0; i < 4; i++) {
                EXPECT_EQ(*t->Properties[i].Set, PropsetSynth);
                EXPECT_EQ(t->Properties[i].Handler, PropertyHandler_Synth);
                ids.push_back(t->Properties[i].Id);
                flags.push_back(t->Properties[i].Flags);
            }
            EXPECT_EQ(ids, (std::vector<ULONG>{2, 3, 4, 6}));
            EXPECT_EQ(flags, (std::vector<ULONG>{0x201, 0x201, 0x203, 0x201}));
        }
        const PCPROPERTY_ITEM &componentId = d->AutomationTable->Properties[0];
        EXPECT_EQ(*componentId.Set, PropsetGeneral);
        EXPECT_EQ(componentId.Flags, 0x201u);
        EXPECT_EQ(componentId.Handler, PropertyHandler_ComponentId);
    }
}

// ------------------------------------------------------------------ properties

namespace {
struct Request {
    Request(PortHarness &h, ULONG id, ULONG verb, ULONG valueSize, PMXF stream = nullptr, ULONG node = 0)
        : value(512, 0xCC)
    {
        memset(&r, 0, sizeof(r));
        r.MajorTarget = h.unknown;
        r.MinorTarget = stream;
        r.Node = node;
        for (ULONG i = 0; i < 4; i++) {
            const PCPROPERTY_ITEM &item = FilterDescriptorRenderCapture.Nodes[0].AutomationTable->Properties[i];
            r.PropertyItem = (item.Id == id) ? &item : r.PropertyItem;
        }
        r.Verb = verb;
        r.ValueSize = valueSize;
        r.Value = value.data();
    }
    NTSTATUS synth() { return PropertyHandler_Synth(&r); }
    template <typename T> const T &as() const { return *reinterpret_cast<const T *>(value.data()); }
    PCPROPERTY_REQUEST r;
    Bytes value;
};
} // namespace

TEST(SynthProperties, RefusalsTouchNoValue)
{
    PortHarness h;
    PMXF pin = h.newStream(DMUS_STREAM_MIDI_RENDER);
    PMXF noClock = h.newStream(DMUS_STREAM_MIDI_RENDER, nullptr, true, false);
    const ULONG GET = KSPROPERTY_TYPE_GET, SET = KSPROPERTY_TYPE_SET, BASIC = KSPROPERTY_TYPE_BASICSUPPORT;
    enum Target { Pin, NoClock, Filter };
    Bytes shortInstance(27, 0x7F);
    struct Row {
        ULONG id, verb, size;
        Target target;
        bool nullValue, shortInstance;
        NTSTATUS status;
        ULONG sizeAfter;
        const char *message;
    } rows[] = {
        {2, GET, 0, Pin, false, false, STATUS_BUFFER_OVERFLOW, 296, "value size is zero"},
        {3, GET, 0, Pin, false, false, STATUS_BUFFER_OVERFLOW, 28, "value size is zero"},
        {4, GET, 0, Pin, false, false, STATUS_BUFFER_OVERFLOW, 4, "value size is zero"},
        {6, GET, 0, Pin, false, false, STATUS_BUFFER_OVERFLOW, 8, "value size is zero"},
        {2, GET, 295, Pin, false, false, STATUS_BUFFER_TOO_SMALL, 0, "value size too large"},
        {6, GET, 7, Pin, false, false, STATUS_BUFFER_TOO_SMALL, 0, "value size too large"},
        {4, GET, 4, Pin, true, false, STATUS_INVALID_PARAMETER, 0, "missing required param"},
        // SET is refused before the buffer is looked at, also a size query's.
        {2, SET, 300, Pin, false, false, STATUS_INVALID_DEVICE_REQUEST, 300, "got KSPROPERTY_TYPE_SET"},
        {2, SET, 0, Pin, false, false, STATUS_INVALID_DEVICE_REQUEST, 0, "got KSPROPERTY_TYPE_SET"},
        {6, SET, 300, Pin, false, false, STATUS_INVALID_DEVICE_REQUEST, 300, "got KSPROPERTY_SET"},
        {6, SET, 0, Pin, false, false, STATUS_INVALID_DEVICE_REQUEST, 0, "got KSPROPERTY_SET"},
        {3, SET, 300, Pin, false, false, STATUS_INVALID_DEVICE_REQUEST, 300,
         "HandlePortParams ----- KSPROPERTY_TYPE_SET - error"},
        {3, SET, 0, Pin, false, false, STATUS_INVALID_DEVICE_REQUEST, 0,
         "HandlePortParams ----- KSPROPERTY_TYPE_SET - error"},
        {3, GET, 300, Filter, false, false, STATUS_INVALID_DEVICE_REQUEST, 300, "PropertyHandler_Synth ----- got no stream"},
        {6, GET, 300, Filter, false, false, STATUS_INVALID_DEVICE_REQUEST, 0, "PropertyHandler_Synth ----- got no stream"},
        {3, BASIC, 300, Filter, false, false, STATUS_INVALID_DEVICE_REQUEST, 0, "got not minortarget"},
        {3, GET, 28, NoClock, false, true, STATUS_INVALID_PARAMETER, 0,
         "CMiniportAmbrelStream::HandlePortParams ----- instance too small: 27"},
        {6, GET, 8, NoClock, false, false, STATUS_DEVICE_NOT_READY, 0, "PropertyHandler_Synth ----- no master clock"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.message);
        LogCapture log;
        Request q(h, row.id, row.verb, row.size, row.target == Pin ? pin : row.target == NoClock ? noClock : nullptr);
        q.r.Value = row.nullValue ? nullptr : q.r.Value;
        if (row.shortInstance) {
            q.r.Instance = shortInstance.data();
            q.r.InstanceSize = (ULONG)shortInstance.size();
        }
        EXPECT_EQ(q.synth(), row.status);
        EXPECT_EQ(q.r.ValueSize, row.sizeAfter);
        EXPECT_EQ(q.value[0], 0xCC);
        EXPECT_TRUE(log.contains(row.message));
    }
}

TEST(SynthProperties, Answers)
{
    PortHarness h;
    PMXF pin = h.newStream(DMUS_STREAM_MIDI_RENDER);
    for (auto [id, access] : std::vector<std::pair<ULONG, ULONG>>{{2, 0x201}, {3, 0x201}, {4, 0x203}, {6, 0x200}}) {
        Request q(h, id, KSPROPERTY_TYPE_BASICSUPPORT | KSPROPERTY_TYPE_GET, 4, pin);
        EXPECT_EQ(q.synth(), STATUS_SUCCESS);
        EXPECT_EQ(q.as<ULONG>(), access) << id;
    }

    Request groups(h, KSPROPERTY_SYNTH_CHANNELGROUPS, KSPROPERTY_TYPE_SET, 4, pin);
    *reinterpret_cast<ULONG *>(groups.value.data()) = 4;
    EXPECT_EQ(groups.synth(), STATUS_SUCCESS);
    EXPECT_EQ(groups.as<ULONG>(), 1u);

    h.clock.now = 123456789;
    Request clock(h, KSPROPERTY_SYNTH_LATENCYCLOCK, KSPROPERTY_TYPE_GET, 8, pin);
    EXPECT_EQ(clock.synth(), STATUS_SUCCESS);
    EXPECT_EQ(clock.as<REFERENCE_TIME>(), 123456789);

    for (auto [validIn, validOut] : std::vector<std::pair<ULONG, ULONG>>{{0x7F, 0x2}, {0, 0}}) {
        SYNTH_PORTPARAMS in = {validIn, 32, 16, 2, 44100, 5, 1};
        Request q(h, KSPROPERTY_SYNTH_PORTPARAMETERS, KSPROPERTY_TYPE_GET, 28, pin);
        q.r.Instance = &in;
        q.r.InstanceSize = sizeof(in);
        ASSERT_EQ(q.synth(), STATUS_SUCCESS);
        const SYNTH_PORTPARAMS &out = q.as<SYNTH_PORTPARAMS>();
        EXPECT_EQ(std::vector<DWORD>({out.ValidParams, out.Voices, out.ChannelGroups, out.AudioChannels,
                                      out.SampleRate, out.EffectsFlags, out.Share}),
                  std::vector<DWORD>({validOut, 32, 1, 2, 44100, 5, 1}));
    }
}

TEST(SynthProperties, CapsDescribeTheSideAndThePortName)
{
    std::u16string longName(200, u'x');
    PortHarness piano(u"Piano"), longPort(longName.c_str()), closed(u"Piano");
    closed.detach(); // the application closed its port: the side names alone
    struct Row {
        PortHarness *port;
        ULONG node;
        const GUID *clsid;
        std::u16string text;
    } rows[] = {{&piano, 0, &published::UartMiniport, u"Ambrel Out: Piano"},
                {&piano, 1, &published::UartCaptureMiniport, u"Ambrel In: Piano"},
                {&longPort, 0, &published::UartMiniport, (u"Ambrel Out: " + longName).substr(0, 127)},
                {&closed, 0, &published::UartMiniport, u"Ambrel Out"},
                {&closed, 1, &published::UartCaptureMiniport, u"Ambrel In"}};
    for (const Row &row : rows) {
        Request q(*row.port, KSPROPERTY_SYNTH_CAPS, KSPROPERTY_TYPE_GET, 400, nullptr, row.node);
        ASSERT_EQ(q.synth(), STATUS_SUCCESS);
        EXPECT_EQ(q.r.ValueSize, 296u);
        const SYNTHCAPS &caps = q.as<SYNTHCAPS>();
        EXPECT_EQ(caps.Guid, *row.clsid);
        EXPECT_EQ(std::vector<DWORD>({caps.Flags, caps.MemorySize, caps.MaxChannelGroups, caps.MaxVoices,
                                      caps.MaxAudioChannels, caps.EffectFlags}),
                  std::vector<DWORD>({SYNTH_PC_EXTERNAL, 0, 1, 0xFFFFFFFF, 0xFFFFFFFF, 0}));
        EXPECT_EQ(toU16(caps.Description), row.text);
        EXPECT_EQ(Bytes(q.value.begin() + 40 + 2 * row.text.size(), q.value.begin() + 296),
                  Bytes(256 - 2 * row.text.size(), 0));
        EXPECT_EQ(q.value[296], 0xCC);
    }
}

TEST(ComponentIdProperty, AnswersTheOpenIdentityOrTheDefaults)
{
    PortHarness h;
    const ULONG GET = KSPROPERTY_TYPE_GET, BASIC = KSPROPERTY_TYPE_BASICSUPPORT;
    struct Row {
        ULONG verb, size;
        bool major;
        NTSTATUS status;
        ULONG sizeAfter;
    } rows[] = {{GET, 72, true, STATUS_SUCCESS, 72},
                {GET, 100, false, STATUS_SUCCESS, 72},
                {GET, 0, true, STATUS_BUFFER_OVERFLOW, 72},
                {GET, 71, true, STATUS_BUFFER_TOO_SMALL, 0},
                {BASIC, 4, true, STATUS_SUCCESS, 4},
                {BASIC, 0, true, STATUS_BUFFER_TOO_SMALL, 0},
                {KSPROPERTY_TYPE_SET, 72, true, STATUS_INVALID_DEVICE_REQUEST, 72}};
    for (const Row &row : rows) {
        SCOPED_TRACE(testing::Message() << row.verb << "/" << row.size);
        LogCapture log;
        Request q(h, 0, row.verb, row.size);
        q.r.MajorTarget = row.major ? h.unknown : nullptr;
        EXPECT_EQ(PropertyHandler_ComponentId(&q.r), row.status);
        EXPECT_EQ(q.r.ValueSize, row.sizeAfter);
        EXPECT_TRUE(log.contains(NT_SUCCESS(row.status) ? "PropertyHandler_ComponentId +++++ succeeded"
                                                        : "PropertyHandler_ComponentId ----- failed: "));
        if (row.status != STATUS_SUCCESS) {
            EXPECT_EQ(q.value[0], 0xCC);
        } else if (row.verb == BASIC) {
            EXPECT_EQ(q.as<ULONG>(), 0x201u);
        } else {
            const KSCOMPONENTID &id = q.as<KSCOMPONENTID>();
            // Without a miniport the published defaults answer.
            EXPECT_EQ(id.Manufacturer, row.major ? h.miniport->m_ManufacturerGuid : published::DefaultManufacturer);
            EXPECT_EQ(id.Product, row.major ? h.miniport->m_ProductGuid : published::DefaultProduct);
            EXPECT_EQ(id.Component, GUID_NULL);
            EXPECT_EQ(id.Name, GUID_NULL);
            EXPECT_EQ(id.Version, 1u);
            EXPECT_EQ(id.Revision, 0u);
        }
    }
}
