// The adjacency RIB-out of one peer and family: what the agent last sent the peer for each
// route key (RFC 4271 section 3.2, Adj-RIBs-Out).
//
// The agent's sessions keep one per established session and family; the show tables read
// them through the plugin context (Context::ribOut). A route whose advertisement is still
// waiting for the minimum route advertisement interval shows what the peer has now, not what
// it is about to get.
//
// SessionRibOut is the agent's: it follows the default VRF's RibTable of its family (as one
// of the table's reactors) and sends the peer the best path of every route it may have:
// nothing whose best path came from the peer itself (split horizon), nothing learnt over an
// internal session to an internal peer, and withdrawals when a route goes or its best path
// may no longer be sent. Changes only mark route keys dirty; messages are written when the
// session's output has room (BgpPeerOutput::queuedBytes below a high-water mark, again on
// each drain), so a table of a million routes is never a million encoded UPDATEs in memory.
// A minimum route advertisement interval (RFC 4271 section 9.2.1.1, here for withdrawals
// too) sends at most once per interval: what changed meanwhile goes out in its latest state.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "host/bgp/AfiSafi.h"
#include "host/bgp/BgpPeer.h"
#include "host/bgp/PathAttributes.h"
#include "host/bgp/Rib.h"
#include "host/bgp/RouteKey.h"
#include "host/bgp/UpdateWriter.h"
#include "host/fwk/Ptr.h"
#include "host/fwk/Scheduler.h"

namespace Routing::Bgp {

// What the peer was sent for one route key.
struct AdvertisedPath {
   // The attributes as they went on the wire: the local AS prepended for an external peer,
   // the next hop set, LOCAL_PREF only towards internal peers.
   Ovk::Ptr<RtAttr const> attrs;
   // Whose path it is: the RIB source (0, the agent itself, for an originated rule).
   std::uint32_t source = 0;
};

class AdjRibOut : public Ovk::PtrInterface {
 public:
   // The peer and family this RIB-out sends to.
   virtual BgpPeer const& peer() const = 0;
   virtual AfiSafi afiSafi() const = 0;
   // The path the peer holds from us for `key` (a key of the family's dedup table, or an
   // orphan equal to one); null when none was sent or it was withdrawn since.
   virtual AdvertisedPath const* findAdvertisedPath(RouteKey const& key) const = 0;
   // Routes the peer holds from us.
   virtual std::size_t advertisedRoutes() const = 0;
};

// What a RIB-out has sent.
struct RibOutCounters {
   std::uint64_t updates = 0;    // UPDATE messages, End-of-RIB aside
   std::uint64_t bytes = 0;      // their bytes
   std::uint64_t advertised = 0; // NLRI announced
   std::uint64_t withdrawn = 0;  // NLRI withdrawn
   std::uint64_t endOfRibs = 0;  // End-of-RIB markers
   std::uint64_t unsendable = 0; // routes whose UPDATE would exceed 4096 bytes: never sent
   std::uint64_t refreshes = 0;  // ROUTE-REFRESH requests answered
   RibOutCounters& operator+=(RibOutCounters const& o) {
      updates += o.updates;
      bytes += o.bytes;
      advertised += o.advertised;
      withdrawn += o.withdrawn;
      endOfRibs += o.endOfRibs;
      unsendable += o.unsendable;
      refreshes += o.refreshes;
      return *this;
   }
};

class SessionRibOut : public AdjRibOut, public RibTable::Reactor {
 public:
   struct Options {
      // 0: every change goes out as soon as the output has room.
      std::chrono::milliseconds minRouteAdvertisementInterval{0};
      // Messages are written while the output holds fewer bytes than this.
      std::size_t highWaterBytes = 64 * 1024;
      // Route keys encoded per step: those of one attribute set in a step share messages.
      std::size_t keysPerStep = 8192;
   };

   // A RIB-out of `peer` (whose paths in `table` have `source`) over `output`, valid until
   // stop(). `nexthop` is the session's local next hop for the family (hook 1), null for
   // none. Nothing is sent before start().
   SessionRibOut(BgpPeer peer, RibSource source, UpdateSession session, Ovk::Ptr<RibTable> table,
                 Ovk::Ptr<GenNexthop const> nexthop, Ovk::Ptr<RtAttrDedupTable const> attrTable, BgpPeerOutput& output,
                 Ovk::Ptr<Ovk::TaskScheduler> scheduler, Options options);
   ~SessionRibOut() override;

