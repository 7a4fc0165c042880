#include "pins.h"

#include <poll.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <unordered_map>
#include <mutex>
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

const std::chrono::milliseconds kDrainPatience{5000};

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

    void closePin() { closePortPin(&filter_, &pin_); }

public:
    NTSTATUS openOn(std::shared_ptr<hk::Process> process, const PortView &port, bool render)
    {
        process_ = std::move(process);
        return openPortPin(*process_, port, render, &filter_, &pin_);
    }
};

// A render pin hands the driver whole messages, and only as many as the
// port's FIFO has room for: what the render stream cannot place it would
// keep in a queue that the pin's close throws away. Bytes wait here instead,
// and the write that brought them is answered once they are in the driver.
class RenderPin : public PinBase {
public:
    explicit RenderPin(std::shared_ptr<PortLink> link)
        : link_(std::move(link)), framer_(link_->sysexSize())
    {
    }
    ~RenderPin() override { close(); }

    void start()
    {
        listener_ = link_->listen([this] {
            std::lock_guard<std::mutex> lock(m_);
            cv_.notify_all();
        });
        thread_ = std::thread([this] { pump(); });
    }

    void write(fuse_req_t req, const std::uint8_t *data, std::size_t length, bool nonBlocking) override
    {
        if (!nonBlocking) {
            watchInterrupt(req);
        }
        std::unique_lock<std::mutex> lock(m_);
        if (int gone = goneLocked()) {
            fuse_reply_err(req, gone);
            return;
        }
        if (link_->refusing()) {
            fuse_reply_err(req, ENODEV); // ambreld stops: only what was taken still goes
            return;
        }
        if (nonBlocking && !pending_.empty()) {
            fuse_reply_err(req, EAGAIN);
            return;
        }
        std::uint64_t base = framer_.fed();
        std::uint64_t writeId = ++writes_;
        std::size_t taken = 0;
        ambrel::midi::Framer::Fault fault = framer_.feed(data, length, [&](const std::uint8_t *m, std::size_t n) {
            pending_.push_back(Message{std::vector<std::uint8_t>(m, m + n), writeId, std::size_t(framer_.fed() - base)});
            ++queued_;
        }, &taken);
        std::size_t accepted = length;
        int error = 0;
        if (fault != ambrel::midi::Framer::Fault::None) {
            // What came before the broken message is written (a short
            // write); the broken message is dropped and said.
            accepted = taken;
            if (framer_.begun() > 0) {
                accepted = framer_.begunAt() >= base ? std::size_t(framer_.begunAt() - base) : 0;
                framer_.dropBegun();
            }
            if (accepted == 0) {
                error = fault == ambrel::midi::Framer::Fault::SysexTooLong ? EMSGSIZE : EBADMSG;
            }
        }
        sentEnd_[writeId] = 0; // what of it goes, should it not finish
        sendLocked();
        if (int gone = goneLocked()) {
            // Gone while this write was handed on: what went is written.
            replyUnfinished(Waiter{req, false, accepted, queued_, writeId}, gone);
            sentEnd_.erase(writeId);
            return;
        }
        if (!pending_.empty()) {
            cv_.notify_all(); // the pump hands on the rest
        }
        if (pending_.empty() || nonBlocking || error != 0 || fuse_req_interrupted(req)) {
            sentEnd_.erase(writeId);
            replyWrite(req, accepted, error);
            return;
        }
        waiters_.push_back(Waiter{req, false, accepted, queued_, writeId});
    }

    void flush(fuse_req_t req) override
    {
        watchInterrupt(req);
        std::lock_guard<std::mutex> lock(m_);
        if (int gone = goneLocked()) {
            dropPendingLocked(gone); // said below, if any was still here
        }
        if (pending_.empty()) {
            replyFlush(req);
            return;
        }
        if (fuse_req_interrupted(req)) {
            fuse_reply_err(req, EINTR);
            return;
        }
        waiters_.push_back(Waiter{req, true, 0, queued_, 0});
        lastProgress_ = Clock::now();
        cv_.notify_all();
    }

    void read(fuse_req_t req, std::size_t, bool) override { fuse_reply_err(req, EBADF); }

    std::size_t backlog() override
    {
        std::lock_guard<std::mutex> lock(m_);
        return pending_.size();
    }

