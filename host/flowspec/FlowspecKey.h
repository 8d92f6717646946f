// The forwarding library's rule key.
//
// A FlowspecKey is one flowspec rule as forwarding sees it: an address family, a destination
// and a source prefix (each unset unless the rule has that component; the unset prefix
// differs from 0.0.0.0/0 and ::/0), and an ordered map from a match index to one operator/
// value pair (component type, operator byte, value). The NLRI parser enters every pair it
// reads under a running index that starts at 0; the text grammar does the same. Walking the
// map from index 0 with getOptVal() yields the pairs in index order, ending in a distinguished
// end result.
//
// Operator bytes are kept exactly as the NLRI carries them (RFC 8955 section 4.2.1): the
// end-of-list bit on the last pair of each component, the AND bit, the value length code,
// the reserved bit(s) and the comparison or NOT/match bits. Nothing here interprets them
// beyond the text form.
//
// Storage is flat: the pairs sit in one sorted array of 8-byte entries, of which the first
// two live inside the key itself; only a rule with more pairs allocates. Keys are copied
// whole (the FSIB export copies them) and compared field by field.
//
// Text form (the rule grammar, docs/rule-grammar.md): copyInStrCli() reads it, toStrepCli()
// and the stream operator write it; printing a key and reading the text back yields an equal
// key for every key the NLRI parser can build.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include "host/flowspec/MatchCompType.h"
#include "host/net/IpGenAddr.h"

namespace Flowspec {

// Operator byte layout (RFC 8955 section 4.2.1.1 numeric, 4.2.1.2 bitmask).
inline constexpr std::uint8_t opEndOfList = 0x80;
inline constexpr std::uint8_t opAnd = 0x40;
inline constexpr std::uint8_t opLengthMask = 0x30;
inline constexpr std::uint8_t opReserved = 0x08;        // numeric operators
inline constexpr std::uint8_t opBitmaskReserved = 0x0c; // bitmask operators
inline constexpr std::uint8_t opLt = 0x04;
inline constexpr std::uint8_t opGt = 0x02;
inline constexpr std::uint8_t opEq = 0x01;
inline constexpr std::uint8_t opNot = 0x02;
inline constexpr std::uint8_t opMatch = 0x01;

// The value length code of an operator (0 to 3) and the value length it stands for
// (1, 2, 4 or 8 bytes).
constexpr unsigned opLengthCode(std::uint8_t op) noexcept { return (op >> 4) & 3u; }
constexpr unsigned opValueBytes(std::uint8_t op) noexcept { return 1u << opLengthCode(op); }
// The shortest length code that holds `value`: 0 up to 0xff, 1 up to 0xffff, else 2.
constexpr unsigned shortestLengthCode(std::uint32_t value) noexcept {
   return value <= 0xffu ? 0u : value <= 0xffffu ? 1u : 2u;
}

using MatchOpValIndex = std::uint16_t;
// Indices run from 0 to maxMatchOpValIndex - 1, so that the next index always fits.
inline constexpr MatchOpValIndex maxMatchOpValIndex = 0xffff;

struct MatchOpVal {
   MatchCompType type = none_;
   std::uint8_t op = 0;
   std::uint32_t value = 0;
   friend bool operator==(MatchOpVal const&, MatchOpVal const&) = default;
};

// One step of a walk over a key's pairs: the pair found and the index to ask for next, or the
// end result.
class MatchOpValResult {
 public:
   static MatchOpValResult end() noexcept { return MatchOpValResult(); }
   MatchOpValResult(MatchOpValIndex index, MatchOpVal const& opVal) noexcept
       : opVal_(opVal), index_(index), atEnd_(false) {}

   bool atEnd() const noexcept { return atEnd_; }
   // The following are defined only when not at the end.
   MatchOpValIndex index() const;
   MatchOpVal const& opVal() const;
   MatchCompType type() const { return opVal().type; }
   std::uint8_t op() const { return opVal().op; }
   std::uint32_t value() const { return opVal().value; }
   MatchOpValIndex nextIndex() const { return static_cast<MatchOpValIndex>(index() + 1); }

   friend bool operator==(MatchOpValResult const&, MatchOpValResult const&) = default;

 private:
   MatchOpValResult() noexcept = default;
   MatchOpVal opVal_;
   MatchOpValIndex index_ = 0;
   bool atEnd_ = true;
};

class FlowspecKey {
 public:
   FlowspecKey() noexcept : inline_{} {}
   FlowspecKey(FlowspecKey const& other);
   FlowspecKey(FlowspecKey&& other) noexcept;
   FlowspecKey& operator=(FlowspecKey const& other);
   FlowspecKey& operator=(FlowspecKey&& other) noexcept;
   ~FlowspecKey();

