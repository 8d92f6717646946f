// The framework byte string.
//
// A compact immutable-by-convention byte string: 16 bytes in place, of which up to 12 hold
// short strings inline (flowspec operator/value pairs usually fit), longer ones live on the
// heap. It carries arbitrary bytes, has a deterministic 32-bit hash (the same in every
// process and on every run) and a quoted text form that parses back (see ValueText.h).
#pragma once

#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>

namespace Ovk {

class String {
 public:
   static constexpr std::size_t kInlineCapacity = 12;

   String() noexcept { std::memset(rep_, 0, sizeof(rep_)); }
   String(std::string_view s) { init(s.data(), s.size()); } // NOLINT(google-explicit-constructor)
   String(char const* s) : String(std::string_view(s)) {}   // NOLINT(google-explicit-constructor)
   String(std::uint8_t const* data, std::size_t n) { init(reinterpret_cast<char const*>(data), n); }
   explicit String(std::span<std::uint8_t const> b) : String(b.data(), b.size()) {}
   String(String const& o) { init(o.data(), o.size()); }
   String(String&& o) noexcept {
      std::memcpy(rep_, o.rep_, sizeof(rep_));
      std::memset(o.rep_, 0, sizeof(o.rep_));
   }
   String& operator=(String const& o) {
      if (this != &o) {
         String t(o);
         swap(t);
      }
      return *this;
   }
   String& operator=(String&& o) noexcept {
      if (this != &o) {
         String t(std::move(o));
         swap(t);
      }
      return *this;
   }
   ~String() {
      if (isHeap()) delete[] heapPtr();
   }

   void swap(String& o) noexcept {
      unsigned char t[sizeof(rep_)];
      std::memcpy(t, rep_, sizeof(rep_));
      std::memcpy(rep_, o.rep_, sizeof(rep_));
      std::memcpy(o.rep_, t, sizeof(rep_));
   }

   std::size_t size() const noexcept {
      std::uint32_t n;
      std::memcpy(&n, rep_, 4);
      return n;
   }
   bool empty() const noexcept { return size() == 0; }
   char const* data() const noexcept { return isHeap() ? heapPtr() : reinterpret_cast<char const*>(rep_ + 4); }
   std::uint8_t const* bytes() const noexcept { return reinterpret_cast<std::uint8_t const*>(data()); }
   std::string_view view() const noexcept { return {data(), size()}; }
   std::span<std::uint8_t const> span() const noexcept { return {bytes(), size()}; }
   std::string str() const { return std::string(view()); }
   // Heap bytes this string owns beyond its own 16 bytes.
   std::size_t heapBytes() const noexcept { return isHeap() ? size() : 0; }

   // Deterministic 32-bit hash of the bytes (FNV-1a); 0 is returned for no byte at all.
   std::uint32_t hash() const noexcept { return hashBytes(bytes(), size()); }
   static std::uint32_t hashBytes(std::uint8_t const* p, std::size_t n) noexcept;

   friend bool operator==(String const& a, String const& b) noexcept { return a.view() == b.view(); }
   friend bool operator<(String const& a, String const& b) noexcept { return a.view() < b.view(); }

 private:
   bool isHeap() const noexcept { return size() > kInlineCapacity; }
   char* heapPtr() const noexcept {
      char* p;
      std::memcpy(&p, rep_ + 8, sizeof(p));
      return p;
   }
   void init(char const* s, std::size_t n);

   // bytes 0-3: size; bytes 4-15: inline data, or bytes 8-15: heap pointer.
   alignas(8) unsigned char rep_[16];
};

static_assert(sizeof(String) == 16);

// Quoted text form: single quotes, with \\, \', \n, \r, \t and \xHH escapes for other bytes
// outside printable ASCII.
std::string quoted(std::string_view bytes);

// Bytes as lower-case hex digits, two per byte, nothing between ("8006" for 0x80 0x06).
std::string hexOf(std::span<std::uint8_t const> bytes);
std::ostream& operator<<(std::ostream& os, String const& s);

} // namespace Ovk
