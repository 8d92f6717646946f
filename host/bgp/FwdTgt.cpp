#include "host/bgp/FwdTgt.h"

namespace Routing::Bgp {

void RibRouteVrfAfiSafiFwdTgtTable::forEachRouteKey(std::function<void(RouteKey const*)> const& f) const {
   // Collected first: the callback may change the table.
   std::vector<Ovk::Ptr<RouteKey const>> keys;
   keys.reserve(table_->routes());
   RouteOrderIndex const& order = table_->order();
   for (auto it = order.begin(); it != order.end(); ++it) keys.emplace_back(*it);
   for (auto const& key : keys) f(key.ptr());
}

Ovk::Ptr<RibRouteVrfAfiSafiFwdTgtTable> RouteFwdTgtTable::tableIs(Ovk::Ptr<RibTable> const& table) {
   auto view = Ovk::makePtr<RibRouteVrfAfiSafiFwdTgtTable>(target_, table);
   tables_[{table->vrfId(), table->afiSafi()}] = view;
   return view;
}

void RouteFwdTgtTable::tableDel(BgpVrfIdBase vrfId, AfiSafi afiSafi) { tables_.erase({vrfId, afiSafi}); }

FwdTgtRouteConfigSm::FwdTgtRouteConfigSm(BgpVrfIdBase vrfIdBase, AfiSafi afiSafi, ForwardingTarget target,
                                         Ovk::Ptr<RibRouteVrfAfiSafiFwdTgtTable> routeTable)
    : vrfIdBase_(vrfIdBase), afiSafi_(afiSafi), target_(target), routeTable_(std::move(routeTable)) {}

FwdTgtRouteConfigSm::~FwdTgtRouteConfigSm() { listen(false); }

void FwdTgtRouteConfigSm::listen(bool on) {
   if (on == listening_ || !routeTable_) return;
   listening_ = on;
   if (on) {
      routeTable_->ribTable().reactorIs(this);
   } else {
      routeTable_->ribTable().reactorDel(this);
   }
}

void FwdTgtRouteConfigSm::hasNotificationActiveIs(bool on) {
   NotificationSwitch::hasNotificationActiveIs(on);
   listen(on);
}

void FwdTgtRouteConfigSm::routeTableIs(Ovk::Ptr<RibRouteVrfAfiSafiFwdTgtTable> table) {
   listen(false);
   routeTable_ = std::move(table);
   listen(notificationActive());
}

void FwdTgtRouteConfigSm::routeTableDel() {
   listen(false);
   routeTable_ = nullptr;
}

std::string FwdTgtRouteConfigSm::notInForwardingReason(RouteKey const&) const { return {}; }

void FwdTgtRouteConfigSm::handleRouteEntryAll() {
   if (!routeTable_) return;
   routeTable_->forEachRouteKey([this](RouteKey const* key) { handleRouteEntry(key); });
}

} // namespace Routing::Bgp
