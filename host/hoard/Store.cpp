#include "host/hoard/Store.h"

#include <sstream>

#include "host/fwk/Assert.h"

namespace Hoard {

namespace {
std::string imageText(void const* image) {
   std::ostringstream os;
   os << image;
   return os.str();
}
} // namespace

void MemoryStore::touch(void const* image) {
   auto it = images_.find(image);
   if (it != images_.end()) ++it->second.version;
}

void const* MemoryStore::view(void const* image, std::size_t size) const {
   auto it = images_.find(image);
   if (it == images_.end() || it->second.size < size) return nullptr;
   return image;
}

std::uint64_t MemoryStore::version(void const* image) const {
   auto it = images_.find(image);
   return it == images_.end() ? 0 : it->second.version;
}

void AnchorValidator::validate(Store const& store, Anchor const& anchor) const {
   if (store.version(anchor.image) != anchor.version) {
      throw ImageChanged("image " + imageText(anchor.image) + " changed while it was read");
   }
}

StoreManager::StoreManager(Ovk::Ptr<Store const> store, Ovk::Ptr<AnchorValidator const> validator)
    : store_(std::move(store)), validator_(std::move(validator)) {
   OVK_ASSERT(store_ != nullptr);
   OVK_ASSERT(validator_ != nullptr);
}

void const* StoreManager::viewOrThrow(void const* image, std::size_t size) const {
   void const* p = store_->view(image, size);
   if (p == nullptr) {
      throw ImageNotFound("no image of " + std::to_string(size) + " bytes at " + imageText(image));
   }
   return p;
}

} // namespace Hoard
