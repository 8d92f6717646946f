#!/usr/bin/env python3
"""Trust at the edge, with real BGP speakers on loopback.

  trust.py --flowspecd BIN --flowspec BIN [--work DIR] md5 gobgp|bird|frr
  trust.py --flowspecd BIN --flowspec BIN [--work DIR] gtsm
  trust.py --flowspecd BIN --flowspec BIN [--work DIR] limits
  trust.py --flowspecd BIN --flowspec BIN [--work DIR] policy

Each peer daemon holds several sessions with one agent, each between an address of the
agent's and one of the peer's (127.0.B.1x and 127.0.B.2x), so that one daemon plays several
neighbors.
  md5     TCP MD5 signatures (RFC 2385) with one daemon: the same password, the peer
          connecting and the agent connecting, makes the session; another password, or none on
          the peer's side, makes no session, and the agent's log says the kernel dropped
          segments for their signature. The passwords appear in no log and no show output;
          the configuration file, readable by others, earns the agent's warning.
  gtsm    TTL security (RFC 5082): FRR (ttl-security hops 1) connecting and BIRD (ttl security
          on) connected to reach Established with the agent's ttl-security; GoBGP, sending
          with TTL 2, is refused and the agent says why.
  limits  GoBGP announces 8 rules to three neighbors of max-rules 5: with warning all 8 stay and
          the crossing is logged once; with discard 5 stay and 3 are counted refused; with
          teardown the session ends with Cease 6/1 and stays down for max-rules-restart. A
          speaker written here reads the NOTIFICATION's data: AFI, SAFI and the limit.
  policy  GoBGP announces rules inside and outside the neighbor's allowed destinations, and one
          with a redirect it may not ask for: the refused ones stay out of the FSIB, are counted
          and shown with their reason. SIGHUP allows the redirect (it comes in, asked for again
          with ROUTE-REFRESH) and narrows the destinations (rules leave), the session going on.
Every process is started here, bounded in time, and stopped by its PID. TCP MD5 needs the
kernel's TCP_MD5SIG; without it the test says so and exits 77 (skipped).
"""
import argparse
import errno
import json
import os
import socket
import struct
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from interop import (HOLD, PEER_AS, Agent, Bird, Fail, Frr, GoBgp, Speaker, case_workdir,  # noqa: E402
                     flowspec_update, free_port, ip_id, log, run_case, vrf_config, wait_until)

SKIP = 77
PASSWORD = "s3cret-Key"
OTHER_PASSWORD = "another-Key"
PEERS = {"gobgp": GoBgp, "bird": Bird, "frr": Frr}
NEEDED = {"gobgp": ["gobgpd", "gobgp"], "bird": ["bird"], "frr": ["/usr/lib/frr/bgpd"]}


def md5_unsupported():
    """Why this kernel cannot sign TCP segments, or None."""
    s = socket.socket()
    try:
        # struct tcp_md5sig: the peer (sockaddr_storage), flags, prefix length, key length,
        # interface index, the key.
        peer = struct.pack("=H", socket.AF_INET) + struct.pack("!H", 0) + socket.inet_aton("127.0.0.1")
        s.setsockopt(socket.IPPROTO_TCP, 14, peer.ljust(128, b"\0") + struct.pack("=BBHi", 0, 0, 1, 0) +
                     b"k".ljust(80, b"\0"))
        return None
    except OSError as e:
        return f"TCP_MD5SIG is not available here ({errno.errorcode.get(e.errno, e.errno)})"
    finally:
        s.close()


