// The whole driver through its real dispatch path, as applications and MIDI
// clients reach it: an application's port found, played and recorded by
// clients, the identity and pin names clients see, the application's parked
// reads, the owner's process-id query with real pins, pin limits, and the
// write path under pool failure.
#include "adapter_fixture.h"
#include "published.h"

#include <algorithm>

#include "miniport/amminiport.h"

namespace adaptertest {
namespace {

using namespace std::chrono_literals;

class EndToEnd : public BootedDriver {
protected:
    // The application, process 100, opens a port; the handle is port_.
    hk::Process &openApp(std::u16string_view suffix = u"\\Piano")
    {
        hk::Process &app = process(100);
        port_ = openPort(app, suffix);
        EXPECT_NE(port_, 0u);
        return app;
    }

    // The owner's query; the ids the reply carries.
    hk::IoResult queryIds(hk::Process &owner, ULONG outputLength, std::vector<std::uint64_t> *ids,
                          hk::Handle handle = 0)
    {
        std::vector<std::uint64_t> reply(outputLength / 8 + 1, 0);
        hk::IoResult r = owner.deviceControl(handle ? handle : port_, kProcessIdsCode, nullptr, 0, reply.data(),
                                             outputLength);
        ids->assign(reply.begin(), reply.begin() + std::min<size_t>(r.information / 8, reply.size()));
        return r;
    }
    std::vector<std::uint64_t> ids(hk::Process &owner, hk::Handle handle = 0)
    {
        std::vector<std::uint64_t> ids;
        EXPECT_EQ(queryIds(owner, 128, &ids, handle).status, STATUS_SUCCESS);
        return ids;
    }

    Bytes readNow(hk::Process &app, ULONG length)
    {
        Bytes buffer(length);
        hk::IoResult r = app.read(port_, buffer.data(), length);
        EXPECT_EQ(r.status, STATUS_SUCCESS);
        buffer.resize(std::min<size_t>(r.information, length));
        return buffer;
    }

