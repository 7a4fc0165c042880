// Shared bookkeeping of the host I/O manager: the records kept beside each
// driver, device, file object and request, the object namespace, the system
// threads, and the checks they share.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "hostkernel/executive.h"
#include "hostkernel/io.h"

namespace hostkernel::detail {
struct ProcessState;
}

// The process and thread objects drivers get pointers to. Drivers treat them
// as opaque; the host keeps them alive for as long as a request names them.
struct _EPROCESS {
    std::uint64_t id = 0;
};

struct _ETHREAD {
    std::uint64_t threadId = 0;
    PEPROCESS process = nullptr; // null: a system thread
};

namespace hostkernel::detail {

// ------------------------------------------------------------------ strings
std::u16string toU16(PCUNICODE_STRING s);
// Case folding for object and registry names: ASCII and Latin-1 letters.
char16_t foldChar(char16_t c);
std::u16string upcase(std::u16string_view s);
bool equalNoCase(std::u16string_view a, std::u16string_view b);
// For verifier messages: ASCII as is, everything else as '?'.
std::string narrow(std::u16string_view s);
std::string hex(std::uint64_t v);
const char *majorName(UCHAR major);

// An allocated, NUL-terminated UNICODE_STRING from pool (freed by the
// caller with RtlFreeUnicodeString).
NTSTATUS allocateUnicodeString(std::u16string_view text, PUNICODE_STRING out);

// ------------------------------------------------------------------ checks
[[noreturn]] void violation(Rule rule, const std::string &detail);
// IRQL preconditions of kernel routines.
void requireIrqlAtMost(KIRQL max, const char *routine);
inline void requirePassive(const char *routine) { requireIrqlAtMost(PASSIVE_LEVEL, routine); }
// A Windows bug check for what no verifier rule covers (a broken packet, a
// stack without locations).
[[noreturn]] void bugCheck(ULONG code, ULONG_PTR p1, ULONG_PTR p2, const char *what);

// ------------------------------------------------------------------ faults
bool takeIoFault(IoFault fault, NTSTATUS *status);

// ------------------------------------------------------------------ threads
// The thread object of the calling thread: the acting process's thread when
// the caller API runs on its behalf, otherwise a system thread.
std::shared_ptr<_ETHREAD> currentThread();

// Makes the calling OS thread act as a thread of `process` for its lifetime.
class ActingAs {
public:
    explicit ActingAs(const std::shared_ptr<ProcessState> &process);
    ~ActingAs();
    ActingAs(const ActingAs &) = delete;
    ActingAs &operator=(const ActingAs &) = delete;

private:
    _ETHREAD *previous_;
    std::shared_ptr<_ETHREAD> previousRef_;
};

// Runs `work` at PASSIVE_LEVEL in a new system thread and waits for it.
void runInSystemThread(const std::function<void()> &work, const char *what);
// Deferred PASSIVE_LEVEL work on the I/O manager's worker (a system thread).
void postToWorker(std::function<void()> work);
void drainWorker();

// ------------------------------------------------------------------ objects
constexpr std::uint64_t kDriverMagic = 0x48'4B'44'52'56'52'00'01ull;
constexpr std::uint64_t kDeviceMagic = 0x48'4B'44'45'56'49'00'02ull;
constexpr std::uint64_t kFileMagic = 0x48'4B'46'49'4C'45'00'03ull;
constexpr std::uint64_t kIrpMagic = 0x48'4B'49'52'50'00'00'04ull;

struct DeviceRecord;
struct FileRecord;
struct DeviceNodeState;

struct DriverRecord {
    std::uint64_t magic = kDriverMagic;
    DRIVER_OBJECT object{};
    DRIVER_EXTENSION extension{};
    std::u16string name;         // "\Driver\X"
    std::u16string serviceName;  // "X"
    std::u16string registryPath; // the service key
    UNICODE_STRING registryPathString{};
    std::set<DeviceRecord *> devices; // every device record still allocated
    bool isBus = false;
    // The loader's hold on the driver's mapped image (loadDriverImage): let
    // go with the record, once nothing can call the driver's code any more.
    std::shared_ptr<void> image;
};

struct DeviceRecord {
    std::uint64_t magic = kDeviceMagic;
    DEVICE_OBJECT object{};
    void *extension = nullptr;
    size_t extensionSize = 0;
    DriverRecord *driver = nullptr;
    std::u16string name; // empty for an unnamed device
    DeviceRecord *lower = nullptr; // the device this one is attached to
    bool deleted = false;
    long openFiles = 0; // file objects that name this device
    long obRefs = 0;    // ObReferenceObject references
    // Plug and play: set for a PDO of the host's root bus.
    std::u16string instancePath;
    DeviceNodeState *node = nullptr;
};

// All of the object bookkeeping below is guarded by this one lock; it is
// never held while a driver routine runs.
std::mutex &objectsMutex();

DriverRecord *driverRecordOf(PDRIVER_OBJECT driver);             // null unless valid
DeviceRecord *deviceRecordOf(PDEVICE_OBJECT device);             // null unless valid
DeviceRecord *requireDevice(PDEVICE_OBJECT device, const char *routine); // bug check unless valid
// Top of the stack the device is part of (objectsMutex held).
DeviceRecord *topOfStackLocked(DeviceRecord *device);
// A device record goes when it is deleted and nothing references it
// (objectsMutex held).
void maybeFreeDeviceLocked(DeviceRecord *device);

// Creates a device for the host's own drivers (the root bus).
NTSTATUS createDeviceInternal(DriverRecord *driver, ULONG extensionSize, std::u16string_view name,
                              DEVICE_TYPE type, ULONG characteristics, BOOLEAN exclusive, DeviceRecord **out);
DriverRecord *createDriverRecord(std::u16string_view serviceName, bool isBus);
// loadDriver's machinery for any kind of entry point: the driver object is
// made, `prepare` fills in what the loader knows (DriverInit, DriverStart,
// the image), the entry runs in a system thread, `entryReturned` runs after
// it whatever it returned, and a failure takes the driver object away.
using DriverEntryCall = std::function<NTSTATUS(PDRIVER_OBJECT, PUNICODE_STRING)>;
PDRIVER_OBJECT loadDriverWith(std::u16string_view serviceName, const DriverEntryCall &entry,
                              const std::function<void(DriverRecord &)> &prepare, NTSTATUS *status,
                              const std::function<void()> &entryReturned = {});

// ------------------------------------------------------------------ namespace
struct ResolvedName {
    DeviceRecord *device = nullptr;
    std::u16string remainder; // what follows the device's name, "" when nothing
};
// objectsMutex held. Follows links; errors as the object manager gives them.
NTSTATUS resolveLocked(std::u16string_view path, ResolvedName *out);
void removeDeviceNameLocked(const std::u16string &name);
NTSTATUS createLinkLocked(std::u16string_view link, std::u16string_view target);
NTSTATUS deleteLinkLocked(std::u16string_view link);
void resetNamespaceLocked();

// ------------------------------------------------------------------ files and requests
struct IrpRecord;

struct FileRecord {
    std::uint64_t magic = kFileMagic;
    FILE_OBJECT object{};
    std::u16string name;          // FileName's storage
    DeviceRecord *device = nullptr; // holds one of its openFiles
    FileRecord *related = nullptr;  // holds a pointer reference
    std::atomic<long> pointerCount{1};
    std::atomic<long> handleCount{0};
    long obRefs = 0; // drivers' ObReferenceObject references (objectsMutex)
    ACCESS_MASK granted = 0;
    bool created = false; // IRP_MJ_CREATE succeeded: a close is owed
    std::mutex mutex;
    std::set<IrpRecord *> outstanding; // requests issued on it, not yet completed
};

FileRecord *fileRecordOf(PFILE_OBJECT file); // null unless valid
// Drops one pointer reference; the last one sends IRP_MJ_CLOSE and frees the
// record, here when `inlineClose` (a PASSIVE_LEVEL caller holding nothing),
// otherwise on the worker.
void releaseFile(FileRecord *file, bool inlineClose);
size_t liveFileCount();

struct LevelState {
    int activeFrames = 0;
    bool marked = false;          // IoMarkIrpPending (or propagation) at this location
    bool returnedPending = false; // a dispatch routine at this location returned STATUS_PENDING
    bool passed = false;          // completion has moved above this location
};

// Caller: the application calls; Pnp: the PnP manager; Internal: the I/O
// manager's own cleanup and close; Kernel: a kernel-mode caller's packet
// (IoAllocateIrp, IoBuildAsynchronousFsdRequest), which the caller frees.
enum class IrpOrigin { Caller, Pnp, Internal, Kernel };

struct IrpRecord : std::enable_shared_from_this<IrpRecord> {
    IrpRecord(CCHAR stackSize, IrpOrigin origin);
    ~IrpRecord();
    IrpRecord(const IrpRecord &) = delete;
    IrpRecord &operator=(const IrpRecord &) = delete;

