#include "host/net/Endpoint.h"

namespace Ovnet {

namespace {

std::optional<std::uint16_t> parsePort(std::string_view text) {
   if (text.empty() || text.size() > 5) return std::nullopt;
   std::uint32_t v = 0;
   for (char const c : text) {
      if (c < '0' || c > '9') return std::nullopt;
      v = v * 10 + static_cast<std::uint32_t>(c - '0');
   }
   if (v == 0 || v > 65535) return std::nullopt;
   return static_cast<std::uint16_t>(v);
}

} // namespace

std::string Endpoint::str() const {
   if (address.isIpv6()) return "[" + address.str() + "]:" + std::to_string(port);
   return address.str() + ":" + std::to_string(port);
}

std::optional<Endpoint> parseEndpoint(std::string_view text, std::uint16_t defaultPort) {
   Endpoint e;
   e.port = defaultPort;
   std::string_view addr = text;
   if (!text.empty() && text.front() == '[') {
      auto const close = text.find(']');
      if (close == std::string_view::npos) return std::nullopt;
      addr = text.substr(1, close - 1);
      std::string_view const rest = text.substr(close + 1);
      if (!rest.empty()) {
         if (rest.front() != ':') return std::nullopt;
         auto p = parsePort(rest.substr(1));
         if (!p) return std::nullopt;
         e.port = *p;
      }
      auto a = IpGenAddr::parse(addr);
      if (!a || !a->isIpv6()) return std::nullopt;
      e.address = *a;
      return e;
   }
   auto const colon = text.find(':');
   if (colon != std::string_view::npos && text.find(':', colon + 1) == std::string_view::npos) {
      addr = text.substr(0, colon);
      auto p = parsePort(text.substr(colon + 1));
      if (!p) return std::nullopt;
      e.port = *p;
   }
   auto a = IpGenAddr::parse(addr);
   if (!a) return std::nullopt;
   e.address = *a;
   return e;
}

} // namespace Ovnet
