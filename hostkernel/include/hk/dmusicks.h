// DirectMusic in kernel streaming: the event records that carry MIDI between
// the DMus port and its miniport, the stream interfaces (IMXF, the event
// allocator, the master clock) and the DMus port and miniport interfaces.
#pragma once

#include "portcls.h"

#define DONT_HOLD_FOR_SEQUENCING 0x8000000000000000ull

typedef struct _DMUS_KERNEL_EVENT {
    BYTE bReserved;
    BYTE cbStruct;
    USHORT cbEvent;         // MIDI bytes in the event
    USHORT usChannelGroup;
    USHORT usFlags;         // DMUS_KEF_*
    REFERENCE_TIME ullPresTime100ns;
    ULONGLONG ullBytePosition;
    struct _DMUS_KERNEL_EVENT *pNextEvt;
    union {
        BYTE abData[sizeof(PBYTE)];                // cbEvent <= 8
        PBYTE pbData;                              // cbEvent > 8, a buffer of the allocator
        struct _DMUS_KERNEL_EVENT *pPackageEvt;    // package events
    } uData;
} DMUS_KERNEL_EVENT, *PDMUS_KERNEL_EVENT;

#define DMUS_KEF_EVENT_COMPLETE 0x0000
#define DMUS_KEF_EVENT_INCOMPLETE 0x0001
#define DMUS_KEF_PACKAGE_EVENT 0x0002
#define kBytePositionNone (~(ULONGLONG)0)
#define SHORT_EVT(evt) ((evt)->cbEvent <= sizeof(PBYTE))
#define PACKAGE_EVT(evt) ((evt)->usFlags & DMUS_KEF_PACKAGE_EVENT)
#define INCOMPLETE_EVT(evt) ((evt)->usFlags & DMUS_KEF_EVENT_INCOMPLETE)
#define COMPLETE_EVT(evt) (((evt)->usFlags & DMUS_KEF_EVENT_INCOMPLETE) == 0)

typedef enum {
    DMUS_STREAM_MIDI_INVALID = -1,
    DMUS_STREAM_MIDI_RENDER = 0,
    DMUS_STREAM_MIDI_CAPTURE,
    DMUS_STREAM_WAVE_SINK
} DMUS_STREAM_TYPE;

DEFINE_GUID(CLSID_MiniportDriverDMusUART, 0xD3F0CE1C, 0xFFFC, 0x11D1, 0x81, 0xB0, 0x00, 0x60, 0x08, 0x33, 0x16, 0xC1);
DEFINE_GUID(CLSID_MiniportDriverDMusUARTCapture, 0xD3F0CE1D, 0xFFFC, 0x11D1, 0x81, 0xB0, 0x00, 0x60, 0x08, 0x33,
            0x16, 0xC1);

// ---------------------------------------------------------------- master clock
DECLARE_INTERFACE_(IMasterClock, IUnknown)
{
    DEFINE_ABSTRACT_UNKNOWN()
    STDMETHOD_(NTSTATUS, GetTime)(THIS_ REFERENCE_TIME * pTime) PURE;
};
typedef IMasterClock *PMASTERCLOCK;

// ---------------------------------------------------------------- IMXF and the allocator
struct IMXF;
typedef struct IMXF *PMXF;

#define DEFINE_ABSTRACT_IMXF()                                           \
    STDMETHOD_(NTSTATUS, SetState)(THIS_ KSSTATE State) PURE;            \
    STDMETHOD_(NTSTATUS, PutMessage)(THIS_ PDMUS_KERNEL_EVENT pDMKEvt) PURE; \
    STDMETHOD_(NTSTATUS, ConnectOutput)(THIS_ PMXF sinkMXF) PURE;        \
    STDMETHOD_(NTSTATUS, DisconnectOutput)(THIS_ PMXF sinkMXF) PURE;

DEFINE_GUID(IID_IMXF, 0xC096DF9E, 0xFB09, 0x11D1, 0x81, 0xB0, 0x00, 0x60, 0x08, 0x33, 0x16, 0xC1);
DECLARE_INTERFACE_(IMXF, IUnknown)
{
    DEFINE_ABSTRACT_UNKNOWN()
    DEFINE_ABSTRACT_IMXF()
};

