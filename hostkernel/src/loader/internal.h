// Shared pieces of the host's image loader: the table of mapped images the
// fault handler reads, the export tables' helpers, and the symbol reader.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "hostkernel/loader.h"

namespace hostkernel::loader {

// Access to an Image's internals for the loader's own parts.
struct ImageBuilder {
    static Image *create() { return new Image; }
    static std::string &name(Image &i) { return i.name_; }
    static std::uintptr_t &base(Image &i) { return i.base_; }
    static std::size_t &size(Image &i) { return i.size_; }
    static std::uintptr_t &entry(Image &i) { return i.entry_; }
    static std::uintptr_t &preferredBase(Image &i) { return i.preferredBase_; }
    static std::vector<Image::Section> &sections(Image &i) { return i.sections_; }
    static int &registration(Image &i) { return i.registration_; }
};

namespace detail {

bool equalsIgnoringCase(std::string_view a, std::string_view b);

// ------------------------------------------------------------------ exports
bool knownModule(std::string_view module);
bool isDataExport(std::string_view module, std::string_view name);

// ------------------------------------------------------------------ the image table
// Images by address range, readable from a signal handler without a lock:
// a slot is published with its range after the image is complete and
// cleared before it goes.
enum class ImageState : int { Free, Loaded, Unloaded };
struct ImageHit {
    const Image *image = nullptr;
    ImageState state = ImageState::Free;
};
int registerImage(const Image *image);
void markImageUnloaded(int slot);
void unregisterImage(int slot);
ImageHit imageAt(std::uintptr_t address);

// Keeps the address range of an unloaded driver reserved (no access, its
// memory returned) for a while, so a late call into it is reported as a call
// into an unloaded driver rather than landing in whatever reuses the range.
void retireImage(std::unique_ptr<Image> image);

// ------------------------------------------------------------------ symbols
struct MapSymbol {
    std::uintptr_t address; // as linked (preferred base)
    std::size_t size;       // 0: up to the next symbol
    std::string name;       // demangled, without the parameter list
};
// Reads a GNU ld link map: every input section with a size (so static
// functions, each in its own section with -ffunction-sections, are found by
// their section's name) and every symbol line.
std::vector<MapSymbol> readLinkMap(const std::string &text);
// "CMiniportAmbrel::NewStream(IMXF**, ...)" -> "CMiniportAmbrel::NewStream";
// mangled names are demangled first.
std::string functionName(std::string_view symbol);

// ------------------------------------------------------------------ log
void logRefusal(std::string_view image, const std::string &cause);

} // namespace detail
} // namespace hostkernel::loader
