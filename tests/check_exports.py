#!/usr/bin/env python3
"""Checks that libzfx exports exactly the names its headers declare with ZFX_API.

Usage: check_exports.py LIBRARY INCLUDE_DIR [EXTRA_HEADER...]
The extra headers are test-build hooks whose names a test build also exports."""
import re
import subprocess
import sys
from pathlib import Path

lib, include_dir = sys.argv[1], Path(sys.argv[2])
headers = sorted(include_dir.glob("*.h")) + [Path(p) for p in sys.argv[3:]]

declared = set()
for header in headers:
    for line in header.read_text().splitlines():
        if "ZFX_API" not in line or line.lstrip().startswith(("#", "/*", "*")):
            continue
        m = re.search(r"\b([A-Za-z_][A-Za-z0-9_]*)\s*(\(|\[|;)", line)
        if m:
            declared.add(m.group(1))

out = subprocess.run(["nm", "-D", "--defined-only", lib], capture_output=True, text=True, check=True).stdout
exported = set()
for line in out.splitlines():
    parts = line.split()
    if len(parts) == 3 and parts[1].isupper():
        name = parts[2].split("@")[0]
        # Linker and sanitizer bookkeeping symbols are not names of the library.
        if name in ("_init", "_fini", "_edata", "_end", "__bss_start") or name.startswith("__odr_asan"):
            continue
        if True:
            exported.add(name)

extra = sorted(exported - declared)
missing = sorted(declared - exported)
for name in extra:
    print(f"exported but not declared with ZFX_API: {name}")
for name in missing:
    print(f"declared with ZFX_API but not exported: {name}")
print(f"{len(exported)} exported names, {len(declared)} declared")
sys.exit(1 if extra or missing else 0)
