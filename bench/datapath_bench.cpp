// The MIDI data paths of the whole driver, booted in the host kernel, each
// against a pipe carrying the same bytes between the same two threads:
//  - render: a client's render pin sends messages (one per request, 3-byte
//    note-ons and 1 KiB SysEx); the application reads them from its handle;
//  - capture: the application writes note-ons; 1 or 8 clients receive them
//    on their capture pins;
//  - latency of one note-on from a client's render pin to an application
//    read that waits for it (p50 and p99 as counters, microseconds).
// With --ambrel-driver=PATH every Ambrel case runs a second time on that
// image ("..._AmbrelImage"), in the same run, so the two builds compare as a
// ratio (scripts/bench.sh passes the Windows build's ambrel.sys).
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include <hostkernel/executive.h>
#include <hostkernel/io.h>
#include <hostkernel/midiclient.h>
#include <hostkernel/pnp.h>
#include <hostkernel/portcls.h>

#include "ambrel_host.h"

namespace hk = hostkernel;
namespace midi = hostkernel::midi;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr int kMessagesPerRound = 256;
constexpr ULONG kReadSize = 64 * 1024;
const GUID kMidi = {0x1D262760, 0xE957, 0x11CF, {0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00}};

Bytes noteOn() { return {0x90, 0x3C, 0x40}; }
Bytes sysex1k()
{
    Bytes b(1024, 0x55);
    b.front() = 0xF0;
    b.back() = 0xF7;
    return b;
}

// The driver loaded and started, one application that owns port "Bench",
// and a client process with the port's filter open.
class System {
public:
    // An empty image: the host build.
    explicit System(const std::string &image)
    {
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        driver_ = ambrelhost::loadAmbrel(u"ambrel", image, &status);
        node_ = hk::addRootDevice(driver_);
        node_->start();
        hk::setCaptureQueueLimit(64u << 20);
        app.open(u"\\DosDevices\\Ambrel\\Bench", FILE_GENERIC_READ | FILE_GENERIC_WRITE, &appHandle);
        auto port = midi::findPort(u"Bench");
        if (port) {
            midi::Filter::open(client, port->path, &filter);
        }
    }
    ~System()
    {
        pins.clear();
        filter.reset();
        app.close(appHandle);
        hk::drainIo();
        node_->remove();
        hk::unloadDriver(driver_);
        hk::drainIo();
    }
    bool ok() const { return filter != nullptr; }

    midi::Pin *pin(ULONG pinId)
    {
        std::unique_ptr<midi::Pin> p;
        if (!filter || !NT_SUCCESS(midi::Pin::open(*filter, pinId, kMidi, &p)) || !NT_SUCCESS(p->setState(KSSTATE_RUN))) {
            return nullptr;
        }
        pins.push_back(std::move(p));
        return pins.back().get();
    }

    hk::Process app{100};
    hk::Process client{200};
    hk::Handle appHandle = 0;
    std::unique_ptr<midi::Filter> filter;
    std::vector<std::unique_ptr<midi::Pin>> pins;

private:
    PDRIVER_OBJECT driver_ = nullptr;
    std::shared_ptr<hk::DeviceNode> node_;
};

struct Pipe {
    Pipe()
    {
        ok = pipe(fds) == 0;
        if (ok) {
            fcntl(fds[1], F_SETPIPE_SZ, 1 << 20);
        }
    }
    ~Pipe()
    {
        if (ok) {
            close(fds[0]);
            close(fds[1]);
        }
    }
    int fds[2];
    bool ok;
};

// ------------------------------------------------------------------ render

// A round never holds more than half the port FIFO (128 KiB): a System
// Exclusive message that completes while the FIFO is full waits in the parser
// for the client's next event, and a round's last message has none after it.
int messagesPerRound(const Bytes &message)
{
    return std::min<int>(kMessagesPerRound, (int)(65536 / message.size()));
}

void renderThroughAmbrel(benchmark::State &state, const std::string &image, const Bytes &message)
{
    System system(image);
    midi::Pin *pin = system.pin(0);
    if (pin == nullptr) {
        state.SkipWithError("no render pin");
        return;
    }
    const int messages = messagesPerRound(message);
    const size_t roundBytes = message.size() * messages;
    Bytes buffer(kReadSize);
    for (auto _ : state) {
        std::thread player([&] {
            for (int i = 0; i < messages; i++) {
                pin->send(message);
            }
        });
        size_t received = 0;
        while (received < roundBytes) {
            received += system.app.read(system.appHandle, buffer.data(), kReadSize).information;
        }
        player.join();
    }
    state.SetItemsProcessed(state.iterations() * messages);
    state.SetBytesProcessed(state.iterations() * (int64_t)roundBytes);
}

