// flowspec-fwd end to end, both backends, in network namespaces of its own (needs root).
//
// nftables:
//
//   install   a full FSIB of N rules (default 12288): from opening the segment to the last
//             rule committed in the kernel (snapshot, order, compile, one transaction)
//   change    one rule added, changed or deleted by a writer while the follower polls as it
//             does in production: from the writer's change to the transaction committed
//   packets   UDP packets per second through the hook with an empty table, with the N rules
//             where every block's guard lets the packet by (destination prefixes), and with
//             N rules that every packet must test one by one (no destination prefix)
//
// XDP (the same FSIB, the same follower):
//
//   classify  ns per packet through the program (BPF_PROG_TEST_RUN, 10^6 repeats) with 1,
//             1000 and N rules, with and without destination prefixes, IPv4 and IPv6, for a
//             packet of the lowest-precedence rule and one that matches none
//   install, change, packets   as above, the program attached to the receiving veth
//   memory    what the kernel charges for the maps of the full FSIB
//
//   fwd-bench [--rules N] [--changes K] [--seconds S] [--block-size B] [--only nft|xdp|classify]
//
// Prints the figures and one JSON line ("fwd-bench {...}") for scripts.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include "fwd/Forwarder.h"
#include "fwd/FwdTable.h"
#include "fwd/XdpTable.h"
#include "tests/fwd/FwdTestPackets.h"
#include "fwd/FwdTable.h"
#include "host/mnemo/SlateRuleSetMount.h"
#include "host/mnemo/SlateRuleSet.h"

