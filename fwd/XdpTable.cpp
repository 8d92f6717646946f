#include "fwd/XdpTable.h"

#include <arpa/inet.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/if_link.h>
#include <net/if.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <fstream>
#include <ostream>
#include <sstream>
#include <thread>

#include <linux/bpf.h>
#include <linux/types.h>

#include "fwd/xdp/XdpLayout.h"

// The compiled program, linked in (XdpObject.cpp).
extern "C" unsigned char const fsXdpObject[];
extern "C" unsigned char const fsXdpObjectEnd[];

namespace Fwd {

using Ovnet::AddressFamily;

namespace {

using Clock = std::chrono::steady_clock;

// A vacated position is reused after this long: a packet that read the position's bit before
// the rule left is done with it well before (an XDP run takes about a microsecond and is not
// preempted). Classes and action slots wait longer: they are plentiful.
constexpr auto positionQuarantine = std::chrono::microseconds(50);
constexpr auto idQuarantine = std::chrono::milliseconds(10);

constexpr std::uint32_t wordsPerClass = FS_SUMMARY + FS_WORDS;
constexpr std::uint32_t tcHandle = 0x4653; // our filter on the ingress hook, replaced in place

struct FieldShape {
   std::uint32_t offset;
   std::uint32_t size;
};
constexpr std::array<FieldShape, xdpFieldCount> fieldShapes = {{
    {FS_OFF_PROTO, FS_SIZE_PROTO},
    {FS_OFF_DPORT, FS_SIZE_PORT},
    {FS_OFF_SPORT, FS_SIZE_PORT},
    {FS_OFF_PORT, FS_SIZE_PORT},
    {FS_OFF_ICMP_TYPE, FS_SIZE_ICMP},
    {FS_OFF_ICMP_CODE, FS_SIZE_ICMP},
    {FS_OFF_FLAGS, FS_SIZE_FLAGS},
    {FS_OFF_LENGTH, FS_SIZE_LENGTH},
    {FS_OFF_DSCP, FS_SIZE_DSCP},
    {FS_OFF_FRAG, FS_SIZE_FRAG},
    {FS_OFF_LABEL, FS_SIZE_LABEL},
}};

// libbpf's messages go to the string being captured (the verifier's log among them).
thread_local std::string* libbpfCapture = nullptr;
int libbpfPrint(enum libbpf_print_level level, char const* fmt, va_list ap) {
   if (level == LIBBPF_DEBUG || libbpfCapture == nullptr) return 0;
   char buf[4096];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // libbpf's own formats
   int const n = std::vsnprintf(buf, sizeof buf, fmt, ap);
#pragma GCC diagnostic pop
   if (n > 0) libbpfCapture->append(buf, std::min<std::size_t>(static_cast<std::size_t>(n), sizeof buf - 1));
   return 0;
}

// The last `n` lines of the verifier's log in `text`, or of the text.
std::string lastLines(std::string const& text, std::size_t n) {
   std::string body = text;
   if (auto end = body.find("-- END PROG LOAD LOG --"); end != std::string::npos) body.resize(end);
   std::vector<std::string> lines;
   std::istringstream in(body);
   for (std::string l; std::getline(in, l);) {
      if (!l.empty()) lines.push_back(l);
   }
   std::string out;
   for (std::size_t i = lines.size() > n ? lines.size() - n : 0; i < lines.size(); ++i) out += "\n    " + lines[i];
   return out;
}

struct IdPool {
   std::uint32_t next;
   std::uint32_t end;
   std::vector<std::uint32_t> free;
   std::deque<std::pair<Clock::time_point, std::uint32_t>> resting;

   IdPool(std::uint32_t first, std::uint32_t last) : next(first), end(last) {}
   std::optional<std::uint32_t> take() {
      auto const now = Clock::now();
      while (!resting.empty() && resting.front().first <= now) {
         free.push_back(resting.front().second);
         resting.pop_front();
      }
      if (!free.empty()) {
         std::uint32_t const id = free.back();
         free.pop_back();
         return id;
      }
      if (next < end) return next++;
      return std::nullopt;
   }
   void give(std::uint32_t id) { resting.emplace_back(Clock::now() + idQuarantine, id); }
   std::size_t inUse() const { return (next - (end - (end - next))) - free.size() - resting.size(); }
};

// Runs work(from, to) over [0, n) in two halves, the second in a thread of its own when n is
// large enough to be worth one.
template <class Work>
void inHalves(std::size_t n, Work const& work) {
   std::size_t const half = n / 2;
   if (n < 2048) {
      work(0, half);
      work(half, n);
      return;
   }
   std::thread other([&] { work(half, n); });
   work(0, half);
   other.join();
}

// Atomic stores into memory the program reads.
void store64(std::uint64_t* p, std::uint64_t v) { __atomic_store_n(p, v, __ATOMIC_RELEASE); }
void store16(std::uint16_t* p, std::uint16_t v) { __atomic_store_n(p, v, __ATOMIC_RELEASE); }

} // namespace

// One loaded program and its maps, the big ones mapped into this process.
struct XdpTable::Dataplane {
   bpf_object* obj = nullptr;
   int prog = -1;
   int tcProg = -1;
   std::uint64_t* classes = nullptr; // FS_CLASSES x wordsPerClass words
   std::uint16_t* values = nullptr;  // FS_VALUES class ids
   std::uint64_t* positions = nullptr;
   fs_action* actions = nullptr;
   std::vector<std::pair<void*, std::size_t>> maps;
   int counters = -1;
   int police = -1;
   int config = -1;
   fs_config* cfg = nullptr;                 // mapped
   int prefixes = -1;                        // fs_prefixes
   std::array<int, 4> tries{-1, -1, -1, -1}; // dst4, src4, dst6, src6
   ring_buffer* samples = nullptr;

   ~Dataplane() {
      if (samples != nullptr) ring_buffer__free(samples);
      for (auto [p, n] : maps) ::munmap(p, n);
      if (obj != nullptr) bpf_object__close(obj);
   }

   std::uint64_t* cls(std::uint32_t id) const { return classes + std::size_t{id} * wordsPerClass; }

