// Fakes of the agent's surroundings that tests share: a logger that keeps its lines, and a
// session's way out that keeps what it was given.
#pragma once

#include <algorithm>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "agent/Neighbor.h"

namespace Flowspecd::Fakes {

class Lines : public Logger {
 public:
   void log(std::string_view who, std::string_view event) override {
      lines.push_back(std::string(who) + " " + std::string(event));
   }
   bool contains(std::string_view text) const {
      return std::any_of(lines.begin(), lines.end(), [&](auto const& l) { return l.find(text) != std::string::npos; });
   }
   std::vector<std::string> lines;
};

class RecordingOutput : public BgpPeerOutput {
 public:
   void sendUpdate(std::span<std::uint8_t const> m) override { updates.emplace_back(m.begin(), m.end()); }
   void sendEndOfRib(AfiSafi family) override { endOfRibs.push_back(family); }
   void sendRouteRefresh(AfiSafi family) override { routeRefreshes.push_back(family); }
   std::size_t queuedBytes() const override { return queued; }
   void drainedCallbackIs(std::function<void()> d) override { drained = std::move(d); }
   std::vector<Bytes> updates;
   std::vector<AfiSafi> endOfRibs;
   std::vector<AfiSafi> routeRefreshes;
   std::size_t queued = 0;
   std::function<void()> drained;
};

} // namespace Flowspecd::Fakes
