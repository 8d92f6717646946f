// Rows of the show tables: a row type names its columns and their types (key columns
// first); a row holds one value per column, each null until written.
//
// A row type is immutable once made and shared by every row of it. Column values are a
// small closed set of types (bool, unsigned 64-bit, text, IP prefix, list of texts, list of
// rows of a nested type), enough for what BGP show tables carry. Writing a value of another
// type than the column's, or naming a column the type lacks, is a programming error (fatal
// assertion); a missing row where one is required is the null-row exception.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "host/fwk/Ptr.h"
#include "host/net/IpGenAddr.h"

namespace Ovrow {

enum class ColumnType : std::uint8_t { boolean, u64, text, prefix, textList, rowList };

class RowType;

struct ColumnDef {
   std::string name;
   ColumnType type = ColumnType::text;
   bool key = false;
   // Width of the column in the aligned text table; 0: not shown there (JSON still has it).
   unsigned textWidth = 0;
   // Never rendered: a key column that only positions a lookup.
   bool hidden = false;
   // The type of the rows of a rowList column.
   Ovk::Ptr<RowType const> rowType;
};

class RowType : public Ovk::PtrInterface {
 public:
   // Key columns must come first (assertion "key columns first").
   RowType(std::string name, std::vector<ColumnDef> columns);
   static Ovk::Ptr<RowType const> create(std::string name, std::vector<ColumnDef> columns) {
      return Ovk::Ptr<RowType const>(Ovk::makePtr<RowType>(std::move(name), std::move(columns)));
   }
   std::string const& name() const { return name_; }
   std::vector<ColumnDef> const& columns() const { return columns_; }
   std::size_t keyColumns() const { return keyColumns_; }
   // The index of column `name` (assertion "unknown column" when the type has none).
   std::size_t index(std::string_view name) const;

 private:
   std::string name_;
   std::vector<ColumnDef> columns_;
   std::size_t keyColumns_ = 0;
};

class Row;
using Value = std::variant<std::monostate, bool, std::uint64_t, std::string, Ovnet::IpGenPrefix,
                           std::vector<std::string>, std::vector<Row>>;

class Row {
 public:
   Row() = default;
   explicit Row(Ovk::Ptr<RowType const> type);
   Ovk::Ptr<RowType const> const& type() const { return type_; }

   // The value of column `name`; std::monostate when null.
   Value const& getColumn(std::string_view name) const { return values_[type_->index(name)]; }
   Value const& at(std::size_t i) const { return values_[i]; }
   // The value as T, or null when the column is null.
   template <class T>
   T const* get(std::string_view name) const {
      return std::get_if<T>(&getColumn(name));
   }
   // Writes column `name`; the value's type must be the column's (assertion "column type").
   void columnIs(std::string_view name, Value value);
   void columnDel(std::string_view name) { values_[type_->index(name)] = std::monostate{}; }
   // Every column back to null.
   void clear();

   // Row equality of the row type: equal key columns.
   bool keyEquals(Row const& other) const;
   friend bool operator==(Row const& a, Row const& b) { return a.type_ == b.type_ && a.values_ == b.values_; }

 private:
   Ovk::Ptr<RowType const> type_;
   std::vector<Value> values_;
};

// Raised where a row is required and none was given ("null row").
class NullRowException : public std::logic_error {
 public:
   NullRowException() : std::logic_error("null row") {}
};

// Raised by a table asked for what it cannot do.
class NotSupportedException : public std::logic_error {
 public:
   explicit NotSupportedException(std::string const& what) : std::logic_error(what) {}
};

// The row behind a pointer a table was handed: the null-row exception when there is none.
inline Row& requireRow(Row* row) {
   if (!row) throw NullRowException();
   return *row;
}

} // namespace Ovrow
