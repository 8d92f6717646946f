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

Agent::Agent(asio::io_context& io, AgentConfig config, Logger& logger)
    : io_(io), config_(std::move(config)), logger_(logger), scheduler_(EventLoopScheduler::create(io)),
      connector_(Ovk::makePtr<AsioConnector>(io)) {}

Agent::~Agent() {
   stop();
   neighbors_.clear();
   byAddress_.clear();
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
   if (auto* slate = dynamic_cast<Mnemo::SlateRuleSet*>(Mnemo::fsibOf(*entityManager_).ptr())) {
      slate->problemHandlerIs([this](std::string const& text) { logger_.log("-", text); });
   }
   options.entityManager = entityManager_;
   context_ = Plugin::startPlugins(std::move(options));
   applyVrfs();
   if (context_->afiSafiTable()->all().empty()) {
      return Ovk::failure("the plugin library " + config_.pluginPath + " registered no address family");
   }
   routing_ = std::make_unique<BgpRouting>(logger_, context_);
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
      auto l = AsioListener::create(io_, at, [this](Ovk::Ptr<Transport> t) { handleAccept(std::move(t)); });
      if (!l) {
         stop();
         return Ovk::failure(l.reason());
      }
      logger_.log("-", "listening on " + at.str());
      listeners_.push_back(l.value());
   }
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
   return true;
}

Ovk::Ptr<Neighbor> Agent::makeNeighbor(NeighborConfig const& n) {
   Neighbor::Deps const deps{scheduler_, connector_, &logger_, routing_.get()};
   LocalSpeaker const local{config_.localAs, config_.routerId, sourceAddress(config_, n)};
   SessionRibOut::Options ribOut;
   ribOut.minRouteAdvertisementInterval = std::chrono::seconds(n.minRouteAdvertisementSeconds);
   routing_->ribOuts().optionsIs(n.address, ribOut);
   return Ovk::makePtr<Neighbor>(n, local, deps);
}

void Agent::applyNeighbors(std::vector<NeighborConfig> const& next) {
   std::vector<Ovk::Ptr<Neighbor>> kept;
   std::map<Ovnet::IpGenAddr, Neighbor*> byAddress;
   for (NeighborConfig const& n : next) {
      auto const old = byAddress_.find(n.address);
      Ovk::Ptr<Neighbor> neighbor;
      if (old == byAddress_.end()) {
         logger_.log(n.address.str(), "SIGHUP: new neighbor");
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
            neighbor = makeNeighbor(n);
            neighbor->start();
         } else if (!c.inPlace.empty()) {
            logger_.log(n.address.str(), "SIGHUP: " + joined(c.inPlace) + " (the session goes on)");
            neighbor->softConfigIs(n);
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
      neighbor->stop(Notification{ErrorCode::cease, CeaseSubcode::peerDeconfigured, {}});
   }
   neighbors_ = std::move(kept);
   byAddress_ = std::move(byAddress);
   config_.neighbors = next;
}

void Agent::stop() {
   // The FSIB keeps the rules of the last moment: a mitigation in force stays in force while
   // the agent is down, and the next start replaces them with what its peers then announce.
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
   auto it = byAddress_.find(t->remote().address);
   if (it == byAddress_.end()) {
      logger_.log("-", "connection from " + t->remote().str() + " refused: not a configured neighbor");
      t->send(encodeNotification(Notification{ErrorCode::cease, CeaseSubcode::connectionRejected, {}}));
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
   applyNeighbors(next.neighbors);
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
         if (view) {
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
         n["familyUpdatesOut"] = updatesSent;
         n["rulesSent"] = rulesSent;
         n["rulesAdvertised"] = rulesAdvertised;
         n["endOfRibOut"] = endOfRibOut;
      }
      answer["summaryLabels"] = summaryLabelsJson(routing_->context());
      return Ovk::jsonText(answer);
   }
   if (request == "show updates") return Ovk::jsonText(updatesJson(*routing_));
   if (request == "show summary") return Ovk::jsonText(summaryJson(*routing_));
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
