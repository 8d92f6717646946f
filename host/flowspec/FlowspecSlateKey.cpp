#include "host/flowspec/FlowspecSlateKey.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ostream>

#include "host/fwk/Assert.h"

namespace Flowspec {

using Ovnet::AddressFamily;
using Ovnet::IpGenAddr;
using Ovnet::IpGenPrefix;

namespace {

constexpr std::uint32_t kLongValue = 0x80000000u;

unsigned addressWords(unsigned len) { return (len + 31u) / 32u; }

struct Layout {
   AddressFamily af = AddressFamily::unspecified;
   IpGenPrefix dest;
   IpGenPrefix src;
   std::span<std::uint32_t const> pairs;
};

// Reads the header and both prefixes; empty when they are not as copyInFlowspecKey writes
// them.
std::optional<Layout> readLayout(std::span<std::uint32_t const> w) {
   if (w.empty()) return std::nullopt;
   std::uint32_t const h = w[0];
   if ((h >> 28) != 0 || (h & 0xffu) > 2) return std::nullopt;
   Layout out;
   out.af = static_cast<AddressFamily>(h & 0xffu);
   std::size_t pos = 1;
   auto prefix = [&](unsigned af, unsigned len) -> std::optional<IpGenPrefix> {
      if (af == 0) return len == 0 ? std::optional<IpGenPrefix>(IpGenPrefix()) : std::nullopt;
      if (af > 2 || len > (af == 1 ? 32u : 128u)) return std::nullopt;
      unsigned const n = addressWords(len);
      if (w.size() - pos < n) return std::nullopt;
      std::uint8_t bytes[16] = {};
      for (unsigned i = 0; i < n; ++i, ++pos) {
         for (unsigned j = 0; j < 4; ++j) bytes[4 * i + j] = static_cast<std::uint8_t>(w[pos] >> (24 - 8 * j));
      }
      IpGenAddr const addr = af == 1 ? IpGenAddr::ipv4(std::span<std::uint8_t const, 4>(bytes, 4))
                                     : IpGenAddr::ipv6(std::span<std::uint8_t const, 16>(bytes, 16));
      IpGenPrefix p(addr, static_cast<std::uint8_t>(len));
      IpGenPrefix masked = p;
      masked.clearLowerAddrBits();
      if (!(masked == p)) return std::nullopt;
      return p;
   };
   auto dest = prefix((h >> 24) & 3u, (h >> 8) & 0xffu);
   if (!dest) return std::nullopt;
   auto src = prefix((h >> 26) & 3u, (h >> 16) & 0xffu);
   if (!src) return std::nullopt;
   out.dest = *dest;
   out.src = *src;
   out.pairs = w.subspan(pos);
   return out;
}

Layout layoutOf(FlowspecSlateKey const& k) {
   std::optional<Layout> l = readLayout(k.words());
   OVK_ASSERT(l.has_value());
   return *l;
}

// Walks the pair words of a well-formed key.
class PairReader {
 public:
   explicit PairReader(std::span<std::uint32_t const> words) : w_(words) {}
   bool atEnd() const { return pos_ >= w_.size(); }
   MatchOpVal next() {
      std::uint32_t const x = w_[pos_++];
      MatchOpVal p{static_cast<MatchCompType>((x >> 24) & 0x7fu), static_cast<std::uint8_t>(x >> 16), x & 0xffffu};
      if ((x & kLongValue) != 0) p.value = w_[pos_++];
      return p;
   }

 private:
   std::span<std::uint32_t const> w_;
   std::size_t pos_ = 0;
};

// Walks the components of a well-formed key: a component ends at a pair with the end-of-list
// bit or where the type changes. Each component comes as its type and its operator/value
// bytes as the NLRI carries them.
class ComponentReader {
 public:
   explicit ComponentReader(std::span<std::uint32_t const> words) : pairs_(words) {}
   bool next(MatchCompType& type, std::string& bytes) {
      bytes.clear();
      if (!pending_ && pairs_.atEnd()) return false;
      MatchOpVal p = pending_ ? *pending_ : pairs_.next();
      pending_.reset();
      type = p.type;
      while (true) {
         append(bytes, p);
         if ((p.op & opEndOfList) != 0 || pairs_.atEnd()) break;
         p = pairs_.next();
         if (p.type != type) {
            pending_ = p;
            break;
         }
      }
      return true;
   }

