#include "host/bgp/Serialize.h"

#include <cstring>

namespace Routing::Bgp {

void Serialize::addData(std::uint8_t const* data, std::size_t n) {
   if (n == 0) return;
   if (heap_.empty() && size_ + n <= kInlineCapacity) {
      std::memcpy(inline_.data() + size_, data, n);
   } else {
      if (heap_.empty()) heap_.assign(inline_.begin(), inline_.begin() + static_cast<std::ptrdiff_t>(size_));
      heap_.insert(heap_.end(), data, data + n);
   }
   size_ += n;
}

} // namespace Routing::Bgp
