// The flowspec NLRI parse rule.
//
// The host's UPDATE parser calls FlowspecParseUpdateNlriRule once per NLRI of an IPv4 or IPv6
// flowspec MP_REACH_NLRI / MP_UNREACH_NLRI attribute. The rule reads one NLRI (RFC 8955
// section 4, RFC 8956 section 3) from the packet position, builds its FlowspecRouteKey and
// interns it in the route-key dedup table of the parse context's VRF and family.
//
// A malformed NLRI is counted on the UPDATE's results under a parse count reason (215 to
// 227), traced at level 3, and answered with an empty return; the position stays where the
// failure was found. A rule that parses but that forwarding cannot honour is returned with
// a FlowspecWontExportReason bit set: a repeated component type, an IPv6 prefix offset, or
// a component type it does not know (whose bytes, to the end of the NLRI, are kept as the
// unrecognised tail).
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

#include "BgpFlowspec/FlowspecNexthop.h"
#include "BgpFlowspec/FlowspecRouteKey.h"
#include "host/bgp/AfiSafi.h"
#include "host/bgp/BgpParse.h"
#include "host/bgp/BgpParseRules.h"
#include "host/fwk/Ptr.h"
#include "host/fwk/Result.h"

namespace Routing::Bgp::FlowspecPlugin {

// Why an NLRI could not be read, with the numbers its message names. The message is built
// only when asked for.
class FlowspecNlriParseFailure {
 public:
   enum class Kind : std::uint8_t {
      nlriLength,            // 215 "not enough data for NLRI length"
      nlriLengthAddend,      // 215 "not enough data for NLRI length addend"
      nlriLenAboveBytesLeft, // 216 "encoded nlriLen (a) > bytesLeft (b)"
      componentPastNlriLen,  // 216 "parsing component a required consuming b more byte(s) than nlriLen"
      componentType,         // 217 "not enough data for NLRI component type"
      componentTypeZero,     // 218 "invalid component type (a"
      componentTypeOrder,    // 219 "component type a appeared after b"
      prefixMask,            // 220 "not enough data for prefix mask length"
      prefixOffset,          // 221 "not enough data for IPv6 prefix offset"
      prefixOffsetAboveMask, // 222 "not sensible for offset to be greater than mask"
      prefixMaskTooLong,     // 223 "could not parse prefix: invalid masklength "
      prefixPattern,         // 223 "could not parse prefix: not enough data "
      componentOp,           // 224 "not enough data for component op"
      componentValue,        // 225 "not enough data for component value"
      valueTooLong,          // 226 "value has too many bytes a for type b"
      ipv6FragmentDf,        // 227 "IPv6 nlri fragment: DF bit is 1, but MUST be 0"
      // Not an NLRI's: the MP_REACH_NLRI next hop the next-hop rule reads.
      nexthopShort, // 228 "Could not read next-hop data: it runs past the attribute"
   };

   explicit FlowspecNlriParseFailure(Kind kind, std::uint32_t a = 0, std::uint32_t b = 0) noexcept
       : kind_(kind), a_(a), b_(b) {}

   Kind kind() const noexcept { return kind_; }
   BgpParseCountReason reason() const noexcept;
   std::string message() const;

 private:
   Kind kind_;
   std::uint32_t a_;
   std::uint32_t b_;
};

// The text of a reason the plugin counts for the attribute rather than for one NLRI (the next
// hop's, 228); null for the NLRI's reasons, whose texts are their failures' messages.
char const* flowspecAttributeReasonText(BgpParseCountReason reason);

class FlowspecParseUpdateNlriRule : public BgpParseUpdateNlriRuleBase {
 public:
   // `afiSafi` gives the family: AFI 1 is IPv4, any other IPv6.
   FlowspecParseUpdateNlriRule(BgpParseControl const& parseControl, AfiSafi afiSafi)
       : parseControl_(parseControl), afiSafi_(afiSafi) {}

   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;

   BgpParseControl const& parseControl() const { return parseControl_; }
   AfiSafi afiSafi() const { return afiSafi_; }

   // Reads one NLRI from `position` (whose end is the end of the attribute's NLRI field):
   // the interned key, with a null results pointer and no treat-as-unreach; or, for a
   // malformed NLRI, a reason counted on `results` and an empty return. `reachable` does
   // not change the parse. The parse context's VRF must have this family's route-key dedup
   // table (assertion "routeKeyDedupTable != nullptr").
   BgpParseUpdateNlriReturn inhale(Ovk::Ptr<BgpParseContext> const& parseContext, BgpParsePktPosition* const& position,
                                   bool reachable, Ovk::Ptr<BgpParseUpdateResults> const& results) const override;

   // RFC 8955 section 4.1: the size of the NLRI at `position`, its length field included;
   // nothing when the length field is cut short or claims more than is left.
   std::optional<std::size_t> nlriExtent(BgpParsePktPosition const& position) const override;

   // inhale, giving the failure instead of an empty return. Counts and traces the same.
   Ovk::Result<FlowspecRouteKey::PtrConst, FlowspecNlriParseFailure> parse(
       Ovk::Ptr<BgpParseContext> const& parseContext, BgpParsePktPosition* const& position,
       Ovk::Ptr<BgpParseUpdateResults> const& results) const;

