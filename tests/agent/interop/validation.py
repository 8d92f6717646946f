#!/usr/bin/env python3
"""Validation of flowspec rules against the unicast table, with two real GoBGP speakers on
loopback: A (AS 65002) and B (AS 65003), each an external neighbor of the agent with the
families ipv4-flowspec and ipv4-unicast (so the agent validates them by default).

  validation.py --flowspecd BIN --flowspec BIN [--work DIR]

  1. A announces 10.0.0.0/8; B announces a rule for 10.1.0.0/24: refused (notOriginator),
     never in the FSIB. A announces the same rule: in the FSIB.
  2. A announces a rule for 11.1.0.0/24 before any route covers it: refused
     (noUnicastRoute). A then announces 11.0.0.0/8: the rule enters the FSIB, not sent again.
  3. B announces 11.1.0.128/25, inside the rule's destination and from another AS: the rule leaves the FSIB;
     B withdraws it: the rule is back. A withdraws 11.0.0.0/8: the rule leaves.
Every process is started here, bounded in time, and stopped by its PID.
"""
import argparse
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from interop import HOLD, Agent, Fail, GoBgp, case_workdir, free_port, log, run_case, wait_until  # noqa: E402

FAMILIES = ["ipv4-flowspec", "ipv4-unicast"]


def validation_test(bins, workdir):
    agent_at = "127.0.38.1"
    peers = {"A": ("127.0.38.20", 65002), "B": ("127.0.38.21", 65003)}
    agent_port = free_port(agent_at)
    speakers = {}
    for name, (address, asn) in peers.items():
        d = os.path.join(workdir, name)
        os.makedirs(d, exist_ok=True)
        speakers[name] = GoBgp(d, address, free_port(address), agent_at, agent_port, passive=False, asn=asn,
                               ipv6=False, options={address: {"families": FAMILIES}})
    neighbors = [{"address": address, "port": speakers[name].port, "remote-as": asn, "hold-time": HOLD,
                  "connect-retry": 1, "passive": True, "families": FAMILIES}
                 for name, (address, asn) in peers.items()]
    agent = Agent(bins, workdir, agent_at, agent_port, neighbors)
    a, b = speakers["A"], speakers["B"]
    at = {name: address for name, (address, _) in peers.items()}
    results = {}

    def refused(name, reason):
        return agent.neighbor(at[name])["import"].get("ipv4-flowspec", {}).get("refused", {}).get(reason, 0)

    def fsib_dests():
        return sorted(r["key"] for r in agent.fsib().values())

    def fsib_is(count, what):
        wait_until(what, lambda: len(agent.fsib()) == count, 20)

    def rules(speaker, verb, dest):
        speaker.gobgp("global", "rib", "-a", "ipv4-flowspec", verb, "match", "destination", dest, "then", "discard")

    def route(speaker, verb, prefix):
        speaker.gobgp("global", "rib", "-a", "ipv4", verb, prefix)

    try:
        a.start()
        b.start()
        agent.start()
        for name in peers:
            agent.wait_state(at[name], "Established", 30)
        for s in (a, b):
            wait_until("gobgp API", lambda s=s: s.gobgp("global") is not None, 15)

        route(a, "add", "10.0.0.0/8")
        wait_until("A's route in the unicast table",
                   lambda: agent.ask("show", "unicast", "ipv4", "--json")["routes"] == 1, 20)
        rules(b, "add", "10.1.0.0/24")
        wait_until("B's rule refused: not the originator", lambda: refused("B", "notOriginator") == 1, 20)
        if agent.fsib():
            raise Fail(f"B's rule reached the FSIB: {fsib_dests()}")
        rules(a, "add", "10.1.0.0/24")
        fsib_is(1, "A's rule for the same destination in the FSIB")
        log("a rule from the neighbor that does not route its destination stays out; from the one that does, in")
        results["originator"] = "ok"

        rules(a, "add", "11.1.0.0/24")
        wait_until("A's rule without a route refused", lambda: refused("A", "noUnicastRoute") == 1, 20)
        announced = agent.updates()[at["A"]]["families"]["ipv4-flowspec"]["announced"]
        route(a, "add", "11.0.0.0/8")
        fsib_is(2, "the rule in the FSIB once its route arrived")
        if agent.updates()[at["A"]]["families"]["ipv4-flowspec"]["announced"] != announced:
            raise Fail("the rule came in because A sent it again")
        log("a rule whose route arrives after it comes in without being sent again")
        results["route after rule"] = "ok"

        route(b, "add", "11.1.0.128/25")
        fsib_is(1, "the rule out: a more-specific route from another AS")
        if refused("A", "moreSpecificOtherAs") != 1:
            raise Fail("the more-specific route's refusal is not counted")
        route(b, "del", "11.1.0.128/25")
        fsib_is(2, "the rule back once the more-specific route went")
        route(a, "del", "11.0.0.0/8")
        fsib_is(1, "the rule out with its route")
        shown = agent.ask("show", "unicast", "ipv4", "11.1.0.0/24", "--json")
        if shown["bestMatch"] is not None:
            raise Fail(f"show unicast: {shown}")
        log("unicast changes move the rule out and in: more-specific from another AS, its withdrawal, "
            "the covering route's withdrawal")
        results["revalidation"] = "ok"
    finally:
        agent.stop()
        for s in (a, b):
            s.stop()
    return results


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--flowspecd", required=True, help="the agent binary")
    ap.add_argument("--flowspec", required=True, help="the command-line tool binary")
    ap.add_argument("--work", help="folder for configurations and logs (default: a new temporary one)")
    args = ap.parse_args()
    workdir = case_workdir(args.work, "validation")
    bins = (os.path.abspath(args.flowspecd), os.path.abspath(args.flowspec))
    return run_case("validation", workdir, lambda: validation_test(bins, workdir), ["gobgpd", "gobgp"])


if __name__ == "__main__":
    sys.exit(main())
