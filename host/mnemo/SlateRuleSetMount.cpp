#include "host/mnemo/SlateRuleSetMount.h"

#include "host/mnemo/SlateRuleSet.h"

namespace Mnemo {

namespace {

Ovk::Result<Ovk::Ptr<Ovk::PtrInterface>, MountStatus> makeRuleSet(std::string const& segment, MountInfo const& info,
                                                                  std::string& why) {
   // A rule set has exactly one collection, its rules.
   std::optional<std::uint32_t> const size = info.collectionSize(fsibCollection);
   if (info.collections().size() != 1 || !size || *size == 0) return Ovk::failure(MountStatus::badCollections);
   auto set = SlateRuleSet::attach(segment, *size, &why);
   if (!set) {
      if (set.reason() == SlateError::writerActive) {
         why = segmentPath(segment) + " is being written by another running process";
      }
      OVK_TRACE(mnemoTrace(), 3, "cannot attach " << segment << ": " << toStrep(set.reason()) << " " << why);
      return Ovk::failure(MountStatus::segmentError);
   }
   Ovk::Ptr<Flowspec::RuleSet> entity = set.value();
   return Ovk::Ptr<Ovk::PtrInterface>(entity);
}

void detachRuleSet(Ovk::PtrInterface& entity) {
   if (auto* set = dynamic_cast<Flowspec::RuleSet*>(&entity)) set->detach();
}

} // namespace

void registerRuleSetType(EntityManager& em) {
   if (!em.hasMountType(fsibType)) em.mountTypeIs(fsibType, MountType{makeRuleSet, detachRuleSet});
}

MountStatus mountFsib(EntityManager& em, std::uint32_t ruleCount) {
   registerRuleSetType(em);
   return em.doMount(fsibPath, fsibType, MountInfo().collectionIs(fsibCollection, ruleCount));
}

Ovk::Ptr<Flowspec::RuleSet> fsibOf(EntityManager const& em) {
   return Ovk::ptrCast<Flowspec::RuleSet>(em.getEntity(fsibPath));
}

void unmountFsib(EntityManager& em) {
   if (em.mountCount(fsibPath) == 0) return;
   em.cleanup(fsibPath);
   em.doUnmount(fsibPath);
}

} // namespace Mnemo
