// Paths of the controllers' gRPC API under arbitrary bytes: the input is an AddPathRequest as
// it arrives on the wire (the server refuses anything longer than its 64 KiB limit first). A
// request that parses must be read into a rule or refused with a reason, never throw; a rule
// read is of a flowspec family, has a match, and reads the same way again, as an addition and
// (without its actions) as a deletion.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "agent/api/ApiPath.h"

namespace {

void check(bool ok) {
   if (!ok) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   using namespace Flowspecd::Api;
   apipb::AddPathRequest request;
   if (!request.ParseFromArray(data, static_cast<int>(size))) return 0;
   auto const rule = ruleOfPath(request.path(), std::nullopt, true);
   if (!rule) {
      check(!rule.reason().message.empty());
      return 0;
   }
   auto const& words = rule.value();
   check(words.family == Routing::Bgp::AfiSafi::ipv4Flowspec() || words.family == Routing::Bgp::AfiSafi::ipv6Flowspec());
   check(!words.match.empty());
   auto const again = ruleOfPath(request.path(), words.family, true);
   check(again && again.value().match == words.match && again.value().then == words.then);
   auto const deletion = ruleOfPath(request.path(), words.family, false);
   check(deletion && deletion.value().match == words.match);
   return 0;
}
