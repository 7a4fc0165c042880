// Request completion helpers shared by the control-device handlers and the
// render path.
#pragma once

#include "platform.h"

// The sound priority boost Windows gives a thread whose audio request completes.
#define AM_SOUND_BOOST IO_SOUND_INCREMENT

// Store status and information in the request, complete it without a priority
// boost and return the status.
NTSTATUS completeIrp(_Inout_ PIRP irp, _In_ NTSTATUS status, _In_ ULONG_PTR information);

// The same with the sound boost, for completions that hand MIDI data to the
// application or accept its data.
NTSTATUS completeIrpBoosted(_Inout_ PIRP irp, _In_ NTSTATUS status, _In_ ULONG_PTR information);
