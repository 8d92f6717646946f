// Rules shared by the compiler test and the kernel test: one row per component and operator
// kind and per action, with the nftables text the compiler must give (counter set "c",
// counter 7, mark 0x46530001, VRF 7 in table 100, nflog group 5).
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/flowspec/Rule.h"

namespace Fwd::Test {

// A rule from its text (IPv4 unless the text or `v6:` says otherwise) and action words.
inline Flowspec::Rule ruleOf(std::string text, std::string const& actions) {
   Flowspec::FlowspecKey key;
   key.afIs(Ovnet::AddressFamily::ipv4);
   if (text.starts_with("v6:")) {
      key.afIs(Ovnet::AddressFamily::ipv6);
      text = text.substr(3);
   }
   std::string why;
   EXPECT_TRUE(key.copyInStrCli(text, &why)) << text << ": " << why;
   Flowspec::Rule r;
   r.key.copyInFlowspecKey(key);
   EXPECT_TRUE(Flowspec::ruleActionsFromText(actions, r, &why)) << actions << ": " << why;
   return r;
}

struct CompilerRow {
   char const* name;
   char const* text;
   char const* actions;
   char const* want;           // rule bodies, one per line, or "never: ..." / "refused: ..."
   char const* hook = nullptr; // prerouting unless given
};

inline std::vector<CompilerRow> const& compilerRows() {
   static std::vector<CompilerRow> const rows = {
       // Prefixes and families.
       {"dest prefix, protocol, port", "10.0.0.0/24;*;protocol =6;destination-port =80;", "drop",
        "ip daddr 10.0.0.0/24 meta l4proto 6 th dport 80 update @c { meta mark & 0 | 7 } drop\n"},
       {"source prefix IPv6", "v6:*;2001:db8::/32;", "accept",
        "ip6 saddr 2001:db8::/32 update @c { meta mark & 0 | 7 } accept\n"},
       {"no prefix: the family alone", "protocol =17", "drop",
        "meta nfproto ipv4 meta l4proto 17 update @c { meta mark & 0 | 7 } drop\n"},
       {"zero-length prefix matches the family", "0.0.0.0/0;*;", "drop",
        "meta nfproto ipv4 update @c { meta mark & 0 | 7 } drop\n"},
       // Numeric lists: one value, ranges, holes, sets, complements.
       {"and/or list with a hole", "dport >1024&<2000 =80", "drop",
        "meta nfproto ipv4 meta l4proto 6-17 meta l4proto != 7-16 th dport 80-1999 th dport != 81-1024 update @c { "
        "meta mark & 0 | 7 } drop\n"},
       {"five values: a set", "protocol =6; dport =1 =3 =5 =7 =9", "drop",
        "meta nfproto ipv4 meta l4proto 6 th dport { 1, 3, 5, 7, 9 } update @c { meta mark & 0 | 7 } drop\n"},
       {"five holes: the complement set", "protocol =6; sport !=1&!=3&!=5&!=7&!=9", "drop",
        "meta nfproto ipv4 meta l4proto 6 th sport != { 1, 3, 5, 7, 9 } update @c { meta mark & 0 | 7 } drop\n"},
       {"not equal", "protocol !=6", "drop",
        "meta nfproto ipv4 meta l4proto != 6 update @c { meta mark & 0 | 7 } drop\n"},
       {"always true adds nothing", "protocol <=>0", "drop",
        "meta nfproto ipv4 update @c { meta mark & 0 | 7 } drop\n"},
       {"port: source, or else destination", "10.0.0.0/8;*;port =53 =123", "drop",
        "ip daddr 10.0.0.0/8 meta l4proto 6-17 meta l4proto != 7-16 th sport 53-123 th sport != 54-122 update @c { "
        "meta mark & 0 | 7 } drop\n"
        "ip daddr 10.0.0.0/8 meta l4proto 6-17 meta l4proto != 7-16 th sport != 53 th sport != 123 th dport 53-123 th "
        "dport != 54-122 update @c { meta mark & 0 | 7 } drop\n"},
       {"ICMP type and code", "icmp-type =8; icmp-code =0", "drop",
        "meta nfproto ipv4 meta l4proto 1 icmp type 8 icmp code 0 update @c { meta mark & 0 | 7 } drop\n"},
       {"ICMPv6 type range", "v6:icmp-type >=128&<=129", "drop",
        "meta nfproto ipv6 meta l4proto 58 icmpv6 type 128-129 update @c { meta mark & 0 | 7 } drop\n"},
       {"packet length", "packet-length >=64&<=1500", "drop",
        "meta nfproto ipv4 ip length 64-1500 update @c { meta mark & 0 | 7 } drop\n"},
       {"IPv6 packet length is payload plus 40", "v6:packet-length <100", "drop",
        "meta nfproto ipv6 ip6 length 0-59 update @c { meta mark & 0 | 7 } drop\n"},
       {"DSCP list", "dscp =10 =46", "drop",
        "meta nfproto ipv4 ip dscp 10-46 ip dscp != 11-45 update @c { meta mark & 0 | 7 } drop\n"},
       {"DSCP above 63 clipped", "dscp >60", "drop",
        "meta nfproto ipv4 ip dscp 61-63 update @c { meta mark & 0 | 7 } drop\n"},
       {"flow label", "v6:flow-label =5 >=0x10000&<=0x1ffff", "drop",
        "meta nfproto ipv6 ip6 flowlabel 5-131071 ip6 flowlabel != 6-65535 update @c { meta mark & 0 | 7 } drop\n"},
       {"repeated type: both lists hold", "protocol =6 =17; protocol =17", "drop",
        "meta nfproto ipv4 meta l4proto 17 update @c { meta mark & 0 | 7 } drop\n"},
       // Bitmask lists.
       {"TCP flags all of", "tcp-flags =syn+ack", "drop",
        "meta nfproto ipv4 meta l4proto 6 tcp flags & 0x12 == 0x12 update @c { meta mark & 0 | 7 } drop\n"},
       {"TCP flags any of", "tcp-flags syn+ack", "drop",
        "meta nfproto ipv4 meta l4proto 6 tcp flags & 0x12 != 0x0 update @c { meta mark & 0 | 7 } drop\n"},
       {"TCP flags none of", "tcp-flags !rst", "drop",
        "meta nfproto ipv4 meta l4proto 6 tcp flags & 0x4 == 0x0 update @c { meta mark & 0 | 7 } drop\n"},
       {"TCP flags not all of", "tcp-flags !=syn+ack+fin", "drop",
        "meta nfproto ipv4 meta l4proto 6 tcp flags & 0x13 != 0x13 update @c { meta mark & 0 | 7 } drop\n"},
       {"TCP flags syn and not ack, or fin", "tcp-flags =syn&!ack =fin", "drop",
        "meta nfproto ipv4 meta l4proto 6 tcp flags & 0x13 != { 0x0, 0x10, 0x12 } update @c { meta mark & 0 | 7 } "
        "drop\n"},
       {"TCP flags two octets: the 12 bits after the data offset", "tcp-flags =0x100", "drop",
        "meta nfproto ipv4 meta l4proto 6 @th,100,12 & 0x100 == 0x100 update @c { meta mark & 0 | 7 } drop\n"},
       {"IPv4 fragment: DF", "fragment =dont-fragment", "drop",
        "meta nfproto ipv4 ip frag-off & 0x7fff 0x4000-0x7fff update @c { meta mark & 0 | 7 } drop\n"},
       {"IPv4 fragment: other than the first", "fragment =is-fragment", "drop",
        "meta nfproto ipv4 ip frag-off & 0x7fff 0x1-0x7fff ip frag-off & 0x7fff != 0x2000 ip frag-off & 0x7fff != "
        "0x4000 ip frag-off & 0x7fff != 0x6000 update @c { meta mark & 0 | 7 } drop\n"},
       {"IPv4 fragment: first or last", "fragment =first-fragment =last-fragment", "drop",
        "meta nfproto ipv4 ip frag-off & 0x7fff 0x1-0x6000 ip frag-off & 0x7fff != 0x2001-0x4000 update @c { meta mark "
        "& 0 | 7 } drop\n"},
       {"IPv6 fragment: first", "v6:fragment =first-fragment", "drop",
        "meta nfproto ipv6 frag frag-off 0 frag more-fragments 1 update @c { meta mark & 0 | 7 } drop\n"},
       {"IPv6 fragment: not a later fragment", "v6:fragment !is-fragment", "drop",
        "meta nfproto ipv6 exthdr frag missing update @c { meta mark & 0 | 7 } drop\n"
        "meta nfproto ipv6 frag frag-off 0 update @c { meta mark & 0 | 7 } drop\n"},
       {"IPv6 fragment: any fragment", "v6:fragment =is-fragment =first-fragment", "drop",
        "meta nfproto ipv6 frag frag-off 0 frag more-fragments 1 update @c { meta mark & 0 | 7 } drop\n"
        "meta nfproto ipv6 frag frag-off != 0 update @c { meta mark & 0 | 7 } drop\n"},
       // Never matching.
       {"DSCP beyond its six bits", "dscp =64", "drop", "never: dscp accepts no value"},
       {"UDP and TCP flags", "protocol =17; tcp-flags =syn", "drop",
        "never: protocol and tcp-flags exclude each other"},
       {"TCP flag bits beyond the field", "tcp-flags =0x1000", "drop", "never: tcp-flags accepts no value"},
       {"IPv6 length below the header", "v6:packet-length <40", "drop",
        "never: packet-length accepts no IPv6 packet length"},
       {"TCP flags components that exclude each other", "tcp-flags =syn; tcp-flags !syn", "drop",
        "never: tcp-flags components accept no value together"},
       {"fragment components that exclude each other", "fragment =dont-fragment; fragment !dont-fragment", "drop",
        "never: fragment components accept no packet together"},
       // Actions.
       {"police stops evaluation: a second rule accepts what passes", "10.0.0.1/32;*;", "police=125000",
        "ip daddr 10.0.0.1/32 update @c { meta mark & 0 | 7 } limit rate over 125000 bytes/second drop\n"
        "ip daddr 10.0.0.1/32 accept\n"},
       {"police with the terminal bit: evaluation goes on", "10.0.0.1/32;*;", "police=1000.4 terminal",
        "ip daddr 10.0.0.1/32 update @c { meta mark & 0 | 7 } limit rate over 1000 bytes/second drop\n"},
       {"rate 0 discards", "10.0.0.1/32;*;", "police=0", "ip daddr 10.0.0.1/32 update @c { meta mark & 0 | 7 } drop\n"},
       {"DSCP marking", "v6:2001:db8::/64;*;", "dscp=46",
        "ip6 daddr 2001:db8::/64 update @c { meta mark & 0 | 7 } ip6 dscp set 46 accept\n"},
       {"sample and go on", "10.0.0.1/32;*;", "sample terminal",
        "ip daddr 10.0.0.1/32 update @c { meta mark & 0 | 7 } log group 5\n"},
       {"sample and drop", "10.0.0.1/32;*;", "sample drop",
        "ip daddr 10.0.0.1/32 update @c { meta mark & 0 | 7 } log group 5 drop\n"},
       {"redirect to a VRF", "10.0.0.1/32;*;", "redirect-vrf=7",
        "ip daddr 10.0.0.1/32 update @c { meta mark & 0 | 7 } meta mark set 0x46530001 accept\n"},
       {"redirect to an address", "10.0.0.1/32;*;", "redirect-ip=192.0.2.1 dscp=8",
        "ip daddr 10.0.0.1/32 update @c { meta mark & 0 | 7 } ip dscp set 8 meta mark set 0x46530001 accept\n"},
       {"copy at the input hook", "10.0.0.1/32;*;", "redirect-ip=192.0.2.1 copy",
        "ip daddr 10.0.0.1/32 update @c { meta mark & 0 | 7 } meta mark set 0x46530001 accept\n", "input"},
       {"no action accepts", "10.0.0.1/32;*;", "accept",
        "ip daddr 10.0.0.1/32 update @c { meta mark & 0 | 7 } accept\n"},
       // Refused.
       {"reserved action bit", "10.0.0.1/32;*;", "bits=0x1",
        "refused: action bit 0x01 is reserved: not an action this dataplane performs"},
       {"unknown action bits", "10.0.0.1/32;*;", "bits=0x84", "refused: unknown action bits 0x80"},
       {"VRF without a table", "10.0.0.1/32;*;", "redirect-vrf=8",
        "refused: redirect to VRF 8: no Linux routing table is configured for it (--vrf-table 8=TABLE)"},
       {"redirect after routing", "10.0.0.1/32;*;", "redirect-vrf=7",
        "refused: redirect to VRF 7 needs --hook prerouting (at the forward hook the route is already chosen)",
        "forward"},
       {"VRF and address", "10.0.0.1/32;*;", "redirect-vrf=7 redirect-ip=192.0.2.1",
        "refused: redirect to 192.0.2.1 within VRF 7 is not supported by this dataplane"},
       {"copy to a VRF", "10.0.0.1/32;*;", "redirect-vrf=7 copy",
        "refused: a copy redirected to VRF 7 is not supported (nftables copies only to an address)"},
       {"IPv4 traffic to an IPv6 next hop", "10.0.0.1/32;*;", "redirect-ip=2001:db8::1",
        "refused: redirect of ipv4 traffic to the ipv6 address 2001:db8::1"},
       {"police nan", "10.0.0.1/32;*;", "police=nan", "refused: police rate nan is not a rate"},
       {"police beyond the highest rate", "10.0.0.1/32;*;", "police=1e13",
        "refused: police rate 1e+13 bytes/second is above the highest this dataplane polices (1.09951e+12)"},
       {"too many alternatives", "port =1 =3; port =5 =7; port =9 =11; port =13 =15; port =17 =19", "drop",
        "refused: the match needs 32 nftables rules (source-or-destination port and fragment alternatives); at most 16 "
        "are programmed per rule"},
   };
   return rows;
}

// The row of that name (a failed assertion and the first row when there is none).
inline CompilerRow const& rowNamed(std::string const& name) {
   auto const& rows = compilerRows();
   for (CompilerRow const& r : rows) {
      if (r.name == name) return r;
   }
   ADD_FAILURE() << "no compiler row " << name;
   return rows.front();
}

// Packets (FwdTestPackets.h) each installed row's rule matches and does not match: every
// dataplane runs them, with the same outcome.
struct PacketCase {
   char const* row;    // CompilerRow::name
   char const* hits;   // packets the rule counts, ';' between them
   char const* misses; // packets it does not
};

inline std::vector<PacketCase> const& packetCases() {
   static std::vector<PacketCase> const cases = {
       {"dest prefix, protocol, port", "10.0.0.7 tcp 1234>80",
        "10.0.1.7 tcp 1234>80; 10.0.0.7 tcp 1234>81; 10.0.0.7 udp 1234>80; 10.0.0.7 tcp 1234>80 off=3"},
       {"source prefix IPv6", "v6 2001:db8::5>2001:db8:1::1 udp", "v6 2001:db9::5>2001:db8::1 udp; 10.0.0.1 udp"},
       {"no prefix: the family alone", "10.1.1.1 udp; 10.1.1.1 udp off=7", "10.1.1.1 tcp; v6 2001:db8::1 udp"},
       {"zero-length prefix matches the family", "203.0.113.1 tcp", "v6 2001:db8::1 tcp"},
       {"and/or list with a hole", "1.2.3.4 tcp 5>80; 1.2.3.4 udp 5>1025; 1.2.3.4 tcp 5>1999",
        "1.2.3.4 tcp 5>1024; 1.2.3.4 tcp 5>2000; 1.2.3.4 tcp 5>81; 1.2.3.4 icmp; 1.2.3.4 tcp 5>80 mf off=1"},
       {"five values: a set", "1.2.3.4 tcp 5>9; 1.2.3.4 tcp 5>1", "1.2.3.4 tcp 5>8; 1.2.3.4 udp 5>9"},
       {"five holes: the complement set", "1.2.3.4 tcp 2>80", "1.2.3.4 tcp 3>80; 1.2.3.4 udp 2>80"},
       {"not equal", "1.2.3.4 udp; 1.2.3.4 icmp", "1.2.3.4 tcp"},
       {"always true adds nothing", "1.2.3.4 tcp; 1.2.3.4 icmp", "v6 2001:db8::1 tcp"},
       {"port: source, or else destination", "10.1.1.1 udp 53>9999; 10.1.1.1 tcp 9999>123",
        "10.1.1.1 udp 54>9999; 11.1.1.1 udp 53>53; 10.1.1.1 132"},
       {"ICMP type and code", "1.2.3.4 icmp icmp=8/0", "1.2.3.4 icmp icmp=8/1; 1.2.3.4 icmp icmp=0/0; 1.2.3.4 udp 8>0"},
       {"ICMPv6 type range", "v6 2001:db8::1 icmp icmp=129/0; v6 2001:db8::1 icmp icmp=128/3",
        "v6 2001:db8::1 icmp icmp=130/0; v6 2001:db8::1 icmp icmp=129/0 frag=middle"},
       {"packet length", "1.2.3.4 udp len=64; 1.2.3.4 udp len=1500", "1.2.3.4 udp len=63; 1.2.3.4 udp len=1501"},
       {"IPv6 packet length is payload plus 40", "v6 2001:db8::1 udp len=99", "v6 2001:db8::1 udp len=100"},
       {"DSCP list", "1.2.3.4 udp dscp=46; 1.2.3.4 udp dscp=10", "1.2.3.4 udp dscp=11"},
       {"DSCP above 63 clipped", "1.2.3.4 udp dscp=61", "1.2.3.4 udp dscp=60"},
       {"flow label", "v6 2001:db8::1 udp label=5; v6 2001:db8::1 udp label=0x10000",
        "v6 2001:db8::1 udp label=6; v6 2001:db8::1 udp label=0x20000"},
       {"repeated type: both lists hold", "1.2.3.4 udp", "1.2.3.4 tcp"},
       {"TCP flags all of", "1.2.3.4 tcp flags=0x12; 1.2.3.4 tcp flags=0x13", "1.2.3.4 tcp flags=0x02; 1.2.3.4 udp"},
       {"TCP flags any of", "1.2.3.4 tcp flags=0x02; 1.2.3.4 tcp flags=0x10", "1.2.3.4 tcp flags=0x01"},
       {"TCP flags none of", "1.2.3.4 tcp flags=0x10", "1.2.3.4 tcp flags=0x14"},
       {"TCP flags not all of", "1.2.3.4 tcp flags=0x12", "1.2.3.4 tcp flags=0x13"},
       {"TCP flags syn and not ack, or fin", "1.2.3.4 tcp flags=0x02; 1.2.3.4 tcp flags=0x11",
        "1.2.3.4 tcp flags=0x12; 1.2.3.4 tcp flags=0x10"},
       {"TCP flags two octets: the 12 bits after the data offset", "1.2.3.4 tcp flags=0x110",
        "1.2.3.4 tcp flags=0x010"},
       {"IPv4 fragment: DF", "1.2.3.4 udp df; 1.2.3.4 udp df off=4", "1.2.3.4 udp"},
       {"IPv4 fragment: other than the first", "1.2.3.4 udp off=10; 1.2.3.4 udp mf off=3",
        "1.2.3.4 udp mf; 1.2.3.4 udp"},
       {"IPv4 fragment: first or last", "1.2.3.4 udp mf; 1.2.3.4 udp off=5", "1.2.3.4 udp; 1.2.3.4 udp mf off=5"},
       {"IPv6 fragment: first", "v6 2001:db8::1 udp frag=first",
        "v6 2001:db8::1 udp; v6 2001:db8::1 udp frag=middle; v6 2001:db8::1 udp frag=atomic"},
       {"IPv6 fragment: not a later fragment",
        "v6 2001:db8::1 udp; v6 2001:db8::1 udp frag=first; v6 2001:db8::1 udp frag=atomic",
        "v6 2001:db8::1 udp frag=middle; v6 2001:db8::1 udp frag=last"},
       {"IPv6 fragment: any fragment",
        "v6 2001:db8::1 udp frag=first; v6 2001:db8::1 udp frag=middle; v6 2001:db8::1 udp frag=last",
        "v6 2001:db8::1 udp; v6 2001:db8::1 udp frag=atomic"},
       {"police stops evaluation: a second rule accepts what passes", "10.0.0.1 udp", "10.0.0.2 udp"},
       {"police with the terminal bit: evaluation goes on", "10.0.0.1 udp", "10.0.0.2 udp"},
       {"rate 0 discards", "10.0.0.1 udp", "10.0.0.2 udp"},
       {"DSCP marking", "v6 2001:db8::7 tcp", "v6 2001:db8:0:1::7 tcp"},
       {"sample and go on", "10.0.0.1 udp", "10.0.0.2 udp"},
       {"sample and drop", "10.0.0.1 udp", "10.0.0.2 udp"},
       {"redirect to a VRF", "10.0.0.1 udp", "10.0.0.2 udp"},
       {"redirect to an address", "10.0.0.1 udp", "10.0.0.2 udp"},
       {"no action accepts", "10.0.0.1 udp", "10.0.0.2 udp"},
   };
   return cases;
}

} // namespace Fwd::Test
