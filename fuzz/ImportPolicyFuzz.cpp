// What the trust controls read from outside, under arbitrary input: the first byte picks the
// reader. 0: a prefix range of allowed-destinations, whose canonical text must read back as
// the same range and cover its own prefix at every length it allows; 1: a whole configuration
// file, whose neighbors' policy, limit and security keys must compare equal to themselves;
// 2: the kernel's /proc/net/netstat text; 3: the IP header of a kept SYN.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "agent/Config.h"
#include "agent/TcpSecurity.h"
#include "host/bgp/ImportPolicy.h"

namespace {

void check(bool ok) {
   if (!ok) std::abort();
}

void prefixRange(std::string const& text) {
   auto r = Routing::Bgp::parsePrefixRange(text);
   if (!r) return;
   Routing::Bgp::PrefixRange const& range = r.value();
   auto again = Routing::Bgp::parsePrefixRange(range.str());
   check(again.ok() && again.value() == range);
   check(range.prefix.len() <= range.ge && range.ge <= range.le && range.le <= range.prefix.maxLen());
   for (unsigned len : {unsigned{range.ge}, unsigned{range.le}}) {
      Ovnet::IpGenPrefix p = range.prefix;
      p.maskIs(static_cast<std::uint8_t>(len));
      check(range.covers(p));
   }
}

void configFile(std::string const& text) {
   auto c = Flowspecd::parseConfig(text, "fuzz.toml");
   if (!c) {
      check(!c.reason().empty());
      return;
   }
   for (Flowspecd::NeighborConfig const& n : c.value().neighbors) {
      Flowspecd::NeighborChanges const same = Flowspecd::neighborChanges(n, n);
      check(same.empty() && !same.importChanged);
      check(n.password.size() <= Flowspecd::kMaxPasswordBytes);
      check(!n.maxRules || n.maxRules->maxRules >= 1);
   }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   if (size == 0) return 0;
   std::string const text(reinterpret_cast<char const*>(data) + 1, size - 1);
   switch (data[0] % 4) {
   case 0: prefixRange(text); break;
   case 1: configFile(text); break;
   case 2: {
      auto d = Flowspecd::parseMd5Drops(text);
      check(!d || d->total() >= d->wrong);
      break;
   }
   default: (void)Flowspecd::ttlOfIpHeader(std::span<std::uint8_t const>(data + 1, size - 1)); break;
   }
   return 0;
}
