// Mapping a PE32+ driver image: header checks, sections with their
// protections, base relocations and import binding.
//
// Every offset and size comes from the file and is checked before use, in
// 64-bit arithmetic so no sum wraps. The refusals use the statuses the
// Windows loader gives: no "MZ" is STATUS_INVALID_IMAGE_NOT_MZ; an e_lfanew
// that is misaligned or points past the file, or no "PE\0\0" there, is
// STATUS_INVALID_IMAGE_PROTECT (the kernel's answer for "not a PE image");
// a section that is both writable and executable is STATUS_INVALID_IMAGE_PROTECT
// too, since the host never maps memory both; every other inconsistency is
// STATUS_INVALID_IMAGE_FORMAT. Imports: an unknown module is
// STATUS_DLL_NOT_FOUND, a routine the host lacks (or a variable)
// STATUS_PROCEDURE_NOT_FOUND, an import by ordinal STATUS_ORDINAL_NOT_FOUND
// (the host's exports have names only).
//
// A driver here is what the kernel loads as one: AMD64, PE32+, an executable
// image for the native subsystem with its relocations, an entry point in
// code, and no TLS or delay-load imports, which the kernel does not provide
// to drivers. The DLL flag is allowed: the MinGW linker sets it on every
// driver it links with -shared, and kernel-mode DLLs are loaded the same way.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#include "../executive/internal.h"
#include "internal.h"

namespace hostkernel::loader {

namespace {

constexpr std::uint16_t kMachineAmd64 = 0x8664;
constexpr std::uint16_t kMagicPe32Plus = 0x20B;
constexpr std::uint16_t kMagicPe32 = 0x10B;
constexpr std::uint16_t kSubsystemNative = 1;
constexpr std::uint16_t kFileRelocsStripped = 0x0001;
constexpr std::uint16_t kFileExecutableImage = 0x0002;
constexpr std::uint32_t kScnCode = 0x00000020;
constexpr std::uint32_t kScnUninitializedData = 0x00000080;
constexpr std::uint32_t kScnDiscardable = 0x02000000;
constexpr std::uint32_t kScnExecute = 0x20000000;
constexpr std::uint32_t kScnWrite = 0x80000000;
constexpr unsigned kMaxSections = 96; // the Windows loader's limit
constexpr std::uint64_t kMaxImageSize = 256ull << 20;
constexpr unsigned kDirImport = 1, kDirBaseReloc = 5, kDirTls = 9, kDirDelayImport = 13;
constexpr unsigned kRelAbsolute = 0, kRelDir64 = 10;
constexpr std::uint64_t kOrdinalFlag = 1ull << 63;
constexpr std::size_t kLongestImportName = 512;

std::size_t pageSize()
{
    static const std::size_t size = std::size_t(sysconf(_SC_PAGESIZE));
    return size;
}

std::uint64_t alignUp(std::uint64_t v, std::uint64_t a)
{
    return (v + a - 1) & ~(a - 1);
}

bool powerOfTwo(std::uint64_t v)
{
    return v != 0 && (v & (v - 1)) == 0;
}

std::string hex(std::uint64_t v)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(v));
    return text;
}

