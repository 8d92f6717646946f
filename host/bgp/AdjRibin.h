// What a peer sent: the adjacency RIB-in of one session and address family, and the dedup
// tables received routes are interned in.
//
// An address family's plugin builds the AdjRibin of each session (its hook 0) and the path
// of each received NLRI (instantiateRibinPathFromNlriResults). The host hands the RIB-in each
// announcement and withdrawal of its session (announce, withdraw): it is the one place a
// peer's received paths are made, put into the VRF's RibTable under the session's RibSource,
// and counted. The paths themselves live in that RibTable: the adjacency RIB-in of a peer is
// the set of its paths there.
//
// Import decisions hang here too, before best path (host/bgp/ImportPolicy.h): a RIB-in given
// an ImportControl refuses what its policy does not allow and what its limits do not leave
// room for, counted per reason; one without (the usual case) pays one pointer test per route.
// Refused routes are not kept in the RIB; those refused by policy are kept aside, up to
// kRefusedKept, to be shown with their reason.
//
// A RIB-in given a RuleValidation (host/bgp/Validation.h) judges each route against the
// unicast table after the import policy and limits: an infeasible route is kept aside
// (every one: a unicast change can make it feasible without the peer sending it again), is
// no candidate for best path, and is shown with its reason; revalidate() judges one again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/bgp/AfiSafi.h"
#include "host/bgp/BgpParse.h"
#include "host/bgp/BgpUpdateDecoder.h"
#include "host/bgp/BgpVrfId.h"
#include "host/bgp/ImportPolicy.h"
#include "host/bgp/PathAttributes.h"
#include "host/bgp/Rib.h"
#include "host/bgp/RouteKey.h"
#include "host/bgp/Validation.h"
#include "host/fwk/Notification.h"
#include "host/fwk/Ptr.h"

namespace Routing::Bgp {

// Which RIB-in of a peer: what it sent as received.
enum class AdjRibinType : std::uint8_t { received = 0 };
char const* toStrep(AdjRibinType type);

// The BGP instance a RIB-in belongs to; the agent runs one.
struct BgpInstanceEpoch {
   std::uint32_t value = 1;
   friend bool operator==(BgpInstanceEpoch, BgpInstanceEpoch) = default;
};

// What names one path: its route key, its source and its RFC 7911 path identifier.
struct PathKey {
   RouteKey const* routeKey = nullptr;
   RibSource source = kLocalRibSource;
   std::uint32_t pathId = 0;
};

// A received NLRI as the UPDATE decoder gave it.
using BgpParseNlriResults = BgpParsedNlri;

// One path of an adjacency RIB-in, as a family's RIB-in builds it; the RIB keeps it.
struct AdjRibinPath {
   RouteKey const* routeKey = nullptr;
   Ovk::Ptr<RtAttr const> attrs;
   RibSource source = kLocalRibSource;
};

// A plugin's changes to received attributes; flowspec has none.
class BgpInputAfiSafiAttributeModificationPluginBase : public Ovk::PtrInterface {
 protected:
   ~BgpInputAfiSafiAttributeModificationPluginBase() override = default;
};

// One family's dedup tables in every VRF. The family's VRF state machine fills it; the host
// listens, and puts each VRF's tables where the VRF's sessions parse (DedupTablesVrf).
class BgpAfiSafiDedupTablesAllVrf : public Ovk::PtrInterface {
 public:
   explicit BgpAfiSafiDedupTablesAllVrf(AfiSafi afiSafi) : afiSafi_(afiSafi) {}
   AfiSafi afiSafi() const { return afiSafi_; }
   // Registers `afiSafi`'s tables of VRF `vrfId`, replacing those it had.
   void dedupTablesVrfAfiSafiIs(AfiSafi afiSafi, BgpVrfIdBase vrfId, Ovk::Ptr<RouteKeyDedupTableBase> routeKeyTable,
                                Ovk::Ptr<GenNexthopDedupTableBase> nexthopTable);
   // Removes the tables of VRF `vrfId`.
   void dedupTablesVrfAfiSafiDel(BgpVrfIdBase vrfId);
   // The tables of VRF `vrfId`, or null.
   Ovk::Ptr<DedupTablesVrfAfiSafi> dedupTablesVrfAfiSafi(BgpVrfIdBase vrfId) const;
   std::map<BgpVrfIdBase, Ovk::Ptr<DedupTablesVrfAfiSafi>> const& all() const { return tables_; }

   // Hears every registration and removal (null tables for a removal).
   using Listener = std::function<void(BgpVrfIdBase, Ovk::Ptr<DedupTablesVrfAfiSafi> const&)>;
   void listenerIs(Listener listener) { listener_ = std::move(listener); }

