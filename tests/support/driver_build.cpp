#include "driver_build.h"

#include "driver-host/ambrel_host.h"

namespace ambreltest {
namespace {

std::string &image()
{
    static std::string path;
    return path;
}

} // namespace

const std::string &driverImage()
{
    return image();
}

void takeDriverFlag(int *argc, char **argv)
{
    image() = ambrelhost::takeDriverFlag(argc, argv);
}

} // namespace ambreltest
