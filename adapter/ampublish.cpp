// Port publication: a reserved port becomes a MIDI sub-device of the adapter
// that every MIDI client can find (device interfaces and their names, the
// media category named by the port name's GUID, a DMus port bound to a new
// miniport); withdrawal undoes the framework side.
#define AM_UNIT AM_UNIT_ADAPTER
#include "common/amcommon.h"
#include "adapter/amadapter.h"
#include "adapter/nameguid/nameguid.h"
#include "adapter/openparams.h"
#include "miniport/amminiport.h"

// Kit identifiers, spelled out here so that publication does not depend on
// how each platform's headers materialise them.
static const GUID AmCategoryAudio = {0x6994AD04, 0x93EF, 0x11D0, {0xA3, 0xCC, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
static const GUID AmCategoryCapture = {0x65E8773D, 0x8F56, 0x11D0, {0xA3, 0xB9, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
static const GUID AmCategoryRender = {0x65E8773E, 0x8F56, 0x11D0, {0xA3, 0xB9, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};

// What each interface's "CLSID" value names: the kernel-streaming proxy.
#define AM_KS_PROXY_CLSID_TEXT L"{17CCA71B-ECD7-11D0-B908-00A0C9223196}"

#define AM_MEDIA_CATEGORIES_FORMAT L"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Control\\MediaCategories\\%ls"
#define AM_KEY_PATH_CCH 256

static VOID SetStringValue(_In_ HANDLE key, _In_z_ PCWSTR valueName, _In_z_ PCWSTR text)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, valueName);
    SIZE_T cch = 0;
    while (text[cch] != L'\0') {
        cch++;
    }
    ZwSetValueKey(key, &name, 0, REG_SZ, (PVOID)text, (ULONG)((cch + 1) * sizeof(WCHAR)));
}

// Registers one device interface of the port and names it. `kind` is the
// word the failure messages use.
static NTSTATUS RegisterPortInterface(_In_ PortTable *table, _In_ MidiPort *port, _In_ const GUID *category,
                                      _In_z_ PCSTR kind)
{
    UNICODE_STRING referenceString;
    RtlInitUnicodeString(&referenceString, port->ReferenceString);
    UNICODE_STRING linkName = {0, 0, NULL};

    NTSTATUS status = IoRegisterDeviceInterface(table->PhysicalDeviceObject, category, &referenceString, &linkName);
    if (!NT_SUCCESS(status)) {
        AmLog("AddPortDevice ----- IoRegisterDeviceInterface (%s) failed: %x", kind, status);
        return status;
    }

    HANDLE key = NULL;
    status = IoOpenDeviceInterfaceRegistryKey(&linkName, KEY_SET_VALUE, &key);
    if (!NT_SUCCESS(status)) {
        AmLog("AddPortDevice ----- IoOpenDeviceInterfaceRegistryKey (%s) failed: %x", kind, status);
        RtlFreeUnicodeString(&linkName);
        return status;
    }

    SetStringValue(key, L"CLSID", AM_KS_PROXY_CLSID_TEXT);
    SetStringValue(key, L"FriendlyName", port->Name);
    ZwClose(key);
    RtlFreeUnicodeString(&linkName);
    return STATUS_SUCCESS;
}

// The media category: a key named by the port name's GUID that carries the
// name, so that clients show the port's own name for its pins.
static NTSTATUS WriteMediaCategory(_In_ MidiPort *port)
{
    GUID nameGuid;
    CreateNameGuid(&PORT_NAME_NAMESPACE, port->Name, &nameGuid);

    WCHAR keyPath[AM_KEY_PATH_CCH];
    keyPath[0] = L'\0';
    UNICODE_STRING guidText = {0, 0, NULL};
    NTSTATUS status = RtlStringFromGUID(nameGuid, &guidText);
    if (!NT_SUCCESS(status)) {
        // Without the text there is no key to name.
        AmLog("AddPortDevice ----- RtlStringFromGUID failed: %x", status);
        return status;
    }
    RtlStringCchPrintfW(keyPath, AM_KEY_PATH_CCH, AM_MEDIA_CATEGORIES_FORMAT, guidText.Buffer);
    AmLog("AddPortDevice ***** Created GUID-Path: %ls", keyPath);
    RtlFreeUnicodeString(&guidText);

    UNICODE_STRING path;
    RtlInitUnicodeString(&path, keyPath);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    HANDLE key = NULL;
    status = ZwCreateKey(&key, KEY_SET_VALUE, &attributes, 0, NULL, REG_OPTION_NON_VOLATILE, NULL);
    if (!NT_SUCCESS(status)) {
        AmLog("AddPortDevice ----- ZwCreateKey failed: %x", status);
        return status;
    }

    SetStringValue(key, L"Name", port->Name);
    UNICODE_STRING display;
    RtlInitUnicodeString(&display, L"Display");
    ULONG zero = 0;
    ZwSetValueKey(key, &display, 0, REG_BINARY, &zero, sizeof(zero));
    ZwClose(key);
    return STATUS_SUCCESS;
}

// "ambrel" and a slot index of at most ten digits, with room to spare.
#define AM_REFERENCE_TEXT_CCH 32

NTSTATUS AddPortDevice(_In_ PortTable *table, _In_ ULONG index, _In_ ULONG sysexSize, _In_ ULONG flags,
                       _In_ GUID manufacturerGuid, _In_ GUID productGuid)
{
    AmPagedCode();

    AmLog("AddPortDevice (%d)", index);

    if (index >= table->PortCount) {
        AmLog("AddPortDevice ----- Index too large (%d>=%d)", index, table->PortCount);
        return STATUS_INVALID_HANDLE;
    }
    MidiPort *port = table->Ports[index];

    // The record is in the table already, and the pin registry reads every
    // record's reference string under the table lock while it looks for a
    // pin's port: the string is made aside and stored under that lock.
    WCHAR text[AM_REFERENCE_TEXT_CCH];
    UNICODE_STRING reference;
    reference.Buffer = text;
    reference.Length = 0;
    reference.MaximumLength = (USHORT)sizeof(text);
    RtlUnicodeStringPrintf(&reference, L"ambrel%d", index);
    text[reference.Length / sizeof(WCHAR)] = L'\0';
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&table->Lock);
    for (ULONG c = 0; c <= reference.Length / sizeof(WCHAR); c++) {
        port->ReferenceString[c] = text[c];
    }
    KeReleaseSpinLock(&table->Lock, irql);
    AmLog("AddPortDevice ***** Portname is: %ls (%d)", port->ReferenceString, reference.Length);

    NTSTATUS status = RegisterPortInterface(table, port, &AmCategoryAudio, "audio");
    if (!NT_SUCCESS(status)) {
        return status;
    }

    if (flags & PORT_FLAG_CAPTURE) {
        status = RegisterPortInterface(table, port, &AmCategoryCapture, "capture");
        if (!NT_SUCCESS(status)) {
            return status;
        }
    } else {
        AmLog("AddPortDevice ----- no capture instantiated");
    }

    if (flags & PORT_FLAG_RENDER) {
        status = RegisterPortInterface(table, port, &AmCategoryRender, "render");
        if (!NT_SUCCESS(status)) {
            return status;
        }
    } else {
        AmLog("AddPortDevice ----- no render instantiated");
    }

    status = WriteMediaCategory(port);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    status = InstallSubdevice(table->FunctionalDeviceObject, NULL, port->ReferenceString, sysexSize, flags,
                              manufacturerGuid, productGuid, CLSID_PortDMus, CLSID_PortDMus, CreateMiniportAmbrel,
                              NULL, NULL, IID_IPortDMus, (PVOID *)&port->PortInterface, NULL, port);
    if (!NT_SUCCESS(status)) {
        AmLog("AddPortDevice ----- InstallSubDevice failed: %x", status);
        return status;
    }

    AmLog("AddPortDevice +++++ succeeded");
    return STATUS_SUCCESS;
}

NTSTATUS InstallSubdevice(_In_ PDEVICE_OBJECT Context1, _In_opt_ PIRP Context2, _In_z_ PWSTR Name,
                          _In_ ULONG sysexSize, _In_ ULONG flags, _In_ GUID manufacturerGuid, _In_ GUID productGuid,
                          _In_ REFGUID PortClassId, _In_ REFGUID MiniportClassId,
                          _In_opt_ PFN_AM_CREATE_MINIPORT MiniportCreate, _In_opt_ PUNKNOWN UnknownAdapter,
                          _In_opt_ PRESOURCELIST ResourceList, _In_ REFGUID PortInterfaceId,
                          _Out_opt_ PVOID *OutPortInterface, _Out_opt_ PUNKNOWN *OutPortUnknown,
                          _In_opt_ MidiPort *portRecord)
{
    AmPagedCode();

    AmLog("InstallSubdevice (%x, %ls)", AM_PTR32(Context1), Name);
    AmAssert(Context1);
    AmAssert(Name);
    UNREFERENCED_PARAMETER(UnknownAdapter);

    PPORT port = NULL;
    NTSTATUS status = PcNewPort(&port, PortClassId);
    if (!NT_SUCCESS(status)) {
        AmLog("InstallSubdevice ----- PcNewPort failed: %x", status);
        return status;
    }

    if (OutPortInterface != NULL) {
        *OutPortInterface = NULL;
        port->QueryInterface(PortInterfaceId, OutPortInterface);
        if (*OutPortInterface != NULL) {
            AmLog("InstallSubdevice ***** Portinterface queried successfully");
        } else {
            AmLog("InstallSubdevice ----- Portinterface query failed!!!!");
        }
    }

    if (MiniportCreate == NULL) {
        AmLog("InstallSubdevice ----- No MiniportCreate specified");
        if (OutPortInterface != NULL && *OutPortInterface != NULL) {
            ((PUNKNOWN)*OutPortInterface)->Release();
            *OutPortInterface = NULL;
        }
        port->Release();
        return STATUS_INVALID_PARAMETER;
    }

    // The miniport keeps copies of its own; these are only the call's.
    GUID manufacturer = manufacturerGuid;
    GUID product = productGuid;
    PUNKNOWN miniport = NULL;
    status = MiniportCreate(&miniport, MiniportClassId, NULL, NonPagedPool, portRecord, sysexSize, flags,
                            &manufacturer, &product);
    if (!NT_SUCCESS(status)) {
        AmLog("InstallSubdevice ----- MiniportCreate failed: %x", status);
    } else {
        status = port->Init(Context1, Context2, miniport, NULL, ResourceList);
        if (!NT_SUCCESS(status)) {
            AmLog("InstallSubdevice ----- port->Init failed: %x", status);
        } else {
            status = PcRegisterSubdevice(Context1, Name, port);
            if (!NT_SUCCESS(status)) {
                AmLog("InstallSubdevice ----- PcRegisterSubdevice failed: %x", status);
            }
        }
        // Once Init succeeded the port holds its own reference.
        miniport->Release();
    }

    if (NT_SUCCESS(status)) {
        if (OutPortUnknown != NULL) {
            port->QueryInterface(IID_IUnknown, (PVOID *)OutPortUnknown);
        }
    } else if (OutPortInterface != NULL && *OutPortInterface != NULL) {
        ULONG count = ((PUNKNOWN)*OutPortInterface)->Release();
        AmLog("InstallSubdevice ----- failed somewhere: release outport interface (%d)", count);
        *OutPortInterface = NULL;
    }

    port->Release();
    if (NT_SUCCESS(status)) {
        AmLog("InstallSubdevice +++++ succeeded");
    }
    return status;
}

NTSTATUS RemovePortDevice(_In_ PortTable *table, _In_ MidiPort *port)
{
    AmPagedCode();

    AmLog("RemovePortDevice");

    // A port whose publication never got a framework port has no sub-device:
    // withdrawing it is done before it starts.
    if (port->PortInterface == NULL) {
        AmLog("RemovePortDevice ***** no port interface, nothing to unregister");
        return STATUS_SUCCESS;
    }

    PUNREGISTERSUBDEVICE unregister = NULL;
    NTSTATUS status = port->PortInterface->QueryInterface(IID_IUnregisterSubdevice, (PVOID *)&unregister);
    if (!NT_SUCCESS(status) || unregister == NULL) {
        if (NT_SUCCESS(status)) {
            status = STATUS_UNSUCCESSFUL;
        }
        AmLog("RemovePortDevice ----- failed QueryInterface(IID_IUnregisterSubdevice): %x", status);
        return status;
    }

    AmLog("RemovePortDevice +++++ unregister subdevice");
    status = unregister->UnregisterSubdevice(table->FunctionalDeviceObject, port->PortInterface);
    unregister->Release();
    if (!NT_SUCCESS(status)) {
        AmLog("RemovePortDevice ----- failed UnregisterSubdevice: %x", status);
    }

    AmLog("RemovePortDevice ***** releasing port-driver");
    ULONG count = port->PortInterface->Release();
    AmLog("RemovePortDevice ***** release-count = %d", count);
    port->PortInterface = NULL;

    if (NT_SUCCESS(status)) {
        AmLog("RemovePortDevice +++++ succeeded");
    }
    return status;
}
