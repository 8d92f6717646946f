#include "fwd/VrfTables.h"

#include <charconv>

namespace Fwd {

namespace {

bool number(std::string_view s, std::uint32_t& v) {
   auto const r = std::from_chars(s.data(), s.data() + s.size(), v);
   return !s.empty() && r.ec == std::errc() && r.ptr == s.data() + s.size();
}

std::string_view trimmed(std::string_view s) {
   while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r')) s.remove_prefix(1);
   while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
   return s;
}

} // namespace

std::string addVrfTable(std::string_view spec, VrfTables& into) {
   spec = trimmed(spec);
   std::size_t const sep = spec.find_first_of("= \t");
   if (sep == std::string_view::npos) return "expected ID=TABLE, got \"" + std::string(spec) + "\"";
   std::uint32_t vrf = 0;
   std::uint32_t table = 0;
   if (!number(trimmed(spec.substr(0, sep)), vrf) || vrf >= 0xffffff) {
      return "VRF id \"" + std::string(trimmed(spec.substr(0, sep))) + "\" is not a number below 16777215";
   }
   if (!number(trimmed(spec.substr(sep + 1)), table) || table == 0 || table == 255) {
      return "table \"" + std::string(trimmed(spec.substr(sep + 1))) +
             "\" is not a routing table number (1-4294967295, not 255)";
   }
   auto const [it, fresh] = into.emplace(vrf, table);
   if (!fresh && it->second != table) {
      return "VRF " + std::to_string(vrf) + " is given tables " + std::to_string(it->second) + " and " +
             std::to_string(table);
   }
   return {};
}

Ovk::Result<VrfTables, std::string> parseVrfTables(std::string_view text) {
   VrfTables out;
   unsigned lineNo = 0;
   while (!text.empty()) {
      std::size_t const end = text.find('\n');
      std::string_view line = text.substr(0, end);
      text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
      ++lineNo;
      if (std::size_t const hash = line.find('#'); hash != std::string_view::npos) line = line.substr(0, hash);
      if (trimmed(line).empty()) continue;
      if (std::string const e = addVrfTable(line, out); !e.empty()) {
         return Ovk::failure("line " + std::to_string(lineNo) + ": " + e);
      }
   }
   return out;
}

} // namespace Fwd