    PIO_STACK_LOCATION stack0() const { return reinterpret_cast<PIO_STACK_LOCATION>(irp + 1); }
    // The first stack location the next IoCallDriver will use.
    PIO_STACK_LOCATION firstLocation() const { return IoGetNextIrpStackLocation(irp); }

    unsigned char *block = nullptr;
    PIRP irp = nullptr;
    IrpOrigin origin;
    std::shared_ptr<_ETHREAD> thread;
    std::shared_ptr<ProcessState> process;
    FileRecord *file = nullptr; // pointer reference held until completion
    UCHAR major = 0;
    std::u16string target;      // driver of the device it was sent to, for messages

    // Buffers the I/O manager owns for the request.
    IO_SECURITY_CONTEXT securityContext{};
    std::vector<std::uint8_t> systemBuffer;
    MDL mdl{};
    std::vector<std::uint8_t> input;  // asynchronous requests' own copy of the input
    std::vector<std::uint8_t> output; // asynchronous requests' output
    void *copyBackTo = nullptr;       // buffered output goes here at completion
    ULONG copyBackLength = 0;

    // Completion.
    std::mutex mutex;
    std::condition_variable cv;
    bool completed = false;
    IoResult result;
    std::atomic<bool> completing{false};
    std::atomic<bool> finished{false};
    std::shared_ptr<IrpRecord> selfWhileLive;
    std::vector<LevelState> levels;
    CCHAR completionBoost = IO_NO_INCREMENT; // of the latest IoCompleteRequest