    hk::Handle port_ = 0;
};

TEST_F(EndToEnd, ApplicationAndClientsMeetThroughThePort)
{
    hk::Process &app = openApp(u"\\Piano\\65536");
    ASSERT_NE(port_, 0u);

    // A client finds "Piano" among the MIDI devices with both directions.
    auto port = midi::findPort(u"Piano");
    ASSERT_TRUE(port.has_value());
    EXPECT_TRUE(port->render && port->capture);
    auto playerFilter = filterOf(process(200), u"Piano");
    auto recorderFilter = filterOf(process(300), u"Piano");
    ASSERT_TRUE(playerFilter && recorderFilter);
    SYNTHCAPS caps{};
    ASSERT_EQ(playerFilter->synthCaps(0, &caps), STATUS_SUCCESS);
    EXPECT_EQ(narrow(reinterpret_cast<const char16_t *>(caps.Description)), "Ambrel Out: Piano");
    auto render = runningPin(*playerFilter, KSPIN_DATAFLOW_IN);
    std::unique_ptr<midi::Pin> recorders[] = {runningPin(*recorderFilter, KSPIN_DATAFLOW_OUT),
                                              runningPin(*playerFilter, KSPIN_DATAFLOW_OUT)};
    ASSERT_TRUE(render && recorders[0] && recorders[1]);

    // Each application write, a System Exclusive message longer than one of
    // the framework's buffers too, reaches every recorder as one
    // time-stamped message, in order.
    Bytes sysex(300, 0x11);
    sysex.front() = 0xF0;
    sysex.back() = 0xF7;
    LONGLONG lastTime[2] = {0, 0};
    for (const Bytes &w : {Bytes{0x90, 0x40, 0x50}, sysex, Bytes{0x80, 0x40, 0x00}}) {
        ASSERT_EQ(app.write(port_, w.data(), ULONG(w.size())).status, STATUS_SUCCESS);
        for (int i = 0; i < 2; i++) {
            std::vector<midi::Message> got;
            ASSERT_EQ(recorders[i]->receive(&got, 10s), STATUS_SUCCESS);
            ASSERT_EQ(got.size(), 1u);
            EXPECT_EQ(got[0].bytes, w);
            EXPECT_GT(got[0].time, 0);
            EXPECT_GE(got[0].time, lastTime[i]);
            lastTime[i] = got[0].time;
        }
    }

    // What the player sends comes out of one read as whole messages: running
    // status written out, a clock byte that cut a message put before it.
    ASSERT_EQ(render->send({{0xB0, 0x07, 0x64}, {0x08, 0x10}, {0xC0, 0xF8, 0x05}}), STATUS_SUCCESS);
    EXPECT_EQ(readNow(app, 16), (Bytes{0xB0, 0x07, 0x64, 0xB0, 0x08, 0x10, 0xF8, 0xC0, 0x05}));

    // Closing the handle withdraws the port, though clients still hold it.
    ASSERT_EQ(app.close(port_), STATUS_SUCCESS);
    EXPECT_FALSE(midi::findPort(u"Piano").has_value());
    for (midi::Pin *pin : {render.get(), recorders[0].get(), recorders[1].get()}) {
        EXPECT_EQ(pin->close(), STATUS_SUCCESS);
    }
}

TEST_F(EndToEnd, IdentityAndPinNamesOutliveTheApplicationsHandle)
{
    hk::Process &app = openApp(u"\\Piano\\8176\\{11111111-2222-3333-0102-030405060708}");
    ASSERT_NE(port_, 0u);
    auto filter = filterOf(process(200), u"Piano");
    ASSERT_TRUE(filter);
    KSCOMPONENTID id;
    ASSERT_EQ(filter->componentId(&id), STATUS_SUCCESS);
    EXPECT_EQ(id.Manufacturer.Data1, 0x11111111u);
    EXPECT_EQ(id.Product, published::DefaultProduct); // not given

    // Every pin is named after the port, with the size query and short
    // buffers answered as the framework's rules say; all of it stays once
    // the application has closed its handle.
    const ULONG bridge[2] = {2, 0};
    struct Row {
        ULONG length;
        NTSTATUS status;
        ULONG_PTR information;
    } rows[] = {{0, STATUS_BUFFER_OVERFLOW, 12}, {11, STATUS_BUFFER_TOO_SMALL, 0}, {12, STATUS_SUCCESS, 12},
                {40, STATUS_SUCCESS, 12}};
    for (bool closed : {false, true}) {
        if (closed) {
            ASSERT_EQ(app.close(port_), STATUS_SUCCESS);
        }
        for (ULONG pin = 0; pin < 5; pin++) {
            std::u16string name;
            EXPECT_EQ(filter->pinName(pin, &name), STATUS_SUCCESS);
            EXPECT_EQ(name, u"Piano") << pin << (closed ? " closed" : "");
        }
        // The synthesizer caps name the port only while the application has it.
        SYNTHCAPS caps;
        ASSERT_EQ(filter->synthCaps(1, &caps), STATUS_SUCCESS);
        EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(caps.Description)),
                  closed ? u"Ambrel In" : u"Ambrel In: Piano");
        for (const Row &row : rows) {
            SCOPED_TRACE(testing::Message() << row.length << (closed ? " closed" : ""));
            Bytes out(64, 0xCC);
            hk::IoResult r = filter->property(KSPROPSETID_Pin, KSPROPERTY_PIN_NAME, KSPROPERTY_TYPE_GET, out.data(),
                                              row.length, bridge, sizeof(bridge));
            EXPECT_EQ(r.status, row.status);
            EXPECT_EQ(r.information, row.information);
            if (row.status == STATUS_SUCCESS) {
                EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(out.data())), u"Piano");
                EXPECT_EQ(Bytes(out.begin() + 12, out.begin() + row.length), Bytes(row.length - 12, 0));
            }
        }
    }
}

// A port's device path names its slot ("ambrel0"), and the next port takes
// a freed slot: a path found for one name and opened after that port closed
// reaches the port in its slot now. The pin name says which one it is.
TEST_F(EndToEnd, APathOutlivingItsPortReachesTheSlotsNextPort)
{
    hk::Process &app = process(100);
    hk::Handle first = openPort(app, u"\\Piano");
    auto piano = midi::findPort(u"Piano");
    ASSERT_TRUE(piano.has_value());
    ASSERT_EQ(app.close(first), STATUS_SUCCESS);
    hk::Handle second = openPort(app, u"\\Organ");
    ASSERT_NE(second, 0u);
    ASSERT_FALSE(midi::findPort(u"Piano").has_value());

    std::unique_ptr<midi::Filter> filter;
    ASSERT_EQ(midi::Filter::open(process(200), piano->path, &filter), STATUS_SUCCESS);
    std::u16string name;
    ASSERT_EQ(filter->pinName(0, &name), STATUS_SUCCESS);
    EXPECT_EQ(name, u"Organ");
    filter.reset();
    EXPECT_EQ(app.close(second), STATUS_SUCCESS);
}

