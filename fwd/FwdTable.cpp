#include "fwd/FwdTable.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace Fwd {

using Ovnet::AddressFamily;

struct FwdTable::Entry {
   Key const* key = nullptr; // the map's own key
   Flowspec::Rule rule;
   CompiledRule compiled;
   std::uint32_t counterId = 0;
   std::optional<RedirectTarget> target; // held while compiled to redirect
   std::string failure;                  // nftables' or the kernel's refusal
   Block* block = nullptr;
   std::uint64_t seen = 0; // the apply that last found the rule
   bool programmable() const { return compiled.kind == CompiledRule::Kind::install && failure.empty(); }
};

struct FwdTable::Block {
   std::uint32_t id = 0;
   std::vector<Entry*> entries; // in precedence order
   bool dirty = true;           // its chain must be written again
   bool fresh = true;           // its chain does not exist yet
   bool inMap = false;          // reached through a verdict map (no guard of its own)
};

struct FwdTable::Target {
   RedirectTarget t;
   std::uint32_t index = 0;
   unsigned users = 0;
   bool programmed = false;
   std::string error;
};

namespace {

bool keyLess(Flowspec::FlowspecSlateKey const* a, Flowspec::FlowspecSlateKey const* b) {
   return Flowspec::FlowspecSlateKey::cmp(*a, *b) < 0;
}

std::string hex(std::uint32_t v) {
   char buf[16];
   std::snprintf(buf, sizeof buf, "0x%x", v);
   return buf;
}

constexpr char const* counterSet = "rule_counts";
constexpr std::size_t maxIdsPerLine = 1024;
constexpr unsigned maxAttempts = 64;

} // namespace

std::size_t FwdTable::KeyHash::operator()(Key const& k) const noexcept {
   auto const w = k.words();
   return std::hash<std::string_view>{}(std::string_view(reinterpret_cast<char const*>(w.data()), w.size_bytes()));
}

FwdTable::FwdTable(TableConfig cfg, Nft& nft, PolicyRoutes* routes) : cfg_(std::move(cfg)), nft_(nft), routes_(routes) {
   // Rules at our priority with our marks are what an earlier run left: the marks may now
   // mean other tables.
   if (routes_ != nullptr) routes_->clearMarkRules(cfg_.markBase, cfg_.markBase + 0xffff);
}

FwdTable::~FwdTable() = default;

std::uint32_t FwdTable::markOf(Target const& t) const { return cfg_.markBase + t.index; }

void FwdTable::release(Entry& e) {
   unplace(e);
   if (e.target) {
      auto it = targets_.find(*e.target);
      if (it != targets_.end() && it->second->users > 0) --it->second->users;
      e.target.reset();
   }
}

void FwdTable::compile(Entry& e) {
   release(e);
   e.failure.clear();
   e.compiled = compileRule(e.rule, cfg_.compile);
   if (e.compiled.kind == CompiledRule::Kind::install && e.compiled.redirect) {
      auto& t = targets_[*e.compiled.redirect];
      if (!t) {
         t = std::make_unique<Target>();
         t->t = *e.compiled.redirect;
         if (!freeTargetIndex_.empty()) {
            t->index = freeTargetIndex_.back();
            freeTargetIndex_.pop_back();
         } else {
            t->index = nextTargetIndex_++;
         }
      }
      ++t->users;
      e.target = t->t;
      if (!t->error.empty()) e.failure = "redirect to " + t->t.str() + ": " + t->error;
   }
   place(e);
}

void FwdTable::place(Entry& e) {
   if (!e.programmable() || e.block != nullptr || needFull_) return;
   // The first block whose last rule does not sort before this one; else the last block.
   auto it = std::find_if(blocks_.begin(), blocks_.end(), [&e](auto const& b) {
      return !b->entries.empty() && !keyLess(b->entries.back()->key, e.key);
   });
   if (it == blocks_.end()) {
      if (blocks_.empty()) {
         blocks_.push_back(std::make_unique<Block>());
         blocks_.back()->id = nextBlockId_++;
         topDirty_ = true;
      }
      it = std::prev(blocks_.end());
   }
   Block& b = **it;
   auto const at = std::upper_bound(b.entries.begin(), b.entries.end(), &e,
                                    [](Entry const* x, Entry const* y) { return keyLess(x->key, y->key); });
   b.entries.insert(at, &e);
   b.dirty = true;
   e.block = &b;
}

