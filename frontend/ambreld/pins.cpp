#include "pins.h"

#include <poll.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <thread>

#include <hostkernel/midiclient.h>

#include "midi/midi.h"
#include "reader.h"
#include "status_errno.h"
#include "text.h"

namespace ambreld {

namespace hk = hostkernel;

namespace {

constexpr ULONG kCaptureReadBytes = 64 * 1024;
// Up to the largest SysEx a port can carry, F0 and F7 included.
constexpr std::size_t kLargestMessage = 1048560;

std::string guidText(const GUID &g)
{
    char text[40];
    std::snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", unsigned(g.Data1),
                  unsigned(g.Data2), unsigned(g.Data3), g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4],
                  g.Data4[5], g.Data4[6], g.Data4[7]);
    return text;
}

// Both kinds hold the filter they were created on, as a Windows client holds
// the filter handle under its pin; the process outlives both.
class PinBase : public PinFile {
protected:
    std::shared_ptr<hk::Process> process_;
    std::unique_ptr<hk::midi::Filter> filter_;
    std::unique_ptr<hk::midi::Pin> pin_;

    void closePin()
    {
        if (pin_) {
            pin_->close();
            pin_.reset();
        }
        if (filter_) {
            filter_->close();
            filter_.reset();
        }
    }

public:
    NTSTATUS openOn(std::shared_ptr<hk::Process> process, const PortView &port, KSPIN_DATAFLOW flow,
                    std::initializer_list<const GUID *> formats)
    {
        process_ = std::move(process);
        NTSTATUS status = hk::midi::Filter::open(*process_, port.audioLink, &filter_);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        // The path names the port's slot, and the next port takes a freed
        // slot: a filter whose pins carry another name is that next port's.
        std::u16string name;
        if (!NT_SUCCESS(filter_->pinName(0, &name)) || name != port.name) {
            filter_->close();
            filter_.reset();
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        status = STATUS_NOT_FOUND;
        // The first pin kind with room: each kind has its own instance limit.
        for (const GUID *format : formats) {
            std::optional<ULONG> id = filter_->findPin(flow, *format);
            if (!id) {
                continue;
            }
            status = hk::midi::Pin::open(*filter_, *id, *format, &pin_);
            if (NT_SUCCESS(status)) {
                status = pin_->setState(KSSTATE_RUN);
                if (!NT_SUCCESS(status)) {
                    pin_->close();
                    pin_.reset();
                }
                break;
            }
            if (status != STATUS_INSUFFICIENT_RESOURCES) {
                break;
            }
        }
        if (!NT_SUCCESS(status)) {
            filter_->close();
            filter_.reset();
        }
        return status;
    }
};

class RenderPin : public PinBase {
public:
    NTSTATUS write(const std::uint8_t *data, std::size_t length) override
    {
        if (!pin_) {
            return STATUS_INVALID_HANDLE;
        }
        return pin_->send(std::vector<std::uint8_t>(data, data + length));
    }
    void read(fuse_req_t req, std::size_t, bool) override { fuse_reply_err(req, EBADF); }
    unsigned poll(fuse_pollhandle *ph) override
    {
        if (ph != nullptr) {
            fuse_pollhandle_destroy(ph);
        }
        return POLLOUT | POLLWRNORM;
    }
    void close() override { closePin(); }
};

// A capture pin delivers the owner's writes in pieces as the framework cuts
// them; the splitter puts whole messages back together for the reader.
class CapturePin : public PinBase {
public:
    CapturePin() : splitter_(kLargestMessage) {}
    ~CapturePin() override { close(); }

    void start()
    {
        reader_ = std::make_unique<AsyncReader>(
            [this](std::size_t, AsyncReader::FetchContext &context) { return fetch(context); },
            [this] { cancel(); }, true, kCaptureReadBytes);
    }

    NTSTATUS write(const std::uint8_t *, std::size_t) override { return STATUS_INVALID_DEVICE_REQUEST; }
    void read(fuse_req_t req, std::size_t size, bool nonBlocking) override { reader_->read(req, size, nonBlocking); }
    unsigned poll(fuse_pollhandle *ph) override { return reader_->poll(ph); }

