// The DMus port: binds a miniport to the framework, owns the sub-device's
// event allocator and master clock, and services its capture streams.
//
// The port and its miniport hold each other (the miniport keeps the port it
// was initialised with). The port lets go of the miniport once nothing can
// reach it any more: the sub-device is unregistered (or its registration
// failed) and its last filter is closed. The miniport's release of the port
// then ends the port too.
#include "port.h"

namespace hostkernel::detail::pc {

// ------------------------------------------------------------------ sink
STDMETHODIMP_(NTSTATUS) PortSink::QueryInterface(REFIID iid, PVOID *object)
{
    if (object == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (IsEqualGUID(iid, IID_IUnknown) || IsEqualGUID(iid, IID_IServiceSink)) {
        *object = static_cast<IServiceSink *>(this);
        addRef();
        return STATUS_SUCCESS;
    }
    *object = NULL;
    return STATUS_INVALID_PARAMETER;
}

STDMETHODIMP_(void) PortSink::RequestService()
{
    Port *port;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        port = port_;
    }
    // A pass that got the port before detach() is waited for by the port
    // (it flushes the DPCs) before it lets go of anything the pass uses.
    if (port != nullptr) {
        port->service(true);
    }
}

void PortSink::detach()
{
    std::lock_guard<std::mutex> lock(mutex_);
    port_ = nullptr;
}

// ------------------------------------------------------------------ port
Port::Port() : Object("DMus port", true)
{
    sink_ = new PortSink(this);
    allocator_ = newAllocator(settings().largeBufferSize);
    clock_ = newMasterClock();
    KeInitializeTimerEx(&timer_, NotificationTimer);
    KeInitializeDpc(&timerDpc_, &Port::periodicDpc, this);
}

STDMETHODIMP_(NTSTATUS) Port::QueryInterface(REFIID iid, PVOID *object)
{
    if (object == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (IsEqualGUID(iid, IID_IUnknown) || IsEqualGUID(iid, IID_IPort) || IsEqualGUID(iid, IID_IPortDMus)) {
        *object = static_cast<IPortDMus *>(this);
    } else if (IsEqualGUID(iid, IID_IUnregisterSubdevice)) {
        *object = static_cast<IUnregisterSubdevice *>(this);
    } else if (IsEqualGUID(iid, IID_IHostPortDMus)) {
        *object = static_cast<Port *>(this);
    } else {
        *object = NULL;
        return STATUS_INVALID_PARAMETER;
    }
    addRef();
    return STATUS_SUCCESS;
}

STDMETHODIMP_(NTSTATUS) Port::Init(PDEVICE_OBJECT DeviceObject, PIRP, PUNKNOWN UnknownMiniport,
                                   PUNKNOWN UnknownAdapter, PRESOURCELIST ResourceList)
{
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
        reportViolation(Rule::IrqlTooHigh, "IPort::Init above PASSIVE_LEVEL");
    }
    if (adapterOf(DeviceObject) == nullptr || UnknownMiniport == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (initialized_ || childrenReleased_) {
            return STATUS_INVALID_DEVICE_STATE;
        }
    }
    PMINIPORTDMUS miniport = NULL;
    NTSTATUS status = UnknownMiniport->QueryInterface(IID_IMiniportDMus, reinterpret_cast<PVOID *>(&miniport));
    if (!NT_SUCCESS(status) || miniport == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    checkComIdentity(UnknownMiniport, miniport, "miniport");
    PPINCOUNT pinCount = NULL;
    PPINNAME pinName = NULL;
    PPOWERNOTIFY powerNotify = NULL;
    if (!NT_SUCCESS(UnknownMiniport->QueryInterface(IID_IPinCount, reinterpret_cast<PVOID *>(&pinCount)))) {
        pinCount = NULL;
    }
    if (!NT_SUCCESS(UnknownMiniport->QueryInterface(IID_IPinName, reinterpret_cast<PVOID *>(&pinName)))) {
        pinName = NULL;
    }
    if (!NT_SUCCESS(UnknownMiniport->QueryInterface(IID_IPowerNotify, reinterpret_cast<PVOID *>(&powerNotify)))) {
        powerNotify = NULL;
    }

    PSERVICEGROUP group = NULL;
    status = miniport->Init(UnknownAdapter, ResourceList, this, &group);
    if (!NT_SUCCESS(status)) {
        if (group != NULL) {
            group->Release();
        }
        // A group the miniport registered before it failed goes too.
        PSERVICEGROUP registered;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            registered = registeredGroup_;
            registeredGroup_ = nullptr;
        }
        if (registered != NULL) {
            removeMembership(registered);
            registered->Release();
        }
        if (pinCount != NULL) {
            pinCount->Release();
        }
        if (pinName != NULL) {
            pinName->Release();
        }
        if (powerNotify != NULL) {
            powerNotify->Release();
        }
        miniport->Release();
        return status;
    }
    if (group != NULL) {
        addMembership(group);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    miniport_ = miniport;
    pinCount_ = pinCount;
    pinName_ = pinName;
    powerNotify_ = powerNotify;
    initGroup_ = group;
    initialized_ = true;
    return STATUS_SUCCESS;
}

STDMETHODIMP_(NTSTATUS) Port::GetDeviceProperty(DEVICE_REGISTRY_PROPERTY, ULONG, PVOID, PULONG)
{
    return STATUS_NOT_IMPLEMENTED;
}

STDMETHODIMP_(NTSTATUS) Port::NewRegistryKey(PREGISTRYKEY *out, PUNKNOWN, ULONG, ACCESS_MASK, POBJECT_ATTRIBUTES,
                                             ULONG, PULONG)
{
    if (out != NULL) {
        *out = NULL;
    }
    return STATUS_NOT_IMPLEMENTED;
}

STDMETHODIMP_(void) Port::Notify(PSERVICEGROUP ServiceGroup)
{
    if (KeGetCurrentIrql() > DISPATCH_LEVEL) {
        reportViolation(Rule::IrqlTooHigh, "IPortDMus::Notify above DISPATCH_LEVEL");
    }
    if (ServiceGroup != NULL) {
        ServiceGroup->RequestService();
        return;
    }
    // No group named: the one the miniport registered stands for it.
    PSERVICEGROUP group;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        group = registeredGroup_ != nullptr ? registeredGroup_ : initGroup_;
        if (group != nullptr) {
            group->AddRef();
        }
    }
    if (group != NULL) {
        group->RequestService();
        group->Release();
    }
}

STDMETHODIMP_(void) Port::RegisterServiceGroup(PSERVICEGROUP ServiceGroup)
{
    if (ServiceGroup == NULL) {
        return;
    }
    ServiceGroup->AddRef();
    addMembership(ServiceGroup);
    PSERVICEGROUP old;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        old = registeredGroup_;
        registeredGroup_ = ServiceGroup;
    }
    if (old != NULL) {
        removeMembership(old);
        old->Release();
    }
}

