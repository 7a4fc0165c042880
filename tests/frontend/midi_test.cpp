// The command's MIDI decoding, its Standard MIDI File reader and libambrel's
// file names and GUID text: pure functions, checked against hand-built input.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ambrel/ambrel.h"
#include "midi/midi.h"
#include "midi/smf.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using ambrel::midi::Splitter;

std::vector<Bytes> split(const Bytes &in, size_t chunk = 0, Splitter *s = nullptr)
{
    Splitter local;
    Splitter &sp = s != nullptr ? *s : local;
    std::vector<Bytes> out;
    auto sink = [&](const std::uint8_t *m, size_t n) { out.emplace_back(m, m + n); };
    if (chunk == 0) {
        sp.feed(in.data(), in.size(), sink);
    } else {
        for (size_t i = 0; i < in.size(); i += chunk) {
            sp.feed(in.data() + i, std::min(chunk, in.size() - i), sink);
        }
    }
    return out;
}

TEST(MidiSplitter, CutsStreamsIntoWholeMessagesWhateverTheChunking)
{
    struct Case {
        const char *what;
        Bytes in;
        std::vector<Bytes> out;
    } cases[] = {
        {"note on and off", {0x90, 60, 100, 0x80, 60, 0}, {{0x90, 60, 100}, {0x80, 60, 0}}},
        {"running status expanded", {0x90, 60, 100, 62, 90}, {{0x90, 60, 100}, {0x90, 62, 90}}},
        {"two-byte messages", {0xC5, 7, 0xD0, 30, 31}, {{0xC5, 7}, {0xD0, 30}, {0xD0, 31}}},
        {"real-time inside a note", {0x90, 0xF8, 60, 0xFE, 100}, {{0xF8}, {0xFE}, {0x90, 60, 100}}},
        {"sysex terminated", {0xF0, 0x7E, 1, 2, 0xF7}, {{0xF0, 0x7E, 1, 2, 0xF7}}},
        {"sysex cut by a status", {0xF0, 1, 2, 0x90, 60, 1}, {{0xF0, 1, 2}, {0x90, 60, 1}}},
        {"real-time inside sysex", {0xF0, 1, 0xF8, 2, 0xF7}, {{0xF8}, {0xF0, 1, 2, 0xF7}}},
        {"system common clears running status", {0x90, 1, 2, 0xF6, 3, 4}, {{0x90, 1, 2}, {0xF6}}},
        {"song position", {0xF2, 0x10, 0x01}, {{0xF2, 0x10, 0x01}}},
        {"stray data and EOX dropped", {5, 6, 0xF7, 0xB0, 7, 100}, {{0xB0, 7, 100}}},
        {"status interrupting a message", {0x90, 60, 0x80, 60, 0}, {{0x80, 60, 0}}},
    };
    for (const Case &c : cases) {
        for (size_t chunk : {size_t(0), size_t(1), size_t(2)}) {
            EXPECT_EQ(split(c.in, chunk), c.out) << c.what << ", chunk " << chunk;
        }
    }
}

TEST(MidiSplitter, LongSysexIsCutButCountedWhole)
{
    Splitter s(8);
    Bytes in{0xF0};
    in.insert(in.end(), 100, 0x11);
    in.push_back(0xF7);
    auto out = split(in, 7, &s);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].size(), 8u);
    EXPECT_EQ(s.sysexLength(), 102u);

    Splitter t;
    split({1, 2, 0xF7, 0x90, 1, 1}, 0, &t);
    EXPECT_EQ(t.droppedBytes(), 3u);
}

