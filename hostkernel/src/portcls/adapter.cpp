// The adapter side of portcls: driver initialisation, the adapter device and
// its plug-and-play life, sub-device registration, the resource list handed
// to the start routine, and the dispatch of every request the driver passes
// to the framework.
#include <chrono>

#include "port.h"

namespace hostkernel::detail::pc {

namespace {

constexpr ULONG64 kAdapterMagic = 0x48'4B'50'43'41'44'50'54ull;

// The framework's part of the adapter device's extension.
struct ExtensionHeader {
    ULONG64 magic;
    Adapter *adapter;
};
static_assert(sizeof(ExtensionHeader) <= PORT_CLASS_DEVICE_EXTENSION_SIZE, "portcls extension");

std::mutex gAdaptersMutex;
std::map<PDEVICE_OBJECT, std::shared_ptr<Adapter>> gAdapters;

// ------------------------------------------------------------------ resource list
class ResourceList : public IResourceList, public Object {
public:
    ResourceList(PCM_RESOURCE_LIST translated, PCM_RESOURCE_LIST untranslated) : Object("resource list")
    {
        copy(translated, &translated_);
        copy(untranslated, &untranslated_);
    }
    HK_PC_UNKNOWN()

    STDMETHODIMP_(ULONG) NumberOfEntries() override { return ULONG(entries(translated_).size()); }
    STDMETHODIMP_(ULONG) NumberOfEntriesOfType(CM_RESOURCE_TYPE type) override
    {
        ULONG n = 0;
        for (auto *d : entries(translated_)) {
            n += d->Type == type ? 1 : 0;
        }
        return n;
    }
    STDMETHODIMP_(PCM_PARTIAL_RESOURCE_DESCRIPTOR) FindTranslatedEntry(CM_RESOURCE_TYPE type, ULONG index) override
    {
        return find(translated_, type, index);
    }
    STDMETHODIMP_(PCM_PARTIAL_RESOURCE_DESCRIPTOR) FindUntranslatedEntry(CM_RESOURCE_TYPE type, ULONG index) override
    {
        return find(untranslated_, type, index);
    }
    // The lists are the ones the PnP manager assigned; nothing is added.
    STDMETHODIMP_(NTSTATUS) AddEntry(PCM_PARTIAL_RESOURCE_DESCRIPTOR, PCM_PARTIAL_RESOURCE_DESCRIPTOR) override
    {
        return STATUS_NOT_SUPPORTED;
    }
    STDMETHODIMP_(NTSTATUS) AddEntryFromParent(IResourceList *, CM_RESOURCE_TYPE, ULONG) override
    {
        return STATUS_NOT_SUPPORTED;
    }
    STDMETHODIMP_(PCM_RESOURCE_LIST) TranslatedList() override { return list(translated_); }
    STDMETHODIMP_(PCM_RESOURCE_LIST) UntranslatedList() override { return list(untranslated_); }

private:
    static size_t sizeOf(PCM_RESOURCE_LIST l)
    {
        size_t size = offsetof(CM_RESOURCE_LIST, List);
        const UCHAR *p = reinterpret_cast<const UCHAR *>(l->List);
        for (ULONG i = 0; i < l->Count; i++) {
            auto *full = reinterpret_cast<const CM_FULL_RESOURCE_DESCRIPTOR *>(p);
            size_t one = offsetof(CM_FULL_RESOURCE_DESCRIPTOR, PartialResourceList.PartialDescriptors) +
                         full->PartialResourceList.Count * sizeof(CM_PARTIAL_RESOURCE_DESCRIPTOR);
            size += one;
            p += one;
        }
        return size;
    }
    static void copy(PCM_RESOURCE_LIST from, std::vector<UCHAR> *to)
    {
        if (from != NULL) {
            auto *bytes = reinterpret_cast<const UCHAR *>(from);
            to->assign(bytes, bytes + sizeOf(from));
        }
    }
    static PCM_RESOURCE_LIST list(std::vector<UCHAR> &bytes)
    {
        return bytes.empty() ? NULL : reinterpret_cast<PCM_RESOURCE_LIST>(bytes.data());
    }
    static std::vector<PCM_PARTIAL_RESOURCE_DESCRIPTOR> entries(std::vector<UCHAR> &bytes)
    {
        std::vector<PCM_PARTIAL_RESOURCE_DESCRIPTOR> out;
        PCM_RESOURCE_LIST l = list(bytes);
        if (l == NULL) {
            return out;
        }
        UCHAR *p = reinterpret_cast<UCHAR *>(l->List);
        for (ULONG i = 0; i < l->Count; i++) {
            auto *full = reinterpret_cast<CM_FULL_RESOURCE_DESCRIPTOR *>(p);
            for (ULONG j = 0; j < full->PartialResourceList.Count; j++) {
                out.push_back(&full->PartialResourceList.PartialDescriptors[j]);
            }
            p += offsetof(CM_FULL_RESOURCE_DESCRIPTOR, PartialResourceList.PartialDescriptors) +
                 full->PartialResourceList.Count * sizeof(CM_PARTIAL_RESOURCE_DESCRIPTOR);
        }
        return out;
    }
    static PCM_PARTIAL_RESOURCE_DESCRIPTOR find(std::vector<UCHAR> &bytes, CM_RESOURCE_TYPE type, ULONG index)
    {
        for (auto *d : entries(bytes)) {
            if (d->Type == type && index-- == 0) {
                return d;
            }
        }
        return NULL;
    }

