// The driver's completion helpers on the host I/O manager: status and
// information reach the caller, the boost is the one the helper names, and
// the helper hands back the status it completed with.
#include "common/amcomplete.h"
#include "iotest.h"

namespace iotest {
namespace {

NTSTATUS gHelperResult;

// The control code selects the helper and the status; the information is the
// output length.
NTSTATUS NTAPI completingDispatch(PDEVICE_OBJECT, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->MajorFunction != IRP_MJ_DEVICE_CONTROL) {
        gHelperResult = completeIrp(irp, STATUS_SUCCESS, 0);
        return gHelperResult;
    }
    ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
    NTSTATUS status = (code & 0x4) != 0 ? STATUS_BUFFER_TOO_SMALL : STATUS_SUCCESS;
    ULONG_PTR information = stack->Parameters.DeviceIoControl.OutputBufferLength;
    gHelperResult = (code & 0x8) != 0 ? completeIrpBoosted(irp, status, information)
                                      : completeIrp(irp, status, information);
    return gHelperResult;
}

class CompletionHelperTest : public IoTest {
protected:
    void SetUp() override
    {
        IoTest::SetUp();
        for (auto &slot : driver_->MajorFunction) {
            slot = completingDispatch;
        }
    }
};

TEST_F(CompletionHelperTest, StoresStatusAndInformationAndRecordsTheBoost)
{
    struct Case {
        ULONG code;
        NTSTATUS status;
        CCHAR boost;
        ULONG outputLength;
    } cases[] = {
        {CTL_CODE(0x8001, 0x800, METHOD_NEITHER, 0), STATUS_SUCCESS, IO_NO_INCREMENT, 5},
        {CTL_CODE(0x8001, 0x801, METHOD_NEITHER, 0), STATUS_BUFFER_TOO_SMALL, IO_NO_INCREMENT, 0},
        {CTL_CODE(0x8001, 0x802, METHOD_NEITHER, 0), STATUS_SUCCESS, IO_SOUND_INCREMENT, 7},
        {CTL_CODE(0x8001, 0x803, METHOD_NEITHER, 0), STATUS_BUFFER_TOO_SMALL, IO_SOUND_INCREMENT, 2},
    };
    hk::Process app(100);
    hk::Handle h = 0;
    ASSERT_EQ(app.open(kDevice, GENERIC_READ, &h), STATUS_SUCCESS);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.code);
        UCHAR out[8];
        hk::IoResult r = app.deviceControl(h, c.code, nullptr, 0, out, c.outputLength);
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.dispatchStatus, c.status);
        EXPECT_EQ(gHelperResult, c.status);
        EXPECT_EQ(r.information, c.outputLength);
        EXPECT_EQ(r.priorityBoost, c.boost);
    }
    app.close(h);
}

} // namespace
} // namespace iotest
