#include "fwd/PolicyRoutes.h"

#include <linux/fib_rules.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

namespace Fwd {

using Ovnet::AddressFamily;

namespace {

// One netlink request built in place: header, fixed part, attributes.
class Request {
 public:
   Request(std::uint16_t type, std::uint16_t flags, void const* fixed, std::size_t fixedLen) {
      nlmsghdr h{};
      h.nlmsg_type = type;
      h.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
      append(&h, sizeof h);
      append(fixed, fixedLen);
   }
   void attr(std::uint16_t type, void const* data, std::size_t len) {
      rtattr a{};
      a.rta_type = type;
      a.rta_len = static_cast<std::uint16_t>(RTA_LENGTH(len));
      append(&a, sizeof a);
      append(data, len);
   }
   void u32(std::uint16_t type, std::uint32_t v) { attr(type, &v, sizeof v); }
   void* data() {
      header().nlmsg_len = static_cast<std::uint32_t>(buf_.size());
      return buf_.data();
   }
   std::size_t size() const { return buf_.size(); }

 private:
   nlmsghdr& header() { return *reinterpret_cast<nlmsghdr*>(buf_.data()); }
   void append(void const* p, std::size_t n) {
      auto const* b = static_cast<unsigned char const*>(p);
      buf_.insert(buf_.end(), b, b + n);
      buf_.resize((buf_.size() + 3) & ~std::size_t{3});
   }
   std::vector<unsigned char> buf_;
};

unsigned char familyOf(AddressFamily af) { return af == AddressFamily::ipv6 ? AF_INET6 : AF_INET; }

// Calls f(header, payload, payload length) for each whole netlink message in [buf, buf + n)
// until f returns false. Headers are copied out, so the buffer needs no alignment.
template <class F>
void forEachMessage(char const* buf, std::size_t n, F f) {
   std::size_t off = 0;
   while (n - off >= sizeof(nlmsghdr)) {
      nlmsghdr h{};
      std::memcpy(&h, buf + off, sizeof h);
      if (h.nlmsg_len < NLMSG_HDRLEN || h.nlmsg_len > n - off) return;
      if (!f(h, buf + off + NLMSG_HDRLEN, std::size_t{h.nlmsg_len} - NLMSG_HDRLEN)) return;
      off += std::min<std::size_t>(NLMSG_ALIGN(h.nlmsg_len), n - off);
   }
}

// Calls f(type, data, length) for each route attribute in [p, p + n).
template <class F>
void forEachAttr(char const* p, std::size_t n, F f) {
   std::size_t off = 0;
   while (n - off >= sizeof(rtattr)) {
      rtattr a{};
      std::memcpy(&a, p + off, sizeof a);
      if (a.rta_len < sizeof a || a.rta_len > n - off) return;
      f(a.rta_type, p + off + RTA_LENGTH(0), std::size_t{a.rta_len} - RTA_LENGTH(0));
      off += std::min<std::size_t>(RTA_ALIGN(a.rta_len), n - off);
   }
}

std::string errorText(int rc) { return rc == 0 ? std::string() : std::strerror(-rc); }

} // namespace

PolicyRoutes::PolicyRoutes(std::uint32_t priority)
    : fd_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)), priority_(priority) {}

PolicyRoutes::~PolicyRoutes() {
   if (fd_ >= 0) ::close(fd_);
}

int PolicyRoutes::talk(void* msg, std::size_t len) {
   if (fd_ < 0) return -EBADF;
   auto* h = static_cast<nlmsghdr*>(msg);
   h->nlmsg_seq = ++seq_;
   h->nlmsg_flags |= NLM_F_ACK;
   if (::send(fd_, msg, len, 0) < 0) return -errno;
   std::array<char, 8192> buf{};
   while (true) {
      ssize_t const n = ::recv(fd_, buf.data(), buf.size(), 0);
      if (n < 0) return -errno;
      std::optional<int> answer;
      forEachMessage(buf.data(), static_cast<std::size_t>(n),
                     [&](nlmsghdr const& mh, char const* body, std::size_t bodyLen) {
                        if (mh.nlmsg_seq != seq_ || mh.nlmsg_type != NLMSG_ERROR || bodyLen < sizeof(int)) return true;
                        int err = 0;
                        std::memcpy(&err, body, sizeof err); // nlmsgerr starts with the error
                        answer = err;
                        return false;
                     });
      if (answer) return *answer;
   }
}

std::string PolicyRoutes::addMarkRule(AddressFamily af, std::uint32_t mark, std::uint32_t table) {
   if (af == AddressFamily::unspecified) {
      std::string e = addMarkRule(AddressFamily::ipv4, mark, table);
      return e.empty() ? addMarkRule(AddressFamily::ipv6, mark, table) : e;
   }
   fib_rule_hdr h{};
   h.family = familyOf(af);
   h.action = FR_ACT_TO_TBL;
   h.table = static_cast<unsigned char>(table < 256 ? table : RT_TABLE_UNSPEC);
   Request r(RTM_NEWRULE, NLM_F_CREATE | NLM_F_EXCL, &h, sizeof h);
   r.u32(FRA_TABLE, table);
   r.u32(FRA_FWMARK, mark);
   r.u32(FRA_FWMASK, 0xffffffffu);
   r.u32(FRA_PRIORITY, priority_);
   int const rc = talk(r.data(), r.size());
   return rc == -EEXIST ? std::string() : errorText(rc);
}

