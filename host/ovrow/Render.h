// Renderings of a stream of rows: an aligned text table for people and JSON for scripts.
//
// Both append to a string as rows come, so that a caller can send what is rendered while the
// walk goes on; neither holds rows. The text table's columns have the widths the row type
// gives (a wider value pushes the rest of its line right, alignment of the next line is kept);
// a row-list column is shown as indented lines under its row, with its own header. JSON is
// one object {"<name>": [...]} with one object per row, fields named after the columns
// (lowerCamelCase), null columns as null, hidden columns left out.
#pragma once

#include <iosfwd>
#include <string>

#include "host/ovrow/Row.h"

namespace Ovrow {

class RowRenderer {
 public:
   virtual ~RowRenderer() = default;
   virtual void begin(std::string& out) = 0;
   virtual void row(Row const& row, std::string& out) = 0;
   virtual void end(std::string& out) = 0;
};

class TextRenderer : public RowRenderer {
 public:
   explicit TextRenderer(Ovk::Ptr<RowType const> type) : type_(std::move(type)) {}
   // The header line (column names, aligned).
   void begin(std::string& out) override;
   void row(Row const& row, std::string& out) override;
   // Nothing, or "(no rows)" when there were none.
   void end(std::string& out) override;

 private:
   Ovk::Ptr<RowType const> type_;
   bool any_ = false;
};

class JsonRenderer : public RowRenderer {
 public:
   explicit JsonRenderer(std::string name) : name_(std::move(name)) {}
   void begin(std::string& out) override;
   void row(Row const& row, std::string& out) override;
   void end(std::string& out) override;

 private:
   std::string name_;
   bool any_ = false;
};

// One row as a JSON object.
void appendJson(Row const& row, std::string& out);
// `s` as a JSON string, quotes included.
void appendJsonString(std::string_view s, std::string& out);
// A value as the text table shows it ("-" for null, "yes"/"no", a list joined by ", ").
std::string valueText(Value const& v);
// A row in trace lines: its JSON object.
std::ostream& operator<<(std::ostream& os, Row const& row);

} // namespace Ovrow
