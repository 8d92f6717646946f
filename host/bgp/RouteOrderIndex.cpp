#include "host/bgp/RouteOrderIndex.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "host/fwk/Assert.h"

namespace Routing::Bgp {

// A key with its order summary beside it, so that most comparisons read the index alone.
struct RouteOrderIndex::NarrowEntry {
   std::uint64_t prefix = 0;
   RouteKey const* key = nullptr;
   static NarrowEntry of(RouteKey const* k) { return {k->orderPrefix(), k}; }
   int summaryCompare(NarrowEntry const& o) const { return prefix < o.prefix ? -1 : prefix > o.prefix ? 1 : 0; }
};

struct RouteOrderIndex::WideEntry {
   std::uint64_t hi = 0;
   std::uint64_t lo = 0;
   RouteKey const* key = nullptr;
   static WideEntry of(RouteKey const* k) {
      RouteKeyBase::OrderSummary const s = k->orderSummary();
      return {s.hi, s.lo, k};
   }
   int summaryCompare(WideEntry const& o) const {
      if (hi != o.hi) return hi < o.hi ? -1 : 1;
      return lo < o.lo ? -1 : lo > o.lo ? 1 : 0;
   }
};

namespace {

template <class Entry>
bool entryLess(Entry const& a, Entry const& b) {
   if (int const c = a.summaryCompare(b); c != 0) return c < 0;
   if (a.key == b.key) return false;
   if (int const c = a.key->orderCompare(*b.key); c != 0) return c < 0;
   return a.key < b.key;
}

} // namespace

// The B+ tree over one kind of entry. Separators are exact: seps[i] of an inner node is the
// first entry of children[i + 1]'s subtree, so a leaf's range runs from its first entry to
// the next leaf's first entry, which lets an operation next to the last one find its leaf
// from the neighbours alone.
template <class Entry>
class RouteOrderIndex::Tree {
 public:
   // About a kilobyte a node.
   static constexpr std::size_t kLeafKeys = 992 / sizeof(Entry);
   static constexpr std::size_t kInnerChildren = 42;

   struct Inner;
   struct Node {
      bool leaf = true;
      std::uint32_t n = 0; // entries of a leaf, children of an inner node
      Inner* parent = nullptr;
   };
   struct Leaf : Node {
      Leaf* next = nullptr;
      Leaf* prev = nullptr;
      Entry keys[kLeafKeys];
   };
   struct Inner : Node {
      Node* children[kInnerChildren];
      Entry seps[kInnerChildren - 1];
      std::size_t indexOf(Node const* child) const {
         for (std::size_t i = 0; i < this->n; ++i) {
            if (children[i] == child) return i;
         }
         OVK_FATAL("a node is a child of its parent");
      }
   };

   Tree() = default;
   ~Tree() { freeNodes(); }
   Tree(Tree const&) = delete;
   Tree& operator=(Tree const&) = delete;

   void insert(RouteKey const* key);
   void erase(RouteKey const* key);
   template <class Before>
   std::pair<Leaf const*, std::size_t> lowerBoundOf(Before const& before) const;
   std::pair<Leaf const*, std::size_t> find(RouteKey const* key) const;
   Leaf const* first() const;
   std::size_t size() const { return size_; }
   std::size_t bytes() const { return leaves_ * sizeof(Leaf) + inners_ * sizeof(Inner); }

 private:
   void freeNodes();
   Leaf* leafFor(Entry const& e) const;
   // True when `e` lies in `leaf`'s range.
   static bool inRange(Leaf const* leaf, Entry const& e) {
      return (!leaf->prev || !entryLess(e, leaf->keys[0])) && (!leaf->next || entryLess(e, leaf->next->keys[0]));
   }
   // The leaf whose range holds `e`, starting from the neighbourhood of the last operation.
   Leaf* leafNear(Entry const& e) const;
   void split(Leaf* leaf, std::size_t at, Entry const& e);

