// The DMus port driver: the framework half of a DirectMusic sub-device.
#pragma once

#include "internal.h"

namespace hostkernel::detail::pc {

class Port;

// The port's member in service groups. It holds the port without a count
// (the port holds it), and the port detaches it before it lets go of its
// miniport.
class PortSink : public IServiceSink, public Object {
public:
    explicit PortSink(Port *port) : Object("DMus port service sink"), port_(port) {}
    HK_PC_UNKNOWN()
    STDMETHODIMP_(void) RequestService() override;
    void detach();

private:
    std::mutex mutex_;
    Port *port_;
};

class Port : public IPortDMus, public IUnregisterSubdevice, public Object {
public:
    Port();
    HK_PC_UNKNOWN()

    // IPort
    STDMETHODIMP_(NTSTATUS) Init(PDEVICE_OBJECT DeviceObject, PIRP Irp, PUNKNOWN UnknownMiniport,
                                 PUNKNOWN UnknownAdapter, PRESOURCELIST ResourceList) override;
    STDMETHODIMP_(NTSTATUS) GetDeviceProperty(DEVICE_REGISTRY_PROPERTY, ULONG, PVOID, PULONG) override;
    STDMETHODIMP_(NTSTATUS) NewRegistryKey(PREGISTRYKEY *, PUNKNOWN, ULONG, ACCESS_MASK, POBJECT_ATTRIBUTES, ULONG,
                                           PULONG) override;
    // IPortDMus
    STDMETHODIMP_(void) Notify(PSERVICEGROUP ServiceGroup) override;
    STDMETHODIMP_(void) RegisterServiceGroup(PSERVICEGROUP ServiceGroup) override;
    // IUnregisterSubdevice
    STDMETHODIMP_(NTSTATUS) UnregisterSubdevice(PDEVICE_OBJECT DeviceObject, PUNKNOWN Unknown) override;

    // ---- framework side (PASSIVE_LEVEL unless said otherwise)
    bool initialized();
    // The miniport's description, asked for afresh.
    NTSTATUS description(const PCFILTER_DESCRIPTOR **out);
    // Counted interfaces of the miniport, null once the port let go of it.
    PMINIPORTDMUS miniport() { return referenced(&Port::miniport_); }
    PPINCOUNT pinCountInterface() { return referenced(&Port::pinCount_); }
    PPINNAME pinNameInterface() { return referenced(&Port::pinName_); }
    Allocator *allocator() { return allocator_; }
    IMasterClock *clock() { return clock_; }

    // Filters: new opens are refused once the sub-device is unregistered.
    bool openFilter();
    void closeFilter();
    void setRegistered(bool registered);
    void registrationFailed();

    // Global pin instance counts of this sub-device.
    bool admitPin(ULONG pinId, ULONG globalPossible);
    void leavePin(ULONG pinId);
    ULONG globalInstances(ULONG pinId);

    // Capture streams in KSSTATE_RUN are serviced after every notification
    // and every millisecond. stopCapture returns once no service pass still
    // uses the stream.
    void startCapture(PMXF stream);
    void stopCapture(PMXF stream);

    void addMembership(PSERVICEGROUP group);
    void removeMembership(PSERVICEGROUP group);

    // DISPATCH_LEVEL: one service pass.
    void service(bool notified);

private:
    // One of the miniport's interfaces with a reference of the caller's own,
    // taken under the lock that the port's release of them also takes.
    template <typename Face> Face *referenced(Face *Port::*member)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Face *face = this->*member;
        if (face != NULL) {
            face->AddRef();
        }
        return face;
    }

    void finalRelease() override;
    void maybeReleaseChildren();
    static VOID NTAPI periodicDpc(PKDPC, PVOID context, PVOID, PVOID);

    std::mutex mutex_;
    bool initialized_ = false;
    bool registered_ = false;
    bool childrenReleased_ = false;
    long openFilters_ = 0;
    PMINIPORTDMUS miniport_ = nullptr;
    PPINCOUNT pinCount_ = nullptr;
    PPINNAME pinName_ = nullptr;
    PPOWERNOTIFY powerNotify_ = nullptr;
    PSERVICEGROUP initGroup_ = nullptr;       // what the miniport's Init handed out
    PSERVICEGROUP registeredGroup_ = nullptr; // RegisterServiceGroup
    std::map<PSERVICEGROUP, long> memberships_;
    PortSink *sink_ = nullptr;
    Allocator *allocator_ = nullptr;
    IMasterClock *clock_ = nullptr;
    std::map<ULONG, ULONG> globalPins_;
    std::vector<PMXF> running_;
    KTIMER timer_;
    KDPC timerDpc_;
};

} // namespace hostkernel::detail::pc
