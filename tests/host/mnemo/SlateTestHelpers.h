// Helpers of the Slate tests and benchmarks: segment names private to one test, rules of a
// chosen key length, and the checksum a test writer stores in each rule so that readers can
// tell a whole rule from a torn one.
#pragma once

#include <unistd.h>

#include <atomic>
#include <bit>
#include <cctype>
#include <cstdint>
#include <random>
#include <string>

#include "host/flowspec/Rule.h"
#include "host/mnemo/SlateRuleSetMount.h"
#include "host/mnemo/SlateSegment.h"

namespace Mnemo::Test {

// A prefix unique to this process and call, and the FSIB segment under it; the segment is
// removed before and after (parallel ctest runs never share a segment).
class ScopedSegment {
 public:
   explicit ScopedSegment(std::string const& tag) {
      static std::atomic<unsigned> serial{0};
      prefix_ = "fsibtest-" + std::to_string(::getpid()) + "-" + std::to_string(serial++) + "-";
      for (char c : tag) prefix_ += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
      name_ = *slateSegmentName(prefix_, fsibPath);
      unlinkSlateSegment(name_);
   }
   ~ScopedSegment() { unlinkSlateSegment(name_); }
   ScopedSegment(ScopedSegment const&) = delete;
   ScopedSegment& operator=(ScopedSegment const&) = delete;
   std::string const& prefix() const { return prefix_; }
   std::string const& name() const { return name_; }

 private:
   std::string prefix_;
   std::string name_;
};

// A 32-bit draw (mt19937's result type is wider on this platform).
inline std::uint32_t draw(std::mt19937& rng) { return static_cast<std::uint32_t>(rng()); }

// FNV-1a over the key words and every field but ruleId.
inline std::uint32_t ruleChecksum(Flowspec::Rule const& r) {
   std::uint32_t h = 2166136261u;
   auto const mix = [&h](std::uint32_t w) {
      for (int i = 0; i < 4; ++i) {
         h ^= (w >> (8 * i)) & 0xffu;
         h *= 16777619u;
      }
   };
   for (std::uint32_t w : r.key.words()) mix(w);
   mix(r.reserved);
   mix(r.actions.value());
   mix(std::bit_cast<std::uint32_t>(r.rate));
   mix(r.trafficAction);
   mix(r.trafficRedirect.vrfId);
   for (std::uint8_t b : r.trafficRedirect.address.storage()) mix(b);
   mix(static_cast<std::uint32_t>(r.trafficRedirect.address.af()));
   mix(r.trafficRedirect.copy ? 1u : 0u);
   mix(r.dscp);
   return h;
}
inline bool checksumHolds(Flowspec::Rule const& r) { return r.ruleId == ruleChecksum(r); }

// The key of rule `id`: destination 10.x.y.0/24 from the id, then `pairs` source-port pairs
// (a key of 2 + pairs words, so 2046 pairs make the longest key).
inline Flowspec::FlowspecSlateKey testKey(std::uint32_t id, unsigned pairs) {
   Flowspec::FlowspecKey k;
   k.afIs(Ovnet::AddressFamily::ipv4);
   Ovnet::IpGenPrefix p(Ovnet::IpGenAddr::ipv4(0x0a000000u | ((id & 0xffffu) << 8)), 24);
   k.destPrefixIs(p);
   Flowspec::MatchOpValIndex i = 0;
   for (unsigned n = 0; n < pairs; ++n) {
      i = k.setOpVal(i, Flowspec::port_, n + 1 == pairs ? 0x81 : 0x01, (id >> 16) + n);
   }
   Flowspec::FlowspecSlateKey s;
   s.copyInFlowspecKey(k);
   return s;
}

// A rule with key testKey(id, pairs) and fields from `variant`; its ruleId is the checksum.
inline Flowspec::Rule testRule(std::uint32_t id, unsigned pairs = 1, std::uint32_t variant = 0) {
   Flowspec::Rule r;
   r.key = testKey(id, pairs);
   r.actions = Flowspec::ActionFieldSet(Flowspec::actionPolice | Flowspec::actionRedirect | Flowspec::actionSetDscp);
   r.rate = static_cast<float>(variant) * 1000.0f + 0.5f;
   r.trafficAction = variant & 3u;
   r.trafficRedirect.vrfId = variant;
   r.trafficRedirect.address = (variant & 1) != 0 ? Ovnet::IpGenAddr::ipv4(0xc0000200u + (variant & 0xffu))
                                                  : *Ovnet::IpGenAddr::parse("2001:db8::1");
   r.trafficRedirect.copy = (variant & 2) != 0;
   r.dscp = static_cast<std::uint8_t>(variant & 0x3fu);
   r.ruleId = ruleChecksum(r);
   return r;
}

} // namespace Mnemo::Test
