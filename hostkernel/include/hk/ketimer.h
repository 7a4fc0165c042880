// Kernel dispatcher objects and deferred work: DPCs, timers, events and the
// waits on them, as the Windows kernel provides them.
//
// DPCs run on a real host thread (the host's one "processor" for deferred
// work) at DISPATCH_LEVEL, in insertion order. Timers expire on the same
// thread, which then queues the timer's DPC exactly as KeInsertQueueDpc does.
// The host remembers every queued KTIMER and KDPC by address so that freeing
// the memory that holds one while it is queued is caught (a use-after-free on
// Windows), and so that the end-of-test check can name what is still queued.
#pragma once

#include "ntdef.h"

typedef enum _MODE { KernelMode = 0, UserMode = 1, MaximumMode = 2 } MODE;

typedef enum _KWAIT_REASON { Executive = 0, FreePage, PageIn, PoolAllocation, DelayExecution, Suspended,
                             UserRequest, WrExecutive } KWAIT_REASON;

typedef enum _EVENT_TYPE { NotificationEvent = 0, SynchronizationEvent = 1 } EVENT_TYPE;
typedef enum _TIMER_TYPE { NotificationTimer = 0, SynchronizationTimer = 1 } TIMER_TYPE;

// Dispatcher object types as Windows numbers them in DISPATCHER_HEADER.Type.
#define HK_EVENT_NOTIFICATION_OBJECT 0
#define HK_EVENT_SYNCHRONIZATION_OBJECT 1
#define HK_TIMER_NOTIFICATION_OBJECT 8
#define HK_TIMER_SYNCHRONIZATION_OBJECT 9

typedef struct _DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR Signalling;
    UCHAR Size;
    UCHAR Inserted;      // timers: in the timer queue
    volatile LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER;

// ---------------------------------------------------------------- DPCs
struct _KDPC;
typedef VOID NTAPI KDEFERRED_ROUTINE(struct _KDPC *Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                                     PVOID SystemArgument2);
typedef KDEFERRED_ROUTINE *PKDEFERRED_ROUTINE;

typedef enum _KDPC_IMPORTANCE { LowImportance, MediumImportance, HighImportance } KDPC_IMPORTANCE;

typedef struct _KDPC {
    UCHAR Type;
    UCHAR Importance;
    volatile USHORT Number;
    LIST_ENTRY DpcListEntry;
    PKDEFERRED_ROUTINE DeferredRoutine;
    PVOID DeferredContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    volatile PVOID DpcData; // non-null while queued
} KDPC, *PKDPC, *PRKDPC;

void NTAPI KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext);
// FALSE when the DPC is already queued (its arguments are then left alone).
BOOLEAN NTAPI KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2);
// TRUE when it was queued and is now removed; a DPC already running is not affected.
BOOLEAN NTAPI KeRemoveQueueDpc(PRKDPC Dpc);
void NTAPI KeSetImportanceDpc(PRKDPC Dpc, KDPC_IMPORTANCE Importance);
// PASSIVE_LEVEL. Returns once every DPC queued before the call has run and
// none of them is still running.
void NTAPI KeFlushQueuedDpcs(void);

// ---------------------------------------------------------------- APCs
// The host delivers no asynchronous procedure calls; the record exists because
// Windows overlays one on a request's tail (IRP.Tail.Apc), which gives the
// request its size.
struct _KAPC;
typedef VOID (NTAPI *PKKERNEL_ROUTINE)(struct _KAPC *Apc, PVOID *NormalRoutine, PVOID *NormalContext,
                                       PVOID *SystemArgument1, PVOID *SystemArgument2);
typedef VOID (NTAPI *PKRUNDOWN_ROUTINE)(struct _KAPC *Apc);
typedef VOID (NTAPI *PKNORMAL_ROUTINE)(PVOID NormalContext, PVOID SystemArgument1, PVOID SystemArgument2);

typedef struct _KAPC {
    UCHAR Type;
    UCHAR SpareByte0;
    UCHAR Size;
    UCHAR SpareByte1;
    ULONG SpareLong0;
    struct _ETHREAD *Thread;
    LIST_ENTRY ApcListEntry;
    PKKERNEL_ROUTINE KernelRoutine;
    PKRUNDOWN_ROUTINE RundownRoutine;
    PKNORMAL_ROUTINE NormalRoutine;
    PVOID NormalContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    CCHAR ApcStateIndex;
    KPROCESSOR_MODE ApcMode;
    BOOLEAN Inserted;
} KAPC, *PKAPC, *PRKAPC;

// ---------------------------------------------------------------- timers
typedef struct _KTIMER {
    DISPATCHER_HEADER Header;
    ULARGE_INTEGER DueTime;
    LIST_ENTRY TimerListEntry;
    struct _KDPC *Dpc;
    ULONG Processor;
    ULONG Period;
} KTIMER, *PKTIMER, *PRKTIMER;

void NTAPI KeInitializeTimer(PKTIMER Timer);
void NTAPI KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type);
// DueTime negative: relative, in 100-ns units; positive: absolute system time
// (KeQuerySystemTime's scale); zero expires at once. Returns TRUE when the
// timer was already in the timer queue (it is then re-armed, not doubled).
BOOLEAN NTAPI KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc);
// Period in milliseconds, 0 for one-shot.
BOOLEAN NTAPI KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc);
// TRUE when the timer was in the timer queue. A DPC the timer already queued
// is not removed: cancel, then KeFlushQueuedDpcs, to be sure it has run.
BOOLEAN NTAPI KeCancelTimer(PKTIMER Timer);
BOOLEAN NTAPI KeReadStateTimer(PKTIMER Timer);

// ---------------------------------------------------------------- events
typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

void NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
// Returns the previous state. Increment and Wait are accepted for the
// signature's sake; the host gives no priority boosts to waiters.
LONG NTAPI KeSetEvent(PRKEVENT Event, LONG Increment, BOOLEAN Wait);
void NTAPI KeClearEvent(PRKEVENT Event);
LONG NTAPI KeResetEvent(PRKEVENT Event);
LONG NTAPI KeReadStateEvent(PRKEVENT Event);

// Waits on a KEVENT or KTIMER. Timeout null: forever; negative: relative
// (100 ns); positive: absolute system time; zero: test only (the one form
// allowed at DISPATCH_LEVEL). STATUS_SUCCESS or STATUS_TIMEOUT.
NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                     BOOLEAN Alertable, PLARGE_INTEGER Timeout);
// Sleeps the calling thread (at most APC_LEVEL).
NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval);
