#include "agent/RoutingShow.h"

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
