// The driver's two settings, read once at load from the "Configuration" key
// below the service key: how many ports it holds, and the SysEx size of a port
// whose open names none. No failure here stops the driver; every unreadable
// value falls back to its default.
#define AM_UNIT AM_UNIT_ADAPTER
#include "common/amcommon.h"
#include "adapter/amadapter.h"
#include "adapter/openparams.h"

// Default port counts by Windows version: Vista and later, XP and later, older.
#define AM_MAX_PORTS_VISTA 256UL
#define AM_MAX_PORTS_XP 32UL
#define AM_MAX_PORTS_OLDER 10UL

INIT_CODE_SEG NTSTATUS GetDWordParam(_In_z_ PCWSTR keyPath, _In_z_ PCWSTR valueName, _Out_ PULONG value)
{
    AmPagedCode();

    AmLog("GetDWordParam( %ls, %ls )", keyPath, valueName);

    UNICODE_STRING path;
    RtlInitUnicodeString(&path, keyPath);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);

    HANDLE key = NULL;
    NTSTATUS status = ZwOpenKey(&key, KEY_READ, &attributes);
    if (!NT_SUCCESS(status)) {
        AmLog("ZwOpenKey failed: %x", status);
        return status;
    }

    UNICODE_STRING name;
    RtlInitUnicodeString(&name, valueName);
    ULONG needed = 0;
    status = ZwQueryValueKey(key, &name, KeyValuePartialInformation, NULL, 0, &needed);
    if (status != STATUS_BUFFER_TOO_SMALL || needed == 0) {
        AmLog("ZwQueryValueKey failed: %x", status);
        ZwClose(key);
        // A size query cannot succeed without a buffer; should a platform say
        // it did, the value is still unread.
        return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
    }

    PKEY_VALUE_PARTIAL_INFORMATION info =
        (PKEY_VALUE_PARTIAL_INFORMATION)ExAllocatePoolWithTag(NonPagedPool, needed, AMBREL_POOL_TAG);
    if (info == NULL) {
        AmLog("ExAllocatePool failed");
        ZwClose(key);
        return STATUS_NO_MEMORY;
    }

    ULONG returned = 0;
    status = ZwQueryValueKey(key, &name, KeyValuePartialInformation, info, needed, &returned);
    if (!NT_SUCCESS(status)) {
        AmLog("ZwQueryValueKey2 failed: %x", status);
        ExFreePoolWithTag(info, AMBREL_POOL_TAG);
        ZwClose(key);
        return status;
    }

    // Data shorter than a DWORD counts as the wrong type: four bytes are never
    // read from fewer.
    if (info->Type != REG_DWORD || info->DataLength < sizeof(ULONG) ||
        needed < FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data) + sizeof(ULONG)) {
        AmLog("ZwQueryValueKey: no dword");
        status = STATUS_OBJECT_TYPE_MISMATCH;
    } else {
        const UCHAR *data = info->Data;
        *value = (ULONG)data[0] | ((ULONG)data[1] << 8) | ((ULONG)data[2] << 16) | ((ULONG)data[3] << 24);
        status = STATUS_SUCCESS;
    }

    ExFreePoolWithTag(info, AMBREL_POOL_TAG);
    ZwClose(key);
    return status;
}

INIT_CODE_SEG ULONG ReadMaxPorts(_In_z_ PCWSTR keyPath)
{
    AmPagedCode();

    ULONG value = 0;
    if (NT_SUCCESS(GetDWordParam(keyPath, L"MaxPorts", &value))) {
        if (value == 0) {
            AmLog("Registry-Override -> %d miniports (%d)", 1, value);
            return 1;
        }
        if (value > AM_MAX_PORTS_LIMIT) {
            AmLog("Registry-Override -> %d miniports (%d)", AM_MAX_PORTS_LIMIT, value);
            return AM_MAX_PORTS_LIMIT;
        }
        AmLog("Registry-Override -> %d miniports", value);
        return value;
    }

    if (IoIsWdmVersionAvailable(6, 0)) {
        AmLog("Vista or higher -> %d miniports", AM_MAX_PORTS_VISTA);
        return AM_MAX_PORTS_VISTA;
    }
    if (IoIsWdmVersionAvailable(1, 0x20)) {
        AmLog("XP or higher -> %d miniports", AM_MAX_PORTS_XP);
        return AM_MAX_PORTS_XP;
    }
    AmLog("less than XP -> %d miniports", AM_MAX_PORTS_OLDER);
    return AM_MAX_PORTS_OLDER;
}

INIT_CODE_SEG ULONG ReadSysexSize(_In_z_ PCWSTR keyPath)
{
    AmPagedCode();

    ULONG value = 0;
    if (!NT_SUCCESS(GetDWordParam(keyPath, L"SysexSize", &value))) {
        AmLog("Default-SysexSize -> %d bytes", AM_SYSEX_SIZE_DEFAULT);
        return AM_SYSEX_SIZE_DEFAULT;
    }
    if (value < AM_SYSEX_SIZE_MIN) {
        return AM_SYSEX_SIZE_MIN;
    }
    if (value > AM_SYSEX_SIZE_MAX) {
        return AM_SYSEX_SIZE_MAX;
    }
    return value;
}
