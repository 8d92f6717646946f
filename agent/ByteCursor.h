// Bounds-checked reading and writing of network byte order.
//
// ByteCursor reads from a view it does not own. Every read either succeeds and advances, or
// fails, returns false and leaves the position where it was. sub(n) splits off a cursor over
// the next n bytes (for a field bounded by a length) and advances past them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Flowspecd {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<std::uint8_t const>;

class ByteCursor {
 public:
   explicit ByteCursor(ByteView bytes) : bytes_(bytes) {}

   std::size_t remaining() const { return bytes_.size() - pos_; }
   std::size_t position() const { return pos_; }
   bool empty() const { return remaining() == 0; }
   // The bytes not read yet.
   ByteView rest() const { return bytes_.subspan(pos_); }

   bool u8(std::uint8_t& v) {
      if (remaining() < 1) return false;
      v = bytes_[pos_++];
      return true;
   }
   bool u16(std::uint16_t& v) {
      if (remaining() < 2) return false;
      v = static_cast<std::uint16_t>((bytes_[pos_] << 8) | bytes_[pos_ + 1]);
      pos_ += 2;
      return true;
   }
   bool u32(std::uint32_t& v) {
      if (remaining() < 4) return false;
      v = (std::uint32_t{bytes_[pos_]} << 24) | (std::uint32_t{bytes_[pos_ + 1]} << 16) |
          (std::uint32_t{bytes_[pos_ + 2]} << 8) | std::uint32_t{bytes_[pos_ + 3]};
      pos_ += 4;
      return true;
   }
   // A view of the next n bytes; advances past them.
   bool view(std::size_t n, ByteView& v) {
      if (remaining() < n) return false;
      v = bytes_.subspan(pos_, n);
      pos_ += n;
      return true;
   }
   // A cursor over the next n bytes; advances past them.
   bool sub(std::size_t n, ByteCursor& c) {
      ByteView v;
      if (!view(n, v)) return false;
      c = ByteCursor(v);
      return true;
   }
   bool skip(std::size_t n) {
      if (remaining() < n) return false;
      pos_ += n;
      return true;
   }

 private:
   ByteView bytes_;
   std::size_t pos_ = 0;
};

// Appends network byte order to a byte vector.
class ByteWriter {
 public:
   explicit ByteWriter(Bytes& out) : out_(out) {}
   void u8(std::uint8_t v) { out_.push_back(v); }
   void u16(std::uint16_t v) {
      out_.push_back(static_cast<std::uint8_t>(v >> 8));
      out_.push_back(static_cast<std::uint8_t>(v));
   }
   void u32(std::uint32_t v) {
      u16(static_cast<std::uint16_t>(v >> 16));
      u16(static_cast<std::uint16_t>(v));
   }
   void bytes(ByteView v) { out_.insert(out_.end(), v.begin(), v.end()); }
   std::size_t size() const { return out_.size(); }
   // Writes a 16-bit value over two bytes already written at `at`.
   void patchU16(std::size_t at, std::uint16_t v) {
      out_.at(at) = static_cast<std::uint8_t>(v >> 8);
      out_.at(at + 1) = static_cast<std::uint8_t>(v);
   }
   void patchU8(std::size_t at, std::uint8_t v) { out_.at(at) = v; }

 private:
   Bytes& out_;
};

} // namespace Flowspecd
