// flowspec-fwd end to end, in network namespaces of its own (needs root):
//
//   install   a full FSIB of N rules (default 12288): from opening the segment to the last
//             rule committed in the kernel (snapshot, order, compile, one transaction)
//   change    one rule added, changed or deleted by a writer while the follower polls as it
//             does in production: from the writer's change to the transaction committed
//   packets   UDP packets per second through the hook with an empty table, with the N rules
//             where every block's guard lets the packet by (destination prefixes), and with
//             N rules that every packet must test one by one (no destination prefix)
//
//   fwd-bench [--rules N] [--changes K] [--seconds S] [--block-size B]
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

#include "fwd/Forwarder.h"
#include "fwd/FwdTable.h"
#include "host/mnemo/SlateRuleSetMount.h"
#include "host/mnemo/SlateRuleSet.h"

namespace {

using Clock = std::chrono::steady_clock;
using Flowspec::Rule;

double msSince(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

int sh(std::string const& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()); }

// Rule i: TCP to 10.x.y.0/24 on a port (or, without prefixes, to a port only), dropping,
// policing or marking.
Rule benchRule(std::uint32_t i, bool prefixes, std::uint32_t variant) {
   std::string text =
       prefixes ? "10." + std::to_string((i >> 8) & 0xff) + "." + std::to_string(i & 0xff) + ".0/24;*;" : "";
   text += "protocol =6;destination-port =" + std::to_string(prefixes ? 1000 + (i >> 16) : 1000 + i) + ";";
   Flowspec::FlowspecKey key;
   key.afIs(Ovnet::AddressFamily::ipv4);
   (void)key.copyInStrCli(text);
   Rule r;
   r.key.copyInFlowspecKey(key);
   r.ruleId = i;
   char const* const actions[] = {"drop", "police=125000", "dscp=10"};
   (void)Flowspec::ruleActionsFromText(actions[variant % 3], r);
   return r;
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

} // namespace

int main(int argc, char** argv) {
   std::uint32_t rules = 12288;
   unsigned changes = 300;
   double seconds = 2.0;
   std::size_t blockSize = 48;
   for (int i = 1; i + 1 < argc; i += 2) {
      std::string const a = argv[i];
      if (a == "--rules") rules = static_cast<std::uint32_t>(std::stoul(argv[i + 1]));
      if (a == "--changes") changes = static_cast<unsigned>(std::stoul(argv[i + 1]));
      if (a == "--seconds") seconds = std::stod(argv[i + 1]);
      if (a == "--block-size") blockSize = std::stoul(argv[i + 1]);
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
   auto set = Mnemo::SlateRuleSet::attach(segment, std::max<std::uint32_t>(rules, 16));
   if (!set) {
      std::cerr << "fwd-bench: cannot make the FSIB segment\n";
      return 1;
   }
   Ovk::Ptr<Mnemo::SlateRuleSet> fsib = set.value();
   nlohmann::json out;
   Fwd::Nft nft;
   Fwd::TableConfig cfg;
   cfg.name = "fwdbench";
   cfg.blockSize = blockSize;

   double const emptyRate = packetRate(peer, seconds);

   // Full install, three times from an empty table.
   for (std::uint32_t i = 0; i < rules; ++i) fsib->ruleIs(benchRule(i, true, i));
   std::vector<double> installs;
   std::size_t programmed = 0;
   for (int run = 0; run < 3; ++run) {
      Fwd::FwdTable table(cfg, nft, nullptr);
      std::ostringstream log;
      Fwd::Forwarder f({segment, "", 1, 5}, table, log);
      auto const t0 = Clock::now();
      if (f.step() != Fwd::Forwarder::Step::applied) {
         std::cerr << "fwd-bench: install failed: " << log.str();
         return 1;
      }
      installs.push_back(msSince(t0));
      std::printf("install %d: snapshot %.1f ms, diff + compile + batch %.1f ms, libnftables %.1f ms\n", run,
                  f.lastSnapshotMs(), f.lastReport().prepareMs, f.lastReport().nftMs);
      programmed = table.programmedRules();
      if (run < 2) table.remove();
   }
   double const guardedRate = packetRate(peer, seconds);

   // Single-rule changes while the follower polls: from the write to the commit.
   std::vector<double> latencies;
   std::vector<double> snapshotMs;
   std::vector<double> prepareMs;
   std::vector<double> nftMs;
   {
      Fwd::FwdTable table(cfg, nft, nullptr);
      std::ostringstream log;
      Fwd::Forwarder f({segment, "", 1, 5}, table, log);
      std::mutex m;
      std::map<std::uint64_t, Clock::time_point> appliedAt;
      f.onAppliedIs([&](std::uint64_t g) {
         std::lock_guard<std::mutex> lock(m);
         appliedAt[g] = Clock::now();
         snapshotMs.push_back(f.lastSnapshotMs());
         prepareMs.push_back(f.lastReport().prepareMs);
         nftMs.push_back(f.lastReport().nftMs);
      });
      (void)f.step(); // the full install
      std::atomic<bool> stop{false};
      std::thread follower([&] { f.run(stop); });
      std::mt19937 rng(18);
      for (unsigned c = 0; c < changes; ++c) {
         // Pauses long enough for the poll interval to back off to its longest.
         std::this_thread::sleep_for(std::chrono::milliseconds(20 + rng() % 30));
         std::uint32_t const i = static_cast<std::uint32_t>(rng() % rules);
         auto const t0 = Clock::now();
         switch (c % 3) {
         case 0: fsib->ruleIs(benchRule(rules + c, true, c)); break; // add
         case 1: fsib->ruleIs(benchRule(i, true, i + 1)); break;     // change actions
         default: fsib->ruleDel(benchRule(i, true, i).key); break;   // delete
         }
         std::uint64_t const g = fsib->generation();
         for (int wait = 0; wait < 2000; ++wait) {
            {
               std::lock_guard<std::mutex> lock(m);
               auto it = appliedAt.lower_bound(g);
               if (it != appliedAt.end()) {
                  latencies.push_back(std::chrono::duration<double, std::milli>(it->second - t0).count());
                  break;
               }
            }
            std::this_thread::sleep_for(std::chrono::microseconds(100));
         }
      }
      stop = true;
      follower.join();
      table.remove();
   }

   // Rules no guard can skip: every packet tests each of them.
   fsib->ruleDelAll();
   for (std::uint32_t i = 0; i < rules; ++i) fsib->ruleIs(benchRule(i, false, i));
   double unguardedRate = 0;
   {
      Fwd::FwdTable table(cfg, nft, nullptr);
      std::ostringstream log;
      Fwd::Forwarder f({segment, "", 1, 5}, table, log);
      (void)f.step();
      unguardedRate = packetRate(peer, seconds);
      table.remove();
   }
   fsib->detach();
   Mnemo::unlinkSlateSegment(segment);
   sh("ip netns del " + peer);

   Stats const inst = stats(installs);
   Stats const snapS = stats(snapshotMs);
   Stats const prepS = stats(prepareMs);
   Stats const nftS = stats(nftMs);
   Stats const lat = stats(latencies);
   std::printf("full install of %u rules (%zu programmed, block size %zu): median %.0f ms, worst %.0f ms of 3\n", rules,
               programmed, blockSize, inst.p50, inst.max);
   std::printf("single-rule change, write to commit (%zu changes, polling 1-5 ms): median %.2f ms, p90 %.2f ms, p99 "
               "%.2f ms, max %.2f ms\n",
               latencies.size(), lat.p50, lat.p90, lat.p99, lat.max);
   std::printf("  of which (medians): FSIB snapshot %.2f ms, diff + compile + batch %.2f ms, libnftables %.2f ms\n",
               snapS.p50, prepS.p50, nftS.p50);
   std::printf("packets/s through the hook: empty table %.0f; %u rules behind block guards %.0f (ratio %.2f); "
               "%u rules without destination prefixes %.0f (ratio %.1f)\n",
               emptyRate, rules, guardedRate, emptyRate / guardedRate, rules, unguardedRate, emptyRate / unguardedRate);
   out["rules"] = rules;
   out["programmed"] = programmed;
   out["blockSize"] = blockSize;
   out["installMs"] = installs;
   out["changeMs"] = {{"p50", lat.p50}, {"p90", lat.p90}, {"p99", lat.p99}, {"max", lat.max}, {"n", latencies.size()}};
   out["changeParts"] = {{"snapshotMs", snapS.p50}, {"prepareMs", prepS.p50}, {"nftMs", nftS.p50}};
   out["pps"] = {{"empty", emptyRate}, {"guarded", guardedRate}, {"unguarded", unguardedRate}};
   std::printf("fwd-bench %s\n", out.dump().c_str());
   return 0;
}
