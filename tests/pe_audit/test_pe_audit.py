#!/usr/bin/env python3
"""The PE audit against driver images built here, byte by byte: a well-formed
one passes every check, and each fault the audit exists to catch fails exactly
the check meant for it."""

import os
import random
import struct
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
AUDIT = os.path.join(ROOT, "tools", "pe_audit.py")
sys.path.insert(0, os.path.join(ROOT, "tools"))
import pe_audit  # noqa: E402

CHECKS = ["pe-format", "subsystem", "entry-point", "import-modules", "import-names",
          "section-permissions", "code-sections", "code-placement", "os-version", "build-paths",
          "relocations", "checksum", "no-tls"]

IMAGE_BASE = 0x140000000
TEXT_RVA, PAGE_RVA, INIT_RVA, RDATA_RVA, DATA_RVA, RELOC_RVA = 0x1000, 0x2000, 0x3000, 0x4000, 0x5000, 0x6000
SECTION_RVAS = {".text": TEXT_RVA, "PAGE": PAGE_RVA, "INIT": INIT_RVA}
# The entry code lives in INIT; the third routine there stands for any other.
GS_ENTRY_OFFSET, DRIVER_ENTRY_OFFSET, HELPER_OFFSET = 0x00, 0x40, 0x60
ENTRY_ROUTINES = {"GsDriverEntry": GS_ENTRY_OFFSET, "DriverEntry": DRIVER_ENTRY_OFFSET,
                  "GetDWordParam": HELPER_OFFSET}
CODE, INITIALIZED, READ, WRITE, EXECUTE, DISCARDABLE = 0x20, 0x40, 0x40000000, 0x80000000, 0x20000000, 0x02000000
WDK_PAGE_FLAGS, WDK_INIT_FLAGS = CODE | EXECUTE | READ, CODE | EXECUTE | READ | DISCARDABLE
INF_TEXT = "[Version]\nSignature = \"$WINDOWS NT$\"\n[Manufacturer]\n%%P%% = Ambrel, %s ; models\n"

DEFAULT_IMPORTS = [("ntoskrnl.exe", ["IoCreateDevice", "DbgPrint", "KeBugCheckEx"]),
                   ("portcls.sys", ["PcInitializeAdapterDriver", "PcNewPort"])]

LIBRARY_CONTENTS = {
    "libntoskrnl.a": ("ntoskrnl.exe", ["IoCreateDevice", "DbgPrint", "KeBugCheckEx", "memcpy"]),
    "libhal.a": ("hal.dll", ["KeQueryPerformanceCounter"]),
    "libks.a": ("ks.sys", ["KsGetObjectFromFileObject"]),
    "libportcls.a": ("portcls.sys", ["PcInitializeAdapterDriver", "PcNewPort"]),
}


def align(value, alignment):
    return (value + alignment - 1) // alignment * alignment


def build_text(gs_target):
    code = bytearray(0x80)
    # GsDriverEntry: sub rsp,28h; add rsp,28h; jmp <gs_target>
    code[0:8] = bytes([0x48, 0x83, 0xEC, 0x28, 0x48, 0x83, 0xC4, 0x28])
    code[8] = 0xE9
    struct.pack_into("<i", code, 9, gs_target - (GS_ENTRY_OFFSET + 13))
    # DriverEntry: xor eax,eax; ret.  helper: ret
    code[DRIVER_ENTRY_OFFSET:DRIVER_ENTRY_OFFSET + 3] = bytes([0x31, 0xC0, 0xC3])
    code[HELPER_OFFSET] = 0xC3
    return bytes(code)


