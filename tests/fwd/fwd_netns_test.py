#!/usr/bin/env python3
"""flowspec-fwd with real packets between network namespaces this test makes.

Topology (every namespace and address is the test's own; the host's ruleset and routes are
never touched):

    a (sender) --- r (router: flowspec-fwd at prerouting) --- b (the usual way)
                                                         \\--- c (VRF table 100, redirects)

b and c both accept any address of 198.19.0.0/16 (an AnyIP local route), so a packet
that reaches c was redirected there. r routes 198.19.0.0/16 to b in its main table and to c
in table 100, which stands for VRF 7 (--vrf-table 7=100).

Cases (one per run, so that ctest lists them): rules, police, follow, peer. In "peer" the
rules come from a real BGP speaker: GoBGP announces them to flowspecd on loopback, flowspecd
writes its best routes into the FSIB and flowspec-fwd programs them. Needs root; without it
the test says so and exits 77 (skipped).

--backend nft (the default) programs r's nftables table at prerouting; --backend xdp attaches
the XDP classifier to r's interface from a. The XDP run happens in a mount namespace of its
own with a bpf file system of its own (where flowspec-fwd pins its program), so nothing of
the host's mounts changes.
"""
import argparse
import json
import os
import random
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.parse

SKIP = 77
IP_PKTINFO = getattr(socket, "IP_PKTINFO", 8)


def sh(*cmd, check=True, **kw):
    return subprocess.run(list(cmd), check=check, text=True, capture_output=True, **kw)


class Topology:
    def __init__(self, tag):
        base = f"fsfwd{os.getpid()}{tag}"
        self.ns = {n: base + n for n in "arbc"}
        self.procs = []

    def __enter__(self):
        try:
            for n in self.ns.values():
                sh("ip", "netns", "add", n)
            for x, y in (("a", "r"), ("r", "b"), ("r", "c")):
                sh("ip", "link", "add", f"v{x}{y}", "netns", self.ns[x], "type", "veth", "peer", "name", f"v{y}{x}",
                   "netns", self.ns[y])
            plan = {
                "a": ["addr add 198.18.1.2/24 dev var", "link set var up", "route add default via 198.18.1.1"],
                "r": ["addr add 198.18.1.1/24 dev vra", "addr add 198.18.2.1/24 dev vrb", "addr add 198.18.3.1/24 dev vrc",
                      "link set vra up", "link set vrb up", "link set vrc up",
                      "route add 198.19.0.0/16 via 198.18.2.2", "route add 198.19.0.0/16 via 198.18.3.2 table 100"],
                "b": ["addr add 198.18.2.2/24 dev vbr", "link set vbr up", "route add default via 198.18.2.1",
                      "route add local 198.19.0.0/16 dev lo"],
                "c": ["addr add 198.18.3.2/24 dev vcr", "link set vcr up", "route add default via 198.18.3.1",
                      "route add local 198.19.0.0/16 dev lo"],
            }
            for n, cmds in plan.items():
                self.run(n, "ip", "link", "set", "lo", "up")
                for c in cmds:
                    self.run(n, "ip", *c.split())
            for k in ("net.ipv4.ip_forward=1", "net.ipv4.conf.all.rp_filter=0", "net.ipv4.conf.default.rp_filter=0"):
                self.run("r", "sysctl", "-qw", k)
        except Exception:
            self.__exit__(None, None, None)
            raise
        return self

    def __exit__(self, *exc):
        for p in self.procs:
            if p.poll() is None:
                p.kill()
                p.wait()
        for n in self.ns.values():
            sh("ip", "netns", "del", n, check=False)

    def cmd(self, n, *cmd):
        return ["ip", "netns", "exec", self.ns[n], *cmd]

    def run(self, n, *cmd, check=True):
        return sh(*self.cmd(n, *cmd), check=check)

    def start(self, n, *cmd, **kw):
        p = subprocess.Popen(self.cmd(n, *cmd), text=True, **kw)
        self.procs.append(p)
        return p


def receive(ports, seconds):
    """Counts UDP datagrams per (destination address, port) and the TOS bytes seen."""
    socks = []
    for port in ports:
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        s.setsockopt(socket.IPPROTO_IP, socket.IP_RECVTOS, 1)
        s.setsockopt(socket.IPPROTO_IP, IP_PKTINFO, 1)
        s.bind(("0.0.0.0", port))
        s.setblocking(False)
        socks.append((port, s))
    seen = {}
    end = time.monotonic() + seconds
    import select
    while time.monotonic() < end:
        ready, _, _ = select.select([s for _, s in socks], [], [], 0.05)
        for s in ready:
            port = s.getsockname()[1]
            while True:
                try:
                    data, anc, _, _ = s.recvmsg(65535, 256)
                except BlockingIOError:
                    break
                tos, dst = None, None
                for level, kind, blob in anc:
                    if level == socket.IPPROTO_IP and kind == socket.IP_TOS:
                        tos = blob[0]
                    if level == socket.IPPROTO_IP and kind == IP_PKTINFO:
                        dst = socket.inet_ntoa(blob[8:12])
                e = seen.setdefault(f"{dst}:{port}", {"packets": 0, "bytes": 0, "tos": []})
                e["packets"] += 1
                e["bytes"] += len(data)
                if tos not in e["tos"]:
                    e["tos"].append(tos)
    print(json.dumps(seen), flush=True)