   // Follows the table and sends all of it, then End-of-RIB (RFC 4724 section 2).
   void start();
   // Stops following the table and sending; the output may be gone after this.
   void stop();
   // RFC 2918: sends the whole table again (no End-of-RIB), whatever the peer was sent.
   void routeRefresh();
   // Writes what can be written now (the scheduler calls it; tests may too).
   void pump();

   BgpPeer const& peer() const override { return peer_; }
   AfiSafi afiSafi() const override { return table_->afiSafi(); }
   AdvertisedPath const* findAdvertisedPath(RouteKey const& key) const override;
   std::size_t advertisedRoutes() const override { return advertised_.size(); }

   RibOutCounters const& counters() const { return counters_; }
   // Route keys waiting to be looked at again.
   std::size_t pendingRoutes() const { return dirty_.size() - next_; }
   // True once the initial table and its End-of-RIB went out.
   bool initialTableSent() const { return !endOfRibPending_; }
   // Entries the list of keys to look at again held when it was compacted, over the
   // RIB-out's life: the work its compactions did.
   std::uint64_t compactedEntries() const { return compactedEntries_; }

   void handleRouteEntry(RouteKey const* key) override;

 private:
   // Keys are deduplicated: one object per rule, so the pointer names it.
   struct KeyHash {
      std::size_t operator()(RouteKey const* k) const noexcept {
         return static_cast<std::size_t>((reinterpret_cast<std::uintptr_t>(k) >> 4) * 0x9e3779b97f4a7c15ull >> 16);
      }
   };
   struct Item {
      RtAttr const* attrs; // null: withdraw
      RouteKey const* key;
      bool wasAdvertised;
   };
   // The attributes the peer is to have for `key` now; null when it is to have none.
   RtAttr const* wanted(RouteKey const& key, RibSource& source);
   // Whether a best path of `source` may go to this peer: never back to the peer it came
   // from, and nothing an internal peer taught us to another internal peer.
   bool sendsFrom(RibSource source) const;
   RtAttr const* exported(RtAttr const* rib, bool local);
   void markDirty(RouteKey const* key);
   void markAll();
   void schedulePump();
   void encodeStep(std::size_t begin, std::size_t end);
   void compactDirty();
   void emit(std::span<std::uint8_t const> message);

   BgpPeer peer_;
   RibSource source_;
   UpdateSession session_;
   Ovk::Ptr<RibTable> table_;
   Ovk::Ptr<GenNexthop const> nexthop_;
   Ovk::Ptr<RtAttrDedupTable const> attrTable_;
   BgpPeerOutput& output_;
   Ovk::Ptr<Ovk::TaskScheduler> scheduler_;
   Options options_;
   std::shared_ptr<bool> alive_ = std::make_shared<bool>(false);
   bool running_ = false;
   bool endOfRibPending_ = true;
   bool pumpPosted_ = false;
   bool paused_ = false;    // a pass stopped by the output's fill
   bool immediate_ = false; // the initial table or a refresh: no interval
   std::optional<Ovk::TaskId> pumpTask_;
   Ovk::Clock::time_point nextAllowed_{};
   // Keys to look at, each referenced; those before next_ are done.
   std::vector<RouteKey const*> dirty_;
   std::size_t next_ = 0;
   // The list is compacted when it holds twice what it held after the last compaction (and
   // more than twice the table): a storm of distinct keys costs N log N, not N squared.
   std::size_t compactFloor_ = 0;
   std::uint64_t compactedEntries_ = 0;
   // dirty_[forceFrom_, forceTo_) go out even when the peer has them (a refresh).
   std::size_t forceFrom_ = 0;
   std::size_t forceTo_ = 0;
   // What the peer has, by key (referenced).
   std::unordered_map<RouteKey const*, AdvertisedPath, KeyHash> advertised_;
   // RIB attributes -> what this peer is sent for them (learnt, local).
   struct Exported {
      Ovk::Ptr<RtAttr const> rib;
      Ovk::Ptr<RtAttr const> learnt;
      Ovk::Ptr<RtAttr const> local;
   };
   std::unordered_map<RtAttr const*, Exported> exported_;
   std::vector<Item> items_;
   UpdateWriter writer_;
   RibOutCounters counters_;
};

} // namespace Routing::Bgp
