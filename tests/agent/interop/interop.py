#!/usr/bin/env python3
"""Interoperability tests of flowspecd with real BGP speakers on loopback.

  interop.py --flowspecd BIN --flowspec BIN peer NAME DIRECTION
        NAME: gobgp, bird, exabgp, frr; DIRECTION: we-connect, they-connect
  interop.py --flowspecd BIN --flowspec BIN faults
  interop.py --flowspecd BIN --flowspec BIN export
  interop.py --flowspecd BIN --flowspec BIN readvertise

A peer test runs one flowspecd and one peer daemon, each on a 127.0.x.y address of its own
(and both on ::1 for the IPv6 session, with ports of their own), with two sessions: one
over IPv4 and one over IPv6 transport. In "we-connect" the peer is passive and flowspecd
connects; in "they-connect" flowspecd is passive. Each test checks, in order:
  1. both sessions reach Established with ipv4-flowspec and ipv6-flowspec negotiated;
  2. keepalives keep them up past one hold time (3 seconds);
  3. the peer's flowspec UPDATEs arrive and are counted per family, and the agent sends the
     rules of one session to the other (the peer drops them: its AS is in the path); every
     UPDATE the agent sends is captured and must decode cleanly;
  4. after the peer restarts, each session comes up again (a new session);
  5. flowspecd's shutdown (SIGTERM) reaches the peer as a Cease.
The fault test runs flowspecd with one good peer (BIRD) and several misbehaving fake
peers, and checks each fault gets its NOTIFICATION while the good session stays up.
The export test runs flowspecd with GoBGP and BIRD announcing rules with every action and
checks the best paths, and the FSIB as another process reads it, through a withdrawal, a
reload of the VRF imports, a lost session and a restart of the agent; what the agent sends
meanwhile (each peer's rules to the other) is captured and must decode cleanly.
The readvertise test runs flowspecd between GoBGP and BIRD: a rule GoBGP announces reaches
BIRD with the agent's AS in front, its withdrawal follows, and a restarted BIRD gets the
table again and End-of-RIB. Every UPDATE the agent sends is captured on the loopback
interface and read back with `flowspec decode --pcap`: no error, no refused NLRI.

Every process is started here, bounded in time, and stopped by its PID. Exit status 0 when
every check passed; the last lines say what failed and where the logs are.
"""
import argparse
import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

HOLD = 3
LOCAL_AS = 65001
PEER_AS = 65002


class Fail(Exception):
    pass


def log(msg):
    print(time.strftime("%H:%M:%S"), msg, flush=True)


def wait_until(what, pred, timeout):
    """Polls pred() until it returns something true; fails after timeout seconds."""
    deadline = time.monotonic() + timeout
    last = None
    while time.monotonic() < deadline:
        try:
            value = pred()
            last = value
            if value:
                return value
        except Fail:
            raise
        except Exception as e:  # a tool failing while its daemon starts up
            last = e
        time.sleep(0.2)
    raise Fail(f"timed out after {timeout}s waiting for {what} (last: {last!r})")


def free_port(*addresses):
    """A TCP port free on every address given."""
    for _ in range(50):
        probe = socket.socket(socket.AF_INET6 if ":" in addresses[0] else socket.AF_INET)
        probe.bind((addresses[0], 0))
        port = probe.getsockname()[1]
        probe.close()
        ok = True
        for a in addresses[1:]:
            s = socket.socket(socket.AF_INET6 if ":" in a else socket.AF_INET)
            try:
                s.bind((a, port))
            except OSError:
                ok = False
            finally:
                s.close()
        if ok:
            return port
    raise Fail("no free port")


class Process:
    """A daemon started here and stopped by its PID."""

    def __init__(self, name, argv, workdir, env=None, stdin=None):
        self.name = name
        self.logpath = os.path.join(workdir, name + ".log")
        self.logfile = open(self.logpath, "ab")
        self.popen = subprocess.Popen(argv, stdout=self.logfile, stderr=subprocess.STDOUT, cwd=workdir,
                                      env=env, stdin=stdin if stdin is not None else subprocess.DEVNULL,
                                      start_new_session=True)
        log(f"started {name} (pid {self.popen.pid}): {' '.join(argv)}")

    def alive(self):
        return self.popen.poll() is None

    def stop(self, sig=signal.SIGTERM, timeout=10):
        """Sends sig to the process (its own group: helpers it forked go too), waits, kills if needed."""
        if self.popen.poll() is None:
            try:
                os.killpg(self.popen.pid, sig)
            except ProcessLookupError:
                pass
            try:
                self.popen.wait(timeout)
            except subprocess.TimeoutExpired:
                log(f"{self.name} ignored {sig!s}; killing it")
                os.killpg(self.popen.pid, signal.SIGKILL)
                self.popen.wait(5)
        self.logfile.close()
        return self.popen.returncode

    def log_text(self):
        try:
            with open(self.logpath, "r", errors="replace") as f:
                return f.read()
        except OSError:
            return ""


class Agent:
    """flowspecd under test."""

    def __init__(self, bins, workdir, address, port, neighbors, router_id=None, extra="", fsib_prefix=None,
                 more_addresses=()):
        self.flowspecd, self.flowspec = bins
        self.workdir = workdir
        self.socket = os.path.join(workdir, "flowspecd.sock")
        self.config = os.path.join(workdir, "flowspecd.toml")
        # An FSIB of the test's own: tests running side by side never share one.
        self.fsib_prefix = fsib_prefix or f"interop-{os.getpid()}"
        listen = [f"{a}:{port}" for a in (address,) + tuple(more_addresses)] + [f"[::1]:{port}"]
        self.head = [f'router-id = "{router_id or address}"', f"local-as = {LOCAL_AS}",
                     f"listen = {json.dumps(listen)}", f'control-socket = "{self.socket}"',
                     f'fsib-prefix = "{self.fsib_prefix}"']
        self.neighbors_are(neighbors)
        self.write_config(extra)
        self.proc = None

    def neighbors_are(self, neighbors):
        """The [[neighbor]] tables of the configuration written next."""
        lines = list(self.head)
        for n in neighbors:
            lines += ["", "[[neighbor]]"]
            for k, v in n.items():
                lines.append(f"{k} = {json.dumps(v)}")
        self.base_config = "\n".join(lines) + "\n"

    def write_config(self, extra):
        with open(self.config, "w") as f:
            f.write(self.base_config + extra)

    def reload(self, extra):
        """Rewrites the configuration with `extra` and tells the agent (SIGHUP)."""
        self.write_config(extra)
        os.kill(self.proc.popen.pid, signal.SIGHUP)

    def ask(self, *args):
        r = subprocess.run([self.flowspec, "--socket", self.socket] + list(args), capture_output=True, text=True,
                           timeout=10)
        if r.returncode != 0:
            raise RuntimeError(f"flowspec {' '.join(args)}: {r.stderr.strip()}")
        return json.loads(r.stdout)

    def fsib(self):
        """The FSIB's rules as another process reads them from shared memory, by key."""
        listing = self.ask("fsib", "--prefix", self.fsib_prefix, "--json")
        return {r["key"]: r for r in listing["rules"]}

    def start(self):
        check = subprocess.run([self.flowspecd, "--check", self.config],
                               capture_output=True, text=True, timeout=10)
        if check.returncode != 0:
            raise Fail("flowspecd --check refused the test configuration:\n" + check.stderr)
        self.proc = Process("flowspecd", [self.flowspecd, "--config", self.config],
                            self.workdir)

    def neighbors(self):
        r = subprocess.run([self.flowspec, "--socket", self.socket, "show", "neighbors",
                            "--json"], capture_output=True, text=True, timeout=10)
        if r.returncode != 0:
            raise RuntimeError(r.stderr.strip())
        return {n["address"]: n for n in json.loads(r.stdout)["neighbors"]}

    def updates(self):
        r = subprocess.run([self.flowspec, "--socket", self.socket, "show", "updates", "--json"],
                           capture_output=True, text=True, timeout=10)
        if r.returncode != 0:
            raise RuntimeError(r.stderr.strip())
        return {n["address"]: n for n in json.loads(r.stdout)["neighbors"]}

    def neighbor(self, address):
        if not self.proc.alive():
            raise Fail("flowspecd exited with status %s" % self.proc.popen.returncode)
        return self.neighbors()[address]

    def wait_state(self, address, state, timeout=30, extra=None):
        def ok():
            n = self.neighbor(address)
            return n if n["state"] == state and (extra is None or extra(n)) else None
        return wait_until(f"neighbor {address} {state}", ok, timeout)

    def stop(self, keep_fsib=False):
        status = self.proc.stop() if self.proc else None
        if not keep_fsib:
            try:
                os.unlink(f"/dev/shm/{self.fsib_prefix}.routing.bgp.flowspec")
            except OSError:
                pass
        return status



