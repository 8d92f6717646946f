#include "host/bgp/BgpPeer.h"

#include <ostream>

namespace Routing::Bgp {

std::string BgpPeer::str() const { return address.str() + " AS " + std::to_string(remoteAs); }

std::ostream& operator<<(std::ostream& os, BgpPeer const& peer) { return os << peer.str(); }

} // namespace Routing::Bgp
