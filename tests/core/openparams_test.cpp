// Open parameters: the file-name grammar, conversions, fallbacks and the
// completion of the record, as an open sees them.
#include <gtest/gtest.h>

#include <string>

#include "adapter/openparams.h"
#include "hostkernel/executive.h"
#include "published.h"

namespace {

constexpr GUID kManufacturer = {0x0A1B2C3D, 0x4E5F, 0x4A6B, {0x8C, 0x7D, 0x9E, 0x0F, 0x1A, 0x2B, 0x3C, 0x4D}};
constexpr GUID kProduct = {0x5E6F7A8B, 0x9C0D, 0x4E1F, {0xA2, 0xB3, 0xC4, 0xD5, 0xE6, 0xF7, 0xA8, 0xB9}};
#define MANUFACTURER u"{0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D}"
#define PRODUCT u"{5E6F7A8B-9C0D-4E1F-A2B3-C4D5E6F7A8B9}"

struct Opened {
    NTSTATUS status;
    std::u16string name;
    PortOpenParams params;
};

// What the open does with a file name: copy, parse, complete.
Opened open(const std::u16string &fileName, ACCESS_MASK access = 0x3, ULONG defaultSysex = AM_SYSEX_SIZE_DEFAULT)
{
    Opened o;
    UNICODE_STRING s;
    s.Buffer = reinterpret_cast<PWSTR>(const_cast<char16_t *>(fileName.data()));
    s.Length = s.MaximumLength = USHORT(fileName.size() * 2);
    initOpenParams(&o.params, &s, openFlagsFromAccess(access));
    parseOpenParams(o.params.deviceName, &o.params.sysexLen, &o.params.manufacturerGuid, &o.params.productGuid);
    o.status = completeOpenParams(&o.params, defaultSysex);
    o.name = reinterpret_cast<const char16_t *>(o.params.deviceName);
    return o;
}

TEST(OpenParams, FileNamesGiveNameSizeAndGuids)
{
    const GUID dm = published::DefaultManufacturer, dp = published::DefaultProduct;
    struct Case {
        std::u16string fileName;
        std::u16string name;
        ULONG sysex;
        GUID manufacturer, product;
        ULONG driverDefault = AM_SYSEX_SIZE_DEFAULT;
    } cases[] = {
        {u"\\Piano", u"Piano", 131056, dm, dp},
        {u"\\Piano\\", u"Piano", 131056, dm, dp},
        {u"\\Piano 1\\65536\\" MANUFACTURER u"\\" PRODUCT, u"Piano 1", 65536, kManufacturer, kProduct},
        {u"\\Piano\\\\" MANUFACTURER, u"Piano", 131056, kManufacturer, dp},
        {u"\\Piano\\\\\\" PRODUCT u"\\ignored\\too", u"Piano", 131056, dm, kProduct},
        {u"\\Pi:a*n|o\\65536", u"Piano", 65536, dm, dp},
        {u"\\A/B\\8192", u"AB", 8192, dm, dp},
        {u"Piano\\8192", u"Piano", 8192, dm, dp},
        {u"\\<P>\"i?a\\n\\o", u"Pia", 131056, dm, dp},
        {u"\\ sp.ce \u00e9\u266b", u" sp.ce \u00e9\u266b", 131056, dm, dp},
        // Sizes are held within the port's limits; unconvertible ones default.
        {u"\\Piano\\100", u"Piano", 8176, dm, dp},
        {u"\\Piano\\1", u"Piano", 8176, dm, dp},
        {u"\\Piano\\2000000", u"Piano", 1048560, dm, dp},
        {u"\\Piano\\8176", u"Piano", 8176, dm, dp},
        // A field is read up to its 255th character: what follows is not part of the number.
        {u"\\Piano\\" + std::u16string(250, u'0') + u"65536999", u"Piano", 65536, dm, dp},
        {u"\\Piano\\1048560", u"Piano", 1048560, dm, dp},
        {u"\\Piano\\abc", u"Piano", 131056, dm, dp},
        {u"\\Piano\\ 9000x", u"Piano", 9000, dm, dp},
        {u"\\Piano\\-1", u"Piano", 1048560, dm, dp},
        // A missing or unconvertible size is the driver's default, not a constant.
        {u"\\Piano", u"Piano", 65536, dm, dp, 65536},
        {u"\\Piano\\x", u"Piano", 8176, dm, dp, 8176},
        {u"\\Piano\\20000", u"Piano", 20000, dm, dp, 65536},
        // A bad GUID falls back alone; the other fields still count.
        {u"\\Piano\\9000\\0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D\\" PRODUCT, u"Piano", 9000, dm, kProduct},
        {u"\\Piano\\9000\\" MANUFACTURER u"\\{5E6F7A8B-9C0D-4E1F-A2B3-C4D5E6F7A8B}", u"Piano", 9000, kManufacturer, dp},
        {u"\\Piano\\9000\\{0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d}", u"Piano", 9000, kManufacturer, dp},
    };
    for (const auto &c : cases) {
        Opened o = open(c.fileName, 0x3, c.driverDefault);
        SCOPED_TRACE(std::string(c.fileName.begin(), c.fileName.end()));
        EXPECT_EQ(STATUS_SUCCESS, o.status);
        EXPECT_EQ(c.name, o.name);
        EXPECT_EQ(c.sysex, o.params.sysexLen);
        EXPECT_TRUE(IsEqualGUID(c.manufacturer, o.params.manufacturerGuid));
        EXPECT_TRUE(IsEqualGUID(c.product, o.params.productGuid));
    }
}

TEST(OpenParams, NamesThatAreEmptyOrTooLongAfterFilteringAreRefused)
{
    const std::u16string n254(254, u'n');
    struct Case {
        std::u16string fileName;
        NTSTATUS status;
    } cases[] = {
        {u"", STATUS_INVALID_PARAMETER},
        {u"\\", STATUS_INVALID_PARAMETER},
        {u"\\\\Piano", STATUS_INVALID_PARAMETER},
        {u"\\:*?|<>/\"", STATUS_INVALID_PARAMETER},
        {u"\\" + n254, STATUS_SUCCESS},
        {u"\\" + n254 + u"::", STATUS_SUCCESS},
        {u"\\" + n254 + u"n", STATUS_INVALID_PARAMETER},
        {u"\\" + n254 + u"n\\8192", STATUS_INVALID_PARAMETER},
        // Only the first 510 characters of a file name count.
        {u"\\" + std::u16string(509, u':') + u"Piano", STATUS_INVALID_PARAMETER},
        {u"\\" + std::u16string(508, u':') + u"Piano", STATUS_SUCCESS},
    };
    for (const auto &c : cases) {
        Opened o = open(c.fileName);
        EXPECT_EQ(c.status, o.status) << c.fileName.size() << " units";
    }
    EXPECT_EQ(n254, open(u"\\" + n254).name);
    EXPECT_EQ(u"P", open(u"\\" + std::u16string(508, u':') + u"Piano").name);
}

TEST(OpenParams, AccessChoosesTheDirectionAndNoneMeansBoth)
{
    struct Case {
        ACCESS_MASK access;
        ULONG flags;
    } cases[] = {
        {0x0, PORT_FLAG_CAPTURE | PORT_FLAG_RENDER},
        {0x1, PORT_FLAG_RENDER},
        {0x2, PORT_FLAG_CAPTURE},
        {0x3, PORT_FLAG_CAPTURE | PORT_FLAG_RENDER},
        {0x120089, PORT_FLAG_RENDER},                   // GENERIC_READ as mapped for files
        {0x120116, PORT_FLAG_CAPTURE},                  // GENERIC_WRITE as mapped for files
        {0x100000, PORT_FLAG_CAPTURE | PORT_FLAG_RENDER}, // SYNCHRONIZE only
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.flags, open(u"\\Piano", c.access).params.flags) << std::hex << c.access;
    }
}

