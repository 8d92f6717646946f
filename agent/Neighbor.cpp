#include "agent/Neighbor.h"

#include <algorithm>
#include <chrono>

namespace Flowspecd {

namespace {

std::string idText(std::uint32_t id) {
   return std::to_string(id >> 24) + "." + std::to_string((id >> 16) & 0xff) + "." +
          std::to_string((id >> 8) & 0xff) + "." + std::to_string(id & 0xff);
}

std::string familiesText(std::vector<AfiSafi> const& families) {
   std::string text;
   for (auto const f : families) text += (text.empty() ? "" : " ") + familyName(f);
   return text.empty() ? "none" : text;
}

std::chrono::seconds seconds(std::uint32_t s) { return std::chrono::seconds(s); }

} // namespace

void UpdateSink::handleEstablished(Neighbor const&, Negotiated const&) {}
void UpdateSink::handleSessionDown(Neighbor const&) {}

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

// One TCP connection of the neighbor, from the moment it is up.
class Neighbor::Connection : public Ovk::PtrInterface, public Transport::Receiver {
 public:
   Connection(Neighbor& owner, Ovk::Ptr<Transport> t, Origin o)
       : owner_(owner), transport(std::move(t)), origin(o), local(transport->local()), remote(transport->remote()) {}

   void handleBytes(ByteView bytes) override {
      Ovk::Ptr<Connection> const self(this); // a message may end the connection
      framer.feed(bytes);
      while (open) {
         auto next = framer.next();
         if (!next) break;
         if (!next->ok()) {
            owner_.drop(*this, next->reason(), "");
            break;
         }
         owner_.handleMessage(*this, next->value());
      }
   }
   void handleClosed(std::string const& reason) override {
      Ovk::Ptr<Connection> const self(this);
      owner_.drop(*this, std::nullopt, "connection closed by the peer (" + reason + ")");
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
   Negotiated negotiated;
   Ovk::Clock::time_point establishedAt{};
};

Neighbor::Neighbor(NeighborConfig config, LocalSpeaker local, Deps deps)
    : config_(std::move(config)), local_(local), deps_(std::move(deps)),
      localOpen_(localOpen(local_.as, config_.holdTime, local_.routerId, config_.families)) {
   OVK_ASSERT(deps_.scheduler);
   OVK_ASSERT(deps_.connector);
   OVK_ASSERT(deps_.logger != nullptr);
}

Neighbor::~Neighbor() {
   cancelConnecting();
   for (auto& c : connections_) {
      c->open = false;
      if (c->holdTimer) deps_.scheduler->cancel(*c->holdTimer);
      if (c->keepaliveTimer) deps_.scheduler->cancel(*c->keepaliveTimer);
      c->transport->close();
   }
}

void Neighbor::log(std::string const& event) const { deps_.logger->log(config_.address.str(), event); }

BgpState Neighbor::state() const {
   BgpState s = connections_.empty() ? base_ : BgpState::idle;
   for (auto const& c : connections_) s = std::max(s, c->state);
   return s;
}

void Neighbor::noteState() {
   BgpState const s = state();
   if (s == shown_) return;
   log(std::string("state ") + stateName(shown_) + " -> " + stateName(s));
   shown_ = s;
}

void Neighbor::start() {
   if (started_) return;
   started_ = true;
   if (config_.passive) {
      base_ = BgpState::active;
      noteState();
   } else {
      connectNow();
   }
}

void Neighbor::stop(Notification const& why) {
   started_ = false;
   cancelConnecting();
   auto const all = connections_;
   for (auto const& c : all) drop(*c, why, "");
   if (connections_.empty()) {
      base_ = BgpState::idle;
      noteState();
   }
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
   base_ = BgpState::connect;
   noteState();
   Endpoint const remote{config_.address, config_.port};
   log("connecting to " + remote.str() +
       (local_.sourceAddress ? " from " + local_.sourceAddress->str() : std::string()));
   startConnectRetryTimer();
   attempt_ = deps_.connector->connect(remote, local_.sourceAddress,
                                       [this](Ovk::Ptr<Transport> t, std::string const& error) {
                                          handleConnectDone(std::move(t), error);
                                       });
}

void Neighbor::startConnectRetryTimer() {
   if (connectRetryTimer_) deps_.scheduler->cancel(*connectRetryTimer_);
   connectRetryTimer_ = deps_.scheduler->postAfter(seconds(config_.connectRetrySeconds), [this] {
      connectRetryTimer_.reset();
      // Connect: the attempt is abandoned and made again; Active: the next attempt starts.
      if (started_ && connections_.empty()) connectNow();
   }, "connect-retry");
}

void Neighbor::handleConnectDone(Ovk::Ptr<Transport> t, std::string const& error) {
   attempt_ = nullptr;
   if (!t) {
      lastError_ = "connect to " + Endpoint{config_.address, config_.port}.str() + " failed: " + error;
      log(lastError_);
      if (connections_.empty()) {
         // RFC 4271 section 8.2.2, Connect state: on a failed attempt, wait in Active.
         base_ = BgpState::active;
         noteState();
      }
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
         drop(*c, Notification{ErrorCode::cease, CeaseSubcode::connectionCollision, {}}, "");
         break;
      }
   }
   // The peer got there first: stop trying to reach it.
   cancelConnecting();
   addConnection(std::move(transport), Origin::remote);
}

void Neighbor::addConnection(Ovk::Ptr<Transport> t, Origin origin) {
   auto c = Ovk::makePtr<Connection>(*this, std::move(t), origin);
   connections_.push_back(c);
   log(std::string(origin == Origin::local ? "connected to " : "connection from ") + c->remote.str() +
       " (local " + c->local.str() + ")");
   c->transport->receiverIs(c.ptr());
   send(*c, encodeOpen(localOpen_), MessageType::open);
   restartHoldTimer(*c);
   noteState();
}

void Neighbor::send(Connection& c, Bytes bytes, MessageType type) {
   ++counters_.messagesOut;
   switch (type) {
   case MessageType::update: ++counters_.updatesOut; break;
   case MessageType::keepalive: ++counters_.keepalivesOut; break;
   case MessageType::notification: ++counters_.notificationsOut; break;
   default: break;
   }
   c.transport->send(std::move(bytes));
}

void Neighbor::restartHoldTimer(Connection& c) {
   if (c.holdTimer) deps_.scheduler->cancel(*c.holdTimer);
   c.holdTimer.reset();
   std::uint16_t const hold = c.state == BgpState::openSent ? kOpenHoldSeconds : c.negotiated.holdTime;
   if (hold == 0) return;
   c.holdTimer = deps_.scheduler->postAfter(seconds(hold), [this, cp = Ovk::Ptr<Connection>(&c)] {
      cp->holdTimer.reset();
      drop(*cp, Notification{ErrorCode::holdTimerExpired, 0, {}}, "");
   }, "hold");
}

void Neighbor::startKeepaliveTimer(Connection& c) {
   if (c.keepaliveTimer) deps_.scheduler->cancel(*c.keepaliveTimer);
   c.keepaliveTimer.reset();
   if (c.negotiated.keepaliveTime == 0) return;
   c.keepaliveTimer = deps_.scheduler->postAfter(seconds(c.negotiated.keepaliveTime), [this, cp = Ovk::Ptr<Connection>(&c)] {
      cp->keepaliveTimer.reset();
      if (!cp->open) return;
      send(*cp, encodeKeepalive(), MessageType::keepalive);
      startKeepaliveTimer(*cp);
   }, "keepalive");
}

void Neighbor::handleMessage(Connection& c, Message const& m) {
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
      drop(c, std::nullopt, "received NOTIFICATION " + (n ? notificationText(n.value()) : std::string("(unreadable)")));
      return;
   }
   case MessageType::open:
      if (c.state != BgpState::openSent) {
         drop(c, fsmError(), "");
         return;
      }
      handleOpen(c, m);
      return;
   case MessageType::keepalive:
      ++counters_.keepalivesIn;
      if (c.state == BgpState::openSent) {
         drop(c, fsmError(), "");
      } else if (c.state == BgpState::openConfirm) {
         handleEstablished(c);
      } else {
         restartHoldTimer(c);
      }
      return;
   case MessageType::update:
      ++counters_.updatesIn;
      if (c.state != BgpState::established) {
         drop(c, fsmError(), "");
         return;
      }
      handleUpdate(c, m);
      return;
   case MessageType::routeRefresh: {
      ++counters_.routeRefreshesIn;
      if (c.state != BgpState::established) {
         drop(c, fsmError(), "");
         return;
      }
      auto family = parseRouteRefresh(m.body());
      if (!family) {
         drop(c, family.reason(), "");
         return;
      }
      restartHoldTimer(c);
      // Nothing is advertised yet, so a refresh has nothing to send again.
      log("route refresh received for " + familyName(family.value()) +
          (c.negotiated.routeRefresh ? "" : " (route refresh was not negotiated; ignored)"));
      return;
   }
   }
}

