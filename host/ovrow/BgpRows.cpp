#include "host/ovrow/BgpRows.h"

namespace Ovrow::Bgp {

namespace {
ColumnDef col(char const* name, ColumnType type, unsigned width = 0) {
   return ColumnDef{name, type, false, width, false, {}};
}
ColumnDef key(char const* name, ColumnType type, unsigned width, bool hidden = false) {
   return ColumnDef{name, type, true, width, hidden, {}};
}
} // namespace

Ovk::Ptr<RowType const> const& bgpFlowspecPathRowType() {
   static Ovk::Ptr<RowType const> const type = RowType::create(
       "Bgp::bgpFlowspecPath",
       {col("peer", ColumnType::text, 16), col("best", ColumnType::boolean, 4), col("stale", ColumnType::boolean, 5),
        col("asPath", ColumnType::text, 16),
        col("origin", ColumnType::text, 10), col("localPref", ColumnType::u64, 9), col("med", ColumnType::u64, 6),
        col("nextHop", ColumnType::text, 16), col("communities", ColumnType::textList, 1)});
   return type;
}

Ovk::Ptr<RowType const> const& bgpFlowspecRouteRowType() {
   static Ovk::Ptr<RowType const> const type = [] {
      ColumnDef paths = col("paths", ColumnType::rowList, 1);
      paths.rowType = bgpFlowspecPathRowType();
      return RowType::create("Bgp::bgpFlowspecRoute",
                             {key("rule", ColumnType::text, 56), key("destPrefix", ColumnType::prefix, 0, true),
                              col("ruleId", ColumnType::u64), col("nlri", ColumnType::text),
                              col("detail", ColumnType::text), col("redirectVrf", ColumnType::text, 12), paths,
                              col("inFsib", ColumnType::boolean, 6), col("notInFsibReason", ColumnType::text, 1)});
   }();
   return type;
}

Ovk::Ptr<RowType const> const& bgpFlowspecPeerEgressRowType() {
   static Ovk::Ptr<RowType const> const type = RowType::create(
       "Bgp::bgpFlowspecPeerEgress",
       {key("vrf", ColumnType::text, 8), key("peer", ColumnType::text, 16), key("rule", ColumnType::text, 40),
        col("ruleId", ColumnType::u64), col("source", ColumnType::text, 16), col("asPath", ColumnType::text, 16),
        col("origin", ColumnType::text, 10), col("localPref", ColumnType::u64, 9), col("med", ColumnType::u64, 6),
        col("nextHop", ColumnType::text, 16), col("communities", ColumnType::textList, 1)});
   return type;
}

Ovk::Ptr<RowType const> const& showBgpFlowspecRowType() {
   static Ovk::Ptr<RowType const> const type = [] {
      ColumnDef rules = col("rules", ColumnType::rowList, 1);
      rules.rowType = bgpFlowspecRouteRowType();
      return RowType::create("Bgp::showBgpFlowspec", {key("afiSafi", ColumnType::text, 16), rules});
   }();
   return type;
}

void registerBgpRowTypes(Ovdb& db) {
   db.rowTypeIs(bgpFlowspecRouteRowType());
   db.rowTypeIs(showBgpFlowspecRowType());
   db.rowTypeIs(bgpFlowspecPathRowType());
   db.rowTypeIs(bgpFlowspecPeerEgressRowType());
}

} // namespace Ovrow::Bgp
