// The host's stand-in for the Windows user-mode I/O calls, and the test side
// of the I/O manager: processes that open device paths and issue requests,
// driver loading, the object namespace, fault injection and the end-of-test
// checks. Never included by driver sources.
//
// Everything here is thread-safe: many threads may act for one or many
// processes on many handles at once. Calls that issue requests must be made
// at PASSIVE_LEVEL (a thread holding no spin lock); a caller waiting for a
// request sleeps, it never spins.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "../amplatform.h"

namespace hostkernel {

namespace detail {
struct IrpRecord;
struct ProcessState;
} // namespace detail

// ------------------------------------------------------------------ drivers
// "\REGISTRY\MACHINE\SYSTEM\CurrentControlSet\Services\<name>".
std::u16string serviceKeyPath(std::u16string_view serviceName);

// Creates the driver object "\Driver\<name>" (every major-function slot
// holding the I/O manager's invalid-request routine), creates the service key
// if it is missing, and runs DriverEntry at PASSIVE_LEVEL in a system thread.
// On failure the driver object is gone again and null is returned; *status
// receives DriverEntry's result either way.
PDRIVER_OBJECT loadDriver(std::u16string_view serviceName, PDRIVER_INITIALIZE driverEntry, NTSTATUS *status);

// Runs DriverUnload (if the driver has one) in a system thread and frees the
// driver object. STATUS_DEVICE_BUSY, with nothing done, while a file object
// is still open on one of its devices. Device objects the driver failed to
// delete are a verifier violation (ObjectReferenceLeak).
NTSTATUS unloadDriver(PDRIVER_OBJECT driver);

// ------------------------------------------------------------------ namespace
// Names are case-insensitive; "\DosDevices\X", "\GLOBAL??\X" and "\??\X" are
// one name.
bool objectExists(std::u16string_view name);
std::optional<std::u16string> symbolicLinkTarget(std::u16string_view linkName);
// A link made from outside any driver: how a test plants a stale one.
NTSTATUS createSymbolicLink(std::u16string_view linkName, std::u16string_view targetName);
NTSTATUS deleteSymbolicLink(std::u16string_view linkName);

// ------------------------------------------------------------------ fault injection
enum class IoFault {
    CreateDevice,         // IoCreateDevice fails
    CreateSymbolicLink,   // IoCreateSymbolicLink fails
    MapMdl,               // MmMapLockedPagesSpecifyCache returns null (an MDL not yet mapped)
    RegisterInterface,    // IoRegisterDeviceInterface fails
    OpenInterfaceKey,     // IoOpenDeviceInterfaceRegistryKey fails
    SetInterfaceState,    // IoSetDeviceInterfaceState fails
};
// After `skip` further calls of that kind, the next `count` calls fail with
// `status` (ignored for MapMdl, which has no status). One fault per kind is
// armed; arming again replaces it.
void injectIoFault(IoFault fault, NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES, unsigned skip = 0,
                   unsigned count = 1);
void clearIoFaults();
// Still armed: a faulted call has not come yet (a sweep's end test).
bool ioFaultArmed(IoFault fault);

// ------------------------------------------------------------------ requests
using Handle = std::uint64_t; // per process; 0 is never a valid handle

struct IoResult {
    NTSTATUS status = STATUS_PENDING;        // the request's final status
    ULONG_PTR information = 0;               // IoStatus.Information
    CCHAR priorityBoost = IO_NO_INCREMENT;   // the boost the completing call gave
    NTSTATUS dispatchStatus = STATUS_PENDING; // what the top driver's dispatch routine returned
};

struct OpenOptions {
    ULONG shareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE;
    ULONG disposition = FILE_OPEN;
    ULONG createOptions = FILE_NON_DIRECTORY_FILE;
    USHORT fileAttributes = FILE_ATTRIBUTE_NORMAL;
};

// One asynchronous request (an overlapped call). Holding it keeps its result;
// dropping it before completion leaves the request running in the driver.
class Request {
public:
    explicit Request(std::shared_ptr<detail::IrpRecord> record);
    ~Request();
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;

    bool done() const;
    // True once completed; false when the timeout passed first.
    bool wait(std::chrono::milliseconds timeout) const;
    void wait() const;
    IoResult result() const; // status STATUS_PENDING while outstanding
    NTSTATUS status() const { return result().status; }
    ULONG_PTR information() const { return result().information; }
    // Read data or control output, sized as the request asked; read it once done.
    const std::vector<std::uint8_t> &output() const;
    // CancelIoEx for this one request: STATUS_NOT_FOUND once it has completed.
    NTSTATUS cancel();
    // The packet while it is outstanding, null afterwards.
    PIRP irp() const;

private:
    std::shared_ptr<detail::IrpRecord> record_;
};

// A user-mode process: its threads are the threads that call its methods.
// Requests carry the calling thread, whose process is this one.
class Process {
public:
    // Throws std::invalid_argument for id 0 or the id of a live process.
    explicit Process(std::uint64_t id);
    // Process exit: cancels the process's outstanding requests and closes
    // every handle it still has (cleanup, then close once unreferenced).
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    std::uint64_t id() const;
    PEPROCESS object() const;

