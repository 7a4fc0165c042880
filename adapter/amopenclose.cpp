// Open and close of the control device: each handle owns exactly one port,
// created from the file name it was opened with and withdrawn when it is
// closed. Opens and closes for the framework's devices (the published ports'
// filters and pins) pass through here only to keep the process-id registry
// current.
#define AM_UNIT AM_UNIT_ADAPTER
#include "common/amcommon.h"
#include "common/amcomplete.h"
#include "common/amstring.h"
#include "adapter/amadapter.h"
#include "adapter/openparams.h"
#include "miniport/amminiport.h"

// Creates, publishes and binds the port of one open; completes the request.
static NTSTATUS CreatePort(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    PFILE_OBJECT fileObject = stack->FileObject;
    if (fileObject == NULL || fileObject->FileName.Buffer == NULL) {
        return completeIrp(Irp, STATUS_INVALID_PARAMETER, 0);
    }

    ACCESS_MASK access = 0;
    if (stack->Parameters.Create.SecurityContext != NULL) {
        access = stack->Parameters.Create.SecurityContext->DesiredAccess;
    }
    ULONG flags = openFlagsFromAccess(access);
    AmLog("am_private_dispatch_create ----- security: %lx", flags);

    PortOpenParams params;
    initOpenParams(&params, &fileObject->FileName, flags);
    AmLog("am_private_dispatch_create ----- filename: %ls", params.deviceName);

    parseOpenParams(params.deviceName, &params.sysexLen, &params.manufacturerGuid, &params.productGuid);
    if (!NT_SUCCESS(completeOpenParams(&params, defaultSysexSize))) {
        AmLog("am_private_dispatch_create ----- no valid port-name given");
        return completeIrp(Irp, STATUS_INVALID_PARAMETER, 0);
    }

    AmLog("am_private_dispatch_create ----- deviceName: %ls", params.deviceName);
    AmLog("am_private_dispatch_create ----- sysexLen: %ld", params.sysexLen);
    AmLog("am_private_dispatch_create ----- flags: %lx", params.flags);

    PortTable *table = (PortTable *)DeviceObject->DeviceExtension;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&table->Lock);
    LONG index = AddPortByName(table, params.deviceName);
    KeReleaseSpinLock(&table->Lock, irql);

    if (index < 0) {
        NTSTATUS refused;
        switch (index) {
        case AM_PORT_NAME_EXISTS:
            refused = STATUS_ALIAS_EXISTS;
            break;
        case AM_PORT_NO_MEMORY:
            refused = STATUS_INSUFFICIENT_RESOURCES;
            break;
        default:
            refused = STATUS_TOO_MANY_SESSIONS;
            break;
        }
        AmLog("am_private_dispatch_create ----- AddPortByName failed: %x", refused);
        return completeIrp(Irp, refused, 0);
    }

    NTSTATUS status = AddPortDevice(table, (ULONG)index, params.sysexLen, params.flags, params.manufacturerGuid,
                                    params.productGuid);
    if (!NT_SUCCESS(status)) {
        AmLog("am_private_dispatch_create ----- AddPortDevice failed: %x", status);
        irql = KeAcquireSpinLockRaiseToDpc(&table->Lock);
        RemovePortByIndex(table, (ULONG)index);
        KeReleaseSpinLock(&table->Lock, irql);
        return completeIrp(Irp, status, 0);
    }

    // The slot is reserved for this open alone, so reading it needs no lock
    // beyond the one that made it ours.
    irql = KeAcquireSpinLockRaiseToDpc(&table->Lock);
    fileObject->FsContext = table->Ports[index];
    KeReleaseSpinLock(&table->Lock, irql);

    AmLog("am_private_dispatch_create +++++ succeeded");
    return completeIrp(Irp, STATUS_SUCCESS, 0);
}

// Copies a file object's name into `buffer` (AM_OPEN_NAME_BUFFER_CCH
// characters): at most AM_OPEN_NAME_MAX_CCH of them, terminated.
static VOID CopyFileName(_In_ PFILE_OBJECT fileObject, _Out_writes_z_(AM_OPEN_NAME_BUFFER_CCH) PWSTR buffer)
{
    SIZE_T count = 0;
    if (fileObject->FileName.Buffer != NULL) {
        count = fileObject->FileName.Length / sizeof(WCHAR);
        if (count > AM_OPEN_NAME_MAX_CCH) {
            count = AM_OPEN_NAME_MAX_CCH;
        }
        for (SIZE_T i = 0; i < count; i++) {
            buffer[i] = fileObject->FileName.Buffer[i];
        }
    }
    buffer[count] = L'\0';
}

