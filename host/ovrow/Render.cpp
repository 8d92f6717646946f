#include "host/ovrow/Render.h"

#include <charconv>
#include <ostream>

namespace Ovrow {

namespace {

constexpr char kHex[] = "0123456789abcdef";

void appendU64(std::uint64_t v, std::string& out) {
   char buf[24];
   auto const r = std::to_chars(buf, buf + sizeof buf, v);
   out.append(buf, r.ptr);
}

void appendJsonValue(Value const& v, std::string& out) {
   switch (v.index()) {
   case 0: out += "null"; break;
   case 1: out += std::get<bool>(v) ? "true" : "false"; break;
   case 2: appendU64(std::get<std::uint64_t>(v), out); break;
   case 3: appendJsonString(std::get<std::string>(v), out); break;
   case 4: appendJsonString(std::get<Ovnet::IpGenPrefix>(v).str(), out); break;
   case 5: {
      out += '[';
      bool first = true;
      for (auto const& s : std::get<std::vector<std::string>>(v)) {
         if (!first) out += ", ";
         first = false;
         appendJsonString(s, out);
      }
      out += ']';
      break;
   }
   default: {
      out += '[';
      bool first = true;
      for (auto const& r : std::get<std::vector<Row>>(v)) {
         if (!first) out += ", ";
         first = false;
         appendJson(r, out);
      }
      out += ']';
      break;
   }
   }
}

// Pads `out` with blanks from `lineStart` to `column`, or one blank when past it.
void padTo(std::string& out, std::size_t lineStart, std::size_t column) {
   std::size_t const used = out.size() - lineStart;
   out.append(used < column ? column - used : 1, ' ');
}

void appendHeader(RowType const& type, std::string const& indent, std::string& out) {
   std::size_t const start = out.size();
   out += indent;
   std::size_t col = indent.size();
   bool first = true;
   for (auto const& c : type.columns()) {
      if (c.hidden || c.textWidth == 0 || c.type == ColumnType::rowList) continue;
      if (!first) padTo(out, start, col);
      first = false;
      out += c.name;
      col += c.textWidth + 1;
   }
   while (!out.empty() && out.back() == ' ') out.pop_back();
   out += '\n';
}

void appendTextRow(Row const& row, std::string const& indent, std::string& out) {
   RowType const& type = *row.type();
   std::size_t const start = out.size();
   out += indent;
   std::size_t col = indent.size();
   bool first = true;
   for (std::size_t i = 0; i < type.columns().size(); ++i) {
      auto const& c = type.columns()[i];
      if (c.hidden || c.textWidth == 0 || c.type == ColumnType::rowList) continue;
      if (!first) padTo(out, start, col);
      first = false;
      out += valueText(row.at(i));
      col += c.textWidth + 1;
   }
   while (!out.empty() && out.back() == ' ') out.pop_back();
   out += '\n';
   for (std::size_t i = 0; i < type.columns().size(); ++i) {
      auto const& c = type.columns()[i];
      if (c.hidden || c.textWidth == 0 || c.type != ColumnType::rowList) continue;
      auto const* rows = std::get_if<std::vector<Row>>(&row.at(i));
      if (!rows || rows->empty()) continue;
      std::string const sub = indent + "    ";
      appendHeader(*c.rowType, sub, out);
      for (auto const& r : *rows) appendTextRow(r, sub, out);
   }
}

} // namespace

void appendJsonString(std::string_view s, std::string& out) {
   out += '"';
   for (char ch : s) {
      auto const u = static_cast<unsigned char>(ch);
      if (ch == '"' || ch == '\\') {
         out += '\\';
         out += ch;
      } else if (u < 0x20) {
         out += "\\u00";
         out += kHex[u >> 4];
         out += kHex[u & 0xf];
      } else {
         out += ch;
      }
   }
   out += '"';
}

void appendJson(Row const& row, std::string& out) {
   RowType const& type = *row.type();
   out += '{';
   bool first = true;
   for (std::size_t i = 0; i < type.columns().size(); ++i) {
      auto const& c = type.columns()[i];
      if (c.hidden) continue;
      if (!first) out += ", ";
      first = false;
      appendJsonString(c.name, out);
      out += ": ";
      appendJsonValue(row.at(i), out);
   }
   out += '}';
}

std::string valueText(Value const& v) {
   switch (v.index()) {
   case 0: return "-";
   case 1: return std::get<bool>(v) ? "yes" : "no";
   case 2: return std::to_string(std::get<std::uint64_t>(v));
   case 3: return std::get<std::string>(v).empty() ? "-" : std::get<std::string>(v);
   case 4: return std::get<Ovnet::IpGenPrefix>(v).str();
   case 5: {
      auto const& list = std::get<std::vector<std::string>>(v);
      if (list.empty()) return "-";
      std::string s;
      for (auto const& e : list) s += (s.empty() ? "" : " ") + e;
      return s;
   }
   default: return std::to_string(std::get<std::vector<Row>>(v).size()) + " rows";
   }
}

std::ostream& operator<<(std::ostream& os, Row const& row) {
   if (!row.type()) return os << "{}";
   std::string s;
   appendJson(row, s);
   return os << s;
}

void TextRenderer::begin(std::string& out) { appendHeader(*type_, "", out); }

void TextRenderer::row(Row const& row, std::string& out) {
   any_ = true;
   appendTextRow(row, "", out);
}

void TextRenderer::end(std::string& out) {
   if (!any_) out += "(no rows)\n";
}

void JsonRenderer::begin(std::string& out) {
   out += '{';
   appendJsonString(name_, out);
   out += ": [";
}

void JsonRenderer::row(Row const& row, std::string& out) {
   out += any_ ? ",\n" : "\n";
   any_ = true;
   appendJson(row, out);
}

void JsonRenderer::end(std::string& out) { out += any_ ? "\n]}\n" : "]}\n"; }

} // namespace Ovrow
