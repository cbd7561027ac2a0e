#!/usr/bin/env python3
"""Damaged stores never kill the tools with a signal.

Usage: damaged_store.py STORE GEN WORK [EMULATOR]
STORE and GEN are zfx-store and zfx-gen; EMULATOR (empty, or a ';'-separated command) runs them.

Writes the demo stores, then for each case damages a copy of one store's data file, XOR-ing
bytes at offsets drawn from a seeded generator, and runs zfx-gen, zfx-store dump and a
zfx-store demo --replace over it. Each must either succeed with nothing on standard error, or
exit 1 with "NAME: the store LOCATION is damaged or unreadable" as the last line of standard
error (LMDB may have printed one of its assertions before it) and no sanitizer report.
"""
import random
import shutil
import subprocess
import sys
from pathlib import Path

store, gen, work = sys.argv[1], sys.argv[2], Path(sys.argv[3])
emulator = [a for a in (sys.argv[4] if len(sys.argv) > 4 else "").split(";") if a]

# (store, seed, bytes flipped, first offset). Two hundred bytes anywhere in the 12-page demo file
# reach every way a read ends (on x86_64, for the demo of today: seed 0 a fault past the file,
# 1 a page LMDB refuses, 2 keys out of order, 9 a header that does not open, 18 a fault outside
# the map); a few bytes past the two header pages often go unnoticed.
CASES = [("zfx_startup_config", seed, 200, 0) for seed in (0, 1, 2, 6, 9, 18)] + [
    ("zfx_debug", 8, 200, 0),
    ("zfx_debug", 12, 200, 0),
    ("zfx_startup_config", 0, 8, 8192),
    ("zfx_startup_config", 1, 8, 8192),
]

failures = []


def run(args):
    return subprocess.run(emulator + args, capture_output=True, text=True, errors="replace")


def check(name, args, location):
    r = run(args)
    lines = r.stderr.splitlines()
    expected = f"{name}: the store {location} is damaged or unreadable"
    if r.returncode == 0 and not r.stderr:
        return
    if r.returncode == 1 and lines and lines[-1] == expected and "Sanitizer" not in r.stderr:
        return
    failures.append(f"{' '.join(args)}: exit {r.returncode}\n{r.stderr}")


shutil.rmtree(work, ignore_errors=True)
work.mkdir(parents=True)
clean = work / "clean"
if run([store, "demo", str(clean)]).returncode != 0:
    sys.exit("zfx-store demo failed")

for which, seed, count, first in CASES:
    case = work / f"{which}-{seed}-{count}"
    shutil.copytree(clean, case)
    data = case / which / "data.mdb"
    raw = bytearray(data.read_bytes())
    rng = random.Random(seed)
    for _ in range(count):
        raw[rng.randrange(first, len(raw))] ^= rng.randrange(1, 256)
    data.write_bytes(raw)
    location = str(case / which)
    check("zfx-gen", [gen, "--prefix", str(case)], location)
    check("zfx-store", [store, "dump", str(case)], location)
    check("zfx-store", [store, "demo", str(case), "--replace"], location)

if failures:
    sys.exit("\n".join(failures))
