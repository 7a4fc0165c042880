// The MIDI byte parser on arbitrary byte streams and capacities. Every message
// handed on must be well formed, polling and the deliver routine must see the
// same messages, and every real-time byte must come out.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "hostkernel/executive.h"
#include "miniport/midiparser/midiparser.h"

namespace {

using Message = std::vector<uint8_t>;

void check(bool ok, const char *what, const Message &m)
{
    if (!ok) {
        std::fprintf(stderr, "parser broke: %s; message:", what);
        for (uint8_t b : m) {
            std::fprintf(stderr, " %02X", b);
        }
        std::fprintf(stderr, "\n");
        std::abort();
    }
}

// Written from the MIDI 1.0 tables, independent of the parser's own.
size_t expectedLength(uint8_t status)
{
    switch (status >> 4) {
    case 0x8: case 0x9: case 0xA: case 0xB: case 0xE:
        return 3;
    case 0xC: case 0xD:
        return 2;
    default:
        break;
    }
    switch (status) {
    case 0xF1: case 0xF3:
        return 2;
    case 0xF2:
        return 3;
    case 0xF4: case 0xF5: case 0xF6:
        return 1;
    default:
        return status >= 0xF8 ? 1 : 0;
    }
}

void checkMessage(const Message &m, ULONG capacity)
{
    check(!m.empty(), "empty message", m);
    if (m[0] == 0xF0) {
        check(m.size() >= 2 && m.back() == 0xF7, "SysEx not closed by F7", m);
        check(m.size() <= capacity, "SysEx longer than the capacity", m);
        for (size_t i = 1; i + 1 < m.size(); i++) {
            check(m[i] < 0x80, "status inside SysEx", m);
        }
        return;
    }
    check(expectedLength(m[0]) == m.size(), "length does not fit the status", m);
    for (size_t i = 1; i < m.size(); i++) {
        check(m[i] < 0x80, "status inside a message", m);
    }
}

struct Collected {
    std::vector<Message> messages;
};

void collect(MidiParser *, PUCHAR message, ULONG length, PVOID context)
{
    static_cast<Collected *>(context)->messages.emplace_back(message, message + length);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    // Small capacities reach the overflow paths; the data area stays small.
    ULONG capacity = ULONG(data[0]) | (ULONG(data[1] & 0x0F) << 8);
    data += 2;
    size -= 2;

    Collected polled, delivered;
    MidiParser *poll = MidiParserAlloc(nullptr, nullptr, capacity);
    MidiParser *push = MidiParserAlloc(collect, &delivered, capacity);
    check(poll != nullptr && push != nullptr, "allocation", {});

    auto drain = [&] {
        while (MidiParserPeek(poll) != 0) {
            PUCHAR message = nullptr;
            ULONG n = MidiParserTake(poll, &message);
            check(n != 0 && message != nullptr, "take of a waiting message", {});
            polled.messages.emplace_back(message, message + n);
        }
    };
    size_t realTime = 0;
    for (size_t i = 0; i < size; i++) {
        drain();
        realTime += data[i] >= 0xF8;
        BOOLEAN waiting = MidiParserPutByte(poll, data[i]);
        check(waiting == (MidiParserPeek(poll) != 0), "result disagrees with peek", {data[i]});
        check(!MidiParserPutByte(push, data[i]), "a message waits despite the deliver routine", {data[i]});
    }
    drain();

    for (const Message &m : polled.messages) {
        checkMessage(m, capacity);
    }
    check(polled.messages == delivered.messages, "polling and delivery disagree", {});
    size_t realTimeOut = 0;
    for (const Message &m : polled.messages) {
        realTimeOut += m.size() == 1 && m[0] >= 0xF8;
    }
    check(realTime == realTimeOut, "a real-time byte was lost", {});

    MidiParserFree(poll);
    MidiParserFree(push);
    hostkernel::verifyQuiescent();
    return 0;
}