void FwdTable::unplace(Entry& e) {
   if (e.block == nullptr) return;
   auto& v = e.block->entries;
   v.erase(std::find(v.begin(), v.end(), &e));
   e.block->dirty = true;
   e.block = nullptr;
}

void FwdTable::normalizeBlocks() {
   std::size_t const b = std::max<std::size_t>(cfg_.blockSize, 1);
   std::vector<std::unique_ptr<Block>> out;
   auto const retire = [this](Block& blk) {
      if (!blk.fresh) deadBlocks_.push_back(blk.id);
      topDirty_ = true;
   };
   for (auto& blk : blocks_) {
      if (blk->entries.empty()) {
         retire(*blk);
         continue;
      }
      // Merge into the block before when both fit in one.
      if (!out.empty() && out.back()->entries.size() + blk->entries.size() <= b) {
         Block& prev = *out.back();
         for (Entry* e : blk->entries) e->block = &prev;
         prev.entries.insert(prev.entries.end(), blk->entries.begin(), blk->entries.end());
         prev.dirty = true;
         retire(*blk);
         continue;
      }
      out.push_back(std::move(blk));
      // Split a block that grew past twice the size into blocks of the size.
      Block& cur = *out.back();
      if (cur.entries.size() > 2 * b) {
         std::vector<Entry*> rest(cur.entries.begin() + static_cast<std::ptrdiff_t>(b), cur.entries.end());
         cur.entries.resize(b);
         cur.dirty = true;
         for (std::size_t i = 0; i < rest.size(); i += b) {
            auto nb = std::make_unique<Block>();
            nb->id = nextBlockId_++;
            nb->entries.assign(rest.begin() + static_cast<std::ptrdiff_t>(i),
                               rest.begin() + static_cast<std::ptrdiff_t>(std::min(rest.size(), i + b)));
            for (Entry* e : nb->entries) e->block = nb.get();
            out.push_back(std::move(nb));
         }
         topDirty_ = true;
      }
   }
   blocks_ = std::move(out);
}

bool FwdTable::programTargets() {
   bool failed = false;
   for (auto& [rt, t] : targets_) {
      if (t->users == 0 || t->programmed || !t->error.empty()) continue;
      std::string err;
      std::uint32_t const mark = markOf(*t);
      if (t->t.kind == RedirectKind::copy) {
         dupDirty_ = true;
      } else if (routes_ == nullptr) {
         err = "policy routing is not available";
      } else if (t->t.kind == RedirectKind::vrf) {
         err = routes_->addMarkRule(AddressFamily::unspecified, mark, t->t.table);
      } else {
         std::uint32_t const table = cfg_.routeTableBase + t->index;
         err = routes_->setDefaultRoute(t->t.address, table);
         if (!err.empty()) {
            err = "the kernel refused the route via it in table " + std::to_string(table) + ": " + err;
         } else {
            err = routes_->addMarkRule(t->t.address.af(), mark, table);
         }
      }
      if (err.empty()) {
         t->programmed = true;
         continue;
      }
      t->error = err;
      failed = true;
      for (auto& [k, e] : entries_) {
         if (e->target && *e->target == rt) {
            e->failure = "redirect to " + rt.str() + ": " + err;
            unplace(*e);
         }
      }
   }
   return failed;
}

void FwdTable::finishTargets() {
   for (auto it = targets_.begin(); it != targets_.end();) {
      Target& t = *it->second;
      if (t.users > 0) {
         ++it;
         continue;
      }
      if (t.programmed && routes_ != nullptr) {
         if (t.t.kind == RedirectKind::vrf) routes_->delMarkRule(AddressFamily::unspecified, markOf(t), t.t.table);
         if (t.t.kind == RedirectKind::address) {
            routes_->delMarkRule(t.t.address.af(), markOf(t), cfg_.routeTableBase + t.index);
            routes_->delDefaultRoute(t.t.address.af(), cfg_.routeTableBase + t.index);
         }
      }
      freeTargetIndex_.push_back(t.index);
      it = targets_.erase(it);
   }
}

