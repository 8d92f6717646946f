#!/usr/bin/env python3
"""The Debian package: built with CPack from this build directory, unpacked into a scratch root
(dpkg -x: the machine's own system is never changed), its file list and control data checked,
its units verified with `systemd-analyze verify`, its dependencies resolved by apt in
simulation, and the unpacked programs started with the unpacked configuration.

  package_test.py --build BUILD_DIR

Exits 77 (skipped) when dpkg-deb, cpack or systemd-analyze is missing.
"""
import argparse
import glob
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

SKIP = 77


def run(*cmd, check=True, **kw):
    r = subprocess.run(list(cmd), text=True, capture_output=True, timeout=600, **kw)
    if check and r.returncode != 0:
        raise RuntimeError(f"{' '.join(cmd)}: exit {r.returncode}\n{r.stdout}\n{r.stderr}")
    return r


class Checks:
    def __init__(self):
        self.failures = []

    def __call__(self, ok, what):
        print(("ok   " if ok else "FAIL ") + what, flush=True)
        if not ok:
            self.failures.append(what)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", required=True)
    args = ap.parse_args()
    for tool in ("cpack", "dpkg-deb", "systemd-analyze"):
        if not shutil.which(tool):
            print(f"SKIP: {tool} is not installed")
            return SKIP
    check = Checks()
    out = tempfile.mkdtemp(prefix="fspkg")
    try:
        run("cpack", "-G", "DEB", "-B", out, cwd=args.build)
        debs = glob.glob(os.path.join(out, "flowspecd_*.deb"))
        check(len(debs) == 1, f"cpack made one flowspecd .deb ({debs})")
        deb = debs[0]
        print(f"info {os.path.basename(deb)}: {os.path.getsize(deb)} bytes")

        files = {line.split()[-1].lstrip(".") for line in run("dpkg-deb", "-c", deb).stdout.splitlines()}
        wanted = ["/usr/sbin/flowspecd", "/usr/sbin/flowspec-fwd", "/usr/bin/flowspec",
                  "/usr/lib/flowspecd/libBgpFlowspec.so", "/usr/lib/systemd/system/flowspecd.service",
                  "/usr/lib/systemd/system/flowspec-fwd.service", "/etc/flowspecd/flowspecd.toml",
                  "/etc/default/flowspec-fwd", "/usr/lib/sysusers.d/flowspecd.conf",
                  "/usr/share/man/man8/flowspecd.8", "/usr/share/man/man8/flowspec.8",
                  "/usr/share/man/man8/flowspec-fwd.8", "/usr/share/man/man5/flowspecd.toml.5"]
        for f in wanted:
            check(f in files, f"the package holds {f}")
        check(not any("fsib-writer" in f or "Test" in f for f in files), "no test program in the package")

        control = run("dpkg-deb", "-f", deb).stdout
        depends = next((l for l in control.splitlines() if l.startswith("Depends:")), "")
        print("info " + depends)
        for lib in ("libc6", "libstdc++6", "systemd"):
            check(lib in depends, f"Depends names {lib}")
        conffiles = run("dpkg-deb", "-I", deb, "conffiles").stdout.split()
        check(sorted(conffiles) == ["/etc/default/flowspec-fwd", "/etc/flowspecd/flowspecd.toml"],
              f"the configuration files are conffiles ({conffiles})")
        # Every dependency resolves on this Debian, as `apt-get install ./deb` would (simulated).
        sim = run("apt-get", "install", "--simulate", "-q", deb, check=False)
        check(sim.returncode == 0, "apt-get resolves the package's dependencies (simulated): "
              + (sim.stderr.strip().splitlines() or ["ok"])[-1])

        root = os.path.join(out, "root")
        run("dpkg-deb", "-x", deb, root)
        # The units as shipped, their programs pointed at the unpacked ones (verify checks that
        # each command exists and is executable; nothing is installed on this machine).
        units = []
        for u in ("flowspecd.service", "flowspec-fwd.service"):
            with open(os.path.join(root, "usr/lib/systemd/system", u)) as f:
                text = f.read().replace("/usr/sbin/", os.path.join(root, "usr/sbin") + "/")
            units.append(os.path.join(out, u))
            with open(units[-1], "w") as f:
                f.write(text)
        # Documentation= is checked too: man finds the pages in the unpacked tree.
        v = run("systemd-analyze", "verify", *units, check=False,
                env=dict(os.environ, MANPATH=os.path.join(root, "usr/share/man")))
        check(v.returncode == 0 and v.stderr.strip() == "", f"systemd-analyze verify passes the units "
              f"({(v.stdout + v.stderr).strip()})")

        sbin, bin_ = os.path.join(root, "usr/sbin"), os.path.join(root, "usr/bin")
        for prog in (f"{sbin}/flowspecd", f"{sbin}/flowspec-fwd", f"{bin_}/flowspec"):
            r = run(prog, "--version", check=False)
            name = os.path.basename(prog)
            check(r.returncode == 0 and r.stdout.startswith(name + " ") and "(" in r.stdout,
                  f"{name} --version: {r.stdout.strip() or r.stderr.strip()}")
        # The installed configuration, as shipped, is valid with the installed plugin.
        conf = os.path.join(root, "etc/flowspecd/flowspecd.toml")
        plugin = os.path.join(root, "usr/lib/flowspecd/libBgpFlowspec.so")
        r = run(f"{sbin}/flowspecd", "--check", conf, "--plugin", plugin, check=False)
        check(r.returncode == 0, f"flowspecd --check takes the shipped configuration ({(r.stdout + r.stderr).strip()})")
        # And the agent starts on it: in network and mount namespaces of its own (port 179, no peer
        # reachable), its control socket moved into the scratch directory, READY=1 reported.
        if os.geteuid() == 0 and shutil.which("unshare"):
            sock = os.path.join(out, "ctl.sock")
            notify = os.path.join(out, "notify.sock")
            listener = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
            listener.bind(notify)
            listener.settimeout(15)
            env = dict(os.environ, NOTIFY_SOCKET=notify)
            # A /dev/shm of its own too: the FSIB of the default prefix is not the host's.
            p = subprocess.Popen(["unshare", "--net", "--mount", "sh", "-c",
                                  "mount -t tmpfs fsshm /dev/shm && ip link set lo up && exec \"$@\"", "-",
                                  f"{sbin}/flowspecd", "--config", conf, "--plugin", plugin, "--control-socket", sock],
                                 env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
            try:
                try:
                    said = listener.recv(512).decode()
                except socket.timeout:
                    said = "<nothing>"
                check(said.startswith("READY=1"), f"the installed agent reports READY=1 ({said!r})")
                r = run(f"{bin_}/flowspec", "--socket", sock, "show", "neighbors", check=False)
                check(r.returncode == 0 and "192.0.2.2" in r.stdout, "the installed tool asks the installed agent")
            finally:
                p.send_signal(signal.SIGTERM)
                try:
                    p.wait(15)
                except subprocess.TimeoutExpired:
                    p.kill()
                    p.wait()
                listener.close()
            check(p.returncode == 0, f"the installed agent stops on SIGTERM (exit {p.returncode})")
        else:
            print("info not root: the installed agent is not started")
    finally:
        shutil.rmtree(out, ignore_errors=True)
    print("package: " + ("FAILED: " + "; ".join(check.failures) if check.failures else "passed"))
    return 1 if check.failures else 0


if __name__ == "__main__":
    sys.exit(main())
