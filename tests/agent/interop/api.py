#!/usr/bin/env python3
"""The controllers' gRPC API end to end, with Debian's `gobgp` program as the client.

  api.py --flowspecd BIN --flowspec BIN --client BIN [--work DIR]

One flowspecd with api-listen and metrics-listen on loopback, and a gobgpd peer that the
agent advertises its rules to. Checks, in order:
  1. `gobgp global rib add` of IPv4 and IPv6 rules (discard, rate-limit, redirect) reaches
     the agent's FSIB and the peer; `gobgp global rib` lists them, `gobgp neighbor` shows the
     peer, `gobgp global` the agent; `flowspec rule list` says they came from the API;
  2. refusals (a family the API does not serve, a rule too long for an UPDATE) fail the
     `gobgp` command with the agent's reason, and change nothing;
  3. `gobgp global rib del` withdraws them from the FSIB and the peer;
  4. our own client (--client check): reconciliation through ListPath, DeletePath by uuid,
     the refusals and their status codes, a lifetime from the call's metadata, a stream
     dropped half way and a burst of calls, while the BGP session stays up;
  5. a rule added with `--expires` survives a SIGHUP and withdraws itself, from the peer too;
  6. /metrics passes `promtool check metrics` and counts the API's calls.
Every process is started here, bounded in time, and stopped by its PID.
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import time
import urllib.request

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from interop import (HOLD, PEER_AS, Agent, Fail, GoBgp, case_workdir, free_port, log, run_case,  # noqa: E402
                     wait_until)


def gobgp_client(port, *args, ok=True):
    r = subprocess.run(["gobgp", "-u", "127.0.0.1", "-p", str(port)] + list(args), capture_output=True, text=True,
                       timeout=20)
    if ok and r.returncode != 0:
        raise Fail(f"gobgp {' '.join(args)[:200]}: exit {r.returncode}: {r.stderr.strip()}")
    return r


V4 = [("destination 10.0.0.0/24 protocol tcp destination-port ==80".split(), ["discard"],
       "10.0.0.0/24;*;protocol =6;destination-port =80;"),
      ("destination 10.0.1.0/24".split(), ["rate-limit", "1000"], "10.0.1.0/24;*;"),
      ("destination 10.0.2.0/24 protocol udp".split(), ["redirect", "65000:100"], "10.0.2.0/24;*;protocol =17;")]
V6 = [("destination 2001:db8:1::/48 protocol tcp".split(), ["discard"], "2001:db8:1::/48;*;protocol =6;"),
      ("destination 2001:db8:2::/48".split(), ["rate-limit", "2500"], "2001:db8:2::/48;*;")]


def peer_rib(peer, family):
    return peer.gobgp("global", "rib", "-a", family)


def api_test(bins, client, workdir):
    agent_address, peer_address = "127.0.23.1", "127.0.23.2"
    agent_port = free_port(agent_address, "::1")
    api_port = free_port("127.0.0.1")
    metrics_port = free_port("127.0.0.1")
    peer = GoBgp(workdir, peer_address, free_port(peer_address), agent_address, agent_port, passive=False,
                 asn=PEER_AS, ipv6=False)
    neighbors = [{"address": peer_address, "port": peer.port, "remote-as": PEER_AS, "passive": True,
                  "hold-time": HOLD, "connect-retry": 1, "families": ["ipv4-flowspec", "ipv6-flowspec"]}]
    extra = (f'api-listen = "127.0.0.1:{api_port}"\nmetrics-listen = "127.0.0.1:{metrics_port}"\n'
             '\n[[vrf]]\nname = "scrubbing"\nid = 10\nimport-route-targets = ["65000:100"]\n')
    # The top-level keys go before the tables: the base configuration ends with the neighbor's.
    agent = Agent(bins, workdir, agent_address, agent_port, neighbors)
    agent.base_config = extra.split("\n[[vrf]]")[0] + "\n" + agent.base_config
    agent.write_config("\n[[vrf]]" + extra.split("\n[[vrf]]")[1])
    results = {}
    try:
        peer.start()
        agent.start()
        agent.wait_state(peer_address, "Established", 40)
        wait_until("the API listening", lambda: gobgp_client(api_port, "global", ok=False).returncode == 0, 15)

        for fam, rules in (("ipv4-flowspec", V4), ("ipv6-flowspec", V6)):
            for match, then, _ in rules:
                gobgp_client(api_port, "global", "rib", "-a", fam, "add", "match", *match, "then", *then)
        keys = {k for _, _, k in V4 + V6}
        wait_until("the API's rules in the FSIB", lambda: set(agent.fsib()) == keys or None, 15)
        for fam, rules in (("ipv4-flowspec", V4), ("ipv6-flowspec", V6)):
            wait_until(f"the peer's {fam} table", lambda fam=fam, rules=rules: all(
                m[1] in peer_rib(peer, fam) for m, _, _ in rules) or None, 20)
        v4 = peer_rib(peer, "ipv4-flowspec")
        if "discard" not in v4 or "rate: 1000" not in v4 or "redirect: 65000:100" not in v4:
            raise Fail("the peer's rules lack their actions:\n" + v4)
        listed = gobgp_client(api_port, "global", "rib", "-a", "ipv4-flowspec").stdout
        listed6 = gobgp_client(api_port, "global", "rib", "-a", "ipv6-flowspec").stdout
        for needle in ("[destination: 10.0.0.0/24][protocol: ==tcp][destination-port: ==80]", "rate: 1000",
                       "redirect: 65000:100"):
            if needle not in listed:
                raise Fail(f"gobgp global rib lacks {needle!r}:\n{listed}")
        if "2001:db8:1::/48" not in listed6 or "rate: 2500" not in listed6:
            raise Fail("gobgp global rib -a ipv6-flowspec:\n" + listed6)
        neighbor = gobgp_client(api_port, "neighbor").stdout
        if not re.search(rf"{re.escape(peer_address)}\s+{PEER_AS}\s+\S+\s+Establ", neighbor):
            raise Fail("gobgp neighbor does not show the peer Established:\n" + neighbor)
        glob = gobgp_client(api_port, "global").stdout
        if "65001" not in glob or agent_address not in glob:
            raise Fail("gobgp global:\n" + glob)
        sources = {(r["source"], r["match"]) for r in agent.ask("rule", "list", "--json")["rules"]}
        if sources != {("api", k) for k in keys}:
            raise Fail(f"rule list: {sources}")
        log("gobgp: 5 rules in the FSIB and at the peer, listed back; neighbor and global answered")
        results["add"] = "ok"

        for what, args, says in (
                ("an IPv4 unicast path", ["global", "rib", "-a", "ipv4", "add", "10.9.0.0/24"], "family"),
                ("a rule too long for an UPDATE", ["global", "rib", "-a", "ipv4-flowspec", "add", "match",
                                                   "destination-port", " ".join(f"=={p}" for p in range(1000, 2345)),
                                                   "then", "discard"], "UPDATE would need")):
            r = gobgp_client(api_port, *args, ok=False)
            said = r.stdout + r.stderr
            if r.returncode == 0 or says not in said:
                raise Fail(f"gobgp, {what}: exit {r.returncode}, said {said.strip()!r}")
        if set(agent.fsib()) != keys:
            raise Fail("a refused call changed the FSIB")
        log("gobgp: refusals fail the command with the agent's reason")
        results["refusals"] = "ok"

        for fam, rules in (("ipv4-flowspec", V4), ("ipv6-flowspec", V6)):
            for match, _, _ in rules:
                gobgp_client(api_port, "global", "rib", "-a", fam, "del", "match", *match)
        wait_until("the FSIB empty", lambda: not agent.fsib() or None, 15)
        for fam in ("ipv4-flowspec", "ipv6-flowspec"):
            wait_until(f"the peer's {fam} table empty",
                       lambda fam=fam: "Network not in table" in peer_rib(peer, fam) or None, 20)
        log("gobgp: del withdrew every rule from the FSIB and the peer")
        results["delete"] = "ok"

        established = agent.neighbor(peer_address)["establishedTransitions"] \
            if "establishedTransitions" in agent.neighbor(peer_address) else None
        r = subprocess.run([client, "check", f"127.0.0.1:{api_port}"], capture_output=True, text=True, timeout=120)
        print(r.stdout, end="")
        if r.returncode != 0:
            raise Fail(f"the API client's checks failed: {r.stderr.strip()}")
        n = agent.neighbor(peer_address)
        if n["state"] != "Established" or (established is not None and n["establishedTransitions"] != established):
            raise Fail(f"the BGP session did not stay up through the client's checks: {n}")
        log("own client: reconciliation, uuid, refusals, lifetime, a dropped stream and a burst; session stayed up")
        results["client"] = "ok"

        status = subprocess.run([agent.flowspec, "--socket", agent.socket, "rule", "add", "ipv4", "destination",
                                 "10.5.0.0/24", "then", "discard", "--expires", "4s"], capture_output=True, text=True,
                                timeout=10)
        if status.returncode != 0:
            raise Fail("rule add --expires: " + status.stderr)
        wait_until("the expiring rule at the peer", lambda: "10.5.0.0/24" in peer_rib(peer, "ipv4-flowspec") or None,
                   10)
        listing = subprocess.run([agent.flowspec, "--socket", agent.socket, "rule", "list"], capture_output=True,
                                 text=True, timeout=10).stdout
        if not re.search(r"\s[1-4]s\s+10\.5\.0\.0/24", listing):
            raise Fail("rule list does not show the time left:\n" + listing)
        agent.reload("\n[[vrf]]" + extra.split("\n[[vrf]]")[1])
        time.sleep(0.5)
        if "10.5.0.0/24;*;" not in agent.fsib():
            raise Fail("SIGHUP dropped the expiring rule early")
        wait_until("the rule gone when its lifetime ended", lambda: "10.5.0.0/24;*;" not in agent.fsib() or None, 10)
        wait_until("... and from the peer", lambda: "10.5.0.0/24" not in peer_rib(peer, "ipv4-flowspec") or None, 10)
        log("rule add --expires 4s: kept through a SIGHUP, withdrawn from the FSIB and the peer when it ended")
        results["lifetime"] = "ok"

        text = urllib.request.urlopen(f"http://127.0.0.1:{metrics_port}/metrics", timeout=10).read().decode()
        if shutil.which("promtool"):
            p = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True,
                               timeout=20)
            if p.returncode != 0:
                raise Fail("promtool check metrics: " + p.stdout + p.stderr)
        else:
            log("promtool is not installed: the exposition is not checked by it")
        m = re.search(r'^flowspecd_api_requests_total\{method="AddPath"\} (\d+)', text, re.M)
        if not m or int(m.group(1)) < 800:
            raise Fail("/metrics does not count the API's AddPath calls:\n" +
                       "\n".join(line for line in text.splitlines() if "api" in line))
        if not re.search(r'^flowspecd_neighbor_up\{[^}]*neighbor="127\.0\.23\.2"[^}]*\} 1', text, re.M):
            raise Fail("/metrics does not show the peer up:\n" +
                       "\n".join(line for line in text.splitlines() if "neighbor_up" in line))
        log("/metrics: promtool accepts it; it counts the API's calls and shows the peer up")
        results["metrics"] = "ok"
        if agent.stop() != 0:
            raise Fail("flowspecd did not exit cleanly on SIGTERM")
    finally:
        agent.stop()
        peer.stop()
    return results


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--flowspecd", required=True)
    ap.add_argument("--flowspec", required=True)
    ap.add_argument("--client", required=True, help="flowspec-api-client")
    ap.add_argument("--work")
    args = ap.parse_args()
    workdir = case_workdir(args.work, "api")
    bins = (os.path.abspath(args.flowspecd), os.path.abspath(args.flowspec))
    return run_case("api", workdir, lambda: api_test(bins, os.path.abspath(args.client), workdir),
                    ("gobgpd", "gobgp"))


if __name__ == "__main__":
    sys.exit(main())
