// The host implementation of the driver's platform: the Windows kernel,
// portcls and kernel-streaming names the driver uses, with Windows semantics,
// provided by the host kernel. The driver reaches this file only through
// common/platform.h; the Windows build finds platform/windows/amplatform.h
// under the same name instead.
#pragma once

#include "hk/ntdef.h"
#include "hk/ntstatus.h"
#include "hk/ke.h"
#include "hk/ex.h"
#include "hk/rtl.h"
#include "hk/punknown.h"
#include "hk/io.h"
#include "hk/portcls.h"