   void setBit(std::uint32_t c, std::uint32_t pos) const {
      std::uint64_t* k = cls(c);
      std::uint32_t const w = pos / 64;
      __atomic_fetch_or(&k[FS_SUMMARY + w], std::uint64_t{1} << (pos % 64), __ATOMIC_RELEASE);
      __atomic_fetch_or(&k[w / 64], std::uint64_t{1} << (w % 64), __ATOMIC_RELEASE);
   }
   void clearBit(std::uint32_t c, std::uint32_t pos) const {
      std::uint64_t* k = cls(c);
      std::uint32_t const w = pos / 64;
      std::uint64_t const left =
          __atomic_and_fetch(&k[FS_SUMMARY + w], ~(std::uint64_t{1} << (pos % 64)), __ATOMIC_RELEASE);
      if (left == 0) __atomic_fetch_and(&k[w / 64], ~(std::uint64_t{1} << (w % 64)), __ATOMIC_RELEASE);
   }
   void copyClass(std::uint32_t to, std::uint32_t from) const {
      std::memcpy(cls(to), cls(from), wordsPerClass * 8);
      __atomic_thread_fence(__ATOMIC_RELEASE);
   }
};

// An array-indexed field: which class each value is in, and how many values each class has.
struct XdpTable::Field {
   bool active = false; // false: every value is in FS_CLASS_ALL
   std::vector<std::uint32_t> classes;
};

// A prefix trie: prefix -> class, and how many rules name each prefix.
struct XdpTable::Trie {
   struct Node {
      std::uint32_t cls = 0;
      unsigned users = 0;
   };
   bool active = false;
   std::uint32_t rootClass = 0;
   // By address bytes, then length: a prefix's more specific prefixes follow it.
   using Addr = std::array<std::uint8_t, 16>; // an IPv4 address in the first 4
   std::map<std::pair<Addr, std::uint8_t>, Node> nodes;
   std::map<std::uint8_t, unsigned> lengths; // prefixes of each length
   // While a dataplane is built (no program reads it yet): trie entries to write in one
   // batch at the end, as key bytes and class ids.
   bool deferred = false;
   std::vector<std::uint8_t> pendingKeys;
   std::vector<std::uint32_t> pendingClasses;
   std::vector<fs_prefix_key> pendingHash;
};

struct XdpTable::Entry {
   Key const* key = nullptr;
   Flowspec::Rule rule;
   CompiledRule compiled; // kind, reason and actions
   XdpMatch match;
   std::string failure;   // why a rule that compiled is not installed
   std::optional<std::uint32_t> pos;
   std::uint32_t counter = 0;
   std::uint32_t slot = 0;
   std::optional<RedirectTarget> target;
};

// The state that belongs to one Dataplane: rebuilt with it.
struct XdpTable::Layout {
   std::array<XdpTable::Field, xdpFieldCount> fields;
   std::array<XdpTable::Trie, 4> tries;
   std::vector<std::uint32_t> refs = std::vector<std::uint32_t>(FS_CLASSES, 0);
   IdPool classes{FS_CLASS_FIRST_FREE, FS_CLASSES};
   IdPool slots{1, FS_ACTION_SLOTS};
   IdPool counters{1, FS_COUNTERS};
   std::vector<XdpTable::Entry*> owner = std::vector<XdpTable::Entry*>(FS_POSITIONS, nullptr);
   std::vector<Clock::time_point> vacated = std::vector<Clock::time_point>(FS_POSITIONS);
   std::uint32_t lookups = 0;
   std::vector<std::uint32_t> scratch = std::vector<std::uint32_t>(FS_CLASSES, 0);     // zero between uses
   std::vector<std::uint32_t> scratchCopy = std::vector<std::uint32_t>(FS_CLASSES, 0); // likewise
};

bool XdpTable::KeyLess::operator()(Entry const* a, Entry const* b) const {
   return Flowspec::FlowspecSlateKey::cmp(*a->key, *b->key) < 0;
}

std::size_t XdpTable::KeyHash::operator()(Key const& k) const noexcept {
   auto const w = k.words();
   return std::hash<std::string_view>{}(std::string_view(reinterpret_cast<char const*>(w.data()), w.size_bytes()));
}

XdpCompiled compileXdpMatch(Flowspec::FlowspecKey const& key) {
   XdpCompiled out;
   MatchSets const ms = matchSets(key);
   out.kind = ms.kind;
   out.reason = ms.reason;
   if (ms.kind != CompiledRule::Kind::install) return out;
   XdpMatch& m = out.match;
   m.af = ms.af;
   m.dest = ms.dest;
   m.source = ms.source;
   auto const constrain = [&m](XdpField f, IntervalSet const& s) {
      if (!s.isWhole(fieldShapes[static_cast<std::size_t>(f)].size - 1)) m.fields[static_cast<std::size_t>(f)] = s;
   };
   constrain(XdpField::protocol, ms.protocols);
   std::pair<Flowspec::MatchCompType, XdpField> const numeric[] = {
       {Flowspec::destPort_, XdpField::destPort}, {Flowspec::srcPort_, XdpField::sourcePort},
       {Flowspec::icmpType_, XdpField::icmpType}, {Flowspec::icmpCode_, XdpField::icmpCode},
       {Flowspec::packetLength_, XdpField::length}, {Flowspec::dscp_, XdpField::dscp},
       {Flowspec::flowLabel_, XdpField::flowLabel}};
   for (auto const& [t, f] : numeric) {
      if (auto it = ms.numeric.find(t); it != ms.numeric.end()) constrain(f, it->second);
   }
   std::vector<IntervalSet> ports;
   for (IntervalSet const& s : ms.ports) {
      if (!s.isWhole(0xffff)) ports.push_back(s);
   }
   if (ports.size() > 1) {
      out.kind = CompiledRule::Kind::refused;
      out.reason = "the XDP classifier matches one port component (source or destination) per rule, this rule has " +
                   std::to_string(ports.size()) + " (--backend nft programs it)";
      return out;
   }
   if (ports.size() == 1) m.fields[static_cast<std::size_t>(XdpField::port)] = ports[0];
   if (!ms.tcpFlags.empty()) {
      std::vector<Interval> iv;
      for (std::uint32_t v = 0; v < FS_SIZE_FLAGS; ++v) {
         bool ok = true;
         for (MaskedValues const& mv : ms.tcpFlags)
            ok = ok && std::binary_search(mv.values.begin(), mv.values.end(), v & mv.mask);
         if (ok) iv.push_back({v, v});
      }
      constrain(XdpField::tcpFlags, IntervalSet::of(std::move(iv)));
   }
   if (!ms.fragments.empty()) {
      std::uint32_t kinds = 0x1fff;
      for (std::uint32_t k : ms.fragments) kinds &= k;
      std::vector<Interval> iv;
      for (std::uint32_t k = 0; k < FS_SIZE_FRAG; ++k) {
         if ((kinds >> k) & 1) iv.push_back({k, k});
      }
      // Kinds of the other family never meet the rule (its family's live bitmap).
      m.fields[static_cast<std::size_t>(XdpField::fragment)] = IntervalSet::of(std::move(iv));
   }
   return out;
}

XdpTable::XdpTable(XdpConfig cfg, PolicyRoutes* routes, std::ostream& log)
    : cfg_(std::move(cfg)), routes_(routes), log_(log), layout_(std::make_unique<Layout>()) {
   libbpf_set_print(libbpfPrint);
   if (routes_ != nullptr) routes_->clearMarkRules(cfg_.markBase, cfg_.markBase + 0xffff);
}

std::string XdpTable::describe() const { return "XDP program " + cfg_.name; }

int XdpTable::programFd() const { return dp_ ? dp_->prog : -1; }

namespace {

// Loads the program and maps the maps user space writes. Null with `error` when the kernel
// refuses it.
std::unique_ptr<XdpTable::Dataplane> loadDataplane(std::uint32_t samplesPerSecond, std::string* error) {
   auto dp = std::make_unique<XdpTable::Dataplane>();
   std::string log;
   libbpfCapture = &log;
   struct Reset {
      ~Reset() { libbpfCapture = nullptr; }
   } reset;
   auto opts = bpfOpts<bpf_object_open_opts>();
   opts.object_name = "flowspec";
   dp->obj = bpf_object__open_mem(fsXdpObject, static_cast<std::size_t>(fsXdpObjectEnd - fsXdpObject), &opts);
   if (dp->obj == nullptr) {
      *error = "cannot open the XDP object: " + std::string(std::strerror(errno));
      return nullptr;
   }
   if (int const rc = bpf_object__load(dp->obj); rc != 0) {
      *error = "the kernel refused the XDP program (" + std::string(std::strerror(-rc)) + ")" + lastLines(log, 8);
      return nullptr;
   }
   auto const fd = [&](char const* name) { return bpf_map__fd(bpf_object__find_map_by_name(dp->obj, name)); };
   auto const mapIn = [&](char const* name, std::size_t bytes) -> void* {
      std::size_t const len = (bytes + 4095) & ~std::size_t{4095};
      void* p = ::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd(name), 0);
      if (p == MAP_FAILED) return nullptr;
      dp->maps.emplace_back(p, len);
      return p;
   };
   dp->classes = static_cast<std::uint64_t*>(mapIn("fs_classes", std::size_t{FS_CLASSES} * sizeof(fs_class)));
   dp->values = static_cast<std::uint16_t*>(mapIn("fs_values", (std::size_t{FS_VALUES} * 2 + 7) & ~std::size_t{7}));
   dp->positions = static_cast<std::uint64_t*>(mapIn("fs_positions", std::size_t{FS_POSITIONS} * 8));
   dp->actions = static_cast<fs_action*>(mapIn("fs_actions", std::size_t{FS_ACTION_SLOTS} * sizeof(fs_action)));
   if (dp->classes == nullptr || dp->values == nullptr || dp->positions == nullptr || dp->actions == nullptr) {
      *error = "cannot map the XDP classifier's maps: " + std::string(std::strerror(errno));
      return nullptr;
   }
   dp->prog = bpf_program__fd(bpf_object__find_program_by_name(dp->obj, "flowspec_xdp"));
   dp->tcProg = bpf_program__fd(bpf_object__find_program_by_name(dp->obj, "flowspec_mark"));
   dp->counters = fd("fs_counters");
   dp->police = fd("fs_police");
   dp->config = fd("fs_config");
   dp->prefixes = fd("fs_prefixes");
   dp->cfg = static_cast<fs_config*>(mapIn("fs_config", sizeof(fs_config)));
   if (dp->cfg == nullptr) {
      *error = "cannot map the XDP classifier's configuration: " + std::string(std::strerror(errno));
      return nullptr;
   }
   dp->tries = {fd("fs_dst4"), fd("fs_src4"), fd("fs_dst6"), fd("fs_src6")};
   // The classes every table starts with: all ones, and empty live bitmaps.
   std::fill(dp->cls(FS_CLASS_ALL), dp->cls(FS_CLASS_ALL) + wordsPerClass, ~std::uint64_t{0});
   dp->cfg->samples_per_second = samplesPerSecond;
   return dp;
}

using Addr = XdpTable::Trie::Addr;

Addr prefixBytes(Ovnet::IpGenPrefix const& p) {
   auto const b = p.addr().bytes();
   Addr out{};
   std::copy(b.begin(), b.end(), out.begin());
   for (std::size_t i = 0; i < b.size(); ++i) {
      std::size_t const keep = p.len() >= 8 * (i + 1) ? 8 : p.len() > 8 * i ? p.len() - 8 * i : 0;
      out[i] = static_cast<std::uint8_t>(out[i] & (0xff00u >> keep));
   }
   return out;
}

// The highest address of the prefix.
Addr lastAddress(Addr addr, std::size_t len, std::size_t size) {
   for (std::size_t i = 0; i < size; ++i) {
      std::size_t const keep = len >= 8 * (i + 1) ? 8 : len > 8 * i ? len - 8 * i : 0;
      addr[i] = static_cast<std::uint8_t>(addr[i] | (0xffu >> keep));
   }
   return addr;
}

fs_prefix_key hashKey(std::size_t t, Addr const& addr, std::uint8_t len) {
   fs_prefix_key k{};
   k.tag = static_cast<std::uint32_t>(t << 8 | len);
   std::memcpy(k.addr, addr.data(), 16);
   return k;
}

// The prefix in trie t and in the hash of prefix lengths (cls null: out of both).
int prefixWrite(XdpTable::Dataplane const& dp, std::size_t t, Addr const& addr, std::uint8_t len,
                std::uint32_t const* cls) {
   std::uint8_t key[20] = {};
   std::uint32_t const plen = len;
   std::memcpy(key, &plen, 4);
   std::memcpy(key + 4, addr.data(), addr.size()); // the trie reads as many as its key holds
   fs_prefix_key const hk = hashKey(t, addr, len);
   if (cls == nullptr) {
      bpf_map_delete_elem(dp.prefixes, &hk);
      return bpf_map_delete_elem(dp.tries[t], key);
   }
   if (int const rc = bpf_map_update_elem(dp.prefixes, &hk, cls, BPF_ANY); rc != 0) return rc;
   return bpf_map_update_elem(dp.tries[t], key, cls, BPF_ANY);
}

// The lengths word of a trie (XdpLayout.h): its lengths longest first, or "use the trie".
std::uint64_t lengthsWord(std::map<std::uint8_t, unsigned> const& lengths) {
   if (lengths.size() > FS_LENGTHS_MAX) return std::uint64_t{FS_LENGTHS_TRIE} << 56;
   std::uint64_t w = std::uint64_t{lengths.size()} << 56;
   unsigned i = 0;
   for (auto l = lengths.rbegin(); l != lengths.rend(); ++l, ++i) w |= std::uint64_t{l->first} << (8 * i);
   return w;
}

} // namespace