   Node* root_ = nullptr;
   Leaf* last_ = nullptr;           // the last leaf
   mutable Leaf* finger_ = nullptr; // the leaf of the last insert or erase
   std::size_t size_ = 0;
   std::size_t leaves_ = 0;
   std::size_t inners_ = 0;
};

template <class Entry>
void RouteOrderIndex::Tree<Entry>::freeNodes() {
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

template <class Entry>
typename RouteOrderIndex::Tree<Entry>::Leaf* RouteOrderIndex::Tree<Entry>::leafFor(Entry const& e) const {
   Node* node = root_;
   while (node && !node->leaf) {
      auto* inner = static_cast<Inner*>(node);
      // The child whose range holds `e`: after every separator not greater than it.
      Entry const* const begin = inner->seps;
      Entry const* const it = std::upper_bound(begin, begin + (inner->n - 1), e, entryLess<Entry>);
      node = inner->children[it - begin];
   }
   return static_cast<Leaf*>(node);
}

template <class Entry>
typename RouteOrderIndex::Tree<Entry>::Leaf* RouteOrderIndex::Tree<Entry>::leafNear(Entry const& e) const {
   if (Leaf* f = finger_) {
      if (inRange(f, e)) return f;
      if (f->next && inRange(f->next, e)) return finger_ = f->next;
   }
   return finger_ = leafFor(e);
}

template <class Entry>
void RouteOrderIndex::Tree<Entry>::insert(RouteKey const* key) {
   Entry const e = Entry::of(key);
   ++size_;
   if (!root_) {
      auto* leaf = new Leaf();
      leaf->keys[0] = e;
      leaf->n = 1;
      root_ = last_ = finger_ = leaf;
      ++leaves_;
      return;
   }
   // A table sent in order comes key after key at the end: one comparison finds the place.
   Leaf* leaf = last_;
   std::size_t at = leaf->n;
   if (!entryLess(leaf->keys[leaf->n - 1], e)) {
      leaf = leafNear(e);
      at = static_cast<std::size_t>(std::lower_bound(leaf->keys, leaf->keys + leaf->n, e, entryLess<Entry>) -
                                    leaf->keys);
   }
   finger_ = leaf;
   if (leaf->n < kLeafKeys) {
      // Only the first leaf takes a key at its start: elsewhere a key before a leaf's first
      // belongs to the leaf before, so separators stay exact.
      std::memmove(leaf->keys + at + 1, leaf->keys + at, (leaf->n - at) * sizeof(Entry));
      leaf->keys[at] = e;
      ++leaf->n;
      return;
   }
   split(leaf, at, e);
}

template <class Entry>
void RouteOrderIndex::Tree<Entry>::split(Leaf* leaf, std::size_t at, Entry const& e) {
   // The leaf splits where the key goes: the keys before it stay, followed by the new key,
   // and the keys after it move to the new leaf (a key past the end starts a leaf of its
   // own). Keys come in runs (a table sent in order, a block of rules between two others),
   // and the next key of a run then goes after this one, into a leaf with room: runs fill
   // their leaves, where splitting in halves would leave every leaf they cross half empty.
   auto* right = new Leaf();
   ++leaves_;
   if (at == leaf->n) {
      right->keys[0] = e;
      right->n = 1;
      finger_ = right;
   } else {
      right->n = static_cast<std::uint32_t>(leaf->n - at);
      std::memcpy(right->keys, leaf->keys + at, right->n * sizeof(Entry));
      leaf->keys[at] = e;
      leaf->n = static_cast<std::uint32_t>(at + 1);
      finger_ = leaf;
   }
   right->next = leaf->next;
   right->prev = leaf;
   if (leaf->next) leaf->next->prev = right;
   leaf->next = right;
   if (last_ == leaf) last_ = right;
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

template <class Entry>
void RouteOrderIndex::Tree<Entry>::erase(RouteKey const* key) {
   Entry const e = Entry::of(key);
   Leaf* leaf = leafNear(e);
   OVK_ASSERT(leaf != nullptr);
   auto const at = static_cast<std::size_t>(std::lower_bound(leaf->keys, leaf->keys + leaf->n, e, entryLess<Entry>) -
                                            leaf->keys);
   OVK_ASSERT(at < leaf->n && leaf->keys[at].key == key);
   --size_;
   // The separator naming the key (it was the first of a subtree: the lowest ancestor of
   // which the leaf's subtree is not the first child holds it) now names its successor,
   // which becomes that subtree's first; when there is none, the subtree is emptied and its
   // separator goes with it below.
   if (at == 0) {
      Entry const* successor = leaf->n > 1 ? &leaf->keys[1] : leaf->next ? &leaf->next->keys[0] : nullptr;
      if (successor) {
         Node const* node = leaf;
         for (Inner* p = leaf->parent; p; node = p, p = p->parent) {
            if (std::size_t const i = p->indexOf(node); i != 0) {
               p->seps[i - 1] = *successor;
               break;
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
   if (last_ == leaf) last_ = leaf->prev;
   finger_ = leaf->next ? leaf->next : leaf->prev;
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
      last_ = finger_ = nullptr;
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

template <class Entry>
template <class Before>
std::pair<typename RouteOrderIndex::Tree<Entry>::Leaf const*, std::size_t> RouteOrderIndex::Tree<Entry>::lowerBoundOf(
    Before const& before) const {
   Node* node = root_;
   if (!node) return {nullptr, 0};
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
   if (i < leaf->n) return {leaf, i};
   return {leaf->next, 0};
}

template <class Entry>
std::pair<typename RouteOrderIndex::Tree<Entry>::Leaf const*, std::size_t> RouteOrderIndex::Tree<Entry>::find(
    RouteKey const* key) const {
   Entry const e = Entry::of(key);
   Leaf* leaf = leafFor(e);
   if (!leaf) return {nullptr, 0};
   auto const* pos = std::lower_bound(leaf->keys, leaf->keys + leaf->n, e, entryLess<Entry>);
   if (pos == leaf->keys + leaf->n || pos->key != key) return {nullptr, 0};
   return {leaf, static_cast<std::size_t>(pos - leaf->keys)};
}

template <class Entry>
typename RouteOrderIndex::Tree<Entry>::Leaf const* RouteOrderIndex::Tree<Entry>::first() const {
   Node* node = root_;
   if (!node) return nullptr;
   while (!node->leaf) node = static_cast<Inner*>(node)->children[0];
   return static_cast<Leaf const*>(node);
}

// ---- The index ----

RouteOrderIndex::RouteOrderIndex(Summary summary) {
   if (summary == Summary::wide) {
      wide_ = std::make_unique<Tree<WideEntry>>();
   } else {
      narrow_ = std::make_unique<Tree<NarrowEntry>>();
   }
}

RouteOrderIndex::~RouteOrderIndex() = default;

bool RouteOrderIndex::less(RouteKey const* a, RouteKey const* b) {
   return entryLess(NarrowEntry::of(a), NarrowEntry::of(b));
}

bool RouteOrderIndex::orderLess(RouteKey const& a, RouteKey const& b) {
   std::uint64_t const pa = a.orderPrefix();
   std::uint64_t const pb = b.orderPrefix();
   if (pa != pb) return pa < pb;
   return a.orderCompare(b) < 0;
}

void RouteOrderIndex::insert(RouteKey const* key) {
   if (wide_) {
      wide_->insert(key);
   } else {
      narrow_->insert(key);
   }
}

void RouteOrderIndex::erase(RouteKey const* key) {
   if (wide_) {
      wide_->erase(key);
   } else {
      narrow_->erase(key);
   }
}

std::size_t RouteOrderIndex::size() const { return wide_ ? wide_->size() : narrow_->size(); }
std::size_t RouteOrderIndex::bytes() const { return wide_ ? wide_->bytes() : narrow_->bytes(); }

RouteOrderIndex::Iterator RouteOrderIndex::lowerBound(RouteKey const& probe) const {
   if (wide_) {
      RouteKeyBase::OrderSummary const s = probe.orderSummary();
      WideEntry const p{s.hi, s.lo, &probe};
      auto const [leaf, i] = wide_->lowerBoundOf([&](WideEntry const& e) {
         if (int const c = e.summaryCompare(p); c != 0) return c < 0;
         return e.key->orderCompare(probe) < 0;
      });
      return leaf ? Iterator(leaf, i, true) : end();
   }
   std::uint64_t const prefix = probe.orderPrefix();
   auto const [leaf, i] = narrow_->lowerBoundOf([&](NarrowEntry const& e) {
      if (e.prefix != prefix) return e.prefix < prefix;
      return e.key->orderCompare(probe) < 0;
   });
   return leaf ? Iterator(leaf, i, false) : end();
}

RouteOrderIndex::Iterator RouteOrderIndex::lowerBoundWhere(std::function<bool(RouteKey const&)> const& before) const {
   if (wide_) {
      auto const [leaf, i] = wide_->lowerBoundOf([&](WideEntry const& e) { return before(*e.key); });
      return leaf ? Iterator(leaf, i, true) : end();
   }
   auto const [leaf, i] = narrow_->lowerBoundOf([&](NarrowEntry const& e) { return before(*e.key); });
   return leaf ? Iterator(leaf, i, false) : end();
}

RouteOrderIndex::Iterator RouteOrderIndex::find(RouteKey const* key) const {
   if (wide_) {
      auto const [leaf, i] = wide_->find(key);
      return leaf ? Iterator(leaf, i, true) : end();
   }
   auto const [leaf, i] = narrow_->find(key);
   return leaf ? Iterator(leaf, i, false) : end();
}

RouteOrderIndex::Iterator RouteOrderIndex::begin() const {
   if (wide_) {
      auto const* leaf = wide_->first();
      return leaf ? Iterator(leaf, 0, true) : end();
   }
   auto const* leaf = narrow_->first();
   return leaf ? Iterator(leaf, 0, false) : end();
}

RouteKey const* RouteOrderIndex::Iterator::operator*() const {
   if (wide_) return static_cast<Tree<WideEntry>::Leaf const*>(leaf_)->keys[index_].key;
   return static_cast<Tree<NarrowEntry>::Leaf const*>(leaf_)->keys[index_].key;
}

RouteOrderIndex::Iterator& RouteOrderIndex::Iterator::operator++() {
   void const* next = nullptr;
   std::size_t n = 0;
   if (wide_) {
      auto const* leaf = static_cast<Tree<WideEntry>::Leaf const*>(leaf_);
      n = leaf->n;
      next = leaf->next;
   } else {
      auto const* leaf = static_cast<Tree<NarrowEntry>::Leaf const*>(leaf_);
      n = leaf->n;
      next = leaf->next;
   }
   if (++index_ < n) return *this;
   leaf_ = next;
   index_ = 0;
   return *this;
}

} // namespace Routing::Bgp
