#include "agent/BgpMessage.h"

#include <algorithm>
#include <array>

namespace Flowspecd {

namespace {

constexpr std::uint8_t kParamCapabilities = 2;
constexpr std::uint8_t kCapMultiprotocol = 1;
constexpr std::uint8_t kCapRouteRefresh = 2;
constexpr std::uint8_t kCapFourOctetAs = 65;
constexpr std::uint8_t kAttrMpReach = 14;
constexpr std::uint8_t kAttrMpUnreach = 15;
constexpr std::uint8_t kAttrFlagOptional = 0x80;
constexpr std::uint8_t kAttrFlagExtendedLength = 0x10;

Notification notify(std::uint8_t code, std::uint8_t subcode, Bytes data = {}) {
   return Notification{code, subcode, std::move(data)};
}

Bytes u16Bytes(std::uint16_t v) {
   return {static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v)};
}

// Starts a message: marker and type; the length is patched by finish().
ByteWriter startMessage(Bytes& out, MessageType type) {
   out.assign(16, 0xff);
   ByteWriter w(out);
   w.u16(0);
   w.u8(static_cast<std::uint8_t>(type));
   return w;
}

void finish(ByteWriter& w) { w.patchU16(16, static_cast<std::uint16_t>(w.size())); }

struct LengthBounds {
   std::size_t min;
   std::size_t max;
};

// RFC 4271 section 4 and RFC 2918 section 3: the sizes each message type may have.
std::optional<LengthBounds> boundsOf(std::uint8_t type) {
   switch (type) {
   case 1: return LengthBounds{29, kMaxMessageSize};
   case 2: return LengthBounds{23, kMaxMessageSize};
   case 3: return LengthBounds{21, kMaxMessageSize};
   case 4: return LengthBounds{19, 19};
   case 5: return LengthBounds{23, 23};
   default: return std::nullopt;
   }
}

char const* codeName(std::uint8_t code) {
   switch (code) {
   case 1: return "Message Header Error";
   case 2: return "OPEN Message Error";
   case 3: return "UPDATE Message Error";
   case 4: return "Hold Timer Expired";
   case 5: return "Finite State Machine Error";
   case 6: return "Cease";
   case 7: return "ROUTE-REFRESH Message Error";
   default: return "Unknown Error";
   }
}

char const* subcodeName(std::uint8_t code, std::uint8_t sub) {
   static constexpr std::array<char const*, 4> header{nullptr, "Connection Not Synchronized",
                                                      "Bad Message Length", "Bad Message Type"};
   static constexpr std::array<char const*, 8> open{
      nullptr, "Unsupported Version Number", "Bad Peer AS", "Bad BGP Identifier",
      "Unsupported Optional Parameter", "Authentication Failure", "Unacceptable Hold Time",
      "Unsupported Capability"};
   static constexpr std::array<char const*, 12> update{
      nullptr, "Malformed Attribute List", "Unrecognized Well-known Attribute",
      "Missing Well-known Attribute", "Attribute Flags Error", "Attribute Length Error",
      "Invalid ORIGIN Attribute", "AS Routing Loop", "Invalid NEXT_HOP Attribute",
      "Optional Attribute Error", "Invalid Network Field", "Malformed AS_PATH"};
   static constexpr std::array<char const*, 4> fsm{
      nullptr, "Receive Unexpected Message in OpenSent State",
      "Receive Unexpected Message in OpenConfirm State",
      "Receive Unexpected Message in Established State"};
   static constexpr std::array<char const*, 11> cease{
      nullptr, "Maximum Number of Prefixes Reached", "Administrative Shutdown",
      "Peer De-configured", "Administrative Reset", "Connection Rejected",
      "Other Configuration Change", "Connection Collision Resolution", "Out of Resources",
      "Hard Reset", "BFD Down"};
   static constexpr std::array<char const*, 2> refresh{nullptr, "Invalid Message Length"};
   auto pick = [sub](auto const& table) -> char const* { return sub < table.size() ? table[sub] : nullptr; };
   switch (code) {
   case 1: return pick(header);
   case 2: return pick(open);
   case 3: return pick(update);
   case 5: return pick(fsm);
   case 6: return pick(cease);
   case 7: return pick(refresh);
   default: return nullptr;
   }
}

} // namespace

