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
    // The driver to serve: empty for the one built into ambreld, else a
    // Windows image (ambrel.sys) for the host kernel's loader. An absolute
    // path once the options are read (the daemon leaves its directory).
    std::string driverImage;
    bool foreground = false;
    bool verbose = false;   // the driver's debug log on stderr
    bool debugFuse = false; // libfuse's own request trace
    // Who may use the mount besides root: the members of `group`, or
    // everyone (`everyone`). Without either, root alone.
    std::optional<std::string> groupName; // as asked ("audio" when none is)
    std::optional<unsigned> group;        // its gid, once resolved
    bool everyone = false;
    // Set when started in the background: a byte goes here once the daemon
    // serves, then its standard streams are let go.
    int readyFd = -1;
    // Every port in the JACK graph too, as this JACK client.
    bool jack = false;
    std::optional<std::string> jackClient; // as asked ("ambrel" when none is)
};

// The driver's own limits for the settings: a value outside them is refused
// (false, with the reason) instead of being clamped where nobody sees it.
constexpr std::uint32_t kMinPorts = 1, kMaxPorts = 512;
constexpr std::uint32_t kMinSysexSize = 8176, kMaxSysexSize = 1048560;
bool checkConfig(const Config &config, std::string *error);

// Reads "key = value" lines ('#' comments): mount, max-ports, sysex-size,
// driver, verbose, group, public, jack, jack-client. Values already set in `config` (from flags) win. False with a
// message on an unknown key, a bad value or an unreadable file.
bool readConfigFile(const std::string &path, Config *config, std::string *error);

// Runs until SIGINT/SIGTERM (or an unmount); returns the exit status.
int run(const Config &config);

} // namespace ambreld
