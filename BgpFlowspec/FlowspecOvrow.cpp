// The flowspec show tables: registration, the route table and the peer-egress table.
#include "BgpFlowspec/FlowspecOvrow.h"

#include <sstream>
#include <stdexcept>

#include "BgpFlowspec/FlowspecPlugin.h"
#include "BgpFlowspec/FlowspecTypes.h"
#include "host/bgp/FwdTgt.h"
#include "host/bgp/Serialize.h"
#include "host/fwk/Trace.h"
#include "host/ovrow/Render.h"
#include "host/fwk/String.h"

namespace Routing::Bgp::FlowspecPlugin {

namespace {

constexpr BgpVrfIdBase kDefaultVrf = BgpL3VrfId::defaultVrfId();

// The communities of a path as text: standard ones "AS:N", then extended and IPv6
// extended ones decoded ("traffic-rate(...)").
std::vector<std::string> communityTexts(PathAttributesContents const& c) {
   std::vector<std::string> out = c.communityTexts();
   for (auto const& e : c.extCommList.items()) out.push_back(e->toStrep());
   for (auto const& e : c.extCommIp6List.items()) out.push_back(e->toStrep());
   return out;
}

std::string nexthopText(PathAttributesContents const& c) {
   if (!c.nexthop) return {};
   Ovnet::IpGenAddr const a = c.nexthop->addrOrNone();
   return a.isUnspecified() ? std::string() : a.str();
}

// The path columns every table shows alike.
void fillPathColumns(Ovrow::Row& row, PathAttributesContents const& c) {
   row.columnIs("asPath", c.asPathText());
   row.columnIs("origin", std::string(toStrep(c.origin)));
   if (c.localPref) row.columnIs("localPref", std::uint64_t{*c.localPref});
   if (c.med) row.columnIs("med", std::uint64_t{*c.med});
   row.columnIs("nextHop", nexthopText(c));
   row.columnIs("communities", communityTexts(c));
}

std::string sourceText(RibSources const& sources, RibSource source) {
   if (source == kLocalRibSource) return "local";
   return sources.peer(source).address.str();
}

} // namespace

// ---- FlowspecOvrowPlugin ----

void FlowspecOvrowPlugin::registerOvrowTables(Ovk::Ptr<Plugin::ShowCmdContext const> const& context,
                                              Ovrow::LocalOvdb* database) {
   AfiSafi const afiSafi = context->afiSafi();
   OVK_TRACE(flowspecTraceFacility(), 8, "afiSafi=" << afiSafi);
   Ovk::Blink::fields("FlowspecOvrowPlugin::registerOvrowTables",
                      {{"AFI", static_cast<std::uint64_t>(afiSafi.afi())}, {"SAFI", afiSafi.safi()}});
   char const* routePath = nullptr;
   char const* egressPath = nullptr;
   if (afiSafi == AfiSafi::ipv4Flowspec()) {
      routePath = kBgpFlowspecIpv4RoutePath;
      egressPath = kBgpFlowspecIpv4PeerEgressPath;
   } else if (afiSafi == AfiSafi::ipv6Flowspec()) {
      routePath = kBgpFlowspecIpv6RoutePath;
      egressPath = kBgpFlowspecIpv6PeerEgressPath;
   } else {
      return;
   }
   Ovrow::Ovdb& db = database->database();
   // The command's own row type: the tables serve it.
   OVK_ASSERT_MSG(db.tableTypeId(std::string("Bgp::") + "showBgpFlowspec").has_value(),
                  "row type Bgp::showBgpFlowspec registered");
   auto const routeType = db.tableTypeId(std::string("Bgp::") + "bgpFlowspecRoute");
   OVK_ASSERT_MSG(routeType.has_value(), "row type Bgp::bgpFlowspecRoute registered");
   db.registerTable(routePath, *routeType);
   db.tableImplementationIs(routePath, Ovk::makePtr<BgpFlowspecRouteImpl>(context));
   auto const egressType = db.tableTypeId(std::string("Bgp::") + "bgpFlowspecPeerEgress");
   OVK_ASSERT_MSG(egressType.has_value(), "row type Bgp::bgpFlowspecPeerEgress registered");
   db.registerTable(egressPath, *egressType);
   db.tableImplementationIs(egressPath, Ovk::makePtr<BgpFlowspecPeerEgressImpl>(context, egressPath));
}

// ---- BgpFlowspecRouteImpl ----

BgpFlowspecRouteImpl::BgpFlowspecRouteImpl(Ovk::Ptr<Plugin::ShowCmdContext const> context)
    : ExternalTable(Ovrow::Bgp::bgpFlowspecRouteRowType()), context_(std::move(context)) {}

Ovk::Ptr<RibTable const> BgpFlowspecRouteImpl::bribTable() const {
   auto const& vrfs = context_->context().allVrfInstanceStatus();
   auto const it = vrfs.find(kDefaultVrf);
   if (it == vrfs.end()) return nullptr;
   return Plugin::getBribTable(context_->context(), *it->second, context_->afiSafi());
}

Ovk::Ptr<RouteKeyDedupTable const> BgpFlowspecRouteImpl::routeKeyTable() const {
   auto const vrfTables = context_->context().dedupTablesVrf(kDefaultVrf);
   auto const* tables = vrfTables ? vrfTables->dedupTablesVrfAfiSafi(context_->afiSafi()) : nullptr;
   if (!tables) return nullptr;
   return Ovk::Ptr<RouteKeyDedupTable const>(
       dynamic_cast<RouteKeyDedupTable const*>(tables->routeKeyDedupTableRawPtr()));
}

FlowspecRouteKey::PtrConst BgpFlowspecRouteImpl::getRouteKey(Ovk::Ptr<RouteKeyDedupTable const> const& table,
                                                             std::string const& text) const {
   OVK_TRACE(flowspecTraceFacility(), 8,
             "BgpFlowspecRouteImpl: "
                 << "getRouteKey"
                 << " nlri=" << text);
   return dedupFlowspecRouteKey(table, text);
}

namespace {

// Rule text without the notes of values longer than needed ("=80{len=2}" reads "=80").
std::string withoutValueLengths(std::string text) {
   for (std::size_t at = text.find("{len="); at != std::string::npos; at = text.find("{len=", at)) {
      std::size_t const end = text.find('}', at);
      if (end == std::string::npos) break;
      text.erase(at, end - at + 1);
   }
   return text;
}

} // namespace

FlowspecRouteKey::PtrConst BgpFlowspecRouteImpl::startKey(Ovrow::Row const& row) const {
   if (auto const* nlri = row.get<std::string>("rule"); nlri && !nlri->empty()) {
      auto routeKey = getRouteKey(routeKeyTable(), *nlri);
      OVK_ASSERT(routeKey);
      return routeKey;
   }
   if (auto const* dest = row.get<Ovnet::IpGenPrefix>("destPrefix"); dest && !dest->isUnset()) {
      // The rule of the destination's first host address alone.
      Ovnet::IpGenPrefix host = *dest;
      host.clearLowerAddrBits();
      host.maskIs(static_cast<std::uint8_t>(host.maxLen()));
      std::string const text = host.str() + ";*;";
      OVK_TRACE(flowspecTraceFacility(), 8, "Dest prefix provided, starting iterator at nlri " << text);
      auto routeKey = getRouteKey(routeKeyTable(), text);
      OVK_ASSERT(routeKey);
      return routeKey;
   }
   OVK_TRACE(flowspecTraceFacility(), 8, "No nlri provided, starting iterator at beginning of table");
   return nullptr;
}

bool BgpFlowspecRouteImpl::findLowerBound(Ovrow::Row* row, BgpFlowspecRouteIterState& state) const {
   Ovrow::Row& key = Ovrow::requireRow(row);
   state.table = bribTable();
   if (!state.table) return false;
   RouteOrderIndex const& order = state.table->order();
   FlowspecRouteKey::PtrConst const start = startKey(key);
   auto const* nlri = key.get<std::string>("rule");
   if (start && (!nlri || nlri->empty())) {
      // From a destination: the first rule whose destination is not before the start key's.
      // Every rule of a destination sorts at or after its first host address (a longer
      // destination comes first, RFC 8955 section 5.1), whatever its source and components;
      // the start key's own place would come after those with components or a source.
      Ovnet::IpGenPrefix const host = start->destPrefix();
      state.routeIter = order.lowerBoundWhere([&host](RouteKey const& k) {
         return Flowspec::FlowspecKey::cmpPrefix(static_cast<FlowspecRouteKey const&>(k).destPrefix(), host) < 0;
      });
   } else {
      state.routeIter = start ? order.lowerBound(*start) : order.begin();
   }
   state.atNext = false;
   if (state.routeIter == order.end()) return false;
   state.routeKey = FlowspecRouteKey::PtrConst(static_cast<FlowspecRouteKey const*>(*state.routeIter));
   return true;
}

bool BgpFlowspecRouteImpl::beginIterState(BgpFlowspecRouteIterState& state) {
   OVK_TRACE(flowspecTraceFacility(), 8,
             "BgpFlowspecRouteImpl: "
                 << "beginIterState");
   state.table = bribTable();
   if (!state.table || state.table->order().size() == 0) {
      OVK_TRACE(flowspecTraceFacility(), 8,
                "BgpFlowspecRouteImpl: "
                    << "beginIterState"
                    << " returning end()");
      return false;
   }
   state.routeIter = state.table->order().begin();
   OVK_ASSERT_MSG(!(state.routeIter == state.table->order().end()), "routeIter");
   state.routeKey = FlowspecRouteKey::PtrConst(static_cast<FlowspecRouteKey const*>(*state.routeIter));
   state.atNext = false;
   getRoute(state, &state.row);
   return true;
}

bool BgpFlowspecRouteImpl::getRow(Ovrow::Row* row) {
   Ovrow::Row& wanted = Ovrow::requireRow(row);
   OVK_TRACE(flowspecTraceFacility(), 8,
             "BgpFlowspecRouteImpl: "
                 << "getRow"
                 << " key: " << wanted);
   BgpFlowspecRouteIterState state = newIterState();
   if (!findLowerBound(row, state)) return false;
   Ovrow::Row out(rowType());
   getRoute(state, &out);
   // The rule text compares in its canonical form: the text a user typed names the same rule
   // however it is spaced or ordered.
   Ovrow::Row canonical = wanted;
   FlowspecRouteKey::PtrConst typed;
   if (auto const* nlri = wanted.get<std::string>("rule"); nlri && !nlri->empty()) {
      typed = getRouteKey(routeKeyTable(), *nlri);
      canonical.columnIs("rule", typed->toStrepCli());
   }
   if (out.keyEquals(canonical)) {
      wanted = std::move(out);
      return true;
   }
   // A peer may send a value longer than it needs ("=80{len=2}"): that rule means what the
   // text without the length says, and is found among the rules of the same destination and
   // source.
   if (!typed) return false;
   std::string const meaning = withoutValueLengths(typed->toStrepCli());
   Ovnet::IpGenPrefix const dest = typed->destPrefix();
   Ovnet::IpGenPrefix const src = typed->srcPrefix();
   RouteOrderIndex const& order = state.table->order();
   for (auto it = order.lowerBoundWhere([&](RouteKey const& k) {
           auto const& f = static_cast<FlowspecRouteKey const&>(k);
           int const c = Flowspec::FlowspecKey::cmpPrefix(f.destPrefix(), dest);
           return c < 0 || (c == 0 && Flowspec::FlowspecKey::cmpPrefix(f.srcPrefix(), src) < 0);
        });
        it != order.end(); ++it) {
      auto const* k = static_cast<FlowspecRouteKey const*>(*it);
      if (Flowspec::FlowspecKey::cmpPrefix(k->destPrefix(), dest) != 0 ||
          Flowspec::FlowspecKey::cmpPrefix(k->srcPrefix(), src) != 0) {
         break;
      }
      if (withoutValueLengths(k->toStrepCli()) != meaning) continue;
      state.routeIter = it;
      state.routeKey = FlowspecRouteKey::PtrConst(k);
      getRoute(state, &out);
      wanted = std::move(out);
      return true;
   }
   return false;
}

bool BgpFlowspecRouteImpl::lowerBoundIterState(Ovrow::Row* row, BgpFlowspecRouteIterState& state) {
   Ovrow::Row const& key = Ovrow::requireRow(row);
   OVK_TRACE(flowspecTraceFacility(), 8,
             "BgpFlowspecRouteImpl: "
                 << "lowerBoundIterState"
                 << " key: " << key);
   if (!findLowerBound(row, state)) {
      OVK_TRACE(flowspecTraceFacility(), 8,
                "bgpFlowspecRoute:<" << key << ">: "
                                     << "lowerBoundIterState"
                                     << " returning end()");
      return false;
   }
   getRoute(state, &state.row);
   return true;
}

bool BgpFlowspecRouteImpl::getNextRow(BgpFlowspecRouteIterState& state) {
   OVK_TRACE(flowspecTraceFacility(), 8,
             "BgpFlowspecRouteImpl: "
                 << "getNextRow");
   if (!state.table) return false;
   RouteOrderIndex const& order = state.table->order();
   if (state.atNext) {
      state.atNext = false;
   } else if (!(state.routeIter == order.end())) {
      ++state.routeIter;
   }
   if (state.routeIter == order.end()) {
      OVK_TRACE(flowspecTraceFacility(), 8, "No more rows available");
      state.routeKey = nullptr;
      return false;
   }
   state.routeKey = FlowspecRouteKey::PtrConst(static_cast<FlowspecRouteKey const*>(*state.routeIter));
   getRoute(state, &state.row);
   return true;
}

void BgpFlowspecRouteImpl::resumeIterState(BgpFlowspecRouteIterState& state) {
   // The table may have changed since the last row: find the rule again by its key, which
   // the state holds; if it has gone, the next step starts at the rule that followed it.
   if (!state.table || !state.routeKey) return;
   RouteOrderIndex const& order = state.table->order();
   state.routeIter = order.find(state.routeKey.ptr());
   if (state.routeIter == order.end()) {
      state.routeIter = order.lowerBound(*state.routeKey);
      state.atNext = true;
   }
}

void BgpFlowspecRouteImpl::getRoute(BgpFlowspecRouteIterState const& state, Ovrow::Row* row) const {
   OVK_TRACE(flowspecTraceFacility(), 8,
             "BgpFlowspecRouteImpl: "
                 << "getRoute");
   Ovrow::Row& out = Ovrow::requireRow(row);
   out.clear();
   FlowspecRouteKey const& key = *state.routeKey;
   out.columnIs("rule", key.toStrepCli());
   // The id the rule's FSIB record carries (`flowspec fsib` shows it), not the key's address.
   out.columnIs("ruleId", std::uint64_t{static_cast<std::uint32_t>(key.ruleId())});
   if (!key.wontExportReason().empty()) {
      Serialize s;
      key.serializeTo(s);
      out.columnIs("nlri", Ovk::hexOf(s.bytes()));
   }
   out.columnIs("detail", key.toStrepCliDetail());

   auto const main = Ovk::ptrCast<FlowspecPluginMain>(context_->context().pluginMain(context_->afiSafi()));
   OVK_ASSERT_MSG(main != nullptr, "flowspecPluginMain != nullptr");
   OVK_ASSERT_MSG(main->rkToRedirVrfId() != nullptr, "rkToRedirVrfId_ != nullptr");
   FlowspecRedirVrfId const redir = main->rkToRedirVrfId()->map(&key);
   if (!redir.empty()) {
      auto const& vrfs = context_->context().allVrfInstanceStatus();
      auto const it = vrfs.find(BgpVrfIdBase(redir.vrfId));
      std::string const name = it == vrfs.end() ? std::string() : it->second->name();
      if (name.size() > 100) throw std::range_error("VrfName::bytes > VrfName::maxLength not allowed");
      if (name.empty()) OVK_TRACE(flowspecTraceFacility(), 8, "empty vrf name for " << redir.vrfId);
      out.columnIs("redirectVrf", name);
   }

   RibTable const& table = *state.table;
   std::vector<Ovrow::Row> paths;
   bool best = true;
   table.forEachPath(key, [&](RibPath const& p) {
      Ovrow::Row path(Ovrow::Bgp::bgpFlowspecPathRowType());
      path.columnIs("peer", sourceText(table.sources(), p.source));
      path.columnIs("best", best);
      // Kept from a peer that is restarting (graceful restart), not yet announced again.
      path.columnIs("stale", context_->context().pathIsStale(table, key, p.source));
      fillPathColumns(path, p.contents());
      paths.push_back(std::move(path));
      best = false;
   });
   out.columnIs("paths", std::move(paths));

   auto const sm = context_->context().routeConfigSm(ForwardingTarget::flowspec, kDefaultVrf, context_->afiSafi());
   std::string const why = sm ? sm->notInForwardingReason(key) : std::string("no forwarding export");
   out.columnIs("inFsib", why.empty());
   if (!why.empty()) out.columnIs("notInFsibReason", why);
}

// ---- BgpFlowspecPeerEgressImpl ----

BgpFlowspecPeerEgressImpl::BgpFlowspecPeerEgressImpl(Ovk::Ptr<Plugin::ShowCmdContext const> context,
                                                     std::string const& path)
    : ExternalTable(Ovrow::Bgp::bgpFlowspecPeerEgressRowType()), context_(std::move(context)),
      nlriType_(getNlriTypeFromTablePath(path)) {}

NlriType BgpFlowspecPeerEgressImpl::getNlriTypeFromTablePath(std::string const& path) {
   OVK_TRACE(flowspecTraceFacility(), 8,
             "BgpFlowspecPeerEgressImpl: "
                 << "getNlriTypeFromTablePath"
                 << " " << path);
   if (path == kBgpFlowspecIpv4PeerEgressPath) return NlriType::ipv4Flowspec;
   if (path == kBgpFlowspecIpv6PeerEgressPath) return NlriType::ipv6Flowspec;
   OVK_ASSERT_MSG(false, "Unknown table path");
   return NlriType::nlriTypeUnknown;
}

bool BgpFlowspecPeerEgressImpl::beginIterState(BgpFlowspecPeerEgressIterState&) {
   OVK_TRACE(flowspecTraceFacility(), 8,
             "BgpFlowspecPeerEgressImpl: "
                 << "beginIterState");
   OVK_TRACE(flowspecTraceFacility(), 8, "iteration of entire table is not supported");
   return false;
}

bool BgpFlowspecPeerEgressImpl::getRow(Ovrow::Row* row) {
   Ovrow::Row& wanted = Ovrow::requireRow(row);
   BgpFlowspecPeerEgressIterState state = newIterState();
   if (!lowerBoundIterState(row, state)) return false;
   wanted = std::move(state.row);
   return true;
}

bool BgpFlowspecPeerEgressImpl::getNextRow(BgpFlowspecPeerEgressIterState&) { return false; }

bool BgpFlowspecPeerEgressImpl::lowerBoundIterState(Ovrow::Row* row, BgpFlowspecPeerEgressIterState& state) {
   Plugin::Context& context = context_->context();
   OVK_TRACE(flowspecTraceFacility(), 8,
             "BgpFlowspecPeerEgressImpl: "
                 << "lowerBoundIterState");
   Ovrow::Row const& key = Ovrow::requireRow(row);
   auto const nlriType = static_cast<unsigned>(nlriType_);
   // Every failure: its trace line (built only when traced) and no row.
   auto fail = [](auto const&... parts) {
      if (flowspecTraceFacility().enabled(8)) {
         std::ostringstream text;
         (text << ... << parts);
         OVK_TRACE(flowspecTraceFacility(), 8, "BgpFlowspecPeerEgressImpl: " << text.str());
      }
      return false;
   };

   // The VRF, by name; the default VRF when the row names none.
   auto const* vrfName = key.get<std::string>("vrf");
   Ovk::Ptr<Plugin::VrfInstanceStatus> vrf;
   for (auto const& [id, status] : context.allVrfInstanceStatus()) {
      if (vrfName ? status->name() == *vrfName : id == kDefaultVrf) vrf = status;
   }
   if (!vrf) return fail(" no instanceStatus for ", vrfName ? *vrfName : std::string("default"));

   // The peer: a source of paths of that VRF with the row's address.
   auto const* peerText = key.get<std::string>("peer");
   auto const peerAddr = peerText ? Ovnet::IpGenAddr::parse(*peerText) : std::nullopt;
   RibSources const& sources = *context.ribSources();
   std::optional<BgpPeer> peerStatus;
   for (RibSource s = 1; peerAddr && s < sources.size(); ++s) {
      if (sources.peer(s).address == *peerAddr && sources.peer(s).vrfId == vrf->vrfId()) peerStatus = sources.peer(s);
   }
   if (!peerStatus) {
      return fail(" no peerStatus", " nlriType=", nlriType, " peerVrfAddr=", peerText ? *peerText : std::string(), "%",
                  vrf->vrfId());
   }

   auto const afiSafi = nlriType_ == NlriType::ipv4Flowspec ? AfiSafi::ipv4Flowspec() : AfiSafi::ipv6Flowspec();
   Ovk::Ptr<RibTable> const table = Plugin::getBribTable(context, *vrf, afiSafi);
   if (!table) return fail(" getBribTable failed", " nlriType=", nlriType);

   auto const vrfTables = context.dedupTablesVrf(vrf->vrfId());
   auto const* keyTables = vrfTables ? vrfTables->dedupTablesVrfAfiSafi(afiSafi) : nullptr;
   auto const* ruleText = key.get<std::string>("rule");
   FlowspecRouteKey::PtrConst routeKey;
   if (keyTables && ruleText) {
      Ovk::Ptr<RouteKeyDedupTable const> const keyTable(
          dynamic_cast<RouteKeyDedupTable const*>(keyTables->routeKeyDedupTableRawPtr()));
      if (keyTable) routeKey = dedupFlowspecRouteKey(keyTable, *ruleText);
   }
   if (!routeKey) {
      return fail(" dedupRouteKey failed vrfId=", vrf->vrfId(), " nlriType=", nlriType,
                  " nlri=", ruleText ? *ruleText : std::string());
   }

   Ovk::Ptr<AdjRibOut const> const ribOut = context.ribOut(peerStatus->address, vrf->vrfId(), afiSafi);
   if (!ribOut) {
      return fail(" getRibOutSm failed vrfId=", vrf->vrfId(), " nlriType=", nlriType, " peerStatus=", *peerStatus);
   }
   OVK_TRACE(flowspecTraceFacility(), 8,
             "bgpFlowspecPeerEgressKey: "
                 << "vrfId=" << vrf->vrfId() << ", nlriType=" << nlriType << ", peer=" << peerStatus->address
                 << ", nlri=" << routeKey->toStrepCli());

   auto const bribPath = table->bestPath(*routeKey);
   if (!bribPath) {
      return fail(" toBribPath failed vrfId=", vrf->vrfId(), " nlriType=", nlriType,
                  " routeKey=", routeKey->toStrepCli());
   }
   OVK_TRACE(flowspecTraceFacility(), 8, "found bribPath: " << sourceText(sources, bribPath->source));
   AdvertisedPath const* advertised = ribOut->findAdvertisedPath(*routeKey);
   if (!advertised || !advertised->attrs) return false;
   getPeerEgress(vrf->name(), key, *routeKey, *advertised, sources, &state.row);
   return true;
}

void BgpFlowspecPeerEgressImpl::getPeerEgress(std::string const& vrfName, Ovrow::Row const& key,
                                              FlowspecRouteKey const& routeKey, AdvertisedPath const& path,
                                              RibSources const& sources, Ovrow::Row* row) const {
   Ovrow::Row& out = Ovrow::requireRow(row);
   out.clear();
   out.columnIs("vrf", vrfName);
   out.columnIs("peer", key.getColumn("peer"));
   out.columnIs("rule", routeKey.toStrepCli());
   out.columnIs("ruleId", std::uint64_t{static_cast<std::uint32_t>(routeKey.ruleId())});
   out.columnIs("source", path.source < sources.size() ? sourceText(sources, path.source) : std::string());
   fillPathColumns(out, path.attrs->contents());
}

} // namespace Routing::Bgp::FlowspecPlugin
