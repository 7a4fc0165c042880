// The framework's counted objects: their registry, the quarantine of released
// ones, the settings tests may change, and the end-of-test check.
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include <execinfo.h>
#include <unistd.h>
#include <sys/syscall.h>

#include "internal.h"

namespace hostkernel::detail::pc {

namespace {

struct Registry {
    std::mutex mutex;
    std::set<Object *> live;
    std::vector<Object *> quarantine;
    Settings settings;
};

Registry &registry()
{
    static Registry *r = new Registry; // outlives every object, including static ones
    return *r;
}

std::atomic<long> gEvents{0};
std::atomic<long> gBuffers{0};

} // namespace

struct Object::Trace {
    struct Step {
        char op = 0; // '+' AddRef, '-' Release
        long count = 0;
        long thread = 0;
        int depth = 0;
        void *frames[10] = {};
    };
    static constexpr size_t kSteps = 48;

    mutable std::mutex mutex;
    Step steps[kSteps];
    size_t next = 0; // steps ever recorded
};

Object::Object(const char *kind, bool traced) : kind_(kind)
{
    if (traced) {
        trace_ = std::make_unique<Trace>();
        record('+', 1);
    }
    Registry &r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.live.insert(this);
}

Object::~Object() = default;

void Object::record(char op, long count)
{
    if (trace_ == nullptr) {
        return;
    }
    Trace::Step step;
    step.op = op;
    step.count = count;
    step.thread = long(syscall(SYS_gettid));
    step.depth = backtrace(step.frames, int(std::size(step.frames)));
    std::lock_guard<std::mutex> lock(trace_->mutex);
    trace_->steps[trace_->next++ % Trace::kSteps] = step;
}

std::string Object::history() const
{
    if (trace_ == nullptr) {
        return {};
    }
    std::lock_guard<std::mutex> lock(trace_->mutex);
    // Each step's count is exact; steps of different threads may be listed
    // a little out of order (a thread records after its count changed).
    std::string text = "; its last reference steps, oldest first:";
    size_t first = trace_->next > Trace::kSteps ? trace_->next - Trace::kSteps : 0;
    for (size_t i = first; i < trace_->next; i++) {
        const Trace::Step &step = trace_->steps[i % Trace::kSteps];
        text += std::string("\n  ") + (step.op == '+' ? "AddRef" : "Release") + " -> " + std::to_string(step.count) +
                " on thread " + std::to_string(step.thread) + ":";
        char **names = backtrace_symbols(step.frames, step.depth);
        // The first frame is record() itself, the second addRef, release or
        // the constructor.
        for (int f = 2; names != nullptr && f < step.depth; f++) {
            text += std::string("\n      ") + names[f];
        }
        free(names);
    }
    return text;
}

ULONG Object::addRef()
{
    long count = ++refs_;
    record('+', count);
    // Nobody may take a reference on an object whose count was zero: it is
    // dead, or its last holder is finishing it.
    if (count <= 1) {
        reportViolation(Rule::ObjectDoubleRelease,
                        std::string("AddRef on a released framework object (") + kind_ + ")" + history());
    }
    return ULONG(count);
}

ULONG Object::release()
{
    long count = --refs_;
    record('-', count);
    // Only the count tells: other holders may finish the object between this
    // decrement and any later look at it, and the quarantine keeps a dead
    // object's count, so a release too many always goes below zero.
    if (count < 0) {
        reportViolation(Rule::ObjectDoubleRelease,
                        std::string("Release of a framework object whose last reference is gone (") + kind_ + ")" +
                            history());
    }
    if (count > 0) {
        return ULONG(count);
    }
    finalRelease();
    Registry &r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.live.erase(this);
    r.quarantine.push_back(this);
    return 0;
}

void freeQuarantine()
{
    std::vector<Object *> dead;
    {
        Registry &r = registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        dead.swap(r.quarantine);
    }
    for (Object *object : dead) {
        delete object;
    }
}

size_t liveObjectCount()
{
    Registry &r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.live.size();
}

std::vector<std::string> liveObjectDescriptions()
{
    Registry &r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    std::vector<std::string> out;
    for (Object *object : r.live) {
        out.push_back(std::string(object->kind()) + " (" + std::to_string(object->count()) + ")");
    }
    return out;
}

Settings settings()
{
    Registry &r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.settings;
}

bool takeServiceGroupFault(NTSTATUS *status)
{
    Registry &r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (!r.settings.serviceGroupFault) {
        return false;
    }
    r.settings.serviceGroupFault = false;
    *status = r.settings.serviceGroupFaultStatus;
    return true;
}

void countEvents(long delta) { gEvents += delta; }
void countBuffers(long delta) { gBuffers += delta; }

std::string guidText(const GUID &g)
{
    char text[40];
    snprintf(text, sizeof(text), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", g.Data1, g.Data2, g.Data3,
             g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return text;
}

std::string narrowText(std::u16string_view s)
{
    std::string out;
    for (char16_t c : s) {
        out.push_back(c >= 0x20 && c < 0x7F ? char(c) : '?');
    }
    return out;
}

bool equalNoCase(std::u16string_view a, std::u16string_view b)
{
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); i++) {
        char16_t x = a[i] >= u'a' && a[i] <= u'z' ? char16_t(a[i] - 32) : a[i];
        char16_t y = b[i] >= u'a' && b[i] <= u'z' ? char16_t(b[i] - 32) : b[i];
        if (x != y) {
            return false;
        }
    }
    return true;
}

