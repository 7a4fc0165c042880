// The filter a MIDI client sees for a port: three static descriptions (render
// and capture, capture only, render only), chosen by the port's direction.
//
// Everything here is constant data the framework reads in place, except the
// Technology of the two music ranges, which every miniport's Init rewrites.
// The tables must be initialised at load without run-time code, so the GUID
// values inside them are spelled out below; the identifiers they equal are
// named beside each one (and the tests compare them with the platform's).
#define AM_UNIT AM_UNIT_MINIPORT
#include "common/amcommon.h"
#include "amminiport.h"

#define AM_GUID_KSDATAFORMAT_TYPE_MUSIC \
    { 0xE725D360, 0x62CC, 0x11CF, { 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00 } }
#define AM_GUID_KSDATAFORMAT_SUBTYPE_MIDI \
    { 0x1D262760, 0xE957, 0x11CF, { 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00 } }
#define AM_GUID_KSDATAFORMAT_SUBTYPE_DIRECTMUSIC \
    { 0x1A82F8BC, 0x3F8B, 0x11D2, { 0xB7, 0x74, 0x00, 0x60, 0x08, 0x33, 0x16, 0xC1 } }
#define AM_GUID_KSDATAFORMAT_SUBTYPE_MIDI_BUS \
    { 0x2CA15FA0, 0x6CFE, 0x11CF, { 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00 } }
#define AM_GUID_KSDATAFORMAT_SPECIFIER_NONE \
    { 0x0F6417D6, 0xC318, 0x11D0, { 0xA4, 0x3F, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96 } }
#define AM_GUID_KSMUSIC_TECHNOLOGY_PORT \
    { 0x86C92E60, 0x62E8, 0x11CF, { 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00 } }
#define AM_GUID_KSCATEGORY_AUDIO \
    { 0x6994AD04, 0x93EF, 0x11D0, { 0xA3, 0xCC, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96 } }
#define AM_GUID_KSCATEGORY_RENDER \
    { 0x65E8773E, 0x8F56, 0x11D0, { 0xA3, 0xB9, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96 } }
#define AM_GUID_KSCATEGORY_CAPTURE \
    { 0x65E8773D, 0x8F56, 0x11D0, { 0xA3, 0xB9, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96 } }

// ------------------------------------------------------------------ data ranges

KSDATARANGE_MUSIC RangeMidiStream = {
    {{sizeof(KSDATARANGE_MUSIC), 0, 0, 0, AM_GUID_KSDATAFORMAT_TYPE_MUSIC, AM_GUID_KSDATAFORMAT_SUBTYPE_MIDI,
      AM_GUID_KSDATAFORMAT_SPECIFIER_NONE}},
    AM_GUID_KSMUSIC_TECHNOLOGY_PORT,
    0,
    0,
    0xFFFF,
};

KSDATARANGE_MUSIC RangeDirectMusicStream = {
    {{sizeof(KSDATARANGE_MUSIC), 0, 0, 0, AM_GUID_KSDATAFORMAT_TYPE_MUSIC, AM_GUID_KSDATAFORMAT_SUBTYPE_DIRECTMUSIC,
      AM_GUID_KSDATAFORMAT_SPECIFIER_NONE}},
    AM_GUID_KSMUSIC_TECHNOLOGY_PORT,
    0,
    0,
    0xFFFF,
};

KSDATARANGE RangeMidiBridge = {
    {sizeof(KSDATARANGE), 0, 0, 0, AM_GUID_KSDATAFORMAT_TYPE_MUSIC, AM_GUID_KSDATAFORMAT_SUBTYPE_MIDI_BUS,
     AM_GUID_KSDATAFORMAT_SPECIFIER_NONE},
};

static const PKSDATARANGE PinDataRangePointersLegacy[] = {&RangeMidiStream.DataRange};
static const PKSDATARANGE PinDataRangePointersDirectMusic[] = {&RangeDirectMusicStream.DataRange};
static const PKSDATARANGE PinDataRangePointersCombined[] = {&RangeMidiStream.DataRange,
                                                            &RangeDirectMusicStream.DataRange};
