// The synth and component-id properties, as the framework hands them over.
#include "mp_harness.h"

using hostkernel::LogCapture;

namespace {

const PCPROPERTY_ITEM *synthItem(ULONG id)
{
    PPCFILTER_DESCRIPTOR d = nullptr;
    // Every variant shares the node tables; the full one is always there.
    d = const_cast<PPCFILTER_DESCRIPTOR>(&FilterDescriptorRenderCapture);
    for (ULONG i = 0; i < d->Nodes[0].AutomationTable->PropertyCount; i++) {
        if (d->Nodes[0].AutomationTable->Properties[i].Id == id) {
            return &d->Nodes[0].AutomationTable->Properties[i];
        }
    }
    return nullptr;
}

struct Request {
    Request(PortHarness &h, ULONG id, ULONG verb, ULONG valueSize, PMXF stream = nullptr, ULONG node = 0)
        : value(512, 0xCC)
    {
        memset(&r, 0, sizeof(r));
        r.MajorTarget = h.unknown;
        r.MinorTarget = stream;
        r.Node = node;
        r.PropertyItem = synthItem(id);
        r.Verb = verb;
        r.ValueSize = valueSize;
        r.Value = value.data();
    }
    NTSTATUS synth() { return PropertyHandler_Synth(&r); }
    ULONG u32() const { return *reinterpret_cast<const ULONG *>(value.data()); }
    PCPROPERTY_REQUEST r;
    std::vector<uint8_t> value;
};

} // namespace

TEST(SynthProperties, BufferChecksComeBeforeTheValueIsTouched)
{
    PortHarness h;
    PMXF stream = h.newStream(DMUS_STREAM_MIDI_RENDER);
    struct Row {
        ULONG id, needed;
    } rows[] = {{KSPROPERTY_SYNTH_CAPS, 296},
                {KSPROPERTY_SYNTH_PORTPARAMETERS, 28},
                {KSPROPERTY_SYNTH_CHANNELGROUPS, 4},
                {KSPROPERTY_SYNTH_LATENCYCLOCK, 8}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.id);
        struct Case {
            ULONG size;
            bool nullValue;
            NTSTATUS status;
            ULONG sizeAfter;
            const char *message;
        } cases[] = {{0, false, STATUS_BUFFER_OVERFLOW, row.needed, "value size is zero"},
                     {row.needed - 1, false, STATUS_BUFFER_TOO_SMALL, 0, "value size too large"},
                     {row.needed, true, STATUS_INVALID_PARAMETER, 0, "missing required param"}};
        for (const Case &c : cases) {
            LogCapture log;
            Request q(h, row.id, KSPROPERTY_TYPE_GET, c.size, stream);
            if (c.nullValue) {
                q.r.Value = nullptr;
            }
            EXPECT_EQ(q.synth(), c.status) << c.size;
            EXPECT_EQ(q.r.ValueSize, c.sizeAfter);
            EXPECT_EQ(q.value[0], 0xCC);
            EXPECT_TRUE(log.contains(c.message));
        }
    }
}

TEST(SynthProperties, SetAndFilterOnlyRequestsAreRefused)
{
    PortHarness h;
    PMXF stream = h.newStream(DMUS_STREAM_MIDI_RENDER);
    struct Row {
        ULONG id, verb;
        bool throughPin;
        ULONG sizeAfter;
        const char *message;
    } rows[] = {
        {KSPROPERTY_SYNTH_CAPS, KSPROPERTY_TYPE_SET, true, 300, "PropertyHandler_Synth ----- got KSPROPERTY_TYPE_SET"},
        {KSPROPERTY_SYNTH_LATENCYCLOCK, KSPROPERTY_TYPE_SET, true, 300, "PropertyHandler_Synth ----- got KSPROPERTY_SET"},
        {KSPROPERTY_SYNTH_PORTPARAMETERS, KSPROPERTY_TYPE_SET, true, 300,
         "CMiniportAmbrelStream::HandlePortParams ----- KSPROPERTY_TYPE_SET - error"},
        {KSPROPERTY_SYNTH_PORTPARAMETERS, KSPROPERTY_TYPE_GET, false, 300, "PropertyHandler_Synth ----- got no stream"},
        {KSPROPERTY_SYNTH_LATENCYCLOCK, KSPROPERTY_TYPE_GET, false, 0, "PropertyHandler_Synth ----- got no stream"},
        {KSPROPERTY_SYNTH_PORTPARAMETERS, KSPROPERTY_TYPE_BASICSUPPORT, false, 0,
         "PropertyHandler_Synth ----- got not minortarget"},
    };
    for (const Row &row : rows) {
        LogCapture log;
        Request q(h, row.id, row.verb, 300, row.throughPin ? stream : nullptr);
        EXPECT_EQ(q.synth(), STATUS_INVALID_DEVICE_REQUEST) << row.message;
        EXPECT_EQ(q.r.ValueSize, row.sizeAfter) << row.message;
        EXPECT_EQ(q.value[0], 0xCC);
        EXPECT_TRUE(log.contains(row.message));
    }
}

