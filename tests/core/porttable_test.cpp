// Port table: slot choice, unique names, removal, allocation failure and the
// log lines of each operation.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "hostkernel/executive.h"
#include "porttable_support.h"

namespace {

const std::string A = "Ambrel:Adapter: ";

TEST(PortTable, TakesTheLowestFreeSlotAndReusesIt)
{
    TestTable t(4);
    hostkernel::LogCapture log;
    EXPECT_EQ(0, t.add(u"a"));
    EXPECT_EQ(1, t.add(u"b"));
    EXPECT_EQ(2, t.add(u"c"));
    t.removeIndex(1);
    EXPECT_EQ(nullptr, t.slot(1));
    EXPECT_EQ(1, t.add(u"d"));
    EXPECT_EQ(3, t.add(u"e"));
    EXPECT_EQ(AM_PORT_TABLE_FULL, t.add(u"f"));
    EXPECT_EQ(1u, log.count(A + "AddPortByIndex ---- failed, no free slot!!!!"));
    t.removePtr(t.slot(0));
    EXPECT_EQ(0, t.add(u"f"));
    const char16_t *names[] = {u"f", u"d", u"c", u"e"};
    for (ULONG i = 0; i < 4; i++) {
        EXPECT_EQ(names[i], portName(t.slot(i)));
    }
}

TEST(PortTable, NamesAreUniqueExactlyAndCaseSensitively)
{
    TestTable t(4);
    hostkernel::LogCapture log;
    EXPECT_EQ(0, t.add(u"Port"));
    EXPECT_EQ(1, t.add(u"port"));
    EXPECT_EQ(2, t.add(u"Port "));
    EXPECT_EQ(AM_PORT_NAME_EXISTS, t.add(u"Port"));
    EXPECT_EQ(1u, log.count("AddPortByName ----- port-name already exists"));
    // The whole table is compared, also past a free slot.
    t.removeIndex(0);
    EXPECT_EQ(AM_PORT_NAME_EXISTS, t.add(u"port"));
    EXPECT_EQ(0, t.add(u"Port"));
    EXPECT_EQ(3, t.add(u"last"));
    t.removeIndex(1);
    EXPECT_EQ(AM_PORT_NAME_EXISTS, t.add(u"last")) << "the last slot is compared too";
}

TEST(PortTable, NewRecordHoldsTheNameCutTo255UnitsAndNothingElse)
{
    TestTable t(2);
    const std::u16string n254(254, u'x'), n300(300, u'y');
    ASSERT_EQ(0, t.add(n254));
    ASSERT_EQ(1, t.add(n300));
    EXPECT_EQ(n254, portName(t.slot(0)));
    EXPECT_EQ(n300.substr(0, 255), portName(t.slot(1)));
    for (ULONG i = 0; i < 2; i++) {
        MidiPort *p = t.slot(i);
        EXPECT_EQ(0, p->Name[AM_PORT_NAME_CCH - 1]);
        EXPECT_EQ(nullptr, p->PortInterface);
        EXPECT_EQ(nullptr, p->Miniport);
        for (const ProcessSlot &s : p->ProcessSlots) {
            EXPECT_EQ(nullptr, s.FileObject);
            EXPECT_EQ(nullptr, s.ProcessId);
        }
    }
    EXPECT_EQ(2u, hostkernel::poolStats(hostkernel::tag("AmbR")).liveAllocations);
}

TEST(PortTable, FailedRecordAllocationLeavesTheTableAsItWas)
{
    TestTable t(3);
    ASSERT_EQ(0, t.add(u"a"));
    hostkernel::LogCapture log;
    hostkernel::failNextPoolAllocations(0, 1);
    EXPECT_EQ(AM_PORT_NO_MEMORY, t.add(u"b"));
    hostkernel::clearPoolFaults();
    char size[96];
    std::snprintf(size, sizeof(size), "AddPortByIndex ----- failed ExAllocatePoolWithTag for size: %d",
                  int(sizeof(MidiPort)));
    EXPECT_EQ((std::vector<std::string>{A + "AddPortByName", A + "AddPortByIndex: 1", A + size,
                                        A + "AddPortByName ----- AddPortByIndex failed: -2"}),
              log.lines());
    EXPECT_EQ(nullptr, t.slot(1));
    EXPECT_EQ(nullptr, t.slot(2));
    EXPECT_EQ(1, t.add(u"b")) << "the name and the slot are still free";
}

TEST(PortTable, LogsEveryStepOfAddAndRemove)
{
    TestTable t(2);
    hostkernel::LogCapture log;
    ASSERT_EQ(0, t.add(u"a"));
    MidiPort *p = t.slot(0);
    t.removePtr(p);
    t.removePtr(p); // already gone
    t.removeIndex(0);
    t.removeIndex(2);
    t.removePtr(nullptr); // never taken for an empty slot
    char found[64];
    // The kernel prints %p as 16 upper-case hex digits, not as the C library does.
    std::snprintf(found, sizeof(found), "RemovePortByPtr: %016llX",
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
    EXPECT_EQ((std::vector<std::string>{
                  A + "AddPortByName", A + "AddPortByIndex: 0", A + "AddPortByIndex +++++ succeeded",
                  A + "AddPortByName +++++ succeeded: 0",
                  A + found, A + "RemovePortByPtr ***** found port at index 0", A + "RemovePortByIndex: 0",
                  A + "RemovePortByIndex ***** removing port at 0", A + "RemovePortByIndex +++++ succeeded",
                  A + "RemovePortByPtr +++++ succeeded: 0",
                  A + found, A + "RemovePortByPtr ----- pointer not found!",
                  A + "RemovePortByIndex: 0", A + "RemovePortByIndex ----- port on index did not exist: 0",
                  A + "RemovePortByIndex: 2", A + "RemovePortByIndex ----- index too large: 2 (2)",
                  A + "RemovePortByPtr: 0000000000000000", A + "RemovePortByPtr ----- pointer not found!"}),
              log.lines());
    EXPECT_EQ(0u, hostkernel::poolStats(hostkernel::tag("AmbR")).liveAllocations);
}

TEST(PortTable, OperationsOutsideTheTableLockAreAsserted)
{
    TestTable t(2);
    AddPortByName(t.table, reinterpret_cast<PCWSTR>(u"a"));
    ASSERT_GE(hostkernel::assertionCount(), 2u);
    auto asserted = hostkernel::assertions();
    hostkernel::acknowledgeAssertions(hostkernel::assertionCount());
    ASSERT_FALSE(asserted.empty());
    // The unit's name, never the build machine's path to the source.
    EXPECT_THAT(asserted.back(), testing::MatchesRegex("KeGetCurrentIrql\\(\\) == DISPATCH_LEVEL \\(amadapter, line [0-9]+\\)"));
}

} // namespace
