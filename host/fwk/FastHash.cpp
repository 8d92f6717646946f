#include "host/fwk/FastHash.h"

#include <sys/random.h>

namespace Ovk::FastHashDetail {

Secrets const& secrets() noexcept {
   static Secrets const k = [] {
      // Odd constants with as many ones as zeros, changed by the random draw in their upper
      // halves only: a multiplier must keep its bits spread.
      Secrets s{0xa0761d6478bd642full, 0xe7037ed1a0b428dbull, 0x8ebc6af09c88c6e3ull};
      std::uint32_t r[3] = {};
      if (::getrandom(r, sizeof r, 0) == static_cast<ssize_t>(sizeof r)) {
         s.s0 ^= std::uint64_t{r[0]} << 32;
         s.s1 ^= std::uint64_t{r[1]} << 32;
         s.s2 ^= std::uint64_t{r[2]} << 32;
      }
      return s;
   }();
   return k;
}

} // namespace Ovk::FastHashDetail