class Fan:
    """`count` sessions between the agent and one peer daemon: the i-th between 127.0.B.1i on
    the agent's side and 127.0.B.2i on the peer's."""

    def __init__(self, base, count, main_peer_address_for=None):
        self.agent_address = f"127.0.{base}.1"
        self.peer_address = f"127.0.{base}.2"
        self.pairs = [(f"127.0.{base}.{10 + i}", f"127.0.{base}.{20 + i}") for i in range(count)]
        # That session's peer end is the daemon's main address instead.
        if main_peer_address_for is not None:
            self.pairs[main_peer_address_for] = (self.pairs[main_peer_address_for][0], self.peer_address)
        self.agent_port = free_port(self.agent_address, "::1", *[a for a, _ in self.pairs])
        self.peer_port = free_port(self.peer_address, *{p for _, p in self.pairs} - {self.peer_address})

    def peer(self, cls, workdir, options):
        """The peer daemon; options per session index: "password", "ttl_security", "passive"."""
        per_local = {p: dict(options.get(i, {}), agent=a) for i, (a, p) in enumerate(self.pairs)}
        peer = cls(workdir, self.peer_address, self.peer_port, self.agent_address, self.agent_port, passive=False,
                   ipv6=False, locals=[p for _, p in self.pairs], options=per_local)
        return peer

    def neighbors(self, keys):
        """The agent's [[neighbor]] tables; keys per session index."""
        return [dict({"address": p, "port": self.peer_port, "remote-as": PEER_AS, "hold-time": HOLD,
                      "connect-retry": 1, "local-address": a, "families": ["ipv4-flowspec"]}, **keys.get(i, {}))
                for i, (a, p) in enumerate(self.pairs)]

    def agent(self, bins, workdir, keys, extra=""):
        return Agent(bins, workdir, self.agent_address, self.agent_port, self.neighbors(keys), extra=extra,
                     more_addresses=[a for a, _ in self.pairs])


def established(agent, address):
    n = agent.neighbor(address)
    return n["state"] == "Established"


def log_has(agent, text):
    return text in agent.proc.log_text()


# ----------------------------------------------------------------------------------------


def md5_test(bins, workdir, name):
    # FRR signs on the first listening socket of a family only: the session the agent
    # connects to goes to FRR's main address, which it listens on first.
    fan = Fan({"gobgp": 30, "bird": 31, "frr": 32}[name], 4, main_peer_address_for=1 if name == "frr" else None)
    (_, right_in), (_, right_out), (_, wrong), (_, missing) = fan.pairs
    # The peer connects, except in the second session, where the agent does.
    peer = fan.peer(PEERS[name], workdir, {0: {"password": PASSWORD}, 1: {"password": PASSWORD, "passive": True},
                                           2: {"password": OTHER_PASSWORD}, 3: {}})
    signed = {"password": PASSWORD, "passive": True}
    agent = fan.agent(bins, workdir, {0: signed, 1: {"password": PASSWORD, "passive": False}, 2: signed, 3: signed})
    results = {}
    try:
        peer.start()
        agent.start()
        for a in (right_in, right_out):
            agent.wait_state(a, "Established", 30)
        log(f"{name}: the sessions with the same password are Established (the peer connecting, and the agent)")
        results["same password"] = "ok"
        wait_until("the agent's log of segments dropped for their signature",
                   lambda: log_has(agent, "TCP MD5: the kernel dropped segments for their signature"), 25)
        for a in (wrong, missing):
            n = agent.neighbor(a)
            if n["establishedTransitions"] != 0 or n["state"] == "Established":
                raise Fail(f"{a}: a session came up with {'another password' if a == wrong else 'none'}: {n}")
        drops = [line for line in agent.proc.log_text().splitlines() if "TCP MD5:" in line]
        log(f"{name}: another password or none makes no session; the agent says: {drops[0].split(' - ', 1)[-1]}")
        results["other or no password"] = "ok"
        shown = json.dumps(agent.neighbors())
        text = agent.proc.log_text()
        if PASSWORD in shown or PASSWORD in text or OTHER_PASSWORD in text:
            raise Fail("a password appears in show neighbors or the agent's log")
        if not all(agent.neighbor(a)["tcpMd5"] for a in (right_in, wrong)):
            raise Fail("show neighbors does not say TCP MD5 is on")
        if "holds passwords and users other than its owner may read it" not in text:
            raise Fail("no warning of a configuration file others may read")
        results["passwords kept out of sight"] = "ok"
    finally:
        agent.stop()
        peer.stop()
    return results


