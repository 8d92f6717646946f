#include "agent/api/ApiOps.h"

#include <map>

#include "host/flowspec/FlowspecKey.h"

namespace Flowspecd::Api {

namespace {

Ovk::Failure<Refusal> refuse(std::string message, Code code = Code::invalidArgument) {
   return Ovk::failure(Refusal{code, std::move(message)});
}

std::string routerIdText(std::uint32_t id) { return Ovnet::IpGenAddr::ipv4(id).str(); }

void timestampOf(std::chrono::system_clock::time_point t, google::protobuf::Timestamp& out) {
   auto const since = t.time_since_epoch();
   auto const seconds = std::chrono::floor<std::chrono::seconds>(since);
   out.set_seconds(seconds.count());
   out.set_nanos(static_cast<std::int32_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(since - seconds).count()));
}

// Only the global table of the default VRF is the API's.
std::optional<Refusal> notGlobal(char const* call, apipb::TableType type, std::string const& vrf) {
   if (type == apipb::GLOBAL && vrf.empty()) return std::nullopt;
   return Refusal{Code::unimplemented, std::string(call) + " of table " + apipb::TableType_Name(type) +
                                           (vrf.empty() ? "" : " vrf \"" + vrf.substr(0, 64) + "\"") +
                                           ": the agent's API serves the global table"};
}

// The uuid of a DeletePath, when it names one.
using Uuid = Origination::Uuid;
std::optional<Uuid> uuidOf(std::string const& bytes) {
   if (bytes.size() != std::tuple_size_v<Uuid>) return std::nullopt;
   Uuid u{};
   std::copy(bytes.begin(), bytes.end(), u.begin());
   return u;
}

apipb::PeerState::SessionState sessionStateOf(BgpState s) {
   switch (s) {
   case BgpState::idle: return apipb::PeerState::IDLE;
   case BgpState::connect: return apipb::PeerState::CONNECT;
   case BgpState::active: return apipb::PeerState::ACTIVE;
   case BgpState::openSent: return apipb::PeerState::OPENSENT;
   case BgpState::openConfirm: return apipb::PeerState::OPENCONFIRM;
   case BgpState::established: return apipb::PeerState::ESTABLISHED;
   }
   return apipb::PeerState::UNKNOWN;
}

} // namespace

Answer<apipb::AddPathResponse> addPath(Agent& agent, apipb::AddPathRequest const& request, Caller const& caller) {
   if (auto r = notGlobal("AddPath", request.table_type(), request.vrf_id())) return Ovk::failure(*r);
   if (!request.has_path()) return refuse("AddPath without a path");
   auto words = ruleOfPath(request.path(), std::nullopt, !request.path().is_withdraw());
   if (!words) return Ovk::failure(words.reason());
   RuleWords const& w = words.value();
   if (w.withdraw) {
      auto r = agent.ruleDelete(w.family, w.match, "api " + caller.client);
      if (!r) return refuse(r.reason(), r.reason().rfind("no rule ", 0) == 0 ? Code::notFound : Code::invalidArgument);
      return apipb::AddPathResponse();
   }
   Origination::RuntimeOptions options;
   options.source = "api";
   options.client = caller.client;
   options.lifetime = caller.lifetime;
   auto added = agent.ruleAdd(w.family, w.match, w.then, std::move(options));
   if (!added) return refuse(added.reason());
   apipb::AddPathResponse response;
   response.set_uuid(std::string(added.value().uuid.begin(), added.value().uuid.end()));
   return response;
}

Answer<apipb::Empty> deletePath(Agent& agent, apipb::DeletePathRequest const& request, Caller const& caller) {
   if (auto r = notGlobal("DeletePath", request.table_type(), request.vrf_id())) return Ovk::failure(*r);
   std::optional<AfiSafi> family;
   if (request.has_family()) {
      auto f = familyOf(request.family());
      if (!f) return Ovk::failure(f.reason());
      family = f.value();
   }
   if (!request.uuid().empty()) {
      auto const uuid = uuidOf(request.uuid());
      if (!uuid) return refuse("a uuid is 16 bytes, not " + std::to_string(request.uuid().size()));
      if (!agent.origination()->runtimeRuleDel(*uuid)) return refuse("no rule has this uuid", Code::notFound);
      agent.routing()->noteRefusals();
      return apipb::Empty();
   }
   if (!request.has_path()) {
      if (!family) return refuse("DeletePath without a path, a uuid or a family");
      std::size_t const n = agent.origination()->runtimeRulesDel(*family, "api");
      agent.routing()->noteRefusals();
      (void)n;
      return apipb::Empty();
   }
   auto words = ruleOfPath(request.path(), family, false);
   if (!words) return Ovk::failure(words.reason());
   auto r = agent.ruleDelete(words.value().family, words.value().match, "api " + caller.client);
   if (!r) return refuse(r.reason(), r.reason().rfind("no rule ", 0) == 0 ? Code::notFound : Code::invalidArgument);
   return apipb::Empty();
}