// Little-endian reads from a bounded buffer; the caller checked the range.
template <typename T> T read(const std::uint8_t *p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

struct Refusal {
    NTSTATUS status;
    std::string cause;
};

struct RawSection {
    std::string name;
    std::uint32_t virtualSize, virtualAddress, rawSize, rawPointer, characteristics;
};

struct Headers {
    std::uint16_t characteristics = 0;
    std::uint64_t imageBase = 0;
    std::uint32_t entry = 0, sectionAlignment = 0, fileAlignment = 0, sizeOfImage = 0, sizeOfHeaders = 0;
    std::uint32_t dirRva[16] = {}, dirSize[16] = {};
    std::vector<RawSection> sections;
};

bool executable(const RawSection &s)
{
    return (s.characteristics & (kScnExecute | kScnCode)) != 0;
}

// Windows discards INIT sections by name, whatever their flags say.
bool discardable(const RawSection &s)
{
    return (s.characteristics & kScnDiscardable) != 0 || s.name.compare(0, 4, "INIT") == 0;
}

std::uint64_t mappedSize(const RawSection &s, std::uint32_t sectionAlignment)
{
    std::uint64_t bytes = s.virtualSize != 0 ? s.virtualSize : s.rawSize;
    return alignUp(bytes, sectionAlignment);
}

class Loader {
public:
    Loader(const std::uint8_t *bytes, std::size_t size) : bytes_(bytes), size_(size) {}

    bool parse(Headers *h, Refusal *r);
    bool map(const Headers &h, Image &image, Refusal *r);

private:
    bool fileHas(std::uint64_t offset, std::uint64_t length) const
    {
        return offset <= size_ && length <= size_ - offset;
    }
    bool imageHas(std::uint64_t rva, std::uint64_t length) const
    {
        return rva <= imageSize_ && length <= imageSize_ - rva;
    }
    // A NUL-terminated string at `rva` inside the image, at most `longest`
    // characters; false when it runs off the image or past the limit.
    bool imageString(std::uint64_t rva, std::size_t longest, std::string *out) const
    {
        out->clear();
        for (std::uint64_t i = rva; i < imageSize_; i++) {
            char c = char(mapped_[i]);
            if (c == '\0') {
                return true;
            }
            if (out->size() == longest) {
                return false;
            }
            out->push_back(c);
        }
        return false;
    }
    bool relocate(const Headers &h, std::uint64_t delta, Refusal *r);
    bool bindImports(const Headers &h, Refusal *r);

    const std::uint8_t *bytes_;
    std::size_t size_;
    std::uint8_t *mapped_ = nullptr;
    std::uint64_t imageSize_ = 0;
};

bool fail(Refusal *r, NTSTATUS status, std::string cause)
{
    r->status = status;
    r->cause = std::move(cause);
    return false;
}

bool Loader::parse(Headers *h, Refusal *r)
{
    if (size_ < 2 || bytes_[0] != 'M' || bytes_[1] != 'Z') {
        return fail(r, STATUS_INVALID_IMAGE_NOT_MZ, "no MZ header");
    }
    if (size_ < 0x40) {
        return fail(r, STATUS_INVALID_IMAGE_PROTECT, "DOS header truncated at " + std::to_string(size_) + " bytes");
    }
    std::uint32_t ntOffset = read<std::uint32_t>(bytes_ + 0x3C);
    if ((ntOffset & 3) != 0 || !fileHas(ntOffset, 4 + 20)) {
        return fail(r, STATUS_INVALID_IMAGE_PROTECT, "e_lfanew " + hex(ntOffset) + " is not a header in the file");
    }
    if (std::memcmp(bytes_ + ntOffset, "PE\0\0", 4) != 0) {
        return fail(r, STATUS_INVALID_IMAGE_PROTECT, "no PE signature at " + hex(ntOffset));
    }
    const std::uint8_t *coff = bytes_ + ntOffset + 4;
    std::uint16_t machine = read<std::uint16_t>(coff);
    std::uint16_t sectionCount = read<std::uint16_t>(coff + 2);
    std::uint16_t optionalSize = read<std::uint16_t>(coff + 16);
    h->characteristics = read<std::uint16_t>(coff + 18);
    if (machine != kMachineAmd64) {
        return fail(r, STATUS_INVALID_IMAGE_FORMAT, "machine " + hex(machine) + " is not AMD64");
    }
    std::uint64_t optionalOffset = std::uint64_t(ntOffset) + 24;
    if (!fileHas(optionalOffset, 2) || optionalSize < 2) {
        return fail(r, STATUS_INVALID_IMAGE_FORMAT, "optional header truncated");
    }
    const std::uint8_t *opt = bytes_ + optionalOffset;
    std::uint16_t magic = read<std::uint16_t>(opt);
    if (magic != kMagicPe32Plus) {
        return fail(r, STATUS_INVALID_IMAGE_FORMAT,
                    magic == kMagicPe32 ? "a PE32 image, not PE32+" : "optional header magic " + hex(magic));
    }
    if (optionalSize < 112 || !fileHas(optionalOffset, optionalSize)) {
        return fail(r, STATUS_INVALID_IMAGE_FORMAT, "optional header truncated");
    }
    if ((h->characteristics & kFileExecutableImage) == 0) {
        return fail(r, STATUS_INVALID_IMAGE_FORMAT, "not an executable image (an object file?)");
    }
    if ((h->characteristics & kFileRelocsStripped) != 0) {
        return fail(r, STATUS_INVALID_IMAGE_FORMAT, "relocations stripped: the image can only run at its base");
    }
    h->entry = read<std::uint32_t>(opt + 16);
    h->imageBase = read<std::uint64_t>(opt + 24);
    h->sectionAlignment = read<std::uint32_t>(opt + 32);
    h->fileAlignment = read<std::uint32_t>(opt + 36);
    h->sizeOfImage = read<std::uint32_t>(opt + 56);
    h->sizeOfHeaders = read<std::uint32_t>(opt + 60);
    std::uint16_t subsystem = read<std::uint16_t>(opt + 68);
    std::uint32_t dirCount = read<std::uint32_t>(opt + 108);
    if (subsystem != kSubsystemNative) {
        return fail(r, STATUS_INVALID_IMAGE_FORMAT,
                    "subsystem " + std::to_string(subsystem) + " is not native: not a driver");
    }
    if (!powerOfTwo(h->sectionAlignment) || h->sectionAlignment < pageSize() || !powerOfTwo(h->fileAlignment) ||
        h->fileAlignment < 512 || h->fileAlignment > 65536 || h->fileAlignment > h->sectionAlignment) {
        return fail(r, STATUS_INVALID_IMAGE_FORMAT,
                    "section alignment " + hex(h->sectionAlignment) + " / file alignment " + hex(h->fileAlignment));
    }
    if ((h->imageBase & 0xFFFF) != 0) {
        return fail(r, STATUS_INVALID_IMAGE_FORMAT, "image base " + hex(h->imageBase) + " is not 64K-aligned");
    }
    if (h->sizeOfImage == 0 || h->sizeOfImage > kMaxImageSize) {
        return fail(r, STATUS_INVALID_IMAGE_FORMAT, "size of image " + hex(h->sizeOfImage));
    }
    if (std::uint64_t(dirCount) * 8 > optionalSize - 112u) {
        return fail(r, STATUS_INVALID_IMAGE_FORMAT,
                    std::to_string(dirCount) + " data directories do not fit the optional header");
    }
    for (unsigned i = 0; i < std::min(dirCount, 16u); i++) {
        h->dirRva[i] = read<std::uint32_t>(opt + 112 + 8 * i);
        h->dirSize[i] = read<std::uint32_t>(opt + 116 + 8 * i);
        if (h->dirSize[i] != 0 && (h->dirRva[i] == 0 || std::uint64_t(h->dirRva[i]) + h->dirSize[i] > h->sizeOfImage)) {
            return fail(r, STATUS_INVALID_IMAGE_FORMAT, "data directory " + std::to_string(i) + " out of the image");
        }
    }
    if (h->dirSize[kDirTls] != 0) {
        return fail(r, STATUS_INVALID_IMAGE_FORMAT, "a TLS directory, which kernel images cannot have");
    }
    if (h->dirSize[kDirDelayImport] != 0) {
        return fail(r, STATUS_INVALID_IMAGE_FORMAT, "delay-load imports, which kernel images cannot have");
    }

    // The section table.
    if (sectionCount == 0 || sectionCount > kMaxSections) {
        return fail(r, STATUS_INVALID_IMAGE_FORMAT, std::to_string(sectionCount) + " sections");
    }
    std::uint64_t tableOffset = optionalOffset + optionalSize;
    std::uint64_t tableEnd = tableOffset + 40ull * sectionCount;
    if (!fileHas(tableOffset, tableEnd - tableOffset)) {
        return fail(r, STATUS_INVALID_IMAGE_FORMAT, "section table beyond the end of the file");
    }
    if (h->sizeOfHeaders < tableEnd || h->sizeOfHeaders > size_) {
        return fail(r, STATUS_INVALID_IMAGE_FORMAT, "size of headers " + hex(h->sizeOfHeaders));
    }
    std::uint64_t nextFree = alignUp(h->sizeOfHeaders, h->sectionAlignment);
    for (unsigned i = 0; i < sectionCount; i++) {
        const std::uint8_t *entry = bytes_ + tableOffset + 40 * i;
        RawSection s;
        s.name.assign(reinterpret_cast<const char *>(entry), strnlen(reinterpret_cast<const char *>(entry), 8));
        s.virtualSize = read<std::uint32_t>(entry + 8);
        s.virtualAddress = read<std::uint32_t>(entry + 12);
        s.rawSize = read<std::uint32_t>(entry + 16);
        s.rawPointer = read<std::uint32_t>(entry + 20);
        s.characteristics = read<std::uint32_t>(entry + 36);
        std::string which = "section " + std::to_string(i + 1) + " (" + s.name + ")";
        if (s.virtualAddress % h->sectionAlignment != 0) {
            return fail(r, STATUS_INVALID_IMAGE_FORMAT, which + " is not aligned to the section alignment");
        }
        if (s.virtualAddress < nextFree) {
            return fail(r, STATUS_INVALID_IMAGE_FORMAT, which + " overlaps the headers or the section before it");
        }
        std::uint64_t span = mappedSize(s, h->sectionAlignment);
        if (span == 0 || std::uint64_t(s.virtualAddress) + span > alignUp(h->sizeOfImage, h->sectionAlignment)) {
            return fail(r, STATUS_INVALID_IMAGE_FORMAT, which + " lies beyond the size of the image");
        }
        if ((s.characteristics & kScnUninitializedData) == 0 && s.rawSize != 0 &&
            !fileHas(s.rawPointer, std::min<std::uint64_t>(s.rawSize, span))) {
            return fail(r, STATUS_INVALID_IMAGE_FORMAT, which + " has data beyond the end of the file");
        }
        if ((s.characteristics & kScnWrite) != 0 && executable(s)) {
            return fail(r, STATUS_INVALID_IMAGE_PROTECT, which + " is both writable and executable");
        }
        nextFree = std::uint64_t(s.virtualAddress) + span;
        h->sections.push_back(std::move(s));
    }
    if (h->entry == 0 || std::none_of(h->sections.begin(), h->sections.end(), [&](const RawSection &s) {
            return executable(s) && h->entry >= s.virtualAddress &&
                   h->entry < std::uint64_t(s.virtualAddress) + mappedSize(s, h->sectionAlignment);
        })) {
        return fail(r, STATUS_INVALID_IMAGE_FORMAT, "entry point " + hex(h->entry) + " is not in a code section");
    }
    return true;
}

bool Loader::relocate(const Headers &h, std::uint64_t delta, Refusal *r)
{
    std::uint64_t rva = h.dirRva[kDirBaseReloc];
    std::uint64_t end = rva + h.dirSize[kDirBaseReloc];
    while (rva < end) {
        if (end - rva < 8) {
            return fail(r, STATUS_INVALID_IMAGE_FORMAT, "relocation block header truncated at " + hex(rva));
        }
        std::uint32_t page = read<std::uint32_t>(mapped_ + rva);
        std::uint32_t blockSize = read<std::uint32_t>(mapped_ + rva + 4);
        if (blockSize < 8 || blockSize % 2 != 0 || blockSize > end - rva) {
            return fail(r, STATUS_INVALID_IMAGE_FORMAT,
                        "relocation block at " + hex(rva) + " of " + std::to_string(blockSize) + " bytes");
        }
        for (std::uint64_t at = rva + 8; at < rva + blockSize; at += 2) {
            std::uint16_t item = read<std::uint16_t>(mapped_ + at);
            unsigned type = item >> 12;
            std::uint64_t target = std::uint64_t(page) + (item & 0xFFF);
            if (type == kRelAbsolute) {
                continue;
            }
            if (type != kRelDir64) {
                return fail(r, STATUS_INVALID_IMAGE_FORMAT,
                            "relocation of type " + std::to_string(type) + " at " + hex(target));
            }
            if (target < h.sizeOfHeaders || !imageHas(target, 8)) {
                return fail(r, STATUS_INVALID_IMAGE_FORMAT, "relocation target " + hex(target) + " out of the image");
            }
            std::uint64_t value = read<std::uint64_t>(mapped_ + target) + delta;
            std::memcpy(mapped_ + target, &value, sizeof value);
        }
        rva += blockSize;
    }
    return true;
}

bool Loader::bindImports(const Headers &h, Refusal *r)
{
    if (h.dirSize[kDirImport] == 0) {
        return true;
    }
    for (std::uint64_t descriptor = h.dirRva[kDirImport];; descriptor += 20) {
        if (!imageHas(descriptor, 20)) {
            return fail(r, STATUS_INVALID_IMAGE_FORMAT, "import descriptors run off the image (no terminator)");
        }
        const std::uint8_t *d = mapped_ + descriptor;
        std::uint32_t lookup = read<std::uint32_t>(d);
        std::uint32_t nameRva = read<std::uint32_t>(d + 12);
        std::uint32_t iat = read<std::uint32_t>(d + 16);
        if (lookup == 0 && nameRva == 0 && iat == 0) {
            return true;
        }
        std::string module;
        if (nameRva == 0 || !imageString(nameRva, kLongestImportName, &module) || module.empty()) {
            return fail(r, STATUS_INVALID_IMAGE_FORMAT, "import module name at " + hex(nameRva) + " out of the image");
        }
        if (iat == 0) {
            return fail(r, STATUS_INVALID_IMAGE_FORMAT, "imports from " + module + " without an address table");
        }
        if (!detail::knownModule(module)) {
            return fail(r, STATUS_DLL_NOT_FOUND, "imports from " + module + ", a module the host does not provide");
        }
        std::uint64_t names = lookup != 0 ? lookup : iat;
        for (std::uint64_t i = 0;; i++) {
            std::uint64_t thunkRva = names + 8 * i, slotRva = std::uint64_t(iat) + 8 * i;
            if (!imageHas(thunkRva, 8) || !imageHas(slotRva, 8)) {
                return fail(r, STATUS_INVALID_IMAGE_FORMAT, "import table of " + module + " runs off the image");
            }
            std::uint64_t thunk = read<std::uint64_t>(mapped_ + thunkRva);
            if (thunk == 0) {
                break;
            }
            if ((thunk & kOrdinalFlag) != 0) {
                return fail(r, STATUS_ORDINAL_NOT_FOUND,
                            "imports " + module + "!#" + std::to_string(thunk & 0xFFFF) +
                                " by ordinal; the host exports names only");
            }
            std::string name;
            if (thunk > 0xFFFFFFFFull || !imageString(thunk + 2, kLongestImportName, &name) || name.empty()) {
                return fail(r, STATUS_INVALID_IMAGE_FORMAT, "import name at " + hex(thunk) + " of " + module +
                                                                " out of the image or unterminated");
            }
            if (detail::isDataExport(module, name)) {
                return fail(r, STATUS_PROCEDURE_NOT_FOUND,
                            "imports data " + module + "!" + name + ", which the host does not provide");
            }
            const void *routine = hostExport(module, name);
            if (routine == nullptr) {
                return fail(r, STATUS_PROCEDURE_NOT_FOUND,
                            "imports " + module + "!" + name + ", which the host does not export");
            }
            std::uint64_t address = reinterpret_cast<std::uintptr_t>(routine);
            std::memcpy(mapped_ + slotRva, &address, sizeof address);
        }
    }
}

bool Loader::map(const Headers &h, Image &image, Refusal *r)
{
    imageSize_ = alignUp(h.sizeOfImage, h.sectionAlignment);
    void *region = mmap(nullptr, imageSize_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (region == MAP_FAILED) {
        return fail(r, STATUS_INSUFFICIENT_RESOURCES, "no address space for " + hex(imageSize_) + " bytes");
    }
    mapped_ = static_cast<std::uint8_t *>(region);
    ImageBuilder::base(image) = reinterpret_cast<std::uintptr_t>(region);
    ImageBuilder::size(image) = imageSize_;
    ImageBuilder::entry(image) = ImageBuilder::base(image) + h.entry;
    ImageBuilder::preferredBase(image) = h.imageBase;

    std::memcpy(mapped_, bytes_, h.sizeOfHeaders);
    auto &sections = ImageBuilder::sections(image);
    sections.push_back({"(headers)", ImageBuilder::base(image), alignUp(h.sizeOfHeaders, pageSize()), PROT_READ, false});
    for (const RawSection &s : h.sections) {
        std::uint64_t span = mappedSize(s, h.sectionAlignment);
        if ((s.characteristics & kScnUninitializedData) == 0 && s.rawSize != 0) {
            // Raw data beyond the virtual size is file padding; what the raw
            // data lacks stays zero.
            std::memcpy(mapped_ + s.virtualAddress, bytes_ + s.rawPointer,
                        std::min<std::uint64_t>(s.rawSize, s.virtualSize != 0 ? s.virtualSize : s.rawSize));
        }
        int protection = PROT_READ;
        if (executable(s)) {
            protection |= PROT_EXEC;
        } else if ((s.characteristics & kScnWrite) != 0) {
            protection |= PROT_WRITE;
        }
        sections.push_back({s.name, ImageBuilder::base(image) + s.virtualAddress, span, protection, discardable(s)});
    }

    std::uint64_t delta = ImageBuilder::base(image) - h.imageBase;
    if (!relocate(h, delta, r) || !bindImports(h, r)) {
        return false;
    }
    // Gaps between sections stay inaccessible; every section gets its own
    // protection now that nothing writes any more, so no page is ever
    // writable and executable at once.
    if (mprotect(mapped_, imageSize_, PROT_NONE) != 0) {
        return fail(r, STATUS_INSUFFICIENT_RESOURCES, "mprotect failed");
    }
    for (const Image::Section &s : sections) {
        if (mprotect(reinterpret_cast<void *>(s.address), s.size, s.protection) != 0) {
            return fail(r, STATUS_INSUFFICIENT_RESOURCES, "mprotect of " + s.name + " failed");
        }
    }
    return true;
}

std::string baseName(const std::string &path)
{
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

} // namespace

// ------------------------------------------------------------------ Image
Image::~Image()
{
    if (registration_ >= 0) {
        detail::unregisterImage(registration_);
    }
    if (base_ != 0) {
        munmap(reinterpret_cast<void *>(base_), size_);
    }
}

bool Image::contains(const void *address) const
{
    auto a = reinterpret_cast<std::uintptr_t>(address);
    return a >= base_ && a - base_ < size_;
}

void Image::discardInitSections()
{
    for (Section &s : sections_) {
        if (s.discardable && s.protection != PROT_NONE) {
            // Windows gives the pages back; so does the host, and keeps the
            // range so that a late use faults where it can be named.
            mprotect(reinterpret_cast<void *>(s.address), s.size, PROT_NONE);
            madvise(reinterpret_cast<void *>(s.address), s.size, MADV_DONTNEED);
            s.protection = PROT_NONE;
        }
    }
}

namespace detail {

bool equalsIgnoringCase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
               return lower(x) == lower(y);
           });
}

