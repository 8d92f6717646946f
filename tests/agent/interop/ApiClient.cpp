// A controller of our own against the agent's gRPC API, for tests/agent/interop/api.py and
// the API benchmark:
//
//   flowspec-api-client check ADDR     reconciliation through ListPath, deletion by uuid, a
//                                      lifetime from the call's metadata, the refusals, a
//                                      stream dropped half way and a burst of calls
//   flowspec-api-client add ADDR N     N rules (198.18.x.y/32 discard), one call each, then
//   flowspec-api-client del ADDR N     their deletion: prints the calls per second
//
// Every check prints "ok ..." or "FAIL ..."; the exit status is 1 when one failed. The agent
// must hold no ipv4-flowspec rule of 203.0.113.0/24 before `check` (it adds and removes its
// own there).
#include <grpcpp/client_context.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/security/credentials.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "agent/api/gobgp.grpc.pb.h"

namespace {

using Stub = apipb::GobgpApi::Stub;

int failures = 0;

void check(bool ok, std::string const& what) {
   std::cout << (ok ? "ok   " : "FAIL ") << what << std::endl;
   if (!ok) ++failures;
}

apipb::Family v4() {
   apipb::Family f;
   f.set_afi(apipb::Family::AFI_IP);
   f.set_safi(apipb::Family::SAFI_FLOW_SPEC_UNICAST);
   return f;
}

// A path "destination PREFIX [protocol =PROTO]" with the given extended communities.
apipb::Path flowPath(std::string const& prefix, int protocol, std::vector<google::protobuf::Any> communities) {
   apipb::FlowSpecNLRI nlri;
   apipb::FlowSpecIPPrefix dst;
   dst.set_type(1);
   auto const slash = prefix.find('/');
   dst.set_prefix(prefix.substr(0, slash));
   dst.set_prefix_len(static_cast<std::uint32_t>(std::stoul(prefix.substr(slash + 1))));
   nlri.add_rules()->PackFrom(dst);
   if (protocol >= 0) {
      apipb::FlowSpecComponent c;
      c.set_type(3);
      auto* item = c.add_items();
      item->set_op(0x01); // =
      item->set_value(static_cast<std::uint64_t>(protocol));
      nlri.add_rules()->PackFrom(c);
   }
   apipb::Path path;
   *path.mutable_family() = v4();
   path.mutable_nlri()->PackFrom(nlri);
   apipb::OriginAttribute origin;
   path.add_pattrs()->PackFrom(origin);
   apipb::ExtendedCommunitiesAttribute ext;
   for (auto& c : communities) *ext.add_communities() = std::move(c);
   path.add_pattrs()->PackFrom(ext);
   return path;
}

google::protobuf::Any discard() {
   apipb::TrafficRateExtended rate;
   rate.set_rate(0);
   google::protobuf::Any a;
   a.PackFrom(rate);
   return a;
}

grpc::Status add(Stub& stub, apipb::Path const& path, std::string const& lifetime = "",
                 std::string* uuid = nullptr) {
   grpc::ClientContext ctx;
   ctx.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(10));
   if (!lifetime.empty()) ctx.AddMetadata("flowspec-lifetime", lifetime);
   apipb::AddPathRequest req;
   *req.mutable_path() = path;
   apipb::AddPathResponse resp;
   grpc::Status s = stub.AddPath(&ctx, req, &resp);
   if (uuid) *uuid = resp.uuid();
   return s;
}

grpc::Status del(Stub& stub, apipb::Path const* path, std::string const& uuid = "") {
   grpc::ClientContext ctx;
   ctx.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(10));
   apipb::DeletePathRequest req;
   *req.mutable_family() = v4();
   if (path) *req.mutable_path() = *path;
   if (!uuid.empty()) req.set_uuid(uuid);
   apipb::Empty resp;
   return stub.DeletePath(&ctx, req, &resp);
}

// The global ipv4-flowspec table: each destination's prefix and its best path.
std::vector<apipb::Destination> list(Stub& stub) {
   grpc::ClientContext ctx;
   ctx.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(30));
   apipb::ListPathRequest req;
   *req.mutable_family() = v4();
   auto reader = stub.ListPath(&ctx, req);
   std::vector<apipb::Destination> out;
   apipb::ListPathResponse r;
   while (reader->Read(&r)) out.push_back(r.destination());
   grpc::Status s = reader->Finish();
   if (!s.ok()) check(false, "ListPath: " + s.error_message());
   return out;
}

// The prefixes (rule text) listed under 203.0.113.0/24, the test's own range.
std::set<std::string> ours(Stub& stub) {
   std::set<std::string> out;
   for (auto const& d : list(stub)) {
      if (d.prefix().starts_with("203.0.113.")) out.insert(d.prefix());
   }
   return out;
}