TEST(OpenParams, LogsEachFieldAndEachFallback)
{
    hostkernel::LogCapture log;
    open(u"\\Pi\\12\\{bad}\\" PRODUCT u"x");
    const std::vector<std::string> expected = {
        "Ambrel:Adapter: getParams (34)",
        "Ambrel:Adapter: getParams first: 3",
        "Ambrel:Adapter: getParams second: 6",
        "Ambrel:Adapter: getParams third: 12",
        "Ambrel:Adapter: getParams fourth: -1",
        "Ambrel:Adapter: first content: 2 (12)",
        "Ambrel:Adapter: second content: 5 ({bad})",
        "Ambrel:Adapter: getParams RtlGUIDFromString1 failed: c000000d",
        "Ambrel:Adapter: third content: 39 ({5E6F7A8B-9C0D-4E1F-A2B3-C4D5E6F7A8B9}x)",
        "Ambrel:Adapter: getParams RtlGUIDFromString2 failed: c000000d",
    };
    EXPECT_EQ(expected, log.lines());

    log.clear();
    open(u"\\Piano");
    EXPECT_EQ((std::vector<std::string>{"Ambrel:Adapter: getParams (6)", "Ambrel:Adapter: getParams (ffffffff) no first"}),
              log.lines());
    log.clear();
    open(u"");
    EXPECT_TRUE(log.lines().empty());
}

TEST(OpenParams, FindCharFromSearchesOnlyInsideTheString)
{
    const std::u16string s = u"\\a\\b";
    PCWSTR w = reinterpret_cast<PCWSTR>(s.c_str());
    struct Case {
        LONG start, result;
    } cases[] = {{0, 0}, {1, 2}, {2, 2}, {3, -1}, {4, -1}, {5, -1}, {-1, -1}, {LONG(0x80000000), -1}};
    for (const auto &c : cases) {
        EXPECT_EQ(c.result, findCharFrom(w, L'\\', c.start)) << c.start;
    }
    EXPECT_EQ(-1, findCharFrom(reinterpret_cast<PCWSTR>(u""), L'\\', 0));
}

} // namespace
