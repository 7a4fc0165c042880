// The platform-independent half of libambrel: the open file name, GUID text
// and error texts. Both the Linux and the Windows build compile it.
#include "ambrel/ambrel.h"
#include "ambrel_internal.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace {

int hexValue(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// Reads `digits` hex digits at text[*pos]; false when one is not hex.
bool readHex(const char *text, size_t *pos, int digits, uint64_t *value)
{
    uint64_t v = 0;
    for (int i = 0; i < digits; ++i) {
        int h = hexValue(text[*pos]);
        if (h < 0) {
            return false;
        }
        v = v << 4 | uint64_t(h);
        ++*pos;
    }
    *value = v;
    return true;
}

bool expect(const char *text, size_t *pos, char c)
{
    if (text[*pos] != c) {
        return false;
    }
    ++*pos;
    return true;
}

} // namespace

extern "C" {

const char *ambrel_strerror(int error)
{
    switch (error) {
    case AMBREL_OK:
        return "success";
    case AMBREL_E_INVALID:
        return "invalid argument or port name";
    case AMBREL_E_EXISTS:
        return "a port of that name exists";
    case AMBREL_E_FULL:
        return "every port slot is taken";
    case AMBREL_E_NOMEM:
        return "the driver is out of memory";
    case AMBREL_E_NODRIVER:
        return "Ambrel is not running (no ambreld mount or driver)";
    case AMBREL_E_TIMEOUT:
        return "timed out";
    case AMBREL_E_BUSY:
        return "another read is already waiting on this port";
    case AMBREL_E_TOOBIG:
        return "too much data for one write";
    case AMBREL_E_CLOSED:
        return "the port was withdrawn";
    case AMBREL_E_DIRECTION:
        return "the port was not opened for this direction";
    case AMBREL_E_INTERRUPTED:
        return "interrupted";
    case AMBREL_E_IO:
        return "input/output error";
    default:
        return "unknown error";
    }
}

int ambrel_parse_guid(const char *text, ambrel_guid *guid)
{
    if (text == nullptr || guid == nullptr) {
        return AMBREL_E_INVALID;
    }
    size_t pos = 0;
    bool braced = text[0] == '{';
    if (braced) {
        pos = 1;
    }
    uint64_t d1 = 0, d2 = 0, d3 = 0, d4 = 0, d5 = 0;
    if (!readHex(text, &pos, 8, &d1) || !expect(text, &pos, '-') || !readHex(text, &pos, 4, &d2) ||
        !expect(text, &pos, '-') || !readHex(text, &pos, 4, &d3) || !expect(text, &pos, '-') ||
        !readHex(text, &pos, 4, &d4) || !expect(text, &pos, '-') || !readHex(text, &pos, 12, &d5)) {
        return AMBREL_E_INVALID;
    }
    if (braced && !expect(text, &pos, '}')) {
        return AMBREL_E_INVALID;
    }
    if (text[pos] != '\0') {
        return AMBREL_E_INVALID;
    }
    guid->data1 = uint32_t(d1);
    guid->data2 = uint16_t(d2);
    guid->data3 = uint16_t(d3);
    guid->data4[0] = uint8_t(d4 >> 8);
    guid->data4[1] = uint8_t(d4);
    for (int i = 0; i < 6; ++i) {
        guid->data4[2 + i] = uint8_t(d5 >> (40 - 8 * i));
    }
    return AMBREL_OK;
}

void ambrel_format_guid(const ambrel_guid *guid, char text[39])
{
    std::snprintf(text, 39, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", unsigned(guid->data1),
                  unsigned(guid->data2), unsigned(guid->data3), guid->data4[0], guid->data4[1], guid->data4[2],
                  guid->data4[3], guid->data4[4], guid->data4[5], guid->data4[6], guid->data4[7]);
}

long ambrel_file_name(const char *name, const ambrel_options *options, char *out, size_t capacity)
{
    std::string fileName;
    int error = ambrel::buildFileName(name, options, &fileName);
    if (error != AMBREL_OK) {
        return error;
    }
    if (out == nullptr || fileName.size() + 1 > capacity) {
        return AMBREL_E_INVALID;
    }
    std::memcpy(out, fileName.c_str(), fileName.size() + 1);
    return long(fileName.size());
}

} // extern "C"

namespace ambrel {

int buildFileName(const char *name, const ambrel_options *options, std::string *fileName)
{
    if (name == nullptr || name[0] == '\0') {
        return AMBREL_E_INVALID;
    }
    std::string out;
    for (const char *p = name; *p != '\0'; ++p) {
        // A backslash would start the next field of the file name.
        if (*p == '\\') {
            return AMBREL_E_INVALID;
        }
        // The driver drops '/' from names; a Linux path cannot carry it.
        if (*p != '/') {
            out.push_back(*p);
        }
    }
    if (out.empty()) {
        return AMBREL_E_INVALID;
    }
    // The size field is always present (empty for the default), so the bare
    // names the mount reserves ("ports") still reach the driver as port names.
    out.push_back('\\');
    if (options != nullptr && options->sysex_size != 0) {
        out += std::to_string(options->sysex_size);
    }
    const ambrel_guid *manufacturer = options != nullptr ? options->manufacturer : nullptr;
    const ambrel_guid *product = options != nullptr ? options->product : nullptr;
    if (manufacturer != nullptr || product != nullptr) {
        char text[39];
        out.push_back('\\');
        if (manufacturer != nullptr) {
            ambrel_format_guid(manufacturer, text);
            out += text;
        }
        if (product != nullptr) {
            out.push_back('\\');
            ambrel_format_guid(product, text);
            out += text;
        }
    }
    *fileName = std::move(out);
    return AMBREL_OK;
}

unsigned effectiveAccess(const ambrel_options *options)
{
    unsigned access = options != nullptr ? options->access & (AMBREL_READ | AMBREL_WRITE) : 0;
    return access == 0 ? AMBREL_READ | AMBREL_WRITE : access;
}

namespace {
thread_local int gLastOsError = 0;
} // namespace

void setLastOsError(int code)
{
    gLastOsError = code;
}

int beginOpen(const char *name, const ambrel_options *options, ambrel_port **port, std::string *fileName)
{
    if (port == nullptr) {
        return AMBREL_E_INVALID;
    }
    *port = nullptr;
    return buildFileName(name, options, fileName);
}

int checkTransfer(const void *buffer, size_t length, unsigned portAccess, unsigned direction)
{
    if (buffer == nullptr || length == 0) {
        return AMBREL_E_INVALID;
    }
    if ((portAccess & direction) == 0) {
        return AMBREL_E_DIRECTION;
    }
    // A write goes to the driver as one block, which it refuses above this.
    if (direction == AMBREL_WRITE && length > AMBREL_MAX_WRITE) {
        return AMBREL_E_TOOBIG;
    }
    return AMBREL_OK;
}

int checkProcessIdArguments(const uint64_t *ids, size_t capacity, const size_t *count)
{
    return count == nullptr || (ids == nullptr && capacity != 0) ? AMBREL_E_INVALID : AMBREL_OK;
}

void copyProcessIds(const uint64_t *found, size_t foundCount, uint64_t *ids, size_t capacity, size_t *count)
{
    size_t n = foundCount < capacity ? foundCount : capacity;
    for (size_t i = 0; i < n; ++i) {
        ids[i] = found[i];
    }
    *count = n;
}

} // namespace ambrel

extern "C" int ambrel_last_os_error(void)
{
    return ambrel::gLastOsError;
}