def send(dst, port, count, size, pps):
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    gap = 1.0 / pps if pps else 0
    start = time.monotonic()
    for i in range(count):
        try:
            s.sendto(b"x" * size, (dst, port))
        except OSError:
            pass
        if gap:
            delay = start + (i + 1) * gap - time.monotonic()
            if delay > 0:
                time.sleep(delay)


class Case:
    def __init__(self, args, tag):
        self.args = args
        self.prefix = f"fsfwdtest{os.getpid()}{tag}"
        self.work = tempfile.mkdtemp(prefix="fsfwd")
        self.status = os.path.join(self.work, "status.json")
        self.failures = []

    def close(self):
        try:
            os.unlink(f"/dev/shm/{self.prefix}.routing.bgp.flowspec")
        except FileNotFoundError:
            pass

    def wait_for(self, pred, what, timeout=5.0):
        end = time.monotonic() + timeout
        while time.monotonic() < end:
            if pred():
                return True
            time.sleep(0.05)
        self.check(False, "timed out waiting until " + what)
        return False

    def check(self, ok, what):
        print(("ok   " if ok else "FAIL ") + what, flush=True)
        if not ok:
            self.failures.append(what)

    def write(self, *rules, keep=False, deletes=()):
        cmd = [self.args.writer, "--prefix", self.prefix]
        if keep:
            cmd.append("--keep")
        for r in rules:
            cmd += ["--rule", r]
        for d in deletes:
            cmd += ["--delete", d]
        sh(*cmd)

    def fwd(self, *extra):
        backend = ["--backend", "nft"]
        if self.args.backend == "xdp":
            backend = ["--backend", "xdp", "--interfaces", "vra", "--pin-root", self.args.pin_root]
        return [self.args.fwd, "--fsib-prefix", self.prefix, "--status-file", self.status, "--table", "fsfwd",
                "--vrf-table", "7=100", *backend, *extra]

    @property
    def xdp(self):
        return self.args.backend == "xdp"

    def show(self, topo):
        out = topo.run("r", *self.fwd("--show", "--json")).stdout
        return {r["key"]: r for r in json.loads(out)["rules"]}

    def traffic(self, topo, flows, seconds=1.5):
        """flows: (dst, port, count, size, pps). Returns what b and c received."""
        ports = sorted({f[1] for f in flows})
        script = os.path.abspath(__file__)
        rx = {n: topo.start(n, sys.executable, script, "receive", "--ports", ",".join(map(str, ports)),
                            "--seconds", str(seconds + 1.0), stdout=subprocess.PIPE) for n in "bc"}
        time.sleep(0.4)
        senders = [topo.start("a", sys.executable, script, "send", "--to", d, "--port", str(p), "--count", str(c),
                              "--size", str(s), "--pps", str(pps)) for d, p, c, s, pps in flows]
        for p in senders:
            p.wait(timeout=60)
        return {n: json.loads(p.communicate(timeout=30)[0] or "{}") for n, p in rx.items()}


def got(seen, ns, dst, port):
    return seen[ns].get(f"{dst}:{port}", {"packets": 0, "bytes": 0, "tos": []})