// The framer must cut exactly as a port's parser does (the daemon counts the
// FIFO's room by its messages) and name what that parser would drop.
TEST(MidiFramer, CutsAsThePortDoesAndNamesWhatItWouldDrop)
{
    using Fault = ambrel::midi::Framer::Fault;
    struct Case {
        const char *what;
        Bytes in;
        std::vector<Bytes> out;
        Fault fault;       // at the first byte not taken
        size_t taken;
        size_t begunAt;    // where the broken message began
    } cases[] = {
        {"running status re-inserted", {0x90, 0x3C, 0x40, 0x3C, 0x00}, {{0x90, 0x3C, 0x40}, {0x90, 0x3C, 0x00}},
         Fault::None, 5, 0},
        {"program changes", {0xC0, 5, 6}, {{0xC0, 5}, {0xC0, 6}}, Fault::None, 3, 0},
        {"real time first", {0x90, 0x3C, 0xF8, 0x40}, {{0xF8}, {0x90, 0x3C, 0x40}}, Fault::None, 4, 0},
        {"SysEx ended by a note", {0xF0, 1, 2, 0x90, 0x3C, 0x40}, {{0xF0, 1, 2, 0xF7}, {0x90, 0x3C, 0x40}},
         Fault::None, 6, 0},
        {"SysEx ended by tune request", {0xF0, 1, 0xF6}, {{0xF0, 1, 0xF7}, {0xF6}}, Fault::None, 3, 0},
        {"SysEx ended by SysEx", {0xF0, 1, 0xF0, 2, 0xF7}, {{0xF0, 1, 0xF7}, {0xF0, 2, 0xF7}}, Fault::None, 5, 0},
        {"undefined system common", {0xF4, 0xF5}, {{0xF4}, {0xF5}}, Fault::None, 2, 0},
        {"song position leaves no running status", {0xF2, 0x10, 0x20, 0x30}, {{0xF2, 0x10, 0x20}},
         Fault::StrayData, 3, 0},
        {"data with no status", {0x3C}, {}, Fault::StrayData, 0, 0},
        {"lone end of SysEx", {0x90, 1, 2, 0xF7}, {{0x90, 1, 2}}, Fault::StrayData, 3, 0},
        {"note cut short", {0x80, 1, 2, 0x90, 0x3C, 0xB0}, {{0x80, 1, 2}}, Fault::CutShort, 5, 3},
        {"cut short under running status", {0x90, 1, 2, 3, 0x80}, {{0x90, 1, 2}}, Fault::CutShort, 4, 3},
        {"SysEx of exactly the limit", {0xF0, 1, 2, 3, 4, 5, 0xF7}, {{0xF0, 1, 2, 3, 4, 5, 0xF7}}, Fault::None, 7, 0},
        {"SysEx a byte over", {0x90, 1, 2, 0xF0, 1, 2, 3, 4, 5, 6}, {{0x90, 1, 2}}, Fault::SysexTooLong, 9, 3},
    };
    for (const Case &c : cases) {
        ambrel::midi::Framer framer(7);
        std::vector<Bytes> out;
        size_t taken = 0;
        Fault fault = framer.feed(c.in.data(), c.in.size(),
                                  [&](const std::uint8_t *m, size_t n) { out.emplace_back(m, m + n); }, &taken);
        EXPECT_EQ(out, c.out) << c.what;
        EXPECT_EQ(fault, c.fault) << c.what;
        EXPECT_EQ(taken, c.taken) << c.what;
        if (fault == Fault::CutShort || fault == Fault::SysexTooLong) {
            EXPECT_EQ(framer.begunAt(), c.begunAt) << c.what;
        }
    }
}

