// Ethernet frames from a line of text, for the dataplane tests (BPF_PROG_TEST_RUN and
// frames written onto a veth):
//
//   [v6] [SRC>]DST PROTO [SPORT>DPORT] [flags=N] [icmp=TYPE/CODE] [dscp=N] [len=N]
//        [df] [mf] [off=N] [frag=atomic|first|middle|last] [label=N]
//
// PROTO is tcp, udp, icmp (ICMPv6 in v6 frames) or a number. `len` is the whole IP packet
// (the payload is padded to it); `off` the IPv4 fragment offset in 8-byte units; `frag` an
// IPv6 Fragment header of that kind. Checksums of the IPv4 header are right, the others 0.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace Fwd::Test {

struct PacketSpec {
   bool v6 = false;
   std::string src;
   std::string dst;
   unsigned proto = 17;
   unsigned sport = 1000;
   unsigned dport = 2000;
   unsigned flags = 0x10;
   unsigned icmpType = 8;
   unsigned icmpCode = 0;
   unsigned dscp = 0;
   unsigned length = 0; // 0: headers and 18 bytes of payload
   bool df = false;
   bool mf = false;
   unsigned offset = 0;
   std::string frag6; // empty: no Fragment header
   unsigned label = 0;
};

inline PacketSpec packetSpec(std::string const& text) {
   PacketSpec p;
   std::istringstream in(text);
   std::vector<std::string> w;
   for (std::string s; in >> s;) w.push_back(s);
   std::size_t i = 0;
   if (i < w.size() && w[i] == "v6") {
      p.v6 = true;
      ++i;
   }
   std::string const addrs = i < w.size() ? w[i++] : "";
   if (auto gt = addrs.find('>'); gt != std::string::npos) {
      p.src = addrs.substr(0, gt);
      p.dst = addrs.substr(gt + 1);
   } else {
      p.dst = addrs;
   }
   if (p.src.empty()) p.src = p.v6 ? "2001:db8:ffff::9" : "192.0.2.9";
   std::string const proto = i < w.size() ? w[i++] : "udp";
   p.proto = proto == "tcp" ? 6u : proto == "udp" ? 17u : proto == "icmp" ? (p.v6 ? 58u : 1u) : static_cast<unsigned>(std::stoul(proto));
   for (; i < w.size(); ++i) {
      std::string const& s = w[i];
      auto const num = [&s](std::size_t at) { return static_cast<unsigned>(std::stoul(s.substr(at), nullptr, 0)); };
      if (auto gt = s.find('>'); gt != std::string::npos && std::isdigit(static_cast<unsigned char>(s[0]))) {
         p.sport = static_cast<unsigned>(std::stoul(s.substr(0, gt)));
         p.dport = static_cast<unsigned>(std::stoul(s.substr(gt + 1)));
      } else if (s.starts_with("flags=")) {
         p.flags = num(6);
      } else if (s.starts_with("icmp=")) {
         p.icmpType = static_cast<unsigned>(std::stoul(s.substr(5)));
         p.icmpCode = static_cast<unsigned>(std::stoul(s.substr(s.find('/') + 1)));
      } else if (s.starts_with("dscp=")) {
         p.dscp = num(5);
      } else if (s.starts_with("len=")) {
         p.length = num(4);
      } else if (s == "df") {
         p.df = true;
      } else if (s == "mf") {
         p.mf = true;
      } else if (s.starts_with("off=")) {
         p.offset = num(4);
      } else if (s.starts_with("frag=")) {
         p.frag6 = s.substr(5);
      } else if (s.starts_with("label=")) {
         p.label = num(6);
      }
   }
   return p;
}

inline std::uint16_t ipv4Checksum(std::uint8_t const* h, std::size_t n) {
   std::uint32_t sum = 0;
   for (std::size_t i = 0; i + 1 < n; i += 2) sum += static_cast<std::uint32_t>(h[i] << 8 | h[i + 1]);
   while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
   return static_cast<std::uint16_t>(~sum);
}

