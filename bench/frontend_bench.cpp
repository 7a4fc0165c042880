// Note-on messages between two processes, side by side in one run:
//   Ambrel       ambreld on a temporary mount; a MIDI client plays into the
//                port's "out" file and the port's owner reads its handle
//                (render), and the reverse: the owner writes, a client
//                records from "in" (capture);
//   JACK MIDI    two clients of a jackd on the dummy backend (48 kHz, a
//                period of AMBREL_BENCH_JACK_PERIOD frames, 64 by default);
//   pipe         a plain pipe(2).
// Latency: one message at a time; the sender stamps CLOCK_MONOTONIC in
// shared memory before it sends, the receiver stamps on arrival; median and
// p99 in microseconds (counters). Throughput: bursts of note-ons written as
// fast as the transport takes them, 1, 64 or 1024 messages per write for the
// byte streams (items_per_second); JACK's sender queues them for its cycles.
// Round trip: jack_midi_latency_test through ambreld's JACK bridge and
// ambrel-echo as the port's owner ("ambrel:Echo in" -> owner -> "ambrel:Echo
// out"), against the same tool through a JACK client that passes events on
// in the same cycle; frames and periods (counters).
// Ambrel's rows need root and /dev/fuse, JACK's need jackd: a row whose peer
// cannot start is skipped with the reason.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <jack/jack.h>
#include <jack/midiport.h>
#include <jack/ringbuffer.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

namespace {

// jackd keeps a machine-wide table of eight servers in /dev/shm, and a
// server that had to be killed keeps its entry: this run's servers (and
// their clients) get a /dev/shm of their own, made before any thread runs.
const bool gPrivateShm = [] {
    return geteuid() == 0 && unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", "/dev/shm", "tmpfs", 0, "mode=1777") == 0;
}();

constexpr int kLatencyMessages = 2000;
constexpr int kWarmup = 100;
constexpr int kBurst = 5120; // whole batches of 1, 64 and 1024
constexpr std::int64_t kWaitLimitNs = 5'000'000'000;

std::int64_t nowNs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return std::int64_t(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

// Shared between the benchmark (sender) and its receiver process.
struct Shared {
    std::atomic<std::int64_t> sentNs{0};
    std::atomic<std::uint64_t> received{0};
    std::atomic<int> ready{0};
    std::int64_t samples[kWarmup + kLatencyMessages + 16];
};

Shared *shared()
{
    static Shared *s = [] {
        void *p = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        return new (p) Shared;
    }();
    return s;
}

void resetShared()
{
    shared()->sentNs = 0;
    shared()->received = 0;
    shared()->ready = 0;
}

// Called by receivers for each note-on that arrives.
void arrived()
{
    Shared *s = shared();
    std::uint64_t i = s->received.load(std::memory_order_relaxed);
    if (i < sizeof s->samples / sizeof s->samples[0]) {
        s->samples[i] = nowNs() - s->sentNs.load(std::memory_order_acquire);
    }
    s->received.store(i + 1, std::memory_order_release);
}

bool waitReady()
{
    std::int64_t start = nowNs();
    while (shared()->ready.load() == 0) {
        if (shared()->ready.load() < 0 || nowNs() - start > kWaitLimitNs) {
            return false;
        }
        usleep(1000);
    }
    return shared()->ready.load() > 0;
}

// Byte-stream receivers (pipe, Ambrel): every 3 bytes is one note-on.
[[noreturn]] void receiveBytes(int fd)
{
    shared()->ready = 1;
    unsigned char buf[4096];
    size_t pending = 0;
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) {
                continue;
            }
            _exit(0);
        }
        pending += size_t(n);
        while (pending >= 3) {
            pending -= 3;
            arrived();
        }
    }
}

// A write the transport may take in parts (a pipe, a port's back pressure).
bool writeAll(int fd, const unsigned char *bytes, size_t n)
{
    while (n > 0) {
        ssize_t w = write(fd, bytes, n);
        if (w <= 0) {
            if (w < 0 && errno == EINTR) {
                continue;
            }
            return false;
        }
        bytes += w;
        n -= size_t(w);
    }
    return true;
}

void stopChild(pid_t child)
{
    if (child > 0) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
}

