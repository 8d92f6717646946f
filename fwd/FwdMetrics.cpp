#include "fwd/FwdMetrics.h"

#include <fstream>
#include <map>
#include <unistd.h>

#include "fwd/FwdCounters.h"
#include "host/metrics/PromText.h"

namespace Fwd {

FwdMetrics::FwdMetrics(std::string table, std::string pinRoot) : table_(std::move(table)), pinRoot_(std::move(pinRoot)) {}

void FwdMetrics::publish(std::string const& dataplane, std::uint64_t generation, std::vector<RuleStatus> statuses) {
   auto s = std::make_shared<std::vector<RuleStatus> const>(std::move(statuses));
   std::lock_guard lock(mutex_);
   dataplane_ = dataplane;
   generation_ = generation;
   statuses_ = std::move(s);
}

void FwdMetrics::applied(ApplyReport const& report) {
   std::lock_guard lock(mutex_);
   ++applies_;
   if (!report.ok) ++failures_;
   lastApplySeconds_ = (report.prepareMs + report.nftMs) / 1000.0;
}

std::string FwdMetrics::render() {
   std::string dataplane;
   std::uint64_t generation = 0;
   std::shared_ptr<std::vector<RuleStatus> const> statuses;
   std::uint64_t applies = 0;
   std::uint64_t failures = 0;
   double lastApply = 0;
   {
      std::lock_guard lock(mutex_);
      dataplane = dataplane_;
      generation = generation_;
      statuses = statuses_;
      applies = applies_;
      failures = failures_;
      lastApply = lastApplySeconds_;
   }
   auto const t0 = std::chrono::steady_clock::now();
   std::string error;
   std::map<std::uint32_t, Counts> counts;
   if (dataplane.starts_with("xdp ")) {
      std::vector<std::uint32_t> ids;
      ids.reserve(statuses->size());
      for (RuleStatus const& r : *statuses) {
         if (r.counterId != 0) ids.push_back(r.counterId);
      }
      counts = readXdpCounters(pinRoot_ + "/" + table_ + "/fs_counters", ids, &error);
   } else if (!dataplane.empty()) {
      counts = readNftCounters(table_, &error);
   }
   double const readSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
   std::uint64_t counterErrors = 0;
   {
      std::lock_guard lock(mutex_);
      if (!error.empty()) ++counterErrors_;
      counterErrors = counterErrors_;
   }

   Ovk::PromText m;
   m.reserve(200 * statuses->size() * 3 + 4096);
   std::vector<std::string> keys;
   keys.reserve(statuses->size());
   for (RuleStatus const& r : *statuses) keys.push_back(r.key.toStrepCli());
   auto countOf = [&](RuleStatus const& r) {
      auto const it = r.counterId != 0 ? counts.find(r.counterId) : counts.end();
      return it == counts.end() ? Counts{} : it->second;
   };
   m.family("flowspec_fwd_rule_packets_total", "counter", "Packets that matched the FSIB rule.");
   for (std::size_t i = 0; i < keys.size(); ++i) {
      m.sample("flowspec_fwd_rule_packets_total", {{"rule", keys[i]}}, countOf((*statuses)[i]).packets);
   }
   m.family("flowspec_fwd_rule_bytes_total", "counter", "Bytes of the packets that matched the FSIB rule.");
   for (std::size_t i = 0; i < keys.size(); ++i) {
      m.sample("flowspec_fwd_rule_bytes_total", {{"rule", keys[i]}}, countOf((*statuses)[i]).bytes);
   }
   m.family("flowspec_fwd_rule_installed", "gauge",
            "1 when the FSIB rule is in the dataplane (or never matches), 0 when it could not be installed.");
   for (std::size_t i = 0; i < keys.size(); ++i) {
      m.sample("flowspec_fwd_rule_installed", {{"rule", keys[i]}}, std::uint64_t{(*statuses)[i].installed});
   }

   std::uint64_t installed = 0;
   for (RuleStatus const& r : *statuses) installed += r.installed ? 1u : 0u;
   m.family("flowspec_fwd_info", "gauge", "The dataplane that holds the rules (always 1).");
   m.sample("flowspec_fwd_info", {{"dataplane", dataplane.empty() ? "none" : dataplane}}, std::uint64_t{1});
   m.family("flowspec_fwd_programmed_generation", "gauge", "The FSIB generation the dataplane holds.");
   m.sample("flowspec_fwd_programmed_generation", generation);
   m.family("flowspec_fwd_rules", "gauge", "FSIB rules the dataplane knows.");
   m.sample("flowspec_fwd_rules", std::uint64_t{statuses->size()});
   m.family("flowspec_fwd_rules_installed", "gauge", "Of them, those installed.");
   m.sample("flowspec_fwd_rules_installed", installed);
   m.family("flowspec_fwd_changes_total", "counter", "FSIB changes handed to the dataplane.");
   m.sample("flowspec_fwd_changes_total", applies);
   m.family("flowspec_fwd_change_failures_total", "counter", "Changes the kernel refused.");
   m.sample("flowspec_fwd_change_failures_total", failures);
   m.family("flowspec_fwd_last_change_duration_seconds", "gauge", "Time the last change took to prepare and apply.");
   m.sample("flowspec_fwd_last_change_duration_seconds", lastApply);
   m.family("flowspec_fwd_stats_read_duration_seconds", "gauge", "Time this scrape took to read the rules' packet and byte counts.");
   m.sample("flowspec_fwd_stats_read_duration_seconds", readSeconds);
   m.family("flowspec_fwd_stats_read_errors_total", "counter", "Scrapes whose packet and byte counts could not be read.");
   m.sample("flowspec_fwd_stats_read_errors_total", counterErrors);
   std::ifstream statm("/proc/self/statm");
   std::uint64_t size = 0;
   std::uint64_t resident = 0;
   statm >> size >> resident;
   m.family("process_resident_memory_bytes", "gauge", "Resident memory of flowspec-fwd.");
   m.sample("process_resident_memory_bytes", resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE)));
   m.family("process_start_time_seconds", "gauge", "When flowspec-fwd started, in seconds since the epoch.");
   m.sample("process_start_time_seconds", std::chrono::duration<double>(started_.time_since_epoch()).count());
   return m.take();
}

} // namespace Fwd
