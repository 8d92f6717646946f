// The flowspec route key: one flow-specification rule (one NLRI) in canonical form.
//
// A FlowspecRouteKey is the identity of a rule everywhere: the RIBs file flowspec paths under
// it, the forwarding export names the rule by it, the show tables key their rows on it. Keys
// are built and filled once (by the NLRI parse rule, from rule text, or by hand), then
// deduplicated in the route-key dedup table of their VRF and family; from then on the one
// canonical instance is shared and read-only. FlowspecV4RouteKey and FlowspecV6RouteKey are
// the two concrete kinds; only their family answers differ.
//
// What a key holds:
//   wontExportReason   why forwarding must not get the rule (0: it may), FlowspecTypes.h;
//   slateKey           the rule as the forwarding library sees it: its address family, the
//                      destination and source prefixes, and its operator/value map;
//   destPrefixOffset,  the IPv6 prefix offsets (RFC 8956 section 3.1) as the NLRI carried
//   srcPrefixOffset    them; 0 for IPv4 and for keys made from text;
//   opValComponents    every non-prefix component in the order it was added, each its type
//                      and its operator/value bytes exactly as on the wire;
//   unrecognizedTail   the NLRI bytes from the first component type the parser did not
//                      understand to the end (empty when it understood everything).
//
// Storage. A million rules must fit in little memory, so the key keeps all of this in one
// flat byte buffer inside the object (16 bytes in place, and as many more after the object as
// the parse rule knows the NLRI needs; a rule grown past its room moves the buffer to the
// heap): the prefixes, each component and the tail follow one
// another in a canonical encoding, mostly the NLRI's own bytes. The forwarding library's
// operator/value map holds nothing the components do not, so slateKey() rebuilds it when
// asked. Hash, equality, order and text are computed from the buffer exactly as if the
// fields above were stored one by one: the key answers the same whatever its storage.
//
// Identity. hash() and compare() (dedup equality) read wontExportReason, the two prefixes,
// the two offsets, the components in order and the tail; the slate key's family and map take
// no part. lessThan() is the rule order (RFC 8955 section 5.1): destination prefix, source
// prefix, components pairwise, tail; it answers true for two equal keys, on purpose.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <iterator>
#include <span>
#include <string>
#include <string_view>

#include "BgpFlowspec/FlowspecTypes.h"
#include "host/bgp/AfiSafi.h"
#include "host/bgp/BgpVrfId.h"
#include "host/bgp/RouteKey.h"
#include "host/bgp/Serialize.h"
#include "host/flowspec/FlowspecKey.h"
#include "host/fwk/Ptr.h"
#include "host/fwk/String.h"
#include "host/net/IpGenAddr.h"

namespace Routing::Bgp::FlowspecPlugin {

class FlowspecRouteKey;

// One component as a key stores it; the bytes live in the key, valid while it does.
struct FlowspecOpValComponentView {
   Flowspec::MatchCompType type = Flowspec::none_;
   std::span<std::uint8_t const> opValuePairsNbo;

   FlowspecOpValComponent value() const { return {type, Ovk::String(opValuePairsNbo)}; }
};

// Walks a key's components in order; compare with std::default_sentinel for the end.
class FlowspecOpValComponentIterator {
 public:
   using iterator_category = std::forward_iterator_tag;
   using value_type = FlowspecOpValComponentView;
   using difference_type = std::ptrdiff_t;
   using pointer = void;
   using reference = FlowspecOpValComponentView;

   FlowspecOpValComponentIterator() = default;
   FlowspecOpValComponentView operator*() const { return current_; }
   FlowspecOpValComponentIterator& operator++() {
      pos_ += currentSize_;
      load();
      return *this;
   }
   FlowspecOpValComponentIterator operator++(int) {
      auto before = *this;
      ++*this;
      return before;
   }
   bool operator==(FlowspecOpValComponentIterator const& o) const { return pos_ == o.pos_; }
   bool operator==(std::default_sentinel_t) const { return pos_ == end_; }

 private:
   friend class FlowspecRouteKey;
   FlowspecOpValComponentIterator(std::uint8_t const* pos, std::uint8_t const* end) : pos_(pos), end_(end) { load(); }
   // Decodes the entry at pos_; at the tail or the end, pos_ becomes end_.
   void load();

