// Many opens and closes at once: under the table lock, equal names never hold
// two slots and no slot is lost.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "hostkernel/executive.h"
#include "porttable_support.h"

namespace {

TEST(PortTableConcurrency, EqualAndDistinctNamesFromManyThreadsNeverDuplicateOrLoseSlots)
{
    constexpr ULONG kSlots = 6;
    constexpr int kThreads = 8;
    constexpr int kRounds = 1500;
    const std::u16string shared[] = {u"Shared A", u"Shared B", u"Shared C"};

    TestTable t(kSlots);
    std::atomic<int> holders[3] = {};
    std::atomic<int> live{0};
    std::atomic<int> duplicates{0}, overlaps{0}, wrongResults{0};
    std::atomic<int> successes{0}, existed{0}, full{0};

    auto worker = [&](int id) {
        std::mt19937 random(id);
        std::vector<std::pair<MidiPort *, int>> mine; // record, shared-name index or -1
        for (int round = 0; round < kRounds; round++) {
            if (!mine.empty() && random() % 3 == 0) {
                size_t pick = random() % mine.size();
                auto [port, sharedIndex] = mine[pick];
                mine.erase(mine.begin() + pick);
                if (sharedIndex >= 0) {
                    holders[sharedIndex]--;
                }
                live--;
                t.removePtr(port);
                continue;
            }
            int sharedIndex = (random() % 2) ? int(random() % 3) : -1;
            std::u16string name = sharedIndex >= 0 ? shared[sharedIndex]
                                                   : u"T" + std::u16string(1, char16_t(u'A' + id)) +
                                                         std::u16string(1, char16_t(u'a' + round % 26)) +
                                                         std::u16string(1, char16_t(u'0' + round / 26 % 60));
            MidiPort *port = nullptr;
            LONG result;
            {
                TestTable::Locked l(t);
                result = AddPortByName(t.table, reinterpret_cast<PCWSTR>(name.c_str()));
                if (result >= 0) {
                    port = t.slot(ULONG(result));
                    std::map<std::u16string, int> names;
                    for (ULONG i = 0; i < kSlots; i++) {
                        if (t.slot(i) != nullptr && ++names[portName(t.slot(i))] > 1) {
                            duplicates++;
                        }
                    }
                }
            }
            if (result >= 0) {
                successes++;
                live++;
                if (portName(port) != name) {
                    wrongResults++;
                }
                if (sharedIndex >= 0 && holders[sharedIndex]++ != 0) {
                    overlaps++;
                }
                mine.emplace_back(port, sharedIndex);
            } else if (result == AM_PORT_NAME_EXISTS) {
                existed++;
                if (sharedIndex < 0) {
                    wrongResults++; // nobody else ever uses this thread's own names
                }
            } else if (result == AM_PORT_TABLE_FULL) {
                full++;
            } else {
                wrongResults++;
            }
        }
        for (auto [port, sharedIndex] : mine) {
            if (sharedIndex >= 0) {
                holders[sharedIndex]--;
            }
            live--;
            t.removePtr(port);
        }
    };

    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; i++) {
        threads.emplace_back(worker, i);
    }
    for (auto &th : threads) {
        th.join();
    }

    EXPECT_EQ(0, duplicates.load());
    EXPECT_EQ(0, overlaps.load()) << "two threads held one shared name at once";
    EXPECT_EQ(0, wrongResults.load());
    EXPECT_EQ(0, live.load());
    // Every slot came back: the table is empty and all records are freed.
    for (ULONG i = 0; i < kSlots; i++) {
        EXPECT_EQ(nullptr, t.slot(i));
    }
    EXPECT_EQ(0u, hostkernel::poolStats(hostkernel::tag("AmbR")).liveAllocations);
    // The run exercised every outcome, or it proved little.
    EXPECT_GT(successes.load(), 0);
    EXPECT_GT(existed.load(), 0);
    EXPECT_GT(full.load(), 0);
}

} // namespace
