// The policy routing behind redirects, over rtnetlink: an `ip rule` per firewall mark that
// sends marked packets to a routing table, and a default route via a redirect address in a
// table of ours.
//
// Rules are recognised as ours by their priority and a mark in our range, so that a restart
// can remove what an earlier run left. Errors come back as the kernel's text (strerror of
// its answer); nothing here throws.
#pragma once

#include <cstdint>
#include <string>

#include "host/net/IpGenAddr.h"

namespace Fwd {

class PolicyRoutes {
 public:
   // `priority`: the preference of every rule we add (lower runs first).
   explicit PolicyRoutes(std::uint32_t priority);
   ~PolicyRoutes();
   PolicyRoutes(PolicyRoutes const&) = delete;
   PolicyRoutes& operator=(PolicyRoutes const&) = delete;

   // `ip rule add fwmark MARK lookup TABLE pref PRIORITY` for the family (both when
   // unspecified). An identical rule already there counts as success. Empty on success,
   // else the kernel's reason.
   std::string addMarkRule(Ovnet::AddressFamily af, std::uint32_t mark, std::uint32_t table);
   void delMarkRule(Ovnet::AddressFamily af, std::uint32_t mark, std::uint32_t table);
   // Removes every rule at our priority whose mark lies in [lo, hi]; returns how many.
   unsigned clearMarkRules(std::uint32_t lo, std::uint32_t hi);

   // `ip route replace default via GATEWAY table TABLE`. Empty on success, else the reason.
   std::string setDefaultRoute(Ovnet::IpGenAddr const& gateway, std::uint32_t table);
   void delDefaultRoute(Ovnet::AddressFamily af, std::uint32_t table);

 private:
   int talk(void* msg, std::size_t len); // 0 or -errno
   int fd_ = -1;
   std::uint32_t seq_ = 0;
   std::uint32_t priority_;
};

} // namespace Fwd
