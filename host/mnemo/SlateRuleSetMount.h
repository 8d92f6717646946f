// The FSIB as a mount of the state database: the rule-set entity type, and the path, prefix
// and size the agent's FSIB has.
//
//   "Flowspec::RuleSet"  one collection "rule" (its size is the rule capacity); the entity is
//                        a Flowspec::RuleSet backed by a SlateRuleSet this process writes;
//                        before its last unmount it detaches.
//
// Every VRF's export mounts the FSIB; they share the one rule set.
#pragma once

#include <cstdint>

#include "host/flowspec/RuleSet.h"
#include "host/mnemo/EntityManager.h"

namespace Mnemo {

// The prefix of the agent's segments when nothing else is configured.
inline constexpr char const* defaultSlatePrefix = "flowspecd";
// The FSIB: its path, entity type, collection and size.
inline constexpr char const* fsibPath = "routing/bgp/flowspec";
inline constexpr char const* fsibType = "Flowspec::RuleSet";
inline constexpr char const* fsibCollection = "rule";
inline constexpr std::uint32_t fsibRuleCount = 12288;

// Registers the rule-set type with `em` (nothing when it knows the type).
void registerRuleSetType(EntityManager& em);

// Registers the rule-set type and mounts the FSIB with `ruleCount` rules.
MountStatus mountFsib(EntityManager& em, std::uint32_t ruleCount = fsibRuleCount);
// The rule set mounted at fsibPath, or null.
Ovk::Ptr<Flowspec::RuleSet> fsibOf(EntityManager const& em);
// Drops one mount of the FSIB, detaching the rule set first when it is the last; nothing
// when the FSIB is not mounted.
void unmountFsib(EntityManager& em);

} // namespace Mnemo
