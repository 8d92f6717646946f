// One forwarding rule of the FSIB: the match (a slate key) and the actions to apply.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include "host/flowspec/FlowspecSlateKey.h"
#include "host/net/IpGenAddr.h"

namespace Flowspec {

// Action bits of a rule.
enum ActionField : std::uint32_t {
   actionReserved = 0x01,      // not used by the flowspec export; counts as an action
   actionNone = 0x02,          // no action: forward as usual
   actionDrop = 0x04,          // traffic rate 0
   actionPolice = 0x08,        // traffic rate limit (Rule::rate)
   actionTrafficAction = 0x10, // sample and/or terminal (Rule::trafficAction)
   actionRedirect = 0x20,      // redirect to a VRF and/or an IP address (Rule::trafficRedirect)
   actionSetDscp = 0x40,       // DSCP marking (Rule::dscp)
};

class ActionFieldSet {
 public:
   constexpr ActionFieldSet() noexcept = default;
   constexpr explicit ActionFieldSet(std::uint32_t bits) noexcept : bits_(bits) {}

   constexpr std::uint32_t value() const noexcept { return bits_; }
   constexpr bool has(ActionField a) const noexcept { return (bits_ & a) != 0; }
   // True when any bit of `mask` is set.
   constexpr bool any(std::uint32_t mask) const noexcept { return (bits_ & mask) != 0; }
   constexpr bool empty() const noexcept { return bits_ == 0; }
   constexpr void set(ActionField a) noexcept { bits_ |= a; }
   constexpr void clear(ActionField a) noexcept { bits_ &= ~static_cast<std::uint32_t>(a); }

   // The names of the set bits joined by "|" ("actionDrop|actionPolice"), other bits as one
   // hex number; "0" when empty.
   std::string str() const;
   friend constexpr bool operator==(ActionFieldSet, ActionFieldSet) noexcept = default;

 private:
   std::uint32_t bits_ = 0;
};

// Bits of Rule::trafficAction.
inline constexpr std::uint32_t trafficActionSample = 0x1;
inline constexpr std::uint32_t trafficActionTerminal = 0x2;

struct TrafficRedirect {
   // vrfId when no VRF is chosen.
   static constexpr std::uint32_t noVrfId = 0xffffff;

   std::uint32_t vrfId = noVrfId;
   Ovnet::IpGenAddr address; // unspecified when no address is chosen
   bool copy = false;        // redirect a copy and forward the original

   // Value('Flowspec::TrafficRedirect', ** {'vrfId': ..., 'address': ..., 'copy': ...})
   std::string str() const;
   friend bool operator==(TrafficRedirect const&, TrafficRedirect const&) = default;
};

struct Rule {
   FlowspecSlateKey key; // the rule's identity in the FSIB
   std::uint32_t ruleId = 0;
   std::uint32_t reserved = 0; // written as 0 by the flowspec export
   ActionFieldSet actions;
   float rate = 0.0f; // bytes per second, with actionPolice
   std::uint32_t trafficAction = 0;
   TrafficRedirect trafficRedirect;
   std::uint8_t dscp = 0; // low six bits, with actionSetDscp

   // Value('Flowspec::Rule', ** {'key': '<rule text>', 'ruleId': ..., ...}), every field.
   std::string str() const;
   // Field by field; the rates compare by their bits, so a rule with a NaN rate equals itself.
   friend bool operator==(Rule const& a, Rule const& b) noexcept;
};

// Sets the actions of `r` from words separated by spaces or commas, for test writers and
// people: `drop`, `accept` (no action), `police=BYTES_PER_SECOND`, `dscp=N`, `sample`,
// `terminal` (the traffic-action terminal bit: evaluation goes on), `redirect-vrf=ID`,
// `redirect-ip=ADDRESS`, `copy` (the redirect copies), `bits=0xNN` (raw action bits). The
// empty text is `drop`. On an error returns false, leaves `r` as it was and, when `whyNot`
// is given, says which word is wrong.
bool ruleActionsFromText(std::string_view text, Rule& r, std::string* whyNot = nullptr);

std::ostream& operator<<(std::ostream& os, ActionFieldSet a);
std::ostream& operator<<(std::ostream& os, TrafficRedirect const& r);
std::ostream& operator<<(std::ostream& os, Rule const& r);

} // namespace Flowspec
