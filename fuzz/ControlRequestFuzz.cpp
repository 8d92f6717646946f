// Control requests as any local client may write them: one request line of any bytes, up to
// the socket's 65536-byte limit, answered by a running agent the way its control socket
// answers (the show tables' stream when it takes the request, else the request handler).
// Nothing may throw, and every answer must be JSON text that parses.
//
// The agent is set up once per process: the plugin loaded, a neighbor configured, a rule of
// its own in the table, nothing listening and no event loop running. Rule requests change
// its rules, which later inputs then see.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "agent/Agent.h"
#include "agent/ShowTables.h"
#include "host/mnemo/SlateRuleSetMount.h"

namespace {

using namespace Flowspecd;

class QuietLogger : public Logger {
 public:
   void log(std::string_view, std::string_view) override {}
};

struct Setup {
   asio::io_context io;
   QuietLogger logger;
   Ovk::Ptr<Agent> agent;
   std::string fsibPrefix = "controlfuzz-" + std::to_string(::getpid());

   Setup() {
      std::string const text = "router-id = \"127.0.0.1\"\nlocal-as = 65001\nlisten = []\n"
                               "fsib-prefix = \"" + fsibPrefix + "\"\n"
                               "control-socket = \"/tmp/flowspecd-controlfuzz-" + std::to_string(::getpid()) +
                               ".sock\"\n"
                               "[[neighbor]]\naddress = \"127.0.0.2\"\nremote-as = 65002\npassive = true\n"
                               "[[rule]]\nfamily = \"ipv4-flowspec\"\n"
                               "match = \"destination 10.0.0.5/32 protocol =6 destination-port =80\"\n"
                               "then = [\"discard\"]\n";
      auto config = parseConfig(text, "fuzz");
      if (!config) std::abort();
      agent = Ovk::makePtr<Agent>(io, std::move(config.value()), logger);
      if (auto started = agent->start(); !started) {
         std::fprintf(stderr, "the agent did not start: %s\n", started.reason().c_str());
         std::abort();
      }
      // The process never ends the agent: its segment and socket lose their names now, and
      // go with the process.
      if (auto name = Mnemo::EntityManager(fsibPrefix).segmentName(Mnemo::fsibPath)) Mnemo::unlinkSlateSegment(*name);
      ::unlink(agent->config().controlSocket.c_str());
   }
};

// A streamed answer: a JSON status line, then (status 0) the rows, one JSON document when
// the request asked for JSON.
void checkStreamed(std::string const& answer, bool json) {
   std::size_t const eol = answer.find('\n');
   if (eol == std::string::npos) std::abort();
   auto const status = nlohmann::json::parse(answer.substr(0, eol), nullptr, false);
   if (!status.is_object() || !status.contains("status")) std::abort();
   if (json && status["status"] == 0 && !nlohmann::json::accept(answer.substr(eol + 1))) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   static Setup* const setup = new Setup();
   if (size > ControlServer::kMaxRequest) return 0;
   std::string_view request(reinterpret_cast<char const*>(data), size);
   // The socket hands over one line, without its end.
   request = request.substr(0, request.find('\n'));
   while (!request.empty() && request.back() == '\r') request.remove_suffix(1);
   Agent& agent = *setup->agent;
   std::string answer;
   if (isShowTableRequest(request)) {
      auto stream = showTableStream(Ovk::Ptr<Routing::Bgp::Plugin::Context>(&agent.routing()->context()), request,
                                    [](Ovnet::IpGenAddr const& a) { return a.str() == "127.0.0.2"; }, 4096);
      while (stream->next(answer)) {
      }
      auto const j = nlohmann::json::parse(request, nullptr, false);
      auto const format = j.is_object() ? j.find("format") : j.end();
      checkStreamed(answer, format != j.end() && format->is_string() && *format == "json");
   } else {
      answer = agent.handleControl(request);
      if (!nlohmann::json::accept(answer)) std::abort();
   }
   return 0;
}
