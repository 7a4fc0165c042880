// libambrel on Windows: a port is an overlapped handle on the driver's control
// device, "\\.\Ambrel\<file name>". Reads wait on an event so that a timeout
// can cancel the driver's parked read (CancelIoEx) and still collect data that
// arrived meanwhile.
#include "ambrel/ambrel.h"
#include "ambrel_internal.h"

#include <windows.h>

#include <new>
#include <string>

struct ambrel_port {
    HANDLE handle = INVALID_HANDLE_VALUE;
    HANDLE readEvent = nullptr;
    unsigned access = 0;
};

namespace ambrel {
namespace {

// The control code of the driver's process-id query.
constexpr DWORD kIoctlProcessIds = 0x80012004;

int fromWin32(DWORD e)
{
    setLastOsError(int(e));
    switch (e) {
    case ERROR_ALREADY_EXISTS:
    case ERROR_FILE_EXISTS:
    case ERROR_ALIAS_EXISTS:
        return AMBREL_E_EXISTS;
    case ERROR_INVALID_PARAMETER:
    case ERROR_INVALID_NAME:
    case ERROR_BAD_PATHNAME:
        return AMBREL_E_INVALID;
    case ERROR_NO_SYSTEM_RESOURCES:
    case ERROR_NOT_ENOUGH_MEMORY:
    case ERROR_INSUFFICIENT_BUFFER:
        return AMBREL_E_NOMEM;
    case ERROR_TOO_MANY_SESS:
        return AMBREL_E_FULL;
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
        return AMBREL_E_NODRIVER;
    case ERROR_BUSY:
        return AMBREL_E_BUSY;
    case ERROR_TOO_MANY_CMDS:
        return AMBREL_E_TOOBIG;
    // Directions are checked before any call, so a refused request on an open
    // handle means the device is going away.
    case ERROR_ACCESS_DENIED:
    case ERROR_DELETE_PENDING:
        return AMBREL_E_CLOSED;
    case ERROR_OPERATION_ABORTED:
        return AMBREL_E_INTERRUPTED;
    default:
        return AMBREL_E_IO;
    }
}

std::wstring widen(const std::string &utf8)
{
    if (utf8.empty()) {
        return std::wstring();
    }
    int n = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), int(utf8.size()), nullptr, 0);
    if (n <= 0) {
        return std::wstring();
    }
    std::wstring out(size_t(n), L'\0');
    MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), int(utf8.size()), &out[0], n);
    return out;
}

} // namespace

} // namespace ambrel

