#include "host/mnemo/EntityManager.h"

namespace Mnemo {

MountInfo& MountInfo::collectionIs(std::string name, std::uint32_t size) {
   for (auto& c : collections_) {
      if (c.name == name) {
         c.size = size;
         return *this;
      }
   }
   collections_.push_back(Collection{std::move(name), size});
   return *this;
}

std::optional<std::uint32_t> MountInfo::collectionSize(std::string_view name) const {
   for (auto const& c : collections_) {
      if (c.name == name) return c.size;
   }
   return std::nullopt;
}

bool operator==(MountInfo const& a, MountInfo const& b) {
   if (a.collections_.size() != b.collections_.size()) return false;
   for (auto const& c : a.collections_) {
      if (b.collectionSize(c.name) != c.size) return false;
   }
   return true;
}

char const* toStrep(MountStatus s) {
   switch (s) {
   case MountStatus::mounted: return "mounted";
   case MountStatus::alreadyMounted: return "alreadyMounted";
   case MountStatus::badPath: return "badPath";
   case MountStatus::unknownType: return "unknownType";
   case MountStatus::badCollections: return "badCollections";
   case MountStatus::conflict: return "conflict";
   case MountStatus::segmentError: return "segmentError";
   }
   return "?";
}

EntityManager::EntityManager(std::string slatePrefix) : prefix_(std::move(slatePrefix)) {}

std::optional<std::string> EntityManager::segmentName(std::string_view path) const {
   return slateSegmentName(prefix_, path);
}

void EntityManager::mountTypeIs(std::string const& name, MountType type) { types_.try_emplace(name, std::move(type)); }

bool EntityManager::hasMountType(std::string_view name) const { return types_.find(name) != types_.end(); }

MountStatus EntityManager::doMount(std::string const& path, std::string const& type, MountInfo const& info) {
   auto const failed = [&](MountStatus s) {
      OVK_TRACE(mnemoTrace(), 3, "cannot mount " << path << " of type " << type << ": " << toStrep(s));
      return s;
   };
   if (auto it = mounts_.find(path); it != mounts_.end()) {
      if (it->second.type != type || !(it->second.info == info)) return failed(MountStatus::conflict);
      ++it->second.count;
      return MountStatus::alreadyMounted;
   }
   std::optional<std::string> const name = segmentName(path);
   if (!name) return failed(MountStatus::badPath);
   auto const known = types_.find(type);
   if (known == types_.end()) return failed(MountStatus::unknownType);
   lastProblem_.clear();
   auto entity = known->second.make(*name, info, lastProblem_);
   if (!entity) return failed(entity.reason());
   mounts_.emplace(path, Mount{type, info, entity.value(), 1, {}});
   OVK_TRACE(mnemoTrace(), 5, "mounted " << path << " as " << *name);
   return MountStatus::mounted;
}

Ovk::Ptr<Ovk::PtrInterface> EntityManager::getEntity(std::string const& path) const {
   auto it = mounts_.find(path);
   return it == mounts_.end() ? nullptr : it->second.entity;
}

void EntityManager::cleanup(std::string const& path) {
   auto it = mounts_.find(path);
   if (it == mounts_.end() || it->second.count != 1 || !it->second.entity) return;
   auto const known = types_.find(it->second.type);
   if (known != types_.end() && known->second.cleanup) known->second.cleanup(*it->second.entity);
}

bool EntityManager::doUnmount(std::string const& path) {
   auto it = mounts_.find(path);
   if (it == mounts_.end()) return false;
   if (--it->second.count == 0) {
      mounts_.erase(it);
      OVK_TRACE(mnemoTrace(), 5, "unmounted " << path);
   }
   return true;
}

Ovk::Ptr<Ovk::PtrInterface> EntityManager::attachment(std::string const& path, std::string const& name) const {
   auto const it = mounts_.find(path);
   if (it == mounts_.end()) return nullptr;
   auto const a = it->second.attachments.find(name);
   return a == it->second.attachments.end() ? nullptr : a->second;
}

bool EntityManager::attachmentIs(std::string const& path, std::string const& name, Ovk::Ptr<Ovk::PtrInterface> value) {
   auto const it = mounts_.find(path);
   if (it == mounts_.end()) return false;
   it->second.attachments[name] = std::move(value);
   return true;
}

unsigned EntityManager::mountCount(std::string const& path) const {
   auto it = mounts_.find(path);
   return it == mounts_.end() ? 0 : it->second.count;
}

} // namespace Mnemo
