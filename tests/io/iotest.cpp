#include "iotest.h"

#include <algorithm>

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
    std::vector<UCHAR> all = majors();
    return size_t(std::count(all.begin(), all.end(), major));
}

std::string narrow(std::u16string_view s)
{
    std::string out;
    for (char16_t c : s) {
        out.push_back(c < 0x80 ? char(c) : '?');
    }
    return out;
}

hk::Handle openOk(hk::Process &app, std::u16string_view path, ACCESS_MASK access)
{
    hk::Handle h = 0;
    EXPECT_EQ(app.open(path, access, &h), STATUS_SUCCESS) << narrow(path);
    return h;
}

NTSTATUS openKey(const std::u16string &path, ACCESS_MASK access, HANDLE *key, HANDLE root)
{
    Unicode name(path);
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &name.string, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, root, nullptr);
    return ZwOpenKey(key, access, &oa);
}

NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information, CCHAR boost)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, boost);
    return status;
}

namespace {

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

void NTAPI cancelParked(PDEVICE_OBJECT, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
    KIRQL irql;
    KeAcquireSpinLock(&g.lock, &irql);
    g.parked.erase(std::remove(g.parked.begin(), g.parked.end(), irp), g.parked.end());
    KeReleaseSpinLock(&g.lock, irql);
    complete(irp, STATUS_CANCELLED);
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
        return complete(irp, STATUS_CANCELLED);
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

NTSTATUS NTAPI dispatch(PDEVICE_OBJECT, PIRP irp)
{
    record(irp);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    switch (stack->MajorFunction) {
    case IRP_MJ_CREATE:
        return complete(irp, g.createStatus);
    case IRP_MJ_CLEANUP:
    case IRP_MJ_CLOSE:
        return complete(irp, STATUS_SUCCESS);
    case IRP_MJ_READ: {
        std::vector<UCHAR> data;
        {
            std::lock_guard<std::mutex> lock(g.mutex);
            data = g.readData;
        }
        if (data.empty()) {
            return park(irp);
        }
        PUCHAR buffer = transferBuffer(irp);
        if (buffer == nullptr) {
            return complete(irp, STATUS_INSUFFICIENT_RESOURCES);
        }
        ULONG n = ULONG(std::min<size_t>(stack->Parameters.Read.Length, data.size()));
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
        auto *p = static_cast<PUCHAR>(method == METHOD_NEITHER ? stack->Parameters.DeviceIoControl.Type3InputBuffer
                                                                 : irp->AssociatedIrp.SystemBuffer);
        const std::vector<UCHAR> input(p, p + in); // a copy: buffered output overwrites it
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
        return complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

void NTAPI unloadTestDriver(PDRIVER_OBJECT driver)
{
    Unicode link(kLink);
    IoDeleteSymbolicLink(&link.string);
    while (driver->DeviceObject != nullptr) {
        IoDeleteDevice(driver->DeviceObject);
    }
}

} // namespace

NTSTATUS NTAPI testDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    Unicode name(kDevice), link(kLink);
    NTSTATUS status = IoCreateDevice(driver, 64, &name.string, FILE_DEVICE_UNKNOWN, 0, FALSE, &g.device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    g.device->Flags |= g.deviceFlags;
    IoCreateSymbolicLink(&link.string, &name.string);
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

void IoTest::setBuffering(ULONG flags)
{
    g.device->Flags = (g.device->Flags & ~ULONG(DO_DIRECT_IO | DO_BUFFERED_IO)) | flags;
    g.deviceFlags = flags;
}

void IoTest::TearDown()
{
    if (driver_ != nullptr) {
        EXPECT_EQ(hk::unloadDriver(driver_), STATUS_SUCCESS);
    }
    g.deviceFlags = DO_DIRECT_IO;
}

} // namespace iotest