TEST_F(EndToEnd, ParkedReadTakesWhatFitsAndIsLeftToItsCanceller)
{
    hk::Process &app = openApp(u"\\Piano\\8176");
    ASSERT_NE(port_, 0u);
    auto filter = filterOf(process(200), u"Piano");
    ASSERT_TRUE(filter);
    auto pin = runningPin(*filter, 0);
    ASSERT_TRUE(pin);

    // The port's SysEx size is the one the open named: a longer SysEx is lost.
    auto lost = Bytes(9000, 0x11);
    lost.front() = 0xF0;
    lost.back() = 0xF7;
    ASSERT_EQ(pin->send(lost), STATUS_SUCCESS);
    ASSERT_EQ(pin->send(Bytes{0x90, 0x3C, 0x00}), STATUS_SUCCESS);
    EXPECT_EQ(readNow(app, 16), (Bytes{0x90, 0x3C, 0x00}));

    // A 2-byte parked read gets the first two bytes; the third stays. Bytes
    // that complete no message leave it parked.
    auto shortRead = app.readAsync(port_, 2);
    ASSERT_EQ(pin->send(Bytes{0x90}), STATUS_SUCCESS);
    EXPECT_FALSE(shortRead->wait(20ms));
    ASSERT_EQ(pin->send({0x3C, 0x40}), STATUS_SUCCESS);
    ASSERT_TRUE(shortRead->wait(10s));
    EXPECT_EQ(shortRead->information(), 2u);
    EXPECT_EQ(Bytes(shortRead->output().begin(), shortRead->output().begin() + 2), (Bytes{0x90, 0x3C}));
    EXPECT_EQ(shortRead->result().priorityBoost, IO_SOUND_INCREMENT);
    EXPECT_EQ(readNow(app, 16), (Bytes{0x40}));

    // A read that finds data takes what fits at once, boosted.
    ASSERT_EQ(pin->send({0x90, 0x3D, 0x41}), STATUS_SUCCESS);
    UCHAR two[2];
    hk::IoResult now = app.read(port_, two, sizeof(two));
    EXPECT_EQ(now.status, STATUS_SUCCESS);
    EXPECT_EQ(now.information, 2u);
    EXPECT_EQ(now.priorityBoost, IO_SOUND_INCREMENT);
    EXPECT_EQ(Bytes(two, two + 2), (Bytes{0x90, 0x3D}));
    EXPECT_EQ(readNow(app, 16), (Bytes{0x41}));
}

TEST_F(EndToEnd, ParkedReadIsLeftToItsCancellerAndEndedByRemoval)
{
    // Windows cannot stop a canceller between its two steps nor flag a
    // removal without doing it: the test does both by hand.
    AMBREL_HOST_BUILD_ONLY("holds a cancel routine and sets the removal flag by hand");
    hk::Process &app = openApp(u"\\Piano\\8176");
    ASSERT_NE(port_, 0u);
    auto filter = filterOf(process(200), u"Piano");
    ASSERT_TRUE(filter);
    auto pin = runningPin(*filter, 0);
    ASSERT_TRUE(pin);

    // A read whose canceller has taken its routine but not yet its slot is
    // left alone: the data stays for the next read.
    auto read = app.readAsync(port_, 16);
    ASSERT_FALSE(read->wait(10ms));
    PIRP irp = read->irp();
    ASSERT_NE(IoSetCancelRoutine(irp, NULL), nullptr);
    ASSERT_EQ(pin->send({0xC0, 0x05}), STATUS_SUCCESS);
    EXPECT_FALSE(read->done());
    CMiniportAmbrel *m = AmPortOfFile(app.fileObject(port_))->Miniport;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&m->m_Lock);
    EXPECT_EQ(m->m_Fifo.m_PendingReadIrp, irp);
    m->m_Fifo.m_PendingReadIrp = NULL;
    KeReleaseSpinLock(&m->m_Lock, irql);
    irp->IoStatus.Status = STATUS_CANCELLED;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    ASSERT_TRUE(read->wait(10s));
    EXPECT_EQ(readNow(app, 16), (Bytes{0xC0, 0x05}));

    // Once removal has begun the parked read is finished without data.
    auto last = app.readAsync(port_, 16);
    InterlockedExchange(&controlDeviceRemoved, 1);
    ASSERT_EQ(pin->send({0x80, 0x3C, 0x00}), STATUS_SUCCESS);
    InterlockedExchange(&controlDeviceRemoved, 0);
    ASSERT_TRUE(last->wait(10s));
    EXPECT_EQ(last->status(), STATUS_SERVER_DISABLED);
    EXPECT_EQ(last->information(), 0u);
}

