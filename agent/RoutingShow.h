// The JSON of `show updates` and `show summary`, from the agent's routing.
#pragma once

#include <nlohmann/json.hpp>

#include "agent/BgpRouting.h"

namespace Flowspecd {

// "show updates": {"neighbors": [{"address", "messages", "outcomes": {"accept",
// "attribute-discard", "treat-as-withdraw", "session-reset"}, "families": {"ipv4-flowspec":
// {"updates", "announced", "withdrawn", "refused", "withdrawnUnknown", "rules",
// "importRefused": {reason: count}}}, "reasons": {name: count}}]}, neighbors in address
// order. "refused" counts the NLRI the decoder refused; "importRefused" the rules import
// refused, per reason (host/bgp/ImportPolicy.h: every reason, 0 included).
nlohmann::json updatesJson(BgpRouting const& routing);

// What one neighbor's imports did, per family: {"ipv4-flowspec": {"refused": {reason:
// count}, "refusedTotal", "limitWarnings", "limitExceeded"}} (the "import" of each neighbor of
// "show neighbors").
nlohmann::json importJson(BgpRouting::PeerView const& view);

// "show refused ADDRESS": the rules the neighbor's current session sent that import refused
// and kept aside, per family in rule order: {"neighbor", "families": {"ipv4-flowspec":
// {"rules": [{"rule", "reason", "reasonText", "actions": [...]}], "notKept"}}}.
nlohmann::json refusedJson(BgpRouting const& routing, Ovnet::IpGenAddr const& neighbor);

// "show summary": {"vrfs": [{"name", "id", "families": {"ipv4-flowspec": {"rules", "paths",
// "indexBytes", "fsib": {"added", "replaced", "deleted", "refusedFull", "displaced",
// "refilled", "notExportable"}}}}], "attributeSets", "attributeSetsBuilt",
// "attributeSetsReused"}.
nlohmann::json summaryJson(BgpRouting const& routing);

// "show unicast ipv4|ipv6 [PREFIX]": the unicast routes validation reads, in prefix order:
// every route from the first (at most `limit`), or with PREFIX its best match and the routes
// inside it. {"family", "routes", "shown", "truncated", "validation": {"rules", "judged",
// "unicastChanges", "revalidated", "bytes"}, "bestMatch": prefix or null (with PREFIX),
// "entries": [{"prefix", "from", "asPath", "paths"}]}; {"error"} for a bad request.
nlohmann::json unicastJson(BgpRouting const& routing, std::string_view request, std::size_t limit = 1000);

} // namespace Flowspecd
