// The nftables table that mirrors the FSIB, kept equal to it one transaction at a time.
//
// Layout (family inet, table NAME):
//   set   rule_counts   one element per FSIB rule (a constant key), each with its counter;
//                       a rule's nftables rules count into it, so the count survives the
//                       rule's block being rebuilt
//   chain HOOK          base chain at the hook: `[iifname { IFS }] jump rules`
//   chain rules         for each block in precedence order `jump bN`; a run of consecutive
//                       blocks whose rules all have destination prefixes of one family and
//                       whose destination ranges do not overlap is one rule instead,
//                       `ip daddr vmap @dN` (map dN: `LOW-HIGH : jump bK` per block), so a
//                       packet meets only the block its destination can match
//   chain bN            a block: up to 2 * blockSize consecutive FSIB rules, first a guard
//                       (`ip daddr != LOW-HIGH return`) when all of them have destination
//                       prefixes of one family and the block is not in a map, then the
//                       rules' nftables rules
// and, for copy redirects, tables `ip NAME` and `ip6 NAME` with a base chain one
// priority later, chain `copies`, that copies marked packets (`meta mark M dup to ADDRESS`), since the kernel
// offers `dup` only to those families.
//
// Why blocks: libnftables reads the kernel's tables, chains, sets and objects before every
// command, and inserting at a position makes it read every rule too. A change rewrites
// only the blocks it touches (`flush chain bN` and its rules, appended), which needs no
// rule positions; a block that grows past twice the block size splits, neighbours that fit
// in one block merge, and only then is the short `rules` chain rewritten. The guards let
// a packet skip whole blocks whose destinations it cannot match.
//
// The first apply (and any apply after a failure nft does not tie to a rule) replaces all
// three tables in one transaction (`add table; delete table; add table ...`), so a table of
// that name from before is gone and a packet sees either the old or the new one.
//
// An nftables error on a line of a rule marks that FSIB rule not installed with nft's
// message, and the batch is built again without it, until it commits.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "fwd/Backend.h"
#include "fwd/Nft.h"
#include "fwd/PolicyRoutes.h"
#include "fwd/RuleCompiler.h"
#include "host/flowspec/Rule.h"

namespace Fwd {

struct TableConfig {
   std::string name = "flowspec";
   int priority = -300;                  // of the base chain
   std::vector<std::string> interfaces;  // empty: every interface
   CompileConfig compile;                // the hook is compile.hook
   std::uint32_t markBase = 0x46530000;  // redirect target i gets mark markBase + i
   std::uint32_t routeTableBase = 20000; // redirect-to-address target i gets table routeTableBase + i
   std::size_t blockSize = 48;
   std::uint32_t counterSetSize = 65536;
};

class FwdTable : public Backend {
 public:
   // `routes` may be null when no rule redirects (tests); a redirecting rule then fails.
   FwdTable(TableConfig cfg, Nft& nft, PolicyRoutes* routes);
   ~FwdTable() override;

   TableConfig const& config() const { return cfg_; }

   // Makes the kernel's tables hold exactly `rules` (any order, distinct keys). Rules that
   // cannot be installed are left out and say why in statuses().
   ApplyReport apply(std::vector<Flowspec::Rule> const& rules) override;
   // One change: only the blocks the rules fall in are rewritten, in one transaction.
   ApplyReport change(std::vector<Flowspec::Rule> const& upserts,
                      std::vector<Flowspec::FlowspecSlateKey> const& removed) override;
   std::string describe() const override { return "table inet " + cfg_.name; }
   std::string dataplane() const override { return "inet " + cfg_.name; }
   // Every rule of the last apply, in precedence order.
   std::vector<RuleStatus> statuses() const override;
   std::size_t programmedRules() const override;
   std::size_t blockCount() const { return blocks_.size(); }
   // Deletes the tables and the policy routing this table programmed.
   void remove() override;

 private:
   struct Entry;
   struct Block;
   struct Target;
   using Key = Flowspec::FlowspecSlateKey;

   void upsert(Flowspec::Rule const& r, ApplyReport& rep);
   void erase(Flowspec::FlowspecSlateKey const& key, ApplyReport& rep);
   ApplyReport transact(ApplyReport rep, std::chrono::steady_clock::time_point start);
   void release(Entry& e);
   void compile(Entry& e);
   void place(Entry& e);
   void unplace(Entry& e);
   void normalizeBlocks();
   bool programTargets();
   std::string buildBatch(bool full, std::vector<std::vector<Entry*>>& owners);
   void blockLines(Block const& b, bool guard, std::string& batch, std::vector<std::vector<Entry*>>& owners);
   struct Hull {
      Ovnet::AddressFamily af = Ovnet::AddressFamily::unspecified;
      std::size_t size = 0;
      std::array<std::uint8_t, 16> lo{};
      std::array<std::uint8_t, 16> hi{};
      std::string range() const; // "LOW-HIGH", or the one address
   };
   struct TopItem {
      Ovnet::AddressFamily af = Ovnet::AddressFamily::unspecified;
      std::vector<Block*> blocks;      // one: a jump; more: a verdict map on the destination
      std::vector<std::string> ranges; // each block's destination range
   };
   std::optional<Hull> hullOf(Block const& b) const;
   std::vector<TopItem> topItems() const;
   void commit();
   void finishTargets();
   std::uint32_t markOf(Target const& t) const;

   TableConfig cfg_;
   Nft& nft_;
   PolicyRoutes* routes_;
   // Keys hash by their words with the standard library's string hash, several times faster
   // than the key's own byte-at-a-time hash (a change looks up every rule of the FSIB).
   struct KeyHash {
      std::size_t operator()(Key const& k) const noexcept;
   };
   std::unordered_map<Key, std::unique_ptr<Entry>, KeyHash> entries_;
   std::uint64_t applySerial_ = 0;
   std::vector<std::unique_ptr<Block>> blocks_;
   std::vector<std::uint32_t> deadBlocks_; // chains to delete in the next batch
   bool topDirty_ = false;
   std::string topSig_;                               // the top chain as last committed
   std::map<std::string, std::string> mapElements_;   // verdict maps as last committed
   std::string pendingSig_;
   std::map<std::string, std::string> pendingMaps_;
   bool needFull_ = true;
   std::string tableError_; // why the last full replace failed
   std::map<RedirectTarget, std::unique_ptr<Target>> targets_;
   bool dupDirty_ = false;
   std::vector<std::uint32_t> freeTargetIndex_;
   std::uint32_t nextTargetIndex_ = 1;
   std::uint32_t nextBlockId_ = 1;
   std::uint32_t nextCounterId_ = 1;
   std::vector<std::uint32_t> freeCounterIds_;
   std::vector<std::uint32_t> newCounters_;  // elements to add in the next batch
   std::vector<std::uint32_t> deadCounters_; // elements to delete in the next batch
};

} // namespace Fwd
