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

// Feeds one byte, every case (MidiParserPutByte's slow path).
BOOLEAN MidiParserPutByteGeneral(_Inout_ MidiParser *parser, _In_ UCHAR byte);

// Feeds one byte; TRUE when a completed message waits afterwards. Feeding
// while a message still waits breaks the protocol: the waiting message is
// dropped rather than handed on torn.
//
// Inline, since it runs for every byte played to a port: the render stream's
// common case (no deliver routine, no held status; a real-time byte, a SysEx
// data byte, or a data byte of a channel message) is handled here, and must
// match what MidiParserPutByteGeneral does with it; everything else goes
// there.
inline BOOLEAN MidiParserPutByte(_Inout_ MidiParser *parser, _In_ UCHAR byte)
{
    if (parser->deliver == NULL && parser->heldStatus == 0) {
        if (byte >= 0xF8) {
            parser->singleByte = byte;
            parser->completeLength = 1;
            return TRUE;
        }
        if (byte < 0x80) {
            PUCHAR data = (PUCHAR)parser + FIELD_OFFSET(MidiParser, data);
            ULONG length = parser->sysexLength;
            if (length != 0) {
                // A data byte never ends a SysEx; one past capacity is lost.
                parser->completeLength = 0;
                if (length < parser->capacity) {
                    data[length] = byte;
                    parser->sysexLength = length + 1;
                }
                return FALSE;
            }
            length = parser->shortLength;
            UCHAR status = (length == 0) ? parser->runningStatus : data[0];
            if (status >= 0x80 && status < 0xF0 && length < 3) {
                // A channel message: Program Change and Channel Pressure
                // (0xC0..0xDF) take one data byte, the others two.
                ULONG needed = ((status & 0xE0) == 0xC0) ? 2 : 3;
                if (length == 0) {
                    data[0] = status;
                    length = 1;
                }
                data[length++] = byte;
                if (length == needed) {
                    parser->runningStatus = status;
                    parser->shortLength = 0;
                    parser->completeLength = length;
                    return TRUE;
                }
                parser->shortLength = length;
                parser->completeLength = 0;
                return FALSE;
            }
        }
    }
    return MidiParserPutByteGeneral(parser, byte);
}

inline ULONG MidiParserPeek(_In_ const MidiParser *parser)
{
    return parser->completeLength;
}

// Promotes a status held behind a taken message; the length now waiting.
ULONG MidiParserTakeHeld(_Inout_ MidiParser *parser);

// Hands out the waiting message (length, *message into the parser) and leaves
// none waiting, or the next one when the taken message had one queued behind
// it; 0 and NULL when nothing waits. Inline: it runs once per message.
inline ULONG MidiParserTake(_Inout_ MidiParser *parser, _Outptr_result_maybenull_ PUCHAR *message)
{
    ULONG length = parser->completeLength;

    if (length == 0) {
        *message = NULL;
    } else if (length == 1) {
        *message = &parser->singleByte;
    } else {
        *message = (PUCHAR)parser + FIELD_OFFSET(MidiParser, data);
    }
    parser->completeLength = 0;
    if (parser->heldStatus != 0) {
        (VOID)MidiParserTakeHeld(parser);
    }
    return length;
}
