#include "host/mnemo/SlateSegment.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace Mnemo {

namespace {

bool nameChar(char c) {
   return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

} // namespace

Ovk::TraceFacility& mnemoTrace() {
   // Never destroyed: objects released during static destruction may still trace.
   static auto* const facility = new Ovk::TraceFacility("Mnemo", "mnemo");
   return *facility;
}

char const* toStrep(SlateError e) {
   switch (e) {
   case SlateError::badName: return "badName";
   case SlateError::badCapacity: return "badCapacity";
   case SlateError::noSegment: return "noSegment";
   case SlateError::openFailed: return "openFailed";
   case SlateError::notASegment: return "notASegment";
   case SlateError::writerActive: return "writerActive";
   }
   return "?";
}

std::optional<std::string> slateSegmentName(std::string_view prefix, std::string_view path) {
   if (prefix.empty() || path.empty()) return std::nullopt;
   for (char c : prefix) {
      if (!nameChar(c)) return std::nullopt;
   }
   std::string name = "/" + std::string(prefix) + ".";
   bool componentStart = true;
   for (char c : path) {
      if (c == '/') {
         if (componentStart) return std::nullopt; // leading '/' or "//"
         name += '.';
         componentStart = true;
      } else if (nameChar(c)) {
         name += c;
         componentStart = false;
      } else {
         return std::nullopt;
      }
   }
   if (componentStart) return std::nullopt; // trailing '/'
   // The name without its leading '/' is a file name under /dev/shm.
   if (name.size() - 1 > NAME_MAX) return std::nullopt;
   return name;
}

bool unlinkSlateSegment(std::string const& name) { return ::shm_unlink(name.c_str()) == 0; }

bool processAlive(std::uint32_t pid) {
   if (pid == 0 || pid > static_cast<std::uint32_t>(INT_MAX)) return false;
   return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

bool headerIsWellFormed(SlateLayout::Header const& h) {
   using namespace SlateLayout;
   if (h.magic.load(std::memory_order_acquire) != segmentMagic) return false;
   if (h.formatVersion != formatVersion || h.headerBytes != headerBytes) return false;
   if (h.capacity == 0 || h.capacity > maxCapacity) return false;
   Geometry const g = geometryFor(h.capacity);
   return h.indexBuckets == g.indexBuckets && h.slotsOffset == g.slotsOffset && h.indexOffset[0] == g.indexOffset[0] &&
          h.indexOffset[1] == g.indexOffset[1] && h.heapOffset == g.heapOffset && h.mapBytes == g.mapBytes;
}

SlateCounters countersOf(SlateLayout::Header const& h) {
   auto const get = [](std::atomic<std::uint64_t> const& c) { return c.load(std::memory_order_relaxed); };
   return SlateCounters{get(h.adds),       get(h.replaces), get(h.deletes),
                        get(h.deleteAlls), get(h.refusals), get(h.writerAttaches)};
}

SlateMapping::SlateMapping(SlateMapping&& o) noexcept
    : fd_(std::exchange(o.fd_, -1)), base_(std::exchange(o.base_, nullptr)), bytes_(std::exchange(o.bytes_, 0)) {}

SlateMapping& SlateMapping::operator=(SlateMapping&& o) noexcept {
   if (this != &o) {
      reset();
      fd_ = std::exchange(o.fd_, -1);
      base_ = std::exchange(o.base_, nullptr);
      bytes_ = std::exchange(o.bytes_, 0);
   }
   return *this;
}

SlateMapping::~SlateMapping() { reset(); }

void SlateMapping::reset() {
   if (base_ != nullptr) ::munmap(base_, bytes_);
   if (fd_ >= 0) ::close(fd_);
   fd_ = -1;
   base_ = nullptr;
   bytes_ = 0;
}

std::uint64_t SlateMapping::fileBytes() const { return segmentFileBytes(fd_); }

std::uint64_t segmentFileBytes(int fd) {
   struct stat st {};
   if (fd < 0 || ::fstat(fd, &st) != 0 || st.st_size < 0) return 0;
   return static_cast<std::uint64_t>(st.st_size);
}

} // namespace Mnemo
