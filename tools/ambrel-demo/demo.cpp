// A short live demonstration of the driver on the host kernel. It boots the
// kernel, loads the driver as the system does (DriverEntry, AddDevice, start),
// and then plays the roles Windows programs would:
//   - an application opens "\DosDevices\Ambrel\Piano" and so creates the port;
//   - a player finds "Piano" among the MIDI devices and plays a melody to it;
//   - the application reads every note and writes it back out of the port;
//   - a recorder listening on the port prints what it hears, time-stamped.
// It then asks which processes use the port, closes everything, removes the
// adapter and unloads the driver. The exit code is 0 only when every note
// made the round trip unchanged and the kernel is left exactly as it was
// found: no port, no request, no object, no pool block.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <hostkernel/executive.h>
#include <hostkernel/io.h>
#include <hostkernel/midiclient.h>
#include <hostkernel/pnp.h>
#include <hostkernel/portcls.h>
#include <hostkernel/registry.h>

#include "adapter/amadapter.h"

namespace hk = hostkernel;
namespace midi = hostkernel::midi;
using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

namespace {

const std::u16string kService = u"ambrel";
const std::u16string kPortName = u"Piano";
const std::uint64_t kApplicationPid = 1200;
const std::uint64_t kPlayerPid = 2400;
const std::uint64_t kRecorderPid = 3600;

struct Note {
    std::uint8_t key;
    unsigned beats; // in eighths
};
// The opening of "Ode to Joy".
const Note kMelody[] = {{64, 2}, {64, 2}, {65, 2}, {67, 2}, {67, 2}, {65, 2}, {64, 2}, {62, 2},
                        {60, 2}, {60, 2}, {62, 2}, {64, 2}, {64, 3}, {62, 1}, {62, 4}};

std::string noteName(std::uint8_t key)
{
    static const char *const names[] = {"C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"};
    return std::string(names[key % 12]) + std::to_string(int(key / 12) - 1);
}

// Bytes of a channel message from its status byte (what the player sends).
size_t messageLength(std::uint8_t status)
{
    switch (status & 0xF0) {
    case 0xC0:
    case 0xD0:
        return 2;
    default:
        return status >= 0x80 && status < 0xF0 ? 3 : 1;
    }
}

std::string describe(const Bytes &m)
{
    char text[64];
    if (m.size() == 3 && (m[0] & 0xF0) == 0x90 && m[2] != 0) {
        snprintf(text, sizeof(text), "note-on  %-3s velocity %3u", noteName(m[1]).c_str(), m[2]);
    } else if (m.size() == 3 && ((m[0] & 0xF0) == 0x80 || (m[0] & 0xF0) == 0x90)) {
        snprintf(text, sizeof(text), "note-off %-3s", noteName(m[1]).c_str());
    } else {
        std::string hex;
        for (std::uint8_t b : m) {
            char byte[4];
            snprintf(byte, sizeof(byte), "%02X ", b);
            hex += byte;
        }
        snprintf(text, sizeof(text), "%s", hex.c_str());
    }
    return text;
}

std::string narrow(const std::u16string &s)
{
    std::string out;
    for (char16_t c : s) {
        out.push_back(c < 0x80 ? char(c) : '?');
    }
    return out;
}

// Every claim the demonstration makes goes through here: a failed one is
// printed and makes the exit code non-zero.
struct Checks {
    std::atomic<unsigned> failed{0};
    bool check(bool ok, const char *what, NTSTATUS status = STATUS_SUCCESS)
    {
        if (!ok) {
            failed++;
            fprintf(stderr, "ambrel-demo: FAILED: %s (status %08x)\n", what, unsigned(status));
        }
        return ok;
    }
};

struct Options {
    bool log = false;
    unsigned tempoMs = 90; // one eighth
};

bool parse(int argc, char **argv, Options *options)
{
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--log") == 0) {
            options->log = true;
        } else if (strcmp(argv[i], "--fast") == 0) {
            options->tempoMs = 0;
        } else {
            fprintf(stderr,
                    "usage: ambrel-demo [--log] [--fast]\n"
                    "  --log   stream the driver's debug log to stderr\n"
                    "  --fast  play the melody without pauses\n");
            return false;
        }
    }
    return true;
}

// The application's side: reads whole messages the player sends to its port
// and echoes each one back out, until it has seen `expected` bytes or a read
// stays empty too long.
void echo(hk::Process &app, hk::Handle handle, size_t expected, Checks &checks, size_t *echoed)
{
    Bytes pending;
    while (*echoed < expected) {
        auto read = app.readAsync(handle, 64);
        if (!read->wait(10s)) {
            read->cancel();
            read->wait();
            checks.check(false, "the application's read got the player's notes in time");
            return;
        }
        if (!checks.check(read->status() == STATUS_SUCCESS, "the application's read succeeded", read->status())) {
            return;
        }
        const Bytes &got = read->output();
        Bytes data(got.begin(), got.begin() + read->information());
        hk::IoResult w = app.write(handle, data.data(), ULONG(data.size()));
        if (!checks.check(w.status == STATUS_SUCCESS, "the application's echo was written", w.status)) {
            return;
        }
        *echoed += data.size();
    }
}

