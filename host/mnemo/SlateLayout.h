// The layout of a Slate rule-set segment: one POSIX shared-memory object that one writer
// process changes while any number of reader processes read it.
//
//   header      256 bytes (Header below)
//   slots       capacity x 8 bytes: one 64-bit slot word per rule
//   index 0     indexBuckets x 8 bytes: hash index from key to slot
//   index 1     the same again; the writer rebuilds into the buffer not in use, then flips
//   heap        blocks holding the rule records; grows as rules are stored
//
// Every offset is from the start of the segment. All integers are in host byte order: the
// segment is read on the machine that wrote it.
//
// Slot word: bits 32-63 a version bumped on every store to the slot, bits 0-31 the offset of
// the rule's block in 8-byte units, 0 when the slot is empty. A rule is never changed in
// place: the writer fills a free block, then publishes it with one release store of the slot
// word, then frees the old block. A reader loads the slot word (acquire), copies the block,
// and loads the slot word again after an acquire fence; an unchanged word proves the copy
// whole. A writer that dies therefore never leaves a half-written rule behind, and nothing a
// reader waits on can stay held.
//
// Index bucket: bits 32-63 the key's hash (FlowspecSlateKey::hash), bits 0-31 the slot number
// plus one; 0 is an empty bucket, bucketTombstone a deleted one. Linear probing. Readers check
// the key in the record they reach and, before trusting a miss, that indexEpoch did not move.
//
// Block: word 0 the block's size in bytes (one of blockClassBytes), word 1 blockMagic, then
// the record: recordHeaderWords - 2 words of rule fields (the Word enum) and the key words.
// The heap is a sequence of blocks from heapOffset to heapOffset + heapUsed, so a writer that
// attaches again can walk it and find which blocks are free.
//
// Header.generation is odd while a change is under way and even between changes; a reader
// that reads the same even generation before and after copying every slot holds a snapshot
// of one moment. A writer that died leaves it odd; readers then check writerPid.
//
// Header.flags (format version 2): flagRebuilding is set by a writer that restarted and is
// building the table again from its sources; the rules in the table then may be fewer than
// those in force (the writer emptied it and fills it again), and a reader that applies the
// table elsewhere keeps what it applied before, taking only rules added or changed, until
// the flag clears; then it applies the difference. The flag changes within a change
// (odd generation), so a pass at one even generation sees one value of it. Version 1
// segments have no such flag: they are always converged.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Mnemo::SlateLayout {

inline constexpr std::uint64_t segmentMagic = 0x3145544c534b564fULL; // "OVKSLTE1" read backwards
inline constexpr std::uint32_t formatVersion = 2;
// The oldest version readers and writers still take (same layout, no rebuilding flag); a
// writer that attaches to one marks it version 2.
inline constexpr std::uint32_t oldestFormatVersion = 1;
inline constexpr std::uint32_t headerBytes = 256;
inline constexpr std::uint32_t blockMagic = 0x6b636c42; // "Blck"
inline constexpr std::uint32_t bucketTombstone = 0xffffffffu;
inline constexpr std::uint32_t flagRetired = 0x1;    // replaced by a segment of another shape
inline constexpr std::uint32_t flagRebuilding = 0x2; // the writer has not converged since its start
// The largest collection a segment describes (slot numbers and block offsets stay in 32 bits).
inline constexpr std::uint32_t maxCapacity = 1u << 18;

struct Header {
   std::atomic<std::uint64_t> magic; // stored last when the segment is created
   std::uint32_t formatVersion;
   std::uint32_t headerBytes;
   std::uint32_t capacity;     // slots
   std::uint32_t indexBuckets; // a power of two, at least twice the capacity
   std::uint64_t slotsOffset;
   std::uint64_t indexOffset[2];
   std::uint64_t heapOffset;
   std::uint64_t mapBytes;                  // the most the segment can grow to; what every process maps
   std::atomic<std::uint64_t> segmentBytes; // the segment's size now; nothing beyond is touched
   std::atomic<std::uint64_t> heapUsed;     // bytes of the heap that hold blocks
   std::atomic<std::uint64_t> generation;   // bumped to odd before and to even after a change
   std::atomic<std::uint64_t> indexEpoch;   // the index buffer in use is indexEpoch & 1
   std::atomic<std::uint32_t> ruleCount;
   std::atomic<std::uint32_t> writerPid; // 0 when no writer is attached
   std::atomic<std::uint32_t> flags;
   std::uint32_t reserved0;
   // Counters: rules added, replaced, deleted one by one, delete-all calls, adds refused
   // because the collection was full, and writer attaches (creation included).
   std::atomic<std::uint64_t> adds;
   std::atomic<std::uint64_t> replaces;
   std::atomic<std::uint64_t> deletes;
   std::atomic<std::uint64_t> deleteAlls;
   std::atomic<std::uint64_t> refusals;
   std::atomic<std::uint64_t> writerAttaches;
};
static_assert(sizeof(Header) <= headerBytes);
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
static_assert(std::atomic<std::uint32_t>::is_always_lock_free);