 private:
   AfiSafi afiSafi_;
   std::map<BgpVrfIdBase, Ovk::Ptr<DedupTablesVrfAfiSafi>> tables_;
   Listener listener_;
};

// The tables what one session receives is interned in.
class BgpInputDedupTables : public Ovk::PtrInterface {
 public:
   BgpInputDedupTables(Ovk::Ptr<DedupTablesVrf> vrfTables, Ovk::Ptr<RtAttrDedupTable> attrTable,
                       Ovk::Ptr<CoreDedupTables> coreTables)
       : vrfTables_(std::move(vrfTables)), attrTable_(std::move(attrTable)), coreTables_(std::move(coreTables)) {}
   DedupTablesVrf* dedupVrfTablesRawPtr() const { return vrfTables_.ptr(); }
   Ovk::Ptr<DedupTablesVrf> const& vrfTables() const { return vrfTables_; }
   Ovk::Ptr<RtAttrDedupTable> const& attrTable() const { return attrTable_; }
   Ovk::Ptr<CoreDedupTables> const& coreTables() const { return coreTables_; }

 private:
   Ovk::Ptr<DedupTablesVrf> vrfTables_;
   Ovk::Ptr<RtAttrDedupTable> attrTable_;
   Ovk::Ptr<CoreDedupTables> coreTables_;
};

class AdjRibin : public Ovk::PtrInterface, public Ovk::NotificationSwitch {
 public:
   AdjRibin(AdjRibinType type, NlriType nlriType, BgpInstanceEpoch epoch,
            Ovk::Ptr<BgpInputDedupTables const> inputTables,
            Ovk::Ptr<BgpInputAfiSafiAttributeModificationPluginBase const> attributeModification);

   AdjRibinType type() const { return type_; }
   NlriType nlriType() const { return nlriType_; }
   BgpInstanceEpoch epoch() const { return epoch_; }
   Ovk::Ptr<BgpInputDedupTables const> const& inputTables() const { return inputTables_; }

   // The path of one received NLRI, with the interned attributes of its UPDATE.
   virtual AdjRibinPath instantiateRibinPathFromNlriResults(PathKey const& pathKey, Ovk::Ptr<RtAttr const> const& attrs,
                                                            BgpParseNlriResults const& nlriResults) const = 0;

   // ---- The host's side ----

   // Where the session's paths go: the RIB table of the RIB-in's family and the session's
   // source there (set by the host when it installs the RIB-in, before any announcement).
   RibSource source() const { return source_; }
   void sourceIs(RibSource source) { source_ = source; }
   RibTable* ribTable() const { return ribTable_.ptr(); }
   void ribTableIs(Ovk::Ptr<RibTable> table) { ribTable_ = std::move(table); }

   // What became of an announcement.
   enum class Announced : std::uint8_t {
      path,     // the key's path of the session is the new one
      noPath,   // the family made no path of it
      refused,  // import refused it: the session has no path of the key now (a path it had
                // goes, the announcement replacing it)
      teardown, // it would take the session past its limit, whose action is teardown:
                // nothing changed, and the session must end (Cease 6/1, RFC 4486)
   };
   // A received NLRI with the interned attributes of its UPDATE: the family makes its path,
   // which replaces the session's path of the key once import allows it.
   Announced announce(BgpParseNlriResults const& nlri, Ovk::Ptr<RtAttr const> const& attrs);
   // A withdrawn key: the session's path of it goes. False when the session had none:
   // counted as unknown, unless the key is one kept aside as refused (which it leaves).
   bool withdraw(RouteKey const& key);

   // What the session may import; null (the default) imports every path. Checked at each
   // announcement from now on; reimportSome applies a new policy to the paths held. The
   // routes kept aside take the new policy's reasons, and leave when it allows them.
   void importControlIs(Ovk::Ptr<ImportControl const> control);
   ImportControl const* importControl() const { return control_.ptr(); }
   // Takes out of the RIB the session's paths the policy now refuses, counted and kept aside
   // as at announce: a slice of at most `budget` keys of the table's order from `cursor`
   // (RibTable::pathDelSome; null starts the walk, null again when it is done). Limits are
   // not applied again: what a session holds past a lowered limit stays, and the limit
   // holds the routes that come. The number taken out.
   std::size_t reimportSome(Ovk::Ptr<RouteKey const>& cursor, std::size_t budget);

   // Validation against the unicast table; null (the default): none. A new validation judges
   // the routes kept aside as infeasible again (without one they come in); the paths held
   // are judged by reimportSome.
   void validationIs(Ovk::Ptr<RuleValidation> validation);
   RuleValidation* validation() const { return validation_.ptr(); }
   // Judges `rule` again (a unicast change concerns it): it enters the RIB when it became
   // feasible, leaves it, kept aside, when it is no longer.
   void revalidate(RouteKey const& rule);
   // Routes kept aside as infeasible.
   std::size_t infeasible() const { return infeasible_.size(); }

