#include "iotest.h"

namespace iotest {

DriverState g;

std::vector<UCHAR> DriverState::majors()
{
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<UCHAR> out;
    for (auto &s : seen) {
        out.push_back(s.major);
    }
    return out;
}

size_t DriverState::count(UCHAR major)
{
    std::lock_guard<std::mutex> lock(mutex);
    size_t n = 0;
    for (auto &s : seen) {
        n += s.major == major;
    }
    return n;
}

std::string narrow(std::u16string_view s)
{
    std::string out;
    for (char16_t c : s) {
        out.push_back(c < 0x80 ? char(c) : '?');
    }
    return out;
}

namespace {

NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information, CCHAR boost = IO_NO_INCREMENT)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, boost);
    return status;
}

void record(PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Seen s;
    s.major = stack->MajorFunction;
    s.file = stack->FileObject;
    s.irql = KeGetCurrentIrql();
    s.mode = irp->RequestorMode;
    s.processId = PsGetProcessId(IoThreadToProcess(irp->Tail.Overlay.Thread));
    s.hasMdl = irp->MdlAddress != nullptr;
    s.systemBuffer = irp->AssociatedIrp.SystemBuffer;
    s.userBuffer = irp->UserBuffer;
    if (s.file != nullptr) {
        s.fileNameHasBuffer = s.file->FileName.Buffer != nullptr;
        if (s.fileNameHasBuffer) {
            s.fileName.assign(reinterpret_cast<const char16_t *>(s.file->FileName.Buffer),
                              s.file->FileName.Length / sizeof(WCHAR));
        }
        s.related = s.file->RelatedFileObject;
    }
    if (s.major == IRP_MJ_CREATE) {
        s.access = stack->Parameters.Create.SecurityContext->DesiredAccess;
    }
    if (s.major == IRP_MJ_DEVICE_CONTROL) {
        s.type3Input = stack->Parameters.DeviceIoControl.Type3InputBuffer;
    }
    std::lock_guard<std::mutex> lock(g.mutex);
    g.seen.push_back(s);
}

void cancelParked(PDEVICE_OBJECT, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
    KIRQL irql;
    KeAcquireSpinLock(&g.lock, &irql);
    for (auto it = g.parked.begin(); it != g.parked.end(); ++it) {
        if (*it == irp) {
            g.parked.erase(it);
            break;
        }
    }
    KeReleaseSpinLock(&g.lock, irql);
    complete(irp, STATUS_CANCELLED, 0);
}

NTSTATUS park(PIRP irp)
{
    if (g.beforePark) {
        g.beforePark();
    }
    KIRQL irql;
    KeAcquireSpinLock(&g.lock, &irql);
    IoSetCancelRoutine(irp, cancelParked);
    if (irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr) {
        KeReleaseSpinLock(&g.lock, irql);
        return complete(irp, STATUS_CANCELLED, 0);
    }
    IoMarkIrpPending(irp);
    g.parked.push_back(irp);
    KeReleaseSpinLock(&g.lock, irql);
    return STATUS_PENDING;
}

// The buffer of a read or write as the device's buffering method delivers it.
PUCHAR transferBuffer(PIRP irp)
{
    if (g.deviceFlags & DO_DIRECT_IO) {
        return irp->MdlAddress == nullptr
                   ? nullptr
                   : static_cast<PUCHAR>(MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority));
    }
    if (g.deviceFlags & DO_BUFFERED_IO) {
        return static_cast<PUCHAR>(irp->AssociatedIrp.SystemBuffer);
    }
    return static_cast<PUCHAR>(irp->UserBuffer);
}

