// Generic IPv4 / IPv6 addresses and prefixes.
//
// Both have a fixed, fully zero-initialised in-memory layout with no padding holes: hashes
// may feed their bytes as they lie in memory. An IPv4 address occupies the first four of
// the sixteen address bytes; the rest stay zero. The default value is the unspecified
// address (family 0), which differs from 0.0.0.0 and ::.
#pragma once

#include <compare>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace Ovnet {

enum class AddressFamily : std::uint32_t { unspecified = 0, ipv4 = 1, ipv6 = 2 };
char const* toStrep(AddressFamily af);

class IpGenAddr {
 public:
   IpGenAddr() noexcept : bytes_{}, af_(AddressFamily::unspecified) {}
   static IpGenAddr ipv4(std::uint32_t hostOrder) noexcept;
   static IpGenAddr ipv4(std::span<std::uint8_t const, 4> networkOrder) noexcept;
   static IpGenAddr ipv6(std::span<std::uint8_t const, 16> networkOrder) noexcept;
   // Dotted quad or IPv6 text; empty on anything else.
   static std::optional<IpGenAddr> parse(std::string_view text);

   AddressFamily af() const noexcept { return af_; }
   bool isUnspecified() const noexcept { return af_ == AddressFamily::unspecified; }
   bool isIpv4() const noexcept { return af_ == AddressFamily::ipv4; }
   bool isIpv6() const noexcept { return af_ == AddressFamily::ipv6; }
   // Address length in bytes: 4, 16, or 0 when unspecified.
   std::size_t size() const noexcept;
   // The address bytes in network order (size() of them).
   std::span<std::uint8_t const> bytes() const noexcept { return {bytes_, size()}; }
   // All sixteen storage bytes.
   std::span<std::uint8_t const, 16> storage() const noexcept { return std::span<std::uint8_t const, 16>(bytes_, 16); }
   std::uint8_t* mutableStorage() noexcept { return bytes_; }
   std::uint32_t ipv4HostOrder() const noexcept;
   std::string str() const;

   // Deterministic hash of the sixteen storage bytes.
   std::uint32_t hash() const noexcept;

   friend bool operator==(IpGenAddr const& a, IpGenAddr const& b) noexcept {
      return std::memcmp(&a, &b, sizeof(IpGenAddr)) == 0;
   }
   friend std::strong_ordering operator<=>(IpGenAddr const& a, IpGenAddr const& b) noexcept;

 private:
   std::uint8_t bytes_[16];
   AddressFamily af_;
};
static_assert(sizeof(IpGenAddr) == 20);

class IpGenPrefix {
 public:
   IpGenPrefix() noexcept : addr_(), len_(0), pad_{} {}
   // The prefix of `addr` with `len` bits; bits beyond len are kept as given.
   IpGenPrefix(IpGenAddr const& addr, std::uint8_t len) noexcept;
   // "ADDR/LEN" (or a bare address, taken as a host prefix); empty on bad text, a length
   // beyond the address size, or host bits set beyond the length when `strict`.
   static std::optional<IpGenPrefix> parse(std::string_view text, bool strict = false);

   IpGenAddr const& addr() const noexcept { return addr_; }
   std::uint8_t len() const noexcept { return len_; }
   AddressFamily af() const noexcept { return addr_.af(); }
   bool isUnset() const noexcept { return addr_.isUnspecified(); }
   unsigned maxLen() const noexcept { return static_cast<unsigned>(addr_.size() * 8); }

   // Sets the length (clamped to the address size) without touching the address bits.
   void maskIs(std::uint8_t len) noexcept;
   // Zeroes the address bits beyond the length.
   void clearLowerAddrBits() noexcept;
   // True when every address of `other` is in this prefix (same family).
   bool contains(IpGenPrefix const& other) const noexcept;
   std::string str() const;
   std::uint32_t hash() const noexcept;

   friend bool operator==(IpGenPrefix const& a, IpGenPrefix const& b) noexcept {
      return std::memcmp(&a, &b, sizeof(IpGenPrefix)) == 0;
   }
   friend std::strong_ordering operator<=>(IpGenPrefix const& a, IpGenPrefix const& b) noexcept;

 private:
   IpGenAddr addr_;
   std::uint8_t len_;
   [[maybe_unused]] std::uint8_t pad_[3]; // always zero
};
static_assert(sizeof(IpGenPrefix) == 24);

std::ostream& operator<<(std::ostream& os, IpGenAddr const& a);
std::ostream& operator<<(std::ostream& os, IpGenPrefix const& p);

// Jenkins one-at-a-time over raw bytes, without and with the final avalanche.
std::uint32_t oneAtATimeMix(std::uint32_t h, std::uint8_t const* p, std::size_t n) noexcept;
std::uint32_t oneAtATimeFinal(std::uint32_t h) noexcept;

} // namespace Ovnet

template <>
struct std::hash<Ovnet::IpGenAddr> {
   std::size_t operator()(Ovnet::IpGenAddr const& a) const noexcept { return a.hash(); }
};
template <>
struct std::hash<Ovnet::IpGenPrefix> {
   std::size_t operator()(Ovnet::IpGenPrefix const& p) const noexcept { return p.hash(); }
};