def build_imports(imports, ordinal_import):
    """The .rdata contents: descriptors, lookup and address tables, hint/name
    entries and module names, laid out for RDATA_RVA."""
    descriptors_size = 20 * (len(imports) + 1)
    blob = bytearray(descriptors_size)
    tables = []
    for module, names in imports:
        lookup = len(blob)
        blob += bytes(8 * (len(names) + 1))
        address = len(blob)
        blob += bytes(8 * (len(names) + 1))
        tables.append((module, names, lookup, address))
    for index, (module, names, lookup, address) in enumerate(tables):
        for slot, name in enumerate(names):
            if ordinal_import and name == ordinal_import:
                entry = pe_audit.IMAGE_ORDINAL_FLAG64 | 7
            else:
                entry = RDATA_RVA + len(blob)
                blob += struct.pack("<H", 0) + name.encode() + b"\0"
                if len(blob) % 2:
                    blob += b"\0"
            struct.pack_into("<Q", blob, lookup + 8 * slot, entry)
            struct.pack_into("<Q", blob, address + 8 * slot, entry)
        module_rva = RDATA_RVA + len(blob)
        blob += module.encode() + b"\0"
        struct.pack_into("<IIIII", blob, 20 * index, RDATA_RVA + lookup, 0, 0, module_rva, RDATA_RVA + address)
    return bytes(blob), descriptors_size


def build_symbols(names_and_rvas):
    """A COFF symbol table and its string table; every symbol lives in INIT."""
    table = bytearray()
    strings = bytearray()
    for name, rva in names_and_rvas:
        encoded = name.encode()
        if len(encoded) <= 8:
            raw = encoded.ljust(8, b"\0")
        else:
            raw = struct.pack("<II", 0, 4 + len(strings))
            strings += encoded + b"\0"
        table += raw + struct.pack("<IhHBB", rva - INIT_RVA, 3, 0x20, 2, 0)
    return bytes(table) + struct.pack("<I", 4 + len(strings)) + bytes(strings), len(names_and_rvas)


def build_image(machine=pe_audit.IMAGE_FILE_MACHINE_AMD64, magic=pe_audit.IMAGE_NT_OPTIONAL_HDR64_MAGIC,
                subsystem=1, entry="gs", gs_target=DRIVER_ENTRY_OFFSET, imports=None, ordinal_import=None,
                text_flags=CODE | EXECUTE | READ, page_flags=WDK_PAGE_FLAGS, init_flags=WDK_INIT_FLAGS,
                relocations=True, relocs_stripped_flag=False, tls=False, coff_symbols=True, version=(6, 2),
                rdata_text=b""):
    imports = DEFAULT_IMPORTS if imports is None else imports
    rdata, descriptors_size = build_imports(imports, ordinal_import)
    rdata += b"\0" * (-len(rdata) % 16) + rdata_text  # strings start aligned, as a compiler places them
    data = bytes(range(16)) * 4
    reloc = struct.pack("<IIHH", DATA_RVA, 12, (10 << 12) | 0x0, 0) if relocations else b""
    stubs = b"\xC3" * 0x80
    sections = [(".text", TEXT_RVA, stubs, text_flags),
                ("PAGE", PAGE_RVA, stubs, page_flags),
                ("INIT", INIT_RVA, build_text(gs_target), init_flags),
                (".rdata", RDATA_RVA, rdata, INITIALIZED | READ),
                (".data", DATA_RVA, data, INITIALIZED | READ | WRITE),
                (".reloc", RELOC_RVA, reloc or b"\0" * 8, INITIALIZED | READ | 0x02000000)]

    headers_size = 0x400
    raw = bytearray(headers_size)
    file_offset = headers_size
    section_table = bytearray()
    for name, rva, contents, flags in sections:
        raw_size = align(len(contents), 0x200)
        section_table += struct.pack("<8sIIIIIIHHI", name.encode(), len(contents), rva, raw_size, file_offset,
                                     0, 0, 0, 0, flags)
        raw += contents.ljust(raw_size, b"\0")
        file_offset += raw_size

    symbol_pointer, symbol_count = 0, 0
    if coff_symbols:
        symbols, symbol_count = build_symbols([(name, INIT_RVA + offset)
                                               for name, offset in ENTRY_ROUTINES.items()])
        symbol_pointer = len(raw)
        raw += symbols

    entry_rva = {"gs": INIT_RVA + GS_ENTRY_OFFSET, "driver": INIT_RVA + DRIVER_ENTRY_OFFSET,
                 "other": INIT_RVA + HELPER_OFFSET}[entry]
    directories = [(0, 0)] * 16
    directories[pe_audit.DIR_IMPORT] = (RDATA_RVA, descriptors_size)
    if relocations:
        directories[pe_audit.DIR_BASERELOC] = (RELOC_RVA, len(reloc))
    if tls:
        directories[pe_audit.DIR_TLS] = (DATA_RVA, 40)

    raw[0:2] = b"MZ"
    struct.pack_into("<I", raw, 0x3C, 0x40)
    raw[0x40:0x44] = b"PE\0\0"
    characteristics = 0x2022 | (pe_audit.IMAGE_FILE_RELOCS_STRIPPED if relocs_stripped_flag else 0)
    struct.pack_into("<HHIIIHH", raw, 0x44, machine, len(sections), 0, symbol_pointer, symbol_count, 240,
                     characteristics)
    optional = 0x58
    struct.pack_into("<HBBIIIII", raw, optional, magic, 2, 38, 0x200, 0x600, 0, entry_rva, TEXT_RVA)
    struct.pack_into("<QII", raw, optional + 24, IMAGE_BASE, 0x1000, 0x200)
    struct.pack_into("<HHHHHHI", raw, optional + 40, version[0], version[1], 0, 0, version[0], version[1], 0)
    struct.pack_into("<IIIHH", raw, optional + 56, 0x7000, headers_size, 0, subsystem, 0x160)
    struct.pack_into("<QQQQII", raw, optional + 72, 0x100000, 0x1000, 0x100000, 0x1000, 0, 16)
    for index, (rva, size) in enumerate(directories):
        struct.pack_into("<II", raw, optional + 112 + 8 * index, rva, size)
    raw[optional + 240:optional + 240 + len(section_table)] = section_table
    return bytes(raw)


