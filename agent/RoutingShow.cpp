#include "agent/RoutingShow.h"

#include <sstream>

#include "host/bgp/UnicastRouteKey.h"

namespace Flowspecd {

namespace {

nlohmann::json refusalCounts(ImportRefusalCounts const& counts) {
   nlohmann::json j = nlohmann::json::object();
   for (ImportRefusal const r : allImportRefusals()) j[toStrep(r)] = counts[static_cast<std::size_t>(r)];
   return j;
}

} // namespace

nlohmann::json updatesJson(BgpRouting const& routing) {
   nlohmann::json neighbors = nlohmann::json::array();
   for (auto const& [address, v] : routing.peers()) {
      nlohmann::json outcomes;
      for (BgpUpdateAction const a : {BgpUpdateAction::accept, BgpUpdateAction::attributeDiscard,
                                      BgpUpdateAction::treatAsWithdraw, BgpUpdateAction::sessionReset}) {
         outcomes[toStrep(a)] = v.counters.action(a);
      }
      nlohmann::json families = nlohmann::json::object();
      for (auto const& [family, f] : v.counters.families) {
         auto const rules = v.received.find(family);
         auto const ribin = v.ribin.find(family);
         families[familyName(family)] = {
             {"updates", f.updates},
             {"announced", f.announced},
             {"withdrawn", f.withdrawn},
             {"refused", f.refused},
             {"withdrawnUnknown", ribin == v.ribin.end() ? 0 : ribin->second.unknownWithdrawals},
             {"rules", rules == v.received.end() ? 0 : rules->second},
             {"importRefused", refusalCounts(ribin == v.ribin.end() ? ImportRefusalCounts{} : ribin->second.refused)}};
      }
      nlohmann::json reasons = nlohmann::json::object();
      for (auto const& [reason, n] : v.counters.reasons) reasons[toStrep(reason)] = n;
      neighbors.push_back({{"address", address.str()},
                           {"messages", v.counters.messages},
                           {"outcomes", outcomes},
                           {"families", families},
                           {"reasons", reasons}});
   }
   return {{"neighbors", neighbors}};
}

nlohmann::json importJson(BgpRouting::PeerView const& view) {
   nlohmann::json families = nlohmann::json::object();
   for (auto const& [family, c] : view.ribin) {
      families[familyName(family)] = {{"refused", refusalCounts(c.refused)},
                                      {"refusedTotal", c.refusedTotal()},
                                      {"limitWarnings", c.limitWarnings},
                                      {"limitExceeded", c.limitExceeded}};
   }
   return families;
}

nlohmann::json refusedJson(BgpRouting const& routing, Ovnet::IpGenAddr const& neighbor) {
   nlohmann::json families = nlohmann::json::object();
   for (auto const& [family, view] : routing.refused(neighbor)) {
      nlohmann::json rules = nlohmann::json::array();
      for (AdjRibin::Refused const& r : view.rules) {
         rules.push_back({{"rule", r.key->displayText()},
                          {"reason", toStrep(r.reason)},
                          {"reasonText", importRefusalText(r.reason)},
                          {"actions", ruleActionsOf(r.attrs->contents()).actions.names()}});
      }
      families[familyName(family)] = {{"rules", rules}, {"notKept", view.notKept}};
   }
   return {{"neighbor", neighbor.str()}, {"families", families}};
}

nlohmann::json unicastJson(BgpRouting const& routing, std::string_view request, std::size_t limit) {
   // request: "ipv4" or "ipv6", then an optional prefix.
   std::size_t const space = request.find(' ');
   std::string_view const family = request.substr(0, space);
   std::string_view const prefixText = space == std::string_view::npos ? std::string_view() : request.substr(space + 1);
   bool const v6 = family == "ipv6";
   if (!v6 && family != "ipv4") return {{"error", "show unicast ipv4|ipv6 [PREFIX]"}};
   AfiSafi const afiSafi = v6 ? kIpv6Unicast : kIpv4Unicast;
   std::optional<Ovnet::IpGenPrefix> prefix;
   if (!prefixText.empty()) {
      prefix = Ovnet::IpGenPrefix::parse(prefixText);
      if (!prefix || (prefix->af() == Ovnet::AddressFamily::ipv6) != v6) {
         return {{"error", "not an " + std::string(family) + " prefix: " + std::string(prefixText)}};
      }
      prefix->clearLowerAddrBits();
   }
   Ovk::Ptr<RibTable> const table = routing.ribTable(afiSafi);
   RuleValidation const* const validation = routing.validation();
   nlohmann::json out = {{"family", familyName(afiSafi)}, {"routes", table ? table->routes() : 0}};
   if (validation) {
      auto const& c = validation->counters();
      out["validation"] = {{"rules", validation->rules()},
                           {"judged", c.judged},
                           {"unicastChanges", c.unicastChanges},
                           {"revalidated", c.revalidated},
                           {"bytes", validation->bytes()}};
   }
   nlohmann::json entries = nlohmann::json::array();
   bool truncated = false;
   auto const entry = [&](RouteKey const& key) {
      std::optional<RibPath> const best = table->bestPath(key);
      if (!best) return;
      std::size_t paths = 0;
      table->forEachPath(key, [&](RibPath const&) { ++paths; });
      std::ostringstream text;
      key.formatWithoutVrf(text);
      entries.push_back({{"prefix", text.str()},
                         {"from", table->sources().peer(best->source).address.str()},
                         {"asPath", best->contents().asPathText()},
                         {"paths", paths}});
   };
   if (table && prefix) {
      RouteKey const* const match = validation ? validation->bestMatch(*prefix) : nullptr;
      if (match) {
         std::ostringstream text;
         match->formatWithoutVrf(text);
         out["bestMatch"] = text.str();
      } else {
         out["bestMatch"] = nullptr;
      }
      // The routes inside PREFIX follow it in the table's order (address, then length).
      Ovk::Ptr<UnicastRouteKey> const probe = unicastRouteKeyFactory(*prefix);
      for (auto it = table->order().lowerBound(*probe); it != table->order().end(); ++it) {
         auto const& k = static_cast<UnicastRouteKey const&>(**it);
         if (!prefix->contains(k.prefix())) break;
         if (entries.size() >= limit) {
            truncated = true;
            break;
         }
         entry(k);
      }
   } else if (table) {
      for (RouteKey const* k : table->order()) {
         if (entries.size() >= limit) {
            truncated = true;
            break;
         }
         entry(*k);
      }
   }
   out["shown"] = entries.size();
   out["truncated"] = truncated;
   out["entries"] = std::move(entries);
   return out;
}

nlohmann::json summaryJson(BgpRouting const& routing) {
   Plugin::Context const& context = routing.context();
   nlohmann::json vrfs = nlohmann::json::array();
   for (auto const& [vrfId, vrf] : context.allVrfInstanceStatus()) {
      nlohmann::json families = nlohmann::json::object();
      for (auto const& [family, table] : vrf->ribTables()) {
         nlohmann::json f = {{"rules", table->routes()}, {"paths", table->paths()}, {"indexBytes", table->bytes()}};
         if (auto sm = context.routeConfigSm(ForwardingTarget::flowspec, vrfId, family)) {
            auto const& c = sm->exportCounters();
            f["fsib"] = {{"added", c.added},
                         {"replaced", c.replaced},
                         {"deleted", c.deleted},
                         {"refusedFull", c.refusedFull},
                         {"displaced", c.displaced},
                         {"refilled", c.refilled},
                         {"notExportable", c.notExportable}};
         }
         families[familyName(family)] = f;
      }
      vrfs.push_back({{"name", vrf->name()}, {"id", vrfId.value()}, {"families", families}});
   }
   return {{"vrfs", vrfs},
           {"attributeSets", context.rtAttrDedupTable()->size()},
           {"attributeSetsBuilt", routing.attributeSetsBuilt()},
           {"attributeSetsReused", routing.attributeSetsReused()}};
}

} // namespace Flowspecd
