// Image code on host threads: CR8 and KUSER_SHARED_DATA as the processor
// and the kernel give them, bug checks for every other fault, discarded
// INIT code, unloaded drivers, and faults that are not the loader's.
#include <signal.h>
#include <sys/mman.h>

#include <hostkernel/io.h>

#include "loader_support.h"

namespace loadertest {
namespace {

// One code section of small routines, each starting on 16 bytes.
struct CodeImage {
    std::unique_ptr<hk::loader::Image> image;
    std::uint32_t text = 0;
    std::vector<std::uint32_t> offsets;

    explicit CodeImage(const std::vector<Bytes> &routines, const char *map = nullptr)
    {
        Bytes code;
        for (const Bytes &r : routines) {
            offsets.push_back(std::uint32_t(code.size()));
            code.insert(code.end(), r.begin(), r.end());
            code.resize((code.size() + 15) & ~std::size_t(15), 0xCC);
        }
        petest::PeWriter writer;
        text = writer.addSection(".text", code, petest::kCode);
        writer.setEntry(text);
        EXPECT_EQ(load(writer.build(), &image, "trap.sys"), STATUS_SUCCESS);
        if (map != nullptr) {
            image->loadSymbols(map);
        }
    }
    std::uint64_t call(int routine, std::uint64_t a = 0, std::uint64_t b = 0) const
    {
        return at(*image, text + offsets.at(routine))(a, b);
    }
};

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

const Bytes kRet = {0xC3};

TEST(TrapTest, Cr8ReadsGiveTheThreadsIrqlInEveryRegister)
{
    CodeImage code({
        {0x44, 0x0F, 0x20, 0xC0, 0xC3},                   // mov %cr8,%rax
        {0x44, 0x0F, 0x20, 0xC2, 0x48, 0x89, 0xD0, 0xC3}, // mov %cr8,%rdx; mov %rdx,%rax
        {0x45, 0x0F, 0x20, 0xC1, 0x4C, 0x89, 0xC8, 0xC3}, // mov %cr8,%r9; mov %r9,%rax
        {0x4C, 0x0F, 0x20, 0xC0, 0xC3},                   // REX.W form: mov %cr8,%rax
        // mov $-1,%rax; mov %cr8,%rax: all 64 bits are written
        {0x48, 0xC7, 0xC0, 0xFF, 0xFF, 0xFF, 0xFF, 0x44, 0x0F, 0x20, 0xC0, 0xC3},
    });
    for (int routine = 0; routine < 5; routine++) {
        SCOPED_TRACE(routine);
        EXPECT_EQ(code.call(routine), 0u);
        KIRQL old;
        KeRaiseIrql(DISPATCH_LEVEL, &old);
        std::uint64_t atDispatch = code.call(routine);
        KeLowerIrql(old);
        EXPECT_EQ(atDispatch, 2u);
    }
}

TEST(TrapTest, Cr8WritesRaiseAndLowerTheThreadsIrql)
{
    CodeImage code({
        {0x44, 0x0F, 0x22, 0xC1, 0xC3}, // mov %rcx,%cr8
        {0x45, 0x0F, 0x22, 0xC0, 0xC3}, // mov %r8,%cr8 (the third argument)
    });
    code.call(0, DISPATCH_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    code.call(0, APC_LEVEL); // a "raise" below the current level is a lower
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    code.call(0, PASSIVE_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    using Three = std::uint64_t(__attribute__((ms_abi)) *)(std::uint64_t, std::uint64_t, std::uint64_t);
    auto viaR8 = reinterpret_cast<Three>(code.image->base() + code.text + code.offsets[1]);
    viaR8(0, 0, HIGH_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), HIGH_LEVEL);
    viaR8(0, 0, PASSIVE_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

TEST(TrapDeathTest, Cr8WritesMeetTheVerifiersRulesAndNameTheInstruction)
{
    const char *map = "Linker script and memory map\n"
                      " .text$ImageLowersUnderALock 0x0000000140001000 0x10 a.obj\n"
                      " .text$ImageSetsReservedBits 0x0000000140001010 0x10 a.obj\n";
    EXPECT_DEATH(
        {
            CodeImage code({{0x44, 0x0F, 0x22, 0xC1, 0xC3}, {0x44, 0x0F, 0x22, 0xC1, 0xC3}}, map);
            KSPIN_LOCK lock;
            KeInitializeSpinLock(&lock);
            KIRQL old = KeAcquireSpinLockRaiseToDpc(&lock);
            (void)old;
            code.call(0, PASSIVE_LEVEL);
        },
        "HOST VERIFIER: IrqlNotRestored: KeLowerIrql from IRQL 2 to 0 while the thread holds a spin lock "
        "\\(called from trap.sys\\+0x1000 \\(ImageLowersUnderALock\\+0x0\\)\\)");
    EXPECT_DEATH(
        {
            CodeImage code({{0x44, 0x0F, 0x22, 0xC1, 0xC3}, {0x44, 0x0F, 0x22, 0xC1, 0xC3}}, map);
            code.call(1, 16);
        },
        "\\*\\*\\* STOP: 0x0000001E \\(0xFFFFFFFFC0000096,.*\n\\*\\*\\* KMODE_EXCEPTION_NOT_HANDLED: privileged "
        "instruction: instruction 44 0f 22 c1 c3 .* at trap.sys\\+0x1010 \\(ImageSetsReservedBits\\+0x0\\)");
}

// ------------------------------------------------------------------ KUSER_SHARED_DATA
const Bytes kSharedDataInRcx = {0x48, 0xB9, 0x00, 0x00, 0x00, 0x00, 0x80, 0xF7, 0xFF, 0xFF}; // movabs $0xfffff78000000000,%rcx

TEST(TrapTest, KuserSharedDataReadsServeTheHostClocks)
{
    CodeImage code({
        {0x48, 0xA1, 0x08, 0x00, 0x00, 0x00, 0x80, 0xF7, 0xFF, 0xFF, 0xC3}, // movabs 0xfffff78000000008,%rax
        cat({kSharedDataInRcx, {0x48, 0x8B, 0x41, 0x14}, kRet}),           // mov 0x14(%rcx),%rax
        cat({kSharedDataInRcx, {0x8B, 0x81, 0x20, 0x03, 0x00, 0x00}, kRet}), // mov 0x320(%rcx),%eax
        cat({kSharedDataInRcx, {0x44, 0x8B, 0x91, 0x6C, 0x02, 0x00, 0x00, 0x4C, 0x89, 0xD0}, kRet}), // mov 0x26c(%rcx),%r10d; mov %r10,%rax
        cat({kSharedDataInRcx, {0x0F, 0xB7, 0x41, 0x2C}, kRet}),           // movzwl 0x2c(%rcx),%eax
        // mov $0x8,%edx; mov (%rcx,%rdx,1),%rax
        cat({kSharedDataInRcx, {0xBA, 0x08, 0x00, 0x00, 0x00, 0x48, 0x8B, 0x04, 0x11}, kRet}),
        cat({kSharedDataInRcx, {0x48, 0xC7, 0xC0, 0xFF, 0xFF, 0xFF, 0xFF, 0x8A, 0x61, 0x30}, kRet}), // mov $-1,%rax; mov 0x30(%rcx),%ah
    });
    ULONGLONG interruptBefore = KeQueryInterruptTime();
    LARGE_INTEGER systemBefore;
    KeQuerySystemTime(&systemBefore);
    std::uint64_t interrupt = code.call(0);
    std::uint64_t system = code.call(1);
    std::uint64_t ticks = code.call(2);
    ULONGLONG interruptAfter = KeQueryInterruptTime();
    LARGE_INTEGER systemAfter;
    KeQuerySystemTime(&systemAfter);

    EXPECT_GE(interrupt, interruptBefore);
    EXPECT_LE(interrupt, interruptAfter);
    EXPECT_GE(system, std::uint64_t(systemBefore.QuadPart));
    EXPECT_LE(system, std::uint64_t(systemAfter.QuadPart));
    // 15.625 ms ticks, counted from the interrupt time's origin.
    EXPECT_GE(ticks, std::uint32_t(interruptBefore / 156250));
    EXPECT_LE(ticks, std::uint32_t(interruptAfter / 156250));
    EXPECT_EQ(code.call(3), 10u);     // NtMajorVersion
    EXPECT_EQ(code.call(4), 0x8664u); // ImageNumberLow
    std::uint64_t indexed = code.call(5);
    EXPECT_GE(indexed, interruptAfter);
    EXPECT_EQ(code.call(6), 0xFFFFFFFFFFFF43FFull); // 'C' of NtSystemRoot into %ah only
}

TEST(TrapDeathTest, OtherFaultsInAnImageAreBugChecksNamingTheInstruction)
{
    struct Row {
        const char *what;
        Bytes code;
        const char *report;
    };
    const Row rows[] = {
        {"hlt", {0xF4, 0xC3}, "STOP: 0x0000001E \\(0xFFFFFFFFC0000096,.*privileged instruction: instruction f4 c3"},
        {"cli", {0xFA, 0xC3}, "STOP: 0x0000001E \\(0xFFFFFFFFC0000096,.*privileged instruction: instruction fa c3"},
        {"wbinvd", {0x0F, 0x09, 0xC3}, "privileged instruction: instruction 0f 09 c3"},
        {"rdmsr", {0x0F, 0x32, 0xC3}, "privileged instruction: instruction 0f 32 c3"},
        {"mov %cr3,%rax", {0x0F, 0x20, 0xD8, 0xC3}, "privileged instruction: instruction 0f 20 d8 c3"},
        {"in (%dx),%al", {0xEC, 0xC3}, "privileged instruction: instruction ec c3"},
        {"ud2", {0x0F, 0x0B}, "STOP: 0x0000001E \\(0xFFFFFFFFC000001D,.*illegal instruction: instruction 0f 0b"},
        {"null read", {0x48, 0x8B, 0x01, 0xC3},
         "STOP: 0x00000050 \\(0x0000000000000000,0x0000000000000000,.*PAGE_FAULT_IN_NONPAGED_AREA: read of 0x0: "
         "instruction 48 8b 01 c3"},
        {"KUSER_SHARED_DATA write", cat({kSharedDataInRcx, {0x48, 0x89, 0x41, 0x08}, kRet}),
         "STOP: 0x000000BE .*ATTEMPTED_WRITE_TO_READONLY_MEMORY: write to KUSER_SHARED_DATA: instruction 48 89 41 08"},
        {"KUSER_SHARED_DATA add", cat({kSharedDataInRcx, {0x48, 0x03, 0x41, 0x08}, kRet}),
         "a read of KUSER_SHARED_DATA the host cannot decode: instruction 48 03 41 08 c3 .* at trap.sys\\+0x100a"},
        {"KUSER_SHARED_DATA past its page", cat({kSharedDataInRcx, {0x48, 0x8B, 0x81, 0xFC, 0x0F, 0x00, 0x00}, kRet}),
         "cannot decode"},
        {"division by zero", {0x31, 0xC9, 0x48, 0xF7, 0xF1, 0xC3},
         "STOP: 0x0000001E \\(0xFFFFFFFFC0000094,.*integer division fault: instruction 48 f7 f1 c3 .* at "
         "trap.sys\\+0x1002"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_DEATH(
            {
                CodeImage code({row.code});
                code.call(0);
            },
            row.report);
    }
}

// ------------------------------------------------------------------ chaining
// Read at run time, so the compiler sees no constant bad pointer.
volatile std::uintptr_t gFaultAddress = 0x10;

void previousHandler(int, siginfo_t *info, void *)
{
    // What a sanitizer or a test framework would see: the same fault.
    _exit(info->si_addr == reinterpret_cast<void *>(0x10) ? 42 : 43);
}

TEST(TrapDeathTest, FaultsOutsideImagesGoToTheHandlerInstalledBefore)
{
    EXPECT_EXIT(
        {
            struct sigaction action {};
            action.sa_sigaction = previousHandler;
            action.sa_flags = SA_SIGINFO;
            sigaction(SIGSEGV, &action, nullptr);
            CodeImage code({kRet}); // installs the loader's handler after this one
            *reinterpret_cast<volatile int *>(gFaultAddress) = 1;
        },
        ::testing::ExitedWithCode(42), "");
    EXPECT_EXIT(
        {
            signal(SIGSEGV, SIG_DFL);
            CodeImage code({kRet});
            *reinterpret_cast<volatile int *>(gFaultAddress) = 1;
        },
        ::testing::KilledBySignal(SIGSEGV), "");
}

// ------------------------------------------------------------------ a driver's life
// DriverEntry in INIT (xor eax,eax; ret) calls nothing; .text holds one
// routine (mov %cr8,%rax; ret) that the test calls through the driver.
struct DriverFiles {
    ScratchDir dir;
    std::string path;
    std::uint32_t init = 0, text = 0;

    DriverFiles()
    {
        petest::PeWriter writer;
        text = writer.addSection(".text", {0x44, 0x0F, 0x20, 0xC0, 0xC3}, petest::kCode);
        init = writer.addSection("INIT", {0x31, 0xC0, 0xC3}, petest::kCode);
        writer.setEntry(init);
        path = dir.write("life.sys", writer.build());
        dir.writeText("life.map", "Linker script and memory map\n"
                                  " .text$ReadIrql 0x0000000140001000 0x5 a.obj\n"
                                  " INIT$DriverEntry 0x0000000140002000 0x3 a.obj\n");
    }
};

TEST(TrapTest, DriverImagesLoadRunAndUnloadAsTheIoManagerDoes)
{
    DriverFiles files;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    PDRIVER_OBJECT driver = hk::loadDriverImage(u"life", files.path, &status);
    ASSERT_NE(driver, nullptr);
    EXPECT_EQ(status, STATUS_SUCCESS);
    auto start = reinterpret_cast<std::uintptr_t>(driver->DriverStart);
    EXPECT_EQ(driver->DriverSize, 0x3000u);
    EXPECT_EQ(hk::loader::describeAddress(driver->DriverStart), "life.sys+0x0");
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(driver->DriverInit), start + files.init);
    EXPECT_EQ(protectionAt(start + files.text), "r-xp");
    EXPECT_EQ(protectionAt(start + files.init), "---p") << "INIT is discarded once DriverEntry returns";
    auto readIrql = reinterpret_cast<WindowsFn>(start + files.text);
    EXPECT_EQ(readIrql(0, 0), 0u);

    EXPECT_EQ(hk::unloadDriver(driver), STATUS_SUCCESS);
    EXPECT_EQ(protectionAt(start + files.text), "---p") << "kept reserved, its memory returned";
}

TEST(TrapDeathTest, CallsIntoDiscardedOrUnloadedCodeAreReported)
{
    EXPECT_DEATH(
        {
            DriverFiles files;
            PDRIVER_OBJECT driver = hk::loadDriverImage(u"life", files.path, nullptr);
            reinterpret_cast<WindowsFn>(reinterpret_cast<std::uintptr_t>(driver->DriverStart) + files.init)(0, 0);
        },
        "STOP: 0x00000050 .*PAGE_FAULT_IN_NONPAGED_AREA: execution in section INIT, discarded after DriverEntry: "
        "life.sys\\+0x2000 \\(DriverEntry\\+0x0\\)");
    EXPECT_DEATH(
        {
            DriverFiles files;
            PDRIVER_OBJECT driver = hk::loadDriverImage(u"life", files.path, nullptr);
            auto code = reinterpret_cast<WindowsFn>(reinterpret_cast<std::uintptr_t>(driver->DriverStart) + files.text);
            hk::unloadDriver(driver);
            code(0, 0);
        },
        "STOP: 0x000000CE .*DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS: code of unloaded driver life.sys "
        "called: life.sys\\+0x1000 \\(ReadIrql\\+0x0\\)");
    EXPECT_DEATH(
        {
            DriverFiles files;
            PDRIVER_OBJECT driver = hk::loadDriverImage(u"life", files.path, nullptr);
            static KTIMER timer;
            static KDPC dpc;
            KeInitializeTimer(&timer);
            KeInitializeDpc(&dpc,
                            reinterpret_cast<PKDEFERRED_ROUTINE>(reinterpret_cast<std::uintptr_t>(driver->DriverStart) +
                                                                 files.text),
                            nullptr);
            LARGE_INTEGER due;
            due.QuadPart = -36000000000LL; // an hour
            KeSetTimer(&timer, due, &dpc);
            hk::unloadDriver(driver);
        },
        "STOP: 0x000000C7 \\(0x0000000000000000,.*TIMER_OR_DPC_INVALID: timer 0x[0-9a-f]+ still queued, its routine "
        "in \\\\Driver\\\\life, which is being unloaded");
}

} // namespace
} // namespace loadertest