def link_map(moved=None):
    """A GNU ld map naming every routine the audit places, each in its
    section (or in the one `moved` gives it), with demangled names as ld
    writes them; thunks stay in .text as GCC leaves them."""
    placement = {name: section for section, names in pe_audit.CODE_PLACEMENT.items() for name in names}
    placement.update(moved or {})
    lines = []
    next_free = {".text": 0, "PAGE": 0, "INIT": 0x70}
    for name, section in placement.items():
        if name in ENTRY_ROUTINES and section == "INIT":
            offset = ENTRY_ROUTINES[name]
        else:
            offset = next_free[section]
            next_free[section] += 2
        signature = "" if name in ("GsDriverEntry", "DriverEntry") else "(_IRP*, void*)"
        lines.append("                0x%016x                %s%s" % (IMAGE_BASE + SECTION_RVAS[section] + offset,
                                                                  name, signature))
    lines.append("                0x%016x                non-virtual thunk to CMiniportAmbrel::GetPinName(_IRP*)"
                 % (IMAGE_BASE + TEXT_RVA + 0x7E))
    return "\n".join(lines) + "\n"


def ar_member(name, body):
    header = "%-16s%-12s%-6s%-6s%-8s%-10d`\n" % (name, "0", "0", "0", "644", len(body))
    return header.encode() + body + (b"\n" if len(body) % 2 else b"")


def import_library(module, functions):
    """A GNU archive whose symbol index names each function and its __imp_
    pointer, as dlltool's import libraries do, and a member naming the module."""
    symbols = []
    for function in functions:
        symbols += [function, "__imp_" + function]
    head = b"\0\0.idata$7\0" + module.encode() + b"\0"
    index_size = 4 + 4 * len(symbols) + sum(len(s) + 1 for s in symbols)
    member_offset = 8 + 60 + index_size + (index_size & 1)
    index = struct.pack(">I", len(symbols)) + struct.pack(">I", member_offset) * len(symbols)
    index += b"".join(s.encode() + b"\0" for s in symbols)
    return b"!<arch>\n" + ar_member("/", index) + ar_member("head.o/", head)


class AuditRun:
    def __init__(self, returncode, stdout, stderr):
        self.returncode = returncode
        self.stderr = stderr
        self.verdicts = {}
        for line in stdout.splitlines():
            verdict, _, rest = line.partition(" ")
            check = rest.split(":", 1)[0]
            self.verdicts[check] = verdict

    @property
    def failed(self):
        return {check for check, verdict in self.verdicts.items() if verdict == "FAIL"}


