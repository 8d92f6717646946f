#include "host/mnemo/EntityManager.h"

#include <gtest/gtest.h>

#include "host/flowspec/RuleSet.h"
#include "host/mnemo/SlateRuleSetReader.h"
#include "tests/host/mnemo/SlateTestHelpers.h"

namespace {

using namespace Mnemo;
using namespace Mnemo::Test;
using Flowspec::RuleIsResult;

MountInfo fsibInfo(std::uint32_t size = fsibRuleCount) { return MountInfo().collectionIs(fsibCollection, size); }

Ovk::Ptr<Flowspec::RuleSet> fsibOf(EntityManager const& em) {
   return Ovk::ptrCast<Flowspec::RuleSet>(em.getEntity(fsibPath));
}

TEST(EntityManagerTest, MountingTheFsibGivesARuleSetOtherProcessesCanRead) {
   ScopedSegment seg("mount");
   auto em = Ovk::makePtr<EntityManager>(seg.prefix());
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
   EntityManager em(seg.prefix());
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
   em.cleanup(fsibPath);  // not mounted: nothing to do
   // The table outlives the mount; mounting again attaches to it.
   ASSERT_EQ(em.doMount(fsibPath, fsibType, fsibInfo()), MountStatus::mounted);
   auto again = fsibOf(em);
   ASSERT_TRUE(again);
   EXPECT_NE(again, fsib);
   EXPECT_EQ(again->rule(testKey(1, 1)), testRule(1));
}

TEST(EntityManagerTest, MountsThatCannotBeMadeLeaveNothingMounted) {
   ScopedSegment seg("refused");
   EntityManager em(seg.prefix());
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
   // A mounted path refuses a mount of another shape.
   ASSERT_EQ(em.doMount(fsibPath, fsibType, fsibInfo(16)), MountStatus::mounted);
   EXPECT_EQ(em.doMount(fsibPath, fsibType, fsibInfo(32)), MountStatus::conflict);
   EXPECT_EQ(em.mountCount(fsibPath), 1u);
}

} // namespace
