// MIDI byte parser, driven the way the render stream drives it: take what
// waits, then feed bytes until one completes a message.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "hostkernel/executive.h"
#include "miniport/midiparser/midiparser.h"

namespace {

using Bytes = std::vector<UCHAR>;

struct Parser {
    MidiParser *p;
    explicit Parser(ULONG capacity, PMIDI_PARSER_DELIVER deliver = nullptr, PVOID context = nullptr)
        : p(MidiParserAlloc(deliver, context, capacity))
    {
    }
    ~Parser() { MidiParserFree(p); }

    void drain(std::vector<Bytes> &out)
    {
        while (MidiParserPeek(p) != 0) {
            PUCHAR message = nullptr;
            ULONG n = MidiParserTake(p, &message);
            out.emplace_back(message, message + n);
        }
    }
    std::vector<Bytes> run(const Bytes &input)
    {
        std::vector<Bytes> out;
        for (UCHAR b : input) {
            drain(out);
            BOOLEAN waiting = MidiParserPutByte(p, b);
            EXPECT_EQ(waiting != 0, MidiParserPeek(p) != 0);
        }
        drain(out);
        return out;
    }
};

TEST(MidiParser, CutsStreamsIntoWholeMessages)
{
    struct Case {
        const char *what;
        ULONG capacity;
        Bytes input;
        std::vector<Bytes> messages;
    } cases[] = {
        {"running status re-inserted", 64, {0x90, 0x3C, 0x40, 0x3C, 0x00}, {{0x90, 0x3C, 0x40}, {0x90, 0x3C, 0x00}}},
        {"two-byte running status", 64, {0xC0, 0x05, 0x06}, {{0xC0, 0x05}, {0xC0, 0x06}}},
        {"real time inside a message", 64, {0x90, 0x3C, 0xF8, 0x40}, {{0xF8}, {0x90, 0x3C, 0x40}}},
        {"real time inside SysEx", 64, {0xF0, 0x01, 0xFE, 0x02, 0xF7}, {{0xFE}, {0xF0, 0x01, 0x02, 0xF7}}},
        {"every real-time value", 64, {0xF8, 0xF9, 0xFA, 0xFB, 0xFC, 0xFD, 0xFE, 0xFF},
         {{0xF8}, {0xF9}, {0xFA}, {0xFB}, {0xFC}, {0xFD}, {0xFE}, {0xFF}}},
        {"SysEx", 64, {0xF0, 0x7E, 0x7F, 0xF7}, {{0xF0, 0x7E, 0x7F, 0xF7}}},
        {"SysEx of exactly capacity", 4, {0xF0, 0x7E, 0x7F, 0xF7}, {{0xF0, 0x7E, 0x7F, 0xF7}}},
        {"SysEx one byte over capacity is lost, F7 swallowed", 3,
         {0xF0, 0x7E, 0x7F, 0xF7, 0x01, 0xF7, 0x02, 0x90, 0x3C, 0x40}, {{0x90, 0x3C, 0x40}}},
        {"SysEx ended by a channel status", 64, {0xF0, 0x01, 0x02, 0x90, 0x3C, 0x40},
         {{0xF0, 0x01, 0x02, 0xF7}, {0x90, 0x3C, 0x40}}},
        {"SysEx ended by tune request", 64, {0xF0, 0x01, 0xF6}, {{0xF0, 0x01, 0xF7}, {0xF6}}},
        {"SysEx ended by F4 then more", 64, {0xF0, 0x01, 0xF4, 0xC1, 0x02},
         {{0xF0, 0x01, 0xF7}, {0xF4}, {0xC1, 0x02}}},
        {"SysEx ended by song select", 64, {0xF0, 0x01, 0xF3, 0x05, 0x06}, {{0xF0, 0x01, 0xF7}, {0xF3, 0x05}}},
        {"SysEx ended by a new SysEx", 64, {0xF0, 0x01, 0xF0, 0x02, 0xF7}, {{0xF0, 0x01, 0xF7}, {0xF0, 0x02, 0xF7}}},
        {"overlong SysEx ended by a status", 3, {0xF0, 0x01, 0x02, 0x03, 0xF6}, {{0xF6}}},
        {"song position leaves no running status", 64, {0xF2, 0x10, 0x20, 0x30}, {{0xF2, 0x10, 0x20}}},
        {"undefined system common", 64, {0xF4, 0xF5}, {{0xF4}, {0xF5}}},
        {"lone F7 holds and drops data", 64, {0xF7, 0x01, 0x02, 0x03, 0x90, 0x3C, 0x40}, {{0x90, 0x3C, 0x40}}},
        {"data without status", 64, {0x3C}, {}},
        {"status drops an incomplete message", 64, {0x90, 0x3C, 0x80, 0x3C, 0x00}, {{0x80, 0x3C, 0x00}}},
        {"SysEx after a channel message clears running status", 64, {0x90, 0x3C, 0x40, 0xF0, 0xF7, 0x3C, 0x40},
         {{0x90, 0x3C, 0x40}, {0xF0, 0xF7}}},
        {"quarter frame and pitch bend", 64, {0xF1, 0x21, 0xE3, 0x00, 0x40}, {{0xF1, 0x21}, {0xE3, 0x00, 0x40}}},
        {"control change and poly pressure take two data bytes", 64,
         {0xB0, 0x07, 0x64, 0x0A, 0x40, 0xA1, 0x3C, 0x20},
         {{0xB0, 0x07, 0x64}, {0xB0, 0x0A, 0x40}, {0xA1, 0x3C, 0x20}}},
        {"channel pressure and program change take one", 64, {0xD2, 0x30, 0x31, 0xC3, 0x01},
         {{0xD2, 0x30}, {0xD2, 0x31}, {0xC3, 0x01}}},
        {"song select, tune request and the end of running status", 64, {0x90, 0x3C, 0x40, 0xF3, 0x05, 0xF6, 0x3C, 0x00},
         {{0x90, 0x3C, 0x40}, {0xF3, 0x05}, {0xF6}}},
        {"capacity below three still holds short messages", 1, {0x90, 0x3C, 0x40, 0xF2, 0x01, 0x02},
         {{0x90, 0x3C, 0x40}, {0xF2, 0x01, 0x02}}},
    };
    // Each row twice: pulled message by message as the render stream does,
    // and pushed to a deliver routine, which takes the parser's general path
    // for every byte.
    auto deliver = [](MidiParser *, PUCHAR message, ULONG length, PVOID context) {
        static_cast<std::vector<Bytes> *>(context)->emplace_back(message, message + length);
    };
    for (const auto &c : cases) {
        Parser pulled(c.capacity);
        ASSERT_NE(nullptr, pulled.p);
        EXPECT_EQ(c.messages, pulled.run(c.input)) << c.what;

        std::vector<Bytes> pushed;
        Parser pushing(c.capacity, deliver, &pushed);
        ASSERT_NE(nullptr, pushing.p);
        for (UCHAR b : c.input) {
            EXPECT_FALSE(MidiParserPutByte(pushing.p, b)) << c.what;
        }
        EXPECT_EQ(c.messages, pushed) << c.what << " (deliver routine)";
    }
}

TEST(MidiParser, InterruptedSysExStaysIntactUntilTheNextByteAndItsOneByteSuccessorWaitsAtOnce)
{
    Parser parser(64);
    const Bytes input = {0xF0, 0x01, 0x02};
    for (UCHAR b : input) {
        ASSERT_FALSE(MidiParserPutByte(parser.p, b));
    }
    ASSERT_TRUE(MidiParserPutByte(parser.p, 0xF6));

    PUCHAR sysex = nullptr;
    ASSERT_EQ(4u, MidiParserTake(parser.p, &sysex));
    ASSERT_EQ(1u, MidiParserPeek(parser.p)) << "F6 must wait without another byte fed";
    PUCHAR single = nullptr;
    ASSERT_EQ(1u, MidiParserTake(parser.p, &single));
    EXPECT_EQ(0xF6, single[0]);
    EXPECT_EQ((Bytes{0xF0, 0x01, 0x02, 0xF7}), Bytes(sysex, sysex + 4));

    // A channel status is held back the same way and only begins its message
    // with the next byte.
    std::vector<Bytes> out = parser.run({0xF0, 0x05, 0x90});
    PUCHAR none = reinterpret_cast<PUCHAR>(1);
    EXPECT_EQ(0u, MidiParserTake(parser.p, &none));
    EXPECT_EQ(nullptr, none);
    out = parser.run({0x3C, 0x40});
    EXPECT_EQ((std::vector<Bytes>{{0x90, 0x3C, 0x40}}), out);
}

TEST(MidiParser, DeliverRoutineReceivesEveryMessageInOrderAndNothingWaits)
{
    struct Sink {
        std::vector<Bytes> messages;
        MidiParser *parser = nullptr;
    } sink;
    auto deliver = [](MidiParser *p, PUCHAR message, ULONG length, PVOID context) {
        auto *s = static_cast<Sink *>(context);
        EXPECT_EQ(s->parser, p);
        s->messages.emplace_back(message, message + length);
    };
    Parser parser(64, deliver, &sink);
    sink.parser = parser.p;
    for (UCHAR b : Bytes{0x90, 0x3C, 0x40, 0x3D, 0x41, 0xF0, 0x01, 0xF6, 0xF0, 0x02, 0x80, 0x01, 0x02}) {
        EXPECT_FALSE(MidiParserPutByte(parser.p, b));
    }
    EXPECT_EQ((std::vector<Bytes>{{0x90, 0x3C, 0x40}, {0x90, 0x3D, 0x41}, {0xF0, 0x01, 0xF7}, {0xF6},
                                  {0xF0, 0x02, 0xF7}, {0x80, 0x01, 0x02}}),
              sink.messages);
}

TEST(MidiParser, ResetForgetsEverythingBegunAndAllocationFailureGivesNull)
{
    Parser parser(64);
    parser.run({0x90, 0x3C});
    MidiParserReset(parser.p);
    EXPECT_TRUE(parser.run({0x40, 0x3C, 0x40}).empty()) << "running status and the half message must be gone";
    parser.run({0xF0, 0x01});
    MidiParserReset(parser.p);
    EXPECT_TRUE(parser.run({0x02, 0xF7}).empty());

    // The record is the header and a data area of the capacity, but never
    // less than a three-byte message.
    for (ULONG capacity : {0u, 2u, 3u, 64u}) {
        const size_t before = hostkernel::poolStats(hostkernel::tag("AmbP")).liveBytes;
        Parser sized(capacity);
        EXPECT_EQ(FIELD_OFFSET(MidiParser, data) + std::max<ULONG>(capacity, 3),
                  hostkernel::poolStats(hostkernel::tag("AmbP")).liveBytes - before)
            << capacity;
    }

    hostkernel::failPoolAllocationsOfTag(hostkernel::tag("AmbP"));
    EXPECT_EQ(nullptr, MidiParserAlloc(nullptr, nullptr, 64));
    hostkernel::clearPoolFaults();
    EXPECT_EQ(1u, hostkernel::poolStats(hostkernel::tag("AmbP")).liveAllocations);
}

} // namespace
