// UPDATE to best path, in process: a million flowspec rules arrive from one peer as the
// agent's routing takes them (the UPDATE decoder, the plugin's NLRI rule and RIB-in, the RIB
// table, its flush to the FSIB export and the RIB-outs), over a real plugin context with an
// FSIB in shared memory. The streams are those of bench/ingest/ingest.py, byte for byte:
// "simple" (distinct destination hosts, TCP port 80, one attribute set) and "mixed" (five
// rule shapes, five attribute sets, 10% withdrawn and announced again at the end), IPv4 and
// IPv6. What the socket, the framing and the event loop cost is ingest.py's to measure.
//
// Phases, each its own benchmark (the others run untimed around it):
//   Announce     the stream into an empty RIB; counters: heap and RSS growth per rule
//   WithdrawAll  every rule withdrawn, in UPDATEs of withdrawals
//   SecondPeer   a second peer announces the same rules; counter: heap growth per extra path
//   Drop         the first session drops: its paths purged a slice per task, as the agent does
//
// Run: build/default/bench/IngestPathBench [--benchmark_filter=Announce]
//
// Profiling the timed phases alone: with PERF_CTL_FIFO and PERF_ACK_FIFO naming the fifos of
// `perf record -D -1 --control fifo:CTL,ACK`, the benchmark enables perf around each timed
// phase only.
#include <benchmark/benchmark.h>

#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "agent/BgpRouting.h"
#include "host/fwk/SlabHeap.h"
#include "host/mnemo/SlateRuleSetMount.h"
#include "host/mnemo/SlateSegment.h"
#include "host/fwk/Scheduler.h"
#include "host/plugin/PluginHost.h"

