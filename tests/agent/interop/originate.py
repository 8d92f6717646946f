#!/usr/bin/env python3
"""End-to-end test of originated rules: one flowspecd process, its configuration's [[rule]]
tables and `flowspec rule`, read back from the FSIB by another process (`flowspec fsib`).

  originate.py --flowspecd BIN --flowspec BIN [--work DIR]

Checks, in order:
  1. every configured rule reaches the FSIB with its actions (a redirect to a VRF included);
  2. rules added with `flowspec rule add` reach it too; refused ones exit 1 with the reason,
     usage errors exit 2; `flowspec rule list --json` names where each rule came from;
  3. a run-time rule with a configured rule's match takes its place, and gives it back when
     deleted;
  4. SIGHUP withdraws, changes and adds configured rules and keeps run-time ones;
  5. deleted rules leave the FSIB; the agent stops cleanly.
Every process is started here, bounded in time, and stopped by its PID.
"""
import os
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from interop import (Agent, Fail, DROP, POLICE, REDIRECT, SET_DSCP, main_of_case, free_port, log,  # noqa: E402
                     wait_until)

TRAFFIC_ACTION = 0x02

VRF = '\n[[vrf]]\nname = "scrubbing"\nid = 10\nimport-route-targets = ["65000:100"]\n'


def rule(family, match, then):
    actions = ", ".join(f'"{a}"' for a in then)
    return f'\n[[rule]]\nfamily = "{family}"\nmatch = "{match}"\nthen = [{actions}]\n'


def police(rate):
    return lambda r: r["actionBits"] & POLICE and abs(r["rate"] - rate) < 0.5


def dscp(value):
    return lambda r: r["actionBits"] & SET_DSCP and r["dscp"] == value


def both(*preds):
    return lambda r: all(p(r) for p in preds)


def drop(r):
    return r["actionBits"] & DROP


def redirect_to(address, copy=False):
    return lambda r: (r["actionBits"] & REDIRECT and r["redirect"]["address"] == address
                      and r["redirect"]["copy"] == copy)


def fsib_is(agent, want):
    """want: FSIB key -> predicate. The FSIB when it holds exactly these rules, each as wanted."""
    fsib = agent.fsib()
    if set(fsib) != set(want):
        return None
    return fsib if all(pred(fsib[k]) for k, pred in want.items()) else None


def cli(agent, *args):
    """Runs flowspec; its exit status, standard output and standard error."""
    r = subprocess.run([agent.flowspec, "--socket", agent.socket] + list(args), capture_output=True, text=True,
                       timeout=10)
    return r.returncode, r.stdout, r.stderr


def expect_status(agent, status, says, *args):
    got, out, err = cli(agent, *args)
    if got != status or says not in err:
        shown = " ".join(args)
        shown = shown if len(shown) < 200 else shown[:200] + "..."
        raise Fail(f"flowspec {shown}: exit {got}, wanted {status} saying {says!r}; said {err.strip()!r}")


