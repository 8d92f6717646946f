// Bounds-checked reading of network byte order, for the BGP messages' fixed fields.
//
// ByteCursor reads from a view it does not own, through the host's packet position
// (host/bgp/BgpParse.h), the one bounds-checked reader of the project; Serialize
// (host/bgp/Serialize.h) is the one writer. Every read either succeeds and advances, or
// fails, returns false and leaves the position where it was. sub(n) splits off a cursor over
// the next n bytes (for a field bounded by a length) and advances past them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "host/bgp/BgpParse.h"

namespace Routing::Bgp {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<std::uint8_t const>;

class ByteCursor {
 public:
   explicit ByteCursor(ByteView bytes) : size_(bytes.size()), pos_(bytes) {}

   std::size_t remaining() const { return pos_.dataLeft(); }
   std::size_t position() const { return size_ - remaining(); }
   bool empty() const { return remaining() == 0; }
   // The bytes not read yet.
   ByteView rest() const { return pos_.rest(); }

   bool u8(std::uint8_t& v) { return pos_.consumeU8(&v); }
   bool u16(std::uint16_t& v) { return pos_.consumeU16ntoh(&v); }
   bool u32(std::uint32_t& v) { return pos_.consumeU32ntoh(&v); }
   // A view of the next n bytes; advances past them.
   bool view(std::size_t n, ByteView& v) { return pos_.consumeView(n, &v); }
   // A cursor over the next n bytes; advances past them.
   bool sub(std::size_t n, ByteCursor& c) {
      ByteView v;
      if (!view(n, v)) return false;
      c = ByteCursor(v);
      return true;
   }
   bool skip(std::size_t n) { return pos_.consumeView(n, nullptr); }

 private:
   std::size_t size_;
   BgpParsePktPosition pos_;
};

} // namespace Routing::Bgp
