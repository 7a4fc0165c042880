// Shared pieces of the host's portcls: the counted object base with its
// registry and quarantine, the adapter devices, the DMus port, and the
// kernel-streaming filters and pins built on them.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "hostkernel/executive.h"
#include "hostkernel/io.h"
#include "hostkernel/portcls.h"

namespace hostkernel::detail::pc {

// ------------------------------------------------------------------ counted objects
// Every COM object the framework hands out. The count starts at 1 (the
// creator's reference). When it reaches 0 the object releases what it holds
// (finalRelease) and is kept, dead, in a quarantine until the next reset, so
// that one Release too many is reported as ObjectDoubleRelease instead of
// touching freed memory. Objects alive at the end of a test are leaks.
//
// A traced object also keeps its last reference steps (which thread, from
// where, the count after) and prints them with a count violation: the
// report comes at the release that finds the count gone, but the fault is
// the earlier step that dropped a reference its caller did not hold.
class Object {
public:
    explicit Object(const char *kind, bool traced = false);
    virtual ~Object();
    Object(const Object &) = delete;
    Object &operator=(const Object &) = delete;

    ULONG addRef();
    ULONG release();
    const char *kind() const { return kind_; }
    long count() const { return refs_.load(); }

protected:
    // Runs once, when the last reference goes; the object is dead afterwards.
    virtual void finalRelease() {}

private:
    struct Trace;
    void record(char op, long count);
    std::string history() const;

    const char *kind_;
    std::atomic<long> refs_{1};
    std::unique_ptr<Trace> trace_;
};

#define HK_PC_UNKNOWN()                                                              \
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID iid, PVOID *object) override;      \
    STDMETHODIMP_(ULONG) AddRef() override { return addRef(); }                      \
    STDMETHODIMP_(ULONG) Release() override { return release(); }

// Host-private interface ids: how the framework recognises its own objects
// behind an IUnknown a driver hands back.
DEFINE_GUID(IID_IHostPortDMus, 0x6B8E1D40, 0x3C0A, 0x4E51, 0x9A, 0x77, 0x10, 0x2F, 0x5C, 0x44, 0xA1, 0x01);

std::string guidText(const GUID &guid);
std::string narrowText(std::u16string_view s);
bool equalNoCase(std::u16string_view a, std::u16string_view b);

// ------------------------------------------------------------------ settings and counters
struct Settings {
    USHORT largeBufferSize = 240;
    size_t eventLimit = 0;                 // 0: no limit
    size_t captureQueueLimit = 1u << 20;   // bytes a capture pin keeps for its reader
    bool serviceGroupFault = false;        // the next PcNewServiceGroup hands out nothing
    NTSTATUS serviceGroupFaultStatus = STATUS_SUCCESS;
};
// Takes (disarms) an armed PcNewServiceGroup fault; false when none is armed.
bool takeServiceGroupFault(NTSTATUS *status);
Settings settings();

void countEvents(long delta);
void countBuffers(long delta);

// ------------------------------------------------------------------ service group
class ServiceGroup;
NTSTATUS newServiceGroup(ServiceGroup **out);

// ------------------------------------------------------------------ allocator and clock
class Allocator;
Allocator *newAllocator(USHORT bufferSize);
IAllocatorMXF *allocatorInterface(Allocator *allocator);
// Builds the events of one music record (package event when it needs more
// than one allocator buffer); null with *status on failure, nothing leaked.
PDMUS_KERNEL_EVENT buildEvents(Allocator *allocator, const UCHAR *bytes, ULONG length, REFERENCE_TIME time,
                               ULONGLONG bytePosition, NTSTATUS *status);
void appendBytes(PDMUS_KERNEL_EVENT list, std::vector<uint8_t> *out);

// COM identity of a driver object the framework takes: IID_IUnknown is
// answered, from `first` and (when given) from `second`, another interface
// of the same object, with one and the same pointer. A violation otherwise.
// A driver built with a misspelt IID_IUnknown fails here on its first port.
void checkComIdentity(PUNKNOWN first, PUNKNOWN second, const char *what);

IMasterClock *newMasterClock();

// ------------------------------------------------------------------ adapters, ports, filters, pins
class Port;
struct Adapter;
class Filter;
class Pin;

struct Subdevice {
    std::u16string name;
    Port *port = nullptr; // counted by the registration
    std::vector<std::u16string> interfaceLinks;
};

struct Adapter {
    PDEVICE_OBJECT fdo = nullptr;
    PDEVICE_OBJECT pdo = nullptr;
    PDEVICE_OBJECT lower = nullptr;
    PCPFNSTARTDEVICE start = nullptr;
    ULONG maxObjects = 0;
    std::mutex mutex;
    std::vector<Subdevice> subdevices;
    bool removed = false;
};

std::shared_ptr<Adapter> adapterOf(PDEVICE_OBJECT device);
Port *portOf(PUNKNOWN unknown); // counted, or null

class Port;
// Kernel-streaming objects behind file objects of an adapter device.
class KsObject : public std::enable_shared_from_this<KsObject> {
public:
    virtual ~KsObject() = default;
    virtual bool isPin() const = 0;
};

std::shared_ptr<KsObject> ksObjectOf(PFILE_OBJECT file);
void registerKsObject(PFILE_OBJECT file, const std::shared_ptr<KsObject> &object);
std::shared_ptr<KsObject> unregisterKsObject(PFILE_OBJECT file);

NTSTATUS createFilter(const std::shared_ptr<Adapter> &adapter, PIRP irp);
NTSTATUS createPin(const std::shared_ptr<Adapter> &adapter, PIRP irp);
NTSTATUS closeKsObject(PIRP irp);
NTSTATUS cleanupKsObject(PIRP irp);
NTSTATUS ksDeviceControl(PIRP irp);

// Drops the subdevices of a removed adapter.
void unregisterAll(Adapter &adapter);

// Reports accumulated in the module, read by the host API.
size_t liveObjectCount();
std::vector<std::string> liveObjectDescriptions();
size_t openFilterCount();
size_t openPinCount();
size_t registeredSubdeviceCount();
std::vector<ULONG> adapterMaxObjects();
void freeQuarantine();

} // namespace hostkernel::detail::pc
