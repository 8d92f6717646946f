// Reading BGP messages out of captures: MRT dumps (RFC 6396, BGP4MP and BGP4MP_ET message
// records, as BGP speakers write them) and packet captures (pcap files of BGP over TCP,
// with each TCP stream reassembled and cut into messages by the BGP header's length).
//
// Readers never throw on bad input: records or packets they cannot use are counted in
// Stats and skipped. Each whole BGP message found (marker included) is handed to the sink
// in file order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "host/net/Endpoint.h"
#include "host/net/IpGenAddr.h"

namespace BgpCapture {

using Ovnet::Endpoint;

struct Message {
   double timestamp = 0;                // seconds since the epoch, with fraction
   Endpoint from;                       // MRT: the peer; pcap: the sender
   Endpoint to;                         // MRT: the local side; pcap: the receiver
   std::uint32_t peerAs = 0;            // MRT only
   std::uint32_t localAs = 0;           // MRT only
   std::span<std::uint8_t const> bytes; // one whole BGP message; valid during the sink call
};

using MessageSink = std::function<void(Message const&)>;

struct Stats {
   std::uint64_t records = 0;        // MRT records or captured packets read
   std::uint64_t messages = 0;       // BGP messages handed to the sink
   std::uint64_t skipped = 0;        // records / packets of other kinds (not BGP4MP, not TCP)
   std::uint64_t malformed = 0;      // records or packets whose own framing is broken
   std::uint64_t desynchronised = 0; // TCP streams that are not BGP, or whose bytes stopped looking like it
   std::uint64_t gaps = 0;           // TCP streams with bytes missing from the capture
};

// The largest BGP message accepted (RFC 8654 extended messages).
inline constexpr std::size_t kMaxMessage = 65535;

// Reads an MRT file. False, with `error` set, when the file cannot be read at all.
bool readMrtFile(std::string const& path, MessageSink const& sink, Stats& stats, std::string& error);
// Reads MRT records from memory.
void readMrt(std::span<std::uint8_t const> data, MessageSink const& sink, Stats& stats);

// Reads a pcap or pcapng file through libpcap. False, with `error` set, when it cannot be
// opened or its link type is not one of Ethernet, Linux cooked (v1, v2), BSD loopback or raw IP.
bool readPcapFile(std::string const& path, MessageSink const& sink, Stats& stats, std::string& error);

// Cuts the reassembled bytes of TCP streams into BGP messages; used by the pcap reader and
// usable on its own (for example on bytes read from a socket log).
class StreamAssembler {
 public:
   StreamAssembler(MessageSink sink, Stats& stats);
   ~StreamAssembler();
   StreamAssembler(StreamAssembler const&) = delete;
   StreamAssembler& operator=(StreamAssembler const&) = delete;
   // One TCP segment of the stream from -> to. `syn` marks a SYN (its sequence number
   // counts one byte). Segments may come out of order or repeated.
   void segment(Endpoint const& from, Endpoint const& to, std::uint32_t seq, bool syn, bool fin,
                std::span<std::uint8_t const> payload, double timestamp);
   // The capture ended: streams still waiting for missing bytes count as gaps.
   void finish();

 private:
   struct Stream;
   Stream& stream(Endpoint const& from, Endpoint const& to);
   void drain(Stream& s, Endpoint const& from, Endpoint const& to, double timestamp);

   MessageSink sink_;
   Stats& stats_;
   std::vector<std::unique_ptr<Stream>> streams_;
};

} // namespace BgpCapture
