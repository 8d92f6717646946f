#include "host/bgp/RouteOrderIndex.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "host/fwk/Assert.h"

namespace Routing::Bgp {

namespace {
// About a kilobyte a node.
constexpr std::size_t kLeafKeys = 62;
constexpr std::size_t kInnerChildren = 42;
} // namespace

// A key with its order prefix beside it, so that most comparisons read the index alone.
struct RouteOrderIndex::Entry {
   std::uint64_t prefix = 0;
   RouteKey const* key = nullptr;
};

struct RouteOrderIndex::Node {
   bool leaf = true;
   std::uint32_t n = 0; // entries of a leaf, children of an inner node
   Inner* parent = nullptr;
};

struct RouteOrderIndex::Leaf : Node {
   Leaf* next = nullptr;
   Leaf* prev = nullptr;
   Entry keys[kLeafKeys];
};

struct RouteOrderIndex::Inner : Node {
   // seps[i] is the first entry of children[i + 1]'s subtree.
   Node* children[kInnerChildren];
   Entry seps[kInnerChildren - 1];
   std::size_t indexOf(Node const* child) const {
      for (std::size_t i = 0; i < n; ++i) {
         if (children[i] == child) return i;
      }
      OVK_FATAL("a node is a child of its parent");
   }
};

bool RouteOrderIndex::entryLess(Entry const& a, Entry const& b) {
   if (a.prefix != b.prefix) return a.prefix < b.prefix;
   if (a.key == b.key) return false;
   if (int const c = a.key->orderCompare(*b.key); c != 0) return c < 0;
   return a.key < b.key;
}

bool RouteOrderIndex::less(RouteKey const* a, RouteKey const* b) {
   return entryLess(Entry{a->orderPrefix(), a}, Entry{b->orderPrefix(), b});
}

bool RouteOrderIndex::orderLess(RouteKey const& a, RouteKey const& b) {
   std::uint64_t const pa = a.orderPrefix();
   std::uint64_t const pb = b.orderPrefix();
   if (pa != pb) return pa < pb;
   return a.orderCompare(b) < 0;
}

RouteOrderIndex::RouteOrderIndex() = default;

RouteOrderIndex::~RouteOrderIndex() {
   // Free every node level by level.
   if (!root_) return;
   std::vector<Node*> level{root_};
   while (!level.empty()) {
      std::vector<Node*> below;
      for (Node* node : level) {
         if (node->leaf) {
            delete static_cast<Leaf*>(node);
         } else {
            auto* inner = static_cast<Inner*>(node);
            below.insert(below.end(), inner->children, inner->children + inner->n);
            delete inner;
         }
      }
      level.swap(below);
   }
}

RouteOrderIndex::Leaf* RouteOrderIndex::leafFor(Entry const& e) const {
   Node* node = root_;
   while (node && !node->leaf) {
      auto* inner = static_cast<Inner*>(node);
      // The child whose range holds `e`: after every separator not greater than it.
      Entry const* const first = inner->seps;
      Entry const* const it = std::upper_bound(first, first + (inner->n - 1), e, entryLess);
      node = inner->children[it - first];
   }
   return static_cast<Leaf*>(node);
}

RouteOrderIndex::Leaf* RouteOrderIndex::lastLeaf() const {
   Node* node = root_;
   while (node && !node->leaf) {
      auto* inner = static_cast<Inner*>(node);
      node = inner->children[inner->n - 1];
   }
   return static_cast<Leaf*>(node);
}

void RouteOrderIndex::insert(RouteKey const* key) {
   Entry const e{key->orderPrefix(), key};
   ++size_;
   if (!root_) {
      auto* leaf = new Leaf();
      leaf->keys[0] = e;
      leaf->n = 1;
      root_ = leaf;
      ++leaves_;
      return;
   }
   // A table sent in order comes key after key at the end: one comparison finds the place.
   Leaf* leaf = lastLeaf();
   std::size_t at = leaf->n;
   if (!entryLess(leaf->keys[leaf->n - 1], e)) {
      leaf = leafFor(e);
      at = static_cast<std::size_t>(std::lower_bound(leaf->keys, leaf->keys + leaf->n, e, entryLess) - leaf->keys);
   }
   if (leaf->n < kLeafKeys) {
      std::memmove(leaf->keys + at + 1, leaf->keys + at, (leaf->n - at) * sizeof(Entry));
      leaf->keys[at] = e;
      ++leaf->n;
      return;
   }
   // Split. A key past the end of the last leaf starts a leaf of its own, so that a table
   // sent in order fills its leaves; elsewhere the leaf splits in halves.
   auto* right = new Leaf();
   ++leaves_;
   if (at == leaf->n && !leaf->next) {
      right->keys[0] = e;
      right->n = 1;
   } else {
      std::size_t const half = kLeafKeys / 2;
      right->n = static_cast<std::uint32_t>(kLeafKeys - half);
      std::memcpy(right->keys, leaf->keys + half, right->n * sizeof(Entry));
      leaf->n = static_cast<std::uint32_t>(half);
      Leaf* into = at <= half ? leaf : right;
      std::size_t const i = at <= half ? at : at - half;
      std::memmove(into->keys + i + 1, into->keys + i, (into->n - i) * sizeof(Entry));
      into->keys[i] = e;
      ++into->n;
   }
   right->next = leaf->next;
   right->prev = leaf;
   if (leaf->next) leaf->next->prev = right;
   leaf->next = right;
   // Give the new node to the parents, splitting them in turn when they are full.
   Node* left = leaf;
   Node* newNode = right;
   Entry sep = right->keys[0];
   for (;;) {
      Inner* parent = left->parent;
      if (!parent) {
         auto* root = new Inner();
         ++inners_;
         root->leaf = false;
         root->children[0] = left;
         root->children[1] = newNode;
         root->seps[0] = sep;
         root->n = 2;
         left->parent = root;
         newNode->parent = root;
         root_ = root;
         return;
      }
      std::size_t const i = parent->indexOf(left);
      if (parent->n < kInnerChildren) {
         std::memmove(parent->children + i + 2, parent->children + i + 1, (parent->n - i - 1) * sizeof(Node*));
         std::memmove(parent->seps + i + 1, parent->seps + i, (parent->n - 1 - i) * sizeof(Entry));
         parent->children[i + 1] = newNode;
         parent->seps[i] = sep;
         ++parent->n;
         newNode->parent = parent;
         return;
      }
      // The parent is full: lay out its children and the new one, then split them.
      Node* children[kInnerChildren + 1];
      Entry seps[kInnerChildren];
      std::memcpy(children, parent->children, (i + 1) * sizeof(Node*));
      children[i + 1] = newNode;
      std::memcpy(children + i + 2, parent->children + i + 1, (parent->n - i - 1) * sizeof(Node*));
      std::memcpy(seps, parent->seps, i * sizeof(Entry));
      seps[i] = sep;
      std::memcpy(seps + i + 1, parent->seps + i, (parent->n - 1 - i) * sizeof(Entry));
      std::size_t const total = kInnerChildren + 1;
      // Appending at the right edge keeps the left node full, as for leaves.
      std::size_t const leftCount = i + 1 == parent->n ? total - 1 : total / 2;
      auto* sibling = new Inner();
      ++inners_;
      sibling->leaf = false;
      parent->n = static_cast<std::uint32_t>(leftCount);
      std::memcpy(parent->children, children, leftCount * sizeof(Node*));
      std::memcpy(parent->seps, seps, (leftCount - 1) * sizeof(Entry));
      sibling->n = static_cast<std::uint32_t>(total - leftCount);
      std::memcpy(sibling->children, children + leftCount, sibling->n * sizeof(Node*));
      std::memcpy(sibling->seps, seps + leftCount, (sibling->n - 1) * sizeof(Entry));
      for (std::size_t c = 0; c < parent->n; ++c) parent->children[c]->parent = parent;
      for (std::size_t c = 0; c < sibling->n; ++c) sibling->children[c]->parent = sibling;
      left = parent;
      newNode = sibling;
      sep = seps[leftCount - 1];
   }
}

void RouteOrderIndex::erase(RouteKey const* key) {
   Entry const e{key->orderPrefix(), key};
   Leaf* leaf = leafFor(e);
   OVK_ASSERT(leaf != nullptr);
   auto const at =
       static_cast<std::size_t>(std::lower_bound(leaf->keys, leaf->keys + leaf->n, e, entryLess) - leaf->keys);
   OVK_ASSERT(at < leaf->n && leaf->keys[at].key == key);
   --size_;
   // A separator naming the key (it was the first of a subtree) now names its successor,
   // which becomes that subtree's first; when there is none, the subtree is emptied and its
   // separator goes with it below.
   if (at == 0) {
      Entry const* successor = leaf->n > 1 ? &leaf->keys[1] : leaf->next ? &leaf->next->keys[0] : nullptr;
      if (successor) {
         for (Inner* p = leaf->parent; p; p = p->parent) {
            for (std::size_t s = 0; s + 1 < p->n; ++s) {
               if (p->seps[s].key == key) p->seps[s] = *successor;
            }
         }
      }
   }
   std::memmove(leaf->keys + at, leaf->keys + at + 1, (leaf->n - at - 1) * sizeof(Entry));
   --leaf->n;
   if (leaf->n != 0) return;
   // An empty leaf leaves the tree, and so does every inner node it leaves empty.
   if (leaf->prev) leaf->prev->next = leaf->next;
   if (leaf->next) leaf->next->prev = leaf->prev;
   Node* gone = leaf;
   Inner* parent = leaf->parent;
   delete leaf;
   --leaves_;
   while (parent) {
      std::size_t const i = parent->indexOf(gone);
      std::memmove(parent->children + i, parent->children + i + 1, (parent->n - i - 1) * sizeof(Node*));
      std::size_t const s = i == 0 ? 0 : i - 1;
      if (parent->n > 1) std::memmove(parent->seps + s, parent->seps + s + 1, (parent->n - 2 - s) * sizeof(Entry));
      --parent->n;
      if (parent->n != 0) break;
      gone = parent;
      Inner* up = parent->parent;
      delete parent;
      --inners_;
      parent = up;
   }
   if (size_ == 0) {
      root_ = nullptr;
      return;
   }
   // A root with one child hands the tree to it.
   while (root_ && !root_->leaf && root_->n == 1) {
      auto* old = static_cast<Inner*>(root_);
      root_ = old->children[0];
      root_->parent = nullptr;
      delete old;
      --inners_;
   }
}

RouteOrderIndex::Iterator RouteOrderIndex::lowerBound(RouteKey const& probe) const {
   std::uint64_t const prefix = probe.orderPrefix();
   return lowerBoundOf([&](Entry const& e) {
      if (e.prefix != prefix) return e.prefix < prefix;
      return e.key->orderCompare(probe) < 0;
   });
}

RouteOrderIndex::Iterator RouteOrderIndex::lowerBoundWhere(std::function<bool(RouteKey const&)> const& before) const {
   return lowerBoundOf([&](Entry const& e) { return before(*e.key); });
}

template <class Before>
RouteOrderIndex::Iterator RouteOrderIndex::lowerBoundOf(Before const& before) const {
   Node* node = root_;
   if (!node) return end();
   while (!node->leaf) {
      auto* inner = static_cast<Inner*>(node);
      // The last child whose first key is before the probe: keys equivalent to the probe may
      // lie on both sides of a separator, and the first of them is wanted.
      std::size_t c = 0;
      while (c + 1 < inner->n && before(inner->seps[c])) ++c;
      node = inner->children[c];
   }
   auto* leaf = static_cast<Leaf*>(node);
   std::size_t i = 0;
   while (i < leaf->n && before(leaf->keys[i])) ++i;
   if (i < leaf->n) return Iterator(leaf, i);
   return leaf->next ? Iterator(leaf->next, 0) : end();
}

RouteOrderIndex::Iterator RouteOrderIndex::find(RouteKey const* key) const {
   Entry const e{key->orderPrefix(), key};
   Leaf* leaf = leafFor(e);
   if (!leaf) return end();
   auto const* pos = std::lower_bound(leaf->keys, leaf->keys + leaf->n, e, entryLess);
   if (pos == leaf->keys + leaf->n || pos->key != key) return end();
   return Iterator(leaf, static_cast<std::size_t>(pos - leaf->keys));
}

RouteOrderIndex::Iterator RouteOrderIndex::begin() const {
   Node* node = root_;
   if (!node) return end();
   while (!node->leaf) node = static_cast<Inner*>(node)->children[0];
   return Iterator(node, 0);
}

std::size_t RouteOrderIndex::bytes() const { return leaves_ * sizeof(Leaf) + inners_ * sizeof(Inner); }

RouteKey const* RouteOrderIndex::Iterator::operator*() const {
   return static_cast<RouteOrderIndex::Leaf const*>(leaf_)->keys[index_].key;
}

RouteOrderIndex::Iterator& RouteOrderIndex::Iterator::operator++() {
   auto const* leaf = static_cast<RouteOrderIndex::Leaf const*>(leaf_);
   if (++index_ < leaf->n) return *this;
   leaf_ = leaf->next;
   index_ = 0;
   return *this;
}

} // namespace Routing::Bgp
