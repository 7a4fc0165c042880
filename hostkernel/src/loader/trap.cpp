// The fault handler behind image code: what a processor in kernel mode does
// that a user-mode thread cannot.
//
// - `mov %cr8,reg` (the DDK's inline KeGetCurrentIrql) and `mov reg,%cr8`
//   (its inline KeRaiseIrql/KeLowerIrql) fault with a general protection
//   fault in user mode; the handler reads or sets the calling thread's IRQL
//   through the executive's own IRQL routines, so a write above the current
//   level is checked as KeRaiseIrql and any other as KeLowerIrql, with the
//   instruction named as the caller. The DDK's inline routines are plain CR8
//   writes, so a "lower" to a higher level is a raise, as on Windows.
// - Reads of KUSER_SHARED_DATA (0xFFFFF78000000000, the DDK's inline
//   KeQueryInterruptTime, KeQuerySystemTime, KeQueryTickCount) fault as an
//   access to the kernel half; the handler decodes the load and serves the
//   value from the host's clocks, as KeQueryInterruptTime and
//   KeQuerySystemTime give them.
// - Any other fault in an image is reported as the bug check Windows would
//   raise, with the instruction's bytes, its offset in the image and its
//   symbol, and the process stops as on any verifier report.
// Faults elsewhere go to the handler installed before this one, as if this
// one were not there.
#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>

#include <cstdio>
#include <cstring>
#include <mutex>

#include "../executive/internal.h"
#include "internal.h"

namespace hostkernel::loader {

namespace {

constexpr std::uintptr_t kUserSharedData = 0xFFFFF78000000000ull;
constexpr std::size_t kUserSharedDataSize = 0x1000;
// The clock tick Windows reports on most machines (KeQueryTimeIncrement).
constexpr ULONGLONG kTimeIncrement = 156250;

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};
struct sigaction gPrevious[NSIG];

// greg indices by the instruction set's register numbers (rax, rcx, ...).
constexpr int kRegister[16] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP, REG_RSI, REG_RDI,
                               REG_R8,  REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15};

greg_t &reg(ucontext_t *uc, unsigned n)
{
    return uc->uc_mcontext.gregs[kRegister[n & 15]];
}

// The instruction bytes at `rip`, as far as the section holding them goes.
std::size_t instructionBytes(const Image &image, std::uintptr_t rip, std::uint8_t (&out)[16])
{
    for (const Image::Section &s : image.sections()) {
        if (rip >= s.address && rip < s.address + s.size && (s.protection & PROT_READ) != 0) {
            std::size_t n = std::min<std::size_t>(sizeof out, s.address + s.size - rip);
            std::memcpy(out, reinterpret_cast<const void *>(rip), n);
            return n;
        }
    }
    return 0;
}

const Image::Section *sectionOf(const Image &image, std::uintptr_t address)
{
    for (const Image::Section &s : image.sections()) {
        if (address >= s.address && address < s.address + s.size) {
            return &s;
        }
    }
    return nullptr;
}

std::string hexBytes(const std::uint8_t *bytes, std::size_t n)
{
    std::string text;
    char byte[4];
    for (std::size_t i = 0; i < n; i++) {
        std::snprintf(byte, sizeof byte, "%s%02x", i == 0 ? "" : " ", bytes[i]);
        text += byte;
    }
    return text.empty() ? "(unreadable)" : text;
}

ULONG_PTR statusArgument(ULONG status)
{
    return ULONG_PTR(LONG_PTR(LONG(status))); // as the debugger shows it, sign-extended
}

[[noreturn]] void bugCheck(ULONG code, ULONG_PTR p1, ULONG_PTR p2, ULONG_PTR p3, ULONG_PTR p4, const std::string &what)
{
    hostkernel::detail::stopWithReport(hostkernel::detail::bugCheckLine(code, p1, p2, p3, p4) + "\n*** " + what);
}

// Where a faulting instruction is: "probe.sys+0x1010 (probe_halt+0x4)",
// and its bytes.
std::string site(const Image &image, std::uintptr_t rip)
{
    std::uint8_t bytes[16];
    std::size_t n = instructionBytes(image, rip, bytes);
    return "instruction " + hexBytes(bytes, std::min<std::size_t>(n, 8)) + " at " +
           image.describe(reinterpret_cast<const void *>(rip));
}

