// Arbitrary bytes as a BGP byte stream, cut at a split point the input chooses: every message
// the framer yields goes through its reader. Oracles: the framer yields the same messages
// however the stream is split; an OPEN that reads re-encodes to an OPEN that reads back the
// same; a NOTIFICATION re-encodes to its own bytes.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/bgp/BgpMessage.h"

namespace {

using namespace Routing::Bgp;

std::vector<Bytes> frame(ByteView stream, std::size_t cut) {
   MessageFramer f;
   std::vector<Bytes> out;
   f.feed(stream.first(cut));
   while (auto m = f.next()) {
      if (!m->ok()) return out;
      out.push_back(m->value().bytes);
   }
   f.feed(stream.subspan(cut));
   while (auto m = f.next()) {
      if (!m->ok()) return out;
      out.push_back(m->value().bytes);
   }
   return out;
}

void check(Message const& m) {
   switch (m.type) {
   case MessageType::open: {
      auto o = parseOpen(m.body());
      if (!o) return;
      Bytes const again = encodeOpen(o.value());
      auto back = parseOpen(ByteView(again).subspan(kHeaderSize));
      if (!back || back.value().as() != o.value().as() || back.value().holdTime != o.value().holdTime ||
          back.value().bgpId != o.value().bgpId || back.value().families != o.value().families ||
          back.value().routeRefresh != o.value().routeRefresh ||
          back.value().gracefulRestart != o.value().gracefulRestart) {
         __builtin_trap();
      }
      (void)checkOpen(o.value(), OpenExpectations{65002, 65001, 1});
      // Negotiation keeps only the session's families of the peer's graceful-restart ones.
      OpenMessage local = localOpen(65001, 90, 1, {AfiSafi::ipv4Flowspec(), AfiSafi::ipv6Flowspec()});
      local.gracefulRestart = GracefulRestartCapability{};
      Negotiated const n = negotiate(local, o.value());
      if (n.peerGracefulRestart) {
         for (auto const& f : n.peerGracefulRestart->families) {
            if (std::find(n.families.begin(), n.families.end(), f.family) == n.families.end()) __builtin_trap();
         }
      }
      break;
   }
   case MessageType::notification: {
      auto n = parseNotification(m.body());
      if (!n || encodeNotification(n.value()) != m.bytes) __builtin_trap();
      (void)notificationText(n.value());
      break;
   }
   case MessageType::routeRefresh: (void)parseRouteRefresh(m.body()); break;
   case MessageType::update: // the UPDATE decoder has a target of its own
   case MessageType::keepalive: break;
   }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   if (size == 0) return 0;
   std::size_t const cut = data[0] % size;
   ByteView const stream(data + 1, size - 1);
   auto const whole = frame(stream, stream.size());
   if (frame(stream, std::min(cut, stream.size())) != whole) __builtin_trap();
   MessageFramer f;
   f.feed(stream);
   while (auto m = f.next()) {
      if (!m->ok()) break;
      check(m->value());
   }
   return 0;
}
