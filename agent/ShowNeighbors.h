// The answer to "show neighbors": one JSON object {"neighbors": [...]}, an entry per
// configured neighbor in configuration order. Every entry carries
//   "address", "port", "remoteAs", "description", "passive",
//   "state" (RFC 4271 name), "uptimeSeconds" (0 unless Established),
//   "lastError" ("" until something went wrong),
//   "messagesIn", "messagesOut", "updatesIn", "updatesOut", "keepalivesIn",
//   "keepalivesOut", "notificationsIn", "notificationsOut", "routeRefreshesIn",
//   "establishedTransitions",
//   "families" (negotiated: "ipv4-flowspec", "ipv6-flowspec"), "configuredFamilies",
//   "capabilities" (negotiated: "multiprotocol", "route-refresh", "four-octet-as"),
//   "holdTime", "keepaliveTime" (negotiated; 0 unless Established),
//   "remoteRouterId" ("" unless Established), "localEndpoint", "remoteEndpoint"
//   ("ADDR:PORT" of the current connection, or null),
//   "familyUpdatesIn" and "endOfRibIn" (objects from family name to count),
//   "routeRefreshesOut", "connectionsRefused" (closed before the FSM: ttl-security),
//   "idleHoldSeconds" (left of a hold in Idle after a rule limit's teardown; 0: none),
//   "tcpMd5" (true when a password is set; the password is never shown), "ttlSecurity"
//   (the hops, or null), "importPolicy" ({"name", "allowedDestinations", "allowedActions",
//   "minimumRate", "maxRules": {"limit", "action", "restartSeconds", "warningPercent"}}, each
//   null when not limited), "peerGracefulRestart" (null, or {"restartTime", "restarting",
//   "notification" (the N bit on both sides), "families": {NAME: {"forwardingPreserved"}}}).
// The agent adds, from its routing (objects from family name to count): "rulesReceived",
// "rulesAccepted", "fsibRefusals", "import" (RoutingShow.h importJson), and what the
// RIB-outs sent over all sessions: "familyUpdatesOut" (UPDATEs, End-of-RIB aside),
// "rulesSent" (NLRI announced) and "rulesAdvertised" (rules the current session holds from
// us), "endOfRibOut", and "gracefulRestart": {NAME: {"state" (live, restarting,
// waiting-end-of-rib), "stalePaths", "timer" (null, "restart-time" or "stale-routes-time"),
// "secondsLeft", "stalePathsRemoved", "gracefulRestarts"}} for the families graceful restart
// touched; and beside "neighbors", "strangersClosed": connections from addresses that are no
// neighbor, closed at once, and "restart": {"restarting", "converged", "forwardingKept",
// "waitingFor", "deferralSecondsLeft"}, the agent's own restart.
#pragma once

#include <nlohmann/json.hpp>
#include <vector>

#include "agent/Neighbor.h"

namespace Flowspecd {

nlohmann::json neighborJson(NeighborStatus const& s);
nlohmann::json neighborsJson(std::vector<NeighborStatus> const& all);

} // namespace Flowspecd
