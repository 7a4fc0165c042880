// How the host verifier reports, and the end-of-test checks.
//
// A violation stops the process as a bug check stops Windows: the report
// names the rule, what broke it and where, then aborts. Tests show a rule
// firing with death tests; the test main runs the end-of-test checks through
// quiescenceProblems() so that a test leaving the kernel dirty fails alone.
#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "hk/ke.h"
#include "hostkernel/loader.h"
#include "internal.h"

namespace hostkernel {

namespace {

void writeStderr(const std::string &text)
{
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(STDERR_FILENO, text.data() + done, text.size() - done);
        if (n <= 0) {
            break;
        }
        done += size_t(n);
    }
}

[[noreturn]] void stop(const std::string &report)
{
    writeStderr(report + "\n");
    void *frames[48];
    int count = backtrace(frames, 48);
    writeStderr("*** HOST VERIFIER: stack of the violating thread:\n");
    backtrace_symbols_fd(frames, count, STDERR_FILENO);
    std::abort();
}

struct Problem {
    Rule rule;
    std::string detail;
};

std::vector<Problem> problems(bool checkPool)
{
    std::vector<Problem> found;
    KIRQL irql = KeGetCurrentIrql();
    if (irql != PASSIVE_LEVEL) {
        found.push_back({Rule::IrqlNotRestored, "the test ends at IRQL " + std::to_string(irql) +
                                                    " instead of PASSIVE_LEVEL"});
    }
    if (detail::heldSpinLockCount() > 0) {
        found.push_back({Rule::SpinLockLeftHeld, "the test ends with " + detail::heldSpinLockDescription()});
    }
    if (std::string text = detail::unacknowledgedAssertionText(); !text.empty()) {
        found.push_back({Rule::UnexpectedAssertion, text});
    }
    if (checkPool) {
        if (std::string text = detail::poolLeakReport(); !text.empty()) {
            found.push_back({Rule::PoolLeak, text});
        }
    }
    return found;
}

} // namespace

const char *ruleName(Rule rule)
{
    switch (rule) {
    case Rule::IrqlTooHigh: return "IrqlTooHigh";
    case Rule::IrqlTooLow: return "IrqlTooLow";
    case Rule::IrqlNotRestored: return "IrqlNotRestored";
    case Rule::SpinLockNotHeld: return "SpinLockNotHeld";
    case Rule::SpinLockRecursion: return "SpinLockRecursion";
    case Rule::SpinLockOrder: return "SpinLockOrder";
    case Rule::SpinLockLeftHeld: return "SpinLockLeftHeld";
    case Rule::PageableCodeAtRaisedIrql: return "PageableCodeAtRaisedIrql";
    case Rule::PoolLeak: return "PoolLeak";
    case Rule::PoolDoubleFree: return "PoolDoubleFree";
    case Rule::PoolTagMismatch: return "PoolTagMismatch";
    case Rule::UnexpectedAssertion: return "UnexpectedAssertion";
    case Rule::IrpDoubleCompletion: return "IrpDoubleCompletion";
    case Rule::IrpCompletedWithCancelRoutine: return "IrpCompletedWithCancelRoutine";
    case Rule::IrpPendingNotMarked: return "IrpPendingNotMarked";
    case Rule::IrpPendingMarkedButCompleted: return "IrpPendingMarkedButCompleted";
    case Rule::IrpNeverCompleted: return "IrpNeverCompleted";
    case Rule::TimerFreedWhileQueued: return "TimerFreedWhileQueued";
    case Rule::DpcFreedWhileQueued: return "DpcFreedWhileQueued";
    case Rule::HandleLeak: return "HandleLeak";
    case Rule::ObjectReferenceLeak: return "ObjectReferenceLeak";
    case Rule::ObjectDoubleRelease: return "ObjectDoubleRelease";
    case Rule::ComIdentity: return "ComIdentity";
    }
    return "UnknownRule";
}

