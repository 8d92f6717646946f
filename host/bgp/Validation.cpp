#include "host/bgp/Validation.h"

#include <algorithm>

#include "host/bgp/AdjRibin.h"
#include "host/bgp/UnicastRouteKey.h"
#include "host/fwk/Assert.h"

namespace Routing::Bgp {

namespace {

template <std::size_t N>
std::array<std::uint8_t, N> addressOf(std::span<std::uint8_t const> bytes) {
   std::array<std::uint8_t, N> a{};
   std::copy_n(bytes.begin(), N, a.begin());
   return a;
}

bool isV6(Ovnet::IpGenPrefix const& p) { return p.af() == Ovnet::AddressFamily::ipv6; }

} // namespace

RuleValidation::RuleValidation(Ovk::Ptr<RibTable> ipv4Unicast, Ovk::Ptr<RibTable> ipv6Unicast)
    : ipv4_(std::move(ipv4Unicast)), ipv6_(std::move(ipv6Unicast)) {
   for (RibTable* t : {ipv4_.ptr(), ipv6_.ptr()}) {
      if (!t) continue;
      t->reactorIs(this);
      // Routes already there enter the structure as if they had just changed.
      for (RouteKey const* key : t->order()) handleRouteEntry(key);
   }
   changed_.clear();
}

RuleValidation::~RuleValidation() {
   for (RibTable* t : {ipv4_.ptr(), ipv6_.ptr()}) {
      if (t) t->reactorDel(this);
   }
}

std::uint32_t RuleValidation::neighborAs(RibPath const& path) const {
   std::uint32_t const as = path.contents().neighborAs;
   return as != 0 ? as : ipv4_ ? ipv4_->sources().peer(path.source).remoteAs : ipv6_->sources().peer(path.source).remoteAs;
}

std::optional<ImportRefusal> RuleValidation::judge(RouteKey const& rule, PathAttributesContents const& attrs,
                                                   RibSource source) const {
   ++counters_.judged;
   std::optional<Ovnet::IpGenPrefix> const dest = rule.validationDestination();
   if (!dest) return ImportRefusal::unvalidatableDestination;
   bool const v6 = isV6(*dest);
   RibTable const* const table = tableOf(v6);
   RouteKey const* const match = bestMatch(*dest);
   if (!table || !match) return ImportRefusal::noUnicastRoute;
   std::optional<RibPath> const best = table->bestPath(*match);
   OVK_ASSERT(best.has_value());
   RibSources const& sources = table->sources();
   BgpPeer const& from = sources.peer(source);
   // Rule b: the originator. The same session, or the same speaker on another session.
   bool originator = best->source == source || (from.routerId != 0 && sources.peer(best->source).routerId == from.routerId);
   // RFC 9117 section 4.2: from an external peer, the neighboring AS decides.
   if (!originator && !from.internal()) {
      std::uint32_t const ruleAs = attrs.neighborAs != 0 ? attrs.neighborAs : from.remoteAs;
      originator = ruleAs == neighborAs(*best);
   }
   // RFC 9117 section 4.1, b.2: a rule originated inside the AS or the confederation.
   if (!originator && attrs.asPathLength == 0) originator = true;
   if (!originator) return ImportRefusal::notOriginator;
   // Rule c: more-specific routes from another neighboring AS.
   std::uint32_t const routeAs = neighborAs(*best);
   bool clean = true;
   auto const check = [&](auto const& e) {
      std::optional<RibPath> const p = table->bestPath(*e.value);
      if (p && neighborAs(*p) != routeAs) clean = false;
      return clean;
   };
   if (v6) {
      routes6_.forEachMoreSpecific(addressOf<16>(dest->addr().bytes()), dest->len(), check);
   } else {
      routes4_.forEachMoreSpecific(addressOf<4>(dest->addr().bytes()), dest->len(), check);
   }
   if (!clean) return ImportRefusal::moreSpecificOtherAs;
   return std::nullopt;
}

RouteKey const* RuleValidation::bestMatch(Ovnet::IpGenPrefix const& prefix) const {
   RouteKey const* found = nullptr;
   auto const take = [&](auto const& e) { found = e.value; };
   if (isV6(prefix)) {
      routes6_.longestMatch(addressOf<16>(prefix.addr().bytes()), prefix.len(), take);
   } else {
      routes4_.longestMatch(addressOf<4>(prefix.addr().bytes()), prefix.len(), take);
   }
   return found;
}

void RuleValidation::ruleIs(RouteKey const& rule, AdjRibin* ribin) {
   std::optional<Ovnet::IpGenPrefix> const dest = rule.validationDestination();
   if (!dest) return;
   RuleRef const ref{ribin, &rule};
   auto const add = [&](auto& trie, auto const& addr) {
      RuleList* list = trie.find(addr, dest->len());
      if (!list) {
         trie.insert(addr, dest->len(), RuleList{});
         list = trie.find(addr, dest->len());
      }
      if (std::find(list->begin(), list->end(), ref) != list->end()) return;
      list->push_back(ref);
      ++rules_;
   };
   if (isV6(*dest)) {
      add(rules6_, addressOf<16>(dest->addr().bytes()));
   } else {
      add(rules4_, addressOf<4>(dest->addr().bytes()));
   }
}

void RuleValidation::ruleDel(RouteKey const& rule, AdjRibin* ribin) {
   std::optional<Ovnet::IpGenPrefix> const dest = rule.validationDestination();
   if (!dest) return;
   RuleRef const ref{ribin, &rule};
   auto const del = [&](auto& trie, auto const& addr) {
      RuleList* const list = trie.find(addr, dest->len());
      if (!list) return;
      auto const it = std::find(list->begin(), list->end(), ref);
      if (it == list->end()) return;
      list->erase(it);
      --rules_;
      if (list->empty()) trie.erase(addr, dest->len());
   };
   if (isV6(*dest)) {
      del(rules6_, addressOf<16>(dest->addr().bytes()));
   } else {
      del(rules4_, addressOf<4>(dest->addr().bytes()));
   }
}

void RuleValidation::ribinDel(AdjRibin const* ribin) {
   // Rare (a session's end): a walk of the index.
   auto const sweep = [&](auto& trie, unsigned maxLen) {
      std::vector<std::pair<typename std::remove_reference_t<decltype(trie)>::Address, std::uint8_t>> emptied;
      typename std::remove_reference_t<decltype(trie)>::Address const zero{};
      trie.forEachMoreSpecific(zero, 0, [&](auto const& e) {
         auto& list = const_cast<RuleList&>(e.value);
         std::size_t const before = list.size();
         std::erase_if(list, [&](RuleRef const& r) { return r.ribin == ribin; });
         rules_ -= before - list.size();
         if (list.empty()) emptied.emplace_back(e.addr, e.len);
         return true;
      });
      // The /0 prefix itself is not "more specific" than /0.
      if (RuleList* const root = trie.find(zero, 0)) {
         std::size_t const before = root->size();
         std::erase_if(*root, [&](RuleRef const& r) { return r.ribin == ribin; });
         rules_ -= before - root->size();
         if (root->empty()) emptied.emplace_back(zero, 0);
      }
      for (auto const& [addr, len] : emptied) trie.erase(addr, len);
      (void)maxLen;
   };
   sweep(rules4_, 32);
   sweep(rules6_, 128);
}

void RuleValidation::handleRouteEntry(RouteKey const* key) {
   auto const* const u = dynamic_cast<UnicastRouteKey const*>(key);
   if (!u) return;
   bool const v6 = u->afi() == Afi::afiIpv6;
   RibTable const* const table = tableOf(v6);
   bool const present = table && table->routePresent(*u);
   Changed c{v6, {}, u->len()};
   std::copy(u->addressBytes().begin(), u->addressBytes().end(), c.addr.begin());
   if (v6) {
      auto const a = addressOf<16>(c.addr);
      present ? (void)routes6_.insert(a, c.len, key) : (void)routes6_.erase(a, c.len);
   } else {
      auto const a = addressOf<4>(c.addr);
      present ? (void)routes4_.insert(a, c.len, key) : (void)routes4_.erase(a, c.len);
   }
   ++counters_.unicastChanges;
   if (rules_ > 0) changed_.push_back(c);
}

std::size_t RuleValidation::revalidate() {
   if (changed_.empty()) return 0;
   std::vector<RuleRef> affected;
   auto const collect = [&](auto const& e) {
      affected.insert(affected.end(), e.value.begin(), e.value.end());
      return true;
   };
   for (Changed const& c : changed_) {
      // Rules whose destination holds the changed prefix (its more-specific check, or its
      // best match) and those whose destination lies in it (their best match).
      if (c.v6) {
         auto const a = addressOf<16>(c.addr);
         rules6_.forEachCovering(a, c.len, collect);
         rules6_.forEachMoreSpecific(a, c.len, collect);
      } else {
         auto const a = addressOf<4>(c.addr);
         rules4_.forEachCovering(a, c.len, collect);
         rules4_.forEachMoreSpecific(a, c.len, collect);
      }
   }
   changed_.clear();
   std::sort(affected.begin(), affected.end(), [](RuleRef const& a, RuleRef const& b) {
      return a.ribin != b.ribin ? a.ribin < b.ribin : a.rule < b.rule;
   });
   affected.erase(std::unique(affected.begin(), affected.end()), affected.end());
   for (RuleRef const& r : affected) r.ribin->revalidate(*r.rule);
   counters_.revalidated += affected.size();
   return affected.size();
}

std::size_t RuleValidation::bytes() const {
   return routes4_.bytes() + routes6_.bytes() + rules4_.bytes() + rules6_.bytes() + changed_.capacity() * sizeof(Changed);
}

} // namespace Routing::Bgp
