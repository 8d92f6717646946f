// What the controllers' API does to the agent, one call at a time, on the agent's thread.
//
// AddPath and DeletePath of ipv4-flowspec and ipv6-flowspec paths in the global table go
// through Agent::ruleAdd / ruleDelete: the rule is read, checked and refused exactly as
// `flowspec rule add` reads it, and is a run-time rule of source "api" (`rule list` shows
// it, `rule delete` deletes it). A rule's identity (AddPathResponse.uuid, DeletePath by uuid)
// is derived from its family and NLRI. DeletePath with neither a path nor a uuid deletes
// every rule of the family the API added.
//
// ListPath lists the global table of a family, the best path of each rule, a page at a
// time in the family's rule order, so that a large table never holds the loop for long.
// ListPeer and GetBgp answer from the neighbors' state and the configuration.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "agent/Agent.h"
#include "agent/api/ApiPath.h"

namespace Flowspecd::Api {

// Who calls, in which dialect, with which lifetime for the rules it adds.
struct Caller {
   std::string client; // "ipv4:127.0.0.1:40000", as gRPC names the peer
   Dialect dialect;
   std::optional<std::chrono::seconds> lifetime;
};

template <class T>
using Answer = Ovk::Result<T, Refusal>;

Answer<apipb::AddPathResponse> addPath(Agent& agent, apipb::AddPathRequest const& request, Caller const& caller);
Answer<apipb::Empty> deletePath(Agent& agent, apipb::DeletePathRequest const& request, Caller const& caller);

// One page of ListPath: up to `limit` destinations after `cursor` (from the start when it
// holds no key); `cursor` is left on the last key listed, and done once the table has been
// listed whole. The cursor holds its key, so the walk stays valid whatever changes between
// pages; rules that enter before it meanwhile are not listed.
struct ListCursor {
   Ovk::Ptr<RouteKey const> after;
   bool done = false;
};
Answer<std::vector<apipb::ListPathResponse>> listPath(Agent& agent, apipb::ListPathRequest const& request,
                                                      Caller const& caller, ListCursor& cursor, std::size_t limit);
inline constexpr std::size_t kListPageSize = 256;

Answer<std::vector<apipb::ListPeerResponse>> listPeer(Agent& agent, apipb::ListPeerRequest const& request,
                                                      Caller const& caller);
apipb::GetBgpResponse getBgp(Agent& agent);

} // namespace Flowspecd::Api
