#include "agent/TcpSecurity.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#ifndef IPV6_MINHOPCOUNT
#define IPV6_MINHOPCOUNT 73
#endif

namespace Flowspecd {

namespace {

std::string setInt(int fd, int level, int option, int value, char const* what) {
   if (::setsockopt(fd, level, option, &value, sizeof value) == 0) return {};
   return std::string("cannot set ") + what + ": " + std::strerror(errno);
}

std::vector<std::string_view> words(std::string_view line) {
   std::vector<std::string_view> out;
   for (std::size_t i = 0; i < line.size();) {
      if (line[i] == ' ') {
         ++i;
         continue;
      }
      std::size_t const end = std::min(line.find(' ', i), line.size());
      out.push_back(line.substr(i, end - i));
      i = end;
   }
   return out;
}

} // namespace

std::string md5KeyIs(int fd, Ovnet::IpGenAddr const& peer, std::string_view key) {
   tcp_md5sig sig{};
   if (key.size() > sizeof sig.tcpm_key) return "cannot set the TCP MD5 key: longer than the kernel takes";
   if (peer.isIpv4()) {
      auto* in = reinterpret_cast<sockaddr_in*>(&sig.tcpm_addr);
      in->sin_family = AF_INET;
      std::memcpy(&in->sin_addr, peer.bytes().data(), 4);
   } else {
      auto* in6 = reinterpret_cast<sockaddr_in6*>(&sig.tcpm_addr);
      in6->sin6_family = AF_INET6;
      std::memcpy(&in6->sin6_addr, peer.bytes().data(), 16);
   }
   sig.tcpm_keylen = static_cast<std::uint16_t>(key.size());
   std::memcpy(sig.tcpm_key, key.data(), key.size());
   if (::setsockopt(fd, IPPROTO_TCP, TCP_MD5SIG, &sig, sizeof sig) == 0) return {};
   // Removing a key that is not there is no failure.
   if (key.empty() && errno == ENOENT) return {};
   return std::string("cannot set the TCP MD5 key of ") + peer.str() + ": " + std::strerror(errno);
}

std::string ttlSecurityIs(int fd, bool v6, TcpSecurity const& s) {
   if (!s.ttlSecurity) return {};
   std::string why = v6 ? setInt(fd, IPPROTO_IPV6, IPV6_UNICAST_HOPS, 255, "the hop limit")
                        : setInt(fd, IPPROTO_IP, IP_TTL, 255, "the TTL");
   if (why.empty()) {
      why = v6 ? setInt(fd, IPPROTO_IPV6, IPV6_MINHOPCOUNT, s.minimumTtl(), "the minimum hop limit")
               : setInt(fd, IPPROTO_IP, IP_MINTTL, s.minimumTtl(), "the minimum TTL");
   }
   return why;
}

std::string listenerTtlSecurityIs(int fd, bool v6, bool on) {
   // -1 is the system's default TTL.
   std::string why = v6 ? setInt(fd, IPPROTO_IPV6, IPV6_UNICAST_HOPS, on ? 255 : -1, "the hop limit")
                        : setInt(fd, IPPROTO_IP, IP_TTL, on ? 255 : -1, "the TTL");
   if (why.empty()) why = setInt(fd, IPPROTO_TCP, TCP_SAVE_SYN, on ? 1 : 0, "TCP_SAVE_SYN");
   return why;
}

std::optional<std::uint8_t> savedSynTtl(int fd) {
   // The IP header and the TCP header with its options: at most 40 + 60 for IPv6.
   std::array<std::uint8_t, 512> buffer{};
   socklen_t len = buffer.size();
   if (::getsockopt(fd, IPPROTO_TCP, TCP_SAVED_SYN, buffer.data(), &len) != 0 || len == 0) return std::nullopt;
   return ttlOfIpHeader(std::span<std::uint8_t const>(buffer.data(), std::min<std::size_t>(len, buffer.size())));
}

std::optional<std::uint8_t> ttlOfIpHeader(std::span<std::uint8_t const> header) {
   if (header.empty()) return std::nullopt;
   unsigned const version = header[0] >> 4;
   // IPv4: the TTL is byte 8 of a header of at least 20 bytes; IPv6: the hop limit is byte
   // 7 of its 40.
   if (version == 4 && header.size() >= 20) return header[8];
   if (version == 6 && header.size() >= 40) return header[7];
   return std::nullopt;
}

std::optional<Md5Drops> readMd5Drops(std::string const& path) {
   std::ifstream in(path);
   if (!in) return std::nullopt;
   std::ostringstream text;
   text << in.rdbuf();
   return parseMd5Drops(text.str());
}

std::optional<Md5Drops> parseMd5Drops(std::string_view netstat) {
   // Lines come in pairs of one prefix: the names, then the values.
   std::vector<std::string_view> names;
   std::size_t pos = 0;
   while (pos < netstat.size()) {
      std::size_t const end = std::min(netstat.find('\n', pos), netstat.size());
      std::string_view const line = netstat.substr(pos, end - pos);
      pos = end + 1;
      if (line.rfind("TcpExt:", 0) != 0) continue;
      std::vector<std::string_view> w = words(line.substr(7));
      if (names.empty()) {
         names = std::move(w);
         continue;
      }
      if (w.size() != names.size()) return std::nullopt;
      Md5Drops d;
      int found = 0;
      for (std::size_t i = 0; i < names.size(); ++i) {
         std::uint64_t* const into = names[i] == "TCPMD5Failure"      ? &d.wrong
                                     : names[i] == "TCPMD5NotFound"   ? &d.missing
                                     : names[i] == "TCPMD5Unexpected" ? &d.unexpected
                                                                      : nullptr;
         if (!into) continue;
         auto const [p, ec] = std::from_chars(w[i].data(), w[i].data() + w[i].size(), *into);
         if (ec != std::errc() || p != w[i].data() + w[i].size()) return std::nullopt;
         ++found;
      }
      return found == 3 ? std::optional<Md5Drops>(d) : std::nullopt;
   }
   return std::nullopt;
}

} // namespace Flowspecd