bool XdpTable::probe(std::string* error) {
   spare_ = loadDataplane(cfg_.samplesPerSecond, error);
   return spare_ != nullptr;
}

void XdpTable::compile(Entry& e) {
   Flowspec::FlowspecKey const key = e.rule.key.flowspecKey();
   XdpCompiled const x = compileXdpMatch(key);
   e.compiled = CompiledRule{};
   e.compiled.af = key.af();
   e.compiled.kind = x.kind;
   e.compiled.reason = x.reason;
   e.match = x.match;
   e.failure.clear();
   if (e.compiled.kind != CompiledRule::Kind::install) return;
   CompileConfig cc = cfg_.compile;
   cc.hook = Hook::prerouting;
   compileActions(e.rule, cc, e.compiled);
   if (e.compiled.kind == CompiledRule::Kind::install && e.compiled.redirect &&
       e.compiled.redirect->kind == RedirectKind::copy) {
      e.compiled.kind = CompiledRule::Kind::refused;
      e.compiled.reason = "a copy redirected to " + e.compiled.redirect->address.str() +
                          " is not made by the XDP program (--backend nft copies it)";
   }
}

bool XdpTable::installable(Entry const& e) const {
   return e.compiled.kind == CompiledRule::Kind::install && e.failure.empty();
}

std::string XdpTable::markFor(Entry& e) {
   if (!e.compiled.redirect) return {};
   RedirectTarget const& t = *e.compiled.redirect;
   auto [it, fresh] = targets_.try_emplace(t, nextTarget_, 0);
   if (fresh) {
      ++nextTarget_;
      std::uint32_t const mark = cfg_.markBase + it->second.first;
      std::string err;
      if (routes_ == nullptr) {
         err = "policy routing is not available";
      } else if (t.kind == RedirectKind::vrf) {
         err = routes_->addMarkRule(AddressFamily::unspecified, mark, t.table);
      } else {
         std::uint32_t const table = cfg_.routeTableBase + it->second.first;
         err = routes_->setDefaultRoute(t.address, table);
         if (!err.empty()) {
            err = "the kernel refused the route via it in table " + std::to_string(table) + ": " + err;
         } else {
            err = routes_->addMarkRule(t.address.af(), mark, table);
         }
      }
      if (!err.empty()) {
         targets_.erase(it);
         --nextTarget_;
         return "redirect to " + t.str() + ": " + err;
      }
   }
   ++it->second.second;
   e.target = t;
   return {};
}

