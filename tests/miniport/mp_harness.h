// A port's miniport with fake framework objects around it: what the port
// publication and the DMus port would do, done directly, so that tests can
// drive the miniport and its streams the way the framework does.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <hostkernel/executive.h>

#include "miniport/amminiport.h"
#include "mp_fakes.h"

// Runs the enclosed calls at DISPATCH_LEVEL, as the framework's event
// delivery and DPCs do.
class AtDispatch {
public:
    AtDispatch() { KeRaiseIrql(DISPATCH_LEVEL, &old_); }
    ~AtDispatch() { KeLowerIrql(old_); }

private:
    KIRQL old_;
};

// A port record as the port table would hold it, from the C++ heap.
struct TestRecord {
    explicit TestRecord(const std::u16string &name)
    {
        memset(&record, 0, sizeof(record));
        for (size_t i = 0; i < name.size() && i < AM_PORT_NAME_CCH - 1; i++) {
            record.Name[i] = (WCHAR)name[i];
        }
    }
    MidiPort record;
};

std::u16string toU16(const WCHAR *s);

class PortHarness {
public:
    // Creates the miniport for a port of that name (a null name: no record)
    // and, unless told otherwise, initialises it with the fake port.
    explicit PortHarness(const char16_t *name = u"Piano", ULONG flags = 3, ULONG sysexSize = 8176,
                         bool init = true, USHORT largeBufferSize = 240);
    ~PortHarness();

    PMXF newStream(DMUS_STREAM_TYPE type, NTSTATUS *status = nullptr, bool withAllocator = true,
                   bool withClock = true);
    void closeStream(PMXF stream);
    CMiniportAmbrelStream *streamOf(PMXF stream) { return static_cast<CMiniportAmbrelStream *>(stream); }

    // The framework delivering a render event list.
    void play(PMXF stream, PDMUS_KERNEL_EVENT events);
    // The framework asking a capture stream for its data.
    void pump(PMXF stream);
    // The application's read, taking what the FIFO holds (at most `max`).
    std::vector<uint8_t> readFifo(ULONG max = 0xFFFFFFFF);
    ULONG fifoSpace();

    // The application closing its handle: the record goes away.
    void detach();

    FakePort port;
    FakeClock clock;
    FakeAllocator allocator;
    FakeSink sink{&allocator};
    TestRecord *record = nullptr;
    CMiniportAmbrel *miniport = nullptr;
    PUNKNOWN unknown = nullptr;
    PSERVICEGROUP group = nullptr;
    NTSTATUS initStatus = STATUS_UNSUCCESSFUL;
    std::vector<PMXF> streams;
};
