// The control device's requests as a kernel-mode caller can send them and an
// application cannot: no file object in the stack location, a buffer
// description of zero bytes, a read whose Cancel flag is set before it
// arrives. Each row checks the status, the driver's whole log for the
// request, and that the port, its FIFO and the pool are as they were.
#include "adapter_fixture.h"

#include <cstdio>

namespace adaptertest {
namespace {

const Bytes kNote = {0x90, 0x3C, 0x64};

std::string adapterLine(const char *format, ULONG value)
{
    char text[160];
    std::snprintf(text, sizeof(text), format, value);
    return std::string("Ambrel:Adapter: ") + text;
}

// How the row's packet is built.
enum class Build {
    Bare,        // IoAllocateIrp: no buffer at all (create, close)
    Fsd16,       // IoBuildAsynchronousFsdRequest over 16 bytes: a locked MDL
    EmptyMdl,    // IoAllocateIrp with an MDL of byte count 0 over non-paged memory
};

struct Row {
    const char *name;
    UCHAR major;
    Build build;
    bool withFile;    // the owner's file object in the stack location
    bool cancelFirst; // IoCancelIrp before the send
    bool fifoEmpty;   // no note waits when the request arrives
    NTSTATUS status;
    // The driver's lines after the handler's entry line ("%x": the stack
    // location the driver got, the only value a row cannot know in advance).
    std::vector<const char *> lines;
};

class KernelCaller : public DriverFixture {
protected:
    void SetUp() override
    {
        boot();
        if (HasFatalFailure()) {
            return;
        }
        owner_ = &process(100);
        handle_ = openPort(*owner_, u"\\Piano");
        ASSERT_NE(handle_, 0u);
        control_ = owner_->fileObject(handle_)->DeviceObject;
        filter_ = filterOf(process(200), u"Piano");
        ASSERT_TRUE(filter_);
        render_ = runningPin(*filter_, KSPIN_DATAFLOW_IN);
        ASSERT_TRUE(render_);
    }

    void TearDown() override
    {
        render_.reset();
        filter_.reset();
        DriverFixture::TearDown();
    }

    PIRP build(const Row &row, UCHAR *buffer)
    {
        PIRP irp = nullptr;
        if (row.build == Build::Fsd16) {
            irp = IoBuildAsynchronousFsdRequest(row.major, control_, buffer, 16, nullptr, nullptr);
        } else {
            irp = IoAllocateIrp(control_->StackSize, FALSE);
            if (irp != nullptr) {
                IoGetNextIrpStackLocation(irp)->MajorFunction = row.major;
            }
            if (irp != nullptr && row.build == Build::EmptyMdl) {
                PMDL mdl = IoAllocateMdl(buffer, 0, FALSE, FALSE, irp);
                EXPECT_EQ(irp->MdlAddress, mdl);
                if (mdl != nullptr) {
                    MmBuildMdlForNonPagedPool(mdl);
                }
            }
        }
        if (irp != nullptr && row.withFile) {
            IoGetNextIrpStackLocation(irp)->FileObject = owner_->fileObject(handle_);
        }
        return irp;
    }

    // The owner reads what waits in the port's FIFO.
    Bytes ownerReads()
    {
        UCHAR buffer[16] = {};
        hk::IoResult r = owner_->read(handle_, buffer, sizeof(buffer));
        EXPECT_EQ(r.status, STATUS_SUCCESS);
        return Bytes(buffer, buffer + std::min<size_t>(r.information, sizeof(buffer)));
    }