    // CreateFile: the path is split as the object manager splits it
    // ("\Device\Ambrel\Piano\65536" opens "\Device\Ambrel" with FileName
    // "\Piano\65536"; links are followed; "\\?\" and "\\.\" mean "\??\").
    // Generic rights are mapped to file rights before the driver sees them.
    NTSTATUS open(std::u16string_view path, ACCESS_MASK desiredAccess, Handle *handle,
                  const OpenOptions &options = {});
    // An open relative to an open file (RelatedFileObject), as kernel
    // streaming creates pins on a filter; the name goes to the driver as is.
    NTSTATUS openRelative(Handle related, std::u16string_view name, ACCESS_MASK desiredAccess, Handle *handle,
                          const OpenOptions &options = {});
    NTSTATUS duplicate(Handle handle, Handle *copy);
    // CloseHandle: IRP_MJ_CLEANUP when the file's last handle goes, then
    // IRP_MJ_CLOSE once nothing (no outstanding request, no reference)
    // holds the file object any more.
    NTSTATUS close(Handle handle);

    IoResult read(Handle handle, void *buffer, ULONG length);
    IoResult write(Handle handle, const void *buffer, ULONG length);
    // METHOD_BUFFERED, IN/OUT_DIRECT and NEITHER by the code's transfer type;
    // the code's required access is checked against the handle's.
    IoResult deviceControl(Handle handle, ULONG code, const void *input, ULONG inputLength, void *output,
                           ULONG outputLength);
    // A kernel caller's IRP_MJ_INTERNAL_DEVICE_CONTROL (buffers passed as is).
    IoResult internalDeviceControl(Handle handle, ULONG code, void *input, ULONG inputLength, void *output,
                                   ULONG outputLength);
    // A request of any other major function with empty parameters (flush,
    // query information, ...).
    IoResult request(Handle handle, UCHAR majorFunction);

    std::shared_ptr<Request> readAsync(Handle handle, ULONG length);
    std::shared_ptr<Request> writeAsync(Handle handle, const void *data, ULONG length);
    std::shared_ptr<Request> deviceControlAsync(Handle handle, ULONG code, const void *input, ULONG inputLength,
                                                ULONG outputLength);

    // CancelIoEx(handle, NULL): cancels every outstanding request of this
    // process on the handle. STATUS_NOT_FOUND when there was none.
    NTSTATUS cancelIo(Handle handle);

    // The file object behind a handle (null for a bad handle).
    PFILE_OBJECT fileObject(Handle handle) const;
    size_t handleCount() const;

private:
    std::shared_ptr<detail::ProcessState> state_;
};

// ------------------------------------------------------------------ kernel-mode callers
// Sends a packet a kernel-mode caller built (IoBuildAsynchronousFsdRequest, or
// IoAllocateIrp with its next stack location filled in) to `device` from the
// calling thread, as such a caller does: a completion routine for success,
// error and cancel takes the result and hands the packet back with
// STATUS_MORE_PROCESSING_REQUIRED, and the call waits for it at
// PASSIVE_LEVEL. The result carries the dispatch status and the boost of the
// completing call. The packet stays the caller's (releaseKernelRequest).
// nullopt when `timeout` passes first: the packet is still in the driver, and
// the routine will take it back whenever it is completed.
std::optional<IoResult> sendKernelRequest(PDEVICE_OBJECT device, PIRP irp,
                                          std::chrono::milliseconds timeout = std::chrono::seconds(10));
// What the caller's completion routine does once it has the result: unlocks
// and frees the packet's MDLs, frees a system buffer the packet owns
// (IRP_DEALLOCATE_BUFFER), and frees the packet.
void releaseKernelRequest(PIRP irp);

// ------------------------------------------------------------------ timers
// What drivers asked of their timers. While a TimerArmingLog lives, every
// KeSetTimer/KeSetTimerEx call is recorded in call order with the due time as
// the driver passed it (negative: relative, in 100-ns units) and its period,
// so a test pins the interval a driver chose instead of timing the host's
// clock. One log at a time.
struct TimerArming {
    const void *timer = nullptr;
    LONGLONG dueTime = 0;
    LONG period = 0;
};
class TimerArmingLog {
public:
    TimerArmingLog();
    ~TimerArmingLog();
    TimerArmingLog(const TimerArmingLog &) = delete;
    TimerArmingLog &operator=(const TimerArmingLog &) = delete;
    std::vector<TimerArming> armings() const;
};

// ------------------------------------------------------------------ end of test
// Waits until deferred work has run: closes of files whose last reference an
// asynchronous completion dropped, and every queued DPC.
void drainIo();
// The I/O manager's part of the per-test check: no request left outstanding,
// no packet a kernel-mode caller allocated left unfreed, no registry handle
// left open, no timer or DPC still queued, no driver,
// device, file object or object reference left behind. Reports the first
// violation found.
void verifyIoQuiescent();
// Back to a fresh boot: namespace, registry, interfaces, WDM version, fault
// injection. Only between tests, with nothing outstanding.
void resetIoState();

} // namespace hostkernel
