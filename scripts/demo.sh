#!/usr/bin/env bash
# Installs what is needed, builds, and runs the main jobs on their embedded defaults:
#  1. the agent flowspecd on its built-in configuration (loopback, port 1179, one passive
#     neighbor 127.0.0.2), with GoBGP as that neighbor announcing three rules, for
#     DEMO_SECONDS (default 20) or until Ctrl-C: the session, the best-path table and the
#     FSIB the rules were written to, as another process reads it;
#     the agent also originates a rule (`flowspec rule add`); the rule table, what GoBGP was
#     sent and GoBGP's own table follow.
#  2. `flowspec decode` on flowspec NLRI that GoBGP, BIRD and ExaBGP sent (the bundled
#     samples in tools/flowspec/samples), and `flowspec encode` of a rule read back;
#  3. `flowspec decode` on whole UPDATE messages of real speakers: a packet capture of
#     sessions between GoBGP, BIRD, ExaBGP and FRR, an MRT dump of every UPDATE the first
#     three sent, and GoBGP's corrupted long rule.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh default

echo "== flowspecd on its built-in configuration, GoBGP as its neighbor"
bin=build/default
seconds="${DEMO_SECONDS:-20}"
work="$(mktemp -d)"
agent=""
peer=""
stop() {
  for pid in $agent $peer; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in $agent $peer; do wait "$pid" 2>/dev/null || true; done
  peer=""
  agent=""
}
trap 'stop; rm -rf "$work"' EXIT
trap 'echo; echo "stopping (Ctrl-C)"; stop; exit 0' INT TERM

"$bin/agent/flowspecd" --control-socket "$work/flowspecd.sock" 2>"$work/flowspecd.log" &
agent=$!
# The neighbor the built-in configuration waits for: 127.0.0.2, AS 65002.
cat >"$work/gobgpd.toml" <<'TOML'
[global.config]
  as = 65002
  router-id = "127.0.0.2"
  port = -1
[[neighbors]]
  [neighbors.config]
    neighbor-address = "127.0.0.1"
    peer-as = 65001
  [neighbors.transport.config]
    local-address = "127.0.0.2"
    remote-port = 1179
  [neighbors.timers.config]
    connect-retry = 1
  [[neighbors.afi-safis]]
    [neighbors.afi-safis.config]
      afi-safi-name = "ipv4-flowspec"
  [[neighbors.afi-safis]]
    [neighbors.afi-safis.config]
      afi-safi-name = "ipv6-flowspec"
TOML
gobgpd -f "$work/gobgpd.toml" --api-hosts 127.0.0.2:50051 -p --pprof-disable >"$work/gobgpd.log" 2>&1 &
peer=$!
gobgp() { command gobgp -u 127.0.0.2 -p 50051 "$@"; }

show() {
  echo "\$ flowspec --socket $work/flowspecd.sock show neighbors"
  "$bin/tools/flowspec/flowspec" --socket "$work/flowspecd.sock" show neighbors
}
for _ in $(seq 50); do
  if "$bin/tools/flowspec/flowspec" --socket "$work/flowspecd.sock" show neighbors 2>/dev/null | grep -q Established; then
    break
  fi
  sleep 0.2
done
show
echo
for _ in $(seq 50); do gobgp global >/dev/null 2>&1 && break; sleep 0.2; done
echo "\$ gobgp global rib -a ipv4-flowspec add match destination 198.51.100.0/24 protocol udp source-port ==53 then rate-limit 125000"
gobgp global rib -a ipv4-flowspec add match destination 198.51.100.0/24 protocol udp source-port ==53 then rate-limit 125000
echo "\$ gobgp global rib -a ipv4-flowspec add match destination 198.51.100.7/32 protocol tcp destination-port ==22 then discard"
gobgp global rib -a ipv4-flowspec add match destination 198.51.100.7/32 protocol tcp destination-port ==22 then discard
echo "\$ gobgp global rib -a ipv6-flowspec add match destination 2001:db8::/32 then mark 10"
gobgp global rib -a ipv6-flowspec add match destination 2001:db8::/32 then mark 10
sleep 1
echo
# The agent originates a rule of its own, which competes in best path and goes to GoBGP.
fs() {
  echo "\$ flowspec --socket $work/flowspecd.sock $*"
  "$bin/tools/flowspec/flowspec" --socket "$work/flowspecd.sock" "$@"
}
fs rule add ipv4 destination 203.0.113.0/24 protocol tcp destination-port =80 then rate-limit 125000 mark 10
sleep 1
echo
fs show flowspec ipv4     # every rule in the order forwarding applies them, with paths and FSIB status
echo
fs show flowspec ipv4 advertised 127.0.0.2 "203.0.113.0/24;*;protocol =6;destination-port =80;"
echo
echo "\$ gobgp global rib -a ipv4-flowspec     # GoBGP received the agent's rule"
gobgp global rib -a ipv4-flowspec
echo
echo "\$ flowspec --socket $work/flowspecd.sock show summary"
"$bin/tools/flowspec/flowspec" --socket "$work/flowspecd.sock" show summary
echo
echo "\$ flowspec fsib     # the FSIB in shared memory, as the forwarding process reads it"
"$bin/tools/flowspec/flowspec" fsib
echo
echo "\$ flowspec --socket $work/flowspecd.sock show neighbors --json"
"$bin/tools/flowspec/flowspec" --socket "$work/flowspecd.sock" show neighbors --json
echo
echo "running for ${seconds}s (Ctrl-C stops sooner) ..."
sleep "$seconds" &
wait $! || true
show
stop
echo
echo "== flowspecd's log (standard error)"
cat "$work/flowspecd.log"

echo
echo "== flowspec decode: IPv4 flowspec NLRI from GoBGP, BIRD and ExaBGP (tools/flowspec/samples/ipv4-nlri.hex)"
tool="$bin/tools/flowspec/flowspec"
"$tool" decode --afi 1 - <tools/flowspec/samples/ipv4-nlri.hex
echo
echo "== flowspec decode: IPv6 (tools/flowspec/samples/ipv6-nlri.hex)"
"$tool" decode --afi 2 - <tools/flowspec/samples/ipv6-nlri.hex
echo
echo "== a speaker that sends a whole IPv6 prefix where RFC 8956 wants the pattern after the offset"
"$tool" decode --afi 2 0b01400820010db8aaaa0000 || true
echo
echo "== flowspec encode: rule text to NLRI, read back as JSON"
"$tool" encode --afi 1 "destination 192.0.2.0/24 protocol udp source-port 53 packet-length >=1000" |
  "$tool" decode --afi 1 --json -
echo
echo "== flowspec decode --pcap: UPDATEs of sessions between GoBGP, BIRD, ExaBGP and FRR (tools/flowspec/samples/peers.pcap)"
"$tool" decode --pcap tools/flowspec/samples/peers.pcap
echo
echo "== flowspec decode --mrt: every UPDATE GoBGP, BIRD and ExaBGP sent (tools/flowspec/samples/speakers.mrt), the first ones"
report="$work/speakers.txt"
"$tool" decode --mrt tools/flowspec/samples/speakers.mrt >"$report" || true
head -n 24 "$report"
echo "..."
tail -n 1 "$report"
echo
echo "== flowspec decode --update: GoBGP's long rule, whose length field it corrupts; a receiver resets the session"
"$tool" decode --update "$(head -n 1 tools/flowspec/samples/gobgp-long-rule.hex)" || true