// ------------------------------------------------------------------ CR8
// REX.R 0F 20 /r (mov %cr8,reg) and REX.R 0F 22 /r (mov reg,%cr8). The
// register operand is the r/m field whatever the mod bits say.
bool emulateCr8(ucontext_t *uc, const std::uint8_t *b, std::size_t n, std::uintptr_t rip)
{
    if (n < 4 || (b[0] & 0xF0) != 0x40 || b[1] != 0x0F || (b[2] != 0x20 && b[2] != 0x22)) {
        return false;
    }
    unsigned control = ((b[3] >> 3) & 7) | ((b[0] & 4) != 0 ? 8 : 0);
    unsigned gpr = (b[3] & 7) | ((b[0] & 1) != 0 ? 8 : 0);
    if (control != 8) {
        return false;
    }
    const void *where = reinterpret_cast<const void *>(rip);
    if (b[2] == 0x20) {
        reg(uc, gpr) = greg_t(KeGetCurrentIrql());
    } else {
        auto value = static_cast<std::uint64_t>(reg(uc, gpr));
        if (value > HIGH_LEVEL) {
            // The processor refuses CR8's reserved bits with a #GP.
            return false;
        }
        KIRQL wanted = KIRQL(value);
        if (wanted > KeGetCurrentIrql()) {
            KIRQL old;
            hostkernel::detail::raiseIrqlAt(wanted, &old, where);
        } else {
            hostkernel::detail::lowerIrqlAt(wanted, where);
        }
    }
    uc->uc_mcontext.gregs[REG_RIP] = greg_t(rip + 4);
    return true;
}

// ------------------------------------------------------------------ KUSER_SHARED_DATA
thread_local std::uint8_t tSharedPage[kUserSharedDataSize];

template <typename T> void put(std::size_t offset, T value)
{
    std::memcpy(tSharedPage + offset, &value, sizeof value);
}

// KSYSTEM_TIME: LowPart, High1Time, High2Time (equal when consistent).
void putSystemTime(std::size_t offset, ULONGLONG value)
{
    put<ULONG>(offset, ULONG(value));
    put<LONG>(offset + 4, LONG(value >> 32));
    put<LONG>(offset + 8, LONG(value >> 32));
}

// The page as it reads now.
void fillSharedPage()
{
    std::memset(tSharedPage, 0, sizeof tSharedPage);
    ULONGLONG interrupt = KeQueryInterruptTime();
    LARGE_INTEGER system;
    KeQuerySystemTime(&system);
    ULONGLONG ticks = interrupt / kTimeIncrement;
    put<ULONG>(0x000, ULONG(ticks));                       // TickCountLowDeprecated
    put<ULONG>(0x004, ULONG((kTimeIncrement << 24) / 10000)); // TickCountMultiplier
    putSystemTime(0x008, interrupt);                       // InterruptTime
    putSystemTime(0x014, ULONGLONG(system.QuadPart));      // SystemTime
    putSystemTime(0x020, 0);                               // TimeZoneBias: UTC
    put<USHORT>(0x02C, 0x8664);                            // ImageNumberLow
    put<USHORT>(0x02E, 0x8664);                            // ImageNumberHigh
    const char16_t root[] = u"C:\\Windows";
    std::memcpy(tSharedPage + 0x030, root, sizeof root);  // NtSystemRoot
    put<ULONG>(0x264, 1);                                  // NtProductType: NtProductWinNt
    put<UCHAR>(0x268, 1);                                  // ProductTypeIsValid
    put<ULONG>(0x26C, 10);                                 // NtMajorVersion
    put<ULONG>(0x270, 0);                                  // NtMinorVersion
    putSystemTime(0x320, ticks);                           // TickCount
}

struct Load {
    unsigned size = 0;     // bytes read
    unsigned destSize = 0; // bytes written to the register (extensions)
    bool signExtend = false;
    bool highByte = false; // AH, CH, DH, BH
    unsigned dest = 0;
    std::uintptr_t address = 0;
    std::size_t length = 0;
};

