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
      if (!agent->start()) std::abort();
   }
   ~Setup() {
      agent->stop();
      agent = nullptr;
      if (auto name = Mnemo::EntityManager(fsibPrefix).segmentName(Mnemo::fsibPath)) Mnemo::unlinkSlateSegment(*name);
   }
};

void checkJsonLines(std::string const& answer) {
   std::size_t start = 0;
   while (start < answer.size()) {
      std::size_t end = answer.find('\n', start);
      if (end == std::string::npos) end = answer.size();
      std::string_view const line(answer.data() + start, end - start);
      // The text renderer's rows follow a JSON status line; only lines that open an object
      // are JSON.
      if (!line.empty() && line.front() == '{' && !nlohmann::json::accept(line)) std::abort();
      start = end + 1;
   }
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
   } else {
      answer = agent.handleControl(request);
      if (!nlohmann::json::accept(answer)) std::abort();
   }
   checkJsonLines(answer);
   return 0;
}
