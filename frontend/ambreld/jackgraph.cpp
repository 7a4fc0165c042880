// The JACK backend of the MIDI graph. Three kinds of thread meet here:
//  - JACK's process thread (process()): never blocks, locks or allocates;
//    it moves events between the JACK ports' buffers and one ring per
//    direction and port (jack_ringbuffer: one reader, one writer, no lock);
//  - the supervisor: attaches to a server, follows it going away, adds and
//    removes ports (JACK ports, pins, rings);
//  - the render worker (every port's "NAME in" side) and one capture
//    reader per port ("NAME out" side), which talk to the driver.
// The process thread finds the ports through a snapshot that only the
// supervisor replaces; a replaced snapshot (and the ports only it named) is
// freed once the process thread is seen outside its callback.
#include "midigraph.h"

#include <jack/jack.h>
#include <jack/metadata.h>
#include <jack/midiport.h>
#include <jack/ringbuffer.h>
#include <semaphore.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include <hostkernel/midiclient.h>

#include "midi/midi.h"
#include "pins.h"
#include "status_errno.h"
#include "text.h"

namespace ambreld {

namespace hk = hostkernel;

std::string jackPortName(const std::string &name, const std::string &suffix, std::size_t limit,
                         const std::set<std::string> &taken)
{
    std::string clean;
    for (unsigned char c : name) {
        clean.push_back(c == ':' || c < 0x20 || c == 0x7F ? '_' : char(c));
    }
    // Cut so that `extra` more bytes fit, never inside a UTF-8 sequence.
    auto cut = [&](std::size_t extra) {
        std::size_t room = limit > extra ? limit - extra : 0;
        std::string s = clean.substr(0, std::min(room, clean.size()));
        while (!s.empty() && s.size() < clean.size() && (static_cast<unsigned char>(clean[s.size()]) & 0xC0) == 0x80) {
            s.pop_back();
        }
        return s;
    };
    std::string candidate = cut(suffix.size()) + suffix;
    for (unsigned n = 2; taken.count(candidate) != 0; ++n) {
        std::string mark = "~" + std::to_string(n);
        candidate = cut(suffix.size() + mark.size()) + mark + suffix;
    }
    return candidate;
}

std::uint32_t captureOffset(std::uint32_t eventFrame, std::uint32_t periodStart, std::uint32_t frames,
                            std::uint32_t floor)
{
    // Signed distance on the wrapping frame clock.
    std::int64_t offset = std::int64_t(std::int32_t(eventFrame + frames - periodStart));
    if (offset >= std::int64_t(frames)) {
        return frames;
    }
    return std::uint32_t(std::max<std::int64_t>(offset, floor));
}

namespace {

using Clock = std::chrono::steady_clock;

// One event in a ring: its JACK frame time, then its bytes.
struct EventHeader {
    std::uint32_t frame;
    std::uint32_t size;
};

constexpr std::size_t kRingBytes = 1u << 18;
constexpr std::size_t kJackPortNameSize = 256;
// Render messages the worker holds for one port's FIFO before it stops
// taking from the ring (which then fills, and the process thread counts).
constexpr std::size_t kPendingBytes = 1u << 20;
constexpr ULONG kCaptureReadBytes = 64 * 1024;
constexpr std::size_t kLargestMessage = 1048560;
// A capture reader waits this long for JACK to take what it has before it
// counts the event lost (a server that runs no cycles).
constexpr std::chrono::seconds kJackPatience{1};

std::int64_t steadyMicros()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch()).count();
}

// JACK's own messages (a server going away prints several) are for
// --verbose; ambreld says what matters in its own words.
std::atomic<bool> gJackVerbose{false};

void jackError(const char *text)
{
    if (gJackVerbose.load()) {
        std::fprintf(stderr, "ambreld: JACK: %s\n", text);
    }
}

// What went wrong with a port's events, kept across JACK restarts.
struct Losses {
    std::atomic<std::uint64_t> ringFull{0};   // played into "in" while its ring was full
    std::atomic<std::uint64_t> malformed{0};  // played into "in", not MIDI the port carries
    std::atomic<std::uint64_t> closed{0};     // played into "in", the port gone before they went
    std::atomic<std::uint64_t> tooLarge{0};   // written by the owner, larger than a JACK MIDI buffer
    std::atomic<std::uint64_t> stalled{0};    // written by the owner, JACK took nothing for a while
    std::uint64_t reportedIn = 0, reportedOut = 0;

