#include "host/hoard/AttributeCache.h"

#include <gtest/gtest.h>

#include "host/hoard/Store.h"

namespace {

using Ovk::Ptr;

class NamedReader : public Hoard::Reader {
 public:
   explicit NamedReader(std::string_view name) : name_(name) {}
   std::string_view typeName() const override { return name_; }

 private:
   std::string_view name_;
};

class OtherReader : public NamedReader {
 public:
   using NamedReader::NamedReader;
};

TEST(AttributeCacheTest, NameMapKeepsTheFirstReaderOfEachName) {
   Hoard::NameMap names;
   auto a = Ovk::makePtr<NamedReader>("A::Type");
   EXPECT_TRUE(names.insert(a));
   EXPECT_FALSE(names.insert(Ovk::makePtr<OtherReader>("A::Type")));
   EXPECT_TRUE(names.insert(Ovk::makePtr<OtherReader>("B::Type")));
   EXPECT_EQ(names.size(), 2u);
   EXPECT_EQ(names.find("A::Type").ptr(), a.ptr());
   EXPECT_FALSE(names.find("A::Typ"));
   EXPECT_FALSE(names.findAs<OtherReader>("A::Type"));
   EXPECT_TRUE(names.findAs<OtherReader>("B::Type"));
   EXPECT_EQ(&Hoard::NameMap::instance(), &Hoard::NameMap::instance());
}

struct Payload : Ovk::PtrInterface {
   int value = 7;
};

TEST(StoreTest, TranslatesKeptImagesAndRejectsOthers) {
   auto store = Hoard::MemoryStore::create();
   auto payload = Ovk::makePtr<Payload>();
   void const* image = store->keep(Ptr<Payload const>(payload));
   auto manager = Hoard::StoreManager::create(store);
   auto view = manager->translate<Payload>(image);
   EXPECT_EQ(view->value, 7);
   EXPECT_NO_THROW(manager->validateAnchor(view.anchor()));

   // An address the store does not hold, or an image smaller than the type read.
   int stray = 0;
   EXPECT_THROW(manager->translate<Payload>(&stray), Hoard::ImageNotFound);
   struct Bigger : Payload {
      char more[64];
   };
   EXPECT_THROW(manager->translate<Bigger>(image), Hoard::ImageNotFound);

   // The store keeps its images alive until it drops them.
   payload = nullptr;
   EXPECT_EQ(manager->translate<Payload>(image)->value, 7);
   store->forget(image);
   EXPECT_EQ(store->size(), 0u);
   EXPECT_THROW(manager->translate<Payload>(image), Hoard::ImageNotFound);
}

TEST(StoreTest, AnchorValidatorRejectsAnImageRewrittenDuringTheRead) {
   auto store = Hoard::MemoryStore::create();
   void const* image = store->keep(Ptr<Payload const>(Ovk::makePtr<Payload>()));
   auto manager = Hoard::StoreManager::create(store);
   auto view = manager->translate<Payload>(image);
   store->touch(image);
   EXPECT_THROW(manager->validateAnchor(view.anchor()), Hoard::ImageChanged);
   // A read that starts after the write is fine.
   EXPECT_NO_THROW(manager->validateAnchor(manager->translate<Payload>(image).anchor()));
}

} // namespace
