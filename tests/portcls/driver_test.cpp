// The whole road through the framework with the real driver: an application
// opens a port on the control device, a MIDI client finds it, records what
// the application writes and plays what the application reads.
#include <gtest/gtest.h>

#include <hostkernel/executive.h>
#include <hostkernel/io.h>
#include <hostkernel/midiclient.h>
#include <hostkernel/pnp.h>
#include <hostkernel/portcls.h>

#include "adapter/amadapter.h"

namespace {

namespace hk = hostkernel;
using Bytes = std::vector<uint8_t>;

TEST(PortclsWithDriver, ApplicationAndClientMeetThroughThePublishedPort)
{
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    PDRIVER_OBJECT driver = hk::loadDriver(u"ambrel", DriverEntry, &status);
    ASSERT_NE(driver, nullptr);
    auto node = hk::addRootDevice(driver);
    ASSERT_EQ(node->start(), STATUS_SUCCESS);
    {
        hk::Process app(100);
        hk::Process client(200);
        hk::Handle port = 0;
        ASSERT_EQ(app.open(u"\\DosDevices\\Ambrel\\Piano", GENERIC_READ | GENERIC_WRITE, &port), STATUS_SUCCESS);

        auto info = hk::midi::findPort(u"Piano");
        ASSERT_TRUE(info.has_value());
        EXPECT_TRUE(info->render && info->capture);
        std::unique_ptr<hk::midi::Filter> filter;
        ASSERT_EQ(hk::midi::Filter::open(client, info->path, &filter), STATUS_SUCCESS);
        SYNTHCAPS caps{};
        ASSERT_EQ(filter->synthCaps(0, &caps), STATUS_SUCCESS);
        EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(caps.Description)), u"Ambrel Out: Piano");

        auto capturePin = filter->findPin(KSPIN_DATAFLOW_OUT, KSDATAFORMAT_SUBTYPE_MIDI);
        auto renderPin = filter->findPin(KSPIN_DATAFLOW_IN, KSDATAFORMAT_SUBTYPE_MIDI);
        ASSERT_TRUE(capturePin && renderPin);
        std::u16string name;
        ASSERT_EQ(filter->pinName(*capturePin, &name), STATUS_SUCCESS);
        EXPECT_EQ(name, u"Piano");

        std::unique_ptr<hk::midi::Pin> recorder, player;
        ASSERT_EQ(hk::midi::Pin::open(*filter, *capturePin, KSDATAFORMAT_SUBTYPE_MIDI, &recorder), STATUS_SUCCESS);
        ASSERT_EQ(hk::midi::Pin::open(*filter, *renderPin, KSDATAFORMAT_SUBTYPE_MIDI, &player), STATUS_SUCCESS);
        ASSERT_EQ(recorder->setState(KSSTATE_RUN), STATUS_SUCCESS);
        ASSERT_EQ(player->setState(KSSTATE_RUN), STATUS_SUCCESS);

        // Application to client: written bytes arrive as one time-stamped message.
        Bytes note = {0x90, 0x3C, 0x40};
        EXPECT_EQ(app.write(port, note.data(), ULONG(note.size())).status, STATUS_SUCCESS);
        std::vector<hk::midi::Message> got;
        ASSERT_EQ(recorder->receive(&got, std::chrono::seconds(10)), STATUS_SUCCESS);
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].bytes, note);
        EXPECT_GT(got[0].time, 0);

        // Client to application: whole messages come out of the port's reads.
        ASSERT_EQ(player->send(std::vector<Bytes>{{0x80, 0x3C, 0x00}, {0xC0, 0x05}}), STATUS_SUCCESS);
        uint8_t buffer[16] = {};
        hk::IoResult read = app.read(port, buffer, sizeof(buffer));
        ASSERT_EQ(read.status, STATUS_SUCCESS);
        EXPECT_EQ(Bytes(buffer, buffer + read.information), Bytes({0x80, 0x3C, 0x00, 0xC0, 0x05}));

        recorder.reset();
        player.reset();
        filter.reset();
        EXPECT_EQ(app.close(port), STATUS_SUCCESS);
        EXPECT_FALSE(hk::midi::findPort(u"Piano").has_value()) << "closing the handle withdraws the port";
    }
    hk::drainIo();
    EXPECT_EQ(node->remove(), STATUS_SUCCESS);
    EXPECT_EQ(hk::unloadDriver(driver), STATUS_SUCCESS);
    EXPECT_EQ(hk::portclsStats().liveObjects, 0u);
}

} // namespace