static const PKSDATARANGE PinDataRangePointersBridge[] = {&RangeMidiBridge};

// ------------------------------------------------------------------ property items and automation

static const PCPROPERTY_ITEM SynthPropertyItems[] = {
    {&KSPROPSETID_Synth, KSPROPERTY_SYNTH_CAPS, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_BASICSUPPORT,
     PropertyHandler_Synth},
    {&KSPROPSETID_Synth, KSPROPERTY_SYNTH_PORTPARAMETERS, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_BASICSUPPORT,
     PropertyHandler_Synth},
    {&KSPROPSETID_Synth, KSPROPERTY_SYNTH_CHANNELGROUPS,
     KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET | KSPROPERTY_TYPE_BASICSUPPORT, PropertyHandler_Synth},
    {&KSPROPSETID_Synth, KSPROPERTY_SYNTH_LATENCYCLOCK, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_BASICSUPPORT,
     PropertyHandler_Synth},
};

static const PCPROPERTY_ITEM FilterPropertyItems[] = {
    {&KSPROPSETID_General, KSPROPERTY_GENERAL_COMPONENTID, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_BASICSUPPORT,
     PropertyHandler_ComponentId},
};

#define AM_PROPERTY_TABLE(items) \
    { sizeof(PCPROPERTY_ITEM), RTL_NUMBER_OF(items), items, 0, 0, NULL, 0, 0, NULL, 0 }

static const PCAUTOMATION_TABLE AutomationFilter = AM_PROPERTY_TABLE(FilterPropertyItems);
static const PCAUTOMATION_TABLE AutomationSynthNode0 = AM_PROPERTY_TABLE(SynthPropertyItems);
static const PCAUTOMATION_TABLE AutomationSynthNode1 = AM_PROPERTY_TABLE(SynthPropertyItems);

// ------------------------------------------------------------------ pins

#define AM_PIN(instances, ranges, dataFlow, communication, name)                                          \
    {                                                                                                     \
        instances, instances, 0, NULL,                                                                    \
        {                                                                                                 \
            0, NULL, 0, NULL, RTL_NUMBER_OF(ranges), ranges, dataFlow, communication, &KSCATEGORY_AUDIO, \
                name,                                                                                     \
        }                                                                                                 \
    }

#define AM_PIN_LEGACY_RENDER \
    AM_PIN(8, PinDataRangePointersLegacy, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_SINK, &KSAUDFNAME_MIDI)
#define AM_PIN_DIRECTMUSIC_RENDER                                                               \
    AM_PIN(8, PinDataRangePointersDirectMusic, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_SINK, \
           &KSAUDFNAME_DMUSIC_MPU_OUT)
#define AM_PIN_RENDER_BRIDGE \
    AM_PIN(0, PinDataRangePointersBridge, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_NONE, NULL)
#define AM_PIN_CAPTURE_BRIDGE \
    AM_PIN(0, PinDataRangePointersBridge, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_NONE, NULL)
#define AM_PIN_CAPTURE                                                                         \
    AM_PIN(8, PinDataRangePointersCombined, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_SINK, \
           &KSAUDFNAME_DMUSIC_MPU_IN)

static const PCPIN_DESCRIPTOR PinsRenderCapture[] = {
    AM_PIN_LEGACY_RENDER, AM_PIN_DIRECTMUSIC_RENDER, AM_PIN_RENDER_BRIDGE, AM_PIN_CAPTURE_BRIDGE, AM_PIN_CAPTURE,
};
static const PCPIN_DESCRIPTOR PinsCaptureOnly[] = {
    AM_PIN_CAPTURE_BRIDGE,
    AM_PIN_CAPTURE,
};
static const PCPIN_DESCRIPTOR PinsRenderOnly[] = {
    AM_PIN_LEGACY_RENDER,
    AM_PIN_DIRECTMUSIC_RENDER,
    AM_PIN_RENDER_BRIDGE,
};

// ------------------------------------------------------------------ nodes, connections, categories

