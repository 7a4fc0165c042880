// The application's data path on its control handle: reads take whole MIDI
// messages that clients played to the port out of its FIFO, or wait for them
// (one parked read per port); writes hand the application's MIDI to every
// client recording from the port. Also the parked read's cancel routine and
// the cleanup that finishes a parked read when the handle goes away.
//
// A parked read has up to four parties that may finish it: the render path
// when data arrive, the cleanup, the adapter's removal, and the cancel
// routine. Each of the first three claims it under m_Lock by exchanging its
// cancel routine for null and completes it only if the routine was still
// there; otherwise the cancel routine owns it. Exactly one party completes it.
#define AM_UNIT AM_UNIT_ADAPTER
#include "common/amcommon.h"
#include "common/amcomplete.h"
#include "adapter/amadapter.h"
#include "miniport/amminiport.h"

// ------------------------------------------------------------------ read

static NTSTATUS ReadPort(_Inout_ PIRP Irp)
{
    AmLog("am_private_dispatch_read ***** is our fdo");

    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    if (fileObject == NULL) {
        return completeIrp(Irp, STATUS_INVALID_PARAMETER, 0);
    }
    AmLog("am_private_dispatch_read ***** got stack: %x", AM_PTR32(IoGetCurrentIrpStackLocation(Irp)));

    MidiPort *port = AmPortOfFile(fileObject);
    CMiniportAmbrel *miniport = (port != NULL) ? port->Miniport : NULL;
    if (miniport == NULL) {
        // A control handle always has a published port; anything else is not
        // a handle this driver made.
        return completeIrp(Irp, STATUS_INVALID_PARAMETER, 0);
    }

    // The busy test is repeated under the same hold of m_Lock that parks the
    // read (below): two reads arriving together cannot both find the slot free.
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&miniport->m_Lock);
    BOOLEAN busy = (miniport->m_Fifo.m_PendingReadIrp != NULL);
    KeReleaseSpinLock(&miniport->m_Lock, irql);
    if (busy) {
        AmLog("am_private_dispatch_read ----- still busy!");
        return completeIrp(Irp, STATUS_DEVICE_BUSY, 0);
    }
    AmLog("am_private_dispatch_read ***** no irp yet");

    if (Irp->MdlAddress == NULL) {
        return completeIrp(Irp, STATUS_INSUFFICIENT_RESOURCES, 0);
    }
    PUCHAR buffer = (PUCHAR)MmGetSystemAddressForMdlSafe(Irp->MdlAddress, NormalPagePriority);
    if (buffer == NULL) {
        AmLog("am_private_dispatch_read ----- MmGetSystemAddressForMdlSafe failed");
        return completeIrp(Irp, STATUS_INSUFFICIENT_RESOURCES, 0);
    }
    AmLog("am_private_dispatch_read ***** got address");

    ULONG length = MmGetMdlByteCount(Irp->MdlAddress);
    if (length == 0) {
        AmLog("am_private_dispatch_read ----- MmGetMdlByteCount failed");
        return completeIrp(Irp, STATUS_INSUFFICIENT_RESOURCES, 0);
    }
    AmLog("am_private_dispatch_read ***** got length: %d", length);

    ULONG taken = 0;
    NTSTATUS outcome = STATUS_SUCCESS;
    irql = KeAcquireSpinLockRaiseToDpc(&miniport->m_Lock);
    if (miniport->m_Fifo.m_PendingReadIrp != NULL) {
        busy = TRUE;
    } else {
        ULONG depth = miniport->m_Fifo.FifoDepth();
        AmLog("am_private_dispatch_read ***** buffer-depth: %d (%d)", depth, length);
        taken = miniport->m_Fifo.FifoGet(buffer, (depth < length) ? depth : length);
        if (taken == 0) {
            (void)IoSetCancelRoutine(Irp, controlCancelIrp);
            if (Irp->Cancel && IoSetCancelRoutine(Irp, NULL) != NULL) {
                AmLog("am_private_dispatch_read ***** was already cancelled");
                outcome = STATUS_CANCELLED;
            } else {
                // With Cancel set but the routine already gone, the cancel
                // routine is under way and will find the read parked here.
                AmLog("am_private_dispatch_read ***** mark pending");
                IoMarkIrpPending(Irp);
                miniport->m_Fifo.m_PendingReadIrp = Irp;
                miniport->m_Fifo.m_PendingReadBuffer = buffer;
                miniport->m_Fifo.m_PendingReadLength = length;
                outcome = STATUS_PENDING;
            }
        }
    }
    KeReleaseSpinLock(&miniport->m_Lock, irql);

    if (busy) {
        AmLog("am_private_dispatch_read ----- still busy!");
        return completeIrp(Irp, STATUS_DEVICE_BUSY, 0);
    }
    if (taken > 0) {
        AmLog("am_private_dispatch_read +++++ succeeded (returning data)");
        return completeIrpBoosted(Irp, STATUS_SUCCESS, taken);
    }
    if (outcome == STATUS_PENDING) {
        // The request may already be complete: nothing of it is touched here.
        AmLog("am_private_dispatch_read +++++ succeeded (pending)");
        return STATUS_PENDING;
    }
    AmLog("am_private_dispatch_read +++++ succeeded (cancelled)");
    return completeIrp(Irp, STATUS_CANCELLED, 0);
}

