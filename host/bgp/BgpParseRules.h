// The UPDATE parser's rule collections, and the plugin state machines that fill them.
//
// The host's UPDATE parser does not know how the NLRI and the MP_REACH_NLRI next hop of an
// address family are encoded: it asks sub-rules. For each family it keeps one
// BgpParseRuleCollections. The parser declares there the rule instances it will run (an
// UPDATE message rule per NLRI variant of the family, an MP_REACH_NLRI next-hop rule), each
// under its rule key with the parse settings of the session; a plugin state machine
// (derived from BgpParsePluginBaseSm) hears of every instance and answers with a sub-rule,
// which it registers under the same key. The parser then looks the sub-rules up by key for
// every UPDATE.
//
// Sub-rules never throw and never build NOTIFICATIONs themselves: an NLRI rule counts a
// parse reason and returns nothing; a next-hop rule returns the UPDATE Message Error
// subcode the parser is to use (all ones when the field was accepted). What a failure does
// to the UPDATE is the parser's decision (BgpUpdateDecoder.h).
#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/bgp/AfiSafi.h"
#include "host/bgp/BgpParse.h"
#include "host/bgp/GenNexthop.h"
#include "host/fwk/FwkType.h"
#include "host/fwk/Notification.h"
#include "host/fwk/Ptr.h"

namespace Routing::Bgp {

// UPDATE Message Error subcodes (RFC 4271 section 4.5), as 32-bit values. All ones is no
// error: the rule accepted what it was given.
enum class BgpNotificationErrorUpdateMessageSubcode : std::uint32_t {
   malformedAttributeList = 1,
   unrecognizedWellKnownAttribute = 2,
   missingWellKnownAttribute = 3,
   attributeFlagsError = 4,
   attributeLengthError = 5,
   invalidOriginAttribute = 6,
   invalidNextHopAttribute = 8,
   optionalAttributeError = 9,
   invalidNetworkField = 10,
   malformedAsPath = 11,
   noError = 0xffffffff,
};
// "optionalAttributeError", ..., "noError"; the number for a value without a name.
std::string toStrep(BgpNotificationErrorUpdateMessageSubcode subcode);
std::ostream& operator<<(std::ostream& os, BgpNotificationErrorUpdateMessageSubcode subcode);

// The key of an UPDATE message rule: the NLRI of one family, with or without RFC 7911 path
// identifiers. One rule serves MP_REACH_NLRI and MP_UNREACH_NLRI.
struct BgpParseUpdateMessageRuleKey {
   AfiSafi afiSafi;
   bool addPathReceive = false;
   friend auto operator<=>(BgpParseUpdateMessageRuleKey const&, BgpParseUpdateMessageRuleKey const&) = default;
};
// "ipv4Flowspec", or "ipv4Flowspec addPath".
std::ostream& operator<<(std::ostream& os, BgpParseUpdateMessageRuleKey const& key);

// The key of an MP_REACH_NLRI next-hop rule: the family of the attribute.
struct BgpParseUpdateAttributeMpReachNlriRuleKey {
   AfiSafi afiSafi;
   friend auto operator<=>(BgpParseUpdateAttributeMpReachNlriRuleKey const&,
                           BgpParseUpdateAttributeMpReachNlriRuleKey const&) = default;
};
// "ipv4Flowspec".
std::ostream& operator<<(std::ostream& os, BgpParseUpdateAttributeMpReachNlriRuleKey const& key);

// An attribute's value as a view into the message; absent when the UPDATE had none.
struct BgpAttributeView {
   std::span<std::uint8_t const> value;
   bool present = false;
};

// What the parser has read of one UPDATE's path attributes so far: views into the message
// (valid while the message is), the plain values, and the MP_REACH_NLRI next hop a
// next-hop rule made of its field. One scratchpad serves one UPDATE at a time; clear()
// readies it for the next one.
class BgpParseUpdateAttributesScratchpad : public Ovk::PtrInterface {
 public:
   // Failures of rules are counted on `results`, the UPDATE's results.
   explicit BgpParseUpdateAttributesScratchpad(Ovk::Ptr<BgpParseUpdateResults> results)
       : results_(std::move(results)) {}

   BgpParseUpdateResults* results() const { return results_.ptr(); }

   // The next hop made of the MP_REACH_NLRI next-hop field: a deduplicated next hop, or
   // empty. Setting it releases the one held before.
   Ovk::Ptr<GenNexthop const> const& nexthop() const { return nexthop_; }
   void nexthopIs(Ovk::Ptr<GenNexthop const> nexthop) { nexthop_ = std::move(nexthop); }
   void nexthopDel() { nexthop_ = nullptr; }