STDMETHODIMP_(NTSTATUS) Port::UnregisterSubdevice(PDEVICE_OBJECT DeviceObject, PUNKNOWN Unknown)
{
    std::shared_ptr<Adapter> adapter = adapterOf(DeviceObject);
    Port *port = portOf(Unknown);
    if (adapter == nullptr || port == nullptr) {
        if (port != nullptr) {
            port->release();
        }
        return STATUS_INVALID_PARAMETER;
    }
    Subdevice found;
    bool have = false;
    {
        std::lock_guard<std::mutex> lock(adapter->mutex);
        for (auto it = adapter->subdevices.begin(); it != adapter->subdevices.end(); ++it) {
            if (it->port == port) {
                found = *it;
                adapter->subdevices.erase(it);
                have = true;
                break;
            }
        }
    }
    port->release();
    if (!have) {
        return STATUS_NOT_FOUND;
    }
    for (std::u16string &link : found.interfaceLinks) {
        UNICODE_STRING s{USHORT(link.size() * 2), USHORT(link.size() * 2), reinterpret_cast<PWSTR>(link.data())};
        IoSetDeviceInterfaceState(&s, FALSE);
    }
    found.port->setRegistered(false);
    found.port->release(); // the registration's reference
    return STATUS_SUCCESS;
}

bool Port::initialized()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return initialized_ && !childrenReleased_;
}

NTSTATUS Port::description(const PCFILTER_DESCRIPTOR **out)
{
    *out = nullptr;
    PMINIPORTDMUS mp = miniport();
    if (mp == NULL) {
        return STATUS_DEVICE_REMOVED;
    }
    PPCFILTER_DESCRIPTOR d = NULL;
    NTSTATUS status = mp->GetDescription(&d);
    mp->Release();
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // A description the framework cannot walk is refused rather than read.
    if (d == NULL || (d->PinCount > 0 && (d->Pins == NULL || d->PinSize < sizeof(PCPIN_DESCRIPTOR))) ||
        (d->NodeCount > 0 && (d->Nodes == NULL || d->NodeSize < sizeof(PCNODE_DESCRIPTOR))) ||
        (d->ConnectionCount > 0 && d->Connections == NULL) || (d->CategoryCount > 0 && d->Categories == NULL)) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    *out = d;
    return STATUS_SUCCESS;
}

bool Port::openFilter()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (!registered_ || childrenReleased_) {
        return false;
    }
    openFilters_++;
    return true;
}

void Port::closeFilter()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        openFilters_--;
    }
    maybeReleaseChildren();
}

void Port::setRegistered(bool registered)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        registered_ = registered;
    }
    maybeReleaseChildren();
}

void Port::registrationFailed()
{
    maybeReleaseChildren();
}

