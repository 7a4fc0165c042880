// Many threads at the control device at once: opens and closes with colliding
// names, reads that park, get cancelled or are finished by cleanup, writes,
// process-id queries, and the adapter's removal arriving in the middle. Every
// request must complete exactly once (the verifier reports a second
// completion or one never made), nothing may leak, nothing may deadlock.
#include "adapter_fixture.h"

#include <hostkernel/midiclient.h>

#include <atomic>
#include <random>
#include <thread>

namespace adaptertest {
namespace {

using Stress = DriverFixture;

// What one worker does until told to stop; returns the statuses it saw that
// no row of the control device's tables allows.
std::vector<std::string> churn(hk::Process &app, unsigned seed, const std::atomic<bool> &stop, bool removalExpected)
{
    std::vector<std::string> unexpected;
    std::mt19937 random(seed);
    const char16_t *names[] = {u"\\A", u"\\B", u"\\C", u"\\D"};
    auto allowed = [&](NTSTATUS s, std::initializer_list<NTSTATUS> ok) {
        for (NTSTATUS o : ok) {
            if (s == o) {
                return true;
            }
        }
        return removalExpected && s == STATUS_DELETE_PENDING;
    };
    auto note = [&](const char *what, NTSTATUS s) {
        char text[64];
        snprintf(text, sizeof(text), "%s: %08x", what, (unsigned)s);
        unexpected.push_back(text);
    };

    while (!stop.load()) {
        hk::Handle h = 0;
        NTSTATUS s = app.open(portPath(names[random() % 4]), kReadWrite, &h);
        if (!NT_SUCCESS(s)) {
            // Colliding names, a full table, or a link already gone.
            if (!allowed(s, {STATUS_ALIAS_EXISTS, STATUS_TOO_MANY_SESSIONS, STATUS_OBJECT_NAME_NOT_FOUND,
                             STATUS_OBJECT_PATH_NOT_FOUND, STATUS_NO_SUCH_DEVICE})) {
                note("open", s);
            }
            std::this_thread::yield();
            continue;
        }
        for (int step = 0; step < 8; step++) {
            switch (random() % 4) {
            case 0: {
                auto read = app.readAsync(h, 1 + random() % 16);
                if (random() % 2) {
                    read->cancel();
                }
                if (read->wait(std::chrono::milliseconds(2))) {
                    if (!allowed(read->status(), {STATUS_CANCELLED, STATUS_DEVICE_BUSY, STATUS_SUCCESS})) {
                        note("read", read->status());
                    }
                }
                // Left outstanding otherwise: cleanup or removal finishes it.
                break;
            }
            case 1: {
                const UCHAR bytes[3] = {0x90, UCHAR(random() % 128), 64};
                NTSTATUS w = app.write(h, bytes, 3).status;
                if (!allowed(w, {STATUS_SUCCESS})) {
                    note("write", w);
                }
                break;
            }
            case 2: {
                UCHAR ids[128];
                NTSTATUS c = app.deviceControl(h, IOCTL_AMBREL_PROCESS_IDS, nullptr, 0, ids, sizeof(ids)).status;
                if (!allowed(c, {STATUS_SUCCESS})) {
                    note("ioctl", c);
                }
                break;
            }
            default:
                app.cancelIo(h);
                break;
            }
        }
        app.close(h);
    }
    return unexpected;
}

// A MIDI client that keeps finding the ports, opening a filter and a pin on
// one, playing or recording a little, and closing again, while the ports come
// and go under it. Returns how many pins it managed to open.
size_t clientChurn(hk::Process &client, unsigned seed, const std::atomic<bool> &stop)
{
    namespace midi = hostkernel::midi;
    const GUID kMidi = {0x1D262760, 0xE957, 0x11CF, {0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00}};
    std::mt19937 random(seed);
    size_t pins = 0;
    while (!stop.load()) {
        auto port = midi::findPort(std::u16string(1, char16_t(u'A' + random() % 4)));
        std::unique_ptr<midi::Filter> filter;
        if (!port || midi::Filter::open(client, port->path, &filter) != STATUS_SUCCESS) {
            std::this_thread::yield();
            continue;
        }
        bool capture = random() % 2;
        auto id = filter->findPin(capture ? KSPIN_DATAFLOW_OUT : KSPIN_DATAFLOW_IN, kMidi);
        std::unique_ptr<midi::Pin> pin;
        if (id && midi::Pin::open(*filter, *id, kMidi, &pin) == STATUS_SUCCESS) {
            pins++;
            if (pin->setState(KSSTATE_RUN) == STATUS_SUCCESS) {
                if (capture) {
                    std::vector<midi::Message> messages;
                    pin->receive(&messages, std::chrono::milliseconds(2));
                } else {
                    pin->send({0x90, UCHAR(random() % 128), 64});
                }
            }
            pin->close();
        }
        filter->close();
    }
    return pins;
}

TEST_F(Stress, OpensClosesReadsWritesAndCancelsFromManyThreads)
{
    hk::registry::setDword(configurationKey(), u"MaxPorts", 3);
    boot();
    ASSERT_FALSE(HasFatalFailure());
    const size_t poolBefore = hk::poolLiveAllocations();

    std::atomic<bool> stop{false};
    std::vector<std::vector<std::string>> results(4);
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; t++) {
        hk::Process &app = process(100 + t);
        threads.emplace_back([&, t, appPtr = &app] { results[t] = churn(*appPtr, t + 1, stop, false); });
    }
    // Two clients of their own processes play to and record from the ports
    // meanwhile; their pin opens pass the process-id registry.
    std::atomic<size_t> clientPins{0};
    for (unsigned c = 0; c < 2; c++) {
        hk::Process &client = process(200 + c);
        threads.emplace_back([&, c, clientPtr = &client] { clientPins += clientChurn(*clientPtr, 7 + c, stop); });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    stop = true;
    for (auto &t : threads) {
        t.join();
    }
    for (auto &r : results) {
        EXPECT_TRUE(r.empty()) << r.front();
    }
    EXPECT_GT(clientPins.load(), 0u);
    processes_.clear();
    hk::drainIo();
    // Every port was withdrawn and freed with its handle.
    EXPECT_EQ(hk::poolLiveAllocations(), poolBefore);
    for (const char16_t *n : {u"A", u"B", u"C", u"D"}) {
        EXPECT_TRUE(interfacesNamed(kCategoryAudio, n).empty());
    }
}

TEST_F(Stress, RemovalArrivesWhileThreadsAreBusy)
{
    hk::registry::setDword(configurationKey(), u"MaxPorts", 3);
    boot();
    ASSERT_FALSE(HasFatalFailure());

    std::atomic<bool> stop{false};
    std::vector<std::vector<std::string>> results(4);
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; t++) {
        hk::Process &app = process(100 + t);
        threads.emplace_back([&, t, appPtr = &app] { results[t] = churn(*appPtr, 40 + t, stop, true); });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(node_->remove(), STATUS_SUCCESS);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    stop = true;
    for (auto &t : threads) {
        t.join();
    }
    for (auto &r : results) {
        EXPECT_TRUE(r.empty()) << r.front();
    }
    EXPECT_FALSE(hk::symbolicLinkTarget(kControlLink).has_value());
    processes_.clear();
    hk::drainIo();
    for (const char16_t *n : {u"A", u"B", u"C", u"D"}) {
        EXPECT_TRUE(interfacesNamed(kCategoryAudio, n).empty());
    }
}

} // namespace
} // namespace adaptertest