   std::uint8_t const* pos_ = nullptr;
   std::uint8_t const* end_ = nullptr;
   std::size_t currentSize_ = 0;
   FlowspecOpValComponentView current_;
};

struct FlowspecOpValComponentRange {
   FlowspecOpValComponentIterator first;
   FlowspecOpValComponentIterator begin() const { return first; }
   std::default_sentinel_t end() const { return {}; }
};

// Sign of the rule order of two byte strings: negative when `a` sorts first, 0 when equal,
// positive when `b` does. Bytes compare unsigned; where one string is a prefix of the other,
// the longer sorts first, so an empty string sorts after every other.
int flowspecMemcmp(std::span<std::uint8_t const> a, std::span<std::uint8_t const> b) noexcept;
inline int flowspecMemcmp(Ovk::String const& a, Ovk::String const& b) noexcept {
   return flowspecMemcmp(a.span(), b.span());
}

// A rule's body as the NLRI parse rule reads it, gathered in scratch memory so that the key
// is filled in one step (FlowspecRouteKey::bodyIs). Parts are added in wire order: types
// ascend, and a prefix type that repeats replaces the prefix before it (the last part).
class FlowspecRouteKeyBody {
 public:
   // An NLRI body is at most 4095 bytes; the tail takes one more in the key's encoding.
   static constexpr std::size_t kCapacity = 0x0fff + 1;

   explicit FlowspecRouteKeyBody(bool v6) noexcept : v6_(v6) {}
   FlowspecRouteKeyBody(FlowspecRouteKeyBody const&) = delete;
   FlowspecRouteKeyBody& operator=(FlowspecRouteKeyBody const&) = delete;

   // A prefix component of `type` (1 or 2): mask length, offset (IPv6 only; at most the
   // mask) and the pattern's ceil((mask - offset) / 8) bytes, whose bits beyond
   // (mask - offset) are cleared here.
   void prefixIs(std::uint8_t type, std::uint8_t mask, std::uint8_t offset, std::uint8_t const* pattern);
   // An operator/value component as received: type 3 to 13, and pairs that end with the
   // first end-of-list bit.
   void addOpValComponent(std::uint8_t type, std::span<std::uint8_t const> pairs);
   // The unrecognised tail, from its type byte to the end of the NLRI; nothing follows it.
   void unrecognizedTailIs(std::span<std::uint8_t const> tail);
   // The bytes of the key's stored encoding gathered so far.
   std::size_t size() const noexcept { return size_; }

 private:
   friend class FlowspecRouteKey;
   std::uint8_t* append(std::size_t n);

   bool v6_;
   std::uint8_t lastType_ = 0;
   std::size_t lastStart_ = 0;
   std::size_t size_ = 0;
   std::uint8_t bytes_[kCapacity];
};

class FlowspecRouteKey : public RouteKey {
 public:
   using Ptr = Ovk::Ptr<FlowspecRouteKey>;
   using PtrConst = Ovk::Ptr<FlowspecRouteKey const>;

   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;

   // ---- Fields. Setters are for a key being filled (never deduplicated). ----

   FlowspecWontExportReason wontExportReason() const { return FlowspecWontExportReason(reasonBits()); }
   void wontExportReasonIs(FlowspecWontExportReason reason);

   // The forwarding library's key of this rule: the family postConstructor set (or the text
   // gave), the prefixes, and one pair per operator/value pair of the components under
   // indices running from 0 in component order. Built on each call.
   Flowspec::FlowspecKey slateKey() const;
   Ovnet::AddressFamily slateKeyAf() const { return static_cast<Ovnet::AddressFamily>(afBits()); }