def case_rules(args):
    c = Case(args, "rules")
    try:
        with Topology("x") as t:
            udp = "protocol =17;"
            c.write("198.19.1.1/32;*;" + udp + "destination-port =5001; => drop",
                    "198.19.2.1/32;*; => dscp=46",
                    "198.19.3.1/32;*;" + udp + "destination-port =5003; => accept",
                    "198.19.3.0/24;*; => drop",
                    "198.19.4.1/32;*; => redirect-vrf=7",
                    "198.19.5.1/32;*; => redirect-ip=198.18.3.2",
                    "198.19.6.1/32;*; => redirect-ip=198.18.3.2 copy",
                    "198.19.7.1/32;*;" + udp + " => dscp=10 terminal",
                    "198.19.7.0/24;*; => dscp=20",
                    "198.19.8.1/32;*; => redirect-vrf=8")
            r = t.run("r", *c.fwd("--once"), check=False)
            c.check(r.returncode == 0, f"flowspec-fwd --once programs the FSIB ({r.stderr.strip()})")
            n, size = 20, 100
            seen = c.traffic(t, [("198.19.1.1", 5001, n, size, 200), ("198.19.1.1", 5002, n, size, 200),
                                 ("198.19.2.1", 5001, n, size, 200),
                                 ("198.19.3.1", 5003, n, size, 200), ("198.19.3.1", 5004, n, size, 200),
                                 ("198.19.3.2", 5003, n, size, 200),
                                 ("198.19.4.1", 5001, n, size, 200), ("198.19.5.1", 5001, n, size, 200),
                                 ("198.19.6.1", 5001, n, size, 200), ("198.19.7.1", 5001, n, size, 200)])
            c.check(got(seen, "b", "198.19.1.1", 5001)["packets"] == 0, "drop: the matching flow is dropped")
            c.check(got(seen, "b", "198.19.1.1", 5002)["packets"] == n, "drop: the flow beside it passes")
            c.check(got(seen, "b", "198.19.2.1", 5001)["tos"] == [46 << 2], "DSCP: marked 46")
            c.check(got(seen, "b", "198.19.3.1", 5003)["packets"] == n, "precedence: the more specific accept wins")
            c.check(got(seen, "b", "198.19.3.1", 5004)["packets"] == 0, "precedence: the general drop holds elsewhere")
            c.check(got(seen, "b", "198.19.3.2", 5003)["packets"] == 0, "precedence: ... and for other hosts")
            vrf = got(seen, "c", "198.19.4.1", 5001)["packets"], got(seen, "b", "198.19.4.1", 5001)["packets"]
            c.check(vrf == (n, 0), f"redirect to VRF 7: delivered through table 100 (c, b got {vrf})")
            ip = got(seen, "c", "198.19.5.1", 5001)["packets"], got(seen, "b", "198.19.5.1", 5001)["packets"]
            c.check(ip == (n, 0), f"redirect to 198.18.3.2: delivered there (c, b got {ip})")
            cp = got(seen, "c", "198.19.6.1", 5001)["packets"], got(seen, "b", "198.19.6.1", 5001)["packets"]
            if c.xdp:
                # XDP passes a packet on or drops it; it makes no copies: the rule is refused.
                c.check(cp == (0, n), f"copy to 198.18.3.2 (not made by XDP): the packets go on (c, b got {cp})")
            else:
                c.check(cp == (n, n), f"copy to 198.18.3.2: both get the packets (c, b got {cp})")
            c.check(got(seen, "b", "198.19.7.1", 5001)["tos"] == [20 << 2],
                    "terminal bit set: evaluation went on to the next rule")
            shown = c.show(t)
            k = "198.19.1.1/32;*;protocol =17;destination-port =5001;"
            c.check(shown[k]["installed"] and shown[k]["packets"] == n and shown[k]["bytes"] == n * (size + 28),
                    f"--show counts the dropped flow ({shown[k]})")
            k = "198.19.3.0/24;*;"
            c.check(shown[k]["packets"] == 2 * n, f"--show counts the general rule ({shown[k]})")
            k = "198.19.8.1/32;*;"
            c.check(not shown[k]["installed"] and "no Linux routing table is configured" in shown[k]["reason"],
                    f"a VRF without a table is not installed, with the reason ({shown[k]})")
            if c.xdp:
                k = "198.19.6.1/32;*;"
                c.check(not shown[k]["installed"] and "--backend nft" in shown[k]["reason"],
                        f"a copy is not installed in XDP, with the reason ({shown[k]})")
            text = t.run("r", *c.fwd("--show")).stdout
            c.check("not installed: redirect to VRF 8" in text and "packets 20  bytes 2560" in text,
                    "--show in text")
            c.check(text.startswith("xdp fsfwd:" if c.xdp else "table inet fsfwd:"), "--show names the dataplane")
    finally:
        c.close()
    return c.failures


def case_police(args):
    c = Case(args, "police")
    try:
        with Topology("p") as t:
            rate = 20000
            c.write(f"198.19.8.1/32;*; => police={rate}")
            r = t.run("r", *c.fwd("--once"), check=False)
            c.check(r.returncode == 0, "flowspec-fwd --once programs the FSIB")
            seconds, pps, size = 2.0, 200, 500
            seen = c.traffic(t, [("198.19.8.1", 5001, int(seconds * pps), size, pps)], seconds=seconds)
            passed = got(seen, "b", "198.19.8.1", 5001)["packets"] * (size + 28)
            # The bucket holds one second at the rate, and refills at the rate while we send.
            want = rate * (seconds + 1)
            c.check(0.7 * want <= passed <= 1.3 * want,
                    f"police {rate} bytes/second: {passed} IP bytes passed in {seconds} s, about {want} expected")
            shown = c.show(t)["198.19.8.1/32;*;"]
            c.check(shown["packets"] == int(seconds * pps), f"--show counts every packet the rule saw ({shown})")
    finally:
        c.close()
    return c.failures


def count_rules(t):
    out = t.run("r", "nft", "list", "table", "inet", "fsfwd", check=False).stdout
    return out.count("update @rule_counts")


