// A tiny driver for the tests: a device whose reads park in a miniport's read
// slot exactly as the control device parks them (cancel routine installed,
// request pending, buffer through its direct-I/O mapping), and whose one
// device control asks the miniport for a pin name with the request itself.
// It gives the render path real requests from the host I/O manager to hand
// data to, through the same claim rule the adapter uses.
#pragma once

#include <memory>

#include <hostkernel/io.h>

#include "miniport/amminiport.h"

// Device control: input a KSP_PIN, output the pin name.
#define MP_TEST_IOCTL_PIN_NAME 0x00222003UL  // FILE_DEVICE_UNKNOWN, 0x800, METHOD_NEITHER, any access

class ReadDriver {
public:
    explicit ReadDriver(CMiniportAmbrel *miniport);
    ~ReadDriver();

    std::shared_ptr<hostkernel::Request> read(ULONG length);
    hostkernel::IoResult pinName(void *output, ULONG length, ULONG pinId = 0);
    hostkernel::Process &process() { return process_; }

private:
    PDRIVER_OBJECT driver_ = nullptr;
    hostkernel::Process process_{4711};
    hostkernel::Handle handle_ = 0;
};
