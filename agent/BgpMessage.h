// BGP-4 messages on the wire (RFC 4271 section 4): the header and its framing on a byte
// stream, OPEN with the capabilities the agent speaks (multiprotocol RFC 4760, route refresh
// RFC 2918, 4-octet AS RFC 6793), KEEPALIVE, NOTIFICATION, ROUTE-REFRESH, and a summary of
// an UPDATE's address families.
//
// Everything that reads peer bytes returns a Result: the value, or the NOTIFICATION the
// session must send because of them. Nothing here throws or keeps state beyond the framer.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/ByteCursor.h"
#include "host/bgp/AfiSafi.h"
#include "host/fwk/Result.h"

namespace Flowspecd {

constexpr std::size_t kHeaderSize = 19;
constexpr std::size_t kMaxMessageSize = 4096;
constexpr std::uint8_t kBgpVersion = 4;
// RFC 6793: the 2-octet stand-in for an AS number above 65535.
constexpr std::uint16_t kAsTrans = 23456;

enum class MessageType : std::uint8_t {
   open = 1,
   update = 2,
   notification = 3,
   keepalive = 4,
   routeRefresh = 5,
};
// "OPEN", "UPDATE", ...
char const* messageTypeName(MessageType t);

// Address families are the host's packed AFI/SAFI pairs.
using Routing::Bgp::AfiSafi;
// The pair from its wire numbers, and back.
constexpr AfiSafi afiSafi(std::uint16_t afi, std::uint8_t safi) {
   return AfiSafi(static_cast<Routing::Bgp::Afi>(afi), safi);
}
constexpr std::uint16_t afiNumber(AfiSafi f) { return static_cast<std::uint16_t>(f.afi()); }
inline constexpr AfiSafi kIpv4Flowspec = AfiSafi::ipv4Flowspec();
inline constexpr AfiSafi kIpv6Flowspec = AfiSafi::ipv6Flowspec();
inline constexpr AfiSafi kIpv4Unicast = afiSafi(1, Routing::Bgp::Safi::unicast);
// "ipv4-flowspec", "ipv6-flowspec"; other families as "afi/safi" numbers ("1/1").
std::string familyName(AfiSafi f);
// The flowspec family of a configuration name; nothing for any other text.
std::optional<AfiSafi> familyFromName(std::string_view name);

// NOTIFICATION error codes (RFC 4271 section 4.5, RFC 7313) and the subcodes the agent uses
// (RFC 4271 section 6, RFC 6608, RFC 4486).
namespace ErrorCode {
constexpr std::uint8_t messageHeader = 1, open = 2, update = 3, holdTimerExpired = 4, fsm = 5,
                       cease = 6, routeRefresh = 7;
}
namespace HeaderSubcode {
constexpr std::uint8_t connectionNotSynchronized = 1, badMessageLength = 2, badMessageType = 3;
}
namespace OpenSubcode {
constexpr std::uint8_t unspecific = 0, unsupportedVersion = 1, badPeerAs = 2, badBgpIdentifier = 3,
                       unsupportedOptionalParameter = 4, unacceptableHoldTime = 6,
                       unsupportedCapability = 7;
}
namespace UpdateSubcode {
constexpr std::uint8_t malformedAttributeList = 1, attributeLengthError = 5, optionalAttributeError = 9;
}
namespace FsmSubcode {
constexpr std::uint8_t inOpenSent = 1, inOpenConfirm = 2, inEstablished = 3;
}
namespace CeaseSubcode {
constexpr std::uint8_t administrativeShutdown = 2, peerDeconfigured = 3, administrativeReset = 4,
                       connectionRejected = 5, connectionCollision = 7;
}

// A NOTIFICATION: to send, or as received.
struct Notification {
   std::uint8_t code = 0;
   std::uint8_t subcode = 0;
   Bytes data;
   friend bool operator==(Notification const&, Notification const&) = default;
};
// "Cease/Administrative Shutdown (6/2)", followed by the shutdown communication of RFC 8203
// in double quotes when a Cease carries one.
std::string notificationText(Notification const& n);
// A Cease with an RFC 8203 shutdown communication (cut to 255 bytes), as peers send them.
Notification ceaseWithMessage(std::uint8_t subcode, std::string_view message);

// The fixed header. `length` covers the whole message, header included.
struct Header {
   MessageType type;
   std::uint16_t length;
};
// Reads a header of exactly kHeaderSize bytes: the marker must be all ones (else 1/1), the
// type known (else 1/3 with the type as data) and the length within the bounds of that type
// (else 1/2 with the length field as data).
Ovk::Result<Header, Notification> parseHeader(ByteView header);

// One whole message: its type and its bytes, header included.
struct Message {
   MessageType type;
   Bytes bytes;
   ByteView body() const { return ByteView(bytes).subspan(kHeaderSize); }
};

// Cuts a TCP byte stream into messages.
class MessageFramer {
 public:
   void feed(ByteView data);
   // The next whole message; nothing while more bytes are needed; or the NOTIFICATION the
   // broken stream calls for, after which the framer yields nothing more.
   std::optional<Ovk::Result<Message, Notification>> next();
   // Bytes received and not yet returned as messages.
   std::size_t buffered() const { return buffer_.size() - start_; }

