// Arbitrary text through the framework's text parsers: the quoted string form (which must
// round-trip what it accepts) and the address / prefix parsers (which must print what they
// accept in a form they accept again).
#include <cstddef>
#include <cstdint>
#include <string>

#include "host/fwk/ValueText.h"
#include "host/net/IpGenAddr.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   std::string const text(reinterpret_cast<char const*>(data), size);
   char const* pos = text.data();
   try {
      Ovk::ValueTextParser p(pos, text.data() + text.size());
      Ovk::String s = p.string();
      std::string const again = Ovk::quoted(s.view());
      char const* q = again.data();
      Ovk::ValueTextParser p2(q, again.data() + again.size());
      if (!(p2.string() == s) || !p2.atEnd()) __builtin_trap();
   } catch (Ovk::ValueError const&) {}
   if (auto prefix = Ovnet::IpGenPrefix::parse(text)) {
      auto back = Ovnet::IpGenPrefix::parse(prefix->str());
      if (!back || !(*back == *prefix)) __builtin_trap();
   }
   return 0;
}
