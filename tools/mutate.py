#!/usr/bin/env python3
"""Mutation runner: proves that the host suites catch faults in the driver.

Each mutant of tools/mutants.txt is one exact text replacement in one driver
source (common/, adapter/, miniport/). The runner works in a copy of the tree
(build/mutate/src, its own build in build/mutate/build), so the working tree is
never touched. For each mutant it applies the change, rebuilds incrementally,
and runs the host test binaries that reach the driver, each stopping at its
first failure, the binaries most likely to kill the mutant first:

  killed    a binary failed (or crashed)
  timeout   a binary ran past its limit (counted as detected: a hang is seen)
  survived  every binary passed
  invalid   the mutant does not build, or its text is not in the file once

The source is restored in a finally block (and re-synced from the working tree
at the next start, should the runner have been killed outright); at the end
the copy's `git status` must be clean. Results go to build/mutate/results.json,
so an interrupted campaign resumes where it stopped (--fresh starts over).

Mutants marked `survives:` are faults no host test can see, with the reason;
they count against the score. Mutants marked `equivalent:` cannot change any observable
behaviour; they are not run (--check-equivalent runs them: one that is killed
is not equivalent and is reported as a list error) and not counted.

Usage (on a machine shared with others, the runner nices itself):
  python3 tools/mutate.py                       # every mutant
  python3 tools/mutate.py --unit miniport       # one driver unit
  python3 tools/mutate.py --ids fifo-space,parser-cc-length
  python3 tools/mutate.py --report              # the table from saved results
"""
import argparse
import hashlib
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
UNITS = ("common", "adapter", "miniport")

# Host test binaries that can see a driver fault. Front-end (real process)
# tests, the delay stress and ThreadSanitizer-only suites are left out: they
# reach the driver only through these paths again, slowly.
BINARIES = {
    "core_tests": "tests/core/core_tests",
    "common_tests": "tests/common/common_tests",
    "adapter_tests": "tests/adapter/adapter_tests",
    "miniport_tests": "tests/miniport/miniport_tests",
    "io_tests": "tests/io/io_tests",
    "hardening_sweep_tests": "tests/hardening/hardening_sweep_tests",
}

# Which binaries run first for a source, by path prefix (most specific first).
ORDER = [
    ("miniport/fifo/", ["core_tests", "miniport_tests", "adapter_tests"]),
    ("miniport/midiparser/", ["core_tests", "miniport_tests", "adapter_tests"]),
    ("adapter/nameguid/", ["core_tests", "adapter_tests"]),
    ("adapter/openparams", ["core_tests", "adapter_tests"]),
    ("adapter/porttable", ["core_tests", "adapter_tests"]),
    ("adapter/", ["adapter_tests", "io_tests", "miniport_tests"]),
    ("miniport/", ["miniport_tests", "adapter_tests"]),
    ("common/", ["common_tests", "io_tests", "adapter_tests", "miniport_tests"]),
]


class Mutant:
    def __init__(self, ident, fields, line):
        self.id = ident
        self.line = line
        self.file = fields.get("file", "")
        self.original = unescape(fields.get("from", ""))
        self.replacement = unescape(fields.get("to", ""))
        self.why = fields.get("why", "")
        self.equivalent = fields.get("equivalent")
        # A mutant no test on the host can see, and why (it still counts).
        self.survives = fields.get("survives")

    @property
    def unit(self):
        return self.file.split("/", 1)[0]

    def key(self):
        text = "\0".join([self.file, self.original, self.replacement])
        return hashlib.sha1(text.encode()).hexdigest()[:16]


def unescape(text):
    return text.replace("\\n", "\n").replace("\\t", "\t")


def load_mutants(path):
    """The list: blocks headed `[id]`, then `key: value` lines (file, from,
    to, why, equivalent, survives). `\\n` in a value is a line break; `#` starts a
    comment line."""
    mutants, ident, fields, start = [], None, {}, 0
    with open(path, encoding="utf-8") as f:
        for number, raw in enumerate(f, 1):
            line = raw.rstrip("\n")
            if not line.strip() or line.lstrip().startswith("#"):
                continue
            header = re.fullmatch(r"\[([A-Za-z0-9_.-]+)\]", line.strip())
            if header:
                if ident:
                    mutants.append(Mutant(ident, fields, start))
                ident, fields, start = header.group(1), {}, number
                continue
            key, sep, value = line.partition(":")
            if not sep or ident is None:
                sys.exit(f"{path}:{number}: expected [id] or key: value")
            fields[key.strip()] = value[1:] if value.startswith(" ") else value
    if ident:
        mutants.append(Mutant(ident, fields, start))
    seen = set()
    for m in mutants:
        if m.id in seen:
            sys.exit(f"{path}:{m.line}: duplicate id {m.id}")
        seen.add(m.id)
        if not m.file or not m.original or m.original == m.replacement:
            sys.exit(f"{path}:{m.line}: {m.id} needs file, from and a different to")
        if m.unit not in UNITS:
            sys.exit(f"{path}:{m.line}: {m.id}: {m.file} is not a driver source")
    return mutants


