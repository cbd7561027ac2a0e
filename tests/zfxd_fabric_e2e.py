#!/usr/bin/env python3
"""zfxd serving a fabric description between real programs: a generated fabric of several hundred
devices (more than one batch of the device walk, seeded), on a store whose AFID table gives AFID 5
its VSANs; every fabric command of zfx checked against what the file says, the expected text
computed here from the file; malformed fabric files refused with their line.

usage: zfxd_fabric_e2e.py --bin-zfxd P --bin-zfx P --bin-store P --work DIR [--emulator CMD]
"""
import os
import random

import e2e

args, store, sock, env = e2e.setup("bin-zfxd", "bin-zfx", "bin-store")
work = args.work
BATCH = 64  # ZFXD_DEVICE_BATCH
h = e2e.Harness("zfxd fabric end to end", args.emulator, env)
fail, run = h.fail, h.run


# ---- the fabric: the file and the model it describes -------------------------------------------

rng = random.Random(1)
VSANS = [10, 11, 12, 20, 30, 40]
AFID5_VSANS = "10-12,20"  # what the store's AFID table gives AFID 5


def wwn(prefix, n):
    return prefix + ":%02x:%02x:%02x" % (n >> 16, (n >> 8) & 0xFF, n & 0xFF)


devices = []  # dicts, in file order
numbers = rng.sample(range(1, 1 << 20), 300)
for i, n in enumerate(numbers):
    afid = 5 if i % 5 == 0 else 1
    pool = [10, 11, 12, 20] if afid == 5 else VSANS
    vsans = sorted(rng.sample(pool, rng.randint(1, 3)))
    d = {"pwwn": wwn("21:00:00:24:ff", n), "fcid": (rng.randint(1, 30) << 16) | i, "vsans": vsans, "afid": afid,
         "node": wwn("20:00:00:24:ff", n) if i % 3 else "00:00:00:00:00:00:00:00", "name": "host-%d" % i if i % 7 else None}
    if i % 4 == 0:  # values per VSAN, the last of several left without one
        d["values"] = {v: rng.randint(0, 1 << 32 - 1) for v in (vsans[:-1] if len(vsans) > 1 else vsans)}
    else:
        d["value"] = rng.randint(0, 1 << 32 - 1)
    devices.append(d)
native = {10: 1, 11: 0x0b, 20: 239}
proxy = {10: [3, 5, 200], 30: [1]}
hops = {(10, d["fcid"] >> 16): 20 for d in devices[:40]}
hops.update({(20, 7): 10, (30, 8): 40})
nat = {(10, 20, devices[0]["fcid"], devices[1]["fcid"]): (0x140001, 0x140002), (20, 30, 0x010203, 0x040506): (0x1e0001, 0x1e0002)}


def range_text(vs):
    runs, out = [], []
    for v in vs:
        if runs and runs[-1][1] == v - 1:
            runs[-1][1] = v
        else:
            runs.append([v, v])
    for a, b in runs:
        out.append(str(a) if a == b else "%d-%d" % (a, b))
    return ",".join(out)


lines = ["# a generated fabric"]
for d in devices:
    opts = ["fcid 0x%06x" % d["fcid"], "vsans " + range_text(d["vsans"])]
    if d["afid"] != 1 or rng.random() < 0.5:
        opts.append("afid %d" % d["afid"])
    if "values" in d:
        opts.append("per-vsan " + ",".join("%d:%d" % kv for kv in sorted(d["values"].items())))
    elif d["value"] or rng.random() < 0.5:
        opts.append("value %d" % d["value"] if rng.random() < 0.5 else "value 0x%x" % d["value"])
    if d["node"] != "00:00:00:00:00:00:00:00":
        opts.append("node " + d["node"])
    if d["name"]:
        opts.append("name " + d["name"])
    rng.shuffle(opts)
    lines.append(("device %s " % d["pwwn"]) + ("\t" if rng.random() < 0.1 else " ").join(opts))
