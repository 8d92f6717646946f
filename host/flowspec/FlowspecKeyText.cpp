// The rule text grammar of FlowspecKey: reader (copyInStrCli) and writers (toStrepCli,
// toStrepCliDetail). docs/rule-grammar.md describes the grammar for users; the comments here
// say why it is shaped the way it is.
//
// The reader accepts the dialects operators know from other BGP speakers' flowspec
// configuration (keywords, operators, value names, "[ ]" lists, "&&" / "||", ranges, value/
// mask bitmasks) and produces, for each of them, the operator bytes those speakers put on the
// wire. The writer produces one canonical text that the reader turns back into the same
// operator bytes and values, including forms no speaker would choose (an over-long value
// length, the reserved bits, a first pair carrying the AND bit, the always-false and
// always-true comparisons).
#include "host/flowspec/FlowspecKey.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <optional>
#include <vector>

namespace Flowspec {

namespace {

using Ovnet::AddressFamily;
using Ovnet::IpGenPrefix;

// The largest NLRI body a length field can announce (RFC 8955 section 4.1).
constexpr std::size_t kMaxNlriBody = 0x0fff;

struct Keyword {
   std::string_view word;
   MatchCompType type;
};
// Component keywords; the first one of each type is the one the writer uses.
constexpr Keyword kKeywords[] = {
    {"destination", destPrefix_},
    {"dst", destPrefix_},
    {"source", srcPrefix_},
    {"src", srcPrefix_},
    {"protocol", ipProtocol_},
    {"proto", ipProtocol_},
    {"next-header", ipProtocol_},
    {"ip-protocol", ipProtocol_},
    {"port", port_},
    {"destination-port", destPort_},
    {"dport", destPort_},
    {"dst-port", destPort_},
    {"source-port", srcPort_},
    {"sport", srcPort_},
    {"src-port", srcPort_},
    {"icmp-type", icmpType_},
    {"icmp-code", icmpCode_},
    {"tcp-flags", tcpFlags_},
    {"packet-length", packetLength_},
    {"length", packetLength_},
    {"dscp", dscp_},
    {"traffic-class", dscp_},
    {"fragment", fragment_},
    {"flow-label", flowLabel_},
    {"label", flowLabel_},
};

struct TwoWordKeyword {
   std::string_view first;
   std::string_view second;
   MatchCompType type;
};
// Keywords written as two words ("icmp type = 8").
constexpr TwoWordKeyword kTwoWordKeywords[] = {
    {"icmp", "type", icmpType_},
    {"icmp", "code", icmpCode_},
    {"tcp", "flags", tcpFlags_},
    {"next", "header", ipProtocol_},
};

struct ValueName {
   std::string_view name;
   std::uint32_t value;
};
constexpr ValueName kProtocols[] = {
    {"icmp", 1},   {"igmp", 2},       {"ipip", 4},  {"tcp", 6},   {"egp", 8},
    {"udp", 17},   {"gre", 47},       {"esp", 50},  {"ah", 51},   {"icmpv6", 58},
    {"icmp6", 58}, {"ipv6-icmp", 58}, {"ospf", 89}, {"pim", 103}, {"sctp", 132},
};
// The first name of each bit is the one the writer uses.
constexpr ValueName kTcpFlags[] = {
    {"fin", 0x01}, {"syn", 0x02},    {"rst", 0x04}, {"push", 0x08}, {"psh", 0x08},
    {"ack", 0x10}, {"urgent", 0x20}, {"urg", 0x20}, {"ece", 0x40},  {"cwr", 0x80},
};
// One-letter TCP flag names, written together ("SA" is SYN and ACK).
constexpr std::string_view kTcpFlagLetters = "FSRPAUEC";
constexpr ValueName kFragments[] = {
    {"not-a-fragment", 0x00},
    {"dont-fragment", 0x01},
    {"is-fragment", 0x02},
    {"first-fragment", 0x04},
    {"last-fragment", 0x08},
    {"df", 0x01},
    {"isf", 0x02},
    {"ff", 0x04},
    {"lf", 0x08},
};

// Numeric comparison texts by the operator's three low bits (lt, gt, eq). 0 never matches and
// 7 always does; no speaker sends them but the wire can carry them.
constexpr std::string_view kNumericOps[8] = {"!<=>", "=", ">", ">=", "<", "<=", "!=", "<=>"};
// The order in which the reader tries them: longer texts before their own beginnings.
constexpr std::uint8_t kNumericOpReadOrder[8] = {0, 7, 6, 5, 3, 4, 2, 1};
// Bitmask texts by the NOT and match bits.
constexpr std::string_view kBitmaskOps[4] = {"", "=", "!", "!="};

bool isWordChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_'; }

char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

bool iequals(std::string_view a, std::string_view b) {
   return a.size() == b.size() &&
          std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return lower(x) == lower(y); });
}

