#include "host/bgp/BgpMessage.h"

#include <algorithm>
#include <array>

namespace Routing::Bgp {

namespace {

constexpr std::uint8_t kParamCapabilities = 2;
constexpr std::uint8_t kCapMultiprotocol = 1;
constexpr std::uint8_t kCapRouteRefresh = 2;
constexpr std::uint8_t kCapFourOctetAs = 65;
constexpr std::uint8_t kCapGracefulRestart = 64;
// RFC 4724 section 3 and RFC 8538 section 2: the flags in the top bits of the first two
// octets, and each family's flags octet.
constexpr std::uint16_t kGrRestarting = 0x8000;
constexpr std::uint16_t kGrNotification = 0x4000;
constexpr std::uint8_t kGrForwarding = 0x80;

Notification notify(std::uint8_t code, std::uint8_t subcode, Bytes data = {}) {
   return Notification{code, subcode, std::move(data)};
}

Bytes u16Bytes(std::uint16_t v) { return {static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v)}; }

struct LengthBounds {
   std::size_t min;
   std::size_t max;
};

// RFC 4271 section 4 and RFC 2918 section 3: the sizes each message type may have (the
// largest message size is checked apart).
std::optional<LengthBounds> boundsOf(std::uint8_t type) {
   constexpr std::size_t kAny = 0xffff;
   switch (type) {
   case 1: return LengthBounds{29, kAny};
   case 2: return LengthBounds{23, kAny};
   case 3: return LengthBounds{21, kAny};
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
   static constexpr std::array<char const*, 4> header{nullptr, "Connection Not Synchronized", "Bad Message Length",
                                                      "Bad Message Type"};
   static constexpr std::array<char const*, 8> open{nullptr,
                                                    "Unsupported Version Number",
                                                    "Bad Peer AS",
                                                    "Bad BGP Identifier",
                                                    "Unsupported Optional Parameter",
                                                    "Authentication Failure",
                                                    "Unacceptable Hold Time",
                                                    "Unsupported Capability"};
   static constexpr std::array<char const*, 12> update{nullptr,
                                                       "Malformed Attribute List",
                                                       "Unrecognized Well-known Attribute",
                                                       "Missing Well-known Attribute",
                                                       "Attribute Flags Error",
                                                       "Attribute Length Error",
                                                       "Invalid ORIGIN Attribute",
                                                       "AS Routing Loop",
                                                       "Invalid NEXT_HOP Attribute",
                                                       "Optional Attribute Error",
                                                       "Invalid Network Field",
                                                       "Malformed AS_PATH"};
   static constexpr std::array<char const*, 4> fsm{nullptr, "Receive Unexpected Message in OpenSent State",
                                                   "Receive Unexpected Message in OpenConfirm State",
                                                   "Receive Unexpected Message in Established State"};
   static constexpr std::array<char const*, 11> cease{nullptr,
                                                      "Maximum Number of Prefixes Reached",
                                                      "Administrative Shutdown",
                                                      "Peer De-configured",
                                                      "Administrative Reset",
                                                      "Connection Rejected",
                                                      "Other Configuration Change",
                                                      "Connection Collision Resolution",
                                                      "Out of Resources",
                                                      "Hard Reset",
                                                      "BFD Down"};
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
   // The other families a peer may name, as people write them; the numbers otherwise.
   static constexpr struct {
      std::uint16_t afi;
      std::uint8_t safi;
      char const* name;
   } kNames[] = {{1, 1, "ipv4-unicast"},        {2, 1, "ipv6-unicast"},       {1, 2, "ipv4-multicast"},
                 {2, 2, "ipv6-multicast"},      {1, 128, "ipv4-vpn"},         {2, 128, "ipv6-vpn"},
                 {1, 134, "ipv4-flowspec-vpn"}, {2, 134, "ipv6-flowspec-vpn"}};
   for (auto const& n : kNames) {
      if (afiNumber(f) == n.afi && f.safi() == n.safi) return n.name;
   }
   return std::to_string(afiNumber(f)) + "/" + std::to_string(f.safi());
}

std::optional<AfiSafi> familyFromName(std::string_view name) {
   if (name == "ipv4-flowspec") return kIpv4Flowspec;
   if (name == "ipv6-flowspec") return kIpv6Flowspec;
   if (name == "ipv4-unicast") return kIpv4Unicast;
   if (name == "ipv6-unicast") return kIpv6Unicast;
   return std::nullopt;
}

std::string notificationText(Notification const& n) {
   std::string text = codeName(n.code);
   if (char const* sub = subcodeName(n.code, n.subcode)) {
      text += "/";
      text += sub;
   }
   text += " (" + std::to_string(n.code) + "/" + std::to_string(n.subcode) + ")";
   // RFC 8538 section 3: the data is the NOTIFICATION the Hard Reset stands for.
   if (isHardReset(n) && n.data.size() >= 2) {
      Notification const inner{n.data[0], n.data[1], Bytes(n.data.begin() + 2, n.data.end())};
      if (!isHardReset(inner)) return text + " for " + notificationText(inner);
   }
   // RFC 8203: a length octet, then that many octets of UTF-8.
   bool const communication = n.code == ErrorCode::cease && (n.subcode == CeaseSubcode::administrativeShutdown ||
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

Notification ceaseMaxPrefixes(AfiSafi family, std::uint32_t limit) {
   std::uint16_t const afi = afiNumber(family);
   return Notification{ErrorCode::cease,
                       CeaseSubcode::maxPrefixes,
                       {static_cast<std::uint8_t>(afi >> 8), static_cast<std::uint8_t>(afi), family.safi(),
                        static_cast<std::uint8_t>(limit >> 24), static_cast<std::uint8_t>(limit >> 16),
                        static_cast<std::uint8_t>(limit >> 8), static_cast<std::uint8_t>(limit)}};
}

Notification hardReset(Notification const& inner) {
   Notification n{ErrorCode::cease, CeaseSubcode::hardReset, {}};
   n.data.reserve(2 + inner.data.size());
   n.data.push_back(inner.code);
   n.data.push_back(inner.subcode);
   for (std::uint8_t const b : inner.data) n.data.push_back(b);
   return n;
}

bool isHardReset(Notification const& n) {
   return n.code == ErrorCode::cease && n.subcode == CeaseSubcode::hardReset;
}

GracefulRestartFamily const* GracefulRestartCapability::find(AfiSafi family) const {
   auto const it = std::find_if(families.begin(), families.end(),
                                [family](GracefulRestartFamily const& f) { return f.family == family; });
   return it == families.end() ? nullptr : &*it;
}

Ovk::Result<Header, Notification> parseHeader(ByteView header, std::size_t maxMessageSize) {
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
   if (length < kHeaderSize || length > maxMessageSize) {
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
   if (start_ == buffer_.size()) {
      buffer_.clear();
      start_ = 0;
   }
   // Drop what was consumed before growing, so the buffer stays near one message in size.
   if (start_ > 0 && start_ >= buffer_.size() / 2) {
      buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start_));
      start_ = 0;
   }
   buffer_.insert(buffer_.end(), data.begin(), data.end());
}

std::optional<Ovk::Result<MessageView, Notification>> MessageFramer::nextView() {
   if (broken_ || buffered() < kHeaderSize) return std::nullopt;
   ByteView const pending = ByteView(buffer_).subspan(start_);
   auto header = parseHeader(pending.first(kHeaderSize), maxMessageSize_);
   if (!header) {
      broken_ = true;
      return Ovk::Result<MessageView, Notification>(Ovk::failure(header.reason()));
   }
   std::size_t const length = header.value().length;
   if (pending.size() < length) return std::nullopt;
   start_ += length;
   // The bytes stay where they are until the next feed().
   return Ovk::Result<MessageView, Notification>(MessageView{header.value().type, pending.first(length)});
}

std::optional<Ovk::Result<Message, Notification>> MessageFramer::next() {
   auto view = nextView();
   if (!view) return std::nullopt;
   if (!*view) return Ovk::Result<Message, Notification>(Ovk::failure(view->reason()));
   MessageView const& v = view->value();
   return Ovk::Result<Message, Notification>(Message{v.type, Bytes(v.bytes.begin(), v.bytes.end())});
}

OpenMessage localOpen(std::uint32_t as, std::uint16_t holdTime, std::uint32_t bgpId, std::vector<AfiSafi> families) {
   OpenMessage o;
   o.myAs = as > 0xffff ? kAsTrans : static_cast<std::uint16_t>(as);
   o.holdTime = holdTime;
   o.bgpId = bgpId;
   o.fourOctetAs = as;
   o.families = std::move(families);
   o.routeRefresh = true;
   return o;
}

namespace {

void addMultiprotocolCapabilities(Serialize& c, std::vector<AfiSafi> const& families) {
   for (AfiSafi const f : families) {
      c.addU8(kCapMultiprotocol);
      c.addU8(4);
      c.addU16(afiNumber(f));
      c.addU8(0);
      c.addU8(f.safi());
   }
}

} // namespace

void startMessage(Serialize& out, MessageType type) {
   out.clear();
   for (int i = 0; i < 16; ++i) out.addU8(0xff);
   out.addU16(0);
   out.addU8(static_cast<std::uint8_t>(type));
}

void finishMessage(Serialize& out) { out.patchU16(16, static_cast<std::uint16_t>(out.size())); }

Bytes multiprotocolCapabilities(std::vector<AfiSafi> const& families) {
   Serialize caps;
   addMultiprotocolCapabilities(caps, families);
   return caps.byteVector();
}

Bytes encodeOpen(OpenMessage const& open) {
   Serialize w;
   startMessage(w, MessageType::open);
   w.addU8(open.version);
   w.addU16(open.myAs);
   w.addU16(open.holdTime);
   w.addU32(open.bgpId);
   std::size_t const optLenAt = w.size();
   w.addU8(0);
   Serialize caps;
   addMultiprotocolCapabilities(caps, open.families);
   if (open.routeRefresh) {
      caps.addU8(kCapRouteRefresh);
      caps.addU8(0);
   }
   if (open.fourOctetAs) {
      caps.addU8(kCapFourOctetAs);
      caps.addU8(4);
      caps.addU32(*open.fourOctetAs);
   }
   if (open.gracefulRestart) {
      GracefulRestartCapability const& gr = *open.gracefulRestart;
      // Two flag-and-time octets and four per family: the agent's two families fit by far.
      std::size_t const n = std::min<std::size_t>(gr.families.size(), (255 - 2) / 4);
      caps.addU8(kCapGracefulRestart);
      caps.addU8(static_cast<std::uint8_t>(2 + 4 * n));
      caps.addU16(static_cast<std::uint16_t>((gr.restarting ? kGrRestarting : 0) |
                                             (gr.notification ? kGrNotification : 0) |
                                             std::min(gr.restartTime, GracefulRestartCapability::kMaxRestartTime)));
      for (std::size_t i = 0; i < n; ++i) {
         caps.addU16(afiNumber(gr.families[i].family));
         caps.addU8(gr.families[i].family.safi());
         caps.addU8(gr.families[i].forwardingPreserved ? kGrForwarding : 0);
      }
   }
   if (caps.size() != 0) {
      // A handful of capabilities fits one parameter (at most 255 bytes) by far.
      w.addU8(kParamCapabilities);
      w.addU8(static_cast<std::uint8_t>(caps.size()));
      w.addData(caps.bytes());
      w.patchU8(optLenAt, static_cast<std::uint8_t>(caps.size() + 2));
   }
   finishMessage(w);
   return w.byteVector();
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
   if (!c.u16(o.myAs) || !c.u16(o.holdTime) || !c.u32(o.bgpId) || !c.u8(optLen) || !c.sub(optLen, params) ||
       !c.empty()) {
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
         case kCapRouteRefresh: o.routeRefresh = true; break;
         case kCapGracefulRestart: {
            // RFC 4724 section 3: the last instance counts. One whose length leaves a part of
            // a family is not read (kept among the others' codes): the session goes on
            // without graceful restart rather than ending over it.
            std::uint16_t flagsAndTime = 0;
            if (capLen < 2 || (capLen - 2) % 4 != 0 || !cap.u16(flagsAndTime)) {
               o.otherCapabilities.push_back(code);
               break;
            }
            GracefulRestartCapability gr;
            gr.restarting = (flagsAndTime & kGrRestarting) != 0;
            gr.notification = (flagsAndTime & kGrNotification) != 0;
            gr.restartTime = flagsAndTime & GracefulRestartCapability::kMaxRestartTime;
            while (!cap.empty()) {
               std::uint16_t afi = 0;
               std::uint8_t safi = 0, flags = 0;
               if (!cap.u16(afi) || !cap.u8(safi) || !cap.u8(flags)) break; // not reached: length checked
               AfiSafi const f = afiSafi(afi, safi);
               if (!gr.find(f)) gr.families.push_back({f, (flags & kGrForwarding) != 0});
            }
            o.gracefulRestart = std::move(gr);
            break;
         }
         case kCapFourOctetAs: {
            std::uint32_t as = 0;
            if (capLen != 4 || !cap.u32(as)) return Ovk::failure(unspecific);
            o.fourOctetAs = as;
            break;
         }
         default: o.otherCapabilities.push_back(code); break;
         }
      }
   }
   return o;
}

std::optional<Notification> checkOpen(OpenMessage const& remote, OpenExpectations const& expect) {
   // RFC 6793 section 4.1: a 4-octet AS of AS_TRANS is as wrong as any other mismatch.
   if (remote.as() != expect.remoteAs || remote.as() == 0 || (remote.fourOctetAs && *remote.fourOctetAs == kAsTrans)) {
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
   if (local.gracefulRestart && remote.gracefulRestart) {
      GracefulRestartCapability peer = *remote.gracefulRestart;
      std::erase_if(peer.families, [&n](GracefulRestartFamily const& f) {
         return std::find(n.families.begin(), n.families.end(), f.family) == n.families.end();
      });
      n.gracefulNotification = local.gracefulRestart->notification && peer.notification;
      n.peerGracefulRestart = std::move(peer);
   }
   return n;
}

std::vector<std::string> capabilityNames(Negotiated const& n) {
   std::vector<std::string> names;
   if (!n.families.empty()) names.emplace_back("multiprotocol");
   if (n.routeRefresh) names.emplace_back("route-refresh");
   if (n.fourOctetAs) names.emplace_back("four-octet-as");
   if (n.peerGracefulRestart) names.emplace_back("graceful-restart");
   if (n.gracefulNotification) names.emplace_back("graceful-notification");
   return names;
}

Bytes encodeKeepalive() {
   Serialize w;
   startMessage(w, MessageType::keepalive);
   finishMessage(w);
   return w.byteVector();
}

Bytes encodeNotification(Notification const& n) {
   Serialize w;
   startMessage(w, MessageType::notification);
   w.addU8(n.code);
   w.addU8(n.subcode);
   // Keep the whole message within the maximum size.
   std::size_t const room = kMaxMessageSize - kHeaderSize - 2;
   w.addData(ByteView(n.data).first(std::min(room, n.data.size())));
   finishMessage(w);
   return w.byteVector();
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
   Serialize w;
   startMessage(w, MessageType::routeRefresh);
   w.addU16(afiNumber(family));
   w.addU8(0);
   w.addU8(family.safi());
   finishMessage(w);
   return w.byteVector();
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

Bytes encodeEndOfRib(AfiSafi family) {
   Serialize w;
   startMessage(w, MessageType::update);
   w.addU16(0); // withdrawn routes
   w.addU16(6); // path attributes: one MP_UNREACH_NLRI holding only the family
   w.addU8(BgpAttrFlag::optional);
   w.addU8(BgpAttrType::mpUnreachNlri);
   w.addU8(3);
   w.addU16(afiNumber(family));
   w.addU8(family.safi());
   finishMessage(w);
   return w.byteVector();
}

} // namespace Routing::Bgp
