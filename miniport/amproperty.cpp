// What a MIDI client learns about a port through its properties: an external
// MIDI port with one channel group, described by its side and its name, with
// the component identity the application gave at open.
#define AM_UNIT AM_UNIT_MINIPORT
#include "common/amcommon.h"
#include "amminiport.h"

// Room of SYNTHCAPS.Description in characters, terminator included.
#define AM_CAPS_DESCRIPTION_CCH RTL_NUMBER_OF(((SYNTHCAPS *)0)->Description)

static CMiniportAmbrel *MiniportOf(_In_ PPCPROPERTY_REQUEST pRequest)
{
    // The framework's major target is the miniport's IMiniportDMus face.
    return static_cast<CMiniportAmbrel *>(static_cast<PMINIPORTDMUS>(pRequest->MajorTarget));
}

static CMiniportAmbrelStream *StreamOf(_In_ PPCPROPERTY_REQUEST pRequest)
{
    // The minor target of a request through a pin is the stream's IMXF face.
    return static_cast<CMiniportAmbrelStream *>(static_cast<PMXF>(pRequest->MinorTarget));
}

PAGED_CODE_SEG NTSTATUS ValidatePropertyRequest(_In_ PPCPROPERTY_REQUEST pRequest, _In_ ULONG valueSize,
                                 _In_ BOOLEAN valueRequired)
{
    AmPagedCode();

    AmLog("ValidatePropertyRequest");
    NTSTATUS status;
    if (pRequest->ValueSize >= valueSize) {
        if (valueRequired && pRequest->Value == NULL) {
            AmLog("missing required param");
            status = STATUS_INVALID_PARAMETER;
        } else {
            status = STATUS_SUCCESS;
        }
    } else if (pRequest->ValueSize == 0) {
        AmLog("value size is zero");
        status = STATUS_BUFFER_OVERFLOW;
    } else {
        AmLog("value size too large");
        status = STATUS_BUFFER_TOO_SMALL;
    }

    // A size query learns the size; every other answer, success included,
    // leaves 0 for the caller to set.
    pRequest->ValueSize = (status == STATUS_BUFFER_OVERFLOW) ? valueSize : 0;

    if (status == STATUS_SUCCESS) {
        AmLog("ValidatePropertyRequest +++++ succeeded");
    } else {
        AmLog("ValidatePropertyRequest ----- failed: %x", (ULONG)status);
    }
    return status;
}

PAGED_CODE_SEG static NTSTATUS SynthBasicSupport(_In_ PPCPROPERTY_REQUEST pRequest)
{
    NTSTATUS status = ValidatePropertyRequest(pRequest, sizeof(ULONG), TRUE);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    ULONG id = pRequest->PropertyItem->Id;
    ULONG access = KSPROPERTY_TYPE_BASICSUPPORT;
    switch (id) {
    case KSPROPERTY_SYNTH_CAPS:
        access |= KSPROPERTY_TYPE_GET;
        break;
    case KSPROPERTY_SYNTH_CHANNELGROUPS:
        access |= KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET;
        break;
    case KSPROPERTY_SYNTH_PORTPARAMETERS:
        // Port parameters belong to a stream: through the filter there is
        // none to answer them. Refused before anything is written.
        if (pRequest->MinorTarget == NULL) {
            AmLog("PropertyHandler_Synth ----- got not minortarget");
            pRequest->ValueSize = 0;
            return STATUS_INVALID_DEVICE_REQUEST;
        }
        access |= KSPROPERTY_TYPE_GET;
        break;
    default:
        break;
    }
    *(PULONG)pRequest->Value = access;
    pRequest->ValueSize = sizeof(ULONG);
    return STATUS_SUCCESS;
}

