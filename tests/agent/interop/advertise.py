#!/usr/bin/env python3
"""Rules the agent originates, as GoBGP, BIRD 2, ExaBGP and FRR receive them.

  advertise.py --flowspecd BIN --flowspec BIN [--work DIR]

One flowspecd (AS 65001) and one daemon of each kind (AS 65002), each over one IPv4 session
that carries ipv4-flowspec and ipv6-flowspec. The agent originates sixteen rules, one per
action and family (discard, rate-limit, mark, sample + terminal, redirect to a VRF, redirect
to an address, the same with copy, redirect to the next hop), half of each family from its
configuration and half with `flowspec rule add`. Checks, in order:
  1. every peer shows every rule, read back through its own CLI or JSON, with the same match
     and the same extended communities (FRR shows them as text, and not all: FRR_SHOWS);
  2. `flowspec rule delete` of one rule per family: the withdrawal reaches every peer;
  3. independently of the peers, every UPDATE the agent sent is captured on the loopback
     interface and read back with `flowspec decode --pcap`: no error, no refused NLRI; each
     peer was sent each rule with exactly the NLRI bytes `flowspec encode` gives for its text
     and exactly its communities, and the deleted rules' withdrawals.
Every process is started here, bounded in time, and stopped by its PID.
"""
import base64
import json
import os
import re
import socket
import struct
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from interop import (HOLD, PEER_AS, Agent, Bird, ExaBgp, Fail, Frr, GoBgp, LoopbackCapture,  # noqa: E402
                     main_of_case, free_port, log, wait_until)


def ext(type_, subtype, value):
    """An 8-byte extended community as hex: type, subtype, 6-byte value."""
    return f"{type_:02x}{subtype:02x}{value:012x}"


def ipv4_hex(address):
    return socket.inet_aton(address).hex()


def rate(bytes_per_second):
    return ext(0x80, 0x06, struct.unpack("!I", struct.pack("!f", bytes_per_second))[0])


# action words -> the communities they stand for (RFC 8955 section 7; redirect to an address
# as draft-ietf-idr-flowspec-redirect-ip, with the copy flag in the low bit; redirect to the
# next hop as draft-simpson-idr-flowspec-redirect, type 0x08 subtype 0x00). A 20-byte IPv6
# address specific community is 40 hex digits.
ACTIONS = {
    "discard": [rate(0)],
    "rate-limit 125000": [rate(125000)],
    "mark 10": [ext(0x80, 0x09, 10)],
    "sample terminal": [ext(0x80, 0x07, 3)],
    "redirect-vrf 65000:100": [ext(0x80, 0x08, (65000 << 32) | 100)],
    "redirect-ip 198.51.100.1": [ext(0x01, 0x0c, int(ipv4_hex("198.51.100.1"), 16) << 16)],
    "redirect-ip 198.51.100.1 copy": [ext(0x01, 0x0c, (int(ipv4_hex("198.51.100.1"), 16) << 16) | 1)],
    "redirect-nexthop": [ext(0x08, 0x00, 0)],
    "redirect-ip 2001:db8::1": ["000c" + socket.inet_pton(socket.AF_INET6, "2001:db8::1").hex() + "0000"],
    "redirect-ip 2001:db8::1 copy": ["000c" + socket.inet_pton(socket.AF_INET6, "2001:db8::1").hex() + "0001"],
}


class Rule:
    def __init__(self, family, match, then, source):
        self.family, self.match, self.then, self.source = family, match, then, source
        self.afi = 1 if family == "ipv4" else 2
        self.prefix = match.split()[1]
        self.communities = sorted(ACTIONS[then])
        self.nlri = None  # what `flowspec encode` gives for the match

    def __repr__(self):
        return f"{self.family} {self.match} then {self.then}"


V4_ACTIONS = ["discard", "rate-limit 125000", "mark 10", "sample terminal", "redirect-vrf 65000:100",
              "redirect-ip 198.51.100.1", "redirect-ip 198.51.100.1 copy", "redirect-nexthop"]
V6_ACTIONS = [a.replace("198.51.100.1", "2001:db8::1") for a in V4_ACTIONS]
# Something besides the destination in some matches, so a peer's reading of each component
# type shows.
V4_EXTRA = ["protocol tcp destination-port =80", "source 192.0.2.0/24", "protocol udp", "", "", "", "",
            "packet-length >=1000"]
