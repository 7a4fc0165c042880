// The control device's requests as an application issues them: routing, open
// and close, the read queue and its cancellation, the write path, and the
// process-id query, each status row with the log line that goes with it.
#include "adapter_fixture.h"
#include "published.h"

namespace adaptertest {
namespace {

class ControlRequests : public DriverFixture {
protected:
    void SetUp() override
    {
        hk::registry::setDword(configurationKey(), u"MaxPorts", 3);
        boot();
    }
    hk::Process &app() { return processes_.empty() ? process(100) : *processes_.front(); }
};

// ------------------------------------------------------------------ routing

TEST_F(ControlRequests, UnsupportedMajorsAreRefusedOnTheControlDeviceOnly)
{
    hk::Handle h = openPort(app(), u"\\Piano");
    ASSERT_NE(h, 0u);
    const UCHAR majors[] = {IRP_MJ_FLUSH_BUFFERS, IRP_MJ_QUERY_INFORMATION, IRP_MJ_SET_INFORMATION,
                            IRP_MJ_QUERY_SECURITY, IRP_MJ_LOCK_CONTROL, IRP_MJ_SET_SECURITY,
                            IRP_MJ_POWER,         IRP_MJ_SYSTEM_CONTROL};
    for (UCHAR major : majors) {
        hk::LogCapture log;
        hk::IoResult r = app().request(h, major);
        if (r.status == STATUS_INVALID_DEVICE_REQUEST && log.count("am_private_dispatch_catchall (") == 0) {
            continue; // a slot portcls left empty: the I/O manager refused it
        }
        EXPECT_EQ(r.status, STATUS_INVALID_DEVICE_REQUEST) << int(major);
        EXPECT_TRUE(log.contains("am_private_dispatch_catchall - not supported on our fdo")) << int(major);
        EXPECT_EQ(log.count("punt_to_PortCls: done"), 0u);
    }

    // The same kind of request on the port's filter (the adapter device)
    // reaches the framework.
    auto audio = interfacesNamed(KSCATEGORY_AUDIO, u"Piano");
    ASSERT_EQ(audio.size(), 1u);
    hk::Process &client = process(200);
    hk::Handle filter = 0;
    ASSERT_EQ(client.open(audio[0].symbolicLink, kReadWrite, &filter), STATUS_SUCCESS);
    hk::LogCapture log;
    client.request(filter, IRP_MJ_FLUSH_BUFFERS);
    EXPECT_TRUE(log.contains("am_private_dispatch_catchall ("));
    EXPECT_FALSE(log.contains("not supported on our fdo"));
    EXPECT_TRUE(log.contains("punt_to_PortCls: done"));
}

TEST_F(ControlRequests, ControlCodesOtherThanTheQuery)
{
    hk::Handle h = openPort(app(), u"\\Piano");
    ASSERT_NE(h, 0u);
    UCHAR out[16] = {0xAA};
    hk::IoResult r = app().internalDeviceControl(h, 0x12345678, nullptr, 0, out, sizeof(out));
    EXPECT_EQ(r.status, STATUS_SUCCESS); // internal ones succeed without a look
    EXPECT_EQ(r.information, 0u);
    EXPECT_EQ(out[0], 0xAA);
    hk::LogCapture log;
    r = app().deviceControl(h, 0x80012008, nullptr, 0, out, sizeof(out));
    EXPECT_EQ(r.status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(r.information, 0u);
    EXPECT_TRUE(log.contains("am_private_dispatch_device_control(80012008): c0000010 [0]"));
}

// ------------------------------------------------------------------ open and close

struct OpenCase {
    const char16_t *suffix;
    NTSTATUS status;
    const char *logged; // a line that must be there, or null
};

TEST_F(ControlRequests, OpenStatusRowsAndTheSlotAClosedPortFrees)
{
    // The name grammar itself is OpenParams' business: one refused name, and
    // the longest accepted one published whole.
    std::u16string name254(254, u'n');
    std::u16string long254 = u"\\" + name254;
    const OpenCase cases[] = {
        {u"", STATUS_INVALID_PARAMETER, nullptr},
        {u"\\:*?|<>", STATUS_INVALID_PARAMETER, "am_private_dispatch_create ----- no valid port-name given"},
        {long254.c_str(), STATUS_SUCCESS, "am_private_dispatch_create +++++ succeeded"},
        {u"\\Pi:a*n|o\\65536", STATUS_SUCCESS, "am_private_dispatch_create ----- deviceName: Piano"},
        {u"\\Piano", STATUS_ALIAS_EXISTS, "am_private_dispatch_create ----- AddPortByName failed: c0000154"},
        {u"\\piano", STATUS_SUCCESS, "am_private_dispatch_create ----- sysexLen: 131056"},
        {u"\\Organ", STATUS_TOO_MANY_SESSIONS, "am_private_dispatch_create ----- AddPortByName failed: c00000ce"},
    };
    std::vector<hk::Handle> opened;
    for (const OpenCase &c : cases) {
        hk::LogCapture log;
        NTSTATUS status;
        hk::Handle h = openPort(app(), c.suffix, &status);
        EXPECT_EQ(status, c.status) << narrow(c.suffix).substr(0, 20);
        if (c.logged != nullptr) {
            EXPECT_TRUE(log.contains(c.logged)) << c.logged;
        }
        if (h != 0) {
            opened.push_back(h);
        }
    }
    EXPECT_EQ(interfacesNamed(KSCATEGORY_AUDIO, name254).size(), 1u);

    // Closing "Piano" frees its name and its slot, the lowest free one: the
    // next port takes its reference string.
    ASSERT_EQ(opened.size(), 3u);
    hk::LogCapture log;
    ASSERT_EQ(app().close(opened[1]), STATUS_SUCCESS);
    EXPECT_TRUE(log.contains("am_private_dispatch_close +++++ succeeded"));
    EXPECT_TRUE(interfacesNamed(KSCATEGORY_AUDIO, u"Piano").empty());
    EXPECT_NE(openPort(app(), u"\\Organ"), 0u);
    EXPECT_TRUE(log.contains("AddPortDevice ***** Portname is: ambrel1 (14)"));
}

struct DirectionCase {
    ACCESS_MASK access;
    bool capture, render;
};

TEST_F(ControlRequests, AccessChoosesTheDirections)
{
    const DirectionCase cases[] = {{FILE_GENERIC_READ, false, true},
                                   {FILE_GENERIC_WRITE, true, false},
                                   {kReadWrite, true, true},
                                   {FILE_READ_ATTRIBUTES, true, true}};
    int n = 0;
    for (const DirectionCase &c : cases) {
        std::u16string name = u"Port" + std::u16string(1, char16_t(u'0' + n++));
        hk::LogCapture log;
        hk::Handle h = openPort(app(), u"\\" + name + u"\\20000", nullptr, c.access);
        ASSERT_NE(h, 0u);
        EXPECT_EQ(interfacesNamed(published::CategoryAudio, name).size(), 1u);
        EXPECT_EQ(interfacesNamed(published::CategoryCapture, name).size(), c.capture ? 1u : 0u);
        EXPECT_EQ(interfacesNamed(published::CategoryRender, name).size(), c.render ? 1u : 0u);
        // What the access asked for, then what the port got.
        const int asked = ((c.access & FILE_WRITE_DATA) ? 1 : 0) | ((c.access & FILE_READ_DATA) ? 2 : 0);
        const int got = (c.capture ? 1 : 0) | (c.render ? 2 : 0);
        EXPECT_EQ(log.count("am_private_dispatch_create ----- security: " + std::to_string(asked)), 1u);
        EXPECT_EQ(log.count("am_private_dispatch_create ----- flags: " + std::to_string(got)), 1u);
        EXPECT_EQ(log.count("am_private_dispatch_create ----- sysexLen: 20000"), 1u);
        EXPECT_EQ(log.contains("AddPortDevice ----- no capture instantiated"), !c.capture);
        EXPECT_EQ(log.contains("AddPortDevice ----- no render instantiated"), !c.render);
        ASSERT_EQ(app().close(h), STATUS_SUCCESS);
    }
}

TEST_F(ControlRequests, PublicationWritesTheNamesClientsShow)
{
    hk::LogCapture log;
    hk::Handle h = openPort(app(), u"\\Piano");
    ASSERT_NE(h, 0u);
    for (const GUID *category : {&published::CategoryAudio, &published::CategoryCapture, &published::CategoryRender}) {
        auto found = interfacesNamed(*category, u"Piano");
        ASSERT_EQ(found.size(), 1u);
        EXPECT_EQ(narrow(found[0].referenceString), "ambrel0");
        auto clsid = hk::registry::value(found[0].deviceParametersKey, u"CLSID");
        ASSERT_TRUE(clsid.has_value());
        EXPECT_EQ(clsid->type, (ULONG)REG_SZ);
        EXPECT_EQ(clsid->data.size(), 78u);
        EXPECT_EQ(narrow(clsid->text()), "{17CCA71B-ECD7-11D0-B908-00A0C9223196}");
    }
    const std::u16string category =
        u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Control\\MediaCategories\\"
        u"{B4AD3AD0-EE19-422B-A1DA-18607FC3D479}";
    auto name = hk::registry::value(category, u"Name");
    ASSERT_TRUE(name.has_value());
    EXPECT_EQ(narrow(name->text()), "Piano");
    auto display = hk::registry::value(category, u"Display");
    ASSERT_TRUE(display.has_value());
    EXPECT_EQ(display->type, (ULONG)REG_BINARY);
    EXPECT_EQ(display->data, std::vector<std::uint8_t>(4, 0));
    EXPECT_EQ(hk::registry::openHandleCount(), 0u);
    EXPECT_EQ(log.count("Ambrel:Adapter: AddPortDevice ***** Created GUID-Path: " + narrow(category)), 1u);

    // Withdrawal lets go of the last reference on the port.
    log.clear();
    ASSERT_EQ(app().close(h), STATUS_SUCCESS);
    EXPECT_EQ(log.count("Ambrel:Adapter: RemovePortDevice ***** release-count = 0"), 1u);
}

struct PublicationFault {
    hk::IoFault fault;
    unsigned skip;
    const char *logged;
};

TEST_F(ControlRequests, FailedPublicationFreesTheSlotAndTheName)
{
    const PublicationFault cases[] = {
        {hk::IoFault::RegisterInterface, 0, "AddPortDevice ----- IoRegisterDeviceInterface (audio) failed: c000009a"},
        {hk::IoFault::RegisterInterface, 1, "AddPortDevice ----- IoRegisterDeviceInterface (capture) failed: c000009a"},
        {hk::IoFault::RegisterInterface, 2, "AddPortDevice ----- IoRegisterDeviceInterface (render) failed: c000009a"},
        {hk::IoFault::OpenInterfaceKey, 0,
         "AddPortDevice ----- IoOpenDeviceInterfaceRegistryKey (audio) failed: c000009a"},
        {hk::IoFault::OpenInterfaceKey, 2,
         "AddPortDevice ----- IoOpenDeviceInterfaceRegistryKey (render) failed: c000009a"},
    };
    for (const PublicationFault &c : cases) {
        hk::injectIoFault(c.fault, STATUS_INSUFFICIENT_RESOURCES, c.skip);
        hk::LogCapture log;
        NTSTATUS status;
        EXPECT_EQ(openPort(app(), u"\\Piano", &status), 0u);
        EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES) << c.logged;
        EXPECT_TRUE(log.contains(c.logged)) << c.logged;
        EXPECT_TRUE(log.contains("am_private_dispatch_create ----- AddPortDevice failed: c000009a"));
        hk::clearIoFaults();
    }
    hk::registry::failNext(hk::registry::Op::Create, STATUS_ACCESS_DENIED);
    hk::LogCapture log;
    NTSTATUS status;
    EXPECT_EQ(openPort(app(), u"\\Piano", &status), 0u);
    EXPECT_EQ(status, STATUS_ACCESS_DENIED);
    EXPECT_TRUE(log.contains("AddPortDevice ----- ZwCreateKey failed: c0000022"));
    hk::registry::clearFaults();

    // Nothing was left holding the name or a slot: all three slots still open.
    hk::Handle piano = openPort(app(), u"\\Piano");
    EXPECT_NE(piano, 0u);
    EXPECT_NE(openPort(app(), u"\\Organ"), 0u);
    EXPECT_NE(openPort(app(), u"\\Harp"), 0u);
    EXPECT_EQ(hk::registry::openHandleCount(), 0u);
}

TEST_F(ControlRequests, PublicationOfASlotPastTheTableIsRefused)
{
    // No request reaches this row: the table hands out only its own slots.
    AMBREL_HOST_BUILD_ONLY("calls the publication routine directly");
    hk::LogCapture log;
    hk::Handle piano = openPort(app(), u"\\Piano");
    ASSERT_NE(piano, 0u);
    // Refused before anything is registered: STATUS_INVALID_HANDLE, 0xC0000008.
    PortTable *table = static_cast<PortTable *>(app().fileObject(piano)->DeviceObject->DeviceExtension);
    const ULONG count = table->PortCount;
    log.clear();
    EXPECT_EQ(AddPortDevice(table, count, 8176, 3, GUID_NULL, GUID_NULL), NTSTATUS(0xC0000008));
    EXPECT_EQ(log.count("AddPortDevice ----- Index too large (" + std::to_string(count) + ">=" +
                        std::to_string(count) + ")"),
              1u);
}

// ------------------------------------------------------------------ read, cancel, cleanup

TEST_F(ControlRequests, ParkedReadIsBusyCancellableAndFinishedByCleanup)
{
    hk::Handle h = openPort(app(), u"\\Piano");
    ASSERT_NE(h, 0u);

    hk::LogCapture parkLog;
    auto first = app().readAsync(h, 16);
    EXPECT_FALSE(first->wait(std::chrono::milliseconds(20)));
    EXPECT_EQ(first->result().dispatchStatus, STATUS_PENDING);
    EXPECT_TRUE(parkLog.contains("Ambrel:Adapter: am_private_dispatch_read ***** mark pending"));
    EXPECT_TRUE(parkLog.contains("Ambrel:Adapter: am_private_dispatch_read +++++ succeeded (pending)"));

    hk::LogCapture log;
    UCHAR buffer[16];
    hk::IoResult second = app().read(h, buffer, sizeof(buffer));
    EXPECT_EQ(second.status, STATUS_DEVICE_BUSY);
    EXPECT_EQ(second.information, 0u);
    EXPECT_EQ(second.priorityBoost, IO_NO_INCREMENT);
    EXPECT_TRUE(log.contains("am_private_dispatch_read ----- still busy!"));
    EXPECT_FALSE(first->done());

    EXPECT_EQ(first->cancel(), STATUS_SUCCESS);
    ASSERT_TRUE(first->wait(std::chrono::seconds(10)));
    EXPECT_EQ(first->status(), STATUS_CANCELLED);
    EXPECT_EQ(first->result().priorityBoost, IO_NO_INCREMENT);
    EXPECT_TRUE(log.contains("controlCancelIrp ***** found: "));
    EXPECT_TRUE(log.contains(" at 0"));

    // A new read parks again; closing the handle finishes it with 0xC0000080
    // before the port is withdrawn.
    auto third = app().readAsync(h, 16);
    EXPECT_FALSE(third->wait(std::chrono::milliseconds(20)));
    log.clear();
    ASSERT_EQ(app().close(h), STATUS_SUCCESS);
    ASSERT_TRUE(third->wait(std::chrono::seconds(10)));
    EXPECT_EQ(third->status(), STATUS_SERVER_DISABLED);
    EXPECT_EQ(third->result().priorityBoost, IO_NO_INCREMENT);
    EXPECT_TRUE(log.contains("am_private_dispatch_cleanup ***** completing irp"));
    hk::drainIo();
    EXPECT_TRUE(interfacesNamed(KSCATEGORY_AUDIO, u"Piano").empty());
}

TEST_F(ControlRequests, ProcessExitCancelsItsParkedRead)
{
    hk::Process *owner = &process(300);
    hk::Handle h = openPort(*owner, u"\\Piano");
    ASSERT_NE(h, 0u);
    auto read = owner->readAsync(h, 4);
    EXPECT_FALSE(read->wait(std::chrono::milliseconds(20)));
    processes_.clear(); // the process exits with its read outstanding
    ASSERT_TRUE(read->wait(std::chrono::seconds(10)));
    EXPECT_TRUE(read->status() == STATUS_CANCELLED || read->status() == STATUS_SERVER_DISABLED);
    hk::drainIo();
    EXPECT_TRUE(interfacesNamed(KSCATEGORY_AUDIO, u"Piano").empty());
}

// ------------------------------------------------------------------ transfers

struct TransferCase {
    bool write;
    ULONG length;
    bool mappingFails;
    NTSTATUS status;
    CCHAR boost;
    const char *logged;
};

TEST_F(ControlRequests, ReadAndWriteStatusRows)
{
    hk::Handle h = openPort(app(), u"\\Piano");
    ASSERT_NE(h, 0u);
    const NTSTATUS resources = STATUS_INSUFFICIENT_RESOURCES;
    const CCHAR none = IO_NO_INCREMENT, sound = IO_SOUND_INCREMENT;
    const TransferCase cases[] = {
        // A transfer of zero bytes comes without a buffer description.
        {false, 0, false, resources, none, "am_private_dispatch_read ***** no irp yet"},
        {false, 8, true, resources, none, "am_private_dispatch_read ----- MmGetSystemAddressForMdlSafe failed"},
        {true, 0, false, resources, none, "am_private_dispatch_write ----- Irp->MdlAddress was NULL"},
        {true, 3, true, resources, none, "am_private_dispatch_write ----- MmGetSystemAddressForMdlSafe failed"},
        {true, 3, false, STATUS_SUCCESS, sound, "am_private_dispatch_write +++++ succeeded: 3"},
        {true, 524288, false, STATUS_SUCCESS, sound, "am_private_dispatch_write +++++ succeeded: 524288"},
        {true, 524289, false, STATUS_TOO_MANY_COMMANDS, none,
         "am_private_dispatch_write ----- too much data for fifo: 524289 (524288)"},
    };
    std::vector<UCHAR> data(524289, 0xF8); // timing clocks: valid MIDI of any length
    for (const TransferCase &c : cases) {
        SCOPED_TRACE(c.logged);
        if (c.mappingFails) {
            hk::injectIoFault(hk::IoFault::MapMdl);
        }
        hk::LogCapture log;
        hk::IoResult r = c.write ? app().write(h, data.data(), c.length) : app().read(h, data.data(), c.length);
        hk::clearIoFaults();
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.information, 0u);
        EXPECT_EQ(r.priorityBoost, c.boost);
        EXPECT_TRUE(log.contains(c.logged));
    }
}

} // namespace
} // namespace adaptertest