// The frame; `l3` receives the offset of the IP header (always 14).
inline std::vector<std::uint8_t> frameOf(PacketSpec const& p) {
   std::vector<std::uint8_t> f = {0x02, 0, 0, 0, 0, 1, 0x02, 0, 0, 0, 0, 2, 0, 0};
   f[12] = p.v6 ? 0x86 : 0x08;
   f[13] = p.v6 ? 0xdd : 0x00;
   auto const put16 = [&f](std::size_t at, unsigned v) {
      f[at] = static_cast<std::uint8_t>(v >> 8);
      f[at + 1] = static_cast<std::uint8_t>(v);
   };
   std::size_t const l3 = 14;
   bool const laterFragment = p.v6 ? (p.frag6 == "middle" || p.frag6 == "last") : p.offset != 0;
   std::vector<std::uint8_t> l4;
   if (p.proto == 6) {
      l4.assign(20, 0);
      l4[12] = static_cast<std::uint8_t>(0x50 | ((p.flags >> 8) & 0x0f));
      l4[13] = static_cast<std::uint8_t>(p.flags);
   } else if (p.proto == 1 || p.proto == 58) {
      l4.assign(8, 0);
      l4[0] = static_cast<std::uint8_t>(p.icmpType);
      l4[1] = static_cast<std::uint8_t>(p.icmpCode);
   } else {
      l4.assign(8, 0);
   }
   if (p.proto == 6 || p.proto == 17) {
      l4[0] = static_cast<std::uint8_t>(p.sport >> 8);
      l4[1] = static_cast<std::uint8_t>(p.sport);
      l4[2] = static_cast<std::uint8_t>(p.dport >> 8);
      l4[3] = static_cast<std::uint8_t>(p.dport);
   }
   if (laterFragment) l4.assign(l4.size(), 0x5a); // payload bytes, not a header
   std::size_t const fragHdr = p.v6 && !p.frag6.empty() ? 8 : 0;
   std::size_t const ipHdr = p.v6 ? 40 : 20;
   std::size_t total = ipHdr + fragHdr + l4.size() + 18;
   if (p.length != 0) total = std::max<std::size_t>(p.length, ipHdr + fragHdr + l4.size());
   f.resize(l3 + total, 0);
   std::uint8_t* ip = f.data() + l3;
   if (!p.v6) {
      ip[0] = 0x45;
      ip[1] = static_cast<std::uint8_t>(p.dscp << 2);
      put16(l3 + 2, static_cast<unsigned>(total));
      put16(l3 + 6, (p.df ? 0x4000u : 0) | (p.mf ? 0x2000u : 0) | (p.offset & 0x1fff));
      ip[8] = 64;
      ip[9] = static_cast<std::uint8_t>(p.proto);
      inet_pton(AF_INET, p.src.c_str(), ip + 12);
      inet_pton(AF_INET, p.dst.c_str(), ip + 16);
      put16(l3 + 10, ipv4Checksum(ip, 20));
   } else {
      std::uint32_t const w0 = 6u << 28 | (p.dscp << 2) << 20 | (p.label & 0xfffff);
      for (int i = 0; i < 4; ++i) ip[i] = static_cast<std::uint8_t>(w0 >> (24 - 8 * i));
      put16(l3 + 4, static_cast<unsigned>(total - 40));
      ip[6] = static_cast<std::uint8_t>(fragHdr != 0 ? 44 : p.proto);
      ip[7] = 64;
      inet_pton(AF_INET6, p.src.c_str(), ip + 8);
      inet_pton(AF_INET6, p.dst.c_str(), ip + 24);
      if (fragHdr != 0) {
         std::uint8_t* fh = ip + 40;
         fh[0] = static_cast<std::uint8_t>(p.proto);
         unsigned const off = p.frag6 == "middle" || p.frag6 == "last" ? 100 : 0;
         bool const more = p.frag6 == "first" || p.frag6 == "middle";
         unsigned const v = off << 3 | (more ? 1u : 0u);
         fh[2] = static_cast<std::uint8_t>(v >> 8);
         fh[3] = static_cast<std::uint8_t>(v);
         fh[7] = 1;
      }
   }
   std::copy(l4.begin(), l4.end(), f.begin() + static_cast<std::ptrdiff_t>(l3 + ipHdr + fragHdr));
   return f;
}

inline std::vector<std::vector<std::uint8_t>> framesOf(std::string const& lines) {
   std::vector<std::vector<std::uint8_t>> out;
   std::istringstream in(lines);
   for (std::string l; std::getline(in, l, ';');) {
      if (l.find_first_not_of(' ') != std::string::npos) out.push_back(frameOf(packetSpec(l)));
   }
   return out;
}

} // namespace Fwd::Test