bool XdpTable::writeAction(Entry& e) {
   Layout& L = *layout_;
   auto const slot = L.slots.take();
   if (!slot) return false;
   fs_action a{};
   a.counter = e.counter;
   CompiledRule const& c = e.compiled;
   if (c.verdict == Verdict::drop) a.flags |= FS_ACT_DROP;
   if (c.verdict == Verdict::next) a.flags |= FS_ACT_NEXT;
   if (c.sample) a.flags |= FS_ACT_SAMPLE;
   if (c.policeRate) {
      a.flags |= FS_ACT_POLICE;
      a.rate = *c.policeRate;
   }
   if (c.dscp) {
      a.flags |= FS_ACT_DSCP;
      a.dscp = *c.dscp;
   }
   if (e.target) {
      a.flags |= FS_ACT_MARK;
      a.mark = cfg_.markBase + targets_.at(*e.target).first;
   }
   dp_->actions[*slot] = a;
   __atomic_thread_fence(__ATOMIC_RELEASE);
   std::uint32_t const old = e.slot;
   e.slot = *slot;
   if (e.pos) store64(&dp_->positions[*e.pos], e.slot);
   if (old != 0) L.slots.give(old);
   return true;
}

std::optional<std::uint32_t> XdpTable::takeClass() {
   Layout& L = *layout_;
   auto c = L.classes.take();
   if (c) L.refs[*c] = 0;
   return c;
}

// The bits of the rule at `pos` in every class; then its action; then the live bit.
bool XdpTable::addAt(Entry& e, std::uint32_t pos) {
   Layout& L = *layout_;
   Dataplane& dp = *dp_;
   // Positions held by rules other than `e`: what a field's first classes start from.
   auto const occupied = [&](std::uint32_t into) {
      std::uint64_t* k = dp.cls(into);
      std::fill(k, k + wordsPerClass, 0);
      for (std::uint32_t p = 0; p < FS_POSITIONS; ++p) {
         if (L.owner[p] != nullptr && L.owner[p] != &e) {
            k[FS_SUMMARY + p / 64] |= std::uint64_t{1} << (p % 64);
            k[p / 4096] |= std::uint64_t{1} << ((p / 64) % 64);
         }
      }
   };
   L.owner[pos] = &e;
   for (std::size_t f = 0; f < xdpFieldCount; ++f) {
      Field& fld = L.fields[f];
      FieldShape const shape = fieldShapes[f];
      std::optional<IntervalSet> const& s = e.match.fields[f];
      if (!s) {
         for (std::uint32_t c : fld.classes) dp.setBit(c, pos);
         continue;
      }
      if (!fld.active) {
         auto const base = takeClass();
         if (!base) return false;
         occupied(*base);
         for (std::uint32_t v = 0; v <= shape.size; ++v) store16(&dp.values[shape.offset + v], static_cast<std::uint16_t>(*base));
         L.refs[*base] = shape.size + 1;
         fld.classes.push_back(*base);
         fld.active = true;
      }
      // Values of the set by class: a class wholly in the set takes the bit in place, one
      // partly in it is split.
      // The values of the set in each class it meets (counted in a scratch array by class).
      std::vector<std::uint32_t>& count = L.scratch;
      std::vector<std::uint32_t>& copyOf = L.scratchCopy;
      std::vector<std::pair<std::uint32_t, std::uint32_t>> inSet;
      for (Interval const& iv : s->intervals()) {
         for (std::uint32_t v = iv.lo; v <= iv.hi && v < shape.size; ++v) {
            std::uint32_t const c = dp.values[shape.offset + v];
            if (count[c]++ == 0) inSet.emplace_back(c, 0);
         }
      }
      for (auto& [c, n] : inSet) {
         n = count[c];
         count[c] = 0;
      }
      bool split = false;
      for (auto const& [c, n] : inSet) {
         if (n == L.refs[c]) {
            dp.setBit(c, pos);
            continue;
         }
         auto const nc = takeClass();
         if (!nc) return false;
         dp.copyClass(*nc, c);
         dp.setBit(*nc, pos);
         copyOf[c] = *nc;
         split = true;
         L.refs[*nc] = n;
         L.refs[c] -= n;
         fld.classes.push_back(*nc);
      }
      if (!split) continue;
      for (Interval const& iv : s->intervals()) {
         for (std::uint32_t v = iv.lo; v <= iv.hi && v < shape.size; ++v) {
            std::uint16_t* slot = &dp.values[shape.offset + v];
            if (std::uint32_t const to = copyOf[*slot]; to != 0) store16(slot, static_cast<std::uint16_t>(to));
         }
      }
      for (auto const& [c, n] : inSet) copyOf[c] = 0;
   }
   bool const v6 = e.match.af == AddressFamily::ipv6;
   for (int dir = 0; dir < 2; ++dir) {
      std::size_t const t = (v6 ? 2 : 0) + static_cast<std::size_t>(dir);
      Trie& trie = L.tries[t];
      std::optional<Ovnet::IpGenPrefix> const& p = dir == 0 ? e.match.dest : e.match.source;
      if (!p) {
         if (trie.active) {
            for (auto const& [k, n] : trie.nodes) dp.setBit(n.cls, pos);
            dp.setBit(trie.rootClass, pos);
         }
         continue;
      }
      std::size_t const bytes = v6 ? 16 : 4;
      if (!trie.active) {
         auto const root = takeClass();
         if (!root) return false;
         occupied(*root);
         std::uint8_t key[20] = {};
         if (bpf_map_update_elem(dp.tries[t], key, &*root, BPF_ANY) != 0) return false;
         trie.rootClass = *root;
         trie.active = true;
         L.lookups |= 1u << t;
         // The root and the (empty) lengths before the lookup is switched on.
         __atomic_store_n(&dp.cfg->roots[t], *root, __ATOMIC_RELEASE);
         __atomic_store_n(&dp.cfg->lengths[t], lengthsWord(trie.lengths), __ATOMIC_RELEASE);
         __atomic_store_n(&dp.cfg->lookups, L.lookups, __ATOMIC_RELEASE);
      }
      Addr const addr = prefixBytes(*p);
      auto const key = std::make_pair(addr, p->len());
      auto it = trie.nodes.find(key);
      if (it == trie.nodes.end()) {
         // A new prefix starts from the class of the longest prefix that covers it.
         std::uint32_t parent = trie.rootClass;
         for (auto l = trie.lengths.rbegin(); l != trie.lengths.rend(); ++l) {
            if (l->first >= p->len()) continue;
            Ovnet::IpGenPrefix const shorter(p->addr(), l->first);
            if (auto up = trie.nodes.find(std::make_pair(prefixBytes(shorter), l->first)); up != trie.nodes.end()) {
               parent = up->second.cls;
               break;
            }
         }
         auto const nc = takeClass();
         if (!nc) return false;
         dp.copyClass(*nc, parent);
         dp.setBit(*nc, pos);
         if (trie.deferred) {
            std::uint32_t const plen = p->len();
            auto const* lb = reinterpret_cast<std::uint8_t const*>(&plen);
            trie.pendingKeys.insert(trie.pendingKeys.end(), lb, lb + 4);
            trie.pendingKeys.insert(trie.pendingKeys.end(), addr.begin(),
                                    addr.begin() + static_cast<std::ptrdiff_t>(bytes));
            trie.pendingClasses.push_back(*nc);
            trie.pendingHash.push_back(hashKey(t, addr, p->len()));
         } else if (prefixWrite(dp, t, addr, p->len(), &*nc) != 0) {
            return false;
         }
         it = trie.nodes.emplace(key, Trie::Node{*nc, 0}).first;
         // A length new to the trie is probed only once its entries are in.
         if (++trie.lengths[p->len()] == 1 && !trie.deferred)
            __atomic_store_n(&dp.cfg->lengths[t], lengthsWord(trie.lengths), __ATOMIC_RELEASE);
      } else {
         dp.setBit(it->second.cls, pos);
      }
      ++it->second.users;
      // More specific prefixes lie within this one: they follow it in address order.
      Addr const last = lastAddress(addr, p->len(), bytes);
      for (auto d = std::next(it); d != trie.nodes.end() && d->first.first <= last; ++d) dp.setBit(d->second.cls, pos);
   }
   store64(&dp.positions[pos], e.slot);
   dp.setBit(v6 ? FS_CLASS_LIVE6 : FS_CLASS_LIVE4, pos);
   return true;
}

