// The process-id registry: which processes have pins open on a port's
// published device. Pin opens and closes on the framework's device are noted
// in the port's record on their way to portcls; the owner of the port asks
// with a device-control request on its handle.
#define AM_UNIT AM_UNIT_ADAPTER
#include "common/amcommon.h"
#include "common/amcomplete.h"
#include "adapter/amadapter.h"

HANDLE requesterProcessId(_In_ PIRP Irp)
{
    PETHREAD thread = Irp->Tail.Overlay.Thread;
    if (thread == NULL) {
        return NULL;
    }
    PEPROCESS process = IoThreadToProcess(thread);
    if (process == NULL) {
        return NULL;
    }
    return PsGetProcessId(process);
}

NTSTATUS am_ioctl_process_ids(_In_ MidiPort *port, _Out_writes_bytes_(outputLength) PVOID output,
                              _In_ ULONG outputLength, _Out_ PULONG written)
{
    AmLog("am_ioctl_process_ids");

    // A copy taken under the table lock: pins open and close on other threads
    // while the reply is built.
    ProcessSlot slots[AM_PORT_PROCESS_SLOTS];
    PortTable *table = (PortTable *)AmControlDevice()->DeviceExtension;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&table->Lock);
    for (ULONG s = 0; s < AM_PORT_PROCESS_SLOTS; s++) {
        slots[s] = port->ProcessSlots[s];
    }
    KeReleaseSpinLock(&table->Lock, irql);

    PUCHAR reply = (PUCHAR)output;
    ULONG count = 0;
    NTSTATUS status = STATUS_SUCCESS;
    for (ULONG s = 0; s < AM_PORT_PROCESS_SLOTS; s++) {
        // Room for one more id is asked for before each slot is looked at.
        if (8 * (count + 1) > outputLength) {
            status = STATUS_MORE_PROCESSING_REQUIRED;
            break;
        }
        if (slots[s].FileObject == NULL || slots[s].ProcessId == NULL) {
            continue;
        }
        ULONGLONG id = (ULONGLONG)(ULONG_PTR)slots[s].ProcessId;
        BOOLEAN known = FALSE;
        for (ULONG k = 0; k < count; k++) {
            ULONGLONG seen = 0;
            for (ULONG b = 0; b < 8; b++) {
                seen |= (ULONGLONG)reply[8 * k + b] << (8 * b);
            }
            if (seen == id) {
                known = TRUE;
                break;
            }
        }
        if (!known) {
            for (ULONG b = 0; b < 8; b++) {
                reply[8 * count + b] = (UCHAR)(id >> (8 * b));
            }
            count++;
        }
    }
    *written = 8 * count;
    return status;
}

NTSTATUS NTAPI am_private_dispatch_device_control(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp)
{
    AmPagedCode();

    AmLog("am_private_dispatch_device_control (%x)", AM_PTR32(DeviceObject));
    if (!AmIsControlDevice(DeviceObject)) {
        return punt_to_PortCls(DeviceObject, Irp);
    }
    if (!AmEnterControlRequest(DeviceObject)) {
        return completeIrp(Irp, STATUS_DELETE_PENDING, 0);
    }

    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
    NTSTATUS status = STATUS_INVALID_DEVICE_REQUEST;
    ULONG written = 0;
    if (code == IOCTL_AMBREL_PROCESS_IDS) {
        MidiPort *port = AmPortOfFile(stack->FileObject);
        if (port != NULL) {
            status = am_ioctl_process_ids(port, Irp->AssociatedIrp.SystemBuffer,
                                          stack->Parameters.DeviceIoControl.OutputBufferLength, &written);
        } else {
            // Only a handle that owns a port has anything to report.
            status = STATUS_INVALID_PARAMETER;
        }
    }

    AmLog("am_private_dispatch_device_control(%x): %x [%d]", code, status, written);
    status = completeIrp(Irp, status, written);
    AmLeaveControlRequest();
    return status;
}

