// The per-session RIB-out over a RIB table of a test family: who is sent what, when, and how
// much is held back while the output is full.
#include "host/bgp/AdjRibOut.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

#include "tests/host/bgp/UpdateBuilder.h"

namespace Routing::Bgp {
namespace {

using namespace BgpTest;

// A key of the test family: its NLRI is a length byte of 4 and its number.
class NumberKey : public RouteKey {
 public:
   explicit NumberKey(std::uint32_t n, std::size_t pad = 0) : n_(n), pad_(pad) {}
   std::uint32_t hash() const override { return n_ * 2654435761u; }
   bool compare(Ovk::DedupHandle const* other) const override { return static_cast<NumberKey const*>(other)->n_ == n_; }
   Afi afi() const override { return Afi::afiIpv4; }
   std::uint8_t safi() const override { return Safi::flowspec; }
   bool lessThan(Ovk::Ptr<RouteKeyBase const> const& other) const override {
      return n_ <= static_cast<NumberKey const&>(*other).n_;
   }
   Ovk::String serialize(SerializeOperation, Ovk::Ptr<RouteKeySerializeArguments const> const&) const override {
      // A rule padded past any message: the two-byte length form, as flowspec writes it.
      if (pad_ != 0) {
         Bytes b{static_cast<std::uint8_t>(0xf0 | (pad_ >> 8)), static_cast<std::uint8_t>(pad_ & 0xff)};
         putU32(b, n_);
         b.resize(2 + pad_, 0);
         return Ovk::String(b.data(), b.size());
      }
      Bytes b{4};
      putU32(b, n_);
      return Ovk::String(b.data(), b.size());
   }

 private:
   std::uint32_t n_;
   std::size_t pad_;
};

class NumberTable : public RouteKeyDedupTable {
 public:
   NumberTable() : RouteKeyDedupTable(AfiSafi::ipv4Flowspec(), BgpVrfIdBase{}) {}
};

class Output : public BgpPeerOutput {
 public:
   void sendUpdate(std::span<std::uint8_t const> m) override {
      messages.emplace_back(m.begin(), m.end());
      queued += m.size();
   }
   void sendEndOfRib(AfiSafi) override { messages.push_back({}); }
   void sendRouteRefresh(AfiSafi) override {}
   std::size_t queuedBytes() const override { return queued; }
   void drainedCallbackIs(std::function<void()> d) override { drained = std::move(d); }
   void drain() {
      queued = 0;
      if (drained) drained();
   }
   std::vector<Bytes> messages; // an empty one: End-of-RIB
   std::size_t queued = 0;
   std::function<void()> drained;
};

// What the messages say, in order: "+n" announced, "-n" withdrawn, "EoR".
std::vector<std::string> said(std::vector<Bytes> const& messages) {
   std::vector<std::string> out;
   for (Bytes const& m : messages) {
      if (m.empty()) {
         out.push_back("EoR");
         continue;
      }
      ByteView attrs = ByteView(m).subspan(23);
      while (attrs.size() >= 4) {
         std::size_t const hdr = (attrs[0] & BgpAttrFlag::extendedLength) ? 4 : 3;
         std::size_t const len = hdr == 4 ? (std::size_t{attrs[2]} << 8 | attrs[3]) : attrs[2];
         ByteView v = attrs.subspan(hdr, len);
         if (attrs[1] == BgpAttrType::mpReachNlri || attrs[1] == BgpAttrType::mpUnreachNlri) {
            bool const reach = attrs[1] == BgpAttrType::mpReachNlri;
            v = v.subspan(3);
            if (reach) v = v.subspan(1 + v[0] + 1);
            while (v.size() >= 5) {
               std::uint32_t const n =
                   std::uint32_t{v[1]} << 24 | std::uint32_t{v[2]} << 16 | std::uint32_t{v[3]} << 8 | v[4];
               out.push_back((reach ? "+" : "-") + std::to_string(n));
               v = v.subspan(5);
            }
         }
         attrs = attrs.subspan(hdr + len);
      }
   }
   return out;
}

using Said = std::vector<std::string>;

struct Env {
   Env() {
      local = kLocalRibSource;
      ebgp = sources->sourceIs(peerOf("10.0.0.2", 65002));
      ibgp = sources->sourceIs(peerOf("10.0.0.3", 65001));
      ibgp2 = sources->sourceIs(peerOf("10.0.0.4", 65001));
   }
   ~Env() {
      ribOuts.clear();
      for (RibSource s : {local, ebgp, ibgp, ibgp2}) table->pathDelAll(s);
   }
   static BgpPeer peerOf(char const* address, std::uint32_t as) {
      return BgpPeer{*Ovnet::IpGenAddr::parse(address), as, 65001, 1, BgpVrfIdBase{}};
   }
   Ovk::Ptr<RouteKey const> key(std::uint32_t n, std::size_t pad = 0) {
      return newRouteKey<NumberKey>(n, pad)->dedupRouteKey(keys.ptr());
   }
   Ovk::Ptr<RtAttr const> attr(std::uint32_t med = 0) {
      PathAttributesContents c;
      c.origin = BgpOrigin::igp;
      c.med = med;
      return attrs->rtAttrIs(std::move(c));
   }
   void path(std::uint32_t n, RibSource s, std::uint32_t med = 0) {
      table->pathIs(*key(n), s, attr(med));
      table->flushChanges();
   }
   void gone(std::uint32_t n, RibSource s) {
      table->pathDel(*key(n), s);
      table->flushChanges();
   }
   SessionRibOut& ribOut(BgpPeer const& to, RibSource self, SessionRibOut::Options o = {}) {
      ribOuts.push_back(Ovk::makePtr<SessionRibOut>(to, self, UpdateSession{true, to.internal()}, table, nullptr, attrs,
                                                    output, scheduler, o));
      ribOuts.back()->start();
      return *ribOuts.back();
   }
   Said run() {
      scheduler->runReady();
      Said s = said(output.messages);
      output.messages.clear();
      return s;
   }

