// ambreld's parts that need no mount: its settings file, the UTF-8 /
// UTF-16 conversion that every name passes through, the JACK bridge's names
// and frame placement, capture records, and its pin opening against the
// driver booted in this process.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <hostkernel/io.h>
#include <hostkernel/pnp.h>

#include "adapter/amadapter.h"
#include "adapter/porttable.h"
#include "daemon.h"
#include "midigraph.h"
#include "pins.h"
#include "ports.h"
#include "text.h"

namespace {

std::string writeTemp(const std::string &text)
{
    char path[] = "/tmp/ambreld-conf-XXXXXX";
    int fd = mkstemp(path);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(write(fd, text.data(), text.size()), ssize_t(text.size()));
    close(fd);
    return path;
}

TEST(AmbreldConfig, FileSettingsFillWhatFlagsLeftOpen)
{
    std::string path = writeTemp("# Ambrel\n mount = /srv/midi \nmax-ports=64\nSysexSize = 65536 # bytes\n\nverbose = true\n"
                                 "jack = true\njack-client = studio\n");
    ambreld::Config fromFile;
    std::string error;
    ASSERT_TRUE(ambreld::readConfigFile(path, &fromFile, &error)) << error;
    EXPECT_EQ(fromFile.mount, "/srv/midi");
    EXPECT_EQ(fromFile.maxPorts, 64u);
    EXPECT_EQ(fromFile.sysexSize, 65536u);
    EXPECT_TRUE(fromFile.verbose);
    EXPECT_TRUE(fromFile.jack);
    EXPECT_EQ(fromFile.jackClient, "studio");

    ambreld::Config flags;
    flags.mount = "/run/x";
    flags.maxPorts = 3;
    flags.jackClient = "ambrel-2";
    ASSERT_TRUE(ambreld::readConfigFile(path, &flags, &error)) << error;
    EXPECT_EQ(flags.mount, "/run/x");
    EXPECT_EQ(flags.jackClient, "ambrel-2");
    EXPECT_EQ(flags.maxPorts, 3u);
    EXPECT_EQ(flags.sysexSize, 65536u);
    unlink(path.c_str());
}

TEST(AmbreldConfig, BadFilesNameTheLineAndTheProblem)
{
    struct Case {
        const char *text;
        const char *reason;
    } cases[] = {
        {"max-ports\n", ":1: expected key = value"},
        {"\n\nmax-ports = many\n", ":3: max-ports needs a number"},
        {"sysex-size = 99999999999\n", "sysex-size needs a number"},
        {"sysex-size = -5\n", "sysex-size needs a number"},
        {"mount =\n", "mount needs a directory"},
        {"verbose = maybe\n", "verbose is true or false"},
        {"jack = on\n", "jack is true or false"},
        {"jack-client =\n", "jack-client needs a name"},
        {"colour = blue\n", "unknown setting \"colour\""},
    };
    for (const Case &c : cases) {
        std::string path = writeTemp(c.text);
        ambreld::Config config;
        std::string error;
        EXPECT_FALSE(ambreld::readConfigFile(path, &config, &error)) << c.text;
        EXPECT_NE(error.find(c.reason), std::string::npos) << error;
        unlink(path.c_str());
    }
    ambreld::Config config;
    std::string error;
    EXPECT_FALSE(ambreld::readConfigFile("/nonexistent/ambreld.conf", &config, &error));
    EXPECT_NE(error.find("cannot read"), std::string::npos);
}

// JACK takes port names of limited length, and ':' separates client and
// port: every port still gets a name, the same one each time.
TEST(AmbreldJackNames, RefusedCharactersLengthsAndClashesMapPredictably)
{
    struct Case {
        std::string name, suffix;
        std::size_t limit;
        std::set<std::string> taken;
        std::string expected;
    } cases[] = {
        {"Piano", " in", 64, {}, "Piano in"},
        {"Synth: Lead", " out", 64, {}, "Synth_ Lead out"},
        {"tab\there\x7f", " in", 64, {}, "tab_here_ in"},
        {"abcdefghij", " out", 10, {}, "abcdef out"},
        // Cut before a character, never inside it ("\xC3\xA9" is one).
        {"caf\xC3\xA9s", " in", 7, {}, "caf in"},
        {"caf\xC3\xA9s", " in", 8, {}, "caf\xC3\xA9 in"},
        {"a:b", " in", 64, {"a_b in"}, "a_b~2 in"},
        {"a:b", " in", 64, {"a_b in", "a_b~2 in"}, "a_b~3 in"},
        {"abcdefghij", " in", 10, {"abcdefg in"}, "abcde~2 in"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(ambreld::jackPortName(c.name, c.suffix, c.limit, c.taken), c.expected) << c.name;
    }
}

// A captured event goes one period after its frame, keeping the distances
// of a period's events and their order; a later period's waits.
TEST(AmbreldJackTiming, CapturedEventsLandAtTheirFrameOnePeriodLater)
{
    struct Case {
        std::uint32_t event, start, frames, floor, expected;
    } cases[] = {
        {1000, 1256, 256, 0, 0},       // at the previous period's start
        {1100, 1256, 256, 0, 100},     // inside it
        {1255, 1256, 256, 0, 255},     // its last frame
        {1256, 1256, 256, 0, 256},     // this period's own: the next one takes it
        {900, 1256, 256, 0, 0},        // late: as early as can be
        {1100, 1256, 256, 120, 120},   // never before the one placed before it
        {0xFFFFFFF0u, 0xF0u, 256, 0, 0}, // the frame clock wrapped
        {0xFFFFFFFAu, 0xF0u, 256, 0, 10},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(ambreld::captureOffset(c.event, c.start, c.frames, c.floor), c.expected)
            << c.event << " in the period at " << c.start;
    }
}

// A capture read's buffer: records of an 8-byte head (milliseconds since
// the record before, byte count) and their bytes padded to 4; the header's
// time is the first record's. A record cut short by DataUsed gives what
// is there; a head that does not fit ends the walk.
TEST(AmbreldCaptureRecords, EachRecordComesWithItsBytesAndItsTime)
{
    struct Record {
        std::uint32_t deltaMs;
        std::vector<std::uint8_t> bytes;
    };
    struct Seen {
        std::vector<std::uint8_t> bytes;
        LONGLONG time;
        bool operator==(const Seen &o) const { return bytes == o.bytes && time == o.time; }
    };
    struct Case {
        const char *what;
        std::vector<Record> records;
        std::size_t trim; // bytes taken off DataUsed
        std::vector<Seen> expected;
    } cases[] = {
        {"one", {{0, {0x90, 60, 100}}}, 0, {{{0x90, 60, 100}, 5000000}}},
        {"deltas add up; the first one's is the header's",
         {{7, {0xF8}}, {5, {0x80, 60, 0}}, {12, {0xF0, 1, 2, 3, 4, 0xF7}}},
         0,
         {{{0xF8}, 5000000}, {{0x80, 60, 0}, 5050000}, {{0xF0, 1, 2, 3, 4, 0xF7}, 5170000}}},
        {"the last one cut short (its padding and two bytes)", {{0, {0xF8}}, {1, {0xF0, 1, 2, 3, 4, 0xF7}}}, 4,
         {{{0xF8}, 5000000}, {{0xF0, 1, 2, 3}, 5010000}}},
        {"a head that does not fit", {{0, {0xF8}}, {1, {0xFA}}}, 9, {{{0xF8}, 5000000}}},
    };
    for (const Case &c : cases) {
        std::vector<std::uint8_t> data;
        for (const Record &r : c.records) {
            for (std::uint32_t v : {r.deltaMs, std::uint32_t(r.bytes.size())}) {
                for (int i = 0; i < 4; ++i) {
                    data.push_back(std::uint8_t(v >> (8 * i)));
                }
            }
            data.insert(data.end(), r.bytes.begin(), r.bytes.end());
            data.resize((data.size() + 3) & ~std::size_t(3));
        }
        KSSTREAM_HEADER header{};
        header.Size = sizeof header;
        header.DataUsed = ULONG(data.size() - c.trim);
        header.FrameExtent = ULONG(data.size());
        header.PresentationTime.Time = 5000000;
        std::vector<Seen> seen;
        ambreld::forEachCaptureRecord(header, data.data(), [&](const std::uint8_t *bytes, std::size_t n, LONGLONG time) {
            seen.push_back({std::vector<std::uint8_t>(bytes, bytes + n), time});
        });
        EXPECT_TRUE(seen == c.expected) << c.what;
    }
}

TEST(AmbreldText, NamesConvertBothWaysAndMalformedUtf8IsRefused)
{
    struct Case {
        std::string utf8;
        std::u16string utf16;
    } good[] = {
        {"Piano", u"Piano"},
        {"Fl\xC3\xBCgel", u"Fl\u00FCgel"},
        {"\xE9\x8D\xB5\xE7\x9B\xA4", u"\u9375\u76E4"},
        {"\xF0\x9F\x8E\xB9", u"\U0001F3B9"},
        {"", u""},
    };
    for (const Case &c : good) {
        std::u16string out;
        ASSERT_TRUE(ambreld::utf8ToUtf16(c.utf8, &out)) << c.utf8;
        EXPECT_EQ(out, c.utf16);
        EXPECT_EQ(ambreld::utf16ToUtf8(c.utf16), c.utf8);
    }
    for (const char *bad : {"\x80", "\xC3", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                            "\xF8\x88\x80\x80\x80", "ok\xE2\x82"}) {
        std::u16string out = u"unchanged";
        EXPECT_FALSE(ambreld::utf8ToUtf16(bad, &out)) << bad;
        EXPECT_EQ(out, u"unchanged");
    }
    EXPECT_EQ(ambreld::utf16ToUtf8(std::u16string(1, char16_t(0xD800))), "\xEF\xBF\xBD");
}

// A port's directory looked up before its port closed leads to the slot's
// next port; the daemon must not play into that one under the old name.
TEST(AmbreldPins, AViewOutlivingItsPortOpensNothing)
{
    namespace hk = hostkernel;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    PDRIVER_OBJECT driver = hk::loadDriver(u"ambrel", DriverEntry, &status);
    ASSERT_NE(driver, nullptr);
    auto node = hk::addRootDevice(driver);
    ASSERT_EQ(node->start(), STATUS_SUCCESS);
    {
        auto owner = std::make_shared<hk::Process>(100);
        auto client = std::make_shared<hk::Process>(200);
        const ACCESS_MASK readWrite = FILE_GENERIC_READ | FILE_GENERIC_WRITE;
        hk::Handle piano = 0, organ = 0;
        ASSERT_EQ(owner->open(u"\\DosDevices\\Ambrel\\Piano", readWrite, &piano), STATUS_SUCCESS);
        ambreld::PortView view;
        ASSERT_TRUE(ambreld::findPortByDirName("Piano", &view));
        auto link = ambreld::PortLink::of(static_cast<MidiPort *>(owner->fileObject(piano)->FsContext));
        ASSERT_NE(link, nullptr);
        std::unique_ptr<ambreld::PinFile> pin;
        ASSERT_EQ(ambreld::PinFile::open(client, view, link, true, &pin), STATUS_SUCCESS);
        pin->close();
        pin.reset();

        ASSERT_EQ(owner->close(piano), STATUS_SUCCESS);
        ASSERT_EQ(owner->open(u"\\DosDevices\\Ambrel\\Organ", readWrite, &organ), STATUS_SUCCESS);
        for (bool render : {true, false}) {
            EXPECT_EQ(ambreld::PinFile::open(client, view, link, render, &pin), STATUS_OBJECT_NAME_NOT_FOUND);
            EXPECT_EQ(pin, nullptr);
        }
        EXPECT_EQ(owner->close(organ), STATUS_SUCCESS);
    }
    EXPECT_EQ(node->remove(), STATUS_SUCCESS);
    node.reset();
    EXPECT_EQ(hk::unloadDriver(driver), STATUS_SUCCESS);
}

} // namespace
