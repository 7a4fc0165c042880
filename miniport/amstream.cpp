// The port's MIDI streams: creation and teardown, state and output
// connection, the render path (framework events to the port FIFO and the
// parked read) and the clients' side of the capture path (queued application
// writes to event lists for the sink).
#define AM_UNIT AM_UNIT_MINIPORT
#include "common/amcommon.h"
#include "common/amcomplete.h"
#include "adapter/amadapter.h"
#include "amminiport.h"

// The one-shot retry of a render stream whose FIFO is full: 1 ms, relative.
#define AM_RETRY_DUE_TIME (-10000LL)

// Interlocked reads: these values change on other processors without the
// reader's lock (state, retry flag, sink, notify count).
static inline LONG AmReadLong(_In_ volatile LONG *value)
{
    return InterlockedCompareExchange(value, 0, 0);
}

static inline PVOID AmReadPointer(_In_ PVOID volatile *value)
{
    return InterlockedCompareExchangePointer(value, NULL, NULL);
}

static inline PMXF AmReadSink(_In_ PMXF volatile *sink)
{
    return static_cast<PMXF>(AmReadPointer(reinterpret_cast<PVOID volatile *>(sink)));
}

// Frees every CaptureItem of a list that no one else can reach any more.
static VOID FreeCaptureItems(_Inout_ PLIST_ENTRY list)
{
    while (!IsListEmpty(list)) {
        PLIST_ENTRY entry = RemoveHeadList(list);
        ExFreePoolWithTag(CONTAINING_RECORD(entry, CaptureItem, link), AMBREL_POOL_TAG);
    }
}

// Moves every entry of `from` to the empty list `to`, so that they can be
// freed after the lock that guards `from` is dropped.
static VOID MoveList(_Inout_ PLIST_ENTRY from, _Out_ PLIST_ENTRY to)
{
    InitializeListHead(to);
    if (!IsListEmpty(from)) {
        to->Flink = from->Flink;
        to->Blink = from->Blink;
        to->Flink->Blink = to;
        to->Blink->Flink = to;
        InitializeListHead(from);
    }
}

// ------------------------------------------------------------------ creation and teardown