std::optional<FwdTable::Hull> FwdTable::hullOf(Block const& b) const {
   // The lowest and highest destination any rule of the block can match; only when every
   // rule has a destination prefix of one family.
   Hull h;
   for (Entry const* e : b.entries) {
      Flowspec::FlowspecKey const k = e->rule.key.flowspecKey();
      Ovnet::IpGenPrefix const& p = k.destPrefix();
      if (p.isUnset() || p.len() == 0 || (h.af != AddressFamily::unspecified && p.af() != h.af)) return std::nullopt;
      std::array<std::uint8_t, 16> first{};
      std::array<std::uint8_t, 16> last{};
      h.size = p.addr().size();
      for (std::size_t i = 0; i < h.size; ++i) {
         first[i] = p.addr().bytes()[i];
         std::size_t const bitsHere = p.len() >= 8 * (i + 1) ? 8 : p.len() > 8 * i ? p.len() - 8 * i : 0;
         std::uint8_t const host = static_cast<std::uint8_t>(0xffu >> bitsHere);
         last[i] = static_cast<std::uint8_t>(first[i] | host);
      }
      if (h.af == AddressFamily::unspecified || first < h.lo) h.lo = first;
      if (h.af == AddressFamily::unspecified || last > h.hi) h.hi = last;
      h.af = p.af();
   }
   if (h.af == AddressFamily::unspecified) return std::nullopt;
   return h;
}

std::string FwdTable::Hull::range() const {
   auto const addr = [this](std::array<std::uint8_t, 16> const& bytes) {
      return af == AddressFamily::ipv4 ? Ovnet::IpGenAddr::ipv4(std::span<std::uint8_t const, 4>(bytes.data(), 4)).str()
                                       : Ovnet::IpGenAddr::ipv6(std::span<std::uint8_t const, 16>(bytes.data(), 16)).str();
   };
   return lo == hi ? addr(lo) : addr(lo) + "-" + addr(hi);
}

std::vector<FwdTable::TopItem> FwdTable::topItems() const {
   // Consecutive blocks with guards of one family whose ranges do not overlap share one
   // verdict map: a packet's destination picks the only block of them it can match.
   std::vector<TopItem> items;
   std::vector<std::pair<std::array<std::uint8_t, 16>, std::array<std::uint8_t, 16>>> run;
   for (auto const& b : blocks_) {
      std::optional<Hull> const h = hullOf(*b);
      bool joins = false;
      if (h && !items.empty() && items.back().af == h->af) {
         joins = std::none_of(run.begin(), run.end(), [&h](auto const& r) { return !(h->hi < r.first || r.second < h->lo); });
      }
      if (joins) {
         items.back().blocks.push_back(b.get());
         items.back().ranges.push_back(h->range());
      } else {
         items.push_back({h ? h->af : AddressFamily::unspecified, {b.get()}, {h ? h->range() : ""}});
         run.clear();
      }
      if (h) run.emplace_back(h->lo, h->hi);
   }
   return items;
}

void FwdTable::blockLines(Block const& b, bool guard, std::string& batch, std::vector<std::vector<Entry*>>& owners) {
   std::string const chain = "inet " + cfg_.name + " b" + std::to_string(b.id);
   batch += "flush chain " + chain + "\n";
   owners.emplace_back();
   if (std::optional<Hull> const h = guard ? hullOf(b) : std::nullopt) {
      batch += "add rule " + chain + " " + (h->af == AddressFamily::ipv4 ? "ip" : "ip6") + " daddr != " + h->range() +
               " return\n";
      owners.emplace_back();
   }
   for (Entry* e : b.entries) {
      std::uint32_t const mark = e->target ? markOf(*targets_.at(*e->target)) : 0;
      for (std::string const& body : ruleBodies(e->compiled, counterSet, e->counterId, mark)) {
         batch += "add rule " + chain + " " + body + "\n";
         owners.push_back({e});
      }
   }
}

