// Reads that may wait a long time (a port owner's read parked in the driver, a
// recording client waiting for MIDI) must not hold a FUSE worker thread. Each
// readable file therefore has an AsyncReader: a FUSE read registers itself as
// the waiter and returns at once; the reader's own thread issues the blocking
// fetch and replies when it ends. The same machinery answers poll (a fetch
// started on the poller's behalf; data it brings is kept for the next read)
// and interrupts (a signal cancels the fetch, the read fails with EINTR).
#pragma once

#include <fuse_lowlevel.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "amplatform.h"

namespace ambreld {

class AsyncReader {
public:
    struct Result {
        NTSTATUS status = STATUS_SUCCESS;
        // Owner handles: one chunk per driver read. Capture pins: one whole
        // MIDI message per chunk.
        std::vector<std::vector<std::uint8_t>> chunks;
    };
    struct FetchContext {
        // Called once the request waits, so a non-blocking read knows that
        // nothing is there now.
        std::function<void()> parked;
        // Set before Cancel is called: a fetch that issues its request after
        // the cancel ran must cancel it itself.
        std::atomic<bool> cancelled{false};
    };
    // Blocks until data or failure.
    using Fetch = std::function<Result(std::size_t maxBytes, FetchContext &context)>;
    // Makes a running fetch return soon (with STATUS_CANCELLED or its data).
    using Cancel = std::function<void()>;

    // wholeMessages: a read returns only whole chunks (EMSGSIZE when the
    // first does not fit); otherwise a read may take part of a chunk and the
    // rest stays for the next one.
    AsyncReader(Fetch fetch, Cancel cancel, bool wholeMessages, std::size_t readAhead);
    ~AsyncReader(); // stop() must have run
    AsyncReader(const AsyncReader &) = delete;
    AsyncReader &operator=(const AsyncReader &) = delete;

    void read(fuse_req_t req, std::size_t size, bool nonBlocking);
    // Readiness bits for a poll request (POLLIN when data or an error waits);
    // arms a fetch and keeps `ph` to notify otherwise.
    unsigned poll(fuse_pollhandle *ph);
    // No fetch starts after this.
    void stop();
    // Bytes fetched and not yet read by anyone.
    std::size_t buffered();
    // Waits for the reader's thread, cancelling a fetch still running (the
    // caller normally ends it first by closing the handle).
    void join();

private:
    void pump();
    void deliverLocked();
    void interrupt(fuse_req_t req);
    static void onInterrupt(fuse_req_t req, void *self);

    Fetch fetch_;
    Cancel cancel_;
    const bool whole_;
    const std::size_t readAhead_;

    std::mutex m_;
    std::condition_variable cv_;
    std::deque<std::vector<std::uint8_t>> chunks_;
    std::size_t headOffset_ = 0; // bytes of chunks_.front() already handed out
    NTSTATUS error_ = STATUS_SUCCESS; // a failure no read has reported yet
    fuse_req_t waiter_ = nullptr;
    std::size_t waiterSize_ = 0;
    bool wanted_ = false;   // a waiter or a poller wants a fetch
    bool fetching_ = false;
    bool parked_ = false;   // the running fetch waits in the driver
    FetchContext *context_ = nullptr; // of the running fetch
    std::uint64_t fetchCount_ = 0; // fetches finished
    bool stopping_ = false;
    bool pumpExited_ = false;
    fuse_pollhandle *poll_ = nullptr;
    std::thread thread_;
};

} // namespace ambreld
