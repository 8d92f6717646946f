#include "agent/RoutingShow.h"

namespace Flowspecd {

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
             {"rules", rules == v.received.end() ? 0 : rules->second}};
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
