// The front end's soak: rounds of real processes against a real ambreld,
// counting the bytes writers were told are written against the bytes the
// ports' owners read. Each port has an owner that reads fast, slowly, or is
// killed half-way, and several writers that write whole Note On messages in
// writes of a few bytes to 150 KB; every other round ambreld is stopped
// while the writers are busy. Every message carries its writer (channel)
// and sequence number (note, velocity), so an owner sees any loss, repeat
// or reordering, not just a count.
//
//   frontend_soak AMBRELD SECONDS
//
// Prints one line per round and the totals; exit status 1 when a byte was
// lost, a sequence broke, a close failed, or a writer went on writing into
// a port whose owner had died.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ambrel/mount.h"
#include "mount_helpers.h"

namespace {

using fetest::Clock;
using fetest::eventually;
using fetest::mounted;
using namespace std::chrono_literals;

constexpr int kPorts = 6;
constexpr int kWriters = 4; // per port
constexpr int kSequence = 1 << 14; // note and velocity carry 14 bits

enum class Owner { Fast, Slow, Killed };

Owner ownerKind(int port)
{
    return port % 3 == 0 ? Owner::Fast : port % 3 == 1 ? Owner::Slow : Owner::Killed;
}

struct Shared {
    std::atomic<std::uint64_t> accepted[kPorts][kWriters];
    std::atomic<int> writerErrno[kPorts][kWriters];
    std::atomic<int> closeErrno[kPorts][kWriters];
    std::atomic<bool> writerDone[kPorts][kWriters];
    std::atomic<std::uint64_t> read[kPorts];
    std::atomic<std::uint64_t> broken[kPorts]; // messages out of sequence
    std::atomic<bool> ownerReady[kPorts];
    std::atomic<bool> stop;
};

std::string portName(int port)
{
    return "Soak" + std::to_string(port);
}

// Reads until the port goes (or ambreld), checking each writer's sequence.
int runOwner(Shared *s, const std::string &mount, int port)
{
    int fd = open((mount + "/" + portName(port)).c_str(), O_RDONLY);
    if (fd < 0) {
        return 10;
    }
    s->ownerReady[port] = true;
    std::vector<int> expected(16, 0);
    std::uint8_t buf[4096], carry[3];
    int carried = 0;
    std::mt19937 random{unsigned(port)};
    for (;;) {
        size_t want = ownerKind(port) == Owner::Slow ? 1 + random() % 600 : sizeof buf;
        ssize_t n = read(fd, buf, want);
        if (n <= 0) {
            return 0; // withdrawn or stopped
        }
        for (ssize_t i = 0; i < n; ++i) {
            carry[carried++] = buf[i];
            if (carried == 3) {
                carried = 0;
                int writer = carry[0] & 0x0F;
                int seq = carry[1] | carry[2] << 7;
                if ((carry[0] & 0xF0) != 0x90 || seq != expected[size_t(writer)]) {
                    ++s->broken[port];
                }
                expected[size_t(writer)] = (seq + 1) % kSequence;
            }
        }
        s->read[port] += std::uint64_t(n);
        if (ownerKind(port) == Owner::Slow) {
            std::this_thread::sleep_for(std::chrono::microseconds(200 + random() % 800));
        }
    }
}

int runWriter(Shared *s, const std::string &mount, int port, int writer)
{
    int fd = open((mount + "/" AMBREL_PORTS_DIR "/" + portName(port) + "/" AMBREL_OUT_FILE).c_str(), O_WRONLY);
    if (fd < 0) {
        s->writerErrno[port][writer] = errno;
        s->writerDone[port][writer] = true;
        return 0;
    }
    std::mt19937 random{unsigned(port * 100 + writer)};
    int seq = 0;
    std::vector<std::uint8_t> chunk;
    while (!s->stop) {
        unsigned pick = random() % 100;
        size_t messages = pick < 70 ? 1 + random() % 50 : pick < 95 ? 1000 + random() % 9000 : 50000;
        chunk.clear();
        for (size_t m = 0; m < messages; ++m) {
            chunk.insert(chunk.end(), {std::uint8_t(0x90 | writer), std::uint8_t(seq & 0x7F), std::uint8_t(seq >> 7)});
            seq = (seq + 1) % kSequence;
        }
        ssize_t n = write(fd, chunk.data(), chunk.size());
        if (n < 0) {
            s->writerErrno[port][writer] = errno;
            break;
        }
        s->accepted[port][writer] += std::uint64_t(n);
        if (size_t(n) != chunk.size()) {
            s->writerErrno[port][writer] = -1; // a short write of whole messages: never expected
            break;
        }
    }
    if (close(fd) != 0) {
        s->closeErrno[port][writer] = errno;
    }
    s->writerDone[port][writer] = true;
    return 0;
}

struct Totals {
    std::uint64_t accepted = 0, read = 0, lost = 0, broken = 0, closeFailures = 0, lateWriters = 0;
    std::uint64_t unreadByKilled = 0, mostUnreadByOneKilled = 0;
    std::map<int, int> writerErrors;
    int rounds = 0, stoppedUnderLoad = 0;
};

pid_t spawn(const std::function<int()> &body)
{
    pid_t pid = fork();
    if (pid == 0) {
        _exit(body());
    }
    return pid;
}

pid_t startDaemon(const std::string &ambreld, const std::string &mount)
{
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        execl(ambreld.c_str(), ambreld.c_str(), "-f", "--public", mount.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    eventually([&] { return mounted(mount) && access((mount + "/" AMBREL_PORTS_DIR).c_str(), F_OK) == 0; }, 10);
    return pid;
}

int stopDaemon(pid_t pid)
{
    kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void round(const std::string &ambreld, const std::string &mount, bool stopUnderLoad, Totals *t)
{
    auto *s = static_cast<Shared *>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    new (s) Shared{};
    pid_t daemon = startDaemon(ambreld, mount);
    std::vector<pid_t> owners, writers;
    for (int p = 0; p < kPorts; ++p) {
        owners.push_back(spawn([=] { return runOwner(s, mount, p); }));
    }
    eventually([&] {
        for (int p = 0; p < kPorts; ++p) {
            if (!s->ownerReady[p]) {
                return false;
            }
        }
        return true;
    }, 10);
    for (int p = 0; p < kPorts; ++p) {
        for (int w = 0; w < kWriters; ++w) {
            writers.push_back(spawn([=] { return runWriter(s, mount, p, w); }));
        }
    }
    std::this_thread::sleep_for(1500ms);
    // Killed owners die half-way; their writers must be told at once.
    for (int p = 0; p < kPorts; ++p) {
        if (ownerKind(p) == Owner::Killed) {
            kill(owners[size_t(p)], SIGKILL);
            waitpid(owners[size_t(p)], nullptr, 0);
            owners[size_t(p)] = -1;
        }
    }
    for (int p = 0; p < kPorts; ++p) {
        if (ownerKind(p) == Owner::Killed) {
            bool told = eventually([&] {
                for (int w = 0; w < kWriters; ++w) {
                    if (!s->writerDone[p][w]) {
                        return false;
                    }
                }
                return true;
            }, 2);
            for (int w = 0; w < kWriters && !told; ++w) {
                t->lateWriters += s->writerDone[p][w] ? 0 : 1;
            }
        }
    }
    int daemonStatus = 0;
    if (stopUnderLoad) {
        std::this_thread::sleep_for(500ms);
        daemonStatus = stopDaemon(daemon);
        ++t->stoppedUnderLoad;
    } else {
        std::this_thread::sleep_for(1500ms);
    }
    s->stop = true;
    for (pid_t w : writers) {
        waitpid(w, nullptr, 0);
    }
    if (!stopUnderLoad) {
        // The owners read what is left, then ambreld stops.
        eventually([&] {
            for (int p = 0; p < kPorts; ++p) {
                std::uint64_t sum = 0;
                for (int w = 0; w < kWriters; ++w) {
                    sum += s->accepted[p][w];
                }
                if (ownerKind(p) != Owner::Killed && s->read[p] != sum) {
                    return false;
                }
            }
            return true;
        }, 60);
        daemonStatus = stopDaemon(daemon);
    }
    for (pid_t o : owners) {
        if (o > 0) {
            waitpid(o, nullptr, 0);
        }
    }
    std::uint64_t roundAccepted = 0, roundRead = 0, roundLost = 0;
    for (int p = 0; p < kPorts; ++p) {
        std::uint64_t sum = 0;
        for (int w = 0; w < kWriters; ++w) {
            sum += s->accepted[p][w];
            if (int e = s->writerErrno[p][w]) {
                ++t->writerErrors[e];
            }
            if (int e = s->closeErrno[p][w]) {
                // A writer to a port that went may hear it at close too;
                // any other failed close is counted.
                if (e != ESHUTDOWN && e != ENODEV && e != ENOTCONN) {
                    ++t->closeFailures;
                }
            }
        }
        roundAccepted += sum;
        roundRead += s->read[p];
        t->broken += s->broken[p];
        if (ownerKind(p) != Owner::Killed) {
            roundLost += sum > s->read[p] ? sum - s->read[p] : s->read[p] - sum;
        } else if (s->read[p] > sum) {
            ++t->broken; // an owner cannot read more than was written
        } else {
            // What was in the FIFO (and read ahead for it) when it died.
            t->unreadByKilled += sum - s->read[p];
            t->mostUnreadByOneKilled = std::max<std::uint64_t>(t->mostUnreadByOneKilled, sum - s->read[p]);
        }
    }
    t->accepted += roundAccepted;
    t->read += roundRead;
    t->lost += roundLost;
    ++t->rounds;
    std::printf("round %3d%s: %10llu bytes accepted, %10llu read, %llu lost, %llu out of sequence, ambreld exit %d\n",
                t->rounds, stopUnderLoad ? " (stopped under load)" : "                     ",
                (unsigned long long)roundAccepted, (unsigned long long)roundRead, (unsigned long long)roundLost,
                (unsigned long long)t->broken, daemonStatus);
    std::fflush(stdout);
    munmap(s, sizeof(Shared));
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: frontend_soak AMBRELD SECONDS\n");
        return 2;
    }
    std::string ambreld = argv[1];
    double seconds = std::atof(argv[2]);
    char dir[] = "/tmp/ambrel-soak-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        return 1;
    }
    std::string mount = dir;
    signal(SIGPIPE, SIG_IGN);
    Totals t;
    auto end = Clock::now() + std::chrono::milliseconds(long(seconds * 1000));
    bool stopUnderLoad = false;
    do {
        round(ambreld, mount, stopUnderLoad, &t);
        stopUnderLoad = !stopUnderLoad;
    } while (Clock::now() < end);
    rmdir(mount.c_str());
    std::printf("\n%d rounds (%d stopped under load), %d ports x %d writers each\n", t.rounds, t.stoppedUnderLoad,
                kPorts, kWriters);
    std::printf("bytes accepted %llu, read %llu; lost on ports with a live owner: %llu\n",
                (unsigned long long)t.accepted, (unsigned long long)t.read, (unsigned long long)t.lost);
    std::printf("left unread by killed owners: %llu bytes, at most %llu for one (its FIFO and read-ahead)\n",
                (unsigned long long)t.unreadByKilled, (unsigned long long)t.mostUnreadByOneKilled);
    std::printf("messages out of sequence: %llu; failed closes: %llu; writers still writing 2 s after their "
                "owner died: %llu\n",
                (unsigned long long)t.broken, (unsigned long long)t.closeFailures, (unsigned long long)t.lateWriters);
    std::printf("how writers were stopped:");
    for (auto &e : t.writerErrors) {
        std::printf(" %s x%d;", e.first < 0 ? "short write" : std::strerror(e.first), e.second);
    }
    std::printf("\n");
    return t.lost == 0 && t.broken == 0 && t.closeFailures == 0 && t.lateWriters == 0 ? 0 : 1;
}
