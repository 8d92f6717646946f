// Helpers of the route-key tests: hex conversion, and a plain model of a key's fields (each
// stored on its own, as the key's description lists them) with reference versions of its
// hash, equality and order written straight from that description. The key stores its fields
// in one packed buffer; the model is what it must behave like.
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "BgpFlowspec/FlowspecRouteKey.h"
#include "tests/host/bgp/UpdateBuilder.h"

namespace FlowspecTest {

using Routing::Bgp::FlowspecPlugin::FlowspecRouteKey;
using Bytes = std::vector<std::uint8_t>;

inline Bytes fromHex(std::string_view hex) { return BgpTest::hexBytes(hex); }
inline std::string toHex(std::span<std::uint8_t const> bytes) { return BgpTest::hexText(bytes); }

inline Ovnet::IpGenPrefix prefix(char const* text) { return *Ovnet::IpGenPrefix::parse(text); }

struct Component {
   std::uint32_t type;
   Bytes bytes;
   friend bool operator==(Component const&, Component const&) = default;
};

// The fields of a key, one by one.
struct KeyModel {
   bool v6 = false;
   std::uint32_t reason = 0;
   Ovnet::IpGenPrefix dest, src;
   std::uint8_t destOffset = 0, srcOffset = 0;
   std::vector<Component> components;
   Bytes tail;

   friend bool operator==(KeyModel const&, KeyModel const&) = default;

   FlowspecRouteKey::Ptr build() const {
      auto key = Routing::Bgp::FlowspecPlugin::flowspecRouteKeyFactory(v6 ? Routing::Bgp::Afi::afiIpv6
                                                                          : Routing::Bgp::Afi::afiIpv4);
      key->wontExportReasonIs(Routing::Bgp::FlowspecPlugin::FlowspecWontExportReason(reason));
      key->destPrefixIs(dest, destOffset);
      key->srcPrefixIs(src, srcOffset);
      for (auto const& c : components) key->addOpValComponent(static_cast<Flowspec::MatchCompType>(c.type), c.bytes);
      key->unrecognizedTailIs(tail);
      return key;
   }

   static KeyModel of(FlowspecRouteKey const& key) {
      KeyModel m;
      m.v6 = key.slateKeyAf() == Ovnet::AddressFamily::ipv6;
      m.reason = key.wontExportReason().value();
      m.dest = key.destPrefix();
      m.src = key.srcPrefix();
      m.destOffset = key.destPrefixOffset();
      m.srcOffset = key.srcPrefixOffset();
      for (auto c : key.opValComponents()) {
         m.components.push_back({c.type, Bytes(c.opValuePairsNbo.begin(), c.opValuePairsNbo.end())});
      }
      auto const t = key.unrecognizedTail();
      m.tail.assign(t.begin(), t.end());
      return m;
   }

   // The rule key hash as described: one-at-a-time mixing of the reason, the prefix values
   // and offsets and each type; the framework hash of each component's bytes and of the tail
   // XORed in.
   std::uint32_t referenceHash() const {
      std::uint32_t h = 0;
      auto mix = [&h](std::uint8_t b) {
         h += b;
         h += h << 10;
         h ^= h >> 6;
      };
      auto mix32 = [&mix](std::uint32_t v) {
         for (int i = 0; i < 4; ++i) mix(static_cast<std::uint8_t>(v >> (8 * i)));
      };
      auto fnv = [](Bytes const& b) { return Ovk::String::hashBytes(b.data(), b.size()); };
      mix32(reason);
      std::uint8_t raw[24];
      std::memcpy(raw, &dest, 24);
      for (std::uint8_t b : raw) mix(b);
      std::memcpy(raw, &src, 24);
      for (std::uint8_t b : raw) mix(b);
      mix(destOffset);
      mix(srcOffset);
      for (auto const& c : components) {
         mix32(c.type);
         if (!c.bytes.empty()) h ^= fnv(c.bytes);
      }
      if (!tail.empty()) h ^= fnv(tail);
      h += h << 3;
      h ^= h >> 11;
      h += h << 15;
      return h;
   }

   // Dedup equality as described (the family takes no part beyond the prefixes' own).
   bool referenceEqual(KeyModel const& o) const {
      return reason == o.reason && dest == o.dest && src == o.src && destOffset == o.destOffset &&
             srcOffset == o.srcOffset && components == o.components && tail == o.tail;
   }

