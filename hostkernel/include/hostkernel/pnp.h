// The test side of plug and play: a root-enumerated device whose physical
// device object belongs to the host's root bus, the requests the PnP manager
// sends its stack, the device interfaces drivers register (how MIDI clients
// find ports), and the Windows version the system reports. Never included by
// driver sources.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "io.h"

namespace hostkernel {

namespace detail {
struct DeviceNodeState;
}

class DeviceNode {
public:
    explicit DeviceNode(std::shared_ptr<detail::DeviceNodeState> state);
    ~DeviceNode();

    PDEVICE_OBJECT pdo() const;
    // The top of the device stack (the PDO itself when nothing attached).
    PDEVICE_OBJECT top() const;
    const std::u16string &instancePath() const;
    // AddDevice's result.
    NTSTATUS addDeviceStatus() const;

    // IRP_MN_START_DEVICE with these lists as AllocatedResources and
    // AllocatedResourcesTranslated (either may be null).
    NTSTATUS start(const CM_RESOURCE_LIST *raw, const CM_RESOURCE_LIST *translated);
    // The same with an empty list (a device that claims no hardware).
    NTSTATUS start();
    // Query-stop, then stop (cancel-stop when the query fails).
    NTSTATUS stop();
    // Query-remove, then remove (cancel-remove when the query fails). After
    // the removal the bus deletes the PDO and disables its interfaces; a
    // function device still attached is a violation (ObjectReferenceLeak).
    NTSTATUS remove();
    // Surprise removal, then remove.
    NTSTATUS surpriseRemove();
    // Any other PnP request, sent from a system thread at PASSIVE_LEVEL to
    // the top of the stack with IoStatus.Status STATUS_NOT_SUPPORTED as the
    // PnP manager sends it; `setup` fills in the stack location's parameters.
    IoResult send(UCHAR minorFunction, void (*setup)(PIO_STACK_LOCATION, void *) = nullptr, void *context = nullptr);
    bool removed() const;

private:
    std::shared_ptr<detail::DeviceNodeState> state_;
};

// Creates the PDO ("\Device\NNNNNNNN", instance path such as
// "ROOT\MEDIA\0000") and calls the driver's AddDevice at PASSIVE_LEVEL in a
// system thread. When AddDevice fails the PDO is deleted again.
std::shared_ptr<DeviceNode> addRootDevice(PDRIVER_OBJECT driver,
                                          std::u16string_view instancePath = u"ROOT\\MEDIA\\0000");

struct DeviceInterface {
    GUID classGuid{};
    std::u16string symbolicLink;    // "\??\ROOT#MEDIA#0000#{guid}\ref", openable when enabled
    std::u16string referenceString; // "" when none
    bool enabled = false;
    std::u16string deviceParametersKey; // registry path of its "Device Parameters" key
};
// Registered interfaces of a class, in registration order.
std::vector<DeviceInterface> deviceInterfaces(const GUID &classGuid, bool enabledOnly = true);

// The version IoIsWdmVersionAvailable answers for: 6.0 (Windows Vista and
// later) unless a test says otherwise, e.g. 1.0x20 (XP) or 1.0x10 (2000).
void setWdmVersion(UCHAR major, UCHAR minor);

} // namespace hostkernel
