// ambreld's ports in a JACK graph, tried with programs we did not write:
// jackd on its dummy backend, jack_midiseq, jack_midi_dump, FluidSynth,
// python3-rtmidi. Each test runs its own jackd under a name no other run
// uses, and kills it (SIGKILL after a bounded wait) whatever the outcome.
#include "daemon_fixture.h"

#include <jack/jack.h>
#include <jack/midiport.h>
#include <sched.h>
#include <sys/mount.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <map>
#include <regex>

namespace fetest {
namespace {

using namespace std::chrono_literals;

// jackd keeps a machine-wide table of eight servers in /dev/shm, and a
// server that was killed keeps its entry: this binary's servers (and their
// clients) get a mount namespace of their own, made before any thread
// runs, and each server a fresh /dev/shm in it (see startJack).
const bool gPrivateShm = [] {
    return geteuid() == 0 && unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}();

constexpr int kRate = 48000;
constexpr int kPeriod = 1024;

const char *const kPrograms[] = {"/usr/bin/jackd",         "/usr/bin/jack_lsp",  "/usr/bin/jack_connect",
                                 "/usr/bin/jack_midiseq",  "/usr/bin/jack_midi_dump"};

std::string join(const Bytes &b)
{
    std::string s;
    char hex[4];
    for (std::uint8_t c : b) {
        std::snprintf(hex, sizeof hex, "%02x ", c);
        s += hex;
    }
    return s;
}

class JackTest : public DaemonTest {
protected:
    void SetUp() override
    {
        if (geteuid() != 0 || access("/dev/fuse", R_OK | W_OK) != 0) {
            GTEST_SKIP() << "the front-end tests mount a FUSE file system: they need root and /dev/fuse";
        }
        for (const char *program : kPrograms) {
            if (!exists(program)) {
                GTEST_SKIP() << program << " is missing: scripts/setup.sh installs jackd2";
            }
        }
        ASSERT_TRUE(gPrivateShm) << "cannot give jackd a /dev/shm of its own: " << std::strerror(errno);
        static int serial = 0;
        server_ = "ambrel-test-" + std::to_string(getpid()) + "-" + std::to_string(++serial);
        setenv("JACK_DEFAULT_SERVER", server_.c_str(), 1);
        setenv("JACK_NO_AUDIO_RESERVATION", "1", 1);
        char dir[] = "/tmp/ambrel-jack-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        mount_ = dir;
    }

    void TearDown() override
    {
        DaemonTest::TearDown();
        stopJack();
        unlink((mount_ + ".jackd").c_str());
    }

    // jackd on the dummy backend, ready once jack_lsp reaches it.
    void startJack()
    {
        ASSERT_EQ(mount("tmpfs", "/dev/shm", "tmpfs", 0, "mode=1777"), 0) << std::strerror(errno);
        std::string log = mount_ + ".jackd";
        jackd_ = std::make_unique<Child>([&] {
            int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            dup2(fd, 1);
            dup2(fd, 2);
            // A client that a loaded machine (sanitizers, parallel tests)
            // holds up for half a second is not thrown out of the graph.
            execl("/usr/bin/jackd", "jackd", "--no-realtime", "-t", "10000", "-n", server_.c_str(), "-d", "dummy",
                  "-r", std::to_string(kRate).c_str(), "-p", std::to_string(kPeriod).c_str(), nullptr);
            return 127;
        });
        ASSERT_TRUE(eventually([&] { return Command({"/usr/bin/jack_lsp"}).wait() == 0; }, 10))
            << "jackd did not start: " << slurp(log);
    }

    // jackd has been seen to ignore SIGTERM: SIGKILL after two seconds.
    void stopJack(int signal = SIGTERM)
    {
        if (!jackd_) {
            return;
        }
        jackd_->kill(signal);
        if (jackd_->wait(2) == -1) {
            jackd_->kill(SIGKILL);
        }
        jackd_.reset();
    }

    void startBridge(const std::vector<std::string> &extra = {})
    {
        std::vector<std::string> args{"--jack"};
        args.insert(args.end(), extra.begin(), extra.end());
        startDaemon(args);
    }