lines += ["native-domain %d %d" % kv for kv in native.items()]
lines += ["proxy-domains %d %s" % (v, ",".join(map(str, ds))) for v, ds in proxy.items()]
lines += ["next-hop %d %d %d" % (v, d, n) for (v, d), n in hops.items()]
lines += ["nat %d %d 0x%06x 0x%06x 0x%06x 0x%06x" % (k + r) for k, r in nat.items()]
fabric_file = os.path.join(work, "fabric.txt")
with open(fabric_file, "w") as f:
    f.write("\n".join(lines) + "\n")


def table(rows):
    widths = [max(len(r[i]) for r in rows) for i in range(len(rows[0]))]
    return "".join("  ".join(c.ljust(w) for c, w in zip(r, widths)).rstrip() + "\n" for r in rows)


def key(d):
    return bytes.fromhex(d["pwwn"].replace(":", ""))


walk = sorted(devices, key=key)
assert len(walk) > 3 * BATCH


def pairs(d):
    if "values" in d:
        return [(v, d["values"][v]) for v in d["vsans"] if v in d["values"]]
    return [(v, d["value"]) for v in d["vsans"]]


# ---- the store, zfxd, the commands -----------------------------------------------------------

config = os.path.join(work, "afids.txt")
with open(config, "w") as f:
    f.write("autonomous-fabric-id database\n  switch-wwn 20:00:00:aa:00:00:ff:01 autonomous-fabric-id 5 vsan-ranges %s\n" % AFID5_VSANS)
run(args.bin_store, "load", config, store)

zfxd = h.start_zfxd(args.bin_zfxd, store, sock, os.path.join(work, "zfxd.log"), "--fabric", fabric_file)


def check(argv, want, rc=0):
    p = run(args.bin_zfx, *argv, rc=rc)
    got = p.stdout if rc == 0 else p.stderr
    if (got != want) if rc == 0 else (want not in got):
        fail("zfx %s:\n--- got\n%s--- expected\n%s" % (" ".join(argv), got, want))


check(["show", "device"], table([["PWWN", "FCID", "AFID", "VSANS", "VALUE"]] + [
    [d["pwwn"], "0x%06x" % d["fcid"], str(d["afid"]), range_text(d["vsans"]), "per-vsan" if "values" in d else str(d["value"])]
    for d in walk]) + "%d devices\n" % len(walk))
check(["show", "device", "--ns"], table([["PWWN", "FCID", "NODE", "VSAN:VALUE", "NAME"]] + [
    [d["pwwn"], "0x%06x" % d["fcid"], d["node"], ",".join("%d:%d" % p for p in pairs(d)) or "-", d["name"] or "-"]
    for d in walk]) + "%d devices\n" % len(walk))
check(["info", "get", "devices"], "%d\n" % len(walk))

for v in (10, 11, 20, 30):
    if v in native:
        check(["show", "native-domain", str(v)], table([["VSAN", "NATIVE-DOMAIN"], [str(v), "%d (0x%02x)" % (native[v], native[v])]]))
    else:
        check(["show", "native-domain", str(v)], "ZFXD_ERR_NOT_FOUND", rc=1)
    if v in proxy:
        check(["show", "proxy-domains", str(v)], table([["VSAN", "COUNT", "PROXY-DOMAINS"], [str(v), str(len(proxy[v])), ",".join(map(str, proxy[v]))]]))
    else:
        check(["show", "proxy-domains", str(v)], "ZFXD_ERR_NOT_FOUND", rc=1)
    domains = sorted({d["fcid"] >> 16 for d in devices})
    check(["show", "next-hop", str(v)], table([["VSAN", "DESTINATION", "DOMAIN", "NEXT-HOP"]] + [
        [str(v), "0x%06x" % (dom << 16), str(dom), str(hops[(v, dom)]) if (v, dom) in hops else "-"] for dom in domains]))
check(["show", "next-hop", "20", "0x070001", "0x080001"], table([["VSAN", "DESTINATION", "DOMAIN", "NEXT-HOP"], ["20", "0x070001", "7", "10"],
                                                              ["20", "0x080001", "8", "-"]]))
for (v, nv, sid, did), (nsid, ndid) in nat.items():
    check(["show", "nat", "next-hop", str(v), str(nv), "0x%06x" % sid, "0x%06x" % did],
          table([["VSAN", "SID", "DID", "NEXT-VSAN", "NAT-SID", "NAT-DID"],
                 [str(v), "0x%06x" % sid, "0x%06x" % did, str(nv), "0x%06x" % nsid, "0x%06x" % ndid]]))
    check(["show", "nat", "next-hop", str(nv), str(v), "0x%06x" % sid, "0x%06x" % did], "ZFXD_ERR_NOT_FOUND", rc=1)
