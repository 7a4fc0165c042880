// Request packets: calling drivers, completion with its routines, pending
// and cancellation, and the verifier's checks on all three.
//
// Each IRP is allocated behind a small header that points to its record;
// the record holds the packet's memory for as long as anybody (the issuer, a
// driver call in progress, an outstanding completion) can still touch it, so
// a late cancel or a second completion finds a live packet to report on.
#include <cstdlib>

#include "hostkernel/delay.h"
#include "internal.h"

namespace hostkernel::detail {

namespace {

struct IrpHeader {
    IrpRecord *record;
    std::uint64_t magic;
};
static_assert(sizeof(IrpHeader) == 16, "the IRP follows its header 16-byte aligned");

std::mutex gLiveMutex;
std::set<IrpRecord *> gLive; // issued, not yet completed

std::string describe(const IrpRecord &record)
{
    return describeIrp(record);
}

// Whether completion of `status` calls a routine registered with `control`.
bool routineApplies(UCHAR control, NTSTATUS status, BOOLEAN cancelled)
{
    return (NT_SUCCESS(status) && (control & SL_INVOKE_ON_SUCCESS)) ||
           (!NT_SUCCESS(status) && (control & SL_INVOKE_ON_ERROR)) || (cancelled && (control & SL_INVOKE_ON_CANCEL));
}

// The I/O manager's own part of completion, once the last routine has run:
// results, buffered output, and the packet's reference to its file object.
void finish(IrpRecord &record, CCHAR boost)
{
    PIRP irp = record.irp;
    NTSTATUS status = irp->IoStatus.Status;
    if (record.copyBackTo != nullptr && !NT_ERROR(status) && irp->AssociatedIrp.SystemBuffer != nullptr) {
        ULONG_PTR n = irp->IoStatus.Information < record.copyBackLength ? irp->IoStatus.Information
                                                                         : record.copyBackLength;
        memcpy(record.copyBackTo, irp->AssociatedIrp.SystemBuffer, n);
    }
    if (record.origin == IrpOrigin::Kernel) {
        finishKernelIrp(record);
    }
    FileRecord *file = record.file;
    record.file = nullptr;
    if (file != nullptr) {
        {
            std::lock_guard<std::mutex> lock(file->mutex);
            file->outstanding.erase(&record);
        }
        // Never a close from inside a driver's completion: the last reference
        // of an asynchronous completion is dropped on the worker.
        releaseFile(file, false);
    }
    {
        std::lock_guard<std::mutex> lock(gLiveMutex);
        gLive.erase(&record);
    }
    std::shared_ptr<IrpRecord> self;
    {
        std::lock_guard<std::mutex> lock(record.mutex);
        record.result.status = status;
        record.result.information = irp->IoStatus.Information;
        record.result.priorityBoost = boost;
        record.completed = true;
        record.finished = true;
        self = std::move(record.selfWhileLive);
        record.cv.notify_all();
    }
}

} // namespace

std::string describeIrp(const IrpRecord &record)
{
    return std::string(majorName(record.major)) + " request " + hex(ULONG_PTR(record.irp)) +
           (record.target.empty() ? "" : " to " + narrow(record.target));
}

void trackLiveIrp(IrpRecord *record)
{
    std::lock_guard<std::mutex> lock(gLiveMutex);
    gLive.insert(record);
}

void untrackLiveIrp(IrpRecord *record)
{
    std::lock_guard<std::mutex> lock(gLiveMutex);
    gLive.erase(record);
}

IrpRecord::IrpRecord(CCHAR stackSize, IrpOrigin o) : origin(o)
{
    if (stackSize < 1) {
        stackSize = 1;
    }
    size_t bytes = sizeof(IrpHeader) + sizeof(IRP) + size_t(stackSize) * sizeof(IO_STACK_LOCATION);
    block = static_cast<unsigned char *>(std::aligned_alloc(16, (bytes + 15) & ~size_t(15)));
    memset(block, 0, bytes);
    auto *header = reinterpret_cast<IrpHeader *>(block);
    header->record = this;
    header->magic = kIrpMagic;
    irp = reinterpret_cast<PIRP>(block + sizeof(IrpHeader));
    irp->Type = IO_TYPE_IRP;
    irp->Size = USHORT(sizeof(IRP) + size_t(stackSize) * sizeof(IO_STACK_LOCATION));
    irp->StackCount = stackSize;
    irp->CurrentLocation = CHAR(stackSize + 1);
    irp->Tail.Overlay.CurrentStackLocation = stack0() + stackSize;
    InitializeListHead(&irp->ThreadListEntry);
    levels.resize(size_t(stackSize));
}

IrpRecord::~IrpRecord()
{
    reinterpret_cast<IrpHeader *>(block)->magic = 0;
    std::free(block);
}

IrpRecord *irpRecordOf(PIRP irp, const char *routine)
{
    if (irp == nullptr || irp->Type != IO_TYPE_IRP) {
        bugCheck(0xC9, 0x3, ULONG_PTR(irp), (std::string(routine) + ": not a request packet").c_str());
    }
    auto *header = reinterpret_cast<IrpHeader *>(reinterpret_cast<unsigned char *>(irp) - sizeof(IrpHeader));
    if (header->magic != kIrpMagic) {
        bugCheck(0xC9, 0x3, ULONG_PTR(irp), (std::string(routine) + ": not a request packet").c_str());
    }
    return header->record;
}

NTSTATUS issueIrp(const std::shared_ptr<IrpRecord> &record, PDEVICE_OBJECT device)
{
    record->selfWhileLive = record;
    record->major = record->firstLocation()->MajorFunction;
    {
        std::lock_guard<std::mutex> lock(gLiveMutex);
        gLive.insert(record.get());
    }
    if (record->file != nullptr) {
        std::lock_guard<std::mutex> lock(record->file->mutex);
        record->file->outstanding.insert(record.get());
    }
    NTSTATUS status = IoCallDriver(device, record->irp);
    std::lock_guard<std::mutex> lock(record->mutex);
    record->result.dispatchStatus = status;
    return status;
}

IoResult waitIrp(IrpRecord &record)
{
    std::unique_lock<std::mutex> lock(record.mutex);
    if (!record.completed && record.result.dispatchStatus != STATUS_PENDING) {
        // Windows does not wait either: the caller gets the dispatch status
        // and the packet finishes whenever it is completed.
        IoResult early;
        early.status = record.result.dispatchStatus;
        early.dispatchStatus = record.result.dispatchStatus;
        return early;
    }
    record.cv.wait(lock, [&] { return record.completed; });
    return record.result;
}

size_t outstandingIrpCount()
{
    std::lock_guard<std::mutex> lock(gLiveMutex);
    return gLive.size();
}

std::vector<std::string> outstandingIrpDescriptions()
{
    std::lock_guard<std::mutex> lock(gLiveMutex);
    std::vector<std::string> out;
    for (IrpRecord *record : gLive) {
        out.push_back(describe(*record) + " never completed");
    }
    return out;
}

} // namespace hostkernel::detail