def start_and_add_a_drop(c, t):
    """The daemon on an FSIB of one rule, then a drop added while it runs and checked with packets."""
    c.write("198.19.9.0/24;*; => accept")
    d = t.start("r", *c.fwd(), stderr=subprocess.PIPE)
    key = "198.19.9.1/32;*;"
    c.wait_for(lambda: c.show(t).get("198.19.9.0/24;*;", {}).get("installed"), "the daemon programs the FSIB")
    c.write(key + " => drop", keep=True)
    if c.wait_for(lambda: c.show(t).get(key, {}).get("installed"), "the added rule is installed"):
        seen = c.traffic(t, [("198.19.9.1", 5001, 10, 100, 200), ("198.19.9.2", 5001, 10, 100, 200)], 0.5)
        c.check(got(seen, "b", "198.19.9.1", 5001)["packets"] == 0, "a rule added while running drops")
        c.check(got(seen, "b", "198.19.9.2", 5001)["packets"] == 10, "... and only its flow")
    return d, key


def case_follow(args):
    c = Case(args, "follow")
    try:
        with Topology("f") as t:
            d, key = start_and_add_a_drop(c, t)
            c.write(deletes=[key], keep=True)
            c.wait_for(lambda: key not in c.show(t), "the rule is gone from the FSIB")
            time.sleep(0.2)
            seen = c.traffic(t, [("198.19.9.1", 5001, 10, 100, 200)], 0.5)
            c.check(got(seen, "b", "198.19.9.1", 5001)["packets"] == 10, "a deleted rule no longer drops")
            d.send_signal(signal.SIGTERM)
            d.wait(timeout=10)
            c.check(count_rules(t) == 1, "on exit the table stays")

            # A foreign object where the FSIB should be: refused, the table as it was.
            before = t.run("r", "nft", "list", "ruleset").stdout
            bad = f"{c.prefix}bad"
            with open(f"/dev/shm/{bad}.routing.bgp.flowspec", "wb") as f:
                f.write(os.urandom(65536))
            try:
                r = t.run("r", args.fwd, "--fsib-prefix", bad, "--table", "fsfwd", "--once",
                          "--status-file", c.status + ".bad", check=False)
            finally:
                os.unlink(f"/dev/shm/{bad}.routing.bgp.flowspec")
            c.check(r.returncode == 1 and "refused the FSIB segment" in r.stderr and "left as it was" in r.stderr,
                    f"a foreign segment is refused with a message ({r.stderr.strip()})")
            c.check(t.run("r", "nft", "list", "ruleset").stdout == before, "... and the table is as it was")

            # Killed mid-update: the table is the old one or the new one, never a mix.
            sizes = {}
            took = 0.0
            for rules in (12288, 6000):
                sh(args.writer, "--prefix", c.prefix, "--rules", str(rules), "--burst")
                start = time.monotonic()
                t.run("r", *c.fwd("--once"), check=False)
                took = max(took, time.monotonic() - start)
                sizes[rules] = count_rules(t)
            rng = random.Random(18)
            seen_counts = set()
            for i in range(6):
                sh(args.writer, "--prefix", c.prefix, "--rules", str(12288 if i % 2 == 0 else 6000), "--burst")
                p = t.start("r", *c.fwd("--once"), stderr=subprocess.DEVNULL)
                time.sleep(rng.uniform(0.1 * took, 1.3 * took))
                p.kill()
                p.wait()
                n = count_rules(t)
                seen_counts.add(n)
                c.check(n in sizes.values(), f"killed mid-update ({i}): {n} rules, one of the whole tables {sizes}")
            print(f"info table sizes after the kills: {sorted(seen_counts)}")
            t.run("r", *c.fwd("--once", "--remove-on-exit"), check=False)
            c.check(t.run("r", "nft", "list", "tables").stdout.strip() == "", "--remove-on-exit removes the tables")
    finally:
        c.close()
    return c.failures


def xdp_attached(t):
    return "xdp" in t.run("r", "ip", "link", "show", "vra").stdout


def case_follow_xdp(args):
    """The daemon with XDP: changes followed, the program kept across a kill, replaced by the next start."""
    c = Case(args, "followx")
    try:
        with Topology("x") as t:
            d, key = start_and_add_a_drop(c, t)
            d.kill()
            d.wait(timeout=10)
            c.check(xdp_attached(t), "killed, flowspec-fwd leaves its program attached")
            seen = c.traffic(t, [("198.19.9.1", 5001, 10, 100, 200), ("198.19.9.2", 5001, 10, 100, 200)], 0.5)
            c.check(got(seen, "b", "198.19.9.1", 5001)["packets"] == 0, "... which goes on dropping the flow")
            c.check(got(seen, "b", "198.19.9.2", 5001)["packets"] == 10, "... and passing the one beside it")
            # The next start takes the FSIB as it is now: the drop was deleted meanwhile.
            c.write(deletes=[key], keep=True)
            r = t.run("r", *c.fwd("--once"), check=False)
            c.check(r.returncode == 0, f"the next start replaces the program ({r.stderr.strip()})")
            seen = c.traffic(t, [("198.19.9.1", 5001, 10, 100, 200)], 0.5)
            c.check(got(seen, "b", "198.19.9.1", 5001)["packets"] == 10, "a rule deleted while none ran no longer drops")
            r = t.run("r", *c.fwd("--once", "--remove-on-exit"), check=False)
            c.check(not xdp_attached(t), "--remove-on-exit detaches the program")
            # An interface that does not exist: named, with the advice.
            bad = [a if a != "vra" else "nosuchif9" for a in c.fwd("--once")]
            r = t.run("r", *bad, check=False)
            c.check(r.returncode != 0 and "nosuchif9" in r.stderr and "--backend nft" in r.stderr,
                    f"an interface that cannot take the program is named ({r.stderr.strip()})")
    finally:
        c.close()
    return c.failures