    // An owner's descriptor, kept from the programs the test starts (a
    // program holding it open would keep the port).
    int own(const std::string &name, int mode) { return openFile(path(name), mode | O_CLOEXEC); }

    // jackd, the bridge, and a port owned by the test, once its JACK port
    // `side` (" in" or " out") is in the graph; -1 when it is not.
    int ownBridged(const std::string &name, int mode, const std::string &side)
    {
        startJack();
        startBridge();
        int owner = own(name, mode);
        EXPECT_GE(owner, 0) << name;
        bool joined = owner >= 0 && eventually([&] { return jackPorts().count(client_ + ":" + name + side) == 1; });
        EXPECT_TRUE(joined) << daemonLog();
        return joined ? owner : -1;
    }

    // A JACK program of ours to end: its own Command, killed at teardown.
    std::unique_ptr<Command> run(const std::vector<std::string> &argv)
    {
        return std::make_unique<Command>(argv);
    }

    std::set<std::string> jackPorts()
    {
        Command lsp({"/usr/bin/jack_lsp"});
        lsp.wait();
        std::set<std::string> ports;
        std::istringstream lines(lsp.output());
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind(client_ + ":", 0) == 0) {
                ports.insert(line);
            }
        }
        return ports;
    }

    bool connect(const std::string &from, const std::string &to)
    {
        return eventually([&] { return Command({"/usr/bin/jack_connect", from, to}).wait() == 0; }, 5);
    }

    std::map<std::string, std::string> info(const std::string &port)
    {
        std::map<std::string, std::string> fields;
        std::istringstream lines(slurp(portFile(port, AMBREL_INFO_FILE)));
        for (std::string line; std::getline(lines, line);) {
            size_t colon = line.find(": ");
            if (colon != std::string::npos) {
                fields[line.substr(0, colon)] = line.substr(colon + 2);
            }
        }
        return fields;
    }

    size_t count(const std::string &text, const std::string &what)
    {
        size_t n = 0;
        for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
            ++n;
        }
        return n;
    }

    std::string server_;
    std::string client_ = "ambrel"; // the bridge's JACK client
    std::unique_ptr<Child> jackd_;
};

// What jack_midi_dump printed: each event's frame and bytes.
struct Dumped {
    std::uint64_t frame;
    Bytes bytes;
};
std::vector<Dumped> parseDump(const std::string &text)
{
    std::vector<Dumped> events;
    std::istringstream lines(text);
    static const std::regex line(R"(^\s*(\d+):((?: [0-9a-f]{2})+))");
    for (std::string l; std::getline(lines, l);) {
        std::smatch m;
        if (!std::regex_search(l, m, line)) {
            continue;
        }
        Dumped d{std::stoull(m[1]), {}};
        std::istringstream hex(m[2]);
        for (std::string h; hex >> h;) {
            d.bytes.push_back(std::uint8_t(std::stoul(h, nullptr, 16)));
        }
        events.push_back(d);
    }
    return events;
}

