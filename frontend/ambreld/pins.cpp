#include "pins.h"

#include <cerrno>

#include "status_errno.h"

namespace ambreld {

NTSTATUS PinFile::open(std::shared_ptr<hostkernel::Process>, const PortView &, bool, std::unique_ptr<PinFile> *)
{
    return STATUS_NOT_IMPLEMENTED;
}

int errnoFromPinStatus(NTSTATUS status)
{
    return errnoFromStatus(status);
}

std::string describeFilter(const PortView &)
{
    return "";
}

} // namespace ambreld
