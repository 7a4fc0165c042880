// The caller API as an application uses it: opening paths, the requests'
// buffers and statuses, asynchronous completion, cancellation and the
// cleanup/close sequence.
#include <thread>

#include "iotest.h"

namespace iotest {
namespace {

using namespace std::chrono_literals;

class CallerTest : public IoTest {};

TEST_F(CallerTest, OpenSplitsThePathAndAFailedCreateOwesNothing)
{
    struct Case {
        std::u16string path;
        NTSTATUS status;
        std::u16string fileName;
        bool hasBuffer;
    } cases[] = {
        {u"\\Device\\HkTest\\Piano\\65536", STATUS_SUCCESS, u"\\Piano\\65536", true},
        {u"\\DosDevices\\HkTest\\Piano", STATUS_SUCCESS, u"\\Piano", true},
        {u"\\GLOBAL??\\hktest\\Organ", STATUS_SUCCESS, u"\\Organ", true},
        {u"\\\\?\\HkTest\\x", STATUS_SUCCESS, u"\\x", true},
        {u"\\??\\HKTEST", STATUS_SUCCESS, u"", false},
        {u"\\Device\\HkTest\\", STATUS_SUCCESS, u"\\", true},
        {u"\\Device\\Nope", STATUS_OBJECT_NAME_NOT_FOUND, u"", false},
        {u"\\Device\\Nope\\x", STATUS_OBJECT_PATH_NOT_FOUND, u"", false},
        {u"\\Nowhere\\HkTest", STATUS_OBJECT_PATH_NOT_FOUND, u"", false},
        {u"Device\\HkTest", STATUS_OBJECT_PATH_SYNTAX_BAD, u"", false},
        {u"\\Device", STATUS_OBJECT_TYPE_MISMATCH, u"", false},
    };
    hk::Process app(100);
    for (const auto &c : cases) {
        SCOPED_TRACE(narrow(c.path));
        size_t before = g.count(IRP_MJ_CREATE);
        hk::Handle h = 0;
        ASSERT_EQ(app.open(c.path, FILE_GENERIC_READ, &h), c.status);
        if (!NT_SUCCESS(c.status)) {
            EXPECT_EQ(h, 0u);
            EXPECT_EQ(g.count(IRP_MJ_CREATE), before);
            continue;
        }
        Seen create = g.seen.back();
        EXPECT_EQ(create.major, IRP_MJ_CREATE);
        EXPECT_EQ(narrow(create.fileName), narrow(c.fileName));
        EXPECT_EQ(create.fileNameHasBuffer, c.hasBuffer);
        EXPECT_EQ(create.file, app.fileObject(h));
        EXPECT_EQ(create.file->DeviceObject, g.device);
        EXPECT_EQ(app.close(h), STATUS_SUCCESS);
    }
    // A create the driver refuses leaves no handle and owes it no cleanup or close.
    g.createStatus = STATUS_ALIAS_EXISTS;
    size_t before = g.majors().size();
    hk::Handle h = 0;
    EXPECT_EQ(app.open(kLink + u"\\Dup", GENERIC_READ, &h), STATUS_ALIAS_EXISTS);
    EXPECT_EQ(h, 0u);
    EXPECT_EQ(g.majors().size(), before + 1);
    EXPECT_EQ(g.majors().back(), IRP_MJ_CREATE);
    EXPECT_EQ(app.handleCount(), 0u);
}

TEST_F(CallerTest, CreateCarriesMappedAccessAndTheCallersProcess)
{
    struct Case {
        ACCESS_MASK asked;
        ACCESS_MASK seen;
        bool canRead, canWrite;
    } cases[] = {
        {GENERIC_READ, FILE_GENERIC_READ, true, false},
        {GENERIC_WRITE, FILE_GENERIC_WRITE, false, true},
        {GENERIC_READ | GENERIC_WRITE, FILE_GENERIC_READ | FILE_GENERIC_WRITE, true, true},
        {FILE_READ_DATA, FILE_READ_DATA, true, false},
        {0, 0, false, false},
    };
    hk::Process app(4321);
    g.readData = {9};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.asked);
        hk::Handle h = openOk(app, kDevice + u"\\P", c.asked);
        Seen create = g.seen.back();
        EXPECT_EQ(create.access, c.seen);
        EXPECT_EQ(create.processId, HANDLE(4321));
        EXPECT_EQ(create.irql, PASSIVE_LEVEL);
        EXPECT_EQ(create.mode, UserMode);
        char byte = 0;
        // The I/O manager checks the handle's access before the driver sees anything.
        EXPECT_EQ(app.read(h, &byte, 0).status == STATUS_ACCESS_DENIED, !c.canRead);
        EXPECT_EQ(app.write(h, &byte, 1).status, c.canWrite ? STATUS_SUCCESS : STATUS_ACCESS_DENIED);
        app.close(h);
    }
    EXPECT_EQ(g.count(IRP_MJ_WRITE), 2u);
}

