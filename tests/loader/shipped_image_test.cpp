// The shipped ambrel.sys, unmodified, in the host kernel: loaded from the
// file the Windows build linked (AMBREL_DRIVER_IMAGE, its link map beside
// it), booted through plug and play, one port served to an application and
// a MIDI client, and gone again without a trace the verifier could find.
#include <gmock/gmock.h>

#include <hostkernel/midiclient.h>
#include <hostkernel/pnp.h>

#include "loader_support.h"

namespace loadertest {
namespace {

namespace midi = hostkernel::midi;

const std::string kImage = AMBREL_DRIVER_IMAGE;

class ShippedImage : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (kImage.empty()) {
            GTEST_SKIP() << "AMBREL_DRIVER_IMAGE names no ambrel.sys: configure with "
                            "-DAMBREL_DRIVER_IMAGE=<build/windows/ambrel.sys> to run the shipped image";
        }
    }
};

std::string joined(const std::vector<std::string> &lines)
{
    std::string out;
    for (const std::string &line : lines) {
        out += line + "\n";
    }
    return out;
}

TEST_F(ShippedImage, MapsWithItsLinkMapAndEntersThroughGsDriverEntry)
{
    std::unique_ptr<hk::loader::Image> image;
    ASSERT_EQ(hk::loader::loadImageFile(kImage, &image), STATUS_SUCCESS);
    EXPECT_EQ(image->name(), "ambrel.sys");
    EXPECT_EQ(image->symbol("GsDriverEntry"), image->entryPoint());
    EXPECT_NE(image->symbol("DriverEntry"), 0u);
    EXPECT_NE(image->symbol("CMiniportAmbrel::NewStream"), 0u);
    EXPECT_THAT(image->describe(reinterpret_cast<void *>(image->symbol("CMiniportAmbrel::NewStream") + 0x10)),
                ::testing::MatchesRegex("ambrel\\.sys\\+0x[0-9a-f]+ \\(CMiniportAmbrel::NewStream\\+0x10\\)"));
}

TEST_F(ShippedImage, BootsServesOnePortAndLeavesNothing)
{
    hk::LogCapture log;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    PDRIVER_OBJECT driver = hk::loadDriverImage(u"ambrel", kImage, &status);
    ASSERT_NE(driver, nullptr) << std::hex << status << "\n" << joined(log.lines());
    EXPECT_EQ(status, STATUS_SUCCESS);
    EXPECT_TRUE(log.contains("Ambrel:Adapter: DriverEntry +++++ succeeded")) << joined(log.lines());
    EXPECT_THAT(hk::loader::describeAddress(reinterpret_cast<void *>(driver->DriverInit)),
                ::testing::MatchesRegex("ambrel\\.sys\\+0x[0-9a-f]+ \\(GsDriverEntry\\+0x0\\)"));

    std::shared_ptr<hk::DeviceNode> node = hk::addRootDevice(driver);
    ASSERT_NE(node, nullptr);
    ASSERT_EQ(node->addDeviceStatus(), STATUS_SUCCESS) << joined(log.lines());
    ASSERT_EQ(node->start(), STATUS_SUCCESS) << joined(log.lines());
    EXPECT_TRUE(log.contains("Ambrel:Adapter: StartDevice +++++ succeeded"));
    {
        hk::Process owner(100), player(200);
        hk::Handle port = 0;
        ASSERT_EQ(owner.open(u"\\DosDevices\\Ambrel\\Piano", FILE_GENERIC_READ | FILE_GENERIC_WRITE, &port),
                  STATUS_SUCCESS);
        std::optional<midi::PortInfo> piano = midi::findPort(u"Piano");
        ASSERT_TRUE(piano.has_value()) << "the port is not published to MIDI clients";
        std::unique_ptr<midi::Filter> filter;
        ASSERT_EQ(midi::Filter::open(player, piano->path, &filter), STATUS_SUCCESS);
        std::optional<ULONG> render = filter->findPin(KSPIN_DATAFLOW_IN, KSDATAFORMAT_SUBTYPE_MIDI);
        ASSERT_TRUE(render.has_value());
        std::unique_ptr<midi::Pin> pin;
        ASSERT_EQ(midi::Pin::open(*filter, *render, KSDATAFORMAT_SUBTYPE_MIDI, &pin), STATUS_SUCCESS);
        ASSERT_EQ(pin->setState(KSSTATE_RUN), STATUS_SUCCESS);
        ASSERT_EQ(pin->send({0x90, 0x3C, 0x64}), STATUS_SUCCESS);

        std::uint8_t note[3] = {};
        hk::IoResult read = owner.read(port, note, sizeof note);
        EXPECT_EQ(read.status, STATUS_SUCCESS);
        EXPECT_EQ(read.information, 3u);
        EXPECT_EQ(Bytes(note, note + 3), (Bytes{0x90, 0x3C, 0x64}));

        EXPECT_EQ(pin->close(), STATUS_SUCCESS);
        EXPECT_EQ(filter->close(), STATUS_SUCCESS);
        EXPECT_EQ(owner.close(port), STATUS_SUCCESS);
    }
    EXPECT_FALSE(midi::findPort(u"Piano").has_value());
    EXPECT_EQ(node->remove(), STATUS_SUCCESS);
    EXPECT_EQ(hk::unloadDriver(driver), STATUS_SUCCESS);
}

} // namespace
} // namespace loadertest