# ----------------------------------------------------------------------------------------
# A minimal BGP speaker written here: it feeds FRR the flowspec rules FRR cannot originate,
# and plays the misbehaving peers of the fault test.

MARKER = b"\xff" * 16
OPEN, UPDATE, NOTIFICATION, KEEPALIVE = 1, 2, 3, 4


def message(kind, body, marker=MARKER, length=None):
    return marker + struct.pack("!HB", 19 + len(body) if length is None else length, kind) + body


def open_body(asn, hold, bgp_id, families=((1, 133), (2, 133)), version=4):
    caps = b"".join(bytes([1, 4]) + struct.pack("!HBB", afi, 0, safi) for afi, safi in families)
    caps += bytes([2, 0]) + bytes([65, 4]) + struct.pack("!I", asn)
    params = bytes([2, len(caps)]) + caps
    two_octet = asn if asn < 65536 else 23456
    return struct.pack("!BHHIB", version, two_octet, hold, bgp_id, len(params)) + params


def ip_id(address):
    return struct.unpack("!I", socket.inet_aton(address))[0]


def flowspec_update(asn, afi, nlri):
    """An UPDATE announcing one flowspec NLRI with a traffic-rate 0 (discard) community."""
    attrs = bytes([0x40, 1, 1, 0])                                      # ORIGIN IGP
    attrs += bytes([0x40, 2, 6, 2, 1]) + struct.pack("!I", asn)         # AS_PATH, 4-octet ASes
    attrs += bytes([0xC0, 16, 8, 0x80, 0x06, 0, 0, 0, 0, 0, 0])         # traffic-rate 0
    reach = struct.pack("!HBBB", afi, 133, 0, 0) + bytes([len(nlri)]) + nlri
    attrs += bytes([0x90, 14]) + struct.pack("!H", len(reach)) + reach  # MP_REACH_NLRI
    return message(UPDATE, struct.pack("!H", 0) + struct.pack("!H", len(attrs)) + attrs)


# Destination 10.3.0.0/24; destination 2001:db8:3::/48 (offset 0).
FLOW4 = bytes([1, 24, 10, 3, 0])
FLOW6 = bytes([1, 48, 0, 0x20, 0x01, 0x0d, 0xb8, 0x00, 0x03])


class Speaker:
    """One TCP connection to a BGP speaker, driven by hand."""

    def __init__(self, local, remote, port, timeout=10):
        family = socket.AF_INET6 if ":" in remote else socket.AF_INET
        self.sock = socket.socket(family, socket.SOCK_STREAM)
        self.sock.settimeout(timeout)
        self.sock.bind((local, 0))
        self.sock.connect((remote, port))
        self.buffer = b""
        self.lock = threading.Lock()
        self.stopping = threading.Event()

    def send(self, data):
        with self.lock:
            self.sock.sendall(data)

    def read(self, timeout):
        """The next message as (type, body); None when the peer closed the connection."""
        deadline = time.monotonic() + timeout
        while True:
            if len(self.buffer) >= 19:
                length = struct.unpack("!H", self.buffer[16:18])[0]
                if len(self.buffer) >= length:
                    kind, body = self.buffer[18], self.buffer[19:length]
                    self.buffer = self.buffer[length:]
                    return kind, body
            left = deadline - time.monotonic()
            if left <= 0:
                raise Fail("no message from the agent in time")
            self.sock.settimeout(left)
            try:
                chunk = self.sock.recv(4096)
            except (ConnectionResetError, socket.timeout) as e:
                if isinstance(e, socket.timeout):
                    raise Fail("no message from the agent in time")
                return None
            if not chunk:
                return None
            self.buffer += chunk

    def expect(self, kind, timeout=10):
        m = self.read(timeout)
        if m is None or m[0] != kind:
            raise Fail(f"expected message type {kind}, got {m!r}")
        return m[1]

    def notification(self, timeout):
        """Reads until a NOTIFICATION (code, subcode, data) or the end of the connection (None)."""
        while True:
            m = self.read(timeout)
            if m is None:
                return None
            if m[0] == NOTIFICATION:
                return m[1][0], m[1][1], m[1][2:]

    def closed_after(self, timeout):
        """True when the other side closes the connection within timeout."""
        try:
            while self.read(timeout) is not None:
                pass
            return True
        except Fail:
            return False

    def establish(self, asn, bgp_id, hold):
        self.expect(OPEN)
        self.send(message(OPEN, open_body(asn, hold, bgp_id)))
        self.expect(KEEPALIVE)
        self.send(message(KEEPALIVE, b""))

    def keep_alive(self, interval):
        def run():
            while not self.stopping.wait(interval):
                try:
                    self.send(message(KEEPALIVE, b""))
                except OSError:
                    return
        threading.Thread(target=run, daemon=True).start()

    def close(self):
        self.stopping.set()
        self.sock.close()

# ----------------------------------------------------------------------------------------
# Peers. Each writes its configuration for both sessions (IPv4 from its own address to the
# agent's, IPv6 between ::1 ports), starts, announces flowspec rules, and tells whether it
# saw the agent's Cease.


class Peer:
    name = "?"

    def __init__(self, workdir, address, port, agent_address, agent_port, passive, asn=PEER_AS, ipv6=True,
                 locals=None, options=None):
        self.asn = asn
        self.ipv6 = ipv6
        self.workdir = workdir
        self.address = address
        self.port = port
        self.agent_address = agent_address
        self.agent_port = agent_port
        self.passive = passive
        # IPv4 sessions from these local addresses instead of `address` alone, and per local
        # address the session's options: "agent" (the agent's address it goes to),
        # "password", "ttl_security", "passive".
        self.locals = locals
        self.options = options or {}
        self.proc = None

    def sessions(self):
        """(our neighbor address as the agent sees it, the peer's local address, agent address)"""
        v4 = [(a, a, self.option(a, "agent", self.agent_address)) for a in (self.locals or [self.address])]
        return v4 + [("::1", "::1", "::1")] if self.ipv6 else v4

    def option(self, local, key, default=None):
        """The session option `key` of the session from `local`."""
        return self.options.get(local, {}).get(key, default)

    def listen_addresses(self):
        return sorted({self.address} | {local for _, local, _ in self.sessions()})

    def announce(self):
        pass

    def stop(self):
        return self.proc.stop() if self.proc else None

    def event_log(self):
        """Where the peer logs session events."""
        return self.proc.logpath

    def mark(self):
        """Remembers how far the event log goes, so saw_cease() reads only what follows."""
        self.marked = os.path.getsize(self.event_log()) if os.path.exists(self.event_log()) else 0

    def new_log_text(self):
        try:
            with open(self.event_log(), "rb") as f:
                f.seek(self.marked)
                return f.read().decode(errors="replace")
        except OSError:
            return ""

    def saw_cease(self):
        """True when the event log, since mark(), shows a Cease (Administrative Shutdown)
        received on every session."""
        text = self.new_log_text()
        return all(self.cease_logged(text, agent) for _, _, agent in self.sessions())