using namespace hostkernel;
using namespace hostkernel::detail;

void IoMarkIrpPending(PIRP Irp)
{
    IrpRecord *record = irpRecordOf(Irp, "IoMarkIrpPending");
    if (Irp->CurrentLocation > Irp->StackCount) {
        violation(Rule::IrpPendingMarkedButCompleted,
                  "IoMarkIrpPending on " + describe(*record) + " after it was completed");
    }
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
    location->Control |= SL_PENDING_RETURNED;
    std::lock_guard<std::mutex> lock(record->mutex);
    record->levels[size_t(location - record->stack0())].marked = true;
}

NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    requireIrqlAtMost(DISPATCH_LEVEL, "IoCallDriver");
    IrpRecord *record = irpRecordOf(Irp, "IoCallDriver");
    std::shared_ptr<IrpRecord> keep = record->shared_from_this();
    requireDevice(DeviceObject, "IoCallDriver");
    if (record->origin == IrpOrigin::Kernel) {
        if (record->freed) {
            violation(Rule::ObjectDoubleRelease, "IoCallDriver with " + describe(*record) + " after it was freed");
        }
        // A kernel caller's packet is outstanding while it is in a driver:
        // from its send until completion finishes or hands it back.
        if (!record->sent.exchange(true)) {
            record->major = IoGetNextIrpStackLocation(Irp)->MajorFunction;
        }
        trackLiveIrp(record);
    }

    Irp->CurrentLocation--;
    if (Irp->CurrentLocation <= 0) {
        bugCheck(0x35, ULONG_PTR(Irp), 0, "IoCallDriver: NO_MORE_IRP_STACK_LOCATIONS");
    }
    Irp->Tail.Overlay.CurrentStackLocation--;
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
    location->DeviceObject = DeviceObject;
    size_t level = size_t(location - record->stack0());
    if (location->MajorFunction > IRP_MJ_MAXIMUM_FUNCTION) {
        bugCheck(0xC9, 0x3, ULONG_PTR(Irp), "IoCallDriver: invalid major function");
    }
    PDRIVER_DISPATCH dispatch = DeviceObject->DriverObject->MajorFunction[location->MajorFunction];
    if (dispatch == nullptr) {
        bugCheck(0x1E, ULONG_PTR(Irp), 0, "IoCallDriver: the driver's major-function slot is empty");
    }
    {
        std::lock_guard<std::mutex> lock(record->mutex);
        LevelState &state = record->levels[level];
        if (state.activeFrames++ == 0) {
            state = LevelState{1, false, false, false};
        }
        if (record->target.empty()) {
            record->target = toU16(&DeviceObject->DriverObject->DriverName);
        }
    }

    KIRQL irql = KeGetCurrentIrql();
    NTSTATUS status = dispatch(DeviceObject, Irp);
    KIRQL after = KeGetCurrentIrql();
    if (after != irql) {
        violation(Rule::IrqlNotRestored, std::string("dispatch routine for ") + describe(*record) + " returned at IRQL " +
                                             std::to_string(after) + ", called at " + std::to_string(irql));
    }

    std::lock_guard<std::mutex> lock(record->mutex);
    LevelState &state = record->levels[level];
    state.activeFrames--;
    // wdm.h's IoMarkIrpPending is inline: a driver built against it only
    // sets the location's SL_PENDING_RETURNED bit, so the bit is the mark.
    // (Completion clears it once it has passed the location, and records
    // what it saw there.)
    if (!state.passed && (location->Control & SL_PENDING_RETURNED) != 0) {
        state.marked = true;
    }
    if (status == STATUS_PENDING) {
        if (state.passed && !state.marked) {
            violation(Rule::IrpPendingNotMarked, "dispatch routine returned STATUS_PENDING for " + describe(*record) +
                                                     " without IoMarkIrpPending");
        }
        state.returnedPending = true;
    } else if (state.marked) {
        violation(Rule::IrpPendingMarkedButCompleted, "dispatch routine marked " + describe(*record) +
                                                          " pending but returned " + hex(ULONG(status)) +
                                                          " instead of STATUS_PENDING");
    }
    return status;
}

