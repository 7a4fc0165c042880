// The host's portcls driven as MIDI clients drive it, against the tests'
// own miniport: publication and withdrawal, filter and pin lifetime and
// limits, property dispatch, and both data paths.
#include "pc_support.h"

#include <thread>

namespace pctest {

using hk::midi::Filter;
using hk::midi::Message;
using hk::midi::Pin;

// ------------------------------------------------------------------ filters
TEST_F(PortclsTest, PublishedSubdeviceIsFoundAndDescribedFromTheMiniport)
{
    publish(u"sub0", u"Piano");
    auto port = hk::midi::findPort(u"Piano");
    ASSERT_TRUE(port.has_value());
    EXPECT_TRUE(port->render);
    EXPECT_TRUE(port->capture);
    EXPECT_EQ(port->referenceString, u"sub0");

    auto filter = openFilter(process(10), u"Piano");
    ULONG pins = 0;
    ASSERT_EQ(filter->pinCount(&pins), STATUS_SUCCESS);
    EXPECT_EQ(pins, 3u);
    struct Row {
        ULONG pin;
        KSPIN_DATAFLOW flow;
        KSPIN_COMMUNICATION communication;
        ULONG possible;
        std::vector<GUID> subFormats;
    } rows[] = {
        {kRenderPin, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_SINK, 2, {KSDATAFORMAT_SUBTYPE_MIDI}},
        {kCapturePin, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_SINK, 8,
         {KSDATAFORMAT_SUBTYPE_MIDI, KSDATAFORMAT_SUBTYPE_DIRECTMUSIC}},
        {kBridgePin, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_NONE, 0, {KSDATAFORMAT_SUBTYPE_MIDI_BUS}},
    };
    for (const Row &row : rows) {
        hk::midi::PinDescription d;
        ASSERT_EQ(filter->describePin(row.pin, &d), STATUS_SUCCESS) << row.pin;
        EXPECT_EQ(d.dataFlow, row.flow) << row.pin;
        EXPECT_EQ(d.communication, row.communication) << row.pin;
        EXPECT_EQ(d.instances.PossibleCount, row.possible) << row.pin;
        EXPECT_EQ(d.instances.CurrentCount, 0u) << row.pin;
        EXPECT_EQ(d.subFormats, row.subFormats) << row.pin;
        EXPECT_EQ(d.category, KSCATEGORY_AUDIO) << row.pin;
    }
    EXPECT_EQ(filter->findPin(KSPIN_DATAFLOW_OUT, KSDATAFORMAT_SUBTYPE_DIRECTMUSIC), kCapturePin);

    std::u16string name;
    ASSERT_EQ(filter->pinName(kCapturePin, &name), STATUS_SUCCESS);
    EXPECT_EQ(name, u"Test pin 1");
}

TEST_F(PortclsTest, WithdrawnSubdeviceRefusesNewOpensWhileOpenHandlesKeepWorking)
{
    TestMiniport *miniport = publish(u"sub0", u"Piano");
    std::u16string path = hk::midi::findPort(u"Piano")->path;
    auto filter = openFilter(process(10), u"Piano");
    auto pin = openPin(*filter, kCapturePin);
    ASSERT_EQ(withdraw(miniport), STATUS_SUCCESS);
    EXPECT_FALSE(hk::midi::findPort(u"Piano").has_value()) << "interfaces are disabled";

    std::unique_ptr<Filter> again;
    EXPECT_NE(Filter::open(process(11), path, &again), STATUS_SUCCESS);
    ULONG pins = 0;
    EXPECT_EQ(filter->pinCount(&pins), STATUS_SUCCESS);
    EXPECT_EQ(pin->setState(KSSTATE_RUN), STATUS_SUCCESS);
    // The miniport lives while the filter does.
    EXPECT_GT(liveTestObjects().load(), 0);
    pin.reset();
    filter.reset();
    EXPECT_TRUE(eventually([] { return liveTestObjects().load() == 0; }));
}

TEST_F(PortclsTest, RegistrationRefusesBadArguments)
{
    publish(u"sub0", u"Piano");
    PPORT port = NULL;
    ASSERT_EQ(PcNewPort(&port, CLSID_PortDMus), STATUS_SUCCESS);
    std::u16string name = u"SUB0";
    // Not initialised, then a name taken (case-insensitively).
    EXPECT_EQ(PcRegisterSubdevice(fdo(), reinterpret_cast<PWCHAR>(name.data()), port), STATUS_INVALID_DEVICE_STATE);
    auto *miniport = new TestMiniport;
    ASSERT_EQ(port->Init(fdo(), NULL, static_cast<IMiniportDMus *>(miniport), NULL, NULL), STATUS_SUCCESS);
    miniport->Release();
    EXPECT_EQ(PcRegisterSubdevice(fdo(), reinterpret_cast<PWCHAR>(name.data()), port), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(PcRegisterSubdevice(fdo(), NULL, port), STATUS_INVALID_PARAMETER);
    PPORT other = NULL;
    EXPECT_EQ(PcNewPort(&other, kTestSet), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(other, nullptr);
    // A port whose registration failed lets go of its miniport: releasing
    // the last outside reference ends both.
    port->Release();
    EXPECT_EQ(liveTestObjects().load(), 1) << "only the published miniport is left";
}

// ------------------------------------------------------------------ pins
TEST_F(PortclsTest, PinCreationEnforcesIdsFormatsAndInstanceLimits)
{
    TestMiniport *miniport = publish(u"sub0", u"Piano");
    auto a = openFilter(process(10), u"Piano");
    auto b = openFilter(process(11), u"Piano");

    // Per filter 2, per sub-device 3.
    auto r1 = openPin(*a, kRenderPin);
    auto r2 = openPin(*a, kRenderPin);
    openPin(*a, kRenderPin, STATUS_INSUFFICIENT_RESOURCES);
    auto r3 = openPin(*b, kRenderPin);
    openPin(*b, kRenderPin, STATUS_INSUFFICIENT_RESOURCES);
    r1.reset();
    auto r4 = openPin(*b, kRenderPin);
    ASSERT_NE(r4, nullptr);

    openPin(*a, kBridgePin, STATUS_INVALID_DEVICE_REQUEST);
    openPin(*a, 7, STATUS_INVALID_PARAMETER);
    openPin(*a, kRenderPin, STATUS_NO_MATCH, KSDATAFORMAT_SUBTYPE_DIRECTMUSIC);

    // A truncated connection request and an interface the pin does not offer.
    hk::Handle h = 0;
    KSPIN_CONNECT connect = hk::midi::defaultConnect(kCapturePin);
    KSDATAFORMAT format = hk::midi::musicFormat(KSDATAFORMAT_SUBTYPE_MIDI);
    std::u16string name = hk::midi::pinCreateName(connect, &format, sizeof(format));
    EXPECT_EQ(a->process().openRelative(a->handle(), name.substr(0, name.size() - 2), GENERIC_READ, &h),
              STATUS_INVALID_BUFFER_SIZE);
    connect.Interface.Id = KSINTERFACE_STANDARD_LOOPED_STREAMING;
    EXPECT_EQ(a->process().openRelative(a->handle(), hk::midi::pinCreateName(connect, &format, sizeof(format)),
                                        GENERIC_READ, &h),
              STATUS_NO_MATCH);

    // The miniport's IPinCount narrows the limit; its NewStream failure is the create's.
    miniport->renderFilterLimit = 1;
    openPin(*b, kRenderPin, STATUS_INSUFFICIENT_RESOURCES);
    miniport->renderFilterLimit = 0xFFFFFFFF;
    miniport->newStreamStatus = STATUS_DEVICE_BUSY;
    openPin(*a, kCapturePin, STATUS_DEVICE_BUSY);
    miniport->newStreamStatus = STATUS_SUCCESS;
    hk::midi::PinDescription d;
    ASSERT_EQ(a->describePin(kCapturePin, &d), STATUS_SUCCESS);
    EXPECT_EQ(d.instances.CurrentCount, 0u) << "a refused pin leaves no instance behind";

    auto capture = openPin(*a, kCapturePin, STATUS_SUCCESS, KSDATAFORMAT_SUBTYPE_DIRECTMUSIC);
    std::lock_guard<std::mutex> lock(miniport->mutex);
    const auto &last = miniport->newStreamCalls.back();
    EXPECT_EQ(last.pinId, kCapturePin);
    EXPECT_EQ(last.type, DMUS_STREAM_MIDI_CAPTURE);
    EXPECT_EQ(last.subFormat, KSDATAFORMAT_SUBTYPE_DIRECTMUSIC);
    EXPECT_TRUE(last.allocator && last.clock);
    EXPECT_EQ(miniport->newStreamCalls.front().type, DMUS_STREAM_MIDI_RENDER);
}

TEST_F(PortclsTest, PinStateStepsThroughEveryStateAndClosingStops)
{
    TestMiniport *miniport = publish(u"sub0", u"Piano");
    auto filter = openFilter(process(10), u"Piano");
    auto pin = openPin(*filter, kCapturePin);
    TestStream *stream = miniport->streams(true).at(0);
    ASSERT_EQ(pin->setState(KSSTATE_RUN), STATUS_SUCCESS);
    KSSTATE state = KSSTATE_STOP;
    ASSERT_EQ(pin->state(&state), STATUS_SUCCESS);
    EXPECT_EQ(state, KSSTATE_RUN);
    ULONG bogus = 7;
    EXPECT_EQ(pin->property(KSPROPSETID_Connection, KSPROPERTY_CONNECTION_STATE, KSPROPERTY_TYPE_SET, &bogus,
                            sizeof(bogus))
                  .status,
              STATUS_INVALID_PARAMETER);
    ASSERT_EQ(pin->setState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    ASSERT_EQ(pin->setState(KSSTATE_RUN), STATUS_SUCCESS);
    std::vector<KSSTATE> expected = {KSSTATE_ACQUIRE, KSSTATE_PAUSE, KSSTATE_RUN, KSSTATE_PAUSE,
                                     KSSTATE_ACQUIRE, KSSTATE_PAUSE, KSSTATE_RUN};
    EXPECT_EQ(stream->states(), expected);
}

// ------------------------------------------------------------------ properties
TEST_F(PortclsTest, PropertiesReachTheMiniportWithEveryVerbAndBufferSize)
{
    TestMiniport *miniport = publish(u"sub0", u"Piano");
    auto filter = openFilter(process(10), u"Piano");
    auto pin = openPin(*filter, kRenderPin);
    ASSERT_EQ(pin->setState(KSSTATE_PAUSE), STATUS_SUCCESS);
    PUNKNOWN render = miniport->streams(false).at(0);

    struct Row {
        const char *what;
        bool onPin;
        ULONG id, verb;
        std::optional<ULONG> node;
        ULONG valueSize;
        NTSTATUS status;
        ULONG_PTR information;
    } rows[] = {
        {"node item, set", false, 1, KSPROPERTY_TYPE_SET, 0, 4, STATUS_SUCCESS, 4},
        {"filter item, size query", false, 3, KSPROPERTY_TYPE_GET, {}, 0, STATUS_BUFFER_OVERFLOW, 4},
        {"filter item, too small", false, 3, KSPROPERTY_TYPE_GET, {}, 2, STATUS_BUFFER_TOO_SMALL, 0},
        {"filter item, exact", false, 3, KSPROPERTY_TYPE_GET, {}, 4, STATUS_SUCCESS, 4},
        {"filter item, larger", false, 3, KSPROPERTY_TYPE_GET, {}, 16, STATUS_SUCCESS, 4},
        {"filter item, set not offered", false, 3, KSPROPERTY_TYPE_SET, {}, 4, STATUS_INVALID_DEVICE_REQUEST, 0},
        {"filter item, basic support by the miniport", false, 3, KSPROPERTY_TYPE_BASICSUPPORT, {}, 4,
         STATUS_SUCCESS, 4},
        {"node item, get", false, 1, KSPROPERTY_TYPE_GET, 0, 4, STATUS_SUCCESS, 4},
        {"node item, basic support left to the framework", false, 2, KSPROPERTY_TYPE_BASICSUPPORT, 0, 4,
         STATUS_SUCCESS, 4},
        {"node item, framework basic support size query", false, 2, KSPROPERTY_TYPE_BASICSUPPORT, 0, 0,
         STATUS_BUFFER_OVERFLOW, 4},
        {"node that does not exist", false, 1, KSPROPERTY_TYPE_GET, 5, 4, STATUS_NOT_FOUND, 0},
        {"node item asked of the filter", false, 1, KSPROPERTY_TYPE_GET, {}, 4, STATUS_NOT_FOUND, 0},
        {"unknown id", false, 9, KSPROPERTY_TYPE_GET, {}, 4, STATUS_NOT_FOUND, 0},
        {"two verbs at once", false, 3, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET, {}, 4, STATUS_INVALID_PARAMETER,
         0},
        {"pin item", true, 4, KSPROPERTY_TYPE_GET, {}, 4, STATUS_SUCCESS, 4},
        {"node item through a pin", true, 1, KSPROPERTY_TYPE_GET, 0, 4, STATUS_SUCCESS, 4},
    };
    for (const Row &row : rows) {
        ULONG value = 0x55555555;
        std::vector<uint8_t> buffer(row.valueSize, 0xEE);
        if (row.verb == KSPROPERTY_TYPE_SET) {
            value = 40;
            memcpy(buffer.data(), &value, sizeof(value));
        }
        ULONG instance = 0xA1B2C3D4;
        hk::IoResult r = row.onPin ? pin->property(kTestSet, row.id, row.verb, buffer.data(), row.valueSize,
                                                   &instance, sizeof(instance), row.node)
                                   : filter->property(kTestSet, row.id, row.verb, buffer.data(), row.valueSize,
                                                      &instance, sizeof(instance), row.node);
        EXPECT_EQ(r.status, row.status) << row.what;
        EXPECT_EQ(r.information, row.information) << row.what;
        if (r.status != STATUS_SUCCESS || row.verb == KSPROPERTY_TYPE_SET) {
            continue;
        }
        memcpy(&value, buffer.data(), sizeof(value));
        SeenRequest seen = lastRequest();
        if (row.verb == KSPROPERTY_TYPE_GET) {
            EXPECT_EQ(value, 40 + row.id) << row.what << ": the value the SET stored, plus the id";
            EXPECT_EQ(seen.valueSize, row.valueSize) << row.what;
            EXPECT_EQ(seen.instance, Bytes({0xD4, 0xC3, 0xB2, 0xA1})) << row.what;
            EXPECT_EQ(seen.major, static_cast<PUNKNOWN>(static_cast<IMiniportDMus *>(miniport))) << row.what;
            EXPECT_EQ(seen.minor, row.onPin ? render : nullptr) << row.what;
            EXPECT_EQ(seen.node, row.node.value_or(ULONG(-1))) << row.what;
            EXPECT_EQ(seen.irql, PASSIVE_LEVEL) << row.what;
        } else {
            ULONG expected = row.id == 2 ? KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_BASICSUPPORT
                                         : 0x8000 | KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_BASICSUPPORT;
            EXPECT_EQ(value, expected) << row.what;
        }
    }
    // A header shorter than a KSPROPERTY never reaches anyone.
    ULONG shortHeader[4] = {};
    ULONG out = 0;
    EXPECT_EQ(filter->process()
                  .deviceControl(filter->handle(), IOCTL_KS_PROPERTY, shortHeader, sizeof(shortHeader), &out, 4)
                  .status,
              STATUS_INVALID_BUFFER_SIZE);
}

TEST_F(PortclsTest, FrameworkPinPropertiesAnswerSizeQueriesAndRefuseBadPins)
{
    publish(u"sub0", u"Piano");
    auto filter = openFilter(process(10), u"Piano");
    auto pin = openPin(*filter, kRenderPin);
    ULONG instance[2] = {kRenderPin, 0};
    KSPIN_CINSTANCES c{};
    EXPECT_EQ(filter->property(KSPROPSETID_Pin, KSPROPERTY_PIN_CINSTANCES, KSPROPERTY_TYPE_GET, &c, 0, instance,
                               sizeof(instance))
                  .information,
              sizeof(c));
    ASSERT_EQ(filter->property(KSPROPSETID_Pin, KSPROPERTY_PIN_GLOBALCINSTANCES, KSPROPERTY_TYPE_GET, &c, sizeof(c),
                               instance, sizeof(instance))
                  .status,
              STATUS_SUCCESS);
    EXPECT_EQ(c.PossibleCount, 3u);
    EXPECT_EQ(c.CurrentCount, 1u);
    instance[0] = 3;
    EXPECT_EQ(filter->property(KSPROPSETID_Pin, KSPROPERTY_PIN_DATAFLOW, KSPROPERTY_TYPE_GET, &c, 4, instance,
                               sizeof(instance))
                  .status,
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(filter->property(KSPROPSETID_Pin, KSPROPERTY_PIN_DATAFLOW, KSPROPERTY_TYPE_GET, &c, 4).status,
              STATUS_INVALID_BUFFER_SIZE)
        << "no KSP_PIN";
    std::vector<uint8_t> topology(64);
    hk::IoResult r = filter->property(KSPROPSETID_Topology, KSPROPERTY_TOPOLOGY_CONNECTIONS, KSPROPERTY_TYPE_GET,
                                      topology.data(), ULONG(topology.size()));
    ASSERT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(r.information, sizeof(KSMULTIPLE_ITEM) + 2 * sizeof(KSTOPOLOGY_CONNECTION));
    KSDATAFORMAT format{};
    ASSERT_EQ(pin->property(KSPROPSETID_Connection, KSPROPERTY_CONNECTION_DATAFORMAT, KSPROPERTY_TYPE_GET, &format,
                            sizeof(format))
                  .status,
              STATUS_SUCCESS);
    EXPECT_EQ(format.SubFormat, KSDATAFORMAT_SUBTYPE_MIDI);
}

// ------------------------------------------------------------------ render
TEST_F(PortclsTest, RenderBytesArriveInOrderAtDispatchLevelAsEventsFromTheAllocator)
{
    TestMiniport *miniport = publish(u"sub0", u"Piano");
    auto filter = openFilter(process(10), u"Piano");
    auto pin = openPin(*filter, kRenderPin);
    EXPECT_EQ(pin->send(Bytes{0x90, 0x3C, 0x40}), STATUS_INVALID_DEVICE_STATE) << "a stopped pin takes nothing";
    ASSERT_EQ(pin->setState(KSSTATE_RUN), STATUS_SUCCESS);

    Bytes sysex(500);
    sysex.front() = 0xF0;
    sysex.back() = 0xF7;
    for (size_t i = 1; i + 1 < sysex.size(); i++) {
        sysex[i] = uint8_t(i & 0x7F);
    }
    ASSERT_EQ(pin->send(std::vector<Bytes>{{0x90, 0x3C, 0x40}, {0xB0, 0x07, 0x64, 0xC0, 0x05}, {0xF8}}),
              STATUS_SUCCESS);
    ASSERT_EQ(pin->send(sysex), STATUS_SUCCESS);
    ASSERT_EQ(pin->send(Bytes{0x80, 0x3C, 0x00}, 5), STATUS_SUCCESS);

    Bytes expected = {0x90, 0x3C, 0x40, 0xB0, 0x07, 0x64, 0xC0, 0x05, 0xF8};
    expected.insert(expected.end(), sysex.begin(), sysex.end());
    expected.insert(expected.end(), {0x80, 0x3C, 0x00});
    std::lock_guard<std::mutex> lock(miniport->mutex);
    EXPECT_EQ(miniport->rendered, expected);
    EXPECT_EQ(miniport->packageEvents, 1u) << "500 bytes need more than one 240-byte buffer";
    for (KIRQL irql : miniport->renderIrqls) {
        EXPECT_EQ(irql, DISPATCH_LEVEL);
    }
    EXPECT_EQ(hk::portclsStats().outstandingEvents, 0u);
}

TEST_F(PortclsTest, MalformedOrUnaffordableRenderWritesDeliverNothing)
{
    TestMiniport *miniport = publish(u"sub0", u"Piano");
    auto filter = openFilter(process(10), u"Piano");
    auto pin = openPin(*filter, kRenderPin);
    ASSERT_EQ(pin->setState(KSSTATE_RUN), STATUS_SUCCESS);

    // A record that claims more bytes than the buffer holds.
    uint8_t data[12] = {0, 0, 0, 0, 9, 0, 0, 0, 0x90, 0x3C, 0x40, 0};
    KSSTREAM_HEADER header{};
    header.Size = sizeof(header);
    header.DataUsed = header.FrameExtent = sizeof(data);
    header.Data = data;
    EXPECT_EQ(filter->process()
                  .deviceControl(pin->handle(), IOCTL_KS_WRITE_STREAM, nullptr, 0, &header, sizeof(header))
                  .status,
              STATUS_INVALID_PARAMETER);
    header.Size = 8;
    EXPECT_EQ(filter->process()
                  .deviceControl(pin->handle(), IOCTL_KS_WRITE_STREAM, nullptr, 0, &header, sizeof(header))
                  .status,
              STATUS_INVALID_PARAMETER);
    // The allocator runs dry half-way through a long message.
    hk::setDmusEventLimit(2);
    EXPECT_EQ(pin->send(Bytes(600, 0x11)), STATUS_INSUFFICIENT_RESOURCES);
    hk::setDmusEventLimit(0);
    std::lock_guard<std::mutex> lock(miniport->mutex);
    EXPECT_TRUE(miniport->rendered.empty());
    EXPECT_EQ(hk::portclsStats().outstandingEvents, 0u);
    EXPECT_EQ(hk::portclsStats().outstandingBuffers, 0u);
}

// ------------------------------------------------------------------ capture
TEST_F(PortclsTest, CaptureArrivesAfterNotifyAndByThePeriodicService)
{
    TestMiniport *miniport = publish(u"sub0", u"Piano");
    auto filter = openFilter(process(10), u"Piano");
    auto pin = openPin(*filter, kCapturePin);
    TestStream *stream = miniport->streams(true).at(0);
    std::vector<Message> got;

    // Not running: nothing is asked of the stream, the read times out.
    stream->inject({0x90, 0x40, 0x7F});
    EXPECT_EQ(pin->receive(&got, std::chrono::milliseconds(30)), STATUS_TIMEOUT);

    ASSERT_EQ(pin->setState(KSSTATE_RUN), STATUS_SUCCESS);
    long services = miniport->serviceCalls;
    miniport->port()->Notify(miniport->group());
    ASSERT_EQ(pin->receive(&got, std::chrono::seconds(10)), STATUS_SUCCESS);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].bytes, Bytes({0x90, 0x40, 0x7F}));
    EXPECT_GT(got[0].time, 0);
    EXPECT_TRUE(eventually([&] { return miniport->serviceCalls > services; })) << "Notify services the miniport";

    // Without a notification the millisecond service picks it up.
    stream->inject({0xF0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0xF7});
    ASSERT_EQ(pin->receive(&got, std::chrono::seconds(10)), STATUS_SUCCESS);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].bytes, Bytes({0xF0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0xF7}));
    EXPECT_EQ(hk::portclsStats().outstandingEvents, 0u) << "the sink gives every event back";
}

TEST_F(PortclsTest, CaptureRecordsLongerThanTheReadBufferAreSplitNotLost)
{
    TestMiniport *miniport = publish(u"sub0", u"Piano");
    auto filter = openFilter(process(10), u"Piano");
    auto pin = openPin(*filter, kCapturePin);
    ASSERT_EQ(pin->setState(KSSTATE_RUN), STATUS_SUCCESS);
    Bytes message;
    for (uint8_t i = 0; i < 30; i++) {
        message.push_back(i);
    }
    miniport->streams(true).at(0)->inject(message);
    miniport->streams(true).at(0)->inject({0xFE});
    Bytes joined;
    std::vector<Message> got;
    while (joined.size() < message.size() + 1) {
        ASSERT_EQ(pin->receive(&got, std::chrono::seconds(10), 20), STATUS_SUCCESS);
        for (const Message &m : got) {
            EXPECT_LE(m.bytes.size(), 12u);
            joined.insert(joined.end(), m.bytes.begin(), m.bytes.end());
        }
    }
    message.push_back(0xFE);
    EXPECT_EQ(joined, message);
    EXPECT_EQ(pin->receive(&got, std::chrono::milliseconds(0), 8), STATUS_BUFFER_TOO_SMALL);
}

TEST_F(PortclsTest, ClosingAPinWithAParkedReadCancelsIt)
{
    publish(u"sub0", u"Piano");
    auto filter = openFilter(process(10), u"Piano");
    auto pin = openPin(*filter, kCapturePin);
    ASSERT_EQ(pin->setState(KSSTATE_RUN), STATUS_SUCCESS);
    KSSTREAM_HEADER header{};
    std::vector<uint8_t> data(64);
    header.Size = sizeof(header);
    header.FrameExtent = 64;
    header.Data = data.data();
    NTSTATUS status = STATUS_PENDING;
    std::thread reader([&] {
        status = filter->process()
                     .deviceControl(pin->handle(), IOCTL_KS_READ_STREAM, nullptr, 0, &header, sizeof(header))
                     .status;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    pin->close();
    reader.join();
    EXPECT_EQ(status, STATUS_CANCELLED);
}

// ------------------------------------------------------------------ verifier
using PortclsDeathTest = PortclsTest;

TEST_F(PortclsDeathTest, ReferencesPastTheLastOneAreReported)
{
    auto deadGroup = [] {
        PSERVICEGROUP group = NULL;
        PcNewServiceGroup(&group, NULL);
        group->Release();
        return group;
    };
    EXPECT_DEATH(deadGroup()->Release(),
                 "ObjectDoubleRelease: Release of a framework object whose last reference is gone \\(ServiceGroup\\)");
    EXPECT_DEATH(deadGroup()->AddRef(), "ObjectDoubleRelease: AddRef on a released framework object \\(ServiceGroup\\)");
    // The release that finds the count gone is rarely the faulty one; a
    // port's report shows the steps before it, with their threads and callers.
    EXPECT_DEATH(
        {
            PPORT port = NULL;
            PcNewPort(&port, CLSID_PortDMus);
            port->AddRef();
            port->Release();
            port->Release();
            port->Release();
        },
        "\\(DMus port\\); its last reference steps, oldest first:.*AddRef -> 1 on thread.*AddRef -> 2 on thread"
        ".*Release -> 1.*Release -> 0.*Release -> -1");
}

TEST_F(PortclsDeathTest, AMiniportWithoutCOMIdentityIsRefusedAtInit)
{
    using Identity = TestMiniport::Identity;
    EXPECT_DEATH(publish(u"Refuses", u"Refuses", Identity::RefuseUnknown),
                 "ComIdentity: the driver's miniport refuses IID_IUnknown through its first interface "
                 "\\(status C000000D\\)");
    EXPECT_DEATH(publish(u"Two", u"Two", Identity::TwoUnknowns),
                 "ComIdentity: the driver's miniport answers IID_IUnknown with two different pointers");
}

TEST_F(PortclsDeathTest, AFrameworkObjectNeverReleasedIsALeak)
{
    EXPECT_DEATH(
        {
            PPORT port = NULL;
            PcNewPort(&port, CLSID_PortDMus);
            hk::verifyPortclsQuiescent();
        },
        "DMus port");
}

} // namespace pctest
