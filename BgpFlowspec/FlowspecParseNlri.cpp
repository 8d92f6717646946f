#include "BgpFlowspec/FlowspecParseNlri.h"
#include "host/fwk/FwkType.h"

#include <algorithm>
#include <array>
#include <optional>
#include <ostream>

#include "host/fwk/Assert.h"
#include "host/fwk/Trace.h"

namespace Routing::Bgp::FlowspecPlugin {

using Failure = FlowspecNlriParseFailure;
using Kind = FlowspecNlriParseFailure::Kind;

namespace {

// Per failure kind: its count reason and its message, which may name the failure's two
// numbers a and b between its three pieces of text (an empty middle or end piece names none).
struct FailureText {
   BgpParseCountReason reason;
   char const* before;
   char const* middle; // after a
   char const* after;  // after b
};

constexpr std::array<FailureText, 17> kFailureTexts = {{
    {BgpParseCountReason::flowspecNlriLenMissing, "not enough data for NLRI length", nullptr, nullptr},
    {BgpParseCountReason::flowspecNlriLenMissing, "not enough data for NLRI length addend", nullptr, nullptr},
    {BgpParseCountReason::flowspecNlriLenMismatch, "encoded nlriLen (", ") > bytesLeft (", ")"},
    {BgpParseCountReason::flowspecNlriLenMismatch, "parsing component ", " required consuming ",
     " more byte(s) than nlriLen"},
    {BgpParseCountReason::flowspecComponentTypeMissing, "not enough data for NLRI component type", nullptr, nullptr},
    {BgpParseCountReason::flowspecComponentTypeInvalid, "invalid component type (", "", nullptr},
    {BgpParseCountReason::flowspecComponentTypeOrder, "component type ", " appeared after ", ""},
    {BgpParseCountReason::flowspecPrefixMaskMissing, "not enough data for prefix mask length", nullptr, nullptr},
    {BgpParseCountReason::flowspecPrefixOffsetMissing, "not enough data for IPv6 prefix offset", nullptr, nullptr},
    {BgpParseCountReason::flowspecPrefixOffsetAboveMask, "not sensible for offset to be greater than mask", nullptr,
     nullptr},
    {BgpParseCountReason::flowspecPrefixInvalid, "could not parse prefix: invalid masklength ", nullptr, nullptr},
    {BgpParseCountReason::flowspecPrefixInvalid, "could not parse prefix: not enough data ", nullptr, nullptr},
    {BgpParseCountReason::flowspecOperatorMissing, "not enough data for component op", nullptr, nullptr},
    {BgpParseCountReason::flowspecValueMissing, "not enough data for component value", nullptr, nullptr},
    {BgpParseCountReason::flowspecValueTooLong, "value has too many bytes ", " for type ", ""},
    {BgpParseCountReason::flowspecIpv6FragmentDf, "IPv6 nlri fragment: DF bit is 1, but MUST be 0", nullptr, nullptr},
    {BgpParseCountReason::flowspecNexthopShort, "Could not read next-hop data: it runs past the attribute", nullptr,
     nullptr},
}};

static_assert(kFailureTexts.size() == static_cast<std::size_t>(Kind::nexthopShort) + 1, "one text per kind");

FailureText const& failureText(Kind kind) { return kFailureTexts[static_cast<std::size_t>(kind)]; }

// The NLRI reader: the steps of one inhale up to the dedup, over a packet position.
class NlriReader {
 public:
   NlriReader(BgpParseContext const& context, BgpParsePktPosition* const& position, bool v6, FlowspecRouteKeyBody& body)
       : context_(context), position_(position), v6_(v6), body_(body) {}

   // Reads the NLRI into the body and the reason; the failure when it is malformed.
   std::optional<Failure> read();
   FlowspecWontExportReason reason() const { return reason_; }

 private:
   std::optional<Failure> prefixComponent(std::uint8_t currType);
   std::optional<Failure> opValComponent(std::uint8_t currType);
   // Reason 216 when the component just read ran past the NLRI's end.
   std::optional<Failure> pastNlriEnd(std::uint8_t currType) const;

