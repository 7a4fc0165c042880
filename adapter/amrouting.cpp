// Request routing. One driver object serves the framework's adapter device and
// the driver's control device through one dispatch table: every routine asks
// first whether its request is for the control device and hands everything
// else to portcls. Also the adapter's removal, which tears down the control
// device and every port.
#define AM_UNIT AM_UNIT_ADAPTER
#include "common/amcommon.h"
#include "common/amcomplete.h"
#include "adapter/amadapter.h"
#include "miniport/amminiport.h"

NTSTATUS punt_to_PortCls(_In_ PDEVICE_OBJECT DeviceObject, _In_ PIRP Irp)
{
    NTSTATUS status = PcDispatchIrp(DeviceObject, Irp);
    AmLog("punt_to_PortCls: done");
    return status;
}

// Not pageable: power and kernel-mode callers' requests pass through here and
// may come at DISPATCH_LEVEL.
NTSTATUS NTAPI am_private_dispatch_catchall(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp)
{

    AmLog("am_private_dispatch_catchall (%x)", AM_PTR32(DeviceObject));
    if (AmIsControlDevice(DeviceObject)) {
        AmLog("am_private_dispatch_catchall - not supported on our fdo (%x)", AM_PTR32(DeviceObject));
        return completeIrp(Irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
    return punt_to_PortCls(DeviceObject, Irp);
}

// Not pageable: kernel-mode callers may send these at DISPATCH_LEVEL.
NTSTATUS NTAPI am_private_dispatch_internal_device_control(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp)
{

    AmLog("am_private_dispatch_internal_device_control (%x)", AM_PTR32(DeviceObject));
    if (!AmIsControlDevice(DeviceObject)) {
        return punt_to_PortCls(DeviceObject, Irp);
    }
    if (!AmEnterControlRequest(DeviceObject)) {
        return completeIrp(Irp, STATUS_DELETE_PENDING, 0);
    }
    NTSTATUS status = completeIrp(Irp, STATUS_SUCCESS, 0);
    AmLeaveControlRequest();
    return status;
}

// Minor functions of IRP_MJ_PNP as the platform names them, by number.
static PCSTR const AmPnpMinorNames[] = {
    "IRP_MN_START_DEVICE",                 // 0x00
    "IRP_MN_QUERY_REMOVE_DEVICE",          // 0x01
    "IRP_MN_REMOVE_DEVICE",                // 0x02
    "IRP_MN_CANCEL_REMOVE_DEVICE",         // 0x03
    "IRP_MN_STOP_DEVICE",                  // 0x04
    "IRP_MN_QUERY_STOP_DEVICE",            // 0x05
    "IRP_MN_CANCEL_STOP_DEVICE",           // 0x06
    "IRP_MN_QUERY_DEVICE_RELATIONS",       // 0x07
    "IRP_MN_QUERY_INTERFACE",              // 0x08
    "IRP_MN_QUERY_CAPABILITIES",           // 0x09
    "IRP_MN_QUERY_RESOURCES",              // 0x0A
    "IRP_MN_QUERY_RESOURCE_REQUIREMENTS",  // 0x0B
    "IRP_MN_QUERY_DEVICE_TEXT",            // 0x0C
    "IRP_MN_FILTER_RESOURCE_REQUIREMENTS", // 0x0D
    NULL,                                  // 0x0E has no name
    "IRP_MN_READ_CONFIG",                  // 0x0F
    "IRP_MN_WRITE_CONFIG",                 // 0x10
    "IRP_MN_EJECT",                        // 0x11
    "IRP_MN_SET_LOCK",                     // 0x12
    "IRP_MN_QUERY_ID",                     // 0x13
    "IRP_MN_QUERY_PNP_DEVICE_STATE",       // 0x14
    "IRP_MN_QUERY_BUS_INFORMATION",        // 0x15
    "IRP_MN_DEVICE_USAGE_NOTIFICATION",    // 0x16
    "IRP_MN_SURPRISE_REMOVAL",             // 0x17
};

NTSTATUS NTAPI am_private_dispatch_pnp(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp)
{
    AmPagedCode();

    AmLog("am_private_dispatch_pnp (%x)", AM_PTR32(DeviceObject));

    UCHAR minor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
    if (minor < RTL_NUMBER_OF(AmPnpMinorNames) && AmPnpMinorNames[minor] != NULL) {
        AmLog("%s", AmPnpMinorNames[minor]);
    } else {
        AmLog("unknown: %d", minor);
    }

    if (minor == IRP_MN_REMOVE_DEVICE) {
        return am_private_dispatch_remove(DeviceObject, Irp);
    }
    return punt_to_PortCls(DeviceObject, Irp);
}

NTSTATUS am_private_dispatch_remove(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp)
{
    AmPagedCode();

    AmLog("am_private_dispatch_remove (%x)", AM_PTR32(DeviceObject));

    PDEVICE_OBJECT control = AmControlDevice();
    if (AmControlDeviceRemoved() || control == NULL) {
        return PcDispatchIrp(DeviceObject, Irp);
    }
    PortTable *table = (PortTable *)control->DeviceExtension;
    if (DeviceObject != table->FunctionalDeviceObject) {
        return PcDispatchIrp(DeviceObject, Irp);
    }

    AmLog("am_private_dispatch_remove ***** call is for function interface");
    InterlockedExchange(&controlDeviceRemoved, 1);

    AmLog("am_private_dispatch_remove ***** deleting symbolic link");
    UNICODE_STRING linkName;
    RtlInitUnicodeString(&linkName, AM_CONTROL_LINK_NAME);
    IoDeleteSymbolicLink(&linkName);

    // Handlers that passed the gate before it closed may still be using their
    // port; none may be freed under them.
    AmWaitForControlRequests();

    for (ULONG i = 0; i < table->PortCount; i++) {
        // With the gate closed and the handlers gone nothing adds or removes a
        // slot any more; the lock only makes the read a proper one.
        KIRQL irql = KeAcquireSpinLockRaiseToDpc(&table->Lock);
        MidiPort *port = table->Ports[i];
        KeReleaseSpinLock(&table->Lock, irql);
        if (port != NULL) {
            AmLog("am_private_dispatch_remove ***** removing port: %d", i);
            am_private_cleanup_for_remove(table, port);
        }
    }

    AmLog("am_private_dispatch_remove ***** IoDeleteDevice: controlDevice");
    InterlockedExchangePointer((PVOID volatile *)&controlDeviceObject, NULL);
    IoDeleteDevice(control);

    AmLog("am_private_dispatch_remove ***** pass Irp down to function device");
    NTSTATUS status = PcDispatchIrp(DeviceObject, Irp);
    if (!NT_SUCCESS(status)) {
        AmLog("am_private_dispatch_remove ----- PcDispatchIrp failed: %x", status);
    } else {
        AmLog("am_private_dispatch_remove +++++ succeeded");
    }
    return status;
}

VOID am_private_cleanup_for_remove(_In_ PortTable *table, _In_ MidiPort *port)
{
    AmPagedCode();

    AmLog("am_private_cleanup_for_remove (%ls)", port->Name);

    CMiniportAmbrel *miniport = port->Miniport;
    PIRP claimed = NULL;
    if (miniport != NULL) {
        BOOLEAN logged = FALSE;
        for (;;) {
            KIRQL irql = KeAcquireSpinLockRaiseToDpc(&miniport->m_Lock);
            PIRP parked = miniport->m_Fifo.m_PendingReadIrp;
            if (parked != NULL) {
                if (!logged) {
                    AmLog("am_private_cleanup_for_remove ***** got Irp: %x", AM_PTR32(parked));
                    logged = TRUE;
                }
                if (IoSetCancelRoutine(parked, NULL) != NULL) {
                    claimed = parked;
                    miniport->m_Fifo.m_PendingReadIrp = NULL;
                }
            }
            KeReleaseSpinLock(&miniport->m_Lock, irql);
            if (parked == NULL || claimed != NULL) {
                break;
            }
            // The cancel routine owns the read and still reads this port to
            // find it: the record must outlive it. It lets go of the port by
            // emptying the slot under m_Lock.
            AmSleepBriefly();
        }
    }

    if (claimed != NULL) {
        completeIrpBoosted(claimed, STATUS_DELETE_PENDING, 0);
    }

    if (miniport != NULL) {
        miniport->DetachPortRecord();
    }

    RemovePortDevice(table, port);

    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&table->Lock);
    RemovePortByPtr(table, port);
    KeReleaseSpinLock(&table->Lock, irql);

    AmLog("am_private_cleanup_for_remove +++++ succeeded");
}
