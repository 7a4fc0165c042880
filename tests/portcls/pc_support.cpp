#include "pc_support.h"

namespace pctest {

const GUID kTestSet = {0x5E1F00D1, 0x7A2B, 0x4C3D, {0x8E, 0x9F, 0x10, 0x21, 0x32, 0x43, 0x54, 0x65}};

namespace {

std::mutex gSeenMutex;
SeenRequest gSeen;
std::atomic<ULONG> gStoredValue{0};

NTSTATUS NTAPI testHandler(PPCPROPERTY_REQUEST r)
{
    {
        std::lock_guard<std::mutex> lock(gSeenMutex);
        gSeen.major = r->MajorTarget;
        gSeen.minor = r->MinorTarget;
        gSeen.node = r->Node;
        gSeen.verb = r->Verb;
        gSeen.instanceSize = r->InstanceSize;
        gSeen.valueSize = r->ValueSize;
        gSeen.instance.assign(static_cast<uint8_t *>(r->Instance),
                              static_cast<uint8_t *>(r->Instance) + (r->Instance ? r->InstanceSize : 0));
        gSeen.irql = KeGetCurrentIrql();
    }
    if (r->ValueSize == 0) {
        r->ValueSize = sizeof(ULONG);
        return STATUS_BUFFER_OVERFLOW;
    }
    if (r->ValueSize < sizeof(ULONG)) {
        r->ValueSize = 0;
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (r->Verb == KSPROPERTY_TYPE_SET) {
        gStoredValue = *static_cast<ULONG *>(r->Value);
    } else if (r->Verb == KSPROPERTY_TYPE_BASICSUPPORT) {
        *static_cast<ULONG *>(r->Value) = 0x8000 | r->PropertyItem->Flags;
    } else {
        *static_cast<ULONG *>(r->Value) = gStoredValue + r->PropertyItem->Id;
    }
    r->ValueSize = sizeof(ULONG);
    return STATUS_SUCCESS;
}

const PCPROPERTY_ITEM kNodeItems[] = {
    {&kTestSet, 1, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET | KSPROPERTY_TYPE_BASICSUPPORT, testHandler},
    {&kTestSet, 2, KSPROPERTY_TYPE_GET, testHandler},
};
const PCPROPERTY_ITEM kFilterItems[] = {
    {&kTestSet, 3, KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_BASICSUPPORT, testHandler},
};
const PCPROPERTY_ITEM kPinItems[] = {
    {&kTestSet, 4, KSPROPERTY_TYPE_GET, testHandler},
};
DEFINE_PCAUTOMATION_TABLE_PROP(kNodeTable, kNodeItems);
DEFINE_PCAUTOMATION_TABLE_PROP(kFilterTable, kFilterItems);
DEFINE_PCAUTOMATION_TABLE_PROP(kPinTable, kPinItems);

KSDATARANGE_MUSIC kMidi = {{{sizeof(KSDATARANGE_MUSIC), 0, 0, 0, KSDATAFORMAT_TYPE_MUSIC, KSDATAFORMAT_SUBTYPE_MIDI,
                             KSDATAFORMAT_SPECIFIER_NONE}},
                           KSMUSIC_TECHNOLOGY_PORT, 0, 0, 0xFFFF};
KSDATARANGE_MUSIC kDirectMusic = {{{sizeof(KSDATARANGE_MUSIC), 0, 0, 0, KSDATAFORMAT_TYPE_MUSIC,
                                    KSDATAFORMAT_SUBTYPE_DIRECTMUSIC, KSDATAFORMAT_SPECIFIER_NONE}},
                                  KSMUSIC_TECHNOLOGY_PORT, 0, 0, 0xFFFF};
KSDATARANGE kBridge = {{sizeof(KSDATARANGE), 0, 0, 0, KSDATAFORMAT_TYPE_MUSIC, KSDATAFORMAT_SUBTYPE_MIDI_BUS,
                        KSDATAFORMAT_SPECIFIER_NONE}};
const PKSDATARANGE kRenderRanges[] = {&kMidi.DataRange};
const PKSDATARANGE kCaptureRanges[] = {&kMidi.DataRange, &kDirectMusic.DataRange};
const PKSDATARANGE kBridgeRanges[] = {&kBridge};

const PCPIN_DESCRIPTOR kPins[] = {
    {3, 2, 0, &kPinTable,
     {0, NULL, 0, NULL, 1, kRenderRanges, KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_SINK, &KSCATEGORY_AUDIO,
      &KSAUDFNAME_MIDI}},
    {8, 8, 0, NULL,
     {0, NULL, 0, NULL, 2, kCaptureRanges, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_SINK, &KSCATEGORY_AUDIO,
      &KSAUDFNAME_DMUSIC_MPU_IN}},
    {0, 0, 0, NULL,
     {0, NULL, 0, NULL, 1, kBridgeRanges, KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_NONE, &KSCATEGORY_AUDIO, NULL}},
};
const PCNODE_DESCRIPTOR kNodes[] = {{0, &kNodeTable, &KSNODETYPE_SYNTHESIZER, NULL}};
const PCCONNECTION_DESCRIPTOR kConnections[] = {{PCFILTER_NODE, 0, 0, 1}, {0, 0, PCFILTER_NODE, 2}};
const GUID kCategories[] = {KSCATEGORY_AUDIO, KSCATEGORY_RENDER, KSCATEGORY_CAPTURE};
const PCFILTER_DESCRIPTOR kDescription = {0, &kFilterTable, sizeof(PCPIN_DESCRIPTOR), 3, kPins,
                                          sizeof(PCNODE_DESCRIPTOR), 1, kNodes, 2, kConnections, 3, kCategories};

std::atomic<long> gLive{0};

NTSTATUS NTAPI startDevice(PDEVICE_OBJECT, PIRP, PRESOURCELIST resources)
{
    return resources != NULL ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

NTSTATUS NTAPI addDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo)
{
    return PcAddAdapterDevice(driver, pdo, startDevice, 4, 0);
}

NTSTATUS NTAPI driverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING path)
{
    return PcInitializeAdapterDriver(driver, path, addDevice);
}

// Walks a list as the DMus port builds them (packages included).
void collect(PDMUS_KERNEL_EVENT e, Bytes *out, size_t *packages)
{
    for (; e != NULL; e = e->pNextEvt) {
        if (e->cbEvent > sizeof(PBYTE) && (e->usFlags & DMUS_KEF_PACKAGE_EVENT)) {
            (*packages)++;
            collect(e->uData.pPackageEvt, out, packages);
        } else {
            const BYTE *p = e->cbEvent <= sizeof(PBYTE) ? e->uData.abData : e->uData.pbData;
            out->insert(out->end(), p, p + e->cbEvent);
        }
    }
}

} // namespace

SeenRequest lastRequest()
{
    std::lock_guard<std::mutex> lock(gSeenMutex);
    return gSeen;
}

std::atomic<long> &liveTestObjects() { return gLive; }

// ------------------------------------------------------------------ stream
TestStream::TestStream(TestMiniport *miniport, bool capture, PAllocatorMXF allocator)
    : miniport_(miniport), capture_(capture), allocator_(allocator)
{
    gLive++;
    miniport_->AddRef();
    allocator_->AddRef();
}

STDMETHODIMP_(NTSTATUS) TestStream::QueryInterface(REFIID iid, PVOID *object)
{
    if (IsEqualGUID(iid, IID_IUnknown) || IsEqualGUID(iid, IID_IMXF)) {
        *object = static_cast<IMXF *>(this);
        AddRef();
        return STATUS_SUCCESS;
    }
    *object = NULL;
    return STATUS_INVALID_PARAMETER;
}

STDMETHODIMP_(ULONG) TestStream::Release()
{
    long n = --refs_;
    if (n == 0) {
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL) << "streams go at PASSIVE_LEVEL";
        miniport_->streamGone(this);
        allocator_->Release();
        miniport_->Release();
        gLive--;
        delete this;
    }
    return ULONG(n);
}

