// Strings, checks, fault injection and the system threads of the I/O manager.
#include <cinttypes>
#include <cstdio>
#include <deque>

#include "internal.h"

namespace hostkernel::detail {

// ------------------------------------------------------------------ strings
std::u16string toU16(PCUNICODE_STRING s)
{
    if (s == nullptr || s->Buffer == nullptr) {
        return {};
    }
    return std::u16string(reinterpret_cast<const char16_t *>(s->Buffer), s->Length / sizeof(WCHAR));
}

char16_t foldChar(char16_t c)
{
    if (c >= u'a' && c <= u'z') {
        return char16_t(c - 0x20);
    }
    // Latin-1 lower-case letters, except the division sign and y-diaeresis.
    if (c >= 0xE0 && c <= 0xFE && c != 0xF7) {
        return char16_t(c - 0x20);
    }
    return c;
}

std::u16string upcase(std::u16string_view s)
{
    std::u16string out(s);
    for (auto &c : out) {
        c = foldChar(c);
    }
    return out;
}

bool equalNoCase(std::u16string_view a, std::u16string_view b)
{
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); i++) {
        if (foldChar(a[i]) != foldChar(b[i])) {
            return false;
        }
    }
    return true;
}

std::string narrow(std::u16string_view s)
{
    std::string out;
    out.reserve(s.size());
    for (char16_t c : s) {
        out.push_back(c >= 0x20 && c < 0x7F ? char(c) : '?');
    }
    return out;
}

std::string hex(std::uint64_t v)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%" PRIx64, v);
    return text;
}

const char *majorName(UCHAR major)
{
    static const char *const names[] = {
        "IRP_MJ_CREATE", "IRP_MJ_CREATE_NAMED_PIPE", "IRP_MJ_CLOSE", "IRP_MJ_READ", "IRP_MJ_WRITE",
        "IRP_MJ_QUERY_INFORMATION", "IRP_MJ_SET_INFORMATION", "IRP_MJ_QUERY_EA", "IRP_MJ_SET_EA",
        "IRP_MJ_FLUSH_BUFFERS", "IRP_MJ_QUERY_VOLUME_INFORMATION", "IRP_MJ_SET_VOLUME_INFORMATION",
        "IRP_MJ_DIRECTORY_CONTROL", "IRP_MJ_FILE_SYSTEM_CONTROL", "IRP_MJ_DEVICE_CONTROL",
        "IRP_MJ_INTERNAL_DEVICE_CONTROL", "IRP_MJ_SHUTDOWN", "IRP_MJ_LOCK_CONTROL", "IRP_MJ_CLEANUP",
        "IRP_MJ_CREATE_MAILSLOT", "IRP_MJ_QUERY_SECURITY", "IRP_MJ_SET_SECURITY", "IRP_MJ_POWER",
        "IRP_MJ_SYSTEM_CONTROL", "IRP_MJ_DEVICE_CHANGE", "IRP_MJ_QUERY_QUOTA", "IRP_MJ_SET_QUOTA", "IRP_MJ_PNP",
    };
    return major <= IRP_MJ_MAXIMUM_FUNCTION ? names[major] : "IRP_MJ_(invalid)";
}

// Strings handed to drivers come from paged pool under the I/O manager's tag,
// so that a driver that forgets RtlFreeUnicodeString shows up as a pool leak.
NTSTATUS allocateUnicodeString(std::u16string_view text, PUNICODE_STRING out)
{
    size_t bytes = (text.size() + 1) * sizeof(WCHAR);
    if (bytes > 0xFFFE) {
        return STATUS_INVALID_PARAMETER;
    }
    auto *buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, bytes, tag("IoSt")));
    if (buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    memcpy(buffer, text.data(), text.size() * sizeof(WCHAR));
    buffer[text.size()] = 0;
    out->Buffer = buffer;
    out->Length = USHORT(text.size() * sizeof(WCHAR));
    out->MaximumLength = USHORT(bytes);
    return STATUS_SUCCESS;
}

// ------------------------------------------------------------------ checks
void violation(Rule rule, const std::string &detail)
{
    reportViolation(rule, detail);
}

void requireIrqlAtMost(KIRQL max, const char *routine)
{
    KIRQL irql = KeGetCurrentIrql();
    if (irql > max) {
        violation(Rule::IrqlTooHigh, std::string(routine) + " called at IRQL " + std::to_string(irql) +
                                         " (allowed up to " + std::to_string(max) + ")");
    }
}

void bugCheck(ULONG code, ULONG_PTR p1, ULONG_PTR p2, const char *what)
{
    std::fprintf(stderr, "host kernel: %s\n", what);
    KeBugCheckEx(code, p1, p2, 0, 0);
}

