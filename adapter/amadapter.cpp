// Driver entry and the device objects: the framework's adapter device, which
// owns every published port, and the driver's own control device
// "\Device\Ambrel", which applications open to create ports. Also the
// driver-wide values and the gate that keeps removal and requests apart.
#define AM_UNIT AM_UNIT_ADAPTER
#include "common/amcommon.h"
#include "common/amcomplete.h"
#include "adapter/amadapter.h"

PDEVICE_OBJECT volatile controlDeviceObject = NULL;
volatile LONG controlDeviceRemoved = 0;
ULONG maxPorts = 0;
ULONG defaultSysexSize = 0;

// Control-device handlers between the gate and their return. Removal waits for
// it to fall to zero once it has closed the gate.
static volatile LONG amActiveControlRequests = 0;

#define AM_CONFIGURATION_SUFFIX L"Configuration"
#define AM_CONFIGURATION_SUFFIX_CCH 13

// ------------------------------------------------------------------ the gate

BOOLEAN AmIsControlDevice(_In_ PDEVICE_OBJECT DeviceObject)
{
    // The adapter device that portcls makes is a kernel-streaming device; the
    // only FILE_DEVICE_UNKNOWN device this driver owns is a control device,
    // the current one or one that removal deleted while handles stayed open.
    return DeviceObject == AmControlDevice() || DeviceObject->DeviceType == FILE_DEVICE_UNKNOWN;
}

BOOLEAN AmEnterControlRequest(_In_ PDEVICE_OBJECT DeviceObject)
{
    // Announce first, then look at the flag: removal sets the flag first and
    // then looks at the count, so one of the two always sees the other.
    InterlockedIncrement(&amActiveControlRequests);
    if (AmControlDeviceRemoved() || DeviceObject != AmControlDevice()) {
        InterlockedDecrement(&amActiveControlRequests);
        return FALSE;
    }
    return TRUE;
}

VOID AmLeaveControlRequest()
{
    InterlockedDecrement(&amActiveControlRequests);
}

VOID AmSleepBriefly()
{
    LARGE_INTEGER interval;
    interval.QuadPart = -10 * 1000; // 1 ms, relative
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
}

VOID AmWaitForControlRequests()
{
    AmPagedCode();
    // Handlers never block, so this ends as soon as the ones that got in
    // before the gate closed have returned.
    while (InterlockedCompareExchange(&amActiveControlRequests, 0, 0) != 0) {
        AmSleepBriefly();
    }
}

// ------------------------------------------------------------------ driver entry

// "<service key>\Configuration", the service key cut at
// AM_REGISTRY_PATH_MAX_CCH characters. `keyPath` holds
// AM_REGISTRY_PATH_MAX_CCH + 1 + AM_CONFIGURATION_SUFFIX_CCH + 1 characters.
// Returns the number of characters taken from the service key.
INIT_CODE_SEG static SIZE_T BuildConfigurationPath(_In_ PCUNICODE_STRING registryPath, _Out_ PWSTR keyPath)
{
    SIZE_T n = 0;
    if (registryPath != NULL && registryPath->Buffer != NULL) {
        n = registryPath->Length / sizeof(WCHAR);
    }
    if (n > AM_REGISTRY_PATH_MAX_CCH) {
        n = AM_REGISTRY_PATH_MAX_CCH;
    }
    for (SIZE_T i = 0; i < n; i++) {
        keyPath[i] = registryPath->Buffer[i];
    }
    SIZE_T end = n;
    if (end == 0 || keyPath[end - 1] != L'\\') {
        keyPath[end++] = L'\\';
    }
    const WCHAR suffix[] = AM_CONFIGURATION_SUFFIX;
    for (SIZE_T i = 0; i < AM_CONFIGURATION_SUFFIX_CCH; i++) {
        keyPath[end++] = suffix[i];
    }
    keyPath[end] = L'\0';
    return n;
}

extern "C" INIT_CODE_SEG NTSTATUS NTAPI DriverEntry(_In_ PDRIVER_OBJECT DriverObject,
                                                    _In_ PUNICODE_STRING RegistryPath)
{
    AmPagedCode();

    // The service key as it is logged: the counted string need not end in a
    // NUL, so the log shows the copy that also becomes the settings' path.
    WCHAR keyPath[AM_REGISTRY_PATH_MAX_CCH + 1 + AM_CONFIGURATION_SUFFIX_CCH + 1];
    SIZE_T serviceCch = BuildConfigurationPath(RegistryPath, keyPath);
    WCHAR saved = keyPath[serviceCch];
    keyPath[serviceCch] = L'\0';
    AmLog("DriverEntry (%x, %ls)", AM_PTR32(DriverObject), keyPath);
    keyPath[serviceCch] = saved;

    InterlockedExchangePointer((PVOID volatile *)&controlDeviceObject, NULL);
    InterlockedExchange(&controlDeviceRemoved, 0);

    maxPorts = ReadMaxPorts(keyPath);
    defaultSysexSize = ReadSysexSize(keyPath);

    DriverObject->DriverUnload = NULL;

    NTSTATUS status = PcInitializeAdapterDriver(DriverObject, RegistryPath, AddDevice);
    if (!NT_SUCCESS(status)) {
        AmLog("DriverEntry ----- PcInitializeAdapterDriver failed: %x", status);
        return status;
    }

    // Every request for either device passes through the driver first: the
    // slots portcls filled get the catch-all, which hands framework requests
    // back to portcls and refuses the rest on the control device.
    for (ULONG major = IRP_MJ_CREATE; major <= IRP_MJ_PNP; major++) {
        if (DriverObject->MajorFunction[major] != NULL) {
            DriverObject->MajorFunction[major] = am_private_dispatch_catchall;
        }
    }
    DriverObject->MajorFunction[IRP_MJ_CREATE] = am_private_dispatch_create;
    DriverObject->MajorFunction[IRP_MJ_CLOSE] = am_private_dispatch_close;
    DriverObject->MajorFunction[IRP_MJ_READ] = am_private_dispatch_read;
    DriverObject->MajorFunction[IRP_MJ_WRITE] = am_private_dispatch_write;
    DriverObject->MajorFunction[IRP_MJ_CLEANUP] = am_private_dispatch_cleanup;
    DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = am_private_dispatch_device_control;
    DriverObject->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = am_private_dispatch_internal_device_control;
    DriverObject->MajorFunction[IRP_MJ_PNP] = am_private_dispatch_pnp;

    AmLog("DriverEntry +++++ succeeded");
    return STATUS_SUCCESS;
}

