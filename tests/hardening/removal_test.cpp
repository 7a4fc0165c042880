// The adapter removed while a client still plays into a port. An orderly
// removal is vetoed while the client's filter or pin is open; a surprise
// removal goes ahead, the port keeps working until the stack's last handle
// is closed, and that close removes the adapter: the pin's cleanup and close
// reach the driver, the owner's parked read ends with STATUS_DELETE_PENDING,
// and nothing of the port, its stream or the framework is left behind.
#include "scenario.h"

#include <hostkernel/portcls.h>

namespace hardening {
namespace {

enum class Handle { Pin, Filter, Port };

const char *handleName(Handle h)
{
    return h == Handle::Pin ? "pin" : h == Handle::Filter ? "filter" : "port";
}

class SurpriseRemoval : public ::testing::Test {
protected:
    void SetUp() override
    {
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        driver_ = ambrelhost::loadAmbrel(u"ambrel", ambreltest::driverImage(), &status);
        ASSERT_NE(driver_, nullptr) << std::hex << status;
        node_ = hk::addRootDevice(driver_);
        ASSERT_EQ(node_->addDeviceStatus(), STATUS_SUCCESS);
        ASSERT_EQ(node_->start(), STATUS_SUCCESS);
        ASSERT_EQ(app_.open(u"\\DosDevices\\Ambrel\\Piano", kReadWrite, &port_), STATUS_SUCCESS);
        auto found = midi::findPort(u"Piano");
        ASSERT_TRUE(found);
        path_ = found->path;
        ASSERT_EQ(midi::Filter::open(player_, path_, &filter_), STATUS_SUCCESS);
        auto id = filter_->findPin(KSPIN_DATAFLOW_IN, kMidiSubFormat);
        ASSERT_TRUE(id);
        ASSERT_EQ(midi::Pin::open(*filter_, *id, kMidiSubFormat, &pin_), STATUS_SUCCESS);
        ASSERT_EQ(pin_->setState(KSSTATE_RUN), STATUS_SUCCESS);
    }

    void TearDown() override
    {
        pin_.reset();
        filter_.reset();
        if (port_ != 0) {
            app_.close(port_);
        }
        hk::drainIo();
        if (node_ && !node_->removed() && !node_->removalPending()) {
            node_->remove();
        }
        node_.reset();
        if (driver_ != nullptr) {
            hk::drainIo();
            EXPECT_EQ(hk::unloadDriver(driver_), STATUS_SUCCESS);
        }
        hk::drainIo();
    }

    // A note played on the pin reaches a read the owner parked first.
    void playedNoteArrives(UCHAR key)
    {
        auto read = app_.readAsync(port_, 64);
        ASSERT_EQ(pin_->send({0x90, key, 0x40}), STATUS_SUCCESS);
        ASSERT_TRUE(read->wait(std::chrono::seconds(5)));
        EXPECT_EQ(read->status(), STATUS_SUCCESS);
        ASSERT_EQ(read->information(), 3u);
        EXPECT_EQ(read->output()[1], key);
    }

    NTSTATUS close(Handle h)
    {
        NTSTATUS s = STATUS_SUCCESS;
        switch (h) {
        case Handle::Pin:
            s = pin_->close();
            pin_.reset();
            break;
        case Handle::Filter:
            s = filter_->close();
            filter_.reset();
            break;
        case Handle::Port:
            s = app_.close(port_);
            port_ = 0;
            break;
        }
        return s;
    }

