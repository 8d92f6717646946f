#include "agent/Origination.h"

#include "host/flowspec/FlowspecSlateKey.h"
#include "host/mnemo/SlateRuleSetMount.h"
#include "host/bgp/UpdateWriter.h"
#include "host/fwk/String.h"

namespace Flowspecd {

Origination::Origination(Ovk::Ptr<Plugin::Context> context, Ovk::Ptr<Mnemo::EntityManager> entityManager)
    : context_(std::move(context)), entityManager_(std::move(entityManager)) {
   OVK_ASSERT(context_);
   attributes_ = std::make_unique<PathAttributesBuilder>(context_->rtAttrDedupTable(), context_->coreDedupTables(),
                                                         context_->parseExtCommRuleCollections());
}

Origination::~Origination() {
   if (expiryTask_) context_->taskScheduler()->cancel(*expiryTask_);
   for (auto* rules : {&runtime_, &configured_}) {
      for (auto& [id, e] : *rules) uninstall(e);
   }
   flush();
}

Ovk::Result<Origination::Bound, std::string> Origination::bind(OriginatedRule const& rule) const {
   DedupTablesVrf const* const vrf = context_->dedupTablesVrf(BgpL3VrfId::defaultVrfId()).ptr();
   DedupTablesVrfAfiSafi const* const tables = vrf ? vrf->dedupTablesVrfAfiSafi(rule.family) : nullptr;
   if (!tables || !Plugin::defaultVrfRibTable(*context_, rule.family)) {
      return Ovk::failure("no plugin serves " + familyName(rule.family));
   }
   Bound b;
   b.key = tables->routeKeyDedupTableRawPtr()->dedupFromRule(rule.key);
   Ovk::Ptr<GenNexthop const> const nexthop =
       tables->nexthopDedupTableRawPtr()->nexthopOfAddress(rule.communities.nexthop.value_or(Ovnet::IpGenAddr()));
   if (!b.key || !nexthop) return Ovk::failure(std::string("the flowspec plugin makes no route of the rule"));
   Ovk::String const nlri = b.key->serialize(RouteKey::SerializeOperation::advertise, nullptr);
   b.nlri.assign(nlri.span().begin(), nlri.span().end());
   b.attrs = attributes_->localRtAttrOf(rule.communities.extComms, rule.communities.ip6ExtComms, nexthop);
   // The writer's own limit: what the rule's attributes leave for its NLRI on the tightest
   // session it may go to.
   std::uint32_t const localAs = context_->ribSources()->peer(kLocalRibSource).localAs;
   PathAttributesContents const& rib = b.attrs->contents();
   if (!fitsOneUpdate(rule.family, rib, b.nlri.size(), localAs)) {
      std::size_t const room = maxNlriBytesToAnyPeer(rule.family, rib, localAs);
      std::size_t const size = kMaxMessage - std::min(room, kMaxMessage) + b.nlri.size();
      return Ovk::failure("the rule's UPDATE would need " + std::to_string(size) +
                          " bytes with its attributes, more than one " + std::to_string(kMaxMessage) +
                          "-byte message holds");
   }
   return b;
}

ConfigErrors Origination::check(std::vector<RuleConfig> const& rules, std::string const& file) const {
   ConfigErrors errors;
   for (RuleConfig const& r : rules) {
      if (auto b = bind(r.rule); !b) errors.push_back({file, r.line, "rule " + b.reason()});
   }
   return errors;
}

void Origination::install(Entry& e) {
   Ovk::Ptr<RibTable> const t = Plugin::defaultVrfRibTable(*context_, e.rule.family);
   if (!t || !e.bound.key) return;
   t->pathIs(*e.bound.key, kLocalRibSource, e.bound.attrs);
   e.inRib = true;
}

void Origination::uninstall(Entry& e) {
   if (!e.inRib) return;
   e.inRib = false;
   if (Ovk::Ptr<RibTable> const t = Plugin::defaultVrfRibTable(*context_, e.rule.family)) {
      // Only the agent's path of this entry: a path another entry put there stays.
      auto const path = t->path(*e.bound.key, kLocalRibSource);
      if (path && path->attrs == e.bound.attrs.ptr()) t->pathDel(*e.bound.key, kLocalRibSource);
   }
}

Origination::Entry* Origination::winner(RuleId const& id) {
   if (auto it = runtime_.find(id); it != runtime_.end()) return &it->second;
   if (auto it = configured_.find(id); it != configured_.end()) return &it->second;
   return nullptr;
}

void Origination::flush() {
   for (AfiSafi const family : {kIpv4Flowspec, kIpv6Flowspec}) {
      if (auto t = Plugin::defaultVrfRibTable(*context_, family); t && t->pendingChanges()) t->flushChanges();
   }
}

Origination::Diff Origination::configuredRulesIs(std::vector<RuleConfig> const& rules, std::string const& file) {
   Diff diff;
   std::map<RuleId, Entry> next;
   for (RuleConfig const& r : rules) {
      auto bound = bind(r.rule);
      if (!bound) {
         ++diff.refused;
         continue;
      }
      Entry e;
      e.rule = r.rule;
      e.file = file;
      e.line = r.line;
      e.bound = std::move(bound.value());
      RuleId const id = idOf(e);
      auto const old = configured_.find(id);
      if (old == configured_.end()) {
         ++diff.added;
      } else if (old->second.rule.communities == r.rule.communities) {
         ++diff.kept;
         e.inRib = old->second.inRib;
         old->second.inRib = false; // the path stays: it is the new entry's now
      } else {
         ++diff.changed;
      }
      next.emplace(id, std::move(e));
   }
   // Gone and changed rules leave the RIB first.
   for (auto& [id, e] : configured_) {
      if (!next.count(id)) ++diff.withdrawn;
      uninstall(e);
   }
   configured_ = std::move(next);
   // A run-time rule of the same match stays in force over the configured one.
   for (auto& [id, e] : configured_) {
      if (!e.inRib && !runtime_.count(id)) install(e);
   }
   flush();
   return diff;
}

Origination::Uuid Origination::uuidOf(RuleId const& id) {
   // Two FNV-1a passes with different seeds over the family and the NLRI; the version nibble
   // says "custom" (8), the variant bits RFC 9562's.
   Uuid u{};
   for (std::size_t half = 0; half < 2; ++half) {
      std::uint64_t h = half == 0 ? 0xcbf29ce484222325ull : 0x84222325cbf29ce4ull;
      auto mix = [&h](std::uint8_t b) {
         h ^= b;
         h *= 0x100000001b3ull;
      };
      mix(static_cast<std::uint8_t>(id.first >> 8));
      mix(static_cast<std::uint8_t>(id.first));
      for (std::uint8_t b : id.second) mix(b);
      for (std::size_t i = 0; i < 8; ++i) u[half * 8 + i] = static_cast<std::uint8_t>(h >> (56 - 8 * i));
   }
   u[6] = static_cast<std::uint8_t>((u[6] & 0x0f) | 0x80);
   u[8] = static_cast<std::uint8_t>((u[8] & 0x3f) | 0x80);
   return u;
}

Ovk::Result<Origination::Added, std::string> Origination::runtimeRuleIs(OriginatedRule rule, RuntimeOptions options) {
   auto bound = bind(rule);
   if (!bound) return Ovk::failure(bound.reason());
   Entry e;
   e.rule = std::move(rule);
   e.bound = std::move(bound.value());
   RuleId const id = idOf(e);
   e.source = std::move(options.source);
   e.client = std::move(options.client);
   e.uuid = uuidOf(id);
   e.added = std::chrono::system_clock::now();
   auto const old = runtime_.find(id);
   bool const replacing = old != runtime_.end();
   if (replacing && old->second.expires) expiries_.erase({*old->second.expires, id});
   if (options.lifetime) {
      e.expires = context_->taskScheduler()->now() + *options.lifetime;
      expiries_.insert({*e.expires, id});
   }
   install(e);
   // The new path replaced the agent's path of the key: the entry that held it lets it go.
   if (Entry* held = winner(id)) held->inRib = false;
   Uuid const uuid = e.uuid;
   runtime_[id] = std::move(e);
   flush();
   armExpiry();
   return Added{replacing ? "replaced" : "added", uuid};
}

std::string Origination::eraseRuntime(std::map<RuleId, Entry>::iterator it) {
   RuleId const id = it->first;
   if (it->second.expires) expiries_.erase({*it->second.expires, id});
   uninstall(it->second);
   runtime_.erase(it);
   std::string result = "deleted";
   if (auto c = configured_.find(id); c != configured_.end()) {
      install(c->second);
      result = "deleted; the configured rule of line " + std::to_string(c->second.line) + " is in force again";
   }
   return result;
}

Ovk::Result<std::string, std::string> Origination::runtimeRuleDel(AfiSafi family, std::string_view match) {
   auto probe = originatedRuleOf(family, match, {"discard"});
   if (!probe) {
      std::string const why = probe.reason();
      return Ovk::failure(why.rfind("match: ", 0) == 0 ? why : "match: " + why);
   }
   auto bound = bind(probe.value());
   if (!bound) return Ovk::failure(bound.reason());
   RuleId const id{static_cast<std::uint16_t>(family.afi()), bound.value().nlri};
   auto const it = runtime_.find(id);
   if (it == runtime_.end()) {
      std::string why = "no rule " + familyName(family) + " " + probe.value().match + " was added at run time";
      if (auto c = configured_.find(id); c != configured_.end()) {
         why += " (it is configured in " + c->second.file + " line " + std::to_string(c->second.line) +
                "; change the file and reload)";
      }
      return Ovk::failure(why);
   }
   std::string const result = eraseRuntime(it);
   flush();
   armExpiry();
   return result;
}

bool Origination::runtimeRuleDel(Uuid const& uuid) {
   for (auto it = runtime_.begin(); it != runtime_.end(); ++it) {
      if (it->second.uuid != uuid) continue;
      (void)eraseRuntime(it);
      flush();
      armExpiry();
      return true;
   }
   return false;
}

std::size_t Origination::runtimeRulesDel(AfiSafi family, std::string_view source) {
   std::size_t n = 0;
   for (auto it = runtime_.begin(); it != runtime_.end();) {
      auto const next = std::next(it);
      if (it->second.rule.family == family && it->second.source == source) {
         (void)eraseRuntime(it);
         ++n;
      }
      it = next;
   }
   flush();
   armExpiry();
   return n;
}

bool Origination::hasRuntimeRule(AfiSafi family, std::string_view match) const {
   auto probe = originatedRuleOf(family, match, {"discard"});
   if (!probe) return false;
   auto bound = bind(probe.value());
   return bound && runtime_.count({static_cast<std::uint16_t>(family.afi()), bound.value().nlri}) != 0;
}

std::optional<Origination::RuntimeInfo> Origination::runtimeInfo(AfiSafi family, RouteKey const& key) const {
   if (runtime_.empty()) return std::nullopt;
   Ovk::String const nlri = key.serialize(RouteKey::SerializeOperation::advertise, nullptr);
   auto const it = runtime_.find({static_cast<std::uint16_t>(family.afi()),
                                  std::vector<std::uint8_t>(nlri.span().begin(), nlri.span().end())});
   if (it == runtime_.end() || !it->second.inRib) return std::nullopt;
   return RuntimeInfo{it->second.source, it->second.uuid, it->second.added};
}

void Origination::armExpiry() {
   Ovk::TaskScheduler& scheduler = *context_->taskScheduler();
   if (expiries_.empty() || (expiryTask_ && expiryArmedFor_ != expiries_.begin()->first)) {
      if (expiryTask_) scheduler.cancel(*expiryTask_);
      expiryTask_.reset();
   }
   if (expiries_.empty() || expiryTask_) return;
   expiryArmedFor_ = expiries_.begin()->first;
   auto const delay = std::max(Ovk::Duration::zero(), expiryArmedFor_ - scheduler.now());
   expiryTask_ = scheduler.postAfter(delay, [this] {
      expiryTask_.reset();
      expireDue();
   }, "rule lifetimes");
}

void Origination::expireDue() {
   Ovk::Clock::time_point const now = context_->taskScheduler()->now();
   std::vector<std::string> gone;
   while (!expiries_.empty() && expiries_.begin()->first <= now) {
      auto const it = runtime_.find(expiries_.begin()->second);
      if (it == runtime_.end()) {
         expiries_.erase(expiries_.begin());
         continue;
      }
      gone.push_back(familyName(it->second.rule.family) + " " + it->second.rule.match);
      (void)eraseRuntime(it);
      ++expired_;
   }
   flush();
   armExpiry();
   if (onExpired_) {
      for (auto const& g : gone) onExpired_(g);
   }
}

std::map<std::string, std::size_t> Origination::runtimeBySource() const {
   std::map<std::string, std::size_t> n;
   for (auto const& [id, e] : runtime_) ++n[e.source];
   return n;
}

std::size_t Origination::inForce() const {
   std::size_t n = 0;
   for (auto const* rules : {&runtime_, &configured_}) {
      for (auto const& [id, e] : *rules) n += e.inRib ? 1u : 0u;
   }
   return n;
}

nlohmann::json Origination::listJson() const {
   Ovk::Ptr<Flowspec::RuleSet> const fsib = entityManager_ ? Mnemo::fsibOf(*entityManager_) : nullptr;
   nlohmann::json rules = nlohmann::json::array();
   auto add = [&](Entry const& e, bool configured) {
      bool best = false;
      if (e.inRib) {
         if (auto const t = Plugin::defaultVrfRibTable(*context_, e.rule.family)) {
            auto const b = t->bestPath(*e.bound.key);
            best = b && b->source == kLocalRibSource;
         }
      }
      bool inFsib = false;
      if (fsib && best) {
         Flowspec::FlowspecSlateKey slate;
         slate.copyInFlowspecKey(e.rule.key);
         inFsib = fsib->rule(slate).has_value();
      }
      nlohmann::json r = {{"family", familyName(e.rule.family)},
                          {"match", e.rule.match},
                          {"actions", e.rule.actions},
                          {"nlri", Ovk::hexOf(e.bound.nlri)},
                          {"source", configured ? std::string("config") : e.source},
                          {"inForce", e.inRib},
                          {"best", best},
                          {"fsib", inFsib}};
      if (configured) {
         r["file"] = e.file;
         r["line"] = e.line;
      }
      if (!e.client.empty()) r["client"] = e.client;
      if (e.expires) {
         auto const left = *e.expires - context_->taskScheduler()->now();
         r["expiresIn"] = std::max<std::int64_t>(0, std::chrono::ceil<std::chrono::seconds>(left).count());
      }
      rules.push_back(std::move(r));
   };
   for (auto const& [id, e] : configured_) add(e, true);
   for (auto const& [id, e] : runtime_) add(e, false);
   return {{"rules", rules}};
}

} // namespace Flowspecd
