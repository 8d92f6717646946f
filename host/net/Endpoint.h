// A transport endpoint: an IP address and a port.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/net/IpGenAddr.h"

namespace Ovnet {

struct Endpoint {
   IpGenAddr address;
   std::uint16_t port = 0;
   // "127.0.0.1:179", "[::1]:179".
   std::string str() const;
   friend bool operator==(Endpoint const&, Endpoint const&) = default;
};

// "ADDR", "ADDR:PORT", "[V6ADDR]" or "[V6ADDR]:PORT" (a bare IPv6 address takes no port);
// `defaultPort` when the text names none. Ports are 1 to 65535.
std::optional<Endpoint> parseEndpoint(std::string_view text, std::uint16_t defaultPort);

} // namespace Ovnet