def originate_test(bins, workdir):
    address = "127.0.21.1"
    agent = Agent(bins, workdir, address, free_port(address, "::1"), [])
    v4a = "192.0.2.0/24;*;protocol =6;destination-port =80;"
    v4b = "198.51.100.0/24;*;"
    v4c = "203.0.113.0/24;*;"
    v6a = "2001:db8::/32;*;"
    config = (VRF + rule("ipv4-flowspec", "destination 192.0.2.0/24 protocol tcp destination-port =80",
                         ["rate-limit 125000", "mark 10"])
              + rule("ipv4-flowspec", "destination 198.51.100.0/24", ["redirect-vrf 65000:100"])
              + rule("ipv6-flowspec", "destination 2001:db8::/32", ["redirect-ip 2001:db8::1 copy", "sample",
                                                                     "terminal"]))
    agent.write_config(config)
    configured = {
        v4a: both(police(125000), dscp(10)),
        v4b: lambda r: r["actionBits"] & REDIRECT and r["redirect"]["vrfId"] == 10,
        v6a: both(redirect_to("2001:db8::1", True), lambda r: r["trafficAction"] == 3),
    }
    results = {}
    try:
        agent.start()
        wait_until("the configured rules in the FSIB", lambda: fsib_is(agent, configured), 20)
        log("configuration: 3 rules in the FSIB with their actions")
        results["config"] = "ok"

        status, out, err = cli(agent, "rule", "add", "ipv4", "destination", "10.0.0.0/8", "protocol", "udp", "then",
                               "discard")
        if status != 0 or not out.startswith("added: ipv4-flowspec 10.0.0.0/8;*;protocol =17;"):
            raise Fail(f"rule add: exit {status}: {out}{err}")
        status, out, err = cli(agent, "rule", "add", "ipv6", "destination 2001:db8:1::/48", "then",
                               "redirect-nexthop", "2001:db8::9")
        if status != 0:
            raise Fail(f"rule add (IPv6): exit {status}: {err}")
        with_cli = dict(configured, **{"10.0.0.0/8;*;protocol =17;": drop,
                                       "2001:db8:1::/48;*;": redirect_to("2001:db8::9")})
        wait_until("the run-time rules in the FSIB", lambda: fsib_is(agent, with_cli), 10)
        expect_status(agent, 1, "unknown action \"fly\"", "rule", "add", "ipv4", "destination", "10.0.0.0/8",
                      "then", "fly")
        expect_status(agent, 1, "an IPv6 address in an IPv4 rule", "rule", "add", "ipv4", "destination",
                      "10.0.0.0/8", "then", "redirect-ip", "2001:db8::1")
        expect_status(agent, 1, "match: cannot read", "rule", "add", "ipv4", "destinatio", "10.0.0.0/8", "then",
                      "discard")
        expect_status(agent, 1, "UPDATE would need", "rule", "add", "ipv4", "destination-port",
                      *[f"={p}" for p in range(1000, 2345)], "then", "discard")
        expect_status(agent, 2, "no \"then\"", "rule", "add", "ipv4", "destination", "10.0.0.0/8")
        expect_status(agent, 2, "", "rule", "add", "ipv7", "destination", "10.0.0.0/8", "then", "discard")
        listing = agent.ask("rule", "list", "--json")["rules"]
        sources = sorted((r["source"], r["family"], r["match"], r["best"], r["fsib"]) for r in listing)
        want = sorted([("config", "ipv4-flowspec", v4a, True, True), ("config", "ipv4-flowspec", v4b, True, True),
                       ("config", "ipv6-flowspec", v6a, True, True),
                       ("cli", "ipv4-flowspec", "10.0.0.0/8;*;protocol =17;", True, True),
                       ("cli", "ipv6-flowspec", "2001:db8:1::/48;*;", True, True)])
        if sources != want:
            raise Fail(f"rule list: {sources}")
        log("rule add: 2 rules in the FSIB; refusals exit 1 with the reason, usage errors 2; rule list agrees")
        results["cli"] = "ok"

        # A run-time rule with a configured match takes its place until deleted.
        status, out, err = cli(agent, "rule", "add", "ipv4", "destination", "192.0.2.0/24", "protocol", "tcp",
                               "destination-port", "=80", "then", "mark", "20")
        overridden = dict(with_cli, **{v4a: dscp(20)})
        wait_until("the run-time rule over the configured one", lambda: fsib_is(agent, overridden), 10)
        status, out, err = cli(agent, "rule", "delete", "ipv4", "destination", "192.0.2.0/24", "protocol", "tcp",
                               "destination-port", "=80")
        if status != 0 or "configured rule of line" not in out:
            raise Fail(f"rule delete of the overriding rule: exit {status}: {out}{err}")
        wait_until("the configured rule back", lambda: fsib_is(agent, with_cli), 10)
        expect_status(agent, 1, "change the file and reload", "rule", "delete", "ipv4", "destination",
                      "198.51.100.0/24")
        log("a run-time rule took a configured rule's place and gave it back when deleted")
        results["precedence"] = "ok"

        # SIGHUP: v4b withdrawn, v4a changed, v4c added; the run-time rules stay.
        agent.reload(VRF + rule("ipv4-flowspec", "destination 192.0.2.0/24 protocol tcp destination-port =80",
                                ["discard"])
                     + rule("ipv4-flowspec", "destination 203.0.113.0/24", ["rate-limit 1000"])
                     + rule("ipv6-flowspec", "destination 2001:db8::/32", ["redirect-ip 2001:db8::1 copy", "sample",
                                                                            "terminal"]))
        reloaded = dict(with_cli, **{v4a: drop, v4c: police(1000)})
        del reloaded[v4b]
        wait_until("the reloaded rules in the FSIB", lambda: fsib_is(agent, reloaded), 10)
        if "1 added, 1 withdrawn, 1 changed, 1 kept" not in agent.proc.log_text():
            raise Fail("the reload did not log what it changed")
        log("SIGHUP: one rule withdrawn, one changed, one added; run-time rules kept")
        results["reload"] = "ok"

        for family, match in (("ipv4", "destination 10.0.0.0/8 protocol udp"),
                              ("ipv6", "destination 2001:db8:1::/48")):
            status, out, err = cli(agent, "rule", "delete", family, match)
            if status != 0:
                raise Fail(f"rule delete {match}: exit {status}: {err}")
        final = {k: v for k, v in reloaded.items() if k in (v4a, v4c, v6a)}
        wait_until("the deleted rules gone from the FSIB", lambda: fsib_is(agent, final), 10)
        log("rule delete: the run-time rules left the FSIB")
        results["delete"] = "ok"
        if agent.stop() != 0:
            raise Fail("flowspecd did not exit cleanly on SIGTERM")
    finally:
        agent.stop()
    return results


def main():
    return main_of_case(__doc__, "originate", originate_test, ())


if __name__ == "__main__":
    sys.exit(main())