   // The prefixes; unset (the default prefix) when the rule has none. An IPv6 prefix with an
   // offset holds its pattern at the start of the address and the mask length as its length.
   Ovnet::IpGenPrefix destPrefix() const;
   Ovnet::IpGenPrefix srcPrefix() const;
   std::uint8_t destPrefixOffset() const;
   std::uint8_t srcPrefixOffset() const;
   // The destination prefix for import policy: none without one; with an IPv6 offset the
   // leading bits are any, so every IPv6 address (::/0).
   std::optional<Ovnet::IpGenPrefix> importDestination() const override;
   // The destination prefix when its offset is 0 (RFC 8956 section 5); empty otherwise.
   std::optional<Ovnet::IpGenPrefix> validationDestination() const override;
   // Sets a prefix and its offset (IPv6 only; at most the prefix length), replacing the one
   // set before; the unset prefix (with offset 0) removes it. A set prefix must be of the
   // key's family. Bits beyond the pattern (beyond length minus offset) are cleared.
   void destPrefixIs(Ovnet::IpGenPrefix const& prefix, std::uint8_t offset = 0);
   void srcPrefixIs(Ovnet::IpGenPrefix const& prefix, std::uint8_t offset = 0);

   // Appends one component after those added before: no sorting, no merging, no check for a
   // repeated type. At most 65535 bytes.
   void addOpValComponent(Flowspec::MatchCompType type, std::span<std::uint8_t const> opValuePairs);
   void addOpValComponent(Flowspec::MatchCompType type, Ovk::String const& opValuePairs) {
      addOpValComponent(type, opValuePairs.span());
   }
   FlowspecOpValComponentRange opValComponents() const;
   std::size_t opValComponentCount() const;

   std::span<std::uint8_t const> unrecognizedTail() const;
   void unrecognizedTailIs(std::span<std::uint8_t const> tail);

   // Replaces prefixes, components and tail with `body`'s, in one step. The body must be of
   // the key's family.
   void bodyIs(FlowspecRouteKeyBody const& body);

   // ---- Identity ----

   // Jenkins one-at-a-time over wontExportReason (4 bytes, least significant first), the
   // destination and source prefix values (24 bytes each, as they lie in memory) and the two
   // offsets; then per component its type (4 bytes, least significant first) mixed in and
   // the framework hash of its bytes XORed in; then the tail's framework hash XORed in;
   // then the final avalanche. The two ways of folding bytes in are deliberate.
   std::uint32_t hash() const override;
   // Dedup equality: wontExportReason, prefixes, offsets, components (type and bytes, in
   // order) and tail all equal. `other` must be a flowspec key (assertion "other").
   bool compare(Ovk::DedupHandle const* other) const override;
   // The dedup table's hash: the stored bytes (canonical, so equal keys have equal bytes)
   // and wontExportReason, through the fast internal hash.
   std::uint32_t dedupHash() const override;
   // The rule order (see the file comment); `other` is a flowspec key of the same family.
   bool lessThan(Ovk::Ptr<RouteKeyBase const> const& other) const override;
   // The rule order in one pass over both keys' bytes, without building their prefixes.
   int orderCompare(RouteKeyBase const& other) const override;
   // The destination prefix's place in the rule order (exact for IPv4; the first 64 bits of
   // an IPv6 address): keys with lower values sort first; equal values leave the order to
   // lessThan.
   std::uint64_t orderPrefix() const override;
   // The same over the whole IPv6 address (the second word); for IPv4 the second word is 0.
   OrderSummary orderSummary() const override;

   // The rule's id: the address of the canonical key while it is deduplicated, 0 for an
   // orphan. Asking a key never deduplicated is a broken invariant.
   std::uintptr_t ruleId() const;

   std::uint8_t safi() const override { return Safi::flowspec; }

   // "Flowspec;ruleId=<id>;<rule text>", the id in the stream's base; formatWithoutVrf
   // leaves out "Flowspec". Both restore the stream's format state.
   void formatDerivedType(std::ostream& os) const override;
   void formatWithoutVrf(std::ostream& os) const override;
   // One 8-byte record: the rule id as a 32-bit word, then a 32-bit zero.
   void blinkPut(Ovk::Blink& blink) const override;

   // Releases spare capacity, then interns the key in `table` (see RouteKey).
   Ovk::Ptr<RouteKey const> dedupRouteKey(RouteKeyDedupTableBase const* table) override;

   // Sets the slate key's family to unspecified; the concrete kinds then set theirs.
   void postConstructor() override;

   // ---- Wire form (RFC 8955 section 4, RFC 8956 section 3) ----

