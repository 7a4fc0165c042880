// Requests that kernel-mode code builds for itself: packets from IoAllocateIrp
// and IoBuildAsynchronousFsdRequest, the MDLs that describe their buffers,
// and the end of a completion that runs to the end for such a packet.
//
// Unlike the application path, nobody waits on these packets for the caller:
// it learns of completion through its own completion routine and frees the
// packet itself. The host therefore keeps every allocated packet until
// IoFreeIrp (or a completion that frees it, as Windows does when no routine
// stops it), reports the ones left at the end of the test, and keeps freed
// ones in a quarantine until the next reset, so that a second free or a late
// send is a report instead of a use of freed memory.
#include <condition_variable>

#include "internal.h"

namespace hostkernel::detail {

namespace {

constexpr ULONG kMdlTag = tag("Mdl ");
// The host's tag for system buffers it allocates for kernel callers' packets.
constexpr ULONG kSystemBufferTag = tag("IoSb");
// The most one MDL can describe: a page short of 4 GiB.
constexpr ULONG kMaxMdlLength = 0xFFFFFFFFu - PAGE_SIZE + 1;

std::mutex gKernelMutex;
std::unordered_map<IrpRecord *, std::shared_ptr<IrpRecord>> gAllocated;
std::vector<std::shared_ptr<IrpRecord>> gQuarantine;

// Moves an allocated packet to the quarantine. False when it was not
// allocated (any more).
bool retire(IrpRecord *record)
{
    std::lock_guard<std::mutex> lock(gKernelMutex);
    auto it = gAllocated.find(record);
    if (it == gAllocated.end()) {
        return false;
    }
    record->freed = true;
    gQuarantine.push_back(std::move(it->second));
    gAllocated.erase(it);
    return true;
}

void freeMdlChain(PIRP irp)
{
    PMDL mdl = irp->MdlAddress;
    irp->MdlAddress = nullptr;
    while (mdl != nullptr) {
        PMDL next = mdl->Next;
        if (mdl->MdlFlags & MDL_PAGES_LOCKED) {
            MmUnlockPages(mdl);
        }
        IoFreeMdl(mdl);
        mdl = next;
    }
}

void freeSystemBuffer(PIRP irp)
{
    if ((irp->Flags & IRP_DEALLOCATE_BUFFER) && irp->AssociatedIrp.SystemBuffer != nullptr) {
        ExFreePoolWithTag(irp->AssociatedIrp.SystemBuffer, kSystemBufferTag);
    }
    irp->AssociatedIrp.SystemBuffer = nullptr;
    irp->Flags &= ~ULONG(IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER);
}

} // namespace

void finishKernelIrp(IrpRecord &record)
{
    PIRP irp = record.irp;
    if (irp->Flags & IRP_BUFFERED_IO) {
        if ((irp->Flags & IRP_INPUT_OPERATION) && !NT_ERROR(irp->IoStatus.Status) && irp->UserBuffer != nullptr &&
            irp->AssociatedIrp.SystemBuffer != nullptr) {
            memcpy(irp->UserBuffer, irp->AssociatedIrp.SystemBuffer, irp->IoStatus.Information);
        }
        freeSystemBuffer(irp);
    }
    freeMdlChain(irp);
    if (irp->UserIosb != nullptr) {
        *irp->UserIosb = irp->IoStatus;
    }
    if (irp->UserEvent != nullptr) {
        KeSetEvent(irp->UserEvent, 0, FALSE);
    }
    retire(&record);
}

std::vector<std::string> unfreedKernelIrpDescriptions()
{
    std::lock_guard<std::mutex> lock(gKernelMutex);
    std::vector<std::string> out;
    for (auto &[record, keep] : gAllocated) {
        (void)keep;
        // An unsent packet's major is what its caller put in the first location.
        std::string what = record->sent ? describeIrp(*record)
                                        : std::string(majorName(record->firstLocation()->MajorFunction)) +
                                              " request " + hex(ULONG_PTR(record->irp)) + " (never sent)";
        out.push_back(what + " allocated by a kernel-mode caller and never freed (IoFreeIrp)");
    }
    return out;
}

void resetKernelIrps()
{
    std::lock_guard<std::mutex> lock(gKernelMutex);
    gAllocated.clear();
    gQuarantine.clear();
}

} // namespace hostkernel::detail

