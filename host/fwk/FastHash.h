// A fast hash of a short byte string, for the private use of hash tables (an index's home
// slots), never for values that are stored, sent or compared between processes: its
// constants are drawn at random when the process starts, so that a peer cannot choose
// input that collides in the agent's tables.
//
// Bytes are read eight at a time and folded through a 64 x 64 -> 128-bit multiply whose two
// halves are XORed, sixteen bytes per multiply; the last one to sixteen bytes are read as
// two overlapping words. A key of 30 bytes costs three multiplies, where a byte-at-a-time
// hash costs a chain of about 90 dependent operations.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Ovk {

namespace FastHashDetail {

struct Secrets {
   std::uint64_t s0;
   std::uint64_t s1;
   std::uint64_t s2;
};
// Drawn once per process.
Secrets const& secrets() noexcept;

inline std::uint64_t fold(std::uint64_t a, std::uint64_t b) noexcept {
   __extension__ using U128 = unsigned __int128;
   U128 const m = static_cast<U128>(a) * b;
   return static_cast<std::uint64_t>(m) ^ static_cast<std::uint64_t>(m >> 64);
}

inline std::uint64_t load64(std::uint8_t const* p) noexcept {
   std::uint64_t v;
   std::memcpy(&v, p, 8);
   return v;
}

inline std::uint64_t load32(std::uint8_t const* p) noexcept {
   std::uint32_t v;
   std::memcpy(&v, p, 4);
   return v;
}

} // namespace FastHashDetail

// The hash of `n` bytes at `p`, started from `seed` (which callers use to fold in a field
// that is not among the bytes).
inline std::uint32_t fastHash(void const* data, std::size_t n, std::uint64_t seed = 0) noexcept {
   using namespace FastHashDetail;
   Secrets const& k = secrets();
   auto const* p = static_cast<std::uint8_t const*>(data);
   std::uint64_t h = seed ^ k.s0 ^ (static_cast<std::uint64_t>(n) * k.s1);
   while (n > 16) {
      h = fold(load64(p) ^ k.s1, load64(p + 8) ^ h);
      p += 16;
      n -= 16;
   }
   std::uint64_t a = 0;
   std::uint64_t b = 0;
   if (n >= 8) {
      a = load64(p);
      b = load64(p + n - 8);
   } else if (n >= 4) {
      a = load32(p);
      b = load32(p + n - 4);
   } else if (n > 0) {
      a = std::uint64_t{p[0]} << 16 | std::uint64_t{p[n >> 1]} << 8 | p[n - 1];
   }
   h = fold(a ^ k.s1, b ^ h ^ k.s2);
   h = fold(h ^ k.s0, k.s2);
   return static_cast<std::uint32_t>(h ^ (h >> 32));
}

} // namespace Ovk
