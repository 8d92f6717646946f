// Flowspec component types (RFC 8955 section 4.2.2, RFC 8956 section 3).
//
// The numbering is the one on the wire. Types 1 and 2 are the prefix components; types 3 to
// 13 carry lists of operator/value pairs, numeric comparisons for all of them except TCP
// Flags (9) and Fragment (12), which are bitmask matches. Flow Label (13) exists only in
// IPv6 rules. Each type has one text name, the standard's, which the stream operator writes
// and the parsers read back.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace Flowspec {

enum MatchCompType : std::uint32_t {
   none_ = 0,
   destPrefix_ = 1,
   srcPrefix_ = 2,
   ipProtocol_ = 3,
   port_ = 4,
   destPort_ = 5,
   srcPort_ = 6,
   icmpType_ = 7,
   icmpCode_ = 8,
   tcpFlags_ = 9,
   packetLength_ = 10,
   dscp_ = 11,
   fragment_ = 12,
   flowLabel_ = 13,
};

inline constexpr MatchCompType maxMatchCompType = flowLabel_;

// True for types 3 to 13: the component is a list of operator/value pairs.
constexpr bool isOpValType(MatchCompType t) noexcept { return t >= ipProtocol_ && t <= flowLabel_; }
// True for the bitmask types (TCP Flags, Fragment); the other operator/value types compare
// numbers.
constexpr bool isBitmaskType(MatchCompType t) noexcept { return t == tcpFlags_ || t == fragment_; }
// The largest value length in bytes an operator/value type accepts (RFC 8955 section 4.2.2):
// 1, 2 or 4; 0 for the types that carry no operator/value pairs.
unsigned maxValueBytes(MatchCompType t) noexcept;

// The standard's name of a type ("Destination Port"), "none" for 0; empty for a number
// beyond 13.
std::string_view matchCompTypeName(MatchCompType t) noexcept;
// The name, or "unknown(<number>)" for a number beyond 13.
std::string toStrep(MatchCompType t);
std::ostream& operator<<(std::ostream& os, MatchCompType t);

// Reads one type's text at `pos` (advancing `pos` past it): a name, or "unknown(<number>)"
// for a number beyond 13, so that every type reads back from what toStrep writes. A text
// that starts with neither raises Ovk::RangeError.
MatchCompType parseMatchCompType(char const*& pos, char const* end);
// The type whose name is exactly `text`; empty otherwise.
std::optional<MatchCompType> matchCompTypeFromName(std::string_view text) noexcept;

} // namespace Flowspec
