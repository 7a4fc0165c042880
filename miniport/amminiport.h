// The port's DirectMusic miniport and its MIDI streams.
//
// One CMiniportAmbrel serves one virtual port: towards portcls it is the
// IMiniportDMus that describes the filter, answers its properties and makes
// the streams; towards the application's control handle it holds the port
// FIFO, the parked read and the capture slots, reached through the port
// record's Miniport field.
//
// Adapter code may use the public members named in the class comments below;
// every one of them is guarded by m_Lock unless its comment says otherwise.
#pragma once

#include "common/platform.h"
#include "common/amunknown.h"
#include "adapter/porttable.h"
#include "adapter/openparams.h"
#include "miniport/fifo/portfifo.h"
#include "miniport/midiparser/midiparser.h"

// Capture slots of a port, and the most render streams it admits.
#define AM_MAX_CAPTURE_STREAMS 8
#define AM_MAX_RENDER_STREAMS 16
#define AM_NO_CAPTURE_SLOT 0xFFFFFFFF

// Bytes of a CaptureItem in front of its data. The allocation of an item is
// this plus the data, so the header may not grow past it.
#define AM_CAPTURE_ITEM_HEADER 32

// One application write waiting for one capture stream.
typedef struct _CaptureItem {
    LIST_ENTRY link;
    ULONGLONG timeStamp;
    ULONG length;
    UCHAR data[1];
} CaptureItem, *PCaptureItem;

class CMiniportAmbrelStream;

