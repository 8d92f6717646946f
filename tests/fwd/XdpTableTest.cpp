// The XDP classifier against the real kernel: packets crafted in the test run through the
// program with BPF_PROG_TEST_RUN (no veth needed), each test in a network namespace of its
// own. Needs root and a kernel that takes the program, else skips saying which.
#include "fwd/XdpTable.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/if_link.h>
#include <net/if.h>
#include <arpa/inet.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <random>
#include <sstream>
#include <thread>

#include "tests/fwd/FwdTestPackets.h"
#include "tests/fwd/FwdTestRules.h"

namespace {

using Flowspec::Rule;
using Fwd::Test::frameOf;
using Fwd::Test::framesOf;
using Fwd::Test::packetSpec;
using Fwd::Test::ruleOf;
using Frame = std::vector<std::uint8_t>;

constexpr int xdpDrop = 1;
constexpr int xdpPass = 2;

void sh(std::string const& cmd) {
   std::string const quiet = cmd + " >/dev/null 2>&1";
   if (std::system(quiet.c_str()) != 0) ADD_FAILURE() << "failed: " << cmd;
}

struct Outcome {
   int verdict = -1;
   Frame out;
};

class XdpTableTest : public ::testing::Test {
 protected:
   void SetUp() override {
      if (::geteuid() != 0) GTEST_SKIP() << "needs root for BPF and a network namespace of its own";
      if (::unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "cannot make a network namespace";
      sh("ip link set lo up");
      // A next hop for the redirect-to-address rows.
      sh("ip link add fwa type veth peer name fwb && ip addr add 192.0.2.2/24 dev fwa && ip link set fwa up && "
         "ip link set fwb up");
      routes_ = std::make_unique<Fwd::PolicyRoutes>(900);
      cfg_.name = "xdptest";
      cfg_.pinRoot = "";
      cfg_.compile.vrfTables = {{7, 100}};
      std::string why;
      Fwd::XdpTable probe(cfg_, nullptr, log_);
      if (!probe.probe(&why)) GTEST_SKIP() << "the kernel refuses the XDP program here: " << why;
   }

   std::unique_ptr<Fwd::XdpTable> table() { return std::make_unique<Fwd::XdpTable>(cfg_, routes_.get(), log_); }

   static Outcome run(Fwd::XdpTable const& t, Frame const& f) {
      Outcome r;
      r.out.resize(f.size() + 256);
      auto o = Fwd::bpfOpts<bpf_test_run_opts>();
      o.data_in = f.data();
      o.data_out = r.out.data();
      o.data_size_in = static_cast<std::uint32_t>(f.size());
      o.data_size_out = static_cast<std::uint32_t>(r.out.size());
      o.repeat = 1;
      if (bpf_prog_test_run_opts(t.programFd(), &o) != 0) return r;
      r.verdict = static_cast<int>(o.retval);
      r.out.resize(o.data_size_out);
      return r;
   }
   static Outcome run(Fwd::XdpTable const& t, std::string const& packet) { return run(t, frameOf(packetSpec(packet))); }

   static std::uint64_t packets(Fwd::XdpTable const& t, Rule const& r) {
      auto const c = t.counts(r.key);
      return c ? c->packets : ~std::uint64_t{0};
   }

   Fwd::XdpConfig cfg_;
   std::unique_ptr<Fwd::PolicyRoutes> routes_;
   std::ostringstream log_;
};

// The DSCP of an output frame (IPv4 or IPv6), and whether an IPv4 header checksum holds.
unsigned dscpOf(Frame const& f) {
   if (f[12] == 0x08) return f[15] >> 2;
   return static_cast<unsigned>(((f[14] & 0x0f) << 4 | f[15] >> 4) >> 2);
}
bool checksumHolds(Frame const& f) { return Fwd::Test::ipv4Checksum(f.data() + 14, 20) == 0; }

TEST_F(XdpTableTest, EveryRowMatchesItsPacketsAndNoOthers) {
   auto t = table();
   ASSERT_TRUE(t->apply({}).ok) << log_.str();
   std::optional<Rule> prev;
   for (auto const& pc : Fwd::Test::packetCases()) {
      Fwd::Test::CompilerRow const* const row = &Fwd::Test::rowNamed(pc.row);
      SCOPED_TRACE(std::string(row->name) + ": " + row->text + " / " + row->actions);
      Rule const r = ruleOf(row->text, row->actions);
      std::vector<Flowspec::FlowspecSlateKey> gone;
      if (prev) gone.push_back(prev->key);
      ASSERT_TRUE(t->change({r}, gone).ok);
      prev = r;
      auto const st = t->statuses();
      ASSERT_EQ(st.size(), 1u);
      ASSERT_TRUE(st[0].installed) << st[0].reason;
      EXPECT_EQ(st[0].reason, "");
      for (Frame const& f : framesOf(pc.hits)) {
         std::uint64_t const before = packets(*t, r);
         Outcome const out = run(*t, f);
         EXPECT_EQ(packets(*t, r), before + 1) << "a packet the rule matches went by: " << ::testing::PrintToString(f);
         EXPECT_EQ(out.verdict, std::string(row->actions).find("drop") != std::string::npos ||
                                        std::string(row->actions) == "police=0"
                                    ? xdpDrop
                                    : xdpPass);
      }
      for (Frame const& f : framesOf(pc.misses)) {
         std::uint64_t const before = packets(*t, r);
         EXPECT_EQ(run(*t, f).verdict, xdpPass);
         EXPECT_EQ(packets(*t, r), before) << "a packet the rule does not match counted: " << ::testing::PrintToString(f);
      }
   }
}

TEST_F(XdpTableTest, RulesTheClassifierCannotMatchExactlyAreRefusedWithTheReason) {
   auto t = table();
   Rule const twoPorts = ruleOf("10.0.0.1/32;*;port =53; port =80", "drop");
   Rule const copy = ruleOf("10.0.0.2/32;*;", "redirect-ip=192.0.2.1 copy");
   Rule const fine = ruleOf("10.0.0.3/32;*;", "drop");
   ASSERT_TRUE(t->apply({twoPorts, copy, fine}).ok);
   std::map<std::string, Fwd::RuleStatus> by;
   for (auto const& s : t->statuses()) by[s.key.toStrepCli()] = s;
   EXPECT_FALSE(by.at(twoPorts.key.toStrepCli()).installed);
   EXPECT_NE(by.at(twoPorts.key.toStrepCli()).reason.find("one port component"), std::string::npos);
   EXPECT_FALSE(by.at(copy.key.toStrepCli()).installed);
   EXPECT_NE(by.at(copy.key.toStrepCli()).reason.find("--backend nft"), std::string::npos);
   EXPECT_TRUE(by.at(fine.key.toStrepCli()).installed);
   EXPECT_EQ(run(*t, "10.0.0.1 udp 53>80").verdict, xdpPass);
   EXPECT_EQ(run(*t, "10.0.0.3 udp").verdict, xdpDrop);
}

TEST_F(XdpTableTest, TheFirstMatchingRuleDecidesWhicheverActionIsAbove) {
   struct Case {
      char const* specific; // 10.0.0.1/32
      char const* general;  // 10.0.0.0/24
      int atOne;
      int atTwo;
   };
   // A drop above a general rate limit, and a (generous) rate limit above a general drop.
   for (Case const c : {Case{"drop", "police=1000", xdpDrop, xdpPass}, Case{"police=1e9", "drop", xdpPass, xdpDrop}}) {
      SCOPED_TRACE(std::string(c.specific) + " above " + c.general);
      auto t = table();
      Rule const a = ruleOf("10.0.0.1/32;*;", c.specific);
      Rule const b = ruleOf("10.0.0.0/24;*;", c.general);
      ASSERT_TRUE(t->apply({b, a}).ok);
      EXPECT_EQ(run(*t, "10.0.0.1 udp").verdict, c.atOne);
      EXPECT_EQ(run(*t, "10.0.0.2 udp").verdict, c.atTwo);
      EXPECT_EQ(packets(*t, a), 1u);
      EXPECT_EQ(packets(*t, b), 1u); // the general rule saw only the other packet
   }
}

TEST_F(XdpTableTest, TheTerminalBitLetsLowerRulesAddTheirActions) {
   auto t = table();
   Rule const first = ruleOf("198.19.7.1/32;*;protocol =17;", "dscp=10 terminal");
   Rule const sample = ruleOf("198.19.7.0/25;*;", "sample terminal");
   Rule const second = ruleOf("198.19.7.0/24;*;", "dscp=20");
   Rule const after = ruleOf("198.19.0.0/16;*;", "drop");
   ASSERT_TRUE(t->apply({after, second, sample, first}).ok);
   Outcome const udp = run(*t, "198.19.7.1 udp");
   EXPECT_EQ(udp.verdict, xdpPass);
   EXPECT_EQ(dscpOf(udp.out), 20u) << "the lower rule's marking is the last one applied";
   EXPECT_TRUE(checksumHolds(udp.out));
   EXPECT_EQ(packets(*t, first), 1u);
   EXPECT_EQ(packets(*t, sample), 1u);
   EXPECT_EQ(packets(*t, second), 1u);
   EXPECT_EQ(packets(*t, after), 0u) << "a rule without the terminal bit ends the evaluation";
   Outcome const tcp = run(*t, "198.19.7.1 tcp");
   EXPECT_EQ(dscpOf(tcp.out), 20u);
   EXPECT_EQ(packets(*t, first), 1u);
   EXPECT_EQ(run(*t, "198.19.9.1 udp").verdict, xdpDrop);
}

TEST_F(XdpTableTest, DscpIsRewrittenWithAValidChecksumAndTheEcnBitsKept) {
   auto t = table();
   ASSERT_TRUE(t->apply({ruleOf("10.0.0.0/8;*;", "dscp=46"), ruleOf("v6:2001:db8::/32;*;", "dscp=46")}).ok);
   for (unsigned tos : {0u, 1u, 2u, 3u, 0xfdu}) {
      Frame f = frameOf(packetSpec("10.1.2.3 udp"));
      f[15] = static_cast<std::uint8_t>(tos);
      f[24] = f[25] = 0;
      std::uint16_t const sum = Fwd::Test::ipv4Checksum(f.data() + 14, 20);
      f[24] = static_cast<std::uint8_t>(sum >> 8);
      f[25] = static_cast<std::uint8_t>(sum);
      Outcome const out = run(*t, f);
      ASSERT_EQ(out.out.size(), f.size());
      EXPECT_EQ(out.out[15], (46u << 2) | (tos & 3)) << tos;
      EXPECT_TRUE(checksumHolds(out.out)) << tos;
   }
   Frame f6 = frameOf(packetSpec("v6 2001:db8::1 udp label=0x12345"));
   f6[15] = static_cast<std::uint8_t>(f6[15] | 0x20); // ECN 2 in the traffic class
   Outcome const out6 = run(*t, f6);
   EXPECT_EQ(dscpOf(out6.out), 46u);
   EXPECT_EQ((out6.out[15] >> 4) & 3, 2) << "ECN kept";
   EXPECT_EQ(out6.out[15] & 0x0f, f6[15] & 0x0f) << "flow label kept";
}

TEST_F(XdpTableTest, SampledPacketsAreLoggedAtMostAtTheRate) {
   cfg_.samplesPerSecond = 5;
   auto t = table();
   ASSERT_TRUE(t->apply({ruleOf("10.0.0.0/8;*;", "sample terminal")}).ok);
   Frame const f = frameOf(packetSpec("10.1.2.3>10.0.0.1 udp"));
   for (int i = 0; i < 50; ++i) EXPECT_EQ(run(*t, f).verdict, xdpPass);
   t->poll();
   std::string const log = log_.str();
   std::size_t lines = 0;
   for (std::size_t at = log.find("sampled on"); at != std::string::npos; at = log.find("sampled on", at + 1)) ++lines;
   EXPECT_GE(lines, 1u);
   // Five a second on each CPU; the 50 runs may straddle a second.
   EXPECT_LE(lines, 2u * 5u * static_cast<unsigned>(libbpf_num_possible_cpus())) << log;
   EXPECT_NE(log.find("by rule 10.0.0.0/8;*;: 60 bytes, 10.1.2.3 > 10.0.0.1 protocol 17"), std::string::npos) << log;
}

TEST_F(XdpTableTest, CountersCountEveryPacketAndItsBytes) {
   auto t = table();
   Rule const r = ruleOf("10.0.0.0/8;*;protocol =6;", "accept");
   ASSERT_TRUE(t->apply({r}).ok);
   Frame const f = frameOf(packetSpec("10.9.9.9 tcp len=300"));
   auto o = Fwd::bpfOpts<bpf_test_run_opts>();
   o.data_in = f.data();
   o.data_size_in = static_cast<std::uint32_t>(f.size());
   o.repeat = 1000;
   ASSERT_EQ(bpf_prog_test_run_opts(t->programFd(), &o), 0);
   auto const c = t->counts(r.key);
   ASSERT_TRUE(c);
   EXPECT_EQ(c->packets, 1000u);
   EXPECT_EQ(c->bytes, 1000u * 300u) << "the IP packet's bytes, as nftables counts them";
   // A change of the rule's actions keeps its counter.
   ASSERT_TRUE(t->change({ruleOf("10.0.0.0/8;*;protocol =6;", "dscp=1")}, {}).ok);
   (void)run(*t, f);
   EXPECT_EQ(t->counts(r.key)->packets, 1001u);
}

TEST_F(XdpTableTest, APoliceRulePassesAboutItsRate) {
   auto t = table();
   std::uint64_t const rate = 100000;
   ASSERT_TRUE(t->apply({ruleOf("10.0.0.0/8;*;", "police=" + std::to_string(rate))}).ok);
   // 500 packets a second of 1000 bytes for 1.5 s: five times the rate.
   Frame const f = frameOf(packetSpec("10.1.1.1 udp len=1000"));
   std::uint64_t passed = 0;
   auto const start = std::chrono::steady_clock::now();
   for (int i = 0; i < 750; ++i) {
      std::this_thread::sleep_until(start + std::chrono::microseconds(2000 * i));
      if (run(*t, f).verdict == xdpPass) passed += 1000;
   }
   // The bucket starts full (one second at the rate) and refills while the packets come
   // (for as long as they came: a busy machine stretches the 1.5 s).
   double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
   double const want = static_cast<double>(rate) * (1 + seconds);
   EXPECT_GT(static_cast<double>(passed), 0.8 * want);
   EXPECT_LT(static_cast<double>(passed), 1.2 * want);
}

// Destination prefixes of nine lengths (more than the classifier probes one length at a
// time: the trie answers), then of five (the probes answer): the longest prefix's rule
// decides either way.
TEST_F(XdpTableTest, PrefixesOfManyLengthsMatchAsFewDo) {
   auto t = table();
   std::vector<unsigned> lengths = {8, 10, 12, 14, 16, 18, 20, 22, 24};
   auto const rules = [&lengths] {
      std::vector<Rule> out;
      for (unsigned len : lengths) out.push_back(ruleOf("10.0.0.0/" + std::to_string(len) + ";*;", "dscp=" + std::to_string(len)));
      return out;
   };
   auto const check = [&] {
      for (std::string const dst : {"10.0.0.1", "10.0.1.1", "10.0.4.1", "10.0.17.1", "10.3.0.1", "10.128.0.1", "11.0.0.1"}) {
         std::uint32_t a = 0;
         ::inet_pton(AF_INET, dst.c_str(), &a);
         a = ntohl(a);
         unsigned want = 0; // the longest prefix 10.0.0.0/len that holds the address
         for (unsigned len : lengths) {
            if ((a & (~0u << (32 - len))) == 0x0a000000u) want = std::max(want, len);
         }
         EXPECT_EQ(dscpOf(run(*t, dst + " udp").out), want) << dst << " with " << lengths.size() << " lengths";
      }
   };
   ASSERT_TRUE(t->apply(rules()).ok);
   check();
   lengths = {8, 12, 16, 22, 24};
   std::vector<Flowspec::FlowspecSlateKey> gone;
   for (unsigned len : {10u, 14u, 18u, 20u}) gone.push_back(ruleOf("10.0.0.0/" + std::to_string(len) + ";*;", "drop").key);
   ASSERT_TRUE(t->change({}, gone).ok);
   check();
   lengths = {8, 10, 12, 14, 16, 18, 20, 22, 24};
   ASSERT_TRUE(t->change(rules(), {}).ok);
   check();
}

// Random rules near each other in precedence: a table changed one rule at a time classifies
// every packet as a table built whole from the same rules.
Rule randomRule(std::mt19937& rng, bool manyLengths) {
   std::string text;
   if (manyLengths && rng() % 2 == 0) {
      // 10.a.b.0 cut to 8-24 bits: more lengths than the classifier probes one by one.
      unsigned const len = 8 + static_cast<unsigned>(rng() % 17);
      std::uint32_t addr = 0x0a000000u | static_cast<std::uint32_t>(rng() % 4) << 16 | static_cast<std::uint32_t>(rng() % 4) << 8;
      addr &= ~0u << (32 - len);
      text = std::to_string(addr >> 24) + "." + std::to_string((addr >> 16) & 0xff) + "." +
             std::to_string((addr >> 8) & 0xff) + ".0/" + std::to_string(len) + ";*;";
   }
   switch (text.empty() ? rng() % 4 : 3) {
   case 0: text = "10." + std::to_string(rng() % 4) + "." + std::to_string(rng() % 4) + ".0/24;*;"; break;
   case 1: text = "10." + std::to_string(rng() % 4) + ".0.0/16;*;"; break;
   case 2: text = "10." + std::to_string(rng() % 4) + "." + std::to_string(rng() % 4) + "." + std::to_string(rng() % 4) + "/32;*;"; break;
   default: break;
   }
   if (rng() % 2) text += std::string("protocol =") + (rng() % 2 ? "6" : "17") + ";";
   if (rng() % 2) text += "destination-port >=" + std::to_string(rng() % 8) + "&<=" + std::to_string(4 + rng() % 8) + ";";
   if (rng() % 4 == 0) text += "dscp =" + std::to_string(rng() % 4) + ";";
   if (text.empty()) text = "packet-length >=" + std::to_string(40 + rng() % 40) + ";";
   char const* const actions[] = {"drop", "accept", "dscp=5", "dscp=7 terminal", "sample terminal", "police=0"};
   return ruleOf(text, actions[rng() % 6]);
}

TEST_F(XdpTableTest, ChangesOneByOneClassifyAsAWholeBuild) {
   std::mt19937 rng(18);
   auto inc = table();
   ASSERT_TRUE(inc->apply({}).ok);
   std::map<Flowspec::FlowspecSlateKey, Rule> now;
   for (int round = 0; round < 6; ++round) {
      for (int c = 0; c < 60; ++c) {
         // Rounds 2 and 3 bring prefixes of many lengths, later rounds take them away again.
         Rule const r = randomRule(rng, round == 2 || round == 3);
         if (now.contains(r.key) && rng() % 2) {
            now.erase(r.key);
            ASSERT_TRUE(inc->change({}, {r.key}).ok);
         } else {
            now.insert_or_assign(r.key, r);
            ASSERT_TRUE(inc->change({r}, {}).ok);
         }
      }
      std::vector<Rule> all;
      for (auto const& [k, r] : now) all.push_back(r);
      auto whole = table();
      ASSERT_TRUE(whole->apply(all).ok);
      ASSERT_EQ(inc->programmedRules(), whole->programmedRules());
      for (int p = 0; p < 150; ++p) {
         std::string const pkt = "10." + std::to_string(rng() % 5) + "." + std::to_string(rng() % 4) + "." +
                                 std::to_string(rng() % 4) + (rng() % 2 ? " tcp " : " udp ") + "9>" +
                                 std::to_string(rng() % 14) + " dscp=" + std::to_string(rng() % 4) +
                                 " len=" + std::to_string(40 + rng() % 60);
         Outcome const a = run(*inc, pkt);
         Outcome const b = run(*whole, pkt);
         ASSERT_EQ(a.verdict, b.verdict) << pkt << " after round " << round;
         ASSERT_EQ(a.out, b.out) << pkt;
      }
   }
}

TEST_F(XdpTableTest, PacketsDuringChangesSeeTheOldRulesOrTheNewNeverAMix) {
   auto t = table();
   // A rule packets keep hitting, with rules inserted and removed right around it in
   // precedence (same destination, other ports), so that it and they keep being moved.
   Rule const hit = ruleOf("10.9.9.9/32;*;protocol =17;destination-port =500;", "drop");
   ASSERT_TRUE(t->apply({hit}).ok);
   Frame const dropped = frameOf(packetSpec("10.9.9.9 udp 1>500"));
   Frame const passed = frameOf(packetSpec("10.9.9.9 udp 1>501"));
   std::atomic<bool> stop{false};
   std::atomic<unsigned> wrong{0};
   std::atomic<unsigned> runs{0};
   std::thread traffic([&] {
      while (!stop.load()) {
         if (run(*t, dropped).verdict != xdpDrop) ++wrong;
         if (run(*t, passed).verdict != xdpPass) ++wrong;
         runs += 2;
      }
   });
   std::mt19937 rng(7);
   std::vector<Rule> around;
   while (runs.load() == 0) std::this_thread::yield();
   // At least 400 changes, and on until the packets have had time to fall between them.
   for (int i = 0; i < 20000 && (i < 400 || runs.load() < 20000); ++i) {
      if (!around.empty() && rng() % 3 == 0) {
         std::size_t const k = rng() % around.size();
         ASSERT_TRUE(t->change({}, {around[k].key}).ok);
         around.erase(around.begin() + static_cast<std::ptrdiff_t>(k));
      } else {
         auto const port = static_cast<unsigned>(400 + rng() % 200);
         if (port == 500 || port == 501) continue;
         Rule const r = ruleOf("10.9.9.9/32;*;protocol =17;destination-port =" + std::to_string(port) + ";", "drop");
         ASSERT_TRUE(t->change({r}, {}).ok);
         around.push_back(r);
      }
   }
   stop = true;
   traffic.join();
   EXPECT_GT(runs.load(), 100u);
   EXPECT_EQ(wrong.load(), 0u) << "of " << runs.load() << " packets";
}

TEST_F(XdpTableTest, TheProgramOutlivesItsTableAndTheNextStartReplacesIt) {
   if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
      GTEST_SKIP() << "cannot make a mount namespace for a bpf file system of the test's own";
   char dir[] = "/tmp/xdptestXXXXXX";
   ASSERT_NE(::mkdtemp(dir), nullptr);
   if (::mount("bpf", dir, "bpf", 0, nullptr) != 0) GTEST_SKIP() << "cannot mount a bpf file system";
   cfg_.pinRoot = std::string(dir) + "/flowspec";
   cfg_.interfaces = {"fwb"};
   int const ifindex = static_cast<int>(::if_nametoindex("fwb"));
   auto const attached = [ifindex] {
      auto q = Fwd::bpfOpts<bpf_xdp_query_opts>();
      return bpf_xdp_query(ifindex, 0, &q) == 0 ? q.prog_id : 0u;
   };
   std::uint32_t first = 0;
   {
      Fwd::XdpTable t(cfg_, routes_.get(), log_);
      ASSERT_TRUE(t.apply({ruleOf("10.0.0.1/32;*;", "drop")}).ok) << t.statuses().size() << log_.str();
      first = attached();
      ASSERT_NE(first, 0u);
   } // the process ends: the pinned link keeps the program
   EXPECT_EQ(attached(), first);
   {
      Fwd::XdpTable t(cfg_, routes_.get(), log_);
      ASSERT_TRUE(t.apply({ruleOf("10.0.0.2/32;*;", "drop")}).ok);
      EXPECT_NE(attached(), 0u);
      EXPECT_NE(attached(), first) << "the next start replaces the program whole";
      t.remove();
      EXPECT_EQ(attached(), 0u);
   }
   ::umount(dir);
   ::rmdir(dir);
}

TEST_F(XdpTableTest, AnInterfaceThatCannotTakeTheProgramIsNamed) {
   cfg_.interfaces = {"nosuchif0"};
   auto t = table();
   Fwd::ApplyReport const rep = t->apply({ruleOf("10.0.0.1/32;*;", "drop")});
   EXPECT_FALSE(rep.ok);
   EXPECT_NE(rep.error.find("nosuchif0"), std::string::npos) << rep.error;
   auto const st = t->statuses();
   ASSERT_EQ(st.size(), 1u);
   EXPECT_FALSE(st[0].installed);
}

} // namespace