def case_peer(args):
    """GoBGP -> flowspecd -> FSIB -> flowspec-fwd -> packets."""
    sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "agent", "interop"))
    import interop
    c = Case(args, "peer")
    agent_address, gobgp_address = "127.0.21.1", "127.0.21.2"
    agent_port = interop.free_port(agent_address, "::1")
    gobgp = interop.GoBgp(c.work, gobgp_address, interop.free_port(gobgp_address), agent_address, agent_port,
                          passive=False, ipv6=False)
    neighbors = [{"address": gobgp_address, "port": gobgp.port, "remote-as": gobgp.asn, "passive": True,
                  "hold-time": interop.HOLD, "connect-retry": 1}]
    vrf = '\n[[vrf]]\nname = "scrubbing"\nid = 7\nimport-route-targets = ["65000:7"]\n'
    agent = interop.Agent((args.flowspecd, args.flowspec), c.work, agent_address, agent_port, neighbors, extra=vrf,
                          fsib_prefix=c.prefix)
    os.chmod(c.work, 0o755)
    rules = [["destination", "198.19.1.1/32", "protocol", "udp", "destination-port", "==5001", "then", "discard"],
             ["destination", "198.19.2.1/32", "then", "mark", "46"],
             ["destination", "198.19.4.1/32", "then", "redirect", "65000:7"]]
    try:
        gobgp.start()
        agent.start()
        agent.wait_state(gobgp_address, "Established", 40)
        interop.wait_until("gobgp API", lambda: gobgp.gobgp("global") is not None, 15)
        for r in rules:
            gobgp.gobgp("global", "rib", "-a", "ipv4-flowspec", "add", "match", *r)
        interop.wait_until("GoBGP's rules in the FSIB", lambda: len(agent.fsib()) == len(rules) or None, 20)
        with Topology("g") as t:
            r = t.run("r", *c.fwd("--once"), check=False)
            c.check(r.returncode == 0, f"flowspec-fwd --once programs the agent's FSIB ({r.stderr.strip()})")
            n = 20
            seen = c.traffic(t, [("198.19.1.1", 5001, n, 100, 200), ("198.19.1.1", 5002, n, 100, 200),
                                 ("198.19.2.1", 5001, n, 100, 200), ("198.19.4.1", 5001, n, 100, 200)])
            c.check(got(seen, "b", "198.19.1.1", 5001)["packets"] == 0, "GoBGP's discard drops the flow")
            c.check(got(seen, "b", "198.19.1.1", 5002)["packets"] == n, "... and only that flow")
            c.check(got(seen, "b", "198.19.2.1", 5001)["tos"] == [46 << 2], "GoBGP's marking sets DSCP 46")
            vrf_got = got(seen, "c", "198.19.4.1", 5001)["packets"], got(seen, "b", "198.19.4.1", 5001)["packets"]
            c.check(vrf_got == (n, 0), f"GoBGP's redirect to 65000:7 goes through VRF 7's table (c, b got {vrf_got})")
            shown = c.show(t)
            k = "198.19.1.1/32;*;protocol =17;destination-port =5001;"
            c.check(k in shown and shown[k]["installed"] and shown[k]["packets"] == n,
                    f"--show counts the dropped flow ({shown.get(k)})")

            # GoBGP withdraws the discard: the FSIB loses it and the flow passes again.
            gobgp.gobgp("global", "rib", "-a", "ipv4-flowspec", "del", "match", *rules[0][:6])
            interop.wait_until("the withdrawn rule out of the FSIB", lambda: len(agent.fsib()) == 2 or None, 15)
            t.run("r", *c.fwd("--once"), check=False)
            seen = c.traffic(t, [("198.19.1.1", 5001, n, 100, 200)], 0.5)
            c.check(got(seen, "b", "198.19.1.1", 5001)["packets"] == n, "after GoBGP's withdrawal the flow passes")
    except interop.Fail as e:
        c.check(False, str(e))
    finally:
        agent.stop()
        gobgp.stop()
        c.close()
    return c.failures


class Watch:
    """Polls, in a thread, how many rules the agent's FSIB holds (its least since a mark) and what
    flowspec-fwd's status file says it took out of the dataplane."""

    def __init__(self, c, agent):
        import threading
        self.c, self.agent = c, agent
        self.least = None
        self.stopping = False
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self):
        while not self.stopping:
            try:
                n = len(self.agent.fsib())
                self.least = n if self.least is None else min(self.least, n)
            except Exception:
                pass  # the agent between two runs: nothing to ask
            time.sleep(0.05)

    def mark(self):
        self.least = None

    def stop(self):
        self.stopping = True
        self.thread.join(5)


