// Driver core against its peers on the same data:
//  - the MIDI byte parser against ALSA's byte encoder (snd_midi_event_encode_byte)
//    on three streams: channel messages under running status, SysEx-heavy
//    traffic, and channel traffic with real-time bytes interleaved;
//  - the port FIFO's put+get against memcpy of the same bytes, for 3-byte
//    messages and 4 KiB blocks (and against two memcpys, in and out, which is
//    the work a put and a get cannot avoid).
#include <alsa/asoundlib.h>
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "hostkernel/executive.h"
#include "miniport/fifo/portfifo.h"
#include "miniport/midiparser/midiparser.h"

namespace {

constexpr size_t kStreamBytes = 64 * 1024;
constexpr ULONG kSysexCapacity = 8176;

enum Stream { RunningStatus = 0, SysexHeavy = 1, RealTimeInterleaved = 2 };

std::vector<UCHAR> makeStream(Stream kind)
{
    std::mt19937 random(42);
    std::vector<UCHAR> s;
    auto data = [&] { return UCHAR(random() % 128); };
    while (s.size() < kStreamBytes) {
        switch (kind) {
        case RunningStatus:
            // A status now and then, long runs of note and controller data.
            s.push_back(UCHAR(0x90 | (random() % 16)));
            for (int i = 0; i < 32; i++) {
                s.push_back(data());
                s.push_back(data());
            }
            break;
        case SysexHeavy:
            s.push_back(0xF0);
            for (int i = 0, n = 64 + int(random() % 960); i < n; i++) {
                s.push_back(data());
            }
            s.push_back(0xF7);
            s.insert(s.end(), {UCHAR(0xB0 | (random() % 16)), data(), data()});
            break;
        case RealTimeInterleaved:
            s.push_back(UCHAR(0x80 | (random() % 0x60)));
            for (int i = 0; i < 16; i++) {
                s.push_back(data());
                s.push_back(0xF8); // clock between every data byte pair
                s.push_back(data());
                if (i % 4 == 0) {
                    s.push_back(0xFE);
                }
            }
            break;
        }
    }
    return s;
}

const char *streamName(Stream kind)
{
    static const char *names[] = {"running_status", "sysex_heavy", "realtime_interleaved"};
    return names[kind];
}

void BM_Parser_Ambrel(benchmark::State &state)
{
    const std::vector<UCHAR> stream = makeStream(Stream(state.range(0)));
    MidiParser *parser = MidiParserAlloc(nullptr, nullptr, kSysexCapacity);
    size_t messages = 0;
    for (auto _ : state) {
        for (UCHAR b : stream) {
            if (MidiParserPutByte(parser, b)) {
                PUCHAR message;
                ULONG length = MidiParserTake(parser, &message);
                benchmark::DoNotOptimize(message);
                messages += length != 0;
            }
        }
        // A SysEx-ending status leaves a one-byte message waiting at once.
        while (MidiParserPeek(parser) != 0) {
            PUCHAR message;
            messages += MidiParserTake(parser, &message) != 0;
        }
    }
    MidiParserFree(parser);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(stream.size()));
    state.counters["messages"] = benchmark::Counter(double(messages), benchmark::Counter::kIsRate);
    state.SetLabel(streamName(Stream(state.range(0))));
}

void BM_Parser_Alsa(benchmark::State &state)
{
    const std::vector<UCHAR> stream = makeStream(Stream(state.range(0)));
    snd_midi_event_t *encoder = nullptr;
    if (snd_midi_event_new(kSysexCapacity, &encoder) < 0) {
        state.SkipWithError("snd_midi_event_new failed");
        return;
    }
    size_t messages = 0;
    snd_seq_event_t event;
    for (auto _ : state) {
        for (UCHAR b : stream) {
            if (snd_midi_event_encode_byte(encoder, b, &event) == 1) {
                benchmark::DoNotOptimize(event);
                messages++;
            }
        }
    }
    snd_midi_event_free(encoder);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(stream.size()));
    state.counters["messages"] = benchmark::Counter(double(messages), benchmark::Counter::kIsRate);
    state.SetLabel(streamName(Stream(state.range(0))));
}

// One put and one get of `chunk` bytes per step through a port-sized FIFO, so
// the indices keep wrapping as in a long-running port.
void BM_Fifo_PutGet(benchmark::State &state)
{
    const ULONG chunk = ULONG(state.range(0));
    std::vector<UCHAR> in(chunk, 0x42), out(chunk);
    PortFifo fifo{};
    if (!NT_SUCCESS(fifo.FifoCreate(kSysexCapacity))) {
        state.SkipWithError("FifoCreate failed");
        return;
    }
    for (auto _ : state) {
        fifo.FifoPut(in.data(), chunk);
        ULONG n = fifo.FifoGet(out.data(), chunk);
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    fifo.FifoFree();
    state.SetBytesProcessed(int64_t(state.iterations()) * chunk);
}

void BM_Fifo_Memcpy(benchmark::State &state)
{
    const size_t chunk = size_t(state.range(0));
    std::vector<UCHAR> in(chunk, 0x42), out(chunk);
    for (auto _ : state) {
        std::memcpy(out.data(), in.data(), chunk);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(chunk));
}

// What put+get cannot beat: the same bytes copied into a staging area and out
// again, two plain copies with no ring logic around them.
void BM_Fifo_TwoMemcpy(benchmark::State &state)
{
    const size_t chunk = size_t(state.range(0));
    std::vector<UCHAR> in(chunk, 0x42), staging(2 * 4096), out(chunk);
    size_t at = 0;
    for (auto _ : state) {
        std::memcpy(staging.data() + at, in.data(), chunk);
        std::memcpy(out.data(), staging.data() + at, chunk);
        at = (at + chunk) % (staging.size() - chunk + 1);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(chunk));
}

BENCHMARK(BM_Parser_Ambrel)->Arg(RunningStatus)->Arg(SysexHeavy)->Arg(RealTimeInterleaved);
BENCHMARK(BM_Parser_Alsa)->Arg(RunningStatus)->Arg(SysexHeavy)->Arg(RealTimeInterleaved);
BENCHMARK(BM_Fifo_PutGet)->Arg(3)->Arg(4096);
BENCHMARK(BM_Fifo_Memcpy)->Arg(3)->Arg(4096);
BENCHMARK(BM_Fifo_TwoMemcpy)->Arg(3)->Arg(4096);

} // namespace

BENCHMARK_MAIN();
