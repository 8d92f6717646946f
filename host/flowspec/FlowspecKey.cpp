#include "host/flowspec/FlowspecKey.h"

#include <algorithm>
#include <cstring>
#include <ostream>

#include "host/fwk/Assert.h"

namespace Flowspec {

MatchOpValIndex MatchOpValResult::index() const {
   OVK_ASSERT(!atEnd_);
   return index_;
}

MatchOpVal const& MatchOpValResult::opVal() const {
   OVK_ASSERT(!atEnd_);
   return opVal_;
}

FlowspecKey::FlowspecKey(FlowspecKey const& other) : FlowspecKey() { *this = other; }

FlowspecKey::FlowspecKey(FlowspecKey&& other) noexcept : FlowspecKey() { *this = std::move(other); }

FlowspecKey& FlowspecKey::operator=(FlowspecKey const& other) {
   if (this == &other) return *this;
   if (other.size_ > capacity_) {
      release();
      heap_ = new Entry[other.size_];
      capacity_ = other.size_;
   }
   std::copy_n(other.entries(), other.size_, entries());
   size_ = other.size_;
   dest_ = other.dest_;
   src_ = other.src_;
   af_ = other.af_;
   return *this;
}

FlowspecKey& FlowspecKey::operator=(FlowspecKey&& other) noexcept {
   if (this == &other) return *this;
   release();
   dest_ = other.dest_;
   src_ = other.src_;
   af_ = other.af_;
   size_ = other.size_;
   capacity_ = other.capacity_;
   if (other.isHeap()) {
      heap_ = other.heap_;
   } else {
      std::copy_n(other.inline_, kInlineEntries, inline_);
   }
   other.capacity_ = kInlineEntries;
   other.size_ = 0;
   return *this;
}

FlowspecKey::~FlowspecKey() { release(); }

void FlowspecKey::release() noexcept {
   if (isHeap()) delete[] heap_;
   capacity_ = kInlineEntries;
   size_ = 0;
}

void FlowspecKey::reallocate(std::uint16_t capacity) {
   OVK_ASSERT(capacity >= size_);
   if (capacity <= kInlineEntries) {
      if (!isHeap()) return;
      Entry* const old = heap_;
      std::copy_n(old, size_, inline_);
      delete[] old;
      capacity_ = kInlineEntries;
      return;
   }
   Entry* const fresh = new Entry[capacity];
   std::copy_n(entries(), size_, fresh);
   if (isHeap()) delete[] heap_;
   heap_ = fresh;
   capacity_ = capacity;
}

FlowspecKey::Entry const* FlowspecKey::lowerBound(MatchOpValIndex index) const noexcept {
   Entry const* const b = entries();
   return std::lower_bound(b, b + size_, index, [](Entry const& e, MatchOpValIndex i) { return e.index < i; });
}

MatchOpValIndex FlowspecKey::setOpVal(MatchOpValIndex index, MatchCompType type, std::uint8_t op, std::uint32_t value) {
   OVK_ASSERT(isOpValType(type));
   OVK_ASSERT(index < maxMatchOpValIndex);
   Entry const entry{index, static_cast<std::uint8_t>(type), op, value};
   // The parsers add pairs in ascending index order: appending is the common case.
   std::size_t pos = size_;
   if (size_ != 0 && entries()[size_ - 1].index >= index) {
      pos = static_cast<std::size_t>(lowerBound(index) - entries());
      if (entries()[pos].index == index) {
         entries()[pos] = entry;
         return static_cast<MatchOpValIndex>(index + 1);
      }
   }
   if (size_ == capacity_) {
      // At most maxMatchOpValIndex distinct indices exist, so the count fits 16 bits.
      reallocate(static_cast<std::uint16_t>(std::min<unsigned>(2u * capacity_, maxMatchOpValIndex)));
   }
   Entry* const e = entries();
   std::copy_backward(e + pos, e + size_, e + size_ + 1);
   e[pos] = entry;
   ++size_;
   return static_cast<MatchOpValIndex>(index + 1);
}

MatchOpValResult FlowspecKey::getOptVal(MatchOpValIndex index) const noexcept {
   Entry const* const e = lowerBound(index);
   if (e == entries() + size_) return MatchOpValResult::end();
   return MatchOpValResult(e->index, MatchOpVal{static_cast<MatchCompType>(e->type), e->op, e->value});
}

void FlowspecKey::opValDelAll() noexcept { release(); }

void FlowspecKey::shrinkToFit() {
   if (isHeap() && size_ < capacity_) reallocate(size_);
}

std::size_t FlowspecKey::heapBytes() const noexcept { return isHeap() ? capacity_ * sizeof(Entry) : 0; }

bool operator==(FlowspecKey const& a, FlowspecKey const& b) noexcept {
   // Entries have no padding (2 + 1 + 1 + 4 bytes), so comparing their bytes is exact.
   return a.af_ == b.af_ && a.dest_ == b.dest_ && a.src_ == b.src_ && a.size_ == b.size_ &&
          std::memcmp(a.entries(), b.entries(), a.size_ * sizeof(FlowspecKey::Entry)) == 0;
}

int FlowspecKey::cmpPrefix(Ovnet::IpGenPrefix const& p1, Ovnet::IpGenPrefix const& p2) noexcept {
   // RFC 8955 section 5.1: a rule that has a component ranks before one that lacks it,
   // because the first component that differs in type decides and the lower type wins.
   if (p1.isUnset() || p2.isUnset()) return p1.isUnset() == p2.isUnset() ? 0 : p1.isUnset() ? 1 : -1;
   if (p1.af() != p2.af()) return p1.af() < p2.af() ? -1 : 1;
   // Compare the bits both prefixes cover: the lower address wins. When they agree there,
   // one prefix contains the other and the longer (more specific) one wins.
   unsigned const common = std::min(p1.len(), p2.len());
   auto const a = p1.addr().storage();
   auto const b = p2.addr().storage();
   unsigned const fullBytes = common / 8;
   if (int const c = std::memcmp(a.data(), b.data(), fullBytes); c != 0) return c < 0 ? -1 : 1;
   if (unsigned const rest = common % 8; rest != 0) {
      auto const mask = static_cast<std::uint8_t>(0xffu << (8 - rest));
      auto const x = static_cast<std::uint8_t>(a[fullBytes] & mask);
      auto const y = static_cast<std::uint8_t>(b[fullBytes] & mask);
      if (x != y) return x < y ? -1 : 1;
   }
   if (p1.len() != p2.len()) return p1.len() > p2.len() ? -1 : 1;
   return 0;
}

std::ostream& operator<<(std::ostream& os, FlowspecKey const& key) { return os << key.toStrepCli(); }

} // namespace Flowspec
