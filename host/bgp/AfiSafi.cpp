#include "host/bgp/AfiSafi.h"

#include <ostream>

namespace Routing::Bgp {

std::string toStrep(Afi afi) {
   switch (afi) {
   case Afi::afiIpv4: return "ipv4";
   case Afi::afiIpv6: return "ipv6";
   case Afi::afiUnknown: break;
   }
   return "afi" + std::to_string(static_cast<unsigned>(afi));
}

std::string toStrep(AfiSafi afiSafi) {
   bool const named = afiSafi.afi() == Afi::afiIpv4 || afiSafi.afi() == Afi::afiIpv6;
   if (named) {
      std::string const afi = toStrep(afiSafi.afi());
      switch (afiSafi.safi()) {
      case Safi::unicast: return afi + "Unicast";
      case Safi::flowspec: return afi + "Flowspec";
      case Safi::flowspecVpn: return afi + "FlowspecVpn";
      default: break;
      }
   }
   return "afi" + std::to_string(static_cast<unsigned>(afiSafi.afi())) + "Safi" +
          std::to_string(static_cast<unsigned>(afiSafi.safi()));
}

std::ostream& operator<<(std::ostream& os, Afi afi) { return os << toStrep(afi); }
std::ostream& operator<<(std::ostream& os, AfiSafi afiSafi) { return os << toStrep(afiSafi); }

} // namespace Routing::Bgp