    PDRIVER_OBJECT driver_ = nullptr;
    std::shared_ptr<hk::DeviceNode> node_;
    hk::Process app_{100};
    hk::Process player_{200};
    hk::Handle port_ = 0;
    std::u16string path_;
    std::unique_ptr<midi::Filter> filter_;
    std::unique_ptr<midi::Pin> pin_;
};

TEST_F(SurpriseRemoval, OrderlyRemovalIsVetoedWhileThePinIsOpenAndChangesNothing)
{
    hk::LogCapture log;
    EXPECT_EQ(node_->remove(), STATUS_PLUGPLAY_QUERY_VETOED);
    EXPECT_FALSE(node_->removed());
    EXPECT_FALSE(log.contains("am_private_dispatch_pnp")) << "the driver never heard of the vetoed removal";
    playedNoteArrives(0x3C);
    std::unique_ptr<midi::Filter> another;
    EXPECT_EQ(midi::Filter::open(player_, path_, &another), STATUS_SUCCESS) << "the port still takes clients";
}

// The three handles closed in every order that matters: the removal comes
// with the last of the pin and the filter (the pin holds its filter's file
// object), never with the port, whose handle is on the control device.
struct CloseOrder {
    Handle order[3];
    int removedAt; // index in `order` of the close that removes the adapter
};

void PrintTo(const CloseOrder &c, std::ostream *os)
{
    *os << handleName(c.order[0]) << ", " << handleName(c.order[1]) << ", " << handleName(c.order[2])
        << " (removed at the " << handleName(c.order[c.removedAt]) << ")";
}

class SurpriseRemovalCloseOrder : public SurpriseRemoval, public ::testing::WithParamInterface<CloseOrder> {};

TEST_P(SurpriseRemovalCloseOrder, TheLastCloseOnTheStackRemovesTheAdapterAndNothingLeaks)
{
    const CloseOrder &c = GetParam();
    hk::LogCapture log;
    auto parked = app_.readAsync(port_, 64);
    EXPECT_EQ(node_->surpriseRemove(), STATUS_PENDING);
    EXPECT_TRUE(node_->removalPending());
    EXPECT_TRUE(log.contains("IRP_MN_SURPRISE_REMOVAL"));
    std::unique_ptr<midi::Filter> late;
    EXPECT_EQ(midi::Filter::open(player_, path_, &late), STATUS_DELETE_PENDING);
    EXPECT_FALSE(parked->done()) << "the port is withdrawn at the removal, not before";

    bool portOpen = true;
    for (int i = 0; i < 3; i++) {
        const Handle h = c.order[i];
        SCOPED_TRACE(std::string("closing the ") + handleName(h));
        log.clear();
        EXPECT_EQ(close(h), STATUS_SUCCESS);
        if (h == Handle::Pin) {
            EXPECT_TRUE(log.contains("am_private_dispatch_cleanup"));
            EXPECT_TRUE(log.contains("am_private_dispatch_close ----- (File:"));
            // While its port lives, the pin leaves the port's registry through
            // its own close; a closed port took its registry with it.
            EXPECT_EQ(log.contains("am_remove_process_id (ambrel0) found used slot: 0"), portOpen);
        }
        if (h == Handle::Port) {
            portOpen = false;
            if (i < c.removedAt) {
                ASSERT_TRUE(parked->done());
                EXPECT_EQ(parked->status(), STATUS_SERVER_DISABLED) << "the owner's cleanup ended its read";
            }
        }
        EXPECT_EQ(node_->removed(), i >= c.removedAt);
        EXPECT_EQ(log.contains("am_private_dispatch_remove ***** call is for function interface"), i == c.removedAt);
        if (i == c.removedAt && portOpen) {
            ASSERT_TRUE(parked->wait(std::chrono::seconds(5)));
            EXPECT_EQ(parked->status(), STATUS_DELETE_PENDING) << "the removal withdrew the port";
        }
    }
    hk::drainIo();
    EXPECT_EQ(hk::unloadDriver(driver_), STATUS_SUCCESS);
    driver_ = nullptr;
    hk::drainIo();
    EXPECT_EQ(hk::poolStats(hk::tag("AmbR")).liveAllocations, 0u) << "port records";
    EXPECT_EQ(hk::poolStats(hk::tag("AmbP")).liveAllocations, 0u) << "the stream's parser";
    EXPECT_EQ(hk::poolStats(hk::tag("PcNw")).liveAllocations, 0u) << "the stream";
    EXPECT_EQ(hk::poolLiveAllocations(), 0u);
    EXPECT_EQ(hk::portclsStats().liveObjects, 0u);
}

INSTANTIATE_TEST_SUITE_P(Orders, SurpriseRemovalCloseOrder,
                         ::testing::Values(CloseOrder{{Handle::Pin, Handle::Filter, Handle::Port}, 1},
                                           CloseOrder{{Handle::Port, Handle::Pin, Handle::Filter}, 2},
                                           CloseOrder{{Handle::Filter, Handle::Port, Handle::Pin}, 2}),
                         [](const ::testing::TestParamInfo<CloseOrder> &info) {
                             std::string name;
                             for (Handle h : info.param.order) {
                                 std::string part = handleName(h);
                                 part[0] = char(part[0] - 'a' + 'A');
                                 name += part;
                             }
                             return name;
                         });

} // namespace
} // namespace hardening
