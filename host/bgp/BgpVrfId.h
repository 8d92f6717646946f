// VRF identifiers.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>

namespace Routing::Bgp {

// The agent's 32-bit identifier of a VRF. Value-like: copied, compared and hashed.
class BgpVrfIdBase {
 public:
   constexpr BgpVrfIdBase() noexcept = default;
   constexpr explicit BgpVrfIdBase(std::uint32_t value) noexcept : value_(value) {}

   constexpr std::uint32_t value() const noexcept { return value_; }

   friend constexpr bool operator==(BgpVrfIdBase, BgpVrfIdBase) noexcept = default;
   friend constexpr std::strong_ordering operator<=>(BgpVrfIdBase, BgpVrfIdBase) noexcept = default;

 private:
   std::uint32_t value_ = 0;
};

// The identifier of a layer-3 VRF. The default VRF is 0.
class BgpL3VrfId : public BgpVrfIdBase {
 public:
   using BgpVrfIdBase::BgpVrfIdBase;
   static constexpr BgpL3VrfId defaultVrfId() noexcept { return BgpL3VrfId(0); }
};

// Prints the number.
std::ostream& operator<<(std::ostream& os, BgpVrfIdBase vrfId);

} // namespace Routing::Bgp

template <>
struct std::hash<Routing::Bgp::BgpVrfIdBase> {
   std::size_t operator()(Routing::Bgp::BgpVrfIdBase v) const noexcept { return v.value(); }
};
