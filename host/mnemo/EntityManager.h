// Mnemo, the state database: entities mounted by path.
//
// A mount names a path, the type of entity to find there and mount information: the named
// collections of the entity and how many entries each holds. Entities of the Slate kind live
// in POSIX shared memory, one segment per path, named after the path under the manager's
// prefix (slateSegmentName), so that other processes can read them and several managers on
// one machine (tests, or several agents) each have their own.
//
// The manager knows no type of its own: the library of an entity registers its type
// (mountTypeIs) with a factory that makes the entity for a segment and mount information, and
// what the entity does before its last unmount.
//
// Several users may mount the same path: the first mount attaches, later ones of the same
// type share the entity, and the entity goes when the last of them unmounts. The segment
// stays after the unmount, for the readers; a writer that mounts it again attaches to it.
//
// Used on one thread (the task thread of the process that owns the manager).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/fwk/Ptr.h"
#include "host/fwk/Result.h"
#include "host/mnemo/SlateSegment.h"

namespace Mnemo {

// Mount information of the default kind: named collections with their sizes.
class MountInfo {
 public:
   struct Collection {
      std::string name;
      std::uint32_t size = 0;
   };
   // Adds collection `name` of `size` entries, or sets the size of the one of that name.
   MountInfo& collectionIs(std::string name, std::uint32_t size);
   // The size of collection `name`, or empty.
   std::optional<std::uint32_t> collectionSize(std::string_view name) const;
   std::vector<Collection> const& collections() const { return collections_; }
   friend bool operator==(MountInfo const& a, MountInfo const& b);

 private:
   std::vector<Collection> collections_;
};

enum class MountStatus : std::uint8_t {
   mounted,        // attached; the entity is at the path
   alreadyMounted, // the path was mounted with the same type and information; shared
   badPath,        // the path cannot name a segment under the prefix
   unknownType,    // no entity of that type can be mounted
   badCollections, // the information does not describe the type's collections
   conflict,       // the path is mounted with another type or other information
   segmentError,   // the shared-memory segment could not be attached (see the trace)
};
char const* toStrep(MountStatus s);

// One type of entity the manager can mount.
struct MountType {
   // The entity for the segment named `segment` as `info` describes it; a failure is the
   // status the mount ends with (badCollections or segmentError), its cause traced by the
   // factory and said in `why` (a sentence for people, possibly empty).
   using Factory = std::function<Ovk::Result<Ovk::Ptr<Ovk::PtrInterface>, MountStatus>(
       std::string const& segment, MountInfo const& info, std::string& why)>;
   Factory make;
   // Before the last unmount, when set: the entity stops writing.
   std::function<void(Ovk::PtrInterface& entity)> cleanup;
};

class EntityManager : public Ovk::PtrInterface {
 public:
   explicit EntityManager(std::string slatePrefix);

   std::string const& slatePrefix() const { return prefix_; }
   // The name of the segment that holds the entity at `path`; empty as for slateSegmentName.
   std::optional<std::string> segmentName(std::string_view path) const;

   // Registers entity type `name`; a type registered already keeps its first registration.
   void mountTypeIs(std::string const& name, MountType type);
   bool hasMountType(std::string_view name) const;

   // Mounts `path`. Failures are traced (facility "Mnemo", level 3) and leave nothing mounted;
   // lastMountProblem() then says why in a sentence when the entity's type could.
   MountStatus doMount(std::string const& path, std::string const& type, MountInfo const& info);
   std::string const& lastMountProblem() const { return lastProblem_; }
   // The entity at `path`, or empty when the path is not mounted.
   Ovk::Ptr<Ovk::PtrInterface> getEntity(std::string const& path) const;
   // Before the last unmount of `path`: the entity stops writing (its type's cleanup), so a
   // reference kept elsewhere can no longer change it and the segment is free for another
   // writer. Does nothing while other mounts of the path remain, or when the path is
   // not mounted.
   void cleanup(std::string const& path);
   // Drops one mount of `path`; the last one releases the entity. False when not mounted.
   bool doUnmount(std::string const& path);
   // How many mounts of `path` are held.
   unsigned mountCount(std::string const& path) const;

   // State the users of one mount share (how they divide what the entity holds, say), kept
   // with the mount under a name and released with its last unmount. Null when the path is
   // not mounted or holds nothing under `name`.
   Ovk::Ptr<Ovk::PtrInterface> attachment(std::string const& path, std::string const& name) const;
   // Keeps `value` under `name` with the mount of `path`; false when the path is not mounted.
   bool attachmentIs(std::string const& path, std::string const& name, Ovk::Ptr<Ovk::PtrInterface> value);

 private:
   struct Mount {
      std::string type;
      MountInfo info;
      Ovk::Ptr<Ovk::PtrInterface> entity;
      unsigned count = 0;
      std::map<std::string, Ovk::Ptr<Ovk::PtrInterface>, std::less<>> attachments;
   };
   std::string prefix_;
   std::map<std::string, MountType, std::less<>> types_;
   std::map<std::string, Mount, std::less<>> mounts_;
   std::string lastProblem_;
};

} // namespace Mnemo