namespace {

using namespace Flowspecd;
using Routing::Bgp::AfiSafi;
using Routing::Bgp::BgpL3VrfId;
using Routing::Bgp::BgpPeer;
using Routing::Bgp::Bytes;

constexpr std::uint32_t kRules = 1'000'000;
constexpr std::size_t kMaxUpdate = 4096;
constexpr std::uint32_t kLocalAs = 65001;

// ---- The streams (bench/ingest/ingest.py's encoding) ----

using Buf = std::vector<std::uint8_t>;

void put16(Buf& b, std::uint32_t v) {
   b.push_back(static_cast<std::uint8_t>(v >> 8));
   b.push_back(static_cast<std::uint8_t>(v));
}
void put32(Buf& b, std::uint32_t v) {
   put16(b, v >> 16);
   put16(b, v & 0xffff);
}
void append(Buf& b, Buf const& x) { b.insert(b.end(), x.begin(), x.end()); }

Buf attr(std::uint8_t flags, std::uint8_t code, Buf const& value) {
   Buf out;
   if (value.size() > 255) {
      out = {static_cast<std::uint8_t>(flags | 0x10), code};
      put16(out, static_cast<std::uint32_t>(value.size()));
   } else {
      out = {flags, code, static_cast<std::uint8_t>(value.size())};
   }
   append(out, value);
   return out;
}

Buf floatBytes(float f) {
   std::uint32_t v = 0;
   std::memcpy(&v, &f, 4);
   Buf b;
   put32(b, v);
   return b;
}

Buf rate(float r) {
   Buf b{0x80, 0x06, 0, 0};
   append(b, floatBytes(r));
   return b;
}

// The attribute sets of ingest.py: origin, AS path, MED, extended communities.
std::vector<Buf> attributeSets(std::uint32_t peerAs) {
   auto path = [](std::vector<std::uint32_t> asns, std::vector<Buf> ecs, int med) {
      Buf asPath{2, static_cast<std::uint8_t>(asns.size())};
      for (auto a : asns) put32(asPath, a);
      Buf out = attr(0x40, 1, {0});
      append(out, attr(0x40, 2, asPath));
      if (med >= 0) {
         Buf m;
         put32(m, static_cast<std::uint32_t>(med));
         append(out, attr(0x80, 4, m));
      }
      Buf all;
      for (auto const& e : ecs) append(all, e);
      append(out, attr(0xc0, 16, all));
      return out;
   };
   Buf redirect{0x80, 0x08};
   put16(redirect, 65000);
   put32(redirect, 100);
   Buf marking{0x80, 0x09, 0, 0, 0, 0, 0, 46};
   return {path({peerAs}, {rate(0)}, -1), path({peerAs}, {rate(125000)}, -1),
           path({peerAs, 64512}, {redirect}, -1), path({peerAs}, {marking, rate(1250000)}, -1),
           path({peerAs, 64513, 64514}, {rate(0)}, 10)};
}

Buf hostBytes(bool v6, std::uint32_t i) {
   Buf b;
   if (!v6) {
      put32(b, (10u << 24) + i + 1);
      return b;
   }
   b = {0xfd, 0, 0, 0, 0, 0, 0, 0};
   put32(b, 0);
   put32(b, i + 1);
   return b;
}

Buf prefixComp(bool v6, std::uint8_t type, Buf const& addr, std::uint8_t len) {
   Buf b{type, len};
   if (v6) b.push_back(0);
   b.insert(b.end(), addr.begin(), addr.begin() + (len + 7) / 8);
   return b;
}

Buf numComp(std::uint8_t type, std::vector<std::uint32_t> values, std::uint8_t op = 0x01) {
   Buf b{type};
   for (std::size_t k = 0; k < values.size(); ++k) {
      std::uint8_t const last = k + 1 == values.size() ? 0x80 : 0;
      if (values[k] < 256) {
         b.push_back(last | op);
         b.push_back(static_cast<std::uint8_t>(values[k]));
      } else {
         b.push_back(last | 0x10 | op);
         put16(b, values[k]);
      }
   }
   return b;
}

Buf nlri(std::vector<Buf> const& comps) {
   Buf body;
   for (auto const& c : comps) append(body, c);
   Buf out{static_cast<std::uint8_t>(body.size())};
   append(out, body);
   return out;
}

Buf simpleRule(bool v6, std::uint32_t i) {
   return nlri({prefixComp(v6, 1, hostBytes(v6, i), v6 ? 128 : 32), numComp(3, {6}), numComp(5, {80})});
}

Buf mixedRule(bool v6, std::uint32_t i) {
   Buf const dst = prefixComp(v6, 1, hostBytes(v6, i), v6 ? 128 : 32);
   switch (i % 5) {
   case 0: return nlri({dst, numComp(3, {17}), numComp(6, {53})});
   case 1: return nlri({dst, numComp(3, {17}), numComp(6, {123}), numComp(10, {468}, 0x03)});
   case 2: return nlri({dst, numComp(3, {6}), numComp(5, {80, 443}), Buf{9, 0x81, 0x02}});
   case 3: {
      Buf const src = v6 ? Buf{0x20, 0x01, 0x0d, 0xb8, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0} : Buf{192, 0, 2, 0};
      return nlri({dst, prefixComp(v6, 2, src, v6 ? 48 : 24), numComp(3, {v6 ? 58u : 1u})});
   }
   default: return nlri({dst, Buf{12, 0x80, 0x02}});
   }
}

Bytes message(Buf const& pathAttrs) {
   Buf body;
   put16(body, 0);
   put16(body, static_cast<std::uint32_t>(pathAttrs.size()));
   append(body, pathAttrs);
   Bytes m(16, 0xff);
   std::uint32_t const len = static_cast<std::uint32_t>(19 + body.size());
   m.push_back(static_cast<std::uint8_t>(len >> 8));
   m.push_back(static_cast<std::uint8_t>(len));
   m.push_back(2);
   m.insert(m.end(), body.begin(), body.end());
   return m;
}

// UPDATEs of at most 4096 bytes carrying `items` in MP_REACH_NLRI with `attrs`, or in
// MP_UNREACH_NLRI when attrs is null.
void pack(std::vector<Bytes>& out, std::uint16_t afi, std::vector<Buf const*> const& items, Buf const* attrs) {
   std::size_t const fixed = 19 + 2 + 2 + (attrs ? attrs->size() : 0) + 4 + 3 + (attrs ? 2 : 0);
   std::size_t const room = kMaxUpdate - fixed;
   Buf batch;
   auto flush = [&] {
      if (batch.empty()) return;
      Buf mp;
      put16(mp, afi);
      mp.push_back(133);
      if (attrs) {
         mp.push_back(0); // no next hop
         mp.push_back(0); // reserved
      }
      append(mp, batch);
      Buf pa = attrs ? *attrs : Buf{};
      append(pa, attr(0x80, attrs ? 14 : 15, mp));
      out.push_back(message(pa));
      batch.clear();
   };
   for (Buf const* item : items) {
      if (batch.size() + item->size() > room) flush();
      append(batch, *item);
   }
   flush();
}

struct Stream {
   std::vector<Bytes> announce;
   std::vector<Bytes> withdraw;
};

Stream makeStream(bool v6, bool mixed, std::uint32_t n, std::uint32_t peerAs) {
   std::uint16_t const afi = v6 ? 2 : 1;
   std::vector<Buf> const sets = attributeSets(peerAs);
   std::vector<Buf> rules;
   rules.reserve(n);
   for (std::uint32_t i = 0; i < n; ++i) rules.push_back(mixed ? mixedRule(v6, i) : simpleRule(v6, i));
   Stream s;
   std::vector<Buf const*> all;
   for (auto const& r : rules) all.push_back(&r);
   if (!mixed) {
      pack(s.announce, afi, all, &sets[0]);
   } else {
      auto grouped = [&](std::vector<std::uint32_t> const& idx) {
         std::vector<std::vector<Buf const*>> bySet(sets.size());
         for (std::uint32_t i : idx) bySet[(i / 64) % sets.size()].push_back(&rules[i]);
         for (std::size_t k = 0; k < sets.size(); ++k) {
            if (!bySet[k].empty()) pack(s.announce, afi, bySet[k], &sets[k]);
         }
      };
      std::uint32_t const head = static_cast<std::uint32_t>(n * 0.9);
      std::vector<std::uint32_t> churn;
      for (std::uint32_t i = 0; i < head && churn.size() < n - head; i += 9) churn.push_back(i);
      std::vector<std::uint32_t> first;
      for (std::uint32_t i = 0; i < head; ++i) first.push_back(i);
      grouped(first);
      std::vector<Buf const*> gone;
      for (std::uint32_t i : churn) gone.push_back(&rules[i]);
      pack(s.announce, afi, gone, nullptr);
      std::vector<std::uint32_t> last;
      for (std::uint32_t i = head; i < n; ++i) last.push_back(i);
      last.insert(last.end(), churn.begin(), churn.end());
      grouped(last);
   }
   pack(s.withdraw, afi, all, nullptr);
   return s;
}

// Streams are built once per case and kept: 40 to 70 MB each.
Stream const& stream(bool v6, bool mixed, char peer) {
   static std::map<std::tuple<bool, bool, char>, Stream> streams;
   auto key = std::make_tuple(v6, mixed, peer);
   auto it = streams.find(key);
   if (it == streams.end()) it = streams.emplace(key, makeStream(v6, mixed, kRules, peer == 'A' ? 65010 : 65011)).first;
   return it->second;
}

// ---- The receiver ----

class NoLog : public Logger {
 public:
   void log(std::string_view, std::string_view) override {}
};

// Takes every message at once and forgets it.
class Sink : public Routing::Bgp::BgpPeerOutput {
 public:
   void sendUpdate(std::span<std::uint8_t const>) override {}
   void sendEndOfRib(AfiSafi) override {}
   std::size_t queuedBytes() const override { return 0; }
   void drainedCallbackIs(std::function<void()>) override {}
};

void loadPlugin() {
   static bool const loaded = Routing::Bgp::Plugin::loadPluginLibrary(FS_PLUGIN_LIBRARY).ok();
   if (!loaded) std::abort();
}

BgpPeer peerOf(char name) {
   return BgpPeer{*Ovnet::IpGenAddr::parse(name == 'A' ? "127.0.3.10" : "127.0.3.11"), name == 'A' ? 65010u : 65011u,
                  kLocalAs, name == 'A' ? 0x7f00030au : 0x7f00030bu, BgpL3VrfId::defaultVrfId()};
}

struct Receiver {
   explicit Receiver(bool v6) : family(v6 ? Routing::Bgp::kIpv6Flowspec : Routing::Bgp::kIpv4Flowspec) {
      loadPlugin();
      Routing::Bgp::Plugin::Context::Options o;
      o.taskScheduler = scheduler;
      o.attributeCacheStatus = Hoard::AttributeCacheStatus::create();
      o.local = BgpPeer{Ovnet::IpGenAddr(), kLocalAs, kLocalAs, 1, BgpL3VrfId::defaultVrfId()};
      o.entityManager = Ovk::makePtr<Mnemo::EntityManager>(prefix);
      context = Routing::Bgp::Plugin::startPlugins(std::move(o));
      routing = std::make_unique<BgpRouting>(log, context);
   }
   ~Receiver() {
      routing.reset();
      context->shutdown();
      context = nullptr;
      if (auto name = Mnemo::EntityManager(prefix).segmentName(Mnemo::fsibPath)) Mnemo::unlinkSlateSegment(*name);
   }
   void up(char name) {
      Routing::Bgp::Negotiated n;
      n.fourOctetAs = true;
      n.families = {family};
      routing->handleEstablished(peerOf(name), n, sink);
      scheduler->runReady();
   }
   void send(char name, std::vector<Bytes> const& updates) {
      BgpPeer const from = peerOf(name);
      for (Bytes const& u : updates) {
         auto const outcome = routing->handleUpdate(from, Routing::Bgp::MessageView{Routing::Bgp::MessageType::update, u});
         if (outcome.reset) std::abort();
      }
      scheduler->runReady();
   }
   void down(char name) {
      routing->handleSessionDown(peerOf(name));
      while (routing->purgesPending() != 0) scheduler->runReady();
      scheduler->runReady();
   }
   std::size_t routes() const { return routing->ribTable(family)->routes(); }
   // Bytes of the order index and the dedup table's index.
   std::size_t orderBytes() const { return routing->ribTable(family)->order().bytes(); }
   std::size_t dedupIndexBytes() const {
      auto const vrf = context->dedupTablesVrf(BgpL3VrfId::defaultVrfId());
      auto const* tables = vrf ? vrf->dedupTablesVrfAfiSafi(family) : nullptr;
      return tables ? tables->routeKeyDedupTableRawPtr()->indexBytes() : 0;
   }
   std::size_t paths() const { return routing->ribTable(family)->paths(); }

