// The table and the FSIB follower against the real kernel, each test in a network namespace
// of its own (the test process leaves the host's namespace first; needs root, else skips).
#include "fwd/FwdTable.h"

#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <chrono>
#include <random>
#include <thread>
#include <regex>
#include <sstream>

#include "fwd/Forwarder.h"
#include "fwd/FwdTable.h"
#include "host/mnemo/SlateRuleSet.h"
#include "tests/fwd/FwdTestPackets.h"
#include "tests/fwd/FwdTestRules.h"
#include "tests/host/mnemo/SlateTestHelpers.h"

namespace {

using Flowspec::Rule;
using Fwd::Test::ruleOf;

std::string sh(std::string const& cmd) {
   std::string out;
   FILE* p = ::popen((cmd + " 2>&1").c_str(), "r");
   char buf[4096];
   while (std::fgets(buf, sizeof buf, p) != nullptr) out += buf;
   ::pclose(p);
   return out;
}

class FwdTableTest : public ::testing::Test {
 protected:
   void SetUp() override {
      if (::geteuid() != 0) GTEST_SKIP() << "needs root for a network namespace of its own";
      if (::unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "cannot make a network namespace";
      // Only now: an nftables context talks to the namespace it was made in.
      nftHolder_ = std::make_unique<Fwd::Nft>();
      sh("ip link set lo up");
      cfg_.name = "fwdtest";
      cfg_.compile.vrfTables = {{7, 100}};
      cfg_.compile.nflogGroup = 5;
   }

   // The counter ids of the table's rules in the order a packet meets them.
   std::vector<std::uint32_t> kernelOrder() {
      std::string const text = sh("nft list table inet " + cfg_.name);
      std::map<std::string, std::vector<std::uint32_t>> chains;
      std::vector<std::string> jumps;
      std::string chain;
      std::istringstream in(text);
      std::regex const chainRe(R"(^\s*chain (\S+) \{)");
      std::regex const counterRe(R"(update @rule_counts \{ meta mark & 0x[0-9a-f]+ \| 0x([0-9a-f]+) \})");
      std::regex const jumpRe(R"(^\s*jump (b\d+))");
      std::regex const vmapRe(R"(daddr vmap @(d\d+))");
      std::regex const mapRe(R"(^\s*map (d\d+) \{)");
      std::regex const elemJumpRe(R"(jump (b\d+))");
      std::map<std::string, std::vector<std::string>> maps; // a verdict map's blocks, as listed
      std::string map;
      std::smatch m;
      for (std::string line; std::getline(in, line);) {
         if (std::regex_search(line, m, mapRe)) {
            map = m[1];
            chain.clear();
         } else if (std::regex_search(line, m, chainRe)) {
            chain = m[1];
            map.clear();
         } else if (!map.empty()) {
            for (std::sregex_iterator j(line.begin(), line.end(), elemJumpRe), end; j != end; ++j)
               maps[map].push_back((*j)[1]);
         } else if (chain == "rules" && std::regex_search(line, m, jumpRe)) {
            jumps.push_back(m[1]);
         } else if (chain == "rules" && std::regex_search(line, m, vmapRe)) {
            jumps.push_back("@" + std::string(m[1]));
         } else if (std::regex_search(line, m, counterRe)) {
            std::uint32_t const id = static_cast<std::uint32_t>(std::stoul(m[1], nullptr, 16));
            auto& v = chains[chain];
            if (v.empty() || v.back() != id) v.push_back(id); // a rule's alternatives count once
         }
      }
      std::vector<std::uint32_t> out;
      for (auto const& j : jumps) {
         // A verdict map's blocks have disjoint destinations: their order among themselves
         // is the order of their ranges, which the listing keeps.
         std::vector<std::string> const blocks = j.starts_with("@") ? maps[j.substr(1)] : std::vector{j};
         for (auto const& b : blocks) out.insert(out.end(), chains[b].begin(), chains[b].end());
      }
      return out;
   }

   // The counter ids of the programmed rules in precedence order.
   static std::vector<std::uint32_t> expectedOrder(Fwd::FwdTable const& t) {
      std::vector<std::uint32_t> out;
      for (auto const& s : t.statuses()) {
         if (s.installed && s.reason.empty()) out.push_back(s.counterId);
      }
      return out;
   }

   Fwd::RuleStatus statusOf(Fwd::FwdTable const& t, Rule const& r) {
      for (auto const& s : t.statuses()) {
         if (s.key == r.key) return s;
      }
      ADD_FAILURE() << "no status for " << r.key;
      return {};
   }

   Fwd::TableConfig cfg_;
   std::unique_ptr<Fwd::Nft> nftHolder_;
   Fwd::Nft& nft() { return *nftHolder_; }
};

TEST_F(FwdTableTest, EveryCompilerRowLoadsIntoTheKernel) {
   // A next hop for the redirect-to-address rows.
   sh("ip link add fwa type veth peer name fwb && ip addr add 192.0.2.2/24 dev fwa && ip link set fwa up && ip link "
      "set fwb up");
   Fwd::PolicyRoutes routes(900);
   Fwd::FwdTable table(cfg_, nft(), &routes);
   for (auto const& row : Fwd::Test::compilerRows()) {
      if (row.hook != nullptr) continue; // this table sits at prerouting
      SCOPED_TRACE(std::string(row.name) + ": " + row.text + " / " + row.actions);
      Rule const r = ruleOf(row.text, row.actions);
      ASSERT_TRUE(table.apply({r}).ok);
      Fwd::RuleStatus const s = statusOf(table, r);
      std::string const want = row.want;
      if (want.starts_with("refused: ")) {
         EXPECT_FALSE(s.installed);
         EXPECT_EQ(s.reason, want.substr(9));
      } else if (want.starts_with("never: ")) {
         EXPECT_TRUE(s.installed);
         EXPECT_EQ(s.reason, "never matches: " + want.substr(7));
      } else {
         EXPECT_TRUE(s.installed);
         EXPECT_EQ(s.reason, "");
         EXPECT_EQ(kernelOrder(), std::vector<std::uint32_t>{s.counterId});
      }
   }
   EXPECT_NE(sh("ip rule"), "");
}

// The rows' packets, written onto a veth whose other end the table's hook sees: the rule
// counts exactly the packets it matches (the same packets the XDP test runs).
TEST_F(FwdTableTest, EveryRowMatchesItsPacketsAndNoOthers) {
   sh("ip link add fwa type veth peer name fwb && ip addr add 192.0.2.2/24 dev fwa && ip link set fwa up && ip link "
      "set fwb up && ip link set fwa mtu 9000 && ip link set fwb mtu 9000");
   // No IPv6 of fwa's own (router and neighbour solicitations, MLD): only the test's frames
   // reach fwb, where a rule without a Fragment header would count them too.
   sh("sysctl -qw net.ipv6.conf.fwa.disable_ipv6=1");
   int const s = ::socket(AF_PACKET, SOCK_RAW, 0);
   ASSERT_GE(s, 0);
   sockaddr_ll to{};
   to.sll_family = AF_PACKET;
   to.sll_ifindex = static_cast<int>(::if_nametoindex("fwa"));
   to.sll_halen = 6;
   // The frames go to fwb's own address, else the IP layer ignores them.
   ifreq ifr{};
   std::strcpy(ifr.ifr_name, "fwb");
   ASSERT_EQ(::ioctl(s, SIOCGIFHWADDR, &ifr), 0);
   std::uint8_t dst[6];
   std::memcpy(dst, ifr.ifr_hwaddr.sa_data, 6);
   Fwd::PolicyRoutes routes(900);
   Fwd::FwdTable table(cfg_, nft(), &routes);
   auto const count = [&](std::uint32_t id) -> std::uint64_t {
      auto const j = nft().listJson("list set inet " + cfg_.name + " rule_counts");
      for (auto const& item : (*j)["nftables"]) {
         if (!item.contains("set") || !item["set"].contains("elem")) continue;
         for (auto const& el : item["set"]["elem"]) {
            if (el["elem"]["val"] == id) return el["elem"]["counter"]["packets"];
         }
      }
      return 0;
   };
   // A counter ahead of the table (priority -400) tells when a frame has reached the hook; the
   // table's chain runs right after it for the same packet.
   sh("nft add table inet fwsink && nft 'add chain inet fwsink c { type filter hook prerouting priority -400; }' && "
      "nft add rule inet fwsink c counter");
   auto const arrived = [&]() -> std::uint64_t {
      auto const j = nft().listJson("list chain inet fwsink c");
      for (auto const& item : (*j)["nftables"]) {
         if (!item.contains("rule")) continue;
         for (auto const& x : item["rule"]["expr"]) {
            if (x.contains("counter")) return x["counter"]["packets"];
         }
      }
      return 0;
   };
   auto const send = [&](std::vector<std::uint8_t> f) {
      std::copy(dst, dst + 6, f.begin());
      std::uint64_t const before = arrived();
      ASSERT_EQ(::sendto(s, f.data(), f.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
                static_cast<ssize_t>(f.size()));
      for (int i = 0; i < 500 && arrived() == before; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   };
   for (auto const& pc : Fwd::Test::packetCases()) {
      Fwd::Test::CompilerRow const* const row = &Fwd::Test::rowNamed(pc.row);
      SCOPED_TRACE(std::string(row->name) + ": " + row->text + " / " + row->actions);
      Rule const r = ruleOf(row->text, row->actions);
      ASSERT_TRUE(table.apply({r}).ok);
      std::uint32_t const id = statusOf(table, r).counterId;
      for (auto const& f : Fwd::Test::framesOf(pc.hits)) {
         std::uint64_t const before = count(id);
         send(f);
         EXPECT_EQ(count(id), before + 1) << "a packet the rule matches went by: " << ::testing::PrintToString(f);
      }
      for (auto const& f : Fwd::Test::framesOf(pc.misses)) {
         std::uint64_t const before = count(id);
         send(f);
         EXPECT_EQ(count(id), before) << "a packet the rule does not match counted: " << ::testing::PrintToString(f);
      }
   }
   ::close(s);
}

TEST_F(FwdTableTest, BlocksWithDisjointDestinationsAreReachedThroughOneVerdictMap) {
   cfg_.blockSize = 2;
   Fwd::FwdTable table(cfg_, nft(), nullptr);
   std::vector<Rule> rules;
   for (int i = 1; i <= 8; ++i) rules.push_back(ruleOf("10.0." + std::to_string(i) + ".0/24;*;", "drop"));
   rules.push_back(ruleOf("protocol =17", "drop")); // no destination: a block of its own, linear
   ASSERT_TRUE(table.apply(rules).ok);
   std::string const listing = sh("nft list table inet " + cfg_.name);
   EXPECT_EQ(std::regex_search(listing, std::regex("ip daddr vmap @d[0-9]+")), true) << listing;
   EXPECT_EQ(listing.find("daddr != 10.0."), std::string::npos) << "blocks in the map need no guard\n" << listing;
   EXPECT_EQ(kernelOrder(), expectedOrder(table));
   // A prefix over all of them sorts after them: it must not be reached through the map.
   rules.push_back(ruleOf("10.0.0.0/16;*;", "accept"));
   ASSERT_TRUE(table.apply(rules).ok);
   EXPECT_EQ(kernelOrder(), expectedOrder(table));
   // Taking rules out of the middle merges blocks and rewrites the map.
   rules.erase(rules.begin() + 2, rules.begin() + 5);
   ASSERT_TRUE(table.apply(rules).ok);
   EXPECT_EQ(kernelOrder(), expectedOrder(table));
}

TEST_F(FwdTableTest, ChangesKeepThePrecedenceOrderThroughSplitsAndMerges) {
   cfg_.blockSize = 3;
   Fwd::FwdTable table(cfg_, nft(), nullptr);
   std::mt19937 gen(18);
   auto const draw = [&gen](std::uint32_t n) { return static_cast<std::uint32_t>(gen() % n); };
   // A pool of keys that nest and interleave: prefixes of several lengths, ports, no prefix.
   std::vector<std::string> pool;
   for (std::uint32_t i = 0; i < 60; ++i) {
      std::uint32_t const len = 8 + 8 * (i % 3);
      std::string const prefix =
          "10." + std::to_string(i % 4) + "." + std::to_string(i % 7) + ".0/" + std::to_string(len);
      pool.push_back(i % 10 == 9 ? "protocol =" + std::to_string(i)
                                 : prefix + ";*;destination-port =" + std::to_string(i));
   }
   std::map<std::string, Rule> live;
   for (int round = 0; round < 60; ++round) {
      SCOPED_TRACE("round " + std::to_string(round));
      int const changes = round == 0 ? 30 : 1 + static_cast<int>(draw(4));
      for (int c = 0; c < changes; ++c) {
         std::string const& text = pool[draw(static_cast<std::uint32_t>(pool.size()))];
         if (live.count(text) != 0 && draw(3) == 0) {
            live.erase(text);
         } else {
            live[text] = ruleOf(text, draw(2) == 0 ? "drop" : "dscp=" + std::to_string(draw(64)));
         }
      }
      std::vector<Rule> rules;
      for (auto const& [t, r] : live) rules.push_back(r);
      Fwd::ApplyReport const rep = table.apply(rules);
      ASSERT_TRUE(rep.ok) << rep.error;
      EXPECT_EQ(rep.full, round == 0);
      ASSERT_EQ(kernelOrder(), expectedOrder(table));
   }
   EXPECT_GT(table.blockCount(), 3u);
}

TEST_F(FwdTableTest, ARuleNftablesRefusesIsNotInstalledAndTheOthersAre) {
   Fwd::FwdTable table(cfg_, nft(), nullptr);
   // This kernel keeps byte rates below 2^64 nanobytes a second: 1e11 bytes/second overflows.
   Rule const tooFast = ruleOf("10.0.0.2/32;*;", "police=1e11");
   std::vector<Rule> const rules = {ruleOf("10.0.0.1/32;*;", "drop"), tooFast, ruleOf("10.0.0.3/32;*;", "police=1000")};
   for (int pass = 0; pass < 2; ++pass) { // a full install, then a change beside it
      SCOPED_TRACE(pass);
      std::vector<Rule> now = rules;
      if (pass == 1) now.push_back(ruleOf("10.0.0.4/32;*;", "drop"));
      Fwd::ApplyReport const rep = table.apply(now);
      ASSERT_TRUE(rep.ok) << rep.error;
      Fwd::RuleStatus const s = statusOf(table, tooFast);
      EXPECT_FALSE(s.installed);
      EXPECT_EQ(s.reason, "nftables: Could not process rule: Value too large for defined data type");
      EXPECT_EQ(kernelOrder().size(), now.size() - 1);
   }
}

TEST_F(FwdTableTest, CountersSurviveTheirBlockBeingRewritten) {
   Fwd::FwdTable table(cfg_, nft(), nullptr);
   Rule const counted = ruleOf("127.0.0.2/32;*;protocol =17;", "accept");
   ASSERT_TRUE(table.apply({counted, ruleOf("127.0.0.3/32;*;", "drop")}).ok);
   auto const send = [](int n) {
      sh("python3 -c \"import socket; s=socket.socket(socket.AF_INET, socket.SOCK_DGRAM); "
         "[s.sendto(b'x' * 72, ('127.0.0.2', 9)) for _ in range(" +
         std::to_string(n) + ")]\"");
   };
   auto const count = [this, &table, &counted]() -> std::pair<std::uint64_t, std::uint64_t> {
      std::uint32_t const id = statusOf(table, counted).counterId;
      auto const j = nft().listJson("list set inet " + cfg_.name + " rule_counts");
      for (auto const& item : (*j)["nftables"]) {
         if (!item.contains("set")) continue;
         for (auto const& el : item["set"]["elem"]) {
            if (el["elem"]["val"] == id) return {el["elem"]["counter"]["packets"], el["elem"]["counter"]["bytes"]};
         }
      }
      return {0, 0};
   };
   send(5);
   EXPECT_EQ(count(), (std::pair<std::uint64_t, std::uint64_t>{5, 500}));
   // Changing the other rule rewrites the block both sit in.
   ASSERT_TRUE(table.apply({counted, ruleOf("127.0.0.3/32;*;", "dscp=1")}).ok);
   send(3);
   EXPECT_EQ(count(), (std::pair<std::uint64_t, std::uint64_t>{8, 800}));
}

TEST_F(FwdTableTest, AFullInstallReplacesATableOfTheSameName) {
   sh("nft add table inet fwdtest && nft add chain inet fwdtest stranger && nft add rule inet fwdtest stranger accept");
   Fwd::FwdTable table(cfg_, nft(), nullptr);
   ASSERT_TRUE(table.apply({ruleOf("10.0.0.1/32;*;", "drop")}).ok);
   EXPECT_EQ(sh("nft list table inet fwdtest").find("stranger"), std::string::npos);
   table.remove();
   EXPECT_NE(sh("nft list table inet fwdtest").find("No such file"), std::string::npos);
}

// The follower: refusals of what is not an FSIB leave the table as it was.
class ForwarderTest : public FwdTableTest {
 protected:
   std::string listing() { return sh("nft list ruleset"); }
   Fwd::Forwarder::Step freshStep(Fwd::FwdTable& table, std::string const& segment) {
      std::ostringstream log;
      Fwd::Forwarder f({segment, "", 1000, 5000}, table, log);
      Fwd::Forwarder::Step const s = f.step();
      log_ = log.str();
      return s;
   }
   std::string log_;
};

TEST_F(ForwarderTest, FollowsTheGenerationAndRefusesForeignOrDamagedSegments) {
   Mnemo::Test::ScopedSegment seg("fwd");
   auto set = Mnemo::SlateRuleSet::attach(seg.name(), 64);
   ASSERT_TRUE(set.ok());
   set.value()->ruleIs(ruleOf("10.0.0.1/32;*;", "drop"));
   Fwd::FwdTable table(cfg_, nft(), nullptr);
   std::ostringstream log;
   Fwd::Forwarder f({seg.name(), "", 1, 5}, table, log);
   EXPECT_EQ(f.step(), Fwd::Forwarder::Step::applied);
   EXPECT_EQ(f.step(), Fwd::Forwarder::Step::unchanged);
   set.value()->ruleIs(ruleOf("10.0.0.2/32;*;", "drop"));
   EXPECT_EQ(f.step(), Fwd::Forwarder::Step::applied);
   EXPECT_EQ(f.lastReport().added, 1u);
   EXPECT_FALSE(f.lastReport().full);
   std::string const before = listing();
   ASSERT_NE(before.find("10.0.0.2"), std::string::npos);
   set.value()->detach();

   int const fd = ::shm_open(seg.name().c_str(), O_RDWR, 0);
   ASSERT_GE(fd, 0);
   struct stat st {};
   ASSERT_EQ(::fstat(fd, &st), 0);
   void* base = ::mmap(nullptr, static_cast<std::size_t>(st.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   ASSERT_NE(base, MAP_FAILED);
   auto* hdr = static_cast<Mnemo::SlateLayout::Header*>(base);
   auto* bytes = static_cast<unsigned char*>(base);

   // Damaged records: every heap byte scrambled, and the generation moved.
   std::vector<unsigned char> heap(bytes + hdr->heapOffset, bytes + hdr->heapUsed.load() + hdr->heapOffset);
   for (std::uint64_t i = hdr->heapOffset; i < hdr->heapOffset + hdr->heapUsed.load(); ++i) bytes[i] = 0xa5;
   hdr->generation += 2;
   EXPECT_EQ(f.step(), Fwd::Forwarder::Step::refused);
   EXPECT_NE(log.str().find("damaged records: table inet fwdtest left as it was"), std::string::npos) << log.str();
   EXPECT_EQ(listing(), before);
   std::copy(heap.begin(), heap.end(), bytes + hdr->heapOffset);

   // Another format version.
   hdr->formatVersion += 1;
   EXPECT_EQ(freshStep(table, seg.name()), Fwd::Forwarder::Step::refused);
   EXPECT_NE(log_.find("refused the FSIB segment"), std::string::npos) << log_;
   EXPECT_EQ(listing(), before);
   hdr->formatVersion -= 1;
   EXPECT_EQ(freshStep(table, seg.name()), Fwd::Forwarder::Step::applied);

   // Truncated inside the records, then before them.
   std::uint64_t const heapOffset = hdr->heapOffset;
   ::munmap(base, static_cast<std::size_t>(st.st_size));
   for (std::uint64_t size : {heapOffset + 8, heapOffset - 8}) {
      SCOPED_TRACE(size);
      ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(size)), 0);
      EXPECT_EQ(freshStep(table, seg.name()), Fwd::Forwarder::Step::refused) << log_;
      EXPECT_EQ(listing(), before);
   }
   ::close(fd);
}

} // namespace
