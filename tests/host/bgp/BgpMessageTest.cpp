#include "host/bgp/BgpMessage.h"

#include "host/bgp/BgpUpdateDecoder.h"

#include <gtest/gtest.h>

#include <string>

namespace Routing::Bgp {

void PrintTo(Notification const& n, std::ostream* os) {
   *os << notificationText(n) << " data " << n.data.size() << " bytes";
}

namespace {

Bytes hex(std::string_view h) {
   Bytes out;
   std::string digits;
   for (char const c : h) {
      if (c != ' ') digits += c;
   }
   for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
      out.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
   }
   return out;
}

Bytes header(std::uint16_t length, std::uint8_t type) {
   Bytes b(16, 0xff);
   b.push_back(static_cast<std::uint8_t>(length >> 8));
   b.push_back(static_cast<std::uint8_t>(length));
   b.push_back(type);
   return b;
}

Bytes bodyOf(Bytes const& message) { return Bytes(message.begin() + kHeaderSize, message.end()); }

struct HeaderCase {
   char const* name;
   Bytes bytes;
   std::optional<Notification> expect; // nothing: accepted
};

TEST(BgpMessage, HeaderChecksMarkerLengthAndType) {
   Bytes badMarker = header(19, 4);
   badMarker[7] = 0xfe;
   std::vector<HeaderCase> const cases{
       {"keepalive", header(19, 4), std::nullopt},
       {"smallest open", header(29, 1), std::nullopt},
       {"largest update", header(4096, 2), std::nullopt},
       {"route refresh", header(23, 5), std::nullopt},
       {"wrong marker", badMarker, Notification{1, 1, {}}},
       {"garbage", Bytes(19, 0x41), Notification{1, 1, {}}},
       {"shorter than a header", header(18, 4), Notification{1, 2, {0x00, 0x12}}},
       {"longer than the maximum", header(4097, 2), Notification{1, 2, {0x10, 0x01}}},
       {"keepalive with a body", header(20, 4), Notification{1, 2, {0x00, 0x14}}},
       {"truncated open", header(28, 1), Notification{1, 2, {0x00, 0x1c}}},
       {"truncated update", header(22, 2), Notification{1, 2, {0x00, 0x16}}},
       {"truncated notification", header(20, 3), Notification{1, 2, {0x00, 0x14}}},
       {"long route refresh", header(24, 5), Notification{1, 2, {0x00, 0x18}}},
       {"type 0", header(19, 0), Notification{1, 3, {0x00}}},
       {"type 6", header(19, 6), Notification{1, 3, {0x06}}},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      auto r = parseHeader(c.bytes);
      if (!c.expect) {
         ASSERT_TRUE(r.ok());
         EXPECT_EQ(r.value().type, static_cast<MessageType>(c.bytes[18]));
      } else {
         ASSERT_FALSE(r.ok());
         EXPECT_EQ(r.reason(), *c.expect);
      }
   }
}

TEST(BgpMessage, FramerReassemblesAcrossAnySplit) {
   Bytes stream = encodeOpen(localOpen(65001, 90, 0x0a000001, {kIpv4Flowspec}));
   Bytes const ka = encodeKeepalive();
   Bytes const eor = encodeEndOfRib(kIpv6Flowspec);
   stream.insert(stream.end(), ka.begin(), ka.end());
   stream.insert(stream.end(), eor.begin(), eor.end());
   for (std::size_t cut = 1; cut < stream.size(); ++cut) {
      SCOPED_TRACE(cut);
      MessageFramer f;
      std::vector<MessageType> types;
      f.feed(ByteView(stream).first(cut));
      while (auto m = f.next()) types.push_back(m->value().type);
      f.feed(ByteView(stream).subspan(cut));
      while (auto m = f.next()) {
         ASSERT_TRUE(m->ok());
         types.push_back(m->value().type);
      }
      EXPECT_EQ(types, (std::vector<MessageType>{MessageType::open, MessageType::keepalive, MessageType::update}));
      EXPECT_EQ(f.buffered(), 0u);
   }
}

TEST(BgpMessage, FramerStopsAtABrokenStream) {
   MessageFramer f;
   Bytes stream = encodeKeepalive();
   Bytes garbage(19, 0x00);
   stream.insert(stream.end(), garbage.begin(), garbage.end());
   Bytes const ka = encodeKeepalive();
   stream.insert(stream.end(), ka.begin(), ka.end());
   f.feed(stream);
   auto first = f.next();
   ASSERT_TRUE(first && first->ok());
   auto second = f.next();
   ASSERT_TRUE(second && !second->ok());
   EXPECT_EQ(second->reason(), (Notification{1, 1, {}}));
   EXPECT_FALSE(f.next()); // nothing after the break, though a keepalive follows
}

TEST(BgpMessage, OpenRoundTripsWithCapabilities) {
   for (std::uint32_t const as : {65001u, 4200000001u}) {
      SCOPED_TRACE(as);
      OpenMessage const o = localOpen(as, 3, 0xc0000201, {kIpv4Flowspec, kIpv6Flowspec});
      Bytes const wire = encodeOpen(o);
      auto h = parseHeader(ByteView(wire).first(kHeaderSize));
      ASSERT_TRUE(h.ok());
      EXPECT_EQ(h.value().length, wire.size());
      auto back = parseOpen(bodyOf(wire));
      ASSERT_TRUE(back.ok());
      EXPECT_EQ(back.value().as(), as);
      EXPECT_EQ(back.value().myAs, as > 0xffff ? kAsTrans : as);
      EXPECT_EQ(back.value().holdTime, 3);
      EXPECT_EQ(back.value().bgpId, 0xc0000201u);
      EXPECT_EQ(back.value().families, (std::vector<AfiSafi>{kIpv4Flowspec, kIpv6Flowspec}));
      EXPECT_TRUE(back.value().routeRefresh);
      EXPECT_EQ(encodeOpen(back.value()), wire);
   }
}

TEST(BgpMessage, OpenFromAnotherSpeakerWithOneParameterPerCapability) {
   // Version 4, AS 65002, hold 3, id 10.0.0.2; parameters: MP ipv4-flowspec, route refresh,
   // the old route refresh code 128, 4-octet AS 65002, graceful restart (64).
   auto o = parseOpen(hex("04 fdea 0003 0a000002 1e"
                          "02 06 01 04 0001 00 85"
                          "02 02 02 00"
                          "02 02 80 00"
                          "02 06 41 04 0000fdea"
                          "02 04 40 02 0078"));
   ASSERT_TRUE(o.ok());
   EXPECT_EQ(o.value().as(), 65002u);
   EXPECT_EQ(o.value().families, std::vector<AfiSafi>{kIpv4Flowspec});
   EXPECT_TRUE(o.value().routeRefresh);
   EXPECT_EQ(o.value().otherCapabilities, (std::vector<std::uint8_t>{128}));
   ASSERT_TRUE(o.value().gracefulRestart);
   EXPECT_EQ(o.value().gracefulRestart->restartTime, 120);
   EXPECT_TRUE(o.value().gracefulRestart->families.empty());
}

TEST(BgpMessage, OpenStructureErrors) {
   struct Case {
      char const* name;
      Bytes body;
      Notification expect;
   };
   std::vector<Case> const cases{
       {"version 3", hex("03fdea00030a00000200"), {2, 1, {0x00, 0x04}}},
       {"version 5", hex("05fdea00030a00000200"), {2, 1, {0x00, 0x04}}},
       {"parameters longer than the message", hex("04fdea00030a0000020a0206010400010085"), {2, 0, {}}},
       {"bytes after the parameters", hex("04fdea00030a0000020000"), {2, 0, {}}},
       {"unknown parameter type", hex("04fdea00030a000002040102aaaa"), {2, 4, {}}},
       {"capability longer than its parameter", hex("04fdea00030a000002040202010a"), {2, 0, {}}},
       {"multiprotocol of 3 bytes", hex("04fdea00030a00000207020501030001 00"), {2, 0, {}}},
       {"four-octet AS of 2 bytes", hex("04fdea00030a000002060204410200fd"), {2, 0, {}}},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      auto r = parseOpen(c.body);
      ASSERT_FALSE(r.ok());
      EXPECT_EQ(r.reason(), c.expect);
   }
}

TEST(BgpMessage, OpenValueChecks) {
   OpenExpectations const expect{65002, 65001, 0x0a000001};
   auto open = [](std::uint16_t myAs, std::optional<std::uint32_t> four, std::uint32_t id, std::uint16_t hold) {
      OpenMessage o;
      o.myAs = myAs;
      o.fourOctetAs = four;
      o.bgpId = id;
      o.holdTime = hold;
      return o;
   };
   struct Case {
      char const* name;
      OpenMessage o;
      std::optional<std::uint8_t> subcode;
   };
   std::vector<Case> const cases{
       {"good", open(65002, 65002, 0x0a000002, 90), std::nullopt},
       {"good without 4-octet AS", open(65002, std::nullopt, 0x0a000002, 0), std::nullopt},
       {"good, hold time 3", open(65002, 65002, 0x0a000002, 3), std::nullopt},
       {"eBGP peer may share our identifier", open(65002, 65002, 0x0a000001, 90), std::nullopt},
       {"wrong AS", open(65003, 65003, 0x0a000002, 90), OpenSubcode::badPeerAs},
       {"4-octet AS wins over the 2-octet field", open(65002, 65003, 0x0a000002, 90), OpenSubcode::badPeerAs},
       {"AS_TRANS without the capability", open(kAsTrans, std::nullopt, 0x0a000002, 90), OpenSubcode::badPeerAs},
       {"identifier 0", open(65002, 65002, 0, 90), OpenSubcode::badBgpIdentifier},
       {"hold time 1", open(65002, 65002, 0x0a000002, 1), OpenSubcode::unacceptableHoldTime},
       {"hold time 2", open(65002, 65002, 0x0a000002, 2), OpenSubcode::unacceptableHoldTime},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      auto r = checkOpen(c.o, expect);
      if (!c.subcode) {
         EXPECT_FALSE(r);
      } else {
         ASSERT_TRUE(r);
         EXPECT_EQ(r->code, ErrorCode::open);
         EXPECT_EQ(r->subcode, *c.subcode);
      }
   }
   // iBGP: the same identifier is a conflict.
   auto ibgp = checkOpen(open(65001, 65001, 0x0a000001, 90), OpenExpectations{65001, 65001, 0x0a000001});
   ASSERT_TRUE(ibgp);
   EXPECT_EQ(ibgp->subcode, OpenSubcode::badBgpIdentifier);
}

TEST(BgpMessage, NegotiationTakesTheSmallerHoldTimeAndCommonFamilies) {
   OpenMessage const local = localOpen(65001, 90, 1, {kIpv4Flowspec, kIpv6Flowspec});
   OpenMessage remote = localOpen(65002, 3, 2, {kIpv4Unicast, kIpv6Flowspec});
   remote.routeRefresh = false;
   Negotiated const n = negotiate(local, remote);
   EXPECT_EQ(n.holdTime, 3);
   EXPECT_EQ(n.keepaliveTime, 1);
   EXPECT_EQ(n.families, std::vector<AfiSafi>{kIpv6Flowspec});
   EXPECT_TRUE(n.fourOctetAs);
   EXPECT_FALSE(n.routeRefresh);
   EXPECT_EQ(capabilityNames(n), (std::vector<std::string>{"multiprotocol", "four-octet-as"}));
   remote.holdTime = 0;
   EXPECT_EQ(negotiate(local, remote).holdTime, 0);
   EXPECT_EQ(negotiate(local, remote).keepaliveTime, 0);
}

// RFC 4724 section 3 / RFC 8538 section 2: the capability as peers write it, and what the
// session makes of it. One OPEN prefix (AS 65002, hold 3, id 10.0.0.2) with one capability.
TEST(BgpMessage, GracefulRestartCapabilityCases) {
   auto body = [](std::string const& cap) {
      std::size_t const capBytes = cap.size() / 2;
      char buf[64];
      std::snprintf(buf, sizeof buf, "%02zx02%02zx", capBytes + 2, capBytes);
      return hex("04fdea00030a000002" + std::string(buf) + cap);
   };
   struct Case {
      char const* name;
      std::string cap; // the capability's bytes: code 64, length, value
      std::optional<GracefulRestartCapability> expect;
   };
   GracefulRestartCapability helperOnly;
   helperOnly.restartTime = 120;
   GracefulRestartCapability restarting;
   restarting.restarting = true;
   restarting.notification = true;
   restarting.restartTime = 0x0fff;
   restarting.families = {{kIpv4Flowspec, true}, {kIpv6Flowspec, false}};
   GracefulRestartCapability zero;
   zero.families = {{kIpv4Flowspec, false}};
   std::vector<Case> const cases{
       {"helper only: no family", "40020078", helperOnly},
       {"R, N, the longest time, two families", "400acfff00018580000285 00", restarting},
       {"reserved flag bits and time 0", "40063000000185 00", zero},
       {"a family twice counts once", "400a000000018500000185 80", zero},
       {"one byte", "400100", std::nullopt},
       {"a part of a family", "4004007800 01", std::nullopt},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.name);
      std::string cap = c.cap;
      std::erase(cap, ' ');
      auto r = parseOpen(body(cap));
      ASSERT_TRUE(r.ok());
      EXPECT_EQ(r.value().gracefulRestart, c.expect);
      // A capability that cannot be read is kept as an unknown one; the session goes on.
      EXPECT_EQ(r.value().otherCapabilities, c.expect ? std::vector<std::uint8_t>{} : std::vector<std::uint8_t>{64});
      if (!c.expect) continue;
      OpenMessage again = r.value();
      Bytes const wire = encodeOpen(again);
      auto back = parseOpen(bodyOf(wire));
      ASSERT_TRUE(back.ok());
      EXPECT_EQ(back.value().gracefulRestart, c.expect);
   }
   // Two instances: the last one counts.
   auto twice = parseOpen(body("40020078" "40028005"));
   ASSERT_TRUE(twice.ok());
   ASSERT_TRUE(twice.value().gracefulRestart);
   EXPECT_TRUE(twice.value().gracefulRestart->restarting);
   EXPECT_EQ(twice.value().gracefulRestart->restartTime, 5);
}

