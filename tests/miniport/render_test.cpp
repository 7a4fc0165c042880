// The render path: event lists played to a render stream end up as whole
// MIDI messages in the port FIFO, with the 1 ms retry while it is full.
#include "mp_harness.h"

#include <chrono>
#include <functional>
#include <thread>

using hostkernel::LogCapture;
using Bytes = std::vector<uint8_t>;

static bool waitFor(const std::function<bool()> &condition)
{
    // Generous: only a hang fails this, never a slow machine.
    for (int i = 0; i < 10000; i++) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return condition();
}

static Bytes sysex(size_t length, uint8_t fill = 0x11)
{
    Bytes b(length, fill);
    b.front() = 0xF0;
    b.back() = 0xF7;
    return b;
}

static Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

TEST(RenderPath, EventsBecomeWholeMessagesInTheFifo)
{
    struct Row {
        const char *what;
        std::vector<Bytes> events;
        Bytes fifo;
    } rows[] = {
        {"note on", {{0x90, 0x3C, 0x40}}, {0x90, 0x3C, 0x40}},
        {"split across events", {{0x90, 0x3C}, {0x40}}, {0x90, 0x3C, 0x40}},
        {"real time inside a message", {{0x90, 0x3C, 0xF8, 0x40}}, {0xF8, 0x90, 0x3C, 0x40}},
        {"running status", {{0x90, 0x3C, 0x40, 0x3C, 0x00}}, {0x90, 0x3C, 0x40, 0x90, 0x3C, 0x00}},
        {"empty event", {{}}, {}},
        {"long event", {concat({sysex(20), {0xC0, 0x05}})}, concat({sysex(20), {0xC0, 0x05}})},
        {"torn input resynchronises", {{0x3C, 0x90, 0x3C}, {0xB0, 0x07, 0x64}}, {0xB0, 0x07, 0x64}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        PortHarness h;
        PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
        PDMUS_KERNEL_EVENT head = nullptr, tail = nullptr;
        for (const Bytes &e : row.events) {
            PDMUS_KERNEL_EVENT ev = h.allocator.makeEvent(e);
            (tail ? tail->pNextEvt : head) = ev;
            tail = ev;
        }
        h.play(s, head);
        EXPECT_EQ(h.allocator.returnedEvents(), (long)row.events.size());
        EXPECT_EQ(h.readFifo(), row.fifo);
    }
}

TEST(RenderPath, PackagedEventsFollowTheEventsQueuedBehindThePackage)
{
    PortHarness h;
    PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
    PDMUS_KERNEL_EVENT inner =
        FakeAllocator::chain({h.allocator.makeEvent({0x91, 0x01, 0x01}), h.allocator.makeEvent({0x91, 0x02, 0x02})});
    h.play(s, FakeAllocator::chain({h.allocator.makeEvent({0x90, 0x01, 0x01}), h.allocator.makePackage(inner),
                                    h.allocator.makeEvent({0x90, 0x02, 0x02})}));
    EXPECT_EQ(h.readFifo(), (Bytes{0x90, 0x01, 0x01, 0x90, 0x02, 0x02, 0x91, 0x01, 0x01, 0x91, 0x02, 0x02}));
    EXPECT_EQ(h.allocator.returnedEvents(), 5);
}

// A port whose FIFO (8192 bytes) has exactly `space` bytes left, filled with
// one System Exclusive message from a first render stream.
static PMXF fillFifo(PortHarness &h, ULONG space)
{
    PMXF filler = h.newStream(DMUS_STREAM_MIDI_RENDER);
    h.play(filler, h.allocator.makeEvent(sysex(8191 - space)));
    EXPECT_EQ(h.fifoSpace(), space);
    return filler;
}

TEST(RenderPath, MessageLargerThanTheSpaceWaitsAndIsThenStoredWhole)
{
    LogCapture log;
    PortHarness h;
    fillFifo(h, 100);
    PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
    CMiniportAmbrelStream *stream = h.streamOf(s);
    const Bytes big = sysex(200, 0x22);

    h.play(s, h.allocator.makeEvent(concat({big, {0x90, 0x3C, 0x40}})));
    EXPECT_EQ(h.fifoSpace(), 100u);  // nothing of it went in
    EXPECT_EQ(stream->m_DMKEvtOffset, 200u);
    EXPECT_EQ(stream->m_RetryPending, 1);
    EXPECT_TRUE(log.contains("CMiniportAmbrelStream::Write ***** no more space in fifo!"));

    // It keeps trying every millisecond; events that arrive meanwhile only queue.
    ASSERT_TRUE(waitFor([&] { return log.count("Ambrel:Miniport: amTimerDPC +++++ done") >= 3; }));
    h.play(s, FakeAllocator::chain({h.allocator.makeEvent({0xC0, 0x05}), h.allocator.makeEvent({0x80, 0x3C, 0x00})}));
    EXPECT_EQ(h.fifoSpace(), 100u);
    EXPECT_EQ(h.allocator.returnedEvents(), 1);  // only the filler's

    // The application reads; the next retry stores everything, in order.
    EXPECT_EQ(h.readFifo().size(), 8091u);
    ASSERT_TRUE(waitFor([&] { return h.allocator.returnedEvents() == 4; }));
    EXPECT_EQ(h.readFifo(), concat({big, {0x90, 0x3C, 0x40, 0xC0, 0x05, 0x80, 0x3C, 0x00}}));
    EXPECT_EQ(stream->m_RetryPending, 0);
}

TEST(RenderPath, CompletedMessageThatDoesNotFitWaitsForTheNextEvent)
{
    PortHarness h;
    fillFifo(h, 100);
    PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
    const Bytes big = sysex(200, 0x33);

    // The parser takes the whole event: it is finished, and nothing retries.
    h.play(s, h.allocator.makeEvent(big));
    EXPECT_EQ(h.allocator.returnedEvents(), 2);
    EXPECT_EQ(h.streamOf(s)->m_RetryPending, 0);
    EXPECT_EQ(h.readFifo().size(), 8091u);
    EXPECT_TRUE(h.readFifo().empty());

    h.play(s, h.allocator.makeEvent({0x90, 0x3C, 0x40}));
    EXPECT_EQ(h.readFifo(), concat({big, {0x90, 0x3C, 0x40}}));
}

TEST(RenderPath, StreamsInterleaveOnlyAtMessageBoundaries)
{
    PortHarness h;
    PMXF a = h.newStream(DMUS_STREAM_MIDI_RENDER);
    PMXF b = h.newStream(DMUS_STREAM_MIDI_RENDER);
    h.play(a, h.allocator.makeEvent({0x90, 0x3C}));  // half a message waits in a's parser
    h.play(b, h.allocator.makeEvent({0x91, 0x40, 0x7F}));
    h.play(a, h.allocator.makeEvent({0x40}));
    EXPECT_EQ(h.readFifo(), (Bytes{0x91, 0x40, 0x7F, 0x90, 0x3C, 0x40}));
}

TEST(RenderPath, DestroyingAStreamReturnsItsEventsAndStopsItsRetries)
{
    LogCapture log;
    PortHarness h;
    fillFifo(h, 10);
    PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
    h.play(s, FakeAllocator::chain({h.allocator.makeEvent(concat({sysex(50), {0x90, 1, 1}})),
                                    h.allocator.makeEvent({0x90, 2, 2}), h.allocator.makeEvent(sysex(30))}));
    ASSERT_TRUE(waitFor([&] { return log.count("amTimerDPC +++++ done") >= 2; }));
    EXPECT_EQ(h.allocator.outstandingEvents(), 3);

    h.closeStream(s);
    EXPECT_EQ(h.allocator.outstandingEvents(), 0);
    EXPECT_EQ(h.allocator.outstandingBuffers(), 0);
    size_t retries = log.count("amTimerDPC");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(log.count("amTimerDPC"), retries);
}

TEST(RenderPath, StreamOfAClosedPortKeepsItsEventsAndRetries)
{
    LogCapture log;
    PortHarness h;
    h.detach();
    PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
    h.play(s, h.allocator.makeEvent({0x90, 0x3C, 0x40}));
    EXPECT_TRUE(log.contains("CMiniportAmbrelStream::Write ***** no midi port!"));
    ASSERT_TRUE(waitFor([&] { return log.count("amTimerDPC +++++ done") >= 2; }));
    EXPECT_EQ(h.allocator.outstandingEvents(), 1);
    EXPECT_TRUE(h.readFifo().empty());
}

TEST(RenderPath, CaptureStreamRefusesRenderWork)
{
    LogCapture log;
    PortHarness h;
    PMXF c = h.newStream(DMUS_STREAM_MIDI_CAPTURE);
    ULONG written = 99;
    UCHAR note[] = {0x90, 0x3C, 0x40};
    {
        AtDispatch dispatch;
        EXPECT_EQ(h.streamOf(c)->Write(note, 3, &written), STATUS_INVALID_DEVICE_REQUEST);
    }
    EXPECT_TRUE(log.contains("CMiniportAmbrelStream::Write ----- called on read stream!"));
    PMXF r = h.newStream(DMUS_STREAM_MIDI_RENDER);
    {
        AtDispatch dispatch;
        EXPECT_EQ(h.streamOf(r)->SourceEvtsToPort(), STATUS_INVALID_DEVICE_REQUEST);
    }
    EXPECT_TRUE(log.contains("CMiniportAmbrelStream::SourceEvtsToPort ----- called on render stream"));
}
