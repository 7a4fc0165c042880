// The main of every test binary: GoogleTest with the host verifier's
// end-of-test checks.
//
// After each test the I/O manager's deferred work is drained and both halves
// of the kernel must be quiet: IRQL back at PASSIVE_LEVEL, no spin lock held,
// no assertion the test did not acknowledge, no live pool, and nothing the
// I/O manager still holds. A test that leaves any of these behind fails by
// itself; what it left is forgotten so the next test starts clean.
#include <gtest/gtest.h>

#include <string>

#include "hostkernel/executive.h"
#include "hostkernel/io.h"
#include "hostkernel/portcls.h"

#include "driver_build.h"

namespace {

class VerifierListener : public ::testing::EmptyTestEventListener {
public:
    void OnTestStart(const ::testing::TestInfo &) override { hostkernel::resetBetweenTests(); }

    void OnTestEnd(const ::testing::TestInfo &) override
    {
        // Deferred closes and queued DPCs still release pool and locks;
        // the I/O manager reports (and stops) on its own rules.
        hostkernel::verifyIoQuiescent();
        hostkernel::verifyPortclsQuiescent();
        std::vector<std::string> problems = hostkernel::quiescenceProblems();
        for (const std::string &problem : problems) {
            ADD_FAILURE() << "*** HOST VERIFIER: " << problem;
        }
        if (!problems.empty()) {
            hostkernel::forgetFailedTestState();
        }
        hostkernel::resetIoState();
        hostkernel::resetPortclsState();
        hostkernel::resetBetweenTests();
    }
};

} // namespace

int main(int argc, char **argv)
{
    // Death tests re-run the binary for the child: the host kernel keeps
    // threads (DPCs, the I/O worker) that a forked child would lack.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ::testing::InitGoogleTest(&argc, argv);
    ambreltest::takeDriverFlag(&argc, argv);
    ::testing::TestEventListeners &listeners = ::testing::UnitTest::GetInstance()->listeners();
    // Appended after the printer, so it sees the end of each test first
    // (end events go to listeners in reverse) and its failures are printed
    // with the test.
    listeners.Append(new VerifierListener);
    return RUN_ALL_TESTS();
}
