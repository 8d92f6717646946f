// The FSIB as the XDP classifier's maps (fwd/xdp/XdpLayout.h describes them), kept equal to
// it rule by rule.
//
// Classification is a bitmap intersection: each rule holds a position in precedence order,
// each value of each field has a class (the positions of the rules that accept the value),
// and a packet's matching rules are the AND of its fields' classes; the lowest set bit is
// the first rule to apply. The cost per packet is one lookup per field plus the AND of a
// few summary words and of the candidate words they leave: independent of the rule count.
//
// Changes are made in place, each visible at one store:
//   add      the rule's bits go into every class while it is not live (no packet can match
//            it yet: the family's live bitmap is part of the AND), its action slot is set,
//            then its live bit: one 64-bit store;
//   delete   the live bit is cleared first, then its bits;
//   actions  a fresh action slot is filled, then the position points at it (one store);
//   split    a class that must change for some of its values only is copied, the copy
//            changed, and those values pointed at the copy one 16-bit store at a time: the
//            two classes differ only in the bit of the rule being added, which is not live.
// A position, class or action slot that is given up is reused only after a quarantine, so
// a packet that read the old id meanwhile still finds what it read it for. Positions leave
// gaps; a rule inserted where there is none moves its neighbours one at a time (each is live
// at both positions for a moment: the same rule, in the same order).
//
// A full apply (the first, a restart, or when classes run out) builds a fresh set of maps
// and a fresh program, then replaces the program on every interface in one step each (the
// pinned bpf_link is updated), so a packet sees the old dataplane or the new one.
//
// The program and its maps stay attached when the process ends: the links and the maps
// are pinned under PIN_ROOT/NAME (/sys/fs/bpf/flowspec/NAME). The next start replaces them.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "fwd/Backend.h"
#include "fwd/PolicyRoutes.h"
#include "fwd/RuleCompiler.h"

namespace Fwd {

struct XdpConfig {
   std::string name = "flowspec";
   std::string pinRoot = "/sys/fs/bpf/flowspec"; // empty: nothing pinned, nothing kept (tests)
   std::vector<std::string> interfaces;          // empty: loaded, not attached (tests)
   CompileConfig compile;                        // VRF tables; the hook is ingress
   std::uint32_t markBase = 0x46530000;
   std::uint32_t routeTableBase = 20000;
   std::uint32_t samplesPerSecond = 20; // per CPU
   bool generic = false;                // attach in generic (skb) mode only
};

// The values one array-indexed field of the classifier takes.
enum class XdpField : std::uint8_t {
   protocol,
   destPort,
   sourcePort,
   port,
   icmpType,
   icmpCode,
   tcpFlags,
   length,
   dscp,
   fragment,
   flowLabel,
};
inline constexpr std::size_t xdpFieldCount = 11;

// A rule's match as the classifier holds it: the accepted values of each constrained field.
struct XdpMatch {
   Ovnet::AddressFamily af = Ovnet::AddressFamily::unspecified;
   std::optional<Ovnet::IpGenPrefix> dest;
   std::optional<Ovnet::IpGenPrefix> source;
   std::array<std::optional<IntervalSet>, xdpFieldCount> fields;
   friend bool operator==(XdpMatch const&, XdpMatch const&) = default;
};

// The classifier's form of a match, or why it cannot hold it (the rule is then refused).
struct XdpCompiled {
   CompiledRule::Kind kind = CompiledRule::Kind::install;
   std::string reason;
   XdpMatch match;
};
XdpCompiled compileXdpMatch(Flowspec::FlowspecKey const& key);

// A libbpf options struct, zeroed and sized (what LIBBPF_OPTS does in C).
template <class T>
T bpfOpts() {
   T o{};
   o.sz = sizeof(T);
   return o;
}

// "SRC > DST protocol P" of an Ethernet frame (a sampled packet's first bytes), or empty
// when the bytes hold no IP header.
std::string describeFrame(std::span<std::uint8_t const> frame);

struct XdpCounts {
   std::uint64_t packets = 0;
   std::uint64_t bytes = 0;
};

class XdpTable : public Backend {
 public:
   // `routes` may be null when no rule redirects. `log` receives attach notes and samples.
   XdpTable(XdpConfig cfg, PolicyRoutes* routes, std::ostream& log);
   ~XdpTable() override;

   XdpConfig const& config() const { return cfg_; }
   // Loads the program to see that the kernel takes it (kept for the first full build, so
   // that the verifier's time is spent before the FSIB is read), and attaches nothing. False
   // with `error` (the verifier's last lines) when it does not.
   bool probe(std::string* error);

   std::string describe() const override;
   std::string dataplane() const override { return "xdp " + cfg_.name; }
   ApplyReport apply(std::vector<Flowspec::Rule> const& rules) override;
   ApplyReport change(std::vector<Flowspec::Rule> const& upserts,
                      std::vector<Flowspec::FlowspecSlateKey> const& removed) override;
   std::vector<RuleStatus> statuses() const override;
   std::size_t programmedRules() const override;
   void remove() override;
   void poll() override;

   // The program's file descriptor (BPF_PROG_TEST_RUN in tests and benchmarks); -1 before
   // the first apply.
   int programFd() const;
   // A rule's counts since it was installed (empty when it is not).
   std::optional<XdpCounts> counts(Flowspec::FlowspecSlateKey const& key) const;
   // Bytes the kernel holds for the maps.
   std::uint64_t mapBytes() const;

   struct Dataplane;
   struct Entry;
   struct Field;
   struct Trie;
   struct Layout; // positions, classes, slots and counters of the dataplane in use

 private:
   using Key = Flowspec::FlowspecSlateKey;
   using Clock = std::chrono::steady_clock;
   struct KeyLess {
      bool operator()(Entry const* a, Entry const* b) const;
   };
   struct KeyHash {
      std::size_t operator()(Key const& k) const noexcept;
   };

   bool build(std::string* error);
   bool attach(Dataplane& dp, std::string* error);
   void compile(Entry& e);
   bool installable(Entry const& e) const;
   bool place(Entry& e);
   bool addAt(Entry& e, std::uint32_t pos);
   void removeFrom(Entry& e, std::uint32_t pos);
   bool freePosition(std::uint32_t pos, Clock::time_point now) const;
   std::optional<std::uint32_t> makeRoom(Entry& e);
   bool writeAction(Entry& e);
   std::optional<std::uint32_t> takeClass();
   void dropEntry(Entry& e);
   void releaseTarget(Entry& e);
   void resetLayout();
   std::string markFor(Entry& e);
   void logSample(std::uint32_t counter, std::uint32_t length, std::uint32_t ifindex, std::uint8_t const* data,
                  std::uint32_t captured);

   XdpConfig cfg_;
   PolicyRoutes* routes_;
   std::ostream& log_;
   std::unique_ptr<Dataplane> dp_;
   std::unique_ptr<Dataplane> spare_; // loaded by probe(), taken by the next full build
   std::unique_ptr<Layout> layout_;
   std::unordered_map<Key, std::unique_ptr<Entry>, KeyHash> entries_;
   std::set<Entry*, KeyLess> placed_; // entries with a position, in precedence order
   bool needFull_ = true;
   std::string tableError_;
   std::map<std::uint32_t, Entry*> byCounter_;
   std::map<RedirectTarget, std::pair<std::uint32_t, unsigned>> targets_; // index, users
   std::uint32_t nextTarget_ = 1;
   std::map<std::string, int> links_; // interface -> bpf_link descriptor
};

} // namespace Fwd
