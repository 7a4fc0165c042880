#include "scenario.h"

#include <cstdio>

namespace hardening {

const char *stepName(Step step)
{
    static const char *const names[] = {"load",     "add adapter", "start",     "open port", "open filters",
                                        "render pin", "capture pin", "play",    "record",    "query ids",
                                        "close",    "remove",      "unload",    "done"};
    return names[int(step)];
}

namespace {

std::string hex(NTSTATUS s)
{
    char text[16];
    std::snprintf(text, sizeof(text), "%08x", unsigned(s));
    return text;
}

class Story {
public:
    Outcome run(std::chrono::milliseconds recordWait)
    {
        if (step(Step::Load, load()) && step(Step::AddAdapter, addAdapter()) && step(Step::Start, node_->start()) &&
            step(Step::OpenPort, app_->open(u"\\DosDevices\\Ambrel\\Piano\\65536", kReadWrite, &port_)) &&
            step(Step::OpenFilters, openFilters()) && step(Step::OpenRenderPin, openPin(*player_, KSPIN_DATAFLOW_IN, &render_)) &&
            step(Step::OpenCapturePin, openPin(*recorder_, KSPIN_DATAFLOW_OUT, &capture_)) && step(Step::Play, play()) &&
            step(Step::Record, record(recordWait)) && step(Step::QueryIds, queryIds()) && step(Step::Close, closeAll())) {
            if (step(Step::Remove, node_->remove())) {
                step(Step::Unload, unload());
            }
        }
        teardown();
        return outcome_;
    }

private:
    bool step(Step s, NTSTATUS status)
    {
        if (NT_SUCCESS(status)) {
            return true;
        }
        outcome_.failedAt = s;
        outcome_.status = status;
        return false;
    }
    void problem(const std::string &what) { outcome_.problems.push_back(what); }

    NTSTATUS load()
    {
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        driver_ = ambrelhost::loadAmbrel(u"ambrel", ambreltest::driverImage(), &status);
        if (driver_ == nullptr && NT_SUCCESS(status)) {
            problem("no driver object after a successful DriverEntry");
            return STATUS_UNSUCCESSFUL;
        }
        return status;
    }

    NTSTATUS addAdapter()
    {
        node_ = hk::addRootDevice(driver_);
        return node_->addDeviceStatus();
    }

