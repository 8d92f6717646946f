#include "agent/Neighbor.h"

#include <gtest/gtest.h>

#include <chrono>

#include "tests/fakes/AgentFakes.h"

namespace Flowspecd {

void PrintTo(Notification const& n, std::ostream* os) {
   *os << notificationText(n) << " data " << n.data.size() << " bytes";
}

namespace {

using namespace std::chrono_literals;

Bytes hex(std::string_view h) {
   Bytes out;
   for (std::size_t i = 0; i + 1 < h.size(); i += 2) {
      out.push_back(static_cast<std::uint8_t>(std::stoi(std::string(h.substr(i, 2)), nullptr, 16)));
   }
   return out;
}

Endpoint endpoint(char const* text) { return *parseEndpoint(text); }

// A connection whose peer is the test.
class FakeTransport : public Transport {
 public:
   FakeTransport(Endpoint local, Endpoint remote) : local_(local), remote_(remote) {}
   void receiverIs(Receiver* r) override { receiver = r; }
   void send(Bytes bytes) override {
      EXPECT_FALSE(closed) << "sent after close";
      sent.push_back(std::move(bytes));
   }
   void close() override {
      closed = true;
      receiver = nullptr;
   }
   Endpoint local() const override { return local_; }
   Endpoint remote() const override { return remote_; }
   std::size_t queuedBytes() const override { return queued; }
   void drainedCallbackIs(std::function<void()> d) override { drainedCallback = std::move(d); }
   void drained() {
      if (drainedCallback) drainedCallback();
   }

   void deliver(Bytes const& bytes) {
      ASSERT_NE(receiver, nullptr) << "the neighbor does not read this connection";
      receiver->handleBytes(bytes);
   }
   void peerCloses() {
      auto* r = receiver;
      receiver = nullptr;
      r->handleClosed("end of stream");
   }
   MessageType sentType(std::size_t i) const { return static_cast<MessageType>(sent.at(i).at(18)); }
   std::vector<MessageType> sentTypes() const {
      std::vector<MessageType> t;
      for (std::size_t i = 0; i < sent.size(); ++i) t.push_back(sentType(i));
      return t;
   }
   std::size_t count(MessageType type) const {
      auto const t = sentTypes();
      return static_cast<std::size_t>(std::count(t.begin(), t.end(), type));
   }
   // The NOTIFICATION sent last; a default one when none was sent.
   Notification notification() const {
      if (sent.empty() || sentType(sent.size() - 1) != MessageType::notification) return {};
      return parseNotification(ByteView(sent.back()).subspan(kHeaderSize)).value();
   }

   Receiver* receiver = nullptr;
   std::vector<Bytes> sent;
   bool closed = false;
   std::size_t queued = 0;
   std::function<void()> drainedCallback;

