// Which kind an extended community is, as the plugins of the agent teach it.
//
// The host knows route targets by itself. Address families add the kinds they interpret
// through state machines on the extended-community parse rule collections: the flowspec
// one (FlowspecParseExtCommSm, a host library the flowspec plugin starts) registers the
// flowspec kinds, so that communities of those types are built as the classes the
// forwarding export reads. Without it they stay plain communities.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <span>

#include "host/bgp/ExtComm.h"
#include "host/fwk/Notification.h"
#include "host/fwk/Ptr.h"

namespace Routing::Bgp {

class ExtCommParseRuleCollections : public Ovk::PtrInterface {
 public:
   static Ovk::Ptr<ExtCommParseRuleCollections> create() { return Ovk::makePtr<ExtCommParseRuleCollections>(); }

   using Creator = Ovk::Ptr<ExtComm> (*)(std::uint64_t value);
   using Ip6Creator = Ovk::Ptr<ExtCommIp6> (*)(std::span<std::uint8_t const, ExtCommIp6::kSize> bytes);

   // The community of `value`, of the kind registered for its type and subtype; a route
   // target or a plain community otherwise.
   Ovk::Ptr<ExtComm> create(std::uint64_t value) const;
   Ovk::Ptr<ExtCommIp6> create(std::span<std::uint8_t const, ExtCommIp6::kSize> bytes) const;

   // Registration by the parse state machines, which see the collections as const (as the
   // UPDATE parse rule collections): the tables are theirs to fill.
   void creatorIs(std::uint16_t typeSubtype, Creator creator) const { creators_[typeSubtype] = creator; }
   void creatorDel(std::uint16_t typeSubtype) const { creators_.erase(typeSubtype); }
   void ip6CreatorIs(std::uint16_t typeSubtype, Ip6Creator creator) const { ip6Creators_[typeSubtype] = creator; }
   void ip6CreatorDel(std::uint16_t typeSubtype) const { ip6Creators_.erase(typeSubtype); }
   std::size_t kinds() const { return creators_.size() + ip6Creators_.size(); }

 private:
   mutable std::map<std::uint16_t, Creator> creators_;
   mutable std::map<std::uint16_t, Ip6Creator> ip6Creators_;
};

// Teaches the collections the flowspec kinds while its notification is on (RFC 8955 section
// 7, RFC 8956 section 3.7 and the redirect-to-IP extension): traffic-rate (bytes and
// packets), traffic-action, traffic-marking, the three redirect-to-VRF forms, redirect to an
// IPv4 or IPv6 address, redirect to the next hop, and the IPv6 route-target redirect.
class FlowspecParseExtCommSm : public Ovk::PtrInterface, public Ovk::NotificationSwitch {
 public:
   explicit FlowspecParseExtCommSm(Ovk::Ptr<ExtCommParseRuleCollections const> collections);
   // Constructs, switches notification on and returns the first reference.
   static Ovk::Ptr<FlowspecParseExtCommSm> FlowspecParseExtCommSmIs(
       Ovk::Ptr<ExtCommParseRuleCollections const> collections);
   Ovk::Ptr<ExtCommParseRuleCollections const> const& ruleCollections() const { return collections_; }
   void hasNotificationActiveIs(bool on) override;

 protected:
   ~FlowspecParseExtCommSm() override;

 private:
   Ovk::Ptr<ExtCommParseRuleCollections const> collections_;
};

} // namespace Routing::Bgp
