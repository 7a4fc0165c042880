// Names for image addresses, from the GNU ld link map beside the image.
//
// The map lists every input section the link kept, with its address and
// size, and under it the global symbols it defines. With -ffunction-sections
// every function has its own section (".text$<mangled name>" on PE), so a
// static function, which has no symbol line, is still found by its section.
// ld prints symbol lines demangled with their parameter lists; reports name
// functions without them, as a debugger's stack does.
#include <cxxabi.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "internal.h"

namespace hostkernel::loader {

namespace detail {

namespace {

bool parseHex(const std::string &token, std::uint64_t *value)
{
    if (token.size() < 3 || token[0] != '0' || token[1] != 'x') {
        return false;
    }
    char *end = nullptr;
    *value = std::strtoull(token.c_str() + 2, &end, 16);
    return end != nullptr && *end == '\0';
}

std::vector<std::string> tokens(const std::string &line)
{
    std::istringstream in(line);
    std::vector<std::string> out;
    for (std::string t; in >> t;) {
        out.push_back(t);
    }
    return out;
}

// The function a section is named after: ".text$_ZN3Foo3barEv" -> its
// mangled name; "" for sections that are not one function's or datum's.
std::string sectionSymbol(const std::string &section)
{
    for (const char *prefix : {".text$", ".text.", ".rdata$", ".data$", ".bss$", "INIT$", "PAGE$"}) {
        std::string p(prefix);
        if (section.compare(0, p.size(), p) == 0 && section.size() > p.size()) {
            return section.substr(p.size());
        }
    }
    return {};
}

} // namespace

std::string functionName(std::string_view symbol)
{
    std::string name(symbol);
    if (name.compare(0, 2, "_Z") == 0) {
        int status = -1;
        char *demangled = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
        if (status == 0 && demangled != nullptr) {
            name = demangled;
        }
        std::free(demangled);
    }
    // Drop trailing qualifiers, then the parameter list: the parenthesis
    // that matches the last one ("operator()(int)" keeps its own pair).
    for (const char *qualifier : {" const", " volatile", " &&", " &"}) {
        std::string q(qualifier);
        if (name.size() > q.size() && name.compare(name.size() - q.size(), q.size(), q) == 0) {
            name.erase(name.size() - q.size());
        }
    }
    if (!name.empty() && name.back() == ')') {
        int depth = 0;
        for (size_t i = name.size(); i-- > 0;) {
            if (name[i] == ')') {
                depth++;
            } else if (name[i] == '(' && --depth == 0) {
                if (i > 0) {
                    name.erase(i);
                }
                break;
            }
        }
    }
    return name;
}

std::vector<MapSymbol> readLinkMap(const std::string &text)
{
    std::vector<MapSymbol> out;
    std::istringstream in(text);
    std::string line;
    bool inMemoryMap = false;
    std::string pendingSection; // a long section name whose numbers are on the next line
    while (std::getline(in, line)) {
        if (!inMemoryMap) {
            inMemoryMap = line.rfind("Linker script and memory map", 0) == 0;
            continue;
        }
        std::vector<std::string> t = tokens(line);
        if (t.empty()) {
            pendingSection.clear();
            continue;
        }
        std::uint64_t address = 0, size = 0;
        if (line[0] == ' ' && line.size() > 1 && line[1] != ' ') {
            // " <section> [0xADDR 0xSIZE file]": an input section.
            if (t.size() == 1) {
                pendingSection = t[0];
                continue;
            }
            if (t.size() >= 3 && parseHex(t[1], &address) && parseHex(t[2], &size) && size != 0) {
                if (std::string symbol = sectionSymbol(t[0]); !symbol.empty()) {
                    out.push_back({address, size, functionName(symbol)});
                }
            }
            pendingSection.clear();
            continue;
        }
        if (t.size() >= 2 && parseHex(t[0], &address)) {
            if (!pendingSection.empty() && parseHex(t[1], &size)) {
                // The numbers of a long input section name.
                if (std::string symbol = sectionSymbol(pendingSection); !symbol.empty() && size != 0) {
                    out.push_back({address, size, functionName(symbol)});
                }
                pendingSection.clear();
                continue;
            }
            pendingSection.clear();
            // "0xADDR  name(args)": a symbol; assignments ("x = ...") are
            // the linker's own names, not code or data of the driver.
            std::string rest = line.substr(line.find(t[0]) + t[0].size());
            rest.erase(0, rest.find_first_not_of(' '));
            if (rest.find(" = ") != std::string::npos || rest.find("PROVIDE") == 0 || address == 0) {
                continue;
            }
            out.push_back({address, 0, functionName(rest)});
        }
    }
    // By address; a symbol line and its own section name the same place:
    // keep the section's entry, which knows the size.
    std::stable_sort(out.begin(), out.end(), [](const MapSymbol &a, const MapSymbol &b) {
        return a.address != b.address ? a.address < b.address : a.size > b.size;
    });
    out.erase(std::unique(out.begin(), out.end(),
                          [](const MapSymbol &a, const MapSymbol &b) { return a.address == b.address; }),
              out.end());
    return out;
}

} // namespace detail

void Image::loadSymbols(const std::string &mapText)
{
    symbols_.clear();
    for (detail::MapSymbol &s : detail::readLinkMap(mapText)) {
        if (s.address >= preferredBase_ && s.address - preferredBase_ < size_) {
            symbols_.push_back({s.address - preferredBase_, s.size, std::move(s.name)});
        }
    }
}

std::uintptr_t Image::symbol(std::string_view name) const
{
    for (const Symbol &s : symbols_) {
        if (s.name == name) {
            return base_ + s.rva;
        }
    }
    return 0;
}

std::string Image::describe(const void *address) const
{
    std::uintptr_t rva = reinterpret_cast<std::uintptr_t>(address) - base_;
    char offset[24];
    std::snprintf(offset, sizeof offset, "+0x%llx", static_cast<unsigned long long>(rva));
    std::string text = name_ + offset;
    auto after = std::upper_bound(symbols_.begin(), symbols_.end(), rva,
                                  [](std::uintptr_t r, const Symbol &s) { return r < s.rva; });
    if (after != symbols_.begin()) {
        const Symbol &s = *std::prev(after);
        std::uintptr_t end = s.size != 0 ? s.rva + s.size : (after != symbols_.end() ? after->rva : size_);
        if (rva < end) {
            std::snprintf(offset, sizeof offset, "+0x%llx", static_cast<unsigned long long>(rva - s.rva));
            text += " (" + s.name + offset + ")";
        }
    }
    return text;
}

} // namespace hostkernel::loader
