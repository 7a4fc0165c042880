// Stream admission and teardown, capture state and output connection.
#include "mp_support.h"
#include "published.h"

using hostkernel::LogCapture;

TEST(Streams, AdmissionLimitsAndSlotReuse)
{
    PortHarness h;
    std::vector<PMXF> render;
    for (int i = 0; i < 16; i++) {
        render.push_back(h.newStream(DMUS_STREAM_MIDI_RENDER));
        ASSERT_NE(render.back(), nullptr) << i;
    }
    std::vector<PMXF> capture;
    for (ULONG i = 0; i < 8; i++) {
        capture.push_back(h.newStream(DMUS_STREAM_MIDI_CAPTURE));
        ASSERT_NE(capture.back(), nullptr);
        EXPECT_EQ(h.of(capture.back())->m_CaptureSlot, i);
    }
    struct Row {
        DMUS_STREAM_TYPE type;
        const char *message;
    } rows[] = {{DMUS_STREAM_MIDI_RENDER, "NewStream failed, too many render streams"},
                {DMUS_STREAM_MIDI_CAPTURE, "NewStream failed, too many capture streams"},
                {DMUS_STREAM_WAVE_SINK, "NewStream invalid stream type"}};
    for (const Row &row : rows) {
        LogCapture log;
        NTSTATUS status = STATUS_SUCCESS;
        EXPECT_EQ(h.newStream(row.type, &status), nullptr);
        EXPECT_EQ(status, STATUS_INVALID_DEVICE_REQUEST);
        EXPECT_TRUE(log.contains(std::string("CMiniPortAmbrel::NewStream ----- ") + row.message));
    }
    EXPECT_EQ(h.miniport->m_NumRenderStreams, 16);
    EXPECT_EQ(h.miniport->m_NumCaptureStreams, 8);

    // A closed stream's place is free again; capture takes the lowest slot.
    h.closeStream(render[7]);
    EXPECT_EQ(h.miniport->m_NumRenderStreams, 15);
    EXPECT_NE(h.newStream(DMUS_STREAM_MIDI_RENDER), nullptr);
    h.closeStream(capture[5]);
    h.closeStream(capture[3]);
    EXPECT_EQ(h.of(h.newStream(DMUS_STREAM_MIDI_CAPTURE))->m_CaptureSlot, 3u);
    EXPECT_EQ(h.of(h.newStream(DMUS_STREAM_MIDI_CAPTURE))->m_CaptureSlot, 5u);
}

TEST(Streams, FailedCreationGivesEverythingBack)
{
    struct Row {
        DMUS_STREAM_TYPE type;
        ULONG failingTag;  // 0: no allocator given
        NTSTATUS status;
        const char *message;
    } rows[] = {
        {DMUS_STREAM_MIDI_CAPTURE, hostkernel::tag("PcNw"), STATUS_INSUFFICIENT_RESOURCES,
         "CMiniportAmbrelStream creation failed"},
        {DMUS_STREAM_MIDI_RENDER, hostkernel::tag("PcNw"), STATUS_INSUFFICIENT_RESOURCES,
         "CMiniportAmbrelStream creation failed"},
        {DMUS_STREAM_MIDI_RENDER, hostkernel::tag("AmbP"), STATUS_INSUFFICIENT_RESOURCES,
         "CMiniportAmbrelStream::~CMiniportAmbrelStream +++++ succeeded"},
        {DMUS_STREAM_MIDI_RENDER, 0, STATUS_INVALID_PARAMETER, "CMiniportAmbrelStream::Init ----- No allocator!"},
        {DMUS_STREAM_MIDI_CAPTURE, 0, STATUS_INVALID_PARAMETER, "CMiniportAmbrelStream::Init ----- No allocator!"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.message);
        PortHarness h;
        h.newStream(row.type);  // holds slot 0, or one render count
        size_t live = hostkernel::poolLiveAllocations();
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
        EXPECT_EQ(h.miniport->GetReferenceCount(), 2);  // creation and the first stream
        EXPECT_EQ(h.allocator.refs, 2);
        EXPECT_EQ(h.miniport->m_NumRenderStreams + h.miniport->m_NumCaptureStreams, 1);
        EXPECT_EQ(h.miniport->m_CaptureSlotUsed[1], 0u);
        PMXF next = h.newStream(row.type);
        ASSERT_NE(next, nullptr);
        EXPECT_EQ(h.of(next)->m_CaptureSlot, row.type == DMUS_STREAM_MIDI_CAPTURE ? 1u : AM_NO_CAPTURE_SLOT);
    }
}

