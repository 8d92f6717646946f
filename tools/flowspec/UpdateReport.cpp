#include "tools/flowspec/UpdateReport.h"
#include "host/fwk/JsonText.h"

#include <algorithm>
#include <ostream>

#include "BgpFlowspec/FlowspecParseNlri.h"
#include "host/bgp/BgpMessage.h"
#include "host/bgp/BgpVrfId.h"
#include "host/bgp/ExtComm.h"
#include "host/bgp/PathAttributes.h"
#include "host/plugin/PluginHost.h"
#include "tools/capture/BgpCapture.h"
#include "tools/flowspec/NlriCodec.h"

namespace FlowspecTool {

using namespace Routing::Bgp;
using namespace Routing::Bgp::FlowspecPlugin;
// Keys in the order the schema lists them.
using json = nlohmann::ordered_json;

namespace {

char const* originName(std::uint8_t origin) {
   switch (origin) {
   case 0: return "igp";
   case 1: return "egp";
   default: return "incomplete";
   }
}

// A decoded community field as JSON: numbers and booleans as such, the rest as text.
json fieldValue(ExtCommField const& f) {
   if (!f.number) return f.value;
   json v = json::parse(f.value, nullptr, false);
   return v.is_discarded() ? json(f.value) : v;
}

template <class C>
json communityJson(C const& c, std::span<std::uint8_t const> bytes) {
   json fields = json::object();
   std::vector<ExtCommField> f;
   c.fields(f);
   for (ExtCommField const& field : f) fields[field.name] = fieldValue(field);
   return {{"hex", hexOf(bytes)},
           {"kind", c.kindName()},
           {"flowspec", c.classification() == ExtCommClassification::flowspec},
           {"fields", fields}};
}

// Calls fn(community, bytes) for the 8-byte and then the 20-byte communities, each of the
// kind the plugins taught `rules`.
template <class Fn>
void forEachCommunity(BgpParseUpdateAttributesScratchpad const& a, ExtCommParseRuleCollections const& rules, Fn&& fn) {
   ExtCommList const eight = extCommListOf(a.extCommunities.value, &rules, nullptr);
   for (auto const& c : eight.items()) {
      auto const b = c->bytes();
      fn(*c, std::span<std::uint8_t const>(b));
   }
   ExtCommIp6List const twenty = extCommIp6ListOf(a.ipv6ExtCommunities.value, &rules, nullptr);
   for (auto const& c : twenty.items()) fn(*c, c->bytes());
}

std::vector<std::string> communities(std::span<std::uint8_t const> value) {
   std::vector<std::string> out;
   BgpParsePktPosition pos(value);
   std::uint16_t as = 0;
   std::uint16_t local = 0;
   while (pos.consumeU16ntoh(&as) && pos.consumeU16ntoh(&local)) {
      out.push_back(std::to_string(as) + ":" + std::to_string(local));
   }
   return out;
}

std::vector<std::string> ipv4Prefixes(std::span<std::uint8_t const> field) {
   std::vector<std::string> out;
   forEachIpv4Prefix(
       field, [&](Ovnet::IpGenAddr const& a, std::uint8_t len) { out.push_back(a.str() + "/" + std::to_string(len)); });
   return out;
}

// The family an UPDATE is about: its MP_REACH_NLRI's, else its MP_UNREACH_NLRI's.
std::optional<AfiSafi> updateFamily(BgpParsedUpdate const& u) {
   if (u.mpReach.present) return u.mpReach.afiSafi;
   if (u.mpUnreach.present) return u.mpUnreach.afiSafi;
   return std::nullopt;
}

std::string errorText(BgpUpdateError const& e, std::string const& ruleMessage) {
   char const* const text = bgpUpdateErrorText(e.reason);
   if (*text) return text;
   if (char const* const attributeText = flowspecAttributeReasonText(e.reason)) return attributeText;
   return ruleMessage;
}

// "unrecognizedTail, componentTypeMoreThanOnce": the bits set.
std::string wontExportText(std::uint32_t bits) {
   FlowspecWontExportReason const r(bits);
   std::string out;
   auto add = [&](bool on, char const* name) {
      if (!on) return;
      if (!out.empty()) out += ", ";
      out += name;
   };
   add(r.unrecognizedTail(), "unrecognizedTail");
   add(r.nonZeroIpv6Offset(), "nonZeroIpv6Offset");
   add(r.componentTypeMoreThanOnce(), "componentTypeMoreThanOnce");
   return out;
}

// The type of a BGP message (RFC 4271 section 4.1); 0 when it has no header.
std::uint8_t messageType(std::span<std::uint8_t const> message) {
   BgpParsePktPosition pos(message);
   std::uint8_t type = 0;
   if (!pos.consumeData(18) || !pos.consumeU8(&type)) return 0;
   return type;
}

} // namespace

// ---- Session ----

// The plugins as the agent runs them (the flowspec plugin is linked into the tool, so it
// registered when the tool started): their context, and a decoder over the default VRF's
// tables with the rule collections of both flowspec families.
struct UpdateDecodeSession::Impl {
   static Ovk::Ptr<Plugin::Context> startContext() {
      Plugin::Context::Options options;
      options.attributeCacheStatus = Hoard::AttributeCacheStatus::create();
      return Plugin::startPlugins(std::move(options));
   }
   Impl()
       : plugins(startContext()),
         context(Ovk::makePtr<BgpParseContext>(plugins->dedupTablesVrf(BgpL3VrfId::defaultVrfId()), "decode")),
         decoder(context,
                 {.fourOctetAs = true, .detectAsWidth = true, .externalPeer = false, .maxMessageSize = 65535}) {
      for (AfiSafi const family : {AfiSafi::ipv4Flowspec(), AfiSafi::ipv6Flowspec()}) {
         decoder.ruleCollectionsIs(plugins->parseRuleCollections(family), {});
      }
   }
   ~Impl() { plugins->shutdown(); }

