#include "mp_readdriver.h"

#include <gtest/gtest.h>

static CMiniportAmbrel *g_miniport;

static NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information, CCHAR boost = IO_NO_INCREMENT)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, boost);
    return status;
}

static VOID NTAPI cancelRead(PDEVICE_OBJECT, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
    BOOLEAN found = FALSE;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&g_miniport->m_Lock);
    if (g_miniport->m_Fifo.m_PendingReadIrp == irp) {
        g_miniport->m_Fifo.m_PendingReadIrp = NULL;
        found = TRUE;
    }
    KeReleaseSpinLock(&g_miniport->m_Lock, irql);
    if (found) {
        complete(irp, STATUS_CANCELLED, 0);
    }
}

static NTSTATUS NTAPI dispatchRead(PDEVICE_OBJECT, PIRP irp)
{
    PUCHAR buffer = (PUCHAR)MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
    ULONG length = MmGetMdlByteCount(irp->MdlAddress);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&g_miniport->m_Lock);
    if (g_miniport->m_Fifo.m_PendingReadIrp != NULL) {
        KeReleaseSpinLock(&g_miniport->m_Lock, irql);
        return complete(irp, STATUS_DEVICE_BUSY, 0);
    }
    ULONG n = g_miniport->m_Fifo.FifoGet(buffer, length);
    if (n == 0) {
        IoSetCancelRoutine(irp, cancelRead);
        IoMarkIrpPending(irp);
        g_miniport->m_Fifo.m_PendingReadIrp = irp;
        g_miniport->m_Fifo.m_PendingReadBuffer = buffer;
        g_miniport->m_Fifo.m_PendingReadLength = length;
    }
    KeReleaseSpinLock(&g_miniport->m_Lock, irql);
    return n == 0 ? STATUS_PENDING : complete(irp, STATUS_SUCCESS, n, IO_SOUND_INCREMENT);
}

static NTSTATUS NTAPI dispatchControl(PDEVICE_OBJECT, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    PKSP_PIN pin = (PKSP_PIN)stack->Parameters.DeviceIoControl.Type3InputBuffer;
    NTSTATUS status = g_miniport->GetPinName(irp, pin, irp->UserBuffer);
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

static NTSTATUS NTAPI dispatchSuccess(PDEVICE_OBJECT, PIRP irp)
{
    return complete(irp, STATUS_SUCCESS, 0);
}

static VOID NTAPI unload(PDRIVER_OBJECT driver)
{
    while (driver->DeviceObject != NULL) {
        IoDeleteDevice(driver->DeviceObject);
    }
}

static NTSTATUS NTAPI driverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Device\\AmbrelMiniportTest");
    PDEVICE_OBJECT device = NULL;
    NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    device->Flags |= DO_DIRECT_IO;
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    driver->MajorFunction[IRP_MJ_CREATE] = dispatchSuccess;
    driver->MajorFunction[IRP_MJ_CLEANUP] = dispatchSuccess;
    driver->MajorFunction[IRP_MJ_CLOSE] = dispatchSuccess;
    driver->MajorFunction[IRP_MJ_READ] = dispatchRead;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = dispatchControl;
    driver->DriverUnload = unload;
    return STATUS_SUCCESS;
}

ReadDriver::ReadDriver(CMiniportAmbrel *miniport)
{
    g_miniport = miniport;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    driver_ = hostkernel::loadDriver(u"AmbrelMiniportTest", driverEntry, &status);
    EXPECT_EQ(status, STATUS_SUCCESS);
    EXPECT_EQ(process_.open(u"\\Device\\AmbrelMiniportTest", GENERIC_READ | GENERIC_WRITE, &handle_),
              STATUS_SUCCESS);
}

ReadDriver::~ReadDriver()
{
    process_.close(handle_);
    hostkernel::drainIo();
    EXPECT_EQ(hostkernel::unloadDriver(driver_), STATUS_SUCCESS);
    g_miniport = nullptr;
}

std::shared_ptr<hostkernel::Request> ReadDriver::read(ULONG length)
{
    return process_.readAsync(handle_, length);
}

hostkernel::IoResult ReadDriver::pinName(void *output, ULONG length, ULONG pinId)
{
    KSP_PIN pin;
    memset(&pin, 0, sizeof(pin));
    pin.PinId = pinId;
    return process_.deviceControl(handle_, MP_TEST_IOCTL_PIN_NAME, &pin, sizeof(pin), output, length);
}
