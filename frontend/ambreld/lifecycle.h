// One daemon per mount: where its pid file is, what the mount table says of
// a mount point, and stopping the daemon of one mount (never another's).
#pragma once

#include <string>
#include <sys/types.h>

namespace ambreld {

enum class MountState {
    Free,    // nothing of ours mounted there
    Served,  // a live ambreld answers there
    Stale,   // an ambrel mount whose daemon died ("Transport endpoint is not connected")
};
MountState mountState(const std::string &mountPoint);

// /proc/mounts escapes blanks, tabs, newlines and backslashes as octal.
std::string unescapeMountField(const std::string &field);
// The mount point's pid file: below /run/ambreld for root, else below
// $XDG_RUNTIME_DIR (or /tmp) in "ambreld-UID"; the name is the path escaped
// as systemd escapes unit names ("/run/ambrel" -> "run-ambrel.pid").
std::string pidFilePath(const std::string &mountPoint);
std::string escapePath(const std::string &path);

// Held by the daemon for its life: the file is locked, so a second daemon
// for the same mount is refused whatever the mount table says.
class PidFile {
public:
    // False with *holder set to the pid that holds it (0 if unknown), or
    // with *error set when the file cannot be made.
    bool acquire(const std::string &path, pid_t *holder, std::string *error);
    // Writes our pid and the mount (after a fork, in the daemon).
    void record(const std::string &mountPoint);
    // In the parent of a daemon started in the background: the daemon keeps
    // the lock (it shares the open file) and the file.
    void leaveToChild();
    ~PidFile();

private:
    std::string path_;
    int fd_ = -1;
};

// The pid the pid file names if that process is an ambreld, else 0.
pid_t daemonOf(const std::string &mountPoint);

// `ambreld --stop`: SIGTERM to the daemon of that mount and waits until it
// has unmounted. Exit status: 0 stopped, 1 failed or none running.
int stopDaemon(const std::string &mountPoint);

} // namespace ambreld