extern "C" {

int ambrel_open(const char *name, const ambrel_options *options, ambrel_port **port)
{
    using namespace ambrel;
    std::string fileName;
    int error = beginOpen(name, options, port, &fileName);
    if (error != AMBREL_OK) {
        return error;
    }
    std::wstring wide = widen(fileName);
    if (wide.empty()) {
        return AMBREL_E_INVALID;
    }
    std::wstring path = L"\\\\.\\Ambrel\\" + wide;
    unsigned access = effectiveAccess(options);
    DWORD desired = (access & AMBREL_READ ? GENERIC_READ : 0) | (access & AMBREL_WRITE ? GENERIC_WRITE : 0);
    HANDLE h = CreateFileW(path.c_str(), desired, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                           FILE_FLAG_OVERLAPPED, nullptr);
    if (h == INVALID_HANDLE_VALUE) {
        return fromWin32(GetLastError());
    }
    HANDLE ev = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    auto *p = ev != nullptr ? new (std::nothrow) ambrel_port : nullptr;
    if (p == nullptr) {
        DWORD e = GetLastError();
        if (ev != nullptr) {
            CloseHandle(ev);
        }
        CloseHandle(h);
        return e != 0 ? fromWin32(e) : AMBREL_E_NOMEM;
    }
    p->handle = h;
    p->readEvent = ev;
    p->access = access;
    *port = p;
    return AMBREL_OK;
}

long ambrel_read(ambrel_port *port, void *buffer, size_t length, int timeout_ms)
{
    using namespace ambrel;
    if (port == nullptr) {
        return AMBREL_E_INVALID;
    }
    if (int error = checkTransfer(buffer, length, port->access, AMBREL_READ); error != AMBREL_OK) {
        return error;
    }
    DWORD want = length > 0x7FFFFFFF ? 0x7FFFFFFF : DWORD(length);
    OVERLAPPED ov = {};
    ov.hEvent = port->readEvent;
    ResetEvent(ov.hEvent);
    DWORD got = 0;
    if (!ReadFile(port->handle, buffer, want, nullptr, &ov)) {
        DWORD e = GetLastError();
        if (e != ERROR_IO_PENDING) {
            return fromWin32(e);
        }
        DWORD wait = WaitForSingleObject(ov.hEvent, timeout_ms < 0 ? INFINITE : DWORD(timeout_ms));
        if (wait != WAIT_OBJECT_0) {
            // The driver's cancel routine finishes the parked read; data that
            // won the race is still returned below.
            CancelIoEx(port->handle, &ov);
        }
    }
    if (!GetOverlappedResult(port->handle, &ov, &got, TRUE)) {
        DWORD e = GetLastError();
        if (e == ERROR_OPERATION_ABORTED && timeout_ms >= 0) {
            setLastOsError(int(e));
            return AMBREL_E_TIMEOUT;
        }
        return fromWin32(e);
    }
    return long(got);
}

long ambrel_write(ambrel_port *port, const void *data, size_t length)
{
    using namespace ambrel;
    if (port == nullptr) {
        return AMBREL_E_INVALID;
    }
    if (int error = checkTransfer(data, length, port->access, AMBREL_WRITE); error != AMBREL_OK) {
        return error;
    }
    OVERLAPPED ov = {};
    ov.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (ov.hEvent == nullptr) {
        return fromWin32(GetLastError());
    }
    DWORD written = 0;
    int result = int(length);
    if (!WriteFile(port->handle, data, DWORD(length), nullptr, &ov) && GetLastError() != ERROR_IO_PENDING) {
        result = fromWin32(GetLastError());
    } else if (!GetOverlappedResult(port->handle, &ov, &written, TRUE)) {
        result = fromWin32(GetLastError());
    }
    // The driver reports 0 bytes for an accepted write: the block went whole.
    CloseHandle(ov.hEvent);
    return result;
}

int ambrel_process_ids(ambrel_port *port, uint64_t *ids, size_t capacity, size_t *count)
{
    using namespace ambrel;
    if (port == nullptr) {
        return AMBREL_E_INVALID;
    }
    if (int error = checkProcessIdArguments(ids, capacity, count); error != AMBREL_OK) {
        return error;
    }
    uint64_t reply[AMBREL_MAX_PROCESS_IDS] = {};
    OVERLAPPED ov = {};
    ov.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (ov.hEvent == nullptr) {
        return fromWin32(GetLastError());
    }
    DWORD bytes = 0;
    int result = AMBREL_OK;
    // 16 slots of 8 bytes: room for every id the driver can find.
    if (!DeviceIoControl(port->handle, kIoctlProcessIds, nullptr, 0, reply, sizeof reply, nullptr, &ov) &&
        GetLastError() != ERROR_IO_PENDING) {
        result = fromWin32(GetLastError());
    } else if (!GetOverlappedResult(port->handle, &ov, &bytes, TRUE)) {
        result = fromWin32(GetLastError());
    }
    CloseHandle(ov.hEvent);
    if (result != AMBREL_OK) {
        return result;
    }
    copyProcessIds(reply, bytes / 8, ids, capacity, count);
    return AMBREL_OK;
}

int ambrel_close(ambrel_port *port)
{
    if (port == nullptr) {
        return AMBREL_OK;
    }
    int result = AMBREL_OK;
    if (!CloseHandle(port->handle)) {
        result = ambrel::fromWin32(GetLastError());
    }
    CloseHandle(port->readEvent);
    delete port;
    return result;
}

intptr_t ambrel_native_handle(const ambrel_port *port)
{
    return port != nullptr ? intptr_t(port->handle) : intptr_t(-1);
}

} // extern "C"
