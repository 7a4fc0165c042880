// The I/O manager's end-of-test checks and its reset between tests.
#include "hostkernel/pnp.h"
#include "internal.h"

namespace hostkernel {

namespace {

std::string joined(const std::vector<std::string> &items)
{
    std::string out;
    for (const auto &item : items) {
        out += (out.empty() ? "" : "; ") + item;
    }
    return out;
}

} // namespace

void drainIo()
{
    // A deferred close can queue DPCs and a DPC can complete a request whose
    // close is then deferred: settle until both are idle.
    for (int round = 0; round < 4; round++) {
        detail::drainWorker();
        detail::dpcQuiesce();
    }
}

void verifyIoQuiescent()
{
    drainIo();
    if (auto irps = detail::outstandingIrpDescriptions(); !irps.empty()) {
        detail::violation(Rule::IrpNeverCompleted, joined(irps));
    }
    if (auto irps = detail::unfreedKernelIrpDescriptions(); !irps.empty()) {
        detail::violation(Rule::ObjectReferenceLeak, joined(irps));
    }
    if (auto timers = detail::queuedTimerDescriptions(); !timers.empty()) {
        detail::violation(Rule::TimerFreedWhileQueued, "at the end of the test: " + joined(timers));
    }
    if (auto dpcs = detail::queuedDpcDescriptions(); !dpcs.empty()) {
        detail::violation(Rule::DpcFreedWhileQueued, "at the end of the test: " + joined(dpcs));
    }
    if (auto keys = detail::openRegistryHandlePaths(); !keys.empty()) {
        std::vector<std::string> names;
        for (auto &key : keys) {
            names.push_back("registry key " + detail::narrow(key) + " still open");
        }
        detail::violation(Rule::HandleLeak, joined(names));
    }
    std::vector<std::string> objects = detail::liveDeviceNodeDescriptions();
    for (auto &item : detail::liveDriverDescriptions()) {
        objects.push_back(item);
    }
    if (size_t files = detail::liveFileCount(); files > 0) {
        objects.push_back(std::to_string(files) + " file object(s) still open or referenced");
    }
    if (!objects.empty()) {
        detail::violation(Rule::ObjectReferenceLeak, joined(objects));
    }
}

void resetIoState()
{
    drainIo();
    {
        std::lock_guard<std::mutex> lock(detail::objectsMutex());
        detail::resetNamespaceLocked();
    }
    detail::resetPnp();
    detail::resetRegistry();
    detail::resetKernelIrps();
    clearIoFaults();
}

} // namespace hostkernel
