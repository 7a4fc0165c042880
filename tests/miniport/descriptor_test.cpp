// The three filter descriptions as the framework reads them.
#include "mp_harness.h"

using hostkernel::LogCapture;

namespace {

enum PinKind { LegacyRender, DirectMusicRender, RenderBridge, CaptureBridge, Capture };

struct PinExpectation {
    ULONG instances;
    KSPIN_DATAFLOW flow;
    KSPIN_COMMUNICATION communication;
    const GUID *name;
    std::vector<const GUID *> subFormats;
};

PinExpectation expectationOf(PinKind kind)
{
    switch (kind) {
    case LegacyRender:
        return {8, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_SINK, &KSAUDFNAME_MIDI, {&KSDATAFORMAT_SUBTYPE_MIDI}};
    case DirectMusicRender:
        return {8, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_SINK, &KSAUDFNAME_DMUSIC_MPU_OUT,
                {&KSDATAFORMAT_SUBTYPE_DIRECTMUSIC}};
    case RenderBridge:
        return {0, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_NONE, nullptr, {&KSDATAFORMAT_SUBTYPE_MIDI_BUS}};
    case CaptureBridge:
        return {0, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_NONE, nullptr, {&KSDATAFORMAT_SUBTYPE_MIDI_BUS}};
    case Capture:
    default:
        return {8, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_SINK, &KSAUDFNAME_DMUSIC_MPU_IN,
                {&KSDATAFORMAT_SUBTYPE_MIDI, &KSDATAFORMAT_SUBTYPE_DIRECTMUSIC}};
    }
}

struct Connection {
    ULONG fromNode, fromPin, toNode, toPin;
};
const ULONG F = PCFILTER_NODE;

struct Variant {
    ULONG flags;
    const char *logText;
    std::vector<PinKind> pins;
    std::vector<Connection> connections;
    std::vector<const GUID *> categories;
};

} // namespace

