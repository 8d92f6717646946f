#include "tools/capture/BgpCapture.h"

#include "host/bgp/BgpMessage.h"

#include "host/bgp/BgpParse.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>

namespace BgpCapture {

namespace {

using Cursor = Routing::Bgp::BgpParsePktPosition;

// An address of the MRT record's AFI (1 IPv4, 2 IPv6).
bool consumeAddress(Cursor& c, std::uint16_t afi, Ovnet::IpGenAddr& a) {
   if (afi == 1) return c.consumeIpv4GenAddress(&a);
   if (afi == 2) return c.consumeIpv6GenAddress(&a);
   return false;
}

// MRT types and BGP4MP subtypes (RFC 6396 section 4.4, RFC 8050 for the ADD-PATH ones).
constexpr std::uint16_t kBgp4mp = 16;
constexpr std::uint16_t kBgp4mpEt = 17;

struct SubtypeShape {
   bool message; // carries a BGP message (not a state change)
   bool as4;
};

bool subtypeShape(std::uint16_t subtype, SubtypeShape& s) {
   switch (subtype) {
   case 1:
   case 6:
   case 8:
   case 10: s = {true, false}; return true; // MESSAGE, _LOCAL, _ADDPATH
   case 4:
   case 7:
   case 9:
   case 11: s = {true, true}; return true; // MESSAGE_AS4 and friends
   default: return false;
   }
}

// One whole message, as the sessions' framer reads a header.
bool isBgpMessage(std::span<std::uint8_t const> m) {
   if (m.size() < Routing::Bgp::kHeaderSize) return false;
   auto const header = Routing::Bgp::parseHeader(m.first(Routing::Bgp::kHeaderSize), kMaxMessage);
   return header && header.value().length == m.size();
}

} // namespace

void readMrt(std::span<std::uint8_t const> data, MessageSink const& sink, Stats& stats) {
   Cursor c(data);
   while (c.dataLeft() > 0) {
      std::uint32_t seconds = 0, length = 0;
      std::uint16_t type = 0, subtype = 0;
      std::span<std::uint8_t const> body;
      if (!c.consumeU32ntoh(&seconds) || !c.consumeU16ntoh(&type) || !c.consumeU16ntoh(&subtype) ||
          !c.consumeU32ntoh(&length) || !c.consumeView(length, &body)) {
         ++stats.malformed; // a truncated last record: nothing after it can be framed
         return;
      }
      ++stats.records;
      SubtypeShape shape{};
      if ((type != kBgp4mp && type != kBgp4mpEt) || !subtypeShape(subtype, shape)) {
         ++stats.skipped;
         continue;
      }
      Cursor r(body);
      Message m;
      m.timestamp = seconds;
      if (type == kBgp4mpEt) {
         std::uint32_t micro = 0;
         if (!r.consumeU32ntoh(&micro)) {
            ++stats.malformed;
            continue;
         }
         m.timestamp += micro / 1e6;
      }
      std::uint16_t ifIndex = 0, afi = 0;
      bool ok = true;
      if (shape.as4) {
         ok = r.consumeU32ntoh(&m.peerAs) && r.consumeU32ntoh(&m.localAs);
      } else {
         std::uint16_t p = 0, l = 0;
         ok = r.consumeU16ntoh(&p) && r.consumeU16ntoh(&l);
         m.peerAs = p;
         m.localAs = l;
      }
      ok = ok && r.consumeU16ntoh(&ifIndex) && r.consumeU16ntoh(&afi) && consumeAddress(r, afi, m.from.address) &&
           consumeAddress(r, afi, m.to.address);
      if (!ok || !isBgpMessage(r.rest())) {
         ++stats.malformed;
         continue;
      }
      m.bytes = r.rest();
      ++stats.messages;
      sink(m);
   }
}

bool readMrtFile(std::string const& path, MessageSink const& sink, Stats& stats, std::string& error) {
   std::ifstream in(path, std::ios::binary);
   if (!in) {
      error = "cannot open " + path;
      return false;
   }
   std::vector<std::uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
   if (in.bad()) {
      error = "cannot read " + path;
      return false;
   }
   readMrt(data, sink, stats);
   return true;
}

struct StreamAssembler::Stream {
   Endpoint from, to;
   bool started = false;
   bool dead = false;         // desynchronised: ignore the rest of the stream
   std::uint32_t nextSeq = 0; // sequence number of the next byte expected
   // Contiguous bytes, cut into messages by the sessions' own framer.
   Routing::Bgp::MessageFramer framer{kMaxMessage};
   std::map<std::uint32_t, std::vector<std::uint8_t>> pending; // early segments, by seq
};

StreamAssembler::StreamAssembler(MessageSink sink, Stats& stats) : sink_(std::move(sink)), stats_(stats) {}
StreamAssembler::~StreamAssembler() = default;

StreamAssembler::Stream& StreamAssembler::stream(Endpoint const& from, Endpoint const& to) {
   for (auto& s : streams_) {
      if (s->from.port == from.port && s->to.port == to.port && s->from.address == from.address &&
          s->to.address == to.address) {
         return *s;
      }
   }
   streams_.push_back(std::make_unique<Stream>());
   streams_.back()->from = from;
   streams_.back()->to = to;
   return *streams_.back();
}

void StreamAssembler::segment(Endpoint const& from, Endpoint const& to, std::uint32_t seq, bool syn, bool fin,
                              std::span<std::uint8_t const> payload, double timestamp) {
   Stream& s = stream(from, to);
   if (syn) {
      // A new connection on the same ports starts a new stream.
      s.started = true;
      s.dead = false;
      s.nextSeq = seq + 1;
      s.framer = Routing::Bgp::MessageFramer(kMaxMessage);
      s.pending.clear();
      return;
   }
   if (s.dead || payload.empty()) {
      (void)fin;
      return;
   }
   if (!s.started) {
      // The capture began mid-stream: take the first data segment seen as the start.
      s.started = true;
      s.nextSeq = seq;
   }
   // Signed distance handles sequence-number wrap-around.
   auto const ahead = static_cast<std::int32_t>(seq - s.nextSeq);
   if (ahead > 0) {
      if (s.pending.size() < 4096) s.pending[seq].assign(payload.begin(), payload.end());
      return;
   }
   auto const overlap = static_cast<std::size_t>(-static_cast<std::int64_t>(ahead));
   if (overlap < payload.size()) {
      s.framer.feed(payload.subspan(overlap));
      s.nextSeq += static_cast<std::uint32_t>(payload.size() - overlap);
   }
   // Segments that were early may fit now.
   for (auto it = s.pending.begin(); it != s.pending.end();) {
      auto const d = static_cast<std::int32_t>(it->first - s.nextSeq);
      if (d > 0) {
         ++it;
         continue;
      }
      auto const skip = static_cast<std::size_t>(-static_cast<std::int64_t>(d));
      if (skip < it->second.size()) {
         s.framer.feed(std::span<std::uint8_t const>(it->second).subspan(skip));
         s.nextSeq += static_cast<std::uint32_t>(it->second.size() - skip);
      }
      it = s.pending.erase(it);
      it = s.pending.begin();
   }
   drain(s, from, to, timestamp);
}

void StreamAssembler::finish() {
   for (auto& s : streams_) {
      if (!s->pending.empty()) ++stats_.gaps;
      s->pending.clear();
   }
}

void StreamAssembler::drain(Stream& s, Endpoint const& from, Endpoint const& to, double timestamp) {
   while (auto next = s.framer.nextView()) {
      if (!*next) {
         // Not BGP, or the bytes stopped looking like it: nothing after can be framed.
         ++stats_.desynchronised;
         s.dead = true;
         s.pending.clear();
         return;
      }
      Message m;
      m.timestamp = timestamp;
      m.from = from;
      m.to = to;
      m.bytes = next->value().bytes;
      ++stats_.messages;
      sink_(m);
   }
}

namespace {

// Finds the IP packet inside one captured frame; false for frames that carry no IP.
bool ipPayload(int linkType, Cursor& c, std::uint16_t& etherType) {
   switch (linkType) {
   case DLT_EN10MB: {
      if (!c.consumeView(12, nullptr) || !c.consumeU16ntoh(&etherType)) return false;
      while (etherType == 0x8100 || etherType == 0x88a8) { // VLAN tags
         if (!c.consumeView(2, nullptr) || !c.consumeU16ntoh(&etherType)) return false;
      }
      return true;
   }
   case DLT_LINUX_SLL: return c.consumeView(14, nullptr) && c.consumeU16ntoh(&etherType);
   case DLT_LINUX_SLL2: return c.consumeU16ntoh(&etherType) && c.consumeView(18, nullptr);
   case DLT_NULL:
   case DLT_LOOP: {
      std::span<std::uint8_t const> fam;
      if (!c.consumeView(4, &fam)) return false;
      // Host byte order for DLT_NULL, network order for DLT_LOOP; IPv6 has several values.
      std::uint32_t const le = std::uint32_t{fam[0]} | (std::uint32_t{fam[3]} << 24);
      std::uint32_t const be = std::uint32_t{fam[3]} | (std::uint32_t{fam[0]} << 24);
      std::uint32_t const v = le < 256 ? le : be;
      etherType = v == 2 ? 0x0800 : (v == 24 || v == 28 || v == 30) ? 0x86dd : 0;
      return etherType != 0;
   }
   case DLT_RAW: {
      std::span<std::uint8_t const> rest = c.rest();
      if (rest.empty()) return false;
      etherType = (rest[0] >> 4) == 6 ? 0x86dd : 0x0800;
      return true;
   }
   default: return false;
   }
}

} // namespace

namespace {

// What a layer of a captured frame made of it: the frame goes on to the next layer, or is
// counted as skipped or malformed, or (an IPv4 packet whose payload cannot be cut) ends
// without a count.
enum class Frame { next, skipped, malformed, ended };

void count(Frame f, Stats& stats) {
   if (f == Frame::skipped) ++stats.skipped;
   if (f == Frame::malformed) ++stats.malformed;
}

// The IP layer of a frame: its addresses, the protocol it carries and the bytes it carries.
struct IpPacket {
   Endpoint from;
   Endpoint to;
   std::uint8_t proto = 0;
   std::span<std::uint8_t const> payload;
};

Frame ipv4Packet(Cursor& c, IpPacket& ip) {
   std::uint8_t vihl = 0, tos = 0, ttl = 0;
   std::uint16_t total = 0, id = 0, frag = 0, csum = 0;
   std::span<std::uint8_t const> src, dst;
   if (!c.consumeU8(&vihl) || !c.consumeU8(&tos) || !c.consumeU16ntoh(&total) || !c.consumeU16ntoh(&id) ||
       !c.consumeU16ntoh(&frag) || !c.consumeU8(&ttl) || !c.consumeU8(&ip.proto) || !c.consumeU16ntoh(&csum) ||
       !c.consumeView(4, &src) || !c.consumeView(4, &dst)) {
      return Frame::malformed;
   }
   std::size_t const ihl = std::size_t{vihl & 0x0fu} * 4;
   if ((vihl >> 4) != 4 || ihl < 20 || total < ihl || !c.consumeView(ihl - 20, nullptr)) return Frame::malformed;
   if ((frag & 0x3fff) != 0) return Frame::skipped; // fragments are not reassembled
   ip.from.address = Ovnet::IpGenAddr::ipv4(src.first<4>());
   ip.to.address = Ovnet::IpGenAddr::ipv4(dst.first<4>());
   if (!c.consumeView(std::min<std::size_t>(total - ihl, c.dataLeft()), &ip.payload)) return Frame::ended;
   return Frame::next;
}

Frame ipv6Packet(Cursor& c, IpPacket& ip) {
   std::uint32_t vtcfl = 0;
   std::uint16_t payloadLen = 0;
   std::uint8_t hop = 0;
   std::span<std::uint8_t const> src, dst;
   if (!c.consumeU32ntoh(&vtcfl) || !c.consumeU16ntoh(&payloadLen) || !c.consumeU8(&ip.proto) || !c.consumeU8(&hop) ||
       !c.consumeView(16, &src) || !c.consumeView(16, &dst)) {
      return Frame::malformed;
   }
   ip.from.address = Ovnet::IpGenAddr::ipv6(src.first<16>());
   ip.to.address = Ovnet::IpGenAddr::ipv6(dst.first<16>());
   Cursor body(c.rest().first(std::min<std::size_t>(payloadLen, c.dataLeft())));
   // Hop-by-hop, routing and destination options headers precede TCP.
   while (ip.proto == 0 || ip.proto == 43 || ip.proto == 60) {
      std::uint8_t next = 0, len = 0;
      bool const ok =
          body.consumeU8(&next) && body.consumeU8(&len) && body.consumeView(std::size_t{len} * 8 + 6, nullptr);
      ip.proto = next;
      if (!ok) return Frame::malformed;
   }
   ip.payload = body.rest();
   return Frame::next;
}

// The TCP layer: the segment's header read, its payload handed to the stream reassembly.
Frame tcpSegment(IpPacket& ip, double timestamp, StreamAssembler& assembler) {
   if (ip.proto != 6) return Frame::skipped;
   Cursor t(ip.payload);
   std::uint16_t sport = 0, dport = 0, flagsWord = 0;
   std::uint32_t seq = 0, ack = 0;
   if (!t.consumeU16ntoh(&sport) || !t.consumeU16ntoh(&dport) || !t.consumeU32ntoh(&seq) || !t.consumeU32ntoh(&ack) ||
       !t.consumeU16ntoh(&flagsWord)) {
      return Frame::malformed;
   }
   std::size_t const off = std::size_t{static_cast<unsigned>(flagsWord >> 12)} * 4;
   if (off < 20 || !t.consumeView(off - 14, nullptr)) return Frame::malformed;
   ip.from.port = sport;
   ip.to.port = dport;
   bool const syn = flagsWord & 0x02;
   bool const fin = flagsWord & 0x01;
   assembler.segment(ip.from, ip.to, seq, syn, fin, t.rest(), timestamp);
   return Frame::next;
}

// One captured frame, through the link, IP and TCP layers.
Frame record(int linkType, pcap_pkthdr const& hdr, u_char const* data, StreamAssembler& assembler) {
   Cursor c(std::span<std::uint8_t const>(data, hdr.caplen));
   double const ts = static_cast<double>(hdr.ts.tv_sec) + static_cast<double>(hdr.ts.tv_usec) / 1e6;
   std::uint16_t etherType = 0;
   if (!ipPayload(linkType, c, etherType) || (etherType != 0x0800 && etherType != 0x86dd)) return Frame::skipped;
   IpPacket ip;
   Frame const f = etherType == 0x0800 ? ipv4Packet(c, ip) : ipv6Packet(c, ip);
   if (f != Frame::next) return f;
   return tcpSegment(ip, ts, assembler);
}

using PcapHandle = std::unique_ptr<pcap_t, decltype(&pcap_close)>;

// The capture's file header: the file open, its link type one that ipPayload reads.
PcapHandle openCapture(std::string const& path, int& linkType, std::string& error) {
   char errbuf[PCAP_ERRBUF_SIZE] = {};
   PcapHandle p(pcap_open_offline(path.c_str(), errbuf), pcap_close);
   if (!p) {
      error = std::string("cannot read capture ") + path + ": " + errbuf;
      return p;
   }
   linkType = pcap_datalink(p.get());
   if (linkType != DLT_EN10MB && linkType != DLT_LINUX_SLL && linkType != DLT_LINUX_SLL2 && linkType != DLT_NULL &&
       linkType != DLT_LOOP && linkType != DLT_RAW) {
      error = "unsupported link type " + std::to_string(linkType) + " in " + path;
      p.reset();
   }
   return p;
}

} // namespace

bool readPcapFile(std::string const& path, MessageSink const& sink, Stats& stats, std::string& error) {
   int linkType = 0;
   PcapHandle const p = openCapture(path, linkType, error);
   if (!p) return false;
   StreamAssembler assembler(sink, stats);
   pcap_pkthdr* hdr = nullptr;
   u_char const* data = nullptr;
   int rc = 0;
   while ((rc = pcap_next_ex(p.get(), &hdr, &data)) == 1) {
      ++stats.records;
      count(record(linkType, *hdr, data, assembler), stats);
   }
   assembler.finish();
   if (rc == PCAP_ERROR) {
      error = std::string("error reading ") + path + ": " + pcap_geterr(p.get());
      return false;
   }
   return true;
}

} // namespace BgpCapture
