#include "agent/OriginatedRule.h"
#include "host/bgp/ImportPolicy.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <sstream>

#include "host/bgp/BgpMessage.h"
#include "host/bgp/ExtComm.h"

namespace Flowspecd {

namespace {

using Routing::Bgp::ExtComm;
using Routing::Bgp::ExtCommIp6;
using Routing::Bgp::kIpv4Flowspec;
using Routing::Bgp::kIpv6Flowspec;

constexpr std::uint64_t typeSubtype(std::uint16_t ts) { return static_cast<std::uint64_t>(ts) << 48; }

// The flowspec kinds the actions write (RFC 8955 section 7; redirect to an IP address and to
// the next hop as the forwarding export reads them, host/bgp/ExtComm.h).
constexpr std::uint16_t kTrafficRate = 0x8006;
constexpr std::uint16_t kTrafficAction = 0x8007;
constexpr std::uint16_t kRedirectAs2 = 0x8008;
constexpr std::uint16_t kRedirectIpv4Rt = 0x8108;
constexpr std::uint16_t kRedirectAs4 = 0x8208;
constexpr std::uint16_t kTrafficMarking = 0x8009;
constexpr std::uint16_t kRedirectIpv4 = 0x010c;
constexpr std::uint16_t kRedirectNexthop = 0x0800;
constexpr std::uint8_t kRedirectIpv6Subtype = 0x0c;

std::vector<std::string> wordsOf(std::string_view text) {
   std::vector<std::string> words;
   std::istringstream in{std::string(text)};
   for (std::string w; in >> w;) words.push_back(w);
   return words;
}

std::string familyShort(AfiSafi family) { return family == kIpv4Flowspec ? "IPv4" : "IPv6"; }

// What the actions read so far ask for; each slot holds the action that set it.
struct Reading {
   AfiSafi family;
   std::optional<std::string> rate; // discard or rate-limit
   std::optional<std::string> mark;
   std::optional<std::string> sample;
   std::optional<std::string> terminal;
   std::optional<std::string> redirect; // redirect-vrf, redirect-ip or redirect-nexthop
   RuleCommunities out;
   std::uint8_t actionFlags = 0;

   // Takes `slot` for `action`; the reason when an earlier action holds it.
   std::optional<std::string> take(std::optional<std::string>& slot, std::string const& action) {
      if (slot) {
         if (*slot == action) return "\"" + action + "\" is given twice";
         return "\"" + action + "\" conflicts with \"" + *slot + "\"";
      }
      slot = action;
      return std::nullopt;
   }

   std::optional<Ovnet::IpGenAddr> addressOfFamily(std::string const& word, std::string const& action,
                                                   std::string& whyNot) const {
      auto a = Ovnet::IpGenAddr::parse(word);
      if (!a) {
         whyNot = "\"" + action + "\": \"" + word + "\" is not an IP address";
         return std::nullopt;
      }
      if (a->isIpv4() != (family == kIpv4Flowspec)) {
         whyNot = "\"" + action + "\": " + (a->isIpv4() ? "an IPv4" : "an IPv6") + " address in an " +
                  familyShort(family) + " rule (the rule's family is " + familyName(family) + ")";
         return std::nullopt;
      }
      return a;
   }