TEST(FilterDescriptor, DirectionChoosesTheVariant)
{
    const std::vector<Connection> full = {{F, 0, F, 2}, {F, 1, 0, 1}, {0, 0, F, 2}, {F, 3, 1, 1}, {1, 0, F, 4}};
    const std::vector<PinKind> allPins = {LegacyRender, DirectMusicRender, RenderBridge, CaptureBridge, Capture};
    const std::vector<const GUID *> allCategories = {&KSCATEGORY_AUDIO, &KSCATEGORY_RENDER, &KSCATEGORY_CAPTURE};
    const Variant variants[] = {
        {0, "Render & Capture", allPins, full, allCategories},
        {3, "Render & Capture", allPins, full, allCategories},
        {0x4, "Render & Capture", allPins, full, allCategories},
        {1, "Capture only", {CaptureBridge, Capture}, {{F, 0, 0, 1}, {0, 0, F, 1}},
         {&KSCATEGORY_AUDIO, &KSCATEGORY_CAPTURE}},
        {2 | 0x10, "Render only", {LegacyRender, DirectMusicRender, RenderBridge},
         {{F, 0, F, 2}, {F, 1, 0, 1}, {0, 0, F, 2}}, {&KSCATEGORY_AUDIO, &KSCATEGORY_RENDER}},
    };

    for (const Variant &v : variants) {
        SCOPED_TRACE(v.flags);
        LogCapture log;
        PortHarness h(u"Piano", v.flags);
        PPCFILTER_DESCRIPTOR d = nullptr;
        ASSERT_EQ(h.miniport->GetDescription(&d), STATUS_SUCCESS);
        EXPECT_TRUE(log.contains(std::string("Ambrel:Miniport: GetDescription::") + v.logText));
        EXPECT_TRUE(log.contains("GetDescription +++++ succeeded"));

        EXPECT_EQ(d->Version, 0u);
        ASSERT_EQ(d->PinCount, v.pins.size());
        EXPECT_EQ(d->PinSize, sizeof(PCPIN_DESCRIPTOR));
        for (size_t id = 0; id < v.pins.size(); id++) {
            SCOPED_TRACE(id);
            const PCPIN_DESCRIPTOR &pin = d->Pins[id];
            PinExpectation e = expectationOf(v.pins[id]);
            EXPECT_EQ(pin.MaxGlobalInstanceCount, e.instances);
            EXPECT_EQ(pin.MaxFilterInstanceCount, e.instances);
            EXPECT_EQ(pin.MinFilterInstanceCount, 0u);
            EXPECT_EQ(pin.AutomationTable, nullptr);
            const KSPIN_DESCRIPTOR &ks = pin.KsPinDescriptor;
            EXPECT_EQ(ks.InterfacesCount, 0u);
            EXPECT_EQ(ks.MediumsCount, 0u);
            EXPECT_EQ(ks.DataFlow, e.flow);
            EXPECT_EQ(ks.Communication, e.communication);
            EXPECT_EQ(*ks.Category, KSCATEGORY_AUDIO);
            if (e.name == nullptr) {
                EXPECT_EQ(ks.Name, nullptr);
            } else {
                ASSERT_NE(ks.Name, nullptr);
                EXPECT_EQ(*ks.Name, *e.name);
            }
            ASSERT_EQ(ks.DataRangesCount, e.subFormats.size());
            for (size_t r = 0; r < e.subFormats.size(); r++) {
                EXPECT_EQ(ks.DataRanges[r]->SubFormat, *e.subFormats[r]);
                EXPECT_EQ(ks.DataRanges[r]->MajorFormat, KSDATAFORMAT_TYPE_MUSIC);
                EXPECT_EQ(ks.DataRanges[r]->Specifier, KSDATAFORMAT_SPECIFIER_NONE);
            }
        }

        ASSERT_EQ(d->ConnectionCount, v.connections.size());
        for (size_t c = 0; c < v.connections.size(); c++) {
            const PCCONNECTION_DESCRIPTOR &got = d->Connections[c];
            const Connection &want = v.connections[c];
            EXPECT_EQ(std::vector<ULONG>({got.FromNode, got.FromNodePin, got.ToNode, got.ToNodePin}),
                      std::vector<ULONG>({want.fromNode, want.fromPin, want.toNode, want.toPin}))
                << "connection " << c;
        }
        ASSERT_EQ(d->CategoryCount, v.categories.size());
        for (size_t c = 0; c < v.categories.size(); c++) {
            EXPECT_EQ(d->Categories[c], *v.categories[c]);
        }

        // Both nodes, each with its own table of the four synth properties.
        ASSERT_EQ(d->NodeCount, 2u);
        EXPECT_NE(d->Nodes[0].AutomationTable, d->Nodes[1].AutomationTable);
        for (ULONG n = 0; n < 2; n++) {
            EXPECT_EQ(*d->Nodes[n].Type, KSNODETYPE_SYNTHESIZER);
            const PCAUTOMATION_TABLE *t = d->Nodes[n].AutomationTable;
            EXPECT_EQ(t->PropertyItemSize, sizeof(PCPROPERTY_ITEM));
            ASSERT_EQ(t->PropertyCount, 4u);
            const ULONG ids[] = {KSPROPERTY_SYNTH_CAPS, KSPROPERTY_SYNTH_PORTPARAMETERS,
                                 KSPROPERTY_SYNTH_CHANNELGROUPS, KSPROPERTY_SYNTH_LATENCYCLOCK};
            const ULONG flags[] = {0x201, 0x201, 0x203, 0x201};
            for (ULONG i = 0; i < 4; i++) {
                EXPECT_EQ(*t->Properties[i].Set, KSPROPSETID_Synth);
                EXPECT_EQ(t->Properties[i].Id, ids[i]);
                EXPECT_EQ(t->Properties[i].Flags, flags[i]);
                EXPECT_EQ(t->Properties[i].Handler, PropertyHandler_Synth);
            }
        }
        const PCAUTOMATION_TABLE *filter = d->AutomationTable;
        ASSERT_EQ(filter->PropertyCount, 1u);
        EXPECT_EQ(*filter->Properties[0].Set, KSPROPSETID_General);
        EXPECT_EQ(filter->Properties[0].Id, (ULONG)KSPROPERTY_GENERAL_COMPONENTID);
        EXPECT_EQ(filter->Properties[0].Flags, 0x201u);
        EXPECT_EQ(filter->Properties[0].Handler, PropertyHandler_ComponentId);
    }
}

TEST(FilterDescriptor, RangesHaveThePublishedLayout)
{
    EXPECT_EQ(RangeMidiStream.DataRange.FormatSize, 96u);
    EXPECT_EQ(RangeDirectMusicStream.DataRange.FormatSize, 96u);
    EXPECT_EQ(RangeMidiBridge.FormatSize, 64u);
    for (const KSDATARANGE_MUSIC *r : {&RangeMidiStream, &RangeDirectMusicStream}) {
        EXPECT_EQ(r->Channels, 0u);
        EXPECT_EQ(r->Notes, 0u);
        EXPECT_EQ(r->ChannelMask, 0xFFFFu);
        EXPECT_EQ(r->DataRange.Flags | r->DataRange.SampleSize | r->DataRange.Reserved, 0u);
    }
}