// ------------------------------------------------------------------ faults
namespace {
struct ArmedFault {
    bool armed = false;
    unsigned skip = 0;
    unsigned count = 0; // calls still to fail once `skip` has run out
    NTSTATUS status = STATUS_SUCCESS;
};
std::mutex faultMutex;
ArmedFault faults[6];
} // namespace

bool takeIoFault(IoFault fault, NTSTATUS *status)
{
    std::lock_guard<std::mutex> lock(faultMutex);
    ArmedFault &f = faults[int(fault)];
    if (!f.armed) {
        return false;
    }
    if (f.skip > 0) {
        f.skip--;
        return false;
    }
    f.armed = --f.count > 0;
    if (status != nullptr) {
        *status = f.status;
    }
    return true;
}

// ------------------------------------------------------------------ threads
namespace {
std::atomic<std::uint64_t> nextThreadId{0x1000};
thread_local std::shared_ptr<_ETHREAD> systemThreadObject;
thread_local _ETHREAD *actingThread = nullptr;
thread_local std::shared_ptr<_ETHREAD> actingThreadRef;
} // namespace

std::shared_ptr<_ETHREAD> ProcessState::threadFor(std::thread::id id)
{
    std::lock_guard<std::mutex> lock(mutex);
    auto &slot = threads[id];
    if (!slot) {
        slot = std::make_shared<_ETHREAD>();
        slot->threadId = nextThreadId.fetch_add(4);
        slot->process = &eprocess;
    }
    return slot;
}

std::shared_ptr<_ETHREAD> currentThread()
{
    if (actingThread != nullptr) {
        return actingThreadRef;
    }
    if (!systemThreadObject) {
        systemThreadObject = std::make_shared<_ETHREAD>();
        systemThreadObject->threadId = nextThreadId.fetch_add(4);
    }
    return systemThreadObject;
}

ActingAs::ActingAs(const std::shared_ptr<ProcessState> &process)
    : previous_(actingThread), previousRef_(actingThreadRef)
{
    auto thread = process->threadFor(std::this_thread::get_id());
    actingThread = thread.get();
    actingThreadRef = std::move(thread);
}

ActingAs::~ActingAs()
{
    actingThread = previous_;
    actingThreadRef = std::move(previousRef_);
}

void runInSystemThread(const std::function<void()> &work, const char *what)
{
    std::thread thread([&] {
        work();
        KIRQL irql = KeGetCurrentIrql();
        if (irql != PASSIVE_LEVEL) {
            violation(Rule::IrqlNotRestored,
                      std::string(what) + " returned at IRQL " + std::to_string(irql) + " (called at PASSIVE_LEVEL)");
        }
    });
    thread.join();
}

namespace {
// The worker: one system thread for deferred PASSIVE_LEVEL work, started on
// first use and stopped at exit.
class Worker {
public:
    ~Worker()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        stop_ = true;
        cv_.notify_all();
        lock.unlock();
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    void post(std::function<void()> work)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!thread_.joinable()) {
            thread_ = std::thread([this] { run(); });
        }
        queue_.push_back(std::move(work));
        cv_.notify_all();
    }

    void drain()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        idleCv_.wait(lock, [this] { return queue_.empty() && !busy_; });
    }

private:
    void run()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            cv_.wait(lock, [this] { return stop_ || !queue_.empty(); });
            if (queue_.empty()) {
                return;
            }
            auto work = std::move(queue_.front());
            queue_.pop_front();
            busy_ = true;
            lock.unlock();
            work();
            lock.lock();
            busy_ = false;
            idleCv_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable cv_;
    std::condition_variable idleCv_;
    std::deque<std::function<void()>> queue_;
    bool busy_ = false;
    bool stop_ = false;
    std::thread thread_;
};

Worker &worker()
{
    static Worker w;
    return w;
}
} // namespace

void postToWorker(std::function<void()> work)
{
    worker().post(std::move(work));
}

void drainWorker()
{
    worker().drain();
}

} // namespace hostkernel::detail

namespace hostkernel {

void injectIoFault(IoFault fault, NTSTATUS status, unsigned skip, unsigned count)
{
    std::lock_guard<std::mutex> lock(detail::faultMutex);
    detail::faults[int(fault)] = {count > 0, skip, count, status};
}

bool ioFaultArmed(IoFault fault)
{
    std::lock_guard<std::mutex> lock(detail::faultMutex);
    return detail::faults[int(fault)].armed;
}

void clearIoFaults()
{
    std::lock_guard<std::mutex> lock(detail::faultMutex);
    for (auto &f : detail::faults) {
        f = {};
    }
}

} // namespace hostkernel