PAGED_CODE_SEG NTSTATUS CMiniportAmbrelStream::Init(_In_ CMiniportAmbrel *pMiniport, _In_opt_ MidiPort *portRecord,
                                     _In_ BOOLEAN isCapture, _In_opt_ PAllocatorMXF allocator,
                                     _In_opt_ PMASTERCLOCK masterClock, _In_ ULONG captureSlot)
{
    AmPagedCode();

    AmLog("CMiniportAmbrelStream::Init");
    AmAssert(pMiniport);
    if (pMiniport == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    AmLog("CMiniportAmbrelStream::Init ----- sysexSize: %d", (int)pMiniport->m_SysexSize);

    if (!isCapture) {
        m_Parser = MidiParserAlloc(NULL, NULL, pMiniport->m_SysexSize);
        if (m_Parser == NULL) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    } else {
        m_Parser = NULL;
    }

    InterlockedExchange(&m_RetryPending, 0);
    KeInitializeSpinLock(&m_QueueLock);
    m_Miniport = pMiniport;
    m_Miniport->AddRef();
    m_LargeBufferSize = 0;
    m_CaptureSlot = captureSlot;
    InitializeListHead(&m_CaptureData);
    // The newest stream's clock is the port's clock; not counted.
    InterlockedExchangePointer(reinterpret_cast<PVOID volatile *>(&pMiniport->m_MasterClock), masterClock);
    m_PortRecord = portRecord;
    m_IsCapture = isCapture;
    InterlockedExchange(&m_State, KSSTATE_STOP);
    m_EventQueue = NULL;
    m_DMKEvtOffset = 0;

    if (allocator == NULL) {
        AmLog("CMiniportAmbrelStream::Init ----- No allocator!");
        return STATUS_INVALID_PARAMETER;
    }

    m_Allocator = allocator;
    m_Allocator->AddRef();
    m_LargeBufferSize = m_Allocator->GetBufferSize();
    AmLog("CMiniportAmbrelStream::Init ***** Large MIDI-packets BufferSize = %d", (int)m_LargeBufferSize);
    if (m_LargeBufferSize == 0) {
        // Without large buffers a write still travels, in inline events of
        // up to eight bytes each.
        m_LargeBufferSize = sizeof(PBYTE);
        AmLog("CMiniportAmbrelStream::Init ***** no large buffers, events of %d bytes", (int)m_LargeBufferSize);
    }
    InterlockedExchangePointer(reinterpret_cast<PVOID volatile *>(&m_Sink), static_cast<PMXF>(m_Allocator));

    KeInitializeDpc(&m_RetryDpc, amTimerDPC, this);
    KeInitializeTimer(&m_RetryTimer);
    m_TimerReady = TRUE;

    AmLog("CMiniportAmbrelStream::Init +++++ succeeded");
    return STATUS_SUCCESS;
}

CMiniportAmbrelStream::~CMiniportAmbrelStream()
{
    AmPagedCode();

    AmLog("CMiniportAmbrelStream::~CMiniportAmbrelStream");

    if (m_TimerReady) {
        // A pass that is running now may be about to arm the timer again:
        // once m_Closing is set under the queue lock no pass will. Then the
        // timer is cancelled, and a DPC that was already queued or running
        // is waited for, so nothing can reach this stream after it is freed.
        KIRQL irql;
        KeAcquireSpinLock(&m_QueueLock, &irql);
        m_Closing = TRUE;
        KeReleaseSpinLock(&m_QueueLock, irql);
        KeCancelTimer(&m_RetryTimer);
        KeFlushQueuedDpcs();
        InterlockedExchange(&m_RetryPending, 0);
    }

    if (m_EventQueue != NULL) {
        if (m_Allocator != NULL) {
            m_Allocator->PutMessage(m_EventQueue);
        } else {
            AmLog("CMiniportAmbrelStream::~CMiniportAmbrelStream ----- no allocator, can't flush DMKEvts");
        }
        m_EventQueue = NULL;
    }

    if (m_Allocator != NULL) {
        m_Allocator->Release();
        m_Allocator = NULL;
    }
    if (m_Parser != NULL) {
        MidiParserFree(m_Parser);
        m_Parser = NULL;
    }

    if (m_Miniport != NULL) {
        LIST_ENTRY waiting;
        InitializeListHead(&waiting);

        KIRQL irql;
        KeAcquireSpinLock(&m_Miniport->m_Lock, &irql);
        if (m_Counted) {
            // Only a stream that NewStream counted holds a count and a slot;
            // one whose Init failed gave its slot back there already, and
            // the slot may belong to another stream by now.
            if (m_IsCapture) {
                if (m_CaptureSlot < AM_MAX_CAPTURE_STREAMS) {
                    m_Miniport->m_CaptureLists[m_CaptureSlot] = NULL;
                    m_Miniport->m_CaptureSlotUsed[m_CaptureSlot] = 0;
                }
                m_Miniport->m_NumCaptureStreams--;
            } else {
                m_Miniport->m_NumRenderStreams--;
            }
            m_Counted = FALSE;
        }
        if (m_IsCapture) {
            MoveList(&m_CaptureData, &waiting);
        }
        KeReleaseSpinLock(&m_Miniport->m_Lock, irql);

        FreeCaptureItems(&waiting);
        m_Miniport->Release();
        m_Miniport = NULL;
    }

    AmLog("CMiniportAmbrelStream::~CMiniportAmbrelStream +++++ succeeded");
}

PAGED_CODE_SEG STDMETHODIMP_(NTSTATUS) CMiniportAmbrelStream::NonDelegatingQueryInterface(_In_ REFIID iid, _Out_ PVOID *object)
{
    AmPagedCode();

    AmLog("CMiniportAmbrelStream::NonDelegatingQueryInterface");
    AmAssertNamed(object != NULL, "Object");
    if (object == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    if (IsEqualGUIDAligned(iid, IID_IUnknown) || IsEqualGUIDAligned(iid, IID_IMXF)) {
        *object = static_cast<PVOID>(static_cast<PMXF>(this));
        static_cast<PMXF>(this)->AddRef();
        AmLog("CMiniportAmbrelStream::NonDelegatingQueryInterface +++++ succeeded");
        return STATUS_SUCCESS;
    }
    *object = NULL;
    AmLog("CMiniportAmbrelStream::NonDelegatingQueryInterface ----- query failed");
    return STATUS_INVALID_PARAMETER;
}

// ------------------------------------------------------------------ state and connection

STDMETHODIMP_(NTSTATUS) CMiniportAmbrelStream::SetState(_In_ KSSTATE State)
{
    AmPagedCode();

    AmLog("CMiniportAmbrelStream::SetState %d", (int)State);
    if (m_IsCapture && m_Miniport != NULL && m_CaptureSlot < AM_MAX_CAPTURE_STREAMS) {
        LIST_ENTRY dropped;
        InitializeListHead(&dropped);

        KIRQL irql;
        KeAcquireSpinLock(&m_Miniport->m_Lock, &irql);
        InterlockedExchange(&m_State, (LONG)State);
        if (State == KSSTATE_RUN) {
            if (m_Miniport->m_CaptureLists[m_CaptureSlot] == NULL) {
                m_Miniport->m_CaptureLists[m_CaptureSlot] = &m_CaptureData;
            }
        } else {
            // Data written while the pin does not run is not kept: what is
            // still waiting goes now, freed once the lock is dropped.
            m_Miniport->m_CaptureLists[m_CaptureSlot] = NULL;
            MoveList(&m_CaptureData, &dropped);
        }
        KeReleaseSpinLock(&m_Miniport->m_Lock, irql);

        FreeCaptureItems(&dropped);
    }
    AmLog("CMiniportAmbrelStream::SetState +++++ succeeded");
    return STATUS_SUCCESS;
}

PAGED_CODE_SEG STDMETHODIMP_(NTSTATUS) CMiniportAmbrelStream::ConnectOutput(_In_opt_ PMXF sinkMXF)
{
    AmPagedCode();

    if (!m_IsCapture) {
        AmLog("CMiniportAmbrelStream::ConnectOutput ----- called on renderer; failed");
        return STATUS_UNSUCCESSFUL;
    }
    PMXF allocator = static_cast<PMXF>(m_Allocator);
    if (sinkMXF != NULL &&
        InterlockedCompareExchangePointer(reinterpret_cast<PVOID volatile *>(&m_Sink), sinkMXF, allocator) ==
            static_cast<PVOID>(allocator)) {
        AmLog("CMiniportAmbrelStream::ConnectOutput +++++ succeeded");
        return STATUS_SUCCESS;
    }
    AmLog("CMiniportAmbrelStream::ConnectOutput ----- failed");
    return STATUS_UNSUCCESSFUL;
}

PAGED_CODE_SEG STDMETHODIMP_(NTSTATUS) CMiniportAmbrelStream::DisconnectOutput(_In_opt_ PMXF sinkMXF)
{
    AmPagedCode();

    if (!m_IsCapture) {
        AmLog("CMiniportAmbrelStream::DisconnectOutput ----- called on renderer; failed");
        return STATUS_UNSUCCESSFUL;
    }
    PMXF allocator = static_cast<PMXF>(m_Allocator);
    BOOLEAN done;
    if (sinkMXF == NULL) {
        InterlockedExchangePointer(reinterpret_cast<PVOID volatile *>(&m_Sink), allocator);
        done = TRUE;
    } else {
        done = InterlockedCompareExchangePointer(reinterpret_cast<PVOID volatile *>(&m_Sink), allocator, sinkMXF) ==
               static_cast<PVOID>(sinkMXF);
    }
    if (done) {
        AmLog("CMiniportAmbrelStream::DisconnectOutput +++++ succeeded");
        return STATUS_SUCCESS;
    }
    AmLog("CMiniportAmbrelStream::DisconnectOutput ----- failed");
    return STATUS_UNSUCCESSFUL;
}

// ------------------------------------------------------------------ render path

// Appends a list behind the queue. m_QueueLock is held by the caller.
static VOID AppendEvents(_Inout_ PDMUS_KERNEL_EVENT *queue, _Inout_ ULONG *offset,
                         _In_ PDMUS_KERNEL_EVENT events, _In_ BOOLEAN locked)
{
    if (*queue != NULL) {
        PDMUS_KERNEL_EVENT last = *queue;
        while (last->pNextEvt != NULL) {
            last = last->pNextEvt;
        }
        last->pNextEvt = events;
        return;
    }
    *queue = events;
    if (*offset != 0) {
        if (locked) {
            AmLog("CMiniportAmbrelStream::PutMessageLocked() ----- Nothing in the queue, but m_DMKEvtOffset == %d",
                  (int)*offset);
        } else {
            AmLog("CMiniportAmbrelStream::PutMessage() ----- Nothing in the queue, but m_DMKEvtOffset == %d",
                  (int)*offset);
        }
        *offset = 0;
    }
}

STDMETHODIMP_(NTSTATUS) CMiniportAmbrelStream::PutMessage(_In_opt_ PDMUS_KERNEL_EVENT pDMKEvt)
{
    AmLog("CMiniportAmbrelStream::PutMessage()");
    AmDispatchCode();

    if (m_IsCapture) {
        // The framework asks a capture stream for data with no event; one it
        // hands in anyway goes back where it came from.
        if (pDMKEvt != NULL) {
            AmLog("CMiniportAmbrelStream::PutMessage() ----- NULL != pDMKEvt");
            AmAssert(NULL == pDMKEvt);
            if (m_Allocator != NULL) {
                m_Allocator->PutMessage(pDMKEvt);
            }
        }
        SourceEvtsToPort();
        AmLog("CMiniportAmbrelStream::PutMessage() +++++ succeeded");
        return STATUS_SUCCESS;
    }

    if (pDMKEvt != NULL) {
        KeAcquireSpinLockAtDpcLevel(&m_QueueLock);
        AppendEvents(&m_EventQueue, &m_DMKEvtOffset, pDMKEvt, FALSE);
        KeReleaseSpinLockFromDpcLevel(&m_QueueLock);
    }

    // While a retry is pending the new events wait for the timer, behind the
    // event that is waiting for room.
    if (AmReadLong(&m_RetryPending) == 0) {
        ConsumeEvents();
    }
    AmLog("CMiniportAmbrelStream::PutMessage() +++++ succeeded");
    return STATUS_SUCCESS;
}

NTSTATUS CMiniportAmbrelStream::PutMessageLocked(_In_opt_ PDMUS_KERNEL_EVENT pDMKEvt)
{
    AmLog("CMiniportAmbrelStream::PutMessageLocked()");
    AmDispatchCode();

    if (pDMKEvt != NULL) {
        AppendEvents(&m_EventQueue, &m_DMKEvtOffset, pDMKEvt, TRUE);
    }
    AmLog("CMiniportAmbrelStream::PutMessageLocked() +++++ succeeded");
    return STATUS_SUCCESS;
}

NTSTATUS CMiniportAmbrelStream::ConsumeEvents()
{
    AmLog("CMiniportAmbrelStream::ConsumeEvents()");
    AmDispatchCode();

    KeAcquireSpinLockAtDpcLevel(&m_QueueLock);
    InterlockedExchange(&m_RetryPending, 0);

    NTSTATUS status = STATUS_SUCCESS;
    while (m_EventQueue != NULL) {
        PDMUS_KERNEL_EVENT aDMKEvt = m_EventQueue;
        ULONG bytesRemaining = 0;
        ULONG bytesWritten = 0;
        status = STATUS_SUCCESS;

        if (aDMKEvt->cbEvent != 0) {
            if (m_DMKEvtOffset >= aDMKEvt->cbEvent) {
                // An offset past the event would read outside it: start over.
                AmAssert(bytesRemaining > 0);
                m_DMKEvtOffset = 0;
            }
            bytesRemaining = aDMKEvt->cbEvent - m_DMKEvtOffset;

            if (aDMKEvt->cbEvent <= sizeof(PBYTE)) {
                AmLog("CMiniportAmbrelStream::ConsumeEvents() ***** (%02x%02x%02x%02x)",
                      aDMKEvt->uData.abData[0], aDMKEvt->uData.abData[1], aDMKEvt->uData.abData[2],
                      aDMKEvt->uData.abData[3]);
                status = Write(aDMKEvt->uData.abData + m_DMKEvtOffset, bytesRemaining, &bytesWritten);
            } else if (aDMKEvt->usFlags & DMUS_KEF_PACKAGE_EVENT) {
                AmAssert(m_DMKEvtOffset == 0);
                m_DMKEvtOffset = 0;
                AmLog("ConsumeEvents(Package)");
                status = PutMessageLocked(aDMKEvt->uData.pPackageEvt);
                aDMKEvt->uData.pPackageEvt = NULL;
                aDMKEvt->cbEvent = 0;
                bytesWritten = bytesRemaining;
            } else if (aDMKEvt->uData.pbData == NULL) {
                // A long event without its bytes has nothing to play; waiting
                // for room would wait forever.
                bytesWritten = bytesRemaining;
            } else {
                AmLog("CMiniportAmbrelStream::ConsumeEvents(Long) ***** (%02x%02x%02x%02x)",
                      aDMKEvt->uData.pbData[0], aDMKEvt->uData.pbData[1], aDMKEvt->uData.pbData[2],
                      aDMKEvt->uData.pbData[3]);
                status = Write(aDMKEvt->uData.pbData + m_DMKEvtOffset, bytesRemaining, &bytesWritten);
            }

            if (status != STATUS_SUCCESS) {
                AmLog("CMiniportAmbrelStream::ConsumeEvents() ----- Write returned 0x%08x", (ULONG)status);
                bytesWritten = bytesRemaining;
            }
            AmAssert(bytesWritten <= bytesRemaining);
            if (bytesWritten > bytesRemaining) {
                bytesWritten = bytesRemaining;
            }
        }

        if (bytesWritten == bytesRemaining) {
            m_EventQueue = aDMKEvt->pNextEvt;
            aDMKEvt->pNextEvt = NULL;
            m_Allocator->PutMessage(aDMKEvt);
            m_DMKEvtOffset = 0;
            continue;
        }

        // The FIFO is full: keep our place and try again in a millisecond.
        m_DMKEvtOffset += bytesWritten;
        AmAssert(m_DMKEvtOffset < aDMKEvt->cbEvent);
        AmLog("CMiniportAmbrelStream::ConsumeEvents() ***** tried %d, wrote %d, at offset %d", (int)bytesRemaining,
              (int)bytesWritten, (int)m_DMKEvtOffset);
        if (!m_Closing) {
            InterlockedExchange(&m_RetryPending, 1);
            LARGE_INTEGER dueTime;
            dueTime.QuadPart = AM_RETRY_DUE_TIME;
            KeSetTimer(&m_RetryTimer, dueTime, &m_RetryDpc);
        }
        break;
    }

    KeReleaseSpinLockFromDpcLevel(&m_QueueLock);
    AmLog("CMiniportAmbrelStream::ConsumeEvents() +++++ succeeded");
    return status;
}

NTSTATUS CMiniportAmbrelStream::Write(_In_reads_bytes_opt_(Length) PUCHAR BufferAddress, _In_ ULONG Length,
                                      _Out_ PULONG BytesWritten)
{
    AmLog("CMiniportAmbrelStream::Write (%d)", (int)Length);
    AmAssert(BytesWritten);
    if (BytesWritten == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (BufferAddress == NULL) {
        Length = 0;
    }

    if (m_IsCapture) {
        AmLog("CMiniportAmbrelStream::Write ----- called on read stream!");
        return STATUS_INVALID_DEVICE_REQUEST;
    }

    *BytesWritten = 0;
    if (m_PortRecord == NULL) {
        AmLog("CMiniportAmbrelStream::Write ***** no midi port!");
        return STATUS_SUCCESS;
    }

    CMiniportAmbrel *miniport = m_Miniport;
    PortFifo *fifo = &miniport->m_Fifo;

    KeAcquireSpinLockAtDpcLevel(&miniport->m_Lock);
    ULONG space = fifo->FifoSpace();
    AmLog("CMiniportAmbrelStream::Write ***** fifo can still fit %d octets, got %d", (int)space, (int)Length);

    for (;;) {
        ULONG n = MidiParserPeek(m_Parser);
        AmLog("CMiniportAmbrelStream::Write ***** peek got %d octets from parser!", (int)n);
        if (Length == 0 && n == 0) {
            AmLog("CMiniportAmbrelStream::Write ***** no more data!");
            break;
        }
        if (space < n) {
            // The message stays whole in the parser for the next Write.
            AmLog("CMiniportAmbrelStream::Write ***** no more space in fifo!");
            break;
        }
        PUCHAR message = NULL;
        n = MidiParserTake(m_Parser, &message);
        if (n == 0) {
            while (Length > 0) {
                Length--;
                (*BytesWritten)++;
                if (MidiParserPutByte(m_Parser, *BufferAddress++)) {
                    AmLog("CMiniportAmbrelStream::Write ***** completed new command after %d bytes",
                          (int)*BytesWritten);
                    break;
                }
            }
            continue;
        }
        AmLog("CMiniportAmbrelStream::Write ***** got %d octets from parser!", (int)n);
        fifo->FifoPut(message, n);
        space -= n;
    }

    ULONG depth = fifo->FifoDepth();
    AmLog("CMiniportAmbrelStream::Write ***** %d bytes need to be written", (int)depth);

    PIRP irp = fifo->m_PendingReadIrp;
    if (irp != NULL && depth > 0) {
        AmLog("CMiniportAmbrelStream::Write ***** got Irp: %x", (ULONG)(ULONG_PTR)irp);
        // Whoever takes the cancel routine away owns the request; a null one
        // means its cancellation is under way and completes it.
        if (IoSetCancelRoutine(irp, NULL) != NULL) {
            PUCHAR buffer = fifo->m_PendingReadBuffer;
            ULONG length = fifo->m_PendingReadLength;
            fifo->m_PendingReadIrp = NULL;
            fifo->m_PendingReadBuffer = NULL;
            fifo->m_PendingReadLength = 0;
            AmLog("CMiniportAmbrelStream::Write ***** buffer-depth: %d (%d)", (int)depth, (int)length);
            ULONG count = fifo->FifoGet(buffer, length);
            AmLog("CMiniportAmbrelStream::Write ***** before CompleteRequest");
            if (AmControlDeviceRemoved()) {
                completeIrpBoosted(irp, STATUS_SERVER_DISABLED, 0);
            } else {
                completeIrpBoosted(irp, STATUS_SUCCESS, count);
            }
        }
    }

    AmLog("CMiniportAmbrelStream::Write ***** before release spinlock");
    KeReleaseSpinLockFromDpcLevel(&miniport->m_Lock);
    AmLog("CMiniportAmbrelStream::Write +++++ succeeded");
    return STATUS_SUCCESS;
}

VOID NTAPI amTimerDPC(_In_ PKDPC Dpc, _In_opt_ PVOID DeferredContext, _In_opt_ PVOID SystemArgument1,
                      _In_opt_ PVOID SystemArgument2)
{
    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(SystemArgument1);
    UNREFERENCED_PARAMETER(SystemArgument2);

    AmLog("amTimerDPC");
    AmAssert(DeferredContext);
    CMiniportAmbrelStream *stream = static_cast<CMiniportAmbrelStream *>(DeferredContext);
    if (stream != NULL && !stream->IsCapture()) {
        stream->ConsumeEvents();
    }
    AmLog("amTimerDPC +++++ done");
}

// ------------------------------------------------------------------ capture path: the clients' side

// A pass that could not finish an item gives back the events it built for it
// and keeps the item at the head of the stream's list, so that the next pass
// delivers it whole and in order. If the stream stopped meanwhile its list
// is gone and the item with it.
static VOID AbandonCaptureItem(_In_ CMiniportAmbrelStream *stream, _In_ CaptureItem *item,
                               _In_opt_ PDMUS_KERNEL_EVENT built)
{
    if (built != NULL) {
        stream->m_Allocator->PutMessage(built);
    }
    CMiniportAmbrel *miniport = stream->m_Miniport;
    BOOLEAN kept = FALSE;
    KeAcquireSpinLockAtDpcLevel(&miniport->m_Lock);
    if (stream->m_CaptureSlot < AM_MAX_CAPTURE_STREAMS &&
        miniport->m_CaptureLists[stream->m_CaptureSlot] == &stream->m_CaptureData) {
        InsertHeadList(&stream->m_CaptureData, &item->link);
        kept = TRUE;
    }
    KeReleaseSpinLockFromDpcLevel(&miniport->m_Lock);
    if (!kept) {
        ExFreePoolWithTag(item, AMBREL_POOL_TAG);
    }
}

NTSTATUS CMiniportAmbrelStream::SourceEvtsToPort()
{
    CMiniportAmbrel *miniport = m_Miniport;
    AmLog("CMiniportAmbrelStream::SourceEvtsToPort(%p), notifyCount: %d", this,
          (int)AmReadLong(&miniport->m_NotifyCount));
    AmDispatchCode();

    if (!m_IsCapture) {
        AmLog("CMiniportAmbrelStream::SourceEvtsToPort ----- called on render stream");
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (AmReadLong(&m_State) != KSSTATE_RUN) {
        AmLog("CMiniportAmbrelStream::SourceEvtsToPort ----- This PIN is not running!");
        return STATUS_INVALID_DEVICE_REQUEST;
    }

    CaptureItem *item = NULL;
    for (;;) {
        if (item != NULL) {
            ExFreePoolWithTag(item, AMBREL_POOL_TAG);
            item = NULL;
        }

        KeAcquireSpinLockAtDpcLevel(&miniport->m_Lock);
        if (!IsListEmpty(&m_CaptureData)) {
            item = CONTAINING_RECORD(RemoveHeadList(&m_CaptureData), CaptureItem, link);
        }
        KeReleaseSpinLockFromDpcLevel(&miniport->m_Lock);
        if (item == NULL) {
            break;
        }

        PDMUS_KERNEL_EVENT head = NULL;
        PDMUS_KERNEL_EVENT tail = NULL;
        ULONG pos = 0;
        while (pos < item->length) {
            PDMUS_KERNEL_EVENT aDMKEvt = NULL;
            NTSTATUS status = m_Allocator->GetMessage(&aDMKEvt);
            if (!NT_SUCCESS(status) || aDMKEvt == NULL) {
                AmLog("CMiniportAmbrelStream::SourceEvtsToPort ----- can't allocate DMKEvt");
                AbandonCaptureItem(this, item, head);
                return STATUS_INSUFFICIENT_RESOURCES;
            }
            aDMKEvt->ullPresTime100ns = (REFERENCE_TIME)item->timeStamp;
            aDMKEvt->usChannelGroup = 1;
            aDMKEvt->usFlags = 0;
            aDMKEvt->cbEvent = 0;
            aDMKEvt->pNextEvt = NULL;

            KeAcquireSpinLockAtDpcLevel(&miniport->m_Lock);
            InterlockedIncrement(&miniport->m_NotifyCount);
            KeReleaseSpinLockFromDpcLevel(&miniport->m_Lock);
            AmLog("CMiniportAmbrelStream::SourceEvtsToPort ***** allocated new DMKEvt");

            ULONG chunk = item->length - pos;
            if (chunk > m_LargeBufferSize) {
                chunk = m_LargeBufferSize;
            }

            if (chunk <= sizeof(PBYTE)) {
                RtlCopyMemory(aDMKEvt->uData.abData, item->data + pos, chunk);
            } else {
                AmLog("CMiniportAmbrelStream::SourceEvtsToPort ***** got sysex, allocating large buffer");
                PBYTE buffer = NULL;
                status = m_Allocator->GetBuffer(&buffer);
                if (NT_SUCCESS(status)) {
                    AmAssertNamed(buffer != NULL, "aDMKEvt->uData.pbData");
                }
                if (!NT_SUCCESS(status) || buffer == NULL) {
                    AmLog("CMiniportAmbrelStream::SourceEvtsToPort ----- can't allocate larger buffer");
                    // The bare event goes back with the others.
                    if (tail != NULL) {
                        tail->pNextEvt = aDMKEvt;
                    } else {
                        head = aDMKEvt;
                    }
                    AbandonCaptureItem(this, item, head);
                    return STATUS_INSUFFICIENT_RESOURCES;
                }
                aDMKEvt->uData.pbData = buffer;
                RtlCopyMemory(buffer, item->data + pos, chunk);
            }
            aDMKEvt->cbEvent = (USHORT)chunk;

            pos += chunk;
            if (tail != NULL) {
                tail->pNextEvt = aDMKEvt;
            } else {
                head = aDMKEvt;
            }
            tail = aDMKEvt;
            AmLog("CMiniportAmbrelStream::SourceEvtsToPort ***** stored %d octets in event", (int)chunk);
        }

        PMXF sink = AmReadSink(&m_Sink);
        if (head != NULL) {
            sink->PutMessage(head);
        }
        AmLog("CMiniportAmbrelStream::SourceEvtsToPort ***** pushed complete event-list (%d octets) to application",
              (int)item->length);
    }

    KeAcquireSpinLockAtDpcLevel(&miniport->m_Lock);
    if (miniport->m_NotifyCount != 0) {
        InterlockedDecrement(&miniport->m_NotifyCount);
    }
    KeReleaseSpinLockFromDpcLevel(&miniport->m_Lock);

    AmLog("CMiniportAmbrelStream::SourceEvtsToPort +++++ succeeded, notifyCount: %d",
          (int)AmReadLong(&miniport->m_NotifyCount));
    return STATUS_SUCCESS;
}