void renderThroughPipe(benchmark::State &state, const Bytes &message)
{
    Pipe p;
    const int messages = messagesPerRound(message);
    const size_t roundBytes = message.size() * messages;
    Bytes buffer(kReadSize);
    for (auto _ : state) {
        std::thread player([&] {
            for (int i = 0; i < messages; i++) {
                benchmark::DoNotOptimize(write(p.fds[1], message.data(), message.size()));
            }
        });
        size_t received = 0;
        while (received < roundBytes) {
            ssize_t n = read(p.fds[0], buffer.data(), buffer.size());
            received += n > 0 ? (size_t)n : 0;
        }
        player.join();
    }
    state.SetItemsProcessed(state.iterations() * messages);
    state.SetBytesProcessed(state.iterations() * (int64_t)roundBytes);
}

void BM_Render_NoteOn_Ambrel(benchmark::State &state, const std::string &image)
{
    renderThroughAmbrel(state, image, noteOn());
}
void BM_Render_NoteOn_Pipe(benchmark::State &state) { renderThroughPipe(state, noteOn()); }
void BM_Render_Sysex1K_Ambrel(benchmark::State &state, const std::string &image)
{
    renderThroughAmbrel(state, image, sysex1k());
}
void BM_Render_Sysex1K_Pipe(benchmark::State &state) { renderThroughPipe(state, sysex1k()); }

// ------------------------------------------------------------------ capture

