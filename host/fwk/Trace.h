// Tracing.
//
// A trace facility has a name and a set of enabled levels out of 0 to 9 (3 notable
// failures, 4 odd input, 5 load messages, 6 unrecognised data, 8 routine detail). A trace
// statement tests its level before it builds any text, so a disabled statement costs one
// load and one branch. Each line is
//   "<source file name>:<line>:<qualified function name> <text>"
// and goes to the facility's ring buffer (dumpable as the facility's trace file), to the
// compact Blink ring (function name and the first bytes of the text), to any capture a
// test holds, and to standard error when the facility's echo is on.
//
// Levels come from code (enabledLevelsIs) or from the environment variable TRACE, read when
// a facility is created, for example TRACE='BgpFlowspecPlugin=0-8;Agent=3,5;*=3'. Setting
// TRACE_STDERR=1 echoes every enabled line on standard error.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <utility>
#include <iosfwd>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace Ovk {

// Where a trace statement is: computed once per statement, the first time it is enabled.
struct TraceSite {
   TraceSite(char const* file, int line, char const* prettyFunction);
   std::string file; // base name without extension
   int line;
   std::string function; // qualified name, without return type, parameters or "Routing::Bgp::"
};

// "void Routing::Bgp::A::B::f(int) const" -> "A::B::f".
std::string qualifiedFunctionName(std::string_view prettyFunction);
// "/x/y/FlowspecParseNlri.cpp" -> "FlowspecParseNlri".
std::string sourceBaseName(std::string_view path);

// A bounded ring of text lines.
class TraceRing {
 public:
   explicit TraceRing(std::size_t capacity) : capacity_(capacity) {}
   void push(std::string line);
   std::vector<std::string> lines() const;
   void dump(std::ostream& os) const;
   void clear();
   std::uint64_t written() const;

 private:
   mutable std::mutex mutex_;
   std::size_t capacity_;
   std::deque<std::string> lines_;
   std::uint64_t written_ = 0;
};

struct TraceLine {
   std::string facility;
   int level;
   std::string line; // the full line as written to the ring
   std::string text; // the statement's text alone
};

class TraceCapture;

class TraceFacility {
 public:
   static constexpr int kMaxLevel = 9;

   // Creates and registers a facility; `ringName` names its trace file ("flowspecplugin").
   TraceFacility(std::string name, std::string ringName, std::size_t ringLines = 8192);
   ~TraceFacility();
   TraceFacility(TraceFacility const&) = delete;
   TraceFacility& operator=(TraceFacility const&) = delete;

   std::string const& name() const { return name_; }
   std::string const& ringName() const { return ringName_; }
   bool enabled(int level) const { return (levels_.load(std::memory_order_relaxed) >> level) & 1u; }
   std::uint32_t enabledLevels() const { return levels_.load(std::memory_order_relaxed); }
   // Bit n enables level n.
   void enabledLevelsIs(std::uint32_t mask) { levels_.store(mask & 0x3ffu, std::memory_order_relaxed); }
   // Enables levels 0 to `level` (-1: none).
   void levelIs(int level);
   void echoIs(bool on) { echo_.store(on, std::memory_order_relaxed); }

   void write(TraceSite const& site, int level, std::string_view text);
   TraceRing& ring() { return ring_; }
   // Writes the ring to "<dir>/<ringName>"; false when the file cannot be written.
   bool dumpRingFile(std::string const& dir) const;

   // Every facility of the process.
   static std::vector<TraceFacility*> all();
   static TraceFacility* find(std::string_view name);
   // Applies a TRACE-style setting to every facility it names; false on a syntax error.
   static bool configure(std::string_view setting);

 private:
   friend class TraceCapture;
   void applyEnvironment();

   std::string name_;
   std::string ringName_;
   std::atomic<std::uint32_t> levels_{0};
   std::atomic<bool> echo_{false};
   TraceRing ring_;
   std::mutex captureMutex_;
   std::vector<TraceCapture*> captures_;
};

// Collects the lines a facility writes while it lives; enables the given levels meanwhile.
class TraceCapture {
 public:
   explicit TraceCapture(TraceFacility& facility, std::uint32_t levels = 0x3ff);
   ~TraceCapture();
   TraceCapture(TraceCapture const&) = delete;
   TraceCapture& operator=(TraceCapture const&) = delete;

   std::vector<TraceLine> lines() const;
   std::vector<std::string> texts(int level = -1) const;
   bool contains(std::string_view text, int level = -1) const;
   void clear();

 private:
   friend class TraceFacility;
   void add(TraceLine l);
   TraceFacility& facility_;
   std::uint32_t savedLevels_;
   mutable std::mutex mutex_;
   std::vector<TraceLine> lines_;
};

// The compact trace ring: fixed-size records of a function name and a few payload bytes.
class Blink {
 public:
   // One record of named numbers for the site `function`, whatever the trace levels:
   // "AFI=1 SAFI=133".
   static void fields(char const* function, std::initializer_list<std::pair<char const*, std::uint64_t>> values);
   static constexpr std::size_t kPayload = 48;
   static constexpr std::size_t kRecords = 4096;
   struct Record {
      char const* function = nullptr; // static text of the trace site
      std::uint8_t size = 0;
      std::array<char, kPayload> payload{};
   };

   static Blink& instance();
   // Starts a record; put() appends payload bytes to it (truncated at kPayload).
   void begin(char const* function);
   void put(void const* data, std::size_t n);
   void putText(std::string_view text) { put(text.data(), text.size()); }
   std::vector<Record> records() const;
   std::uint64_t written() const { return written_; }

 private:
   mutable std::mutex mutex_;
   std::array<Record, kRecords> ring_{};
   std::uint64_t written_ = 0;
};

// Times a block: when the facility's timing level (kTimerLevel) is enabled at the start of
// the block, writes "took <n> ns" at that level when the block ends. Otherwise it costs one
// test. Use through OVK_TRACE_BLOCK_TIMER.
class TraceBlockTimer {
 public:
   static constexpr int kTimerLevel = 9;
   TraceBlockTimer(TraceFacility& facility, TraceSite const& site) noexcept;
   ~TraceBlockTimer();
   TraceBlockTimer(TraceBlockTimer const&) = delete;
   TraceBlockTimer& operator=(TraceBlockTimer const&) = delete;

 private:
   TraceFacility* facility_ = nullptr; // null when not timing
   TraceSite const& site_;
   std::int64_t startNs_ = 0;
};

} // namespace Ovk

// Times the rest of the enclosing block on `facility` (see TraceBlockTimer).
#define OVK_TRACE_BLOCK_TIMER(facility)                                                                                \
   static ::Ovk::TraceSite const ovkTimerSite_(__FILE__, __LINE__, __PRETTY_FUNCTION__);                               \
   ::Ovk::TraceBlockTimer const ovkBlockTimer_((facility), ovkTimerSite_)

// Traces `expr` (stream insertions) at `level` on `facility`; nothing is built when the
// level is off.
#define OVK_TRACE(facility, level, expr)                                                                               \
   do {                                                                                                                \
      ::Ovk::TraceFacility& ovkTraceFacility_ = (facility);                                                            \
      if (ovkTraceFacility_.enabled(level)) [[unlikely]] {                                                             \
         static ::Ovk::TraceSite const ovkTraceSite_(__FILE__, __LINE__, __PRETTY_FUNCTION__);                         \
         std::ostringstream ovkTraceStream_;                                                                           \
         ovkTraceStream_ << expr;                                                                                      \
         ovkTraceFacility_.write(ovkTraceSite_, level, ovkTraceStream_.view());                                        \
      }                                                                                                                \
   } while (0)
