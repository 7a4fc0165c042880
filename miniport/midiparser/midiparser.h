// The render stream's MIDI byte parser: cuts a raw MIDI 1.0 byte stream into
// whole messages (running status expanded, System Exclusive bounded by F0/F7,
// real-time bytes handed on the moment they arrive), one message at a time.
//
// Consumer protocol: MidiParserPeek; if a message waits, MidiParserTake it and
// copy it away; only then feed bytes with MidiParserPutByte, stopping at the
// first one that returns TRUE. The pointer from MidiParserTake stays valid
// until the next MidiParserPutByte.
#pragma once

#include "common/platform.h"

struct MidiParser;

// Called with each completed message instead of leaving it waiting, when set.
typedef VOID (*PMIDI_PARSER_DELIVER)(_In_ MidiParser *parser, _In_reads_bytes_(length) PUCHAR message,
                                     _In_ ULONG length, _In_opt_ PVOID context);

struct MidiParser {
    PMIDI_PARSER_DELIVER deliver;
    PVOID deliverContext;
    ULONG capacity;        // largest System Exclusive message, F0 and F7 included
    ULONG sysexLength;     // bytes of the SysEx being collected; 0 = outside one
    ULONG shortLength;     // bytes of the short message being collected (0..3)
    ULONG completeLength;  // length of the waiting message; 0 = none
    UCHAR singleByte;      // a waiting one-byte message
    UCHAR runningStatus;   // channel status 0x80..0xEF, 0 = none
    // A status byte that ended a System Exclusive message early while that
    // message waits in `data`: it is applied only once the message is taken,
    // so starting the next message cannot overwrite the waiting one.
    UCHAR heldStatus;
    UCHAR data[1];         // max(capacity, 3) bytes follow
};

// Bytes of a message by its status byte, status included; 0 for data bytes,
// F0 and F7 (System Exclusive is collected separately).
ULONG MidiMessageLength(_In_ UCHAR status);

// The running status a completed message leaves: its status when it is a
// channel message, else 0.
UCHAR MidiRunningStatusOf(_In_ UCHAR status);

// Allocates (pool tag AmbP) and resets a parser; NULL when pool is exhausted.
// Nothing is allocated after this.
_Must_inspect_result_ MidiParser *MidiParserAlloc(_In_opt_ PMIDI_PARSER_DELIVER deliver,
                                                  _In_opt_ PVOID deliverContext, _In_ ULONG capacity);
VOID MidiParserReset(_Inout_ MidiParser *parser);
VOID MidiParserFree(_In_opt_ MidiParser *parser);

// Feeds one byte; TRUE when a completed message waits afterwards. Feeding
// while a message still waits breaks the protocol: the waiting message is
// dropped rather than handed on torn.
BOOLEAN MidiParserPutByte(_Inout_ MidiParser *parser, _In_ UCHAR byte);

ULONG MidiParserPeek(_In_ const MidiParser *parser);

// Hands out the waiting message (length, *message into the parser) and leaves
// none waiting; 0 and NULL when nothing waits.
ULONG MidiParserTake(_Inout_ MidiParser *parser, _Outptr_result_maybenull_ PUCHAR *message);
