// The capture path: the application's writes reach every running capture
// stream as time-stamped event lists, one list per write.
#include "mp_harness.h"

using hostkernel::LogCapture;
using Bytes = std::vector<uint8_t>;

namespace {

// A port with one running capture stream connected to the harness's sink.
struct CapturePort {
    explicit CapturePort(USHORT largeBufferSize = 240) : h(u"Piano", 3, 8176, true, largeBufferSize)
    {
        stream = h.newStream(DMUS_STREAM_MIDI_CAPTURE);
        EXPECT_EQ(stream->ConnectOutput(&h.sink), STATUS_SUCCESS);
        EXPECT_EQ(stream->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    }
    bool write(const Bytes &bytes) { return h.miniport->PutData(const_cast<PUCHAR>(bytes.data()), (ULONG)bytes.size()); }
    PortHarness h;
    PMXF stream;
};

Bytes pattern(size_t length)
{
    Bytes b(length);
    for (size_t i = 0; i < length; i++) {
        b[i] = (uint8_t)(i * 7 + 1);
    }
    return b;
}

} // namespace

TEST(CapturePath, WriteBecomesOneTimeStampedEventList)
{
    CapturePort p;
    p.h.clock.now = 777;
    ASSERT_TRUE(p.write({0x90, 0x3C, 0x40}));
    EXPECT_EQ(p.h.port.notifications, 1);
    EXPECT_EQ(p.h.port.lastNotified, p.h.miniport->m_ServiceGroup);
    p.h.pump(p.stream);

    auto lists = p.h.sink.lists();
    ASSERT_EQ(lists.size(), 1u);
    ASSERT_EQ(lists[0].size(), 1u);
    const CapturedEvent &e = lists[0][0];
    EXPECT_EQ(e.bytes, (Bytes{0x90, 0x3C, 0x40}));
    EXPECT_TRUE(e.inlineData);
    EXPECT_EQ(e.time, 777);
    EXPECT_EQ(e.channelGroup, 1);
    EXPECT_EQ(e.flags, 0);
}

TEST(CapturePath, WritesAreCutByTheLargeBufferSize)
{
    struct Row {
        USHORT bufferSize;
        size_t length;
        std::vector<std::pair<size_t, bool>> events;  // bytes, inline
    } rows[] = {
        {240, 9, {{9, false}}},
        {240, 500, {{240, false}, {240, false}, {20, false}}},
        {240, 245, {{240, false}, {5, true}}},
        {240, 8, {{8, true}}},
        {0, 20, {{8, true}, {8, true}, {4, true}}},  // an allocator without large buffers
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(testing::Message() << row.bufferSize << "/" << row.length);
        CapturePort p(row.bufferSize);
        p.h.clock.now = 42;
        Bytes data = pattern(row.length);
        ASSERT_TRUE(p.write(data));
        p.h.pump(p.stream);
        auto lists = p.h.sink.lists();
        ASSERT_EQ(lists.size(), 1u);
        ASSERT_EQ(lists[0].size(), row.events.size());
        for (size_t i = 0; i < row.events.size(); i++) {
            EXPECT_EQ(lists[0][i].bytes.size(), row.events[i].first) << i;
            EXPECT_EQ(lists[0][i].inlineData, row.events[i].second) << i;
            EXPECT_EQ(lists[0][i].time, 42) << i;
        }
        EXPECT_EQ(p.h.sink.writes()[0], data);
    }
}

TEST(CapturePath, EveryRunningStreamGetsItsOwnCopyInWriteOrder)
{
    CapturePort p;
    FakeSink second(&p.h.allocator);
    PMXF other = p.h.newStream(DMUS_STREAM_MIDI_CAPTURE);
    other->ConnectOutput(&second);
    other->SetState(KSSTATE_RUN);
    PMXF paused = p.h.newStream(DMUS_STREAM_MIDI_CAPTURE);
    FakeSink third(&p.h.allocator);
    paused->ConnectOutput(&third);

    std::vector<Bytes> writes = {{0x90, 1, 1}, pattern(300), {0xF8}, {0x80, 1, 0}};
    for (const Bytes &w : writes) {
        ASSERT_TRUE(p.write(w));
    }
    p.h.pump(p.stream);
    p.h.pump(other);
    p.h.pump(paused);
    EXPECT_EQ(p.h.sink.writes(), writes);
    EXPECT_EQ(second.writes(), writes);
    EXPECT_TRUE(third.lists().empty());  // not running: nothing kept for it
}

TEST(CapturePath, NothingIsQueuedForEmptyWritesOrWithoutStreams)
{
    LogCapture log;
    PortHarness h;
    EXPECT_TRUE(h.miniport->PutData((PUCHAR) "\x90\x01\x01", 3));
    EXPECT_TRUE(log.contains("CMiniportAmbrel::PutData ***** returned because no MasterClock"));

    PMXF s = h.newStream(DMUS_STREAM_MIDI_CAPTURE);
    s->ConnectOutput(&h.sink);
    s->SetState(KSSTATE_RUN);
    EXPECT_TRUE(h.miniport->PutData((PUCHAR) "", 0));
    EXPECT_TRUE(log.contains("CMiniportAmbrel::PutData ***** returned because no data specified"));
    EXPECT_EQ(h.port.notifications, 0);
    h.closeStream(s);
    EXPECT_TRUE(h.miniport->PutData((PUCHAR) "\x90\x01\x01", 3));
    EXPECT_TRUE(log.contains("CMiniportAmbrel::PutData ***** returned because no Capture Streams"));
    EXPECT_EQ(h.port.notifications, 0);
}

TEST(CapturePath, NotificationWaitsUntilTheCountDrainsToZero)
{
    CapturePort p;
    ASSERT_TRUE(p.write(pattern(500)));  // three events
    EXPECT_EQ(p.h.port.notifications, 1);
    p.h.pump(p.stream);
    EXPECT_EQ(p.h.miniport->m_NotifyCount, 3);

    ASSERT_TRUE(p.write({0x90, 1, 1}));
    EXPECT_EQ(p.h.port.notifications, 1);  // no new one while the count stands
    for (LONG expected : {3, 2, 1, 0, 0}) {  // the delivering pass adds 1 and takes 1
        p.h.pump(p.stream);
        EXPECT_EQ(p.h.miniport->m_NotifyCount, expected);
    }
    ASSERT_TRUE(p.write({0x90, 2, 2}));
    EXPECT_EQ(p.h.port.notifications, 2);
    EXPECT_EQ(p.h.sink.lists().size(), 2u);
}

TEST(CapturePath, PassThatRunsOutOfEventsKeepsTheWriteWhole)
{
    for (bool failBuffer : {false, true}) {
        SCOPED_TRACE(failBuffer ? "large buffer" : "event");
        LogCapture log;
        CapturePort p;
        Bytes first = pattern(500), second = {0x90, 1, 1};
        ASSERT_TRUE(p.write(first));
        ASSERT_TRUE(p.write(second));
        if (failBuffer) {
            p.h.allocator.failBuffers(1);
        } else {
            p.h.allocator.failMessages(1);
        }
        p.h.pump(p.stream);
        EXPECT_TRUE(log.contains(failBuffer ? "SourceEvtsToPort ----- can't allocate larger buffer"
                                            : "SourceEvtsToPort ----- can't allocate DMKEvt"));
        EXPECT_TRUE(p.h.sink.lists().empty());
        EXPECT_EQ(p.h.allocator.outstandingEvents(), 0);  // what was built went back
        EXPECT_EQ(p.h.allocator.outstandingBuffers(), 0);

        p.h.pump(p.stream);
        EXPECT_EQ(p.h.sink.writes(), (std::vector<Bytes>{first, second}));
    }
}

TEST(CapturePath, FailuresAndStopsLoseNoMemory)
{
    CapturePort p;
    PMXF other = p.h.newStream(DMUS_STREAM_MIDI_CAPTURE);
    other->SetState(KSSTATE_RUN);

    // The copy for the second stream cannot be made: the write fails.
    LogCapture log;
    hostkernel::failNextPoolAllocations(1);
    EXPECT_FALSE(p.write({0x90, 1, 1}));
    hostkernel::clearPoolFaults();
    EXPECT_TRUE(log.contains("CMiniportAmbrel::PutData ---- Write failed because we could not allocate 35 bytes"));

    // A pass whose stream stops before it could retry frees the item.
    ASSERT_TRUE(p.write(pattern(300)));
    p.h.allocator.failMessages(0);
    p.h.pump(p.stream);
    p.stream->SetState(KSSTATE_STOP);
    other->SetState(KSSTATE_STOP);
    EXPECT_EQ(hostkernel::poolStats(hostkernel::tag("AmbR")).liveAllocations, 1u);  // the FIFO alone
}

TEST(CapturePath, EventHandedToACaptureStreamGoesBack)
{
    LogCapture log;
    CapturePort p;
    PDMUS_KERNEL_EVENT stray = p.h.allocator.makeEvent({0x90, 1, 1});
    size_t asserted = hostkernel::assertionCount();
    p.h.play(p.stream, stray);
    EXPECT_EQ(hostkernel::assertionCount(), asserted + 1);
    hostkernel::acknowledgeAssertions(1);
    EXPECT_TRUE(log.contains("CMiniportAmbrelStream::PutMessage() ----- NULL != pDMKEvt"));
    EXPECT_EQ(p.h.allocator.outstandingEvents(), 0);
}
