#include "fwd/FwdCounters.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "fwd/Nft.h"

namespace Fwd {

// The table's counter set, element by element.
std::map<std::uint32_t, Counts> readNftCounters(std::string const& table, std::string* error) {
   std::map<std::uint32_t, Counts> out;
   Nft nft;
   auto const j = nft.listJson("list set inet " + table + " rule_counts", error);
   if (!j || !j->contains("nftables")) return out;
   for (auto const& item : (*j)["nftables"]) {
      if (!item.contains("set") || !item["set"].contains("elem")) continue;
      for (auto const& el : item["set"]["elem"]) {
         if (!el.contains("elem")) continue;
         auto const& e = el["elem"];
         if (!e.contains("val") || !e["val"].is_number_unsigned() || !e.contains("counter")) continue;
         out[e["val"].get<std::uint32_t>()] = {e["counter"].value("packets", std::uint64_t{0}),
                                               e["counter"].value("bytes", std::uint64_t{0})};
      }
   }
   return out;
}

// The XDP program's counters of the given ids, summed over the CPUs.
std::map<std::uint32_t, Counts> readXdpCounters(std::string const& path, std::vector<std::uint32_t> const& ids,
                                                std::string* error) {
   std::map<std::uint32_t, Counts> out;
   int const fd = bpf_obj_get(path.c_str());
   if (fd < 0) {
      *error = "no XDP counters at " + path + ": " + std::strerror(errno);
      return out;
   }
   int const cpus = libbpf_num_possible_cpus();
   std::vector<std::uint64_t> v(2 * static_cast<std::size_t>(std::max(cpus, 1)));
   for (std::uint32_t id : ids) {
      if (bpf_map_lookup_elem(fd, &id, v.data()) != 0) continue;
      Counts c;
      for (std::size_t i = 0; i < v.size(); i += 2) {
         c.packets += v[i];
         c.bytes += v[i + 1];
      }
      out[id] = c;
   }
   ::close(fd);
   return out;
}

} // namespace Fwd
