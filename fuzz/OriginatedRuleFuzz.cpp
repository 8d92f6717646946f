// Originated rules as an operator writes them, under arbitrary input: the first byte picks the
// family and the local AS, the text up to the first newline is the match and the words after
// it the actions, as `flowspec rule add` and a [[rule]] table hand them over. The actions must
// print as text that reads back as the same communities. A rule the plugin binds must have an
// NLRI within the length field's reach that the family's NLRI rule reads back as the rule
// itself, and bind to the same route key every time.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "agent/OriginatedRule.h"
#include "agent/Origination.h"
#include "host/plugin/PluginHost.h"
#include "tools/flowspec/NlriCodec.h"

namespace {

using namespace Flowspecd;

void check(bool ok) {
   if (!ok) std::abort();
}

// The plugin started twice, for a 2-octet and a 4-octet local AS (the latter may need
// AS4_PATH towards old peers, which leaves less room for the NLRI).
struct Setup {
   struct One {
      Ovk::Ptr<Plugin::Context> context;
      std::unique_ptr<Origination> origination;
   };
   One narrow = make(65001);
   One wide = make(4200000000u);
   FlowspecTool::NlriDecoder v4{Routing::Bgp::Afi::afiIpv4};
   FlowspecTool::NlriDecoder v6{Routing::Bgp::Afi::afiIpv6};

   static One make(std::uint32_t as) {
      if (!Plugin::loadPluginLibrary(FS_PLUGIN_LIBRARY)) std::abort();
      Plugin::Context::Options o;
      o.taskScheduler = Ovk::ManualScheduler::create();
      o.attributeCacheStatus = Hoard::AttributeCacheStatus::create();
      o.local = BgpPeer{Ovnet::IpGenAddr(), as, as, 1, BgpL3VrfId::defaultVrfId()};
      One one;
      one.context = Plugin::startPlugins(std::move(o));
      one.origination = std::make_unique<Origination>(one.context);
      return one;
   }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   static Setup* const setup = new Setup();
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
   auto const rule = originatedRuleOf(family, match, actionsOfWords(words));
   if (!rule.ok()) return 0;
   OriginatedRule const& r = rule.value();
   auto const again = communitiesOf(family, actionTexts(r.communities));
   check(again.ok() && again.value() == r.communities);
   Origination const& origination = *((data[0] & 2) != 0 ? setup->wide : setup->narrow).origination;
   auto const bound = origination.bind(r);
   if (!bound.ok()) return 0;
   std::vector<std::uint8_t> const& nlri = bound.value().nlri;
   check(!nlri.empty() && nlri.size() <= 0x0fff + 2);
   auto const decoded = (family == Routing::Bgp::kIpv4Flowspec ? setup->v4 : setup->v6).decode(nlri);
   check(decoded["ok"].get<bool>() && !decoded.contains("trailing") && decoded["rule"] == r.match);
   check(origination.bind(r).value().key.ptr() == bound.value().key.ptr());
   return 0;
}
