// The debug log: who listens, whole lines, assertions in the kernel's words.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "hostkernel/executive.h"
#include "amplatform.h"

namespace {

namespace hk = hostkernel;

TEST(Log, ListeningFollowsCapturesAndEveryCaptureSeesWhatFollowsIt)
{
    EXPECT_FALSE(AmDebugOutputEnabled());
    DbgPrint("nobody hears this\n");
    {
        hk::LogCapture first;
        EXPECT_TRUE(AmDebugOutputEnabled());
        DbgPrint("one\n");
        {
            hk::LogCapture second;
            DbgPrint("two %d\n", 2);
            EXPECT_EQ(second.lines(), std::vector<std::string>{"two 2"});
        }
        EXPECT_TRUE(AmDebugOutputEnabled());
        DbgPrint("three\nfour\n");
        EXPECT_EQ(first.lines(), (std::vector<std::string>{"one", "two 2", "three", "four"}));
        EXPECT_EQ(first.count("o"), 3u);
        EXPECT_TRUE(first.contains("hre"));
        EXPECT_FALSE(first.contains("nobody"));
        first.clear();
        DbgPrint("five\n");
        EXPECT_EQ(first.lines(), std::vector<std::string>{"five"});
    }
    EXPECT_FALSE(AmDebugOutputEnabled());
}

TEST(Log, PrintsJoinIntoLinesAndAnAbandonedLineDoesNotLeak)
{
    std::optional<hk::LogCapture> log(std::in_place);
    DbgPrint("Ambrel:Adapter: ");
    DbgPrint("AddPortByName ***** %ls", L"Piano");
    EXPECT_TRUE(log->lines().empty()); // not a line until it ends
    DbgPrint("\n");
    EXPECT_EQ(log->lines(), std::vector<std::string>{"Ambrel:Adapter: AddPortByName ***** Piano"});

    // A message half printed when the last listener goes is dropped, not
    // glued to the next line printed once somebody listens again.
    DbgPrint("half a message");
    log.reset();
    log.emplace();
    DbgPrint("next message\n");
    EXPECT_EQ(log->lines(), std::vector<std::string>{"next message"});
}

TEST(Log, StderrEchoListensOnItsOwn)
{
    testing::internal::CaptureStderr();
    hk::setLogToStderr(true);
    EXPECT_TRUE(AmDebugOutputEnabled());
    DbgPrint("echo ");
    DbgPrint("%s\n", "line");
    hk::setLogToStderr(false);
    DbgPrint("not echoed\n");
    EXPECT_FALSE(AmDebugOutputEnabled());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "echo line\n");
}

TEST(Log, AssertionsAreLoggedCountedAndGoOn)
{
    hk::LogCapture log;
    DbgPrint("Ambrel:Miniport: half");
    RtlAssert(PVOID("KeGetCurrentIrql() == DISPATCH_LEVEL"), PVOID("miniport/amstream.cpp"), 321, nullptr);
    RtlAssert(PVOID("p != NULL"), PVOID("common/x.cpp"), 9, PSTR(const_cast<char *>("why: ")));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "Ambrel:Miniport: half",
                               "*** Assertion failed: KeGetCurrentIrql() == DISPATCH_LEVEL",
                               "***   Source File: miniport/amstream.cpp, line 321",
                               "*** Assertion failed: why: p != NULL",
                               "***   Source File: common/x.cpp, line 9",
                           }));
    EXPECT_EQ(hk::assertionCount(), 2u);
    EXPECT_EQ(hk::assertions(), (std::vector<std::string>{
                                    "KeGetCurrentIrql() == DISPATCH_LEVEL (miniport/amstream.cpp, line 321)",
                                    "why: p != NULL (common/x.cpp, line 9)",
                                }));
    EXPECT_EQ(hk::quiescenceProblems().size(), 1u);
    hk::acknowledgeAssertions(1);
    EXPECT_EQ(hk::quiescenceProblems(),
              std::vector<std::string>{"UnexpectedAssertion: why: p != NULL (common/x.cpp, line 9)"});
    hk::acknowledgeAssertions(1);
    EXPECT_TRUE(hk::quiescenceProblems().empty());
}

TEST(Log, AssertionsAreCountedWhenNobodyListens)
{
    RtlAssert(PVOID("quiet"), PVOID("q.cpp"), 1, nullptr);
    EXPECT_EQ(hk::assertionCount(), 1u);
    hk::acknowledgeAssertions(1);
}

} // namespace
