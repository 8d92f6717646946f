#include "host/bgp/BgpUpdateDecoder.h"

#include <bitset>
#include <ostream>
#include <sstream>

#include "host/fwk/Assert.h"

namespace Routing::Bgp {

namespace {

using Reason = BgpParseCountReason;
using Subcode = BgpNotificationErrorUpdateMessageSubcode;

constexpr std::size_t kMinUpdateSize = kHeaderSize + 4; // withdrawn routes length, attribute length
constexpr std::uint8_t kMessageTypeUpdate = static_cast<std::uint8_t>(MessageType::update);
constexpr std::uint8_t kMessageHeaderError = ErrorCode::messageHeader;
constexpr std::uint8_t kUpdateMessageError = ErrorCode::update;
constexpr std::uint8_t kConnectionNotSynchronized = HeaderSubcode::connectionNotSynchronized;
constexpr std::uint8_t kBadMessageLength = HeaderSubcode::badMessageLength;
constexpr std::uint8_t kBadMessageType = HeaderSubcode::badMessageType;
constexpr std::uint8_t kFlagOptional = BgpAttrFlag::optional;
constexpr std::uint8_t kFlagTransitive = BgpAttrFlag::transitive;
constexpr std::uint8_t kFlagExtendedLength = BgpAttrFlag::extendedLength;

// AS_PATH segment types (RFC 4271 section 4.3, RFC 5065 section 3).
constexpr std::uint8_t kAsSet = 1, kAsConfedSequence = 3, kAsConfedSet = 4; // 2 is AS_SEQUENCE

std::uint8_t subcodeByte(Subcode s) { return static_cast<std::uint8_t>(s); }

// How long a known attribute's value must be.
enum class Length {
   any,        // AS4_PATH, AS4_AGGREGATOR: not read here
   own,        // AS_PATH, MP_REACH_NLRI, MP_UNREACH_NLRI: judged by their own readers
   exactly,    // `n` bytes
   multipleOf, // a non-zero multiple of `n` bytes
   aggregator, // 6 or 8 bytes, by the session's AS number width
};

// What each known attribute must be (RFC 7606 section 3.c for the Optional and Transitive
// bits, section 7 for the lengths), and what an attribute that is not costs: `malformed`
// for wrong flags or a wrong length, with `reason` counted for a wrong length. The
// attributes whose errors are discarded (sections 7.6, 7.7, RFC 6793 section 6) have
// attribute-discard; the others withdraw. (The MP attributes' own readers reset the
// session on errors of their values.)
struct KnownAttribute {
   bool known = false;
   bool optional = false;
   bool transitive = false;
   Length length = Length::any;
   std::size_t n = 0;
   Reason reason = Reason::none;
   BgpUpdateAction malformed = BgpUpdateAction::treatAsWithdraw;
};

constexpr std::array<KnownAttribute, 256> kKnown = [] {
   constexpr auto withdraw = BgpUpdateAction::treatAsWithdraw;
   constexpr auto discard = BgpUpdateAction::attributeDiscard;
   struct Row {
      std::uint8_t type;
      bool optional;
      bool transitive;
      Length length;
      std::size_t n;
      Reason reason;
      BgpUpdateAction malformed;
   };
   constexpr Row rows[] = {
       {BgpAttrType::origin, false, true, Length::exactly, 1, Reason::originLength, withdraw},
       {BgpAttrType::asPath, false, true, Length::own, 0, Reason::none, withdraw},
       {BgpAttrType::nextHop, false, true, Length::exactly, 4, Reason::nextHopLength, withdraw},
       {BgpAttrType::med, true, false, Length::exactly, 4, Reason::medLength, withdraw},
       {BgpAttrType::localPref, false, true, Length::exactly, 4, Reason::localPrefLength, withdraw},
       {BgpAttrType::atomicAggregate, false, true, Length::exactly, 0, Reason::atomicAggregateLength, discard},
       {BgpAttrType::aggregator, true, true, Length::aggregator, 0, Reason::aggregatorLength, discard},
       {BgpAttrType::communities, true, true, Length::multipleOf, 4, Reason::communitiesLength, withdraw},
       {BgpAttrType::mpReachNlri, true, false, Length::own, 0, Reason::none, withdraw},
       {BgpAttrType::mpUnreachNlri, true, false, Length::own, 0, Reason::none, withdraw},
       {BgpAttrType::extCommunities, true, true, Length::multipleOf, 8, Reason::extCommunitiesLength, withdraw},
       {BgpAttrType::as4Path, true, true, Length::any, 0, Reason::none, discard},
       {BgpAttrType::as4Aggregator, true, true, Length::any, 0, Reason::none, discard},
       {BgpAttrType::ipv6ExtCommunities, true, true, Length::multipleOf, 20, Reason::ipv6ExtCommunitiesLength,
        withdraw},
   };
   std::array<KnownAttribute, 256> k{};
   for (Row const& r : rows) k[r.type] = {true, r.optional, r.transitive, r.length, r.n, r.reason, r.malformed};
   return k;
}();

// The first four bytes of `v`, in network order.
std::uint32_t readU32(std::span<std::uint8_t const> v) {
   return std::uint32_t{v[0]} << 24 | std::uint32_t{v[1]} << 16 | std::uint32_t{v[2]} << 8 | v[3];
}

// True when the field is a run of well-formed IPv4 prefixes (RFC 7606 section 5.3).
bool ipv4PrefixesValid(std::span<std::uint8_t const> field) {
   BgpParsePktPosition pos(field);
   while (pos.bytesLeft() > 0) {
      std::uint8_t len = 0;
      if (!pos.consumeU8(&len) || len > 32) return false;
      if (!pos.consumeData((len + 7u) / 8u)) return false;
   }
   return true;
}

// True when the AS_PATH value frames into segments of `asWidth`-byte numbers (RFC 7606
// section 7.2: a known segment type, a non-zero count, no overrun, no byte left over).
bool asPathValid(std::span<std::uint8_t const> value, std::size_t asWidth) {
   BgpParsePktPosition pos(value);
   while (pos.bytesLeft() > 0) {
      std::uint8_t type = 0;
      std::uint8_t count = 0;
      if (!pos.consumeU8(&type) || !pos.consumeU8(&count)) return false;
      if (type < kAsSet || type > kAsConfedSet || count == 0) return false;
      if (!pos.consumeData(count * asWidth)) return false;
   }
   return true;
}

} // namespace

BgpUpdateDecoderCounters::Family& BgpUpdateDecoderCounters::Family::operator+=(Family const& o) {
   announced += o.announced;
   withdrawn += o.withdrawn;
   refused += o.refused;
   updates += o.updates;
   return *this;
}

BgpUpdateDecoderCounters& BgpUpdateDecoderCounters::operator+=(BgpUpdateDecoderCounters const& o) {
   messages += o.messages;
   for (std::size_t i = 0; i < actions.size(); ++i) actions[i] += o.actions[i];
   for (auto const& [family, f] : o.families) families[family] += f;
   for (auto const& [reason, n] : o.reasons) reasons[reason] += n;
   return *this;
}

char const* toStrep(BgpUpdateAction action) {
   switch (action) {
   case BgpUpdateAction::accept: return "accept";
   case BgpUpdateAction::attributeDiscard: return "attribute-discard";
   case BgpUpdateAction::treatAsWithdraw: return "treat-as-withdraw";
   case BgpUpdateAction::sessionReset: return "session-reset";
   }
   return "?";
}

std::optional<AfiSafi> BgpParsedUpdate::endOfRib() const {
   if (action == BgpUpdateAction::sessionReset || !withdrawnRoutes.empty() || !ipv4Nlri.empty()) return std::nullopt;
   if (pathAttributes.empty()) return AfiSafi(Afi::afiIpv4, Safi::unicast);
   if (attributeCount == 1 && mpUnreach.present && mpUnreach.nlriBytes == 0) return mpUnreach.afiSafi;
   return std::nullopt;
}

void forEachIpv4Prefix(std::span<std::uint8_t const> field,
                       std::function<void(Ovnet::IpGenAddr const&, std::uint8_t)> const& fn) {
   BgpParsePktPosition pos(field);
   std::uint8_t len = 0;
   while (pos.consumeU8(&len) && len <= 32) {
      std::size_t const n = (len + 7u) / 8u;
      BytePtrConst const b = pos.consumeData(n);
      if (!b) return;
      std::uint32_t host = 0;
      for (std::size_t i = 0; i < 4; ++i) host = host << 8 | (i < n ? b[i] : 0u);
      fn(Ovnet::IpGenAddr::ipv4(host), len);
   }
}

std::string asPathText(std::span<std::uint8_t const> value, bool fourOctet) {
   std::ostringstream os;
   BgpParsePktPosition pos(value);
   std::uint8_t type = 0;
   std::uint8_t count = 0;
   bool first = true;
   while (pos.consumeU8(&type) && pos.consumeU8(&count)) {
      if (!first) os << ' ';
      first = false;
      bool const set = type == kAsSet || type == kAsConfedSet;
      char const* const open = type == kAsSet ? "{" : type == kAsConfedSequence ? "(" : type == kAsConfedSet ? "[" : "";
      char const* const close = type == kAsSet              ? "}"
                                : type == kAsConfedSequence ? ")"
                                : type == kAsConfedSet      ? "]"
                                                            : "";
      os << open;
      for (std::uint8_t i = 0; i < count; ++i) {
         std::uint32_t as = 0;
         if (fourOctet) {
            if (!pos.consumeU32ntoh(&as)) return os.str();
         } else {
            std::uint16_t as2 = 0;
            if (!pos.consumeU16ntoh(&as2)) return os.str();
            as = as2;
         }
         if (i) os << (set ? "," : " ");
         os << as;
      }
      os << close;
   }
   return os.str();
}

// ---- One decode ----

// The state of decoding one message. Each RFC 7606 decision ends in one of discard(),
// withdraw() or reset(); reset() stops the decoding.
class BgpUpdateDecoder::Run {
 public:
   Run(BgpUpdateDecoder& decoder, std::span<std::uint8_t const> message)
       : d_(decoder), out_(decoder.parsed_), message_(message) {}

