// ambreld: Ambrel's ports for Linux programs. Boots the host kernel, loads
// the driver and mounts it; see --help.
#include <grp.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ambrel/mount.h"
#include "daemon.h"
#include "lifecycle.h"
#include "usage_ambreld.h"

namespace {

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

// `ps` and `pgrep -a` show which mount a daemon serves: one started without
// a mount point on its command line starts again with it there.
void nameTheMount(int argc, char **argv, const std::string &mount)
{
    std::vector<char *> args(argv, argv + argc);
    std::string copy = mount;
    args.push_back(copy.data());
    args.push_back(nullptr);
    execv("/proc/self/exe", args.data());
    // Without /proc the title just lacks the mount.
}

// A daemon for this mount already, or a mount left by one that died.
int refuseTakenMount(const std::string &mount, bool unmountStale)
{
    switch (ambreld::mountState(mount)) {
    case ambreld::MountState::Free:
        return 0;
    case ambreld::MountState::Served: {
        pid_t pid = ambreld::daemonOf(mount);
        std::fprintf(stderr, "ambreld: ambreld already serves %s (pid %s)\n", mount.c_str(),
                     pid > 0 ? std::to_string(pid).c_str() : "unknown");
        return 1;
    }
    case ambreld::MountState::Stale:
        if (!unmountStale) {
            std::fprintf(stderr,
                         "ambreld: %s is a stale mount left by an ambreld that died; unmount it with "
                         "'fusermount3 -u %s', or start with --unmount-stale\n",
                         mount.c_str(), mount.c_str());
            return 1;
        }
        if (umount2(mount.c_str(), MNT_DETACH) != 0) {
            std::fprintf(stderr, "ambreld: cannot unmount the stale mount %s: %s\n", mount.c_str(),
                         std::strerror(errno));
            return 1;
        }
        std::fprintf(stderr, "ambreld: unmounted the stale mount %s\n", mount.c_str());
        return 0;
    }
    return 0;
}

// The parent of a daemon started in the background waits until it serves
// (exit 0) or has failed (its exit status, its own message on stderr).
int backgroundParent(pid_t child, int readyFd)
{
    char byte = 0;
    ssize_t n;
    do {
        n = read(readyFd, &byte, 1);
    } while (n < 0 && errno == EINTR);
    close(readyFd);
    if (n == 1) {
        return 0;
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) != 0 ? WEXITSTATUS(status) : 1;
}

} // namespace

int main(int argc, char **argv)
{
    ambreld::Config config;
    std::string configFile;
    bool stop = false;
    bool unmountStale = false;
    bool mountGiven = false;
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
            std::fputs(kAmbreldUsage, stdout);
            return 0;
        } else if (a == "-f" || a == "--foreground") {
            config.foreground = true;
        } else if (a == "-v" || a == "--verbose") {
            config.verbose = true;
        } else if (a == "--debug-fuse") {
            config.debugFuse = true;
            config.foreground = true;
        } else if (a == "--stop") {
            stop = true;
        } else if (a == "--unmount-stale") {
            unmountStale = true;
        } else if (a == "--public") {
            config.everyone = true;
        } else if (a == "--jack") {
            config.jack = true;
        } else if (a == "--jack-client") {
            const char *text = value(a.c_str());
            if (text == nullptr) {
                return 2;
            }
            if (*text == '\0') {
                return usage("--jack-client needs a name");
            }
            config.jack = true;
            config.jackClient = text;
        } else if (a == "-c" || a == "--config" || a == "--group" || a == "--driver") {
            const char *text = value(a.c_str());
            if (text == nullptr) {
                return 2;
            }
            (a == "--group" ? config.groupName.emplace() : a == "--driver" ? config.driverImage : configFile) = text;
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
            mountGiven = true;
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
    std::string error;
    if (!ambreld::checkConfig(config, &error)) {
        return usage(error);
    }
    if (!config.driverImage.empty()) {
        // The daemon leaves its working directory; the loader needs the file
        // (and its link map beside it) from wherever it runs.
        char *absolute = realpath(config.driverImage.c_str(), nullptr);
        if (absolute == nullptr) {
            std::fprintf(stderr, "ambreld: cannot use the driver image %s: %s\n", config.driverImage.c_str(),
                         std::strerror(errno));
            return 1;
        }
        config.driverImage = absolute;
        std::free(absolute);
    }
    if (config.mount.empty()) {
        const char *env = std::getenv(AMBREL_MOUNT_ENV);
        config.mount = env != nullptr && *env != '\0' ? env : AMBREL_DEFAULT_MOUNT;
    }
    if (stop) {
        return ambreld::stopDaemon(config.mount);
    }
    // Linux gives MIDI devices to the "audio" group; so does ambreld unless
    // told otherwise, and to root alone where there is no such group.
    if (!config.everyone) {
        std::string name = config.groupName.value_or("audio");
        if (struct group *g = getgrnam(name.c_str())) {
            config.group = unsigned(g->gr_gid);
        } else if (config.groupName) {
            return usage("no group named \"" + name + "\"");
        }
    }
    if (!mountGiven) {
        nameTheMount(argc, argv, config.mount);
    }
    if (int rc = refuseTakenMount(config.mount, unmountStale); rc != 0) {
        return rc;
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
    // Two daemons started at once both find the mount free: the pid file's
    // lock lets one through.
    ambreld::PidFile pidFile;
    pid_t holder = 0;
    if (!pidFile.acquire(ambreld::pidFilePath(config.mount), &holder, &error)) {
        if (!error.empty()) {
            std::fprintf(stderr, "ambreld: %s\n", error.c_str());
        } else {
            std::fprintf(stderr, "ambreld: ambreld already serves %s (pid %s)\n", config.mount.c_str(),
                         holder > 0 ? std::to_string(holder).c_str() : "unknown");
        }
        return 1;
    }
    if (!config.foreground) {
        int ready[2];
        if (pipe(ready) != 0) {
            std::fprintf(stderr, "ambreld: cannot start in the background: %s\n", std::strerror(errno));
            return 1;
        }
        pid_t child = fork();
        if (child < 0) {
            std::fprintf(stderr, "ambreld: cannot start in the background: %s\n", std::strerror(errno));
            return 1;
        }
        if (child > 0) {
            close(ready[1]);
            pidFile.leaveToChild();
            return backgroundParent(child, ready[0]);
        }
        close(ready[0]);
        setsid();
        if (chdir("/") != 0) {
            return 1;
        }
        config.readyFd = ready[1];
    }
    pidFile.record(config.mount);
    return ambreld::run(config);
}
