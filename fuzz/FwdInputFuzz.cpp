// What flowspec-fwd reads from outside: the VRF table file, nft's error output, the action
// words of the test writer, FSIB keys (shared memory another process writes) as both
// dataplanes compile them, and the bytes of sampled packets. The first byte picks the reader.
// Oracles: a VRF file that reads back writes out and reads again as the same mapping; every
// nft error is one line of text; the nftables and XDP compilers agree on whether a key can
// match at all, and XDP's value sets lie within their fields; a frame's description is one
// line.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>
#include <string>
#include <string_view>

#include "fwd/Nft.h"
#include "fwd/VrfTables.h"
#include "fwd/XdpTable.h"
#include "host/flowspec/Rule.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   if (size == 0) return 0;
   std::string_view const text(reinterpret_cast<char const*>(data + 1), size - 1);
   switch (data[0] % 5) {
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
   case 3: {
      std::vector<std::uint32_t> words(text.size() / 4);
      if (!words.empty()) std::memcpy(words.data(), text.data(), words.size() * 4);
      auto const slate = Flowspec::FlowspecSlateKey::fromWords(words);
      if (!slate) break;
      Flowspec::FlowspecKey const key = slate->flowspecKey();
      Fwd::MatchSets const sets = Fwd::matchSets(key);
      Fwd::XdpCompiled const xdp = Fwd::compileXdpMatch(key);
      bool const never = sets.kind == Fwd::CompiledRule::Kind::neverMatches;
      if (never != (xdp.kind == Fwd::CompiledRule::Kind::neverMatches)) __builtin_trap();
      if (xdp.kind == Fwd::CompiledRule::Kind::install) {
         std::uint32_t const max[] = {0xff, 0xffff, 0xffff, 0xffff, 0xff, 0xff, 0xfff, 0xffff, 0x3f, 0xf, 0xfffff};
         for (std::size_t f = 0; f < Fwd::xdpFieldCount; ++f) {
            auto const& s = xdp.match.fields[f];
            if (s && (s->empty() || s->intervals().back().hi > max[f])) __builtin_trap();
         }
      }
      break;
   }
   case 4: {
      std::string const d =
          Fwd::describeFrame(std::span<std::uint8_t const>(reinterpret_cast<std::uint8_t const*>(text.data()), text.size()));
      if (d.find('\n') != std::string::npos) __builtin_trap();
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
