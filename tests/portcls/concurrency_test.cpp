// Clients of one filter at once: pins opened and closed, states changed,
// properties asked, MIDI played and recorded, while notifications and the
// periodic service run.
#include "pc_support.h"

#include <thread>

namespace pctest {

TEST_F(PortclsTest, ConcurrentClientsOnOneFilter)
{
    TestMiniport *miniport = publish(u"sub0", u"Piano");
    hk::Process &app = process(10);
    auto filter = openFilter(app, u"Piano");
    constexpr int kRecorders = 4;
    constexpr int kMessages = 50;

    std::atomic<int> ready{0};
    std::vector<std::vector<uint8_t>> received(kRecorders);
    std::vector<std::thread> threads;
    for (int t = 0; t < kRecorders; t++) {
        threads.emplace_back([&, t] {
            std::unique_ptr<hk::midi::Pin> pin;
            ASSERT_EQ(hk::midi::Pin::open(*filter, kCapturePin, KSDATAFORMAT_SUBTYPE_MIDI, &pin), STATUS_SUCCESS);
            ASSERT_EQ(pin->setState(KSSTATE_RUN), STATUS_SUCCESS);
            ready++;
            while (received[t].size() < kMessages) {
                std::vector<hk::midi::Message> got;
                NTSTATUS status = pin->receive(&got, std::chrono::seconds(10));
                ASSERT_EQ(status, STATUS_SUCCESS);
                for (auto &m : got) {
                    received[t].insert(received[t].end(), m.bytes.begin(), m.bytes.end());
                }
                ULONG pins = 0;
                EXPECT_EQ(filter->pinCount(&pins), STATUS_SUCCESS);
            }
        });
    }
    // Players: each opens, plays and closes render pins, over and over,
    // within the sub-device's limit of three.
    std::atomic<int> played{0};
    for (int t = 0; t < 2; t++) {
        threads.emplace_back([&] {
            for (int round = 0; round < 10; round++) {
                std::unique_ptr<hk::midi::Pin> pin;
                ASSERT_EQ(hk::midi::Pin::open(*filter, kRenderPin, KSDATAFORMAT_SUBTYPE_MIDI, &pin), STATUS_SUCCESS);
                ASSERT_EQ(pin->setState(KSSTATE_RUN), STATUS_SUCCESS);
                for (int i = 0; i < 5; i++) {
                    ASSERT_EQ(pin->send(Bytes{0x90, 0x3C, 0x40}), STATUS_SUCCESS);
                    played++;
                }
            }
        });
    }
    ASSERT_TRUE(eventually([&] { return ready.load() == kRecorders; }));
    std::vector<TestStream *> streams = miniport->streams(true);
    ASSERT_EQ(streams.size(), size_t(kRecorders));
    for (int i = 0; i < kMessages; i++) {
        for (TestStream *s : streams) {
            s->inject({uint8_t(i)});
        }
        if (i % 2 == 0) {
            miniport->port()->Notify(miniport->group());
        }
    }
    for (auto &t : threads) {
        t.join();
    }
    Bytes expected;
    for (int i = 0; i < kMessages; i++) {
        expected.push_back(uint8_t(i));
    }
    for (int t = 0; t < kRecorders; t++) {
        EXPECT_EQ(received[t], expected) << "recorder " << t;
    }
    std::lock_guard<std::mutex> lock(miniport->mutex);
    EXPECT_EQ(miniport->rendered.size(), size_t(played.load()) * 3);
}

// Holders letting go at once: a holder whose release leaves others holding
// is no double release, even when the others finish the port before that
// holder's release has returned.
TEST_F(PortclsTest, HoldersReleasingAtOnceAreNoDoubleRelease)
{
    constexpr int kHolders = 4;
    for (int trial = 0; trial < 3000; trial++) {
        PPORT port = NULL;
        ASSERT_EQ(PcNewPort(&port, CLSID_PortDMus), STATUS_SUCCESS);
        for (int h = 1; h < kHolders; h++) {
            port->AddRef();
        }
        std::atomic<int> ready{0};
        std::vector<std::thread> holders;
        for (int h = 0; h < kHolders; h++) {
            holders.emplace_back([&] {
                ready++;
                while (ready.load() < kHolders) {
                }
                port->Release();
            });
        }
        for (auto &t : holders) {
            t.join();
        }
    }
    EXPECT_EQ(hk::portclsStats().liveObjects, 0u);
}

} // namespace pctest
