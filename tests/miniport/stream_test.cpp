// Stream admission, creation failures, capture state and output connection.
#include "mp_harness.h"

using hostkernel::LogCapture;

TEST(StreamAdmission, LimitsAreSixteenRenderAndEightCaptureIndependently)
{
    PortHarness h;
    for (int i = 0; i < 16; i++) {
        ASSERT_NE(h.newStream(DMUS_STREAM_MIDI_RENDER), nullptr) << i;
    }
    std::vector<PMXF> capture;
    for (ULONG i = 0; i < 8; i++) {
        PMXF s = h.newStream(DMUS_STREAM_MIDI_CAPTURE);
        ASSERT_NE(s, nullptr) << i;
        EXPECT_EQ(h.streamOf(s)->m_CaptureSlot, i);
        capture.push_back(s);
    }
    EXPECT_EQ(h.miniport->m_NumRenderStreams, 16);
    EXPECT_EQ(h.miniport->m_NumCaptureStreams, 8);

    struct Row {
        DMUS_STREAM_TYPE type;
        const char *message;
    } rows[] = {
        {DMUS_STREAM_MIDI_RENDER, "CMiniPortAmbrel::NewStream ----- NewStream failed, too many render streams"},
        {DMUS_STREAM_MIDI_CAPTURE, "CMiniPortAmbrel::NewStream ----- NewStream failed, too many capture streams"},
        {DMUS_STREAM_WAVE_SINK, "CMiniPortAmbrel::NewStream ----- NewStream invalid stream type"},
        {(DMUS_STREAM_TYPE)7, "CMiniPortAmbrel::NewStream ----- NewStream invalid stream type"},
    };
    for (const Row &row : rows) {
        LogCapture log;
        NTSTATUS status = STATUS_SUCCESS;
        EXPECT_EQ(h.newStream(row.type, &status), nullptr);
        EXPECT_EQ(status, STATUS_INVALID_DEVICE_REQUEST);
        EXPECT_TRUE(log.contains(row.message));
    }
    EXPECT_EQ(h.miniport->m_NumRenderStreams, 16);
    EXPECT_EQ(h.miniport->m_NumCaptureStreams, 8);

    // Freed slots are handed out again, lowest first.
    h.closeStream(capture[5]);
    h.closeStream(capture[3]);
    EXPECT_EQ(h.miniport->m_CaptureSlotUsed[3], 0u);
    EXPECT_EQ(h.streamOf(h.newStream(DMUS_STREAM_MIDI_CAPTURE))->m_CaptureSlot, 3u);
    EXPECT_EQ(h.streamOf(h.newStream(DMUS_STREAM_MIDI_CAPTURE))->m_CaptureSlot, 5u);
}

TEST(StreamAdmission, FailedCreationGivesEverythingBack)
{
    struct Row {
        DMUS_STREAM_TYPE type;
        ULONG failingTag;  // 0: no allocator given
        NTSTATUS status;
        const char *message;
    } rows[] = {
        {DMUS_STREAM_MIDI_CAPTURE, hostkernel::tag("PcNw"), STATUS_INSUFFICIENT_RESOURCES,
         "CMiniPortAmbrel::NewStream ----- CMiniportAmbrelStream creation failed"},
        {DMUS_STREAM_MIDI_RENDER, hostkernel::tag("PcNw"), STATUS_INSUFFICIENT_RESOURCES,
         "CMiniPortAmbrel::NewStream ----- CMiniportAmbrelStream creation failed"},
        {DMUS_STREAM_MIDI_RENDER, hostkernel::tag("AmbP"), STATUS_INSUFFICIENT_RESOURCES, "CMiniportAmbrelStream::~CMiniportAmbrelStream"},
        {DMUS_STREAM_MIDI_RENDER, 0, STATUS_INVALID_PARAMETER, "CMiniportAmbrelStream::Init ----- No allocator!"},
        {DMUS_STREAM_MIDI_CAPTURE, 0, STATUS_INVALID_PARAMETER, "CMiniportAmbrelStream::Init ----- No allocator!"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.message);
        PortHarness h;
        PMXF first = h.newStream(row.type);  // holds slot 0 / one render count
        size_t live = hostkernel::poolLiveAllocations();
        LONG miniportRefs = h.miniport->GetReferenceCount();

        LogCapture log;
        if (row.failingTag != 0) {
            hostkernel::failPoolAllocationsOfTag(row.failingTag);
        }
        NTSTATUS status = STATUS_SUCCESS;
        EXPECT_EQ(h.newStream(row.type, &status, row.failingTag != 0), nullptr);
        hostkernel::clearPoolFaults();
        EXPECT_EQ(status, row.status);
        EXPECT_TRUE(log.contains(row.message));

        EXPECT_EQ(hostkernel::poolLiveAllocations(), live);
        EXPECT_EQ(h.miniport->GetReferenceCount(), miniportRefs);
        EXPECT_EQ(h.miniport->m_NumRenderStreams + h.miniport->m_NumCaptureStreams, 1);
        for (ULONG slot = 1; slot < AM_MAX_CAPTURE_STREAMS; slot++) {
            EXPECT_EQ(h.miniport->m_CaptureSlotUsed[slot], 0u);
        }
        // The slot the failed stream had was given back: the next one gets it.
        PMXF next = h.newStream(row.type);
        ASSERT_NE(next, nullptr);
        if (row.type == DMUS_STREAM_MIDI_CAPTURE) {
            EXPECT_EQ(h.streamOf(next)->m_CaptureSlot, 1u);
        }
        EXPECT_NE(first, nullptr);
    }
}

