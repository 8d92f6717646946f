#include "host/ovrow/Row.h"

#include "host/fwk/Assert.h"

namespace Ovrow {

RowType::RowType(std::string name, std::vector<ColumnDef> columns)
    : name_(std::move(name)), columns_(std::move(columns)) {
   bool keys = true;
   for (auto const& c : columns_) {
      OVK_ASSERT_MSG(!c.key || keys, "key columns first");
      if (c.key) ++keyColumns_;
      keys = keys && c.key;
      OVK_ASSERT_MSG((c.type == ColumnType::rowList) == (c.rowType != nullptr), "row list column needs its row type");
   }
}

std::size_t RowType::index(std::string_view name) const {
   for (std::size_t i = 0; i < columns_.size(); ++i) {
      if (columns_[i].name == name) return i;
   }
   OVK_ASSERT_MSG(false, "unknown column");
   return 0;
}

Row::Row(Ovk::Ptr<RowType const> type) : type_(std::move(type)), values_(type_->columns().size()) {}

namespace {
bool typeMatches(ColumnType t, Value const& v) {
   switch (v.index()) {
   case 0: return true;
   case 1: return t == ColumnType::boolean;
   case 2: return t == ColumnType::u64;
   case 3: return t == ColumnType::text;
   case 4: return t == ColumnType::prefix;
   case 5: return t == ColumnType::textList;
   default: return t == ColumnType::rowList;
   }
}
} // namespace

void Row::columnIs(std::string_view name, Value value) {
   std::size_t const i = type_->index(name);
   OVK_ASSERT_MSG(typeMatches(type_->columns()[i].type, value), "column type");
   values_[i] = std::move(value);
}

void Row::clear() {
   for (auto& v : values_) v = std::monostate{};
}

bool Row::keyEquals(Row const& other) const {
   if (type_ != other.type_) return false;
   for (std::size_t i = 0; i < type_->keyColumns(); ++i) {
      if (!(values_[i] == other.values_[i])) return false;
   }
   return true;
}

} // namespace Ovrow
