// BGP-4 messages on the wire (RFC 4271 section 4): the one place that defines the header,
// the message types, the NOTIFICATION codes and the path attribute types; the framing of a
// byte stream into messages (used by the sessions and by the capture readers alike); OPEN
// with the capabilities the agent speaks (multiprotocol RFC 4760, route refresh RFC 2918,
// 4-octet AS RFC 6793, graceful restart RFC 4724 with RFC 8538's N bit), KEEPALIVE,
// NOTIFICATION (with RFC 8538's Hard Reset), ROUTE-REFRESH and End-of-RIB. UPDATEs are
// decoded by BgpUpdateDecoder.h.
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

#include "host/bgp/AfiSafi.h"
#include "host/bgp/ByteCursor.h"
#include "host/bgp/Serialize.h"
#include "host/fwk/Result.h"

namespace Routing::Bgp {

constexpr std::size_t kHeaderSize = 19;
// RFC 4271 section 4; RFC 8654 extended messages reach 65535.
constexpr std::size_t kMaxMessageSize = 4096;
constexpr std::size_t kMaxExtendedMessageSize = 65535;
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

// Path attribute type codes (RFC 4271, RFC 1997, RFC 4360, RFC 4456, RFC 4760, RFC 5701,
// RFC 6793) and flags (RFC 4271 section 4.3).
namespace BgpAttrType {
inline constexpr std::uint8_t origin = 1, asPath = 2, nextHop = 3, med = 4, localPref = 5, atomicAggregate = 6,
                              aggregator = 7, communities = 8, mpReachNlri = 14, mpUnreachNlri = 15,
                              extCommunities = 16, as4Path = 17, as4Aggregator = 18, ipv6ExtCommunities = 25;
}
namespace BgpAttrFlag {
inline constexpr std::uint8_t optional = 0x80, transitive = 0x40, partial = 0x20, extendedLength = 0x10;
}

// The pair from its wire numbers, and back.
constexpr AfiSafi afiSafi(std::uint16_t afi, std::uint8_t safi) { return AfiSafi(static_cast<Afi>(afi), safi); }
constexpr std::uint16_t afiNumber(AfiSafi f) { return static_cast<std::uint16_t>(f.afi()); }
inline constexpr AfiSafi kIpv4Flowspec = AfiSafi::ipv4Flowspec();
inline constexpr AfiSafi kIpv6Flowspec = AfiSafi::ipv6Flowspec();
inline constexpr AfiSafi kIpv4Unicast = afiSafi(1, Safi::unicast);
inline constexpr AfiSafi kIpv6Unicast = afiSafi(2, Safi::unicast);
// "ipv4-flowspec", "ipv6-flowspec", "ipv4-unicast", ...; other families as "afi/safi"
// numbers ("1/4").
std::string familyName(AfiSafi f);
// The family of a configuration name (flowspec or unicast); nothing for any other text.
std::optional<AfiSafi> familyFromName(std::string_view name);

// NOTIFICATION error codes (RFC 4271 section 4.5, RFC 7313) and the subcodes the agent uses
// (RFC 4271 section 6, RFC 6608, RFC 4486).
namespace ErrorCode {
constexpr std::uint8_t messageHeader = 1, open = 2, update = 3, holdTimerExpired = 4, fsm = 5, cease = 6,
                       routeRefresh = 7;
}
namespace HeaderSubcode {
constexpr std::uint8_t connectionNotSynchronized = 1, badMessageLength = 2, badMessageType = 3;
}
namespace OpenSubcode {
constexpr std::uint8_t unspecific = 0, unsupportedVersion = 1, badPeerAs = 2, badBgpIdentifier = 3,
                       unsupportedOptionalParameter = 4, unacceptableHoldTime = 6, unsupportedCapability = 7;
}
namespace UpdateSubcode {
constexpr std::uint8_t malformedAttributeList = 1, unrecognizedWellKnownAttribute = 2, missingWellKnownAttribute = 3,
                       attributeFlagsError = 4, attributeLengthError = 5, invalidOriginAttribute = 6,
                       invalidNextHopAttribute = 8, optionalAttributeError = 9, invalidNetworkField = 10,
                       malformedAsPath = 11;
}
namespace FsmSubcode {
constexpr std::uint8_t inOpenSent = 1, inOpenConfirm = 2, inEstablished = 3;
}
namespace CeaseSubcode {
constexpr std::uint8_t maxPrefixes = 1, administrativeShutdown = 2, peerDeconfigured = 3, administrativeReset = 4,
                       connectionRejected = 5, otherConfigurationChange = 6, connectionCollision = 7,
                       outOfResources = 8, hardReset = 9;
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
// Cease "Maximum Number of Prefixes Reached" (RFC 4486 section 4): its data the family
// (AFI 2 bytes, SAFI 1 byte) and the limit (4 bytes).
Notification ceaseMaxPrefixes(AfiSafi family, std::uint32_t limit);
// RFC 8538 section 3: `inner` wrapped in a Cease/Hard Reset (its code, subcode and data as
// the data).
Notification hardReset(Notification const& inner);
bool isHardReset(Notification const& n);

// The fixed header. `length` covers the whole message, header included.
struct Header {
   MessageType type;
   std::uint16_t length;
};
// Reads a header of exactly kHeaderSize bytes: the marker must be all ones (else 1/1), the
// type known (else 1/3 with the type as data) and the length within the bounds of that type
// and at most `maxMessageSize` (else 1/2 with the length field as data).
Ovk::Result<Header, Notification> parseHeader(ByteView header, std::size_t maxMessageSize = kMaxMessageSize);

// One whole message: its type and its bytes, header included.
struct Message {
   MessageType type;
   Bytes bytes;
   ByteView body() const { return ByteView(bytes).subspan(kHeaderSize); }
};
// The same as a view into the framer's buffer.
struct MessageView {
   MessageType type;
   ByteView bytes;
   ByteView body() const { return bytes.subspan(kHeaderSize); }
};

// Cuts a byte stream (a TCP session, a reassembled capture) into messages.
class MessageFramer {
 public:
   explicit MessageFramer(std::size_t maxMessageSize = kMaxMessageSize) : maxMessageSize_(maxMessageSize) {}
   void feed(ByteView data);
   // The next whole message, as a view valid until the next feed(); nothing while more bytes
   // are needed; or the NOTIFICATION the broken stream calls for, after which the framer
   // yields nothing more.
   std::optional<Ovk::Result<MessageView, Notification>> nextView();
   // The same, copied.
   std::optional<Ovk::Result<Message, Notification>> next();
   // Bytes received and not yet returned as messages.
   std::size_t buffered() const { return buffer_.size() - start_; }
   bool broken() const { return broken_; }

