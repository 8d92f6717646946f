/* The XDP classifier of flowspec-fwd: fixed code, every rule in maps (XdpLayout.h).
 *
 * A packet is parsed once into one class id per field; the AND of those classes (with the
 * family's live bitmap) holds the positions of every rule that matches, in precedence order.
 * The rules are visited from the first set bit: each counts the packet and adds its actions;
 * a rule without the terminal bit ends the walk (RFC 8955 section 5.1: the first matching
 * rule decides), a rule with it lets the walk go on to the next matching rule (section 7).
 *
 * The walk over candidate words is a bpf_loop callback, so that the verifier checks it once
 * whatever the number of rules.
 */
#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/in.h>
#include <linux/ip.h>
#include <linux/ipv6.h>
#include <linux/pkt_cls.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "XdpLayout.h"

struct {
   __uint(type, BPF_MAP_TYPE_ARRAY);
   __uint(max_entries, FS_CLASSES);
   __uint(map_flags, BPF_F_MMAPABLE);
   __type(key, __u32);
   __type(value, struct fs_class);
} fs_classes SEC(".maps");

struct fs_value_table {
   __u16 cls[FS_VALUES];
};
struct {
   __uint(type, BPF_MAP_TYPE_ARRAY);
   __uint(max_entries, 1);
   __uint(map_flags, BPF_F_MMAPABLE);
   __type(key, __u32);
   __type(value, struct fs_value_table);
} fs_values SEC(".maps");

struct {
   __uint(type, BPF_MAP_TYPE_ARRAY);
   __uint(max_entries, FS_POSITIONS);
   __uint(map_flags, BPF_F_MMAPABLE);
   __type(key, __u32);
   __type(value, __u64); /* the action slot; 64 bits, the array's element size anyway */
} fs_positions SEC(".maps");

struct {
   __uint(type, BPF_MAP_TYPE_ARRAY);
   __uint(max_entries, FS_ACTION_SLOTS);
   __uint(map_flags, BPF_F_MMAPABLE);
   __type(key, __u32);
   __type(value, struct fs_action);
} fs_actions SEC(".maps");

#define FS_LPM(name, keytype)                  \
   struct {                                    \
      __uint(type, BPF_MAP_TYPE_LPM_TRIE);     \
      __uint(max_entries, FS_PREFIXES);        \
      __uint(map_flags, BPF_F_NO_PREALLOC);    \
      __type(key, keytype);                    \
      __type(value, __u32);                    \
   } name SEC(".maps")
FS_LPM(fs_dst4, struct fs_lpm4);
FS_LPM(fs_src4, struct fs_lpm4);
FS_LPM(fs_dst6, struct fs_lpm6);
FS_LPM(fs_src6, struct fs_lpm6);

struct {
   __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
   __uint(max_entries, FS_COUNTERS);
   __type(key, __u32);
   __type(value, struct fs_count);
} fs_counters SEC(".maps");

struct {
   __uint(type, BPF_MAP_TYPE_ARRAY);
   __uint(max_entries, FS_COUNTERS);
   __type(key, __u32);
   __type(value, struct fs_bucket);
} fs_police SEC(".maps");

struct {
   __uint(type, BPF_MAP_TYPE_RINGBUF);
   __uint(max_entries, 1 << 18);
} fs_samples SEC(".maps");

struct {
   __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
   __uint(max_entries, 1);
   __type(key, __u32);
   __type(value, struct fs_budget);
} fs_budget SEC(".maps");

struct {
   __uint(type, BPF_MAP_TYPE_ARRAY);
   __uint(max_entries, 1);
   __uint(map_flags, BPF_F_MMAPABLE);
   __type(key, __u32);
   __type(value, struct fs_config);
} fs_config SEC(".maps");

struct {
   __uint(type, BPF_MAP_TYPE_HASH);
   __uint(max_entries, 4 * FS_PREFIXES);
   __uint(map_flags, BPF_F_NO_PREALLOC);
   __type(key, struct fs_prefix_key);
   __type(value, __u32);
} fs_prefixes SEC(".maps");

