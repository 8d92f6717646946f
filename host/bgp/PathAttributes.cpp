#include "host/bgp/PathAttributes.h"

#include <cstring>
#include <ostream>

#include "host/bgp/BgpUpdateDecoder.h"
#include "host/bgp/ExtCommParse.h"

namespace Routing::Bgp {

namespace {

constexpr std::uint8_t kAsSet = 1, kAsSequence = 2;

// The AS_PATH as 4-octet segments, with its length for the decision process and its first
// AS. The value was checked by the decoder to frame with `fourOctet` numbers.
void readAsPath(std::span<std::uint8_t const> value, bool fourOctet, PathAttributesContents& out) {
   std::vector<std::uint8_t> wide;
   wide.reserve(fourOctet ? value.size() : value.size() * 2);
   BgpParsePktPosition pos(value);
   std::uint8_t type = 0;
   std::uint8_t count = 0;
   bool first = true;
   while (pos.consumeU8(&type) && pos.consumeU8(&count)) {
      wide.push_back(type);
      wide.push_back(count);
      for (std::uint8_t i = 0; i < count; ++i) {
         std::uint32_t as = 0;
         if (fourOctet) {
            if (!pos.consumeU32ntoh(&as)) return;
         } else {
            std::uint16_t as2 = 0;
            if (!pos.consumeU16ntoh(&as2)) return;
            as = as2;
         }
         for (int shift = 24; shift >= 0; shift -= 8) wide.push_back(static_cast<std::uint8_t>(as >> shift));
         if (first && type == kAsSequence && i == 0) out.neighborAs = as;
      }
      first = false;
      if (type == kAsSequence) out.asPathLength += count;
      if (type == kAsSet) out.asPathLength += 1;
   }
   out.asPath = Ovk::String(wide.data(), wide.size());
}

// FNV-1a over the bytes of plain values.
struct Hasher {
   std::uint32_t h = 2166136261u;
   void bytes(void const* p, std::size_t n) {
      auto const* b = static_cast<std::uint8_t const*>(p);
      for (std::size_t i = 0; i < n; ++i) {
         h ^= b[i];
         h *= 16777619u;
      }
   }
   template <class T>
   void value(T const& v) {
      bytes(&v, sizeof v);
   }
};

} // namespace

char const* toStrep(BgpOrigin origin) {
   switch (origin) {
   case BgpOrigin::igp: return "igp";
   case BgpOrigin::egp: return "egp";
   case BgpOrigin::incomplete: return "incomplete";
   }
   return "?";
}

std::string PathAttributesContents::asPathText() const { return Routing::Bgp::asPathText(asPath.span(), true); }

std::vector<std::string> PathAttributesContents::communityTexts() const {
   std::vector<std::string> out;
   out.reserve(communities.size());
   for (std::uint32_t c : communities) out.push_back(std::to_string(c >> 16) + ":" + std::to_string(c & 0xffff));
   return out;
}

bool operator==(PathAttributesContents const& a, PathAttributesContents const& b) {
   return a.origin == b.origin && a.asPath == b.asPath && a.med == b.med && a.localPref == b.localPref &&
          a.atomicAggregate == b.atomicAggregate && a.communities == b.communities && a.extCommList == b.extCommList &&
          a.extCommIp6List == b.extCommIp6List && a.nexthop == b.nexthop;
}

std::uint32_t RtAttr::hash() const {
   Hasher h;
   h.value(contents_.origin);
   h.value(contents_.asPath.hash());
   h.value(contents_.med.value_or(0));
   h.value(contents_.med.has_value());
   h.value(contents_.localPref.value_or(0));
   h.value(contents_.localPref.has_value());
   h.value(contents_.atomicAggregate);
   for (std::uint32_t c : contents_.communities) h.value(c);
   for (auto const& c : contents_.extCommList.items()) h.value(c->value());
   for (auto const& c : contents_.extCommIp6List.items()) h.value(c->hash());
   h.value(contents_.nexthop.ptr());
   return h.h;
}

bool RtAttr::compare(Ovk::DedupHandle const* other) const {
   auto const* o = dynamic_cast<RtAttr const*>(other);
   return o && o->contents_ == contents_;
}

Ovk::Ptr<RtAttr const> RtAttrDedupTable::rtAttrIs(PathAttributesContents contents) const {
   Ovk::Ptr<RtAttr> attr = Ovk::makePtr<RtAttr>(std::move(contents));
   return Ovk::ptrCastChecked<RtAttr const>(lookupOrInsert(attr));
}

CoreDedupTables::CoreDedupTables()
    : extComms_(Ovk::SimpleDedupHashTable::create()), extCommsIp6_(Ovk::SimpleDedupHashTable::create()) {}

Ovk::Ptr<ExtComm const> CoreDedupTables::extCommIs(Ovk::Ptr<ExtComm> const& c) const {
   return Ovk::ptrCastChecked<ExtComm const>(extComms_->lookupOrInsert(c));
}

Ovk::Ptr<ExtCommIp6 const> CoreDedupTables::extCommIp6Is(Ovk::Ptr<ExtCommIp6> const& c) const {
   return Ovk::ptrCastChecked<ExtCommIp6 const>(extCommsIp6_->lookupOrInsert(c));
}

ExtCommList extCommListOf(std::span<std::uint8_t const> value, ExtCommParseRuleCollections const* rules,
                          CoreDedupTables const* tables) {
   ExtCommList out;
   BgpParsePktPosition pos(value);
   std::uint64_t v = 0;
   while (pos.consumeU64ntoh(&v)) {
      Ovk::Ptr<ExtComm> c = rules ? rules->create(v) : ExtComm::create(v);
      out.push(tables ? tables->extCommIs(c) : Ovk::Ptr<ExtComm const>(c));
   }
   return out;
}

ExtCommIp6List extCommIp6ListOf(std::span<std::uint8_t const> value, ExtCommParseRuleCollections const* rules,
                                CoreDedupTables const* tables) {
   ExtCommIp6List out;
   BgpParsePktPosition pos(value);
   std::span<std::uint8_t const> b;
   while (pos.consumeView(ExtCommIp6::kSize, &b)) {
      auto const bytes = b.first<ExtCommIp6::kSize>();
      Ovk::Ptr<ExtCommIp6> c = rules ? rules->create(bytes) : ExtCommIp6::create(bytes);
      out.push(tables ? tables->extCommIp6Is(c) : Ovk::Ptr<ExtCommIp6 const>(c));
   }
   return out;
}

// What the previous UPDATE's attributes were, as bytes.
struct PathAttributesBuilder::Fingerprint {
   std::optional<std::uint8_t> origin;
   std::vector<std::uint8_t> asPath;
   bool asPathPresent = false;
   bool asPathFourOctet = true;
   std::optional<std::uint32_t> med;
   std::optional<std::uint32_t> localPref;
   bool atomicAggregate = false;
   std::vector<std::uint8_t> communities;
   std::vector<std::uint8_t> extCommunities;
   std::vector<std::uint8_t> ipv6ExtCommunities;
   GenNexthop const* nexthop = nullptr;

