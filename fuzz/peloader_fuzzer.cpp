// The image loader on malformed files: map, relocate and bind, never run.
// Every input must end in a refusal or in an image that is whole: sections
// inside the mapping, none both writable and executable, the entry point in
// code. The mapping goes with the image; ASan and the fuzzer's memory limit
// see one left behind.
#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "hostkernel/loader.h"

namespace {

void check(bool ok)
{
    if (!ok) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::unique_ptr<hostkernel::loader::Image> image;
    NTSTATUS status = hostkernel::loader::loadImage(data, size, "fuzz.sys", &image);
    check(NT_SUCCESS(status) == (image != nullptr));
    if (image == nullptr) {
        return 0;
    }
    bool entryInCode = false;
    for (const auto &s : image->sections()) {
        check(s.address >= image->base() && s.address + s.size <= image->base() + image->size());
        check((s.protection & (PROT_WRITE | PROT_EXEC)) != (PROT_WRITE | PROT_EXEC));
        entryInCode |= (s.protection & PROT_EXEC) != 0 && image->entryPoint() >= s.address &&
                       image->entryPoint() < s.address + s.size;
    }
    check(entryInCode);
    return 0;
}
