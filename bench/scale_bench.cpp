// Scale and churn of the whole driver, booted in the host kernel:
//  - BM_Scale512: the table's limit of ports open at once, each with the
//    filter's limit of 16 render and 8 capture streams running; one round of
//    traffic on every port (a note from one render pin read by the owner, a
//    note written by the owner heard by all 8 recorders). Counters: ports,
//    streams, the time to build it all, pool bytes per port by tag.
//  - BM_PortChurn: open and close of one port while N others stay open.
//  - BM_PortMemory: non-paged pool of one idle port by its SysEx size.
// --ambrel-driver=PATH runs them on that image instead of the host build.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <hostkernel/executive.h>
#include <hostkernel/io.h>
#include <hostkernel/midiclient.h>
#include <hostkernel/pnp.h>
#include <hostkernel/registry.h>

#include "ambrel_host.h"

namespace hk = hostkernel;
namespace midi = hostkernel::midi;
using Clock = std::chrono::steady_clock;

namespace {

std::string gImage; // empty: the host build

const GUID kMidi = {0x1D262760, 0xE957, 0x11CF, {0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00}};
const GUID kDirectMusic = {0x1A82F8BC, 0x3F8B, 0x11D2, {0xB7, 0x74, 0x00, 0x60, 0x08, 0x33, 0x16, 0xC1}};
constexpr ACCESS_MASK kReadWrite = FILE_GENERIC_READ | FILE_GENERIC_WRITE;
constexpr int kMaxPorts = 512, kRender = 16, kCapture = 8;

std::u16string portName(int i)
{
    std::u16string n = u"P";
    for (char c : std::to_string(i)) {
        n.push_back(char16_t(c));
    }
    return n;
}

class Boot {
public:
    explicit Boot(ULONG maxPorts)
    {
        hk::registry::setDword(hk::serviceKeyPath(u"ambrel") + u"\\Configuration", u"MaxPorts", maxPorts);
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        driver_ = ambrelhost::loadAmbrel(u"ambrel", gImage, &status);
        node_ = hk::addRootDevice(driver_);
        node_->start();
    }
    ~Boot()
    {
        hk::drainIo();
        node_->remove();
        node_.reset();
        hk::drainIo();
        hk::unloadDriver(driver_);
        hk::drainIo();
        hk::resetIoState();
    }

private:
    PDRIVER_OBJECT driver_ = nullptr;
    std::shared_ptr<hk::DeviceNode> node_;
};

struct Port {
    hk::Handle handle = 0;
    std::unique_ptr<midi::Filter> filter;
    std::vector<std::unique_ptr<midi::Pin>> render, capture;
};

size_t driverPoolBytes()
{
    return hk::poolStats(hk::tag("AmbR")).liveBytes + hk::poolStats(hk::tag("AmbP")).liveBytes +
           hk::poolStats(hk::tag("PcNw")).liveBytes;
}

void BM_Scale512(benchmark::State &state)
{
    Boot boot(kMaxPorts);
    hk::Process owner(100), client(200);
    std::vector<Port> ports(kMaxPorts);
    const size_t poolBefore = driverPoolBytes();
    const size_t ambRBefore = hk::poolStats(hk::tag("AmbR")).liveBytes;
    const size_t ambPBefore = hk::poolStats(hk::tag("AmbP")).liveBytes;
    const size_t pcNwBefore = hk::poolStats(hk::tag("PcNw")).liveBytes;
    const auto t0 = Clock::now();
    size_t streams = 0;
    for (int i = 0; i < kMaxPorts; i++) {
        Port &p = ports[i];
        if (owner.open(u"\\DosDevices\\Ambrel\\" + portName(i), kReadWrite, &p.handle) != STATUS_SUCCESS) {
            state.SkipWithError("a port did not open");
            return;
        }
        auto info = midi::findPort(portName(i));
        if (!info || midi::Filter::open(client, info->path, &p.filter) != STATUS_SUCCESS) {
            state.SkipWithError("a filter did not open");
            return;
        }
        // The 16 render streams are 8 on the MIDI pin and 8 on the
        // DirectMusic pin, as the filter describes them.
        auto legacyId = p.filter->findPin(KSPIN_DATAFLOW_IN, kMidi);
        auto dmusicId = p.filter->findPin(KSPIN_DATAFLOW_IN, kDirectMusic);
        auto captureId = p.filter->findPin(KSPIN_DATAFLOW_OUT, kMidi);
        if (!legacyId || !dmusicId || !captureId) {
            state.SkipWithError("the filter lacks a pin");
            return;
        }
        for (int k = 0; k < kRender + kCapture; k++) {
            std::unique_ptr<midi::Pin> pin;
            const bool render = k < kRender;
            const bool dmusic = k >= kRender / 2 && render;
            NTSTATUS s = midi::Pin::open(*p.filter, render ? (dmusic ? *dmusicId : *legacyId) : *captureId,
                                         dmusic ? kDirectMusic : kMidi, &pin);
            if (NT_SUCCESS(s)) {
                s = pin->setState(KSSTATE_RUN);
            }
            if (!NT_SUCCESS(s)) {
                char text[96];
                std::snprintf(text, sizeof(text), "port %d stream %d did not open: %08x", i, k, unsigned(s));
                state.SkipWithError(text);
                return;
            }
            (render ? p.render : p.capture).push_back(std::move(pin));
            streams++;
        }
    }
    const double setupSeconds = std::chrono::duration<double>(Clock::now() - t0).count();
    const double poolPerPort = double(driverPoolBytes() - poolBefore) / kMaxPorts;
    state.counters["AmbR_B_per_port"] = double(hk::poolStats(hk::tag("AmbR")).liveBytes - ambRBefore) / kMaxPorts;
    state.counters["AmbP_B_per_port"] = double(hk::poolStats(hk::tag("AmbP")).liveBytes - ambPBefore) / kMaxPorts;
    state.counters["PcNw_B_per_port"] = double(hk::poolStats(hk::tag("PcNw")).liveBytes - pcNwBefore) / kMaxPorts;

    const std::vector<uint8_t> note = {0x90, 0x3C, 0x40};
    size_t rounds = 0;
    for (auto _ : state) {
        for (Port &p : ports) {
            p.render[rounds % kRender]->send(note);
            uint8_t buffer[16];
            if (owner.read(p.handle, buffer, sizeof(buffer)).information != 3) {
                state.SkipWithError("the owner did not read the note");
                return;
            }
            owner.write(p.handle, note.data(), 3);
            for (auto &c : p.capture) {
                std::vector<midi::Message> heard;
                if (c->receive(&heard, std::chrono::seconds(5)) != STATUS_SUCCESS || heard.empty()) {
                    state.SkipWithError("a recorder heard nothing");
                    return;
                }
            }
        }
        rounds++;
    }
    state.counters["ports"] = kMaxPorts;
    state.counters["streams"] = double(streams);
    state.counters["setup_s"] = setupSeconds;
    state.counters["pool_B_per_port"] = poolPerPort;
    // One round moves 1 + 1 + 8 messages per port.
    state.counters["msgs_per_s"] = benchmark::Counter(double(rounds) * kMaxPorts * 10, benchmark::Counter::kIsRate);
    for (Port &p : ports) {
        p.render.clear();
        p.capture.clear();
        p.filter.reset();
        owner.close(p.handle);
    }
}
BENCHMARK(BM_Scale512)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_PortChurn(benchmark::State &state)
{
    const int others = int(state.range(0));
    Boot boot(kMaxPorts);
    hk::Process owner(100);
    std::vector<hk::Handle> open(others);
    for (int i = 0; i < others; i++) {
        owner.open(u"\\DosDevices\\Ambrel\\" + portName(i), kReadWrite, &open[i]);
    }
    for (auto _ : state) {
        hk::Handle h = 0;
        if (owner.open(u"\\DosDevices\\Ambrel\\Churn", kReadWrite, &h) != STATUS_SUCCESS) {
            state.SkipWithError("the churned port did not open");
            break;
        }
        owner.close(h);
    }
    state.counters["ports_per_s"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
    for (hk::Handle h : open) {
        owner.close(h);
    }
}
BENCHMARK(BM_PortChurn)->Arg(0)->Arg(511)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_PortMemory(benchmark::State &state)
{
    Boot boot(4);
    hk::Process owner(100);
    const std::u16string size = [&] {
        std::u16string s;
        for (char c : std::to_string(state.range(0))) {
            s.push_back(char16_t(c));
        }
        return s;
    }();
    size_t bytes = 0;
    for (auto _ : state) {
        const size_t before = driverPoolBytes();
        hk::Handle h = 0;
        if (owner.open(u"\\DosDevices\\Ambrel\\Mem\\" + size, kReadWrite, &h) != STATUS_SUCCESS) {
            state.SkipWithError("the port did not open");
            break;
        }
        bytes = driverPoolBytes() - before;
        owner.close(h);
    }
    state.counters["pool_B"] = double(bytes);
    state.counters["AmbR_B"] = 0; // filled below from one more open
    hk::Handle h = 0;
    owner.open(u"\\DosDevices\\Ambrel\\Mem\\" + size, kReadWrite, &h);
    state.counters["AmbR_B"] = double(hk::poolStats(hk::tag("AmbR")).liveBytes);
    owner.close(h);
}
// The smallest, the default and the largest System Exclusive size.
BENCHMARK(BM_PortMemory)->Arg(8176)->Arg(131056)->Arg(1048560)->Unit(benchmark::kMicrosecond)->UseRealTime();

} // namespace

int main(int argc, char **argv)
{
    gImage = ambrelhost::takeDriverFlag(&argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::AddCustomContext("driver", gImage.empty() ? "host build" : gImage);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
