#include "host/bgp/BgpParseRules.h"
#include "host/fwk/FwkType.h"

#include <algorithm>
#include <ostream>

#include "host/fwk/Assert.h"

namespace Routing::Bgp {

std::string toStrep(BgpNotificationErrorUpdateMessageSubcode subcode) {
   using S = BgpNotificationErrorUpdateMessageSubcode;
   switch (subcode) {
   case S::malformedAttributeList: return "malformedAttributeList";
   case S::unrecognizedWellKnownAttribute: return "unrecognizedWellKnownAttribute";
   case S::missingWellKnownAttribute: return "missingWellKnownAttribute";
   case S::attributeFlagsError: return "attributeFlagsError";
   case S::attributeLengthError: return "attributeLengthError";
   case S::invalidOriginAttribute: return "invalidOriginAttribute";
   case S::invalidNextHopAttribute: return "invalidNextHopAttribute";
   case S::optionalAttributeError: return "optionalAttributeError";
   case S::invalidNetworkField: return "invalidNetworkField";
   case S::malformedAsPath: return "malformedAsPath";
   case S::noError: return "noError";
   }
   return std::to_string(static_cast<std::uint32_t>(subcode));
}

std::ostream& operator<<(std::ostream& os, BgpNotificationErrorUpdateMessageSubcode subcode) {
   return os << toStrep(subcode);
}

std::ostream& operator<<(std::ostream& os, BgpParseUpdateMessageRuleKey const& key) {
   os << key.afiSafi;
   if (key.addPathReceive) os << " addPath";
   return os;
}

std::ostream& operator<<(std::ostream& os, BgpParseUpdateAttributeMpReachNlriRuleKey const& key) {
   return os << key.afiSafi;
}

// ---- Scratchpad ----

void BgpParseUpdateAttributesScratchpad::clear() {
   nexthop_ = nullptr;
   origin.reset();
   asPath = {};
   asPathFourOctet = true;
   ipv4NextHop.reset();
   med.reset();
   localPref.reset();
   atomicAggregate = false;
   aggregator = {};
   communities = {};
   extCommunities = {};
   ipv6ExtCommunities = {};
   if (results_) results_->clear();
}

// ---- Next-hop rule base ----

OVK_FWK_TYPE(BgpParseUpdateAttributeMpReachNlriNextHopRuleBase, "Routing::Bgp::BgpParseUpdateAttributeMpReachNlriNextHopRuleBase")

// ---- Rule collections ----

BgpParseRuleCollections::~BgpParseRuleCollections() {
   // State machines hold their collections, so none can still be attached.
   OVK_ASSERT(pluginSms_.empty());
}

void BgpParseRuleCollections::updateMessageRuleInstanceIs(BgpParseUpdateMessageRuleKey key,
                                                          BgpParseControl const& parseControl) {
   auto [it, inserted] = updateMessageRuleInstances_.try_emplace(key, parseControl);
   if (!inserted) {
      if (it->second == parseControl) return;
      it->second = parseControl;
   }
   // A copy: a handler may attach or detach state machines.
   std::vector<BgpParsePluginBaseSm*> const sms = pluginSms_;
   for (BgpParsePluginBaseSm* sm : sms) {
      if (sm->notificationActive()) sm->handleUpdateMessageRuleInstance(key);
   }
}

void BgpParseRuleCollections::mpReachNlriNextHopRuleInstanceIs(BgpParseUpdateAttributeMpReachNlriRuleKey key,
                                                               BgpParseControl const& parseControl) {
   auto [it, inserted] = nextHopRuleInstances_.try_emplace(key, parseControl);
   if (!inserted) {
      if (it->second == parseControl) return;
      it->second = parseControl;
   }
   std::vector<BgpParsePluginBaseSm*> const sms = pluginSms_;
   for (BgpParsePluginBaseSm* sm : sms) {
      if (sm->notificationActive()) sm->handleNlriRuleInstance(key);
   }
}

BgpParseControl const* BgpParseRuleCollections::updateMessageRuleInstance(BgpParseUpdateMessageRuleKey key) const {
   auto const it = updateMessageRuleInstances_.find(key);
   return it == updateMessageRuleInstances_.end() ? nullptr : &it->second;
}

BgpParseControl const* BgpParseRuleCollections::mpReachNlriNextHopRuleInstance(
    BgpParseUpdateAttributeMpReachNlriRuleKey key) const {
   auto const it = nextHopRuleInstances_.find(key);
   return it == nextHopRuleInstances_.end() ? nullptr : &it->second;
}

BgpParseUpdateNlriRuleBase const* BgpParseRuleCollections::nlriSubRule(BgpParseUpdateMessageRuleKey key) const {
   auto const it = nlriSubRules_.find(key);
   return it == nlriSubRules_.end() ? nullptr : it->second.ptr();
}

BgpParseUpdateAttributeMpReachNlriNextHopRuleBase const* BgpParseRuleCollections::nextHopSubRule(
    BgpParseUpdateAttributeMpReachNlriRuleKey key) const {
   auto const it = nextHopSubRules_.find(key);
   return it == nextHopSubRules_.end() ? nullptr : it->second.ptr();
}

void BgpParseRuleCollections::nlriSubRuleIs(BgpParseUpdateMessageRuleKey key,
                                            Ovk::Ptr<BgpParseUpdateNlriRuleBase const> rule) const {
   nlriSubRules_[key] = std::move(rule);
}

void BgpParseRuleCollections::nextHopSubRuleIs(
    BgpParseUpdateAttributeMpReachNlriRuleKey key,
    Ovk::Ptr<BgpParseUpdateAttributeMpReachNlriNextHopRuleBase const> rule) const {
   nextHopSubRules_[key] = std::move(rule);
}

void BgpParseRuleCollections::pluginSmIs(BgpParsePluginBaseSm* sm) const {
   if (std::find(pluginSms_.begin(), pluginSms_.end(), sm) == pluginSms_.end()) pluginSms_.push_back(sm);
}

void BgpParseRuleCollections::pluginSmDel(BgpParsePluginBaseSm* sm) const {
   pluginSms_.erase(std::remove(pluginSms_.begin(), pluginSms_.end(), sm), pluginSms_.end());
}

// ---- Plugin state machine base ----

BgpParsePluginBaseSm::BgpParsePluginBaseSm(Ovk::Ptr<BgpParseRuleCollections const> collections)
    : ruleCollections_(std::move(collections)) {}

BgpParsePluginBaseSm::~BgpParsePluginBaseSm() { detach(); }

void BgpParsePluginBaseSm::detach() {
   if (attached_ && ruleCollections_) ruleCollections_->pluginSmDel(this);
   attached_ = false;
}

void BgpParsePluginBaseSm::ruleCollectionsIs(Ovk::Ptr<BgpParseRuleCollections const> collections) {
   if (collections == ruleCollections_) return;
   detach();
   ruleCollections_ = std::move(collections);
}

void BgpParsePluginBaseSm::ruleCollectionsDel() {
   detach();
   ruleCollections_ = nullptr;
}

void BgpParsePluginBaseSm::handleStartup() {
   if (!ruleCollections_) return;
   ruleCollections_->pluginSmIs(this);
   attached_ = true;
   // Copies of the keys: instantiating may declare more.
   std::vector<std::pair<BgpParseUpdateAttributeMpReachNlriRuleKey, BgpParseControl>> const nextHops(
       ruleCollections_->mpReachNlriNextHopRuleInstances().begin(),
       ruleCollections_->mpReachNlriNextHopRuleInstances().end());
   for (auto const& [key, control] : nextHops) instantiateNextHopSubRule(key, control);
   std::vector<std::pair<BgpParseUpdateMessageRuleKey, BgpParseControl>> const messages(
       ruleCollections_->updateMessageRuleInstances().begin(), ruleCollections_->updateMessageRuleInstances().end());
   for (auto const& [key, control] : messages) instantiateNlriSubRule(key, control);
}

void BgpParsePluginBaseSm::serveMissing() {
   if (!attached_) return;
   std::vector<BgpParseUpdateAttributeMpReachNlriRuleKey> nextHops;
   for (auto const& [key, control] : ruleCollections_->mpReachNlriNextHopRuleInstances()) {
      if (!ruleCollections_->nextHopSubRule(key)) nextHops.push_back(key);
   }
   for (auto const key : nextHops) handleNlriRuleInstance(key);
   std::vector<BgpParseUpdateMessageRuleKey> messages;
   for (auto const& [key, control] : ruleCollections_->updateMessageRuleInstances()) {
      if (!ruleCollections_->nlriSubRule(key)) messages.push_back(key);
   }
   for (auto const key : messages) handleUpdateMessageRuleInstance(key);
}

void BgpParsePluginBaseSm::hasNotificationActiveIs(bool on) {
   bool const was = notificationActive();
   NotificationSwitch::hasNotificationActiveIs(on);
   if (on && !was) serveMissing();
}

void BgpParsePluginBaseSm::handleUpdateMessageRuleInstance(BgpParseUpdateMessageRuleKey key) {
   if (!ruleCollections_) return;
   if (BgpParseControl const* control = ruleCollections_->updateMessageRuleInstance(key)) {
      instantiateNlriSubRule(key, *control);
   }
}

void BgpParsePluginBaseSm::handleNlriRuleInstance(BgpParseUpdateAttributeMpReachNlriRuleKey key) {
   if (!ruleCollections_) return;
   if (BgpParseControl const* control = ruleCollections_->mpReachNlriNextHopRuleInstance(key)) {
      instantiateNextHopSubRule(key, *control);
   }
}

void BgpParsePluginBaseSm::addNlriSubRule(BgpParseUpdateMessageRuleKey ruleKey,
                                          Ovk::Ptr<BgpParseUpdateNlriRuleBase const> rule) const {
   OVK_ASSERT(ruleCollections_ != nullptr);
   ruleCollections_->nlriSubRuleIs(ruleKey, std::move(rule));
}

void BgpParsePluginBaseSm::addNextHopSubRule(
    BgpParseUpdateAttributeMpReachNlriRuleKey ruleKey,
    Ovk::Ptr<BgpParseUpdateAttributeMpReachNlriNextHopRuleBase const> rule) const {
   OVK_ASSERT(ruleCollections_ != nullptr);
   ruleCollections_->nextHopSubRuleIs(ruleKey, std::move(rule));
}

} // namespace Routing::Bgp