V6_EXTRA = ["next-header =6 destination-port =443", "source 2001:db8:ff::/48", "next-header =17", "", "", "", "",
            ""]
RULES = ([Rule("ipv4", f"destination 10.40.{i + 1}.0/24 {x}".strip(), a, "config" if i < 4 else "cli")
          for i, (a, x) in enumerate(zip(V4_ACTIONS, V4_EXTRA))] +
         [Rule("ipv6", f"destination 2001:db8:4{i + 1}::/48 {x}".strip(), a, "cli" if i < 4 else "config")
          for i, (a, x) in enumerate(zip(V6_ACTIONS, V6_EXTRA))])
# Deleted with `flowspec rule delete` once every peer has them (run-time rules).
DELETED = [RULES[5], RULES[9]]

def config_rules():
    text = '\n[[vrf]]\nname = "scrubbing"\nid = 10\nimport-route-targets = ["65000:100"]\n'
    for r in RULES:
        if r.source == "config":
            text += (f'\n[[rule]]\nfamily = "{r.family}-flowspec"\nmatch = "{r.match}"\n'
                     f'then = [{", ".join(json.dumps(a) for a in split_actions(r.then))}]\n')
    return text


def split_actions(then):
    return ["sample", "terminal"] if then == "sample terminal" else [then]


def flowspec(bins, *args):
    r = subprocess.run([bins[1]] + list(args), capture_output=True, text=True, timeout=30)
    if r.returncode != 0:
        raise Fail(f"flowspec {' '.join(args)}: exit {r.returncode}: {r.stderr.strip()}")
    return r.stdout


# ----------------------------------------------------------------------------------------
# Each peer's view: {match as the peer writes it: sorted communities as hex}, read through the
# peer's own CLI or JSON. A 20-byte IPv6 address specific community is 40 hex digits.

# The extra components of the matches above, as each peer writes them.
SHOWN = {
    "protocol tcp destination-port =80": ("[protocol: ==tcp][destination-port: ==80]", "proto 6; dport 80; ",
                                          " protocol =tcp destination-port =80", {"proto": "= 6", "dstp": "= 80"}),
    "source 192.0.2.0/24": ("[source: 192.0.2.0/24]", "src 192.0.2.0/24; ", " source-ipv4 192.0.2.0/24",
                            {"from": "192.0.2.0/24"}),
    "protocol udp": ("[protocol: ==udp]", "proto 17; ", " protocol =udp", {"proto": "= 17"}),
    "packet-length >=1000": ("[packet-length: >=1000]", "length >= 1000; ", " packet-length >=1000",
                             {"pktlen": ">= 1000"}),
    "next-header =6 destination-port =443": ("[protocol: ==tcp][destination-port: ==443]", "next header 6; dport 443; ",
                                             " next-header =tcp destination-port =443",
                                             {"proto": "= 6", "dstp": "= 443"}),
    "source 2001:db8:ff::/48": ("[source: 2001:db8:ff::/48/0]", "src 2001:db8:ff::/48; ",
                                " source-ipv6 2001:db8:ff::/48/0", {"from": "2001:db8:ff::/48/off 0"}),
    "next-header =17": ("[protocol: ==udp]", "next header 17; ", " next-header =udp", {"proto": "= 17"}),
    "": ("", "", "", {}),
}


def shown(rule, peer):
    """The rule's match as `peer` shows it."""
    extra = rule.match.split(None, 2)[2] if len(rule.match.split()) > 2 else ""
    g, b, e, f = SHOWN[extra]
    v6 = rule.family == "ipv6"
    if peer == "gobgp":
        return f"[destination: {rule.prefix}{'/0' if v6 else ''}]" + g
    if peer == "bird":
        return f"flow{6 if v6 else 4} {{ dst {rule.prefix}; {b}}}"
    if peer == "exabgp":
        return f"flow destination-ipv{6 if v6 else 4} {rule.prefix}{'/0' if v6 else ''}" + e
    return json.dumps(dict(f, to=rule.prefix + ("/off 0" if v6 else "")), sort_keys=True)


