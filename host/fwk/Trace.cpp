#include "host/fwk/Trace.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>

namespace Ovk {

namespace {

struct Registry {
   std::mutex mutex;
   std::vector<TraceFacility*> facilities;
};

Registry& registry() {
   static Registry* r = new Registry; // never destroyed: facilities may outlive statics
   return *r;
}

// Parses "0-8,3" into a level mask; false on a syntax error.
bool parseLevels(std::string_view s, std::uint32_t& mask) {
   mask = 0;
   while (!s.empty()) {
      auto comma = s.find(',');
      std::string_view part = s.substr(0, comma);
      s = comma == std::string_view::npos ? std::string_view{} : s.substr(comma + 1);
      auto dash = part.find('-');
      auto num = [](std::string_view t, int& v) {
         if (t.size() != 1 || t[0] < '0' || t[0] > '9') return false;
         v = t[0] - '0';
         return true;
      };
      int lo = 0, hi = 0;
      if (dash == std::string_view::npos) {
         if (!num(part, lo)) return false;
         hi = lo;
      } else if (!num(part.substr(0, dash), lo) || !num(part.substr(dash + 1), hi) || lo > hi) {
         return false;
      }
      for (int l = lo; l <= hi; ++l) mask |= 1u << l;
   }
   return true;
}

std::string_view trim(std::string_view s) {
   while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
   while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
   return s;
}

// Calls f(name, mask) for each "NAME=LEVELS" of a setting; false on a syntax error.
template <class F>
bool forEachSetting(std::string_view setting, F&& f) {
   while (!setting.empty()) {
      auto semi = setting.find(';');
      std::string_view item = trim(setting.substr(0, semi));
      setting = semi == std::string_view::npos ? std::string_view{} : setting.substr(semi + 1);
      if (item.empty()) continue;
      auto eq = item.find('=');
      if (eq == std::string_view::npos) return false;
      std::uint32_t mask = 0;
      if (!parseLevels(trim(item.substr(eq + 1)), mask)) return false;
      f(trim(item.substr(0, eq)), mask);
   }
   return true;
}

} // namespace

std::string sourceBaseName(std::string_view path) {
   auto slash = path.find_last_of('/');
   if (slash != std::string_view::npos) path.remove_prefix(slash + 1);
   auto dot = path.find('.');
   return std::string(path.substr(0, dot));
}

std::string qualifiedFunctionName(std::string_view pf) {
   // Find the '(' that opens the parameter list: the first at template depth 0 that is not
   // part of "operator()".
   int angle = 0;
   std::size_t open = std::string_view::npos;
   for (std::size_t i = 0; i < pf.size(); ++i) {
      char c = pf[i];
      if (c == '<')
         ++angle;
      else if (c == '>' && angle > 0)
         --angle;
      else if (c == '(' && angle == 0) {
         if (i >= 8 && pf.substr(i - 8, 8) == "operator" && i + 1 < pf.size() && pf[i + 1] == ')') {
            ++i;
            continue;
         }
         open = i;
         break;
      }
   }
   std::string_view head = pf.substr(0, open);
   // The name starts after the last blank at template depth 0 (the return type ends there).
   angle = 0;
   std::size_t start = 0;
   for (std::size_t i = 0; i < head.size(); ++i) {
      char c = head[i];
      if (c == '<')
         ++angle;
      else if (c == '>' && angle > 0)
         --angle;
      else if (c == ' ' && angle == 0)
         start = i + 1;
   }
   std::string_view name = head.substr(start);
   while (!name.empty() && (name.front() == '*' || name.front() == '&')) name.remove_prefix(1);
   constexpr std::string_view kHostNs = "Routing::Bgp::";
   if (name.substr(0, kHostNs.size()) == kHostNs) name.remove_prefix(kHostNs.size());
   return std::string(name);
}

TraceSite::TraceSite(char const* f, int l, char const* prettyFunction)
    : file(sourceBaseName(f)), line(l), function(qualifiedFunctionName(prettyFunction)) {}

void TraceRing::push(std::string line) {
   std::lock_guard<std::mutex> g(mutex_);
   if (lines_.size() == capacity_) lines_.pop_front();
   lines_.push_back(std::move(line));
   ++written_;
}

std::vector<std::string> TraceRing::lines() const {
   std::lock_guard<std::mutex> g(mutex_);
   return {lines_.begin(), lines_.end()};
}

void TraceRing::dump(std::ostream& os) const {
   for (auto const& l : lines()) os << l << '\n';
}

void TraceRing::clear() {
   std::lock_guard<std::mutex> g(mutex_);
   lines_.clear();
}

std::uint64_t TraceRing::written() const {
   std::lock_guard<std::mutex> g(mutex_);
   return written_;
}

TraceFacility::TraceFacility(std::string name, std::string ringName, std::size_t ringLines)
    : name_(std::move(name)), ringName_(std::move(ringName)), ring_(ringLines) {
   {
      Registry& r = registry();
      std::lock_guard<std::mutex> g(r.mutex);
      r.facilities.push_back(this);
   }
   applyEnvironment();
}

TraceFacility::~TraceFacility() {
   Registry& r = registry();
   std::lock_guard<std::mutex> g(r.mutex);
   r.facilities.erase(std::remove(r.facilities.begin(), r.facilities.end(), this), r.facilities.end());
}

void TraceFacility::applyEnvironment() {
   if (char const* env = std::getenv("TRACE")) {
      forEachSetting(env, [this](std::string_view n, std::uint32_t mask) {
         if (n == "*" || n == name_) enabledLevelsIs(mask);
      });
   }
   if (char const* echo = std::getenv("TRACE_STDERR")) echoIs(std::string_view(echo) == "1");
}

void TraceFacility::levelIs(int level) {
   level = std::clamp(level, -1, kMaxLevel);
   enabledLevelsIs(level < 0 ? 0u : (2u << level) - 1u);
}

void TraceFacility::write(TraceSite const& site, int level, std::string_view text) {
   std::string line;
   line.reserve(site.file.size() + site.function.size() + text.size() + 16);
   line += site.file;
   line += ':';
   line += std::to_string(site.line);
   line += ':';
   line += site.function;
   line += ' ';
   line += text;

   Blink& b = Blink::instance();
   b.begin(site.function.c_str());
   b.putText(text);

   {
      std::lock_guard<std::mutex> g(captureMutex_);
      for (TraceCapture* c : captures_) c->add(TraceLine{name_, level, line, std::string(text)});
   }
   if (echo_.load(std::memory_order_relaxed)) {
      auto now = std::chrono::system_clock::now();
      std::time_t t = std::chrono::system_clock::to_time_t(now);
      std::tm tm{};
      localtime_r(&t, &tm);
      char stamp[32];
      std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
      std::fprintf(stderr, "%s %s/%d %s\n", stamp, name_.c_str(), level, line.c_str());
   }
   ring_.push(std::move(line));
}

bool TraceFacility::dumpRingFile(std::string const& dir) const {
   std::ofstream out(dir + "/" + ringName_);
   if (!out) return false;
   ring_.dump(out);
   return static_cast<bool>(out);
}

std::vector<TraceFacility*> TraceFacility::all() {
   Registry& r = registry();
   std::lock_guard<std::mutex> g(r.mutex);
   return r.facilities;
}

TraceFacility* TraceFacility::find(std::string_view name) {
   for (TraceFacility* f : all()) {
      if (f->name() == name) return f;
   }
   return nullptr;
}

bool TraceFacility::configure(std::string_view setting) {
   // Validate the whole setting before applying any of it.
   if (!forEachSetting(setting, [](std::string_view, std::uint32_t) {})) return false;
   forEachSetting(setting, [](std::string_view n, std::uint32_t mask) {
      for (TraceFacility* f : all()) {
         if (n == "*" || n == f->name()) f->enabledLevelsIs(mask);
      }
   });
   return true;
}

TraceCapture::TraceCapture(TraceFacility& facility, std::uint32_t levels)
    : facility_(facility), savedLevels_(facility.enabledLevels()) {
   facility_.enabledLevelsIs(levels);
   std::lock_guard<std::mutex> g(facility_.captureMutex_);
   facility_.captures_.push_back(this);
}

TraceCapture::~TraceCapture() {
   {
      std::lock_guard<std::mutex> g(facility_.captureMutex_);
      auto& c = facility_.captures_;
      c.erase(std::remove(c.begin(), c.end(), this), c.end());
   }
   facility_.enabledLevelsIs(savedLevels_);
}

void TraceCapture::add(TraceLine l) {
   std::lock_guard<std::mutex> g(mutex_);
   lines_.push_back(std::move(l));
}

std::vector<TraceLine> TraceCapture::lines() const {
   std::lock_guard<std::mutex> g(mutex_);
   return lines_;
}

std::vector<std::string> TraceCapture::texts(int level) const {
   std::vector<std::string> out;
   for (auto const& l : lines()) {
      if (level < 0 || l.level == level) out.push_back(l.text);
   }
   return out;
}

bool TraceCapture::contains(std::string_view text, int level) const {
   for (auto const& l : lines()) {
      if ((level < 0 || l.level == level) && l.line.find(text) != std::string::npos) return true;
   }
   return false;
}

void TraceCapture::clear() {
   std::lock_guard<std::mutex> g(mutex_);
   lines_.clear();
}

void Blink::fields(char const* function, std::initializer_list<std::pair<char const*, std::uint64_t>> values) {
   std::string text;
   for (auto const& [name, value] : values) {
      if (!text.empty()) text += ' ';
      text += name;
      text += '=';
      text += std::to_string(value);
   }
   Blink& b = instance();
   b.begin(function);
   b.putText(text);
}

Blink& Blink::instance() {
   static Blink* b = new Blink;
   return *b;
}

void Blink::begin(char const* function) {
   std::lock_guard<std::mutex> g(mutex_);
   Record& r = ring_[written_ % kRecords];
   r.function = function;
   r.size = 0;
   ++written_;
}

void Blink::put(void const* data, std::size_t n) {
   std::lock_guard<std::mutex> g(mutex_);
   if (written_ == 0) return;
   Record& r = ring_[(written_ - 1) % kRecords];
   std::size_t const room = kPayload - r.size;
   std::size_t const k = std::min(room, n);
   if (k) std::memcpy(r.payload.data() + r.size, data, k);
   r.size = static_cast<std::uint8_t>(r.size + k);
}

std::vector<Blink::Record> Blink::records() const {
   std::lock_guard<std::mutex> g(mutex_);
   std::vector<Record> out;
   std::uint64_t const n = std::min<std::uint64_t>(written_, kRecords);
   for (std::uint64_t i = written_ - n; i < written_; ++i) out.push_back(ring_[i % kRecords]);
   return out;
}

namespace {
std::int64_t steadyNs() {
   return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
       .count();
}
} // namespace

TraceBlockTimer::TraceBlockTimer(TraceFacility& facility, TraceSite const& site) noexcept : site_(site) {
   if (facility.enabled(kTimerLevel)) {
      facility_ = &facility;
      startNs_ = steadyNs();
   }
}

TraceBlockTimer::~TraceBlockTimer() {
   if (facility_) facility_->write(site_, kTimerLevel, "took " + std::to_string(steadyNs() - startNs_) + " ns");
}

} // namespace Ovk
