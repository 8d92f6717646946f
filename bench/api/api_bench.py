#!/usr/bin/env python3
"""The controllers' API and the metrics under load.

  api_bench.py --build build/default [--rules 10000] [--scrape-rules 12288]

1. A fresh flowspecd with api-listen and metrics-listen on loopback (no neighbor): N rules
   added through the API one call each (flowspec-api-client add), then deleted the same way.
   Reports the calls per second, and the time from the first call until the FSIB holds the
   last rule (and until it is empty again), read from the agent's flowspecd_fsib_rules.
2. As root: flowspec-fwd (nftables) in a network namespace of its own programming M
   generated rules (fsib-writer), with --metrics-listen: the time and size of a scrape of
   /metrics (median of 5). Skipped without root.
Prints one JSON line with the figures. Every process is started here and stopped by its PID.
"""
import argparse
import json
import os
import re
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request


def free_port():
    s = socket.socket()
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def gauge(url, name):
    try:
        text = urllib.request.urlopen(url, timeout=5).read().decode()
    except OSError:
        return None
    m = re.search(rf"^{name} (\S+)$", text, re.M)
    return float(m.group(1)) if m else None


def wait_for(pred, timeout):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        if pred():
            return True
        time.sleep(0.005)
    return False


def api_part(build, n, work):
    api, metrics = free_port(), free_port()
    prefix = f"apibench-{os.getpid()}"
    config = os.path.join(work, "flowspecd.toml")
    with open(config, "w") as f:
        f.write(f'router-id = "127.0.0.1"\nlocal-as = 65001\nlisten = ["127.0.0.1:{free_port()}"]\n'
                f'control-socket = "{work}/flowspecd.sock"\nfsib-prefix = "{prefix}"\n'
                f'api-listen = "127.0.0.1:{api}"\nmetrics-listen = "127.0.0.1:{metrics}"\n')
    log = open(os.path.join(work, "flowspecd.log"), "w")
    agent = subprocess.Popen([f"{build}/agent/flowspecd", "--config", config], stdout=log, stderr=log)
    url = f"http://127.0.0.1:{metrics}/metrics"
    client = f"{build}/tests/agent/flowspec-api-client"
    out = {}
    try:
        if not wait_for(lambda: gauge(url, "flowspecd_fsib_rules") == 0, 20):
            raise SystemExit("the agent did not come up")
        for mode, want in (("add", n), ("del", 0)):
            t0 = time.monotonic()
            r = subprocess.run([client, mode, f"127.0.0.1:{api}", str(n)], capture_output=True, text=True,
                               timeout=600)
            calls_done = time.monotonic() - t0
            if r.returncode != 0:
                raise SystemExit(f"flowspec-api-client {mode}: {r.stderr}")
            wait_for(lambda: gauge(url, "flowspecd_fsib_rules") == want, 120)
            fsib = time.monotonic() - t0
            print(r.stdout.strip(), f"; FSIB {'full' if want else 'empty'} {fsib:.3f} s after the first call",
                  flush=True)
            out[mode] = {"calls": n, "calls_per_second": round(n / calls_done), "calls_seconds": round(calls_done, 3),
                         "fsib_seconds": round(fsib, 3)}
    finally:
        agent.send_signal(signal.SIGTERM)
        agent.wait(20)
        log.close()
    return out


def scrape_part(build, m, work):
    if os.geteuid() != 0:
        print("scrape: skipped (needs root for a network namespace and nftables)")
        return None
    ns = f"fsapibench{os.getpid()}"
    prefix = f"apibenchfwd-{os.getpid()}"
    subprocess.run(["ip", "netns", "add", ns], check=True)
    fwd = None
    try:
        subprocess.run(["ip", "netns", "exec", ns, "ip", "link", "set", "lo", "up"], check=True)
        subprocess.run([f"{build}/tools/fsib-writer", "--prefix", prefix, "--rules", str(m), "--burst"], check=True,
                       capture_output=True)
        log = open(os.path.join(work, "flowspec-fwd.log"), "w")
        fwd = subprocess.Popen(["ip", "netns", "exec", ns, f"{build}/fwd/flowspec-fwd", "--backend", "nft",
                                "--fsib-prefix", prefix, "--table", "fsapibench", "--metrics-listen",
                                "127.0.0.1:9180"], stdout=log, stderr=log)
        fetch = ("import sys, time, urllib.request\n"
                 "for i in range(int(sys.argv[2])):\n"
                 "    t = time.monotonic(); body = urllib.request.urlopen(sys.argv[1], timeout=30).read()\n"
                 "    print(time.monotonic() - t, len(body), body.count(b'flowspec_fwd_rule_installed{'))\n")

        def scrape(times):
            r = subprocess.run(["ip", "netns", "exec", ns, sys.executable, "-c", fetch,
                                "http://127.0.0.1:9180/metrics", str(times)], capture_output=True, text=True,
                               timeout=300)
            return [tuple(float(x) for x in line.split()) for line in r.stdout.splitlines()]

        if not wait_for(lambda: (scrape(1) or [(0, 0, 0)])[0][2] == m, 120):
            raise SystemExit("flowspec-fwd did not publish every rule")
        runs = scrape(5)
        seconds = statistics.median(r[0] for r in runs)
        size = int(runs[-1][1])
        print(f"scrape: {m} rules, {seconds * 1000:.1f} ms (median of 5), {size} bytes", flush=True)
        return {"rules": m, "scrape_ms": round(seconds * 1000, 1), "bytes": size}
    finally:
        if fwd:
            fwd.send_signal(signal.SIGTERM)
            fwd.wait(20)
        subprocess.run(["ip", "netns", "del", ns])
        try:
            os.unlink(f"/dev/shm/{prefix}.routing.bgp.flowspec")
        except FileNotFoundError:
            pass


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", default="build/default")
    ap.add_argument("--rules", type=int, default=10000)
    ap.add_argument("--scrape-rules", type=int, default=12288)
    args = ap.parse_args()
    build = os.path.abspath(args.build)
    work = tempfile.mkdtemp(prefix="apibench")
    result = {"api": api_part(build, args.rules, work), "scrape": scrape_part(build, args.scrape_rules, work)}
    print(json.dumps(result))
    return 0


if __name__ == "__main__":
    sys.exit(main())
