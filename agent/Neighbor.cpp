#include "agent/Neighbor.h"

#include <algorithm>
#include <chrono>

namespace Flowspecd {

namespace {

std::string idText(std::uint32_t id) {
   return std::to_string(id >> 24) + "." + std::to_string((id >> 16) & 0xff) + "." + std::to_string((id >> 8) & 0xff) +
          "." + std::to_string(id & 0xff);
}

std::string familiesText(std::vector<AfiSafi> const& families) {
   std::string text;
   for (auto const f : families) text += (text.empty() ? "" : " ") + familyName(f);
   return text.empty() ? "none" : text;
}

std::chrono::seconds seconds(std::uint32_t s) { return std::chrono::seconds(s); }

} // namespace

UpdateOutcome UpdateOutcome::of(BgpParsedUpdate const& u) {
   UpdateOutcome o;
   if (u.notification) {
      o.reset = Notification{u.notification->code, u.notification->subcode,
                             Bytes(u.notification->data.begin(), u.notification->data.end())};
   }
   o.endOfRib = u.endOfRib();
   if (o.endOfRib) return o;
   if (!u.withdrawnRoutes.empty() || !u.ipv4Nlri.empty()) o.familyIs(kIpv4Unicast);
   for (BgpParsedMpAttribute const* mp : {&u.mpReach, &u.mpUnreach}) {
      if (mp->present && mp->nlriBytes != 0) o.familyIs(mp->afiSafi);
   }
   return o;
}

void UpdateSink::handleEstablished(BgpPeer const&, Negotiated const& negotiated, BgpPeerOutput& output) {
   for (AfiSafi const f : negotiated.families) output.sendEndOfRib(f);
}
void UpdateSink::handleSessionDown(BgpPeer const&, SessionEnd const&) {}
void UpdateSink::handleRouteRefresh(BgpPeer const&, AfiSafi) {}

char const* stateName(BgpState s) {
   switch (s) {
   case BgpState::idle: return "Idle";
   case BgpState::connect: return "Connect";
   case BgpState::active: return "Active";
   case BgpState::openSent: return "OpenSent";
   case BgpState::openConfirm: return "OpenConfirm";
   case BgpState::established: return "Established";
   }
   return "Idle";
}

// One TCP connection of the neighbor, from the moment it is up; once Established, the
// session's way out.
class Neighbor::Connection : public Ovk::PtrInterface, public Transport::Receiver, public BgpPeerOutput {
 public:
   Connection(Neighbor& owner, Ovk::Ptr<Transport> t, Origin o)
       : owner_(owner), transport(std::move(t)), origin(o), local(transport->local()), remote(transport->remote()) {}

   void handleBytes(ByteView bytes) override {
      Ovk::Ptr<Connection> const self(this); // a message may end the connection
      framer.feed(bytes);
      while (open) {
         auto next = framer.nextView();
         if (!next) break;
         if (!next->ok()) {
            owner_.closeConnection(*this, next->reason(), "");
            break;
         }
         owner_.handleMessage(*this, next->value());
      }
   }
   void handleClosed(std::string const& reason) override {
      Ovk::Ptr<Connection> const self(this);
      owner_.closeConnection(*this, std::nullopt, "connection closed by the peer (" + reason + ")");
   }

   void sendUpdate(ByteView message) override {
      if (open) owner_.send(*this, message, MessageType::update);
   }
   void sendEndOfRib(AfiSafi family) override {
      if (open) owner_.send(*this, encodeEndOfRib(family), MessageType::update);
   }
   void sendRouteRefresh(AfiSafi family) override {
      if (open) owner_.send(*this, encodeRouteRefresh(family), MessageType::routeRefresh);
   }
   std::size_t queuedBytes() const override { return transport->queuedBytes(); }
   Ovnet::IpGenAddr localAddress() const override { return local.address; }
   void drainedCallbackIs(std::function<void()> drained) override {
      if (open) transport->drainedCallbackIs(std::move(drained));
   }