   void decode();

 private:
   void attributes(BgpParsePktPosition attrs);
   void attribute(std::uint8_t flags, std::uint8_t type, BgpParsePktPosition value,
                  std::span<std::uint8_t const> whole);
   // A known attribute's value whose flags and length are right, kept on the UPDATE.
   void keep(std::uint8_t type, std::span<std::uint8_t const> value);
   bool lengthOk(KnownAttribute const& known, std::size_t size) const;
   void asPath(std::span<std::uint8_t const> value);
   void mpReach(BgpParsePktPosition value, std::span<std::uint8_t const> whole);
   void mpUnreach(BgpParsePktPosition value, std::span<std::uint8_t const> whole);
   void nlriField(BgpParsePktPosition field, AfiSafi family, bool reachable, std::span<std::uint8_t const> whole);
   void mandatoryAttributes();
   // The withdrawn routes and the NLRI field, once both are known to frame: IPv4 unicast
   // routes, read by the family's rule when the session has one.
   void bodyNlri();

   // The decisions. `count`: false for reasons a family's rule counted already.
   void discard(Reason reason, std::uint8_t type) { record(reason, BgpUpdateAction::attributeDiscard, type, true); }
   void withdraw(Reason reason, std::uint8_t type, bool count = true) {
      record(reason, BgpUpdateAction::treatAsWithdraw, type, count);
   }
   void noted(Reason reason, std::uint8_t type) { record(reason, BgpUpdateAction::accept, type, true); }
   void reset(Reason reason, std::uint8_t code, std::uint8_t subcode, std::span<std::uint8_t const> data,
              std::uint8_t type = 0, bool count = true);
   void record(Reason reason, BgpUpdateAction action, std::uint8_t type, bool count);