char const* messageTypeName(MessageType t) {
   switch (t) {
   case MessageType::open: return "OPEN";
   case MessageType::update: return "UPDATE";
   case MessageType::notification: return "NOTIFICATION";
   case MessageType::keepalive: return "KEEPALIVE";
   case MessageType::routeRefresh: return "ROUTE-REFRESH";
   }
   return "UNKNOWN";
}

std::string familyName(AfiSafi f) {
   if (f == kIpv4Flowspec) return "ipv4-flowspec";
   if (f == kIpv6Flowspec) return "ipv6-flowspec";
   return std::to_string(afiNumber(f)) + "/" + std::to_string(f.safi());
}

std::optional<AfiSafi> familyFromName(std::string_view name) {
   if (name == "ipv4-flowspec") return kIpv4Flowspec;
   if (name == "ipv6-flowspec") return kIpv6Flowspec;
   return std::nullopt;
}

std::string notificationText(Notification const& n) {
   std::string text = codeName(n.code);
   if (char const* sub = subcodeName(n.code, n.subcode)) {
      text += "/";
      text += sub;
   }
   text += " (" + std::to_string(n.code) + "/" + std::to_string(n.subcode) + ")";
   // RFC 8203: a length octet, then that many octets of UTF-8.
   bool const communication = n.code == ErrorCode::cease &&
                              (n.subcode == CeaseSubcode::administrativeShutdown ||
                               n.subcode == CeaseSubcode::administrativeReset);
   if (communication && !n.data.empty() && n.data[0] > 0 && n.data.size() >= 1u + n.data[0]) {
      text += " \"";
      for (std::size_t i = 1; i <= n.data[0]; ++i) {
         char const c = static_cast<char>(n.data[i]);
         text += (c == '"' || c == '\\' || n.data[i] < 0x20) ? '?' : c;
      }
      text += "\"";
   }
   return text;
}

Notification ceaseWithMessage(std::uint8_t subcode, std::string_view message) {
   Notification n{ErrorCode::cease, subcode, {}};
   std::size_t const len = std::min<std::size_t>(message.size(), 255);
   n.data.resize(1 + len);
   n.data[0] = static_cast<std::uint8_t>(len);
   std::transform(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(len), n.data.begin() + 1,
                  [](char c) { return static_cast<std::uint8_t>(c); });
   return n;
}

Ovk::Result<Header, Notification> parseHeader(ByteView header) {
   ByteCursor c(header);
   ByteView marker;
   std::uint16_t length = 0;
   std::uint8_t type = 0;
   if (!c.view(16, marker) || !c.u16(length) || !c.u8(type)) {
      return Ovk::failure(notify(ErrorCode::messageHeader, HeaderSubcode::badMessageLength));
   }
   if (!std::all_of(marker.begin(), marker.end(), [](std::uint8_t b) { return b == 0xff; })) {
      return Ovk::failure(notify(ErrorCode::messageHeader, HeaderSubcode::connectionNotSynchronized));
   }
   if (length < kHeaderSize || length > kMaxMessageSize) {
      return Ovk::failure(notify(ErrorCode::messageHeader, HeaderSubcode::badMessageLength, u16Bytes(length)));
   }
   auto const bounds = boundsOf(type);
   if (!bounds) {
      return Ovk::failure(notify(ErrorCode::messageHeader, HeaderSubcode::badMessageType, Bytes{type}));
   }
   if (length < bounds->min || length > bounds->max) {
      return Ovk::failure(notify(ErrorCode::messageHeader, HeaderSubcode::badMessageLength, u16Bytes(length)));
   }
   return Header{static_cast<MessageType>(type), length};
}

void MessageFramer::feed(ByteView data) {
   if (broken_) return;
   // Drop what was consumed before growing, so the buffer stays near one message in size.
   if (start_ > 0 && start_ >= buffer_.size() / 2) {
      buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start_));
      start_ = 0;
   }
   buffer_.insert(buffer_.end(), data.begin(), data.end());
}

