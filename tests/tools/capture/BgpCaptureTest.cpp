#include "tools/capture/BgpCapture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes keepalive() {
   Bytes m(16, 0xff);
   m.insert(m.end(), {0x00, 0x13, 0x04});
   return m;
}

void put16(Bytes& b, unsigned v) {
   b.insert(b.end(), {static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v)});
}
void put32(Bytes& b, std::uint32_t v) {
   put16(b, v >> 16);
   put16(b, v & 0xffff);
}

// One MRT record of the given type/subtype around `body`.
Bytes record(unsigned type, unsigned subtype, Bytes const& body, std::uint32_t seconds = 1000) {
   Bytes r;
   put32(r, seconds);
   put16(r, type);
   put16(r, subtype);
   put32(r, static_cast<std::uint32_t>(body.size()));
   r.insert(r.end(), body.begin(), body.end());
   return r;
}

Bytes bgp4mpAs4Ipv4(Bytes const& msg) {
   Bytes b;
   put32(b, 65001); // peer AS
   put32(b, 65000); // local AS
   put16(b, 0);     // interface
   put16(b, 1);     // AFI
   b.insert(b.end(), {10, 0, 0, 1, 10, 0, 0, 2});
   b.insert(b.end(), msg.begin(), msg.end());
   return b;
}

struct Collected {
   std::vector<BgpCapture::Message> meta;
   std::vector<Bytes> bytes;
   BgpCapture::MessageSink sink() {
      return [this](BgpCapture::Message const& m) {
         meta.push_back(m);
         bytes.emplace_back(m.bytes.begin(), m.bytes.end());
      };
   }
};

TEST(BgpCaptureTest, MrtRecordsOfEveryShape) {
   Bytes file;
   auto add = [&](Bytes const& r) { file.insert(file.end(), r.begin(), r.end()); };
   add(record(16, 4, bgp4mpAs4Ipv4(keepalive())));
   // BGP4MP_ET, 2-byte ASes, IPv6 endpoints.
   Bytes et;
   put32(et, 250000); // microseconds
   put16(et, 64512);
   put16(et, 64513);
   put16(et, 3);
   put16(et, 2);
   Bytes v6(32, 0);
   v6[15] = 1;
   v6[31] = 2;
   et.insert(et.end(), v6.begin(), v6.end());
   Bytes ka = keepalive();
   et.insert(et.end(), ka.begin(), ka.end());
   add(record(17, 1, et));
   add(record(16, 5, Bytes{0, 1, 0, 2})); // a state change: skipped
   add(record(13, 1, Bytes{1, 2, 3}));    // a table dump: skipped
   Bytes badMsg = keepalive();
   badMsg[17] = 0x14; // length field disagrees
   add(record(16, 4, bgp4mpAs4Ipv4(badMsg)));
   add(record(16, 4, Bytes{0, 0})); // too short for its fields
   Bytes cut = record(16, 4, bgp4mpAs4Ipv4(keepalive()));
   cut.resize(cut.size() - 3); // the file ends mid-record
   add(cut);

   Collected c;
   BgpCapture::Stats stats;
   BgpCapture::readMrt(file, c.sink(), stats);
   ASSERT_EQ(c.meta.size(), 2u);
   EXPECT_EQ(c.meta[0].peerAs, 65001u);
   EXPECT_EQ(c.meta[0].from.address.str(), "10.0.0.1");
   EXPECT_EQ(c.meta[0].to.address.str(), "10.0.0.2");
   EXPECT_EQ(c.bytes[0], keepalive());
   EXPECT_EQ(c.meta[1].peerAs, 64512u);
   EXPECT_EQ(c.meta[1].from.address.str(), "::1");
   EXPECT_DOUBLE_EQ(c.meta[1].timestamp, 1000.25);
   EXPECT_EQ(stats.records, 6u);
   EXPECT_EQ(stats.skipped, 2u);
   EXPECT_EQ(stats.malformed, 3u);
   EXPECT_EQ(stats.messages, 2u);
}

TEST(BgpCaptureTest, EveryCutOfAnMrtFileIsSafe) {
   Bytes file = record(16, 4, bgp4mpAs4Ipv4(keepalive()));
   for (std::size_t n = 0; n <= file.size(); ++n) {
      Collected c;
      BgpCapture::Stats stats;
      BgpCapture::readMrt(std::span<std::uint8_t const>(file.data(), n), c.sink(), stats);
      EXPECT_EQ(c.meta.size(), n == file.size() ? 1u : 0u) << n;
   }
}

TEST(BgpCaptureTest, StreamsAreReassembledAcrossReorderingAndRetransmission) {
   Collected c;
   BgpCapture::Stats stats;
   BgpCapture::StreamAssembler a(c.sink(), stats);
   BgpCapture::Endpoint x{*Ovnet::IpGenAddr::parse("127.0.0.1"), 40000}, y{*Ovnet::IpGenAddr::parse("127.0.0.2"), 179};
   Bytes stream;
   for (int i = 0; i < 3; ++i) {
      Bytes k = keepalive();
      stream.insert(stream.end(), k.begin(), k.end());
   }
   auto seg = [&](std::size_t from, std::size_t to) {
      a.segment(x, y, 1001 + static_cast<std::uint32_t>(from), false, false,
                std::span<std::uint8_t const>(stream.data() + from, to - from), 1.0);
   };
   a.segment(x, y, 1000, true, false, {}, 0.0);
   seg(0, 10);
   seg(30, 57); // early
   seg(5, 25);  // overlaps what came before
   seg(0, 10);  // a retransmission
   seg(25, 30); // fills the hole
   EXPECT_EQ(c.bytes.size(), 3u);
   for (auto const& m : c.bytes) EXPECT_EQ(m, keepalive());
   // Bytes that are not BGP stop the stream and are counted.
   Bytes junk(24, 0x00);
   a.segment(y, x, 5, true, false, {}, 0.0);
   a.segment(y, x, 6, false, false, junk, 2.0);
   EXPECT_EQ(stats.desynchronised, 1u);
   EXPECT_EQ(c.bytes.size(), 3u);
}

TEST(BgpCaptureTest, ReadsTheCapturedPeerSessions) {
   std::string const dir = FS_TESTDATA_DIR;
   ASSERT_TRUE(std::filesystem::exists(dir + "/peers-pairs.pcap")) << "no test data at " << dir;
   for (char const* name : {"peers-pairs.pcap", "peers-verify.pcap"}) {
      SCOPED_TRACE(name);
      Collected c;
      BgpCapture::Stats stats;
      std::string error;
      ASSERT_TRUE(BgpCapture::readPcapFile(dir + "/" + name, c.sink(), stats, error)) << error;
      std::map<unsigned, int> byType;
      for (auto const& m : c.bytes) ++byType[m[18]];
      EXPECT_GT(byType[1], 0); // OPEN
      EXPECT_GT(byType[2], 0); // UPDATE
      EXPECT_GT(byType[4], 0); // KEEPALIVE
      EXPECT_EQ(stats.malformed, 0u);
      EXPECT_EQ(stats.gaps, 0u);
   }
   std::string error;
   BgpCapture::Stats stats;
   EXPECT_FALSE(BgpCapture::readPcapFile(
       dir + "/README.md", [](auto const&) {}, stats, error));
   EXPECT_NE(error.find("cannot read capture"), std::string::npos);
}

} // namespace
