// The plugin's entry: what happens when the host loads libBgpFlowspec.so.
#include "BgpFlowspec/FlowspecPluginHoardReaders.h"

namespace Routing::Bgp::FlowspecPlugin {

namespace {

// Static construction of the library registers, in this order, the attribute-cache readers of
// the flowspec next hops (so that a restarting host can rebuild persisted next hops before
// any plugin runs) and then the plugin objects. Registration only: nothing else runs here.
struct LoadTimeRegistration {
   LoadTimeRegistration() { FlowspecOrreryInitializer::initialize(); }
};
LoadTimeRegistration const loadTimeRegistration;

} // namespace

} // namespace Routing::Bgp::FlowspecPlugin
