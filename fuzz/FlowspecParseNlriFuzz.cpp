// The flowspec NLRI parse rule under arbitrary bytes, for both families. The input is one
// attribute's NLRI field; the rule reads one NLRI from it. A rule that parses must write
// NLRI bytes that parse, whole, to the same rule, and write the same bytes again: the writer
// and the reader agree on everything the key holds. (A repeated prefix keeps only the later
// prefix, so the rewritten rule may lose the repeated-type flag and, when the earlier prefix
// had an offset, the offset flag; only then.)
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "tests/BgpFlowspec/ParseTestHelpers.h"

namespace {

using namespace FlowspecTest;

void check(bool ok, char const* what, Ovk::String const& wire) {
   if (ok) return;
   std::fprintf(stderr, "round trip broken: %s; rewritten %s\n", what, toHex(wire.span()).c_str());
   std::abort();
}

bool adjacentRepeat(FlowspecRouteKey const& key) {
   std::uint32_t prev = 0;
   for (auto c : key.opValComponents()) {
      if (c.type == prev) return true;
      prev = c.type;
   }
   return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   static ParseEnv& env = *new ParseEnv();
   Bytes const input(data, data + size);
   for (bool v6 : {false, true}) {
      auto const first = env.parse(v6, input);
      if (!first.result) continue;
      FlowspecRouteKey const& k1 = *first.result.value();
      Ovk::String const wire = k1.serialize(RouteKey::SerializeOperation::advertise, nullptr);
      auto const second = env.parse(v6, Bytes(wire.bytes(), wire.bytes() + wire.size()));
      check(static_cast<bool>(second.result), "the rewritten NLRI does not parse", wire);
      check(second.left == 0, "the rewritten NLRI is not read whole", wire);
      FlowspecRouteKey const& k2 = *second.result.value();
      KeyModel a = KeyModel::of(k1);
      KeyModel const b = KeyModel::of(k2);
      std::uint32_t const dropped = a.reason & ~b.reason;
      check((b.reason & ~a.reason) == 0, "the rewritten rule has a reason the first had not", wire);
      // Only a repeated prefix can lose flags on rewriting: the repeat flag, when no
      // component repeats besides; the offset flag, when a repeat happened and the kept
      // prefixes have no offset.
      bool const repeated = (a.reason & FlowspecWontExportReason::componentTypeMoreThanOnce_) != 0;
      std::uint32_t mayDrop = 0;
      if (repeated && !adjacentRepeat(k1)) mayDrop |= FlowspecWontExportReason::componentTypeMoreThanOnce_;
      if (repeated && b.destOffset == 0 && b.srcOffset == 0) mayDrop |= FlowspecWontExportReason::nonZeroIpv6Offset_;
      check((dropped & ~mayDrop) == 0, "the rewritten rule lost a reason", wire);
      a.reason = b.reason;
      check(a == b, "the rewritten rule differs", wire);
      check(dropped != 0 || &k1 == &k2, "an equal rule was not interned once", wire);
      check(k2.serialize(RouteKey::SerializeOperation::advertise, nullptr) == wire, "a second write differs", wire);
   }
   return 0;
}
