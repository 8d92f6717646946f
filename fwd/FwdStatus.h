// The install status flowspec-fwd leaves for `flowspec-fwd --show`: a small JSON file the
// running instance rewrites (to a temporary name, then renamed over, so a reader never sees
// half of it) after every transaction.
//
//   {"table": "inet NAME" or "xdp NAME" (the dataplane), "segment": "/PREFIX.routing.bgp.flowspec", "generation": G,
//    "pid": PID, "rules": [{"key": TEXT, "installed": BOOL, "reason": TEXT|null,
//                           "counter": ID}],
//    "follow": {"added", "changed", "removed", "fullInstalls", "holds", "unchanged", "holding"}}
//
// `generation` is the FSIB generation the table holds; `counter` the rule's element in the
// table's counter set, or the XDP program's counter map. Counts themselves are read from the kernel by --show, never stored.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fwd/FwdTable.h"

namespace Fwd {

// What the follower handed the dataplane over the process's life (Forwarder.h).
struct FollowCounters {
   std::uint64_t added = 0;        // rules new to the dataplane
   std::uint64_t changed = 0;      // rules it held, handed again with other fields
   std::uint64_t removed = 0;      // rules taken out of it
   std::uint64_t fullInstalls = 0; // whole dataplanes handed over (start, new segment)
   std::uint64_t holds = 0;        // times the FSIB's writer rebuilt it and the dataplane waited
   std::uint64_t unchanged = 0;    // FSIB changes that left a rule as the dataplane has it
   bool holding = false;           // waiting now: rules missing from the FSIB are kept
   friend bool operator==(FollowCounters const&, FollowCounters const&) = default;
};

struct StatusEntry {
   bool installed = false;
   std::string reason;
   std::uint32_t counterId = 0;
};

struct StatusFile {
   std::string table;
   std::string segment;
   std::uint64_t generation = 0;
   std::uint32_t pid = 0;
   std::map<std::string, StatusEntry> rules; // by rule text
   FollowCounters follow;
};

// The default place: /run/flowspec-fwd/TABLE.json.
std::string defaultStatusPath(std::string const& table);

// Writes the file (creating its directory); false with `error` set when it cannot, or when
// another user could swap it (Ovk::pathTrustProblem: a link, or a directory on the way that
// others may write), which is then not written.
bool writeStatusFile(std::string const& path, std::string const& table, std::string const& segment,
                     std::uint64_t generation, std::vector<RuleStatus> const& rules, std::string* error,
                     FollowCounters const& follow = {});
// Reads it; empty with `error` set when it is missing or not such a file.
std::optional<StatusFile> readStatusFile(std::string const& path, std::string* error);

} // namespace Fwd