std::optional<Ovk::Result<Message, Notification>> MessageFramer::next() {
   if (broken_ || buffered() < kHeaderSize) return std::nullopt;
   ByteView const pending = ByteView(buffer_).subspan(start_);
   auto header = parseHeader(pending.first(kHeaderSize));
   if (!header) {
      broken_ = true;
      return Ovk::Result<Message, Notification>(Ovk::failure(header.reason()));
   }
   std::size_t const length = header.value().length;
   if (pending.size() < length) return std::nullopt;
   Message m{header.value().type, Bytes(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(length))};
   start_ += length;
   if (start_ == buffer_.size()) {
      buffer_.clear();
      start_ = 0;
   }
   return Ovk::Result<Message, Notification>(std::move(m));
}

OpenMessage localOpen(std::uint32_t as, std::uint16_t holdTime, std::uint32_t bgpId,
                      std::vector<AfiSafi> families) {
   OpenMessage o;
   o.myAs = as > 0xffff ? kAsTrans : static_cast<std::uint16_t>(as);
   o.holdTime = holdTime;
   o.bgpId = bgpId;
   o.fourOctetAs = as;
   o.families = std::move(families);
   o.routeRefresh = true;
   return o;
}

Bytes multiprotocolCapabilities(std::vector<AfiSafi> const& families) {
   Bytes caps;
   ByteWriter c(caps);
   for (AfiSafi const f : families) {
      c.u8(kCapMultiprotocol);
      c.u8(4);
      c.u16(afiNumber(f));
      c.u8(0);
      c.u8(f.safi());
   }
   return caps;
}

Bytes encodeOpen(OpenMessage const& open) {
   Bytes out;
   ByteWriter w = startMessage(out, MessageType::open);
   w.u8(open.version);
   w.u16(open.myAs);
   w.u16(open.holdTime);
   w.u32(open.bgpId);
   std::size_t const optLenAt = w.size();
   w.u8(0);
   Bytes caps = multiprotocolCapabilities(open.families);
   ByteWriter c(caps);
   if (open.routeRefresh) {
      c.u8(kCapRouteRefresh);
      c.u8(0);
   }
   if (open.fourOctetAs) {
      c.u8(kCapFourOctetAs);
      c.u8(4);
      c.u32(*open.fourOctetAs);
   }
   if (!caps.empty()) {
      // A handful of capabilities fits one parameter (at most 255 bytes) by far.
      w.u8(kParamCapabilities);
      w.u8(static_cast<std::uint8_t>(caps.size()));
      w.bytes(caps);
      w.patchU8(optLenAt, static_cast<std::uint8_t>(caps.size() + 2));
   }
   finish(w);
   return out;
}

Ovk::Result<OpenMessage, Notification> parseOpen(ByteView body) {
   ByteCursor c(body);
   OpenMessage o;
   std::uint8_t optLen = 0;
   auto const unspecific = notify(ErrorCode::open, OpenSubcode::unspecific);
   if (!c.u8(o.version)) return Ovk::failure(unspecific);
   // RFC 4271 section 6.2: the data is the largest version we support.
   if (o.version != kBgpVersion) {
      return Ovk::failure(notify(ErrorCode::open, OpenSubcode::unsupportedVersion, u16Bytes(kBgpVersion)));
   }
   ByteCursor params(ByteView{});
   if (!c.u16(o.myAs) || !c.u16(o.holdTime) || !c.u32(o.bgpId) || !c.u8(optLen) ||
       !c.sub(optLen, params) || !c.empty()) {
      return Ovk::failure(unspecific);
   }
   while (!params.empty()) {
      std::uint8_t type = 0, len = 0;
      ByteCursor value(ByteView{});
      if (!params.u8(type) || !params.u8(len) || !params.sub(len, value)) return Ovk::failure(unspecific);
      if (type != kParamCapabilities) {
         return Ovk::failure(notify(ErrorCode::open, OpenSubcode::unsupportedOptionalParameter));
      }
      while (!value.empty()) {
         std::uint8_t code = 0, capLen = 0;
         ByteCursor cap(ByteView{});
         if (!value.u8(code) || !value.u8(capLen) || !value.sub(capLen, cap)) return Ovk::failure(unspecific);
         switch (code) {
         case kCapMultiprotocol: {
            std::uint16_t afi = 0;
            std::uint8_t reserved = 0, safi = 0;
            if (capLen != 4 || !cap.u16(afi) || !cap.u8(reserved) || !cap.u8(safi)) {
               return Ovk::failure(unspecific);
            }
            AfiSafi const f = afiSafi(afi, safi);
            if (std::find(o.families.begin(), o.families.end(), f) == o.families.end()) o.families.push_back(f);
            break;
         }
         case kCapRouteRefresh:
            o.routeRefresh = true;
            break;
         case kCapFourOctetAs: {
            std::uint32_t as = 0;
            if (capLen != 4 || !cap.u32(as)) return Ovk::failure(unspecific);
            o.fourOctetAs = as;
            break;
         }
         default:
            o.otherCapabilities.push_back(code);
            break;
         }
      }
   }
   return o;
}

