// The whole driver through its real dispatch path, as applications and MIDI
// clients reach it: an application's port found and played by clients, the
// application's reads and writes, the owner's process-id query with real
// pins, and the write path under pool failure.
#include "adapter_fixture.h"

#include <algorithm>

namespace adaptertest {
namespace {

using namespace std::chrono_literals;

class EndToEnd : public BootedDriver {
protected:
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
    auto capture = runningPin(*recorderFilter, KSPIN_DATAFLOW_OUT);
    ASSERT_TRUE(render && capture);

    // Each application write reaches the recorder as one time-stamped
    // message, in order.
    LONGLONG lastTime = 0;
    for (const Bytes &note : {Bytes{0x90, 0x40, 0x50}, Bytes{0x80, 0x40, 0x00}}) {
        ASSERT_EQ(app.write(h, note.data(), 3).status, STATUS_SUCCESS);
        std::vector<midi::Message> got;
        ASSERT_EQ(capture->receive(&got, 10s), STATUS_SUCCESS);
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].bytes, note);
        EXPECT_GT(got[0].time, 0);
        EXPECT_GE(got[0].time, lastTime);
        lastTime = got[0].time;
    }

    // What the player sends comes out of one read as whole messages.
    ASSERT_EQ(render->send(std::vector<Bytes>{{0x80, 0x3C, 0x00}, {0xC0, 0x05}}), STATUS_SUCCESS);
    std::uint8_t buffer[16] = {};
    hk::IoResult read = app.read(h, buffer, sizeof(buffer));
    ASSERT_EQ(read.status, STATUS_SUCCESS);
    EXPECT_EQ(Bytes(buffer, buffer + read.information), (Bytes{0x80, 0x3C, 0x00, 0xC0, 0x05}));

    // The owner sees both clients' processes, in the order their pins came.
    std::vector<std::uint64_t> ids;
    EXPECT_EQ(queryIds(app, h, 128, &ids).status, STATUS_SUCCESS);
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
            pins.push_back(runningPin(*filters.back(), p.flow));
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
        auto p = runningPin(*filterA, KSPIN_DATAFLOW_OUT, &status);
        if (p) {
            pinsA.push_back(std::move(p));
        }
    }
    ASSERT_FALSE(NT_SUCCESS(status));
    ASSERT_GT(pinsA.size(), 0u);
    hk::LogCapture log;
    auto renderB = runningPin(*filterB, KSPIN_DATAFLOW_IN);
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
    auto captureB = runningPin(*filterB, KSPIN_DATAFLOW_OUT);
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