    std::uint64_t intoPort() const { return ringFull + malformed + closed; }
    std::uint64_t fromPort() const { return tooLarge + stalled; }
};

// A port while it is in the graph.
struct Bridged {
    PortView view;
    std::string name; // UTF-8
    std::shared_ptr<PortLink> link;
    std::shared_ptr<Losses> losses;
    std::shared_ptr<hk::Process> process;

    // "NAME in": JACK plays into the port.
    jack_port_t *in = nullptr;
    std::string inName;
    jack_ringbuffer_t *toDriver = nullptr;
    std::unique_ptr<hk::midi::Filter> renderFilter;
    std::unique_ptr<hk::midi::Pin> renderPin;
    struct Pending {
        std::vector<std::uint8_t> bytes;
        Clock::time_point due;
    };
    std::deque<Pending> pending; // worker only
    std::size_t pendingBytes = 0;
    std::unique_ptr<ambrel::midi::Framer> framer;

    // "NAME out": the owner's writes.
    jack_port_t *out = nullptr;
    std::string outName;
    jack_ringbuffer_t *toJack = nullptr;
    std::unique_ptr<hk::midi::Filter> captureFilter;
    std::unique_ptr<hk::midi::Pin> capturePin;
    std::thread reader;
    std::atomic<bool> closing{false};
    std::atomic<bool> reading{false};

    ~Bridged()
    {
        for (jack_ringbuffer_t *ring : {toDriver, toJack}) {
            if (ring != nullptr) {
                jack_ringbuffer_free(ring);
            }
        }
    }
};

struct Snapshot {
    std::vector<Bridged *> ports;
};

class JackGraph : public MidiGraph {
public:
    JackGraph(JackSettings settings, ProcessSource process)
        : settings_(std::move(settings)), processSource_(std::move(process))
    {
        sem_init(&wake_, 0, 0);
        gJackVerbose = settings_.verbose;
        jack_set_error_function(jackError);
        jack_set_info_function([](const char *) {});
        supervisor_ = std::thread([this] { supervise(); });
        worker_ = std::thread([this] { renderWork(); });
    }

    ~JackGraph() override
    {
        stop();
        sem_destroy(&wake_);
    }

    void portAdded(const PortView &port, std::shared_ptr<PortLink> link) override
    {
        std::lock_guard<std::mutex> lock(commandMutex_);
        commands_.push_back(Command{true, port, std::move(link)});
        commandCv_.notify_all();
    }

    std::string describe(const std::u16string &referenceString, const PortLink *owner) override
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        auto it = known_.find(referenceString);
        if (it == known_.end() || it->second.link.get() != owner) {
            return "";
        }
        std::ostringstream out;
        const Known &k = it->second;
        if (k.bridged) {
            if (k.bridged->in != nullptr) {
                out << "jack-in: " << k.bridged->inName << "\n";
            }
            if (k.bridged->out != nullptr) {
                out << "jack-out: " << k.bridged->outName << "\n";
            }
        } else {
            out << "jack: waiting for a JACK server\n";
        }
        out << "jack-in-lost: " << k.losses->intoPort() << "\n";
        out << "jack-out-lost: " << k.losses->fromPort() << "\n";
        return out.str();
    }

    std::size_t inFlight() override
    {
        std::lock_guard<std::mutex> lock(workMutex_);
        std::size_t total = 0;
        for (Bridged *b : work_) {
            total += b->pending.size() + (b->toDriver ? jack_ringbuffer_read_space(b->toDriver) : 0);
        }
        return total;
    }

    void stop() override
    {
        {
            std::lock_guard<std::mutex> lock(commandMutex_);
            if (stopped_) {
                return;
            }
            stopped_ = true;
            commandCv_.notify_all();
        }
        if (supervisor_.joinable()) {
            supervisor_.join();
        }
        workerStop_ = true;
        sem_post(&wake_);
        if (worker_.joinable()) {
            worker_.join();
        }
        delete snapshot_.exchange(nullptr); // no process thread runs any more
    }