class GoBgp(Peer):
    name = "gobgp"
    # Graceful restart: advertised for both families when set; `restarting` starts gobgpd as a
    # speaker that restarted and kept its forwarding state (-r: the R and F bits).
    graceful = False
    restarting = False
    restart_time = 15  # seconds, advertised with graceful restart

    def start(self):
        self.api = free_port(self.address)
        cfg = os.path.join(self.workdir, "gobgpd.toml")
        lines = ["[global.config]", f"  as = {self.asn}", f'  router-id = "{self.address}"', f"  port = {self.port}",
                 f"  local-address-list = {json.dumps(self.listen_addresses())}"]
        for _, local, remote in self.sessions():
            lines += ["[[neighbors]]", "  [neighbors.config]", f'    neighbor-address = "{remote}"',
                      f"    peer-as = {LOCAL_AS}"]
            if self.option(local, "password"):
                lines.append(f'    auth-password = "{self.option(local, "password")}"')
            lines += ["  [neighbors.timers.config]", f"    hold-time = {HOLD}",
                      "    keepalive-interval = 1", "    connect-retry = 1", "  [neighbors.transport.config]",
                      f'    local-address = "{local}"', f"    remote-port = {self.agent_port}",
                      f"    passive-mode = {'true' if self.option(local, 'passive', self.passive) else 'false'}",
                      "  [neighbors.ebgp-multihop.config]", "    enabled = true", "    multihop-ttl = 2"]
            if self.graceful:
                lines += ["  [neighbors.graceful-restart.config]", "    enabled = true", f"    restart-time = {self.restart_time}"]
            for fam in self.option(local, "families", ("ipv4-flowspec", "ipv6-flowspec")):
                lines += ["  [[neighbors.afi-safis]]", "    [neighbors.afi-safis.config]",
                          f'      afi-safi-name = "{fam}"']
                if self.graceful:
                    lines += ["    [neighbors.afi-safis.mp-graceful-restart.config]", "      enabled = true"]
        with open(cfg, "w") as f:
            f.write("\n".join(lines) + "\n")
        self.proc = Process("gobgpd", ["gobgpd", "-f", cfg, "--api-hosts", f"{self.address}:{self.api}", "-p",
                                       "--pprof-disable", "-l", "info"] + (["-r"] if self.restarting else []), self.workdir)

    def gobgp(self, *args):
        r = subprocess.run(["gobgp", "-u", self.address, "-p", str(self.api)] + list(args), capture_output=True,
                           text=True, timeout=10)
        if r.returncode != 0:
            raise RuntimeError(f"gobgp {' '.join(args)}: {r.stderr.strip()}")
        return r.stdout

    def announce(self):
        wait_until("gobgp API", lambda: self.gobgp("global") is not None, 15)
        self.gobgp("global", "rib", "-a", "ipv4-flowspec", "add", "match", "destination", "10.0.0.0/24",
                   "protocol", "tcp", "destination-port", "==80", "then", "discard")
        self.gobgp("global", "rib", "-a", "ipv6-flowspec", "add", "match", "destination", "2001:db8::/32",
                   "then", "rate-limit", "1000")

    def cease_logged(self, text, agent):
        key = f'Key="{agent}"' if ":" in agent else f"Key={agent}"
        return any("received notification" in line and "Code=6" in line and "Subcode=2" in line and key in line
                   for line in text.splitlines())


class Bird(Peer):
    name = "bird"
    # Static flowspec routes: (flow4 match, extended communities as (generic, hi, lo) pairs).
    flow4 = [("dst 10.1.0.0/24; proto 6; dport 80, 443;", [(0x80060000, 0)])]
    flow6 = [("dst 2001:db8:1::/48; next header 17;", [(0x80060000, 0)])]
    # Extra AS numbers its exports prepend (a longer AS_PATH).
    prepend = 0
    # Graceful restart on its sessions; `restarting` starts it in recovery (-R: the R and F bits).
    graceful = False
    restarting = False

    def start(self):
        cfg = os.path.join(self.workdir, "bird.conf")
        self.ctl = os.path.join(self.workdir, "bird.ctl")

        def statics(kind, routes):
            body = "".join(f"  route {kind} {{ {match} }} {{ " +
                           "".join(f"bgp_ext_community.add((generic, {hi:#x}, {lo:#x})); " for hi, lo in comms) + "};"
                           for match, comms in routes)
            return f"protocol static {{ {kind} {{ table {'ft4' if kind == 'flow4' else 'ft6'}; }};" + body + " }"
        export = "export all;" if not self.prepend else (
            "export filter { " + "bgp_path.prepend(%d); " % self.asn * self.prepend + "accept; };")
        lines = [f"router id {self.address};", f'log "{os.path.join(self.workdir, "bird-events.log")}" all;',
                 "flow4 table ft4;", "flow6 table ft6;", statics("flow4", self.flow4), statics("flow6", self.flow6)]
        for i, (_, local, remote) in enumerate(self.sessions()):
            lines += [f"protocol bgp agent{i} {{", f"  local {local} port {self.port} as {self.asn};",
                      f"  neighbor {remote} port {self.agent_port} as {LOCAL_AS};", "  multihop 2; strict bind on;",
                      f"  hold time {HOLD}; keepalive time 1; connect retry time 1; connect delay time 1;",
                      "  error wait time 1, 2;",
                      f"  passive {'on' if self.option(local, 'passive', self.passive) else 'off'};",
                      "  graceful restart on;" if self.graceful else ""]
            if self.option(local, "password"):
                lines.append(f'  password "{self.option(local, "password")}";')
            if self.option(local, "ttl_security"):
                lines.append("  ttl security on;")
            lines += [f"  flow4 {{ table ft4; import all; {export} }};",
                      f"  flow6 {{ table ft6; import all; {export} }};", "}"]
        with open(cfg, "w") as f:
            f.write("\n".join(lines) + "\n")
        self.proc = Process("bird", ["bird", "-f", "-c", cfg, "-s", self.ctl, "-P",
                                     os.path.join(self.workdir, "bird.pid")] + (["-R"] if self.restarting else []),
                            self.workdir)

    def event_log(self):
        return os.path.join(self.workdir, "bird-events.log")

    def cease_logged(self, text, agent):
        i = [s[2] for s in self.sessions()].index(agent)
        return any(f"agent{i}: Received: Administrative shutdown" in line for line in text.splitlines())


class ExaBgp(Peer):
    name = "exabgp"
    # Its own rules, announced from the configuration; and whether the API process also hears
    # the UPDATEs it receives (ExaBGP prints received routes only that way).
    routes = True
    receive_updates = False

    def start(self):
        cfg = os.path.join(self.workdir, "exabgp.conf")
        # ExaBGP logs no received NOTIFICATION; an API process writes what it hears as JSON.
        events = os.path.join(self.workdir, "exabgp-events.log")
        helper = os.path.join(self.workdir, "exabgp-events.sh")
        with open(helper, "w") as f:
            # The shell keeps standard output open: ExaBGP takes its end for the helper's.
            f.write(f"#!/bin/sh\ncat >> '{events}'\n")
        os.chmod(helper, 0o755)
        lines = ["process events {", f"  run {helper};", "  encoder json;", "}"]
        for _, local, remote in self.sessions():
            lines += [f"neighbor {remote} {{", f"  router-id {self.address};", f"  local-address {local};",
                      f"  local-as {PEER_AS};", f"  peer-as {LOCAL_AS};", f"  hold-time {HOLD};",
                      f"  connect {self.agent_port};", f"  passive {'true' if self.passive else 'false'};",
                      "  family { ipv4 flow; ipv6 flow; }",
                      "  api { processes [ events ]; neighbor-changes; receive { parsed; notification;"
                      + (" update;" if self.receive_updates else "") + " } }"]
            if self.routes:
                lines += ["  flow {",
                          "    route web { match { destination 10.2.0.0/24; protocol tcp; destination-port =80; }"
                          " then { discard; } }",
                          "    route v6 { match { destination 2001:db8:2::/48/0; next-header udp; }"
                          " then { rate-limit 9600; } }",
                          "  }"]
            lines.append("}")
        with open(cfg, "w") as f:
            f.write("\n".join(lines) + "\n")
        env = dict(os.environ)
        env.update({"exabgp.tcp.bind": f"{self.address} ::1", "exabgp.tcp.port": str(self.port),
                    "exabgp.daemon.user": "root", "exabgp.daemon.drop": "false",
                    "exabgp.daemon.daemonize": "false", "exabgp.api.cli": "false",
                    "exabgp.log.destination": "stdout", "exabgp.log.level": "INFO"})
        self.proc = Process("exabgp", ["exabgp", cfg], self.workdir, env=env)

    def event_log(self):
        return os.path.join(self.workdir, "exabgp-events.log")

    def cease_logged(self, text, agent):
        for line in text.splitlines():
            try:
                event = json.loads(line)
            except ValueError:
                continue
            n = event.get("neighbor", {})
            if event.get("type") == "notification" and n.get("address", {}).get("peer") == agent:
                if n.get("notification", {}).get("code") == 6 and n["notification"].get("subcode") == 2:
                    return True
        return False


