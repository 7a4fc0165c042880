// Which build of the driver a test binary runs on. Suites that reach the
// driver only as Windows would run twice (tests/CMakeLists.txt, BOTH_BUILDS):
// on the driver the host compiler built, linked into the binary, and on the
// shipped ambrel.sys that `--ambrel-driver=PATH` names, which the host
// kernel's loader maps from the file. Fixtures boot through bootAmbrel-style
// helpers that ask this one parameter; nothing else in a test changes.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace ambreltest {

// The image named on the command line; empty: the host-built driver.
const std::string &driverImage();
inline bool onImage() { return !driverImage().empty(); }
// " on the image" / "" for messages.
inline const char *buildName() { return onImage() ? "the shipped image" : "the host build"; }

// Takes `--ambrel-driver=PATH` out of the arguments (the test main does this
// before GoogleTest sees them; death tests' children get it again).
void takeDriverFlag(int *argc, char **argv);

} // namespace ambreltest

// A test that reads or calls what only the host build exposes (a driver
// global, a routine no request reaches, a record's fields) cannot run on the
// image: it says so and is skipped there, never silently passed.
#define AMBREL_HOST_BUILD_ONLY(why)                                              \
    do {                                                                         \
        if (::ambreltest::onImage()) {                                           \
            GTEST_SKIP() << "reaches the driver's internals (" why "): host build only"; \
        }                                                                        \
    } while (0)
