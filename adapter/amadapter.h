// The adapter unit: driver entry, the registry settings, port publication and
// the control device's request handlers. This header also carries the
// driver-wide values that the miniport reads (the render path needs to know
// whether the adapter is being removed when it completes a parked read).
#pragma once

#include "common/platform.h"
#include "adapter/porttable.h"

// ------------------------------------------------------------------ driver-wide values
// Written by DriverEntry, AddDevice and the adapter's removal; read without a
// lock by the request routines. Writers use interlocked operations and readers
// the accessors below, so that a reader on another processor sees either the
// old or the new value, never a torn or stale-forever one.
extern PDEVICE_OBJECT volatile controlDeviceObject; // null before AddDevice and after removal
extern volatile LONG controlDeviceRemoved;          // 1 once the adapter's removal has begun
extern ULONG maxPorts;                              // port slots and announced sub-devices, 1..512
extern ULONG defaultSysexSize;                      // SysEx size of an open that names none

inline PDEVICE_OBJECT AmControlDevice()
{
    return (PDEVICE_OBJECT)InterlockedCompareExchangePointer((PVOID volatile *)&controlDeviceObject, NULL, NULL);
}

inline BOOLEAN AmControlDeviceRemoved()
{
    return InterlockedCompareExchange(&controlDeviceRemoved, 0, 0) != 0;
}

// ------------------------------------------------------------------ names
#define AM_CONTROL_DEVICE_NAME L"\\Device\\Ambrel"
#define AM_CONTROL_LINK_NAME L"\\DosDevices\\Ambrel"

// Device-control code of the process-id query: device type 0x8001, function
// 0x801, METHOD_BUFFERED, FILE_ANY_ACCESS.
#define IOCTL_AMBREL_PROCESS_IDS 0x80012004UL

// The largest write a port accepts at once, whatever its SysEx size.
#define AM_MAX_WRITE_BYTES 0x80000UL

// Settings and their bounds.
#define AM_MAX_PORTS_LIMIT 512UL
#define AM_REGISTRY_PATH_MAX_CCH 1024

// ------------------------------------------------------------------ driver frame
extern "C" NTSTATUS NTAPI DriverEntry(_In_ PDRIVER_OBJECT DriverObject, _In_ PUNICODE_STRING RegistryPath);
NTSTATUS NTAPI AddDevice(_In_ PDRIVER_OBJECT DriverObject, _In_ PDEVICE_OBJECT PhysicalDeviceObject);
NTSTATUS NTAPI StartDevice(_In_ PDEVICE_OBJECT pDeviceObject, _In_ PIRP pIrp, _In_opt_ PRESOURCELIST ResourceList);

// ------------------------------------------------------------------ registry settings
// Reads a REG_DWORD. The out value is written only on success; every failure
// (key or value missing, another type, data shorter than four bytes, no
// memory) returns a failure status.
NTSTATUS GetDWordParam(_In_z_ PCWSTR keyPath, _In_z_ PCWSTR valueName, _Out_ PULONG value);
ULONG ReadMaxPorts(_In_z_ PCWSTR keyPath);
ULONG ReadSysexSize(_In_z_ PCWSTR keyPath);

// ------------------------------------------------------------------ publication
NTSTATUS AddPortDevice(_In_ PortTable *table, _In_ ULONG index, _In_ ULONG sysexSize, _In_ ULONG flags,
                       _In_ GUID manufacturerGuid, _In_ GUID productGuid);
NTSTATUS RemovePortDevice(_In_ PortTable *table, _In_ MidiPort *port);

typedef NTSTATUS (*PFN_AM_CREATE_MINIPORT)(_Out_ PUNKNOWN *unknown, _In_ REFCLSID classId,
                                           _In_opt_ PUNKNOWN outerUnknown, _In_ POOL_TYPE poolType,
                                           _In_opt_ MidiPort *portRecord, _In_ ULONG sysexSize,
                                           _In_ ULONG portFlags, _In_ const GUID *manufacturerGuid,
                                           _In_ const GUID *productGuid);

NTSTATUS InstallSubdevice(_In_ PDEVICE_OBJECT Context1, _In_opt_ PIRP Context2, _In_z_ PWSTR Name,
                          _In_ ULONG sysexSize, _In_ ULONG flags, _In_ GUID manufacturerGuid, _In_ GUID productGuid,
                          _In_ REFGUID PortClassId, _In_ REFGUID MiniportClassId,
                          _In_opt_ PFN_AM_CREATE_MINIPORT MiniportCreate, _In_opt_ PUNKNOWN UnknownAdapter,
                          _In_opt_ PRESOURCELIST ResourceList, _In_ REFGUID PortInterfaceId,
                          _Out_opt_ PVOID *OutPortInterface, _Out_opt_ PUNKNOWN *OutPortUnknown,
                          _In_opt_ MidiPort *portRecord);

// ------------------------------------------------------------------ request routing
NTSTATUS punt_to_PortCls(_In_ PDEVICE_OBJECT DeviceObject, _In_ PIRP Irp);
NTSTATUS NTAPI am_private_dispatch_create(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS NTAPI am_private_dispatch_close(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS NTAPI am_private_dispatch_read(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS NTAPI am_private_dispatch_write(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS NTAPI am_private_dispatch_cleanup(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS NTAPI am_private_dispatch_device_control(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS NTAPI am_private_dispatch_internal_device_control(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS NTAPI am_private_dispatch_pnp(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS NTAPI am_private_dispatch_catchall(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS am_private_dispatch_remove(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
VOID am_private_cleanup_for_remove(_In_ PortTable *table, _In_ MidiPort *port);
VOID NTAPI controlCancelIrp(_Inout_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);

// ------------------------------------------------------------------ process ids
NTSTATUS am_ioctl_process_ids(_In_ MidiPort *port, _Out_writes_bytes_(outputLength) PVOID output,
                              _In_ ULONG outputLength, _Out_ PULONG written);
VOID am_add_process_id(_In_z_ PCWSTR relatedFileName, _In_ PFILE_OBJECT fileObject, _In_ HANDLE processId);
VOID am_remove_process_id(_In_ PFILE_OBJECT fileObject);
HANDLE requesterProcessId(_In_ PIRP Irp);

// ------------------------------------------------------------------ internal to the unit
// Which of the driver's devices a request is for. The control device keeps
// its kind after removal has deleted it: requests on handles the application
// still holds must be refused, never handed to the framework.
BOOLEAN AmIsControlDevice(_In_ PDEVICE_OBJECT DeviceObject);

// The removal gate. A control-device handler that will touch a port enters
// first; removal sets controlDeviceRemoved and then waits until every handler
// that entered has left, so no port is freed under a handler that passed the
// gate. FALSE: refuse the request with STATUS_DELETE_PENDING.
BOOLEAN AmEnterControlRequest(_In_ PDEVICE_OBJECT DeviceObject);
VOID AmLeaveControlRequest();
// Removal's side: wait until no handler is inside. Called after
// controlDeviceRemoved has been set.
VOID AmWaitForControlRequests();

// A short sleep for removal's waits (PASSIVE_LEVEL).
VOID AmSleepBriefly();

// The port record bound to a control handle, or null.
inline MidiPort *AmPortOfFile(_In_opt_ PFILE_OBJECT fileObject)
{
    return (fileObject != NULL) ? (MidiPort *)fileObject->FsContext : NULL;
}

// Pointers in "%x" log fields: the message format names 32-bit fields, and
// the kernel's print routine reads exactly that many bits.
#define AM_PTR32(p) ((ULONG)(ULONG_PTR)(p))
