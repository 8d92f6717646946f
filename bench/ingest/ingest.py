#!/usr/bin/env python3
"""Ingest benchmark: a fresh flowspecd and a fresh BIRD 2 receive the same stream of N
flowspec rules over a real BGP session on loopback, side by side in one run.

For each family, workload, N and run, every receiver is started fresh and goes through:

  ingest     peer A announces N rules; time from Established until the receiver's
             best-path table holds all N, CPU of its process tree over that time, and
             peak RSS above idle (VmHWM - VmRSS before the session) per rule
  withdraw   peer A withdraws all N; time until the table is empty
  second     peer A announces the N rules again, then peer B announces the same N:
             RSS growth per extra path, time until B's N paths are in
  drop       B's session drops (time until only A's paths are left), then A's session
             drops: time until the RIB and the FSIB are empty, and RSS left above idle

With --drop-gap (flowspecd alone) a third peer C listens instead: it announces nothing and
notes when each message from the receiver arrives. A announces N and C is sent them all;
A withdraws all N (time until the RIB, the FSIB and C are clean, and the longest silence
towards C meanwhile); A announces them again and its session drops (the same figures), while
the control socket is polled (its slowest answer). A receiver that stalls on the drop shows
as a long silence towards C, whose hold time is 9 s.

Workloads: "simple" (distinct destination hosts, protocol 6, destination port 80, one
shared attribute set, discard) and "mixed" (five mitigation rule shapes, five attribute
sets, 10% of the rules withdrawn and announced again before the last ones arrive, so
the count reaches N only at the end of the stream).

Every UPDATE is encoded before the clock starts, once per family and workload, and the
same bytes go to every receiver. Output: a table for people on standard output, and one
JSON line per run and receiver appended to --out.
"""

import argparse
import json
import os
import shutil
import signal
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))

RECV_AS = 65001
PEERS = {"A": ("127.0.3.10", 65010), "B": ("127.0.3.11", 65011)}
LISTENER = ("127.0.3.12", 65012)  # peer C of --drop-gap
LISTENER_HOLD = 9
RX_ADDR = {"flowspecd": "127.0.3.1", "bird": "127.0.3.2"}
MAX_UPDATE = 4096

# ----------------------------------------------------------------------------- encoding


def bgp_message(kind, body):
    return b"\xff" * 16 + struct.pack("!HB", 19 + len(body), kind) + body


def open_message(asn, router_id, hold=240):
    caps = b""
    for afi in (1, 2):
        caps += struct.pack("!BBHBB", 1, 4, afi, 0, 133)  # multiprotocol, SAFI 133
    caps += struct.pack("!BBI", 65, 4, asn)  # four-octet AS numbers
    params = struct.pack("!BB", 2, len(caps)) + caps
    body = struct.pack("!BHH4sB", 4, asn if asn < 65536 else 23456, hold,
                       socket.inet_aton(router_id), len(params)) + params
    return bgp_message(1, body)


KEEPALIVE = bgp_message(4, b"")


def attr(flags, code, value):
    if len(value) > 255:
        return struct.pack("!BBH", flags | 0x10, code, len(value)) + value
    return struct.pack("!BBB", flags, code, len(value)) + value


def ext_traffic_rate(rate):
    return struct.pack("!BBHf", 0x80, 0x06, 0, rate)


def ext_redirect_as2(asn, value):
    return struct.pack("!BBHI", 0x80, 0x08, asn, value)


def ext_marking(dscp):
    return struct.pack("!BB5xB", 0x80, 0x09, dscp)


def attribute_sets(peer_as):
    """The path attributes (without MP_REACH_NLRI) of each attribute set."""

    def path(asns, ecs, med=None):
        out = attr(0x40, 1, b"\x00")
        out += attr(0x40, 2, struct.pack("!BB", 2, len(asns)) + b"".join(struct.pack("!I", a) for a in asns))
        if med is not None:
            out += attr(0x80, 4, struct.pack("!I", med))
        return out + attr(0xC0, 16, b"".join(ecs))

    return [
        path([peer_as], [ext_traffic_rate(0.0)]),
        path([peer_as], [ext_traffic_rate(125000.0)]),
        path([peer_as, 64512], [ext_redirect_as2(65000, 100)]),
        path([peer_as], [ext_marking(46), ext_traffic_rate(1250000.0)]),
        path([peer_as, 64513, 64514], [ext_traffic_rate(0.0)], med=10),
    ]


