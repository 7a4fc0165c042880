// What an open of the control device asks for: the port's name, its largest
// System Exclusive message, its direction and its component identity, all
// carried in the file name below the control device:
//
//   \name[\size[\manufacturer-GUID[\product-GUID[\anything]]]]
//
// Parsing never refuses an open: a bad field falls back to its default and is
// logged. The open then completes the record (completeOpenParams) and refuses
// only an unusable name.
#pragma once

#include "common/platform.h"

// Direction bits of a port.
#define PORT_FLAG_CAPTURE 0x1  // the application's writes become the device's MIDI input
#define PORT_FLAG_RENDER 0x2   // MIDI played to the device comes back to the application's reads

// The open's private copy of the file name: at most AM_OPEN_NAME_MAX_CCH
// characters and a terminator. Parsing edits it in place into the port name.
#define AM_OPEN_NAME_BUFFER_CCH 512
#define AM_OPEN_NAME_MAX_CCH 510

// A port name after filtering: 1 to 254 characters.
#define AM_PORT_NAME_MAX_CCH 254

// System Exclusive sizes (bytes, F0 and F7 included) a port may have, and the
// size used when neither the open nor the registry names one.
#define AM_SYSEX_SIZE_MIN 8176UL      // 0x1FF0
#define AM_SYSEX_SIZE_MAX 1048560UL   // 0xFFFF0
#define AM_SYSEX_SIZE_DEFAULT 131056UL // 0x1FFF0

// Component identity reported when the open names none.
extern const GUID DefaultManufacturerGuid;  // {7E3A9C51-2D84-4B6F-A0C3-5F19E8D27B46}
extern const GUID DefaultProductGuid;       // {C2B85F07-91E6-4A3D-8B72-0D4E6A1F93C8}

typedef struct _PortOpenParams {
    WCHAR deviceName[AM_OPEN_NAME_BUFFER_CCH];  // the file name, then the port name
    ULONG sysexLen;
    ULONG flags;            // PORT_FLAG_CAPTURE | PORT_FLAG_RENDER
    GUID manufacturerGuid;
    GUID productGuid;
} PortOpenParams, *PPortOpenParams;

// Index of the first `ch` at or after `start`, or -1; -1 at once when `start`
// is negative or not inside the string.
LONG findCharFrom(_In_z_ PCWSTR string, _In_ WCHAR ch, _In_ LONG start);

// Splits the file name into its fields, converts them into the outputs and cuts
// the string after the name part (its leading separator still in place).
VOID getParams(_Inout_z_ PWSTR name, _Out_ PULONG sysexLen, _Out_ GUID *manufacturerGuid, _Out_ GUID *productGuid);

// getParams, then drops every character a port name may not hold:
// \ / < > " : | ? *
VOID parseOpenParams(_Inout_z_ PWSTR name, _Out_ PULONG sysexLen, _Out_ GUID *manufacturerGuid,
                     _Out_ GUID *productGuid);

// The direction the access mask asks for: read access makes a render side,
// write access a capture side. May be 0; completeOpenParams supplies both then.
ULONG openFlagsFromAccess(_In_ ACCESS_MASK desiredAccess);

// Copies the file name (at most AM_OPEN_NAME_MAX_CCH characters) into
// params->deviceName and terminates it; the other fields are cleared.
VOID initOpenParams(_Out_ PortOpenParams *params, _In_ PCUNICODE_STRING fileName, _In_ ULONG flags);

// Completes a parsed record: no direction means both; the name must hold 1 to
// AM_PORT_NAME_MAX_CCH characters (STATUS_INVALID_PARAMETER otherwise, the
// record left as it was, and the open logs its refusal); a size of 0 becomes
// `defaultSysexSize`, then every size is held within AM_SYSEX_SIZE_MIN..MAX.
NTSTATUS completeOpenParams(_Inout_ PortOpenParams *params, _In_ ULONG defaultSysexSize);
