#include "fwd/Forwarder.h"

#include <chrono>
#include <ostream>
#include <thread>

#include "fwd/FwdStatus.h"

namespace Fwd {

char const* toStrep(Forwarder::Step s) {
   switch (s) {
   case Forwarder::Step::applied: return "applied";
   case Forwarder::Step::failed: return "failed";
   case Forwarder::Step::unchanged: return "unchanged";
   case Forwarder::Step::noSegment: return "noSegment";
   case Forwarder::Step::refused: return "refused";
   case Forwarder::Step::unsettled: return "unsettled";
   case Forwarder::Step::holding: return "holding";
   }
   return "?";
}

Forwarder::Forwarder(FollowConfig cfg, Backend& table, std::ostream& log)
    : cfg_(std::move(cfg)), table_(table), log_(log) {}

void Forwarder::say(std::string const& message) {
   if (message == lastMessage_) return;
   lastMessage_ = message;
   log_ << "flowspec-fwd: " << message << std::endl;
}

void Forwarder::writeStatus() {
   if (cfg_.statusFile.empty() && !statusObserver_) return;
   std::string err;
   statusDue_ = false;
   statusWritten_ = std::chrono::steady_clock::now();
   std::vector<RuleStatus> statuses = table_.statuses();
   if (!cfg_.statusFile.empty() && !writeStatusFile(cfg_.statusFile, table_.dataplane(), cfg_.segment,
                                                    appliedGeneration(), statuses, &err, counters_)) {
      say(err);
   }
   if (statusObserver_) statusObserver_(table_.dataplane(), appliedGeneration(), std::move(statuses));
}

ApplyReport Forwarder::handDifference(std::vector<Flowspec::Rule> const& rules,
                                     std::vector<Flowspec::FlowspecSlateKey> gone, bool removeMissing) {
   std::vector<Flowspec::Rule> upserts;
   std::unordered_map<Flowspec::FlowspecSlateKey, bool> present; // key -> new to the dataplane
   for (Flowspec::Rule const& r : rules) {
      auto const it = programmed_.find(r.key);
      present.emplace(r.key, it == programmed_.end());
      if (it != programmed_.end() && it->second == r) {
         ++counters_.unchanged;
         continue;
      }
      upserts.push_back(r);
   }
   if (removeMissing) {
      for (auto const& [key, rule] : programmed_) gone.push_back(key);
   }
   std::vector<Flowspec::FlowspecSlateKey> removed;
   for (Flowspec::FlowspecSlateKey& k : gone) {
      if (present.count(k) || !programmed_.count(k)) continue;
      present.emplace(k, false); // once
      removed.push_back(std::move(k));
   }
   if (upserts.empty() && removed.empty()) {
      ApplyReport nothing;
      nothing.ok = true;
      return nothing;
   }
   ApplyReport const report = table_.change(upserts, removed);
   for (Flowspec::Rule const& r : upserts) {
      if (present.at(r.key)) {
         ++counters_.added;
      } else {
         ++counters_.changed;
      }
      programmed_.insert_or_assign(r.key, r);
   }
   for (Flowspec::FlowspecSlateKey const& k : removed) programmed_.erase(k);
   counters_.removed += removed.size();
   return report;
}

Forwarder::Step Forwarder::step() {
   std::string const left = ": " + table_.describe() + " left as it was";
   if (reader_ && reader_->retired()) reader_.reset(); // the writer made a new segment
   if (!reader_) {
      auto r = Mnemo::SlateRuleSetReader::open(cfg_.segment);
      if (!r) {
         if (r.reason() == Mnemo::SlateError::noSegment) {
            say("waiting for the FSIB segment " + cfg_.segment);
            return Step::noSegment;
         }
         say("refused the FSIB segment " + cfg_.segment + " (" + Mnemo::toStrep(r.reason()) +
             ": not an FSIB of this format version, truncated, or not an FSIB at all)" + left);
         return Step::refused;
      }
      reader_.emplace(std::move(r.value()));
      refusedGeneration_.reset();
      seen_.assign(reader_->capacity(), 0);
      keys_.assign(reader_->capacity(), std::nullopt);
      applied_.reset();
   }
   std::uint64_t const g = reader_->generation();
   if (applied_ == g || refusedGeneration_ == g) return Step::unchanged;
   // Nothing of this process in the dataplane and a writer that rebuilds: whatever an
   // earlier run left stays, and the table is not copied at every poll meanwhile.
   if (!installed_ && !reader_->converged()) {
      if (!counters_.holding) ++counters_.holds;
      counters_.holding = true;
      say("the FSIB's writer is rebuilding it" + left + " until it has converged");
      return Step::holding;
   }
   std::uint64_t const damagedBefore = reader_->stats().damaged;
   auto const t0 = std::chrono::steady_clock::now();
   Mnemo::SlateChanges ch = reader_->changesSince(seen_, 100);
   snapshotMs_ = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
   if (ch.status == Mnemo::SnapshotStatus::unsettled) return Step::unsettled;
   if (ch.changes.empty() && applied_) {
      // The generation moved and no slot did: a flag, or not how the writer changes the
      // table. Every record is read once, so that damage behind unchanged slot words is
      // reported.
      (void)reader_->changesSince(std::vector<std::uint64_t>(seen_.size(), 0), 1);
   }
   if (reader_->stats().damaged != damagedBefore) {
      refusedGeneration_ = ch.generation;
      say("refused generation " + std::to_string(ch.generation) + " of the FSIB segment " + cfg_.segment + ": " +
          std::to_string(reader_->stats().damaged - damagedBefore) + " damaged records" + left);
      return Step::refused;
   }
   if (!installed_ && !ch.converged) return Step::holding; // it started rebuilding meanwhile
   bool const full = !installed_;
   bool const reconcile = !full && ch.converged && (counters_.holding || !applied_.has_value());
   if (reconcile && applied_.has_value()) {
      // The writer converged: the whole FSIB against what the dataplane holds.
      ch = reader_->changesSince(std::vector<std::uint64_t>(seen_.size(), 0), 100);
      if (ch.status == Mnemo::SnapshotStatus::unsettled) return Step::unsettled;
      if (!ch.converged) return Step::holding;
   }
   std::vector<Flowspec::Rule> rules;
   std::vector<Flowspec::FlowspecSlateKey> gone;
   for (Mnemo::SlotChange& c : ch.changes) {
      if (keys_[c.slot]) gone.push_back(*keys_[c.slot]);
      if (c.rule) rules.push_back(*c.rule);
   }
   bool const holding = !ch.converged;
   if (full) {
      lastReport_ = table_.apply(rules);
      programmed_.clear();
      for (Flowspec::Rule const& r : rules) programmed_.insert_or_assign(r.key, r);
      counters_.added += rules.size();
      ++counters_.fullInstalls;
      installed_ = true;
   } else if (holding) {
      // Rules added or changed go in; those missing stay until the writer has converged.
      if (!counters_.holding) {
         ++counters_.holds;
         say("the FSIB's writer is rebuilding it: rules missing from it stay in " + table_.describe() +
             " until it has converged");
      }
      lastReport_ = handDifference(rules, {}, false);
   } else {
      lastReport_ = handDifference(rules, std::move(gone), reconcile);
      if (reconcile && counters_.holding) say("the FSIB's writer has converged: " + table_.describe() + " follows it");
   }
   counters_.holding = holding;
   if (reconcile) {
      seen_.assign(seen_.size(), 0);
      keys_.assign(keys_.size(), std::nullopt);
   }
   for (Mnemo::SlotChange const& c : ch.changes) {
      seen_[c.slot] = c.word;
      keys_[c.slot] = c.rule ? std::optional(c.rule->key) : std::nullopt;
   }
   applied_ = ch.generation;
   if (lastReport_.ok && onApplied_) onApplied_(ch.generation);
   if (reportObserver_) reportObserver_(lastReport_);
   // The full status is rewritten at most every 200 ms while changes stream in.
   statusDue_ = true;
   if (full || reconcile || !lastReport_.ok ||
       std::chrono::steady_clock::now() - statusWritten_ > std::chrono::milliseconds(200))
      writeStatus();
   if (!lastReport_.ok) {
      say(table_.describe() + " refused: " + lastReport_.error);
      return Step::failed;
   }
   if (full || lastReport_.full) {
      std::size_t ruleCount = 0;
      for (std::optional<Flowspec::FlowspecSlateKey> const& k : keys_) ruleCount += k ? 1u : 0u;
      say("generation " + std::to_string(ch.generation) + ": " + std::to_string(ruleCount) + " rules, " +
          std::to_string(table_.programmedRules()) + " programmed");
   }
   return holding ? Step::holding : Step::applied;
}

int Forwarder::run(std::atomic<bool> const& stop) {
   using std::chrono::microseconds;
   unsigned interval = cfg_.pollMinUs;
   while (!stop.load(std::memory_order_relaxed)) {
      Step const s = step();
      table_.poll();
      if (s == Step::applied || s == Step::failed || s == Step::unsettled ||
          (s == Step::holding && installed_)) {
         interval = cfg_.pollMinUs;
      } else {
         if (statusDue_ && std::chrono::steady_clock::now() - statusWritten_ > std::chrono::milliseconds(200))
            writeStatus();
         std::this_thread::sleep_for(microseconds(interval));
         // Waiting for a segment or past a refusal need not be quick.
         unsigned const cap = s == Step::unchanged ? cfg_.pollMaxUs : std::max(cfg_.pollMaxUs, 100000u);
         interval = std::min(cap, std::max(1u, interval * 2));
      }
   }
   return 0;
}

} // namespace Fwd