// The port whose filter a pin is opened on: the one whose reference string is
// the whole final component of the filter's name. A plain substring test would
// let "ambrel1" claim the pins of "ambrel10" to "ambrel19".
static BOOLEAN NameEndsInComponent(_In_z_ PCWSTR name, _In_z_ PCWSTR component)
{
    SIZE_T nameLength = 0;
    while (name[nameLength] != L'\0') {
        nameLength++;
    }
    SIZE_T componentLength = 0;
    while (component[componentLength] != L'\0') {
        componentLength++;
    }
    // Interface paths reach the driver in whatever case the client used.
    if (componentLength == 0 || componentLength > nameLength) {
        return FALSE;
    }
    SIZE_T start = nameLength - componentLength;
    if (start > 0 && name[start - 1] != L'\\') {
        return FALSE;
    }
    for (SIZE_T i = 0; i < componentLength; i++) {
        WCHAR a = name[start + i];
        WCHAR b = component[i];
        if (a >= L'A' && a <= L'Z') {
            a = (WCHAR)(a - L'A' + L'a');
        }
        if (b >= L'A' && b <= L'Z') {
            b = (WCHAR)(b - L'A' + L'a');
        }
        if (a != b) {
            return FALSE;
        }
    }
    return TRUE;
}

VOID am_add_process_id(_In_z_ PCWSTR relatedFileName, _In_ PFILE_OBJECT fileObject, _In_ HANDLE processId)
{
    PDEVICE_OBJECT control = AmControlDevice();
    if (control == NULL || control->DeviceExtension == NULL) {
        return;
    }
    // Removal deletes the table with the control device: stay inside the gate.
    if (!AmEnterControlRequest(control)) {
        return;
    }
    PortTable *table = (PortTable *)control->DeviceExtension;

    // Wide strings may be printed at PASSIVE_LEVEL only: what the messages
    // need is noted under the lock and logged after it is released.
    LONG foundEntry = -1;
    LONG foundSlot = -1;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&table->Lock);
    for (ULONG i = 0; i < table->PortCount; i++) {
        MidiPort *port = table->Ports[i];
        if (port == NULL || !NameEndsInComponent(relatedFileName, port->ReferenceString)) {
            continue;
        }
        foundEntry = (LONG)i;
        for (ULONG s = 0; s < AM_PORT_PROCESS_SLOTS; s++) {
            if (port->ProcessSlots[s].FileObject == NULL) {
                foundSlot = (LONG)s;
                port->ProcessSlots[s].FileObject = fileObject;
                port->ProcessSlots[s].ProcessId = processId;
                break;
            }
        }
        break;
    }
    KeReleaseSpinLock(&table->Lock, irql);

    if (foundEntry >= 0) {
        AmLog("am_add_process_id (%ls) found entry: %d", relatedFileName, foundEntry);
    }
    if (foundSlot >= 0) {
        AmLog("am_add_process_id (%ls) found empty slot: %d", relatedFileName, foundSlot);
    }
    AmLeaveControlRequest();
}

VOID am_remove_process_id(_In_ PFILE_OBJECT fileObject)
{
    PDEVICE_OBJECT control = AmControlDevice();
    if (control == NULL || control->DeviceExtension == NULL) {
        return;
    }
    if (!AmEnterControlRequest(control)) {
        return;
    }
    PortTable *table = (PortTable *)control->DeviceExtension;

    // A pin's file object is registered once, so at most one slot names it.
    // The port's reference string is copied under the lock (the record may go
    // as soon as it is released) and printed at PASSIVE_LEVEL.
    WCHAR referenceString[AM_PORT_REFSTRING_CCH];
    LONG foundSlot = -1;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&table->Lock);
    for (ULONG i = 0; i < table->PortCount && foundSlot < 0; i++) {
        MidiPort *port = table->Ports[i];
        if (port == NULL) {
            continue;
        }
        for (ULONG s = 0; s < AM_PORT_PROCESS_SLOTS; s++) {
            if (port->ProcessSlots[s].FileObject == fileObject) {
                for (ULONG c = 0; c < AM_PORT_REFSTRING_CCH; c++) {
                    referenceString[c] = port->ReferenceString[c];
                    if (referenceString[c] == L'\0') {
                        break;
                    }
                }
                referenceString[AM_PORT_REFSTRING_CCH - 1] = L'\0';
                foundSlot = (LONG)s;
                port->ProcessSlots[s].FileObject = NULL;
                port->ProcessSlots[s].ProcessId = NULL;
                break;
            }
        }
    }
    KeReleaseSpinLock(&table->Lock, irql);

    if (foundSlot >= 0) {
        AmLog("am_remove_process_id (%ls) found used slot: %d", referenceString, foundSlot);
    }
    AmLeaveControlRequest();
}
