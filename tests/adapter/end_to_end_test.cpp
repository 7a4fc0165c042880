// The whole driver through its real dispatch path, as applications and MIDI
// clients reach it: an application's port found and played by clients, the
// application's reads and writes, the owner's process-id query with real
// pins, and the write path under pool failure.
#include "adapter_fixture.h"

#include <hostkernel/midiclient.h>

#include <algorithm>

namespace adaptertest {
namespace {

namespace midi = hostkernel::midi;
using Bytes = std::vector<std::uint8_t>;
using namespace std::chrono_literals;

const GUID kMidi = {0x1D262760, 0xE957, 0x11CF, {0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00}};

class EndToEnd : public DriverFixture {
protected:
    void SetUp() override { boot(); }

    // A filter on the published port `name`, opened by `client`.
    std::unique_ptr<midi::Filter> filterOf(hk::Process &client, std::u16string_view name)
    {
        std::unique_ptr<midi::Filter> filter;
        auto port = midi::findPort(name);
        EXPECT_TRUE(port.has_value()) << narrow(name);
        if (port) {
            EXPECT_EQ(midi::Filter::open(client, port->path, &filter), STATUS_SUCCESS);
        }
        return filter;
    }

    // A running pin of that direction, or null with the creation's status.
    std::unique_ptr<midi::Pin> pin(midi::Filter &filter, KSPIN_DATAFLOW flow, NTSTATUS *status = nullptr)
    {
        std::unique_ptr<midi::Pin> p;
        auto id = filter.findPin(flow, kMidi);
        NTSTATUS s = id ? midi::Pin::open(filter, *id, kMidi, &p) : STATUS_NOT_FOUND;
        if (status != nullptr) {
            *status = s;
        }
        if (NT_SUCCESS(s)) {
            EXPECT_EQ(p->setState(KSSTATE_RUN), STATUS_SUCCESS);
        }
        return p;
    }

    // The owner's query; the ids the reply carries.
    hk::IoResult queryIds(hk::Process &owner, hk::Handle h, ULONG outputLength, std::vector<std::uint64_t> *ids)
    {
        std::vector<std::uint64_t> reply(outputLength / 8 + 1, 0);
        hk::IoResult r = owner.deviceControl(h, IOCTL_AMBREL_PROCESS_IDS, nullptr, 0, reply.data(), outputLength);
        ids->assign(reply.begin(), reply.begin() + std::min<size_t>(r.information / 8, reply.size()));
        return r;
    }
};

TEST_F(EndToEnd, ApplicationAndClientsMeetThroughThePort)
{
    hk::Process &app = process(100);
    hk::Handle h = openPort(app, u"\\Piano\\65536");
    ASSERT_NE(h, 0u);

    // A client finds "Piano" among the MIDI devices and reads what it offers.
    auto port = midi::findPort(u"Piano");
    ASSERT_TRUE(port.has_value());
    EXPECT_TRUE(port->render && port->capture);
    hk::Process &player = process(200);
    hk::Process &recorder = process(300);
    auto playerFilter = filterOf(player, u"Piano");
    auto recorderFilter = filterOf(recorder, u"Piano");
    ASSERT_TRUE(playerFilter && recorderFilter);
    ULONG pins = 0;
    ASSERT_EQ(playerFilter->pinCount(&pins), STATUS_SUCCESS);
    ASSERT_GT(pins, 0u);
    for (ULONG id = 0; id < pins; id++) {
        std::u16string name;
        EXPECT_EQ(playerFilter->pinName(id, &name), STATUS_SUCCESS);
        EXPECT_EQ(narrow(name), "Piano") << id;
    }
    SYNTHCAPS caps{};
    ASSERT_EQ(playerFilter->synthCaps(1, &caps), STATUS_SUCCESS);
    EXPECT_EQ(narrow(reinterpret_cast<const char16_t *>(caps.Description)), "Ambrel In: Piano");

    // A read parked before the client plays completes with its note.
    auto parked = app.readAsync(h, 16);
    EXPECT_FALSE(parked->wait(20ms));
    auto render = pin(*playerFilter, KSPIN_DATAFLOW_IN);
    auto capture = pin(*recorderFilter, KSPIN_DATAFLOW_OUT);
    ASSERT_TRUE(render && capture);
    ASSERT_EQ(render->send({0x90, 0x3C, 0x64}), STATUS_SUCCESS);
    ASSERT_TRUE(parked->wait(10s));
    EXPECT_EQ(parked->status(), STATUS_SUCCESS);
    ASSERT_EQ(parked->information(), 3u);
    EXPECT_EQ(Bytes(parked->output().begin(), parked->output().begin() + 3), (Bytes{0x90, 0x3C, 0x64}));
    EXPECT_EQ(parked->result().priorityBoost, IO_SOUND_INCREMENT);

    // The application's write reaches the recorder, time-stamped, in order.
    const Bytes first = {0x90, 0x40, 0x50}, second = {0x80, 0x40, 0x00};
    ASSERT_EQ(app.write(h, first.data(), 3).status, STATUS_SUCCESS);
    ASSERT_EQ(app.write(h, second.data(), 3).status, STATUS_SUCCESS);
    // Events may carry the bytes in pieces; the stream is what counts.
    Bytes heard;
    std::vector<LONGLONG> times;
    while (heard.size() < 6) {
        std::vector<midi::Message> batch;
        ASSERT_EQ(capture->receive(&batch, 10s), STATUS_SUCCESS);
        for (const midi::Message &m : batch) {
            heard.insert(heard.end(), m.bytes.begin(), m.bytes.end());
            times.push_back(m.time);
        }
    }
    EXPECT_EQ(heard, (Bytes{0x90, 0x40, 0x50, 0x80, 0x40, 0x00}));
    EXPECT_GT(times.front(), 0);
    EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));