class PeAuditTest(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.build_dir = os.path.join(self.tmp.name, "build")
        self.lib_dir = os.path.join(self.tmp.name, "mingw")
        os.makedirs(self.build_dir)
        os.makedirs(self.lib_dir)
        for library, (module, functions) in LIBRARY_CONTENTS.items():
            directory = self.build_dir if library == "libportcls.a" else self.lib_dir
            with open(os.path.join(directory, library), "wb") as f:
                f.write(import_library(module, functions))
        self.image_path = os.path.join(self.build_dir, "ambrel.sys")

    def tearDown(self):
        self.tmp.cleanup()

    def write_image(self, image, fix_checksum=True):
        with open(self.image_path, "wb") as f:
            f.write(image)
        if fix_checksum:
            result = subprocess.run([sys.executable, AUDIT, "--set-checksum", self.image_path],
                                    capture_output=True, text=True)
            self.assertEqual(result.returncode, 0, result.stderr)

    def audit(self, link_map_text=None, inf_decoration="NTamd64.6.2"):
        map_path = os.path.join(self.build_dir, "ambrel.map")
        if link_map_text is not None:
            with open(map_path, "w") as f:
                f.write(link_map_text)
        elif os.path.exists(map_path):
            os.remove(map_path)
        inf_path = os.path.join(self.tmp.name, "ambrel.inf")
        with open(inf_path, "w") as f:
            f.write(INF_TEXT % inf_decoration)
        result = subprocess.run([sys.executable, AUDIT, self.image_path, self.build_dir,
                                 "--mingw-lib-dir", self.lib_dir, "--inf", inf_path], capture_output=True, text=True)
        return AuditRun(result.returncode, result.stdout, result.stderr)

    def test_each_fault_fails_its_own_check(self):
        def patch_import_name(image):
            return image.replace(b"IoCreateDevice\0", b"IoCreateDevicf\0")

        def patch_subsystem(image):
            patched = bytearray(image)
            patched[0x58 + 68] = 2  # IMAGE_SUBSYSTEM_WINDOWS_GUI
            return bytes(patched)

        good_map = link_map()
        cases = [
            # name, image, link map, expected failing checks
            ("well-formed, COFF symbols", build_image(), good_map, set()),
            ("well-formed, link map only", build_image(coff_symbols=False), good_map, set()),
            ("entry point at DriverEntry itself", build_image(entry="driver"), good_map, set()),
            ("GUI subsystem", patch_subsystem(build_image()), good_map, {"subsystem"}),
            ("writable code section", build_image(text_flags=CODE | EXECUTE | READ | WRITE), good_map,
             {"section-permissions"}),
            ("import renamed", patch_import_name(build_image()), good_map, {"import-names"}),
            ("import by ordinal", build_image(ordinal_import="DbgPrint"), good_map, {"import-names"}),
            ("name missing from the portcls library",
             build_image(imports=[("portcls.sys", ["PcNewPort", "PcNewMiniport"])]), good_map, {"import-names"}),
            ("user-mode module", build_image(imports=DEFAULT_IMPORTS + [("msvcrt.dll", ["memcpy"])]), good_map,
             {"import-modules"}),
            ("entry point elsewhere", build_image(entry="other"), good_map, {"entry-point"}),
            ("cookie entry that never reaches DriverEntry", build_image(gs_target=HELPER_OFFSET), good_map,
             {"entry-point"}),
            ("no symbols at all", build_image(coff_symbols=False), None, {"entry-point", "code-placement"}),
            ("INIT left as ld makes it, not discardable", build_image(init_flags=WDK_PAGE_FLAGS), good_map,
             {"code-sections"}),
            ("writable PAGE", build_image(page_flags=WDK_PAGE_FLAGS | WRITE), good_map,
             {"code-sections", "section-permissions"}),
            ("a pageable routine left in .text", build_image(), link_map({"AddDevice": ".text"}),
             {"code-placement"}),
            ("a DISPATCH_LEVEL routine in PAGE", build_image(), link_map({"amTimerDPC": "PAGE"}),
             {"code-placement"}),
            ("a routine nobody listed in INIT", build_image(), good_map + link_map({"StartDevice": "INIT"}),
             {"code-placement"}),
            ("Windows 7 in the image header", build_image(version=(6, 1)), good_map, {"os-version"}),
            ("source path in the data",
             build_image(rdata_text=b"x == 1\0/home/builder/ambrel/adapter/amadapter.cpp\0"), good_map,
             {"build-paths"}),
            ("build path in UTF-16", build_image(rdata_text="C:\\build\\ambrel\0".encode("utf-16-le")),
             good_map, {"build-paths"}),
            ("no relocation table", build_image(relocations=False), good_map, {"relocations"}),
            ("relocations-stripped flag", build_image(relocs_stripped_flag=True), good_map, {"relocations"}),
            ("TLS directory", build_image(tls=True), good_map, {"no-tls"}),
        ]
        for name, image, map_text, expected in cases:
            with self.subTest(name):
                self.write_image(image)
                run = self.audit(map_text)
                self.assertEqual(sorted(run.verdicts), sorted(CHECKS), run.verdicts)
                self.assertEqual(run.failed, expected)
                self.assertEqual(run.returncode, 1 if expected else 0)

    def test_stale_checksum_fails_only_the_checksum(self):
        image = build_image()
        self.write_image(image)
        with open(self.image_path, "r+b") as f:
            f.seek(0xC00 + 5)  # inside .data
            f.write(b"\xAA")
        run = self.audit(link_map())
        self.assertEqual(run.failed, {"checksum"})
        self.assertEqual(run.returncode, 1)

    def test_versions_must_agree_with_the_inf(self):
        self.write_image(build_image())
        for decoration in ("NTamd64", "NTamd64.6.1", "NTamd64.10.0"):
            with self.subTest(decoration):
                run = self.audit(link_map(), inf_decoration=decoration)
                self.assertEqual(run.failed, {"os-version"})

    def test_post_link_marks_init_discardable_and_nothing_else(self):
        # What ld makes: INIT with the flags of any code section.
        image = build_image(init_flags=WDK_PAGE_FLAGS)
        self.write_image(image, fix_checksum=False)
        result = subprocess.run([sys.executable, AUDIT, "--post-link", self.image_path],
                                capture_output=True, text=True)
        self.assertEqual(result.returncode, 0, result.stderr)
        with open(self.image_path, "rb") as f:
            finished = f.read()
        changed = [i for i in range(len(image)) if image[i] != finished[i]]
        init_flags_at = 0x58 + 240 + 40 * 2 + 36
        checksum_at = 0x58 + 64
        self.assertTrue(all(init_flags_at <= i < init_flags_at + 4 or checksum_at <= i < checksum_at + 4
                            for i in changed), changed)
        run = self.audit(link_map())
        self.assertEqual(run.failed, set())

    def test_unreadable_or_foreign_images_stop_at_the_format_check(self):
        good = build_image()
        cases = [
            ("not a PE file", bytes(random.Random(7).randrange(256) for _ in range(4096))),
            ("truncated section table", good[:0x58 + 240 + 20]),
            ("i386 machine", build_image(machine=0x14C)),
            ("PE32 optional header", build_image(magic=0x10B)),
            ("empty file", b""),
        ]
        for name, image in cases:
            with self.subTest(name):
                self.write_image(image, fix_checksum=False)
                run = self.audit()
                self.assertEqual(run.verdicts, {"pe-format": "FAIL"})
                self.assertEqual(run.returncode, 1)
                self.assertNotIn("Traceback", run.stderr)

    def test_set_checksum_refuses_a_non_pe_file_and_leaves_it(self):
        junk = b"not an image" * 20
        self.write_image(junk, fix_checksum=False)
        result = subprocess.run([sys.executable, AUDIT, "--set-checksum", self.image_path],
                                capture_output=True, text=True)
        self.assertEqual(result.returncode, 1)
        with open(self.image_path, "rb") as f:
            self.assertEqual(f.read(), junk)

    def test_checksum_is_the_folded_word_sum_plus_length(self):
        # The one's-complement sum folded once at the end equals the loader's
        # per-word folding; lengths cover the odd trailing byte.
        rng = random.Random(11)
        for length in (64, 65, 4096, 4097):
            data = bytes(rng.randrange(256) for _ in range(length))
            offset = 0x20
            padded = data + b"\0" * (length % 2)
            words = [w for i, (w,) in enumerate(struct.iter_unpack("<H", padded)) if i not in (16, 17)]
            total = sum(words)
            while total >> 16:
                total = (total & 0xFFFF) + (total >> 16)
            self.assertEqual(pe_audit.pe_checksum(data, offset), total + length, length)


if __name__ == "__main__":
    unittest.main()
