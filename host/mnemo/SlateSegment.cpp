#include "host/mnemo/SlateSegment.h"
#include "host/fwk/FileTrust.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
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
   case SlateError::notOurs: return "notOurs";
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

std::string segmentPath(std::string const& name) { return "/dev/shm" + name; }

std::string segmentTrustProblem(std::string const& name, int fd) {
   std::string const path = segmentPath(name);
   struct stat st {};
   // shm_open does not follow a symbolic link; say what is there rather than "cannot open".
   if (fd < 0) {
      if (::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
         char target[4096];
         ssize_t const n = ::readlink(path.c_str(), target, sizeof target - 1);
         return path + " is a symbolic link" + (n > 0 ? " to " + std::string(target, static_cast<std::size_t>(n)) : "") +
                ", not a segment of ours";
      }
      return {};
   }
   if (::fstat(fd, &st) != 0) return "cannot read the owner of " + path + ": " + std::strerror(errno);
   if (!S_ISREG(st.st_mode)) return path + " is not a regular file";
   if (st.st_uid != ::geteuid()) {
      return path + " belongs to user " + Ovk::userText(st.st_uid) + ", not to this process's user " +
             Ovk::userText(::geteuid());
   }
   if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
      return path + " may be written by other users (mode " + Ovk::modeText(st.st_mode) + ")";
   }
   return {};
}

bool processAlive(std::uint32_t pid) {
   if (pid == 0 || pid > static_cast<std::uint32_t>(INT_MAX)) return false;
   return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

bool headerIsWellFormed(SlateLayout::Header const& h) {
   using namespace SlateLayout;
   if (h.magic.load(std::memory_order_acquire) != segmentMagic) return false;
   if (h.formatVersion < oldestFormatVersion || h.formatVersion > formatVersion || h.headerBytes != headerBytes) {
      return false;
   }
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