 private:
   Bytes buffer_;
   std::size_t start_ = 0;
   bool broken_ = false;
};

// An OPEN message with the capabilities the agent understands.
struct OpenMessage {
   std::uint8_t version = kBgpVersion;
   std::uint16_t myAs = 0;      // the 2-octet field: AS_TRANS for a 4-octet AS
   std::uint16_t holdTime = 0;
   std::uint32_t bgpId = 0;
   std::optional<std::uint32_t> fourOctetAs; // capability 65
   std::vector<AfiSafi> families;            // capability 1, once per family
   bool routeRefresh = false;                // capability 2
   std::vector<std::uint8_t> otherCapabilities; // codes of the capabilities not used here
   // The speaker's AS: the 4-octet capability's when present.
   std::uint32_t as() const { return fourOctetAs ? *fourOctetAs : myAs; }
};
// The OPEN the agent sends: every capability in one optional parameter; the 2-octet AS
// field holds AS_TRANS when `as` needs four octets.
OpenMessage localOpen(std::uint32_t as, std::uint16_t holdTime, std::uint32_t bgpId,
                      std::vector<AfiSafi> families);
Bytes encodeOpen(OpenMessage const& open);
// One multiprotocol capability (code, length, value) per family, as OPEN carries them.
Bytes multiprotocolCapabilities(std::vector<AfiSafi> const& families);
// Reads an OPEN body (the bytes after the header). Checks the structure and the version
// (2/1, data: the version we speak); checkOpen judges the values.
Ovk::Result<OpenMessage, Notification> parseOpen(ByteView body);

struct OpenExpectations {
   std::uint32_t remoteAs = 0;
   std::uint32_t localAs = 0;
   std::uint32_t localBgpId = 0;
};
// RFC 4271 section 6.2 and RFC 6793: the peer's AS (2/2), BGP identifier (2/3) and hold
// time (2/6). Nothing when the OPEN is acceptable.
std::optional<Notification> checkOpen(OpenMessage const& remote, OpenExpectations const& expect);

// What both OPENs agree on.
struct Negotiated {
   std::uint16_t holdTime = 0;       // the smaller of the two; 0: no keepalives
   std::uint16_t keepaliveTime = 0;  // a third of the hold time
   std::vector<AfiSafi> families;    // advertised by both, in our order
   bool fourOctetAs = false;
   bool routeRefresh = false;
};
Negotiated negotiate(OpenMessage const& local, OpenMessage const& remote);
// The capabilities both sides advertised: "multiprotocol", "four-octet-as", "route-refresh".
std::vector<std::string> capabilityNames(Negotiated const& n);

Bytes encodeKeepalive();
Bytes encodeNotification(Notification const& n);
// Reads a NOTIFICATION body (code, subcode, data).
Ovk::Result<Notification, Notification> parseNotification(ByteView body);
Bytes encodeRouteRefresh(AfiSafi family);
// Reads a ROUTE-REFRESH body (AFI, reserved, SAFI).
Ovk::Result<AfiSafi, Notification> parseRouteRefresh(ByteView body);

// The address families an UPDATE touches, found without decoding its routes.
struct UpdateSummary {
   struct Part {
      AfiSafi family;
      bool reach = false;        // MP_REACH_NLRI; else MP_UNREACH_NLRI
      std::size_t nlriBytes = 0; // length of its NLRI (or withdrawn routes) field
      friend bool operator==(Part const&, Part const&) = default;
   };
   std::size_t withdrawnBytes = 0; // IPv4 unicast withdrawn routes field
   std::size_t nlriBytes = 0;      // IPv4 unicast NLRI field
   std::size_t attributeCount = 0;
   std::vector<Part> parts;        // one per MP_REACH_NLRI / MP_UNREACH_NLRI
   // RFC 4724 section 2: an End-of-RIB marker is an UPDATE with nothing in it (IPv4 unicast)
   // or with only an empty MP_UNREACH_NLRI; the family it ends.
   std::optional<AfiSafi> endOfRib() const;
};
// Frames an UPDATE body: withdrawn routes and path attribute lengths must fit (else 3/1),
// and MP_REACH_NLRI / MP_UNREACH_NLRI must hold an AFI and SAFI (else 3/9).
Ovk::Result<UpdateSummary, Notification> summarizeUpdate(ByteView body);
// An End-of-RIB marker for `family`.
Bytes encodeEndOfRib(AfiSafi family);

} // namespace Flowspecd