// The load forms a compiler emits for a read of a fixed address: mov (8A,
// 8B, A0, A1), movzx/movsx (0F B6/B7/BE/BF) and movsxd (63), with any
// ModRM/SIB memory operand. False for anything else.
bool decodeLoad(ucontext_t *uc, const std::uint8_t *b, std::size_t n, std::uintptr_t rip, Load *load)
{
    std::size_t i = 0;
    bool operand16 = false;
    for (; i < n; i++) {
        if (b[i] == 0x66) {
            operand16 = true;
        } else if (b[i] == 0x2E || b[i] == 0x3E || b[i] == 0x26 || b[i] == 0x36) {
            // Segment overrides other than FS and GS mean nothing in 64-bit mode.
        } else {
            break;
        }
    }
    unsigned rex = 0;
    if (i < n && (b[i] & 0xF0) == 0x40) {
        rex = b[i++];
    }
    bool wide = (rex & 8) != 0;
    unsigned full = wide ? 8 : operand16 ? 2 : 4;
    if (i >= n) {
        return false;
    }
    unsigned opcode = b[i++];
    if (opcode == 0xA0 || opcode == 0xA1) {
        if (i + 8 > n) {
            return false;
        }
        std::uint64_t address;
        std::memcpy(&address, b + i, 8);
        load->size = load->destSize = opcode == 0xA0 ? 1 : full;
        load->dest = 0;
        load->address = address;
        load->length = i + 8;
        return true;
    }
    if (opcode == 0x8A || opcode == 0x8B) {
        load->size = load->destSize = opcode == 0x8A ? 1 : full;
    } else if (opcode == 0x63 && wide) {
        load->size = 4;
        load->destSize = 8;
        load->signExtend = true;
    } else if (opcode == 0x0F && i < n && (b[i] == 0xB6 || b[i] == 0xB7 || b[i] == 0xBE || b[i] == 0xBF)) {
        unsigned second = b[i++];
        load->size = (second & 1) != 0 ? 2 : 1;
        load->destSize = full;
        load->signExtend = second >= 0xBE;
    } else {
        return false;
    }
    if (i >= n) {
        return false;
    }
    unsigned modrm = b[i++];
    unsigned mod = modrm >> 6, rm = modrm & 7;
    load->dest = ((modrm >> 3) & 7) | ((rex & 4) != 0 ? 8 : 0);
    load->highByte = opcode == 0x8A && rex == 0 && load->dest >= 4 && load->dest <= 7;
    if (mod == 3) {
        return false; // a register operand: not a load
    }
    std::uint64_t address = 0;
    bool ripRelative = false;
    if (rm == 4) {
        if (i >= n) {
            return false;
        }
        unsigned sib = b[i++];
        unsigned scale = sib >> 6;
        unsigned index = ((sib >> 3) & 7) | ((rex & 2) != 0 ? 8 : 0);
        unsigned base = (sib & 7) | ((rex & 1) != 0 ? 8 : 0);
        if (index != 4) {
            address += std::uint64_t(reg(uc, index)) << scale;
        }
        if ((base & 7) == 5 && mod == 0) {
            mod = 2; // disp32, no base
        } else {
            address += std::uint64_t(reg(uc, base));
        }
    } else if (rm == 5 && mod == 0) {
        ripRelative = true;
        mod = 2;
    } else {
        address += std::uint64_t(reg(uc, rm | ((rex & 1) != 0 ? 8 : 0)));
    }
    if (mod == 1) {
        if (i + 1 > n) {
            return false;
        }
        address += std::uint64_t(std::int64_t(std::int8_t(b[i])));
        i += 1;
    } else if (mod == 2) {
        if (i + 4 > n) {
            return false;
        }
        std::int32_t displacement;
        std::memcpy(&displacement, b + i, 4);
        address += std::uint64_t(std::int64_t(displacement));
        i += 4;
    }
    if (ripRelative) {
        address += rip + i;
    }
    load->address = address;
    load->length = i;
    return true;
}

bool emulateSharedDataLoad(ucontext_t *uc, const std::uint8_t *b, std::size_t n, std::uintptr_t rip)
{
    Load load;
    if (!decodeLoad(uc, b, n, rip, &load) || load.address < kUserSharedData ||
        load.address - kUserSharedData + load.size > kUserSharedDataSize) {
        return false;
    }
    fillSharedPage();
    std::uint64_t value = 0;
    std::memcpy(&value, tSharedPage + (load.address - kUserSharedData), load.size);
    if (load.signExtend) {
        unsigned shift = 64 - 8 * load.size;
        value = std::uint64_t(std::int64_t(value << shift) >> shift);
    }
    greg_t &dest = reg(uc, load.highByte ? load.dest - 4 : load.dest);
    auto old = static_cast<std::uint64_t>(dest);
    if (load.highByte) {
        dest = greg_t((old & ~0xFF00ull) | ((value & 0xFF) << 8));
    } else if (load.destSize >= 4) {
        // A 32-bit destination clears the upper half, as the processor does.
        dest = greg_t(load.destSize == 8 ? value : value & 0xFFFFFFFFull);
    } else {
        std::uint64_t mask = load.destSize == 1 ? 0xFF : 0xFFFF;
        dest = greg_t((old & ~mask) | (value & mask));
    }
    uc->uc_mcontext.gregs[REG_RIP] = greg_t(rip + load.length);
    return true;
}

