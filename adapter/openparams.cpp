// Open parameters: the file-name grammar, the field conversions and the
// completion of the record. Runs in the opener's thread at PASSIVE_LEVEL on
// the open's private copy of the name; no lock, no shared state.
#define AM_UNIT AM_UNIT_ADAPTER
#include "common/amcommon.h"
#include "common/amstring.h"
#include "openparams.h"

const GUID DefaultManufacturerGuid = {0x7E3A9C51, 0x2D84, 0x4B6F, {0xA0, 0xC3, 0x5F, 0x19, 0xE8, 0xD2, 0x7B, 0x46}};
const GUID DefaultProductGuid = {0xC2B85F07, 0x91E6, 0x4A3D, {0x8B, 0x72, 0x0D, 0x4E, 0x6A, 0x1F, 0x93, 0xC8}};

#define AM_PARAM_SEPARATOR L'\\'

// A field is converted from a private copy of at most this many characters
// (a longer size is cut, a longer GUID never parses).
#define AM_FIELD_MAX_CCH 255

LONG findCharFrom(_In_z_ PCWSTR string, _In_ WCHAR ch, _In_ LONG start)
{
    AmPagedCode();

    LONG length = (LONG)AmWcsLen(string);
    if (start < 0 || start >= length) {
        return -1;
    }
    for (LONG i = start; i < length; i++) {
        if (string[i] == ch) {
            return i;
        }
    }
    return -1;
}

// Copies the characters [begin, end) of `name` into `scratch` (at most
// AM_FIELD_MAX_CCH of them), terminates it and describes it as a counted
// string for the conversion routines. Returns the number copied.
static LONG copyField(_In_z_ PCWSTR name, _In_ LONG begin, _In_ LONG end,
                      _Out_writes_z_(AM_FIELD_MAX_CCH + 1) PWSTR scratch, _Out_ PUNICODE_STRING field)
{
    LONG count = end - begin;
    if (count > AM_FIELD_MAX_CCH) {
        count = AM_FIELD_MAX_CCH;
    }
    for (LONG i = 0; i < count; i++) {
        scratch[i] = name[begin + i];
    }
    scratch[count] = L'\0';
    field->Buffer = scratch;
    field->Length = (USHORT)(count * sizeof(WCHAR));
    field->MaximumLength = (USHORT)((AM_FIELD_MAX_CCH + 1) * sizeof(WCHAR));
    return count;
}

VOID getParams(_Inout_z_ PWSTR name, _Out_ PULONG sysexLen, _Out_ GUID *manufacturerGuid, _Out_ GUID *productGuid)
{
    AmPagedCode();

    WCHAR scratch[AM_FIELD_MAX_CCH + 1];
    UNICODE_STRING field;
    NTSTATUS status;
    LONG first;
    LONG second = -1;
    LONG third = -1;
    LONG fourth = -1;
    LONG end;
    LONG count;

    *sysexLen = 0;
    *manufacturerGuid = DefaultManufacturerGuid;
    *productGuid = DefaultProductGuid;

    LONG length = (LONG)AmWcsLen(name);
    if (length == 0) {
        return;
    }
    AmLog("getParams (%x)", length);

    // The name normally starts with the separator that follows the control
    // device's own name; the name part ends at the next one.
    first = findCharFrom(name, AM_PARAM_SEPARATOR, 0);
    if (first == 0) {
        first = findCharFrom(name, AM_PARAM_SEPARATOR, 1);
    }
    if (first < 0) {
        AmLog("getParams (%x) no first", first);
        return;
    }

    second = findCharFrom(name, AM_PARAM_SEPARATOR, first + 1);
    if (second >= 0) {
        third = findCharFrom(name, AM_PARAM_SEPARATOR, second + 1);
        if (third >= 0) {
            fourth = findCharFrom(name, AM_PARAM_SEPARATOR, third + 1);
        }
    }
    AmLog("getParams first: %d", first);
    AmLog("getParams second: %d", second);
    AmLog("getParams third: %d", third);
    AmLog("getParams fourth: %d", fourth);

    // Size: an empty field leaves 0, which completion turns into the default.
    end = (second >= 0) ? second : length;
    if (end - first - 1 > 0) {
        count = copyField(name, first + 1, end, scratch, &field);
        AmLog("first content: %d (%ls)", count, scratch);
        status = RtlUnicodeStringToInteger(&field, 10, sysexLen);
        if (!NT_SUCCESS(status)) {
            AmLog("getParams RtlUnicodeStringToInteger failed: %x", status);
            *sysexLen = 0;
        }
    }
    if (second < 0) {
        goto CutName;
    }

    end = (third >= 0) ? third : length;
    if (end - second - 1 > 0) {
        count = copyField(name, second + 1, end, scratch, &field);
        AmLog("second content: %d (%ls)", count, scratch);
        status = RtlGUIDFromString(&field, manufacturerGuid);
        if (!NT_SUCCESS(status)) {
            AmLog("getParams RtlGUIDFromString1 failed: %x", status);
            *manufacturerGuid = DefaultManufacturerGuid;
        }
    }
    if (third < 0) {
        goto CutName;
    }

    end = (fourth >= 0) ? fourth : length;
    if (end - third - 1 > 0) {
        count = copyField(name, third + 1, end, scratch, &field);
        AmLog("third content: %d (%ls)", count, scratch);
        status = RtlGUIDFromString(&field, productGuid);
        if (!NT_SUCCESS(status)) {
            AmLog("getParams RtlGUIDFromString2 failed: %x", status);
            *productGuid = DefaultProductGuid;
        }
    }

CutName:
    name[first] = L'\0';
}