TEST(BgpMessage, GracefulRestartNegotiatesOnlyWhenBothAdvertise) {
   OpenMessage local = localOpen(65001, 90, 1, {kIpv4Flowspec, kIpv6Flowspec});
   OpenMessage remote = localOpen(65002, 90, 2, {kIpv4Flowspec, kIpv6Flowspec});
   GracefulRestartCapability gr;
   gr.restartTime = 30;
   gr.notification = true;
   gr.families = {{kIpv4Flowspec, true}, {kIpv4Unicast, true}};
   remote.gracefulRestart = gr;
   EXPECT_FALSE(negotiate(local, remote).peerGracefulRestart);
   local.gracefulRestart = GracefulRestartCapability{};
   Negotiated n = negotiate(local, remote);
   ASSERT_TRUE(n.peerGracefulRestart);
   // Only the session's families count.
   EXPECT_EQ(n.peerGracefulRestart->families, (std::vector<GracefulRestartFamily>{{kIpv4Flowspec, true}}));
   EXPECT_EQ(n.peerGracefulRestart->restartTime, 30);
   EXPECT_FALSE(n.gracefulNotification); // ours has no N bit
   local.gracefulRestart->notification = true;
   n = negotiate(local, remote);
   EXPECT_TRUE(n.gracefulNotification);
   EXPECT_EQ(capabilityNames(n), (std::vector<std::string>{"multiprotocol", "route-refresh", "four-octet-as",
                                                           "graceful-restart", "graceful-notification"}));
}