def gtsm_test(bins, workdir):
    frr_fan, bird_fan, gobgp_fan = Fan(33, 1), Fan(34, 1), Fan(35, 1)
    frr = frr_fan.peer(Frr, workdir, {0: {"ttl_security": True}})
    bird = bird_fan.peer(Bird, workdir, {0: {"ttl_security": True, "passive": True}})
    gobgp = gobgp_fan.peer(GoBgp, workdir, {})
    # One agent for the three: its addresses and neighbors are the three fans'.
    gtsm = {"ttl-security": True}
    neighbors = (frr_fan.neighbors({0: dict(gtsm, passive=True)}) + bird_fan.neighbors({0: dict(gtsm, passive=False)}) +
                 gobgp_fan.neighbors({0: dict(gtsm, passive=True)}))
    port = free_port(frr_fan.agent_address, "::1", *[f.pairs[0][0] for f in (frr_fan, bird_fan, gobgp_fan)])
    for f, p in ((frr_fan, frr), (bird_fan, bird), (gobgp_fan, gobgp)):
        p.agent_port = port
        for n in neighbors:
            if n["address"] == f.pairs[0][1]:
                n["port"] = f.peer_port
    agent = Agent(bins, workdir, frr_fan.agent_address, port, neighbors,
                  more_addresses=[f.pairs[0][0] for f in (frr_fan, bird_fan, gobgp_fan)])
    results = {}
    try:
        for p in (frr, bird, gobgp):
            p.start()
        agent.start()
        for f, who in ((frr_fan, "FRR, connecting"), (bird_fan, "BIRD, connected to")):
            agent.wait_state(f.pairs[0][1], "Established", 30)
            log(f"{who}: Established with TTL security on both ends")
        results["established"] = "ok"
        goaddr = gobgp_fan.pairs[0][1]
        n = wait_until("GoBGP's connections refused for their TTL",
                       lambda: (lambda n: n if n["connectionsRefused"] > 0 else None)(agent.neighbor(goaddr)), 20)
        if "below 255 (ttl-security)" not in n["lastError"] or n["establishedTransitions"] != 0:
            raise Fail(f"GoBGP's neighbor: {n['lastError']!r}, {n['establishedTransitions']} session(s)")
        if not log_has(agent, "refused: TTL 2, below 255 (ttl-security)"):
            raise Fail("the agent's log does not say GoBGP's connection came with TTL 2")
        log(f"GoBGP (TTL 2) refused: {n['lastError']}")
        results["refused"] = "ok"
    finally:
        agent.stop()
        for p in (frr, bird, gobgp):
            p.stop()
    return results


def gobgp_rules(gobgp, rules):
    wait_until("gobgp API", lambda: gobgp.gobgp("global") is not None, 15)
    for r in rules:
        gobgp.gobgp("global", "rib", "-a", "ipv4-flowspec", "add", "match", *r)


def read_notification(speaker):
    """The NOTIFICATION the agent sends before it closes, as (code, subcode, data)."""
    got = speaker.notification(HOLD + 5)
    if got is None:
        raise Fail("the agent closed without a NOTIFICATION")
    return got


