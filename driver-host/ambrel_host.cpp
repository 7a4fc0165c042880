#include "ambrel_host.h"

#include <hostkernel/loader.h>

#include "adapter/amadapter.h"

namespace ambrelhost {

PDRIVER_OBJECT loadAmbrel(std::u16string_view serviceName, const std::string &imagePath, NTSTATUS *status)
{
    if (imagePath.empty()) {
        return hostkernel::loadDriver(serviceName, DriverEntry, status);
    }
    return hostkernel::loadDriverImage(serviceName, imagePath, status);
}

PDRIVER_INITIALIZE hostBuildEntry()
{
    return DriverEntry;
}

} // namespace ambrelhost