TEST(BgpMessage, HardResetWrapsTheNotificationItStandsFor) {
   Notification const inner = ceaseWithMessage(CeaseSubcode::peerDeconfigured, "");
   Notification const hr = hardReset(Notification{ErrorCode::cease, CeaseSubcode::peerDeconfigured, {}});
   EXPECT_TRUE(isHardReset(hr));
   EXPECT_FALSE(isHardReset(inner));
   EXPECT_EQ(hr.data, (Bytes{6, 3}));
   EXPECT_EQ(notificationText(hr), "Cease/Hard Reset (6/9) for Cease/Peer De-configured (6/3)");
   EXPECT_EQ(notificationText({6, 9, {}}), "Cease/Hard Reset (6/9)");
   EXPECT_EQ(notificationText(hardReset({4, 0, {}})), "Cease/Hard Reset (6/9) for Hold Timer Expired (4/0)");
}

TEST(BgpMessage, NotificationTexts) {
   EXPECT_EQ(notificationText({4, 0, {}}), "Hold Timer Expired (4/0)");
   EXPECT_EQ(notificationText({1, 1, {}}), "Message Header Error/Connection Not Synchronized (1/1)");
   EXPECT_EQ(notificationText({2, 2, {}}), "OPEN Message Error/Bad Peer AS (2/2)");
   EXPECT_EQ(notificationText({6, 99, {}}), "Cease (6/99)");
   EXPECT_EQ(notificationText(ceaseWithMessage(2, "bye \"now\"")), "Cease/Administrative Shutdown (6/2) \"bye ?now?\"");
   // A length octet that overruns the data shows no text.
   EXPECT_EQ(notificationText({6, 2, {9, 'a'}}), "Cease/Administrative Shutdown (6/2)");
   Notification const n = ceaseWithMessage(2, std::string(300, 'x'));
   EXPECT_EQ(n.data.size(), 256u);
   Bytes const wire = encodeNotification(n);
   auto back = parseNotification(bodyOf(wire));
   ASSERT_TRUE(back.ok());
   EXPECT_EQ(back.value(), n);
}