// A server is asked to go (SIGTERM), and made to go if it has not within
// five seconds: jackd on the dummy backend has been seen to hang in its own
// shutdown, and a benchmark must not wait on it for ever.
void stopServer(pid_t server)
{
    if (server <= 0) {
        return;
    }
    kill(server, SIGTERM);
    for (int waited = 0; waited < 500; waited++) {
        if (waitpid(server, nullptr, WNOHANG) == server) {
            return;
        }
        usleep(10000);
    }
    std::fprintf(stderr, "process %d did not end on SIGTERM within 5 s; killed\n", int(server));
    stopChild(server);
}

// A transport: a receiver process and a way for this process to send.
struct Transport {
    virtual ~Transport() = default;
    virtual std::string start() = 0; // "" or why it cannot run
    // `count` note-ons (3 bytes each) in one call.
    virtual bool send(const unsigned char *notes, int count = 1) = 0;
    virtual void stop() = 0;
};

// A message that has not arrived after this long counts as lost (JACK drops
// events of a cycle its client missed); the run goes on without its sample.
constexpr std::int64_t kLostAfterNs = 500'000'000;

bool arrivedWithin(std::uint64_t target, std::int64_t limitNs)
{
    std::int64_t start = nowNs();
    int spins = 0;
    while (shared()->received.load(std::memory_order_acquire) < target) {
        if (++spins > 64) {
            sched_yield();
            if (nowNs() - start > limitNs) {
                return false;
            }
        }
    }
    return true;
}

void runLatency(benchmark::State &state, Transport &t)
{
    resetShared();
    std::string why = t.start();
    if (!why.empty()) {
        state.SkipWithError(why.c_str());
        t.stop();
        return;
    }
    const unsigned char note[3] = {0x90, 60, 100};
    std::uint64_t lost = 0;
    auto once = [&] {
        std::uint64_t target = shared()->received.load() + 1;
        shared()->sentNs.store(nowNs(), std::memory_order_release);
        if (!t.send(note)) {
            return false;
        }
        if (!arrivedWithin(target, kLostAfterNs)) {
            ++lost;
        }
        return true;
    };
    for (int i = 0; i < kWarmup; ++i) {
        if (!once()) {
            state.SkipWithError("send failed");
            t.stop();
            return;
        }
    }
    std::uint64_t first = shared()->received.load();
    std::uint64_t warmupLost = lost;
    for (auto _ : state) {
        if (!once()) {
            state.SkipWithError("send failed");
            break;
        }
    }
    t.stop();
    std::vector<double> us;
    std::uint64_t end = std::min<std::uint64_t>(shared()->received.load(), sizeof shared()->samples / 8);
    for (std::uint64_t i = first; i < end; ++i) {
        us.push_back(double(shared()->samples[i]) / 1000.0);
    }
    if (!us.empty()) {
        std::sort(us.begin(), us.end());
        state.counters["median_us"] = us[us.size() / 2];
        state.counters["p99_us"] = us[std::min(us.size() - 1, us.size() * 99 / 100)];
    }
    state.counters["lost"] = double(lost - warmupLost);
}

// state.range(0): messages per write.
void runThroughput(benchmark::State &state, Transport &t)
{
    resetShared();
    std::string why = t.start();
    if (!why.empty()) {
        state.SkipWithError(why.c_str());
        t.stop();
        return;
    }
    const int batch = int(state.range(0));
    std::vector<unsigned char> notes;
    for (int i = 0; i < batch; ++i) {
        notes.insert(notes.end(), {0x90, 60, 100});
    }
    std::uint64_t sent = 0;
    for (auto _ : state) {
        for (int i = 0; i < kBurst; i += batch) {
            if (!t.send(notes.data(), batch)) {
                state.SkipWithError("send failed");
                t.stop();
                return;
            }
        }
        sent += kBurst;
        // Until everything arrived, or nothing more arrives for a while.
        std::uint64_t seen = shared()->received.load();
        while (seen < sent && arrivedWithin(seen + 1, kLostAfterNs)) {
            seen = shared()->received.load();
        }
    }
    t.stop();
    std::uint64_t received = shared()->received.load();
    state.SetItemsProcessed(std::int64_t(received));
    state.counters["lost"] = double(sent - std::min(sent, received));
}