 private:
   Endpoint local_;
   Endpoint remote_;
};

class FakeAttempt : public ConnectAttempt {
 public:
   void cancel() override { cancelled = true; }
   bool cancelled = false;
};

class FakeConnector : public Connector {
 public:
   struct Pending {
      Endpoint remote;
      std::optional<Ovnet::IpGenAddr> local;
      TcpSecurity security;
      Done done;
      Ovk::Ptr<FakeAttempt> attempt;
   };
   Ovk::Ptr<ConnectAttempt> connect(Endpoint const& remote, std::optional<Ovnet::IpGenAddr> local,
                                    TcpSecurity const& security, Done done) override {
      auto a = Ovk::makePtr<FakeAttempt>();
      attempts.push_back({remote, local, security, std::move(done), a});
      return a;
   }
   // Completes the latest attempt.
   Ovk::Ptr<FakeTransport> succeed() {
      auto t = Ovk::makePtr<FakeTransport>(endpoint("127.0.0.1:40000"), attempts.back().remote);
      EXPECT_FALSE(attempts.back().attempt->cancelled);
      attempts.back().done(t, "");
      return t;
   }
   void fail(std::string const& why) { attempts.back().done(nullptr, why); }
   std::vector<Pending> attempts;
};

using Fakes::Lines;

// Decodes what it gets with the host's UPDATE decoder (no family rules: routes are not read)
// and answers with what the decoder found, or with `answer` when one is set.
class RecordingSink : public UpdateSink {
 public:
   UpdateOutcome handleUpdate(BgpPeer const& peer, MessageView const& m) override {
      updates.push_back(Bytes(m.bytes.begin(), m.bytes.end()));
      peers.push_back(peer);
      UpdateOutcome o = UpdateOutcome::of(decoder.decode(m.bytes));
      if (answer) o.reset = answer;
      o.idleHoldSeconds = idleHold;
      return o;
   }
   void handleEstablished(BgpPeer const& peer, Negotiated const& n, BgpPeerOutput& out) override {
      sessions.push_back(n.families.size());
      output = &out;
      UpdateSink::handleEstablished(peer, n, out);
   }
   void handleSessionDown(BgpPeer const&, SessionEnd const& end) override {
      sessions.push_back(0);
      ends.push_back(end);
      output = nullptr;
   }
   void handleRouteRefresh(BgpPeer const&, AfiSafi family) override { refreshes.push_back(family); }
   BgpUpdateDecoder decoder{Ovk::makePtr<BgpParseContext>(nullptr, "test"), {}};
   std::vector<Bytes> updates;
   std::vector<BgpPeer> peers;
   std::vector<std::size_t> sessions; // families of each session up, 0 for each down
   std::vector<AfiSafi> refreshes;
   std::vector<SessionEnd> ends;
   BgpPeerOutput* output = nullptr;
   std::optional<Notification> answer;
   std::uint32_t idleHold = 0;
};

constexpr std::uint32_t kLocalId = 0x0a000001;
constexpr std::uint32_t kPeerId = 0x0a000002;

Bytes peerOpen(std::uint32_t as = 65002, std::uint32_t id = kPeerId, std::uint16_t hold = 9,
               std::vector<AfiSafi> families = {kIpv4Flowspec, kIpv6Flowspec}) {
   return encodeOpen(localOpen(as, hold, id, std::move(families)));
}

class NeighborTest : public testing::Test {
 protected:
   NeighborTest() {
      config.address = *Ovnet::IpGenAddr::parse("127.0.0.2");
      config.port = 1790;
      config.remoteAs = 65002;
      config.holdTime = 9;
      config.connectRetrySeconds = 5;
   }
   void make() {
      neighbor = Ovk::makePtr<Neighbor>(config, LocalSpeaker{65001, kLocalId, Ovnet::IpGenAddr::parse("127.0.0.1")},
                                        Neighbor::Deps{scheduler, connector, &logger, sinkInUse, gracefulRestart});
   }
   // Starts an active neighbor and completes its connection.
   Ovk::Ptr<FakeTransport> connectOut() {
      make();
      neighbor->start();
      return connector->succeed();
   }
   Ovk::Ptr<FakeTransport> accept(char const* from = "127.0.0.2:50000") {
      auto t = Ovk::makePtr<FakeTransport>(endpoint("127.0.0.1:1179"), endpoint(from));
      neighbor->handleIncoming(t);
      return t;
   }
   void establish(FakeTransport& t) {
      t.deliver(peerOpen());
      t.deliver(encodeKeepalive());
      ASSERT_EQ(neighbor->state(), BgpState::established);
   }

