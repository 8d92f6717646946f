#include "BgpFlowspec/FlowspecTypes.h"

#include <ostream>

#include "host/fwk/ValueText.h"

namespace Routing::Bgp::FlowspecPlugin {

Ovk::TraceFacility& flowspecTraceFacility() {
   // Never destroyed: objects released during static destruction may still trace.
   static auto* const facility = new Ovk::TraceFacility("BgpFlowspecPlugin", "flowspecplugin");
   return *facility;
}

// ---- FlowspecOpValComponent ----

FlowspecOpValComponent::FlowspecOpValComponent(char const*& pos, char const* end) {
   Ovk::ValueTextParser p(pos, end);
   p.literal(Ovk::valueTypeHeader(kTypeName));
   p.literal("'type': ");
   try {
      type = Flowspec::parseMatchCompType(pos, end);
   } catch (Ovk::RangeError const& e) {
      throw Ovk::AttributeError("type", e.what());
   }
   p.literal(", 'opValuePairsNbo': ");
   opValuePairsNbo = p.string();
   p.literal("})");
}

std::string FlowspecOpValComponent::valueToStrep() const {
   return Ovk::ValueTextWriter(kTypeName)
       .field("type", Flowspec::toStrep(type))
       .field("opValuePairsNbo", Ovk::quoted(opValuePairsNbo.view()))
       .str();
}

std::ostream& operator<<(std::ostream& os, FlowspecOpValComponent const& c) { return os << c.valueToStrep(); }

// ---- FlowspecWontExportReason ----

namespace {

// The attribute names, "value" first, then the bits in bit order.
constexpr std::array<std::string_view, 4> kAttributeNames = {"value", "unrecognizedTail_", "nonZeroIpv6Offset_",
                                                             "componentTypeMoreThanOnce_"};

// The bit an attribute name stands for; 0 for "value".
std::uint32_t attributeBit(std::string_view name) {
   for (std::size_t i = 0; i < kAttributeNames.size(); ++i) {
      if (kAttributeNames[i] == name) return i == 0 ? 0 : 1u << (i - 1);
   }
   throw Ovk::AttributeError(std::string(name), "no such attribute of FlowspecWontExportReason");
}

} // namespace

FlowspecWontExportReason::FlowspecWontExportReason(char const*& pos, char const* end) {
   Ovk::ValueTextParser p(pos, end);
   std::uint32_t v = 0;
   p.literal(Ovk::valueTypeHeader(kTypeName));
   p.literal("'unrecognizedTail': ");
   if (p.boolean()) v |= unrecognizedTail_;
   p.literal(", 'nonZeroIpv6Offset': ");
   if (p.boolean()) v |= nonZeroIpv6Offset_;
   p.literal(", 'componentTypeMoreThanOnce': ");
   if (p.boolean()) v |= componentTypeMoreThanOnce_;
   p.literal("})");
   // Three booleans cannot exceed 7; the check guards the invariant all the same, as every
   // other way of setting the value does.
   valueIs(v);
}

void FlowspecWontExportReason::valueIs(std::uint32_t value) {
   if (value > kMaxValue) throw Ovk::RangeError("FlowspecWontExportReason::value > 0x7 not allowed");
   value_ = value;
}

std::array<std::string_view, 4> const& FlowspecWontExportReason::attributeNames() { return kAttributeNames; }

std::uint32_t FlowspecWontExportReason::attribute(std::string_view name) const {
   std::uint32_t const bit = attributeBit(name);
   return bit == 0 ? value_ : (value_ & bit) != 0 ? 1u : 0u;
}

void FlowspecWontExportReason::attributeIs(std::string_view name, std::uint32_t value) {
   std::uint32_t const bit = attributeBit(name);
   if (bit == 0) {
      valueIs(value);
      return;
   }
   if (value > 1) throw Ovk::RangeError(std::string(name) + " > 1 not allowed");
   bitIs(bit, value != 0);
}

std::string FlowspecWontExportReason::valueToStrep() const {
   return Ovk::ValueTextWriter(kTypeName)
       .field("unrecognizedTail", Ovk::boolText(unrecognizedTail()))
       .field("nonZeroIpv6Offset", Ovk::boolText(nonZeroIpv6Offset()))
       .field("componentTypeMoreThanOnce", Ovk::boolText(componentTypeMoreThanOnce()))
       .str();
}

std::ostream& operator<<(std::ostream& os, FlowspecWontExportReason r) { return os << r.valueToStrep(); }

} // namespace Routing::Bgp::FlowspecPlugin
