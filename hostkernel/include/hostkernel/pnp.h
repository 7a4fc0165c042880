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

    // Requests to a node whose removal has begun (or is waiting for its last
    // close) give STATUS_DELETE_PENDING without reaching the stack; to a
    // removed node STATUS_NO_SUCH_DEVICE.

    // IRP_MN_START_DEVICE with these lists as AllocatedResources and
    // AllocatedResourcesTranslated (either may be null).
    NTSTATUS start(const CM_RESOURCE_LIST *raw, const CM_RESOURCE_LIST *translated);
    // The same with an empty list (a device that claims no hardware).
    NTSTATUS start();
    // Query-stop, then stop (cancel-stop when the query fails).
    NTSTATUS stop();
    // An orderly removal. While a file object is open on any device of the
    // stack the PnP manager vetoes it (STATUS_PLUGPLAY_QUERY_VETOED) and no
    // request is sent. Otherwise query-remove, then remove (cancel-remove
    // when the query fails, and the node stays as it was). From the check on,
    // opens of the stack fail with STATUS_DELETE_PENDING. After the removal
    // the bus deletes the PDO and disables its interfaces; a function device
    // still attached is a violation (ObjectReferenceLeak).
    NTSTATUS remove();
    // IRP_MN_SURPRISE_REMOVAL at once; opens of the stack fail with
    // STATUS_DELETE_PENDING from here on. With no file object open on the
    // stack IRP_MN_REMOVE_DEVICE follows and its status is returned.
    // Otherwise STATUS_PENDING: the removal is sent by whichever thread
    // closes the stack's last file object (cleanup and close of those still
    // reach the function device), and removed() turns true then.
    NTSTATUS surpriseRemove();
    // Surprise-removed, IRP_MN_REMOVE_DEVICE still waiting for the last close.
    bool removalPending() const;
    // Any other PnP request, sent from a system thread at PASSIVE_LEVEL to
    // the top of the stack with IoStatus.Status STATUS_NOT_SUPPORTED as the
    // PnP manager sends it; `setup` fills in the stack location's parameters.
    IoResult send(UCHAR minorFunction, void (*setup)(PIO_STACK_LOCATION, void *) = nullptr, void *context = nullptr);
    bool removed() const;

private:
    NTSTATUS acceptsRequests() const;

    std::shared_ptr<detail::DeviceNodeState> state_;
};

// Creates the PDO ("\Device\NNNNNNNN", instance path such as
// "ROOT\MEDIA\0000") and calls the driver's AddDevice at PASSIVE_LEVEL in a
// system thread. When AddDevice fails, a stack it built is sent
// IRP_MN_REMOVE_DEVICE (as Windows tears down a failed add) and the PDO is
// deleted again; devices of the driver outside the stack stay its own.
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
