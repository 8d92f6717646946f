#include "host/bgp/UpdateWriter.h"

#include <algorithm>
#include <vector>

#include "host/bgp/Rib.h"
#include "host/fwk/Assert.h"

namespace Routing::Bgp {

namespace {

// AS_PATH segment types (RFC 4271 section 4.3, RFC 5065 section 3); AS_SET (1) needs no special case.
constexpr std::uint8_t kAsSequence = 2, kConfedSequence = 3, kConfedSet = 4;
constexpr std::uint8_t kWellKnown = BgpAttrFlag::transitive;
constexpr std::uint8_t kOptionalTransitive = BgpAttrFlag::optional | BgpAttrFlag::transitive;
constexpr std::uint8_t kOptional = BgpAttrFlag::optional;
// Where the fixed fields of an UPDATE stand.
constexpr std::size_t kLengthAt = 16;
constexpr std::size_t kAttributesLengthAt = 21;
constexpr std::size_t kAttributesAt = 23;

// One attribute header, with a two-byte length when the value needs one.
void startAttribute(Serialize& out, std::uint8_t flags, std::uint8_t type, std::size_t length) {
   bool const extended = length > 255;
   out.addU8(extended ? flags | BgpAttrFlag::extendedLength : flags);
   out.addU8(type);
   if (extended) {
      out.addU16(static_cast<std::uint16_t>(length));
   } else {
      out.addU8(static_cast<std::uint8_t>(length));
   }
}

std::uint32_t readU32(std::uint8_t const* p) {
   return static_cast<std::uint32_t>(p[0]) << 24 | static_cast<std::uint32_t>(p[1]) << 16 |
          static_cast<std::uint32_t>(p[2]) << 8 | p[3];
}

// Walks the 4-octet segments of a stored AS_PATH: f(type, count, numbers).
template <class F>
void forEachSegment(Ovk::String const& path, F&& f) {
   std::span<std::uint8_t const> const b = path.span();
   std::size_t at = 0;
   while (at + 2 <= b.size()) {
      std::uint8_t const type = b[at];
      std::uint8_t const count = b[at + 1];
      at += 2;
      if (at + std::size_t{count} * 4 > b.size()) return; // stored paths always frame
      f(type, count, b.data() + at);
      at += std::size_t{count} * 4;
   }
}

bool needsAs4Path(Ovk::String const& path) {
   bool wide = false;
   forEachSegment(path, [&](std::uint8_t, std::uint8_t count, std::uint8_t const* as) {
      for (std::uint8_t i = 0; i < count; ++i) wide = wide || readU32(as + 4 * i) > 0xffff;
   });
   return wide;
}

// AS_PATH with 2- or 4-octet numbers; a 2-octet one has AS_TRANS for every number above
// 65535 (RFC 6793 section 4.2.2).
void encodeAsPath(Serialize& out, Ovk::String const& path, bool fourOctet) {
   std::size_t size = 0;
   forEachSegment(path, [&](std::uint8_t, std::uint8_t count, std::uint8_t const*) {
      size += 2 + std::size_t{count} * (fourOctet ? 4 : 2);
   });
   startAttribute(out, kWellKnown, BgpAttrType::asPath, size);
   forEachSegment(path, [&](std::uint8_t type, std::uint8_t count, std::uint8_t const* as) {
      out.addU8(type);
      out.addU8(count);
      for (std::uint8_t i = 0; i < count; ++i) {
         std::uint32_t const n = readU32(as + 4 * i);
         if (fourOctet) {
            out.addU32(n);
         } else {
            out.addU16(n > 0xffff ? kAsTrans : static_cast<std::uint16_t>(n));
         }
      }
   });
}

// AS4_PATH: the path with 4-octet numbers, without confederation segments (RFC 6793
// section 4.2.2).
void encodeAs4Path(Serialize& out, Ovk::String const& path) {
   std::size_t size = 0;
   forEachSegment(path, [&](std::uint8_t type, std::uint8_t count, std::uint8_t const*) {
      if (type != kConfedSequence && type != kConfedSet) size += 2 + std::size_t{count} * 4;
   });
   startAttribute(out, kOptionalTransitive, BgpAttrType::as4Path, size);
   forEachSegment(path, [&](std::uint8_t type, std::uint8_t count, std::uint8_t const* as) {
      if (type == kConfedSequence || type == kConfedSet) return;
      out.addU8(type);
      out.addU8(count);
      out.addData(as, std::size_t{count} * 4);
   });
}

// The next-hop field: the address when it is one of the family's; else none.
void addNexthop(Serialize& out, AfiSafi family, GenNexthop const* nexthop) {
   Ovnet::IpGenAddr const addr = nexthop ? nexthop->addrOrNone() : Ovnet::IpGenAddr();
   bool const fits = family.afi() == Afi::afiIpv4 ? addr.isIpv4() : addr.isIpv6();
   if (!fits) {
      out.addU8(0);
      return;
   }
   out.addU8(static_cast<std::uint8_t>(addr.size()));
   out.addIpGenAddr(addr);
}

} // namespace

PathAttributesContents exportAttributes(PathAttributesContents const& rib, BgpPeer const& to, bool local,
                                        Ovk::Ptr<GenNexthop const> nexthop) {
   PathAttributesContents out = rib;
   out.nexthop = std::move(nexthop);
   if (to.internal()) {
      out.localPref = rib.localPref.value_or(kDefaultLocalPref);
      return out;
   }
   out.localPref.reset();
   if (!local) out.med.reset();
   // RFC 4271 section 5.1.2: our AS leads the path, in the first AS_SEQUENCE when there is
   // room in it, else in a segment of its own.
   std::span<std::uint8_t const> const old = rib.asPath.span();
   std::vector<std::uint8_t> path;
   path.reserve(old.size() + 6);
   std::size_t rest = 0;
   if (old.size() >= 2 && old[0] == kAsSequence && old[1] < 255) {
      path.push_back(kAsSequence);
      path.push_back(static_cast<std::uint8_t>(old[1] + 1));
      rest = 2;
   } else {
      path.push_back(kAsSequence);
      path.push_back(1);
   }
   for (int shift = 24; shift >= 0; shift -= 8) path.push_back(static_cast<std::uint8_t>(to.localAs >> shift));
   path.insert(path.end(), old.begin() + static_cast<std::ptrdiff_t>(rest), old.end());
   out.asPath = Ovk::String(path.data(), path.size());
   out.asPathLength = rib.asPathLength + 1;
   out.neighborAs = to.localAs;
   return out;
}

void encodePathAttributes(Serialize& out, PathAttributesContents const& a, UpdateSession session,
                          std::uint8_t firstType, std::uint8_t lastType) {
   auto const in = [&](std::uint8_t type) { return type >= firstType && type <= lastType; };
   if (in(BgpAttrType::origin)) {
      startAttribute(out, kWellKnown, BgpAttrType::origin, 1);
      out.addU8(static_cast<std::uint8_t>(a.origin));
   }
   if (in(BgpAttrType::asPath)) encodeAsPath(out, a.asPath, session.fourOctetAs);
   if (in(BgpAttrType::med) && a.med) {
      startAttribute(out, kOptional, BgpAttrType::med, 4);
      out.addU32(*a.med);
   }
   if (in(BgpAttrType::localPref) && session.internal) {
      startAttribute(out, kWellKnown, BgpAttrType::localPref, 4);
      out.addU32(a.localPref.value_or(kDefaultLocalPref));
   }
   if (in(BgpAttrType::atomicAggregate) && a.atomicAggregate) {
      startAttribute(out, kWellKnown, BgpAttrType::atomicAggregate, 0);
   }
   if (in(BgpAttrType::communities) && !a.communities.empty()) {
      startAttribute(out, kOptionalTransitive, BgpAttrType::communities, a.communities.size() * 4);
      for (std::uint32_t const c : a.communities) out.addU32(c);
   }
   if (in(BgpAttrType::extCommunities) && a.extCommList.size() != 0) {
      startAttribute(out, kOptionalTransitive, BgpAttrType::extCommunities, a.extCommList.size() * 8);
      for (auto const& c : a.extCommList.items()) {
         auto const b = c->bytes();
         out.addData(b.data(), b.size());
      }
   }
   if (in(BgpAttrType::as4Path) && !session.fourOctetAs && needsAs4Path(a.asPath)) encodeAs4Path(out, a.asPath);
   if (in(BgpAttrType::ipv6ExtCommunities) && a.extCommIp6List.size() != 0) {
      startAttribute(out, kOptionalTransitive, BgpAttrType::ipv6ExtCommunities,
                     a.extCommIp6List.size() * ExtCommIp6::kSize);
      for (auto const& c : a.extCommIp6List.items()) out.addData(c->bytes());
   }
}

std::size_t maxNlriBytes(AfiSafi family, PathAttributesContents const& attrs, UpdateSession session) {
   UpdateWriter w(family, session, [](std::span<std::uint8_t const>) {});
   w.startAdvertise(attrs);
   return w.maxNlri();
}

std::size_t maxNlriBytesToAnyPeer(AfiSafi family, PathAttributesContents const& rib, std::uint32_t localAs) {
   std::size_t room = kMaxWithdrawnNlriBytes;
   // The longest next hop any session gets: hook 1 gives an address of the family or nothing.
   Ovk::Ptr<GenNexthop const> const nexthop =
       IpPlugin::IpGenNexthop::create(*Ovnet::IpGenAddr::parse(family.afi() == Afi::afiIpv6 ? "::1" : "127.0.0.1"));
   for (bool const internal : {false, true}) {
      BgpPeer const to{Ovnet::IpGenAddr(), internal ? localAs : localAs ^ 1u, localAs, 0, BgpVrfIdBase{}};
      PathAttributesContents const out = exportAttributes(rib, to, true, nexthop);
      for (bool const fourOctet : {false, true}) {
         room = std::min(room, maxNlriBytes(family, out, UpdateSession{fourOctet, internal}));
      }
   }
   return room;
}

// ---- UpdateWriter ----

UpdateWriter::UpdateWriter(AfiSafi family, UpdateSession session, Emit emit)
    : family_(family), session_(session), emit_(std::move(emit)) {
   OVK_ASSERT(emit_);
   startWithdraw();
}

std::size_t UpdateWriter::maxNlri() const {
   std::size_t const fixed = prefix_.size() + suffix_.size();
   return fixed >= kMaxMessageSize ? 0 : kMaxMessageSize - fixed;
}

void UpdateWriter::startAdvertise(PathAttributesContents const& attrs) {
   flush();
   prefix_.clear();
   suffix_.clear();
   startMessage(prefix_, MessageType::update);
   prefix_.addU16(0); // no IPv4 withdrawn routes
   prefix_.addU16(0); // the attributes' length, filled in per message
   encodePathAttributes(prefix_, attrs, session_, 0, BgpAttrType::mpReachNlri - 1);
   // MP_REACH_NLRI, always with a two-byte length: its NLRI decide how long it is.
   prefix_.addU8(kOptional | BgpAttrFlag::extendedLength);
   prefix_.addU8(BgpAttrType::mpReachNlri);
   mpLengthAt_ = prefix_.size();
   prefix_.addU16(0);
   prefix_.addU16(afiNumber(family_));
   prefix_.addU8(family_.safi());
   addNexthop(prefix_, family_, attrs.nexthop.ptr());
   prefix_.addU8(0); // reserved
   encodePathAttributes(suffix_, attrs, session_, BgpAttrType::mpUnreachNlri + 1, 255);
}

void UpdateWriter::startWithdraw() {
   flush();
   prefix_.clear();
   suffix_.clear();
   startMessage(prefix_, MessageType::update);
   prefix_.addU16(0);
   prefix_.addU16(0);
   prefix_.addU8(kOptional | BgpAttrFlag::extendedLength);
   prefix_.addU8(BgpAttrType::mpUnreachNlri);
   mpLengthAt_ = prefix_.size();
   prefix_.addU16(0);
   prefix_.addU16(afiNumber(family_));
   prefix_.addU8(family_.safi());
}

bool UpdateWriter::add(std::span<std::uint8_t const> nlri) {
   std::size_t const room = maxNlri();
   if (nlri.empty() || nlri.size() > room) return false;
   if (nlriBytes_.size() + nlri.size() > room) flush();
   nlriBytes_.addData(nlri);
   ++nlriCount_;
   return true;
}

void UpdateWriter::flush() {
   if (nlriCount_ == 0) return;
   message_.clear();
   message_.addData(prefix_.bytes());
   message_.addData(nlriBytes_.bytes());
   std::size_t const mpEnd = message_.size();
   message_.addData(suffix_.bytes());
   std::size_t const size = message_.size();
   OVK_ASSERT(size <= kMaxMessageSize);
   message_.patchU16(kLengthAt, static_cast<std::uint16_t>(size));
   message_.patchU16(kAttributesLengthAt, static_cast<std::uint16_t>(size - kAttributesAt));
   message_.patchU16(mpLengthAt_, static_cast<std::uint16_t>(mpEnd - mpLengthAt_ - 2));
   ++messages_;
   nlri_ += nlriCount_;
   bytes_ += size;
   nlriBytes_.clear();
   nlriCount_ = 0;
   emit_(message_.bytes());
}

} // namespace Routing::Bgp