 protected:
   ~FlowspecParseUpdateNlriRule() override = default;

 private:
   RouteKeyDedupTableBase const* routeKeyDedupTable(BgpParseContext& parseContext) const;

   BgpParseControl parseControl_;
   AfiSafi afiSafi_;
};

// Reads one value of `numBytes` bytes (1, 2, 4 or 8), most significant first; false when the
// packet is short.
bool consumeOpValValue(BgpParsePktPosition* const& position, std::uint8_t numBytes, std::uint64_t* value);

// Keeps the rest of the NLRI, from the type byte at `typeBytePosition` (already read) to where
// `remainingOtherNlriLen` bytes are left, as the unrecognised tail of `body`, and consumes it.
void doUnrecognizedTail(BgpParseContext const& parseContext, BgpParsePktPosition* const& position,
                        std::uint8_t componentType, BytePtrConst typeBytePosition, std::size_t remainingOtherNlriLen,
                        FlowspecRouteKeyBody& body);

// ---- The next-hop rule and the parse plugin state machine ----

// The sub-rule for the next-hop field of a flowspec MP_REACH_NLRI. Flowspec routes are not
// forwarded to their next hop, so any content is accepted: nothing, an IPv4 address in the
// IPv4 family, an IPv6 address in the IPv6 family, and anything else as opaque bytes (a
// 32-byte IPv6 field with a link-local address too: there is deliberately no link-local
// handling). The field becomes one deduplicated FlowspecGenNexthop, shared by every UPDATE
// with the same content, in the scratchpad's next-hop field.
class FlowspecParseUpdateNextHopRule : public BgpParseUpdateAttributeMpReachNlriNextHopRuleBase {
 public:
   // `afiSafi` gives the family: AFI 1 is IPv4, 2 IPv6.
   FlowspecParseUpdateNextHopRule(BgpParseControl const& parseControl, AfiSafi afiSafi)
       : parseControl_(parseControl), afiSafi_(afiSafi) {}

   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;

   BgpParseControl const& parseControl() const { return parseControl_; }
   AfiSafi afiSafi() const { return afiSafi_; }

   // Reads the whole field: `position`'s bytesLeft() is its declared length. Stores the
   // next hop in the scratchpad (the table's shared empty next hop for an empty field) and
   // returns noError. When the packet holds fewer bytes than declared: counts reason 228
   // on the scratchpad's results, leaves the scratchpad's next hop as it was and returns
   // optionalAttributeError (9). The parse context's VRF must have this family's next-hop
   // dedup table (assertion "nexthopDedupTable != nullptr").
   BgpNotificationErrorUpdateMessageSubcode inhale(
       Ovk::Ptr<BgpParseContext> const& parseContext, BgpParsePktPosition* const& position,
       Ovk::Ptr<BgpParseUpdateAttributesScratchpad> const& scratchpad) const override;

 protected:
   ~FlowspecParseUpdateNextHopRule() override = default;

 private:
   GenNexthopDedupTableBase const* nexthopDedupTable(BgpParseContext& parseContext) const;

   BgpParseControl parseControl_;
   AfiSafi afiSafi_;
};

// Joins the plugin to the UPDATE parser for one flowspec family: for every rule instance in
// the family's rule collections it registers a FlowspecParseUpdateNlriRule (UPDATE message
// rules) or a FlowspecParseUpdateNextHopRule (MP_REACH_NLRI next-hop rules). The rules it
// creates parse its own family, whatever the rule key names.
class FlowspecParsePluginSm : public BgpParsePluginBaseSm {
 public:
   // Serves the rule instances already in `ruleCollections` before returning.
   FlowspecParsePluginSm(Ovk::Ptr<BgpParseRuleCollections const> ruleCollections, AfiSafi afiSafi);
   // The factory: constructs, switches notification on and returns the first reference.
   static Ovk::Ptr<FlowspecParsePluginSm> FlowspecParsePluginSmIs(
       Ovk::Ptr<BgpParseRuleCollections const> ruleCollections, AfiSafi afiSafi);

   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;

   AfiSafi afiSafi() const { return afiSafi_; }

   void hasNotificationActiveIs(bool on) override;
   void instantiateNextHopSubRule(BgpParseUpdateAttributeMpReachNlriRuleKey ruleKey,
                                  BgpParseControl const& parseControl) const override;
   void instantiateNlriSubRule(BgpParseUpdateMessageRuleKey ruleKey,
                               BgpParseControl const& parseControl) const override;

 protected:
   ~FlowspecParsePluginSm() override;

 private:
   AfiSafi afiSafi_;
};

// "<FlowspecParsePluginSm afiSafi>", for traces.
std::ostream& operator<<(std::ostream& os, FlowspecParsePluginSm const& sm);

Ovk::Ptr<FlowspecParsePluginSm> flowspecParsePluginSmFactory(Ovk::Ptr<BgpParseRuleCollections const> ruleCollections,
                                                             AfiSafi afiSafi);

} // namespace Routing::Bgp::FlowspecPlugin