def follow_counters(c):
    try:
        with open(c.status) as f:
            return json.load(f).get("follow", {})
    except (OSError, ValueError):
        return {}


def case_restart(args):
    """Restarts that lose no rule: GoBGP and BIRD (graceful restart on) announce rules to flowspecd,
    flowspec-fwd programs them; each peer is killed hard and comes back, then the agent is
    stopped with SIGTERM and with SIGKILL and started again. The rules are announced all along,
    so the dataplane must never lose one: flowspec-fwd's own count of rules it took out stays 0,
    and through a peer's restart the FSIB keeps them too."""
    sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "agent", "interop"))
    import interop
    c = Case(args, "restart")
    agent_address, gobgp_address, bird_address = "127.0.22.1", "127.0.22.2", "127.0.22.3"
    agent_port = interop.free_port(agent_address, "::1")

    def gobgp_peer(restarting):
        p = interop.GoBgp(c.work, gobgp_address, gobgp_port, agent_address, agent_port, passive=False, ipv6=False)
        p.graceful, p.restarting = True, restarting
        return p

    def bird_peer(restarting):
        p = interop.Bird(c.work, bird_address, bird_port, agent_address, agent_port, passive=False, ipv6=False)
        p.graceful, p.restarting = True, restarting
        return p

    gobgp_port, bird_port = interop.free_port(gobgp_address), interop.free_port(bird_address)
    gobgp, bird = gobgp_peer(False), bird_peer(False)
    neighbors = [{"address": a, "port": p, "remote-as": interop.PEER_AS, "passive": True, "hold-time": interop.HOLD,
                  "connect-retry": 1} for a, p in ((gobgp_address, gobgp_port), (bird_address, bird_port))]
    agent = interop.Agent((args.flowspecd, args.flowspec), c.work, agent_address, agent_port, neighbors,
                          fsib_prefix=c.prefix)
    os.chmod(c.work, 0o755)
    gobgp_rules = [["destination", "198.19.1.1/32", "protocol", "udp", "destination-port", "==5001", "then", "discard"],
                   ["destination", "198.19.2.1/32", "then", "mark", "46"]]
    total = len(gobgp_rules) + len(interop.Bird.flow4) + len(interop.Bird.flow6)
    watch = None
    results = {}

    def announce(p):
        interop.wait_until("gobgp API", lambda: p.gobgp("global") is not None, 15)
        for r in gobgp_rules:
            p.gobgp("global", "rib", "-a", "ipv4-flowspec", "add", "match", *r)

    def all_programmed(t):
        def ok():
            shown = c.show(t)
            return len(shown) == total and all(r["installed"] for r in shown.values())
        return c.wait_for(ok, f"all {total} rules programmed", 30)

    def both_established():
        for a in (gobgp_address, bird_address):
            agent.wait_state(a, "Established", 40)

    def removals_during(label, t, act, fsib_kept):
        before = follow_counters(c).get("removed", 0)
        watch.mark()
        act()
        both_established()
        interop.wait_until("the FSIB full again", lambda: len(agent.fsib()) == total or None, 40)
        all_programmed(t)
        time.sleep(1.5)  # past the sweep at End-of-RIB and the dataplane's next status write
        removed = follow_counters(c).get("removed", 0) - before
        results[label] = removed
        print(f"info {label}: {removed} forwarding-plane removals of still-announced rules, least FSIB size "
              f"{watch.least}", flush=True)
        c.check(removed == 0, f"{label}: the dataplane took out no rule ({removed})")
        if fsib_kept:
            c.check(watch.least == total, f"{label}: the FSIB kept every rule ({watch.least} of {total} at least)")

    try:
        gobgp.start()
        bird.start()
        announce(gobgp)
        agent.start()
        both_established()
        interop.wait_until("the peers' rules in the FSIB", lambda: len(agent.fsib()) == total or None, 30)
        with Topology("s") as t:
            t.start("r", *c.fwd(), stderr=open(os.path.join(c.work, "fwd.log"), "w"))
            all_programmed(t)
            watch = Watch(c, agent)

            def restart_gobgp():
                nonlocal gobgp
                gobgp.proc.stop(signal.SIGKILL)
                time.sleep(0.5)
                gobgp = gobgp_peer(True)
                gobgp.start()
                announce(gobgp)

            def restart_bird():
                nonlocal bird
                bird.proc.stop(signal.SIGKILL)
                time.sleep(0.5)
                bird = bird_peer(True)
                bird.start()

            def restart_agent(sig):
                agent.proc.stop(sig)
                time.sleep(0.5)
                agent.start()

            removals_during("GoBGP killed and restarted", t, restart_gobgp, True)
            removals_during("BIRD killed and restarted", t, restart_bird, True)
            removals_during("agent stopped (SIGTERM) and started", t, lambda: restart_agent(signal.SIGTERM), False)
            removals_during("agent killed (SIGKILL) and started", t, lambda: restart_agent(signal.SIGKILL), False)

            # Real withdrawals still reach the dataplane once the agent has converged.
            before = follow_counters(c).get("removed", 0)
            gobgp.gobgp("global", "rib", "-a", "ipv4-flowspec", "del", "match", *gobgp_rules[0][:6])
            if c.wait_for(lambda: follow_counters(c).get("removed", 0) == before + 1,
                          "a withdrawal after the restarts leaves the dataplane", 15):
                c.check(True, "a withdrawal after the restarts leaves the dataplane")

            # GoBGP goes for good: its last rule stays, stale, for the restart time it
            # advertised, then goes (from the FSIB and the dataplane), logged.
            before = follow_counters(c).get("removed", 0)
            gone_at = time.monotonic()
            gobgp.proc.stop(signal.SIGKILL)
            time.sleep(2)
            c.check(len(agent.fsib()) == total - 1, "a peer that went keeps its rule meanwhile")
            c.wait_for(lambda: len(agent.fsib()) == total - 2, "its stale rule goes at its restart time",
                       gobgp.restart_time + 10)
            took = time.monotonic() - gone_at
            c.check(gobgp.restart_time - 1 <= took, f"... not before it ({took:.1f} s, restart time "
                    f"{gobgp.restart_time} s)")
            c.wait_for(lambda: follow_counters(c).get("removed", 0) == before + 1, "... and leaves the dataplane", 5)
            c.check("ipv4-flowspec: restart-time over: 1 stale rule(s) go" in agent.proc.log_text(),
                    "the agent logs why the rule went")
    except interop.Fail as e:
        c.check(False, str(e))
    finally:
        if watch:
            watch.stop()
        agent.stop()
        gobgp.stop()
        bird.stop()
        c.close()
    print("info removals by restart kind: " + json.dumps(results))
    return c.failures


