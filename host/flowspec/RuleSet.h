// The FSIB's interface: the set of forwarding rules, keyed by slate key, that the flowspec
// export writes and a forwarding process reads.
//
// One writer uses a RuleSet on its task thread; implementations may let other processes read
// concurrently (the shared-memory one does) but the interface itself is not thread-safe.
// InProcessRuleSet is the plain in-memory implementation, for tests and for a build without
// shared memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <optional>

#include "host/flowspec/Rule.h"
#include "host/fwk/Ptr.h"

namespace Flowspec {

enum class RuleIsResult : std::uint8_t {
   added,           // a new rule
   replaced,        // a rule with the same key was there and is replaced
   refusedFull,     // the set holds ruleCapacity() rules already; nothing changed
   refusedDetached, // the writer has detached; nothing changed
};
char const* toStrep(RuleIsResult r);

class RuleSet : public Ovk::PtrInterface {
 public:
   // Adds `rule`, or replaces the rule whose key equals rule.key. A full or detached set
   // refuses and says so; a refusal loses nothing that was stored.
   virtual RuleIsResult ruleIs(Rule const& rule) = 0;
   // Deletes the rule with `key`; false when there was none (or the set is detached).
   virtual bool ruleDel(FlowspecSlateKey const& key) = 0;
   // Deletes every rule (nothing when detached).
   virtual void ruleDelAll() = 0;
   // A writer that knows the set is full and does not offer it a rule records the refusal
   // as ruleIs would have. By default a set keeps no such count.
   virtual void refusalNote() {}
   // The rule with `key`, or empty.
   virtual std::optional<Rule> rule(FlowspecSlateKey const& key) const = 0;
   virtual std::size_t ruleCount() const = 0;
   // The most rules the set can hold.
   virtual std::size_t ruleCapacity() const = 0;
   // Calls `visit` for each rule in key order (FlowspecSlateKey::cmp: rule precedence)
   // until it returns false. The set must not be changed during the walk.
   virtual void forEachRule(std::function<bool(Rule const&)> const& visit) const = 0;
   // The writer lets go of the set: later writes are refused, the rules stay as they are for
   // readers. Detaching twice is harmless.
   virtual void detach() = 0;
   virtual bool isDetached() const = 0;

 protected:
   ~RuleSet() override = default;
};

class InProcessRuleSet : public RuleSet {
 public:
   explicit InProcessRuleSet(std::size_t capacity = std::numeric_limits<std::size_t>::max()) : capacity_(capacity) {}

   RuleIsResult ruleIs(Rule const& rule) override;
   bool ruleDel(FlowspecSlateKey const& key) override;
   void ruleDelAll() override;
   std::optional<Rule> rule(FlowspecSlateKey const& key) const override;
   std::size_t ruleCount() const override { return rules_.size(); }
   std::size_t ruleCapacity() const override { return capacity_; }
   void forEachRule(std::function<bool(Rule const&)> const& visit) const override;
   void detach() override { detached_ = true; }
   bool isDetached() const override { return detached_; }

 private:
   std::map<FlowspecSlateKey, Rule> rules_;
   std::size_t capacity_;
   bool detached_ = false;
};

} // namespace Flowspec