// Word positions inside a block.
enum Word : std::uint32_t {
   wordBlockBytes = 0,
   wordBlockMagic,
   wordKeyWords,
   wordRuleId,
   wordReserved,
   wordActions,
   wordRate, // the float's bits
   wordTrafficAction,
   wordVrfId,
   wordMisc,    // bits 0-7 address family, 8 copy, 16-23 DSCP
   wordAddress, // four words: the sixteen address bytes as stored by Ovnet::IpGenAddr
   recordHeaderWords = wordAddress + 4,
};

// Block sizes: steps of about 1.5 so a record wastes at most a third of its block. The largest
// holds a record with a 2048-word key.
inline constexpr std::array<std::uint32_t, 16> blockClassBytes = {64,   96,   128,  192,  256,  384,  512,  768,
                                                                  1024, 1536, 2048, 3072, 4096, 6144, 8192, 12288};

constexpr std::uint32_t recordBytes(std::uint32_t keyWords) { return (recordHeaderWords + keyWords) * 4; }

// The class of the smallest block that holds `bytes`, or blockClassBytes.size() when none does.
constexpr std::size_t blockClassFor(std::uint32_t bytes) {
   std::size_t c = 0;
   while (c < blockClassBytes.size() && blockClassBytes[c] < bytes) ++c;
   return c;
}
// The class whose size is exactly `bytes`, or blockClassBytes.size().
constexpr std::size_t blockClassOf(std::uint32_t bytes) {
   std::size_t const c = blockClassFor(bytes);
   return c < blockClassBytes.size() && blockClassBytes[c] == bytes ? c : blockClassBytes.size();
}

// Where everything lies for a collection of `capacity` rules.
struct Geometry {
   std::uint32_t capacity;
   std::uint32_t indexBuckets;
   std::uint64_t slotsOffset;
   std::uint64_t indexOffset[2];
   std::uint64_t heapOffset;
   std::uint64_t mapBytes;
};

constexpr Geometry geometryFor(std::uint32_t capacity) {
   Geometry g{};
   g.capacity = capacity;
   g.indexBuckets = 16;
   while (g.indexBuckets < 2ull * capacity) g.indexBuckets *= 2;
   g.slotsOffset = headerBytes;
   g.indexOffset[0] = g.slotsOffset + 8ull * capacity;
   g.indexOffset[1] = g.indexOffset[0] + 8ull * g.indexBuckets;
   g.heapOffset = (g.indexOffset[1] + 8ull * g.indexBuckets + 63) & ~63ull;
   // A class never holds more blocks than rules can live at once, plus the one a replace
   // fills before it frees the old, so the heap never outgrows this.
   std::uint64_t perRuleOfEachClass = 0;
   for (std::uint32_t b : blockClassBytes) perRuleOfEachClass += b;
   g.mapBytes = g.heapOffset + (capacity + 1ull) * perRuleOfEachClass;
   return g;
}

constexpr std::uint64_t slotWord(std::uint32_t version, std::uint64_t blockOffset) {
   return (std::uint64_t{version} << 32) | (blockOffset / 8);
}
constexpr std::uint32_t slotVersion(std::uint64_t w) { return static_cast<std::uint32_t>(w >> 32); }
constexpr std::uint64_t slotBlockOffset(std::uint64_t w) { return (w & 0xffffffffull) * 8; }

constexpr std::uint64_t bucketWord(std::uint32_t hash, std::uint32_t slotPlusOne) {
   return (std::uint64_t{hash} << 32) | slotPlusOne;
}
constexpr std::uint32_t bucketHash(std::uint64_t b) { return static_cast<std::uint32_t>(b >> 32); }
constexpr std::uint32_t bucketEntry(std::uint64_t b) { return static_cast<std::uint32_t>(b); }

// Loads and stores of words shared with other processes. Relaxed unless the caller orders
// them with a fence or one of the acquire/release forms.
inline std::uint32_t loadWord(std::uint32_t const* p) { return __atomic_load_n(p, __ATOMIC_RELAXED); }
inline void storeWord(std::uint32_t* p, std::uint32_t v) { __atomic_store_n(p, v, __ATOMIC_RELAXED); }
inline std::uint64_t loadAcquire(std::uint64_t const* p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }
inline std::uint64_t loadRelaxed(std::uint64_t const* p) { return __atomic_load_n(p, __ATOMIC_RELAXED); }
inline void storeRelease(std::uint64_t* p, std::uint64_t v) { __atomic_store_n(p, v, __ATOMIC_RELEASE); }
inline void storeRelaxed(std::uint64_t* p, std::uint64_t v) { __atomic_store_n(p, v, __ATOMIC_RELAXED); }

} // namespace Mnemo::SlateLayout