   BgpParseContext const& context_;
   BgpParsePktPosition* const& position_;
   bool v6_;
   FlowspecRouteKeyBody& body_;
   FlowspecWontExportReason reason_;
   std::size_t remainingOtherNlriLen_ = 0;
};

// RFC 8955 section 4.1: the NLRI's length field, one byte below 0xf0, else two (0xf0 OR the
// high four bits); the length must not run past the bytes left. The one reader of the field.
Ovk::Result<std::uint16_t, Failure> readNlriLength(BgpParsePktPosition& pos) {
   std::uint8_t first = 0;
   if (!pos.consumeU8(&first)) return Ovk::failure(Failure(Kind::nlriLength));
   std::uint16_t nlriLen = first;
   if (first > 0xef) {
      std::uint8_t second = 0;
      if (!pos.consumeU8(&second)) return Ovk::failure(Failure(Kind::nlriLengthAddend));
      nlriLen = static_cast<std::uint16_t>((first - 0xf0) * 256 + second);
   }
   if (nlriLen > pos.bytesLeft()) {
      return Ovk::failure(Failure(Kind::nlriLenAboveBytesLeft, nlriLen, static_cast<std::uint32_t>(pos.bytesLeft())));
   }
   return nlriLen;
}

std::optional<Failure> NlriReader::read() {
   BgpParsePktPosition& pos = *position_;
   Ovk::Result<std::uint16_t, Failure> const length = readNlriLength(pos);
   if (!length) return length.reason();
   std::uint16_t const nlriLen = length.value();
   remainingOtherNlriLen_ = pos.bytesLeft() - nlriLen;
   OVK_TRACE(flowspecTraceFacility(), 8,
             "parseCtx: " << context_ << " nlriLen=" << nlriLen
                          << ", remainingOtherNlriLen=" << remainingOtherNlriLen_);

   std::uint8_t prevType = 0;
   // A zero-length NLRI is a rule without components.
   while (pos.bytesLeft() > remainingOtherNlriLen_) {
      BytePtrConst const typeBytePosition = pos.currentPosition();
      std::uint8_t currType = 0;
      if (!pos.consumeU8(&currType)) return Failure(Kind::componentType);
      if (currType == 0) return Failure(Kind::componentTypeZero, currType);
      // RFC 8955 section 4.2: components stand in ascending type order.
      if (prevType != 0 && currType < prevType) return Failure(Kind::componentTypeOrder, currType, prevType);
      if (currType == prevType) {
         OVK_TRACE(flowspecTraceFacility(), 8,
                   "parseCtx: " << context_ << " " << unsigned{currType} << " repeated, not exporting to slate");
         reason_.componentTypeMoreThanOnceIs(true);
      }
      std::optional<Failure> failure;
      if (currType == Flowspec::destPrefix_ || currType == Flowspec::srcPrefix_) {
         failure = prefixComponent(currType);
      } else if (currType < Flowspec::flowLabel_ || (currType == Flowspec::flowLabel_ && v6_)) {
         failure = opValComponent(currType);
      } else {
         // Flow Label exists only in IPv6 (RFC 8956 section 3.7); types beyond are unknown.
         doUnrecognizedTail(context_, position_, currType, typeBytePosition, remainingOtherNlriLen_, body_);
         reason_.unrecognizedTailIs(true);
      }
      if (failure) return failure;
      prevType = currType;
   }
   return std::nullopt;
}

std::optional<Failure> NlriReader::pastNlriEnd(std::uint8_t currType) const {
   // A component is read to its own end, and one that ran past the NLRI's end is caught here,
   // before its bytes join the body: the body holds one NLRI's worth, while a component that
   // overruns may reach as far as the attribute does.
   std::size_t const left = position_->bytesLeft();
   if (left >= remainingOtherNlriLen_) return std::nullopt;
   return Failure(Kind::componentPastNlriLen, currType, static_cast<std::uint32_t>(remainingOtherNlriLen_ - left));
}

std::optional<Failure> NlriReader::prefixComponent(std::uint8_t currType) {
   BgpParsePktPosition& pos = *position_;
   std::uint8_t maskBitLength = 0;
   if (!pos.consumeU8(&maskBitLength)) return Failure(Kind::prefixMask);
   std::uint8_t offsetBitLength = 0;
   if (v6_) {
      // RFC 8956 section 3.1: the offset counts leading bits the pattern skips.
      if (!pos.consumeU8(&offsetBitLength)) return Failure(Kind::prefixOffset);
      if (offsetBitLength > maskBitLength) return Failure(Kind::prefixOffsetAboveMask);
      if (offsetBitLength != 0) {
         OVK_TRACE(flowspecTraceFacility(), 8,
                   "parseCtx: " << context_ << " IPv6 prefix offset=" << unsigned{offsetBitLength}
                                << ", will not export");
         reason_.nonZeroIpv6OffsetIs(true);
      }
   }
   // A mask longer than the address is refused whatever the offset.
   if (maskBitLength > (v6_ ? 128u : 32u)) return Failure(Kind::prefixMaskTooLong);
   OVK_ASSERT(maskBitLength >= offsetBitLength);
   std::size_t const patternBytes = (maskBitLength - offsetBitLength + 7u) / 8u;
   BytePtrConst const pattern = pos.consumeData(patternBytes);
   if (!pattern) return Failure(Kind::prefixPattern);
   if (std::optional<Failure> f = pastNlriEnd(currType)) return f;
   if (currType != Flowspec::destPrefix_) OVK_ASSERT(currType == Flowspec::srcPrefix_);
   // The pattern stands at the start of the address, with the bits beyond it cleared; the
   // prefix length is the mask length.
   body_.prefixIs(currType, maskBitLength, offsetBitLength, pattern);
   return std::nullopt;
}

std::optional<Failure> NlriReader::opValComponent(std::uint8_t currType) {
   BgpParsePktPosition& pos = *position_;
   auto const type = static_cast<Flowspec::MatchCompType>(currType);
   unsigned const maxBytes = Flowspec::maxValueBytes(type);
   BytePtrConst const start = pos.currentPosition();
   std::size_t opValBytes = 0;
   for (;;) {
      std::uint8_t op = 0;
      if (!pos.consumeU8(&op)) return Failure(Kind::componentOp);
      auto const numBytes = static_cast<std::uint8_t>(Flowspec::opValueBytes(op));
      // A value longer than the type takes is refused even when its number would fit.
      if (numBytes > maxBytes) return Failure(Kind::valueTooLong, numBytes, currType);
      std::uint64_t value = 0;
      if (!consumeOpValValue(position_, numBytes, &value)) return Failure(Kind::componentValue);
      // RFC 8956 section 3.6: an IPv6 packet has no DF bit to match.
      if (v6_ && type == Flowspec::fragment_ && (value & 0x01) != 0) return Failure(Kind::ipv6FragmentDf);
      opValBytes += numBytes + 1u;
      if (op & Flowspec::opEndOfList) break;
   }
   if (std::optional<Failure> f = pastNlriEnd(currType)) return f;
   // The component's bytes as received: operators and big-endian values, unchanged. The
   // forwarding library's map of the pairs is rebuilt from them when asked for
   // (FlowspecRouteKey::slateKey).
   body_.addOpValComponent(currType, {start, opValBytes});
   return std::nullopt;
}

} // namespace

BgpParseCountReason FlowspecNlriParseFailure::reason() const noexcept { return failureText(kind_).reason; }

char const* flowspecAttributeReasonText(BgpParseCountReason reason) {
   FailureText const& nexthop = failureText(Kind::nexthopShort);
   return reason == nexthop.reason ? nexthop.before : nullptr;
}

std::string FlowspecNlriParseFailure::message() const {
   FailureText const& t = failureText(kind_);
   std::string out = t.before;
   if (t.middle) out += std::to_string(a_) + t.middle;
   if (t.after) out += std::to_string(b_) + t.after;
   return out;
}

bool consumeOpValValue(BgpParsePktPosition* const& position, std::uint8_t numBytes, std::uint64_t* value) {
   OVK_ASSERT(numBytes == 1 || numBytes == 2 || numBytes == 4 || numBytes == 8);
   switch (numBytes) {
   case 1: {
      std::uint8_t v = 0;
      if (!position->consumeU8(&v)) return false;
      *value = v;
      return true;
   }
   case 2: {
      std::uint16_t v = 0;
      if (!position->consumeU16ntoh(&v)) return false;
      *value = v;
      return true;
   }
   case 4: {
      std::uint32_t v = 0;
      if (!position->consumeU32ntoh(&v)) return false;
      *value = v;
      return true;
   }
   case 8: return position->consumeU64ntoh(value);
   default: break;
   }
   OVK_ASSERT_MSG(false, "The above switch covers all possible values, given the earlier assert");
   return false;
}

void doUnrecognizedTail(BgpParseContext const& parseContext, BgpParsePktPosition* const& position,
                        std::uint8_t componentType, BytePtrConst typeBytePosition, std::size_t remainingOtherNlriLen,
                        FlowspecRouteKeyBody& body) {
   // The type byte has been read, so at least the NLRI's remaining bytes are left; nothing
   // after an unknown type can be framed, so it is all kept unread. Only bytes that arrived
   // are kept: when the position declares more than it holds, the tail ends where the bytes
   // do, and the caller finds the NLRI cut short at its next read.
   OVK_ASSERT(position->bytesLeft() >= remainingOtherNlriLen);
   std::size_t const declared = position->bytesLeft() - remainingOtherNlriLen;
   std::size_t const rest = std::min(declared, position->dataLeft());
   std::size_t const tailLen = rest + 1;
   OVK_TRACE(flowspecTraceFacility(), 6,
             "parseCtx: " << parseContext << " unrecognized component type: " << unsigned{componentType} << ", storing "
                          << tailLen << " byte(s) as unrecognized...");
   body.unrecognizedTailIs({typeBytePosition, tailLen});
   position->consumeData(rest);
}

OVK_FWK_TYPE(FlowspecParseUpdateNlriRule, "Routing::Bgp::FlowspecPlugin::FlowspecParseUpdateNlriRule")

std::optional<std::size_t> FlowspecParseUpdateNlriRule::nlriExtent(BgpParsePktPosition const& position) const {
   BgpParsePktPosition pos = position;
   std::size_t const before = pos.bytesLeft();
   Ovk::Result<std::uint16_t, Failure> const length = readNlriLength(pos);
   if (!length) return std::nullopt;
   return before - pos.bytesLeft() + length.value();
}

BgpParseUpdateNlriReturn FlowspecParseUpdateNlriRule::inhale(Ovk::Ptr<BgpParseContext> const& parseContext,
                                                             BgpParsePktPosition* const& position, bool,
                                                             Ovk::Ptr<BgpParseUpdateResults> const& results) const {
   auto parsed = parse(parseContext, position, results);
   if (!parsed) return {};
   return {std::move(parsed.value()), nullptr, false};
}

Ovk::Result<FlowspecRouteKey::PtrConst, FlowspecNlriParseFailure> FlowspecParseUpdateNlriRule::parse(
    Ovk::Ptr<BgpParseContext> const& parseContext, BgpParsePktPosition* const& position,
    Ovk::Ptr<BgpParseUpdateResults> const& results) const {
   OVK_TRACE_BLOCK_TIMER(flowspecTraceFacility());
   bool const v6 = afiSafi_.afi() != Afi::afiIpv4;
   // Scratch for the body: the key is filled in one step once the NLRI has been read whole.
   FlowspecRouteKeyBody body(v6);
   NlriReader reader(*parseContext, position, v6, body);
   if (std::optional<Failure> const failure = reader.read()) {
      results->countReasonIs(failure->reason());
      OVK_TRACE(flowspecTraceFacility(), 3, "parseCtx: " << *parseContext << " " << failure->message());
      return Ovk::failure(*failure);
   }
   FlowspecRouteKey::Ptr key = flowspecRouteKeyFactory(afiSafi_.afi(), body.size());
   key->bodyIs(body);
   key->wontExportReasonIs(reader.reason());
   if (parseContext->routeKeyDedupDeferred()) {
      // The decoder interns the message's keys together; the table must exist all the same.
      (void)routeKeyDedupTable(*parseContext);
      key->shrinkToFit();
      return FlowspecRouteKey::PtrConst(std::move(key));
   }
   Ovk::Ptr<RouteKey const> const canonical = key->dedupRouteKey(routeKeyDedupTable(*parseContext));
   return FlowspecRouteKey::PtrConst(static_cast<FlowspecRouteKey const*>(canonical.ptr()));
}

RouteKeyDedupTableBase const* FlowspecParseUpdateNlriRule::routeKeyDedupTable(BgpParseContext& parseContext) const {
   if (RouteKeyDedupTableBase const* cached = parseContext.flowspecRouteKeyDedupTableRawPtr(afiSafi_)) return cached;
   DedupTablesVrf const* const vrfTables = parseContext.dedupVrfTablesRawPtr();
   DedupTablesVrfAfiSafi const* const tables = vrfTables ? vrfTables->dedupTablesVrfAfiSafi(afiSafi_) : nullptr;
   RouteKeyDedupTableBase const* const routeKeyDedupTable = tables ? tables->routeKeyDedupTableRawPtr() : nullptr;
   OVK_ASSERT(routeKeyDedupTable != nullptr);
   parseContext.flowspecRouteKeyDedupTableRawPtrIs(afiSafi_, routeKeyDedupTable);
   return routeKeyDedupTable;
}

} // namespace Routing::Bgp::FlowspecPlugin

