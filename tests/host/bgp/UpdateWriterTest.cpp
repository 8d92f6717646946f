// The UPDATE writer: what it writes reads back through the host's own decoder, attribute for
// attribute; NLRI sharing attributes fill messages up to 4096 bytes; the size checks agree
// with what the writer does.
#include "host/bgp/UpdateWriter.h"

#include <gtest/gtest.h>

#include "host/bgp/BgpUpdateDecoder.h"
#include "host/bgp/ExtCommParse.h"
#include "tests/host/bgp/UpdateBuilder.h"

namespace Routing::Bgp {
namespace {

using namespace BgpTest;

// A stored AS_PATH: one segment of `type` with `ases`.
Ovk::String segment(std::uint8_t type, std::vector<std::uint32_t> const& ases, Ovk::String const& before = {}) {
   Bytes b(before.span().begin(), before.span().end());
   b.push_back(type);
   b.push_back(static_cast<std::uint8_t>(ases.size()));
   for (std::uint32_t as : ases) putU32(b, as);
   return Ovk::String(b.data(), b.size());
}

Ovk::Ptr<CoreDedupTables> const core = CoreDedupTables::create();

Ovk::Ptr<ExtComm const> extComm(std::uint64_t v) { return core->extCommIs(ExtComm::create(v)); }

// The messages a writer emits.
struct Sink {
   std::vector<Bytes> messages;
   UpdateWriter::Emit emit() {
      return [this](std::span<std::uint8_t const> m) { messages.emplace_back(m.begin(), m.end()); };
   }
};

// The attributes of `message` as the receiving side's RIB would hold them.
struct ReadBack {
   std::string errors;
   PathAttributesContents contents;
   std::size_t nlriBytes = 0;
   Bytes nextHop;
   bool as4Path = false;
};
ReadBack readBack(Bytes const& message, UpdateSession session) {
   BgpUpdateDecoder::Options o;
   o.fourOctetAs = session.fourOctetAs;
   o.externalPeer = !session.internal;
   BgpUpdateDecoder decoder(Ovk::makePtr<BgpParseContext>(nullptr, "test"), o);
   BgpParsedUpdate const& u = decoder.decode(message);
   ReadBack r;
   // No family rules here: the NLRI are read back by the agent's tests, with the plugin's.
   for (BgpUpdateError const& e : u.errors) {
      if (e.reason != BgpParseCountReason::mpFamilyWithoutRule) r.errors += std::string(toStrep(e.reason)) + " ";
   }
   PathAttributesBuilder builder(RtAttrDedupTable::create(), core, nullptr);
   if (u.attributes) r.contents = builder.rtAttrOf(*u.attributes)->contents();
   BgpParsedMpAttribute const& mp = u.mpReach.present ? u.mpReach : u.mpUnreach;
   r.nlriBytes = mp.nlriBytes;
   r.nextHop.assign(u.mpReach.nextHop.begin(), u.mpReach.nextHop.end());
   // AS4_PATH is read by nobody here but must be there, once.
   ByteView attrs = u.pathAttributes;
   while (attrs.size() >= 3) {
      std::size_t const hdr = (attrs[0] & BgpAttrFlag::extendedLength) ? 4 : 3;
      std::size_t const len = hdr == 4 ? (std::size_t{attrs[2]} << 8 | attrs[3]) : attrs[2];
      if (attrs[1] == BgpAttrType::as4Path) r.as4Path = true;
      attrs = attrs.subspan(std::min(attrs.size(), hdr + len));
   }
   return r;
}

PathAttributesContents contentsOf(BgpOrigin origin, Ovk::String asPath) {
   PathAttributesContents c;
   c.origin = origin;
   c.asPath = std::move(asPath);
   return c;
}

// ---- Attributes: what goes out reads back the same ----

TEST(UpdateWriterTest, AttributesReadBackThroughTheDecoder) {
   struct Row {
      char const* name;
      PathAttributesContents attrs;
      UpdateSession session;
      char const* asPath; // as the receiver reads it
      bool as4Path;
   };
   PathAttributesContents full = contentsOf(BgpOrigin::egp, segment(2, {65001, 65002}));
   full.med = 7;
   full.localPref = 300;
   full.atomicAggregate = true;
   full.communities = {0xfde80064, 0xffffff01};
   full.extCommList.push(extComm(0x8006000000000000ull)); // traffic-rate 0: discard
   full.extCommList.push(extComm(0x8009000000000003ull)); // traffic-marking
   PathAttributesContents wide = contentsOf(BgpOrigin::igp, Ovk::String());
   wide.asPath = segment(1, {65003, 4200000001u}, segment(2, {4200000000u, 65002}));
   std::vector<Row> const rows{
       {"plain-external", contentsOf(BgpOrigin::igp, segment(2, {65001})), {true, false}, "65001", false},
       {"all-internal", full, {true, true}, "65001 65002", false},
       {"all-external-drops-localpref", full, {true, false}, "65001 65002", false},
       {"empty-path", contentsOf(BgpOrigin::incomplete, Ovk::String()), {true, true}, "", false},
       {"two-octet-session-as-trans", wide, {false, false}, "23456 65002 {65003,23456}", true},
       {"two-octet-session-small-ases",
        contentsOf(BgpOrigin::igp, segment(2, {65001, 1})),
        {false, false},
        "65001 1",
        false},
       {"four-octet-session-wide", wide, {true, false}, "4200000000 65002 {65003,4200000001}", false},
   };
   for (Row const& row : rows) {
      SCOPED_TRACE(row.name);
      Sink sink;
      UpdateWriter w(kIpv4Flowspec, row.session, sink.emit());
      w.startAdvertise(row.attrs);
      ASSERT_TRUE(w.add(hexBytes("0501180a0000")));
      w.flush();
      ASSERT_EQ(sink.messages.size(), 1u);
      ReadBack const r = readBack(sink.messages[0], row.session);
      EXPECT_EQ(r.errors, "");
      PathAttributesContents const& c = r.contents;
      EXPECT_EQ(c.origin, row.attrs.origin);
      EXPECT_EQ(c.asPathText(), row.asPath);
      EXPECT_EQ(r.as4Path, row.as4Path);
      EXPECT_EQ(c.med, row.attrs.med);
      EXPECT_EQ(c.localPref,
                row.session.internal ? std::optional<std::uint32_t>(row.attrs.localPref.value_or(100)) : std::nullopt);
      EXPECT_EQ(c.atomicAggregate, row.attrs.atomicAggregate);
      EXPECT_EQ(c.communities, row.attrs.communities);
      EXPECT_TRUE(c.extCommList == row.attrs.extCommList);
      EXPECT_EQ(r.nlriBytes, 6u);
      EXPECT_EQ(r.nextHop, Bytes{}); // no next hop given
   }
}

TEST(UpdateWriterTest, NextHopIsWrittenOnlyWhenItIsAnAddressOfTheFamily) {
   struct Row {
      AfiSafi family;
      char const* address;
      char const* field; // hex
   };
   for (Row const& row :
        {Row{kIpv4Flowspec, "127.0.0.1", "7f000001"}, Row{kIpv6Flowspec, "::1", "00000000000000000000000000000001"},
         Row{kIpv4Flowspec, "::1", ""}, Row{kIpv6Flowspec, "127.0.0.1", ""}}) {
      SCOPED_TRACE(row.address);
      PathAttributesContents c = contentsOf(BgpOrigin::igp, Ovk::String());
      c.nexthop = IpPlugin::IpGenNexthop::create(*Ovnet::IpGenAddr::parse(row.address));
      Sink sink;
      UpdateWriter w(row.family, {}, sink.emit());
      w.startAdvertise(c);
      ASSERT_TRUE(w.add(hexBytes("0501180a0000")));
      w.flush();
      EXPECT_EQ(hexText(readBack(sink.messages.at(0), {}).nextHop), row.field);
   }
}

// ---- What a peer is sent ----

TEST(UpdateWriterTest, ExportAttributesPrependTheLocalAsForExternalPeersOnly) {
   BgpPeer const external{Ovnet::IpGenAddr(), 65002, 65001, 0, BgpVrfIdBase{}};
   BgpPeer const internal{Ovnet::IpGenAddr(), 65001, 65001, 0, BgpVrfIdBase{}};
   std::vector<std::uint32_t> full(255, 65009);
   struct Row {
      char const* name;
      Ovk::String path;
      BgpPeer to;
      char const* expect;
   };
   std::vector<Row> const rows{
       {"own-rule-external", Ovk::String(), external, "65001"},
       {"own-rule-internal", Ovk::String(), internal, ""},
       {"sequence-grows", segment(2, {65003, 65004}), external, "65001 65003 65004"},
       {"set-first-gets-a-sequence", segment(1, {65003, 65004}), external, "65001 {65003,65004}"},
       {"full-sequence-gets-another", segment(2, full), external, ""},
       {"internal-unchanged", segment(2, {65003}), internal, "65003"},
   };
   for (Row const& row : rows) {
      SCOPED_TRACE(row.name);
      PathAttributesContents rib = contentsOf(BgpOrigin::igp, row.path);
      rib.asPathLength = row.path.empty() ? 0 : (row.path.span()[0] == 1 ? 1 : row.path.span()[1]);
      rib.med = 5;
      PathAttributesContents const out = exportAttributes(rib, row.to, false, nullptr);
      if (std::string(row.name) == "full-sequence-gets-another") {
         // A segment of one, then the 255 of before.
         ASSERT_GE(out.asPath.size(), 2u + 4 + 2);
         EXPECT_EQ(out.asPath.span()[1], 1u);
         EXPECT_EQ(out.asPath.span()[7], 255u);
      } else {
         EXPECT_EQ(out.asPathText(), row.expect);
      }
      EXPECT_EQ(out.asPathLength, rib.asPathLength + (row.to.internal() ? 0 : 1));
      EXPECT_EQ(out.localPref, row.to.internal() ? std::optional<std::uint32_t>(100) : std::nullopt);
      // RFC 4271 section 5.1.4: a learnt MED stays in the AS.
      EXPECT_EQ(out.med, row.to.internal() ? std::optional<std::uint32_t>(5) : std::nullopt);
      EXPECT_EQ(exportAttributes(rib, row.to, true, nullptr).med, std::optional<std::uint32_t>(5));
   }
}

// ---- Packing ----

TEST(UpdateWriterTest, RulesSharingAttributesFillMessagesUpTo4096Bytes) {
   for (bool const withdraw : {false, true}) {
      SCOPED_TRACE(withdraw ? "withdraw" : "advertise");
      Sink sink;
      UpdateWriter w(kIpv4Flowspec, {}, sink.emit());
      if (withdraw) {
         w.startWithdraw();
      } else {
         w.startAdvertise(contentsOf(BgpOrigin::igp, segment(2, {65001})));
      }
      std::size_t const room = w.maxNlri();
      Bytes const nlri = hexBytes("0901180a00000381068111"); // 11 bytes
      constexpr std::size_t kRules = 5000;
      for (std::size_t i = 0; i < kRules; ++i) ASSERT_TRUE(w.add(nlri));
      w.flush();
      std::size_t const perMessage = room / nlri.size();
      EXPECT_EQ(sink.messages.size(), (kRules + perMessage - 1) / perMessage);
      std::size_t carried = 0;
      for (std::size_t i = 0; i < sink.messages.size(); ++i) {
         Bytes const& m = sink.messages[i];
         ASSERT_LE(m.size(), kMaxMessageSize);
         if (i + 1 < sink.messages.size()) {
            EXPECT_GT(m.size() + nlri.size(), kMaxMessageSize);
         }
         ReadBack const r = readBack(m, {});
         EXPECT_EQ(r.errors, "");
         carried += r.nlriBytes / nlri.size();
      }
      EXPECT_EQ(carried, kRules);
      EXPECT_EQ(w.messages(), sink.messages.size());
      EXPECT_EQ(w.nlri(), kRules);
   }
}

TEST(UpdateWriterTest, AnNlriTooLongForOneMessageIsRefusedAndTheChecksAgree) {
   PathAttributesContents rib = contentsOf(BgpOrigin::igp, Ovk::String());
   rib.extCommList.push(extComm(0x8006000000000000ull));
   Sink sink;
   UpdateWriter w(kIpv4Flowspec, {}, sink.emit());
   w.startWithdraw();
   EXPECT_EQ(w.maxNlri(), kMaxWithdrawnNlriBytes);
   EXPECT_TRUE(w.add(Bytes(kMaxWithdrawnNlriBytes, 0)));
   EXPECT_FALSE(w.add(Bytes(kMaxWithdrawnNlriBytes + 1, 0)));
   w.flush();
   ASSERT_EQ(sink.messages.size(), 1u);
   EXPECT_EQ(sink.messages[0].size(), kMaxMessageSize);

   // fitsOneUpdate: the tightest of the sessions a rule may go to decides, to the byte.
   std::size_t tightest = kMaxWithdrawnNlriBytes;
   Ovk::Ptr<GenNexthop const> const v6 = IpPlugin::IpGenNexthop::create(*Ovnet::IpGenAddr::parse("::1"));
   for (bool const internal : {false, true}) {
      BgpPeer const to{Ovnet::IpGenAddr(), internal ? 65001u : 65002u, 65001, 0, BgpVrfIdBase{}};
      for (bool const four : {false, true}) {
         tightest =
             std::min(tightest, maxNlriBytes(kIpv6Flowspec, exportAttributes(rib, to, true, v6), {four, internal}));
      }
   }
   EXPECT_LT(tightest, kMaxWithdrawnNlriBytes);
   EXPECT_TRUE(fitsOneUpdate(kIpv6Flowspec, rib, tightest, 65001));
   EXPECT_FALSE(fitsOneUpdate(kIpv6Flowspec, rib, tightest + 1, 65001));
   EXPECT_FALSE(fitsOneUpdate(kIpv4Flowspec, rib, 4097, 65001));
}

} // namespace
} // namespace Routing::Bgp
