// parseOpenParams and the record's completion on arbitrary UTF-16 file names.
// Checks what every open relies on: no access outside the string, a name that
// is the filtered name part of the input, and a completed record inside its
// limits.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "adapter/openparams.h"
#include "hostkernel/executive.h"

namespace {

bool forbidden(char16_t c)
{
    return std::u16string_view(u"\\/<>\":|?*").find(c) != std::u16string_view::npos;
}

void check(bool ok, const char *what)
{
    if (!ok) {
        std::fprintf(stderr, "open parameters broke: %s\n", what);
        std::abort();
    }
}

// A GUID field can only have parsed when it was exactly the braced form's
// length; every other field leaves the default.
bool guidFieldCouldParse(const std::u16string &input, size_t fieldIndex)
{
    size_t begin = input.find(u'\\', 1);
    for (size_t i = 0; i < fieldIndex && begin != std::u16string::npos; i++) {
        begin = input.find(u'\\', begin + 1);
    }
    if (begin == std::u16string::npos) {
        return false;
    }
    size_t end = input.find(u'\\', begin + 1);
    size_t length = (end == std::u16string::npos ? input.size() : end) - begin - 1;
    return length == 38 && input[begin + 1] == u'{' && input[begin + 38] == u'}';
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    size_t units = std::min<size_t>(size / 2, 512);
    std::u16string input(units, u'\0');
    std::memcpy(input.data(), data, units * 2);
    input = input.substr(0, input.find(u'\0')); // the string ends at its first NUL

    // Exactly the string and its terminator, so any read past it is caught.
    char16_t *name = new char16_t[input.size() + 1];
    std::memcpy(name, input.c_str(), (input.size() + 1) * 2);
    ULONG sysexLen = 0xDEADBEEF;
    GUID manufacturer, product;
    parseOpenParams(reinterpret_cast<PWSTR>(name), &sysexLen, &manufacturer, &product);

    std::u16string out(name);
    delete[] name;

    // The name part runs to the first separator after a leading one.
    size_t first = input.empty() ? 0 : input.find(u'\\', 1);
    std::u16string expected;
    for (char16_t c : input.substr(0, first)) {
        if (!forbidden(c)) {
            expected += c;
        }
    }
    check(out == expected, "name is not the filtered name part");
    check(first != std::u16string::npos || sysexLen == 0, "size without a size field");
    check(IsEqualGUID(manufacturer, DefaultManufacturerGuid) || guidFieldCouldParse(input, 1),
          "manufacturer GUID from a malformed field");
    check(IsEqualGUID(product, DefaultProductGuid) || guidFieldCouldParse(input, 2),
          "product GUID from a malformed field");

    // The same text through the open's own copy, then completed.
    PortOpenParams params;
    UNICODE_STRING fileName;
    fileName.Buffer = reinterpret_cast<PWSTR>(const_cast<char16_t *>(input.data()));
    fileName.Length = fileName.MaximumLength = USHORT(input.size() * 2);
    initOpenParams(&params, &fileName, size > 0 ? data[0] & 3 : 0);
    parseOpenParams(params.deviceName, &params.sysexLen, &params.manufacturerGuid, &params.productGuid);
    NTSTATUS status = completeOpenParams(&params, AM_SYSEX_SIZE_DEFAULT);
    size_t length = std::u16string(reinterpret_cast<const char16_t *>(params.deviceName)).size();
    if (NT_SUCCESS(status)) {
        check(length >= 1 && length <= AM_PORT_NAME_MAX_CCH, "accepted name length");
        check(params.flags >= 1 && params.flags <= 3, "flags");
        check(params.sysexLen >= AM_SYSEX_SIZE_MIN && params.sysexLen <= AM_SYSEX_SIZE_MAX, "size limits");
    } else {
        check(status == STATUS_INVALID_PARAMETER, "refusal status");
        check(length == 0 || length > AM_PORT_NAME_MAX_CCH, "refused a usable name");
    }
    if (input.size() <= AM_OPEN_NAME_MAX_CCH) {
        check(std::u16string(reinterpret_cast<const char16_t *>(params.deviceName)) == out,
              "the open's copy parsed differently");
    }

    hostkernel::verifyQuiescent();
    return 0;
}
