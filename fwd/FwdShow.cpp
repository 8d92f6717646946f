#include "fwd/FwdShow.h"
#include "host/fwk/JsonText.h"

#include <map>
#include <ostream>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <nlohmann/json.hpp>

#include "fwd/FwdCounters.h"
#include "fwd/FwdStatus.h"
#include "fwd/Nft.h"
#include "host/mnemo/SlateRuleSetReader.h"

namespace Fwd {

int showRules(ShowOptions const& opt, std::ostream& out, std::ostream& err) {
   auto rd = Mnemo::SlateRuleSetReader::open(opt.segment);
   if (!rd) {
      err << "flowspec-fwd: cannot read the FSIB segment " << opt.segment << ": " << Mnemo::toStrep(rd.reason())
          << '\n';
      return 1;
   }
   Mnemo::SlateSnapshot const snap = rd.value().snapshot();
   std::string statusError;
   std::optional<StatusFile> const status = readStatusFile(opt.statusFile, &statusError);
   std::string const dataplane = status && !status->table.empty() ? status->table
                                 : opt.xdp                         ? "xdp " + opt.table
                                                                   : "inet " + opt.table;
   bool const xdp = dataplane.starts_with("xdp ");
   std::string counterError;
   std::map<std::uint32_t, Counts> counts;
   if (xdp) {
      std::vector<std::uint32_t> ids;
      if (status) {
         for (auto const& [k, e] : status->rules) {
            if (e.counterId != 0) ids.push_back(e.counterId);
         }
      }
      counts = readXdpCounters(opt.pinRoot + "/" + opt.table + "/fs_counters", ids, &counterError);
   } else {
      counts = readNftCounters(opt.table, &counterError);
   }
   std::string const what = xdp ? dataplane : "table " + dataplane;

   nlohmann::json rules = nlohmann::json::array();
   for (Flowspec::Rule const& r : snap.rules) {
      std::string const key = r.key.toStrepCli();
      StatusEntry e;
      if (!status) {
         e.reason = "flowspec-fwd has not programmed " + what + " (" + statusError + ")";
      } else if (auto it = status->rules.find(key); it != status->rules.end()) {
         e = it->second;
      } else {
         e.reason = "not programmed yet (" + what + " holds generation " +
                    std::to_string(status->generation) + ", the FSIB is at " + std::to_string(snap.generation) + ")";
      }
      Counts c;
      if (e.counterId != 0) {
         if (auto it = counts.find(e.counterId); it != counts.end()) c = it->second;
      }
      rules.push_back({{"key", key},
                       {"installed", e.installed},
                       {"reason", e.reason.empty() ? nlohmann::json(nullptr) : nlohmann::json(e.reason)},
                       {"packets", c.packets},
                       {"bytes", c.bytes}});
   }
   if (opt.json) {
      nlohmann::json j;
      j["rules"] = std::move(rules);
      j["table"] = dataplane;
      j["fsibGeneration"] = snap.generation;
      j["programmedGeneration"] = status ? nlohmann::json(status->generation) : nlohmann::json(nullptr);
      j["fsibConverged"] = snap.converged;
      if (status) {
         FollowCounters const& f = status->follow;
         j["follow"] = {{"added", f.added},   {"changed", f.changed},     {"removed", f.removed},
                        {"holds", f.holds},   {"fullInstalls", f.fullInstalls}, {"unchanged", f.unchanged},
                        {"holding", f.holding}};
      }
      out << Ovk::jsonText(j, 2) << '\n';
      return 0;
   }
   out << what << ": FSIB generation " << snap.generation << ", programmed generation "
       << (status ? std::to_string(status->generation) : std::string("none")) << '\n';
   if (status) {
      FollowCounters const& f = status->follow;
      out << "followed: " << f.added << " added, " << f.changed << " changed, " << f.removed << " removed, "
          << f.fullInstalls << " full installs, " << f.holds << " writer restarts waited out\n";
      if (f.holding) out << "holding: the FSIB's writer is rebuilding it; rules missing from it stay programmed\n";
   }
   if (!counterError.empty()) out << "counters: " << counterError << '\n';
   for (auto const& r : rules) {
      out << r["key"].get<std::string>() << "\n    " << (r["installed"].get<bool>() ? "installed" : "not installed");
      if (r["reason"].is_string()) out << ": " << r["reason"].get<std::string>();
      out << "\n    packets " << r["packets"].get<std::uint64_t>() << "  bytes " << r["bytes"].get<std::uint64_t>()
          << '\n';
   }
   return 0;
}

} // namespace Fwd