TEST(BgpMessage, RouteRefreshRoundTrips) {
   Bytes const wire = encodeRouteRefresh(kIpv6Flowspec);
   EXPECT_EQ(wire.size(), 23u);
   ASSERT_TRUE(parseHeader(ByteView(wire).first(kHeaderSize)).ok());
   auto f = parseRouteRefresh(bodyOf(wire));
   ASSERT_TRUE(f.ok());
   EXPECT_EQ(f.value(), kIpv6Flowspec);
}

// The End-of-RIB the sessions send is what the UPDATE decoder takes for one.
TEST(BgpMessage, EndOfRibReadsBackAsOne) {
   for (AfiSafi const f : {kIpv4Flowspec, kIpv6Flowspec}) {
      BgpUpdateDecoder decoder(Ovk::makePtr<BgpParseContext>(nullptr, "test"), {});
      Bytes const wire = encodeEndOfRib(f);
      EXPECT_EQ(decoder.decode(wire).endOfRib(), f);
   }
}

TEST(BgpMessage, FamilyNames) {
   EXPECT_EQ(familyName(kIpv4Flowspec), "ipv4-flowspec");
   EXPECT_EQ(familyName(kIpv6Flowspec), "ipv6-flowspec");
   EXPECT_EQ(familyName(kIpv4Unicast), "ipv4-unicast");
   EXPECT_EQ(familyFromName("ipv6-flowspec"), kIpv6Flowspec);
   EXPECT_EQ(familyFromName("ipv4-unicast"), kIpv4Unicast);
   EXPECT_EQ(familyFromName("ipv6-unicast"), kIpv6Unicast);
   EXPECT_FALSE(familyFromName("ipv4-multicast"));
}

} // namespace
} // namespace Routing::Bgp
