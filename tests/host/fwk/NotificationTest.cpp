#include "host/fwk/Notification.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Collection = Ovk::NotifyingCollection<int, std::string>;

struct Watcher : Collection::Reactor {
   using Collection::Reactor::Reactor;
   void handleKey(int const& key) override {
      std::string const* v = notifier()->find(key);
      seen.push_back(std::to_string(key) + "=" + (v ? *v : "<gone>"));
   }
   void handleAll() override {
      ++alls;
      Collection::Reactor::handleAll();
   }
   std::vector<std::string> seen;
   int alls = 0;
};

TEST(NotificationTest, ReactorCatchesUpThenHearsEveryChange) {
   auto c = Collection::create();
   c->set(1, "a");
   c->set(2, "b");
   Watcher w(c);
   c->set(3, "ignored"); // not switched on yet
   EXPECT_TRUE(w.seen.empty());
   w.hasNotificationActiveIs(true);
   EXPECT_EQ(w.alls, 1);
   EXPECT_EQ(w.seen, (std::vector<std::string>{"1=a", "2=b", "3=ignored"}));
   w.seen.clear();
   c->set(1, "a"); // unchanged: no notification
   c->set(1, "z");
   c->del(2);
   EXPECT_FALSE(c->del(2));
   EXPECT_EQ(w.seen, (std::vector<std::string>{"1=z", "2=<gone>"}));
   w.hasNotificationActiveIs(false);
   c->set(4, "d");
   EXPECT_EQ(w.seen.size(), 2u);
   EXPECT_EQ(c->reactors(), 0u);
}

struct SelfRemover : Collection::Reactor {
   using Collection::Reactor::Reactor;
   void handleKey(int const&) override {
      ++calls;
      hasNotificationActiveIs(false);
   }
   void handleAll() override {}
   int calls = 0;
};

TEST(NotificationTest, ReactorsMayDetachWhileBeingNotified) {
   auto c = Collection::create();
   SelfRemover a(c);
   Watcher b(c);
   a.hasNotificationActiveIs(true);
   b.hasNotificationActiveIs(true);
   c->set(1, "x");
   c->set(2, "y");
   EXPECT_EQ(a.calls, 1);
   EXPECT_EQ(b.seen.size(), 2u);
   EXPECT_EQ(c->reactors(), 1u);
}

} // namespace