STDMETHODIMP_(NTSTATUS) TestStream::SetState(KSSTATE state)
{
    std::lock_guard<std::mutex> lock(mutex_);
    states_.push_back(state);
    state_ = state;
    return STATUS_SUCCESS;
}

std::vector<KSSTATE> TestStream::states()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return states_;
}

STDMETHODIMP_(NTSTATUS) TestStream::ConnectOutput(PMXF sink)
{
    if (!capture_ || sink == NULL) {
        return STATUS_UNSUCCESSFUL;
    }
    sink_ = sink;
    return STATUS_SUCCESS;
}

STDMETHODIMP_(NTSTATUS) TestStream::DisconnectOutput(PMXF)
{
    sink_ = nullptr;
    return STATUS_SUCCESS;
}

void TestStream::inject(const Bytes &bytes)
{
    std::lock_guard<std::mutex> lock(mutex_);
    pending_.push_back(bytes);
}

STDMETHODIMP_(NTSTATUS) TestStream::PutMessage(PDMUS_KERNEL_EVENT events)
{
    if (!capture_) {
        std::lock_guard<std::mutex> lock(miniport_->mutex);
        miniport_->renderIrqls.push_back(KeGetCurrentIrql());
        collect(events, &miniport_->rendered, &miniport_->packageEvents);
        allocator_->PutMessage(events);
        return STATUS_SUCCESS;
    }
    EXPECT_EQ(events, nullptr);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    PMXF sink = sink_;
    if (state_ != KSSTATE_RUN || sink == NULL) {
        return STATUS_SUCCESS;
    }
    std::deque<Bytes> pending;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        pending.swap(pending_);
    }
    REFERENCE_TIME now = 0;
    for (const Bytes &bytes : pending) {
        // One list per write, cut into inline events (the allocator's large
        // buffers are exercised by the render path).
        PDMUS_KERNEL_EVENT head = NULL, *tail = &head;
        for (size_t at = 0; at < bytes.size(); at += sizeof(PBYTE)) {
            PDMUS_KERNEL_EVENT e = NULL;
            if (!NT_SUCCESS(allocator_->GetMessage(&e))) {
                break;
            }
            e->cbEvent = USHORT(std::min(bytes.size() - at, sizeof(PBYTE)));
            memcpy(e->uData.abData, bytes.data() + at, e->cbEvent);
            e->ullPresTime100ns = now = REFERENCE_TIME(KeQueryInterruptTime());
            *tail = e;
            tail = &e->pNextEvt;
        }
        sink->PutMessage(head);
    }
    return STATUS_SUCCESS;
}

