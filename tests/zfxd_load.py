#!/usr/bin/env python3
"""zfxd under load, killed, and read while it writes, between real programs. zfx-load's log of
every change and its outcome is replayed here, client by client, into the database the service
should hold (each client owns its objects, so the replay is exact), and compared with what
zfx-gen prints, what the zfx queries answer and what zfx-store dump shows.

  --part load   C clients x R changes; afterwards text, queries and store hold exactly the
                acknowledged changes, also after a SIGKILL and restart
  --part crash  zfxd killed with SIGKILL at seeded random moments while the load runs, restarted on
                the same store each time: every acknowledged change is there, the one change
                each client had unanswered is there or not, the store is consistent, its text
                loads back to the same text
  --part reads  zfx-gen run again and again while the load writes: every text it prints is, for
                every client, the state after a whole number of that client's changes

usage: zfxd_load.py --part P --bin-zfxd P --bin-load P --bin-zfx P --bin-gen P --bin-store P --work DIR
                    [--clients C] [--requests R] [--kills K] [--emulator CMD]
"""
import argparse
import os
import random
import shutil
import signal
import subprocess
import tempfile
import time

import e2e

ap = argparse.ArgumentParser()
ap.add_argument("--part", choices=("load", "crash", "reads"), required=True)
for name in ("bin-zfxd", "bin-load", "bin-zfx", "bin-gen", "bin-store", "work"):
    ap.add_argument("--" + name, required=True)
ap.add_argument("--clients", type=int, default=8)
ap.add_argument("--requests", type=int, default=500)
ap.add_argument("--kills", type=int, default=20)
ap.add_argument("--seed", type=int, default=7)
ap.add_argument("--emulator", default="")
args = ap.parse_args()
shutil.rmtree(args.work, ignore_errors=True)
os.makedirs(args.work)
# The store and socket on a memory file system when there is one: what is checked is what a
# transaction holds, not how fast a disk syncs, and the CI budget is small.
shm = "/dev/shm" if os.path.isdir("/dev/shm") and os.access("/dev/shm", os.W_OK) else None
scratch = tempfile.mkdtemp(prefix="zfxd-load-", dir=shm)
store, sock = os.path.join(scratch, "store"), os.path.join(scratch, "zfxd.sock")
h = e2e.Harness(f"zfxd {args.part}", args.emulator, cleanup=lambda: shutil.rmtree(scratch, ignore_errors=True))
fail, run, stop, running = h.fail, h.run, h.stop, h.running


def start():
    return h.start_zfxd(args.bin_zfxd, store, sock, os.path.join(args.work, "zfxd.log"))


