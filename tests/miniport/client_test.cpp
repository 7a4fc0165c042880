// The port as MIDI clients see it: the whole driver booted in the host
// kernel, an application that opens a port, and clients that reach it
// through kernel streaming (filter, pins, properties, MIDI in and out).
#include "tests/adapter/adapter_fixture.h"

#include "miniport/amminiport.h"

using namespace adaptertest;
using namespace std::chrono_literals;

namespace {

class ClientView : public BootedDriver {
protected:
    // The application opens `suffix`; a client of another process opens the
    // port's filter.
    std::unique_ptr<midi::Filter> openPortAndFilter(std::u16string_view suffix, std::u16string_view name)
    {
        app_ = openPort(process(100), suffix);
        EXPECT_NE(app_, 0u);
        return filterOf(process(200), name);
    }

    hk::Process &app() { return *processes_.front(); }
    // The port's miniport, behind the application's handle.
    CMiniportAmbrel *miniport() { return AmPortOfFile(app().fileObject(app_))->Miniport; }
    Bytes readNow(ULONG length)
    {
        Bytes buffer(length);
        hk::IoResult r = app().read(app_, buffer.data(), length);
        EXPECT_EQ(r.status, STATUS_SUCCESS);
        buffer.resize(r.information);
        return buffer;
    }
    hk::Handle app_ = 0;
};

} // namespace

TEST_F(ClientView, FilterNamesAndIdentityOfThePort)
{
    auto filter = openPortAndFilter(u"\\Piano\\8176\\{11111111-2222-3333-0102-030405060708}", u"Piano");
    ASSERT_TRUE(filter);
    ULONG pins = 0;
    ASSERT_EQ(filter->pinCount(&pins), STATUS_SUCCESS);
    EXPECT_EQ(pins, 5u);
    for (ULONG id = 0; id < pins; id++) {
        std::u16string name;
        EXPECT_EQ(filter->pinName(id, &name), STATUS_SUCCESS);
        EXPECT_EQ(name, u"Piano") << id;
    }
    midi::PinDescription capture;
    ASSERT_EQ(filter->describePin(4, &capture), STATUS_SUCCESS);
    EXPECT_EQ(capture.dataFlow, KSPIN_DATAFLOW_OUT);
    EXPECT_EQ(capture.instances.PossibleCount, 8u);
    EXPECT_EQ(capture.subFormats.size(), 2u);

    SYNTHCAPS caps;
    ASSERT_EQ(filter->synthCaps(1, &caps), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(caps.Description)), u"Ambrel In: Piano");
    KSCOMPONENTID id;
    ASSERT_EQ(filter->componentId(&id), STATUS_SUCCESS);
    EXPECT_EQ(id.Manufacturer.Data1, 0x11111111u);
    EXPECT_EQ(id.Product, DefaultProductGuid);  // not given: the default
    EXPECT_EQ(id.Version, 1u);

    // The application closes its handle; the client's filter stays usable.
    ASSERT_EQ(app().close(app_), STATUS_SUCCESS);
    std::u16string name;
    EXPECT_EQ(filter->pinName(0, &name), STATUS_SUCCESS);
    EXPECT_EQ(name, u"Piano");
    ASSERT_EQ(filter->synthCaps(0, &caps), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(caps.Description)), u"Ambrel Out");
}

TEST_F(ClientView, PinNameSizeQueryAndShortBuffers)
{
    auto filter = openPortAndFilter(u"\\Piano", u"Piano");
    ASSERT_TRUE(filter);
    const ULONG pin[2] = {2, 0};
    struct Row {
        ULONG length;
        NTSTATUS status;
        ULONG_PTR information;
    } rows[] = {{0, STATUS_BUFFER_OVERFLOW, 12}, {11, STATUS_BUFFER_TOO_SMALL, 0}, {12, STATUS_SUCCESS, 12},
                {40, STATUS_SUCCESS, 12}};
    for (bool closed : {false, true}) {
        if (closed) {
            ASSERT_EQ(app().close(app_), STATUS_SUCCESS);  // the names stay
        }
        for (const Row &row : rows) {
            SCOPED_TRACE(testing::Message() << row.length << (closed ? " closed" : ""));
            Bytes out(64, 0xCC);
            hk::IoResult r = filter->property(KSPROPSETID_Pin, KSPROPERTY_PIN_NAME, KSPROPERTY_TYPE_GET, out.data(),
                                              row.length, pin, sizeof(pin));
            EXPECT_EQ(r.status, row.status);
            EXPECT_EQ(r.information, row.information);
            if (row.status == STATUS_SUCCESS) {
                EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(out.data())), u"Piano");
                EXPECT_EQ(Bytes(out.begin() + 12, out.begin() + row.length), Bytes(row.length - 12, 0));
            }
        }
    }
}

