// flowspec-demo: what the platform does so far, on an embedded default or on the prefixes
// given as arguments. Each prefix is parsed, its host bits are cleared, and it is interned
// in a dedup table, so repeated prefixes share one instance; the table's counters and the
// trace lines of the run are printed at the end.
#include <iostream>
#include <string>
#include <vector>

#include "host/fwk/Dedup.h"
#include "host/fwk/Trace.h"
#include "host/net/IpGenAddr.h"

namespace {

Ovk::TraceFacility demoTrace("Demo", "demo");

struct PrefixHandle : Ovk::DedupHandle {
   explicit PrefixHandle(Ovnet::IpGenPrefix p) : prefix(p) {}
   std::uint32_t hash() const override { return prefix.hash(); }
   bool compare(Ovk::DedupHandle const* o) const override {
      return static_cast<PrefixHandle const*>(o)->prefix == prefix;
   }
   Ovnet::IpGenPrefix prefix;
};

constexpr char const* kDefault[] = {"10.0.0.0/24", "192.168.77.5/20", "10.0.0.7/24", "2001:db8::/32",
                                    "::1234:5678:9a00:0/104", "192.168.64.0/20", "not-a-prefix"};

} // namespace

int main(int argc, char** argv) {
   if (argc > 1 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h")) {
      std::cout << "usage: flowspec-demo [PREFIX...]\n"
                   "Interns the given prefixes (or a built-in sample) in a dedup table and prints\n"
                   "the canonical prefixes, the table's counters and the trace of the run.\n";
      return 0;
   }
   std::vector<std::string> inputs;
   for (int i = 1; i < argc; ++i) inputs.emplace_back(argv[i]);
   bool const builtIn = inputs.empty();
   if (builtIn) inputs.assign(std::begin(kDefault), std::end(kDefault));

   Ovk::TraceCapture trace(demoTrace, 0x3ff);
   auto table = Ovk::SimpleDedupHashTable::create();
   std::vector<Ovk::Ptr<Ovk::DedupHandle const>> held;
   int bad = 0;
   for (auto const& text : inputs) {
      auto p = Ovnet::IpGenPrefix::parse(text);
      if (!p) {
         OVK_TRACE(demoTrace, 4, "not a prefix: " << text);
         ++bad;
         continue;
      }
      p->clearLowerAddrBits();
      auto h = table->lookupOrInsert(Ovk::makePtr<PrefixHandle>(*p));
      OVK_TRACE(demoTrace, 8, text << " -> " << static_cast<PrefixHandle const*>(h.ptr())->prefix);
      held.push_back(h);
   }
   std::cout << "canonical prefixes:\n";
   table->forEach([](Ovk::DedupHandle const* h) {
      auto const* ph = static_cast<PrefixHandle const*>(h);
      std::cout << "  " << ph->prefix << " (references " << ph->references() << ")\n";
   });
   auto const& c = table->counters();
   std::cout << "table: " << table->size() << " entries, " << c.inserts << " inserts, " << c.hits
             << " hits, " << bad << " rejected inputs\ntrace:\n";
   for (auto const& l : trace.lines()) std::cout << "  " << l.level << " " << l.line << '\n';
   // The built-in sample holds one bad input on purpose; only the user's own make it fail.
   return bad && !builtIn ? 1 : 0;
}