// Which client process opens a pin of which direction, in order.
struct PinOpen {
    std::uint64_t process;
    KSPIN_DATAFLOW flow;
};

struct QueryCase {
    const char *name;
    std::vector<PinOpen> pins;
    std::vector<size_t> closed; // indexes into pins closed before the query
    ULONG outputLength;
    NTSTATUS status;
    std::vector<std::uint64_t> ids;
};

TEST_F(EndToEnd, ProcessIdQueryRows)
{
    const KSPIN_DATAFLOW in = KSPIN_DATAFLOW_IN, out = KSPIN_DATAFLOW_OUT;
    const QueryCase cases[] = {
        {"no pin", {}, {}, 128, STATUS_SUCCESS, {}},
        {"no pin, 8 bytes", {}, {}, 8, STATUS_SUCCESS, {}},
        {"no pin, no buffer", {}, {}, 0, STATUS_MORE_PROCESSING_REQUIRED, {}},
        {"one pin, 8 bytes", {{200, in}}, {}, 8, STATUS_MORE_PROCESSING_REQUIRED, {200}},
        {"one pin, 16 bytes", {{200, in}}, {}, 16, STATUS_SUCCESS, {200}},
        {"one process, two pins", {{200, in}, {200, out}}, {}, 128, STATUS_SUCCESS, {200}},
        {"two processes in slot order", {{300, out}, {200, in}}, {}, 128, STATUS_SUCCESS, {300, 200}},
        {"two processes, 16 bytes", {{300, out}, {200, in}}, {}, 16, STATUS_MORE_PROCESSING_REQUIRED, {300, 200}},
        {"closed pin leaves", {{200, in}, {300, out}}, {0}, 128, STATUS_SUCCESS, {300}},
        {"other pin keeps it", {{200, in}, {200, out}}, {0}, 128, STATUS_SUCCESS, {200}},
    };
    for (const QueryCase &c : cases) {
        SCOPED_TRACE(c.name);
        hk::Process &app = openApp();
        ASSERT_NE(port_, 0u);
        std::vector<std::unique_ptr<hk::Process>> clients;
        std::vector<std::unique_ptr<midi::Filter>> filters;
        std::vector<std::unique_ptr<midi::Pin>> pins;
        for (const PinOpen &p : c.pins) {
            auto owner = std::find_if(clients.begin(), clients.end(),
                                      [&](const auto &client) { return client->id() == p.process; });
            if (owner == clients.end()) {
                clients.push_back(std::make_unique<hk::Process>(p.process));
                owner = clients.end() - 1;
            }
            filters.push_back(filterOf(**owner, u"Piano"));
            ASSERT_TRUE(filters.back());
            pins.push_back(runningPin(*filters.back(), p.flow));
            ASSERT_TRUE(pins.back());
        }
        for (size_t i : c.closed) {
            ASSERT_EQ(pins[i]->close(), STATUS_SUCCESS);
        }
        std::vector<std::uint64_t> ids;
        hk::IoResult r = queryIds(app, c.outputLength, &ids);
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.information, 8 * c.ids.size());
        if (NT_SUCCESS(r.status)) {
            EXPECT_EQ(ids, c.ids); // an error status copies nothing back
        }
        pins.clear();
        filters.clear();
        clients.clear();
        ASSERT_EQ(app.close(port_), STATUS_SUCCESS);
        processes_.clear();
        hk::drainIo();
    }
}

