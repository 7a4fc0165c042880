#!/usr/bin/env python3
"""Audit of ambrel.sys: is this image something the Windows x64 kernel loads
as a driver, built the way the build means to build it?

    pe_audit.py IMAGE BUILD_DIR [--mingw-lib-dir DIR] [--map FILE] [--inf FILE]
    pe_audit.py --set-checksum IMAGE
    pe_audit.py --post-link IMAGE

Prints one line per check, "PASS <check>: ..." or "FAIL <check>: ...", and
exits 1 if any check fails (2 for a usage error). BUILD_DIR holds the link map
(ambrel.map) and the generated portcls import library (libportcls.a); the
import libraries of ntoskrnl.exe, hal.dll and ks.sys come from mingw-w64.

--set-checksum writes the image checksum (GNU ld leaves it zero and the
loader checks it). --post-link is the build's post-link step: it marks INIT
discardable, which GNU ld cannot, and then writes the checksum.

Python 3 standard library only: the PE and archive formats are parsed here.
"""

import argparse
import os
import re
import struct
import subprocess
import sys

IMAGE_FILE_MACHINE_AMD64 = 0x8664
IMAGE_NT_OPTIONAL_HDR64_MAGIC = 0x20B
IMAGE_SUBSYSTEM_NATIVE = 1
IMAGE_FILE_RELOCS_STRIPPED = 0x0001
IMAGE_SCN_CNT_CODE = 0x00000020
IMAGE_SCN_MEM_DISCARDABLE = 0x02000000
IMAGE_SCN_MEM_EXECUTE = 0x20000000
IMAGE_SCN_MEM_READ = 0x40000000
IMAGE_SCN_MEM_WRITE = 0x80000000
IMAGE_ORDINAL_FLAG64 = 1 << 63

DIR_IMPORT = 1
DIR_BASERELOC = 5
DIR_TLS = 9

# The entry symbol the build links to, and the driver's own entry it must
# reach. GsDriverEntry seeds the stack-protector guard and then calls or
# jumps to DriverEntry.
DRIVER_ENTRY = "DriverEntry"
COOKIE_ENTRY = "GsDriverEntry"
COOKIE_ENTRY_MAX_BYTES = 512

# Modules a driver of this kind may import from, and where each one's import
# library lives: "mingw" for mingw-w64's library directory, "build" for the
# build directory (portcls has no import library of its own).
ALLOWED_MODULES = {
    "ntoskrnl.exe": ("mingw", "libntoskrnl.a"),
    "hal.dll": ("mingw", "libhal.a"),
    "ks.sys": ("mingw", "libks.a"),
    "portcls.sys": ("build", "libportcls.a"),
}

MAP_NAME = "ambrel.map"
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
INF_PATH = os.path.join(ROOT, "platform", "windows", "ambrel.inf")

# The oldest Windows the driver runs on: 6.2 (Windows 8), the first with
# NonPagedPoolNx, which every allocation of the driver asks for. The image
# header's OS and subsystem versions and the INF's models decoration
# (NTamd64.6.2) must all say so.
MINIMUM_WINDOWS = (6, 2)

# Where code must sit, by the demangled names of the link map. PAGE: the
# routines documented as pageable (PASSIVE_LEVEL only; the memory manager may
# page them out). INIT: the entry point, DriverEntry and what only it calls
# (the kernel frees INIT when DriverEntry returns). .text: routines that run
# at DISPATCH_LEVEL, which must never be paged out. PAGE and INIT hold exactly
# their lists (thunks into them excepted, which the compiler keeps in .text).
CODE_PLACEMENT = {
    "INIT": ["GsDriverEntry", "DriverEntry", "GetDWordParam", "ReadMaxPorts", "ReadSysexSize"],
    "PAGE": ["AddDevice", "CreateMiniportAmbrel",
             "CMiniportAmbrel::NonDelegatingQueryInterface", "CMiniportAmbrel::~CMiniportAmbrel",
             "CMiniportAmbrel::Init", "CMiniportAmbrel::DataRangeIntersection", "CMiniportAmbrel::SetTechnology",
             "CMiniportAmbrel::PowerChangeNotify", "CMiniportAmbrel::PinCount", "CMiniportAmbrel::GetPinName",
             "CMiniportAmbrel::GetDescription", "ValidatePropertyRequest", "PropertyHandler_Synth",
             "PropertyHandler_ComponentId", "CMiniportAmbrelStream::HandlePortParams",
             "CMiniportAmbrelStream::Init", "CMiniportAmbrelStream::NonDelegatingQueryInterface",
             "CMiniportAmbrelStream::ConnectOutput", "CMiniportAmbrelStream::DisconnectOutput"],
    ".text": ["controlCancelIrp", "amTimerDPC", "completeIrp", "completeIrpBoosted",
              "CMiniportAmbrel::Service", "CMiniportAmbrelStream::PutMessage",
              "CMiniportAmbrelStream::PutMessageLocked", "CMiniportAmbrelStream::ConsumeEvents",
              "CMiniportAmbrelStream::Write", "CMiniportAmbrelStream::SourceEvtsToPort",
              "AddPortByName", "AddPortByIndex", "RemovePortByIndex", "RemovePortByPtr"],
}

