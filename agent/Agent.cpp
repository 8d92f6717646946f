#include "agent/Agent.h"
#include "host/fwk/JsonText.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <iostream>

#include "agent/RoutingShow.h"
#include "agent/ShowNeighbors.h"
#include "agent/ShowTables.h"
#include "host/bgp/RtImport.h"
#include "host/mnemo/SlateRuleSet.h"
#include "host/mnemo/SlateRuleSetMount.h"
#include "host/plugin/PluginHost.h"

namespace Flowspecd {

namespace {

// How often a source that goes on being turned away is said again.
constexpr std::chrono::seconds kRefusedConnectionReport{60};

bool anyPassword(std::vector<NeighborConfig> const& neighbors) {
   return std::any_of(neighbors.begin(), neighbors.end(), [](NeighborConfig const& n) { return !n.password.empty(); });
}

} // namespace

Agent::Agent(asio::io_context& io, AgentConfig config, Logger& logger)
    : io_(io), config_(std::move(config)), logger_(logger), scheduler_(EventLoopScheduler::create(io)),
      connector_(Ovk::makePtr<AsioConnector>(io)),
      strangers_(std::make_unique<RateLimitedLog>(logger_, scheduler_, "connection(s) from a stranger closed",
                                                  kRefusedConnectionReport)),
      lowTtl_(std::make_unique<RateLimitedLog>(logger_, scheduler_, "connection(s) refused for their TTL (ttl-security)",
                                               kRefusedConnectionReport)),
      md5Drops_(std::make_unique<Md5DropLog>(logger_, scheduler_)) {}

Agent::~Agent() {
   stop();
   neighbors_.clear();
   byAddress_.clear();
   if (context_) context_->stalePathTestIs({});
   origination_ = nullptr;
   routing_ = nullptr;
   if (context_) context_->shutdown();
   if (entityManager_) Mnemo::unmountFsib(*entityManager_);
}

Ovk::Result<bool, std::string> Agent::start() {
   auto library = Plugin::loadPluginLibrary(config_.pluginPath);
   if (!library) return Ovk::failure(library.reason());
   logger_.log("-", "plugin library " + config_.pluginPath + " loaded");
   Plugin::Context::Options options;
   options.taskScheduler = scheduler_;
   options.attributeCacheStatus = Hoard::AttributeCacheStatus::create();
   options.local =
       BgpPeer{Ovnet::IpGenAddr(), config_.localAs, config_.localAs, config_.routerId, BgpL3VrfId::defaultVrfId()};
   // The FSIB is the agent's: mounted here first, so that a segment another agent writes is
   // a clear error at start, and the export's mount shares this one.
   entityManager_ = Ovk::makePtr<Mnemo::EntityManager>(config_.fsibPrefix);
   Mnemo::MountStatus const mounted = Mnemo::mountFsib(*entityManager_);
   if (mounted != Mnemo::MountStatus::mounted) {
      std::string const name = entityManager_->segmentName(Mnemo::fsibPath).value_or("?");
      std::string const& why = entityManager_->lastMountProblem();
      return Ovk::failure("cannot write the FSIB " + name + ": " +
                          (why.empty() ? std::string(Mnemo::toStrep(mounted)) : why) +
                          (why.find("another running process") != std::string::npos
                               ? " (another flowspecd with fsib-prefix \"" + config_.fsibPrefix + "\"?)"
                               : ""));
   }
   // A segment changed under the agent is replaced; the operator hears of it.
   slate_ = Ovk::ptrCast<Mnemo::SlateRuleSet>(Mnemo::fsibOf(*entityManager_));
   if (slate_) {
      slate_->problemHandlerIs([this](std::string const& text) { logger_.log("-", text); });
      // A segment found damaged, of another format or unfinished was not trusted: said here.
      for (std::string const& note : slate_->attachNotes()) logger_.log("-", "FSIB: " + note);
      forwardingKept_ = slate_->foundExisting();
      // Before the export empties the FSIB and fills it again: the forwarding plane is told
      // to keep what it has until the RIB is back.
      startConvergence();
   }
   options.entityManager = entityManager_;
   context_ = Plugin::startPlugins(std::move(options));
   applyVrfs();
   if (!context_->afiSafiTable()->helpers(kIpv4Flowspec) && !context_->afiSafiTable()->helpers(kIpv6Flowspec)) {
      return Ovk::failure("the plugin library " + config_.pluginPath + " registered no address family");
   }
   routing_ = std::make_unique<BgpRouting>(logger_, context_);
   routing_->globalRuleLimitIs(config_.maxRules);
   routing_->validationDefaultIs(std::any_of(config_.neighbors.begin(), config_.neighbors.end(),
                                             [](NeighborConfig const& n) { return n.sendsUnicast(); }));
   for (NeighborConfig const& n : config_.neighbors) applyImport(n);
   if (std::string const w = passwordExposure(config_); !w.empty()) logger_.log("-", "warning: " + w);
   routing_->gracefulRestartIs(config_.gracefulRestart);
   routing_->convergenceIs(convergence_.get());
   context_->stalePathTestIs([this](RibTable const& table, RouteKey const& key, RibSource source) {
      return routing_ && routing_->pathIsStale(table, key, source);
   });
   origination_ = std::make_unique<Origination>(context_, entityManager_);
   origination_->expiryHandlerIs([this](std::string const& rule) {
      routing_->noteRefusals();
      logger_.log("-", "rule " + rule + " expired: withdrawn");
   });
   if (ConfigErrors const errors = origination_->check(config_.rules, config_.source); !errors.empty()) {
      std::string text;
      for (auto const& e : errors) text += (text.empty() ? "" : "; ") + e.str();
      stop();
      return Ovk::failure(text);
   }
   applyRules("start");
   for (auto const& at : config_.listen) {
      auto l = AsioListener::create(
          io_, at, [this](AsioListener::Incoming const& in) { return screen(in); },
          [this](Ovk::Ptr<Transport> t) { handleAccept(std::move(t)); },
          [this](std::string const& why) { logger_.log("-", why); });
      if (!l) {
         stop();
         return Ovk::failure(l.reason());
      }
      logger_.log("-", "listening on " + at.str());
      listeners_.push_back(l.value());
   }
   if (auto const problems = applyListenerSecurity({}, config_.neighbors); !problems.empty()) {
      stop();
      return Ovk::failure(problems.front());
   }
   md5Drops_->activeIs(anyPassword(config_.neighbors));
   auto control = ControlServer::create(io_, config_.controlSocket,
                                        [this](std::string_view request) { return handleControl(request); });
   if (!control) {
      stop();
      return Ovk::failure(control.reason());
   }
   control_ = control.value();
   control_->streamHandlerIs([this](std::string_view request) -> std::unique_ptr<ControlStream> {
      if (!isShowTableRequest(request)) return nullptr;
      ++controlCounts_["show table"].requests;
      return showTableStream(Ovk::Ptr<Plugin::Context>(&routing_->context()), request,
                             [this](Ovnet::IpGenAddr const& a) { return byAddress_.count(a) != 0; });
   });
   logger_.log("-", "control socket " + config_.controlSocket);
   for (auto const& n : config_.neighbors) {
      auto neighbor = makeNeighbor(n);
      byAddress_[n.address] = neighbor.ptr();
      neighbors_.push_back(neighbor);
   }
   for (auto const& n : neighbors_) n->start();
   if (convergence_ && !convergence_->converged()) {
      deferralEnds_ = scheduler_->now() + std::chrono::seconds(config_.gracefulRestart.selectionDeferralTime);
      deferralTask_ = scheduler_->postAfter(
          std::chrono::seconds(config_.gracefulRestart.selectionDeferralTime),
          [this] {
             deferralTask_.reset();
             if (convergence_) convergence_->deferralOver();
          },
          "selectionDeferral");
      checkConvergence();
   }
   return true;
}

std::optional<GracefulRestartCapability> Agent::gracefulRestartCapability(std::vector<AfiSafi> const& families) const {
   GracefulRestartConfig const& c = config_.gracefulRestart;
   if (!c.enabled) return std::nullopt;
   GracefulRestartCapability cap;
   cap.restartTime = c.restartTime;
   cap.notification = c.notification;
   // RFC 4724 section 3: R while our own restart is not over; F when the forwarding plane
   // kept the rules of the run before (the FSIB was there).
   cap.restarting = convergence_ && !convergence_->converged();
   for (AfiSafi const f : families) cap.families.push_back({f, forwardingKept_});
   return cap;
}

void Agent::startConvergence() {
   bool const restarting = config_.gracefulRestart.enabled && forwardingKept_;
   std::vector<Ovnet::IpGenAddr> addresses;
   for (auto const& n : config_.neighbors) addresses.push_back(n.address);
   convergence_ = std::make_unique<RestartConvergence>(restarting, addresses,
                                                       [this](std::string const& why) { handleConverged(why); });
   if (!restarting) {
      // (A flag an earlier run left, dying before it converged, is cleared too.)
      slate_->convergedIs(true);
      return;
   }
   slate_->convergedIs(false);
   logger_.log("-", "restart: the FSIB holds " + std::to_string(slate_->ruleCount()) +
                        " rule(s) of the run before; the forwarding plane keeps them until End-of-RIB from every "
                        "neighbor (selection-deferral-time " +
                        std::to_string(config_.gracefulRestart.selectionDeferralTime) + " s at most)");
}

void Agent::checkConvergence() {
   convergenceCheck_.reset();
   if (!convergence_ || convergence_->converged()) return;
   bool settled = routing_ && routing_->purgesPending() == 0;
   for (AfiSafi const f : {kIpv4Flowspec, kIpv6Flowspec}) {
      if (auto sm = routing_ ? routing_->exportSm(f) : nullptr; sm && !sm->exportSettled()) settled = false;
   }
   convergence_->check(settled);
   if (convergence_->converged()) return;
   convergenceCheck_ = scheduler_->postAfter(std::chrono::milliseconds(100), [this] { checkConvergence(); },
                                             "restartConvergence");
}

void Agent::handleConverged(std::string const& why) {
   if (deferralTask_) scheduler_->cancel(*deferralTask_);
   if (convergenceCheck_) scheduler_->cancel(*convergenceCheck_);
   deferralTask_.reset();
   convergenceCheck_.reset();
   if (slate_) slate_->convergedIs(true);
   logger_.log("-", "restart over (" + why + "): the FSIB is complete again with " +
                        std::to_string(slate_ ? slate_->ruleCount() : 0) + " rule(s); the forwarding plane follows it");
}

nlohmann::json Agent::restartJson() const {
   nlohmann::json j;
   bool const converging = convergence_ && !convergence_->converged();
   j["restarting"] = convergence_ && convergence_->restarting();
   j["converged"] = !converging;
   j["forwardingKept"] = forwardingKept_;
   j["waitingFor"] = converging ? convergence_->waitingFor() : std::vector<std::string>{};
   auto const left = std::chrono::ceil<std::chrono::seconds>(deferralEnds_ - scheduler_->now()).count();
   j["deferralSecondsLeft"] = converging && left > 0 ? static_cast<std::uint64_t>(left) : 0;
   return j;
}

Ovk::Ptr<Neighbor> Agent::makeNeighbor(NeighborConfig const& n) {
   Neighbor::Deps const deps{scheduler_, connector_, &logger_, routing_.get(),
                             [this](std::vector<AfiSafi> const& families) { return gracefulRestartCapability(families); }};
   LocalSpeaker const local{config_.localAs, config_.routerId, sourceAddress(config_, n)};
   SessionRibOut::Options ribOut;
   ribOut.minRouteAdvertisementInterval = std::chrono::seconds(n.minRouteAdvertisementSeconds);
   routing_->ribOuts().optionsIs(n.address, ribOut);
   return Ovk::makePtr<Neighbor>(n, local, deps);
}

void Agent::applyImport(NeighborConfig const& n) {
   bool const policy = n.policy.destinations || n.policy.actions || n.policy.minimumRate;
   routing_->importSettingsIs(n.address, BgpRouting::ImportSettings{policy ? ImportPolicy::create(n.policy) : nullptr,
                                                                    n.maxRules, n.validate});
}

std::vector<std::string> Agent::applyListenerSecurity(std::vector<NeighborConfig> const& before,
                                                      std::vector<NeighborConfig> const& next) {
   std::vector<std::string> problems;
   auto const note = [&](std::string why) {
      if (!why.empty()) problems.push_back(std::move(why));
   };
   for (auto const& l : listeners_) {
      for (NeighborConfig const& b : before) {
         bool const keeps = std::any_of(next.begin(), next.end(), [&](NeighborConfig const& n) {
            return n.address == b.address && !n.password.empty();
         });
         if (!b.password.empty() && !keeps) note(l->md5KeyIs(b.address, ""));
      }
      bool gtsm = false;
      for (NeighborConfig const& n : next) {
         if (!n.password.empty()) note(l->md5KeyIs(n.address, n.password));
         if (n.ttlSecurity && n.address.af() == l->endpoint().address.af()) gtsm = true;
      }
      note(l->ttlSecurityIs(gtsm));
   }
   return problems;
}

std::optional<TcpSecurity> Agent::screen(AsioListener::Incoming const& in) {
   auto const it = byAddress_.find(in.remote.address);
   if (it == byAddress_.end()) {
      strangers_->note(in.remote.address, "connection from " + in.remote.str() + " closed: not a configured neighbor");
      return std::nullopt;
   }
   NeighborConfig const& n = it->second->config();
   TcpSecurity const security = tcpSecurityOf(n);
   // RFC 5082 section 3: a segment from farther than the hops allow is not the neighbor's.
   if (n.ttlSecurity && (!in.synTtl || *in.synTtl < security.minimumTtl())) {
      std::string const why = "connection from " + in.remote.str() + " refused: " +
                              (in.synTtl ? "TTL " + std::to_string(*in.synTtl) : std::string("its TTL is unknown")) +
                              ", below " + std::to_string(security.minimumTtl()) + " (ttl-security)";
      it->second->incomingRefused(why);
      lowTtl_->note(in.remote.address, why);
      return std::nullopt;
   }
   return security;
}

void Agent::applyNeighbors(std::vector<NeighborConfig> const& next) {
   for (std::string const& why : applyListenerSecurity(config_.neighbors, next)) logger_.log("-", "SIGHUP: " + why);
   std::vector<Ovk::Ptr<Neighbor>> kept;
   std::map<Ovnet::IpGenAddr, Neighbor*> byAddress;
   for (NeighborConfig const& n : next) {
      auto const old = byAddress_.find(n.address);
      Ovk::Ptr<Neighbor> neighbor;
      if (old == byAddress_.end()) {
         logger_.log(n.address.str(), "SIGHUP: new neighbor");
         applyImport(n);
         neighbor = makeNeighbor(n);
         neighbor->start();
      } else {
         neighbor = Ovk::Ptr<Neighbor>(old->second);
         NeighborChanges const c = neighborChanges(neighbor->config(), n);
         auto const joined = [](std::vector<std::string> const& v) {
            std::string text;
            for (auto const& s : v) text += (text.empty() ? "" : ", ") + s;
            return text;
         };
         if (!c.reset.empty()) {
            logger_.log(n.address.str(), "SIGHUP: " + joined(c.reset) + (c.inPlace.empty() ? "" : ", " + joined(c.inPlace)) +
                                             ": the session starts again");
            neighbor->stop(Notification{ErrorCode::cease, CeaseSubcode::otherConfigurationChange, {}});
            applyImport(n);
            neighbor = makeNeighbor(n);
            neighbor->start();
         } else if (!c.inPlace.empty()) {
            logger_.log(n.address.str(), "SIGHUP: " + joined(c.inPlace) + " (the session goes on)");
            neighbor->softConfigIs(n);
            if (c.importChanged) applyImport(n);
            SessionRibOut::Options ribOut;
            ribOut.minRouteAdvertisementInterval = std::chrono::seconds(n.minRouteAdvertisementSeconds);
            routing_->ribOuts().optionsIs(n.address, ribOut);
         }
      }
      byAddress[n.address] = neighbor.ptr();
      kept.push_back(neighbor);
   }
   for (auto const& [address, neighbor] : byAddress_) {
      if (byAddress.count(address)) continue;
      logger_.log(address.str(), "SIGHUP: neighbor removed");
      // Our routes are to go from the peer at once, not kept for a restart (RFC 8538).
      neighbor->stop(Notification{ErrorCode::cease, CeaseSubcode::peerDeconfigured, {}}, true);
      routing_->importSettingsIs(address, {});
      if (convergence_) convergence_->neighborGone(address);
   }
   neighbors_ = std::move(kept);
   byAddress_ = std::move(byAddress);
   config_.neighbors = next;
   md5Drops_->activeIs(anyPassword(config_.neighbors));
}

void Agent::stop() {
   // The FSIB keeps the rules of the last moment: a mitigation in force stays in force while
   // the agent is down, and the next start replaces them with what its peers then announce.
   if (deferralTask_) scheduler_->cancel(*deferralTask_);
   if (convergenceCheck_) scheduler_->cancel(*convergenceCheck_);
   deferralTask_.reset();
   convergenceCheck_.reset();
   if (context_) context_->detachForwarding();
   for (auto const& l : listeners_) l->close();
   listeners_.clear();
   if (control_) {
      control_->close();
      control_ = nullptr;
   }
   // No RFC 8203 shutdown communication: ExaBGP 4.2 fails to decode one and takes the whole
   // NOTIFICATION for garbage.
   Notification const cease{ErrorCode::cease, CeaseSubcode::administrativeShutdown, {}};
   for (auto const& n : neighbors_) n->stop(cease);
   // Their timers would keep the event loop from running out of work.
   strangers_->stop();
   lowTtl_->stop();
   md5Drops_->activeIs(false);
}

ConfigErrors Agent::checkWithPlugins(AgentConfig const& config) {
   auto library = Plugin::loadPluginLibrary(config.pluginPath);
   if (!library) return {ConfigError{config.source, 0, library.reason()}};
   Plugin::Context::Options options;
   options.taskScheduler = Ovk::ManualScheduler::create();
   options.attributeCacheStatus = Hoard::AttributeCacheStatus::create();
   options.local = BgpPeer{Ovnet::IpGenAddr(), config.localAs, config.localAs, config.routerId, BgpL3VrfId::defaultVrfId()};
   auto context = Plugin::startPlugins(std::move(options));
   ConfigErrors errors;
   {
      Origination origination(context);
      errors = origination.check(config.rules, config.source);
   }
   context->shutdown();
   return errors;
}

void Agent::handleAccept(Ovk::Ptr<Transport> t) {
   // The screen let only neighbors' connections through, a moment ago in the same pass.
   auto it = byAddress_.find(t->remote().address);
   if (it == byAddress_.end()) {
      t->close();
      return;
   }
   it->second->handleIncoming(std::move(t));
}

void Agent::applyVrfs() {
   Plugin::Context& ctx = *context_;
   // VRFs: gone ones first, then new ones.
   std::vector<BgpVrfIdBase> gone;
   for (auto const& entry : ctx.allVrfInstanceStatus()) {
      BgpVrfIdBase const id = entry.first;
      std::string const& name = entry.second->name();
      if (id == BgpL3VrfId::defaultVrfId()) continue;
      bool const kept = std::any_of(config_.vrfs.begin(), config_.vrfs.end(),
                                    [&](VrfConfig const& v) { return v.id && *v.id == id.value() && v.name == name; });
      if (!kept) gone.push_back(id);
   }
   for (BgpVrfIdBase const id : gone) ctx.vrfDel(id);
   for (VrfConfig const& v : config_.vrfs) ctx.vrfIs(BgpVrfIdBase(*v.id), v.name);
   // Route target -> the VRFs importing it, the same for both address families.
   std::map<std::uint64_t, Ovk::Ptr<VrfIdList>> wanted;
   for (VrfConfig const& v : config_.vrfs) {
      for (std::uint64_t rt : v.importRouteTargets) {
         Ovk::Ptr<VrfIdList>& list = wanted[rt];
         if (!list) list = VrfIdList::create();
         list->vrfs[*v.id] = BgpVrfIdBase(*v.id);
      }
   }
   for (auto const& [rtFamily, vpnFamily] :
        {std::pair{kIpv4UnicastAfiSafi, kVpnIpv4AfiSafi}, std::pair{kIpv6UnicastAfiSafi, kVpnIpv6AfiSafi}}) {
      RtToVrfIdList& top = *ctx.rtToVrfIdList();
      Ovk::Ptr<AfiSafiRtToVrfIdList> byVpn = top.find(rtFamily) ? *top.find(rtFamily) : AfiSafiRtToVrfIdList::create();
      Ovk::Ptr<VpnRtToVrfIdList> byRt = byVpn->find(vpnFamily) ? *byVpn->find(vpnFamily) : VpnRtToVrfIdList::create();
      // Only what changed is told to the export, key by key.
      std::vector<Ovk::Ptr<ExtComm const>> dropped;
      for (auto const& [rt, vrfs] : byRt->entries()) {
         if (wanted.count(rt->value()) == 0) dropped.push_back(rt);
      }
      for (auto const& rt : dropped) byRt->del(rt);
      for (auto const& [value, vrfs] : wanted) {
         Ovk::Ptr<ExtComm const> const rt = ctx.coreDedupTables()->extCommIs(ExtComm::createBase(value));
         Ovk::Ptr<VrfIdList const> const* now = byRt->find(rt);
         if (now && *now && (*now)->vrfs == vrfs->vrfs) continue;
         byRt->set(rt, vrfs);
      }
      if (!byVpn->find(vpnFamily)) byVpn->set(vpnFamily, byRt);
      if (!top.find(rtFamily)) top.set(rtFamily, byVpn);
   }
}

bool Agent::reload(std::string const& file) {
   if (file.empty()) {
      logger_.log("-", "SIGHUP: running on the built-in configuration, nothing to read again");
      return false;
   }
   auto fresh = loadConfigFile(file);
   if (!fresh) {
      for (auto const& e : fresh.reason()) logger_.log("-", "SIGHUP: " + e.str());
      logger_.log("-", "SIGHUP: the configuration is refused as a whole; the running one stays");
      return false;
   }
   AgentConfig& next = fresh.value();
   // What only the plugin can check refuses the file as a whole too.
   if (ConfigErrors const errors = origination_->check(next.rules, next.source); !errors.empty()) {
      for (auto const& e : errors) logger_.log("-", "SIGHUP: " + e.str());
      logger_.log("-", "SIGHUP: the configuration is refused as a whole; the running one stays");
      return false;
   }
   // What a reload does not change is kept and said.
   std::vector<std::string> later;
   if (next.listen != config_.listen) later.push_back("listen");
   if (next.localAs != config_.localAs) later.push_back("local-as");
   if (next.routerId != config_.routerId) later.push_back("router-id");
   if (next.fsibPrefix != config_.fsibPrefix) later.push_back("fsib-prefix");
   if (next.apiListen != config_.apiListen) later.push_back("api-listen");
   if (next.apiRuleLifetime != config_.apiRuleLifetime) later.push_back("api-rule-lifetime");
   if (next.metricsListen != config_.metricsListen) later.push_back("metrics-listen");
   if (!later.empty()) {
      std::string text;
      for (auto const& k : later) text += (text.empty() ? "" : ", ") + k;
      logger_.log("-", "SIGHUP: " + text + " changed: takes effect at the next start");
   }
   if (std::string const w = passwordExposure(next); !w.empty()) logger_.log("-", "SIGHUP: warning: " + w);
   if (next.maxRules != config_.maxRules) {
      auto const text = [](std::optional<RuleLimit> const& l) {
         return l ? std::to_string(l->maxRules) + " (warning at " + std::to_string(l->warningPercent) + "%)"
                  : std::string("none");
      };
      logger_.log("-", "SIGHUP: max-rules " + text(config_.maxRules) + " -> " + text(next.maxRules));
      config_.maxRules = next.maxRules;
      routing_->globalRuleLimitIs(config_.maxRules);
   }
   routing_->validationDefaultIs(std::any_of(next.neighbors.begin(), next.neighbors.end(),
                                             [](NeighborConfig const& n) { return n.sendsUnicast(); }));
   applyNeighbors(next.neighbors);
   if (!(next.gracefulRestart == config_.gracefulRestart)) {
      logger_.log("-", "SIGHUP: graceful-restart changed: sessions that start from now on advertise it");
      config_.gracefulRestart = next.gracefulRestart;
      routing_->gracefulRestartIs(config_.gracefulRestart);
   }
   config_.vrfs = std::move(next.vrfs);
   applyVrfs();
   config_.rules = std::move(next.rules);
   applyRules("SIGHUP");
   logger_.log("-", "SIGHUP: configuration " + file + " applied (" + std::to_string(config_.neighbors.size()) +
                        " neighbor(s), " + std::to_string(config_.vrfs.size()) + " VRF(s), " +
                        std::to_string(config_.rules.size()) + " rule(s))");
   return true;
}

std::vector<NeighborStatus> Agent::neighbors() const {
   std::vector<NeighborStatus> all;
   for (auto const& n : neighbors_) all.push_back(n->status());
   return all;
}

void Agent::applyRules(std::string_view why) {
   Origination::Diff const d = origination_->configuredRulesIs(config_.rules, config_.source);
   routing_->noteRefusals();
   if (d == Origination::Diff{}) return;
   logger_.log("-", std::string(why) + ": originated rules: " + std::to_string(d.added) + " added, " +
                        std::to_string(d.withdrawn) + " withdrawn, " + std::to_string(d.changed) + " changed, " +
                        std::to_string(d.kept) + " kept");
}

Ovk::Result<Origination::Added, std::string> Agent::ruleAdd(AfiSafi family, std::string_view match,
                                                             std::vector<std::string> const& then,
                                                             Origination::RuntimeOptions options) {
   auto rule = originatedRuleOf(family, match, then);
   if (!rule) return Ovk::failure(rule.reason());
   std::string const text = familyName(family) + " " + rule.value().match;
   std::string const who = options.source == "api" ? "api " + options.client : "control";
   std::string const lifetime = options.lifetime ? " for " + std::to_string(options.lifetime->count()) + "s" : "";
   auto r = origination_->runtimeRuleIs(std::move(rule.value()), std::move(options));
   routing_->noteRefusals();
   if (!r) return Ovk::failure(r.reason());
   logger_.log("-", who + ": rule " + text + " " + r.value().result + lifetime);
   return r;
}

Ovk::Result<std::string, std::string> Agent::ruleDelete(AfiSafi family, std::string_view match, std::string_view who) {
   auto r = origination_->runtimeRuleDel(family, match);
   if (!r) return r;
   routing_->noteRefusals();
   logger_.log("-", std::string(who) + ": rule " + familyName(family) + " " + std::string(match) + " " + r.value());
   return r;
}

std::string Agent::handleRuleRequest(std::string_view verb, std::string_view body) {
   auto refuse = [](std::string const& why) { return Ovk::jsonText(nlohmann::json{{"ok", false}, {"error", why}}); };
   if (verb == "list") return Ovk::jsonText(origination_->listJson());
   nlohmann::json const j = nlohmann::json::parse(body, nullptr, false);
   if (!j.is_object() || !j.contains("family") || !j["family"].is_string() || !j.contains("match") ||
       !j["match"].is_string()) {
      return refuse("a rule request is a JSON object with \"family\" and \"match\" strings");
   }
   auto const family = ruleFamilyOf(j["family"].get<std::string>());
   if (!family) return refuse("unknown family \"" + j["family"].get<std::string>() + "\" (ipv4 or ipv6)");
   std::string const match = j["match"].get<std::string>();
   if (verb == "delete") {
      auto r = ruleDelete(*family, match, "control");
      if (!r) return refuse(r.reason());
      return Ovk::jsonText(nlohmann::json{{"ok", true}, {"result", r.value()}});
   }
   std::vector<std::string> then;
   if (j.contains("then") && j["then"].is_array()) {
      for (auto const& a : j["then"]) {
         if (!a.is_string()) return refuse("\"then\" holds action strings");
         then.push_back(a.get<std::string>());
      }
   }
   Origination::RuntimeOptions options;
   if (j.contains("expires")) {
      auto const lifetime = j["expires"].is_string() ? parseLifetime(j["expires"].get<std::string>()) : std::nullopt;
      if (!lifetime) {
         return refuse("expires: a lifetime is seconds or a duration such as \"90s\", \"15m\", \"2h\" or \"1d\", "
                       "at most 365 days");
      }
      options.lifetime = lifetime;
   }
   auto r = ruleAdd(*family, match, then, std::move(options));
   if (!r) return refuse(r.reason());
   auto rule = originatedRuleOf(*family, match, then);
   nlohmann::json answer{{"ok", true},
                         {"result", r.value().result},
                         {"rule", familyName(*family) + " " + rule.value().match},
                         {"actions", rule.value().actions}};
   if (j.contains("expires")) answer["expires"] = j["expires"];
   return Ovk::jsonText(answer);
}

std::string Agent::handleControl(std::string_view request) {
   // The kind of request, of a few fixed names: what a client sends never makes a new one.
   std::string kind = "other";
   for (char const* k : {"show neighbors", "show updates", "show summary", "rule list", "rule add", "rule delete"}) {
      std::string_view const name(k);
      if (request.substr(0, name.size()) == name && (request.size() == name.size() || request[name.size()] == ' ')) {
         kind = k;
      }
   }
   std::string answer = answerControl(request);
   ControlCounts& c = controlCounts_[kind];
   ++c.requests;
   if (answer.rfind("{\"error\"", 0) == 0) ++c.errors;
   return answer;
}

std::string Agent::answerControl(std::string_view request) {
   if (request.rfind("rule ", 0) == 0) {
      std::string_view rest = request.substr(5);
      std::size_t const space = rest.find(' ');
      std::string_view const verb = rest.substr(0, space);
      std::string_view const body = space == std::string_view::npos ? std::string_view() : rest.substr(space + 1);
      if (verb == "list" || verb == "add" || verb == "delete") return handleRuleRequest(verb, body);
   }
   if (request == "show neighbors") {
      nlohmann::json answer = neighborsJson(neighbors());
      for (auto& n : answer["neighbors"]) {
         auto const address = Ovnet::IpGenAddr::parse(n["address"].get<std::string>());
         auto const view = address ? routing_->peer(*address) : std::nullopt;
         nlohmann::json received = nlohmann::json::object();
         nlohmann::json accepted = nlohmann::json::object();
         nlohmann::json refused = nlohmann::json::object();
         nlohmann::json updatesSent = nlohmann::json::object();
         nlohmann::json rulesSent = nlohmann::json::object();
         nlohmann::json rulesAdvertised = nlohmann::json::object();
         nlohmann::json endOfRibOut = nlohmann::json::object();
         nlohmann::json graceful = nlohmann::json::object();
         if (view) {
            for (auto const& [family, g] : view->gracefulRestart) {
               graceful[familyName(family)] = {
                   {"state", toStrep(g.state)},
                   {"stalePaths", g.stalePaths},
                   {"timer", g.timer.empty() ? nlohmann::json(nullptr) : nlohmann::json(g.timer)},
                   {"secondsLeft", g.secondsLeft},
                   {"stalePathsRemoved", g.stalePathsRemoved},
                   {"gracefulRestarts", g.gracefulRestarts}};
            }
            for (auto const& [family, c] : view->sent) {
               updatesSent[familyName(family)] = c.updates;
               rulesSent[familyName(family)] = c.advertised;
               endOfRibOut[familyName(family)] = c.endOfRibs;
            }
            for (auto const& [family, count] : view->advertised) rulesAdvertised[familyName(family)] = count;
            for (auto const& [family, count] : view->received) received[familyName(family)] = count;
            for (auto const& [family, count] : view->accepted) accepted[familyName(family)] = count;
            for (auto const& [family, count] : view->fsibRefusals) refused[familyName(family)] = count;
         }
         n["rulesReceived"] = received;
         n["rulesAccepted"] = accepted;
         n["fsibRefusals"] = refused;
         n["import"] = view ? importJson(*view) : nlohmann::json::object();
         n["familyUpdatesOut"] = updatesSent;
         n["rulesSent"] = rulesSent;
         n["rulesAdvertised"] = rulesAdvertised;
         n["endOfRibOut"] = endOfRibOut;
         n["gracefulRestart"] = graceful;
      }
      answer["restart"] = restartJson();
      answer["summaryLabels"] = summaryLabelsJson(routing_->context());
      answer["strangersClosed"] = strangers_->total();
      return Ovk::jsonText(answer);
   }
   if (request.rfind("show refused ", 0) == 0) {
      std::string_view const address = request.substr(13);
      auto const a = Ovnet::IpGenAddr::parse(address);
      if (!a || byAddress_.count(*a) == 0) {
         return Ovk::jsonText(nlohmann::json{{"error", "unknown neighbor " + std::string(address)}});
      }
      return Ovk::jsonText(refusedJson(*routing_, *a));
   }
   if (request == "show updates") return Ovk::jsonText(updatesJson(*routing_));
   if (request == "show summary") return Ovk::jsonText(summaryJson(*routing_));
   if (request.rfind("show unicast ", 0) == 0) return Ovk::jsonText(unicastJson(*routing_, request.substr(13)));
   return Ovk::jsonText(nlohmann::json{{"error", "unknown request: " + std::string(request)}});
}

void StderrLogger::log(std::string_view who, std::string_view event) {
   auto const now = std::chrono::system_clock::now();
   auto const secs = std::chrono::system_clock::to_time_t(now);
   auto const ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
   std::tm tm{};
   gmtime_r(&secs, &tm);
   char stamp[32];
   std::strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S", &tm);
   char millis[8];
   std::snprintf(millis, sizeof(millis), ".%03dZ", static_cast<int>(ms));
   std::string line;
   line.reserve(64 + event.size());
   line.append(stamp).append(millis).append(" ").append(who).append(" ").append(event).append("\n");
   std::cerr << line << std::flush;
}

} // namespace Flowspecd
