#include "fwd/RuleCompiler.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>

#include "fwd/ValueSet.h"

namespace Fwd {

using Flowspec::MatchCompType;
using Flowspec::MatchOpVal;
using Ovnet::AddressFamily;

char const* toStrep(Hook h) {
   switch (h) {
   case Hook::prerouting: return "prerouting";
   case Hook::input: return "input";
   case Hook::forward: return "forward";
   }
   return "?";
}

std::optional<Hook> hookFromName(std::string_view name) {
   for (Hook h : {Hook::prerouting, Hook::input, Hook::forward}) {
      if (name == toStrep(h)) return h;
   }
   return std::nullopt;
}

std::string RedirectTarget::str() const {
   switch (kind) {
   case RedirectKind::vrf: return "VRF " + std::to_string(vrfId) + " (table " + std::to_string(table) + ")";
   case RedirectKind::address: return address.str();
   case RedirectKind::copy: return "copy to " + address.str();
   }
   return "?";
}

namespace {

// A rule's match as alternatives that exclude each other, each a list of conditions.
using Conditions = std::vector<std::string>;
using Alternatives = std::vector<Conditions>;

// The rule text's keyword of each operator/value type, for reasons.
char const* keyword(MatchCompType t) {
   switch (t) {
   case Flowspec::ipProtocol_: return "protocol";
   case Flowspec::port_: return "port";
   case Flowspec::destPort_: return "destination-port";
   case Flowspec::srcPort_: return "source-port";
   case Flowspec::icmpType_: return "icmp-type";
   case Flowspec::icmpCode_: return "icmp-code";
   case Flowspec::tcpFlags_: return "tcp-flags";
   case Flowspec::packetLength_: return "packet-length";
   case Flowspec::dscp_: return "dscp";
   case Flowspec::fragment_: return "fragment";
   case Flowspec::flowLabel_: return "flow-label";
   default: return "?";
   }
}

enum class Radix : std::uint8_t { dec, hex };

std::string num(std::uint32_t v, Radix r) {
   if (r == Radix::dec) return std::to_string(v);
   char buf[16];
   std::snprintf(buf, sizeof buf, "0x%x", v);
   return buf;
}

std::string intervalText(Interval const& i, Radix r) {
   return i.lo == i.hi ? num(i.lo, r) : num(i.lo, r) + "-" + num(i.hi, r);
}

std::string setText(std::vector<Interval> const& iv, Radix r) {
   std::string s = "{ ";
   for (std::size_t i = 0; i < iv.size(); ++i) s += (i == 0 ? "" : ", ") + intervalText(iv[i], r);
   return s + " }";
}

// The conditions that restrict `field` to the non-empty set `s` of [0, max]: none for the
// whole domain; the set's hull and one `!=` per hole while that is at most four
// conditions; otherwise one anonymous set, or its complement's when that is smaller.
Conditions fieldIn(std::string const& field, IntervalSet const& s, std::uint32_t max, Radix r) {
   if (s.isWhole(max)) return {};
   auto const& iv = s.intervals();
   Interval const hull{iv.front().lo, iv.back().hi};
   IntervalSet const holes = IntervalSet::range(hull.lo, hull.hi).intersect(s.complement(max));
   bool const hullNeeded = !(hull.lo == 0 && hull.hi == max);
   if ((hullNeeded ? 1u : 0u) + holes.intervals().size() <= 4) {
      Conditions c;
      if (hullNeeded) c.push_back(field + " " + intervalText(hull, r));
      for (Interval const& h : holes.intervals()) c.push_back(field + " != " + intervalText(h, r));
      return c;
   }
   IntervalSet const out = s.complement(max);
   if (out.intervals().size() < iv.size()) return {field + " != " + setText(out.intervals(), r)};
   return {field + " " + setText(iv, r)};
}

// `field & mask` restricted to `values` (bitmask components). The values are plain (no
// ranges): the nft 1.0.6 printer crashes on ranges of the TCP-flags type.
Conditions maskedIn(std::string const& field, std::uint32_t fieldMask, MaskedValues const& m) {
   std::size_t const all = std::size_t{1} << std::popcount(m.mask);
   if (m.values.size() == all) return {};
   std::string const lhs = m.mask == fieldMask ? field : field + " & " + num(m.mask, Radix::hex);
   std::vector<std::uint32_t> out;
   for (std::uint32_t sub = 0, i = 0;; sub = (sub - m.mask) & m.mask) {
      if (i < m.values.size() && m.values[i] == sub) {
         ++i;
      } else {
         out.push_back(sub);
      }
      if (sub == m.mask) break;
   }
   auto const list = [](std::vector<std::uint32_t> const& v) {
      std::string s = "{ ";
      for (std::size_t i = 0; i < v.size(); ++i) s += (i == 0 ? "" : ", ") + num(v[i], Radix::hex);
      return s + " }";
   };
   if (m.values.size() == 1) return {lhs + " == " + num(m.values[0], Radix::hex)};
   if (out.size() == 1) return {lhs + " != " + num(out[0], Radix::hex)};
   if (out.size() < m.values.size()) return {lhs + " != " + list(out)};
   return {lhs + " " + list(m.values)};
}

// Each alternative of `a` joined with each of `b`.
Alternatives product(Alternatives const& a, Alternatives const& b) {
   Alternatives out;
   for (Conditions const& x : a) {
      for (Conditions const& y : b) {
         Conditions c = x;
         c.insert(c.end(), y.begin(), y.end());
         out.push_back(std::move(c));
      }
   }
   return out;
}

// One component: its type and its pairs.
struct Component {
   MatchCompType type = Flowspec::none_;
   std::vector<MatchOpVal> pairs;
};

// The components of a key: a component ends at a pair with the end-of-list bit or where
// the type changes, as the NLRI delimits them.
std::vector<Component> componentsOf(Flowspec::FlowspecKey const& key) {
   std::vector<Component> out;
   bool open = false;
   for (auto r = key.getOptVal(0); !r.atEnd(); r = key.getOptVal(r.nextIndex())) {
      if (!open || out.back().type != r.type()) out.push_back({r.type(), {}});
      out.back().pairs.push_back(r.opVal());
      open = (r.op() & Flowspec::opEndOfList) == 0;
   }
   return out;
}

// Domains of the numeric fields.
std::uint32_t numericMax(MatchCompType t) {
   switch (t) {
   case Flowspec::ipProtocol_:
   case Flowspec::icmpType_:
   case Flowspec::icmpCode_: return 0xff;
   case Flowspec::dscp_: return 0x3f;
   case Flowspec::flowLabel_: return 0xfffff;
   default: return 0xffff;
   }
}

// The nftables field of a numeric component for a family.
std::string numericField(MatchCompType t, bool v6) {
   switch (t) {
   case Flowspec::ipProtocol_: return "meta l4proto";
   case Flowspec::destPort_: return "th dport";
   case Flowspec::srcPort_: return "th sport";
   case Flowspec::icmpType_: return v6 ? "icmpv6 type" : "icmp type";
   case Flowspec::icmpCode_: return v6 ? "icmpv6 code" : "icmp code";
   case Flowspec::packetLength_: return v6 ? "ip6 length" : "ip length";
   case Flowspec::dscp_: return v6 ? "ip6 dscp" : "ip dscp";
   case Flowspec::flowLabel_: return "ip6 flowlabel";
   default: return "?";
   }
}

// Fragment bits of the component (RFC 8955 section 4.2.2.12).
constexpr std::uint32_t fragDf = 0x01;
constexpr std::uint32_t fragIsF = 0x02;
constexpr std::uint32_t fragFf = 0x04;
constexpr std::uint32_t fragLf = 0x08;

// The fragment bits of a packet: IsF for a fragment other than the first (offset not 0),
// FF for a first fragment (offset 0, more fragments), LF for a last one (offset not 0, no
// more fragments).
std::uint32_t fragmentBits(bool df, bool more, bool offsetZero) {
   return (df ? fragDf : 0) | (offsetZero ? 0 : fragIsF) | (offsetZero && more ? fragFf : 0) |
          (!offsetZero && !more ? fragLf : 0);
}

} // namespace

std::uint32_t fragmentKinds(std::span<MatchOpVal const> pairs, bool v6) {
   std::uint32_t k = 0;
   if (!v6) {
      for (std::uint32_t kind = 0; kind < 8; ++kind) {
         bool const df = (kind & 1) != 0;
         bool const more = (kind & 2) != 0;
         bool const later = (kind & 4) != 0;
         if (bitmaskAccepts(pairs, fragmentBits(df, more, !later))) k |= 1u << kind;
      }
      return k;
   }
   // IPv6: fragments are told by the Fragment extension header. A packet without one has no
   // fragment bits, like an atomic fragment (offset 0, no more fragments).
   bool const none = bitmaskAccepts(pairs, 0);
   if (none) k |= 1u << 8 | 1u << 9;
   if (bitmaskAccepts(pairs, fragmentBits(false, true, true))) k |= 1u << 10;
   if (bitmaskAccepts(pairs, fragmentBits(false, true, false))) k |= 1u << 11;
   if (bitmaskAccepts(pairs, fragmentBits(false, false, false))) k |= 1u << 12;
   return k;
}

namespace {

// IPv4: the values of `ip frag-off & 0x7fff` (DF 0x4000, MF 0x2000, offset 0x1fff) of the
// accepted fragment kinds.
IntervalSet ipv4Fragments(std::uint32_t kinds) {
   std::vector<Interval> iv;
   for (std::uint32_t df = 0; df < 2; ++df) {
      std::uint32_t const base = df * 0x4000;
      auto const has = [&](bool more, bool later) { return (kinds >> (df | (more ? 2u : 0u) | (later ? 4u : 0u))) & 1; };
      if (has(false, false)) iv.push_back({base, base});
      if (has(true, false)) iv.push_back({base + 0x2000, base + 0x2000});
      if (has(true, true)) iv.push_back({base + 0x2001, base + 0x3fff});
      if (has(false, true)) iv.push_back({base + 0x0001, base + 0x1fff});
   }
   return IntervalSet::of(std::move(iv));
}

// IPv6: the alternatives: no header, then per offset class (zero / not zero) the header with
// the accepted M values.
Alternatives ipv6Fragments(std::uint32_t kinds) {
   Alternatives out;
   bool const none = (kinds & (1u << 8)) != 0;
   if (none) out.push_back({"exthdr frag missing"});
   bool const atomic = none;
   bool const first = (kinds & (1u << 10)) != 0;
   bool const middle = (kinds & (1u << 11)) != 0;
   bool const last = (kinds & (1u << 12)) != 0;
   if (atomic && first && middle && last) {
      out.push_back({"exthdr frag exists"});
      return out;
   }
   auto const group = [&out](std::string const& offset, bool m0, bool m1) {
      if (m0 && m1) out.push_back({offset});
      if (m0 != m1) out.push_back({offset, std::string("frag more-fragments ") + (m1 ? "1" : "0")});
   };
   group("frag frag-off 0", atomic, first);
   group("frag frag-off != 0", last, middle);
   return out;
}

struct MatchResult {
   CompiledRule::Kind kind = CompiledRule::Kind::install;
   std::string reason;
   Alternatives alternatives{Conditions{}};
};

MatchResult refusedMatch(std::string reason) { return {CompiledRule::Kind::refused, std::move(reason), {}}; }

std::string prefixCondition(char const* family, char const* dir, Ovnet::IpGenPrefix const& p) {
   return std::string(family) + " " + dir + " " + p.str();
}

MatchSets refusedSets(std::string reason) {
   MatchSets m;
   m.kind = CompiledRule::Kind::refused;
   m.reason = std::move(reason);
   return m;
}

MatchSets neverSets(std::string reason) {
   MatchSets m;
   m.kind = CompiledRule::Kind::neverMatches;
   m.reason = std::move(reason);
   return m;
}

} // namespace

MatchSets matchSets(Flowspec::FlowspecKey const& key) {
   AddressFamily const af = key.af();
   if (af != AddressFamily::ipv4 && af != AddressFamily::ipv6) return refusedSets("the rule has no address family");
   bool const v6 = af == AddressFamily::ipv6;
   MatchSets m;
   m.af = af;
   for (auto const& [p, out] : {std::pair{key.destPrefix(), &m.dest}, std::pair{key.srcPrefix(), &m.source}}) {
      if (p.isUnset()) continue;
      if (p.af() != af)
         return refusedSets(std::string("a ") + Ovnet::toStrep(p.af()) + " prefix in an " + Ovnet::toStrep(af) +
                            " rule");
      if (p.len() != 0) *out = p;
   }

   // The protocol set: the rule's own lists and what the other components imply.
   IntervalSet protocols = IntervalSet::range(0, 0xff);
   std::string protocolWhy = "protocol";
   auto const requireProtocols = [&](IntervalSet const& s, MatchCompType t) {
      protocols = protocols.intersect(s);
      protocolWhy += std::string(" and ") + keyword(t);
   };
   std::vector<std::vector<MatchOpVal>> tcpFlagLists;
   std::vector<std::vector<MatchOpVal>> fragmentLists;
   for (Component const& c : componentsOf(key)) {
      switch (c.type) {
      case Flowspec::port_:
         m.ports.push_back(numericAccepted(c.pairs, 0xffff));
         requireProtocols(IntervalSet::of({{6, 6}, {17, 17}}), c.type);
         break;
      case Flowspec::tcpFlags_:
         tcpFlagLists.push_back(c.pairs);
         requireProtocols(IntervalSet::range(6, 6), c.type);
         break;
      case Flowspec::fragment_: fragmentLists.push_back(c.pairs); break;
      case Flowspec::flowLabel_:
         if (!v6) return refusedSets("flow-label in an IPv4 rule");
         [[fallthrough]];
      default: {
         if (!Flowspec::isOpValType(c.type))
            return refusedSets("a component of unknown type " + std::to_string(c.type));
         IntervalSet const s = numericAccepted(c.pairs, numericMax(c.type));
         auto const [it, fresh] = m.numeric.try_emplace(c.type, s);
         if (!fresh) it->second = it->second.intersect(s);
         if (c.type == Flowspec::destPort_ || c.type == Flowspec::srcPort_) {
            requireProtocols(IntervalSet::of({{6, 6}, {17, 17}}), c.type);
         } else if (c.type == Flowspec::icmpType_ || c.type == Flowspec::icmpCode_) {
            requireProtocols(IntervalSet::range(v6 ? 58 : 1, v6 ? 58 : 1), c.type);
         }
         break;
      }
      }
   }
   for (auto const& [type, s] : m.numeric) {
      if (s.empty()) return neverSets(std::string(keyword(type)) + " accepts no value");
   }
   for (IntervalSet const& s : m.ports) {
      if (s.empty()) return neverSets("port accepts no value");
   }
   if (auto it = m.numeric.find(Flowspec::ipProtocol_); it != m.numeric.end()) {
      protocols = protocols.intersect(it->second);
      m.numeric.erase(it);
   }
   if (protocols.empty()) return neverSets(protocolWhy + " exclude each other");
   m.protocols = protocols;
   for (auto const& list : tcpFlagLists) {
      // One-octet values name the flags octet, two-octet ones the 12 bits after the data
      // offset (RFC 8955 section 4.2.2.9); both end at the same bit, so one mask covers them.
      MaskedValues mv = bitmaskAccepted(list, 0x0fff);
      if (mv.values.empty()) return neverSets("tcp-flags accepts no value");
      m.tcpFlags.push_back(std::move(mv));
   }
   if (m.tcpFlags.size() > 1) {
      // Repeated components are ANDed: some value of the 12 bits must pass every one.
      bool any = false;
      for (std::uint32_t v = 0; v <= 0x0fff && !any; ++v) {
         any = std::all_of(m.tcpFlags.begin(), m.tcpFlags.end(), [v](MaskedValues const& mv) {
            return std::binary_search(mv.values.begin(), mv.values.end(), v & mv.mask);
         });
      }
      if (!any) return neverSets("tcp-flags components accept no value together");
   }
   if (auto it = m.numeric.find(Flowspec::packetLength_); it != m.numeric.end() && v6) {
      // The whole packet: at least the 40-byte fixed header.
      it->second = it->second.intersect(IntervalSet::range(40, 0xffff));
      if (it->second.empty()) return neverSets("packet-length accepts no IPv6 packet length");
   }
   std::uint32_t allKinds = ~0u;
   for (auto const& list : fragmentLists) {
      std::uint32_t const k = fragmentKinds(list, v6);
      if (k == 0) return neverSets(v6 ? "fragment accepts no IPv6 packet" : "fragment accepts no packet");
      m.fragments.push_back(k);
      allKinds &= k;
   }
   if (allKinds == 0) return neverSets("fragment components accept no packet together");
   return m;
}

namespace {

MatchResult compileMatch(Flowspec::FlowspecKey const& key) {
   MatchSets const ms = matchSets(key);
   if (ms.kind != CompiledRule::Kind::install) return {ms.kind, ms.reason, {}};
   bool const v6 = ms.af == AddressFamily::ipv6;
   char const* const family = v6 ? "ip6" : "ip";
   MatchResult m;
   Conditions conds;
   if (ms.dest) conds.push_back(prefixCondition(family, "daddr", *ms.dest));
   if (ms.source) conds.push_back(prefixCondition(family, "saddr", *ms.source));
   if (conds.empty()) conds.push_back(v6 ? "meta nfproto ipv6" : "meta nfproto ipv4");
   auto const add = [&conds](Conditions const& more) { conds.insert(conds.end(), more.begin(), more.end()); };
   add(fieldIn("meta l4proto", ms.protocols, 0xff, Radix::dec));
   for (MatchCompType t : {Flowspec::destPort_, Flowspec::srcPort_, Flowspec::icmpType_, Flowspec::icmpCode_}) {
      if (auto it = ms.numeric.find(t); it != ms.numeric.end())
         add(fieldIn(numericField(t, v6), it->second, numericMax(t), Radix::dec));
   }
   for (MaskedValues const& mv : ms.tcpFlags)
      add(mv.mask <= 0xff ? maskedIn("tcp flags", 0xff, mv) : maskedIn("@th,100,12", 0x0fff, mv));
   if (auto it = ms.numeric.find(Flowspec::packetLength_); it != ms.numeric.end()) {
      // `ip6 length` is the payload length: the total less the 40-byte fixed header.
      if (v6) {
         add(fieldIn("ip6 length", it->second.shiftedDown(40), 0xffff, Radix::dec));
      } else {
         add(fieldIn("ip length", it->second, 0xffff, Radix::dec));
      }
   }
   for (MatchCompType t : {Flowspec::dscp_, Flowspec::flowLabel_}) {
      if (auto it = ms.numeric.find(t); it != ms.numeric.end())
         add(fieldIn(numericField(t, v6), it->second, numericMax(t), Radix::dec));
   }
   m.alternatives = {conds};
   for (std::uint32_t kinds : ms.fragments) {
      if (v6) {
         m.alternatives = product(m.alternatives, ipv6Fragments(kinds));
      } else {
         m.alternatives =
             product(m.alternatives, {fieldIn("ip frag-off & 0x7fff", ipv4Fragments(kinds), 0x7fff, Radix::hex)});
      }
   }
   // Port: the source port in the set, or else the destination port in it.
   for (IntervalSet const& s : ms.ports) {
      if (s.isWhole(0xffff)) continue;
      Conditions inSport = fieldIn("th sport", s, 0xffff, Radix::dec);
      Conditions notSport = fieldIn("th sport", s.complement(0xffff), 0xffff, Radix::dec);
      Conditions dport = fieldIn("th dport", s, 0xffff, Radix::dec);
      notSport.insert(notSport.end(), dport.begin(), dport.end());
      m.alternatives = product(m.alternatives, {inSport, notSport});
   }
   if (m.alternatives.size() > maxAlternatives) {
      return refusedMatch("the match needs " + std::to_string(m.alternatives.size()) +
                          " nftables rules (source-or-destination port and fragment alternatives); at most " +
                          std::to_string(maxAlternatives) + " are programmed per rule");
   }
   return m;
}

std::string rateText(double r) {
   char buf[64];
   std::snprintf(buf, sizeof buf, "%g", r);
   return buf;
}

} // namespace

void compileActions(Flowspec::Rule const& r, CompileConfig const& cfg, CompiledRule& c) {
   using namespace Flowspec;
   auto const refuse = [&c](std::string why) {
      c.kind = CompiledRule::Kind::refused;
      c.reason = std::move(why);
   };
   std::uint32_t const known =
       actionNone | actionDrop | actionPolice | actionTrafficAction | actionRedirect | actionSetDscp;
   if (r.actions.has(actionReserved))
      return refuse("action bit 0x01 is reserved: not an action this dataplane performs");
   if ((r.actions.value() & ~known) != 0) {
      return refuse("unknown action bits " + num(r.actions.value() & ~known, Radix::hex));
   }
   bool const goOn = r.actions.has(actionTrafficAction) && (r.trafficAction & trafficActionTerminal) != 0;
   c.sample = r.actions.has(actionTrafficAction) && (r.trafficAction & trafficActionSample) != 0;
   if (c.sample) c.nflogGroup = cfg.nflogGroup;
   c.verdict = goOn ? Verdict::next : Verdict::accept;
   if (r.actions.has(actionPolice)) {
      double const rate = static_cast<double>(r.rate);
      if (std::isnan(rate)) return refuse("police rate nan is not a rate");
      if (rate < 0) return refuse("police rate " + rateText(rate) + " bytes/second is negative");
      if (rate > maxPoliceRate) {
         return refuse("police rate " + rateText(rate) + " bytes/second is above the highest this dataplane polices (" +
                       rateText(maxPoliceRate) + ")");
      }
      // A rate of 0 discards (RFC 8955 section 7.3); below one byte per second rounds up.
      if (rate == 0) {
         c.verdict = Verdict::drop;
      } else {
         c.policeRate = std::max<std::uint64_t>(1, static_cast<std::uint64_t>(std::llround(rate)));
      }
   }
   if (r.actions.has(actionDrop)) c.verdict = Verdict::drop;
   if (r.actions.has(actionSetDscp)) c.dscp = static_cast<std::uint8_t>(r.dscp & 0x3f);
   if (r.actions.has(actionRedirect)) {
      TrafficRedirect const& t = r.trafficRedirect;
      bool const vrf = t.vrfId != TrafficRedirect::noVrfId;
      bool const addr = !t.address.isUnspecified();
      std::string const hookNote =
          std::string(" needs --hook prerouting (at the ") + toStrep(cfg.hook) + " hook the route is already chosen)";
      if (!vrf && !addr) return refuse("redirect names neither a VRF nor an address");
      if (vrf && addr) {
         return refuse("redirect to " + t.address.str() + " within VRF " + std::to_string(t.vrfId) +
                       " is not supported by this dataplane");
      }
      if (vrf) {
         if (t.copy)
            return refuse("a copy redirected to VRF " + std::to_string(t.vrfId) +
                          " is not supported (nftables copies only to an address)");
         auto const it = cfg.vrfTables.find(t.vrfId);
         if (it == cfg.vrfTables.end()) {
            return refuse("redirect to VRF " + std::to_string(t.vrfId) +
                          ": no Linux routing table is configured for it (--vrf-table " + std::to_string(t.vrfId) +
                          "=TABLE)");
         }
         if (cfg.hook != Hook::prerouting) return refuse("redirect to VRF " + std::to_string(t.vrfId) + hookNote);
         c.redirect = RedirectTarget{RedirectKind::vrf, t.vrfId, it->second, {}};
      } else {
         if (t.address.af() != c.af) {
            return refuse(std::string("redirect of ") + Ovnet::toStrep(c.af) + " traffic to the " +
                          Ovnet::toStrep(t.address.af()) + " address " + t.address.str());
         }
         if (!t.copy && cfg.hook != Hook::prerouting) return refuse("redirect to " + t.address.str() + hookNote);
         c.redirect = RedirectTarget{t.copy ? RedirectKind::copy : RedirectKind::address, 0, 0, t.address};
      }
   }
}

CompiledRule compileRule(Flowspec::Rule const& rule, CompileConfig const& cfg) {
   CompiledRule c;
   Flowspec::FlowspecKey const key = rule.key.flowspecKey();
   c.af = key.af();
   MatchResult m = compileMatch(key);
   c.kind = m.kind;
   c.reason = std::move(m.reason);
   if (c.kind != CompiledRule::Kind::install) return c;
   for (Conditions const& alt : m.alternatives) {
      std::string text;
      for (std::string const& cond : alt) text += (text.empty() ? "" : " ") + cond;
      c.matches.push_back(std::move(text));
   }
   compileActions(rule, cfg, c);
   if (c.kind != CompiledRule::Kind::install) c.matches.clear();
   return c;
}

std::vector<std::string> ruleBodies(CompiledRule const& c, std::string_view counterSet, std::uint32_t counterId,
                                    std::uint32_t mark) {
   // The counter is a dynamic-set element keyed by a constant. The key is written as
   // `meta mark & 0 | ID` (always ID) because nft 1.0.6 lists a bare constant key as
   // "[invalid type]", which a saved ruleset could not load again.
   std::string stmts = " update @" + std::string(counterSet) + " { meta mark & 0 | " + std::to_string(counterId) + " }";
   if (c.sample) stmts += " log group " + std::to_string(c.nflogGroup);
   if (c.verdict != Verdict::drop) {
      if (c.dscp)
         stmts += std::string(c.af == AddressFamily::ipv6 ? " ip6" : " ip") + " dscp set " + std::to_string(*c.dscp);
      if (c.redirect) stmts += " meta mark set " + num(mark, Radix::hex);
   }
   std::vector<std::string> out;
   for (std::string const& m : c.matches) {
      switch (c.verdict) {
      case Verdict::drop: out.push_back(m + stmts + " drop"); break;
      case Verdict::next:
         out.push_back(
             m + stmts +
             (c.policeRate ? " limit rate over " + std::to_string(*c.policeRate) + " bytes/second drop" : ""));
         break;
      case Verdict::accept:
         if (c.policeRate) {
            // What the policer lets through stops here too: a second rule accepts it.
            out.push_back(m + stmts + " limit rate over " + std::to_string(*c.policeRate) + " bytes/second drop");
            out.push_back(m + " accept");
         } else {
            out.push_back(m + stmts + " accept");
         }
         break;
      }
   }
   return out;
}

} // namespace Fwd