TEST_F(CallerTest, ReadsAndWritesGetTheBufferTheDeviceAsksFor)
{
    hk::Process app(100);
    hk::Handle h = openOk(app, kDevice + u"\\P", GENERIC_READ | GENERIC_WRITE);
    // Direct: an MDL on the caller's buffer, none for zero length.
    g.readData = {1, 2, 3, 4, 5};
    char buffer[6] = {};
    hk::IoResult r = app.read(h, buffer, 3);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(r.information, 3u);
    EXPECT_EQ(r.priorityBoost, IO_SOUND_INCREMENT);
    EXPECT_EQ(std::string(buffer, 3), std::string("\x01\x02\x03"));
    EXPECT_TRUE(g.seen.back().hasMdl);
    EXPECT_EQ(app.read(h, buffer, 0).status, STATUS_INSUFFICIENT_RESOURCES); // the driver finds no buffer
    EXPECT_FALSE(g.seen.back().hasMdl);
    hk::injectIoFault(hk::IoFault::MapMdl);
    EXPECT_EQ(app.read(h, buffer, 3).status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(app.read(h, buffer, 3).status, STATUS_SUCCESS); // one failure only

    // Buffered: a system buffer, of which only the Information bytes come back.
    setBuffering(DO_BUFFERED_IO);
    g.readData = {1, 2, 3};
    memset(buffer, 9, sizeof buffer);
    EXPECT_EQ(app.read(h, buffer, sizeof buffer).information, 3u);
    EXPECT_EQ(std::string(buffer, 6), std::string("\x01\x02\x03\x09\x09\x09", 6));
    Seen read = g.seen.back();
    EXPECT_FALSE(read.hasMdl);
    EXPECT_NE(read.systemBuffer, nullptr);
    EXPECT_NE(read.systemBuffer, static_cast<PVOID>(buffer));
    EXPECT_EQ(app.write(h, "abc", 3).information, 3u);
    EXPECT_NE(g.seen.back().systemBuffer, nullptr);
    app.close(h);
}

TEST_F(CallerTest, DeviceControlsDeliverBuffersByTransferType)
{
    struct Case {
        ULONG method;
        bool systemBuffer;
        bool callerPointers;
    } cases[] = {
        {METHOD_BUFFERED, true, false},
        {METHOD_IN_DIRECT, true, false},
        {METHOD_OUT_DIRECT, true, false},
        {METHOD_NEITHER, false, true},
    };
    hk::Process app(100);
    hk::Handle h = openOk(app, kDevice, GENERIC_READ | GENERIC_WRITE);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.method);
        UCHAR in[3] = {1, 2, 3};
        UCHAR out[5];
        memset(out, 0x55, sizeof out);
        ULONG code = CTL_CODE(0x8001, 0x801, c.method, FILE_ANY_ACCESS);
        hk::IoResult r = app.deviceControl(h, code, in, sizeof in, out, 4);
        EXPECT_EQ(r.status, STATUS_SUCCESS);
        EXPECT_EQ(r.information, 4u);
        const UCHAR expected[5] = {3, 2, 1, 0xEE, 0x55}; // nothing past the output length
        EXPECT_EQ(memcmp(out, expected, sizeof out), 0);
        Seen s = g.seen.back();
        EXPECT_EQ(s.systemBuffer != nullptr, c.systemBuffer);
        EXPECT_EQ(s.type3Input == in && s.userBuffer == out, c.callerPointers);
    }
    // The code's required access is the handle's business too.
    ULONG writeCode = CTL_CODE(0x8001, 0x802, METHOD_BUFFERED, FILE_WRITE_ACCESS);
    hk::Handle readOnly = openOk(app);
    EXPECT_EQ(app.deviceControl(readOnly, writeCode, nullptr, 0, nullptr, 0).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(app.deviceControl(h, writeCode, nullptr, 0, nullptr, 0).status, STATUS_SUCCESS);
    app.close(readOnly);
    app.close(h);
}

