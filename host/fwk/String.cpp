#include "host/fwk/String.h"

#include <ostream>

#include "host/fwk/Assert.h"

namespace Ovk {

void String::init(char const* s, std::size_t n) {
   OVK_ASSERT(n <= UINT32_MAX);
   std::memset(rep_, 0, sizeof(rep_));
   auto const n32 = static_cast<std::uint32_t>(n);
   std::memcpy(rep_, &n32, 4);
   if (n <= kInlineCapacity) {
      if (n) std::memcpy(rep_ + 4, s, n);
      return;
   }
   char* p = new char[n];
   std::memcpy(p, s, n);
   std::memcpy(rep_ + 8, &p, sizeof(p));
}

std::uint32_t String::hashBytes(std::uint8_t const* p, std::size_t n) noexcept {
   if (n == 0) return 0;
   std::uint32_t h = 2166136261u;
   for (std::size_t i = 0; i < n; ++i) {
      h ^= p[i];
      h *= 16777619u;
   }
   return h;
}

std::string hexOf(std::span<std::uint8_t const> bytes) {
   static constexpr char kHex[] = "0123456789abcdef";
   std::string out;
   out.reserve(2 * bytes.size());
   for (std::uint8_t const b : bytes) {
      out += kHex[b >> 4];
      out += kHex[b & 15];
   }
   return out;
}

std::string quoted(std::string_view bytes) {
   static constexpr char kHex[] = "0123456789abcdef";
   std::string out;
   out.reserve(bytes.size() + 2);
   out.push_back('\'');
   for (char c : bytes) {
      auto const u = static_cast<unsigned char>(c);
      switch (c) {
      case '\\': out += "\\\\"; break;
      case '\'': out += "\\'"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
         if (u >= 0x20 && u < 0x7f) {
            out.push_back(c);
         } else {
            out += "\\x";
            out.push_back(kHex[u >> 4]);
            out.push_back(kHex[u & 0xf]);
         }
      }
   }
   out.push_back('\'');
   return out;
}

std::ostream& operator<<(std::ostream& os, String const& s) { return os << quoted(s.view()); }

} // namespace Ovk
