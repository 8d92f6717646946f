#include "host/fwk/Ptr.h"

#include <gtest/gtest.h>

namespace {

struct Counted : Ovk::PtrInterface {
   explicit Counted(int* deaths) : deaths_(deaths) {}
   ~Counted() override { ++*deaths_; }
   int* deaths_;
};
struct Derived : Counted {
   using Counted::Counted;
   int extra = 7;
};

TEST(PtrTest, CountsReferencesAndDeletesOnTheLast) {
   int deaths = 0;
   {
      Ovk::Ptr<Counted> a = Ovk::makePtr<Counted>(&deaths);
      EXPECT_EQ(a->references(), 1u);
      Ovk::Ptr<Counted const> b = a; // const view shares the count
      EXPECT_EQ(a->references(), 2u);
      Ovk::Ptr<Counted> c = std::move(a);
      EXPECT_FALSE(a);
      EXPECT_EQ(c->references(), 2u);
      b = nullptr;
      EXPECT_EQ(c->references(), 1u);
      EXPECT_EQ(deaths, 0);
   }
   EXPECT_EQ(deaths, 1);
}

TEST(PtrTest, SelfAssignmentKeepsTheObject) {
   int deaths = 0;
   Ovk::Ptr<Counted> a = Ovk::makePtr<Counted>(&deaths);
   Ovk::Ptr<Counted>& alias = a;
   a = alias;
   EXPECT_EQ(deaths, 0);
   EXPECT_EQ(a->references(), 1u);
}

TEST(PtrTest, CheckedDownCasts) {
   int deaths = 0;
   Ovk::Ptr<Counted> base = Ovk::makePtr<Derived>(&deaths);
   Ovk::Ptr<Derived> d = Ovk::ptrCast<Derived>(base);
   ASSERT_TRUE(d);
   EXPECT_EQ(d->extra, 7);
   Ovk::Ptr<Counted> plain = Ovk::makePtr<Counted>(&deaths);
   EXPECT_FALSE(Ovk::ptrCast<Derived>(plain));
   EXPECT_DEATH(Ovk::ptrCastChecked<Derived>(plain), "Assertion `p.ptr\\(\\) == nullptr \\|\\| t != nullptr' failed");
}

struct Anchored : Ovk::PtrInterface {
   int onlyAnchored = 0;
   void onOnlyAnchoredReferences() override { ++onlyAnchored; }
};

TEST(PtrTest, OnlyAnchoredReferencesAreReported) {
   auto a = Ovk::makePtr<Anchored>();
   Ovk::Ptr<Anchored> anchor = a;
   a->anchoredReferenceInc();
   Ovk::Ptr<Anchored> user = a;
   a = nullptr;
   EXPECT_EQ(anchor->onlyAnchored, 0);
   user = nullptr; // one reference left, and it is the anchored one
   EXPECT_EQ(anchor->onlyAnchored, 1);
   anchor->anchoredReferenceDec();
}

} // namespace
