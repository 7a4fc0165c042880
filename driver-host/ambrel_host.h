// How programs of the host load Ambrel: the driver the host compiler built
// from the sources (linked into the program), or the shipped ambrel.sys,
// loaded from its file by the host kernel's image loader. Both are the same
// driver to everything that talks to it afterwards: the I/O manager, plug
// and play, portcls and every client see only the driver object.
#pragma once

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

} // namespace ambrelhost
