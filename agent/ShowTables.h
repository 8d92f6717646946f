// The show commands served from the plugins' row tables (host/ovrow), streamed.
//
// Requests are one JSON object on the request line:
//   {"show": "flowspec", "family": "ipv4"|"ipv6", "format": "text"|"json",
//    "from": RULE, "dest": PREFIX, "limit": N}             the rules in rule order
//   {"show": "flowspec-rule", "family", "format", "rule": RULE}      one rule
//   {"show": "flowspec-advertised", "family", "format", "neighbor": ADDR, "rule": RULE}
//                                                           what the neighbor was sent
// The answer starts with a status line, {"status": 0} or {"status": N, "error": TEXT} (1:
// the request names what is not there or rule text that does not parse; 2: a usage error,
// such as an unknown neighbor or family), followed, on status 0, by the rows as the row
// library renders them (an aligned text table, or {"rules": [...]} / {"advertised": [...]}).
// Rows are rendered as the walk goes, a chunk at a time; between chunks the agent serves
// everything else, and the walk finds its place again in a table that may have changed.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <memory>
#include <string>
#include <string_view>

#include "agent/ControlSocket.h"
#include "host/net/IpGenAddr.h"
#include "host/plugin/Plugin.h"

namespace Flowspecd {

// True for a request ShowTables answers (a JSON object naming one of its shows).
bool isShowTableRequest(std::string_view request);

// The stream answering `request`. `knownNeighbor` says whether an address is a configured
// neighbor. Rows are rendered into chunks of about `chunkBytes`.
std::unique_ptr<ControlStream> showTableStream(Ovk::Ptr<Routing::Bgp::Plugin::Context> const& context,
                                               std::string_view request,
                                               std::function<bool(Ovnet::IpGenAddr const&)> const& knownNeighbor,
                                               std::size_t chunkBytes = 64 * 1024);

// The peer summary's labels of each family whose plugin gives them (hook 17):
// {"ipv4-flowspec": {"received": "RulesRcd", "accepted": "RulesAcc"}, ...}.
nlohmann::json summaryLabelsJson(Routing::Bgp::Plugin::Context const& context);

} // namespace Flowspecd
