// The show commands served from the row tables, over a fixed RIB: golden files of each
// command in text and JSON, the failures' statuses, and chunking that changes nothing.
#include "agent/ShowTables.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <regex>
#include <thread>

#include "agent/ControlStream.h"

#include "BgpFlowspec/FlowspecPlugin.h"
#include "tests/fakes/FlowspecShowEnv.h"
#include "tests/tools/flowspec/Golden.h"

namespace Flowspecd {
namespace {

using namespace Routing::Bgp;
using Fakes::PathSpec;

constexpr std::uint64_t kDrop = std::uint64_t{0x8006} << 48;

class ShowTablesEnv : public Fakes::FlowspecShowEnv {
 public:
   ShowTablesEnv() : FlowspecShowEnv("showtables") {
      context->vrfIs(BgpVrfIdBase(10), "blue");
      auto const a =
          announce("10.1.0.0/16;*;proto=6", source, {{65002, 65010}, 200, 5, "192.0.2.9", {kDrop}, {65002u << 16 | 7}});
      announce("10.1.0.0/16;*;proto=6", second, {{65003}, 100, std::nullopt, "192.0.2.10", {}, {}});
      announce("10.1.2.0/24;*;dport=80", second, {{65003}, std::nullopt, std::nullopt, "192.0.2.10", {}, {}});
      announce("10.2.0.0/16;*;", source, {{65002}, std::nullopt, std::nullopt, "192.0.2.9", {}, {}}, false, 4);
      announce("*;*;proto=1", source, {{65002}, std::nullopt, std::nullopt, "192.0.2.9", {kDrop}, {}});
      announce("2001:db8::/32;*;proto=58", source, {{65002}, std::nullopt, std::nullopt, nullptr, {kDrop}, {}}, true);
      auto main = Ovk::ptrCast<FlowspecPlugin::FlowspecPluginMain>(context->pluginMain(AfiSafi::ipv4Flowspec()));
      main->rkToRedirVrfId()->mapIs(a.ptr(), FlowspecPlugin::FlowspecRedirVrfId{10, 1});
      auto out = ribOutOf(second);
      out->sentIs(
          a.ptr(),
          AdvertisedPath{attrs({{65001, 65002, 65010}, std::nullopt, std::nullopt, "192.0.2.1", {kDrop}, {}}), source});
   }