   // Path attributes (RFC 4271 section 5.1, RFC 1997, RFC 4360, RFC 5701).
   std::optional<std::uint8_t> origin;
   BgpAttributeView asPath;                     // segments as received
   bool asPathFourOctet = true;                 // AS numbers in asPath are 4 octets (RFC 6793)
   std::optional<Ovnet::IpGenAddr> ipv4NextHop; // the NEXT_HOP attribute
   std::optional<std::uint32_t> med;
   std::optional<std::uint32_t> localPref;
   bool atomicAggregate = false;
   BgpAttributeView aggregator;
   BgpAttributeView communities;        // 4 bytes each
   BgpAttributeView extCommunities;     // 8 bytes each
   BgpAttributeView ipv6ExtCommunities; // 20 bytes each

   // Forgets everything read, releases the next hop and clears the results' counts.
   void clear();

 protected:
   ~BgpParseUpdateAttributesScratchpad() override = default;

 private:
   Ovk::Ptr<BgpParseUpdateResults> results_;
   Ovk::Ptr<GenNexthop const> nexthop_;
};

// A family's MP_REACH_NLRI next-hop rule: reads the next-hop field from `position`, whose
// bytesLeft() is the field's declared length (it may declare more than the packet holds),
// and stores what it makes of it in the scratchpad. Returns noError (all ones) when the
// field was accepted, otherwise the UPDATE Message Error subcode, after counting a parse
// reason on the scratchpad's results.
class BgpParseUpdateAttributeMpReachNlriNextHopRuleBase : public Ovk::PtrInterface {
 public:
   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;

   virtual BgpNotificationErrorUpdateMessageSubcode inhale(
       Ovk::Ptr<BgpParseContext> const& parseContext, BgpParsePktPosition* const& position,
       Ovk::Ptr<BgpParseUpdateAttributesScratchpad> const& scratchpad) const = 0;

 protected:
   ~BgpParseUpdateAttributeMpReachNlriNextHopRuleBase() override = default;
};

class BgpParsePluginBaseSm;

// The rule instances of one family and the sub-rules registered for them.
//
// The sub-rules are shared objects the collections own once registered; they stay until
// the collections die. Plugin state machines attach themselves (BgpParsePluginBaseSm) and
// hear of rule instances declared after they attached.
class BgpParseRuleCollections : public Ovk::PtrInterface {
 public:
   explicit BgpParseRuleCollections(AfiSafi afiSafi) : afiSafi_(afiSafi) {}
   static Ovk::Ptr<BgpParseRuleCollections> create(AfiSafi afiSafi) {
      return Ovk::makePtr<BgpParseRuleCollections>(afiSafi);
   }

   AfiSafi afiSafi() const { return afiSafi_; }

   // Declares a rule instance under `key`, parsed with `parseControl`; attached plugin state
   // machines whose notification is on hear of it. Declaring a key again with other
   // settings changes them and tells them again; with the same settings it does nothing.
   void updateMessageRuleInstanceIs(BgpParseUpdateMessageRuleKey key, BgpParseControl const& parseControl);
   void mpReachNlriNextHopRuleInstanceIs(BgpParseUpdateAttributeMpReachNlriRuleKey key,
                                         BgpParseControl const& parseControl);
   // The settings of a declared instance, or null.
   BgpParseControl const* updateMessageRuleInstance(BgpParseUpdateMessageRuleKey key) const;
   BgpParseControl const* mpReachNlriNextHopRuleInstance(BgpParseUpdateAttributeMpReachNlriRuleKey key) const;
   std::map<BgpParseUpdateMessageRuleKey, BgpParseControl> const& updateMessageRuleInstances() const {
      return updateMessageRuleInstances_;
   }
   std::map<BgpParseUpdateAttributeMpReachNlriRuleKey, BgpParseControl> const& mpReachNlriNextHopRuleInstances() const {
      return nextHopRuleInstances_;
   }

   // The sub-rule registered under `key`, or null.
   BgpParseUpdateNlriRuleBase const* nlriSubRule(BgpParseUpdateMessageRuleKey key) const;
   BgpParseUpdateAttributeMpReachNlriNextHopRuleBase const* nextHopSubRule(
       BgpParseUpdateAttributeMpReachNlriRuleKey key) const;
   std::size_t nlriSubRules() const { return nlriSubRules_.size(); }
   std::size_t nextHopSubRules() const { return nextHopSubRules_.size(); }