// The ports a port has in the graph follow its direction and its owner;
// JACK programs (python3-rtmidi's JACK backend) and the driver's process-id
// registry see them, and info names them.
TEST_F(JackTest, PortsAppearByDirectionAndLeaveWithTheirOwner)
{
    startJack();
    startBridge();
    struct Case {
        const char *name;
        int mode;
        std::set<std::string> ports;
    } cases[] = {
        {"Both", O_RDWR, {"ambrel:Both in", "ambrel:Both out"}},
        {"Reads", O_RDONLY, {"ambrel:Reads in"}},
        {"Writes", O_WRONLY, {"ambrel:Writes out"}},
    };
    for (const Case &c : cases) {
        int owner = openFile(path(c.name), c.mode);
        ASSERT_GE(owner, 0) << c.name;
        EXPECT_TRUE(eventually([&] { return jackPorts() == c.ports; })) << c.name;
        auto fields = info(c.name);
        EXPECT_EQ(fields.count("jack-in"), c.ports.count(std::string("ambrel:") + c.name + " in")) << c.name;
        EXPECT_EQ(fields.count("jack-out"), c.ports.count(std::string("ambrel:") + c.name + " out")) << c.name;
        EXPECT_EQ(fields["jack-in-lost"], "0");
        EXPECT_EQ(fields["jack-out-lost"], "0");
        if (c.mode == O_RDWR) {
            EXPECT_TRUE(listed(owner, daemon_)) << "the bridge's pins are a client's like any other";
            Command rtmidi({"/usr/bin/python3", "-c",
                            "import rtmidi\n"
                            "print('playable:', rtmidi.MidiOut(rtapi=rtmidi.API_UNIX_JACK).get_ports())\n"
                            "print('recordable:', rtmidi.MidiIn(rtapi=rtmidi.API_UNIX_JACK).get_ports())\n"});
            ASSERT_EQ(rtmidi.wait(), 0) << rtmidi.errors();
            std::string listing = rtmidi.output();
            EXPECT_NE(listing.find("playable: ['ambrel:Both in']"), std::string::npos) << listing;
            EXPECT_NE(listing.find("recordable: ['ambrel:Both out']"), std::string::npos) << listing;
        }
        closeFile(owner);
        EXPECT_TRUE(eventually([&] { return jackPorts().empty(); })) << c.name;
    }
}

// The bridge lets go of a closed port's slot before it has taken the port's
// JACK ports out of the graph; a port opened in that moment takes the slot.
// Its info names its own JACK ports or none, never its predecessor's.
TEST_F(JackTest, APortInAReusedSlotIsNeverDescribedWithItsPredecessorsJackPorts)
{
    startJack();
    startBridge();
    const std::string names[] = {"Earlier", "Later"};
    int owner = own(names[0], O_RDWR);
    ASSERT_GE(owner, 0);
    ASSERT_TRUE(eventually([&] { return jackPorts().count("ambrel:Earlier in") == 1; })) << daemonLog();
    const std::string slot = info(names[0])["reference"];
    ASSERT_FALSE(slot.empty());
    for (int round = 1; round <= 6; ++round) {
        const std::string &now = names[round % 2];
        closeFile(owner);
        // Opened again and again until it lands in the freed slot (the
        // bridge's pins hold the slot a moment after the owner's close).
        std::map<std::string, std::string> fields;
        bool inSlot = false;
        for (auto end = Clock::now() + std::chrono::seconds(10); !inSlot && Clock::now() < end;) {
            owner = own(now, O_RDWR);
            ASSERT_GE(owner, 0) << "round " << round;
            fields = info(now);
            inSlot = fields["reference"] == slot;
            if (!inSlot) {
                closeFile(owner);
                std::this_thread::sleep_for(std::chrono::microseconds(500));
            }
        }
        ASSERT_TRUE(inSlot) << "round " << round << "\n" << daemonLog();
        if (fields.count("jack-in") != 0) {
            EXPECT_EQ(fields["jack-in"], "ambrel:" + now + " in") << "round " << round;
        }
        if (fields.count("jack-out") != 0) {
            EXPECT_EQ(fields["jack-out"], "ambrel:" + now + " out") << "round " << round;
        }
        ASSERT_TRUE(eventually([&] {
            return jackPorts() == std::set<std::string>{"ambrel:" + now + " in", "ambrel:" + now + " out"};
        })) << daemonLog();
        EXPECT_EQ(info(now)["jack-in"], "ambrel:" + now + " in") << "round " << round;
    }
    closeFile(owner);
}