// ---- FlowspecParseUpdateNextHopRule ----

namespace Routing::Bgp::FlowspecPlugin {

OVK_FWK_TYPE(FlowspecParseUpdateNextHopRule, "Routing::Bgp::FlowspecPlugin::FlowspecParseUpdateNextHopRule")

BgpNotificationErrorUpdateMessageSubcode FlowspecParseUpdateNextHopRule::inhale(
    Ovk::Ptr<BgpParseContext> const& parseContext, BgpParsePktPosition* const& position,
    Ovk::Ptr<BgpParseUpdateAttributesScratchpad> const& scratchpad) const {
   OVK_TRACE(flowspecTraceFacility(), 8, "parseCtx: " << *parseContext);
   std::size_t const nexthopLen = position->bytesLeft();
   Ovnet::IpGenAddr addr;
   Ovk::String nexthopBytes;
   if (nexthopLen != 0) {
      bool const isAddress =
          (afiSafi_.afi() == Afi::afiIpv4 && nexthopLen == 4 && position->consumeIpv4GenAddress(&addr)) ||
          (afiSafi_.afi() == Afi::afiIpv6 && nexthopLen == 16 && position->consumeIpv6GenAddress(&addr));
      if (!isAddress) {
         // Any other content is kept as it came: flowspec does not forward to it. A 32-byte
         // IPv6 field (global and link-local address) is no exception.
         BytePtrConst const raw = position->consumeData(nexthopLen);
         if (!raw) {
            OVK_TRACE(flowspecTraceFacility(), 3, "Could not read next-hop data of length " << nexthopLen);
            scratchpad->results()->countReasonIs(BgpParseCountReason::flowspecNexthopShort);
            return BgpNotificationErrorUpdateMessageSubcode::optionalAttributeError;
         }
         nexthopBytes = Ovk::String(std::span<std::uint8_t const>(raw, nexthopLen));
         OVK_TRACE(flowspecTraceFacility(), 4,
                   "Received a non-empty, but invalid IP-address nexthop 0x" << Ovk::hexOf(nexthopBytes.span()));
      }
   }
   GenNexthopDedupTableBase const* const table = nexthopDedupTable(*parseContext);
   if (nexthopLen == 0) {
      // The table's own empty next hop, shared by every flowspec path without one.
      auto const* const flowspecTable = dynamic_cast<FlowspecGenNexthopDedupTable const*>(table);
      if (flowspecTable && flowspecTable->emptyNexthop()) {
         scratchpad->nexthopIs(flowspecTable->emptyNexthop());
      } else {
         scratchpad->nexthopDel();
      }
      return BgpNotificationErrorUpdateMessageSubcode::noError;
   }
   Ovk::Ptr<FlowspecGenNexthop> const nexthop = flowspecGenNexthopFactory(afiSafi_.afi(), addr, nexthopBytes);
   scratchpad->nexthopIs(nexthop->dedup(Ovk::Ptr<GenNexthopDedupTableBase const>(table), false));
   return BgpNotificationErrorUpdateMessageSubcode::noError;
}

GenNexthopDedupTableBase const* FlowspecParseUpdateNextHopRule::nexthopDedupTable(BgpParseContext& parseContext) const {
   if (GenNexthopDedupTableBase const* cached = parseContext.flowspecNexthopDedupTableRawPtr(afiSafi_)) return cached;
   DedupTablesVrf const* const vrfTables = parseContext.dedupVrfTablesRawPtr();
   DedupTablesVrfAfiSafi const* const tables = vrfTables ? vrfTables->dedupTablesVrfAfiSafi(afiSafi_) : nullptr;
   GenNexthopDedupTableBase const* const nexthopDedupTable = tables ? tables->nexthopDedupTableRawPtr() : nullptr;
   OVK_ASSERT(nexthopDedupTable != nullptr);
   parseContext.flowspecNexthopDedupTableRawPtrIs(afiSafi_, nexthopDedupTable);
   return nexthopDedupTable;
}

// ---- FlowspecParsePluginSm ----

FlowspecParsePluginSm::FlowspecParsePluginSm(Ovk::Ptr<BgpParseRuleCollections const> ruleCollections, AfiSafi afiSafi)
    : BgpParsePluginBaseSm(std::move(ruleCollections)), afiSafi_(afiSafi) {
   // Rule instances already declared get their sub-rules now, before any notification.
   handleStartup();
}

FlowspecParsePluginSm::~FlowspecParsePluginSm() = default;

Ovk::Ptr<FlowspecParsePluginSm> FlowspecParsePluginSm::FlowspecParsePluginSmIs(
    Ovk::Ptr<BgpParseRuleCollections const> ruleCollections, AfiSafi afiSafi) {
   Ovk::Ptr<FlowspecParsePluginSm> sm = Ovk::makePtr<FlowspecParsePluginSm>(std::move(ruleCollections), afiSafi);
   sm->hasNotificationActiveIs(true);
   return sm;
}

Ovk::Ptr<FlowspecParsePluginSm> flowspecParsePluginSmFactory(Ovk::Ptr<BgpParseRuleCollections const> ruleCollections,
                                                             AfiSafi afiSafi) {
   return FlowspecParsePluginSm::FlowspecParsePluginSmIs(std::move(ruleCollections), afiSafi);
}

OVK_FWK_TYPE(FlowspecParsePluginSm, "Routing::Bgp::FlowspecPlugin::FlowspecParsePluginSm")

void FlowspecParsePluginSm::hasNotificationActiveIs(bool on) { BgpParsePluginBaseSm::hasNotificationActiveIs(on); }

void FlowspecParsePluginSm::instantiateNextHopSubRule(BgpParseUpdateAttributeMpReachNlriRuleKey ruleKey,
                                                      BgpParseControl const& parseControl) const {
   OVK_TRACE(flowspecTraceFacility(), 8, *this << " ruleKey: " << ruleKey);
   addNextHopSubRule(ruleKey, Ovk::makePtr<FlowspecParseUpdateNextHopRule>(parseControl, afiSafi_));
}

void FlowspecParsePluginSm::instantiateNlriSubRule(BgpParseUpdateMessageRuleKey ruleKey,
                                                   BgpParseControl const& parseControl) const {
   OVK_TRACE(flowspecTraceFacility(), 8, *this << " ruleKey: " << ruleKey);
   addNlriSubRule(ruleKey, Ovk::makePtr<FlowspecParseUpdateNlriRule>(parseControl, afiSafi_));
}

std::ostream& operator<<(std::ostream& os, FlowspecParsePluginSm const& sm) {
   return os << "FlowspecParsePluginSm(" << sm.afiSafi() << ")";
}

} // namespace Routing::Bgp::FlowspecPlugin
