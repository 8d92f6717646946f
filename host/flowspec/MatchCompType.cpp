#include "host/flowspec/MatchCompType.h"

#include <array>
#include <ostream>

#include "host/fwk/ValueText.h"

namespace Flowspec {

namespace {

constexpr std::array<std::string_view, 14> kNames = {
   "none",      "Destination Prefix", "Source Prefix", "IP Protocol",   "Port",
   "Destination Port", "Source Port", "ICMP Type",     "ICMP Code",     "TCP Flags",
   "Packet Length",    "DSCP",        "Fragment",      "Flow Label",
};

} // namespace

unsigned maxValueBytes(MatchCompType t) noexcept {
   switch (t) {
    case ipProtocol_:
    case icmpType_:
    case icmpCode_:
    case dscp_:
    case fragment_: return 1;
    case port_:
    case destPort_:
    case srcPort_:
    case tcpFlags_:
    case packetLength_: return 2;
    case flowLabel_: return 4;
    default: return 0;
   }
}

std::string_view matchCompTypeName(MatchCompType t) noexcept {
   return t < kNames.size() ? kNames[t] : std::string_view();
}

std::string toStrep(MatchCompType t) {
   std::string_view const name = matchCompTypeName(t);
   if (!name.empty()) return std::string(name);
   return "unknown(" + std::to_string(static_cast<std::uint32_t>(t)) + ")";
}

std::ostream& operator<<(std::ostream& os, MatchCompType t) { return os << toStrep(t); }

MatchCompType parseMatchCompType(char const*& pos, char const* end) {
   std::string_view const rest(pos, static_cast<std::size_t>(end - pos));
   // "Destination Port" and "Destination Prefix" share a start, so take the longest name
   // that matches rather than the first.
   std::size_t best = kNames.size();
   for (std::size_t i = 0; i < kNames.size(); ++i) {
      if (rest.starts_with(kNames[i]) && (best == kNames.size() || kNames[i].size() > kNames[best].size())) best = i;
   }
   if (best == kNames.size()) {
      throw Ovk::RangeError("not a flowspec component type: '" + std::string(rest.substr(0, 20)) + "'");
   }
   pos += kNames[best].size();
   return static_cast<MatchCompType>(best);
}

std::optional<MatchCompType> matchCompTypeFromName(std::string_view text) noexcept {
   for (std::size_t i = 0; i < kNames.size(); ++i) {
      if (kNames[i] == text) return static_cast<MatchCompType>(i);
   }
   return std::nullopt;
}

} // namespace Flowspec
