// The driver's one platform include point.
//
// Every driver source reaches the Windows kernel, portcls and kernel streaming
// through this file and nothing else. <amplatform.h> is resolved by the build:
// for ambrel.sys it is platform/windows/amplatform.h (the WDK headers of
// mingw-w64 plus what they lack); for the host it is
// hostkernel/include/amplatform.h (the host kernel). Driver logic never asks
// which one it got.
#pragma once

#include <amplatform.h>
