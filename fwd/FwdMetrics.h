// flowspec-fwd's Prometheus metrics (--metrics-listen): for every FSIB rule the dataplane
// knows, its packets and bytes and whether it is installed, labelled by the rule's text;
// and the program's own health: the dataplane, the FSIB generation programmed, the rules and
// those installed, the changes applied and refused, the last change's duration, counter
// reads that failed, memory and start time.
//
// Threads: the follower (Forwarder) publishes each install status it writes, and counts its
// changes, from its own thread (publish, applied); a scrape renders on the metrics server's
// thread from the last published statuses, reading the counts from the kernel itself. The
// two meet under one mutex, held only to copy.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "fwd/Backend.h"

namespace Fwd {

class FwdMetrics {
 public:
   // `table` is the dataplane's name (nftables table, XDP pin directory under `pinRoot`).
   FwdMetrics(std::string table, std::string pinRoot);

   // The statuses of `dataplane` ("inet NAME", "xdp NAME") at `generation`.
   void publish(std::string const& dataplane, std::uint64_t generation, std::vector<RuleStatus> statuses);
   // One change handed to the dataplane, and what it made of it.
   void applied(ApplyReport const& report);

   // The exposition text.
   std::string render();

 private:
   std::string table_;
   std::string pinRoot_;
   std::chrono::system_clock::time_point started_ = std::chrono::system_clock::now();
   std::mutex mutex_;
   std::string dataplane_;
   std::uint64_t generation_ = 0;
   std::shared_ptr<std::vector<RuleStatus> const> statuses_ = std::make_shared<std::vector<RuleStatus> const>();
   std::uint64_t applies_ = 0;
   std::uint64_t failures_ = 0;
   double lastApplySeconds_ = 0;
   std::uint64_t counterErrors_ = 0;
};

} // namespace Fwd