private:
    struct Command {
        bool add;
        PortView view;
        std::shared_ptr<PortLink> link;
    };
    struct Known {
        PortView view;
        std::shared_ptr<PortLink> link;
        std::uint64_t listener = 0;
        std::shared_ptr<Losses> losses;
        std::unique_ptr<Bridged> bridged;
    };

    // ---------------------------------------------------------------- supervisor
    void supervise()
    {
        bool saidAbsent = false;
        Clock::time_point nextTry = Clock::now();
        for (;;) {
            std::deque<Command> commands;
            {
                std::unique_lock<std::mutex> lock(commandMutex_);
                commandCv_.wait_for(lock, std::chrono::milliseconds(100),
                                    [&] { return stopped_ || !commands_.empty() || serverGone_.load(); });
                if (stopped_) {
                    break;
                }
                commands.swap(commands_);
            }
            for (Command &c : commands) {
                if (c.add) {
                    add(c.view, std::move(c.link));
                } else if (c.link) {
                    remove(c.view.referenceString, c.link.get());
                }
            }
            if (client_ != nullptr && serverGone_) {
                std::fprintf(stderr, "ambreld: JACK: the server went away; the ports rejoin when one runs again\n");
                detach();
                saidAbsent = true; // said just now
                nextTry = Clock::now();
            }
            if (client_ == nullptr && Clock::now() >= nextTry) {
                if (!attach()) {
                    if (!saidAbsent) {
                        std::fprintf(stderr,
                                     "ambreld: JACK: no server is running; the ports join the JACK graph once one "
                                     "starts\n");
                        saidAbsent = true;
                    }
                    nextTry = Clock::now() + std::chrono::seconds(1);
                } else {
                    saidAbsent = false;
                }
            }
            report();
        }
        detach();
        std::vector<std::pair<std::shared_ptr<PortLink>, std::uint64_t>> listeners;
        {
            std::lock_guard<std::mutex> lock(stateMutex_);
            for (auto &entry : known_) {
                listeners.emplace_back(entry.second.link, entry.second.listener);
            }
            known_.clear();
        }
        for (auto &[link, id] : listeners) {
            link->unlisten(id);
        }
    }

    bool attach()
    {
        jack_status_t status{};
        jack_client_t *client = jack_client_open(settings_.clientName.c_str(), JackNoStartServer, &status);
        if (client == nullptr) {
            return false;
        }
        serverGone_ = false;
        client_ = client; // the process thread asks it for frame times
        jack_set_process_callback(client, &JackGraph::processThunk, this);
        jack_on_info_shutdown(client, &JackGraph::shutdownThunk, this);
        if (jack_activate(client) != 0) {
            std::fprintf(stderr, "ambreld: JACK: the client could not be activated\n");
            jack_client_close(client);
            client_ = nullptr;
            return false;
        }
        clientName_ = jack_get_client_name(client);
        const char *server = std::getenv("JACK_DEFAULT_SERVER");
        std::fprintf(stderr, "ambreld: JACK: joined the server \"%s\" as \"%s\"\n",
                     server != nullptr && *server != '\0' ? server : "default", clientName_.c_str());
        std::vector<std::u16string> refs;
        {
            std::lock_guard<std::mutex> lock(stateMutex_);
            for (auto &entry : known_) {
                refs.push_back(entry.first);
            }
        }
        for (const std::u16string &ref : refs) {
            bridge(ref);
        }
        return true;
    }

    void detach()
    {
        if (client_ == nullptr) {
            return;
        }
        std::vector<std::u16string> refs;
        {
            std::lock_guard<std::mutex> lock(stateMutex_);
            for (auto &entry : known_) {
                if (entry.second.bridged) {
                    refs.push_back(entry.first);
                }
            }
        }
        for (const std::u16string &ref : refs) {
            unbridge(ref);
        }
        if (!serverGone_) {
            jack_deactivate(client_);
        }
        jack_client_close(client_);
        client_ = nullptr;
    }

    void add(const PortView &view, std::shared_ptr<PortLink> link)
    {
        std::u16string ref = view.referenceString;
        // A port that took the slot of one whose going is still queued: the
        // old one goes first.
        remove(ref, nullptr);
        {
            std::lock_guard<std::mutex> lock(stateMutex_);
            Known &k = known_[ref];
            k.view = view;
            k.link = link;
            k.losses = std::make_shared<Losses>();
        }
        std::uint64_t id = link->listen([this, view, weak = std::weak_ptr<PortLink>(link)] {
            std::lock_guard<std::mutex> lock(commandMutex_);
            commands_.push_back(Command{false, view, weak.lock()});
            commandCv_.notify_all();
        });
        {
            std::lock_guard<std::mutex> lock(stateMutex_);
            known_[ref].listener = id;
        }
        if (link->goneError() != 0) {
            remove(ref, link.get()); // went before we listened
            return;
        }
        if (client_ != nullptr) {
            bridge(ref);
        }
    }

    // The port of that slot, if it is the one of `link` (any, when null).
    void remove(const std::u16string &ref, const PortLink *which)
    {
        {
            std::lock_guard<std::mutex> lock(stateMutex_);
            auto it = known_.find(ref);
            if (it == known_.end() || (which != nullptr && it->second.link.get() != which)) {
                return;
            }
        }
        unbridge(ref);
        std::shared_ptr<PortLink> link;
        std::uint64_t id = 0;
        {
            std::lock_guard<std::mutex> lock(stateMutex_);
            auto it = known_.find(ref);
            if (it == known_.end()) {
                return;
            }
            link = it->second.link;
            id = it->second.listener;
            known_.erase(it);
        }
        link->unlisten(id);
    }

    // The port's JACK ports, pins and rings; a side the driver or JACK
    // refuses is said and left out.
    void bridge(const std::u16string &ref)
    {
        auto b = std::make_unique<Bridged>();
        {
            std::lock_guard<std::mutex> lock(stateMutex_);
            auto it = known_.find(ref);
            if (it == known_.end() || it->second.bridged) {
                return;
            }
            b->view = it->second.view;
            b->link = it->second.link;
            b->losses = it->second.losses;
        }
        b->name = utf16ToUtf8(b->view.name);
        b->process = processSource_();
        if (!b->process) {
            std::fprintf(stderr, "ambreld: JACK: no host process for the bridge\n");
            return;
        }
        // Whole names ("client:port") of up to 255 bytes: programs list
        // ports in buffers of 256 (JACK_PORT_NAME_SIZE), and a longer name
        // reaches them cut, its " in" or " out" lost.
        const std::size_t whole = std::min<std::size_t>(std::size_t(jack_port_name_size()), kJackPortNameSize) - 1;
        const std::size_t limit = whole > clientName_.size() + 1 ? whole - clientName_.size() - 1 : 0;
        auto registerPort = [&](const std::string &suffix, unsigned long flags, std::string *fullName) {
            std::set<std::string> taken;
            {
                std::lock_guard<std::mutex> lock(stateMutex_);
                taken = shortNames_;
            }
            std::string shortName = jackPortName(b->name, suffix, limit, taken);
            jack_port_t *port = jack_port_register(client_, shortName.c_str(), JACK_DEFAULT_MIDI_TYPE, flags, 0);
            if (port == nullptr) {
                // The reference string is plain ASCII and unique.
                std::string fallback = utf16ToUtf8(b->view.referenceString) + suffix;
                std::fprintf(stderr, "ambreld: JACK: the server refused the name \"%s\"; using \"%s\"\n",
                             shortName.c_str(), fallback.c_str());
                shortName = fallback;
                port = jack_port_register(client_, shortName.c_str(), JACK_DEFAULT_MIDI_TYPE, flags, 0);
            }
            if (port != nullptr) {
                *fullName = jack_port_name(port);
                std::string pretty = b->name + suffix;
                // Servers without metadata just show the short name.
                jack_set_property(client_, jack_port_uuid(port), JACK_METADATA_PRETTY_NAME, pretty.c_str(),
                                  "text/plain");
                std::lock_guard<std::mutex> lock(stateMutex_);
                shortNames_.insert(shortName);
            }
            return port;
        };
        if (!b->view.renderLink.empty()) {
            NTSTATUS status = openPortPin(*b->process, b->view, true, &b->renderFilter, &b->renderPin);
            if (!NT_SUCCESS(status)) {
                std::fprintf(stderr, "ambreld: JACK: port \"%s\" has no render pin left (status 0x%08X)\n",
                             b->name.c_str(), unsigned(status));
            } else {
                b->framer = std::make_unique<ambrel::midi::Framer>(b->link->sysexSize());
                b->toDriver = jack_ringbuffer_create(kRingBytes);
                b->in = registerPort(" in", JackPortIsInput, &b->inName);
                if (b->in == nullptr) {
                    closePortPin(&b->renderFilter, &b->renderPin);
                }
            }
        }
        if (!b->view.captureLink.empty()) {
            NTSTATUS status = openPortPin(*b->process, b->view, false, &b->captureFilter, &b->capturePin);
            if (!NT_SUCCESS(status)) {
                std::fprintf(stderr, "ambreld: JACK: port \"%s\" has no capture pin left (status 0x%08X)\n",
                             b->name.c_str(), unsigned(status));
            } else {
                b->toJack = jack_ringbuffer_create(kRingBytes);
                b->out = registerPort(" out", JackPortIsOutput, &b->outName);
                if (b->out == nullptr) {
                    closePortPin(&b->captureFilter, &b->capturePin);
                } else {
                    Bridged *raw = b.get();
                    b->reader = std::thread([this, raw] { captureWork(raw); });
                }
            }
        }
        Bridged *raw = b.get();
        {
            std::lock_guard<std::mutex> lock(workMutex_);
            work_.push_back(raw);
        }
        {
            std::lock_guard<std::mutex> lock(stateMutex_);
            known_[ref].bridged = std::move(b);
        }
        publish();
    }

    void unbridge(const std::u16string &ref)
    {
        Bridged *raw = nullptr;
        {
            std::lock_guard<std::mutex> lock(stateMutex_);
            auto it = known_.find(ref);
            if (it == known_.end() || !it->second.bridged) {
                return;
            }
            raw = it->second.bridged.get();
        }
        {
            std::lock_guard<std::mutex> lock(workMutex_);
            work_.erase(std::remove(work_.begin(), work_.end(), raw), work_.end());
        }
        publish(raw);
        if (raw->reader.joinable()) {
            raw->closing = true;
            while (raw->reading) {
                raw->process->cancelIo(raw->capturePin->handle());
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
            raw->reader.join();
        }
        // Events JACK played into the port that can no longer reach it.
        std::uint64_t left = raw->pending.size();
        if (raw->toDriver != nullptr) {
            while (jack_ringbuffer_read_space(raw->toDriver) >= sizeof(EventHeader)) {
                EventHeader h;
                jack_ringbuffer_read(raw->toDriver, reinterpret_cast<char *>(&h), sizeof h);
                jack_ringbuffer_read_advance(raw->toDriver, h.size);
                ++left;
            }
        }
        if (left > 0) {
            raw->losses->closed += left;
            std::fprintf(stderr, "ambreld: JACK: %llu events for port \"%s\" were not delivered: %s\n",
                         static_cast<unsigned long long>(left), raw->name.c_str(),
                         raw->link->goneError() != 0 ? "the port closed" : "the bridge left JACK");
        }
        closePortPin(&raw->renderFilter, &raw->renderPin);
        closePortPin(&raw->captureFilter, &raw->capturePin);
        for (jack_port_t *port : {raw->in, raw->out}) {
            if (port != nullptr && !serverGone_) {
                jack_remove_properties(client_, jack_port_uuid(port));
                jack_port_unregister(client_, port);
            }
        }
        std::unique_ptr<Bridged> gone;
        {
            std::lock_guard<std::mutex> lock(stateMutex_);
            auto it = known_.find(ref);
            shortNames_.erase(shortOf(raw->inName));
            shortNames_.erase(shortOf(raw->outName));
            gone = std::move(it->second.bridged);
        }
    }

    static std::string shortOf(const std::string &fullName)
    {
        std::size_t colon = fullName.find(':');
        return colon == std::string::npos ? fullName : fullName.substr(colon + 1);
    }

    // Gives the process thread a new snapshot of the bridged ports (without
    // `leaving`), and frees the old one once that thread is seen outside its
    // callback, or past a whole callback since.
    void publish(Bridged *leaving = nullptr)
    {
        auto next = new Snapshot;
        {
            std::lock_guard<std::mutex> lock(stateMutex_);
            for (auto &entry : known_) {
                if (entry.second.bridged && entry.second.bridged.get() != leaving) {
                    next->ports.push_back(entry.second.bridged.get());
                }
            }
        }
        Snapshot *old = snapshot_.exchange(next);
        std::uint64_t phase = phase_.load();
        auto until = Clock::now() + std::chrono::seconds(2);
        while ((phase & 1) != 0 && phase_.load() == phase && Clock::now() < until) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        delete old;
    }

    // Said once a second at most: events counted lost since the last report.
    void report()
    {
        auto now = Clock::now();
        if (now - lastReport_ < std::chrono::seconds(1)) {
            return;
        }
        lastReport_ = now;
        std::lock_guard<std::mutex> lock(stateMutex_);
        for (auto &entry : known_) {
            Losses &l = *entry.second.losses;
            std::string name = utf16ToUtf8(entry.second.view.name);
            auto say = [&](std::uint64_t total, std::uint64_t *reported, const char *what, std::uint64_t first,
                           const char *firstWhy, std::uint64_t second, const char *secondWhy) {
                if (total != *reported) {
                    std::fprintf(stderr, "ambreld: JACK: port \"%s\": %llu events %s lost so far (%llu %s, %llu %s)\n",
                                 name.c_str(), static_cast<unsigned long long>(total), what,
                                 static_cast<unsigned long long>(first), firstWhy,
                                 static_cast<unsigned long long>(second), secondWhy);
                    *reported = total;
                }
            };
            say(l.ringFull + l.malformed, &l.reportedIn, "played into it", l.ringFull, "while its owner read too slowly",
                l.malformed, "not MIDI it carries");
            say(l.fromPort(), &l.reportedOut, "its owner wrote", l.tooLarge, "larger than a JACK MIDI buffer", l.stalled,
                "while JACK ran no cycles");
        }
    }

    // ---------------------------------------------------------------- JACK's thread
    static int processThunk(jack_nframes_t frames, void *self)
    {
        static_cast<JackGraph *>(self)->process(frames);
        return 0;
    }

    static void shutdownThunk(jack_status_t, const char *, void *self)
    {
        static_cast<JackGraph *>(self)->serverGone_ = true;
    }

    void process(jack_nframes_t frames)
    {
        phase_.fetch_add(1); // odd: inside
        Snapshot *s = snapshot_.load();
        const jack_nframes_t start = jack_last_frame_time(client_);
        bool queued = false;
        for (Bridged *b : s != nullptr ? s->ports : noPorts_) {
            if (b->in != nullptr) {
                void *buffer = jack_port_get_buffer(b->in, frames);
                std::uint32_t count = jack_midi_get_event_count(buffer);
                for (std::uint32_t i = 0; i < count; ++i) {
                    jack_midi_event_t event;
                    if (jack_midi_event_get(&event, buffer, i) != 0) {
                        continue;
                    }
                    EventHeader h{start + event.time, std::uint32_t(event.size)};
                    if (jack_ringbuffer_write_space(b->toDriver) < sizeof h + event.size) {
                        b->losses->ringFull.fetch_add(1, std::memory_order_relaxed);
                        continue;
                    }
                    jack_ringbuffer_write(b->toDriver, reinterpret_cast<const char *>(&h), sizeof h);
                    jack_ringbuffer_write(b->toDriver, reinterpret_cast<const char *>(event.buffer), event.size);
                    queued = true;
                }
            }
            if (b->out != nullptr) {
                void *buffer = jack_port_get_buffer(b->out, frames);
                jack_midi_clear_buffer(buffer);
                std::uint32_t floor = 0;
                bool empty = true;
                while (jack_ringbuffer_read_space(b->toJack) >= sizeof(EventHeader)) {
                    EventHeader h;
                    jack_ringbuffer_peek(b->toJack, reinterpret_cast<char *>(&h), sizeof h);
                    if (jack_ringbuffer_read_space(b->toJack) < sizeof h + h.size) {
                        break; // its bytes are still being written
                    }
                    std::uint32_t offset = captureOffset(h.frame, start, frames, floor);
                    if (offset >= frames) {
                        break; // the next period's
                    }
                    jack_midi_data_t *room = jack_midi_event_reserve(buffer, offset, h.size);
                    if (room == nullptr) {
                        if (!empty) {
                            break; // the buffer is full: next period
                        }
                        // Not even an empty buffer takes it.
                        b->losses->tooLarge.fetch_add(1, std::memory_order_relaxed);
                        jack_ringbuffer_read_advance(b->toJack, sizeof h + h.size);
                        continue;
                    }
                    jack_ringbuffer_read_advance(b->toJack, sizeof h);
                    jack_ringbuffer_read(b->toJack, reinterpret_cast<char *>(room), h.size);
                    floor = offset;
                    empty = false;
                }
            }
        }
        if (queued) {
            sem_post(&wake_);
        }
        cycles_.fetch_add(1, std::memory_order_relaxed);
        phase_.fetch_add(1); // even: outside
    }

    // ---------------------------------------------------------------- render worker
    // JACK's events reach the port at the times of the frames they carry
    // (a period's events keep their distances), and no faster than the
    // port's FIFO takes them: the render path's back pressure.
    void renderWork()
    {
        while (!workerStop_) {
            Clock::time_point wake = Clock::now() + std::chrono::milliseconds(100);
            {
                std::lock_guard<std::mutex> lock(workMutex_);
                std::int64_t jackMinusSteady = client_ != nullptr ? std::int64_t(jack_get_time()) - steadyMicros() : 0;
                for (Bridged *b : work_) {
                    if (b->in == nullptr) {
                        continue;
                    }
                    take(*b, jackMinusSteady);
                    send(*b, &wake);
                }
            }
            struct timespec until;
            auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(wake - Clock::now()).count();
            clock_gettime(CLOCK_REALTIME, &until);
            left = std::max<std::int64_t>(left, 0);
            until.tv_sec += time_t(left / 1000000000);
            until.tv_nsec += long(left % 1000000000);
            if (until.tv_nsec >= 1000000000) {
                until.tv_sec += 1;
                until.tv_nsec -= 1000000000;
            }
            while (sem_timedwait(&wake_, &until) != 0 && errno == EINTR) {
            }
            while (sem_trywait(&wake_) == 0) {
            }
        }
    }

    // Ring to pending messages, each due when JACK's clock says.
    void take(Bridged &b, std::int64_t jackMinusSteady)
    {
        std::vector<std::uint8_t> bytes;
        while (b.pendingBytes < kPendingBytes && jack_ringbuffer_read_space(b.toDriver) >= sizeof(EventHeader)) {
            EventHeader h;
            jack_ringbuffer_peek(b.toDriver, reinterpret_cast<char *>(&h), sizeof h);
            if (jack_ringbuffer_read_space(b.toDriver) < sizeof h + h.size) {
                break;
            }
            jack_ringbuffer_read_advance(b.toDriver, sizeof h);
            bytes.resize(h.size);
            jack_ringbuffer_read(b.toDriver, reinterpret_cast<char *>(bytes.data()), h.size);
            std::int64_t at = std::int64_t(jack_frames_to_time(client_, h.frame)) - jackMinusSteady;
            Clock::time_point due{std::chrono::microseconds(at)};
            std::size_t taken = 0;
            auto fault = b.framer->feed(bytes.data(), bytes.size(), [&](const std::uint8_t *m, std::size_t n) {
                b.pending.push_back(Bridged::Pending{std::vector<std::uint8_t>(m, m + n), due});
                b.pendingBytes += n;
            }, &taken);
            if (fault != ambrel::midi::Framer::Fault::None || b.framer->begun() > 0) {
                // A JACK event is whole messages; what is left is not MIDI
                // the driver would take.
                b.framer->dropBegun();
                b.losses->malformed.fetch_add(1, std::memory_order_relaxed);
            }
        }
    }

    void send(Bridged &b, Clock::time_point *wake)
    {
        if (b.pending.empty() || !b.renderPin) {
            return;
        }
        if (b.link->goneError() != 0) {
            return; // counted when the port leaves the graph
        }
        Clock::time_point now = Clock::now();
        std::vector<std::uint8_t> batch;
        {
            std::lock_guard<std::mutex> sending(b.link->sendMutex());
            std::size_t room = b.link->room();
            while (!b.pending.empty() && b.pending.front().due <= now &&
                   batch.size() + b.pending.front().bytes.size() <= room) {
                const auto &m = b.pending.front().bytes;
                batch.insert(batch.end(), m.begin(), m.end());
                b.pendingBytes -= m.size();
                b.pending.pop_front();
            }
            if (!batch.empty()) {
                NTSTATUS status = b.renderPin->send(batch);
                if (!NT_SUCCESS(status)) {
                    std::fprintf(stderr, "ambreld: JACK: port \"%s\" refused %zu bytes (status 0x%08X)\n",
                                 b.name.c_str(), batch.size(), unsigned(status));
                }
            }
        }
        if (!b.pending.empty()) {
            // Not due yet, or waiting for room (the FIFO announces none: look
            // again in a millisecond, as the render pins do).
            Clock::time_point next = b.pending.front().due > now ? b.pending.front().due
                                                                   : now + std::chrono::milliseconds(1);
            *wake = std::min(*wake, next);
        }
    }

    // ---------------------------------------------------------------- capture readers
    void captureWork(Bridged *b)
    {
        ambrel::midi::Splitter splitter(kLargestMessage);
        std::vector<std::uint8_t> data(kCaptureReadBytes);
        while (!b->closing) {
            KSSTREAM_HEADER header{};
            header.Size = sizeof header;
            header.FrameExtent = kCaptureReadBytes;
            header.Data = data.data();
            b->reading = true;
            if (b->closing) {
                b->reading = false;
                break;
            }
            hk::IoResult r = b->process->deviceControl(b->capturePin->handle(), IOCTL_KS_READ_STREAM, nullptr, 0,
                                                       &header, sizeof header);
            b->reading = false;
            if (!NT_SUCCESS(r.status)) {
                if (r.status != STATUS_CANCELLED) {
                    std::fprintf(stderr, "ambreld: JACK: reading port \"%s\" failed (status 0x%08X)\n",
                                 b->name.c_str(), unsigned(r.status));
                    break;
                }
                continue;
            }
            std::int64_t jackMinusSteady = std::int64_t(jack_get_time()) - steadyMicros();
            forEachCaptureRecord(header, data.data(), [&](const std::uint8_t *bytes, std::size_t n, LONGLONG time) {
                jack_nframes_t frame = jack_time_to_frames(client_, jack_time_t(time / 10 + jackMinusSteady));
                splitter.feed(bytes, n, [&](const std::uint8_t *m, std::size_t len) { toJack(*b, m, len, frame); });
            });
        }
    }

    // Waits while JACK runs cycles that empty the ring; a server that runs
    // none for a while costs the event, counted.
    void toJack(Bridged &b, const std::uint8_t *m, std::size_t length, jack_nframes_t frame)
    {
        EventHeader h{frame, std::uint32_t(length)};
        std::size_t need = sizeof h + length;
        if (need > kRingBytes - 1) {
            b.losses->tooLarge.fetch_add(1);
            return;
        }
        std::uint64_t cycles = cycles_.load();
        Clock::time_point since = Clock::now();
        while (jack_ringbuffer_write_space(b.toJack) < need) {
            if (b.closing || serverGone_) {
                b.losses->stalled.fetch_add(1);
                return;
            }
            if (cycles_.load() != cycles) {
                cycles = cycles_.load();
                since = Clock::now();
            } else if (Clock::now() - since > kJackPatience) {
                b.losses->stalled.fetch_add(1);
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        jack_ringbuffer_write(b.toJack, reinterpret_cast<const char *>(&h), sizeof h);
        jack_ringbuffer_write(b.toJack, reinterpret_cast<const char *>(m), length);
    }

    JackSettings settings_;
    ProcessSource processSource_;
    std::thread supervisor_;
    std::thread worker_;

    std::mutex commandMutex_;
    std::condition_variable commandCv_;
    std::deque<Command> commands_;
    bool stopped_ = false;

    std::mutex stateMutex_; // known_, shortNames_
    std::map<std::u16string, Known> known_;
    std::set<std::string> shortNames_;
    Clock::time_point lastReport_ = Clock::now();

    std::atomic<jack_client_t *> client_{nullptr}; // set and cleared by the supervisor
    std::string clientName_;
    std::atomic<bool> serverGone_{false};

    std::mutex workMutex_;
    std::vector<Bridged *> work_;
    std::atomic<bool> workerStop_{false};
    sem_t wake_;

    std::atomic<Snapshot *> snapshot_{nullptr};
    std::atomic<std::uint64_t> phase_{0};
    std::atomic<std::uint64_t> cycles_{0};
    const std::vector<Bridged *> noPorts_;
};

} // namespace

std::unique_ptr<MidiGraph> startJackGraph(const JackSettings &settings, ProcessSource process)
{
    return std::make_unique<JackGraph>(settings, std::move(process));
}

} // namespace ambreld