   Ovk::Ptr<Plugin::Context> plugins;
   Ovk::Ptr<BgpParseContext> context;
   BgpUpdateDecoder decoder;
};

UpdateDecodeSession::UpdateDecodeSession() : impl_(std::make_unique<Impl>()) {}
UpdateDecodeSession::~UpdateDecodeSession() = default;

BgpUpdateDecoder& UpdateDecodeSession::decoder() { return impl_->decoder; }

json UpdateDecodeSession::nlriJson(BgpParsedNlri const& nlri) const {
   if (auto const* key = dynamic_cast<FlowspecRouteKey const*>(nlri.routeKey.ptr())) {
      return FlowspecTool::nlriJson(*key, nlri.bytes);
   }
   json out = {{"ok", false},
               {"afi", static_cast<int>(nlri.afiSafi.afi())},
               {"nlri", hexOf(nlri.bytes)},
               {"reason", static_cast<int>(nlri.reason)},
               {"message", toStrep(nlri.reason)}};
   auto const collections = impl_->decoder.ruleCollections(nlri.afiSafi);
   auto const* rule =
       collections ? dynamic_cast<FlowspecParseUpdateNlriRule const*>(collections->nlriSubRule({nlri.afiSafi, false}))
                   : nullptr;
   if (!rule) return out;
   // The rule is given again what it was given in the UPDATE, so it fails the same way and
   // says why.
   BgpParsePktPosition pos(nlri.given);
   BgpParsePktPosition* p = &pos;
   auto const again = rule->parse(impl_->context, p, BgpParseUpdateResults::create());
   if (again || again.reason().reason() != nlri.reason) return out;
   return nlriFailureJson(nlri.afiSafi.afi(), nlri.bytes, again.reason());
}

json UpdateDecodeSession::updateJson(BgpParsedUpdate const& u, std::size_t index, MessageOrigin const* origin) const {
   json out = {{"index", index}};
   if (origin) {
      out["timestamp"] = origin->timestamp;
      out["from"] = origin->from;
      out["to"] = origin->to;
   }
   std::optional<AfiSafi> const family = updateFamily(u);
   out["afi"] = family ? json(static_cast<unsigned>(family->afi())) : json(nullptr);
   out["safi"] = family ? json(family->safi()) : json(nullptr);
   out["nextHop"] = u.mpReach.nextHopRead ? json(hexOf(u.mpReach.nextHop)) : json(nullptr);
   BgpParseUpdateAttributesScratchpad const& a = *u.attributes;
   json comms = json::array();
   forEachCommunity(a, *impl_->plugins->parseExtCommRuleCollections(),
                    [&](auto const& c, std::span<std::uint8_t const> b) { comms.push_back(communityJson(c, b)); });
   out["extendedCommunities"] = comms;
   json announced = json::array();
   json withdrawn = json::array();
   std::vector<std::string> refusals(u.nlri.size());
   for (std::size_t i = 0; i < u.nlri.size(); ++i) {
      json n = nlriJson(u.nlri[i]);
      if (!u.nlri[i].routeKey) refusals[i] = n["message"];
      (u.nlri[i].reachable ? announced : withdrawn).push_back(std::move(n));
   }
   out["announced"] = announced;
   out["withdrawn"] = withdrawn;
   json errors = json::array();
   std::size_t refused = 0;
   for (BgpUpdateError const& e : u.errors) {
      // A rule's reason reads as the rule's message for the NLRI it refused, in order.
      std::string ruleMessage;
      json nlri = nullptr;
      if (!*bgpUpdateErrorText(e.reason) && !flowspecAttributeReasonText(e.reason)) {
         while (refused < u.nlri.size() && u.nlri[refused].routeKey) ++refused;
         if (refused < u.nlri.size()) {
            nlri = hexOf(u.nlri[refused].bytes);
            ruleMessage = refusals[refused++];
         }
         if (ruleMessage.empty()) ruleMessage = toStrep(e.reason);
      }
      json err = {{"reason", static_cast<unsigned>(e.reason)},
                  {"name", toStrep(e.reason)},
                  {"message", errorText(e, ruleMessage)},
                  {"action", toStrep(e.action)},
                  {"attribute", e.attributeType ? json(e.attributeType) : json(nullptr)},
                  {"offset", e.offset},
                  {"nlri", nlri}};
      errors.push_back(std::move(err));
   }
   out["errors"] = errors;
   out["outcome"] = toStrep(u.action);
   out["notification"] = u.notification ? json{{"code", u.notification->code},
                                               {"subcode", u.notification->subcode},
                                               {"data", hexOf(u.notification->data)}}
                                        : json(nullptr);
   std::optional<AfiSafi> const eor = u.endOfRib();
   out["endOfRib"] = eor ? json(familyName(*eor)) : json(nullptr);
   json attrs = json::object();
   if (a.origin) attrs["origin"] = originName(*a.origin);
   if (a.asPath.present) attrs["asPath"] = asPathText(a.asPath.value, a.asPathFourOctet);
   if (a.ipv4NextHop) attrs["nextHop"] = a.ipv4NextHop->str();
   if (a.med) attrs["med"] = *a.med;
   if (a.localPref) attrs["localPref"] = *a.localPref;
   if (a.atomicAggregate) attrs["atomicAggregate"] = true;
   if (a.communities.present) attrs["communities"] = communities(a.communities.value);
   out["attributes"] = attrs;
   out["ipv4Announced"] = ipv4Prefixes(u.ipv4Nlri);
   out["ipv4Withdrawn"] = ipv4Prefixes(u.withdrawnRoutes);
   return out;
}

void UpdateDecodeSession::updateText(BgpParsedUpdate const& u, std::size_t index, MessageOrigin const* origin,
                                     std::ostream& out) const {
   // The JSON object holds everything once; the text is a readable rendering of it.
   json const j = updateJson(u, index, origin);
   out << "UPDATE " << index;
   if (origin) out << ' ' << origin->from << " -> " << origin->to;
   std::optional<AfiSafi> const family = updateFamily(u);
   out << ": " << (family ? familyName(*family) : std::string("no multiprotocol family")) << ", " << toStrep(u.action);
   if (!j["endOfRib"].is_null()) out << ", End-of-RIB " << j["endOfRib"].get<std::string>();
   out << '\n';
   if (u.action == BgpUpdateAction::treatAsWithdraw) out << "  every announced rule is taken as withdrawn\n";
   if (u.action == BgpUpdateAction::sessionReset) out << "  nothing of this UPDATE is taken: the session is reset\n";
   if (!j["nextHop"].is_null()) {
      std::string const nh = j["nextHop"];
      out << "  next hop: " << (nh.empty() ? "(empty)" : nh);
      if (Ovk::Ptr<GenNexthop const> const& n = u.attributes->nexthop(); n && !n->addrOrNone().isUnspecified()) {
         out << " (" << n->addrOrNone().str() << ')';
      }
      out << '\n';
   }
   json const& attrs = j["attributes"];
   if (!attrs.empty()) {
      out << "  attributes:";
      for (auto const& [name, value] : attrs.items()) {
         out << ' ' << name << ' ' << (value.is_string() ? value.get<std::string>() : Ovk::jsonText(value));
         out << ';';
      }
      out << '\n';
   }
   forEachCommunity(*u.attributes, *impl_->plugins->parseExtCommRuleCollections(),
                    [&](auto const& c, std::span<std::uint8_t const> b) {
                       out << "  community " << c.toStrep() << " [" << hexOf(b) << "]\n";
                    });
   for (json const& p : j["ipv4Withdrawn"]) out << "  withdraw ipv4 " << p.get<std::string>() << '\n';
   for (json const& p : j["ipv4Announced"]) out << "  announce ipv4 " << p.get<std::string>() << '\n';
   for (auto const* list : {&j["announced"], &j["withdrawn"]}) {
      char const* const verb = list == &j["announced"] ? "announce" : "withdraw";
      for (json const& n : *list) {
         if (!n["ok"].get<bool>()) continue;
         out << "  " << verb << ' ' << n["rule"].get<std::string>();
         if (unsigned const w = n["wontExportReason"]; w != 0) out << "  (not exported: " << wontExportText(w) << ')';
         out << '\n';
      }
   }
   for (json const& e : j["errors"]) {
      out << "  error " << e["reason"].get<unsigned>() << ' ' << e["name"].get<std::string>() << ": "
          << e["message"].get<std::string>();
      if (!e["nlri"].is_null()) out << " in NLRI " << e["nlri"].get<std::string>();
      out << " -> " << e["action"].get<std::string>() << '\n';
   }
   if (u.notification) {
      out << "  notification " << unsigned{u.notification->code} << '/' << unsigned{u.notification->subcode};
      if (!u.notification->data.empty()) out << " data " << hexOf(u.notification->data);
      out << '\n';
   }
}

// ---- The command ----

int decodeUpdates(std::vector<UpdateInput> const& inputs, bool asJson, std::ostream& out, std::ostream& err,
                  UpdateTotals* totalsOut) {
   UpdateDecodeSession session;
   UpdateTotals totals;
   int status = 0;
   auto report = [&](std::span<std::uint8_t const> message, MessageOrigin const* origin) {
      ++totals.messages;
      // Other messages of a capture (OPEN, KEEPALIVE, NOTIFICATION) are not reported; a
      // hex input always is, so that a wrong message says why.
      constexpr std::uint8_t kUpdate = 2;
      if (origin && messageType(message) != kUpdate) return;
      BgpParsedUpdate const& u = session.decoder().decode(message);
      if (!u.errors.empty()) {
         ++totals.notAccepted;
         status = std::max(status, 1);
      }
      if (asJson) {
         out << Ovk::jsonText(session.updateJson(u, totals.messages, origin)) << '\n';
      } else {
         session.updateText(u, totals.messages, origin, out);
      }
   };
   for (UpdateInput const& input : inputs) {
      switch (input.kind) {
      case UpdateInput::Kind::hex: {
         std::string whyNot;
         std::optional<std::vector<std::uint8_t>> const bytes = bytesOfHex(input.value, whyNot);
         if (!bytes) {
            err << "flowspec decode: bad hex in --update (\"" << input.value << "\"): " << whyNot << '\n';
            status = 2;
            continue;
         }
         report(*bytes, nullptr);
         continue;
      }
      case UpdateInput::Kind::mrt:
      case UpdateInput::Kind::pcap: {
         BgpCapture::Stats stats;
         std::string error;
         auto sink = [&](BgpCapture::Message const& m) {
            MessageOrigin const origin{m.timestamp, m.from.str(), m.to.str()};
            report(m.bytes, &origin);
         };
         bool const read = input.kind == UpdateInput::Kind::mrt
                               ? BgpCapture::readMrtFile(input.value, sink, stats, error)
                               : BgpCapture::readPcapFile(input.value, sink, stats, error);
         if (!read) {
            err << "flowspec decode: " << input.value << ": " << error << '\n';
            status = 2;
         } else if (stats.malformed || stats.gaps) {
            err << "flowspec decode: " << input.value << ": " << stats.malformed << " malformed record(s) skipped, "
                << stats.gaps << " TCP stream(s) with bytes missing\n";
         }
         continue;
      }
      }
   }
   // What the decoder counted of the UPDATEs and their rules.
   BgpUpdateDecoderCounters const& counted = session.decoder().counters();
   BgpUpdateDecoderCounters::Family rules;
   for (auto const& [family, f] : counted.families) rules += f;
   totals.updates = counted.messages;
   totals.announced = rules.announced;
   totals.withdrawn = rules.withdrawn;
   totals.refused = rules.refused;
   if (!asJson) {
      out << totals.messages << " message(s), " << totals.updates << " UPDATE(s), " << totals.notAccepted
          << " with errors; " << totals.announced << " rule(s) announced, " << totals.withdrawn << " withdrawn, "
          << totals.refused << " refused\n";
   }
   if (totalsOut) *totalsOut = totals;
   return status;
}

} // namespace FlowspecTool
