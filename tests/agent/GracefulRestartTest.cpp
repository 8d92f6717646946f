#include "agent/GracefulRestart.h"

#include <gtest/gtest.h>

namespace Flowspecd {
namespace {

AfiSafi const v4 = AfiSafi::ipv4Flowspec();
AfiSafi const v6 = AfiSafi::ipv6Flowspec();

Ovnet::IpGenAddr addr(char const* text) { return *Ovnet::IpGenAddr::parse(text); }

// A session that negotiated both families; the peer's capability as given.
Negotiated negotiated(std::optional<GracefulRestartCapability> peer, bool nBitBoth = false) {
   Negotiated n;
   n.families = {v4, v6};
   n.peerGracefulRestart = std::move(peer);
   n.gracefulNotification = nBitBoth;
   return n;
}

GracefulRestartCapability capability(std::vector<GracefulRestartFamily> families, bool restarting = false) {
   GracefulRestartCapability c;
   c.restartTime = 120;
   c.restarting = restarting;
   c.families = std::move(families);
   return c;
}

// The receiving side's whole table: every event in every state, with what happens to the
// peer's paths. Rows not listed change nothing.
TEST(GracefulRestartTest, TheHelperTableDecidesWhatHappensToStalePaths) {
   using S = GrState;
   using E = GrEvent;
   using A = GrAction;
   struct Row {
      S state;
      E event;
      S next;
      A action;
   };
   std::vector<Row> const rows = {
       {S::live, E::sessionLostGracefully, S::restarting, A::keepAsStale},
       {S::live, E::sessionLost, S::live, A::purgeAll},
       {S::restarting, E::sessionUpKeepingForwarding, S::waitingEndOfRib, A::none},
       // Back without the F bit: the forwarding state is gone, so are the stale paths.
       {S::restarting, E::sessionUp, S::live, A::purgeStale},
       {S::restarting, E::restartTimeOver, S::live, A::purgeStale},
       {S::waitingEndOfRib, E::endOfRib, S::live, A::purgeStale},
       {S::waitingEndOfRib, E::staleTimeOver, S::live, A::purgeStale},
       // Lost again before End-of-RIB: what was not re-announced goes, the rest turns stale.
       {S::waitingEndOfRib, E::sessionLostGracefully, S::restarting, A::purgeStaleAgain},
       {S::waitingEndOfRib, E::sessionLost, S::live, A::purgeAll},
   };
   for (S s : {S::live, S::restarting, S::waitingEndOfRib}) {
      for (E e : {E::sessionLostGracefully, E::sessionLost, E::sessionUpKeepingForwarding, E::sessionUp, E::endOfRib,
                  E::restartTimeOver, E::staleTimeOver}) {
         SCOPED_TRACE(std::string(toStrep(s)) + " + " + toStrep(e));
         GrStep want{s, A::none};
         for (Row const& r : rows) {
            if (r.state == s && r.event == e) want = {r.next, r.action};
         }
         GrStep const got = grStep(s, e);
         EXPECT_EQ(got.next, want.next) << toStrep(got.next);
         EXPECT_EQ(got.action, want.action) << toStrep(got.action);
      }
   }
}

// How a session's end reads for one family: the connection alone, the N bit, Hard Reset, and
// a capability that leaves the family out.
TEST(GracefulRestartTest, ASessionEndIsGracefulOnlyWhereTheRfcsSaySo) {
   Notification const cease{ErrorCode::cease, CeaseSubcode::administrativeReset, {}};
   Notification const holdExpired{ErrorCode::holdTimerExpired, 0, {}};
   auto const both = capability({{v4, true}, {v6, false}});
   auto const onlyV6 = capability({{v6, true}});
   struct Row {
      char const* name;
      Negotiated n;
      AfiSafi family;
      SessionEnd end;
      GrEvent want;
   };
   std::vector<Row> const rows = {
       {"no capability", negotiated(std::nullopt), v4, {SessionEnd::Kind::closed, {}}, GrEvent::sessionLost},
       {"family left out", negotiated(onlyV6), v4, {SessionEnd::Kind::closed, {}}, GrEvent::sessionLost},
       {"connection dropped", negotiated(both), v4, {SessionEnd::Kind::closed, {}}, GrEvent::sessionLostGracefully},
       {"F bit clear still helps", negotiated(both), v6, {SessionEnd::Kind::closed, {}},
        GrEvent::sessionLostGracefully},
       {"NOTIFICATION without N", negotiated(both), v4, {SessionEnd::Kind::notificationReceived, cease},
        GrEvent::sessionLost},
       {"NOTIFICATION sent without N", negotiated(both), v4, {SessionEnd::Kind::notificationSent, holdExpired},
        GrEvent::sessionLost},
       {"NOTIFICATION with N", negotiated(both, true), v4, {SessionEnd::Kind::notificationReceived, cease},
        GrEvent::sessionLostGracefully},
       {"hold timer with N", negotiated(both, true), v4, {SessionEnd::Kind::notificationSent, holdExpired},
        GrEvent::sessionLostGracefully},
       {"Hard Reset received", negotiated(both, true), v4,
        {SessionEnd::Kind::notificationReceived, hardReset(cease)}, GrEvent::sessionLost},
       {"Hard Reset sent", negotiated(both, true), v6, {SessionEnd::Kind::notificationSent, hardReset(holdExpired)},
        GrEvent::sessionLost},
   };
   for (Row const& r : rows) {
      std::string why;
      EXPECT_EQ(sessionLossEvent(r.n, r.family, r.end, &why), r.want) << r.name;
      EXPECT_FALSE(why.empty()) << r.name;
   }
   EXPECT_EQ(sessionUpEvent(negotiated(both), v4), GrEvent::sessionUpKeepingForwarding);
   EXPECT_EQ(sessionUpEvent(negotiated(both), v6), GrEvent::sessionUp);
   EXPECT_EQ(sessionUpEvent(negotiated(onlyV6), v4), GrEvent::sessionUp);
   EXPECT_EQ(sessionUpEvent(negotiated(std::nullopt), v6), GrEvent::sessionUp);
}

// Hard Reset wraps only what must flush the peer, only with the N bit, and never twice.
TEST(GracefulRestartTest, HardResetWrapsOnlyAFlushWithTheNBit) {
   Notification const n{ErrorCode::cease, CeaseSubcode::peerDeconfigured, {}};
   EXPECT_EQ(notificationToSend(n, true, true), hardReset(n));
   EXPECT_EQ(notificationToSend(n, true, false), n);
   EXPECT_EQ(notificationToSend(n, false, true), n);
   EXPECT_EQ(notificationToSend(hardReset(n), true, true), hardReset(n));
}

// The agent's own restart: converged once every neighbor that restarts gracefully sent
// End-of-RIB for each family of its session, and the RIB settled; neighbors without the
// capability, restarting themselves, or removed are not waited for; the deferral timer ends
// the wait whatever is missing.
TEST(GracefulRestartTest, OwnRestartConvergesOnEveryEndOfRibOrTheDeferralTimer) {
   auto const a = addr("192.0.2.1"), b = addr("192.0.2.2"), c = addr("2001:db8::3");
   std::vector<std::string> said;
   auto const record = [&said](std::string const& why) { said.push_back(why); };

   {
      RestartConvergence fresh(false, {a, b}, record);
      EXPECT_TRUE(fresh.converged());
      EXPECT_TRUE(said.empty()); // nothing to say: never restarting
   }
   {
      RestartConvergence rc(true, {a, b, c}, record);
      EXPECT_FALSE(rc.converged());
      EXPECT_EQ(rc.waitingFor().size(), 3u);
      rc.sessionUp(a, negotiated(capability({{v4, true}, {v6, true}})));
      rc.sessionUp(b, negotiated(std::nullopt));                            // no GR: not waited for
      rc.endOfRib(c, v4);                                                   // no session yet: ignored
      rc.sessionUp(c, negotiated(capability({{v4, true}}, /*restarting=*/true))); // restarting too
      ASSERT_EQ(rc.waitingFor(), std::vector<std::string>{"192.0.2.1 (End-of-RIB ipv4-flowspec ipv6-flowspec)"});
      rc.endOfRib(a, v4);
      rc.check(true);
      EXPECT_FALSE(rc.converged());
      rc.endOfRib(a, v6);
      rc.check(false); // the export still busy
      EXPECT_FALSE(rc.converged());
      rc.check(true);
      EXPECT_TRUE(rc.converged());
      ASSERT_EQ(said.size(), 1u);
      rc.deferralOver(); // once only
      EXPECT_EQ(said.size(), 1u);
   }
   said.clear();
   {
      RestartConvergence rc(true, {a, b}, record);
      rc.neighborGone(b);
      rc.sessionUp(a, negotiated(capability({{v4, true}})));
      rc.deferralOver();
      EXPECT_TRUE(rc.converged());
      ASSERT_EQ(said.size(), 1u);
      EXPECT_NE(said[0].find("still waiting for 192.0.2.1"), std::string::npos) << said[0];
   }
}

} // namespace
} // namespace Flowspecd
