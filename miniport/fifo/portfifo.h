// The port FIFO: the byte ring that carries whole MIDI messages from a port's
// render side to the application's reads, and the slot of the one read that
// waits for data. The miniport embeds one PortFifo; every member is guarded by
// the miniport's m_Lock, which callers hold around every operation.
#pragma once

#include "common/platform.h"

struct _IRP;

struct PortFifo {
    // The parked read: set by the read handler while the ring is empty, claimed
    // (and cleared) by whoever completes or cancels it.
    struct _IRP *m_PendingReadIrp;
    PUCHAR m_PendingReadBuffer;
    ULONG m_PendingReadLength;

    // The ring. Head == tail is empty; one byte always stays free so that a
    // full ring never looks empty.
    ULONG m_FifoHead;          // next byte is stored here
    ULONG m_FifoTail;          // oldest stored byte
    PUCHAR m_FifoBuffer;       // m_FifoSize bytes, non-paged pool, tag AmbR
    ULONG m_FifoSize;          // power of two, at least 2
    ULONG m_FifoMask;          // m_FifoSize - 1

    // Sizes the ring for `sysexSize` (the smallest power of two above it, so an
    // empty ring holds the longest System Exclusive message) and allocates it.
    // STATUS_INSUFFICIENT_RESOURCES when pool says no: the FIFO is then
    // empty and unallocated, and FifoFree is still safe.
    NTSTATUS FifoCreate(_In_ ULONG sysexSize);

    // Returns the storage to pool; safe on a FIFO that was never created.
    VOID FifoFree();

    ULONG FifoDepth() const
    {
        return (m_FifoHead < m_FifoTail) ? (m_FifoSize - m_FifoTail + m_FifoHead) : (m_FifoHead - m_FifoTail);
    }

    // A FIFO without storage (never created, or its creation failed) takes
    // nothing rather than computing room from a size of 0.
    ULONG FifoSpace() const { return (m_FifoSize == 0) ? 0 : (m_FifoSize - FifoDepth() - 1); }

    // The caller has checked count <= FifoSpace(): the producer only ever puts
    // whole messages. A put that does not fit is refused whole (and asserted),
    // never cut, since a cut message would reach the application torn.
    // Inline, like FifoGet: both run for every message and every read.
    VOID FifoPut(_In_reads_bytes_(count) const UCHAR *bytes, _In_ ULONG count)
    {
        if (count > FifoSpace()) {
            FifoPutRefused(count);
            return;
        }
        if (count == 0) {
            return;
        }
        ULONG first = m_FifoSize - m_FifoHead;
        if (first > count) {
            first = count;
        }
        RtlCopyMemory(m_FifoBuffer + m_FifoHead, bytes, first);
        if (count > first) {
            RtlCopyMemory(m_FifoBuffer, bytes + first, count - first);
        }
        m_FifoHead = (m_FifoHead + count) & m_FifoMask;
    }

    // Moves min(depth, maximum) bytes, oldest first, and returns that count.
    ULONG FifoGet(_Out_writes_bytes_(maximum) PUCHAR destination, _In_ ULONG maximum)
    {
        ULONG n = FifoDepth();
        if (n > maximum) {
            n = maximum;
        }
        if (n == 0) {
            return 0;
        }
        ULONG first = m_FifoSize - m_FifoTail;
        if (first > n) {
            first = n;
        }
        RtlCopyMemory(destination, m_FifoBuffer + m_FifoTail, first);
        if (n > first) {
            RtlCopyMemory(destination + first, m_FifoBuffer, n - first);
        }
        m_FifoTail = (m_FifoTail + n) & m_FifoMask;
        return n;
    }

    // Logs and asserts a put that breaks the caller's contract.
    VOID FifoPutRefused(_In_ ULONG count) const;
};

// The ring size for a System Exclusive size: all bits below the highest set
// bit filled in, plus one. 0 gives 2.
ULONG FifoSizeForSysex(_In_ ULONG sysexSize);