Answer<std::vector<apipb::ListPathResponse>> listPath(Agent& agent, apipb::ListPathRequest const& request,
                                                      Caller const& caller, ListCursor& cursor, std::size_t limit) {
   if (auto r = notGlobal("ListPath", request.table_type(), "")) return Ovk::failure(*r);
   if (!request.name().empty()) return refuse("ListPath of the global table names no neighbor");
   auto family = familyOf(request.family());
   if (!family) return Ovk::failure(family.reason());
   AfiSafi const f = family.value();
   Plugin::Context& context = agent.routing()->context();
   Ovk::Ptr<RibTable> const table = agent.routing()->ribTable(f);
   DedupTablesVrf const* const vrf = context.dedupTablesVrf(BgpL3VrfId::defaultVrfId()).ptr();
   DedupTablesVrfAfiSafi const* const tables = vrf ? vrf->dedupTablesVrfAfiSafi(f) : nullptr;
   if (!table || !tables) return refuse("no plugin serves " + familyName(f), Code::unavailable);
   RouteKeyDedupTableBase const& keys = *tables->routeKeyDedupTableRawPtr();

   auto const now = std::chrono::system_clock::now();
   std::map<Ovnet::IpGenAddr, std::chrono::system_clock::time_point> upSince;
   for (NeighborStatus const& n : agent.neighbors()) {
      upSince[n.config.address] = now - std::chrono::seconds(n.uptimeSeconds);
   }
   AgentConfig const& config = agent.config();

   std::vector<apipb::ListPathResponse> page;
   RouteOrderIndex const& order = table->order();
   RouteOrderIndex::Iterator it = order.begin();
   if (cursor.after) {
      it = order.find(cursor.after.ptr());
      if (it == order.end()) {
         it = order.lowerBound(*cursor.after);
      } else {
         ++it;
      }
   }
   for (; it != order.end() && page.size() < limit; ++it) {
      RouteKey const* const key = *it;
      cursor.after = Ovk::Ptr<RouteKey const>(key);
      std::optional<RibPath> const best = table->bestPath(*key);
      Flowspec::FlowspecKey rule;
      if (!best || !keys.ruleOf(*key, rule)) continue;
      apipb::ListPathResponse& response = page.emplace_back();
      apipb::Destination& d = *response.mutable_destination();
      d.set_prefix(rule.toStrepCli());
      apipb::Path& p = *d.add_paths();
      apipb::FlowSpecNLRI const nlri = nlriOf(rule, caller.dialect);
      pack(*p.mutable_nlri(), nlri, caller.dialect);
      attributesOf(best->contents(), f, nlri, caller.dialect, *p.mutable_pattrs());
      p.set_best(true);
      *p.mutable_family() = apiFamilyOf(f);
      std::chrono::system_clock::time_point age = now;
      if (best->source == kLocalRibSource) {
         p.set_source_asn(config.localAs);
         p.set_source_id(routerIdText(config.routerId));
         if (auto const info = agent.origination()->runtimeInfo(f, *key)) {
            p.set_uuid(std::string(info->uuid.begin(), info->uuid.end()));
            age = info->added;
         }
      } else {
         BgpPeer const& peer = table->sources().peer(best->source);
         p.set_source_asn(peer.remoteAs);
         p.set_source_id(routerIdText(peer.routerId));
         p.set_neighbor_ip(peer.address.str());
         p.set_is_from_external(!peer.internal());
         if (auto const up = upSince.find(peer.address); up != upSince.end()) age = up->second;
      }
      timestampOf(age, *p.mutable_age());
   }
   if (it == order.end()) cursor.done = true;
   return page;
}