std::optional<Notification> checkOpen(OpenMessage const& remote, OpenExpectations const& expect) {
   // RFC 6793 section 4.1: a 4-octet AS of AS_TRANS is as wrong as any other mismatch.
   if (remote.as() != expect.remoteAs || remote.as() == 0 ||
       (remote.fourOctetAs && *remote.fourOctetAs == kAsTrans)) {
      return notify(ErrorCode::open, OpenSubcode::badPeerAs);
   }
   // RFC 6286: any non-zero identifier, unique within the AS.
   if (remote.bgpId == 0 || (remote.bgpId == expect.localBgpId && expect.remoteAs == expect.localAs)) {
      return notify(ErrorCode::open, OpenSubcode::badBgpIdentifier);
   }
   if (remote.holdTime == 1 || remote.holdTime == 2) {
      return notify(ErrorCode::open, OpenSubcode::unacceptableHoldTime);
   }
   return std::nullopt;
}

Negotiated negotiate(OpenMessage const& local, OpenMessage const& remote) {
   Negotiated n;
   n.holdTime = std::min(local.holdTime, remote.holdTime);
   n.keepaliveTime = static_cast<std::uint16_t>(n.holdTime / 3);
   for (AfiSafi const f : local.families) {
      if (std::find(remote.families.begin(), remote.families.end(), f) != remote.families.end()) {
         n.families.push_back(f);
      }
   }
   n.fourOctetAs = local.fourOctetAs.has_value() && remote.fourOctetAs.has_value();
   n.routeRefresh = local.routeRefresh && remote.routeRefresh;
   return n;
}

std::vector<std::string> capabilityNames(Negotiated const& n) {
   std::vector<std::string> names;
   if (!n.families.empty()) names.emplace_back("multiprotocol");
   if (n.routeRefresh) names.emplace_back("route-refresh");
   if (n.fourOctetAs) names.emplace_back("four-octet-as");
   return names;
}

Bytes encodeKeepalive() {
   Bytes out;
   ByteWriter w = startMessage(out, MessageType::keepalive);
   finish(w);
   return out;
}

Bytes encodeNotification(Notification const& n) {
   Bytes out;
   ByteWriter w = startMessage(out, MessageType::notification);
   w.u8(n.code);
   w.u8(n.subcode);
   // Keep the whole message within the maximum size.
   std::size_t const room = kMaxMessageSize - kHeaderSize - 2;
   w.bytes(ByteView(n.data).first(std::min(room, n.data.size())));
   finish(w);
   return out;
}

Ovk::Result<Notification, Notification> parseNotification(ByteView body) {
   ByteCursor c(body);
   Notification n;
   if (!c.u8(n.code) || !c.u8(n.subcode)) {
      return Ovk::failure(notify(ErrorCode::messageHeader, HeaderSubcode::badMessageLength));
   }
   ByteView rest = c.rest();
   n.data.assign(rest.begin(), rest.end());
   return n;
}

