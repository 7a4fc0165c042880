// A small writer of PE32+ driver images for tests and benchmarks of the
// host's loader: sections with hand-assembled code and data, imports by name
// (or "#N" by ordinal), DIR64 relocations. The layout is fixed so tests can
// edit the bytes afterwards: DOS header with e_lfanew = 0x80, PE signature
// there, the COFF header at 0x84, the optional header at 0x98 and the
// section table at 0x188; sections from RVA 0x1000 in the order added, each
// starting on a 0x1000 boundary; the import and relocation sections last.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace petest {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kCode = 0x60000020;      // CNT_CODE | MEM_EXECUTE | MEM_READ
constexpr std::uint32_t kData = 0xC0000040;      // INITIALIZED_DATA | MEM_READ | MEM_WRITE
constexpr std::uint32_t kReadOnly = 0x40000040;  // INITIALIZED_DATA | MEM_READ
constexpr std::uint32_t kDiscardable = 0x02000000;
constexpr std::uint64_t kImageBase = 0x140000000ull;
constexpr std::uint32_t kNtOffset = 0x80, kCoffOffset = 0x84, kOptionalOffset = 0x98, kSectionTable = 0x188;

template <typename T> void put(Bytes &b, std::size_t at, T v)
{
    if (b.size() < at + sizeof v) {
        b.resize(at + sizeof v);
    }
    std::memcpy(b.data() + at, &v, sizeof v);
}
template <typename T> T get(const Bytes &b, std::size_t at)
{
    T v;
    std::memcpy(&v, b.data() + at, sizeof v);
    return v;
}

class PeWriter {
public:
    struct Section {
        std::string name;
        Bytes data;
        std::uint32_t characteristics;
        std::uint32_t virtualSize;
        std::uint32_t rva;
    };

    // Adds a section and returns its RVA. A virtual size above the data's
    // leaves a zeroed tail.
    std::uint32_t addSection(const std::string &name, const Bytes &data, std::uint32_t characteristics,
                             std::uint32_t virtualSize = 0)
    {
        std::uint32_t rva = nextRva();
        sections_.push_back({name, data, characteristics, virtualSize != 0 ? virtualSize : std::uint32_t(data.size()), rva});
        return rva;
    }
    void setEntry(std::uint32_t rva) { entry_ = rva; }
    // A 64-bit absolute address at `rva` that the loader must relocate.
    void addRelocation(std::uint32_t rva) { relocations_.push_back(rva); }
    void addImport(const std::string &module, const std::vector<std::string> &names)
    {
        imports_.push_back({module, names});
    }
    // The RVA of an import's address-table slot; valid once every section
    // that precedes the import section has been added.
    std::uint32_t importSlot(const std::string &module, const std::string &name) const
    {
        Bytes scratch;
        std::map<std::string, std::uint32_t> slots;
        buildImports(nextRva(), &scratch, &slots);
        return slots.at(module + "!" + name);
    }

    Bytes build() const
    {
        std::vector<Section> all = sections_;
        if (!imports_.empty()) {
            Bytes idata;
            std::map<std::string, std::uint32_t> slots;
            std::uint32_t rva = nextRva(all);
            buildImports(rva, &idata, &slots);
            all.push_back({".idata", idata, kData, std::uint32_t(idata.size()), rva});
        }
        if (!relocations_.empty()) {
            std::uint32_t rva = nextRva(all);
            Bytes reloc = buildRelocations();
            all.push_back({".reloc", reloc, kReadOnly | kDiscardable, std::uint32_t(reloc.size()), rva});
        }
        std::uint32_t headers = align(kSectionTable + 40 * std::uint32_t(all.size()), 0x200);
        Bytes out(headers, 0);
        out[0] = 'M';
        out[1] = 'Z';
        put<std::uint32_t>(out, 0x3C, kNtOffset);
        std::memcpy(out.data() + kNtOffset, "PE\0\0", 4);
        put<std::uint16_t>(out, kCoffOffset, 0x8664);
        put<std::uint16_t>(out, kCoffOffset + 2, std::uint16_t(all.size()));
        put<std::uint16_t>(out, kCoffOffset + 16, 0xF0);
        put<std::uint16_t>(out, kCoffOffset + 18, 0x0022); // EXECUTABLE_IMAGE | LARGE_ADDRESS_AWARE
        std::uint32_t o = kOptionalOffset;
        std::uint32_t sizeOfImage = nextRva(all);
        put<std::uint16_t>(out, o, 0x20B);
        put<std::uint32_t>(out, o + 16, entry_);
        put<std::uint64_t>(out, o + 24, kImageBase);
        put<std::uint32_t>(out, o + 32, 0x1000);
        put<std::uint32_t>(out, o + 36, 0x200);
        put<std::uint16_t>(out, o + 40, 6); // OS version 6.1
        put<std::uint16_t>(out, o + 42, 1);
        put<std::uint16_t>(out, o + 48, 6); // subsystem version 6.1
        put<std::uint16_t>(out, o + 50, 1);
        put<std::uint32_t>(out, o + 56, sizeOfImage);
        put<std::uint32_t>(out, o + 60, headers);
        put<std::uint16_t>(out, o + 68, 1);      // native
        put<std::uint16_t>(out, o + 70, 0x160);  // high-entropy VA, dynamic base, NX
        put<std::uint32_t>(out, o + 108, 16);
        std::uint32_t file = headers;
        for (std::size_t i = 0; i < all.size(); i++) {
            const Section &s = all[i];
            std::uint32_t at = kSectionTable + 40 * std::uint32_t(i);
            std::memcpy(out.data() + at, s.name.data(), std::min<std::size_t>(8, s.name.size()));
            std::uint32_t raw = align(std::uint32_t(s.data.size()), 0x200);
            put<std::uint32_t>(out, at + 8, s.virtualSize);
            put<std::uint32_t>(out, at + 12, s.rva);
            put<std::uint32_t>(out, at + 16, raw);
            put<std::uint32_t>(out, at + 20, raw != 0 ? file : 0);
            put<std::uint32_t>(out, at + 36, s.characteristics);
            if (s.name == ".idata") {
                put<std::uint32_t>(out, o + 112 + 8 * 1, s.rva);
                put<std::uint32_t>(out, o + 116 + 8 * 1, std::uint32_t(20 * (imports_.size() + 1)));
            } else if (s.name == ".reloc") {
                put<std::uint32_t>(out, o + 112 + 8 * 5, s.rva);
                put<std::uint32_t>(out, o + 116 + 8 * 5, std::uint32_t(s.data.size()));
            }
            out.resize(file + raw, 0);
            std::memcpy(out.data() + file, s.data.data(), s.data.size());
            file += raw;
        }
        return out;
    }

private:
    struct Import {
        std::string module;
        std::vector<std::string> names;
    };