    std::vector<UCHAR> translated_;
    std::vector<UCHAR> untranslated_;
};

STDMETHODIMP_(NTSTATUS) ResourceList::QueryInterface(REFIID iid, PVOID *object)
{
    if (object == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (IsEqualGUID(iid, IID_IUnknown) || IsEqualGUID(iid, IID_IResourceList)) {
        *object = static_cast<IResourceList *>(this);
        addRef();
        return STATUS_SUCCESS;
    }
    *object = NULL;
    return STATUS_INVALID_PARAMETER;
}

// ------------------------------------------------------------------ forwarding
NTSTATUS NTAPI syncCompletion(PDEVICE_OBJECT, PIRP, PVOID context)
{
    KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Sends the request down the stack and waits for the lower drivers to finish
// with it; the caller completes it afterwards.
NTSTATUS forwardSynchronously(PDEVICE_OBJECT lower, PIRP irp)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, syncCompletion, &event, TRUE, TRUE, TRUE);
    NTSTATUS status = IoCallDriver(lower, irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, NULL);
        status = irp->IoStatus.Status;
    }
    return status;
}

NTSTATUS passDown(const std::shared_ptr<Adapter> &adapter, PIRP irp)
{
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(adapter->lower, irp);
}

NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS startDevice(const std::shared_ptr<Adapter> &adapter, PDEVICE_OBJECT device, PIRP irp)
{
    NTSTATUS status = forwardSynchronously(adapter->lower, irp);
    if (NT_SUCCESS(status)) {
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        PRESOURCELIST resources = NULL;
        status = PcNewResourceList(&resources, NULL, NonPagedPool, stack->Parameters.StartDevice.AllocatedResourcesTranslated,
                                   stack->Parameters.StartDevice.AllocatedResources);
        if (NT_SUCCESS(status)) {
            status = adapter->start(device, irp, resources);
            resources->Release();
        }
    }
    return complete(irp, status, irp->IoStatus.Information);
}

NTSTATUS removeDevice(const std::shared_ptr<Adapter> &adapter, PIRP irp)
{
    unregisterAll(*adapter);
    irp->IoStatus.Status = STATUS_SUCCESS;
    NTSTATUS status = passDown(adapter, irp);
    {
        std::lock_guard<std::mutex> lock(gAdaptersMutex);
        gAdapters.erase(adapter->fdo);
    }
    IoDetachDevice(adapter->lower);
    IoDeleteDevice(adapter->fdo);
    return status;
}

NTSTATUS dispatchPnp(const std::shared_ptr<Adapter> &adapter, PDEVICE_OBJECT device, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    switch (stack->MinorFunction) {
    case IRP_MN_START_DEVICE:
        return startDevice(adapter, device, irp);
    case IRP_MN_REMOVE_DEVICE:
        return removeDevice(adapter, irp);
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_SURPRISE_REMOVAL:
        irp->IoStatus.Status = STATUS_SUCCESS;
        return passDown(adapter, irp);
    default:
        return passDown(adapter, irp);
    }
}

} // namespace

std::shared_ptr<Adapter> adapterOf(PDEVICE_OBJECT device)
{
    std::lock_guard<std::mutex> lock(gAdaptersMutex);
    auto it = gAdapters.find(device);
    return it == gAdapters.end() ? nullptr : it->second;
}

std::vector<ULONG> adapterMaxObjects()
{
    std::lock_guard<std::mutex> lock(gAdaptersMutex);
    std::vector<ULONG> limits;
    for (auto &entry : gAdapters) {
        limits.push_back(entry.second->maxObjects); // written once, before the adapter is listed
    }
    return limits;
}

size_t registeredSubdeviceCount()
{
    std::vector<std::shared_ptr<Adapter>> adapters;
    {
        std::lock_guard<std::mutex> lock(gAdaptersMutex);
        for (auto &entry : gAdapters) {
            adapters.push_back(entry.second);
        }
    }
    size_t n = 0;
    for (auto &adapter : adapters) {
        std::lock_guard<std::mutex> lock(adapter->mutex);
        n += adapter->subdevices.size();
    }
    return n;
}