TEST(StreamState, CaptureListIsEnteredOnlyWhileRunning)
{
    PortHarness h;
    PMXF capture = h.newStream(DMUS_STREAM_MIDI_CAPTURE);
    PMXF render = h.newStream(DMUS_STREAM_MIDI_RENDER);
    CMiniportAmbrelStream *s = h.streamOf(capture);
    ULONG slot = s->m_CaptureSlot;
    EXPECT_EQ(h.miniport->m_CaptureLists[slot], nullptr);

    UCHAR note[] = {0x90, 0x3C, 0x40};
    EXPECT_TRUE(h.miniport->PutData(note, 3));  // not running: lost
    EXPECT_TRUE(IsListEmpty(&s->m_CaptureData));

    EXPECT_EQ(capture->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(h.miniport->m_CaptureLists[slot], &s->m_CaptureData);
    EXPECT_TRUE(h.miniport->PutData(note, 3));
    EXPECT_FALSE(IsListEmpty(&s->m_CaptureData));

    size_t live = hostkernel::poolLiveAllocations();
    EXPECT_EQ(capture->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    EXPECT_EQ(h.miniport->m_CaptureLists[slot], nullptr);
    EXPECT_TRUE(IsListEmpty(&s->m_CaptureData));
    EXPECT_EQ(hostkernel::poolLiveAllocations(), live - 1);  // the waiting item is gone
    EXPECT_EQ(h.miniport->m_CaptureSlotUsed[slot], 1u);

    EXPECT_EQ(capture->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(s->m_CaptureSlot, slot);
    EXPECT_EQ(render->SetState(KSSTATE_RUN), STATUS_SUCCESS);  // a render stream ignores it
}

TEST(StreamConnection, CaptureSinkConnectsOnceUntilDisconnected)
{
    PortHarness h;
    PMXF capture = h.newStream(DMUS_STREAM_MIDI_CAPTURE);
    PMXF render = h.newStream(DMUS_STREAM_MIDI_RENDER);
    FakeSink other(&h.allocator);
    CMiniportAmbrelStream *s = h.streamOf(capture);
    EXPECT_EQ(s->m_Sink, static_cast<PMXF>(&h.allocator));

    struct Step {
        PMXF stream;
        bool connect;
        PMXF sink;
        NTSTATUS status;
        PMXF sinkAfter;
    } steps[] = {
        {render, true, &h.sink, STATUS_UNSUCCESSFUL, nullptr},
        {render, false, nullptr, STATUS_UNSUCCESSFUL, nullptr},
        {capture, true, nullptr, STATUS_UNSUCCESSFUL, &h.allocator},
        {capture, true, &h.sink, STATUS_SUCCESS, &h.sink},
        {capture, true, &other, STATUS_UNSUCCESSFUL, &h.sink},
        {capture, false, &other, STATUS_UNSUCCESSFUL, &h.sink},
        {capture, false, &h.sink, STATUS_SUCCESS, &h.allocator},
        {capture, true, &other, STATUS_SUCCESS, &other},
        {capture, false, nullptr, STATUS_SUCCESS, &h.allocator},
    };
    int i = 0;
    for (const Step &step : steps) {
        NTSTATUS status = step.connect ? step.stream->ConnectOutput(step.sink) : step.stream->DisconnectOutput(step.sink);
        EXPECT_EQ(status, step.status) << "step " << i;
        if (step.sinkAfter != nullptr) {
            EXPECT_EQ(s->m_Sink, step.sinkAfter) << "step " << i;
        }
        i++;
    }
    EXPECT_EQ(other.counter.refs(), 1);  // the sink is never counted
}

TEST(StreamObject, QueryAndCountingFollowTheObjectBase)
{
    LogCapture log;
    PortHarness h;
    PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
    CMiniportAmbrelStream *stream = h.streamOf(s);
    EXPECT_EQ(stream->GetReferenceCount(), 1);
    EXPECT_EQ(h.miniport->GetReferenceCount(), 2);  // the stream holds its miniport
    EXPECT_EQ(h.allocator.counter.refs(), 2);       // and its allocator

    PVOID object = nullptr;
    EXPECT_EQ(s->QueryInterface(IID_IMXF, &object), STATUS_SUCCESS);
    EXPECT_EQ(object, s);
    EXPECT_EQ(stream->GetReferenceCount(), 2);
    s->Release();
    EXPECT_EQ(s->QueryInterface(IID_IMiniport, &object), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(object, nullptr);
    EXPECT_TRUE(log.contains("CMiniportAmbrelStream::NonDelegatingQueryInterface ----- query failed"));

    h.closeStream(s);
    EXPECT_EQ(h.miniport->GetReferenceCount(), 1);
    EXPECT_EQ(h.miniport->m_NumRenderStreams, 0);
    EXPECT_TRUE(log.contains("CMiniportAmbrelStream::~CMiniportAmbrelStream +++++ succeeded"));
}