TEST_F(CallerTest, AsyncReadStaysPendingUntilCompletedAndReportsEverything)
{
    hk::Process app(100);
    hk::Handle h = openOk(app);
    auto read = app.readAsync(h, 16);
    EXPECT_FALSE(read->wait(20ms));
    EXPECT_EQ(read->status(), STATUS_PENDING);
    EXPECT_EQ(read->result().dispatchStatus, STATUS_PENDING);
    ASSERT_NE(read->irp(), nullptr);

    PIRP irp = claimParked();
    ASSERT_EQ(irp, read->irp());
    std::thread completer([irp] { completeRead(irp, {0x90, 0x3C, 0x40}); });
    EXPECT_TRUE(read->wait(5s));
    completer.join();
    hk::IoResult r = read->result();
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(r.information, 3u);
    EXPECT_EQ(r.priorityBoost, IO_SOUND_INCREMENT);
    EXPECT_EQ(read->output()[2], 0x40);
    EXPECT_EQ(read->irp(), nullptr);
    EXPECT_EQ(read->cancel(), STATUS_NOT_FOUND);
    app.close(h);
}

TEST_F(CallerTest, CancelIoCancelsTheCallersOwnRequestsEvenBeforeTheyPark)
{
    hk::Process app(100), other(200);
    hk::Handle h = openOk(app), o = openOk(other);
    EXPECT_EQ(app.cancelIo(h), STATUS_NOT_FOUND);
    auto a1 = app.readAsync(h, 4);
    auto a2 = app.readAsync(h, 4);
    auto b = other.readAsync(o, 4);
    EXPECT_EQ(app.cancelIo(h), STATUS_SUCCESS);
    EXPECT_EQ(a1->status(), STATUS_CANCELLED);
    EXPECT_EQ(a2->status(), STATUS_CANCELLED);
    EXPECT_FALSE(b->done());
    EXPECT_EQ(b->cancel(), STATUS_SUCCESS);
    EXPECT_EQ(b->status(), STATUS_CANCELLED);
    EXPECT_EQ(app.cancelIo(h + 1000), STATUS_INVALID_HANDLE);

    // Another thread of the process cancels while the dispatch routine runs,
    // before any cancel routine is set: only the Cancel flag can tell.
    NTSTATUS cancelled = STATUS_PENDING;
    g.beforePark = [&] { std::thread([&] { cancelled = app.cancelIo(h); }).join(); };
    auto read = app.readAsync(h, 4);
    EXPECT_EQ(cancelled, STATUS_SUCCESS);
    EXPECT_EQ(read->result().dispatchStatus, STATUS_CANCELLED);
    EXPECT_EQ(read->status(), STATUS_CANCELLED);
    EXPECT_EQ(parkedCount(), 0u);
    app.close(h);
    other.close(o);
}

