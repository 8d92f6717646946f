#include "tools/flowspec/NlriCodec.h"

#include <cctype>

namespace FlowspecTool {

using namespace Routing::Bgp;
using namespace Routing::Bgp::FlowspecPlugin;

std::optional<std::vector<std::uint8_t>> bytesOfHex(std::string_view text, std::string& whyNot) {
   std::string digits;
   for (char c : text) {
      if (std::isspace(static_cast<unsigned char>(c)) == 0) digits += c;
   }
   if (digits.starts_with("0x") || digits.starts_with("0X")) digits.erase(0, 2);
   std::vector<std::uint8_t> out;
   for (std::size_t i = 0; i < digits.size(); ++i) {
      if (std::isxdigit(static_cast<unsigned char>(digits[i])) == 0) {
         whyNot = "'" + std::string(1, digits[i]) + "' is not a hex digit";
         return std::nullopt;
      }
   }
   if (digits.size() % 2 != 0) {
      whyNot = "odd number of hex digits (" + std::to_string(digits.size()) + ")";
      return std::nullopt;
   }
   for (std::size_t i = 0; i < digits.size(); i += 2) {
      out.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
   }
   return out;
}

namespace {

AfiSafi flowspecFamily(Afi afi) { return afi == Afi::afiIpv4 ? AfiSafi::ipv4Flowspec() : AfiSafi::ipv6Flowspec(); }

Json prefixJson(Ovnet::IpGenPrefix const& p) { return p.isUnset() ? Json(nullptr) : Json(p.str()); }

std::string nlriHexOf(FlowspecRouteKey const& key) {
   return hexOf(key.serialize(RouteKey::SerializeOperation::advertise, nullptr).span());
}

} // namespace

NlriDecoder::NlriDecoder(Afi afi)
    : afi_(afi), vrfTables_(Ovk::makePtr<DedupTablesVrf>(BgpL3VrfId::defaultVrfId())),
      context_(Ovk::makePtr<BgpParseContext>(vrfTables_, "flowspec decode")),
      rule_(Ovk::makePtr<FlowspecParseUpdateNlriRule>(BgpParseControl{}, flowspecFamily(afi))),
      results_(BgpParseUpdateResults::create()) {
   AfiSafi const family = flowspecFamily(afi);
   vrfTables_->dedupTablesVrfAfiSafiIs(Ovk::makePtr<DedupTablesVrfAfiSafi>(
       family, flowspecRouteKeyDedupTableFactory(family, BgpL3VrfId::defaultVrfId()), nullptr));
}

NlriDecoder::~NlriDecoder() = default;

Json nlriJson(FlowspecRouteKey const& key, std::span<std::uint8_t const> nlri) {
   Json out;
   out["ok"] = true;
   out["afi"] = static_cast<int>(key.afi());
   out["rule"] = key.toStrepCli();
   out["detail"] = key.toStrepCliDetail();
   out["wontExportReason"] = key.wontExportReason().value();
   out["destPrefix"] = prefixJson(key.destPrefix());
   out["srcPrefix"] = prefixJson(key.srcPrefix());
   out["destPrefixOffset"] = key.destPrefixOffset();
   out["srcPrefixOffset"] = key.srcPrefixOffset();
   Json components = Json::array();
   for (FlowspecOpValComponentView const c : key.opValComponents()) {
      components.push_back({{"type", static_cast<std::uint32_t>(c.type)},
                            {"name", Flowspec::toStrep(c.type)},
                            {"opValuePairs", hexOf(c.opValuePairsNbo)}});
   }
   out["components"] = std::move(components);
   out["unrecognizedTail"] = hexOf(key.unrecognizedTail());
   out["nlri"] = hexOf(nlri);
   out["reencoded"] = nlriHexOf(key);
   return out;
}

Json nlriFailureJson(Afi afi, std::span<std::uint8_t const> nlri, FlowspecNlriParseFailure const& failure) {
   Json out;
   out["ok"] = false;
   out["afi"] = static_cast<int>(afi);
   out["nlri"] = hexOf(nlri);
   out["reason"] = static_cast<int>(failure.reason());
   out["message"] = failure.message();
   return out;
}

Json NlriDecoder::decode(std::span<std::uint8_t const> nlriField) const {
   BgpParsePktPosition pos(nlriField);
   BgpParsePktPosition* p = &pos;
   auto const parsed = rule_->parse(context_, p, results_);
   if (!parsed) return nlriFailureJson(afi_, nlriField, parsed.reason());
   Json out = nlriJson(*parsed.value(), nlriField);
   if (pos.bytesLeft() != 0) out["trailing"] = hexOf(nlriField.last(pos.bytesLeft()));
   return out;
}

Json encodeRule(Afi afi, std::string_view text) {
   FlowspecRouteKey::Ptr key = flowspecRouteKeyFactory(afi);
   std::string whyNot;
   bool const ok = key->copyInStrCli(text, &whyNot);
   Json out;
   out["ok"] = ok;
   out["afi"] = static_cast<int>(afi);
   out["text"] = std::string(text);
   if (!ok) {
      out["message"] = whyNot;
      return out;
   }
   // Text that names one component twice ("protocol 6; protocol 17") joins both into one
   // component with an end-of-list bit inside it, and those bytes read back as another rule.
   // Read the NLRI back and refuse to hand out bytes that do not mean what was typed.
   Ovk::String const nlri = key->serialize(RouteKey::SerializeOperation::advertise, nullptr);
   Json const back = NlriDecoder(afi).decode(nlri.span());
   if (!back["ok"].get<bool>() || back.contains("trailing") || back["wontExportReason"].get<std::uint32_t>() != 0 ||
       back["rule"].get<std::string>() != key->toStrepCli()) {
      out["ok"] = false;
      out["message"] = "a component is given more than once; give all its values in one place "
                       "(for example \"protocol =6 =17\")";
      return out;
   }
   out["nlri"] = back["nlri"];
   return out;
}

std::string decodedLine(Json const& decoded) {
   std::string line = decoded["nlri"].get<std::string>() + " -> ";
   if (!decoded["ok"].get<bool>()) {
      return line + "error " + std::to_string(decoded["reason"].get<int>()) + ": " +
             decoded["message"].get<std::string>();
   }
   line += decoded["rule"].get<std::string>();
   FlowspecWontExportReason const reason(decoded["wontExportReason"].get<std::uint32_t>());
   if (!reason.empty()) {
      std::string names;
      auto const& attributes = FlowspecWontExportReason::attributeNames();
      for (std::size_t i = 1; i < attributes.size(); ++i) {
         if (reason.attribute(attributes[i]) == 0) continue;
         std::string name(attributes[i]);
         name.pop_back(); // the attribute's trailing underscore
         names += (names.empty() ? "" : ", ") + name;
      }
      line += " [won't export: " + names + "]";
   }
   if (decoded["destPrefixOffset"].get<int>() != 0 || decoded["srcPrefixOffset"].get<int>() != 0) {
      line += " [offsets: destination " + std::to_string(decoded["destPrefixOffset"].get<int>()) + ", source " +
              std::to_string(decoded["srcPrefixOffset"].get<int>()) + "]";
   }
   if (auto const& tail = decoded["unrecognizedTail"].get<std::string>(); !tail.empty()) {
      line += " [unrecognized: " + tail + "]";
   }
   if (decoded.contains("trailing")) line += " [trailing: " + decoded["trailing"].get<std::string>() + "]";
   std::string nlri = decoded["nlri"].get<std::string>();
   if (decoded.contains("trailing")) nlri.resize(nlri.size() - decoded["trailing"].get<std::string>().size());
   if (std::string const& reencoded = decoded["reencoded"].get_ref<std::string const&>(); reencoded != nlri) {
      line += " [written back as " + reencoded + "]";
   }
   return line;
}

std::string encodedLine(Json const& encoded) {
   if (!encoded["ok"].get<bool>()) {
      return "error: " + encoded["message"].get<std::string>() + " in \"" + encoded["text"].get<std::string>() + "\"";
   }
   return encoded["nlri"].get<std::string>();
}

} // namespace FlowspecTool
