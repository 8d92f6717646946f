#include "host/bgp/AdjRibin.h"

#include <algorithm>

#include "host/fwk/Assert.h"

namespace Routing::Bgp {

char const* toStrep(AdjRibinType type) {
   switch (type) {
   case AdjRibinType::received: return "received";
   }
   return "?";
}

void BgpAfiSafiDedupTablesAllVrf::dedupTablesVrfAfiSafiIs(AfiSafi afiSafi, BgpVrfIdBase vrfId,
                                                          Ovk::Ptr<RouteKeyDedupTableBase> routeKeyTable,
                                                          Ovk::Ptr<GenNexthopDedupTableBase> nexthopTable) {
   auto tables = Ovk::makePtr<DedupTablesVrfAfiSafi>(afiSafi, std::move(routeKeyTable), std::move(nexthopTable));
   tables_[vrfId] = tables;
   if (listener_) listener_(vrfId, tables);
}

void BgpAfiSafiDedupTablesAllVrf::dedupTablesVrfAfiSafiDel(BgpVrfIdBase vrfId) {
   tables_.erase(vrfId);
   if (listener_) listener_(vrfId, nullptr);
}

Ovk::Ptr<DedupTablesVrfAfiSafi> BgpAfiSafiDedupTablesAllVrf::dedupTablesVrfAfiSafi(BgpVrfIdBase vrfId) const {
   auto const it = tables_.find(vrfId);
   return it == tables_.end() ? nullptr : it->second;
}

AdjRibin::AdjRibin(AdjRibinType type, NlriType nlriType, BgpInstanceEpoch epoch,
                   Ovk::Ptr<BgpInputDedupTables const> inputTables,
                   Ovk::Ptr<BgpInputAfiSafiAttributeModificationPluginBase const> attributeModification)
    : type_(type), nlriType_(nlriType), epoch_(epoch), inputTables_(std::move(inputTables)),
      attributeModification_(std::move(attributeModification)) {}

AdjRibin::~AdjRibin() {
   if (validation_) validation_->ribinDel(this);
}

void AdjRibin::forgetRule(RouteKey const& key) {
   if (!validation_) return;
   validation_->ruleDel(key, this);
   if (!infeasible_.empty()) infeasible_.erase(&key);
}

AdjRibin::Announced AdjRibin::announce(BgpParseNlriResults const& nlri, Ovk::Ptr<RtAttr const> const& attrs) {
   OVK_ASSERT(ribTable_);
   AdjRibinPath const path =
       instantiateRibinPathFromNlriResults(PathKey{nlri.routeKey.ptr(), source_, nlri.pathId}, attrs, nlri);
   if (!path.routeKey || !path.attrs) return Announced::noPath;
   if (control_) {
      if (auto const refused = importCheck(*path.routeKey, path.attrs)) {
         forgetRule(*path.routeKey);
         return *refused;
      }
   }
   if (validation_) {
      RouteKey const& key = *path.routeKey;
      validation_->ruleIs(key, this);
      if (std::optional<ImportRefusal> const why = validation_->judge(key, path.attrs->contents(), source_)) {
         // The announcement replaces what the session had of the rule: infeasible, it waits
         // aside for the unicast route that makes it feasible.
         if (ribTable_->pathDel(key, source_)) ++counters_.withdrawn;
         ++counters_.refused[static_cast<std::size_t>(*why)];
         infeasible_[&key] = Refused{Ovk::Ptr<RouteKey const>(&key), path.attrs, *why};
         return Announced::refused;
      }
      if (!infeasible_.empty()) infeasible_.erase(&key);
   }
   ribTable_->pathIs(*path.routeKey, path.source, path.attrs);
   ++counters_.announced;
   if (control_) imported(*path.routeKey);
   return Announced::path;
}

bool AdjRibin::withdraw(RouteKey const& key) {
   OVK_ASSERT(ribTable_);
   if (!ribTable_->pathDel(key, source_)) {
      if (!infeasible_.empty() && infeasible_.contains(&key)) {
         forgetRule(key);
         return false;
      }
      if (!refused_.empty() && refused_.erase(&key) != 0) return false;
      ++counters_.unknownWithdrawals;
      return false;
   }
   ++counters_.withdrawn;
   forgetRule(key);
   return true;
}

void AdjRibin::validationIs(Ovk::Ptr<RuleValidation> validation) {
   if (validation == validation_) return;
   if (validation_) validation_->ribinDel(this);
   std::unordered_map<RouteKey const*, Refused> kept = std::move(infeasible_);
   infeasible_.clear();
   validation_ = std::move(validation);
   for (auto& [key, r] : kept) {
      if (validation_) {
         validation_->ruleIs(*key, this);
         if (std::optional<ImportRefusal> const why = validation_->judge(*key, r.attrs->contents(), source_)) {
            r.reason = *why;
            infeasible_.emplace(key, std::move(r));
            continue;
         }
      }
      ribTable_->pathIs(*key, source_, r.attrs);
      ++counters_.becameFeasible;
   }
}

void AdjRibin::revalidate(RouteKey const& rule) {
   OVK_ASSERT(validation_);
   // Held here: leaving the RIB may drop the RIB's reference to the key.
   Ovk::Ptr<RouteKey const> const hold(&rule);
   if (auto const it = infeasible_.find(&rule); it != infeasible_.end()) {
      std::optional<ImportRefusal> const why = validation_->judge(rule, it->second.attrs->contents(), source_);
      if (why) {
         it->second.reason = *why;
         return;
      }
      Ovk::Ptr<RtAttr const> const attrs = std::move(it->second.attrs);
      infeasible_.erase(it);
      ribTable_->pathIs(rule, source_, attrs);
      ++counters_.becameFeasible;
      return;
   }
   std::optional<RibPath> const path = ribTable_->path(rule, source_);
   if (!path) return;
   std::optional<ImportRefusal> const why = validation_->judge(rule, path->contents(), source_);
   if (!why) return;
   Ovk::Ptr<RtAttr const> const attrs(path->attrs);
   ribTable_->pathDel(rule, source_);
   ++counters_.refused[static_cast<std::size_t>(*why)];
   ++counters_.becameInfeasible;
   infeasible_[&rule] = Refused{hold, attrs, *why};
}

void AdjRibin::importControlIs(Ovk::Ptr<ImportControl const> control) {
   control_ = std::move(control);
   lastAttrs_ = nullptr;
   lastActionRefusal_.reset();
   // What is kept aside shows the refusals of the policy in force: those it would not make
   // go (the peer's routes come again through import), the others take its reason.
   ImportPolicy const* const policy = control_ ? control_->policy.ptr() : nullptr;
   for (auto it = refused_.begin(); it != refused_.end();) {
      std::optional<ImportRefusal> why = policy ? policy->destinationRefusal(*it->second.key) : std::nullopt;
      if (policy && !why) why = policy->actionRefusal(it->second.attrs->contents());
      if (!why) {
         it = refused_.erase(it);
         continue;
      }
      it->second.reason = *why;
      ++it;
   }
}

std::optional<ImportRefusal> AdjRibin::actionRefusal(Ovk::Ptr<RtAttr const> const& attrs) {
   if (attrs != lastAttrs_) {
      lastAttrs_ = attrs;
      lastActionRefusal_ = control_->policy->actionRefusal(attrs->contents());
   }
   return lastActionRefusal_;
}

std::optional<AdjRibin::Announced> AdjRibin::importCheck(RouteKey const& key, Ovk::Ptr<RtAttr const> const& attrs) {
   ImportControl const& c = *control_;
   if (c.policy) {
      std::optional<ImportRefusal> why = c.policy->destinationRefusal(key);
      if (!why && c.policy->checksActions()) why = actionRefusal(attrs);
      if (why) {
         // The announcement replaces what the session had of the key: refused, it leaves none.
         if (ribTable_->pathDel(key, source_)) ++counters_.withdrawn;
         noteRefusal(key, attrs, *why, true);
         return Announced::refused;
      }
   }
   RuleLimit const* const global = c.global && c.global->limit() ? &*c.global->limit() : nullptr;
   // Limits count rules: a path that replaces the session's own for the key takes no room.
   if ((!c.limit && !global) || ribTable_->path(key, source_)) return std::nullopt;
   if (c.limit) {
      RuleLimit const& limit = *c.limit;
      std::uint64_t const held = ribTable_->pathsOf(source_);
      bool const warningOnly = limit.action == RuleLimitAction::warning;
      // Each crossing is heard once: the mark clears when the count is back under.
      if (limitReached_ && held < limit.maxRules + (warningOnly ? 1u : 0u)) limitReached_ = false;
      if (aboveWarning_ && held < limit.warningAt()) aboveWarning_ = false;
      if (held >= limit.maxRules) {
         switch (limit.action) {
         case RuleLimitAction::teardown:
            ++counters_.limitExceeded;
            hear(LimitEvent::Kind::teardown, held, limit);
            return Announced::teardown;
         case RuleLimitAction::discard:
            if (!limitReached_) {
               limitReached_ = true;
               ++counters_.limitExceeded;
               hear(LimitEvent::Kind::exceeded, held, limit);
            }
            // Past a discard limit nothing of the route stays: a peer that sends ten times
            // its limit costs the limit's worth of rules.
            noteRefusal(key, attrs, ImportRefusal::ruleLimit, false);
            return Announced::refused;
         case RuleLimitAction::warning:
            if (!limitReached_) {
               limitReached_ = true;
               ++counters_.limitExceeded;
               hear(LimitEvent::Kind::exceeded, held + 1, limit);
            }
            break;
         }
      }
   }
   if (global) {
      std::uint64_t const held = c.global->held();
      if (c.global->reached && held < global->maxRules) c.global->reached = false;
      if (c.global->aboveWarning && held < global->warningAt()) c.global->aboveWarning = false;
      if (held >= global->maxRules) {
         if (!c.global->reached) {
            c.global->reached = true;
            hear(LimitEvent::Kind::globalReached, held, *global);
         }
         noteRefusal(key, attrs, ImportRefusal::globalRuleLimit, false);
         return Announced::refused;
      }
   }
   return std::nullopt;
}

void AdjRibin::imported(RouteKey const& key) {
   if (!refused_.empty()) refused_.erase(&key);
   ImportControl const& c = *control_;
   if (c.limit && !aboveWarning_) {
      std::uint64_t const held = ribTable_->pathsOf(source_);
      if (held >= c.limit->warningAt()) {
         aboveWarning_ = true;
         ++counters_.limitWarnings;
         hear(LimitEvent::Kind::warning, held, *c.limit);
      }
   }
   if (c.global && c.global->limit() && !c.global->aboveWarning) {
      std::uint64_t const held = c.global->held();
      if (held >= c.global->limit()->warningAt()) {
         c.global->aboveWarning = true;
         hear(LimitEvent::Kind::globalWarning, held, *c.global->limit());
      }
   }
}

void AdjRibin::noteRefusal(RouteKey const& key, Ovk::Ptr<RtAttr const> attrs, ImportRefusal why, bool keep) {
   ++counters_.refused[static_cast<std::size_t>(why)];
   auto const kept = refused_.find(&key);
   if (keep && (kept != refused_.end() || refused_.size() < kRefusedKept)) {
      refused_[&key] = Refused{Ovk::Ptr<RouteKey const>(&key), std::move(attrs), why};
      return;
   }
   if (kept != refused_.end()) refused_.erase(kept);
   if (keep) ++refusedNotKept_;
}

void AdjRibin::hear(LimitEvent::Kind kind, std::uint64_t held, RuleLimit const& limit) const {
   if (control_->heard) control_->heard(LimitEvent{kind, ribTable_->afiSafi(), held, limit});
}

std::size_t AdjRibin::reimportSome(Ovk::Ptr<RouteKey const>& cursor, std::size_t budget) {
   OVK_ASSERT(ribTable_);
   ImportPolicy const* const policy = control_ ? control_->policy.ptr() : nullptr;
   if (!policy && !validation_) {
      cursor = nullptr;
      return 0;
   }
   return ribTable_->pathDelSome(source_, cursor, budget, [&](RouteKey const& key, RibPath const& path) {
      std::optional<ImportRefusal> why = policy ? policy->destinationRefusal(key) : std::nullopt;
      if (!why && policy) why = policy->actionRefusal(path.contents());
      if (why) {
         forgetRule(key);
         noteRefusal(key, Ovk::Ptr<RtAttr const>(path.attrs), *why, true);
         return true;
      }
      if (!validation_) return false;
      validation_->ruleIs(key, this);
      why = validation_->judge(key, path.contents(), source_);
      if (!why) return false;
      ++counters_.refused[static_cast<std::size_t>(*why)];
      infeasible_[&key] = Refused{Ovk::Ptr<RouteKey const>(&key), Ovk::Ptr<RtAttr const>(path.attrs), *why};
      return true;
   });
}

std::vector<AdjRibin::Refused> AdjRibin::refused() const {
   std::vector<Refused> all;
   all.reserve(refused_.size() + infeasible_.size());
   for (auto const& [key, r] : refused_) all.push_back(r);
   for (auto const& [key, r] : infeasible_) all.push_back(r);
   // The family's order; keys it holds equal keep an order of their own.
   std::sort(all.begin(), all.end(), [](Refused const& a, Refused const& b) {
      int const c = a.key->orderCompare(*b.key);
      return c != 0 ? c < 0 : a.key.ptr() < b.key.ptr();
   });
   return all;
}

void AdjRibinCollection::adjRibinIs(Ovk::Ptr<AdjRibin> const& adjRibin) { adjRibins_[adjRibin->nlriType()] = adjRibin; }

Ovk::Ptr<AdjRibin> AdjRibinCollection::adjRibin(NlriType nlriType) const {
   auto const it = adjRibins_.find(nlriType);
   return it == adjRibins_.end() ? nullptr : it->second;
}

} // namespace Routing::Bgp
