// DbgPrint, the log it feeds, and RtlAssert.
//
// The driver prints a message in three calls (prefix, text, line end), so
// output is assembled per thread and only whole lines reach the log: the
// three prints of one thread come out as one line whatever other threads
// print meanwhile. Nothing is formatted unless somebody listens (a capture or
// the stderr echo); HkDebugOutputListening tells the driver so in one load.
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "hk/ke.h"
#include "internal.h"

volatile LONG HkDebugOutputListening = 0;

namespace {

using hostkernel::detail::FormatSink;

// A line that never ends still reaches the log in pieces of this size.
constexpr size_t kLongestLine = 64 * 1024;

struct Log {
    std::mutex mutex;
    std::map<size_t, std::vector<std::string>> captures;
    size_t nextId = 1;
    bool toStderr = false;

    // Mutex held.
    void updateListening()
    {
        LONG listeners = LONG(captures.size()) + (toStderr ? 1 : 0);
        if (listeners != 0 && HkDebugOutputListening == 0) {
            session.fetch_add(1, std::memory_order_release);
        }
        __atomic_store_n(&HkDebugOutputListening, listeners, __ATOMIC_RELEASE);
    }

    // Counts the times somebody started listening after a silence.
    std::atomic<uint64_t> session{0};
};

Log &log()
{
    static Log *l = new Log; // outlives threads still printing at exit
    return *l;
}

thread_local std::string pendingLine;
// The listening session the pending line began in: a line begun before a
// silence is not finished into the next session's log.
thread_local uint64_t pendingSession = 0;

void emitLine(const std::string &line)
{
    Log &l = log();
    std::lock_guard<std::mutex> lock(l.mutex);
    for (auto &capture : l.captures) {
        capture.second.push_back(line);
    }
    if (l.toStderr) {
        std::string out = line + "\n";
        // One write per line keeps lines whole next to other writers.
        ssize_t written = ::write(STDERR_FILENO, out.data(), out.size());
        (void)written;
    }
}

class LineSink final : public FormatSink {
public:
    void narrow(const char *text, size_t length) override
    {
        for (size_t i = 0; i < length; i++) {
            put(text[i]);
        }
    }
    void wide(const char16_t *text, size_t length) override
    {
        // Windows converts %ls, %wZ and friends through the Unicode tables,
        // which are pageable: those conversions are allowed only at
        // PASSIVE_LEVEL, and a driver that logs a name under a spin lock
        // faults there, if only when the page is out.
        KIRQL irql = KeGetCurrentIrql();
        if (irql > PASSIVE_LEVEL) {
            hostkernel::reportViolation(hostkernel::Rule::IrqlTooHigh,
                                        "DbgPrint of a wide string at IRQL " + std::to_string(int(irql)));
        }
        std::string utf8 = hostkernel::detail::utf16ToUtf8(std::u16string_view(text, length));
        narrow(utf8.data(), utf8.size());
    }

private:
    static void put(char c)
    {
        if (c == '\n') {
            emitLine(pendingLine);
            pendingLine.clear();
            return;
        }
        pendingLine += c;
        if (pendingLine.size() >= kLongestLine) {
            emitLine(pendingLine);
            pendingLine.clear();
        }
    }
};

// Drops what this thread left unfinished in an earlier listening session.
void startInSession()
{
    uint64_t session = log().session.load(std::memory_order_acquire);
    if (session != pendingSession) {
        pendingLine.clear();
        pendingSession = session;
    }
}

bool listening()
{
    return __atomic_load_n(&HkDebugOutputListening, __ATOMIC_ACQUIRE) != 0;
}

void NTAPI print(const char *format, ...)
{
    __builtin_ms_va_list args;
    __builtin_ms_va_start(args, format);
    LineSink sink;
    hostkernel::detail::formatNarrow(sink, format, args);
    __builtin_ms_va_end(args);
}

// ------------------------------------------------------------------ assertions
struct Assertions {
    std::mutex mutex;
    std::vector<std::string> texts;
    size_t acknowledged = 0;
};

Assertions &assertionRecord()
{
    static Assertions *a = new Assertions;
    return *a;
}

} // namespace

