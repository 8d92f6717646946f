// The agent's Prometheus metrics (metrics-listen): per neighbor the session's state, uptime,
// messages and UPDATEs, the rules it sent us (received, accepted, refused per reason), those
// we sent it, and its rules the full FSIB refused; per family the RIB's rules, paths and
// index memory and the FSIB export's counts; the FSIB's rules, capacity and refusals; the
// originated rules by source and those that expired; the control socket's and the gRPC API's
// requests and errors; the process's memory and start time.
//
// Names follow Prometheus' conventions: the prefix flowspecd_, counters in _total, sizes in
// _bytes, times in _seconds; labels neighbor (the address), family ("ipv4-flowspec"),
// reason, request, method, code. Every label value comes from a small fixed set or from the
// configuration, never from what a peer or a client sends.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "agent/Agent.h"

namespace Flowspecd {

// Calls of one gRPC API method, and its errors by status code name.
struct ApiCallCounts {
   std::uint64_t requests = 0;
   std::map<std::string, std::uint64_t> errors;
};

// The exposition text, made on the agent's thread.
std::string agentMetricsText(Agent const& agent, std::map<std::string, ApiCallCounts> const& api);

} // namespace Flowspecd
