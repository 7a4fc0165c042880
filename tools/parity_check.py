#!/usr/bin/env python3
"""Layout parity between ambrel.sys and the host kernel: do the Windows DDK
headers (as the Windows build uses them) and the host kernel's headers give
every structure, member, constant, kit identifier and interface slot that
tools/parity/parity_probe.cpp lists the same value?

    parity_check.py MANIFEST
    parity_check.py --windows OBJ [OBJ ...] --host OBJ [OBJ ...]

The probe is compiled once per side; its table am_parity_records is read out
of the object files (COFF from mingw-w64, ELF from the host compiler). The
first object of a side holds the table; the others only resolve the kit
identifiers it points at (on Windows, amguids.cpp's object: the storage the
image links). MANIFEST (written by the Windows build) has one "windows PATH"
or "host PATH" per line.

Prints "FAIL <kind> <name>: Windows <value>, host <value>" for every entry
that differs and a closing "PASS parity: ..." or "FAIL parity: ..." line;
exits 1 on any difference, 2 when an object cannot be read.

Python 3 standard library only: COFF and ELF are parsed here.
"""

import argparse
import struct
import sys

TABLE_SYMBOL = "am_parity_records"
COUNT_SYMBOL = "am_parity_record_count"
RECORD_SIZE = 120
NAME_SIZE = 103
VALUE_OFFSET = 104
DATA_OFFSET = 112

KINDS = {"H": "header", "S": "size", "O": "offset", "C": "constant", "G": "guid", "M": "slot"}

IMAGE_FILE_MACHINE_AMD64 = 0x8664
IMAGE_REL_AMD64_ADDR64 = 0x0001
IMAGE_SCN_CNT_UNINITIALIZED_DATA = 0x00000080
IMAGE_SCN_LNK_NRELOC_OVFL = 0x01000000
ELF_SHT_SYMTAB = 2
ELF_SHT_RELA = 4
ELF_SHT_NOBITS = 8
ELF_SHN_LORESERVE = 0xFF00
ELF_STB_LOCAL = 0
R_X86_64_64 = 1


class ObjectError(Exception):
    """The file is not an object this tool can read."""


class Section:
    def __init__(self, name, offset, size, nobits=False):
        self.name = name
        self.offset = offset    # of its data in the file
        self.size = size
        self.nobits = nobits
        self.relocations = {}   # site offset in the section -> (symbol index, addend)


class Symbol:
    def __init__(self, name, section, value, is_global):
        self.name = name
        self.section = section  # index into ObjectFile.sections, None when undefined
        self.value = value
        self.is_global = is_global