// The live bit first, then the rest.
void XdpTable::removeFrom(Entry& e, std::uint32_t pos) {
   Layout& L = *layout_;
   Dataplane& dp = *dp_;
   bool const v6 = e.match.af == AddressFamily::ipv6;
   dp.clearBit(v6 ? FS_CLASS_LIVE6 : FS_CLASS_LIVE4, pos);
   // A rule's bit is in every class of a field it does not constrain, and only in the
   // classes of its values (and of more specific prefixes) of one it does.
   for (std::size_t f = 0; f < xdpFieldCount; ++f) {
      std::optional<IntervalSet> const& s = e.match.fields[f];
      if (!s) {
         for (std::uint32_t c : L.fields[f].classes) dp.clearBit(c, pos);
         continue;
      }
      FieldShape const shape = fieldShapes[f];
      std::uint32_t last = FS_CLASSES;
      for (Interval const& iv : s->intervals()) {
         for (std::uint32_t v = iv.lo; v <= iv.hi && v < shape.size; ++v) {
            std::uint32_t const c = dp.values[shape.offset + v];
            if (c != last) dp.clearBit(c, pos); // clearing twice is harmless; runs are common
            last = c;
         }
      }
   }
   for (int dir = 0; dir < 2; ++dir) {
      std::size_t const t = (v6 ? 2 : 0) + static_cast<std::size_t>(dir);
      Trie& trie = L.tries[t];
      if (!trie.active) continue;
      std::optional<Ovnet::IpGenPrefix> const& p = dir == 0 ? e.match.dest : e.match.source;
      if (!p) {
         dp.clearBit(trie.rootClass, pos);
         for (auto const& [k, n] : trie.nodes) dp.clearBit(n.cls, pos);
         continue;
      }
      Addr const addr = prefixBytes(*p);
      auto it = trie.nodes.find(std::make_pair(addr, p->len()));
      if (it == trie.nodes.end()) continue;
      Addr const last = lastAddress(addr, p->len(), v6 ? 16 : 4);
      for (auto d = it; d != trie.nodes.end() && d->first.first <= last; ++d) dp.clearBit(d->second.cls, pos);
      if (--it->second.users > 0) continue;
      // No rule names the prefix any more: its class is its parent's again.
      // The last prefix of its length: the length is no longer probed before it goes.
      if (--trie.lengths[it->first.second] == 0) {
         trie.lengths.erase(it->first.second);
         __atomic_store_n(&dp.cfg->lengths[t], lengthsWord(trie.lengths), __ATOMIC_RELEASE);
      }
      prefixWrite(dp, t, it->first.first, it->first.second, nullptr);
      L.classes.give(it->second.cls);
      trie.nodes.erase(it);
   }
   store64(&dp.positions[pos], 0);
   L.owner[pos] = nullptr;
   L.vacated[pos] = Clock::now();
}

bool XdpTable::freePosition(std::uint32_t pos, Clock::time_point now) const {
   Layout const& L = *layout_;
   return L.owner[pos] == nullptr && now - L.vacated[pos] >= positionQuarantine;
}

// Moves neighbours aside, one at a time toward the nearest free position, until `e` has a
// position between its neighbours.
std::optional<std::uint32_t> XdpTable::makeRoom(Entry& e) {
   Layout& L = *layout_;
   auto const next = placed_.upper_bound(&e);
   std::int64_t const lo = next == placed_.begin() ? -1 : static_cast<std::int64_t>(*(*std::prev(next))->pos);
   std::int64_t const hi = next == placed_.end() ? FS_POSITIONS : static_cast<std::int64_t>(*(*next)->pos);
   std::int64_t right = hi;
   while (right < FS_POSITIONS && (L.owner[static_cast<std::size_t>(right)] != nullptr)) ++right;
   std::int64_t left = lo;
   while (left >= 0 && L.owner[static_cast<std::size_t>(left)] != nullptr) --left;
   bool const useRight = right < FS_POSITIONS && (left < 0 || right - hi <= lo - left);
   if (!useRight && left < 0) return std::nullopt;
   auto const waitFree = [this](std::uint32_t p) {
      while (!freePosition(p, Clock::now())) std::this_thread::yield();
   };
   // Rules between the gap and the free position each move one position toward it, the
   // one next to it first.
   std::int64_t const step = useRight ? 1 : -1;
   std::int64_t const from = useRight ? right - 1 : left + 1;
   std::int64_t const to = useRight ? hi : lo;
   for (std::int64_t p = from; useRight ? p >= to : p <= to; p -= step) {
      Entry* m = L.owner[static_cast<std::size_t>(p)];
      auto const dest = static_cast<std::uint32_t>(p + step);
      waitFree(dest);
      m->pos = dest;
      if (!addAt(*m, dest)) return std::nullopt;
      removeFrom(*m, static_cast<std::uint32_t>(p));
   }
   waitFree(static_cast<std::uint32_t>(to));
   return static_cast<std::uint32_t>(to);
}

// Gives `e` a position between its neighbours and installs it there. False when the
// classifier ran out of room (the caller rebuilds).
bool XdpTable::place(Entry& e) {
   Layout& L = *layout_;
   if (e.counter == 0) {
      auto const c = L.counters.take();
      if (!c) return false;
      e.counter = *c;
      byCounter_[e.counter] = &e;
      // A counter id starts at 0 and with a full bucket.
      std::vector<fs_count> zeros(static_cast<std::size_t>(libbpf_num_possible_cpus()));
      bpf_map_update_elem(dp_->counters, &e.counter, zeros.data(), BPF_ANY);
      fs_bucket b{};
      bpf_map_update_elem(dp_->police, &e.counter, &b, BPF_ANY);
   }
   if (e.compiled.redirect && !e.target) {
      e.failure = markFor(e);
      if (!e.failure.empty()) return true;
   }
   if (!writeAction(e)) return false;
   auto const next = placed_.upper_bound(&e);
   std::uint32_t const lo = next == placed_.begin() ? 0 : *(*std::prev(next))->pos + 1;
   std::uint32_t const hi = next == placed_.end() ? FS_POSITIONS : *(*next)->pos; // exclusive
   std::optional<std::uint32_t> pos;
   auto const now = Clock::now();
   if (lo < hi) {
      // Between two rules the middle of the gap; after the last rule (or before the first)
      // the next position, so that rules added in order at an end each find one.
      std::uint32_t const mid = next == placed_.end() && next != placed_.begin() ? lo
                                : next == placed_.begin() && next != placed_.end() ? hi - 1
                                                                                    : lo + (hi - lo) / 2;
      for (std::uint32_t d = 0; d <= hi - lo && !pos; ++d) {
         if (mid + d < hi && freePosition(mid + d, now)) pos = mid + d;
         else if (mid >= lo + d && d > 0 && freePosition(mid - d, now)) pos = mid - d;
      }
   }
   if (!pos) pos = makeRoom(e);
   if (!pos) return false;
   e.pos = *pos;
   placed_.insert(&e);
   return addAt(e, *pos);
}

