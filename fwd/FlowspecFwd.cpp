// flowspec-fwd: programs the FSIB into an XDP classifier on the given interfaces (or a
// Linux nftables table of its own) and keeps it equal to the FSIB; `--show` lists every FSIB
// rule with its install status and counters.
//
//   flowspec-fwd [--backend xdp|nft] [--interfaces IF,...] [--fsib-prefix P] [--table NAME]
//                [--hook prerouting|input|forward] [--once] [--remove-on-exit]
//                [--vrf-table ID=TABLE ...]
//   flowspec-fwd --show [--json] [--table NAME]
//
// Runs in the foreground and logs on standard error. SIGTERM or SIGINT ends it; the
// dataplane stays (forwarding goes on) unless --remove-on-exit.
#include <CLI/CLI.hpp>
#include <asio/io_context.hpp>

#include <csignal>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "fs/Version.h"
#include "fwd/Forwarder.h"
#include "fwd/FwdMetrics.h"
#include "fwd/FwdShow.h"
#include "fwd/FwdStatus.h"
#include "fwd/VrfTables.h"
#include "fwd/XdpTable.h"
#include "host/metrics/MetricsHttp.h"
#include "host/mnemo/SlateRuleSetMount.h"

namespace {

std::atomic<bool> stopNow{false};

void onSignal(int) { stopNow.store(true); }

bool validName(std::string const& s, std::size_t max) {
   if (s.empty() || s.size() > max) return false;
   for (char c : s) {
      if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '_' && c != '-' && c != '.') return false;
   }
   return std::isalpha(static_cast<unsigned char>(s[0])) != 0;
}

} // namespace