 private:
   static void append(std::string& bytes, MatchOpVal const& p) {
      bytes += static_cast<char>(p.op);
      for (unsigned i = opValueBytes(p.op); i-- > 0;) bytes += static_cast<char>(i < 4 ? p.value >> (8 * i) : 0u);
   }
   PairReader pairs_;
   std::optional<MatchOpVal> pending_;
};

// memcmp over the common length; where one string begins the other, the longer sorts first.
int componentBytesCmp(std::string const& a, std::string const& b) {
   if (int const c = std::memcmp(a.data(), b.data(), std::min(a.size(), b.size())); c != 0) return c < 0 ? -1 : 1;
   if (a.size() == b.size()) return 0;
   return a.size() > b.size() ? -1 : 1;
}

void appendPrefix(std::vector<std::uint32_t>& w, IpGenPrefix p) {
   p.clearLowerAddrBits();
   auto const bytes = p.addr().storage();
   for (unsigned i = 0; i < addressWords(p.len()); ++i) {
      w.push_back((std::uint32_t{bytes[4 * i]} << 24) | (std::uint32_t{bytes[4 * i + 1]} << 16) |
                  (std::uint32_t{bytes[4 * i + 2]} << 8) | std::uint32_t{bytes[4 * i + 3]});
   }
}

} // namespace

void podArraySizeError(std::size_t max, std::size_t size, void const* data, std::size_t bytes) {
   std::string text = "PodArray::set expected size <= " + std::to_string(max) + ", instead got " +
                      std::to_string(size) + ". Buffer is at address: ";
   char buf[32];
   std::snprintf(buf, sizeof buf, "%p", data);
   text += buf;
   text += " with contents: ";
   auto const* p = static_cast<std::uint8_t const*>(data);
   for (std::size_t i = 0; i < bytes; ++i) {
      std::snprintf(buf, sizeof buf, i == 0 ? "%02x" : " %02x", p[i]);
      text += buf;
   }
   OVK_FATAL(text.c_str());
}

void FlowspecSlateKey::copyInFlowspecKey(FlowspecKey const& key) {
   std::vector<std::uint32_t> w;
   w.reserve(1 + 8 + 2 * key.opValCount());
   IpGenPrefix const& d = key.destPrefix();
   IpGenPrefix const& s = key.srcPrefix();
   w.push_back(static_cast<std::uint32_t>(key.af()) | (std::uint32_t{d.len()} << 8) | (std::uint32_t{s.len()} << 16) |
               (static_cast<std::uint32_t>(d.af()) << 24) | (static_cast<std::uint32_t>(s.af()) << 26));
   appendPrefix(w, d);
   appendPrefix(w, s);
   for (auto r = key.getOptVal(0); !r.atEnd(); r = key.getOptVal(r.nextIndex())) {
      std::uint32_t const head = (static_cast<std::uint32_t>(r.type()) << 24) | (std::uint32_t{r.op()} << 16);
      if (r.value() <= 0xffffu) {
         w.push_back(head | r.value());
      } else {
         w.push_back(head | kLongValue);
         w.push_back(r.value());
      }
   }
   words_.set(w.data(), w.size());
}

std::optional<FlowspecSlateKey> FlowspecSlateKey::fromWords(std::span<std::uint32_t const> words) {
   if (words.size() > slateKeyMaxWords) return std::nullopt;
   std::optional<Layout> const l = readLayout(words);
   if (!l) return std::nullopt;
   for (std::size_t i = 0; i < l->pairs.size(); ++i) {
      std::uint32_t const x = l->pairs[i];
      if (!isOpValType(static_cast<MatchCompType>((x >> 24) & 0x7fu))) return std::nullopt;
      if ((x & kLongValue) != 0) {
         if ((x & 0xffffu) != 0 || i + 1 == l->pairs.size() || l->pairs[i + 1] <= 0xffffu) return std::nullopt;
         ++i;
      }
   }
   FlowspecSlateKey k;
   k.words_.set(words.data(), words.size());
   return k;
}

FlowspecKey FlowspecSlateKey::flowspecKey() const {
   FlowspecKey key;
   if (empty()) return key;
   Layout const l = layoutOf(*this);
   key.afIs(l.af);
   key.destPrefixIs(l.dest);
   key.srcPrefixIs(l.src);
   MatchOpValIndex index = 0;
   for (PairReader r(l.pairs); !r.atEnd();) {
      MatchOpVal const p = r.next();
      index = key.setOpVal(index, p.type, p.op, p.value);
   }
   key.shrinkToFit();
   return key;
}

std::uint32_t FlowspecSlateKey::hash() const noexcept {
   std::uint32_t h = 0;
   for (std::uint32_t const w : words()) {
      std::uint8_t const b[4] = {static_cast<std::uint8_t>(w), static_cast<std::uint8_t>(w >> 8),
                                 static_cast<std::uint8_t>(w >> 16), static_cast<std::uint8_t>(w >> 24)};
      h = Ovnet::oneAtATimeMix(h, b, 4);
   }
   return Ovnet::oneAtATimeFinal(h);
}

std::string FlowspecSlateKey::toStrepCli() const { return flowspecKey().toStrepCli(); }

int FlowspecSlateKey::cmp(FlowspecSlateKey const& a, FlowspecSlateKey const& b) {
   if (!a.empty() && !b.empty()) {
      Layout const la = layoutOf(a);
      Layout const lb = layoutOf(b);
      if (int const c = FlowspecKey::cmpPrefix(la.dest, lb.dest); c != 0) return c;
      if (int const c = FlowspecKey::cmpPrefix(la.src, lb.src); c != 0) return c;
      ComponentReader ra(la.pairs);
      ComponentReader rb(lb.pairs);
      MatchCompType ta = none_;
      MatchCompType tb = none_;
      std::string ba;
      std::string bb;
      while (true) {
         bool const moreA = ra.next(ta, ba);
         bool const moreB = rb.next(tb, bb);
         if (!moreA || !moreB) {
            if (moreA != moreB) return moreA ? -1 : 1;
            break;
         }
         if (ta != tb) return ta < tb ? -1 : 1;
         if (int const c = componentBytesCmp(ba, bb); c != 0) return c;
      }
   }
   auto const order =
       std::lexicographical_compare_three_way(a.words().begin(), a.words().end(), b.words().begin(), b.words().end());
   return order < 0 ? -1 : order > 0 ? 1 : 0;
}

std::ostream& operator<<(std::ostream& os, FlowspecSlateKey const& key) { return os << key.toStrepCli(); }

} // namespace Flowspec