def gobgp_community(c, attr_type):
    t, st, v = c["type"], c["subtype"], c.get("value")
    if attr_type == 25:  # "2001:db8::1:1": address, then the local administrator
        address, local = v.rsplit(":", 1)
        return f"{t:02x}{st:02x}" + socket.inet_pton(socket.AF_INET6, address).hex() + f"{int(local):04x}"
    if (t, st) == (0x80, 0x06):
        return f"8006{c['as']:04x}" + struct.pack("!f", c["rate"]).hex()
    if (t, st) == (0x80, 0x07):
        return ext(t, st, (2 if c.get("sample") else 0) | (1 if c.get("terminal") else 0))
    if (t, st) == (0x80, 0x08):
        asn, local = v.split(":")
        return ext(t, st, (int(asn) << 32) | int(local))
    if (t, st) == (0x80, 0x09):
        return ext(t, st, v)
    if (t, st) == (0x01, 0x0c):
        address, local = v.split(":")
        return f"010c{ipv4_hex(address)}{int(local):04x}"
    if isinstance(v, str):  # a kind GoBGP does not know: the 7 bytes after the type, in base64
        return f"{t:02x}" + base64.b64decode(v).hex()
    raise Fail(f"GoBGP shows a community this test cannot read: {c}")


def gobgp_view(peer, family):
    out = json.loads(peer.gobgp("global", "rib", "-a", f"{family}-flowspec", "-j") or "{}")
    view = {}
    for match, paths in out.items():
        for path in paths if isinstance(paths, list) else [paths]:
            comms = [gobgp_community(c, a["type"]) for a in path.get("attrs", []) if a["type"] in (16, 25)
                     for c in a.get("value", [])]
            view[match] = sorted(comms)
    return view


def bird_community(text):
    m = re.fullmatch(r"\(generic, 0x([0-9a-f]+), 0x([0-9a-f]+)\)", text)
    if m:
        return f"{int(m[1], 16):08x}{int(m[2], 16):08x}"
    m = re.fullmatch(r"\(unknown 0x([0-9a-f]+), ([0-9.]+), (\d+)\)", text)
    if m:
        return f"{int(m[1], 16):04x}{ipv4_hex(m[2])}{int(m[3]):04x}"
    m = re.fullmatch(r"\(rt, (\d+), (\d+)\)", text)
    if m:
        return ext(0, 2, (int(m[1]) << 32) | int(m[2]))
    raise Fail(f"BIRD shows a community this test cannot read: {text}")


def bird_view(peer, family):
    r = subprocess.run(["birdc", "-s", peer.ctl, "show", "route", "table", "ft4" if family == "ipv4" else "ft6",
                        "all"], capture_output=True, text=True, timeout=10)
    view, match = {}, None
    for line in r.stdout.splitlines():
        m = re.match(r"(flow[46] \{.*\})  \[", line)
        if m:
            match = m[1]
            view[match] = []
        elif match and "BGP.ext_community:" in line:
            view[match] += [bird_community(c) for c in re.findall(r"\([^)]*\)", line.split(":", 1)[1])]
        elif match and line.strip().startswith("BGP.19 [t]:"):  # type 25, IPv6 address specific: bytes
            raw = line.split(":", 1)[1].split()
            view[match] += ["".join(raw[i:i + 20]) for i in range(0, len(raw), 20)]
    return {k: sorted(v) for k, v in view.items()}


def exabgp_view(peer, family):
    """Replays the UPDATEs ExaBGP's API process heard."""
    view = {}
    try:
        with open(peer.event_log(), errors="replace") as f:
            lines = f.read().splitlines()
    except OSError:
        return view
    for line in lines:
        try:
            update = json.loads(line)["neighbor"]["message"]["update"]
        except (ValueError, KeyError, TypeError):
            continue
        attrs = update.get("attribute", {})
        comms = [f"{c['value']:016x}" for c in attrs.get("extended-community", [])]
        for key, value in attrs.items():
            m = re.fullmatch(r"(redirect|copy)-to-nexthop-ietf (\S+)( \(with copy\))?", str(value))
            if key.startswith("attribute-0x19") and m:  # ExaBGP prints only this kind of them
                comms.append("000c" + socket.inet_pton(socket.AF_INET6, m[2]).hex() + ("0001" if m[3] else "0000"))
        for fam, by_nexthop in update.get("announce", {}).items():
            if fam == f"{family} flow":
                for routes in by_nexthop.values():
                    for r in routes:
                        view[re.sub(r" next-hop \S+$", "", r["string"])] = sorted(comms)
        for fam, routes in update.get("withdraw", {}).items():
            if fam == f"{family} flow":
                for r in routes:
                    view.pop(re.sub(r" next-hop \S+$", "", r["string"]), None)
    return view


