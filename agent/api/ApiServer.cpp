#include "agent/api/ApiServer.h"

#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/grpcpp.h>
#include <grpcpp/resource_quota.h>
#include <grpcpp/server_builder.h>

#include "agent/api/ApiOps.h"
#include "agent/api/LoopGate.h"
#include "agent/api/gobgp.grpc.pb.h"
#include "agent/api/gobgpapi.grpc.pb.h"

namespace Flowspecd::Api {

namespace {

constexpr char const* kServed = "the agent serves AddPath, DeletePath and ListPath of ipv4-flowspec and ipv6-flowspec, "
                                "ListPeer and GetBgp";

grpc::StatusCode codeOf(Code c) {
   switch (c) {
   case Code::invalidArgument: return grpc::StatusCode::INVALID_ARGUMENT;
   case Code::notFound: return grpc::StatusCode::NOT_FOUND;
   case Code::unimplemented: return grpc::StatusCode::UNIMPLEMENTED;
   case Code::unavailable: return grpc::StatusCode::UNAVAILABLE;
   case Code::failedPrecondition: return grpc::StatusCode::FAILED_PRECONDITION;
   }
   return grpc::StatusCode::UNKNOWN;
}

std::string codeName(grpc::StatusCode c) {
   switch (c) {
   case grpc::StatusCode::INVALID_ARGUMENT: return "invalid_argument";
   case grpc::StatusCode::NOT_FOUND: return "not_found";
   case grpc::StatusCode::UNIMPLEMENTED: return "unimplemented";
   case grpc::StatusCode::UNAVAILABLE: return "unavailable";
   case grpc::StatusCode::FAILED_PRECONDITION: return "failed_precondition";
   case grpc::StatusCode::CANCELLED: return "cancelled";
   default: return "code_" + std::to_string(static_cast<int>(c));
   }
}

// Every method no service serves: a clear UNIMPLEMENTED at once, whatever the client sends.
class Unimplemented final : public grpc::CallbackGenericService {
 public:
   explicit Unimplemented(std::function<void(std::string const&)> count) : count_(std::move(count)) {}
   grpc::ServerGenericBidiReactor* CreateReactor(grpc::GenericCallbackServerContext* context) override {
      class Reactor final : public grpc::ServerGenericBidiReactor {
       public:
         explicit Reactor(std::string const& method) {
            Finish(grpc::Status(grpc::StatusCode::UNIMPLEMENTED, method + " is not implemented: " + kServed));
         }
         void OnDone() override { delete this; }
      };
      count_(context->method());
      return new Reactor(context->method());
   }

 private:
   std::function<void(std::string const&)> count_;
};

} // namespace

// The five calls, for either service name; `Base` is the generated service.
template <class Base>
class Service final : public Base::Service {
 public:
   Service(ApiServer& server, std::string_view package) : server_(server), package_(package) {}

   grpc::Status AddPath(grpc::ServerContext* context, apipb::AddPathRequest const* request,
                        apipb::AddPathResponse* response) override {
      return unary("AddPath", context, response, [request](Agent& a, Caller const& c) { return addPath(a, *request, c); });
   }
   grpc::Status DeletePath(grpc::ServerContext* context, apipb::DeletePathRequest const* request,
                           apipb::Empty* response) override {
      return unary("DeletePath", context, response,
                   [request](Agent& a, Caller const& c) { return deletePath(a, *request, c); });
   }
   grpc::Status GetBgp(grpc::ServerContext* context, apipb::GetBgpRequest const*,
                       apipb::GetBgpResponse* response) override {
      return unary("GetBgp", context, response,
                   [](Agent& a, Caller const&) -> Answer<apipb::GetBgpResponse> { return getBgp(a); });
   }
   grpc::Status ListPeer(grpc::ServerContext* context, apipb::ListPeerRequest const* request,
                         grpc::ServerWriter<apipb::ListPeerResponse>* writer) override {
      std::vector<apipb::ListPeerResponse> peers;
      grpc::Status status = unary("ListPeer", context, &peers,
                                  [request](Agent& a, Caller const& c) { return listPeer(a, *request, c); });
      if (!status.ok()) return status;
      for (auto const& p : peers) {
         if (!writer->Write(p)) return cancelled("ListPeer");
      }
      return grpc::Status::OK;
   }
   grpc::Status ListPath(grpc::ServerContext* context, apipb::ListPathRequest const* request,
                         grpc::ServerWriter<apipb::ListPathResponse>* writer) override {
      // A page per turn of the loop; the cursor lives here, on the call's thread, and is
      // touched on the loop only while a page is made.
      auto cursor = std::make_shared<ListCursor>();
      // The cursor's key is released on the loop, where keys live.
      struct Release {
         LoopGate& gate;
         std::shared_ptr<ListCursor>& cursor;
         ~Release() {
            gate.post([c = std::move(cursor)] { c->after = nullptr; });
         }
      } release{*server_.gate_, cursor};
      bool first = true;
      while (!cursor->done) {
         std::vector<apipb::ListPathResponse> page;
         grpc::Status status = run(
             "ListPath", context, &page, [request, cursor](Agent& a, Caller const& c) {
                return listPath(a, *request, c, *cursor, kListPageSize);
             }, first);
         first = false;
         if (!status.ok()) return status;
         for (auto const& d : page) {
            if (!writer->Write(d)) return cancelled("ListPath");
         }
         if (context->IsCancelled()) return cancelled("ListPath");
      }
      return grpc::Status::OK;
   }

 private:
   grpc::Status cancelled(char const* method) {
      server_.count(method, codeName(grpc::StatusCode::CANCELLED), false);
      return grpc::Status(grpc::StatusCode::CANCELLED, std::string(method) + ": the client went away");
   }