// ------------------------------------------------------------------ chaining
void chain(int sig, siginfo_t *info, void *context)
{
    struct sigaction &previous = gPrevious[sig];
    if ((previous.sa_flags & SA_SIGINFO) != 0 && previous.sa_sigaction != nullptr) {
        sigset_t saved;
        pthread_sigmask(SIG_BLOCK, &previous.sa_mask, &saved);
        previous.sa_sigaction(sig, info, context);
        pthread_sigmask(SIG_SETMASK, &saved, nullptr);
        return;
    }
    bool fault = info->si_code > 0; // raised by the processor, not sent
    if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
        sigset_t saved;
        pthread_sigmask(SIG_BLOCK, &previous.sa_mask, &saved);
        previous.sa_handler(sig);
        pthread_sigmask(SIG_SETMASK, &saved, nullptr);
        return;
    }
    if (previous.sa_handler == SIG_IGN && !fault) {
        return;
    }
    // The default action (an ignored fault gets it too, as the kernel
    // forces): restore it; a fault happens again when the instruction
    // re-runs, a sent signal is sent again.
    struct sigaction defaults {};
    defaults.sa_handler = SIG_DFL;
    sigemptyset(&defaults.sa_mask);
    sigaction(sig, &defaults, nullptr);
    if (!fault) {
        raise(sig);
    }
}

// ------------------------------------------------------------------ the handler
[[noreturn]] void reportFaultInImage(int sig, siginfo_t *info, ucontext_t *uc, const Image &image,
                                     detail::ImageState state)
{
    auto rip = std::uintptr_t(uc->uc_mcontext.gregs[REG_RIP]);
    auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
    std::string where = image.describe(reinterpret_cast<const void *>(rip));
    if (state == detail::ImageState::Unloaded) {
        bugCheck(0xCE, rip, 0, 0, 0,
                 "DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS: code of unloaded driver " + image.name() +
                     " called: " + where);
    }
    const Image::Section *section = sectionOf(image, rip);
    if (section != nullptr && section->discardable && section->protection == PROT_NONE) {
        auto returnAddress = *reinterpret_cast<const std::uintptr_t *>(uc->uc_mcontext.gregs[REG_RSP]);
        std::string caller = describeAddress(reinterpret_cast<const void *>(returnAddress));
        bugCheck(0x50, rip, 8, rip, 0,
                 "PAGE_FAULT_IN_NONPAGED_AREA: execution in section " + section->name +
                     ", discarded after DriverEntry: " + where +
                     (caller.empty() ? std::string() : ", called from " + caller));
    }
    std::uint8_t bytes[16];
    std::size_t n = instructionBytes(image, rip, bytes);
    std::string what = site(image, rip);
    switch (sig) {
    case SIGSEGV:
        if (info->si_code == SI_KERNEL) {
            // A #GP: a privileged instruction, or an address the processor
            // does not take (non-canonical).
            bool privileged = n >= 1 && (bytes[0] == 0xF4 || bytes[0] == 0xFA || bytes[0] == 0xFB ||
                                         (bytes[0] >= 0xE4 && bytes[0] <= 0xE7) || (bytes[0] >= 0xEC && bytes[0] <= 0xEF));
            for (std::size_t i = 0; !privileged && i + 1 < n && i < 2; i++) {
                privileged = bytes[i] == 0x0F && (bytes[i + 1] == 0x01 || bytes[i + 1] == 0x06 || bytes[i + 1] == 0x08 ||
                                                  bytes[i + 1] == 0x09 || bytes[i + 1] == 0x20 || bytes[i + 1] == 0x21 ||
                                                  bytes[i + 1] == 0x22 || bytes[i + 1] == 0x23 || bytes[i + 1] == 0x30 ||
                                                  bytes[i + 1] == 0x32);
            }
            if (privileged) {
                bugCheck(0x1E, statusArgument(0xC0000096), rip, 0, 0,
                         "KMODE_EXCEPTION_NOT_HANDLED: privileged instruction: " + what);
            }
            bugCheck(0x1E, statusArgument(0xC0000005), rip, 0, ~ULONG_PTR(0),
                     "KMODE_EXCEPTION_NOT_HANDLED: general protection fault: " + what);
        }
        {
            bool write = (uc->uc_mcontext.gregs[REG_ERR] & 2) != 0;
            if (address >= kUserSharedData && address - kUserSharedData < kUserSharedDataSize) {
                if (write) {
                    bugCheck(0xBE, address, 0, rip, 0,
                             "ATTEMPTED_WRITE_TO_READONLY_MEMORY: write to KUSER_SHARED_DATA: " + what);
                }
                bugCheck(0x1E, statusArgument(0xC0000005), rip, 0, address,
                         "KMODE_EXCEPTION_NOT_HANDLED: a read of KUSER_SHARED_DATA the host cannot decode: " + what);
            }
            char text[64];
            std::snprintf(text, sizeof text, "%s of 0x%llx", write ? "write" : "read",
                          static_cast<unsigned long long>(address));
            std::string target = describeAddress(info->si_addr);
            bugCheck(0x50, address, write ? 1 : 0, rip, 0,
                     std::string("PAGE_FAULT_IN_NONPAGED_AREA: ") + text +
                         (target.empty() ? "" : " (" + target + ")") + ": " + what);
        }
    case SIGILL:
        bugCheck(0x1E, statusArgument(0xC000001D), rip, 0, 0, "KMODE_EXCEPTION_NOT_HANDLED: illegal instruction: " + what);
    case SIGFPE:
        bugCheck(0x1E, statusArgument(info->si_code == FPE_INTOVF ? 0xC0000095 : 0xC0000094), rip, 0, 0,
                 "KMODE_EXCEPTION_NOT_HANDLED: integer division fault: " + what);
    default:
        bugCheck(0x1E, statusArgument(0xC0000005), rip, 0, address,
                 "KMODE_EXCEPTION_NOT_HANDLED: bus error: " + what);
    }
}

