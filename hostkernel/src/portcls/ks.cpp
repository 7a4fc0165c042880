// Kernel streaming on the adapter device: filters made from a miniport's
// description, pins with their DMus streams, property requests, and the
// music streams of render and capture pins.
#include <algorithm>

#include "hostkernel/registry.h"
#include "port.h"

namespace hostkernel::detail::pc {

namespace {

std::mutex gKsMutex;
std::map<PFILE_OBJECT, std::shared_ptr<KsObject>> gKsObjects;
std::atomic<long> gFilters{0};
std::atomic<long> gPins{0};

NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

ULONG align4(ULONG n) { return (n + 3) & ~3u; }
ULONG align8(ULONG n) { return (n + 7) & ~7u; }

const KSIDENTIFIER kStandardInterface = {{{KSINTERFACESETID_Standard, KSINTERFACE_STANDARD_STREAMING, 0}}};
const KSIDENTIFIER kStandardMedium = {{{KSMEDIUMSETID_Standard, KSMEDIUM_STANDARD_DEVIO, 0}}};

} // namespace

// ------------------------------------------------------------------ filter
class Filter : public KsObject {
public:
    bool isPin() const override { return false; }

    const PCPIN_DESCRIPTOR *pin(ULONG id) const
    {
        return reinterpret_cast<const PCPIN_DESCRIPTOR *>(reinterpret_cast<const UCHAR *>(description->Pins) +
                                                          size_t(id) * description->PinSize);
    }
    const PCNODE_DESCRIPTOR *node(ULONG id) const
    {
        return reinterpret_cast<const PCNODE_DESCRIPTOR *>(reinterpret_cast<const UCHAR *>(description->Nodes) +
                                                           size_t(id) * description->NodeSize);
    }
    ULONG instances(ULONG id)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return counts[id];
    }

    std::shared_ptr<Adapter> adapter;
    Port *port = nullptr; // counted
    const PCFILTER_DESCRIPTOR *description = nullptr;
    std::mutex mutex;
    std::vector<ULONG> counts; // pin instances of this filter
};

// ------------------------------------------------------------------ pin
class CaptureSink;

class Pin : public KsObject {
public:
    bool isPin() const override { return true; }

    // Capture data: one record per event list the stream handed on.
    struct Record {
        std::vector<uint8_t> bytes;
        LONGLONG time = 0;
        size_t taken = 0; // bytes already read
    };

    void deliver(std::vector<uint8_t> bytes, LONGLONG time);
    NTSTATUS read(PIRP irp);
    NTSTATUS write(PIRP irp);
    NTSTATUS setState(KSSTATE target);
    void cancelReads();
    void close();
    static VOID NTAPI cancelRead(PDEVICE_OBJECT, PIRP irp);

    std::shared_ptr<Filter> filter;
    ULONG pinId = 0;
    bool capture = false;
    std::vector<uint8_t> format;
    PMXF stream = nullptr;
    PSERVICEGROUP group = nullptr;
    CaptureSink *sink = nullptr;

    std::mutex stateMutex; // serialises state changes
    std::atomic<int> state{KSSTATE_STOP};
    ULONGLONG bytePosition = 0; // stateMutex

    std::mutex queueMutex;
    std::deque<Record> records;
    size_t queuedBytes = 0;
    std::deque<PIRP> reads;
    LONGLONG lastTime = 0;
    bool haveLastTime = false;
    bool closing = false;

private:
    // queueMutex held. Fills the request's stream headers from the records;
    // returns the information count, or fails on a header that holds nothing.
    NTSTATUS fill(PIRP irp, ULONG_PTR *information);
};

// The sink a capture stream hands its event lists to: the bytes go to the
// pin's readers, the events back to the allocator.
class CaptureSink : public IMXF, public Object {
public:
    CaptureSink(const std::shared_ptr<Pin> &pin, Allocator *allocator)
        : Object("capture sink"), pin_(pin), allocator_(allocator)
    {
        allocatorInterface(allocator_)->AddRef();
    }
    HK_PC_UNKNOWN()
    STDMETHODIMP_(NTSTATUS) SetState(KSSTATE) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(NTSTATUS) ConnectOutput(PMXF) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(NTSTATUS) DisconnectOutput(PMXF) override { return STATUS_SUCCESS; }
    STDMETHODIMP_(NTSTATUS) PutMessage(PDMUS_KERNEL_EVENT list) override
    {
        if (list == NULL) {
            return STATUS_SUCCESS;
        }
        std::vector<uint8_t> bytes;
        appendBytes(list, &bytes);
        LONGLONG time = list->ullPresTime100ns;
        allocatorInterface(allocator_)->PutMessage(list);
        std::shared_ptr<Pin> pin;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            pin = pin_.lock();
        }
        if (pin != nullptr && !bytes.empty()) {
            pin->deliver(std::move(bytes), time);
        }
        return STATUS_SUCCESS;
    }
    void detach()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        pin_.reset();
    }

private:
    void finalRelease() override { allocatorInterface(allocator_)->Release(); }

    std::mutex mutex_;
    std::weak_ptr<Pin> pin_;
    Allocator *allocator_;
};

