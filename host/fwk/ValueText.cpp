#include "host/fwk/ValueText.h"

#include <limits>

namespace Ovk {

std::string valueTypeHeader(std::string_view typeName) {
   std::string s = "Value('";
   s += typeName;
   s += "', ** {";
   return s;
}

ValueTextWriter::ValueTextWriter(std::string_view typeName) : out_(valueTypeHeader(typeName)) {}

ValueTextWriter& ValueTextWriter::field(std::string_view name, std::string_view valueText) {
   if (!first_) out_ += ", ";
   first_ = false;
   out_ += '\'';
   out_ += name;
   out_ += "': ";
   out_ += valueText;
   return *this;
}

std::string boolText(bool b) { return b ? "True" : "False"; }

void ValueTextParser::fail(std::string const& what) const { throw ParseError(what, offset()); }

void ValueTextParser::literal(std::string_view lit) {
   if (!tryLiteral(lit)) fail("expected \"" + std::string(lit) + "\" at offset " + std::to_string(offset()));
}

bool ValueTextParser::tryLiteral(std::string_view lit) {
   if (static_cast<std::size_t>(end_ - pos_) < lit.size()) return false;
   if (std::string_view(pos_, lit.size()) != lit) return false;
   pos_ += lit.size();
   return true;
}

bool ValueTextParser::boolean() {
   if (tryLiteral("True")) return true;
   if (tryLiteral("False")) return false;
   fail("expected True or False at offset " + std::to_string(offset()));
}

std::uint64_t ValueTextParser::unsignedInteger(std::uint64_t max) {
   char const* start = pos_;
   std::uint64_t v = 0;
   bool overflow = false;
   while (pos_ != end_ && *pos_ >= '0' && *pos_ <= '9') {
      auto const d = static_cast<std::uint64_t>(*pos_ - '0');
      if (v > (std::numeric_limits<std::uint64_t>::max() - d) / 10) overflow = true;
      v = v * 10 + d;
      ++pos_;
   }
   if (pos_ == start) fail("expected a number at offset " + std::to_string(offset()));
   if (overflow || v > max) throw RangeError(std::string(start, pos_) + " > " + std::to_string(max) + " not allowed");
   return v;
}

std::int64_t ValueTextParser::integer() {
   bool const neg = tryLiteral("-");
   auto constexpr kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
   std::uint64_t const m = unsignedInteger(neg ? kMax + 1 : kMax);
   if (neg) return m == kMax + 1 ? std::numeric_limits<std::int64_t>::min() : -static_cast<std::int64_t>(m);
   return static_cast<std::int64_t>(m);
}

String ValueTextParser::string() {
   literal("'");
   std::string out;
   auto hexVal = [](char c) -> int {
      if (c >= '0' && c <= '9') return c - '0';
      if (c >= 'a' && c <= 'f') return c - 'a' + 10;
      if (c >= 'A' && c <= 'F') return c - 'A' + 10;
      return -1;
   };
   for (;;) {
      if (pos_ == end_) fail("unterminated string at offset " + std::to_string(offset()));
      char c = *pos_++;
      if (c == '\'') break;
      if (c != '\\') {
         out.push_back(c);
         continue;
      }
      if (pos_ == end_) fail("unterminated escape at offset " + std::to_string(offset()));
      char e = *pos_++;
      switch (e) {
      case '\\': out.push_back('\\'); break;
      case '\'': out.push_back('\''); break;
      case 'n': out.push_back('\n'); break;
      case 'r': out.push_back('\r'); break;
      case 't': out.push_back('\t'); break;
      case 'x': {
         if (end_ - pos_ < 2 || hexVal(pos_[0]) < 0 || hexVal(pos_[1]) < 0) {
            fail("bad \\x escape at offset " + std::to_string(offset()));
         }
         out.push_back(static_cast<char>(hexVal(pos_[0]) * 16 + hexVal(pos_[1])));
         pos_ += 2;
         break;
      }
      default: --pos_; fail("unknown escape at offset " + std::to_string(offset()));
      }
   }
   return String(out);
}

std::string_view ValueTextParser::token(std::string_view stops) {
   char const* start = pos_;
   while (pos_ != end_ && stops.find(*pos_) == std::string_view::npos) ++pos_;
   if (pos_ == start) fail("expected a value at offset " + std::to_string(offset()));
   return {start, static_cast<std::size_t>(pos_ - start)};
}

} // namespace Ovk
