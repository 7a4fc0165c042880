// Port FIFO: size rule, the one free byte, wrap-around, and creation failure.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <random>
#include <vector>

#include "hostkernel/executive.h"
#include "miniport/fifo/portfifo.h"

namespace {

struct Fifo {
    PortFifo f{};
    ~Fifo() { f.FifoFree(); }
};

TEST(PortFifo, SizeIsTheNextPowerOfTwoAboveTheSysexSizeAndHoldsOneByteLess)
{
    struct Case {
        ULONG sysex, size, mask;
    } cases[] = {
        {0, 2, 0x1},           {1, 2, 0x1},          {2, 4, 0x3},
        {8176, 8192, 0x1FFF},  {8192, 16384, 0x3FFF}, {65536, 131072, 0x1FFFF},
        {131056, 131072, 0x1FFFF}, {0x80000, 1048576, 0xFFFFF}, {0xFFFF0, 1048576, 0xFFFFF},
    };
    const ULONG ambr = hostkernel::tag("AmbR");
    for (const auto &c : cases) {
        hostkernel::LogCapture log;
        Fifo fifo;
        // Creation starts from whatever the memory held: nothing of it survives.
        std::memset(static_cast<void *>(&fifo.f), 0xA5, sizeof(fifo.f));
        const size_t bytesBefore = hostkernel::poolStats(ambr).liveBytes;
        ASSERT_EQ(STATUS_SUCCESS, fifo.f.FifoCreate(c.sysex));
        EXPECT_EQ(c.size, hostkernel::poolStats(ambr).liveBytes - bytesBefore) << "storage tagged AmbR";
        EXPECT_EQ(c.size, fifo.f.m_FifoSize) << c.sysex;
        EXPECT_EQ(c.mask, fifo.f.m_FifoMask) << c.sysex;
        EXPECT_EQ(0u, fifo.f.FifoDepth());
        EXPECT_EQ(c.size - 1, fifo.f.FifoSpace());
        EXPECT_EQ(nullptr, fifo.f.m_PendingReadIrp);

        std::vector<UCHAR> fill(c.size - 1, 0x5A);
        fifo.f.FifoPut(fill.data(), ULONG(fill.size()));
        EXPECT_EQ(c.size - 1, fifo.f.FifoDepth());
        EXPECT_EQ(0u, fifo.f.FifoSpace());

        char size[128], buffer[128];
        std::snprintf(size, sizeof(size), "Ambrel:Miniport: CreateMiniportAmbrel ------ size: %u mask: %x", c.size,
                      c.mask);
        std::snprintf(buffer, sizeof(buffer), "Ambrel:Miniport: CreateMiniportAmbrel ----- RX-Buffer-Size: %u",
                      c.size);
        EXPECT_EQ((std::vector<std::string>{size, buffer}), log.lines());

        fifo.f.FifoFree();
        EXPECT_EQ(bytesBefore, hostkernel::poolStats(ambr).liveBytes);
        EXPECT_EQ(0u, fifo.f.FifoDepth());
        EXPECT_EQ(0u, fifo.f.FifoSpace()) << "a freed FIFO takes nothing";
    }
    // A size whose power of two would not fit 32 bits is refused.
    Fifo huge;
    EXPECT_EQ(STATUS_INVALID_PARAMETER, huge.f.FifoCreate(0x80000000UL));
    EXPECT_EQ(0u, huge.f.FifoSpace());
}

TEST(PortFifo, KeepsByteOrderAndDepthAcrossWrapAroundLikeAQueue)
{
    Fifo fifo;
    ASSERT_EQ(STATUS_SUCCESS, fifo.f.FifoCreate(20)); // 32 bytes: wraps often
    std::deque<UCHAR> model;
    std::mt19937 random(7);
    UCHAR next = 0;
    bool sawHeadBelowTail = false;

    for (int step = 0; step < 20000; step++) {
        if (random() % 2) {
            ULONG count = random() % (fifo.f.FifoSpace() + 1);
            std::vector<UCHAR> bytes(count);
            for (auto &b : bytes) {
                b = next++;
                model.push_back(b);
            }
            fifo.f.FifoPut(bytes.data(), count);
        } else {
            ULONG maximum = random() % 40;
            std::vector<UCHAR> out(maximum + 1, 0xEE);
            ULONG n = fifo.f.FifoGet(out.data(), maximum);
            ASSERT_EQ(std::min<size_t>(maximum, model.size()), n);
            for (ULONG i = 0; i < n; i++) {
                ASSERT_EQ(model.front(), out[i]);
                model.pop_front();
            }
            ASSERT_EQ(0xEE, out[n]) << "wrote past the count it returned";
        }
        sawHeadBelowTail |= fifo.f.m_FifoHead < fifo.f.m_FifoTail;
        ASSERT_EQ(model.size(), fifo.f.FifoDepth());
        ASSERT_EQ(31 - model.size(), fifo.f.FifoSpace());
        ASSERT_LT(fifo.f.m_FifoHead, 32u);
        ASSERT_LT(fifo.f.m_FifoTail, 32u);
    }
    EXPECT_TRUE(sawHeadBelowTail);
}

TEST(PortFifo, APutThatDoesNotFitIsRefusedWholeAndAsserted)
{
    Fifo fifo;
    ASSERT_EQ(STATUS_SUCCESS, fifo.f.FifoCreate(4)); // 8 bytes, room for 7
    std::vector<UCHAR> big(200, 0xF0);
    fifo.f.FifoPut(big.data(), 5);
    hostkernel::LogCapture log;
    fifo.f.FifoPut(big.data(), 3);
    ASSERT_EQ(1u, hostkernel::assertionCount());
    EXPECT_THAT(hostkernel::assertions().back(), testing::MatchesRegex(".* \\(amminiport, line [0-9]+\\)"));
    hostkernel::acknowledgeAssertions(1);
    EXPECT_TRUE(log.contains("Ambrel:Miniport: FifoPut ----- 3 bytes do not fit, space 2"));
    EXPECT_EQ(5u, fifo.f.FifoDepth());
}

TEST(PortFifo, StorageAllocationFailureFailsCreationAndLeavesAnInertFifo)
{
    hostkernel::LogCapture log;
    Fifo fifo;
    hostkernel::failNextPoolAllocations(0, 1);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, fifo.f.FifoCreate(8176));
    hostkernel::clearPoolFaults();
    EXPECT_TRUE(log.contains("Ambrel:Miniport: CreateMiniportAmbrel ------ insufficient resources for data-buffer (8192)"));
    EXPECT_FALSE(log.contains("RX-Buffer-Size"));
    EXPECT_EQ(0u, fifo.f.FifoSpace());
    EXPECT_EQ(0u, fifo.f.FifoDepth());
    UCHAR out[1];
    EXPECT_EQ(0u, fifo.f.FifoGet(out, 1));
}

} // namespace