void unregisterAll(Adapter &adapter)
{
    std::vector<Subdevice> subdevices;
    {
        std::lock_guard<std::mutex> lock(adapter.mutex);
        adapter.removed = true;
        subdevices.swap(adapter.subdevices);
    }
    for (Subdevice &s : subdevices) {
        for (std::u16string &link : s.interfaceLinks) {
            UNICODE_STRING u{USHORT(link.size() * 2), USHORT(link.size() * 2), reinterpret_cast<PWSTR>(link.data())};
            IoSetDeviceInterfaceState(&u, FALSE);
        }
        s.port->setRegistered(false);
        s.port->release();
    }
}

} // namespace hostkernel::detail::pc

using namespace hostkernel;
using namespace hostkernel::detail::pc;

NTSTATUS NTAPI PcInitializeAdapterDriver(PDRIVER_OBJECT DriverObject, PUNICODE_STRING, PDRIVER_ADD_DEVICE AddDevice)
{
    if (DriverObject == NULL || AddDevice == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    // Cleanup is among them: it is where a pin's parked reads are given back
    // when its last handle closes.
    static const UCHAR kFilled[] = {IRP_MJ_CREATE,         IRP_MJ_CLOSE,         IRP_MJ_CLEANUP,
                                    IRP_MJ_READ,           IRP_MJ_WRITE,         IRP_MJ_FLUSH_BUFFERS,
                                    IRP_MJ_DEVICE_CONTROL, IRP_MJ_QUERY_SECURITY, IRP_MJ_SET_SECURITY,
                                    IRP_MJ_PNP,            IRP_MJ_POWER,         IRP_MJ_SYSTEM_CONTROL};
    for (UCHAR major : kFilled) {
        DriverObject->MajorFunction[major] = PcDispatchIrp;
    }
    DriverObject->DriverExtension->AddDevice = AddDevice;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI PcAddAdapterDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject,
                                  PCPFNSTARTDEVICE StartDevice, ULONG MaxObjects, ULONG DeviceExtensionSize)
{
    if (DriverObject == NULL || PhysicalDeviceObject == NULL || StartDevice == NULL || MaxObjects == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    ULONG extensionSize = DeviceExtensionSize > PORT_CLASS_DEVICE_EXTENSION_SIZE ? DeviceExtensionSize
                                                                                  : ULONG(PORT_CLASS_DEVICE_EXTENSION_SIZE);
    PDEVICE_OBJECT fdo = NULL;
    NTSTATUS status = IoCreateDevice(DriverObject, extensionSize, NULL, FILE_DEVICE_KS, FILE_AUTOGENERATED_DEVICE_NAME,
                                     FALSE, &fdo);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PDEVICE_OBJECT lower = IoAttachDeviceToDeviceStack(fdo, PhysicalDeviceObject);
    if (lower == NULL) {
        IoDeleteDevice(fdo);
        return STATUS_DEVICE_REMOVED;
    }
    auto adapter = std::make_shared<Adapter>();
    adapter->fdo = fdo;
    adapter->pdo = PhysicalDeviceObject;
    adapter->lower = lower;
    adapter->start = StartDevice;
    adapter->maxObjects = MaxObjects;
    auto *header = static_cast<ExtensionHeader *>(fdo->DeviceExtension);
    header->magic = kAdapterMagic;
    header->adapter = adapter.get();
    {
        std::lock_guard<std::mutex> lock(gAdaptersMutex);
        gAdapters[fdo] = adapter;
    }
    fdo->StackSize = CCHAR(lower->StackSize + 1);
    fdo->Flags |= DO_DIRECT_IO | DO_POWER_PAGABLE;
    fdo->Flags &= ~DO_DEVICE_INITIALIZING;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI PcNewResourceList(PRESOURCELIST *OutResourceList, PUNKNOWN OuterUnknown, POOL_TYPE,
                                 PCM_RESOURCE_LIST TranslatedResources, PCM_RESOURCE_LIST UntranslatedResources)
{
    if (OutResourceList == NULL || OuterUnknown != NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    *OutResourceList = new ResourceList(TranslatedResources, UntranslatedResources);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI PcRegisterSubdevice(PDEVICE_OBJECT DeviceObject, PWCHAR Name, PUNKNOWN Unknown)
{
    std::shared_ptr<Adapter> adapter = adapterOf(DeviceObject);
    if (adapter == nullptr || Name == NULL || Name[0] == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    Port *port = portOf(Unknown);
    if (port == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    std::u16string name(reinterpret_cast<const char16_t *>(Name));
    NTSTATUS status = STATUS_SUCCESS;
    const PCFILTER_DESCRIPTOR *description = nullptr;
    if (!port->initialized()) {
        status = STATUS_INVALID_DEVICE_STATE;
    } else {
        status = port->description(&description);
    }
    Subdevice entry;
    entry.name = name;
    entry.port = port;
    if (NT_SUCCESS(status)) {
        std::lock_guard<std::mutex> lock(adapter->mutex);
        if (adapter->removed) {
            status = STATUS_DELETE_PENDING;
        } else if (adapter->subdevices.size() >= adapter->maxObjects) {
            status = STATUS_INSUFFICIENT_RESOURCES;
        }
        for (const Subdevice &s : adapter->subdevices) {
            if (NT_SUCCESS(status) && (equalNoCase(s.name, name) || s.port == port)) {
                status = STATUS_OBJECT_NAME_COLLISION;
            }
        }
        // Clients find the sub-device through an interface of every category
        // its filter names, with the sub-device's name as reference string.
        for (ULONG i = 0; NT_SUCCESS(status) && i < description->CategoryCount; i++) {
            UNICODE_STRING reference{USHORT(name.size() * 2), USHORT(name.size() * 2),
                                     reinterpret_cast<PWSTR>(name.data())};
            UNICODE_STRING link{};
            status = IoRegisterDeviceInterface(adapter->pdo, &description->Categories[i], &reference, &link);
            if (NT_SUCCESS(status)) {
                NTSTATUS enabled = IoSetDeviceInterfaceState(&link, TRUE);
                if (!NT_SUCCESS(enabled)) {
                    status = enabled;
                } else {
                    entry.interfaceLinks.emplace_back(reinterpret_cast<const char16_t *>(link.Buffer),
                                                      link.Length / 2);
                }
                RtlFreeUnicodeString(&link);
            }
        }
        if (NT_SUCCESS(status)) {
            adapter->subdevices.push_back(entry);
        }
    }
    if (!NT_SUCCESS(status)) {
        for (std::u16string &link : entry.interfaceLinks) {
            UNICODE_STRING u{USHORT(link.size() * 2), USHORT(link.size() * 2), reinterpret_cast<PWSTR>(link.data())};
            IoSetDeviceInterfaceState(&u, FALSE);
        }
        // A sub-device that could not be registered can never be opened:
        // its port lets go of the miniport now rather than never.
        port->registrationFailed();
        port->release();
        return status;
    }
    port->setRegistered(true);
    return STATUS_SUCCESS; // the registration keeps portOf's reference
}

NTSTATUS NTAPI PcDispatchIrp(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    std::shared_ptr<Adapter> adapter = adapterOf(DeviceObject);
    switch (stack->MajorFunction) {
    case IRP_MJ_PNP:
        if (adapter == nullptr) {
            return complete(Irp, STATUS_INVALID_DEVICE_REQUEST);
        }
        return dispatchPnp(adapter, DeviceObject, Irp);
    case IRP_MJ_POWER:
    case IRP_MJ_SYSTEM_CONTROL:
        if (adapter == nullptr) {
            return complete(Irp, Irp->IoStatus.Status, Irp->IoStatus.Information);
        }
        return passDown(adapter, Irp);
    case IRP_MJ_CREATE:
        if (adapter == nullptr) {
            // A deleted adapter device that a stale path still names.
            return complete(Irp, STATUS_DEVICE_REMOVED);
        }
        if (stack->FileObject != NULL && stack->FileObject->RelatedFileObject != NULL) {
            return createPin(adapter, Irp);
        }
        return createFilter(adapter, Irp);
    case IRP_MJ_CLOSE:
        return closeKsObject(Irp);
    case IRP_MJ_CLEANUP:
        return cleanupKsObject(Irp);
    case IRP_MJ_DEVICE_CONTROL:
        return ksDeviceControl(Irp);
    case IRP_MJ_FLUSH_BUFFERS:
        return complete(Irp, ksObjectOf(stack->FileObject) != nullptr ? STATUS_SUCCESS : STATUS_INVALID_DEVICE_REQUEST);
    default:
        return complete(Irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

NTSTATUS NTAPI PcCompleteIrp(PDEVICE_OBJECT, PIRP Irp, NTSTATUS Status)
{
    return complete(Irp, Status, Irp->IoStatus.Information);
}

NTSTATUS NTAPI PcForwardIrpSynchronous(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    std::shared_ptr<Adapter> adapter = adapterOf(DeviceObject);
    if (adapter == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    return forwardSynchronously(adapter->lower, Irp);
}

ULONGLONG NTAPI PcGetTimeInterval(ULONGLONG Since)
{
    return KeQueryInterruptTime() - Since;
}
