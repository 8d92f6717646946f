#include "host/net/IpGenAddr.h"

#include <arpa/inet.h>

#include <ostream>

namespace Ovnet {

char const* toStrep(AddressFamily af) {
   switch (af) {
   case AddressFamily::unspecified: return "unspecified";
   case AddressFamily::ipv4: return "ipv4";
   case AddressFamily::ipv6: return "ipv6";
   }
   return "?";
}

std::uint32_t oneAtATimeMix(std::uint32_t h, std::uint8_t const* p, std::size_t n) noexcept {
   for (std::size_t i = 0; i < n; ++i) {
      h += p[i];
      h += h << 10;
      h ^= h >> 6;
   }
   return h;
}

std::uint32_t oneAtATimeFinal(std::uint32_t h) noexcept {
   h += h << 3;
   h ^= h >> 11;
   h += h << 15;
   return h;
}

IpGenAddr IpGenAddr::ipv4(std::uint32_t hostOrder) noexcept {
   std::uint8_t const b[4] = {static_cast<std::uint8_t>(hostOrder >> 24), static_cast<std::uint8_t>(hostOrder >> 16),
                              static_cast<std::uint8_t>(hostOrder >> 8), static_cast<std::uint8_t>(hostOrder)};
   return ipv4(std::span<std::uint8_t const, 4>(b, 4));
}

IpGenAddr IpGenAddr::ipv4(std::span<std::uint8_t const, 4> b) noexcept {
   IpGenAddr a;
   std::memcpy(a.bytes_, b.data(), 4);
   a.af_ = AddressFamily::ipv4;
   return a;
}

IpGenAddr IpGenAddr::ipv6(std::span<std::uint8_t const, 16> b) noexcept {
   IpGenAddr a;
   std::memcpy(a.bytes_, b.data(), 16);
   a.af_ = AddressFamily::ipv6;
   return a;
}

std::optional<IpGenAddr> IpGenAddr::parse(std::string_view text) {
   if (text.empty() || text.size() > 45) return std::nullopt;
   char buf[46];
   std::memcpy(buf, text.data(), text.size());
   buf[text.size()] = '\0';
   std::uint8_t b[16];
   if (text.find(':') == std::string_view::npos) {
      if (inet_pton(AF_INET, buf, b) != 1) return std::nullopt;
      return ipv4(std::span<std::uint8_t const, 4>(b, 4));
   }
   if (inet_pton(AF_INET6, buf, b) != 1) return std::nullopt;
   return ipv6(std::span<std::uint8_t const, 16>(b, 16));
}

std::size_t IpGenAddr::size() const noexcept {
   switch (af_) {
   case AddressFamily::ipv4: return 4;
   case AddressFamily::ipv6: return 16;
   default: return 0;
   }
}

std::uint32_t IpGenAddr::ipv4HostOrder() const noexcept {
   return (std::uint32_t{bytes_[0]} << 24) | (std::uint32_t{bytes_[1]} << 16) | (std::uint32_t{bytes_[2]} << 8) |
          std::uint32_t{bytes_[3]};
}

std::string IpGenAddr::str() const {
   char buf[INET6_ADDRSTRLEN];
   switch (af_) {
   case AddressFamily::ipv4: return inet_ntop(AF_INET, bytes_, buf, sizeof buf);
   case AddressFamily::ipv6: return inet_ntop(AF_INET6, bytes_, buf, sizeof buf);
   default: return "unspecified";
   }
}

std::uint32_t IpGenAddr::hash() const noexcept { return oneAtATimeFinal(oneAtATimeMix(0, bytes_, 16)); }

std::strong_ordering operator<=>(IpGenAddr const& a, IpGenAddr const& b) noexcept {
   if (auto c = a.af_ <=> b.af_; c != 0) return c;
   int const m = std::memcmp(a.bytes_, b.bytes_, 16);
   return m < 0 ? std::strong_ordering::less : m > 0 ? std::strong_ordering::greater : std::strong_ordering::equal;
}

IpGenPrefix::IpGenPrefix(IpGenAddr const& addr, std::uint8_t len) noexcept : IpGenPrefix() {
   addr_ = addr;
   maskIs(len);
}

std::optional<IpGenPrefix> IpGenPrefix::parse(std::string_view text, bool strict) {
   auto slash = text.find('/');
   auto addr = IpGenAddr::parse(text.substr(0, slash));
   if (!addr) return std::nullopt;
   unsigned len = static_cast<unsigned>(addr->size() * 8);
   if (slash != std::string_view::npos) {
      std::string_view l = text.substr(slash + 1);
      if (l.empty() || l.size() > 3) return std::nullopt;
      len = 0;
      for (char c : l) {
         if (c < '0' || c > '9') return std::nullopt;
         len = len * 10 + static_cast<unsigned>(c - '0');
      }
      if (len > addr->size() * 8) return std::nullopt;
   }
   IpGenPrefix p(*addr, static_cast<std::uint8_t>(len));
   if (strict) {
      IpGenPrefix masked = p;
      masked.clearLowerAddrBits();
      if (!(masked == p)) return std::nullopt;
   }
   return p;
}

void IpGenPrefix::maskIs(std::uint8_t len) noexcept {
   len_ = static_cast<std::uint8_t>(len > maxLen() ? maxLen() : len);
}

void IpGenPrefix::clearLowerAddrBits() noexcept {
   std::uint8_t* b = addr_.mutableStorage();
   std::size_t const n = addr_.size();
   for (std::size_t i = 0; i < n; ++i) {
      unsigned const bitStart = static_cast<unsigned>(i * 8);
      if (bitStart >= len_) {
         b[i] = 0;
      } else if (bitStart + 8 > len_) {
         b[i] = static_cast<std::uint8_t>(b[i] & (0xffu << (8 - (len_ - bitStart))));
      }
   }
}

bool IpGenPrefix::contains(IpGenPrefix const& other) const noexcept {
   if (af() != other.af() || isUnset() || other.len_ < len_) return false;
   IpGenPrefix a = *this, b = other;
   a.clearLowerAddrBits();
   b.maskIs(len_);
   b.clearLowerAddrBits();
   return a.addr_ == b.addr_;
}

std::string IpGenPrefix::str() const {
   if (isUnset()) return "unset";
   return addr_.str() + "/" + std::to_string(len_);
}

std::uint32_t IpGenPrefix::hash() const noexcept {
   return oneAtATimeFinal(oneAtATimeMix(0, reinterpret_cast<std::uint8_t const*>(this), sizeof(*this)));
}

std::strong_ordering operator<=>(IpGenPrefix const& a, IpGenPrefix const& b) noexcept {
   if (auto c = a.addr_ <=> b.addr_; c != 0) return c;
   return a.len_ <=> b.len_;
}

std::ostream& operator<<(std::ostream& os, IpGenAddr const& a) { return os << a.str(); }
std::ostream& operator<<(std::ostream& os, IpGenPrefix const& p) { return os << p.str(); }

} // namespace Ovnet