   template <class T, class F>
   grpc::Status unary(char const* method, grpc::ServerContext* context, T* out, F f) {
      return run(method, context, out, std::move(f));
   }

   // Runs f on the loop and stores its answer in *out; counts the call under `method` (when
   // not empty) and its error.
   template <class T, class F>
   grpc::Status run(char const* method, grpc::ServerContext* context, T* out, F f, bool isRequest = true) {
      auto finish = [&](grpc::Status s) {
         if (isRequest || !s.ok()) {
            server_.count(method, s.ok() ? std::nullopt : std::optional<std::string>(codeName(s.error_code())),
                          isRequest);
         }
         return s;
      };
      Caller caller;
      caller.client = context->peer();
      caller.dialect.package = package_;
      caller.lifetime = server_.options_.ruleLifetime;
      auto const& metadata = context->client_metadata();
      if (auto it = metadata.find(ApiServer::kLifetimeKey); it != metadata.end()) {
         std::string_view const text(it->second.data(), it->second.size());
         auto const lifetime = parseLifetime(text);
         if (!lifetime) {
            return finish(grpc::Status(grpc::StatusCode::INVALID_ARGUMENT,
                                       std::string(ApiServer::kLifetimeKey) +
                                           ": a lifetime is seconds or a duration such as 90s, 15m, 2h or 1d, at "
                                           "most 365 days"));
         }
         caller.lifetime = lifetime;
      }
      auto timeout = ApiServer::kLoopTimeout;
      auto const deadline = context->deadline();
      auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::system_clock::now());
      if (left < timeout) timeout = std::max(std::chrono::milliseconds(0), left);
      Agent& agent = server_.agent_;
      using R = decltype(f(agent, caller));
      std::optional<R> answer =
          server_.gate_->call<R>([&agent, caller, f = std::move(f)] { return f(agent, caller); }, timeout);
      if (!answer) {
         return finish(grpc::Status(grpc::StatusCode::UNAVAILABLE,
                                    "the agent did not take the call in time, or is stopping; nothing was done"));
      }
      if (!answer->ok()) {
         Refusal const& r = answer->reason();
         return finish(grpc::Status(codeOf(r.code), r.message));
      }
      *out = std::move(answer->value());
      return finish(grpc::Status::OK);
   }

   ApiServer& server_;
   std::string_view package_;
};

struct ApiServer::Services {
   Services(ApiServer& s)
       : v3(s, "apipb"), v2(s, "gobgpapi"),
         unimplemented([&s](std::string const&) { s.count("other", "unimplemented"); }) {}
   Service<apipb::GobgpApi> v3;
   Service<gobgpapi::GobgpApi> v2;
   Unimplemented unimplemented;
};

ApiServer::ApiServer(asio::io_context& io, Agent& agent, ApiOptions options)
    : agent_(agent), options_(std::move(options)), gate_(std::make_unique<LoopGate>(io)) {}

ApiServer::~ApiServer() { shutdown(); }

Ovk::Result<std::unique_ptr<ApiServer>, std::string> ApiServer::start(asio::io_context& io, Agent& agent,
                                                                      ApiOptions options) {
   std::unique_ptr<ApiServer> s(new ApiServer(io, agent, std::move(options)));
   s->services_ = std::make_unique<Services>(*s);
   grpc::ServerBuilder builder;
   int port = 0;
   bool const unix = s->options_.listen.rfind("unix:", 0) == 0;
   builder.AddListeningPort(s->options_.listen, grpc::InsecureServerCredentials(), unix ? nullptr : &port);
   builder.RegisterService(&s->services_->v3);
   builder.RegisterService(&s->services_->v2);
   builder.RegisterCallbackGenericService(&s->services_->unimplemented);
   grpc::ResourceQuota quota("flowspecd-api");
   quota.SetMaxThreads(kMaxThreads);
   builder.SetResourceQuota(quota);
   builder.SetSyncServerOption(grpc::ServerBuilder::SyncServerOption::NUM_CQS, 1);
   builder.SetSyncServerOption(grpc::ServerBuilder::SyncServerOption::MIN_POLLERS, 1);
   builder.SetSyncServerOption(grpc::ServerBuilder::SyncServerOption::MAX_POLLERS, 2);
   // A flowspec NLRI is at most 4095 bytes; as messages, one item of a few bytes each, its
   // largest form stays well under 64 KiB. Anything longer is refused before it is read.
   builder.SetMaxReceiveMessageSize(kMaxRequestBytes);
   s->server_ = builder.BuildAndStart();
   if (!s->server_ || (!unix && port == 0)) {
      s->server_ = nullptr;
      return Ovk::failure("cannot serve the API on " + s->options_.listen);
   }
   if (unix) {
      s->listening_ = s->options_.listen;
   } else {
      std::string const& l = s->options_.listen;
      s->listening_ = l.substr(0, l.rfind(':')) + ":" + std::to_string(port);
   }
   return s;
}

void ApiServer::shutdown() {
   if (!server_) return;
   gate_->close();
   server_->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(1));
   server_->Wait();
   server_ = nullptr;
}

void ApiServer::count(std::string const& method, std::optional<std::string> const& error, bool isRequest) {
   std::lock_guard lock(countsMutex_);
   MethodCounts& c = counts_[method];
   if (isRequest) ++c.requests;
   if (error) ++c.errors[*error];
}

std::map<std::string, ApiServer::MethodCounts> ApiServer::counts() const {
   std::lock_guard lock(countsMutex_);
   return counts_;
}

} // namespace Flowspecd::Api
