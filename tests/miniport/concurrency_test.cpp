// The miniport under concurrent use: several render streams of one port and
// capture writes from several threads. Run under ThreadSanitizer (label
// "concurrency").
#include "mp_support.h"

#include <atomic>
#include <map>
#include <thread>

TEST(MiniportConcurrency, RenderStreamsInterleaveOnlyAtMessageBoundaries)
{
    PortHarness h(u"Piano", 3, 8176);
    const int streams = 4, messagesPerStream = 2000;
    std::vector<PMXF> render;
    for (int i = 0; i < streams; i++) {
        render.push_back(h.newStream(DMUS_STREAM_MIDI_RENDER));
    }

    std::atomic<int> running{streams};
    std::vector<std::thread> players;
    for (int s = 0; s < streams; s++) {
        players.emplace_back([&, s] {
            // Stream s plays on channel s: note numbers count up, and each
            // message is split over two events so that halves wait in the
            // parser while the other streams write.
            for (int n = 0; n < messagesPerStream; n++) {
                uint8_t note = (uint8_t)(n & 0x7F), velocity = (uint8_t)((n >> 7) & 0x7F);
                h.play(render[s], FakeAllocator::chain({h.allocator.event({(uint8_t)(0x90 | s), note}),
                                                        h.allocator.event({velocity})}));
            }
            running--;
        });
    }

    Bytes received;
    while (running > 0 || h.allocator.outstanding() > 0) {
        Bytes chunk = h.readFifo(7);  // reads that cut messages anywhere
        received.insert(received.end(), chunk.begin(), chunk.end());
    }
    for (std::thread &t : players) {
        t.join();
    }
    Bytes rest = h.readFifo();
    received.insert(received.end(), rest.begin(), rest.end());

    ASSERT_EQ(received.size(), (size_t)streams * messagesPerStream * 3);
    std::map<int, int> next;
    for (size_t i = 0; i < received.size(); i += 3) {
        ASSERT_EQ(received[i] & 0xF0, 0x90) << "message torn at " << i;
        int s = received[i] & 0x0F;
        int n = received[i + 1] | (received[i + 2] << 7);
        ASSERT_EQ(n, next[s]) << "stream " << s << " out of order";
        next[s]++;
    }
}

TEST(MiniportConcurrency, CaptureWritesReachEveryStreamWholeInOneOrder)
{
    PortHarness h(u"Piano", 3, 8176, true, 16);
    const int writers = 4, writesPerWriter = 300, captureStreams = 3;
    std::vector<PMXF> capture;
    std::vector<std::unique_ptr<FakeSink>> sinks;
    for (int i = 0; i < captureStreams; i++) {
        sinks.push_back(std::make_unique<FakeSink>(&h.allocator));
        capture.push_back(h.runningCapture(sinks.back().get()));
    }

    std::atomic<int> running{writers};
    std::vector<std::thread> threads;
    for (int w = 0; w < writers; w++) {
        threads.emplace_back([&, w] {
            for (int n = 0; n < writesPerWriter; n++) {
                // Writes of 2 to 41 bytes: the count, then the writer's number.
                Bytes data((size_t)(n % 40) + 2, (uint8_t)w);
                data[0] = (uint8_t)(n & 0xFF);
                EXPECT_TRUE(h.miniport->PutData(data.data(), (ULONG)data.size()));
            }
            running--;
        });
    }
    for (int i = 0; i < captureStreams; i++) {
        threads.emplace_back([&, i] {
            while (running > 0) {
                h.pump(capture[i]);
            }
            h.pump(capture[i]);
        });
    }
    for (std::thread &t : threads) {
        t.join();
    }

    auto reference = sinks[0]->writes();
    ASSERT_EQ(reference.size(), (size_t)writers * writesPerWriter);
    for (int i = 1; i < captureStreams; i++) {
        EXPECT_EQ(sinks[i]->writes(), reference) << "stream " << i;
    }
    std::vector<int> next(writers, 0);
    for (const Bytes &write : reference) {
        int w = write.at(1);
        ASSERT_EQ(write.size(), (size_t)(next[w] % 40) + 2) << "write cut or merged";
        ASSERT_EQ(write[0], (uint8_t)(next[w] & 0xFF));
        next[w]++;
    }
}