std::optional<MatchCompType> keywordType(std::string_view word) {
   for (auto const& k : kKeywords) {
      if (iequals(k.word, word)) return k.type;
   }
   return std::nullopt;
}

std::string_view keywordOf(MatchCompType type) {
   for (auto const& k : kKeywords) {
      if (k.type == type) return k.word;
   }
   return {};
}

std::uint8_t reservedMask(MatchCompType type) { return isBitmaskType(type) ? opBitmaskReserved : opReserved; }

unsigned maxLengthCode(MatchCompType type) {
   return maxValueBytes(type) == 4 ? 2u : maxValueBytes(type) == 2 ? 1u : 0u;
}

// One operator/value pair as read, before the end-of-list bit is known.
struct Pair {
   std::uint8_t op;
   std::uint32_t value;
};

struct Component {
   MatchCompType type;
   std::vector<Pair> pairs;
};

// Explicit encoding of a pair: "{len=2,rsv=0x08}".
struct Encoding {
   unsigned lengthCode = 0;
   bool lengthGiven = false;
   std::uint8_t reserved = 0;
};

class RuleTextReader {
 public:
   explicit RuleTextReader(std::string_view text) : s_(text) {}

   // Reads the whole text into `out` (a fresh key); false on any error.
   bool read(AddressFamily presetAf, FlowspecKey& out);
   // What was wrong, after read() returned false.
   std::string whyNot() const;

 private:
   bool atEnd() const { return pos_ >= s_.size(); }
   char peek() const { return atEnd() ? '\0' : s_[pos_]; }
   void skipSpace() {
      while (!atEnd() && std::isspace(static_cast<unsigned char>(s_[pos_])) != 0) ++pos_;
   }
   bool tryChar(char c) {
      if (peek() != c) return false;
      ++pos_;
      return true;
   }
   bool tryText(std::string_view t) {
      if (s_.substr(pos_).starts_with(t)) {
         pos_ += t.size();
         return true;
      }
      return false;
   }
   std::string_view word() {
      std::size_t const start = pos_;
      while (!atEnd() && isWordChar(s_[pos_])) ++pos_;
      return s_.substr(start, pos_ - start);
   }
   // Text up to white space or ';'.
   std::string_view token() {
      std::size_t const start = pos_;
      while (!atEnd() && s_[pos_] != ';' && std::isspace(static_cast<unsigned char>(s_[pos_])) == 0) ++pos_;
      return s_.substr(start, pos_ - start);
   }

   bool leadingPrefixes();
   bool component();
   std::optional<MatchCompType> componentKeyword(bool consume);
   bool prefixComponent(MatchCompType type);
   bool valueList(MatchCompType type);
   bool numericPair(Component& c, bool andBit);
   bool bitmaskPair(Component& c, bool andBit);
   bool valueMask(Component& c, bool andBit, bool notBit, std::uint32_t value);
   std::optional<std::uint32_t> number();
   std::optional<std::uint32_t> numericValue(MatchCompType type);
   std::optional<std::uint32_t> bitmaskTerm(MatchCompType type, bool& underscoreName);
   std::optional<Encoding> encoding(MatchCompType type);
   bool add(Component& c, std::uint8_t low, bool andBit, std::uint32_t value, Encoding const& enc);
   bool finish(AddressFamily presetAf, FlowspecKey& out);
   // Marks everything before the position as read well: an error lies after it.
   void good() { good_ = pos_; }
   bool fail(std::string why) {
      why_ = std::move(why);
      return false;
   }