   NeighborConfig config;
   Ovk::Ptr<Ovk::ManualScheduler> scheduler = Ovk::ManualScheduler::create();
   Ovk::Ptr<FakeConnector> connector = Ovk::makePtr<FakeConnector>();
   Lines logger;
   RecordingSink sink;
   UpdateSink* sinkInUse = &sink;
   std::function<std::optional<GracefulRestartCapability>(std::vector<AfiSafi> const&)> gracefulRestart;
   Ovk::Ptr<Neighbor> neighbor;
};

TEST_F(NeighborTest, ActiveNeighborReachesEstablished) {
   make();
   EXPECT_EQ(neighbor->state(), BgpState::idle);
   neighbor->start();
   EXPECT_EQ(neighbor->state(), BgpState::connect);
   ASSERT_EQ(connector->attempts.size(), 1u);
   EXPECT_EQ(connector->attempts[0].remote.str(), "127.0.0.2:1790");
   EXPECT_EQ(connector->attempts[0].local->str(), "127.0.0.1");

   auto t = connector->succeed();
   EXPECT_EQ(neighbor->state(), BgpState::openSent);
   ASSERT_EQ(t->sentTypes(), std::vector<MessageType>{MessageType::open});
   auto ours = parseOpen(ByteView(t->sent[0]).subspan(kHeaderSize));
   ASSERT_TRUE(ours.ok());
   EXPECT_EQ(ours.value().as(), 65001u);
   EXPECT_EQ(ours.value().holdTime, 9);
   EXPECT_EQ(ours.value().bgpId, kLocalId);
   EXPECT_EQ(ours.value().families, (std::vector<AfiSafi>{kIpv4Flowspec, kIpv6Flowspec}));
   EXPECT_TRUE(ours.value().routeRefresh);

   t->deliver(peerOpen(65002, kPeerId, 30, {kIpv6Flowspec}));
   EXPECT_EQ(neighbor->state(), BgpState::openConfirm);
   EXPECT_EQ(t->sentType(1), MessageType::keepalive);
   t->deliver(encodeKeepalive());
   EXPECT_EQ(neighbor->state(), BgpState::established);
   // One End-of-RIB per negotiated family.
   EXPECT_EQ(t->sentTypes(),
             (std::vector<MessageType>{MessageType::open, MessageType::keepalive, MessageType::update}));

   scheduler->advance(4s);
   NeighborStatus const s = neighbor->status();
   EXPECT_EQ(s.state, BgpState::established);
   EXPECT_EQ(s.uptimeSeconds, 4u);
   EXPECT_EQ(s.negotiated.families, std::vector<AfiSafi>{kIpv6Flowspec});
   EXPECT_EQ(s.negotiated.holdTime, 9);
   EXPECT_EQ(capabilityNames(s.negotiated),
             (std::vector<std::string>{"multiprotocol", "route-refresh", "four-octet-as"}));
   EXPECT_EQ(s.remoteRouterId, kPeerId);
   EXPECT_EQ(s.counters.establishedTransitions, 1u);
   EXPECT_EQ(s.counters.updatesOut, 1u);
   EXPECT_EQ(s.counters.messagesIn, 2u);
   EXPECT_EQ(s.lastError, "");
   EXPECT_TRUE(logger.contains("127.0.0.2 state OpenConfirm -> Established"));
}

TEST_F(NeighborTest, KeepalivesHoldTheSessionAndSilenceExpiresIt) {
   auto t = connectOut();
   establish(*t);
   std::size_t const before = t->count(MessageType::keepalive);
   // The peer keeps talking: two hold times pass, we send a keepalive every third of one.
   for (int i = 0; i < 6; ++i) {
      scheduler->advance(3s);
      t->deliver(encodeKeepalive());
   }
   EXPECT_EQ(neighbor->state(), BgpState::established);
   EXPECT_EQ(t->count(MessageType::keepalive) - before, 6u);
   // Then it falls silent.
   scheduler->advance(8s);
   EXPECT_EQ(neighbor->state(), BgpState::established);
   scheduler->advance(1s);
   EXPECT_TRUE(t->closed);
   EXPECT_EQ(t->notification(), (Notification{ErrorCode::holdTimerExpired, 0, {}}));
   EXPECT_EQ(neighbor->status().lastError, "sent NOTIFICATION Hold Timer Expired (4/0)");
   // Back to Active; the next attempt comes after connect-retry.
   EXPECT_EQ(neighbor->state(), BgpState::active);
   EXPECT_EQ(connector->attempts.size(), 1u);
   scheduler->advance(5s);
   EXPECT_EQ(neighbor->state(), BgpState::connect);
   EXPECT_EQ(connector->attempts.size(), 2u);
}

TEST_F(NeighborTest, TruncatedMessageEndsInHoldTimerExpiryWhileWaitingForOpen) {
   auto t = connectOut();
   Bytes const open = peerOpen();
   t->deliver(Bytes(open.begin(), open.begin() + 30)); // the rest never comes
   scheduler->advance(std::chrono::seconds(Neighbor::kOpenHoldSeconds - 1));
   EXPECT_EQ(neighbor->state(), BgpState::openSent);
   scheduler->advance(1s);
   EXPECT_EQ(t->notification(), (Notification{ErrorCode::holdTimerExpired, 0, {}}));
}

TEST_F(NeighborTest, EveryMessageErrorSendsItsNotification) {
   Bytes wrongMarker = encodeKeepalive();
   wrongMarker[3] = 0;
   Bytes longKeepalive = encodeKeepalive();
   longKeepalive[17] = 20;
   longKeepalive.push_back(0);
   Bytes unknownType = encodeKeepalive();
   unknownType[18] = 9;
   Bytes version3 = peerOpen();
   version3[19] = 3;
   Bytes const badUpdate = hex("ffffffffffffffffffffffffffffffff001902000000030101");
   struct Case {
      char const* name;
      bool establishFirst;
      Bytes bytes;
      Notification expect;
   };
   std::vector<Case> const cases{
       {"garbage", false, Bytes(40, 0x5a), {1, 1, {}}},
       {"wrong marker", true, wrongMarker, {1, 1, {}}},
       {"keepalive of 20 bytes", true, longKeepalive, {1, 2, {0, 20}}},
       {"unknown message type", false, unknownType, {1, 3, {9}}},
       {"OPEN version 3", false, version3, {2, 1, {0, 4}}},
       {"OPEN from the wrong AS", false, peerOpen(65099), {2, 2, {}}},
       {"OPEN with identifier 0", false, peerOpen(65002, 0), {2, 3, {}}},
       {"OPEN with hold time 2", false, peerOpen(65002, kPeerId, 2), {2, 6, {}}},
       {"OPEN without a flowspec family",
        false,
        peerOpen(65002, kPeerId, 9, {kIpv4Unicast}),
        {2, 7, hex("010400010085010400020085")}},
       {"KEEPALIVE before OPEN", false, encodeKeepalive(), {5, 1, {}}},
       {"UPDATE before OPEN", false, encodeEndOfRib(kIpv4Flowspec), {5, 1, {}}},
       {"OPEN when established", true, peerOpen(), {5, 3, {}}},
       {"UPDATE with path attributes past its end", true, badUpdate, {3, 1, {}}},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      auto t = connectOut();
      if (c.establishFirst) establish(*t);
      t->deliver(c.bytes);
      EXPECT_TRUE(t->closed);
      EXPECT_EQ(t->notification(), c.expect);
      EXPECT_EQ(neighbor->status().lastError, "sent NOTIFICATION " + notificationText(c.expect));
      EXPECT_EQ(neighbor->state(), BgpState::active);
      EXPECT_EQ(neighbor->status().counters.notificationsOut, 1u);
   }
}

TEST_F(NeighborTest, ReceivedNotificationEndsTheSessionWithoutAnswer) {
   auto t = connectOut();
   establish(*t);
   std::size_t const sent = t->sent.size();
   t->deliver(encodeNotification(ceaseWithMessage(CeaseSubcode::administrativeShutdown, "maintenance")));
   EXPECT_TRUE(t->closed);
   EXPECT_EQ(t->sent.size(), sent);
   EXPECT_EQ(neighbor->status().lastError, "received NOTIFICATION Cease/Administrative Shutdown (6/2) \"maintenance\"");
   EXPECT_EQ(neighbor->status().counters.notificationsIn, 1u);
   EXPECT_TRUE(logger.contains("session down"));
}

TEST_F(NeighborTest, PeerClosingTheConnection) {
   config.passive = true;
   make();
   neighbor->start();
   auto t = accept();
   establish(*t);
   t->peerCloses();
   EXPECT_EQ(neighbor->state(), BgpState::active);
   EXPECT_EQ(neighbor->status().lastError, "connection closed by the peer (end of stream)");
   // The peer comes back: a new session.
   auto again = accept("127.0.0.2:50001");
   establish(*again);
   EXPECT_EQ(neighbor->status().counters.establishedTransitions, 2u);
   EXPECT_TRUE(connector->attempts.empty());
}

TEST_F(NeighborTest, CollisionKeepsTheConnectionOfTheHigherIdentifier) {
   for (bool const peerHigher : {true, false}) {
      SCOPED_TRACE(peerHigher ? "peer's identifier higher" : "ours higher");
      std::uint32_t const peerId = peerHigher ? kLocalId + 1 : kLocalId - 1;
      auto out = connectOut();
      out->deliver(peerOpen(65002, peerId));
      ASSERT_EQ(neighbor->state(), BgpState::openConfirm);
      auto in = accept();
      EXPECT_EQ(in->sentTypes(), std::vector<MessageType>{MessageType::open});
      in->deliver(peerOpen(65002, peerId));
      Notification const collision{ErrorCode::cease, CeaseSubcode::connectionCollision, {}};
      auto& loser = peerHigher ? *out : *in;
      auto& winner = peerHigher ? *in : *out;
      EXPECT_TRUE(loser.closed);
      EXPECT_EQ(loser.notification(), collision);
      EXPECT_FALSE(winner.closed);
      winner.deliver(encodeKeepalive());
      EXPECT_EQ(neighbor->state(), BgpState::established);
   }
}

TEST_F(NeighborTest, ConnectionWhileEstablishedIsRejected) {
   auto t = connectOut();
   establish(*t);
   auto late = accept();
   EXPECT_TRUE(late->closed);
   EXPECT_EQ(late->notification(), (Notification{ErrorCode::cease, CeaseSubcode::connectionCollision, {}}));
   EXPECT_FALSE(t->closed);
   EXPECT_EQ(neighbor->state(), BgpState::established);
}

TEST_F(NeighborTest, StopSendsCeaseAndStaysIdle) {
   auto t = connectOut();
   establish(*t);
   neighbor->stop(ceaseWithMessage(CeaseSubcode::administrativeShutdown, "bye"));
   EXPECT_TRUE(t->closed);
   EXPECT_EQ(t->notification(), ceaseWithMessage(CeaseSubcode::administrativeShutdown, "bye"));
   EXPECT_EQ(neighbor->state(), BgpState::idle);
   scheduler->advance(60s);
   EXPECT_EQ(connector->attempts.size(), 1u);
   EXPECT_EQ(scheduler->pending(), 0u);
   auto refused = accept();
   EXPECT_EQ(refused->notification(), (Notification{ErrorCode::cease, CeaseSubcode::connectionRejected, {}}));
}

TEST_F(NeighborTest, ConnectRetry) {
   make();
   neighbor->start();
   connector->fail("Connection refused");
   EXPECT_EQ(neighbor->state(), BgpState::active);
   EXPECT_EQ(neighbor->status().lastError, "connect to 127.0.0.2:1790 failed: Connection refused");
   scheduler->advance(4s);
   EXPECT_EQ(connector->attempts.size(), 1u);
   scheduler->advance(1s);
   ASSERT_EQ(connector->attempts.size(), 2u);
   EXPECT_EQ(neighbor->state(), BgpState::connect);
   // An attempt that hangs is abandoned and made again.
   scheduler->advance(5s);
   ASSERT_EQ(connector->attempts.size(), 3u);
   EXPECT_TRUE(connector->attempts[1].attempt->cancelled);
   // The peer connecting first ends the attempts.
   auto in = accept();
   EXPECT_TRUE(connector->attempts[2].attempt->cancelled);
   scheduler->advance(30s);
   EXPECT_EQ(connector->attempts.size(), 3u);
   EXPECT_EQ(neighbor->state(), BgpState::openSent);
}

TEST_F(NeighborTest, PassiveNeighborWaits) {
   config.passive = true;
   make();
   neighbor->start();
   EXPECT_EQ(neighbor->state(), BgpState::active);
   scheduler->advance(300s);
   EXPECT_TRUE(connector->attempts.empty());
   auto t = accept();
   EXPECT_EQ(neighbor->state(), BgpState::openSent);
}

TEST_F(NeighborTest, UpdatesAreCountedPerFamilyAndHandedOn) {
   auto t = connectOut();
   establish(*t);
   Bytes const v4 = hex("ffffffffffffffffffffffffffffffff0045020000002e4001010040020602010000fdf6c010088006000000000000"
                        "800e1300018500000d01100a2802200a290101038106");
   Bytes const v6Withdraw = hex("ffffffffffffffffffffffffffffffff0022020000000b900f000700028503010000");
   t->deliver(v4);
   t->deliver(v4);
   t->deliver(v6Withdraw);
   t->deliver(encodeEndOfRib(kIpv4Flowspec));
   auto const c = neighbor->status().counters;
   EXPECT_EQ(c.updatesIn, 4u);
   EXPECT_EQ(c.familyUpdatesIn, (std::map<AfiSafi, std::uint64_t>{{kIpv4Flowspec, 2}, {kIpv6Flowspec, 1}}));
   EXPECT_EQ(c.endOfRibIn, (std::map<AfiSafi, std::uint64_t>{{kIpv4Flowspec, 1}}));
   ASSERT_EQ(sink.updates.size(), 4u);
   EXPECT_EQ(sink.updates[0], v4);
   // The sink knows the peer by its identity, with the identifier its OPEN gave.
   EXPECT_EQ(sink.peers[0], (BgpPeer{config.address, 65002, 65001, kPeerId, BgpL3VrfId::defaultVrfId()}));
   EXPECT_FALSE(sink.peers[0].internal());
   // An UPDATE whose attributes cannot be framed goes to the sink like any other: what it
   // means (RFC 7606 treat-as-withdraw or a reset) is the decoder's call.
   t->deliver(hex("ffffffffffffffffffffffffffffffff00200200000009400101004002050201"));
   EXPECT_EQ(neighbor->state(), BgpState::established);
   EXPECT_EQ(sink.updates.size(), 5u);
   EXPECT_EQ(sink.sessions, std::vector<std::size_t>{2});
   // The decoder behind the sink may reset the session.
   sink.answer = Notification{ErrorCode::update, 10, {}};
   t->deliver(v4);
   EXPECT_EQ(t->notification(), (Notification{ErrorCode::update, 10, {}}));
   EXPECT_EQ(neighbor->state(), BgpState::active);
   EXPECT_EQ(sink.sessions, (std::vector<std::size_t>{2, 0}));
}

TEST_F(NeighborTest, RouteRefreshOfANegotiatedFamilyReachesTheSink) {
   auto t = connectOut();
   establish(*t);
   t->deliver(encodeRouteRefresh(kIpv4Flowspec));
   t->deliver(encodeRouteRefresh(kIpv4Unicast)); // not negotiated: ignored
   EXPECT_EQ(neighbor->state(), BgpState::established);
   EXPECT_EQ(neighbor->status().counters.routeRefreshesIn, 2u);
   EXPECT_EQ(sink.refreshes, std::vector<AfiSafi>{kIpv4Flowspec});
}

// The session's way out: what the sink sends goes out as UPDATEs and is counted; the
// transport's queue is visible; the output goes when the session does.
TEST_F(NeighborTest, EstablishedSessionsGiveTheSinkAWayOut) {
   auto t = connectOut();
   establish(*t);
   ASSERT_NE(sink.output, nullptr);
   // The default: End-of-RIB for both families, at once.
   EXPECT_EQ(t->count(MessageType::update), 2u);
   Bytes const eor = encodeEndOfRib(kIpv6Flowspec);
   sink.output->sendUpdate(eor);
   EXPECT_EQ(t->sent.back(), eor);
   EXPECT_EQ(neighbor->status().counters.updatesOut, 3u);
   t->queued = 100;
   EXPECT_EQ(sink.output->queuedBytes(), 100u);
   int drained = 0;
   sink.output->drainedCallbackIs([&] { ++drained; });
   t->drained();
   EXPECT_EQ(drained, 1);
   t->peerCloses();
   EXPECT_EQ(sink.output, nullptr);
}

} // namespace
} // namespace Flowspecd

