#include "mp_fakes.h"

#include <algorithm>
#include <cstring>

FakeAllocator::~FakeAllocator()
{
    for (PDMUS_KERNEL_EVENT event : liveEvents_) {
        delete event;
    }
    for (PBYTE buffer : liveBuffers_) {
        delete[] buffer;
    }
}

STDMETHODIMP_(NTSTATUS) FakeAllocator::GetMessage(PDMUS_KERNEL_EVENT *event)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (failMsgSkip_ > 0) {
        failMsgSkip_--;
    } else if (failMsgCount_ > 0) {
        failMsgCount_--;
        *event = NULL;
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto *e = new DMUS_KERNEL_EVENT();
    std::memset(e, 0, sizeof(*e));
    e->cbStruct = sizeof(DMUS_KERNEL_EVENT);
    liveEvents_.push_back(e);
    outEvents_++;
    *event = e;
    return STATUS_SUCCESS;
}

STDMETHODIMP_(NTSTATUS) FakeAllocator::GetBuffer(PBYTE *buffer)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (failBufSkip_ > 0) {
        failBufSkip_--;
    } else if (failBufCount_ > 0) {
        failBufCount_--;
        *buffer = NULL;
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PBYTE b = new BYTE[bufferSize_ == 0 ? 1 : bufferSize_];
    liveBuffers_.push_back(b);
    outBuffers_++;
    *buffer = b;
    return STATUS_SUCCESS;
}

STDMETHODIMP_(NTSTATUS) FakeAllocator::PutBuffer(PBYTE buffer)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = std::find(liveBuffers_.begin(), liveBuffers_.end(), buffer);
    if (it == liveBuffers_.end()) {
        errors_++;
        return STATUS_INVALID_PARAMETER;
    }
    liveBuffers_.erase(it);
    delete[] buffer;
    outBuffers_--;
    return STATUS_SUCCESS;
}

void FakeAllocator::freeOne(PDMUS_KERNEL_EVENT event)
{
    // As the framework's allocator: a package event's list goes with it, and
    // a long event's buffer is returned with the event.
    auto it = std::find(liveEvents_.begin(), liveEvents_.end(), event);
    if (it == liveEvents_.end()) {
        errors_++;
        return;
    }
    liveEvents_.erase(it);
    if (event->cbEvent > sizeof(PBYTE)) {
        if (event->usFlags & DMUS_KEF_PACKAGE_EVENT) {
            PDMUS_KERNEL_EVENT inner = event->uData.pPackageEvt;
            while (inner != NULL) {
                PDMUS_KERNEL_EVENT next = inner->pNextEvt;
                freeOne(inner);
                inner = next;
            }
        } else if (event->uData.pbData != NULL) {
            auto b = std::find(liveBuffers_.begin(), liveBuffers_.end(), event->uData.pbData);
            if (b == liveBuffers_.end()) {
                errors_++;
            } else {
                liveBuffers_.erase(b);
                delete[] event->uData.pbData;
                outBuffers_--;
            }
        }
    }
    delete event;
    outEvents_--;
    returned_++;
}

STDMETHODIMP_(NTSTATUS) FakeAllocator::PutMessage(PDMUS_KERNEL_EVENT events)
{
    std::lock_guard<std::mutex> lock(mutex_);
    while (events != NULL) {
        PDMUS_KERNEL_EVENT next = events->pNextEvt;
        freeOne(events);
        events = next;
    }
    return STATUS_SUCCESS;
}

PDMUS_KERNEL_EVENT FakeAllocator::makeEvent(const std::vector<uint8_t> &bytes)
{
    PDMUS_KERNEL_EVENT e = NULL;
    std::lock_guard<std::mutex> lock(mutex_);
    e = new DMUS_KERNEL_EVENT();
    std::memset(e, 0, sizeof(*e));
    e->cbStruct = sizeof(DMUS_KERNEL_EVENT);
    e->cbEvent = (USHORT)bytes.size();
    e->usChannelGroup = 1;
    if (bytes.size() <= sizeof(PBYTE)) {
        std::copy(bytes.begin(), bytes.end(), e->uData.abData);
    } else {
        PBYTE b = new BYTE[bytes.size()];
        std::copy(bytes.begin(), bytes.end(), b);
        e->uData.pbData = b;
        liveBuffers_.push_back(b);
        outBuffers_++;
    }
    liveEvents_.push_back(e);
    outEvents_++;
    return e;
}

PDMUS_KERNEL_EVENT FakeAllocator::makePackage(PDMUS_KERNEL_EVENT packaged)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto *e = new DMUS_KERNEL_EVENT();
    std::memset(e, 0, sizeof(*e));
    e->cbStruct = sizeof(DMUS_KERNEL_EVENT);
    e->cbEvent = sizeof(DMUS_KERNEL_EVENT) + 8;  // any size above the inline room
    e->usFlags = DMUS_KEF_PACKAGE_EVENT;
    e->uData.pPackageEvt = packaged;
    liveEvents_.push_back(e);
    outEvents_++;
    return e;
}

PDMUS_KERNEL_EVENT FakeAllocator::chain(std::initializer_list<PDMUS_KERNEL_EVENT> events)
{
    PDMUS_KERNEL_EVENT head = NULL, tail = NULL;
    for (PDMUS_KERNEL_EVENT e : events) {
        if (tail != NULL) {
            tail->pNextEvt = e;
        } else {
            head = e;
        }
        tail = e;
    }
    return head;
}

STDMETHODIMP_(NTSTATUS) FakeSink::PutMessage(PDMUS_KERNEL_EVENT events)
{
    if (!record_) {
        received_++;
        return allocator_->PutMessage(events);
    }
    std::vector<CapturedEvent> list;
    for (PDMUS_KERNEL_EVENT e = events; e != NULL; e = e->pNextEvt) {
        CapturedEvent c;
        c.inlineData = e->cbEvent <= sizeof(PBYTE);
        const uint8_t *data = c.inlineData ? e->uData.abData : e->uData.pbData;
        c.bytes.assign(data, data + e->cbEvent);
        c.time = e->ullPresTime100ns;
        c.channelGroup = e->usChannelGroup;
        c.flags = e->usFlags;
        list.push_back(std::move(c));
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        lists_.push_back(std::move(list));
    }
    received_++;
    return allocator_->PutMessage(events);
}

std::vector<std::vector<uint8_t>> FakeSink::writes() const
{
    std::vector<std::vector<uint8_t>> out;
    for (const auto &list : lists()) {
        std::vector<uint8_t> bytes;
        for (const auto &e : list) {
            bytes.insert(bytes.end(), e.bytes.begin(), e.bytes.end());
        }
        out.push_back(std::move(bytes));
    }
    return out;
}