 private:
   std::size_t maxMessageSize_;
   Bytes buffer_;
   std::size_t start_ = 0;
   bool broken_ = false;
};

// Starts a message in `out` (cleared first): marker, a length to be filled in, the type.
void startMessage(Serialize& out, MessageType type);
// Fills in the length of the message started in `out`.
void finishMessage(Serialize& out);

// RFC 4724 section 3: the Graceful Restart capability (code 64), with RFC 8538's N bit.
struct GracefulRestartFamily {
   AfiSafi family;
   bool forwardingPreserved = false; // the F bit
   friend bool operator==(GracefulRestartFamily const&, GracefulRestartFamily const&) = default;
};
struct GracefulRestartCapability {
   static constexpr std::uint16_t kMaxRestartTime = 0x0fff; // 12 bits of seconds
   bool restarting = false;       // R: the sender has restarted (do not wait for its End-of-RIB)
   bool notification = false;     // N (RFC 8538): NOTIFICATIONs other than Hard Reset restart gracefully
   std::uint16_t restartTime = 0; // seconds the sender's session takes to come back
   std::vector<GracefulRestartFamily> families; // the families it keeps forwarding state for
   // The entry of `family`, or null.
   GracefulRestartFamily const* find(AfiSafi family) const;
   friend bool operator==(GracefulRestartCapability const&, GracefulRestartCapability const&) = default;
};

// An OPEN message with the capabilities the agent understands.
struct OpenMessage {
   std::uint8_t version = kBgpVersion;
   std::uint16_t myAs = 0; // the 2-octet field: AS_TRANS for a 4-octet AS
   std::uint16_t holdTime = 0;
   std::uint32_t bgpId = 0;
   std::optional<std::uint32_t> fourOctetAs;    // capability 65
   std::vector<AfiSafi> families;               // capability 1, once per family
   bool routeRefresh = false;                   // capability 2
   std::optional<GracefulRestartCapability> gracefulRestart; // capability 64 (the last one sent)
   std::vector<std::uint8_t> otherCapabilities; // codes of the capabilities not used here, and of
                                                // a graceful-restart capability of the wrong length
   // The speaker's AS: the 4-octet capability's when present.
   std::uint32_t as() const { return fourOctetAs ? *fourOctetAs : myAs; }
};
// The OPEN the agent sends: every capability in one optional parameter; the 2-octet AS
// field holds AS_TRANS when `as` needs four octets.
OpenMessage localOpen(std::uint32_t as, std::uint16_t holdTime, std::uint32_t bgpId, std::vector<AfiSafi> families);
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
   std::uint16_t holdTime = 0;      // the smaller of the two; 0: no keepalives
   std::uint16_t keepaliveTime = 0; // a third of the hold time
   std::vector<AfiSafi> families;   // advertised by both, in our order
   bool fourOctetAs = false;
   bool routeRefresh = false;
   // RFC 4724: the peer's Graceful Restart capability, when both sides advertised one; its
   // families are those of `families` only.
   std::optional<GracefulRestartCapability> peerGracefulRestart;
   // RFC 8538: both sides set the N bit.
   bool gracefulNotification = false;
};
Negotiated negotiate(OpenMessage const& local, OpenMessage const& remote);
// The capabilities both sides advertised: "multiprotocol", "four-octet-as", "route-refresh",
// "graceful-restart", "graceful-notification".
std::vector<std::string> capabilityNames(Negotiated const& n);

Bytes encodeKeepalive();
Bytes encodeNotification(Notification const& n);
// Reads a NOTIFICATION body (code, subcode, data).
Ovk::Result<Notification, Notification> parseNotification(ByteView body);
Bytes encodeRouteRefresh(AfiSafi family);
// Reads a ROUTE-REFRESH body (AFI, reserved, SAFI).
Ovk::Result<AfiSafi, Notification> parseRouteRefresh(ByteView body);

// An End-of-RIB marker for `family`.
Bytes encodeEndOfRib(AfiSafi family);

} // namespace Routing::Bgp