namespace {

using Clock = std::chrono::steady_clock;
using Flowspec::Rule;

double msSince(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

int sh(std::string const& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()); }

// A rule of the match text, dropping, policing or marking as `variant` says.
Rule textRule(std::string const& text, bool v6, std::uint32_t id, std::uint32_t variant) {
   Flowspec::FlowspecKey key;
   key.afIs(v6 ? Ovnet::AddressFamily::ipv6 : Ovnet::AddressFamily::ipv4);
   (void)key.copyInStrCli(text);
   Rule r;
   r.key.copyInFlowspecKey(key);
   r.ruleId = id;
   char const* const actions[] = {"drop", "police=125000", "dscp=10"};
   (void)Flowspec::ruleActionsFromText(actions[variant % 3], r);
   return r;
}

// Rule i: TCP to 10.x.y.0/24 on a port (or, without prefixes, to a port only).
Rule benchRule(std::uint32_t i, bool prefixes, std::uint32_t variant) {
   std::string text =
       prefixes ? "10." + std::to_string((i >> 8) & 0xff) + "." + std::to_string(i & 0xff) + ".0/24;*;" : "";
   text += "protocol =6;destination-port =" + std::to_string(prefixes ? 1000 + (i >> 16) : 1000 + i) + ";";
   return textRule(text, false, i, variant);
}

// Rule i of the classification runs: TCP to a port, under a /24 (IPv4) or /64 (IPv6) of its
// own or without a destination prefix.
Rule classifyRule(std::uint32_t i, bool prefixes, bool v6) {
   std::string text;
   if (prefixes) {
      text = v6 ? "2001:db8:" + std::to_string((i >> 8) & 0xff) + ":" + std::to_string(i & 0xff) + "::/64;*;"
                : "10." + std::to_string((i >> 8) & 0xff) + "." + std::to_string(i & 0xff) + ".0/24;*;";
   }
   text += "protocol =6;destination-port =" + std::to_string(prefixes ? 1000 : 1000 + i) + ";";
   return textRule(text, v6, i, i);
}

// A packet of rule `i` of classifyRule, or (i < 0) of none.
std::string classifyPacket(std::int64_t i, bool prefixes, bool v6) {
   if (i < 0) return v6 ? "v6 2001:db8:ffff::1 tcp 5>999" : "10.250.0.1 tcp 5>999";
   auto const u = static_cast<std::uint32_t>(i);
   std::string const dst =
       !prefixes ? (v6 ? "2001:db8:ffff::1" : "10.250.0.1")
       : v6      ? "2001:db8:" + std::to_string((u >> 8) & 0xff) + ":" + std::to_string(u & 0xff) + "::5"
                 : "10." + std::to_string((u >> 8) & 0xff) + "." + std::to_string(u & 0xff) + ".5";
   return (v6 ? "v6 " : "") + dst + " tcp 5>" + std::to_string(prefixes ? 1000 : 1000 + u);
}

// Mean ns per run of the program on the frame, and its verdict.
std::pair<double, unsigned> testRun(int prog, std::vector<std::uint8_t> const& f, int repeat) {
   auto o = Fwd::bpfOpts<bpf_test_run_opts>();
   o.data_in = f.data();
   o.data_size_in = static_cast<std::uint32_t>(f.size());
   o.repeat = repeat;
   if (bpf_prog_test_run_opts(prog, &o) != 0) return {-1, 0};
   return {static_cast<double>(o.duration), o.retval};
}

struct Stats {
   double p50 = 0, p90 = 0, p99 = 0, max = 0;
};
Stats stats(std::vector<double> v) {
   Stats s;
   if (v.empty()) return s;
   std::sort(v.begin(), v.end());
   auto const at = [&v](double q) {
      return v[std::min(v.size() - 1, static_cast<std::size_t>(q * static_cast<double>(v.size())))];
   };
   s.p50 = at(0.5);
   s.p90 = at(0.9);
   s.p99 = at(0.99);
   s.max = v.back();
   return s;
}

// Packets per second that get through the prerouting hook of this namespace: a sender in
// namespace `peerNs` floods UDP to 198.18.0.1 port 9 over a veth pair; a counter at the end
// of the hook (priority 100) counts and drops what arrives.
double packetRate(std::string const& peerNs, double seconds) {
   sh("nft add table inet fwdbenchsink");
   sh("nft 'add chain inet fwdbenchsink c { type filter hook prerouting priority 100; policy accept; }'");
   sh("nft flush chain inet fwdbenchsink c");
   sh("nft add rule inet fwdbenchsink c ip daddr 198.18.0.1 counter drop");
   std::atomic<bool> stop{false};
   std::thread sender([&] {
      int const nsfd = ::open(("/run/netns/" + peerNs).c_str(), O_RDONLY | O_CLOEXEC);
      if (nsfd < 0 || ::setns(nsfd, CLONE_NEWNET) != 0) return;
      ::close(nsfd);
      int const s = ::socket(AF_INET, SOCK_DGRAM, 0);
      sockaddr_in to{};
      to.sin_family = AF_INET;
      to.sin_port = htons(9);
      ::inet_pton(AF_INET, "198.18.0.1", &to.sin_addr);
      char payload[64] = {};
      constexpr unsigned batch = 64;
      std::vector<mmsghdr> msgs(batch);
      std::vector<iovec> iov(batch);
      for (unsigned i = 0; i < batch; ++i) {
         iov[i] = {payload, sizeof payload};
         msgs[i].msg_hdr.msg_iov = &iov[i];
         msgs[i].msg_hdr.msg_iovlen = 1;
         msgs[i].msg_hdr.msg_name = &to;
         msgs[i].msg_hdr.msg_namelen = sizeof to;
      }
      while (!stop.load(std::memory_order_relaxed)) ::sendmmsg(s, msgs.data(), batch, 0);
      ::close(s);
   });
   std::this_thread::sleep_for(std::chrono::milliseconds(300));
   auto const counted = [] {
      std::string out;
      FILE* p = ::popen("nft list chain inet fwdbenchsink c", "r");
      char buf[512];
      while (std::fgets(buf, sizeof buf, p) != nullptr) out += buf;
      ::pclose(p);
      std::size_t const at = out.find("packets ");
      return at == std::string::npos ? 0.0 : std::strtod(out.c_str() + at + 8, nullptr);
   };
   double const c0 = counted();
   auto const t0 = Clock::now();
   std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
   double const c1 = counted();
   double const rate = (c1 - c0) / (msSince(t0) / 1000.0);
   stop = true;
   sender.join();
   sh("nft delete table inet fwdbenchsink");
   return rate;
}

struct ChangeTimes {
   std::vector<double> latencies, snapshotMs, prepareMs, nftMs;
};

// Single-rule changes while the follower polls as in production: from the write to the
// change in the dataplane.
ChangeTimes changeLatencies(Mnemo::SlateRuleSet& fsib, std::string const& segment, Fwd::Backend& table,
                            std::uint32_t rules, unsigned changes, unsigned pollMinUs, unsigned pollMaxUs) {
   ChangeTimes t;
   std::ostringstream log;
   Fwd::Forwarder f({segment, "", pollMinUs, pollMaxUs}, table, log);
   std::mutex m;
   std::map<std::uint64_t, Clock::time_point> appliedAt;
   f.onAppliedIs([&](std::uint64_t g) {
      std::lock_guard<std::mutex> lock(m);
      appliedAt[g] = Clock::now();
      t.snapshotMs.push_back(f.lastSnapshotMs());
      t.prepareMs.push_back(f.lastReport().prepareMs);
      t.nftMs.push_back(f.lastReport().nftMs);
   });
   (void)f.step(); // the full install
   t.snapshotMs.clear();
   t.prepareMs.clear();
   t.nftMs.clear();
   std::atomic<bool> stop{false};
   std::thread follower([&] { f.run(stop); });
   std::mt19937 rng(18);
   for (unsigned c = 0; c < changes; ++c) {
      // Pauses long enough for the poll interval to back off to its longest.
      std::this_thread::sleep_for(std::chrono::milliseconds(20 + rng() % 30));
      std::uint32_t const i = static_cast<std::uint32_t>(rng() % rules);
      switch (c % 3) {
      case 0: fsib.ruleIs(benchRule(rules + c, true, c)); break; // add
      case 1: fsib.ruleIs(benchRule(i, true, i + 1)); break;     // change actions
      default: fsib.ruleDel(benchRule(i, true, i).key); break;   // delete
      }
      // From the moment the FSIB holds the change.
      auto const t0 = Clock::now();
      std::uint64_t const g = fsib.generation();
      for (int wait = 0; wait < 20000; ++wait) {
         {
            std::lock_guard<std::mutex> lock(m);
            auto it = appliedAt.lower_bound(g);
            if (it != appliedAt.end()) {
               t.latencies.push_back(std::chrono::duration<double, std::milli>(it->second - t0).count());
               break;
            }
         }
         std::this_thread::sleep_for(std::chrono::microseconds(10));
      }
   }
   stop = true;
   follower.join();
   // Put the FSIB back as it was for the next user.
   fsib.ruleDelAll();
   for (std::uint32_t i = 0; i < rules; ++i) fsib.ruleIs(benchRule(i, true, i));
   return t;
}

void fill(Mnemo::SlateRuleSet& fsib, std::uint32_t rules, bool prefixes) {
   fsib.ruleDelAll();
   for (std::uint32_t i = 0; i < rules; ++i) fsib.ruleIs(benchRule(i, prefixes, i));
}

nlohmann::json nftBench(Mnemo::SlateRuleSet& fsib, std::string const& segment, std::string const& peer,
                        std::uint32_t rules, unsigned changes, double seconds, std::size_t blockSize) {
   nlohmann::json out;
   Fwd::Nft nft;
   Fwd::TableConfig cfg;
   cfg.name = "fwdbench";
   cfg.blockSize = blockSize;
   double const emptyRate = packetRate(peer, seconds);
   fill(fsib, rules, true);
   std::vector<double> installs;
   std::size_t programmed = 0;
   for (int run = 0; run < 3; ++run) {
      Fwd::FwdTable table(cfg, nft, nullptr);
      std::ostringstream log;
      Fwd::Forwarder f({segment, "", 1000, 5000}, table, log);
      auto const t0 = Clock::now();
      if (f.step() != Fwd::Forwarder::Step::applied) {
         std::cerr << "fwd-bench: install failed: " << log.str();
         return out;
      }
      installs.push_back(msSince(t0));
      std::printf("nft install %d: snapshot %.1f ms, diff + compile + batch %.1f ms, libnftables %.1f ms\n", run,
                  f.lastSnapshotMs(), f.lastReport().prepareMs, f.lastReport().nftMs);
      programmed = table.programmedRules();
      if (run < 2) table.remove();
   }
   double const guardedRate = packetRate(peer, seconds);
   ChangeTimes ch;
   {
      Fwd::FwdTable table(cfg, nft, nullptr);
      ch = changeLatencies(fsib, segment, table, rules, changes, 1000, 5000);
      table.remove();
   }
   fill(fsib, rules, false);
   double unguardedRate = 0;
   {
      Fwd::FwdTable table(cfg, nft, nullptr);
      std::ostringstream log;
      Fwd::Forwarder f({segment, "", 1000, 5000}, table, log);
      (void)f.step();
      unguardedRate = packetRate(peer, seconds);
      table.remove();
   }
   Stats const inst = stats(installs);
   Stats const lat = stats(ch.latencies);
   std::printf("nft: full install of %u rules (%zu programmed, block size %zu): median %.0f ms, worst %.0f ms of 3\n",
               rules, programmed, blockSize, inst.p50, inst.max);
   std::printf("nft: single-rule change, write to commit (%zu changes, polling 1-5 ms): median %.2f ms, p90 %.2f ms, "
               "p99 %.2f ms, max %.2f ms\n",
               ch.latencies.size(), lat.p50, lat.p90, lat.p99, lat.max);
   std::printf("nft:   of which (medians): FSIB read %.3f ms, diff + compile + batch %.3f ms, libnftables %.2f ms\n",
               stats(ch.snapshotMs).p50, stats(ch.prepareMs).p50, stats(ch.nftMs).p50);
   std::printf("nft: packets/s through the hook: empty table %.0f; %u rules with destination prefixes %.0f (cost %.2fx); "
               "%u rules without destination prefixes %.0f (cost %.1fx)\n",
               emptyRate, rules, guardedRate, emptyRate / guardedRate, rules, unguardedRate, emptyRate / unguardedRate);
   out["programmed"] = programmed;
   out["blockSize"] = blockSize;
   out["installMs"] = installs;
   out["changeMs"] = {{"p50", lat.p50}, {"p90", lat.p90}, {"p99", lat.p99}, {"max", lat.max}, {"n", ch.latencies.size()}};
   out["changeParts"] = {{"readMs", stats(ch.snapshotMs).p50},
                         {"prepareMs", stats(ch.prepareMs).p50},
                         {"nftMs", stats(ch.nftMs).p50}};
   out["pps"] = {{"empty", emptyRate}, {"guarded", guardedRate}, {"unguarded", unguardedRate}};
   return out;
}

nlohmann::json xdpBench(Mnemo::SlateRuleSet& fsib, std::string const& segment, std::string const& peer,
                        std::uint32_t rules, unsigned changes, double seconds, bool classifyOnly) {
   nlohmann::json out;
   std::ostringstream log;
   Fwd::XdpConfig cfg;
   cfg.name = "fwdbench";
   cfg.pinRoot = "";

   // Classification, one table per rule count, kind and family.
   nlohmann::json classify = nlohmann::json::array();
   std::printf("xdp: ns per packet (BPF_PROG_TEST_RUN):\n");
   for (bool v6 : {false, true}) {
      for (bool prefixes : {true, false}) {
         for (std::uint32_t n : {1u, 1000u, rules}) {
            std::vector<Rule> rs;
            for (std::uint32_t i = 0; i < n; ++i) rs.push_back(classifyRule(i, prefixes, v6));
            Fwd::XdpTable t(cfg, nullptr, log);
            if (!t.apply(rs).ok || t.programmedRules() != n) {
               std::cerr << "fwd-bench: the XDP table took " << t.programmedRules() << " of " << n << " rules\n";
               continue;
            }
            for (bool match : {true, false}) {
               auto const f = Fwd::Test::frameOf(
                   Fwd::Test::packetSpec(classifyPacket(match ? std::int64_t{n} - 1 : -1, prefixes, v6)));
               (void)testRun(t.programFd(), f, 1000);
               auto const [ns, verdict] = testRun(t.programFd(), f, 1000000);
               std::printf("  %s %-22s %5u rules, %-22s %6.1f ns (verdict %u)\n", v6 ? "IPv6" : "IPv4",
                           prefixes ? "destination prefixes," : "no destination prefix,", n,
                           match ? "lowest-precedence rule:" : "no rule:", ns, verdict);
               classify.push_back({{"v6", v6}, {"prefixes", prefixes}, {"rules", n}, {"match", match}, {"ns", ns}});
            }
            if (n == rules && prefixes && !v6) out["mapBytes"] = t.mapBytes();
         }
      }
   }
   out["classifyNs"] = classify;
   if (classifyOnly) return out;

   cfg.interfaces = {"vb0"};
   double emptyRate = 0;
   {
      Fwd::XdpTable t(cfg, nullptr, log);
      if (!t.apply({}).ok) {
         std::cerr << "fwd-bench: cannot attach XDP to vb0: " << t.statuses().size() << log.str() << "\n";
         return out;
      }
      emptyRate = packetRate(peer, seconds);
   }
   fill(fsib, rules, true);
   std::vector<double> installs;
   double guardedRate = 0;
   std::vector<double> loads;
   for (int run = 0; run < 3; ++run) {
      Fwd::XdpTable t(cfg, nullptr, log);
      // The program is loaded (and verified) once at start, as flowspec-fwd does before it
      // reads the FSIB; the install is the rest.
      auto const l0 = Clock::now();
      std::string why;
      if (!t.probe(&why)) {
         std::cerr << "fwd-bench: " << why << "\n";
         return out;
      }
      loads.push_back(msSince(l0));
      Fwd::Forwarder f({segment, "", 100, 500}, t, log);
      auto const t0 = Clock::now();
      if (f.step() != Fwd::Forwarder::Step::applied) {
         std::cerr << "fwd-bench: XDP install failed: " << log.str();
         return out;
      }
      installs.push_back(msSince(t0));
      std::printf("xdp install %d: program load at start %.1f ms; FSIB read %.1f ms, compile + maps + attach %.1f ms\n",
                  run, loads.back(), f.lastSnapshotMs(), f.lastReport().prepareMs);
      if (run == 2) guardedRate = packetRate(peer, seconds);
   }
   ChangeTimes ch;
   {
      Fwd::XdpTable t(cfg, nullptr, log);
      ch = changeLatencies(fsib, segment, t, rules, changes, 100, 500);
   }
   fill(fsib, rules, false);
   double unguardedRate = 0;
   {
      Fwd::XdpTable t(cfg, nullptr, log);
      Fwd::Forwarder f({segment, "", 100, 500}, t, log);
      (void)f.step();
      unguardedRate = packetRate(peer, seconds);
   }
   Stats const inst = stats(installs);
   Stats const lat = stats(ch.latencies);
   std::printf("xdp: full install of %u rules: median %.1f ms, worst %.1f ms of 3; maps %.1f MiB\n", rules, inst.p50,
               inst.max, static_cast<double>(out.value("mapBytes", std::uint64_t{0})) / 1048576.0);
   std::printf("xdp: single-rule change, write to maps (%zu changes, polling 0.1-0.5 ms): median %.3f ms, p90 %.3f ms, "
               "p99 %.3f ms, max %.3f ms\n",
               ch.latencies.size(), lat.p50, lat.p90, lat.p99, lat.max);
   std::printf("xdp:   of which (medians): FSIB read %.3f ms, map writes %.3f ms\n", stats(ch.snapshotMs).p50,
               stats(ch.prepareMs).p50);
   std::printf("xdp: packets/s through the program: no rules %.0f; %u rules with destination prefixes %.0f (%.2fx); "
               "%u rules without destination prefixes %.0f (%.2fx)\n",
               emptyRate, rules, guardedRate, guardedRate / emptyRate, rules, unguardedRate, unguardedRate / emptyRate);
   out["installMs"] = installs;
   out["programLoadMs"] = loads;
   out["changeMs"] = {{"p50", lat.p50}, {"p90", lat.p90}, {"p99", lat.p99}, {"max", lat.max}, {"n", ch.latencies.size()}};
   out["changeParts"] = {{"readMs", stats(ch.snapshotMs).p50}, {"mapsMs", stats(ch.prepareMs).p50}};
   out["pps"] = {{"empty", emptyRate}, {"prefixes", guardedRate}, {"noPrefixes", unguardedRate}};
   return out;
}

} // namespace

