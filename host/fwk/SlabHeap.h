// A heap for many small objects of a few sizes (a million route keys): blocks in steps of 8
// bytes carved from 64 KiB slabs, one set of slabs per size.
//
// A block costs its own bytes: no header in front of it and no rounding beyond the 8-byte
// step (malloc adds 8 bytes and rounds to 16 on top), and taking or giving one back is a
// free-list push or pop. A slab that empties gives its pages back to the system at once
// (one empty slab per size is kept for the next allocation), so a table that goes with its
// session leaves the process's resident memory.
//
// Slabs lie in one region of address space reserved at the first allocation (without
// memory behind it until a slab is used), so a block is told from one of the system heap by
// its address. Requests above kMaxBytes, and any after the region is used up, go to the
// system heap, and so does every request in a build under the address sanitizer (which
// watches the system heap's blocks). Blocks are 8-byte aligned. Thread-safe (a spin lock: the agent's task thread
// is its only user in practice).
#pragma once

#include <cstddef>

namespace Ovk {

class SlabHeap {
 public:
   static constexpr std::size_t kMaxBytes = 512;
   static constexpr std::size_t kSlabBytes = 64 * 1024;

   static void* allocate(std::size_t bytes);
   static void deallocate(void* p) noexcept;

   struct Stats {
      std::size_t slabs = 0;      // slabs with memory behind them (in use, or one kept empty)
      std::size_t blocks = 0;     // blocks in use
      std::size_t blockBytes = 0; // their bytes
   };
   static Stats stats();
};

} // namespace Ovk
