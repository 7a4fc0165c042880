#include "status_errno.h"

#include <cerrno>

namespace ambreld {

int errnoFromStatus(NTSTATUS status)
{
    switch (status) {
    case STATUS_DELETE_PENDING: // the adapter is being removed (daemon stopping)
    case STATUS_NO_SUCH_DEVICE:
        return ENODEV;
    case STATUS_INVALID_PARAMETER: // bad port name, no file name
    case STATUS_OBJECT_NAME_INVALID:
        return EINVAL;
    case STATUS_ALIAS_EXISTS: // a port of that name exists
        return EEXIST;
    case STATUS_INSUFFICIENT_RESOURCES:
    case STATUS_NO_MEMORY:
        return ENOMEM;
    case STATUS_TOO_MANY_SESSIONS: // every port slot is taken
        return ENOSPC;
    case STATUS_DEVICE_BUSY: // a read already waits on the port
        return EBUSY;
    case STATUS_CANCELLED: // the waiting read was cancelled by a signal
        return EINTR;
    case STATUS_SERVER_DISABLED: // the waiting read was ended by the handle's cleanup or removal
        return ESHUTDOWN;
    case STATUS_BUFFER_TOO_SMALL: // an empty write, or no memory for a write's copy
        return ENOBUFS;
    case STATUS_TOO_MANY_COMMANDS: // more than 524288 bytes in one write
        return EMSGSIZE;
    case STATUS_INVALID_DEVICE_REQUEST: // a device control the driver does not know
        return ENOTTY;
    case STATUS_MORE_PROCESSING_REQUIRED: // process-id reply does not fit
        return ERANGE;
    case STATUS_ACCESS_DENIED:
        return EACCES;
    case STATUS_OBJECT_NAME_NOT_FOUND:
    case STATUS_OBJECT_PATH_NOT_FOUND:
        return ENOENT;
    case STATUS_INVALID_HANDLE:
        return EBADF;
    case STATUS_NOT_IMPLEMENTED:
        return ENOSYS;
    case STATUS_NOT_SUPPORTED:
        return EOPNOTSUPP;
    default:
        return NT_SUCCESS(status) ? 0 : EIO;
    }
}

} // namespace ambreld
