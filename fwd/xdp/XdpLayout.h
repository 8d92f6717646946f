/* The maps the XDP classifier reads and flowspec-fwd writes: one header for the BPF program
 * (C, clang's BPF target) and for user space (C++).
 *
 * Classification: every rule holds a position in precedence order (a lower position is
 * evaluated first; positions have gaps so that a rule can be inserted without moving the
 * others). Every field of the packet (protocol, ports, ICMP type and code, TCP flags,
 * length, DSCP, fragment class, flow label, destination and source prefix) is turned into a
 * class: a bitmap of the positions whose rule accepts that value of the field. The packet's
 * candidate rules are the AND of its classes and of the family's live bitmap; the first set
 * bit is the first matching rule. Each class carries a summary (bit w set when word w is not
 * zero), so the AND starts on FS_SUMMARY words and visits only the words every class has
 * something in.
 *
 *   fs_classes   array of struct fs_class, mmapped by user space; class 0 has every bit set
 *                (the class of a field no rule constrains), 1 and 2 are the live bitmaps of
 *                IPv4 and IPv6 rules, 3 is empty
 *   fs_values    one array of class ids for every value of every array-indexed field (the
 *                FS_OFF_* offsets), plus one "absent" entry per field for packets that do not
 *                have the field (no transport header, not ICMP, ...); mmapped
 *   fs_positions per position the action slot of the rule there (64-bit elements); mmapped
 *   fs_actions   action slots (struct fs_action); mmapped
 *   fs_dst4/src4/dst6/src6  LPM tries from prefix to class id (a /0 entry always present)
 *   fs_counters  per-CPU packet and byte counts per counter id
 *   fs_police    token bucket per counter id (one bucket shared by all CPUs, under a lock)
 *   fs_samples   ring buffer of sampled packets, fs_sample_budget its per-CPU rate limit
 *   fs_prefixes  hash from (trie, length, masked address) to class: the same entries as the
 *                tries, probed per length in use (fs_config.lengths)
 *   fs_config    the sample rate limit, the prefix lookups in use; mmapped
 */
#ifndef FLOWSPEC_XDP_LAYOUT_H
#define FLOWSPEC_XDP_LAYOUT_H

#define FS_POSITIONS 16384u
#define FS_WORDS (FS_POSITIONS / 64u)
#define FS_SUMMARY (FS_WORDS / 64u)
#define FS_CLASSES 20480u
#define FS_ACTION_SLOTS 32768u
#define FS_COUNTERS 16384u
#define FS_PREFIXES 16400u

#define FS_CLASS_ALL 0u
#define FS_CLASS_LIVE4 1u
#define FS_CLASS_LIVE6 2u
#define FS_CLASS_NONE 3u
#define FS_CLASS_FIRST_FREE 4u

/* Array-indexed fields: offset of value 0 in fs_values, and the number of values; the entry
 * at OFF + SIZE is the field's "absent" class. */
#define FS_SIZE_PROTO 256u
#define FS_SIZE_PORT 65536u
#define FS_SIZE_ICMP 256u
#define FS_SIZE_FLAGS 4096u
#define FS_SIZE_LENGTH 65536u
#define FS_SIZE_DSCP 64u
#define FS_SIZE_FRAG 16u
#define FS_SIZE_LABEL 1048576u

#define FS_OFF_PROTO 0u
#define FS_OFF_DPORT (FS_OFF_PROTO + FS_SIZE_PROTO + 1u)
#define FS_OFF_SPORT (FS_OFF_DPORT + FS_SIZE_PORT + 1u)
#define FS_OFF_PORT (FS_OFF_SPORT + FS_SIZE_PORT + 1u)
#define FS_OFF_ICMP_TYPE (FS_OFF_PORT + FS_SIZE_PORT + 1u)
#define FS_OFF_ICMP_CODE (FS_OFF_ICMP_TYPE + FS_SIZE_ICMP + 1u)
#define FS_OFF_FLAGS (FS_OFF_ICMP_CODE + FS_SIZE_ICMP + 1u)
#define FS_OFF_LENGTH (FS_OFF_FLAGS + FS_SIZE_FLAGS + 1u)
#define FS_OFF_DSCP (FS_OFF_LENGTH + FS_SIZE_LENGTH + 1u)
#define FS_OFF_FRAG (FS_OFF_DSCP + FS_SIZE_DSCP + 1u)
#define FS_OFF_LABEL (FS_OFF_FRAG + FS_SIZE_FRAG + 1u)
#define FS_VALUES (FS_OFF_LABEL + FS_SIZE_LABEL + 1u)

