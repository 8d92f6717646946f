#!/usr/bin/env bash
# The flowspec tool's command line: exit statuses, standard input, and encode piped into
# decode, whole UPDATE messages. Arguments: the flowspec program, the captures' folder.
set -u
tool="$1"
captures="${2:-}"
failures=0
expect() { # expect STATUS DESCRIPTION -- COMMAND...
   local want="$1" what="$2"
   shift 3
   "$@" >/tmp/flowspec-cli-test.out 2>&1
   local got=$?
   if [ "$got" != "$want" ]; then
      echo "FAIL: $what: exit $got, expected $want"
      cat /tmp/flowspec-cli-test.out
      failures=$((failures + 1))
   fi
}
expect 0 "decode good NLRI" -- "$tool" decode --afi 1 0e01180a0000022014000001038106 020100
expect 1 "decode a bad NLRI among good" -- "$tool" decode --afi 1 020100 1001180a
expect 2 "bad hex" -- "$tool" decode --afi 1 0e0
expect 2 "unknown option" -- "$tool" decode --afi 1 --colour 00
expect 2 "bad family" -- "$tool" decode --afi 3 00
expect 0 "encode" -- "$tool" encode --afi 2 "destination 2001:db8::/32 flow-label 5"
expect 1 "encode bad text" -- "$tool" encode --afi 1 "protocol banana"
expect 0 "help" -- "$tool" decode --help
update=ffffffffffffffffffffffffffffffff0032020000001b4001010040020602010000fde9800e0b00018500000501180a0000
expect 0 "decode an UPDATE" -- "$tool" decode --update "$update"
expect 1 "decode an UPDATE with a bad ORIGIN" -- "$tool" decode --update "${update/40010100/40010103}"
expect 2 "NLRI and an UPDATE together" -- "$tool" decode --afi 1 00 --update "$update"
expect 2 "neither NLRI nor messages" -- "$tool" decode --json
expect 2 "an MRT file that is not there" -- "$tool" decode --mrt /nonexistent.mrt
# flowspec rule: usage errors exit 2 before the agent is asked; an agent not there exits 1.
nosock=/nonexistent/flowspecd.sock
expect 2 "rule add without then" -- "$tool" --socket "$nosock" rule add ipv4 destination 10.0.0.0/8
expect 2 "rule add without actions" -- "$tool" --socket "$nosock" rule add ipv4 destination 10.0.0.0/8 then
expect 2 "rule add of an unknown family" -- "$tool" --socket "$nosock" rule add ipv5 destination 10.0.0.0/8 then discard
expect 2 "rule delete without a match" -- "$tool" --socket "$nosock" rule delete ipv4
expect 2 "rule without a subcommand" -- "$tool" --socket "$nosock" rule
expect 1 "rule list without an agent" -- "$tool" --socket "$nosock" rule list
expect 0 "rule add help" -- "$tool" rule add --help
expect 0 "show flowspec help" -- "$tool" show flowspec ipv4 --help
expect 2 "show flowspec of an unknown family" -- "$tool" show flowspec ipv5
expect 2 "show flowspec with an unknown option" -- "$tool" show flowspec ipv4 --colour
expect 2 "show flowspec from a bad destination" -- "$tool" show flowspec ipv4 --dest 10.0.0.0/40
expect 2 "show flowspec --from and --dest together" -- "$tool" show flowspec ipv4 --from "*;*;" --dest 10.0.0.0/8
expect 2 "show flowspec advertised to a bad address" -- "$tool" show flowspec ipv4 advertised 10.0.0 "*;*;"
expect 2 "show flowspec advertised without a rule" -- "$tool" show flowspec ipv4 advertised 10.0.0.1
expect 1 "show flowspec without an agent" -- "$tool" --socket /nonexistent.sock show flowspec ipv4
if [ -r "$captures/peers-pairs.pcap" ]; then
   expect 0 "decode a capture" -- "$tool" decode --json --pcap "$captures/peers-pairs.pcap"
else
   echo "FAIL: no capture at $captures/peers-pairs.pcap"
   failures=$((failures + 1))
fi

out=$(printf '# comment\n\n020100\n 0e01180a0000022014000001038106\n' | "$tool" decode --afi 1 --json - | wc -l)
[ "$out" = 2 ] || { echo "FAIL: standard input gave $out lines, expected 2"; failures=$((failures + 1)); }
printf 'zz\n' | "$tool" decode --afi 1 - >/dev/null 2>&1
[ $? = 2 ] || { echo "FAIL: bad hex on standard input"; failures=$((failures + 1)); }
round=$("$tool" encode --afi 1 "destination 10.0.0.0/24 protocol tcp dport 80,443" | "$tool" decode --afi 1 -)
[ "$round" = "0e01180a00000381060501509101bb -> 10.0.0.0/24;*;protocol =6;destination-port =80 =443;" ] ||
   { echo "FAIL: encode | decode gave: $round"; failures=$((failures + 1)); }
[ "$failures" = 0 ] && echo "flowspec command line: all checks passed"
exit "$failures"
