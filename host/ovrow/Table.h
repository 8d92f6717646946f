// Tables of rows and the database that finds them by path.
//
// A table is implemented outside the row library (ExternalTable): the implementation keeps
// its own data and produces rows on demand through four operations, each answering whether
// a row was produced:
//   beginIterState(state)          position at the first row
//   getRow(row)                    exact lookup of the row whose key columns `row` holds;
//                                  on true `row` holds the whole row
//   lowerBoundIterState(row, state) position at the first row not before `row`'s key
//   getNextRow(state)              step to the following row
// The row produced by the state operations is state.row.
//
// Readers walk a table through a Cursor, which may be kept across passes of the event loop:
// before stepping after such a pause the reader calls resume(), and the implementation
// re-finds its place (its own data may have changed meanwhile).
//
// The database (Ovdb) knows row types by name and id, and tables by path: a table is
// registered under a path with its row type's id, then its implementation is installed.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "host/fwk/Assert.h"
#include "host/fwk/Ptr.h"
#include "host/ovrow/Row.h"

namespace Ovrow {

// Where a walk stands; implementations derive their iteration state from it.
struct IterStateBase {
   Row row;
};

// A walk over a table, type-erased.
class Cursor {
 public:
   virtual ~Cursor() = default;
   // The row at the cursor; valid after a step that answered true.
   virtual Row const& row() const = 0;
   // Steps to the following row; false past the last.
   virtual bool next() = 0;
   // The table may have changed since the last step: find the place again.
   virtual void resume() = 0;
};

class Table : public Ovk::PtrInterface {
 public:
   virtual Ovk::Ptr<RowType const> const& rowType() const = 0;
   // A cursor at the first row; null when there is none.
   virtual std::unique_ptr<Cursor> cursorBegin() = 0;
   // A cursor at the first row not before `key`'s key columns; null when there is none.
   virtual std::unique_ptr<Cursor> cursorLowerBound(Row& key) = 0;
   // The exact lookup: on true `row` holds the row whose key it held.
   virtual bool lookup(Row& row) = 0;
};

template <class IterState>
class ExternalTable : public Table {
 public:
   explicit ExternalTable(Ovk::Ptr<RowType const> rowType) : rowType_(std::move(rowType)) {}
   Ovk::Ptr<RowType const> const& rowType() const override { return rowType_; }

   virtual bool beginIterState(IterState& state) = 0;
   virtual bool getRow(Row* row) = 0;
   virtual bool lowerBoundIterState(Row* row, IterState& state) = 0;
   virtual bool getNextRow(IterState& state) = 0;
   // Re-finds the state's place after a pause; by default the place is taken as still good.
   virtual void resumeIterState(IterState&) {}

   // A fresh state whose row is of the table's type.
   IterState newIterState() const {
      IterState state;
      state.row = Row(rowType_);
      return state;
   }

   std::unique_ptr<Cursor> cursorBegin() override {
      auto c = std::make_unique<StateCursor>(*this);
      if (!beginIterState(c->state)) return nullptr;
      return c;
   }
   std::unique_ptr<Cursor> cursorLowerBound(Row& key) override {
      auto c = std::make_unique<StateCursor>(*this);
      if (!lowerBoundIterState(&key, c->state)) return nullptr;
      return c;
   }
   bool lookup(Row& row) override { return getRow(&row); }

 private:
   struct StateCursor : Cursor {
      explicit StateCursor(ExternalTable& t) : table(Ovk::Ptr<ExternalTable>(&t)), state(t.newIterState()) {}
      Row const& row() const override { return state.row; }
      bool next() override { return table->getNextRow(state); }
      void resume() override { table->resumeIterState(state); }
      Ovk::Ptr<ExternalTable> table;
      IterState state;
   };

   Ovk::Ptr<RowType const> rowType_;
};

using TableTypeId = std::uint32_t;

class Ovdb : public Ovk::PtrInterface {
 public:
   // Registers a row type under its name; the id it has (the same type twice: the same id).
   TableTypeId rowTypeIs(Ovk::Ptr<RowType const> const& type);
   // The id of the row type named `name`, if registered.
   std::optional<TableTypeId> tableTypeId(std::string const& name) const;
   Ovk::Ptr<RowType const> rowType(TableTypeId id) const;
   // Registers a table under `path` with rows of type `typeId` (assertion "unknown table
   // type"); a path registered again keeps its implementation only if the type is the same.
   void registerTable(std::string const& path, TableTypeId typeId);
   // Installs the implementation of a registered path (assertions "table not registered",
   // "table implementation of another row type").
   void tableImplementationIs(std::string const& path, Ovk::Ptr<Table> const& impl);
   // The implementation at `path`; null when none.
   Ovk::Ptr<Table> table(std::string const& path) const;
   bool tableRegistered(std::string const& path) const { return tables_.count(path) != 0; }
   std::size_t tables() const { return tables_.size(); }

 private:
   struct Entry {
      TableTypeId typeId = 0;
      Ovk::Ptr<Table> impl;
   };
   std::map<std::string, TableTypeId> typeIds_;
   std::map<TableTypeId, Ovk::Ptr<RowType const>> types_;
   std::map<std::string, Entry> tables_;
};

// A show command's row database: the database behind it, with the row types it knows.
class LocalOvdb {
 public:
   explicit LocalOvdb(Ovk::Ptr<Ovdb> database) : database_(std::move(database)) {}
   Ovdb& database() const { return *database_; }

 private:
   Ovk::Ptr<Ovdb> database_;
};

} // namespace Ovrow