std::string FwdTable::buildBatch(bool full, std::vector<std::vector<Entry*>>& owners) {
   std::string batch;
   std::string const& t = cfg_.name;
   auto const line = [&batch, &owners](std::string const& text) {
      batch += text + "\n";
      owners.emplace_back();
   };
   auto const elements = [&line, &t](char const* verb, std::vector<std::uint32_t> const& ids) {
      for (std::size_t i = 0; i < ids.size(); i += maxIdsPerLine) {
         std::string s = std::string(verb) + " element inet " + t + " " + counterSet + " { ";
         for (std::size_t j = i; j < std::min(ids.size(), i + maxIdsPerLine); ++j)
            s += (j == i ? "" : ", ") + std::to_string(ids[j]);
         line(s + " }");
      }
   };
   char const* const hook = toStrep(cfg_.compile.hook);
   if (full) {
      for (char const* fam : {"inet", "ip", "ip6"}) {
         line(std::string("add table ") + fam + " " + t);
         line(std::string("delete table ") + fam + " " + t);
         line(std::string("add table ") + fam + " " + t);
      }
      line("add set inet " + t + " " + counterSet + " { typeof meta mark; flags dynamic; size " +
           std::to_string(cfg_.counterSetSize) + "; counter; }");
      line("add chain inet " + t + " " + hook + " { type filter hook " + hook + " priority " +
           std::to_string(cfg_.priority) + "; policy accept; }");
      line("add chain inet " + t + " rules");
      std::string ifs;
      for (std::string const& i : cfg_.interfaces) ifs += (ifs.empty() ? "\"" : ", \"") + i + "\"";
      line("add rule inet " + t + " " + hook + (ifs.empty() ? "" : " iifname { " + ifs + " }") + " jump rules");
      for (char const* fam : {"ip", "ip6"}) {
         line(std::string("add chain ") + fam + " " + t + " copies { type filter hook " + hook + " priority " +
              std::to_string(cfg_.priority + 1) + "; policy accept; }");
      }
      std::vector<std::uint32_t> ids;
      for (auto const& [k, e] : entries_) ids.push_back(e->counterId);
      std::sort(ids.begin(), ids.end());
      elements("add", ids);
      topDirty_ = true;
      dupDirty_ = true;
   } else {
      elements("add", newCounters_);
   }
   for (auto const& b : blocks_) {
      if (b->fresh) line("add chain inet " + t + " b" + std::to_string(b->id));
   }
   // The top chain: a jump to each block that stands alone (behind its guard), a verdict map
   // for each run of blocks with disjoint destination ranges.
   std::vector<TopItem> const items = topItems();
   std::string sig;
   std::map<std::string, std::string> maps; // name -> elements
   for (TopItem const& it : items) {
      bool const vmap = it.blocks.size() > 1;
      for (Block* b : it.blocks) {
         if (b->inMap != vmap) b->dirty = true; // its guard comes or goes
         b->inMap = vmap;
      }
      if (!vmap) {
         sig += "j" + std::to_string(it.blocks[0]->id) + " ";
         continue;
      }
      std::string const name = "d" + std::to_string(it.blocks[0]->id);
      sig += "v" + name + (it.af == AddressFamily::ipv4 ? "4 " : "6 ");
      std::string el;
      for (std::size_t i = 0; i < it.blocks.size(); ++i)
         el += (i == 0 ? "" : ", ") + it.ranges[i] + " : jump b" + std::to_string(it.blocks[i]->id);
      maps[name] = std::move(el);
   }
   for (auto const& [name, el] : maps) {
      bool const fresh = full || !mapElements_.contains(name);
      std::string const type = sig.find("v" + name + "4 ") != std::string::npos ? "ipv4_addr" : "ipv6_addr";
      if (fresh) line("add map inet " + t + " " + name + " { type " + type + " : verdict; flags interval; }");
      if (!fresh && mapElements_[name] == el) continue;
      if (!fresh) line("flush map inet " + t + " " + name);
      line("add element inet " + t + " " + name + " { " + el + " }");
   }
   for (auto const& b : blocks_) {
      if (b->dirty || full) blockLines(*b, !b->inMap, batch, owners);
   }
   if (topDirty_ || sig != topSig_ || full) {
      line("flush chain inet " + t + " rules");
      for (TopItem const& it : items) {
         if (it.blocks.size() == 1) {
            line("add rule inet " + t + " rules jump b" + std::to_string(it.blocks[0]->id));
         } else {
            line("add rule inet " + t + " rules " + (it.af == AddressFamily::ipv4 ? "ip" : "ip6") + " daddr vmap @d" +
                 std::to_string(it.blocks[0]->id));
         }
      }
   }
   if (!full) {
      for (auto const& [name, el] : mapElements_) {
         if (!maps.contains(name)) line("delete map inet " + t + " " + name);
      }
   }
   pendingSig_ = sig;
   pendingMaps_ = std::move(maps);
   if (!full) {
      for (std::uint32_t id : deadBlocks_) {
         line("flush chain inet " + t + " b" + std::to_string(id));
         line("delete chain inet " + t + " b" + std::to_string(id));
      }
      elements("delete", deadCounters_);
   }
   if (dupDirty_) {
      for (char const* fam : {"ip", "ip6"}) {
         AddressFamily const af = std::strcmp(fam, "ip") == 0 ? AddressFamily::ipv4 : AddressFamily::ipv6;
         line(std::string("flush chain ") + fam + " " + t + " copies");
         for (auto const& [rt, tg] : targets_) {
            if (rt.kind != RedirectKind::copy || tg->users == 0 || rt.address.af() != af) continue;
            batch += std::string("add rule ") + fam + " " + t + " copies meta mark " + hex(markOf(*tg)) + " dup to " +
                     rt.address.str() + "\n";
            std::vector<Entry*> users;
            for (auto const& [k, e] : entries_) {
               if (e->target == rt && e->block != nullptr) users.push_back(e.get());
            }
            owners.push_back(std::move(users));
         }
      }
   }
   return batch;
}

