// The host's loader of real driver images: a PE32+ native image for AMD64
// (ambrel.sys as the Windows build links it) mapped into the process with
// its sections' protections, relocated, its imports bound to the host
// kernel's routines, and run as the I/O manager runs a driver. Never included
// by driver sources.
//
// Image code runs on host threads as it would on a processor: its inline
// KeGetCurrentIrql/KeRaiseIrql/KeLowerIrql (moves from and to CR8) and its
// reads of KUSER_SHARED_DATA are emulated by a fault handler against the
// calling thread's IRQL and the host's clocks; any other privileged or
// faulting instruction in an image is reported as a bug check.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "../amplatform.h"

namespace hostkernel {

// loadDriver (io.h) for an image file: maps it, binds its imports, fills the
// driver object's DriverStart, DriverSize and DriverSection, and runs its
// entry point as DriverEntry(DriverObject, RegistryPath) at PASSIVE_LEVEL in
// a system thread. Discardable sections (INIT) are inaccessible once it
// returns. A file the loader refuses never runs: null, with the loader's
// status (STATUS_INVALID_IMAGE_FORMAT, STATUS_PROCEDURE_NOT_FOUND, ...) in
// *status and a log line naming the cause. unloadDriver releases the
// mapping once the driver is gone.
PDRIVER_OBJECT loadDriverImage(std::u16string_view serviceName, const std::string &imagePath, NTSTATUS *status);

namespace loader {

// One mapped image. Destroying it unmaps it: nothing may still run its code.
class Image {
public:
    struct Section {
        std::string name;
        std::uintptr_t address = 0;
        std::size_t size = 0; // mapped bytes, page-rounded
        int protection = 0;   // PROT_* while the driver runs
        bool discardable = false;
    };

    ~Image();
    Image(const Image &) = delete;
    Image &operator=(const Image &) = delete;

    const std::string &name() const { return name_; } // "ambrel.sys"
    std::uintptr_t base() const { return base_; }
    std::size_t size() const { return size_; }
    std::uintptr_t entryPoint() const { return entry_; }
    const std::vector<Section> &sections() const { return sections_; }
    bool contains(const void *address) const;

    // The address of a link-map symbol (its demangled name without the
    // parameter list: "CMiniportAmbrel::NewStream"); 0 when not found.
    std::uintptr_t symbol(std::string_view name) const;
    // "ambrel.sys+0x1234 (am_private_dispatch_read+0x56)", or without the
    // parenthesis where the map names nothing there.
    std::string describe(const void *address) const;
    // Symbols from a GNU ld link map; loadImageFile reads the one beside the
    // image (ambrel.map for ambrel.sys) by itself.
    void loadSymbols(const std::string &mapText);

    // What the I/O manager does once DriverEntry returns: the INIT section
    // and every other discardable one become inaccessible, so later code or
    // data use faults and is reported.
    void discardInitSections();

private:
    friend struct ImageBuilder;
    Image() = default;
    struct Symbol {
        std::uintptr_t rva;
        std::size_t size; // 0: up to the next symbol
        std::string name;
    };
    std::string name_;
    std::uintptr_t base_ = 0;
    std::size_t size_ = 0;
    std::uintptr_t entry_ = 0;
    std::uintptr_t preferredBase_ = 0;
    std::vector<Section> sections_;
    std::vector<Symbol> symbols_; // by rva
    int registration_ = -1;       // slot in the table the fault handler reads
};

// Maps the image whose file contents are `bytes`, applies its base
// relocations and binds its imports, without running anything. Refusals
// return the status Windows gives and log "HKLOADER: <name>: <cause>".
NTSTATUS loadImage(const std::uint8_t *bytes, std::size_t size, std::string_view name, std::unique_ptr<Image> *out);
// The same for a file, with the link map beside it when there is one.
NTSTATUS loadImageFile(const std::string &path, std::unique_ptr<Image> *out);

// The host routine an image importing module!name is bound to; null when the
// host exports no such routine (module names are case-insensitive).
const void *hostExport(std::string_view module, std::string_view name);
// Every name of one module's export table.
std::vector<std::string> hostExportNames(std::string_view module);

// describe() of the loaded (or recently unloaded) image containing the
// address; empty when it is in none.
std::string describeAddress(const void *address);

// Installs the fault handler that emulates CR8 and KUSER_SHARED_DATA for
// image code (loading an image does it too); idempotent. A fault that is not
// the loader's goes to whatever handler was installed before.
void installTrap();

} // namespace loader
} // namespace hostkernel