// ------------------------------------------------------------------ miniport
TestMiniport::TestMiniport() { gLive++; }

TestMiniport::~TestMiniport()
{
    if (group_ != NULL) {
        group_->Release();
    }
    if (port_ != NULL) {
        port_->Release();
    }
    gLive--;
}

STDMETHODIMP_(ULONG) TestMiniport::Release()
{
    long n = --refs_;
    if (n == 0) {
        delete this;
    }
    return ULONG(n);
}

STDMETHODIMP_(NTSTATUS) TestMiniport::QueryInterface(REFIID iid, PVOID *object)
{
    const bool unknown = IsEqualGUID(iid, IID_IUnknown);
    if (unknown && identity == Identity::RefuseUnknown) {
        *object = NULL;
        return STATUS_INVALID_PARAMETER;
    }
    if (unknown && identity == Identity::TwoUnknowns && unknownQueries_++ % 2 == 1) {
        *object = static_cast<IPinName *>(this);
    } else if (unknown || IsEqualGUID(iid, IID_IMiniport) || IsEqualGUID(iid, IID_IMiniportDMus)) {
        *object = static_cast<IMiniportDMus *>(this);
    } else if (IsEqualGUID(iid, IID_IPinName)) {
        *object = static_cast<IPinName *>(this);
    } else if (IsEqualGUID(iid, IID_IPinCount)) {
        *object = static_cast<IPinCount *>(this);
    } else {
        *object = NULL;
        return STATUS_INVALID_PARAMETER;
    }
    AddRef();
    return STATUS_SUCCESS;
}