def frr_view(peer, family):
    r = subprocess.run(["vtysh", "--vty_socket", os.path.join(peer.workdir, "frr-vty"), "-d", "bgpd", "-c",
                        f"show bgp {family} flowspec detail json"], capture_output=True, text=True, timeout=10)
    # One JSON array per rule, one after the other: its match, its communities as text, its age.
    view = {}
    for block in re.findall(r"\[\s*\{.*?\}\s*\]", r.stdout, re.S):
        items = json.loads(block)
        match = {k: v.strip() for k, v in items[0].items()}
        comms = next((i["ecomlist"] for i in items if "ecomlist" in i), "")
        view[json.dumps(match, sort_keys=True)] = comms
    return view


# How FRR writes each action's communities: text only, and for the traffic-action community
# only its terminal bit ("eval stops"), not the sample bit.
FRR_SHOWS = {"discard": "FS:rate 0.000000", "rate-limit 125000": "FS:rate 125000.000000", "mark 10": "FS:marking 10",
             "sample terminal": "FS:action eval stops", "redirect-vrf 65000:100": "FS:redirect VRF RT:65000:100",
             "redirect-ip 198.51.100.1": "NH:198.51.100.1:0", "redirect-ip 198.51.100.1 copy": "NH:198.51.100.1:1",
             # It holds these rules but shows no IPv6 address specific community at all.
             "redirect-ip 2001:db8::1": "", "redirect-ip 2001:db8::1 copy": "",
             "redirect-nexthop": "FS:redirect IP 0x0"}

VIEWS = {"gobgp": gobgp_view, "bird": bird_view, "exabgp": exabgp_view, "frr": frr_view}


def expected_view(peer, family, rules):
    return {shown(r, peer.name): FRR_SHOWS[r.then] if peer.name == "frr" else r.communities
            for r in rules if r.family == family}


def wait_view(peer, family, rules, what):
    """Waits until the peer's view of `family` holds exactly `rules` (those it can show), each
    with its communities."""
    want = expected_view(peer, family, rules)
    try:
        wait_until(f"{peer.name}: {what}", lambda: VIEWS[peer.name](peer, family) == want, 20)
    except Fail as e:
        got = VIEWS[peer.name](peer, family)
        missing = {k: v for k, v in want.items() if got.get(k) != v}
        extra = {k: v for k, v in got.items() if want.get(k) != v}
        raise Fail(f"{e}; {family}: wanted but not shown {missing}; shown but not wanted {extra}")


def check_wire(bins, capture, peers, rules, deleted):
    """Every UPDATE the agent sent decodes cleanly; each peer got each rule with the NLRI bytes
    `flowspec encode` gives and exactly its communities, and the deleted rules' withdrawals."""
    r = subprocess.run([bins[1], "decode", "--pcap", capture.path, "--json"], capture_output=True, text=True,
                       timeout=30)
    if r.returncode != 0:
        raise Fail(f"flowspec decode --pcap: {r.stderr.strip()}")
    sent = [json.loads(line) for line in r.stdout.splitlines() if line.startswith("{")]
    sent = [u for u in sent if "index" in u]
    bad = [u for u in sent if u.get("errors") or u.get("outcome") != "accept" or
           any(not x.get("ok", True) for x in u.get("announced", []) + u.get("withdrawn", []))]
    if bad:
        raise Fail(f"{len(bad)} of the agent's {len(sent)} UPDATEs do not decode cleanly: {bad[:2]}")
    for p in peers:
        host = "[::1]" if p.name == "frr" else p.address
        to_peer = [u for u in sent if u["to"].rsplit(":", 1)[0] == host]
        announced = {}
        withdrawn = set()
        for u in to_peer:
            comms = sorted(c["hex"] for c in u["extendedCommunities"])
            for n in u["announced"]:
                announced[n["nlri"].lower()] = comms
            withdrawn |= {n["nlri"].lower() for n in u["withdrawn"]}
        for rule in rules:
            if announced.get(rule.nlri) != rule.communities:
                raise Fail(f"{p.name}: the agent did not send {rule} as NLRI {rule.nlri} with "
                           f"{rule.communities}; sent {len(announced)} rules: {announced}")
        if withdrawn != {rule.nlri for rule in deleted}:
            raise Fail(f"{p.name}: withdrawals sent {withdrawn}, wanted those of {deleted}")
    log(f"capture: {len(sent)} UPDATEs from the agent ({capture.packets} packets), every one decoded cleanly; "
        f"each peer was sent the {len(rules)} rules with the NLRI `flowspec encode` gives and their communities, "
        f"and {len(deleted)} withdrawals")


