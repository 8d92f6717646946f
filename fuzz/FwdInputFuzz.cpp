// The text flowspec-fwd reads from outside: the VRF table file, nft's error output, and the
// action words of the test writer. The first byte picks the reader.
// Oracles: a VRF file that reads back writes out and reads again as the same mapping; every
// nft error is one line of text.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fwd/Nft.h"
#include "fwd/VrfTables.h"
#include "host/flowspec/Rule.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   if (size == 0) return 0;
   std::string_view const text(reinterpret_cast<char const*>(data + 1), size - 1);
   switch (data[0] % 3) {
   case 0: {
      auto const t = Fwd::parseVrfTables(text);
      if (!t) break;
      std::string out;
      for (auto const& [vrf, table] : t.value()) {
         if (vrf >= 0xffffff || table == 0 || table == 255) __builtin_trap();
         out += std::to_string(vrf) + " " + std::to_string(table) + "\n";
      }
      auto const again = Fwd::parseVrfTables(out);
      if (!again || again.value() != t.value()) __builtin_trap();
      break;
   }
   case 1: {
      for (auto const& e : Fwd::parseNftErrors(std::string(text), "/proc/self/fd/3")) {
         if (e.message.find('\n') != std::string::npos) __builtin_trap();
      }
      break;
   }
   default: {
      Flowspec::Rule r;
      std::string why;
      (void)Flowspec::ruleActionsFromText(text, r, &why);
      break;
   }
   }
   return 0;
}
