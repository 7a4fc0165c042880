// The price of running the shipped image instead of the host build: one
// emulated `mov %cr8,%rax` (the DDK's inline KeGetCurrentIrql: a fault, the
// loader's handler, the executive's IRQL) against a call of the host's
// KeGetCurrentIrql, and one emulated read of KUSER_SHARED_DATA's interrupt
// time against KeQueryInterruptTime. The image's own call and return, with
// nothing to emulate, is the floor under both.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>

#include <hostkernel/loader.h>

#include "pewriter.h"

namespace {

namespace hk = hostkernel;
using Routine = std::uint64_t(__attribute__((ms_abi)) *)();

struct Probe {
    std::unique_ptr<hk::loader::Image> image;
    Routine readCr8 = nullptr, readInterruptTime = nullptr, plainReturn = nullptr;

    Probe()
    {
        petest::PeWriter writer;
        petest::Bytes code = {
            0x44, 0x0F, 0x20, 0xC0, 0xC3, 0xCC, 0xCC, 0xCC,             // mov %cr8,%rax; ret
            0x48, 0xA1, 0x08, 0x00, 0x00, 0x00, 0x80, 0xF7, 0xFF, 0xFF, // movabs 0xfffff78000000008,%rax
            0xC3, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC,                         // ret
            0x31, 0xC0, 0xC3,                                           // xor eax,eax; ret
        };
        std::uint32_t text = writer.addSection(".text", code, petest::kCode);
        writer.setEntry(text);
        petest::Bytes bytes = writer.build();
        if (hk::loader::loadImage(bytes.data(), bytes.size(), "probe.sys", &image) != STATUS_SUCCESS) {
            std::abort();
        }
        readCr8 = reinterpret_cast<Routine>(image->base() + text);
        readInterruptTime = reinterpret_cast<Routine>(image->base() + text + 8);
        plainReturn = reinterpret_cast<Routine>(image->base() + text + 24);
    }
};

Probe &probe()
{
    static Probe *p = new Probe;
    return *p;
}

void BM_Irql_ImageCr8Read(benchmark::State &state)
{
    Routine read = probe().readCr8;
    for (auto _ : state) {
        benchmark::DoNotOptimize(read());
    }
}
BENCHMARK(BM_Irql_ImageCr8Read);

void BM_Irql_HostKeGetCurrentIrql(benchmark::State &state)
{
    decltype(&KeGetCurrentIrql) volatile get = &KeGetCurrentIrql;
    for (auto _ : state) {
        benchmark::DoNotOptimize(get());
    }
}
BENCHMARK(BM_Irql_HostKeGetCurrentIrql);

void BM_Time_ImageSharedDataRead(benchmark::State &state)
{
    Routine read = probe().readInterruptTime;
    for (auto _ : state) {
        benchmark::DoNotOptimize(read());
    }
}
BENCHMARK(BM_Time_ImageSharedDataRead);

void BM_Time_HostKeQueryInterruptTime(benchmark::State &state)
{
    decltype(&KeQueryInterruptTime) volatile get = &KeQueryInterruptTime;
    for (auto _ : state) {
        benchmark::DoNotOptimize(get());
    }
}
BENCHMARK(BM_Time_HostKeQueryInterruptTime);

void BM_ImageCallAndReturn(benchmark::State &state)
{
    Routine call = probe().plainReturn;
    for (auto _ : state) {
        benchmark::DoNotOptimize(call());
    }
}
BENCHMARK(BM_ImageCallAndReturn);

} // namespace

BENCHMARK_MAIN();