STDMETHODIMP_(NTSTATUS) CaptureSink::QueryInterface(REFIID iid, PVOID *object)
{
    if (object == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (IsEqualGUID(iid, IID_IUnknown) || IsEqualGUID(iid, IID_IMXF)) {
        *object = static_cast<IMXF *>(this);
        addRef();
        return STATUS_SUCCESS;
    }
    *object = NULL;
    return STATUS_INVALID_PARAMETER;
}

// ------------------------------------------------------------------ registry of KS objects
std::shared_ptr<KsObject> ksObjectOf(PFILE_OBJECT file)
{
    if (file == NULL) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(gKsMutex);
    auto it = gKsObjects.find(file);
    return it == gKsObjects.end() ? nullptr : it->second;
}

void registerKsObject(PFILE_OBJECT file, const std::shared_ptr<KsObject> &object)
{
    std::lock_guard<std::mutex> lock(gKsMutex);
    gKsObjects[file] = object;
    file->FsContext = object.get();
}

std::shared_ptr<KsObject> unregisterKsObject(PFILE_OBJECT file)
{
    std::lock_guard<std::mutex> lock(gKsMutex);
    auto it = gKsObjects.find(file);
    if (it == gKsObjects.end()) {
        return nullptr;
    }
    std::shared_ptr<KsObject> object = it->second;
    gKsObjects.erase(it);
    file->FsContext = NULL;
    return object;
}

size_t openFilterCount() { return size_t(gFilters.load()); }
size_t openPinCount() { return size_t(gPins.load()); }

// ------------------------------------------------------------------ creation
NTSTATUS createFilter(const std::shared_ptr<Adapter> &adapter, PIRP irp)
{
    PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    if (file == NULL) {
        return complete(irp, STATUS_INVALID_PARAMETER);
    }
    std::u16string name(reinterpret_cast<const char16_t *>(file->FileName.Buffer), file->FileName.Length / 2);
    while (!name.empty() && name.front() == u'\\') {
        name.erase(0, 1);
    }
    while (!name.empty() && name.back() == u'\\') {
        name.pop_back();
    }
    Port *port = nullptr;
    {
        std::lock_guard<std::mutex> lock(adapter->mutex);
        for (const Subdevice &s : adapter->subdevices) {
            if (equalNoCase(s.name, name)) {
                port = s.port;
                port->addRef();
                break;
            }
        }
    }
    if (port == nullptr) {
        return complete(irp, STATUS_OBJECT_NAME_NOT_FOUND);
    }
    if (!port->openFilter()) {
        port->release();
        return complete(irp, STATUS_OBJECT_NAME_NOT_FOUND);
    }
    const PCFILTER_DESCRIPTOR *description = nullptr;
    NTSTATUS status = port->description(&description);
    if (!NT_SUCCESS(status)) {
        port->closeFilter();
        port->release();
        return complete(irp, status);
    }
    auto filter = std::make_shared<Filter>();
    filter->adapter = adapter;
    filter->port = port;
    filter->description = description;
    filter->counts.assign(description->PinCount, 0);
    registerKsObject(file, filter);
    gFilters++;
    return complete(irp, STATUS_SUCCESS);
}

namespace {

bool formatMatches(const KSDATAFORMAT &format, const KSPIN_DESCRIPTOR &pin)
{
    for (ULONG i = 0; i < pin.DataRangesCount; i++) {
        const KSDATARANGE *range = pin.DataRanges[i];
        if (range == NULL) {
            continue;
        }
        auto matches = [](const GUID &r, const GUID &f) { return r == GUID_NULL || r == f; };
        if (matches(range->MajorFormat, format.MajorFormat) && matches(range->SubFormat, format.SubFormat) &&
            matches(range->Specifier, format.Specifier)) {
            return true;
        }
    }
    return false;
}

bool identifierOffered(const KSIDENTIFIER &wanted, ULONG count, const KSIDENTIFIER *offered,
                       const KSIDENTIFIER &standard)
{
    if (count == 0 || offered == NULL) {
        return wanted.Set == standard.Set && wanted.Id == standard.Id;
    }
    for (ULONG i = 0; i < count; i++) {
        if (wanted.Set == offered[i].Set && wanted.Id == offered[i].Id) {
            return true;
        }
    }
    return false;
}

} // namespace

NTSTATUS createPin(const std::shared_ptr<Adapter> &, PIRP irp)
{
    PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    std::shared_ptr<KsObject> parent = ksObjectOf(file->RelatedFileObject);
    if (parent == nullptr || parent->isPin()) {
        return complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    auto filter = std::static_pointer_cast<Filter>(parent);

    // "{146F1A80-...}\" then the KSPIN_CONNECT and the KSDATAFORMAT, in binary.
    const char16_t *units = reinterpret_cast<const char16_t *>(file->FileName.Buffer);
    size_t count = file->FileName.Length / 2;
    size_t start = count > 0 && units[0] == u'\\' ? 1 : 0;
    static const std::u16string kPin = u"{146F1A80-4791-11D0-A5D6-28DB04C10000}";
    if (count < start + kPin.size() + 1 || !equalNoCase(std::u16string_view(units + start, kPin.size()), kPin) ||
        units[start + kPin.size()] != u'\\') {
        return complete(irp, STATUS_OBJECT_NAME_NOT_FOUND);
    }
    const UCHAR *binary = reinterpret_cast<const UCHAR *>(units + start + kPin.size() + 1);
    size_t binaryLength = (count - start - kPin.size() - 1) * 2;
    if (binaryLength < sizeof(KSPIN_CONNECT) + sizeof(KSDATAFORMAT)) {
        return complete(irp, STATUS_INVALID_BUFFER_SIZE);
    }
    KSPIN_CONNECT connect;
    memcpy(&connect, binary, sizeof(connect));
    KSDATAFORMAT format;
    memcpy(&format, binary + sizeof(connect), sizeof(format));
    if (format.FormatSize < sizeof(KSDATAFORMAT) || format.FormatSize > binaryLength - sizeof(connect)) {
        return complete(irp, STATUS_INVALID_PARAMETER);
    }
    const PCFILTER_DESCRIPTOR *d = filter->description;
    if (connect.PinId >= d->PinCount || connect.PinToHandle != NULL) {
        return complete(irp, STATUS_INVALID_PARAMETER);
    }
    const PCPIN_DESCRIPTOR *pd = filter->pin(connect.PinId);
    const KSPIN_DESCRIPTOR &ks = pd->KsPinDescriptor;
    if (ks.Communication != KSPIN_COMMUNICATION_SINK && ks.Communication != KSPIN_COMMUNICATION_BOTH) {
        return complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    if (!identifierOffered(connect.Interface, ks.InterfacesCount, ks.Interfaces, kStandardInterface) ||
        !identifierOffered(connect.Medium, ks.MediumsCount, ks.Mediums, kStandardMedium) ||
        !formatMatches(format, ks)) {
        return complete(irp, STATUS_NO_MATCH);
    }

    // Instance limits: the descriptor's, as the miniport's IPinCount adjusts them.
    Port *port = filter->port;
    ULONG necessary = pd->MinFilterInstanceCount;
    ULONG filterPossible = pd->MaxFilterInstanceCount;
    ULONG globalPossible = pd->MaxGlobalInstanceCount;
    ULONG filterCurrent = filter->instances(connect.PinId);
    ULONG globalCurrent = port->globalInstances(connect.PinId);
    if (PPINCOUNT pinCount = port->pinCountInterface()) {
        pinCount->PinCount(connect.PinId, &necessary, &filterCurrent, &filterPossible, &globalCurrent,
                           &globalPossible);
        pinCount->Release();
    }
    {
        std::lock_guard<std::mutex> lock(filter->mutex);
        if (filter->counts[connect.PinId] >= filterPossible) {
            return complete(irp, STATUS_INSUFFICIENT_RESOURCES);
        }
        if (!port->admitPin(connect.PinId, globalPossible)) {
            return complete(irp, STATUS_INSUFFICIENT_RESOURCES);
        }
        filter->counts[connect.PinId]++;
    }
    auto leave = [&]() {
        port->leavePin(connect.PinId);
        std::lock_guard<std::mutex> lock(filter->mutex);
        filter->counts[connect.PinId]--;
    };

    auto pin = std::make_shared<Pin>();
    pin->filter = filter;
    pin->pinId = connect.PinId;
    pin->capture = ks.DataFlow == KSPIN_DATAFLOW_OUT;
    pin->format.assign(binary + sizeof(connect), binary + sizeof(connect) + format.FormatSize);

    PMINIPORTDMUS miniport = port->miniport();
    if (miniport == NULL) {
        leave();
        return complete(irp, STATUS_DEVICE_REMOVED);
    }
    PMXF stream = NULL;
    PSERVICEGROUP group = NULL;
    ULONGLONG prefetch = 0;
    NTSTATUS status = miniport->NewStream(&stream, NULL, NonPagedPool, connect.PinId,
                                          pin->capture ? DMUS_STREAM_MIDI_CAPTURE : DMUS_STREAM_MIDI_RENDER,
                                          reinterpret_cast<PKSDATAFORMAT>(pin->format.data()), &group,
                                          allocatorInterface(port->allocator()), port->clock(), &prefetch);
    miniport->Release();
    if (NT_SUCCESS(status) && stream == NULL) {
        status = STATUS_UNSUCCESSFUL; // a stream that does not exist cannot be played to
    }
    if (!NT_SUCCESS(status)) {
        if (group != NULL) {
            group->Release();
        }
        leave();
        return complete(irp, status);
    }
    checkComIdentity(stream, nullptr, "stream");
    pin->stream = stream;
    if (pin->capture) {
        pin->sink = new CaptureSink(pin, port->allocator());
        status = stream->ConnectOutput(pin->sink);
        if (!NT_SUCCESS(status)) {
            pin->sink->detach();
            stream->Release();
            pin->sink->release();
            if (group != NULL) {
                group->Release();
            }
            leave();
            return complete(irp, status);
        }
    }
    if (group != NULL) {
        pin->group = group;
        port->addMembership(group);
    }
    registerKsObject(file, pin);
    gPins++;
    return complete(irp, STATUS_SUCCESS);
}

// ------------------------------------------------------------------ state and teardown
NTSTATUS Pin::setState(KSSTATE target)
{
    if (target < KSSTATE_STOP || target > KSSTATE_RUN) {
        return STATUS_INVALID_PARAMETER;
    }
    std::lock_guard<std::mutex> lock(stateMutex);
    Port *port = filter->port;
    // Kernel streaming moves a pin one state at a time; the stream sees each.
    while (state.load() != target) {
        KSSTATE current = KSSTATE(state.load());
        KSSTATE next = KSSTATE(current < target ? current + 1 : current - 1);
        if (capture && current == KSSTATE_RUN) {
            port->stopCapture(stream);
        }
        NTSTATUS status = stream->SetState(next);
        if (!NT_SUCCESS(status)) {
            if (capture && current == KSSTATE_RUN) {
                port->startCapture(stream);
            }
            return status;
        }
        state = next;
        if (capture && next == KSSTATE_RUN) {
            port->startCapture(stream);
        }
    }
    return STATUS_SUCCESS;
}

void Pin::cancelReads()
{
    std::vector<PIRP> claimed;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        for (auto it = reads.begin(); it != reads.end();) {
            if (IoSetCancelRoutine(*it, NULL) != NULL) {
                claimed.push_back(*it);
                it = reads.erase(it);
            } else {
                ++it; // its cancel routine finishes it
            }
        }
    }
    for (PIRP irp : claimed) {
        complete(irp, STATUS_CANCELLED);
    }
}

void Pin::close()
{
    setState(KSSTATE_STOP);
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        closing = true;
        records.clear();
        queuedBytes = 0;
    }
    cancelReads();
    Port *port = filter->port;
    if (capture) {
        stream->DisconnectOutput(sink);
    }
    if (group != NULL) {
        port->removeMembership(group);
        group->Release();
        group = NULL;
    }
    stream->Release();
    stream = NULL;
    if (sink != nullptr) {
        sink->detach();
        sink->release();
        sink = nullptr;
    }
    port->leavePin(pinId);
    std::lock_guard<std::mutex> lock(filter->mutex);
    filter->counts[pinId]--;
}

NTSTATUS closeKsObject(PIRP irp)
{
    std::shared_ptr<KsObject> object = unregisterKsObject(IoGetCurrentIrpStackLocation(irp)->FileObject);
    if (object != nullptr) {
        if (object->isPin()) {
            std::static_pointer_cast<Pin>(object)->close();
            gPins--;
        } else {
            auto filter = std::static_pointer_cast<Filter>(object);
            filter->port->closeFilter();
            filter->port->release();
            filter->port = nullptr;
            gFilters--;
        }
    }
    return complete(irp, STATUS_SUCCESS);
}

NTSTATUS cleanupKsObject(PIRP irp)
{
    std::shared_ptr<KsObject> object = ksObjectOf(IoGetCurrentIrpStackLocation(irp)->FileObject);
    if (object != nullptr && object->isPin()) {
        std::static_pointer_cast<Pin>(object)->cancelReads();
    }
    return complete(irp, STATUS_SUCCESS);
}

// ------------------------------------------------------------------ music streams
void Pin::deliver(std::vector<uint8_t> bytes, LONGLONG time)
{
    std::vector<std::pair<PIRP, ULONG_PTR>> done;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        if (closing) {
            return;
        }
        if (queuedBytes + bytes.size() > settings().captureQueueLimit) {
            DbgPrint("portcls: capture pin dropped %u bytes\n", unsigned(bytes.size()));
            return;
        }
        queuedBytes += bytes.size();
        records.push_back(Record{std::move(bytes), time, 0});
        for (auto it = reads.begin(); it != reads.end() && !records.empty();) {
            if (IoSetCancelRoutine(*it, NULL) == NULL) {
                ++it; // being cancelled
                continue;
            }
            ULONG_PTR information = 0;
            NTSTATUS status = fill(*it, &information);
            (*it)->IoStatus.Status = status;
            done.emplace_back(*it, information);
            it = reads.erase(it);
        }
    }
    for (auto &[irp, information] : done) {
        complete(irp, irp->IoStatus.Status, information);
    }
}