struct IAllocatorMXF;
typedef struct IAllocatorMXF *PAllocatorMXF;

DEFINE_GUID(IID_IAllocatorMXF, 0xA5F0D62C, 0xB30F, 0x11D2, 0xB7, 0xA3, 0x00, 0x60, 0x08, 0x33, 0x16, 0xC1);
// Events and large buffers come from it and go back to it: PutMessage takes
// back a whole list (with the buffers and packaged events it holds).
DECLARE_INTERFACE_(IAllocatorMXF, IMXF)
{
    DEFINE_ABSTRACT_UNKNOWN()
    DEFINE_ABSTRACT_IMXF()
    STDMETHOD_(NTSTATUS, GetMessage)(THIS_ PDMUS_KERNEL_EVENT * ppDMKEvt) PURE;
    STDMETHOD_(USHORT, GetBufferSize)(THIS) PURE;
    STDMETHOD_(NTSTATUS, GetBuffer)(THIS_ PBYTE * ppBuffer) PURE;
    STDMETHOD_(NTSTATUS, PutBuffer)(THIS_ PBYTE pBuffer) PURE;
};

// ---------------------------------------------------------------- the DMus port and miniport
DEFINE_GUID(IID_IPortDMus, 0xC096DF9C, 0xFB09, 0x11D1, 0x81, 0xB0, 0x00, 0x60, 0x08, 0x33, 0x16, 0xC1);
DEFINE_GUID(CLSID_PortDMus, 0xB7902FE9, 0xFB0A, 0x11D1, 0x81, 0xB0, 0x00, 0x60, 0x08, 0x33, 0x16, 0xC1);

DECLARE_INTERFACE_(IPortDMus, IPort)
{
    DEFINE_ABSTRACT_UNKNOWN()
    DEFINE_ABSTRACT_PORT()
    STDMETHOD_(void, Notify)(THIS_ PSERVICEGROUP ServiceGroup) PURE;
    STDMETHOD_(void, RegisterServiceGroup)(THIS_ PSERVICEGROUP ServiceGroup) PURE;
};
typedef IPortDMus *PPORTDMUS;

DEFINE_GUID(IID_IMiniportDMus, 0xC096DF9D, 0xFB09, 0x11D1, 0x81, 0xB0, 0x00, 0x60, 0x08, 0x33, 0x16, 0xC1);
DECLARE_INTERFACE_(IMiniportDMus, IMiniport)
{
    DEFINE_ABSTRACT_UNKNOWN()
    DEFINE_ABSTRACT_MINIPORT()
    STDMETHOD_(NTSTATUS, Init)(THIS_ PUNKNOWN UnknownAdapter, PRESOURCELIST ResourceList, PPORTDMUS Port,
                               PSERVICEGROUP * ServiceGroup) PURE;
    STDMETHOD_(void, Service)(THIS) PURE;
    STDMETHOD_(NTSTATUS, NewStream)(THIS_ PMXF * MXF, PUNKNOWN OuterUnknown, POOL_TYPE PoolType, ULONG PinID,
                                    DMUS_STREAM_TYPE StreamType, PKSDATAFORMAT DataFormat,
                                    PSERVICEGROUP * ServiceGroup, PAllocatorMXF AllocatorMXF,
                                    PMASTERCLOCK MasterClock, PULONGLONG SchedulePreFetch) PURE;
};
typedef IMiniportDMus *PMINIPORTDMUS;

static_assert(sizeof(DMUS_KERNEL_EVENT) == 40 && FIELD_OFFSET(DMUS_KERNEL_EVENT, cbEvent) == 2 &&
                  FIELD_OFFSET(DMUS_KERNEL_EVENT, usChannelGroup) == 4 &&
                  FIELD_OFFSET(DMUS_KERNEL_EVENT, usFlags) == 6 &&
                  FIELD_OFFSET(DMUS_KERNEL_EVENT, ullPresTime100ns) == 8 &&
                  FIELD_OFFSET(DMUS_KERNEL_EVENT, ullBytePosition) == 16 &&
                  FIELD_OFFSET(DMUS_KERNEL_EVENT, pNextEvt) == 24 && FIELD_OFFSET(DMUS_KERNEL_EVENT, uData) == 32,
              "DMUS_KERNEL_EVENT");