// ------------------------------------------------------------------ pipe
struct PipeTransport : Transport {
    int fds[2] = {-1, -1};
    pid_t child = -1;
    std::string start() override
    {
        if (pipe(fds) != 0) {
            return "pipe failed";
        }
        child = fork();
        if (child == 0) {
            close(fds[1]);
            receiveBytes(fds[0]);
        }
        close(fds[0]);
        return waitReady() ? "" : "receiver did not start";
    }
    bool send(const unsigned char *notes, int count) override { return writeAll(fds[1], notes, size_t(count) * 3); }
    void stop() override
    {
        close(fds[1]);
        stopChild(child);
    }
};

// ------------------------------------------------------------------ JACK
// Named after the benchmark process and numbered (children inherit the
// name, not the pid), so that a server never meets the remains of one
// killed before it.
std::string gJackServer;
const std::string &jackServerName()
{
    return gJackServer;
}

std::string gJackPeriod;
const std::string &jackPeriod()
{
    return gJackPeriod;
}

// jackd on the dummy backend under a new name; its clients find it through
// JACK_DEFAULT_SERVER too. The period: AMBREL_BENCH_JACK_PERIOD (64 frames
// by default), or for the round trip AMBREL_BENCH_ROUNDTRIP_PERIOD (256: at
// 64 frames the dummy backend on a busy machine runs late so often that
// jack_midi_latency_test loses messages even on a direct connection).
pid_t startJackd(bool roundTrip = false)
{
    static int serial = 0;
    gJackServer = "ambrel-bench-" + std::to_string(getpid()) + "-" + std::to_string(++serial);
    const char *periodEnv = std::getenv(roundTrip ? "AMBREL_BENCH_ROUNDTRIP_PERIOD" : "AMBREL_BENCH_JACK_PERIOD");
    gJackPeriod = periodEnv != nullptr ? periodEnv : roundTrip ? "256" : "64";
    setenv("JACK_DEFAULT_SERVER", jackServerName().c_str(), 1);
    jack_set_error_function([](const char *) {});
    jack_set_info_function([](const char *) {});
    std::string period = jackPeriod();
    pid_t server = fork();
    if (server == 0) {
        int devnull = open("/dev/null", O_WRONLY);
        dup2(devnull, 1);
        dup2(devnull, 2);
        const std::string &name = jackServerName();
        execlp("jackd", "jackd", "--no-realtime", "-t", "10000", "-n", name.c_str(), "-d", "dummy", "-r", "48000", "-p",
               period.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    return server;
}

struct JackSender {
    jack_client_t *client = nullptr;
    jack_port_t *port = nullptr;
    jack_ringbuffer_t *ring = nullptr;

    static int process(jack_nframes_t frames, void *arg)
    {
        auto *self = static_cast<JackSender *>(arg);
        void *buf = jack_port_get_buffer(self->port, frames);
        jack_midi_clear_buffer(buf);
        unsigned char note[3];
        while (jack_ringbuffer_read_space(self->ring) >= 3) {
            jack_ringbuffer_peek(self->ring, reinterpret_cast<char *>(note), 3);
            if (jack_midi_event_write(buf, 0, note, 3) != 0) {
                break; // port buffer full: the rest goes next cycle
            }
            jack_ringbuffer_read_advance(self->ring, 3);
        }
        return 0;
    }
};

int jackReceive(jack_nframes_t frames, void *arg)
{
    void *buf = jack_port_get_buffer(static_cast<jack_port_t *>(arg), frames);
    jack_nframes_t n = jack_midi_get_event_count(buf);
    for (jack_nframes_t i = 0; i < n; ++i) {
        arrived();
    }
    return 0;
}

jack_client_t *openJackClient(const char *name)
{
    const std::string &server = jackServerName();
    for (int attempt = 0; attempt < 100; ++attempt) {
        jack_status_t status;
        jack_client_t *c = jack_client_open(name, jack_options_t(JackNoStartServer | JackServerName), &status,
                                            server.c_str());
        if (c != nullptr) {
            return c;
        }
        usleep(50000);
    }
    return nullptr;
}

struct JackTransport : Transport {
    pid_t server = -1;
    pid_t child = -1;
    JackSender sender;

    std::string start() override
    {
        server = startJackd();
        child = fork();
        if (child == 0) {
            jack_client_t *c = openJackClient("recv");
            if (c == nullptr) {
                shared()->ready = -1;
                _exit(1);
            }
            jack_port_t *in = jack_port_register(c, "in", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
            jack_set_process_callback(c, jackReceive, in);
            if (in == nullptr || jack_activate(c) != 0) {
                shared()->ready = -1;
                _exit(1);
            }
            shared()->ready = 1;
            for (;;) {
                pause();
            }
        }
        if (!waitReady()) {
            return "jackd (dummy backend) did not start";
        }
        sender.client = openJackClient("send");
        if (sender.client == nullptr) {
            return "cannot connect to jackd";
        }
        sender.ring = jack_ringbuffer_create(1 << 20);
        sender.port = jack_port_register(sender.client, "out", JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0);
        jack_set_process_callback(sender.client, JackSender::process, &sender);
        if (sender.port == nullptr || jack_activate(sender.client) != 0) {
            return "cannot activate the sending client";
        }
        std::string from = std::string(jack_get_client_name(sender.client)) + ":out";
        if (jack_connect(sender.client, from.c_str(), "recv:in") != 0) {
            return "cannot connect the clients";
        }
        // Events sent before the graph carries the connection are dropped:
        // probe until one arrives, then start counting afresh.
        const unsigned char probe[3] = {0x90, 0, 1};
        std::int64_t begin = nowNs();
        while (shared()->received.load() == 0) {
            send(probe, 1);
            usleep(20000);
            if (nowNs() - begin > kWaitLimitNs) {
                return "the connection carries nothing";
            }
        }
        usleep(20000);
        shared()->received = 0;
        return "";
    }
    bool send(const unsigned char *notes, int count) override
    {
        // The ring drains once per cycle; a client jackd has dropped never drains it.
        std::int64_t start = nowNs();
        size_t n = size_t(count) * 3;
        while (jack_ringbuffer_write_space(sender.ring) < n) {
            if (nowNs() - start > kWaitLimitNs) {
                return false;
            }
            sched_yield();
        }
        return jack_ringbuffer_write(sender.ring, reinterpret_cast<const char *>(notes), n) == n;
    }
    void stop() override
    {
        if (sender.client != nullptr) {
            jack_deactivate(sender.client);
            jack_client_close(sender.client);
            sender.client = nullptr;
        }
        if (sender.ring != nullptr) {
            jack_ringbuffer_free(sender.ring);
            sender.ring = nullptr;
        }
        // The server first: killed under it, a client makes jackd wait for
        // it in its own shutdown past stopServer's patience, and a killed
        // jackd keeps its entry in the table of servers.
        stopServer(server);
        stopChild(child);
    }
};

// ------------------------------------------------------------------ Ambrel
struct AmbrelTransport : Transport {
    explicit AmbrelTransport(bool render) : render_(render) {}
    bool render_;
    pid_t daemon = -1;
    pid_t child = -1;
    int fd = -1;
    char mount[64] = "/tmp/ambrel-bench-XXXXXX";

    std::string start() override
    {
        if (geteuid() != 0 || access("/dev/fuse", R_OK | W_OK) != 0) {
            return "needs root and /dev/fuse";
        }
        if (mkdtemp(mount) == nullptr) {
            return "mkdtemp failed";
        }
        daemon = fork();
        if (daemon == 0) {
            int devnull = open("/dev/null", O_WRONLY);
            dup2(devnull, 1);
            dup2(devnull, 2);
            execl(AMBRELD_PATH, "ambreld", "-f", mount, static_cast<char *>(nullptr));
            _exit(127);
        }
        std::string ports = std::string(mount) + "/ports";
        std::int64_t begin = nowNs();
        struct stat st;
        while (stat(ports.c_str(), &st) != 0) {
            if (nowNs() - begin > kWaitLimitNs) {
                return "ambreld did not mount";
            }
            usleep(2000);
        }
        std::string control = std::string(mount) + "/Bench";
        std::string dir = std::string(mount) + "/ports/Bench/";
        child = fork();
        if (child == 0) {
            // Render: this child owns the port and reads what is played to
            // it. Capture: it records from the port's "in" file.
            int rfd;
            if (render_) {
                rfd = open(control.c_str(), O_RDONLY);
            } else {
                begin = nowNs();
                while (stat((dir + "in").c_str(), &st) != 0 && nowNs() - begin < kWaitLimitNs) {
                    usleep(1000);
                }
                rfd = open((dir + "in").c_str(), O_RDONLY);
            }
            if (rfd < 0) {
                shared()->ready = -1;
                _exit(1);
            }
            receiveBytes(rfd);
        }
        if (render_) {
            if (!waitReady()) {
                return "the port's owner did not start";
            }
            fd = open((dir + "out").c_str(), O_WRONLY);
        } else {
            fd = open(control.c_str(), O_WRONLY);
            if (fd >= 0 && !waitReady()) {
                return "the recording client did not start";
            }
        }
        return fd < 0 ? std::string("cannot open the port: ") + std::strerror(errno) : "";
    }
    bool send(const unsigned char *notes, int count) override { return writeAll(fd, notes, size_t(count) * 3); }
    void stop() override
    {
        stopChild(child);
        if (fd >= 0) {
            close(fd);
            fd = -1;
        }
        stopServer(daemon);
        rmdir(mount);
    }
};

// ------------------------------------------------------------------ round trip
// A JACK client that passes every event from its input to its output at the
// same frame of the same cycle: the direct path the bridge is measured
// against.
int passOn(jack_nframes_t frames, void *arg)
{
    auto **ports = static_cast<jack_port_t **>(arg);
    void *in = jack_port_get_buffer(ports[0], frames);
    void *out = jack_port_get_buffer(ports[1], frames);
    jack_midi_clear_buffer(out);
    for (std::uint32_t i = 0, n = jack_midi_get_event_count(in); i < n; ++i) {
        jack_midi_event_t e;
        if (jack_midi_event_get(&e, in, i) == 0) {
            jack_midi_event_write(out, e.time, e.buffer, e.size);
        }
    }
    return 0;
}

bool jackPortExists(const char *name)
{
    jack_client_t *c = openJackClient("probe");
    if (c == nullptr) {
        return false;
    }
    bool found = jack_port_by_name(c, name) != nullptr;
    jack_client_close(c);
    return found;
}

// Runs jack_midi_latency_test between `out` and `in`; its report in `text`.
std::string runLatencyTool(const char *out, const char *in, std::string *text)
{
    int fds[2];
    if (pipe(fds) != 0) {
        return "pipe failed";
    }
    pid_t tool = fork();
    if (tool == 0) {
        dup2(fds[1], 1);
        dup2(fds[1], 2);
        close(fds[0]);
        execlp("jack_midi_latency_test", "jack_midi_latency_test", "-s", "500", "-t", "5", out, in,
               static_cast<char *>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0) {
        text->append(buf, size_t(n));
    }
    close(fds[0]);
    int status = 0;
    waitpid(tool, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) == 127) {
        return "jack_midi_latency_test did not run (jackd2's example clients)";
    }
    return "";
}

// The tool's report (`why` says why it did not run, when it did not).
void reportRoundTrip(benchmark::State &state, const std::string &why, const std::string &text)
{
    if (!why.empty()) {
        state.SkipWithError(why.c_str());
        return;
    }
    std::smatch m;
    static const std::regex average(R"(Average latency: [0-9.]+ ms \(([0-9.]+) frames\))");
    static const std::regex highest(R"(Highest latency: [0-9.]+ ms \(([0-9]+) frames\))");
    static const std::regex lowest(R"(Lowest latency: [0-9.]+ ms \(([0-9]+) frames\))");
    if (!std::regex_search(text, m, average)) {
        state.SkipWithError(("no latency in jack_midi_latency_test's report: " + text.substr(0, 200)).c_str());
        return;
    }
    double period = std::stod(jackPeriod());
    state.counters["avg_frames"] = std::stod(m[1]);
    state.counters["avg_periods"] = std::stod(m[1]) / period;
    if (std::regex_search(text, m, highest)) {
        state.counters["max_frames"] = std::stod(m[1]);
    }
    if (std::regex_search(text, m, lowest)) {
        state.counters["min_frames"] = std::stod(m[1]);
    }
    state.counters["period_frames"] = period;
}

void BM_RoundTrip_Jack_Direct(benchmark::State &state)
{
    pid_t server = startJackd(true);
    pid_t pass = fork();
    if (pass == 0) {
        jack_client_t *c = openJackClient("pass");
        if (c == nullptr) {
            _exit(1);
        }
        static jack_port_t *ports[2];
        ports[0] = jack_port_register(c, "in", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
        ports[1] = jack_port_register(c, "out", JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0);
        jack_set_process_callback(c, passOn, ports);
        if (ports[0] == nullptr || ports[1] == nullptr || jack_activate(c) != 0) {
            _exit(1);
        }
        for (;;) {
            pause();
        }
    }
    std::int64_t begin = nowNs();
    while (!jackPortExists("pass:out") && nowNs() - begin < kWaitLimitNs) {
        usleep(20000);
    }
    std::string text, why;
    for (auto _ : state) {
        why = runLatencyTool("pass:in", "pass:out", &text);
    }
    stopServer(server); // before its client, as above
    stopChild(pass);
    reportRoundTrip(state, why, text);
}

void BM_RoundTrip_Jack_AmbrelEcho(benchmark::State &state)
{
    if (geteuid() != 0 || access("/dev/fuse", R_OK | W_OK) != 0) {
        state.SkipWithError("needs root and /dev/fuse");
        return;
    }
    char mount[64] = "/tmp/ambrel-bench-XXXXXX";
    if (mkdtemp(mount) == nullptr) {
        state.SkipWithError("mkdtemp failed");
        return;
    }
    pid_t server = startJackd(true);
    pid_t daemon = fork();
    if (daemon == 0) {
        int devnull = open("/dev/null", O_WRONLY);
        dup2(devnull, 1);
        dup2(devnull, 2);
        execl(AMBRELD_PATH, "ambreld", "-f", "--jack", mount, static_cast<char *>(nullptr));
        _exit(127);
    }
    std::string ports = std::string(mount) + "/ports";
    struct stat st;
    std::int64_t begin = nowNs();
    while (stat(ports.c_str(), &st) != 0 && nowNs() - begin < kWaitLimitNs) {
        usleep(2000);
    }
    pid_t echo = fork();
    if (echo == 0) {
        int devnull = open("/dev/null", O_WRONLY);
        dup2(devnull, 1);
        setenv("AMBREL_MOUNT", mount, 1);
        execl(AMBREL_ECHO_PATH, "ambrel-echo", "Echo", static_cast<char *>(nullptr));
        _exit(127);
    }
    begin = nowNs();
    while (!(jackPortExists("ambrel:Echo in") && jackPortExists("ambrel:Echo out")) &&
           nowNs() - begin < 2 * kWaitLimitNs) {
        usleep(20000);
    }
    std::string text, why;
    for (auto _ : state) {
        why = runLatencyTool("ambrel:Echo in", "ambrel:Echo out", &text);
    }
    stopServer(echo);
    stopServer(daemon);
    stopServer(server);
    rmdir(mount);
    reportRoundTrip(state, why, text);
}

void BM_Latency_Ambrel_Render(benchmark::State &state)
{
    AmbrelTransport t(true);
    runLatency(state, t);
}
void BM_Latency_Ambrel_Capture(benchmark::State &state)
{
    AmbrelTransport t(false);
    runLatency(state, t);
}
void BM_Latency_Jack(benchmark::State &state)
{
    JackTransport t;
    runLatency(state, t);
}
void BM_Latency_Pipe(benchmark::State &state)
{
    PipeTransport t;
    runLatency(state, t);
}
void BM_Throughput_Ambrel_Render(benchmark::State &state)
{
    AmbrelTransport t(true);
    runThroughput(state, t);
}
void BM_Throughput_Ambrel_Capture(benchmark::State &state)
{
    AmbrelTransport t(false);
    runThroughput(state, t);
}
void BM_Throughput_Jack(benchmark::State &state)
{
    JackTransport t;
    runThroughput(state, t);
}
void BM_Throughput_Pipe(benchmark::State &state)
{
    PipeTransport t;
    runThroughput(state, t);
}

BENCHMARK(BM_Latency_Ambrel_Render)->Iterations(kLatencyMessages)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Latency_Ambrel_Capture)->Iterations(kLatencyMessages)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Latency_Jack)->Iterations(kLatencyMessages)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Latency_Pipe)->Iterations(kLatencyMessages)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Throughput_Ambrel_Render)->Arg(1)->Arg(64)->Arg(1024)->Iterations(4)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Throughput_Ambrel_Capture)->Arg(1)->Arg(64)->Arg(1024)->Iterations(4)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Throughput_Jack)->Arg(1)->Iterations(4)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Throughput_Pipe)->Arg(1)->Arg(64)->Arg(1024)->Iterations(4)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RoundTrip_Jack_Direct)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RoundTrip_Jack_AmbrelEcho)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
