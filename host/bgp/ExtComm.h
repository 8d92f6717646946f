// Extended communities (RFC 4360) and IPv6-address-specific extended communities
// (RFC 5701), with the flowspec kinds.
//
// An ExtComm is the 8-byte community as one 64-bit value (the type byte is the most
// significant); an ExtCommIp6 is the 20-byte community. Both are deduplicated values. The
// factories pick the concrete kind from the type and subtype bytes, so a community's C++
// type tells what it means; kinds nobody here interprets stay plain ExtComm / ExtCommIp6.
//
// Each kind has a classification. The flowspec classification (6) holds exactly the kinds
// that the forwarding export translates into rule actions:
//   0x8006 traffic-rate (RFC 8955 section 7.3), 0x8007 traffic-action, 0x8009 traffic-marking,
//   0x8008 / 0x8108 / 0x8208 redirect to a VRF by route target (2-octet AS, IPv4, 4-octet AS),
//   0x010c redirect to an IPv4 address, 0x0800 redirect to the path's next hop,
//   and in the IPv6-address-specific list 0x000c redirect to an IPv6 address.
// Flowspec kinds that the export does not act on (0x800c traffic-rate in packets, the IPv6
// route-target redirect 0x000d and its older code point 0x800b) are classified
// flowspecUnsupported: they are shown, never exported.
#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string_view>
#include <span>
#include <string>
#include <vector>

#include "host/fwk/Dedup.h"
#include "host/net/IpGenAddr.h"

namespace Routing::Bgp {

enum class ExtCommClassification : std::uint8_t {
   other = 0,
   routeTarget = 2,
   routeOrigin = 3,
   flowspec = 6,
   flowspecUnsupported = 7,
};
constexpr ExtCommClassification extCommClassificationFlowspec() noexcept { return ExtCommClassification::flowspec; }
char const* toStrep(ExtCommClassification c);

// One decoded field of a community, for display: a name and its value as text; `number`
// tells whether the text is a plain number (JSON writers print it unquoted).
struct ExtCommField {
   std::string name;
   std::string value;
   bool number = false;
};

class ExtComm : public Ovk::DedupHandle {
 public:
   // The community of this 64-bit value, of the kind its type and subtype bytes name, for
   // every kind the host knows (ExtCommParse.h teaches an agent's parser the same kinds).
   static Ovk::Ptr<ExtComm> create(std::uint64_t value);
   // The same for the kinds of the host itself alone (route targets), else a plain community.
   static Ovk::Ptr<ExtComm> createBase(std::uint64_t value);
   // The same from 8 wire bytes.
   static Ovk::Ptr<ExtComm> create(std::span<std::uint8_t const, 8> bytes);

   std::uint64_t value() const noexcept { return value_; }
   std::uint8_t type() const noexcept { return static_cast<std::uint8_t>(value_ >> 56); }
   std::uint8_t subtype() const noexcept { return static_cast<std::uint8_t>(value_ >> 48); }
   std::array<std::uint8_t, 8> bytes() const noexcept;

   virtual ExtCommClassification classification() const noexcept { return ExtCommClassification::other; }
   // A short name of the kind ("traffic-rate", "route-target", "unknown").
   virtual char const* kindName() const noexcept { return "unknown"; }
   // The decoded fields of the kind.
   virtual void fields(std::vector<ExtCommField>& out) const;
   // "kind(field=value, ...)".
   std::string toStrep() const;

   std::uint32_t hash() const override;
   bool compare(Ovk::DedupHandle const* other) const override;

   // Prefer create(), which picks the kind; constructors make exactly the class named.
   explicit ExtComm(std::uint64_t value) noexcept : value_(value) {}

