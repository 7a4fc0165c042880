// The loader's mapping, binding and refusals, and the names it gives image
// addresses.
#include <sys/mman.h>

#include <functional>

#include "loader_support.h"

namespace loadertest {
namespace {

using petest::get;
using petest::put;

constexpr std::uint32_t kOpt = petest::kOptionalOffset;
constexpr std::uint32_t section(int i) { return petest::kSectionTable + 40 * i; }
// Sections of BaseImage: .text, .data, .rdata, .idata, .reloc.
enum { kText, kData, kRData, kIData, kReloc };

std::uint32_t fileOffsetOf(const Bytes &b, int sectionIndex)
{
    return get<std::uint32_t>(b, section(sectionIndex) + 20);
}

// The file offset of ntoskrnl.exe's first import lookup entry.
std::uint32_t firstLookupEntry(const Bytes &b)
{
    std::uint32_t idata = fileOffsetOf(b, kIData);
    return idata + get<std::uint32_t>(b, idata) - get<std::uint32_t>(b, section(kIData) + 12);
}

TEST(LoaderTest, MapsSectionsWithTheirProtectionsRelocatesAndBinds)
{
    BaseImage base;
    Bytes bytes = base.writer.build();
    std::uint32_t memcpySlot = base.writer.importSlot("ntoskrnl.exe", "memcpy");
    std::uint32_t irqlSlot = base.writer.importSlot("ntoskrnl.exe", "KeGetCurrentIrql");
    std::uint32_t counterSlot = base.writer.importSlot("HAL.dll", "KeQueryPerformanceCounter");
    std::unique_ptr<hk::loader::Image> image;
    ASSERT_EQ(load(bytes, &image), STATUS_SUCCESS);
    std::uintptr_t b = image->base();

    EXPECT_EQ(protectionAt(b), "r--p");                  // headers
    EXPECT_EQ(protectionAt(b + base.text), "r-xp");
    EXPECT_EQ(protectionAt(b + base.data), "rw-p");
    EXPECT_EQ(protectionAt(b + base.data + 0x1000), "rw-p"); // the tail of its virtual size
    EXPECT_EQ(protectionAt(b + base.rdata), "r--p");
    EXPECT_EQ(image->entryPoint(), b + base.text);
    EXPECT_EQ(0, std::memcmp(reinterpret_cast<void *>(b), "MZ", 2));

    // The code's address, relocated from the preferred base to where it lies.
    EXPECT_EQ(*reinterpret_cast<std::uint64_t *>(b + base.data), b + base.text);
    // The uninitialised tail reads zero.
    for (std::uint32_t i = 8; i < 0x1800; i++) {
        ASSERT_EQ(*reinterpret_cast<std::uint8_t *>(b + base.data + i), 0) << i;
    }
    // Imports bound to the host's routines, whatever the module name's case.
    auto slot = [&](std::uint32_t rva) { return *reinterpret_cast<const void *const *>(b + rva); };
    EXPECT_NE(slot(irqlSlot), nullptr);
    EXPECT_EQ(slot(irqlSlot), hk::loader::hostExport("ntoskrnl.exe", "KeGetCurrentIrql"));
    EXPECT_EQ(slot(memcpySlot), hk::loader::hostExport("NTOSKRNL.EXE", "memcpy"));
    EXPECT_EQ(slot(counterSlot), hk::loader::hostExport("hal.dll", "KeQueryPerformanceCounter"));
    // The entry point runs: xor eax,eax; ret.
    EXPECT_EQ(at(*image, base.text)(1, 2), 0u);

    image.reset();
    EXPECT_EQ(protectionAt(b + base.text), "") << "unmapped with the image";
}

struct Refusal {
    const char *name;
    std::function<void(BaseImage &)> prepare; // before the image is built
    std::function<void(Bytes &)> edit;        // after
    NTSTATUS status;
    const char *cause; // in the log line "HKLOADER: test.sys: <cause>"
};

TEST(LoaderTest, RefusesMalformedImagesWithWindowsStatusesAndNamesTheCause)
{
    auto none = [](BaseImage &) {};
    auto keep = [](Bytes &) {};
    const Refusal refusals[] = {
        {"no MZ", none, [](Bytes &b) { b[0] = 'Z'; }, NTSTATUS(0xC000012F), "no MZ header"},
        {"empty file", none, [](Bytes &b) { b.clear(); }, NTSTATUS(0xC000012F), "no MZ header"},
        {"DOS header cut", none, [](Bytes &b) { b.resize(0x30); }, NTSTATUS(0xC0000130), "DOS header truncated"},
        {"e_lfanew past the file", none, [](Bytes &b) { put<std::uint32_t>(b, 0x3C, 0x7FFFFFF0); },
         NTSTATUS(0xC0000130), "e_lfanew 0x7ffffff0"},
        {"e_lfanew misaligned", none, [](Bytes &b) { put<std::uint32_t>(b, 0x3C, 0x82); }, NTSTATUS(0xC0000130),
         "e_lfanew 0x82"},
        {"no PE signature", none, [](Bytes &b) { b[petest::kNtOffset + 1] = 'X'; }, NTSTATUS(0xC0000130),
         "no PE signature"},
        {"i386", none, [](Bytes &b) { put<std::uint16_t>(b, petest::kCoffOffset, 0x14C); }, NTSTATUS(0xC000007B),
         "machine 0x14c is not AMD64"},
        {"PE32", none, [](Bytes &b) { put<std::uint16_t>(b, kOpt, 0x10B); }, NTSTATUS(0xC000007B),
         "a PE32 image, not PE32+"},
        {"Windows GUI subsystem", none, [](Bytes &b) { put<std::uint16_t>(b, kOpt + 68, 2); }, NTSTATUS(0xC000007B),
         "subsystem 2 is not native"},
        {"object file", none, [](Bytes &b) { put<std::uint16_t>(b, petest::kCoffOffset + 18, 0x0020); },
         NTSTATUS(0xC000007B), "not an executable image"},
        {"relocations stripped", none, [](Bytes &b) { put<std::uint16_t>(b, petest::kCoffOffset + 18, 0x0023); },
         NTSTATUS(0xC000007B), "relocations stripped"},
        {"no sections", none, [](Bytes &b) { put<std::uint16_t>(b, petest::kCoffOffset + 2, 0); },
         NTSTATUS(0xC000007B), "0 sections"},
        {"section table past the file", none, [](Bytes &b) { b.resize(section(3)); }, NTSTATUS(0xC000007B),
         "section table beyond the end of the file"},
        {"headers larger than the file", none, [](Bytes &b) { put<std::uint32_t>(b, kOpt + 60, 0x7FFFFFFF); },
         NTSTATUS(0xC000007B), "size of headers"},
        {"file cut inside a section", none, [](Bytes &b) { b.resize(fileOffsetOf(b, kRData) + 0x10); },
         NTSTATUS(0xC000007B), "section 3 (.rdata) has data beyond the end of the file"},
        {"raw data pointer wraps", none, [](Bytes &b) { put<std::uint32_t>(b, section(kRData) + 20, 0xFFFFFF00); },
         NTSTATUS(0xC000007B), "section 3 (.rdata) has data beyond the end of the file"},
        {"overlapping sections", none,
         [](Bytes &b) { put<std::uint32_t>(b, section(kData) + 12, get<std::uint32_t>(b, section(kText) + 12)); },
         NTSTATUS(0xC000007B), "section 2 (.data) overlaps"},
        {"misordered sections", none,
         [](Bytes &b) {
             std::uint32_t text = get<std::uint32_t>(b, section(kText) + 12);
             put<std::uint32_t>(b, section(kText) + 12, get<std::uint32_t>(b, section(kData) + 12) + 0x1000);
             put<std::uint32_t>(b, section(kData) + 12, text);
         },
         NTSTATUS(0xC000007B), "section 2 (.data) overlaps"},
        {"section off the alignment", none, [](Bytes &b) { put<std::uint32_t>(b, section(kRData) + 12, 0x5800); },
         NTSTATUS(0xC000007B), "section 3 (.rdata) is not aligned"},
        {"virtual size past the image", none,
         [](Bytes &b) { put<std::uint32_t>(b, section(kRData) + 8, 0xFFFFF000); }, NTSTATUS(0xC000007B),
         "section 3 (.rdata) lies beyond the size of the image"},
        {"image too large", none, [](Bytes &b) { put<std::uint32_t>(b, kOpt + 56, 0x20000000); },
         NTSTATUS(0xC000007B), "size of image 0x20000000"},
        {"writable code", none, [](Bytes &b) { put<std::uint32_t>(b, section(kText) + 36, 0xE0000020); },
         NTSTATUS(0xC0000130), "section 1 (.text) is both writable and executable"},
        {"entry point in data", none,
         [](Bytes &b) { put<std::uint32_t>(b, kOpt + 16, get<std::uint32_t>(b, section(kData) + 12)); },
         NTSTATUS(0xC000007B), "entry point 0x2000 is not in a code section"},
        {"directory out of the image", none, [](Bytes &b) { put<std::uint32_t>(b, kOpt + 112 + 8, 0x7FFFFF00); },
         NTSTATUS(0xC000007B), "data directory 1 out of the image"},
        {"TLS directory", none,
         [](Bytes &b) {
             put<std::uint32_t>(b, kOpt + 112 + 8 * 9, get<std::uint32_t>(b, section(kRData) + 12));
             put<std::uint32_t>(b, kOpt + 116 + 8 * 9, 40);
         },
         NTSTATUS(0xC000007B), "a TLS directory"},
        {"relocation block larger than its directory", none,
         [](Bytes &b) { put<std::uint32_t>(b, fileOffsetOf(b, kReloc) + 4, 0x1000); }, NTSTATUS(0xC000007B),
         "relocation block at"},
        {"relocation block of zero bytes", none,
         [](Bytes &b) { put<std::uint32_t>(b, fileOffsetOf(b, kReloc) + 4, 0); }, NTSTATUS(0xC000007B),
         "relocation block at"},
        {"HIGHLOW relocation", none,
         [](Bytes &b) { put<std::uint16_t>(b, fileOffsetOf(b, kReloc) + 8, 0x3000); }, NTSTATUS(0xC000007B),
         "relocation of type 3"},
        {"relocation target past the image", none,
         [](Bytes &b) { put<std::uint32_t>(b, fileOffsetOf(b, kReloc), 0x7FFFF000); }, NTSTATUS(0xC000007B),
         "relocation target 0x7ffff000 out of the image"},
        {"import module name out of the image", none,
         [](Bytes &b) { put<std::uint32_t>(b, fileOffsetOf(b, kIData) + 12, 0x7FFFFFF0); }, NTSTATUS(0xC000007B),
         "import module name at 0x7ffffff0"},
        {"import module name unterminated", none,
         [](Bytes &b) { put<std::uint32_t>(b, fileOffsetOf(b, kIData) + 12, get<std::uint32_t>(b, section(kRData) + 12)); },
         NTSTATUS(0xC000007B), "import module name at"},
        {"import descriptors without a terminator", none,
         [](Bytes &b) { put<std::uint32_t>(b, kOpt + 112 + 8, get<std::uint32_t>(b, kOpt + 56) - 8); put<std::uint32_t>(b, kOpt + 116 + 8, 8); },
         NTSTATUS(0xC000007B), "import descriptors run off the image"},
        {"import name unterminated", none,
         [](Bytes &b) { put<std::uint64_t>(b, firstLookupEntry(b), get<std::uint32_t>(b, section(kRData) + 12)); },
         NTSTATUS(0xC000007B), "import name at 0x4000 of ntoskrnl.exe out of the image or unterminated"},
        {"import name out of the image", none,
         [](Bytes &b) { put<std::uint64_t>(b, firstLookupEntry(b), 0x7FFFFFF0); }, NTSTATUS(0xC000007B),
         "import name at 0x7ffffff0 of ntoskrnl.exe"},
        {"import name beyond 32 bits", none,
         [](Bytes &b) { put<std::uint64_t>(b, firstLookupEntry(b), 0x100001000ull); }, NTSTATUS(0xC000007B),
         "import name at 0x100001000"},
        {"unknown module", [](BaseImage &i) { i.writer.addImport("ks.sys", {"KsCreatePin"}); }, keep,
         NTSTATUS(0xC0000135), "imports from ks.sys, a module the host does not provide"},
        {"missing routine", [](BaseImage &i) { i.writer.addImport("ntoskrnl.exe", {"KeNoSuchRoutine"}); }, keep,
         NTSTATUS(0xC000007A), "imports ntoskrnl.exe!KeNoSuchRoutine, which the host does not export"},
        {"routine of another module", [](BaseImage &i) { i.writer.addImport("hal.dll", {"IoCreateDevice"}); }, keep,
         NTSTATUS(0xC000007A), "imports hal.dll!IoCreateDevice"},
        {"name in the wrong case", [](BaseImage &i) { i.writer.addImport("ntoskrnl.exe", {"dbgprint"}); }, keep,
         NTSTATUS(0xC000007A), "imports ntoskrnl.exe!dbgprint"},
        {"import by ordinal", [](BaseImage &i) { i.writer.addImport("portcls.sys", {"#3"}); }, keep,
         NTSTATUS(0xC0000138), "imports portcls.sys!#3 by ordinal"},
        {"data import", [](BaseImage &i) { i.writer.addImport("ntoskrnl.exe", {"KeTickCount"}); }, keep,
         NTSTATUS(0xC000007A), "imports data ntoskrnl.exe!KeTickCount"},
    };
    for (const Refusal &r : refusals) {
        SCOPED_TRACE(r.name);
        BaseImage base;
        r.prepare(base);
        Bytes bytes = base.writer.build();
        r.edit(bytes);
        hk::LogCapture log;
        std::unique_ptr<hk::loader::Image> image;
        EXPECT_EQ(load(bytes, &image), r.status);
        EXPECT_EQ(image, nullptr);
        EXPECT_TRUE(log.contains(std::string("HKLOADER: test.sys: ") + r.cause))
            << (log.lines().empty() ? "(no log line)" : log.lines().front());
    }
}

TEST(LoaderTest, DriverImagesFromFilesAndTheirRefusals)
{
    ScratchDir dir;
    hk::LogCapture log;
    NTSTATUS status = STATUS_SUCCESS;
    EXPECT_EQ(hk::loadDriverImage(u"ghost", dir.write("x", {}) + ".missing", &status), nullptr);
    EXPECT_EQ(status, NTSTATUS(0xC0000034));
    EXPECT_TRUE(log.contains("HKLOADER: x.missing: no such file"));

    // A refused image never runs and leaves no driver object behind.
    BaseImage base;
    base.writer.addImport("ntoskrnl.exe", {"KeNoSuchRoutine"});
    EXPECT_EQ(hk::loadDriverImage(u"ghost", dir.write("ghost.sys", base.writer.build()), &status), nullptr);
    EXPECT_EQ(status, NTSTATUS(0xC000007A));
    EXPECT_FALSE(hk::objectExists(u"\\Driver\\ghost"));
}

// ------------------------------------------------------------------ exports
TEST(LoaderTest, ExportsEveryRoutineTheShippedDriverImports)
{
    // What objdump -p lists for ambrel.sys.
    const std::pair<const char *, std::vector<const char *>> imports[] = {
        {"ntoskrnl.exe",
         {"DbgPrint", "ExAllocatePoolWithTag", "ExFreePool", "ExFreePoolWithTag", "IoCreateDevice",
          "IoCreateSymbolicLink", "IoDeleteDevice", "IoDeleteSymbolicLink", "IoIsWdmVersionAvailable",
          "IoOpenDeviceInterfaceRegistryKey", "IoRegisterDeviceInterface", "IoReleaseCancelSpinLock",
          "IoThreadToProcess", "KeAcquireSpinLockAtDpcLevel", "KeAcquireSpinLockRaiseToDpc", "KeBugCheckEx",
          "KeCancelTimer", "KeDelayExecutionThread", "KeFlushQueuedDpcs", "KeInitializeDpc", "KeInitializeTimer",
          "KeReleaseSpinLock", "KeReleaseSpinLockFromDpcLevel", "KeSetTimer", "PsGetProcessId", "RtlAssert",
          "RtlFreeUnicodeString", "RtlGUIDFromString", "RtlInitUnicodeString", "RtlStringFromGUID",
          "RtlUnicodeStringToInteger", "ZwClose", "ZwCreateKey", "ZwOpenKey", "ZwQueryValueKey", "ZwSetValueKey",
          "memcpy", "memset"}},
        {"portcls.sys",
         {"PcAddAdapterDevice", "PcDispatchIrp", "PcInitializeAdapterDriver", "PcNewPort", "PcNewServiceGroup",
          "PcRegisterSubdevice"}},
    };
    for (const auto &[module, names] : imports) {
        for (const char *name : names) {
            EXPECT_NE(hk::loader::hostExport(module, name), nullptr) << module << "!" << name;
        }
    }
    std::vector<std::string> hal = hk::loader::hostExportNames("Hal.DLL");
    EXPECT_EQ(hal, std::vector<std::string>{"KeQueryPerformanceCounter"});
    // The block-move routines are wrappers with the image's convention, not
    // the C library's own entry points.
    EXPECT_NE(hk::loader::hostExport("ntoskrnl.exe", "memcpy"), reinterpret_cast<const void *>(&::memcpy));
    EXPECT_EQ(hk::loader::hostExport("ntoskrnl.exe", "HkVerifyPageableCode"), nullptr);
}

// ------------------------------------------------------------------ symbols
// The shapes of a GNU ld map for PE: a short input section on one line, a
// long one whose numbers wrap to the next, symbol lines with parameter
// lists, a static function known only by its section, and assignments.
const char *const kMap = R"(Archive member included to satisfy reference by file (symbol)

Linker script and memory map