class Frr(Peer):
    """FRR's bgpd without zebra. It cannot originate flowspec rules from its configuration,
    so a speaker written here (AS 65099) feeds it rules, which it passes on to the agent."""
    name = "frr"
    FEEDER_AS = 65099

    def start(self):
        self.feeder_address = self.address[:self.address.rindex(".")] + ".3"
        cfg = os.path.join(self.workdir, "frr.conf")
        vty = os.path.join(self.workdir, "frr-vty")
        os.makedirs(vty, exist_ok=True)
        lines = ["hostname interop-frr", "debug bgp neighbor-events", "debug bgp updates in", "debug bgp flowspec", "router bgp %d" % PEER_AS,
                 f" bgp router-id {self.address}", " bgp log-neighbor-changes",
                 " no bgp ebgp-requires-policy", " no bgp default ipv4-unicast", " no bgp network import-check",
                 f" timers bgp 1 {HOLD}"]
        peers = [(remote, local, LOCAL_AS, self.agent_port, self.option(local, "passive", self.passive))
                 for _, local, remote in self.sessions()]
        peers.append((self.feeder_address, self.address, self.FEEDER_AS, None, True))
        for remote, local, asn, port, passive in peers:
            lines += [f" neighbor {remote} remote-as {asn}", f" neighbor {remote} update-source {local}",
                      f" neighbor {remote} disable-connected-check", f" neighbor {remote} timers connect 1",
                      f" neighbor {remote} timers 1 {HOLD}"]
            if port:
                lines.append(f" neighbor {remote} port {port}")
            if passive:
                lines.append(f" neighbor {remote} passive")
            if port and self.option(local, "password"):
                lines.append(f" neighbor {remote} password {self.option(local, 'password')}")
            if port and self.option(local, "ttl_security"):
                lines.append(f" neighbor {remote} ttl-security hops 1")
        for fam in ("ipv4", "ipv6"):
            lines.append(f" address-family {fam} flowspec")
            lines += [f"  neighbor {p[0]} activate" for p in peers]
            lines.append(" exit-address-family")
        with open(cfg, "w") as f:
            f.write("\n".join(lines) + "\n")
        listen = [arg for a in self.listen_addresses() + ["::1"] for arg in ("-l", a)]
        self.proc = Process("frr-bgpd", ["/usr/lib/frr/bgpd", "-S", "-Z", "-n", "-p", str(self.port)] + listen +
                            ["-P", "0", "-f", cfg, "-i", os.path.join(self.workdir, "bgpd.pid"),
                             "--vty_socket", vty, "--log", "stdout", "--log-level", "debug"],
                            self.workdir)
        self.feeder = None

    def announce(self):
        # The feeder connects to FRR (which waits for it) and announces one rule per family.
        def connect():
            self.feeder = Speaker(self.feeder_address, self.address, self.port)
            return True
        wait_until("FRR to accept the feeder", connect, 20)
        self.feeder.establish(self.FEEDER_AS, ip_id(self.feeder_address), HOLD)
        self.feeder.keep_alive(1)
        self.feeder.send(flowspec_update(self.FEEDER_AS, 1, FLOW4))
        self.feeder.send(flowspec_update(self.FEEDER_AS, 2, FLOW6))

    def stop(self):
        if self.feeder:
            self.feeder.close()
            self.feeder = None
        return super().stop()

    def cease_logged(self, text, agent):
        return any("received from neighbor" in line.lower() and agent in line and "6/2" in line
                   for line in text.splitlines())


PEERS = {"gobgp": GoBgp, "bird": Bird, "exabgp": ExaBgp, "frr": Frr}


def peer_test(bins, workdir, name, direction):
    base = {"gobgp": 10, "bird": 12, "exabgp": 14, "frr": 16}[name] + (0 if direction == "we-connect" else 1)
    agent_address, peer_address = f"127.0.{base}.1", f"127.0.{base}.2"
    agent_port = free_port(agent_address, "::1")
    peer_port = free_port(peer_address, "::1")
    we_connect = direction == "we-connect"
    peer = PEERS[name](workdir, peer_address, peer_port, agent_address, agent_port, passive=we_connect)
    neighbors = []
    for seen_as, _, _ in peer.sessions():
        neighbors.append({"address": seen_as, "port": peer_port, "remote-as": PEER_AS, "passive": not we_connect,
                          "hold-time": HOLD, "connect-retry": 1, "families": ["ipv4-flowspec", "ipv6-flowspec"],
                          "description": f"{name} over {'IPv6' if ':' in seen_as else 'IPv4'}"})
    agent = Agent(bins, workdir, agent_address, agent_port, neighbors)
    addresses = [n["address"] for n in neighbors]
    both = ["ipv4-flowspec", "ipv6-flowspec"]
    # The agent passes what one session taught it to the other (the peer drops it: its own AS
    # is in the path); what goes out over IPv4 is captured and must decode cleanly.
    capture = LoopbackCapture(os.path.join(workdir, "agent-sent.pcap"), agent_address, (agent_port, peer_port))
    results = {}
    try:
        peer.start()
        agent.start()
        first = {}
        for a in addresses:
            n = agent.wait_state(a, "Established", 40, lambda n: sorted(n["families"]) == both)
            first[a] = n
            log(f"{a}: Established, families {n['families']}, hold time {n['holdTime']}, "
                f"local {n['localEndpoint']}, remote {n['remoteEndpoint']}")
            # The direction shows in the ports: the side that connected uses an ephemeral one.
            connected_out = n["remoteEndpoint"].endswith(f":{peer_port}")
            if connected_out != we_connect:
                raise Fail(f"{a}: session in the wrong direction ({n['localEndpoint']} -> {n['remoteEndpoint']})")
            if n["holdTime"] != HOLD:
                raise Fail(f"{a}: negotiated hold time {n['holdTime']}, wanted {HOLD}")
        results["established"] = "ok"

        time.sleep(HOLD + 1.5)
        for a in addresses:
            n = agent.neighbor(a)
            if n["state"] != "Established" or n["establishedTransitions"] != first[a]["establishedTransitions"]:
                raise Fail(f"{a}: did not stay up past one hold time: {n['state']}, last error {n['lastError']!r}")
            if n["keepalivesIn"] <= first[a]["keepalivesIn"]:
                raise Fail(f"{a}: no keepalives received in {HOLD + 1.5}s")
        log(f"sessions stayed up past the hold time of {HOLD}s")
        results["keepalives"] = "ok"

        peer.announce()
        for a in addresses:
            n = wait_until(f"{a}: flowspec UPDATEs of both families", lambda a=a: (
                lambda n: n if all(n["familyUpdatesIn"].get(f, 0) > 0 for f in both) else None)(agent.neighbor(a)), 20)
            log(f"{a}: UPDATEs in {n['updatesIn']}, per family {n['familyUpdatesIn']}, End-of-RIB {n['endOfRibIn']}")
            # Every UPDATE went through the decoder and the flowspec plugin, whole.
            u = agent.updates()[a]
            if u["outcomes"]["accept"] != u["messages"] or any(f["refused"] for f in u["families"].values()):
                raise Fail(f"{a}: UPDATEs not decoded whole: {u}")
            if not all(u["families"].get(f, {}).get("rules", 0) > 0 for f in both):
                raise Fail(f"{a}: no rules held for both families: {u}")
            log(f"{a}: decoded {u['messages']} UPDATE(s), rules held "
                f"{ {f: v['rules'] for f, v in u['families'].items()} }")
        results["updates"] = "ok"
        # Both sessions announce the same rules; the one whose path loses gets the winner's.
        if peer.ipv6:
            sent = lambda n: n if all(n["rulesAdvertised"].get(f, 0) > 0 for f in both) else None
            wait_until("one session's rules sent over the other", lambda: any(
                sent(agent.neighbor(a)) for a in addresses), 10)
            for a in addresses:
                n = agent.neighbor(a)
                log(f"{a}: sent {n['familyUpdatesOut']} UPDATE(s), holds {n['rulesAdvertised']} rules from us")

        before = {a: agent.neighbor(a)["establishedTransitions"] for a in addresses}
        peer.stop()
        for a in addresses:
            agent.wait_state(a, "Active", 15, lambda n: True) if not we_connect else wait_until(
                f"{a}: session down", lambda a=a: agent.neighbor(a)["state"] != "Established", 15)
        log("peer stopped: sessions down; restarting it")
        peer.start()
        for a in addresses:
            n = agent.wait_state(a, "Established", 40,
                                 lambda n, a=a: n["establishedTransitions"] == before[a] + 1)
            log(f"{a}: new session after the peer's restart (establishedTransitions {n['establishedTransitions']})")
        results["restart"] = "ok"

        peer.mark()
        status = agent.stop()
        if status != 0:
            raise Fail(f"flowspecd exited with status {status} on SIGTERM")
        wait_until(f"{name} to log the Cease", peer.saw_cease, 10)
        log(f"{name} received our Cease (Administrative Shutdown)")
        results["cease"] = "ok"
    finally:
        capture.stop()
        agent.stop()
        peer.stop()
    check_capture(bins, capture, announced=2 if peer.ipv6 else 0, withdrawn=0)
    results["capture"] = "ok"
    return results