// ------------------------------------------------------------------ miniport
class CMiniportAmbrel : public IMiniportDMus,
                        public IMusicTechnology,
                        public IPowerNotify,
                        public IPinCount,
                        public IPinName,
                        public CUnknown
{
public:
    DECLARE_STD_UNKNOWN();
    DEFINE_STD_CONSTRUCTOR(CMiniportAmbrel);
    ~CMiniportAmbrel() override;

    // IMiniport
    STDMETHODIMP_(NTSTATUS) GetDescription(_Out_ PPCFILTER_DESCRIPTOR *OutFilterDescriptor) override;
    STDMETHODIMP_(NTSTATUS) DataRangeIntersection(_In_ ULONG PinId, _In_ PKSDATARANGE DataRange,
                                                  _In_ PKSDATARANGE MatchingDataRange,
                                                  _In_ ULONG OutputBufferLength,
                                                  _Out_opt_ PVOID ResultantFormat,
                                                  _Out_ PULONG ResultantFormatLength) override;
    // IMiniportDMus
    STDMETHODIMP_(NTSTATUS) Init(_In_opt_ PUNKNOWN UnknownAdapter, _In_opt_ PRESOURCELIST ResourceList,
                                 _In_ PPORTDMUS Port, _Out_ PSERVICEGROUP *ServiceGroup) override;
    STDMETHODIMP_(void) Service(void) override;
    STDMETHODIMP_(NTSTATUS) NewStream(_Out_ PMXF *MXF, _In_opt_ PUNKNOWN OuterUnknown, _In_ POOL_TYPE PoolType,
                                      _In_ ULONG PinID, _In_ DMUS_STREAM_TYPE StreamType,
                                      _In_opt_ PKSDATAFORMAT DataFormat, _Out_ PSERVICEGROUP *ServiceGroup,
                                      _In_opt_ PAllocatorMXF AllocatorMXF, _In_opt_ PMASTERCLOCK MasterClock,
                                      _Out_ PULONGLONG SchedulePreFetch) override;
    // IMusicTechnology
    STDMETHODIMP_(NTSTATUS) SetTechnology(_In_ const GUID *Technology) override;
    // IPowerNotify
    STDMETHODIMP_(void) PowerChangeNotify(_In_ POWER_STATE PowerState) override;
    // IPinCount
    STDMETHODIMP_(void) PinCount(_In_ ULONG PinId, _Inout_ PULONG FilterNecessary, _Inout_ PULONG FilterCurrent,
                                 _Inout_ PULONG FilterPossible, _Inout_ PULONG GlobalCurrent,
                                 _Inout_ PULONG GlobalPossible) override;
    // IPinName
    STDMETHODIMP_(NTSTATUS) GetPinName(_In_ PIRP Irp, _In_ PKSP_PIN Pin, _Out_ PVOID Data) override;

    // The application's write: queue a copy of the bytes for every running
    // capture stream. FALSE only when a copy could not be allocated.
    BOOLEAN PutData(_In_reads_bytes_(length) PUCHAR bytes, _In_ ULONG length);

    // The port record while the application's handle is open, else null.
    // Read and cleared atomically: the record may be detached while property
    // handlers run, and those only test it (the name they report is the
    // miniport's own copy, m_PortName).
    MidiPort *AttachedPortRecord() const
    {
        return static_cast<MidiPort *>(
            InterlockedCompareExchangePointer(reinterpret_cast<PVOID volatile *>(const_cast<MidiPort **>(&m_PortRecord)),
                                              NULL, NULL));
    }
    // The control device's close and the adapter's removal call this before
    // they free the record.
    void DetachPortRecord()
    {
        InterlockedExchangePointer(reinterpret_cast<PVOID volatile *>(&m_PortRecord), NULL);
    }

    // The master clock of the newest stream (not counted), read atomically
    // because streams are created while the application writes.
    PMASTERCLOCK MasterClock() const
    {
        return static_cast<PMASTERCLOCK>(InterlockedCompareExchangePointer(
            reinterpret_cast<PVOID volatile *>(const_cast<PMASTERCLOCK *>(&m_MasterClock)), NULL, NULL));
    }

    // ---- members (public: the adapter's read, cleanup and close reach them)
    PPORTDMUS m_Port;               // counted; set by Init
    PSERVICEGROUP m_ServiceGroup;   // counted; made by Init
    PMASTERCLOCK m_MasterClock;     // not counted; every new stream overwrites it
    USHORT m_NumRenderStreams;      // m_Lock
    USHORT m_NumCaptureStreams;     // m_Lock
    GUID m_Technology;
    ULONG m_PowerState;
    MidiPort *m_PortRecord;         // not owned; see AttachedPortRecord
    KSPIN_LOCK m_Lock;
    // m_Lock: the parked read (m_PendingReadIrp, m_PendingReadBuffer,
    // m_PendingReadLength) and the ring (m_FifoHead ... m_FifoMask).
    PortFifo m_Fifo;
    ULONG m_SysexSize;
    ULONG m_PortFlags;
    GUID m_ManufacturerGuid;
    GUID m_ProductGuid;
    volatile LONG m_NotifyCount;    // m_Lock for changes; interlocked so that log lines may read it
    PLIST_ENTRY m_CaptureLists[AM_MAX_CAPTURE_STREAMS];  // m_Lock
    ULONG m_CaptureSlotUsed[AM_MAX_CAPTURE_STREAMS];     // m_Lock
    // The port name as it was at creation: what pin names and synth caps
    // report, so that no answer ever reads the record after it was freed.
    WCHAR m_PortName[sizeof(MidiPort::Name) / sizeof(WCHAR)];
};
typedef CMiniportAmbrel *PCMiniportAmbrel;

// ------------------------------------------------------------------ stream
class CMiniportAmbrelStream : public IMXF, public CUnknown
{
public:
    DECLARE_STD_UNKNOWN();
    DEFINE_STD_CONSTRUCTOR(CMiniportAmbrelStream);
    ~CMiniportAmbrelStream() override;

    NTSTATUS Init(_In_ CMiniportAmbrel *pMiniport, _In_opt_ MidiPort *portRecord, _In_ BOOLEAN isCapture,
                  _In_opt_ PAllocatorMXF allocator, _In_opt_ PMASTERCLOCK masterClock, _In_ ULONG captureSlot);

    // IMXF
    STDMETHODIMP_(NTSTATUS) SetState(_In_ KSSTATE State) override;
    STDMETHODIMP_(NTSTATUS) PutMessage(_In_opt_ PDMUS_KERNEL_EVENT pDMKEvt) override;
    STDMETHODIMP_(NTSTATUS) ConnectOutput(_In_opt_ PMXF sinkMXF) override;
    STDMETHODIMP_(NTSTATUS) DisconnectOutput(_In_opt_ PMXF sinkMXF) override;

