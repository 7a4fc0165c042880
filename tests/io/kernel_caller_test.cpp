// Requests a kernel-mode caller builds and sends itself: the buffers the
// device's buffering method gets, completion routines and who frees the
// packet, a cancel that comes before the send, and the verifier's reports
// for packets the caller mishandles.
#include <functional>
#include <thread>

#include "iotest.h"

namespace iotest {
namespace {

using namespace std::chrono_literals;

constexpr ULONG kMdlTag = hk::tag("Mdl ");
constexpr ULONG kSystemBufferTag = hk::tag("IoSb");

class KernelCallerTest : public IoTest {};

TEST_F(KernelCallerTest, BuiltTransfersCarryTheDevicesBufferingAndComeBackToTheCaller)
{
    const struct {
        const char *name;
        ULONG buffering;
        UCHAR major;
        CCHAR boost; // the test driver boosts the reads it serves
    } cases[] = {
        {"direct read", DO_DIRECT_IO, IRP_MJ_READ, IO_SOUND_INCREMENT},
        {"direct write", DO_DIRECT_IO, IRP_MJ_WRITE, IO_NO_INCREMENT},
        {"buffered read", DO_BUFFERED_IO, IRP_MJ_READ, IO_SOUND_INCREMENT},
        {"buffered write", DO_BUFFERED_IO, IRP_MJ_WRITE, IO_NO_INCREMENT},
        {"neither read", 0, IRP_MJ_READ, IO_SOUND_INCREMENT},
        {"neither write", 0, IRP_MJ_WRITE, IO_NO_INCREMENT},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        setBuffering(c.buffering);
        g.readData = {1, 2, 3, 4, 5};
        UCHAR buffer[8] = {9, 8, 7, 6, 0, 0, 0, 0};
        const std::vector<UCHAR> original(buffer, buffer + 8);
        IO_STATUS_BLOCK iosb{{STATUS_PENDING}, 77};
        LARGE_INTEGER offset;
        offset.QuadPart = 512;

        PIRP irp = IoBuildAsynchronousFsdRequest(c.major, g.device, buffer, 4, &offset, &iosb);
        ASSERT_NE(irp, nullptr);
        PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
        EXPECT_EQ(next->MajorFunction, c.major);
        EXPECT_EQ(next->Parameters.Read.Length, 4u);
        EXPECT_EQ(next->Parameters.Read.ByteOffset.QuadPart, 512);
        EXPECT_EQ(next->FileObject, nullptr);
        EXPECT_EQ(irp->RequestorMode, KernelMode);
        EXPECT_NE(irp->Tail.Overlay.Thread, nullptr);
        if (c.buffering == DO_DIRECT_IO) {
            ASSERT_NE(irp->MdlAddress, nullptr);
            EXPECT_EQ(MmGetMdlByteCount(irp->MdlAddress), 4u);
            EXPECT_EQ(MmGetMdlVirtualAddress(irp->MdlAddress), buffer);
            EXPECT_EQ(hk::poolStats(kMdlTag).liveAllocations, 1u);
        } else {
            EXPECT_EQ(irp->MdlAddress, nullptr);
        }
        if (c.buffering == DO_BUFFERED_IO) {
            ASSERT_NE(irp->AssociatedIrp.SystemBuffer, nullptr);
            EXPECT_NE(irp->AssociatedIrp.SystemBuffer, buffer);
            EXPECT_EQ(hk::poolStats(kSystemBufferTag).liveAllocations, 1u);
            if (c.major == IRP_MJ_WRITE) {
                EXPECT_EQ(memcmp(irp->AssociatedIrp.SystemBuffer, buffer, 4), 0);
            }
        } else {
            EXPECT_EQ(irp->AssociatedIrp.SystemBuffer, nullptr);
        }

        auto result = hk::sendKernelRequest(g.device, irp);
        ASSERT_TRUE(result.has_value());
        EXPECT_EQ(result->status, STATUS_SUCCESS);
        EXPECT_EQ(result->dispatchStatus, STATUS_SUCCESS);
        EXPECT_EQ(result->information, 4u);
        EXPECT_EQ(result->priorityBoost, c.boost);
        Seen seen = g.seen.back();
        EXPECT_EQ(seen.major, c.major);
        EXPECT_EQ(seen.file, nullptr);
        EXPECT_EQ(seen.mode, KernelMode);
        EXPECT_EQ(seen.processId, nullptr); // a kernel caller's thread is a system thread
        EXPECT_EQ(seen.hasMdl, c.buffering == DO_DIRECT_IO);

        // The routine kept the packet: the I/O manager's end of completion
        // (status block, buffered copy) has not run.
        EXPECT_EQ(iosb.Status, STATUS_PENDING);
        EXPECT_EQ(iosb.Information, 77u);
        const bool readInPlace = c.major == IRP_MJ_READ && c.buffering != DO_BUFFERED_IO;
        EXPECT_EQ(std::vector<UCHAR>(buffer, buffer + 8),
                  readInPlace ? (std::vector<UCHAR>{1, 2, 3, 4, 0, 0, 0, 0}) : original);
        if (c.major == IRP_MJ_READ && c.buffering == DO_BUFFERED_IO) {
            auto *system = static_cast<const UCHAR *>(irp->AssociatedIrp.SystemBuffer);
            EXPECT_EQ(std::vector<UCHAR>(system, system + 4), (std::vector<UCHAR>{1, 2, 3, 4}));
        }

        hk::releaseKernelRequest(irp);
        EXPECT_EQ(hk::poolStats(kMdlTag).liveAllocations, 0u);
        EXPECT_EQ(hk::poolStats(kSystemBufferTag).liveAllocations, 0u);
    }
}

// wdm.h's MmGetSystemAddressForMdlSafe asks MmMapLockedPagesSpecifyCache only
// for an MDL without a system address; the mapping, and the MapMdl fault, are
// that routine's.
TEST_F(KernelCallerTest, OnlyAnMdlWithoutASystemAddressIsMapped)
{
    enum class Kind { Locked, LockedAndMapped, NonPagedPool };
    const struct {
        const char *name;
        Kind kind;
        bool fault; // a MapMdl fault armed before the call
        bool mapped; // an address comes back
        bool faultTaken;
    } cases[] = {
        {"locked pages are mapped", Kind::Locked, false, true, false},
        {"locked pages, the mapping fails", Kind::Locked, true, false, true},
        {"an existing mapping is kept", Kind::LockedAndMapped, true, true, false},
        {"non-paged pool needs no mapping", Kind::NonPagedPool, true, true, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        UCHAR buffer[64];
        PMDL mdl = IoAllocateMdl(buffer + 3, 40, FALSE, FALSE, nullptr);
        ASSERT_NE(mdl, nullptr);
        if (c.kind == Kind::NonPagedPool) {
            MmBuildMdlForNonPagedPool(mdl);
        } else {
            mdl->MdlFlags |= MDL_PAGES_LOCKED; // what MmProbeAndLockPages leaves
        }
        if (c.kind == Kind::LockedAndMapped) {
            ASSERT_EQ(MmMapLockedPagesSpecifyCache(mdl, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority),
                      buffer + 3);
        }
        if (c.fault) {
            hk::injectIoFault(hk::IoFault::MapMdl);
        }
        EXPECT_EQ(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority), c.mapped ? buffer + 3 : nullptr);
        EXPECT_EQ(hk::ioFaultArmed(hk::IoFault::MapMdl), c.fault && !c.faultTaken);
        // A mapping is recorded in the MDL, where the macro finds it next time.
        EXPECT_EQ((mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) != 0, c.mapped && c.kind != Kind::NonPagedPool);
        hk::clearIoFaults();
        IoFreeMdl(mdl);
    }
}

// Completion routines, recorded in the order they run.
std::vector<std::string> gRoutines;
NTSTATUS gOuterReturns;

NTSTATUS NTAPI innerRoutine(PDEVICE_OBJECT, PIRP, PVOID)
{
    gRoutines.push_back("inner");
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI outerRoutine(PDEVICE_OBJECT device, PIRP irp, PVOID context)
{
    gRoutines.push_back(device == nullptr ? "outer (no device)" : "outer");
    *static_cast<NTSTATUS *>(context) = irp->IoStatus.Status;
    return gOuterReturns;
}

TEST_F(KernelCallerTest, CompletionRunsInnermostRoutineFirstAndFreesThePacketUnlessTheCallerKeepsIt)
{
    struct Case {
        const char *name;
        NTSTATUS outerReturns;
        bool keptByCaller;
    } cases[] = {
        {"outer routine keeps the packet", STATUS_MORE_PROCESSING_REQUIRED, true},
        {"outer routine lets completion finish", STATUS_SUCCESS, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        g.readData = {0x90, 0x3C, 0x64};
        gRoutines.clear();
        gOuterReturns = c.outerReturns;
        UCHAR buffer[3] = {};
        IO_STATUS_BLOCK iosb{{STATUS_PENDING}, 0};

        // The caller's own location above the driver's: the outer routine
        // goes on the caller's location, the inner one on the driver's.
        PIRP irp = IoAllocateIrp(CCHAR(g.device->StackSize + 1), FALSE);
        ASSERT_NE(irp, nullptr);
        irp->UserIosb = &iosb;
        NTSTATUS seenByOuter = STATUS_PENDING;
        IoSetCompletionRoutine(irp, outerRoutine, &seenByOuter, TRUE, TRUE, TRUE);
        IoSetNextIrpStackLocation(irp);
        PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
        next->MajorFunction = IRP_MJ_READ;
        next->Parameters.Read.Length = sizeof(buffer);
        PMDL mdl = IoAllocateMdl(buffer, sizeof(buffer), FALSE, FALSE, irp);
        ASSERT_EQ(irp->MdlAddress, mdl);
        MmBuildMdlForNonPagedPool(mdl);
        IoSetCompletionRoutine(irp, innerRoutine, nullptr, TRUE, TRUE, TRUE);

        EXPECT_EQ(IoCallDriver(g.device, irp), STATUS_SUCCESS);
        EXPECT_EQ(gRoutines, (std::vector<std::string>{"inner", "outer (no device)"}));
        EXPECT_EQ(seenByOuter, STATUS_SUCCESS);
        EXPECT_EQ(std::vector<UCHAR>(buffer, buffer + 3), (std::vector<UCHAR>{0x90, 0x3C, 0x64}));
        if (c.keptByCaller) {
            EXPECT_EQ(iosb.Status, STATUS_PENDING);
            EXPECT_EQ(hk::poolStats(kMdlTag).liveAllocations, 1u);
            EXPECT_EQ(irp->MdlAddress, mdl);
            hk::releaseKernelRequest(irp);
        } else {
            // The I/O manager finished it: status block, MDL and packet.
            EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
            EXPECT_EQ(iosb.Information, 3u);
        }
        EXPECT_EQ(hk::poolStats(kMdlTag).liveAllocations, 0u);
    }
}

// A four-byte read or write for the test device, built as a kernel-mode
// caller builds one. One buffer serves every use: no two are in flight at
// once, and each death case runs in a process of its own.
PIRP smallRequest(UCHAR major)
{
    static UCHAR buffer[4];
    return IoBuildAsynchronousFsdRequest(major, g.device, buffer, sizeof(buffer), nullptr, nullptr);
}

// The test driver has nothing to serve here, so it parks the reads.
TEST_F(KernelCallerTest, ACancelBeforeTheSendIsSeenByTheDriver)
{
    PIRP irp = smallRequest(IRP_MJ_READ);
    ASSERT_NE(irp, nullptr);
    EXPECT_FALSE(IoCancelIrp(irp)); // no cancel routine yet
    EXPECT_TRUE(irp->Cancel);
    auto result = hk::sendKernelRequest(g.device, irp);
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(result->status, STATUS_CANCELLED);
    EXPECT_EQ(result->dispatchStatus, STATUS_CANCELLED);
    EXPECT_EQ(parkedCount(), 0u);
    hk::releaseKernelRequest(irp);

    // Not cancelled before the send, the read parks; the driver's cancel
    // routine completes it and the caller's routine takes it back inside
    // the cancel call.
    irp = smallRequest(IRP_MJ_READ);
    EXPECT_FALSE(hk::sendKernelRequest(g.device, irp, 50ms).has_value());
    EXPECT_EQ(parkedCount(), 1u);
    EXPECT_TRUE(IoCancelIrp(irp));
    EXPECT_EQ(parkedCount(), 0u);
    EXPECT_EQ(irp->IoStatus.Status, STATUS_CANCELLED);
    hk::releaseKernelRequest(irp);
}

// A packet mishandled by its caller: each action breaks one rule.
TEST_F(KernelCallerTest, MishandledPacketsAreReported)
{
    struct Case {
        const char *name;
        std::function<void()> action;
        const char *report;
    } cases[] = {
        {"never freed",
         [] {
             IoAllocateIrp(1, FALSE);
             hk::verifyIoQuiescent();
         },
         "ObjectReferenceLeak.*never sent.*never freed"},
        {"handed back by its completion routine and never freed",
         [] {
             PIRP irp = smallRequest(IRP_MJ_WRITE);
             hk::sendKernelRequest(g.device, irp);
             hk::verifyIoQuiescent();
         },
         "ObjectReferenceLeak.*IRP_MJ_WRITE request .* to \\\\Driver\\\\HkTest allocated by a kernel-mode caller"},
        {"freed twice",
         [] {
             PIRP irp = IoAllocateIrp(1, FALSE);
             IoFreeIrp(irp);
             IoFreeIrp(irp);
         },
         "ObjectDoubleRelease.*already freed"},
        {"freed by the I/O manager, then by the caller",
         [] {
             PIRP irp = smallRequest(IRP_MJ_WRITE);
             IoCallDriver(g.device, irp); // completion runs to the end
             IoFreeIrp(irp);
         },
         "ObjectDoubleRelease.*already freed"},
        {"freed while the driver holds it",
         [] {
             PIRP irp = smallRequest(IRP_MJ_READ);
             hk::sendKernelRequest(g.device, irp, 10ms); // parked
             IoFreeIrp(irp);
         },
         "ObjectDoubleRelease.*while a driver still holds it"},
        {"sent and never completed",
         [] {
             PIRP irp = smallRequest(IRP_MJ_READ);
             hk::sendKernelRequest(g.device, irp, 10ms);
             claimParked(); // taken by the driver and then forgotten
             hk::verifyIoQuiescent();
         },
         "IrpNeverCompleted.*IRP_MJ_READ"},
        {"unlocked pages mapped",
         [] {
             UCHAR buffer[8];
             PMDL mdl = IoAllocateMdl(buffer, sizeof buffer, FALSE, FALSE, nullptr);
             MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority);
         },
         "neither locked pages nor non-paged pool.*\\*\\*\\* STOP: 0x0000001A"},
        {"a failed mapping that must not fail",
         [] {
             UCHAR buffer[8];
             PMDL mdl = IoAllocateMdl(buffer, sizeof buffer, FALSE, FALSE, nullptr);
             mdl->MdlFlags |= MDL_PAGES_LOCKED;
             hk::injectIoFault(hk::IoFault::MapMdl);
             MmMapLockedPagesSpecifyCache(mdl, KernelMode, MmCached, nullptr, TRUE, NormalPagePriority);
         },
         "NO_MORE_SYSTEM_PTES.*\\*\\*\\* STOP: 0x0000003F"},
        {"MDL never freed",
         [] {
             PIRP irp = smallRequest(IRP_MJ_WRITE);
             hk::sendKernelRequest(g.device, irp);
             IoFreeIrp(irp); // the MDL is the caller's to free too
             hk::verifyQuiescent();
         },
         "PoolLeak.*Mdl"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_DEATH(c.action(), c.report);
    }
}

} // namespace
} // namespace iotest
