// The render path (events played to a render stream become whole messages
// in the port FIFO, retried while it is full) and the capture path (each
// application write becomes one event list for every running capture stream).
#include "mp_support.h"

#include <hostkernel/io.h>

#include <chrono>
#include <thread>

using hostkernel::LogCapture;
using namespace std::chrono_literals;

static Bytes sysex(size_t length, uint8_t fill = 0x11)
{
    Bytes b(length, fill);
    b.front() = 0xF0;
    b.back() = 0xF7;
    return b;
}

static Bytes operator+(Bytes a, const Bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// ------------------------------------------------------------------ render

TEST(Render, EventsBecomeWholeMessages)
{
    struct Row {
        const char *what;
        std::vector<Bytes> events;
        Bytes fifo;
        bool listPerEvent = false;
    } rows[] = {
        {"note on", {{0x90, 0x3C, 0x40}}, {0x90, 0x3C, 0x40}},
        {"split across events", {{0x90, 0x3C}, {0x40}}, {0x90, 0x3C, 0x40}},
        {"split across lists", {{0x90}, {0x3C}, {0x40, 0x80}, {0x3C, 0x00}}, {0x90, 0x3C, 0x40, 0x80, 0x3C, 0x00}, true},
        {"empty event", {{}}, {}},
        {"eight bytes inline", {{0x90, 1, 1, 0x90, 2, 2, 0xC0, 5}}, {0x90, 1, 1, 0x90, 2, 2, 0xC0, 5}},
        {"SysEx of the port's size", {sysex(8176)}, sysex(8176)},
        {"SysEx one byte longer is lost", {sysex(8177) + Bytes{0xC0, 0x05}}, {0xC0, 0x05}},
        {"long event", {sysex(20) + Bytes{0xC0, 0x05}}, sysex(20) + Bytes{0xC0, 0x05}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        PortHarness h;
        PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
        PDMUS_KERNEL_EVENT head = NULL, *link = &head;
        for (const Bytes &e : row.events) {
            *link = h.allocator.event(e);
            if (row.listPerEvent) {
                h.play(s, head);
                head = NULL;
            } else {
                link = &(*link)->pNextEvt;
            }
        }
        h.play(s, head);
        EXPECT_EQ(h.allocator.returned(), (long)row.events.size());
        EXPECT_EQ(h.readFifo(), row.fifo);
    }
}

TEST(Render, PackagedEventsFollowWhatWasQueuedBehindThePackage)
{
    PortHarness h;
    PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
    FakeAllocator &a = h.allocator;
    h.play(s, a.chain({a.event({0x90, 1, 1}), a.package(a.chain({a.event({0x91, 1, 1}), a.event({0x91, 2, 2})})),
                       a.event({0x90, 2, 2})}));
    EXPECT_EQ(h.readFifo(), (Bytes{0x90, 1, 1, 0x90, 2, 2, 0x91, 1, 1, 0x91, 2, 2}));
    EXPECT_EQ(a.returned(), 5);
}

// A FIFO of 8192 bytes with exactly `space` bytes left (100 or fewer),
// filled by a first stream with two System Exclusive messages.
static void fillFifo(PortHarness &h, ULONG space)
{
    PMXF filler = h.newStream(DMUS_STREAM_MIDI_RENDER);
    h.play(filler, h.allocator.chain({h.allocator.event(sysex(8000)), h.allocator.event(sysex(191 - space))}));
    ASSERT_EQ(h.fifoSpace(), space);
}

TEST(Render, MessageLargerThanTheSpaceRetriesAndIsThenStoredWhole)
{
    LogCapture log;
    PortHarness h;
    fillFifo(h, 100);
    PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
    const Bytes big = sysex(200, 0x22);
    hostkernel::TimerArmingLog timers;
    h.play(s, h.allocator.event(big + Bytes{0x90, 0x3C, 0x40}));
    EXPECT_EQ(h.fifoSpace(), 100u);  // none of it went in
    EXPECT_EQ(h.of(s)->m_DMKEvtOffset, 200u);
    EXPECT_TRUE(log.contains("CMiniportAmbrelStream::Write ***** no more space in fifo!"));

    // Retried by a one-shot timer 1 ms (-10000 in 100-ns units) after each
    // attempt; what arrives meanwhile only queues.
    ASSERT_TRUE(eventually([&] { return log.count("Ambrel:Miniport: amTimerDPC +++++ done") >= 15; }));
    const std::vector<hostkernel::TimerArming> armed = timers.armings();
    ASSERT_GE(armed.size(), 15u);
    for (const hostkernel::TimerArming &a : armed) {
        EXPECT_EQ(a.dueTime, -10000);
        EXPECT_EQ(a.period, 0);
    }
    h.play(s, h.allocator.chain({h.allocator.event({0xC0, 0x05}), h.allocator.event({0x80, 0x3C, 0x00})}));
    EXPECT_EQ(h.fifoSpace(), 100u);
    EXPECT_EQ(h.allocator.returned(), 2);  // the filler's events only

    EXPECT_EQ(h.readFifo().size(), 8091u);
    ASSERT_TRUE(eventually([&] { return h.allocator.returned() == 5; }));
    EXPECT_EQ(h.readFifo(), (big + Bytes{0x90, 0x3C, 0x40, 0xC0, 0x05, 0x80, 0x3C, 0x00}));
    // Each retry is armed once: with the queue empty no timer runs again.
    const size_t retries = log.count("amTimerDPC");
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(log.count("amTimerDPC"), retries);
}

TEST(Render, MessageThatExactlyFitsTheSpaceIsStored)
{
    PortHarness h;
    fillFifo(h, 3);
    PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
    h.play(s, h.allocator.event({0x90, 0x3C, 0x40}));
    EXPECT_EQ(h.fifoSpace(), 0u);
    EXPECT_EQ(h.of(s)->m_RetryPending, 0);
    EXPECT_EQ(h.readFifo().size(), 8191u);
}

TEST(Render, CompletedMessageThatDoesNotFitWaitsForTheNextEvent)
{
    PortHarness h;
    fillFifo(h, 100);
    PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
    h.play(s, h.allocator.event(sysex(200, 0x33)));
    EXPECT_EQ(h.allocator.returned(), 3);  // the parser took it all: no retry
    EXPECT_EQ(h.of(s)->m_RetryPending, 0);
    EXPECT_EQ(h.readFifo().size(), 8091u);
    EXPECT_TRUE(h.readFifo().empty());
    h.play(s, h.allocator.event({0x90, 0x3C, 0x40}));
    EXPECT_EQ(h.readFifo(), (sysex(200, 0x33) + Bytes{0x90, 0x3C, 0x40}));
}

TEST(Render, DestroyedStreamReturnsItsEventsAndRetriesNoMore)
{
    LogCapture log;
    PortHarness h;
    fillFifo(h, 10);
    PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
    FakeAllocator &a = h.allocator;
    h.play(s, a.chain({a.event(sysex(50) + Bytes{0x90, 1, 1}), a.event({0x90, 2, 2}), a.event(sysex(30))}));
    ASSERT_TRUE(eventually([&] { return log.count("amTimerDPC +++++ done") >= 2; }));
    h.closeStream(s);
    EXPECT_EQ(a.outstanding(), 0);
    size_t retries = log.count("amTimerDPC");
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(log.count("amTimerDPC"), retries);
}

TEST(Render, StreamOfAClosedPortKeepsItsEvents)
{
    LogCapture log;
    PortHarness h;
    h.detach();
    PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
    h.play(s, h.allocator.event({0x90, 0x3C, 0x40}));
    EXPECT_TRUE(log.contains("CMiniportAmbrelStream::Write ***** no midi port!"));
    ASSERT_TRUE(eventually([&] { return log.count("amTimerDPC +++++ done") >= 2; }));
    EXPECT_EQ(h.allocator.outstanding(), 1);
    EXPECT_TRUE(h.readFifo().empty());
}

// ------------------------------------------------------------------ capture

TEST(Capture, WriteBecomesOneTimeStampedListCutByTheLargeBufferSize)
{
    struct Row {
        USHORT bufferSize;
        size_t length;
        std::vector<std::pair<size_t, bool>> events;  // bytes, inline
    } rows[] = {
        {240, 3, {{3, true}}},
        {240, 9, {{9, false}}},
        {240, 500, {{240, false}, {240, false}, {20, false}}},
        {240, 245, {{240, false}, {5, true}}},
        {0, 20, {{8, true}, {8, true}, {4, true}}},  // an allocator without large buffers
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(testing::Message() << row.bufferSize << "/" << row.length);
        PortHarness h(u"Piano", 3, 8176, true, row.bufferSize);
        PMXF s = h.runningCapture(&h.sink);
        h.clock.now = 777;
        Bytes data(row.length);
        for (size_t i = 0; i < row.length; i++) {
            data[i] = (uint8_t)(i * 7 + 1);
        }
        ASSERT_TRUE(h.write(data));
        EXPECT_EQ(h.port.notifications, 1);
        EXPECT_EQ(h.port.notified, h.miniport->m_ServiceGroup);
        LogCapture log;
        h.pump(s);
        EXPECT_EQ(log.count("CMiniportAmbrelStream::SourceEvtsToPort ***** pushed complete event-list (" +
                            std::to_string(row.length) + " octets) to application"),
                  1u);
        auto lists = h.sink.lists();
        ASSERT_EQ(lists.size(), 1u);
        ASSERT_EQ(lists[0].size(), row.events.size());
        for (size_t i = 0; i < row.events.size(); i++) {
            const CapturedEvent &e = lists[0][i];
            EXPECT_EQ(std::make_pair(e.bytes.size(), e.inlineData), row.events[i]) << i;
            EXPECT_EQ(std::vector<LONGLONG>({e.time, e.channelGroup, e.flags}), std::vector<LONGLONG>({777, 1, 0}));
        }
        EXPECT_EQ(h.sink.writes()[0], data);
    }
}

TEST(Capture, EveryRunningStreamGetsEachWriteInOrder)
{
    LogCapture log;
    PortHarness h;
    EXPECT_TRUE(h.write({0x90, 1, 1}));
    EXPECT_TRUE(log.contains("CMiniportAmbrel::PutData ***** returned because no MasterClock"));
    FakeSink second(&h.allocator), third(&h.allocator);
    PMXF a = h.runningCapture(&h.sink), b = h.runningCapture(&second);
    PMXF paused = h.newStream(DMUS_STREAM_MIDI_CAPTURE);
    paused->ConnectOutput(&third);

    std::vector<Bytes> writes = {{0x90, 1, 1}, Bytes(300, 0x42), {0xF8}};
    for (const Bytes &w : writes) {
        ASSERT_TRUE(h.write(w));
    }
    EXPECT_TRUE(h.write({}));
    EXPECT_TRUE(log.contains("CMiniportAmbrel::PutData ***** returned because no data specified"));
    for (PMXF s : {a, b, paused}) {
        h.pump(s);
    }
    EXPECT_EQ(h.sink.writes(), writes);
    EXPECT_EQ(second.writes(), writes);
    EXPECT_TRUE(third.lists().empty());
    EXPECT_EQ(h.port.notifications, 1);
}

TEST(Capture, NoNewNotificationUntilTheCountDrainsToZero)
{
    PortHarness h;
    PMXF s = h.runningCapture(&h.sink);
    ASSERT_TRUE(h.write(Bytes(500, 1)));  // three events
    h.pump(s);
    EXPECT_EQ(h.miniport->m_NotifyCount, 3);
    ASSERT_TRUE(h.write({0x90, 1, 1}));
    for (LONG expected : {3, 2, 1, 0, 0}) {  // the delivering pass adds 1 and takes 1
        EXPECT_EQ(h.port.notifications, 1);
        h.pump(s);
        EXPECT_EQ(h.miniport->m_NotifyCount, expected);
    }
    ASSERT_TRUE(h.write({0x90, 2, 2}));
    EXPECT_EQ(h.port.notifications, 2);
}

TEST(Capture, PassWithoutEventsOrBuffersKeepsTheWriteWhole)
{
    for (bool buffer : {false, true}) {
        SCOPED_TRACE(buffer ? "large buffer" : "event");
        LogCapture log;
        PortHarness h;
        PMXF s = h.runningCapture(&h.sink);
        std::vector<Bytes> writes = {Bytes(500, 5), {0x90, 1, 1}};
        for (const Bytes &w : writes) {
            ASSERT_TRUE(h.write(w));
        }
        buffer ? h.allocator.failBuffer(1) : h.allocator.failMessage(1);
        h.pump(s);
        EXPECT_TRUE(log.contains(buffer ? "can't allocate larger buffer" : "can't allocate DMKEvt"));
        EXPECT_TRUE(h.sink.lists().empty());
        EXPECT_EQ(h.allocator.outstanding(), 0);  // what was built went back
        h.pump(s);
        EXPECT_EQ(h.sink.writes(), writes);
    }
}

TEST(Capture, FailedWritesAndStoppedStreamsLoseNoMemory)
{
    LogCapture log;
    PortHarness h;
    PMXF a = h.runningCapture(&h.sink);
    PMXF b = h.runningCapture(&h.sink);
    size_t live = hostkernel::poolLiveAllocations();
    hostkernel::failNextPoolAllocations(1);  // the copy for the second stream
    EXPECT_FALSE(h.write({0x90, 1, 1}));
    hostkernel::clearPoolFaults();
    EXPECT_TRUE(log.contains("CMiniportAmbrel::PutData ---- Write failed because we could not allocate 35 bytes"));

    ASSERT_TRUE(h.write(Bytes(300, 3)));
    h.allocator.failMessage(0);
    h.pump(a);  // fails, keeps its item; then both streams stop
    a->SetState(KSSTATE_STOP);
    b->SetState(KSSTATE_STOP);
    EXPECT_EQ(hostkernel::poolLiveAllocations(), live);

    PDMUS_KERNEL_EVENT stray = h.allocator.event({0x90, 1, 1});
    h.play(a, stray);  // a capture stream is given no events: it hands it back
    hostkernel::acknowledgeAssertions(1);
    EXPECT_TRUE(log.contains("CMiniportAmbrelStream::PutMessage() ----- NULL != pDMKEvt"));
}
