// The debug log: DbgPrint's formatting (the kernel's conversions and sizes,
// as the driver's messages use them), who listens, whole lines, and
// assertions in the kernel's words.
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "hostkernel/executive.h"
#include "amplatform.h"

namespace {

namespace hk = hostkernel;

struct Row {
    const char *expected;
    std::function<void()> print;
    const char *call;
};

UNICODE_STRING kCountedWide = {3 * sizeof(WCHAR), 6 * sizeof(WCHAR), const_cast<PWSTR>(L"Piano")};
ANSI_STRING kCountedNarrow = {3, 7, const_cast<PCHAR>("Violin")};

// Each row prints from a routine of the Windows convention, as code in
// ambrel.sys does: the arguments arrive in its registers, shadow space and
// stack slots.
#define ROW(expected, ...) {expected, []() NTAPI { DbgPrint(__VA_ARGS__); }, #__VA_ARGS__}

const Row kRows[] = {
    // The driver's own shapes.
    ROW("Ambrel:Adapter: AddDevice (8e4a1000)", "Ambrel:Adapter: AddDevice (%x)", 0x8E4A1000u),
    ROW("status c0000056", "status %x", STATUS_DELETE_PENDING),
    ROW("port 12 of 512", "port %d of %d", 12, 512),
    ROW("bytes 90 3c 7f", "bytes %02x %02x %02x", 0x90, 0x3C, 0x7F),
    ROW("id 0000002a", "id %08x", 42u),
    ROW("named Piano\xC3\xA9 here", "named %ls here", u"Piano\u00E9"),
    ROW("ws G\xF0\x9D\x84\x9E", "ws %ws", u"G\U0001D11E"),
    ROW("unpaired \xEF\xBF\xBD!", "unpaired %ls!", u"\xD800"),
    ROW("irql 2", "irql %d", int(DISPATCH_LEVEL)),
    ROW("len -7 / 4294967289", "len %ld / %lu", LONG(-7), ULONG(-7)),
    ROW("flags 80000001", "flags %lx", ULONG(0x80000001u)),
    ROW("at 00000000DEADBEEF", "at %p", reinterpret_cast<void *>(0xDEADBEEF)),
    ROW("null 0000000000000000", "null %p", nullptr),
    ROW("C-string ok", "%s %s", "C-string", "ok"),
    ROW("(null) and (null)", "%s and %ls", static_cast<const char *>(nullptr), static_cast<const WCHAR *>(nullptr)),
    ROW("100% sure", "100%% sure"),
    ROW("char Z", "char %c", 'Z'),
    // 'l' is 32 bits, as on Windows: the high half of a 64-bit pointer
    // passed to %x or %lx is not printed.
    ROW("low 89abcdef", "low %lx", 0x0123456789ABCDEFull),
    ROW("min -2147483648", "min %ld", LONG(INT32_MIN)),
    // 64-bit sizes.
    ROW("big 123456789abcdef0", "big %I64x", 0x123456789ABCDEF0ull),
    ROW("neg -1099511627776", "neg %lld", -(1LL << 40)),
    ROW("max 18446744073709551615", "max %llu", ~0ull),
    ROW("size 65536", "size %Iu", size_t(65536)),
    ROW("z 4294967296", "z %zu", size_t(1) << 32),
    ROW("I32 -1", "I32 %I32d", -1),
    // Widths, precision and flags.
    ROW("[   42][42   ][00042]", "[%5d][%-5d][%05d]", 42, 42, 42),
    ROW("[  -42][-0042][ -042]", "[%5d][%05d][%5.3d]", -42, -42, -42),
    ROW("[+5][ 5][0xff][0XFF][0][017]", "[%+d][% d][%#x][%#X][%#x][%#o]", 5, 5, 255, 255, 0, 15),
    ROW("[007][][ab][  abc][abc  ]", "[%.3d][%.0d][%.2s][%5s][%-5s]", 7, 0, "abcdef", "abc", "abc"),
    ROW("[   7][7   ]", "[%*d][%-*d]", 4, 7, 4, 7),
    ROW("short -1 255", "short %hd %hhu", 65535, 511),
    ROW("wide %ws as %S", "wide %%ws as %S", u"%S"),
    ROW("wchar \xC3\xA9 narrow %", "wchar %wc narrow %hc", int(u'\u00E9'), '%'),
    ROW("counted Pia + Vio", "counted %wZ + %Z", &kCountedWide, &kCountedNarrow),
    ROW("counted (null)", "counted %wZ", static_cast<PUNICODE_STRING>(nullptr)),
    ROW("float 1.50", "float %.2f", 1.5),
    // Past the four argument registers, a double among them.
    ROW("mixed 7 Pi 123456789abcdef0 2.50 x ok", "mixed %d %ls %I64x %.2f %c %s", 7, u"Pi", 0x123456789ABCDEF0ull,
        2.5, 'x', "ok"),
    // What the kernel does not know goes out as it stands.
    ROW("odd %y and %", "odd %y and %"),
    ROW("count  written", "count %n written", static_cast<int *>(nullptr)),
};

TEST(Format, DbgPrintMatchesTheKernelsConversions)
{
    for (const Row &row : kRows) {
        SCOPED_TRACE(row.call);
        hk::LogCapture log;
        row.print();
        DbgPrint("\n");
        EXPECT_EQ(log.lines(), std::vector<std::string>{row.expected});
    }
}

// The ntstrsafe printers run the same engine with a wide format: %s and %c
// are wide there, h and S make them narrow.
#define WIDE_ROW(expected, ...) {expected, [](PWSTR d, size_t n) { return RtlStringCchPrintfW(d, n, __VA_ARGS__); }}

TEST(Format, WidePrintersShareTheConversionsWithWideDefaults)
{
    const struct {
        const char16_t *expected;
        NTSTATUS (*print)(PWSTR, size_t);
    } rows[] = {
        WIDE_ROW(u"ambrel7", L"ambrel%d", 7),
        WIDE_ROW(u"Piano: Out", L"%s: %ls", L"Piano", L"Out"),
        WIDE_ROW(u"narrow Ab", L"narrow %hs%S", "A", "b"),
        WIDE_ROW(u"\u00E9 and \u00E9", L"%c and %hc", int(u'\u00E9'), int(0xE9)),
        WIDE_ROW(u"{0000002A} FFFF (null)", L"{%08X} %hX %s", 42u, 0xFFFF, static_cast<PCWSTR>(nullptr)),
    };
    for (const auto &row : rows) {
        WCHAR buffer[64];
        EXPECT_EQ(row.print(buffer, 64), STATUS_SUCCESS);
        EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(buffer)), row.expected);
    }
}