void FASTCALL IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost)
{
    requireIrqlAtMost(DISPATCH_LEVEL, "IoCompleteRequest");
    delayPoint(DelayPoint::IrpCompletion);
    IrpRecord *record = irpRecordOf(Irp, "IoCompleteRequest");
    std::shared_ptr<IrpRecord> keep = record->shared_from_this();
    if (record->freed && !record->finished) {
        violation(Rule::ObjectDoubleRelease, "IoCompleteRequest on " + describe(*record) + " after IoFreeIrp");
    }
    if (record->finished || record->completing.exchange(true) || Irp->CurrentLocation > Irp->StackCount) {
        violation(Rule::IrpDoubleCompletion, "IoCompleteRequest on " + describe(*record) + " that is already completed");
    }
    if (__atomic_load_n(&Irp->CancelRoutine, __ATOMIC_SEQ_CST) != nullptr) {
        violation(Rule::IrpCompletedWithCancelRoutine,
                  "IoCompleteRequest on " + describe(*record) + " with its cancel routine still set");
    }
    if (Irp->IoStatus.Status == STATUS_PENDING) {
        bugCheck(0xC9, 0x6, ULONG_PTR(Irp), "IoCompleteRequest with STATUS_PENDING");
    }

    record->completionBoost = PriorityBoost;
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
    Irp->CurrentLocation++;
    Irp->Tail.Overlay.CurrentStackLocation++;
    for (; Irp->CurrentLocation <= Irp->StackCount + 1;
         location++, Irp->CurrentLocation++, Irp->Tail.Overlay.CurrentStackLocation++) {
        size_t level = size_t(location - record->stack0());
        {
            std::lock_guard<std::mutex> lock(record->mutex);
            LevelState &state = record->levels[level];
            state.passed = true;
            if ((location->Control & SL_PENDING_RETURNED) != 0) {
                state.marked = true; // marked inline, as wdm.h's IoMarkIrpPending does
            }
            if (state.returnedPending && !state.marked) {
                violation(Rule::IrpPendingNotMarked, "dispatch routine returned STATUS_PENDING for " +
                                                         describe(*record) + " without IoMarkIrpPending");
            }
            Irp->PendingReturned = state.marked;
        }
        PIO_COMPLETION_ROUTINE routine = location->CompletionRoutine;
        PVOID context = location->Context;
        UCHAR control = location->Control;
        location->MinorFunction = 0;
        location->Flags = 0;
        location->Control = 0;
        location->CompletionRoutine = nullptr;
        location->Context = nullptr;

        if (routine != nullptr && routineApplies(control, Irp->IoStatus.Status, Irp->Cancel)) {
            PDEVICE_OBJECT device = Irp->CurrentLocation == Irp->StackCount + 1
                                        ? nullptr
                                        : IoGetCurrentIrpStackLocation(Irp)->DeviceObject;
            // The routine may hand the packet back to its driver (STATUS_MORE_
            // PROCESSING_REQUIRED), which may complete it again at once.
            record->completing = false;
            KIRQL irql = KeGetCurrentIrql();
            NTSTATUS status = routine(device, Irp, context);
            if (KeGetCurrentIrql() != irql) {
                violation(Rule::IrqlNotRestored, "completion routine of " + describe(*record) +
                                                     " returned at IRQL " + std::to_string(KeGetCurrentIrql()) +
                                                     ", called at " + std::to_string(irql));
            }
            if (status == STATUS_MORE_PROCESSING_REQUIRED) {
                // Back with the caller that built it: from here on only
                // IoFreeIrp is owed, and the end-of-test check says so.
                if (record->origin == IrpOrigin::Kernel && Irp->CurrentLocation > Irp->StackCount) {
                    untrackLiveIrp(record);
                }
                return;
            }
            if (record->completing.exchange(true)) {
                violation(Rule::IrpDoubleCompletion,
                          "IoCompleteRequest on " + describe(*record) + " while its completion was under way");
            }
        } else if (Irp->PendingReturned && Irp->CurrentLocation <= Irp->StackCount) {
            // No routine to pass the pending state up: the I/O manager does.
            IoGetCurrentIrpStackLocation(Irp)->Control |= SL_PENDING_RETURNED;
            std::lock_guard<std::mutex> lock(record->mutex);
            record->levels[level + 1].marked = true;
        }
    }
    finish(*record, PriorityBoost);
}