STDMETHODIMP_(NTSTATUS) TestMiniport::GetDescription(PPCFILTER_DESCRIPTOR *description)
{
    *description = const_cast<PPCFILTER_DESCRIPTOR>(&kDescription);
    return STATUS_SUCCESS;
}

STDMETHODIMP_(NTSTATUS) TestMiniport::Init(PUNKNOWN, PRESOURCELIST, PPORTDMUS port, PSERVICEGROUP *group)
{
    port_ = port;
    port_->AddRef();
    NTSTATUS status = PcNewServiceGroup(&group_, NULL);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    port_->RegisterServiceGroup(group_);
    group_->AddRef();
    *group = group_;
    return STATUS_SUCCESS;
}

STDMETHODIMP_(NTSTATUS) TestMiniport::NewStream(PMXF *mxf, PUNKNOWN, POOL_TYPE, ULONG pinId, DMUS_STREAM_TYPE type,
                                                PKSDATAFORMAT format, PSERVICEGROUP *group, PAllocatorMXF allocator,
                                                PMASTERCLOCK clock, PULONGLONG prefetch)
{
    *prefetch = 0;
    *group = NULL;
    *mxf = NULL;
    std::lock_guard<std::mutex> lock(mutex);
    newStreamCalls.push_back({pinId, type, format ? format->SubFormat : GUID_NULL, allocator != NULL, clock != NULL});
    if (!NT_SUCCESS(newStreamStatus.load())) {
        return newStreamStatus;
    }
    auto *stream = new TestStream(this, type == DMUS_STREAM_MIDI_CAPTURE, allocator);
    streams_.push_back(stream);
    *mxf = stream;
    if (stream->capture()) {
        group_->AddRef();
        *group = group_;
    }
    return STATUS_SUCCESS;
}

std::vector<TestStream *> TestMiniport::streams(bool capture)
{
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<TestStream *> out;
    for (TestStream *s : streams_) {
        if (s->capture() == capture) {
            out.push_back(s);
        }
    }
    return out;
}

void TestMiniport::streamGone(TestStream *stream)
{
    std::lock_guard<std::mutex> lock(mutex);
    streams_.erase(std::find(streams_.begin(), streams_.end(), stream));
}

STDMETHODIMP_(NTSTATUS) TestMiniport::GetPinName(PIRP irp, PKSP_PIN pin, PVOID data)
{
    std::u16string name = u"Test pin " + std::u16string(1, char16_t(u'0' + pin->PinId));
    ULONG needed = ULONG((name.size() + 1) * 2);
    ULONG room = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength;
    if (room == 0) {
        irp->IoStatus.Information = needed;
        return STATUS_BUFFER_OVERFLOW;
    }
    if (room < needed) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    memcpy(data, name.c_str(), needed);
    irp->IoStatus.Information = needed;
    return STATUS_SUCCESS;
}

STDMETHODIMP_(void) TestMiniport::PinCount(ULONG pinId, PULONG, PULONG, PULONG filterPossible, PULONG, PULONG)
{
    if (pinId == kRenderPin && renderFilterLimit.load() != 0xFFFFFFFF) {
        *filterPossible = renderFilterLimit;
    }
}

// ------------------------------------------------------------------ fixture
void PortclsTest::SetUp()
{
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    driver_ = hk::loadDriver(u"pctest", driverEntry, &status);
    ASSERT_NE(driver_, nullptr);
    node_ = hk::addRootDevice(driver_);
    ASSERT_EQ(node_->addDeviceStatus(), STATUS_SUCCESS);
    ASSERT_EQ(node_->start(), STATUS_SUCCESS);
}