// A pin belongs to the port whose reference string is the filter path's
// whole last component, in whatever case the client wrote the path:
// "ambrel1" does not take the pins of "ambrel10".
TEST_F(EndToEnd, PinsBelongToThePortNamedByTheWholeLastComponent)
{
    hk::Process &app = process(100);
    std::vector<hk::Handle> owners;
    for (int n = 0; n <= 10; n++) {
        owners.push_back(openPort(app, u"\\P" + std::u16string(1, char16_t(u'a' + n))));
        ASSERT_NE(owners.back(), 0u) << n;
    }
    auto port = midi::findPort(u"Pk"); // slot 10, "ambrel10"
    ASSERT_TRUE(port.has_value());
    std::u16string upper = port->path;
    for (char16_t &c : upper) {
        c = (c >= u'a' && c <= u'z') ? char16_t(c - u'a' + u'A') : c;
    }
    std::unique_ptr<midi::Filter> lower, shouted;
    ASSERT_EQ(midi::Filter::open(process(200), port->path, &lower), STATUS_SUCCESS);
    ASSERT_EQ(midi::Filter::open(process(300), upper, &shouted), STATUS_SUCCESS);
    hk::LogCapture log;
    auto a = runningPin(*lower, KSPIN_DATAFLOW_IN);
    auto b = runningPin(*shouted, KSPIN_DATAFLOW_IN);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(log.count("found entry: 10"), 2u);
    EXPECT_EQ(ids(app, owners[10]), (std::vector<std::uint64_t>{200, 300}));
    EXPECT_TRUE(ids(app, owners[1]).empty());
}

TEST_F(EndToEnd, PinLimitsAndTheRegistryOfRefusedAndClosedPins)
{
    hk::Process &app = openApp();
    ASSERT_NE(port_, 0u);
    auto filterA = filterOf(process(200), u"Piano");
    auto filterB = filterOf(process(300), u"Piano");
    ASSERT_TRUE(filterA && filterB);

    // Process 200 opens capture pins until the port refuses one: the ninth.
    // The refused pin passed through the registry on its way to the framework
    // and must have left it again: the next pin takes the slot it had.
    std::vector<std::unique_ptr<midi::Pin>> pinsA;
    NTSTATUS status = STATUS_SUCCESS;
    while (NT_SUCCESS(status) && pinsA.size() < 32) {
        auto p = runningPin(*filterA, KSPIN_DATAFLOW_OUT, &status);
        if (p) {
            pinsA.push_back(std::move(p));
        }
    }
    ASSERT_FALSE(NT_SUCCESS(status));
    ASSERT_EQ(pinsA.size(), 8u);
    hk::LogCapture log;
    auto renderB = runningPin(*filterB, KSPIN_DATAFLOW_IN);
    ASSERT_TRUE(renderB);
    EXPECT_TRUE(log.contains("am_add_process_id (\\ambrel0) found empty slot: 8"));
    EXPECT_EQ(ids(app), (std::vector<std::uint64_t>{200, 300}));

    // Closing 300's only pin takes it out of the reply. A capture pin opened
    // after a close of one of 200's takes that pin's slot, the lowest free
    // one, and its place among the eight, and it gets the application's data.
    ASSERT_EQ(renderB->close(), STATUS_SUCCESS);
    EXPECT_EQ(ids(app), (std::vector<std::uint64_t>{200}));
    ASSERT_EQ(pinsA[1]->close(), STATUS_SUCCESS);
    log.clear();
    auto captureB = runningPin(*filterB, KSPIN_DATAFLOW_OUT);
    ASSERT_TRUE(captureB);
    EXPECT_TRUE(log.contains("am_add_process_id (\\ambrel0) found empty slot: 1"));
    EXPECT_EQ(ids(app), (std::vector<std::uint64_t>{200, 300}));
    // A write over the limit is refused before any of it reaches a recorder.
    const Bytes tooLong(524289, 0xF8);
    EXPECT_EQ(app.write(port_, tooLong.data(), ULONG(tooLong.size())).status, STATUS_TOO_MANY_COMMANDS);
    const Bytes note = {0x80, 0x3C, 0x00};
    ASSERT_EQ(app.write(port_, note.data(), 3).status, STATUS_SUCCESS);
    std::vector<midi::Message> messages;
    ASSERT_EQ(captureB->receive(&messages, 10s), STATUS_SUCCESS);
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages[0].bytes, note);

    // Eight legacy render pins at most; they take process slots 8 to 15.
    std::vector<std::unique_ptr<midi::Pin>> render;
    log.clear();
    for (int i = 0; i < 8; i++) {
        render.push_back(runningPin(*filterA, 0));
        ASSERT_TRUE(render.back()) << i;
    }
    EXPECT_TRUE(log.contains("am_add_process_id (\\ambrel0) found empty slot: 15"));
    EXPECT_FALSE(runningPin(*filterA, 0, &status));
    EXPECT_FALSE(NT_SUCCESS(status));

    // A 17th pin (DirectMusic render, process 400) opens but goes unrecorded
    // until a pin closes and frees its slot.
    auto filterC = filterOf(process(400), u"Piano");
    ASSERT_TRUE(filterC);
    std::unique_ptr<midi::Pin> dmusic, dmusicAgain;
    log.clear();
    ASSERT_EQ(midi::Pin::open(*filterC, 1, KSDATAFORMAT_SUBTYPE_DIRECTMUSIC, &dmusic), STATUS_SUCCESS);
    EXPECT_TRUE(log.contains("am_add_process_id (\\ambrel0) found entry: 0"));
    EXPECT_FALSE(log.contains("found empty slot"));
    EXPECT_EQ(ids(app), (std::vector<std::uint64_t>{200, 300}));
    ASSERT_EQ(render[0]->close(), STATUS_SUCCESS);
    log.clear();
    ASSERT_EQ(midi::Pin::open(*filterC, 1, KSDATAFORMAT_SUBTYPE_DIRECTMUSIC, &dmusicAgain), STATUS_SUCCESS);
    EXPECT_TRUE(log.contains("am_add_process_id (\\ambrel0) found empty slot: 8"));
    EXPECT_EQ(ids(app), (std::vector<std::uint64_t>{200, 300, 400}));
}