namespace Flowspecd {
namespace {

// A session ended for a rule limit holds its neighbor in Idle: no attempt is made, the
// peer's connections are turned away, and when the time is over an active neighbor
// connects at once.
TEST_F(NeighborTest, ARuleLimitTeardownHoldsTheNeighborInIdle) {
   auto t = connectOut();
   establish(*t);
   sink.answer = ceaseMaxPrefixes(kIpv4Flowspec, 50);
   sink.idleHold = 30;
   t->deliver(encodeEndOfRib(kIpv4Flowspec));
   EXPECT_EQ(t->notification(), (Notification{6, 1, {0, 1, 133, 0, 0, 0, 50}}));
   EXPECT_EQ(neighbor->state(), BgpState::idle);
   EXPECT_EQ(neighbor->status().lastError, "sent NOTIFICATION Cease/Maximum Number of Prefixes Reached (6/1)");
   EXPECT_EQ(neighbor->status().idleHoldSeconds, 30u);
   EXPECT_TRUE(logger.contains("127.0.0.2 held in Idle for 30 s"));
   scheduler->advance(20s);
   EXPECT_EQ(connector->attempts.size(), 1u);
   EXPECT_EQ(neighbor->status().idleHoldSeconds, 10u);
   auto refused = accept();
   EXPECT_EQ(refused->notification(), (Notification{ErrorCode::cease, CeaseSubcode::connectionRejected, {}}));
   EXPECT_TRUE(logger.contains("rejected: held in Idle for 10 s more after a rule limit's teardown"));
   EXPECT_EQ(neighbor->state(), BgpState::idle);
   scheduler->advance(10s);
   EXPECT_EQ(connector->attempts.size(), 2u);
   EXPECT_EQ(neighbor->state(), BgpState::connect);
   EXPECT_EQ(neighbor->status().idleHoldSeconds, 0u);
}

TEST_F(NeighborTest, APassiveNeighborWaitsAgainAfterItsHold) {
   config.passive = true;
   make();
   neighbor->start();
   auto t = accept();
   establish(*t);
   sink.answer = ceaseMaxPrefixes(kIpv6Flowspec, 1);
   sink.idleHold = 5;
   t->deliver(encodeEndOfRib(kIpv4Flowspec));
   EXPECT_EQ(neighbor->state(), BgpState::idle);
   scheduler->advance(5s);
   EXPECT_EQ(neighbor->state(), BgpState::active);
   EXPECT_TRUE(connector->attempts.empty());
   auto again = accept();
   EXPECT_EQ(neighbor->state(), BgpState::openSent);
   // Stopped while held: nothing is left to run.
   sink.idleHold = 60;
   establish(*again);
   again->deliver(encodeEndOfRib(kIpv4Flowspec));
   neighbor->stop(Notification{ErrorCode::cease, CeaseSubcode::administrativeShutdown, {}});
   EXPECT_EQ(neighbor->status().idleHoldSeconds, 0u);
   EXPECT_EQ(scheduler->pending(), 0u);
}

// The connection attempt carries the neighbor's TCP security; an attempt nothing answers is
// said, with the likely reason when signatures are on.
TEST_F(NeighborTest, ConnectionsCarryTheNeighborsTcpSecurity) {
   config.password = "s3cret";
   config.ttlSecurity = true;
   config.ttlSecurityHops = 2;
   make();
   neighbor->start();
   ASSERT_EQ(connector->attempts.size(), 1u);
   EXPECT_EQ(connector->attempts[0].security, (TcpSecurity{"s3cret", true, 2}));
   EXPECT_EQ(connector->attempts[0].security.minimumTtl(), 253);
   scheduler->advance(5s);
   EXPECT_EQ(neighbor->status().lastError,
             "connect to 127.0.0.2:1790: no answer within 5 s (TCP MD5 signatures are on: a peer with another "
             "password, or none, does not answer)");
   EXPECT_FALSE(logger.contains("s3cret"));
   neighbor->incomingRefused("connection from 127.0.0.2:4000 refused: TTL 64, below 253 (ttl-security)");
   EXPECT_EQ(neighbor->status().counters.connectionsRefused, 1u);
   EXPECT_EQ(neighbor->status().lastError, "connection from 127.0.0.2:4000 refused: TTL 64, below 253 (ttl-security)");
}

TEST_F(NeighborTest, RouteRefreshesSentAreCounted) {
   auto t = connectOut();
   establish(*t);
   sink.output->sendRouteRefresh(kIpv6Flowspec);
   EXPECT_EQ(t->sent.back(), encodeRouteRefresh(kIpv6Flowspec));
   EXPECT_EQ(neighbor->status().counters.routeRefreshesOut, 1u);
}

} // namespace
} // namespace Flowspecd
