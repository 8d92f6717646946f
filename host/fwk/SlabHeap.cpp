#include "host/fwk/SlabHeap.h"

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <new>
#include <vector>

#include "host/fwk/Assert.h"

namespace Ovk {

namespace {

constexpr std::size_t kStep = 8;
constexpr std::size_t kClasses = SlabHeap::kMaxBytes / kStep + 1; // class c holds blocks of c * 8 bytes
// The region reserved for slabs: as large as the system lets us reserve, down to 256 MiB.
constexpr std::size_t kRegionMax = std::size_t{64} << 30;
constexpr std::size_t kRegionMin = std::size_t{256} << 20;

struct Slab;

// What a size class keeps: the slabs with free blocks (a list), and one empty slab kept for
// the next allocation so that a block taken and given back in turn does not map and unmap.
struct SizeClass {
   Slab* partial = nullptr;
   Slab* spare = nullptr;
};

// The header at the start of each slab; its blocks follow.
struct Slab {
   std::uint32_t blockBytes = 0;
   std::uint32_t used = 0;
   std::uint32_t capacity = 0;
   std::uint32_t sizeClass = 0;
   void* freeList = nullptr; // blocks given back
   char* bump = nullptr;     // blocks never handed out start here
   Slab* prev = nullptr; // in the class's partial list
   Slab* next = nullptr;
   bool listed = false;
};
constexpr std::size_t kHeaderBytes = (sizeof(Slab) + 15) / 16 * 16;

class Heap {
 public:
   void* allocate(std::size_t bytes) {
      std::size_t const c = (bytes + kStep - 1) / kStep;
      Lock lock(busy_);
      if (!reserved_) reserve();
      SizeClass& cls = classes_[c];
      Slab* s = cls.partial;
      if (!s) {
         if (cls.spare) {
            s = cls.spare;
            cls.spare = nullptr;
         } else {
            s = newSlab(c);
            if (!s) return nullptr;
         }
         listIn(cls, s);
      }
      void* p = nullptr;
      if (s->freeList) {
         p = s->freeList;
         s->freeList = *static_cast<void**>(p);
      } else {
         p = s->bump;
         s->bump += s->blockBytes;
      }
      ++s->used;
      ++blocks_;
      blockBytes_ += s->blockBytes;
      if (s->used == s->capacity) listOut(cls, s);
      return p;
   }

   bool owns(void const* p) const {
      auto const a = reinterpret_cast<std::uintptr_t>(p);
      return a >= base_ && a < base_ + size_;
   }

   void deallocate(void* p) {
      auto* s = reinterpret_cast<Slab*>(reinterpret_cast<std::uintptr_t>(p) & ~(SlabHeap::kSlabBytes - 1));
      Lock lock(busy_);
      SizeClass& cls = classes_[s->sizeClass];
      *static_cast<void**>(p) = s->freeList;
      s->freeList = p;
      --s->used;
      --blocks_;
      blockBytes_ -= s->blockBytes;
      if (!s->listed) listIn(cls, s);
      if (s->used != 0) return;
      // An empty slab: kept as the class's spare, or its pages go back to the system.
      listOut(cls, s);
      if (!cls.spare) {
         cls.spare = s;
         resetBlocks(s);
         return;
      }
      release(s);
   }

   SlabHeap::Stats stats() {
      Lock lock(busy_);
      return {slabs_, blocks_, blockBytes_};
   }

 private:
   struct Lock {
      explicit Lock(std::atomic_flag& f) : flag(f) {
         while (flag.test_and_set(std::memory_order_acquire)) {
         }
      }
      ~Lock() { flag.clear(std::memory_order_release); }
      std::atomic_flag& flag;
   };

   void reserve() {
      reserved_ = true;
      for (std::size_t size = kRegionMax; size >= kRegionMin; size /= 2) {
         // Address space only: no memory is committed until a slab is written.
         void* const m = ::mmap(nullptr, size + SlabHeap::kSlabBytes, PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
         if (m == MAP_FAILED) continue;
         auto const start = reinterpret_cast<std::uintptr_t>(m);
         base_ = (start + SlabHeap::kSlabBytes - 1) & ~(SlabHeap::kSlabBytes - 1);
         size_ = size;
         next_ = base_;
         return;
      }
   }

   Slab* newSlab(std::size_t c) {
      Slab* s = nullptr;
      if (!freeSlabs_.empty()) {
         s = reinterpret_cast<Slab*>(freeSlabs_.back());
         freeSlabs_.pop_back();
      } else if (next_ + SlabHeap::kSlabBytes <= base_ + size_) {
         s = reinterpret_cast<Slab*>(next_);
         next_ += SlabHeap::kSlabBytes;
      } else {
         return nullptr; // the region is used up: the system heap takes over
      }
      new (s) Slab();
      s->blockBytes = static_cast<std::uint32_t>(c * kStep);
      s->sizeClass = static_cast<std::uint32_t>(c);
      s->capacity = static_cast<std::uint32_t>((SlabHeap::kSlabBytes - kHeaderBytes) / s->blockBytes);
      resetBlocks(s);
      ++slabs_;
      return s;
   }

   static void resetBlocks(Slab* s) {
      s->freeList = nullptr;
      s->bump = reinterpret_cast<char*>(s) + kHeaderBytes;
   }

   void release(Slab* s) {
      --slabs_;
      // The pages go back (nothing is written to them after: the list of such slabs is kept
      // apart); the address space stays the region's, for the next slab.
      ::madvise(s, SlabHeap::kSlabBytes, MADV_DONTNEED);
      freeSlabs_.push_back(reinterpret_cast<std::uintptr_t>(s));
   }

   static void listIn(SizeClass& cls, Slab* s) {
      s->prev = nullptr;
      s->next = cls.partial;
      if (cls.partial) cls.partial->prev = s;
      cls.partial = s;
      s->listed = true;
   }
   static void listOut(SizeClass& cls, Slab* s) {
      if (!s->listed) return;
      if (s->prev) s->prev->next = s->next;
      if (s->next) s->next->prev = s->prev;
      if (cls.partial == s) cls.partial = s->next;
      s->prev = s->next = nullptr;
      s->listed = false;
   }

   std::atomic_flag busy_ = ATOMIC_FLAG_INIT;
   bool reserved_ = false;
   std::uintptr_t base_ = 0;
   std::size_t size_ = 0;
   std::uintptr_t next_ = 0;
   std::vector<std::uintptr_t> freeSlabs_; // slabs whose pages went back
   SizeClass classes_[kClasses];
   std::size_t slabs_ = 0;
   std::size_t blocks_ = 0;
   std::size_t blockBytes_ = 0;
};

// Never destroyed: blocks may be given back by static destructors after main returns.
Heap& heap() {
   static Heap* const h = new Heap();
   return *h;
}

} // namespace

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

void* SlabHeap::allocate(std::size_t bytes) {
   if (bytes == 0) bytes = 1;
   // Under the address sanitizer every block comes from the system heap, which it watches.
   if (!kSanitized && bytes <= kMaxBytes) {
      if (void* p = heap().allocate(bytes)) return p;
   }
   return ::operator new(bytes);
}

void SlabHeap::deallocate(void* p) noexcept {
   if (!p) return;
   Heap& h = heap();
   if (h.owns(p)) {
      h.deallocate(p);
   } else {
      ::operator delete(p);
   }
}

SlabHeap::Stats SlabHeap::stats() { return heap().stats(); }

} // namespace Ovk
