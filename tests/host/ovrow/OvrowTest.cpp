// The row library: row types and their invariants, the table database, and the two
// renderings of a row stream.
#include <gtest/gtest.h>

#include "host/ovrow/Render.h"
#include "host/ovrow/Table.h"

namespace Ovrow {
namespace {

Ovk::Ptr<RowType const> subType() {
   return RowType::create(
       "T::sub", {{"name", ColumnType::text, false, 6, false, {}}, {"n", ColumnType::u64, false, 3, false, {}}});
}

Ovk::Ptr<RowType const> mainType() {
   return RowType::create("T::main", {{"id", ColumnType::text, true, 10, false, {}},
                                      {"start", ColumnType::prefix, true, 0, true, {}},
                                      {"on", ColumnType::boolean, false, 4, false, {}},
                                      {"tags", ColumnType::textList, false, 0, false, {}},
                                      {"subs", ColumnType::rowList, false, 1, false, subType()},
                                      {"why", ColumnType::text, false, 1, false, {}}});
}

Row sample(Ovk::Ptr<RowType const> const& type, char const* id, bool on) {
   Row r(type);
   r.columnIs("id", std::string(id));
   r.columnIs("on", on);
   r.columnIs("tags", std::vector<std::string>{"a\"b", "c"});
   Row s(type->columns()[4].rowType);
   s.columnIs("name", std::string("x"));
   s.columnIs("n", std::uint64_t{7});
   r.columnIs("subs", std::vector<Row>{s});
   return r;
}

TEST(OvrowTest, RowsCompareByKeyColumns) {
   auto const t = mainType();
   EXPECT_EQ(t->keyColumns(), 2u);
   Row a = sample(t, "r1", true);
   Row b = sample(t, "r1", false);
   EXPECT_TRUE(a.keyEquals(b));
   EXPECT_FALSE(a == b);
   b.columnIs("id", std::string("r2"));
   EXPECT_FALSE(a.keyEquals(b));
   EXPECT_EQ(a.get<std::string>("why"), nullptr);
   a.clear();
   EXPECT_EQ(a.get<std::string>("id"), nullptr);
}

TEST(OvrowTest, JsonOneObjectPerRow) {
   auto const t = mainType();
   JsonRenderer json("rows");
   std::string out;
   json.begin(out);
   json.row(sample(t, "r1", true), out);
   json.row(sample(t, "r2", false), out);
   json.end(out);
   EXPECT_EQ(out, "{\"rows\": [\n"
                  "{\"id\": \"r1\", \"on\": true, \"tags\": [\"a\\\"b\", \"c\"], \"subs\": [{\"name\": \"x\", \"n\": "
                  "7}], \"why\": null},\n"
                  "{\"id\": \"r2\", \"on\": false, \"tags\": [\"a\\\"b\", \"c\"], \"subs\": [{\"name\": \"x\", \"n\": "
                  "7}], \"why\": null}\n"
                  "]}\n");
   std::string empty;
   JsonRenderer none("rows");
   none.begin(empty);
   none.end(empty);
   EXPECT_EQ(empty, "{\"rows\": []}\n");
}

TEST(OvrowTest, TextAlignsColumnsAndIndentsRowLists) {
   auto const t = mainType();
   TextRenderer text(t);
   std::string out;
   text.begin(out);
   Row r = sample(t, "a-very-long-id", true);
   r.columnIs("why", std::string("because"));
   text.row(r, out);
   text.row(sample(t, "r2", false), out);
   text.end(out);
   EXPECT_EQ(out, "id         on   why\n"
                  "a-very-long-id yes because\n"
                  "    name   n\n"
                  "    x      7\n"
                  "r2         no   -\n"
                  "    name   n\n"
                  "    x      7\n");
   std::string empty;
   TextRenderer none(t);
   none.begin(empty);
   none.end(empty);
   EXPECT_EQ(empty, "id         on   why\n(no rows)\n");
}

TEST(OvrowTest, DatabaseKnowsTypesAndTables) {
   Ovdb db;
   auto const t = mainType();
   TableTypeId const id = db.rowTypeIs(t);
   EXPECT_EQ(db.rowTypeIs(t), id);
   EXPECT_EQ(db.tableTypeId("T::main"), id);
   EXPECT_FALSE(db.tableTypeId("T::other").has_value());
   db.registerTable("ov/t", id);
   EXPECT_TRUE(db.tableRegistered("ov/t"));
   EXPECT_EQ(db.table("ov/t"), nullptr);
}

TEST(OvrowDeathTest, Invariants) {
   auto const t = mainType();
   EXPECT_DEATH(RowType::create(
                    "bad", {{"a", ColumnType::text, false, 0, false, {}}, {"k", ColumnType::text, true, 0, false, {}}}),
                "key columns first");
   Row r(t);
   EXPECT_DEATH(r.columnIs("on", std::string("yes")), "column type");
   EXPECT_DEATH(r.getColumn("nope"), "unknown column");
   Ovdb db;
   EXPECT_DEATH(db.registerTable("ov/t", 9), "unknown table type");
   EXPECT_DEATH(db.tableImplementationIs("ov/t", nullptr), "table not registered");
}

TEST(OvrowTest, NullRow) {
   EXPECT_THROW(requireRow(nullptr), NullRowException);
   EXPECT_STREQ(NullRowException().what(), "null row");
}

} // namespace
} // namespace Ovrow
