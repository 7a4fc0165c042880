// MIDI byte parser. Constant work per byte, no allocation after creation, and
// completed messages are handed out in place.
#define AM_UNIT AM_UNIT_MINIPORT
#include "common/amcommon.h"
#include "midiparser.h"

// Lengths of the channel messages 0x80..0xEF by high nibble, and of the system
// messages 0xF0..0xFF by low nibble.
static const UCHAR channelLengths[8] = {3, 3, 3, 3, 2, 2, 3, 0};
static const UCHAR systemLengths[16] = {0, 2, 3, 2, 1, 1, 1, 0, 1, 1, 1, 1, 1, 1, 1, 1};

static inline PUCHAR MidiParserData(_In_ MidiParser *parser)
{
    // The data area runs past the declared member; address it as what it is.
    return (PUCHAR)parser + FIELD_OFFSET(MidiParser, data);
}

ULONG MidiMessageLength(_In_ UCHAR status)
{
    if (status < 0x80) {
        return 0;
    }
    if (status < 0xF0) {
        return channelLengths[(status >> 4) & 0x7];
    }
    return systemLengths[status & 0xF];
}

UCHAR MidiRunningStatusOf(_In_ UCHAR status)
{
    return (status >= 0x80 && status < 0xF0) ? status : 0;
}

static inline VOID MidiParserDeliver(_Inout_ MidiParser *parser, _In_reads_bytes_(length) PUCHAR message,
                                     _In_ ULONG length)
{
    if (parser->deliver != NULL) {
        parser->deliver(parser, message, length, parser->deliverContext);
        return;
    }
    parser->completeLength = length;
    if (length == 1) {
        parser->singleByte = message[0];
    }
}

// A one-byte message lies in singleByte, also while it is handed to a deliver
// routine, so that no caller's local byte has to be addressed.
static inline VOID MidiParserDeliverSingle(_Inout_ MidiParser *parser, _In_ UCHAR byte)
{
    parser->singleByte = byte;
    MidiParserDeliver(parser, &parser->singleByte, 1);
}

static inline VOID MidiParserPutSysex(_Inout_ MidiParser *parser, _In_ UCHAR byte)
{
    PUCHAR data = MidiParserData(parser);
    ULONG length = parser->sysexLength;

    if (length >= parser->capacity) {
        // Too long for the port: the whole message is lost, its F7 included,
        // so that no truncated SysEx ever reaches the application.
        return;
    }
    data[length++] = byte;
    if (byte == 0xF7) {
        parser->sysexLength = 0;
        if (data[0] == 0xF0) {
            MidiParserDeliver(parser, data, length);
        }
    } else {
        parser->sysexLength = length;
    }
}

static inline VOID MidiParserPutShort(_Inout_ MidiParser *parser, _In_ UCHAR byte)
{
    // Fields are read into locals once: stores through the byte pointer may
    // alias any of them, and reloading after each would cost on every byte.
    PUCHAR data = MidiParserData(parser);
    ULONG length = parser->shortLength;
    UCHAR status;

    if (length >= 3) {
        return;
    }
    if (length == 0) {
        if (byte < 0x80) {
            status = parser->runningStatus;
            if (status == 0) {
                return;
            }
            data[0] = status;
            length = 1;
        } else {
            status = byte;
        }
    } else {
        status = data[0];
    }
    data[length++] = byte;
    if (length == MidiMessageLength(status)) {
        parser->runningStatus = MidiRunningStatusOf(status);
        parser->shortLength = 0;
        MidiParserDeliver(parser, data, length);
    } else {
        parser->shortLength = length;
    }
}

// A status byte 0x80..0xF7.
static VOID MidiParserPutStatus(_Inout_ MidiParser *parser, _In_ UCHAR status)
{
    if (parser->sysexLength != 0) {
        MidiParserPutSysex(parser, 0xF7);
        if (status == 0xF7) {
            return;
        }
        // Any other status ends the SysEx as if F7 had come.
        parser->sysexLength = 0;
        if (parser->completeLength != 0) {
            // The SysEx waits in `data`, where this status would begin the next
            // message: keep the status until the SysEx has been taken.
            parser->heldStatus = status;
            return;
        }
    }

    parser->shortLength = 0;
    if (status >= 0xF0) {
        parser->runningStatus = 0;
    }
    if (status == 0xF0) {
        MidiParserPutSysex(parser, 0xF0);
    } else {
        MidiParserPutShort(parser, status);
    }
}

_Must_inspect_result_ MidiParser *MidiParserAlloc(_In_opt_ PMIDI_PARSER_DELIVER deliver,
                                                  _In_opt_ PVOID deliverContext, _In_ ULONG capacity)
{
    SIZE_T dataBytes = (capacity < 3) ? 3 : (SIZE_T)capacity;
    MidiParser *parser =
        (MidiParser *)ExAllocatePoolWithTag(NonPagedPoolNx, FIELD_OFFSET(MidiParser, data) + dataBytes,
                                            AMBREL_PARSER_POOL_TAG);
    if (parser != NULL) {
        parser->deliver = deliver;
        parser->deliverContext = deliverContext;
        parser->capacity = capacity;
        parser->singleByte = 0;
        MidiParserReset(parser);
    }
    return parser;
}

VOID MidiParserReset(_Inout_ MidiParser *parser)
{
    parser->sysexLength = 0;
    parser->shortLength = 0;
    parser->runningStatus = 0;
    parser->completeLength = 0;
    parser->heldStatus = 0;
}

VOID MidiParserFree(_In_opt_ MidiParser *parser)
{
    if (parser != NULL) {
        ExFreePoolWithTag(parser, AMBREL_PARSER_POOL_TAG);
    }
}

BOOLEAN MidiParserPutByteGeneral(_Inout_ MidiParser *parser, _In_ UCHAR byte)
{
    parser->completeLength = 0;

    if (parser->heldStatus != 0) {
        UCHAR held = parser->heldStatus;
        parser->heldStatus = 0;
        MidiParserPutStatus(parser, held);
    }

    if (byte < 0x80) {
        if (parser->sysexLength != 0) {
            MidiParserPutSysex(parser, byte);
        } else {
            MidiParserPutShort(parser, byte);
        }
    } else if (byte >= 0xF8) {
        // Real time: may sit anywhere, even inside another message, and
        // leaves everything being collected as it was.
        MidiParserDeliverSingle(parser, byte);
    } else {
        MidiParserPutStatus(parser, byte);
    }
    return parser->completeLength != 0;
}

ULONG MidiParserTakeHeld(_Inout_ MidiParser *parser)
{
    // A one-byte system common message (F4, F5, F6) that ended a SysEx is
    // complete by itself: it waits now, in `singleByte`, which leaves the
    // message just handed out untouched. Any other held status begins its
    // message with the next byte fed.
    if (MidiMessageLength(parser->heldStatus) == 1) {
        UCHAR held = parser->heldStatus;
        parser->heldStatus = 0;
        parser->shortLength = 0;
        parser->runningStatus = 0;
        MidiParserDeliverSingle(parser, held);
    }
    return parser->completeLength;
}