/* The classes a packet is tested against, one per field. */
enum {
   K_LIVE,
   K_PROTO,
   K_DPORT,
   K_SPORT,
   K_PORT_S, /* the Port component: source port OR destination port in its set */
   K_PORT_D,
   K_ICMP_TYPE,
   K_ICMP_CODE,
   K_FLAGS,
   K_LENGTH,
   K_DSCP,
   K_FRAG,
   K_LABEL,
   K_DST,
   K_SRC,
   K_COUNT,
};

#define V_DROP 1u
#define V_STOP 2u

struct walk {
   __u32 cls[K_COUNT];
   __u64 summary[FS_SUMMARY];
   __u32 bytes;
   __u32 verdict; /* V_DROP, V_STOP, or 0 while the walk goes on */
   __u32 dscp;    /* 0x100 | DSCP when a rule marks */
   __u32 mark;
   __u32 sample;  /* counter + 1 of the first sampling rule */
   __u32 w;       /* the candidate word being visited */
   __u64 x;       /* its rules not visited yet */
};

/* Trailing zeros of a non-zero word, without branches (the verifier walks no paths). */
static __always_inline __u64 ctz64(__u64 x) {
   __u64 v = (x & -x) - 1;
   v = v - ((v >> 1) & 0x5555555555555555ull);
   v = (v & 0x3333333333333333ull) + ((v >> 2) & 0x3333333333333333ull);
   v = (v + (v >> 4)) & 0x0f0f0f0f0f0f0f0full;
   return (v * 0x0101010101010101ull) >> 56;
}

static __always_inline struct fs_class* class_of(__u32 id) { return bpf_map_lookup_elem(&fs_classes, &id); }

/* True when the bucket has `bytes` for the packet (and takes them). The bucket holds one
 * second at the rate and is shared by every CPU under its lock. */
static __always_inline int police_pass(__u32 counter, __u64 rate, __u32 bytes) {
   struct fs_bucket* b = bpf_map_lookup_elem(&fs_police, &counter);
   if (!b) return 1;
   __u64 now = bpf_ktime_get_ns();
   int pass = 0;
   bpf_spin_lock(&b->lock);
   if (b->last == 0 || b->rate != rate || now < b->last) {
      b->tokens = rate;
      b->rate = rate;
      b->last = now;
   } else {
      __u64 elapsed = now - b->last;
      if (elapsed > 1000000000ull) elapsed = 1000000000ull;
      /* elapsed < 2^30: exact below 8 GB/s, in microseconds above. */
      __u64 add = rate < (1ull << 33) ? elapsed * rate / 1000000000ull : (elapsed / 1000) * (rate / 1000000);
      if (add > 0) {
         b->tokens = b->tokens + add > rate ? rate : b->tokens + add;
         b->last = now;
      }
   }
   if (b->tokens >= bytes) {
      b->tokens -= bytes;
      pass = 1;
   }
   bpf_spin_unlock(&b->lock);
   return pass;
}

/* Applies the rule at `pos`; returns 1 when the walk ends there. */
static __always_inline int visit_rule(struct walk* wk, __u32 pos) {
   /* Looked up by key rather than indexed, so that the verifier need not track the bit. */
   __u64* slotp = bpf_map_lookup_elem(&fs_positions, &pos);
   if (!slotp) return 0;
   __u32 slot = (__u32)*slotp;
   struct fs_action* a = bpf_map_lookup_elem(&fs_actions, &slot);
   if (!a || slot == 0) return 0; /* a position being vacated: no rule */
   __u32 flags = a->flags;
   __u32 counter = a->counter;
   struct fs_count* c = bpf_map_lookup_elem(&fs_counters, &counter);
   if (c) {
      c->packets += 1;
      c->bytes += wk->bytes;
   }
   if ((flags & FS_ACT_SAMPLE) && wk->sample == 0) wk->sample = counter + 1;
   if (flags & FS_ACT_DROP) {
      wk->verdict = V_DROP;
      return 1;
   }
   if ((flags & FS_ACT_POLICE) && !police_pass(counter, a->rate, wk->bytes)) {
      wk->verdict = V_DROP;
      return 1;
   }
   if (flags & FS_ACT_DSCP) wk->dscp = 0x100u | a->dscp;
   if (flags & FS_ACT_MARK) wk->mark = a->mark;
   if (flags & FS_ACT_NEXT) return 0;
   wk->verdict = V_STOP;
   return 1;
}

