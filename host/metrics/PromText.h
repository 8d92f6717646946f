// Prometheus' text exposition format (version 0.0.4): metric families, each with its HELP
// and TYPE lines, then its samples, one per line: name{label="value",...} value.
//
// Names and label names are the caller's constants; label values are escaped here
// (backslash, double quote and line feed, as the format asks), so any text can be a label
// value. Numbers print as Prometheus reads them back exactly: integers in decimal, others in
// the shortest form that round-trips, NaN and infinities by their names.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace Ovk {

class PromText {
 public:
   using Label = std::pair<std::string_view, std::string_view>;

   // Starts a family; `type` is "counter", "gauge" or "untyped". Counters' names end in
   // "_total" by convention; the caller names them so.
   void family(std::string_view name, std::string_view type, std::string_view help);
   // One sample of the family begun last (or of its _sum/_count series).
   void sample(std::string_view name, std::initializer_list<Label> labels, double value);
   void sample(std::string_view name, std::initializer_list<Label> labels, std::uint64_t value);
   void sample(std::string_view name, double value) { sample(name, {}, value); }
   void sample(std::string_view name, std::uint64_t value) { sample(name, {}, value); }

   std::string const& text() const { return out_; }
   std::string take() { return std::move(out_); }
   void reserve(std::size_t bytes) { out_.reserve(bytes); }

 private:
   void head(std::string_view name, std::initializer_list<Label> labels);
   std::string out_;
};

// A label value as the format writes it between double quotes.
void appendLabelValue(std::string& out, std::string_view value);

} // namespace Ovk
