// Each I/O verifier rule fires on a deliberate violation, and the legal
// patterns next to them do not.
#include <atomic>
#include <functional>
#include <thread>

#include "iotest.h"

namespace iotest {
namespace {

constexpr ULONG kCode = CTL_CODE(0x8001, 0x800, METHOD_NEITHER, FILE_ANY_ACCESS);

void NTAPI noCancel(PDEVICE_OBJECT, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
}

PIRP gHeld;

struct DispatchCase {
    const char *name;
    PDRIVER_DISPATCH dispatch;
    const char *rule; // null: legal, the request completes normally
    NTSTATUS status;
};

const DispatchCase kDispatchCases[] = {
    {"double completion",
     [](PDEVICE_OBJECT, PIRP irp) NTAPI {
         complete(irp, STATUS_SUCCESS);
         return complete(irp, STATUS_SUCCESS);
     },
     "IrpDoubleCompletion", 0},
    {"completion with a cancel routine set",
     [](PDEVICE_OBJECT, PIRP irp) NTAPI {
         IoSetCancelRoutine(irp, noCancel);
         return complete(irp, STATUS_SUCCESS);
     },
     "IrpCompletedWithCancelRoutine", 0},
    {"STATUS_PENDING without IoMarkIrpPending",
     [](PDEVICE_OBJECT, PIRP irp) NTAPI {
         complete(irp, STATUS_SUCCESS);
         return NTSTATUS(STATUS_PENDING);
     },
     "IrpPendingNotMarked", 0},
    {"marked pending, completed, returned a final status",
     [](PDEVICE_OBJECT, PIRP irp) NTAPI {
         IoMarkIrpPending(irp);
         return complete(irp, STATUS_SUCCESS);
     },
     "IrpPendingMarkedButCompleted", 0},
    // wdm.h's IoMarkIrpPending is inline: it only sets SL_PENDING_RETURNED
    // (0x01) in the current location's Control, as the shipped image does.
    {"marked inline, completed, returned a final status",
     [](PDEVICE_OBJECT, PIRP irp) NTAPI {
         IoGetCurrentIrpStackLocation(irp)->Control |= 0x01;
         return complete(irp, STATUS_SUCCESS);
     },
     "IrpPendingMarkedButCompleted", 0},
    {"legal: marked inline, completed, returned STATUS_PENDING",
     [](PDEVICE_OBJECT, PIRP irp) NTAPI {
         IoGetCurrentIrpStackLocation(irp)->Control |= 0x01;
         complete(irp, STATUS_BUFFER_OVERFLOW);
         return NTSTATUS(STATUS_PENDING);
     },
     nullptr, STATUS_BUFFER_OVERFLOW},
    {"IRQL left raised",
     [](PDEVICE_OBJECT, PIRP irp) NTAPI {
         KIRQL old;
         KeRaiseIrql(DISPATCH_LEVEL, &old);
         return complete(irp, STATUS_SUCCESS);
     },
     "IrqlNotRestored", 0},
    {"legal: marked pending, completed, returned STATUS_PENDING",
     [](PDEVICE_OBJECT, PIRP irp) NTAPI {
         IoMarkIrpPending(irp);
         complete(irp, STATUS_BUFFER_OVERFLOW);
         return NTSTATUS(STATUS_PENDING);
     },
     nullptr, STATUS_BUFFER_OVERFLOW},
    {"legal: completed and returned the same status",
     [](PDEVICE_OBJECT, PIRP irp) NTAPI { return complete(irp, STATUS_DEVICE_BUSY); }, nullptr, STATUS_DEVICE_BUSY},
};

class VerifierTest : public IoTest {
protected:
    hk::IoResult control(PDRIVER_DISPATCH dispatch)
    {
        driver_->MajorFunction[IRP_MJ_DEVICE_CONTROL] = dispatch;
        hk::Process app(100);
        hk::Handle h = openOk(app);
        hk::IoResult r = app.deviceControl(h, kCode, nullptr, 0, nullptr, 0);
        app.close(h);
        return r;
    }
};

TEST_F(VerifierTest, DispatchRoutineRules)
{
    for (const auto &c : kDispatchCases) {
        SCOPED_TRACE(c.name);
        if (c.rule != nullptr) {
            EXPECT_DEATH(control(c.dispatch), c.rule);
        } else {
            EXPECT_EQ(control(c.dispatch).status, c.status);
        }
    }
}

TEST_F(VerifierTest, PendingNotMarkedIsCaughtWhenTheLateCompletionArrives)
{
    auto action = [this] {
        driver_->MajorFunction[IRP_MJ_DEVICE_CONTROL] = [](PDEVICE_OBJECT, PIRP irp) NTAPI {
            gHeld = irp;
            return NTSTATUS(STATUS_PENDING);
        };
        hk::Process app(100);
        auto request = app.deviceControlAsync(openOk(app), kCode, nullptr, 0, 0);
        std::thread([] { complete(gHeld, STATUS_SUCCESS); }).join();
    };
    EXPECT_DEATH(action(), "IrpPendingNotMarked");

    // Marked inline and parked, completed later from another thread: legal.
    driver_->MajorFunction[IRP_MJ_DEVICE_CONTROL] = [](PDEVICE_OBJECT, PIRP irp) NTAPI {
        IoGetCurrentIrpStackLocation(irp)->Control |= 0x01;
        gHeld = irp;
        return NTSTATUS(STATUS_PENDING);
    };
    hk::Process app(100);
    hk::Handle h = openOk(app);
    auto request = app.deviceControlAsync(h, kCode, nullptr, 0, 0);
    std::thread([] { complete(gHeld, STATUS_SUCCESS); }).join();
    ASSERT_TRUE(request->wait(std::chrono::seconds(10)));
    EXPECT_EQ(request->status(), STATUS_SUCCESS);
    app.close(h);
}

// Rules checked outside dispatch routines: each action breaks one.
TEST_F(VerifierTest, TeardownAndResourceRules)
{
    struct Case {
        const char *name;
        std::function<void()> action;
        const char *rule;
    } cases[] = {
        {"request never completed",
         [] {
             hk::Process app(100);
             hk::Handle h = openOk(app);
             auto read = app.readAsync(h, 4);
             claimParked(); // taken by the driver and then forgotten
             app.close(h);
             hk::verifyIoQuiescent();
         },
         "IrpNeverCompleted"},
        {"registry handle left open",
         [] {
             std::thread([] {
                 HANDLE key;
                 openKey(u"\\REGISTRY\\MACHINE\\SYSTEM", KEY_READ, &key);
             }).join();
             hk::verifyIoQuiescent();
         },
         "HandleLeak"},
        {"registry call at DISPATCH_LEVEL",
         [] {
             KIRQL old;
             KeRaiseIrql(DISPATCH_LEVEL, &old);
             HANDLE key;
             ZwOpenKey(&key, KEY_READ, nullptr);
         },
         "IrqlTooHigh"},
        {"interface call at DISPATCH_LEVEL",
         [] {
             KIRQL old;
             KeRaiseIrql(DISPATCH_LEVEL, &old);
             UNICODE_STRING link{};
             IoSetDeviceInterfaceState(&link, TRUE);
         },
         "IrqlTooHigh"},
        {"timer left queued",
         [] {
             static KTIMER timer;
             KeInitializeTimer(&timer);
             KeSetTimer(&timer, relativeMs(60000), nullptr);
             hk::verifyIoQuiescent();
         },
         "TimerFreedWhileQueued"},
        {"timer freed while queued",
         [] {
             auto *timer = static_cast<PKTIMER>(ExAllocatePoolWithTag(NonPagedPool, sizeof(KTIMER), hk::tag("Test")));
             KeInitializeTimer(timer);
             KeSetTimer(timer, relativeMs(60000), nullptr);
             ExFreePoolWithTag(timer, hk::tag("Test"));
         },
         "TimerFreedWhileQueued"},
        {"DPC of a queued timer freed",
         [] {
             static KTIMER timer;
             auto *dpc = static_cast<PKDPC>(ExAllocatePoolWithTag(NonPagedPool, sizeof(KDPC), hk::tag("Test")));
             KeInitializeDpc(dpc, [](PKDPC, PVOID, PVOID, PVOID) NTAPI {}, nullptr);
             KeInitializeTimer(&timer);
             KeSetTimer(&timer, relativeMs(60000), dpc);
             ExFreePoolWithTag(dpc, hk::tag("Test"));
         },
         "DpcFreedWhileQueued"},
        {"queued DPC freed",
         [] {
             // Hold the DPC thread in one DPC so that the second stays queued.
             static std::atomic<bool> running{false};
             static KDPC blocker;
             KeInitializeDpc(&blocker,
                             [](PKDPC, PVOID, PVOID, PVOID) NTAPI {
                                 running = true;
                                 for (;;) {
                                     std::this_thread::yield();
                                 }
                             },
                             nullptr);
             KeInsertQueueDpc(&blocker, nullptr, nullptr);
             while (!running) {
                 std::this_thread::yield();
             }
             auto *dpc = static_cast<PKDPC>(ExAllocatePoolWithTag(NonPagedPool, sizeof(KDPC), hk::tag("Test")));
             KeInitializeDpc(dpc, [](PKDPC, PVOID, PVOID, PVOID) NTAPI {}, nullptr);
             KeInsertQueueDpc(dpc, nullptr, nullptr);
             ExFreePoolWithTag(dpc, hk::tag("Test"));
         },
         "DpcFreedWhileQueued"},
        {"reference released twice",
         [] {
             PDEVICE_OBJECT device = g.device;
             ObReferenceObject(device);
             ObDereferenceObject(device);
             ObDereferenceObject(device);
         },
         "ObjectDoubleRelease"},
        {"driver unloaded with its device left",
         [this] {
             driver_->DriverUnload = [](PDRIVER_OBJECT) NTAPI {};
             hk::unloadDriver(driver_);
         },
         "ObjectReferenceLeak"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_DEATH(c.action(), c.rule);
    }
}

} // namespace
} // namespace iotest