static const PCNODE_DESCRIPTOR SynthNodes[] = {
    {0, &AutomationSynthNode0, &KSNODETYPE_SYNTHESIZER, NULL},
    {0, &AutomationSynthNode1, &KSNODETYPE_SYNTHESIZER, NULL},
};

static const PCCONNECTION_DESCRIPTOR ConnectionsRenderCapture[] = {
    {PCFILTER_NODE, 0, PCFILTER_NODE, 2}, {PCFILTER_NODE, 1, 0, 1}, {0, 0, PCFILTER_NODE, 2},
    {PCFILTER_NODE, 3, 1, 1},             {1, 0, PCFILTER_NODE, 4},
};
// The capture side runs through node 0 here: the only node a capture-only
// filter connects.
static const PCCONNECTION_DESCRIPTOR ConnectionsCaptureOnly[] = {
    {PCFILTER_NODE, 0, 0, 1},
    {0, 0, PCFILTER_NODE, 1},
};
static const PCCONNECTION_DESCRIPTOR ConnectionsRenderOnly[] = {
    {PCFILTER_NODE, 0, PCFILTER_NODE, 2},
    {PCFILTER_NODE, 1, 0, 1},
    {0, 0, PCFILTER_NODE, 2},
};

static const GUID CategoriesRenderCapture[] = {AM_GUID_KSCATEGORY_AUDIO, AM_GUID_KSCATEGORY_RENDER,
                                               AM_GUID_KSCATEGORY_CAPTURE};
static const GUID CategoriesCaptureOnly[] = {AM_GUID_KSCATEGORY_AUDIO, AM_GUID_KSCATEGORY_CAPTURE};
static const GUID CategoriesRenderOnly[] = {AM_GUID_KSCATEGORY_AUDIO, AM_GUID_KSCATEGORY_RENDER};

// ------------------------------------------------------------------ filters

#define AM_FILTER(pins, connections, categories)                                                             \
    {                                                                                                        \
        0, &AutomationFilter, sizeof(PCPIN_DESCRIPTOR), RTL_NUMBER_OF(pins), pins, sizeof(PCNODE_DESCRIPTOR), \
            RTL_NUMBER_OF(SynthNodes), SynthNodes, RTL_NUMBER_OF(connections), connections,                 \
            RTL_NUMBER_OF(categories), categories                                                            \
    }

const PCFILTER_DESCRIPTOR FilterDescriptorRenderCapture =
    AM_FILTER(PinsRenderCapture, ConnectionsRenderCapture, CategoriesRenderCapture);
const PCFILTER_DESCRIPTOR FilterDescriptorCaptureOnly =
    AM_FILTER(PinsCaptureOnly, ConnectionsCaptureOnly, CategoriesCaptureOnly);
const PCFILTER_DESCRIPTOR FilterDescriptorRenderOnly =
    AM_FILTER(PinsRenderOnly, ConnectionsRenderOnly, CategoriesRenderOnly);

// ------------------------------------------------------------------ GetDescription

PAGED_CODE_SEG STDMETHODIMP_(NTSTATUS) CMiniportAmbrel::GetDescription(_Out_ PPCFILTER_DESCRIPTOR *OutFilterDescriptor)
{
    AmPagedCode();

    AmLog("GetDescription");
    AmAssert(OutFilterDescriptor);
    if (OutFilterDescriptor == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    const PCFILTER_DESCRIPTOR *description;
    switch (m_PortFlags & (PORT_FLAG_CAPTURE | PORT_FLAG_RENDER)) {
    case PORT_FLAG_RENDER:
        AmLog("GetDescription::Render only");
        description = &FilterDescriptorRenderOnly;
        break;
    case PORT_FLAG_CAPTURE:
        AmLog("GetDescription::Capture only");
        description = &FilterDescriptorCaptureOnly;
        break;
    default:
        AmLog("GetDescription::Render & Capture");
        description = &FilterDescriptorRenderCapture;
        break;
    }
    // The framework reads the description in place and never writes it.
    *OutFilterDescriptor = const_cast<PPCFILTER_DESCRIPTOR>(description);

    AmLog("GetDescription +++++ succeeded");
    return STATUS_SUCCESS;
}
