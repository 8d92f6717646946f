// bgp-capture-list: lists the BGP messages found in an MRT dump or a pcap file, one line each
// (time, sender, receiver, message type, length), then the reader's counters.
#include <cstdio>
#include <iostream>
#include <string>

#include "tools/capture/BgpCapture.h"

int main(int argc, char** argv) {
   if (argc != 3 || (std::string(argv[1]) != "--mrt" && std::string(argv[1]) != "--pcap")) {
      std::cerr << "usage: bgp-capture-list --mrt FILE | --pcap FILE\n";
      return 2;
   }
   static char const* const kTypes[] = {"?", "OPEN", "UPDATE", "NOTIFICATION", "KEEPALIVE", "ROUTE-REFRESH"};
   BgpCapture::Stats stats;
   std::string error;
   auto sink = [](BgpCapture::Message const& m) {
      unsigned const type = m.bytes[18];
      std::printf("%.6f %s -> %s %s %zu\n", m.timestamp, m.from.str().c_str(), m.to.str().c_str(),
                  type < 6 ? kTypes[type] : "?", m.bytes.size());
   };
   bool const ok = std::string(argv[1]) == "--mrt" ? BgpCapture::readMrtFile(argv[2], sink, stats, error)
                                                   : BgpCapture::readPcapFile(argv[2], sink, stats, error);
   if (!ok) {
      std::cerr << "bgp-capture-list: " << error << '\n';
      return 1;
   }
   std::printf("records %llu, messages %llu, skipped %llu, malformed %llu, desynchronised %llu, gaps %llu\n",
               static_cast<unsigned long long>(stats.records), static_cast<unsigned long long>(stats.messages),
               static_cast<unsigned long long>(stats.skipped), static_cast<unsigned long long>(stats.malformed),
               static_cast<unsigned long long>(stats.desynchronised), static_cast<unsigned long long>(stats.gaps));
   return 0;
}