def run(cmd, cwd=None, timeout=None, quiet=True):
    return subprocess.run(cmd, cwd=cwd, timeout=timeout, text=True, errors="replace",
                          stdout=subprocess.PIPE if quiet else None,
                          stderr=subprocess.STDOUT if quiet else None)


def tree_files():
    out = run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=ROOT).stdout
    return [p for p in out.split("\0") if p and os.path.isfile(os.path.join(ROOT, p))]


def sync_copy(src):
    """Brings the copy up to the working tree, writing only what differs, so
    the incremental build stays incremental; commits it as the clean state."""
    os.makedirs(src, exist_ok=True)
    for rel in tree_files():
        a, b = os.path.join(ROOT, rel), os.path.join(src, rel)
        with open(a, "rb") as f:
            data = f.read()
        if os.path.exists(b):
            with open(b, "rb") as f:
                if f.read() == data:
                    continue
        os.makedirs(os.path.dirname(b), exist_ok=True)
        with open(b, "wb") as f:
            f.write(data)
        shutil.copymode(a, b)
    if not os.path.isdir(os.path.join(src, ".git")):
        run(["git", "init", "-q"], cwd=src)
        with open(os.path.join(src, ".gitignore"), "w") as f:
            f.write("/build/\n")
    run(["git", "add", "-A"], cwd=src)
    run(["git", "-c", "user.name=mutate", "-c", "user.email=mutate@localhost", "commit", "-q",
         "--allow-empty", "-m", "tree under mutation"], cwd=src)


def copy_is_clean(src):
    return run(["git", "status", "--porcelain"], cwd=src).stdout.strip() == ""


def nice(cmd):
    return ["nice", "-n", "19"] + cmd


