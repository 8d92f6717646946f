// A longest-prefix structure: a path-compressed binary trie of prefixes of one address
// width (4 bytes for IPv4, 16 for IPv6), each carrying a value.
//
// It answers what judging a flowspec rule against the unicast table asks: the longest
// prefix that holds a given prefix (longestMatch), every prefix that holds it
// (forEachCovering), and every prefix strictly inside it (forEachMoreSpecific, in (address,
// length) order, with an early stop). Each costs the depth of the trie (at most the
// address's bits) plus the prefixes visited.
//
// Nodes live in one vector and name each other by 32-bit index: a node is a prefix with a
// value, or a branch point without one; a trie of n prefixes has fewer than 2n nodes.
// Addresses are given with the bits beyond the length zero (as unicast route keys keep
// them); other bits beyond the length are ignored.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace Routing::Bgp {

template <std::size_t N, class T>
class PrefixTrie {
 public:
   using Address = std::array<std::uint8_t, N>;
   static constexpr unsigned kMaxLen = N * 8;

   // One prefix with its value, as the lookups hand them out.
   struct Entry {
      Address addr;
      std::uint8_t len;
      T const& value;
   };

   // Sets the value of the prefix, replacing the one it had; true when the prefix is new.
   bool insert(Address const& addr, std::uint8_t len, T value) {
      Address const a = masked(addr, len);
      if (root_ == kNil) {
         root_ = newNode(a, len, std::move(value));
         ++size_;
         return true;
      }
      std::uint32_t parent = kNil;
      unsigned side = 0;
      std::uint32_t cur = root_;
      while (true) {
         Node const& n = nodes_[cur];
         unsigned const c = common(n.addr, a, n.len < len ? n.len : len);
         if (c < n.len) {
            // The new prefix and this node part before the node's length.
            std::uint32_t const up = c == len ? newNode(a, len, std::move(value)) : newNode(masked(a, c), c);
            std::uint32_t const sub = cur;
            nodes_[up].child[bit(nodes_[sub].addr, c)] = sub;
            if (c != len) {
               std::uint32_t const leaf = newNode(a, len, std::move(value));
               nodes_[up].child[bit(a, c)] = leaf;
            }
            link(parent, side, up);
            ++size_;
            return true;
         }
         if (n.len == len) {
            Node& m = nodes_[cur];
            bool const added = !m.hasValue;
            m.value = std::move(value);
            m.hasValue = true;
            size_ += added ? 1 : 0;
            return added;
         }
         unsigned const b = bit(a, n.len);
         std::uint32_t const next = n.child[b];
         if (next == kNil) {
            std::uint32_t const leaf = newNode(a, len, std::move(value));
            nodes_[cur].child[b] = leaf;
            ++size_;
            return true;
         }
         parent = cur;
         side = b;
         cur = next;
      }
   }

   // Removes the prefix; false when it was not there.
   bool erase(Address const& addr, std::uint8_t len) {
      Address const a = masked(addr, len);
      std::uint32_t grand = kNil, parent = kNil;
      unsigned gside = 0, side = 0;
      std::uint32_t cur = root_;
      while (cur != kNil) {
         Node const& n = nodes_[cur];
         if (n.len > len || common(n.addr, a, n.len) < n.len) return false;
         if (n.len == len) break;
         grand = parent;
         gside = side;
         parent = cur;
         side = bit(a, n.len);
         cur = n.child[side];
      }
      if (cur == kNil || !nodes_[cur].hasValue) return false;
      nodes_[cur].hasValue = false;
      nodes_[cur].value = T{};
      --size_;
      // A node without a value stays only as a branch point of two children.
      auto const prune = [this](std::uint32_t at, std::uint32_t up, unsigned upSide) {
         Node const& n = nodes_[at];
         if (n.hasValue || (n.child[0] != kNil && n.child[1] != kNil)) return false;
         std::uint32_t const only = n.child[0] != kNil ? n.child[0] : n.child[1];
         link(up, upSide, only);
         freeNode(at);
         return true;
      };
      if (prune(cur, parent, side) && parent != kNil) prune(parent, grand, gside);
      return true;
   }

   // The value of exactly this prefix, or null.
   T const* find(Address const& addr, std::uint8_t len) const {
      Address const a = masked(addr, len);
      for (std::uint32_t cur = root_; cur != kNil;) {
         Node const& n = nodes_[cur];
         if (n.len > len || common(n.addr, a, n.len) < n.len) return nullptr;
         if (n.len == len) return n.hasValue ? &n.value : nullptr;
         cur = n.child[bit(a, n.len)];
      }
      return nullptr;
   }

   T* find(Address const& addr, std::uint8_t len) {
      return const_cast<T*>(static_cast<PrefixTrie const*>(this)->find(addr, len));
   }