#define AND_CLASSES(expr_of)                                                                    \
   (expr_of(K_LIVE) & expr_of(K_PROTO) & expr_of(K_DPORT) & expr_of(K_SPORT) &                  \
    (expr_of(K_PORT_S) | expr_of(K_PORT_D)) & expr_of(K_ICMP_TYPE) & expr_of(K_ICMP_CODE) &     \
    expr_of(K_FLAGS) & expr_of(K_LENGTH) & expr_of(K_DSCP) & expr_of(K_FRAG) & expr_of(K_LABEL) & \
    expr_of(K_DST) & expr_of(K_SRC))

/* One step of the walk: with bits left in the current word, the next rule among them;
 * otherwise the next candidate word (the lowest the summaries left), ANDed across the
 * classes. Returns 1 to end the loop. */
static long walk_step(__u32 n, void* ctx) {
   struct walk* wk = ctx;
   if (wk->x) {
      __u32 pos = wk->w * 64 + (__u32)ctz64(wk->x);
      wk->x &= wk->x - 1;
      return visit_rule(wk, pos);
   }
   __u32 i;
   __u64 s;
   if (wk->summary[0]) {
      i = 0;
      s = wk->summary[0];
   } else if (wk->summary[1]) {
      i = 1;
      s = wk->summary[1];
   } else if (wk->summary[2]) {
      i = 2;
      s = wk->summary[2];
   } else if (wk->summary[3]) {
      i = 3;
      s = wk->summary[3];
   } else {
      return 1;
   }
   __u64 bit = ctz64(s);
   s &= s - 1;
   if (i == 0) wk->summary[0] = s;
   else if (i == 1) wk->summary[1] = s;
   else if (i == 2) wk->summary[2] = s;
   else wk->summary[3] = s;
   __u32 w = (i * 64 + (__u32)bit) & (FS_WORDS - 1);

   struct fs_class* k[K_COUNT];
#pragma unroll
   for (int f = 0; f < K_COUNT; f++) {
      k[f] = class_of(wk->cls[f]);
      if (!k[f]) return 1;
   }
#define WORD_OF(f) k[f]->words[w]
   wk->x = AND_CLASSES(WORD_OF);
#undef WORD_OF
   wk->w = w;
   return 0;
}

static __always_inline __u32 value_class(struct fs_value_table* t, __u32 index) {
   return index < FS_VALUES ? t->cls[index] : FS_CLASS_NONE;
}

static __always_inline __u32 lpm4(void* map, __u8 const* addr) {
   struct fs_lpm4 key = {.prefixlen = 32};
   __builtin_memcpy(key.addr, addr, 4);
   __u32* c = bpf_map_lookup_elem(map, &key);
   return c ? *c : FS_CLASS_NONE;
}

static __always_inline __u32 lpm6(void* map, __u8 const* addr) {
   struct fs_lpm6 key = {.prefixlen = 128};
   __builtin_memcpy(key.addr, addr, 16);
   __u32* c = bpf_map_lookup_elem(map, &key);
   return c ? *c : FS_CLASS_NONE;
}

/* The class of an address in prefix table t: one hash probe per prefix length in use,
 * longest first, or the trie when more lengths are in use than the probes cover. */
