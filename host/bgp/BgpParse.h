// The UPDATE parser's machinery that address-family rules are written against.
//
// The host's UPDATE parser walks a message and hands each NLRI section of an address family
// to that family's NLRI rule (BgpParseUpdateNlriRuleBase), one NLRI per call, through a
// packet position bounded by the attribute. A rule reads one NLRI, interns its route key in
// the route-key dedup table of the parse context's VRF and family, and returns it; or it
// counts a parse reason on the UPDATE's results and returns nothing. Rules never throw and
// never build NOTIFICATIONs: what a failure means for the UPDATE (treat-as-withdraw, session
// reset) is the parser's decision.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/bgp/AfiSafi.h"
#include "host/bgp/BgpVrfId.h"
#include "host/bgp/GenNexthop.h"
#include "host/bgp/RouteKey.h"
#include "host/fwk/Ptr.h"
#include "host/net/IpGenAddr.h"

namespace Routing::Bgp {

using BytePtrConst = std::uint8_t const*;

// A read cursor over one attribute's bytes. Every read is bounds-checked: it either reads
// all it was asked for and advances, or reads nothing, returns false (or null) and leaves the
// position where it was. Integers are read in network byte order.
//
// A position may declare more bytes than the packet holds (a length field that claims more
// than was received): bytesLeft() then counts the declared bytes, while reads still stop at
// the packet's end. Rules that take their field's length from bytesLeft() thus find a field
// cut short as a failed read, never as a read past the packet.
class BgpParsePktPosition {
 public:
   BgpParsePktPosition(BytePtrConst begin, BytePtrConst end) noexcept : pos_(begin), end_(end) {}
   explicit BgpParsePktPosition(std::span<std::uint8_t const> bytes) noexcept
       : BgpParsePktPosition(bytes.data(), bytes.data() + bytes.size()) {}
   // A position over `declaredLength` bytes of which only those in `packet` were received.
   static BgpParsePktPosition declared(std::span<std::uint8_t const> packet, std::size_t declaredLength) noexcept;

   // Inline: parse rules call these for nearly every byte of an UPDATE.
   bool consumeU8(std::uint8_t* v) noexcept {
      if (pos_ == end_) return false;
      *v = *pos_++;
      return true;
   }
   bool consumeU16ntoh(std::uint16_t* v) noexcept { return consumeBigEndian(v); }
   bool consumeU32ntoh(std::uint32_t* v) noexcept { return consumeBigEndian(v); }
   bool consumeU64ntoh(std::uint64_t* v) noexcept { return consumeBigEndian(v); }
   // The next `n` bytes, consumed; null when fewer are left.
   BytePtrConst consumeData(std::size_t n) noexcept {
      if (n > dataLeft()) return nullptr;
      BytePtrConst const p = pos_;
      pos_ += n;
      return p;
   }
   // The same as a view (`view` may be null: the bytes are skipped); false, and `view`
   // untouched, when fewer are left. Unlike consumeData, reads zero bytes of an empty view.
   bool consumeView(std::size_t n, std::span<std::uint8_t const>* view) noexcept {
      if (n > dataLeft()) return false;
      if (view) *view = {pos_, n};
      pos_ += n;
      return true;
   }
   // A position over the next `n` bytes, which this one skips; false when fewer are left.
   bool consumeSubPosition(std::size_t n, BgpParsePktPosition* sub) noexcept {
      std::span<std::uint8_t const> v;
      if (!consumeView(n, &v)) return false;
      *sub = BgpParsePktPosition(v);
      return true;
   }
   // A 4- or 16-byte address in network order.
   bool consumeIpv4GenAddress(Ovnet::IpGenAddr* addr) noexcept;
   bool consumeIpv6GenAddress(Ovnet::IpGenAddr* addr) noexcept;

   // The next unread byte (the end when none is left).
   BytePtrConst currentPosition() const noexcept { return pos_; }
   BytePtrConst end() const noexcept { return end_; }
   // The bytes declared and not read yet (see above).
   std::size_t bytesLeft() const noexcept { return dataLeft() + undelivered_; }
   // The bytes received and not read yet.
   std::size_t dataLeft() const noexcept { return static_cast<std::size_t>(end_ - pos_); }
   // The received bytes not read yet, as a view.
   std::span<std::uint8_t const> rest() const noexcept { return {pos_, dataLeft()}; }

 private:
   template <class T>
   bool consumeBigEndian(T* v) noexcept {
      BytePtrConst const b = consumeData(sizeof(T));
      if (!b) return false;
      T r = 0;
      for (std::size_t i = 0; i < sizeof(T); ++i) r = static_cast<T>(r << 8 | b[i]);
      *v = r;
      return true;
   }