void XdpTable::dropEntry(Entry& e) {
   Layout& L = *layout_;
   if (e.pos) {
      removeFrom(e, *e.pos);
      placed_.erase(&e);
      e.pos.reset();
   }
   if (e.slot != 0) L.slots.give(e.slot);
   e.slot = 0;
   if (e.counter != 0) {
      byCounter_.erase(e.counter);
      L.counters.give(e.counter);
   }
   e.counter = 0;
   releaseTarget(e);
}

void XdpTable::releaseTarget(Entry& e) {
   if (e.target) {
      auto it = targets_.find(*e.target);
      if (it != targets_.end() && --it->second.second == 0) {
         std::uint32_t const mark = cfg_.markBase + it->second.first;
         if (routes_ != nullptr) {
            if (it->first.kind == RedirectKind::vrf) {
               routes_->delMarkRule(AddressFamily::unspecified, mark, it->first.table);
            } else {
               routes_->delMarkRule(it->first.address.af(), mark, cfg_.routeTableBase + it->second.first);
               routes_->delDefaultRoute(it->first.address.af(), cfg_.routeTableBase + it->second.first);
            }
         }
         targets_.erase(it);
      }
      e.target.reset();
   }
}

void XdpTable::resetLayout() {
   layout_ = std::make_unique<Layout>();
   placed_.clear();
   byCounter_.clear();
   for (auto& [k, e] : entries_) {
      e->pos.reset();
      e->counter = 0;
      e->slot = 0;
   }
}

// A fresh dataplane with every rule, then swapped in.
bool XdpTable::build(std::string* error) {
   std::unique_ptr<Dataplane> old = std::move(dp_);
   dp_ = spare_ ? std::move(spare_) : loadDataplane(cfg_.samplesPerSecond, error);
   if (!dp_ && !cfg_.interfaces.empty()) {
      std::string ifs;
      for (std::string const& i : cfg_.interfaces) ifs += (ifs.empty() ? "" : ",") + i;
      *error = "XDP on " + ifs + ": " + *error;
   }
   if (!dp_) {
      dp_ = std::move(old);
      return false;
   }
   resetLayout();
   std::vector<Entry*> all;
   for (auto& [k, e] : entries_) {
      if (installable(*e) || (e->compiled.kind == CompiledRule::Kind::install && e->compiled.redirect)) {
         e->failure.clear();
         all.push_back(e.get());
      }
   }
   // Sorted in two halves at once, then merged: the key order is costly to evaluate.
   std::size_t const half = all.size() / 2;
   inHalves(all.size(), [&all](std::size_t from, std::size_t to) {
      std::sort(all.begin() + static_cast<std::ptrdiff_t>(from), all.begin() + static_cast<std::ptrdiff_t>(to), KeyLess{});
   });
   std::inplace_merge(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(half), all.end(), KeyLess{});
   Layout& L = *layout_;
   for (Trie& t : L.tries) t.deferred = true;
   // Spread evenly, so that most insertions find a gap, leaving an eighth of the positions
   // at the end and a sixteenth at the start free for rules added after the last or before
   // the first.
   std::size_t const n = all.size();
   std::size_t const head = FS_POSITIONS / 16;
   std::size_t const span = FS_POSITIONS - head - FS_POSITIONS / 8;
   for (std::size_t i = 0; i < n; ++i) {
      Entry& e = *all[i];
      auto const c = L.counters.take();
      if (e.compiled.redirect && !e.target) e.failure = markFor(e);
      if (!c || !e.failure.empty()) {
         if (!c) e.failure = "the XDP classifier holds at most " + std::to_string(FS_COUNTERS - 1) + " rules";
         continue;
      }
      e.counter = *c;
      byCounter_[e.counter] = &e;
      if (!writeAction(e)) {
         e.failure = "the XDP classifier ran out of action slots";
         continue;
      }
      std::size_t const spread = n <= span ? span : FS_POSITIONS;
      auto const pos = static_cast<std::uint32_t>((n <= span ? head : 0) + (i * spread + spread / 2) / std::max<std::size_t>(n, 1));
      e.pos = std::min<std::uint32_t>(pos, FS_POSITIONS - 1);
      if (L.owner[*e.pos] != nullptr) {
         e.failure = "no position left";
         e.pos.reset();
         continue;
      }
      placed_.insert(placed_.end(), &e); // in order: no search
      if (!addAt(e, *e.pos)) {
         e.failure = "the XDP classifier ran out of value classes (" + std::to_string(FS_CLASSES) + ")";
         removeFrom(e, *e.pos);
         placed_.erase(&e);
         e.pos.reset();
      }
   }
   // The tries in one batch each (the kernel loops over the entries itself).
   for (std::size_t t = 0; t < L.tries.size(); ++t) {
      Trie& trie = L.tries[t];
      trie.deferred = false;
      std::uint32_t count = static_cast<std::uint32_t>(trie.pendingClasses.size());
      __atomic_store_n(&dp_->cfg->lengths[t], lengthsWord(trie.lengths), __ATOMIC_RELEASE);
      if (count == 0) continue;
      std::uint32_t hashed = count;
      if (bpf_map_update_batch(dp_->prefixes, trie.pendingHash.data(), trie.pendingClasses.data(), &hashed, nullptr) !=
          0) {
         for (std::size_t i = 0; i < trie.pendingHash.size(); ++i)
            bpf_map_update_elem(dp_->prefixes, &trie.pendingHash[i], &trie.pendingClasses[i], BPF_ANY);
      }
      std::size_t const keyBytes = trie.pendingKeys.size() / count;
      if (bpf_map_update_batch(dp_->tries[t], trie.pendingKeys.data(), trie.pendingClasses.data(), &count, nullptr) !=
          0) {
         for (std::size_t i = 0; i < trie.pendingClasses.size(); ++i) {
            if (bpf_map_update_elem(dp_->tries[t], trie.pendingKeys.data() + i * keyBytes, &trie.pendingClasses[i],
                                    BPF_ANY) != 0) {
               *error = "the kernel refused a prefix of the XDP classifier: " + std::string(std::strerror(errno));
               dp_ = std::move(old);
               resetLayout();
               return false;
            }
         }
      }
      trie.pendingKeys.clear();
      trie.pendingClasses.clear();
      trie.pendingHash.clear();
   }
   if (!attach(*dp_, error)) {
      dp_ = std::move(old);
      resetLayout(); // nothing is installed until a full build succeeds
      return false;
   }
   return true;
}

namespace {

std::string pinPath(XdpConfig const& cfg, std::string const& leaf) { return cfg.pinRoot + "/" + cfg.name + "/" + leaf; }

} // namespace