// jack_midiseq loops C4 (frames 0-8000) and D#4 (12000-20000) every 24000
// frames into "NAME in": the owner reads exactly those note ons and offs,
// in order, as far apart as they were played.
TEST_F(JackTest, ASequencePlayedIntoThePortReachesTheOwnerInOrderAndInTime)
{
    int owner = ownBridged("Seq", O_RDONLY, " in");
    ASSERT_GE(owner, 0);
    auto seq = run({"/usr/bin/jack_midiseq", "seq", "24000", "0", "60", "8000", "12000", "63", "8000"});
    ASSERT_TRUE(connect("seq:out", "ambrel:Seq in"));
    const std::vector<Bytes> loop = {{0x90, 60, 64}, {0x80, 60, 64}, {0x90, 63, 64}, {0x80, 63, 64}};
    std::vector<Bytes> got;
    std::vector<Clock::time_point> when;
    Bytes pending;
    auto end = Clock::now() + 10s;
    while (got.size() < 16 && Clock::now() < end) {
        Bytes b = readBytes(owner, 1, 0.2);
        for (std::uint8_t c : b) {
            pending.push_back(c);
            if (pending.size() == 3) {
                got.push_back(pending);
                when.push_back(Clock::now());
                pending.clear();
            }
        }
    }
    ASSERT_GE(got.size(), 16u);
    EXPECT_TRUE(pending.empty()) << join(pending);
    size_t phase = size_t(std::find(loop.begin(), loop.end(), got[0]) - loop.begin());
    ASSERT_LT(phase, loop.size()) << join(got[0]);
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i], loop[(phase + i) % loop.size()]) << "message " << i << ": " << join(got[i]);
    }
    // Gaps between the messages: 8000, 4000, 8000, 4000 frames (167 and 83
    // ms); the median of each kind sits near its value.
    std::vector<double> longGaps, shortGaps;
    for (size_t i = 1; i < got.size(); ++i) {
        double ms = std::chrono::duration<double, std::milli>(when[i] - when[i - 1]).count();
        ((phase + i) % 2 == 1 ? longGaps : shortGaps).push_back(ms);
    }
    auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    };
    EXPECT_NEAR(median(longGaps), 8000.0 * 1000 / kRate, 30);
    EXPECT_NEAR(median(shortGaps), 4000.0 * 1000 / kRate, 30);
}

// The owner writes notes, a SysEx and real-time bytes: jack_midi_dump on
// "NAME out" prints exactly those, each at the frame it was written at
// (not every one at the start of a period).
TEST_F(JackTest, WhatTheOwnerWritesReachesMidiDumpWholeAndAtItsFrames)
{
    int owner = ownBridged("Dump", O_WRONLY, " out");
    ASSERT_GE(owner, 0);
    const std::string dumpLog = mount_ + ".dump";
    auto dump = run({"/bin/sh", "-c", "exec /usr/bin/stdbuf -oL /usr/bin/jack_midi_dump -a dumper >" + dumpLog});
    ASSERT_TRUE(connect("ambrel:Dump out", "dumper:input"));
    Bytes sysex{0xF0, 0x7D};
    for (int i = 0; i < 300; ++i) {
        sysex.push_back(std::uint8_t(i & 0x7F));
    }
    sysex.push_back(0xF7);
    const std::vector<Bytes> sent = {{0x90, 60, 100}, {0xF8}, {0xB0, 7, 90}, sysex, {0xFA}, {0x80, 60, 0},
                                     {0xE0, 0x00, 0x40}, {0xFC}};
    std::vector<Clock::time_point> at;
    for (const Bytes &m : sent) {
        at.push_back(Clock::now());
        ASSERT_EQ(write(owner, m.data(), m.size()), ssize_t(m.size()));
        std::this_thread::sleep_for(7ms);
    }
    std::vector<Dumped> events;
    eventually([&] {
        events = parseDump(slurp(dumpLog));
        return events.size() >= sent.size();
    });
    ASSERT_EQ(events.size(), sent.size()) << slurp(dumpLog) << "\njackd:\n" << slurp(mount_ + ".jackd") << "\nambreld:\n"
                                          << daemonLog();
    for (size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(events[i].bytes, sent[i]) << "event " << i;
    }
    // Frames apart as the writes were apart, give or take 4 ms of FUSE and
    // scheduling between a write and the driver's time stamp.
    for (size_t i = 1; i < sent.size(); ++i) {
        double expected = std::chrono::duration<double>(at[i] - at[i - 1]).count() * kRate;
        double got = double(events[i].frame) - double(events[i - 1].frame);
        EXPECT_NEAR(got, expected, 0.004 * kRate) << "between events " << i - 1 << " and " << i;
    }
    unlink(dumpLog.c_str());
}

