// A small test driver for the I/O manager's tests, and the fixture that
// loads it. The driver owns "\Device\HkTest" (link "\DosDevices\HkTest"),
// records every request it sees, parks reads it cannot serve (with a cancel
// routine, claimed by an atomic exchange as real drivers do), completes
// writes with their length and echoes device controls.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <hostkernel/executive.h>
#include <hostkernel/io.h>
#include <hostkernel/pnp.h>
#include <hostkernel/registry.h>

namespace iotest {

namespace hk = hostkernel;

inline const std::u16string kDevice = u"\\Device\\HkTest";
inline const std::u16string kLink = u"\\DosDevices\\HkTest";

struct Seen {
    UCHAR major = 0;
    std::u16string fileName;
    bool fileNameHasBuffer = false;
    ACCESS_MASK access = 0;
    PFILE_OBJECT file = nullptr;
    PFILE_OBJECT related = nullptr;
    HANDLE processId = nullptr;
    KIRQL irql = 0;
    KPROCESSOR_MODE mode = 0;
    bool hasMdl = false;
    PVOID systemBuffer = nullptr;
    PVOID type3Input = nullptr;
    PVOID userBuffer = nullptr;
};

struct DriverState {
    std::mutex mutex;
    std::vector<Seen> seen;
    KSPIN_LOCK lock = 0; // guards `parked`, as a driver's queue lock would
    std::deque<PIRP> parked;
    ULONG deviceFlags = DO_DIRECT_IO;
    NTSTATUS createStatus = STATUS_SUCCESS;
    std::vector<UCHAR> readData; // served at once by reads while not empty
    std::function<void()> beforePark; // runs in the read's dispatch routine before it parks
    PDEVICE_OBJECT device = nullptr;

    std::vector<UCHAR> majors();
    size_t count(UCHAR major);
};
extern DriverState g;

// Completes `irp` with `status` and `information` and hands `status` back,
// as a dispatch routine's last statement does.
NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0, CCHAR boost = IO_NO_INCREMENT);

NTSTATUS NTAPI testDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
// Takes one parked read, as a completer does: the first whose cancel
// routine it wins. Null when none can be claimed.
PIRP claimParked();
// Completes a claimed read with `bytes` copied into its buffer.
void completeRead(PIRP irp, const std::vector<UCHAR> &bytes, NTSTATUS status = STATUS_SUCCESS);
size_t parkedCount();

// Loads the test driver for each test and unloads it after; the test main
// then checks the I/O manager is quiet.
class IoTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    // Switches the device between direct, buffered and neither I/O for the
    // requests that follow.
    void setBuffering(ULONG flags);

    PDRIVER_OBJECT driver_ = nullptr;
};

std::string narrow(std::u16string_view s);

// Opens `path` in `app`; a refused open fails the test and gives handle 0.
hk::Handle openOk(hk::Process &app, std::u16string_view path = kDevice, ACCESS_MASK access = GENERIC_READ);

// A counted string the kernel routines can take, over its own copy of the text.
struct Unicode {
    explicit Unicode(std::u16string text) : storage(std::move(text))
    {
        string.Buffer = reinterpret_cast<PWSTR>(storage.data());
        string.Length = string.MaximumLength = USHORT(storage.size() * 2);
    }
    std::u16string storage;
    UNICODE_STRING string{};
};

// ZwOpenKey of `path` (relative to `root` when given), from a driver's thread.
NTSTATUS openKey(const std::u16string &path, ACCESS_MASK access, HANDLE *key, HANDLE root = nullptr);

// A relative due time for KeSetTimer, in milliseconds.
inline LARGE_INTEGER relativeMs(LONGLONG milliseconds)
{
    LARGE_INTEGER due;
    due.QuadPart = -milliseconds * 10000;
    return due;
}

} // namespace iotest