using namespace hostkernel;
using namespace hostkernel::detail;

// ------------------------------------------------------------------ packets
PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota)
{
    (void)ChargeQuota;
    requireIrqlAtMost(DISPATCH_LEVEL, "IoAllocateIrp");
    auto record = std::make_shared<IrpRecord>(StackSize, IrpOrigin::Kernel);
    PIRP irp = record->irp;
    std::lock_guard<std::mutex> lock(gKernelMutex);
    gAllocated.emplace(record.get(), std::move(record));
    return irp;
}

void IoFreeIrp(PIRP Irp)
{
    requireIrqlAtMost(DISPATCH_LEVEL, "IoFreeIrp");
    IrpRecord *record = irpRecordOf(Irp, "IoFreeIrp");
    if (record->origin != IrpOrigin::Kernel) {
        violation(Rule::ObjectDoubleRelease,
                  "IoFreeIrp on " + describeIrp(*record) + ", which the I/O manager issued and frees itself");
    }
    if (record->freed) {
        violation(Rule::ObjectDoubleRelease, "IoFreeIrp on " + describeIrp(*record) + ", already freed");
    }
    // Past the last location means never sent, or handed back by completion.
    if (Irp->CurrentLocation <= Irp->StackCount || record->completing) {
        violation(Rule::ObjectDoubleRelease,
                  "IoFreeIrp on " + describeIrp(*record) + " while a driver still holds it");
    }
    untrackLiveIrp(record);
    retire(record);
}

PIRP IoBuildAsynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer, ULONG Length,
                                   PLARGE_INTEGER StartingOffset, PIO_STATUS_BLOCK IoStatusBlock)
{
    requireIrqlAtMost(DISPATCH_LEVEL, "IoBuildAsynchronousFsdRequest");
    requireDevice(DeviceObject, "IoBuildAsynchronousFsdRequest");
    switch (MajorFunction) {
    case IRP_MJ_READ:
    case IRP_MJ_WRITE:
    case IRP_MJ_FLUSH_BUFFERS:
    case IRP_MJ_SHUTDOWN:
    case IRP_MJ_PNP:
    case IRP_MJ_POWER:
        break;
    default:
        return nullptr;
    }
    PIRP irp = IoAllocateIrp(DeviceObject->StackSize, FALSE);
    IrpRecord *record = irpRecordOf(irp, "IoBuildAsynchronousFsdRequest");
    record->thread = currentThread();
    irp->Tail.Overlay.Thread = record->thread.get();
    irp->RequestorMode = KernelMode;
    irp->UserIosb = IoStatusBlock;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = UCHAR(MajorFunction);

    if (MajorFunction == IRP_MJ_READ || MajorFunction == IRP_MJ_WRITE) {
        if (DeviceObject->Flags & DO_BUFFERED_IO) {
            PVOID buffer = ExAllocatePoolWithTag(NonPagedPool, Length, kSystemBufferTag);
            if (buffer == nullptr) {
                IoFreeIrp(irp);
                return nullptr;
            }
            if (MajorFunction == IRP_MJ_WRITE) {
                memcpy(buffer, Buffer, Length);
                irp->Flags = IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
            } else {
                irp->Flags = IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER | IRP_INPUT_OPERATION;
            }
            irp->AssociatedIrp.SystemBuffer = buffer;
            irp->UserBuffer = Buffer;
        } else if (DeviceObject->Flags & DO_DIRECT_IO) {
            PMDL mdl = IoAllocateMdl(Buffer, Length, FALSE, FALSE, irp);
            if (mdl == nullptr) {
                IoFreeIrp(irp);
                return nullptr;
            }
            // MmProbeAndLockPages: kernel memory is resident and accessible.
            mdl->MdlFlags |= MDL_PAGES_LOCKED;
        } else {
            irp->UserBuffer = Buffer;
        }
        next->Parameters.Read.Length = Length;
        next->Parameters.Read.ByteOffset.QuadPart = StartingOffset != nullptr ? StartingOffset->QuadPart : 0;
    }
    return irp;
}