static __always_inline __u32 prefix_class(struct fs_config* cfg, __u32 t, __u8 const* addr, void* trie, int v6) {
   __u64 w = *(volatile __u64*)&cfg->lengths[t & 3];
   __u32 n = (__u32)(w >> 56);
   if (n == FS_LENGTHS_TRIE) return v6 ? lpm6(trie, addr) : lpm4(trie, addr);
   struct fs_prefix_key key = {};
   __u64 hi = 0, lo = 0;
   if (v6) {
      __builtin_memcpy(&hi, addr, 8);
      __builtin_memcpy(&lo, addr + 8, 8);
      hi = __builtin_bswap64(hi);
      lo = __builtin_bswap64(lo);
   } else {
      __u32 a;
      __builtin_memcpy(&a, addr, 4);
      hi = (__u64)bpf_ntohl(a) << 32;
   }
   for (__u32 i = 0; i < FS_LENGTHS_MAX; i++) {
      if (i >= n) break;
      __u32 len = (__u32)(w >> (8 * i)) & 0xff;
      key.tag = (t << 8) | len;
      __u64 mh = len == 0 ? 0 : len >= 64 ? ~0ull : ~0ull << (64 - len);
      __u64 ml = len <= 64 ? 0 : len >= 128 ? ~0ull : ~0ull << (128 - len);
      __u64 h = __builtin_bswap64(hi & mh);
      __u64 l = __builtin_bswap64(lo & ml);
      __builtin_memcpy(key.addr, &h, 8);
      __builtin_memcpy(key.addr + 8, &l, 8);
      __u32* c = bpf_map_lookup_elem(&fs_prefixes, &key);
      if (c) return *c;
   }
   return cfg->roots[t & 3];
}

/* IPv4 header checksum after one 16-bit word changed (RFC 1624 section 3, eqn. 3). */
static __always_inline __u16 csum_replace(__u16 check, __u16 old, __u16 new) {
   __u32 sum = (__u16)~check + (__u16)~old + (__u32) new;
   sum = (sum & 0xffff) + (sum >> 16);
   sum = (sum & 0xffff) + (sum >> 16);
   return (__u16)~sum;
}

static __always_inline int is_ext6(__u8 h) { return h == 0 || h == 43 || h == 44 || h == 51 || h == 60; }

/* The IPv6 header chain as the kernel's ipv6_find_hdr walks it: extension headers up to
 * the first other one; a fragment other than the first ends the walk at its header. */
struct ext6 {
   struct xdp_md* ctx;
   __u32 next;
   __u32 off;
   __u32 frag;
   __u32 have_l4;
};

static long ext6_step(__u32 n, void* arg) {
   struct ext6* e = arg;
   if (!is_ext6((__u8)e->next)) return 1;
   __u8 h[8];
   if (bpf_xdp_load_bytes(e->ctx, e->off & 0xffff, h, 8) < 0) {
      e->have_l4 = 0;
      return 1;
   }
   if (e->next == 44) {
      __u16 fo = ((__u16)h[2] << 8) | h[3];
      int more = fo & 1;
      int later = (fo & 0xfff8) != 0;
      if (e->frag == FS_FRAG6_NONE)
         e->frag = later ? (more ? FS_FRAG6_MIDDLE : FS_FRAG6_LAST) : (more ? FS_FRAG6_FIRST : FS_FRAG6_ATOMIC);
      e->next = h[0];
      e->off += 8;
      if (later) {
         e->have_l4 = 0;
         return 1;
      }
   } else if (e->next == 51) {
      e->next = h[0];
      e->off += ((__u32)h[1] + 2) * 4;
   } else {
      e->next = h[0];
      e->off += ((__u32)h[1] + 1) * 8;
   }
   return 0;
}

