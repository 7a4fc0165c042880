// ambreld: Ambrel's ports for Linux programs. Boots the host kernel, loads
// the driver and mounts it; see --help.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ambrel/mount.h"
#include "daemon.h"

namespace {

const char kUsage[] =
    "Usage: ambreld [OPTIONS] [MOUNTPOINT]\n"
    "\n"
    "Runs Ambrel's driver in the host kernel and serves it on MOUNTPOINT\n"
    "(default: $AMBREL_MOUNT, else " AMBREL_DEFAULT_MOUNT ", created if missing).\n"
    "Opening MOUNTPOINT/<name> creates the port <name>; MOUNTPOINT/ports/ lists\n"
    "the ports for MIDI programs. SIGINT or SIGTERM withdraws every port and\n"
    "unmounts.\n"
    "\n"
    "Options:\n"
    "  -f, --foreground       stay in the foreground (default: become a daemon)\n"
    "  -v, --verbose          the driver's debug log on stderr\n"
    "  -c, --config FILE      settings file: lines \"mount = DIR\", \"max-ports = N\",\n"
    "                         \"sysex-size = BYTES\", \"verbose = true\" ('#' comments);\n"
    "                         flags win over the file\n"
    "      --max-ports N      the driver's \"MaxPorts\" (1..512, default 256)\n"
    "      --sysex-size BYTES the driver's \"SysexSize\" (8176..1048560, default 131056)\n"
    "      --debug-fuse       trace every FUSE request\n"
    "  -h, --help             this text\n"
    "\n"
    "Exit status: 0 after a clean shutdown, 1 on failure, 2 on a usage error.\n";

int usage(const std::string &message)
{
    std::fprintf(stderr, "ambreld: %s\nTry 'ambreld --help'.\n", message.c_str());
    return 2;
}

bool parseU32(const char *text, std::uint32_t *out)
{
    if (text == nullptr || *text == '\0' || std::strlen(text) > 10 || std::strspn(text, "0123456789") != std::strlen(text)) {
        return false;
    }
    unsigned long long v = std::strtoull(text, nullptr, 10);
    if (v > 0xFFFFFFFFull) {
        return false;
    }
    *out = std::uint32_t(v);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    ambreld::Config config;
    std::string configFile;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](const char *what) -> const char * {
            if (i + 1 >= argc) {
                usage(std::string(what) + " needs a value");
                return nullptr;
            }
            return argv[++i];
        };
        std::uint32_t v = 0;
        if (a == "-h" || a == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (a == "-f" || a == "--foreground") {
            config.foreground = true;
        } else if (a == "-v" || a == "--verbose") {
            config.verbose = true;
        } else if (a == "--debug-fuse") {
            config.debugFuse = true;
            config.foreground = true;
        } else if (a == "-c" || a == "--config") {
            const char *f = value("--config");
            if (f == nullptr) {
                return 2;
            }
            configFile = f;
        } else if (a == "--max-ports" || a == "--sysex-size") {
            const char *text = value(a.c_str());
            if (text == nullptr) {
                return 2;
            }
            if (!parseU32(text, &v)) {
                return usage(a + " needs a number");
            }
            (a == "--max-ports" ? config.maxPorts : config.sysexSize) = v;
        } else if (!a.empty() && a[0] == '-') {
            return usage("unknown option " + a);
        } else if (config.mount.empty()) {
            config.mount = a;
        } else {
            return usage("only one mount point");
        }
    }
    if (!configFile.empty()) {
        std::string error;
        if (!ambreld::readConfigFile(configFile, &config, &error)) {
            std::fprintf(stderr, "ambreld: %s\n", error.c_str());
            return 2;
        }
    }
    if (config.mount.empty()) {
        const char *env = std::getenv(AMBREL_MOUNT_ENV);
        config.mount = env != nullptr && *env != '\0' ? env : AMBREL_DEFAULT_MOUNT;
    }
    struct stat st;
    if (stat(config.mount.c_str(), &st) != 0) {
        if (mkdir(config.mount.c_str(), 0755) != 0) {
            std::fprintf(stderr, "ambreld: cannot create %s: %s\n", config.mount.c_str(), std::strerror(errno));
            return 1;
        }
    } else if (!S_ISDIR(st.st_mode)) {
        std::fprintf(stderr, "ambreld: %s is not a directory\n", config.mount.c_str());
        return 1;
    }
    return ambreld::run(config);
}