    hk::Process *owner_ = nullptr;
    hk::Handle handle_ = 0;
    PDEVICE_OBJECT control_ = nullptr;
    std::unique_ptr<midi::Filter> filter_;
    std::unique_ptr<midi::Pin> render_;
};

TEST_F(KernelCaller, RowsOnlyAKernelCallerCanReach)
{
    const Row rows[] = {
        {"create without a file object", IRP_MJ_CREATE, Build::Bare, false, false, false, STATUS_INVALID_PARAMETER,
         {}},
        {"close without a file object", IRP_MJ_CLOSE, Build::Bare, false, false, false, STATUS_INVALID_PARAMETER, {}},
        {"read without a file object", IRP_MJ_READ, Build::Fsd16, false, false, false, STATUS_INVALID_PARAMETER,
         {"am_private_dispatch_read ***** is our fdo"}},
        {"write without a file object", IRP_MJ_WRITE, Build::Fsd16, false, false, false, STATUS_INVALID_PARAMETER,
         {}},
        {"read of zero bytes", IRP_MJ_READ, Build::EmptyMdl, true, false, false, STATUS_INSUFFICIENT_RESOURCES,
         {"am_private_dispatch_read ***** is our fdo", "am_private_dispatch_read ***** got stack: %x",
          "am_private_dispatch_read ***** no irp yet", "am_private_dispatch_read ***** got address",
          "am_private_dispatch_read ----- MmGetMdlByteCount failed"}},
        {"write of zero bytes", IRP_MJ_WRITE, Build::EmptyMdl, true, false, false, STATUS_BUFFER_TOO_SMALL,
         {"am_private_dispatch_write ----- not data given!"}},
        {"read cancelled before it arrives", IRP_MJ_READ, Build::Fsd16, true, true, true, STATUS_CANCELLED,
         {"am_private_dispatch_read ***** is our fdo", "am_private_dispatch_read ***** got stack: %x",
          "am_private_dispatch_read ***** no irp yet", "am_private_dispatch_read ***** got address",
          "am_private_dispatch_read ***** got length: 16", "am_private_dispatch_read ***** buffer-depth: 0 (16)",
          "am_private_dispatch_read ***** was already cancelled",
          "am_private_dispatch_read +++++ succeeded (cancelled)"}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        if (!row.fifoEmpty) {
            ASSERT_EQ(render_->send(kNote), STATUS_SUCCESS);
        }
        hk::drainIo();
        const size_t poolBefore = hk::poolLiveAllocations();

        UCHAR buffer[16] = {};
        PIRP irp = build(row, buffer);
        ASSERT_NE(irp, nullptr);
        ULONG stackLocation = AM_PTR32(IoGetNextIrpStackLocation(irp));
        if (row.cancelFirst) {
            EXPECT_FALSE(IoCancelIrp(irp));
        }
        hk::LogCapture log;
        auto result = hk::sendKernelRequest(control_, irp);
        ASSERT_TRUE(result.has_value()) << "the request was left in the driver";
        EXPECT_EQ(result->status, row.status);
        EXPECT_EQ(result->dispatchStatus, row.status);
        EXPECT_EQ(result->information, 0u);
        EXPECT_EQ(result->priorityBoost, IO_NO_INCREMENT);
        static const char *const handler[] = {"create", nullptr, "close", "read", "write"}; // by major
        std::string entry = std::string("am_private_dispatch_") + handler[row.major] + " (%x)";
        std::vector<std::string> expected = {adapterLine(entry.c_str(), AM_PTR32(control_))};
        for (const char *line : row.lines) {
            expected.push_back(adapterLine(line, stackLocation));
        }
        EXPECT_EQ(log.lines(), expected);
        hk::releaseKernelRequest(irp);
        EXPECT_EQ(hk::poolLiveAllocations(), poolBefore);

        // Nothing changed: still exactly one port, the owner's, and its FIFO
        // holds the note it held (or, empty before, nothing was parked that
        // would take the next one).
        EXPECT_EQ(midi::findPorts().size(), 1u);
        if (row.fifoEmpty) {
            ASSERT_EQ(render_->send(kNote), STATUS_SUCCESS);
        }
        EXPECT_EQ(ownerReads(), kNote);
    }
}

// The process-id query on a request that names no handle: there is no port
// to report on.
TEST_F(KernelCaller, ProcessIdQueryWithoutAPortIsRefused)
{
    PIRP irp = IoAllocateIrp(control_->StackSize, FALSE);
    ASSERT_NE(irp, nullptr);
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = kProcessIdsCode;
    auto result = hk::sendKernelRequest(control_, irp);
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(result->status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(result->information, 0u);
    hk::releaseKernelRequest(irp);
}

} // namespace
} // namespace adaptertest
