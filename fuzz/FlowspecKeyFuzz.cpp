// The rule text grammar under arbitrary input. The first byte chooses the mode:
//  - below 0x80: the rest is rule text, read into a key whose family is preset to
//    unspecified, IPv4 or IPv6 (first byte modulo 3). Every text that is accepted must print
//    as text that reads back as an equal key and prints the same again, and its slate key
//    must give the key back.
//  - 0x80 and above: the rest describes a key of the shapes the NLRI parser builds (see
//    nlriShapedKey); printing it and reading the text back must give the same key.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "host/flowspec/FlowspecKey.h"
#include "host/flowspec/FlowspecSlateKey.h"

namespace {

using namespace Flowspec;
using Ovnet::AddressFamily;

class Bytes {
 public:
   Bytes(std::uint8_t const* p, std::size_t n) : p_(p), n_(n) {}
   bool empty() const { return n_ == 0; }
   std::uint8_t next() {
      if (n_ == 0) return 0;
      --n_;
      return *p_++;
   }

 private:
   std::uint8_t const* p_;
   std::size_t n_;
};

Ovnet::IpGenPrefix prefix(Bytes& b, AddressFamily af) {
   std::uint8_t addr[16];
   for (auto& x : addr) x = b.next();
   bool const v4 = af == AddressFamily::ipv4;
   Ovnet::IpGenPrefix p(v4 ? Ovnet::IpGenAddr::ipv4(std::span<std::uint8_t const, 4>(addr, 4))
                           : Ovnet::IpGenAddr::ipv6(std::span<std::uint8_t const, 16>(addr, 16)),
                        static_cast<std::uint8_t>(b.next() % (v4 ? 33 : 129)));
   p.clearLowerAddrBits();
   return p;
}

// Components in ascending type order (a control byte's low two bits step the type, 0 repeats
// it), one to four pairs each, operator bytes as given except that the length code is capped
// at the type's limit and the end-of-list bit marks exactly the last pair of each component.
FlowspecKey nlriShapedKey(Bytes& b, AddressFamily af) {
   FlowspecKey key;
   key.afIs(af);
   std::uint8_t const prefixes = b.next();
   if (prefixes & 1) key.destPrefixIs(prefix(b, af));
   if (prefixes & 2) key.srcPrefixIs(prefix(b, af));
   unsigned const lastType = af == AddressFamily::ipv6 ? flowLabel_ : fragment_;
   unsigned type = ipProtocol_ - 1;
   MatchOpValIndex index = 0;
   while (!b.empty()) {
      std::uint8_t const ctl = b.next();
      type += index == 0 ? 1 + (ctl & 3u) : ctl & 3u;
      if (type > lastType) break;
      auto const t = static_cast<MatchCompType>(type);
      unsigned const maxCode = maxValueBytes(t) == 4 ? 2 : maxValueBytes(t) == 2 ? 1 : 0;
      unsigned const pairs = 1 + ((ctl >> 2) & 3u);
      for (unsigned i = 0; i < pairs; ++i) {
         std::uint8_t op = b.next();
         unsigned const code = opLengthCode(op) > maxCode ? maxCode : opLengthCode(op);
         std::uint32_t value = 0;
         for (unsigned n = 0; n < (1u << code); ++n) value = (value << 8) | b.next();
         if (t == fragment_ && af == AddressFamily::ipv6) value &= ~1u;
         op = static_cast<std::uint8_t>((op & ~static_cast<unsigned>(opEndOfList | opLengthMask)) | (code << 4) |
                                        (i + 1 == pairs ? opEndOfList : 0));
         index = key.setOpVal(index, t, op, value);
      }
   }
   return key;
}

void check(bool ok) {
   if (!ok) __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   if (size == 0) return 0;
   Bytes b(data + 1, size - 1);
   if (data[0] >= 0x80) {
      AddressFamily const af = data[0] & 1 ? AddressFamily::ipv6 : AddressFamily::ipv4;
      FlowspecKey const key = nlriShapedKey(b, af);
      FlowspecKey back;
      back.afIs(af);
      check(back.copyInStrCli(key.toStrepCli()));
      check(back == key);
      return 0;
   }
   static constexpr AddressFamily kFamilies[] = {AddressFamily::unspecified, AddressFamily::ipv4, AddressFamily::ipv6};
   AddressFamily const af = kFamilies[data[0] % 3];
   std::string_view const text(reinterpret_cast<char const*>(data + 1), size - 1);
   FlowspecKey key;
   key.afIs(af);
   if (!key.copyInStrCli(text)) {
      check(key.af() == af && key.opValCount() == 0 && key.destPrefix().isUnset() && key.srcPrefix().isUnset());
      return 0;
   }
   std::string const printed = key.toStrepCli();
   FlowspecKey again;
   again.afIs(af);
   check(again.copyInStrCli(printed));
   check(again == key);
   check(again.toStrepCli() == printed);
   (void)key.toStrepCliDetail();
   FlowspecSlateKey slate;
   slate.copyInFlowspecKey(key);
   check(slate.flowspecKey() == key);
   return 0;
}