    unsigned poll(fuse_pollhandle *ph) override
    {
        std::lock_guard<std::mutex> lock(m_);
        if (goneLocked() != 0) {
            if (ph != nullptr) {
                fuse_pollhandle_destroy(ph);
            }
            return POLLOUT | POLLERR;
        }
        if (pending_.empty()) {
            if (ph != nullptr) {
                fuse_pollhandle_destroy(ph);
            }
            return POLLOUT | POLLWRNORM;
        }
        if (ph != nullptr) {
            if (poll_ != nullptr) {
                fuse_pollhandle_destroy(poll_);
            }
            poll_ = ph;
        }
        return 0;
    }

    void close() override
    {
        {
            std::unique_lock<std::mutex> lock(m_);
            if (closed_) {
                return;
            }
            closed_ = true;
            lastProgress_ = Clock::now();
            cv_.notify_all();
            // What writers were told is written still goes, while the port
            // takes it.
            cv_.wait(lock, [&] { return pending_.empty() || goneLocked() != 0 || drainExpiredLocked(); });
            stopping_ = true;
            cv_.notify_all();
        }
        if (thread_.joinable()) {
            thread_.join();
        }
        if (listener_ != 0) {
            link_->unlisten(listener_);
            listener_ = 0;
        }
        std::lock_guard<std::mutex> lock(m_);
        for (Waiter &w : waiters_) {
            if (w.flush) {
                fuse_reply_err(w.req, EBADF);
            } else {
                replyUnfinished(w, EBADF);
            }
        }
        waiters_.clear();
        sentEnd_.clear();
        if (poll_ != nullptr) {
            fuse_pollhandle_destroy(poll_);
            poll_ = nullptr;
        }
        closePin();
    }

private:
    using Clock = std::chrono::steady_clock;
    struct Waiter {
        fuse_req_t req;
        bool flush;
        std::size_t accepted; // a write's answer
        std::uint64_t upTo;   // answered once this many messages are sent
        std::uint64_t write;  // which write (sentEnd_)
    };
    struct Message {
        std::vector<std::uint8_t> bytes;
        std::uint64_t write; // the write that brought it
        std::size_t end;     // where it ends in that write's bytes
    };

    // A waiting write that cannot finish: the bytes of it that did go are
    // a short write, as POSIX has it; none, the error.
    void replyUnfinished(const Waiter &w, int error)
    {
        auto it = sentEnd_.find(w.write);
        std::size_t done = it != sentEnd_.end() ? it->second : 0;
        if (done > 0) {
            fuse_reply_write(w.req, done);
        } else {
            fuse_reply_err(w.req, error);
        }
    }

    int goneLocked()
    {
        if (failure_ == 0) {
            failure_ = link_->goneError();
        }
        return failure_;
    }

    bool drainExpiredLocked() const { return Clock::now() - lastProgress_ > kDrainPatience; }

    // Hands the driver the messages that fit the FIFO now, in one request.
    void sendLocked()
    {
        if (pending_.empty() || !pin_ || goneLocked() != 0) {
            return;
        }
        std::lock_guard<std::mutex> sending(link_->sendMutex());
        std::size_t room = link_->room();
        if (room != lastRoom_) {
            lastRoom_ = room;
            lastProgress_ = Clock::now(); // the owner read, or another pin wrote
        }
        std::vector<std::uint8_t> batch;
        std::uint64_t count = 0;
        while (!pending_.empty() && batch.size() + pending_.front().bytes.size() <= room) {
            const Message &m = pending_.front();
            batch.insert(batch.end(), m.bytes.begin(), m.bytes.end());
            auto waiting = sentEnd_.find(m.write);
            if (waiting != sentEnd_.end()) {
                waiting->second = m.end;
            }
            pending_.pop_front();
            ++count;
        }
        if (batch.empty()) {
            return;
        }
        NTSTATUS status = pin_->send(batch);
        if (!NT_SUCCESS(status)) {
            failure_ = errnoFromStatus(status);
            return;
        }
        sent_ += count;
        lastProgress_ = Clock::now();
    }

    void replyWrite(fuse_req_t req, std::size_t accepted, int error)
    {
        if (error != 0) {
            fuse_reply_err(req, error);
        } else {
            fuse_reply_write(req, accepted);
        }
    }

    void replyFlush(fuse_req_t req)
    {
        // Bytes already answered as written were dropped: the close says so.
        if (lost_) {
            lost_ = false;
            fuse_reply_err(req, lostError_);
        } else {
            fuse_reply_err(req, framer_.begun() > 0 ? EBADMSG : 0);
        }
    }

    // Bytes that can no longer go: every waiter hears why.
    void dropPendingLocked(int error)
    {
        if (!pending_.empty()) {
            pending_.clear();
            lost_ = true;
            lostError_ = error;
        }
        sent_ = queued_;
    }

