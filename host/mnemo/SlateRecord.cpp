#include "host/mnemo/SlateRecord.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "host/mnemo/SlateLayout.h"

namespace Mnemo::SlateRecord {

using namespace SlateLayout;

void store(std::uint32_t* block, Flowspec::Rule const& rule) {
   auto const key = rule.key.words();
   storeWord(block + wordKeyWords, static_cast<std::uint32_t>(key.size()));
   storeWord(block + wordRuleId, rule.ruleId);
   storeWord(block + wordReserved, rule.reserved);
   storeWord(block + wordActions, rule.actions.value());
   storeWord(block + wordRate, std::bit_cast<std::uint32_t>(rule.rate));
   storeWord(block + wordTrafficAction, rule.trafficAction);
   storeWord(block + wordVrfId, rule.trafficRedirect.vrfId);
   Ovnet::IpGenAddr const& a = rule.trafficRedirect.address;
   storeWord(block + wordMisc, static_cast<std::uint32_t>(a.af()) | (rule.trafficRedirect.copy ? 1u << 8 : 0u) |
                                   (std::uint32_t{rule.dscp} << 16));
   std::uint32_t addr[4];
   std::memcpy(addr, a.storage().data(), sizeof addr);
   for (std::uint32_t i = 0; i < 4; ++i) storeWord(block + wordAddress + i, addr[i]);
   std::uint32_t* out = block + recordHeaderWords;
   for (std::uint32_t w : key) storeWord(out++, w);
}

namespace {

// The key words of a well-sized record, or an empty optional.
std::optional<std::span<std::uint32_t const>> keyWordsOf(std::span<std::uint32_t const> words) {
   if (words.size() < recordHeaderWords) return std::nullopt;
   std::uint32_t const keyWords = words[wordKeyWords];
   if (keyWords > Flowspec::slateKeyMaxWords || words.size() < recordHeaderWords + std::size_t{keyWords}) {
      return std::nullopt;
   }
   return words.subspan(recordHeaderWords, keyWords);
}

} // namespace

std::optional<Flowspec::Rule> decode(std::span<std::uint32_t const> words) {
   auto const key = keyWordsOf(words);
   if (!key || words[wordBlockMagic] != blockMagic) return std::nullopt;
   std::uint32_t const misc = words[wordMisc];
   std::uint32_t const af = misc & 0xffu;
   if (af > static_cast<std::uint32_t>(Ovnet::AddressFamily::ipv6) || (misc & 0xff00fe00u) != 0) {
      return std::nullopt;
   }
   Flowspec::Rule r;
   if (!key->empty()) {
      auto k = Flowspec::FlowspecSlateKey::fromWords(*key);
      if (!k) return std::nullopt;
      r.key = std::move(*k);
   }
   r.ruleId = words[wordRuleId];
   r.reserved = words[wordReserved];
   r.actions = Flowspec::ActionFieldSet(words[wordActions]);
   r.rate = std::bit_cast<float>(words[wordRate]);
   r.trafficAction = words[wordTrafficAction];
   r.trafficRedirect.vrfId = words[wordVrfId];
   r.trafficRedirect.copy = (misc & (1u << 8)) != 0;
   r.dscp = static_cast<std::uint8_t>(misc >> 16);
   std::uint8_t bytes[16];
   std::memcpy(bytes, words.data() + wordAddress, sizeof bytes);
   if (af == static_cast<std::uint32_t>(Ovnet::AddressFamily::ipv4)) {
      r.trafficRedirect.address = Ovnet::IpGenAddr::ipv4(std::span<std::uint8_t const, 4>(bytes, 4));
   } else if (af == static_cast<std::uint32_t>(Ovnet::AddressFamily::ipv6)) {
      r.trafficRedirect.address = Ovnet::IpGenAddr::ipv6(std::span<std::uint8_t const, 16>(bytes, 16));
   }
   return r;
}

bool keyEquals(std::span<std::uint32_t const> words, std::span<std::uint32_t const> key) {
   auto const stored = keyWordsOf(words);
   return stored && std::equal(stored->begin(), stored->end(), key.begin(), key.end());
}

} // namespace Mnemo::SlateRecord