int main(int argc, char** argv) {
   CLI::App app{"flowspec-fwd: the FSIB programmed into XDP or Linux nftables"};
   std::string backendName = "auto";
   Fwd::XdpConfig xcfg;
   std::string prefix = Mnemo::defaultSlatePrefix;
   std::string hookName = "prerouting";
   std::string statusFile;
   std::string vrfConfig;
   std::vector<std::string> vrfSpecs;
   std::vector<std::string> interfaces;
   bool once = false;
   bool removeOnExit = false;
   bool show = false;
   bool json = false;
   Fwd::TableConfig cfg;
   Fwd::FollowConfig follow;
   std::uint32_t rulePriority = 900;
   app.add_option("--fsib-prefix", prefix, "segment prefix of the FSIB")->capture_default_str();
   app.set_version_flag("--version", std::string("flowspec-fwd ") + Fs::kVersionText);
   app.add_option("--table", cfg.name, "nftables table (family inet) to own")->capture_default_str();
   app.add_option("--hook", hookName, "prerouting, input or forward")->capture_default_str();
   app.add_option("--priority", cfg.priority, "priority of the base chain")->capture_default_str();
   app.add_option("--backend", backendName,
                  "xdp (the classifier on --interfaces), nft (nftables), or auto: XDP where the kernel and the "
                  "interfaces take it, else nftables")
       ->capture_default_str()
       ->check(CLI::IsMember({"auto", "xdp", "nft"}));
   app.add_option("--interfaces", interfaces, "only packets arriving on these interfaces")->delimiter(',');
   app.add_flag("--generic", xcfg.generic, "XDP: attach in generic (skb) mode");
   app.add_option("--pin-root", xcfg.pinRoot, "XDP: where the links and maps are pinned")->capture_default_str();
   app.add_option("--samples-per-second", xcfg.samplesPerSecond, "XDP: sampled packets logged per CPU and second")
       ->capture_default_str();
   app.add_flag("--once", once, "program the FSIB once and exit");
   app.add_flag("--remove-on-exit", removeOnExit, "delete the table and the policy routing on exit");
   app.add_option("--vrf-table", vrfSpecs, "VRF id to Linux routing table, ID=TABLE (repeatable)");
   app.add_option("--vrf-config", vrfConfig, "file of `ID TABLE` lines");
   app.add_option("--nflog-group", cfg.compile.nflogGroup, "nflog group of sampled packets")->capture_default_str();
   app.add_option("--mark-base", cfg.markBase, "first firewall mark of redirect targets")->capture_default_str();
   app.add_option("--route-table-base", cfg.routeTableBase, "first routing table of redirect addresses")
       ->capture_default_str();
   app.add_option("--rule-priority", rulePriority, "preference of the ip rules of redirects")->capture_default_str();
   app.add_option("--block-size", cfg.blockSize, "FSIB rules per nftables chain block")
       ->capture_default_str()
       ->check(CLI::Range(1, 4096));
   app.add_option("--status-file", statusFile, "where the install status goes (default /run/flowspec-fwd/TABLE.json)");
   unsigned pollMaxMs = 0;
   app.add_option("--poll-max-ms", pollMaxMs,
                  "longest pause between looks at the FSIB (default 5 for nftables; XDP polls every 0.1-0.5 ms)")
       ->check(CLI::Range(1, 1000));
   std::string metricsListen;
   app.add_option("--metrics-listen", metricsListen,
                  "serve Prometheus metrics (each rule's packets, bytes, install status) at http://ADDR:PORT/metrics");
   app.add_flag("--show", show, "list the FSIB's rules with install status and counters");
   app.add_flag("--json", json, "with --show: JSON");
   CLI11_PARSE(app, argc, argv);

   if (!validName(cfg.name, 32)) {
      std::cerr << "flowspec-fwd: --table " << cfg.name << ": letters, digits, '_', '-', '.', starting with a letter\n";
      return 2;
   }
   for (std::string const& i : interfaces) {
      if (i.empty() || i.size() > 15 || i.find_first_of("\"\\ ") != std::string::npos) {
         std::cerr << "flowspec-fwd: --interfaces: \"" << i << "\" is not an interface name\n";
         return 2;
      }
   }
   cfg.interfaces = interfaces;
   auto const hook = Fwd::hookFromName(hookName);
   if (!hook) {
      std::cerr << "flowspec-fwd: --hook " << hookName << ": expected prerouting, input or forward\n";
      return 2;
   }
   cfg.compile.hook = *hook;
   if (statusFile.empty()) statusFile = Fwd::defaultStatusPath(cfg.name);
   auto const segment = Mnemo::slateSegmentName(prefix, Mnemo::fsibPath);
   if (!segment) {
      std::cerr << "flowspec-fwd: --fsib-prefix " << prefix << " cannot name a segment\n";
      return 2;
   }
   if (show) {
      Fwd::ShowOptions so{*segment, cfg.name, statusFile, xcfg.pinRoot, backendName == "xdp", json};
      return Fwd::showRules(so, std::cout, std::cerr);
   }
   if (!vrfConfig.empty()) {
      std::ifstream in(vrfConfig);
      std::stringstream ss;
      ss << in.rdbuf();
      if (!in) {
         std::cerr << "flowspec-fwd: cannot read " << vrfConfig << '\n';
         return 2;
      }
      auto t = Fwd::parseVrfTables(ss.str());
      if (!t) {
         std::cerr << "flowspec-fwd: " << vrfConfig << ": " << t.reason() << '\n';
         return 2;
      }
      cfg.compile.vrfTables = t.value();
   }
   for (std::string const& s : vrfSpecs) {
      if (std::string const e = Fwd::addVrfTable(s, cfg.compile.vrfTables); !e.empty()) {
         std::cerr << "flowspec-fwd: --vrf-table " << s << ": " << e << '\n';
         return 2;
      }
   }

   std::optional<Ovnet::Endpoint> metricsAt;
   if (!metricsListen.empty()) {
      metricsAt = Ovnet::parseEndpoint(metricsListen, 9180);
      if (!metricsAt) {
         std::cerr << "flowspec-fwd: --metrics-listen " << metricsListen << ": expected ADDR:PORT\n";
         return 2;
      }
   }

   std::signal(SIGTERM, onSignal);
   std::signal(SIGINT, onSignal);
   Fwd::PolicyRoutes routes(rulePriority);
   follow.segment = *segment;
   follow.statusFile = statusFile;
   std::unique_ptr<Fwd::Nft> nft;
   std::unique_ptr<Fwd::Backend> table;
   auto const useNft = [&] {
      nft = std::make_unique<Fwd::Nft>();
      table = std::make_unique<Fwd::FwdTable>(cfg, *nft, &routes);
   };
   if (backendName == "nft" || (backendName == "auto" && interfaces.empty())) {
      if (backendName == "auto") std::cerr << "flowspec-fwd: no --interfaces for XDP: the nftables backend\n";
      useNft();
   } else {
      if (interfaces.empty()) {
         std::cerr << "flowspec-fwd: --backend xdp needs --interfaces\n";
         return 2;
      }
      xcfg.name = cfg.name;
      xcfg.interfaces = interfaces;
      xcfg.compile = cfg.compile;
      xcfg.markBase = cfg.markBase;
      xcfg.routeTableBase = cfg.routeTableBase;
      table = std::make_unique<Fwd::XdpTable>(xcfg, &routes, std::cerr);
   }
   auto const polling = [&] {
      bool const xdp = dynamic_cast<Fwd::XdpTable*>(table.get()) != nullptr;
      follow.pollMinUs = xdp ? 100 : 1000;
      follow.pollMaxUs = pollMaxMs != 0 ? pollMaxMs * 1000 : xdp ? 500 : 5000;
      follow.pollMinUs = std::min(follow.pollMinUs, follow.pollMaxUs);
   };
   polling();
   // The metrics: fed by the follower's thread, served from a thread of their own.
   Fwd::FwdMetrics metrics(cfg.name, xcfg.pinRoot);
   auto makeForwarder = [&] {
      auto f = std::make_unique<Fwd::Forwarder>(follow, *table, std::cerr);
      if (metricsAt) {
         f->statusObserverIs([&metrics](std::string const& dataplane, std::uint64_t generation,
                                        std::vector<Fwd::RuleStatus> statuses) {
            metrics.publish(dataplane, generation, std::move(statuses));
         });
         f->reportObserverIs([&metrics](Fwd::ApplyReport const& r) { metrics.applied(r); });
      }
      return f;
   };
   asio::io_context metricsIo;
   std::unique_ptr<Ovk::MetricsHttpServer> metricsServer;
   std::thread metricsThread;
   if (metricsAt) {
      auto started = Ovk::MetricsHttpServer::start(metricsIo, *metricsAt, [&metrics] { return metrics.render(); });
      if (!started) {
         std::cerr << "flowspec-fwd: " << started.reason() << '\n';
         return 1;
      }
      metricsServer = std::move(started.value());
      std::cerr << "flowspec-fwd: metrics on http://" << metricsServer->listening().str() << "/metrics\n";
      metricsThread = std::thread([&metricsIo] { metricsIo.run(); });
   }
   struct StopMetrics {
      asio::io_context& io;
      std::thread& thread;
      ~StopMetrics() {
         io.stop();
         if (thread.joinable()) thread.join();
      }
   } stopMetrics{metricsIo, metricsThread};
   auto fwd = makeForwarder();
   // Waits briefly for a writer in the middle of a change.
   auto const settle = [&] {
      Fwd::Forwarder::Step s = fwd->step();
      for (int i = 0; i < 100 && s == Fwd::Forwarder::Step::unsettled; ++i) s = fwd->step();
      return s;
   };
   int rc = 0;
   // The XDP program is loaded (and verified) before the FSIB is read.
   std::string xdpError;
   if (auto* x = dynamic_cast<Fwd::XdpTable*>(table.get()); x != nullptr && !x->probe(&xdpError)) {
      std::string ifs;
      for (std::string const& i : interfaces) ifs += (ifs.empty() ? "" : ",") + i;
      xdpError = "XDP on " + ifs + ": " + xdpError;
   }
   Fwd::Forwarder::Step first = xdpError.empty() ? settle() : Fwd::Forwarder::Step::failed;
   if (first == Fwd::Forwarder::Step::failed && dynamic_cast<Fwd::XdpTable*>(table.get()) != nullptr) {
      std::cerr << "flowspec-fwd: " << (xdpError.empty() ? fwd->lastReport().error : xdpError) << "\n";
      if (backendName == "xdp") {
         std::cerr << "flowspec-fwd: --backend nft programs the rules into nftables instead\n";
         return 1;
      }
      std::cerr << "flowspec-fwd: XDP is not available here: the nftables backend\n";
      fwd.reset();
      useNft();
      polling();
      fwd = makeForwarder();
      first = settle();
   }
   if (once) {
      rc = first == Fwd::Forwarder::Step::applied ? 0 : 1;
   } else {
      rc = fwd->run(stopNow);
   }
   if (removeOnExit) table->remove();
   return rc;
}