class Demo {
public:
    explicit Demo(const Options &options) : options_(options) {}

    int run()
    {
        if (boot()) {
            play();
        }
        shutdown();
        if (checks_.failed == 0) {
            printf("\nevery note made the round trip; port closed, driver unloaded, nothing left behind\n");
            return 0;
        }
        printf("\n%u check(s) failed\n", checks_.failed.load());
        return 1;
    }

private:
    bool boot()
    {
        printf("host kernel: loading the driver \"%s\"\n", narrow(kService).c_str());
        hk::registry::createKey(hk::serviceKeyPath(kService) + u"\\Configuration");
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        driver_ = hk::loadDriver(kService, DriverEntry, &status);
        if (!checks_.check(driver_ != nullptr && status == STATUS_SUCCESS, "DriverEntry succeeded", status)) {
            return false;
        }
        node_ = hk::addRootDevice(driver_);
        if (!checks_.check(node_ && node_->addDeviceStatus() == STATUS_SUCCESS, "AddDevice succeeded",
                           node_ ? node_->addDeviceStatus() : STATUS_UNSUCCESSFUL)) {
            return false;
        }
        status = node_->start();
        if (!checks_.check(status == STATUS_SUCCESS, "the adapter started", status)) {
            return false;
        }
        printf("host kernel: adapter %s started, control device \"\\Device\\Ambrel\"\n",
               narrow(node_->instancePath()).c_str());
        return true;
    }

    void play()
    {
        app_ = std::make_unique<hk::Process>(kApplicationPid);
        player_ = std::make_unique<hk::Process>(kPlayerPid);
        recorder_ = std::make_unique<hk::Process>(kRecorderPid);

        NTSTATUS status = app_->open(u"\\DosDevices\\Ambrel\\" + kPortName, FILE_GENERIC_READ | FILE_GENERIC_WRITE,
                                     &handle_);
        if (!checks_.check(status == STATUS_SUCCESS, "the application created the port", status)) {
            return;
        }
        printf("application (pid %llu): opened \"\\DosDevices\\Ambrel\\%s\"\n",
               (unsigned long long)kApplicationPid, narrow(kPortName).c_str());

        auto port = midi::findPort(kPortName);
        if (!checks_.check(port.has_value() && port->render && port->capture, "the port is a MIDI device")) {
            return;
        }
        printf("MIDI devices: \"%s\" (%s, playable and recordable)\n", narrow(port->name).c_str(),
               narrow(port->referenceString).c_str());

        std::unique_ptr<midi::Filter> playerFilter, recorderFilter;
        status = midi::Filter::open(*player_, port->path, &playerFilter);
        if (!checks_.check(status == STATUS_SUCCESS, "the player opened the device", status)) {
            return;
        }
        status = midi::Filter::open(*recorder_, port->path, &recorderFilter);
        if (!checks_.check(status == STATUS_SUCCESS, "the recorder opened the device", status)) {
            return;
        }
        auto renderId = playerFilter->findPin(KSPIN_DATAFLOW_IN, KSDATAFORMAT_SUBTYPE_MIDI);
        auto captureId = recorderFilter->findPin(KSPIN_DATAFLOW_OUT, KSDATAFORMAT_SUBTYPE_MIDI);
        if (!checks_.check(renderId && captureId, "the device offers MIDI render and capture pins")) {
            return;
        }
        std::u16string pinName;
        checks_.check(playerFilter->pinName(*renderId, &pinName) == STATUS_SUCCESS && pinName == kPortName,
                      "the pins carry the port's name");

        std::unique_ptr<midi::Pin> render, capture;
        status = midi::Pin::open(*recorderFilter, *captureId, KSDATAFORMAT_SUBTYPE_MIDI, &capture);
        if (!checks_.check(status == STATUS_SUCCESS, "the recorder opened a capture pin", status) ||
            !checks_.check(capture->setState(KSSTATE_RUN) == STATUS_SUCCESS, "the capture pin runs")) {
            return;
        }
        status = midi::Pin::open(*playerFilter, *renderId, KSDATAFORMAT_SUBTYPE_MIDI, &render);
        if (!checks_.check(status == STATUS_SUCCESS, "the player opened a render pin", status) ||
            !checks_.check(render->setState(KSSTATE_RUN) == STATUS_SUCCESS, "the render pin runs")) {
            return;
        }
        printf("player (pid %llu): render pin %lu open; recorder (pid %llu): capture pin %lu open\n\n",
               (unsigned long long)kPlayerPid, (unsigned long)*renderId, (unsigned long long)kRecorderPid,
               (unsigned long)*captureId);

        showUsers();

        std::vector<Bytes> played;
        for (const Note &n : kMelody) {
            played.push_back({0x90, n.key, 96});
            played.push_back({0x80, n.key, 0});
        }
        size_t expectedBytes = 0;
        for (const Bytes &m : played) {
            expectedBytes += m.size();
        }

        size_t echoed = 0;
        std::thread application(echo, std::ref(*app_), handle_, expectedBytes, std::ref(checks_), &echoed);
        std::vector<Bytes> heard;
        std::thread recording([&] { record(*capture, played.size(), &heard); });

        size_t index = 0;
        for (const Note &n : kMelody) {
            checks_.check(render->send(played[index++]) == STATUS_SUCCESS, "the player's note-on was sent");
            std::this_thread::sleep_for(std::chrono::milliseconds(options_.tempoMs * n.beats));
            checks_.check(render->send(played[index++]) == STATUS_SUCCESS, "the player's note-off was sent");
        }
        application.join();
        recording.join();

        checks_.check(echoed == expectedBytes, "the application echoed every byte it read");
        checks_.check(heard == played, "the recorder heard exactly the melody that was played");
        printf("\nplayed %zu messages, the application echoed %zu bytes, the recorder heard %zu messages\n",
               played.size(), echoed, heard.size());

        checks_.check(render->close() == STATUS_SUCCESS, "the render pin closed");
        checks_.check(capture->close() == STATUS_SUCCESS, "the capture pin closed");
        checks_.check(playerFilter->close() == STATUS_SUCCESS, "the player closed the device");
        checks_.check(recorderFilter->close() == STATUS_SUCCESS, "the recorder closed the device");
        status = app_->close(handle_);
        handle_ = 0;
        checks_.check(status == STATUS_SUCCESS, "the application closed its handle", status);
        hk::drainIo();
        checks_.check(!midi::findPort(kPortName).has_value(), "closing the handle withdrew the port");
        printf("application: closed its handle; \"%s\" is no longer a MIDI device\n", narrow(kPortName).c_str());
    }