def load(tag, clients, requests, seed):
    log = os.path.join(args.work, f"load-{tag or 'run'}.log")
    p = h.popen([args.bin_load, "--socket", sock, "--clients", str(clients), "--requests", str(requests),
                 "--seed", str(seed), "--log", log] + (["--tag", tag] if tag else []),
                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    return p, log


def finish(p):
    out, err = p.communicate(timeout=600)
    running.remove(p)
    return p.returncode, out, err


# ---- the model: a client's objects after its changes ----------------------------------------

class Client:
    def __init__(self):
        self.zones = {}   # name -> [qos, read_only, set of (wwn, vsan)]
        self.sets = {}    # name -> set of zone names
        self.active = None  # (set, zones at activation) of this client's last activation

    def apply(self, change):
        op, a = change[0], change[1:]
        if op == "zone-create":
            self.zones[a[0]] = [a[1], a[2] == "ro", set()]
        elif op == "member-add":
            self.zones[a[0]][2].add((a[1], a[2]))
        elif op == "member-remove":
            self.zones[a[0]][2].remove((a[1], a[2]))
        elif op == "zone-qos":
            self.zones[a[0]][0] = a[1]
        elif op == "zoneset-create":
            self.sets[a[0]] = set()
        elif op == "zoneset-add":
            self.sets[a[0]].update(a[1:])
        elif op == "activate":
            self.active = (a[0], frozenset(self.sets[a[0]]))
        else:
            fail("an unknown change in the log: " + " ".join(change))

    def sizes(self):
        """sizes() of state(), counted without building it."""
        return len(self.zones), sum(len(z[2]) for z in self.zones.values()), len(self.sets), sum(len(z) for z in self.sets.values())

    def state(self):
        """What the configuration text shows of the client's objects."""
        return (frozenset((n, q, r, frozenset(m)) for n, (q, r, m) in self.zones.items()),
                frozenset((n, frozenset(z)) for n, z in self.sets.items()))


def read_log(path):
    """client -> (acknowledged changes, the unanswered one or None); a refusal fails."""
    out = {}
    for line in open(path):
        w = line.split()
        acked, pending = out.setdefault(w[0], ([], [None]))
        if pending[0] is not None:
            fail(f"{path}: client {w[0]} went on after an unanswered change")
        if w[2] == "ok":
            acked.append(w[3:])
        elif w[2] == "unanswered":
            pending[0] = w[3:]
        else:
            fail(f"{path}: a change was refused: {line.strip()}")
    return {c: (a, p[0]) for c, (a, p) in out.items()}


def replay(changes):
    c = Client()
    for ch in changes:
        c.apply(ch)
    return c


# ---- what the programs show -----------------------------------------------------------------

def owner(name):
    return name.split("-", 1)[0]


def parse(text):
    """The per-client objects in zfx-gen's text or zfx zone/zoneset show's answers, and the
    active zoneset's name (the text's activate line)."""
    zones, sets, active, cur = {}, {}, None, None
    for line in text.splitlines():
        w = line.split()
        if w[:1] == ["zfx"]:
            w = w[1:]
        if not w:
            continue
        if w[:2] == ["zone", "name"]:
            cur = zones.setdefault(owner(w[2]), {})[w[2]] = ["none", False, set()]
        elif w[:2] == ["zoneset", "name"]:
            cur = sets.setdefault(owner(w[2]), {})[w[2]] = set()
        elif w[:3] == ["zoneset", "activate", "name"]:
            active = w[3]
        elif line.startswith("  attribute qos priority"):
            cur[0] = w[3]
        elif line.startswith("  attribute read-only"):
            cur[1] = True
        elif line.startswith("  member pwwn"):
            cur[2].add((w[2], w[w.index("vsan") + 1]))
        elif line.startswith("  member ") and isinstance(cur, set):
            cur.add(w[1])
        elif not line.startswith(("feature zfx", "logging", "zfx ")):
            fail("a line that the check does not know: " + line)
    states = {}
    for o in set(zones) | set(sets):
        c = Client()
        c.zones, c.sets = zones.get(o, {}), sets.get(o, {})
        states[o] = c.state()
    return states, active


EMPTY = Client().state()


def sizes(state):
    zones, sets = state
    return len(zones), sum(len(z[3]) for z in zones), len(sets), sum(len(z) for _, z in sets)


def ranges(text):
    ids = set()
    if text != "none":
        for part in text.split(","):
            lo, _, hi = part.partition("-")
            ids.update(range(int(lo), int(hi or lo) + 1))
    return ids


def check_store():
    """The zone database is whole: every member belongs to a zone that exists and is in its
    zone's bitmap, the header's bitmaps are the zones and zonesets there are, every zone a
    zoneset names exists, the active zoneset data is all there; the text loads back alike."""
    dump = run(args.bin_store, "dump", store).stdout
    zones, members, sets, header, total, chunks = {}, {}, {}, None, None, 0
    for line in dump.splitlines():
        w = line.split()
        if w[0] == "zone":
            zones[int(w[1])] = ranges(w[w.index("members") + 1])
        elif w[0] == "zone-member":
            members.setdefault(int(w[4].rstrip(":")), set()).add(int(w[1]))
        elif w[0] == "zoneset":
            sets[int(w[1])] = ranges(w[w.index("zones") + 1]) if "zones" in w else set()
        elif w[0] == "zone-database-header":
            header = (ranges(w[2]), ranges(w[4]), ranges(w[6]))
        elif w[:2] == ["active-zoneset-data", "total"]:
            total = int(w[2])
        elif w[:2] == ["active-zoneset-data", "chunk"]:
            chunks += int(w[3])
    for z, ids in members.items():
        if z not in zones:
            fail(f"members of zone {z}, which does not exist")
    for z, ids in zones.items():
        if ids != members.get(z, set()):
            fail(f"zone {z}'s member bitmap {sorted(ids)} is not its member records {sorted(members.get(z, set()))}")
    # The header's short zone bitmap holds the first 251 bytes of the full one: ids 1 to 2007.
    if (zones or sets) and (header is None or header != (set(sets), set(zones), {z for z in zones if z <= 2007})):
        fail(f"the header's bitmaps do not hold the {len(sets)} zonesets and {len(zones)} zones there are")
    for s, ids in sets.items():
        if not ids <= set(zones):
            fail(f"zoneset {s} names zones that do not exist: {sorted(ids - set(zones))}")
    if total is not None and total != chunks:
        fail(f"the active zoneset data holds {chunks} of its {total} bytes")
    text = run(args.bin_gen, "--prefix", store).stdout
    again = os.path.join(scratch, "again")
    shutil.rmtree(again, ignore_errors=True)
    path = os.path.join(scratch, "text.txt")
    with open(path, "w") as f:
        f.write(text)
    run(args.bin_store, "load", path, again)
    if run(args.bin_gen, "--prefix", again).stdout != text:
        fail("the text loaded back generates another text")
    return text


def zfx(*argv):
    return run(args.bin_zfx, "--socket", sock, *argv).stdout


def active_zones():
    out = zfx("show", "active-zoneset").splitlines()
    if out[0] == "no active zoneset":
        return None
    return out[0].split()[2], frozenset(line.split()[1] for line in out[1:])


def compare(seen, expected, what):
    for o in sorted(set(seen) | set(expected)):
        if seen.get(o, EMPTY) != expected.get(o, EMPTY):
            fail(f"{what}: client {o} holds\n  {sorted(seen.get(o, EMPTY)[0])[:5]}...\nnot\n  {sorted(expected.get(o, EMPTY)[0])[:5]}...")


# ---- the parts ------------------------------------------------------------------------------

def part_load():
    if run(args.bin_load, "--help").stdout.count("--clients") == 0 or "--clients" not in run(args.bin_load, "--clients", "0", rc=2).stderr:
        fail("zfx-load's --help, or its refusal of a bad count")
    zfxd = start()
    p, log = load("", args.clients, args.requests, args.seed)
    rc, out, err = finish(p)
    if rc != 0:
        fail(f"zfx-load exit {rc}:\n{out}{err}")
    print(out, end="")
    clients = {c: replay(a) for c, (a, pending) in read_log(log).items()}
    if sum(len(a) for a, _ in read_log(log).values()) != args.clients * args.requests:
        fail("the log does not hold every change")
    expected = {c: m.state() for c, m in clients.items()}
    active = clients["c0"].active if "c0" in clients else None
    for how in (None, signal.SIGKILL):
        if how:
            stop(zfxd, how)
            zfxd = start()
        text = check_store()
        seen, name = parse(text)
        compare(seen, expected, "zfx-gen's text")
        if name != (active[0] if active else None):
            fail(f"the text activates {name}, the log {active}")
        compare(parse(zfx("zone", "show") + zfx("zoneset", "show"))[0], expected, "the queries")
        if active_zones() != active:
            fail(f"the active zoneset is {active_zones()}, the log's {active}")
    stop(zfxd, signal.SIGTERM)


def part_crash():
    rng = random.Random(args.seed)
    zfxd = start()
    rounds = []  # per round: client -> [candidate Client models]
    actives = {None}  # what the active zoneset may be: (name, zones) or None
    in_flight = applied = 0  # changes unanswered at a kill, and those of them the store holds
    for k in range(args.kills):
        tag = f"r{k}"
        p, log = load(tag, args.clients, 1000000, args.seed + k)
        # Let it run a while first, so that zfxd dies in the middle of the changes.
        time.sleep(rng.uniform(0.05, 0.25) * (2 if h.emu else 1))
        if p.poll() is not None:
            fail(f"kill {k + 1}: zfx-load ended before zfxd was killed: {finish(p)[2]}")
        stop(zfxd, signal.SIGKILL)
        finish(p)
        zfxd = start()
        text = check_store()
        round_ = {}
        # Each client: its acknowledged changes, and perhaps the one unanswered.
        for c, (acked, pending) in read_log(log).items() if os.path.exists(log) else []:
            done = replay(acked)
            cands = [done]
            if pending is not None:
                cands.append(replay(acked + [pending]))
            round_[c] = cands
        rounds.append(round_)
        seen, name = parse(text)
        for r in rounds:
            for c, cands in r.items():
                match = [m for m in cands if m.state() == seen.get(c, EMPTY)]
                if not match:
                    fail(f"after kill {k + 1}: client {c}'s objects are neither its acknowledged changes nor those and "
                         f"its unanswered one:\n  seen {sorted(seen.get(c, EMPTY)[1])[:3]}\n  acked {sorted(cands[0].state()[1])[:3]}")
                if len(cands) == 2 and r is round_:
                    applied += match[0] is cands[1]
                r[c] = match[:1]  # the store has decided; later rounds leave these objects alone
        # The active zoneset: client 0's last acknowledged activation, else what it was; its
        # unanswered activation may have happened too.
        c0 = round_.get(tag + "c0")
        if c0 is not None:
            acked_model = c0[0]
            if acked_model.active is not None:
                actives = {acked_model.active}
            _, pending = read_log(log)[tag + "c0"]
            if pending is not None and pending[0] == "activate":
                actives.add((pending[1], frozenset(acked_model.sets[pending[1]])))
        now = active_zones()
        if now not in actives or name != (now[0] if now else None):
            fail(f"after kill {k + 1}: the active zoneset is {now} (text: {name}), not one of {actives}")
        actives = {now}
        in_flight += sum(1 for _, pending in read_log(log).values() if pending is not None)
        zones = sum(len(m[0].zones) for r in rounds for m in r.values())
        print(f"kill {k + 1}: {len(round_)} clients, {zones} zones so far, {in_flight} changes unanswered at kills so far, "
              f"{applied} of them made")
    stop(zfxd, signal.SIGTERM)


def part_reads():
    zfxd = start()
    p, log = load("", args.clients, args.requests, args.seed)
    texts = []
    while p.poll() is None:
        texts.append(run(args.bin_gen, "--prefix", store).stdout)
    rc, out, err = finish(p)
    if rc != 0:
        fail(f"zfx-load exit {rc}:\n{out}{err}")
    if len(texts) < 3:
        fail(f"only {len(texts)} texts were read while the load ran: give it more requests")
    # Each text is, for every client, the state after some number of its changes, a number that
    # does not go down from one text to the next (they were read one after the other). The
    # client's model goes forward until it matches; the sizes tell quickly where it cannot.
    logs, seen = read_log(log), [parse(t) for t in texts]
    for i, (states, _) in enumerate(seen):
        if set(states) - set(logs):
            fail(f"text {i}: objects of no client: {sorted(set(states) - set(logs))}")
    for c, (acked, _) in logs.items():
        m, k = Client(), 0
        for i, (states, name) in enumerate(seen):
            want = states.get(c, EMPTY)
            while not (m.sizes() == sizes(want) and m.state() == want and
                       (c != "c0" or (m.active[0] if m.active else None) == name)):
                if k == len(acked):
                    fail(f"text {i}: client {c}'s objects are not what any whole number of its changes made "
                         "(after what the text before showed)")
                m.apply(acked[k])
                k += 1
    stop(zfxd, signal.SIGTERM)
    print(f"{len(texts)} texts read during {args.clients} x {args.requests} changes, each one whole")


try:
    {"load": part_load, "crash": part_crash, "reads": part_reads}[args.part]()
finally:  # an unexpected error too leaves no process and no scratch store behind
    for p in running:
        p.kill()
    shutil.rmtree(scratch, ignore_errors=True)
print(f"zfxd {args.part}: passed")