NTSTATUS NTAPI am_private_dispatch_read(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp)
{
    AmPagedCode();

    AmLog("am_private_dispatch_read (%x)", AM_PTR32(DeviceObject));
    if (!AmIsControlDevice(DeviceObject)) {
        return punt_to_PortCls(DeviceObject, Irp);
    }
    if (!AmEnterControlRequest(DeviceObject)) {
        return completeIrp(Irp, STATUS_DELETE_PENDING, 0);
    }
    NTSTATUS status = ReadPort(Irp);
    AmLeaveControlRequest();
    return status;
}

// ------------------------------------------------------------------ cancel

VOID NTAPI controlCancelIrp(_Inout_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp)
{
    AmLog("controlCancelIrp (%x,%x)", AM_PTR32(DeviceObject), AM_PTR32(Irp));
    IoReleaseCancelSpinLock(Irp->CancelIrql);

    // The three early exits cannot hold a parked read of this driver; the
    // request is finished here all the same rather than left pending forever.
    if (AmControlDevice() == NULL) {
        AmLog("controlCancelIrp ----- got no controlDeviceObject yet");
        completeIrp(Irp, STATUS_CANCELLED, 0);
        return;
    }
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    if (fileObject == NULL) {
        AmLog("controlCancelIrp ----- got no FileObject");
        completeIrp(Irp, STATUS_CANCELLED, 0);
        return;
    }
    MidiPort *port = AmPortOfFile(fileObject);
    if (port == NULL) {
        AmLog("controlCancelIrp ----- got no midiPort");
        completeIrp(Irp, STATUS_CANCELLED, 0);
        return;
    }

    // Only the handle's own port can hold the request. Its record stays valid
    // here: the close waits for this request to complete (the request keeps
    // the handle open), and removal waits until this routine has emptied the
    // port's read slot. The slot index is wanted only for the log.
    PortTable *table = (PortTable *)DeviceObject->DeviceExtension;
    LONG slot = -1;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&table->Lock);
    for (ULONG i = 0; i < table->PortCount; i++) {
        if (table->Ports[i] == port) {
            slot = (LONG)i;
            break;
        }
    }
    KeReleaseSpinLock(&table->Lock, irql);

    BOOLEAN found = FALSE;
    CMiniportAmbrel *miniport = port->Miniport;
    if (miniport != NULL) {
        irql = KeAcquireSpinLockRaiseToDpc(&miniport->m_Lock);
        if (miniport->m_Fifo.m_PendingReadIrp == Irp) {
            miniport->m_Fifo.m_PendingReadIrp = NULL;
            found = TRUE;
            AmLog("controlCancelIrp ***** found: %x at %d", AM_PTR32(Irp), slot);
        }
        KeReleaseSpinLock(&miniport->m_Lock, irql);
    }

    if (found) {
        AmLog("controlCancelIrp ***** cancelling now: %x", AM_PTR32(Irp));
        completeIrp(Irp, STATUS_CANCELLED, 0);
    }
    AmLog("controlCancelIrp +++++ done");
}

// ------------------------------------------------------------------ cleanup