TEST(Log, ListeningFollowsCapturesAndEveryCaptureSeesWhatFollowsIt)
{
    EXPECT_FALSE(AmDebugOutputEnabled());
    DbgPrint("nobody hears this\n");
    {
        hk::LogCapture first;
        EXPECT_TRUE(AmDebugOutputEnabled());
        DbgPrint("one\n");
        {
            hk::LogCapture second;
            DbgPrint("two %d\n", 2);
            EXPECT_EQ(second.lines(), std::vector<std::string>{"two 2"});
        }
        EXPECT_TRUE(AmDebugOutputEnabled());
        DbgPrint("three\nfour\n");
        EXPECT_EQ(first.lines(), (std::vector<std::string>{"one", "two 2", "three", "four"}));
        EXPECT_EQ(first.count("o"), 3u);
        EXPECT_TRUE(first.contains("hre"));
        EXPECT_FALSE(first.contains("nobody"));
        first.clear();
        DbgPrint("five\n");
        EXPECT_EQ(first.lines(), std::vector<std::string>{"five"});
    }
    EXPECT_FALSE(AmDebugOutputEnabled());
}

TEST(Log, PrintsJoinIntoLinesAndAnAbandonedLineDoesNotLeak)
{
    std::optional<hk::LogCapture> log(std::in_place);
    DbgPrint("Ambrel:Adapter: ");
    DbgPrint("AddPortByName ***** %ls", L"Piano");
    EXPECT_TRUE(log->lines().empty()); // not a line until it ends
    DbgPrint("\n");
    EXPECT_EQ(log->lines(), std::vector<std::string>{"Ambrel:Adapter: AddPortByName ***** Piano"});

    // A message half printed when the last listener goes is dropped, not
    // glued to the next line printed once somebody listens again.
    DbgPrint("half a message");
    log.reset();
    log.emplace();
    DbgPrint("next message\n");
    EXPECT_EQ(log->lines(), std::vector<std::string>{"next message"});
}

TEST(Log, StderrEchoListensOnItsOwn)
{
    testing::internal::CaptureStderr();
    hk::setLogToStderr(true);
    EXPECT_TRUE(AmDebugOutputEnabled());
    DbgPrint("echo ");
    DbgPrint("%s\n", "line");
    hk::setLogToStderr(false);
    DbgPrint("not echoed\n");
    EXPECT_FALSE(AmDebugOutputEnabled());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "echo line\n");
}

TEST(Log, AssertionsAreLoggedCountedAndGoOn)
{
    RtlAssert(PVOID("quiet"), PVOID("q.cpp"), 1, nullptr); // counted even with nobody listening
    EXPECT_EQ(hk::assertionCount(), 1u);
    hk::acknowledgeAssertions(1);
    hk::LogCapture log;
    DbgPrint("Ambrel:Miniport: half");
    RtlAssert(PVOID("KeGetCurrentIrql() == DISPATCH_LEVEL"), PVOID("amminiport"), 321, nullptr);
    RtlAssert(PVOID("p != NULL"), PVOID("common/x.cpp"), 9, PSTR(const_cast<char *>("why: ")));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "Ambrel:Miniport: half",
                               "*** Assertion failed: KeGetCurrentIrql() == DISPATCH_LEVEL",
                               "***   Source File: amminiport, line 321",
                               "*** Assertion failed: why: p != NULL",
                               "***   Source File: common/x.cpp, line 9",
                           }));
    EXPECT_EQ(hk::assertionCount(), 3u);
    EXPECT_EQ(hk::assertions(), (std::vector<std::string>{
                                    "quiet (q.cpp, line 1)",
                                    "KeGetCurrentIrql() == DISPATCH_LEVEL (amminiport, line 321)",
                                    "why: p != NULL (common/x.cpp, line 9)",
                                }));
    EXPECT_EQ(hk::quiescenceProblems().size(), 1u);
    hk::acknowledgeAssertions(1);
    EXPECT_EQ(hk::quiescenceProblems(),
              std::vector<std::string>{"UnexpectedAssertion: why: p != NULL (common/x.cpp, line 9)"});
    hk::acknowledgeAssertions(1);
    EXPECT_TRUE(hk::quiescenceProblems().empty());
}

} // namespace