   // The address family: unspecified (0) until set; 1 IPv4, 2 IPv6.
   Ovnet::AddressFamily af() const noexcept { return static_cast<Ovnet::AddressFamily>(af_); }
   void afIs(Ovnet::AddressFamily af) noexcept { af_ = static_cast<std::uint8_t>(af); }
   // The prefixes; unset (the default IpGenPrefix) when the rule has no such component.
   Ovnet::IpGenPrefix const& destPrefix() const noexcept { return dest_; }
   void destPrefixIs(Ovnet::IpGenPrefix const& p) noexcept { dest_ = p; }
   Ovnet::IpGenPrefix const& srcPrefix() const noexcept { return src_; }
   void srcPrefixIs(Ovnet::IpGenPrefix const& p) noexcept { src_ = p; }

   // Records one operator/value pair under `index` (replacing a pair already there) and
   // returns the index for the next pair (index + 1). `type` must be an operator/value
   // type (3 to 13) and `index` below maxMatchOpValIndex; both are our callers' invariants.
   // The operator byte is stored unchanged.
   MatchOpValIndex setOpVal(MatchOpValIndex index, MatchCompType type, std::uint8_t op, std::uint32_t value);
   // The pair with the smallest index at or after `index`, or the end result when there is
   // none. Walk all pairs with
   //    for (auto r = key.getOptVal(0); !r.atEnd(); r = key.getOptVal(r.nextIndex())) ...
   MatchOpValResult getOptVal(MatchOpValIndex index) const noexcept;
   std::size_t opValCount() const noexcept { return size_; }
   void opValDelAll() noexcept;
   // Releases spare capacity; keys are numerous and long-lived.
   void shrinkToFit();
   // Heap bytes owned beyond sizeof(FlowspecKey).
   std::size_t heapBytes() const noexcept;

   // Fills the key from rule text (docs/rule-grammar.md). On any error returns false and
   // leaves the key as it was. On success the prefixes and pairs are those of the text
   // (pairs indexed from 0, operator bytes as the NLRI carries them) and the address family
   // is kept when it was set, else taken from the prefixes. A text whose prefix family
   // differs from a family already set, or that would not fit one NLRI, is an error.
   bool copyInStrCli(std::string_view text);
   // The same; on an error also says, when `whyNot` is given, what in the text is wrong
   // ("cannot read \"port x\" at offset 12", "flow-label exists only in IPv6 rules").
   bool copyInStrCli(std::string_view text, std::string* whyNot);
   // The rule text, e.g. "10.1.2.0/24;*;protocol =6;destination-port =80 =443;".
   std::string toStrepCli() const;
   // A fuller description for people: family, prefixes and each component with its text and
   // its operator/value bytes in hex. Not meant to be read back.
   std::string toStrepCliDetail() const;

   // Flowspec precedence of two prefixes (RFC 8955 section 5.1): negative when `p1` takes
   // precedence (sorts first), 0 when they rank equal, positive when `p2` does. When one
   // prefix contains the other the more specific one comes first, otherwise the lower
   // address; a set prefix comes before an unset one (a rule that has the component ranks
   // before one that lacks it), and IPv4 before IPv6.
   static int cmpPrefix(Ovnet::IpGenPrefix const& p1, Ovnet::IpGenPrefix const& p2) noexcept;

   // Family, prefixes and every pair (index, type, operator, value) equal.
   friend bool operator==(FlowspecKey const& a, FlowspecKey const& b) noexcept;

 private:
   struct Entry {
      std::uint16_t index;
      std::uint8_t type;
      std::uint8_t op;
      std::uint32_t value;
   };
   static constexpr std::uint16_t kInlineEntries = 2;

   bool isHeap() const noexcept { return capacity_ > kInlineEntries; }
   Entry* entries() noexcept { return isHeap() ? heap_ : inline_; }
   Entry const* entries() const noexcept { return isHeap() ? heap_ : inline_; }
   Entry const* lowerBound(MatchOpValIndex index) const noexcept;
   void reallocate(std::uint16_t capacity);
   void release() noexcept;

   Ovnet::IpGenPrefix dest_;
   Ovnet::IpGenPrefix src_;
   std::uint16_t size_ = 0;
   std::uint16_t capacity_ = kInlineEntries;
   std::uint8_t af_ = 0;
   [[maybe_unused]] std::uint8_t pad_[3] = {};
   union {
      Entry inline_[kInlineEntries];
      Entry* heap_;
   };
};

// The rule text (toStrepCli).
std::ostream& operator<<(std::ostream& os, FlowspecKey const& key);

} // namespace Flowspec
