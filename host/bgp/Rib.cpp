#include "host/bgp/Rib.h"

#include <algorithm>

#include "host/fwk/Assert.h"

namespace Routing::Bgp {

namespace {

// RibRouteSlot::state: bit 31 marks a key changed since the last flush; the rest is the
// index of its first other path.
constexpr std::uint32_t kChanged = 0x80000000u;
constexpr std::uint32_t kOthersMask = 0x7fffffffu;

RtAttr const* attrsOf(RibRouteSlot const& slot) { return static_cast<RtAttr const*>(slot.bestAttrs); }

} // namespace

// ---- Sources ----

RibSources::RibSources(BgpPeer local) { peers_.push_back(std::move(local)); }

RibSource RibSources::sourceIs(BgpPeer const& peer) {
   for (std::size_t i = 1; i < peers_.size(); ++i) {
      if (peers_[i].address == peer.address && peers_[i].vrfId == peer.vrfId) {
         peers_[i] = peer;
         return static_cast<RibSource>(i);
      }
   }
   peers_.push_back(peer);
   return static_cast<RibSource>(peers_.size() - 1);
}

// ---- Decision process ----

bool betterPath(RibPath const& a, RibPath const& b, RibSources const& sources) {
   PathAttributesContents const& x = a.contents();
   PathAttributesContents const& y = b.contents();
   // RFC 4271 section 9.1.2.1: the degree of preference.
   std::uint32_t const lpX = x.localPref.value_or(kDefaultLocalPref);
   std::uint32_t const lpY = y.localPref.value_or(kDefaultLocalPref);
   if (lpX != lpY) return lpX > lpY;
   // Section 9.1.2.2 a to c.
   if (x.asPathLength != y.asPathLength) return x.asPathLength < y.asPathLength;
   if (x.origin != y.origin) return x.origin < y.origin;
   if (x.neighborAs == y.neighborAs) {
      std::uint32_t const medX = x.med.value_or(0);
      std::uint32_t const medY = y.med.value_or(0);
      if (medX != medY) return medX < medY;
   }
   // The agent's own rules before learnt ones, then d: external before internal. (Flowspec
   // next hops are resolved at no cost, so the interior cost of e ties.)
   bool const localX = a.source == kLocalRibSource;
   bool const localY = b.source == kLocalRibSource;
   if (localX != localY) return localX;
   if (localX) return false;
   BgpPeer const& peerX = sources.peer(a.source);
   BgpPeer const& peerY = sources.peer(b.source);
   if (peerX.internal() != peerY.internal()) return !peerX.internal();
   // f and g.
   if (peerX.routerId != peerY.routerId) return peerX.routerId < peerY.routerId;
   return peerX.address < peerY.address;
}

// ---- Table ----

RibTable::RibTable(BgpVrfIdBase vrfId, AfiSafi afiSafi, Ovk::Ptr<RibSources const> sources)
    : vrfId_(vrfId), afiSafi_(afiSafi), sources_(std::move(sources)),
      // IPv6 keys go on differing past the first 64 bits of their order.
      order_(afiSafi.afi() == Afi::afiIpv6 ? RouteOrderIndex::Summary::wide : RouteOrderIndex::Summary::narrow) {
   OVK_ASSERT(sources_);
}

RibTable::~RibTable() {
   for (auto const& t : claimed_) {
      if (t->ribOwner() == this) t->ribOwnerIs(nullptr);
   }
   for (RouteKey const* key : changed_) {
      key->ribSlot().state &= ~kChanged;
      key->deleteRef();
   }
   changed_.clear();
   // Release every path and every key; the keys may go with their last reference.
   std::vector<RouteKey const*> keys;
   keys.reserve(order_.size());
   for (auto it = order_.begin(); it != order_.end(); ++it) keys.push_back(*it);
   for (RouteKey const* key : keys) {
      RibRouteSlot& slot = key->ribSlot();
      for (std::uint32_t i = othersOf(*key); i != 0; i = others_.at(i).next) others_.at(i).attrs->deleteRef();
      attrsOf(slot)->deleteRef();
      slot = RibRouteSlot{};
      key->deleteRef(); // the index is freed with the table, without reading its keys
   }
}

std::uint32_t RibTable::OtherPathPool::alloc(RtAttr const* attrs, RibSource source) {
   static_assert(sizeof(OtherPath) == 16);
   std::uint32_t i = free_;
   if (i != 0) {
      free_ = at(i).next;
   } else {
      OVK_ASSERT(end_ < kOthersMask);
      i = end_++;
      if ((i >> kChunkShift) >= chunks_.size()) chunks_.push_back(std::make_unique<OtherPath[]>(kChunkMask + 1));
   }
   at(i) = OtherPath{attrs, source, 0};
   ++inUse_;
   return i;
}

void RibTable::OtherPathPool::free(std::uint32_t i) {
   at(i) = OtherPath{nullptr, 0, free_};
   free_ = i;
   if (--inUse_ == 0) {
      // The last other path went (the second peer's session dropped): the chunks go too.
      chunks_.clear();
      chunks_.shrink_to_fit();
      free_ = 0;
      end_ = 1;
   }
}

std::size_t RibTable::OtherPathPool::bytes() const {
   return chunks_.size() * (kChunkMask + 1) * sizeof(OtherPath) + chunks_.capacity() * sizeof(chunks_[0]);
}

std::uint32_t RibTable::othersOf(RouteKey const& key) { return key.ribSlot().state & kOthersMask; }

void RibTable::othersIs(RouteKey const& key, std::uint32_t first) {
   RibRouteSlot& slot = key.ribSlot();
   slot.state = (slot.state & kChanged) | first;
}

RibTable::Counts& RibTable::counts(RibSource source) {
   if (source >= counts_.size()) counts_.resize(source + 1);
   return counts_[source];
}

std::size_t RibTable::pathsOf(RibSource source) const { return source < counts_.size() ? counts_[source].paths : 0; }
std::size_t RibTable::bestOf(RibSource source) const { return source < counts_.size() ? counts_[source].best : 0; }

void RibTable::claim(RouteKey const& key) {
   auto const* table = static_cast<RouteKeyDedupTableBase const*>(key.dedupTable());
   OVK_ASSERT_MSG(table != nullptr, "a RIB path needs a deduplicated key");
   if (table == lastClaimed_) return;
   if (!table->ribOwner()) {
      table->ribOwnerIs(this);
      claimed_.emplace_back(table);
   }
   OVK_ASSERT_MSG(table->ribOwner() == this, "one RIB table per route-key dedup table");
   lastClaimed_ = table;
}

void RibTable::markChanged(RouteKey const& key) {
   RibRouteSlot& slot = key.ribSlot();
   if (slot.state & kChanged) return;
   slot.state |= kChanged;
   key.newRef();
   changed_.push_back(&key);
}

bool RibTable::select(RouteKey const& key) {
   RibRouteSlot& slot = key.ribSlot();
   RibPath best{attrsOf(slot), slot.bestSource};
   std::uint32_t bestAt = 0; // the slot's path
   for (std::uint32_t i = othersOf(key); i != 0; i = others_.at(i).next) {
      RibPath const p = others_.at(i).path();
      if (betterPath(p, best, *sources_)) {
         best = p;
         bestAt = i;
      }
   }
   if (bestAt == 0) return false;
   // The new best goes into the slot; the old one takes its place among the others.
   RibPath const old{attrsOf(slot), slot.bestSource};
   OtherPath& node = others_.at(bestAt);
   node.attrs = old.attrs;
   node.source = old.source;
   --counts(old.source).best;
   ++counts(best.source).best;
   slot.bestAttrs = best.attrs;
   slot.bestSource = best.source;
   return true;
}

bool RibTable::pathIs(RouteKey const& key, RibSource source, Ovk::Ptr<RtAttr const> const& attrs) {
   OVK_ASSERT(attrs);
   RibRouteSlot& slot = key.ribSlot();
   RtAttr const* const a = attrs.ptr();
   if (!slot.bestAttrs) {
      // The key's first path. Its slot is this table's from now on: another table writing it
      // would corrupt both.
      claim(key);
      key.newRef();
      a->newRef();
      slot.bestAttrs = a;
      slot.bestSource = source;
      order_.insert(&key);
      ++paths_;
      Counts& c = counts(source);
      ++c.paths;
      ++c.best;
      markChanged(key);
      return true;
   }
   if (slot.bestSource == source) {
      // The best path is replaced; another may now be better.
      if (slot.bestAttrs == a) return false;
      a->newRef();
      attrsOf(slot)->deleteRef();
      slot.bestAttrs = a;
      select(key);
      markChanged(key);
      return false;
   }
   std::uint32_t last = 0;
   for (std::uint32_t i = othersOf(key); i != 0; i = others_.at(i).next) {
      OtherPath& p = others_.at(i);
      last = i;
      if (p.source != source) continue;
      if (p.attrs == a) return false;
      a->newRef();
      p.attrs->deleteRef();
      p.attrs = a;
      if (select(key)) markChanged(key);
      return false;
   }
   a->newRef();
   std::uint32_t const added = others_.alloc(a, source);
   if (last != 0) {
      others_.at(last).next = added;
   } else {
      othersIs(key, added);
   }
   ++paths_;
   ++counts(source).paths;
   if (select(key)) markChanged(key);
   return true;
}

bool RibTable::pathDel(RouteKey const& key, RibSource source) {
   RibRouteSlot& slot = key.ribSlot();
   if (!slot.bestAttrs) return false;
   // Unlinks the other path `i` (after `prev`, 0 for the first) and frees its node.
   auto unlink = [&](std::uint32_t prev, std::uint32_t i) {
      std::uint32_t const next = others_.at(i).next;
      if (prev != 0) {
         others_.at(prev).next = next;
      } else {
         othersIs(key, next);
      }
      others_.free(i);
   };
   if (slot.bestSource != source) {
      std::uint32_t prev = 0;
      std::uint32_t i = othersOf(key);
      while (i != 0 && others_.at(i).source != source) {
         prev = i;
         i = others_.at(i).next;
      }
      if (i == 0) return false;
      others_.at(i).attrs->deleteRef();
      unlink(prev, i);
      --paths_;
      --counts(source).paths;
      return true;
   }
   // The best path goes: the best of the others takes its place, or the route goes.
   RtAttr const* const gone = attrsOf(slot);
   --paths_;
   --counts(source).paths;
   --counts(source).best;
   markChanged(key);
   std::uint32_t const first = othersOf(key);
   if (first == 0) {
      slot.bestAttrs = nullptr;
      slot.bestSource = 0;
      order_.erase(&key);
      gone->deleteRef();
      key.deleteRef(); // the change list still holds the key
      return true;
   }
   std::uint32_t best = first, bestPrev = 0;
   for (std::uint32_t prev = first, i = others_.at(first).next; i != 0; prev = i, i = others_.at(i).next) {
      if (betterPath(others_.at(i).path(), others_.at(best).path(), *sources_)) {
         best = i;
         bestPrev = prev;
      }
   }
   slot.bestAttrs = others_.at(best).attrs;
   slot.bestSource = others_.at(best).source;
   ++counts(slot.bestSource).best;
   unlink(bestPrev, best);
   gone->deleteRef();
   return true;
}

std::size_t RibTable::pathDelAll(RibSource source) {
   Ovk::Ptr<RouteKey const> cursor;
   return pathDelSome(source, cursor, SIZE_MAX);
}

std::size_t RibTable::pathDelSome(RibSource source, Ovk::Ptr<RouteKey const>& cursor, std::size_t budget,
                                  PathFilter const& which) {
   if (pathsOf(source) == 0) {
      cursor = nullptr;
      return 0;
   }
   // Collect first: removing a key's last path takes it out of the order being walked.
   std::vector<RouteKey const*> keys;
   auto const picked = [&](RouteKey const& key, RibPath const& path) { return !which || which(key, path); };
   auto it = cursor ? order_.lowerBound(*cursor) : order_.begin();
   for (std::size_t visited = 0; it != order_.end() && visited < budget; ++it, ++visited) {
      RouteKey const* key = *it;
      RibRouteSlot const& slot = key->ribSlot();
      if (slot.bestSource == source) {
         if (picked(*key, RibPath{attrsOf(slot), source})) keys.push_back(key);
         continue;
      }
      for (std::uint32_t i = othersOf(*key); i != 0; i = others_.at(i).next) {
         if (others_.at(i).source == source) {
            if (picked(*key, others_.at(i).path())) keys.push_back(key);
            break;
         }
      }
   }
   // The next key is not among those collected, so it stays in the index meanwhile.
   cursor = it == order_.end() ? nullptr : Ovk::Ptr<RouteKey const>(*it);
   std::size_t removed = 0;
   for (RouteKey const* key : keys) {
      if (pathDel(*key, source)) ++removed;
   }
   if (pathsOf(source) == 0) cursor = nullptr;
   return removed;
}

void RibTable::flushChanges() {
   // Reactors may change the table's paths meanwhile (they do not today): each flush tells
   // what had changed when it began.
   std::vector<RouteKey const*> changed;
   changed.swap(changed_);
   for (RouteKey const* key : changed) key->ribSlot().state &= ~kChanged;
   for (RouteKey const* key : changed) {
      for (Reactor* r : reactors_) r->handleRouteEntry(key);
   }
   for (RouteKey const* key : changed) key->deleteRef();
   // Keep the list's storage for the next batch.
   if (changed_.empty()) {
      changed.clear();
      changed_.swap(changed);
   }
}

void RibTable::reactorIs(Reactor* reactor) {
   if (std::find(reactors_.begin(), reactors_.end(), reactor) == reactors_.end()) reactors_.push_back(reactor);
}

void RibTable::reactorDel(Reactor* reactor) {
   reactors_.erase(std::remove(reactors_.begin(), reactors_.end(), reactor), reactors_.end());
}

std::optional<RibPath> RibTable::bestPath(RouteKey const& key) const {
   RibRouteSlot const& slot = key.ribSlot();
   if (!slot.bestAttrs) return std::nullopt;
   return RibPath{attrsOf(slot), slot.bestSource};
}

PathAttributesContents const* RibTable::getEffectivePathAttrs(RouteKey const& key) const {
   RtAttr const* const a = attrsOf(key.ribSlot());
   return a ? &a->contents() : nullptr;
}

void RibTable::forEachPath(RouteKey const& key, std::function<void(RibPath const&)> const& f) const {
   RibRouteSlot const& slot = key.ribSlot();
   if (!slot.bestAttrs) return;
   f(RibPath{attrsOf(slot), slot.bestSource});
   for (std::uint32_t i = othersOf(key); i != 0; i = others_.at(i).next) f(others_.at(i).path());
}

std::optional<RibPath> RibTable::path(RouteKey const& key, RibSource source) const {
   std::optional<RibPath> found;
   forEachPath(key, [&](RibPath const& p) {
      if (!found && p.source == source) found = p;
   });
   return found;
}

std::size_t RibTable::bytes() const {
   return order_.bytes() + others_.bytes();
}

} // namespace Routing::Bgp