bool XdpTable::attach(Dataplane& dp, std::string* error) {
   if (cfg_.pinRoot.empty() && cfg_.interfaces.empty()) return true;
   std::string log;
   libbpfCapture = &log;
   struct Reset {
      ~Reset() { libbpfCapture = nullptr; }
   } reset;
   if (!cfg_.pinRoot.empty()) {
      ::mkdir(cfg_.pinRoot.c_str(), 0700);
      ::mkdir((cfg_.pinRoot + "/" + cfg_.name).c_str(), 0700);
   }
   for (std::string const& ifname : cfg_.interfaces) {
      unsigned const ifindex = ::if_nametoindex(ifname.c_str());
      if (ifindex == 0) {
         *error = "interface " + ifname + ": " + std::strerror(errno);
         return false;
      }
      std::string const pin = pinPath(cfg_, "link_" + ifname);
      // A link this table holds, or one an earlier run pinned: the program is replaced in
      // place, one step for the packets.
      auto held = links_.find(ifname);
      if (held == links_.end() && !cfg_.pinRoot.empty()) {
         int const lfd = bpf_obj_get(pin.c_str());
         if (lfd >= 0) held = links_.emplace(ifname, lfd).first;
      }
      if (held != links_.end()) {
         if (bpf_link_update(held->second, dp.prog, nullptr) == 0) continue;
         ::close(held->second);
         links_.erase(held);
         ::unlink(pin.c_str());
      }
      bool generic = cfg_.generic;
      int lfd = -1;
      std::string nativeErr;
      if (!generic) {
         lfd = bpf_link_create(dp.prog, static_cast<int>(ifindex), BPF_XDP, nullptr);
         if (lfd < 0) nativeErr = std::strerror(errno);
      }
      if (lfd < 0) {
         auto lo = bpfOpts<bpf_link_create_opts>();
         lo.flags = XDP_FLAGS_SKB_MODE;
         lfd = bpf_link_create(dp.prog, static_cast<int>(ifindex), BPF_XDP, &lo);
         generic = true;
      }
      if (lfd < 0) {
         *error = "interface " + ifname + ": the kernel refused to attach the XDP program (" + std::strerror(errno) +
                  (nativeErr.empty() ? "" : "; native mode: " + nativeErr) + ")" + lastLines(log, 4);
         return false;
      }
      if (!generic) {
         auto q = bpfOpts<bpf_xdp_query_opts>();
         if (bpf_xdp_query(static_cast<int>(ifindex), 0, &q) == 0 && q.attach_mode == XDP_ATTACHED_SKB) generic = true;
      }
      if (!cfg_.pinRoot.empty() && bpf_obj_pin(lfd, pin.c_str()) != 0) {
         log_ << "flowspec-fwd: " << ifname << ": cannot pin the XDP link at " << pin << " (" << std::strerror(errno)
              << "; is a bpf file system mounted there?): the program leaves with flowspec-fwd" << std::endl;
      }
      links_[ifname] = lfd;
      if (generic)
         log_ << "flowspec-fwd: " << ifname << ": the driver has no native XDP; attached in generic mode" << std::endl;
      // Ingress TC: marks of redirects onto the skb for policy routing.
      auto hook = bpfOpts<bpf_tc_hook>();
      hook.ifindex = static_cast<int>(ifindex);
      hook.attach_point = BPF_TC_INGRESS;
      bpf_tc_hook_create(&hook);
      auto tco = bpfOpts<bpf_tc_opts>();
      tco.prog_fd = dp.tcProg;
      tco.flags = BPF_TC_F_REPLACE;
      tco.handle = tcHandle;
      tco.priority = 1;
      if (bpf_tc_attach(&hook, &tco) != 0)
         log_ << "flowspec-fwd: " << ifname << ": no TC program for redirect marks: " << std::strerror(errno) << std::endl;
   }
   if (!cfg_.pinRoot.empty()) {
      for (char const* name : {"fs_counters", "fs_police"}) {
         std::string const pin = pinPath(cfg_, name);
         ::unlink(pin.c_str());
         bpf_map__pin(bpf_object__find_map_by_name(dp.obj, name), pin.c_str());
      }
   }
   return true;
}

ApplyReport XdpTable::apply(std::vector<Flowspec::Rule> const& rules) {
   auto const t0 = Clock::now();
   ApplyReport rep;
   std::unordered_map<Key, Flowspec::Rule const*, KeyHash> want;
   for (Flowspec::Rule const& r : rules) want.emplace(r.key, &r);
   for (auto it = entries_.begin(); it != entries_.end();) {
      auto w = want.find(it->first);
      if (w == want.end()) {
         releaseTarget(*it->second);
         it = entries_.erase(it);
         ++rep.removed;
         continue;
      }
      if (!(it->second->rule == *w->second)) {
         releaseTarget(*it->second);
         it->second->rule = *w->second;
         compile(*it->second);
         ++rep.changed;
      }
      want.erase(w);
      ++it;
   }
   std::vector<Entry*> fresh;
   fresh.reserve(want.size());
   for (auto const& [k, r] : want) {
      auto e = std::make_unique<Entry>();
      e->rule = *r;
      auto [pos, added] = entries_.emplace(k, std::move(e));
      pos->second->key = &pos->first;
      fresh.push_back(pos->second.get());
      ++rep.added;
   }
   // Compiling is a pure function of each rule: two threads share a large batch.
   inHalves(fresh.size(), [&](std::size_t from, std::size_t to) {
      for (std::size_t i = from; i < to; ++i) compile(*fresh[i]);
   });
   // The dataplane in use is left alone until the new one replaces it.
   rep.full = true;
   rep.attempts = 1;
   std::string error;
   rep.ok = build(&error);
   needFull_ = !rep.ok;
   tableError_ = error;
   rep.error = error;
   rep.prepareMs = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
   return rep;
}

ApplyReport XdpTable::change(std::vector<Flowspec::Rule> const& upserts,
                             std::vector<Flowspec::FlowspecSlateKey> const& removed) {
   auto const fullInstead = [&] {
      std::unordered_map<Key, Flowspec::Rule, KeyHash> all;
      for (auto const& [k, e] : entries_) all.emplace(k, e->rule);
      for (Key const& k : removed) all.erase(k);
      for (Flowspec::Rule const& r : upserts) all.insert_or_assign(r.key, r);
      std::vector<Flowspec::Rule> v;
      v.reserve(all.size());
      for (auto& [k, r] : all) v.push_back(std::move(r));
      return apply(v);
   };
   if (needFull_ || !dp_) return fullInstead();
   auto const t0 = Clock::now();
   ApplyReport rep;
   std::unordered_map<Key, bool, KeyHash> upserted;
   for (Flowspec::Rule const& r : upserts) upserted.emplace(r.key, true);
   for (Key const& k : removed) {
      if (upserted.contains(k)) continue;
      auto it = entries_.find(k);
      if (it == entries_.end()) continue;
      dropEntry(*it->second);
      entries_.erase(it);
      ++rep.removed;
   }
   bool ok = true;
   for (Flowspec::Rule const& r : upserts) {
      auto it = entries_.find(r.key);
      if (it == entries_.end()) {
         auto e = std::make_unique<Entry>();
         e->rule = r;
         it = entries_.emplace(r.key, std::move(e)).first;
         it->second->key = &it->first;
         compile(*it->second);
         ++rep.added;
         if (installable(*it->second)) ok = ok && place(*it->second);
         continue;
      }
      Entry& e = *it->second;
      if (e.rule == r) continue;
      ++rep.changed;
      e.rule = r;
      std::optional<RedirectTarget> const before = e.target;
      compile(e);
      if (!installable(e)) {
         dropEntry(e);
         continue;
      }
      if (!e.pos) {
         ok = ok && place(e);
         continue;
      }
      // Same match (the key), new actions: a fresh action slot, switched in one store.
      if (e.compiled.redirect != before) {
         e.failure = "";
         releaseTarget(e); // the position and the counter stay
         if (e.compiled.redirect) e.failure = markFor(e);
         if (!e.failure.empty()) {
            std::string const why = e.failure;
            dropEntry(e);
            e.failure = why;
            continue;
         }
      }
      ok = ok && writeAction(e);
   }
   if (!ok) {
      log_ << "flowspec-fwd: the XDP classifier ran out of room for a change: rebuilding it whole" << std::endl;
      return fullInstead();
   }
   rep.ok = true;
   rep.prepareMs = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
   return rep;
}

