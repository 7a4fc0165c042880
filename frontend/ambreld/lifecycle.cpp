#include "lifecycle.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace ambreld {

namespace {

constexpr const char *kFsType = "fuse.ambrel";

bool isAmbreld(pid_t pid)
{
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    return pid > 0 && std::getline(comm, name) && name == "ambreld";
}

pid_t readPid(const std::string &path)
{
    std::ifstream in(path);
    long pid = 0;
    return in >> pid && pid > 0 ? pid_t(pid) : 0;
}

bool mountedAs(const std::string &point, std::string *type)
{
    std::ifstream in("/proc/mounts");
    std::string line;
    bool found = false;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string device, where, fstype;
        if (fields >> device >> where >> fstype && unescapeMountField(where) == point) {
            *type = fstype; // the last one mounted there is the one seen
            found = true;
        }
    }
    return found;
}

std::string absolute(const std::string &path)
{
    char *real = realpath(path.c_str(), nullptr);
    if (real == nullptr) {
        return path;
    }
    std::string out = real;
    free(real);
    return out;
}

} // namespace

std::string unescapeMountField(const std::string &field)
{
    std::string out;
    for (size_t i = 0; i < field.size(); ++i) {
        auto octal = [&](size_t k) { return k < field.size() && field[k] >= '0' && field[k] <= '7'; };
        if (field[i] == '\\' && octal(i + 1) && octal(i + 2) && octal(i + 3)) {
            out.push_back(char((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0')));
            i += 3;
        } else {
            out.push_back(field[i]);
        }
    }
    return out;
}

std::string escapePath(const std::string &path)
{
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/') {
        trimmed.pop_back();
    }
    size_t start = trimmed.find_first_not_of('/');
    if (start == std::string::npos) {
        return "-";
    }
    std::string out;
    for (size_t i = start; i < trimmed.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(trimmed[i]);
        if (c == '/') {
            if (out.empty() || out.back() != '-' || trimmed[i - 1] != '/') {
                out.push_back('-');
            }
        } else if (std::isalnum(c) || c == '_' || (c == '.' && i != start)) {
            out.push_back(char(c));
        } else {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        }
    }
    return out;
}

std::string pidFilePath(const std::string &mountPoint)
{
    std::string dir;
    if (geteuid() == 0) {
        dir = "/run/ambreld";
    } else {
        const char *runtime = std::getenv("XDG_RUNTIME_DIR");
        dir = std::string(runtime != nullptr && *runtime != '\0' ? runtime : "/tmp") + "/ambreld-" +
              std::to_string(geteuid());
    }
    return dir + "/" + escapePath(absolute(mountPoint)) + ".pid";
}

MountState mountState(const std::string &mountPoint)
{
    std::string type;
    if (!mountedAs(absolute(mountPoint), &type) || type != kFsType) {
        return MountState::Free;
    }
    struct stat st;
    if (stat(mountPoint.c_str(), &st) != 0 && (errno == ENOTCONN || errno == ECONNABORTED)) {
        return MountState::Stale;
    }
    return MountState::Served;
}

bool PidFile::acquire(const std::string &path, pid_t *holder, std::string *error)
{
    *holder = 0;
    std::string dir = path.substr(0, path.rfind('/'));
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
        *error = "cannot create " + dir + ": " + std::strerror(errno);
        return false;
    }
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        *error = "cannot open " + path + ": " + std::strerror(errno);
        return false;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        *holder = readPid(path);
        close(fd);
        return false;
    }
    path_ = path;
    fd_ = fd;
    return true;
}

void PidFile::record(const std::string &mountPoint)
{
    if (fd_ < 0) {
        return;
    }
    std::string text = std::to_string(getpid()) + "\n" + absolute(mountPoint) + "\n";
    if (ftruncate(fd_, 0) == 0) {
        (void)!pwrite(fd_, text.data(), text.size(), 0);
    }
}

void PidFile::leaveToChild()
{
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
}

PidFile::~PidFile()
{
    if (fd_ >= 0) {
        unlink(path_.c_str());
        close(fd_);
    }
}

pid_t daemonOf(const std::string &mountPoint)
{
    pid_t pid = readPid(pidFilePath(mountPoint));
    return isAmbreld(pid) ? pid : 0;
}

int stopDaemon(const std::string &mountPoint)
{
    pid_t pid = daemonOf(mountPoint);
    if (pid == 0) {
        if (mountState(mountPoint) == MountState::Stale) {
            std::fprintf(stderr,
                         "ambreld: %s is a stale mount (its ambreld died); unmount it with "
                         "'fusermount3 -u %s' or 'ambreld --unmount-stale %s'\n",
                         mountPoint.c_str(), mountPoint.c_str(), mountPoint.c_str());
        } else {
            std::fprintf(stderr, "ambreld: no ambreld serves %s\n", mountPoint.c_str());
        }
        return 1;
    }
    if (kill(pid, SIGTERM) != 0) {
        std::fprintf(stderr, "ambreld: cannot stop pid %d: %s\n", int(pid), std::strerror(errno));
        return 1;
    }
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (kill(pid, 0) == 0 && isAmbreld(pid)) {
        if (std::chrono::steady_clock::now() > until) {
            std::fprintf(stderr, "ambreld: pid %d has not stopped after 30 s\n", int(pid));
            return 1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::fprintf(stderr, "ambreld: stopped the daemon of %s (pid %d)\n", mountPoint.c_str(), int(pid));
    return 0;
}

} // namespace ambreld
