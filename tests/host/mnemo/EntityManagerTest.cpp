#include "host/mnemo/EntityManager.h"

#include <gtest/gtest.h>

#include <vector>

#include "host/flowspec/RuleSet.h"
#include "host/mnemo/SlateRuleSetMount.h"
#include "host/mnemo/SlateRuleSetReader.h"
#include "tests/host/mnemo/SlateTestHelpers.h"

namespace {

using namespace Mnemo;
using namespace Mnemo::Test;
using Flowspec::RuleIsResult;

MountInfo fsibInfo(std::uint32_t size = fsibRuleCount) { return MountInfo().collectionIs(fsibCollection, size); }

// A manager that knows the rule-set type.
class RuleSetManager : public EntityManager {
 public:
   explicit RuleSetManager(std::string prefix) : EntityManager(std::move(prefix)) { registerRuleSetType(*this); }
};

TEST(EntityManagerTest, MountingTheFsibGivesARuleSetOtherProcessesCanRead) {
   ScopedSegment seg("mount");
   auto em = Ovk::makePtr<RuleSetManager>(seg.prefix());
   EXPECT_EQ(em->segmentName(fsibPath), seg.name());
   EXPECT_FALSE(em->getEntity(fsibPath));
   ASSERT_EQ(em->doMount(fsibPath, fsibType, fsibInfo()), MountStatus::mounted);
   auto fsib = fsibOf(*em);
   ASSERT_TRUE(fsib);
   EXPECT_EQ(fsib->ruleCapacity(), fsibRuleCount);
   ASSERT_EQ(fsib->ruleIs(testRule(5)), RuleIsResult::added);
   auto rd = SlateRuleSetReader::open(seg.name());
   ASSERT_TRUE(rd.ok());
   EXPECT_EQ(rd.value().capacity(), fsibRuleCount);
   EXPECT_EQ(rd.value().rule(testKey(5, 1)), testRule(5));
}

TEST(EntityManagerTest, MountsOfOnePathShareTheEntityAndTheLastUnmountReleasesIt) {
   ScopedSegment seg("share");
   RuleSetManager em(seg.prefix());
   ASSERT_EQ(em.doMount(fsibPath, fsibType, fsibInfo()), MountStatus::mounted);
   ASSERT_EQ(em.doMount(fsibPath, fsibType, fsibInfo()), MountStatus::alreadyMounted);
   EXPECT_EQ(em.mountCount(fsibPath), 2u);
   auto fsib = fsibOf(em);
   // The first user to leave cleans up and unmounts; the other keeps writing.
   em.cleanup(fsibPath);
   EXPECT_TRUE(em.doUnmount(fsibPath));
   EXPECT_EQ(fsibOf(em), fsib);
   EXPECT_EQ(fsib->ruleIs(testRule(1)), RuleIsResult::added);
   // The last one detaches the table: a reference kept elsewhere cannot change it.
   em.cleanup(fsibPath);
   EXPECT_TRUE(fsib->isDetached());
   EXPECT_EQ(fsib->ruleIs(testRule(2)), RuleIsResult::refusedDetached);
   EXPECT_TRUE(em.doUnmount(fsibPath));
   EXPECT_FALSE(em.getEntity(fsibPath));
   EXPECT_FALSE(em.doUnmount(fsibPath));
   em.cleanup(fsibPath); // not mounted: nothing to do
   // The table outlives the mount; mounting again attaches to it.
   ASSERT_EQ(em.doMount(fsibPath, fsibType, fsibInfo()), MountStatus::mounted);
   auto again = fsibOf(em);
   ASSERT_TRUE(again);
   EXPECT_NE(again, fsib);
   EXPECT_EQ(again->rule(testKey(1, 1)), testRule(1));
}

TEST(EntityManagerTest, MountsThatCannotBeMadeLeaveNothingMounted) {
   ScopedSegment seg("refused");
   RuleSetManager em(seg.prefix());
   struct Row {
      char const* name;
      std::string path;
      std::string type;
      MountInfo info;
      MountStatus status;
   };
   Row const rows[] = {
       {"empty path", "", fsibType, fsibInfo(), MountStatus::badPath},
       {"path with a space", "routing/bgp flowspec", fsibType, fsibInfo(), MountStatus::badPath},
       {"unknown type", fsibPath, "Flowspec::Rule", fsibInfo(), MountStatus::unknownType},
       {"no collection", fsibPath, fsibType, MountInfo(), MountStatus::badCollections},
       {"misnamed collection", fsibPath, fsibType, MountInfo().collectionIs("rules", 10), MountStatus::badCollections},
       {"extra collection", fsibPath, fsibType, fsibInfo().collectionIs("x", 1), MountStatus::badCollections},
       {"empty collection", fsibPath, fsibType, fsibInfo(0), MountStatus::badCollections},
       {"segment too large", fsibPath, fsibType, fsibInfo(SlateLayout::maxCapacity + 1), MountStatus::segmentError},
   };
   for (auto const& row : rows) {
      SCOPED_TRACE(row.name);
      EXPECT_EQ(em.doMount(row.path, row.type, row.info), row.status);
      EXPECT_FALSE(em.getEntity(row.path));
      EXPECT_EQ(em.mountCount(row.path), 0u);
   }
   EXPECT_FALSE(EntityManager("bad.prefix").segmentName(fsibPath));
   // A manager the rule-set side has not told of its type mounts none.
   EXPECT_EQ(EntityManager(seg.prefix()).doMount(fsibPath, fsibType, fsibInfo()), MountStatus::unknownType);
   // A mounted path refuses a mount of another shape.
   ASSERT_EQ(em.doMount(fsibPath, fsibType, fsibInfo(16)), MountStatus::mounted);
   EXPECT_EQ(em.doMount(fsibPath, fsibType, fsibInfo(32)), MountStatus::conflict);
   EXPECT_EQ(em.mountCount(fsibPath), 1u);
}

// The manager itself knows no type: what a mount makes and what cleanup does come from the
// type registered under the name, shared memory or not.
TEST(EntityManagerTest, RegisteredTypesMakeTheEntityAndCleanItUp) {
   struct Entity : Ovk::PtrInterface {
      std::string segment;
      int cleanups = 0;
   };
   EntityManager em("registry-" + std::to_string(::getpid()));
   std::vector<std::string> made;
   auto const make = [&made](std::string const& segment, MountInfo const& info,
                             std::string&) -> Ovk::Result<Ovk::Ptr<Ovk::PtrInterface>, MountStatus> {
      if (!info.collectionSize("item")) return Ovk::failure(MountStatus::badCollections);
      made.push_back(segment);
      auto e = Ovk::makePtr<Entity>();
      e->segment = segment;
      return Ovk::Ptr<Ovk::PtrInterface>(e);
   };
   EXPECT_FALSE(em.hasMountType("Test::Thing"));
   em.mountTypeIs("Test::Thing", MountType{make, [](Ovk::PtrInterface& e) { ++dynamic_cast<Entity&>(e).cleanups; }});
   em.mountTypeIs("Test::Plain", MountType{make, {}});
   // A second registration under a known name changes nothing.
   em.mountTypeIs(
       "Test::Thing",
       MountType{[](std::string const&, MountInfo const&,
                    std::string&) -> Ovk::Result<Ovk::Ptr<Ovk::PtrInterface>, MountStatus> {
                    return Ovk::failure(MountStatus::segmentError);
                 },
                 {}});
   EXPECT_TRUE(em.hasMountType("Test::Thing"));

   MountInfo const info = MountInfo().collectionIs("item", 4);
   EXPECT_EQ(em.doMount("a/b", "Test::Thing", MountInfo()), MountStatus::badCollections);
   EXPECT_TRUE(made.empty());
   ASSERT_EQ(em.doMount("a/b", "Test::Thing", info), MountStatus::mounted);
   ASSERT_EQ(em.doMount("a/b", "Test::Thing", info), MountStatus::alreadyMounted);
   EXPECT_EQ(made, std::vector<std::string>{*em.segmentName("a/b")});
   EXPECT_EQ(em.doMount("a/b", "Test::Plain", info), MountStatus::conflict);
   auto const thing = Ovk::ptrCast<Entity>(em.getEntity("a/b"));
   ASSERT_TRUE(thing);
   EXPECT_EQ(thing->segment, *em.segmentName("a/b"));
   // Cleanup reaches the type only for the last mount.
   em.cleanup("a/b");
   EXPECT_EQ(thing->cleanups, 0);
   em.doUnmount("a/b");
   em.cleanup("a/b");
   EXPECT_EQ(thing->cleanups, 1);
   EXPECT_TRUE(em.doUnmount("a/b"));
   // A type without cleanup unmounts all the same.
   ASSERT_EQ(em.doMount("c", "Test::Plain", info), MountStatus::mounted);
   em.cleanup("c");
   EXPECT_TRUE(em.doUnmount("c"));
   EXPECT_EQ(em.mountCount("c"), 0u);
}

} // namespace