// ------------------------------------------------------------------ devices

PAGED_CODE_SEG NTSTATUS NTAPI AddDevice(_In_ PDRIVER_OBJECT DriverObject, _In_ PDEVICE_OBJECT PhysicalDeviceObject)
{
    AmPagedCode();

    AmLog("AddDevice (%x %x)", AM_PTR32(DriverObject), AM_PTR32(PhysicalDeviceObject));

    if (AmControlDevice() != NULL) {
        AmLog("AddDevice ----- Already got controlDeviceObject!!!!!!!");
        return STATUS_UNSUCCESSFUL;
    }

    NTSTATUS status = PcAddAdapterDevice(DriverObject, PhysicalDeviceObject, StartDevice, maxPorts, 0);
    if (!NT_SUCCESS(status)) {
        AmLog("AddDevice ----- PcAddAdapterDevice failed: %x", status);
        return status;
    }
    AmLog("AddDevice ***** PcAddAdapterDevice succeeded()");

    UNICODE_STRING deviceName;
    RtlInitUnicodeString(&deviceName, AM_CONTROL_DEVICE_NAME);
    PDEVICE_OBJECT device = NULL;
    status = IoCreateDevice(DriverObject, PortTableSize(maxPorts), &deviceName, FILE_DEVICE_UNKNOWN, 0, FALSE,
                            &device);
    if (!NT_SUCCESS(status)) {
        AmLog("AddDevice ----- IoCreateDevice failed: %x", status);
        return status;
    }
    AmLog("AddDevice::IoCreateDevice(): controlDeviceObject: %x", AM_PTR32(device));

    PortTable *table = (PortTable *)device->DeviceExtension;
    InitializePortTable(table, maxPorts, PhysicalDeviceObject);

    // A control device of an earlier adapter that was removed in this load is
    // recognised by its kind, not by this flag, so a new adapter starts
    // usable rather than refusing everything until the driver is reloaded.
    InterlockedExchange(&controlDeviceRemoved, 0);
    InterlockedExchangePointer((PVOID volatile *)&controlDeviceObject, device);

    UNICODE_STRING linkName;
    RtlInitUnicodeString(&linkName, AM_CONTROL_LINK_NAME);
    status = IoCreateSymbolicLink(&linkName, &deviceName);
    if (!NT_SUCCESS(status)) {
        // Usually a link that an earlier instance left behind.
        AmLog("AddDevice ----- IoCreateSymbolicLink failed: %x... trying to delete it...", status);
        IoDeleteSymbolicLink(&linkName);
        status = IoCreateSymbolicLink(&linkName, &deviceName);
        if (!NT_SUCCESS(status)) {
            AmLog("AddDevice ----- IoCreateSymbolicLink failed again: %x", status);
        }
    }

    device->Flags |= DO_DIRECT_IO;
    device->Flags &= ~DO_DEVICE_INITIALIZING;

    if (NT_SUCCESS(status)) {
        AmLog("AddDevice +++++ succeeded");
    }
    return status;
}

NTSTATUS NTAPI StartDevice(_In_ PDEVICE_OBJECT pDeviceObject, _In_ PIRP pIrp, _In_opt_ PRESOURCELIST ResourceList)
{
    AmPagedCode();

    AmLog("StartDevice (%x)", AM_PTR32(pDeviceObject));
    AmAssert(pDeviceObject);
    AmAssert(pIrp);

    if (ResourceList == NULL) {
        AmLog("StartDevice ----- NULL resource list");
        return STATUS_INVALID_PARAMETER;
    }

    PDEVICE_OBJECT control = AmControlDevice();
    if (control != NULL) {
        ((PortTable *)control->DeviceExtension)->FunctionalDeviceObject = pDeviceObject;
    } else {
        AmLog("StartDevice ----- StartDevice: no device extension yet!!!!");
    }

    AmLog("StartDevice +++++ succeeded");
    return STATUS_SUCCESS;
}