    NTSTATUS openFilters()
    {
        auto port = midi::findPort(u"Piano");
        if (!port) {
            // Published, but without the name clients look for.
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        NTSTATUS s = midi::Filter::open(*playerProcess_, port->path, &player_);
        return NT_SUCCESS(s) ? midi::Filter::open(*recorderProcess_, port->path, &recorder_) : s;
    }

    NTSTATUS openPin(midi::Filter &filter, KSPIN_DATAFLOW flow, std::unique_ptr<midi::Pin> *pin)
    {
        auto id = filter.findPin(flow, kMidiSubFormat);
        if (!id) {
            // A failed property request looks the same to findPin.
            return STATUS_NOT_FOUND;
        }
        NTSTATUS s = midi::Pin::open(filter, *id, kMidiSubFormat, pin);
        return NT_SUCCESS(s) ? (*pin)->setState(KSSTATE_RUN) : s;
    }

    // A note played by the client reaches a read the owner parked first.
    NTSTATUS play()
    {
        auto read = app_->readAsync(port_, 64);
        const Bytes note = {0x90, 0x3C, 0x64};
        NTSTATUS sent = render_->send(note);
        if (!NT_SUCCESS(sent)) {
            read->cancel();
            read->wait();
            if (read->status() != STATUS_CANCELLED) {
                problem("read after a refused send: " + hex(read->status()));
            }
            return sent;
        }
        if (!read->wait(std::chrono::seconds(5))) {
            problem("a note the render pin accepted never reached the owner");
            read->cancel();
            read->wait();
            return STATUS_SUCCESS;
        }
        if (!NT_SUCCESS(read->status())) {
            // A read refused before it parked (its buffer could not be
            // mapped) has taken nothing: the note must still be there.
            hk::Process &app = *app_;
            auto again = app.readAsync(port_, 64);
            if (!again->wait(std::chrono::seconds(5))) {
                problem("the note was lost with the refused read");
                again->cancel();
                again->wait();
            } else if (again->information() != 3) {
                problem("second read after a refused one: " + hex(again->status()));
            }
            return read->status();
        }
        if (read->information() != 3 ||
            !std::equal(note.begin(), note.end(), read->output().begin())) {
            problem("read of the played note: status " + hex(read->status()) + ", " +
                    std::to_string(read->information()) + " bytes");
        }
        return STATUS_SUCCESS;
    }

    // A write the driver accepts reaches the recorder whole.
    NTSTATUS record(std::chrono::milliseconds wait)
    {
        const Bytes note = {0x90, 0x40, 0x50};
        hk::IoResult w = app_->write(port_, note.data(), ULONG(note.size()));
        if (!NT_SUCCESS(w.status)) {
            return w.status;
        }
        std::vector<midi::Message> heard;
        NTSTATUS r = capture_->receive(&heard, wait);
        if (r == STATUS_TIMEOUT) {
            problem("an accepted write never reached the recorder");
            return STATUS_SUCCESS;
        }
        if (!NT_SUCCESS(r)) {
            return r;
        }
        if (heard.size() != 1 || heard[0].bytes != note) {
            problem("the recorder heard " + std::to_string(heard.size()) + " messages, not the note");
        }
        return STATUS_SUCCESS;
    }

    NTSTATUS queryIds()
    {
        std::uint64_t ids[16] = {};
        hk::IoResult r = app_->deviceControl(port_, IOCTL_AMBREL_PROCESS_IDS, nullptr, 0, ids, sizeof(ids));
        if (NT_SUCCESS(r.status) && (r.information < 16 || ids[0] != 200 || ids[1] != 300)) {
            problem("process ids: " + std::to_string(r.information) + " bytes, first " + std::to_string(ids[0]));
        }
        return r.status;
    }

    NTSTATUS closeAll()
    {
        NTSTATUS s = STATUS_SUCCESS;
        for (auto *p : {&render_, &capture_}) {
            if (*p) {
                NTSTATUS c = (*p)->close();
                s = NT_SUCCESS(s) ? c : s;
                p->reset();
            }
        }
        for (auto *f : {&player_, &recorder_}) {
            if (*f) {
                NTSTATUS c = (*f)->close();
                s = NT_SUCCESS(s) ? c : s;
                f->reset();
            }
        }
        NTSTATUS c = app_->close(port_);
        port_ = 0;
        return NT_SUCCESS(s) ? c : s;
    }

    NTSTATUS unload()
    {
        hk::drainIo();
        NTSTATUS s = hk::unloadDriver(driver_);
        if (NT_SUCCESS(s)) {
            driver_ = nullptr;
        }
        return s;
    }

    // An AddDevice that failed after creating the control device (both link
    // attempts failed) keeps it by design: no link, but initialised and
    // answering through \Device\Ambrel, while the PnP manager has torn down
    // the adapter's stack. It must show that, and then go: the driver has no
    // unload routine and its removal path only runs for a started adapter,
    // so the system's unload would find it left over. Nothing beyond the
    // open's own checks is tried on it: publishing a port needs the started
    // adapter the failed add never got.
    void leftoverControlDevice()
    {
        if (hk::objectExists(u"\\DosDevices\\Ambrel")) {
            problem("a failed AddDevice left the control device's link");
        }
        {
            hk::Process app(100);
            hk::Handle h = 0;
            NTSTATUS s = app.open(u"\\Device\\Ambrel\\", kReadWrite, &h);
            if (s != STATUS_INVALID_PARAMETER) {
                problem("an open of the leftover control device without a port name: " + hex(s));
            }
        }
        PDEVICE_OBJECT device = driver_->DeviceObject;
        if (device == nullptr || device->NextDevice != nullptr || device->DeviceType != FILE_DEVICE_UNKNOWN) {
            problem("the driver's devices after a failed AddDevice are not the control device alone");
            return;
        }
        IoDeleteDevice(device);
    }

    // Whatever the story left: process exit closes the handles, the PnP
    // manager removes the adapter, the system unloads the driver.
    void teardown()
    {
        render_.reset();
        capture_.reset();
        player_.reset();
        recorder_.reset();
        app_.reset();
        playerProcess_.reset();
        recorderProcess_.reset();
        hk::drainIo();
        if (node_ && !node_->removed()) {
            NTSTATUS s = node_->remove();
            if (!NT_SUCCESS(s)) {
                problem("removal during teardown: " + hex(s));
            }
        }
        const bool addFailed = node_ && !NT_SUCCESS(node_->addDeviceStatus());
        node_.reset();
        if (addFailed && driver_ != nullptr && hk::objectExists(u"\\Device\\Ambrel")) {
            leftoverControlDevice();
        }
        if (driver_ != nullptr) {
            hk::drainIo();
            NTSTATUS s = hk::unloadDriver(driver_);
            if (!NT_SUCCESS(s)) {
                problem("unload during teardown: " + hex(s));
            }
            driver_ = nullptr;
        }
        hk::drainIo();
    }

    Outcome outcome_;
    PDRIVER_OBJECT driver_ = nullptr;
    std::shared_ptr<hk::DeviceNode> node_;
    std::unique_ptr<hk::Process> app_ = std::make_unique<hk::Process>(100);
    std::unique_ptr<hk::Process> playerProcess_ = std::make_unique<hk::Process>(200);
    std::unique_ptr<hk::Process> recorderProcess_ = std::make_unique<hk::Process>(300);
    hk::Handle port_ = 0;
    std::unique_ptr<midi::Filter> player_, recorder_;
    std::unique_ptr<midi::Pin> render_, capture_;
};

} // namespace

Outcome runScenario(std::chrono::milliseconds recordWait)
{
    return Story().run(recordWait);
}

} // namespace hardening
