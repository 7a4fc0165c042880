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

// ------------------------------------------------------------------ source units
// Every source file belongs to one of the driver's two units and names it
// before it includes this file: AM_UNIT_ADAPTER (adapter/ and below, and
// common/amcomplete.cpp) or AM_UNIT_MINIPORT (miniport/ and below, and
// common/amunknown.cpp). A header's macros take the unit of the file that
// includes it. The unit gives the log prefix and the name assertions carry:
// never a path, so the image says nothing about the machine that built it.
#define AM_UNIT_ADAPTER 1
#define AM_UNIT_MINIPORT 2

#if !defined(AM_UNIT)
#error "define AM_UNIT (AM_UNIT_ADAPTER or AM_UNIT_MINIPORT) before including amcommon.h"
#elif AM_UNIT == AM_UNIT_ADAPTER
#define AM_UNIT_NAME "amadapter"
#define AM_LOG_PREFIX "Ambrel:Adapter: "
#elif AM_UNIT == AM_UNIT_MINIPORT
#define AM_UNIT_NAME "amminiport"
#define AM_LOG_PREFIX "Ambrel:Miniport: "
#else
#error "AM_UNIT is neither AM_UNIT_ADAPTER nor AM_UNIT_MINIPORT"
#endif

// ------------------------------------------------------------------ debug log
// Every message is three debugger prints: the unit's prefix, the message, the
// line end. When nobody reads debug output the whole message costs the one
// test below.
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
    ((expression) ? (void)0 : RtlAssert((PVOID)#expression, (PVOID)AM_UNIT_NAME, (ULONG)__LINE__, NULL))

// Assert a condition under a name of its own (the message names the argument,
// not the expression that tests it).
#define AmAssertNamed(condition, text) \
    ((condition) ? (void)0 : RtlAssert((PVOID)(text), (PVOID)AM_UNIT_NAME, (ULONG)__LINE__, NULL))

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
