// Two agents in one process, peering over loopback with real sockets, read through their
// control sockets.
#include "agent/Agent.h"

#include "host/mnemo/SlateRuleSetMount.h"
#include "host/mnemo/SlateSegment.h"
#include "tests/fakes/AgentFakes.h"

#include <gtest/gtest.h>

#include <asio/post.hpp>
#include <nlohmann/json.hpp>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <fstream>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <thread>

namespace Flowspecd {
namespace {

using namespace std::chrono_literals;

class QuietLogger : public Logger {
 public:
   void log(std::string_view, std::string_view) override {}
};

std::uint16_t freePort(char const* address) {
   asio::io_context io;
   asio::ip::tcp::acceptor a(io, asio::ip::tcp::endpoint(asio::ip::make_address(address), 0));
   return a.local_endpoint().port();
}

// An FSIB prefix of this test process's own, so that parallel tests never share a segment.
std::string fsibPrefix(char const* who) { return std::string("agenttest-") + who + "-" + std::to_string(getpid()); }

// Removes the FSIB segment an agent of `prefix` left behind.
void unlinkFsib(std::string const& prefix) {
   if (auto name = Mnemo::EntityManager(prefix).segmentName(Mnemo::fsibPath)) Mnemo::unlinkSlateSegment(*name);
}

// The configuration of an agent at `self` with one neighbor `peer`: `extra` holds more keys
// of the neighbor, `top` more tables after it ([[rule]]s, say).
std::string configText(std::string const& self, std::uint16_t port, std::string const& peer, std::uint16_t peerPort,
                       std::uint32_t as, std::uint32_t peerAs, bool passive, std::string const& socket,
                       std::string const& extra = "", std::string const& top = "") {
   return "fsib-prefix = \"" + fsibPrefix(self.c_str() + 8) + "\"\n" + "router-id = \"" + self +
          "\"\nlocal-as = " + std::to_string(as) + "\nlisten = [\"" + self + ":" + std::to_string(port) +
          "\"]\ncontrol-socket = \"" + socket + "\"\n[[neighbor]]\naddress = \"" + peer +
          "\"\nport = " + std::to_string(peerPort) + "\nremote-as = " + std::to_string(peerAs) +
          "\nhold-time = 3\nconnect-retry = 1\npassive = " + (passive ? "true" : "false") + "\n" + extra + top;
}

AgentConfig config(std::string const& self, std::uint16_t port, std::string const& peer, std::uint16_t peerPort,
                   std::uint32_t as, std::uint32_t peerAs, bool passive, std::string const& socket,
                   std::string const& extra = "", std::string const& top = "") {
   auto r = parseConfig(configText(self, port, peer, peerPort, as, peerAs, passive, socket, extra, top), "test");
   EXPECT_TRUE(r.ok()) << (r.ok() ? "" : r.reason().front().str());
   return r.value();
}

nlohmann::json show(std::string const& socket) {
   auto answer = controlRequest(socket, "show neighbors", 2s);
   if (!answer) return nlohmann::json();
   return nlohmann::json::parse(answer.value(), nullptr, false);
}

// Polls until `pred` holds for the first neighbor of the agent at `socket`.
template <class Pred>
bool waitFor(std::string const& socket, Pred pred) {
   for (int i = 0; i < 100; ++i) {
      auto const j = show(socket);
      if (j.is_object() && !j["neighbors"].empty() && pred(j["neighbors"][0])) return true;
      std::this_thread::sleep_for(50ms);
   }
   return false;
}

TEST(Agent, TwoAgentsPeerAndShowTheirSessions) {
   std::string const dir = testing::TempDir();
   std::string const sockA = dir + "/flowspecd-agent-test-a.sock";
   std::string const sockB = dir + "/flowspecd-agent-test-b.sock";
   std::uint16_t const portA = freePort("127.0.0.31");
   std::uint16_t const portB = freePort("127.0.0.32");
   asio::io_context io;
   QuietLogger logger;
   auto a =
       Ovk::makePtr<Agent>(io, config("127.0.0.31", portA, "127.0.0.32", portB, 65031, 65032, false, sockA), logger);
   auto b =
       Ovk::makePtr<Agent>(io, config("127.0.0.32", portB, "127.0.0.31", portA, 65032, 65031, true, sockB), logger);
   ASSERT_TRUE(b->start().ok());
   ASSERT_TRUE(a->start().ok());
   std::thread loop([&] { io.run(); });

   struct stat st {};
   ASSERT_EQ(::stat(sockA.c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 0777, 0600u);

   EXPECT_TRUE(waitFor(sockA, [](auto const& n) { return n["state"] == "Established"; }));
   auto const j = show(sockB);
   ASSERT_TRUE(j.is_object());
   ASSERT_EQ(j.size(), 4u); // neighbors, summaryLabels, strangersClosed, restart
   EXPECT_EQ(j["strangersClosed"], 0);
   EXPECT_EQ(j["summaryLabels"]["ipv4-flowspec"], nlohmann::json({{"received", "RulesRcd"}, {"accepted", "RulesAcc"}}));
   // A first start (no FSIB of an earlier run): nothing to wait for.
   EXPECT_EQ(j["restart"]["converged"], true);
   EXPECT_EQ(j["restart"]["forwardingKept"], false);
   auto const& n = j["neighbors"][0];
   EXPECT_EQ(n["address"], "127.0.0.31");
   EXPECT_EQ(n["port"], portA);
   EXPECT_EQ(n["remoteAs"], 65031);
   EXPECT_EQ(n["state"], "Established");
   EXPECT_EQ(n["families"], nlohmann::json({"ipv4-flowspec", "ipv6-flowspec"}));
   EXPECT_EQ(n["updatesOut"], 2); // End-of-RIB for each family
   EXPECT_EQ(n["updatesIn"], 2);
   EXPECT_EQ(n["lastError"], "");
   EXPECT_TRUE(n["uptimeSeconds"].is_number_unsigned());
   EXPECT_EQ(n["remoteRouterId"], "127.0.0.31");

   // The End-of-RIB markers went through the UPDATE decoder.
   auto const updates = controlRequest(sockB, "show updates", 2s);
   ASSERT_TRUE(updates.ok());
   auto const u = nlohmann::json::parse(updates.value());
   EXPECT_EQ(u["neighbors"][0]["address"], "127.0.0.31");
   EXPECT_EQ(u["neighbors"][0]["messages"], 2);
   EXPECT_EQ(u["neighbors"][0]["outcomes"]["accept"], 2);

   auto const unknown = controlRequest(sockA, "show everything", 2s);
   ASSERT_TRUE(unknown.ok());
   EXPECT_EQ(nlohmann::json::parse(unknown.value())["error"], "unknown request: show everything");

   // A stops: B hears a Cease and waits for A again.
   asio::post(io, [&] { a->stop(); });
   EXPECT_TRUE(waitFor(sockB, [](auto const& m) {
      return m["state"] == "Active" && m["lastError"] == "received NOTIFICATION Cease/Administrative Shutdown (6/2)";
   }));
   EXPECT_NE(::stat(sockA.c_str(), &st), 0); // A removed its control socket

   asio::post(io, [&] { b->stop(); });
   loop.join(); // the loop runs out of work once both agents are stopped
   EXPECT_FALSE(controlRequest(sockB, "show neighbors", 1s).ok());
   a = nullptr;
   b = nullptr;
   unlinkFsib(fsibPrefix("31"));
   unlinkFsib(fsibPrefix("32"));
}

// SIGHUP applies every change of a neighbor: what the OPEN carries starts the session again
// with a Cease (Other Configuration Change), the rest is taken as the session goes on; a new
// neighbor starts and a gone one is stopped with a Cease (Peer De-configured).
TEST(Agent, AReloadAppliesNeighborChanges) {
   std::string const dir = testing::TempDir();
   std::string const sockA = dir + "/flowspecd-agent-test-ra.sock";
   std::string const sockB = dir + "/flowspecd-agent-test-rb.sock";
   std::string const file = dir + "/flowspecd-agent-test-reload.toml";
   std::uint16_t const portA = freePort("127.0.0.41");
   std::uint16_t const portB = freePort("127.0.0.42");
   asio::io_context io;
   Fakes::Lines logsA;
   QuietLogger logsB;
   AgentConfig const first = config("127.0.0.41", portA, "127.0.0.42", portB, 65041, 65042, false, sockA);
   auto a = Ovk::makePtr<Agent>(io, first, logsA);
   auto b = Ovk::makePtr<Agent>(io, config("127.0.0.42", portB, "127.0.0.41", portA, 65042, 65041, true, sockB), logsB);
   ASSERT_TRUE(b->start().ok());
   ASSERT_TRUE(a->start().ok());
   auto const text = [&](std::string const& neighborExtra) {
      return "fsib-prefix = \"" + first.fsibPrefix + "\"\nrouter-id = \"127.0.0.41\"\nlocal-as = 65041\nlisten = [\"127.0.0.41:" +
             std::to_string(portA) + "\"]\ncontrol-socket = \"" + sockA + "\"\n[[neighbor]]\naddress = \"127.0.0.42\"\nport = " +
             std::to_string(portB) + "\nremote-as = 65042\nconnect-retry = 1\npassive = false\n" + neighborExtra;
   };
   auto const reload = [&](std::string const& content) {
      std::ofstream(file) << content;
      bool done = false;
      asio::post(io, [&] { done = a->reload(file); });
      io.run_for(100ms);
      return done;
   };
   // Established, with `sessions` sessions so far (a new neighbor counts from 0 again).
   auto const established = [&](std::uint64_t sessions) {
      for (int i = 0; i < 100; ++i) {
         io.run_for(50ms);
         auto const n = a->neighbors();
         if (n.size() == 1 && n[0].state == BgpState::established && n[0].counters.establishedTransitions == sessions) {
            return true;
         }
      }
      return false;
   };
   ASSERT_TRUE(established(1));
   std::uint64_t const sessions = a->neighbors()[0].counters.establishedTransitions;

   // The description goes on with the session.
   ASSERT_TRUE(reload(text("hold-time = 3\ndescription = \"edge\"\n")));
   EXPECT_TRUE(logsA.contains("SIGHUP: description \"\" -> \"edge\" (the session goes on)"));
   EXPECT_EQ(a->neighbors()[0].config.description, "edge");
   EXPECT_EQ(a->neighbors()[0].counters.establishedTransitions, sessions);
   // The hold time is the OPEN's: a new session negotiates it.
   ASSERT_TRUE(reload(text("hold-time = 6\ndescription = \"edge\"\n")));
   EXPECT_TRUE(logsA.contains("SIGHUP: hold-time 3 -> 6: the session starts again"));
   EXPECT_TRUE(logsA.contains("sent NOTIFICATION Cease/Other Configuration Change (6/6)"));
   EXPECT_TRUE(established(1)); // the session of a neighbor made again
   EXPECT_EQ(a->neighbors()[0].config.holdTime, 6);
   // Gone.
   std::ofstream(file) << "fsib-prefix = \"" + first.fsibPrefix + "\"\nrouter-id = \"127.0.0.41\"\nlocal-as = 65041\nlisten = [\"127.0.0.41:" +
                              std::to_string(portA) + "\"]\ncontrol-socket = \"" + sockA + "\"\n";
   asio::post(io, [&] { a->reload(file); });
   io.run_for(200ms);
   EXPECT_TRUE(a->neighbors().empty());
   EXPECT_TRUE(logsA.contains("127.0.0.42 SIGHUP: neighbor removed"));
   // Both sides set the N bit: the peer is to drop our routes now, not keep them (RFC 8538).
   EXPECT_TRUE(logsA.contains("sent NOTIFICATION Cease/Hard Reset (6/9) for Cease/Peer De-configured (6/3)"));
   // And new again.
   ASSERT_TRUE(reload(text("hold-time = 3\n")));
   EXPECT_TRUE(logsA.contains("127.0.0.42 SIGHUP: new neighbor"));
   EXPECT_TRUE(established(1));
   a->stop();
   b->stop();
   io.run_for(200ms);
   a = nullptr;
   b = nullptr;
   std::remove(file.c_str());
   unlinkFsib(first.fsibPrefix);
}

// One FSIB has one writer: a second agent on the same fsib-prefix does not start, and says
// why; with the first gone it starts.
TEST(Agent, SecondAgentOnOneFsibIsRefusedAtStart) {
   asio::io_context io;
   QuietLogger logger;
   std::string const dir = testing::TempDir();
   auto first = Ovk::makePtr<Agent>(io,
                                    config("127.0.0.35", freePort("127.0.0.35"), "127.0.0.36", 179, 1, 2, true,
                                           dir + "/flowspecd-agent-test-d.sock"),
                                    logger);
   ASSERT_TRUE(first->start().ok());
   AgentConfig same = config("127.0.0.35", freePort("127.0.0.35"), "127.0.0.36", 179, 1, 2, true,
                             dir + "/flowspecd-agent-test-e.sock");
   auto second = Ovk::makePtr<Agent>(io, same, logger);
   auto const r = second->start();
   ASSERT_FALSE(r.ok());
   EXPECT_NE(r.reason().find("cannot write the FSIB /" + fsibPrefix("35") + ".routing.bgp.flowspec"), std::string::npos)
       << r.reason();
   first = nullptr;
   second = Ovk::makePtr<Agent>(io, same, logger);
   EXPECT_TRUE(second->start().ok());
   second = nullptr;
   unlinkFsib(fsibPrefix("35"));
}

// A local user who creates the FSIB's segment before the agent starts cannot feed the
// forwarding plane through it: the agent refuses to start and names the segment and its owner.
TEST(Agent, AnFsibSegmentOfAnotherUserIsRefusedAtStart) {
   if (::geteuid() != 0) GTEST_SKIP() << "making a segment as another user needs root (setuid in a child)";
   asio::io_context io;
   QuietLogger logger;
   AgentConfig c = config("127.0.0.39", freePort("127.0.0.39"), "127.0.0.40", 179, 1, 2, true,
                          testing::TempDir() + "/flowspecd-agent-test-squat.sock");
   std::string const segment = *Mnemo::EntityManager(c.fsibPrefix).segmentName(Mnemo::fsibPath);
   unlinkFsib(c.fsibPrefix);
   pid_t const child = ::fork();
   if (child == 0) {
      if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(2);
      int const fd = ::shm_open(segment.c_str(), O_RDWR | O_CREAT | O_EXCL, 0666);
      ::_exit(fd >= 0 ? 0 : 1);
   }
   int status = 0;
   ASSERT_EQ(::waitpid(child, &status, 0), child);
   ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
   auto agent = Ovk::makePtr<Agent>(io, c, logger);
   auto const r = agent->start();
   ASSERT_FALSE(r.ok());
   EXPECT_NE(r.reason().find("cannot write the FSIB " + segment + ": /dev/shm" + segment + " belongs to user "),
             std::string::npos)
       << r.reason();
   agent = nullptr;
   unlinkFsib(c.fsibPrefix);
}

// A plugin library that is not there stops the start, naming the path and the loader's reason.
TEST(Agent, MissingPluginLibraryIsAClearError) {
   asio::io_context io;
   QuietLogger logger;
   AgentConfig c = config("127.0.0.37", freePort("127.0.0.37"), "127.0.0.38", 179, 1, 2, true,
                          testing::TempDir() + "/flowspecd-agent-test-f.sock");
   c.pluginPath = "/nonexistent/libBgpFlowspec.so";
   auto a = Ovk::makePtr<Agent>(io, c, logger);
   auto const r = a->start();
   ASSERT_FALSE(r.ok());
   EXPECT_NE(r.reason().find("cannot load the plugin library /nonexistent/libBgpFlowspec.so: "), std::string::npos)
       << r.reason();
}

TEST(Agent, ListenFailureIsReported) {
   asio::io_context io;
   QuietLogger logger;
   std::uint16_t const port = freePort("127.0.0.33");
   asio::ip::tcp::acceptor busy(io, asio::ip::tcp::endpoint(asio::ip::make_address("127.0.0.33"), port));
   auto a = Ovk::makePtr<Agent>(
       io,
       config("127.0.0.33", port, "127.0.0.34", 179, 1, 2, true, testing::TempDir() + "/flowspecd-agent-test-c.sock"),
       logger);
   auto r = a->start();
   ASSERT_FALSE(r.ok());
   EXPECT_NE(r.reason().find("cannot listen on 127.0.0.33:" + std::to_string(port)), std::string::npos) << r.reason();
   a = nullptr;
   unlinkFsib(fsibPrefix("33"));
}

// Rule requests: what the agent accepts, refuses, and lists, as the control socket answers.
TEST(Agent, RuleRequestsAreAnsweredWithTheOutcome) {
   asio::io_context io;
   QuietLogger logger;
   auto a = Ovk::makePtr<Agent>(io,
                                config("127.0.0.39", freePort("127.0.0.39"), "127.0.0.40", 179, 1, 2, true,
                                       testing::TempDir() + "/flowspecd-agent-test-g.sock"),
                                logger);
   ASSERT_TRUE(a->start().ok());
   auto ask = [&](std::string const& request) { return nlohmann::json::parse(a->handleControl(request)); };
   struct Row {
      std::string request;
      std::string says; // the error, or the result
   };
   std::vector<Row> const rows{
       {R"(rule add {"family":"ipv4","match":"destination 10.0.0.0/8","then":["discard"]})", "added"},
       {R"(rule add {"family":"ipv4-flowspec","match":"destination 10.0.0.0/8","then":["mark 1"]})", "replaced"},
       {R"(rule add {"family":"ipv4","match":"destination 10.0.0.0/8","then":[]})",
        "then: a rule needs at least one action"},
       {R"(rule add {"family":"ipv4","match":"destination 10.0.0.0/8","then":[1]})", "\"then\" holds action strings"},
       {R"(rule add {"family":"ipx","match":"destination 10.0.0.0/8","then":["discard"]})", "unknown family \"ipx\""},
       {R"(rule add {"match":"destination 10.0.0.0/8"})", "a rule request is a JSON object"},
       {"rule add not json", "a rule request is a JSON object"},
       {R"(rule delete {"family":"ipv6","match":"destination 2001:db8::/32"})",
        "no rule ipv6-flowspec 2001:db8::/32;*; was added at run time"},
       {R"(rule delete {"family":"ipv4","match":"destination 10.0.0.0/8"})", "deleted"},
   };
   for (Row const& row : rows) {
      SCOPED_TRACE(row.request);
      auto const j = ask(row.request);
      if (j["ok"] == true) {
         EXPECT_EQ(j["result"], row.says);
      } else {
         EXPECT_EQ(j["error"].get<std::string>().rfind(row.says, 0), 0u) << j.dump();
      }
   }
   EXPECT_EQ(ask("rule list"), nlohmann::json::parse(R"({"rules":[]})"));
   EXPECT_EQ(ask("rule everything")["error"], "unknown request: rule everything");
   // A request longer than the socket takes is answered, not dropped.
   std::thread loop([&] { io.run_for(2s); });
   auto const tooLong =
       controlRequest(a->config().controlSocket, std::string(ControlServer::kMaxRequest + 10, 'x'), 2s);
   ASSERT_TRUE(tooLong.ok()) << tooLong.reason();
   EXPECT_EQ(nlohmann::json::parse(tooLong.value())["error"], "the request is longer than 65536 bytes");
   loop.join();
   a = nullptr;
   unlinkFsib(fsibPrefix("39"));
}

TEST(ControlSocket, StaleFileIsReplacedButOthersAreKept) {
   asio::io_context io;
   std::string const path = testing::TempDir() + "/flowspecd-control-test.sock";
   auto handler = [](std::string_view r) { return "echo " + std::string(r); };
   {
      auto first = ControlServer::create(io, path, handler);
      ASSERT_TRUE(first.ok());
      // A second server on a live socket is refused.
      auto second = ControlServer::create(io, path, handler);
      ASSERT_FALSE(second.ok());
      EXPECT_NE(second.reason().find("in use"), std::string::npos);
      std::thread loop([&] { io.run_for(1s); });
      auto answer = controlRequest(path, "hello", 2s);
      loop.join();
      ASSERT_TRUE(answer.ok()) << answer.reason();
      EXPECT_EQ(answer.value(), "echo hello");
      // Leave the socket file behind, as a crashed agent would.
      first.value()->close();
      asio::local::stream_protocol::acceptor stale(io, asio::local::stream_protocol::endpoint(path));
   }
   io.restart();
   auto again = ControlServer::create(io, path, handler);
   ASSERT_TRUE(again.ok()) << again.reason();
   again.value()->close();

   std::string const file = testing::TempDir() + "/flowspecd-control-test.txt";
   { std::ofstream(file) << "data"; }
   auto onFile = ControlServer::create(io, file, handler);
   ASSERT_FALSE(onFile.ok());
   EXPECT_NE(onFile.reason().find("is not a socket"), std::string::npos);
   std::remove(file.c_str());
}

// ---- At the edge ----

// Two agents on loopback, `a` connecting to `b`, with neighbor keys of their own; the loop
// runs in the test's thread.
struct Pair {
   Pair(char const* aAddress, char const* bAddress, std::string const& aExtra, std::string const& bExtra,
        std::string const& aTop = "", std::string const& bTop = "")
       : aAt(aAddress), bAt(bAddress), portA(freePort(aAddress)), portB(freePort(bAddress)),
         sockA(testing::TempDir() + "/flowspecd-edge-" + aAt + ".sock"),
         sockB(testing::TempDir() + "/flowspecd-edge-" + bAt + ".sock") {
      a = Ovk::makePtr<Agent>(io, config(aAt, portA, bAt, portB, 65001, 65002, false, sockA, aExtra, aTop), logsA);
      b = Ovk::makePtr<Agent>(io, config(bAt, portB, aAt, portA, 65002, 65001, true, sockB, bExtra, bTop), logsB);
      EXPECT_TRUE(b->start().ok());
      EXPECT_TRUE(a->start().ok());
   }
   ~Pair() {
      a->stop();
      b->stop();
      io.run_for(100ms);
      std::string const pa = a->config().fsibPrefix, pb = b->config().fsibPrefix;
      a = nullptr;
      b = nullptr;
      unlinkFsib(pa);
      unlinkFsib(pb);
   }
   // Runs the loop until `pred` holds, for at most `limit`.
   template <class Pred>
   bool runUntil(Pred pred, std::chrono::milliseconds limit = 5s) {
      for (auto waited = 0ms; waited < limit; waited += 50ms) {
         if (pred()) return true;
         io.run_for(50ms);
      }
      return pred();
   }
   NeighborStatus of(Agent& agent) const { return agent.neighbors().at(0); }
   bool established(Agent& agent) const { return of(agent).state == BgpState::established; }

   std::string aAt, bAt;
   std::uint16_t portA, portB;
   std::string sockA, sockB;
   asio::io_context io;
   Fakes::Lines logsA, logsB;
   Ovk::Ptr<Agent> a, b;
};

// TCP MD5 (RFC 2385): the same password on both ends makes the session; another one, or none
// on one side, makes silence, which the connecting side says with its likely reason.
TEST(AgentEdge, Md5PasswordsDecideWhetherTheSessionComesUp) {
   struct Row {
      char const* name;
      char const* aPassword;
      char const* bPassword;
      bool up;
   };
   for (Row const r : {Row{"the same", "s3cret", "s3cret", true}, Row{"another", "s3cret", "other", false},
                       Row{"none at the listening end", "s3cret", nullptr, false}}) {
      SCOPED_TRACE(r.name);
      auto const key = [](char const* pw) { return pw ? "password = \"" + std::string(pw) + "\"\n" : std::string(); };
      Pair p("127.0.0.61", "127.0.0.62", key(r.aPassword), key(r.bPassword));
      if (r.up) {
         EXPECT_TRUE(p.runUntil([&] { return p.established(*p.a) && p.established(*p.b); }));
      } else {
         p.io.run_for(2500ms);
         EXPECT_EQ(p.of(*p.a).counters.establishedTransitions, 0u);
         EXPECT_EQ(p.of(*p.b).counters.messagesIn, 0u);
         EXPECT_NE(p.of(*p.a).lastError.find("no answer within 1 s (TCP MD5 signatures are on"), std::string::npos)
             << p.of(*p.a).lastError;
      }
      for (auto const* logs : {&p.logsA, &p.logsB}) EXPECT_FALSE(logs->contains("s3cret"));
      nlohmann::json const shown = nlohmann::json::parse(p.a->handleControl("show neighbors"));
      EXPECT_EQ(shown["neighbors"][0]["tcpMd5"], true);
      EXPECT_EQ(shown.dump().find("s3cret"), std::string::npos);
   }
}

// GTSM (RFC 5082): both ends sending with TTL 255 make the session; a connection that comes
// with the system's default TTL is refused before it reaches the neighbor, and said.
TEST(AgentEdge, TtlSecurityRefusesConnectionsFromFartherThanTheHops) {
   {
      Pair p("127.0.0.63", "127.0.0.64", "ttl-security = true\n", "ttl-security = true\n");
      EXPECT_TRUE(p.runUntil([&] { return p.established(*p.a) && p.established(*p.b); }));
      EXPECT_EQ(p.of(*p.b).counters.connectionsRefused, 0u);
   }
   Pair p("127.0.0.63", "127.0.0.64", "", "ttl-security = true\n");
   EXPECT_TRUE(p.runUntil([&] { return p.of(*p.b).counters.connectionsRefused >= 2; }));
   EXPECT_EQ(p.of(*p.a).counters.establishedTransitions, 0u);
   std::string const why = p.of(*p.b).lastError;
   EXPECT_EQ(why.rfind("connection from 127.0.0.63:", 0), 0u) << why;
   EXPECT_NE(why.find("refused: TTL "), std::string::npos) << why;
   EXPECT_NE(why.find(", below 255 (ttl-security)"), std::string::npos) << why;
   // Said once, however often the neighbor tries meanwhile.
   EXPECT_EQ(std::count_if(p.logsB.lines.begin(), p.logsB.lines.end(),
                           [](std::string const& l) { return l.find("(ttl-security)") != std::string::npos; }),
             1);
}

// Connections from addresses that are no neighbor are closed the moment they are accepted,
// with nothing sent; a line per source says so; the session goes on meanwhile.
TEST(AgentEdge, StrangersAreClosedAtOnceAndTheSessionGoesOn) {
   Pair p("127.0.0.65", "127.0.0.66", "", "");
   ASSERT_TRUE(p.runUntil([&] { return p.established(*p.a) && p.established(*p.b); }));
   constexpr int kSources = 10;
   constexpr int kEach = 40;
   std::atomic<int> closedAtOnce{0};
   std::atomic<bool> done{false};
   std::thread strangers([&] {
      for (int i = 0; i < kSources * kEach; ++i) {
         asio::io_context io;
         asio::ip::tcp::socket s(io);
         std::string const from = "127.0.1." + std::to_string(10 + i % kSources);
         s.open(asio::ip::tcp::v4());
         s.bind(asio::ip::tcp::endpoint(asio::ip::make_address(from), 0));
         std::error_code ec;
         s.connect(asio::ip::tcp::endpoint(asio::ip::make_address(p.bAt), p.portB), ec);
         if (ec) continue;
         timeval const wait{1, 0};
         ::setsockopt(s.native_handle(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
         char byte;
         // End of stream at once, not a byte (no NOTIFICATION for strangers).
         if (::recv(s.native_handle(), &byte, 1, 0) == 0) ++closedAtOnce;
      }
      done = true;
   });
   ASSERT_TRUE(p.runUntil([&] { return done.load(); }, 20s));
   strangers.join();
   EXPECT_EQ(closedAtOnce.load(), kSources * kEach);
   // Past the hold time: the session never noticed.
   p.io.run_for(3500ms);
   EXPECT_TRUE(p.established(*p.b));
   EXPECT_EQ(p.of(*p.b).counters.establishedTransitions, 1u);
   EXPECT_EQ(nlohmann::json::parse(p.b->handleControl("show neighbors"))["strangersClosed"], kSources * kEach);
   EXPECT_EQ(std::count_if(p.logsB.lines.begin(), p.logsB.lines.end(),
                           [](std::string const& l) { return l.find("closed: not a configured neighbor") != std::string::npos; }),
             kSources);
}

// SIGHUP changes what a neighbor may import as its session goes on: rules now refused leave,
// rules now allowed come back through a ROUTE-REFRESH the peer answers.
TEST(AgentEdge, AReloadChangesWhatANeighborMayImportWithoutAReset) {
   std::string const rules = "[[rule]]\nfamily = \"ipv4-flowspec\"\nmatch = \"destination 10.1.0.0/24\"\nthen = "
                             "[\"discard\"]\n[[rule]]\nfamily = \"ipv4-flowspec\"\nmatch = \"destination 11.1.0.0/24\"\n"
                             "then = [\"discard\"]\n";
   Pair p("127.0.0.67", "127.0.0.68", "", "", rules, "");
   Ovnet::IpGenAddr const fromA = *Ovnet::IpGenAddr::parse(p.aAt);
   auto const held = [&] {
      auto const v = p.b->routing()->peer(fromA);
      return v && v->received.count(kIpv4Flowspec) ? v->received.at(kIpv4Flowspec) : 0u;
   };
   ASSERT_TRUE(p.runUntil([&] { return held() == 2; }));
   std::string const file = testing::TempDir() + "/flowspecd-edge-reload.toml";
   auto const reload = [&](std::string const& extra) {
      std::ofstream(file) << configText(p.bAt, p.portB, p.aAt, p.portA, 65002, 65001, true, p.sockB, extra);
      EXPECT_TRUE(p.b->reload(file));
   };
   reload("allowed-destinations = [\"10.0.0.0/8 le 32\"]\n");
   EXPECT_TRUE(p.logsB.contains("SIGHUP: allowed-destinations any -> [10.0.0.0/8 le 32] (the session goes on)"));
   ASSERT_TRUE(p.runUntil([&] { return held() == 1; }));
   auto const refused = nlohmann::json::parse(p.b->handleControl("show refused " + p.aAt));
   ASSERT_EQ(refused["families"]["ipv4-flowspec"]["rules"].size(), 1u);
   EXPECT_EQ(refused["families"]["ipv4-flowspec"]["rules"][0]["rule"], "11.1.0.0/24;*;");
   EXPECT_EQ(refused["families"]["ipv4-flowspec"]["rules"][0]["reason"], "destinationNotAllowed");
   EXPECT_TRUE(p.runUntil([&] { return p.of(*p.a).counters.routeRefreshesIn >= 1; }));
   reload("");
   ASSERT_TRUE(p.runUntil([&] { return held() == 2; }));
   EXPECT_EQ(p.of(*p.a).counters.establishedTransitions, 1u);
   EXPECT_EQ(p.of(*p.b).counters.establishedTransitions, 1u);
   EXPECT_EQ(p.of(*p.b).counters.routeRefreshesOut, 4u); // two families, twice
   auto const shown = nlohmann::json::parse(p.b->handleControl("show neighbors"))["neighbors"][0];
   // Once taken out, once refused again as the peer answered the first refresh.
   EXPECT_EQ(shown["import"]["ipv4-flowspec"]["refused"]["destinationNotAllowed"], 2);
   EXPECT_EQ(nlohmann::json::parse(p.b->handleControl("show refused 10.9.9.9"))["error"], "unknown neighbor 10.9.9.9");
   std::remove(file.c_str());
}

// A control socket whose directory another user could write, or a link, is refused at start.
TEST(ControlSocket, APathAnotherUserCouldSwapIsRefused) {
   asio::io_context io;
   auto handler = [](std::string_view) { return std::string(); };
   std::string dir = testing::TempDir() + "/flowspecd-control-XXXXXX";
   ASSERT_NE(::mkdtemp(dir.data()), nullptr);
   ASSERT_EQ(::chmod(dir.c_str(), 0777), 0);
   auto open = ControlServer::create(io, dir + "/agent.sock", handler);
   ASSERT_FALSE(open.ok());
   EXPECT_EQ(open.reason(), "control socket " + dir + "/agent.sock refused: the directory " + dir +
                                " may be written by other users (mode 0777) and has no sticky bit");
   ASSERT_EQ(::chmod(dir.c_str(), 01777), 0);
   auto sticky = ControlServer::create(io, dir + "/agent.sock", handler);
   ASSERT_TRUE(sticky.ok()) << sticky.reason();
   sticky.value()->close();
   ASSERT_EQ(::chmod(dir.c_str(), 0700), 0);
   ASSERT_EQ(::symlink((dir + "/elsewhere.sock").c_str(), (dir + "/link.sock").c_str()), 0);
   auto link = ControlServer::create(io, dir + "/link.sock", handler);
   ASSERT_FALSE(link.ok());
   EXPECT_EQ(link.reason(), "control socket " + dir + "/link.sock refused: " + dir + "/link.sock is a symbolic link");
   std::remove((dir + "/link.sock").c_str());
   ::rmdir(dir.c_str());
}

} // namespace
} // namespace Flowspecd