    // Kernel packets: sent once by IoCallDriver; freed by IoFreeIrp or by a
    // completion that ran to the end.
    std::atomic<bool> sent{false};
    std::atomic<bool> freed{false};
};

IrpRecord *irpRecordOf(PIRP irp, const char *routine); // bug check unless valid
// Sends the prepared request to `device` and returns the dispatch status.
// The record stays alive until completion even if the caller lets go.
NTSTATUS issueIrp(const std::shared_ptr<IrpRecord> &record, PDEVICE_OBJECT device);
// Waits for completion and returns the result. A dispatch routine that
// returned a final status without completing the request is not waited for.
IoResult waitIrp(IrpRecord &record);
size_t outstandingIrpCount();
// The live set behind IrpNeverCompleted: a kernel packet joins it when first
// sent and leaves it when completed or freed.
void trackLiveIrp(IrpRecord *record);
void untrackLiveIrp(IrpRecord *record);
std::string describeIrp(const IrpRecord &record);
// Kernel packets (kernelcaller.cpp): the I/O manager's end of a completion
// that ran to the end; allocated packets not yet freed; forgetting them all.
void finishKernelIrp(IrpRecord &record);
std::vector<std::string> unfreedKernelIrpDescriptions();
void resetKernelIrps();
std::vector<std::string> outstandingIrpDescriptions();

// A synchronous request from the current thread to the top of the file's
// stack with an empty stack location of `major` (cleanup and close).
IoResult sendFileRequest(FileRecord *file, UCHAR major, bool takeReference);

// ------------------------------------------------------------------ processes
struct ProcessState : std::enable_shared_from_this<ProcessState> {
    _EPROCESS eprocess;
    std::mutex mutex;
    std::unordered_map<std::thread::id, std::shared_ptr<_ETHREAD>> threads;
    std::unordered_map<Handle, FileRecord *> handles;
    Handle nextHandle = 4;
    std::shared_ptr<_ETHREAD> threadFor(std::thread::id id);
};

// ------------------------------------------------------------------ timers and DPCs
// The pool's free path reports each freed block here.
void checkFreedMemory(const void *base, size_t bytes);
void dpcQuiesce(); // waits until no DPC is queued or running
std::vector<std::string> queuedTimerDescriptions();
std::vector<std::string> queuedDpcDescriptions();
// Before an image goes: a timer or DPC still queued with its routine in the
// image is Driver Verifier's bug check 0xC7 (TIMER_OR_DPC_INVALID).
void checkNoQueuedWorkIn(const std::u16string &driverName, const void *start, ULONG size);

// ------------------------------------------------------------------ registry
void resetRegistry();
std::vector<std::u16string> openRegistryHandlePaths();
// Opens (creating as needed, non-volatile) a key for the I/O manager's own use
// and returns a kernel handle to it.
NTSTATUS openOrCreateKeyPath(std::u16string_view path, ACCESS_MASK access, bool create, HANDLE *handle);

// ------------------------------------------------------------------ plug and play
void pdoRemoved(DeviceRecord *pdo); // disables its interfaces (objectsMutex held)
// Opens of a device whose stack is being removed, or was surprise-removed and
// waits for its last file object, fail with STATUS_DELETE_PENDING
// (objectsMutex held).
bool stackRemovalStartedLocked(DeviceRecord *device);
// Called when a file object naming `device` goes (objectsMutex held): the
// node whose surprise removal this file object was the last to hold up, for
// finishDeferredRemoval once the lock is released; null otherwise.
std::shared_ptr<DeviceNodeState> takeDeferredRemovalLocked(DeviceRecord *device);
// IRP_MN_REMOVE_DEVICE to the stack and the PDO deleted (PASSIVE_LEVEL).
void finishDeferredRemoval(const std::shared_ptr<DeviceNodeState> &node);
void resetInterfacesLocked();
void resetPnp();
std::vector<std::string> liveDeviceNodeDescriptions();
std::vector<std::string> liveDriverDescriptions();

} // namespace hostkernel::detail
