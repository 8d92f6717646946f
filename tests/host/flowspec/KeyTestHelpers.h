// Helpers of the forwarding-library tests: a readable dump of a key's pairs, and random keys
// of the shapes an NLRI parser builds: components in ascending type order (a type may repeat), one to four pairs each,
// the end-of-list bit on the last pair of each component and nowhere else, value lengths up
// to the type's limit (often longer than the value needs), the AND and reserved bits and all
// eight comparison codes at random.
#pragma once

#include <cstdint>
#include <cstdio>
#include <random>
#include <string>

#include "host/flowspec/FlowspecKey.h"

namespace Flowspec::Gen {

// The pairs in walk order as "type:op:value" (op in hex), or "index:type:op:value".
inline std::string pairsText(FlowspecKey const& k, bool withIndex = false) {
   std::string out;
   for (auto r = k.getOptVal(0); !r.atEnd(); r = k.getOptVal(r.nextIndex())) {
      char buf[48];
      if (withIndex) {
         std::snprintf(buf, sizeof buf, "%s%u:%u:%02x:%u", out.empty() ? "" : " ", r.index(), r.type(), r.op(),
                       r.value());
      } else {
         std::snprintf(buf, sizeof buf, "%s%u:%02x:%u", out.empty() ? "" : " ", r.type(), r.op(), r.value());
      }
      out += buf;
   }
   return out;
}

inline unsigned draw(std::mt19937& rng) { return static_cast<unsigned>(rng()); }

inline Ovnet::IpGenPrefix randomPrefix(std::mt19937& rng, Ovnet::AddressFamily af) {
   std::uint8_t bytes[16];
   for (auto& b : bytes) b = static_cast<std::uint8_t>(draw(rng));
   bool const v4 = af == Ovnet::AddressFamily::ipv4;
   Ovnet::IpGenAddr const addr = v4 ? Ovnet::IpGenAddr::ipv4(std::span<std::uint8_t const, 4>(bytes, 4))
                                    : Ovnet::IpGenAddr::ipv6(std::span<std::uint8_t const, 16>(bytes, 16));
   Ovnet::IpGenPrefix p(addr, static_cast<std::uint8_t>(draw(rng) % (v4 ? 33u : 129u)));
   p.clearLowerAddrBits();
   return p;
}

inline FlowspecKey randomNlriKey(std::mt19937& rng, Ovnet::AddressFamily af) {
   FlowspecKey key;
   key.afIs(af);
   if (draw(rng) % 3 != 0) key.destPrefixIs(randomPrefix(rng, af));
   if (draw(rng) % 3 == 0) key.srcPrefixIs(randomPrefix(rng, af));
   unsigned const lastType = af == Ovnet::AddressFamily::ipv6 ? flowLabel_ : fragment_;
   unsigned type = ipProtocol_;
   MatchOpValIndex index = 0;
   for (unsigned components = draw(rng) % 5; components > 0 && type <= lastType; --components) {
      auto const t = static_cast<MatchCompType>(type);
      unsigned const maxCode = maxValueBytes(t) == 4 ? 2 : maxValueBytes(t) == 2 ? 1 : 0;
      unsigned const pairs = 1 + draw(rng) % 4;
      for (unsigned i = 0; i < pairs; ++i) {
         unsigned const code = draw(rng) % (maxCode + 1);
         std::uint32_t value = draw(rng);
         if (draw(rng) % 2 == 0) value &= 0xff; // small values in long fields
         if (code < 2) value &= (1u << (8u << code)) - 1;
         if (t == fragment_ && af == Ovnet::AddressFamily::ipv6) value &= ~1u;
         auto op = static_cast<std::uint8_t>((code << 4) | (draw(rng) & (opAnd | 0x0f)));
         if (i + 1 == pairs) op |= opEndOfList;
         index = key.setOpVal(index, t, op, value);
      }
      if (draw(rng) % 4 != 0) type += 1 + draw(rng) % 3; // else the type repeats
   }
   return key;
}

} // namespace Flowspec::Gen
