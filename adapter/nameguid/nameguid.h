// The port name GUID: a GUID derived from a port's name alone, so that a port
// published again under an earlier name finds the media-category key that the
// earlier port wrote, in every boot and on every machine.
#pragma once

#include "common/platform.h"

// {D04F0604-BBDA-4D3F-97A5-22D9D7323023}
extern const GUID PORT_NAME_NAMESPACE;

// Hashes the namespace's 16 bytes in memory order and the name's UTF-16 code
// units (least significant byte first, no terminator) with SHA-1, and builds
// the GUID from H0..H3 with version nibble 4 and variant bits 101. These bits
// name registry keys that outlive the driver: they must never change.
// Returns `out`.
GUID *CreateNameGuid(_In_ const GUID *nameSpace, _In_z_ PCWSTR name, _Out_ GUID *out);