def cli_rule(agent, verb, r):
    args = ["rule", verb, r.family] + r.match.split()
    if verb == "add":
        args += ["then"] + r.then.split()
    res = subprocess.run([agent.flowspec, "--socket", agent.socket] + args, capture_output=True, text=True,
                         timeout=10)
    if res.returncode != 0:
        raise Fail(f"flowspec {' '.join(args)}: exit {res.returncode}: {res.stderr.strip()}")


class FrrOverIpv6(Frr):
    """FRR over ::1 only: it refuses a next hop in 127.0.0.0/8 as martian, and a flowspec rule
    with it (the agent sends its session's local address); over ::1 an IPv4 rule carries no
    next hop and an IPv6 one ::1."""

    def sessions(self):
        return [("::1", "::1", "::1")]


def advertise_test(bins, workdir):
    agent_address = "127.0.22.1"
    agent_port = free_port(agent_address, "::1")
    kinds = [GoBgp, Bird, ExaBgp, FrrOverIpv6]
    peers = []
    for i, cls in enumerate(kinds):
        address = f"127.0.22.{i + 2}"
        peers.append(cls(workdir, address, free_port(address, "::1"), agent_address, agent_port, passive=False,
                         asn=PEER_AS, ipv6=False))
    bird, exa, frr = peers[1], peers[2], peers[3]
    bird.flow4, bird.flow6 = [], []
    exa.routes, exa.receive_updates = False, True
    neighbors = [{"address": p.sessions()[0][0], "port": p.port, "remote-as": PEER_AS, "passive": True,
                  "hold-time": HOLD, "connect-retry": 1, "families": ["ipv4-flowspec", "ipv6-flowspec"],
                  "description": p.name} for p in peers]
    agent = Agent(bins, workdir, agent_address, agent_port, neighbors, extra=config_rules())
    for r in RULES:
        r.nlri = json.loads(flowspec(bins, "encode", "--afi", str(r.afi), "--json", r.match))["nlri"].lower()
    capture = LoopbackCapture(os.path.join(workdir, "agent-sent.pcap"), agent_address, (agent_port, frr.port))
    results = {}
    try:
        for p in peers:
            p.start()
        agent.start()
        for p in peers:
            agent.wait_state(p.sessions()[0][0], "Established", 40)
        for r in RULES:
            if r.source == "cli":
                cli_rule(agent, "add", r)
        count = {"ipv4-flowspec": 8, "ipv6-flowspec": 8}
        for p in peers:
            wait_until(f"{p.name}: every rule sent",
                       lambda p=p: agent.neighbor(p.sessions()[0][0])["rulesAdvertised"] == count, 20)
        for p in peers:
            for fam in ("ipv4", "ipv6"):
                wait_view(p, fam, RULES, f"every {fam} rule shown with its communities")
            log(f"{p.name}: shows the 16 rules with their matches and communities")
        results["received"] = "ok"

        for r in DELETED:
            cli_rule(agent, "delete", r)
        kept = [r for r in RULES if r not in DELETED]
        for p in peers:
            for fam in ("ipv4", "ipv6"):
                wait_view(p, fam, kept, f"the deleted {fam} rule withdrawn")
        log(f"rule delete: every peer dropped {DELETED}")
        results["withdrawn"] = "ok"
        if agent.stop() != 0:
            raise Fail("flowspecd did not exit cleanly on SIGTERM")
    finally:
        capture.stop()
        agent.stop()
        for p in peers:
            p.stop()
    check_wire(bins, capture, peers, RULES, DELETED)
    results["wire"] = "ok"
    return results


def main():
    return main_of_case(__doc__, "advertise", advertise_test, ("gobgpd", "gobgp", "bird", "birdc", "exabgp", "/usr/lib/frr/bgpd", "vtysh"))


if __name__ == "__main__":
    sys.exit(main())