   static bool same(std::vector<std::uint8_t> const& kept, BgpAttributeView const& v) {
      return kept.size() == v.value.size() &&
             (kept.empty() || std::memcmp(kept.data(), v.value.data(), kept.size()) == 0);
   }
   bool matches(BgpParseUpdateAttributesScratchpad const& a) const {
      return origin == a.origin && asPathPresent == a.asPath.present && asPathFourOctet == a.asPathFourOctet &&
             same(asPath, a.asPath) && med == a.med && localPref == a.localPref &&
             atomicAggregate == a.atomicAggregate && same(communities, a.communities) &&
             same(extCommunities, a.extCommunities) && same(ipv6ExtCommunities, a.ipv6ExtCommunities) &&
             nexthop == a.nexthop().ptr();
   }
   void take(BgpParseUpdateAttributesScratchpad const& a) {
      auto copy = [](std::vector<std::uint8_t>& to, BgpAttributeView const& v) {
         to.assign(v.value.begin(), v.value.end());
      };
      origin = a.origin;
      asPathPresent = a.asPath.present;
      asPathFourOctet = a.asPathFourOctet;
      copy(asPath, a.asPath);
      med = a.med;
      localPref = a.localPref;
      atomicAggregate = a.atomicAggregate;
      copy(communities, a.communities);
      copy(extCommunities, a.extCommunities);
      copy(ipv6ExtCommunities, a.ipv6ExtCommunities);
      nexthop = a.nexthop().ptr();
   }
};

PathAttributesBuilder::PathAttributesBuilder(Ovk::Ptr<RtAttrDedupTable const> table,
                                             Ovk::Ptr<CoreDedupTables const> core,
                                             Ovk::Ptr<ExtCommParseRuleCollections const> extCommRules)
    : table_(std::move(table)), core_(std::move(core)), extCommRules_(std::move(extCommRules)) {}

PathAttributesBuilder::~PathAttributesBuilder() = default;

Ovk::Ptr<RtAttr const> PathAttributesBuilder::rtAttrOf(BgpParseUpdateAttributesScratchpad const& a) {
   if (last_ && lastAttr_ && last_->matches(a)) {
      ++reused_;
      return lastAttr_;
   }
   PathAttributesContents c;
   if (a.origin) c.origin = static_cast<BgpOrigin>(*a.origin);
   if (a.asPath.present) readAsPath(a.asPath.value, a.asPathFourOctet, c);
   c.med = a.med;
   c.localPref = a.localPref;
   c.atomicAggregate = a.atomicAggregate;
   BgpParsePktPosition communities(a.communities.value);
   std::uint32_t community = 0;
   while (communities.consumeU32ntoh(&community)) c.communities.push_back(community);
   c.extCommList = extCommListOf(a.extCommunities.value, extCommRules_.ptr(), core_.ptr());
   c.extCommIp6List = extCommIp6ListOf(a.ipv6ExtCommunities.value, extCommRules_.ptr(), core_.ptr());
   c.nexthop = a.nexthop();
   lastAttr_ = table_->rtAttrIs(std::move(c));
   if (!last_) last_ = std::make_unique<Fingerprint>();
   last_->take(a);
   ++built_;
   return lastAttr_;
}

Ovk::Ptr<RtAttr const> PathAttributesBuilder::localRtAttrOf(std::span<std::uint64_t const> extComms,
                                                            std::span<std::array<std::uint8_t, 20> const> ip6ExtComms,
                                                            Ovk::Ptr<GenNexthop const> nexthop) const {
   PathAttributesContents c;
   c.origin = BgpOrigin::igp;
   // The communities go the way an UPDATE's do: as their bytes, through the parse rules.
   std::vector<std::uint8_t> bytes;
   for (std::uint64_t const v : extComms) {
      for (int shift = 56; shift >= 0; shift -= 8) bytes.push_back(static_cast<std::uint8_t>(v >> shift));
   }
   c.extCommList = extCommListOf(bytes, extCommRules_.ptr(), core_.ptr());
   bytes.clear();
   for (auto const& v : ip6ExtComms) bytes.insert(bytes.end(), v.begin(), v.end());
   c.extCommIp6List = extCommIp6ListOf(bytes, extCommRules_.ptr(), core_.ptr());
   c.nexthop = std::move(nexthop);
   return table_->rtAttrIs(std::move(c));
}

} // namespace Routing::Bgp