// ------------------------------------------------------------------ MDLs
PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota, PIRP Irp)
{
    (void)ChargeQuota;
    requireIrqlAtMost(DISPATCH_LEVEL, "IoAllocateMdl");
    if (Length > kMaxMdlLength) {
        return nullptr;
    }
    size_t pages = ADDRESS_AND_SIZE_TO_SPAN_PAGES(VirtualAddress, Length);
    size_t bytes = sizeof(MDL) + pages * sizeof(ULONG_PTR); // the page array follows the header
    auto *mdl = static_cast<PMDL>(ExAllocatePoolWithTag(NonPagedPool, bytes, kMdlTag));
    if (mdl == nullptr) {
        return nullptr;
    }
    memset(mdl, 0, bytes);
    mdl->Size = CSHORT(bytes);
    mdl->StartVa = PAGE_ALIGN(VirtualAddress);
    mdl->ByteOffset = BYTE_OFFSET(VirtualAddress);
    mdl->ByteCount = Length;
    if (Irp != nullptr) {
        if (!SecondaryBuffer || Irp->MdlAddress == nullptr) {
            Irp->MdlAddress = mdl;
        } else {
            PMDL last = Irp->MdlAddress;
            while (last->Next != nullptr) {
                last = last->Next;
            }
            last->Next = mdl;
        }
    }
    return mdl;
}

void IoFreeMdl(PMDL Mdl)
{
    requireIrqlAtMost(DISPATCH_LEVEL, "IoFreeMdl");
    ExFreePoolWithTag(Mdl, kMdlTag);
}

void MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList)
{
    requireIrqlAtMost(DISPATCH_LEVEL, "MmBuildMdlForNonPagedPool");
    MemoryDescriptorList->MappedSystemVa =
        static_cast<PCHAR>(MemoryDescriptorList->StartVa) + MemoryDescriptorList->ByteOffset;
    MemoryDescriptorList->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
}

void MmUnlockPages(PMDL MemoryDescriptorList)
{
    requireIrqlAtMost(DISPATCH_LEVEL, "MmUnlockPages");
    MemoryDescriptorList->MdlFlags &= ~CSHORT(MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA);
}

// ------------------------------------------------------------------ test side
namespace hostkernel {

namespace {

struct KernelCompletion {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    IoResult result;
};

// The caller's completion routine: it owns one reference to the shared state.
NTSTATUS NTAPI takeBack(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    auto *holder = static_cast<std::shared_ptr<KernelCompletion> *>(context);
    IrpRecord *record = irpRecordOf(irp, "the kernel caller's completion routine");
    {
        std::lock_guard<std::mutex> lock((*holder)->mutex);
        (*holder)->result.status = irp->IoStatus.Status;
        (*holder)->result.information = irp->IoStatus.Information;
        (*holder)->result.priorityBoost = record->completionBoost;
        (*holder)->done = true;
        (*holder)->cv.notify_all();
    }
    delete holder;
    return STATUS_MORE_PROCESSING_REQUIRED;
}

} // namespace

std::optional<IoResult> sendKernelRequest(PDEVICE_OBJECT device, PIRP irp, std::chrono::milliseconds timeout)
{
    requirePassive("hostkernel::sendKernelRequest");
    auto state = std::make_shared<KernelCompletion>();
    IoSetCompletionRoutine(irp, takeBack, new std::shared_ptr<KernelCompletion>(state), TRUE, TRUE, TRUE);
    NTSTATUS dispatched = IoCallDriver(device, irp);
    std::unique_lock<std::mutex> lock(state->mutex);
    if (!state->cv.wait_for(lock, timeout, [&] { return state->done; })) {
        return std::nullopt;
    }
    IoResult result = state->result;
    result.dispatchStatus = dispatched;
    return result;
}

void releaseKernelRequest(PIRP irp)
{
    requireIrqlAtMost(DISPATCH_LEVEL, "hostkernel::releaseKernelRequest");
    freeMdlChain(irp);
    freeSystemBuffer(irp);
    IoFreeIrp(irp);
}

} // namespace hostkernel
