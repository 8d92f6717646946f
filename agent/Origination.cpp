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
      Entry e{r.rule, file, r.line, std::move(bound.value()), false};
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

Ovk::Result<std::string, std::string> Origination::runtimeRuleIs(OriginatedRule rule) {
   auto bound = bind(rule);
   if (!bound) return Ovk::failure(bound.reason());
   Entry e{std::move(rule), "", 0, std::move(bound.value()), false};
   RuleId const id = idOf(e);
   bool const replacing = runtime_.count(id) != 0;
   install(e);
   // The new path replaced the agent's path of the key: the entry that held it lets it go.
   if (Entry* held = winner(id)) held->inRib = false;
   runtime_[id] = std::move(e);
   flush();
   return std::string(replacing ? "replaced" : "added");
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
   uninstall(it->second);
   runtime_.erase(it);
   std::string result = "deleted";
   if (auto c = configured_.find(id); c != configured_.end()) {
      install(c->second);
      result = "deleted; the configured rule of line " + std::to_string(c->second.line) + " is in force again";
   }
   flush();
   return result;
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
                          {"source", configured ? "config" : "cli"},
                          {"inForce", e.inRib},
                          {"best", best},
                          {"fsib", inFsib}};
      if (configured) {
         r["file"] = e.file;
         r["line"] = e.line;
      }
      rules.push_back(std::move(r));
   };
   for (auto const& [id, e] : configured_) add(e, true);
   for (auto const& [id, e] : runtime_) add(e, false);
   return {{"rules", rules}};
}

} // namespace Flowspecd
