// How the driver's and the host kernel's statuses reach Linux callers of the
// mount. The table is documented for users in README.md ("Linux front end").
#pragma once

#include "amplatform.h"

namespace ambreld {

// 0 for success statuses (STATUS_PENDING excluded: it is never a result);
// otherwise a positive errno value.
int errnoFromStatus(NTSTATUS status);

} // namespace ambreld
