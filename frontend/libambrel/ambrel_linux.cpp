// libambrel on Linux: a port is a file below ambreld's mount. The daemon
// turns the driver's statuses into errno values (ambreld/ntstatus_errno.cpp);
// this file turns those into AMBREL_E_* codes.
#include "ambrel/ambrel.h"
#include "ambrel/mount.h"
#include "ambrel_internal.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

struct ambrel_port {
    int fd = -1;
    unsigned access = 0;
};

namespace ambrel {
namespace {

int fromErrno(int e)
{
    setLastOsError(e);
    switch (e) {
    case EEXIST:
        return AMBREL_E_EXISTS;
    case EINVAL:
    case ENAMETOOLONG:
        return AMBREL_E_INVALID;
    case ENOSPC:
        return AMBREL_E_FULL;
    case ENOMEM:
    case ENOBUFS:
        return AMBREL_E_NOMEM;
    case ENOENT:
    case ENOTCONN:
        return AMBREL_E_NODRIVER;
    case EBUSY:
        return AMBREL_E_BUSY;
    case EMSGSIZE:
        return AMBREL_E_TOOBIG;
    case ENODEV:
    case ESHUTDOWN:
    case ECONNABORTED: // a request the kernel cut off as ambreld stopped
        return AMBREL_E_CLOSED;
    case EBADF:
        return AMBREL_E_DIRECTION;
    case EINTR:
        return AMBREL_E_INTERRUPTED;
    default:
        return AMBREL_E_IO;
    }
}

std::string mountRoot(const ambrel_options *options)
{
    if (options != nullptr && options->root != nullptr && options->root[0] != '\0') {
        return options->root;
    }
    const char *env = std::getenv(AMBREL_MOUNT_ENV);
    return env != nullptr && env[0] != '\0' ? env : AMBREL_DEFAULT_MOUNT;
}

} // namespace

} // namespace ambrel

extern "C" {

int ambrel_open(const char *name, const ambrel_options *options, ambrel_port **port)
{
    using namespace ambrel;
    std::string fileName;
    int error = beginOpen(name, options, port, &fileName);
    if (error != AMBREL_OK) {
        return error;
    }
    std::string root = mountRoot(options);
    // A mount without its ports directory is not ambreld's (or not mounted).
    struct stat st;
    if (stat((root + "/" AMBREL_PORTS_DIR).c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        setLastOsError(errno);
        return AMBREL_E_NODRIVER;
    }
    unsigned access = effectiveAccess(options);
    int flags = access == AMBREL_READ ? O_RDONLY : access == AMBREL_WRITE ? O_WRONLY : O_RDWR;
    std::string path = root + "/" + fileName;
    int fd;
    do {
        fd = ::open(path.c_str(), flags | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        return fromErrno(errno);
    }
    auto *p = new (std::nothrow) ambrel_port;
    if (p == nullptr) {
        ::close(fd);
        return AMBREL_E_NOMEM;
    }
    p->fd = fd;
    p->access = access;
    *port = p;
    return AMBREL_OK;
}

long ambrel_read(ambrel_port *port, void *buffer, size_t length, int timeout_ms)
{
    using namespace ambrel;
    if (port == nullptr) {
        return AMBREL_E_INVALID;
    }
    if (int error = checkTransfer(buffer, length, port->access, AMBREL_READ); error != AMBREL_OK) {
        return error;
    }
    if (length > size_t(LONG_MAX)) {
        length = size_t(LONG_MAX);
    }
    if (timeout_ms >= 0) {
        struct pollfd pfd = {port->fd, POLLIN, 0};
        int n = ::poll(&pfd, 1, timeout_ms);
        if (n < 0) {
            return fromErrno(errno);
        }
        if (n == 0) {
            return AMBREL_E_TIMEOUT;
        }
        if ((pfd.revents & (POLLERR | POLLNVAL)) != 0) {
            return fromErrno(EIO);
        }
    }
    ssize_t n = ::read(port->fd, buffer, length);
    if (n < 0) {
        return fromErrno(errno);
    }
    if (n == 0) {
        // The daemon never completes a read without data; an empty one means
        // the mount went away under the handle.
        return AMBREL_E_CLOSED;
    }
    return long(n);
}

long ambrel_write(ambrel_port *port, const void *data, size_t length)
{
    using namespace ambrel;
    if (port == nullptr) {
        return AMBREL_E_INVALID;
    }
    if (int error = checkTransfer(data, length, port->access, AMBREL_WRITE); error != AMBREL_OK) {
        return error;
    }
    ssize_t n;
    do {
        n = ::write(port->fd, data, length);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        return fromErrno(errno);
    }
    return long(n);
}

int ambrel_process_ids(ambrel_port *port, uint64_t *ids, size_t capacity, size_t *count)
{
    using namespace ambrel;
    if (port == nullptr) {
        return AMBREL_E_INVALID;
    }
    if (int error = checkProcessIdArguments(ids, capacity, count); error != AMBREL_OK) {
        return error;
    }
    struct ambrel_process_ids reply = {};
    if (::ioctl(port->fd, AMBREL_IOC_PROCESS_IDS, &reply) != 0) {
        return fromErrno(errno);
    }
    copyProcessIds(reply.ids, size_t(reply.count), ids, capacity, count);
    return AMBREL_OK;
}

int ambrel_close(ambrel_port *port)
{
    if (port == nullptr) {
        return AMBREL_OK;
    }
    int result = AMBREL_OK;
    if (::close(port->fd) != 0 && errno != EINTR) {
        result = ambrel::fromErrno(errno);
    }
    delete port;
    return result;
}

intptr_t ambrel_native_handle(const ambrel_port *port)
{
    return port != nullptr ? intptr_t(port->fd) : -1;
}

} // extern "C"