// Readers count the bytes that reach them; the writing thread waits until
// every reader has all of a round.
void captureRounds(benchmark::State &state, const std::vector<std::atomic<size_t>> &received,
                   const std::function<void()> &writeRound)
{
    size_t expected = 0;
    for (auto _ : state) {
        writeRound();
        expected += noteOn().size() * kMessagesPerRound;
        for (const auto &r : received) {
            while (r.load() < expected) {
                std::this_thread::yield();
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * kMessagesPerRound);
}

void BM_Capture_Ambrel(benchmark::State &state, const std::string &image)
{
    const int clients = (int)state.range(0);
    System system(image);
    std::vector<midi::Pin *> pins;
    for (int i = 0; i < clients; i++) {
        pins.push_back(system.pin(4));
        if (pins.back() == nullptr) {
            state.SkipWithError("no capture pin");
            return;
        }
    }
    std::atomic<bool> stop{false};
    std::vector<std::atomic<size_t>> received(clients);
    std::vector<std::thread> readers;
    for (int i = 0; i < clients; i++) {
        readers.emplace_back([&, i] {
            while (!stop) {
                std::vector<midi::Message> messages;
                if (pins[i]->receive(&messages, std::chrono::milliseconds(20), kReadSize) == STATUS_SUCCESS) {
                    for (const midi::Message &m : messages) {
                        received[i] += m.bytes.size();
                    }
                }
            }
        });
    }
    Bytes message = noteOn();
    captureRounds(state, received, [&] {
        for (int m = 0; m < kMessagesPerRound; m++) {
            system.app.write(system.appHandle, message.data(), (ULONG)message.size());
        }
    });
    stop = true;
    for (std::thread &t : readers) {
        t.join();
    }
}

void BM_Capture_Pipe(benchmark::State &state)
{
    const int clients = (int)state.range(0);
    std::vector<std::unique_ptr<Pipe>> pipes;
    for (int i = 0; i < clients; i++) {
        pipes.push_back(std::make_unique<Pipe>());
    }
    std::atomic<bool> stop{false};
    std::vector<std::atomic<size_t>> received(clients);
    std::vector<std::thread> readers;
    for (int i = 0; i < clients; i++) {
        readers.emplace_back([&, i] {
            Bytes buffer(kReadSize);
            struct pollfd p = {pipes[i]->fds[0], POLLIN, 0};
            while (!stop) {
                if (poll(&p, 1, 20) > 0) {
                    ssize_t n = read(pipes[i]->fds[0], buffer.data(), buffer.size());
                    received[i] += n > 0 ? (size_t)n : 0;
                }
            }
        });
    }
    Bytes message = noteOn();
    captureRounds(state, received, [&] {
        for (int m = 0; m < kMessagesPerRound; m++) {
            for (auto &p : pipes) {
                benchmark::DoNotOptimize(write(p->fds[1], message.data(), message.size()));
            }
        }
    });
    stop = true;
    for (std::thread &t : readers) {
        t.join();
    }
}

// ------------------------------------------------------------------ latency

void reportLatencies(benchmark::State &state, std::vector<double> &us)
{
    if (us.empty()) {
        return;
    }
    std::sort(us.begin(), us.end());
    state.counters["p50_us"] = us[us.size() / 2];
    state.counters["p99_us"] = us[std::min(us.size() - 1, us.size() * 99 / 100)];
}

// One iteration: a reader thread blocks in its read; once it has surely
// blocked, the clock starts and one note-on is sent; the clock stops when
// the reader wakes with it.
void measureLatency(benchmark::State &state, const std::function<void()> &blockingRead,
                    const std::function<void()> &send)
{
    std::vector<double> us;
    for (auto _ : state) {
        std::atomic<bool> reading{false};
        Clock::time_point woke;
        std::thread reader([&] {
            reading = true;
            blockingRead();
            woke = Clock::now();
        });
        while (!reading) {
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(std::chrono::microseconds(300));
        Clock::time_point start = Clock::now();
        send();
        reader.join();
        us.push_back(std::chrono::duration<double, std::micro>(woke - start).count());
    }
    reportLatencies(state, us);
}

void BM_Latency_NoteOn_Ambrel(benchmark::State &state, const std::string &image)
{
    System system(image);
    midi::Pin *pin = system.pin(0);
    if (pin == nullptr) {
        state.SkipWithError("no render pin");
        return;
    }
    Bytes buffer(16), note = noteOn();
    measureLatency(
        state, [&] { system.app.read(system.appHandle, buffer.data(), (ULONG)buffer.size()); },
        [&] { pin->send(note); });
}

void BM_Latency_NoteOn_Pipe(benchmark::State &state)
{
    Pipe p;
    Bytes buffer(16), note = noteOn();
    measureLatency(
        state, [&] { benchmark::DoNotOptimize(read(p.fds[0], buffer.data(), buffer.size())); },
        [&] { benchmark::DoNotOptimize(write(p.fds[1], note.data(), note.size())); });
}

// Each Ambrel case once per build: "_Ambrel" the host build, "_AmbrelImage"
// the image; the pipe between them.
void registerAmbrel(const std::string &image)
{
    const std::string suffix = image.empty() ? "_Ambrel" : "_AmbrelImage";
    benchmark::RegisterBenchmark(("BM_Render_NoteOn" + suffix).c_str(), BM_Render_NoteOn_Ambrel, image)
        ->UseRealTime();
    benchmark::RegisterBenchmark(("BM_Render_Sysex1K" + suffix).c_str(), BM_Render_Sysex1K_Ambrel, image)
        ->UseRealTime();
    benchmark::RegisterBenchmark(("BM_Capture" + suffix).c_str(), BM_Capture_Ambrel, image)
        ->Arg(1)
        ->Arg(8)
        ->UseRealTime();
    benchmark::RegisterBenchmark(("BM_Latency_NoteOn" + suffix).c_str(), BM_Latency_NoteOn_Ambrel, image)
        ->UseRealTime()
        ->Iterations(1000);
}

} // namespace

int main(int argc, char **argv)
{
    const std::string image = ambrelhost::takeDriverFlag(&argc, argv);
    registerAmbrel("");
    if (!image.empty()) {
        registerAmbrel(image);
    }
    benchmark::RegisterBenchmark("BM_Render_NoteOn_Pipe", BM_Render_NoteOn_Pipe)->UseRealTime();
    benchmark::RegisterBenchmark("BM_Render_Sysex1K_Pipe", BM_Render_Sysex1K_Pipe)->UseRealTime();
    benchmark::RegisterBenchmark("BM_Capture_Pipe", BM_Capture_Pipe)->Arg(1)->Arg(8)->UseRealTime();
    benchmark::RegisterBenchmark("BM_Latency_NoteOn_Pipe", BM_Latency_NoteOn_Pipe)->UseRealTime()->Iterations(1000);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
