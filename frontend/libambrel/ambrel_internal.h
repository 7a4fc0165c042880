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

// The checks both halves make before they touch the system. Each returns
// AMBREL_OK or the error for the caller.
// ambrel_open: clears *port and builds the file name.
int beginOpen(const char *name, const ambrel_options *options, ambrel_port **port, std::string *fileName);
// ambrel_read (direction AMBREL_READ) and ambrel_write (AMBREL_WRITE) on a
// port opened with `portAccess`.
int checkTransfer(const void *buffer, size_t length, unsigned portAccess, unsigned direction);
// ambrel_process_ids' arguments.
int checkProcessIdArguments(const uint64_t *ids, size_t capacity, const size_t *count);
// Hands the caller as many of the `found` ids as fit.
void copyProcessIds(const uint64_t *found, size_t foundCount, uint64_t *ids, size_t capacity, size_t *count);

} // namespace ambrel