void FwdTable::commit() {
   for (auto& b : blocks_) {
      b->dirty = false;
      b->fresh = false;
   }
   topDirty_ = false;
   dupDirty_ = false;
   topSig_ = pendingSig_;
   mapElements_ = pendingMaps_;
   deadBlocks_.clear();
   freeCounterIds_.insert(freeCounterIds_.end(), deadCounters_.begin(), deadCounters_.end());
   deadCounters_.clear();
   newCounters_.clear();
}

void FwdTable::upsert(Flowspec::Rule const& r, ApplyReport& rep) {
   auto it = entries_.find(r.key);
   if (it == entries_.end()) {
      auto e = std::make_unique<Entry>();
      e->rule = r;
      if (!freeCounterIds_.empty()) {
         e->counterId = freeCounterIds_.back();
         freeCounterIds_.pop_back();
      } else {
         e->counterId = nextCounterId_++;
      }
      newCounters_.push_back(e->counterId);
      e->seen = applySerial_;
      auto [pos, fresh] = entries_.emplace(r.key, std::move(e));
      pos->second->key = &pos->first;
      compile(*pos->second);
      ++rep.added;
      return;
   }
   Entry& e = *it->second;
   e.seen = applySerial_;
   if (!(e.rule == r)) {
      e.rule = r;
      compile(e);
      ++rep.changed;
   }
}

void FwdTable::erase(Flowspec::FlowspecSlateKey const& key, ApplyReport& rep) {
   auto it = entries_.find(key);
   if (it == entries_.end()) return;
   release(*it->second);
   deadCounters_.push_back(it->second->counterId);
   entries_.erase(it);
   ++rep.removed;
}

ApplyReport FwdTable::apply(std::vector<Flowspec::Rule> const& rules) {
   auto const start = std::chrono::steady_clock::now();
   ApplyReport rep;
   // One pass over the rules marks each entry it finds (one hash lookup, no copy of the key),
   // a second pass drops the entries no rule marked.
   ++applySerial_;
   for (Flowspec::Rule const& r : rules) upsert(r, rep);
   std::vector<Key> gone;
   for (auto const& [k, e] : entries_) {
      if (e->seen != applySerial_) gone.push_back(k);
   }
   for (Key const& k : gone) erase(k, rep);
   return transact(rep, start);
}

ApplyReport FwdTable::change(std::vector<Flowspec::Rule> const& upserts,
                             std::vector<Flowspec::FlowspecSlateKey> const& removed) {
   auto const start = std::chrono::steady_clock::now();
   ApplyReport rep;
   ++applySerial_;
   std::unordered_map<Key, bool, KeyHash> upserted;
   for (Flowspec::Rule const& r : upserts) upserted.emplace(r.key, true);
   for (Key const& k : removed) {
      if (!upserted.contains(k)) erase(k, rep);
   }
   for (Flowspec::Rule const& r : upserts) upsert(r, rep);
   return transact(rep, start);
}