TEST(SynthProperties, BasicSupportAnswers)
{
    PortHarness h;
    PMXF stream = h.newStream(DMUS_STREAM_MIDI_RENDER);
    struct Row {
        ULONG id, access;
    } rows[] = {{KSPROPERTY_SYNTH_CAPS, 0x201},
                {KSPROPERTY_SYNTH_CHANNELGROUPS, 0x203},
                {KSPROPERTY_SYNTH_LATENCYCLOCK, 0x200},
                {KSPROPERTY_SYNTH_PORTPARAMETERS, 0x201}};
    for (const Row &row : rows) {
        Request q(h, row.id, KSPROPERTY_TYPE_BASICSUPPORT | KSPROPERTY_TYPE_GET, 4, stream);
        EXPECT_EQ(q.synth(), STATUS_SUCCESS);
        EXPECT_EQ(q.u32(), row.access) << row.id;
        EXPECT_EQ(q.r.ValueSize, 4u);
    }
}

TEST(SynthProperties, CapsDescribeTheSideAndThePortName)
{
    std::u16string longName(200, u'x');
    PortHarness h(u"Piano");
    PortHarness longPort(longName.c_str());
    struct Row {
        PortHarness *port;
        ULONG node;
        const GUID *clsid;
        std::u16string text;
    } rows[] = {
        {&h, 0, &CLSID_MiniportDriverDMusUART, u"Ambrel Out: Piano"},
        {&h, 1, &CLSID_MiniportDriverDMusUARTCapture, u"Ambrel In: Piano"},
        {&longPort, 0, &CLSID_MiniportDriverDMusUART, (u"Ambrel Out: " + longName).substr(0, 127)},
    };
    for (const Row &row : rows) {
        Request q(*row.port, KSPROPERTY_SYNTH_CAPS, KSPROPERTY_TYPE_GET, 400, nullptr, row.node);
        ASSERT_EQ(q.synth(), STATUS_SUCCESS);
        EXPECT_EQ(q.r.ValueSize, 296u);
        const SYNTHCAPS *caps = reinterpret_cast<const SYNTHCAPS *>(q.value.data());
        EXPECT_EQ(caps->Guid, *row.clsid);
        EXPECT_EQ(caps->Flags, (DWORD)SYNTH_PC_EXTERNAL);
        EXPECT_EQ(caps->MaxChannelGroups, 1u);
        EXPECT_EQ(caps->MaxVoices, 0xFFFFFFFFu);
        EXPECT_EQ(caps->MaxAudioChannels, 0xFFFFFFFFu);
        EXPECT_EQ(caps->MemorySize | caps->EffectFlags, 0u);
        EXPECT_EQ(toU16(caps->Description), row.text);
        // The rest of the field is zero, and nothing past the structure is written.
        size_t used = row.text.size();
        for (size_t i = used; i < 128; i++) {
            EXPECT_EQ(caps->Description[i], 0) << i;
        }
        EXPECT_EQ(q.value[296], 0xCC);
    }

    // Once the application has closed the port, only the side is left.
    h.detach();
    Request q(h, KSPROPERTY_SYNTH_CAPS, KSPROPERTY_TYPE_GET, 296, nullptr, 1);
    ASSERT_EQ(q.synth(), STATUS_SUCCESS);
    EXPECT_EQ(toU16(reinterpret_cast<const SYNTHCAPS *>(q.value.data())->Description), u"Ambrel In");
}