void checkComIdentity(PUNKNOWN first, PUNKNOWN second, const char *what)
{
    auto identity = [&](PUNKNOWN from, const char *which) -> PUNKNOWN {
        PUNKNOWN unknown = NULL;
        NTSTATUS status = from->QueryInterface(IID_IUnknown, reinterpret_cast<PVOID *>(&unknown));
        if (!NT_SUCCESS(status) || unknown == NULL) {
            char text[160];
            std::snprintf(text, sizeof text, "the driver's %s refuses IID_IUnknown through its %s (status %08X)",
                          what, which, unsigned(status));
            reportViolation(Rule::ComIdentity, text);
        }
        unknown->Release();
        return unknown; // compared by address only
    };
    PUNKNOWN one = identity(first, "first interface");
    if (second != NULL && identity(second, "second interface") != one) {
        reportViolation(Rule::ComIdentity,
                        std::string("the driver's ") + what + " answers IID_IUnknown with two different pointers");
    }
}

} // namespace hostkernel::detail::pc

namespace hostkernel {

using namespace detail::pc;

PortclsStats portclsStats()
{
    PortclsStats s;
    s.liveObjects = liveObjectCount();
    s.outstandingEvents = size_t(gEvents.load());
    s.outstandingBuffers = size_t(gBuffers.load());
    s.openFilters = openFilterCount();
    s.openPins = openPinCount();
    // Each registration holds one reference on its port; the adapters know them.
    s.registeredSubdevices = registeredSubdeviceCount();
    s.adapterMaxObjects = adapterMaxObjects();
    return s;
}

std::vector<std::string> portclsLiveObjects() { return liveObjectDescriptions(); }

void setDmusLargeBufferSize(USHORT bytes)
{
    Registry &r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.settings.largeBufferSize = bytes;
}

void setDmusEventLimit(size_t events)
{
    Registry &r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.settings.eventLimit = events;
}

void failNextServiceGroup(NTSTATUS status)
{
    Registry &r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.settings.serviceGroupFault = true;
    r.settings.serviceGroupFaultStatus = status;
}

void setCaptureQueueLimit(size_t bytes)
{
    Registry &r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.settings.captureQueueLimit = bytes;
}

void verifyPortclsQuiescent()
{
    drainIo();
    std::vector<std::string> problems;
    for (const std::string &object : liveObjectDescriptions()) {
        problems.push_back("framework object " + object + " never released");
    }
    if (long events = gEvents.load(); events != 0) {
        problems.push_back(std::to_string(events) + " DMus event(s) never given back to their allocator");
    }
    if (long buffers = gBuffers.load(); buffers != 0) {
        problems.push_back(std::to_string(buffers) + " DMus large buffer(s) never given back to their allocator");
    }
    if (!problems.empty()) {
        std::string text;
        for (const auto &p : problems) {
            text += (text.empty() ? "" : "; ") + p;
        }
        reportViolation(Rule::ObjectReferenceLeak, text);
    }
}

void resetPortclsState()
{
    freeQuarantine();
    Registry &r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.settings = Settings{};
}

} // namespace hostkernel