def limits_test(bins, workdir):
    fan = Fan(36, 4)
    (_, warning), (_, discard), (_, teardown), (_, speaker_at) = fan.pairs
    gobgp = fan.peer(GoBgp, workdir, {})
    gobgp.locals = [p for _, p in fan.pairs[:3]]
    limit = {"max-rules": 5}
    agent = fan.agent(bins, workdir, {0: dict(limit, **{"max-rules-action": "warning", "passive": True}),
                                      1: dict(limit, **{"max-rules-action": "discard", "passive": True}),
                                      2: dict(limit, **{"max-rules-action": "teardown", "max-rules-restart": 4,
                                                        "passive": True}),
                                      3: {"max-rules": 2, "max-rules-action": "teardown", "passive": True}})
    results = {}
    speaker = None
    try:
        gobgp.start()
        agent.start()
        for a in (warning, discard, teardown):
            agent.wait_state(a, "Established", 30)
        gobgp_rules(gobgp, [["destination", f"10.{i}.0.0/24", "then", "discard"] for i in range(8)])

        received = lambda a: agent.neighbor(a)["rulesReceived"].get("ipv4-flowspec", 0)
        wait_until("8 rules from the warning neighbor", lambda: received(warning) == 8, 20)
        n = agent.neighbor(warning)["import"]["ipv4-flowspec"]
        if (n["limitExceeded"], n["limitWarnings"], n["refusedTotal"]) != (1, 1, 0):
            raise Fail(f"warning: {n}")
        if not log_has(agent, f"{warning} ipv4-flowspec: 6 rule(s) exceed max-rules 5 "
                              "(max-rules-action warning: they are kept)"):
            raise Fail("warning: the crossing is not logged")
        log("warning: all 8 rules kept, the crossing logged and counted once")
        results["warning"] = "ok"

        wait_until("5 rules from the discard neighbor", lambda: received(discard) == 5 and
                   agent.neighbor(discard)["import"]["ipv4-flowspec"]["refused"]["ruleLimit"] == 3, 20)
        time.sleep(1)
        if received(discard) != 5 or not log_has(agent, f"{discard} ipv4-flowspec: max-rules 5 reached"):
            raise Fail(f"discard: {agent.neighbor(discard)['import']}")
        u = agent.updates()[discard]["families"]["ipv4-flowspec"]["importRefused"]
        if u["ruleLimit"] != 3:
            raise Fail(f"show updates for the discard neighbor: {u}")
        log("discard: 5 rules held, the 3 beyond refused and counted (show neighbors, show updates)")
        results["discard"] = "ok"

        def torn_down():
            n = agent.neighbor(teardown)
            return n if n["idleHoldSeconds"] > 0 and n["state"] == "Idle" else None
        n = wait_until("the teardown neighbor held in Idle", torn_down, 20)
        if n["lastError"] != "sent NOTIFICATION Cease/Maximum Number of Prefixes Reached (6/1)":
            raise Fail(f"teardown: last error {n['lastError']!r}")
        down_at = time.monotonic()
        wait_until("GoBGP to log the Cease 6/1",
                   lambda: any("received notification" in line.lower() and "Code=6" in line and "Subcode=1" in line
                               for line in gobgp.proc.log_text().splitlines()), 10)
        ups = n["establishedTransitions"]
        # It stays down for max-rules-restart (4 s), however often GoBGP tries meanwhile.
        wait_until("the teardown neighbor back after its hold",
                   lambda: agent.neighbor(teardown)["establishedTransitions"] > ups, 20)
        held = time.monotonic() - down_at
        if held < 3:
            raise Fail(f"teardown: the session came back after {held:.1f} s, within max-rules-restart")
        log(f"teardown: Cease 6/1 sent, GoBGP heard it, the neighbor came back after {held:.1f} s")
        results["teardown"] = "ok"

        # The NOTIFICATION's data, read by a speaker of our own: AFI 1, SAFI 133, limit 2.
        speaker = Speaker(speaker_at, fan.pairs[3][0], fan.agent_port)
        speaker.establish(PEER_AS, ip_id(speaker_at), HOLD)
        speaker.keep_alive(1)
        for third in range(3):  # destination 10.9.N.0/24
            speaker.send(flowspec_update(PEER_AS, 1, bytes([1, 24, 10, 9, third])))
        code, subcode, data = read_notification(speaker)
        if (code, subcode, data) != (6, 1, struct.pack("!HBI", 1, 133, 2)):
            raise Fail(f"the NOTIFICATION for max-rules 2: {(code, subcode, data.hex())}")
        log(f"the NOTIFICATION: 6/1 with data {data.hex()} (AFI 1, SAFI 133, limit 2)")
        results["notification data"] = "ok"
    finally:
        if speaker:
            speaker.close()
        agent.stop()
        gobgp.stop()
    return results


