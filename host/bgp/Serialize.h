// Byte builder for wire forms (next hops, NLRI, whole BGP messages).
//
// Bytes are appended to a 4096-byte buffer held inside the object, so the usual wire form
// (a BGP message is at most 4096 bytes) needs no allocation; a longer form moves to the heap
// and goes on growing. Integers are written in network byte order. Keep one on the stack for
// the duration of one serialization.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "host/fwk/String.h"
#include "host/net/IpGenAddr.h"

namespace Routing::Bgp {

class Serialize {
 public:
   static constexpr std::size_t kInlineCapacity = 4096;

   Serialize() = default;
   Serialize(Serialize const&) = delete;
   Serialize& operator=(Serialize const&) = delete;

   void addU8(std::uint8_t b) { addData(&b, 1); }
   void addU16(std::uint16_t v) {
      std::uint8_t const b[2] = {static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v)};
      addData(b, 2);
   }
   void addU32(std::uint32_t v) {
      addU16(static_cast<std::uint16_t>(v >> 16));
      addU16(static_cast<std::uint16_t>(v));
   }
   // Writes over bytes written before (a length field filled in once its content is known).
   // `at` and the bytes after it must have been written.
   void patchU8(std::size_t at, std::uint8_t v);
   void patchU16(std::size_t at, std::uint16_t v) {
      patchU8(at, static_cast<std::uint8_t>(v >> 8));
      patchU8(at + 1, static_cast<std::uint8_t>(v));
   }
   // Forgets every byte written, for the next form.
   void clear() noexcept {
      heap_.clear();
      size_ = 0;
   }
   void addData(std::uint8_t const* data, std::size_t n);
   void addData(std::span<std::uint8_t const> data) { addData(data.data(), data.size()); }
   // The string's bytes, without a length.
   void addString(Ovk::String const& s) { addData(s.span()); }
   // The address bytes in network order: 4 for IPv4, 16 for IPv6, none when unspecified.
   void addIpGenAddr(Ovnet::IpGenAddr const& addr) { addData(addr.bytes()); }

   std::size_t size() const noexcept { return size_; }
   std::span<std::uint8_t const> bytes() const noexcept { return {data(), size_}; }
   // A copy of the bytes written so far.
   Ovk::String serializedString() const { return Ovk::String(data(), size_); }
   std::vector<std::uint8_t> byteVector() const { return {data(), data() + size_}; }

 private:
   std::uint8_t const* data() const noexcept { return heap_.empty() ? inline_.data() : heap_.data(); }
   std::uint8_t* data() noexcept { return heap_.empty() ? inline_.data() : heap_.data(); }

   std::array<std::uint8_t, kInlineCapacity> inline_;
   std::vector<std::uint8_t> heap_; // used once the bytes outgrow inline_
   std::size_t size_ = 0;
};

} // namespace Routing::Bgp
