// How programs of the host load Ambrel: the driver the host compiler built
// from the sources (linked into the program), or the shipped ambrel.sys,
// loaded from its file by the host kernel's image loader. Both are the same
// driver to everything that talks to it afterwards: the I/O manager, plug
// and play, portcls and every client see only the driver object.
#pragma once

#include <cstring>
#include <string>
#include <string_view>

#include <hostkernel/io.h>

namespace ambrelhost {

// An empty imagePath loads the host-built driver (DriverEntry of this
// program); otherwise the image file, with its link map beside it for
// symbols. Same contract as hostkernel::loadDriver.
PDRIVER_OBJECT loadAmbrel(std::u16string_view serviceName, const std::string &imagePath, NTSTATUS *status);

// The entry point of the host-built driver, for programs that call it
// through a wrapper of their own.
PDRIVER_INITIALIZE hostBuildEntry();

// Test and benchmark mains choose the build with `--ambrel-driver=PATH` (the
// image) and hand the rest of the command line on: this takes the flag out
// of argv and returns its path, empty when absent (the host build). Inline
// so that mains which never load a driver need not link one.
inline std::string takeDriverFlag(int *argc, char **argv)
{
    static const char kFlag[] = "--ambrel-driver=";
    std::string image;
    int out = 1;
    for (int i = 1; i < *argc; i++) {
        if (std::strncmp(argv[i], kFlag, sizeof kFlag - 1) == 0) {
            image = argv[i] + sizeof kFlag - 1;
            continue;
        }
        argv[out++] = argv[i];
    }
    argv[out] = nullptr;
    *argc = out;
    return image;
}

} // namespace ambrelhost
