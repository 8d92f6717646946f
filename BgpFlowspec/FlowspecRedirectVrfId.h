// Redirect to VRF: which VRF each rule redirects into, and which rules depend on which route
// target.
//
// A redirect-to-VRF community names its VRF by a route target; the export resolves it
// through the import configuration (host/bgp/RtImport.h), records the answer per rule in
// FlowspecRkToRedirVrfId (one per family, shared by the family's export state machines and
// read by the show table), and records under each route target the rules that named it
// (FlowspecRouteKeySet), so that a change of that route target's import re-translates
// exactly those rules.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "BgpFlowspec/FlowspecRouteKey.h"
#include "host/bgp/ExtComm.h"
#include "host/bgp/RtImport.h"
#include "host/fwk/Ptr.h"

namespace Routing::Bgp::FlowspecPlugin {

// The VRF a rule redirects into and the community that chose it.
struct FlowspecRedirVrfId {
   static constexpr std::uint32_t kNoVrf = 0xffffff;
   std::uint32_t vrfId = kNoVrf;
   std::uint64_t flowspecExtComm = 0;

   bool empty() const { return vrfId == kNoVrf && flowspecExtComm == 0; }
   // "Value('Routing::Bgp::FlowspecPlugin::FlowspecRedirVrfId', ** {'vrfId': N, 'flowspecExtComm': N})".
   std::string valueToStrep() const;
   friend bool operator==(FlowspecRedirVrfId const&, FlowspecRedirVrfId const&) = default;
};
std::ostream& operator<<(std::ostream& os, FlowspecRedirVrfId const& v);

// Rule -> the VRF its redirect resolved to.
class FlowspecRkToRedirVrfId : public Ovk::PtrInterface {
 public:
   static Ovk::FwkType const& classFwkType();
   // Inserts or replaces.
   void mapIs(FlowspecRouteKey const* key, FlowspecRedirVrfId value) { map_[key] = value; }
   void mapDel(FlowspecRouteKey const* key) { map_.erase(key); }
   void mapDelAll() { map_.clear(); }
   // The rule's entry; the empty one when it has none.
   FlowspecRedirVrfId map(FlowspecRouteKey const* key) const {
      auto const it = map_.find(key);
      return it == map_.end() ? FlowspecRedirVrfId{} : it->second;
   }
   std::size_t size() const { return map_.size(); }

 private:
   std::unordered_map<FlowspecRouteKey const*, FlowspecRedirVrfId> map_;
};

// The rules that named one route target.
class FlowspecRouteKeySet : public Ovk::PtrInterface {
 public:
   explicit FlowspecRouteKeySet(Ovk::Ptr<ExtComm const> rtExtComm) : rtExtComm_(std::move(rtExtComm)) {}
   Ovk::Ptr<ExtComm const> const& rtExtComm() const { return rtExtComm_; }
   void routeKeyIs(FlowspecRouteKey const* key) { keys_.insert(key); }
   void routeKeyDel(FlowspecRouteKey const* key) { keys_.erase(key); }
   void routeKeyDelAll() { keys_.clear(); }
   std::size_t routeKeys() const { return keys_.size(); }
   std::unordered_set<FlowspecRouteKey const*> const& routeKey() const { return keys_; }

 private:
   Ovk::Ptr<ExtComm const> rtExtComm_;
   std::unordered_set<FlowspecRouteKey const*> keys_;
};

class FlowspecRouteConfigSm;

// Follows one route-target list (VpnRtToVrfIdList): a route target whose VRFs change
// re-translates the rules that named it. Attaching runs handleRtExtCommAll.
class FlowspecRtExtCommReactor : public VpnRtToVrfIdList::Reactor {
 public:
   FlowspecRtExtCommReactor(FlowspecRouteConfigSm& sm, Ovk::Ptr<VpnRtToVrfIdList> list);
   ~FlowspecRtExtCommReactor() override;
   void handleRtExtComm(Ovk::Ptr<ExtComm const> const& rt);
   // handleRtExtComm for every route target some rule named.
   void handleRtExtCommAll();
   void handleKey(Ovk::Ptr<ExtComm const> const& rt) override { handleRtExtComm(rt); }
   void handleAll() override { handleRtExtCommAll(); }

 private:
   FlowspecRouteConfigSm& sm_;
};

// Follows the VPN families of the import configuration (AfiSafiRtToVrfIdList): when the
// state machine's VPN family comes, its route-target list is followed; when it goes, every
// rule that named a route target is re-translated. Attaching runs handleVpnAfiSafiAll.
class FlowspecVpnAfiSafiReactor : public AfiSafiRtToVrfIdList::Reactor {
 public:
   FlowspecVpnAfiSafiReactor(FlowspecRouteConfigSm& sm, Ovk::Ptr<AfiSafiRtToVrfIdList> list);
   ~FlowspecVpnAfiSafiReactor() override;
   void handleVpnAfiSafi(AfiSafi afiSafi);
   void handleVpnAfiSafiAll();
   void handleKey(AfiSafi const& afiSafi) override { handleVpnAfiSafi(afiSafi); }
   void handleAll() override { handleVpnAfiSafiAll(); }
   FlowspecRtExtCommReactor* rtExtCommReactor() const { return rtExtCommReactor_.get(); }
   void rtExtCommReactorIs(std::unique_ptr<FlowspecRtExtCommReactor> reactor);

 private:
   FlowspecRouteConfigSm& sm_;
   std::unique_ptr<FlowspecRtExtCommReactor> rtExtCommReactor_;
};

} // namespace Routing::Bgp::FlowspecPlugin
