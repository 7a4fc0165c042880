// Helpers shared by the adapter and miniport units: pool tags, the debug log
// and assertion macros, the IRQL checks and the request completion helpers.
#pragma once

#include "platform.h"

// ------------------------------------------------------------------ pool tags
// A tag is four characters as they appear in a pool dump, first character in
// the low byte.
#define AM_POOL_TAG_OF(a, b, c, d) \
    ((ULONG)(UCHAR)(a) | ((ULONG)(UCHAR)(b) << 8) | ((ULONG)(UCHAR)(c) << 16) | ((ULONG)(UCHAR)(d) << 24))

// Records, buffers, the miniport object and capture items.
#define AMBREL_POOL_TAG AM_POOL_TAG_OF('A', 'm', 'b', 'R')
// MIDI parser records.
#define AMBREL_PARSER_POOL_TAG AM_POOL_TAG_OF('A', 'm', 'b', 'P')
// Objects made through the framework's allocation operator.
#define AMBREL_OBJECT_POOL_TAG AM_POOL_TAG_OF('P', 'c', 'N', 'w')

// ------------------------------------------------------------------ debug log
// Every message is three debugger prints: the unit's prefix, the message, the
// line end. A unit defines AM_LOG_PREFIX before it includes this file. When
// nobody reads debug output the whole message costs the one test below.
#define AM_LOG_PREFIX_ADAPTER "Ambrel:Adapter: "
#define AM_LOG_PREFIX_MINIPORT "Ambrel:Miniport: "

#ifndef AM_LOG_PREFIX
#error "define AM_LOG_PREFIX (AM_LOG_PREFIX_ADAPTER or AM_LOG_PREFIX_MINIPORT) before including amcommon.h"
#endif

#define AmLog(...)                      \
    do {                                \
        if (AmDebugOutputEnabled()) {   \
            DbgPrint(AM_LOG_PREFIX);    \
            DbgPrint(__VA_ARGS__);      \
            DbgPrint("\n");             \
        }                               \
    } while (0)

// ------------------------------------------------------------------ assertions
// Log the expression, the unit and the line, and go on, as a debug build of
// the driver does.
#define AmAssert(expression) \
    ((expression) ? (void)0 : RtlAssert((PVOID)#expression, (PVOID)__FILE__, (ULONG)__LINE__, NULL))

// Assert a condition under a name of its own (the message names the argument,
// not the expression that tests it).
#define AmAssertNamed(condition, text) \
    ((condition) ? (void)0 : RtlAssert((PVOID)(text), (PVOID)__FILE__, (ULONG)__LINE__, NULL))

// ------------------------------------------------------------------ IRQL checks
// Entry check of every routine that must run at PASSIVE_LEVEL (pageable code).
#define AmPagedCode()                                                              \
    do {                                                                           \
        KIRQL amIrql_ = KeGetCurrentIrql();                                        \
        if (amIrql_ > APC_LEVEL) {                                                 \
            if (AmDebugOutputEnabled()) {                                          \
                DbgPrint("EX: Pageable code called at IRQL %d\n", (int)amIrql_);   \
            }                                                                      \
            AmAssert(FALSE);                                                       \
        }                                                                          \
        PAGED_CODE();                                                              \
    } while (0)

#define AmDispatchCode() AmAssert(KeGetCurrentIrql() == DISPATCH_LEVEL)