   AfiSafi family;
   std::string prefix = "ingestpathbench-" + std::to_string(getpid());
   Ovk::Ptr<Ovk::ManualScheduler> scheduler = Ovk::ManualScheduler::create();
   NoLog log;
   Ovk::Ptr<Routing::Bgp::Plugin::Context> context;
   Sink sink;
   std::unique_ptr<BgpRouting> routing;
};

// Heap in use (the system heap's blocks, and the slabs of the small-object heap that have
// memory behind them) and resident memory, in bytes.
std::size_t heapBytes() {
   auto const m = mallinfo2();
   return m.uordblks + m.hblkhd + Ovk::SlabHeap::stats().slabs * Ovk::SlabHeap::kSlabBytes;
}
std::size_t rssBytes() {
   long pages = 0, resident = 0;
   if (FILE* f = std::fopen("/proc/self/statm", "r")) {
      if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
      std::fclose(f);
   }
   return static_cast<std::size_t>(resident) * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

bool v6Of(benchmark::State const& state) { return state.range(0) == 6; }
bool mixedOf(benchmark::State const& state) { return state.range(1) == 1; }

// perf's control fifos, when a profile is being taken.
class PerfControl {
 public:
   PerfControl() {
      char const* ctl = std::getenv("PERF_CTL_FIFO");
      char const* ack = std::getenv("PERF_ACK_FIFO");
      if (!ctl || !ack) return;
      ctl_ = std::fopen(ctl, "w");
      ack_ = std::fopen(ack, "r");
   }
   void command(char const* what) {
      if (!ctl_ || !ack_) return;
      std::fprintf(ctl_, "%s\n", what);
      std::fflush(ctl_);
      char answer[16];
      if (!std::fgets(answer, sizeof answer, ack_)) ctl_ = nullptr;
   }

 private:
   FILE* ctl_ = nullptr;
   FILE* ack_ = nullptr;
};

PerfControl& perf() {
   static PerfControl p;
   return p;
}

// The timed part of a phase: the benchmark's clock and the profile, if any.
void resume(benchmark::State& state) {
   perf().command("enable");
   state.ResumeTiming();
}
void pause(benchmark::State& state) {
   state.PauseTiming();
   perf().command("disable");
}

void check(benchmark::State& state, bool ok, char const* what) {
   if (!ok) state.SkipWithError(what);
}

void BM_Announce(benchmark::State& state) {
   bool const v6 = v6Of(state);
   Stream const& a = stream(v6, mixedOf(state), 'A');
   double heapPerRule = 0, rssPerRule = 0, orderPerRule = 0, dedupPerRule = 0;
   for (auto _ : state) {
      state.PauseTiming();
      {
         Receiver rx(v6);
         rx.up('A');
         ::malloc_trim(0);
         std::size_t const heap0 = heapBytes(), rss0 = rssBytes();
         resume(state);
         rx.send('A', a.announce);
         pause(state);
         check(state, rx.routes() == kRules, "not every rule arrived");
         heapPerRule = static_cast<double>(heapBytes() - heap0) / kRules;
         rssPerRule = static_cast<double>(rssBytes() - rss0) / kRules;
         orderPerRule = static_cast<double>(rx.orderBytes()) / kRules;
         dedupPerRule = static_cast<double>(rx.dedupIndexBytes()) / kRules;
      }
      state.ResumeTiming();
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kRules);
   state.counters["heapB/rule"] = heapPerRule;
   state.counters["rssB/rule"] = rssPerRule;
   state.counters["orderB/rule"] = orderPerRule;
   state.counters["dedupB/rule"] = dedupPerRule;
}

void BM_WithdrawAll(benchmark::State& state) {
   bool const v6 = v6Of(state);
   Stream const& a = stream(v6, mixedOf(state), 'A');
   for (auto _ : state) {
      state.PauseTiming();
      {
         Receiver rx(v6);
         rx.up('A');
         rx.send('A', a.announce);
         resume(state);
         rx.send('A', a.withdraw);
         pause(state);
         check(state, rx.routes() == 0, "rules left");
      }
      state.ResumeTiming();
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kRules);
}

void BM_SecondPeer(benchmark::State& state) {
   bool const v6 = v6Of(state);
   Stream const& a = stream(v6, mixedOf(state), 'A');
   Stream const& b = stream(v6, mixedOf(state), 'B');
   double heapPerPath = 0;
   for (auto _ : state) {
      state.PauseTiming();
      {
         Receiver rx(v6);
         rx.up('A');
         rx.send('A', a.announce);
         ::malloc_trim(0);
         std::size_t const heap0 = heapBytes();
         resume(state);
         rx.up('B');
         rx.send('B', b.announce);
         pause(state);
         check(state, rx.paths() == 2 * kRules, "not every path arrived");
         heapPerPath = static_cast<double>(heapBytes() - heap0) / kRules;
      }
      state.ResumeTiming();
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kRules);
   state.counters["heapB/path"] = heapPerPath;
}

void BM_Drop(benchmark::State& state) {
   bool const v6 = v6Of(state);
   Stream const& a = stream(v6, mixedOf(state), 'A');
   for (auto _ : state) {
      state.PauseTiming();
      {
         Receiver rx(v6);
         rx.up('A');
         rx.send('A', a.announce);
         resume(state);
         rx.down('A');
         pause(state);
         check(state, rx.routes() == 0, "rules left");
      }
      state.ResumeTiming();
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kRules);
}

// {family, workload}: 4 or 6, 0 simple or 1 mixed.
void cases(benchmark::internal::Benchmark* b) {
   b->ArgNames({"ip", "mixed"});
   for (int ip : {4, 6})
      for (int mixed : {0, 1}) b->Args({ip, mixed});
   b->Unit(benchmark::kMillisecond)->Iterations(3);
}
BENCHMARK(BM_Announce)->Apply(cases);
BENCHMARK(BM_WithdrawAll)->Apply(cases);
BENCHMARK(BM_SecondPeer)->Apply(cases);
BENCHMARK(BM_Drop)->Apply(cases);

} // namespace

BENCHMARK_MAIN();
