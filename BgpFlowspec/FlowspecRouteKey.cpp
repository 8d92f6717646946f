#include "BgpFlowspec/FlowspecRouteKey.h"
#include "host/fwk/FwkType.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <ios>
#include <ostream>
#include <typeinfo>
#include <vector>

#include "host/fwk/Assert.h"
#include "host/fwk/FastHash.h"
#include "host/fwk/Trace.h"

namespace Routing::Bgp::FlowspecPlugin {

// The stored encoding: entries one after another, in this order, each opened by a tag byte.
//
//   destination prefix   01 mask pattern                       (the NLRI component itself,
//                        81 mask offset pattern                 an IPv6 prefix's offset byte
//   source prefix        02 mask pattern                        kept only when it is not 0:
//                        82 mask offset pattern                 81 and 82 carry it)
//   components           TT pairs...                           TT = type 3..0x7f whose pairs
//                                                              are well formed: each pair's
//                                                              length is its operator's, and
//                                                              the end-of-list bit is on the
//                                                              last pair and only there (the
//                                                              NLRI component itself)
//                        80 type(4, LE) size(2, LE) bytes      any other component
//   tail                 ff bytes                              to the end
//
// The encoding is canonical: the pattern holds ceil((mask - offset) / 8) bytes with the bits
// beyond (mask - offset) cleared, and the form of a component follows from its type and bytes
// alone. Two keys with equal fields therefore store equal bytes, and a key whose components
// all came off the wire stores its NLRI body (after the length field), less the offset byte
// of an IPv6 prefix at offset 0: that byte would push the commonest IPv6 rule, a /128 host
// with two single-value components, out of the key's 24 bytes in place and onto the heap.

namespace {

constexpr std::uint8_t kTagDestPrefix = 1;
constexpr std::uint8_t kTagSrcPrefix = 2;
constexpr std::uint8_t kTagWithOffset = 0x80; // OR-ed into a prefix tag: an offset byte follows
constexpr std::uint8_t kTagFirstShort = 3;
constexpr std::uint8_t kTagLastShort = 0x7f;
constexpr std::uint8_t kTagRaw = 0x80;
constexpr std::uint8_t kTagTail = 0xff;
constexpr std::size_t kRawHeader = 7;

// Length in bytes of the well-formed pair list at `p`; the list is trusted.
std::size_t shortPairsSize(std::uint8_t const* p) noexcept {
   std::size_t i = 0;
   for (;;) {
      std::uint8_t const op = p[i];
      i += 1 + Flowspec::opValueBytes(op);
      if (op & Flowspec::opEndOfList) return i;
   }
}

// True when `bytes` is one list of whole pairs that ends with the first end-of-list bit.
bool wellFormedPairs(std::span<std::uint8_t const> bytes) noexcept {
   std::size_t i = 0;
   while (i < bytes.size()) {
      std::uint8_t const op = bytes[i];
      i += 1 + Flowspec::opValueBytes(op);
      if (op & Flowspec::opEndOfList) return i == bytes.size();
   }
   return false;
}

std::size_t patternBytes(unsigned mask, unsigned offset) noexcept { return (mask - offset + 7) / 8; }

bool isPrefixTag(std::uint8_t tag) noexcept {
   auto const type = static_cast<std::uint8_t>(tag & ~kTagWithOffset);
   return type == kTagDestPrefix || type == kTagSrcPrefix;
}

// Writes a prefix entry's tag, mask and (when not 0) offset; returns the bytes written.
std::size_t putPrefixHeader(std::uint8_t* out, std::uint8_t type, std::uint8_t mask, std::uint8_t offset) noexcept {
   std::size_t n = 0;
   out[n++] = offset == 0 ? type : static_cast<std::uint8_t>(type | kTagWithOffset);
   out[n++] = mask;
   if (offset != 0) out[n++] = offset;
   return n;
}

void putLe(std::uint8_t* out, std::uint32_t v, std::size_t n) noexcept {
   for (std::size_t i = 0; i < n; ++i) out[i] = static_cast<std::uint8_t>(v >> (8 * i));
}

std::uint32_t getLe(std::uint8_t const* in, std::size_t n) noexcept {
   std::uint32_t v = 0;
   for (std::size_t i = 0; i < n; ++i) v |= static_cast<std::uint32_t>(in[i]) << (8 * i);
   return v;
}

// Jenkins one-at-a-time mixing (as Ovnet::oneAtATimeMix), here so that it inlines: the hash
// is one long dependency chain and most of its bytes are zero.
inline std::uint32_t mixByte(std::uint32_t h, std::uint8_t b) noexcept {
   h += b;
   h += h << 10;
   h ^= h >> 6;
   return h;
}

std::uint32_t mixBytes(std::uint32_t h, std::uint8_t const* p, std::size_t n) noexcept {
   for (std::size_t i = 0; i < n; ++i) h = mixByte(h, p[i]);
   return h;
}

std::uint32_t mixLe32(std::uint32_t h, std::uint32_t v) noexcept {
   for (int i = 0; i < 4; ++i) h = mixByte(h, static_cast<std::uint8_t>(v >> (8 * i)));
   return h;
}

// Mixes `n` zero bytes: a step shorter than mixing a byte that may not be zero.
std::uint32_t mixZeros(std::uint32_t h, std::size_t n) noexcept {
   for (std::size_t i = 0; i < n; ++i) {
      h += h << 10;
      h ^= h >> 6;
   }
   return h;
}

} // namespace

void FlowspecOpValComponentIterator::load() {
   if (pos_ == end_) return;
   std::uint8_t const tag = *pos_;
   if (tag == kTagTail) {
      pos_ = end_;
      return;
   }
   if (tag == kTagRaw) {
      std::size_t const n = getLe(pos_ + 5, 2);
      current_ = {static_cast<Flowspec::MatchCompType>(getLe(pos_ + 1, 4)), {pos_ + kRawHeader, n}};
      currentSize_ = kRawHeader + n;
   } else {
      std::size_t const n = shortPairsSize(pos_ + 1);
      current_ = {static_cast<Flowspec::MatchCompType>(tag), {pos_ + 1, n}};
      currentSize_ = 1 + n;
   }
}

int flowspecMemcmp(std::span<std::uint8_t const> a, std::span<std::uint8_t const> b) noexcept {
   if (!a.empty() && !b.empty()) {
      if (int const c = std::memcmp(a.data(), b.data(), std::min(a.size(), b.size())); c != 0) return c;
   }
   if (a.size() == b.size()) return 0;
   // Where one is a prefix of the other, the longer (more specific) one sorts first.
   return a.size() > b.size() ? -1 : 1;
}

// ---- Stored prefixes ----

struct FlowspecRouteKey::PrefixEntry {
   std::size_t pos = 0;  // where the entry starts
   std::size_t size = 0; // its stored size; 0 when the key has no such prefix
   std::uint8_t mask = 0;
   std::uint8_t offset = 0;
   std::uint8_t const* pattern = nullptr;

