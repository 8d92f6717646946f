#include "host/plugin/PluginHost.h"

#include "host/plugin/Unicast.h"

#include <dlfcn.h>

namespace Routing::Bgp::Plugin {

Ovk::Result<void*, std::string> loadPluginLibrary(std::string const& path) {
   void* const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
   if (!handle) {
      char const* why = dlerror();
      return Ovk::failure("cannot load the plugin library " + path + ": " + (why ? why : "unknown error"));
   }
   return handle;
}

Ovk::Ptr<Context> startPlugins(Context::Options options) {
   Ovk::Ptr<Context> context = Context::create(std::move(options));
   DefaultPluginLoader().initAll(context.ptr());
   unicastFamiliesIs(*context);
   context->vrfIs(BgpL3VrfId::defaultVrfId(), "default");
   context->forwardingTargetsIs();
   return context;
}

} // namespace Routing::Bgp::Plugin