 private:
   std::uint64_t value_;
};

// Route target (type 0x00, 0x01 or 0x02, subtype 0x02).
class ExtCommRouteTarget : public ExtComm {
 public:
   using ExtComm::ExtComm;
   ExtCommClassification classification() const noexcept override { return ExtCommClassification::routeTarget; }
   char const* kindName() const noexcept override { return "route-target"; }
   void fields(std::vector<ExtCommField>& out) const override;
};

class FlowspecExtCommTrafficRate : public ExtComm {
 public:
   using ExtComm::ExtComm;
   // The rate as the IEEE 754 single-precision number the community carries (NaN kept).
   float rateBytesPerSec() const noexcept;
   std::uint16_t asn() const noexcept { return static_cast<std::uint16_t>(value() >> 32); }
   ExtCommClassification classification() const noexcept override { return ExtCommClassification::flowspec; }
   char const* kindName() const noexcept override { return "traffic-rate"; }
   void fields(std::vector<ExtCommField>& out) const override;
};

class FlowspecExtCommTrafficAction : public ExtComm {
 public:
   using ExtComm::ExtComm;
   static constexpr std::uint8_t sampleFlag = 0x02;
   static constexpr std::uint8_t terminalFlag = 0x01;
   std::uint8_t actionFlags() const noexcept { return static_cast<std::uint8_t>(value()); }
   ExtCommClassification classification() const noexcept override { return ExtCommClassification::flowspec; }
   char const* kindName() const noexcept override { return "traffic-action"; }
   void fields(std::vector<ExtCommField>& out) const override;
};

class FlowspecExtCommTrafficMarking : public ExtComm {
 public:
   using ExtComm::ExtComm;
   std::uint8_t dscp() const noexcept { return static_cast<std::uint8_t>(value()); }
   ExtCommClassification classification() const noexcept override { return ExtCommClassification::flowspec; }
   char const* kindName() const noexcept override { return "traffic-marking"; }
   void fields(std::vector<ExtCommField>& out) const override;
};

// Redirect to an IPv4 address: the address in bits 16..47, the copy flag in bit 0.
class FlowspecExtCommRedirectIpv4 : public ExtComm {
 public:
   using ExtComm::ExtComm;
   Ovnet::IpGenAddr address() const noexcept;
   bool copy() const noexcept { return value() & 1u; }
   ExtCommClassification classification() const noexcept override { return ExtCommClassification::flowspec; }
   char const* kindName() const noexcept override { return "redirect-ipv4"; }
   void fields(std::vector<ExtCommField>& out) const override;
};

// Redirect to the path's next hop: the copy flag is bit 0 of the flags byte (the last).
class FlowspecExtCommRedirectNexthop : public ExtComm {
 public:
   using ExtComm::ExtComm;
   bool copy() const noexcept { return value() & 1u; }
   ExtCommClassification classification() const noexcept override { return ExtCommClassification::flowspec; }
   char const* kindName() const noexcept override { return "redirect-nexthop"; }
   void fields(std::vector<ExtCommField>& out) const override;
};

// Redirect to the VRF of a route target whose global administrator is an AS (2 or 4 octets).
class FlowspecExtCommRedirectVrfRdAs : public ExtComm {
 public:
   using ExtComm::ExtComm;
   bool isAs4() const noexcept { return type() == 0x82; }
   std::uint32_t asn() const noexcept;
   std::uint32_t localAdmin() const noexcept;
   ExtCommClassification classification() const noexcept override { return ExtCommClassification::flowspec; }
   char const* kindName() const noexcept override { return "redirect-vrf"; }
   void fields(std::vector<ExtCommField>& out) const override;
};

// Redirect to the VRF of a route target whose global administrator is an IPv4 address.
class FlowspecExtCommRedirectVrfRdIpv4 : public ExtComm {
 public:
   using ExtComm::ExtComm;
   Ovnet::IpGenAddr address() const noexcept;
   std::uint16_t localAdmin() const noexcept { return static_cast<std::uint16_t>(value()); }
   ExtCommClassification classification() const noexcept override { return ExtCommClassification::flowspec; }
   char const* kindName() const noexcept override { return "redirect-vrf"; }
   void fields(std::vector<ExtCommField>& out) const override;
};

// A flowspec kind the export does not act on (traffic-rate in packets per second).
class FlowspecExtCommUnsupported : public ExtComm {
 public:
   using ExtComm::ExtComm;
   ExtCommClassification classification() const noexcept override { return ExtCommClassification::flowspecUnsupported; }
   char const* kindName() const noexcept override;
   void fields(std::vector<ExtCommField>& out) const override;
};

class ExtCommIp6 : public Ovk::DedupHandle {
 public:
   static constexpr std::size_t kSize = 20;
   static Ovk::Ptr<ExtCommIp6> create(std::span<std::uint8_t const, kSize> bytes);

