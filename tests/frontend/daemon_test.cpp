// ambreld from the outside: ports created by opening files, played to and
// recorded from by other processes, and the daemon surviving what those
// processes do.
#include "daemon_fixture.h"

#include <pthread.h>
#include <sys/statfs.h>

#include <atomic>

#include "ambrel/ambrel.hpp"

namespace fetest {
namespace {

using namespace std::chrono_literals;

const Bytes kNoteOn{0x90, 0x3C, 0x64};

TEST_F(DaemonTest, OwnerAndClientsRoundTripThroughLibraryAndCommand)
{
    ambrel::Options options;
    options.root = mount_;
    options.sysexSize = 65536;
    options.manufacturer = ambrel::parseGuid("{0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D}");
    ambrel::Port port("Piano", options);

    // A recorder first; the owner knows it is there once its pid is listed.
    Command monitor(cli({"monitor", "Piano", "--count", "2", "--raw"}));
    ASSERT_TRUE(eventually([&] { return !port.processIds().empty(); }));
    EXPECT_EQ(port.processIds(), std::vector<std::uint64_t>{std::uint64_t(monitor.pid())});

    // Nothing played yet: a read with a timeout comes back empty.
    std::uint8_t buf[64];
    EXPECT_EQ(port.read(buf, sizeof buf, 50ms), 0u);

    Command send(cli({"send", "Piano", "90 3C 64"}));
    ASSERT_EQ(send.wait(), 0);
    size_t n = port.read(buf, sizeof buf, 5000ms);
    EXPECT_EQ(Bytes(buf, buf + n), kNoteOn);

    port.write(Bytes{0x80, 0x3C, 0x00});
    port.write(Bytes{0xF0, 0x7D, 0x01, 0xF7});
    ASSERT_EQ(monitor.wait(), 0);
    std::string printed = monitor.output();
    EXPECT_NE(printed.find("80 3C 00\n"), std::string::npos) << printed;
    EXPECT_NE(printed.find("F0 7D 01 F7\n"), std::string::npos) << printed;

    std::string info = slurp(portFile("Piano", AMBREL_INFO_FILE));
    for (std::string line : {"name: Piano\n", "direction: render capture\n", "caps node 0: Ambrel Out: Piano\n",
                             "caps node 1: Ambrel In: Piano\n", "manufacturer: {0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D}\n",
                             "pin 0: in sink, 0/8 open, MIDI, name \"Piano\"\n"}) {
        EXPECT_NE(info.find(line), std::string::npos) << line << " in\n" << info;
    }
    EXPECT_NE(info.find("owner: " + std::to_string(getpid()) + "\n"), std::string::npos) << info;

    // A pin opened by another thread of a process counts for the process.
    int threadFd = -1;
    std::thread([&] { threadFd = openFile(portFile("Piano", AMBREL_OUT_FILE), O_WRONLY); }).join();
    ASSERT_GE(threadFd, 0);
    EXPECT_TRUE(eventually([&] {
        auto ids = port.processIds();
        return std::find(ids.begin(), ids.end(), std::uint64_t(getpid())) != ids.end();
    }));
    closeFile(threadFd);

    Command list(cli({"list"}));
    ASSERT_EQ(list.wait(), 0);
    EXPECT_NE(list.output().find("Piano"), std::string::npos);

    port.close();
    EXPECT_TRUE(eventually([&] { return !exists(portFile("Piano", "")); }));
}

TEST_F(DaemonTest, PlayingAFileSendsItsEventsInOrderNeverEarly)
{
    // Format 0, 96 ticks per quarter at 120 bpm: notes 0.25 s apart.
    Bytes track;
    for (std::uint8_t note : {60, 64, 67}) {
        Bytes event{note == 60 ? std::uint8_t(0) : std::uint8_t(48), 0x90, note, 100};
        track.insert(track.end(), event.begin(), event.end());
    }
    track.insert(track.end(), {0x00, 0xFF, 0x2F, 0x00});
    Bytes file{'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 0, 0, 1, 0, 96, 'M', 'T', 'r', 'k', 0, 0, 0, std::uint8_t(track.size())};
    file.insert(file.end(), track.begin(), track.end());
    std::string song = mount_ + ".mid";
    std::ofstream(song, std::ios::binary).write(reinterpret_cast<const char *>(file.data()), long(file.size()));

    int owner = openFile(path("Player"), O_RDONLY);
    ASSERT_GE(owner, 0);
    // Times are taken against the launch: a reader that gets the first note
    // late on a busy machine would make the gaps between arrivals look short.
    const Clock::time_point launch = Clock::now();
    Command play(cli({"play", "Player", song, "--no-progress"}));
    std::vector<std::pair<Clock::time_point, std::uint8_t>> notes;
    while (notes.size() < 3) {
        Bytes b = readBytes(owner, 3);
        ASSERT_EQ(b.size(), 3u);
        notes.emplace_back(Clock::now(), b[1]);
    }
    EXPECT_EQ(play.wait(), 0);
    EXPECT_EQ(notes[0].second, 60);
    EXPECT_EQ(notes[1].second, 64);
    EXPECT_EQ(notes[2].second, 67);
    // Late is possible on a busy machine; early never.
    EXPECT_GE(notes[1].first - launch, std::chrono::milliseconds(250));
    EXPECT_GE(notes[2].first - launch, std::chrono::milliseconds(500));
    unlink(song.c_str());
}

TEST_F(DaemonTest, OpensThatFailGetTheirErrnoAndChangeNothing)
{
    int first = openFile(path("Piano"), O_RDWR);
    ASSERT_GE(first, 0);
    struct Case {
        std::string path;
        int flags;
        int error;
    } cases[] = {
        {path("Piano"), O_RDWR, EEXIST},              // the name is taken
        {path("Piano\\8192"), O_RDONLY, EEXIST}, // same name with a size
        {path("::"), O_RDWR, EINVAL},              // nothing left after the name filter
        {path("\\Piano"), O_RDWR, EINVAL},       // doubled separator: empty name
        {path(std::string(255, 'a')), O_RDWR, EINVAL}, // 255 characters: one too many
        {path(std::string(600, 'a')), O_RDWR, EINVAL}, // longer than a file name the driver reads
        {portFile("Nope", AMBREL_OUT_FILE), O_WRONLY, ENOENT},
        {portFile("Piano", AMBREL_OUT_FILE), O_RDONLY, EACCES}, // out is for playing
        {portFile("Piano", AMBREL_IN_FILE), O_WRONLY, EACCES},  // in is for recording
        {portFile("Piano", AMBREL_INFO_FILE), O_RDWR, EACCES},
        {portFile("Piano", "other"), O_RDONLY, ENOENT},
        {path(AMBREL_PORTS_DIR), O_WRONLY, EISDIR},
    };
    for (const Case &c : cases) {
        int fd = openFile(c.path, c.flags);
        EXPECT_EQ(fd, -c.error) << c.path;
    }
    int longest = openFile(path(std::string(254, 'a')), O_RDWR);
    EXPECT_GE(longest, 0);
    // Every name below the root is a control file, so nothing can be made
    // there; nothing can be made or removed among the ports either.
    EXPECT_EQ(mkdir(path("dir").c_str(), 0755), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(mkdir(portFile("New", "").c_str(), 0755), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(unlink(path("Piano").c_str()), -1);
    EXPECT_EQ(errno, EPERM);

    // Bad ioctls: an unknown code reaches the driver and is refused; files
    // other than a port's own take none.
    int value = 0;
    EXPECT_EQ(ioctl(first, _IOR('x', 7, int), &value), -1);
    EXPECT_EQ(errno, ENOTTY);
    int info = openFile(portFile("Piano", AMBREL_INFO_FILE), O_RDONLY);
    ASSERT_GE(info, 0);
    struct ambrel_process_ids ids = {};
    EXPECT_EQ(ioctl(info, AMBREL_IOC_PROCESS_IDS, &ids), -1);
    EXPECT_EQ(errno, ENOTTY);

    // Nothing of the failures stuck: the first port works, the name is free
    // once it closes, and a port may be called "ports" (with its separator).
    Command send(cli({"send", "Piano", "90 3C 64"}));
    ASSERT_EQ(send.wait(), 0);
    EXPECT_EQ(readBytes(first, 3), kNoteOn);
    closeFile(first);
    EXPECT_TRUE(eventually([&] { return openFile(path("Piano"), O_RDWR) >= 0; }));
    EXPECT_GE(openFile(path("ports\\"), O_RDWR), 0);
    EXPECT_TRUE(exists(portFile("ports", AMBREL_INFO_FILE)));
}

TEST_F(DaemonTest, AccessModeChoosesTheDirection)
{
    struct Case {
        const char *name;
        int flags;
        bool out, in;
        const char *direction;
    } cases[] = {
        {"ReadOnly", O_RDONLY, true, false, "render"},
        {"WriteOnly", O_WRONLY, false, true, "capture"},
        {"Both", O_RDWR, true, true, "render capture"},
    };
    for (const Case &c : cases) {
        int fd = openFile(path(c.name), c.flags);
        ASSERT_GE(fd, 0) << c.name;
        EXPECT_EQ(exists(portFile(c.name, AMBREL_OUT_FILE)), c.out) << c.name;
        EXPECT_EQ(exists(portFile(c.name, AMBREL_IN_FILE)), c.in) << c.name;
        EXPECT_NE(slurp(portFile(c.name, AMBREL_INFO_FILE)).find(std::string("direction: ") + c.direction + "\n"),
                  std::string::npos)
            << c.name;
    }
    // The command says which side is missing instead of failing obscurely.
    Command send(cli({"send", "WriteOnly", "90 3C 64"}));
    EXPECT_EQ(send.wait(), 1);
}

TEST_F(DaemonTest, SysexUpToThePortSizeArrivesWholeBothWays)
{
    int owner = openFile(path("Big\\8192"), O_RDWR);
    ASSERT_GE(owner, 0);
    Bytes sysex(8192, 0x11);
    sysex.front() = 0xF0;
    sysex.back() = 0xF7;
    int out = openFile(portFile("Big", AMBREL_OUT_FILE), O_WRONLY);
    ASSERT_GE(out, 0);
    ASSERT_EQ(write(out, sysex.data(), sysex.size()), ssize_t(sysex.size()));
    EXPECT_EQ(readBytes(owner, sysex.size()), sysex);

    // Recording: one read holds the whole message; a buffer too small for it
    // is refused and the message stays.
    int in = openFile(portFile("Big", AMBREL_IN_FILE), O_RDONLY);
    ASSERT_GE(in, 0);
    ASSERT_TRUE(eventually([&] { return !processIds(owner).empty(); }));
    ASSERT_EQ(write(owner, sysex.data(), sysex.size()), ssize_t(sysex.size()));
    Bytes small(100);
    struct pollfd p = {in, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 5000), 1);
    EXPECT_EQ(read(in, small.data(), small.size()), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    Bytes whole(65536);
    ssize_t n = read(in, whole.data(), whole.size());
    whole.resize(size_t(std::max<ssize_t>(n, 0)));
    EXPECT_EQ(whole, sysex);

    // Writes: up to 524288 bytes in one piece, one more is refused.
    Bytes big(524289, 0xF8);
    EXPECT_EQ(write(owner, big.data(), 524288), 524288);
    EXPECT_EQ(write(owner, big.data(), big.size()), -1);
    EXPECT_EQ(errno, EMSGSIZE);
}

TEST_F(DaemonTest, PinKindsStopAtSixteenRenderAndEightCapture)
{
    ASSERT_GE(openFile(path("Pins"), O_RDWR), 0);
    struct Case {
        const char *file;
        int flags;
        int limit;
    } cases[] = {{AMBREL_OUT_FILE, O_WRONLY, 16}, {AMBREL_IN_FILE, O_RDONLY, 8}};
    for (const Case &c : cases) {
        std::vector<int> open;
        for (int i = 0; i < c.limit; ++i) {
            int fd = openFile(portFile("Pins", c.file), c.flags);
            ASSERT_GE(fd, 0) << c.file << " #" << i;
            open.push_back(fd);
        }
        EXPECT_EQ(openFile(portFile("Pins", c.file), c.flags), -EBUSY) << c.file;
        // The kernel releases a closed file a moment after close() returns.
        closeFile(open.back());
        EXPECT_TRUE(eventually([&] { return openFile(portFile("Pins", c.file), c.flags) >= 0; })) << c.file;
        // Every pin still carries MIDI (the render ones beyond 8 are
        // DirectMusic pins).
        if (c.flags == O_WRONLY) {
            for (int fd : open) {
                if (fd != open.back()) {
                    EXPECT_EQ(write(fd, kNoteOn.data(), 3), 3);
                }
            }
        }
    }
}

TEST_F(DaemonTest, ADeadOwnerOrClientLetsGoOfItsPortAndPins)
{
    std::string doomed = path("Doomed");
    std::unique_ptr<Child> owner;
    ASSERT_TRUE(ownInAnotherProcess(doomed, &owner));
    ASSERT_TRUE(exists(portFile("Doomed", AMBREL_INFO_FILE)));
    owner->kill();
    // The directory goes when the port is unpublished, the name a moment
    // later when its record is freed.
    EXPECT_TRUE(eventually([&] { return !exists(portFile("Doomed", "")); }));
    EXPECT_TRUE(eventually([&] { return openFile(doomed, O_RDWR) >= 0; }));

    // A client killed while its pin is open leaves the process-id list.
    int watched = openFile(path("Watched"), O_RDWR);
    ASSERT_GE(watched, 0);
    std::string out = portFile("Watched", AMBREL_OUT_FILE);
    Child client([&] {
        int fd = ::open(out.c_str(), O_WRONLY);
        for (;;) {
            pause();
        }
        return fd;
    });
    ASSERT_TRUE(eventually([&] { return listed(watched, client.pid()); }));
    client.kill();
    EXPECT_TRUE(eventually([&] { return processIds(watched).empty(); }));
}

TEST_F(DaemonTest, AReaderKilledMidStreamDiesAtOnce)
{
    // Its last read is interrupted in the daemon whatever step it was in;
    // a read the daemon never answered would keep the dying process in
    // the kernel for good.
    for (int round = 0; round < 10; ++round) {
        std::string name = "Stream" + std::to_string(round);
        std::string own = path(name);
        Child owner([&] {
            int fd = ::open(own.c_str(), O_RDONLY);
            std::uint8_t b[4096];
            while (fd >= 0 && ::read(fd, b, sizeof b) > 0) {
            }
            return 1;
        });
        ASSERT_TRUE(eventually([&] { return exists(portFile(name, AMBREL_OUT_FILE)); }));
        int out = openFile(portFile(name, AMBREL_OUT_FILE), O_WRONLY);
        ASSERT_GE(out, 0);
        auto until = Clock::now() + std::chrono::milliseconds(20 + 10 * round);
        while (Clock::now() < until) {
            ASSERT_EQ(write(out, kNoteOn.data(), 3), 3);
        }
        ::kill(owner.pid(), SIGKILL);
        EXPECT_EQ(owner.wait(10), 128 + SIGKILL) << "round " << round;
        closeFile(out);
    }
}

void noop(int) {}

TEST_F(DaemonTest, ASignalCancelsAWaitingReadAndLosesNothing)
{
    int owner = openFile(path("Intr"), O_RDWR);
    ASSERT_GE(owner, 0);
    struct sigaction sa = {};
    sa.sa_handler = noop; // no SA_RESTART: the read must come back
    sigaction(SIGUSR1, &sa, nullptr);
    pthread_t self = pthread_self();
    std::thread poke([&] {
        std::this_thread::sleep_for(300ms);
        pthread_kill(self, SIGUSR1);
    });
    std::uint8_t buf[16];
    errno = 0;
    EXPECT_EQ(read(owner, buf, sizeof buf), -1);
    EXPECT_EQ(errno, EINTR);
    poke.join();
    signal(SIGUSR1, SIG_DFL);

    // The cancelled read left no waiting read behind: the next one parks,
    // and a second one at the same time is refused as busy.
    std::atomic<ssize_t> got{-2};
    std::thread reader([&] { got = read(owner, buf, sizeof buf); });
    std::this_thread::sleep_for(200ms);
    std::uint8_t other[4];
    EXPECT_EQ(read(owner, other, sizeof other), -1);
    EXPECT_EQ(errno, EBUSY);
    Command send(cli({"send", "Intr", "90 3C 64"}));
    EXPECT_EQ(send.wait(), 0);
    reader.join();
    ASSERT_EQ(got.load(), 3);
    EXPECT_EQ(Bytes(buf, buf + 3), kNoteOn);
}

TEST_F(DaemonTest, PollAndNonBlockingReadsOnPortsAndRecorders)
{
    int owner = openFile(path("Polled"), O_RDWR | O_NONBLOCK);
    ASSERT_GE(owner, 0);
    std::uint8_t buf[16];
    EXPECT_EQ(read(owner, buf, sizeof buf), -1);
    EXPECT_EQ(errno, EAGAIN);
    struct pollfd p = {owner, POLLIN | POLLOUT, 0};
    ASSERT_EQ(poll(&p, 1, 100), 1);
    EXPECT_EQ(p.revents, POLLOUT); // writable, nothing to read
    p.events = POLLIN;
    EXPECT_EQ(poll(&p, 1, 100), 0);

    Command send(cli({"send", "Polled", "90 3C 64"}));
    ASSERT_EQ(send.wait(), 0);
    ASSERT_EQ(poll(&p, 1, 5000), 1);
    EXPECT_EQ(p.revents & POLLIN, POLLIN);
    ASSERT_EQ(read(owner, buf, sizeof buf), 3);
    EXPECT_EQ(Bytes(buf, buf + 3), kNoteOn);

    int in = openFile(portFile("Polled", AMBREL_IN_FILE), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(in, 0);
    struct pollfd q = {in, POLLIN, 0};
    EXPECT_EQ(poll(&q, 1, 100), 0);
    ASSERT_EQ(write(owner, kNoteOn.data(), 3), 3);
    ASSERT_EQ(poll(&q, 1, 5000), 1);
    ASSERT_EQ(read(in, buf, sizeof buf), 3);
    EXPECT_EQ(Bytes(buf, buf + 3), kNoteOn);
    EXPECT_EQ(read(in, buf, sizeof buf), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(DaemonTest, FiftyProcessesPlayToEachOtherAtOnce)
{
    constexpr int kCount = 50;
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    std::vector<std::unique_ptr<Child>> children;
    for (int i = 0; i < kCount; ++i) {
        std::string own = path("P" + std::to_string(i));
        std::string next = portFile("P" + std::to_string((i + 1) % kCount), AMBREL_OUT_FILE);
        children.push_back(std::make_unique<Child>([=] {
            int fd = ::open(own.c_str(), O_RDWR);
            if (fd < 0) {
                return 10;
            }
            char c;
            if (::read(go[0], &c, 1) != 1) {
                return 11;
            }
            int out = ::open(next.c_str(), O_WRONLY);
            std::uint8_t note[3] = {0x90, std::uint8_t(i), 0x40};
            if (out < 0 || ::write(out, note, 3) != 3) {
                return 12;
            }
            std::uint8_t got[3];
            struct pollfd p = {fd, POLLIN, 0};
            if (::poll(&p, 1, 20000) != 1 || ::read(fd, got, 3) != 3) {
                return 13;
            }
            // The previous process's note.
            return got[1] == std::uint8_t((i + kCount - 1) % kCount) ? 0 : 14;
        }));
    }
    ASSERT_TRUE(eventually([&] {
        for (int i = 0; i < kCount; ++i) {
            if (!exists(portFile("P" + std::to_string(i), AMBREL_OUT_FILE))) {
                return false;
            }
        }
        return true;
    }, 30));
    std::string all(kCount, 'g');
    ASSERT_EQ(write(go[1], all.data(), all.size()), ssize_t(all.size()));
    for (int i = 0; i < kCount; ++i) {
        EXPECT_EQ(children[size_t(i)]->wait(60), 0) << "process " << i;
    }
    close(go[0]);
    close(go[1]);
    EXPECT_TRUE(eventually([&] { return !exists(portFile("P0", "")); }));
}

TEST_F(DaemonTest, SurvivesRandomOperationsFromManyProcesses)
{
    // Each child runs its own random mix of opens (good and bad names, every
    // access mode, port files), writes of random bytes, non-blocking reads,
    // polls, ioctls and closes; one is killed half-way. Afterwards the
    // daemon must still serve, and shut down without a leak (TearDown).
    const std::vector<std::string> names{"A", "B", "C", "A\\8192", "::", std::string(300, 'x'), "B\\\\{bad}"};
    const std::vector<std::string> files{AMBREL_OUT_FILE, AMBREL_IN_FILE, AMBREL_INFO_FILE, "nope"};
    std::vector<std::unique_ptr<Child>> children;
    for (unsigned seed = 1; seed <= 8; ++seed) {
        children.push_back(std::make_unique<Child>([&, seed] {
            unsigned state = seed * 2654435761u;
            auto next = [&](unsigned n) {
                state = state * 1103515245u + 12345u;
                return (state >> 8) % n;
            };
            std::vector<int> fds;
            std::uint8_t buf[700];
            for (int op = 0; op < 300; ++op) {
                int fd = fds.empty() ? -1 : fds[next(unsigned(fds.size()))];
                switch (next(7)) {
                case 0: {
                    int modes[] = {O_RDONLY, O_WRONLY, O_RDWR};
                    int f = ::open(path(names[next(unsigned(names.size()))]).c_str(), modes[next(3)] | O_NONBLOCK);
                    if (f >= 0) {
                        fds.push_back(f);
                    }
                    break;
                }
                case 1: {
                    const std::string &file = files[next(unsigned(files.size()))];
                    int f = ::open(portFile(names[next(3)], file.c_str()).c_str(),
                                   (file == AMBREL_OUT_FILE ? O_WRONLY : O_RDONLY) | O_NONBLOCK);
                    if (f >= 0) {
                        fds.push_back(f);
                    }
                    break;
                }
                case 2:
                    if (fd >= 0) {
                        for (auto &b : buf) {
                            b = std::uint8_t(next(256));
                        }
                        (void)!::write(fd, buf, 1 + next(sizeof buf - 1));
                    }
                    break;
                case 3:
                    if (fd >= 0) {
                        (void)!::read(fd, buf, 1 + next(sizeof buf - 1));
                    }
                    break;
                case 4:
                    if (fd >= 0) {
                        struct pollfd p = {fd, POLLIN | POLLOUT, 0};
                        ::poll(&p, 1, 0);
                    }
                    break;
                case 5:
                    if (fd >= 0) {
                        struct ambrel_process_ids ids = {};
                        ::ioctl(fd, next(2) ? AMBREL_IOC_PROCESS_IDS : _IO('q', next(256)), &ids);
                    }
                    break;
                default:
                    if (fd >= 0) {
                        ::close(fd);
                        fds.erase(std::find(fds.begin(), fds.end(), fd));
                    }
                }
            }
            return 0;
        }));
    }
    std::this_thread::sleep_for(50ms);
    children[3]->kill();
    for (size_t i = 0; i < children.size(); ++i) {
        if (i != 3) {
            EXPECT_EQ(children[i]->wait(60), 0) << "child " << i;
        }
    }
    ASSERT_TRUE(eventually([&] { return !exists(portFile("A", "")) && !exists(portFile("B", "")); }));
    int owner = openFile(path("After"), O_RDWR);
    ASSERT_GE(owner, 0);
    Command send(cli({"send", "After", "90 3C 64"}));
    ASSERT_EQ(send.wait(), 0);
    EXPECT_EQ(readBytes(owner, 3), kNoteOn);
}

TEST_F(DaemonTest, RestartWithdrawsPortsEndsWaitsAndServesAgain)
{
    int held = openFile(path("Kept"), O_RDWR);
    ASSERT_GE(held, 0);
    std::string waiting = path("Waiting");
    Child reader([&] {
        int fd = ::open(waiting.c_str(), O_RDONLY);
        std::uint8_t b[4];
        return fd >= 0 && ::read(fd, b, sizeof b) < 0 ? 0 : 1;
    });
    ASSERT_TRUE(eventually([&] { return exists(portFile("Waiting", AMBREL_INFO_FILE)); }));
    std::this_thread::sleep_for(100ms); // the reader is in its read

    EXPECT_EQ(stopDaemon(), 0) << daemonLog();
    EXPECT_EQ(reader.wait(), 0); // its read failed instead of hanging
    EXPECT_FALSE(mounted(mount_));
    std::uint8_t b[4];
    EXPECT_EQ(read(held, b, sizeof b), -1);
    closeFile(held);

    startDaemon({"--max-ports", "2"});
    EXPECT_GE(openFile(path("Kept"), O_RDWR), 0);
    EXPECT_GE(openFile(path("Second"), O_RDWR), 0);
    EXPECT_EQ(openFile(path("Third"), O_RDWR), -ENOSPC); // the setting reached the driver
}

} // namespace
} // namespace fetest

namespace fetest {
namespace {

// An owner that takes `total` bytes in small reads, a pause between them,
// as a slow application does.
Bytes readSlowly(int fd, size_t total, std::chrono::microseconds pause)
{
    Bytes got;
    std::uint8_t buf[4096];
    while (got.size() < total) {
        struct pollfd p = {fd, POLLIN, 0};
        if (::poll(&p, 1, 10000) != 1) {
            break;
        }
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0) {
            break;
        }
        got.insert(got.end(), buf, buf + n);
        std::this_thread::sleep_for(pause);
    }
    return got;
}

Bytes notes(size_t count)
{
    Bytes b;
    for (size_t i = 0; i < count; ++i) {
        b.insert(b.end(), {std::uint8_t(0x90 | (i % 16)), std::uint8_t(i % 128), std::uint8_t(1 + i % 127)});
    }
    return b;
}

TEST_F(DaemonTest, WritesLargerThanTheFifoReachASlowOwnerWholeBeforeCloseReturns)
{
    int owner = openFile(path("Slow\\8192"), O_RDONLY);
    ASSERT_GE(owner, 0);
    const Bytes song = notes(200000); // 600,000 bytes against a FIFO of 16 KiB
    Bytes got;
    std::thread reader([&] { got = readSlowly(owner, song.size(), 50us); });
    int out = openFile(portFile("Slow", AMBREL_OUT_FILE), O_WRONLY);
    ASSERT_GE(out, 0);
    // One write: the kernel cuts it into requests, each answered once its
    // bytes are in the driver; close returns with nothing left to hand on.
    EXPECT_EQ(write(out, song.data(), song.size()), ssize_t(song.size()));
    EXPECT_EQ(fsync(out), 0);
    closeFile(out);
    reader.join();
    EXPECT_EQ(got.size(), song.size());
    EXPECT_TRUE(got == song);

    // Non-blocking: bytes the port cannot take yet are held, and the next
    // write is refused with EAGAIN until they are gone; poll says when.
    out = openFile(portFile("Slow", AMBREL_OUT_FILE), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(out, 0);
    const Bytes burst = notes(8000); // 24,000 bytes: more than the FIFO
    ASSERT_EQ(write(out, burst.data(), burst.size()), ssize_t(burst.size()));
    EXPECT_EQ(write(out, kNoteOn.data(), 3), -1);
    EXPECT_EQ(errno, EAGAIN);
    struct pollfd p = {out, POLLOUT, 0};
    EXPECT_EQ(poll(&p, 1, 100), 0); // nobody reads: not writable
    reader = std::thread([&] { got = readSlowly(owner, burst.size() + 3, 0us); });
    ASSERT_EQ(poll(&p, 1, 5000), 1);
    EXPECT_EQ(write(out, kNoteOn.data(), 3), 3);
    reader.join();
    Bytes expected = burst;
    expected.insert(expected.end(), kNoteOn.begin(), kNoteOn.end());
    EXPECT_TRUE(got == expected) << got.size();
}

TEST_F(DaemonTest, AWithdrawnPortFailsItsWritersReadersAndCommands)
{
    std::unique_ptr<Child> owner;
    ASSERT_TRUE(ownInAnotherProcess(path("Gone"), &owner));
    int out = openFile(portFile("Gone", AMBREL_OUT_FILE), O_WRONLY);
    int in = openFile(portFile("Gone", AMBREL_IN_FILE), O_RDONLY);
    ASSERT_GE(out, 0);
    ASSERT_GE(in, 0);
    // A writer blocked on a full FIFO, a reader waiting for MIDI.
    const Bytes flood = notes(100000);
    std::atomic<ssize_t> blocked{-2};
    std::atomic<int> blockedErrno{0};
    std::thread writer([&] {
        blocked = write(out, flood.data(), flood.size());
        blockedErrno = errno;
    });
    std::atomic<ssize_t> waited{-2};
    std::atomic<int> waitedErrno{0};
    std::thread reader([&] {
        std::uint8_t buf[64];
        waited = read(in, buf, sizeof buf);
        waitedErrno = errno;
    });
    std::this_thread::sleep_for(1s);
    owner->kill();
    writer.join();
    reader.join();
    // The blocked write returns what reached the port before it went (a
    // short write of whole messages, as POSIX has it), or ESHUTDOWN when
    // none had; the next write hears why.
    if (blocked.load() >= 0) {
        EXPECT_GT(blocked.load(), 0);
        EXPECT_LT(blocked.load(), ssize_t(flood.size()));
        EXPECT_EQ(blocked.load() % 3, 0);
    } else {
        EXPECT_EQ(blockedErrno.load(), ESHUTDOWN);
    }
    EXPECT_EQ(waited.load(), -1);
    EXPECT_EQ(waitedErrno.load(), ESHUTDOWN);
    EXPECT_EQ(write(out, kNoteOn.data(), 3), -1);
    EXPECT_EQ(errno, ESHUTDOWN);
}

TEST_F(DaemonTest, MidiTheDriverWouldDropIsRefusedWithTheReason)
{
    int owner = openFile(path("Strict\\8192"), O_RDONLY);
    ASSERT_GE(owner, 0);
    Bytes longest(8192, 0x22), tooLong(8193, 0x22);
    longest.front() = tooLong.front() = 0xF0;
    longest.back() = tooLong.back() = 0xF7;
    Bytes afterNote = kNoteOn;
    afterNote.insert(afterNote.end(), tooLong.begin(), tooLong.end());
    struct Case {
        const char *what;
        Bytes bytes;
        ssize_t result; // bytes written, or -1 with `error`
        int error;
        Bytes arrives;
    } cases[] = {
        {"stray data byte", {0x3C, 0x64}, -1, EBADMSG, {}},
        {"cut short", {0x90, 0x3C, 0x80, 0x3C, 0x00}, -1, EBADMSG, {}},
        {"whole, then cut short", {0x80, 0x3C, 0x00, 0x90, 0x3C, 0xB0}, 3, 0, {0x80, 0x3C, 0x00}},
        {"running status", {0x90, 0x3C, 0x64, 0x3E, 0x64}, 5, 0, {0x90, 0x3C, 0x64, 0x90, 0x3E, 0x64}},
        {"lone end of SysEx", {0xF7}, -1, EBADMSG, {}},
        {"SysEx of the port's size", longest, 8192, 0, longest},
        {"SysEx one byte longer", tooLong, -1, EMSGSIZE, {}},
        {"note, then the long SysEx", afterNote, 3, 0, kNoteOn},
    };
    for (const Case &c : cases) {
        int out = openFile(portFile("Strict", AMBREL_OUT_FILE), O_WRONLY);
        ASSERT_GE(out, 0);
        errno = 0;
        EXPECT_EQ(write(out, c.bytes.data(), c.bytes.size()), c.result) << c.what;
        if (c.result < 0) {
            EXPECT_EQ(errno, c.error) << c.what;
        }
        EXPECT_EQ(close(out), 0) << c.what;
        fds_.erase(std::remove(fds_.begin(), fds_.end(), out), fds_.end());
        // What was refused never arrives: it would come before the next
        // case's bytes, or before the closing note.
        EXPECT_EQ(readBytes(owner, c.arrives.size()), c.arrives) << c.what;
    }
    int last = openFile(portFile("Strict", AMBREL_OUT_FILE), O_WRONLY);
    ASSERT_EQ(write(last, kNoteOn.data(), 3), 3);
    EXPECT_EQ(readBytes(owner, 3), kNoteOn);
    // A message begun and never finished: close says so.
    int out = openFile(portFile("Strict", AMBREL_OUT_FILE), O_WRONLY);
    ASSERT_GE(out, 0);
    EXPECT_EQ(write(out, kNoteOn.data(), 2), 2);
    EXPECT_EQ(close(out), -1);
    EXPECT_EQ(errno, EBADMSG);
    fds_.erase(std::remove(fds_.begin(), fds_.end(), out), fds_.end());
    EXPECT_NE(slurp(portFile("Strict", AMBREL_INFO_FILE)).find("sysex-size: 8192\n"), std::string::npos);
}

} // namespace
} // namespace fetest

#include <dirent.h>
#include <grp.h>

namespace fetest {
namespace {

// What a process of uid and gid 65534 ("nobody") with these supplementary
// groups gets from the mount: 0 when each step works, else the first errno.
int asNobody(const std::string &mount, const std::vector<gid_t> &groups)
{
    Child child([&] {
        if (setgroups(groups.size(), groups.data()) != 0 || setgid(65534) != 0 || setuid(65534) != 0) {
            return 100;
        }
        DIR *d = opendir((mount + "/" AMBREL_PORTS_DIR).c_str());
        if (d == nullptr) {
            return errno;
        }
        closedir(d);
        int out = ::open((mount + "/" AMBREL_PORTS_DIR "/Root/" AMBREL_OUT_FILE).c_str(), O_WRONLY);
        if (out < 0) {
            return errno;
        }
        std::uint8_t note[3] = {0x90, 0x3C, 0x64};
        if (::write(out, note, 3) != 3) {
            return errno;
        }
        ::close(out);
        int own = ::open((mount + "/Theirs").c_str(), O_RDWR);
        return own < 0 ? errno : 0;
    });
    return child.wait();
}

TEST_F(DaemonTest, TheMountIsForRootAndTheAudioGroupUnlessPublic)
{
    struct group *audio = getgrnam("audio");
    if (audio == nullptr) {
        GTEST_SKIP() << "no group \"audio\" on this machine";
    }
    int root = openFile(path("Root"), O_RDONLY);
    ASSERT_GE(root, 0);
    struct stat st;
    ASSERT_EQ(stat(mount_.c_str(), &st), 0);
    EXPECT_EQ(st.st_gid, audio->gr_gid);
    EXPECT_EQ(st.st_mode & 07777, 0550u);
    ASSERT_EQ(stat(portFile("Root", AMBREL_OUT_FILE).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0220u);

    EXPECT_EQ(asNobody(mount_, {}), EACCES);
    EXPECT_EQ(asNobody(mount_, {gid_t(audio->gr_gid)}), 0);
    EXPECT_EQ(readBytes(root, 3), kNoteOn); // the member's note
    closeFile(root);

    ASSERT_EQ(stopDaemon(), 0);
    startDaemon({"--public"});
    root = openFile(path("Root"), O_RDONLY);
    ASSERT_GE(root, 0);
    EXPECT_EQ(asNobody(mount_, {}), 0);
    EXPECT_EQ(readBytes(root, 3), kNoteOn);
}

} // namespace
} // namespace fetest

namespace fetest {
namespace {

std::vector<std::string> ambreld(std::initializer_list<std::string> args)
{
    return ambreldCommand(args);
}

TEST_F(DaemonTest, OneDaemonPerMountAndStopNamesTheMount)
{
    // A second daemon for the same mount is refused, naming the first.
    Command second(ambreld({"-f", mount_}));
    EXPECT_EQ(second.wait(), 1);
    EXPECT_NE(second.errors().find("ambreld already serves " + mount_ + " (pid " + std::to_string(daemon_) + ")"),
              std::string::npos);

    // In the background: it says where and which pid, and returns serving.
    char dir[] = "/tmp/ambrel-fe2-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string other = dir;
    Command background(ambreld({other}));
    ASSERT_EQ(background.wait(), 0);
    std::string said = background.errors();
    EXPECT_NE(said.find("serving Ambrel on " + other + " (pid "), std::string::npos) << said;
    EXPECT_TRUE(mounted(other));

    // Stopping one mount's daemon leaves the other's alone.
    Command stop(ambreld({"--stop", other}));
    EXPECT_EQ(stop.wait(30), 0);
    EXPECT_FALSE(mounted(other));
    EXPECT_TRUE(mounted(mount_));
    Command again(ambreld({"--stop", other}));
    EXPECT_EQ(again.wait(), 1);
    EXPECT_NE(again.errors().find("no ambreld serves " + other), std::string::npos);

    // A daemon that died leaves a stale mount: said, and cleared on request.
    Child dying([&] {
        std::vector<std::string> argv = ambreld({"-f", other});
        std::vector<char *> args;
        for (std::string &a : argv) {
            args.push_back(a.data());
        }
        args.push_back(nullptr);
        execv(args[0], args.data());
        return 127;
    });
    ASSERT_TRUE(eventually([&] { return exists(other + "/" AMBREL_PORTS_DIR); }));
    dying.kill();
    Command stale(ambreld({"-f", other}));
    EXPECT_EQ(stale.wait(), 1);
    EXPECT_NE(stale.errors().find(other + " is a stale mount"), std::string::npos) << stale.errors();
    Command cleared(ambreld({"--unmount-stale", other}));
    EXPECT_EQ(cleared.wait(), 0) << cleared.errors();
    EXPECT_TRUE(exists(other + "/" AMBREL_PORTS_DIR));
    Command last(ambreld({"--stop", other}));
    EXPECT_EQ(last.wait(30), 0);
    EXPECT_FALSE(mounted(other));
    rmdir(other.c_str());
}

TEST(AmbreldSettings, ValuesOutsideTheDriversRangesAreRefused)
{
    std::string conf = "/tmp/ambreld-range-test.conf";
    std::ofstream(conf) << "sysex-size = 2000000\n";
    for (auto args : std::vector<std::vector<std::string>>{{"--max-ports", "0"},
                                                            {"--max-ports", "513"},
                                                            {"--sysex-size", "8175"},
                                                            {"--sysex-size", "1048561"},
                                                            {"--config", conf},
                                                            {"--group", "no-such-group-here"},
                                                            {"--public", "--group", "audio"},
                                                            {"--jack-client", ""}}) {
        std::vector<std::string> argv{AMBRELD_PATH};
        argv.insert(argv.end(), args.begin(), args.end());
        argv.push_back("/nonexistent/mount");
        Command c(argv);
        EXPECT_EQ(c.wait(), 2) << args[0];
        EXPECT_NE(c.errors().find("ambreld: "), std::string::npos) << args[0];
    }
    unlink(conf.c_str());
}

} // namespace
} // namespace fetest

namespace fetest {
namespace {

Bytes smfOf(const Bytes &events)
{
    Bytes track = events;
    for (std::uint8_t b : {0x00, 0xFF, 0x2F, 0x00}) {
        track.push_back(b); // end of track
    }
    const std::uint8_t header[] = {'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 0, 0, 1, 0, 96, 'M', 'T', 'r', 'k', 0, 0,
                                   std::uint8_t(track.size() >> 8), std::uint8_t(track.size())};
    Bytes file(sizeof header + track.size());
    std::copy(std::begin(header), std::end(header), file.begin());
    std::copy(track.begin(), track.end(), file.begin() + sizeof header);
    return file;
}

std::string writeSong(const std::string &path, const Bytes &file)
{
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char *>(file.data()), long(file.size()));
    return path;
}

TEST_F(DaemonTest, TheCommandFindsPortsAsTheDriverNamesThemAndChecksWhatItSends)
{
    Command hold(cli({"hold", "A:B", "--count", "1", "--raw", "--sysex", "8192"}));
    ASSERT_TRUE(eventually([&] { return exists(portFile("AB", AMBREL_INFO_FILE)); }));
    int other = openFile(path("Alto"), O_RDONLY);
    ASSERT_GE(other, 0);
    Bytes longSysex(8193, 0x01);
    longSysex.front() = 0xF0;
    longSysex.back() = 0xF7;
    std::string song = writeSong(mount_ + "-long.mid", smfOf([&] {
        Bytes e{0x00, 0xF0, 0xC0, 0x00}; // a SysEx event: 8191 data bytes and F7
        e.insert(e.end(), 8191, 0x01);
        e.push_back(0xF7);
        return e;
    }()));
    struct Case {
        std::vector<std::string> args;
        int status;
        const char *says; // on standard error
    } cases[] = {
        {{"send", "A", "90 3C 64"}, 1, "\"A\" could be any of \"AB\" \"Alto\""},
        {{"send", "Nope", "90 3C 64"}, 1, "no port named \"Nope\""},
        {{"send", "A:B", "90 3C"}, 1, "nothing sent: the last message is cut short"},
        {{"send", "A:B", "3C 64"}, 1, "nothing sent: a data byte with no status byte before it at byte 1"},
        {{"send", "AB", "-"}, 1, "nothing sent: a SysEx longer than the port carries"},
        {{"play", "AB", song}, 1, "longer than the port carries (8192)"},
        {{"play", "AB", mount_}, 1, "is a directory"},
        {{"play", "AB", "/dev/zero"}, 1, "not a regular file"},
        {{"play", "AB", "/etc/passwd"}, 1, "not a Standard MIDI File"},
        {{"send", "A:B", "90 3C 64"}, 0, ""},
    };
    for (const Case &c : cases) {
        std::vector<std::string> argv = cli({});
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        std::string input(longSysex.begin(), longSysex.end());
        Command cmd(argv, input);
        EXPECT_EQ(cmd.wait(), c.status) << c.args[0] << " " << c.args[2];
        std::string said = cmd.errors();
        EXPECT_NE(said.find(c.says), std::string::npos) << said;
    }
    // Only the last send arrived: the holder took one message and says the
    // name the port got.
    EXPECT_EQ(hold.wait(), 0);
    EXPECT_NE(hold.output().find("90 3C 64\n"), std::string::npos);
    EXPECT_NE(hold.errors().find("port \"AB\" is open"), std::string::npos);
    unlink(song.c_str());
}

TEST_F(DaemonTest, PlayTakesSeveralFilesAndStandardInput)
{
    int owner = openFile(path("Songs"), O_RDONLY);
    ASSERT_GE(owner, 0);
    std::string first = writeSong(mount_ + "-1.mid", smfOf({0x00, 0x90, 60, 100}));
    std::string second = writeSong(mount_ + "-2.mid", smfOf({0x00, 0x90, 62, 100}));
    Bytes third = smfOf({0x00, 0x90, 64, 100});
    Command play(cli({"play", "Songs", first, "-", second}), std::string(third.begin(), third.end()));
    EXPECT_EQ(play.wait(), 0) << play.errors();
    EXPECT_EQ(play.errors(), ""); // no progress bar without a terminal
    EXPECT_EQ(readBytes(owner, 9), (Bytes{0x90, 60, 100, 0x90, 64, 100, 0x90, 62, 100}));
    unlink(first.c_str());
    unlink(second.c_str());
}

TEST_F(DaemonTest, MonitorStopsWhenQuietAndLeavesClockOutLikeAmidi)
{
    int owner = openFile(path("Beat"), O_WRONLY);
    ASSERT_GE(owner, 0);
    for (bool clock : {false, true}) {
        Command monitor(cli(clock ? std::initializer_list<std::string>{"monitor", "Beat", "--raw", "--timeout", "0.5",
                                                                       "--clock"}
                                  : std::initializer_list<std::string>{"monitor", "Beat", "--raw", "--timeout",
                                                                       "0.5"}));
        ASSERT_TRUE(eventually([&] { return processIds(owner).size() == 1; }));
        Bytes beat{0xF8, 0xFE, 0x90, 0x3C, 0x64};
        ASSERT_EQ(write(owner, beat.data(), beat.size()), ssize_t(beat.size()));
        EXPECT_EQ(monitor.wait(), 0);
        std::string out = monitor.output();
        EXPECT_NE(out.find("90 3C 64\n"), std::string::npos) << out;
        EXPECT_EQ(out.find("F8\n") != std::string::npos, clock) << out;
        EXPECT_EQ(out.find("FE\n"), std::string::npos) << out;
        ASSERT_TRUE(eventually([&] { return processIds(owner).empty(); }));
    }
}

TEST_F(DaemonTest, ListSaysSysexSizesAndSpeaksJson)
{
    ASSERT_GE(openFile(path("Json \"quoted\"\\8192"), O_RDWR), 0);
    Command list(cli({"list"}));
    ASSERT_EQ(list.wait(), 0);
    std::string table = list.output();
    EXPECT_NE(table.find("SYSEX"), std::string::npos) << table;
    EXPECT_NE(table.find("8192"), std::string::npos) << table;
    Command json(cli({"list", "--json"}));
    ASSERT_EQ(json.wait(), 0);
    std::string text = json.output();
    EXPECT_NE(text.find("\"name\": \"Json quoted\""), std::string::npos) << text;
    EXPECT_NE(text.find("\"sysex_size\": 8192"), std::string::npos) << text;
    EXPECT_NE(text.find("\"owner\": " + std::to_string(getpid())), std::string::npos) << text;
    EXPECT_EQ(text.front(), '[');
}

TEST_F(DaemonTest, CommandsSayWhenTheOwnerOrAmbreldGoes)
{
    // Long songs: one note a second.
    Bytes events;
    for (int i = 0; i < 30; ++i) {
        events.insert(events.end(), {0x81, 0x40, 0x90, 60, 100}); // 192 ticks: a second at 120 bpm
    }
    std::string song = writeSong(mount_ + "-long.mid", smfOf(events));
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    std::string own = path("Leaving");
    Child owner([&] {
        int fd = ::open(own.c_str(), O_RDWR);
        (void)!::write(ready[1], fd >= 0 ? "y" : "n", 1);
        std::uint8_t buf[64];
        while (::read(fd, buf, sizeof buf) > 0) {
        }
        return 0;
    });
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    Command play(cli({"play", "Leaving", song}));
    Command monitor(cli({"monitor", "Leaving"}));
    ASSERT_TRUE(eventually([&] {
        return slurp(portFile("Leaving", AMBREL_INFO_FILE)).find(std::to_string(monitor.pid())) != std::string::npos;
    }));
    std::this_thread::sleep_for(200ms);
    owner.kill();
    for (Command *cmd : {&play, &monitor}) {
        EXPECT_EQ(cmd->wait(), 1);
        EXPECT_NE(cmd->errors().find("port \"Leaving\" was closed by its owner"), std::string::npos) << cmd->errors();
    }

    // ambreld stops under a player, a recorder and a holder: one message, exit 3.
    int kept = openFile(path("Kept"), O_RDWR);
    ASSERT_GE(kept, 0);
    Command play2(cli({"play", "Kept", song}));
    Command monitor2(cli({"monitor", "Kept"}));
    Command hold(cli({"hold", "Held"}));
    ASSERT_TRUE(eventually([&] {
        return exists(portFile("Held", AMBREL_INFO_FILE)) &&
               slurp(portFile("Kept", AMBREL_INFO_FILE)).find(std::to_string(monitor2.pid())) != std::string::npos;
    }));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(stopDaemon(), 0) << daemonLog();
    for (Command *cmd : {&play2, &monitor2, &hold}) {
        EXPECT_EQ(cmd->wait(), 3);
        std::string said = cmd->errors();
        EXPECT_NE(said.find("ambrel: ambreld stopped\n"), std::string::npos) << said;
    }
    closeFile(kept);
    startDaemon();
    close(ready[0]);
    close(ready[1]);
    unlink(song.c_str());
}

} // namespace
} // namespace fetest

namespace fetest {
namespace {

// The examples people copy: README's runs until two quiet seconds, the
// example program until Ctrl-C. Both send back what is played to them.
TEST_F(DaemonTest, TheLibraryExamplesRunAsPrinted)
{
    struct Case {
        const char *program;
        std::vector<std::string> args;
        bool interrupt;
    } cases[] = {{README_ECHO_PATH, {}, false}, {AMBREL_ECHO_PATH, {"Echo"}, true}};
    setenv(AMBREL_MOUNT_ENV, mount_.c_str(), 1);
    for (const Case &c : cases) {
        std::vector<std::string> argv{c.program};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        Command echo(argv);
        ASSERT_TRUE(eventually([&] { return exists(portFile("Echo", AMBREL_IN_FILE)); })) << c.program;
        int in = openFile(portFile("Echo", AMBREL_IN_FILE), O_RDONLY);
        int out = openFile(portFile("Echo", AMBREL_OUT_FILE), O_WRONLY);
        ASSERT_GE(in, 0);
        ASSERT_GE(out, 0);
        // Silence first: a read that times out must not end the program.
        std::this_thread::sleep_for(700ms);
        ASSERT_EQ(write(out, kNoteOn.data(), 3), 3);
        EXPECT_EQ(readBytes(in, 3), kNoteOn) << c.program;
        closeFile(in);
        closeFile(out);
        if (c.interrupt) {
            std::this_thread::sleep_for(300ms);
            ::kill(echo.pid(), SIGINT);
        }
        EXPECT_EQ(echo.wait(15), 0) << c.program << ": " << echo.errors();
        EXPECT_NE(echo.output().find(c.interrupt ? "processes:" : "processes still use the port"), std::string::npos)
            << echo.output();
        ASSERT_TRUE(eventually([&] { return !exists(portFile("Echo", "")); }));
    }
    unsetenv(AMBREL_MOUNT_ENV);
}

} // namespace
} // namespace fetest

namespace fetest {
namespace {

// Stopped while writers outpace a slow owner, ambreld hands the owner what
// the writers were told is written, and refuses the rest.
TEST_F(DaemonTest, StoppedUnderLoadItLosesNothingItAccepted)
{
    int owner = openFile(path("Busy\\8192"), O_RDONLY);
    ASSERT_GE(owner, 0);
    constexpr int kWriters = 4;
    std::atomic<size_t> accepted{0};
    std::vector<std::thread> writers;
    std::vector<int> errors(kWriters, 0);
    for (int w = 0; w < kWriters; ++w) {
        int out = openFile(portFile("Busy", AMBREL_OUT_FILE), O_WRONLY);
        ASSERT_GE(out, 0);
        writers.emplace_back([&, out, w] {
            const Bytes chunk = notes(100); // 300 bytes, whole messages
            for (;;) {
                ssize_t n = write(out, chunk.data(), chunk.size());
                if (n < 0) {
                    errors[size_t(w)] = errno;
                    return;
                }
                accepted += size_t(n);
            }
        });
    }
    size_t received = 0;
    std::thread reader([&] {
        std::uint8_t buf[512];
        for (;;) {
            ssize_t n = read(owner, buf, sizeof buf);
            if (n <= 0) {
                return;
            }
            received += size_t(n);
            std::this_thread::sleep_for(200us);
        }
    });
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(stopDaemon(), 0) << daemonLog();
    for (auto &t : writers) {
        t.join();
    }
    reader.join();
    EXPECT_GT(accepted.load(), 8192u);
    EXPECT_EQ(received, accepted.load());
    // ENODEV: the write was ambreld's when its port was withdrawn. A write
    // ambreld had not yet taken from the kernel when it stopped serving ends
    // with the kernel's own answer, ECONNABORTED while the mount goes, or
    // ENOTCONN after; the totals above show none of those took a byte.
    for (int e : errors) {
        EXPECT_TRUE(e == ENODEV || e == ECONNABORTED || e == ENOTCONN) << std::strerror(e);
    }
    for (int fd : fds_) {
        ::close(fd);
    }
    fds_.clear();
    startDaemon();
}

} // namespace
} // namespace fetest

#include "midi/smf.h"

namespace fetest {
namespace {

// Programs and files we did not write, where users meet them: a song from
// Debian's openttd-openmsx played into a port with `ambrel play`, its owner
// sending it on, and FluidSynth recording from the port through its OSS MIDI
// driver (a raw MIDI device path). scripts/setup.sh installs all three.
TEST_F(DaemonTest, ARealSongReachesTheOwnerExactlyAndFluidSynthThroughThePort)
{
    const std::string song = "/usr/share/games/openttd/baseset/openmsx/train_filled_with_cash.mid";
    const std::string font = "/usr/share/sounds/sf2/TimGM6mb.sf2";
    if (!exists(song) || !exists(font) || !exists("/usr/bin/fluidsynth")) {
        GTEST_SKIP() << "needs openttd-openmsx, timgm6mb-soundfont and fluidsynth (scripts/setup.sh)";
    }
    ambrel::midi::Smf smf;
    std::string error;
    ASSERT_TRUE(ambrel::midi::readSmfFile(song, &smf, &error)) << error;
    Bytes expected;
    size_t notes = 0;
    for (const auto &e : smf.events) {
        expected.insert(expected.end(), e.bytes.begin(), e.bytes.end());
        notes += (e.bytes[0] & 0xE0) == 0x80 ? 1 : 0; // note on and off
    }
    int owner = openFile(path("Song"), O_RDWR);
    ASSERT_GE(owner, 0);
    // Its dump of what it hears goes to a file, read while it runs. Its
    // command server (which keeps it running without a shell) takes a port
    // of this process's own: ctest runs this test on both driver builds at
    // once, and a second FluidSynth on the default port would quit.
    const std::string dumpFile = mount_ + ".fluidsynth";
    const std::string shellPort = std::to_string(40000 + getpid() % 20000);
    Command synth({"/bin/sh", "-c",
                   "exec /usr/bin/stdbuf -oL /usr/bin/fluidsynth -d -s -o shell.port=" + shellPort +
                       " -i -a file -o audio.file.name=" + mount_ +
                       ".wav -m oss -o midi.oss.device=" + portFile("Song", AMBREL_IN_FILE) + " " + font + " >" +
                       dumpFile});
    ASSERT_TRUE(eventually([&] { return listed(owner, synth.pid()); }, 10)) << synth.errors();
    Command play(cli({"play", "Song", song, "--speed", "40"}));
    Bytes got;
    std::uint8_t buf[4096];
    auto quietSince = Clock::now();
    while (Clock::now() - quietSince < 500ms) {
        struct pollfd p = {owner, POLLIN, 0};
        if (::poll(&p, 1, 50) != 1) {
            continue;
        }
        ssize_t n = read(owner, buf, sizeof buf);
        ASSERT_GT(n, 0);
        got.insert(got.end(), buf, buf + n);
        ASSERT_EQ(write(owner, buf, size_t(n)), n); // on to every recorder
        quietSince = Clock::now();
    }
    EXPECT_EQ(play.wait(), 0) << play.errors();
    EXPECT_EQ(got.size(), expected.size());
    EXPECT_TRUE(got == expected);
    // FluidSynth hears every note on and off, at its own pace.
    size_t heard = 0;
    eventually([&] {
        std::string dump = slurp(dumpFile);
        heard = 0;
        for (const char *kind : {"event_pre_noteon ", "event_pre_noteoff "}) {
            for (size_t at = dump.find(kind); at != std::string::npos; at = dump.find(kind, at + 1)) {
                ++heard;
            }
        }
        return heard >= notes;
    }, 20);
    EXPECT_EQ(heard, notes);
    ::kill(synth.pid(), SIGTERM);
    synth.wait();
    unlink(dumpFile.c_str());
    unlink((mount_ + ".wav").c_str());
}

} // namespace
} // namespace fetest
