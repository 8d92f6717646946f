// TCP MD5 signatures (RFC 2385) and the generalized TTL security mechanism (GTSM, RFC 5082)
// on the agent's sockets, and what the kernel counts of the segments it drops for them.
//
// MD5 keys are per peer address on a socket (TCP_MD5SIG): a connecting socket gets its
// neighbor's key before it connects; a listening socket holds the key of every neighbor of
// its family, and a connection it accepts takes its peer's key from it. The kernel drops
// every segment whose signature is wrong or missing, so a session with a wrong password is
// silence on the wire; what the agent can tell is the kernel's count of such drops
// (readMd5Drops).
//
// GTSM: a session socket sends with TTL (IPv6: hop limit) 255 and drops segments that
// arrive with less than 255 minus the hops (IP_MINTTL, IPV6_MINHOPCOUNT). A listener serves
// neighbors with and without it, so it gets no minimum: it sends its SYN-ACKs with 255 and
// keeps each SYN (TCP_SAVE_SYN), whose TTL the agent checks before it takes the connection
// (savedSynTtl); the accepted socket then gets the minimum for the rest of the session.
//
// Every setter returns "" or the reason it failed (the system's message).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "host/net/IpGenAddr.h"

namespace Flowspecd {

// What a session's TCP connection is held to.
struct TcpSecurity {
   std::string password; // the MD5 key; empty: none
   bool ttlSecurity = false;
   std::uint8_t ttlSecurityHops = 0;
   // The lowest TTL a segment of the session may arrive with.
   std::uint8_t minimumTtl() const { return static_cast<std::uint8_t>(255 - ttlSecurityHops); }
   friend bool operator==(TcpSecurity const&, TcpSecurity const&) = default;
};

// Sets the MD5 key of `peer`'s segments on socket `fd` (of the peer's family); an empty key
// removes it.
std::string md5KeyIs(int fd, Ovnet::IpGenAddr const& peer, std::string_view key);
// A session socket: TTL 255 and the minimum of `s`, when `s` asks for GTSM.
std::string ttlSecurityIs(int fd, bool v6, TcpSecurity const& s);
// A listener: SYN-ACKs sent with TTL 255 and each SYN kept (on), or neither (off).
std::string listenerTtlSecurityIs(int fd, bool v6, bool on);
// The TTL (IPv4) or hop limit (IPv6) of the SYN that opened the accepted connection `fd`,
// which its listener kept; nothing when it kept none. Reading frees the kernel's copy.
std::optional<std::uint8_t> savedSynTtl(int fd);
// The TTL of a saved SYN's bytes: its IPv4 or IPv6 header first. Nothing for bytes too short
// or of another IP version.
std::optional<std::uint8_t> ttlOfIpHeader(std::span<std::uint8_t const> header);

// The kernel's counts of segments dropped for their MD5 signature (TcpExt in
// /proc/net/netstat: TCPMD5Failure, TCPMD5NotFound, TCPMD5Unexpected).
struct Md5Drops {
   std::uint64_t wrong = 0;      // a signature that does not verify
   std::uint64_t missing = 0;    // none, from a peer that has a key
   std::uint64_t unexpected = 0; // one, from a peer that has none
   std::uint64_t total() const { return wrong + missing + unexpected; }
   friend bool operator==(Md5Drops const&, Md5Drops const&) = default;
};
// Nothing when the file cannot be read or lacks the counters.
std::optional<Md5Drops> readMd5Drops(std::string const& path = "/proc/net/netstat");
// The counters of /proc/net/netstat text: "TcpExt:" name lines, then value lines.
std::optional<Md5Drops> parseMd5Drops(std::string_view netstat);

} // namespace Flowspecd
