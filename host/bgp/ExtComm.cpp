#include "host/bgp/ExtComm.h"

#include "host/fwk/String.h"

#include <bit>
#include <cstdio>
#include <cstring>
#include <ostream>

namespace Routing::Bgp {

namespace {

std::string hex64(std::uint64_t v) {
   char b[19];
   std::snprintf(b, sizeof b, "0x%016llx", static_cast<unsigned long long>(v));
   return b;
}

ExtCommField num(char const* name, std::uint64_t v) { return {name, std::to_string(v), true}; }
ExtCommField text(char const* name, std::string v) { return {name, std::move(v), false}; }
ExtCommField flag(char const* name, bool v) { return {name, v ? "true" : "false", true}; }

Ovnet::IpGenAddr ipv4At(std::uint64_t value, unsigned shift) {
   return Ovnet::IpGenAddr::ipv4(static_cast<std::uint32_t>(value >> shift));
}

// "kind(field=value, ...)".
std::string kindText(char const* kind, std::vector<ExtCommField> const& f) {
   std::string s = kind;
   s += '(';
   for (std::size_t i = 0; i < f.size(); ++i) {
      if (i) s += ", ";
      s += f[i].name + "=" + f[i].value;
   }
   return s + ")";
}

std::string formatRate(float r) {
   char b[48];
   std::snprintf(b, sizeof b, "%.9g", static_cast<double>(r));
   return b;
}

} // namespace

char const* toStrep(ExtCommClassification c) {
   switch (c) {
   case ExtCommClassification::other: return "other";
   case ExtCommClassification::routeTarget: return "routeTarget";
   case ExtCommClassification::routeOrigin: return "routeOrigin";
   case ExtCommClassification::flowspec: return "flowspec";
   case ExtCommClassification::flowspecUnsupported: return "flowspecUnsupported";
   }
   return "?";
}

namespace {

template <class C>
Ovk::Ptr<ExtComm> make(std::uint64_t v) {
   return Ovk::makePtr<C>(v);
}

template <class C>
Ovk::Ptr<ExtCommIp6> makeIp6(std::span<std::uint8_t const, ExtCommIp6::kSize> b) {
   return Ovk::makePtr<C>(b);
}

constexpr ExtCommKind kFlowspecKinds[] = {
    {0x8006, &make<FlowspecExtCommTrafficRate>},     {0x8007, &make<FlowspecExtCommTrafficAction>},
    {0x8009, &make<FlowspecExtCommTrafficMarking>},  {0x8008, &make<FlowspecExtCommRedirectVrfRdAs>},
    {0x8208, &make<FlowspecExtCommRedirectVrfRdAs>}, {0x8108, &make<FlowspecExtCommRedirectVrfRdIpv4>},
    {0x010c, &make<FlowspecExtCommRedirectIpv4>},    {0x0800, &make<FlowspecExtCommRedirectNexthop>},
    {0x800c, &make<FlowspecExtCommUnsupported>},
};

constexpr ExtCommIp6Kind kFlowspecIp6Kinds[] = {
    {0x000c, &makeIp6<FlowspecExtCommRedirectIpv6>},
    {0x000d, &makeIp6<FlowspecExtCommRedirectVrfIpv6>},
    {0x800b, &makeIp6<FlowspecExtCommRedirectVrfIpv6>},
};

} // namespace

std::span<ExtCommKind const> flowspecExtCommKinds() noexcept { return kFlowspecKinds; }

std::optional<std::uint64_t> parseRouteTarget(std::string_view text) {
   auto const colon = text.rfind(':');
   if (colon == std::string_view::npos) return std::nullopt;
   auto number = [](std::string_view d) -> std::optional<std::uint64_t> {
      if (d.empty() || d.size() > 10) return std::nullopt;
      std::uint64_t v = 0;
      for (char c : d) {
         if (c < '0' || c > '9') return std::nullopt;
         v = v * 10 + static_cast<std::uint64_t>(c - '0');
      }
      return v;
   };
   auto const local = number(text.substr(colon + 1));
   if (!local) return std::nullopt;
   std::string_view const global = text.substr(0, colon);
   if (auto const addr = Ovnet::IpGenAddr::parse(global); addr && addr->isIpv4()) {
      if (*local > 0xffff) return std::nullopt;
      return std::uint64_t{0x0102} << 48 | std::uint64_t{addr->ipv4HostOrder()} << 16 | *local;
   }
   auto const as = number(global);
   if (!as || *as > 0xffffffffull) return std::nullopt;
   if (*as <= 0xffff) {
      if (*local > 0xffffffffull) return std::nullopt;
      return std::uint64_t{0x0002} << 48 | *as << 32 | *local;
   }
   if (*local > 0xffff) return std::nullopt;
   return std::uint64_t{0x0202} << 48 | *as << 16 | *local;
}
std::span<ExtCommIp6Kind const> flowspecExtCommIp6Kinds() noexcept { return kFlowspecIp6Kinds; }

Ovk::Ptr<ExtComm> ExtComm::createBase(std::uint64_t v) {
   auto const typeSub = static_cast<std::uint16_t>(v >> 48);
   if (typeSub == 0x0002 || typeSub == 0x0102 || typeSub == 0x0202) return Ovk::makePtr<ExtCommRouteTarget>(v);
   return Ovk::makePtr<ExtComm>(v);
}

Ovk::Ptr<ExtComm> ExtComm::create(std::uint64_t v) {
   auto const typeSub = static_cast<std::uint16_t>(v >> 48);
   for (ExtCommKind const& k : kFlowspecKinds) {
      if (k.typeSubtype == typeSub) return k.create(v);
   }
   return createBase(v);
}

Ovk::Ptr<ExtComm> ExtComm::create(std::span<std::uint8_t const, 8> b) {
   std::uint64_t v = 0;
   for (std::uint8_t x : b) v = (v << 8) | x;
   return create(v);
}

std::array<std::uint8_t, 8> ExtComm::bytes() const noexcept {
   std::array<std::uint8_t, 8> b{};
   for (unsigned i = 0; i < 8; ++i) b[i] = static_cast<std::uint8_t>(value_ >> (56 - 8 * i));
   return b;
}

void ExtComm::fields(std::vector<ExtCommField>& out) const {
   out.push_back(num("type", type()));
   out.push_back(num("subtype", subtype()));
}

std::string ExtComm::toStrep() const {
   std::vector<ExtCommField> f;
   fields(f);
   return kindText(kindName(), f);
}

std::uint32_t ExtComm::hash() const {
   std::uint64_t const h = value_ * 0x9e3779b97f4a7c15ull;
   return static_cast<std::uint32_t>(h >> 32);
}

bool ExtComm::compare(Ovk::DedupHandle const* other) const {
   auto const* o = dynamic_cast<ExtComm const*>(other);
   return o && o->value_ == value_;
}

void ExtCommRouteTarget::fields(std::vector<ExtCommField>& out) const {
   switch (type()) {
   case 0x00:
      out.push_back(num("as", (value() >> 32) & 0xffff));
      out.push_back(num("local", value() & 0xffffffffu));
      break;
   case 0x01:
      out.push_back(text("address", ipv4At(value(), 16).str()));
      out.push_back(num("local", value() & 0xffff));
      break;
   default: out.push_back(num("as", (value() >> 16) & 0xffffffffu)); out.push_back(num("local", value() & 0xffff));
   }
}

float FlowspecExtCommTrafficRate::rateBytesPerSec() const noexcept {
   return std::bit_cast<float>(static_cast<std::uint32_t>(value()));
}

void FlowspecExtCommTrafficRate::fields(std::vector<ExtCommField>& out) const {
   out.push_back(num("as", asn()));
   float const r = rateBytesPerSec();
   // NaN and infinities are not JSON numbers: give them as text.
   out.push_back({"rateBytesPerSec", formatRate(r), r == r && r - r == 0.0f});
}

void FlowspecExtCommTrafficAction::fields(std::vector<ExtCommField>& out) const {
   out.push_back(flag("sample", actionFlags() & sampleFlag));
   out.push_back(flag("terminal", actionFlags() & terminalFlag));
}

void FlowspecExtCommTrafficMarking::fields(std::vector<ExtCommField>& out) const {
   out.push_back(num("dscp", dscp() & 0x3f));
}

Ovnet::IpGenAddr FlowspecExtCommRedirectIpv4::address() const noexcept { return ipv4At(value(), 16); }

void FlowspecExtCommRedirectIpv4::fields(std::vector<ExtCommField>& out) const {
   out.push_back(text("address", address().str()));
   out.push_back(flag("copy", copy()));
}

void FlowspecExtCommRedirectNexthop::fields(std::vector<ExtCommField>& out) const {
   out.push_back(flag("copy", copy()));
}

std::uint32_t FlowspecExtCommRedirectVrfRdAs::asn() const noexcept {
   return isAs4() ? static_cast<std::uint32_t>(value() >> 16) : static_cast<std::uint32_t>((value() >> 32) & 0xffff);
}

std::uint32_t FlowspecExtCommRedirectVrfRdAs::localAdmin() const noexcept {
   return isAs4() ? static_cast<std::uint32_t>(value() & 0xffff) : static_cast<std::uint32_t>(value());
}

void FlowspecExtCommRedirectVrfRdAs::fields(std::vector<ExtCommField>& out) const {
   out.push_back(text("routeTarget", std::to_string(asn()) + (isAs4() ? ".4:" : ":") + std::to_string(localAdmin())));
   out.push_back(num("as", asn()));
   out.push_back(num("local", localAdmin()));
   out.push_back(flag("as4", isAs4()));
}

Ovnet::IpGenAddr FlowspecExtCommRedirectVrfRdIpv4::address() const noexcept { return ipv4At(value(), 16); }

void FlowspecExtCommRedirectVrfRdIpv4::fields(std::vector<ExtCommField>& out) const {
   out.push_back(text("routeTarget", address().str() + ":" + std::to_string(localAdmin())));
   out.push_back(text("address", address().str()));
   out.push_back(num("local", localAdmin()));
}

char const* FlowspecExtCommUnsupported::kindName() const noexcept {
   return subtype() == 0x0c ? "traffic-rate-packets" : "flowspec-unsupported";
}

void FlowspecExtCommUnsupported::fields(std::vector<ExtCommField>& out) const {
   if (subtype() == 0x0c) {
      out.push_back(num("as", (value() >> 32) & 0xffff));
      out.push_back({"ratePacketsPerSec", formatRate(std::bit_cast<float>(static_cast<std::uint32_t>(value()))), true});
      return;
   }
   out.push_back(text("value", hex64(value())));
}

ExtCommIp6::ExtCommIp6(std::span<std::uint8_t const, kSize> b) noexcept { std::memcpy(bytes_.data(), b.data(), kSize); }

Ovk::Ptr<ExtCommIp6> ExtCommIp6::create(std::span<std::uint8_t const, kSize> b) {
   auto const typeSub = static_cast<std::uint16_t>((b[0] << 8) | b[1]);
   for (ExtCommIp6Kind const& k : kFlowspecIp6Kinds) {
      if (k.typeSubtype == typeSub) return k.create(b);
   }
   return Ovk::makePtr<ExtCommIp6>(b);
}

Ovnet::IpGenAddr ExtCommIp6::address() const noexcept {
   return Ovnet::IpGenAddr::ipv6(std::span<std::uint8_t const, 16>(bytes_.data() + 2, 16));
}

void ExtCommIp6::fields(std::vector<ExtCommField>& out) const {
   out.push_back(num("type", type()));
   out.push_back(num("subtype", subtype()));
   out.push_back(text("address", address().str()));
   out.push_back(num("local", localAdmin()));
}

std::string ExtCommIp6::toStrep() const {
   std::vector<ExtCommField> f;
   fields(f);
   return kindText(kindName(), f);
}

std::uint32_t ExtCommIp6::hash() const { return Ovk::String::hashBytes(bytes_.data(), kSize); }

bool ExtCommIp6::compare(Ovk::DedupHandle const* other) const {
   auto const* o = dynamic_cast<ExtCommIp6 const*>(other);
   return o && o->bytes_ == bytes_;
}

void FlowspecExtCommRedirectIpv6::fields(std::vector<ExtCommField>& out) const {
   out.push_back(text("address", address().str()));
   out.push_back(flag("copy", copy()));
}

void FlowspecExtCommRedirectVrfIpv6::fields(std::vector<ExtCommField>& out) const {
   out.push_back(text("routeTarget", address().str() + ":" + std::to_string(localAdmin())));
   out.push_back(num("typeCode", (std::uint32_t{type()} << 8) | subtype()));
}

std::ostream& operator<<(std::ostream& os, ExtComm const& c) { return os << c.toStrep(); }
std::ostream& operator<<(std::ostream& os, ExtCommIp6 const& c) { return os << c.toStrep(); }

} // namespace Routing::Bgp