    static std::uint32_t align(std::uint32_t v, std::uint32_t a) { return (v + a - 1) & ~(a - 1); }
    std::uint32_t nextRva() const { return nextRva(sections_); }
    static std::uint32_t nextRva(const std::vector<Section> &sections)
    {
        if (sections.empty()) {
            return 0x1000;
        }
        const Section &last = sections.back();
        return last.rva + align(std::max<std::uint32_t>(last.virtualSize, 1), 0x1000);
    }

    // Descriptors, then per module its lookup table, its address table, the
    // hint/name entries and the module's name.
    void buildImports(std::uint32_t rva, Bytes *out, std::map<std::string, std::uint32_t> *slots) const
    {
        Bytes &b = *out;
        b.assign(20 * (imports_.size() + 1), 0);
        for (std::size_t m = 0; m < imports_.size(); m++) {
            const Import &imp = imports_[m];
            b.resize((b.size() + 7) & ~std::size_t(7), 0);
            std::uint32_t lookup = std::uint32_t(b.size());
            b.resize(b.size() + 8 * (imp.names.size() + 1), 0);
            std::uint32_t iat = std::uint32_t(b.size());
            b.resize(b.size() + 8 * (imp.names.size() + 1), 0);
            for (std::size_t n = 0; n < imp.names.size(); n++) {
                const std::string &name = imp.names[n];
                std::uint64_t thunk;
                if (!name.empty() && name[0] == '#') {
                    thunk = (1ull << 63) | std::stoull(name.substr(1));
                } else {
                    thunk = rva + std::uint32_t(b.size());
                    b.push_back(0);
                    b.push_back(0);
                    b.insert(b.end(), name.begin(), name.end());
                    b.push_back(0);
                    if (b.size() % 2 != 0) {
                        b.push_back(0);
                    }
                }
                put<std::uint64_t>(b, lookup + 8 * n, thunk);
                put<std::uint64_t>(b, iat + 8 * n, thunk);
                (*slots)[imp.module + "!" + name] = rva + iat + std::uint32_t(8 * n);
            }
            std::uint32_t moduleName = rva + std::uint32_t(b.size());
            b.insert(b.end(), imp.module.begin(), imp.module.end());
            b.push_back(0);
            put<std::uint32_t>(b, 20 * m, rva + lookup);
            put<std::uint32_t>(b, 20 * m + 12, moduleName);
            put<std::uint32_t>(b, 20 * m + 16, rva + iat);
        }
    }

    Bytes buildRelocations() const
    {
        std::map<std::uint32_t, std::vector<std::uint16_t>> pages;
        for (std::uint32_t rva : relocations_) {
            pages[rva & ~0xFFFu].push_back(std::uint16_t(0xA000 | (rva & 0xFFF)));
        }
        Bytes b;
        for (auto &[page, items] : pages) {
            if (items.size() % 2 != 0) {
                items.push_back(0); // ABSOLUTE: pads the block to 4 bytes
            }
            std::size_t at = b.size();
            put<std::uint32_t>(b, at, page);
            put<std::uint32_t>(b, at + 4, std::uint32_t(8 + 2 * items.size()));
            for (std::size_t i = 0; i < items.size(); i++) {
                put<std::uint16_t>(b, at + 8 + 2 * i, items[i]);
            }
        }
        return b;
    }

    std::vector<Section> sections_;
    std::vector<Import> imports_;
    std::vector<std::uint32_t> relocations_;
    std::uint32_t entry_ = 0x1000;
};

} // namespace petest