    void close() override
    {
        if (reader_) {
            reader_->stop();
            closing_ = true;
            cancel();
            reader_->join();
            reader_.reset();
        }
        closePin();
    }

private:
    AsyncReader::Result fetch(AsyncReader::FetchContext &context)
    {
        AsyncReader::Result result;
        reading_ = true;
        for (;;) {
            if (context.cancelled || closing_) {
                result.status = STATUS_CANCELLED;
                break;
            }
            // The read stays in the driver's framework until MIDI comes; it
            // counts as waiting from here on.
            context.parked();
            std::vector<std::uint8_t> data(kCaptureReadBytes);
            KSSTREAM_HEADER header{};
            header.Size = sizeof header;
            header.FrameExtent = kCaptureReadBytes;
            header.Data = data.data();
            hk::IoResult r =
                process_->deviceControl(pin_->handle(), IOCTL_KS_READ_STREAM, nullptr, 0, &header, sizeof header);
            if (!NT_SUCCESS(r.status)) {
                result.status = r.status;
                break;
            }
            for (std::size_t at = 0; at + sizeof(KSMUSICFORMAT) <= header.DataUsed;) {
                KSMUSICFORMAT record;
                std::memcpy(&record, data.data() + at, sizeof record);
                std::size_t n = std::min<std::size_t>(record.ByteCount, header.DataUsed - at - sizeof record);
                splitter_.feed(data.data() + at + sizeof record, n, [&](const std::uint8_t *m, std::size_t len) {
                    result.chunks.emplace_back(m, m + len);
                });
                at += (sizeof record + record.ByteCount + 3) & ~std::size_t(3);
            }
            if (!result.chunks.empty()) {
                break; // otherwise only part of a message came: read on
            }
        }
        reading_ = false;
        ++generation_;
        return result;
    }

    // Cancels the read of the running fetch. It may not be issued yet, so
    // the cancel is repeated until that fetch is over.
    void cancel()
    {
        std::uint64_t generation = generation_;
        while (reading_ && generation == generation_) {
            process_->cancelIo(pin_->handle());
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }

    std::unique_ptr<AsyncReader> reader_;
    ambrel::midi::Splitter splitter_;
    std::atomic<bool> reading_{false};
    std::atomic<bool> closing_{false};
    std::atomic<std::uint64_t> generation_{0};
};

const char *subFormatName(const GUID &g)
{
    if (IsEqualGUID(g, KSDATAFORMAT_SUBTYPE_MIDI)) {
        return "MIDI";
    }
    if (IsEqualGUID(g, KSDATAFORMAT_SUBTYPE_DIRECTMUSIC)) {
        return "DirectMusic";
    }
    if (IsEqualGUID(g, KSDATAFORMAT_SUBTYPE_MIDI_BUS)) {
        return "MIDI bus";
    }
    return "other";
}

} // namespace

NTSTATUS PinFile::open(std::shared_ptr<hk::Process> process, const PortView &port, bool render,
                       std::unique_ptr<PinFile> *pin)
{
    if (render) {
        auto p = std::make_unique<RenderPin>();
        NTSTATUS status = p->openOn(std::move(process), port, KSPIN_DATAFLOW_IN,
                                    {&KSDATAFORMAT_SUBTYPE_MIDI, &KSDATAFORMAT_SUBTYPE_DIRECTMUSIC});
        if (NT_SUCCESS(status)) {
            *pin = std::move(p);
        }
        return status;
    }
    auto p = std::make_unique<CapturePin>();
    NTSTATUS status = p->openOn(std::move(process), port, KSPIN_DATAFLOW_OUT, {&KSDATAFORMAT_SUBTYPE_MIDI});
    if (NT_SUCCESS(status)) {
        p->start();
        *pin = std::move(p);
    }
    return status;
}

int errnoFromPinStatus(NTSTATUS status)
{
    // Pin creation: every instance of the pin kinds is taken.
    if (status == STATUS_INSUFFICIENT_RESOURCES) {
        return EBUSY;
    }
    return errnoFromStatus(status);
}

std::string describeFilter(hk::Process &process, const PortView &port)
{
    std::unique_ptr<hk::midi::Filter> filter;
    if (!NT_SUCCESS(hk::midi::Filter::open(process, port.audioLink, &filter))) {
        return "";
    }
    std::ostringstream out;
    ULONG pins = 0;
    if (NT_SUCCESS(filter->pinCount(&pins))) {
        for (ULONG i = 0; i < pins; ++i) {
            hk::midi::PinDescription d;
            std::u16string name;
            if (!NT_SUCCESS(filter->describePin(i, &d))) {
                continue;
            }
            bool named = NT_SUCCESS(filter->pinName(i, &name));
            out << "pin " << i << ": " << (d.dataFlow == KSPIN_DATAFLOW_IN ? "in" : "out") << " "
                << (d.communication == KSPIN_COMMUNICATION_SINK ? "sink" : "bridge") << ", "
                << d.instances.CurrentCount << "/" << d.instances.PossibleCount << " open";
            for (const GUID &g : d.subFormats) {
                out << ", " << subFormatName(g);
            }
            out << ", name \"" << (named ? utf16ToUtf8(name) : "") << "\"\n";
        }
    }
    for (ULONG node = 0; node < 2; ++node) {
        SYNTHCAPS caps{};
        if (NT_SUCCESS(filter->synthCaps(node, &caps))) {
            out << "caps node " << node << ": " << utf16ToUtf8(reinterpret_cast<const char16_t *>(caps.Description))
                << "\n";
        }
    }
    KSCOMPONENTID id{};
    if (NT_SUCCESS(filter->componentId(&id))) {
        out << "manufacturer: " << guidText(id.Manufacturer) << "\n";
        out << "product: " << guidText(id.Product) << "\n";
    }
    filter->close();
    return out.str();
}

} // namespace ambreld