std::vector<RuleStatus> XdpTable::statuses() const {
   std::vector<Entry const*> all;
   for (auto const& [k, e] : entries_) all.push_back(e.get());
   std::sort(all.begin(), all.end(),
             [](Entry const* a, Entry const* b) { return Flowspec::FlowspecSlateKey::cmp(*a->key, *b->key) < 0; });
   std::vector<RuleStatus> out;
   out.reserve(all.size());
   std::string const notProgrammed =
       "the XDP program is not loaded: " + (tableError_.empty() ? std::string("not programmed yet") : tableError_);
   for (Entry const* e : all) {
      out.push_back(
          ruleStatus(*e->key, e->compiled, e->pos ? e->counter : 0, e->pos.has_value(), e->failure, notProgrammed));
   }
   return out;
}

std::size_t XdpTable::programmedRules() const { return placed_.size(); }

std::optional<XdpCounts> XdpTable::counts(Flowspec::FlowspecSlateKey const& key) const {
   auto it = entries_.find(key);
   if (it == entries_.end() || !it->second->pos || !dp_) return std::nullopt;
   std::vector<fs_count> v(static_cast<std::size_t>(libbpf_num_possible_cpus()));
   std::uint32_t const id = it->second->counter;
   if (bpf_map_lookup_elem(dp_->counters, &id, v.data()) != 0) return std::nullopt;
   XdpCounts c;
   for (fs_count const& x : v) {
      c.packets += x.packets;
      c.bytes += x.bytes;
   }
   return c;
}

std::uint64_t XdpTable::mapBytes() const {
   if (!dp_) return 0;
   std::uint64_t total = 0;
   bpf_map* m = nullptr;
   bpf_object__for_each_map(m, dp_->obj) {
      // What the kernel charges the map, as it reports it.
      std::ifstream in("/proc/self/fdinfo/" + std::to_string(bpf_map__fd(m)));
      for (std::string line; std::getline(in, line);) {
         if (line.rfind("memlock:", 0) == 0) total += std::stoull(line.substr(8));
      }
   }
   return total;
}

void XdpTable::poll() {
   if (!dp_) return;
   if (dp_->samples == nullptr) {
      int const fd = bpf_map__fd(bpf_object__find_map_by_name(dp_->obj, "fs_samples"));
      auto const handle = [](void* ctx, void* data, std::size_t size) -> int {
         auto* self = static_cast<XdpTable*>(ctx);
         if (size < sizeof(fs_sample)) return 0;
         fs_sample s;
         std::memcpy(&s, data, sizeof s);
         self->logSample(s.counter, s.length, s.ifindex, s.data, std::min<std::uint32_t>(s.captured, FS_SAMPLE_BYTES));
         return 0;
      };
      dp_->samples = ring_buffer__new(fd, handle, this, nullptr);
      if (dp_->samples == nullptr) return;
   }
   ring_buffer__consume(dp_->samples);
}

void XdpTable::logSample(std::uint32_t counter, std::uint32_t length, std::uint32_t ifindex, std::uint8_t const* data,
                         std::uint32_t captured) {
   auto it = byCounter_.find(counter);
   std::string const rule = it != byCounter_.end() ? it->second->key->toStrepCli() : "(removed)";
   char ifname[IF_NAMESIZE] = "?";
   if (::if_indextoname(ifindex, ifname) == nullptr) std::strcpy(ifname, "?");
   std::string const what = describeFrame(std::span<std::uint8_t const>(data, captured));
   log_ << "flowspec-fwd: sampled on " << ifname << " by rule " << rule << ": " << length << " bytes" << (what.empty() ? "" : ", ")
        << what << std::endl;
}

std::string describeFrame(std::span<std::uint8_t const> frame) {
   // Ethernet (and up to two VLAN tags), then the IP header's addresses and protocol.
   auto const at16 = [&frame](std::size_t i) { return static_cast<std::uint16_t>(frame[i] << 8 | frame[i + 1]); };
   if (frame.size() < 14) return {};
   std::size_t l3 = 14;
   std::uint16_t type = at16(12);
   for (int tags = 0; tags < 2 && (type == 0x8100 || type == 0x88a8) && frame.size() >= l3 + 4; ++tags) {
      type = at16(l3 + 2);
      l3 += 4;
   }
   char a[INET6_ADDRSTRLEN];
   char b[INET6_ADDRSTRLEN];
   if (type == 0x0800 && frame.size() >= l3 + 20) {
      ::inet_ntop(AF_INET, frame.data() + l3 + 12, a, sizeof a);
      ::inet_ntop(AF_INET, frame.data() + l3 + 16, b, sizeof b);
      return std::string(a) + " > " + b + " protocol " + std::to_string(frame[l3 + 9]);
   }
   if (type == 0x86dd && frame.size() >= l3 + 40) {
      ::inet_ntop(AF_INET6, frame.data() + l3 + 8, a, sizeof a);
      ::inet_ntop(AF_INET6, frame.data() + l3 + 24, b, sizeof b);
      return std::string(a) + " > " + b + " next header " + std::to_string(frame[l3 + 6]);
   }
   return {};
}

void XdpTable::remove() {
   for (auto& [ifname, fd] : links_) {
      if (!cfg_.pinRoot.empty()) ::unlink(pinPath(cfg_, "link_" + ifname).c_str());
      ::close(fd);
      if (unsigned const ifindex = ::if_nametoindex(ifname.c_str()); ifindex != 0) {
         auto hook = bpfOpts<bpf_tc_hook>();
         hook.ifindex = static_cast<int>(ifindex);
         hook.attach_point = BPF_TC_INGRESS;
         auto tco = bpfOpts<bpf_tc_opts>();
         tco.handle = tcHandle;
         tco.priority = 1;
         bpf_tc_detach(&hook, &tco);
      }
   }
   links_.clear();
   if (!cfg_.pinRoot.empty()) {
      for (char const* name : {"fs_counters", "fs_police"}) ::unlink(pinPath(cfg_, name).c_str());
      ::rmdir((cfg_.pinRoot + "/" + cfg_.name).c_str());
   }
   for (auto& [k, e] : entries_) dropEntry(*e);
   entries_.clear();
   dp_.reset();
   layout_ = std::make_unique<Layout>();
   placed_.clear();
   needFull_ = true;
}

XdpTable::~XdpTable() {
   for (auto& [ifname, fd] : links_) ::close(fd);
}

} // namespace Fwd
