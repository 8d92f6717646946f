// flowspecd: the BGP flowspec agent.
//
//   flowspecd [--config FILE] [--control-socket PATH] [--plugin LIB]   runs in the foreground
//   flowspecd --check FILE                              validates a configuration only
//   flowspecd --print-default-config                    shows the built-in configuration
//
// Without --config the agent runs on its built-in configuration. SIGTERM and SIGINT send a
// Cease to every peer and end the agent. SIGHUP reads the file again: VRFs, their imports and
// the originated rules change; the rest waits for the next start.
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <CLI/CLI.hpp>
#include <csignal>
#include <functional>
#include <iostream>

#include "agent/Agent.h"
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
   logger.log("-", "starting on configuration " + agent->config().source);
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
   // SIGHUP reads the configuration file again.
   asio::signal_set hangups(io, SIGHUP);
   std::function<void()> waitHangup = [&] {
      hangups.async_wait([&](std::error_code const& ec, int) {
         if (ec) return;
         agent->reload(configFile);
         waitHangup();
      });
   };
   waitHangup();
   asio::signal_set signals(io, SIGINT, SIGTERM);
   signals.async_wait([&](std::error_code const& ec, int signo) {
      if (ec) return;
      logger.log("-",
                 std::string("signal ") + (signo == SIGINT ? "SIGINT" : "SIGTERM") + ": sending Cease to every peer");
      hangups.cancel();
      if (api) api->shutdown();
      if (metrics) metrics->close();
      agent->stop();
   });
   io.run();
   api = nullptr;
   logger.log("-", "stopped");
   return 0;
}
