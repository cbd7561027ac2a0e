#!/usr/bin/env python3
"""The whole loop between real programs: zfxd on an empty store, a script of zfx commands that
builds zonesets, zones with members of all four kinds, attributes and a forced activation, then
zfx-gen's text equal to the golden one and the query commands' answers equal to theirs; zfxd
stopped and started again (and killed and started again), with the text and the answers unchanged;
the text loaded into a fresh store by zfx-store giving the same text again; a second zfxd kept off
the store and the socket; the socket its owner's only.

usage: zfxd_e2e.py --bin-zfxd P --bin-zfx P --bin-gen P --bin-store P --golden DIR --work DIR [--emulator CMD]
"""
import os
import signal
import stat

import e2e

args, store, sock, env = e2e.setup("bin-zfxd", "bin-zfx", "bin-gen", "bin-store", "golden")
work = args.work


h = e2e.Harness("zfxd end to end", args.emulator, env)
fail, run, stop = h.fail, h.run, h.stop


def start(store_dir=store, socket=sock):
    return h.start_zfxd(args.bin_zfxd, store_dir, socket, os.path.join(work, "zfxd.log"))


def golden(name):
    with open(os.path.join(args.golden, name)) as f:
        return f.read()


def zfx(*argv):
    return run(args.bin_zfx, *argv).stdout


def answers():
    """What the query commands print, for comparing before and after a restart."""
    out = ""
    for q in (("zone", "show"), ("zoneset", "show"), ("show", "active-zoneset"), ("zone", "member", "show", "db"),
              ("info", "get", "zones"), ("info", "get", "members"),
              ("info", "get", "default-zone"), ("info", "get", "check-ignore")):
        out += "$ zfx " + " ".join(q) + "\n" + zfx(*q)
    return out


zfxd = start()
if stat.S_IMODE(os.stat(sock).st_mode) != 0o600:
    fail("the socket is not its owner's only: %o" % stat.S_IMODE(os.stat(sock).st_mode))
script = [
    "zone create web --qos high",
    "zone create db --read-only",
    "zone create backup",
    "zone member add web --pwwn 21:00:00:24:ff:01:02:03 --vsan 10",
    "zone member add web --device-alias host-a --vsan 10 --afid 5",
    "zone member add db --pwwn 50:06:01:60:3b:20:11:4a --lun 0x0001 --vsan 20",
    "zone member add db --device-alias array-b --lun 0x0001-0002 --vsan 20 --afid 7",
    "zone member add backup --pwwn 50:06:01:60:3b:20:11:4b --vsan 30 --id 9",
    "zone member add backup --pwwn 50:06:01:60:3b:20:11:4c --vsan 30",
    "zone member remove backup --pwwn 50:06:01:60:3b:20:11:4c --vsan 30",
    "zone attribute web --qos low",
    "zoneset create prod",
    "zoneset add prod web db",
    "zoneset create lab --id 5",
    "zoneset add lab backup db",
    "zoneset remove lab db",
    "check-ignore on",
    "info set default-zone 1",
    "zoneset activate prod --force",
]
for line in script:
    zfx(*line.split())
refused = run(args.bin_zfx, "zone", "create", "web", rc=1)
if "ZFXD_ERR_EXISTS" not in refused.stderr:
    fail("a refused create does not name its status: " + refused.stderr)

text = run(args.bin_gen, "--prefix", store).stdout
if text != golden("zfxd_e2e.txt"):
    fail("zfx-gen's text differs from tests/golden/zfxd_e2e.txt:\n" + text)
before = answers()
if before != golden("zfxd_e2e_answers.txt"):
    fail("the query commands' answers differ from tests/golden/zfxd_e2e_answers.txt:\n" + before)
if not zfx("status", "--vsan", "10").startswith("zfx is enabled\nprotocol version 1\n"):
    fail("the status: " + zfx("status"))
if zfx("info", "get", "activate-time").strip() in ("", "none"):
    fail("no activation time after an activation")

dump = run(args.bin_store, "dump", store).stdout
if 'zfxd info 32 = "1"' not in dump or "zfxd activation-time " not in dump or "unknown or malformed" in dump:
    fail("zfx-store dump does not show zfxd's records:\n" + dump)

# One zfxd per store and per socket.
second = run(args.bin_zfxd, "--store", store, "--socket", os.path.join(work, "other.sock"), rc=1)
if "another zfxd serves this store" not in second.stderr:
    fail("a second zfxd on the store: " + second.stderr)
second = run(args.bin_zfxd, "--store", os.path.join(work, "other"), "--socket", sock, rc=1)
if "another zfxd is serving this socket" not in second.stderr:
    fail("a second zfxd on the socket: " + second.stderr)

# A restart, then a kill and a restart on the socket the dead zfxd left: nothing is lost.
for how in (signal.SIGTERM, signal.SIGKILL):
    stop(zfxd, how)
    zfxd = start()
    if run(args.bin_gen, "--prefix", store).stdout != text:
        fail("the text changed across a restart")
    if answers() != before:
        fail("the answers changed across a restart:\n" + answers())
stop(zfxd)

# The text loads into a fresh store that generates it again.
loaded = os.path.join(work, "loaded")
with open(os.path.join(work, "text.txt"), "w") as f:
    f.write(text)
run(args.bin_store, "load", os.path.join(work, "text.txt"), loaded)
if run(args.bin_gen, "--prefix", loaded).stdout != text:
    fail("the loaded text generates another text")
print("zfxd end to end: passed")