   // Calls f(Entry) for every prefix that holds (addr, len), itself included, shortest
   // first.
   template <class F>
   void forEachCovering(Address const& addr, std::uint8_t len, F&& f) const {
      Address const a = masked(addr, len);
      for (std::uint32_t cur = root_; cur != kNil;) {
         Node const& n = nodes_[cur];
         if (n.len > len || common(n.addr, a, n.len) < n.len) return;
         if (n.hasValue) f(Entry{n.addr, n.len, n.value});
         if (n.len == len) return;
         cur = n.child[bit(a, n.len)];
      }
   }

   // Calls f(Entry) for the longest prefix that holds (addr, len), itself included when
   // present; false, f uncalled, when none does.
   template <class F>
   bool longestMatch(Address const& addr, std::uint8_t len, F&& f) const {
      Address const a = masked(addr, len);
      std::uint32_t best = kNil;
      for (std::uint32_t cur = root_; cur != kNil;) {
         Node const& n = nodes_[cur];
         if (n.len > len || common(n.addr, a, n.len) < n.len) break;
         if (n.hasValue) best = cur;
         if (n.len == len) break;
         cur = n.child[bit(a, n.len)];
      }
      if (best == kNil) return false;
      Node const& b = nodes_[best];
      f(Entry{b.addr, b.len, b.value});
      return true;
   }

   // Calls f(Entry) for every prefix strictly inside (addr, len), in (address, length)
   // order, while f returns true; false when f stopped the walk.
   template <class F>
   bool forEachMoreSpecific(Address const& addr, std::uint8_t len, F&& f) const {
      Address const a = masked(addr, len);
      std::uint32_t cur = root_;
      while (cur != kNil) {
         Node const& n = nodes_[cur];
         if (n.len >= len) {
            if (common(n.addr, a, len) < len) return true;
            break;
         }
         if (common(n.addr, a, n.len) < n.len) return true;
         cur = n.child[bit(a, n.len)];
      }
      if (cur == kNil) return true;
      // Pre-order, child 0 first: a prefix comes before those inside it, lower addresses
      // first.
      std::uint32_t stack[kMaxLen + 2];
      std::size_t depth = 0;
      stack[depth++] = cur;
      while (depth > 0) {
         Node const& n = nodes_[stack[--depth]];
         if (n.hasValue && n.len > len && !f(Entry{n.addr, n.len, n.value})) return false;
         if (n.child[1] != kNil) stack[depth++] = n.child[1];
         if (n.child[0] != kNil) stack[depth++] = n.child[0];
      }
      return true;
   }

   std::size_t size() const { return size_; }
   // Nodes in use (prefixes and branch points).
   std::size_t nodes() const { return nodes_.size() - free_.size(); }
   std::size_t bytes() const { return nodes_.capacity() * sizeof(Node) + free_.capacity() * sizeof(std::uint32_t); }

 private:
   static constexpr std::uint32_t kNil = 0xffffffffu;
   struct Node {
      Address addr{};
      std::uint8_t len = 0;
      bool hasValue = false;
      std::uint32_t child[2] = {kNil, kNil};
      T value{};
   };

   static unsigned bit(Address const& a, unsigned i) { return static_cast<unsigned>(a[i / 8] >> (7 - i % 8)) & 1u; }
   static Address masked(Address a, unsigned len) {
      if (len >= kMaxLen) return a;
      unsigned const whole = len / 8;
      if (len % 8) a[whole] &= static_cast<std::uint8_t>(0xffu << (8 - len % 8));
      for (std::size_t i = whole + (len % 8 ? 1 : 0); i < N; ++i) a[i] = 0;
      return a;
   }
   // The number of leading bits, up to `max`, the two addresses share.
   static unsigned common(Address const& x, Address const& y, unsigned max) {
      unsigned i = 0;
      while (i < max) {
         std::uint8_t const d = x[i / 8] ^ y[i / 8];
         if (d == 0) {
            i += 8;
            continue;
         }
         unsigned const lead = static_cast<unsigned>(__builtin_clz(static_cast<unsigned>(d))) - 24;
         i += lead;
         break;
      }
      return i < max ? i : max;
   }

   std::uint32_t newNode(Address const& a, unsigned len, T value) {
      std::uint32_t const i = newNode(a, len);
      nodes_[i].hasValue = true;
      nodes_[i].value = std::move(value);
      return i;
   }
   std::uint32_t newNode(Address const& a, unsigned len) {
      std::uint32_t i;
      if (!free_.empty()) {
         i = free_.back();
         free_.pop_back();
         nodes_[i] = Node{};
      } else {
         i = static_cast<std::uint32_t>(nodes_.size());
         nodes_.emplace_back();
      }
      nodes_[i].addr = a;
      nodes_[i].len = static_cast<std::uint8_t>(len);
      return i;
   }
   void freeNode(std::uint32_t i) {
      nodes_[i] = Node{};
      free_.push_back(i);
   }
   void link(std::uint32_t parent, unsigned side, std::uint32_t child) {
      if (parent == kNil) {
         root_ = child;
      } else {
         nodes_[parent].child[side] = child;
      }
   }

   std::vector<Node> nodes_;
   std::vector<std::uint32_t> free_;
   std::uint32_t root_ = kNil;
   std::size_t size_ = 0;
};

} // namespace Routing::Bgp