TEST_F(ClientView, ParkedReadTakesWhatFitsAndIsLeftToItsCanceller)
{
    auto filter = openPortAndFilter(u"\\Piano", u"Piano");
    ASSERT_TRUE(filter);
    auto pin = runningPin(*filter, 0);
    ASSERT_TRUE(pin);

    // A 2-byte parked read gets the first two bytes; the third stays.
    auto shortRead = app().readAsync(app_, 2);
    ASSERT_EQ(pin->send({0x90, 0x3C, 0x40}), STATUS_SUCCESS);
    ASSERT_TRUE(shortRead->wait(10s));
    EXPECT_EQ(shortRead->information(), 2u);
    EXPECT_EQ(shortRead->result().priorityBoost, IO_SOUND_INCREMENT);
    EXPECT_EQ(readNow(16), (Bytes{0x40}));

    // A read whose canceller has taken its routine but not yet its slot is
    // left alone: the data stays for the next read.
    auto read = app().readAsync(app_, 16);
    ASSERT_FALSE(read->wait(10ms));
    PIRP irp = read->irp();
    ASSERT_NE(IoSetCancelRoutine(irp, NULL), nullptr);
    ASSERT_EQ(pin->send({0xC0, 0x05}), STATUS_SUCCESS);
    EXPECT_FALSE(read->done());
    CMiniportAmbrel *m = miniport();
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&m->m_Lock);
    EXPECT_EQ(m->m_Fifo.m_PendingReadIrp, irp);
    m->m_Fifo.m_PendingReadIrp = NULL;
    KeReleaseSpinLock(&m->m_Lock, irql);
    irp->IoStatus.Status = STATUS_CANCELLED;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    ASSERT_TRUE(read->wait(10s));
    EXPECT_EQ(readNow(16), (Bytes{0xC0, 0x05}));

    // Once removal has begun the parked read is finished without data.
    auto last = app().readAsync(app_, 16);
    InterlockedExchange(&controlDeviceRemoved, 1);
    ASSERT_EQ(pin->send({0x80, 0x3C, 0x00}), STATUS_SUCCESS);
    InterlockedExchange(&controlDeviceRemoved, 0);
    ASSERT_TRUE(last->wait(10s));
    EXPECT_EQ(last->status(), STATUS_SERVER_DISABLED);
    EXPECT_EQ(last->information(), 0u);
}

TEST_F(ClientView, ClientPlaysAndTheApplicationReads)
{
    auto filter = openPortAndFilter(u"\\Piano", u"Piano");
    ASSERT_TRUE(filter);
    auto pin = runningPin(*filter, 0);
    ASSERT_TRUE(pin);

    // A read parked before the client plays gets the note at once.
    auto parked = app().readAsync(app_, 16);
    EXPECT_FALSE(parked->wait(10ms));
    ASSERT_EQ(pin->send({0x90, 0x3C, 0x40}), STATUS_SUCCESS);
    ASSERT_TRUE(parked->wait(10s));
    EXPECT_EQ(parked->status(), STATUS_SUCCESS);
    EXPECT_EQ(Bytes(parked->output().begin(), parked->output().begin() + parked->information()),
              (Bytes{0x90, 0x3C, 0x40}));

    // Several messages, one with running status and one torn by a clock byte.
    ASSERT_EQ(pin->send({{0xB0, 0x07, 0x64}, {0x08, 0x10}, {0xC0, 0xF8, 0x05}}), STATUS_SUCCESS);
    Bytes got;
    while (got.size() < 9) {
        Bytes buffer(64);
        hk::IoResult r = app().read(app_, buffer.data(), (ULONG)buffer.size());
        ASSERT_EQ(r.status, STATUS_SUCCESS);
        got.insert(got.end(), buffer.begin(), buffer.begin() + r.information);
    }
    EXPECT_EQ(got, (Bytes{0xB0, 0x07, 0x64, 0xB0, 0x08, 0x10, 0xF8, 0xC0, 0x05}));
}

TEST_F(ClientView, ApplicationWritesAndEveryRecordingClientReceives)
{
    auto filter = openPortAndFilter(u"\\Piano", u"Piano");
    ASSERT_TRUE(filter);
    auto first = runningPin(*filter, 4);
    auto second = runningPin(*filter, 4);
    ASSERT_TRUE(first && second);

    Bytes note = {0x90, 0x3C, 0x40}, big(300, 0x11);
    big.front() = 0xF0;
    big.back() = 0xF7;
    for (const Bytes &w : {note, big}) {
        ASSERT_EQ(app().write(app_, w.data(), (ULONG)w.size()).status, STATUS_SUCCESS);
    }
    for (midi::Pin *pin : {first.get(), second.get()}) {
        Bytes got;
        while (got.size() < note.size() + big.size()) {
            std::vector<midi::Message> messages;
            ASSERT_EQ(pin->receive(&messages, 10s), STATUS_SUCCESS);
            for (const midi::Message &m : messages) {
                got.insert(got.end(), m.bytes.begin(), m.bytes.end());
            }
        }
        Bytes expected = note;
        expected.insert(expected.end(), big.begin(), big.end());
        EXPECT_EQ(got, expected);
    }
}

TEST_F(ClientView, PinInstanceLimits)
{
    auto filter = openPortAndFilter(u"\\Piano", u"Piano");
    ASSERT_TRUE(filter);
    std::vector<std::unique_ptr<midi::Pin>> capture, render;
    for (int i = 0; i < 8; i++) {
        capture.push_back(runningPin(*filter, 4));
        ASSERT_TRUE(capture.back()) << i;
    }
    NTSTATUS status = STATUS_SUCCESS;
    EXPECT_FALSE(runningPin(*filter, 4, &status));
    EXPECT_FALSE(NT_SUCCESS(status));

    // A closed capture pin's place is free again, and still gets data.
    ASSERT_EQ(capture[3]->close(), STATUS_SUCCESS);
    capture[3] = runningPin(*filter, 4);
    ASSERT_TRUE(capture[3]);
    Bytes note = {0x80, 0x3C, 0x00};
    ASSERT_EQ(app().write(app_, note.data(), 3).status, STATUS_SUCCESS);
    std::vector<midi::Message> messages;
    ASSERT_EQ(capture[3]->receive(&messages, 10s), STATUS_SUCCESS);
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages[0].bytes, note);

    for (int i = 0; i < 8; i++) {
        render.push_back(runningPin(*filter, 0));
        ASSERT_TRUE(render.back()) << i;
    }
    EXPECT_FALSE(runningPin(*filter, 0, &status));
}