# ----------------------------------------------------------------------------------------
# Best path and the forwarding export: GoBGP (AS 65002) and BIRD (AS 65003, a longer AS_PATH)
# announce IPv4 rules with every action; what reaches the FSIB is read by another process.

DROP, POLICE, REDIRECT, SET_DSCP = 0x04, 0x08, 0x20, 0x40
NO_VRF = 0xffffff


def vrf_config(route_target):
    return f'\n[[vrf]]\nname = "scrubbing"\nid = 10\nimport-route-targets = ["{route_target}"]\n'


def rule_of(fsib, prefix):
    """The FSIB rule whose destination prefix is `prefix`, or None."""
    return next((r for k, r in fsib.items() if k.startswith(prefix + ";")), None)


def fsib_matches(agent, want):
    """want: destination prefix -> predicate of its rule (None: the rule must be absent).
    The FSIB when every rule is as wanted and no other IPv4 rule is there, else None."""
    fsib = agent.fsib()
    v4 = [k for k in fsib if ":" not in k.split(";")[0]]
    if len(v4) != sum(1 for p in want.values() if p is not None):
        return None
    for prefix, pred in want.items():
        r = rule_of(fsib, prefix)
        if (pred is None) != (r is None) or (r is not None and not pred(r)):
            return None
    return fsib or "an empty FSIB"


def is_drop(r):
    return r["actionBits"] & DROP and not r["actionBits"] & POLICE


def is_police(rate):
    return lambda r: r["actionBits"] & POLICE and abs(r["rate"] - rate) < 0.5


def export_test(bins, workdir):
    agent_address, gobgp_address, bird_address = "127.0.20.1", "127.0.20.2", "127.0.20.3"
    agent_port = free_port(agent_address, "::1")
    gobgp = GoBgp(workdir, gobgp_address, free_port(gobgp_address), agent_address, agent_port, passive=False,
                  asn=65002, ipv6=False)
    bird = Bird(workdir, bird_address, free_port(bird_address), agent_address, agent_port, passive=False,
                asn=65003, ipv6=False)
    # The same rule as GoBGP's first, policed instead of dropped; and a redirect to an address.
    bird.flow4 = [("dst 10.1.0.0/24; proto 6;", [(0x80060000, 0x447a0000)]),
                  ("dst 10.5.0.0/24;", [(0x010cc000, 0x02010000)])]
    bird.flow6 = []
    bird.prepend = 1
    neighbors = [{"address": p.address, "port": p.port, "remote-as": p.asn, "passive": True, "hold-time": HOLD,
                  "connect-retry": 1, "description": p.name} for p in (gobgp, bird)]
    agent = Agent(bins, workdir, agent_address, agent_port, neighbors, extra=vrf_config("65000:100"))
    # The agent passes each peer's rules to the other: what it sends is checked at the end.
    capture = LoopbackCapture(os.path.join(workdir, "agent-sent.pcap"), agent_address)
    results = {}
    gobgp_rules = [["destination", "10.1.0.0/24", "protocol", "tcp", "then", "discard"],
                   ["destination", "10.2.0.0/24", "then", "rate-limit", "1000"],
                   ["destination", "10.3.0.0/24", "then", "mark", "10"],
                   ["destination", "10.4.0.0/24", "then", "redirect", "65000:100"]]
    redirect_vrf = lambda r: r["actionBits"] & REDIRECT and r["redirect"]["vrfId"] == 10
    every = {"10.1.0.0/24": is_drop, "10.2.0.0/24": is_police(1000),
             "10.3.0.0/24": lambda r: r["actionBits"] & SET_DSCP and r["dscp"] == 10,
             "10.4.0.0/24": redirect_vrf,
             "10.5.0.0/24": lambda r: r["actionBits"] & REDIRECT and r["redirect"]["address"] == "192.0.2.1"}
    try:
        gobgp.start()
        bird.start()
        agent.start()
        for p in (gobgp, bird):
            agent.wait_state(p.address, "Established", 40)
        up = {p.address: agent.neighbor(p.address)["establishedTransitions"] for p in (gobgp, bird)}
        wait_until("gobgp API", lambda: gobgp.gobgp("global") is not None, 15)
        for r in gobgp_rules:
            gobgp.gobgp("global", "rib", "-a", "ipv4-flowspec", "add", "match", *r)

        # Both announce 10.1.0.0/24 proto 6: GoBGP's shorter AS_PATH wins, so the rule drops.
        wait_until("every rule in the FSIB with its action", lambda: fsib_matches(agent, every), 20)
        summary = agent.ask("show", "summary", "--json")
        default = next(v for v in summary["vrfs"] if v["name"] == "default")["families"]["ipv4-flowspec"]
        if (default["rules"], default["paths"]) != (5, 6):
            raise Fail(f"best-path table: {default['rules']} rules, {default['paths']} paths; wanted 5 and 6")
        n = agent.neighbors()
        got = {p.name: (n[p.address]["rulesReceived"].get("ipv4-flowspec"),
                        n[p.address]["rulesAccepted"].get("ipv4-flowspec")) for p in (gobgp, bird)}
        if got != {"gobgp": (4, 4), "bird": (2, 1)}:
            raise Fail(f"rules received and accepted per peer: {got}")
        log(f"best paths: 5 rules from 6 paths, GoBGP's drop wins over BIRD's longer AS_PATH; per peer {got}")
        results["best-path"] = "ok"
        results["actions"] = "ok"

        # GoBGP withdraws the shared rule: BIRD's path becomes best and the rule polices.
        gobgp.gobgp("global", "rib", "-a", "ipv4-flowspec", "del", "match", *gobgp_rules[0][:4])
        after_withdraw = dict(every, **{"10.1.0.0/24": is_police(1000)})
        wait_until("BIRD's path of the shared rule in the FSIB", lambda: fsib_matches(agent, after_withdraw), 15)
        log("withdrawn by GoBGP: BIRD's path is best and the rule polices at 1000 bytes/s")
        results["withdraw"] = "ok"

        # The VRF stops importing the route target, then imports it again: the redirect follows.
        agent.reload(vrf_config("65000:200"))
        no_redirect = dict(after_withdraw, **{"10.4.0.0/24": lambda r: not r["actionBits"] & REDIRECT})
        wait_until("the redirect to the VRF gone after SIGHUP", lambda: fsib_matches(agent, no_redirect), 15)
        agent.reload(vrf_config("65000:100"))
        wait_until("the redirect to the VRF back after SIGHUP", lambda: fsib_matches(agent, after_withdraw), 15)
        for p in (gobgp, bird):
            if agent.neighbor(p.address)["establishedTransitions"] != up[p.address]:
                raise Fail(f"{p.name}: the session went down across the reloads")
        log("SIGHUP: the import list moved the redirect to VRF 10 away and back, sessions kept")
        results["reload"] = "ok"

        # GoBGP's session goes: its rules leave the FSIB, BIRD's stay.
        gobgp.stop()
        birds = {"10.1.0.0/24": is_police(1000), "10.5.0.0/24": every["10.5.0.0/24"],
                 "10.2.0.0/24": None, "10.3.0.0/24": None, "10.4.0.0/24": None}
        wait_until("GoBGP's rules gone with its session", lambda: fsib_matches(agent, birds), 15)
        log("GoBGP's session lost: its rules left the FSIB, BIRD's stayed")
        results["session-loss"] = "ok"

        # The agent stops: the FSIB stays for the forwarding plane. Started again without
        # peers it empties the FSIB; BIRD's rules come back with BIRD's session.
        if agent.stop(keep_fsib=True) != 0:
            raise Fail("flowspecd did not exit cleanly on SIGTERM")
        if fsib_matches(agent, birds) is None:
            raise Fail("the FSIB did not keep its rules when the agent stopped")
        bird.stop()
        agent.start()
        empty = {k: None for k in birds}
        wait_until("the restarted agent to empty the FSIB", lambda: fsib_matches(agent, empty), 15)
        bird.start()
        wait_until("BIRD's rules back in the FSIB", lambda: fsib_matches(agent, birds), 40)
        log("restart: the FSIB held exactly the current rules")
        results["restart"] = "ok"
    finally:
        capture.stop()
        agent.stop()
        gobgp.stop()
        bird.stop()
    check_capture(bins, capture, announced=6, withdrawn=1)
    results["capture"] = "ok"
    return results