Bytes encodeRouteRefresh(AfiSafi family) {
   Bytes out;
   ByteWriter w = startMessage(out, MessageType::routeRefresh);
   w.u16(afiNumber(family));
   w.u8(0);
   w.u8(family.safi());
   finish(w);
   return out;
}

Ovk::Result<AfiSafi, Notification> parseRouteRefresh(ByteView body) {
   ByteCursor c(body);
   std::uint16_t afi = 0;
   std::uint8_t reserved = 0, safi = 0;
   if (!c.u16(afi) || !c.u8(reserved) || !c.u8(safi) || !c.empty()) {
      return Ovk::failure(notify(ErrorCode::routeRefresh, 1));
   }
   return afiSafi(afi, safi);
}

std::optional<AfiSafi> UpdateSummary::endOfRib() const {
   if (withdrawnBytes != 0 || nlriBytes != 0) return std::nullopt;
   if (attributeCount == 0) return kIpv4Unicast;
   if (attributeCount == 1 && parts.size() == 1 && !parts[0].reach && parts[0].nlriBytes == 0) {
      return parts[0].family;
   }
   return std::nullopt;
}

Ovk::Result<UpdateSummary, Notification> summarizeUpdate(ByteView body) {
   auto const malformed = notify(ErrorCode::update, UpdateSubcode::malformedAttributeList);
   auto const optionalError = notify(ErrorCode::update, UpdateSubcode::optionalAttributeError);
   ByteCursor c(body);
   UpdateSummary s;
   std::uint16_t withdrawnLen = 0, attrLen = 0;
   ByteCursor attrs(ByteView{});
   if (!c.u16(withdrawnLen) || !c.skip(withdrawnLen) || !c.u16(attrLen) || !c.sub(attrLen, attrs)) {
      return Ovk::failure(malformed);
   }
   s.withdrawnBytes = withdrawnLen;
   s.nlriBytes = c.remaining();
   bool sawReach = false, sawUnreach = false;
   while (!attrs.empty()) {
      std::uint8_t flags = 0, type = 0;
      std::size_t len = 0;
      if (!attrs.u8(flags) || !attrs.u8(type)) return Ovk::failure(malformed);
      if (flags & kAttrFlagExtendedLength) {
         std::uint16_t l = 0;
         if (!attrs.u16(l)) return Ovk::failure(malformed);
         len = l;
      } else {
         std::uint8_t l = 0;
         if (!attrs.u8(l)) return Ovk::failure(malformed);
         len = l;
      }
      ByteCursor value(ByteView{});
      if (!attrs.sub(len, value)) return Ovk::failure(malformed);
      ++s.attributeCount;
      if (type != kAttrMpReach && type != kAttrMpUnreach) continue;
      // RFC 7606 section 3 (g): a second MP_REACH_NLRI or MP_UNREACH_NLRI resets the session.
      bool& seen = type == kAttrMpReach ? sawReach : sawUnreach;
      if (seen) return Ovk::failure(malformed);
      seen = true;
      UpdateSummary::Part part;
      part.reach = type == kAttrMpReach;
      std::uint16_t afi = 0;
      std::uint8_t safi = 0;
      if (!value.u16(afi) || !value.u8(safi)) return Ovk::failure(optionalError);
      part.family = afiSafi(afi, safi);
      if (part.reach) {
         std::uint8_t nextHopLen = 0, reserved = 0;
         if (!value.u8(nextHopLen) || !value.skip(nextHopLen) || !value.u8(reserved)) {
            return Ovk::failure(optionalError);
         }
      }
      part.nlriBytes = value.remaining();
      s.parts.push_back(part);
   }
   return s;
}

Bytes encodeEndOfRib(AfiSafi family) {
   Bytes out;
   ByteWriter w = startMessage(out, MessageType::update);
   w.u16(0); // withdrawn routes
   w.u16(6); // path attributes: one MP_UNREACH_NLRI holding only the family
   w.u8(kAttrFlagOptional);
   w.u8(kAttrMpUnreach);
   w.u8(3);
   w.u16(afiNumber(family));
   w.u8(family.safi());
   finish(w);
   return out;
}

} // namespace Flowspecd