// FluidSynth (JACK MIDI in, WAV out) connected to "NAME out": the owner
// plays three short notes with long rests; the recording sounds where the
// notes are and is silent in the rests.
TEST_F(JackTest, FluidSynthPlaysTheOwnersMelodyAndRestsInItsRests)
{
    const std::string font = "/usr/share/sounds/sf2/TimGM6mb.sf2";
    if (!exists("/usr/bin/fluidsynth") || !exists(font) || !exists("/usr/bin/sox")) {
        GTEST_SKIP() << "needs fluidsynth, timgm6mb-soundfont and sox (scripts/setup.sh)";
    }
    startJack();
    startBridge();
    int owner = own("Melody", O_WRONLY);
    ASSERT_GE(owner, 0);
    const std::string raw = mount_ + ".raw";
    // Without a shell it runs while its server does: on a port of its own,
    // apart from other runs'. Raw samples, so a killed FluidSynth leaves a
    // readable recording.
    auto synth = run({"/usr/bin/fluidsynth", "-i", "-s", "-o", "shell.port=" + std::to_string(20000 + getpid() % 20000),
                      "-g", "1", "-a", "file", "-o", "audio.file.name=" + raw, "-o", "audio.file.type=raw", "-o",
                      "synth.sample-rate=48000", "-m", "jack", "-o", "midi.jack.server=" + server_, "-o",
                      "midi.jack.id=synth", font});
    std::string synthPort;
    ASSERT_TRUE(eventually([&] {
        Command lsp({"/usr/bin/jack_lsp"});
        lsp.wait();
        std::istringstream lines(lsp.output());
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("synth:", 0) == 0) {
                synthPort = line;
                return true;
            }
        }
        return false;
    }, 10)) << "FluidSynth did not join JACK";
    ASSERT_TRUE(connect("ambrel:Melody out", synthPort));
    // A short wait for the connection, then: notes of 400 ms at 0, 2 and 4 s.
    std::this_thread::sleep_for(300ms);
    const std::uint8_t on[][3] = {{0x90, 60, 120}, {0x90, 64, 120}, {0x90, 67, 120}};
    for (const auto &note : on) {
        ASSERT_EQ(write(owner, note, 3), 3);
        std::this_thread::sleep_for(400ms);
        const std::uint8_t off[3] = {0x80, note[1], 0};
        ASSERT_EQ(write(owner, off, 3), 3);
        std::this_thread::sleep_for(1600ms);
    }
    ::kill(synth->pid(), SIGTERM);
    synth->wait();
    // Loudness per 100 ms window of the recording (sox's RMS amplitude).
    const std::vector<std::string> rawFormat = {"-t", "raw", "-r", "48000", "-e", "signed", "-b", "16", "-c", "2"};
    auto rms = [&](double start) {
        std::vector<std::string> argv{"/usr/bin/sox"};
        argv.insert(argv.end(), rawFormat.begin(), rawFormat.end());
        argv.insert(argv.end(), {raw, "-n", "trim", std::to_string(start), "0.1", "stat"});
        Command stat(argv);
        stat.wait();
        std::smatch m;
        std::string text = stat.errors();
        static const std::regex rmsLine(R"(RMS\s+amplitude:\s+([0-9.eE+-]+))");
        return std::regex_search(text, m, rmsLine) ? std::stod(m[1]) : -1.0;
    };
    struct stat st;
    ASSERT_EQ(stat(raw.c_str(), &st), 0) << "FluidSynth recorded nothing";
    double seconds = double(st.st_size) / (48000 * 4);
    ASSERT_GT(seconds, 5.0) << "the recording is too short";
    // The first note starts at the first sample well above silence; the
    // other notes and the rests are measured from there.
    double first = -1;
    {
        std::ifstream in(raw, std::ios::binary);
        std::int16_t sample[2];
        for (long frame = 0; first < 0 && in.read(reinterpret_cast<char *>(sample), sizeof sample); ++frame) {
            if (std::abs(sample[0]) > 64 || std::abs(sample[1]) > 64) {
                first = double(frame) / 48000;
            }
        }
    }
    ASSERT_GE(first, 0) << "the recording is silent";
    ASSERT_LT(first, seconds - 5.5) << "the recording ends before the last note";
    for (double note : {0.0, 2.0, 4.0}) {
        EXPECT_GT(rms(first + note + 0.05), 0.003) << "no sound for the note at " << note << " s";
        EXPECT_LT(rms(first + note + 1.4), 0.0003) << "sound in the rest after the note at " << note << " s";
    }
    unlink(raw.c_str());
}

