// Whole flowspec UPDATE messages through the host's UPDATE decoder and the flowspec plugin:
// UPDATEs per second and NLRI per second on one core.
//
// The input is a generated MRT dump (RFC 6396, BGP4MP_MESSAGE_AS4) of 100000 UPDATEs as a
// flowspec speaker sends them: ORIGIN, a 2-AS AS_PATH, one to three flowspec extended
// communities, and an MP_REACH_NLRI of IPv4 (three in four) or IPv6 flowspec with 1 to 16
// rules of the usual mitigation shapes; one UPDATE in eight withdraws its rules instead.
// The dump is written to $FS_BENCH_MRT, or to a file in the temporary folder.
//
//   MrtFile            the whole path: the file read, its records cut, each UPDATE decoded;
//                      nothing holds the rules, so they enter and leave the tables.
//   Updates/KeysHeld   UPDATEs already in memory; an adj-RIB-in's worth of references holds
//                      every rule, so the decoder finds each in its table.
//   Updates/KeysNew    the same with nothing held: every rule is interned and released.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "tests/host/bgp/UpdateBuilder.h"
#include "tools/capture/BgpCapture.h"
#include "tools/flowspec/UpdateReport.h"

namespace {

using namespace Routing::Bgp;
using BgpTest::Bytes;

constexpr std::size_t kUpdates = 100000;

// The NLRI of one rule: a body of the usual mitigation shapes with a length byte.
void appendRule(Bytes& out, std::mt19937& rng, bool v6) {
   auto r8 = [&] { return static_cast<std::uint8_t>(rng()); };
   Bytes body;
   if (v6) {
      body = {0x01, 128, 0, 0x20, 0x01, 0x0d, 0xb8};
      for (int i = 0; i < 12; ++i) body.push_back(r8());
   } else {
      body = {0x01, 32, 10, r8(), r8(), r8()};
   }
   switch (rng() % 5) {
   case 0: body.insert(body.end(), {0x03, 0x81, 17, 0x06, 0x81, 53}); break; // DNS reflection
   case 1: body.insert(body.end(), {0x03, 0x81, 6, 0x05, 0x01, 80, 0x91, 0x01, 0xbb, 0x09, 0x81, 0x02}); break; // SYN
   case 2: body.insert(body.end(), {0x03, 0x81, 17, 0x0a, 0x93, 0x03, 0xe8}); break; // large UDP
   case 3: body.insert(body.end(), {0x0c, 0x80, 0x02}); break;                       // fragments
   default: body.insert(body.end(), {0x03, 0x81, 1}); break;                         // ICMP
   }
   out.push_back(static_cast<std::uint8_t>(body.size()));
   out.insert(out.end(), body.begin(), body.end());
}

struct Dump {
   Dump() {
      std::mt19937 rng(7);
      std::uint64_t const rates[] = {0x8006000000000000ull, 0x80060000447a0000ull, 0x8006000047c35000ull};
      for (std::size_t i = 0; i < kUpdates; ++i) {
         bool const v6 = rng() % 4 == 0;
         bool const withdraw = rng() % 8 == 0;
         std::size_t const rules = 1 + rng() % 16;
         Bytes nlri;
         for (std::size_t k = 0; k < rules; ++k) appendRule(nlri, rng, v6);
         nlriCount += rules;
         BgpTest::UpdateBuilder b;
         std::uint16_t const afi = v6 ? 2 : 1;
         if (withdraw) {
            b.mpUnreach(afi, 133, BgpTest::hexText(nlri));
         } else {
            b.origin().asPath({65001, 65002});
            switch (rng() % 3) {
            case 0: b.extCommunities({rates[rng() % 3]}); break;
            case 1: b.extCommunities({rates[rng() % 3], 0x8009000000000000ull | (rng() % 64)}); break;
            default: b.extCommunities({0x8008fde800000000ull | (rng() % 1000), 0x8007000000000001ull, rates[0]}); break;
            }
            b.mpReach(afi, 133, "", BgpTest::hexText(nlri));
         }
         messages.push_back(b.build());
      }
      char const* const env = std::getenv("FS_BENCH_MRT");
      path = env ? env : (std::filesystem::temp_directory_path() / "BgpUpdateDecoderBench.mrt").string();
      std::ofstream out(path, std::ios::binary);
      for (Bytes const& m : messages) {
         Bytes const r = BgpTest::mrtRecord(m);
         out.write(reinterpret_cast<char const*>(r.data()), static_cast<std::streamsize>(r.size()));
         fileBytes += r.size();
      }
   }
   std::vector<Bytes> messages;
   std::size_t nlriCount = 0;
   std::size_t fileBytes = 0;
   std::string path;
};

Dump const& dump() {
   static Dump const d;
   return d;
}

void report(benchmark::State& state, std::size_t bytes) {
   Dump const& d = dump();
   auto const it = static_cast<double>(state.iterations());
   state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(d.messages.size()));
   state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
   state.counters["UPDATEs/s"] =
       benchmark::Counter(it * static_cast<double>(d.messages.size()), benchmark::Counter::kIsRate);
   state.counters["NLRI/s"] = benchmark::Counter(it * static_cast<double>(d.nlriCount), benchmark::Counter::kIsRate);
}

// Decodes one UPDATE; false when it was not accepted with all its rules.
bool decodeOne(BgpUpdateDecoder& decoder, std::span<std::uint8_t const> message, std::size_t& nlri) {
   BgpParsedUpdate const& u = decoder.decode(message);
   nlri += u.nlri.size();
   return u.action == BgpUpdateAction::accept;
}

void BM_MrtFile(benchmark::State& state) {
   Dump const& d = dump();
   FlowspecTool::UpdateDecodeSession session;
   for (auto _ : state) {
      std::size_t nlri = 0;
      bool allAccepted = true;
      BgpCapture::Stats stats;
      std::string error;
      BgpCapture::readMrtFile(
          d.path, [&](BgpCapture::Message const& m) { allAccepted &= decodeOne(session.decoder(), m.bytes, nlri); },
          stats, error);
      if (!allAccepted || nlri != d.nlriCount || stats.messages != d.messages.size()) {
         state.SkipWithError("the dump did not decode whole");
      }
   }
   report(state, d.fileBytes);
}
BENCHMARK(BM_MrtFile)->Unit(benchmark::kMillisecond);

void BM_Updates(benchmark::State& state) {
   Dump const& d = dump();
   bool const hold = state.range(0) != 0;
   FlowspecTool::UpdateDecodeSession session;
   std::vector<Ovk::Ptr<RouteKey const>> held;
   if (hold) {
      for (Bytes const& m : d.messages) {
         for (BgpParsedNlri const& n : session.decoder().decode(m).nlri) held.push_back(n.routeKey);
      }
   }
   std::size_t bytes = 0;
   for (Bytes const& m : d.messages) bytes += m.size();
   for (auto _ : state) {
      std::size_t nlri = 0;
      bool allAccepted = true;
      for (Bytes const& m : d.messages) allAccepted &= decodeOne(session.decoder(), m, nlri);
      if (!allAccepted || nlri != d.nlriCount) state.SkipWithError("the UPDATEs did not decode whole");
   }
   report(state, bytes);
   state.SetLabel(hold ? "KeysHeld" : "KeysNew");
}
BENCHMARK(BM_Updates)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