NTSTATUS Pin::fill(PIRP irp, ULONG_PTR *information)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    ULONG length = stack->Parameters.DeviceIoControl.OutputBufferLength;
    auto *headers = static_cast<UCHAR *>(irp->UserBuffer);
    for (ULONG pos = 0; pos + sizeof(KSSTREAM_HEADER) <= length;) {
        auto *header = reinterpret_cast<PKSSTREAM_HEADER>(headers + pos);
        auto *data = static_cast<UCHAR *>(header->Data);
        ULONG used = 0;
        bool first = true;
        while (!records.empty()) {
            Record &r = records.front();
            ULONG left = ULONG(r.bytes.size() - r.taken);
            ULONG room = header->FrameExtent - used;
            if (room < sizeof(KSMUSICFORMAT) + 1) {
                break;
            }
            ULONG n = std::min(left, ULONG(room - sizeof(KSMUSICFORMAT)));
            if (n < left && !first) {
                break; // a record is split only when it does not fit an empty buffer
            }
            KSMUSICFORMAT record;
            LONGLONG delta = haveLastTime && r.taken == 0 ? (r.time - lastTime) / 10000 : 0;
            record.TimeDeltaMs = ULONG(delta < 0 ? 0 : delta);
            record.ByteCount = n;
            memcpy(data + used, &record, sizeof(record));
            memcpy(data + used + sizeof(record), r.bytes.data() + r.taken, n);
            if (first) {
                header->PresentationTime.Time = r.time;
                header->PresentationTime.Numerator = 1;
                header->PresentationTime.Denominator = 1;
                header->OptionsFlags |= KSSTREAM_HEADER_OPTIONSF_TIMEVALID;
                first = false;
            }
            used = std::min(header->FrameExtent, align4(used + sizeof(record) + n));
            lastTime = r.time;
            haveLastTime = true;
            r.taken += n;
            if (r.taken == r.bytes.size()) {
                queuedBytes -= r.bytes.size();
                records.pop_front();
            }
        }
        header->DataUsed = used;
        pos += header->Size;
    }
    *information = length;
    return STATUS_SUCCESS;
}