   std::string_view s_;
   std::size_t pos_ = 0;
   std::size_t good_ = 0;
   std::string why_;
   IpGenPrefix dest_;
   IpGenPrefix src_;
   bool destSeen_ = false;
   bool srcSeen_ = false;
   std::vector<Component> components_;
};

std::optional<IpGenPrefix> prefixFromText(std::string_view text) {
   auto p = IpGenPrefix::parse(text);
   // Some speakers keep host bits beyond the length in what they send and accept them in
   // their configuration; they never take part in a match, so they are cleared here as the
   // NLRI reader clears them.
   if (p) p->clearLowerAddrBits();
   return p;
}

bool RuleTextReader::read(AddressFamily presetAf, FlowspecKey& out) {
   skipSpace();
   if (!leadingPrefixes()) return false;
   good();
   while (true) {
      skipSpace();
      while (tryChar(';')) skipSpace();
      if (atEnd()) break;
      if (!component()) return false;
   }
   return finish(presetAf, out);
}

// "DEST;SRC;" with "*" for a prefix the rule does not have. The form is optional: a text that
// does not start with a prefix or "*" names its prefixes with keywords, if at all.
bool RuleTextReader::leadingPrefixes() {
   std::size_t const start = pos_;
   std::string_view const first = token();
   std::optional<IpGenPrefix> dest;
   if (first != "*") {
      dest = prefixFromText(first);
      if (!dest) {
         pos_ = start;
         return true;
      }
   }
   skipSpace();
   if (!tryChar(';')) return false;
   skipSpace();
   std::string_view const second = token();
   std::optional<IpGenPrefix> src;
   if (second != "*") {
      src = prefixFromText(second);
      if (!src) return false;
   }
   skipSpace();
   if (!atEnd() && !tryChar(';')) return false;
   if (dest) dest_ = *dest;
   if (src) src_ = *src;
   destSeen_ = srcSeen_ = true;
   return true;
}

// The component keyword at the position, one or two words; the position moves past it only
// when `consume` is set and a keyword is there.
std::optional<MatchCompType> RuleTextReader::componentKeyword(bool consume) {
   std::size_t const start = pos_;
   std::string_view const w = word();
   std::optional<MatchCompType> type = keywordType(w);
   if (!type) {
      std::size_t const afterFirst = pos_;
      skipSpace();
      std::string_view const w2 = pos_ > afterFirst ? word() : std::string_view();
      for (auto const& k : kTwoWordKeywords) {
         if (iequals(k.first, w) && iequals(k.second, w2)) type = k.type;
      }
   }
   if (!type || !consume) pos_ = start;
   return type;
}

bool RuleTextReader::component() {
   std::optional<MatchCompType> const type = componentKeyword(true);
   if (!type) return false;
   skipSpace();
   good();
   if (*type == destPrefix_ || *type == srcPrefix_) return prefixComponent(*type);
   return valueList(*type);
}

bool RuleTextReader::prefixComponent(MatchCompType type) {
   bool& seen = type == destPrefix_ ? destSeen_ : srcSeen_;
   if (seen) return false;
   std::optional<IpGenPrefix> const p = prefixFromText(token());
   if (!p) return false;
   (type == destPrefix_ ? dest_ : src_) = *p;
   seen = true;
   good();
   return true;
}

// Pairs are separated by white space, ",", "|" or "||" (OR) or joined by "&" or "&&" (AND);
// the list may stand in "[ ]" and ends at ";", at the end of the text or at the next
// component keyword.
bool RuleTextReader::valueList(MatchCompType type) {
   Component c{type, {}};
   bool const bracket = tryChar('[');
   bool first = true;
   while (true) {
      skipSpace();
      if (atEnd() || peek() == ';') {
         if (bracket) return false;
         break;
      }
      if (bracket && tryChar(']')) break;
      bool andBit = false;
      bool separator = true;
      if (tryText("&&") || tryChar('&')) {
         andBit = true;
      } else if (tryText("||") || tryChar('|') || tryChar(',')) {
         if (first) return false;
      } else {
         separator = false;
      }
      if (separator) {
         skipSpace();
      } else if (!first && componentKeyword(false)) {
         if (bracket) return false;
         break;
      }
      if (!(isBitmaskType(type) ? bitmaskPair(c, andBit) : numericPair(c, andBit))) return false;
      first = false;
   }
   if (c.pairs.empty()) return false;
   components_.push_back(std::move(c));
   return true;
}