BOOLEAN IoCancelIrp(PIRP Irp)
{
    requireIrqlAtMost(DISPATCH_LEVEL, "IoCancelIrp");
    IrpRecord *record = irpRecordOf(Irp, "IoCancelIrp");
    std::shared_ptr<IrpRecord> keep = record->shared_from_this();
    if (record->freed) {
        violation(Rule::ObjectDoubleRelease, "IoCancelIrp on " + describe(*record) + " after it was freed");
    }
    if (record->finished) {
        return FALSE;
    }
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    Irp->Cancel = TRUE;
    PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, nullptr);
    if (routine == nullptr) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    Irp->CancelIrql = irql;
    routine(IoGetCurrentIrpStackLocation(Irp)->DeviceObject, Irp);
    if (KeGetCurrentIrql() != irql) {
        violation(Rule::IrqlNotRestored, "cancel routine of " + describe(*record) + " returned at IRQL " +
                                             std::to_string(KeGetCurrentIrql()) +
                                             " (it must release the cancel spin lock with Irp->CancelIrql)");
    }
    return TRUE;
}

PVOID NTAPI MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                         MEMORY_CACHING_TYPE CacheType, PVOID RequestedAddress,
                                         ULONG BugCheckOnFailure, ULONG Priority)
{
    (void)CacheType;
    (void)Priority;
    PMDL mdl = MemoryDescriptorList;
    // User-mode mappings may fault in pages of the process, so only kernel
    // mode is allowed up to DISPATCH_LEVEL.
    requireIrqlAtMost(AccessMode == KernelMode ? DISPATCH_LEVEL : APC_LEVEL, "MmMapLockedPagesSpecifyCache");
    if (RequestedAddress != nullptr) {
        bugCheck(0x1A, 0, ULONG_PTR(mdl), "MmMapLockedPagesSpecifyCache: a base address is for user-mode mappings");
    }
    if (mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) {
        return mdl->MappedSystemVa;
    }
    if (!(mdl->MdlFlags & MDL_PAGES_LOCKED)) {
        // Windows would map whatever the page array holds.
        bugCheck(0x1A, 0, ULONG_PTR(mdl),
                 "MmMapLockedPagesSpecifyCache: the MDL describes neither locked pages nor non-paged pool");
    }
    if (takeIoFault(IoFault::MapMdl, nullptr)) {
        if (BugCheckOnFailure) {
            bugCheck(0x3F, 0, ULONG_PTR(mdl), "MmMapLockedPagesSpecifyCache: NO_MORE_SYSTEM_PTES");
        }
        return nullptr;
    }
    // Host memory is one address space: the system mapping is the buffer.
    mdl->MappedSystemVa = static_cast<PCHAR>(mdl->StartVa) + mdl->ByteOffset;
    mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    return mdl->MappedSystemVa;
}