TEST(Streams, AnswerAsIMXFOnly)
{
    PortHarness h;
    PMXF s = h.newStream(DMUS_STREAM_MIDI_RENDER);
    PVOID object = nullptr;
    EXPECT_EQ(s->QueryInterface(IID_IMXF, &object), STATUS_SUCCESS);
    EXPECT_EQ(object, s);
    EXPECT_EQ(s->Release(), 1u);
    // IUnknown, {00000000-0000-0000-C000-000000000046}, is the same face.
    EXPECT_EQ(s->QueryInterface(published::guid("{00000000-0000-0000-C000-000000000046}"), &object), STATUS_SUCCESS);
    EXPECT_EQ(object, s);
    EXPECT_EQ(s->Release(), 1u);
    EXPECT_EQ(s->QueryInterface(IID_IMiniport, &object), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(object, nullptr);
}

TEST(Streams, CaptureListIsEnteredOnlyWhileRunning)
{
    PortHarness h;
    PMXF s = h.newStream(DMUS_STREAM_MIDI_CAPTURE);
    CMiniportAmbrelStream *stream = h.of(s);
    ULONG slot = stream->m_CaptureSlot;
    EXPECT_TRUE(h.write({0x90, 1, 1}));  // stopped: lost
    EXPECT_TRUE(IsListEmpty(&stream->m_CaptureData));
    EXPECT_EQ(s->SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    EXPECT_TRUE(h.write({0x90, 1, 1}));  // acquired is not running either
    EXPECT_TRUE(IsListEmpty(&stream->m_CaptureData));
    {
        // Asked for data while it does not run, it refuses.
        LogCapture log;
        h.pump(s);
        EXPECT_TRUE(log.contains("CMiniportAmbrelStream::SourceEvtsToPort ----- This PIN is not running!"));
    }

    EXPECT_EQ(s->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(h.miniport->m_CaptureLists[slot], &stream->m_CaptureData);
    EXPECT_TRUE(h.write({0x90, 1, 1}));
    size_t live = hostkernel::poolLiveAllocations();
    EXPECT_EQ(s->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    EXPECT_EQ(h.miniport->m_CaptureLists[slot], nullptr);
    EXPECT_EQ(hostkernel::poolLiveAllocations(), live - 1);  // the waiting write is gone
    EXPECT_EQ(s->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(stream->m_CaptureSlot, slot);

    // Destroyed while running, it leaves the slot table: a later write
    // allocates nothing for it.
    h.closeStream(s);
    EXPECT_EQ(h.miniport->m_CaptureLists[slot], nullptr);
    live = hostkernel::poolLiveAllocations();
    EXPECT_TRUE(h.write({0x90, 1, 1}));
    EXPECT_EQ(hostkernel::poolLiveAllocations(), live);
}

TEST(Streams, WriteWithoutCaptureStreamsIsDroppedBeforeAnyWork)
{
    PortHarness h;
    h.newStream(DMUS_STREAM_MIDI_RENDER);  // a clock, but nobody records
    LogCapture log;
    const size_t live = hostkernel::poolLiveAllocations();
    EXPECT_TRUE(h.write({0x90, 1, 1}));
    EXPECT_TRUE(log.contains("CMiniportAmbrel::PutData ***** returned because no Capture Streams"));
    EXPECT_FALSE(log.contains("before Notify"));
    EXPECT_EQ(h.port.notified, nullptr);
    EXPECT_EQ(hostkernel::poolLiveAllocations(), live);

    // The framework's service call has nothing to do either way.
    for (bool capturing : {false, true}) {
        if (capturing) {
            h.newStream(DMUS_STREAM_MIDI_CAPTURE);
        }
        log.clear();
        h.miniport->Service();
        EXPECT_EQ(log.lines().back(), capturing ? "Ambrel:Miniport: CMiniportAmbrel::Service +++++ succeeded"
                                                : "Ambrel:Miniport: CMiniportAmbrel::Service ----- We should probably "
                                                  "clean something - but so far we can't!");
    }
}

TEST(Streams, CaptureSinkConnectsOnceUntilDisconnected)
{
    PortHarness h;
    PMXF capture = h.newStream(DMUS_STREAM_MIDI_CAPTURE);
    PMXF render = h.newStream(DMUS_STREAM_MIDI_RENDER);
    FakeSink other(&h.allocator);
    PMXF allocator = &h.allocator;
    struct Step {
        PMXF stream;
        bool connect;
        PMXF sink;
        NTSTATUS status;
        PMXF sinkAfter;
    } steps[] = {
        {render, true, &h.sink, STATUS_UNSUCCESSFUL, nullptr},   {render, false, nullptr, STATUS_UNSUCCESSFUL, nullptr},
        {capture, true, nullptr, STATUS_UNSUCCESSFUL, allocator}, {capture, true, &h.sink, STATUS_SUCCESS, &h.sink},
        {capture, true, &other, STATUS_UNSUCCESSFUL, &h.sink},    {capture, false, &other, STATUS_UNSUCCESSFUL, &h.sink},
        {capture, false, &h.sink, STATUS_SUCCESS, allocator},     {capture, true, &other, STATUS_SUCCESS, &other},
        {capture, false, nullptr, STATUS_SUCCESS, allocator},
    };
    for (size_t i = 0; i < RTL_NUMBER_OF(steps); i++) {
        const Step &step = steps[i];
        EXPECT_EQ(step.connect ? step.stream->ConnectOutput(step.sink) : step.stream->DisconnectOutput(step.sink),
                  step.status)
            << "step " << i;
        if (step.sinkAfter != nullptr) {
            EXPECT_EQ(h.of(capture)->m_Sink, step.sinkAfter) << "step " << i;
        }
    }
    EXPECT_EQ(other.refs, 1);  // the sink is not counted
}