def fetch(t, n, url):
    """The body at url, fetched from inside namespace n."""
    code = "import sys, urllib.request; sys.stdout.write(urllib.request.urlopen(sys.argv[1], timeout=5).read().decode())"
    return t.run(n, sys.executable, "-c", code, url).stdout


def case_controller(args):
    """A controller's `gobgp` -> flowspecd's gRPC API -> FSIB -> flowspec-fwd -> packets, with
    Prometheus scraping the metrics of both programs while traffic hits the rule. The agent,
    the follower and Prometheus all run in r, on its loopback."""
    for program in ("gobgp", "prometheus", "promtool"):
        if not shutil.which(program):
            print(f"SKIP: {program} is not installed (scripts/setup.sh installs it)")
            sys.exit(SKIP)
    sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "agent", "interop"))
    import interop
    c = Case(args, "ctl")
    os.chmod(c.work, 0o755)
    agent = interop.Agent((args.flowspecd, args.flowspec), c.work, "127.0.0.1", 1790, [], fsib_prefix=c.prefix)
    agent.base_config = ('api-listen = "127.0.0.1:50051"\nmetrics-listen = "127.0.0.1:9179"\n'
                         + agent.base_config)
    agent.write_config("")
    prom_config = os.path.join(c.work, "prometheus.yml")
    with open(prom_config, "w") as f:
        f.write("global:\n  scrape_interval: 1s\n  scrape_timeout: 1s\nscrape_configs:\n"
                "  - job_name: flowspecd\n    static_configs:\n      - targets: ['127.0.0.1:9179']\n"
                "  - job_name: flowspec-fwd\n    static_configs:\n      - targets: ['127.0.0.1:9180']\n")
    key = "198.19.1.1/32;*;protocol =17;destination-port =5001;"
    fwd_log = open(os.path.join(c.work, "flowspec-fwd.log"), "w")
    prom_log = open(os.path.join(c.work, "prometheus.log"), "w")

    def query(expr):
        """Prometheus' value of expr (the first series), or None."""
        url = "http://127.0.0.1:9090/api/v1/query?query=" + urllib.parse.quote(expr)
        try:
            result = json.loads(fetch(t, "r", url))["data"]["result"]
        except (subprocess.CalledProcessError, ValueError, KeyError):
            return None
        return float(result[0]["value"][1]) if result else None

    try:
        with Topology("q") as t:
            agent.proc = interop.Process("flowspecd", t.cmd("r", args.flowspecd, "--config", agent.config), c.work)
            fwd = t.start("r", *c.fwd("--metrics-listen", "127.0.0.1:9180"), stdout=fwd_log, stderr=fwd_log)
            prom = t.start("r", "prometheus", "--config.file", prom_config, "--storage.tsdb.path",
                           os.path.join(c.work, "tsdb"), "--web.listen-address", "127.0.0.1:9090",
                           stdout=prom_log, stderr=prom_log)
            c.wait_for(lambda: query('sum(up{job=~"flowspecd|flowspec-fwd"})') == 2,
                       "Prometheus scrapes both endpoints", 30)
            gobgp = ["gobgp", "-u", "127.0.0.1", "-p", "50051", "global", "rib", "-a", "ipv4-flowspec"]
            r = t.run("r", *gobgp, "add", "match", "destination", "198.19.1.1/32", "protocol", "udp",
                      "destination-port", "==5001", "then", "discard", check=False)
            c.check(r.returncode == 0, f"gobgp adds a discard through the agent's API ({r.stdout}{r.stderr})")
            c.wait_for(lambda: key in agent.fsib(), "the rule is in the FSIB", 10)
            c.wait_for(lambda: query(f'flowspec_fwd_rule_installed{{rule="{key}"}}') == 1,
                       "Prometheus sees the rule installed by flowspec-fwd", 15)
            c.check(query(f'flowspec_fwd_rule_packets_total{{rule="{key}"}}') == 0, "its packet counter starts at 0")
            n = 20
            for burst in (1, 2):
                seen = c.traffic(t, [("198.19.1.1", 5001, n, 100, 200), ("198.19.1.1", 5002, n, 100, 200)], 0.5)
                c.check(got(seen, "b", "198.19.1.1", 5001)["packets"] == 0 and
                        got(seen, "b", "198.19.1.1", 5002)["packets"] == n, f"burst {burst}: the rule drops its flow")
                c.wait_for(lambda: query(f'flowspec_fwd_rule_packets_total{{rule="{key}"}}') == burst * n,
                           f"Prometheus sees the packet counter at {burst * n}", 15)
                c.check(query(f'flowspec_fwd_rule_bytes_total{{rule="{key}"}}') == burst * n * 128,
                        f"... and the bytes at {burst * n * 128}")
            c.check((query('flowspecd_api_requests_total{method="AddPath"}') or 0) >= 1,
                    "Prometheus sees the agent count the AddPath call")
            c.check(query('flowspecd_fsib_rules') == 1,
                    "... and the rule in its FSIB")
            for port in (9179, 9180):
                text = fetch(t, "r", f"http://127.0.0.1:{port}/metrics")
                p = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True)
                c.check(p.returncode == 0, f"promtool check metrics accepts :{port} ({p.stdout}{p.stderr})")
            r = t.run("r", *gobgp, "del", "match", "destination", "198.19.1.1/32", "protocol", "udp",
                      "destination-port", "==5001", check=False)
            c.wait_for(lambda: query(f'count(flowspec_fwd_rule_installed{{rule="{key}"}})') is None,
                       "the deleted rule leaves flowspec-fwd's metrics", 15)
            for p in (prom, fwd):
                p.terminate()
                p.wait(timeout=20)
    except interop.Fail as e:
        c.check(False, str(e))
    finally:
        agent.stop()
        fwd_log.close()
        prom_log.close()
        c.close()
    if c.failures:
        print(f"logs: {c.work}")
    return c.failures


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("case", choices=["rules", "police", "follow", "peer", "restart", "controller", "receive", "send"])
    ap.add_argument("--fwd")
    ap.add_argument("--writer")
    ap.add_argument("--flowspecd")
    ap.add_argument("--flowspec")
    ap.add_argument("--ports")
    ap.add_argument("--seconds", type=float, default=1.0)
    ap.add_argument("--to")
    ap.add_argument("--port", type=int)
    ap.add_argument("--count", type=int)
    ap.add_argument("--size", type=int)
    ap.add_argument("--pps", type=float, default=0)
    ap.add_argument("--backend", choices=["nft", "xdp"], default="nft")
    args = ap.parse_args()
    if args.case == "receive":
        return receive([int(p) for p in args.ports.split(",")], args.seconds)
    if args.case == "send":
        return send(args.to, args.port, args.count, args.size, args.pps)
    if os.geteuid() != 0:
        print("SKIP: the flowspec-fwd traffic tests need root (network namespaces and nftables)")
        return SKIP
    if subprocess.run(["ip", "netns", "list"], capture_output=True).returncode != 0:
        print("SKIP: no ip netns here")
        return SKIP
    if args.backend == "xdp":
        if os.environ.get("FSFWD_OWN_MOUNTS") != "1":
            # Again, in a mount namespace of its own (see the top of the file).
            env = dict(os.environ, FSFWD_OWN_MOUNTS="1")
            r = subprocess.run(["unshare", "--mount", "--propagation", "private", sys.executable, *sys.argv], env=env)
            return r.returncode
        bpffs = tempfile.mkdtemp(prefix="fsfwdbpf")
        if subprocess.run(["mount", "-t", "bpf", "bpf", bpffs], capture_output=True).returncode != 0:
            print("SKIP: cannot mount a bpf file system for the XDP program's pins")
            return SKIP
        args.pin_root = os.path.join(bpffs, "flowspec")
    cases = {"rules": case_rules, "police": case_police, "peer": case_peer, "restart": case_restart,
             "controller": case_controller,
             "follow": case_follow_xdp if args.backend == "xdp" else case_follow}
    failures = cases[args.case](args)
    print(f"{args.case} ({args.backend}): {'FAILED: ' + '; '.join(failures) if failures else 'passed'}")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main() or 0)
