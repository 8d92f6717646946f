// Follows the FSIB and keeps a dataplane (Backend.h: XDP or nftables) equal to it.
//
// The FSIB's generation moves on every change, so comparing it with the generation last
// applied misses nothing. The follower polls it: every pollMinUs after a change, the
// interval doubling while nothing changes up to pollMaxUs (each poll is one load from shared
// memory). nftables takes about 10 ms a change, so 1-5 ms polls do; the XDP maps take a
// change in well under a millisecond, so flowspec-fwd polls every 0.1-0.5 ms for them.
//
// Changes are followed as changes: the follower keeps the word of every slot as it applied
// it and the key the slot held; a new generation is read as the slots whose word moved
// (one load per slot, a copy of the changed ones only), within one generation as a
// snapshot is. The first look, and the first after the writer replaced the segment, hands
// the dataplane every rule (a full install); later ones hand it the rules added or
// changed and the keys that left. Only real differences go: the follower keeps every rule
// it handed over, and a rule that left one slot and came back in another, or was written
// again as it was, is not handed over at all.
//
// A writer that restarts empties the FSIB and fills it again, saying so (the segment's
// rebuilding flag, SlateLayout.h). Meanwhile the follower holds: rules added or changed go
// to the dataplane as they come, rules missing from the FSIB stay programmed; when the
// writer says it has converged, the dataplane is made equal to the FSIB by the difference
// alone. A follower that starts while the writer rebuilds (it has handed nothing over yet)
// leaves the dataplane an earlier run left as it is and installs once the writer converged.
//
// A segment that is not an FSIB of this format (another format version, truncated, some
// other object) or whose records are damaged is refused with a message, and the table is
// left as it was. A snapshot the writer kept disturbing is not applied; the next poll
// tries again.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "fwd/Backend.h"
#include "fwd/FwdStatus.h"
#include "host/mnemo/SlateRuleSetReader.h"

namespace Fwd {

struct FollowConfig {
   std::string segment;    // the FSIB's segment name
   std::string statusFile; // empty: none written
   unsigned pollMinUs = 1000; // after a change
   unsigned pollMaxUs = 5000; // the longest pause while nothing changes
};

class Forwarder {
 public:
   enum class Step : std::uint8_t {
      applied,   // a new generation is in the dataplane
      failed,    // the kernel refused the dataplane (message said)
      unchanged, // nothing new
      noSegment, // no FSIB yet
      refused,   // not an FSIB of this format, or damaged: the table is as it was
      unsettled, // the writer kept changing it; try again
      holding,   // the writer rebuilds the FSIB: what it added went in, nothing left
   };

   Forwarder(FollowConfig cfg, Backend& table, std::ostream& log);

   // One look at the FSIB: applies it when its generation moved.
   Step step();
   // Steps until `stop` turns true. Returns 0.
   int run(std::atomic<bool> const& stop);
   // Called after each generation that reached the kernel (benchmarks time changes by it).
   void onAppliedIs(std::function<void(std::uint64_t generation)> f) { onApplied_ = std::move(f); }
   // Called with every install status the follower writes (at most every 200 ms while
   // changes stream in), and with every change's report: the metrics' feed.
   using StatusObserver = std::function<void(std::string const& dataplane, std::uint64_t generation,
                                             std::vector<RuleStatus> statuses)>;
   void statusObserverIs(StatusObserver f) { statusObserver_ = std::move(f); }
   void reportObserverIs(std::function<void(ApplyReport const&)> f) { reportObserver_ = std::move(f); }

   std::uint64_t appliedGeneration() const { return applied_.value_or(0); }
   FollowCounters const& counters() const { return counters_; }
   ApplyReport const& lastReport() const { return lastReport_; }
   double lastSnapshotMs() const { return snapshotMs_; }

 private:
   void say(std::string const& message); // once per distinct message
   void writeStatus();
   // Hands the dataplane what differs between `rules` (each key once) and what it holds; with
   // `removeMissing` false, keys absent from `rules` stay. The rules handed over are kept.
   ApplyReport handDifference(std::vector<Flowspec::Rule> const& rules, std::vector<Flowspec::FlowspecSlateKey> gone,
                              bool removeMissing);

   FollowConfig cfg_;
   Backend& table_;
   std::vector<std::uint64_t> seen_;                            // slot words as applied
   std::vector<std::optional<Flowspec::FlowspecSlateKey>> keys_; // the key each slot held
   // Every rule the dataplane was handed and still holds, by key.
   std::unordered_map<Flowspec::FlowspecSlateKey, Flowspec::Rule> programmed_;
   bool installed_ = false; // the dataplane was handed a full install by this process
   FollowCounters counters_;
   bool statusDue_ = false;
   std::chrono::steady_clock::time_point statusWritten_;
   std::ostream& log_;
   std::optional<Mnemo::SlateRuleSetReader> reader_;
   std::optional<std::uint64_t> applied_;
   std::optional<std::uint64_t> refusedGeneration_;
   ApplyReport lastReport_;
   std::string lastMessage_;
   std::function<void(std::uint64_t)> onApplied_;
   StatusObserver statusObserver_;
   std::function<void(ApplyReport const&)> reportObserver_;
   double snapshotMs_ = 0;
};

char const* toStrep(Forwarder::Step s);

} // namespace Fwd
