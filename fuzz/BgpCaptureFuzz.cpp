// Arbitrary bytes as an MRT file and as the payload of TCP segments: the readers must hand
// on only whole, well-framed BGP messages and never read outside the input.
#include <cstddef>
#include <cstdint>
#include <span>

#include "host/bgp/BgpMessage.h"
#include "tools/capture/BgpCapture.h"

namespace {

void check(BgpCapture::Message const& m) {
   if (m.bytes.size() < Routing::Bgp::kHeaderSize) __builtin_trap();
   std::size_t const len = (std::size_t{m.bytes[16]} << 8) | m.bytes[17];
   if (len != m.bytes.size()) __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   std::span<std::uint8_t const> in(data, size);
   BgpCapture::Stats stats;
   BgpCapture::readMrt(in, check, stats);

   // The same bytes as a TCP stream cut into segments whose sizes come from the input.
   BgpCapture::StreamAssembler a(check, stats);
   BgpCapture::Endpoint x, y;
   y.port = 179;
   a.segment(x, y, 0, true, false, {}, 0);
   std::uint32_t seq = 1;
   std::size_t pos = 0;
   while (pos < size) {
      std::size_t const n = std::min<std::size_t>(size - pos, 1 + data[pos] % 64);
      a.segment(x, y, seq, false, false, in.subspan(pos, n), 0);
      seq += static_cast<std::uint32_t>(n);
      pos += n;
   }
   a.finish();
   return 0;
}