   static int memcmpRule(Bytes const& a, Bytes const& b) {
      if (!a.empty() && !b.empty()) {
         int const c = std::memcmp(a.data(), b.data(), std::min(a.size(), b.size()));
         if (c != 0) return c;
      }
      return a.size() == b.size() ? 0 : a.size() > b.size() ? -1 : 1;
   }

   // The rule order as described, true for equal keys.
   bool referenceLess(KeyModel const& o) const {
      if (int c = Flowspec::FlowspecKey::cmpPrefix(dest, o.dest); c != 0) return c < 0;
      if (int c = Flowspec::FlowspecKey::cmpPrefix(src, o.src); c != 0) return c < 0;
      for (std::size_t i = 0;; ++i) {
         if (i == components.size()) {
            if (i == o.components.size()) break;
            return false;
         }
         if (i == o.components.size()) return true;
         if (components[i].type != o.components[i].type) {
            return static_cast<std::int32_t>(components[i].type) < static_cast<std::int32_t>(o.components[i].type);
         }
         if (int c = memcmpRule(components[i].bytes, o.components[i].bytes); c != 0) return c < 0;
      }
      if (int c = memcmpRule(tail, o.tail); c != 0) return c < 0;
      return true;
   }
};

// Random models over a small domain, so that equal and near-equal keys come up often. Among
// the components are well-formed pair lists (as the wire carries them) and arbitrary bytes
// (which only hand-built keys hold).
inline KeyModel randomModel(std::mt19937& rng, bool v6) {
   auto draw = [&rng](unsigned n) { return static_cast<unsigned>(rng() % n); };
   static char const* const v4Prefixes[] = {"10.0.0.0/8",  "10.1.0.0/16", "10.1.2.0/24",
                                            "10.1.2.3/32", "0.0.0.0/0",   "192.168.0.0/23"};
   // IPv6 prefixes that differ only past their first 64 bits too.
   static char const* const v6Prefixes[] = {"2001:db8::/32",   "2001:db8:1::/48",    "::/0",
                                            "2001:db8::1/128", "fe80::/10",          "2001:db8::2/128",
                                            "2001:db8::/112",  "2001:db8:0:0:8000::/65"};
   static Component const components[] = {{3, {0x81, 0x06}},
                                          {3, {0x01, 0x06, 0x81, 0x11}},
                                          {4, {0x91, 0x01, 0xbb}},
                                          {5, {0x81, 0x50}},
                                          {5, {0x91, 0x00, 0x50}},
                                          {5, {0x81, 0x50, 0x81, 0x51}},
                                          {6, {}},
                                          {9, {0x80, 0x02}},
                                          {12, {0x81, 0x02}},
                                          {3, {0x81}},
                                          {0x90, {0x81, 0x06}},
                                          {0x12345678, {1, 2, 3}},
                                          {11, {0xa1, 1, 2, 3, 4, 5, 6, 7, 8}}};
   static Bytes const tails[] = {{}, {0x0e, 0x81, 0x01}, {0xff}, {0x0e, 0x81, 0x01, 0x00}};
   KeyModel m;
   m.v6 = v6;
   m.reason = draw(3) == 0 ? draw(8) : 0;
   auto pick = [&](std::uint8_t& offset) -> Ovnet::IpGenPrefix {
      if (draw(3) == 0) return {};
      Ovnet::IpGenPrefix p = prefix(v6 ? v6Prefixes[draw(std::size(v6Prefixes))] : v4Prefixes[draw(6)]);
      if (v6 && draw(4) == 0) offset = static_cast<std::uint8_t>(draw(p.len() + 1u));
      if (offset) {
         // The pattern stands at the start of the address, with bits beyond it cleared.
         Ovnet::IpGenPrefix pattern(p.addr(), static_cast<std::uint8_t>(p.len() - offset));
         pattern.clearLowerAddrBits();
         return Ovnet::IpGenPrefix(pattern.addr(), p.len());
      }
      return p;
   };
   m.dest = pick(m.destOffset);
   m.src = pick(m.srcOffset);
   for (unsigned n = draw(4); n > 0; --n) m.components.push_back(components[draw(std::size(components))]);
   m.tail = tails[draw(6) < 4 ? 0 : draw(4)];
   return m;
}

} // namespace FlowspecTest
