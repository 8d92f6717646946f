// Address families of BGP (RFC 4760 section 3): the AFI, the SAFI and the packed pair.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>

namespace Routing::Bgp {

// Address Family Identifier.
enum class Afi : std::uint16_t {
   afiUnknown = 0,
   afiIpv4 = 1,
   afiIpv6 = 2,
};

// Subsequent Address Family Identifiers this agent knows by name.
namespace Safi {
inline constexpr std::uint8_t unicast = 1;
inline constexpr std::uint8_t flowspec = 133;    // RFC 8955
inline constexpr std::uint8_t flowspecVpn = 134; // RFC 8955
} // namespace Safi

// The packed address family: AFI shifted left by 8, OR the SAFI. 0x185 (389) is IPv4
// flowspec, 0x285 (645) IPv6 flowspec.
class AfiSafi {
 public:
   constexpr AfiSafi() noexcept = default;
   constexpr explicit AfiSafi(std::uint32_t value) noexcept : value_(value) {}
   constexpr AfiSafi(Afi afi, std::uint8_t safi) noexcept : value_(static_cast<std::uint32_t>(afi) << 8 | safi) {}

   static constexpr AfiSafi ipv4Flowspec() noexcept { return {Afi::afiIpv4, Safi::flowspec}; }
   static constexpr AfiSafi ipv6Flowspec() noexcept { return {Afi::afiIpv6, Safi::flowspec}; }
   static constexpr AfiSafi ipv4Unicast() noexcept { return {Afi::afiIpv4, Safi::unicast}; }
   static constexpr AfiSafi ipv6Unicast() noexcept { return {Afi::afiIpv6, Safi::unicast}; }

   constexpr std::uint32_t value() const noexcept { return value_; }
   constexpr Afi afi() const noexcept { return static_cast<Afi>(value_ >> 8); }
   constexpr std::uint8_t safi() const noexcept { return static_cast<std::uint8_t>(value_ & 0xff); }

   friend constexpr bool operator==(AfiSafi, AfiSafi) noexcept = default;
   friend constexpr std::strong_ordering operator<=>(AfiSafi, AfiSafi) noexcept = default;

 private:
   std::uint32_t value_ = 0;
};

// Text forms: "ipv4", "ipv6" or "afi<N>"; "ipv4Flowspec", "ipv6FlowspecVpn", "ipv4Unicast",
// or "afi<N>Safi<M>" for a pair without a name.
std::string toStrep(Afi afi);
std::string toStrep(AfiSafi afiSafi);
std::ostream& operator<<(std::ostream& os, Afi afi);
std::ostream& operator<<(std::ostream& os, AfiSafi afiSafi);

// The host's NLRI types, one per address family whose NLRI it parses.
enum class NlriType : std::uint8_t {
   nlriTypeUnknown = 0,
   ipv4Unicast = 1,
   ipv6Unicast = 2,
   ipv4Flowspec = 20,
   ipv6Flowspec = 21,
};

// The NLRI type of an address family; nlriTypeUnknown for families without one.
constexpr NlriType fromAfiSafi(AfiSafi afiSafi) noexcept {
   if (afiSafi == AfiSafi::ipv4Flowspec()) return NlriType::ipv4Flowspec;
   if (afiSafi == AfiSafi::ipv6Flowspec()) return NlriType::ipv6Flowspec;
   if (afiSafi == AfiSafi::ipv4Unicast()) return NlriType::ipv4Unicast;
   if (afiSafi == AfiSafi::ipv6Unicast()) return NlriType::ipv6Unicast;
   return NlriType::nlriTypeUnknown;
}

} // namespace Routing::Bgp

template <>
struct std::hash<Routing::Bgp::AfiSafi> {
   std::size_t operator()(Routing::Bgp::AfiSafi a) const noexcept { return a.value(); }
};
