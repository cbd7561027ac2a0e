"""What the end-to-end scripts share: programs run under the emulator the build names, zfxd
started until its socket takes connections and stopped, and a failure that ends every process
still running and names the script."""
import argparse
import os
import shutil
import signal
import socket
import subprocess
import sys
import time


def setup(*names):
    """The common command line (--NAME for each of names, all required, and --emulator) and a fresh
    work directory: returns the arguments, the store and socket paths in it, and an environment
    naming the socket for zfx."""
    ap = argparse.ArgumentParser()
    for name in names + ("work",):
        ap.add_argument("--" + name, required=True)
    ap.add_argument("--emulator", default="")
    args = ap.parse_args()
    shutil.rmtree(args.work, ignore_errors=True)
    os.makedirs(args.work)
    store, sock = os.path.join(args.work, "store"), os.path.join(args.work, "zfxd.sock")
    return args, store, sock, dict(os.environ, ZFXD_SOCKET=sock)


class Harness:
    def __init__(self, title, emulator="", env=None, cleanup=None):
        self.title = title
        self.emu = emulator.split() if emulator else []
        self.env = env
        self.cleanup = cleanup  # called before a failure exits
        self.running = []  # processes to end whatever happens

    def fail(self, what):
        for p in self.running:
            p.kill()
        if self.cleanup:
            self.cleanup()
        sys.exit(f"{self.title}: {what}")

    def run(self, prog, *argv, rc=0, timeout=300):
        """Runs prog to its end; an exit other than rc (None: any) fails the script."""
        p = subprocess.run(self.emu + [prog, *argv], capture_output=True, text=True, env=self.env, timeout=timeout)
        if rc is not None and p.returncode != rc:
            self.fail(f"{os.path.basename(prog)} {' '.join(argv)}: exit {p.returncode}, expected {rc}\n"
                      f"stdout: {p.stdout[-2000:]}\nstderr: {p.stderr[-2000:]}")
        return p

    def popen(self, argv, **kw):
        p = subprocess.Popen(self.emu + argv, env=self.env, **kw)
        self.running.append(p)
        return p

    def start_zfxd(self, zfxd, store, sock, log_path, *more):
        """zfxd on store, serving sock, logging to log_path, once a connection to it succeeds."""
        log = open(log_path, "a")
        p = self.popen([zfxd, "--store", store, "--socket", sock, *more], stdout=log, stderr=log)
        for _ in range(1200):
            if os.path.exists(sock):
                try:
                    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
                        s.connect(sock)
                    return p
                except OSError:
                    pass
            if p.poll() is not None:
                self.fail(f"zfxd exited with {p.returncode} at start; log:\n" + open(log_path).read()[-3000:])
            time.sleep(0.02)
        self.fail("zfxd did not start listening")

    def stop(self, p, sig=signal.SIGTERM):
        """Ends p with sig; a zfxd asked to stop must exit 0."""
        p.send_signal(sig)
        rc = p.wait(timeout=60)
        self.running.remove(p)
        if sig == signal.SIGTERM and rc != 0:
            self.fail(f"zfxd stopped with exit {rc}")