   bool present() const noexcept { return size != 0; }

   // Mixes the 24 bytes of prefix(v6) as they lie in memory (host/net/IpGenAddr.h: the 16
   // address bytes, the 32-bit family, the length, three zero bytes; all zero when unset)
   // without building it: most of them are known to be zero. The hash test holds this to
   // the bytes of the real value.
   std::uint32_t mixPrefixValue(std::uint32_t h, bool v6) const noexcept {
      static_assert(sizeof(Ovnet::IpGenPrefix) == 24 && sizeof(Ovnet::IpGenAddr) == 20);
      if (!present()) return mixZeros(h, 24);
      std::size_t const n = patternBytes(mask, offset);
      h = mixBytes(h, pattern, n);
      h = mixZeros(h, 16 - n);
      auto const af = static_cast<std::uint8_t>(v6 ? Ovnet::AddressFamily::ipv6 : Ovnet::AddressFamily::ipv4);
      if constexpr (std::endian::native == std::endian::little) {
         h = mixByte(h, af);
         h = mixZeros(h, 3);
      } else {
         h = mixZeros(h, 3);
         h = mixByte(h, af);
      }
      h = mixByte(h, mask);
      return mixZeros(h, 3);
   }
   // Flowspec::FlowspecKey::cmpPrefix(prefix(v6), o.prefix(v6)) for two entries of one
   // family, read from the pattern bytes: an absent prefix sorts last, then the bits both
   // cover decide (lower first), then the longer prefix sorts first.
   int compare(PrefixEntry const& o) const noexcept {
      if (!present() || !o.present()) return present() == o.present() ? 0 : present() ? -1 : 1;
      std::uint8_t a[16] = {};
      std::uint8_t b[16] = {};
      std::memcpy(a, pattern, patternBytes(mask, offset));
      std::memcpy(b, o.pattern, patternBytes(o.mask, o.offset));
      unsigned const common = std::min(mask, o.mask);
      unsigned const fullBytes = common / 8;
      if (int const c = std::memcmp(a, b, fullBytes); c != 0) return c < 0 ? -1 : 1;
      if (unsigned const rest = common % 8; rest != 0) {
         auto const m = static_cast<std::uint8_t>(0xffu << (8 - rest));
         auto const x = static_cast<std::uint8_t>(a[fullBytes] & m);
         auto const y = static_cast<std::uint8_t>(b[fullBytes] & m);
         if (x != y) return x < y ? -1 : 1;
      }
      if (mask != o.mask) return mask > o.mask ? -1 : 1;
      return 0;
   }
   Ovnet::IpGenPrefix prefix(bool v6) const noexcept {
      if (!present()) return {};
      std::uint8_t addr[16] = {};
      std::memcpy(addr, pattern, patternBytes(mask, offset));
      Ovnet::IpGenAddr const a = v6 ? Ovnet::IpGenAddr::ipv6(std::span<std::uint8_t const, 16>(addr, 16))
                                    : Ovnet::IpGenAddr::ipv4(std::span<std::uint8_t const, 4>(addr, 4));
      return Ovnet::IpGenPrefix(a, mask);
   }
};

FlowspecRouteKey::PrefixEntry FlowspecRouteKey::prefixEntry(std::uint8_t type) const {
   std::uint8_t const* const data = storedData();
   std::size_t const size = storedSize();
   PrefixEntry e;
   for (std::size_t pos = 0; pos < size;) {
      if (!isPrefixTag(data[pos])) break;
      bool const withOffset = (data[pos] & kTagWithOffset) != 0;
      auto const tag = static_cast<std::uint8_t>(data[pos] & ~kTagWithOffset);
      std::size_t const header = withOffset ? 3 : 2;
      std::uint8_t const mask = data[pos + 1];
      std::uint8_t const offset = withOffset ? data[pos + 2] : 0;
      std::size_t const entrySize = header + patternBytes(mask, offset);
      if (tag == type) return {pos, entrySize, mask, offset, data + pos + header};
      // An absent destination prefix would go first, an absent source prefix after the
      // destination prefix.
      if (tag > type) break;
      pos += entrySize;
      e.pos = pos;
   }
   return e;
}

std::size_t FlowspecRouteKey::componentsBegin() const {
   PrefixEntry const src = prefixEntry(kTagSrcPrefix);
   return src.pos + src.size;
}

std::size_t FlowspecRouteKey::tailBegin() const {
   // The walk over the components stops at the tail's tag, or at the end.
   std::uint8_t const* const data = storedData();
   std::size_t pos = componentsBegin();
   for (FlowspecOpValComponentIterator c(data + pos, data + storedSize()); c != std::default_sentinel; ++c) {
      pos += c.currentSize_;
   }
   return pos;
}

void FlowspecRouteKey::prefixIs(std::uint8_t type, Ovnet::IpGenPrefix const& prefix, std::uint8_t offset) {
   assertFillable();
   PrefixEntry const old = prefixEntry(type);
   if (prefix.isUnset()) {
      OVK_ASSERT(offset == 0);
      storedReplace(old.pos, old.size, nullptr, 0);
      return;
   }
   OVK_ASSERT(prefix.af() == slateKeyAf());
   OVK_ASSERT(prefix.len() >= offset);
   OVK_ASSERT(offset == 0 || isV6());
   std::uint8_t entry[3 + 16];
   std::size_t const n = putPrefixHeader(entry, type, prefix.len(), offset);
   unsigned const bits = static_cast<unsigned>(prefix.len() - offset);
   std::size_t const pattern = patternBytes(prefix.len(), offset);
   std::memcpy(entry + n, prefix.addr().storage().data(), pattern);
   if (bits % 8 != 0) entry[n + pattern - 1] &= static_cast<std::uint8_t>(0xffu << (8 - bits % 8));
   storedReplace(old.pos, old.size, entry, n + pattern);
}

void FlowspecRouteKey::destPrefixIs(Ovnet::IpGenPrefix const& prefix, std::uint8_t offset) {
   prefixIs(kTagDestPrefix, prefix, offset);
}

void FlowspecRouteKey::srcPrefixIs(Ovnet::IpGenPrefix const& prefix, std::uint8_t offset) {
   prefixIs(kTagSrcPrefix, prefix, offset);
}

RouteKeyBase::OrderSummary FlowspecRouteKey::orderSummary() const {
   // The destination prefix as an address whose bits past the prefix's length are ones.
   // Comparing two such addresses compares the prefixes as the rule order does wherever they
   // differ: in a bit both cover, the lower bit sorts first, and where one prefix ends first
   // its ones meet the other's bits, which sort no later (the longer prefix first). Equal
   // addresses of two lengths are told apart by the length, longer first, where there is
   // room: after the 32 bits of an IPv4 address; an IPv6 address fills both words, and keys
   // of equal words are left to the full comparison. A rule without a destination prefix
   // sorts after every rule with one.
   PrefixEntry const e = prefixEntry(kTagDestPrefix);
   if (!e.present()) return {UINT64_MAX, UINT64_MAX};
   // The pattern stands at the address's start; its bits past the pattern are cleared.
   std::uint8_t a[16] = {};
   std::memcpy(a, e.pattern, patternBytes(e.mask, e.offset));
   auto const word = [&](std::size_t at) {
      std::uint64_t v = 0;
      for (std::size_t i = 0; i < 8; ++i) v = v << 8 | a[at + i];
      return v;
   };
   std::uint64_t hi = word(0);
   if (!isV6()) {
      std::uint64_t const ones = e.mask >= 32 ? 0 : (std::uint64_t{0xffffffff} >> e.mask) << 32;
      return {hi | ones | std::uint64_t{33u - e.mask} << 24, 0};
   }
   std::uint64_t lo = word(8);
   if (e.mask < 64) {
      hi |= e.mask == 0 ? UINT64_MAX : UINT64_MAX >> e.mask;
      lo = UINT64_MAX;
   } else if (e.mask < 128) {
      lo |= e.mask == 64 ? UINT64_MAX : UINT64_MAX >> (e.mask - 64);
   }
   return {hi, lo};
}

std::uint64_t FlowspecRouteKey::orderPrefix() const { return orderSummary().hi; }

Ovnet::IpGenPrefix FlowspecRouteKey::destPrefix() const { return prefixEntry(kTagDestPrefix).prefix(isV6()); }
Ovnet::IpGenPrefix FlowspecRouteKey::srcPrefix() const { return prefixEntry(kTagSrcPrefix).prefix(isV6()); }
std::uint8_t FlowspecRouteKey::destPrefixOffset() const { return prefixEntry(kTagDestPrefix).offset; }

std::optional<Ovnet::IpGenPrefix> FlowspecRouteKey::importDestination() const {
   PrefixEntry const e = prefixEntry(kTagDestPrefix);
   if (!e.present()) return std::nullopt;
   if (e.offset == 0) return e.prefix(isV6());
   static constexpr std::array<std::uint8_t, 16> zero{};
   return Ovnet::IpGenPrefix(Ovnet::IpGenAddr::ipv6(zero), 0);
}
std::optional<Ovnet::IpGenPrefix> FlowspecRouteKey::validationDestination() const {
   // RFC 8956 section 5: only a destination prefix with offset 0 validates; one with an
   // offset matches addresses whatever their leading bits, so no unicast route can vouch
   // for it.
   PrefixEntry const e = prefixEntry(kTagDestPrefix);
   if (!e.present() || e.offset != 0) return std::nullopt;
   return e.prefix(isV6());
}

std::uint8_t FlowspecRouteKey::srcPrefixOffset() const { return prefixEntry(kTagSrcPrefix).offset; }

// ---- Stored components and tail ----

void FlowspecRouteKey::addOpValComponent(Flowspec::MatchCompType type, std::span<std::uint8_t const> opValuePairs) {
   assertFillable();
   OVK_ASSERT(opValuePairs.size() <= 0xffff);
   std::size_t const at = tailBegin();
   if (type >= kTagFirstShort && type <= kTagLastShort && wellFormedPairs(opValuePairs)) {
      // Tag and bytes in one piece, so the buffer moves once.
      std::uint8_t local[64];
      std::vector<std::uint8_t> big;
      std::uint8_t* entry = local;
      if (opValuePairs.size() + 1 > sizeof(local)) {
         big.resize(opValuePairs.size() + 1);
         entry = big.data();
      }
      entry[0] = static_cast<std::uint8_t>(type);
      std::memcpy(entry + 1, opValuePairs.data(), opValuePairs.size());
      storedReplace(at, 0, entry, opValuePairs.size() + 1);
      return;
   }
   std::vector<std::uint8_t> entry(kRawHeader + opValuePairs.size());
   entry[0] = kTagRaw;
   putLe(entry.data() + 1, type, 4);
   putLe(entry.data() + 5, static_cast<std::uint32_t>(opValuePairs.size()), 2);
   if (!opValuePairs.empty()) std::memcpy(entry.data() + kRawHeader, opValuePairs.data(), opValuePairs.size());
   storedReplace(at, 0, entry.data(), entry.size());
}

FlowspecOpValComponentRange FlowspecRouteKey::opValComponents() const {
   std::uint8_t const* const data = storedData();
   return {FlowspecOpValComponentIterator(data + componentsBegin(), data + storedSize())};
}

std::size_t FlowspecRouteKey::opValComponentCount() const {
   std::size_t n = 0;
   for ([[maybe_unused]] FlowspecOpValComponentView c : opValComponents()) ++n;
   return n;
}

std::span<std::uint8_t const> FlowspecRouteKey::unrecognizedTail() const {
   std::size_t const at = tailBegin();
   std::size_t const size = storedSize();
   if (at == size) return {};
   return {storedData() + at + 1, size - at - 1};
}

void FlowspecRouteKey::unrecognizedTailIs(std::span<std::uint8_t const> tail) {
   assertFillable();
   std::size_t const at = tailBegin();
   std::size_t const old = storedSize() - at;
   if (tail.empty()) {
      storedReplace(at, old, nullptr, 0);
      return;
   }
   std::vector<std::uint8_t> entry(1 + tail.size());
   entry[0] = kTagTail;
   std::memcpy(entry.data() + 1, tail.data(), tail.size());
   storedReplace(at, old, entry.data(), entry.size());
}

// ---- Body from the parse rule ----

std::uint8_t* FlowspecRouteKeyBody::append(std::size_t n) {
   OVK_ASSERT(size_ + n <= kCapacity);
   std::uint8_t* const at = bytes_ + size_;
   size_ += n;
   return at;
}

void FlowspecRouteKeyBody::prefixIs(std::uint8_t type, std::uint8_t mask, std::uint8_t offset,
                                    std::uint8_t const* pattern) {
   OVK_ASSERT((type == kTagDestPrefix || type == kTagSrcPrefix) && type >= lastType_);
   OVK_ASSERT(offset <= mask && (offset == 0 || v6_));
   // A repeated prefix type is the last part: the later prefix replaces it.
   if (type == lastType_) size_ = lastStart_;
   lastStart_ = size_;
   lastType_ = type;
   std::size_t const n = patternBytes(mask, offset);
   std::uint8_t* out = append((offset != 0 ? 3 : 2) + n);
   out += putPrefixHeader(out, type, mask, offset);
   if (n == 0) return;
   std::memcpy(out, pattern, n);
   if (unsigned const bits = (mask - offset) % 8u; bits != 0)
      out[n - 1] &= static_cast<std::uint8_t>(0xffu << (8 - bits));
}

void FlowspecRouteKeyBody::addOpValComponent(std::uint8_t type, std::span<std::uint8_t const> pairs) {
   OVK_ASSERT(type >= kTagFirstShort && type <= kTagLastShort && type >= lastType_);
   OVK_ASSERT(wellFormedPairs(pairs));
   lastStart_ = size_;
   lastType_ = type;
   std::uint8_t* const out = append(1 + pairs.size());
   out[0] = type;
   std::memcpy(out + 1, pairs.data(), pairs.size());
}

void FlowspecRouteKeyBody::unrecognizedTailIs(std::span<std::uint8_t const> tail) {
   OVK_ASSERT(!tail.empty() && lastType_ != kTagTail);
   lastStart_ = size_;
   lastType_ = kTagTail;
   std::uint8_t* const out = append(1 + tail.size());
   out[0] = kTagTail;
   std::memcpy(out + 1, tail.data(), tail.size());
}

void FlowspecRouteKey::bodyIs(FlowspecRouteKeyBody const& body) {
   assertFillable();
   OVK_ASSERT(body.v6_ == isV6());
   storedReplace(0, storedSize(), body.bytes_, body.size_);
}

void FlowspecRouteKey::wontExportReasonIs(FlowspecWontExportReason reason) {
   assertFillable();
   flags_ = static_cast<std::uint8_t>((flags_ & static_cast<std::uint8_t>(~kReasonMask)) | reason.value());
}

void FlowspecRouteKey::assertFillable() const { OVK_ASSERT(dedupState() == Ovk::dedupHandleStateNeverDeduped()); }

// ---- Buffer ----

FlowspecRouteKey::~FlowspecRouteKey() {
   if (onHeap()) delete[] stored_.heap.data;
}

void FlowspecRouteKey::storedReplace(std::size_t pos, std::size_t oldSize, std::uint8_t const* bytes, std::size_t n) {
   std::size_t const size = storedSize();
   OVK_ASSERT(pos + oldSize <= size);
   std::size_t const newSize = size - oldSize + n;
   std::size_t const after = size - pos - oldSize;
   if (!onHeap() && newSize <= inlineCapacity_) {
      std::uint8_t* const d = inlineData();
      std::memmove(d + pos + n, d + pos + oldSize, after);
      if (n) std::memcpy(d + pos, bytes, n);
      inlineSize_ = static_cast<std::uint8_t>(newSize);
      return;
   }
   if (onHeap() && newSize <= stored_.heap.capacity) {
      std::uint8_t* const d = stored_.heap.data;
      std::memmove(d + pos + n, d + pos + oldSize, after);
      if (n) std::memcpy(d + pos, bytes, n);
      stored_.heap.size = static_cast<std::uint32_t>(newSize);
      return;
   }
   // Grow geometrically while the key is being filled; shrinkToFit trims it afterwards.
   OVK_ASSERT(newSize <= 0xffffffffu / 2);
   std::size_t const capacity = std::max({newSize, 2 * size, std::size_t{2} * inlineCapacity_});
   auto* const d = new std::uint8_t[capacity];
   std::uint8_t const* const old = storedData();
   std::memcpy(d, old, pos);
   if (n) std::memcpy(d + pos, bytes, n);
   std::memcpy(d + pos + n, old + pos + oldSize, after);
   if (onHeap()) delete[] stored_.heap.data;
   stored_.heap.data = d;
   stored_.heap.size = static_cast<std::uint32_t>(newSize);
   stored_.heap.capacity = static_cast<std::uint32_t>(capacity);
   inlineSize_ = kOnHeap;
}

void FlowspecRouteKey::shrinkToFit() {
   if (!onHeap()) return;
   std::uint8_t* const old = stored_.heap.data;
   std::size_t const size = stored_.heap.size;
   if (size <= inlineCapacity_) {
      std::memcpy(inlineData(), old, size);
      inlineSize_ = static_cast<std::uint8_t>(size);
      delete[] old;
      return;
   }
   if (stored_.heap.capacity == size) return;
   auto* const d = new std::uint8_t[size];
   std::memcpy(d, old, size);
   delete[] old;
   stored_.heap.data = d;
   stored_.heap.capacity = static_cast<std::uint32_t>(size);
}

// ---- Identity ----

OVK_FWK_TYPE(FlowspecRouteKey, "Routing::Bgp::FlowspecPlugin::FlowspecRouteKey")

std::uint32_t FlowspecRouteKey::hash() const {
   PrefixEntry const dest = prefixEntry(kTagDestPrefix);
   PrefixEntry const src = prefixEntry(kTagSrcPrefix);

   std::uint32_t h = mixLe32(0, reasonBits());
   h = dest.mixPrefixValue(h, isV6());
   h = src.mixPrefixValue(h, isV6());
   h = mixByte(h, dest.offset);
   h = mixByte(h, src.offset);

   std::uint8_t const* const data = storedData();
   std::size_t const size = storedSize();
   FlowspecOpValComponentIterator it(data + src.pos + src.size, data + size);
   std::size_t pos = src.pos + src.size;
   for (; it != std::default_sentinel; ++it) {
      FlowspecOpValComponentView const c = *it;
      h = mixLe32(h, c.type);
      // The component's bytes are folded in through their own hash, not mixed byte by byte.
      if (!c.opValuePairsNbo.empty()) h ^= Ovk::String::hashBytes(c.opValuePairsNbo.data(), c.opValuePairsNbo.size());
      pos += it.currentSize_;
   }
   if (pos < size) h ^= Ovk::String::hashBytes(data + pos + 1, size - pos - 1);
   return Ovnet::oneAtATimeFinal(h);
}

std::uint32_t FlowspecRouteKey::dedupHash() const {
   return Ovk::fastHash(storedData(), storedSize(), reasonBits());
}

bool FlowspecRouteKey::compare(Ovk::DedupHandle const* other) const {
   // Keys of one table are mostly of one concrete type: compare the types first, which is
   // cheaper than a cast across libraries.
   auto const* const o = typeid(*other) == typeid(*this) ? static_cast<FlowspecRouteKey const*>(other)
                                                         : dynamic_cast<FlowspecRouteKey const*>(other);
   OVK_ASSERT_MSG(o != nullptr, "other");
   if (reasonBits() != o->reasonBits()) return false;
   // The encoding is canonical, so equal fields are equal bytes. A prefix decodes in the
   // key's family, so keys of two families that hold prefixes differ whatever their bytes.
   std::size_t const size = storedSize();
   if (size != o->storedSize()) return false;
   if (size == 0) return true;
   std::uint8_t const* const data = storedData();
   if (std::memcmp(data, o->storedData(), size) != 0) return false;
   return afBits() == o->afBits() || !isPrefixTag(data[0]);
}

bool FlowspecRouteKey::lessThan(Ovk::Ptr<RouteKeyBase const> const& other) const {
   if (int const c = orderCompare(*other); c != 0) return c < 0;
   // Equal keys: true, deliberately (callers that need a strict order wrap this).
   OVK_TRACE(flowspecTraceFacility(), 8, *this << " is equal to " << *other);
   return true;
}

int FlowspecRouteKey::orderCompare(RouteKeyBase const& other) const {
   // The host compares keys of one table only: no type check.
   auto const& o = static_cast<FlowspecRouteKey const&>(other);
   PrefixEntry const aSrc = prefixEntry(kTagSrcPrefix);
   PrefixEntry const bSrc = o.prefixEntry(kTagSrcPrefix);
   if (int const c = prefixEntry(kTagDestPrefix).compare(o.prefixEntry(kTagDestPrefix)); c != 0) return c;
   if (int const c = aSrc.compare(bSrc); c != 0) return c;

   std::uint8_t const* const data = storedData();
   std::uint8_t const* const otherData = o.storedData();
   std::size_t aPos = aSrc.pos + aSrc.size;
   std::size_t bPos = bSrc.pos + bSrc.size;
   FlowspecOpValComponentIterator a(data + aPos, data + storedSize());
   FlowspecOpValComponentIterator b(otherData + bPos, otherData + o.storedSize());
   for (;; ++a, ++b) {
      bool const aDone = a == std::default_sentinel;
      bool const bDone = b == std::default_sentinel;
      if (aDone && bDone) break;
      // The rule with more components sorts first.
      if (aDone) return 1;
      if (bDone) return -1;
      FlowspecOpValComponentView const x = *a;
      FlowspecOpValComponentView const y = *b;
      if (x.type != y.type) return static_cast<std::int32_t>(x.type) < static_cast<std::int32_t>(y.type) ? -1 : 1;
      if (int const c = flowspecMemcmp(x.opValuePairsNbo, y.opValuePairsNbo); c != 0) return c;
      aPos += a.currentSize_;
      bPos += b.currentSize_;
   }
   auto tailAt = [](std::uint8_t const* d, std::size_t pos, std::size_t size) -> std::span<std::uint8_t const> {
      return pos < size ? std::span<std::uint8_t const>(d + pos + 1, size - pos - 1) : std::span<std::uint8_t const>();
   };
   return flowspecMemcmp(tailAt(data, aPos, storedSize()), tailAt(otherData, bPos, o.storedSize()));
}

std::uintptr_t FlowspecRouteKey::ruleId() const {
   OVK_ASSERT_MSG(dedupState() != Ovk::dedupHandleStateNeverDeduped(),
                  "__null == ( this ) || ( this )->dedupState() != Ovk::dedupHandleStateNeverDeduped()");
   return isDeduped() ? reinterpret_cast<std::uintptr_t>(this) : 0;
}

void FlowspecRouteKey::formatBody(std::ostream& os) const {
   std::ios saved(nullptr);
   saved.copyfmt(os);
   os << ";ruleId=" << ruleId() << ";" << slateKey();
   os.copyfmt(saved);
}

void FlowspecRouteKey::formatDerivedType(std::ostream& os) const {
   os << "Flowspec";
   formatBody(os);
}

void FlowspecRouteKey::formatWithoutVrf(std::ostream& os) const { formatBody(os); }

void FlowspecRouteKey::blinkPut(Ovk::Blink& blink) const {
   std::uint32_t const words[2] = {static_cast<std::uint32_t>(ruleId()), 0};
   blink.put(words, sizeof(words));
}

Ovk::Ptr<RouteKey const> FlowspecRouteKey::dedupRouteKey(RouteKeyDedupTableBase const* table) {
   shrinkToFit();
   return RouteKey::dedupRouteKey(table);
}

void FlowspecRouteKey::postConstructor() { slateKeyAfIs(Ovnet::AddressFamily::unspecified); }

// ---- Wire form ----

std::uint16_t prefixContentNumBytes(Ovnet::IpGenPrefix const& prefix, std::uint8_t ipv6PrefixOffset) {
   OVK_ASSERT(prefix.len() >= ipv6PrefixOffset);
   return static_cast<std::uint16_t>(patternBytes(prefix.len(), ipv6PrefixOffset));
}

void serializePrefix(Serialize& out, std::uint8_t type, std::uint8_t ipv6PrefixOffset,
                     Ovnet::IpGenPrefix const& prefix) {
   out.addU8(type);
   out.addU8(prefix.len());
   if (prefix.af() != Ovnet::AddressFamily::ipv4) {
      OVK_ASSERT_MSG(prefix.af() == Ovnet::AddressFamily::ipv6, "prefix.af() == Ovnet::AddressFamily::ipv6_");
      // RFC 8956 section 3.1: the offset, then only the pattern's bytes.
      out.addU8(ipv6PrefixOffset);
   }
   out.addData(prefix.addr().storage().data(), prefixContentNumBytes(prefix, ipv6PrefixOffset));
}

Ovk::String FlowspecRouteKey::serialize(SerializeOperation, Ovk::Ptr<RouteKeySerializeArguments const> const&) const {
   Serialize out;
   serializeTo(out);
   return out.serializedString();
}

void FlowspecRouteKey::serializeTo(Serialize& out) const {
   PrefixEntry const dest = prefixEntry(kTagDestPrefix);
   PrefixEntry const src = prefixEntry(kTagSrcPrefix);
   Ovnet::IpGenPrefix const destPrefix = dest.prefix(isV6());
   Ovnet::IpGenPrefix const srcPrefix = src.prefix(isV6());
   std::uint8_t const* const data = storedData();
   std::size_t const size = storedSize();

   // The body's length first, so that the length field can be written before it.
   std::size_t expectedNlriLen = 0;
   for (auto const& [prefix, offset] : {std::pair(destPrefix, dest.offset), std::pair(srcPrefix, src.offset)}) {
      if (prefix.isUnset()) continue;
      expectedNlriLen +=
          2u + (prefix.af() == Ovnet::AddressFamily::ipv6 ? 1u : 0u) + prefixContentNumBytes(prefix, offset);
   }
   std::size_t tail = src.pos + src.size;
   for (FlowspecOpValComponentIterator c(data + tail, data + size); c != std::default_sentinel; ++c) {
      expectedNlriLen += 1 + (*c).opValuePairsNbo.size();
      tail += c.currentSize_;
   }
   std::size_t const tailBytes = tail < size ? size - tail - 1 : 0;
   expectedNlriLen += tailBytes;

   if (expectedNlriLen < 0xf0) {
      out.addU8(static_cast<std::uint8_t>(expectedNlriLen));
   } else {
      OVK_ASSERT(expectedNlriLen <= 0x0fff);
      out.addU8(static_cast<std::uint8_t>(0xf0 | (expectedNlriLen >> 8)));
      out.addU8(static_cast<std::uint8_t>(expectedNlriLen & 0xff));
   }
   if (!destPrefix.isUnset()) serializePrefix(out, kTagDestPrefix, dest.offset, destPrefix);
   if (!srcPrefix.isUnset()) serializePrefix(out, kTagSrcPrefix, src.offset, srcPrefix);
   for (FlowspecOpValComponentView const c : opValComponents()) {
      // A hand-built component of a type beyond 255 has only its low byte on the wire.
      out.addU8(static_cast<std::uint8_t>(c.type));
      out.addData(c.opValuePairsNbo);
   }
   // The tail begins with its own type byte.
   if (tailBytes) out.addData(data + tail + 1, tailBytes);
}

// ---- Text ----

Flowspec::FlowspecKey FlowspecRouteKey::slateKey() const {
   Flowspec::FlowspecKey k;
   k.afIs(slateKeyAf());
   k.destPrefixIs(destPrefix());
   k.srcPrefixIs(srcPrefix());
   Flowspec::MatchOpValIndex index = 0;
   for (FlowspecOpValComponentView const c : opValComponents()) {
      // Only operator/value types have a place in the library's map; the parse rule and
      // the text never build others.
      if (!Flowspec::isOpValType(c.type)) continue;
      auto const bytes = c.opValuePairsNbo;
      for (std::size_t i = 0; i < bytes.size();) {
         std::uint8_t const op = bytes[i];
         std::size_t const n = Flowspec::opValueBytes(op);
         if (i + 1 + n > bytes.size() || index >= Flowspec::maxMatchOpValIndex) break;
         std::uint64_t v = 0;
         for (std::size_t j = 0; j < n; ++j) v = v << 8 | bytes[i + 1 + j];
         // The map holds 32-bit values, as the parse rule enters them.
         index = k.setOpVal(index, c.type, op, static_cast<std::uint32_t>(v));
         i += 1 + n;
      }
   }
   return k;
}

bool FlowspecRouteKey::copyInStrCli(std::string_view text) { return copyInStrCli(text, nullptr); }

bool FlowspecRouteKey::copyInStrCli(std::string_view text, std::string* whyNot) {
   assertFillable();
   Flowspec::FlowspecKey slate;
   slate.afIs(slateKeyAf());
   if (!slate.copyInStrCli(text, whyNot)) return false;
   copyInFlowspecKey(slate);
   return true;
}

void FlowspecRouteKey::copyInFlowspecKey(Flowspec::FlowspecKey const& slate) {
   assertFillable();
   slateKeyAfIs(slate.af());
   destPrefixIs(slate.destPrefix());
   srcPrefixIs(slate.srcPrefix());
   std::vector<std::uint8_t> buffer;
   Flowspec::MatchCompType building = Flowspec::none_;
   bool any = false;
   for (auto r = slate.getOptVal(0); !r.atEnd(); r = slate.getOptVal(r.nextIndex())) {
      if (any && r.type() != building) {
         addOpValComponent(building, buffer);
         buffer.clear();
      }
      building = r.type();
      any = true;
      // The library has set the operator's end-of-list bit, length code and comparison.
      std::uint8_t const op = r.op();
      buffer.push_back(op);
      std::uint32_t const v = r.value();
      switch (Flowspec::opLengthCode(op)) {
      case 0: buffer.push_back(static_cast<std::uint8_t>(v)); break;
      case 1:
         buffer.push_back(static_cast<std::uint8_t>(v >> 8));
         buffer.push_back(static_cast<std::uint8_t>(v));
         break;
      case 2:
         for (int shift = 24; shift >= 0; shift -= 8) buffer.push_back(static_cast<std::uint8_t>(v >> shift));
         break;
      default:
         // Eight-byte values are never produced.
         OVK_ASSERT(false);
      }
   }
   if (any) addOpValComponent(building, buffer);
   shrinkToFit();
}

std::string FlowspecRouteKey::toStrepCli() const { return slateKey().toStrepCli(); }

std::string FlowspecRouteKey::toStrepCliDetail() const { return slateKey().toStrepCliDetail(); }

// ---- Concrete kinds ----

OVK_FWK_TYPE(FlowspecV4RouteKey, "Routing::Bgp::FlowspecPlugin::FlowspecV4RouteKey")

void FlowspecV4RouteKey::postConstructor() {
   FlowspecRouteKey::postConstructor();
   slateKeyAfIs(Ovnet::AddressFamily::ipv4);
}

OVK_FWK_TYPE(FlowspecV6RouteKey, "Routing::Bgp::FlowspecPlugin::FlowspecV6RouteKey")

void FlowspecV6RouteKey::postConstructor() {
   FlowspecRouteKey::postConstructor();
   slateKeyAfIs(Ovnet::AddressFamily::ipv6);
}

// The three flag bytes sit in the dedup handle's tail padding and the buffer follows: with
// the RIB slot in front, a key with its 16 bytes in place is a block of 64 bytes.
static_assert(sizeof(Ovk::DedupHandle) == 32);
static_assert(sizeof(FlowspecV4RouteKey) == 48);
static_assert(sizeof(FlowspecV6RouteKey) == 48);

Ovk::Ptr<FlowspecV4RouteKey> flowspecV4RouteKeyFactory() { return newRouteKey<FlowspecV4RouteKey>(); }

Ovk::Ptr<FlowspecV6RouteKey> flowspecV6RouteKeyFactory() { return newRouteKey<FlowspecV6RouteKey>(); }

FlowspecRouteKey::Ptr flowspecRouteKeyFactory(Afi afi, std::size_t storedBytes) {
   // The buffer is the object's last member, and the concrete kinds add nothing after it:
   // bytes allocated after the object continue it.
   static_assert(sizeof(FlowspecV4RouteKey) == sizeof(FlowspecRouteKey));
   static_assert(sizeof(FlowspecV6RouteKey) == sizeof(FlowspecRouteKey));
   std::size_t const room = std::min<std::size_t>(storedBytes, 0xfe);
   if (room <= FlowspecRouteKey::kInlineBytes) return flowspecRouteKeyFactory(afi);
   std::size_t const trailing = room - FlowspecRouteKey::kInlineBytes;
   FlowspecRouteKey::Ptr key;
   if (afi == Afi::afiIpv4) {
      key = newRouteKeyWithTrailing<FlowspecV4RouteKey>(trailing);
   } else {
      key = newRouteKeyWithTrailing<FlowspecV6RouteKey>(trailing);
   }
   key->inlineCapacityIs(room);
   return key;
}

void FlowspecRouteKey::inlineCapacityIs(std::size_t bytes) {
   OVK_ASSERT(bytes >= kInlineBytes && bytes < kOnHeap && !onHeap() && inlineSize_ == 0);
   // The buffer ends where the object does.
   OVK_ASSERT(reinterpret_cast<std::uintptr_t>(&stored_) + sizeof(stored_) ==
              reinterpret_cast<std::uintptr_t>(this) + sizeof(FlowspecRouteKey));
   inlineCapacity_ = static_cast<std::uint8_t>(bytes);
}

FlowspecRouteKey::Ptr flowspecRouteKeyFactory(Afi afi) {
   if (afi == Afi::afiIpv4) return flowspecV4RouteKeyFactory();
   return flowspecV6RouteKeyFactory();
}

// ---- Dedup table ----

OVK_FWK_TYPE(FlowspecRouteKeyDedupTable, "Routing::Bgp::FlowspecPlugin::FlowspecRouteKeyDedupTable")

FlowspecRouteKey::PtrConst FlowspecRouteKeyDedupTable::lookupOrCreateOrphanFromRkAttrs(std::string_view text) const {
   FlowspecRouteKey::Ptr key = flowspecRouteKeyFactory(afiSafi().afi());
   if (!key->copyInStrCli(text)) {
      // Lenient on purpose: the caller gets the key of what could be read (nothing).
      OVK_TRACE(flowspecTraceFacility(), 3, *this << " Could not instantiate rk from " << text);
   }
   if (Ovk::Ptr<RouteKey const> found = lookupRouteKey(*key)) {
      return FlowspecRouteKey::PtrConst(static_cast<FlowspecRouteKey const*>(found.ptr()));
   }
   key->orphanIs(Ovk::Ptr<Ovk::DedupHashTable const>(this));
   OVK_TRACE(flowspecTraceFacility(), 8, *this << " Created rk:" << *key);
   return key;
}

Ovk::Ptr<RouteKey const> FlowspecRouteKeyDedupTable::dedupFromRule(Flowspec::FlowspecKey const& rule) const {
   FlowspecRouteKey::Ptr key = flowspecRouteKeyFactory(afiSafi().afi());
   key->copyInFlowspecKey(rule);
   return key->dedupRouteKey(this);
}

bool FlowspecRouteKeyDedupTable::ruleOf(RouteKey const& key, Flowspec::FlowspecKey& rule) const {
   auto const* k = dynamic_cast<FlowspecRouteKey const*>(&key);
   if (!k) return false;
   rule = k->slateKey();
   return true;
}

Ovk::Ptr<FlowspecRouteKeyDedupTable> flowspecRouteKeyDedupTableFactory(AfiSafi afiSafi, BgpVrfIdBase vrfId) {
   return Ovk::makePtr<FlowspecRouteKeyDedupTable>(afiSafi, vrfId);
}

} // namespace Routing::Bgp::FlowspecPlugin
