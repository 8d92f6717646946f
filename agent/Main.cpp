// flowspecd: the BGP flowspec agent.
//
//   flowspecd [--config FILE] [--control-socket PATH] [--plugin LIB]   runs in the foreground
//   flowspecd --check FILE                              validates a configuration only
//   flowspecd --print-default-config                    shows the built-in configuration
//
// Without --config the agent runs on its built-in configuration. SIGTERM and SIGINT send a
// Cease to every peer and end the agent. SIGHUP reads the file again: VRFs, their imports,
// the originated rules, the neighbors and what they may import change; the rest waits for
// the next start.
//
// Run by the service manager as a `Type=notify` service, it says READY=1 once the
// configuration is loaded and the listeners and the control socket are open, RELOADING=1 and
// READY=1 around a SIGHUP, STOPPING=1 on SIGTERM, and feeds the watchdog from the event loop
// (a loop that stops turning stops the keep-alives, and the manager restarts the agent).
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <functional>
#include <iostream>

#include "agent/Agent.h"
#include "agent/ServiceNotify.h"
#include "fs/Version.h"
#include "agent/AgentMetrics.h"
#include "host/metrics/MetricsHttp.h"
#include "agent/api/ApiServer.h"

namespace {

void printErrors(Flowspecd::ConfigErrors const& errors) {
   for (auto const& e : errors) std::cerr << e.str() << '\n';
   std::cerr << errors.size() << (errors.size() == 1 ? " mistake" : " mistakes") << " in the configuration\n";
}

Ovk::Result<Flowspecd::AgentConfig, Flowspecd::ConfigErrors> load(std::string const& file) {
   if (file.empty()) return Flowspecd::parseConfig(Flowspecd::embeddedDefaultConfig(), Flowspecd::kEmbeddedConfigName);
   return Flowspecd::loadConfigFile(file);
}

} // namespace

int main(int argc, char** argv) {
   CLI::App app{"flowspecd: BGP flowspec agent"};
   std::string configFile;
   std::string controlSocket;
   std::string checkFile;
   std::string pluginPath;
   bool printDefault = false;
   app.add_option("--config", configFile, "configuration file (TOML); the built-in one when left out");
   app.add_option("--control-socket", controlSocket, "control socket path (overrides the configuration)");
   app.add_option("--check", checkFile, "validate this configuration file and exit");
   app.add_option("--plugin", pluginPath, "the flowspec plugin library to load (overrides plugin-dir)");
   app.add_flag("--print-default-config", printDefault, "print the built-in configuration and exit");
   app.set_version_flag("--version", std::string("flowspecd ") + Fs::kVersionText);
   CLI11_PARSE(app, argc, argv);

   if (printDefault) {
      std::cout << Flowspecd::embeddedDefaultConfig();
      return 0;
   }
   if (!checkFile.empty()) {
      auto config = Flowspecd::loadConfigFile(checkFile);
      if (!config) {
         printErrors(config.reason());
         return 1;
      }
      if (!pluginPath.empty()) config.value().pluginPath = pluginPath;
      // What only the plugin can check: it is loaded for that, without an FSIB.
      if (auto const errors = Flowspecd::Agent::checkWithPlugins(config.value()); !errors.empty()) {
         printErrors(errors);
         return 1;
      }
      if (std::string const w = Flowspecd::passwordExposure(config.value()); !w.empty()) {
         std::cerr << "warning: " << w << '\n';
      }
      std::cout << checkFile << ": valid, " << config.value().neighbors.size() << " neighbor(s), "
                << config.value().rules.size() << " rule(s)\n";
      return 0;
   }

   auto config = load(configFile);
   if (!config) {
      printErrors(config.reason());
      return 1;
   }
   if (!controlSocket.empty()) config.value().controlSocket = controlSocket;
   if (!pluginPath.empty()) config.value().pluginPath = pluginPath;

   std::signal(SIGPIPE, SIG_IGN);
   asio::io_context io;
   Flowspecd::StderrLogger logger;
   auto agent = Ovk::makePtr<Flowspecd::Agent>(io, std::move(config.value()), logger);
   logger.log("-", std::string("flowspecd ") + Fs::kVersionText + " starting on configuration " +
                       agent->config().source);
   if (auto started = agent->start(); !started) {
      logger.log("-", started.reason());
      return 1;
   }
   // The controllers' API, when configured: rules through it are the agent's run-time rules.
   std::unique_ptr<Flowspecd::Api::ApiServer> api;
   if (!agent->config().apiListen.empty()) {
      Flowspecd::Api::ApiOptions options{agent->config().apiListen, agent->config().apiRuleLifetime};
      auto started = Flowspecd::Api::ApiServer::start(io, *agent, options);
      if (!started) {
         logger.log("-", started.reason());
         agent->stop();
         io.run();
         return 1;
      }
      api = std::move(started.value());
      logger.log("-", "API (gRPC) on " + api->listening());
   }
   // Prometheus metrics, when configured, made on this thread at each scrape.
   std::unique_ptr<Ovk::MetricsHttpServer> metrics;
   if (agent->config().metricsListen) {
      auto render = [&agent, &api] {
         std::map<std::string, Flowspecd::ApiCallCounts> calls;
         if (api) {
            for (auto const& [method, c] : api->counts()) calls[method] = {c.requests, c.errors};
         }
         return Flowspecd::agentMetricsText(*agent, calls);
      };
      auto started = Ovk::MetricsHttpServer::start(io, *agent->config().metricsListen, render);
      if (!started) {
         logger.log("-", started.reason());
         if (api) api->shutdown();
         agent->stop();
         io.run();
         return 1;
      }
      metrics = std::move(started.value());
      logger.log("-", "metrics on http://" + metrics->listening().str() + "/metrics");
   }
   auto const service = Flowspecd::ServiceNotifier::fromEnvironment();
   service.notify("READY=1\nSTATUS=running, " + std::to_string(agent->config().neighbors.size()) + " neighbor(s)");
   asio::steady_timer watchdog(io);
   std::function<void()> feedWatchdog = [&] {
      auto const interval = service.keepAliveInterval();
      if (!interval) return;
      service.notify("WATCHDOG=1");
      watchdog.expires_after(*interval);
      watchdog.async_wait([&](std::error_code const& ec) {
         if (!ec) feedWatchdog();
      });
   };
   feedWatchdog();
   // SIGHUP reads the configuration file again.
   asio::signal_set hangups(io, SIGHUP);
   std::function<void()> waitHangup = [&] {
      hangups.async_wait([&](std::error_code const& ec, int) {
         if (ec) return;
         // The manager matches the reload to this signal by the monotonic clock's reading.
         auto const now = std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::steady_clock::now().time_since_epoch());
         service.notify("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(now.count()));
         agent->reload(configFile);
         service.notify("READY=1");
         waitHangup();
      });
   };
   waitHangup();
   asio::signal_set signals(io, SIGINT, SIGTERM);
   signals.async_wait([&](std::error_code const& ec, int signo) {
      if (ec) return;
      logger.log("-",
                 std::string("signal ") + (signo == SIGINT ? "SIGINT" : "SIGTERM") + ": sending Cease to every peer");
      service.notify("STOPPING=1");
      hangups.cancel();
      watchdog.cancel();
      if (api) api->shutdown();
      if (metrics) metrics->close();
      agent->stop();
   });
   io.run();
   api = nullptr;
   logger.log("-", "stopped");
   return 0;
}
