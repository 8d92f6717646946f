// Builds BGP UPDATE messages byte by byte for tests, fuzz seeds and benchmarks: the header
// with its length, the withdrawn routes, the path attributes (with the extended-length flag
// where a value needs it) and the NLRI field. Nothing is checked: the bytes are what the
// caller asked for, so tests can build malformed messages as easily as good ones.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace BgpTest {

using Bytes = std::vector<std::uint8_t>;

inline Bytes hexBytes(std::string_view hex) {
   Bytes out;
   auto nibble = [](char c) { return static_cast<std::uint8_t>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10); };
   std::string digits;
   for (char c : hex) {
      if (c != ' ') digits += c;
   }
   for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
      out.push_back(static_cast<std::uint8_t>(nibble(digits[i]) << 4 | nibble(digits[i + 1])));
   }
   return out;
}

inline std::string hexText(std::span<std::uint8_t const> bytes) {
   static constexpr char kDigits[] = "0123456789abcdef";
   std::string out;
   for (std::uint8_t b : bytes) {
      out += kDigits[b >> 4];
      out += kDigits[b & 15];
   }
   return out;
}

inline void putU16(Bytes& out, std::size_t v) {
   out.push_back(static_cast<std::uint8_t>(v >> 8));
   out.push_back(static_cast<std::uint8_t>(v));
}
inline void putU32(Bytes& out, std::uint32_t v) {
   putU16(out, v >> 16);
   putU16(out, v & 0xffff);
}
inline void append(Bytes& out, std::span<std::uint8_t const> b) { out.insert(out.end(), b.begin(), b.end()); }

constexpr std::uint8_t kWellKnown = 0x40; // transitive
constexpr std::uint8_t kOptionalTransitive = 0xc0;
constexpr std::uint8_t kOptional = 0x80; // non-transitive
constexpr std::uint8_t kExtendedLength = 0x10;

class UpdateBuilder {
 public:
   // One attribute; the extended-length form when `flags` asks for it or the value needs it.
   UpdateBuilder& attr(std::uint8_t flags, std::uint8_t type, std::span<std::uint8_t const> value) {
      if (value.size() > 255) flags |= kExtendedLength;
      attrs_.push_back(flags);
      attrs_.push_back(type);
      if (flags & kExtendedLength) {
         putU16(attrs_, value.size());
      } else {
         attrs_.push_back(static_cast<std::uint8_t>(value.size()));
      }
      append(attrs_, value);
      return *this;
   }
   UpdateBuilder& attr(std::uint8_t flags, std::uint8_t type, std::string_view hex) {
      Bytes const v = hexBytes(hex);
      return attr(flags, type, v);
   }
   // Bytes appended to the path attributes as they are (a broken attribute header, say).
   UpdateBuilder& rawAttributes(std::string_view hex) {
      append(attrs_, hexBytes(hex));
      return *this;
   }

   UpdateBuilder& origin(std::uint8_t v = 0) { return attr(kWellKnown, 1, Bytes{v}); }
   // One AS_SEQUENCE of 4-octet (or 2-octet) numbers; an empty path when none are given.
   UpdateBuilder& asPath(std::initializer_list<std::uint32_t> ases, bool fourOctet = true) {
      Bytes v;
      if (ases.size() > 0) {
         v.push_back(2);
         v.push_back(static_cast<std::uint8_t>(ases.size()));
         for (std::uint32_t as : ases) {
            if (fourOctet) {
               putU32(v, as);
            } else {
               putU16(v, as);
            }
         }
      }
      return attr(kWellKnown, 2, v);
   }
   UpdateBuilder& extCommunities(std::initializer_list<std::uint64_t> comms) {
      Bytes v;
      for (std::uint64_t c : comms) {
         putU32(v, static_cast<std::uint32_t>(c >> 32));
         putU32(v, static_cast<std::uint32_t>(c));
      }
      return attr(kOptionalTransitive, 16, v);
   }
   // MP_REACH_NLRI: AFI, SAFI, next-hop length and field, reserved byte, NLRI.
   UpdateBuilder& mpReach(std::uint16_t afi, std::uint8_t safi, std::string_view nextHopHex, std::string_view nlriHex) {
      Bytes const nh = hexBytes(nextHopHex);
      Bytes v;
      putU16(v, afi);
      v.push_back(safi);
      v.push_back(static_cast<std::uint8_t>(nh.size()));
      append(v, nh);
      v.push_back(0);
      append(v, hexBytes(nlriHex));
      return attr(kOptional, 14, v);
   }
   UpdateBuilder& mpUnreach(std::uint16_t afi, std::uint8_t safi, std::string_view nlriHex) {
      Bytes v;
      putU16(v, afi);
      v.push_back(safi);
      append(v, hexBytes(nlriHex));
      return attr(kOptional, 15, v);
   }
   UpdateBuilder& withdrawn(std::string_view hex) {
      append(withdrawn_, hexBytes(hex));
      return *this;
   }
   UpdateBuilder& nlri(std::string_view hex) {
      append(nlri_, hexBytes(hex));
      return *this;
   }

   // The whole message: marker, length, type 2, then the body.
   Bytes build() const {
      Bytes out(16, 0xff);
      putU16(out, 19 + 2 + withdrawn_.size() + 2 + attrs_.size() + nlri_.size());
      out.push_back(2);
      putU16(out, withdrawn_.size());
      append(out, withdrawn_);
      putU16(out, attrs_.size());
      append(out, attrs_);
      append(out, nlri_);
      return out;
   }

 private:
   Bytes withdrawn_;
   Bytes attrs_;
   Bytes nlri_;
};

// One MRT record (RFC 6396 section 4.4.3, BGP4MP_MESSAGE_AS4) around a BGP message, as
// received by 10.0.0.2 (AS 65000) from 10.0.0.1 (AS 65001).
inline Bytes mrtRecord(std::span<std::uint8_t const> message, std::uint32_t seconds = 1700000000) {
   Bytes r;
   putU32(r, seconds);
   putU16(r, 16); // BGP4MP
   putU16(r, 4);  // BGP4MP_MESSAGE_AS4
   putU32(r, static_cast<std::uint32_t>(4 + 4 + 2 + 2 + 4 + 4 + message.size()));
   putU32(r, 65001);
   putU32(r, 65000);
   putU16(r, 0); // interface index
   putU16(r, 1); // AFI of the addresses
   append(r, Bytes{10, 0, 0, 1, 10, 0, 0, 2});
   append(r, message);
   return r;
}

// The usual start of an UPDATE that announces: ORIGIN IGP and an AS_PATH of one AS.
inline UpdateBuilder announcing() {
   UpdateBuilder b;
   b.origin().asPath({65001});
   return b;
}

} // namespace BgpTest
