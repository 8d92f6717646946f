#include "host/flowspec/MatchCompType.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <ostream>

#include "host/fwk/ValueText.h"

namespace Flowspec {

namespace {

constexpr std::array<std::string_view, 14> kNames = {
    "none",      "Destination Prefix", "Source Prefix", "IP Protocol",   "Port", "Destination Port", "Source Port",
    "ICMP Type", "ICMP Code",          "TCP Flags",     "Packet Length", "DSCP", "Fragment",         "Flow Label",
};

constexpr std::string_view kUnknownOpen = "unknown(";

// "unknown(N)" at the start of `text` for a number N beyond the named types (which have
// names of their own, so that each type has exactly one text).
std::optional<MatchCompType> parseUnknown(std::string_view text) noexcept {
   if (!text.starts_with(kUnknownOpen)) return std::nullopt;
   std::size_t i = kUnknownOpen.size();
   std::uint64_t n = 0;
   std::size_t const digits = i;
   while (i < text.size() && text[i] >= '0' && text[i] <= '9' && i - digits < 10) {
      n = n * 10 + static_cast<std::uint64_t>(text[i] - '0');
      ++i;
   }
   if (i == digits || i >= text.size() || text[i] != ')') return std::nullopt;
   if (n <= maxMatchCompType || n > UINT32_MAX) return std::nullopt;
   // A leading zero would give a second text of the same number.
   if (text[digits] == '0') return std::nullopt;
   return static_cast<MatchCompType>(n);
}

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
   if (best != kNames.size()) {
      pos += kNames[best].size();
      return static_cast<MatchCompType>(best);
   }
   // A number beyond the named types reads back from the form toStrep writes for it.
   if (std::optional<MatchCompType> const t = parseUnknown(rest)) {
      pos = std::find(pos, end, ')') + 1;
      return *t;
   }
   throw Ovk::RangeError("not a flowspec component type: '" + std::string(rest.substr(0, 20)) + "'");
}

std::optional<MatchCompType> matchCompTypeFromName(std::string_view text) noexcept {
   for (std::size_t i = 0; i < kNames.size(); ++i) {
      if (kNames[i] == text) return static_cast<MatchCompType>(i);
   }
   return std::nullopt;
}

} // namespace Flowspec
