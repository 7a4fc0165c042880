// SHA-1 against FIPS 180-1 vectors and the port name GUID's exact bits.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>

#include "adapter/nameguid/nameguid.h"
#include "adapter/nameguid/sha1.h"

namespace {

std::string digestOf(const std::string &message, size_t chunk)
{
    Sha1Context context;
    Sha1Reset(&context);
    for (size_t at = 0; at < message.size(); at += chunk) {
        size_t n = std::min(chunk, message.size() - at);
        Sha1Input(&context, reinterpret_cast<const UCHAR *>(message.data() + at), ULONG(n));
    }
    if (!Sha1Result(&context)) {
        return "corrupted";
    }
    char text[41];
    for (int i = 0; i < 5; i++) {
        std::snprintf(text + 8 * i, 9, "%08x", context.Hash[i]);
    }
    return text;
}

std::string guidText(const GUID &g)
{
    char text[39];
    std::snprintf(text, sizeof(text), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", g.Data1, g.Data2,
                  g.Data3, g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6],
                  g.Data4[7]);
    return text;
}

std::string nameGuid(const std::u16string &name)
{
    GUID g;
    EXPECT_EQ(&g, CreateNameGuid(&PORT_NAME_NAMESPACE, reinterpret_cast<PCWSTR>(name.c_str()), &g));
    return guidText(g);
}

TEST(Sha1, MatchesReferenceDigestsWhateverTheInputChunking)
{
    struct Case {
        std::string message;
        const char *digest;
    } cases[] = {
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
        {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
        // Lengths around the padding's block boundary.
        {std::string(55, 'a'), "c1c8bbdc22796e28c0e15163d20899b65621d65a"},
        {std::string(56, 'a'), "c2db330f6083854c99d4b5bfb6e8f29f201be699"},
        {std::string(63, 'a'), "03f09f5b158a7a8cdad920bddc29b81c18a551f5"},
        {std::string(64, 'a'), "0098ba824b5c16427bd7a1122a5a442a25ec644d"},
        {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
    };
    for (const auto &c : cases) {
        for (size_t chunk : {size_t(1), size_t(7), size_t(64), size_t(1) << 20}) {
            EXPECT_EQ(c.digest, digestOf(c.message, chunk)) << c.message.size() << " bytes, chunk " << chunk;
        }
    }
}

TEST(Sha1, InputAfterResultOrPastTheLengthLimitCorruptsTheContext)
{
    const UCHAR byte = 'x';
    Sha1Context context;

    Sha1Reset(&context);
    Sha1Input(&context, &byte, 1);
    ASSERT_EQ(1, Sha1Result(&context));
    ASSERT_EQ(1, Sha1Result(&context)); // a final digest may be asked for again
    Sha1Input(&context, &byte, 0);      // nothing at all is not input
    EXPECT_EQ(1, Sha1Result(&context));
    Sha1Input(&context, &byte, 1);
    EXPECT_EQ(0, Sha1Result(&context));

    Sha1Reset(&context);
    context.LengthLow = 0xFFFFFFF8;
    context.LengthHigh = 0xFFFFFFFF;
    Sha1Input(&context, &byte, 1);
    EXPECT_EQ(0, Sha1Result(&context));
}

TEST(NameGuid, IsStablePerNameCaseSensitiveAndCarriesVersionAndVariant)
{
    EXPECT_EQ("{B4AD3AD0-EE19-422B-A1DA-18607FC3D479}", nameGuid(u"Piano")); // the media category key's name
    // Both bytes of every UTF-16 unit are hashed (U+266A has a high byte).
    EXPECT_EQ("{F030CAA5-4AE2-4E8D-B3E5-ED37FF9195D0}", nameGuid(u"Fl\u00fcgel \u266a"));
    const std::u16string names[] = {u"Piano", u"piano", u"PIANO", u"A", u"Piano 1", u"\u00e9t\u00e9 \u266b",
                                    std::u16string(254, u'x')};
    std::set<std::string> seen;
    for (const auto &name : names) {
        std::string g = nameGuid(name);
        EXPECT_EQ(g, nameGuid(name));
        EXPECT_TRUE(seen.insert(g).second) << g;
        EXPECT_EQ('4', g[15]) << g;
        EXPECT_TRUE(g[20] == 'A' || g[20] == 'B') << g;
    }
}

} // namespace