   std::span<std::uint8_t const, kSize> bytes() const noexcept { return bytes_; }
   std::uint8_t type() const noexcept { return bytes_[0]; }
   std::uint8_t subtype() const noexcept { return bytes_[1]; }
   Ovnet::IpGenAddr address() const noexcept;
   std::uint16_t localAdmin() const noexcept { return static_cast<std::uint16_t>((bytes_[18] << 8) | bytes_[19]); }

   virtual ExtCommClassification classification() const noexcept { return ExtCommClassification::other; }
   virtual char const* kindName() const noexcept { return "unknown-ipv6"; }
   virtual void fields(std::vector<ExtCommField>& out) const;
   std::string toStrep() const;

   std::uint32_t hash() const override;
   bool compare(Ovk::DedupHandle const* other) const override;

   explicit ExtCommIp6(std::span<std::uint8_t const, kSize> b) noexcept;

 private:
   std::array<std::uint8_t, kSize> bytes_;
};

// Redirect to an IPv6 address; the copy flag is bit 0 of the local administrator.
class FlowspecExtCommRedirectIpv6 : public ExtCommIp6 {
 public:
   using ExtCommIp6::ExtCommIp6;
   bool copy() const noexcept { return localAdmin() & 1u; }
   ExtCommClassification classification() const noexcept override { return ExtCommClassification::flowspec; }
   char const* kindName() const noexcept override { return "redirect-ipv6"; }
   void fields(std::vector<ExtCommField>& out) const override;
};

// Redirect to the VRF of an IPv6 route target (0x000d, and 0x800b as some speakers send it).
class FlowspecExtCommRedirectVrfIpv6 : public ExtCommIp6 {
 public:
   using ExtCommIp6::ExtCommIp6;
   ExtCommClassification classification() const noexcept override { return ExtCommClassification::flowspecUnsupported; }
   char const* kindName() const noexcept override { return "redirect-vrf-ipv6"; }
   void fields(std::vector<ExtCommField>& out) const override;
};

std::ostream& operator<<(std::ostream& os, ExtComm const& c);
std::ostream& operator<<(std::ostream& os, ExtCommIp6 const& c);

// The flowspec kinds by type and subtype (the type byte high), one table for ExtComm::create
// and the flowspec extended-community parse state machine.
struct ExtCommKind {
   std::uint16_t typeSubtype;
   Ovk::Ptr<ExtComm> (*create)(std::uint64_t value);
};
struct ExtCommIp6Kind {
   std::uint16_t typeSubtype;
   Ovk::Ptr<ExtCommIp6> (*create)(std::span<std::uint8_t const, ExtCommIp6::kSize> bytes);
};
std::span<ExtCommKind const> flowspecExtCommKinds() noexcept;

// A route target (RFC 4360 section 4) from its text: "AS:N" with a 2-octet AS and a 4-octet
// number (type 0x00), "A.B.C.D:N" with a 2-octet number (type 0x01), "AS:N" with an AS above
// 65535 and a 2-octet number (type 0x02). The community's 64-bit value, or nothing.
std::optional<std::uint64_t> parseRouteTarget(std::string_view text);
std::span<ExtCommIp6Kind const> flowspecExtCommIp6Kinds() noexcept;

// An ordered list of communities, as a path attribute carries them.
template <class C>
class CommunityList {
 public:
   void push(Ovk::Ptr<C const> c) { items_.push_back(std::move(c)); }
   std::vector<Ovk::Ptr<C const>> const& items() const noexcept { return items_; }
   std::size_t size() const noexcept { return items_.size(); }
   // The communities of one classification, in list order.
   std::vector<C const*> classificationList(ExtCommClassification c) const {
      std::vector<C const*> out;
      for (auto const& i : items_) {
         if (i->classification() == c) out.push_back(i.ptr());
      }
      return out;
   }
   friend bool operator==(CommunityList const& a, CommunityList const& b) {
      if (a.items_.size() != b.items_.size()) return false;
      for (std::size_t i = 0; i < a.items_.size(); ++i) {
         if (!a.items_[i]->compare(b.items_[i].ptr())) return false;
      }
      return true;
   }

 private:
   std::vector<Ovk::Ptr<C const>> items_;
};
using ExtCommList = CommunityList<ExtComm>;
using ExtCommIp6List = CommunityList<ExtCommIp6>;

} // namespace Routing::Bgp
