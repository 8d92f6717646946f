// The flattened rule key under which the FSIB stores a rule.
//
// A FlowspecSlateKey is a FlowspecKey laid out as an array of 32-bit words, so that it can be
// copied into shared memory, compared and hashed as plain data, and read by a forwarding
// process that knows only this layout. It is default-constructed empty and filled with
// copyInFlowspecKey().
//
// Layout (every word in host byte order):
//   word 0      header: bits 0-7 address family of the key, 8-15 destination prefix
//               length, 16-23 source prefix length, 24-25 destination prefix family
//               (0 when the rule has no destination prefix), 26-27 source prefix family
//   then        the destination prefix address, ceil(length / 32) words, first address
//               byte in the top bits; bits beyond the length are zero
//   then        the source prefix address, likewise
//   then        one or two words per operator/value pair, in match-index order:
//               bits 24-30 component type, 16-23 operator byte, 0-15 the value when it fits
//               16 bits; when it does not, bit 31 is set, bits 0-15 are zero and the value
//               follows in the next word.
// Match indices are not stored: a key read back has its pairs indexed from 0.
//
// Every key an NLRI can carry fits the 2048-word bound (an NLRI body of at most 4095 bytes
// needs at most 2048 words in this layout). A longer key is a broken invariant of the caller
// and stops the process with the size error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/flowspec/FlowspecKey.h"

namespace Flowspec {

inline constexpr std::size_t slateKeyMaxWords = 2048;

// Stops the process with "PodArray::set expected size <= MAX, instead got SIZE. Buffer is at
// address: ADDRESS with contents: HEX DUMP".
[[noreturn]] void podArraySizeError(std::size_t max, std::size_t size, void const* data, std::size_t bytes);

// An array of plain values with a fixed upper bound on its size.
template <class T, std::size_t Max>
class PodArray {
 public:
   void set(T const* data, std::size_t size) {
      if (size > Max) podArraySizeError(Max, size, data, size * sizeof(T));
      v_.assign(data, data + size);
   }
   std::span<T const> span() const noexcept { return v_; }
   std::size_t size() const noexcept { return v_.size(); }
   friend bool operator==(PodArray const&, PodArray const&) = default;

 private:
   std::vector<T> v_;
};

class FlowspecSlateKey {
 public:
   FlowspecSlateKey() = default;

   // Replaces the contents with the flattened form of `key`. Prefix bits beyond the prefix
   // length do not take part in a match and are not kept.
   void copyInFlowspecKey(FlowspecKey const& key);
   // A slate key from words laid out as above (read from shared memory, say); empty when the
   // words are not a well-formed key in the shortest form copyInFlowspecKey writes.
   static std::optional<FlowspecSlateKey> fromWords(std::span<std::uint32_t const> words);

   std::span<std::uint32_t const> words() const noexcept { return words_.span(); }
   bool empty() const noexcept { return words_.size() == 0; }
   // The key this was filled from (pairs indexed from 0); a default key when empty.
   FlowspecKey flowspecKey() const;
   // Deterministic across processes and runs: Jenkins one-at-a-time over the words' bytes,
   // least significant byte first.
   std::uint32_t hash() const noexcept;
   // The rule text of the key.
   std::string toStrepCli() const;

   // Rule precedence (RFC 8955 section 5.1), then the words as a tie-break: negative when `a`
   // sorts first. Destination prefixes by FlowspecKey::cmpPrefix, then source prefixes, then
   // the components in turn: a rule that runs out of components sorts after one that has
   // more, a lower component type first, and for one type the operator/value bytes compared
   // as in memcmp, where of two byte strings one of which begins the other the longer sorts
   // first. 0 only for equal keys, so this is a total order.
   static int cmp(FlowspecSlateKey const& a, FlowspecSlateKey const& b);

   friend bool operator==(FlowspecSlateKey const&, FlowspecSlateKey const&) = default;
   friend bool operator<(FlowspecSlateKey const& a, FlowspecSlateKey const& b) { return cmp(a, b) < 0; }

 private:
   PodArray<std::uint32_t, slateKeyMaxWords> words_;
};

std::ostream& operator<<(std::ostream& os, FlowspecSlateKey const& key);

} // namespace Flowspec

template <>
struct std::hash<Flowspec::FlowspecSlateKey> {
   std::size_t operator()(Flowspec::FlowspecSlateKey const& k) const noexcept { return k.hash(); }
};
