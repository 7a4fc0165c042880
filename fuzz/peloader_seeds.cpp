// Writes the image loader fuzzer's hand-made seeds (fuzz/corpus/peloader/):
// small valid drivers of the shapes the loader handles, built with the test
// support's PE writer. scripts/fuzz.sh adds the real ambrel.sys when the
// Windows build is there.
//
//   build/fuzz/fuzz/peloader_seeds fuzz/corpus/peloader
#include <fstream>
#include <string>

#include "pewriter.h"

namespace {

void write(const std::string &dir, const char *name, const petest::Bytes &bytes)
{
    std::ofstream(dir + "/" + name, std::ios::binary)
        .write(reinterpret_cast<const char *>(bytes.data()), std::streamsize(bytes.size()));
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        return 2;
    }
    std::string dir = argv[1];
    using petest::Bytes;

    petest::PeWriter minimal;
    minimal.setEntry(minimal.addSection(".text", {0x31, 0xC0, 0xC3}, petest::kCode));
    write(dir, "minimal.sys", minimal.build());

    // Code, relocated data with a zeroed tail, INIT, imports from all three modules.
    petest::PeWriter full;
    std::uint32_t text = full.addSection(".text", {0x44, 0x0F, 0x20, 0xC0, 0xC3}, petest::kCode);
    Bytes pointers(16);
    petest::put<std::uint64_t>(pointers, 0, petest::kImageBase + text);
    petest::put<std::uint64_t>(pointers, 8, petest::kImageBase + text + 4);
    std::uint32_t data = full.addSection(".data", pointers, petest::kData, 0x1800);
    full.setEntry(full.addSection("INIT", {0x31, 0xC0, 0xC3}, petest::kCode | petest::kDiscardable));
    full.addRelocation(data);
    full.addRelocation(data + 8);
    full.addImport("ntoskrnl.exe", {"DbgPrint", "KeGetCurrentIrql", "memcpy", "memset"});
    full.addImport("HAL.DLL", {"KeQueryPerformanceCounter"});
    full.addImport("portcls.sys", {"PcInitializeAdapterDriver", "PcAddAdapterDevice"});
    write(dir, "full.sys", full.build());
    return 0;
}