def host_bytes(family, i):
    """Destination host number i + 1 inside 10.0.0.0/8 or fd00::/16."""
    if family == "ipv4":
        return struct.pack("!I", (10 << 24) + i + 1)
    return b"\xfd\x00" + b"\x00" * 6 + struct.pack("!Q", i + 1)


def prefix_comp(family, ctype, addr, plen):
    nbytes = (plen + 7) // 8
    if family == "ipv4":
        return bytes([ctype, plen]) + addr[:nbytes]
    return bytes([ctype, plen, 0]) + addr[:nbytes]  # RFC 8956: length, offset, pattern


def num_comp(ctype, values, op=0x01):
    """Numeric component: each value with operator `op` (=, >=, ...), OR-ed together."""
    out = b""
    for k, v in enumerate(values):
        last = 0x80 if k == len(values) - 1 else 0
        if v < 256:
            out += bytes([last | op, v])
        else:
            out += bytes([last | 0x10 | op]) + struct.pack("!H", v)
    return bytes([ctype]) + out


def nlri(components):
    body = b"".join(components)
    assert len(body) < 240
    return bytes([len(body)]) + body


def simple_rule(family, i):
    plen = 32 if family == "ipv4" else 128
    return nlri([prefix_comp(family, 1, host_bytes(family, i), plen), num_comp(3, [6]), num_comp(5, [80])])


SRC24 = {"ipv4": bytes([192, 0, 2, 0]), "ipv6": bytes.fromhex("20010db8000100000000000000000000")}


def mixed_rule(family, i):
    """Five shapes an operator pushes against an attack on one host."""
    plen = 32 if family == "ipv4" else 128
    dst = prefix_comp(family, 1, host_bytes(family, i), plen)
    shape = i % 5
    if shape == 0:  # DNS reflection
        return nlri([dst, num_comp(3, [17]), num_comp(6, [53])])
    if shape == 1:  # NTP reflection, large packets only
        return nlri([dst, num_comp(3, [17]), num_comp(6, [123]), num_comp(10, [468], op=0x03)])
    if shape == 2:  # SYN flood on the web ports
        return nlri([dst, num_comp(3, [6]), num_comp(5, [80, 443]), bytes([9, 0x81, 0x02])])
    if shape == 3:  # ICMP from one source network
        src = prefix_comp(family, 2, SRC24[family], 24 if family == "ipv4" else 48)
        return nlri([dst, src, num_comp(3, [1 if family == "ipv4" else 58])])
    return nlri([dst, bytes([12, 0x80, 0x02])])  # fragments


def pack_updates(afi, items, attrs):
    """UPDATEs of at most MAX_UPDATE bytes carrying `items` (NLRI bytes) in MP_REACH_NLRI
    (attrs given) or, with attrs None, in MP_UNREACH_NLRI."""
    out = []
    fixed = 19 + 2 + 2 + (len(attrs) if attrs is not None else 0) + 4 + 3 + (2 if attrs is not None else 0)
    room = MAX_UPDATE - fixed
    batch, size = [], 0

    def flush():
        if not batch:
            return
        body = b"".join(batch)
        if attrs is None:
            pa = attr(0x80, 15, struct.pack("!HB", afi, 133) + body)
        else:
            pa = attrs + attr(0x80, 14, struct.pack("!HBBB", afi, 133, 0, 0) + body)
        out.append(bgp_message(2, struct.pack("!HH", 0, len(pa)) + pa))

    for item in items:
        if size + len(item) > room:
            flush()
            batch, size = [], 0
        batch.append(item)
        size += len(item)
    flush()
    return out


