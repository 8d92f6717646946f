// `flowspec-fwd --show`: every FSIB rule in precedence order with its install status and its
// packets and bytes. Runs beside the daemon: the rules come from the FSIB, the status from
// the status file the daemon writes (FwdStatus.h), the counts from the kernel: the nftables
// table's counter set, or the XDP program's per-CPU counter map (pinned under the pin root),
// summed over the CPUs; the status file says which dataplane holds the rules.
//
// A rule the status file does not know (the daemon has not reached the FSIB's generation,
// or none runs) shows as not installed with that said. Counts are 0 when the kernel has no
// such table.
#pragma once

#include <iosfwd>
#include <string>

namespace Fwd {

struct ShowOptions {
   std::string segment; // the FSIB segment name
   std::string table = "flowspec";
   std::string statusFile;
   std::string pinRoot = "/sys/fs/bpf/flowspec";
   bool xdp = false; // the dataplane when no status file says
   bool json = false;
};

// Prints the listing to `out`, problems to `err`. Returns 0, or 1 when the FSIB cannot be
// read.
int showRules(ShowOptions const& opt, std::ostream& out, std::ostream& err);

} // namespace Fwd