std::optional<std::uint32_t> RuleTextReader::number() {
   std::uint64_t v = 0;
   std::size_t digits = 0;
   if (tryText("0x") || tryText("0X")) {
      while (std::isxdigit(static_cast<unsigned char>(peek())) != 0) {
         char const c = lower(peek());
         v = v * 16 + static_cast<unsigned>(c <= '9' ? c - '0' : c - 'a' + 10);
         if (v > 0xffffffffu) return std::nullopt;
         ++pos_;
         ++digits;
      }
   } else {
      while (std::isdigit(static_cast<unsigned char>(peek())) != 0) {
         v = v * 10 + static_cast<unsigned>(peek() - '0');
         if (v > 0xffffffffu) return std::nullopt;
         ++pos_;
         ++digits;
      }
   }
   if (digits == 0 || isWordChar(peek())) return std::nullopt;
   return static_cast<std::uint32_t>(v);
}

std::optional<std::uint32_t> RuleTextReader::numericValue(MatchCompType type) {
   if (std::isdigit(static_cast<unsigned char>(peek())) != 0) return number();
   if (type != ipProtocol_) return std::nullopt;
   std::string_view const w = word();
   for (auto const& n : kProtocols) {
      if (iequals(n.name, w)) return n.value;
   }
   return std::nullopt;
}

bool RuleTextReader::numericPair(Component& c, bool andBit) {
   std::uint8_t low = opEq;
   bool explicitOp = tryText("==");
   for (std::uint8_t cmp : kNumericOpReadOrder) {
      if (explicitOp) break;
      if (tryText(kNumericOps[cmp])) {
         low = cmp;
         explicitOp = true;
      }
   }
   if (explicitOp) skipSpace();
   std::optional<std::uint32_t> const v = numericValue(c.type);
   if (!v) return false;
   if (!explicitOp && tryText("..")) {
      // A range "A..B" is ">=A" AND "<=B", as speakers that take ranges send it.
      std::optional<std::uint32_t> const upper = numericValue(c.type);
      if (!upper || *upper < *v) return false;
      return add(c, opGt | opEq, andBit, *v, Encoding{}) && add(c, opLt | opEq, true, *upper, Encoding{});
   }
   std::optional<Encoding> const enc = encoding(c.type);
   return enc && add(c, low, andBit, *v, *enc);
}

// One term of a bitmask value: a number, a flag name, or (TCP flags) one-letter names run
// together.
std::optional<std::uint32_t> RuleTextReader::bitmaskTerm(MatchCompType type, bool& underscoreName) {
   if (std::isdigit(static_cast<unsigned char>(peek())) != 0) return number();
   std::string_view const w = word();
   if (w.empty()) return std::nullopt;
   std::string name(w);
   if (name.find('_') != std::string::npos) {
      underscoreName = true;
      std::replace(name.begin(), name.end(), '_', '-');
   }
   if (type == fragment_) {
      for (auto const& n : kFragments) {
         if (iequals(n.name, name)) return n.value;
      }
      return std::nullopt;
   }
   for (auto const& n : kTcpFlags) {
      if (iequals(n.name, name)) return n.value;
   }
   std::uint32_t v = 0;
   for (char ch : w) {
      std::size_t const bit = kTcpFlagLetters.find(ch);
      if (bit == std::string_view::npos) return std::nullopt;
      v |= 1u << bit;
   }
   return v;
}

