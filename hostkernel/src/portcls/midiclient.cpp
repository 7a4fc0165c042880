// The host's MIDI client: kernel-streaming requests as an application's
// MIDI API issues them.
#include <atomic>
#include <cstring>
#include <thread>

#include "hostkernel/midiclient.h"
#include "hostkernel/pnp.h"
#include "hostkernel/registry.h"

namespace hostkernel::midi {

namespace {

bool sameTarget(const DeviceInterface &a, const DeviceInterface &b)
{
    // Interfaces of one sub-device share the device and the reference string:
    // their links differ only in the class GUID.
    auto base = [](const std::u16string &link) {
        size_t brace = link.find(u"#{");
        return brace == std::u16string::npos ? link : link.substr(0, brace);
    };
    return a.referenceString == b.referenceString && base(a.symbolicLink) == base(b.symbolicLink);
}

IoResult propertyRequest(Process &process, Handle handle, const GUID &set, ULONG id, ULONG verb, void *value,
                         ULONG valueSize, const void *instance, ULONG instanceSize, std::optional<ULONG> node)
{
    std::vector<uint8_t> input;
    if (node) {
        KSP_NODE header{};
        header.Property.Set = set;
        header.Property.Id = id;
        header.Property.Flags = verb | KSPROPERTY_TYPE_TOPOLOGY;
        header.NodeId = *node;
        input.assign(reinterpret_cast<uint8_t *>(&header), reinterpret_cast<uint8_t *>(&header) + sizeof(header));
    } else {
        KSPROPERTY header{};
        header.Set = set;
        header.Id = id;
        header.Flags = verb;
        input.assign(reinterpret_cast<uint8_t *>(&header), reinterpret_cast<uint8_t *>(&header) + sizeof(header));
    }
    if (instanceSize > 0) {
        const auto *p = static_cast<const uint8_t *>(instance);
        input.insert(input.end(), p, p + instanceSize);
    }
    return process.deviceControl(handle, IOCTL_KS_PROPERTY, input.data(), ULONG(input.size()), value, valueSize);
}

template <typename T> NTSTATUS getFixed(Filter &filter, const GUID &set, ULONG id, T *out, const void *instance,
                                        ULONG instanceSize, std::optional<ULONG> node = std::nullopt)
{
    return filter.property(set, id, KSPROPERTY_TYPE_GET, out, sizeof(T), instance, instanceSize, node).status;
}

// A variable-size answer: the size query first, then the value.
NTSTATUS getVariable(Filter &filter, const GUID &set, ULONG id, const void *instance, ULONG instanceSize,
                     std::vector<uint8_t> *out)
{
    IoResult size = filter.property(set, id, KSPROPERTY_TYPE_GET, nullptr, 0, instance, instanceSize);
    if (size.status != STATUS_BUFFER_OVERFLOW) {
        return NT_SUCCESS(size.status) ? STATUS_UNSUCCESSFUL : size.status;
    }
    out->assign(size.information, 0);
    IoResult value = filter.property(set, id, KSPROPERTY_TYPE_GET, out->data(), ULONG(out->size()), instance,
                                     instanceSize);
    out->resize(value.information);
    return value.status;
}

} // namespace

std::vector<PortInfo> findPorts()
{
    std::vector<PortInfo> ports;
    std::vector<DeviceInterface> render = deviceInterfaces(KSCATEGORY_RENDER);
    std::vector<DeviceInterface> capture = deviceInterfaces(KSCATEGORY_CAPTURE);
    for (const DeviceInterface &audio : deviceInterfaces(KSCATEGORY_AUDIO)) {
        auto friendly = registry::value(audio.deviceParametersKey, u"FriendlyName");
        if (!friendly || friendly->type != REG_SZ) {
            continue;
        }
        PortInfo info;
        info.name = friendly->text();
        info.path = audio.symbolicLink;
        info.referenceString = audio.referenceString;
        for (const DeviceInterface &r : render) {
            info.render = info.render || sameTarget(audio, r);
        }
        for (const DeviceInterface &c : capture) {
            info.capture = info.capture || sameTarget(audio, c);
        }
        ports.push_back(std::move(info));
    }
    return ports;
}

std::optional<PortInfo> findPort(std::u16string_view name)
{
    for (PortInfo &port : findPorts()) {
        if (port.name == name) {
            return port;
        }
    }
    return std::nullopt;
}

// ------------------------------------------------------------------ filter
NTSTATUS Filter::open(Process &process, std::u16string_view path, std::unique_ptr<Filter> *out)
{
    Handle handle = 0;
    NTSTATUS status = process.open(path, GENERIC_READ | GENERIC_WRITE, &handle);
    if (NT_SUCCESS(status)) {
        out->reset(new Filter(process, handle));
    }
    return status;
}

KsObject::~KsObject() { close(); }

NTSTATUS KsObject::close()
{
    if (handle_ == 0) {
        return STATUS_INVALID_HANDLE;
    }
    NTSTATUS status = process_.close(handle_);
    handle_ = 0;
    return status;
}

IoResult KsObject::property(const GUID &set, ULONG id, ULONG verb, void *value, ULONG valueSize,
                            const void *instance, ULONG instanceSize, std::optional<ULONG> node)
{
    return propertyRequest(process_, handle_, set, id, verb, value, valueSize, instance, instanceSize, node);
}

NTSTATUS Filter::pinCount(ULONG *count)
{
    return getFixed(*this, KSPROPSETID_Pin, KSPROPERTY_PIN_CTYPES, count, nullptr, 0);
}

NTSTATUS Filter::describePin(ULONG pinId, PinDescription *out)
{
    // The KSP_PIN's tail after its KSPROPERTY: the pin id and a reserved word.
    ULONG instance[2] = {pinId, 0};
    NTSTATUS status = getFixed(*this, KSPROPSETID_Pin, KSPROPERTY_PIN_DATAFLOW, &out->dataFlow, instance,
                               sizeof(instance));
    if (NT_SUCCESS(status)) {
        status = getFixed(*this, KSPROPSETID_Pin, KSPROPERTY_PIN_COMMUNICATION, &out->communication, instance,
                          sizeof(instance));
    }
    if (NT_SUCCESS(status)) {
        status = getFixed(*this, KSPROPSETID_Pin, KSPROPERTY_PIN_CINSTANCES, &out->instances, instance,
                          sizeof(instance));
    }
    if (NT_SUCCESS(status)) {
        NTSTATUS category = getFixed(*this, KSPROPSETID_Pin, KSPROPERTY_PIN_CATEGORY, &out->category, instance,
                                     sizeof(instance));
        if (!NT_SUCCESS(category)) {
            out->category = GUID_NULL;
        }
    }
    std::vector<uint8_t> ranges;
    if (NT_SUCCESS(status)) {
        status = getVariable(*this, KSPROPSETID_Pin, KSPROPERTY_PIN_DATARANGES, instance, sizeof(instance), &ranges);
    }
    out->subFormats.clear();
    if (NT_SUCCESS(status) && ranges.size() >= sizeof(KSMULTIPLE_ITEM)) {
        KSMULTIPLE_ITEM header;
        memcpy(&header, ranges.data(), sizeof(header));
        size_t at = sizeof(header);
        for (ULONG i = 0; i < header.Count && at + sizeof(KSDATARANGE) <= ranges.size(); i++) {
            KSDATARANGE range;
            memcpy(&range, ranges.data() + at, sizeof(range));
            out->subFormats.push_back(range.SubFormat);
            at += (range.FormatSize + 7) & ~size_t(7);
        }
    }
    return status;
}

NTSTATUS Filter::pinName(ULONG pinId, std::u16string *name)
{
    ULONG instance[2] = {pinId, 0};
    std::vector<uint8_t> bytes;
    NTSTATUS status = getVariable(*this, KSPROPSETID_Pin, KSPROPERTY_PIN_NAME, instance, sizeof(instance), &bytes);
    if (NT_SUCCESS(status)) {
        name->assign(reinterpret_cast<const char16_t *>(bytes.data()), bytes.size() / 2);
        while (!name->empty() && name->back() == 0) {
            name->pop_back();
        }
    }
    return status;
}

NTSTATUS Filter::synthCaps(ULONG node, SYNTHCAPS *caps)
{
    return getFixed(*this, KSPROPSETID_Synth, KSPROPERTY_SYNTH_CAPS, caps, nullptr, 0, node);
}

NTSTATUS Filter::componentId(KSCOMPONENTID *id)
{
    return getFixed(*this, KSPROPSETID_General, KSPROPERTY_GENERAL_COMPONENTID, id, nullptr, 0);
}

std::optional<ULONG> Filter::findPin(KSPIN_DATAFLOW dataFlow, const GUID &subFormat)
{
    ULONG count = 0;
    if (!NT_SUCCESS(pinCount(&count))) {
        return std::nullopt;
    }
    for (ULONG id = 0; id < count; id++) {
        PinDescription d;
        if (!NT_SUCCESS(describePin(id, &d)) || d.dataFlow != dataFlow ||
            (d.communication != KSPIN_COMMUNICATION_SINK && d.communication != KSPIN_COMMUNICATION_BOTH)) {
            continue;
        }
        for (const GUID &g : d.subFormats) {
            if (g == subFormat) {
                return id;
            }
        }
    }
    return std::nullopt;
}

// ------------------------------------------------------------------ pin
KSPIN_CONNECT defaultConnect(ULONG pinId)
{
    KSPIN_CONNECT connect{};
    connect.Interface.Set = KSINTERFACESETID_Standard;
    connect.Interface.Id = KSINTERFACE_STANDARD_STREAMING;
    connect.Medium.Set = KSMEDIUMSETID_Standard;
    connect.Medium.Id = KSMEDIUM_STANDARD_DEVIO;
    connect.PinId = pinId;
    connect.Priority.PriorityClass = KSPRIORITY_NORMAL;
    connect.Priority.PrioritySubClass = 1;
    return connect;
}

KSDATAFORMAT musicFormat(const GUID &subFormat)
{
    KSDATAFORMAT format{};
    format.FormatSize = sizeof(KSDATAFORMAT);
    format.MajorFormat = KSDATAFORMAT_TYPE_MUSIC;
    format.SubFormat = subFormat;
    format.Specifier = KSDATAFORMAT_SPECIFIER_NONE;
    return format;
}

std::u16string pinCreateName(const KSPIN_CONNECT &connect, const void *format, ULONG formatSize)
{
    std::u16string name = reinterpret_cast<const char16_t *>(KSSTRING_Pin);
    name.push_back(u'\\');
    std::vector<uint8_t> binary(sizeof(connect) + formatSize);
    memcpy(binary.data(), &connect, sizeof(connect));
    memcpy(binary.data() + sizeof(connect), format, formatSize);
    if (binary.size() % 2 != 0) {
        binary.push_back(0);
    }
    for (size_t i = 0; i < binary.size(); i += 2) {
        name.push_back(char16_t(binary[i] | binary[i + 1] << 8));
    }
    return name;
}

NTSTATUS Pin::open(Filter &filter, ULONG pinId, const GUID &subFormat, std::unique_ptr<Pin> *out)
{
    KSPIN_CONNECT connect = defaultConnect(pinId);
    KSDATAFORMAT format = musicFormat(subFormat);
    Handle handle = 0;
    NTSTATUS status = filter.process().openRelative(filter.handle(), pinCreateName(connect, &format, sizeof(format)),
                                                    GENERIC_READ | GENERIC_WRITE, &handle);
    if (NT_SUCCESS(status)) {
        out->reset(new Pin(filter.process(), handle));
    }
    return status;
}


NTSTATUS Pin::setState(KSSTATE state)
{
    return property(KSPROPSETID_Connection, KSPROPERTY_CONNECTION_STATE, KSPROPERTY_TYPE_SET, &state, sizeof(state))
        .status;
}

NTSTATUS Pin::state(KSSTATE *state)
{
    return property(KSPROPSETID_Connection, KSPROPERTY_CONNECTION_STATE, KSPROPERTY_TYPE_GET, state, sizeof(*state))
        .status;
}

NTSTATUS Pin::send(const std::vector<uint8_t> &message, ULONG deltaMs)
{
    std::vector<uint8_t> data(sizeof(KSMUSICFORMAT) + ((message.size() + 3) & ~size_t(3)));
    KSMUSICFORMAT record{deltaMs, ULONG(message.size())};
    memcpy(data.data(), &record, sizeof(record));
    memcpy(data.data() + sizeof(record), message.data(), message.size());
    KSSTREAM_HEADER header{};
    header.Size = sizeof(header);
    header.FrameExtent = ULONG(data.size());
    header.DataUsed = ULONG(data.size());
    header.Data = data.data();
    return process().deviceControl(handle(), IOCTL_KS_WRITE_STREAM, nullptr, 0, &header, sizeof(header)).status;
}

NTSTATUS Pin::send(const std::vector<std::vector<uint8_t>> &messages)
{
    std::vector<uint8_t> data;
    for (const auto &m : messages) {
        size_t at = data.size();
        data.resize(at + sizeof(KSMUSICFORMAT) + ((m.size() + 3) & ~size_t(3)));
        KSMUSICFORMAT record{0, ULONG(m.size())};
        memcpy(data.data() + at, &record, sizeof(record));
        memcpy(data.data() + at + sizeof(record), m.data(), m.size());
    }
    KSSTREAM_HEADER header{};
    header.Size = sizeof(header);
    header.FrameExtent = ULONG(data.size());
    header.DataUsed = ULONG(data.size());
    header.Data = data.data();
    return process().deviceControl(handle(), IOCTL_KS_WRITE_STREAM, nullptr, 0, &header, sizeof(header)).status;
}

NTSTATUS Pin::readOnce(std::vector<Message> *out, ULONG bufferSize)
{
    std::vector<uint8_t> data(bufferSize);
    KSSTREAM_HEADER header{};
    header.Size = sizeof(header);
    header.FrameExtent = bufferSize;
    header.Data = data.data();
    IoResult r = process().deviceControl(handle(), IOCTL_KS_READ_STREAM, nullptr, 0, &header, sizeof(header));
    if (!NT_SUCCESS(r.status)) {
        return r.status;
    }
    LONGLONG time = header.PresentationTime.Time;
    for (size_t at = 0; at + sizeof(KSMUSICFORMAT) <= header.DataUsed;) {
        KSMUSICFORMAT record;
        memcpy(&record, data.data() + at, sizeof(record));
        Message m;
        m.deltaMs = record.TimeDeltaMs;
        m.time = out->empty() ? time : out->back().time + LONGLONG(record.TimeDeltaMs) * 10000;
        m.bytes.assign(data.data() + at + sizeof(record), data.data() + at + sizeof(record) + record.ByteCount);
        out->push_back(std::move(m));
        at += (sizeof(record) + record.ByteCount + 3) & ~size_t(3);
    }
    return r.status;
}

NTSTATUS Pin::receive(std::vector<Message> *out, std::optional<std::chrono::milliseconds> timeout, ULONG bufferSize)
{
    out->clear();
    if (!timeout) {
        return readOnce(out, bufferSize);
    }
    // The read blocks in a thread of this process; when the time is up it is
    // cancelled (again, until the thread is back, since it may not have been
    // issued yet). A read that completed with data meanwhile keeps it.
    std::atomic<bool> done{false};
    NTSTATUS status = STATUS_PENDING;
    std::thread reader([&]() {
        status = readOnce(out, bufferSize);
        done = true;
    });
    auto deadline = std::chrono::steady_clock::now() + *timeout;
    while (!done && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    while (!done) {
        process().cancelIo(handle());
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    reader.join();
    return status == STATUS_CANCELLED ? STATUS_TIMEOUT : status;
}

} // namespace hostkernel::midi