// Bad cases: the server killed mid-stream (ambreld follows it and rejoins
// a new one), ambreld started before any server (said once, then joined),
// a port closed while JACK programs are connected to it.
TEST_F(JackTest, ServersThatComeGoAndReturnAreFollowed)
{
    startBridge();
    int owner = own("Live", O_RDWR);
    ASSERT_GE(owner, 0);
    // The bridge hears of the port a moment after the open.
    EXPECT_TRUE(eventually([&] { return info("Live")["jack"] == "waiting for a JACK server"; })) << daemonLog();
    std::this_thread::sleep_for(1500ms); // more than one attempt to join
    EXPECT_EQ(count(daemonLog(), "no server is running"), 1u) << daemonLog();
    startJack();
    ASSERT_TRUE(eventually([&] { return jackPorts().size() == 2; }, 10)) << daemonLog();

    // Mid-stream: a sequence plays into the port and the owner writes.
    auto seq = run({"/usr/bin/jack_midiseq", "seq", "4800", "0", "60", "2400"});
    ASSERT_TRUE(connect("seq:out", "ambrel:Live in"));
    EXPECT_FALSE(readBytes(owner, 3).empty());
    stopJack(SIGKILL);
    seq.reset();
    const std::uint8_t note[3] = {0x90, 61, 1};
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(write(owner, note, 3), 3);
    }
    EXPECT_TRUE(eventually([&] { return daemonLog().find("the server went away") != std::string::npos; }, 10))
        << daemonLog();
    EXPECT_TRUE(eventually([&] { return info("Live")["jack"] == "waiting for a JACK server"; }));
    startJack();
    ASSERT_TRUE(eventually([&] { return jackPorts().size() == 2; }, 10)) << daemonLog();

    // A port whose owner closes while programs are connected to both sides.
    seq = run({"/usr/bin/jack_midiseq", "seq", "4800", "0", "60", "2400"});
    auto dump = run({"/usr/bin/jack_midi_dump", "dumper"});
    ASSERT_TRUE(connect("seq:out", "ambrel:Live in"));
    ASSERT_TRUE(connect("ambrel:Live out", "dumper:input"));
    EXPECT_FALSE(readBytes(owner, 3).empty());
    closeFile(owner);
    EXPECT_TRUE(eventually([&] { return jackPorts().empty(); })) << daemonLog();
    EXPECT_EQ(Command({"/usr/bin/jack_lsp", "seq:out"}).wait(), 0) << "the sequencer outlives the port";
    // The daemon serves on: a new port joins the graph.
    ASSERT_GE(own("Again", O_RDWR), 0);
    EXPECT_TRUE(eventually([&] { return jackPorts().size() == 2; })) << daemonLog();
}

// A JACK client of the test's own (the only one in this process: libjack
// reads the table of servers of the first /dev/shm it meets, and each
// jackd here gets a fresh one): while `playing`, it fills every period
// with numbered SysEx messages of kFloodSize bytes, as many as JACK's MIDI
// buffer takes, and counts them.
class Flood {
public:
    static constexpr std::size_t kFloodSize = 1000;

    explicit Flood(const char *name)
    {
        client_ = jack_client_open(name, JackNoStartServer, nullptr);
        if (client_ != nullptr) {
            port_ = jack_port_register(client_, "out", JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0);
            jack_set_process_callback(client_, &Flood::thunk, this);
            active_ = port_ != nullptr && jack_activate(client_) == 0;
        }
    }
    ~Flood()
    {
        if (client_ != nullptr) {
            jack_client_close(client_);
        }
    }
    bool active() const { return active_; }
    bool connected() { return jack_port_connected(port_) > 0; }

