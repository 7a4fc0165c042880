// Driver entry, the registry settings, the adapter's devices and its removal,
// observed as the system and applications observe them: statuses, the object
// namespace, the debug log, and what opens can do afterwards.
#include "adapter_fixture.h"
#include "published.h"

#include <algorithm>
#include <cstring>

namespace adaptertest {
namespace {

// The adapter logged exactly this line.
bool logHasLine(const hk::LogCapture &log, const std::string &message)
{
    auto lines = log.lines();
    return std::find(lines.begin(), lines.end(), "Ambrel:Adapter: " + message) != lines.end();
}

// ------------------------------------------------------------------ settings

enum class Stored { Missing, Dword, String, ShortBinaryDword, NoMemory };

struct MaxPortsCase {
    const char *name;
    Stored stored;
    ULONG value;
    UCHAR wdmMajor, wdmMinor;
    ULONG expected;
    const char *message;
};

class MaxPortsSetting : public DriverFixture, public ::testing::WithParamInterface<MaxPortsCase> {};

TEST_P(MaxPortsSetting, IsReadBoundedAndDefaultedByWindowsVersion)
{
    const MaxPortsCase &c = GetParam();
    hk::setWdmVersion(c.wdmMajor, c.wdmMinor);
    switch (c.stored) {
    case Stored::Missing:
        break;
    case Stored::Dword:
        hk::registry::setDword(configurationKey(), u"MaxPorts", c.value);
        break;
    case Stored::String:
        hk::registry::setString(configurationKey(), u"MaxPorts", u"3");
        break;
    case Stored::NoMemory:
        hk::registry::setDword(configurationKey(), u"MaxPorts", 3);
        hk::failPoolAllocationsOfTag(hk::tag("AmbR"));
        break;
    case Stored::ShortBinaryDword: {
        const UCHAR two[2] = {3, 0};
        hk::registry::setValue(configurationKey(), u"MaxPorts", REG_DWORD, two, sizeof(two));
        break;
    }
    }

    hk::LogCapture log;
    load();
    hk::clearPoolFaults();
    EXPECT_TRUE(logHasLine(log, c.message)) << c.name;
    EXPECT_EQ(logHasLine(log, "ExAllocatePool failed"), c.stored == Stored::NoMemory) << c.name;
    // What the adapter announces to the framework is what the driver took.
    addAndStart();
    EXPECT_EQ(hk::portclsStats().adapterMaxObjects, std::vector<ULONG>{c.expected}) << c.name;
    if (c.stored == Stored::String || c.stored == Stored::ShortBinaryDword) {
        EXPECT_TRUE(logHasLine(log, "ZwQueryValueKey: no dword"));
    }
    if (c.stored == Stored::Missing) {
        // The Configuration key exists (loadDriver made the service key, not
        // this one) or not: either way the message names the failing step.
        EXPECT_TRUE(log.contains("ZwOpenKey failed: ") || log.contains("ZwQueryValueKey failed: c0000034"));
    }
    EXPECT_EQ(hk::registry::openHandleCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Registry, MaxPortsSetting,
    ::testing::Values(MaxPortsCase{"MissingOnVista", Stored::Missing, 0, 6, 0, 256, "Vista or higher -> 256 miniports"},
                      MaxPortsCase{"MissingOnXP", Stored::Missing, 0, 1, 0x20, 32, "XP or higher -> 32 miniports"},
                      MaxPortsCase{"MissingBeforeXP", Stored::Missing, 0, 1, 0x10, 10, "less than XP -> 10 miniports"},
                      MaxPortsCase{"Zero", Stored::Dword, 0, 6, 0, 1, "Registry-Override -> 1 miniports (0)"},
                      MaxPortsCase{"Three", Stored::Dword, 3, 6, 0, 3, "Registry-Override -> 3 miniports"},
                      MaxPortsCase{"Limit", Stored::Dword, 512, 6, 0, 512, "Registry-Override -> 512 miniports"},
                      MaxPortsCase{"AboveLimit", Stored::Dword, 513, 6, 0, 512,
                                   "Registry-Override -> 512 miniports (513)"},
                      MaxPortsCase{"Huge", Stored::Dword, 0xFFFFFFFF, 6, 0, 512, "Registry-Override -> 512 miniports (-1)"},
                      MaxPortsCase{"RegSz", Stored::String, 0, 6, 0, 256, "Vista or higher -> 256 miniports"},
                      MaxPortsCase{"TwoByteDword", Stored::ShortBinaryDword, 0, 6, 0, 256,
                                   "Vista or higher -> 256 miniports"},
                      MaxPortsCase{"NoMemory", Stored::NoMemory, 0, 6, 0, 256, "Vista or higher -> 256 miniports"}),
    [](const ::testing::TestParamInfo<MaxPortsCase> &info) { return std::string(info.param.name); });

struct SysexCase {
    bool stored;
    ULONG value;
    ULONG expected;
};

class SysexSizeSetting : public DriverFixture, public ::testing::WithParamInterface<SysexCase> {};

TEST_P(SysexSizeSetting, BecomesTheSizeOfAPortThatNamesNone)
{
    const SysexCase &c = GetParam();
    if (c.stored) {
        hk::registry::setDword(configurationKey(), u"SysexSize", c.value);
    }
    hk::LogCapture log;
    boot();
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(logHasLine(log, "Default-SysexSize -> 131056 bytes"), !c.stored);

    hk::Process &app = process(100);
    NTSTATUS status;
    ASSERT_NE(openPort(app, u"\\Piano", &status), 0u) << std::hex << status;
    EXPECT_TRUE(logHasLine(log, "am_private_dispatch_create ----- sysexLen: " + std::to_string(c.expected)));
}

INSTANTIATE_TEST_SUITE_P(Registry, SysexSizeSetting,
                         ::testing::Values(SysexCase{false, 0, 131056}, SysexCase{true, 100, 8176},
                                           SysexCase{true, 8176, 8176}, SysexCase{true, 65536, 65536},
                                           SysexCase{true, 1048560, 1048560}, SysexCase{true, 1048561, 1048560},
                                           SysexCase{true, 0xFFFFFFFF, 1048560}));

using DriverEntryTest = DriverFixture;

TEST_F(DriverEntryTest, ServiceKeyEndingInBackslashGetsNoSecondOne)
{
    // A DriverEntry handed a service key with a trailing separator.
    static PDRIVER_INITIALIZE realEntry;
    realEntry = entryOfTheBuild();
    ASSERT_NE(realEntry, nullptr);
    struct Wrapper {
        static NTSTATUS NTAPI entry(PDRIVER_OBJECT driver, PUNICODE_STRING path)
        {
            static WCHAR buffer[600];
            size_t n = path->Length / sizeof(WCHAR);
            memcpy(buffer, path->Buffer, n * sizeof(WCHAR));
            buffer[n] = L'\\';
            UNICODE_STRING withSlash;
            withSlash.Buffer = buffer;
            withSlash.Length = (USHORT)((n + 1) * sizeof(WCHAR));
            withSlash.MaximumLength = sizeof(buffer);
            return realEntry(driver, &withSlash);
        }
    };
    hk::registry::setDword(configurationKey(), u"MaxPorts", 7);
    hk::LogCapture log;
    NTSTATUS status;
    driver_ = hk::loadDriver(kService, Wrapper::entry, &status);
    ASSERT_EQ(status, STATUS_SUCCESS);
    EXPECT_TRUE(logHasLine(log, "Registry-Override -> 7 miniports"));
    EXPECT_TRUE(log.contains("\\ambrel\\Configuration, MaxPorts )"));
    EXPECT_FALSE(log.contains("\\\\Configuration"));
}

TEST_F(DriverEntryTest, ServiceKeyIsCutAt1024CharactersBeforeConfiguration)
{
    // A service key of more than 1024 characters (components of 200).
    static std::u16string longPath;
    longPath = hk::serviceKeyPath(kService);
    while (longPath.size() < 1100) {
        longPath += u"\\" + std::u16string(200, u'k');
    }
    static PDRIVER_INITIALIZE realEntry;
    realEntry = entryOfTheBuild();
    ASSERT_NE(realEntry, nullptr);
    struct Wrapper {
        static NTSTATUS NTAPI entry(PDRIVER_OBJECT driver, PUNICODE_STRING)
        {
            UNICODE_STRING path;
            path.Buffer = reinterpret_cast<PWSTR>(longPath.data());
            path.Length = path.MaximumLength = USHORT(longPath.size() * sizeof(WCHAR));
            return realEntry(driver, &path);
        }
    };
    const std::u16string cut = longPath.substr(0, 1024);
    hk::registry::setDword(cut + u"\\Configuration", u"MaxPorts", 5);
    hk::LogCapture log;
    NTSTATUS status;
    driver_ = hk::loadDriver(kService, Wrapper::entry, &status);
    ASSERT_EQ(status, STATUS_SUCCESS);
    EXPECT_TRUE(logHasLine(log, "Registry-Override -> 5 miniports"));
    EXPECT_TRUE(log.contains(", " + narrow(cut) + ")"));
}

// ------------------------------------------------------------------ devices

using AdapterBoot = DriverFixture;

TEST_F(AdapterBoot, AddDeviceCreatesTheControlDeviceAndItsLinkReplacingAStaleOne)
{
    for (bool stale : {false, true}) {
        SCOPED_TRACE(stale ? "stale link" : "no link");
        if (stale) {
            ASSERT_EQ(hk::createSymbolicLink(kControlLink, u"\\Device\\Gone"), STATUS_SUCCESS);
        }
        hk::LogCapture log;
        boot();
        ASSERT_FALSE(HasFatalFailure());
        EXPECT_TRUE(hk::objectExists(kControlDevice));
        EXPECT_EQ(narrow(hk::symbolicLinkTarget(kControlLink).value_or(u"")), narrow(kControlDevice));
        EXPECT_EQ(log.contains("AddDevice ----- IoCreateSymbolicLink failed: "), stale);
        EXPECT_EQ(log.contains("... trying to delete it..."), stale);
        EXPECT_FALSE(log.contains("failed again"));
        for (const char *step : {"DriverEntry +++++ succeeded", "AddDevice ***** PcAddAdapterDevice succeeded()",
                                 "AddDevice +++++ succeeded", "StartDevice +++++ succeeded"}) {
            EXPECT_TRUE(logHasLine(log, step)) << step;
        }
        EXPECT_NE(openPort(process(100), u"\\Piano"), 0u);
        shutdown();
    }
}

TEST_F(AdapterBoot, StartRoutineWithoutResourcesOrBeforeTheControlDevice)
{
    // The start routine as the framework calls it, with what a framework may hand it.
    DEVICE_OBJECT device{};
    IRP irp{};
    const PRESOURCELIST someList = reinterpret_cast<PRESOURCELIST>(&device);
    AMBREL_HOST_BUILD_ONLY("calls the start routine with a device the framework never hands it");
    load();
    hk::LogCapture log;
    EXPECT_EQ(StartDevice(&device, &irp, someList), STATUS_SUCCESS);
    EXPECT_TRUE(logHasLine(log, "StartDevice ----- StartDevice: no device extension yet!!!!"));
    EXPECT_TRUE(logHasLine(log, "StartDevice +++++ succeeded"));
    log.clear();
    EXPECT_EQ(StartDevice(&device, &irp, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(logHasLine(log, "StartDevice ----- NULL resource list"));
    EXPECT_FALSE(log.contains("StartDevice +++++"));
}

using AdapterDeviceTest = BootedDriver;

TEST_F(AdapterDeviceTest, SecondAdapterIsRefused)
{
    hk::LogCapture log;
    auto second = hk::addRootDevice(driver_, u"ROOT\\MEDIA\\0001");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->addDeviceStatus(), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(logHasLine(log, "AddDevice ----- Already got controlDeviceObject!!!!!!!"));
}

TEST_F(AdapterDeviceTest, StopAndRestartKeepsServingPorts)
{
    ASSERT_EQ(node_->stop(), STATUS_SUCCESS);
    ASSERT_EQ(node_->start(), STATUS_SUCCESS);
    hk::Process &app = process(100);
    hk::Handle h = openPort(app, u"\\Piano");
    ASSERT_NE(h, 0u);
    EXPECT_EQ(interfacesNamed(KSCATEGORY_AUDIO, u"Piano").size(), 1u);
}

TEST_F(AdapterDeviceTest, PnpMinorsAreNamedAndPassedOn)
{
    // Every minor by the platform's name (0x02, the removal, has tests of its
    // own), 0x0E and anything past 0x17 by number.
    const char *names[] = {"IRP_MN_START_DEVICE", "IRP_MN_QUERY_REMOVE_DEVICE", nullptr,
                           "IRP_MN_CANCEL_REMOVE_DEVICE", "IRP_MN_STOP_DEVICE", "IRP_MN_QUERY_STOP_DEVICE",
                           "IRP_MN_CANCEL_STOP_DEVICE", "IRP_MN_QUERY_DEVICE_RELATIONS", "IRP_MN_QUERY_INTERFACE",
                           "IRP_MN_QUERY_CAPABILITIES", "IRP_MN_QUERY_RESOURCES",
                           "IRP_MN_QUERY_RESOURCE_REQUIREMENTS", "IRP_MN_QUERY_DEVICE_TEXT",
                           "IRP_MN_FILTER_RESOURCE_REQUIREMENTS", "unknown: 14", "IRP_MN_READ_CONFIG",
                           "IRP_MN_WRITE_CONFIG", "IRP_MN_EJECT", "IRP_MN_SET_LOCK", "IRP_MN_QUERY_ID",
                           "IRP_MN_QUERY_PNP_DEVICE_STATE", "IRP_MN_QUERY_BUS_INFORMATION",
                           "IRP_MN_DEVICE_USAGE_NOTIFICATION", "IRP_MN_SURPRISE_REMOVAL", "unknown: 24",
                           "unknown: 25"};
    for (UCHAR minor = 0; minor < sizeof(names) / sizeof(names[0]); minor++) {
        if (names[minor] == nullptr) {
            continue;
        }
        hk::LogCapture log;
        node_->send(minor);
        auto lines = log.lines();
        ASSERT_GE(lines.size(), 3u) << int(minor);
        EXPECT_EQ(lines[0].rfind("Ambrel:Adapter: am_private_dispatch_pnp (", 0), 0u) << int(minor);
        EXPECT_EQ(lines[1], std::string("Ambrel:Adapter: ") + names[minor]) << int(minor);
        EXPECT_TRUE(logHasLine(log, "punt_to_PortCls: done")) << int(minor);
    }
}

// ------------------------------------------------------------------ removal

using RemovalTest = BootedDriver;

TEST_F(RemovalTest, WithdrawsEveryPortFinishesParkedReadsAndRefusesStaleHandles)
{
    hk::Process &app = process(100);
    const char16_t *names[] = {u"\\One", u"\\Two", u"\\Three"};
    std::vector<hk::Handle> handles;
    std::vector<std::shared_ptr<hk::Request>> reads;
    for (const char16_t *n : names) {
        handles.push_back(openPort(app, n));
        ASSERT_NE(handles.back(), 0u);
        reads.push_back(app.readAsync(handles.back(), 16));
    }
    for (auto &r : reads) {
        EXPECT_FALSE(r->done());
    }
    ASSERT_EQ(interfacesNamed(KSCATEGORY_AUDIO, u"Two").size(), 1u);

    hk::LogCapture log;
    EXPECT_EQ(node_->remove(), STATUS_SUCCESS);
    for (auto &r : reads) {
        ASSERT_TRUE(r->wait(std::chrono::seconds(10)));
        EXPECT_EQ(r->status(), STATUS_DELETE_PENDING);
        EXPECT_EQ(r->information(), 0u);
        EXPECT_EQ(r->result().priorityBoost, IO_SOUND_INCREMENT);
    }
    EXPECT_EQ(log.count("am_private_dispatch_remove ***** removing port: "), 3u);
    EXPECT_TRUE(logHasLine(log, "am_private_dispatch_remove +++++ succeeded"));
    EXPECT_FALSE(hk::symbolicLinkTarget(kControlLink).has_value());
    EXPECT_TRUE(interfacesNamed(KSCATEGORY_AUDIO, u"Two").empty());

    // The application still holds its handles: nothing on them reaches the
    // framework or the freed records.
    log.clear();
    const UCHAR note[3] = {0x90, 60, 100};
    EXPECT_EQ(app.write(handles[0], note, 3).status, STATUS_DELETE_PENDING);
    UCHAR buffer[8];
    EXPECT_EQ(app.read(handles[1], buffer, sizeof(buffer)).status, STATUS_DELETE_PENDING);
    UCHAR ids[128];
    EXPECT_EQ(app.deviceControl(handles[2], kProcessIdsCode, nullptr, 0, ids, sizeof(ids)).status,
              STATUS_DELETE_PENDING);
    EXPECT_EQ(app.request(handles[0], IRP_MJ_FLUSH_BUFFERS).status, STATUS_INVALID_DEVICE_REQUEST);
    for (hk::Handle h : handles) {
        EXPECT_EQ(app.close(h), STATUS_SUCCESS);
    }
    EXPECT_EQ(log.count("punt_to_PortCls: done"), 0u);
    EXPECT_EQ(log.count("Ambrel:Adapter: am_private_dispatch_close +++++ succeeded"), 0u);
    // A new open finds no link any more.
    hk::Handle h = 0;
    EXPECT_FALSE(NT_SUCCESS(app.open(portPath(u"\\Piano"), kReadWrite, &h)));
}

// What the completion of the first port's parked read (a kernel caller's,
// finished by the removal) sees of the second port while removal works.
struct RemovalProbe {
    hk::Process *app;
    hk::Handle other;
    NTSTATUS readStatus = STATUS_PENDING;
    CCHAR readBoost = -1;
    NTSTATUS writeStatus = STATUS_PENDING;
};

NTSTATUS NTAPI probeRemoval(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    auto *probe = static_cast<RemovalProbe *>(context);
    probe->readStatus = irp->IoStatus.Status;
    const UCHAR note[3] = {0x90, 60, 100};
    probe->writeStatus = probe->app->write(probe->other, note, 3).status;
    return STATUS_MORE_PROCESSING_REQUIRED;
}

using RemovalOfAFullTable = DriverFixture;

TEST_F(RemovalOfAFullTable, ClosesTheGateFirstThenWithdrawsEverySlotInOrder)
{
    bootWithMaxPorts(2);
    ASSERT_FALSE(HasFatalFailure());
    hk::Process &app = process(100);
    hk::Handle one = openPort(app, u"\\One"), two = openPort(app, u"\\Two");
    ASSERT_NE(one, 0u);
    ASSERT_NE(two, 0u);
    PDEVICE_OBJECT control = app.fileObject(one)->DeviceObject;
    UCHAR buffer[16];
    PIRP irp = IoBuildAsynchronousFsdRequest(IRP_MJ_READ, control, buffer, sizeof(buffer), nullptr, nullptr);
    ASSERT_NE(irp, nullptr);
    IoGetNextIrpStackLocation(irp)->FileObject = app.fileObject(one);
    RemovalProbe probe{&app, two};
    IoSetCompletionRoutine(irp, probeRemoval, &probe, TRUE, TRUE, TRUE);
    ASSERT_EQ(IoCallDriver(control, irp), STATUS_PENDING);

    hk::LogCapture log;
    EXPECT_EQ(node_->remove(), STATUS_SUCCESS);
    EXPECT_EQ(probe.readStatus, STATUS_DELETE_PENDING);
    EXPECT_EQ(probe.writeStatus, STATUS_DELETE_PENDING) << "a request during removal passed the gate";
    hk::releaseKernelRequest(irp);
    EXPECT_TRUE(interfacesNamed(published::CategoryAudio, u"Two").empty());

    // The removal's own account, in order.
    const std::vector<std::string> steps = {
        "am_private_dispatch_remove (", "am_private_dispatch_remove ***** call is for function interface",
        "am_private_dispatch_remove ***** deleting symbolic link", "am_private_dispatch_remove ***** removing port: 0",
        "am_private_cleanup_for_remove (One)", "am_private_cleanup_for_remove ***** got Irp: ",
        "am_private_cleanup_for_remove +++++ succeeded", "am_private_dispatch_remove ***** removing port: 1",
        "am_private_cleanup_for_remove (Two)", "am_private_cleanup_for_remove +++++ succeeded",
        "am_private_dispatch_remove ***** IoDeleteDevice: controlDevice",
        "am_private_dispatch_remove ***** pass Irp down to function device",
        "am_private_dispatch_remove +++++ succeeded"};
    auto lines = log.lines();
    auto at = lines.begin();
    for (const std::string &step : steps) {
        at = std::find_if(at, lines.end(),
                          [&](const std::string &l) { return l.rfind("Ambrel:Adapter: " + step, 0) == 0; });
        ASSERT_NE(at, lines.end()) << "missing or out of order: " << step;
        ++at;
    }
}

TEST_F(RemovalTest, ANewAdapterInTheSameLoadServesPortsWhileOldHandlesStayRefused)
{
    hk::Process &app = process(100);
    hk::Handle old = openPort(app, u"\\Old");
    ASSERT_NE(old, 0u);
    ASSERT_EQ(node_->remove(), STATUS_SUCCESS);

    auto again = hk::addRootDevice(driver_, u"ROOT\\MEDIA\\0001");
    extraNodes_.push_back(again);
    ASSERT_EQ(again->addDeviceStatus(), STATUS_SUCCESS);
    ASSERT_EQ(again->start(), STATUS_SUCCESS);

    hk::Handle fresh = openPort(app, u"\\Old");
    ASSERT_NE(fresh, 0u);
    const UCHAR note[3] = {0x90, 60, 100};
    EXPECT_EQ(app.write(fresh, note, 3).status, STATUS_SUCCESS);
    EXPECT_EQ(app.write(old, note, 3).status, STATUS_DELETE_PENDING);
    EXPECT_EQ(app.close(old), STATUS_SUCCESS);
    EXPECT_EQ(app.close(fresh), STATUS_SUCCESS);
    EXPECT_TRUE(interfacesNamed(KSCATEGORY_AUDIO, u"Old").empty());
}

} // namespace
} // namespace adaptertest