SEC("xdp")
int flowspec_xdp(struct xdp_md* ctx) {
   void* data = (void*)(long)ctx->data;
   void* data_end = (void*)(long)ctx->data_end;
   __u32 zero = 0;
   struct fs_value_table* vt = bpf_map_lookup_elem(&fs_values, &zero);
   struct fs_config* cfg = bpf_map_lookup_elem(&fs_config, &zero);
   if (!vt || !cfg) return XDP_PASS;

   struct ethhdr* eth = data;
   if ((void*)(eth + 1) > data_end) return XDP_PASS;
   __u32 l3 = sizeof(*eth);
   __u16 proto = eth->h_proto;
#pragma unroll
   for (int i = 0; i < 2; i++) {
      if (proto != bpf_htons(ETH_P_8021Q) && proto != bpf_htons(ETH_P_8021AD)) break;
      __u16* tag = data + l3;
      if ((void*)(tag + 2) > data_end) return XDP_PASS;
      proto = tag[1];
      l3 += 4;
   }

   struct walk wk = {};
   __u32 l4proto, l4 = 0, fragclass, length, dscp, label = FS_SIZE_LABEL;
   int have_l4 = 0;
   if (proto == bpf_htons(ETH_P_IP)) {
      struct iphdr* ip = data + (l3 & 0xff);
      if ((void*)(ip + 1) > data_end) return XDP_PASS;
      __u32 ihl = ip->ihl * 4u;
      if (ihl < sizeof(*ip)) return XDP_PASS;
      __u16 frag = bpf_ntohs(ip->frag_off);
      l4proto = ip->protocol;
      length = bpf_ntohs(ip->tot_len);
      dscp = ip->tos >> 2;
      fragclass = ((frag & 0x4000) ? FS_FRAG4_DF : 0) | ((frag & 0x2000) ? FS_FRAG4_MF : 0) |
                  ((frag & 0x1fff) ? FS_FRAG4_LATER : 0);
      l4 = l3 + ihl;
      have_l4 = (frag & 0x1fff) == 0;
      wk.cls[K_LIVE] = FS_CLASS_LIVE4;
      wk.cls[K_DST] = (cfg->lookups & FS_LOOKUP_DST4) ? prefix_class(cfg, 0, (__u8*)&ip->daddr, &fs_dst4, 0) : FS_CLASS_ALL;
      wk.cls[K_SRC] = (cfg->lookups & FS_LOOKUP_SRC4) ? prefix_class(cfg, 1, (__u8*)&ip->saddr, &fs_src4, 0) : FS_CLASS_ALL;
   } else if (proto == bpf_htons(ETH_P_IPV6)) {
      struct ipv6hdr* ip6 = data + (l3 & 0xff);
      if ((void*)(ip6 + 1) > data_end) return XDP_PASS;
      __u8 const* b = (__u8 const*)ip6;
      __u32 tc = ((b[0] & 0x0fu) << 4) | (b[1] >> 4);
      dscp = tc >> 2;
      label = ((b[1] & 0x0fu) << 16) | ((__u32)b[2] << 8) | b[3];
      length = bpf_ntohs(ip6->payload_len) + 40u;
      if (length > 0xffff) length = FS_SIZE_LENGTH; /* beyond every rule's length: absent */
      wk.cls[K_LIVE] = FS_CLASS_LIVE6;
      wk.cls[K_DST] = (cfg->lookups & FS_LOOKUP_DST6) ? prefix_class(cfg, 2, (__u8*)&ip6->daddr, &fs_dst6, 1) : FS_CLASS_ALL;
      wk.cls[K_SRC] = (cfg->lookups & FS_LOOKUP_SRC6) ? prefix_class(cfg, 3, (__u8*)&ip6->saddr, &fs_src6, 1) : FS_CLASS_ALL;
      struct ext6 e = {.ctx = ctx, .next = ip6->nexthdr, .off = l3 + sizeof(*ip6), .frag = FS_FRAG6_NONE,
                       .have_l4 = 1};
      if (is_ext6((__u8)e.next)) bpf_loop(6, ext6_step, &e, 0);
      __u8 next = e.next;
      __u32 off = e.off;
      fragclass = e.frag;
      have_l4 = e.have_l4;
      if (is_ext6(next)) have_l4 = 0; /* a chain longer than we walk: no transport header */
      l4proto = next;
      l4 = off;
   } else {
      return XDP_PASS;
   }
   wk.bytes = (__u32)(data_end - data) - l3;

   __u32 dport = FS_SIZE_PORT, sport = FS_SIZE_PORT, itype = FS_SIZE_ICMP, icode = FS_SIZE_ICMP;
   __u32 flags = FS_SIZE_FLAGS;
   if (have_l4) {
      /* The transport header read in place when it lies in the first 512 bytes, copied out
       * otherwise (a long IPv6 header chain). */
      __u8 h[4];
      __u8 const* hp = 0;
      __u8 t[2] = {0, 0};
      int have_flags = 0;
      data = (void*)(long)ctx->data;
      data_end = (void*)(long)ctx->data_end;
      if (l4 < 512) {
         __u8 const* p = data + (l4 & 0x1ff);
         if (p + 14 <= (__u8 const*)data_end) {
            hp = p;
            t[0] = p[12];
            t[1] = p[13];
            have_flags = 1;
         } else if (p + 4 <= (__u8 const*)data_end) {
            hp = p;
         }
      }
      if (!hp) {
         if (bpf_xdp_load_bytes(ctx, l4 & 0xffff, h, 4) == 0) hp = h;
         if (bpf_xdp_load_bytes(ctx, (l4 + 12) & 0xffff, t, 2) == 0) have_flags = 1;
      }
      if (hp) {
         __builtin_memcpy(h, hp, 4);
         if (l4proto == IPPROTO_TCP || l4proto == IPPROTO_UDP) {
            sport = ((__u32)h[0] << 8) | h[1];
            dport = ((__u32)h[2] << 8) | h[3];
         }
         if (l4proto == (wk.cls[K_LIVE] == FS_CLASS_LIVE4 ? IPPROTO_ICMP : IPPROTO_ICMPV6)) {
            itype = h[0];
            icode = h[1];
         }
      }
      if (l4proto == IPPROTO_TCP && have_flags) flags = (((__u32)t[0] & 0x0f) << 8) | t[1];
   }
   wk.cls[K_PROTO] = value_class(vt, FS_OFF_PROTO + (l4proto & 0xff));
   wk.cls[K_DPORT] = value_class(vt, FS_OFF_DPORT + dport);
   wk.cls[K_SPORT] = value_class(vt, FS_OFF_SPORT + sport);
   wk.cls[K_PORT_S] = value_class(vt, FS_OFF_PORT + sport);
   wk.cls[K_PORT_D] = value_class(vt, FS_OFF_PORT + dport);
   wk.cls[K_ICMP_TYPE] = value_class(vt, FS_OFF_ICMP_TYPE + itype);
   wk.cls[K_ICMP_CODE] = value_class(vt, FS_OFF_ICMP_CODE + icode);
   wk.cls[K_FLAGS] = value_class(vt, FS_OFF_FLAGS + flags);
   wk.cls[K_LENGTH] = value_class(vt, FS_OFF_LENGTH + length);
   wk.cls[K_DSCP] = value_class(vt, FS_OFF_DSCP + (dscp & 0x3f));
   wk.cls[K_FRAG] = value_class(vt, FS_OFF_FRAG + (fragclass & 0xf));
   wk.cls[K_LABEL] = value_class(vt, FS_OFF_LABEL + label);

   struct fs_class* k[K_COUNT];
#pragma unroll
   for (int f = 0; f < K_COUNT; f++) {
      k[f] = class_of(wk.cls[f]);
      if (!k[f]) return XDP_PASS;
   }
#pragma unroll
   for (int i = 0; i < FS_SUMMARY; i++) {
#define SUMMARY_OF(f) k[f]->summary[i]
      wk.summary[i] = AND_CLASSES(SUMMARY_OF);
#undef SUMMARY_OF
   }
   if (!(wk.summary[0] | wk.summary[1] | wk.summary[2] | wk.summary[3])) return XDP_PASS;

   /* The first two steps (the first candidate word, its first rule) as plain calls: a packet
    * that one rule decides needs no loop. */
   if (walk_step(0, &wk) == 0 && walk_step(1, &wk) == 0) bpf_loop(FS_WORDS + FS_POSITIONS, walk_step, &wk, 0);

   if (wk.sample) {
      struct fs_budget* bud = bpf_map_lookup_elem(&fs_budget, &zero);
      __u64 second = bpf_ktime_get_ns() / 1000000000ull;
      if (bud && bud->window != second) {
         bud->window = second;
         bud->used = 0;
      }
      if (bud && bud->used < cfg->samples_per_second) {
         bud->used++;
         struct fs_sample* s = bpf_ringbuf_reserve(&fs_samples, sizeof(*s), 0);
         if (s) {
            __u32 len = (__u32)(ctx->data_end - ctx->data);
            s->counter = wk.sample - 1;
            s->length = len;
            s->ifindex = ctx->ingress_ifindex;
            s->captured = 0;
            /* Constant sizes: the headers of any packet we classify fit in the smallest. */
            if (len >= FS_SAMPLE_BYTES) {
               if (bpf_xdp_load_bytes(ctx, 0, s->data, FS_SAMPLE_BYTES) == 0) s->captured = FS_SAMPLE_BYTES;
            } else if (len >= 64) {
               if (bpf_xdp_load_bytes(ctx, 0, s->data, 64) == 0) s->captured = 64;
            } else if (len >= 34) {
               if (bpf_xdp_load_bytes(ctx, 0, s->data, 34) == 0) s->captured = 34;
            }
            bpf_ringbuf_submit(s, 0);
         }
      }
   }
   if (wk.verdict == V_DROP) return XDP_DROP;

   if (wk.dscp) {
      data = (void*)(long)ctx->data;
      data_end = (void*)(long)ctx->data_end;
      __u8* p = data + (l3 & 0xff);
      if ((void*)(p + 20) > data_end) return XDP_PASS;
      __u8 d = (__u8)(wk.dscp & 0x3f);
      if (wk.cls[K_LIVE] == FS_CLASS_LIVE4) {
         struct iphdr* ip = (struct iphdr*)p;
         __u16 old = ((__u16)p[0] << 8) | p[1];
         __u8 tos = (__u8)((d << 2) | (p[1] & 3));
         __u16 now = ((__u16)p[0] << 8) | tos;
         p[1] = tos;
         ip->check = bpf_htons(csum_replace(bpf_ntohs(ip->check), old, now));
      } else {
         __u8 tc = (__u8)((d << 2) | ((((p[0] & 0x0f) << 4) | (p[1] >> 4)) & 3));
         p[0] = (__u8)((p[0] & 0xf0) | (tc >> 4));
         p[1] = (__u8)((p[1] & 0x0f) | ((tc & 0x0f) << 4));
      }
   }
   if (wk.mark) {
      /* Policy routing takes it from here: the TC program below puts the mark on the skb. */
      if (bpf_xdp_adjust_meta(ctx, -(int)sizeof(__u32)) == 0) {
         __u32* meta = (void*)(long)ctx->data_meta;
         if ((void*)(meta + 1) <= (void*)(long)ctx->data) *meta = wk.mark;
      }
   }
   return XDP_PASS;
}

/* Ingress TC: a mark the XDP program left in the packet's metadata becomes the skb's mark. */
SEC("tc")
int flowspec_mark(struct __sk_buff* skb) {
   __u32* meta = (void*)(long)skb->data_meta;
   if ((void*)(meta + 1) <= (void*)(long)skb->data) skb->mark = *meta;
   return TC_ACT_OK;
}

char LICENSE[] SEC("license") = "Dual BSD/GPL";
