// TCP MD5 keys and TTL security on real loopback sockets, the TTL of a kept SYN, and the
// kernel's MD5 drop counters as /proc/net/netstat gives them.
#include "agent/TcpSecurity.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

namespace Flowspecd {
namespace {

constexpr char const* kNetstat =
    "TcpExt: SyncookiesSent TCPMD5NotFound TCPMD5Unexpected TCPMD5Failure TCPAOGood\n"
    "TcpExt: 0 7 3 12 0\n"
    "IpExt: InNoRoutes InTruncatedPkts\n"
    "IpExt: 0 0\n";

TEST(TcpSecurityTest, Md5DropCountersAreReadByName) {
   struct Row {
      char const* name;
      std::string text;
      std::optional<Md5Drops> drops;
   };
   std::vector<Row> const rows{
       {"the counters", kNetstat, Md5Drops{12, 7, 3}},
       {"another order", "TcpExt: TCPMD5Failure TCPMD5Unexpected TCPMD5NotFound\nTcpExt: 1 2 3\n", Md5Drops{1, 3, 2}},
       {"a counter missing", "TcpExt: TCPMD5Failure TCPMD5NotFound\nTcpExt: 1 2\n", std::nullopt},
       {"values short of names", "TcpExt: TCPMD5NotFound TCPMD5Unexpected TCPMD5Failure\nTcpExt: 1 2\n", std::nullopt},
       {"a value not a number", "TcpExt: TCPMD5NotFound TCPMD5Unexpected TCPMD5Failure\nTcpExt: 1 x 2\n", std::nullopt},
       {"no value line", "TcpExt: TCPMD5NotFound TCPMD5Unexpected TCPMD5Failure\n", std::nullopt},
       {"nothing", "", std::nullopt},
   };
   for (Row const& r : rows) {
      SCOPED_TRACE(r.name);
      EXPECT_EQ(parseMd5Drops(r.text), r.drops);
   }
   EXPECT_EQ(parseMd5Drops(kNetstat)->total(), 22u);
   EXPECT_FALSE(readMd5Drops("/nonexistent/netstat"));
}

TEST(TcpSecurityTest, TtlOfAKeptSynsIpHeader) {
   std::vector<std::uint8_t> v4(20, 0);
   v4[0] = 0x45;
   v4[8] = 255;
   std::vector<std::uint8_t> v6(40, 0);
   v6[0] = 0x60;
   v6[7] = 254;
   EXPECT_EQ(ttlOfIpHeader(v4), 255);
   EXPECT_EQ(ttlOfIpHeader(v6), 254);
   EXPECT_FALSE(ttlOfIpHeader(std::span<std::uint8_t const>(v4).first(19)));
   EXPECT_FALSE(ttlOfIpHeader(std::span<std::uint8_t const>(v6).first(39)));
   v4[0] = 0x55;
   EXPECT_FALSE(ttlOfIpHeader(v4));
   EXPECT_FALSE(ttlOfIpHeader({}));
}

int tcpSocket(int family) { return ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0); }

// A listener on 127.0.0.1 on a free port; its port.
std::uint16_t listenOn(int fd) {
   sockaddr_in a{};
   a.sin_family = AF_INET;
   a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
   EXPECT_EQ(::listen(fd, 8), 0);
   socklen_t len = sizeof a;
   ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
   return ntohs(a.sin_port);
}

bool connectTo(int fd, std::uint16_t port) {
   sockaddr_in a{};
   a.sin_family = AF_INET;
   a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   a.sin_port = htons(port);
   return ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
}

// A listener that keeps SYNs tells the TTL a connection came with; GTSM settings take.
TEST(TcpSecurityTest, AKeptSynTellsTheTtlAndSessionSocketsTakeGtsm) {
   int const l = tcpSocket(AF_INET);
   ASSERT_GE(l, 0);
   ASSERT_EQ(listenerTtlSecurityIs(l, false, true), "");
   std::uint16_t const port = listenOn(l);
   int const c = tcpSocket(AF_INET);
   int const ttl = 200;
   ASSERT_EQ(::setsockopt(c, IPPROTO_IP, IP_TTL, &ttl, sizeof ttl), 0);
   ASSERT_TRUE(connectTo(c, port));
   int const s = ::accept(l, nullptr, nullptr);
   ASSERT_GE(s, 0);
   EXPECT_EQ(savedSynTtl(s), 200); // loopback keeps the TTL as sent
   EXPECT_FALSE(savedSynTtl(s));   // read once: the kernel's copy is gone
   TcpSecurity const gtsm{"", true, 3};
   ASSERT_EQ(ttlSecurityIs(s, false, gtsm), "");
   int got = 0;
   socklen_t len = sizeof got;
   ASSERT_EQ(::getsockopt(s, IPPROTO_IP, IP_TTL, &got, &len), 0);
   EXPECT_EQ(got, 255);
   ASSERT_EQ(::getsockopt(s, IPPROTO_IP, IP_MINTTL, &got, &len), 0);
   EXPECT_EQ(got, 252);
   // Without GTSM nothing is set.
   EXPECT_EQ(ttlSecurityIs(c, false, TcpSecurity{}), "");
   ::close(s);
   ::close(c);
   ::close(l);
}

// The same over IPv6: the hop limit of the SYN, and the minimum hop count.
TEST(TcpSecurityTest, IPv6KeptSynsTellTheHopLimit) {
   int const l = tcpSocket(AF_INET6);
   ASSERT_GE(l, 0);
   int const one = 1;
   ::setsockopt(l, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
   ASSERT_EQ(listenerTtlSecurityIs(l, true, true), "");
   sockaddr_in6 a{};
   a.sin6_family = AF_INET6;
   a.sin6_addr = in6addr_loopback;
   if (::bind(l, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) GTEST_SKIP() << "no IPv6 loopback here";
   ASSERT_EQ(::listen(l, 8), 0);
   socklen_t len = sizeof a;
   ::getsockname(l, reinterpret_cast<sockaddr*>(&a), &len);
   int const c = tcpSocket(AF_INET6);
   int const hops = 100;
   ASSERT_EQ(::setsockopt(c, IPPROTO_IPV6, IPV6_UNICAST_HOPS, &hops, sizeof hops), 0);
   ASSERT_EQ(::connect(c, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
   int const s = ::accept(l, nullptr, nullptr);
   ASSERT_GE(s, 0);
   EXPECT_EQ(savedSynTtl(s), 100);
   ASSERT_EQ(ttlSecurityIs(s, true, TcpSecurity{"", true, 0}), "");
   int got = 0;
   socklen_t gotLen = sizeof got;
   ASSERT_EQ(::getsockopt(s, IPPROTO_IPV6, IPV6_UNICAST_HOPS, &got, &gotLen), 0);
   EXPECT_EQ(got, 255);
   // A listener no longer keeping SYNs hands none.
   ASSERT_EQ(listenerTtlSecurityIs(l, true, false), "");
   int const c2 = tcpSocket(AF_INET6);
   ASSERT_EQ(::connect(c2, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
   int const s2 = ::accept(l, nullptr, nullptr);
   EXPECT_FALSE(savedSynTtl(s2));
   for (int fd : {s2, c2, s, c, l}) ::close(fd);
}

// Keys are set and removed per peer; a connection signed on one side only never comes up,
// one signed on both with the same key does.
TEST(TcpSecurityTest, Md5KeysDecideWhetherAConnectionComesUp) {
   auto const loopback = *Ovnet::IpGenAddr::parse("127.0.0.1");
   struct Row {
      char const* name;
      char const* listenerKey;
      char const* clientKey;
      bool up;
   };
   for (Row const r : {Row{"same key", "secret", "secret", true}, Row{"other key", "secret", "secreT", false},
                       Row{"client unsigned", "secret", nullptr, false}, Row{"listener unsigned", nullptr, "secret", false},
                       Row{"neither", nullptr, nullptr, true}}) {
      SCOPED_TRACE(r.name);
      int const l = tcpSocket(AF_INET);
      EXPECT_EQ(r.listenerKey ? md5KeyIs(l, loopback, r.listenerKey) : "", "");
      std::uint16_t const port = listenOn(l);
      int const c = tcpSocket(AF_INET);
      EXPECT_EQ(r.clientKey ? md5KeyIs(c, loopback, r.clientKey) : "", "");
      timeval const wait{0, 300000};
      ::setsockopt(c, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
      EXPECT_EQ(connectTo(c, port), r.up);
      ::close(c);
      ::close(l);
   }
   // Removing a key that is there, and one that is not, both succeed.
   int const s = tcpSocket(AF_INET);
   EXPECT_EQ(md5KeyIs(s, loopback, "k"), "");
   EXPECT_EQ(md5KeyIs(s, loopback, ""), "");
   EXPECT_EQ(md5KeyIs(s, loopback, ""), "");
   // An IPv6 peer on an IPv4 socket is the system's error, said.
   EXPECT_NE(md5KeyIs(s, *Ovnet::IpGenAddr::parse("::1"), "k"), "");
   ::close(s);
}

} // namespace
} // namespace Flowspecd