std::string show(std::set<std::string> const& s) {
   std::string out = "{";
   for (auto const& x : s) out += (out.size() > 1 ? ", " : "") + x;
   return out + "}";
}

void checkAll(Stub& stub, std::shared_ptr<grpc::Channel> const& channel) {
   // Reconciliation as a controller does it: list, delete what should not be there (with
   // the path as listed), add what is missing.
   auto const a = flowPath("203.0.113.1/32", -1, {discard()});
   auto const b = flowPath("203.0.113.2/32", 6, {discard()});
   auto const c = flowPath("203.0.113.3/32", 17, {discard()});
   check(add(stub, a).ok() && add(stub, b).ok(), "AddPath of two rules");
   std::set<std::string> const before = ours(stub);
   check(before == std::set<std::string>{"203.0.113.1/32;*;", "203.0.113.2/32;*;protocol =6;"},
         "ListPath lists them by their rule text: " + show(before));
   std::set<std::string> const want{"203.0.113.1/32;*;", "203.0.113.3/32;*;protocol =17;"};
   for (auto const& d : list(stub)) {
      if (!d.prefix().starts_with("203.0.113.") || want.contains(d.prefix())) continue;
      for (auto const& p : d.paths()) {
         if (!p.best()) continue;
         grpc::Status s = del(stub, &p);
         check(s.ok(), "DeletePath of the listed path " + d.prefix() + " " + s.error_message());
      }
   }
   if (!before.contains("203.0.113.3/32;*;protocol =17;")) check(add(stub, c).ok(), "AddPath of the missing rule");
   std::set<std::string> const after = ours(stub);
   check(after == want, "reconciled: " + show(after));

   // Deletion by the uuid AddPath answered.
   std::string uuid;
   auto const d = flowPath("203.0.113.4/32", -1, {discard()});
   grpc::Status s = add(stub, d, "", &uuid);
   check(s.ok() && !uuid.empty(), "AddPath answers a uuid");
   s = del(stub, nullptr, uuid);
   check(s.ok() && !ours(stub).contains("203.0.113.4/32;*;"), "DeletePath by uuid " + s.error_message());
   s = del(stub, nullptr, uuid);
   check(s.error_code() == grpc::StatusCode::NOT_FOUND, "DeletePath of that uuid again: NOT_FOUND (" +
                                                            s.error_message() + ")");

   // The refusals: each answered with its code and the reason, and nothing changes.
   struct Bad {
      std::string what;
      apipb::Path path;
      std::string says;
   };
   std::vector<Bad> bad;
   {
      apipb::Path p = flowPath("203.0.113.9/32", -1, {discard()});
      p.mutable_family()->set_safi(apipb::Family::SAFI_UNICAST);
      bad.push_back({"an IPv4 unicast path", p, "family"});
   }
   {
      apipb::Path p = flowPath("203.0.113.9/32", -1, {discard()});
      p.mutable_nlri()->set_value("\x0a\x05garbage-that-does-not-parse");
      bad.push_back({"an NLRI that does not parse", p, ""});
   }
   {
      apipb::UnknownExtended u;
      u.set_type(0x80);
      u.set_value(std::string("\x99\x00\x00\x00\x00\x00\x01", 7));
      google::protobuf::Any any;
      any.PackFrom(u);
      bad.push_back({"a community the agent cannot originate", flowPath("203.0.113.9/32", -1, {any}), ""});
   }
   {
      apipb::Path p = flowPath("203.0.113.9/32", -1, {discard()});
      apipb::FlowSpecNLRI nlri;
      p.nlri().UnpackTo(&nlri);
      apipb::FlowSpecComponent ports;
      ports.set_type(5);
      for (int i = 1000; i < 2345; ++i) {
         auto* item = ports.add_items();
         item->set_op(0x01);
         item->set_value(static_cast<std::uint64_t>(i));
      }
      nlri.add_rules()->PackFrom(ports);
      p.mutable_nlri()->PackFrom(nlri);
      bad.push_back({"a rule too long for an UPDATE", p, "UPDATE would need"});
   }
   {
      apipb::Path p = flowPath("203.0.113.9/32", -1, {discard()});
      p.mutable_nlri()->set_type_url("type.googleapis.com/apipb.IPAddressPrefix");
      bad.push_back({"a unicast NLRI in a flowspec path", p, ""});
   }
   for (auto const& x : bad) {
      s = add(stub, x.path);
      check(s.error_code() == grpc::StatusCode::INVALID_ARGUMENT && !s.error_message().empty() &&
                s.error_message().find(x.says) != std::string::npos,
            x.what + ": INVALID_ARGUMENT \"" + s.error_message() + "\" (code " +
                std::to_string(static_cast<int>(s.error_code())) + ")");
   }
   check(ours(stub) == want, "the refusals changed nothing");

   // A method the agent does not serve.
   {
      grpc::GenericStub generic(channel);
      grpc::ClientContext ctx;
      ctx.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(10));
      grpc::ByteBuffer out;
      std::atomic<bool> done = false;
      grpc::Status got;
      grpc::Slice empty(std::string{});
      grpc::ByteBuffer in(&empty, 1);
      generic.UnaryCall(&ctx, "/apipb.GobgpApi/StartBgp", grpc::StubOptions(), &in, &out, [&](grpc::Status st) {
         got = st;
         done = true;
      });
      while (!done) std::this_thread::sleep_for(std::chrono::milliseconds(5));
      check(got.error_code() == grpc::StatusCode::UNIMPLEMENTED, "StartBgp: UNIMPLEMENTED \"" + got.error_message() +
                                                                    "\"");
   }

   // A lifetime from the call's metadata: the rule goes by itself; a bad one is refused.
   auto const e = flowPath("203.0.113.5/32", -1, {discard()});
   s = add(stub, e, "2s");
   check(s.ok() && ours(stub).contains("203.0.113.5/32;*;"), "AddPath with flowspec-lifetime 2s");
   s = add(stub, flowPath("203.0.113.6/32", -1, {discard()}), "soon");
   check(s.error_code() == grpc::StatusCode::INVALID_ARGUMENT, "flowspec-lifetime \"soon\": " + s.error_message());
   auto const until = std::chrono::steady_clock::now() + std::chrono::seconds(8);
   while (ours(stub).contains("203.0.113.5/32;*;") && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
   }
   check(!ours(stub).contains("203.0.113.5/32;*;"), "the rule withdrew itself when its lifetime ended");

   // A client that goes away in the middle of a stream, then a burst of calls from 8 threads.
   {
      grpc::ClientContext ctx;
      apipb::ListPathRequest req;
      *req.mutable_family() = v4();
      auto reader = stub.ListPath(&ctx, req);
      apipb::ListPathResponse r;
      reader->Read(&r);
      ctx.TryCancel();
   }
   std::atomic<int> okCalls = 0;
   std::mutex errorMutex;
   std::string firstError;
   std::vector<std::thread> threads;
   for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&, t] {
         for (int i = 0; i < 100; ++i) {
            auto const p = flowPath("203.0.113." + std::to_string(100 + t) + "/32", -1, {discard()});
            grpc::Status added = add(stub, p);
            grpc::Status deleted = added.ok() ? del(stub, &p) : added;
            if (deleted.ok()) {
               ++okCalls;
            } else {
               std::lock_guard lock(errorMutex);
               if (firstError.empty()) firstError = deleted.error_message();
            }
         }
      });
   }
   for (auto& t : threads) t.join();
   check(okCalls == 800 && ours(stub) == want, "800 add/delete pairs from 8 threads at once: " +
                                                   std::to_string(okCalls.load()) + " answered " + firstError);

   for (auto const& p : {a, c}) del(stub, &p);
   check(ours(stub).empty(), "the test's rules deleted");
}

