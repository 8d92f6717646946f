// Path attributes that outlive the UPDATE they came in.
//
// The UPDATE decoder leaves views into the message in its scratchpad; an accepted UPDATE's
// attributes become one interned RtAttr (a dedup handle holding PathAttributesContents), so
// that every path of the UPDATE, and of every later UPDATE with the same attributes, shares
// one object. PathAttributesBuilder makes them, and remembers the last UPDATE's attribute
// bytes so that a peer sending a table with one attribute set (the usual case) builds the
// object once.
//
// Extended communities are interned too (in the CoreDedupTables' community tables), each of
// the kind its type and subtype name (host/bgp/ExtComm.h, through the extended-community
// parse rules the plugins registered: ExtCommParse.h).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/bgp/BgpParseRules.h"
#include "host/bgp/ExtComm.h"
#include "host/bgp/GenNexthop.h"
#include "host/fwk/Dedup.h"
#include "host/fwk/Ptr.h"
#include "host/fwk/String.h"

namespace Routing::Bgp {

class ExtCommParseRuleCollections;

// ORIGIN values (RFC 4271 section 5.1.1).
enum class BgpOrigin : std::uint8_t { igp = 0, egp = 1, incomplete = 2 };
char const* toStrep(BgpOrigin origin);

// The attributes of a path, as the decision process, the export and the show tables read
// them.
struct PathAttributesContents {
   BgpOrigin origin = BgpOrigin::incomplete;
   // AS_PATH segments (type, count, 4-octet numbers), whatever width the peer sent.
   Ovk::String asPath;
   // RFC 4271 section 9.1.2.2 a: each AS of an AS_SEQUENCE counts 1, an AS_SET counts 1 in
   // all, confederation segments count nothing (RFC 5065 section 5.3).
   std::uint32_t asPathLength = 0;
   // The first AS of the path: the neighbouring AS the MED is compared within; 0 for none.
   std::uint32_t neighborAs = 0;
   std::optional<std::uint32_t> med;
   std::optional<std::uint32_t> localPref;
   bool atomicAggregate = false;
   std::vector<std::uint32_t> communities;
   ExtCommList extCommList;
   ExtCommIp6List extCommIp6List;
   Ovk::Ptr<GenNexthop const> nexthop;

   // AS_PATH as text: "65001 65002 {65003,65004}".
   std::string asPathText() const;
   // "65000:100" per community.
   std::vector<std::string> communityTexts() const;
   friend bool operator==(PathAttributesContents const& a, PathAttributesContents const& b);
};

// An interned set of path attributes; immutable once interned.
class RtAttr : public Ovk::DedupHandle {
 public:
   explicit RtAttr(PathAttributesContents contents) : contents_(std::move(contents)) {}
   PathAttributesContents const& contents() const noexcept { return contents_; }

   std::uint32_t hash() const override;
   bool compare(Ovk::DedupHandle const* other) const override;

 protected:
   ~RtAttr() override = default;

 private:
   PathAttributesContents contents_;
};

// The table RtAttrs are interned in.
class RtAttrDedupTable : public Ovk::DedupHashTable {
 public:
   static Ovk::Ptr<RtAttrDedupTable> create() { return Ovk::makePtr<RtAttrDedupTable>(); }
   // The table's RtAttr equal to `contents`, entered if new.
   Ovk::Ptr<RtAttr const> rtAttrIs(PathAttributesContents contents) const;
};

// The tables communities are interned in, shared by the whole agent: route targets are found
// by identity in them (redirect to VRF).
class CoreDedupTables : public Ovk::PtrInterface {
 public:
   static Ovk::Ptr<CoreDedupTables> create() { return Ovk::makePtr<CoreDedupTables>(); }
   CoreDedupTables();

   Ovk::SimpleDedupHashTable const* extCommDedupTable() const { return extComms_.ptr(); }
   Ovk::SimpleDedupHashTable const* extCommIp6DedupTable() const { return extCommsIp6_.ptr(); }
   // The table's community equal to `c` (never deduplicated), entered if new.
   Ovk::Ptr<ExtComm const> extCommIs(Ovk::Ptr<ExtComm> const& c) const;
   Ovk::Ptr<ExtCommIp6 const> extCommIp6Is(Ovk::Ptr<ExtCommIp6> const& c) const;

 private:
   Ovk::Ptr<Ovk::SimpleDedupHashTable> extComms_;
   Ovk::Ptr<Ovk::SimpleDedupHashTable> extCommsIp6_;
};

// The communities of EXTENDED_COMMUNITIES and IPv6 address specific extended communities
// values, in order, each of its kind (through `rules`; every kind known to the host when
// null) and interned in `tables` when given.
ExtCommList extCommListOf(std::span<std::uint8_t const> value, ExtCommParseRuleCollections const* rules,
                          CoreDedupTables const* tables);
ExtCommIp6List extCommIp6ListOf(std::span<std::uint8_t const> value, ExtCommParseRuleCollections const* rules,
                                CoreDedupTables const* tables);

// Builds the RtAttr of accepted UPDATEs of one session.
class PathAttributesBuilder {
 public:
   PathAttributesBuilder(Ovk::Ptr<RtAttrDedupTable const> table, Ovk::Ptr<CoreDedupTables const> core,
                         Ovk::Ptr<ExtCommParseRuleCollections const> extCommRules);
   ~PathAttributesBuilder();
   PathAttributesBuilder(PathAttributesBuilder const&) = delete;
   PathAttributesBuilder& operator=(PathAttributesBuilder const&) = delete;

   // The interned attributes of what the decoder read into `scratchpad`. When the attribute
   // bytes and the next hop are those of the previous call, the previous object is
   // returned without looking at them further.
   Ovk::Ptr<RtAttr const> rtAttrOf(BgpParseUpdateAttributesScratchpad const& scratchpad);
   // The interned attributes of a path the agent originates itself: ORIGIN IGP, an empty
   // AS_PATH, the extended communities `extComms` (8-byte values) and `ip6ExtComms` (20-byte
   // values), each of the kind it would be read as from an UPDATE, and `nexthop`.
   Ovk::Ptr<RtAttr const> localRtAttrOf(std::span<std::uint64_t const> extComms,
                                        std::span<std::array<std::uint8_t, 20> const> ip6ExtComms,
                                        Ovk::Ptr<GenNexthop const> nexthop) const;

   // Calls that built a new set, and calls answered by the previous one.
   std::uint64_t built() const { return built_; }
   std::uint64_t reused() const { return reused_; }

 private:
   struct Fingerprint;
   Ovk::Ptr<RtAttrDedupTable const> table_;
   Ovk::Ptr<CoreDedupTables const> core_;
   Ovk::Ptr<ExtCommParseRuleCollections const> extCommRules_;
   std::unique_ptr<Fingerprint> last_;
   Ovk::Ptr<RtAttr const> lastAttr_;
   std::uint64_t built_ = 0;
   std::uint64_t reused_ = 0;
};

} // namespace Routing::Bgp
