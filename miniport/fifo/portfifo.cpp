// Port FIFO: creation and release. Put and get are inline in the header; each
// moves at most two block copies, one up to the end of the storage and one
// from its start, so the indices end where a byte loop would leave them.
#define AM_UNIT AM_UNIT_MINIPORT
#include "common/amcommon.h"
#include "portfifo.h"

// Largest System Exclusive size whose ring size still fits a ULONG.
#define FIFO_MAX_SYSEX_SIZE 0x7FFFFFFFUL

ULONG FifoSizeForSysex(_In_ ULONG sysexSize)
{
    ULONG mask = sysexSize;
    mask |= mask >> 1;
    mask |= mask >> 2;
    mask |= mask >> 4;
    mask |= mask >> 8;
    mask |= mask >> 16;
    if (mask == 0) {
        mask = 1;
    }
    return mask + 1;
}

NTSTATUS PortFifo::FifoCreate(_In_ ULONG sysexSize)
{
    NTSTATUS status = STATUS_SUCCESS;

    m_PendingReadIrp = NULL;
    m_PendingReadBuffer = NULL;
    m_PendingReadLength = 0;
    m_FifoHead = 0;
    m_FifoTail = 0;
    m_FifoBuffer = NULL;
    m_FifoSize = 0;
    m_FifoMask = 0;

    if (sysexSize > FIFO_MAX_SYSEX_SIZE) {
        // The open clamps the size far below this; a ring of 2^32 bytes would
        // wrap the size to 0.
        AmLog("CreateMiniportAmbrel ------ sysex size too large: %lu", sysexSize);
        return STATUS_INVALID_PARAMETER;
    }

    ULONG size = FifoSizeForSysex(sysexSize);
    ULONG mask = size - 1;
    AmLog("CreateMiniportAmbrel ------ size: %d mask: %x", (int)size, mask);

    m_FifoBuffer = (PUCHAR)ExAllocatePoolWithTag(NonPagedPoolNx, size, AMBREL_POOL_TAG);
    if (m_FifoBuffer == NULL) {
        AmLog("CreateMiniportAmbrel ------ insufficient resources for data-buffer (%d)", (int)size);
        status = STATUS_INSUFFICIENT_RESOURCES;
    } else {
        m_FifoSize = size;
        m_FifoMask = mask;
        AmLog("CreateMiniportAmbrel ----- RX-Buffer-Size: %ld", size);
    }
    return status;
}

VOID PortFifo::FifoFree()
{
    if (m_FifoBuffer != NULL) {
        ExFreePoolWithTag(m_FifoBuffer, AMBREL_POOL_TAG);
        m_FifoBuffer = NULL;
    }
    m_FifoHead = 0;
    m_FifoTail = 0;
    m_FifoSize = 0;
    m_FifoMask = 0;
}

VOID PortFifo::FifoPutRefused(_In_ ULONG count) const
{
    AmLog("FifoPut ----- %d bytes do not fit, space %d", (int)count, (int)FifoSpace());
    AmAssert(count <= FifoSpace());
}