TEST_F(EndToEnd, WriteFailsCleanlyAtEveryAllocation)
{
    hk::Process &app = openApp();
    ASSERT_NE(port_, 0u);
    auto filter = filterOf(process(200), u"Piano");
    ASSERT_TRUE(filter);
    // Two recording clients: each write is copied once per capture stream.
    auto first = runningPin(*filter, KSPIN_DATAFLOW_OUT);
    auto second = runningPin(*filter, KSPIN_DATAFLOW_OUT);
    ASSERT_TRUE(first && second);
    hk::drainIo();
    const size_t baseline = hk::poolLiveAllocations();

    const Bytes note = {0x90, 0x3C, 0x40};
    size_t refused = 0, delivered = 0;
    for (std::uint64_t skip = 0; skip < 64; skip++) {
        SCOPED_TRACE("allocation " + std::to_string(skip));
        const std::uint64_t before = hk::poolAllocationAttempts();
        hk::failNextPoolAllocations(skip, 1);
        hk::LogCapture log;
        hk::IoResult r = app.write(port_, note.data(), 3);
        const bool injected = hk::poolAllocationAttempts() - before > skip;
        hk::clearPoolFaults();

        EXPECT_EQ(r.information, 0u);
        EXPECT_EQ(r.priorityBoost, IO_SOUND_INCREMENT);
        if (r.status == STATUS_SUCCESS) {
            delivered++;
        } else {
            refused++;
            EXPECT_EQ(r.status, STATUS_BUFFER_TOO_SMALL);
            EXPECT_TRUE(log.contains(
                "am_private_dispatch_write ----- could not allocate buffer for 3 bytes of midi-data"));
        }
        // Whatever got through reaches the clients; nothing stays allocated.
        for (midi::Pin *p : {first.get(), second.get()}) {
            std::vector<midi::Message> messages;
            while (p->receive(&messages, 50ms) == STATUS_SUCCESS) {
                for (const midi::Message &m : messages) {
                    EXPECT_EQ(m.bytes, note);
                }
            }
        }
        hk::drainIo();
        EXPECT_EQ(hk::poolLiveAllocations(), baseline);
        if (!injected) {
            EXPECT_EQ(r.status, STATUS_SUCCESS);
            break;
        }
    }
    EXPECT_GT(refused, 0u);
    EXPECT_GT(delivered, 0u);
}

} // namespace
} // namespace adaptertest
