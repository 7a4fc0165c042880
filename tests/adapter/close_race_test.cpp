// A port's close racing the requests of a client that holds its filter.
#include "adapter_fixture.h"

#include <atomic>
#include <thread>

// The application closes its port (the record is detached and freed) while
// two clients keep asking the port's filter for a pin name and the synth caps.
// The record comes from the pool, which fills freed blocks: an answer read
// from it instead of the miniport's copy of the name would not match.
using CloseRace = adaptertest::BootedDriver;

TEST_F(CloseRace, NameAndCapsRequestsNeverReadTheFreedRecord)
{
    const std::u16string name = u"A port whose name is read while it closes";
    hostkernel::Process &app = process(100);
    hostkernel::Handle handle = openPort(app, u"\\" + name);
    ASSERT_NE(handle, 0u);
    auto filter = filterOf(process(200), name);
    ASSERT_TRUE(filter);

    std::atomic<bool> closed{false};
    std::atomic<int> detachedAnswers{0};
    auto hammer = [&](bool caps) {
        int afterClose = 0;
        for (int i = 0; !closed || ++afterClose < 100; i++) {
            if (!caps) {
                // The pin name stays the port's name, before and after.
                std::u16string pinName;
                ASSERT_EQ(filter->pinName((ULONG)(i % 5), &pinName), STATUS_SUCCESS);
                ASSERT_EQ(pinName, name);
                continue;
            }
            SYNTHCAPS synth;
            ASSERT_EQ(filter->synthCaps((ULONG)(i & 1), &synth), STATUS_SUCCESS);
            std::u16string text(reinterpret_cast<const char16_t *>(synth.Description));
            std::u16string side = (i & 1) ? u"Ambrel In" : u"Ambrel Out";
            if (text == side) {
                detachedAnswers++;
            } else {
                ASSERT_EQ(text, side + u": " + name);
            }
        }
    };
    std::thread capsThread(hammer, true), nameThread(hammer, false);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(app.close(handle), STATUS_SUCCESS);
    closed = true;
    capsThread.join();
    nameThread.join();
    EXPECT_GT(detachedAnswers.load(), 0);
}