TEST(SynthProperties, PortParametersEchoOnlyTheChannelGroup)
{
    PortHarness h;
    PMXF stream = h.newStream(DMUS_STREAM_MIDI_RENDER);
    struct Row {
        ULONG validIn, validOut;
    } rows[] = {{0x7F, 0x2}, {0x0, 0x0}, {0x2, 0x2}};
    for (const Row &row : rows) {
        SYNTH_PORTPARAMS in = {row.validIn, 32, 16, 2, 44100, 5, 1};
        Request q(h, KSPROPERTY_SYNTH_PORTPARAMETERS, KSPROPERTY_TYPE_GET, 28, stream);
        q.r.Instance = &in;
        q.r.InstanceSize = sizeof(in);
        ASSERT_EQ(q.synth(), STATUS_SUCCESS);
        EXPECT_EQ(q.r.ValueSize, 28u);
        const SYNTH_PORTPARAMS *out = reinterpret_cast<const SYNTH_PORTPARAMS *>(q.value.data());
        EXPECT_EQ(out->ValidParams, row.validOut);
        EXPECT_EQ(out->ChannelGroups, 1u);
        EXPECT_EQ(std::vector<DWORD>({out->Voices, out->AudioChannels, out->SampleRate, out->EffectsFlags, out->Share}),
                  std::vector<DWORD>({32, 2, 44100, 5, 1}));
    }

    // Instance data shorter than the parameters is refused, not read past.
    LogCapture log;
    std::vector<uint8_t> shortInstance(27, 0x7F);
    Request q(h, KSPROPERTY_SYNTH_PORTPARAMETERS, KSPROPERTY_TYPE_GET, 28, stream);
    q.r.Instance = shortInstance.data();
    q.r.InstanceSize = (ULONG)shortInstance.size();
    EXPECT_EQ(q.synth(), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(q.r.ValueSize, 0u);
    EXPECT_EQ(q.value[0], 0xCC);
    EXPECT_TRUE(log.contains("CMiniportAmbrelStream::HandlePortParams ----- instance too small: 27"));
}

TEST(SynthProperties, ChannelGroupsAndLatencyClock)
{
    PortHarness h;
    PMXF stream = h.newStream(DMUS_STREAM_MIDI_RENDER);

    Request set(h, KSPROPERTY_SYNTH_CHANNELGROUPS, KSPROPERTY_TYPE_SET, 4, stream);
    *reinterpret_cast<ULONG *>(set.value.data()) = 4;
    EXPECT_EQ(set.synth(), STATUS_SUCCESS);
    EXPECT_EQ(set.u32(), 1u);

    h.clock.now = 123456789;
    Request clock(h, KSPROPERTY_SYNTH_LATENCYCLOCK, KSPROPERTY_TYPE_GET, 8, stream);
    EXPECT_EQ(clock.synth(), STATUS_SUCCESS);
    EXPECT_EQ(*reinterpret_cast<const REFERENCE_TIME *>(clock.value.data()), 123456789);
    EXPECT_EQ(clock.r.ValueSize, 8u);

    // A stream created without a master clock leaves the port without one.
    PortHarness noClock;
    PMXF bare = noClock.newStream(DMUS_STREAM_MIDI_RENDER, nullptr, true, false);
    LogCapture log;
    Request none(noClock, KSPROPERTY_SYNTH_LATENCYCLOCK, KSPROPERTY_TYPE_GET, 8, bare);
    EXPECT_EQ(none.synth(), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(none.r.ValueSize, 0u);
    EXPECT_TRUE(log.contains("PropertyHandler_Synth ----- no master clock"));
}

TEST(ComponentIdProperty, AnswersTheOpenIdentityOrItsDefaults)
{
    PortHarness h;
    struct Row {
        ULONG verb, size;
        PUNKNOWN major;
        NTSTATUS status;
        ULONG sizeAfter;
    } rows[] = {
        {KSPROPERTY_TYPE_GET, 72, h.unknown, STATUS_SUCCESS, 72},
        {KSPROPERTY_TYPE_GET, 100, nullptr, STATUS_SUCCESS, 72},
        {KSPROPERTY_TYPE_GET, 0, h.unknown, STATUS_BUFFER_OVERFLOW, 72},
        {KSPROPERTY_TYPE_GET, 71, h.unknown, STATUS_BUFFER_TOO_SMALL, 0},
        {KSPROPERTY_TYPE_BASICSUPPORT, 4, h.unknown, STATUS_SUCCESS, 4},
        {KSPROPERTY_TYPE_BASICSUPPORT, 0, h.unknown, STATUS_BUFFER_TOO_SMALL, 0},
        {KSPROPERTY_TYPE_SET, 72, h.unknown, STATUS_INVALID_DEVICE_REQUEST, 72},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(testing::Message() << row.verb << "/" << row.size);
        LogCapture log;
        std::vector<uint8_t> value(128, 0xCC);
        PCPROPERTY_REQUEST r;
        memset(&r, 0, sizeof(r));
        r.MajorTarget = row.major;
        r.Verb = row.verb;
        r.ValueSize = row.size;
        r.Value = value.data();
        EXPECT_EQ(PropertyHandler_ComponentId(&r), row.status);
        EXPECT_EQ(r.ValueSize, row.sizeAfter);
        EXPECT_TRUE(log.contains(NT_SUCCESS(row.status) ? "PropertyHandler_ComponentId +++++ succeeded"
                                                        : "PropertyHandler_ComponentId ----- failed: "));
        if (row.status != STATUS_SUCCESS) {
            EXPECT_EQ(value[0], 0xCC);
        } else if (row.verb == KSPROPERTY_TYPE_BASICSUPPORT) {
            EXPECT_EQ(*reinterpret_cast<ULONG *>(value.data()), 0x201u);
        } else {
            const KSCOMPONENTID *id = reinterpret_cast<const KSCOMPONENTID *>(value.data());
            EXPECT_EQ(id->Manufacturer, row.major ? h.miniport->m_ManufacturerGuid : DefaultManufacturerGuid);
            EXPECT_EQ(id->Product, row.major ? h.miniport->m_ProductGuid : DefaultProductGuid);
            EXPECT_EQ(id->Component, GUID_NULL);
            EXPECT_EQ(id->Name, GUID_NULL);
            EXPECT_EQ(id->Version, 1u);
            EXPECT_EQ(id->Revision, 0u);
            EXPECT_EQ(value[72], 0xCC);
        }
    }
}