    std::atomic<bool> playing{false};
    std::atomic<std::uint32_t> sent{0};

    // The number a message carries (four 7-bit digits after F0 7D), or -1
    // when it is not one of ours, whole.
    static long numberOf(const Bytes &m)
    {
        if (m.size() != kFloodSize || m[0] != 0xF0 || m[1] != 0x7D || m.back() != 0xF7) {
            return -1;
        }
        for (std::size_t i = 6; i + 1 < m.size(); ++i) {
            if (m[i] != std::uint8_t(i & 0x7F)) {
                return -1;
            }
        }
        return long(m[2]) | long(m[3]) << 7 | long(m[4]) << 14 | long(m[5]) << 21;
    }

private:
    static int thunk(jack_nframes_t frames, void *self)
    {
        static_cast<Flood *>(self)->process(frames);
        return 0;
    }
    void process(jack_nframes_t frames)
    {
        void *buffer = jack_port_get_buffer(port_, frames);
        jack_midi_clear_buffer(buffer);
        while (playing && jack_midi_max_event_size(buffer) >= kFloodSize) {
            jack_midi_data_t *m = jack_midi_event_reserve(buffer, 0, kFloodSize);
            std::uint32_t n = sent;
            m[0] = 0xF0;
            m[1] = 0x7D;
            for (int digit = 0; digit < 4; ++digit) {
                m[2 + digit] = std::uint8_t(n >> (7 * digit) & 0x7F);
            }
            for (std::size_t i = 6; i + 1 < kFloodSize; ++i) {
                m[i] = std::uint8_t(i & 0x7F);
            }
            m[kFloodSize - 1] = 0xF7;
            sent = n + 1;
        }
    }

    jack_client_t *client_ = nullptr;
    jack_port_t *port_ = nullptr;
    bool active_ = false;
};

// An owner that stops reading while JACK plays into its port faster than
// anyone could: the bridge's buffers fill, and what did not fit is counted
// in info and logged; what the owner then reads is whole messages in the
// order played, and with the count makes up everything played.
TEST_F(JackTest, AFullRingIsCountedAndReportedAndLosesNoMessageUncounted)
{
    int owner = ownBridged("Flood", O_RDONLY, " in");
    ASSERT_GE(owner, 0);
    Flood flood("flood");
    ASSERT_TRUE(flood.active());
    ASSERT_TRUE(connect("flood:out", "ambrel:Flood in"));
    ASSERT_TRUE(eventually([&] { return flood.connected(); }));
    flood.playing = true;
    std::uint64_t lost = 0;
    EXPECT_TRUE(eventually([&] {
        lost = std::stoull(info("Flood")["jack-in-lost"]);
        return lost > 0;
    }, 20)) << flood.sent << " messages played, none counted lost";
    flood.playing = false;
    std::this_thread::sleep_for(200ms); // a few periods: the last ones reach the ring
    lost = std::stoull(info("Flood")["jack-in-lost"]);

    std::vector<long> numbers;
    Bytes stream;
    auto end = Clock::now() + 20s;
    while (numbers.size() + lost < flood.sent && Clock::now() < end) {
        Bytes b = readBytes(owner, 1, 0.5);
        stream.insert(stream.end(), b.begin(), b.end());
        std::size_t whole = stream.size() - stream.size() % Flood::kFloodSize;
        for (std::size_t at = 0; at < whole; at += Flood::kFloodSize) {
            numbers.push_back(Flood::numberOf(Bytes(stream.begin() + long(at), stream.begin() + long(at + Flood::kFloodSize))));
        }
        stream.erase(stream.begin(), stream.begin() + long(whole));
    }
    EXPECT_TRUE(stream.empty()) << stream.size() << " bytes of a message cut short";
    EXPECT_EQ(numbers.size() + lost, flood.sent) << numbers.size() << " read, " << lost << " counted lost";
    EXPECT_TRUE(readBytes(owner, 1, 0.3).empty()) << "more than was played";
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        ASSERT_GE(numbers[i], 0) << "message " << i << " is not whole";
        ASSERT_TRUE(i == 0 || numbers[i] > numbers[i - 1]) << "message " << i << " out of order";
    }
    EXPECT_TRUE(eventually([&] {
        return daemonLog().find("port \"Flood\": " + std::to_string(lost) + " events played into it lost so far (" +
                                std::to_string(lost) + " while its owner read too slowly") != std::string::npos;
    })) << daemonLog();
    EXPECT_EQ(info("Flood")["jack-in-lost"], std::to_string(lost)) << "counted once";
}