ULONG NTAPI DbgPrint(PCSTR format, ...)
{
    if (!listening()) {
        return 0;
    }
    startInSession();
    __builtin_ms_va_list args;
    __builtin_ms_va_start(args, format);
    LineSink sink;
    hostkernel::detail::formatNarrow(sink, format != nullptr ? format : "(null)", args);
    __builtin_ms_va_end(args);
    return 0; // STATUS_SUCCESS
}

void RtlAssert(PVOID failedAssertion, PVOID fileName, ULONG lineNumber, PSTR message)
{
    auto expression = static_cast<const char *>(failedAssertion != nullptr ? failedAssertion : "(null)");
    auto file = static_cast<const char *>(fileName != nullptr ? fileName : "(null)");
    {
        Assertions &a = assertionRecord();
        std::lock_guard<std::mutex> lock(a.mutex);
        a.texts.push_back(std::string(message != nullptr ? message : "") + expression + " (" + file + ", line " +
                          std::to_string(lineNumber) + ")");
    }
    if (listening()) {
        // The kernel's text, on lines of their own even if the thread was
        // half way through a message.
        startInSession();
        if (!pendingLine.empty()) {
            print("\n");
        }
        print("*** Assertion failed: %s%s\n", message != nullptr ? message : "", expression);
        print("***   Source File: %s, line %d\n", file, int(lineNumber));
    }
}

namespace hostkernel {

LogCapture::LogCapture()
{
    Log &l = log();
    std::lock_guard<std::mutex> lock(l.mutex);
    id_ = l.nextId++;
    l.captures[id_];
    l.updateListening();
}

LogCapture::~LogCapture()
{
    Log &l = log();
    std::lock_guard<std::mutex> lock(l.mutex);
    l.captures.erase(id_);
    l.updateListening();
}

std::vector<std::string> LogCapture::lines() const
{
    Log &l = log();
    std::lock_guard<std::mutex> lock(l.mutex);
    return l.captures[id_];
}

bool LogCapture::contains(std::string_view needle) const
{
    return count(needle) > 0;
}

size_t LogCapture::count(std::string_view needle) const
{
    Log &l = log();
    std::lock_guard<std::mutex> lock(l.mutex);
    size_t n = 0;
    for (const std::string &line : l.captures[id_]) {
        n += line.find(needle) != std::string::npos ? 1 : 0;
    }
    return n;
}

void LogCapture::clear()
{
    Log &l = log();
    std::lock_guard<std::mutex> lock(l.mutex);
    l.captures[id_].clear();
}

void setLogToStderr(bool on)
{
    Log &l = log();
    std::lock_guard<std::mutex> lock(l.mutex);
    l.toStderr = on;
    l.updateListening();
}

size_t assertionCount()
{
    Assertions &a = assertionRecord();
    std::lock_guard<std::mutex> lock(a.mutex);
    return a.texts.size();
}

std::vector<std::string> assertions()
{
    Assertions &a = assertionRecord();
    std::lock_guard<std::mutex> lock(a.mutex);
    return a.texts;
}

void acknowledgeAssertions(size_t count)
{
    Assertions &a = assertionRecord();
    std::lock_guard<std::mutex> lock(a.mutex);
    a.acknowledged += count;
}

namespace detail {

void logLine(const std::string &line)
{
    if (listening()) {
        emitLine(line);
    }
}

std::string unacknowledgedAssertionText()
{
    Assertions &a = assertionRecord();
    std::lock_guard<std::mutex> lock(a.mutex);
    if (a.acknowledged > a.texts.size()) {
        // A test that expects an assertion which never came is as wrong as
        // one that gets an assertion it did not expect.
        return std::to_string(a.acknowledged) + " assertion(s) acknowledged but only " +
               std::to_string(a.texts.size()) + " happened";
    }
    std::string text;
    for (size_t i = a.acknowledged; i < a.texts.size(); i++) {
        text += (text.empty() ? "" : "; ") + a.texts[i];
    }
    return text;
}

void resetAssertions()
{
    Assertions &a = assertionRecord();
    std::lock_guard<std::mutex> lock(a.mutex);
    a.texts.clear();
    a.acknowledged = 0;
}

} // namespace detail
} // namespace hostkernel