   // Reads one action; the reason when it cannot be read.
   std::optional<std::string> read(std::string const& action) {
      std::vector<std::string> const w = wordsOf(action);
      if (w.empty()) return "an action is empty";
      std::string const& verb = w[0];
      std::size_t const args = w.size() - 1;
      auto wrongArgs = [&](char const* usage) { return "\"" + action + "\": write it as \"" + usage + "\""; };
      if (verb == "discard") {
         if (args != 0) return wrongArgs("discard");
         if (auto e = take(rate, action)) return e;
         out.extComms.push_back(typeSubtype(kTrafficRate));
      } else if (verb == "rate-limit") {
         if (args != 1) return wrongArgs("rate-limit BYTES_PER_SECOND");
         char* end = nullptr;
         errno = 0;
         double const v = std::strtod(w[1].c_str(), &end);
         if (end != w[1].c_str() + w[1].size() || errno != 0 || !std::isfinite(v) || v <= 0 ||
             v > static_cast<double>(std::numeric_limits<float>::max())) {
            return "\"" + action + "\": the rate is a positive number of bytes per second (\"discard\" drops all)";
         }
         if (auto e = take(rate, action)) return e;
         out.extComms.push_back(typeSubtype(kTrafficRate) | std::bit_cast<std::uint32_t>(static_cast<float>(v)));
      } else if (verb == "mark") {
         unsigned dscp = 64;
         if (args != 1) return wrongArgs("mark DSCP");
         auto const [p, ec] = std::from_chars(w[1].data(), w[1].data() + w[1].size(), dscp);
         if (ec != std::errc() || p != w[1].data() + w[1].size() || dscp > 63) {
            return "\"" + action + "\": DSCP is a number from 0 to 63";
         }
         if (auto e = take(mark, action)) return e;
         out.extComms.push_back(typeSubtype(kTrafficMarking) | dscp);
      } else if (verb == "sample" || verb == "terminal") {
         if (args != 0) return wrongArgs(verb == "sample" ? "sample" : "terminal");
         if (auto e = take(verb == "sample" ? sample : terminal, action)) return e;
         actionFlags |= verb == "sample" ? Routing::Bgp::FlowspecExtCommTrafficAction::sampleFlag
                                         : Routing::Bgp::FlowspecExtCommTrafficAction::terminalFlag;
      } else if (verb == "redirect-vrf") {
         if (args != 1) return wrongArgs("redirect-vrf RT");
         auto const rt = Routing::Bgp::parseRouteTarget(w[1]);
         if (!rt) {
            return "\"" + action +
                   "\": a route target is AS:NUMBER (AS up to 65535, NUMBER up to 4294967295), IPV4:NUMBER or "
                   "AS4:NUMBER (AS above 65535, NUMBER up to 65535)";
         }
         if (auto e = take(redirect, action)) return e;
         std::uint8_t const rtType = static_cast<std::uint8_t>(*rt >> 56);
         std::uint16_t const kind = rtType == 0x00 ? kRedirectAs2 : rtType == 0x01 ? kRedirectIpv4Rt : kRedirectAs4;
         out.extComms.push_back(typeSubtype(kind) | (*rt & 0x0000ffffffffffffull));
      } else if (verb == "redirect-ip") {
         if (args < 1 || args > 2 || (args == 2 && w[2] != "copy")) return wrongArgs("redirect-ip ADDRESS [copy]");
         std::string whyNot;
         auto const a = addressOfFamily(w[1], action, whyNot);
         if (!a) return whyNot;
         if (auto e = take(redirect, action)) return e;
         bool const copy = args == 2;
         if (a->isIpv4()) {
            out.extComms.push_back(typeSubtype(kRedirectIpv4) | std::uint64_t{a->ipv4HostOrder()} << 16 |
                                   (copy ? 1u : 0u));
         } else {
            std::array<std::uint8_t, 20> c{};
            c[1] = kRedirectIpv6Subtype;
            std::copy(a->bytes().begin(), a->bytes().end(), c.begin() + 2);
            c[19] = copy ? 1 : 0;
            out.ip6ExtComms.push_back(c);
         }
      } else if (verb == "redirect-nexthop") {
         if (args > 1) return wrongArgs("redirect-nexthop [ADDRESS]");
         if (args == 1) {
            std::string whyNot;
            auto const a = addressOfFamily(w[1], action, whyNot);
            if (!a) return whyNot;
            out.nexthop = a;
         }
         if (auto e = take(redirect, action)) return e;
         out.extComms.push_back(typeSubtype(kRedirectNexthop));
      } else {
         return "unknown action \"" + action + "\" (known: " + Routing::Bgp::ruleActionNamesText() + ")";
      }
      return std::nullopt;
   }
};

// Why the match cannot be one NLRI: each component type once, in ascending order (RFC 8955
// section 4.2). Text that names a type twice gives pairs whose end-of-list bit falls inside
// one component; written, those bytes would read back as another rule.
std::optional<std::string> componentsNotOnce(Flowspec::FlowspecKey const& key) {
   std::uint32_t lastType = Flowspec::srcPrefix_;
   bool listEnded = true;
   for (auto r = key.getOptVal(0); !r.atEnd(); r = key.getOptVal(r.nextIndex())) {
      std::uint32_t const type = r.type();
      if (type < lastType || (type == lastType && listEnded) || (type != lastType && !listEnded)) {
         return std::string("a component is given more than once; give all its values in one place "
                            "(for example \"protocol =6 =17\")");
      }
      lastType = type;
      listEnded = (r.op() & Flowspec::opEndOfList) != 0;
   }
   return std::nullopt;
}

} // namespace

std::optional<AfiSafi> ruleFamilyOf(std::string_view name) {
   if (name == "ipv4" || name == "ipv4-flowspec") return kIpv4Flowspec;
   if (name == "ipv6" || name == "ipv6-flowspec") return kIpv6Flowspec;
   return std::nullopt;
}

Ovk::Result<RuleCommunities, std::string> communitiesOf(AfiSafi family, std::vector<std::string> const& then) {
   Reading r;
   r.family = family;
   for (auto const& action : then) {
      // Spaces inside an action are not significant: "rate-limit  1000" reads as one.
      std::string normal;
      for (auto const& word : wordsOf(action)) normal += (normal.empty() ? "" : " ") + word;
      if (auto e = r.read(normal)) return Ovk::failure(*e);
   }
   // Sample and terminal share one traffic-action community.
   if (r.actionFlags) r.out.extComms.push_back(typeSubtype(kTrafficAction) | r.actionFlags);
   std::sort(r.out.extComms.begin(), r.out.extComms.end());
   return r.out;
}

std::vector<std::string> actionsOfWords(std::vector<std::string> const& words) {
   std::vector<std::string> actions;
   for (auto const& w : words) {
      bool const starts = Routing::Bgp::ruleActionFromName(w).has_value();
      if (starts || actions.empty()) {
         actions.push_back(w);
      } else {
         actions.back() += " " + w;
      }
   }
   return actions;
}

std::vector<std::string> actionTexts(RuleCommunities const& c) {
   std::vector<std::string> out;
   for (std::uint64_t const v : c.extComms) {
      auto const comm = Routing::Bgp::ExtComm::create(v);
      std::uint16_t const kind = static_cast<std::uint16_t>(v >> 48);
      if (kind == kTrafficRate) {
         float const rate = std::bit_cast<float>(static_cast<std::uint32_t>(v));
         if (rate == 0.0f) {
            out.push_back("discard");
         } else {
            std::ostringstream s;
            s.precision(9);
            s << "rate-limit " << rate;
            out.push_back(s.str());
         }
      } else if (kind == kTrafficAction) {
         if (v & Routing::Bgp::FlowspecExtCommTrafficAction::sampleFlag) out.push_back("sample");
         if (v & Routing::Bgp::FlowspecExtCommTrafficAction::terminalFlag) out.push_back("terminal");
      } else if (kind == kTrafficMarking) {
         out.push_back("mark " + std::to_string(v & 0x3f));
      } else if (kind == kRedirectIpv4) {
         auto const* r = static_cast<Routing::Bgp::FlowspecExtCommRedirectIpv4 const*>(comm.ptr());
         out.push_back("redirect-ip " + r->address().str() + (r->copy() ? " copy" : ""));
      } else if (kind == kRedirectNexthop) {
         out.push_back("redirect-nexthop" + (c.nexthop ? " " + c.nexthop->str() : std::string()));
      } else {
         // A redirect to a VRF: the route target's own text.
         std::uint8_t const rtType = kind == kRedirectAs2 ? 0x00 : kind == kRedirectIpv4Rt ? 0x01 : 0x02;
         std::uint64_t const rt = std::uint64_t{rtType} << 56 | std::uint64_t{0x02} << 48 | (v & 0x0000ffffffffffffull);
         std::string text;
         for (auto const& f : [&] {
                 std::vector<Routing::Bgp::ExtCommField> fields;
                 Routing::Bgp::ExtComm::create(rt)->fields(fields);
                 return fields;
              }()) {
            text += (text.empty() ? "" : ":") + f.value;
         }
         out.push_back("redirect-vrf " + text);
      }
   }
   for (auto const& c6 : c.ip6ExtComms) {
      auto const comm = Routing::Bgp::ExtCommIp6::create(std::span<std::uint8_t const, 20>(c6));
      out.push_back("redirect-ip " + comm->address().str() + (c6[19] & 1 ? " copy" : ""));
   }
   return out;
}

Ovk::Result<OriginatedRule, std::string> originatedRuleOf(AfiSafi family, std::string_view match,
                                                          std::vector<std::string> const& then) {
   OriginatedRule rule;
   rule.family = family;
   rule.key.afIs(family == kIpv4Flowspec ? Ovnet::AddressFamily::ipv4 : Ovnet::AddressFamily::ipv6);
   std::string whyNot;
   if (!rule.key.copyInStrCli(match, &whyNot)) return Ovk::failure("match: " + whyNot);
   if (auto const why = componentsNotOnce(rule.key)) return Ovk::failure("match: " + *why);
   if (then.empty()) return Ovk::failure(std::string("then: a rule needs at least one action"));
   auto communities = communitiesOf(family, then);
   if (!communities) return Ovk::failure("then: " + communities.reason());
   rule.communities = std::move(communities.value());
   rule.match = rule.key.toStrepCli();
   rule.actions = actionTexts(rule.communities);
   return rule;
}

std::optional<std::chrono::seconds> parseLifetime(std::string_view text) {
   if (text.empty() || text.size() > 32) return std::nullopt;
   std::uint64_t total = 0;
   std::size_t i = 0;
   char lastUnit = 0;
   while (i < text.size()) {
      std::uint64_t n = 0;
      std::size_t const start = i;
      while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
         n = n * 10 + static_cast<std::uint64_t>(text[i] - '0');
         if (n > static_cast<std::uint64_t>(kMaxLifetime.count())) return std::nullopt;
         ++i;
      }
      if (i == start) return std::nullopt;
      char const unit = i < text.size() ? text[i++] : (start == 0 ? 's' : 0);
      std::uint64_t scale = 0;
      switch (unit) {
      case 'd': scale = 86400; break;
      case 'h': scale = 3600; break;
      case 'm': scale = 60; break;
      case 's': scale = 1; break;
      default: return std::nullopt;
      }
      // Units from the largest down, each once: "1h30m", not "30m1h".
      if (lastUnit != 0 && std::string_view("dhms").find(unit) <= std::string_view("dhms").find(lastUnit)) {
         return std::nullopt;
      }
      lastUnit = unit;
      total += n * scale;
      if (total > static_cast<std::uint64_t>(kMaxLifetime.count())) return std::nullopt;
   }
   if (total == 0) return std::nullopt;
   return std::chrono::seconds(total);
}

} // namespace Flowspecd