TEST_F(CallerTest, CloseSendsCleanupAtOnceAndCloseWhenTheLastReferenceGoes)
{
    hk::Process app(100);
    hk::Handle h = openOk(app), copy = 0;
    ASSERT_EQ(app.duplicate(h, &copy), STATUS_SUCCESS);
    auto read = app.readAsync(h, 8);
    ASSERT_EQ(app.close(h), STATUS_SUCCESS);
    EXPECT_EQ(g.count(IRP_MJ_CLEANUP), 0u) << "another handle is still open";
    ASSERT_EQ(app.close(copy), STATUS_SUCCESS);
    EXPECT_EQ(g.count(IRP_MJ_CLEANUP), 1u);
    EXPECT_EQ(g.count(IRP_MJ_CLOSE), 0u) << "the outstanding read holds the file object";
    EXPECT_EQ(app.close(copy), STATUS_INVALID_HANDLE);

    // A late completion from a DPC-like context drops the last reference.
    PIRP irp = claimParked();
    ASSERT_NE(irp, nullptr);
    std::thread([irp] {
        KIRQL irql;
        KeRaiseIrql(DISPATCH_LEVEL, &irql);
        completeRead(irp, {7});
        KeLowerIrql(irql);
    }).join();
    hk::drainIo();
    EXPECT_EQ(read->status(), STATUS_SUCCESS);
    EXPECT_EQ(g.majors(), (std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_READ, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
    EXPECT_EQ(g.seen.back().irql, PASSIVE_LEVEL) << "the close is not sent from inside the completion";
}

TEST_F(CallerTest, RelatedOpensReachTheSameDeviceAndCloseChildFirst)
{
    hk::Process app(100);
    hk::Handle filter = openOk(app, kLink + u"\\filter"), pin = 0;
    const std::u16string pinName = u"{146F1A80-4791-11D0-A5D6-28DB04C10000}\\\x0001\x0002";
    ASSERT_EQ(app.openRelative(filter, pinName, GENERIC_READ | GENERIC_WRITE, &pin), STATUS_SUCCESS);
    Seen create = g.seen.back();
    EXPECT_EQ(create.related, app.fileObject(filter));
    EXPECT_EQ(create.fileName, pinName);
    EXPECT_EQ(create.file->DeviceObject, g.device);

    app.close(filter); // the pin still holds its filter
    EXPECT_EQ(g.count(IRP_MJ_CLOSE), 0u);
    app.close(pin);
    ASSERT_EQ(g.count(IRP_MJ_CLOSE), 2u);
    const Seen &pinClose = g.seen[g.seen.size() - 2], &filterClose = g.seen.back();
    EXPECT_EQ(pinClose.major, IRP_MJ_CLOSE);
    EXPECT_EQ(pinClose.file, create.file) << "the pin closes before its filter";
    EXPECT_EQ(filterClose.major, IRP_MJ_CLOSE);
    EXPECT_EQ(filterClose.file, create.related);
}

TEST_F(CallerTest, ProcessExitCancelsAndClosesWhatItLeftOpen)
{
    std::shared_ptr<hk::Request> read;
    {
        hk::Process app(100);
        read = app.readAsync(openOk(app), 8);
    }
    EXPECT_EQ(read->status(), STATUS_CANCELLED);
    EXPECT_EQ(g.majors(), (std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_READ, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
    hk::Process again(100); // the id is free again
}

TEST_F(CallerTest, OtherMajorsReachTheDriverAndBadHandlesDoNot)
{
    hk::Process app(100);
    hk::Handle h = openOk(app);
    EXPECT_EQ(app.request(h, IRP_MJ_FLUSH_BUFFERS).status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(app.internalDeviceControl(h, 0x1234, nullptr, 0, nullptr, 0).status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(g.seen.back().major, IRP_MJ_INTERNAL_DEVICE_CONTROL);
    EXPECT_EQ(g.seen.back().mode, KernelMode);
    EXPECT_EQ(app.request(h, IRP_MJ_CLOSE).status, STATUS_INVALID_PARAMETER);
    char byte;
    EXPECT_EQ(app.read(h + 4, &byte, 1).status, STATUS_INVALID_HANDLE);
    EXPECT_EQ(app.readAsync(h + 4, 1)->status(), STATUS_INVALID_HANDLE);
    app.close(h);
}

TEST_F(CallerTest, DeletedDeviceStillServesOpenHandlesButNoNewOpens)
{
    hk::Process app(100);
    hk::Handle h = openOk(app, kLink);
    std::thread([] { IoDeleteDevice(g.device); }).join();
    EXPECT_FALSE(hk::objectExists(kDevice));
    hk::Handle again = 0;
    EXPECT_EQ(app.open(kLink, GENERIC_READ, &again), STATUS_OBJECT_NAME_NOT_FOUND); // the link dangles
    EXPECT_EQ(app.openRelative(h, u"child", GENERIC_READ, &again), STATUS_NO_SUCH_DEVICE);
    EXPECT_EQ(hk::unloadDriver(driver_), STATUS_DEVICE_BUSY);
    EXPECT_EQ(app.request(h, IRP_MJ_FLUSH_BUFFERS).status, STATUS_INVALID_DEVICE_REQUEST);
    app.close(h);
    EXPECT_EQ(g.count(IRP_MJ_CLOSE), 1u);
}

TEST_F(CallerTest, ExclusiveAndInitializingDevicesRefuseOpens)
{
    struct Case {
        BOOLEAN exclusive;
        bool clearInitializing;
        NTSTATUS first, second;
    } cases[] = {
        {FALSE, true, STATUS_SUCCESS, STATUS_SUCCESS},
        {TRUE, true, STATUS_SUCCESS, STATUS_ACCESS_DENIED},
        {FALSE, false, STATUS_NO_SUCH_DEVICE, STATUS_NO_SUCH_DEVICE},
    };
    hk::Process app(100);
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "exclusive " << int(c.exclusive) << ", ready " << c.clearInitializing);
        // Made after DriverEntry (as AddDevice would), so the flag stays as the driver leaves it.
        PDEVICE_OBJECT device = nullptr;
        std::thread([&] {
            Unicode name(u"\\Device\\HkExclusive");
            ASSERT_EQ(IoCreateDevice(driver_, 0, &name.string, FILE_DEVICE_UNKNOWN, 0, c.exclusive, &device),
                      STATUS_SUCCESS);
            if (c.clearInitializing) {
                device->Flags &= ~DO_DEVICE_INITIALIZING;
            }
        }).join();
        hk::Handle a = 0, b = 0;
        EXPECT_EQ(app.open(u"\\Device\\HkExclusive", GENERIC_READ, &a), c.first);
        EXPECT_EQ(app.open(u"\\Device\\HkExclusive", GENERIC_READ, &b), c.second);
        app.close(a);
        app.close(b);
        std::thread([&] { IoDeleteDevice(device); }).join();
    }
}

} // namespace
} // namespace iotest
