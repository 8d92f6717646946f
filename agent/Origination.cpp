#include "agent/Origination.h"

#include "host/flowspec/FlowspecSlateKey.h"
#include "host/mnemo/SlateRuleSetMount.h"
#include "host/fwk/String.h"

namespace Flowspecd {

namespace {

// An UPDATE with nothing in it: decoding it lets the decoder drop the keys of the last one.
std::vector<std::uint8_t> const& emptyUpdate() {
   static std::vector<std::uint8_t> const m{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                                            0xff, 0xff, 0xff, 0xff, 0,    23,   2,    0,    0,    0,    0};
   return m;
}

} // namespace

Origination::Origination(Ovk::Ptr<Plugin::Context> context, Ovk::Ptr<Mnemo::EntityManager> entityManager)
    : context_(std::move(context)), entityManager_(std::move(entityManager)) {
   OVK_ASSERT(context_);
   BgpVrfIdBase const vrf = BgpL3VrfId::defaultVrfId();
   // The agent's own rules read like an internal peer's UPDATEs with 4-octet AS numbers.
   BgpUpdateDecoder::Options options;
   options.fourOctetAs = true;
   options.externalPeer = false;
   decoder_ = std::make_unique<BgpUpdateDecoder>(
       Ovk::makePtr<BgpParseContext>(context_->dedupTablesVrf(vrf), "originated"), options);
   for (AfiSafi const family : {kIpv4Flowspec, kIpv6Flowspec}) {
      if (context_->afiSafiTable()->helpers(family)) {
         decoder_->ruleCollectionsIs(context_->parseRuleCollections(family), {});
      }
   }
   attributes_ = std::make_unique<PathAttributesBuilder>(context_->rtAttrDedupTable(), context_->coreDedupTables(),
                                                         context_->parseExtCommRuleCollections());
}

Origination::~Origination() {
   for (auto* rules : {&runtime_, &configured_}) {
      for (auto& [id, e] : *rules) uninstall(e);
   }
   flush();
}

Origination::RuleId Origination::idOf(OriginatedRule const& r) {
   return {static_cast<std::uint16_t>(r.family.afi()), r.nlri};
}

Ovk::Ptr<RibTable> Origination::table(AfiSafi family) const {
   auto const& vrfs = context_->allVrfInstanceStatus();
   auto const it = vrfs.find(BgpL3VrfId::defaultVrfId());
   return it == vrfs.end() ? nullptr : Plugin::getBribTable(*context_, *it->second, family);
}

bool Origination::install(Entry& e) {
   Ovk::Ptr<RibTable> const t = table(e.rule.family);
   if (!t) return false;
   std::vector<std::uint8_t> const message = originationUpdate(e.rule);
   BgpParsedUpdate const& u = decoder_->decode(message);
   bool ok = u.action == BgpUpdateAction::accept && u.nlri.size() == 1 && u.nlri[0].routeKey;
   if (ok) {
      e.key = u.nlri[0].routeKey;
      e.attrs = attributes_->rtAttrOf(*u.attributes);
      t->pathIs(*e.key, kLocalRibSource, e.attrs);
   }
   // The decoder's result holds the key until the next message.
   (void)decoder_->decode(emptyUpdate());
   return ok;
}

void Origination::uninstall(Entry& e) {
   if (!e.key) return;
   if (Ovk::Ptr<RibTable> const t = table(e.rule.family)) {
      // Only the agent's path of this entry: a path another entry put there stays.
      auto const path = t->path(*e.key, kLocalRibSource);
      if (path && path->attrs == e.attrs.ptr()) t->pathDel(*e.key, kLocalRibSource);
   }
   e.key = nullptr;
   e.attrs = nullptr;
}

Origination::Entry* Origination::winner(RuleId const& id) {
   if (auto it = runtime_.find(id); it != runtime_.end()) return &it->second;
   if (auto it = configured_.find(id); it != configured_.end()) return &it->second;
   return nullptr;
}

void Origination::flush() {
   for (AfiSafi const family : {kIpv4Flowspec, kIpv6Flowspec}) {
      if (auto t = table(family); t && t->pendingChanges()) t->flushChanges();
   }
}

Origination::Diff Origination::configuredRulesIs(std::vector<RuleConfig> const& rules, std::string const& file) {
   Diff diff;
   std::map<RuleId, Entry> next;
   for (RuleConfig const& r : rules) {
      RuleId const id = idOf(r.rule);
      Entry e{r.rule, file, r.line, nullptr, nullptr};
      auto const old = configured_.find(id);
      if (old == configured_.end()) {
         ++diff.added;
      } else if (old->second.rule.communities == r.rule.communities) {
         ++diff.kept;
         e.key = std::move(old->second.key);
         e.attrs = std::move(old->second.attrs);
      } else {
         ++diff.changed;
      }
      next.emplace(id, std::move(e));
   }
   // Gone and changed rules leave the RIB first.
   for (auto& [id, e] : configured_) {
      auto const it = next.find(id);
      if (it == next.end()) ++diff.withdrawn;
      if (it == next.end() || !it->second.key) uninstall(e);
   }
   configured_ = std::move(next);
   // A run-time rule of the same match stays in force over the configured one.
   for (auto& [id, e] : configured_) {
      if (!e.key && !runtime_.count(id)) install(e);
   }
   flush();
   return diff;
}

Ovk::Result<std::string, std::string> Origination::runtimeRuleIs(OriginatedRule rule) {
   if (!table(rule.family)) return Ovk::failure("no plugin serves " + familyName(rule.family));
   RuleId const id = idOf(rule);
   Entry e{std::move(rule), "", 0, nullptr, nullptr};
   bool const replacing = runtime_.count(id) != 0;
   if (!install(e)) {
      return Ovk::failure(std::string("the flowspec plugin refused the rule's NLRI"));
   }
   // The new path replaced the agent's path of the key: the entry that held it lets it go.
   if (Entry* held = winner(id)) {
      held->key = nullptr;
      held->attrs = nullptr;
   }
   runtime_[id] = std::move(e);
   flush();
   return std::string(replacing ? "replaced" : "added");
}

Ovk::Result<std::string, std::string> Origination::runtimeRuleDel(AfiSafi family, std::string_view match) {
   OriginatedRule probe;
   probe.family = family;
   probe.key.afIs(family == kIpv4Flowspec ? Ovnet::AddressFamily::ipv4 : Ovnet::AddressFamily::ipv6);
   std::string whyNot;
   if (!probe.key.copyInStrCli(match, &whyNot)) return Ovk::failure("match: " + whyNot);
   auto nlri = nlriOf(family, probe.key);
   if (!nlri) return Ovk::failure("match: " + nlri.reason());
   probe.nlri = std::move(nlri.value());
   RuleId const id = idOf(probe);
   auto const it = runtime_.find(id);
   if (it == runtime_.end()) {
      std::string why = "no rule " + familyName(family) + " " + probe.key.toStrepCli() + " was added at run time";
      if (auto c = configured_.find(id); c != configured_.end()) {
         why += " (it is configured in " + c->second.file + " line " + std::to_string(c->second.line) +
                "; change the file and reload)";
      }
      return Ovk::failure(why);
   }
   uninstall(it->second);
   runtime_.erase(it);
   std::string result = "deleted";
   if (auto c = configured_.find(id); c != configured_.end() && install(c->second)) {
      result = "deleted; the configured rule of line " + std::to_string(c->second.line) + " is in force again";
   }
   flush();
   return result;
}

std::size_t Origination::inForce() const {
   std::size_t n = 0;
   for (auto const* rules : {&runtime_, &configured_}) {
      for (auto const& [id, e] : *rules) n += e.key ? 1u : 0u;
   }
   return n;
}

nlohmann::json Origination::listJson() const {
   Ovk::Ptr<Flowspec::RuleSet> const fsib = entityManager_ ? Mnemo::fsibOf(*entityManager_) : nullptr;
   nlohmann::json rules = nlohmann::json::array();
   auto add = [&](Entry const& e, bool configured) {
      bool best = false;
      if (e.key) {
         if (auto const t = table(e.rule.family)) {
            auto const b = t->bestPath(*e.key);
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
                          {"nlri", Ovk::hexOf(e.rule.nlri)},
                          {"source", configured ? "config" : "cli"},
                          {"inForce", static_cast<bool>(e.key)},
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