/* Fragment classes (index into the fragment field). IPv4: DF, MF and "offset not zero" as
 * bits 0-2. IPv6: the Fragment header's absence and its kinds. */
#define FS_FRAG4_DF 1u
#define FS_FRAG4_MF 2u
#define FS_FRAG4_LATER 4u
#define FS_FRAG6_NONE 8u
#define FS_FRAG6_ATOMIC 9u
#define FS_FRAG6_FIRST 10u
#define FS_FRAG6_MIDDLE 11u
#define FS_FRAG6_LAST 12u

/* Action flags. */
#define FS_ACT_DROP 0x01u
#define FS_ACT_POLICE 0x02u
#define FS_ACT_DSCP 0x04u
#define FS_ACT_SAMPLE 0x08u
#define FS_ACT_NEXT 0x10u /* terminal bit set: evaluation goes on with the next rule */
#define FS_ACT_MARK 0x20u /* redirect: the packet goes up with this mark for policy routing */

struct fs_class {
   __u64 summary[FS_SUMMARY];
   __u64 words[FS_WORDS];
};

struct fs_action {
   __u32 flags;
   __u32 counter;
   __u64 rate; /* bytes per second, with FS_ACT_POLICE */
   __u32 mark;
   __u8 dscp;
   __u8 pad[3];
};

struct fs_count {
   __u64 packets;
   __u64 bytes;
};

struct fs_bucket {
   struct bpf_spin_lock lock;
   __u32 pad;
   __u64 tokens; /* bytes */
   __u64 last;   /* ns of the last refill; 0: not started (filled on first use) */
   __u64 rate;   /* the rate the tokens were counted at; a new rate refills */
};

struct fs_lpm4 {
   __u32 prefixlen;
   __u8 addr[4];
};

struct fs_lpm6 {
   __u32 prefixlen;
   __u8 addr[16];
};

#define FS_SAMPLE_BYTES 128u
struct fs_sample {
   __u32 counter;
   __u32 length;   /* of the whole packet */
   __u32 captured; /* bytes of data[] filled */
   __u32 ifindex;
   __u8 data[FS_SAMPLE_BYTES];
};

struct fs_budget {
   __u64 window; /* ns / 1e9 of the current second */
   __u32 used;
   __u32 pad;
};

/* fs_config.lookups: the prefix tries a packet is looked up in; a trie no rule uses is
 * skipped (its field's class is then FS_CLASS_ALL). */
#define FS_LOOKUP_DST4 0x1u
#define FS_LOOKUP_SRC4 0x2u
#define FS_LOOKUP_DST6 0x4u
#define FS_LOOKUP_SRC6 0x8u

/* fs_config.lengths[t] (t: dst4, src4, dst6, src6): the prefix lengths in use, longest first,
 * in bytes 0-6 and their count in byte 7; a count of FS_LENGTHS_TRIE: more lengths than
 * that, look the address up in the trie. A packet probes fs_prefixes once per length
 * (address masked to it) and takes the first hit, else fs_config.roots[t]: the same answer
 * as the trie, in one hash lookup when the rules use one length. */
#define FS_LENGTHS_MAX 7u
#define FS_LENGTHS_TRIE 0xffu

struct fs_config {
   __u32 samples_per_second; /* per CPU */
   __u32 lookups;
   __u64 lengths[4];
   __u32 roots[4];
};

struct fs_prefix_key {
   __u32 tag; /* t << 8 | length */
   __u8 addr[16];
};

#endif