static inline BOOLEAN isForbiddenNameChar(_In_ WCHAR ch)
{
    switch (ch) {
    case L'\\':
    case L'/':
    case L'<':
    case L'>':
    case L'"':
    case L':':
    case L'|':
    case L'?':
    case L'*':
        return TRUE;
    default:
        return FALSE;
    }
}

VOID parseOpenParams(_Inout_z_ PWSTR name, _Out_ PULONG sysexLen, _Out_ GUID *manufacturerGuid,
                     _Out_ GUID *productGuid)
{
    AmPagedCode();

    getParams(name, sysexLen, manufacturerGuid, productGuid);

    // The name becomes a registry value and a device's friendly name: keep
    // path and wildcard characters out of it, everything else as it came.
    SIZE_T to = 0;
    for (SIZE_T from = 0; name[from] != L'\0'; from++) {
        if (!isForbiddenNameChar(name[from])) {
            name[to++] = name[from];
        }
    }
    name[to] = L'\0';
}

ULONG openFlagsFromAccess(_In_ ACCESS_MASK desiredAccess)
{
    ULONG flags = 0;
    if (desiredAccess & FILE_READ_DATA) {
        flags |= PORT_FLAG_RENDER;
    }
    if (desiredAccess & FILE_WRITE_DATA) {
        flags |= PORT_FLAG_CAPTURE;
    }
    return flags;
}

VOID initOpenParams(_Out_ PortOpenParams *params, _In_ PCUNICODE_STRING fileName, _In_ ULONG flags)
{
    AmPagedCode();

    SIZE_T count = fileName->Length / sizeof(WCHAR);
    if (count > AM_OPEN_NAME_MAX_CCH) {
        count = AM_OPEN_NAME_MAX_CCH;
    }
    if (fileName->Buffer == NULL) {
        count = 0;
    }
    for (SIZE_T i = 0; i < count; i++) {
        params->deviceName[i] = fileName->Buffer[i];
    }
    params->deviceName[count] = L'\0';
    params->sysexLen = 0;
    params->flags = flags;
    params->manufacturerGuid = DefaultManufacturerGuid;
    params->productGuid = DefaultProductGuid;
}

NTSTATUS completeOpenParams(_Inout_ PortOpenParams *params, _In_ ULONG defaultSysexSize)
{
    AmPagedCode();

    SIZE_T nameLength = AmWcsNLen(params->deviceName, AM_OPEN_NAME_BUFFER_CCH);
    if (nameLength == 0 || nameLength > AM_PORT_NAME_MAX_CCH) {
        return STATUS_INVALID_PARAMETER;
    }

    if ((params->flags & (PORT_FLAG_CAPTURE | PORT_FLAG_RENDER)) == 0) {
        params->flags = PORT_FLAG_CAPTURE | PORT_FLAG_RENDER;
    }

    if (params->sysexLen == 0) {
        params->sysexLen = defaultSysexSize;
    }
    if (params->sysexLen < AM_SYSEX_SIZE_MIN) {
        params->sysexLen = AM_SYSEX_SIZE_MIN;
    } else if (params->sysexLen > AM_SYSEX_SIZE_MAX) {
        params->sysexLen = AM_SYSEX_SIZE_MAX;
    }
    return STATUS_SUCCESS;
}