PAGED_CODE_SEG static NTSTATUS SynthCaps(_In_ PPCPROPERTY_REQUEST pRequest)
{
    AmLog("PropertyHandler_Synth ***** KSPROPERTY_SYNTH_CAPS");
    if (pRequest->Verb & KSPROPERTY_TYPE_SET) {
        AmLog("PropertyHandler_Synth ----- got KSPROPERTY_TYPE_SET");
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    NTSTATUS status = ValidatePropertyRequest(pRequest, sizeof(SYNTHCAPS), TRUE);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    SYNTHCAPS *caps = (SYNTHCAPS *)pRequest->Value;
    RtlZeroMemory(caps, sizeof(SYNTHCAPS));
    PCWSTR side;
    if (pRequest->Node == 0) {
        side = L"Ambrel Out";
        caps->Guid = CLSID_MiniportDriverDMusUART;
    } else {
        side = L"Ambrel In";
        caps->Guid = CLSID_MiniportDriverDMusUARTCapture;
    }
    caps->Flags = SYNTH_PC_EXTERNAL;
    caps->MemorySize = 0;
    caps->MaxChannelGroups = 1;
    caps->MaxVoices = 0xFFFFFFFF;
    caps->MaxAudioChannels = 0xFFFFFFFF;
    caps->EffectFlags = 0;

    // Cut to the field, whatever the name's length; the formatting result
    // carries no news beyond that.
    RtlStringCchPrintfW(caps->Description, AM_CAPS_DESCRIPTION_CCH, L"%s", side);
    AmAssert(pRequest->MajorTarget);
    if (pRequest->MajorTarget != NULL) {
        CMiniportAmbrel *miniport = MiniportOf(pRequest);
        // Attached or not is all the record is asked: the name is the
        // miniport's copy, valid however the close races with this.
        if (miniport->AttachedPortRecord() != NULL) {
            RtlStringCchPrintfW(caps->Description, AM_CAPS_DESCRIPTION_CCH, L"%s: %s", side, miniport->m_PortName);
        }
    }

    pRequest->ValueSize = sizeof(SYNTHCAPS);
    return STATUS_SUCCESS;
}

PAGED_CODE_SEG static NTSTATUS SynthLatencyClock(_In_ PPCPROPERTY_REQUEST pRequest)
{
    AmLog("PropertyHandler_Synth ***** KSPROPERTY_SYNTH_LATENCYCLOCK");
    if (pRequest->Verb & KSPROPERTY_TYPE_SET) {
        AmLog("PropertyHandler_Synth ----- got KSPROPERTY_SET");
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    NTSTATUS status = ValidatePropertyRequest(pRequest, sizeof(REFERENCE_TIME), TRUE);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (pRequest->MinorTarget == NULL) {
        AmLog("PropertyHandler_Synth ----- got no stream");
        return STATUS_INVALID_DEVICE_REQUEST;
    }

    // The latency clock is the master clock itself. A stream created without
    // one leaves nothing to read: the clock is not ready.
    PMASTERCLOCK clock = StreamOf(pRequest)->Miniport()->MasterClock();
    if (clock == NULL) {
        AmLog("PropertyHandler_Synth ----- no master clock");
        return STATUS_DEVICE_NOT_READY;
    }
    REFERENCE_TIME now = 0;
    clock->GetTime(&now);
    *(REFERENCE_TIME *)pRequest->Value = now;
    pRequest->ValueSize = sizeof(REFERENCE_TIME);
    return STATUS_SUCCESS;
}

PAGED_CODE_SEG NTSTATUS NTAPI PropertyHandler_Synth(_In_ PPCPROPERTY_REQUEST pRequest)
{
    AmPagedCode();

    AmLog("PropertyHandler_Synth");
    if (pRequest == NULL || pRequest->PropertyItem == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    if (pRequest->Verb & KSPROPERTY_TYPE_BASICSUPPORT) {
        return SynthBasicSupport(pRequest);
    }

    NTSTATUS status;
    switch (pRequest->PropertyItem->Id) {
    case KSPROPERTY_SYNTH_CAPS:
        status = SynthCaps(pRequest);
        break;

    case KSPROPERTY_SYNTH_PORTPARAMETERS:
        AmLog("PropertyHandler_Synth ***** KSPROPERTY_SYNTH_PORTPARAMETERS");
        if (pRequest->MinorTarget != NULL) {
            status = StreamOf(pRequest)->HandlePortParams(pRequest);
        } else {
            AmLog("PropertyHandler_Synth ----- got no stream");
            status = STATUS_INVALID_DEVICE_REQUEST;
        }
        break;

    case KSPROPERTY_SYNTH_CHANNELGROUPS:
        // A SET is accepted and answered like a GET: the port has one channel
        // group, whatever the client asks for.
        AmLog("PropertyHandler_Synth ***** KSPROPERTY_SYNTH_CHANNELGROUPS");
        status = ValidatePropertyRequest(pRequest, sizeof(ULONG), TRUE);
        if (NT_SUCCESS(status)) {
            *(PULONG)pRequest->Value = 1;
            pRequest->ValueSize = sizeof(ULONG);
        }
        break;

    case KSPROPERTY_SYNTH_LATENCYCLOCK:
        status = SynthLatencyClock(pRequest);
        break;

    default:
        status = STATUS_INVALID_DEVICE_REQUEST;
        break;
    }
    return status;
}

PAGED_CODE_SEG NTSTATUS CMiniportAmbrelStream::HandlePortParams(_In_ PPCPROPERTY_REQUEST pRequest)
{
    AmPagedCode();

    AmLog("CMiniportAmbrelStream::HandlePortParams");
    if (pRequest->Verb & KSPROPERTY_TYPE_SET) {
        AmLog("CMiniportAmbrelStream::HandlePortParams ----- KSPROPERTY_TYPE_SET - error");
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    NTSTATUS status = ValidatePropertyRequest(pRequest, sizeof(SYNTH_PORTPARAMS), TRUE);
    if (!NT_SUCCESS(status)) {
        AmLog("CMiniportAmbrelStream::HandlePortParams ----- ValidatePropertyRequest failed: %x", (ULONG)status);
        return status;
    }
    // The answer echoes the parameters the client proposed: a request that
    // carries fewer of them than a whole SYNTH_PORTPARAMS is malformed and
    // is refused before anything is read or written.
    if (pRequest->Instance == NULL || pRequest->InstanceSize < sizeof(SYNTH_PORTPARAMS)) {
        AmLog("CMiniportAmbrelStream::HandlePortParams ----- instance too small: %d", (int)pRequest->InstanceSize);
        return STATUS_INVALID_PARAMETER;
    }

    SYNTH_PORTPARAMS *params = (SYNTH_PORTPARAMS *)pRequest->Value;
    RtlCopyMemory(params, pRequest->Instance, sizeof(SYNTH_PORTPARAMS));
    params->ValidParams &= SYNTH_PORTPARAMS_CHANNELGROUPS;
    params->ChannelGroups = 1;

    pRequest->ValueSize = sizeof(SYNTH_PORTPARAMS);
    AmLog("CMiniportAmbrelStream::HandlePortParams +++++ succeeded");
    return STATUS_SUCCESS;
}

PAGED_CODE_SEG NTSTATUS NTAPI PropertyHandler_ComponentId(_In_ PPCPROPERTY_REQUEST pRequest)
{
    AmPagedCode();

    AmLog("PropertyHandler_ComponentId");
    AmAssertNamed(pRequest != NULL, "PropertyRequest");
    if (pRequest == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    NTSTATUS status = STATUS_INVALID_DEVICE_REQUEST;
    if (pRequest->Verb & KSPROPERTY_TYPE_GET) {
        if (pRequest->ValueSize >= sizeof(KSCOMPONENTID)) {
            if (pRequest->Value == NULL) {
                pRequest->ValueSize = 0;
                status = STATUS_INVALID_PARAMETER;
            } else {
                AmLog("PropertyHandler_ComponentId for %x %x", (ULONG)(ULONG_PTR)pRequest->MajorTarget,
                      (ULONG)(ULONG_PTR)pRequest->MinorTarget);
                KSCOMPONENTID *id = (KSCOMPONENTID *)pRequest->Value;
                if (pRequest->MajorTarget != NULL) {
                    CMiniportAmbrel *miniport = MiniportOf(pRequest);
                    id->Manufacturer = miniport->m_ManufacturerGuid;
                    id->Product = miniport->m_ProductGuid;
                } else {
                    id->Manufacturer = DefaultManufacturerGuid;
                    id->Product = DefaultProductGuid;
                }
                id->Component = GUID_NULL;
                id->Name = GUID_NULL;
                id->Version = 1;
                id->Revision = 0;
                pRequest->ValueSize = sizeof(KSCOMPONENTID);
                status = STATUS_SUCCESS;
            }
        } else if (pRequest->ValueSize == 0) {
            pRequest->ValueSize = sizeof(KSCOMPONENTID);
            status = STATUS_BUFFER_OVERFLOW;
        } else {
            pRequest->ValueSize = 0;
            status = STATUS_BUFFER_TOO_SMALL;
        }
    } else if (pRequest->Verb & KSPROPERTY_TYPE_BASICSUPPORT) {
        if (pRequest->ValueSize >= sizeof(ULONG) && pRequest->Value != NULL) {
            *(PULONG)pRequest->Value = KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_BASICSUPPORT;
            pRequest->ValueSize = sizeof(ULONG);
            status = STATUS_SUCCESS;
        } else {
            pRequest->ValueSize = 0;
            status = STATUS_BUFFER_TOO_SMALL;
        }
    }

    if (NT_SUCCESS(status)) {
        AmLog("PropertyHandler_ComponentId +++++ succeeded");
    } else {
        AmLog("PropertyHandler_ComponentId ----- failed: %x", (ULONG)status);
    }
    return status;
}