class ObjectFile:
    def __init__(self, path, data=None):
        self.path = path
        if data is None:
            with open(path, "rb") as f:
                data = f.read()
        self.data = data
        self.sections = []
        self.symbols = []
        if self.data[:4] == b"\x7fELF":
            self._read_elf()
        elif len(self.data) >= 20 and struct.unpack_from("<H", self.data, 0)[0] == IMAGE_FILE_MACHINE_AMD64:
            self._read_coff()
        else:
            raise ObjectError("%s: neither an x86-64 COFF nor an ELF object" % path)

    def _check(self, offset, size):
        if offset < 0 or offset + size > len(self.data):
            raise ObjectError("%s: truncated at 0x%x" % (self.path, offset))

    def _cstring(self, offset):
        end = self.data.find(b"\0", offset)
        if end < 0:
            raise ObjectError("%s: unterminated string at 0x%x" % (self.path, offset))
        return self.data[offset:end].decode("latin-1")

    # ---------------------------------------------------------------- COFF
    def _read_coff(self):
        _, section_count, _, symbol_pointer, symbol_count, optional_size, _ = struct.unpack_from(
            "<HHIIIHH", self.data, 0)
        strings = symbol_pointer + 18 * symbol_count
        table = 20 + optional_size
        self._check(table, 40 * section_count)
        raw_relocations = []
        for index in range(section_count):
            (raw_name, _, _, raw_size, raw_pointer, reloc_pointer, _, reloc_count, _,
             characteristics) = struct.unpack_from("<8sIIIIIIHHI", self.data, table + 40 * index)
            name = raw_name.rstrip(b"\0").decode("latin-1")
            if name.startswith("/") and name[1:].isdigit():
                name = self._cstring(strings + int(name[1:]))
            nobits = bool(characteristics & IMAGE_SCN_CNT_UNINITIALIZED_DATA)
            self.sections.append(Section(name, raw_pointer, raw_size, nobits))
            if characteristics & IMAGE_SCN_LNK_NRELOC_OVFL and reloc_count == 0xFFFF:
                self._check(reloc_pointer, 10)
                reloc_count = struct.unpack_from("<I", self.data, reloc_pointer)[0]
                reloc_pointer += 10
                reloc_count -= 1
            raw_relocations.append((reloc_pointer, reloc_count))
        self._check(symbol_pointer, 18 * symbol_count)
        index = 0
        while index < symbol_count:
            raw, value, section_number, _, storage_class, aux = struct.unpack_from(
                "<8sIhHBB", self.data, symbol_pointer + 18 * index)
            if raw[:4] == b"\0\0\0\0":
                name = self._cstring(strings + struct.unpack_from("<I", raw, 4)[0])
            else:
                name = raw.rstrip(b"\0").decode("latin-1")
            section = section_number - 1 if 1 <= section_number <= section_count else None
            symbol = Symbol(name, section, value, storage_class == 2)  # IMAGE_SYM_CLASS_EXTERNAL
            self.symbols.append(symbol)
            # Auxiliary records take symbol-table indices of their own.
            self.symbols.extend([None] * aux)
            index += 1 + aux
        for section, (pointer, count) in zip(self.sections, raw_relocations):
            self._check(pointer, 10 * count)
            for i in range(count):
                site, symbol_index, kind = struct.unpack_from("<IIH", self.data, pointer + 10 * i)
                if kind == IMAGE_REL_AMD64_ADDR64:
                    self._check(section.offset + site, 8)
                    addend = struct.unpack_from("<q", self.data, section.offset + site)[0]
                    section.relocations[site] = (symbol_index, addend)

    # ---------------------------------------------------------------- ELF
    def _read_elf(self):
        if self.data[4] != 2 or self.data[5] != 1:
            raise ObjectError("%s: not a little-endian 64-bit ELF object" % self.path)
        self._check(0, 64)
        section_table, = struct.unpack_from("<Q", self.data, 0x28)
        entry_size, count, names_index = struct.unpack_from("<HHH", self.data, 0x3A)
        self._check(section_table, entry_size * count)
        headers = [struct.unpack_from("<IIQQQQIIQQ", self.data, section_table + entry_size * i)
                   for i in range(count)]
        names_offset = headers[names_index][4]
        for name, kind, _, _, offset, size, _, _, _, _ in headers:
            self.sections.append(Section(self._cstring(names_offset + name), offset, size, kind == ELF_SHT_NOBITS))
        symbol_tables = [i for i, h in enumerate(headers) if h[1] == ELF_SHT_SYMTAB]
        if len(symbol_tables) != 1:
            raise ObjectError("%s: %d symbol tables" % (self.path, len(symbol_tables)))
        _, _, _, _, offset, size, link, _, _, _ = headers[symbol_tables[0]]
        strings = headers[link][4]
        self._check(offset, size)
        for i in range(size // 24):
            name, info, _, shndx, value, _ = struct.unpack_from("<IBBHQQ", self.data, offset + 24 * i)
            section = shndx if 0 < shndx < ELF_SHN_LORESERVE else None
            self.symbols.append(Symbol(self._cstring(strings + name), section, value, (info >> 4) != ELF_STB_LOCAL))
        for _, kind, _, _, offset, size, link, target, _, _ in headers:
            if kind != ELF_SHT_RELA or link != symbol_tables[0]:
                continue
            self._check(offset, size)
            for i in range(size // 24):
                site, info, addend = struct.unpack_from("<QQq", self.data, offset + 24 * i)
                if info & 0xFFFFFFFF == R_X86_64_64:
                    self.sections[target].relocations[site] = (info >> 32, addend)

    # ---------------------------------------------------------------- lookups
    def defined(self, name):
        for symbol in self.symbols:
            if symbol is not None and symbol.name == name and symbol.section is not None:
                return symbol
        return None

    def file_offset(self, section, offset, size):
        """The file offset of `size` bytes at `offset` in a section."""
        sec = self.sections[section]
        if sec.nobits or offset < 0 or offset + size > sec.size:
            raise ObjectError("%s: %d bytes at %s+0x%x are outside its data" % (self.path, size, sec.name, offset))
        return sec.offset + offset


class Entry:
    """One record of the table: its value or, for identifiers and slots, the
    bytes it points at, and where in which file each of them lives."""

    def __init__(self, kind, name, value, data, value_at, data_at):
        self.kind = kind
        self.name = name
        self.value = value
        self.data = data
        self.value_at = value_at    # (path, file offset) of the value
        self.data_at = data_at      # (path, file offset) of the bytes pointed at, or None

    def shown(self):
        if self.kind == "G":
            d1, d2, d3 = struct.unpack_from("<IHH", self.data, 0)
            tail = self.data[8:16].hex().upper()
            return "{%08X-%04X-%04X-%s-%s}" % (d1, d2, d3, tail[:4], tail[4:])
        if self.kind == "M":
            pointer, adjust = struct.unpack_from("<qq", self.data, 0)
            if pointer & 1:
                return "slot %d (vtable offset %d, this %+d)" % ((pointer - 1) // 8, pointer - 1, adjust)
            return "not a virtual slot (0x%x)" % pointer
        if self.kind == "C":
            return "0x%X" % self.value
        return str(self.value)

    def compared(self):
        return self.data if self.kind in ("G", "M") else self.value


def resolve(objects, obj, section, site):
    """The object, section index and offset a pointer at `site` of `section`
    points to, following its relocation to a defined symbol (in any of the
    side's objects when it is undefined in `obj`)."""
    relocation = obj.sections[section].relocations.get(site)
    if relocation is None:
        return None
    symbol_index, addend = relocation
    if symbol_index >= len(obj.symbols) or obj.symbols[symbol_index] is None:
        raise ObjectError("%s: relocation to a bad symbol index %d" % (obj.path, symbol_index))
    symbol = obj.symbols[symbol_index]
    if symbol.section is not None:
        return obj, symbol.section, symbol.value + addend
    for other in objects:
        found = other.defined(symbol.name)
        if found is not None and found.is_global:
            return other, found.section, found.value + addend
    raise ObjectError("%s: %s is defined in none of %s" % (
        obj.path, symbol.name, ", ".join(o.path for o in objects)))


def read_table(paths, contents=None):
    """[Entry] of the probe table in the first object, pointers resolved
    through all of them. `contents` may give an object's bytes by path."""
    contents = contents or {}
    objects = [ObjectFile(path, contents.get(path)) for path in paths]
    probe = objects[0]
    table = probe.defined(TABLE_SYMBOL)
    count = probe.defined(COUNT_SYMBOL)
    if table is None or count is None:
        raise ObjectError("%s: no %s/%s: not the layout probe" % (probe.path, TABLE_SYMBOL, COUNT_SYMBOL))
    (records,) = struct.unpack_from("<Q", probe.data, probe.file_offset(count.section, count.value, 8))
    entries = []
    for index in range(records):
        start = table.value + RECORD_SIZE * index
        at = probe.file_offset(table.section, start, RECORD_SIZE)
        kind = chr(probe.data[at])
        raw_name = probe.data[at + 1:at + 1 + NAME_SIZE]
        name = raw_name[:raw_name.find(b"\0")].decode("latin-1") if b"\0" in raw_name else ""
        (value,) = struct.unpack_from("<Q", probe.data, at + VALUE_OFFSET)
        if kind not in KINDS or not name:
            raise ObjectError("%s: record %d is not a probe record" % (probe.path, index))
        data, data_at = None, None
        if kind in ("G", "M"):
            target = resolve(objects, probe, table.section, start + DATA_OFFSET)
            if target is None:
                raise ObjectError("%s: record %s points nowhere" % (probe.path, name))
            obj, section, offset = target
            where = obj.file_offset(section, offset, value)
            data, data_at = obj.data[where:where + value], (obj.path, where)
        entries.append(Entry(kind, name, value, data, (probe.path, at + VALUE_OFFSET), data_at))
    if not entries or entries[0].kind != "H" or entries[0].value != RECORD_SIZE:
        raise ObjectError("%s: the table's header is missing or its record size is not %d" % (
            probe.path, RECORD_SIZE))
    return entries[1:]


def compare(windows, host):
    """[(line)] of differences between the two tables; a name on one side
    only is a difference too."""
    problems = []
    host_by_name = {(e.kind, e.name): e for e in host}
    windows_keys = {(e.kind, e.name) for e in windows}
    for entry in windows:
        other = host_by_name.get((entry.kind, entry.name))
        if other is None:
            problems.append("FAIL %s %s: Windows %s, host has no such entry" % (
                KINDS[entry.kind], entry.name, entry.shown()))
        elif entry.compared() != other.compared():
            problems.append("FAIL %s %s: Windows %s, host %s" % (
                KINDS[entry.kind], entry.name, entry.shown(), other.shown()))
    for entry in host:
        if (entry.kind, entry.name) not in windows_keys:
            problems.append("FAIL %s %s: host %s, Windows has no such entry" % (
                KINDS[entry.kind], entry.name, entry.shown()))
    return problems


def read_manifest(path):
    sides = {"windows": [], "host": []}
    with open(path) as f:
        for number, line in enumerate(f, 1):
            line = line.strip()
            if not line:
                continue
            side, _, object_path = line.partition(" ")
            if side not in sides or not object_path:
                raise ObjectError("%s:%d: want 'windows PATH' or 'host PATH'" % (path, number))
            sides[side].append(object_path)
    if not sides["windows"] or not sides["host"]:
        raise ObjectError("%s: names no object for one side" % path)
    return sides["windows"], sides["host"]


def main(argv):
    parser = argparse.ArgumentParser(description="Compare the layout probe's two compilations.")
    parser.add_argument("manifest", nargs="?")
    parser.add_argument("--windows", nargs="+", metavar="OBJ")
    parser.add_argument("--host", nargs="+", metavar="OBJ")
    args = parser.parse_args(argv)
    try:
        if args.manifest:
            windows_paths, host_paths = read_manifest(args.manifest)
        elif args.windows and args.host:
            windows_paths, host_paths = args.windows, args.host
        else:
            parser.print_usage(sys.stderr)
            return 2
        windows = read_table(windows_paths)
        host = read_table(host_paths)
    except (OSError, ObjectError, struct.error) as error:
        print("parity_check: %s" % error, file=sys.stderr)
        return 2
    problems = compare(windows, host)
    for line in problems:
        print(line)
    counts = {}
    for entry in windows:
        counts[KINDS[entry.kind]] = counts.get(KINDS[entry.kind], 0) + 1
    summary = ", ".join("%d %ss" % (counts[k], k) for k in ("size", "offset", "constant", "guid", "slot")
                        if k in counts)
    if problems:
        print("FAIL parity: %d of %d entries differ (%s)" % (len(problems), len(windows), summary))
        return 1
    print("PASS parity: %d entries equal on Windows and the host (%s)" % (len(windows), summary))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