   // Plugin state machines attached.
   std::size_t pluginSms() const { return pluginSms_.size(); }

 protected:
   ~BgpParseRuleCollections() override;

 private:
   friend class BgpParsePluginBaseSm;
   // Registration by the plugin state machines, which see the collections as const: the
   // sub-rule tables and the list of listeners are theirs to change.
   void nlriSubRuleIs(BgpParseUpdateMessageRuleKey key, Ovk::Ptr<BgpParseUpdateNlriRuleBase const> rule) const;
   void nextHopSubRuleIs(BgpParseUpdateAttributeMpReachNlriRuleKey key,
                         Ovk::Ptr<BgpParseUpdateAttributeMpReachNlriNextHopRuleBase const> rule) const;
   void pluginSmIs(BgpParsePluginBaseSm* sm) const;
   void pluginSmDel(BgpParsePluginBaseSm* sm) const;

   AfiSafi afiSafi_;
   std::map<BgpParseUpdateMessageRuleKey, BgpParseControl> updateMessageRuleInstances_;
   std::map<BgpParseUpdateAttributeMpReachNlriRuleKey, BgpParseControl> nextHopRuleInstances_;
   mutable std::map<BgpParseUpdateMessageRuleKey, Ovk::Ptr<BgpParseUpdateNlriRuleBase const>> nlriSubRules_;
   mutable std::map<BgpParseUpdateAttributeMpReachNlriRuleKey,
                    Ovk::Ptr<BgpParseUpdateAttributeMpReachNlriNextHopRuleBase const>>
       nextHopSubRules_;
   mutable std::vector<BgpParsePluginBaseSm*> pluginSms_;
};

// The base of a plugin's parse state machine: it joins one family's rule collections and
// asks the derived class for a sub-rule for each rule instance there.
//
// The derived constructor calls handleStartup() once it is ready to instantiate: the base
// then attaches to the collections and instantiates a sub-rule for every instance already
// declared. Later instances are served through the reactor handlers while notification is
// on; switching it on serves the instances declared meanwhile that have no sub-rule yet.
class BgpParsePluginBaseSm : public Ovk::PtrInterface, public Ovk::NotificationSwitch {
 public:
   Ovk::Ptr<BgpParseRuleCollections const> const& ruleCollections() const { return ruleCollections_; }
   // Moves to other collections (attaching to them; handleStartup serves their instances).
   void ruleCollectionsIs(Ovk::Ptr<BgpParseRuleCollections const> collections);
   void ruleCollectionsDel();

   void hasNotificationActiveIs(bool on) override;

   // Create the sub-rule for `ruleKey`, parsing with `parseControl`, and register it with
   // addNextHopSubRule / addNlriSubRule.
   virtual void instantiateNextHopSubRule(BgpParseUpdateAttributeMpReachNlriRuleKey ruleKey,
                                          BgpParseControl const& parseControl) const = 0;
   virtual void instantiateNlriSubRule(BgpParseUpdateMessageRuleKey ruleKey,
                                       BgpParseControl const& parseControl) const = 0;

   // Reactor handlers: a rule instance was declared (or changed) under `key`. Each re-reads
   // the instance's settings and instantiates the sub-rule.
   void handleUpdateMessageRuleInstance(BgpParseUpdateMessageRuleKey key);
   void handleNlriRuleInstance(BgpParseUpdateAttributeMpReachNlriRuleKey key);

 protected:
   explicit BgpParsePluginBaseSm(Ovk::Ptr<BgpParseRuleCollections const> collections);
   ~BgpParsePluginBaseSm() override;

   // Attaches to the collections and instantiates a sub-rule for every rule instance they
   // hold, whatever the notification switch says.
   void handleStartup();
   // Registers `rule` under `ruleKey` in the collections, replacing any before.
   void addNlriSubRule(BgpParseUpdateMessageRuleKey ruleKey, Ovk::Ptr<BgpParseUpdateNlriRuleBase const> rule) const;
   void addNextHopSubRule(BgpParseUpdateAttributeMpReachNlriRuleKey ruleKey,
                          Ovk::Ptr<BgpParseUpdateAttributeMpReachNlriNextHopRuleBase const> rule) const;

 private:
   void detach();
   // Instantiates for the declared instances that have no sub-rule yet.
   void serveMissing();

   Ovk::Ptr<BgpParseRuleCollections const> ruleCollections_;
   bool attached_ = false;
};

} // namespace Routing::Bgp
