#include "host/bgp/Rib.h"

#include <algorithm>

#include "host/fwk/Assert.h"

namespace Routing::Bgp {

namespace {

// RibRouteSlot::state: bit 31 marks a key changed since the last flush; the rest is the
// 1-based index of its other paths.
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
   others_.emplace_back(); // index 0 means none
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
      if (auto* more = others(*key)) {
         for (RibPath const& p : *more) p.attrs->deleteRef();
      }
      attrsOf(slot)->deleteRef();
      slot = RibRouteSlot{};
      key->deleteRef(); // the index is freed with the table, without reading its keys
   }
}

std::vector<RibPath>* RibTable::others(RouteKey const& key) const {
   std::uint32_t const i = key.ribSlot().state & kOthersMask;
   return i == 0 ? nullptr : const_cast<std::vector<RibPath>*>(&others_[i]);
}

std::vector<RibPath>& RibTable::othersIs(RouteKey const& key) {
   RibRouteSlot& slot = key.ribSlot();
   std::uint32_t i = slot.state & kOthersMask;
   if (i != 0) return others_[i];
   if (!freeOthers_.empty()) {
      i = freeOthers_.back();
      freeOthers_.pop_back();
   } else {
      OVK_ASSERT(others_.size() < kOthersMask);
      i = static_cast<std::uint32_t>(others_.size());
      others_.emplace_back();
   }
   slot.state = (slot.state & kChanged) | i;
   return others_[i];
}

void RibTable::othersDel(RouteKey const& key) {
   RibRouteSlot& slot = key.ribSlot();
   std::uint32_t const i = slot.state & kOthersMask;
   if (i == 0) return;
   others_[i].clear();
   others_[i].shrink_to_fit();
   freeOthers_.push_back(i);
   slot.state &= kChanged;
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
   std::vector<RibPath>* more = others(key);
   if (!more || more->empty()) return false;
   RibPath best{attrsOf(slot), slot.bestSource};
   std::size_t bestAt = more->size(); // the slot's path
   for (std::size_t i = 0; i < more->size(); ++i) {
      if (betterPath((*more)[i], best, *sources_)) {
         best = (*more)[i];
         bestAt = i;
      }
   }
   if (bestAt == more->size()) return false;
   // The new best goes into the slot; the old one takes its place among the others.
   RibPath const old{attrsOf(slot), slot.bestSource};
   (*more)[bestAt] = old;
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
   std::vector<RibPath>& more = othersIs(key);
   for (RibPath& p : more) {
      if (p.source != source) continue;
      if (p.attrs == a) return false;
      a->newRef();
      p.attrs->deleteRef();
      p.attrs = a;
      if (select(key)) markChanged(key);
      return false;
   }
   a->newRef();
   more.push_back({a, source});
   ++paths_;
   ++counts(source).paths;
   if (select(key)) markChanged(key);
   return true;
}

bool RibTable::pathDel(RouteKey const& key, RibSource source) {
   RibRouteSlot& slot = key.ribSlot();
   if (!slot.bestAttrs) return false;
   std::vector<RibPath>* more = others(key);
   if (slot.bestSource != source) {
      if (!more) return false;
      auto it = std::find_if(more->begin(), more->end(), [source](RibPath const& p) { return p.source == source; });
      if (it == more->end()) return false;
      it->attrs->deleteRef();
      more->erase(it);
      if (more->empty()) othersDel(key);
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
   if (!more || more->empty()) {
      slot.bestAttrs = nullptr;
      slot.bestSource = 0;
      order_.erase(&key);
      gone->deleteRef();
      key.deleteRef(); // the change list still holds the key
      return true;
   }
   auto best = more->begin();
   for (auto it = more->begin() + 1; it != more->end(); ++it) {
      if (betterPath(*it, *best, *sources_)) best = it;
   }
   slot.bestAttrs = best->attrs;
   slot.bestSource = best->source;
   ++counts(best->source).best;
   more->erase(best);
   if (more->empty()) othersDel(key);
   gone->deleteRef();
   return true;
}

std::size_t RibTable::pathDelAll(RibSource source) {
   Ovk::Ptr<RouteKey const> cursor;
   return pathDelSome(source, cursor, SIZE_MAX);
}

std::size_t RibTable::pathDelSome(RibSource source, Ovk::Ptr<RouteKey const>& cursor, std::size_t budget) {
   if (pathsOf(source) == 0) {
      cursor = nullptr;
      return 0;
   }
   // Collect first: removing a key's last path takes it out of the order being walked.
   std::vector<RouteKey const*> keys;
   auto it = cursor ? order_.lowerBound(*cursor) : order_.begin();
   for (std::size_t visited = 0; it != order_.end() && visited < budget; ++it, ++visited) {
      RouteKey const* key = *it;
      if (key->ribSlot().bestSource == source) {
         keys.push_back(key);
         continue;
      }
      if (auto* more = others(*key)) {
         if (std::any_of(more->begin(), more->end(), [source](RibPath const& p) { return p.source == source; })) {
            keys.push_back(key);
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
   if (auto* more = others(key)) {
      for (RibPath const& p : *more) f(p);
   }
}

std::optional<RibPath> RibTable::path(RouteKey const& key, RibSource source) const {
   std::optional<RibPath> found;
   forEachPath(key, [&](RibPath const& p) {
      if (!found && p.source == source) found = p;
   });
   return found;
}

std::size_t RibTable::bytes() const {
   std::size_t b = order_.bytes() + others_.capacity() * sizeof(std::vector<RibPath>);
   for (auto const& v : others_) b += v.capacity() * sizeof(RibPath);
   return b;
}

} // namespace Routing::Bgp