void Neighbor::handleOpen(Connection& c, Message const& m) {
   auto parsed = parseOpen(m.body());
   if (!parsed) {
      drop(c, parsed.reason(), "");
      return;
   }
   OpenMessage const& remote = parsed.value();
   log("received OPEN: AS " + std::to_string(remote.as()) + ", identifier " + idText(remote.bgpId) +
       ", hold time " + std::to_string(remote.holdTime) + ", families " + familiesText(remote.families));
   if (auto bad = checkOpen(remote, OpenExpectations{config_.remoteAs, local_.as, local_.routerId})) {
      drop(c, *bad, "");
      return;
   }
   Negotiated neg = negotiate(localOpen_, remote);
   if (neg.families.empty()) {
      // RFC 5492 section 5: the data lists the capabilities the session cannot do without.
      drop(c, Notification{ErrorCode::open, OpenSubcode::unsupportedCapability,
                           multiprotocolCapabilities(localOpen_.families)}, "");
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
         drop(c, collision, "");
         return;
      }
      drop(*other, collision, "");
   }
   c.remoteOpen = remote;
   c.negotiated = std::move(neg);
   send(c, encodeKeepalive(), MessageType::keepalive);
   c.state = BgpState::openConfirm;
   restartHoldTimer(c);
   startKeepaliveTimer(c);
   noteState();
}

