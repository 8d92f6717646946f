#include "agent/GracefulRestart.h"

#include <algorithm>

namespace Flowspecd {

char const* toStrep(GrState s) {
   switch (s) {
   case GrState::live: return "live";
   case GrState::restarting: return "restarting";
   case GrState::waitingEndOfRib: return "waiting-end-of-rib";
   }
   return "?";
}

char const* toStrep(GrEvent e) {
   switch (e) {
   case GrEvent::sessionLostGracefully: return "sessionLostGracefully";
   case GrEvent::sessionLost: return "sessionLost";
   case GrEvent::sessionUpKeepingForwarding: return "sessionUpKeepingForwarding";
   case GrEvent::sessionUp: return "sessionUp";
   case GrEvent::endOfRib: return "endOfRib";
   case GrEvent::restartTimeOver: return "restartTimeOver";
   case GrEvent::staleTimeOver: return "staleTimeOver";
   }
   return "?";
}

char const* toStrep(GrAction a) {
   switch (a) {
   case GrAction::none: return "none";
   case GrAction::purgeAll: return "purgeAll";
   case GrAction::keepAsStale: return "keepAsStale";
   case GrAction::purgeStale: return "purgeStale";
   case GrAction::purgeStaleAgain: return "purgeStaleAgain";
   }
   return "?";
}

GrStep grStep(GrState state, GrEvent event) {
   using S = GrState;
   using E = GrEvent;
   using A = GrAction;
   switch (state) {
   case S::live:
      if (event == E::sessionLostGracefully) return {S::restarting, A::keepAsStale};
      if (event == E::sessionLost) return {S::live, A::purgeAll};
      return {S::live, A::none};
   case S::restarting:
      switch (event) {
      // RFC 4724 section 4.2: back with the family's forwarding state kept, the stale paths
      // wait for End-of-RIB; back without it, they go at once.
      case E::sessionUpKeepingForwarding: return {S::waitingEndOfRib, A::none};
      case E::sessionUp: return {S::live, A::purgeStale};
      case E::restartTimeOver: return {S::live, A::purgeStale};
      // (A loss while restarting: no session to lose. End-of-RIB: none without a session.)
      default: return {S::restarting, A::none};
      }
   case S::waitingEndOfRib:
      switch (event) {
      case E::endOfRib:
      case E::staleTimeOver: return {S::live, A::purgeStale};
      case E::sessionLostGracefully: return {S::restarting, A::purgeStaleAgain};
      case E::sessionLost: return {S::live, A::purgeAll};
      default: return {S::waitingEndOfRib, A::none};
      }
   }
   return {state, A::none};
}

GrEvent sessionLossEvent(Negotiated const& negotiated, AfiSafi family, SessionEnd const& end, std::string* why) {
   auto const say = [why](char const* text) {
      if (why) *why = text;
   };
   GracefulRestartCapability const* gr = negotiated.peerGracefulRestart ? &*negotiated.peerGracefulRestart : nullptr;
   if (!gr) {
      say("no graceful restart negotiated");
      return GrEvent::sessionLost;
   }
   if (!gr->find(family)) {
      say("the peer's graceful restart leaves out the family");
      return GrEvent::sessionLost;
   }
   if (end.kind == SessionEnd::Kind::closed) {
      say("the connection ended without NOTIFICATION");
      return GrEvent::sessionLostGracefully;
   }
   if (!negotiated.gracefulNotification) {
      say("a NOTIFICATION ended it, without the N bit on both sides");
      return GrEvent::sessionLost;
   }
   if (end.notification && isHardReset(*end.notification)) {
      say("Hard Reset");
      return GrEvent::sessionLost;
   }
   say("a NOTIFICATION other than Hard Reset, with the N bit on both sides");
   return GrEvent::sessionLostGracefully;
}

GrEvent sessionUpEvent(Negotiated const& negotiated, AfiSafi family) {
   if (!negotiated.peerGracefulRestart) return GrEvent::sessionUp;
   GracefulRestartFamily const* f = negotiated.peerGracefulRestart->find(family);
   return f && f->forwardingPreserved ? GrEvent::sessionUpKeepingForwarding : GrEvent::sessionUp;
}

Notification notificationToSend(Notification const& n, bool gracefulNotification, bool flushPeer) {
   if (!gracefulNotification || !flushPeer || isHardReset(n)) return n;
   return hardReset(n);
}

RestartConvergence::RestartConvergence(bool restarting, std::vector<Ovnet::IpGenAddr> const& neighbors,
                                       std::function<void(std::string const&)> converged)
    : restarting_(restarting), done_(!restarting), converged_(std::move(converged)) {
   if (!restarting_) return;
   for (auto const& a : neighbors) awaited_[a] = Awaited{};
}

void RestartConvergence::sessionUp(Ovnet::IpGenAddr const& neighbor, Negotiated const& negotiated) {
   auto const it = awaited_.find(neighbor);
   if (done_ || it == awaited_.end() || it->second.up) return;
   // RFC 4724 section 4.1: peers that do not restart gracefully, and those restarting
   // themselves, are not waited for.
   if (!negotiated.peerGracefulRestart || negotiated.peerGracefulRestart->restarting) {
      awaited_.erase(it);
      return;
   }
   it->second.up = true;
   it->second.endOfRibs.insert(negotiated.families.begin(), negotiated.families.end());
   if (it->second.endOfRibs.empty()) awaited_.erase(it);
}

void RestartConvergence::endOfRib(Ovnet::IpGenAddr const& neighbor, AfiSafi family) {
   auto const it = awaited_.find(neighbor);
   if (done_ || it == awaited_.end() || !it->second.up) return;
   it->second.endOfRibs.erase(family);
   if (it->second.endOfRibs.empty()) awaited_.erase(it);
}

void RestartConvergence::neighborGone(Ovnet::IpGenAddr const& neighbor) { awaited_.erase(neighbor); }

void RestartConvergence::deferralOver() {
   if (done_) return;
   std::string text;
   for (auto const& w : waitingFor()) text += (text.empty() ? "" : ", ") + w;
   finish("selection-deferral time over" + (text.empty() ? std::string() : ", still waiting for " + text));
}

void RestartConvergence::check(bool settled) {
   if (done_ || !awaited_.empty() || !settled) return;
   finish("End-of-RIB from every neighbor that restarts gracefully");
}

void RestartConvergence::finish(std::string const& why) {
   done_ = true;
   awaited_.clear();
   if (converged_) converged_(why);
}

std::vector<std::string> RestartConvergence::waitingFor() const {
   std::vector<std::string> out;
   for (auto const& [address, a] : awaited_) {
      if (!a.up) {
         out.push_back(address.str() + " (no session yet)");
         continue;
      }
      std::string families;
      for (AfiSafi const f : a.endOfRibs) families += (families.empty() ? "" : " ") + familyName(f);
      out.push_back(address.str() + " (End-of-RIB " + families + ")");
   }
   return out;
}

} // namespace Flowspecd