def show_test(bins, workdir):
    """GoBGP and BIRD announce overlapping rules; the route table lists them in the order
    forwarding applies them (RFC 8955 section 5.1), the shared rule with both paths."""
    agent_address, gobgp_address, bird_address = "127.0.21.1", "127.0.21.2", "127.0.21.3"
    agent_port = free_port(agent_address, "::1")
    gobgp = GoBgp(workdir, gobgp_address, free_port(gobgp_address), agent_address, agent_port, passive=False,
                  asn=65002, ipv6=False)
    bird = Bird(workdir, bird_address, free_port(bird_address), agent_address, agent_port, passive=False,
                asn=65003, ipv6=False)
    bird.flow4 = [("dst 10.1.0.0/24; proto 6;", [(0x80060000, 0x447a0000)]),
                  ("dst 10.1.0.0/24; proto 6; dport 80;", [(0x80060000, 0)])]
    bird.flow6 = []
    bird.prepend = 1
    neighbors = [{"address": p.address, "port": p.port, "remote-as": p.asn, "passive": True, "hold-time": HOLD,
                  "connect-retry": 1, "description": p.name} for p in (gobgp, bird)]
    agent = Agent(bins, workdir, agent_address, agent_port, neighbors)
    gobgp_rules = [["destination", "10.1.0.0/24", "protocol", "tcp", "then", "discard"],
                   ["destination", "10.1.0.0/16", "then", "rate-limit", "1000"],
                   ["destination", "10.1.0.128/25", "then", "discard"]]
    # Longer destination first among overlapping ones; with equal destinations, a rule with
    # a destination port before one without.
    order = ["10.1.0.128/25;*;", "10.1.0.0/24;*;protocol =6;destination-port =80;", "10.1.0.0/24;*;protocol =6;",
             "10.1.0.0/16;*;"]
    results = {}

    def table(*args):
        return agent.ask("show", "flowspec", "ipv4", "--json", *args)["rules"]

    try:
        gobgp.start()
        bird.start()
        agent.start()
        for p in (gobgp, bird):
            agent.wait_state(p.address, "Established", 40)
        wait_until("gobgp API", lambda: gobgp.gobgp("global") is not None, 15)
        for r in gobgp_rules:
            gobgp.gobgp("global", "rib", "-a", "ipv4-flowspec", "add", "match", *r)
        wait_until("every rule in the route table", lambda: len(table()) == len(order), 20)
        wait_until("both paths of the shared rule",
                   lambda: len(next(r for r in table() if r["rule"] == order[2])["paths"]) == 2, 20)
        rules = table()
        if [r["rule"] for r in rules] != order:
            raise Fail(f"rule order: {[r['rule'] for r in rules]}; wanted {order}")
        shared = rules[2]
        peers = [(p["peer"], p["best"]) for p in shared["paths"]]
        # GoBGP's shorter AS_PATH wins.
        if peers != [(gobgp_address, True), (bird_address, False)]:
            raise Fail(f"paths of the shared rule: {peers}")
        if not all(r["inFsib"] and r["notInFsibReason"] is None for r in rules):
            raise Fail(f"FSIB status: {[(r['rule'], r['inFsib'], r['notInFsibReason']) for r in rules]}")
        log(f"rule order {order}; the shared rule's paths {peers}")
        results["order"] = "ok"

        if [r["rule"] for r in table("--from", order[1], "--limit", "2")] != order[1:3]:
            raise Fail("--from with --limit did not give the two rules from the given one")
        # 10.1.0.0/32 sorts before 10.1.0.128/25 (no overlap, lower address): every rule follows.
        if [r["rule"] for r in table("--dest", "10.1.0.77/24")] != order:
            raise Fail("--dest 10.1.0.77/24 did not start at the first rule")
        if table("--dest", "10.2.0.0/16") != []:
            raise Fail("--dest 10.2.0.0/16 listed rules that sort before it")
        one = agent.ask("show", "flowspec", "ipv4", "rule", "10.1.0.0/16 ; * ;", "--json")["rules"]
        if [r["rule"] for r in one] != [order[3]]:
            raise Fail(f"rule lookup: {one}")
        r = subprocess.run([agent.flowspec, "--socket", agent.socket, "show", "flowspec", "ipv4", "rule",
                            "10.9.0.0/16;*;"], capture_output=True, text=True, timeout=10)
        if r.returncode != 1 or "no rule" not in r.stderr:
            raise Fail(f"a rule not there: exit {r.returncode}, {r.stderr.strip()}")
        r = subprocess.run([agent.flowspec, "--socket", agent.socket, "show", "flowspec", "ipv4", "advertised",
                            "127.0.21.99", order[0]], capture_output=True, text=True, timeout=10)
        if r.returncode != 2 or "unknown neighbor" not in r.stderr:
            raise Fail(f"advertised to an unknown neighbor: exit {r.returncode}, {r.stderr.strip()}")
        log("--from, --limit, --dest, one rule and the failures answered as expected")
        results["starts"] = "ok"

        # What each peer was sent, from the sessions' RIB-outs: GoBGP's rule goes to BIRD
        # with our AS in front, and not back to GoBGP.
        def advertised(peer):
            return subprocess.run([agent.flowspec, "--socket", agent.socket, "show", "flowspec", "ipv4",
                                   "advertised", peer, order[0], "--json"], capture_output=True, text=True, timeout=10)

        wait_until("the rule advertised to BIRD", lambda: advertised(bird_address).returncode == 0, 20)
        sent = json.loads(advertised(bird_address).stdout)["advertised"]
        if len(sent) != 1 or sent[0]["source"] != gobgp_address or sent[0]["asPath"] != f"{LOCAL_AS} 65002":
            raise Fail(f"advertised to BIRD: {sent}")
        r = advertised(gobgp_address)
        if r.returncode != 1 or "not advertised" not in r.stderr:
            raise Fail(f"advertised back to GoBGP: exit {r.returncode}, {r.stdout.strip()} {r.stderr.strip()}")
        log(f"advertised to BIRD: {sent[0]['asPath']}; nothing back to GoBGP")
        results["advertised"] = "ok"
    finally:
        agent.stop()
        gobgp.stop()
        bird.stop()
    return results


