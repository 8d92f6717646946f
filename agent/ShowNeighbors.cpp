#include "agent/ShowNeighbors.h"

namespace Flowspecd {

namespace {

nlohmann::json familyList(std::vector<AfiSafi> const& families) {
   auto list = nlohmann::json::array();
   for (auto const f : families) list.push_back(familyName(f));
   return list;
}

nlohmann::json familyCounts(std::map<AfiSafi, std::uint64_t> const& counts) {
   auto obj = nlohmann::json::object();
   for (auto const& [f, n] : counts) obj[familyName(f)] = n;
   return obj;
}

// What the neighbor may import, as configured: null for each thing not limited.
nlohmann::json importPolicyJson(NeighborConfig const& n) {
   nlohmann::json j;
   j["name"] = n.importPolicy.empty() ? nlohmann::json(nullptr) : nlohmann::json(n.importPolicy);
   if (n.policy.destinations) {
      j["allowedDestinations"] = nlohmann::json::array();
      for (PrefixRange const& r : *n.policy.destinations) j["allowedDestinations"].push_back(r.str());
   } else {
      j["allowedDestinations"] = nullptr;
   }
   j["allowedActions"] = n.policy.actions ? nlohmann::json(n.policy.actions->names()) : nlohmann::json(nullptr);
   j["minimumRate"] = n.policy.minimumRate ? nlohmann::json(*n.policy.minimumRate) : nlohmann::json(nullptr);
   if (n.maxRules) {
      j["maxRules"] = {{"limit", n.maxRules->maxRules},
                       {"action", toStrep(n.maxRules->action)},
                       {"restartSeconds", n.maxRules->restartSeconds},
                       {"warningPercent", n.maxRules->warningPercent}};
   } else {
      j["maxRules"] = nullptr;
   }
   return j;
}

std::string idText(std::uint32_t id) {
   if (id == 0) return "";
   return Ovnet::IpGenAddr::ipv4(id).str();
}

} // namespace

nlohmann::json neighborJson(NeighborStatus const& s) {
   auto const& c = s.counters;
   nlohmann::json j;
   j["address"] = s.config.address.str();
   j["port"] = s.config.port;
   j["remoteAs"] = s.config.remoteAs;
   j["description"] = s.config.description;
   j["passive"] = s.config.passive;
   j["state"] = stateName(s.state);
   j["uptimeSeconds"] = s.uptimeSeconds;
   j["lastError"] = s.lastError;
   j["idleHoldSeconds"] = s.idleHoldSeconds;
   j["messagesIn"] = c.messagesIn;
   j["messagesOut"] = c.messagesOut;
   j["updatesIn"] = c.updatesIn;
   j["updatesOut"] = c.updatesOut;
   j["keepalivesIn"] = c.keepalivesIn;
   j["keepalivesOut"] = c.keepalivesOut;
   j["notificationsIn"] = c.notificationsIn;
   j["notificationsOut"] = c.notificationsOut;
   j["routeRefreshesIn"] = c.routeRefreshesIn;
   j["routeRefreshesOut"] = c.routeRefreshesOut;
   j["connectionsRefused"] = c.connectionsRefused;
   j["establishedTransitions"] = c.establishedTransitions;
   j["families"] = familyList(s.negotiated.families);
   j["configuredFamilies"] = familyList(s.config.families);
   j["capabilities"] = capabilityNames(s.negotiated);
   j["holdTime"] = s.negotiated.holdTime;
   j["keepaliveTime"] = s.negotiated.keepaliveTime;
   j["remoteRouterId"] = idText(s.remoteRouterId);
   j["localEndpoint"] = s.localEndpoint ? nlohmann::json(s.localEndpoint->str()) : nlohmann::json(nullptr);
   j["remoteEndpoint"] = s.remoteEndpoint ? nlohmann::json(s.remoteEndpoint->str()) : nlohmann::json(nullptr);
   // RFC 4724: the peer's graceful-restart capability, as the session negotiated it.
   if (auto const& gr = s.negotiated.peerGracefulRestart) {
      nlohmann::json families = nlohmann::json::object();
      for (auto const& f : gr->families) families[familyName(f.family)] = {{"forwardingPreserved", f.forwardingPreserved}};
      j["peerGracefulRestart"] = {{"restartTime", gr->restartTime},
                                  {"restarting", gr->restarting},
                                  {"notification", s.negotiated.gracefulNotification},
                                  {"families", families}};
   } else {
      j["peerGracefulRestart"] = nullptr;
   }
   j["familyUpdatesIn"] = familyCounts(c.familyUpdatesIn);
   j["tcpMd5"] = !s.config.password.empty(); // the password itself is never shown
   j["ttlSecurity"] = s.config.ttlSecurity ? nlohmann::json(s.config.ttlSecurityHops) : nlohmann::json(nullptr);
   j["importPolicy"] = importPolicyJson(s.config);
   j["endOfRibIn"] = familyCounts(c.endOfRibIn);
   return j;
}

nlohmann::json neighborsJson(std::vector<NeighborStatus> const& all) {
   auto list = nlohmann::json::array();
   for (auto const& s : all) list.push_back(neighborJson(s));
   return nlohmann::json{{"neighbors", std::move(list)}};
}

} // namespace Flowspecd
