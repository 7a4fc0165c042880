// Executive pool: tagged non-paged and paged pool with per-tag accounting,
// leak reports and fault injection (see hostkernel/pool.h for the test API).
#pragma once

#include "ntdef.h"

typedef enum _POOL_TYPE {
    NonPagedPool = 0,
    NonPagedPoolExecute = 0,
    PagedPool = 1,
    NonPagedPoolMustSucceed = 2,
    NonPagedPoolCacheAligned = 4,
    PagedPoolCacheAligned = 5,
    NonPagedPoolNx = 512,
} POOL_TYPE;

// Returns null when the pool (or an injected fault) says no. Memory is not
// zeroed, as on Windows; the host fills it with a pattern to expose reads of
// uninitialised pool.
PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE poolType, SIZE_T numberOfBytes, ULONG tag);
PVOID NTAPI ExAllocatePool(POOL_TYPE poolType, SIZE_T numberOfBytes);
void NTAPI ExFreePool(PVOID p);
void NTAPI ExFreePoolWithTag(PVOID p, ULONG tag);
