// The controllers' gRPC API of the agent: the calls of the scriptable speakers' v3 API
// (service apipb.GobgpApi, and the same under the older name gobgpapi.GobgpApi) that flowspec
// controllers make: AddPath, DeletePath, ListPath, ListPeer and GetBgp (agent/api/ApiOps.h).
// Every other method of either service, or of any other, is answered UNIMPLEMENTED naming
// what is served.
//
// Threads: gRPC runs the calls on a few threads of its own (at most kMaxThreads); each hands
// its work to the agent's event-loop thread through a LoopGate and waits for the answer, a
// ListPath one page at a time, so no call touches agent state itself and the loop never does
// more than one small piece of API work between socket events. A call the loop does not take
// within the call's deadline (at most kLoopTimeout) is answered UNAVAILABLE and never runs.
//
// A rule added through the API lives for the agent's `api-rule-lifetime` (none: forever), or
// for what the call's metadata "flowspec-lifetime" says ("90s", "15m", "2h", ...).
//
// Created and shut down on the loop thread.
#pragma once

#include <asio/io_context.hpp>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "agent/Agent.h"
#include "host/fwk/Result.h"

namespace grpc {
class Server;
}

namespace Flowspecd::Api {

class LoopGate;

struct ApiOptions {
   // "ADDR:PORT" ("[V6ADDR]:PORT"), or "unix:PATH" for a Unix socket.
   std::string listen;
   std::optional<std::chrono::seconds> ruleLifetime;
};

class ApiServer {
 public:
   // Calls beyond what the threads can hold are answered RESOURCE_EXHAUSTED at once.
   static constexpr int kMaxThreads = 16;
   static constexpr int kMaxRequestBytes = 64 * 1024;
   static constexpr std::chrono::milliseconds kLoopTimeout{5000};
   // The metadata key of a call's rule lifetime.
   static constexpr char const* kLifetimeKey = "flowspec-lifetime";

   // Starts serving; the reason when the address cannot be listened on.
   static Ovk::Result<std::unique_ptr<ApiServer>, std::string> start(asio::io_context& io, Agent& agent,
                                                                     ApiOptions options);
   ~ApiServer();
   ApiServer(ApiServer const&) = delete;
   ApiServer& operator=(ApiServer const&) = delete;

   // Answers the calls waiting on the loop UNAVAILABLE, lets the running ones end (at most a
   // second) and closes the listener.
   void shutdown();
   // Where it listens: "127.0.0.1:50051" (the port chosen when 0 was asked), "unix:PATH".
   std::string const& listening() const { return listening_; }

   // Calls per method, and those answered with an error, per status code name.
   struct MethodCounts {
      std::uint64_t requests = 0;
      std::map<std::string, std::uint64_t> errors;
   };
   std::map<std::string, MethodCounts> counts() const;

 private:
   ApiServer(asio::io_context& io, Agent& agent, ApiOptions options);
   template <class Base>
   friend class Service;
   // Counts a call of `method` ("other" for every method not served), and its error.
   void count(std::string const& method, std::optional<std::string> const& error, bool isRequest = true);

   Agent& agent_;
   ApiOptions options_;
   std::unique_ptr<LoopGate> gate_;
   std::unique_ptr<grpc::Server> server_;
   std::string listening_;
   struct Services;
   std::unique_ptr<Services> services_;
   mutable std::mutex countsMutex_;
   std::map<std::string, MethodCounts> counts_;
};

} // namespace Flowspecd::Api
