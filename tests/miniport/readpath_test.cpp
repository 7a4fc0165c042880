// What the render path hands to a read the application has parked, and the
// pin names a client reads, with real requests from the host I/O manager.
#include "mp_harness.h"
#include "mp_readdriver.h"
#include "adapter/amadapter.h"

#include <chrono>

using hostkernel::LogCapture;
using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

TEST(ParkedRead, RenderDataCompletesTheParkedRead)
{
    struct Row {
        ULONG readLength;
        Bytes read, left;
    } rows[] = {
        {16, {0x90, 0x3C, 0x40}, {}},
        {2, {0x90, 0x3C}, {0x40}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.readLength);
        LogCapture log;
        PortHarness h;
        ReadDriver driver(h.miniport);
        PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
        auto read = driver.read(row.readLength);
        EXPECT_FALSE(read->wait(10ms));

        h.play(s, h.allocator.makeEvent({0x90, 0x3C, 0x40}));
        ASSERT_TRUE(read->wait(10s));
        EXPECT_EQ(read->status(), STATUS_SUCCESS);
        EXPECT_EQ(read->information(), row.read.size());
        EXPECT_EQ(read->result().priorityBoost, IO_SOUND_INCREMENT);
        EXPECT_EQ(Bytes(read->output().begin(), read->output().begin() + read->information()), row.read);
        EXPECT_EQ(h.miniport->m_Fifo.m_PendingReadIrp, nullptr);
        EXPECT_EQ(h.readFifo(), row.left);
        EXPECT_TRUE(log.contains("CMiniportAmbrelStream::Write ***** before CompleteRequest"));
    }
}

TEST(ParkedRead, RemovalUnderWayCompletesWithoutData)
{
    PortHarness h;
    ReadDriver driver(h.miniport);
    PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
    auto read = driver.read(16);
    InterlockedExchange(&controlDeviceRemoved, 1);
    h.play(s, h.allocator.makeEvent({0x90, 0x3C, 0x40}));
    InterlockedExchange(&controlDeviceRemoved, 0);
    ASSERT_TRUE(read->wait(10s));
    EXPECT_EQ(read->status(), STATUS_SERVER_DISABLED);
    EXPECT_EQ(read->information(), 0u);
    EXPECT_TRUE(h.readFifo().empty());  // the bytes are gone all the same
}

TEST(ParkedRead, ReadBeingCancelledIsLeftToItsCanceller)
{
    PortHarness h;
    ReadDriver driver(h.miniport);
    PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
    auto read = driver.read(16);
    ASSERT_FALSE(read->wait(10ms));
    PIRP irp = read->irp();
    ASSERT_NE(irp, nullptr);
    // The canceller has claimed it (exchanged the routine away) but not yet
    // taken it out of the slot.
    PDRIVER_CANCEL routine = IoSetCancelRoutine(irp, NULL);
    ASSERT_NE(routine, nullptr);

    h.play(s, h.allocator.makeEvent({0x90, 0x3C, 0x40}));
    EXPECT_FALSE(read->done());
    EXPECT_EQ(h.miniport->m_Fifo.m_PendingReadIrp, irp);

    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&h.miniport->m_Lock);
    h.miniport->m_Fifo.m_PendingReadIrp = NULL;
    KeReleaseSpinLock(&h.miniport->m_Lock, irql);
    irp->IoStatus.Status = STATUS_CANCELLED;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    ASSERT_TRUE(read->wait(10s));
    EXPECT_EQ(read->status(), STATUS_CANCELLED);
    EXPECT_EQ(h.readFifo(), (Bytes{0x90, 0x3C, 0x40}));

    // A real cancellation, then a new read that gets the next message.
    auto second = driver.read(16);
    EXPECT_EQ(second->cancel(), STATUS_SUCCESS);
    ASSERT_TRUE(second->wait(10s));
    EXPECT_EQ(second->status(), STATUS_CANCELLED);
    auto third = driver.read(16);
    h.play(s, h.allocator.makeEvent({0xC0, 0x05}));
    ASSERT_TRUE(third->wait(10s));
    EXPECT_EQ(third->information(), 2u);
}

TEST(PinName, EveryPinCarriesThePortNameAlsoAfterClose)
{
    PortHarness h(u"Piano");
    ReadDriver driver(h.miniport);
    const ULONG needed = 12;  // five characters and the terminator
    struct Row {
        ULONG length;
        NTSTATUS status;
        ULONG_PTR information;
    } rows[] = {
        {0, STATUS_BUFFER_OVERFLOW, needed},
        {needed - 1, STATUS_BUFFER_TOO_SMALL, 0},
        {needed, STATUS_SUCCESS, needed},
        {40, STATUS_SUCCESS, needed},
    };
    for (bool detached : {false, true}) {
        if (detached) {
            h.detach();
        }
        for (const Row &row : rows) {
            SCOPED_TRACE(testing::Message() << row.length << (detached ? " detached" : ""));
            std::vector<uint8_t> out(64, 0xCC);
            hostkernel::IoResult r = driver.pinName(out.data(), row.length, 4);
            EXPECT_EQ(r.status, row.status);
            EXPECT_EQ(r.information, row.information);
            if (row.status == STATUS_SUCCESS) {
                EXPECT_EQ(toU16(reinterpret_cast<const WCHAR *>(out.data())), u"Piano");
                for (ULONG i = needed; i < row.length; i++) {
                    EXPECT_EQ(out[i], 0) << i;
                }
            } else {
                EXPECT_EQ(out[0], 0xCC);
            }
        }
    }
}