PDEVICE_OBJECT PortclsTest::fdo() { return node_->top(); }

TestMiniport *PortclsTest::publish(const std::u16string &name, const std::u16string &friendly,
                                   TestMiniport::Identity identity)
{
    PPORT port = NULL;
    EXPECT_EQ(PcNewPort(&port, CLSID_PortDMus), STATUS_SUCCESS);
    auto *miniport = new TestMiniport;
    miniport->identity = identity;
    EXPECT_EQ(port->Init(fdo(), NULL, static_cast<IMiniportDMus *>(miniport), NULL, NULL), STATUS_SUCCESS);
    std::u16string copy = name;
    EXPECT_EQ(PcRegisterSubdevice(fdo(), reinterpret_cast<PWCHAR>(copy.data()), port), STATUS_SUCCESS);
    for (const GUID &category : {KSCATEGORY_AUDIO, KSCATEGORY_RENDER, KSCATEGORY_CAPTURE}) {
        for (const hk::DeviceInterface &i : hk::deviceInterfaces(category)) {
            if (i.referenceString == name) {
                hk::registry::setString(i.deviceParametersKey, u"FriendlyName", friendly);
            }
        }
    }
    PPORTDMUS dmus = NULL;
    EXPECT_EQ(port->QueryInterface(IID_IPortDMus, reinterpret_cast<PVOID *>(&dmus)), STATUS_SUCCESS);
    port->Release();
    published_.push_back({miniport, dmus});
    miniport->Release(); // the port holds it now
    return miniport;
}

NTSTATUS PortclsTest::withdraw(TestMiniport *miniport)
{
    for (auto it = published_.begin(); it != published_.end(); ++it) {
        if (it->miniport == miniport) {
            PUNREGISTERSUBDEVICE unregister = NULL;
            it->port->QueryInterface(IID_IUnregisterSubdevice, reinterpret_cast<PVOID *>(&unregister));
            NTSTATUS status = unregister->UnregisterSubdevice(fdo(), it->port);
            unregister->Release();
            it->port->Release();
            published_.erase(it);
            return status;
        }
    }
    return STATUS_NOT_FOUND;
}

void PortclsTest::TearDown()
{
    processes_.clear();
    hk::drainIo();
    while (!published_.empty()) {
        withdraw(published_.front().miniport);
    }
    if (node_) {
        EXPECT_EQ(node_->remove(), STATUS_SUCCESS);
    }
    if (driver_ != nullptr) {
        EXPECT_EQ(hk::unloadDriver(driver_), STATUS_SUCCESS);
    }
    hk::drainIo();
    EXPECT_EQ(gLive.load(), 0) << "test miniports or streams left";
    hk::PortclsStats s = hk::portclsStats();
    EXPECT_EQ(s.outstandingEvents, 0u);
    EXPECT_EQ(s.outstandingBuffers, 0u);
    EXPECT_EQ(s.liveObjects, 0u);
}

hk::Process &PortclsTest::process(uint64_t id)
{
    processes_.push_back(std::make_unique<hk::Process>(id));
    return *processes_.back();
}

std::unique_ptr<hk::midi::Filter> PortclsTest::openFilter(hk::Process &p, const std::u16string &friendly)
{
    std::unique_ptr<hk::midi::Filter> filter;
    auto port = hk::midi::findPort(friendly);
    EXPECT_TRUE(port.has_value());
    if (port) {
        EXPECT_EQ(hk::midi::Filter::open(p, port->path, &filter), STATUS_SUCCESS);
    }
    return filter;
}

std::unique_ptr<hk::midi::Pin> PortclsTest::openPin(hk::midi::Filter &f, ULONG pinId, NTSTATUS expected,
                                                    const GUID &subFormat)
{
    std::unique_ptr<hk::midi::Pin> pin;
    EXPECT_EQ(hk::midi::Pin::open(f, pinId, subFormat, &pin), expected) << "pin " << pinId;
    return pin;
}

} // namespace pctest
