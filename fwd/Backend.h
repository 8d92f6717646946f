// What the FSIB follower drives: a dataplane that holds the FSIB's rules, with an install
// status and a counter per rule. Two exist: the nftables table (FwdTable.h) and the XDP
// classifier (XdpTable.h).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fwd/RuleCompiler.h"
#include "host/flowspec/Rule.h"

namespace Fwd {

// One FSIB rule's install status.
struct RuleStatus {
   Flowspec::FlowspecSlateKey key;
   bool installed = false;
   std::string reason;          // not installed: why; installed: empty, or "never matches: ..."
   std::uint32_t counterId = 0; // its counter in the dataplane (0: none)
};

struct ApplyReport {
   bool ok = false;   // the dataplane now holds the rules that can be installed
   bool full = false; // the whole dataplane was replaced
   std::size_t added = 0;
   std::size_t removed = 0;
   std::size_t changed = 0;
   std::size_t batchLines = 0; // nftables: lines of the transaction
   unsigned attempts = 0;      // nftables: transactions tried
   double prepareMs = 0;       // diff, compile and batch text / map contents
   double nftMs = 0;           // in libnftables (parse, cache, kernel), or in map syscalls
   std::string error;          // when !ok: what the kernel said that tied to no rule
};

// A rule's status from what the compiler made of it and what the dataplane did with it:
// never matching counts as installed (nothing to program); refused says why; a rule to
// install is installed when programmed and not failed, else says `failure` or
// `notProgrammed`.
inline RuleStatus ruleStatus(Flowspec::FlowspecSlateKey const& key, CompiledRule const& c, std::uint32_t counterId,
                             bool programmed, std::string const& failure, std::string const& notProgrammed) {
   RuleStatus s;
   s.key = key;
   s.counterId = counterId;
   switch (c.kind) {
   case CompiledRule::Kind::neverMatches:
      s.installed = true;
      s.reason = "never matches: " + c.reason;
      break;
   case CompiledRule::Kind::refused: s.reason = c.reason; break;
   case CompiledRule::Kind::install:
      s.installed = failure.empty() && programmed;
      s.reason = !failure.empty() ? failure : programmed ? "" : notProgrammed;
      break;
   }
   return s;
}

class Backend {
 public:
   virtual ~Backend() = default;

   // "table inet NAME", "XDP program NAME": for messages and --show.
   virtual std::string describe() const = 0;
   // "inet NAME", "xdp NAME": the dataplane as the status file and --show name it.
   virtual std::string dataplane() const = 0;
   // Makes the dataplane hold exactly `rules` (any order, distinct keys).
   virtual ApplyReport apply(std::vector<Flowspec::Rule> const& rules) = 0;
   // Applies one change of the FSIB: rules added or replaced, keys deleted (a key in both
   // lists is replaced).
   virtual ApplyReport change(std::vector<Flowspec::Rule> const& upserts,
                              std::vector<Flowspec::FlowspecSlateKey> const& removed) = 0;
   // Every rule known, in precedence order.
   virtual std::vector<RuleStatus> statuses() const = 0;
   virtual std::size_t programmedRules() const = 0;
   // Deletes everything the backend programmed.
   virtual void remove() = 0;
   // Work between changes (sampled packets to log). Cheap when there is none.
   virtual void poll() {}
};

} // namespace Fwd