ApplyReport FwdTable::transact(ApplyReport rep, std::chrono::steady_clock::time_point start) {
   using Clock = std::chrono::steady_clock;
   auto const ms = [](Clock::time_point a, Clock::time_point b) {
      return std::chrono::duration<double, std::milli>(b - a).count();
   };
   for (unsigned attempt = 0; attempt < maxAttempts; ++attempt) {
      bool const full = needFull_;
      if (full) {
         // Chunk every rule that can be installed into fresh blocks, in precedence order.
         std::vector<Entry*> all;
         for (auto& [k, e] : entries_) {
            e->block = nullptr;
            if (e->programmable()) all.push_back(e.get());
         }
         std::sort(all.begin(), all.end(), [](Entry const* a, Entry const* b) { return keyLess(a->key, b->key); });
         blocks_.clear();
         deadBlocks_.clear();
         std::size_t const b = std::max<std::size_t>(cfg_.blockSize, 1);
         for (std::size_t i = 0; i < all.size(); i += b) {
            auto nb = std::make_unique<Block>();
            nb->id = nextBlockId_++;
            nb->entries.assign(all.begin() + static_cast<std::ptrdiff_t>(i),
                               all.begin() + static_cast<std::ptrdiff_t>(std::min(all.size(), i + b)));
            for (Entry* e : nb->entries) e->block = nb.get();
            blocks_.push_back(std::move(nb));
         }
      }
      programTargets();
      normalizeBlocks();
      std::vector<std::vector<Entry*>> owners;
      std::string const batch = buildBatch(full, owners);
      rep.full = rep.full || full;
      rep.batchLines = owners.size();
      ++rep.attempts;
      auto const t0 = Clock::now();
      NftRunResult const res = batch.empty() ? NftRunResult{true, {}} : nft_.run(batch);
      rep.nftMs += ms(t0, Clock::now());
      if (res.ok) {
         rep.prepareMs = ms(start, Clock::now()) - rep.nftMs;
         commit();
         needFull_ = false;
         tableError_.clear();
         finishTargets();
         rep.ok = true;
         return rep;
      }
      bool attributed = false;
      for (NftError const& err : res.errors) {
         if (err.line == 0 || err.line > owners.size()) continue;
         for (Entry* e : owners[err.line - 1]) {
            e->failure = "nftables: " + err.message;
            unplace(*e);
            attributed = true;
         }
      }
      if (attributed) continue;
      if (!full) {
         // Something in the table is not as we left it: replace it whole.
         needFull_ = true;
         continue;
      }
      rep.error = res.errors.empty() ? "nftables failed" : res.errors.front().message;
      tableError_ = rep.error;
      return rep;
   }
   rep.error = "nftables kept refusing the batch";
   tableError_ = rep.error;
   return rep;
}

std::vector<RuleStatus> FwdTable::statuses() const {
   std::vector<Entry const*> all;
   for (auto const& [k, e] : entries_) all.push_back(e.get());
   std::sort(all.begin(), all.end(), [](Entry const* a, Entry const* b) { return keyLess(a->key, b->key); });
   std::vector<RuleStatus> out;
   out.reserve(all.size());
   std::string const notProgrammed =
       "nftables refused the table: " + (tableError_.empty() ? std::string("not programmed yet") : tableError_);
   for (Entry const* e : all)
      out.push_back(ruleStatus(*e->key, e->compiled, e->counterId, !needFull_, e->failure, notProgrammed));
   return out;
}

std::size_t FwdTable::programmedRules() const {
   std::size_t n = 0;
   for (auto const& b : blocks_) n += b->entries.size();
   return n;
}

void FwdTable::remove() {
   for (char const* fam : {"inet", "ip", "ip6"})
      (void)nft_.run(std::string("delete table ") + fam + " " + cfg_.name + "\n");
   for (auto& [k, e] : entries_) release(*e);
   finishTargets();
   entries_.clear();
   blocks_.clear();
   needFull_ = true;
}

} // namespace Fwd
