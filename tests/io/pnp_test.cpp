// Plug and play and device interfaces with a function driver that handles
// its stack the way a port-class framework does: start forwarded down first
// (completion routine, event, re-completion), everything else passed on,
// removal detaching and deleting its device.
#include <thread>

#include "iotest.h"

namespace iotest {
namespace {

const GUID kAudio = {0x6994AD04, 0x93EF, 0x11D0, {0xA3, 0xCC, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
const GUID kRender = {0x65E8773E, 0x8F56, 0x11D0, {0xA3, 0xB9, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
const std::u16string kAudioLink = u"\\??\\ROOT#MEDIA#0000#{6994ad04-93ef-11d0-a3cc-00a0c9223196}";

std::mutex fMutex; // guards what f records
struct Function {
    std::vector<UCHAR> minors;
    PDEVICE_OBJECT fdo = nullptr;
    PDEVICE_OBJECT lower = nullptr;
    NTSTATUS addStatus = STATUS_SUCCESS;
    bool failAfterAttach = false; // AddDevice attaches its device, then fails
    bool refuseQueryRemove = false;
    bool detachOnRemove = true;
    LONG startListCount = 99; // the start's resource list's, -1 without a list
    NTSTATUS lowerStartStatus = STATUS_PENDING;
    std::vector<std::u16string> createNames;
    std::vector<UCHAR> fileMajors; // cleanup and close, in arrival order
} f;

NTSTATUS NTAPI onStartCompleted(PDEVICE_OBJECT, PIRP, PVOID context)
{
    KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS NTAPI functionPnp(PDEVICE_OBJECT fdo, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    {
        std::lock_guard<std::mutex> lock(fMutex);
        f.minors.push_back(stack->MinorFunction);
    }
    switch (stack->MinorFunction) {
    case IRP_MN_START_DEVICE: {
        PCM_RESOURCE_LIST resources = stack->Parameters.StartDevice.AllocatedResources;
        f.startListCount = resources != nullptr ? LONG(resources->Count) : -1;
        KEVENT done;
        KeInitializeEvent(&done, NotificationEvent, FALSE);
        IoCopyCurrentIrpStackLocationToNext(irp);
        IoSetCompletionRoutine(irp, onStartCompleted, &done, TRUE, TRUE, TRUE);
        if (IoCallDriver(f.lower, irp) == STATUS_PENDING) {
            KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
        }
        f.lowerStartStatus = irp->IoStatus.Status;
        return complete(irp, irp->IoStatus.Status);
    }
    case IRP_MN_QUERY_REMOVE_DEVICE:
        if (f.refuseQueryRemove) {
            return complete(irp, STATUS_DEVICE_BUSY);
        }
        break;
    case IRP_MN_REMOVE_DEVICE: {
        IoSkipCurrentIrpStackLocation(irp);
        NTSTATUS status = IoCallDriver(f.lower, irp);
        if (f.detachOnRemove) {
            IoDetachDevice(f.lower);
            IoDeleteDevice(fdo);
        }
        return status;
    }
    default:
        break;
    }
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(f.lower, irp);
}

NTSTATUS NTAPI functionCreateClose(PDEVICE_OBJECT, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    std::lock_guard<std::mutex> lock(fMutex);
    if (stack->MajorFunction == IRP_MJ_CREATE) {
        f.createNames.emplace_back(reinterpret_cast<const char16_t *>(stack->FileObject->FileName.Buffer),
                                   stack->FileObject->FileName.Length / 2);
    } else {
        f.fileMajors.push_back(stack->MajorFunction);
    }
    return complete(irp, STATUS_SUCCESS);
}

NTSTATUS NTAPI addDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo)
{
    if (!NT_SUCCESS(f.addStatus)) {
        return f.addStatus;
    }
    NTSTATUS status = IoCreateDevice(driver, 16, nullptr, FILE_DEVICE_KS, 0, FALSE, &f.fdo);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    f.lower = IoAttachDeviceToDeviceStack(f.fdo, pdo);
    f.fdo->Flags &= ~DO_DEVICE_INITIALIZING;
    return f.failAfterAttach ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS;
}

NTSTATUS NTAPI functionEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    driver->DriverExtension->AddDevice = addDevice;
    driver->MajorFunction[IRP_MJ_PNP] = functionPnp;
    driver->MajorFunction[IRP_MJ_CREATE] = functionCreateClose;
    driver->MajorFunction[IRP_MJ_CLEANUP] = functionCreateClose;
    driver->MajorFunction[IRP_MJ_CLOSE] = functionCreateClose;
    return STATUS_SUCCESS;
}

class PnpTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        f = Function{};
        NTSTATUS status;
        driver_ = hk::loadDriver(u"HkFunction", functionEntry, &status);
        ASSERT_NE(driver_, nullptr);
    }
    void TearDown() override
    {
        if (node_ && !node_->removed()) {
            EXPECT_EQ(node_->remove(), STATUS_SUCCESS);
        }
        EXPECT_EQ(hk::unloadDriver(driver_), STATUS_SUCCESS);
    }
    std::vector<UCHAR> minors()
    {
        std::lock_guard<std::mutex> lock(fMutex);
        return f.minors;
    }
    std::vector<UCHAR> fileMajors()
    {
        std::lock_guard<std::mutex> lock(fMutex);
        return f.fileMajors;
    }
    // A node with one enabled interface, for opening its stack.
    std::u16string addWithInterface()
    {
        node_ = hk::addRootDevice(driver_);
        std::u16string link = registerInterface(kAudio, L"ambrel0");
        EXPECT_EQ(setState(link, TRUE), STATUS_SUCCESS);
        return link;
    }
    // Interface calls from a PASSIVE_LEVEL thread, as a driver makes them.
    std::u16string registerInterface(const GUID &guid, const wchar_t *reference)
    {
        UNICODE_STRING ref, link{};
        RtlInitUnicodeString(&ref, reference);
        EXPECT_EQ(IoRegisterDeviceInterface(node_->pdo(), &guid, &ref, &link), STATUS_SUCCESS);
        std::u16string out(reinterpret_cast<const char16_t *>(link.Buffer), link.Length / 2);
        RtlFreeUnicodeString(&link);
        return out;
    }
    NTSTATUS setState(const std::u16string &link, BOOLEAN enable)
    {
        Unicode name(link);
        return IoSetDeviceInterfaceState(&name.string, enable);
    }

    PDRIVER_OBJECT driver_ = nullptr;
    std::shared_ptr<hk::DeviceNode> node_;
};

TEST_F(PnpTest, StartIsForwardedDownAndStateChangesReachTheStack)
{
    node_ = hk::addRootDevice(driver_);
    ASSERT_EQ(node_->addDeviceStatus(), STATUS_SUCCESS);
    EXPECT_EQ(node_->top(), f.fdo);
    EXPECT_EQ(f.lower, node_->pdo());
    EXPECT_EQ(f.fdo->StackSize, 2);

    EXPECT_EQ(node_->start(), STATUS_SUCCESS);
    EXPECT_EQ(f.lowerStartStatus, STATUS_SUCCESS) << "the root bus completed the start first";
    EXPECT_EQ(f.startListCount, 0);
    EXPECT_EQ(node_->start(nullptr, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(f.startListCount, -1);

    EXPECT_EQ(node_->stop(), STATUS_SUCCESS);
    hk::IoResult unknown = node_->send(0x0E);
    EXPECT_EQ(unknown.status, STATUS_NOT_SUPPORTED) << "the bus leaves what it does not handle alone";
    DEVICE_CAPABILITIES caps{};
    caps.Size = sizeof caps;
    caps.Version = 1;
    hk::IoResult r = node_->send(
        IRP_MN_QUERY_CAPABILITIES,
        [](PIO_STACK_LOCATION s, void *c) { s->Parameters.DeviceCapabilities.Capabilities = static_cast<PDEVICE_CAPABILITIES>(c); },
        &caps);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(caps.DeviceState[PowerSystemWorking], PowerDeviceD0);

    EXPECT_EQ(node_->remove(), STATUS_SUCCESS);
    EXPECT_TRUE(node_->removed());
    EXPECT_EQ(node_->pdo(), nullptr);
    EXPECT_EQ(minors(), (std::vector<UCHAR>{IRP_MN_START_DEVICE, IRP_MN_START_DEVICE, IRP_MN_QUERY_STOP_DEVICE,
                                            IRP_MN_STOP_DEVICE, 0x0E, IRP_MN_QUERY_CAPABILITIES,
                                            IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_REMOVE_DEVICE}));
}

TEST_F(PnpTest, RefusedQueryRemoveIsCancelled)
{
    node_ = hk::addRootDevice(driver_);
    f.refuseQueryRemove = true;
    EXPECT_EQ(node_->remove(), STATUS_DEVICE_BUSY);
    EXPECT_FALSE(node_->removed());
    EXPECT_EQ(minors(), (std::vector<UCHAR>{IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_CANCEL_REMOVE_DEVICE}));
    f.refuseQueryRemove = false;
    EXPECT_EQ(node_->surpriseRemove(), STATUS_SUCCESS);
}

// A failed AddDevice leaves nothing. One that attached its device first has
// the stack it built removed with IRP_MN_REMOVE_DEVICE, and the driver's
// removal handling detaches and deletes the device (else the driver could
// not be unloaded: its device would be left).
TEST_F(PnpTest, FailedAddDeviceLeavesNothing)
{
    struct Case {
        bool attachFirst;
        std::vector<UCHAR> minors;
    } cases[] = {{false, {}}, {true, {IRP_MN_REMOVE_DEVICE}}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.attachFirst ? "failed after attaching" : "failed before making a device");
        f.minors.clear();
        f.addStatus = c.attachFirst ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
        f.failAfterAttach = c.attachFirst;
        node_ = hk::addRootDevice(driver_);
        EXPECT_EQ(node_->addDeviceStatus(), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_TRUE(node_->removed());
        EXPECT_EQ(node_->top(), nullptr);
        EXPECT_EQ(node_->start(), STATUS_NO_SUCH_DEVICE);
        EXPECT_EQ(minors(), c.minors);
        EXPECT_EQ(driver_->DeviceObject, nullptr);
    }
}

// Handles on the stack hold an orderly removal off entirely: the PnP manager
// vetoes it before any driver hears of it, and the stack stays as it was.
TEST_F(PnpTest, OrderlyRemovalIsVetoedWhileAHandleIsOpen)
{
    std::u16string link = addWithInterface();
    hk::Process client(300);
    hk::Handle filter = openOk(client, link), child = 0;
    ASSERT_EQ(client.openRelative(filter, u"child", GENERIC_READ, &child), STATUS_SUCCESS);

    // Each handle alone holds the stack; the child also keeps its parent's
    // file object after the parent's handle is closed.
    for (hk::Handle closing : {filter, child}) {
        EXPECT_EQ(node_->remove(), STATUS_PLUGPLAY_QUERY_VETOED);
        EXPECT_FALSE(node_->removed());
        EXPECT_TRUE(minors().empty()) << "a vetoed removal sends nothing";
        EXPECT_EQ(node_->top(), f.fdo);
        EXPECT_EQ(hk::deviceInterfaces(kAudio).size(), 1u);
        EXPECT_EQ(client.close(closing), STATUS_SUCCESS);
    }
    EXPECT_EQ(fileMajors(), (std::vector<UCHAR>{IRP_MJ_CLEANUP, IRP_MJ_CLEANUP, IRP_MJ_CLOSE, IRP_MJ_CLOSE}));
    EXPECT_EQ(node_->remove(), STATUS_SUCCESS);
    EXPECT_EQ(minors(), (std::vector<UCHAR>{IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_REMOVE_DEVICE}));
}

// A surprise removal is sent at once; IRP_MN_REMOVE_DEVICE waits until the
// last file object on the stack is closed, whose cleanup and close still
// reach the function device. Meanwhile the stack takes no new opens and no
// other PnP request.
TEST_F(PnpTest, SurpriseRemovalDefersTheRemovalToTheLastClose)
{
    std::u16string link = addWithInterface();
    hk::Process client(300);
    hk::Handle filter = openOk(client, link), child = 0, other = 0;
    ASSERT_EQ(client.openRelative(filter, u"child", GENERIC_READ, &child), STATUS_SUCCESS);

    EXPECT_EQ(node_->surpriseRemove(), STATUS_PENDING);
    EXPECT_TRUE(node_->removalPending());
    EXPECT_FALSE(node_->removed());
    EXPECT_EQ(minors(), (std::vector<UCHAR>{IRP_MN_SURPRISE_REMOVAL}));
    EXPECT_EQ(node_->top(), f.fdo) << "the stack stays until the removal";

    EXPECT_EQ(client.open(link, GENERIC_READ, &other), STATUS_DELETE_PENDING);
    EXPECT_EQ(client.openRelative(filter, u"another", GENERIC_READ, &other), STATUS_DELETE_PENDING);
    EXPECT_EQ(node_->remove(), STATUS_DELETE_PENDING);
    EXPECT_EQ(node_->surpriseRemove(), STATUS_DELETE_PENDING);
    EXPECT_EQ(node_->start(), STATUS_DELETE_PENDING);
    EXPECT_EQ(node_->send(IRP_MN_QUERY_CAPABILITIES).status, STATUS_DELETE_PENDING);
    EXPECT_EQ(f.createNames.size(), 2u) << "refused opens never reached the driver";

    EXPECT_EQ(client.close(filter), STATUS_SUCCESS);
    EXPECT_TRUE(node_->removalPending()) << "the child still holds the filter's file object";
    EXPECT_EQ(client.close(child), STATUS_SUCCESS);
    EXPECT_TRUE(node_->removed()) << "the last close sent the removal";
    EXPECT_FALSE(node_->removalPending());
    EXPECT_EQ(minors(), (std::vector<UCHAR>{IRP_MN_SURPRISE_REMOVAL, IRP_MN_REMOVE_DEVICE}));
    EXPECT_EQ(fileMajors(), (std::vector<UCHAR>{IRP_MJ_CLEANUP, IRP_MJ_CLEANUP, IRP_MJ_CLOSE, IRP_MJ_CLOSE}))
        << "cleanup and close reached the function device before its removal";
    EXPECT_TRUE(hk::deviceInterfaces(kAudio).empty());
    EXPECT_EQ(node_->surpriseRemove(), STATUS_NO_SUCH_DEVICE);
}

// Handles on another device of the same driver (a control device outside
// the PnP stack) do not hold the stack's removal.
TEST_F(PnpTest, HandlesOutsideTheStackDoNotHoldItsRemoval)
{
    struct Case {
        bool surprise;
        std::vector<UCHAR> minors;
    } cases[] = {
        {false, {IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_REMOVE_DEVICE}},
        {true, {IRP_MN_SURPRISE_REMOVAL, IRP_MN_REMOVE_DEVICE}},
    };
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Device\\HkControl");
    PDEVICE_OBJECT control = nullptr;
    ASSERT_EQ(IoCreateDevice(driver_, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &control), STATUS_SUCCESS);
    control->Flags &= ~DO_DEVICE_INITIALIZING;
    hk::Process app(100);
    hk::Handle h = openOk(app, u"\\Device\\HkControl");
    for (const Case &c : cases) {
        SCOPED_TRACE(c.surprise ? "surprise removal" : "orderly removal");
        f.minors.clear();
        node_ = hk::addRootDevice(driver_);
        ASSERT_EQ(node_->addDeviceStatus(), STATUS_SUCCESS);
        EXPECT_EQ(c.surprise ? node_->surpriseRemove() : node_->remove(), STATUS_SUCCESS);
        EXPECT_TRUE(node_->removed());
        EXPECT_EQ(minors(), c.minors);
    }
    app.close(h);
    IoDeleteDevice(control);
}

TEST_F(PnpTest, FunctionDeviceLeftAttachedAfterRemovalIsALeak)
{
    node_ = hk::addRootDevice(driver_);
    f.detachOnRemove = false;
    EXPECT_DEATH(node_->remove(), "ObjectReferenceLeak");
    f.detachOnRemove = true; // the death happened in a child; this process still removes cleanly
}

TEST_F(PnpTest, InterfacesRegisterEnumerateAndOpenThroughTheirLinks)
{
    node_ = hk::addRootDevice(driver_);
    std::u16string link = registerInterface(kAudio, L"ambrel0");
    EXPECT_EQ(narrow(link), narrow(kAudioLink + u"\\ambrel0"));
    EXPECT_EQ(registerInterface(kAudio, L"ambrel0"), link) << "registering again names the same interface";
    EXPECT_TRUE(hk::deviceInterfaces(kAudio).empty());
    ASSERT_EQ(hk::deviceInterfaces(kAudio, false).size(), 1u);

    hk::Process client(300);
    hk::Handle h = 0;
    EXPECT_EQ(client.open(link, GENERIC_READ, &h), STATUS_OBJECT_PATH_NOT_FOUND) << "not enabled yet";
    ASSERT_EQ(setState(link, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(setState(link, TRUE), STATUS_OBJECT_NAME_EXISTS);
    auto found = hk::deviceInterfaces(kAudio);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(narrow(found[0].referenceString), "ambrel0");
    EXPECT_TRUE(hk::deviceInterfaces(kRender).empty());

    // The link plus the reference string reaches the top of the PDO's stack.
    h = openOk(client, link);
    hk::Handle user = openOk(client, u"\\\\?\\ROOT#MEDIA#0000#{6994AD04-93EF-11D0-A3CC-00A0C9223196}\\ambrel0");
    EXPECT_EQ(client.fileObject(h)->DeviceObject, node_->pdo());
    EXPECT_EQ(f.createNames, (std::vector<std::u16string>{u"\\ambrel0", u"\\ambrel0"}));
    client.close(h);
    client.close(user);

    // Its registry key, as the driver writes it and a client reads it.
    Unicode name(link), valueName(u"FriendlyName");
    HANDLE key;
    ASSERT_EQ(IoOpenDeviceInterfaceRegistryKey(&name.string, KEY_SET_VALUE, &key), STATUS_SUCCESS);
    WCHAR friendly[] = L"Piano";
    ASSERT_EQ(ZwSetValueKey(key, &valueName.string, 0, REG_SZ, friendly, sizeof friendly), STATUS_SUCCESS);
    ZwClose(key);
    EXPECT_EQ(narrow(hk::registry::value(found[0].deviceParametersKey, u"FriendlyName")->text()), "Piano");

    ASSERT_EQ(setState(link, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(setState(link, FALSE), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(client.open(link, GENERIC_READ, &h), STATUS_OBJECT_PATH_NOT_FOUND);
}

TEST_F(PnpTest, InterfacesShareTheirLinkAndDisappearWithThePdo)
{
    node_ = hk::addRootDevice(driver_);
    std::u16string first = registerInterface(kAudio, L"ambrel0");
    std::u16string second = registerInterface(kAudio, L"ambrel1");
    ASSERT_EQ(setState(first, TRUE), STATUS_SUCCESS);
    ASSERT_EQ(setState(second, TRUE), STATUS_SUCCESS);
    ASSERT_EQ(setState(first, FALSE), STATUS_SUCCESS);
    hk::Process client(300);
    EXPECT_EQ(client.close(openOk(client, second)), STATUS_SUCCESS);

    UNICODE_STRING bad, link{};
    RtlInitUnicodeString(&bad, L"bad\\ref");
    EXPECT_EQ(IoRegisterDeviceInterface(node_->pdo(), &kAudio, &bad, &link), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(IoRegisterDeviceInterface(f.fdo, &kAudio, nullptr, &link), STATUS_INVALID_DEVICE_REQUEST)
        << "only a PDO has interfaces";

    EXPECT_EQ(node_->remove(), STATUS_SUCCESS);
    EXPECT_TRUE(hk::deviceInterfaces(kAudio).empty());
    EXPECT_EQ(hk::deviceInterfaces(kAudio, false).size(), 2u) << "registration outlives the device";
    EXPECT_FALSE(hk::objectExists(kAudioLink));
}

TEST(WdmVersion, AnswersForTheChosenWindows)
{
    struct Case {
        UCHAR major, minor;
        bool vista, xp, win2000;
    } cases[] = {
        {6, 0, true, true, true},
        {6, 2, true, true, true},
        {1, 0x20, false, true, true},
        {1, 0x10, false, false, true},
    };
    for (const auto &c : cases) {
        hk::setWdmVersion(c.major, c.minor);
        EXPECT_EQ(IoIsWdmVersionAvailable(6, 0) != 0, c.vista);
        EXPECT_EQ(IoIsWdmVersionAvailable(1, 0x20) != 0, c.xp);
        EXPECT_EQ(IoIsWdmVersionAvailable(1, 0x10) != 0, c.win2000);
    }
    hk::resetIoState();
    EXPECT_TRUE(IoIsWdmVersionAvailable(6, 0));
    EXPECT_FALSE(IoIsWdmVersionAvailable(6, 1));
}

} // namespace
} // namespace iotest
