// The host's own unicast families (IPv4 and IPv6, SAFI 1), registered with the context as a
// plugin registers its families: their parse rules, the default VRF's route-key dedup
// tables, and hook 0 (the sessions' RIB-ins). No other hook: unicast routes are neither
// exported to a forwarding target nor shown through plugin tables nor advertised.
#pragma once

#include "host/plugin/Plugin.h"

namespace Routing::Bgp::Plugin {

// Registers both unicast families with `context`, once (a second call does nothing). Their
// RIB tables come with the default VRF (Context::vrfIs), or at once when it exists.
void unicastFamiliesIs(Context& context);

} // namespace Routing::Bgp::Plugin