   // A route refused by policy, kept aside while the peer announces it.
   struct Refused {
      Ovk::Ptr<RouteKey const> key;
      Ovk::Ptr<RtAttr const> attrs;
      ImportRefusal reason;
   };
   // At most this many per RIB-in; refusals beyond are counted only.
   static constexpr std::size_t kRefusedKept = 1024;
   // The routes kept aside, in the family's order.
   std::vector<Refused> refused() const;
   // Refusals by policy that found no room aside.
   std::uint64_t refusedNotKept() const { return refusedNotKept_; }

   struct Counters {
      std::uint64_t announced = 0;           // paths made
      std::uint64_t withdrawn = 0;           // paths withdrawn
      std::uint64_t unknownWithdrawals = 0;  // withdrawals of keys the session never announced
      ImportRefusalCounts refused{};         // announcements (and held paths) refused, by reason
      std::uint64_t limitWarnings = 0;       // crossings of the limit's warning share
      std::uint64_t limitExceeded = 0;       // crossings of the limit (see LimitEvent::exceeded)
      std::uint64_t becameFeasible = 0;      // routes a unicast change let in
      std::uint64_t becameInfeasible = 0;    // routes a unicast change took out
      std::uint64_t refusedTotal() const {
         std::uint64_t n = 0;
         for (std::uint64_t const r : refused) n += r;
         return n;
      }
      Counters& operator+=(Counters const& o) {
         announced += o.announced;
         withdrawn += o.withdrawn;
         unknownWithdrawals += o.unknownWithdrawals;
         for (std::size_t i = 0; i < refused.size(); ++i) refused[i] += o.refused[i];
         limitWarnings += o.limitWarnings;
         limitExceeded += o.limitExceeded;
         becameFeasible += o.becameFeasible;
         becameInfeasible += o.becameInfeasible;
         return *this;
      }
   };
   Counters const& counters() const { return counters_; }

 protected:
   ~AdjRibin() override;

 private:
   AdjRibinType type_;
   NlriType nlriType_;
   BgpInstanceEpoch epoch_;
   Ovk::Ptr<BgpInputDedupTables const> inputTables_;
   Ovk::Ptr<BgpInputAfiSafiAttributeModificationPluginBase const> attributeModification_;
   RibSource source_ = kLocalRibSource;
   // The import decision of a path the session has none of yet, or of one it replaces:
   // nothing when it may come in.
   std::optional<Announced> importCheck(RouteKey const& key, Ovk::Ptr<RtAttr const> const& attrs);
   // After a path came in: the warning shares reached, the key no longer kept aside.
   void imported(RouteKey const& key);
   std::optional<ImportRefusal> actionRefusal(Ovk::Ptr<RtAttr const> const& attrs);
   // Counts a refusal of `key`, and keeps it aside when `keep` and there is room.
   void noteRefusal(RouteKey const& key, Ovk::Ptr<RtAttr const> attrs, ImportRefusal why, bool keep);
   void hear(LimitEvent::Kind kind, std::uint64_t held, RuleLimit const& limit) const;

   Ovk::Ptr<RibTable> ribTable_;
   Counters counters_;
   Ovk::Ptr<ImportControl const> control_;
   // Where the session's count stands against its limit: each crossing is heard once.
   bool limitReached_ = false;
   bool aboveWarning_ = false;
   // The action decision of the last attribute set (an UPDATE's routes share one).
   Ovk::Ptr<RtAttr const> lastAttrs_;
   std::optional<ImportRefusal> lastActionRefusal_;
   std::unordered_map<RouteKey const*, Refused> refused_;
   std::uint64_t refusedNotKept_ = 0;
   Ovk::Ptr<RuleValidation> validation_;
   std::unordered_map<RouteKey const*, Refused> infeasible_;
   // The session's path of `key` goes out of validation's sight (withdrawn, refused).
   void forgetRule(RouteKey const& key);
};

// The RIB-ins of one session, by NLRI type.
class AdjRibinCollection : public Ovk::PtrInterface {
 public:
   static Ovk::Ptr<AdjRibinCollection> create() { return Ovk::makePtr<AdjRibinCollection>(); }
   // Installs `adjRibin`, replacing the one of its NLRI type.
   void adjRibinIs(Ovk::Ptr<AdjRibin> const& adjRibin);
   Ovk::Ptr<AdjRibin> adjRibin(NlriType nlriType) const;
   std::map<NlriType, Ovk::Ptr<AdjRibin>> const& adjRibins() const { return adjRibins_; }

 private:
   std::map<NlriType, Ovk::Ptr<AdjRibin>> adjRibins_;
};

} // namespace Routing::Bgp