   Neighbor& owner_;
   Ovk::Ptr<Transport> transport;
   Origin origin;
   Endpoint local;
   Endpoint remote;
   bool open = true;
   BgpState state = BgpState::openSent;
   MessageFramer framer;
   std::optional<Ovk::TaskId> holdTimer;
   std::optional<Ovk::TaskId> keepaliveTimer;
   std::optional<OpenMessage> remoteOpen;
   OpenMessage sentOpen; // what our OPEN said
   Negotiated negotiated;
   BgpPeer peer;
   Ovk::Clock::time_point establishedAt{};
};

Neighbor::Neighbor(NeighborConfig config, LocalSpeaker local, Deps deps)
    : config_(std::move(config)), local_(local), deps_(std::move(deps)),
      localOpen_(localOpen(local_.as, config_.holdTime, local_.routerId, config_.families)) {
   OVK_ASSERT(deps_.scheduler);
   OVK_ASSERT(deps_.connector);
   OVK_ASSERT(deps_.logger != nullptr);
   OVK_ASSERT(deps_.updates != nullptr);
}

Neighbor::~Neighbor() {
   cancelConnecting();
   if (idleHoldTimer_) deps_.scheduler->cancel(*idleHoldTimer_);
   for (auto& c : connections_) {
      c->open = false;
      if (c->holdTimer) deps_.scheduler->cancel(*c->holdTimer);
      if (c->keepaliveTimer) deps_.scheduler->cancel(*c->keepaliveTimer);
      c->transport->close();
   }
}

void Neighbor::log(std::string const& event) const { deps_.logger->log(config_.address.str(), event); }

BgpState Neighbor::state() const {
   BgpState s = connections_.empty() ? neighborState_ : BgpState::idle;
   for (auto const& c : connections_) s = std::max(s, c->state);
   return s;
}

void Neighbor::transition(Connection* c, BgpState to) {
   if (c) {
      c->state = to;
   } else {
      neighborState_ = to;
   }
   BgpState const shown = state();
   if (shown != reportedState_) {
      log(std::string("state ") + stateName(reportedState_) + " -> " + stateName(shown));
      reportedState_ = shown;
   }
   if (c && to == BgpState::established) enterEstablished(*c);
   if (!c && to == BgpState::idle) enterIdle();
}

void Neighbor::softConfigIs(NeighborConfig const& config) {
   config_.description = config.description;
   config_.connectRetrySeconds = config.connectRetrySeconds;
   config_.minRouteAdvertisementSeconds = config.minRouteAdvertisementSeconds;
   config_.importPolicy = config.importPolicy;
   config_.policy = config.policy;
   config_.maxRules = config.maxRules;
   config_.line = config.line;
}

void Neighbor::start() {
   if (started_) return;
   started_ = true;
   if (config_.passive) {
      transition(nullptr, BgpState::active);
   } else {
      connectNow();
   }
}

void Neighbor::stop(Notification const& why, bool flushPeer) {
   started_ = false;
   cancelConnecting();
   if (idleHoldTimer_) deps_.scheduler->cancel(*idleHoldTimer_);
   idleHoldTimer_.reset();
   auto const all = connections_;
   for (auto const& c : all) closeConnection(*c, notificationToSend(why, c->negotiated.gracefulNotification, flushPeer), "");
   if (connections_.empty()) transition(nullptr, BgpState::idle);
}

void Neighbor::cancelConnecting() {
   if (attempt_) {
      attempt_->cancel();
      attempt_ = nullptr;
   }
   if (connectRetryTimer_) {
      deps_.scheduler->cancel(*connectRetryTimer_);
      connectRetryTimer_.reset();
   }
}

void Neighbor::connectNow() {
   cancelConnecting();
   transition(nullptr, BgpState::connect);
   Endpoint const remote{config_.address, config_.port};
   log("connecting to " + remote.str() +
       (local_.sourceAddress ? " from " + local_.sourceAddress->str() : std::string()));
   startConnectRetryTimer();
   attempt_ = deps_.connector->connect(remote, local_.sourceAddress, tcpSecurityOf(config_),
                                      [this](Ovk::Ptr<Transport> t, std::string const& error) {
                                         handleConnectDone(std::move(t), error);
                                      });
}

void Neighbor::startConnectRetryTimer() {
   if (connectRetryTimer_) deps_.scheduler->cancel(*connectRetryTimer_);
   connectRetryTimer_ = deps_.scheduler->postAfter(
       seconds(config_.connectRetrySeconds),
       [this] {
          connectRetryTimer_.reset();
          if (attempt_) {
             // Nothing answered. With MD5 signatures, a peer whose password differs (or that
             // has none) drops our segments without a word.
             lastError_ = "connect to " + Endpoint{config_.address, config_.port}.str() + ": no answer within " +
                          std::to_string(config_.connectRetrySeconds) + " s" +
                          (config_.password.empty() ? ""
                                                    : " (TCP MD5 signatures are on: a peer with another password, or "
                                                      "none, does not answer)");
             log(lastError_);
          }
          // Connect: the attempt is abandoned and made again; Active: the next attempt starts.
          if (started_ && connections_.empty()) connectNow();
       },
       "connect-retry");
}

void Neighbor::handleConnectDone(Ovk::Ptr<Transport> t, std::string const& error) {
   attempt_ = nullptr;
   if (!t) {
      lastError_ = "connect to " + Endpoint{config_.address, config_.port}.str() + " failed: " + error;
      log(lastError_);
      // RFC 4271 section 8.2.2, Connect state: on a failed attempt, wait in Active.
      if (connections_.empty()) transition(nullptr, BgpState::active);
      return;
   }
   if (connectRetryTimer_) {
      deps_.scheduler->cancel(*connectRetryTimer_);
      connectRetryTimer_.reset();
   }
   addConnection(std::move(t), Origin::local);
}

void Neighbor::handleIncoming(Ovk::Ptr<Transport> transport) {
   std::string const from = transport->remote().str();
   auto reject = [&](std::uint8_t subcode, std::string const& why) {
      log("connection from " + from + " rejected: " + why);
      transport->send(encodeNotification(Notification{ErrorCode::cease, subcode, {}}));
      ++counters_.messagesOut;
      ++counters_.notificationsOut;
      transport->close();
   };
   if (!started_) {
      reject(CeaseSubcode::connectionRejected, "the neighbor is stopped");
      return;
   }
   if (heldIdle()) {
      reject(CeaseSubcode::connectionRejected,
             "held in Idle for " + std::to_string(idleHoldLeft()) + " s more after a rule limit's teardown");
      return;
   }
   // RFC 4271 section 6.8: a connection that collides with an established session is closed.
   for (auto const& c : connections_) {
      if (c->state == BgpState::established) {
         reject(CeaseSubcode::connectionCollision, "a session is established");
         return;
      }
   }
   // A new connection from the peer replaces an older one it made that has not come up.
   for (auto const& c : connections_) {
      if (c->origin == Origin::remote) {
         closeConnection(*c, Notification{ErrorCode::cease, CeaseSubcode::connectionCollision, {}}, "");
         break;
      }
   }
   // The peer got there first: stop trying to reach it.
   cancelConnecting();
   addConnection(std::move(transport), Origin::remote);
}

void Neighbor::incomingRefused(std::string const& why) {
   ++counters_.connectionsRefused;
   lastError_ = why;
}

void Neighbor::addConnection(Ovk::Ptr<Transport> t, Origin origin) {
   auto c = Ovk::makePtr<Connection>(*this, std::move(t), origin);
   connections_.push_back(c);
   log(std::string(origin == Origin::local ? "connected to " : "connection from ") + c->remote.str() + " (local " +
       c->local.str() + ")");
   c->transport->receiverIs(c.ptr());
   c->sentOpen = openToSend();
   send(*c, encodeOpen(c->sentOpen), MessageType::open);
   restartHoldTimer(*c);
   transition(c.ptr(), BgpState::openSent);
}

OpenMessage Neighbor::openToSend() const {
   OpenMessage open = localOpen_;
   if (deps_.gracefulRestart) open.gracefulRestart = deps_.gracefulRestart(open.families);
   return open;
}

void Neighbor::send(Connection& c, Bytes bytes, MessageType type) {
   ++counters_.messagesOut;
   switch (type) {
   case MessageType::update: ++counters_.updatesOut; break;
   case MessageType::keepalive: ++counters_.keepalivesOut; break;
   case MessageType::notification: ++counters_.notificationsOut; break;
   case MessageType::routeRefresh: ++counters_.routeRefreshesOut; break;
   default: break;
   }
   c.transport->send(std::move(bytes));
}

void Neighbor::send(Connection& c, ByteView bytes, MessageType type) {
   send(c, Bytes(bytes.begin(), bytes.end()), type);
}

void Neighbor::restartHoldTimer(Connection& c) {
   if (c.holdTimer) deps_.scheduler->cancel(*c.holdTimer);
   c.holdTimer.reset();
   std::uint16_t const hold = c.state == BgpState::openSent ? kOpenHoldSeconds : c.negotiated.holdTime;
   if (hold == 0) return;
   c.holdTimer = deps_.scheduler->postAfter(
       seconds(hold),
       [this, cp = Ovk::Ptr<Connection>(&c)] {
          cp->holdTimer.reset();
          closeConnection(*cp, Notification{ErrorCode::holdTimerExpired, 0, {}}, "");
       },
       "hold");
}

void Neighbor::startKeepaliveTimer(Connection& c) {
   if (c.keepaliveTimer) deps_.scheduler->cancel(*c.keepaliveTimer);
   c.keepaliveTimer.reset();
   if (c.negotiated.keepaliveTime == 0) return;
   c.keepaliveTimer = deps_.scheduler->postAfter(
       seconds(c.negotiated.keepaliveTime),
       [this, cp = Ovk::Ptr<Connection>(&c)] {
          cp->keepaliveTimer.reset();
          if (!cp->open) return;
          send(*cp, encodeKeepalive(), MessageType::keepalive);
          startKeepaliveTimer(*cp);
       },
       "keepalive");
}

void Neighbor::handleMessage(Connection& c, MessageView const& m) {
   ++counters_.messagesIn;
   auto const fsmError = [&c] {
      std::uint8_t const sub = c.state == BgpState::openSent      ? FsmSubcode::inOpenSent
                               : c.state == BgpState::openConfirm ? FsmSubcode::inOpenConfirm
                                                                  : FsmSubcode::inEstablished;
      return Notification{ErrorCode::fsm, sub, {}};
   };
   switch (m.type) {
   case MessageType::notification: {
      ++counters_.notificationsIn;
      auto n = parseNotification(m.body());
      closeConnection(c, std::nullopt,
                      "received NOTIFICATION " + (n ? notificationText(n.value()) : std::string("(unreadable)")),
                      n ? std::optional(n.value()) : std::optional(Notification{}));
      return;
   }
   case MessageType::open:
      if (c.state != BgpState::openSent) {
         closeConnection(c, fsmError(), "");
         return;
      }
      handleOpen(c, m);
      return;
   case MessageType::keepalive:
      ++counters_.keepalivesIn;
      if (c.state == BgpState::openSent) {
         closeConnection(c, fsmError(), "");
      } else if (c.state == BgpState::openConfirm) {
         transition(&c, BgpState::established);
      } else {
         restartHoldTimer(c);
      }
      return;
   case MessageType::update:
      ++counters_.updatesIn;
      if (c.state != BgpState::established) {
         closeConnection(c, fsmError(), "");
         return;
      }
      handleUpdate(c, m);
      return;
   case MessageType::routeRefresh: {
      ++counters_.routeRefreshesIn;
      if (c.state != BgpState::established) {
         closeConnection(c, fsmError(), "");
         return;
      }
      auto family = parseRouteRefresh(m.body());
      if (!family) {
         closeConnection(c, family.reason(), "");
         return;
      }
      restartHoldTimer(c);
      bool const wanted = c.negotiated.routeRefresh &&
                          std::find(c.negotiated.families.begin(), c.negotiated.families.end(), family.value()) !=
                              c.negotiated.families.end();
      log("route refresh received for " + familyName(family.value()) +
          (wanted ? "" : " (not negotiated for the session; ignored)"));
      if (wanted) deps_.updates->handleRouteRefresh(c.peer, family.value());
      return;
   }
   }
}

void Neighbor::handleOpen(Connection& c, MessageView const& m) {
   auto parsed = parseOpen(m.body());
   if (!parsed) {
      closeConnection(c, parsed.reason(), "");
      return;
   }
   OpenMessage const& remote = parsed.value();
   log("received OPEN: AS " + std::to_string(remote.as()) + ", identifier " + idText(remote.bgpId) + ", hold time " +
       std::to_string(remote.holdTime) + ", families " + familiesText(remote.families));
   if (auto bad = checkOpen(remote, OpenExpectations{config_.remoteAs, local_.as, local_.routerId})) {
      closeConnection(c, *bad, "");
      return;
   }
   Negotiated neg = negotiate(c.sentOpen, remote);
   if (neg.families.empty()) {
      // RFC 5492 section 5: the data lists the capabilities the session cannot do without.
      closeConnection(c,
                      Notification{ErrorCode::open, OpenSubcode::unsupportedCapability,
                                   multiprotocolCapabilities(localOpen_.families)},
                      "");
      return;
   }
   // RFC 4271 section 6.8: of two connections with the same peer, the one started by the
   // speaker with the higher BGP identifier stays.
   Ovk::Ptr<Connection> other;
   for (auto const& o : connections_) {
      if (o.ptr() != &c && o->state >= BgpState::openConfirm) other = o;
   }
   if (other) {
      Notification const collision{ErrorCode::cease, CeaseSubcode::connectionCollision, {}};
      Origin const keep = local_.routerId < remote.bgpId ? Origin::remote : Origin::local;
      if (other->state == BgpState::established || c.origin != keep) {
         closeConnection(c, collision, "");
         return;
      }
      closeConnection(*other, collision, "");
   }
   c.remoteOpen = remote;
   c.negotiated = std::move(neg);
   c.peer = BgpPeer{config_.address, config_.remoteAs, local_.as, remote.bgpId, BgpL3VrfId::defaultVrfId()};
   send(c, encodeKeepalive(), MessageType::keepalive);
   transition(&c, BgpState::openConfirm);
   restartHoldTimer(c);
   startKeepaliveTimer(c);
}

void Neighbor::enterEstablished(Connection& c) {
   c.establishedAt = deps_.scheduler->now();
   ++counters_.establishedTransitions;
   cancelConnecting();
   Notification const collision{ErrorCode::cease, CeaseSubcode::connectionCollision, {}};
   auto const all = connections_;
   for (auto const& o : all) {
      if (o.ptr() != &c) closeConnection(*o, collision, "");
   }
   restartHoldTimer(c);
   log("session established: families " + familiesText(c.negotiated.families) + ", hold time " +
       std::to_string(c.negotiated.holdTime) + ", keepalive " + std::to_string(c.negotiated.keepaliveTime));
   if (auto const& gr = c.negotiated.peerGracefulRestart) {
      std::string families;
      for (auto const& f : gr->families) {
         families += (families.empty() ? "" : " ") + familyName(f.family) + (f.forwardingPreserved ? "(F)" : "");
      }
      log("graceful restart: the peer's restart time " + std::to_string(gr->restartTime) + " s, families " +
          (families.empty() ? "none" : families) + (gr->restarting ? ", restarting" : "") +
          (c.negotiated.gracefulNotification ? ", N bit on both sides" : ""));
   }
   deps_.updates->handleEstablished(c.peer, c.negotiated, c);
}

void Neighbor::handleUpdate(Connection& c, MessageView const& m) {
   restartHoldTimer(c);
   UpdateOutcome const outcome = deps_.updates->handleUpdate(c.peer, m);
   if (outcome.endOfRib) {
      ++counters_.endOfRibIn[*outcome.endOfRib];
      log("End-of-RIB received for " + familyName(*outcome.endOfRib));
   }
   for (std::size_t i = 0; i < outcome.familyCount; ++i) ++counters_.familyUpdatesIn[outcome.families[i]];
   if (!outcome.reset) return;
   // Held before the connection closes, so that the Idle it leaves the neighbor in stays.
   if (outcome.idleHoldSeconds != 0) holdIdle(outcome.idleHoldSeconds);
   closeConnection(c, *outcome.reset, "");
}

std::uint64_t Neighbor::idleHoldLeft() const {
   auto const left = std::chrono::ceil<std::chrono::seconds>(idleHoldUntil_ - deps_.scheduler->now()).count();
   return static_cast<std::uint64_t>(std::max<std::int64_t>(1, left));
}

void Neighbor::holdIdle(std::uint32_t seconds) {
   if (idleHoldTimer_) deps_.scheduler->cancel(*idleHoldTimer_);
   idleHoldUntil_ = deps_.scheduler->now() + std::chrono::seconds(seconds);
   log("held in Idle for " + std::to_string(seconds) + " s");
   idleHoldTimer_ = deps_.scheduler->postAfter(
       std::chrono::seconds(seconds),
       [this] {
          idleHoldTimer_.reset();
          if (!started_ || !connections_.empty()) return;
          log("the hold in Idle is over");
          if (config_.passive) {
             transition(nullptr, BgpState::active);
          } else {
             connectNow();
          }
       },
       "idle-hold");
}

void Neighbor::closeConnection(Connection& c, std::optional<Notification> notify, std::string const& reason,
                               std::optional<Notification> received) {
   if (!c.open) return;
   Ovk::Ptr<Connection> const keep(&c);
   if (notify) {
      send(c, encodeNotification(*notify), MessageType::notification);
      lastError_ = "sent NOTIFICATION " + notificationText(*notify);
   } else {
      lastError_ = reason;
   }
   log(lastError_ + " [" + stateName(c.state) + ", " + c.remote.str() + "]");
   bool const wasEstablished = c.state == BgpState::established;
   c.open = false;
   if (c.holdTimer) deps_.scheduler->cancel(*c.holdTimer);
   if (c.keepaliveTimer) deps_.scheduler->cancel(*c.keepaliveTimer);
   c.holdTimer.reset();
   c.keepaliveTimer.reset();
   c.transport->close();
   connections_.erase(std::remove(connections_.begin(), connections_.end(), keep), connections_.end());
   if (wasEstablished) {
      log("session down");
      SessionEnd end;
      if (notify) {
         end.kind = SessionEnd::Kind::notificationSent;
         end.notification = notify;
      } else if (received) {
         end.kind = SessionEnd::Kind::notificationReceived;
         end.notification = received;
      }
      deps_.updates->handleSessionDown(c.peer, end);
   }
   transition(nullptr, connections_.empty() ? BgpState::idle : neighborState_);
}

void Neighbor::enterIdle() {
   if (!connections_.empty()) return;
   cancelConnecting();
   if (!started_ || heldIdle()) return;
   // Automatic restart: a passive neighbor waits for the peer, an active one tries again
   // after connect-retry.
   transition(nullptr, BgpState::active);
   if (!config_.passive) startConnectRetryTimer();
}

NeighborStatus Neighbor::status() const {
   NeighborStatus s;
   s.config = config_;
   s.state = state();
   s.lastError = lastError_;
   s.counters = counters_;
   if (heldIdle()) s.idleHoldSeconds = idleHoldLeft();
   Connection const* best = nullptr;
   for (auto const& c : connections_) {
      if (!best || c->state > best->state) best = c.ptr();
   }
   if (best) {
      s.localEndpoint = best->local;
      s.remoteEndpoint = best->remote;
      if (best->state == BgpState::established) {
         auto const up = deps_.scheduler->now() - best->establishedAt;
         s.uptimeSeconds = static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(up).count());
         s.negotiated = best->negotiated;
         s.remoteRouterId = best->remoteOpen ? best->remoteOpen->bgpId : 0;
      }
   }
   return s;
}

} // namespace Flowspecd