bool RuleTextReader::bitmaskPair(Component& c, bool andBit) {
   bool notBit = false;
   bool matchBit = false;
   bool explicitOp = true;
   if (tryText("!=") || tryText("=!")) {
      notBit = matchBit = true;
   } else if (tryText("==") || tryText("=")) {
      matchBit = true;
   } else if (tryText("!")) {
      notBit = true;
   } else {
      explicitOp = false;
   }
   if (explicitOp) skipSpace();
   bool underscoreName = false;
   std::optional<std::uint32_t> v = bitmaskTerm(c.type, underscoreName);
   if (!v) return false;
   if (tryChar('/')) {
      if (matchBit) return false;
      return valueMask(c, andBit, notBit, *v);
   }
   while (tryChar('+')) {
      std::optional<std::uint32_t> const more = bitmaskTerm(c.type, underscoreName);
      if (!more) return false;
      *v |= *more;
   }
   // Fragment flags spelt with underscores ("first_fragment") come from a configuration
   // language in which a bare flag means "this flag set" and is sent with the match bit;
   // hyphenated names without an operator are sent without it.
   if (!explicitOp && underscoreName) matchBit = true;
   std::optional<Encoding> const enc = encoding(c.type);
   auto const low = static_cast<std::uint8_t>((notBit ? opNot : 0) | (matchBit ? opMatch : 0));
   return enc && add(c, low, andBit, *v, *enc);
}

// "VALUE/MASK": the bits of MASK must equal those of VALUE. All set is a match of MASK, all
// clear is NOT any of MASK; a mix is both, joined by AND. A leading "!" negates, which a mix
// cannot express in one AND group.
bool RuleTextReader::valueMask(Component& c, bool andBit, bool notBit, std::uint32_t value) {
   std::optional<std::uint32_t> const mask = number();
   if (!mask || *mask == 0 || (value & ~*mask) != 0) return false;
   if (value == *mask) return add(c, notBit ? opNot | opMatch : opMatch, andBit, *mask, Encoding{});
   if (value == 0) return add(c, notBit ? 0 : opNot, andBit, *mask, Encoding{});
   if (notBit) return false;
   return add(c, opMatch, andBit, value, Encoding{}) && add(c, opNot, true, *mask & ~value, Encoding{});
}

std::optional<Encoding> RuleTextReader::encoding(MatchCompType type) {
   Encoding enc;
   if (!tryChar('{')) return enc;
   bool reservedGiven = false;
   do {
      skipSpace();
      std::string_view const name = word();
      skipSpace();
      if (!tryChar('=')) return std::nullopt;
      skipSpace();
      std::optional<std::uint32_t> const v = number();
      if (!v) return std::nullopt;
      if (name == "len" && !enc.lengthGiven) {
         if (*v != 1 && *v != 2 && *v != 4) return std::nullopt;
         enc.lengthGiven = true;
         enc.lengthCode = *v == 1 ? 0u : *v == 2 ? 1u : 2u;
      } else if (name == "rsv" && !reservedGiven) {
         if (*v == 0 || (*v & ~std::uint32_t{reservedMask(type)}) != 0) return std::nullopt;
         reservedGiven = true;
         enc.reserved = static_cast<std::uint8_t>(*v);
      } else {
         return std::nullopt;
      }
      skipSpace();
   } while (tryChar(','));
   if (!tryChar('}')) return std::nullopt;
   return enc;
}

// Appends one pair with the shortest length code that holds the value, unless the text
// asked for a longer one.
bool RuleTextReader::add(Component& c, std::uint8_t low, bool andBit, std::uint32_t value, Encoding const& enc) {
   unsigned code = shortestLengthCode(value);
   if (enc.lengthGiven) {
      if (enc.lengthCode < code) return false;
      code = enc.lengthCode;
   }
   if (code > maxLengthCode(c.type)) return false;
   auto const op = static_cast<std::uint8_t>((andBit ? opAnd : 0) | (code << 4) | enc.reserved | low);
   c.pairs.push_back(Pair{op, value});
   good();
   return true;
}

std::size_t prefixWireBytes(IpGenPrefix const& p) {
   if (p.isUnset()) return 0;
   // Type and length bytes, the offset byte of IPv6 (RFC 8956 section 3.1), the address bytes.
   return 2u + (p.af() == AddressFamily::ipv6 ? 1u : 0u) + (p.len() + 7u) / 8u;
}