   // The rule's NLRI: the length of the body in one byte below 240, else in two (0xf0 OR
   // the high four bits, then the low eight); then the destination and source prefixes, the
   // components in stored order (type byte, then their bytes as stored) and the tail as
   // stored. A body over 4095 bytes cannot be written (assertion "expectedNlriLen <=
   // 0x0fff"). The operation and arguments do not change the bytes.
   Ovk::String serialize(SerializeOperation operation,
                         Ovk::Ptr<RouteKeySerializeArguments const> const& arguments) const override;
   // The same NLRI, appended to `out`.
   void serializeTo(Serialize& out) const;

   // ---- Text (the grammar is the forwarding library's, docs/rule-grammar.md) ----

   // Fills this fresh key from rule text: the library parses it (in the key's family), then
   // copyInFlowspecKey. False, with the key untouched, when the library rejects the text.
   bool copyInStrCli(std::string_view text);
   // The same; on refused text also says, when `whyNot` is given, what in it is wrong.
   bool copyInStrCli(std::string_view text, std::string* whyNot);
   // Takes the library key's prefixes, and turns its pairs, walked in index order, into
   // components: consecutive pairs of one type form one component, whose bytes are each
   // pair's operator byte and its value in the length the operator gives (1, 2 or 4 bytes,
   // most significant first). Offsets, reason and tail stay as they are.
   void copyInFlowspecKey(Flowspec::FlowspecKey const& slate);
   std::string toStrepCli() const;
   std::string toStrepCliDetail() const;
   // The rule's text (toStrepCli).
   std::string displayText() const override { return toStrepCli(); }

   // ---- Memory ----

   // Releases the buffer's spare capacity (keys are many and long-lived).
   void shrinkToFit();
   // Heap bytes the key owns beyond its own object.
   std::size_t heapBytes() const noexcept { return onHeap() ? stored_.heap.capacity : 0; }
   // The stored encoding, for tests and measurements.
   std::span<std::uint8_t const> storedBytes() const noexcept { return {storedData(), storedSize()}; }

 protected:
   FlowspecRouteKey() noexcept : stored_{} {}
   ~FlowspecRouteKey() override;
   void slateKeyAfIs(Ovnet::AddressFamily af) {
      flags_ = static_cast<std::uint8_t>((flags_ & kReasonMask) | static_cast<std::uint8_t>(af) << kAfShift);
   }

 private:
   friend FlowspecRouteKey::Ptr flowspecRouteKeyFactory(Afi afi, std::size_t storedBytes);
   // Bytes in place within the object; a key made for a known size has more after it.
   static constexpr std::size_t kInlineBytes = 16;
   static constexpr std::uint8_t kOnHeap = 0xff;
   static constexpr std::uint8_t kReasonMask = 0x07;
   static constexpr unsigned kAfShift = 3;

   struct PrefixEntry;
   std::uint8_t reasonBits() const noexcept { return flags_ & kReasonMask; }
   std::uint8_t afBits() const noexcept { return static_cast<std::uint8_t>(flags_ >> kAfShift); }
   bool isV6() const noexcept { return afBits() == static_cast<std::uint8_t>(Ovnet::AddressFamily::ipv6); }
   bool onHeap() const noexcept { return inlineSize_ == kOnHeap; }
   // The bytes in place: the buffer's, and the object's trailing bytes after it. (Reached
   // through the address as a number: they run past the buffer's declared end on purpose.)
   std::uint8_t* inlineData() noexcept {
      return reinterpret_cast<std::uint8_t*>(reinterpret_cast<std::uintptr_t>(&stored_));
   }
   std::uint8_t const* inlineData() const noexcept {
      return reinterpret_cast<std::uint8_t const*>(reinterpret_cast<std::uintptr_t>(&stored_));
   }
   std::uint8_t const* storedData() const noexcept { return onHeap() ? stored_.heap.data : inlineData(); }
   std::size_t storedSize() const noexcept { return onHeap() ? stored_.heap.size : inlineSize_; }
   // The bytes in place: kInlineBytes, and the trailing bytes of a key made with them.
   void inlineCapacityIs(std::size_t bytes);
   // Replaces `oldSize` stored bytes at `pos` with `n` bytes.
   void storedReplace(std::size_t pos, std::size_t oldSize, std::uint8_t const* bytes, std::size_t n);
   void assertFillable() const;
   PrefixEntry prefixEntry(std::uint8_t type) const;
   void prefixIs(std::uint8_t type, Ovnet::IpGenPrefix const& prefix, std::uint8_t offset);
   // Where the components start (after the prefixes), and where the tail starts (the end
   // when there is none).
   std::size_t componentsBegin() const;
   std::size_t tailBegin() const;
   void formatBody(std::ostream& os) const;