void logRefusal(std::string_view image, const std::string &cause)
{
    hostkernel::detail::logLine("HKLOADER: " + std::string(image) + ": " + cause);
}

} // namespace detail

NTSTATUS loadImage(const std::uint8_t *bytes, std::size_t size, std::string_view name, std::unique_ptr<Image> *out)
{
    out->reset();
    Loader loader(bytes, size);
    Headers headers;
    Refusal refusal{STATUS_SUCCESS, {}};
    std::unique_ptr<Image> image(ImageBuilder::create());
    ImageBuilder::name(*image) = std::string(name);
    if (!loader.parse(&headers, &refusal) || !loader.map(headers, *image, &refusal)) {
        detail::logRefusal(name, refusal.cause);
        return refusal.status;
    }
    installTrap();
    ImageBuilder::registration(*image) = detail::registerImage(image.get());
    if (ImageBuilder::registration(*image) < 0) {
        detail::logRefusal(name, "too many images loaded at once");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *out = std::move(image);
    return STATUS_SUCCESS;
}

NTSTATUS loadImageFile(const std::string &path, std::unique_ptr<Image> *out)
{
    out->reset();
    std::string name = baseName(path);
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        detail::logRefusal(name, "no such file " + path);
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    NTSTATUS status = loadImage(bytes.data(), bytes.size(), name, out);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // The link map beside the image: "ambrel.map" for "ambrel.sys".
    size_t dot = path.rfind('.');
    size_t slash = path.rfind('/');
    std::string mapPath = (dot == std::string::npos || (slash != std::string::npos && dot < slash))
                              ? path + ".map"
                              : path.substr(0, dot) + ".map";
    std::ifstream map(mapPath);
    if (map) {
        std::stringstream text;
        text << map.rdbuf();
        (*out)->loadSymbols(text.str());
    }
    return STATUS_SUCCESS;
}

} // namespace hostkernel::loader
