// Which VRFs import which route targets: the configuration a redirect-to-VRF community is
// resolved through (RFC 8955 section 7.4).
//
// Three levels, each a collection that tells its reactors of every key that changes:
//   RtToVrfIdList         by the unicast family of the routes (IPv4 unicast, IPv6 unicast),
//   AfiSafiRtToVrfIdList  by the VPN family the route targets are of (VPN-IPv4, VPN-IPv6),
//   VpnRtToVrfIdList      by route target (an interned extended community), to the ordered
//                         list of the VRFs importing it.
#pragma once

#include <cstdint>
#include <map>

#include "host/bgp/AfiSafi.h"
#include "host/bgp/BgpVrfId.h"
#include "host/bgp/ExtComm.h"
#include "host/fwk/Notification.h"
#include "host/fwk/Ptr.h"

namespace Routing::Bgp {

// The VRFs importing one route target, by VRF id (the lowest first).
class VrfIdList : public Ovk::PtrInterface {
 public:
   static Ovk::Ptr<VrfIdList> create() { return Ovk::makePtr<VrfIdList>(); }
   std::map<std::uint32_t, BgpVrfIdBase> vrfs;
};

using VpnRtToVrfIdList = Ovk::NotifyingCollection<Ovk::Ptr<ExtComm const>, Ovk::Ptr<VrfIdList const>>;
using AfiSafiRtToVrfIdList = Ovk::NotifyingCollection<AfiSafi, Ovk::Ptr<VpnRtToVrfIdList>>;
using RtToVrfIdList = Ovk::NotifyingCollection<AfiSafi, Ovk::Ptr<AfiSafiRtToVrfIdList>>;

inline constexpr AfiSafi kIpv4UnicastAfiSafi{Afi::afiIpv4, Safi::unicast};
inline constexpr AfiSafi kIpv6UnicastAfiSafi{Afi::afiIpv6, Safi::unicast};
// RFC 4364 and RFC 4659: SAFI 128.
inline constexpr AfiSafi kVpnIpv4AfiSafi{Afi::afiIpv4, 128};
inline constexpr AfiSafi kVpnIpv6AfiSafi{Afi::afiIpv6, 128};

} // namespace Routing::Bgp
