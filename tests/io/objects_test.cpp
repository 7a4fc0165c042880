// Driver loading, device names and symbolic links.
#include <thread>

#include "iotest.h"

namespace iotest {
namespace {

NTSTATUS createLink(const std::u16string &link, const std::u16string &target)
{
    Unicode l(link), t(target);
    return IoCreateSymbolicLink(&l.string, &t.string);
}

NTSTATUS deleteLink(const std::u16string &link)
{
    Unicode l(link);
    return IoDeleteSymbolicLink(&l.string);
}

class NamespaceTest : public IoTest {};

TEST_F(NamespaceTest, StaleLinkCollidesUntilDeletedAndAliasesNameOneLink)
{
    ASSERT_EQ(hk::createSymbolicLink(u"\\DosDevices\\Ambrel", u"\\Device\\Gone"), STATUS_SUCCESS);
    EXPECT_EQ(createLink(u"\\DosDevices\\Ambrel", kDevice), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(createLink(u"\\??\\AMBREL", kDevice), STATUS_OBJECT_NAME_COLLISION) << "\\DosDevices is \\??";
    hk::Process app(100);
    hk::Handle h = 0;
    EXPECT_EQ(app.open(u"\\GLOBAL??\\Ambrel", GENERIC_READ, &h), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(deleteLink(u"\\GLOBAL??\\ambrel"), STATUS_SUCCESS);
    EXPECT_EQ(deleteLink(u"\\DosDevices\\Ambrel"), STATUS_OBJECT_NAME_NOT_FOUND);
    ASSERT_EQ(createLink(u"\\DosDevices\\Ambrel", kDevice), STATUS_SUCCESS);
    EXPECT_EQ(narrow(hk::symbolicLinkTarget(u"\\??\\Ambrel").value_or(u"")), narrow(kDevice));
    EXPECT_EQ(app.open(u"\\GLOBAL??\\Ambrel\\X", GENERIC_READ, &h), STATUS_SUCCESS);
    app.close(h);
    EXPECT_EQ(deleteLink(kDevice), STATUS_OBJECT_TYPE_MISMATCH) << "a device is not a link";
    hk::injectIoFault(hk::IoFault::CreateSymbolicLink, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(createLink(u"\\DosDevices\\Other", kDevice), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_FALSE(hk::objectExists(u"\\DosDevices\\Other"));

    // A run of failures after a skip: the skipped call works, the next two
    // fail, the one after works again.
    hk::injectIoFault(hk::IoFault::CreateSymbolicLink, STATUS_OBJECT_NAME_COLLISION, 1, 2);
    const struct {
        const char16_t *link;
        NTSTATUS status;
        bool armedAfter;
    } run[] = {
        {u"\\??\\Run0", STATUS_SUCCESS, true},
        {u"\\??\\Run1", STATUS_OBJECT_NAME_COLLISION, true},
        {u"\\??\\Run2", STATUS_OBJECT_NAME_COLLISION, false},
        {u"\\??\\Run3", STATUS_SUCCESS, false},
    };
    for (const auto &c : run) {
        SCOPED_TRACE(narrow(c.link));
        EXPECT_EQ(createLink(c.link, kDevice), c.status);
        EXPECT_EQ(hk::objectExists(c.link), NT_SUCCESS(c.status));
        EXPECT_EQ(hk::ioFaultArmed(hk::IoFault::CreateSymbolicLink), c.armedAfter);
    }
}

TEST_F(NamespaceTest, LinksChainAndLoopsEnd)
{
    ASSERT_EQ(createLink(u"\\??\\A", u"\\??\\B"), STATUS_SUCCESS);
    ASSERT_EQ(createLink(u"\\??\\B", kDevice + u"\\via"), STATUS_SUCCESS);
    ASSERT_EQ(createLink(u"\\??\\Loop", u"\\??\\Loop"), STATUS_SUCCESS);
    hk::Process app(100);
    hk::Handle h = 0;
    ASSERT_EQ(app.open(u"\\??\\A\\end", GENERIC_READ, &h), STATUS_SUCCESS);
    EXPECT_EQ(narrow(g.seen.back().fileName), "\\via\\end");
    app.close(h);
    EXPECT_EQ(app.open(u"\\??\\Loop", GENERIC_READ, &h), STATUS_OBJECT_PATH_NOT_FOUND);
}

TEST_F(NamespaceTest, DeviceNamesCollideAndMustBeWellFormed)
{
    struct Case {
        std::u16string name;
        NTSTATUS status;
    } cases[] = {
        {kDevice, STATUS_OBJECT_NAME_COLLISION},
        {u"\\device\\hktest", STATUS_OBJECT_NAME_COLLISION},
        {u"\\Device\\", STATUS_OBJECT_NAME_INVALID},
        {u"Device\\X", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {u"\\NoDirectory\\X", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\Device\\HkTest\\Below", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\Device\\Second", STATUS_SUCCESS},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(narrow(c.name));
        Unicode name(c.name);
        PDEVICE_OBJECT device = nullptr;
        EXPECT_EQ(IoCreateDevice(driver_, 0, &name.string, FILE_DEVICE_UNKNOWN, 0, FALSE, &device), c.status);
        if (NT_SUCCESS(c.status)) {
            EXPECT_TRUE(hk::objectExists(c.name));
            EXPECT_EQ(driver_->DeviceObject, device) << "newest first";
            EXPECT_EQ(device->NextDevice, g.device);
            EXPECT_NE(device->Flags & DO_DEVICE_INITIALIZING, 0u);
        }
    }
    hk::injectIoFault(hk::IoFault::CreateDevice, STATUS_INSUFFICIENT_RESOURCES);
    Unicode third(u"\\Device\\Third");
    PDEVICE_OBJECT device = nullptr;
    EXPECT_EQ(IoCreateDevice(driver_, 0, &third.string, FILE_DEVICE_UNKNOWN, 0, FALSE, &device),
              STATUS_INSUFFICIENT_RESOURCES);
}

struct EntryProbe {
    KIRQL irql = 0xFF;
    PEPROCESS process = reinterpret_cast<PEPROCESS>(1);
    std::thread::id thread;
    std::u16string registryPath;
    bool slotsFilled = false;
    int unloads = 0;
} probe;

NTSTATUS NTAPI probingEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath)
{
    probe.irql = KeGetCurrentIrql();
    probe.process = PsGetCurrentProcess();
    probe.thread = std::this_thread::get_id();
    probe.registryPath.assign(reinterpret_cast<const char16_t *>(registryPath->Buffer), registryPath->Length / 2);
    probe.slotsFilled = true;
    for (auto slot : driver->MajorFunction) {
        probe.slotsFilled = probe.slotsFilled && slot != nullptr;
    }
    driver->DriverUnload = [](PDRIVER_OBJECT) NTAPI { probe.unloads++; };
    return STATUS_SUCCESS;
}

TEST(DriverLoadTest, EntryRunsInASystemThreadAndUnloadOnce)
{
    NTSTATUS status = STATUS_PENDING;
    PDRIVER_OBJECT driver = hk::loadDriver(u"HkProbe", probingEntry, &status);
    ASSERT_NE(driver, nullptr);
    EXPECT_EQ(status, STATUS_SUCCESS);
    EXPECT_EQ(probe.irql, PASSIVE_LEVEL);
    EXPECT_EQ(probe.process, nullptr);
    EXPECT_NE(probe.thread, std::this_thread::get_id());
    EXPECT_EQ(narrow(probe.registryPath), narrow(hk::serviceKeyPath(u"HkProbe")));
    EXPECT_TRUE(hk::registry::keyExists(hk::serviceKeyPath(u"HkProbe")));
    EXPECT_TRUE(probe.slotsFilled);
    EXPECT_TRUE(hk::objectExists(u"\\Driver\\HkProbe"));
    EXPECT_EQ(hk::loadDriver(u"HkProbe", probingEntry, &status), nullptr);
    EXPECT_EQ(status, STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(hk::unloadDriver(driver), STATUS_SUCCESS);
    EXPECT_EQ(probe.unloads, 1);

    // A failing entry leaves no driver behind: the name is free again.
    auto failing = [](PDRIVER_OBJECT, PUNICODE_STRING) NTAPI { return NTSTATUS(STATUS_NO_MEMORY); };
    EXPECT_EQ(hk::loadDriver(u"HkProbe", failing, &status), nullptr);
    EXPECT_EQ(status, STATUS_NO_MEMORY);
    EXPECT_FALSE(hk::objectExists(u"\\Driver\\HkProbe"));
}

} // namespace
} // namespace iotest
