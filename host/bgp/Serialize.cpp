#include "host/bgp/Serialize.h"

#include <cstring>

#include "host/fwk/Assert.h"

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

void Serialize::patchU8(std::size_t at, std::uint8_t v) {
   OVK_ASSERT(at < size_);
   data()[at] = v;
}

} // namespace Routing::Bgp
