// Flowspec NLRI to and from JSON and readable lines: what `flowspec decode` and `flowspec
// encode` print. Decoding goes through the plugin's real NLRI parse rule and a real route-key
// dedup table; encoding reads rule text into a route key and writes its NLRI.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/fwk/String.h"
#include "BgpFlowspec/FlowspecParseNlri.h"

namespace FlowspecTool {

using Json = nlohmann::ordered_json;

using Ovk::hexOf;
// Hex digits (upper or lower case, with an optional "0x", white space anywhere); empty, with
// `whyNot` set, on anything else.
std::optional<std::vector<std::uint8_t>> bytesOfHex(std::string_view text, std::string& whyNot);

// Reads NLRI of one family through the parse rule, each as the whole NLRI field of one
// attribute (the rule reads one NLRI from it; what follows is reported as trailing).
class NlriDecoder {
 public:
   explicit NlriDecoder(Routing::Bgp::Afi afi);
   ~NlriDecoder();
   NlriDecoder(NlriDecoder const&) = delete;
   NlriDecoder& operator=(NlriDecoder const&) = delete;

   // On success: "ok": true, "afi", "rule", "detail", "wontExportReason", "destPrefix",
   // "srcPrefix" (text or null), "destPrefixOffset", "srcPrefixOffset", "components" (each
   // "type", "name", "opValuePairs"), "unrecognizedTail", "nlri", "reencoded", and
   // "trailing" when bytes follow the NLRI. On failure: "ok": false, "afi", "nlri", "reason"
   // (the parse count reason) and "message".
   Json decode(std::span<std::uint8_t const> nlriField) const;

 private:
   Routing::Bgp::Afi afi_;
   Ovk::Ptr<Routing::Bgp::DedupTablesVrf> vrfTables_;
   Ovk::Ptr<Routing::Bgp::BgpParseContext> context_;
   Ovk::Ptr<Routing::Bgp::FlowspecPlugin::FlowspecParseUpdateNlriRule> rule_;
   Ovk::Ptr<Routing::Bgp::BgpParseUpdateResults> results_;
};

// The object of NlriDecoder::decode for a key read from `nlri` (without "trailing"), and
// for an NLRI the rule refused; UPDATE reports list their NLRI this way too.
Json nlriJson(Routing::Bgp::FlowspecPlugin::FlowspecRouteKey const& key, std::span<std::uint8_t const> nlri);
Json nlriFailureJson(Routing::Bgp::Afi afi, std::span<std::uint8_t const> nlri,
                     Routing::Bgp::FlowspecPlugin::FlowspecNlriParseFailure const& failure);

// "ok": true, "afi", "text", "nlri"; or "ok": false, "afi", "text", "message".
Json encodeRule(Routing::Bgp::Afi afi, std::string_view text);

// One readable line of a decode or encode result.
std::string decodedLine(Json const& decoded);
std::string encodedLine(Json const& encoded);

} // namespace FlowspecTool