    void answerLocked()
    {
        int gone = goneLocked();
        bool expired = !pending_.empty() && drainExpiredLocked();
        bool flushing = false;
        for (const Waiter &w : waiters_) {
            flushing = flushing || w.flush;
        }
        if (gone != 0) {
            dropPendingLocked(gone);
        } else if (expired && (flushing || closed_)) {
            dropPendingLocked(ETIMEDOUT);
        }
        for (auto it = waiters_.begin(); it != waiters_.end();) {
            if (gone != 0 && !it->flush) {
                replyUnfinished(*it, gone);
            } else if (sent_ >= it->upTo) {
                if (it->flush) {
                    replyFlush(it->req);
                } else {
                    replyWrite(it->req, it->accepted, 0);
                }
            } else {
                ++it;
                continue;
            }
            sentEnd_.erase(it->write);
            it = waiters_.erase(it);
        }
        if (poll_ != nullptr && (pending_.empty() || gone != 0)) {
            fuse_lowlevel_notify_poll(poll_);
            fuse_pollhandle_destroy(poll_);
            poll_ = nullptr;
        }
        cv_.notify_all();
    }

    // The FIFO says nothing when it empties: room is looked at every
    // millisecond while something waits, as the driver's own retry does.
    void pump()
    {
        std::unique_lock<std::mutex> lock(m_);
        while (!stopping_) {
            if (pending_.empty() && waiters_.empty()) {
                cv_.wait(lock);
            } else {
                cv_.wait_for(lock, std::chrono::milliseconds(1));
            }
            sendLocked();
            answerLocked();
        }
    }

    // A signal ends a write's wait: its bytes stay accepted and still go (a
    // later write or the close waits for them). A flush's wait ends with
    // EINTR and its bytes wait for the next one. Registered before the
    // request can be answered by the pump (which frees it); one that comes
    // before the request waits is seen by fuse_req_interrupted.
    void watchInterrupt(fuse_req_t req)
    {
        fuse_req_interrupt_func(req, [](fuse_req_t r, void *self) { static_cast<RenderPin *>(self)->interrupted(r); },
                                this);
    }
    void interrupted(fuse_req_t req)
    {
        std::lock_guard<std::mutex> lock(m_);
        for (auto it = waiters_.begin(); it != waiters_.end(); ++it) {
            if (it->req == req) {
                if (it->flush) {
                    fuse_reply_err(req, EINTR);
                } else {
                    replyWrite(req, it->accepted, 0);
                }
                sentEnd_.erase(it->write);
                waiters_.erase(it);
                return;
            }
        }
    }

    std::shared_ptr<PortLink> link_;
    std::uint64_t listener_ = 0;
    std::mutex m_;
    std::condition_variable cv_;
    std::thread thread_;
    ambrel::midi::Framer framer_;
    std::deque<Message> pending_;
    std::uint64_t writes_ = 0;
    std::unordered_map<std::uint64_t, std::size_t> sentEnd_; // waiting writes: bytes of each sent
    std::uint64_t queued_ = 0; // messages taken from writers
    std::uint64_t sent_ = 0;   // of those, handed to the driver (or dropped)
    std::deque<Waiter> waiters_;
    fuse_pollhandle *poll_ = nullptr;
    std::size_t lastRoom_ = 0;
    Clock::time_point lastProgress_ = Clock::now();
    int failure_ = 0;
    bool lost_ = false;
    int lostError_ = 0;
    bool closed_ = false;
    bool stopping_ = false;
};

// A capture pin delivers the owner's writes in pieces as the framework cuts
// them; the splitter puts whole messages back together for the reader.
class CapturePin : public PinBase {
public:
    explicit CapturePin(std::shared_ptr<PortLink> link) : link_(std::move(link)), splitter_(kLargestMessage) {}
    ~CapturePin() override { close(); }

    void start()
    {
        reader_ = std::make_unique<AsyncReader>(
            [this](std::size_t, AsyncReader::FetchContext &context) { return fetch(context); },
            [this] { cancel(); }, true, kCaptureReadBytes);
        // A withdrawn port sends nothing more: the waiting read ends with
        // the reason instead of waiting for good.
        listener_ = link_->listen([this] { cancel(); });
    }

    void write(fuse_req_t req, const std::uint8_t *, std::size_t, bool) override { fuse_reply_err(req, EBADF); }
    void flush(fuse_req_t req) override { fuse_reply_err(req, 0); }
    void read(fuse_req_t req, std::size_t size, bool nonBlocking) override { reader_->read(req, size, nonBlocking); }
    unsigned poll(fuse_pollhandle *ph) override { return reader_->poll(ph); }

