// Pool failure at every allocation of the open path, one run per allocation:
// each run ends with the documented status, and once the handle (if any) is
// closed nothing the open allocated is left behind.
#include "adapter_fixture.h"

namespace adaptertest {
namespace {

using FaultSweep = DriverFixture;

TEST_F(FaultSweep, OpenPathFailsCleanlyAtEveryAllocation)
{
    bootWithMaxPorts(2);
    ASSERT_FALSE(HasFatalFailure());
    hk::Process &app = process(100);

    // A first open and close settles whatever the framework keeps for the
    // life of the adapter, so the sweep compares like with like.
    hk::Handle warm = openPort(app, u"\\Warm");
    ASSERT_NE(warm, 0u);
    ASSERT_EQ(app.close(warm), STATUS_SUCCESS);
    hk::drainIo();
    const size_t baseline = hk::poolLiveAllocations();

    size_t failures = 0;
    for (uint64_t skip = 0; skip < 400; skip++) {
        const uint64_t attemptsBefore = hk::poolAllocationAttempts();
        hk::failNextPoolAllocations(skip, 1);
        hk::LogCapture log;
        NTSTATUS status;
        hk::Handle h = openPort(app, u"\\Piano\\65536", &status);
        const bool injected = hk::poolAllocationAttempts() - attemptsBefore > skip;
        hk::clearPoolFaults();

        if (!injected) {
            // The open needed fewer allocations than `skip`: the sweep is done.
            EXPECT_EQ(status, STATUS_SUCCESS);
            ASSERT_NE(h, 0u);
            EXPECT_EQ(app.close(h), STATUS_SUCCESS);
            break;
        }
        if (NT_SUCCESS(status)) {
            // The failed allocation was one the framework can do without.
            ASSERT_NE(h, 0u);
            EXPECT_EQ(app.close(h), STATUS_SUCCESS);
        } else {
            failures++;
            EXPECT_TRUE(status == STATUS_INSUFFICIENT_RESOURCES || status == STATUS_NO_MEMORY)
                << "allocation " << skip << ": " << std::hex << status;
            EXPECT_TRUE(log.contains("am_private_dispatch_create ----- AddPortByName failed: c000009a") ||
                        log.contains("am_private_dispatch_create ----- AddPortDevice failed: "))
                << "allocation " << skip;
            EXPECT_TRUE(interfacesNamed(KSCATEGORY_AUDIO, u"Piano").empty()) << "allocation " << skip;
        }
        hk::drainIo();
        EXPECT_EQ(hk::poolLiveAllocations(), baseline) << "allocation " << skip;
        EXPECT_EQ(hk::registry::openHandleCount(), 0u) << "allocation " << skip;
    }
    EXPECT_GT(failures, 2u); // record, miniport, FIFO at least

    // The name and both slots are free again.
    hk::Handle a = openPort(app, u"\\Piano");
    hk::Handle b = openPort(app, u"\\Organ");
    EXPECT_NE(a, 0u);
    EXPECT_NE(b, 0u);
}

} // namespace
} // namespace adaptertest
