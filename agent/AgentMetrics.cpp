#include "agent/AgentMetrics.h"

#include <fstream>
#include <unistd.h>

#include "host/flowspec/RuleSet.h"
#include "host/metrics/PromText.h"
#include "host/mnemo/SlateRuleSetMount.h"

namespace Flowspecd {

namespace {

using U = std::uint64_t;

std::uint64_t residentBytes() {
   std::ifstream statm("/proc/self/statm");
   std::uint64_t size = 0;
   std::uint64_t resident = 0;
   statm >> size >> resident;
   long const page = ::sysconf(_SC_PAGESIZE);
   return resident * static_cast<std::uint64_t>(page > 0 ? page : 4096);
}

unsigned stateNumber(BgpState s) { return static_cast<unsigned>(s) + 1; }

} // namespace

std::string agentMetricsText(Agent const& agent, std::map<std::string, ApiCallCounts> const& api) {
   Ovk::PromText m;
   m.reserve(16384);
   std::vector<NeighborStatus> const neighbors = agent.neighbors();
   BgpRouting const* const routing = agent.routing();

   m.family("flowspecd_neighbor_info", "gauge", "A configured neighbor: its AS and description (always 1).");
   for (auto const& n : neighbors) {
      m.sample("flowspecd_neighbor_info",
               {{"neighbor", n.config.address.str()},
                {"remote_as", std::to_string(n.config.remoteAs)},
                {"description", n.config.description}},
               U{1});
   }
   m.family("flowspecd_neighbor_state", "gauge",
            "BGP state of the session: 1 Idle, 2 Connect, 3 Active, 4 OpenSent, 5 OpenConfirm, 6 Established.");
   for (auto const& n : neighbors) m.sample("flowspecd_neighbor_state", {{"neighbor", n.config.address.str()}}, U{stateNumber(n.state)});
   m.family("flowspecd_neighbor_up", "gauge", "1 while the session is Established.");
   for (auto const& n : neighbors) {
      m.sample("flowspecd_neighbor_up", {{"neighbor", n.config.address.str()}}, U{n.state == BgpState::established});
   }
   m.family("flowspecd_neighbor_uptime_seconds", "gauge", "Time since the session became Established (0 when not).");
   for (auto const& n : neighbors) m.sample("flowspecd_neighbor_uptime_seconds", {{"neighbor", n.config.address.str()}}, U{n.uptimeSeconds});
   m.family("flowspecd_neighbor_established_total", "counter", "Times the session became Established.");
   for (auto const& n : neighbors) {
      m.sample("flowspecd_neighbor_established_total", {{"neighbor", n.config.address.str()}}, U{n.counters.establishedTransitions});
   }
   struct MessageCount {
      char const* name;
      char const* help;
      std::uint64_t NeighborCounters::*field;
   };
   for (MessageCount const& mc : {MessageCount{"flowspecd_neighbor_messages_received_total", "BGP messages received.",
                                               &NeighborCounters::messagesIn},
                                  MessageCount{"flowspecd_neighbor_messages_sent_total", "BGP messages sent.",
                                               &NeighborCounters::messagesOut},
                                  MessageCount{"flowspecd_neighbor_updates_received_total", "UPDATE messages received.",
                                               &NeighborCounters::updatesIn},
                                  MessageCount{"flowspecd_neighbor_updates_sent_total", "UPDATE messages sent.",
                                               &NeighborCounters::updatesOut},
                                  MessageCount{"flowspecd_neighbor_notifications_received_total",
                                               "NOTIFICATION messages received.", &NeighborCounters::notificationsIn},
                                  MessageCount{"flowspecd_neighbor_notifications_sent_total",
                                               "NOTIFICATION messages sent.", &NeighborCounters::notificationsOut}}) {
      m.family(mc.name, "counter", mc.help);
      for (auto const& n : neighbors) m.sample(mc.name, {{"neighbor", n.config.address.str()}}, n.counters.*mc.field);
   }

   // What each neighbor's rules did, per family, from the routing's view of it.
   std::vector<std::pair<Ovnet::IpGenAddr, BgpRouting::PeerView>> const peers =
       routing ? routing->peers() : std::vector<std::pair<Ovnet::IpGenAddr, BgpRouting::PeerView>>{};
   auto perFamily = [&](char const* name, char const* type, char const* help, auto value) {
      m.family(name, type, help);
      for (auto const& [address, v] : peers) {
         std::string const a = address.str();
         for (AfiSafi const f : {kIpv4Flowspec, kIpv6Flowspec}) {
            if (auto const x = value(v, f)) m.sample(name, {{"neighbor", a}, {"family", familyName(f)}}, U{*x});
         }
      }
   };
   auto in = [](auto const& map, AfiSafi f) -> std::optional<U> {
      auto const it = map.find(f);
      return it == map.end() ? std::nullopt : std::optional<U>(static_cast<U>(it->second));
   };
   perFamily("flowspecd_neighbor_rules_received", "gauge", "The neighbor's rules in the RIB now.",
             [&](auto const& v, AfiSafi f) { return in(v.received, f); });
   perFamily("flowspecd_neighbor_rules_accepted", "gauge", "Of them, those whose best path is the neighbor's.",
             [&](auto const& v, AfiSafi f) { return in(v.accepted, f); });
   perFamily("flowspecd_neighbor_rules_announced_total", "counter", "Rules (NLRI) the neighbor announced.",
             [](auto const& v, AfiSafi f) -> std::optional<U> {
                auto const it = v.counters.families.find(f);
                return it == v.counters.families.end() ? std::nullopt : std::optional<U>(it->second.announced);
             });
   perFamily("flowspecd_neighbor_rules_withdrawn_total", "counter", "Rules (NLRI) the neighbor withdrew.",
             [](auto const& v, AfiSafi f) -> std::optional<U> {
                auto const it = v.counters.families.find(f);
                return it == v.counters.families.end() ? std::nullopt : std::optional<U>(it->second.withdrawn);
             });
   perFamily("flowspecd_neighbor_rules_refused_total", "counter",
             "Rules (NLRI) of the neighbor the flowspec parse rule refused (reasons: "
             "flowspecd_neighbor_parse_errors_total).",
             [](auto const& v, AfiSafi f) -> std::optional<U> {
                auto const it = v.counters.families.find(f);
                return it == v.counters.families.end() ? std::nullopt : std::optional<U>(it->second.refused);
             });
   perFamily("flowspecd_neighbor_rules_sent_total", "counter", "Rules advertised to the neighbor.",
             [](auto const& v, AfiSafi f) -> std::optional<U> {
                auto const it = v.sent.find(f);
                return it == v.sent.end() ? std::nullopt : std::optional<U>(it->second.advertised);
             });
   perFamily("flowspecd_neighbor_rules_advertised", "gauge", "Rules the neighbor holds from us now.",
             [&](auto const& v, AfiSafi f) { return in(v.advertised, f); });
   perFamily("flowspecd_neighbor_fsib_refusals_total", "counter",
             "The neighbor's best rules the full FSIB refused.",
             [&](auto const& v, AfiSafi f) { return in(v.fsibRefusals, f); });
   m.family("flowspecd_neighbor_parse_errors_total", "counter", "Errors in the neighbor's UPDATEs, by count reason.");
   for (auto const& [address, v] : peers) {
      for (auto const& [reason, n] : v.counters.reasons) {
         m.sample("flowspecd_neighbor_parse_errors_total", {{"neighbor", address.str()}, {"reason", toStrep(reason)}}, n);
      }
   }

   // The RIB and the export, per family of the default VRF.
   if (routing) {
      Plugin::Context const& context = routing->context();
      struct Row {
         std::string family;
         U rules, paths, bytes;
         FwdTgtRouteConfigSm::ExportCounters const* exported;
      };
      std::vector<Row> rows;
      for (AfiSafi const f : {kIpv4Flowspec, kIpv6Flowspec}) {
         auto const t = routing->ribTable(f);
         if (!t) continue;
         auto const sm = context.routeConfigSm(ForwardingTarget::flowspec, BgpL3VrfId::defaultVrfId(), f);
         rows.push_back({familyName(f), t->routes(), t->paths(), t->bytes(), sm ? &sm->exportCounters() : nullptr});
      }
      m.family("flowspecd_rib_rules", "gauge", "Rules with a path in the RIB.");
      for (auto const& r : rows) m.sample("flowspecd_rib_rules", {{"family", r.family}}, r.rules);
      m.family("flowspecd_rib_paths", "gauge", "Paths in the RIB.");
      for (auto const& r : rows) m.sample("flowspecd_rib_paths", {{"family", r.family}}, r.paths);
      m.family("flowspecd_rib_index_bytes", "gauge", "Memory of the RIB's order index and store of other paths.");
      for (auto const& r : rows) m.sample("flowspecd_rib_index_bytes", {{"family", r.family}}, r.bytes);
      m.family("flowspecd_rib_attribute_sets", "gauge", "Distinct interned path attribute sets.");
      m.sample("flowspecd_rib_attribute_sets", U{context.rtAttrDedupTable()->size()});
      m.family("flowspecd_rib_attribute_sets_built_total", "counter", "Attribute sets the sessions built.");
      m.sample("flowspecd_rib_attribute_sets_built_total", U{routing->attributeSetsBuilt()});
      m.family("flowspecd_fsib_export_total", "counter",
               "What the export did to the FSIB: rules added, replaced, deleted, refused (full), displaced, "
               "refilled.");
      for (auto const& r : rows) {
         if (!r.exported) continue;
         FwdTgtRouteConfigSm::ExportCounters const& c = *r.exported;
         for (auto const& [event, n] : {std::pair{"added", c.added}, std::pair{"replaced", c.replaced},
                                        std::pair{"deleted", c.deleted}, std::pair{"refused", c.refusedFull},
                                        std::pair{"displaced", c.displaced}, std::pair{"refilled", c.refilled}}) {
            m.sample("flowspecd_fsib_export_total", {{"family", r.family}, {"event", event}}, U{n});
         }
      }
      m.family("flowspecd_fsib_not_exportable_total", "counter", "Best rules the forwarding plane cannot take.");
      for (auto const& r : rows) {
         if (r.exported) m.sample("flowspecd_fsib_not_exportable_total", {{"family", r.family}}, U{r.exported->notExportable});
      }
      m.family("flowspecd_fsib_refusals_total", "counter", "Rules the full FSIB refused, both families.");
      m.sample("flowspecd_fsib_refusals_total", U{routing->fsibRefusals()});
   }
   if (Mnemo::EntityManager* em = agent.entityManager()) {
      if (Ovk::Ptr<Flowspec::RuleSet> const fsib = Mnemo::fsibOf(*em)) {
         m.family("flowspecd_fsib_rules", "gauge", "Rules in the FSIB, both families.");
         m.sample("flowspecd_fsib_rules", U{fsib->ruleCount()});
         m.family("flowspecd_fsib_capacity", "gauge", "Rules the FSIB holds at most.");
         m.sample("flowspecd_fsib_capacity", U{fsib->ruleCapacity()});
      }
   }

   if (Origination const* o = agent.origination()) {
      m.family("flowspecd_originated_rules", "gauge", "Rules the agent originates, by source (config, cli, api).");
      m.sample("flowspecd_originated_rules", {{"source", "config"}}, U{o->configured()});
      auto const bySource = o->runtimeBySource();
      for (char const* source : {"cli", "api"}) {
         auto const it = bySource.find(source);
         m.sample("flowspecd_originated_rules", {{"source", source}}, U{it == bySource.end() ? 0 : it->second});
      }
      m.family("flowspecd_originated_rules_expiring", "gauge", "Run-time rules with a lifetime.");
      m.sample("flowspecd_originated_rules_expiring", U{o->expiring()});
      m.family("flowspecd_originated_rules_expired_total", "counter", "Rules withdrawn at the end of their lifetime.");
      m.sample("flowspecd_originated_rules_expired_total", U{o->expired()});
   }

   m.family("flowspecd_control_requests_total", "counter", "Control-socket requests, by kind.");
   for (auto const& [kind, c] : agent.controlCounts()) m.sample("flowspecd_control_requests_total", {{"request", kind}}, c.requests);
   m.family("flowspecd_control_errors_total", "counter", "Control-socket requests answered with an error, by kind.");
   for (auto const& [kind, c] : agent.controlCounts()) m.sample("flowspecd_control_errors_total", {{"request", kind}}, c.errors);
   m.family("flowspecd_api_requests_total", "counter", "gRPC API calls, by method (other: methods not served).");
   for (auto const& [method, c] : api) m.sample("flowspecd_api_requests_total", {{"method", method}}, c.requests);
   m.family("flowspecd_api_errors_total", "counter", "gRPC API calls answered with an error, by method and status.");
   for (auto const& [method, c] : api) {
      for (auto const& [code, n] : c.errors) m.sample("flowspecd_api_errors_total", {{"method", method}, {"code", code}}, n);
   }

   m.family("process_resident_memory_bytes", "gauge", "Resident memory of the agent.");
   m.sample("process_resident_memory_bytes", residentBytes());
   m.family("process_start_time_seconds", "gauge", "When the agent started, in seconds since the epoch.");
   m.sample("process_start_time_seconds",
            std::chrono::duration<double>(agent.startedAt().time_since_epoch()).count());
   return m.take();
}

} // namespace Flowspecd
