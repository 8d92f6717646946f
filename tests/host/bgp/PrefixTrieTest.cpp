#include "host/bgp/PrefixTrie.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <utility>
#include <vector>

namespace {

using Routing::Bgp::PrefixTrie;

// The reference: every prefix in a map, each question answered by looking at all of them.
template <std::size_t N>
struct Reference {
   using Address = std::array<std::uint8_t, N>;
   using Key = std::pair<Address, std::uint8_t>;
   std::map<Key, int> all;

   static bool holds(Key const& outer, Key const& inner) {
      if (outer.second > inner.second) return false;
      for (unsigned i = 0; i < outer.second; ++i) {
         unsigned const b = 7 - i % 8;
         if (((outer.first[i / 8] >> b) & 1) != ((inner.first[i / 8] >> b) & 1)) return false;
      }
      return true;
   }
   std::optional<Key> longest(Key const& p) const {
      std::optional<Key> best;
      for (auto const& [k, v] : all) {
         if (holds(k, p) && (!best || k.second > best->second)) best = k;
      }
      return best;
   }
   std::vector<Key> covering(Key const& p) const {
      std::vector<Key> out;
      for (auto const& [k, v] : all) {
         if (holds(k, p)) out.push_back(k);
      }
      std::stable_sort(out.begin(), out.end(), [](Key const& x, Key const& y) { return x.second < y.second; });
      return out;
   }
   std::vector<Key> inside(Key const& p) const {
      std::vector<Key> out;
      for (auto const& [k, v] : all) {
         if (k.second > p.second && holds(p, k)) out.push_back(k);
      }
      return out; // map order: address, then length
   }
};

template <std::size_t N>
std::array<std::uint8_t, N> maskedAddr(std::array<std::uint8_t, N> a, unsigned len) {
   for (unsigned i = len; i < N * 8; ++i) a[i / 8] &= static_cast<std::uint8_t>(~(0x80u >> (i % 8)));
   return a;
}

// Random prefixes drawn from a few shared leading bytes, so that nesting, shared branch
// points and equal addresses of other lengths are common; inserts, replacements and erases
// interleaved; every question checked against the reference after each step.
template <std::size_t N>
void checkAgainstReference(unsigned seed) {
   std::mt19937 rng(seed);
   PrefixTrie<N, int> trie;
   Reference<N> ref;
   auto const randomPrefix = [&] {
      std::array<std::uint8_t, N> a{};
      for (std::size_t i = 0; i < N; ++i) a[i] = static_cast<std::uint8_t>(rng() % 3 == 0 ? rng() : (i == 0 ? 10 : 0x80));
      auto const len = static_cast<std::uint8_t>(rng() % (N * 8 + 1));
      return std::make_pair(maskedAddr<N>(a, len), len);
   };
   for (int step = 0; step < 3000; ++step) {
      auto const p = randomPrefix();
      if (rng() % 3 == 0) {
         ASSERT_EQ(trie.erase(p.first, p.second), ref.all.erase(p) == 1);
      } else {
         int const v = step;
         ASSERT_EQ(trie.insert(p.first, p.second, v), !ref.all.contains(p));
         ref.all[p] = v;
      }
      ASSERT_EQ(trie.size(), ref.all.size());
      ASSERT_LT(trie.nodes(), 2 * trie.size() + 1);
      auto const q = randomPrefix();
      int const* found = trie.find(q.first, q.second);
      auto const it = ref.all.find(q);
      ASSERT_EQ(found != nullptr, it != ref.all.end());
      if (found) {
         ASSERT_EQ(*found, it->second);
      }
      std::optional<typename Reference<N>::Key> got;
      trie.longestMatch(q.first, q.second, [&](auto const& e) {
         got = std::make_pair(e.addr, e.len);
         EXPECT_EQ(e.value, ref.all.at(*got));
      });
      ASSERT_EQ(got, ref.longest(q)) << "step " << step;
      std::vector<typename Reference<N>::Key> inside;
      trie.forEachMoreSpecific(q.first, q.second, [&](auto const& e) {
         inside.emplace_back(e.addr, e.len);
         return true;
      });
      ASSERT_EQ(inside, ref.inside(q)) << "step " << step;
      std::vector<typename Reference<N>::Key> covering;
      trie.forEachCovering(q.first, q.second, [&](auto const& e) { covering.emplace_back(e.addr, e.len); });
      ASSERT_EQ(covering, ref.covering(q)) << "step " << step;
   }
}

TEST(PrefixTrieTest, Ipv4AgainstBruteForce) { checkAgainstReference<4>(1); }
TEST(PrefixTrieTest, Ipv6AgainstBruteForce) { checkAgainstReference<16>(2); }

TEST(PrefixTrieTest, MoreSpecificWalkStopsWhenAsked) {
   PrefixTrie<4, int> trie;
   for (std::uint8_t i = 0; i < 10; ++i) trie.insert({10, i, 0, 0}, 16, i);
   trie.insert({10, 0, 0, 0}, 8, 100);
   int seen = 0;
   EXPECT_FALSE(trie.forEachMoreSpecific({10, 0, 0, 0}, 8, [&](auto const&) { return ++seen < 3; }));
   EXPECT_EQ(seen, 3);
   // Bits beyond the length do not matter.
   EXPECT_NE(trie.find({10, 9, 9, 9}, 8), nullptr);
   EXPECT_EQ(*trie.find({10, 9, 9, 9}, 8), 100);
}

} // namespace