   BytePtrConst pos_;
   BytePtrConst end_;
   std::size_t undelivered_ = 0; // declared bytes beyond end_
};

// Settings of the UPDATE parser shared by all rules of a session.
struct BgpParseControl {
   // NLRI carry a path identifier (RFC 7911 section 3), as negotiated for the family.
   bool addPathReceive = false;
   friend bool operator==(BgpParseControl const&, BgpParseControl const&) = default;
};

// Why a part of an UPDATE could not be parsed; counted per UPDATE and per session.
enum class BgpParseCountReason : std::uint16_t {
   none = 0,
   // The UPDATE message decoder (RFC 4271 section 6.3, RFC 7606); BgpUpdateDecoder.h says
   // what each one does to the UPDATE.
   updateHeaderShort = 1,       // fewer bytes than the BGP header
   updateMarker = 2,            // the marker is not all ones
   updateLength = 3,            // the length field disagrees with the message
   updateType = 4,              // not an UPDATE
   withdrawnRoutesLength = 5,   // the withdrawn routes run past the message
   pathAttributesLength = 6,    // the path attributes run past the message
   withdrawnRoutesInvalid = 7,  // a withdrawn IPv4 prefix longer than 32 bits or cut short
   nlriInvalid = 8,             // the same in the NLRI field
   attributeHeaderShort = 9,    // bytes left that cannot hold an attribute header
   attributeLengthOverrun = 10, // an attribute runs past the path attributes
   attributeFlags = 11,         // Optional / Transitive bits wrong for a known attribute
   attributeDuplicate = 12,     // an attribute other than MP_(UN)REACH_NLRI a second time
   mpAttributeDuplicate = 13,   // MP_REACH_NLRI or MP_UNREACH_NLRI a second time
   unrecognizedWellKnown = 14,  // an attribute without the Optional bit that is not known
   originLength = 15,
   originValue = 16,
   asPathMalformed = 17,
   nextHopLength = 18,
   medLength = 19,
   localPrefLength = 20,
   localPrefFromExternal = 21, // LOCAL_PREF from an external peer
   atomicAggregateLength = 22,
   aggregatorLength = 23,
   communitiesLength = 24,
   extCommunitiesLength = 25,
   ipv6ExtCommunitiesLength = 26,
   mpReachShort = 27,          // no room for AFI, SAFI, next-hop length and reserved byte
   mpReachNexthopOverrun = 28, // the next hop runs past the attribute (no family rule)
   mpUnreachShort = 29,        // no room for AFI and SAFI
   mpFamilyWithoutRule = 30,   // NLRI of a family nobody parses: skipped
   missingOrigin = 31,
   missingAsPath = 32,
   missingNextHop = 33,
   nlriPathIdShort = 34, // RFC 7911: no room for a path identifier
   // Unicast NLRI (RFC 4271 section 4.3, RFC 4760 section 5).
   unicastPrefixLength = 35,   // a prefix length beyond the address size
   unicastPrefixShort = 36,    // the field ends inside a prefix
   unicastNotNegotiated = 37,  // IPv4 unicast routes of a session that did not negotiate it: skipped
   // Flowspec NLRI (RFC 8955 section 4, RFC 8956 section 3).
   flowspecNlriLenMissing = 215,       // no length field, or no second length byte
   flowspecNlriLenMismatch = 216,      // the length runs past the attribute, or a component past the length
   flowspecComponentTypeMissing = 217, // no type byte where a component should start
   flowspecComponentTypeInvalid = 218, // component type 0
   flowspecComponentTypeOrder = 219,   // a type lower than the one before
   flowspecPrefixMaskMissing = 220,
   flowspecPrefixOffsetMissing = 221,
   flowspecPrefixOffsetAboveMask = 222,
   flowspecPrefixInvalid = 223, // a mask too long for the address, or the pattern cut short
   flowspecOperatorMissing = 224,
   flowspecValueMissing = 225,
   flowspecValueTooLong = 226,   // a value longer than its component type takes
   flowspecIpv6FragmentDf = 227, // RFC 8956 section 3.6: no DF bit in IPv6
   // Flowspec MP_REACH_NLRI next hop.
   flowspecNexthopShort = 228,
};

// The reason's name ("flowspecNlriLenMismatch"), or its number when it has none.
std::string toStrep(BgpParseCountReason reason);
std::ostream& operator<<(std::ostream& os, BgpParseCountReason reason);
// The text of a decoder reason ("ORIGIN length is not 1"); empty for the reasons the
// families' rules count, whose texts are theirs.
char const* bgpUpdateErrorText(BgpParseCountReason reason);

// What parsing one message found wrong: a counter per reason.
class BgpParseHeaderAndMessageBase : public Ovk::PtrInterface {
 public:
   void countReasonIs(BgpParseCountReason reason);
   // Forgets every count, for the next message.
   void clear();
   // How often `reason` was counted.
   std::uint32_t count(BgpParseCountReason reason) const;
   std::uint32_t totalCount() const;
   // The reason counted last; none when nothing was.
   BgpParseCountReason lastReason() const { return lastReason_; }
   // Every reason counted, with its count, in the order first counted.
   std::vector<std::pair<BgpParseCountReason, std::uint32_t>> const& counts() const { return counts_; }