void PolicyRoutes::delMarkRule(AddressFamily af, std::uint32_t mark, std::uint32_t table) {
   for (AddressFamily f : {AddressFamily::ipv4, AddressFamily::ipv6}) {
      if (af != AddressFamily::unspecified && af != f) continue;
      fib_rule_hdr h{};
      h.family = familyOf(f);
      h.action = FR_ACT_TO_TBL;
      h.table = static_cast<unsigned char>(table < 256 ? table : RT_TABLE_UNSPEC);
      Request r(RTM_DELRULE, 0, &h, sizeof h);
      r.u32(FRA_TABLE, table);
      r.u32(FRA_FWMARK, mark);
      r.u32(FRA_FWMASK, 0xffffffffu);
      r.u32(FRA_PRIORITY, priority_);
      (void)talk(r.data(), r.size());
   }
}

unsigned PolicyRoutes::clearMarkRules(std::uint32_t lo, std::uint32_t hi) {
   if (fd_ < 0) return 0;
   unsigned removed = 0;
   for (AddressFamily f : {AddressFamily::ipv4, AddressFamily::ipv6}) {
      // Dump the family's rules, then delete ours by their mark and table.
      struct Found {
         std::uint32_t mark;
         std::uint32_t table;
      };
      std::vector<Found> ours;
      fib_rule_hdr h{};
      h.family = familyOf(f);
      Request req(RTM_GETRULE, NLM_F_DUMP, &h, sizeof h);
      auto* hdr = static_cast<nlmsghdr*>(req.data());
      hdr->nlmsg_seq = ++seq_;
      if (::send(fd_, req.data(), req.size(), 0) < 0) continue;
      std::vector<char> buf(32768);
      bool done = false;
      while (!done) {
         ssize_t const n = ::recv(fd_, buf.data(), buf.size(), 0);
         if (n <= 0) break;
         forEachMessage(
             buf.data(), static_cast<std::size_t>(n), [&](nlmsghdr const& mh, char const* body, std::size_t len) {
                if (mh.nlmsg_type == NLMSG_DONE || mh.nlmsg_type == NLMSG_ERROR) {
                   done = true;
                   return false;
                }
                if (len < sizeof(fib_rule_hdr)) return true;
                fib_rule_hdr rh{};
                std::memcpy(&rh, body, sizeof rh);
                std::optional<std::uint32_t> prio;
                std::optional<std::uint32_t> mark;
                std::uint32_t table = rh.table;
                forEachAttr(body + NLMSG_ALIGN(sizeof rh), len - std::min(len, std::size_t{NLMSG_ALIGN(sizeof rh)}),
                            [&](unsigned short type, char const* data, std::size_t dlen) {
                               std::uint32_t v = 0;
                               if (dlen >= sizeof v) std::memcpy(&v, data, sizeof v);
                               if (type == FRA_PRIORITY) prio = v;
                               if (type == FRA_FWMARK) mark = v;
                               if (type == FRA_TABLE) table = v;
                            });
                if (prio == priority_ && mark && *mark >= lo && *mark <= hi) ours.push_back({*mark, table});
                return true;
             });
      }
      for (Found const& o : ours) {
         delMarkRule(f, o.mark, o.table);
         ++removed;
      }
   }
   return removed;
}

std::string PolicyRoutes::setDefaultRoute(Ovnet::IpGenAddr const& gateway, std::uint32_t table) {
   rtmsg m{};
   m.rtm_family = familyOf(gateway.af());
   m.rtm_table = RT_TABLE_UNSPEC;
   m.rtm_protocol = RTPROT_STATIC;
   m.rtm_scope = RT_SCOPE_UNIVERSE;
   m.rtm_type = RTN_UNICAST;
   Request r(RTM_NEWROUTE, NLM_F_CREATE | NLM_F_REPLACE, &m, sizeof m);
   r.u32(RTA_TABLE, table);
   r.attr(RTA_GATEWAY, gateway.bytes().data(), gateway.bytes().size());
   return errorText(talk(r.data(), r.size()));
}

void PolicyRoutes::delDefaultRoute(AddressFamily af, std::uint32_t table) {
   rtmsg m{};
   m.rtm_family = familyOf(af);
   m.rtm_table = RT_TABLE_UNSPEC;
   m.rtm_scope = RT_SCOPE_NOWHERE;
   Request r(RTM_DELROUTE, 0, &m, sizeof m);
   r.u32(RTA_TABLE, table);
   (void)talk(r.data(), r.size());
}

} // namespace Fwd
