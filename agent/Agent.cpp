#include "agent/Agent.h"

#include <chrono>
#include <ctime>
#include <iostream>

#include "agent/ShowNeighbors.h"
#include "host/plugin/PluginHost.h"

namespace Flowspecd {

Agent::Agent(asio::io_context& io, AgentConfig config, Logger& logger)
    : io_(io), config_(std::move(config)), logger_(logger), scheduler_(EventLoopScheduler::create(io)),
      connector_(Ovk::makePtr<AsioConnector>(io)) {}

Agent::~Agent() {
   stop();
   neighbors_.clear();
   byAddress_.clear();
   routing_ = nullptr;
   if (context_) context_->shutdown();
}

Ovk::Result<bool, std::string> Agent::start() {
   auto library = Plugin::loadPluginLibrary(config_.pluginPath);
   if (!library) return Ovk::failure(library.reason());
   logger_.log("-", "plugin library " + config_.pluginPath + " loaded");
   Plugin::Context::Options options;
   options.taskScheduler = scheduler_;
   options.attributeCacheStatus = Hoard::AttributeCacheStatus::create();
   options.local = BgpPeer{Ovnet::IpGenAddr(), config_.localAs, config_.localAs, config_.routerId, BgpL3VrfId::defaultVrfId()};
   context_ = Plugin::startPlugins(std::move(options));
   if (context_->afiSafiTable()->all().empty()) {
      return Ovk::failure("the plugin library " + config_.pluginPath + " registered no address family");
   }
   routing_ = std::make_unique<BgpRouting>(logger_, context_);
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
   logger_.log("-", "control socket " + config_.controlSocket);
   Neighbor::Deps const deps{scheduler_, connector_, &logger_, routing_.get()};
   for (auto const& n : config_.neighbors) {
      LocalSpeaker const local{config_.localAs, config_.routerId, sourceAddress(config_, n)};
      auto neighbor = Ovk::makePtr<Neighbor>(n, local, deps);
      byAddress_[n.address] = neighbor.ptr();
      neighbors_.push_back(neighbor);
   }
   for (auto const& n : neighbors_) n->start();
   return true;
}

void Agent::stop() {
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

std::vector<NeighborStatus> Agent::neighbors() const {
   std::vector<NeighborStatus> all;
   for (auto const& n : neighbors_) all.push_back(n->status());
   return all;
}

std::string Agent::handleControl(std::string_view request) const {
   if (request == "show neighbors") {
      nlohmann::json answer = neighborsJson(neighbors());
      for (auto& n : answer["neighbors"]) {
         auto const address = Ovnet::IpGenAddr::parse(n["address"].get<std::string>());
         auto const view = address ? routing_->peer(*address) : std::nullopt;
         nlohmann::json received = nlohmann::json::object();
         nlohmann::json accepted = nlohmann::json::object();
         if (view) {
            for (auto const& [family, count] : view->received) received[familyName(family)] = count;
            for (auto const& [family, count] : view->accepted) accepted[familyName(family)] = count;
         }
         n["rulesReceived"] = received;
         n["rulesAccepted"] = accepted;
      }
      return answer.dump();
   }
   if (request == "show updates") return routing_->updatesJson().dump();
   if (request == "show summary") return routing_->summaryJson().dump();
   return nlohmann::json{{"error", "unknown request: " + std::string(request)}}.dump();
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
