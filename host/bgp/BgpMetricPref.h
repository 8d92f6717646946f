// The cost of reaching a next hop.
#pragma once

#include <compare>
#include <cstdint>
#include <iosfwd>

namespace Routing::Bgp {

// A resolved next hop's cost: the preference (administrative distance) of the route that
// resolves it and that route's metric. Lower is better; the preference counts first.
class BgpMetricPref {
 public:
   constexpr BgpMetricPref(std::uint32_t metric, std::uint8_t pref) noexcept : metric_(metric), pref_(pref) {}

   // The cost of a next hop that no route resolves: worst on both counts.
   static constexpr BgpMetricPref unresolved() noexcept { return {0xffffffffu, 0xff}; }

   constexpr std::uint32_t metric() const noexcept { return metric_; }
   constexpr std::uint8_t pref() const noexcept { return pref_; }

   friend constexpr bool operator==(BgpMetricPref, BgpMetricPref) noexcept = default;
   friend constexpr std::strong_ordering operator<=>(BgpMetricPref a, BgpMetricPref b) noexcept {
      if (auto c = a.pref_ <=> b.pref_; c != 0) return c;
      return a.metric_ <=> b.metric_;
   }

 private:
   std::uint32_t metric_;
   std::uint8_t pref_;
};

// "metric=<m> pref=<p>".
std::ostream& operator<<(std::ostream& os, BgpMetricPref m);

} // namespace Routing::Bgp