class Stream:
    """Pre-encoded UPDATEs of one family and workload for one peer."""

    def __init__(self, family, workload, n, peer_as):
        afi = 1 if family == "ipv4" else 2
        sets = attribute_sets(peer_as)
        rule = simple_rule if workload == "simple" else mixed_rule
        rules = [rule(family, i) for i in range(n)]
        if workload == "simple":
            self.announce = b"".join(pack_updates(afi, rules, sets[0]))
        else:
            # Attribute set per block of 64 rules; 10% of the first 90% are withdrawn
            # after it and announced again with the last 10%, so the table holds all N
            # only once the whole stream is in.
            def set_of(i):
                return (i // 64) % len(sets)

            def grouped(idx):
                by_set = {}
                for i in idx:
                    by_set.setdefault(set_of(i), []).append(rules[i])
                msgs = []
                for s, items in sorted(by_set.items()):
                    msgs += pack_updates(afi, items, sets[s])
                return msgs

            head = int(n * 0.9)
            churn = list(range(0, head, 9))[: n - head]
            msgs = grouped(range(head))
            msgs += pack_updates(afi, [rules[i] for i in churn], None)
            msgs += grouped(list(range(head, n)) + churn)
            self.announce = b"".join(msgs)
        self.withdraw = b"".join(pack_updates(afi, rules, None))


# ------------------------------------------------------------------------------ sender


class Peer:
    """One BGP session from a loopback source address to a receiver; it answers keepalives
    and throws away whatever the receiver sends."""

    def __init__(self, name, rx_addr, rx_port, hold=240):
        self.addr, self.asn = PEERS[name] if name in PEERS else LISTENER
        self.keepalive_every = hold / 3
        self.sock = socket.create_connection((rx_addr, rx_port), timeout=30, source_address=(self.addr, 0))
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.sock.sendall(open_message(self.asn, self.addr, hold))
        self.established = None
        self.alive = True
        buf = b""
        got_open = False
        while self.established is None:
            data = self.sock.recv(65536)
            if not data:
                raise RuntimeError("%s closed the session before Established" % rx_addr)
            buf += data
            while len(buf) >= 19:
                length, kind = struct.unpack("!HB", buf[16:19])
                if len(buf) < length:
                    break
                msg, buf = buf[:length], buf[length:]
                if kind == 1:
                    got_open = True
                    self.sock.sendall(KEEPALIVE)
                elif kind == 3:
                    raise RuntimeError("NOTIFICATION from %s: %s" % (rx_addr, msg[19:].hex()))
                elif kind == 4 and got_open:
                    self.established = time.monotonic()
        self.sock.settimeout(None)
        self.lock = threading.Lock()
        threading.Thread(target=self._drain, daemon=True).start()
        threading.Thread(target=self._keepalive, daemon=True).start()

    def _drain(self):
        try:
            while self.sock.recv(1 << 20):
                pass
        except OSError:
            pass
        self.alive = False

    def _keepalive(self):
        while self.alive:
            time.sleep(self.keepalive_every)
            try:
                with self.lock:
                    self.sock.sendall(KEEPALIVE)
            except OSError:
                return

    def send(self, data):
        with self.lock:
            self.sock.sendall(data)

    def close(self):
        self.alive = False
        try:
            self.sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.sock.close()


class Listener(Peer):
    """Peer C of --drop-gap: announces nothing; notes when each message of the receiver
    arrives (UPDATEs and keepalives alike)."""

    def __init__(self, rx_addr, rx_port):
        self.arrivals = []
        super().__init__("C", rx_addr, rx_port, hold=LISTENER_HOLD)

    def _drain(self):
        buf, pos = b"", 0
        try:
            while True:
                data = self.sock.recv(1 << 20)
                if not data:
                    break
                now = time.monotonic()
                buf = buf[pos:] + data
                pos = 0
                while len(buf) - pos >= 19:
                    length = struct.unpack("!H", buf[pos + 16:pos + 18])[0]
                    if len(buf) - pos < length:
                        break
                    self.arrivals.append(now)
                    pos += length
        except OSError:
            pass
        self.alive = False

    def longest_gap(self, t0, t1):
        """The longest time in [t0, t1] without a message from the receiver."""
        times = [t0] + [t for t in list(self.arrivals) if t0 < t < t1] + [t1]
        return max(b - a for a, b in zip(times, times[1:]))


# ---------------------------------------------------------------------------- processes


def proc_tree(pid):
    pids, todo = [], [pid]
    while todo:
        p = todo.pop()
        pids.append(p)
        try:
            for task in os.listdir("/proc/%d/task" % p):
                with open("/proc/%d/task/%s/children" % (p, task)) as f:
                    todo += [int(c) for c in f.read().split()]
        except OSError:
            pass
    return pids


def cpu_seconds(pid):
    """CPU time of the process tree: the scheduler's run time of every thread, in
    nanoseconds (/proc/PID/task/TID/schedstat), so that 10k rules are not below one clock
    tick; utime + stime when schedstat is missing."""
    total = 0.0
    for p in proc_tree(pid):
        try:
            tasks = os.listdir("/proc/%d/task" % p)
        except OSError:
            continue
        for t in tasks:
            try:
                with open("/proc/%d/task/%s/schedstat" % (p, t)) as f:
                    total += int(f.read().split()[0]) / 1e9
            except (OSError, ValueError, IndexError):
                try:
                    with open("/proc/%d/task/%s/stat" % (p, t)) as f:
                        fields = f.read().rsplit(")", 1)[1].split()
                    total += (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
                except OSError:
                    pass
    return total


def memory_kib(pid, key):
    total = 0
    for p in proc_tree(pid):
        try:
            with open("/proc/%d/status" % p) as f:
                for line in f:
                    if line.startswith(key + ":"):
                        total += int(line.split()[1])
        except OSError:
            pass
    return total


def stop_pid(pid, timeout=10):
    try:
        os.kill(pid, signal.SIGTERM)
    except ProcessLookupError:
        return
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        try:
            if os.waitpid(pid, os.WNOHANG)[0]:
                return
        except ChildProcessError:
            return
        time.sleep(0.05)
    try:
        os.kill(pid, signal.SIGKILL)
        os.waitpid(pid, 0)
    except (ProcessLookupError, ChildProcessError):
        pass


def wait_listen(addr, port, proc, log, timeout=30):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        if proc.poll() is not None:
            raise RuntimeError("receiver exited at start; see %s" % log)
        try:
            socket.create_connection((addr, port), timeout=1, source_address=("127.0.3.99", 0)).close()
            return
        except OSError:
            time.sleep(0.05)
    raise RuntimeError("nothing listens on %s:%d; see %s" % (addr, port, log))


def free_port(addr):
    for port in range(19000 + os.getpid() % 500 * 2, 30000):
        with socket.socket() as s:
            try:
                s.bind((addr, port))
                return port
            except OSError:
                continue
    raise RuntimeError("no free port on %s" % addr)


# ---------------------------------------------------------------------------- receivers


class Receiver:
    name = None

    def __init__(self, work, family, tag):
        self.dir = os.path.join(work, self.name)
        os.makedirs(self.dir, exist_ok=True)
        self.family, self.tag = family, tag
        self.addr = RX_ADDR[self.name]
        self.port = free_port(self.addr)
        self.proc = None

    def start(self):
        log = os.path.join(self.dir, "stdout.log")
        self.proc = subprocess.Popen(self.command(), cwd=self.dir, stdout=open(log, "w"),
                                     stderr=subprocess.STDOUT, env=self.env())
        wait_listen(self.addr, self.port, self.proc, log)
        time.sleep(0.2)  # let the start settle before the idle reading

    def env(self):
        return dict(os.environ)

    def stop(self):
        if self.proc:
            stop_pid(self.proc.pid)
            self.proc = None

    def cpu(self):
        return cpu_seconds(self.proc.pid)

    def rss(self):
        return memory_kib(self.proc.pid, "VmRSS") * 1024

    def hwm(self):
        return memory_kib(self.proc.pid, "VmHWM") * 1024


def run_quiet(cmd, timeout=60):
    r = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=timeout)
    if r.returncode != 0:
        raise RuntimeError("%s: %s" % (" ".join(cmd), r.stderr.strip() or r.stdout.strip()))
    return r.stdout


class Flowspecd(Receiver):
    name = "flowspecd"

    def __init__(self, work, family, tag, build):
        super().__init__(work, family, tag)
        self.build = build
        self.sock = os.path.join(self.dir, "control.sock")
        self.prefix = "bench-ingest-%d-%s" % (os.getpid(), tag)
        self.fam = family + "-flowspec"

    def command(self):
        conf = os.path.join(self.dir, "flowspecd.toml")
        with open(conf, "w") as f:
            f.write('router-id = "10.255.0.1"\nlocal-as = %d\nlisten = ["%s:%d"]\n' % (RECV_AS, self.addr, self.port))
            f.write('control-socket = "%s"\nfsib-prefix = "%s"\n' % (self.sock, self.prefix))
            for (addr, asn), hold in [(p, 240) for p in PEERS.values()] + [(LISTENER, LISTENER_HOLD)]:
                f.write('\n[[neighbor]]\naddress = "%s"\nremote-as = %d\npassive = true\nhold-time = %d\n'
                        'families = ["%s"]\n' % (addr, asn, hold, self.fam))
        return [os.path.join(self.build, "agent", "flowspecd"), "--config", conf]

    def env(self):
        e = dict(os.environ)
        e.pop("TRACE", None)
        return e

    def request(self, line):
        """One control request, read straight from the socket: a CLI process per poll would
        cost the machine more than the receiver spends between two polls."""
        with socket.socket(socket.AF_UNIX) as c:
            c.settimeout(60)
            c.connect(self.sock)
            c.sendall(line.encode() + b"\n")
            chunks = []
            while True:
                data = c.recv(65536)
                if not data:
                    break
                chunks.append(data)
        return json.loads(b"".join(chunks))

    def summary(self):
        rules = paths = 0
        for v in self.request("show summary")["vrfs"]:
            f = v["families"].get(self.fam)
            if f:
                rules += f["rules"]
                paths += f["paths"]
        return rules, paths

    def rules(self):
        return self.summary()[0]

    def paths(self):
        return self.summary()[1]

    def advertised_to(self, addr):
        """Rules the session to the neighbor at `addr` holds from the receiver now."""
        for nb in self.request("show neighbors")["neighbors"]:
            if nb["address"].split(":")[0] == addr:
                return nb.get("rulesAdvertised", {}).get(self.fam, 0)
        return 0

    def fsib_rules(self):
        out = run_quiet([os.path.join(self.build, "tools", "flowspec", "flowspec"), "fsib", "--prefix", self.prefix,
                         "--json"])
        return len(json.loads(out)["rules"])

    def stop(self):
        super().stop()
        for name in os.listdir("/dev/shm"):
            if name.startswith(self.prefix + "."):
                os.unlink(os.path.join("/dev/shm", name))


class Bird(Receiver):
    name = "bird"

    def __init__(self, work, family, tag):
        super().__init__(work, family, tag)
        self.ctl = os.path.join(self.dir, "bird.ctl")
        self.ctl_sock = None
        self.flow = "flow4" if family == "ipv4" else "flow6"
        self.table = "fs" + self.flow

    def command(self):
        conf = os.path.join(self.dir, "bird.conf")
        with open(conf, "w") as f:
            f.write('log "%s/bird.log" { warning, error, fatal };\nrouter id 10.255.0.2;\n%s table %s;\n'
                    % (self.dir, self.flow, self.table))
            for name, (addr, asn) in PEERS.items():
                f.write("protocol bgp peer%s {\n  local %s port %d as %d;\n  neighbor %s as %d;\n  passive;\n"
                        "  multihop;\n  strict bind;\n  hold time 240;\n  %s { table %s; import all; export none; };\n}\n"
                        % (name, self.addr, self.port, RECV_AS, addr, asn, self.flow, self.table))
        return ["bird", "-f", "-c", conf, "-s", self.ctl]

    def birdc(self, cmd):
        """One command on BIRD's control socket, kept open between polls: a reply is lines
        "CODE-text" or " text", the last one "CODE text"."""
        if self.ctl_sock is None:
            self.ctl_sock = socket.socket(socket.AF_UNIX)
            self.ctl_sock.settimeout(60)
            self.ctl_sock.connect(self.ctl)
            self.ctl_file = self.ctl_sock.makefile("r")
            self.ctl_file.readline()  # the greeting
        self.ctl_sock.sendall(cmd.encode() + b"\n")
        lines = []
        while True:
            line = self.ctl_file.readline()
            if not line:
                raise RuntimeError("BIRD closed its control socket")
            lines.append(line[5:] if line[:4].isdigit() else line[1:])
            if line[:4].isdigit() and line[4] == " ":
                if line[0] in "89":
                    raise RuntimeError("BIRD: %s" % line.strip())
                return "".join(lines)

    def stop(self):
        if self.ctl_sock is not None:
            self.ctl_sock.close()
            self.ctl_sock = None
        super().stop()

    def rules(self):
        # The table's count walks every route; use it only where the time is not what is measured
        for line in self.birdc("show route table %s count" % self.table).splitlines():
            words = line.split()
            if "routes" in words and "of" in words:
                return int(words[words.index("of") - 1])
        return 0

    def imported(self, peer):
        # the protocol's import counter is read in constant time
        for line in self.birdc("show protocols all peer%s" % peer).splitlines():
            words = line.replace(",", "").split()
            if words[:1] == ["Routes:"]:
                return int(words[1])
        return 0


# ------------------------------------------------------------------------------ phases


def wait_for(test, start, timeout, what):
    """Polls `test` until it is true; returns the seconds since `start`. Polls every 2% of
    the elapsed time (10 ms to 250 ms), so the poll costs the receiver little."""
    end = start + timeout
    while True:
        if test():
            return time.monotonic() - start
        now = time.monotonic()
        if now > end:
            raise RuntimeError("timed out waiting for %s" % what)
        time.sleep(min(0.25, max(0.01, 0.02 * (now - start))))


def measure(rx, streams, n, timeout, skip_extra):
    r = {}
    fs = isinstance(rx, Flowspecd)
    idle = rx.rss()
    r["idle_rss"] = idle
    a = Peer("A", rx.addr, rx.port)
    cpu0 = rx.cpu()
    a.send(streams["A"].announce)
    count_a = (lambda: rx.rules() >= n) if fs else (lambda: rx.imported("A") >= n)
    r["time"] = wait_for(count_a, a.established, timeout, "all rules")
    r["cpu"] = rx.cpu() - cpu0
    r["peak_rss"] = rx.hwm()
    r["bytes_per_rule"] = (r["peak_rss"] - idle) / n
    r["us_per_rule"] = r["cpu"] / n * 1e6

    cpu0, t0 = rx.cpu(), time.monotonic()
    a.send(streams["A"].withdraw)
    empty = (lambda: rx.rules() == 0) if fs else (lambda: rx.imported("A") == 0)
    r["withdraw_time"] = wait_for(empty, t0, timeout, "withdraw all")
    r["withdraw_us_per_rule"] = (rx.cpu() - cpu0) / n * 1e6

    if skip_extra:
        a.close()
        return r
    t0 = time.monotonic()
    a.send(streams["A"].announce)
    wait_for(count_a, t0, timeout, "rules again")
    time.sleep(0.3)
    rss_one = rx.rss()
    b = Peer("B", rx.addr, rx.port)
    cpu0 = rx.cpu()
    b.send(streams["B"].announce)
    both = (lambda: rx.paths() >= 2 * n) if fs else (lambda: rx.imported("B") >= n)
    r["second_time"] = wait_for(both, b.established, timeout, "second peer's paths")
    r["second_us_per_path"] = (rx.cpu() - cpu0) / n * 1e6
    time.sleep(0.3)
    r["bytes_per_extra_path"] = (rx.rss() - rss_one) / n

    t0 = time.monotonic()
    b.close()
    one = (lambda: rx.paths() == n) if fs else (lambda: rx.rules() == n)
    r["drop_second_time"] = wait_for(one, t0, timeout, "second peer's paths gone")

    t0 = time.monotonic()
    a.close()
    if fs:
        clean = lambda: rx.summary() == (0, 0) and rx.fsib_rules() == 0
    else:
        clean = lambda: rx.rules() == 0
    r["drop_time"] = wait_for(clean, t0, timeout, "RIB and FSIB clean")
    time.sleep(0.5)
    r["rss_after_drop_above_idle"] = rx.rss() - idle
    return r


# ------------------------------------------------------------------------------- report


def measure_drop_gap(rx, streams, n, timeout):
    """Withdraw-all and a session drop of N rules while peer C is sent the withdrawals."""
    r = {}
    c = Listener(rx.addr, rx.port)
    a = Peer("A", rx.addr, rx.port)
    sent_all = lambda: rx.rules() >= n and rx.advertised_to(LISTENER[0]) >= n
    a.send(streams["A"].announce)
    wait_for(sent_all, a.established, timeout, "all rules, sent to C")
    clean = lambda: rx.summary() == (0, 0) and rx.fsib_rules() == 0 and rx.advertised_to(LISTENER[0]) == 0

    t0 = time.monotonic()
    a.send(streams["A"].withdraw)
    r["withdraw_time"] = wait_for(clean, t0, timeout, "withdraw all")
    r["withdraw_gap"] = c.longest_gap(t0, t0 + r["withdraw_time"])

    t0 = time.monotonic()
    a.send(streams["A"].announce)
    wait_for(sent_all, t0, timeout, "all rules again, sent to C")
    slowest = [0.0]
    done = threading.Event()

    def poll_control():
        while not done.is_set():
            t = time.monotonic()
            rx.request("show summary")
            slowest[0] = max(slowest[0], time.monotonic() - t)
            time.sleep(0.05)

    poller = threading.Thread(target=poll_control, daemon=True)
    t0 = time.monotonic()
    a.close()
    poller.start()
    r["drop_time"] = wait_for(clean, t0, timeout, "RIB, FSIB and C clean after the drop")
    done.set()
    poller.join()
    r["drop_gap"] = c.longest_gap(t0, t0 + r["drop_time"])
    r["drop_control_slowest"] = slowest[0]
    r["listener_alive"] = c.alive
    c.close()
    return r


def report_drop_gap(results, out):
    cols = [("withdraw_time", "withdraw s"), ("withdraw_gap", "gap s"), ("drop_time", "drop s"),
            ("drop_gap", "gap s"), ("drop_control_slowest", "control s")]
    head = "%-5s %-7s %-5s" % ("fam", "load", "N") + "".join(" %12s" % c[1] for c in cols)
    print(head, file=out)
    print("-" * len(head), file=out)
    for fam, load, n in sorted({(r["family"], r["workload"], r["n"]) for r in results}):
        runs = [r for r in results if (r["family"], r["workload"], r["n"]) == (fam, load, n)]
        cells = []
        for key, _ in cols:
            m, _ = median_spread([r.get(key) for r in runs])
            cells.append(" %12s" % ("-" if m is None else "%.3f" % m))
        print("%-5s %-7s %-5s" % (fam, load, fmt_n(n)) + "".join(cells), file=out)
    print("medians; gap: the longest silence towards peer C (hold time %d s); control: the slowest "
          "answer of the control socket during the drop" % LISTENER_HOLD, file=out)


def median_spread(vals):
    vals = [v for v in vals if v is not None]
    if not vals:
        return None, None
    return statistics.median(vals), (max(vals) - min(vals))


def fmt_n(n):
    return "%dM" % (n // 1000000) if n % 1000000 == 0 else "%dk" % (n // 1000) if n % 1000 == 0 else str(n)


def report(results, receivers, out):
    cols = [("time", "time s", "%.3f"), ("us_per_rule", "CPU us/rule", "%.2f"),
            ("bytes_per_rule", "B/rule", "%.0f"), ("withdraw_time", "wdraw s", "%.3f"),
            ("bytes_per_extra_path", "B/extra path", "%.0f"), ("drop_time", "drop s", "%.3f"),
            ("rss_after_drop_above_idle", "RSS left MB", "%.1f")]
    head = "%-5s %-7s %-5s %-10s" % ("fam", "load", "N", "receiver") + "".join(" %16s" % c[1] for c in cols)
    print(head, file=out)
    print("-" * len(head), file=out)
    keys = sorted({(r["family"], r["workload"], r["n"]) for r in results},
                  key=lambda k: (k[0], k[1] != "simple", k[2]))
    for fam, load, n in keys:
        med = {}
        for rx in receivers:
            runs = [r for r in results if (r["family"], r["workload"], r["n"], r["receiver"]) == (fam, load, n, rx)]
            if not runs:
                continue
            cells = []
            for key, _, f in cols:
                m, s = median_spread([r.get(key) for r in runs])
                if m is not None and key == "rss_after_drop_above_idle":
                    m, s = m / 1e6, s / 1e6
                med[(rx, key)] = m
                cells.append("%16s" % ("-" if m is None else (f % m) + ("" if len(runs) < 2 else "±" + (f % (s / 2)).strip())))
            print("%-5s %-7s %-5s %-10s " % (fam, load, fmt_n(n), rx) + " ".join(cells), file=out)
        if "bird" in receivers and "flowspecd" in receivers:
            ratio = []
            for key, _, _ in cols[:3]:
                a, b = med.get(("flowspecd", key)), med.get(("bird", key))
                ratio.append("%16s" % ("-" if not a or not b else "%.2fx" % (a / b)))
            print("%-5s %-7s %-5s %-10s " % (fam, load, fmt_n(n), "ratio") + " ".join(ratio), file=out)
    print("medians of the runs, ± half the spread; ratio = flowspecd / BIRD in the same run", file=out)


# --------------------------------------------------------------------------------- main


def parse_list(text, conv=str):
    return [conv(x) for x in text.split(",") if x]


def parse_n(text):
    text = text.strip().lower()
    mult = 1000000 if text.endswith("m") else 1000 if text.endswith("k") else 1
    return int(float(text.rstrip("mk")) * mult)


def main():
    ap = argparse.ArgumentParser(
        description=__doc__,
        epilog="Example: python3 bench/ingest/ingest.py --n 100k,1M --family ipv4,ipv6\n"
               "Receivers listen on 127.0.3.1 (flowspecd) and 127.0.3.2 (BIRD); the peers connect from\n"
               "127.0.3.10 and 127.0.3.11. Every process started is stopped by its PID.",
        formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--receivers", default="flowspecd,bird", help="comma list of flowspecd, bird (default both)")
    ap.add_argument("--family", default="ipv4,ipv6", help="comma list of ipv4, ipv6 (default both)")
    ap.add_argument("--workload", default="simple,mixed", help="comma list of simple, mixed (default both)")
    ap.add_argument("--n", default="10k,100k,1M", help="rule counts, comma list; k and M suffixes (default 10k,100k,1M)")
    ap.add_argument("--runs", type=int, default=3, help="fresh receivers per case (default 3)")
    ap.add_argument("--quick", action="store_true", help="N = 2000 and one run: a smoke test of every phase")
    ap.add_argument("--ingest-only", action="store_true", help="skip the second peer and the session drops")
    ap.add_argument("--drop-gap", action="store_true",
                    help="flowspecd alone: withdraw-all and a session drop while a third peer is sent the "
                         "withdrawals; the time to clean and the longest silence towards that peer")
    ap.add_argument("--build", default=os.environ.get("FLOWSPECD_BUILD", os.path.join(ROOT, "build", "default")),
                    help="the build holding agent/flowspecd and tools/flowspec/flowspec (default build/default)")
    ap.add_argument("--work", help="directory for configurations and logs, kept (default a temporary one, removed)")
    ap.add_argument("--out", default="ingest.jsonl",
                    help="JSON lines, one per run and receiver, appended (default ingest.jsonl)")
    ap.add_argument("--timeout", type=float, default=300, help="seconds a phase may take (default 300)")
    a = ap.parse_args()

    receivers = parse_list(a.receivers)
    if a.drop_gap:
        receivers = ["flowspecd"]
    families = parse_list(a.family)
    workloads = parse_list(a.workload)
    ns = parse_list(a.n, parse_n)
    runs = a.runs
    if a.quick:
        ns, runs = [2000], 1
    for bad, allowed, what in ((receivers, ("flowspecd", "bird"), "receiver"), (families, ("ipv4", "ipv6"), "family"),
                               (workloads, ("simple", "mixed"), "workload")):
        for x in bad:
            if x not in allowed:
                ap.error("unknown %s %r (one of %s)" % (what, x, ", ".join(allowed)))
    if not ns or min(ns) < 10 or runs < 1:
        ap.error("--n needs counts of at least 10 and --runs at least 1")
    if "flowspecd" in receivers and not os.access(os.path.join(a.build, "agent", "flowspecd"), os.X_OK):
        ap.error("no flowspecd in %s (build first, or give --build)" % a.build)
    if "bird" in receivers and not shutil.which("bird"):
        ap.error("bird is not installed (apt-get install bird2), or leave it out with --receivers flowspecd")

    work = a.work or tempfile.mkdtemp(prefix="ingest-")
    os.makedirs(work, exist_ok=True)
    out_path = a.out
    results = []
    live = []
    failed = False

    def on_signal(sig, frame):
        raise KeyboardInterrupt

    signal.signal(signal.SIGTERM, on_signal)
    try:
        with open(out_path, "a") as out:
            for family in families:
                for workload in workloads:
                    for n in ns:
                        t = time.monotonic()
                        streams = {p: Stream(family, workload, n, PEERS[p][1]) for p in PEERS}
                        print("# %s %s %s: %.1f MB of UPDATEs encoded in %.1f s"
                              % (family, workload, fmt_n(n), len(streams["A"].announce) / 1e6,
                                 time.monotonic() - t), file=sys.stderr)
                        for run in range(runs):
                            # alternate the order so neither receiver always goes first
                            order = receivers if run % 2 == 0 else list(reversed(receivers))
                            for name in order:
                                tag = "%s-%s-%d-%d" % (family, workload, n, run)
                                rx = (Flowspecd(work, family, tag, a.build) if name == "flowspecd"
                                      else Bird(work, family, tag))
                                live.append(rx)
                                rec = {"receiver": name, "family": family, "workload": workload, "n": n, "run": run}
                                try:
                                    rx.start()
                                    if a.drop_gap:
                                        rec.update(measure_drop_gap(rx, streams, n, a.timeout))
                                    else:
                                        rec.update(measure(rx, streams, n, a.timeout, a.ingest_only))
                                except (RuntimeError, OSError, subprocess.SubprocessError, ValueError) as e:
                                    rec["error"] = str(e)
                                    failed = True
                                finally:
                                    rx.stop()
                                    live.remove(rx)
                                results.append(rec)
                                out.write(json.dumps(rec, sort_keys=True) + "\n")
                                out.flush()
                                print("# " + json.dumps(rec, sort_keys=True), file=sys.stderr)
    except KeyboardInterrupt:
        failed = True
    finally:
        for rx in live:
            rx.stop()
    if a.drop_gap:
        report_drop_gap([r for r in results if "error" not in r], sys.stdout)
    else:
        report([r for r in results if "error" not in r], receivers, sys.stdout)
    print("JSON lines: %s" % out_path)
    for r in results:
        if "error" in r:
            print("error: %s %s %s %s run %d: %s" % (r["receiver"], r["family"], r["workload"], fmt_n(r["n"]),
                                                    r["run"], r["error"]), file=sys.stderr)
    if not a.work and not failed:
        shutil.rmtree(work, ignore_errors=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