static NTSTATUS CleanupPort(_Inout_ PIRP Irp)
{
    AmLog("am_private_dispatch_cleanup ***** fdo is ours");

    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    if (fileObject == NULL) {
        return completeIrp(Irp, STATUS_INVALID_PARAMETER, 0);
    }
    AmLog("am_private_dispatch_cleanup ***** got stack: %x", AM_PTR32(IoGetCurrentIrpStackLocation(Irp)));

    MidiPort *port = AmPortOfFile(fileObject);
    PIRP claimed = NULL;
    if (port != NULL) {
        AmLog("am_private_dispatch_cleanup ***** got MidiPort: %ls", port->ReferenceString);
        CMiniportAmbrel *miniport = port->Miniport;
        if (miniport != NULL) {
            KIRQL irql = KeAcquireSpinLockRaiseToDpc(&miniport->m_Lock);
            PIRP parked = miniport->m_Fifo.m_PendingReadIrp;
            if (parked != NULL) {
                AmLog("am_private_dispatch_cleanup ***** got Irp: %x", AM_PTR32(parked));
                if (IoSetCancelRoutine(parked, NULL) != NULL) {
                    claimed = parked;
                    miniport->m_Fifo.m_PendingReadIrp = NULL;
                }
            }
            AmLog("am_private_dispatch_cleanup ***** before release spinlock");
            KeReleaseSpinLock(&miniport->m_Lock, irql);
        }
    }

    if (claimed != NULL) {
        AmLog("am_private_dispatch_cleanup ***** completing irp");
        completeIrp(claimed, STATUS_SERVER_DISABLED, 0);
    }

    AmLog("am_private_dispatch_cleanup +++++ succeeded");
    return completeIrp(Irp, STATUS_SUCCESS, 0);
}

NTSTATUS NTAPI am_private_dispatch_cleanup(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp)
{
    AmPagedCode();

    AmLog("am_private_dispatch_cleanup (%x)", AM_PTR32(DeviceObject));
    if (!AmIsControlDevice(DeviceObject)) {
        return punt_to_PortCls(DeviceObject, Irp);
    }
    if (!AmEnterControlRequest(DeviceObject)) {
        return completeIrp(Irp, STATUS_DELETE_PENDING, 0);
    }
    NTSTATUS status = CleanupPort(Irp);
    AmLeaveControlRequest();
    return status;
}

// ------------------------------------------------------------------ write

static NTSTATUS WritePort(_Inout_ PIRP Irp)
{
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    if (fileObject == NULL) {
        return completeIrp(Irp, STATUS_INVALID_PARAMETER, 0);
    }
    MidiPort *port = AmPortOfFile(fileObject);
    CMiniportAmbrel *miniport = (port != NULL) ? port->Miniport : NULL;
    if (miniport == NULL) {
        return completeIrp(Irp, STATUS_INVALID_PARAMETER, 0);
    }

    if (Irp->MdlAddress == NULL) {
        AmLog("am_private_dispatch_write ----- Irp->MdlAddress was NULL");
        return completeIrp(Irp, STATUS_INSUFFICIENT_RESOURCES, 0);
    }
    PUCHAR buffer = (PUCHAR)MmGetSystemAddressForMdlSafe(Irp->MdlAddress, NormalPagePriority);
    if (buffer == NULL) {
        AmLog("am_private_dispatch_write ----- MmGetSystemAddressForMdlSafe failed");
        return completeIrp(Irp, STATUS_INSUFFICIENT_RESOURCES, 0);
    }

    ULONG length = MmGetMdlByteCount(Irp->MdlAddress);
    if (length == 0) {
        AmLog("am_private_dispatch_write ----- not data given!");
        return completeIrp(Irp, STATUS_BUFFER_TOO_SMALL, 0);
    }
    if (length > AM_MAX_WRITE_BYTES) {
        AmLog("am_private_dispatch_write ----- too much data for fifo: %d (%d)", length, AM_MAX_WRITE_BYTES);
        return completeIrp(Irp, STATUS_TOO_MANY_COMMANDS, 0);
    }

    if (!miniport->PutData(buffer, length)) {
        AmLog("am_private_dispatch_write ----- could not allocate buffer for %d bytes of midi-data", length);
        return completeIrpBoosted(Irp, STATUS_BUFFER_TOO_SMALL, 0);
    }

    AmLog("am_private_dispatch_write +++++ succeeded: %d", length);
    return completeIrpBoosted(Irp, STATUS_SUCCESS, 0);
}

NTSTATUS NTAPI am_private_dispatch_write(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp)
{
    AmPagedCode();

    AmLog("am_private_dispatch_write (%x)", AM_PTR32(DeviceObject));
    if (!AmIsControlDevice(DeviceObject)) {
        return punt_to_PortCls(DeviceObject, Irp);
    }
    if (!AmEnterControlRequest(DeviceObject)) {
        return completeIrp(Irp, STATUS_DELETE_PENDING, 0);
    }
    NTSTATUS status = WritePort(Irp);
    AmLeaveControlRequest();
    return status;
}