apipb::Path benchPath(int i) {
   return flowPath("198.18." + std::to_string(i / 256) + "." + std::to_string(i % 256) + "/32", -1, {discard()});
}

} // namespace

int main(int argc, char** argv) {
   if (argc < 3) {
      std::cerr << "usage: flowspec-api-client check ADDR | add ADDR N | del ADDR N\n";
      return 2;
   }
   std::string const mode = argv[1];
   auto channel = grpc::CreateChannel(argv[2], grpc::InsecureChannelCredentials());
   auto stub = apipb::GobgpApi::NewStub(channel);
   if (mode == "check") {
      checkAll(*stub, channel);
      return failures == 0 ? 0 : 1;
   }
   if ((mode == "add" || mode == "del") && argc == 4) {
      int const n = std::stoi(argv[3]);
      auto const t0 = std::chrono::steady_clock::now();
      for (int i = 0; i < n; ++i) {
         auto const p = benchPath(i);
         grpc::Status s = mode == "add" ? add(*stub, p) : del(*stub, &p);
         if (!s.ok()) {
            std::cerr << mode << " " << i << ": " << s.error_message() << "\n";
            return 1;
         }
      }
      double const secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
      std::printf("%s: %d calls in %.3f s, %.0f calls/s\n", mode.c_str(), n, secs, n / secs);
      return 0;
   }
   std::cerr << "usage: flowspec-api-client check ADDR | add ADDR N | del ADDR N\n";
   return 2;
}
