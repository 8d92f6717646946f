// Originated rules as an operator writes them, under arbitrary input: the first byte picks the
// family, the text up to the first newline is the match and the words after it the actions,
// as `flowspec rule add` and a [[rule]] table hand them over. A rule that is accepted must
// have an NLRI within the length field's reach, its own UPDATE must fit one message, and its
// actions must print as text that reads back as the same communities.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "agent/OriginatedRule.h"
#include "host/bgp/BgpMessage.h"

namespace {

using namespace Flowspecd;

void check(bool ok) {
   if (!ok) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   if (size == 0) return 0;
   AfiSafi const family = (data[0] & 1) != 0 ? Routing::Bgp::kIpv6Flowspec : Routing::Bgp::kIpv4Flowspec;
   std::string_view const text(reinterpret_cast<char const*>(data + 1), size - 1);
   auto const cut = text.find('\n');
   std::string_view const match = text.substr(0, cut);
   std::vector<std::string> words;
   if (cut != std::string_view::npos) {
      std::istringstream in{std::string(text.substr(cut + 1))};
      for (std::string w; in >> w;) words.push_back(w);
   }
   // A 2-octet and a 4-octet local AS: the latter may need AS4_PATH towards old peers.
   std::uint32_t const localAs = (data[0] & 2) != 0 ? 4200000000u : 65001u;
   auto const rule = originatedRuleOf(family, match, actionsOfWords(words), localAs);
   if (!rule.ok()) return 0;
   OriginatedRule const& r = rule.value();
   check(!r.nlri.empty() && r.nlri.size() <= kMaxNlriBody + 2);
   auto const again = communitiesOf(family, actionTexts(r.communities));
   check(again.ok() && again.value() == r.communities);
   auto const update = originationUpdate(r);
   check(!update.empty() && update.size() <= kMaxMessage);
   return 0;
}
