#include "portlink.h"

#include <vector>

#include "adapter/porttable.h"
#include "miniport/amminiport.h"

namespace ambreld {

std::shared_ptr<PortLink> PortLink::of(MidiPort *record)
{
    if (record == nullptr || record->Miniport == nullptr) {
        return nullptr;
    }
    return std::shared_ptr<PortLink>(new PortLink(record->Miniport));
}

PortLink::PortLink(CMiniportAmbrel *miniport) : miniport_(miniport), sysexSize_(miniport->m_SysexSize)
{
    static_cast<IMiniportDMus *>(miniport_)->AddRef();
}

PortLink::~PortLink()
{
    static_cast<IMiniportDMus *>(miniport_)->Release();
}

std::size_t PortLink::room() const
{
    if (miniport_->AttachedPortRecord() == nullptr) {
        return 0;
    }
    KIRQL irql;
    KeAcquireSpinLock(&miniport_->m_Lock, &irql);
    std::size_t room = miniport_->m_Fifo.FifoSpace();
    KeReleaseSpinLock(&miniport_->m_Lock, irql);
    return room;
}

std::size_t PortLink::queued() const
{
    if (miniport_->AttachedPortRecord() == nullptr) {
        return 0;
    }
    KIRQL irql;
    KeAcquireSpinLock(&miniport_->m_Lock, &irql);
    std::size_t depth = miniport_->m_Fifo.FifoDepth();
    KeReleaseSpinLock(&miniport_->m_Lock, irql);
    return depth;
}

int PortLink::goneError() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (gone_ == 0 && miniport_->AttachedPortRecord() == nullptr) {
        return ESHUTDOWN;
    }
    return gone_;
}

void PortLink::withdraw(int error)
{
    // Listeners are called under callMutex_, so that one that unlistens
    // (its file closing) is never called after.
    std::lock_guard<std::mutex> calling(callMutex_);
    std::vector<Listener> callbacks;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (gone_ != 0) {
            return;
        }
        gone_ = error;
        for (auto &entry : listeners_) {
            callbacks.push_back(entry.second);
        }
    }
    for (Listener &callback : callbacks) {
        callback();
    }
}

std::uint64_t PortLink::listen(Listener listener)
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::uint64_t id = nextListener_++;
    listeners_.emplace(id, std::move(listener));
    return id;
}

void PortLink::unlisten(std::uint64_t id)
{
    std::lock_guard<std::mutex> calling(callMutex_);
    std::lock_guard<std::mutex> lock(mutex_);
    listeners_.erase(id);
}

} // namespace ambreld
