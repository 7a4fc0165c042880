#include "driver_build.h"

#include <cstring>

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
    static const char kFlag[] = "--ambrel-driver=";
    int out = 1;
    for (int i = 1; i < *argc; i++) {
        if (std::strncmp(argv[i], kFlag, sizeof kFlag - 1) == 0) {
            image() = argv[i] + sizeof kFlag - 1;
            continue;
        }
        argv[out++] = argv[i];
    }
    argv[out] = nullptr;
    *argc = out;
}

} // namespace ambreltest
