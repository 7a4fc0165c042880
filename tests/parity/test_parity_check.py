#!/usr/bin/env python3
"""The layout parity check against the probe objects of a real Windows build:
as built they agree; change any one size, offset, constant, identifier or
interface slot on one side and the check fails naming exactly that entry.

    test_parity_check.py [MANIFEST]   (default: build/windows/parity/objects.txt)

Needs the Windows build (scripts/test.sh runs it in its windows step).
"""

import os
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
CHECK = os.path.join(ROOT, "tools", "parity_check.py")
sys.path.insert(0, os.path.join(ROOT, "tools"))
import parity_check  # noqa: E402

MANIFEST = os.path.join(ROOT, "build", "windows", "parity", "objects.txt")

# COFF's identifier as mingw-w64's punknown.h spells it, and the real one.
MINGW_IID_IUNKNOWN = bytes.fromhex("00000000" "0000" "0000" "0000C00000000046")
IID_IUNKNOWN_TEXT = "{00000000-0000-0000-C000-000000000046}"


def patched(data, offset, new):
    return data[:offset] + new + data[offset + len(new):]


def contents_of(paths):
    result = {}
    for path in paths:
        with open(path, "rb") as f:
            result[path] = f.read()
    return result


class ParityCheckTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.windows, cls.host = parity_check.read_manifest(MANIFEST)

    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.addCleanup(self.tmp.cleanup)

    def copy(self, paths):
        copies = []
        for path in paths:
            copy = os.path.join(self.tmp.name, "%d-%s" % (len(os.listdir(self.tmp.name)), os.path.basename(path)))
            shutil.copyfile(path, copy)
            copies.append(copy)
        return copies

    def run_check(self, windows, host):
        result = subprocess.run([sys.executable, CHECK, "--windows", *windows, "--host", *host],
                                capture_output=True, text=True)
        return result.returncode, result.stdout.splitlines(), result.stderr

    def entry(self, paths, name, contents=None):
        found = [e for e in parity_check.read_table(paths, contents) if e.name == name]
        self.assertEqual(len(found), 1, name)
        return found[0]

    def test_the_builds_objects_agree(self):
        code, lines, stderr = self.run_check(self.windows, self.host)
        self.assertEqual(code, 0, "\n".join(lines) + stderr)
        self.assertTrue(lines[-1].startswith("PASS parity: "), lines)

    def test_each_known_fault_fails_naming_its_entry(self):
        # The faults the image and the host kernel had, and two more kinds; the
        # Windows values are the platform's published ones.
        cases = [
            # side, entry, how it is changed, the one line the check must print
            ("host", "IO_STACK_LOCATION.Parameters.DeviceIoControl.IoControlCode", struct.pack("<Q", 16),
             "FAIL offset IO_STACK_LOCATION.Parameters.DeviceIoControl.IoControlCode: Windows 24, host 16"),
            ("host", "sizeof DEVICE_OBJECT", struct.pack("<Q", 272),
             "FAIL size sizeof DEVICE_OBJECT: Windows 328, host 272"),
            ("host", "sizeof IRP", struct.pack("<Q", 200), "FAIL size sizeof IRP: Windows 208, host 200"),
            ("windows", "IID_IUnknown", MINGW_IID_IUNKNOWN,
             "FAIL guid IID_IUnknown: Windows {00000000-0000-0000-0000-C00000000046}, host " + IID_IUNKNOWN_TEXT),
            ("host", "STATUS_DELETE_PENDING", struct.pack("<q", -0x3FFFFFA9),
             "FAIL constant STATUS_DELETE_PENDING: Windows 0xFFFFFFFFC0000056, host 0xFFFFFFFFC0000057"),
            ("host", "IMiniportDMus::NewStream", struct.pack("<q", 8 * 8 + 1),
             "FAIL slot IMiniportDMus::NewStream: Windows slot 7 (vtable offset 56, this +0), "
             "host slot 8 (vtable offset 64, this +0)"),
        ]
        for side, name, new, line in cases:
            with self.subTest(name):
                windows, host = self.copy(self.windows), self.copy(self.host)
                entry = self.entry(windows if side == "windows" else host, name)
                path, offset = entry.data_at if entry.kind in ("G", "M") else entry.value_at
                with open(path, "r+b") as f:
                    f.seek(offset)
                    f.write(new)
                code, lines, stderr = self.run_check(windows, host)
                self.assertEqual(code, 1, stderr)
                self.assertEqual(lines[:-1], [line])
                self.assertRegex(lines[-1], r"^FAIL parity: 1 of \d+ entries differ")

    def test_any_one_changed_entry_is_caught(self):
        windows = parity_check.read_table(self.windows)
        host_entries = parity_check.read_table(self.host)
        host_data, windows_data = contents_of(self.host), contents_of(self.windows)
        checked = 0
        for entry in host_entries + [e for e in windows if e.kind == "G"]:
            on_host = entry in host_entries
            path, offset = entry.data_at if entry.kind in ("G", "M") else entry.value_at
            contents = host_data if on_host else windows_data
            (word,) = struct.unpack_from("<Q", contents[path], offset)
            # Identifiers change one bit of Data4, slots move by one, numbers by one.
            step = {"G": 1 << 56, "M": 8}.get(entry.kind, 1)
            changed = dict(contents)
            changed[path] = patched(contents[path], offset, struct.pack("<Q", (word + step) % (1 << 64)))
            if on_host:
                problems = parity_check.compare(windows, parity_check.read_table(self.host, changed))
            else:
                problems = parity_check.compare(parity_check.read_table(self.windows, changed), host_entries)
            self.assertEqual(len(problems), 1, (entry.name, problems))
            self.assertTrue(problems[0].startswith("FAIL %s %s: " % (parity_check.KINDS[entry.kind], entry.name)),
                            problems)
            checked += 1
        self.assertGreater(checked, 900)

    def test_an_entry_on_one_side_only_is_a_difference(self):
        host = self.copy(self.host)
        entry = self.entry(host, "sizeof KDPC")
        path, offset = entry.value_at
        with open(path, "r+b") as f:
            f.seek(offset - parity_check.VALUE_OFFSET + 1)
            f.write(b"sizeof KDPX")
        code, lines, _ = self.run_check(self.windows, host)
        self.assertEqual(code, 1)
        self.assertEqual(lines[:-1], ["FAIL size sizeof KDPC: Windows 64, host has no such entry",
                                      "FAIL size sizeof KDPX: host 64, Windows has no such entry"])

    def test_objects_that_are_not_the_probe_are_refused(self):
        junk = os.path.join(self.tmp.name, "junk.o")
        with open(junk, "wb") as f:
            f.write(b"\x7fELF" + bytes(60))
        cases = [("not an object", [junk]), ("an object without the table", self.windows[1:])]
        for name, windows in cases:
            with self.subTest(name):
                code, lines, stderr = self.run_check(windows, self.host)
                self.assertEqual(code, 2)
                self.assertIn("parity_check: ", stderr)
                self.assertNotIn("Traceback", stderr)


if __name__ == "__main__":
    if len(sys.argv) > 1 and not sys.argv[1].startswith("-"):
        MANIFEST = os.path.abspath(sys.argv.pop(1))
    unittest.main()
