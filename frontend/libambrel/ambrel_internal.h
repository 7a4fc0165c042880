// Shared between the two halves of libambrel.
#pragma once

#include <string>

#include "ambrel/ambrel.h"

namespace ambrel {

// The file name below the control device, UTF-8: "Name\size\{m}\{p}".
int buildFileName(const char *name, const ambrel_options *options, std::string *fileName);
// AMBREL_READ | AMBREL_WRITE from the options (none asked means both).
unsigned effectiveAccess(const ambrel_options *options);
// Records the system's error code behind the calling thread's last failure.
void setLastOsError(int code);

} // namespace ambrel