    // Who has the port open, as the application asks the driver.
    void showUsers()
    {
        std::uint64_t ids[16] = {};
        hk::IoResult r = app_->deviceControl(handle_, IOCTL_AMBREL_PROCESS_IDS, nullptr, 0, ids, sizeof(ids));
        if (!checks_.check(r.status == STATUS_SUCCESS, "the process-id query succeeded", r.status)) {
            return;
        }
        bool player = false, recorder = false;
        printf("application: processes using the port:");
        for (size_t i = 0; i < r.information / sizeof(ids[0]); i++) {
            printf(" %llu", (unsigned long long)ids[i]);
            player = player || ids[i] == kPlayerPid;
            recorder = recorder || ids[i] == kRecorderPid;
        }
        printf("\n\n");
        checks_.check(player && recorder, "the process-id query names the player and the recorder");
    }

    void record(midi::Pin &capture, size_t expected, std::vector<Bytes> *heard)
    {
        LONGLONG first = -1;
        Bytes stream;
        while (heard->size() < expected) {
            std::vector<midi::Message> messages;
            NTSTATUS status = capture.receive(&messages, 10s);
            if (!checks_.check(status == STATUS_SUCCESS, "the recorder received the echo", status)) {
                return;
            }
            // Events carry the application's writes in pieces of the
            // framework's choosing: the recorder reassembles the byte stream
            // and cuts whole messages from it.
            for (const midi::Message &m : messages) {
                if (first < 0) {
                    first = m.time;
                }
                stream.insert(stream.end(), m.bytes.begin(), m.bytes.end());
                while (!stream.empty() && stream.size() >= messageLength(stream.front())) {
                    Bytes one(stream.begin(), stream.begin() + messageLength(stream.front()));
                    stream.erase(stream.begin(), stream.begin() + one.size());
                    printf("recorder hears  +%6.3f s  %s\n", double(m.time - first) / 1e7, describe(one).c_str());
                    heard->push_back(one);
                }
            }
        }
    }

    void shutdown()
    {
        if (handle_ != 0) {
            app_->close(handle_);
            handle_ = 0;
        }
        app_.reset();
        player_.reset();
        recorder_.reset();
        hk::drainIo();
        if (node_ && !node_->removed()) {
            NTSTATUS status = node_->remove();
            checks_.check(status == STATUS_SUCCESS, "the adapter was removed", status);
        }
        node_.reset();
        if (driver_ != nullptr) {
            NTSTATUS status = hk::unloadDriver(driver_);
            driver_ = nullptr;
            checks_.check(status == STATUS_SUCCESS, "the driver unloaded", status);
            printf("host kernel: driver unloaded\n");
        }
        hk::drainIo();
        // These stop the program with a verifier report when a request,
        // device, file or framework object is left behind.
        hk::verifyIoQuiescent();
        hk::verifyPortclsQuiescent();
        for (const std::string &problem : hk::quiescenceProblems()) {
            checks_.check(false, problem.c_str());
        }
    }

    Options options_;
    Checks checks_;
    PDRIVER_OBJECT driver_ = nullptr;
    std::shared_ptr<hk::DeviceNode> node_;
    std::unique_ptr<hk::Process> app_, player_, recorder_;
    hk::Handle handle_ = 0;
};

} // namespace

int main(int argc, char **argv)
{
    Options options;
    if (!parse(argc, argv, &options)) {
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    hk::setLogToStderr(options.log);
    return Demo(options).run();
}
