// Value types of the flowspec plugin, and its trace facility.
//
// FlowspecOpValComponent is one non-prefix component of a flowspec NLRI: its type and its
// operator/value pairs exactly as the NLRI carries them (RFC 8955 section 4.2.1: operator
// byte, then a value of 1, 2, 4 or 8 bytes in network order, per pair). FlowspecWontExportReason
// is the set of reasons a rule is kept out of forwarding. Both are plain copyable values with
// equality and the generic text form
//    Value('Routing::Bgp::FlowspecPlugin::<type>', ** {'<field>': <value>, ...})
// which parses back (host/fwk/ValueText.h). The text parsers raise the framework's text
// errors: they serve introspection and persistence, never wire bytes.
#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>

#include "host/flowspec/MatchCompType.h"
#include "host/fwk/String.h"
#include "host/fwk/Trace.h"

namespace Routing::Bgp::FlowspecPlugin {

// The plugin's trace facility, "BgpFlowspecPlugin", trace file "flowspecplugin". Levels:
// 3 notable failures, 4 odd input, 5 load messages, 6 unrecognised data, 8 routine detail.
Ovk::TraceFacility& flowspecTraceFacility();

class FlowspecOpValComponent {
 public:
   static constexpr std::string_view kTypeName = "Routing::Bgp::FlowspecPlugin::FlowspecOpValComponent";

   // Type 0 (none) and no bytes.
   FlowspecOpValComponent() = default;
   FlowspecOpValComponent(Flowspec::MatchCompType componentType, Ovk::String pairs)
       : type(componentType), opValuePairsNbo(std::move(pairs)) {}
   // Reads the text form at `pos`, advancing it past what was read. A missing literal raises
   // Ovk::ParseError; a type the forwarding library does not know raises Ovk::AttributeError
   // naming "type".
   FlowspecOpValComponent(char const*& pos, char const* end);

   // The generic text form; the type as the forwarding library writes it, the bytes quoted.
   std::string valueToStrep() const;

   // True for the default value: type 0 and no bytes.
   bool operator!() const { return type == Flowspec::none_ && opValuePairsNbo.empty(); }
   friend bool operator==(FlowspecOpValComponent const& a, FlowspecOpValComponent const& b) {
      return a.type == b.type && a.opValuePairsNbo == b.opValuePairsNbo;
   }

   Flowspec::MatchCompType type = Flowspec::none_;
   Ovk::String opValuePairsNbo;
};

std::ostream& operator<<(std::ostream& os, FlowspecOpValComponent const& c);

// Why a rule must not be exported to forwarding: a set of three bits, 0 when it may be.
class FlowspecWontExportReason {
 public:
   static constexpr std::string_view kTypeName = "Routing::Bgp::FlowspecPlugin::FlowspecWontExportReason";

   // The bits (the parse rule sets them).
   static constexpr std::uint32_t unrecognizedTail_ = 0x1;          // bytes after the last understood component
   static constexpr std::uint32_t nonZeroIpv6Offset_ = 0x2;         // an IPv6 prefix with an offset
   static constexpr std::uint32_t componentTypeMoreThanOnce_ = 0x4; // a component type repeated
   static constexpr std::uint32_t kMaxValue = 0x7;

   constexpr FlowspecWontExportReason() noexcept = default;
   // Raises Ovk::RangeError "FlowspecWontExportReason::value > 0x7 not allowed" above 7.
   explicit FlowspecWontExportReason(std::uint32_t value) { valueIs(value); }
   // Reads the text form at `pos`, advancing it past what was read; Ovk::ParseError on a
   // missing literal or boolean.
   FlowspecWontExportReason(char const*& pos, char const* end);

   constexpr std::uint32_t value() const noexcept { return value_; }
   // Raises Ovk::RangeError above 7, leaving the value as it was.
   void valueIs(std::uint32_t value);
   constexpr bool empty() const noexcept { return value_ == 0; }

   constexpr bool unrecognizedTail() const noexcept { return (value_ & unrecognizedTail_) != 0; }
   constexpr bool nonZeroIpv6Offset() const noexcept { return (value_ & nonZeroIpv6Offset_) != 0; }
   constexpr bool componentTypeMoreThanOnce() const noexcept { return (value_ & componentTypeMoreThanOnce_) != 0; }
   void unrecognizedTailIs(bool on) noexcept { bitIs(unrecognizedTail_, on); }
   void nonZeroIpv6OffsetIs(bool on) noexcept { bitIs(nonZeroIpv6Offset_, on); }
   void componentTypeMoreThanOnceIs(bool on) noexcept { bitIs(componentTypeMoreThanOnce_, on); }

   // The generic attribute interface: "value" is the whole word, and each bit is an
   // attribute of its own (0 or 1) named after its constant above. An unknown name raises
   // Ovk::AttributeError; a value out of range raises Ovk::RangeError.
   static std::array<std::string_view, 4> const& attributeNames();
   std::uint32_t attribute(std::string_view name) const;
   void attributeIs(std::string_view name, std::uint32_t value);

   // The generic text form, one boolean per bit.
   std::string valueToStrep() const;

   friend constexpr bool operator==(FlowspecWontExportReason, FlowspecWontExportReason) noexcept = default;

 private:
   void bitIs(std::uint32_t bit, bool on) noexcept { value_ = on ? (value_ | bit) : (value_ & ~bit); }

   std::uint32_t value_ = 0;
};

std::ostream& operator<<(std::ostream& os, FlowspecWontExportReason r);

} // namespace Routing::Bgp::FlowspecPlugin