namespace {

// The stream headers of a KS streaming request, checked before anything is
// read or written through them.
NTSTATUS checkHeaders(PIRP irp, bool reading)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    ULONG length = stack->Parameters.DeviceIoControl.OutputBufferLength;
    auto *bytes = static_cast<UCHAR *>(irp->UserBuffer);
    if (length < sizeof(KSSTREAM_HEADER) || bytes == NULL) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    for (ULONG pos = 0; pos < length;) {
        if (length - pos < sizeof(KSSTREAM_HEADER)) {
            return STATUS_INVALID_BUFFER_SIZE;
        }
        auto *header = reinterpret_cast<PKSSTREAM_HEADER>(bytes + pos);
        if (header->Size < sizeof(KSSTREAM_HEADER) || header->Size > length - pos) {
            return STATUS_INVALID_PARAMETER;
        }
        ULONG extent = reading ? header->FrameExtent : header->DataUsed;
        if (extent > 0 && header->Data == NULL) {
            return STATUS_INVALID_PARAMETER;
        }
        if (reading && header->FrameExtent < sizeof(KSMUSICFORMAT) + 1) {
            return STATUS_BUFFER_TOO_SMALL; // no room for a single byte of MIDI
        }
        if (!reading) {
            auto *data = static_cast<const UCHAR *>(header->Data);
            for (ULONG at = 0; at < header->DataUsed;) {
                KSMUSICFORMAT record;
                if (header->DataUsed - at < sizeof(record)) {
                    return STATUS_INVALID_PARAMETER;
                }
                memcpy(&record, data + at, sizeof(record));
                if (record.ByteCount > header->DataUsed - at - sizeof(record)) {
                    return STATUS_INVALID_PARAMETER;
                }
                at = align4(at + sizeof(record) + record.ByteCount);
            }
        }
        pos += header->Size;
    }
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS Pin::read(PIRP irp)
{
    if (!capture) {
        return complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    NTSTATUS status = checkHeaders(irp, true);
    if (!NT_SUCCESS(status)) {
        return complete(irp, status);
    }
    std::unique_lock<std::mutex> lock(queueMutex);
    if (!records.empty()) {
        ULONG_PTR information = 0;
        status = fill(irp, &information);
        lock.unlock();
        return complete(irp, status, information);
    }
    if (closing) {
        lock.unlock();
        return complete(irp, STATUS_CANCELLED);
    }
    IoMarkIrpPending(irp);
    IoSetCancelRoutine(irp, &Pin::cancelRead);
    if (irp->Cancel && IoSetCancelRoutine(irp, NULL) != NULL) {
        lock.unlock();
        complete(irp, STATUS_CANCELLED);
        return STATUS_PENDING;
    }
    reads.push_back(irp);
    return STATUS_PENDING;
}

VOID Pin::cancelRead(PDEVICE_OBJECT, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
    std::shared_ptr<KsObject> object = ksObjectOf(IoGetCurrentIrpStackLocation(irp)->FileObject);
    if (object != nullptr && object->isPin()) {
        auto pin = std::static_pointer_cast<Pin>(object);
        std::lock_guard<std::mutex> lock(pin->queueMutex);
        auto it = std::find(pin->reads.begin(), pin->reads.end(), irp);
        if (it != pin->reads.end()) {
            pin->reads.erase(it);
        }
    }
    complete(irp, STATUS_CANCELLED);
}

NTSTATUS Pin::write(PIRP irp)
{
    if (capture) {
        return complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    NTSTATUS status = checkHeaders(irp, false);
    if (!NT_SUCCESS(status)) {
        return complete(irp, status);
    }
    if (state.load() == KSSTATE_STOP) {
        return complete(irp, STATUS_INVALID_DEVICE_STATE);
    }
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    ULONG length = stack->Parameters.DeviceIoControl.OutputBufferLength;
    auto *bytes = static_cast<UCHAR *>(irp->UserBuffer);
    Allocator *allocator = filter->port->allocator();
    REFERENCE_TIME time = 0;
    filter->port->clock()->GetTime(&time);

    PDMUS_KERNEL_EVENT head = NULL;
    PDMUS_KERNEL_EVENT *tail = &head;
    {
        std::lock_guard<std::mutex> lock(stateMutex);
        for (ULONG pos = 0; pos < length && NT_SUCCESS(status);) {
            auto *header = reinterpret_cast<PKSSTREAM_HEADER>(bytes + pos);
            auto *data = static_cast<const UCHAR *>(header->Data);
            for (ULONG at = 0; at < header->DataUsed && NT_SUCCESS(status);) {
                KSMUSICFORMAT record;
                memcpy(&record, data + at, sizeof(record));
                time += REFERENCE_TIME(record.TimeDeltaMs) * 10000;
                PDMUS_KERNEL_EVENT events =
                    buildEvents(allocator, data + at + sizeof(record), record.ByteCount, time, bytePosition, &status);
                bytePosition += record.ByteCount;
                *tail = events;
                while (*tail != NULL) {
                    tail = &(*tail)->pNextEvt;
                }
                at = align4(at + sizeof(record) + record.ByteCount);
            }
            pos += header->Size;
        }
    }
    if (!NT_SUCCESS(status)) {
        allocatorInterface(allocator)->PutMessage(head);
        return complete(irp, status);
    }
    if (head != NULL) {
        // The DMus port hands events to its streams at DISPATCH_LEVEL.
        KIRQL old;
        KeRaiseIrql(DISPATCH_LEVEL, &old);
        stream->PutMessage(head);
        KeLowerIrql(old);
    }
    return complete(irp, STATUS_SUCCESS, length);
}

// ------------------------------------------------------------------ properties
namespace {

struct PropertyCall {
    PIRP irp;
    KSPROPERTY property;
    ULONG verb;
    bool hasNode = false;
    ULONG node = ULONG(-1);
    UCHAR *input;
    ULONG inputLength;
    ULONG headerLength;
    PVOID value;
    ULONG valueLength;
};

// The size query, too-small and exact cases every fixed-size answer shares.
NTSTATUS answer(const PropertyCall &call, const void *data, ULONG size, ULONG_PTR *information)
{
    if (call.valueLength == 0) {
        *information = size;
        return STATUS_BUFFER_OVERFLOW;
    }
    if (call.valueLength < size) {
        *information = 0;
        return STATUS_BUFFER_TOO_SMALL;
    }
    memcpy(call.value, data, size);
    *information = size;
    return STATUS_SUCCESS;
}

NTSTATUS answerAccess(const PropertyCall &call, ULONG access, ULONG_PTR *information)
{
    return answer(call, &access, sizeof(access), information);
}

std::vector<UCHAR> multipleItem(const std::vector<std::vector<UCHAR>> &items, bool alignEach)
{
    std::vector<UCHAR> out(sizeof(KSMULTIPLE_ITEM));
    for (const auto &item : items) {
        out.insert(out.end(), item.begin(), item.end());
        if (alignEach) {
            out.resize(sizeof(KSMULTIPLE_ITEM) + align8(ULONG(out.size() - sizeof(KSMULTIPLE_ITEM))));
        }
    }
    KSMULTIPLE_ITEM header{ULONG(out.size()), ULONG(items.size())};
    memcpy(out.data(), &header, sizeof(header));
    return out;
}

template <typename T> std::vector<UCHAR> bytesOf(const T &value)
{
    auto *p = reinterpret_cast<const UCHAR *>(&value);
    return std::vector<UCHAR>(p, p + sizeof(T));
}

// KSPROPSETID_Pin on a filter. Returns false when the id is not one the
// framework answers.
bool pinProperty(Filter &filter, const PropertyCall &call, NTSTATUS *status, ULONG_PTR *information)
{
    const PCFILTER_DESCRIPTOR *d = filter.description;
    ULONG id = call.property.Id;
    if (id > KSPROPERTY_PIN_NAME || id == KSPROPERTY_PIN_DATAINTERSECTION || id == KSPROPERTY_PIN_PHYSICALCONNECTION) {
        return false;
    }
    if (call.verb == KSPROPERTY_TYPE_BASICSUPPORT) {
        *status = answerAccess(call, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_BASICSUPPORT, information);
        return true;
    }
    if (call.verb != KSPROPERTY_TYPE_GET) {
        *status = STATUS_INVALID_DEVICE_REQUEST;
        return true;
    }
    if (id == KSPROPERTY_PIN_CTYPES) {
        *status = answer(call, &d->PinCount, sizeof(ULONG), information);
        return true;
    }
    if (call.inputLength < sizeof(KSP_PIN)) {
        *status = STATUS_INVALID_BUFFER_SIZE;
        return true;
    }
    KSP_PIN request;
    memcpy(&request, call.input, sizeof(request));
    if (request.PinId >= d->PinCount) {
        *status = STATUS_INVALID_PARAMETER;
        return true;
    }
    const PCPIN_DESCRIPTOR *pd = filter.pin(request.PinId);
    const KSPIN_DESCRIPTOR &ks = pd->KsPinDescriptor;
    switch (id) {
    case KSPROPERTY_PIN_CINSTANCES: {
        KSPIN_CINSTANCES c{pd->MaxFilterInstanceCount, filter.instances(request.PinId)};
        *status = answer(call, &c, sizeof(c), information);
        break;
    }
    case KSPROPERTY_PIN_GLOBALCINSTANCES: {
        KSPIN_CINSTANCES c{pd->MaxGlobalInstanceCount, filter.port->globalInstances(request.PinId)};
        *status = answer(call, &c, sizeof(c), information);
        break;
    }
    case KSPROPERTY_PIN_NECESSARYINSTANCES:
        *status = answer(call, &pd->MinFilterInstanceCount, sizeof(ULONG), information);
        break;
    case KSPROPERTY_PIN_DATAFLOW:
        *status = answer(call, &ks.DataFlow, sizeof(ks.DataFlow), information);
        break;
    case KSPROPERTY_PIN_COMMUNICATION:
        *status = answer(call, &ks.Communication, sizeof(ks.Communication), information);
        break;
    case KSPROPERTY_PIN_DATARANGES:
    case KSPROPERTY_PIN_CONSTRAINEDDATARANGES: {
        std::vector<std::vector<UCHAR>> items;
        for (ULONG i = 0; i < ks.DataRangesCount; i++) {
            if (ks.DataRanges[i] != NULL) {
                auto *p = reinterpret_cast<const UCHAR *>(ks.DataRanges[i]);
                items.emplace_back(p, p + ks.DataRanges[i]->FormatSize);
            }
        }
        std::vector<UCHAR> all = multipleItem(items, true);
        *status = answer(call, all.data(), ULONG(all.size()), information);
        break;
    }
    case KSPROPERTY_PIN_INTERFACES:
    case KSPROPERTY_PIN_MEDIUMS: {
        bool interfaces = id == KSPROPERTY_PIN_INTERFACES;
        ULONG n = interfaces ? ks.InterfacesCount : ks.MediumsCount;
        const KSIDENTIFIER *list = interfaces ? ks.Interfaces : ks.Mediums;
        std::vector<std::vector<UCHAR>> items;
        if (n == 0 || list == NULL) {
            items.push_back(bytesOf(interfaces ? kStandardInterface : kStandardMedium));
        } else {
            for (ULONG i = 0; i < n; i++) {
                items.push_back(bytesOf(list[i]));
            }
        }
        std::vector<UCHAR> all = multipleItem(items, false);
        *status = answer(call, all.data(), ULONG(all.size()), information);
        break;
    }
    case KSPROPERTY_PIN_CATEGORY:
        if (ks.Category == NULL) {
            *status = STATUS_NOT_FOUND;
        } else {
            *status = answer(call, ks.Category, sizeof(GUID), information);
        }
        break;
    case KSPROPERTY_PIN_NAME: {
        if (PPINNAME pinName = filter.port->pinNameInterface()) {
            // The miniport answers with the request itself: the room is the
            // request's output length, the size goes to IoStatus.Information.
            call.irp->IoStatus.Information = 0;
            *status = pinName->GetPinName(call.irp, &request, call.value);
            *information = call.irp->IoStatus.Information;
            pinName->Release();
            break;
        }
        // Without IPinName the name is the media category's, as KS looks it up.
        const GUID *name = ks.Name != NULL ? ks.Name : ks.Category;
        std::optional<registry::Value> text;
        if (name != NULL) {
            std::string g = guidText(*name);
            text = registry::value(u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Control\\MediaCategories\\" +
                                       std::u16string(g.begin(), g.end()),
                                   u"Name");
        }
        if (!text || text->type != REG_SZ) {
            *status = STATUS_NOT_FOUND;
        } else {
            std::u16string s = text->text();
            s.push_back(0);
            *status = answer(call, s.data(), ULONG(s.size() * 2), information);
        }
        break;
    }
    default:
        return false;
    }
    return true;
}

bool topologyProperty(Filter &filter, const PropertyCall &call, NTSTATUS *status, ULONG_PTR *information)
{
    const PCFILTER_DESCRIPTOR *d = filter.description;
    ULONG id = call.property.Id;
    if (id > KSPROPERTY_TOPOLOGY_CONNECTIONS) {
        return false;
    }
    if (call.verb == KSPROPERTY_TYPE_BASICSUPPORT) {
        *status = answerAccess(call, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_BASICSUPPORT, information);
        return true;
    }
    if (call.verb != KSPROPERTY_TYPE_GET) {
        *status = STATUS_INVALID_DEVICE_REQUEST;
        return true;
    }
    std::vector<std::vector<UCHAR>> items;
    if (id == KSPROPERTY_TOPOLOGY_CATEGORIES) {
        for (ULONG i = 0; i < d->CategoryCount; i++) {
            items.push_back(bytesOf(d->Categories[i]));
        }
    } else if (id == KSPROPERTY_TOPOLOGY_NODES) {
        for (ULONG i = 0; i < d->NodeCount; i++) {
            const GUID *type = filter.node(i)->Type;
            items.push_back(bytesOf(type != NULL ? *type : GUID_NULL));
        }
    } else {
        for (ULONG i = 0; i < d->ConnectionCount; i++) {
            const PCCONNECTION_DESCRIPTOR &c = d->Connections[i];
            KSTOPOLOGY_CONNECTION k{c.FromNode, c.FromNodePin, c.ToNode, c.ToNodePin};
            items.push_back(bytesOf(k));
        }
    }
    std::vector<UCHAR> all = multipleItem(items, false);
    *status = answer(call, all.data(), ULONG(all.size()), information);
    return true;
}

bool connectionProperty(Pin &pin, const PropertyCall &call, NTSTATUS *status, ULONG_PTR *information)
{
    ULONG id = call.property.Id;
    if (id == KSPROPERTY_CONNECTION_STATE) {
        if (call.verb == KSPROPERTY_TYPE_BASICSUPPORT) {
            *status = answerAccess(call, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET | KSPROPERTY_TYPE_BASICSUPPORT,
                                   information);
        } else if (call.verb == KSPROPERTY_TYPE_GET) {
            KSSTATE state = KSSTATE(pin.state.load());
            *status = answer(call, &state, sizeof(state), information);
        } else if (call.valueLength < sizeof(KSSTATE) || call.value == NULL) {
            *status = STATUS_BUFFER_TOO_SMALL;
        } else {
            ULONG wanted;
            memcpy(&wanted, call.value, sizeof(wanted));
            *status = wanted > KSSTATE_RUN ? STATUS_INVALID_PARAMETER : pin.setState(KSSTATE(wanted));
            *information = NT_SUCCESS(*status) ? sizeof(KSSTATE) : 0;
        }
        return true;
    }
    if (id == KSPROPERTY_CONNECTION_DATAFORMAT) {
        if (call.verb == KSPROPERTY_TYPE_BASICSUPPORT) {
            *status = answerAccess(call, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_BASICSUPPORT, information);
        } else if (call.verb == KSPROPERTY_TYPE_GET) {
            *status = answer(call, pin.format.data(), ULONG(pin.format.size()), information);
        } else {
            *status = STATUS_INVALID_DEVICE_REQUEST;
        }
        return true;
    }
    return false;
}

const PCPROPERTY_ITEM *findItem(const PCAUTOMATION_TABLE *table, const KSPROPERTY &property)
{
    if (table == NULL || table->Properties == NULL || table->PropertyItemSize < sizeof(PCPROPERTY_ITEM)) {
        return nullptr;
    }
    for (ULONG i = 0; i < table->PropertyCount; i++) {
        auto *item = reinterpret_cast<const PCPROPERTY_ITEM *>(reinterpret_cast<const UCHAR *>(table->Properties) +
                                                               size_t(i) * table->PropertyItemSize);
        if (item->Set != NULL && *item->Set == property.Set && item->Id == property.Id) {
            return item;
        }
    }
    return nullptr;
}

NTSTATUS property(const std::shared_ptr<KsObject> &object, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    PropertyCall call{};
    call.irp = irp;
    call.input = static_cast<UCHAR *>(stack->Parameters.DeviceIoControl.Type3InputBuffer);
    call.inputLength = stack->Parameters.DeviceIoControl.InputBufferLength;
    call.valueLength = stack->Parameters.DeviceIoControl.OutputBufferLength;
    call.value = call.valueLength > 0 ? irp->UserBuffer : NULL;
    if (call.inputLength < sizeof(KSPROPERTY) || call.input == NULL) {
        return complete(irp, STATUS_INVALID_BUFFER_SIZE);
    }
    if (call.valueLength > 0 && call.value == NULL) {
        return complete(irp, STATUS_INVALID_PARAMETER);
    }
    memcpy(&call.property, call.input, sizeof(KSPROPERTY));
    call.verb = call.property.Flags & ~KSPROPERTY_TYPE_TOPOLOGY;
    if (call.verb != KSPROPERTY_TYPE_GET && call.verb != KSPROPERTY_TYPE_SET &&
        call.verb != KSPROPERTY_TYPE_BASICSUPPORT) {
        return complete(irp, STATUS_INVALID_PARAMETER);
    }
    call.headerLength = sizeof(KSPROPERTY);

    std::shared_ptr<Filter> filter;
    std::shared_ptr<Pin> pin;
    if (object->isPin()) {
        pin = std::static_pointer_cast<Pin>(object);
        filter = pin->filter;
    } else {
        filter = std::static_pointer_cast<Filter>(object);
    }
    const PCFILTER_DESCRIPTOR *d = filter->description;
    if (call.property.Flags & KSPROPERTY_TYPE_TOPOLOGY) {
        if (call.inputLength < sizeof(KSP_NODE)) {
            return complete(irp, STATUS_INVALID_BUFFER_SIZE);
        }
        KSP_NODE node;
        memcpy(&node, call.input, sizeof(node));
        if (node.NodeId >= d->NodeCount) {
            return complete(irp, STATUS_NOT_FOUND);
        }
        call.hasNode = true;
        call.node = node.NodeId;
        call.headerLength = sizeof(KSP_NODE);
    }

    NTSTATUS status = STATUS_NOT_FOUND;
    ULONG_PTR information = 0;
    if (!call.hasNode) {
        bool handled = false;
        if (pin == nullptr && call.property.Set == KSPROPSETID_Pin) {
            handled = pinProperty(*filter, call, &status, &information);
        } else if (pin == nullptr && call.property.Set == KSPROPSETID_Topology) {
            handled = topologyProperty(*filter, call, &status, &information);
        } else if (pin != nullptr && call.property.Set == KSPROPSETID_Connection) {
            handled = connectionProperty(*pin, call, &status, &information);
        }
        if (handled) {
            return complete(irp, status, NT_SUCCESS(status) || status == STATUS_BUFFER_OVERFLOW ? information : 0);
        }
    }

    // The miniport's automation tables: a node's for node requests, the pin's
    // for requests through a pin, the filter's otherwise.
    const PCAUTOMATION_TABLE *table;
    if (call.hasNode) {
        table = filter->node(call.node)->AutomationTable;
    } else if (pin != nullptr) {
        table = filter->pin(pin->pinId)->AutomationTable;
    } else {
        table = d->AutomationTable;
    }
    const PCPROPERTY_ITEM *item = findItem(table, call.property);
    if (item == nullptr) {
        return complete(irp, STATUS_NOT_FOUND);
    }
    if (call.verb == KSPROPERTY_TYPE_BASICSUPPORT && !(item->Flags & KSPROPERTY_TYPE_BASICSUPPORT)) {
        // Items that leave basic support to the framework get their access flags.
        status = answerAccess(call, (item->Flags & (KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET)) |
                                        KSPROPERTY_TYPE_BASICSUPPORT,
                              &information);
        return complete(irp, status, NT_SUCCESS(status) || status == STATUS_BUFFER_OVERFLOW ? information : 0);
    }
    if (!(item->Flags & call.verb) || item->Handler == NULL) {
        return complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    PMINIPORTDMUS miniport = filter->port->miniport();
    if (miniport == NULL) {
        return complete(irp, STATUS_DEVICE_REMOVED);
    }
    PCPROPERTY_REQUEST request{};
    request.MajorTarget = miniport;
    request.MinorTarget = pin != nullptr ? pin->stream : NULL;
    request.Node = call.node;
    request.PropertyItem = item;
    request.Verb = call.verb;
    request.InstanceSize = call.inputLength - call.headerLength;
    request.Instance = request.InstanceSize > 0 ? call.input + call.headerLength : NULL;
    request.ValueSize = call.valueLength;
    request.Value = call.value;
    request.Irp = irp;
    status = item->Handler(&request);
    miniport->Release();
    if (status == STATUS_PENDING) {
        // The host framework does not complete property requests later.
        DbgPrint("portcls: a property handler returned STATUS_PENDING\n");
        status = STATUS_INTERNAL_ERROR;
    }
    information = NT_SUCCESS(status) || status == STATUS_BUFFER_OVERFLOW ? request.ValueSize : 0;
    return complete(irp, status, information);
}

} // namespace

NTSTATUS ksDeviceControl(PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    std::shared_ptr<KsObject> object = ksObjectOf(stack->FileObject);
    if (object == nullptr) {
        return complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    switch (stack->Parameters.DeviceIoControl.IoControlCode) {
    case IOCTL_KS_PROPERTY:
        return property(object, irp);
    case IOCTL_KS_WRITE_STREAM:
        return object->isPin() ? std::static_pointer_cast<Pin>(object)->write(irp)
                               : complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    case IOCTL_KS_READ_STREAM:
        return object->isPin() ? std::static_pointer_cast<Pin>(object)->read(irp)
                               : complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    case IOCTL_KS_RESET_STATE:
        return complete(irp, object->isPin() ? STATUS_SUCCESS : STATUS_INVALID_DEVICE_REQUEST);
    case IOCTL_KS_METHOD:
    case IOCTL_KS_ENABLE_EVENT:
    case IOCTL_KS_DISABLE_EVENT:
        return complete(irp, STATUS_NOT_FOUND);
    default:
        return complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

} // namespace hostkernel::detail::pc
