// Boots the driver in the host kernel as the system does (load, AddDevice for
// one root-enumerated adapter, start) and tears it down again, and the small
// helpers the adapter tests share: applications that open ports, the
// registry's settings, and the port's interfaces as MIDI clients find them.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <hostkernel/executive.h>
#include <hostkernel/io.h>
#include <hostkernel/midiclient.h>
#include <hostkernel/portcls.h>
#include <hostkernel/pnp.h>
#include <hostkernel/registry.h>

#include <hostkernel/loader.h>

#include "adapter/amadapter.h"
#include "ambrel_host.h"
#include "driver_build.h"

namespace adaptertest {

namespace hk = hostkernel;
namespace midi = hostkernel::midi;
using Bytes = std::vector<std::uint8_t>;

inline const std::u16string kService = u"ambrel";
inline const std::u16string kControlLink = u"\\DosDevices\\Ambrel";
inline const std::u16string kControlDevice = u"\\Device\\Ambrel";

inline constexpr ACCESS_MASK kReadWrite = FILE_GENERIC_READ | FILE_GENERIC_WRITE;
// The owner's process-id query: device type 0x8001, function 0x801, buffered, any access.
inline constexpr ULONG kProcessIdsCode = 0x80012004;

inline std::u16string configurationKey()
{
    return hk::serviceKeyPath(kService) + u"\\Configuration";
}

// The path an application opens for a port: "\DosDevices\Ambrel" + suffix.
inline std::u16string portPath(std::u16string_view suffix)
{
    return kControlLink + std::u16string(suffix);
}

// The enabled interfaces of a category whose FriendlyName is `name`.
inline std::vector<hk::DeviceInterface> interfacesNamed(const GUID &category, std::u16string_view name)
{
    std::vector<hk::DeviceInterface> found;
    for (const hk::DeviceInterface &i : hk::deviceInterfaces(category)) {
        auto friendly = hk::registry::value(i.deviceParametersKey, u"FriendlyName");
        if (friendly && friendly->text() == name) {
            found.push_back(i);
        }
    }
    return found;
}

inline std::string narrow(std::u16string_view s)
{
    std::string out;
    for (char16_t c : s) {
        out.push_back(c < 0x80 ? char(c) : '?');
    }
    return out;
}

// One loaded driver with one started adapter. Tests that need other settings
// or a different boot call the steps themselves.
class DriverFixture : public ::testing::Test {
protected:
    void TearDown() override { shutdown(); }

    // Loads the driver; the settings in the registry must be in place first.
    void load()
    {
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        driver_ = ambrelhost::loadAmbrel(kService, ambreltest::driverImage(), &status);
        ASSERT_NE(driver_, nullptr) << std::hex << status;
        ASSERT_EQ(status, STATUS_SUCCESS);
    }

    // The entry point of the build under test, for a test that calls it
    // through a wrapper of its own (hk::loadDriver with the wrapper): the
    // host build's DriverEntry, or the image's, mapped and bound by the
    // loader without running it (unmapped once the driver is unloaded).
    PDRIVER_INITIALIZE entryOfTheBuild()
    {
        if (!ambreltest::onImage()) {
            return ambrelhost::hostBuildEntry();
        }
        EXPECT_EQ(hk::loader::loadImageFile(ambreltest::driverImage(), &mappedImage_), STATUS_SUCCESS);
        return mappedImage_ ? reinterpret_cast<PDRIVER_INITIALIZE>(mappedImage_->entryPoint()) : nullptr;
    }

    // Loads the driver, adds one adapter and starts it.
    void boot()
    {
        load();
        if (HasFatalFailure()) {
            return;
        }
        addAndStart();
    }

    // The plug and play manager's part of boot(): one adapter added and started.
    void addAndStart()
    {
        node_ = hk::addRootDevice(driver_);
        ASSERT_NE(node_, nullptr);
        ASSERT_EQ(node_->addDeviceStatus(), STATUS_SUCCESS);
        ASSERT_EQ(node_->start(), STATUS_SUCCESS);
    }

    // The same with the "MaxPorts" setting in place first.
    void bootWithMaxPorts(ULONG maxPorts)
    {
        hk::registry::setDword(configurationKey(), u"MaxPorts", maxPorts);
        boot();
    }

    hk::Process &process(std::uint64_t id)
    {
        processes_.push_back(std::make_unique<hk::Process>(id));
        return *processes_.back();
    }

    // Opens a port for `app`; the handle, or 0 with the status in *status.
    hk::Handle openPort(hk::Process &app, std::u16string_view suffix, NTSTATUS *status = nullptr,
                        ACCESS_MASK access = kReadWrite)
    {
        hk::Handle handle = 0;
        NTSTATUS s = app.open(portPath(suffix), access, &handle);
        if (status != nullptr) {
            *status = s;
        }
        return NT_SUCCESS(s) ? handle : 0;
    }

    // A filter on the published port `name`, opened by `client` (null if
    // the port is not found or refuses).
    std::unique_ptr<midi::Filter> filterOf(hk::Process &client, std::u16string_view name)
    {
        std::unique_ptr<midi::Filter> filter;
        auto port = midi::findPort(name);
        EXPECT_TRUE(port.has_value()) << narrow(name);
        if (port) {
            EXPECT_EQ(midi::Filter::open(client, port->path, &filter), STATUS_SUCCESS);
        }
        return filter;
    }

    // A running MIDI pin of that id, or null with the creation's status.
    std::unique_ptr<midi::Pin> runningPin(midi::Filter &filter, ULONG pinId, NTSTATUS *status = nullptr)
    {
        std::unique_ptr<midi::Pin> pin;
        NTSTATUS s = midi::Pin::open(filter, pinId, KSDATAFORMAT_SUBTYPE_MIDI, &pin);
        if (status != nullptr) {
            *status = s;
        }
        if (NT_SUCCESS(s)) {
            EXPECT_EQ(pin->setState(KSSTATE_RUN), STATUS_SUCCESS);
        }
        return pin;
    }

    // The same, found by direction.
    std::unique_ptr<midi::Pin> runningPin(midi::Filter &filter, KSPIN_DATAFLOW flow, NTSTATUS *status = nullptr)
    {
        auto id = filter.findPin(flow, KSDATAFORMAT_SUBTYPE_MIDI);
        if (!id) {
            if (status != nullptr) {
                *status = STATUS_NOT_FOUND;
            }
            return nullptr;
        }
        return runningPin(filter, *id, status);
    }

    void shutdown()
    {
        processes_.clear(); // process exit closes whatever the test left open
        hk::drainIo();
        for (auto &node : extraNodes_) {
            if (node && !node->removed()) {
                node->remove();
            }
        }
        extraNodes_.clear();
        if (node_ && !node_->removed()) {
            node_->remove();
        }
        node_.reset();
        if (driver_ != nullptr) {
            EXPECT_EQ(hk::unloadDriver(driver_), STATUS_SUCCESS);
            driver_ = nullptr;
        }
        hk::drainIo();
        mappedImage_.reset();
    }

    PDRIVER_OBJECT driver_ = nullptr;
    std::shared_ptr<hk::DeviceNode> node_;
    std::vector<std::shared_ptr<hk::DeviceNode>> extraNodes_;
    std::vector<std::unique_ptr<hk::Process>> processes_;
    std::unique_ptr<hk::loader::Image> mappedImage_;
};

// The same, booted before each test.
class BootedDriver : public DriverFixture {
protected:
    void SetUp() override { boot(); }
};

} // namespace adaptertest
