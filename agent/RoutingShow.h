// The JSON of `show updates` and `show summary`, from the agent's routing.
#pragma once

#include <nlohmann/json.hpp>

#include "agent/BgpRouting.h"

namespace Flowspecd {

// "show updates": {"neighbors": [{"address", "messages", "outcomes": {"accept",
// "attribute-discard", "treat-as-withdraw", "session-reset"}, "families": {"ipv4-flowspec":
// {"updates", "announced", "withdrawn", "refused", "withdrawnUnknown", "rules"}}, "reasons":
// {name: count}}]}, neighbors in address order.
nlohmann::json updatesJson(BgpRouting const& routing);

// "show summary": {"vrfs": [{"name", "id", "families": {"ipv4-flowspec": {"rules", "paths",
// "indexBytes", "fsib": {"added", "replaced", "deleted", "refusedFull", "displaced",
// "refilled", "notExportable"}}}}], "attributeSets", "attributeSetsBuilt",
// "attributeSetsReused"}.
nlohmann::json summaryJson(BgpRouting const& routing);

} // namespace Flowspecd