bool RuleTextReader::finish(AddressFamily presetAf, FlowspecKey& out) {
   AddressFamily af = presetAf;
   for (IpGenPrefix const* p : {&dest_, &src_}) {
      if (p->isUnset()) continue;
      if (af == AddressFamily::unspecified) af = p->af();
      if (p->af() != af) {
         return fail(presetAf == AddressFamily::unspecified ? std::string("the prefixes are of two address families")
                                                            : "an " + std::string(Ovnet::toStrep(p->af())) +
                                                                  " prefix in an " + Ovnet::toStrep(af) + " rule");
      }
   }
   std::size_t pairs = 0;
   std::size_t body = prefixWireBytes(dest_) + prefixWireBytes(src_);
   for (Component const& c : components_) {
      // Flow Label exists only in IPv6 rules; an IPv6 Fragment value must not have the DF
      // bit (RFC 8956 section 3.6). The NLRI reader refuses both as well.
      if (c.type == flowLabel_ && af == AddressFamily::ipv4) return fail("flow-label exists only in IPv6 rules");
      body += 1;
      for (Pair const& p : c.pairs) {
         if (c.type == fragment_ && af == AddressFamily::ipv6 && (p.value & 0x01) != 0) {
            return fail("an IPv6 fragment value cannot hold dont-fragment");
         }
         body += 1 + opValueBytes(p.op);
      }
      pairs += c.pairs.size();
   }
   if (body > kMaxNlriBody)
      return fail("the rule needs " + std::to_string(body) + " bytes, more than an NLRI holds (4095)");
   if (pairs >= maxMatchOpValIndex) return fail("too many operator/value pairs");
   // The NLRI wants its components in ascending type order (RFC 8955 section 4.2); a text
   // may name them in any order. Repeated components of one type keep their text order.
   std::stable_sort(components_.begin(), components_.end(),
                    [](Component const& a, Component const& b) { return a.type < b.type; });
   out.afIs(af);
   out.destPrefixIs(dest_);
   out.srcPrefixIs(src_);
   MatchOpValIndex index = 0;
   for (Component const& c : components_) {
      for (std::size_t i = 0; i < c.pairs.size(); ++i) {
         std::uint8_t op = c.pairs[i].op;
         if (i + 1 == c.pairs.size()) op |= opEndOfList;
         index = out.setOpVal(index, c.type, op, c.pairs[i].value);
      }
   }
   return true;
}

// ---- writing ----------------------------------------------------------------------------

std::string prefixText(IpGenPrefix const& p) { return p.isUnset() ? "*" : p.str(); }

std::string hexNumber(std::uint32_t v) {
   char buf[16];
   std::snprintf(buf, sizeof buf, "0x%x", v);
   return buf;
}

std::string namedBits(std::uint32_t value, ValueName const* names, std::size_t count) {
   std::string out;
   std::uint32_t done = 0;
   for (std::size_t i = 0; i < count; ++i) {
      std::uint32_t const bit = names[i].value;
      if (bit == 0 || (value & bit) == 0 || (done & bit) != 0) continue;
      if (!out.empty()) out += '+';
      out += names[i].name;
      done |= bit;
   }
   return out;
}

std::string bitmaskValueText(MatchCompType type, std::uint32_t value) {
   if (type == fragment_) {
      if (value == 0) return "not-a-fragment";
      if ((value & ~0x0fu) == 0) return namedBits(value, kFragments, std::size(kFragments));
      return hexNumber(value);
   }
   if (value == 0) return "0";
   if ((value & ~0xffu) == 0) return namedBits(value, kTcpFlags, std::size(kTcpFlags));
   return hexNumber(value);
}