                0x0000000140000000                __image_base__ = 0x140000000
.text           0x0000000140001000     0x2000
 *(.text)
 .text$am_private_dispatch_read
                0x0000000140001000       0x80 adapter/amreadwrite.cpp.obj
 .text$_ZN15CMiniportAmbrel9NewStreamEPP4IMXFP8IUnknown10_POOL_TYPEm16DMUS_STREAM_TYPEP12KSDATAFORMATPP13IServiceGroupP13IAllocatorMXFP12IMasterClockPy
                0x0000000140001080      0x480 miniport/amminiport.cpp.obj
                0x0000000140001080                CMiniportAmbrel::NewStream(IMXF**, IUnknown*, _POOL_TYPE, unsigned long, DMUS_STREAM_TYPE, KSDATAFORMAT*, IServiceGroup**, IAllocatorMXF*, IMasterClock*, unsigned long long*)
 .text$_ZL11fifoAdvancemm 0x0000000140001500       0x20 miniport/fifo/portfifo.cpp.obj
 .text          0x0000000140001520       0x40 platform/windows/amcrt.cpp.obj
                0x0000000140001520                GsDriverEntry
                0x0000000140001540                __security_check_cookie
 .text$_ZNK3Foo3getEv 0x0000000140001600 0x10 x.obj
 .text$_ZN3FooclEi 0x0000000140001610 0x10 x.obj
)";

TEST(LoaderTest, NamesImageAddressesFromTheLinkMap)
{
    BaseImage base(Bytes(0x700, 0xC3));
    std::unique_ptr<hk::loader::Image> image;
    ASSERT_EQ(load(base.writer.build(), &image, "ambrel.sys"), STATUS_SUCCESS);
    image->loadSymbols(kMap);
    auto describe = [&](std::uint32_t rva) { return image->describe(reinterpret_cast<void *>(image->base() + rva)); };
    const std::pair<std::uint32_t, const char *> rows[] = {
        {0x1056, "ambrel.sys+0x1056 (am_private_dispatch_read+0x56)"},
        {0x1080, "ambrel.sys+0x1080 (CMiniportAmbrel::NewStream+0x0)"},
        {0x14FF, "ambrel.sys+0x14ff (CMiniportAmbrel::NewStream+0x47f)"},
        {0x1504, "ambrel.sys+0x1504 (fifoAdvance+0x4)"},
        {0x1530, "ambrel.sys+0x1530 (GsDriverEntry+0x10)"},
        {0x1548, "ambrel.sys+0x1548 (__security_check_cookie+0x8)"},
        {0x1604, "ambrel.sys+0x1604 (Foo::get+0x4)"},
        {0x1612, "ambrel.sys+0x1612 (Foo::operator()+0x2)"},
        {0x1700, "ambrel.sys+0x1700"}, // past every symbol's end
    };
    for (const auto &[rva, text] : rows) {
        EXPECT_EQ(describe(rva), text);
    }
    EXPECT_EQ(image->symbol("CMiniportAmbrel::NewStream"), image->base() + 0x1080);
    EXPECT_EQ(image->symbol("fifoAdvance"), image->base() + 0x1500);
    EXPECT_EQ(image->symbol("NoSuchFunction"), 0u);
    // Outside every image there is nothing to say.
    EXPECT_EQ(hk::loader::describeAddress(&kMap), "");
    EXPECT_EQ(hk::loader::describeAddress(reinterpret_cast<void *>(image->base() + 0x1504)),
              "ambrel.sys+0x1504 (fifoAdvance+0x4)");
}

TEST(LoaderTest, ReadsTheLinkMapBesideTheImageFile)
{
    ScratchDir dir;
    BaseImage base(Bytes(0x700, 0xC3));
    std::string path = dir.write("ambrel.sys", base.writer.build());
    dir.writeText("ambrel.map", kMap);
    std::unique_ptr<hk::loader::Image> image;
    ASSERT_EQ(hk::loader::loadImageFile(path, &image), STATUS_SUCCESS);
    EXPECT_EQ(image->name(), "ambrel.sys");
    EXPECT_EQ(image->symbol("GsDriverEntry"), image->base() + 0x1520);
}

} // namespace
} // namespace loadertest
