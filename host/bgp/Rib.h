// The RIB of one VRF and address family: every path received or originated for each route
// key, the best path of each (RFC 4271 section 9.1), and the keys in their family's order.
//
// Storage. A route's best path lives in the key's RIB slot (RibRouteSlot, in front of the
// key); a route with more than one path keeps the others in the table's side store. A
// million routes of one peer thus cost the table nothing but the slots and the order index.
// The table holds a reference to every key that has a path and to every path's RtAttr.
//
// Changes. pathIs / pathDel / pathDelAll change paths and run the decision process for the
// key at once; the keys whose best path changed are remembered, and flushChanges() tells
// the table's reactors (the forwarding-target route tables' state machines) of each, once,
// in the order they changed. The agent flushes after each UPDATE and after each flush of a
// session's paths: one pass of the event loop carries a change to the FSIB.
//
// Everything runs on the agent's task thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/bgp/AfiSafi.h"
#include "host/bgp/BgpPeer.h"
#include "host/bgp/BgpVrfId.h"
#include "host/bgp/PathAttributes.h"
#include "host/bgp/RouteKey.h"
#include "host/bgp/RouteOrderIndex.h"
#include "host/fwk/Ptr.h"

namespace Routing::Bgp {

// Where a path came from: an index into RibSources. 0 is the agent itself.
using RibSource = std::uint32_t;
inline constexpr RibSource kLocalRibSource = 0;

// The sources of paths: the agent, and every peer the agent has had a session with (by
// address and VRF; a peer keeps its index across sessions).
class RibSources : public Ovk::PtrInterface {
 public:
   // `local` describes the agent itself (its address unspecified, its AS and identifier).
   explicit RibSources(BgpPeer local);
   static Ovk::Ptr<RibSources> create(BgpPeer local) { return Ovk::makePtr<RibSources>(std::move(local)); }

   // The source of `peer`, made on first use; its identity is updated (a new session may
   // come with a new identifier).
   RibSource sourceIs(BgpPeer const& peer);
   BgpPeer const& peer(RibSource source) const { return peers_.at(source); }
   std::size_t size() const { return peers_.size(); }

 private:
   std::vector<BgpPeer> peers_;
};

// One path of a route: its attributes (held by the table) and its source.
struct RibPath {
   RtAttr const* attrs = nullptr;
   RibSource source = kLocalRibSource;
   PathAttributesContents const& contents() const { return attrs->contents(); }
};

// RFC 4271 section 9.1.2.2 and the usual tie-breaks: true when `a` is to be preferred to `b`.
// In order: higher LOCAL_PREF (100 when absent), shorter AS_PATH, lower ORIGIN, lower MED
// between paths from the same neighbouring AS (0 when absent), the agent's own path over a
// learnt one, external over internal, lower BGP identifier, lower peer address.
bool betterPath(RibPath const& a, RibPath const& b, RibSources const& sources);
inline constexpr std::uint32_t kDefaultLocalPref = 100;

class RibTable : public Ovk::PtrInterface {
 public:
   // Hears each key whose best path changed (appeared, changed, went) at flushChanges().
   class Reactor {
    public:
      virtual ~Reactor() = default;
      virtual void handleRouteEntry(RouteKey const* key) = 0;
   };

   RibTable(BgpVrfIdBase vrfId, AfiSafi afiSafi, Ovk::Ptr<RibSources const> sources);
   ~RibTable() override;

   BgpVrfIdBase vrfId() const { return vrfId_; }
   AfiSafi afiSafi() const { return afiSafi_; }
   RibSources const& sources() const { return *sources_; }

   // ---- Changes ----