// The name every pin-creation request carries (KSNAME_Pin as text).
#define AM_KS_PIN_CREATE_NAME L"146F1A80-4791-11D0-A5D6-28DB04C10000"

// A pin opened on a published port's filter is recorded with the process that
// opened it, so the port's owner can ask who plays to or records from it.
// TRUE when the pin was handed to the registry.
static BOOLEAN RegisterPinOpen(_Inout_ PIRP Irp)
{
    HANDLE pid = requesterProcessId(Irp);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    PFILE_OBJECT fileObject = stack->FileObject;
    if (pid == NULL || fileObject == NULL || fileObject->FileName.Buffer == NULL) {
        return FALSE;
    }

    WCHAR name[AM_OPEN_NAME_BUFFER_CCH];
    CopyFileName(fileObject, name);
    ACCESS_MASK access = 0;
    if (stack->Parameters.Create.SecurityContext != NULL) {
        access = stack->Parameters.Create.SecurityContext->DesiredAccess;
    }
    AmLog("am_private_dispatch_create ----- filename1: %ls (%d) Access:%lx (File:%lx) (Related:%lx) [Irp:%lx]", name,
          fileObject->FileName.Length, access, AM_PTR32(fileObject), AM_PTR32(fileObject->RelatedFileObject),
          AM_PTR32(Irp));

    if (AmWcsStr(name, AM_KS_PIN_CREATE_NAME) != NULL && fileObject->RelatedFileObject != NULL) {
        CopyFileName(fileObject->RelatedFileObject, name);
        AmLog("related file path: %ls", name);
        am_add_process_id(name, fileObject, pid);
        return TRUE;
    }
    return FALSE;
}

NTSTATUS NTAPI am_private_dispatch_create(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp)
{
    AmPagedCode();

    AmLog("am_private_dispatch_create (%x)", AM_PTR32(DeviceObject));

    if (!AmIsControlDevice(DeviceObject)) {
        PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
        BOOLEAN recorded = RegisterPinOpen(Irp);
        NTSTATUS status = punt_to_PortCls(DeviceObject, Irp);
        // A pin the framework refused never gets a close: its entry would
        // outlive the file object it names.
        if (recorded && !NT_SUCCESS(status)) {
            am_remove_process_id(fileObject);
        }
        return status;
    }

    if (!AmEnterControlRequest(DeviceObject)) {
        return completeIrp(Irp, STATUS_DELETE_PENDING, 0);
    }
    NTSTATUS status = CreatePort(DeviceObject, Irp);
    AmLeaveControlRequest();
    return status;
}

NTSTATUS NTAPI am_private_dispatch_close(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp)
{
    AmPagedCode();

    AmLog("am_private_dispatch_close (%x)", AM_PTR32(DeviceObject));

    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    if (!AmIsControlDevice(DeviceObject)) {
        if (fileObject != NULL) {
            AmLog("am_private_dispatch_close ----- (File:%lx) [Irp:%lx]", AM_PTR32(fileObject), AM_PTR32(Irp));
            am_remove_process_id(fileObject);
        }
        return punt_to_PortCls(DeviceObject, Irp);
    }

    if (!AmEnterControlRequest(DeviceObject)) {
        return completeIrp(Irp, STATUS_DELETE_PENDING, 0);
    }
    if (fileObject == NULL) {
        AmLeaveControlRequest();
        return completeIrp(Irp, STATUS_INVALID_PARAMETER, 0);
    }

    MidiPort *port = AmPortOfFile(fileObject);
    if (port != NULL) {
        PortTable *table = (PortTable *)DeviceObject->DeviceExtension;
        if (port->Miniport != NULL) {
            port->Miniport->DetachPortRecord();
        }
        RemovePortDevice(table, port);
        KIRQL irql = KeAcquireSpinLockRaiseToDpc(&table->Lock);
        RemovePortByPtr(table, port);
        KeReleaseSpinLock(&table->Lock, irql);
    }

    AmLog("am_private_dispatch_close +++++ succeeded");
    NTSTATUS status = completeIrp(Irp, STATUS_SUCCESS, 0);
    AmLeaveControlRequest();
    return status;
}