    // Render path (DISPATCH_LEVEL).
    NTSTATUS PutMessageLocked(_In_opt_ PDMUS_KERNEL_EVENT pDMKEvt);
    NTSTATUS ConsumeEvents();
    NTSTATUS Write(_In_reads_bytes_opt_(Length) PUCHAR BufferAddress, _In_ ULONG Length,
                   _Out_ PULONG BytesWritten);
    // Capture path (DISPATCH_LEVEL).
    NTSTATUS SourceEvtsToPort();
    // KSPROPERTY_SYNTH_PORTPARAMETERS through this stream's pin.
    NTSTATUS HandlePortParams(_In_ PPCPROPERTY_REQUEST pRequest);

    BOOLEAN IsCapture() const { return m_IsCapture; }
    CMiniportAmbrel *Miniport() const { return m_Miniport; }

    // ---- members
    volatile LONG m_State;          // KSSTATE of a capture stream; interlocked
    CMiniportAmbrel *m_Miniport;    // counted
    MidiPort *m_PortRecord;         // copy taken at Init; only tested for null
    BOOLEAN m_IsCapture;
    PAllocatorMXF m_Allocator;      // counted
    PMXF m_Sink;                    // not counted; interlocked
    PDMUS_KERNEL_EVENT m_EventQueue;  // m_QueueLock
    ULONG m_DMKEvtOffset;           // m_QueueLock
    KSPIN_LOCK m_QueueLock;
    USHORT m_LargeBufferSize;
    KDPC m_RetryDpc;
    KTIMER m_RetryTimer;
    volatile LONG m_RetryPending;   // 1 while m_RetryTimer is armed
    ULONG m_CaptureSlot;
    LIST_ENTRY m_CaptureData;       // miniport's m_Lock
    MidiParser *m_Parser;
    // What teardown must undo: set by Init and NewStream as each step is done.
    BOOLEAN m_TimerReady;           // m_RetryDpc and m_RetryTimer initialised
    BOOLEAN m_Counted;              // NewStream raised a stream counter for it
    BOOLEAN m_Closing;              // m_QueueLock: no retry may be armed any more
};
typedef CMiniportAmbrelStream *PCMiniportAmbrelStream;

// ------------------------------------------------------------------ creation
// The miniport-creation callback of the port's publication.
NTSTATUS CreateMiniportAmbrel(_Out_ PUNKNOWN *unknown, _In_ REFCLSID classId, _In_opt_ PUNKNOWN outerUnknown,
                              _In_ POOL_TYPE poolType, _In_opt_ MidiPort *portRecord, _In_ ULONG sysexSize,
                              _In_ ULONG portFlags, _In_ const GUID *manufacturerGuid,
                              _In_ const GUID *productGuid);

// ------------------------------------------------------------------ filter
extern KSDATARANGE_MUSIC RangeMidiStream;
extern KSDATARANGE_MUSIC RangeDirectMusicStream;
extern KSDATARANGE RangeMidiBridge;
extern const PCFILTER_DESCRIPTOR FilterDescriptorRenderCapture;
extern const PCFILTER_DESCRIPTOR FilterDescriptorCaptureOnly;
extern const PCFILTER_DESCRIPTOR FilterDescriptorRenderOnly;

// ------------------------------------------------------------------ properties
NTSTATUS ValidatePropertyRequest(_In_ PPCPROPERTY_REQUEST pRequest, _In_ ULONG valueSize,
                                 _In_ BOOLEAN valueRequired);
NTSTATUS NTAPI PropertyHandler_Synth(_In_ PPCPROPERTY_REQUEST pRequest);
NTSTATUS NTAPI PropertyHandler_ComponentId(_In_ PPCPROPERTY_REQUEST pRequest);

// The render stream's retry timer routine.
VOID NTAPI amTimerDPC(_In_ PKDPC Dpc, _In_opt_ PVOID DeferredContext, _In_opt_ PVOID SystemArgument1,
                      _In_opt_ PVOID SystemArgument2);