   BgpUpdateDecoder::Family const* family(AfiSafi afiSafi) const {
      auto const it = d_.families_.find(afiSafi);
      return it == d_.families_.end() ? nullptr : &it->second;
   }
   BgpParseUpdateResults& results() const { return *d_.results_; }
   bool hasError(std::uint8_t type) const {
      for (BgpUpdateError const& e : out_.errors) {
         if (e.attributeType == type) return true;
      }
      return false;
   }

   BgpUpdateDecoder& d_;
   BgpParsedUpdate& out_;
   std::span<std::uint8_t const> message_;
   BytePtrConst at_ = nullptr; // where the error being recorded was found
   bool stopped_ = false;
   bool attributesComplete_ = true;
};

void BgpUpdateDecoder::Run::record(Reason reason, BgpUpdateAction action, std::uint8_t type, bool count) {
   if (count) results().countReasonIs(reason);
   // at_ comes from a position over the message, so it lies in it.
   auto const offset = at_ ? static_cast<std::uint32_t>(at_ - message_.data()) : 0u;
   out_.errors.push_back({reason, action, type, offset});
   if (action > out_.action) out_.action = action;
}

void BgpUpdateDecoder::Run::reset(Reason reason, std::uint8_t code, std::uint8_t subcode,
                                  std::span<std::uint8_t const> data, std::uint8_t type, bool count) {
   record(reason, BgpUpdateAction::sessionReset, type, count);
   // The first reset chooses the NOTIFICATION; decoding stops there.
   if (!out_.notification) out_.notification = BgpUpdateNotification{code, subcode, data};
   stopped_ = true;
}

void BgpUpdateDecoder::Run::decode() {
   BgpParsePktPosition msg(message_);
   at_ = msg.currentPosition();
   // RFC 4271 section 6.1: the header.
   std::span<std::uint8_t const> marker;
   if (!msg.consumeView(16, &marker))
      return reset(Reason::updateHeaderShort, kMessageHeaderError, kBadMessageLength, {});
   for (std::uint8_t b : marker) {
      if (b != 0xff) return reset(Reason::updateMarker, kMessageHeaderError, kConnectionNotSynchronized, {});
   }
   BytePtrConst const lengthField = msg.currentPosition();
   std::uint16_t length = 0;
   std::uint8_t type = 0;
   if (!msg.consumeU16ntoh(&length) || !msg.consumeU8(&type)) {
      return reset(Reason::updateHeaderShort, kMessageHeaderError, kBadMessageLength, {});
   }
   // The type is judged before the length an UPDATE needs, so that another message is
   // named as such.
   if (length != message_.size() || length > d_.options_.maxMessageSize) {
      at_ = lengthField;
      return reset(Reason::updateLength, kMessageHeaderError, kBadMessageLength, {lengthField, 2});
   }
   if (type != kMessageTypeUpdate) {
      return reset(Reason::updateType, kMessageHeaderError, kBadMessageType, message_.subspan(kHeaderSize - 1, 1));
   }
   if (length < kMinUpdateSize) {
      at_ = lengthField;
      return reset(Reason::updateLength, kMessageHeaderError, kBadMessageLength, {lengthField, 2});
   }

   // RFC 4271 section 6.3: both lengths must fit the message (kMinUpdateSize leaves room
   // for the two length fields themselves).
   std::uint16_t withdrawnLen = 0;
   at_ = msg.currentPosition();
   if (!msg.consumeU16ntoh(&withdrawnLen) || !msg.consumeView(withdrawnLen, &out_.withdrawnRoutes)) {
      return reset(Reason::withdrawnRoutesLength, kUpdateMessageError, subcodeByte(Subcode::malformedAttributeList),
                   {});
   }
   std::uint16_t attrsLen = 0;
   at_ = msg.currentPosition();
   if (!msg.consumeU16ntoh(&attrsLen) || !msg.consumeView(attrsLen, &out_.pathAttributes)) {
      return reset(Reason::pathAttributesLength, kUpdateMessageError, subcodeByte(Subcode::malformedAttributeList), {});
   }
   out_.ipv4Nlri = msg.rest();

   // RFC 7606 sections 3.g and 5.3: prefixes that cannot be framed leave nothing to
   // withdraw reliably.
   if (!ipv4PrefixesValid(out_.withdrawnRoutes)) {
      at_ = out_.withdrawnRoutes.data();
      return reset(Reason::withdrawnRoutesInvalid, kUpdateMessageError, subcodeByte(Subcode::invalidNetworkField), {});
   }
   attributes(BgpParsePktPosition(out_.pathAttributes));
   if (stopped_) return;
   if (!ipv4PrefixesValid(out_.ipv4Nlri)) {
      at_ = out_.ipv4Nlri.data();
      return reset(Reason::nlriInvalid, kUpdateMessageError, subcodeByte(Subcode::invalidNetworkField), {});
   }
   mandatoryAttributes();
   bodyNlri();
}

void BgpUpdateDecoder::Run::bodyNlri() {
   if (out_.withdrawnRoutes.empty() && out_.ipv4Nlri.empty()) return;
   constexpr AfiSafi kFamily = AfiSafi::ipv4Unicast();
   Family const* const f = family(kFamily);
   BgpParseUpdateNlriRuleBase const* const rule = f ? f->collections->nlriSubRule({kFamily, false}) : nullptr;
   if (!rule) {
      // A session without ipv4-unicast: its routes are skipped and counted on the session,
      // not recorded as an error of the UPDATE (logged per UPDATE, a full table would be a
      // million lines).
      ++d_.counters_.reasons[Reason::unicastNotNegotiated];
      return;
   }
   for (bool const reachable : {false, true}) {
      BgpParsePktPosition field(reachable ? out_.ipv4Nlri : out_.withdrawnRoutes);
      while (field.bytesLeft() > 0) {
         std::span<std::uint8_t const> const given = field.rest();
         BgpParsePktPosition work = field;
         BgpParsePktPosition* const position = &work;
         BgpParseUpdateNlriReturn const r = rule->inhale(d_.parseContext_, position, reachable, d_.results_);
         // The field frames (checked above), and the unicast rule reads every prefix that
         // frames; a rule that reads nothing or refuses ends the field here, its reason
         // counted.
         if (!r.routeKey || work.dataLeft() >= field.dataLeft()) {
            out_.nlri.push_back({kFamily, reachable, 0, given, nullptr, results().lastReason(), given});
            break;
         }
         std::span<std::uint8_t const> bytes;
         field.consumeView(field.dataLeft() - work.dataLeft(), &bytes);
         out_.nlri.push_back({kFamily, reachable && !r.treatAsUnreach, 0, bytes, r.routeKey, Reason::none, given});
      }
   }
   bool const counted = (out_.mpReach.present && out_.mpReach.parsed && out_.mpReach.afiSafi == kFamily) ||
                        (out_.mpUnreach.present && out_.mpUnreach.parsed && out_.mpUnreach.afiSafi == kFamily);
   if (!counted) ++d_.counters_.families[kFamily].updates;
}

void BgpUpdateDecoder::Run::attributes(BgpParsePktPosition attrs) {
   std::bitset<256> seen;
   while (attrs.bytesLeft() > 0 && !stopped_) {
      BytePtrConst const start = attrs.currentPosition();
      at_ = start;
      std::size_t const before = attrs.dataLeft();
      std::uint8_t flags = 0;
      std::uint8_t type = 0;
      std::uint16_t len = 0;
      bool header = attrs.consumeU8(&flags) && attrs.consumeU8(&type);
      if (header && (flags & kFlagExtendedLength)) {
         header = attrs.consumeU16ntoh(&len);
      } else if (header) {
         std::uint8_t len8 = 0;
         header = attrs.consumeU8(&len8);
         len = len8;
      }
      // RFC 7606 section 4: attribute lengths that disagree with the total path attribute
      // length; the total still locates the NLRI field, so treat-as-withdraw serves, unless
      // the attribute is one that carries NLRI itself.
      if (!header) {
         attributesComplete_ = false;
         return withdraw(Reason::attributeHeaderShort, type);
      }
      BgpParsePktPosition value(attrs.rest().first(0));
      if (!attrs.consumeSubPosition(len, &value)) {
         attributesComplete_ = false;
         if (type == BgpAttrType::mpReachNlri || type == BgpAttrType::mpUnreachNlri) {
            return reset(Reason::attributeLengthOverrun, kUpdateMessageError,
                         subcodeByte(Subcode::malformedAttributeList), {}, type);
         }
         return withdraw(Reason::attributeLengthOverrun, type);
      }
      std::span<std::uint8_t const> const whole = std::span<std::uint8_t const>(start, before - attrs.dataLeft());
      ++out_.attributeCount;
      // RFC 7606 section 3.g: a second MP_(UN)REACH_NLRI resets the session; a second copy
      // of anything else is discarded.
      if (seen[type]) {
         if (type == BgpAttrType::mpReachNlri || type == BgpAttrType::mpUnreachNlri) {
            return reset(Reason::mpAttributeDuplicate, kUpdateMessageError,
                         subcodeByte(Subcode::malformedAttributeList), {}, type);
         }
         discard(Reason::attributeDuplicate, type);
         continue;
      }
      seen[type] = true;
      attribute(flags, type, value, whole);
   }
}

void BgpUpdateDecoder::Run::attribute(std::uint8_t flags, std::uint8_t type, BgpParsePktPosition value,
                                      std::span<std::uint8_t const> whole) {
   KnownAttribute const known = kKnown[type];
   if (!known.known) {
      // RFC 4271 section 6.3, unchanged by RFC 7606: an unknown well-known attribute.
      if (!(flags & kFlagOptional)) {
         return reset(Reason::unrecognizedWellKnown, kUpdateMessageError,
                      subcodeByte(Subcode::unrecognizedWellKnownAttribute), whole, type);
      }
      return; // an optional attribute nobody here interprets
   }
   // RFC 7606 section 3.c: wrong Optional or Transitive bits make the attribute malformed.
   bool const flagsOk =
       ((flags & kFlagOptional) != 0) == known.optional && ((flags & kFlagTransitive) != 0) == known.transitive;
   if (!flagsOk) {
      record(Reason::attributeFlags, known.malformed, type, true);
      if (known.malformed == BgpUpdateAction::attributeDiscard) return;
   }
   switch (known.length) {
   case Length::any: return; // AS4_PATH, AS4_AGGREGATOR: kept by nobody here
   case Length::own:
      if (type == BgpAttrType::asPath) return asPath(value.rest());
      if (type == BgpAttrType::mpReachNlri) return mpReach(value, whole);
      return mpUnreach(value, whole);
   default: break;
   }
   // RFC 7606 section 7.5: LOCAL_PREF from an external peer means nothing, whatever its length.
   if (type == BgpAttrType::localPref && d_.options_.externalPeer) return discard(Reason::localPrefFromExternal, type);
   if (!lengthOk(known, value.rest().size())) return record(known.reason, known.malformed, type, true);
   keep(type, value.rest());
}

bool BgpUpdateDecoder::Run::lengthOk(KnownAttribute const& known, std::size_t size) const {
   switch (known.length) {
   case Length::exactly: return size == known.n;
   case Length::multipleOf: return size != 0 && size % known.n == 0;
   // RFC 6793 section 3 for the 4-octet form.
   case Length::aggregator:
      return d_.options_.detectAsWidth ? (size == 6 || size == 8) : size == (d_.options_.fourOctetAs ? 8u : 6u);
   case Length::any:
   case Length::own: return true;
   }
   return true;
}

void BgpUpdateDecoder::Run::keep(std::uint8_t type, std::span<std::uint8_t const> v) {
   BgpParseUpdateAttributesScratchpad& a = *out_.attributes;
   switch (type) {
   case BgpAttrType::origin:
      // RFC 7606 section 7.1.
      if (v[0] > 2) return withdraw(Reason::originValue, type);
      a.origin = v[0];
      return;
   case BgpAttrType::nextHop: a.ipv4NextHop = Ovnet::IpGenAddr::ipv4(v.first<4>()); return;
   case BgpAttrType::med: a.med = readU32(v); return;
   case BgpAttrType::localPref: a.localPref = readU32(v); return;
   case BgpAttrType::atomicAggregate: a.atomicAggregate = true; return;
   case BgpAttrType::aggregator: a.aggregator = {v, true}; return;
   case BgpAttrType::communities: a.communities = {v, true}; return;
   case BgpAttrType::extCommunities: a.extCommunities = {v, true}; return;
   case BgpAttrType::ipv6ExtCommunities: a.ipv6ExtCommunities = {v, true}; return;
   default: return;
   }
}

void BgpUpdateDecoder::Run::asPath(std::span<std::uint8_t const> value) {
   BgpParseUpdateAttributesScratchpad& a = *out_.attributes;
   bool fourOctet = d_.options_.fourOctetAs;
   bool valid = asPathValid(value, fourOctet ? 4 : 2);
   if (!valid && d_.options_.detectAsWidth) {
      fourOctet = !fourOctet;
      valid = asPathValid(value, fourOctet ? 4 : 2);
   }
   // RFC 7606 section 7.2.
   if (!valid) return withdraw(Reason::asPathMalformed, BgpAttrType::asPath);
   a.asPath = {value, true};
   a.asPathFourOctet = fourOctet;
}

void BgpUpdateDecoder::Run::mpReach(BgpParsePktPosition value, std::span<std::uint8_t const> whole) {
   std::uint16_t afi = 0;
   std::uint8_t safi = 0;
   std::uint8_t nextHopLen = 0;
   // RFC 4760 section 7 and RFC 7606 section 5.3: an MP_REACH_NLRI that cannot be read
   // hides its NLRI, so nothing can be withdrawn reliably.
   if (!value.consumeU16ntoh(&afi) || !value.consumeU8(&safi) || !value.consumeU8(&nextHopLen)) {
      return reset(Reason::mpReachShort, kUpdateMessageError, subcodeByte(Subcode::optionalAttributeError), whole,
                   BgpAttrType::mpReachNlri);
   }
   AfiSafi const afiSafi(static_cast<Afi>(afi), safi);
   out_.mpReach.present = true;
   out_.mpReach.afiSafi = afiSafi;
   Family const* const f = family(afiSafi);
   BgpParseUpdateAttributeMpReachNlriNextHopRuleBase const* const nextHopRule =
       f ? f->collections->nextHopSubRule({afiSafi}) : nullptr;
   if (nextHopRule) {
      // The rule takes the field's declared length; it finds a field cut short itself.
      BgpParsePktPosition field = BgpParsePktPosition::declared(value.rest(), nextHopLen);
      BgpParsePktPosition* const position = &field;
      Subcode const subcode = nextHopRule->inhale(d_.parseContext_, position, out_.attributes);
      if (subcode != Subcode::noError) {
         std::uint8_t const sub = static_cast<std::uint32_t>(subcode) <= 0xffu
                                      ? static_cast<std::uint8_t>(subcode)
                                      : subcodeByte(Subcode::optionalAttributeError);
         return reset(results().lastReason(), kUpdateMessageError, sub, whole, BgpAttrType::mpReachNlri, false);
      }
   }
   std::uint8_t reserved = 0;
   if (!value.consumeView(nextHopLen, &out_.mpReach.nextHop)) {
      return reset(Reason::mpReachNexthopOverrun, kUpdateMessageError, subcodeByte(Subcode::optionalAttributeError),
                   whole, BgpAttrType::mpReachNlri);
   }
   out_.mpReach.nextHopRead = true;
   // RFC 4760 section 3: the reserved byte is ignored.
   if (!value.consumeU8(&reserved)) {
      return reset(Reason::mpReachShort, kUpdateMessageError, subcodeByte(Subcode::optionalAttributeError), whole,
                   BgpAttrType::mpReachNlri);
   }
   nlriField(value, afiSafi, true, whole);
}

void BgpUpdateDecoder::Run::mpUnreach(BgpParsePktPosition value, std::span<std::uint8_t const> whole) {
   std::uint16_t afi = 0;
   std::uint8_t safi = 0;
   if (!value.consumeU16ntoh(&afi) || !value.consumeU8(&safi)) {
      return reset(Reason::mpUnreachShort, kUpdateMessageError, subcodeByte(Subcode::optionalAttributeError), whole,
                   BgpAttrType::mpUnreachNlri);
   }
   AfiSafi const afiSafi(static_cast<Afi>(afi), safi);
   out_.mpUnreach.present = true;
   out_.mpUnreach.afiSafi = afiSafi;
   nlriField(value, afiSafi, false, whole);
}

void BgpUpdateDecoder::Run::nlriField(BgpParsePktPosition field, AfiSafi afiSafi, bool reachable,
                                      std::span<std::uint8_t const> whole) {
   std::uint8_t const attrType = reachable ? BgpAttrType::mpReachNlri : BgpAttrType::mpUnreachNlri;
   (reachable ? out_.mpReach : out_.mpUnreach).nlriBytes = field.bytesLeft();
   Family const* const f = family(afiSafi);
   bool const addPath = f && f->parseControl.addPathReceive;
   BgpParseUpdateNlriRuleBase const* const rule = f ? f->collections->nlriSubRule({afiSafi, addPath}) : nullptr;
   if (!rule) {
      if (field.bytesLeft() > 0) noted(Reason::mpFamilyWithoutRule, attrType);
      return;
   }
   (reachable ? out_.mpReach : out_.mpUnreach).parsed = true;
   while (field.bytesLeft() > 0) {
      at_ = field.currentPosition();
      std::uint32_t pathId = 0;
      // RFC 7911 section 3: each NLRI opens with its path identifier.
      if (addPath && !field.consumeU32ntoh(&pathId)) {
         out_.nlri.push_back({afiSafi, reachable, 0, field.rest(), nullptr, Reason::nlriPathIdShort, field.rest()});
         return reset(Reason::nlriPathIdShort, kUpdateMessageError, subcodeByte(Subcode::optionalAttributeError), whole,
                      attrType);
      }
      std::span<std::uint8_t const> const given = field.rest();
      BgpParsePktPosition work = field;
      BgpParsePktPosition* const position = &work;
      BgpParseUpdateNlriReturn const r = rule->inhale(d_.parseContext_, position, reachable, d_.results_);
      if (r.routeKey) {
         // A rule that accepts an NLRI has read it; one that read nothing would loop here.
         OVK_ASSERT_MSG(work.dataLeft() < field.dataLeft(), "an accepted NLRI was read");
         std::span<std::uint8_t const> bytes;
         field.consumeView(field.dataLeft() - work.dataLeft(), &bytes);
         // RFC 7606 section 2: an NLRI its rule wants withdrawn counts as withdrawn.
         out_.nlri.push_back({afiSafi, reachable && !r.treatAsUnreach, pathId, bytes, r.routeKey, Reason::none, given});
         continue;
      }
      // The rule counted its reason. Where the NLRI's own length still shows its end, the
      // next NLRI can be found: treat-as-withdraw (RFC 7606 section 2; each flowspec NLRI
      // carries its length). Otherwise the attribute cannot be framed: session reset with
      // Optional Attribute Error (RFC 4760 section 7, RFC 7606 section 5.3).
      Reason const reason = results().lastReason();
      if (std::optional<std::size_t> const extent = rule->nlriExtent(field)) {
         std::span<std::uint8_t const> bytes;
         field.consumeView(*extent, &bytes);
         out_.nlri.push_back({afiSafi, reachable, pathId, bytes, nullptr, reason, given});
         withdraw(reason, attrType, false);
         continue;
      }
      out_.nlri.push_back({afiSafi, reachable, pathId, given, nullptr, reason, given});
      return reset(reason, kUpdateMessageError, subcodeByte(Subcode::optionalAttributeError), whole, attrType, false);
   }
}

void BgpUpdateDecoder::Run::mandatoryAttributes() {
   // RFC 7606 section 3.d; RFC 4760 section 3 asks for ORIGIN and AS_PATH with MP_REACH_NLRI;
   // NEXT_HOP only serves the NLRI field. An UPDATE whose attributes were cut short has been
   // withdrawn already.
   if (!attributesComplete_) return;
   bool const announces = !out_.ipv4Nlri.empty() || out_.mpReach.present;
   if (!announces) return;
   BgpParseUpdateAttributesScratchpad const& a = *out_.attributes;
   at_ = nullptr;
   if (!a.origin && !hasError(BgpAttrType::origin)) withdraw(Reason::missingOrigin, BgpAttrType::origin);
   if (!a.asPath.present && !hasError(BgpAttrType::asPath)) withdraw(Reason::missingAsPath, BgpAttrType::asPath);
   if (!out_.ipv4Nlri.empty() && !a.ipv4NextHop && !hasError(BgpAttrType::nextHop)) {
      withdraw(Reason::missingNextHop, BgpAttrType::nextHop);
   }
}

// ---- Decoder ----

BgpUpdateDecoder::BgpUpdateDecoder(Ovk::Ptr<BgpParseContext> parseContext, Options options)
    : parseContext_(std::move(parseContext)), options_(options) {
   parsed_.attributes = Ovk::makePtr<BgpParseUpdateAttributesScratchpad>(results_);
}

BgpUpdateDecoder::~BgpUpdateDecoder() = default;

void BgpUpdateDecoder::ruleCollectionsIs(Ovk::Ptr<BgpParseRuleCollections> const& collections,
                                         BgpParseControl const& parseControl) {
   AfiSafi const afiSafi = collections->afiSafi();
   families_[afiSafi] = {collections, parseControl};
   collections->mpReachNlriNextHopRuleInstanceIs({afiSafi}, parseControl);
   collections->updateMessageRuleInstanceIs({afiSafi, parseControl.addPathReceive}, parseControl);
}

void BgpUpdateDecoder::internRouteKeys() {
   std::vector<BgpParsedNlri>& nlri = parsed_.nlri;
   // The NLRI of one attribute come together: one table per run of a family.
   for (std::size_t begin = 0; begin < nlri.size();) {
      AfiSafi const family = nlri[begin].afiSafi;
      std::size_t end = begin;
      keyScratch_.clear();
      for (; end < nlri.size() && nlri[end].afiSafi == family; ++end) {
         Ovk::Ptr<RouteKey const>& key = nlri[end].routeKey;
         if (key && key->dedupState() == Ovk::DedupHandleState::neverDeduped) keyScratch_.push_back(&key);
      }
      if (!keyScratch_.empty()) {
         DedupTablesVrf const* const vrf = parseContext_->dedupVrfTablesRawPtr();
         DedupTablesVrfAfiSafi const* const tables = vrf ? vrf->dedupTablesVrfAfiSafi(family) : nullptr;
         RouteKeyDedupTableBase const* const table = tables ? tables->routeKeyDedupTableRawPtr() : nullptr;
         // A rule hands over keys of a family only when it has the family's table.
         OVK_ASSERT(table != nullptr);
         table->dedupRouteKeys(keyScratch_);
      }
      begin = end;
   }
}

Ovk::Ptr<BgpParseRuleCollections> BgpUpdateDecoder::ruleCollections(AfiSafi afiSafi) const {
   auto const it = families_.find(afiSafi);
   return it == families_.end() ? nullptr : it->second.collections;
}

BgpParsedUpdate const& BgpUpdateDecoder::decode(std::span<std::uint8_t const> message) {
   BgpParsedUpdate& p = parsed_;
   p.message = message;
   p.action = BgpUpdateAction::accept;
   p.notification.reset();
   p.errors.clear();
   p.withdrawnRoutes = {};
   p.ipv4Nlri = {};
   p.pathAttributes = {};
   p.attributeCount = 0;
   p.mpReach = {};
   p.mpUnreach = {};
   p.nlri.clear();
   p.attributes->clear();

   // The message's route keys are interned together once it has been read (the rules hand
   // them over filled, not interned): a large table's cache misses then overlap.
   parseContext_->routeKeyDedupDeferredIs(true);
   Run(*this, message).decode();
   parseContext_->routeKeyDedupDeferredIs(false);
   internRouteKeys();

   ++counters_.messages;
   ++counters_.actions[static_cast<std::size_t>(p.action)];
   for (BgpParsedMpAttribute const* mp : {&p.mpReach, &p.mpUnreach}) {
      if (mp->present && mp->parsed) ++counters_.families[mp->afiSafi].updates;
   }
   BgpUpdateDecoderCounters::Family* f = nullptr;
   AfiSafi family;
   for (BgpParsedNlri const& n : p.nlri) {
      // The NLRI of one attribute come together: one lookup per run of a family.
      if (!f || n.afiSafi != family) {
         family = n.afiSafi;
         f = &counters_.families[family];
      }
      if (!n.routeKey) {
         ++f->refused;
      } else if (n.reachable) {
         ++f->announced;
      } else {
         ++f->withdrawn;
      }
   }
   for (auto const& [reason, n] : results_->counts()) counters_.reasons[reason] += n;
   return p;
}

} // namespace Routing::Bgp