void Neighbor::handleEstablished(Connection& c) {
   c.state = BgpState::established;
   c.establishedAt = deps_.scheduler->now();
   ++counters_.establishedTransitions;
   cancelConnecting();
   Notification const collision{ErrorCode::cease, CeaseSubcode::connectionCollision, {}};
   auto const all = connections_;
   for (auto const& o : all) {
      if (o.ptr() != &c) drop(*o, collision, "");
   }
   restartHoldTimer(c);
   noteState();
   log("session established: families " + familiesText(c.negotiated.families) + ", hold time " +
       std::to_string(c.negotiated.holdTime) + ", keepalive " + std::to_string(c.negotiated.keepaliveTime));
   if (deps_.updates) deps_.updates->handleEstablished(*this, c.negotiated);
   // RFC 4724 section 2: End-of-RIB after the initial updates, of which there are none yet.
   for (auto const f : c.negotiated.families) send(c, encodeEndOfRib(f), MessageType::update);
}

void Neighbor::handleUpdate(Connection& c, Message const& m) {
   auto summary = summarizeUpdate(m.body());
   // Without a decoder the summary's framing checks decide; with one, the decoder does.
   if (!summary && !deps_.updates) {
      drop(c, summary.reason(), "");
      return;
   }
   restartHoldTimer(c);
   if (!summary) {
      if (auto n = deps_.updates->handleUpdate(*this, m, nullptr)) drop(c, *n, "");
      return;
   }
   UpdateSummary const& s = summary.value();
   if (auto eor = s.endOfRib()) {
      ++counters_.endOfRibIn[*eor];
      log("End-of-RIB received for " + familyName(*eor));
   } else {
      std::vector<AfiSafi> families;
      if (s.withdrawnBytes || s.nlriBytes) families.push_back(kIpv4Unicast);
      for (auto const& p : s.parts) {
         if (p.nlriBytes && std::find(families.begin(), families.end(), p.family) == families.end()) {
            families.push_back(p.family);
         }
      }
      for (auto const f : families) ++counters_.familyUpdatesIn[f];
   }
   if (deps_.updates) {
      if (auto n = deps_.updates->handleUpdate(*this, m, &s)) drop(c, *n, "");
   }
}

void Neighbor::drop(Connection& c, std::optional<Notification> notify, std::string const& reason) {
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
      if (deps_.updates) deps_.updates->handleSessionDown(*this);
   }
   if (connections_.empty()) {
      afterConnectionsGone();
   } else {
      noteState();
   }
}

void Neighbor::afterConnectionsGone() {
   cancelConnecting();
   base_ = BgpState::idle;
   noteState();
   if (!started_) return;
   // Automatic restart: a passive neighbor waits for the peer, an active one tries again
   // after connect-retry.
   base_ = BgpState::active;
   noteState();
   if (!config_.passive) startConnectRetryTimer();
}

NeighborStatus Neighbor::status() const {
   NeighborStatus s;
   s.config = config_;
   s.state = state();
   s.lastError = lastError_;
   s.counters = counters_;
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
