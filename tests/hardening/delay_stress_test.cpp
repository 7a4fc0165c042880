// Stress under injected synchronization delays: whole boots in which owners
// open and close ports, read (parked, cancelled, finished by cleanup), write
// and query, clients open pins and play and record, an echo pair checks that
// every message arrives whole and in order, and every other round pulls the
// adapter (surprise removal) in the middle of it all. The host kernel pauses
// at random at spin-lock acquire and release, IRP completion and DPC
// delivery, so the windows between them are wide open. The verifier stops the process on the
// first broken rule; statuses outside the tables and torn or reordered data
// fail the round.
//
// Time budget: AMBREL_STRESS_SECONDS (default 6; scripts/soak.sh sets hours),
// seed: AMBREL_STRESS_SEED (default 1; each round adds its number).
#include "scenario.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <thread>

#include <hostkernel/delay.h>

namespace hardening {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using hk::DelayPoint;
using hk::kDelayPointCount;

unsigned long envNumber(const char *name, unsigned long fallback)
{
    const char *text = std::getenv(name);
    return text != nullptr && *text != '\0' ? std::strtoul(text, nullptr, 10) : fallback;
}

class Findings {
public:
    void add(const std::string &what)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (list_.size() < 20) {
            list_.push_back(what);
        }
        count_++;
    }
    size_t count() const { return count_; }
    std::vector<std::string> list() const
    {
        std::lock_guard<std::mutex> guard(mutex_);
        return list_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> list_;
    std::atomic<size_t> count_{0};
};

bool oneOf(NTSTATUS s, std::initializer_list<NTSTATUS> ok)
{
    for (NTSTATUS o : ok) {
        if (s == o) {
            return true;
        }
    }
    return false;
}

std::string hex(NTSTATUS s)
{
    char text[16];
    std::snprintf(text, sizeof(text), "%08x", unsigned(s));
    return text;
}

struct Round {
    std::atomic<bool> stop{false};
    std::atomic<bool> stopClients{false};
    std::atomic<bool> removed{false};
    Findings findings;
    std::atomic<size_t> requests{0};
    std::atomic<size_t> echoed{0};
    std::atomic<bool> echoPublished{false};

