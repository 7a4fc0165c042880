// What ambreld knows of a port beyond what a MIDI client could ask: the room
// left in its FIFO (so that writers wait instead of piling MIDI up in a
// render stream that drops it at close), its SysEx size, and whether its
// owner still holds it. Every look into the driver's objects is here.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

struct _MidiPort;
class CMiniportAmbrel;

namespace ambreld {

class PortLink {
public:
    // Holds a reference on the port's miniport, which outlives the port's
    // record (and so the owner's handle); null when the record has none.
    static std::shared_ptr<PortLink> of(struct _MidiPort *record);
    ~PortLink();
    PortLink(const PortLink &) = delete;
    PortLink &operator=(const PortLink &) = delete;

    // Bytes the FIFO takes now (0 once the port is withdrawn).
    std::size_t room() const;
    std::uint32_t sysexSize() const { return sysexSize_; }
    // Bytes in the FIFO that the owner has not read yet.
    std::size_t queued() const;

    // ambreld is stopping: what writers were told is written still goes to
    // the owner, new bytes are refused (ENODEV).
    void refuseNew() { refusing_ = true; }
    bool refusing() const { return refusing_; }

    // The errno its pins answer once the port is gone: 0 while it is
    // there, ESHUTDOWN after its owner closed it, ENODEV when ambreld stops.
    int goneError() const;
    // Said by the owner's file when it closes; every listener hears it.
    void withdraw(int error);
    using Listener = std::function<void()>;
    std::uint64_t listen(Listener listener);
    // Not to be called with a lock that a listener takes.
    void unlisten(std::uint64_t id);

    // Held around a look at room() and the send that follows, so that the
    // port's pins never overfill the FIFO between them.
    std::mutex &sendMutex() { return sendMutex_; }

private:
    explicit PortLink(CMiniportAmbrel *miniport);

    CMiniportAmbrel *miniport_;
    std::uint32_t sysexSize_;
    std::atomic<bool> refusing_{false};
    std::mutex sendMutex_;
    std::mutex callMutex_;
    mutable std::mutex mutex_;
    int gone_ = 0;
    std::uint64_t nextListener_ = 1;
    std::map<std::uint64_t, Listener> listeners_;
};

} // namespace ambreld
