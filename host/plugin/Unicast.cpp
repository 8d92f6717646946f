#include "host/plugin/Unicast.h"

#include "host/bgp/UnicastRouteKey.h"

namespace Routing::Bgp::Plugin {

namespace {

class UnicastHelpers final : public AfiSafiHelpers {
 public:
   using AfiSafiHelpers::AfiSafiHelpers;

 protected:
   ~UnicastHelpers() override = default;
};

class UnicastConstructAdjRibin final : public BgpInputConstructAdjRibinAfiSafiPluginBase {
 public:
   explicit UnicastConstructAdjRibin(AfiSafi afiSafi) : afiSafi_(afiSafi) {}
   void instantiateAdjRibin(AdjRibinType type, Ovk::Ptr<AdjRibinCollection> const& collection,
                            Ovk::Ptr<BgpInputDedupTables const> const& inputTables) const override {
      collection->adjRibinIs(
          Ovk::makePtr<UnicastAdjRibin>(type, fromAfiSafi(afiSafi_), instanceEpoch(), inputTables, nullptr));
   }

 protected:
   ~UnicastConstructAdjRibin() override = default;

 private:
   AfiSafi afiSafi_;
};

// What the context keeps of a unicast family for its life: the parse state machine.
class UnicastMain final : public PluginMainBase {
 public:
   explicit UnicastMain(Ovk::Ptr<UnicastParseSm> parseSm) : parseSm_(std::move(parseSm)) {}

 protected:
   ~UnicastMain() override = default;

 private:
   Ovk::Ptr<UnicastParseSm> parseSm_;
};

} // namespace

void unicastFamiliesIs(Context& context) {
   for (AfiSafi const family : {AfiSafi::ipv4Unicast(), AfiSafi::ipv6Unicast()}) {
      if (context.afiSafiTable()->helpers(family)) continue;
      auto helpers = Ovk::makePtr<UnicastHelpers>(family);
      helpers->hookIs(HookId::constructAdjRibin, Ovk::makePtr<UnicastConstructAdjRibin>(family));
      // Unicast is learnt in the default VRF only.
      BgpVrfIdBase const vrf = BgpL3VrfId::defaultVrfId();
      helpers->bgpAfiSafiDedupTablesAllVrf()->dedupTablesVrfAfiSafiIs(
          family, vrf, Ovk::makePtr<UnicastRouteKeyDedupTable>(family, vrf), nullptr);
      auto parseSm = Ovk::makePtr<UnicastParseSm>(context.parseRuleCollections(family));
      context.pluginMainIs(family, Ovk::makePtr<UnicastMain>(parseSm));
      context.registerHelpers(helpers);
   }
}

} // namespace Routing::Bgp::Plugin