// 128 ports at once, and names JACK refuses: ':' (its separator) and a
// name longer than a JACK port name takes, mapped as the daemon's unit
// test says, shown by info and `ambrel list`, whole in JACK's metadata.
TEST_F(JackTest, ManyPortsAndNamesJackRefuses)
{
    startJack();
    // The bridge asked for by the config file, under a client name of its
    // own (as long as "ambrel", so the cuts below hold for both).
    const std::string conf = mount_ + ".conf";
    std::ofstream(conf) << "jack = true\njack-client = studio\n";
    client_ = "studio";
    startDaemon({"--config", conf});
    std::vector<int> owners;
    for (int i = 0; i < 128; ++i) {
        int fd = openFile(path("p" + std::to_string(i)), O_RDWR);
        ASSERT_GE(fd, 0) << i;
        owners.push_back(fd);
    }
    // Two seconds on a quiet machine; under the sanitizers beside other
    // tests each pin and JACK port costs ten times as much.
    EXPECT_TRUE(eventually([&] { return jackPorts().size() == 256; }, 90)) << jackPorts().size();
    for (int fd : owners) {
        closeFile(fd);
    }
    EXPECT_TRUE(eventually([&] { return jackPorts().empty(); }, 90)) << jackPorts().size();

    // Two names alike in the 245 bytes that fit beside "studio:" and " in"
    // within JACK's 255, and a control character.
    const std::string longA = std::string(250, 'x') + "A", longB = std::string(250, 'x') + "B";
    const std::string cut(255 - 7 - 3, 'x'), cutMarked(255 - 7 - 3 - 2, 'x');
    ASSERT_GE(own(longA, O_RDONLY), 0);
    ASSERT_GE(own(longB, O_RDONLY), 0);
    ASSERT_GE(own("Tab\there", O_WRONLY), 0);
    const std::set<std::string> expected = {"studio:" + cut + " in", "studio:" + cutMarked + "~2 in",
                                            "studio:Tab_here out"};
    EXPECT_TRUE(eventually([&] { return jackPorts() == expected; })) << daemonLog();
    std::string a = info(longA)["jack-in"], b = info(longB)["jack-in"];
    EXPECT_TRUE((a == "studio:" + cut + " in" && b == "studio:" + cutMarked + "~2 in") ||
                (b == "studio:" + cut + " in" && a == "studio:" + cutMarked + "~2 in"))
        << a << "\n" << b;
    EXPECT_EQ(info("Tab\there")["jack-out"], "studio:Tab_here out");
    Command list(cli({"list", "--json"}));
    ASSERT_EQ(list.wait(), 0) << list.errors();
    std::string json = list.output();
    EXPECT_NE(json.find("\"jack_in\": null, \"jack_out\": \"studio:Tab_here out\""), std::string::npos) << json;
    EXPECT_NE(json.find("\"jack_in\": \"" + a + "\", \"jack_out\": null"), std::string::npos) << json;
    Command table(cli({"list"}));
    ASSERT_EQ(table.wait(), 0) << table.errors();
    std::string text = table.output();
    EXPECT_NE(text.find(" JACK\n"), std::string::npos) << text;
    EXPECT_NE(text.find(" studio:Tab_here out\n"), std::string::npos) << text;
    // JACK metadata carries the whole name as the pretty name.
    Command pretty({"/usr/bin/jack_property", "--port", "-l", a, "http://jackaudio.org/metadata/pretty-name"});
    ASSERT_EQ(pretty.wait(), 0) << pretty.errors();
    EXPECT_EQ(pretty.output(), (a == "studio:" + cut + " in" ? longA : longB) + " in\n");
    unlink(conf.c_str());
}

} // namespace
} // namespace fetest