    // After the removal began, a control request may be refused or find the
    // link gone.
    bool allowed(NTSTATUS s, std::initializer_list<NTSTATUS> ok) const
    {
        return oneOf(s, ok) || (removed.load() && oneOf(s, {STATUS_DELETE_PENDING, STATUS_OBJECT_NAME_NOT_FOUND,
                                                             STATUS_INVALID_DEVICE_REQUEST, STATUS_NO_SUCH_DEVICE}));
    }
    void check(const char *what, NTSTATUS s, std::initializer_list<NTSTATUS> ok)
    {
        requests++;
        if (!allowed(s, ok)) {
            findings.add(std::string(what) + ": " + hex(s));
        }
    }
};

void owner(Round &r, hk::Process &app, unsigned seed)
{
    std::mt19937 random(seed);
    const char16_t *names[] = {u"\\A", u"\\B", u"\\C"};
    while (!r.stop.load()) {
        hk::Handle h = 0;
        NTSTATUS s = app.open(u"\\DosDevices\\Ambrel" + std::u16string(names[random() % 3]), kReadWrite, &h);
        r.check("open", s,
                {STATUS_SUCCESS, STATUS_ALIAS_EXISTS, STATUS_TOO_MANY_SESSIONS, STATUS_OBJECT_PATH_NOT_FOUND});
        if (!NT_SUCCESS(s)) {
            std::this_thread::yield();
            continue;
        }
        for (int step = 0; step < 6 && !r.stop.load(); step++) {
            switch (random() % 4) {
            case 0: {
                auto read = app.readAsync(h, 1 + random() % 64);
                if (random() % 2) {
                    read->cancel();
                }
                if (read->wait(1ms)) {
                    r.check("read", read->status(), {STATUS_SUCCESS, STATUS_CANCELLED, STATUS_DEVICE_BUSY});
                }
                break;
            }
            case 1: {
                const UCHAR bytes[3] = {0x90, UCHAR(random() % 128), 64};
                r.check("write", app.write(h, bytes, 3).status, {STATUS_SUCCESS});
                break;
            }
            case 2: {
                UCHAR ids[128];
                r.check("ioctl", app.deviceControl(h, IOCTL_AMBREL_PROCESS_IDS, nullptr, 0, ids, sizeof(ids)).status,
                        {STATUS_SUCCESS});
                break;
            }
            default:
                app.cancelIo(h);
                break;
            }
        }
        app.close(h);
    }
}

void client(Round &r, hk::Process &process, unsigned seed)
{
    std::mt19937 random(seed);
    while (!r.stopClients.load()) {
        auto port = midi::findPort(std::u16string(1, char16_t(u'A' + random() % 3)));
        std::unique_ptr<midi::Filter> filter;
        if (!port || midi::Filter::open(process, port->path, &filter) != STATUS_SUCCESS) {
            std::this_thread::yield();
            continue;
        }
        bool capture = random() % 2;
        auto id = filter->findPin(capture ? KSPIN_DATAFLOW_OUT : KSPIN_DATAFLOW_IN, kMidiSubFormat);
        std::unique_ptr<midi::Pin> pin;
        if (id && midi::Pin::open(*filter, *id, kMidiSubFormat, &pin) == STATUS_SUCCESS &&
            pin->setState(KSSTATE_RUN) == STATUS_SUCCESS) {
            for (int i = 0; i < 4; i++) {
                if (capture) {
                    std::vector<midi::Message> messages;
                    pin->receive(&messages, 1ms);
                    for (const midi::Message &m : messages) {
                        if (m.bytes.size() != 3 || m.bytes[0] != 0x90) {
                            r.findings.add("a recorder heard a torn message of " + std::to_string(m.bytes.size()) +
                                           " bytes");
                        }
                    }
                } else {
                    pin->send({0x90, UCHAR(random() % 128), 64});
                }
            }
        }
        pin.reset();
        filter.reset();
    }
}

// The echo pair: a player sends numbered notes to "Echo" and its owner reads
// them back in random-sized reads; every byte must come in order.
//
// Echo is published before anyone else starts. A port's device path names
// its slot, and a slot freed by one port is reused by the next: a client
// that looked up "A" and opened the path after A closed reaches whichever
// port holds the slot now. That is how names and paths work (a program must
// check what it opened), and the other ports' clients tolerate it; a slot
// nobody held before Echo keeps their notes out of the echo.
void echo(Round &r, hk::Process &app, hk::Process &player, unsigned seed)
{
    std::mt19937 random(seed);
    hk::Handle h = 0;
    NTSTATUS opened = app.open(u"\\DosDevices\\Ambrel\\Echo", kReadWrite, &h);
    r.echoPublished = true;
    if (opened != STATUS_SUCCESS) {
        r.findings.add("the echo port did not open");
        return;
    }
    auto port = midi::findPort(u"Echo");
    std::unique_ptr<midi::Filter> filter;
    std::unique_ptr<midi::Pin> pin;
    auto id = port && midi::Filter::open(player, port->path, &filter) == STATUS_SUCCESS
                  ? filter->findPin(KSPIN_DATAFLOW_IN, kMidiSubFormat)
                  : std::nullopt;
    if (!id || midi::Pin::open(*filter, *id, kMidiSubFormat, &pin) != STATUS_SUCCESS ||
        pin->setState(KSSTATE_RUN) != STATUS_SUCCESS) {
        r.findings.add("the echo pin did not open");
        app.close(h);
        return;
    }
    UCHAR sent = 0, expected = 0;
    Bytes pending;
    while (!r.stopClients.load()) {
        if (pin->send({0x90, UCHAR(sent & 0x7F), 1}) == STATUS_SUCCESS) {
            sent++;
        }
        auto read = app.readAsync(h, 3 * (1 + random() % 4));
        if (!read->wait(20ms)) {
            read->cancel();
            read->wait();
        }
        if (read->status() == STATUS_SUCCESS) {
            pending.insert(pending.end(), read->output().begin(), read->output().begin() + read->information());
        } else if (!r.allowed(read->status(), {STATUS_CANCELLED})) {
            r.findings.add("echo read: " + hex(read->status()));
        }
        while (pending.size() >= 3) {
            if (pending[0] != 0x90 || pending[1] != (expected & 0x7F) || pending[2] != 1) {
                r.findings.add("echo out of order: expected 144 " + std::to_string(expected & 0x7F) + " 1, got " +
                               std::to_string(pending[0]) + " " + std::to_string(pending[1]) + " " +
                               std::to_string(pending[2]));
                r.stopClients = true;
                break;
            }
            pending.erase(pending.begin(), pending.begin() + 3);
            expected++;
            r.echoed++;
        }
    }
    pin.reset();
    filter.reset();
    app.close(h);
}

TEST(DelayStress, WholeDriverUnderInjectedDelays)
{
    const auto budget = std::chrono::seconds(envNumber("AMBREL_STRESS_SECONDS", 6));
    const unsigned long seed = envNumber("AMBREL_STRESS_SEED", 1);
    // Chance of a pause per visit of a point, in thousandths.
    const unsigned long delayPerMille = envNumber("AMBREL_STRESS_DELAY", 20);
    const auto end = Clock::now() + budget;
    size_t rounds = 0, requests = 0, echoed = 0, faults = 0, heldRemovals = 0;
    uint64_t pauses[kDelayPointCount] = {};

    for (; rounds == 0 || Clock::now() < end; rounds++) {
        SCOPED_TRACE("round " + std::to_string(rounds) + ", seed " + std::to_string(seed + rounds));
        hk::registry::setDword(hk::serviceKeyPath(u"ambrel") + u"\\Configuration", u"MaxPorts", 4);
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        PDRIVER_OBJECT driver = ambrelhost::loadAmbrel(u"ambrel", ambreltest::driverImage(), &status);
        ASSERT_NE(driver, nullptr) << std::hex << status;
        auto node = hk::addRootDevice(driver);
        ASSERT_EQ(node->addDeviceStatus(), STATUS_SUCCESS);
        ASSERT_EQ(node->start(), STATUS_SUCCESS);

        Round r;
        const bool removeMidway = rounds % 2 == 1;
        {
            std::vector<std::unique_ptr<hk::Process>> processes;
            for (std::uint64_t id : {100, 101, 102, 200, 201, 300, 301}) {
                processes.push_back(std::make_unique<hk::Process>(id));
            }
            hk::DelayInjectionScope delays({seed + rounds, delayPerMille / 1000.0, 150});
            std::vector<std::thread> owners, clients;
            clients.emplace_back([&] { echo(r, *processes[5], *processes[6], unsigned(seed + rounds)); });
            for (auto wait = Clock::now() + 10s; !r.echoPublished.load() && Clock::now() < wait;) {
                std::this_thread::sleep_for(1ms);
            }
            owners.emplace_back([&] { owner(r, *processes[0], unsigned(seed + rounds) * 3 + 0); });
            owners.emplace_back([&] { owner(r, *processes[1], unsigned(seed + rounds) * 3 + 1); });
            clients.emplace_back([&] { client(r, *processes[3], unsigned(seed + rounds) * 5 + 0); });
            clients.emplace_back([&] { client(r, *processes[4], unsigned(seed + rounds) * 5 + 1); });
            std::this_thread::sleep_for(300ms);
            // The echo pair must have made progress before anyone leaves. On a
            // loaded machine (sanitizers, a soak at low priority) opening its
            // pin alone can take longer than the pause above; ten seconds
            // without a single note is a hang.
            for (auto wait = Clock::now() + 10s; r.echoed.load() == 0 && Clock::now() < wait;) {
                std::this_thread::sleep_for(5ms);
            }
            // The adapter is pulled while clients play and record: the
            // surprise removal goes ahead at once, clients keep their pins
            // and get no new ones, and the removal itself (the ports'
            // withdrawal under the owners' requests) comes with whichever
            // client closes the stack's last pin or filter.
            if (removeMidway) {
                r.removed = true;
                NTSTATUS s = node->surpriseRemove();
                EXPECT_TRUE(oneOf(s, {STATUS_PENDING, STATUS_SUCCESS})) << hex(s);
                heldRemovals += s == STATUS_PENDING;
            }
            std::this_thread::sleep_for(100ms);
            r.stopClients = true;
            r.stop = true;
            for (auto *group : {&owners, &clients}) {
                for (auto &t : *group) {
                    if (t.joinable()) {
                        t.join();
                    }
                }
            }
            for (int p = 0; p < kDelayPointCount; p++) {
                pauses[p] += hk::DelayInjection::pauses(DelayPoint(p));
            }
            processes.clear(); // process exit closes what is left
        }
        hk::drainIo();
        if (removeMidway) {
            EXPECT_TRUE(node->removed()) << "the last close on the stack did not remove the adapter";
        } else {
            EXPECT_EQ(node->remove(), STATUS_SUCCESS);
        }
        node.reset();
        hk::drainIo();
        EXPECT_EQ(hk::unloadDriver(driver), STATUS_SUCCESS);
        hk::drainIo();
        EXPECT_EQ(hk::poolLiveAllocations(), 0u)
            << "AmbR " << hk::poolStats(hk::tag("AmbR")).liveAllocations << ", AmbP "
            << hk::poolStats(hk::tag("AmbP")).liveAllocations << ", PcNw "
            << hk::poolStats(hk::tag("PcNw")).liveAllocations;
        EXPECT_EQ(hk::registry::openHandleCount(), 0u);

        requests += r.requests;
        echoed += r.echoed;
        faults += r.findings.count();
        for (const std::string &f : r.findings.list()) {
            ADD_FAILURE() << f;
        }
        // The echo pair must have made progress, or the delays hid a hang.
        EXPECT_GT(r.echoed.load(), 0u);
        hk::resetIoState();
        if (HasFailure()) {
            break;
        }
    }
    std::printf("[ stress   ] %zu rounds (%zu removals held by open pins), %zu control requests, %zu notes echoed "
                "in order, %zu faults; pauses: acquire %llu, release %llu, completion %llu, DPC %llu\n",
                rounds, heldRemovals, requests, echoed, faults, (unsigned long long)pauses[0],
                (unsigned long long)pauses[1], (unsigned long long)pauses[2], (unsigned long long)pauses[3]);
    // The echo pair's pin is open at every pull, so a removal round that
    // found the stack free would mean the clients were not there.
    EXPECT_EQ(heldRemovals, rounds / 2);
    EXPECT_GT(pauses[int(DelayPoint::SpinLockAcquire)], 0u);
    EXPECT_GT(pauses[int(DelayPoint::IrpCompletion)], 0u);
}

} // namespace
} // namespace hardening
