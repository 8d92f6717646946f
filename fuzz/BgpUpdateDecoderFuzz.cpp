// Whole UPDATE messages under arbitrary bytes: the host's UPDATE decoder with the flowspec
// plugin's rules, and the report the decode command prints. The input is the message body;
// the target puts a valid header in front so that every input reaches the attributes.
//
// Oracles: nothing read outside the message (ASan); a session reset and only a reset
// chooses a NOTIFICATION; every error is counted once on the UPDATE's results; no error is
// stronger than the UPDATE's outcome; and every NLRI that was accepted reads, on its own,
// as the same interned rule.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "BgpFlowspec/FlowspecParseNlri.h"
#include "tools/flowspec/UpdateReport.h"

namespace {

using namespace Routing::Bgp;

void check(bool ok, char const* what) {
   if (ok) return;
   std::fprintf(stderr, "UPDATE decoder broken: %s\n", what);
   std::abort();
}

bool within(std::span<std::uint8_t const> part, std::vector<std::uint8_t> const& message) {
   return part.empty() ||
          (part.data() >= message.data() && part.data() + part.size() <= message.data() + message.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   static FlowspecTool::UpdateDecodeSession& session = *new FlowspecTool::UpdateDecodeSession();
   if (size + 19 > 65535) return 0;
   std::vector<std::uint8_t> message(16, 0xff);
   message.push_back(static_cast<std::uint8_t>((size + 19) >> 8));
   message.push_back(static_cast<std::uint8_t>(size + 19));
   message.push_back(2);
   message.insert(message.end(), data, data + size);

   BgpParsedUpdate const& u = session.decoder().decode(message);
   check((u.action == BgpUpdateAction::sessionReset) == u.notification.has_value(), "NOTIFICATION without a reset");
   check(u.attributes->results()->totalCount() == u.errors.size(), "errors and counts disagree");
   for (BgpUpdateError const& e : u.errors) check(e.action <= u.action, "an error stronger than the outcome");
   if (u.notification) check(within(u.notification->data, message), "NOTIFICATION data outside the message");
   for (BgpParsedNlri const& n : u.nlri) {
      check(within(n.bytes, message) && within(n.given, message), "NLRI outside the message");
      if (!n.routeKey) continue;
      auto collections = session.decoder().ruleCollections(n.afiSafi);
      auto const* rule = collections->nlriSubRule({n.afiSafi, false});
      BgpParsePktPosition pos(n.bytes);
      BgpParsePktPosition* p = &pos;
      BgpParseUpdateNlriReturn const again =
          rule->inhale(session.decoder().parseContext(), p, true, BgpParseUpdateResults::create());
      check(again.routeKey == n.routeKey && pos.bytesLeft() == 0, "an accepted NLRI reads differently on its own");
   }
   // The report reads everything again; it must not fail either.
   (void)session.updateJson(u, 1, nullptr).dump();
   return 0;
}