Answer<std::vector<apipb::ListPeerResponse>> listPeer(Agent& agent, apipb::ListPeerRequest const& request,
                                                      Caller const&) {
   std::optional<Ovnet::IpGenAddr> only;
   if (!request.address().empty()) {
      only = Ovnet::IpGenAddr::parse(request.address());
      if (!only) return refuse("\"" + request.address().substr(0, 64) + "\" is not an address");
   }
   AgentConfig const& config = agent.config();
   auto const now = std::chrono::system_clock::now();
   std::vector<apipb::ListPeerResponse> out;
   for (NeighborStatus const& n : agent.neighbors()) {
      if (only && *only != n.config.address) continue;
      apipb::Peer& peer = *out.emplace_back().mutable_peer();
      std::string const address = n.config.address.str();
      bool const internal = n.config.remoteAs == config.localAs;
      apipb::PeerConf& conf = *peer.mutable_conf();
      conf.set_neighbor_address(address);
      conf.set_peer_asn(n.config.remoteAs);
      conf.set_local_asn(config.localAs);
      conf.set_description(n.config.description);
      conf.set_type(internal ? apipb::INTERNAL : apipb::EXTERNAL);

      apipb::PeerState& state = *peer.mutable_state();
      state.set_neighbor_address(address);
      state.set_peer_asn(n.config.remoteAs);
      state.set_local_asn(config.localAs);
      state.set_description(n.config.description);
      state.set_type(conf.type());
      state.set_session_state(sessionStateOf(n.state));
      state.set_admin_state(apipb::PeerState::UP);
      state.set_flops(static_cast<std::uint32_t>(n.counters.establishedTransitions > 0
                                                     ? n.counters.establishedTransitions - 1
                                                     : 0));
      if (n.remoteRouterId != 0) state.set_router_id(routerIdText(n.remoteRouterId));
      NeighborCounters const& c = n.counters;
      apipb::Message& in = *state.mutable_messages()->mutable_received();
      in.set_update(c.updatesIn);
      in.set_keepalive(c.keepalivesIn);
      in.set_notification(c.notificationsIn);
      in.set_refresh(c.routeRefreshesIn);
      in.set_total(c.messagesIn);
      in.set_open(c.messagesIn - std::min(c.messagesIn, c.updatesIn + c.keepalivesIn + c.notificationsIn +
                                                            c.routeRefreshesIn));
      apipb::Message& sent = *state.mutable_messages()->mutable_sent();
      sent.set_update(c.updatesOut);
      sent.set_keepalive(c.keepalivesOut);
      sent.set_notification(c.notificationsOut);
      sent.set_total(c.messagesOut);
      sent.set_open(c.messagesOut - std::min(c.messagesOut, c.updatesOut + c.keepalivesOut + c.notificationsOut));

      apipb::Timers& timers = *peer.mutable_timers();
      timers.mutable_config()->set_hold_time(n.config.holdTime);
      timers.mutable_config()->set_keepalive_interval(n.config.holdTime / 3u);
      timers.mutable_config()->set_connect_retry(n.config.connectRetrySeconds);
      timers.mutable_config()->set_minimum_advertisement_interval(n.config.minRouteAdvertisementSeconds);
      apipb::TimersState& ts = *timers.mutable_state();
      ts.set_hold_time(n.config.holdTime);
      ts.set_connect_retry(n.config.connectRetrySeconds);
      ts.set_minimum_advertisement_interval(n.config.minRouteAdvertisementSeconds);
      if (n.state == BgpState::established) {
         ts.set_negotiated_hold_time(n.negotiated.holdTime);
         ts.set_keepalive_interval(n.negotiated.keepaliveTime);
         timestampOf(now - std::chrono::seconds(n.uptimeSeconds), *ts.mutable_uptime());
      }

      apipb::Transport& t = *peer.mutable_transport();
      t.set_passive_mode(n.config.passive);
      t.set_remote_address(address);
      t.set_remote_port(n.remoteEndpoint ? n.remoteEndpoint->port : n.config.port);
      if (n.localEndpoint) {
         t.set_local_address(n.localEndpoint->address.str());
         t.set_local_port(n.localEndpoint->port);
      }

      auto const view = agent.routing()->peer(n.config.address);
      for (AfiSafi const family : n.config.families) {
         apipb::AfiSafi& a = *peer.add_afi_safis();
         *a.mutable_config()->mutable_family() = apiFamilyOf(family);
         a.mutable_config()->set_enabled(true);
         apipb::AfiSafiState& s = *a.mutable_state();
         *s.mutable_family() = apiFamilyOf(family);
         bool const negotiated = n.state == BgpState::established &&
                                 std::find(n.negotiated.families.begin(), n.negotiated.families.end(), family) !=
                                     n.negotiated.families.end();
         s.set_enabled(negotiated);
         if (view) {
            if (auto it = view->received.find(family); it != view->received.end()) s.set_received(it->second);
            if (auto it = view->accepted.find(family); it != view->accepted.end()) s.set_accepted(it->second);
            if (auto it = view->advertised.find(family); it != view->advertised.end()) s.set_advertised(it->second);
         }
      }
   }
   if (only && out.empty()) return refuse("no neighbor " + only->str(), Code::notFound);
   return out;
}

apipb::GetBgpResponse getBgp(Agent& agent) {
   AgentConfig const& config = agent.config();
   apipb::GetBgpResponse response;
   apipb::Global& g = *response.mutable_global();
   g.set_asn(config.localAs);
   g.set_router_id(routerIdText(config.routerId));
   if (!config.listen.empty()) g.set_listen_port(config.listen.front().port);
   for (auto const& l : config.listen) g.add_listen_addresses(l.address.str());
   return response;
}

} // namespace Flowspecd::Api
