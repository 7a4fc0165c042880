// Real processes against a real ambreld: each test starts the daemon on a
// fresh temporary mount and drives it from this process, forked children and
// the `ambrel` command. Nothing is left mounted, whatever the outcome.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ambrel/mount.h"
#include "driver_build.h"
#include "mount_helpers.h"

// Binaries that use only the process helpers need not say where ambreld is.
#ifndef AMBRELD_PATH
#define AMBRELD_PATH ""
#endif

namespace fetest {

// ambreld with these arguments, serving the build of the driver the test
// binary runs on: the one built into ambreld, or the image (--driver).
inline std::vector<std::string> ambreldCommand(std::initializer_list<std::string> args)
{
    std::vector<std::string> argv{AMBRELD_PATH};
    if (ambreltest::onImage()) {
        argv.insert(argv.end(), {"--driver", ambreltest::driverImage()});
    }
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

using Bytes = std::vector<std::uint8_t>;

inline bool exists(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// A forked child running `body`; its result is the exit status.
class Child {
public:
    explicit Child(const std::function<int()> &body)
    {
        pid_ = fork();
        if (pid_ == 0) {
            _exit(body());
        }
    }
    ~Child() { kill(); }
    pid_t pid() const { return pid_; }
    // Exit status, -1 on timeout (the child is then killed), 128+n for signal n.
    int wait(double seconds = 10)
    {
        if (pid_ <= 0) {
            return status_;
        }
        auto end = Clock::now() + std::chrono::milliseconds(long(seconds * 1000));
        int st = 0;
        while (waitpid(pid_, &st, WNOHANG) == 0) {
            if (Clock::now() > end) {
                kill();
                return -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        pid_ = -1;
        status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
        return status_;
    }
    void kill(int signal = SIGKILL)
    {
        if (pid_ > 0) {
            ::kill(pid_, signal);
            if (signal == SIGKILL) {
                waitpid(pid_, nullptr, 0);
                pid_ = -1;
                status_ = 128 + SIGKILL;
            }
        }
    }

private:
    pid_t pid_ = -1;
    int status_ = -1;
};

// A process of its own that opens `path` for reading and writing (an owner,
// when `path` names a port) and keeps it open until it is killed. Returns
// once that open has been answered: whether it succeeded.
inline bool ownInAnotherProcess(const std::string &path, std::unique_ptr<Child> *child)
{
    int ready[2];
    if (pipe(ready) != 0) {
        return false;
    }
    *child = std::make_unique<Child>([&] {
        int fd = ::open(path.c_str(), O_RDWR);
        (void)!::write(ready[1], fd >= 0 ? "y" : "n", 1);
        for (;;) {
            pause();
        }
        return 0;
    });
    char c = 0;
    bool answered = read(ready[0], &c, 1) == 1;
    close(ready[0]);
    close(ready[1]);
    return answered && c == 'y';
}

// A program run with its standard output and error captured (standard
// input: `input`, else /dev/null).
class Command {
public:
    explicit Command(const std::vector<std::string> &argv, const std::string &input = "")
    {
        int fds[2], errs[2], in[2];
        if (pipe(fds) != 0 || pipe(errs) != 0 || pipe(in) != 0) {
            return;
        }
        child_ = std::make_unique<Child>([&] {
            dup2(fds[1], 1);
            dup2(errs[1], 2);
            dup2(in[0], 0);
            for (int fd : {fds[0], fds[1], errs[0], errs[1], in[0], in[1]}) {
                ::close(fd);
            }
            std::vector<char *> args;
            for (const std::string &a : argv) {
                args.push_back(const_cast<char *>(a.c_str()));
            }
            args.push_back(nullptr);
            execv(args[0], args.data());
            return 127;
        });
        ::close(fds[1]);
        ::close(errs[1]);
        ::close(in[0]);
        out_ = fds[0];
        err_ = errs[0];
        // Small inputs fit the pipe; larger ones are fed by a thread.
        feeder_ = std::thread([fd = in[1], input] {
            // A program that exits without reading its input breaks the
            // pipe: that is EPIPE here, not a SIGPIPE for the whole test
            // (a thread's pending signal goes with the thread).
            sigset_t pipeSignal;
            sigemptyset(&pipeSignal);
            sigaddset(&pipeSignal, SIGPIPE);
            pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);
            for (size_t at = 0; at < input.size();) {
                ssize_t n = ::write(fd, input.data() + at, input.size() - at);
                if (n <= 0) {
                    break;
                }
                at += size_t(n);
            }
            ::close(fd);
        });
    }
    ~Command()
    {
        if (child_) {
            child_->kill();
        }
        if (feeder_.joinable()) {
            feeder_.join();
        }
        for (int fd : {out_, err_}) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }
    pid_t pid() const { return child_->pid(); }
    int wait(double seconds = 10) { return child_->wait(seconds); }
    // Everything it printed on standard output, and on standard error
    // (call after wait()).
    std::string output() { return drain(out_); }
    std::string errors() { return drain(err_); }

private:
    static std::string drain(int fd)
    {
        std::string s;
        char buf[4096];
        ssize_t n;
        while (fd >= 0 && (n = ::read(fd, buf, sizeof buf)) > 0) {
            s.append(buf, size_t(n));
        }
        return s;
    }

    std::unique_ptr<Child> child_;
    std::thread feeder_;
    int out_ = -1;
    int err_ = -1;
};

class DaemonTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (geteuid() != 0 || access("/dev/fuse", R_OK | W_OK) != 0) {
            GTEST_SKIP() << "the front-end tests mount a FUSE file system: they need root and /dev/fuse";
        }
        char dir[] = "/tmp/ambrel-fe-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        mount_ = dir;
        startDaemon();
    }

    void TearDown() override
    {
        if (mount_.empty()) {
            return;
        }
        for (int fd : fds_) {
            ::close(fd);
        }
        if (daemon_ > 0) {
            EXPECT_EQ(stopDaemon(), 0) << "ambreld did not shut down cleanly; its log:\n" << daemonLog();
        }
        if (mounted(mount_)) {
            ADD_FAILURE() << "mount left behind";
            std::string cmd = "fusermount3 -u " + mount_ + " 2>/dev/null || umount -l " + mount_;
            EXPECT_EQ(system(cmd.c_str()), 0);
        }
        rmdir(mount_.c_str());
        unlink(logPath().c_str());
    }

    std::string logPath() const { return mount_ + ".log"; }
    std::string daemonLog() const
    {
        std::ifstream in(logPath());
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }

    void startDaemon(const std::vector<std::string> &extra = {})
    {
        std::string log = logPath();
        daemon_ = fork();
        if (daemon_ == 0) {
            int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            dup2(fd, 1);
            dup2(fd, 2);
            std::vector<std::string> argv = ambreldCommand({"-f"});
            argv.insert(argv.end(), extra.begin(), extra.end());
            argv.push_back(mount_);
            std::vector<char *> args;
            for (std::string &a : argv) {
                args.push_back(a.data());
            }
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
        ASSERT_TRUE(eventually([&] { return mounted(mount_) && exists(mount_ + "/" AMBREL_PORTS_DIR); }))
            << "ambreld did not mount; its log:\n" << daemonLog();
    }

    // SIGTERM and the daemon's exit status (-1 if it had to be killed).
    int stopDaemon()
    {
        ::kill(daemon_, SIGTERM);
        int st = 0;
        auto end = Clock::now() + std::chrono::seconds(20);
        while (waitpid(daemon_, &st, WNOHANG) == 0) {
            if (Clock::now() > end) {
                ::kill(daemon_, SIGKILL);
                waitpid(daemon_, &st, 0);
                daemon_ = -1;
                return -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        daemon_ = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    }

    std::string path(const std::string &rest) const { return mount_ + "/" + rest; }
    std::string portFile(const std::string &port, const char *file) const
    {
        return mount_ + "/" AMBREL_PORTS_DIR "/" + port + "/" + file;
    }

    // Opens and remembers the descriptor (closed at teardown); -errno on failure.
    int openFile(const std::string &p, int flags)
    {
        int fd = ::open(p.c_str(), flags);
        if (fd < 0) {
            return -errno;
        }
        fds_.push_back(fd);
        return fd;
    }
    void closeFile(int fd)
    {
        ::close(fd);
        fds_.erase(std::remove(fds_.begin(), fds_.end(), fd), fds_.end());
    }

    std::vector<std::uint64_t> processIds(int ownerFd)
    {
        struct ambrel_process_ids ids = {};
        if (ioctl(ownerFd, AMBREL_IOC_PROCESS_IDS, &ids) != 0) {
            return {};
        }
        return std::vector<std::uint64_t>(ids.ids, ids.ids + ids.count);
    }
    bool listed(int ownerFd, pid_t pid)
    {
        auto ids = processIds(ownerFd);
        return std::find(ids.begin(), ids.end(), std::uint64_t(pid)) != ids.end();
    }

    std::string slurp(const std::string &p)
    {
        std::ifstream in(p);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }

    // Reads until `n` bytes came or `seconds` passed.
    Bytes readBytes(int fd, size_t n, double seconds = 5)
    {
        Bytes out;
        auto end = Clock::now() + std::chrono::milliseconds(long(seconds * 1000));
        while (out.size() < n && Clock::now() < end) {
            struct pollfd p = {fd, POLLIN, 0};
            if (::poll(&p, 1, 50) <= 0) {
                continue;
            }
            std::uint8_t buf[65536];
            ssize_t r = ::read(fd, buf, sizeof buf);
            if (r <= 0) {
                break;
            }
            out.insert(out.end(), buf, buf + r);
        }
        return out;
    }

    std::vector<std::string> cli(std::initializer_list<std::string> args)
    {
        std::vector<std::string> argv{AMBREL_CLI_PATH, "--mount", mount_};
        argv.insert(argv.end(), args.begin(), args.end());
        return argv;
    }

    std::string mount_;
    pid_t daemon_ = -1;
    std::vector<int> fds_;
};

} // namespace fetest