TEST(MidiDescribe, NamesMessagesAsMusiciansReadThem)
{
    struct Case {
        Bytes m;
        const char *expected;
    } cases[] = {
        {{0x90, 60, 100}, "Note On             ch  1  C4   ( 60)  velocity 100"},
        {{0x8F, 0, 0}, "Note Off            ch 16  C-1  (  0)  velocity 0"},
        {{0x91, 127, 1}, "Note On             ch  2  G9   (127)  velocity 1"},
        {{0x90, 61, 1}, "Note On             ch  1  C#4  ( 61)  velocity 1"},
        {{0xB0, 64, 127}, "Control Change      ch  1  Sustain Pedal, controller 64 = 127"},
        {{0xB3, 20, 5}, "Control Change      ch  4  controller 20 = 5"},
        {{0xB0, 123, 0}, "Control Change      ch  1  All Notes Off, controller 123 = 0"},
        {{0xC9, 25}, "Program Change      ch 10  program 25"},
        {{0xE0, 0, 64}, "Pitch Bend          ch  1  +0"},
        {{0xE0, 0, 0}, "Pitch Bend          ch  1  -8192"},
        {{0xE0, 127, 127}, "Pitch Bend          ch  1  +8191"},
        {{0xD2, 9}, "Channel Aftertouch  ch  3  pressure 9"},
        {{0xF0, 0x7E, 0x7F, 0x09, 0x01, 0xF7}, "SysEx               6 bytes  F0 7E 7F 09 01 F7"},
        {{0xF0, 1, 2}, "SysEx               3 bytes (unterminated)  F0 01 02"},
        {{0xF2, 0x00, 0x01}, "Song Position       128 beats"},
        {{0xF8}, "Clock"},
        {{0xFF}, "Reset"},
        {{0xF9}, "Undefined           F9"},
        {{0x90, 60}, "Incomplete  90 3C"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(ambrel::midi::describe(c.m.data(), c.m.size()), c.expected);
    }
    Bytes cut{0xF0, 1, 2, 3};
    EXPECT_EQ(ambrel::midi::describe(cut.data(), cut.size(), 5000), "SysEx               5000 bytes (unterminated)  F0 01 02 03");
}

TEST(MidiHex, ParsesTheSpellingsPeopleTypeAndRefusesTheRest)
{
    struct Case {
        const char *text;
        bool ok;
        Bytes bytes;
    } cases[] = {
        {"90 3C 64", true, {0x90, 0x3C, 0x64}},
        {"903c64", true, {0x90, 0x3C, 0x64}},
        {"0x90,0x3C, 0x64", true, {0x90, 0x3C, 0x64}},
        {"f0:7e:f7", true, {0xF0, 0x7E, 0xF7}},
        {"9", false, {}},
        {"90 3", false, {}},
        {"zz", false, {}},
        {"", false, {}},
        {"  ", false, {}},
    };
    for (const Case &c : cases) {
        Bytes out;
        EXPECT_EQ(ambrel::midi::parseHex(c.text, &out), c.ok) << c.text;
        if (c.ok) {
            EXPECT_EQ(out, c.bytes) << c.text;
        }
    }
    Bytes long_(40, 0xAB);
    EXPECT_EQ(ambrel::midi::hex(long_.data(), long_.size(), 2), "AB AB ...");
}

// --------------------------------------------------------------- SMF
void be(Bytes &b, std::uint32_t v, int n)
{
    for (int i = n - 1; i >= 0; --i) {
        b.push_back(std::uint8_t(v >> (8 * i)));
    }
}

Bytes smfFile(int format, int division, const std::vector<Bytes> &tracks)
{
    Bytes f{'M', 'T', 'h', 'd'};
    be(f, 6, 4);
    be(f, std::uint32_t(format), 2);
    be(f, std::uint32_t(tracks.size()), 2);
    be(f, std::uint32_t(division), 2);
    for (const Bytes &t : tracks) {
        f.insert(f.end(), {'M', 'T', 'r', 'k'});
        be(f, std::uint32_t(t.size()), 4);
        f.insert(f.end(), t.begin(), t.end());
    }
    return f;
}

const Bytes kEnd{0x00, 0xFF, 0x2F, 0x00};

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

TEST(Smf, TimesFollowDivisionTempoAndTrackMerging)
{
    // Format 1, 96 ticks per quarter. Track 0: tempo 120 bpm, at tick 192 tempo
    // 60 bpm. Track 1: note at 0, running-status note at 96, note at 288.
    Bytes t0 = cat({{0x00, 0xFF, 0x51, 0x03, 0x07, 0xA1, 0x20}, {0x81, 0x40, 0xFF, 0x51, 0x03, 0x0F, 0x42, 0x40}, kEnd});
    Bytes t1 = cat({{0x00, 0x90, 60, 100}, {0x60, 62, 100}, {0x81, 0x40, 0x80, 60, 0}, kEnd});
    ambrel::midi::Smf smf;
    std::string error;
    Bytes file = smfFile(1, 96, {t0, t1});
    ASSERT_TRUE(ambrel::midi::parseSmf(file.data(), file.size(), &smf, &error)) << error;
    EXPECT_EQ(smf.format, 1);
    EXPECT_EQ(smf.trackCount, 2);
    ASSERT_EQ(smf.events.size(), 3u);
    EXPECT_EQ(smf.events[1].bytes, (Bytes{0x90, 62, 100}));
    EXPECT_DOUBLE_EQ(smf.events[0].seconds, 0.0);
    EXPECT_DOUBLE_EQ(smf.events[1].seconds, 0.5); // 96 ticks at 120 bpm
    // 192 ticks at 120 bpm (1 s), then 96 at 60 bpm (1 s).
    EXPECT_DOUBLE_EQ(smf.events[2].seconds, 2.0);
    EXPECT_DOUBLE_EQ(smf.duration, 2.0);
}

TEST(Smf, SysexSmpteAndFormatTwo)
{
    // SMPTE 25 fps x 40 ticks = 1000 ticks per second.
    Bytes t = cat({{0x00, 0xF0, 0x03, 0x7E, 0x01, 0xF7}, {0x87, 0x68, 0xF7, 0x02, 0xF8, 0xFA}, kEnd});
    ambrel::midi::Smf smf;
    std::string error;
    Bytes file = smfFile(0, 0xE728, {t});
    ASSERT_TRUE(ambrel::midi::parseSmf(file.data(), file.size(), &smf, &error)) << error;
    ASSERT_EQ(smf.events.size(), 2u);
    EXPECT_EQ(smf.events[0].bytes, (Bytes{0xF0, 0x7E, 0x01, 0xF7}));
    EXPECT_EQ(smf.events[1].bytes, (Bytes{0xF8, 0xFA}));
    EXPECT_DOUBLE_EQ(smf.events[1].seconds, 1.0);

    // Format 2: the second pattern starts where the first ended.
    Bytes p = cat({{0x00, 0x90, 1, 1}, {0x60, 0xFF, 0x2F, 0x00}});
    file = smfFile(2, 96, {p, p});
    ASSERT_TRUE(ambrel::midi::parseSmf(file.data(), file.size(), &smf, &error)) << error;
    ASSERT_EQ(smf.events.size(), 2u);
    EXPECT_DOUBLE_EQ(smf.events[1].seconds, 0.5);
    EXPECT_DOUBLE_EQ(smf.duration, 1.0);
}

TEST(Smf, BadFilesAreRefusedWithAReason)
{
    Bytes good = smfFile(0, 96, {cat({{0x00, 0x90, 60, 100}, kEnd})});
    struct Case {
        const char *what;
        Bytes file;
        const char *reason;
    } cases[] = {
        {"empty", {}, "no MThd"},
        {"not midi", Bytes(20, 'x'), "no MThd"},
        {"format 3", smfFile(3, 96, {kEnd}), "unknown format"},
        {"division 0", smfFile(0, 0, {kEnd}), "division"},
        {"no tracks", smfFile(0, 96, {}), "no MTrk"},
        {"chunk past end", Bytes(good.begin(), good.end() - 2), "runs past the end"},
        {"data without status", smfFile(0, 96, {{0x00, 0x3C, 0x40}}), "data byte without a status"},
        {"truncated note", smfFile(0, 96, {{0x00, 0x90, 0x3C}}), "truncated channel message"},
        {"endless delta", smfFile(0, 96, {{0x80, 0x80, 0x80, 0x80, 0x00}}), "delta time"},
        {"meta length past end", smfFile(0, 96, {{0x00, 0xFF, 0x01, 0x7F, 'a'}}), "truncated meta"},
        {"sysex length past end", smfFile(0, 96, {{0x00, 0xF0, 0x05, 0x01}}), "truncated SysEx"},
        {"system message", smfFile(0, 96, {{0x00, 0xF8}}), "system message"},
        {"status inside message", smfFile(0, 96, {{0x00, 0x90, 0x3C, 0x90}}), "status byte inside"},
    };
    for (const Case &c : cases) {
        ambrel::midi::Smf smf;
        smf.format = 7;
        std::string error;
        EXPECT_FALSE(ambrel::midi::parseSmf(c.file.data(), c.file.size(), &smf, &error)) << c.what;
        EXPECT_NE(error.find(c.reason), std::string::npos) << c.what << ": " << error;
        EXPECT_TRUE(smf.events.empty()) << c.what;
        EXPECT_EQ(smf.format, 0) << c.what;
    }
}

// --------------------------------------------------------------- libambrel
TEST(LibambrelNames, FileNamesFollowTheDriversGrammar)
{
    ambrel_guid m{}, p{};
    ASSERT_EQ(ambrel_parse_guid("{0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D}", &m), AMBREL_OK);
    ASSERT_EQ(ambrel_parse_guid("5e6f7a8b-9c0d-4e1f-a2b3-c4d5e6f7a8b9", &p), AMBREL_OK);
    struct Case {
        const char *name;
        std::uint32_t sysex;
        const ambrel_guid *m;
        const ambrel_guid *p;
        long error; // 0: success, the result is the file name's length
        const char *fileName;
    } cases[] = {
        {"Piano", 0, nullptr, nullptr, 0, "Piano\\"},
        {"Piano 1", 65536, nullptr, nullptr, 0, "Piano 1\\65536"},
        {"A/B", 8192, nullptr, nullptr, 0, "AB\\8192"},
        {"Piano", 0, &m, nullptr, 0, "Piano\\\\{0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D}"},
        {"Piano", 65536, &m, &p, 0,
         "Piano\\65536\\{0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D}\\{5E6F7A8B-9C0D-4E1F-A2B3-C4D5E6F7A8B9}"},
        {"Pia\\no", 0, nullptr, nullptr, AMBREL_E_INVALID, nullptr},
        {"", 0, nullptr, nullptr, AMBREL_E_INVALID, nullptr},
        {"//", 0, nullptr, nullptr, AMBREL_E_INVALID, nullptr},
    };
    for (const Case &c : cases) {
        ambrel_options o{};
        o.sysex_size = c.sysex;
        o.manufacturer = c.m;
        o.product = c.p;
        char out[256];
        long result = ambrel_file_name(c.name, &o, out, sizeof out);
        if (c.fileName != nullptr) {
            EXPECT_EQ(result, long(std::string(c.fileName).size())) << c.name;
            EXPECT_STREQ(out, c.fileName);
        } else {
            EXPECT_EQ(result, c.error) << c.name;
        }
    }
    char tiny[6];
    EXPECT_EQ(ambrel_file_name("Piano", nullptr, tiny, sizeof tiny), AMBREL_E_INVALID);
}

TEST(LibambrelNames, GuidTextRoundTripsAndBadTextIsRefused)
{
    ambrel_guid g{};
    ASSERT_EQ(ambrel_parse_guid("{7e3a9c51-2d84-4b6f-a0c3-5f19e8d27b46}", &g), AMBREL_OK);
    EXPECT_EQ(g.data1, 0x7E3A9C51u);
    EXPECT_EQ(g.data2, 0x2D84u);
    EXPECT_EQ(g.data4[0], 0xA0u);
    EXPECT_EQ(g.data4[7], 0x46u);
    char text[39];
    ambrel_format_guid(&g, text);
    EXPECT_STREQ(text, "{7E3A9C51-2D84-4B6F-A0C3-5F19E8D27B46}");
    for (const char *bad : {"", "{7E3A9C51-2D84-4B6F-A0C3-5F19E8D27B46", "7E3A9C51-2D84-4B6F-A0C3-5F19E8D27B4",
                            "{7E3A9C51-2D84-4B6F-A0C3-5F19E8D27B46}x", "{7E3A9C51+2D84-4B6F-A0C3-5F19E8D27B46}",
                            "{7E3A9C5G-2D84-4B6F-A0C3-5F19E8D27B46}"}) {
        EXPECT_EQ(ambrel_parse_guid(bad, &g), AMBREL_E_INVALID) << bad;
    }
}

} // namespace
