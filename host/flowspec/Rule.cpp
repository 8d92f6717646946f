#include "host/flowspec/Rule.h"

#include <bit>
#include <charconv>
#include <cstdio>
#include <cstdlib>
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
    {actionReserved, "actionReserved"},
    {actionNone, "actionNone"},
    {actionDrop, "actionDrop"},
    {actionPolice, "actionPolice"},
    {actionTrafficAction, "actionTrafficAction"},
    {actionRedirect, "actionRedirect"},
    {actionSetDscp, "actionSetDscp"},
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

bool ruleActionsFromText(std::string_view text, Rule& r, std::string* whyNot) {
   Rule out = r;
   out.actions = ActionFieldSet();
   out.trafficAction = 0;
   out.trafficRedirect = TrafficRedirect();
   out.rate = 0.0f;
   out.dscp = 0;
   auto const fail = [whyNot](std::string_view word, char const* what) {
      if (whyNot != nullptr) *whyNot = "cannot read \"" + std::string(word) + "\": " + what;
      return false;
   };
   auto const number = [](std::string_view v, std::uint32_t& n) {
      int base = 10;
      if (v.starts_with("0x")) {
         v.remove_prefix(2);
         base = 16;
      }
      auto const res = std::from_chars(v.data(), v.data() + v.size(), n, base);
      return !v.empty() && res.ec == std::errc() && res.ptr == v.data() + v.size();
   };
   bool any = false;
   std::size_t pos = 0;
   while (pos < text.size()) {
      std::size_t const end = text.find_first_of(" ,", pos);
      std::string_view const word =
          text.substr(pos, end == std::string_view::npos ? std::string_view::npos : end - pos);
      pos = end == std::string_view::npos ? text.size() : end + 1;
      if (word.empty()) continue;
      any = true;
      std::size_t const eq = word.find('=');
      std::string_view const name = word.substr(0, eq);
      std::string_view const value = eq == std::string_view::npos ? std::string_view() : word.substr(eq + 1);
      std::uint32_t n = 0;
      if (name == "drop" && eq == std::string_view::npos) {
         out.actions.set(actionDrop);
      } else if (name == "accept" && eq == std::string_view::npos) {
         out.actions.set(actionNone);
      } else if (name == "sample" || name == "terminal") {
         if (eq != std::string_view::npos) return fail(word, "takes no value");
         out.actions.set(actionTrafficAction);
         out.trafficAction |= name == "sample" ? trafficActionSample : trafficActionTerminal;
      } else if (name == "copy" && eq == std::string_view::npos) {
         out.trafficRedirect.copy = true;
      } else if (name == "police") {
         std::string const v(value);
         char* stop = nullptr;
         float const rate = std::strtof(v.c_str(), &stop);
         if (v.empty() || *stop != '\0') return fail(word, "expected police=BYTES_PER_SECOND");
         out.actions.set(actionPolice);
         out.rate = rate;
      } else if (name == "dscp") {
         if (!number(value, n) || n > 0x3f) return fail(word, "expected dscp=0..63");
         out.actions.set(actionSetDscp);
         out.dscp = static_cast<std::uint8_t>(n);
      } else if (name == "redirect-vrf") {
         if (!number(value, n) || n >= TrafficRedirect::noVrfId) return fail(word, "expected redirect-vrf=ID");
         out.actions.set(actionRedirect);
         out.trafficRedirect.vrfId = n;
      } else if (name == "redirect-ip") {
         auto const a = Ovnet::IpGenAddr::parse(value);
         if (!a) return fail(word, "expected redirect-ip=ADDRESS");
         out.actions.set(actionRedirect);
         out.trafficRedirect.address = *a;
      } else if (name == "bits") {
         if (!number(value, n)) return fail(word, "expected bits=NUMBER");
         out.actions = ActionFieldSet(out.actions.value() | n);
      } else {
         return fail(word, "not an action");
      }
   }
   if (!any) out.actions.set(actionDrop);
   r = out;
   return true;
}

std::ostream& operator<<(std::ostream& os, ActionFieldSet a) { return os << a.str(); }
std::ostream& operator<<(std::ostream& os, TrafficRedirect const& r) { return os << r.str(); }
std::ostream& operator<<(std::ostream& os, Rule const& r) { return os << r.str(); }

} // namespace Flowspec