for d in walk[::37] + walk[-1:]:
    check(["ns", "get", d["pwwn"]], table([["PWWN", "FCID", "NODE", "CLASS", "TYPE", "NAME"],
                                          [d["pwwn"], "0x%06x" % d["fcid"], d["node"], "3", "1", d["name"] or "-"]]))
    outside = next(v for v in VSANS if v not in d["vsans"])
    check(["ns", "get", d["pwwn"], "--vsan", str(outside)], "DIR_ERR_NOT_FOUND", rc=1)
h.stop(zfxd)

# ---- malformed fabric files: each refused at start with its line -------------------------------

good = "# fine\ndevice 21:00:00:00:00:00:00:01 fcid 0x010001 vsans 10\n"
bad = [
    ("devise 21:00:00:00:00:00:00:02 fcid 0x010002 vsans 10", "unknown statement 'devise'"),
    ("device 21:00:00:00:00:00:00:02 fcid 0x010002", "a device needs fcid FCID and vsans RANGES"),
    ("device 21:00:00:00:00:00:00:01 fcid 0x010002 vsans 10", "the device 21:00:00:00:00:00:00:01 is given twice (first on line 2)"),
    ("device 21:00:00:00:00:00:00:02 fcid 0x010001 vsans 10", "the FCID 0x010001 is given twice (first on line 2)"),
    ("device 21:00:00:00:00:00:00:02 fcid 0xf00001 vsans 10", "FCID 0xf00001 has domain 240 (1 to 239)"),
    ("device 21:00:00:00:00:00:02 fcid 0x010002 vsans 10", "malformed WWN '21:00:00:00:00:00:02'"),
    ("device 21:00:00:00:00:00:00:02 fcid 0x010002 vsans 10-4096", "VSAN 4096 is out of range (at most 4095)"),
    ("device 21:00:00:00:00:00:00:02 fcid 0x010002 vsans 10 per-vsan 11:4", "a per-VSAN value for VSAN 11, which is not among the device's VSANs"),
    ("device 21:00:00:00:00:00:00:02 fcid 0x010002 vsans 10 value 1 per-vsan 10:4", "a device has a value or per-vsan values, not both"),
    ("device 21:00:00:00:00:00:00:02 fcid 0x010002 vsans 10 afid 7",
     "autonomous fabric ID 7 is in neither the store's VSAN topology nor its AFID table"),
    ("device 21:00:00:00:00:00:00:02 fcid 0x010002 vsans 30 afid 5",
     "VSAN 30 is not among the VSANs the store gives autonomous fabric ID 5 (10-12,20)"),
    ("device 21:00:00:00:00:00:00:02 fcid 0x010002 vsans 10 colour red", "unknown device option 'colour'"),
    ("native-domain 10 240", "domain 240 is out of range (1 to 239)"),
    ("proxy-domains 10 3,,4", "malformed domain list '3,,4'"),
    ("next-hop 10 3 10", "the next hop of VSAN 10 is VSAN 10 itself"),
    ("nat 10 20 0x010001 0x020001 0x030001", "expected 'nat VSAN NEXT-VSAN SID DID NEW-SID NEW-DID'"),
]
path = os.path.join(work, "bad.txt")
for line, message in bad:
    with open(path, "w") as f:
        f.write(good + line + "\n")
    p = run(args.bin_zfxd, "--store", store, "--socket", sock, "--fabric", path, rc=1)
    want = "zfxd: %s:3: %s" % (path, message)
    if not p.stderr.startswith(want) or p.stderr.count("\n") != 1:
        fail("the fabric line %r:\n  got      %r\n  expected %r..." % (line, p.stderr, want))
missing = run(args.bin_zfxd, "--store", store, "--socket", sock, "--fabric", path + ".none", rc=1)
if "cannot read the file" not in missing.stderr:
    fail("a missing fabric file: " + missing.stderr)
print("zfxd fabric end to end: passed")