void reportViolation(Rule rule, const std::string &detail, const char *file, int line)
{
    std::string report = std::string("*** HOST VERIFIER: ") + ruleName(rule) + ": " + detail;
    if (file != nullptr) {
        report += " (at " + std::string(file) + ":" + std::to_string(line) + ")";
    }
    stop(report);
}

std::vector<std::string> quiescenceProblems(bool checkPool)
{
    std::vector<std::string> texts;
    for (const Problem &problem : problems(checkPool)) {
        texts.push_back(std::string(ruleName(problem.rule)) + ": " + problem.detail);
    }
    return texts;
}

void verifyQuiescent(bool checkPool)
{
    std::vector<Problem> found = problems(checkPool);
    if (!found.empty()) {
        reportViolation(found.front().rule, found.front().detail);
    }
}

void forgetFailedTestState()
{
    detail::setCurrentIrqlUnchecked(PASSIVE_LEVEL);
    detail::forgetHeldSpinLocks();
    detail::resetAssertions();
    detail::abandonLivePool();
}

void resetBetweenTests()
{
    clearPoolFaults();
    resetLockOrderHistory();
    detail::resetAssertions();
}

namespace detail {

std::string hexAddress(const void *p)
{
    char text[32];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(reinterpret_cast<ULONG_PTR>(p)));
    return text;
}

std::string bugCheckLine(ULONG code, ULONG_PTR p1, ULONG_PTR p2, ULONG_PTR p3, ULONG_PTR p4)
{
    char text[160];
    std::snprintf(text, sizeof text, "*** STOP: 0x%08X (0x%016llX,0x%016llX,0x%016llX,0x%016llX)", code,
                  static_cast<unsigned long long>(p1), static_cast<unsigned long long>(p2),
                  static_cast<unsigned long long>(p3), static_cast<unsigned long long>(p4));
    return text;
}

void stopWithReport(const std::string &report)
{
    stop(report);
}

std::string callerSite(const void *returnAddress)
{
    if (returnAddress == nullptr) {
        return {};
    }
    // Code of a loaded driver image: the image, its offset and the link
    // map's symbol.
    if (std::string inImage = loader::describeAddress(returnAddress); !inImage.empty()) {
        return " (called from " + inImage + ")";
    }
    Dl_info info{};
    std::string where;
    if (dladdr(returnAddress, &info) != 0 && info.dli_sname != nullptr) {
        int status = -1;
        char *demangled = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status);
        where = status == 0 && demangled != nullptr ? demangled : info.dli_sname;
        std::free(demangled);
        where += "+" + hexAddress(reinterpret_cast<const void *>(ULONG_PTR(returnAddress) -
                                                                  ULONG_PTR(info.dli_saddr)));
    } else if (info.dli_fname != nullptr) {
        // No symbol table entry: module and offset, for addr2line.
        std::string module = info.dli_fname;
        size_t slash = module.rfind('/');
        where = module.substr(slash == std::string::npos ? 0 : slash + 1) + "+" +
                hexAddress(reinterpret_cast<const void *>(ULONG_PTR(returnAddress) - ULONG_PTR(info.dli_fbase)));
    } else {
        where = hexAddress(returnAddress);
    }
    return " (called from " + where + ")";
}

} // namespace detail
} // namespace hostkernel

void KeBugCheckEx(ULONG code, ULONG_PTR p1, ULONG_PTR p2, ULONG_PTR p3, ULONG_PTR p4)
{
    hostkernel::stop(hostkernel::detail::bugCheckLine(code, p1, p2, p3, p4));
}

void HkVerifyPageableCode(PCSTR file, ULONG line)
{
    KIRQL irql = KeGetCurrentIrql();
    if (irql > APC_LEVEL) {
        hostkernel::reportViolation(hostkernel::Rule::PageableCodeAtRaisedIrql,
                                    "pageable code called at IRQL " + std::to_string(irql), file, int(line));
    }
}
