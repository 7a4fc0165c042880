#include "reader.h"

#include <poll.h>

#include <cerrno>
#include <cstring>

#include "status_errno.h"

namespace ambreld {

AsyncReader::AsyncReader(Fetch fetch, Cancel cancel, bool wholeMessages, std::size_t readAhead)
    : fetch_(std::move(fetch)), cancel_(std::move(cancel)), whole_(wholeMessages), readAhead_(readAhead)
{
    thread_ = std::thread([this] { pump(); });
}

AsyncReader::~AsyncReader()
{
    if (thread_.joinable()) {
        stop();
        join();
    }
    if (poll_ != nullptr) {
        fuse_pollhandle_destroy(poll_);
    }
}

void AsyncReader::onInterrupt(fuse_req_t req, void *self)
{
    static_cast<AsyncReader *>(self)->interrupt(req);
}

void AsyncReader::interrupt(fuse_req_t req)
{
    std::unique_lock<std::mutex> lock(m_);
    if (waiter_ != req) {
        return; // already answered
    }
    if (fetching_) {
        // The fetch ends with STATUS_CANCELLED (or with data that won the
        // race) and the pump answers the waiter.
        context_->cancelled = true;
        lock.unlock();
        cancel_();
        return;
    }
    waiter_ = nullptr;
    fuse_reply_err(req, EINTR);
}

void AsyncReader::read(fuse_req_t req, std::size_t size, bool nonBlocking)
{
    if (!nonBlocking) {
        // Registered before the request becomes visible to the pump, which
        // may answer (and free) it at any time after that.
        fuse_req_interrupt_func(req, &AsyncReader::onInterrupt, this);
        if (fuse_req_interrupted(req)) {
            fuse_reply_err(req, EINTR);
            return;
        }
    }
    std::unique_lock<std::mutex> lock(m_);
    if (stopping_) {
        fuse_reply_err(req, EBADF);
        return;
    }
    if (waiter_ != nullptr) {
        fuse_reply_err(req, EBUSY); // one waiting read per port, as in the driver
        return;
    }
    if (!chunks_.empty() || error_ != STATUS_SUCCESS) {
        waiter_ = req;
        waiterSize_ = size;
        deliverLocked();
        return;
    }
    if (nonBlocking) {
        if (!fetching_) {
            wanted_ = true;
            cv_.notify_all();
            std::uint64_t before = fetchCount_;
            cv_.wait(lock, [&] { return stopping_ || fetchCount_ != before || (fetching_ && parked_); });
        }
        if (!chunks_.empty() || error_ != STATUS_SUCCESS) {
            waiter_ = req;
            waiterSize_ = size;
            deliverLocked();
        } else {
            fuse_reply_err(req, EAGAIN);
        }
        return;
    }
    // An interrupt that came after the check above found no waiter to
    // cancel; it is seen here, before the pump can take the request.
    if (fuse_req_interrupted(req)) {
        fuse_reply_err(req, EINTR);
        return;
    }
    waiter_ = req;
    waiterSize_ = size;
    wanted_ = true;
    cv_.notify_all();
}

unsigned AsyncReader::poll(fuse_pollhandle *ph)
{
    std::lock_guard<std::mutex> lock(m_);
    if (!chunks_.empty() || error_ != STATUS_SUCCESS) {
        if (ph != nullptr) {
            fuse_pollhandle_destroy(ph);
        }
        return error_ != STATUS_SUCCESS && chunks_.empty() ? POLLIN | POLLERR : POLLIN | POLLRDNORM;
    }
    if (ph != nullptr) {
        if (poll_ != nullptr) {
            fuse_pollhandle_destroy(poll_);
        }
        poll_ = ph;
    }
    if (!stopping_ && !fetching_) {
        wanted_ = true;
        cv_.notify_all();
    }
    return 0;
}

void AsyncReader::stop()
{
    std::lock_guard<std::mutex> lock(m_);
    stopping_ = true;
    if (waiter_ != nullptr) {
        fuse_reply_err(waiter_, EBADF);
        waiter_ = nullptr;
    }
    cv_.notify_all();
}

std::size_t AsyncReader::buffered()
{
    std::lock_guard<std::mutex> lock(m_);
    std::size_t n = 0;
    for (const auto &c : chunks_) {
        n += c.size();
    }
    return n - headOffset_;
}

void AsyncReader::join()
{
    if (!thread_.joinable()) {
        return;
    }
    // A fetch that started just before stop() may reach the driver after
    // the handle's cleanup, and nothing would ever finish it: cancel it
    // until the pump is out.
    std::unique_lock<std::mutex> lock(m_);
    while (!pumpExited_) {
        if (context_ != nullptr) {
            context_->cancelled = true;
        }
        lock.unlock();
        cancel_();
        lock.lock();
        cv_.wait_for(lock, std::chrono::milliseconds(10), [&] { return pumpExited_; });
    }
    lock.unlock();
    thread_.join();
}

void AsyncReader::deliverLocked()
{
    if (waiter_ != nullptr) {
        if (!chunks_.empty()) {
            std::vector<std::uint8_t> out;
            out.reserve(std::min(waiterSize_, readAhead_));
            if (whole_ && chunks_.front().size() > waiterSize_) {
                fuse_reply_err(waiter_, EMSGSIZE); // the message stays for a larger read
                waiter_ = nullptr;
            } else {
                while (!chunks_.empty() && out.size() < waiterSize_) {
                    const std::vector<std::uint8_t> &c = chunks_.front();
                    std::size_t left = c.size() - headOffset_;
                    std::size_t room = waiterSize_ - out.size();
                    if (whole_ && left > room) {
                        break;
                    }
                    std::size_t n = std::min(left, room);
                    out.insert(out.end(), c.begin() + long(headOffset_), c.begin() + long(headOffset_ + n));
                    headOffset_ += n;
                    if (headOffset_ == c.size()) {
                        chunks_.pop_front();
                        headOffset_ = 0;
                    }
                }
                fuse_reply_buf(waiter_, reinterpret_cast<const char *>(out.data()), out.size());
                waiter_ = nullptr;
            }
        } else if (error_ != STATUS_SUCCESS) {
            fuse_reply_err(waiter_, errnoFromStatus(error_));
            error_ = STATUS_SUCCESS;
            waiter_ = nullptr;
        }
    }
    if (poll_ != nullptr && (!chunks_.empty() || error_ != STATUS_SUCCESS)) {
        fuse_lowlevel_notify_poll(poll_);
        fuse_pollhandle_destroy(poll_);
        poll_ = nullptr;
    }
}

void AsyncReader::pump()
{
    std::unique_lock<std::mutex> lock(m_);
    for (;;) {
        cv_.wait(lock, [&] { return stopping_ || (wanted_ && chunks_.empty() && error_ == STATUS_SUCCESS); });
        if (stopping_) {
            break;
        }
        FetchContext context;
        context.parked = [this] {
            std::lock_guard<std::mutex> g(m_);
            parked_ = true;
            cv_.notify_all();
        };
        std::size_t size = waiter_ != nullptr ? waiterSize_ : readAhead_;
        fetching_ = true;
        parked_ = false;
        context_ = &context;
        lock.unlock();
        Result r = fetch_(size, context);
        lock.lock();
        context_ = nullptr;
        fetching_ = false;
        parked_ = false;
        wanted_ = false;
        ++fetchCount_;
        if (NT_SUCCESS(r.status)) {
            for (auto &c : r.chunks) {
                if (!c.empty()) {
                    chunks_.push_back(std::move(c));
                }
            }
        } else {
            error_ = r.status;
        }
        deliverLocked();
        if (waiter_ != nullptr) {
            wanted_ = true; // a fetch that brought nothing: try again
        }
        cv_.notify_all();
    }
    pumpExited_ = true;
    cv_.notify_all();
}

} // namespace ambreld
