// Starting the agent's plugins: loading a plugin library, and building the context every
// registered plugin is initialised with. The agent and the flowspec tool start their
// plugins through here alike.
#pragma once

#include <string>

#include "host/fwk/Result.h"
#include "host/plugin/Plugin.h"

namespace Routing::Bgp::Plugin {

// Loads the shared library at `path` (its static construction registers its plugins with
// the default loader). The reason, naming the path and the loader's message, when it cannot
// be loaded. The library stays loaded for the life of the process.
Ovk::Result<void*, std::string> loadPluginLibrary(std::string const& path);

// Builds the context, initialises every registered plugin with it and the host's unicast
// families (host/plugin/Unicast.h), creates the default VRF
// and starts the forwarding targets the plugins registered.
Ovk::Ptr<Context> startPlugins(Context::Options options);

} // namespace Routing::Bgp::Plugin