void onFault(int sig, siginfo_t *info, void *context)
{
    auto *uc = static_cast<ucontext_t *>(context);
    auto rip = std::uintptr_t(uc->uc_mcontext.gregs[REG_RIP]);
    int savedErrno = errno;
    detail::ImageHit hit = detail::imageAt(rip);
    if (hit.image != nullptr && info->si_code > 0) {
        if (hit.state == detail::ImageState::Loaded && sig == SIGSEGV) {
            std::uint8_t bytes[16];
            std::size_t n = instructionBytes(*hit.image, rip, bytes);
            if ((info->si_code == SI_KERNEL && emulateCr8(uc, bytes, n, rip)) ||
                (info->si_code == SEGV_MAPERR && (uc->uc_mcontext.gregs[REG_ERR] & 2) == 0 &&
                 emulateSharedDataLoad(uc, bytes, n, rip))) {
                errno = savedErrno;
                return;
            }
        }
        reportFaultInImage(sig, info, uc, *hit.image, hit.state);
    }
    // Host code that touched an image's discarded or unloaded pages (a
    // string from INIT handed over and kept, say) is the driver's fault too.
    if ((sig == SIGSEGV || sig == SIGBUS) && info->si_code > 0) {
        detail::ImageHit data = detail::imageAt(reinterpret_cast<std::uintptr_t>(info->si_addr));
        if (data.image != nullptr) {
            const Image::Section *section =
                sectionOf(*data.image, reinterpret_cast<std::uintptr_t>(info->si_addr));
            std::string what = section != nullptr && section->discardable ? "discarded section " + section->name
                               : data.state == detail::ImageState::Unloaded ? std::string("unloaded driver")
                                                                            : std::string("image");
            bugCheck(0x50, ULONG_PTR(info->si_addr), 0, rip, 0,
                     "PAGE_FAULT_IN_NONPAGED_AREA: host code at " + hostkernel::detail::hexAddress(
                         reinterpret_cast<const void *>(rip)) + " touched " + what + " of " + data.image->name() +
                         ": " + data.image->describe(info->si_addr));
        }
    }
    errno = savedErrno;
    chain(sig, info, context);
}

} // namespace

void installTrap()
{
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction action {};
        action.sa_sigaction = onFault;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK;
        sigemptyset(&action.sa_mask);
        for (int sig : kSignals) {
            sigaction(sig, &action, &gPrevious[sig]);
        }
    });
}

} // namespace hostkernel::loader