# Section flags a WDK build gives its code sections.
CODE_SECTION_FLAGS = {
    "PAGE": 0x60000020,  # code, execute, read
    "INIT": 0x62000020,  # code, discardable, execute, read
}

# Sections the kernel frees once DriverEntry has returned. GNU ld cannot mark
# them (it gives the flag to debugging sections only); the post-link step does.
DISCARDABLE_SECTIONS = ("INIT",)
MINGW_PREFIX = "x86_64-w64-mingw32"


class PeError(Exception):
    """The file is not a PE image this audit can read."""


# ---------------------------------------------------------------- PE parsing

class Section:
    def __init__(self, name, virtual_size, virtual_address, raw_size, raw_pointer, characteristics):
        self.name = name
        self.virtual_size = virtual_size
        self.virtual_address = virtual_address
        self.raw_size = raw_size
        self.raw_pointer = raw_pointer
        self.characteristics = characteristics

    def contains_rva(self, rva):
        size = max(self.virtual_size, self.raw_size)
        return self.virtual_address <= rva < self.virtual_address + size


class PeImage:
    """The parts of a PE32+ image the audit looks at."""

    def __init__(self, data):
        self.data = data
        if len(data) < 0x40 or data[:2] != b"MZ":
            raise PeError("no MZ header")
        (self.pe_offset,) = struct.unpack_from("<I", data, 0x3C)
        if self.pe_offset + 24 > len(data) or data[self.pe_offset:self.pe_offset + 4] != b"PE\0\0":
            raise PeError("no PE signature")
        coff = self.pe_offset + 4
        (self.machine, self.section_count, _, self.symbol_table_pointer, self.symbol_count,
         self.optional_header_size, self.characteristics) = struct.unpack_from("<HHIIIHH", data, coff)
        self.optional_header_offset = coff + 20
        opt = self.optional_header_offset
        if opt + 2 > len(data):
            raise PeError("truncated optional header")
        (self.magic,) = struct.unpack_from("<H", data, opt)
        if self.magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC:
            # Machine and format are judged by the caller; nothing more can be
            # read without the PE32+ layout.
            self.sections = []
            return
        if self.optional_header_size < 112 or opt + self.optional_header_size > len(data):
            raise PeError("truncated optional header")
        (self.entry_point,) = struct.unpack_from("<I", data, opt + 16)
        (self.image_base,) = struct.unpack_from("<Q", data, opt + 24)
        self.checksum_offset = opt + 64
        (self.checksum, self.subsystem) = struct.unpack_from("<IH", data, opt + 64)
        (dir_count,) = struct.unpack_from("<I", data, opt + 108)
        dir_count = min(dir_count, (self.optional_header_size - 112) // 8)
        self.directories = [struct.unpack_from("<II", data, opt + 112 + 8 * i) for i in range(dir_count)]
        self.sections = []
        table = opt + self.optional_header_size
        self.section_table_offset = table
        if table + 40 * self.section_count > len(data):
            raise PeError("truncated section table")
        for i in range(self.section_count):
            raw_name, vsize, vaddr, rsize, rptr, _, _, _, _, chars = struct.unpack_from(
                "<8sIIIIIIHHI", data, table + 40 * i)
            self.sections.append(Section(self._section_name(raw_name), vsize, vaddr, rsize, rptr, chars))

    def _section_name(self, raw):
        name = raw.rstrip(b"\0").decode("latin-1")
        # Long names ("/123") point into the COFF string table.
        if name.startswith("/") and name[1:].isdigit() and self.symbol_table_pointer:
            strings = self.symbol_table_pointer + 18 * self.symbol_count
            start = strings + int(name[1:])
            end = self.data.find(b"\0", start)
            if 0 <= start < len(self.data) and end > start:
                return self.data[start:end].decode("latin-1")
        return name

    def directory(self, index):
        if index < len(self.directories):
            return self.directories[index]
        return (0, 0)

    def section_of(self, rva):
        for section in self.sections:
            if section.contains_rva(rva):
                return section
        return None

    def rva_to_offset(self, rva):
        section = self.section_of(rva)
        if section is None:
            raise PeError("RVA 0x%x is in no section" % rva)
        delta = rva - section.virtual_address
        if delta >= section.raw_size:
            raise PeError("RVA 0x%x has no file data" % rva)
        return section.raw_pointer + delta

    def read(self, rva, size):
        offset = self.rva_to_offset(rva)
        if offset + size > len(self.data):
            raise PeError("RVA 0x%x runs past the end of the file" % rva)
        return self.data[offset:offset + size]

    def read_string(self, rva, limit=512):
        offset = self.rva_to_offset(rva)
        end = self.data.find(b"\0", offset, offset + limit)
        if end < 0:
            raise PeError("unterminated string at RVA 0x%x" % rva)
        return self.data[offset:end].decode("latin-1")

    def imports(self):
        """[(module, [name or ("ordinal", n)])] from the import directory."""
        rva, size = self.directory(DIR_IMPORT)
        result = []
        if rva == 0 or size == 0:
            return result
        for index in range(4096):
            descriptor = self.read(rva + 20 * index, 20)
            lookup, _, _, name_rva, address = struct.unpack("<IIIII", descriptor)
            if lookup == 0 and name_rva == 0 and address == 0:
                return result
            module = self.read_string(name_rva)
            thunk = lookup or address
            names = []
            for slot in range(65536):
                (entry,) = struct.unpack("<Q", self.read(thunk + 8 * slot, 8))
                if entry == 0:
                    break
                if entry & IMAGE_ORDINAL_FLAG64:
                    names.append(("ordinal", entry & 0xFFFF))
                else:
                    names.append(self.read_string((entry & 0x7FFFFFFF) + 2))
            result.append((module, names))
        raise PeError("import directory has no terminator")

    def coff_symbols(self):
        """{name: rva} of the COFF symbol table, empty when the image has none."""
        symbols = {}
        if not self.symbol_table_pointer or not self.symbol_count:
            return symbols
        strings = self.symbol_table_pointer + 18 * self.symbol_count
        index = 0
        while index < self.symbol_count:
            offset = self.symbol_table_pointer + 18 * index
            if offset + 18 > len(self.data):
                break
            raw, value, section_number, _, _, aux = struct.unpack_from("<8sIhHBB", self.data, offset)
            if raw[:4] == b"\0\0\0\0":
                (string_offset,) = struct.unpack_from("<I", raw, 4)
                end = self.data.find(b"\0", strings + string_offset)
                name = self.data[strings + string_offset:end].decode("latin-1")
            else:
                name = raw.rstrip(b"\0").decode("latin-1")
            if 1 <= section_number <= len(self.sections):
                symbols.setdefault(name, self.sections[section_number - 1].virtual_address + value)
            index += 1 + aux
        return symbols


def pe_checksum(data, checksum_offset):
    """The image checksum as the loader computes it: 16-bit words summed with
    end-around carry, the checksum field itself left out, plus the length."""
    total = 0
    padded = data + b"\0" if len(data) % 2 else data
    words = struct.unpack("<%dH" % (len(padded) // 2), padded)
    skip = (checksum_offset // 2, checksum_offset // 2 + 1)
    for index, word in enumerate(words):
        if index in skip:
            continue
        total += word
        total = (total & 0xFFFF) + (total >> 16)
    total = (total & 0xFFFF) + (total >> 16)
    return (total + len(data)) & 0xFFFFFFFF


def rewrite_image(path, discard=()):
    """Marks the named sections discardable (their section-table entries
    only: no code or data byte changes) and writes the image checksum."""
    with open(path, "rb") as f:
        data = bytearray(f.read())
    image = PeImage(bytes(data))
    if image.magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC:
        raise PeError("not a PE32+ image")
    for name in discard:
        indices = [i for i, section in enumerate(image.sections) if section.name == name]
        if not indices:
            raise PeError("no %s section to mark discardable" % name)
        for i in indices:
            flags_offset = image.section_table_offset + 40 * i + 36
            (flags,) = struct.unpack_from("<I", data, flags_offset)
            struct.pack_into("<I", data, flags_offset, flags | IMAGE_SCN_MEM_DISCARDABLE)
    struct.pack_into("<I", data, image.checksum_offset, 0)
    struct.pack_into("<I", data, image.checksum_offset, pe_checksum(bytes(data), image.checksum_offset))
    with open(path, "wb") as f:
        f.write(data)


def set_checksum(path):
    rewrite_image(path)


# ---------------------------------------------------------------- symbols

MAP_SYMBOL = re.compile(r"^\s+0x([0-9a-fA-F]+)\s+([A-Za-z_.$?@][\w.$?@]*)\s*$")


def map_symbols(path, image_base):
    """{name: rva} from a GNU ld link map: the lines that give an address and
    a symbol name and nothing else."""
    symbols = {}
    with open(path, encoding="latin-1") as f:
        for line in f:
            match = MAP_SYMBOL.match(line)
            if match:
                address = int(match.group(1), 16)
                if address >= image_base:
                    symbols.setdefault(match.group(2), address - image_base)
    return symbols


MAP_ROUTINE = re.compile(r"^\s+0x([0-9a-fA-F]+)\s{2,}([A-Za-z_~].*?)\s*$")
THUNK_PREFIXES = ("non-virtual thunk to ", "virtual thunk to ")


def map_routines(path, image_base):
    """[(rva, name, is_thunk)] of the link map's symbol lines, names
    demangled as ld writes them, without their parameter lists."""
    routines = []
    with open(path, encoding="latin-1") as f:
        for line in f:
            match = MAP_ROUTINE.match(line)
            if not match or "=" in match.group(2) or match.group(2).startswith("0x"):
                continue
            address = int(match.group(1), 16)
            if address < image_base:
                continue
            name = match.group(2)
            thunk = name.startswith(THUNK_PREFIXES)
            for prefix in THUNK_PREFIXES:
                if name.startswith(prefix):
                    name = name[len(prefix):]
            routines.append((address - image_base, name.split("(", 1)[0].strip(), thunk))
    return routines


# ---------------------------------------------------------------- import libraries

def archive_symbols(path):
    """Names in the symbol index of a GNU ar archive ("/" or "/SYM64/"), and
    the archive's bytes (the module name of an import library is in there)."""
    with open(path, "rb") as f:
        data = f.read()
    if not data.startswith(b"!<arch>\n"):
        raise PeError("%s is not an ar archive" % path)
    offset = 8
    while offset + 60 <= len(data):
        header = data[offset:offset + 60]
        name = header[:16].decode("latin-1").strip()
        size = int(header[48:58].decode("latin-1").strip() or "0")
        body = data[offset + 60:offset + 60 + size]
        if name in ("/", "/SYM64/"):
            width = 8 if name == "/SYM64/" else 4
            count = int.from_bytes(body[:width], "big")
            names = body[width + width * count:].split(b"\0")
            return {n.decode("latin-1") for n in names[:count]}, data
        offset += 60 + size + (size & 1)
    raise PeError("%s has no symbol index" % path)


def default_mingw_lib_dir():
    try:
        found = subprocess.run([MINGW_PREFIX + "-gcc", "-print-file-name=libntoskrnl.a"],
                               capture_output=True, text=True, check=False).stdout.strip()
        if os.path.isabs(found) and os.path.exists(found):
            return os.path.dirname(found)
    except OSError:
        pass
    return "/usr/%s/lib" % MINGW_PREFIX


# ---------------------------------------------------------------- checks

class Audit:
    def __init__(self):
        self.results = []

    def report(self, check, passed, detail):
        self.results.append((check, passed))
        print("%s %s: %s" % ("PASS" if passed else "FAIL", check, detail))

    @property
    def failed(self):
        return any(not passed for _, passed in self.results)


def branch_targets(code, start_rva):
    """RVAs reached by the direct near calls (E8) and jumps (E9) that a byte
    scan finds in `code`, which starts at `start_rva`."""
    targets = set()
    for i in range(len(code) - 4):
        if code[i] in (0xE8, 0xE9):
            (displacement,) = struct.unpack_from("<i", code, i + 1)
            targets.add(start_rva + i + 5 + displacement)
    return targets


def check_entry_point(audit, image, symbols, source):
    if not symbols:
        audit.report("entry-point", False, "no symbols (no COFF symbol table and no link map)")
        return
    driver_entry = symbols.get(DRIVER_ENTRY)
    if driver_entry is None:
        audit.report("entry-point", False, "%s not found in the %s" % (DRIVER_ENTRY, source))
        return
    entry = image.entry_point
    if entry == driver_entry:
        audit.report("entry-point", True, "0x%x is %s (%s)" % (entry, DRIVER_ENTRY, source))
        return
    cookie_entry = symbols.get(COOKIE_ENTRY)
    if cookie_entry is None or entry != cookie_entry:
        audit.report("entry-point", False, "0x%x is neither %s (0x%x) nor %s (%s)" % (
            entry, DRIVER_ENTRY, driver_entry, COOKIE_ENTRY,
            "0x%x" % cookie_entry if cookie_entry is not None else "absent"))
        return
    following = [rva for rva in symbols.values() if rva > cookie_entry]
    end = min(following + [cookie_entry + COOKIE_ENTRY_MAX_BYTES])
    section = image.section_of(cookie_entry)
    if section is None:
        audit.report("entry-point", False, "%s at 0x%x is in no section" % (COOKIE_ENTRY, cookie_entry))
        return
    end = min(end, section.virtual_address + section.raw_size)
    code = image.read(cookie_entry, end - cookie_entry)
    if driver_entry in branch_targets(code, cookie_entry):
        audit.report("entry-point", True, "0x%x is %s, which passes control to %s at 0x%x (%s)" % (
            entry, COOKIE_ENTRY, DRIVER_ENTRY, driver_entry, source))
    else:
        audit.report("entry-point", False, "%s at 0x%x never calls or jumps to %s at 0x%x" % (
            COOKIE_ENTRY, entry, DRIVER_ENTRY, driver_entry))


def check_imports(audit, image, build_dir, mingw_lib_dir):
    imports = image.imports()
    modules = [module for module, _ in imports]
    foreign = [m for m in modules if m.lower() not in ALLOWED_MODULES]
    audit.report("import-modules", not foreign,
                 "imports from %s" % ", ".join(modules) if not foreign
                 else "imports from modules outside %s: %s" % (", ".join(sorted(ALLOWED_MODULES)),
                                                               ", ".join(foreign)))
    problems = []
    count = 0
    for module, names in imports:
        entry = ALLOWED_MODULES.get(module.lower())
        if entry is None:
            continue
        where, library = entry
        path = os.path.join(mingw_lib_dir if where == "mingw" else build_dir, library)
        try:
            exported, archive = archive_symbols(path)
        except (OSError, PeError) as error:
            problems.append("%s: no import library (%s)" % (module, error))
            continue
        if module.lower().encode() not in archive.lower():
            problems.append("%s does not name %s" % (path, module))
            continue
        for name in names:
            count += 1
            if isinstance(name, tuple):
                problems.append("%s imported by ordinal %d" % (module, name[1]))
            elif "__imp_" + name not in exported:
                problems.append("%s!%s is not in %s" % (module, name, library))
    audit.report("import-names", not problems,
                 "%d imported names, all in their modules' import libraries" % count if not problems
                 else "; ".join(problems))


def check_sections(audit, image):
    both = [s.name for s in image.sections
            if s.characteristics & IMAGE_SCN_MEM_WRITE and s.characteristics & IMAGE_SCN_MEM_EXECUTE]
    audit.report("section-permissions", not both,
                 "no section is both writable and executable (%s)" % " ".join(s.name for s in image.sections)
                 if not both else "writable and executable: %s" % ", ".join(both))


def check_relocations(audit, image):
    rva, size = image.directory(DIR_BASERELOC)
    if image.characteristics & IMAGE_FILE_RELOCS_STRIPPED:
        audit.report("relocations", False, "the image says its relocations were stripped")
        return
    if rva == 0 or size == 0:
        audit.report("relocations", False, "no base relocation table")
        return
    try:
        table = image.read(rva, size)
    except PeError as error:
        audit.report("relocations", False, str(error))
        return
    offset = 0
    blocks = 0
    entries = 0
    while offset < size:
        if offset + 8 > size:
            audit.report("relocations", False, "truncated block at +0x%x" % offset)
            return
        _, block_size = struct.unpack_from("<II", table, offset)
        if block_size < 8 or block_size % 2 or offset + block_size > size:
            audit.report("relocations", False, "malformed block at +0x%x (size %d)" % (offset, block_size))
            return
        blocks += 1
        entries += (block_size - 8) // 2
        offset += block_size
    audit.report("relocations", entries > 0, "%d blocks, %d entries" % (blocks, entries))


def check_checksum(audit, image):
    computed = pe_checksum(image.data, image.checksum_offset)
    audit.report("checksum", image.checksum == computed,
                 "0x%08x" % computed if image.checksum == computed
                 else "header says 0x%08x, image sums to 0x%08x" % (image.checksum, computed))


def check_tls(audit, image):
    rva, size = image.directory(DIR_TLS)
    audit.report("no-tls", rva == 0 and size == 0,
                 "no TLS directory" if rva == 0 and size == 0
                 else "TLS directory at 0x%x: the kernel gives drivers no thread-local storage" % rva)


def check_versions(audit, image, inf_path):
    want = "%d.%d" % MINIMUM_WINDOWS
    opt = image.optional_header_offset
    os_major, os_minor, _, _, sub_major, sub_minor = struct.unpack_from("<HHHHHH", image.data, opt + 40)
    problems = []
    if (os_major, os_minor) != MINIMUM_WINDOWS:
        problems.append("OS version %d.%d" % (os_major, os_minor))
    if (sub_major, sub_minor) != MINIMUM_WINDOWS:
        problems.append("subsystem version %d.%d" % (sub_major, sub_minor))
    decorations = inf_model_decorations(inf_path)
    wanted_decoration = "NTamd64.%d.%d" % MINIMUM_WINDOWS
    if decorations is None:
        problems.append("no INF at %s" % inf_path)
    elif decorations != [wanted_decoration]:
        problems.append("INF models decorated %s" % (", ".join(decorations) or "with nothing"))
    audit.report("os-version", not problems,
                 "image and INF (%s) both say Windows %s" % (wanted_decoration, want) if not problems
                 else "want Windows %s everywhere: %s" % (want, "; ".join(problems)))


def inf_model_decorations(path):
    """The target decorations of the INF's [Manufacturer] entries, or None
    when there is no INF."""
    try:
        with open(path, encoding="latin-1") as f:
            lines = f.read().splitlines()
    except OSError:
        return None
    decorations = []
    section = None
    for line in lines:
        line = line.split(";", 1)[0].strip()
        if line.startswith("[") and line.endswith("]"):
            section = line[1:-1].strip().lower()
        elif section == "manufacturer" and "=" in line:
            decorations += [part.strip() for part in line.split("=", 1)[1].split(",")[1:]]
    return decorations


def check_code_sections(audit, image):
    problems = []
    for name, flags in CODE_SECTION_FLAGS.items():
        found = [s for s in image.sections if s.name == name]
        if not found:
            problems.append("no %s section" % name)
        elif found[0].characteristics != flags:
            problems.append("%s flags 0x%08x, want 0x%08x" % (name, found[0].characteristics, flags))
    audit.report("code-sections", not problems,
                 " ".join("%s 0x%08x" % item for item in CODE_SECTION_FLAGS.items()) if not problems
                 else "; ".join(problems))


def check_code_placement(audit, image, map_path):
    if not map_path or not os.path.exists(map_path):
        audit.report("code-placement", False, "no link map to place routines by")
        return
    routines = map_routines(map_path, image.image_base)
    problems = []
    for section_name, names in CODE_PLACEMENT.items():
        for name in names:
            places = {getattr(image.section_of(rva), "name", "nowhere")
                      for rva, routine, thunk in routines if routine == name and not thunk}
            if not places:
                problems.append("%s is not in the link map" % name)
            elif places != {section_name}:
                problems.append("%s in %s, want %s" % (name, ", ".join(sorted(places)), section_name))
    for rva, routine, thunk in routines:
        section = image.section_of(rva)
        if section is not None and section.name in ("PAGE", "INIT") and routine not in CODE_PLACEMENT[section.name]:
            problems.append("%s%s sits in %s, which holds only its listed routines" % (
                "thunk to " if thunk else "", routine, section.name))
    audit.report("code-placement", not problems,
                 ", ".join("%d listed routines in %s" % (len(v), k) for k, v in CODE_PLACEMENT.items())
                 if not problems else "; ".join(sorted(set(problems))))


# An absolute path of the build machine: two or more components after a
# slash (Unix), or a drive letter (Windows), in ASCII or UTF-16.
ABSOLUTE_PATH = re.compile(r"(?<![\w.+-])(?:/[\w.+-]+){2,}|\b[A-Za-z]:[\\/][\w.+-]+", re.ASCII)


def check_build_paths(audit, image, extra_paths):
    found = []
    for section in image.sections:
        if section.characteristics & IMAGE_SCN_MEM_EXECUTE:
            continue  # code bytes are no text; strings live in the data sections
        raw = image.data[section.raw_pointer:section.raw_pointer + section.raw_size]
        texts = [raw.decode("latin-1")]
        texts += [raw[i:len(raw) - ((len(raw) - i) % 2)].decode("utf-16-le", "replace") for i in (0, 1)]
        for text in texts:
            found += ["%s: %s" % (section.name, m.group(0)) for m in ABSOLUTE_PATH.finditer(text)]
            found += ["%s: %s" % (section.name, p) for p in extra_paths if p and p in text]
    audit.report("build-paths", not found,
                 "no absolute path of the build machine in the data sections" if not found
                 else "the image names paths of the machine that built it: %s" % ", ".join(sorted(set(found))))


def audit_image(path, build_dir, mingw_lib_dir, map_path, inf_path=INF_PATH):
    audit = Audit()
    try:
        with open(path, "rb") as f:
            image = PeImage(f.read())
    except (OSError, PeError) as error:
        audit.report("pe-format", False, str(error))
        return audit
    if image.machine != IMAGE_FILE_MACHINE_AMD64 or image.magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC:
        audit.report("pe-format", False, "machine 0x%04x, optional header magic 0x%03x (want AMD64 PE32+)" % (
            image.machine, image.magic))
        return audit
    audit.report("pe-format", True, "PE32+ for AMD64, %d sections" % len(image.sections))
    audit.report("subsystem", image.subsystem == IMAGE_SUBSYSTEM_NATIVE,
                 "native" if image.subsystem == IMAGE_SUBSYSTEM_NATIVE
                 else "subsystem %d, want %d (native)" % (image.subsystem, IMAGE_SUBSYSTEM_NATIVE))

    symbols = image.coff_symbols()
    source = "COFF symbol table"
    if not symbols and map_path and os.path.exists(map_path):
        symbols = map_symbols(map_path, image.image_base)
        source = os.path.basename(map_path)
    try:
        check_entry_point(audit, image, symbols, source)
    except PeError as error:
        audit.report("entry-point", False, str(error))
    try:
        check_imports(audit, image, build_dir, mingw_lib_dir)
    except PeError as error:
        audit.report("import-names", False, "unreadable import directory: %s" % error)
    check_sections(audit, image)
    check_code_sections(audit, image)
    check_code_placement(audit, image, map_path)
    check_versions(audit, image, inf_path)
    check_build_paths(audit, image, [os.path.abspath(build_dir), ROOT])
    check_relocations(audit, image)
    check_checksum(audit, image)
    check_tls(audit, image)
    return audit


def main(argv):
    parser = argparse.ArgumentParser(description="Audit a Windows x64 driver image.")
    parser.add_argument("--set-checksum", metavar="IMAGE", help="write the image checksum and exit")
    parser.add_argument("--post-link", metavar="IMAGE",
                        help="the build's post-link step: mark %s discardable, write the checksum and exit"
                        % "/".join(DISCARDABLE_SECTIONS))
    parser.add_argument("image", nargs="?")
    parser.add_argument("build_dir", nargs="?")
    parser.add_argument("--mingw-lib-dir", help="mingw-w64's import libraries (default: the compiler's)")
    parser.add_argument("--map", help="link map (default: BUILD_DIR/%s)" % MAP_NAME)
    parser.add_argument("--inf", default=INF_PATH, help="the driver's INF (default: %(default)s)")
    args = parser.parse_args(argv)
    if args.set_checksum or args.post_link:
        path = args.set_checksum or args.post_link
        try:
            rewrite_image(path, DISCARDABLE_SECTIONS if args.post_link else ())
        except (OSError, PeError) as error:
            print("pe_audit: %s: %s" % (path, error), file=sys.stderr)
            return 1
        return 0
    if not args.image or not args.build_dir:
        parser.print_usage(sys.stderr)
        return 2
    audit = audit_image(args.image, args.build_dir, args.mingw_lib_dir or default_mingw_lib_dir(),
                        args.map or os.path.join(args.build_dir, MAP_NAME), args.inf)
    return 1 if audit.failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
