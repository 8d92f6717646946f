#include "host/bgp/ExtCommParse.h"

namespace Routing::Bgp {

Ovk::Ptr<ExtComm> ExtCommParseRuleCollections::create(std::uint64_t value) const {
   auto const it = creators_.find(static_cast<std::uint16_t>(value >> 48));
   if (it != creators_.end()) return it->second(value);
   return ExtComm::createBase(value);
}

Ovk::Ptr<ExtCommIp6> ExtCommParseRuleCollections::create(std::span<std::uint8_t const, ExtCommIp6::kSize> bytes) const {
   auto const it = ip6Creators_.find(static_cast<std::uint16_t>((bytes[0] << 8) | bytes[1]));
   if (it != ip6Creators_.end()) return it->second(bytes);
   return Ovk::makePtr<ExtCommIp6>(bytes);
}

FlowspecParseExtCommSm::FlowspecParseExtCommSm(Ovk::Ptr<ExtCommParseRuleCollections const> collections)
    : collections_(std::move(collections)) {}

FlowspecParseExtCommSm::~FlowspecParseExtCommSm() { hasNotificationActiveIs(false); }

Ovk::Ptr<FlowspecParseExtCommSm> FlowspecParseExtCommSm::FlowspecParseExtCommSmIs(
    Ovk::Ptr<ExtCommParseRuleCollections const> collections) {
   auto sm = Ovk::makePtr<FlowspecParseExtCommSm>(std::move(collections));
   sm->hasNotificationActiveIs(true);
   return sm;
}

void FlowspecParseExtCommSm::hasNotificationActiveIs(bool on) {
   if (on == notificationActive()) return;
   NotificationSwitch::hasNotificationActiveIs(on);
   if (!collections_) return;
   for (ExtCommKind const& k : flowspecExtCommKinds()) {
      if (on) {
         collections_->creatorIs(k.typeSubtype, k.create);
      } else {
         collections_->creatorDel(k.typeSubtype);
      }
   }
   for (ExtCommIp6Kind const& k : flowspecExtCommIp6Kinds()) {
      if (on) {
         collections_->ip6CreatorIs(k.typeSubtype, k.create);
      } else {
         collections_->ip6CreatorDel(k.typeSubtype);
      }
   }
}

} // namespace Routing::Bgp
