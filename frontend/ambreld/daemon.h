// ambreld: boots the host kernel with the driver and serves it through one
// FUSE mount (layout in frontend/include/ambrel/mount.h).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace ambreld {

struct Config {
    std::string mount;                   // where to mount
    std::optional<std::uint32_t> maxPorts;  // "MaxPorts" for the driver's registry
    std::optional<std::uint32_t> sysexSize; // "SysexSize"
    bool foreground = false;
    bool verbose = false;   // the driver's debug log on stderr
    bool debugFuse = false; // libfuse's own request trace
};

// Reads "key = value" lines ('#' comments): mount, max-ports, sysex-size,
// verbose. Values already set in `config` (from flags) win. False with a
// message on an unknown key, a bad value or an unreadable file.
bool readConfigFile(const std::string &path, Config *config, std::string *error);

// Runs until SIGINT/SIGTERM (or an unmount); returns the exit status.
int run(const Config &config);

} // namespace ambreld