bool Port::admitPin(ULONG pinId, ULONG globalPossible)
{
    std::lock_guard<std::mutex> lock(mutex_);
    ULONG &count = globalPins_[pinId];
    if (count >= globalPossible) {
        return false;
    }
    count++;
    return true;
}

void Port::leavePin(ULONG pinId)
{
    std::lock_guard<std::mutex> lock(mutex_);
    globalPins_[pinId]--;
}

ULONG Port::globalInstances(ULONG pinId)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = globalPins_.find(pinId);
    return it == globalPins_.end() ? 0 : it->second;
}

void Port::startCapture(PMXF stream)
{
    std::lock_guard<std::mutex> lock(mutex_);
    running_.push_back(stream);
    if (running_.size() == 1) {
        LARGE_INTEGER due;
        due.QuadPart = -10000; // 1 ms
        KeSetTimerEx(&timer_, due, 1, &timerDpc_);
    }
}

void Port::stopCapture(PMXF stream)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = running_.begin(); it != running_.end(); ++it) {
            if (*it == stream) {
                running_.erase(it);
                break;
            }
        }
        if (running_.empty()) {
            KeCancelTimer(&timer_);
        }
    }
    // A pass that took its list of streams before the removal may still be
    // calling this one.
    KeFlushQueuedDpcs();
}

void Port::addMembership(PSERVICEGROUP group)
{
    bool add;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        add = memberships_[group]++ == 0;
    }
    if (add) {
        group->AddMember(sink_);
    }
}

void Port::removeMembership(PSERVICEGROUP group)
{
    bool remove = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = memberships_.find(group);
        if (it != memberships_.end() && --it->second == 0) {
            memberships_.erase(it);
            remove = true;
        }
    }
    if (remove) {
        group->RemoveMember(sink_);
    }
}

void Port::service(bool notified)
{
    PMINIPORTDMUS mp;
    std::vector<PMXF> streams;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        mp = miniport_;
        streams = running_;
    }
    if (notified && mp != NULL) {
        mp->Service();
    }
    for (PMXF stream : streams) {
        stream->PutMessage(NULL);
    }
}

VOID Port::periodicDpc(PKDPC, PVOID context, PVOID, PVOID)
{
    static_cast<Port *>(context)->service(false);
}

void Port::maybeReleaseChildren()
{
    PMINIPORTDMUS mp;
    PPINCOUNT pinCount;
    PPINNAME pinName;
    PPOWERNOTIFY powerNotify;
    PSERVICEGROUP initGroup, registeredGroup;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!initialized_ || registered_ || openFilters_ > 0 || childrenReleased_) {
            return;
        }
        childrenReleased_ = true;
        mp = miniport_;
        pinCount = pinCount_;
        pinName = pinName_;
        powerNotify = powerNotify_;
        initGroup = initGroup_;
        registeredGroup = registeredGroup_;
        miniport_ = nullptr;
        pinCount_ = nullptr;
        pinName_ = nullptr;
        powerNotify_ = nullptr;
        initGroup_ = nullptr;
        registeredGroup_ = nullptr;
    }
    sink_->detach();
    if (initGroup != NULL) {
        removeMembership(initGroup);
    }
    if (registeredGroup != NULL) {
        removeMembership(registeredGroup);
    }
    // Service passes that started before the detach finish before the
    // miniport can go.
    KeFlushQueuedDpcs();
    if (initGroup != NULL) {
        initGroup->Release();
    }
    if (registeredGroup != NULL) {
        registeredGroup->Release();
    }
    if (pinCount != NULL) {
        pinCount->Release();
    }
    if (pinName != NULL) {
        pinName->Release();
    }
    if (powerNotify != NULL) {
        powerNotify->Release();
    }
    mp->Release();
}

void Port::finalRelease()
{
    KeCancelTimer(&timer_);
    sink_->detach();
    sink_->release();
    allocatorInterface(allocator_)->Release();
    clock_->Release();
}

Port *portOf(PUNKNOWN unknown)
{
    if (unknown == NULL) {
        return nullptr;
    }
    PVOID p = NULL;
    if (!NT_SUCCESS(unknown->QueryInterface(IID_IHostPortDMus, &p)) || p == NULL) {
        return nullptr;
    }
    return static_cast<Port *>(p);
}

} // namespace hostkernel::detail::pc

using namespace hostkernel::detail::pc;

NTSTATUS NTAPI PcNewPort(PPORT *OutPort, REFCLSID ClassId)
{
    if (OutPort == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    *OutPort = NULL;
    if (!IsEqualGUID(ClassId, CLSID_PortDMus)) {
        // The host framework has the DMus port only.
        return STATUS_NOT_SUPPORTED;
    }
    *OutPort = static_cast<IPortDMus *>(new Port);
    return STATUS_SUCCESS;
}