   // The whole answer, read a chunk at a time.
   std::string answer(nlohmann::json const& request, std::size_t chunk = 64 * 1024) const {
      auto stream = showTableStream(
          context, request.dump(), [](Ovnet::IpGenAddr const& a) { return a.str() == "192.0.2.10"; }, chunk);
      std::string out;
      while (stream->next(out)) {}
      return out;
   }
};

// Rule ids are the keys' addresses: the golden files hold a placeholder.
std::string stable(std::string s) { return std::regex_replace(s, std::regex("\"ruleId\": [0-9]+"), "\"ruleId\": N"); }

TEST(ShowTablesTest, GoldenFiles) {
   ShowTablesEnv env;
   std::string const rule = "10.1.0.0/16;*;proto=6";
   struct Case {
      char const* file;
      nlohmann::json request;
   } const cases[] = {
       {"show-flowspec-ipv4", {{"show", "flowspec"}, {"family", "ipv4"}}},
       {"show-flowspec-ipv4-from-limit",
        {{"show", "flowspec"}, {"family", "ipv4"}, {"from", "10.1.2.0/24;*;dport=80"}, {"limit", 2}}},
       {"show-flowspec-ipv4-dest", {{"show", "flowspec"}, {"family", "ipv4"}, {"dest", "10.2.7.7/16"}}},
       {"show-flowspec-ipv6", {{"show", "flowspec"}, {"family", "ipv6"}}},
       {"show-flowspec-ipv4-rule", {{"show", "flowspec-rule"}, {"family", "ipv4"}, {"rule", rule}}},
       {"show-flowspec-ipv4-advertised",
        {{"show", "flowspec-advertised"}, {"family", "ipv4"}, {"neighbor", "192.0.2.10"}, {"rule", rule}}},
   };
   for (auto const& c : cases) {
      for (char const* format : {"text", "json"}) {
         SCOPED_TRACE(std::string(c.file) + " " + format);
         nlohmann::json request = c.request;
         request["format"] = format;
         std::string const raw = env.answer(request);
         // What the tool prints: the answer after its status line.
         EXPECT_EQ(raw.substr(0, raw.find('\n')), "{\"status\":0}");
         std::string const got = stable(raw.substr(raw.find('\n') + 1));
         std::string const file = std::string(c.file) + (std::string(format) == "json" ? ".json" : ".txt");
         EXPECT_EQ(got, FlowspecTest::golden(file, got));
         // A chunk of one byte at a time gives the same answer.
         std::string const bytewise = env.answer(request, 1);
         EXPECT_EQ(stable(bytewise.substr(bytewise.find('\n') + 1)), got);
         if (std::string(format) == "json") {
            auto const body = raw.substr(raw.find('\n') + 1);
            EXPECT_TRUE(nlohmann::json::accept(body)) << body;
         }
      }
   }
}

TEST(ShowTablesTest, FailuresAndTheirStatus) {
   ShowTablesEnv env;
   struct Case {
      char const* name;
      nlohmann::json request;
      int status;
      char const* error;
   } const cases[] = {
       {"bad rule text", {{"show", "flowspec-rule"}, {"family", "ipv4"}, {"rule", "protocol banana"}}, 1, "bad rule"},
       {"bad --from", {{"show", "flowspec"}, {"family", "ipv4"}, {"from", "10.0.0.0/33"}}, 1, "bad rule"},
       {"rule not there", {{"show", "flowspec-rule"}, {"family", "ipv4"}, {"rule", "10.9.0.0/16;*;"}}, 1, "no rule"},
       {"unknown family", {{"show", "flowspec"}, {"family", "ipv5"}}, 2, "unknown family"},
       {"bad destination", {{"show", "flowspec"}, {"family", "ipv6"}, {"dest", "10.0.0.0/8"}}, 2, "bad destination"},
       {"unknown neighbor",
        {{"show", "flowspec-advertised"}, {"family", "ipv4"}, {"neighbor", "192.0.2.99"}, {"rule", "*;*;proto=1"}},
        2,
        "unknown neighbor"},
       {"unknown rule",
        {{"show", "flowspec-advertised"}, {"family", "ipv4"}, {"neighbor", "192.0.2.10"}, {"rule", "10.9.0.0/16;*;"}},
        1,
        "no rule"},
       {"not advertised",
        {{"show", "flowspec-advertised"}, {"family", "ipv4"}, {"neighbor", "192.0.2.10"}, {"rule", "*;*;proto=1"}},
        1,
        "is not advertised to 192.0.2.10"},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      std::string const got = env.answer(c.request);
      auto const status = nlohmann::json::parse(got.substr(0, got.find('\n')));
      EXPECT_EQ(status["status"], c.status);
      EXPECT_NE(status.value("error", std::string()).find(c.error), std::string::npos) << got;
      EXPECT_EQ(got.find('\n'), got.size() - 1) << "nothing follows a failure";
   }
}

// The rules a walk lists, in order.
std::vector<std::string> rulesOf(std::string const& answer) {
   auto const body = nlohmann::json::parse(answer.substr(answer.find('\n') + 1));
   std::vector<std::string> rules;
   for (auto const& r : body["rules"]) rules.push_back(r["rule"].get<std::string>());
   return rules;
}

// A walk from a destination starts at the first rule whose destination falls inside it,
// whatever the rule's source and components, and goes on to the last rule of the table.
TEST(ShowTablesTest, AWalkFromADestinationStartsAtItsFirstRule) {
   Fakes::FlowspecShowEnv env("showdest");
   PathSpec const p{{65002}, std::nullopt, std::nullopt, "192.0.2.9", {kDrop}, {}};
   for (char const* rule : {"10.0.0.4/32;*;", "10.0.0.5/32;*;proto=6;dport=80", "10.0.0.5/32;*;proto=6",
                            "10.0.0.5/32;192.0.2.0/24;", "10.0.0.6/32;*;", "10.0.0.0/24;*;", "*;*;proto=17"}) {
      env.announce(rule, env.source, p);
   }
   auto const walk = [&](char const* dest) {
      nlohmann::json const request{{"show", "flowspec"}, {"family", "ipv4"}, {"format", "json"}, {"dest", dest}};
      auto stream = showTableStream(env.context, request.dump(), [](Ovnet::IpGenAddr const&) { return false; });
      std::string out;
      while (stream->next(out)) {}
      return rulesOf(out);
   };
   std::vector<std::string> const fromHost{"10.0.0.5/32;192.0.2.0/24;",
                                           "10.0.0.5/32;*;protocol =6;destination-port =80;",
                                           "10.0.0.5/32;*;protocol =6;",
                                           "10.0.0.6/32;*;",
                                           "10.0.0.0/24;*;",
                                           "*;*;protocol =17;"};
   EXPECT_EQ(walk("10.0.0.5/32"), fromHost);
   EXPECT_EQ(walk("10.0.0.5/31").front(), "10.0.0.4/32;*;");
   EXPECT_EQ(walk("10.0.0.5/31").size(), 7u);
   EXPECT_EQ(walk("10.0.0.7/32").front(), "10.0.0.0/24;*;");
}

// A row the plugin refuses (a VRF name beyond what a name may hold) is an answer with the
// reason, over the control socket, and the agent's side goes on answering.
TEST(ShowTablesTest, ARowThePluginRefusesIsAnErrorAnswer) {
   ShowTablesEnv env;
   env.context->vrfIs(BgpVrfIdBase(11), std::string(101, 'v'));
   auto const k = env.key("*;*;proto=1");
   auto main = Ovk::ptrCast<FlowspecPlugin::FlowspecPluginMain>(env.context->pluginMain(AfiSafi::ipv4Flowspec()));
   main->rkToRedirVrfId()->mapIs(k.ptr(), FlowspecPlugin::FlowspecRedirVrfId{11, 1});
   asio::io_context io;
   std::string const path = testing::TempDir() + "/flowspecd-showtables-test.sock";
   auto server = ControlServer::create(io, path, [](std::string_view) { return std::string("{}"); });
   ASSERT_TRUE(server.ok()) << server.reason();
   server.value()->streamHandlerIs([&](std::string_view request) {
      return showTableStream(env.context, request, [](Ovnet::IpGenAddr const&) { return false; });
   });
   auto const ask = [&](nlohmann::json const& request) {
      std::string got;
      std::thread client([&] {
         (void)controlStreamRequest(path, request.dump(), [&](std::string_view d) { got += d; });
      });
      while (got.empty() || got.back() != '\n') io.run_for(std::chrono::milliseconds(20));
      io.run_for(std::chrono::milliseconds(50));
      client.join();
      return got;
   };
   std::string const walk = ask({{"show", "flowspec"}, {"family", "ipv4"}, {"format", "json"}});
   EXPECT_NE(walk.find("VrfName::bytes > VrfName::maxLength not allowed"), std::string::npos) << walk;
   std::string const one = ask({{"show", "flowspec-rule"}, {"family", "ipv4"}, {"format", "json"}, {"rule", "*;*;proto=1"}});
   EXPECT_EQ(one.substr(0, one.find('\n')), R"({"error":"VrfName::bytes > VrfName::maxLength not allowed","status":1})");
   // Another rule is still shown.
   std::string const other =
       ask({{"show", "flowspec-rule"}, {"family", "ipv4"}, {"format", "json"}, {"rule", "10.1.2.0/24;*;dport=80"}});
   EXPECT_EQ(other.substr(0, other.find('\n')), R"({"status":0})");
   server.value()->close();
}

TEST(ShowTablesTest, LimitCutsTheWalk) {
   ShowTablesEnv env;
   for (int limit : {1, 2, 4, 9}) {
      auto const got = env.answer({{"show", "flowspec"}, {"family", "ipv4"}, {"format", "json"}, {"limit", limit}});
      auto const body = nlohmann::json::parse(got.substr(got.find('\n') + 1));
      EXPECT_EQ(body["rules"].size(), static_cast<std::size_t>(std::min(limit, 4)));
   }
}

} // namespace
} // namespace Flowspecd