   // Sets the path of `source` for `key` (a key of this table's dedup table), replacing the
   // one it had. True when the source had no path for the key before.
   bool pathIs(RouteKey const& key, RibSource source, Ovk::Ptr<RtAttr const> const& attrs);
   // Removes the path of `source` for `key`; false when it had none.
   bool pathDel(RouteKey const& key, RibSource source);
   // Removes every path of `source`; the number removed.
   std::size_t pathDelAll(RibSource source);
   // Removes the paths of `source` a slice at a time: visits at most `budget` keys of the
   // table's order from `cursor` (null: the first key) and leaves `cursor` on the next key to
   // visit, null once the walk is done (or the source has no path left). The number removed.
   // The cursor holds its key, so it stays valid whatever changes between two slices; keys
   // that enter before it meanwhile are not visited.
   std::size_t pathDelSome(RibSource source, Ovk::Ptr<RouteKey const>& cursor, std::size_t budget);
   // The same, removing only the paths of `source` whose key `remove` answers true for.
   std::size_t pathDelSomeIf(RibSource source, Ovk::Ptr<RouteKey const>& cursor, std::size_t budget,
                             std::function<bool(RouteKey const&)> const& remove);
   // Tells the reactors of every key changed since the last flush.
   void flushChanges();
   std::size_t pendingChanges() const { return changed_.size(); }

   void reactorIs(Reactor* reactor);
   void reactorDel(Reactor* reactor);

   // ---- Reads ----

   // True when `key` has a best path here.
   bool routePresent(RouteKey const& key) const { return key.ribSlot().bestAttrs != nullptr; }
   // The best path of `key`; empty when it has none.
   std::optional<RibPath> bestPath(RouteKey const& key) const;
   // Where the best path of `key` came from; empty when it has none.
   std::optional<RibSource> bestSource(RouteKey const& key) const {
      RibRouteSlot const& slot = key.ribSlot();
      return slot.bestAttrs ? std::optional<RibSource>(slot.bestSource) : std::nullopt;
   }
   // The best path's attributes (no policy changes them); null when the key has no path.
   PathAttributesContents const* getEffectivePathAttrs(RouteKey const& key) const;
   // Calls f(path) for every path of `key`, the best first, the others in the order they
   // arrived.
   void forEachPath(RouteKey const& key, std::function<void(RibPath const&)> const& f) const;
   // The path of `source` for `key`, if any.
   std::optional<RibPath> path(RouteKey const& key, RibSource source) const;

   // Keys with a path, and paths.
   std::size_t routes() const { return order_.size(); }
   std::size_t paths() const { return paths_; }
   // Paths of a source, and how many of them are best.
   std::size_t pathsOf(RibSource source) const;
   std::size_t bestOf(RibSource source) const;

   // The keys with a path, in the family's order.
   RouteOrderIndex const& order() const { return order_; }

   // Bytes the table owns beyond the keys' slots and the shared attributes: the order index
   // and the store of other paths.
   std::size_t bytes() const;

 private:
   struct Counts {
      std::size_t paths = 0;
      std::size_t best = 0;
   };
   std::vector<RibPath>* others(RouteKey const& key) const;
   std::vector<RibPath>& othersIs(RouteKey const& key);
   void othersDel(RouteKey const& key);
   void markChanged(RouteKey const& key);
   // The key's dedup table is this table's: asserted, claimed when no table has it yet.
   void claim(RouteKey const& key);
   Counts& counts(RibSource source);
   // Picks the best of `key`'s paths into its slot; true when the best path changed.
   bool select(RouteKey const& key);
   void release(RouteKey const& key, RtAttr const* attrs);

   BgpVrfIdBase vrfId_;
   AfiSafi afiSafi_;
   Ovk::Ptr<RibSources const> sources_;
   RouteOrderIndex order_;
   std::size_t paths_ = 0;
   std::vector<Counts> counts_;
   // Other paths of routes with more than one, by the slot's index (1-based).
   std::vector<std::vector<RibPath>> others_;
   std::vector<std::uint32_t> freeOthers_;
   std::vector<RouteKey const*> changed_; // each holds a reference
   std::vector<Reactor*> reactors_;
   // The dedup tables whose keys' slots this table writes, held so that they outlive the
   // paths (and the claim is given back when the table goes).
   std::vector<Ovk::Ptr<RouteKeyDedupTableBase const>> claimed_;
   RouteKeyDedupTableBase const* lastClaimed_ = nullptr;
};

} // namespace Routing::Bgp