# ----------------------------------------------------------------------------------------
# Faults: misbehaving peers, each with its own address, against one agent that also peers
# with BIRD. Each fault must end in its NOTIFICATION while the BIRD sessions stay up.


def fault_cases(agent_as):
    good_open = message(OPEN, open_body(PEER_AS, HOLD, ip_id("10.9.9.9")))
    return [
        # name, what the peer sends after the agent's OPEN, expected (code, subcode, data)
        ("garbage", b"\x5a" * 40, (1, 1, b"")),
        ("truncated OPEN", message(OPEN, b"\x04\xfd\xea\x00\x03\x0a", length=25), (1, 2, b"\x00\x19")),
        ("wrong marker", b"\x00" + good_open[1:], (1, 1, b"")),
        ("OPEN version 3", message(OPEN, open_body(PEER_AS, HOLD, ip_id("10.9.9.9"), version=3)), (2, 1, b"\x00\x04")),
        ("OPEN from the wrong AS", message(OPEN, open_body(PEER_AS + 100, HOLD, ip_id("10.9.9.9"))), (2, 2, b"")),
        ("hold timer expiry", None, (4, 0, b"")),
    ]


def fault_test(bins, workdir):
    agent_address, bird_address = "127.0.20.1", "127.0.20.2"
    agent_port = free_port(agent_address, "::1")
    bird_port = free_port(bird_address, "::1")
    bird = Bird(workdir, bird_address, bird_port, agent_address, agent_port, passive=True)
    cases = fault_cases(LOCAL_AS)
    fault_addresses = [f"127.0.20.{10 + i}" for i in range(len(cases))]
    neighbors = [{"address": a, "port": bird_port, "remote-as": PEER_AS, "hold-time": HOLD, "connect-retry": 1,
                  "description": "BIRD"} for a, _, _ in bird.sessions()]
    neighbors += [{"address": a, "remote-as": PEER_AS, "passive": True, "hold-time": HOLD, "description": c[0]}
                  for a, c in zip(fault_addresses, cases)]
    agent = Agent(bins, workdir, agent_address, agent_port, neighbors)
    results = {}
    try:
        bird.start()
        agent.start()
        good = [a for a, _, _ in bird.sessions()]
        for a in good:
            agent.wait_state(a, "Established", 40)
        log("BIRD sessions Established; starting the faulty peers")
        for a in fault_addresses:
            agent.wait_state(a, "Active", 10)

        outcomes = {}

        def run(address, case):
            name, payload, _ = case
            peer = None
            try:
                peer = Speaker(address, agent_address, agent_port)
                if payload is None:
                    # A well-behaved start, then silence: the agent's hold timer must expire.
                    peer.establish(PEER_AS, ip_id(address), HOLD)
                else:
                    peer.expect(OPEN)
                    peer.send(payload)
                got = peer.notification(HOLD + 5)
                closed = got is not None and peer.closed_after(5)
                outcomes[name] = (got, closed)
            except Exception as e:
                outcomes[name] = (e, False)
            finally:
                if peer:
                    peer.close()

        threads = [threading.Thread(target=run, args=(a, c)) for a, c in zip(fault_addresses, cases)]
        for t in threads:
            t.start()
        for t in threads:
            t.join(30)
        failures = []
        for address, (name, _, expected) in zip(fault_addresses, cases):
            got, closed = outcomes.get(name, (None, False))
            n = agent.neighbor(address)
            wanted = f"({expected[0]}/{expected[1]})"
            if got != expected:
                failures.append(f"{name}: expected NOTIFICATION {expected}, got {got!r}")
            elif not closed:
                failures.append(f"{name}: the agent did not close the connection after its NOTIFICATION")
            elif not n["lastError"].startswith("sent NOTIFICATION") or wanted not in n["lastError"]:
                failures.append(f"{name}: last error {n['lastError']!r}")
            else:
                log(f"{name}: NOTIFICATION {expected[0]}/{expected[1]} and close; last error {n['lastError']!r}")
                results[name] = "ok"
        if failures:
            raise Fail("; ".join(failures))
        for a in good:
            n = agent.neighbor(a)
            if n["state"] != "Established" or n["establishedTransitions"] != 1:
                raise Fail(f"the BIRD session {a} did not stay up: {n['state']}, {n['lastError']!r}")
        log("the BIRD sessions stayed Established throughout")
        results["others stay up"] = "ok"
        if agent.stop() != 0:
            raise Fail("flowspecd did not exit cleanly")
    finally:
        agent.stop()
        bird.stop()
    return results


# ----------------------------------------------------------------------------------------
# Re-advertisement: GoBGP -> flowspecd -> BIRD, with every UPDATE the agent sends captured.


class LoopbackCapture:
    """Captures, on the loopback interface, the TCP packets the agent sends into a pcap file
    (root: an AF_PACKET socket; no capture tool needed): IPv4 ones from `source`, and with
    `ports` (the agent's listening port, the peer's port) IPv6 ones from ::1 that leave the
    agent's port or go to the peer's."""

    def __init__(self, path, source, ports=None):
        self.path = path
        self.source = socket.inet_aton(source)
        self.ports = ports
        self.sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0003))
        self.sock.bind(("lo", 0))
        self.sock.settimeout(0.2)
        self.out = open(path, "wb")
        self.out.write(struct.pack("<IHHiIII", 0xa1b2c3d4, 2, 4, 0, 0, 65535, 1))  # Ethernet
        self.stopping = False
        self.packets = 0
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def wanted(self, frame):
        if frame[12:14] == b"\x08\x00" and len(frame) >= 34:
            return frame[23] == 6 and frame[26:30] == self.source
        if frame[12:14] == b"\x86\xdd" and self.ports and len(frame) >= 58 and frame[20] == 6:
            sport, dport = struct.unpack("!HH", frame[54:58])
            return frame[22:38] == socket.inet_pton(socket.AF_INET6, "::1") and (
                sport == self.ports[0] or dport == self.ports[1])
        return False

    def run(self):
        while not self.stopping:
            try:
                frame, meta = self.sock.recvfrom(65535)
            except socket.timeout:
                continue
            # Loopback frames are seen twice (outgoing and incoming): keep the outgoing copy.
            if meta[2] != socket.PACKET_OUTGOING or not self.wanted(frame):
                continue
            now = time.time()
            self.out.write(struct.pack("<IIII", int(now), int((now % 1) * 1e6), len(frame), len(frame)) + frame)
            self.packets += 1

    def stop(self):
        self.stopping = True
        self.thread.join(5)
        self.sock.close()
        self.out.close()


def bird_routes(bird, table):
    """`birdc show route table T all`, as text."""
    r = subprocess.run(["birdc", "-s", bird.ctl, "show", "route", "table", table, "all"], capture_output=True,
                       text=True, timeout=10)
    return r.stdout


def check_capture(bins, capture, announced, withdrawn):
    """Every UPDATE the agent sent, as captured, reads back cleanly with the project's own
    decoder (`flowspec decode --pcap`): no error, no refused NLRI; and at least so many rules
    were announced and withdrawn."""
    r = subprocess.run([bins[1], "decode", "--pcap", capture.path, "--json"], capture_output=True, text=True,
                       timeout=30)
    if r.returncode != 0:
        raise Fail(f"flowspec decode --pcap: {r.stderr.strip()}")
    sent = [json.loads(line) for line in r.stdout.splitlines() if line.startswith("{")]
    sent = [u for u in sent if "index" in u]
    bad = [u for u in sent if u.get("errors") or u.get("outcome") != "accept" or
           any(not x.get("ok", True) for x in u.get("announced", []) + u.get("withdrawn", []))]
    got = (sum(len(u.get("announced", [])) for u in sent), sum(len(u.get("withdrawn", [])) for u in sent))
    if bad or got[0] < announced or got[1] < withdrawn:
        raise Fail(f"captured UPDATEs of the agent: {len(sent)}, {got[0]} announced, {got[1]} withdrawn, "
                   f"bad: {bad[:3]}")
    log(f"capture: {len(sent)} UPDATEs from the agent ({capture.packets} packets), {got[0]} rules announced, "
        f"{got[1]} withdrawn, every one decoded cleanly")