    void close() override
    {
        if (listener_ != 0) {
            link_->unlisten(listener_);
            listener_ = 0;
        }
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
            if (int gone = link_->goneError()) {
                result.status = gone == ENODEV ? STATUS_NO_SUCH_DEVICE : STATUS_SERVER_DISABLED;
                break;
            }
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
                if (r.status == STATUS_CANCELLED && link_->goneError() != 0) {
                    continue; // cancelled for the withdrawal: said above
                }
                break;
            }
            forEachCaptureRecord(header, data.data(), [&](const std::uint8_t *bytes, std::size_t n, LONGLONG) {
                splitter_.feed(bytes, n, [&](const std::uint8_t *m, std::size_t len) {
                    result.chunks.emplace_back(m, m + len);
                });
            });
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

    std::shared_ptr<PortLink> link_;
    std::uint64_t listener_ = 0;
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

NTSTATUS openPortPin(hk::Process &process, const PortView &port, bool render,
                     std::unique_ptr<hk::midi::Filter> *filter, std::unique_ptr<hk::midi::Pin> *pin)
{
    NTSTATUS status = hk::midi::Filter::open(process, port.audioLink, filter);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // The path names the port's slot, and the next port takes a freed
    // slot: a filter whose pins carry another name is that next port's.
    std::u16string name;
    if (!NT_SUCCESS((*filter)->pinName(0, &name)) || name != port.name) {
        (*filter)->close();
        filter->reset();
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    status = STATUS_NOT_FOUND;
    // Render: a legacy MIDI pin, then a DirectMusic one once those are
    // taken (each kind has its own instance limit); capture: MIDI.
    KSPIN_DATAFLOW flow = render ? KSPIN_DATAFLOW_IN : KSPIN_DATAFLOW_OUT;
    std::initializer_list<const GUID *> formats = {&KSDATAFORMAT_SUBTYPE_MIDI, &KSDATAFORMAT_SUBTYPE_DIRECTMUSIC};
    for (const GUID *format : formats) {
        if (!render && format != &KSDATAFORMAT_SUBTYPE_MIDI) {
            break;
        }
        std::optional<ULONG> id = (*filter)->findPin(flow, *format);
        if (!id) {
            continue;
        }
        status = hk::midi::Pin::open(**filter, *id, *format, pin);
        if (NT_SUCCESS(status)) {
            status = (*pin)->setState(KSSTATE_RUN);
            if (!NT_SUCCESS(status)) {
                (*pin)->close();
                pin->reset();
            }
            break;
        }
        if (status != STATUS_INSUFFICIENT_RESOURCES) {
            break;
        }
    }
    if (!NT_SUCCESS(status)) {
        (*filter)->close();
        filter->reset();
    }
    return status;
}

void closePortPin(std::unique_ptr<hk::midi::Filter> *filter, std::unique_ptr<hk::midi::Pin> *pin)
{
    if (*pin) {
        (*pin)->close();
        pin->reset();
    }
    if (*filter) {
        (*filter)->close();
        filter->reset();
    }
}

void forEachCaptureRecord(const KSSTREAM_HEADER &header, const std::uint8_t *data, const CaptureRecordSink &sink)
{
    // The header's time is its first record's; each later record carries
    // its distance from the one before in whole milliseconds.
    LONGLONG time = header.PresentationTime.Time;
    for (std::size_t at = 0; at + sizeof(KSMUSICFORMAT) <= header.DataUsed;) {
        KSMUSICFORMAT record;
        std::memcpy(&record, data + at, sizeof record);
        if (at > 0) {
            time += LONGLONG(record.TimeDeltaMs) * 10000;
        }
        std::size_t n = std::min<std::size_t>(record.ByteCount, header.DataUsed - at - sizeof record);
        sink(data + at + sizeof record, n, time);
        at += (sizeof record + record.ByteCount + 3) & ~std::size_t(3);
    }
}

NTSTATUS PinFile::open(std::shared_ptr<hk::Process> process, const PortView &port, std::shared_ptr<PortLink> link,
                       bool render, std::unique_ptr<PinFile> *pin)
{
    if (render) {
        auto p = std::make_unique<RenderPin>(std::move(link));
        NTSTATUS status = p->openOn(std::move(process), port, true);
        if (NT_SUCCESS(status)) {
            p->start();
            *pin = std::move(p);
        }
        return status;
    }
    auto p = std::make_unique<CapturePin>(std::move(link));
    NTSTATUS status = p->openOn(std::move(process), port, false);
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