 protected:
   ~BgpParseHeaderAndMessageBase() override = default;

 private:
   std::vector<std::pair<BgpParseCountReason, std::uint32_t>> counts_;
   BgpParseCountReason lastReason_ = BgpParseCountReason::none;
};

// The results of parsing one UPDATE message.
class BgpParseUpdateResults : public BgpParseHeaderAndMessageBase {
 public:
   static Ovk::Ptr<BgpParseUpdateResults> create() { return Ovk::makePtr<BgpParseUpdateResults>(); }
};

// What a family's NLRI rule may report about one NLRI beyond its key. Flowspec has nothing.
class BgpParseNlriAfiSafiResultsBase : public Ovk::PtrInterface {
 protected:
   ~BgpParseNlriAfiSafiResultsBase() override = default;
};

// The outcome of one NLRI: its interned key, or nothing after a counted failure.
struct BgpParseUpdateNlriReturn {
   Ovk::Ptr<RouteKey const> routeKey;
   Ovk::Ptr<BgpParseNlriAfiSafiResultsBase> results;
   // The NLRI is to be taken as withdrawn whatever section it came in (RFC 7606 section 2).
   bool treatAsUnreach = false;
};

// The dedup tables of one VRF and address family.
class DedupTablesVrfAfiSafi : public Ovk::PtrInterface {
 public:
   DedupTablesVrfAfiSafi(AfiSafi afiSafi, Ovk::Ptr<RouteKeyDedupTableBase> routeKeyDedupTable,
                         Ovk::Ptr<GenNexthopDedupTableBase> nexthopDedupTable)
       : afiSafi_(afiSafi), routeKeyDedupTable_(std::move(routeKeyDedupTable)),
         nexthopDedupTable_(std::move(nexthopDedupTable)) {}

   AfiSafi afiSafi() const { return afiSafi_; }
   RouteKeyDedupTableBase const* routeKeyDedupTableRawPtr() const { return routeKeyDedupTable_.ptr(); }
   GenNexthopDedupTableBase const* nexthopDedupTableRawPtr() const { return nexthopDedupTable_.ptr(); }

 protected:
   ~DedupTablesVrfAfiSafi() override = default;

 private:
   AfiSafi afiSafi_;
   Ovk::Ptr<RouteKeyDedupTableBase> routeKeyDedupTable_;
   Ovk::Ptr<GenNexthopDedupTableBase> nexthopDedupTable_;
};

// The hash of a family in the per-VRF registry: the SAFI byte XOR the AFI (AfiSafi shifted
// right by 8).
struct AfiSafiDedupTablesHash {
   std::size_t operator()(AfiSafi a) const noexcept { return (a.value() & 0xffu) ^ (a.value() >> 8); }
};

// The dedup tables of one VRF, per address family.
class DedupTablesVrf : public Ovk::PtrInterface {
 public:
   explicit DedupTablesVrf(BgpVrfIdBase vrfId) : vrfId_(vrfId) {}

   BgpVrfIdBase vrfId() const { return vrfId_; }
   // The family's tables, or null.
   DedupTablesVrfAfiSafi* dedupTablesVrfAfiSafi(AfiSafi afiSafi) const;
   // Registers the family's tables, replacing any registered before.
   void dedupTablesVrfAfiSafiIs(Ovk::Ptr<DedupTablesVrfAfiSafi> const& tables);
   void dedupTablesVrfAfiSafiDel(AfiSafi afiSafi);
   // Moves on every registration and removal: caches of the tables compare it to know they
   // are still good.
   std::uint64_t generation() const { return generation_; }

 protected:
   ~DedupTablesVrf() override = default;

