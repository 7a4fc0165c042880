// Driver and device objects, device stacks, the object namespace (device
// names, symbolic links) and counted object references.
#include <cstdlib>

#include "hostkernel/registry.h"
#include "internal.h"

namespace hostkernel::detail {

namespace {

std::mutex gObjectsMutex;
std::set<DriverRecord *> gDrivers;
std::uint32_t gNextAutoName = 1;

struct NsEntry {
    enum Kind { Device, Link, Driver } kind = Device;
    std::u16string display;
    DeviceRecord *device = nullptr;
    std::u16string target;
};
std::map<std::u16string, NsEntry> gNames; // by normalised name

// The directories of the host's object namespace. "\DosDevices" and
// "\GLOBAL??" are links to "\??" on Windows; the host folds them into it.
bool isDirectory(const std::u16string &key)
{
    return key == u"\\DEVICE" || key == u"\\??" || key == u"\\DRIVER";
}

// Upper case with the "\??" aliases folded. The caller checked the name
// starts with a backslash.
std::u16string normalise(std::u16string_view name)
{
    std::u16string key = upcase(name);
    for (std::u16string_view alias : {std::u16string_view(u"\\DOSDEVICES"), std::u16string_view(u"\\GLOBAL??")}) {
        if (key.compare(0, alias.size(), alias) == 0 &&
            (key.size() == alias.size() || key[alias.size()] == u'\\')) {
            key.replace(0, alias.size(), u"\\??");
            break;
        }
    }
    return key;
}

// A name that can be given to a new object: absolute, no empty component,
// and its parent is a directory.
NTSTATUS checkNewName(std::u16string_view name, std::u16string *key)
{
    if (name.empty() || name[0] != u'\\') {
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    if (name.size() == 1 || name.back() == u'\\' || name.find(u"\\\\") != std::u16string_view::npos) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    *key = normalise(name);
    size_t slash = key->rfind(u'\\');
    std::u16string parent = slash == 0 ? u"\\" : key->substr(0, slash);
    if (parent != u"\\" && !isDirectory(parent)) {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    if (isDirectory(*key)) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI invalidDeviceRequest(PDEVICE_OBJECT, PIRP irp)
{
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

void setString(UNICODE_STRING *s, const std::u16string &storage)
{
    s->Buffer = storage.empty() ? nullptr : reinterpret_cast<PWSTR>(const_cast<char16_t *>(storage.data()));
    s->Length = USHORT(storage.size() * sizeof(WCHAR));
    s->MaximumLength = s->Length;
}

void destroyDriverLocked(DriverRecord *driver)
{
    gNames.erase(normalise(driver->name));
    gDrivers.erase(driver);
    delete driver;
}

} // namespace

std::mutex &objectsMutex()
{
    return gObjectsMutex;
}

// ------------------------------------------------------------------ records
DriverRecord *driverRecordOf(PDRIVER_OBJECT driver)
{
    if (driver == nullptr) {
        return nullptr;
    }
    auto *record = static_cast<DriverRecord *>(driver->DriverSection);
    return record != nullptr && record->magic == kDriverMagic ? record : nullptr;
}

DeviceRecord *deviceRecordOf(PDEVICE_OBJECT device)
{
    if (device == nullptr || device->Type != IO_TYPE_DEVICE) {
        return nullptr;
    }
    auto *record = reinterpret_cast<DeviceRecord *>(device->DeviceObjectExtension);
    return record != nullptr && record->magic == kDeviceMagic ? record : nullptr;
}

DeviceRecord *requireDevice(PDEVICE_OBJECT device, const char *routine)
{
    DeviceRecord *record = deviceRecordOf(device);
    if (record == nullptr) {
        bugCheck(0xC9, 0x4, ULONG_PTR(device), (std::string(routine) + ": not a device object").c_str());
    }
    return record;
}

DeviceRecord *topOfStackLocked(DeviceRecord *device)
{
    while (device->object.AttachedDevice != nullptr) {
        device = deviceRecordOf(device->object.AttachedDevice);
    }
    return device;
}

void maybeFreeDeviceLocked(DeviceRecord *device)
{
    if (!device->deleted || device->openFiles > 0 || device->obRefs > 0) {
        return;
    }
    // The extension (and the object's own DPC) must hold nothing the kernel
    // still has queued when their memory goes.
    if (device->extension != nullptr) {
        checkFreedMemory(device->extension, device->extensionSize);
    }
    checkFreedMemory(&device->object, sizeof(DEVICE_OBJECT));
    device->driver->devices.erase(device);
    std::free(device->extension);
    device->magic = 0;
    delete device;
}

DriverRecord *createDriverRecord(std::u16string_view serviceName, bool isBus)
{
    auto *driver = new DriverRecord;
    driver->serviceName = serviceName;
    driver->name = u"\\Driver\\" + std::u16string(serviceName);
    driver->registryPath = serviceKeyPath(serviceName);
    driver->isBus = isBus;
    setString(&driver->registryPathString, driver->registryPath);

    DRIVER_OBJECT &object = driver->object;
    object.Type = IO_TYPE_DRIVER;
    object.Size = sizeof(DRIVER_OBJECT);
    object.DriverSection = driver;
    object.DriverExtension = &driver->extension;
    driver->extension.DriverObject = &object;
    setString(&driver->extension.ServiceKeyName, driver->serviceName);
    setString(&object.DriverName, driver->name);
    for (auto &slot : object.MajorFunction) {
        slot = invalidDeviceRequest;
    }

    std::lock_guard<std::mutex> lock(gObjectsMutex);
    std::u16string key = normalise(driver->name);
    if (gNames.count(key) != 0) {
        delete driver;
        return nullptr;
    }
    NsEntry entry;
    entry.kind = NsEntry::Driver;
    entry.display = driver->name;
    gNames[key] = entry;
    gDrivers.insert(driver);
    return driver;
}

NTSTATUS createDeviceInternal(DriverRecord *driver, ULONG extensionSize, std::u16string_view name, DEVICE_TYPE type,
                              ULONG characteristics, BOOLEAN exclusive, DeviceRecord **out)
{
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    std::u16string deviceName(name);
    if (deviceName.empty() && (characteristics & FILE_AUTOGENERATED_DEVICE_NAME) != 0) {
        char16_t text[16];
        std::uint32_t n = gNextAutoName++;
        for (int i = 7; i >= 0; i--, n >>= 4) {
            text[i] = u"0123456789abcdef"[n & 0xF];
        }
        deviceName = u"\\Device\\" + std::u16string(text, 8);
    }
    std::u16string key;
    if (!deviceName.empty()) {
        NTSTATUS status = checkNewName(deviceName, &key);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        if (gNames.count(key) != 0) {
            return STATUS_OBJECT_NAME_COLLISION;
        }
    }

    auto *device = new DeviceRecord;
    device->driver = driver;
    device->name = deviceName;
    device->extensionSize = extensionSize;
    if (extensionSize > 0) {
        size_t rounded = (size_t(extensionSize) + 15) & ~size_t(15);
        device->extension = std::aligned_alloc(16, rounded);
        memset(device->extension, 0, rounded);
    }

    DEVICE_OBJECT &object = device->object;
    object.Type = IO_TYPE_DEVICE;
    object.Size = USHORT(sizeof(DEVICE_OBJECT) + extensionSize);
    object.DriverObject = &driver->object;
    object.NextDevice = driver->object.DeviceObject;
    object.Flags = DO_DEVICE_INITIALIZING | (exclusive ? DO_EXCLUSIVE : 0) | (deviceName.empty() ? 0 : DO_DEVICE_HAS_NAME);
    object.Characteristics = characteristics;
    object.DeviceExtension = device->extension;
    object.DeviceType = type;
    object.StackSize = 1;
    InitializeListHead(&object.Queue.ListEntry);
    InitializeListHead(&object.DeviceQueue.DeviceListHead);
    object.DeviceObjectExtension = reinterpret_cast<struct _DEVOBJ_EXTENSION *>(device);
    driver->object.DeviceObject = &object;
    driver->devices.insert(device);

    if (!deviceName.empty()) {
        NsEntry entry;
        entry.kind = NsEntry::Device;
        entry.display = deviceName;
        entry.device = device;
        gNames[key] = entry;
    }
    *out = device;
    return STATUS_SUCCESS;
}

// ------------------------------------------------------------------ namespace
NTSTATUS resolveLocked(std::u16string_view path, ResolvedName *out)
{
    std::u16string current(path);
    for (int hops = 0; hops < 32; hops++) {
        if (current.empty() || current[0] != u'\\') {
            return STATUS_OBJECT_PATH_SYNTAX_BAD;
        }
        size_t pos = 1;
        bool followedLink = false;
        while (!followedLink) {
            size_t end = current.find(u'\\', pos);
            size_t componentEnd = end == std::u16string::npos ? current.size() : end;
            if (componentEnd == pos) {
                return STATUS_OBJECT_NAME_INVALID;
            }
            std::u16string key = normalise(std::u16string_view(current).substr(0, componentEnd));
            auto it = gNames.find(key);
            if (it != gNames.end()) {
                switch (it->second.kind) {
                case NsEntry::Link:
                    current = it->second.target + current.substr(componentEnd);
                    followedLink = true;
                    continue;
                case NsEntry::Device:
                    out->device = it->second.device;
                    out->remainder = current.substr(componentEnd);
                    return STATUS_SUCCESS;
                case NsEntry::Driver:
                    return STATUS_OBJECT_TYPE_MISMATCH;
                }
            }
            if (!isDirectory(key)) {
                return end == std::u16string::npos ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
            }
            if (end == std::u16string::npos) {
                return STATUS_OBJECT_TYPE_MISMATCH; // a directory is not a file
            }
            pos = end + 1;
        }
    }
    return STATUS_OBJECT_PATH_NOT_FOUND; // a loop of links
}

void removeDeviceNameLocked(const std::u16string &name)
{
    if (!name.empty()) {
        gNames.erase(normalise(name));
    }
}

NTSTATUS createLinkLocked(std::u16string_view link, std::u16string_view target)
{
    std::u16string key;
    NTSTATUS status = checkNewName(link, &key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (gNames.count(key) != 0) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    NsEntry entry;
    entry.kind = NsEntry::Link;
    entry.display = link;
    entry.target = target;
    gNames[key] = entry;
    return STATUS_SUCCESS;
}

NTSTATUS deleteLinkLocked(std::u16string_view link)
{
    if (link.empty() || link[0] != u'\\') {
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    auto it = gNames.find(normalise(link));
    if (it == gNames.end()) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (it->second.kind != NsEntry::Link) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    gNames.erase(it);
    return STATUS_SUCCESS;
}

void resetNamespaceLocked()
{
    for (auto it = gNames.begin(); it != gNames.end();) {
        it = it->second.kind == NsEntry::Link ? gNames.erase(it) : std::next(it);
    }
    gNextAutoName = 1;
}

std::vector<std::string> liveDriverDescriptions()
{
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    std::vector<std::string> out;
    for (DriverRecord *driver : gDrivers) {
        if (driver->isBus) {
            for (DeviceRecord *device : driver->devices) {
                out.push_back("root bus device " + narrow(device->name) + " still exists");
            }
            continue;
        }
        out.push_back("driver " + narrow(driver->name) + " still loaded with " +
                      std::to_string(driver->devices.size()) + " device object(s)");
    }
    for (auto &[key, entry] : gNames) {
        (void)key;
        if (entry.kind != NsEntry::Device) {
            continue;
        }
        if (entry.device->obRefs > 0) {
            out.push_back("device " + narrow(entry.display) + " still has " + std::to_string(entry.device->obRefs) +
                          " ObReferenceObject reference(s)");
        }
    }
    return out;
}

PDRIVER_OBJECT loadDriverWith(std::u16string_view serviceName, const DriverEntryCall &entry,
                              const std::function<void(DriverRecord &)> &prepare, NTSTATUS *status,
                              const std::function<void()> &entryReturned)
{
    requirePassive("loadDriver");
    NTSTATUS ignored;
    NTSTATUS &result = status != nullptr ? *status : ignored;
    if (serviceName.empty() || serviceName.find(u'\\') != std::u16string_view::npos) {
        result = STATUS_INVALID_PARAMETER;
        return nullptr;
    }
    registry::createKey(serviceKeyPath(serviceName));
    DriverRecord *driver = createDriverRecord(serviceName, false);
    if (driver == nullptr) {
        result = STATUS_OBJECT_NAME_COLLISION;
        return nullptr;
    }
    prepare(*driver);
    NTSTATUS entryStatus = STATUS_UNSUCCESSFUL;
    runInSystemThread([&] { entryStatus = entry(&driver->object, &driver->registryPathString); }, "DriverEntry");
    if (entryReturned) {
        entryReturned();
    }
    result = entryStatus;

    std::lock_guard<std::mutex> lock(gObjectsMutex);
    if (!NT_SUCCESS(entryStatus)) {
        if (!driver->devices.empty()) {
            violation(Rule::ObjectReferenceLeak, "DriverEntry of " + narrow(driver->name) + " failed with " +
                                                     hex(ULONG(entryStatus)) + " but left " +
                                                     std::to_string(driver->devices.size()) + " device object(s)");
        }
        destroyDriverLocked(driver);
        return nullptr;
    }
    // Devices a driver makes in DriverEntry are ready once it returns.
    for (DeviceRecord *device : driver->devices) {
        device->object.Flags &= ~DO_DEVICE_INITIALIZING;
    }
    return &driver->object;
}

} // namespace hostkernel::detail

using namespace hostkernel;
using namespace hostkernel::detail;

// ------------------------------------------------------------------ kernel routines
NTSTATUS IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                        DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                        PDEVICE_OBJECT *DeviceObject)
{
    requirePassive("IoCreateDevice");
    DriverRecord *driver = driverRecordOf(DriverObject);
    if (driver == nullptr || DeviceObject == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = STATUS_SUCCESS;
    if (takeIoFault(IoFault::CreateDevice, &status)) {
        return status;
    }
    DeviceRecord *device = nullptr;
    status = createDeviceInternal(driver, DeviceExtensionSize, toU16(DeviceName), DeviceType, DeviceCharacteristics,
                                  Exclusive, &device);
    if (NT_SUCCESS(status)) {
        *DeviceObject = &device->object;
    }
    return status;
}

void IoDeleteDevice(PDEVICE_OBJECT DeviceObject)
{
    requirePassive("IoDeleteDevice");
    DeviceRecord *device = requireDevice(DeviceObject, "IoDeleteDevice");
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    if (device->deleted) {
        violation(Rule::ObjectDoubleRelease, "IoDeleteDevice on device " + narrow(device->name) + " " +
                                                 hex(ULONG_PTR(DeviceObject)) + " that is already deleted");
    }
    device->deleted = true;
    removeDeviceNameLocked(device->name);
    // Out of the driver's list at once, as on Windows.
    for (PDEVICE_OBJECT *link = &device->driver->object.DeviceObject; *link != nullptr; link = &(*link)->NextDevice) {
        if (*link == DeviceObject) {
            *link = DeviceObject->NextDevice;
            break;
        }
    }
    // A driver that deletes its device without detaching it first would leave
    // the lower device pointing at freed memory on Windows; the host detaches.
    if (device->lower != nullptr) {
        device->lower->object.AttachedDevice = nullptr;
        device->lower = nullptr;
    }
    if (DeviceObject->AttachedDevice != nullptr) {
        if (DeviceRecord *upper = deviceRecordOf(DeviceObject->AttachedDevice)) {
            upper->lower = nullptr;
        }
        DeviceObject->AttachedDevice = nullptr;
    }
    if (device->node != nullptr) {
        pdoRemoved(device);
    }
    maybeFreeDeviceLocked(device);
}

PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice)
{
    DeviceRecord *source = requireDevice(SourceDevice, "IoAttachDeviceToDeviceStack");
    DeviceRecord *target = requireDevice(TargetDevice, "IoAttachDeviceToDeviceStack");
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    DeviceRecord *top = topOfStackLocked(target);
    if (top->deleted || source->lower != nullptr || top == source) {
        return nullptr;
    }
    top->object.AttachedDevice = SourceDevice;
    source->lower = top;
    SourceDevice->StackSize = CCHAR(top->object.StackSize + 1);
    if (top->object.AlignmentRequirement > SourceDevice->AlignmentRequirement) {
        SourceDevice->AlignmentRequirement = top->object.AlignmentRequirement;
    }
    return &top->object;
}

void IoDetachDevice(PDEVICE_OBJECT TargetDevice)
{
    requireDevice(TargetDevice, "IoDetachDevice");
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    if (TargetDevice->AttachedDevice != nullptr) {
        if (DeviceRecord *upper = deviceRecordOf(TargetDevice->AttachedDevice)) {
            upper->lower = nullptr;
        }
        TargetDevice->AttachedDevice = nullptr;
    }
}

PDEVICE_OBJECT IoGetAttachedDevice(PDEVICE_OBJECT DeviceObject)
{
    DeviceRecord *device = requireDevice(DeviceObject, "IoGetAttachedDevice");
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    return &topOfStackLocked(device)->object;
}

PDEVICE_OBJECT IoGetAttachedDeviceReference(PDEVICE_OBJECT DeviceObject)
{
    DeviceRecord *device = requireDevice(DeviceObject, "IoGetAttachedDeviceReference");
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    DeviceRecord *top = topOfStackLocked(device);
    top->obRefs++;
    return &top->object;
}

PDEVICE_OBJECT IoGetLowerDeviceObject(PDEVICE_OBJECT DeviceObject)
{
    DeviceRecord *device = requireDevice(DeviceObject, "IoGetLowerDeviceObject");
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    if (device->lower == nullptr) {
        return nullptr;
    }
    device->lower->obRefs++;
    return &device->lower->object;
}

PDEVICE_OBJECT IoGetRelatedDeviceObject(PFILE_OBJECT FileObject)
{
    DeviceRecord *device = requireDevice(FileObject->DeviceObject, "IoGetRelatedDeviceObject");
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    return &topOfStackLocked(device)->object;
}

NTSTATUS IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName)
{
    requirePassive("IoCreateSymbolicLink");
    if (SymbolicLinkName == nullptr || DeviceName == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = STATUS_SUCCESS;
    if (takeIoFault(IoFault::CreateSymbolicLink, &status)) {
        return status;
    }
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    return createLinkLocked(toU16(SymbolicLinkName), toU16(DeviceName));
}

NTSTATUS IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName)
{
    requirePassive("IoDeleteSymbolicLink");
    if (SymbolicLinkName == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    return deleteLinkLocked(toU16(SymbolicLinkName));
}

void ObReferenceObject(PVOID Object)
{
    auto type = Object != nullptr ? *static_cast<CSHORT *>(Object) : CSHORT(0);
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    if (type == IO_TYPE_DEVICE) {
        if (DeviceRecord *device = deviceRecordOf(static_cast<PDEVICE_OBJECT>(Object))) {
            device->obRefs++;
            return;
        }
    } else if (type == IO_TYPE_FILE) {
        if (FileRecord *file = fileRecordOf(static_cast<PFILE_OBJECT>(Object))) {
            file->obRefs++;
            file->pointerCount++;
            return;
        }
    } else if (type == IO_TYPE_DRIVER && driverRecordOf(static_cast<PDRIVER_OBJECT>(Object)) != nullptr) {
        return; // driver objects live until unloaded; references to them are not counted
    }
    bugCheck(0x18, ULONG_PTR(Object), 0, "ObReferenceObject: not an object the host knows");
}

void ObDereferenceObject(PVOID Object)
{
    auto type = Object != nullptr ? *static_cast<CSHORT *>(Object) : CSHORT(0);
    if (type == IO_TYPE_FILE) {
        FileRecord *file = fileRecordOf(static_cast<PFILE_OBJECT>(Object));
        if (file != nullptr) {
            {
                std::lock_guard<std::mutex> lock(gObjectsMutex);
                if (file->obRefs == 0) {
                    violation(Rule::ObjectDoubleRelease,
                              "ObDereferenceObject on file object " + hex(ULONG_PTR(Object)) +
                                  " without a reference taken by ObReferenceObject");
                }
                file->obRefs--;
            }
            // Windows closes at once at PASSIVE_LEVEL and defers above it.
            releaseFile(file, KeGetCurrentIrql() == PASSIVE_LEVEL);
            return;
        }
    }
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    if (type == IO_TYPE_DEVICE) {
        if (DeviceRecord *device = deviceRecordOf(static_cast<PDEVICE_OBJECT>(Object))) {
            if (device->obRefs == 0) {
                violation(Rule::ObjectDoubleRelease, "ObDereferenceObject on device " + narrow(device->name) + " " +
                                                         hex(ULONG_PTR(Object)) + " without a reference");
            }
            device->obRefs--;
            maybeFreeDeviceLocked(device);
            return;
        }
    } else if (type == IO_TYPE_DRIVER && driverRecordOf(static_cast<PDRIVER_OBJECT>(Object)) != nullptr) {
        return;
    }
    bugCheck(0x18, ULONG_PTR(Object), 0, "ObDereferenceObject: not an object the host knows");
}

// ------------------------------------------------------------------ host API
namespace hostkernel {

std::u16string serviceKeyPath(std::u16string_view serviceName)
{
    return u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\" + std::u16string(serviceName);
}

PDRIVER_OBJECT loadDriver(std::u16string_view serviceName, PDRIVER_INITIALIZE driverEntry, NTSTATUS *status)
{
    if (driverEntry == nullptr) {
        if (status != nullptr) {
            *status = STATUS_INVALID_PARAMETER;
        }
        return nullptr;
    }
    return detail::loadDriverWith(
        serviceName, [&](PDRIVER_OBJECT object, PUNICODE_STRING path) { return driverEntry(object, path); },
        [&](DriverRecord &driver) { driver.object.DriverInit = driverEntry; }, status);
}

NTSTATUS unloadDriver(PDRIVER_OBJECT driverObject)
{
    requirePassive("unloadDriver");
    drainIo();
    DriverRecord *driver = driverRecordOf(driverObject);
    if (driver == nullptr || driver->isBus) {
        return STATUS_INVALID_PARAMETER;
    }
    {
        std::lock_guard<std::mutex> lock(gObjectsMutex);
        for (DeviceRecord *device : driver->devices) {
            if (device->openFiles > 0) {
                return STATUS_DEVICE_BUSY;
            }
        }
    }
    if (driverObject->DriverUnload != nullptr) {
        PDRIVER_UNLOAD unload = driverObject->DriverUnload;
        runInSystemThread([&] { unload(driverObject); }, "DriverUnload");
    }
    drainIo();
    if (driverObject->DriverSize != 0) {
        checkNoQueuedWorkIn(driver->name, driverObject->DriverStart, driverObject->DriverSize);
    }
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    if (!driver->devices.empty()) {
        std::string names;
        for (DeviceRecord *device : driver->devices) {
            names += " " + (device->name.empty() ? hex(ULONG_PTR(&device->object)) : narrow(device->name)) +
                     (device->deleted ? " (deleted, still referenced)" : "");
        }
        violation(Rule::ObjectReferenceLeak, "driver " + narrow(driver->name) + " unloaded with device object(s) left:" +
                                                 names);
    }
    destroyDriverLocked(driver);
    return STATUS_SUCCESS;
}

bool objectExists(std::u16string_view name)
{
    if (name.empty() || name[0] != u'\\') {
        return false;
    }
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    std::u16string key = normalise(name);
    return gNames.count(key) != 0 || isDirectory(key);
}

std::optional<std::u16string> symbolicLinkTarget(std::u16string_view linkName)
{
    if (linkName.empty() || linkName[0] != u'\\') {
        return std::nullopt;
    }
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    auto it = gNames.find(normalise(linkName));
    if (it == gNames.end() || it->second.kind != NsEntry::Link) {
        return std::nullopt;
    }
    return it->second.target;
}

NTSTATUS createSymbolicLink(std::u16string_view linkName, std::u16string_view targetName)
{
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    return createLinkLocked(linkName, targetName);
}

NTSTATUS deleteSymbolicLink(std::u16string_view linkName)
{
    std::lock_guard<std::mutex> lock(gObjectsMutex);
    return deleteLinkLocked(linkName);
}

} // namespace hostkernel
