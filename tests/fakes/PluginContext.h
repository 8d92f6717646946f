// A plugin context started as the agent starts it, with an FSIB in shared memory under a
// prefix of the caller's own and one peer as the source of paths; shared by the export's
// tests and its benchmark. The FSIB segment goes with it.
#pragma once

#include <unistd.h>

#include <string>
#include <utility>

#include "host/mnemo/SlateRuleSetMount.h"
#include "host/mnemo/SlateSegment.h"
#include "host/plugin/PluginHost.h"

namespace Routing::Bgp::Fakes {

class PluginContext {
 public:
   explicit PluginContext(std::string const& who) : prefix_(who + "-" + std::to_string(getpid())) {
      Plugin::Context::Options o;
      o.attributeCacheStatus = Hoard::AttributeCacheStatus::create();
      o.entityManager = Ovk::makePtr<Mnemo::EntityManager>(prefix_);
      context = Plugin::startPlugins(std::move(o));
      source = context->ribSources()->sourceIs(
          BgpPeer{*Ovnet::IpGenAddr::parse("192.0.2.9"), 65002, 65001, 9, BgpVrfIdBase{}});
   }
   ~PluginContext() {
      context->shutdown();
      context = nullptr;
      if (auto name = segmentName()) Mnemo::unlinkSlateSegment(*name);
   }
   PluginContext(PluginContext const&) = delete;
   PluginContext& operator=(PluginContext const&) = delete;

   std::optional<std::string> segmentName() const { return Mnemo::EntityManager(prefix_).segmentName(Mnemo::fsibPath); }

   Ovk::Ptr<Plugin::Context> context;
   RibSource source = 0;

 private:
   std::string prefix_;
};

} // namespace Routing::Bgp::Fakes
