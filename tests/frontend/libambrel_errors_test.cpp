// What libambrel makes of each failure the system gives a port's descriptor.
// The test binary is linked with --wrap for read, write and ioctl, so a
// chosen errno reaches the library on an ordinary file that stands in for
// the port (ambreld's answers through FUSE are that errno and nothing else).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ambrel/ambrel.h"

namespace {

// Fails the next `times` calls on `fd` with `error`.
struct Injection {
    int fd = -1;
    int error = 0;
    int times = 0;
};
Injection gInjection;

bool inject(int fd)
{
    if (fd != gInjection.fd || gInjection.times == 0) {
        return false;
    }
    --gInjection.times;
    errno = gInjection.error;
    return true;
}

} // namespace

extern "C" {
ssize_t __real_read(int fd, void *buffer, size_t length);
ssize_t __real_write(int fd, const void *data, size_t length);
int __real_ioctl(int fd, unsigned long request, void *argument);

ssize_t __wrap_read(int fd, void *buffer, size_t length)
{
    return inject(fd) ? -1 : __real_read(fd, buffer, length);
}

ssize_t __wrap_write(int fd, const void *data, size_t length)
{
    return inject(fd) ? -1 : __real_write(fd, data, length);
}

int __wrap_ioctl(int fd, unsigned long request, void *argument)
{
    return inject(fd) ? -1 : __real_ioctl(fd, request, argument);
}
}

namespace {

class LibambrelErrors : public ::testing::Test {
protected:
    void SetUp() override
    {
        char dir[] = "/tmp/ambrel-liberr-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        root_ = dir;
        ASSERT_EQ(mkdir((root_ + "/ports").c_str(), 0755), 0);
        // "Piano\" is the file name of port "Piano" opened without options.
        file_ = root_ + "/Piano\\";
        int fd = open(file_.c_str(), O_CREAT | O_WRONLY, 0644);
        ASSERT_GE(fd, 0);
        close(fd);
        ambrel_options options{};
        options.root = root_.c_str();
        ASSERT_EQ(ambrel_open("Piano", &options, &port_), 0);
        fd_ = int(ambrel_native_handle(port_));
    }

    void TearDown() override
    {
        gInjection = Injection{};
        ambrel_close(port_);
        unlink(file_.c_str());
        rmdir((root_ + "/ports").c_str());
        rmdir(root_.c_str());
    }

    void failNext(int error, int times = 1) { gInjection = Injection{fd_, error, times}; }

    std::string root_, file_;
    ambrel_port *port_ = nullptr;
    int fd_ = -1;
};

TEST_F(LibambrelErrors, EachErrnoBecomesItsStatusOnReadWriteAndProcessIds)
{
    // The statuses as ambrel.h publishes them.
    struct Case {
        int error;
        int status;
    } cases[] = {
        {EINVAL, -1}, {ENAMETOOLONG, -1},                  // AMBREL_E_INVALID
        {EEXIST, -2},                                      // AMBREL_E_EXISTS
        {ENOSPC, -3},                                      // AMBREL_E_FULL
        {ENOMEM, -4}, {ENOBUFS, -4},                       // AMBREL_E_NOMEM
        {ENOENT, -5}, {ENOTCONN, -5},                      // AMBREL_E_NODRIVER
        {EBUSY, -7},                                       // AMBREL_E_BUSY
        {EMSGSIZE, -8},                                    // AMBREL_E_TOOBIG
        {ENODEV, -9}, {ESHUTDOWN, -9}, {ECONNABORTED, -9}, // AMBREL_E_CLOSED
        {EBADF, -10},                                      // AMBREL_E_DIRECTION
        {EIO, -12}, {EPERM, -12}, {EAGAIN, -12},           // AMBREL_E_IO
    };
    const unsigned char note[] = {0x90, 60, 100};
    unsigned char buffer[16];
    for (const Case &c : cases) {
        const char *name = strerrorname_np(c.error);
        failNext(c.error);
        EXPECT_EQ(ambrel_write(port_, note, sizeof note), c.status) << name;
        EXPECT_EQ(ambrel_last_os_error(), c.error) << name;
        failNext(c.error);
        EXPECT_EQ(ambrel_read(port_, buffer, sizeof buffer, -1), c.status) << name;
        EXPECT_EQ(ambrel_last_os_error(), c.error) << name;
        failNext(c.error);
        std::uint64_t ids[4];
        size_t count = 99;
        EXPECT_EQ(ambrel_process_ids(port_, ids, 4, &count), c.status) << name;
        EXPECT_EQ(ambrel_last_os_error(), c.error) << name;
    }
}

TEST_F(LibambrelErrors, ASignalIsRetriedByWritesAndSaidByReads)
{
    const unsigned char note[] = {0x90, 60, 100};
    failNext(EINTR, 2);
    EXPECT_EQ(ambrel_write(port_, note, sizeof note), 3) << "a write goes once the signals are handled";
    unsigned char buffer[16];
    failNext(EINTR);
    EXPECT_EQ(ambrel_read(port_, buffer, sizeof buffer, -1), -11);
    // What the write put in the stand-in file is read back after the signal.
    EXPECT_EQ(lseek(fd_, 0, SEEK_SET), 0);
    EXPECT_EQ(ambrel_read(port_, buffer, sizeof buffer, -1), 3);
    EXPECT_EQ(std::memcmp(buffer, note, 3), 0);
    // Nothing more: ambreld never answers a read with no bytes unless the
    // mount went away under the handle.
    EXPECT_EQ(ambrel_read(port_, buffer, sizeof buffer, -1), -9);
}

} // namespace