int main(int argc, char** argv) {
   std::uint32_t rules = 12288;
   unsigned changes = 300;
   double seconds = 2.0;
   std::size_t blockSize = 48;
   std::string only;
   for (int i = 1; i + 1 < argc; i += 2) {
      std::string const a = argv[i];
      if (a == "--rules") rules = static_cast<std::uint32_t>(std::stoul(argv[i + 1]));
      if (a == "--changes") changes = static_cast<unsigned>(std::stoul(argv[i + 1]));
      if (a == "--seconds") seconds = std::stod(argv[i + 1]);
      if (a == "--block-size") blockSize = std::stoul(argv[i + 1]);
      if (a == "--only") only = argv[i + 1];
   }
   if (::geteuid() != 0 || ::unshare(CLONE_NEWNET) != 0) {
      std::cerr << "fwd-bench: needs root (it works in network namespaces of its own)\n";
      return 77;
   }
   std::string const peer = "fwdbench" + std::to_string(::getpid());
   sh("ip link set lo up");
   sh("ip netns add " + peer);
   sh("ip link add vb0 type veth peer name vb1 netns " + peer);
   sh("ip addr add 198.18.0.1/24 dev vb0 && ip link set vb0 up");
   sh("ip netns exec " + peer + " sh -c 'ip link set lo up; ip addr add 198.18.0.2/24 dev vb1; ip link set vb1 up'");

   std::string const prefix = "fwdbench" + std::to_string(::getpid());
   std::string const segment = *Mnemo::slateSegmentName(prefix, Mnemo::fsibPath);
   Mnemo::unlinkSlateSegment(segment);
   auto set = Mnemo::SlateRuleSet::attach(segment, std::max<std::uint32_t>(rules + changes, 16));
   if (!set) {
      std::cerr << "fwd-bench: cannot make the FSIB segment\n";
      return 1;
   }
   Ovk::Ptr<Mnemo::SlateRuleSet> fsib = set.value();
   nlohmann::json out;
   out["rules"] = rules;
   if (only.empty() || only == "nft") out["nft"] = nftBench(*fsib, segment, peer, rules, changes, seconds, blockSize);
   if (only.empty() || only == "xdp" || only == "classify")
      out["xdp"] = xdpBench(*fsib, segment, peer, rules, changes, seconds, only == "classify");
   fsib->detach();
   Mnemo::unlinkSlateSegment(segment);
   sh("ip netns del " + peer);
   std::printf("fwd-bench %s\n", out.dump().c_str());
   return 0;
}