   // These fill the tail padding of the dedup handle; the buffer follows, the object's last
   // member, so that trailing bytes continue it.
   std::uint8_t flags_ = 0;      // wontExportReason (bits 0-2), the slate key's family (3-4)
   std::uint8_t inlineSize_ = 0; // stored size when in place, or kOnHeap
   std::uint8_t inlineCapacity_ = kInlineBytes;
   union Stored {
      std::uint8_t inlineBytes[kInlineBytes];
      struct {
         std::uint8_t* data;
         std::uint32_t size;
         std::uint32_t capacity;
      } heap;
   } stored_;
};

class FlowspecV4RouteKey final : public FlowspecRouteKey {
 public:
   FlowspecV4RouteKey() = default;
   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;
   Afi afi() const override { return Afi::afiIpv4; }
   NlriType nlriType() const override { return NlriType::ipv4Flowspec; }
   void postConstructor() override;

 protected:
   ~FlowspecV4RouteKey() override = default;
};

class FlowspecV6RouteKey final : public FlowspecRouteKey {
 public:
   FlowspecV6RouteKey() = default;
   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;
   Afi afi() const override { return Afi::afiIpv6; }
   NlriType nlriType() const override { return NlriType::ipv6Flowspec; }
   void postConstructor() override;

 protected:
   ~FlowspecV6RouteKey() override = default;
};

// The number of pattern bytes of a prefix component: ceil((length - offset) / 8). The
// offset must not exceed the prefix length.
std::uint16_t prefixContentNumBytes(Ovnet::IpGenPrefix const& prefix, std::uint8_t ipv6PrefixOffset);
// Appends one prefix component of `type` (1 or 2): type, mask length, for an IPv6 prefix the
// offset, then the first prefixContentNumBytes bytes of the address. IPv4 and IPv6 only.
void serializePrefix(Serialize& out, std::uint8_t type, std::uint8_t ipv6PrefixOffset,
                     Ovnet::IpGenPrefix const& prefix);

// Fresh, empty keys (postConstructor has run).
Ovk::Ptr<FlowspecV4RouteKey> flowspecV4RouteKeyFactory();
Ovk::Ptr<FlowspecV6RouteKey> flowspecV6RouteKeyFactory();
// A V4 key for AFI 1, a V6 key for any other.
FlowspecRouteKey::Ptr flowspecRouteKeyFactory(Afi afi);
// The same, made with room in place for `storedBytes` of stored encoding (the size of the
// body it is about to be given), so that it needs no buffer of its own.
FlowspecRouteKey::Ptr flowspecRouteKeyFactory(Afi afi, std::size_t storedBytes);

// The route-key dedup table of one flowspec family and VRF.
class FlowspecRouteKeyDedupTable : public RouteKeyDedupTable {
 public:
   FlowspecRouteKeyDedupTable(AfiSafi afiSafi, BgpVrfIdBase vrfId) : RouteKeyDedupTable(afiSafi, vrfId) {}
   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;

   // The table's key for rule text, or an orphan of the table made from it (never entered;
   // for a lookup or a display). Text the rule grammar rejects is traced and yields the
   // empty rule's key all the same.
   FlowspecRouteKey::PtrConst lookupOrCreateOrphanFromRkAttrs(std::string_view text) const;
   // The key of an originated rule: its components from the library key, then interned.
   Ovk::Ptr<RouteKey const> dedupFromRule(Flowspec::FlowspecKey const& rule) const override;
   // The library key of one of the table's keys (FlowspecRouteKey::slateKey).
   bool ruleOf(RouteKey const& key, Flowspec::FlowspecKey& rule) const override;

 protected:
   ~FlowspecRouteKeyDedupTable() override = default;
};

Ovk::Ptr<FlowspecRouteKeyDedupTable> flowspecRouteKeyDedupTableFactory(AfiSafi afiSafi, BgpVrfIdBase vrfId);

} // namespace Routing::Bgp::FlowspecPlugin
