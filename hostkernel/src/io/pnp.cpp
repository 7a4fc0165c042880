// Plug and play: the root bus and its physical device objects, the requests
// the PnP manager sends a device stack, device interfaces, and the WDM
// version the system reports.
#include <algorithm>

#include "hostkernel/pnp.h"
#include "hostkernel/registry.h"
#include "internal.h"

namespace hostkernel::detail {

// Where a node's removal stands. Opens of the stack are refused from the
// moment a removal begins; only the node's own removal moves it on.
enum class Removal {
    None,
    Removing,          // query-remove/remove (or a failed add's remove) under way
    SurpriseRemoving,  // IRP_MN_SURPRISE_REMOVAL under way
    AwaitingLastClose, // surprise-removed; IRP_MN_REMOVE_DEVICE waits for the stack's last file object
};

struct DeviceNodeState {
    DeviceRecord *pdo = nullptr; // null once the bus has deleted it
    PDEVICE_OBJECT pdoObject = nullptr;
    std::u16string instancePath;
    std::u16string pdoName;
    NTSTATUS addStatus = STATUS_PENDING;
    Removal removal = Removal::None; // objectsMutex
    std::atomic<bool> removed{false};
};

namespace {

struct InterfaceRecord {
    GUID classGuid{};
    std::u16string instancePath;
    DeviceRecord *pdo = nullptr; // null while its PDO does not exist
    std::u16string reference;
    std::u16string linkObject; // "\??\ROOT#MEDIA#0000#{guid}": the namespace link
    std::u16string link;       // linkObject + "\" + reference
    std::u16string keyPath;    // the interface instance's registry key
    bool enabled = false;
};

// Interfaces, nodes and link counts are guarded by objectsMutex().
std::vector<InterfaceRecord> gInterfaces;
std::map<std::u16string, int> gLinkUsers; // enabled interfaces per namespace link
std::vector<std::shared_ptr<DeviceNodeState>> gNodes;
DriverRecord *gBus = nullptr;
std::atomic<int> gWdmVersion{0x0600};

std::u16string guidText(const GUID &g, bool upper)
{
    const char16_t *digits = upper ? u"0123456789ABCDEF" : u"0123456789abcdef";
    std::u16string out = u"{";
    auto put = [&](std::uint64_t v, int nibbles) {
        for (int i = nibbles - 1; i >= 0; i--) {
            out.push_back(digits[(v >> (4 * i)) & 0xF]);
        }
    };
    put(g.Data1, 8);
    out.push_back(u'-');
    put(g.Data2, 4);
    out.push_back(u'-');
    put(g.Data3, 4);
    out.push_back(u'-');
    put(g.Data4[0], 2);
    put(g.Data4[1], 2);
    out.push_back(u'-');
    for (int i = 2; i < 8; i++) {
        put(g.Data4[i], 2);
    }
    out.push_back(u'}');
    return out;
}

// A root bus completes what reaches it: the state changes succeed, the
// capabilities are filled in, anything else keeps the status it came with.
NTSTATUS NTAPI busDispatchPnp(PDEVICE_OBJECT, PIRP irp)
{
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = irp->IoStatus.Status;
    switch (location->MinorFunction) {
    case IRP_MN_START_DEVICE:
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_REMOVE_DEVICE:
    case IRP_MN_SURPRISE_REMOVAL:
        status = STATUS_SUCCESS;
        break;
    case IRP_MN_QUERY_CAPABILITIES: {
        PDEVICE_CAPABILITIES caps = location->Parameters.DeviceCapabilities.Capabilities;
        if (caps == nullptr || caps->Version != 1 || caps->Size < sizeof(DEVICE_CAPABILITIES)) {
            status = STATUS_UNSUCCESSFUL;
            break;
        }
        caps->DeviceState[PowerSystemWorking] = PowerDeviceD0;
        for (int s = PowerSystemSleeping1; s < PowerSystemMaximum; s++) {
            caps->DeviceState[s] = PowerDeviceD3;
        }
        caps->SystemWake = PowerSystemUnspecified;
        caps->DeviceWake = PowerDeviceUnspecified;
        caps->SilentInstall = 1;
        caps->Address = 0xFFFFFFFF;
        caps->UINumber = 0xFFFFFFFF;
        status = STATUS_SUCCESS;
        break;
    }
    default:
        break;
    }
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS NTAPI busDispatchPower(PDEVICE_OBJECT, PIRP irp)
{
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = irp->IoStatus.Status;
    if (location->MinorFunction == IRP_MN_SET_POWER || location->MinorFunction == IRP_MN_QUERY_POWER) {
        status = STATUS_SUCCESS;
    }
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

DriverRecord *busDriver()
{
    static std::once_flag once;
    std::call_once(once, [] {
        gBus = createDriverRecord(u"HostRootBus", true);
        gBus->object.MajorFunction[IRP_MJ_PNP] = busDispatchPnp;
        gBus->object.MajorFunction[IRP_MJ_POWER] = busDispatchPower;
    });
    return gBus;
}

InterfaceRecord *findInterfaceLocked(std::u16string_view link)
{
    for (auto &record : gInterfaces) {
        if (equalNoCase(record.link, link)) {
            return &record;
        }
    }
    return nullptr;
}

void disableLocked(InterfaceRecord &record)
{
    record.enabled = false;
    std::u16string key = upcase(record.linkObject);
    if (--gLinkUsers[key] == 0) {
        gLinkUsers.erase(key);
        deleteLinkLocked(record.linkObject);
    }
}

// A PnP request from a system thread to the top of the node's stack.
IoResult sendPnp(DeviceNodeState &node, UCHAR minor, void (*setup)(PIO_STACK_LOCATION, void *), void *context)
{
    IoResult result;
    runInSystemThread(
        [&] {
            PDEVICE_OBJECT top;
            {
                std::lock_guard<std::mutex> lock(objectsMutex());
                top = &topOfStackLocked(node.pdo)->object;
            }
            auto record = std::make_shared<IrpRecord>(top->StackSize, IrpOrigin::Pnp);
            record->thread = currentThread();
            record->irp->Tail.Overlay.Thread = record->thread.get();
            record->irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
            PIO_STACK_LOCATION location = record->firstLocation();
            location->MajorFunction = IRP_MJ_PNP;
            location->MinorFunction = minor;
            if (setup != nullptr) {
                setup(location, context);
            }
            issueIrp(record, top);
            result = waitIrp(*record);
        },
        "a PnP request");
    return result;
}

// File objects that name a device of the node's stack (the PDO, through
// which interface opens come, and whatever is attached above it); handles on
// other devices of the same driver do not hold the stack. objectsMutex held.
long stackOpenFilesLocked(const DeviceNodeState &node)
{
    long open = 0;
    for (DeviceRecord *device = node.pdo; device != nullptr;
         device = device->object.AttachedDevice != nullptr ? deviceRecordOf(device->object.AttachedDevice) : nullptr) {
        open += device->openFiles;
    }
    return open;
}

// The node whose stack `device` is part of: the bottom device's. objectsMutex held.
DeviceNodeState *nodeOfStackLocked(DeviceRecord *device)
{
    while (device->lower != nullptr) {
        device = device->lower;
    }
    return device->node;
}

void deletePdo(DeviceNodeState &node)
{
    std::u16string attached;
    {
        std::lock_guard<std::mutex> lock(objectsMutex());
        if (node.pdoObject->AttachedDevice != nullptr) {
            DeviceRecord *upper = deviceRecordOf(node.pdoObject->AttachedDevice);
            attached = upper != nullptr ? upper->driver->name : u"?";
        }
    }
    if (!attached.empty()) {
        violation(Rule::ObjectReferenceLeak, "a device of " + narrow(attached) + " is still attached to PDO " +
                                                 narrow(node.pdoName) + " (" + narrow(node.instancePath) +
                                                 ") after its removal");
    }
    runInSystemThread([&] { IoDeleteDevice(node.pdoObject); }, "the root bus's device removal");
    std::lock_guard<std::mutex> lock(objectsMutex());
    node.pdo = nullptr;
    node.removal = Removal::None;
    node.removed = true;
    gNodes.erase(std::remove_if(gNodes.begin(), gNodes.end(), [&](auto &n) { return n.get() == &node; }),
                 gNodes.end());
}

} // namespace

void pdoRemoved(DeviceRecord *pdo)
{
    for (auto &record : gInterfaces) {
        if (record.pdo == pdo) {
            if (record.enabled) {
                disableLocked(record);
            }
            record.pdo = nullptr;
        }
    }
}

bool stackRemovalStartedLocked(DeviceRecord *device)
{
    DeviceNodeState *node = nodeOfStackLocked(device);
    return node != nullptr && node->removal != Removal::None;
}

std::shared_ptr<DeviceNodeState> takeDeferredRemovalLocked(DeviceRecord *device)
{
    DeviceNodeState *node = nodeOfStackLocked(device);
    if (node == nullptr || node->removal != Removal::AwaitingLastClose || stackOpenFilesLocked(*node) != 0) {
        return nullptr;
    }
    for (auto &candidate : gNodes) {
        if (candidate.get() == node) {
            node->removal = Removal::Removing; // claimed: exactly one closer sends the removal
            return candidate;
        }
    }
    return nullptr;
}

void finishDeferredRemoval(const std::shared_ptr<DeviceNodeState> &node)
{
    sendPnp(*node, IRP_MN_REMOVE_DEVICE, nullptr, nullptr);
    deletePdo(*node);
}

void resetInterfacesLocked()
{
    gInterfaces.clear();
    gLinkUsers.clear();
}

void resetPnp()
{
    {
        std::lock_guard<std::mutex> lock(objectsMutex());
        resetInterfacesLocked();
        gNodes.clear();
    }
    gWdmVersion = 0x0600;
}

std::vector<std::string> liveDeviceNodeDescriptions()
{
    std::lock_guard<std::mutex> lock(objectsMutex());
    std::vector<std::string> out;
    for (auto &node : gNodes) {
        if (node->removal == Removal::AwaitingLastClose) {
            out.push_back("device " + narrow(node->instancePath) + " (PDO " + narrow(node->pdoName) +
                          ") was surprise-removed and still waits for " + std::to_string(stackOpenFilesLocked(*node)) +
                          " file object(s) on its stack to close");
            continue;
        }
        out.push_back("device " + narrow(node->instancePath) + " (PDO " + narrow(node->pdoName) +
                      ") was never removed");
    }
    return out;
}

} // namespace hostkernel::detail

using namespace hostkernel;
using namespace hostkernel::detail;

// ------------------------------------------------------------------ kernel routines
NTSTATUS IoRegisterDeviceInterface(PDEVICE_OBJECT PhysicalDeviceObject, const GUID *InterfaceClassGuid,
                                   PUNICODE_STRING ReferenceString, PUNICODE_STRING SymbolicLinkName)
{
    requirePassive("IoRegisterDeviceInterface");
    if (InterfaceClassGuid == nullptr || SymbolicLinkName == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    std::u16string reference = toU16(ReferenceString);
    if (reference.find_first_of(u"\\/") != std::u16string::npos) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    NTSTATUS status = STATUS_SUCCESS;
    if (takeIoFault(IoFault::RegisterInterface, &status)) {
        return status;
    }
    std::u16string link, keyPath, instanceKeyPath, instancePath, userLink;
    {
        std::lock_guard<std::mutex> lock(objectsMutex());
        DeviceRecord *pdo = deviceRecordOf(PhysicalDeviceObject);
        if (pdo == nullptr || pdo->node == nullptr || pdo->deleted) {
            return STATUS_INVALID_DEVICE_REQUEST;
        }
        instancePath = pdo->instancePath;
        std::u16string mangled = instancePath;
        std::replace(mangled.begin(), mangled.end(), u'\\', u'#');
        std::u16string lowerGuid = guidText(*InterfaceClassGuid, false);
        std::u16string linkObject = u"\\??\\" + mangled + u"#" + lowerGuid;
        link = reference.empty() ? linkObject : linkObject + u"\\" + reference;
        userLink = u"\\\\?\\" + mangled + u"#" + lowerGuid + (reference.empty() ? u"" : u"\\" + reference);
        instanceKeyPath = u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\" + lowerGuid +
                          u"\\##?#" + mangled + u"#" + lowerGuid;
        keyPath = instanceKeyPath + u"\\#" + reference;
        InterfaceRecord *record = findInterfaceLocked(link);
        if (record == nullptr) {
            InterfaceRecord fresh;
            fresh.classGuid = *InterfaceClassGuid;
            fresh.instancePath = instancePath;
            fresh.reference = reference;
            fresh.linkObject = linkObject;
            fresh.link = link;
            fresh.keyPath = keyPath;
            gInterfaces.push_back(fresh);
            record = &gInterfaces.back();
        }
        record->pdo = pdo;
    }
    registry::setString(instanceKeyPath, u"DeviceInstance", instancePath);
    registry::setString(keyPath, u"SymbolicLink", userLink);
    return allocateUnicodeString(link, SymbolicLinkName);
}

NTSTATUS IoSetDeviceInterfaceState(PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable)
{
    requirePassive("IoSetDeviceInterfaceState");
    if (SymbolicLinkName == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = STATUS_SUCCESS;
    if (takeIoFault(IoFault::SetInterfaceState, &status)) {
        return status;
    }
    std::lock_guard<std::mutex> lock(objectsMutex());
    InterfaceRecord *record = findInterfaceLocked(toU16(SymbolicLinkName));
    if (record == nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (!Enable) {
        if (!record->enabled) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        disableLocked(*record);
        return STATUS_SUCCESS;
    }
    if (record->enabled) {
        return STATUS_OBJECT_NAME_EXISTS;
    }
    if (record->pdo == nullptr) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    std::u16string key = upcase(record->linkObject);
    if (gLinkUsers[key] == 0) {
        status = createLinkLocked(record->linkObject, record->pdo->name);
        if (!NT_SUCCESS(status)) {
            gLinkUsers.erase(key);
            return status;
        }
    }
    gLinkUsers[key]++;
    record->enabled = true;
    return STATUS_SUCCESS;
}

NTSTATUS IoOpenDeviceInterfaceRegistryKey(PUNICODE_STRING SymbolicLinkName, ACCESS_MASK DesiredAccess,
                                          PHANDLE DeviceInterfaceKey)
{
    requirePassive("IoOpenDeviceInterfaceRegistryKey");
    if (SymbolicLinkName == nullptr || DeviceInterfaceKey == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = STATUS_SUCCESS;
    if (takeIoFault(IoFault::OpenInterfaceKey, &status)) {
        return status;
    }
    std::u16string keyPath;
    {
        std::lock_guard<std::mutex> lock(objectsMutex());
        InterfaceRecord *record = findInterfaceLocked(toU16(SymbolicLinkName));
        if (record == nullptr) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        keyPath = record->keyPath;
    }
    return openOrCreateKeyPath(keyPath + u"\\Device Parameters", DesiredAccess, true, DeviceInterfaceKey);
}

BOOLEAN IoIsWdmVersionAvailable(UCHAR MajorVersion, UCHAR MinorVersion)
{
    return (int(MajorVersion) << 8 | MinorVersion) <= gWdmVersion.load();
}

// ------------------------------------------------------------------ host API
namespace hostkernel {

DeviceNode::DeviceNode(std::shared_ptr<detail::DeviceNodeState> state) : state_(std::move(state)) {}

DeviceNode::~DeviceNode() = default;

PDEVICE_OBJECT DeviceNode::pdo() const
{
    return state_->removed ? nullptr : state_->pdoObject;
}

PDEVICE_OBJECT DeviceNode::top() const
{
    std::lock_guard<std::mutex> lock(objectsMutex());
    return state_->pdo != nullptr ? &topOfStackLocked(state_->pdo)->object : nullptr;
}

const std::u16string &DeviceNode::instancePath() const
{
    return state_->instancePath;
}

NTSTATUS DeviceNode::addDeviceStatus() const
{
    return state_->addStatus;
}

bool DeviceNode::removed() const
{
    return state_->removed;
}

// Requests other than the removal's own go to a stack only while no removal
// has begun.
NTSTATUS DeviceNode::acceptsRequests() const
{
    std::lock_guard<std::mutex> lock(objectsMutex());
    if (state_->removed) {
        return STATUS_NO_SUCH_DEVICE;
    }
    return state_->removal == Removal::None ? STATUS_SUCCESS : STATUS_DELETE_PENDING;
}

NTSTATUS DeviceNode::start(const CM_RESOURCE_LIST *raw, const CM_RESOURCE_LIST *translated)
{
    requirePassive("DeviceNode::start");
    NTSTATUS status = acceptsRequests();
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const CM_RESOURCE_LIST *lists[2] = {raw, translated};
    return sendPnp(*state_, IRP_MN_START_DEVICE,
                   [](PIO_STACK_LOCATION location, void *context) {
                       auto **l = static_cast<const CM_RESOURCE_LIST **>(context);
                       location->Parameters.StartDevice.AllocatedResources = const_cast<PCM_RESOURCE_LIST>(l[0]);
                       location->Parameters.StartDevice.AllocatedResourcesTranslated =
                           const_cast<PCM_RESOURCE_LIST>(l[1]);
                   },
                   lists)
        .status;
}

NTSTATUS DeviceNode::start()
{
    static const CM_RESOURCE_LIST empty{};
    return start(&empty, &empty);
}

NTSTATUS DeviceNode::stop()
{
    requirePassive("DeviceNode::stop");
    NTSTATUS status = acceptsRequests();
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = sendPnp(*state_, IRP_MN_QUERY_STOP_DEVICE, nullptr, nullptr).status;
    if (!NT_SUCCESS(status)) {
        sendPnp(*state_, IRP_MN_CANCEL_STOP_DEVICE, nullptr, nullptr);
        return status;
    }
    return sendPnp(*state_, IRP_MN_STOP_DEVICE, nullptr, nullptr).status;
}

NTSTATUS DeviceNode::remove()
{
    requirePassive("DeviceNode::remove");
    {
        // The check for open handles and the start of the removal are one
        // step: an open that comes after it is refused, so no handle slips
        // onto a stack that is about to go.
        std::lock_guard<std::mutex> lock(objectsMutex());
        if (state_->removed) {
            return STATUS_NO_SUCH_DEVICE;
        }
        if (state_->removal != Removal::None) {
            return STATUS_DELETE_PENDING;
        }
        // Windows vetoes the removal itself (PNP_VetoOutstandingOpen) while
        // file objects are open on the stack; no driver hears of it.
        if (stackOpenFilesLocked(*state_) != 0) {
            return STATUS_PLUGPLAY_QUERY_VETOED;
        }
        state_->removal = Removal::Removing;
    }
    NTSTATUS status = sendPnp(*state_, IRP_MN_QUERY_REMOVE_DEVICE, nullptr, nullptr).status;
    if (!NT_SUCCESS(status)) {
        sendPnp(*state_, IRP_MN_CANCEL_REMOVE_DEVICE, nullptr, nullptr);
        std::lock_guard<std::mutex> lock(objectsMutex());
        state_->removal = Removal::None;
        return status;
    }
    status = sendPnp(*state_, IRP_MN_REMOVE_DEVICE, nullptr, nullptr).status;
    deletePdo(*state_);
    return status;
}

NTSTATUS DeviceNode::surpriseRemove()
{
    requirePassive("DeviceNode::surpriseRemove");
    {
        std::lock_guard<std::mutex> lock(objectsMutex());
        if (state_->removed) {
            return STATUS_NO_SUCH_DEVICE;
        }
        if (state_->removal != Removal::None) {
            return STATUS_DELETE_PENDING;
        }
        state_->removal = Removal::SurpriseRemoving;
    }
    sendPnp(*state_, IRP_MN_SURPRISE_REMOVAL, nullptr, nullptr);
    {
        // File objects closed while the surprise removal was under way only
        // lowered the count; whichever side sees it reach zero from here on
        // sends the removal.
        std::lock_guard<std::mutex> lock(objectsMutex());
        if (stackOpenFilesLocked(*state_) != 0) {
            state_->removal = Removal::AwaitingLastClose;
            return STATUS_PENDING;
        }
        state_->removal = Removal::Removing;
    }
    NTSTATUS status = sendPnp(*state_, IRP_MN_REMOVE_DEVICE, nullptr, nullptr).status;
    deletePdo(*state_);
    return status;
}

bool DeviceNode::removalPending() const
{
    std::lock_guard<std::mutex> lock(objectsMutex());
    return state_->removal == Removal::AwaitingLastClose;
}

IoResult DeviceNode::send(UCHAR minorFunction, void (*setup)(PIO_STACK_LOCATION, void *), void *context)
{
    requirePassive("DeviceNode::send");
    NTSTATUS refused = acceptsRequests();
    if (!NT_SUCCESS(refused)) {
        IoResult result;
        result.status = result.dispatchStatus = refused;
        return result;
    }
    return sendPnp(*state_, minorFunction, setup, context);
}

std::shared_ptr<DeviceNode> addRootDevice(PDRIVER_OBJECT driver, std::u16string_view instancePath)
{
    requirePassive("addRootDevice");
    DriverRecord *function = driverRecordOf(driver);
    auto state = std::make_shared<DeviceNodeState>();
    state->instancePath = instancePath;
    if (function == nullptr || driver->DriverExtension->AddDevice == nullptr) {
        state->addStatus = STATUS_INVALID_DEVICE_REQUEST;
        state->removed = true;
        return std::make_shared<DeviceNode>(state);
    }
    DeviceRecord *pdo = nullptr;
    NTSTATUS status = createDeviceInternal(busDriver(), 0, u"", FILE_DEVICE_BUS_EXTENDER,
                                           FILE_AUTOGENERATED_DEVICE_NAME, FALSE, &pdo);
    if (!NT_SUCCESS(status)) {
        state->addStatus = status;
        state->removed = true;
        return std::make_shared<DeviceNode>(state);
    }
    {
        std::lock_guard<std::mutex> lock(objectsMutex());
        pdo->object.Flags &= ~DO_DEVICE_INITIALIZING;
        pdo->instancePath = instancePath;
        pdo->node = state.get();
        state->pdo = pdo;
        state->pdoObject = &pdo->object;
        state->pdoName = pdo->name;
        gNodes.push_back(state);
    }
    registry::createKey(u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Enum\\" + std::u16string(instancePath));

    PDRIVER_ADD_DEVICE addDevice = driver->DriverExtension->AddDevice;
    runInSystemThread([&] { status = addDevice(driver, &pdo->object); }, "AddDevice");
    state->addStatus = status;
    if (!NT_SUCCESS(status)) {
        // A failed AddDevice may leave devices it attached before it failed.
        // Windows tears down what was built (the devnode keeps a failed-add
        // problem): the stack gets IRP_MN_REMOVE_DEVICE at its top, and each
        // driver detaches and deletes its own device as for any removal. A
        // driver that keeps its device attached is then the leak the PDO's
        // deletion reports.
        bool attached;
        {
            std::lock_guard<std::mutex> lock(objectsMutex());
            attached = pdo->object.AttachedDevice != nullptr;
            state->removal = Removal::Removing;
        }
        if (attached) {
            sendPnp(*state, IRP_MN_REMOVE_DEVICE, nullptr, nullptr);
        }
        deletePdo(*state);
    }
    return std::make_shared<DeviceNode>(state);
}

std::vector<DeviceInterface> deviceInterfaces(const GUID &classGuid, bool enabledOnly)
{
    std::lock_guard<std::mutex> lock(objectsMutex());
    std::vector<DeviceInterface> out;
    for (auto &record : gInterfaces) {
        if (record.classGuid != classGuid || (enabledOnly && !record.enabled)) {
            continue;
        }
        DeviceInterface info;
        info.classGuid = record.classGuid;
        info.symbolicLink = record.link;
        info.referenceString = record.reference;
        info.enabled = record.enabled;
        info.deviceParametersKey = record.keyPath + u"\\Device Parameters";
        out.push_back(std::move(info));
    }
    return out;
}

void setWdmVersion(UCHAR major, UCHAR minor)
{
    gWdmVersion = int(major) << 8 | minor;
}

} // namespace hostkernel
