#include "agent/api/ApiPath.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <sstream>

#include "host/bgp/ExtComm.h"
#include "host/flowspec/FlowspecKey.h"

namespace Flowspecd::Api {

namespace {

using google::protobuf::Any;

constexpr std::string_view kTypePrefix = "type.googleapis.com/";
constexpr std::uint8_t kTransitiveIpv4 = 0x01;
constexpr std::uint8_t kRedirectIpSubtype = 0x0c;
constexpr std::uint8_t kRedirectNexthopType = 0x08;

Ovk::Failure<Refusal> refuse(std::string message, Code code = Code::invalidArgument) {
   return Ovk::failure(Refusal{code, std::move(message)});
}

template <class M>
bool unpack(Any const& any, M& message) {
   return typeOf(any) == M::descriptor()->name() && message.ParseFromString(any.value());
}

std::string anyName(Any const& any) {
   std::string_view const name = typeOf(any);
   return name.empty() ? "\"" + any.type_url().substr(0, 120) + "\"" : std::string(name);
}

std::string rateText(float rate) {
   std::ostringstream s;
   s.precision(9);
   s << "rate-limit " << rate;
   return s.str();
}

// The prefix of a FlowSpecIPPrefix, of the rule's family, bits past its length cleared.
Ovk::Result<Ovnet::IpGenPrefix, Refusal> prefixOf(apipb::FlowSpecIPPrefix const& p, AfiSafi family) {
   char const* const which = p.type() == Flowspec::destPrefix_ ? "destination" : "source";
   auto const addr = Ovnet::IpGenAddr::parse(p.prefix());
   if (!addr) return refuse(std::string(which) + " prefix \"" + p.prefix().substr(0, 64) + "\" is not an address");
   if (addr->isIpv4() != (family == kIpv4Flowspec)) {
      return refuse(std::string(which) + " prefix " + addr->str() + " is not of the rule's family " +
                    familyName(family));
   }
   if (p.prefix_len() > addr->size() * 8u) {
      return refuse(std::string(which) + " prefix length " + std::to_string(p.prefix_len()) + " is longer than " +
                    std::to_string(addr->size() * 8u));
   }
   if (p.offset() != 0) {
      return refuse(std::string(which) + " prefix offset " + std::to_string(p.offset()) +
                    ": the agent originates IPv6 prefixes without an offset");
   }
   Ovnet::IpGenPrefix prefix(*addr, static_cast<std::uint8_t>(p.prefix_len()));
   prefix.clearLowerAddrBits();
   return prefix;
}

// The match of a FlowSpecNLRI as a rule key: prefixes, then the components in type order,
// each item's operator with the length and end-of-list bits the writer gives it.
Ovk::Result<Flowspec::FlowspecKey, Refusal> keyOf(apipb::FlowSpecNLRI const& nlri, AfiSafi family) {
   Flowspec::FlowspecKey key;
   key.afIs(family == kIpv4Flowspec ? Ovnet::AddressFamily::ipv4 : Ovnet::AddressFamily::ipv6);
   bool dest = false;
   bool src = false;
   std::vector<apipb::FlowSpecComponent> components;
   for (Any const& rule : nlri.rules()) {
      apipb::FlowSpecIPPrefix prefix;
      apipb::FlowSpecComponent component;
      if (unpack(rule, prefix)) {
         if (prefix.type() != Flowspec::destPrefix_ && prefix.type() != Flowspec::srcPrefix_) {
            return refuse("a FlowSpecIPPrefix of type " + std::to_string(prefix.type()) + " (1 or 2)");
         }
         bool& seen = prefix.type() == Flowspec::destPrefix_ ? dest : src;
         if (seen) return refuse(std::string("the NLRI has two ") + (&seen == &dest ? "destination" : "source") + " prefixes");
         seen = true;
         auto p = prefixOf(prefix, family);
         if (!p) return Ovk::failure(p.reason());
         if (&seen == &dest) {
            key.destPrefixIs(p.value());
         } else {
            key.srcPrefixIs(p.value());
         }
      } else if (unpack(rule, component)) {
         if (component.type() < Flowspec::ipProtocol_ || component.type() > Flowspec::flowLabel_) {
            return refuse("component type " + std::to_string(component.type()) + " is not one of 3 to 13");
         }
         if (component.items().empty()) return refuse("component type " + std::to_string(component.type()) + " has no items");
         components.push_back(std::move(component));
      } else if (typeOf(rule) == "FlowSpecMAC") {
         return refuse("a MAC address component: the agent originates IPv4 and IPv6 rules only");
      } else {
         return refuse("an NLRI rule of type " + anyName(rule) + " (FlowSpecIPPrefix or FlowSpecComponent)");
      }
   }
   std::stable_sort(components.begin(), components.end(),
                    [](auto const& a, auto const& b) { return a.type() < b.type(); });
   Flowspec::MatchOpValIndex index = 0;
   for (apipb::FlowSpecComponent const& c : components) {
      for (int i = 0; i < c.items_size(); ++i) {
         apipb::FlowSpecComponentItem const& item = c.items(i);
         if (item.op() > 0xff) return refuse("operator " + std::to_string(item.op()) + " is wider than one byte");
         if (item.value() > 0xffffffffu) {
            return refuse("component type " + std::to_string(c.type()) + " value " + std::to_string(item.value()) +
                          " is wider than 32 bits");
         }
         if (index + 1 >= Flowspec::maxMatchOpValIndex) return refuse("the NLRI has too many items");
         auto const value = static_cast<std::uint32_t>(item.value());
         bool const last = i + 1 == c.items_size();
         std::uint8_t const op =
             static_cast<std::uint8_t>((item.op() & ~unsigned{Flowspec::opEndOfList | Flowspec::opLengthMask}) |
                                       Flowspec::shortestLengthCode(value) << 4 | (last ? Flowspec::opEndOfList : 0u));
         index = key.setOpVal(index, static_cast<Flowspec::MatchCompType>(c.type()), op, value);
      }
   }
   return key;
}

// What the attributes of an AddPath path hold for the rule.
struct Attributes {
   std::optional<apipb::Family> mpFamily;
   std::optional<Any> mpNlri;
   std::string nexthop;
   std::vector<Any> extComms;
   std::vector<Any> ip6ExtComms;
};

Ovk::Result<Attributes, Refusal> attributesOfPath(apipb::Path const& path, bool withActions) {
   Attributes a;
   for (Any const& attr : path.pattrs()) {
      std::string_view const type = typeOf(attr);
      if (type == "MpReachNLRIAttribute") {
         apipb::MpReachNLRIAttribute mp;
         if (!unpack(attr, mp)) return refuse("the MpReachNLRIAttribute does not parse");
         if (mp.has_family()) a.mpFamily = mp.family();
         if (mp.nlris_size() > 1) return refuse("the MpReachNLRIAttribute carries " + std::to_string(mp.nlris_size()) +
                                                " NLRI; a path is one rule");
         if (mp.nlris_size() == 1) a.mpNlri = mp.nlris(0);
         if (mp.next_hops_size() > 0) a.nexthop = mp.next_hops(0);
         continue;
      }
      if (!withActions) continue;
      if (type == "NextHopAttribute") {
         apipb::NextHopAttribute nh;
         if (!unpack(attr, nh)) return refuse("the NextHopAttribute does not parse");
         if (a.nexthop.empty()) a.nexthop = nh.next_hop();
      } else if (type == "ExtendedCommunitiesAttribute") {
         apipb::ExtendedCommunitiesAttribute ec;
         if (!unpack(attr, ec)) return refuse("the ExtendedCommunitiesAttribute does not parse");
         a.extComms.insert(a.extComms.end(), ec.communities().begin(), ec.communities().end());
      } else if (type == "IP6ExtendedCommunitiesAttribute") {
         apipb::IP6ExtendedCommunitiesAttribute ec;
         if (!unpack(attr, ec)) return refuse("the IP6ExtendedCommunitiesAttribute does not parse");
         a.ip6ExtComms.insert(a.ip6ExtComms.end(), ec.communities().begin(), ec.communities().end());
      } else if (type == "OriginAttribute" || type == "AsPathAttribute" || type == "MultiExitDiscAttribute" ||
                 type == "LocalPrefAttribute" || type == "CommunitiesAttribute" || type == "MpUnreachNLRIAttribute") {
         // The agent's own paths carry ORIGIN IGP and an empty AS_PATH; the others do not
         // bear on a flowspec rule.
      } else {
         return refuse("path attribute " + anyName(attr) + ": not one the agent originates");
      }
   }
   return a;
}

// The action of one extended community; the reason when the agent cannot originate it.
Ovk::Result<std::string, Refusal> actionOf(Any const& c, std::string const& nexthop) {
   apipb::TrafficRateExtended rate;
   apipb::TrafficActionExtended action;
   apipb::TrafficRemarkExtended remark;
   apipb::RedirectTwoOctetAsSpecificExtended as2;
   apipb::RedirectIPv4AddressSpecificExtended ip4rt;
   apipb::RedirectFourOctetAsSpecificExtended as4;
   apipb::IPv4AddressSpecificExtended ip4;
   apipb::IPv6AddressSpecificExtended ip6;
   apipb::UnknownExtended unknown;
   if (unpack(c, rate)) {
      if (rate.as() != 0) {
         return refuse("traffic-rate with AS " + std::to_string(rate.as()) +
                       ": the agent originates traffic-rate with AS 0");
      }
      if (!std::isfinite(rate.rate()) || rate.rate() < 0) return refuse("traffic-rate " + std::to_string(rate.rate()));
      if (rate.rate() == 0.0f) return std::string("discard");
      return rateText(rate.rate());
   }
   if (unpack(c, action)) {
      if (action.sample() && action.terminal()) return std::string("sample terminal");
      if (action.sample()) return std::string("sample");
      if (action.terminal()) return std::string("terminal");
      return refuse("a traffic-action community with neither sample nor terminal asks for nothing");
   }
   if (unpack(c, remark)) return "mark " + std::to_string(remark.dscp());
   if (unpack(c, as2)) {
      if (as2.as() > 0xffff) return refuse("redirect to the 2-octet AS " + std::to_string(as2.as()) + " (above 65535)");
      return "redirect-vrf " + std::to_string(as2.as()) + ":" + std::to_string(as2.local_admin());
   }
   if (unpack(c, ip4rt)) return "redirect-vrf " + ip4rt.address() + ":" + std::to_string(ip4rt.local_admin());
   if (unpack(c, as4)) {
      if (as4.as() <= 0xffff) {
         return refuse("redirect to the 4-octet route target " + std::to_string(as4.as()) + ":" +
                       std::to_string(as4.local_admin()) + ": the agent writes an AS below 65536 in the 2-octet form");
      }
      return "redirect-vrf " + std::to_string(as4.as()) + ":" + std::to_string(as4.local_admin());
   }
   bool const isIp4 = unpack(c, ip4);
   if (isIp4 || unpack(c, ip6)) {
      bool const transitive = isIp4 ? ip4.is_transitive() : ip6.is_transitive();
      std::uint32_t const subtype = isIp4 ? ip4.sub_type() : ip6.sub_type();
      std::uint32_t const local = isIp4 ? ip4.local_admin() : ip6.local_admin();
      std::string const& address = isIp4 ? ip4.address() : ip6.address();
      if (!transitive || subtype != kRedirectIpSubtype || local > 1) {
         return refuse(std::string(isIp4 ? "IPv4" : "IPv6") + " address specific community subtype " +
                       std::to_string(subtype) + " " + address.substr(0, 64) + ":" + std::to_string(local) +
                       ": the agent originates only redirect-to-IP (subtype 12, local administrator 0 or 1)");
      }
      return "redirect-ip " + address + (local == 1 ? " copy" : "");
   }
   if (unpack(c, unknown)) {
      std::string const& v = unknown.value();
      bool const nexthopRedirect = unknown.type() == kRedirectNexthopType &&
                                   (v.size() == 7 || v.size() == 8) &&
                                   std::all_of(v.begin(), v.end(), [](char b) { return b == 0; });
      if (!nexthopRedirect) {
         return refuse("extended community of type " + std::to_string(unknown.type()) +
                       ": not a flowspec action the agent originates");
      }
      auto const addr = Ovnet::IpGenAddr::parse(nexthop);
      bool const given = addr && !std::all_of(addr->bytes().begin(), addr->bytes().end(), [](auto b) { return b == 0; });
      return "redirect-nexthop" + (given ? " " + nexthop : std::string());
   }
   return refuse("extended community " + anyName(c) + ": not a flowspec action the agent originates");
}

} // namespace

std::string_view typeOf(Any const& any) {
   std::string_view url = any.type_url();
   std::size_t const slash = url.rfind('/');
   if (slash != std::string_view::npos) url.remove_prefix(slash + 1);
   for (std::string_view const package : {"apipb.", "gobgpapi."}) {
      if (url.starts_with(package)) return url.substr(package.size());
   }
   return {};
}

void pack(Any& any, google::protobuf::Message const& message, Dialect dialect) {
   any.set_type_url(std::string(kTypePrefix) + std::string(dialect.package) + "." + message.GetDescriptor()->name());
   message.SerializeToString(any.mutable_value());
}

Ovk::Result<AfiSafi, Refusal> familyOf(apipb::Family const& family) {
   if (family.safi() == apipb::Family::SAFI_FLOW_SPEC_UNICAST) {
      if (family.afi() == apipb::Family::AFI_IP) return kIpv4Flowspec;
      if (family.afi() == apipb::Family::AFI_IP6) return kIpv6Flowspec;
   }
   return refuse("family afi " + std::to_string(family.afi()) + " safi " + std::to_string(family.safi()) +
                 ": the agent serves ipv4-flowspec (1/133) and ipv6-flowspec (2/133)");
}

apipb::Family apiFamilyOf(AfiSafi family) {
   apipb::Family f;
   f.set_afi(family == kIpv4Flowspec ? apipb::Family::AFI_IP : apipb::Family::AFI_IP6);
   f.set_safi(apipb::Family::SAFI_FLOW_SPEC_UNICAST);
   return f;
}

Ovk::Result<RuleWords, Refusal> ruleOfPath(apipb::Path const& path, std::optional<AfiSafi> family, bool withActions) {
   auto attrs = attributesOfPath(path, withActions);
   if (!attrs) return Ovk::failure(attrs.reason());
   Attributes const& a = attrs.value();
   std::optional<AfiSafi> own;
   for (apipb::Family const* f : {path.has_family() ? &path.family() : nullptr, a.mpFamily ? &*a.mpFamily : nullptr}) {
      if (!f) continue;
      auto fam = familyOf(*f);
      if (!fam) return Ovk::failure(fam.reason());
      if (own && *own != fam.value()) return refuse("the path names two families");
      own = fam.value();
   }
   if (family && own && *family != *own) {
      return refuse("the path is of " + familyName(*own) + ", the request of " + familyName(*family));
   }
   if (!family) family = own;
   if (!family) return refuse("the path names no family");

   Any const* nlriAny = path.has_nlri() ? &path.nlri() : a.mpNlri ? &*a.mpNlri : nullptr;
   if (!nlriAny) {
      if (!path.nlri_binary().empty()) return refuse("the NLRI is given in nlri_binary only; send it as a FlowSpecNLRI");
      return refuse("the path has no NLRI");
   }
   apipb::FlowSpecNLRI nlri;
   if (!unpack(*nlriAny, nlri)) {
      return refuse(typeOf(*nlriAny) == "FlowSpecNLRI" ? std::string("the FlowSpecNLRI does not parse")
                                                      : "the NLRI is a " + anyName(*nlriAny) + ", not a FlowSpecNLRI");
   }
   auto key = keyOf(nlri, *family);
   if (!key) return Ovk::failure(key.reason());
   RuleWords words{*family, key.value().toStrepCli(), {}, path.is_withdraw()};
   if (!withActions) return words;
   for (Any const& c : a.extComms) {
      auto action = actionOf(c, a.nexthop);
      if (!action) return Ovk::failure(action.reason());
      words.then.push_back(std::move(action.value()));
   }
   for (Any const& c : a.ip6ExtComms) {
      apipb::IPv6AddressSpecificExtended ip6;
      if (!unpack(c, ip6)) {
         return refuse("IPv6 extended community " + anyName(c) + ": not a flowspec action the agent originates");
      }
      auto action = actionOf(c, a.nexthop);
      if (!action) return Ovk::failure(action.reason());
      words.then.push_back(std::move(action.value()));
   }
   // "sample terminal" is two actions of one community.
   std::vector<std::string> split;
   for (std::string& t : words.then) {
      if (t == "sample terminal") {
         split.emplace_back("sample");
         split.emplace_back("terminal");
      } else {
         split.push_back(std::move(t));
      }
   }
   words.then = std::move(split);
   return words;
}

apipb::FlowSpecNLRI nlriOf(Flowspec::FlowspecKey const& key, Dialect dialect) {
   apipb::FlowSpecNLRI nlri;
   for (auto const& [type, prefix] : {std::pair{Flowspec::destPrefix_, &key.destPrefix()},
                                     std::pair{Flowspec::srcPrefix_, &key.srcPrefix()}}) {
      if (prefix->isUnset()) continue;
      apipb::FlowSpecIPPrefix p;
      p.set_type(type);
      p.set_prefix_len(prefix->len());
      p.set_prefix(prefix->addr().str());
      pack(*nlri.add_rules(), p, dialect);
   }
   apipb::FlowSpecComponent component;
   auto flushComponent = [&] {
      if (component.items_size() > 0) pack(*nlri.add_rules(), component, dialect);
      component.Clear();
   };
   for (auto r = key.getOptVal(0); !r.atEnd(); r = key.getOptVal(r.nextIndex())) {
      if (component.items_size() > 0 && component.type() != r.type()) flushComponent();
      component.set_type(r.type());
      apipb::FlowSpecComponentItem* item = component.add_items();
      item->set_op(r.op() & ~unsigned{Flowspec::opEndOfList | Flowspec::opLengthMask});
      item->set_value(r.value());
      if (r.op() & Flowspec::opEndOfList) flushComponent();
   }
   flushComponent();
   return nlri;
}

void attributesOf(PathAttributesContents const& attrs, AfiSafi family, apipb::FlowSpecNLRI const& nlri,
                  Dialect dialect, google::protobuf::RepeatedPtrField<Any>& out) {
   apipb::OriginAttribute origin;
   origin.set_origin(static_cast<std::uint32_t>(attrs.origin));
   pack(*out.Add(), origin, dialect);

   // AS_PATH segments as the host keeps them: type, count, then 4-octet numbers.
   apipb::AsPathAttribute asPath;
   std::span<std::uint8_t const> const b = attrs.asPath.span();
   for (std::size_t i = 0; i + 2 <= b.size();) {
      std::size_t const count = b[i + 1];
      if (i + 2 + 4 * count > b.size()) break;
      apipb::AsSegment* s = asPath.add_segments();
      s->set_type(b[i]);
      for (std::size_t j = 0; j < count; ++j) {
         std::size_t const at = i + 2 + 4 * j;
         s->add_numbers(std::uint32_t{b[at]} << 24 | std::uint32_t{b[at + 1]} << 16 | std::uint32_t{b[at + 2]} << 8 |
                        b[at + 3]);
      }
      i += 2 + 4 * count;
   }
   pack(*out.Add(), asPath, dialect);

   apipb::MpReachNLRIAttribute mp;
   *mp.mutable_family() = apiFamilyOf(family);
   Ovnet::IpGenAddr nexthop = attrs.nexthop ? attrs.nexthop->addrOrNone() : Ovnet::IpGenAddr();
   if (nexthop.af() == Ovnet::AddressFamily::unspecified) {
      mp.add_next_hops(family == kIpv4Flowspec ? "0.0.0.0" : "::");
   } else {
      mp.add_next_hops(nexthop.str());
   }
   pack(*mp.add_nlris(), nlri, dialect);
   pack(*out.Add(), mp, dialect);

   if (attrs.med) {
      apipb::MultiExitDiscAttribute med;
      med.set_med(*attrs.med);
      pack(*out.Add(), med, dialect);
   }
   if (attrs.localPref) {
      apipb::LocalPrefAttribute lp;
      lp.set_local_pref(*attrs.localPref);
      pack(*out.Add(), lp, dialect);
   }
   if (!attrs.communities.empty()) {
      apipb::CommunitiesAttribute c;
      for (std::uint32_t v : attrs.communities) c.add_communities(v);
      pack(*out.Add(), c, dialect);
   }
   if (attrs.extCommList.size() > 0) {
      apipb::ExtendedCommunitiesAttribute ec;
      for (auto const& comm : attrs.extCommList.items()) {
         std::uint64_t const v = comm->value();
         auto const ts = static_cast<std::uint16_t>(v >> 48);
         auto const type = static_cast<std::uint8_t>(v >> 56);
         auto const subtype = static_cast<std::uint8_t>(v >> 48);
         auto const low32 = static_cast<std::uint32_t>(v);
         auto const low16 = static_cast<std::uint16_t>(v);
         Any* any = ec.add_communities();
         switch (ts) {
         case 0x8006: {
            apipb::TrafficRateExtended m;
            m.set_as(static_cast<std::uint16_t>(v >> 32));
            m.set_rate(std::bit_cast<float>(low32));
            pack(*any, m, dialect);
            continue;
         }
         case 0x8007: {
            apipb::TrafficActionExtended m;
            m.set_terminal((v & FlowspecExtCommTrafficAction::terminalFlag) != 0);
            m.set_sample((v & FlowspecExtCommTrafficAction::sampleFlag) != 0);
            pack(*any, m, dialect);
            continue;
         }
         case 0x8009: {
            apipb::TrafficRemarkExtended m;
            m.set_dscp(static_cast<std::uint32_t>(v & 0x3f));
            pack(*any, m, dialect);
            continue;
         }
         case 0x8008: {
            apipb::RedirectTwoOctetAsSpecificExtended m;
            m.set_as(static_cast<std::uint16_t>(v >> 32));
            m.set_local_admin(low32);
            pack(*any, m, dialect);
            continue;
         }
         case 0x8108: {
            apipb::RedirectIPv4AddressSpecificExtended m;
            m.set_address(Ovnet::IpGenAddr::ipv4(static_cast<std::uint32_t>(v >> 16)).str());
            m.set_local_admin(low16);
            pack(*any, m, dialect);
            continue;
         }
         case 0x8208: {
            apipb::RedirectFourOctetAsSpecificExtended m;
            m.set_as(static_cast<std::uint32_t>(v >> 16));
            m.set_local_admin(low16);
            pack(*any, m, dialect);
            continue;
         }
         default: break;
         }
         bool const transitive = (type & 0x40) == 0;
         if ((type & ~0x40u) == 0x00) {
            apipb::TwoOctetAsSpecificExtended m;
            m.set_is_transitive(transitive);
            m.set_sub_type(subtype);
            m.set_as(static_cast<std::uint16_t>(v >> 32));
            m.set_local_admin(low32);
            pack(*any, m, dialect);
         } else if ((type & ~0x40u) == kTransitiveIpv4) {
            apipb::IPv4AddressSpecificExtended m;
            m.set_is_transitive(transitive);
            m.set_sub_type(subtype);
            m.set_address(Ovnet::IpGenAddr::ipv4(static_cast<std::uint32_t>(v >> 16)).str());
            m.set_local_admin(low16);
            pack(*any, m, dialect);
         } else if ((type & ~0x40u) == 0x02) {
            apipb::FourOctetAsSpecificExtended m;
            m.set_is_transitive(transitive);
            m.set_sub_type(subtype);
            m.set_as(static_cast<std::uint32_t>(v >> 16));
            m.set_local_admin(low16);
            pack(*any, m, dialect);
         } else {
            apipb::UnknownExtended m;
            m.set_type(type);
            std::string value(7, '\0');
            for (int i = 0; i < 7; ++i) value[static_cast<std::size_t>(i)] = static_cast<char>(v >> (8 * (6 - i)));
            m.set_value(value);
            pack(*any, m, dialect);
         }
      }
      pack(*out.Add(), ec, dialect);
   }
   if (attrs.extCommIp6List.size() > 0) {
      apipb::IP6ExtendedCommunitiesAttribute ec;
      for (auto const& comm : attrs.extCommIp6List.items()) {
         apipb::IPv6AddressSpecificExtended m;
         m.set_is_transitive((comm->type() & 0x40) == 0);
         m.set_sub_type(comm->subtype());
         m.set_address(comm->address().str());
         m.set_local_admin(comm->localAdmin());
         pack(*ec.add_communities(), m, dialect);
      }
      pack(*out.Add(), ec, dialect);
   }
}

} // namespace Flowspecd::Api