std::string pairText(MatchCompType type, std::uint8_t op, std::uint32_t value) {
   std::string out;
   if (isBitmaskType(type)) {
      out += kBitmaskOps[op & (opNot | opMatch)];
      out += bitmaskValueText(type, value);
   } else {
      out += kNumericOps[op & (opLt | opGt | opEq)];
      out += std::to_string(value);
   }
   std::string enc;
   if (opLengthCode(op) != shortestLengthCode(value)) enc = "len=" + std::to_string(opValueBytes(op));
   if (std::uint8_t const rsv = op & reservedMask(type); rsv != 0) {
      char buf[16];
      std::snprintf(buf, sizeof buf, "rsv=0x%02x", rsv);
      enc += (enc.empty() ? "" : ",") + std::string(buf);
   }
   if (!enc.empty()) out += "{" + enc + "}";
   return out;
}

// The pairs of a key grouped into components: a component ends at a pair with the
// end-of-list bit or where the type changes.
struct ComponentRun {
   MatchCompType type;
   std::vector<MatchOpVal> pairs;
};

std::vector<ComponentRun> componentRuns(FlowspecKey const& key) {
   std::vector<ComponentRun> runs;
   bool ended = true;
   for (auto r = key.getOptVal(0); !r.atEnd(); r = key.getOptVal(r.nextIndex())) {
      if (ended || runs.back().type != r.type()) runs.push_back(ComponentRun{r.type(), {}});
      runs.back().pairs.push_back(r.opVal());
      ended = (r.op() & opEndOfList) != 0;
   }
   return runs;
}

std::string runText(ComponentRun const& run) {
   std::string out(keywordOf(run.type));
   out += ' ';
   for (std::size_t i = 0; i < run.pairs.size(); ++i) {
      MatchOpVal const& p = run.pairs[i];
      if ((p.op & opAnd) != 0) {
         out += '&';
      } else if (i != 0) {
         out += ' ';
      }
      out += pairText(run.type, p.op, p.value);
   }
   return out;
}

std::string runBytesHex(ComponentRun const& run) {
   std::string out;
   char buf[4];
   auto byte = [&](unsigned b) {
      std::snprintf(buf, sizeof buf, "%02x", b & 0xffu);
      if (!out.empty()) out += ' ';
      out += buf;
   };
   for (MatchOpVal const& p : run.pairs) {
      byte(p.op);
      unsigned const n = opValueBytes(p.op);
      for (unsigned i = n; i-- > 0;) byte(i < 4 ? p.value >> (8 * i) : 0u);
   }
   return out;
}

std::string RuleTextReader::whyNot() const {
   if (!why_.empty()) return why_;
   // The first thing not read well: from the end of what was, to the end of its component.
   std::size_t at = good_;
   while (at < s_.size() && std::isspace(static_cast<unsigned char>(s_[at])) != 0) ++at;
   if (at >= s_.size()) return "the text ends too early";
   std::size_t end = s_.find(';', at);
   if (end == std::string_view::npos) end = s_.size();
   end = std::min(end, at + 40);
   while (end > at && std::isspace(static_cast<unsigned char>(s_[end - 1])) != 0) --end;
   return "cannot read \"" + std::string(s_.substr(at, std::max<std::size_t>(end - at, 1))) + "\" at offset " +
          std::to_string(at);
}

} // namespace

bool FlowspecKey::copyInStrCli(std::string_view text) { return copyInStrCli(text, nullptr); }

bool FlowspecKey::copyInStrCli(std::string_view text, std::string* whyNot) {
   FlowspecKey fresh;
   RuleTextReader reader(text);
   if (!reader.read(af(), fresh)) {
      if (whyNot) *whyNot = reader.whyNot();
      return false;
   }
   fresh.shrinkToFit();
   *this = std::move(fresh);
   return true;
}

std::string FlowspecKey::toStrepCli() const {
   std::string out = prefixText(dest_) + ";" + prefixText(src_) + ";";
   for (ComponentRun const& run : componentRuns(*this)) out += runText(run) + ";";
   return out;
}

std::string FlowspecKey::toStrepCliDetail() const {
   std::string out = std::string("family ") + Ovnet::toStrep(af()) + "; destination " + prefixText(dest_) +
                     "; source " + prefixText(src_);
   for (ComponentRun const& run : componentRuns(*this)) out += "; " + runText(run) + " (" + runBytesHex(run) + ")";
   return out;
}

} // namespace Flowspec
