// POSIX shared-memory segments of the Slate state database: their names, mapping, and the
// checks a process makes before it trusts a segment another process made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/fwk/Trace.h"
#include "host/mnemo/SlateLayout.h"

namespace Mnemo {

// The state database's trace facility "Mnemo" (ring file "mnemo"): mounts, segment attach
// and recovery, refusals for want of shared memory.
Ovk::TraceFacility& mnemoTrace();

// Why a segment could not be opened or attached.
enum class SlateError : std::uint8_t {
   badName,      // the prefix or path cannot form a segment name
   badCapacity,  // a capacity of 0 or above SlateLayout::maxCapacity
   noSegment,    // no segment of that name (readers)
   openFailed,   // shm_open, fstat, ftruncate or mmap failed
   notASegment,  // the object is not a segment of this format, or not yet initialised
   writerActive, // another live process is the segment's writer
   notOurs,      // the name is taken by what this process cannot trust: another user's object,
                 // one others may write, a symbolic link, something not a regular file
};
char const* toStrep(SlateError e);

// The segment name of the mount at `path` ("routing/bgp/table") under `prefix`:
// "/PREFIX.routing.bgp.table". Empty when the prefix is empty or holds characters other
// than letters, digits, '-' and '_', when the path is empty, has an empty component or
// characters other than those and '/', or when the name would exceed NAME_MAX.
std::optional<std::string> slateSegmentName(std::string_view prefix, std::string_view path);

// Removes the segment's name; processes that have it mapped keep their mapping. False when
// there was no such segment.
bool unlinkSlateSegment(std::string const& name);

// The size of the object open as `fd`, or 0 when it cannot be read.
std::uint64_t segmentFileBytes(int fd);

// Why the shared-memory object `name` (open as `fd`) is not one this process may write into
// and trust: it must be a regular file of this process's user that no one else may write
// (another user could otherwise feed the forwarding plane, or truncate or overwrite the
// segment under its writer). Empty when it is fine. The text names the object's path.
std::string segmentTrustProblem(std::string const& name, int fd);
// The path of the object a segment name stands for ("/dev/shm/NAME").
std::string segmentPath(std::string const& name);

// True while process `pid` exists (possibly as a zombie not yet waited for).
bool processAlive(std::uint32_t pid);

// True when `h` describes a segment this code can read: magic, format version and a geometry
// that is the one geometryFor(h.capacity) gives.
bool headerIsWellFormed(SlateLayout::Header const& h);

// The counters of a segment's header.
struct SlateCounters {
   std::uint64_t adds = 0;
   std::uint64_t replaces = 0;
   std::uint64_t deletes = 0;    // rules deleted one by one
   std::uint64_t deleteAlls = 0; // delete-all calls
   std::uint64_t refusals = 0;   // adds refused because the collection was full
   std::uint64_t writerAttaches = 0;
   friend bool operator==(SlateCounters const&, SlateCounters const&) = default;
};
SlateCounters countersOf(SlateLayout::Header const& h);

// A mapping of a segment, unmapped and closed on destruction.
class SlateMapping {
 public:
   SlateMapping() = default;
   SlateMapping(int fd, std::byte* base, std::size_t bytes) : fd_(fd), base_(base), bytes_(bytes) {}
   SlateMapping(SlateMapping&& o) noexcept;
   SlateMapping& operator=(SlateMapping&& o) noexcept;
   SlateMapping(SlateMapping const&) = delete;
   SlateMapping& operator=(SlateMapping const&) = delete;
   ~SlateMapping();

   int fd() const { return fd_; }
   std::byte* base() const { return base_; }
   std::size_t bytes() const { return bytes_; }
   // The segment's size as the file system has it, or 0 when it cannot be read.
   std::uint64_t fileBytes() const;

 private:
   void reset();
   int fd_ = -1;
   std::byte* base_ = nullptr;
   std::size_t bytes_ = 0;
};

} // namespace Mnemo
