#include "host/metrics/PromText.h"

#include <charconv>
#include <cmath>

namespace Ovk {

void appendLabelValue(std::string& out, std::string_view value) {
   for (char const c : value) {
      switch (c) {
      case '\\': out += "\\\\"; break;
      case '"': out += "\\\""; break;
      case '\n': out += "\\n"; break;
      default: out += c;
      }
   }
}

void PromText::family(std::string_view name, std::string_view type, std::string_view help) {
   out_.append("# HELP ").append(name).append(" ");
   // HELP text escapes backslash and line feed.
   for (char const c : help) {
      if (c == '\\') {
         out_ += "\\\\";
      } else if (c == '\n') {
         out_ += "\\n";
      } else {
         out_ += c;
      }
   }
   out_.append("\n# TYPE ").append(name).append(" ").append(type).append("\n");
}

void PromText::head(std::string_view name, std::initializer_list<Label> labels) {
   out_.append(name);
   if (labels.size() != 0) {
      out_ += '{';
      bool first = true;
      for (auto const& [k, v] : labels) {
         if (!first) out_ += ',';
         first = false;
         out_.append(k).append("=\"");
         appendLabelValue(out_, v);
         out_ += '"';
      }
      out_ += '}';
   }
   out_ += ' ';
}

void PromText::sample(std::string_view name, std::initializer_list<Label> labels, std::uint64_t value) {
   head(name, labels);
   char buf[24];
   auto const r = std::to_chars(buf, buf + sizeof(buf), value);
   out_.append(buf, r.ptr).append("\n");
}

void PromText::sample(std::string_view name, std::initializer_list<Label> labels, double value) {
   head(name, labels);
   if (std::isnan(value)) {
      out_ += "NaN";
   } else if (std::isinf(value)) {
      out_ += value > 0 ? "+Inf" : "-Inf";
   } else {
      char buf[32];
      auto const r = std::to_chars(buf, buf + sizeof(buf), value);
      out_.append(buf, r.ptr);
   }
   out_ += '\n';
}

} // namespace Ovk
