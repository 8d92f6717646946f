// Flowspec paths of the controllers' gRPC API (agent/api/gobgp.proto) and the agent's rules.
//
// A path the API adds or deletes becomes the words of `flowspec rule add`: the family, the
// match as rule text (docs/rule-grammar.md) and the actions (agent/OriginatedRule.h), so that
// it is checked and refused exactly as the command line's rule is. The NLRI is a FlowSpecNLRI
// message in Path.nlri (or, without one, in the MP_REACH attribute): prefixes and components
// with their operator/value items; the actions are the flowspec extended communities of the
// path's extended-community attributes:
//
//   TrafficRateExtended (AS 0)            rate 0: "discard"; else "rate-limit RATE"
//   TrafficActionExtended                 "sample", "terminal"
//   TrafficRemarkExtended                 "mark DSCP"
//   Redirect{TwoOctetAs,IPv4Address,FourOctetAs}SpecificExtended   "redirect-vrf RT"
//   IPv4AddressSpecificExtended 0x0c, IPv6AddressSpecificExtended 0x0c   "redirect-ip ADDR [copy]"
//   UnknownExtended type 0x08 subtype 0  "redirect-nexthop [NEXT-HOP]"
//
// Any other community, an NLRI the agent cannot write as rule text (a MAC component, an IPv6
// prefix offset, a value wider than 32 bits), an unknown family or a malformed message is
// refused with a reason. Decoding never throws: a message that does not parse is a refusal.
//
// The other way, the best path of a rule becomes a Path for ListPath: the NLRI as such a
// message, ORIGIN, AS_PATH, MP_REACH with the next hop, MED, LOCAL_PREF, communities and the
// extended communities (flowspec kinds as their own messages, route targets as the
// address-specific ones, others as UnknownExtended).
//
// Every Any the agent writes names its type in the package the caller dialled ("apipb" for
// the v3 service, "gobgpapi" for the older name); types are read under either.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/api/gobgp.pb.h"
#include "agent/Config.h"
#include "agent/OriginatedRule.h"
#include "host/bgp/AfiSafi.h"
#include "host/bgp/PathAttributes.h"
#include "host/fwk/Result.h"

namespace Flowspecd::Api {

// The gRPC status a refusal is answered with.
enum class Code : std::uint8_t { invalidArgument, notFound, unimplemented, unavailable, failedPrecondition };

struct Refusal {
   Code code = Code::invalidArgument;
   std::string message;
};

// The package an Any's type URL names for the caller: "apipb" or "gobgpapi".
struct Dialect {
   std::string_view package = "apipb";
};

// The words of a rule, as `flowspec rule add` gives them to the agent.
struct RuleWords {
   AfiSafi family;
   std::string match;               // rule text of the NLRI (canonical, as the key prints it)
   std::vector<std::string> then;   // one action per community
   bool withdraw = false;           // the path's is_withdraw
};

// ipv4-flowspec or ipv6-flowspec; a refusal naming the family otherwise.
Ovk::Result<AfiSafi, Refusal> familyOf(apipb::Family const& family);
apipb::Family apiFamilyOf(AfiSafi family);

// The rule of an AddPath or DeletePath path. `family` is the request's when it names one (a
// DeletePath's), else the path's own. `withActions` false reads the NLRI only (a deletion).
Ovk::Result<RuleWords, Refusal> ruleOfPath(apipb::Path const& path, std::optional<AfiSafi> family, bool withActions);

// The NLRI message of a rule key (its operator bytes without the end-of-list and length
// bits, which the writer sets), and the Destination.prefix text: the rule text.
apipb::FlowSpecNLRI nlriOf(Flowspec::FlowspecKey const& key, Dialect dialect);

// The path attributes of a RIB path as the API carries them, in attribute type order.
void attributesOf(PathAttributesContents const& attrs, AfiSafi family, apipb::FlowSpecNLRI const& nlri,
                  Dialect dialect, google::protobuf::RepeatedPtrField<google::protobuf::Any>& out);

// Packs `message` into `any` under the dialect's package.
void pack(google::protobuf::Any& any, google::protobuf::Message const& message, Dialect dialect);
// The type name an Any carries without its package ("FlowSpecNLRI"), or empty when its URL
// names neither package.
std::string_view typeOf(google::protobuf::Any const& any);

} // namespace Flowspecd::Api