NTSTATUS dispatch(PDEVICE_OBJECT, PIRP irp)
{
    record(irp);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    switch (stack->MajorFunction) {
    case IRP_MJ_CREATE:
        return complete(irp, g.createStatus, 0);
    case IRP_MJ_CLEANUP:
    case IRP_MJ_CLOSE:
        return complete(irp, STATUS_SUCCESS, 0);
    case IRP_MJ_READ: {
        std::vector<UCHAR> data;
        {
            std::lock_guard<std::mutex> lock(g.mutex);
            data = g.readData;
        }
        if (data.empty()) {
            return park(irp);
        }
        ULONG length = stack->Parameters.Read.Length;
        PUCHAR buffer = transferBuffer(irp);
        if (buffer == nullptr) {
            return complete(irp, STATUS_INSUFFICIENT_RESOURCES, 0);
        }
        ULONG n = ULONG(std::min<size_t>(length, data.size()));
        memcpy(buffer, data.data(), n);
        return complete(irp, STATUS_SUCCESS, n, IO_SOUND_INCREMENT);
    }
    case IRP_MJ_WRITE:
        return complete(irp, STATUS_SUCCESS, stack->Parameters.Write.Length);
    case IRP_MJ_DEVICE_CONTROL: {
        // Echo the input reversed; the information count is the output length.
        ULONG in = stack->Parameters.DeviceIoControl.InputBufferLength;
        ULONG out = stack->Parameters.DeviceIoControl.OutputBufferLength;
        ULONG method = METHOD_FROM_CTL_CODE(stack->Parameters.DeviceIoControl.IoControlCode);
        std::vector<UCHAR> input;
        if (method == METHOD_NEITHER) {
            auto *p = static_cast<PUCHAR>(stack->Parameters.DeviceIoControl.Type3InputBuffer);
            input.assign(p, p + in);
        } else {
            auto *p = static_cast<PUCHAR>(irp->AssociatedIrp.SystemBuffer);
            input.assign(p, p + in);
        }
        PUCHAR output = method == METHOD_NEITHER    ? static_cast<PUCHAR>(irp->UserBuffer)
                        : method == METHOD_BUFFERED ? static_cast<PUCHAR>(irp->AssociatedIrp.SystemBuffer)
                                                    : static_cast<PUCHAR>(MmGetSystemAddressForMdlSafe(
                                                          irp->MdlAddress, NormalPagePriority));
        for (ULONG i = 0; i < out; i++) {
            output[i] = i < in ? input[in - 1 - i] : 0xEE;
        }
        return complete(irp, STATUS_SUCCESS, out);
    }
    default:
        return complete(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
}

void unloadTestDriver(PDRIVER_OBJECT driver)
{
    UNICODE_STRING link;
    RtlInitUnicodeString(&link, L"\\DosDevices\\HkTest");
    IoDeleteSymbolicLink(&link);
    while (driver->DeviceObject != nullptr) {
        IoDeleteDevice(driver->DeviceObject);
    }
}

} // namespace

NTSTATUS testDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Device\\HkTest");
    NTSTATUS status = IoCreateDevice(driver, 64, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &g.device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    g.device->Flags |= g.deviceFlags;
    UNICODE_STRING link;
    RtlInitUnicodeString(&link, L"\\DosDevices\\HkTest");
    IoCreateSymbolicLink(&link, &name);
    for (UCHAR major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; major++) {
        driver->MajorFunction[major] = dispatch;
    }
    driver->DriverUnload = unloadTestDriver;
    return STATUS_SUCCESS;
}

PIRP claimParked()
{
    KIRQL irql;
    KeAcquireSpinLock(&g.lock, &irql);
    PIRP claimed = nullptr;
    for (auto it = g.parked.begin(); it != g.parked.end(); ++it) {
        // A null cancel routine means the cancel routine owns the read.
        if (IoSetCancelRoutine(*it, nullptr) != nullptr) {
            claimed = *it;
            g.parked.erase(it);
            break;
        }
    }
    KeReleaseSpinLock(&g.lock, irql);
    return claimed;
}

void completeRead(PIRP irp, const std::vector<UCHAR> &bytes, NTSTATUS status)
{
    PUCHAR buffer = transferBuffer(irp);
    ULONG length = IoGetCurrentIrpStackLocation(irp)->Parameters.Read.Length;
    ULONG n = ULONG(std::min<size_t>(length, bytes.size()));
    if (n > 0) {
        memcpy(buffer, bytes.data(), n);
    }
    complete(irp, status, n, IO_SOUND_INCREMENT);
}

size_t parkedCount()
{
    KIRQL irql;
    KeAcquireSpinLock(&g.lock, &irql);
    size_t n = g.parked.size();
    KeReleaseSpinLock(&g.lock, irql);
    return n;
}

void IoTest::SetUp()
{
    {
        std::lock_guard<std::mutex> lock(g.mutex);
        g.seen.clear();
        g.readData.clear();
    }
    g.beforePark = nullptr;
    g.parked.clear();
    KeInitializeSpinLock(&g.lock);
    g.createStatus = STATUS_SUCCESS;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    driver_ = hk::loadDriver(u"HkTest", testDriverEntry, &status);
    ASSERT_EQ(status, STATUS_SUCCESS);
    ASSERT_NE(driver_, nullptr);
}

void IoTest::unload()
{
    if (driver_ != nullptr) {
        EXPECT_EQ(hk::unloadDriver(driver_), STATUS_SUCCESS);
        driver_ = nullptr;
    }
}

void IoTest::TearDown()
{
    unload();
    g.deviceFlags = DO_DIRECT_IO;
    hk::verifyIoQuiescent();
    hk::resetIoState();
}

} // namespace iotest
