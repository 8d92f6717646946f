#include "host/bgp/AdjRibOut.h"

#include <algorithm>

#include "host/bgp/BgpTrace.h"
#include "host/fwk/Assert.h"

namespace Routing::Bgp {

namespace {

// The exported-attribute cache is dropped when it grows past this: attribute sets are few.
constexpr std::size_t kMaxExported = 4096;

} // namespace

SessionRibOut::SessionRibOut(BgpPeer peer, RibSource source, UpdateSession session, Ovk::Ptr<RibTable> table,
                             Ovk::Ptr<GenNexthop const> nexthop, Ovk::Ptr<RtAttrDedupTable const> attrTable,
                             BgpPeerOutput& output, Ovk::Ptr<Ovk::TaskScheduler> scheduler, Options options)
    : peer_(std::move(peer)), source_(source), session_(session), table_(std::move(table)),
      nexthop_(std::move(nexthop)), attrTable_(std::move(attrTable)), output_(output), scheduler_(std::move(scheduler)),
      options_(options), writer_(table_->afiSafi(), session, [this](std::span<std::uint8_t const> m) { emit(m); }) {
   OVK_ASSERT(table_);
   OVK_ASSERT(attrTable_);
   OVK_ASSERT(scheduler_);
   OVK_ASSERT(options_.keysPerStep > 0);
}

SessionRibOut::~SessionRibOut() {
   stop();
   for (std::size_t i = next_; i < dirty_.size(); ++i) dirty_[i]->deleteRef();
   dirty_.clear();
   for (auto const& [key, path] : advertised_) key->deleteRef();
   advertised_.clear();
}

void SessionRibOut::start() {
   OVK_ASSERT(!running_);
   running_ = true;
   *alive_ = true;
   table_->reactorIs(this);
   // A drain resumes a pass the output's fill stopped; changes waiting for the interval wait.
   output_.drainedCallbackIs([alive = alive_, this] {
      if (*alive && paused_) pump();
   });
   immediate_ = true;
   markAll();
   schedulePump();
}

void SessionRibOut::stop() {
   if (!running_) return;
   running_ = false;
   *alive_ = false;
   table_->reactorDel(this);
   if (pumpTask_) scheduler_->cancel(*pumpTask_);
   pumpTask_.reset();
   pumpPosted_ = false;
}

void SessionRibOut::routeRefresh() {
   if (!running_) return;
   ++counters_.refreshes;
   if (pumpTask_) scheduler_->cancel(*pumpTask_); // the table goes now, not after the interval
   pumpTask_.reset();
   pumpPosted_ = false;
   // One pass over every key, each once: the table's, and those the peer holds that left it
   // (their withdrawal was waiting).
   for (std::size_t i = next_; i < dirty_.size(); ++i) dirty_[i]->deleteRef();
   dirty_.clear();
   next_ = 0;
   markAll();
   for (auto const& [key, path] : advertised_) {
      if (!table_->routePresent(*key)) markDirty(key);
   }
   forceFrom_ = 0;
   forceTo_ = dirty_.size();
   immediate_ = true;
   schedulePump();
}

void SessionRibOut::markAll() {
   dirty_.reserve(dirty_.size() + table_->routes());
   advertised_.reserve(table_->routes());
   for (auto it = table_->order().begin(); it != table_->order().end(); ++it) markDirty(*it);
}

void SessionRibOut::markDirty(RouteKey const* key) {
   key->newRef();
   dirty_.push_back(key);
}

void SessionRibOut::handleRouteEntry(RouteKey const* key) {
   // Cheap for what this peer never hears of: its own rules, and rules it was never sent
   // that may not be sent now either.
   if (advertised_.empty() || advertised_.find(key) == advertised_.end()) {
      std::optional<RibSource> const source = table_->bestSource(*key);
      if (!source) return; // gone, and the peer never had it
      if (!sendsFrom(*source)) return;
   }
   markDirty(key);
   // A storm of changes to few keys under a long interval keeps the list to the table's
   // size. Many distinct keys (a session of a million routes going) only grow it: the
   // threshold grows with what compaction leaves, so each key is sorted a bounded number of
   // times.
   std::size_t const pending = dirty_.size() - next_;
   if (pending > 2 * table_->routes() + 4096 && pending > 2 * compactFloor_) {
      compactDirty();
      compactFloor_ = dirty_.size() - next_;
   }
   schedulePump();
}

void SessionRibOut::compactDirty() {
   // Keeps one entry per key; the order of keys does not matter to the peer.
   for (std::size_t i = 0; i < next_; ++i) dirty_[i] = nullptr;
   dirty_.erase(dirty_.begin(), dirty_.begin() + static_cast<std::ptrdiff_t>(next_));
   forceFrom_ = forceFrom_ > next_ ? forceFrom_ - next_ : 0;
   forceTo_ = forceTo_ > next_ ? forceTo_ - next_ : 0;
   next_ = 0;
   if (forceFrom_ < forceTo_) return; // a refresh under way keeps its range
   compactedEntries_ += dirty_.size();
   std::sort(dirty_.begin(), dirty_.end());
   // Each entry holds a reference: a repeated one gives its reference back. (std::unique
   // leaves unspecified values behind, so the repeats are released here, as they are met.)
   std::size_t kept = 0;
   for (std::size_t i = 0; i < dirty_.size(); ++i) {
      if (kept > 0 && dirty_[kept - 1] == dirty_[i]) {
         dirty_[i]->deleteRef();
      } else {
         dirty_[kept++] = dirty_[i];
      }
   }
   dirty_.resize(kept);
}

void SessionRibOut::schedulePump() {
   if (!running_ || pumpPosted_) return;
   pumpPosted_ = true;
   auto task = [alive = alive_, this] {
      if (!*alive) return;
      pumpTask_.reset();
      pumpPosted_ = false;
      pump();
   };
   Ovk::Clock::time_point const now = scheduler_->now();
   if (!immediate_ && options_.minRouteAdvertisementInterval.count() > 0 && now < nextAllowed_) {
      pumpTask_ = scheduler_->postAfter(nextAllowed_ - now, std::move(task), "ribOutInterval");
   } else {
      pumpTask_ = scheduler_->post(std::move(task), "ribOut");
   }
}

void SessionRibOut::pump() {
   if (!running_) return;
   while (next_ < dirty_.size() && output_.queuedBytes() < options_.highWaterBytes) {
      std::size_t const begin = next_;
      std::size_t const end = std::min(dirty_.size(), begin + options_.keysPerStep);
      encodeStep(begin, end);
      next_ = end;
      for (std::size_t i = begin; i < end; ++i) dirty_[i]->deleteRef();
   }
   paused_ = next_ < dirty_.size();
   if (paused_) return; // the next drain goes on
   dirty_.clear();
   // A whole table's list is not kept for the next few changes.
   if (dirty_.capacity() > 65536) dirty_.shrink_to_fit();
   next_ = forceFrom_ = forceTo_ = 0;
   compactFloor_ = 0;
   if (endOfRibPending_) {
      endOfRibPending_ = false;
      ++counters_.endOfRibs;
      output_.sendEndOfRib(afiSafi());
   }
   immediate_ = false;
   if (options_.minRouteAdvertisementInterval.count() > 0) {
      nextAllowed_ = scheduler_->now() + options_.minRouteAdvertisementInterval;
   }
}

RtAttr const* SessionRibOut::exported(RtAttr const* rib, bool local) {
   auto it = exported_.find(rib);
   if (it == exported_.end()) {
      if (exported_.size() >= kMaxExported) exported_.clear();
      it = exported_.emplace(rib, Exported{Ovk::Ptr<RtAttr const>(rib), nullptr, nullptr}).first;
   }
   Ovk::Ptr<RtAttr const>& out = local ? it->second.local : it->second.learnt;
   if (!out) out = attrTable_->rtAttrIs(exportAttributes(rib->contents(), peer_, local, nexthop_));
   return out.ptr();
}

RtAttr const* SessionRibOut::wanted(RouteKey const& key, RibSource& source) {
   std::optional<RibPath> const best = table_->bestPath(key);
   if (!best) return nullptr;
   source = best->source;
   if (!sendsFrom(source)) return nullptr;
   return exported(best->attrs, source == kLocalRibSource);
}

bool SessionRibOut::sendsFrom(RibSource source) const {
   if (source == source_) return false; // split horizon
   // RFC 4271 section 9.1.3: what an internal peer taught us goes to no internal peer.
   return source == kLocalRibSource || !peer_.internal() || !table_->sources().peer(source).internal();
}

void SessionRibOut::encodeStep(std::size_t begin, std::size_t end) {
   items_.clear();
   for (std::size_t i = begin; i < end; ++i) {
      RouteKey const* const key = dirty_[i];
      bool const force = i >= forceFrom_ && i < forceTo_;
      RibSource source = kLocalRibSource;
      RtAttr const* const want = wanted(*key, source);
      auto const it = advertised_.find(key);
      bool const had = it != advertised_.end();
      if (!want) {
         if (!had) continue;
         key->deleteRef();
         advertised_.erase(it);
         items_.push_back({nullptr, key, true});
         continue;
      }
      if (had && !force && it->second.attrs.ptr() == want && it->second.source == source) continue;
      if (had) {
         it->second = AdvertisedPath{Ovk::Ptr<RtAttr const>(want), source};
      } else {
         key->newRef();
         advertised_.emplace(key, AdvertisedPath{Ovk::Ptr<RtAttr const>(want), source});
      }
      items_.push_back({want, key, had});
   }
   if (items_.empty()) return;
   // Withdrawals first, then one run of messages per attribute set.
   std::stable_sort(items_.begin(), items_.end(),
                    [](Item const& a, Item const& b) { return std::less<>()(a.attrs, b.attrs); });
   std::size_t late = 0; // routes too long to announce, moved to the front to withdraw
   RtAttr const* current = nullptr;
   bool withdrawing = false;
   for (std::size_t i = 0; i < items_.size(); ++i) {
      Item const item = items_[i];
      if (!item.attrs) {
         if (!withdrawing) {
            writer_.startWithdraw();
            withdrawing = true;
         }
         Ovk::String const nlri = item.key->serialize(RouteKey::SerializeOperation::withdraw, nullptr);
         if (writer_.add(nlri.span())) {
            ++counters_.withdrawn;
         } else {
            ++counters_.unsendable;
         }
         continue;
      }
      if (item.attrs != current || withdrawing) {
         writer_.startAdvertise(item.attrs->contents());
         current = item.attrs;
         withdrawing = false;
      }
      Ovk::String const nlri = item.key->serialize(RouteKey::SerializeOperation::advertise, nullptr);
      if (writer_.add(nlri.span())) {
         ++counters_.advertised;
         continue;
      }
      // The route cannot go out with these attributes: the peer keeps none of it.
      ++counters_.unsendable;
      OVK_TRACE(bgpTraceFacility(), 3,
                "route too long for one UPDATE to " << peer_.str() << ": " << item.key->toStrepImpl());
      auto const it = advertised_.find(item.key);
      if (it != advertised_.end()) {
         advertised_.erase(it);
         if (item.wasAdvertised) {
            items_[late++] = Item{nullptr, item.key, true}; // still referenced by dirty_
         } else {
            item.key->deleteRef();
         }
      }
   }
   writer_.flush();
   if (late == 0) return;
   writer_.startWithdraw();
   for (std::size_t i = 0; i < late; ++i) {
      Ovk::String const nlri = items_[i].key->serialize(RouteKey::SerializeOperation::withdraw, nullptr);
      if (writer_.add(nlri.span())) ++counters_.withdrawn;
      items_[i].key->deleteRef(); // the reference advertised_ held
   }
   writer_.flush();
}

void SessionRibOut::emit(std::span<std::uint8_t const> message) {
   ++counters_.updates;
   counters_.bytes += message.size();
   output_.sendUpdate(message);
}

AdvertisedPath const* SessionRibOut::findAdvertisedPath(RouteKey const& key) const {
   RouteKey const* k = &key;
   Ovk::Ptr<RouteKey const> canonical;
   if (!key.isDeduped()) {
      // An orphan: the table's key equal to it is the one the peer was sent.
      auto const* table = dynamic_cast<RouteKeyDedupTableBase const*>(key.dedupTable());
      if (!table) return nullptr;
      canonical = table->lookupRouteKey(key);
      if (!canonical) return nullptr;
      k = canonical.ptr();
   }
   auto const it = advertised_.find(k);
   return it == advertised_.end() ? nullptr : &it->second;
}

} // namespace Routing::Bgp