   Ovk::Ptr<NumberTable> keys = Ovk::makePtr<NumberTable>();
   Ovk::Ptr<RtAttrDedupTable> attrs = RtAttrDedupTable::create();
   Ovk::Ptr<RibSources> sources = RibSources::create(BgpPeer{});
   Ovk::Ptr<RibTable> table = Ovk::makePtr<RibTable>(BgpVrfIdBase{}, kIpv4Flowspec, sources);
   Ovk::Ptr<Ovk::ManualScheduler> scheduler = Ovk::ManualScheduler::create();
   Output output;
   RibSource local = 0, ebgp = 0, ibgp = 0, ibgp2 = 0;
   std::vector<Ovk::Ptr<SessionRibOut>> ribOuts;
};

// ---- Who is sent what ----

TEST(AdjRibOutTest, PolicyBySourceAndTarget) {
   struct Row {
      char const* name;
      char source; // l(ocal), e(BGP peer), i(BGP peer), s(elf: the target itself)
      bool targetInternal;
      bool sent;
   };
   std::vector<Row> const rows{
       {"local-to-external", 'l', false, true},       {"local-to-internal", 'l', true, true},
       {"external-to-external", 'e', false, true},    {"external-to-internal", 'e', true, true},
       {"internal-to-external", 'i', false, true},    {"internal-to-internal", 'i', true, false},
       {"split-horizon-external", 's', false, false}, {"split-horizon-internal", 's', true, false},
   };
   for (Row const& row : rows) {
      SCOPED_TRACE(row.name);
      Env env;
      // The target: 10.0.0.9 in AS 65009 or 65001.
      BgpPeer const to = Env::peerOf("10.0.0.9", row.targetInternal ? 65001 : 65009);
      RibSource const self = env.sources->sourceIs(to);
      RibSource const from = row.source == 'l'   ? env.local
                             : row.source == 'e' ? env.ebgp
                             : row.source == 'i' ? env.ibgp
                                                 : self;
      env.path(1, from);
      SessionRibOut& r = env.ribOut(to, self);
      EXPECT_EQ(env.run(), row.sent ? (Said{"+1", "EoR"}) : (Said{"EoR"}));
      EXPECT_EQ(r.findAdvertisedPath(*env.key(1)) != nullptr, row.sent);
      // And when the path comes after the table went out.
      env.path(2, from);
      EXPECT_EQ(env.run(), row.sent ? Said{"+2"} : Said{});
      env.table->pathDelAll(self);
   }
}

TEST(AdjRibOutTest, ExternalPeersGetTheLocalAsAndInternalOnesLocalPref) {
   Env env;
   env.path(1, env.local);
   SessionRibOut& ext =
       env.ribOut(Env::peerOf("10.0.0.9", 65009), env.sources->sourceIs(Env::peerOf("10.0.0.9", 65009)));
   SessionRibOut& in =
       env.ribOut(Env::peerOf("10.0.0.8", 65001), env.sources->sourceIs(Env::peerOf("10.0.0.8", 65001)));
   env.run();
   PathAttributesContents const& e = ext.findAdvertisedPath(*env.key(1))->attrs->contents();
   EXPECT_EQ(e.asPathText(), "65001");
   EXPECT_EQ(e.localPref, std::nullopt);
   PathAttributesContents const& i = in.findAdvertisedPath(*env.key(1))->attrs->contents();
   EXPECT_EQ(i.asPathText(), "");
   EXPECT_EQ(i.localPref, std::optional<std::uint32_t>(100));
   // A key built for a lookup (an orphan of the table) finds what the peer holds.
   auto orphan = newRouteKey<NumberKey>(1u);
   orphan->orphanIs(env.keys);
   EXPECT_EQ(ext.findAdvertisedPath(*orphan), ext.findAdvertisedPath(*env.key(1)));
   auto absent = newRouteKey<NumberKey>(99u);
   absent->orphanIs(env.keys);
   EXPECT_EQ(ext.findAdvertisedPath(*absent), nullptr);
}

TEST(AdjRibOutTest, WithdrawnWhenTheBestPathGoesOrMayNoLongerBeSent) {
   Env env;
   BgpPeer const to = Env::peerOf("10.0.0.9", 65001); // internal
   RibSource const self = env.sources->sourceIs(to);
   env.path(1, env.ebgp);
   env.path(2, env.ebgp);
   SessionRibOut& r = env.ribOut(to, self);
   EXPECT_EQ(env.run(), (Said{"+1", "+2", "EoR"}));
   env.gone(1, env.ebgp);
   EXPECT_EQ(env.run(), Said{"-1"});
   // An internal peer's path wins (higher LOCAL_PREF would; here the external one goes and
   // the internal one stays): it may not go to an internal peer.
   env.table->pathIs(*env.key(2), env.ibgp, env.attr());
   env.gone(2, env.ebgp);
   EXPECT_EQ(env.run(), Said{"-2"});
   EXPECT_EQ(r.advertisedRoutes(), 0u);
   // Nothing more to say about a rule the peer does not have.
   env.gone(2, env.ibgp);
   EXPECT_EQ(env.run(), Said{});
   EXPECT_EQ(r.counters().withdrawn, 2u);
}

TEST(AdjRibOutTest, ANewAttributeSetIsSentAndTheSameOneIsNot) {
   Env env;
   BgpPeer const to = Env::peerOf("10.0.0.9", 65009);
   SessionRibOut& r = env.ribOut(to, env.sources->sourceIs(to));
   env.run();
   env.path(1, env.ebgp);
   EXPECT_EQ(env.run(), Said{"+1"});
   env.path(1, env.ebgp); // the same attributes
   EXPECT_EQ(env.run(), Said{});
   env.path(1, env.local); // a better path: the agent's own, which keeps its MED
   EXPECT_EQ(env.run(), Said{"+1"});
   EXPECT_EQ(r.findAdvertisedPath(*env.key(1))->source, env.local);
   EXPECT_EQ(r.counters().advertised, 2u);
}

// ---- Pacing, intervals, refresh ----

TEST(AdjRibOutTest, OutputIsWrittenOnlyWhileItHasRoomAndEndOfRibFollowsTheTable) {
   Env env;
   for (std::uint32_t n = 1; n <= 3000; ++n) env.table->pathIs(*env.key(n), env.local, env.attr(n % 3));
   env.table->flushChanges();
   SessionRibOut::Options o;
   o.highWaterBytes = 4096;
   o.keysPerStep = 500;
   BgpPeer const to = Env::peerOf("10.0.0.9", 65009);
   SessionRibOut& r = env.ribOut(to, env.sources->sourceIs(to), o);
   std::set<std::string> announced;
   std::size_t rounds = 0;
   env.scheduler->runReady();
   while (true) {
      Said const s = said(env.output.messages);
      env.output.messages.clear();
      // Steps of 500 keys go out until the output holds 4096 bytes: two here.
      EXPECT_LE(s.size(), 1000u + 1);
      announced.insert(s.begin(), s.end());
      if (!s.empty() && s.back() == "EoR") break;
      ASSERT_LT(++rounds, 100u);
      EXPECT_GT(r.pendingRoutes(), 0u);
      env.output.drain();
   }
   EXPECT_EQ(announced.size(), 3001u); // every rule once, and End-of-RIB
   EXPECT_TRUE(r.initialTableSent());
   EXPECT_EQ(r.advertisedRoutes(), 3000u);
   // Three attribute sets per step of 500: few messages.
   EXPECT_LE(r.counters().updates, 6u * 3 + 3);
}

TEST(AdjRibOutTest, TheIntervalCoalescesAStormIntoItsLatestState) {
   Env env;
   SessionRibOut::Options o;
   o.minRouteAdvertisementInterval = std::chrono::seconds(5);
   BgpPeer const to = Env::peerOf("10.0.0.9", 65009);
   SessionRibOut& r = env.ribOut(to, env.sources->sourceIs(to), o);
   EXPECT_EQ(env.run(), Said{"EoR"}); // the initial table waits for no interval
   env.path(1, env.ebgp);
   env.path(2, env.ebgp);
   // Enough changes for the list of keys to look at to be compacted on the way.
   for (std::uint32_t med = 1; med <= 6000; ++med) env.path(1, env.ebgp, med);
   EXPECT_GT(r.compactedEntries(), 0u);
   EXPECT_LE(r.pendingRoutes(), 4200u);
   env.gone(2, env.ebgp);
   EXPECT_EQ(env.run(), Said{});
   env.output.drain(); // the output writing something out changes nothing
   EXPECT_EQ(env.run(), Said{});
   env.scheduler->advance(std::chrono::seconds(4));
   EXPECT_EQ(env.run(), Said{});
   env.scheduler->advance(std::chrono::seconds(1));
   EXPECT_EQ(env.run(), Said{"+1"});
   EXPECT_EQ(r.findAdvertisedPath(*env.key(1))->attrs->contents().med, std::nullopt); // learnt MED stays home
   EXPECT_EQ(r.counters().updates, 1u);
   // The next change waits for the interval from that UPDATE on.
   env.gone(1, env.ebgp);
   env.scheduler->advance(std::chrono::seconds(4));
   EXPECT_EQ(env.run(), Said{});
   env.scheduler->advance(std::chrono::seconds(1));
   EXPECT_EQ(env.run(), Said{"-1"});
}

TEST(AdjRibOutTest, RouteRefreshSendsTheTableAgainWithoutEndOfRib) {
   Env env;
   env.path(1, env.local);
   env.path(2, env.ebgp);
   BgpPeer const to = Env::peerOf("10.0.0.9", 65009);
   SessionRibOut::Options o;
   o.minRouteAdvertisementInterval = std::chrono::seconds(10);
   SessionRibOut& r = env.ribOut(to, env.sources->sourceIs(to), o);
   Said s = env.run();
   std::sort(s.begin(), s.end()); // in the order of their attribute sets
   EXPECT_EQ(s, (Said{"+1", "+2", "EoR"}));
   env.path(3, env.ebgp); // waits for the interval, as does the withdrawal of 2
   env.gone(2, env.ebgp);
   EXPECT_EQ(env.run(), Said{});
   // A refresh goes at once, with what was waiting, each rule once.
   r.routeRefresh();
   s = env.run();
   std::sort(s.begin(), s.end());
   EXPECT_EQ(s, (Said{"+1", "+3", "-2"}));
   EXPECT_EQ(r.counters().refreshes, 1u);
}

TEST(AdjRibOutTest, SplitHorizonCostsNothingPerRule) {
   Env env;
   BgpPeer const to = Env::peerOf("10.0.0.9", 65009);
   RibSource const self = env.sources->sourceIs(to);
   SessionRibOut& r = env.ribOut(to, self);
   env.run();
   for (std::uint32_t n = 1; n <= 100; ++n) env.table->pathIs(*env.key(n), self, env.attr());
   env.table->flushChanges();
   EXPECT_EQ(r.pendingRoutes(), 0u);
   EXPECT_EQ(env.scheduler->pending(), 0u);
}

TEST(AdjRibOutTest, ARuleTooLongForOneUpdateIsNeverSentAndCounted) {
   Env env;
   BgpPeer const to = Env::peerOf("10.0.0.9", 65009);
   SessionRibOut& r = env.ribOut(to, env.sources->sourceIs(to));
   env.run();
   env.table->pathIs(*env.key(7, 4080), env.local, env.attr());
   env.table->flushChanges();
   EXPECT_EQ(env.run(), Said{});
   EXPECT_EQ(r.counters().unsendable, 1u);
   EXPECT_EQ(r.advertisedRoutes(), 0u);
}

// A rule the peer has is withdrawn when its new attributes leave no room for it.
TEST(AdjRibOutTest, ARuleThatNoLongerFitsIsWithdrawn) {
   Env env;
   BgpPeer const to = Env::peerOf("10.0.0.9", 65009);
   SessionRibOut& r = env.ribOut(to, env.sources->sourceIs(to));
   env.run();
   Ovk::Ptr<RouteKey const> const big = env.key(7, 4030); // 4032 bytes of NLRI
   env.table->pathIs(*big, env.local, env.attr());
   env.table->flushChanges();
   env.scheduler->runReady();
   ASSERT_EQ(env.output.messages.size(), 1u);
   EXPECT_EQ(r.advertisedRoutes(), 1u);
   PathAttributesContents c = env.attr()->contents();
   c.communities.assign(10, 0xfde80001);
   env.table->pathIs(*big, env.local, env.attrs->rtAttrIs(std::move(c)));
   env.table->flushChanges();
   env.output.messages.clear();
   env.scheduler->runReady();
   ASSERT_EQ(env.output.messages.size(), 1u);
   EXPECT_EQ(env.output.messages[0][23 + 1], BgpAttrType::mpUnreachNlri);
   EXPECT_EQ(r.advertisedRoutes(), 0u);
   EXPECT_EQ(r.counters().unsendable, 1u);
   EXPECT_EQ(r.counters().withdrawn, 1u);
}

// A table of many routes going at once, held back by a full output: every key is looked at
// again once, and keeping that list costs a bounded number of entries per key (a session of
// a million routes going used to sort the whole list once per key).
TEST(AdjRibOutTest, ATableGoingAtOnceCostsBoundedWorkPerRoute) {
   Env env;
   constexpr std::uint32_t kRoutes = 30000;
   for (std::uint32_t n = 1; n <= kRoutes; ++n) env.table->pathIs(*env.key(n), env.ebgp, env.attr());
   env.table->flushChanges();
   SessionRibOut& r = env.ribOut(Env::peerOf("10.0.0.9", 65009), env.sources->sourceIs(Env::peerOf("10.0.0.9", 65009)));
   env.run();
   while (!r.initialTableSent()) env.output.drain();
   ASSERT_EQ(r.advertisedRoutes(), kRoutes);
   env.output.messages.clear();
   env.output.queued = SessionRibOut::Options{}.highWaterBytes; // the peer reads nothing meanwhile
   env.table->pathDelAll(env.ebgp);
   env.table->flushChanges();
   EXPECT_EQ(r.pendingRoutes(), kRoutes);
   EXPECT_LE(r.compactedEntries(), 4u * kRoutes);
   env.output.queued = 0;
   env.scheduler->runReady();
   while (r.pendingRoutes() > 0) env.output.drain();
   EXPECT_EQ(r.advertisedRoutes(), 0u);
   EXPECT_EQ(r.counters().withdrawn, kRoutes);
}

TEST(AdjRibOutTest, StartTwiceIsABrokenInvariant) {
   Env env;
   BgpPeer const to = Env::peerOf("10.0.0.9", 65009);
   SessionRibOut& r = env.ribOut(to, env.sources->sourceIs(to));
   EXPECT_DEATH(r.start(), "!running_");
}

TEST(AdjRibOutTest, StopEndsFollowingTheTable) {
   Env env;
   BgpPeer const to = Env::peerOf("10.0.0.9", 65009);
   SessionRibOut& r = env.ribOut(to, env.sources->sourceIs(to));
   env.run();
   r.stop();
   env.path(1, env.local);
   EXPECT_EQ(env.run(), Said{});
   EXPECT_EQ(r.pendingRoutes(), 0u);
}

} // namespace
} // namespace Routing::Bgp
