// The generic value text form.
//
// Value types print as
//   Value('<full type name>', ** {'<field>': <value>, ...})
// with booleans as True / False, integers in decimal and byte strings in the framework's
// quoted form, and parse back from that text. Parsers take a position and an end in the
// text and advance the position over what they read. A missing literal raises ParseError
// at the position where the literal was expected; a value outside its type's range raises
// RangeError; a type's parser that fails on one field re-raises as AttributeError naming
// the field. These errors belong to the text interface (introspection, persistence); wire
// data is never parsed through it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "host/fwk/String.h"

namespace Ovk {

class ValueError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

class ParseError : public ValueError {
 public:
   ParseError(std::string const& what, std::size_t position) : ValueError(what), position_(position) {}
   // Offset in the parsed text where the expected literal or value is missing.
   std::size_t position() const { return position_; }

 private:
   std::size_t position_;
};

class RangeError : public ValueError {
 public:
   using ValueError::ValueError;
};

class AttributeError : public ValueError {
 public:
   AttributeError(std::string attribute, std::string const& what)
       : ValueError("attribute '" + attribute + "': " + what), attribute_(std::move(attribute)) {}
   std::string const& attribute() const { return attribute_; }

 private:
   std::string attribute_;
};

// Builds the text form field by field.
class ValueTextWriter {
 public:
   explicit ValueTextWriter(std::string_view typeName);
   ValueTextWriter& field(std::string_view name, std::string_view valueText);
   std::string str() const { return out_ + "})"; }

 private:
   std::string out_;
   bool first_ = true;
};

std::string boolText(bool b);
std::string valueTypeHeader(std::string_view typeName); // "Value('<type>', ** {"

// A cursor over text being parsed; offsets in errors are relative to `begin`.
class ValueTextParser {
 public:
   ValueTextParser(char const*& pos, char const* end) : begin_(pos), pos_(pos), end_(end) {}

   // Requires `literal` at the position; ParseError otherwise.
   void literal(std::string_view literal);
   // True when `literal` is next; consumes it then.
   bool tryLiteral(std::string_view literal);
   bool boolean();
   std::int64_t integer();
   std::uint64_t unsignedInteger(std::uint64_t max);
   String string();
   // Text up to (not including) the first character of `stops`, at least one character.
   std::string_view token(std::string_view stops);
   std::size_t offset() const { return static_cast<std::size_t>(pos_ - begin_); }
   bool atEnd() const { return pos_ == end_; }

 private:
   [[noreturn]] void fail(std::string const& what) const;
   char const* begin_;
   char const*& pos_;
   char const* end_;
};

} // namespace Ovk
