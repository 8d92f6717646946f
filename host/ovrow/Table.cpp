#include "host/ovrow/Table.h"

namespace Ovrow {

TableTypeId Ovdb::rowTypeIs(Ovk::Ptr<RowType const> const& type) {
   auto const it = typeIds_.find(type->name());
   if (it != typeIds_.end()) return it->second;
   auto const id = static_cast<TableTypeId>(types_.size() + 1);
   typeIds_[type->name()] = id;
   types_[id] = type;
   return id;
}

std::optional<TableTypeId> Ovdb::tableTypeId(std::string const& name) const {
   auto const it = typeIds_.find(name);
   if (it == typeIds_.end()) return std::nullopt;
   return it->second;
}

Ovk::Ptr<RowType const> Ovdb::rowType(TableTypeId id) const {
   auto const it = types_.find(id);
   return it == types_.end() ? nullptr : it->second;
}

void Ovdb::registerTable(std::string const& path, TableTypeId typeId) {
   OVK_ASSERT_MSG(types_.count(typeId) != 0, "unknown table type");
   auto& e = tables_[path];
   if (e.typeId != typeId) e.impl = nullptr;
   e.typeId = typeId;
}

void Ovdb::tableImplementationIs(std::string const& path, Ovk::Ptr<Table> const& impl) {
   auto const it = tables_.find(path);
   OVK_ASSERT_MSG(it != tables_.end(), "table not registered");
   OVK_ASSERT_MSG(!impl || impl->rowType() == types_.at(it->second.typeId), "table implementation of another row type");
   it->second.impl = impl;
}

Ovk::Ptr<Table> Ovdb::table(std::string const& path) const {
   auto const it = tables_.find(path);
   return it == tables_.end() ? nullptr : it->second.impl;
}

} // namespace Ovrow
