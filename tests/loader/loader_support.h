// What the loader's tests share: a valid image to start from, loading from
// bytes or a scratch file, and the process's view of its own mappings.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include <hostkernel/executive.h>
#include <hostkernel/io.h>
#include <hostkernel/loader.h>

#include "pewriter.h"

namespace loadertest {

namespace hk = hostkernel;
using petest::Bytes;

// Calls into image code with the image's convention.
using WindowsFn = std::uint64_t(__attribute__((ms_abi)) *)(std::uint64_t, std::uint64_t);

inline WindowsFn at(const hk::loader::Image &image, std::uint32_t rva)
{
    return reinterpret_cast<WindowsFn>(image.base() + rva);
}

// A driver image in five sections: code (the entry returns
// STATUS_SUCCESS), data whose first quadword points at the code and is
// relocated, and whose virtual size leaves a zeroed tail, read-only data
// (one unterminated run of 'A's, longer than any import name may be), the
// imports (ntoskrnl.exe, hal.dll) and the relocations.
struct BaseImage {
    petest::PeWriter writer;
    std::uint32_t text = 0, data = 0, rdata = 0;

    explicit BaseImage(const Bytes &code = {0x31, 0xC0, 0xC3}) // xor eax,eax; ret
    {
        text = writer.addSection(".text", code, petest::kCode);
        Bytes pointer(8);
        petest::put<std::uint64_t>(pointer, 0, petest::kImageBase + text);
        data = writer.addSection(".data", pointer, petest::kData, 0x1800);
        rdata = writer.addSection(".rdata", Bytes(0x300, 'A'), petest::kReadOnly);
        writer.setEntry(text);
        writer.addRelocation(data);
        writer.addImport("ntoskrnl.exe", {"KeGetCurrentIrql", "memcpy"});
        writer.addImport("HAL.dll", {"KeQueryPerformanceCounter"});
    }
};

inline NTSTATUS load(const Bytes &bytes, std::unique_ptr<hk::loader::Image> *image, const char *name = "test.sys")
{
    return hk::loader::loadImage(bytes.data(), bytes.size(), name, image);
}

// A scratch directory for image files, removed with what it holds.
class ScratchDir {
public:
    ScratchDir()
    {
        char pattern[] = "/tmp/ambrel-loader.XXXXXX";
        path_ = mkdtemp(pattern);
    }
    ~ScratchDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
    std::string write(const std::string &name, const Bytes &bytes) const
    {
        std::string file = path_ + "/" + name;
        std::ofstream(file, std::ios::binary).write(reinterpret_cast<const char *>(bytes.data()),
                                                    std::streamsize(bytes.size()));
        return file;
    }
    std::string writeText(const std::string &name, const std::string &text) const
    {
        std::string file = path_ + "/" + name;
        std::ofstream(file) << text;
        return file;
    }

private:
    std::string path_;
};

// The permissions /proc/self/maps shows for the page at `address` ("r-xp"),
// or "" when nothing is mapped there.
inline std::string protectionAt(std::uintptr_t address)
{
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        unsigned long long begin = 0, end = 0;
        char perms[8] = {};
        if (std::sscanf(line.c_str(), "%llx-%llx %7s", &begin, &end, perms) == 3 && address >= begin &&
            address < end) {
            return perms;
        }
    }
    return {};
}

} // namespace loadertest
