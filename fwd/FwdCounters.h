// The packets and bytes of each rule, as the kernel counts them: the nftables table's
// counter set, or the XDP program's per-CPU counter map summed over the CPUs. Read by
// `flowspec-fwd --show` and the metrics, beside the running dataplane (any thread: each read
// opens its own handle).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Fwd {

struct Counts {
   std::uint64_t packets = 0;
   std::uint64_t bytes = 0;
};

// The counter set of the nftables table `table`, element by element; empty with `error` set
// when it cannot be read.
std::map<std::uint32_t, Counts> readNftCounters(std::string const& table, std::string* error);
// The XDP counters of `ids` in the map pinned at `path`; empty with `error` set when the map
// cannot be opened.
std::map<std::uint32_t, Counts> readXdpCounters(std::string const& path, std::vector<std::uint32_t> const& ids,
                                                std::string* error);

} // namespace Fwd