    // The owner sees both clients' processes, in the order their pins came.
    std::vector<std::uint64_t> ids;
    hk::IoResult q = queryIds(app, h, 128, &ids);
    EXPECT_EQ(q.status, STATUS_SUCCESS);
    EXPECT_EQ(ids, (std::vector<std::uint64_t>{200, 300}));

    // Closing the handle withdraws the port, though clients still hold it.
    ASSERT_EQ(app.close(h), STATUS_SUCCESS);
    EXPECT_FALSE(midi::findPort(u"Piano").has_value());
    EXPECT_EQ(render->close(), STATUS_SUCCESS);
    EXPECT_EQ(capture->close(), STATUS_SUCCESS);
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
        hk::Process &app = process(100);
        hk::Handle h = openPort(app, u"\\Piano");
        ASSERT_NE(h, 0u);
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
            pins.push_back(pin(*filters.back(), p.flow));
            ASSERT_TRUE(pins.back());
        }
        for (size_t i : c.closed) {
            ASSERT_EQ(pins[i]->close(), STATUS_SUCCESS);
        }
        std::vector<std::uint64_t> ids;
        hk::IoResult r = queryIds(app, h, c.outputLength, &ids);
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.information, 8 * c.ids.size());
        if (NT_SUCCESS(r.status)) {
            EXPECT_EQ(ids, c.ids); // an error status copies nothing back
        }
        pins.clear();
        filters.clear();
        clients.clear();
        ASSERT_EQ(app.close(h), STATUS_SUCCESS);
        processes_.clear();
        hk::drainIo();
    }
}

TEST_F(EndToEnd, RefusedPinsLeaveNoEntryAndFreedSlotsAreReused)
{
    hk::Process &app = process(100);
    hk::Handle h = openPort(app, u"\\Piano");
    ASSERT_NE(h, 0u);
    hk::Process &a = process(200);
    hk::Process &b = process(300);
    auto filterA = filterOf(a, u"Piano");
    auto filterB = filterOf(b, u"Piano");
    ASSERT_TRUE(filterA && filterB);

    // Process 200 opens capture pins until the port refuses one. The refused
    // pin passed through the registry on its way to the framework and must
    // have left it again: the next pin takes the slot it had.
    std::vector<std::unique_ptr<midi::Pin>> pinsA;
    NTSTATUS status = STATUS_SUCCESS;
    while (NT_SUCCESS(status) && pinsA.size() < 32) {
        auto p = pin(*filterA, KSPIN_DATAFLOW_OUT, &status);
        if (p) {
            pinsA.push_back(std::move(p));
        }
    }
    ASSERT_FALSE(NT_SUCCESS(status));
    ASSERT_GT(pinsA.size(), 0u);
    hk::LogCapture log;
    auto renderB = pin(*filterB, KSPIN_DATAFLOW_IN);
    ASSERT_TRUE(renderB);
    EXPECT_TRUE(log.contains("am_add_process_id (\\ambrel0) found empty slot: " + std::to_string(pinsA.size())));

    std::vector<std::uint64_t> ids;
    EXPECT_EQ(queryIds(app, h, 128, &ids).status, STATUS_SUCCESS);
    EXPECT_EQ(ids, (std::vector<std::uint64_t>{200, 300}));

    // Closing 300's only pin takes it out of the reply; a pin opened after a
    // close of one of 200's takes that pin's slot, the lowest free one.
    ASSERT_EQ(renderB->close(), STATUS_SUCCESS);
    EXPECT_EQ(queryIds(app, h, 128, &ids).status, STATUS_SUCCESS);
    EXPECT_EQ(ids, (std::vector<std::uint64_t>{200}));
    ASSERT_EQ(pinsA[1]->close(), STATUS_SUCCESS);
    log.clear();
    auto captureB = pin(*filterB, KSPIN_DATAFLOW_OUT);
    ASSERT_TRUE(captureB);
    EXPECT_TRUE(log.contains("am_add_process_id (\\ambrel0) found empty slot: 1"));
    EXPECT_EQ(queryIds(app, h, 128, &ids).status, STATUS_SUCCESS);
    EXPECT_EQ(ids, (std::vector<std::uint64_t>{200, 300}));
}

TEST_F(EndToEnd, WriteFailsCleanlyAtEveryAllocation)
{
    hk::Process &app = process(100);
    hk::Handle h = openPort(app, u"\\Piano");
    ASSERT_NE(h, 0u);
    hk::Process &client = process(200);
    auto filter = filterOf(client, u"Piano");
    ASSERT_TRUE(filter);
    // Two recording clients: each write is copied once per capture stream.
    auto first = pin(*filter, KSPIN_DATAFLOW_OUT);
    auto second = pin(*filter, KSPIN_DATAFLOW_OUT);
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
        hk::IoResult r = app.write(h, note.data(), 3);
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