def readvertise_test(bins, workdir):
    agent_address, gobgp_address, bird_address = "127.0.21.1", "127.0.21.2", "127.0.21.3"
    agent_port = free_port(agent_address, "::1")
    gobgp = GoBgp(workdir, gobgp_address, free_port(gobgp_address), agent_address, agent_port, passive=False,
                  asn=65002, ipv6=False)
    bird = Bird(workdir, bird_address, free_port(bird_address), agent_address, agent_port, passive=False,
                asn=65003, ipv6=False)
    bird.flow4 = []
    bird.flow6 = []
    neighbors = [{"address": p.address, "port": p.port, "remote-as": p.asn, "passive": True, "hold-time": HOLD,
                  "connect-retry": 1, "description": p.name} for p in (gobgp, bird)]
    agent = Agent(bins, workdir, agent_address, agent_port, neighbors)
    capture = LoopbackCapture(os.path.join(workdir, "agent-sent.pcap"), agent_address)
    results = {}
    rule = ["destination", "10.7.0.0/24", "protocol", "tcp", "destination-port", "==80"]
    in_bird = lambda: "10.7.0.0/24" in bird_routes(bird, "ft4")
    try:
        gobgp.start()
        bird.start()
        agent.start()
        for p in (gobgp, bird):
            agent.wait_state(p.address, "Established", 40)
        wait_until("gobgp API", lambda: gobgp.gobgp("global") is not None, 15)
        gobgp.gobgp("global", "rib", "-a", "ipv4-flowspec", "add", "match", *rule, "then", "discard")
        gobgp.gobgp("global", "rib", "-a", "ipv6-flowspec", "add", "match", "destination", "2001:db8:7::/48",
                    "then", "rate-limit", "1000")
        wait_until("GoBGP's rule in BIRD", in_bird, 20)
        # IPv6 flowspec over the IPv4 session: an empty next-hop field.
        wait_until("GoBGP's IPv6 rule in BIRD", lambda: "2001:db8:7::/48" in bird_routes(bird, "ft6"), 20)
        if "BGP.as_path: 65001 65002" not in bird_routes(bird, "ft6"):
            raise Fail("BIRD shows the IPv6 rule without the agent's AS in front:\n" + bird_routes(bird, "ft6"))
        text = bird_routes(bird, "ft4")
        if "BGP.as_path: 65001 65002" not in text:
            raise Fail("BIRD shows the rule without the agent's AS in front:\n" + text)
        if "(generic, 0x80060000, 0x0)" not in text:
            raise Fail("BIRD shows the rule without its traffic-rate 0 community:\n" + text)
        n = agent.neighbor(bird.address)
        if n["rulesAdvertised"].get("ipv4-flowspec") != 1 or n["endOfRibOut"].get("ipv4-flowspec") != 1:
            raise Fail(f"show neighbors for BIRD: {n['rulesAdvertised']}, End-of-RIB {n['endOfRibOut']}")
        if agent.neighbor(gobgp.address)["rulesAdvertised"].get("ipv4-flowspec", 0) != 0:
            raise Fail("the rule went back to GoBGP")
        log("GoBGP's rules (IPv4 and IPv6) reached BIRD with AS_PATH 65001 65002 and their communities; "
            "not sent back to GoBGP")
        results["readvertise"] = "ok"

        # BIRD restarts: the table again, then End-of-RIB.
        up = agent.neighbor(bird.address)["establishedTransitions"]
        bird.stop()
        bird.start()
        agent.wait_state(bird.address, "Established", 40, lambda n: n["establishedTransitions"] > up)
        wait_until("the rule in the restarted BIRD", in_bird, 20)
        wait_until("End-of-RIB to the new session",
                   lambda: agent.neighbor(bird.address)["endOfRibOut"].get("ipv4-flowspec") == 2, 10)
        log("BIRD restarted: the table was sent again, then End-of-RIB")
        results["restart"] = "ok"

        gobgp.gobgp("global", "rib", "-a", "ipv4-flowspec", "del", "match", *rule)
        wait_until("the withdrawal in BIRD", lambda: not in_bird(), 20)
        log("GoBGP withdrew the rule: BIRD dropped it")
        results["withdraw"] = "ok"
    finally:
        capture.stop()
        agent.stop()
        gobgp.stop()
        bird.stop()

    check_capture(bins, capture, announced=4, withdrawn=1)
    results["capture"] = "ok"
    return results


def case_workdir(work, label):
    """The folder of one case's configurations and logs: under --work when given (emptied
    first), else a new temporary one; readable by daemons that drop privileges."""
    if work:
        workdir = os.path.join(work, label)
        shutil.rmtree(workdir, ignore_errors=True)
        os.makedirs(workdir)
    else:
        workdir = tempfile.mkdtemp(prefix=f"flowspecd-interop-{label}-")
    os.chmod(workdir, 0o755)
    return workdir


def main_of_case(doc, label, test, needed=()):
    """The main of a test file with one case: `test(bins, workdir)` gives its results."""
    ap = argparse.ArgumentParser(description=doc, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--flowspecd", required=True, help="the agent binary")
    ap.add_argument("--flowspec", required=True, help="the command-line tool binary")
    ap.add_argument("--work", help="folder for configurations and logs (default: a new temporary one)")
    args = ap.parse_args()
    workdir = case_workdir(args.work, label)
    bins = (os.path.abspath(args.flowspecd), os.path.abspath(args.flowspec))
    return run_case(label, workdir, lambda: test(bins, workdir), needed)


def run_case(label, workdir, run, needed=()):
    """Runs one case (`run` returns its results by step) after checking that the programs
    it needs are installed. On any failure, a Fail or a tool that broke, prints the last
    lines of every log in `workdir`. Returns the exit status."""
    started = time.monotonic()
    try:
        for program in needed:
            if not shutil.which(program):
                raise Fail(f"{program} is not installed (scripts/setup.sh installs the BGP speakers)")
        results = run()
    except Exception as e:
        log(f"FAILED {label}: {e}")
        log(f"logs and configurations: {workdir}")
        for name in sorted(os.listdir(workdir)):
            if name.endswith(".log"):
                with open(os.path.join(workdir, name), errors="replace") as f:
                    tail = f.read().splitlines()[-25:]
                print(f"---- {name} (last lines)\n" + "\n".join(tail))
        print("0 passed, 1 failed")
        return 1
    log(f"{label}: " + ", ".join(f"{k} {v}" for k, v in results.items()) +
        f" ({time.monotonic() - started:.1f}s)")
    print("1 passed, 0 failed")
    return 0


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--flowspecd", required=True, help="the agent binary")
    ap.add_argument("--flowspec", required=True, help="the command-line tool binary")
    ap.add_argument("--work", help="folder for configurations and logs (default: a new temporary one)")
    sub = ap.add_subparsers(dest="what", required=True)
    p = sub.add_parser("peer")
    p.add_argument("name", choices=sorted(["gobgp", "bird", "exabgp", "frr"]))
    p.add_argument("direction", choices=["we-connect", "they-connect"])
    sub.add_parser("faults")
    sub.add_parser("export")
    sub.add_parser("readvertise")
    sub.add_parser("show")
    args = ap.parse_args()

    label = f"{args.name}-{args.direction}" if args.what == "peer" else args.what
    workdir = case_workdir(args.work, label)
    bins = (os.path.abspath(args.flowspecd), os.path.abspath(args.flowspec))
    needed = {"gobgp": ["gobgpd", "gobgp"], "bird": ["bird"], "exabgp": ["exabgp"],
              "frr": ["/usr/lib/frr/bgpd"]}[args.name] if args.what == "peer" else (
                  ["bird"] if args.what == "faults" else ["bird", "birdc", "gobgpd", "gobgp"])

    def run():
        if args.what == "peer":
            return peer_test(bins, workdir, args.name, args.direction)
        if args.what == "faults":
            return fault_test(bins, workdir)
        if args.what == "readvertise":
            return readvertise_test(bins, workdir)
        if args.what == "show":
            return show_test(bins, workdir)
        return export_test(bins, workdir)

    return run_case(label, workdir, run, needed)


if __name__ == "__main__":
    sys.exit(main())
