// The port's miniport object: creation, interfaces, initialisation, pin
// names, stream admission and the application's side of the capture path.
#define AM_UNIT AM_UNIT_MINIPORT
#include "common/amcommon.h"
#include "common/amstring.h"
#include "amminiport.h"

static_assert(FIELD_OFFSET(CaptureItem, data) <= AM_CAPTURE_ITEM_HEADER, "CaptureItem header outgrew its room");

// ------------------------------------------------------------------ creation

PAGED_CODE_SEG NTSTATUS CreateMiniportAmbrel(_Out_ PUNKNOWN *unknown, _In_ REFCLSID classId, _In_opt_ PUNKNOWN outerUnknown,
                              _In_ POOL_TYPE poolType, _In_opt_ MidiPort *portRecord, _In_ ULONG sysexSize,
                              _In_ ULONG portFlags, _In_ const GUID *manufacturerGuid,
                              _In_ const GUID *productGuid)
{
    UNREFERENCED_PARAMETER(classId);
    AmPagedCode();

    AmLog("CreateMiniportAmbrel");
    AmAssertNamed(unknown != NULL, "Unknown");
    if (unknown == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    CMiniportAmbrel *miniport = new (poolType, AMBREL_POOL_TAG) CMiniportAmbrel(outerUnknown);
    if (miniport == NULL) {
        AmLog("CreateMiniportAmbrel ------ insufficient resources!");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    AmLog("CreateMiniportAmbrel: %x", (ULONG)(ULONG_PTR)miniport);

    miniport->m_SysexSize = sysexSize;
    miniport->m_PortFlags = portFlags;
    if (manufacturerGuid != NULL) {
        miniport->m_ManufacturerGuid = *manufacturerGuid;
    }
    if (productGuid != NULL) {
        miniport->m_ProductGuid = *productGuid;
    }

    // The FIFO logs its own size and failure; a half-built object goes
    // straight back to pool, before anybody could have seen it.
    NTSTATUS status = miniport->m_Fifo.FifoCreate(sysexSize);
    if (!NT_SUCCESS(status)) {
        delete miniport;
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    *unknown = static_cast<PUNKNOWN>(static_cast<PMINIPORTDMUS>(miniport));
    (*unknown)->AddRef();

    miniport->m_PortRecord = portRecord;
    for (ULONG slot = 0; slot < AM_MAX_CAPTURE_STREAMS; slot++) {
        miniport->m_CaptureLists[slot] = NULL;
        miniport->m_CaptureSlotUsed[slot] = 0;
    }
    KeInitializeSpinLock(&miniport->m_Lock);

    if (portRecord != NULL) {
        // The name is copied now, while the record is certainly alive: pin
        // names and synth caps are asked for long after the application may
        // have closed its handle and the record is gone.
        const ULONG chars = RTL_NUMBER_OF(miniport->m_PortName);
        SIZE_T length = AmWcsNLen(portRecord->Name, chars - 1);
        RtlCopyMemory(miniport->m_PortName, portRecord->Name, length * sizeof(WCHAR));
        miniport->m_PortName[length] = L'\0';
        portRecord->Miniport = miniport;
    }

    AmLog("CreateMiniportAmbrel +++++ succeeded");
    return STATUS_SUCCESS;
}

// ------------------------------------------------------------------ IUnknown

PAGED_CODE_SEG STDMETHODIMP_(NTSTATUS) CMiniportAmbrel::NonDelegatingQueryInterface(_In_ REFIID iid, _Out_ PVOID *object)
{
    AmPagedCode();

    AmLog("CMiniportAmbrel::NonDelegatingQueryInterface");
    AmAssertNamed(object != NULL, "Object");
    if (object == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    if (IsEqualGUIDAligned(iid, IID_IUnknown)) {
        AmLog("CMiniportAmbrel::NonDelegatingQueryInterface ***** is unknown");
        *object = static_cast<PVOID>(static_cast<PMINIPORTDMUS>(this));
    } else if (IsEqualGUIDAligned(iid, IID_IMiniport)) {
        AmLog("CMiniportAmbrel::NonDelegatingQueryInterface ***** is miniport");
        *object = static_cast<PVOID>(static_cast<PMINIPORTDMUS>(this));
    } else if (IsEqualGUIDAligned(iid, IID_IMiniportDMus)) {
        AmLog("CMiniportAmbrel::NonDelegatingQueryInterface ***** is miniportdmus");
        *object = static_cast<PVOID>(static_cast<PMINIPORTDMUS>(this));
    } else if (IsEqualGUIDAligned(iid, IID_IMusicTechnology)) {
        AmLog("CMiniportAmbrel::NonDelegatingQueryInterface ***** is imusic");
        *object = static_cast<PVOID>(static_cast<IMusicTechnology *>(this));
    } else if (IsEqualGUIDAligned(iid, IID_IPowerNotify)) {
        AmLog("CMiniportAmbrel::NonDelegatingQueryInterface ***** is ipowernotify");
        *object = static_cast<PVOID>(static_cast<IPowerNotify *>(this));
    } else if (IsEqualGUIDAligned(iid, IID_IPinCount)) {
        AmLog("CMiniportAmbrel::NonDelegatingQueryInterface ***** is ipincount");
        *object = static_cast<PVOID>(static_cast<IPinCount *>(this));
    } else if (IsEqualGUIDAligned(iid, IID_IPinName)) {
        AmLog("CMiniportAmbrel::NonDelegatingQueryInterface ***** is ipinname");
        *object = static_cast<PVOID>(static_cast<IPinName *>(this));
    } else {
        *object = NULL;
        // The text form is made only for the log, and only where a wide string
        // may be printed: at PASSIVE_LEVEL (paged code may also run at
        // APC_LEVEL, where the line goes out without the identifier).
        UNICODE_STRING text;
        if (AmDebugOutputEnabled() && KeGetCurrentIrql() == PASSIVE_LEVEL &&
            NT_SUCCESS(RtlStringFromGUID(iid, &text))) {
            AmLog("CMiniportAmbrel::NonDelegatingQueryInterface ***** is nul!!!! %ls", text.Buffer);
            RtlFreeUnicodeString(&text);
        } else {
            AmLog("CMiniportAmbrel::NonDelegatingQueryInterface ***** is nul!!!!");
        }
    }

    if (*object == NULL) {
        AmLog("CMiniportAmbrel::NonDelegatingQueryInterface ----- failed to query");
        return STATUS_INVALID_PARAMETER;
    }
    // Every face's AddRef goes to the controlling unknown.
    static_cast<PUNKNOWN>(*object)->AddRef();
    AmLog("CMiniportAmbrel::NonDelegatingQueryInterface +++++ succeeded");
    return STATUS_SUCCESS;
}

// ------------------------------------------------------------------ destruction

PAGED_CODE_SEG CMiniportAmbrel::~CMiniportAmbrel()
{
    AmPagedCode();

    AmLog("CMiniportAmbrel::~CMiniportAmbrel");
    AmAssert(0 == m_NumCaptureStreams);
    AmAssert(0 == m_NumRenderStreams);

    m_Fifo.FifoFree();

    if (m_ServiceGroup != NULL) {
        m_ServiceGroup->Release();
        m_ServiceGroup = NULL;
    }
    if (m_Port != NULL) {
        m_Port->Release();
        m_Port = NULL;
    }
    AmLog("CMiniportAmbrel::~CMiniportAmbrel +++++ succeeded");
}

// ------------------------------------------------------------------ IMiniportDMus

PAGED_CODE_SEG STDMETHODIMP_(NTSTATUS) CMiniportAmbrel::Init(_In_opt_ PUNKNOWN UnknownAdapter, _In_opt_ PRESOURCELIST ResourceList,
                                              _In_ PPORTDMUS Port, _Out_ PSERVICEGROUP *ServiceGroup)
{
    UNREFERENCED_PARAMETER(UnknownAdapter);
    UNREFERENCED_PARAMETER(ResourceList);
    AmPagedCode();

    AmLog("CMiniportAmbrel::Init");
    AmAssertNamed(Port != NULL, "Port_");
    AmAssertNamed(ServiceGroup != NULL, "ServiceGroup");
    if (Port == NULL || ServiceGroup == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    *ServiceGroup = NULL;
    m_PowerState = 0;

    m_Port = Port;
    m_Port->AddRef();

    if (IsEqualGUIDAligned(m_Technology, GUID_NULL)) {
        m_Technology = KSMUSIC_TECHNOLOGY_PORT;
    }
    // Shared by every port's filter: the port initialised last decides.
    // Other ports' clients read these ranges at any time, so they are
    // written only when the technology really changes.
    if (!IsEqualGUIDAligned(RangeMidiStream.Technology, m_Technology)) {
        RangeMidiStream.Technology = m_Technology;
    }
    if (!IsEqualGUIDAligned(RangeDirectMusicStream.Technology, m_Technology)) {
        RangeDirectMusicStream.Technology = m_Technology;
    }

    InterlockedExchange(&m_NotifyCount, 0);
    m_NumRenderStreams = 0;
    m_NumCaptureStreams = 0;
    InterlockedExchangePointer(reinterpret_cast<PVOID volatile *>(&m_MasterClock), NULL);

    NTSTATUS status = PcNewServiceGroup(&m_ServiceGroup, NULL);
    if (NT_SUCCESS(status) && m_ServiceGroup == NULL) {
        AmLog("CMiniportAmbrel::Init ----- PcNewServiceGroup failed: %x", (ULONG)status);
        status = STATUS_INSUFFICIENT_RESOURCES;
    }

    if (NT_SUCCESS(status)) {
        AmLog("CMiniportAmbrel::Init ***** New ServiceGroup created: %p", m_ServiceGroup);
        *ServiceGroup = m_ServiceGroup;
        (*ServiceGroup)->AddRef();
        m_Port->RegisterServiceGroup(m_ServiceGroup);
        AmLog("CMiniportAmbrel::Init +++++ succeeded");
        return STATUS_SUCCESS;
    }

    if (m_ServiceGroup != NULL) {
        m_ServiceGroup->Release();
        m_ServiceGroup = NULL;
    }
    if (*ServiceGroup != NULL) {
        (*ServiceGroup)->Release();
        *ServiceGroup = NULL;
    }
    m_Port->Release();
    m_Port = NULL;
    return status;
}

PAGED_CODE_SEG STDMETHODIMP_(NTSTATUS) CMiniportAmbrel::DataRangeIntersection(_In_ ULONG PinId, _In_ PKSDATARANGE DataRange,
                                                               _In_ PKSDATARANGE MatchingDataRange,
                                                               _In_ ULONG OutputBufferLength,
                                                               _Out_opt_ PVOID ResultantFormat,
                                                               _Out_ PULONG ResultantFormatLength)
{
    UNREFERENCED_PARAMETER(PinId);
    UNREFERENCED_PARAMETER(DataRange);
    UNREFERENCED_PARAMETER(MatchingDataRange);
    UNREFERENCED_PARAMETER(OutputBufferLength);
    UNREFERENCED_PARAMETER(ResultantFormat);
    UNREFERENCED_PARAMETER(ResultantFormatLength);
    AmPagedCode();

    // The framework's default intersection against our static ranges is
    // exactly what the port needs.
    return STATUS_NOT_IMPLEMENTED;
}

STDMETHODIMP_(void) CMiniportAmbrel::Service(void)
{
    AmLog("CMiniportAmbrel::Service");

    KIRQL irql;
    KeAcquireSpinLock(&m_Lock, &irql);
    USHORT captureStreams = m_NumCaptureStreams;
    KeReleaseSpinLock(&m_Lock, irql);

    if (captureStreams == 0) {
        AmLog("CMiniportAmbrel::Service ----- We should probably clean something - but so far we can't!");
    } else {
        AmLog("CMiniportAmbrel::Service +++++ succeeded");
    }
}

// ------------------------------------------------------------------ technology, power, pins

PAGED_CODE_SEG STDMETHODIMP_(NTSTATUS) CMiniportAmbrel::SetTechnology(_In_ const GUID *Technology)
{
    AmPagedCode();

    AmLog("CMiniportAmbrel::SetTechnology ");
    if (m_Port != NULL) {
        AmLog("CMiniportAmbrel::SetTechnology ----- was already inited!!!");
        return STATUS_UNSUCCESSFUL;
    }
    if (Technology == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    RtlCopyMemory(&m_Technology, Technology, sizeof(GUID));
    AmLog("CMiniportAmbrel::SetTechnology +++++ succeeded");
    return STATUS_SUCCESS;
}

PAGED_CODE_SEG STDMETHODIMP_(void) CMiniportAmbrel::PowerChangeNotify(_In_ POWER_STATE PowerState)
{
    AmPagedCode();

    AmLog("CMiniportAmbrel::PoweChangeNotify D%d", (int)PowerState.DeviceState);
    m_PowerState = (ULONG)PowerState.DeviceState;
    AmLog("CMiniportAmbrel::PoweChangeNotify +++++ succeeded");
}

PAGED_CODE_SEG STDMETHODIMP_(void) CMiniportAmbrel::PinCount(_In_ ULONG PinId, _Inout_ PULONG FilterNecessary,
                                              _Inout_ PULONG FilterCurrent, _Inout_ PULONG FilterPossible,
                                              _Inout_ PULONG GlobalCurrent, _Inout_ PULONG GlobalPossible)
{
    UNREFERENCED_PARAMETER(PinId);
    UNREFERENCED_PARAMETER(FilterNecessary);
    UNREFERENCED_PARAMETER(FilterCurrent);
    UNREFERENCED_PARAMETER(FilterPossible);
    UNREFERENCED_PARAMETER(GlobalCurrent);
    UNREFERENCED_PARAMETER(GlobalPossible);
    AmPagedCode();

    // The framework's counts from the pin descriptors stand.
    AmLog("CMiniportAmbrel::PinCount");
}

PAGED_CODE_SEG STDMETHODIMP_(NTSTATUS) CMiniportAmbrel::GetPinName(_In_ PIRP Irp, _In_ PKSP_PIN Pin, _Out_ PVOID Data)
{
    AmPagedCode();

    AmLog("CMiniportAmbrel::GetPinName");
    NTSTATUS status;
    if (Irp == NULL || Pin == NULL) {
        status = STATUS_INVALID_PARAMETER;
    } else {
        // Every pin carries the port's name, also once the application has
        // closed its handle: the filter a client holds keeps the identity it
        // was opened under, and the name is the miniport's own copy.
        ULONG outputLength = IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceIoControl.OutputBufferLength;
        ULONG needed = (ULONG)(AmWcsLen(m_PortName) + 1) * sizeof(WCHAR);

        if (outputLength >= needed && Data != NULL) {
            RtlZeroMemory(Data, outputLength);
            RtlCopyMemory(Data, m_PortName, needed);
            Irp->IoStatus.Information = needed;
            status = STATUS_SUCCESS;
        } else if (outputLength == 0) {
            Irp->IoStatus.Information = needed;
            status = STATUS_BUFFER_OVERFLOW;
        } else {
            Irp->IoStatus.Information = 0;
            status = (Data == NULL) ? STATUS_INVALID_PARAMETER : STATUS_BUFFER_TOO_SMALL;
        }
    }

    if (status == STATUS_SUCCESS) {
        AmLog("CMiniportAmbrel::GetPinName +++++ succeeded");
    } else {
        AmLog("CMiniportAmbrel::GetPinName ----- failed: %x", (ULONG)status);
    }
    return status;
}

// ------------------------------------------------------------------ streams

STDMETHODIMP_(NTSTATUS) CMiniportAmbrel::NewStream(_Out_ PMXF *MXF, _In_opt_ PUNKNOWN OuterUnknown,
                                                   _In_ POOL_TYPE PoolType, _In_ ULONG PinID,
                                                   _In_ DMUS_STREAM_TYPE StreamType,
                                                   _In_opt_ PKSDATAFORMAT DataFormat,
                                                   _Out_ PSERVICEGROUP *ServiceGroup,
                                                   _In_opt_ PAllocatorMXF AllocatorMXF,
                                                   _In_opt_ PMASTERCLOCK MasterClock,
                                                   _Out_ PULONGLONG SchedulePreFetch)
{
    UNREFERENCED_PARAMETER(PinID);
    UNREFERENCED_PARAMETER(DataFormat);
    AmPagedCode();

    AmLog("CMiniPortAmbrel::NewStream");
    if (MXF == NULL || ServiceGroup == NULL || SchedulePreFetch == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    *SchedulePreFetch = 0;
    *MXF = NULL;
    *ServiceGroup = NULL;

    const BOOLEAN isCapture = (StreamType == DMUS_STREAM_MIDI_CAPTURE);
    const BOOLEAN isRender = (StreamType == DMUS_STREAM_MIDI_RENDER);
    ULONG slot = AM_NO_CAPTURE_SLOT;
    BOOLEAN admitted = FALSE;

    // Admission and the reservation it grants are one step under m_Lock, so
    // that concurrent opens can never pass the limits together. A render
    // stream's place is reserved in the count at once and given back if its
    // creation fails.
    KIRQL irql;
    KeAcquireSpinLock(&m_Lock, &irql);
    if (isCapture) {
        for (ULONG i = 0; i < AM_MAX_CAPTURE_STREAMS; i++) {
            if (m_CaptureSlotUsed[i] == 0) {
                m_CaptureSlotUsed[i] = 1;
                slot = i;
                admitted = TRUE;
                break;
            }
        }
    } else if (isRender && m_NumRenderStreams < AM_MAX_RENDER_STREAMS) {
        m_NumRenderStreams++;
        admitted = TRUE;
    }
    KeReleaseSpinLock(&m_Lock, irql);

    if (!admitted) {
        if (isCapture) {
            AmLog("CMiniPortAmbrel::NewStream ----- NewStream failed, too many capture streams");
        } else if (!isRender) {
            AmLog("CMiniPortAmbrel::NewStream ----- NewStream invalid stream type");
        } else {
            AmLog("CMiniPortAmbrel::NewStream ----- NewStream failed, too many render streams");
        }
        return STATUS_INVALID_DEVICE_REQUEST;
    }

    NTSTATUS status;
    CMiniportAmbrelStream *stream = new (PoolType) CMiniportAmbrelStream(OuterUnknown);
    if (stream == NULL) {
        AmLog("CMiniPortAmbrel::NewStream ----- CMiniportAmbrelStream creation failed");
        status = STATUS_INSUFFICIENT_RESOURCES;
    } else {
        stream->AddRef();
        status = stream->Init(this, AttachedPortRecord(), isCapture, AllocatorMXF, MasterClock, slot);
        if (NT_SUCCESS(status)) {
            AmLog("CMiniPortAmbrel::NewStream ***** Init ok");
            *MXF = static_cast<PMXF>(stream);
            (*MXF)->AddRef();

            KeAcquireSpinLock(&m_Lock, &irql);
            if (isCapture) {
                m_NumCaptureStreams++;
            }
            // From here the stream's teardown gives back its count and slot.
            stream->m_Counted = TRUE;
            KeReleaseSpinLock(&m_Lock, irql);

            if (isCapture && m_ServiceGroup != NULL) {
                *ServiceGroup = m_ServiceGroup;
                (*ServiceGroup)->AddRef();
            }
        }
    }

    if (!NT_SUCCESS(status)) {
        KeAcquireSpinLock(&m_Lock, &irql);
        if (isCapture) {
            m_CaptureSlotUsed[slot] = 0;
        } else {
            m_NumRenderStreams--;
        }
        KeReleaseSpinLock(&m_Lock, irql);
    }

    if (stream != NULL) {
        // After a failure this destroys the stream, which then gives back
        // only what its Init took.
        stream->Release();
    }
    if (NT_SUCCESS(status)) {
        AmLog("CMiniPortAmbrel::NewStream +++++ succeeded");
    }
    return status;
}

// ------------------------------------------------------------------ capture: the application's side

BOOLEAN CMiniportAmbrel::PutData(_In_reads_bytes_(length) PUCHAR bytes, _In_ ULONG length)
{
    AmLog("CMiniportAmbrel::PutData");

    PMASTERCLOCK clock = MasterClock();
    if (clock == NULL) {
        AmLog("CMiniportAmbrel::PutData ***** returned because no MasterClock");
        return TRUE;
    }

    KIRQL irql;
    KeAcquireSpinLock(&m_Lock, &irql);
    USHORT captureStreams = m_NumCaptureStreams;
    KeReleaseSpinLock(&m_Lock, irql);
    if (captureStreams == 0) {
        AmLog("CMiniportAmbrel::PutData ***** returned because no Capture Streams");
        return TRUE;
    }

    if (length == 0 || bytes == NULL) {
        AmLog("CMiniportAmbrel::PutData ***** returned because no data specified");
        return TRUE;
    }

    // Read before the lock: the clock is the framework's and may take its own.
    REFERENCE_TIME now = 0;
    clock->GetTime(&now);

    // An item is one block; a length whose block size would wrap cannot be
    // allocated and fails like any allocation.
    SIZE_T itemSize = (SIZE_T)length + AM_CAPTURE_ITEM_HEADER;

    KeAcquireSpinLock(&m_Lock, &irql);
    for (ULONG slot = 0; slot < AM_MAX_CAPTURE_STREAMS; slot++) {
        PLIST_ENTRY list = m_CaptureLists[slot];
        if (list == NULL) {
            continue;
        }
        CaptureItem *item = (itemSize > 0xFFFFFFFFUL)
                                ? NULL
                                : (CaptureItem *)ExAllocatePoolWithTag(NonPagedPoolNx, itemSize, AMBREL_POOL_TAG);
        if (item == NULL) {
            KeReleaseSpinLock(&m_Lock, irql);
            AmLog("CMiniportAmbrel::PutData ---- Write failed because we could not allocate %d bytes",
                  (int)(length + AM_CAPTURE_ITEM_HEADER));
            return FALSE;
        }
        item->timeStamp = (ULONGLONG)now;
        item->length = length;
        RtlCopyMemory(item->data, bytes, length);
        InsertTailList(list, &item->link);
    }

    if (m_NotifyCount == 0) {
        InterlockedExchange(&m_NotifyCount, 1);
        AmLog("CMiniportAmbrel::PutData ***** before Notify");
        if (m_Port != NULL) {
            m_Port->Notify(m_ServiceGroup);
        }
    }
    KeReleaseSpinLock(&m_Lock, irql);

    AmLog("CMiniportAmbrel::PutData +++++ succeeded");
    return TRUE;
}