 private:
   BgpVrfIdBase vrfId_;
   std::uint64_t generation_ = 0;
   std::unordered_map<AfiSafi, Ovk::Ptr<DedupTablesVrfAfiSafi>, AfiSafiDedupTablesHash> tables_;
};

// What an UPDATE is parsed in: the receiving VRF's dedup tables, a name for traces, and
// caches that rules fill on first use so that an UPDATE with many NLRI finds its tables once.
class BgpParseContext : public Ovk::PtrInterface {
 public:
   BgpParseContext(Ovk::Ptr<DedupTablesVrf> vrfTables, std::string name)
       : vrfTables_(std::move(vrfTables)), name_(std::move(name)) {}

   DedupTablesVrf* dedupVrfTablesRawPtr() const { return vrfTables_.ptr(); }
   std::string const& name() const { return name_; }

   // The flowspec rules' caches of their family's tables, one per family (a session parses
   // several families through one context); null until a rule of the family fills them, and
   // again once the VRF's registry has changed since (the tables may be gone).
   RouteKeyDedupTableBase const* flowspecRouteKeyDedupTableRawPtr(AfiSafi afiSafi) const {
      CacheEntry const* e = cacheEntry(afiSafi);
      return e ? e->routeKeys : nullptr;
   }
   void flowspecRouteKeyDedupTableRawPtrIs(AfiSafi afiSafi, RouteKeyDedupTableBase const* t) {
      cacheEntryIs(afiSafi).routeKeys = t;
   }
   GenNexthopDedupTableBase const* flowspecNexthopDedupTableRawPtr(AfiSafi afiSafi) const {
      CacheEntry const* e = cacheEntry(afiSafi);
      return e ? e->nexthops : nullptr;
   }
   void flowspecNexthopDedupTableRawPtrIs(AfiSafi afiSafi, GenNexthopDedupTableBase const* t) {
      cacheEntryIs(afiSafi).nexthops = t;
   }

   // True while the UPDATE decoder reads a message: an NLRI rule then returns its key filled
   // but not interned (never deduplicated), and the decoder interns the message's keys all
   // together once it has read them (RouteKeyDedupTableBase::dedupRouteKeys). Other callers
   // of a rule get interned keys.
   bool routeKeyDedupDeferred() const { return routeKeyDedupDeferred_; }
   void routeKeyDedupDeferredIs(bool deferred) { routeKeyDedupDeferred_ = deferred; }

 protected:
   ~BgpParseContext() override = default;

 private:
   struct CacheEntry {
      AfiSafi afiSafi;
      std::uint64_t generation = 0;
      RouteKeyDedupTableBase const* routeKeys = nullptr;
      GenNexthopDedupTableBase const* nexthops = nullptr;
   };
   // The family's entry while the registry has not changed since it was filled; else null.
   CacheEntry const* cacheEntry(AfiSafi afiSafi) const {
      if (!vrfTables_) return nullptr;
      for (CacheEntry const& e : cache_) {
         if (e.afiSafi == afiSafi) return e.generation == vrfTables_->generation() ? &e : nullptr;
      }
      return nullptr;
   }
   CacheEntry& cacheEntryIs(AfiSafi afiSafi);

   Ovk::Ptr<DedupTablesVrf> vrfTables_;
   std::string name_;
   std::vector<CacheEntry> cache_;
   bool routeKeyDedupDeferred_ = false;
};

// "<name> vrf=<id>".
std::ostream& operator<<(std::ostream& os, BgpParseContext const& context);

// A family's NLRI rule: reads one NLRI from `position`, which ends where the attribute's NLRI
// field ends. `reachable` says whether the NLRI came in MP_REACH_NLRI (true) or
// MP_UNREACH_NLRI.
class BgpParseUpdateNlriRuleBase : public Ovk::PtrInterface {
 public:
   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;

   virtual BgpParseUpdateNlriReturn inhale(Ovk::Ptr<BgpParseContext> const& parseContext,
                                           BgpParsePktPosition* const& position, bool reachable,
                                           Ovk::Ptr<BgpParseUpdateResults> const& results) const = 0;
   // Checks a family adds to decide that its NLRI are to be treated as withdrawn; none by
   // default.
   virtual void additionalTreatAsUnreachChecks(Ovk::Ptr<BgpParseUpdateResults> const& results, bool reachable) const;
   // Where the NLRI at `position` ends (its size in bytes, from `position` on), read from its
   // own framing, for a family whose NLRI carry their length: the decoder then finds the next
   // NLRI after one this rule refused. Nothing when the NLRI's framing itself is broken, and
   // by default (the rest of the attribute cannot be framed).
   virtual std::optional<std::size_t> nlriExtent(BgpParsePktPosition const& position) const;

 protected:
   ~BgpParseUpdateNlriRuleBase() override = default;
};

} // namespace Routing::Bgp