def policy_test(bins, workdir):
    fan = Fan(37, 1)
    (_, at), = fan.pairs
    gobgp = fan.peer(GoBgp, workdir, {})
    neighbor = {"passive": True, "allowed-destinations": ["10.0.0.0/8 le 32"],
                "allowed-actions": ["discard", "rate-limit"]}
    # The redirect's route target is a VRF's: the rule it comes with is one forwarding takes.
    vrf = vrf_config("65000:100")
    agent = fan.agent(bins, workdir, {0: neighbor}, extra=vrf)
    results = {}
    fsib_has = lambda: {k.split(";")[0] for k in agent.fsib()}
    try:
        gobgp.start()
        agent.start()
        agent.wait_state(at, "Established", 30)
        gobgp_rules(gobgp, [["destination", "10.1.0.0/24", "then", "discard"],
                            ["destination", "11.1.0.0/24", "then", "discard"],
                            ["destination", "10.2.0.0/24", "then", "redirect", "65000:100"],
                            ["destination", "10.3.0.0/24", "then", "rate-limit", "1000"]])
        wait_until("the allowed rules in the FSIB", lambda: fsib_has() == {"10.1.0.0/24", "10.3.0.0/24"}, 20)
        refused = wait_until("two rules refused", lambda: (lambda r: r if len(r["rules"]) == 2 else None)(
            agent.ask("show", "flowspec", "ipv4", "refused", at, "--json")), 10)
        shown = {r["rule"]: (r["reason"], r["actions"]) for r in refused["rules"]}
        if shown != {"11.1.0.0/24;*;": ("destinationNotAllowed", ["discard"]),
                     "10.2.0.0/24;*;": ("actionNotAllowed", ["redirect-vrf"])}:
            raise Fail(f"the refused view: {shown}")
        counts = agent.neighbor(at)["import"]["ipv4-flowspec"]["refused"]
        if (counts["destinationNotAllowed"], counts["actionNotAllowed"]) != (1, 1):
            raise Fail(f"show neighbors' refusal counts: {counts}")
        text = subprocess.run([agent.flowspec, "--socket", agent.socket, "show", "flowspec", "ipv4", "refused", at],
                              capture_output=True, text=True, timeout=10).stdout
        if "actionNotAllowed" not in text or "11.1.0.0/24;*;" not in text:
            raise Fail(f"the refused view as text:\n{text}")
        log("refused: 11.1.0.0/24 (destinationNotAllowed) and 10.2.0.0/24 with a redirect (actionNotAllowed); "
            "neither in the FSIB; counted and shown")
        results["refused"] = "ok"

        ups = agent.neighbor(at)["establishedTransitions"]
        agent.neighbors_are(fan.neighbors({0: dict(neighbor, **{"allowed-actions": ["discard", "rate-limit",
                                                                                     "redirect-vrf"]})}))
        agent.reload(vrf)
        wait_until("the redirect rule in after SIGHUP", lambda: "10.2.0.0/24" in fsib_has(), 20)
        if agent.neighbor(at)["routeRefreshesOut"] < 1:
            raise Fail("the agent did not ask for the rules again")
        agent.neighbors_are(fan.neighbors({0: dict(neighbor, **{"allowed-destinations": ["10.1.0.0/16 le 32"]})}))
        agent.reload(vrf)
        wait_until("only 10.1.0.0/24 left after SIGHUP", lambda: fsib_has() == {"10.1.0.0/24"}, 20)
        n = agent.neighbor(at)
        if n["establishedTransitions"] != ups or n["state"] != "Established":
            raise Fail(f"the session did not go on across the reloads: {n['state']}, {n['establishedTransitions']}")
        log("SIGHUP: the redirect allowed came in (ROUTE-REFRESH), the destinations narrowed took rules out; "
            "the session went on")
        results["reload"] = "ok"
    finally:
        agent.stop()
        gobgp.stop()
    return results


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--flowspecd", required=True, help="the agent binary")
    ap.add_argument("--flowspec", required=True, help="the command-line tool binary")
    ap.add_argument("--work", help="folder for configurations and logs (default: a new temporary one)")
    sub = ap.add_subparsers(dest="what", required=True)
    md5 = sub.add_parser("md5")
    md5.add_argument("peer", choices=sorted(PEERS))
    for name in ("gtsm", "limits", "policy"):
        sub.add_parser(name)
    args = ap.parse_args()
    if args.what == "md5":
        why = md5_unsupported()
        if why:
            print(f"SKIP: {why}: the MD5 sessions cannot be tested")
            return SKIP
    label = f"trust-{args.what}" + (f"-{args.peer}" if args.what == "md5" else "")
    workdir = case_workdir(args.work, label)
    bins = (os.path.abspath(args.flowspecd), os.path.abspath(args.flowspec))
    needed = {"md5": NEEDED.get(getattr(args, "peer", ""), []),
              "gtsm": NEEDED["frr"] + NEEDED["bird"] + NEEDED["gobgp"],
              "limits": NEEDED["gobgp"], "policy": NEEDED["gobgp"]}[args.what]
    tests = {"md5": lambda: md5_test(bins, workdir, args.peer), "gtsm": lambda: gtsm_test(bins, workdir),
             "limits": lambda: limits_test(bins, workdir), "policy": lambda: policy_test(bins, workdir)}
    return run_case(label, workdir, tests[args.what], needed)


if __name__ == "__main__":
    sys.exit(main())
