// Many opens and closes at once: under the table lock, equal names never hold
// two slots and no slot is lost.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "hostkernel/executive.h"
#include "porttable_support.h"

namespace {

TEST(PortTableConcurrency, EqualAndDistinctNamesFromManyThreadsNeverDuplicateOrLoseSlots)
{
    constexpr ULONG kSlots = 6;
    const std::u16string shared[] = {u"Shared A", u"Shared B", u"Shared C"};
    TestTable t(kSlots);
    std::atomic<int> holders[3] = {}, faults{0}, added{0}, existed{0}, full{0};

    auto worker = [&](int id) {
        std::mt19937 random(id);
        std::vector<std::pair<MidiPort *, int>> mine; // record, shared-name index or -1
        auto remove = [&](size_t pick) {
            auto [port, sharedIndex] = mine[pick];
            mine.erase(mine.begin() + pick);
            if (sharedIndex >= 0) {
                holders[sharedIndex]--;
            }
            t.removePtr(port);
        };
        for (int round = 0; round < 1500; round++) {
            if (!mine.empty() && random() % 3 == 0) {
                remove(random() % mine.size());
                continue;
            }
            // Half the adds race for a shared name, half use a name no other
            // thread ever uses.
            int sharedIndex = (random() % 2) ? int(random() % 3) : -1;
            std::u16string name = sharedIndex >= 0 ? shared[sharedIndex]
                                                   : u"T" + std::u16string{char16_t(u'A' + id), char16_t(0x100 + round)};
            LONG result;
            MidiPort *port = nullptr;
            {
                TestTable::Locked l(t);
                result = AddPortByName(t.table, reinterpret_cast<PCWSTR>(name.c_str()));
                std::set<std::u16string> names;
                for (ULONG i = 0; i < kSlots; i++) {
                    faults += t.slot(i) != nullptr && !names.insert(portName(t.slot(i))).second;
                }
                port = result >= 0 ? t.slot(ULONG(result)) : nullptr;
            }
            if (result >= 0) {
                added++;
                faults += portName(port) != name;
                faults += sharedIndex >= 0 && holders[sharedIndex]++ != 0; // two holders at once
                mine.emplace_back(port, sharedIndex);
            } else if (result == AM_PORT_NAME_EXISTS) {
                existed++;
                faults += sharedIndex < 0;
            } else {
                full++;
                faults += result != AM_PORT_TABLE_FULL;
            }
        }
        while (!mine.empty()) {
            remove(0);
        }
    };

    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++) {
        threads.emplace_back(worker, i);
    }
    for (auto &th : threads) {
        th.join();
    }

    EXPECT_EQ(0, faults.load());
    for (ULONG i = 0; i < kSlots; i++) {
        EXPECT_EQ(nullptr, t.slot(i)) << "slot " << i << " was lost";
    }
    EXPECT_EQ(0u, hostkernel::poolStats(hostkernel::tag("AmbR")).liveAllocations);
    // The run reached every outcome, or it proved little.
    EXPECT_GT(added.load(), 0);
    EXPECT_GT(existed.load(), 0);
    EXPECT_GT(full.load(), 0);
}

} // namespace
