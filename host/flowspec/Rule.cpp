#include "host/flowspec/Rule.h"

#include <bit>
#include <charconv>
#include <cstdio>
#include <ostream>

#include "host/fwk/String.h"
#include "host/fwk/ValueText.h"

namespace Flowspec {

namespace {

struct ActionName {
   ActionField bit;
   char const* name;
};
constexpr ActionName kActionNames[] = {
   {actionReserved, "actionReserved"}, {actionNone, "actionNone"},       {actionDrop, "actionDrop"},
   {actionPolice, "actionPolice"},     {actionTrafficAction, "actionTrafficAction"},
   {actionRedirect, "actionRedirect"}, {actionSetDscp, "actionSetDscp"},
};

std::string floatText(float f) {
   char buf[32];
   auto const r = std::to_chars(buf, buf + sizeof buf, f);
   return std::string(buf, r.ptr);
}

} // namespace

std::string ActionFieldSet::str() const {
   std::string out;
   std::uint32_t rest = bits_;
   for (auto const& a : kActionNames) {
      if ((bits_ & a.bit) == 0) continue;
      if (!out.empty()) out += '|';
      out += a.name;
      rest &= ~static_cast<std::uint32_t>(a.bit);
   }
   if (rest != 0) {
      char buf[16];
      std::snprintf(buf, sizeof buf, "0x%x", rest);
      out += (out.empty() ? "" : "|") + std::string(buf);
   }
   return out.empty() ? "0" : out;
}

std::string TrafficRedirect::str() const {
   return Ovk::ValueTextWriter("Flowspec::TrafficRedirect")
      .field("vrfId", std::to_string(vrfId))
      .field("address", address.str())
      .field("copy", Ovk::boolText(copy))
      .str();
}

std::string Rule::str() const {
   return Ovk::ValueTextWriter("Flowspec::Rule")
      .field("key", Ovk::quoted(key.toStrepCli()))
      .field("ruleId", std::to_string(ruleId))
      .field("reserved", std::to_string(reserved))
      .field("actions", actions.str())
      .field("rate", floatText(rate))
      .field("trafficAction", std::to_string(trafficAction))
      .field("trafficRedirect", trafficRedirect.str())
      .field("dscp", std::to_string(dscp))
      .str();
}

bool operator==(Rule const& a, Rule const& b) noexcept {
   return a.key == b.key && a.ruleId == b.ruleId && a.reserved == b.reserved && a.actions == b.actions &&
          std::bit_cast<std::uint32_t>(a.rate) == std::bit_cast<std::uint32_t>(b.rate) &&
          a.trafficAction == b.trafficAction && a.trafficRedirect == b.trafficRedirect && a.dscp == b.dscp;
}

std::ostream& operator<<(std::ostream& os, ActionFieldSet a) { return os << a.str(); }
std::ostream& operator<<(std::ostream& os, TrafficRedirect const& r) { return os << r.str(); }
std::ostream& operator<<(std::ostream& os, Rule const& r) { return os << r.str(); }

} // namespace Flowspec