def build(src, bld, timeout, targets=None):
    if not os.path.exists(os.path.join(bld, "build.ninja")):
        r = run(nice(["cmake", "-S", src, "-B", bld, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug"]))
        if r.returncode != 0:
            return False, r.stdout
    cmd = nice(["cmake", "--build", bld, "-j2", "--target"] + list(targets or BINARIES))
    try:
        r = run(cmd, timeout=timeout)
    except subprocess.TimeoutExpired:
        return False, "build timed out"
    return r.returncode == 0, r.stdout


def order_for(path):
    for prefix, first in ORDER:
        if path.startswith(prefix):
            return first + [b for b in BINARIES if b not in first]
    return list(BINARIES)


def run_binary(bld, name, timeout):
    """(outcome, detail): outcome is 'pass', 'fail' or 'timeout'."""
    exe = os.path.join(bld, BINARIES[name])
    cmd = nice([exe, "--gtest_fail_fast", "--gtest_brief=1"])
    try:
        r = run(cmd, cwd=os.path.dirname(exe), timeout=timeout)
    except subprocess.TimeoutExpired:
        return "timeout", name
    if r.returncode == 0:
        return "pass", ""
    failed = re.findall(r"^\[  FAILED  \] (\S+)", r.stdout, re.M)
    return "fail", f"{name}: {failed[0] if failed else 'exit ' + str(r.returncode)}"


def apply_and_test(m, src, bld, limits, build_timeout):
    path = os.path.join(src, m.file)
    with open(path, encoding="utf-8") as f:
        original = f.read()
    count = original.count(m.original)
    if count != 1:
        return "invalid", f"original text found {count} times"
    try:
        with open(path, "w", encoding="utf-8") as f:
            f.write(original.replace(m.original, m.replacement, 1))
        # Each binary is linked just before it runs: most mutants die in the
        # first, and the others need not be linked for them.
        for name in order_for(m.file):
            ok, log = build(src, bld, build_timeout, [name])
            if not ok:
                first = next((l for l in log.splitlines() if "error" in l), "build failed")
                return "invalid", first.strip()[:160]
            outcome, detail = run_binary(bld, name, limits[name])
            if outcome == "fail":
                return "killed", detail
            if outcome == "timeout":
                return "timeout", detail
        return "survived", ""
    finally:
        with open(path, "w", encoding="utf-8") as f:
            f.write(original)


def report(mutants, results):
    rows = {}
    for m in mutants:
        r = results.get(m.id)
        cat = "equivalent" if m.equivalent else (r["outcome"] if r and r["key"] == m.key() else "not run")
        for group in (m.unit, m.file):
            rows.setdefault(group, {}).setdefault(cat, 0)
            rows[group][cat] += 1
    cols = ["killed", "timeout", "survived", "invalid", "equivalent", "not run"]
    print(f"\n{'unit / file':34} " + " ".join(f"{c:>9}" for c in cols) + "     score")
    lowest = 100.0
    for group in list(UNITS) + sorted(g for g in rows if g not in UNITS):
        if group not in rows:
            continue
        row = rows[group]
        detected = row.get("killed", 0) + row.get("timeout", 0)
        judged = detected + row.get("survived", 0)
        score = 100.0 * detected / judged if judged else 0.0
        if group in UNITS:
            lowest = min(lowest, score)
        label = group if group in UNITS else "  " + group
        print(f"{label:34} " + " ".join(f"{row.get(c, 0):9}" for c in cols) +
              (f"  {score:7.1f}%" if judged else "         -"))
    survivors = [m for m in mutants if not m.equivalent and results.get(m.id, {}).get("outcome") == "survived"
                 and results[m.id]["key"] == m.key()]
    if survivors:
        print("\nsurvivors:")
        for m in survivors:
            print(f"  {m.id} ({m.file}): {m.why}")
            print(f"      {m.survives or 'NO REASON GIVEN: a test should kill it'}")
    for m in mutants:
        r = results.get(m.id, {})
        if m.survives and r.get("outcome") in ("killed", "timeout") and r.get("key") == m.key():
            print(f"  {m.id} is killed now: drop its survives: note")
    invalid = [m for m in mutants if results.get(m.id, {}).get("outcome") == "invalid"]
    for m in invalid:
        print(f"  invalid {m.id}: {results[m.id]['detail']}")
    return lowest


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--list", default=os.path.join(ROOT, "tools", "mutants.txt"))
    ap.add_argument("--work", default=os.path.join(ROOT, "build", "mutate"))
    ap.add_argument("--unit", choices=UNITS, action="append", help="only this unit (repeatable)")
    ap.add_argument("--ids", help="comma-separated mutant ids")
    ap.add_argument("--fresh", action="store_true", help="forget saved results")
    ap.add_argument("--rerun", action="store_true", help="run the selection again even if it has results")
    ap.add_argument("--check-equivalent", action="store_true", help="run the mutants marked equivalent")
    ap.add_argument("--report", action="store_true", help="print the table from saved results only")
    ap.add_argument("--timeout-factor", type=float, default=6.0)
    args = ap.parse_args()

    mutants = load_mutants(args.list)
    src, bld = os.path.join(args.work, "src"), os.path.join(args.work, "build")
    results_path = os.path.join(args.work, "results.json")
    results = {}
    if os.path.exists(results_path) and not args.fresh:
        with open(results_path) as f:
            results = json.load(f)
    if args.report:
        report(mutants, results)
        return 0

    chosen = [m for m in mutants if (not args.unit or m.unit in args.unit)
              and (not args.ids or m.id in args.ids.split(","))
              and (args.check_equivalent == bool(m.equivalent))]
    if args.ids:
        missing = set(args.ids.split(",")) - {m.id for m in mutants}
        if missing:
            sys.exit(f"unknown ids: {', '.join(sorted(missing))}")

    def on_term(signum, frame):
        raise KeyboardInterrupt
    signal.signal(signal.SIGTERM, on_term)

    os.makedirs(args.work, exist_ok=True)
    print(f"syncing {src} and building the unmutated tree ...", flush=True)
    sync_copy(src)
    ok, log = build(src, bld, 3600)
    if not ok:
        print(log[-3000:])
        sys.exit("the unmutated tree does not build")
    limits = {}
    for name in BINARIES:
        start = time.monotonic()
        outcome, detail = run_binary(bld, name, 900)
        if outcome != "pass":
            sys.exit(f"the unmutated tree fails: {detail or name}")
        limits[name] = max(30.0, args.timeout_factor * (time.monotonic() - start))
    print("baseline passes; limits " + ", ".join(f"{k} {v:.0f}s" for k, v in limits.items()), flush=True)

    interrupted = False
    try:
        todo = [m for m in chosen if args.rerun or results.get(m.id, {}).get("key") != m.key()]
        for n, m in enumerate(todo, 1):
            start = time.monotonic()
            outcome, detail = apply_and_test(m, src, bld, limits, 1800)
            if m.equivalent and outcome in ("killed", "timeout"):
                print(f"LIST ERROR: {m.id} is marked equivalent but was {outcome} ({detail})")
            results[m.id] = {"key": m.key(), "outcome": outcome, "detail": detail}
            with open(results_path + ".tmp", "w") as f:
                json.dump(results, f, indent=1, sort_keys=True)
            os.replace(results_path + ".tmp", results_path)
            print(f"[{n}/{len(todo)}] {m.id:32} {outcome:9} {time.monotonic() - start:5.0f}s  {detail}",
                  flush=True)
    except KeyboardInterrupt:
        interrupted = True
        print("interrupted; the source is restored, results so far are kept")
    finally:
        # The copy's sources again equal what was synced (the build directory
        # keeps the last mutant's objects until the next build).
        if not copy_is_clean(src):
            print(run(["git", "status", "--short"], cwd=src).stdout)
            sys.exit("the copy is not clean after the run")

    lowest = report(mutants, results)
    if interrupted:
        return 130
    return 0 if lowest >= 90.0 else 1


if __name__ == "__main__":
    sys.exit(main())
