#include "host/bgp/ImportPolicy.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

#include "host/bgp/Rib.h"

namespace Routing::Bgp {

namespace {

struct RefusalRow {
   ImportRefusal reason;
   char const* name;
   char const* text;
};
// The one table of reasons: name and text.
constexpr std::array<RefusalRow, kImportRefusalCount> kRefusals{{
    {ImportRefusal::destinationNotAllowed, "destinationNotAllowed", "the destination is outside the allowed prefixes"},
    {ImportRefusal::noDestination, "noDestination", "the rule has no destination prefix and the allowed prefixes need one"},
    {ImportRefusal::actionNotAllowed, "actionNotAllowed", "an action is not among the allowed actions"},
    {ImportRefusal::rateBelowMinimum, "rateBelowMinimum", "a rate limit is below the minimum rate"},
    {ImportRefusal::ruleLimit, "ruleLimit", "the neighbor holds max-rules rules of the family"},
    {ImportRefusal::globalRuleLimit, "globalRuleLimit", "the neighbors together hold the global max-rules rules"},
    {ImportRefusal::unvalidatableDestination, "unvalidatableDestination",
     "the rule has no destination prefix with offset 0 to validate"},
    {ImportRefusal::noUnicastRoute, "noUnicastRoute", "no unicast route covers the destination"},
    {ImportRefusal::notOriginator, "notOriginator",
     "the best unicast route of the destination came from another neighbor or AS"},
    {ImportRefusal::moreSpecificOtherAs, "moreSpecificOtherAs",
     "a more-specific unicast route of the destination came from another neighboring AS"},
}};

constexpr std::array<char const*, kRuleActionCount> kActionNames{
    "discard", "rate-limit", "mark", "sample", "terminal", "redirect-vrf", "redirect-ip", "redirect-nexthop"};

constexpr std::array<char const*, 3> kLimitActionNames{"warning", "discard", "teardown"};

// A traffic rate (bytes or packets) asks for a discard at exactly 0, else a rate limit.
void addRate(PathRuleActions& out, float rate, bool bytes) {
   if (rate == 0.0f) {
      out.actions.add(RuleAction::discard);
      return;
   }
   out.actions.add(RuleAction::rateLimit);
   if (!bytes) return;
   // A NaN rate, once seen, stays the lowest: it is below every minimum.
   if (!out.lowestRate || (!std::isnan(*out.lowestRate) && (std::isnan(rate) || rate < *out.lowestRate))) {
      out.lowestRate = rate;
   }
}

// 0.0.0.0/0 or ::/0.
Ovnet::IpGenPrefix wholeSpace(Afi afi) {
   static constexpr std::array<std::uint8_t, 16> zero{};
   return Ovnet::IpGenPrefix(afi == Afi::afiIpv4 ? Ovnet::IpGenAddr::ipv4(0u) : Ovnet::IpGenAddr::ipv6(zero), 0);
}

float rateOf(std::uint64_t value) {
   auto const bits = static_cast<std::uint32_t>(value);
   float f;
   static_assert(sizeof f == sizeof bits);
   std::memcpy(&f, &bits, sizeof f);
   return f;
}

} // namespace

char const* toStrep(ImportRefusal r) { return kRefusals[static_cast<std::size_t>(r)].name; }
char const* importRefusalText(ImportRefusal r) { return kRefusals[static_cast<std::size_t>(r)].text; }

std::array<ImportRefusal, kImportRefusalCount> const& allImportRefusals() {
   static constexpr std::array<ImportRefusal, kImportRefusalCount> all = [] {
      std::array<ImportRefusal, kImportRefusalCount> a{};
      for (std::size_t i = 0; i < a.size(); ++i) a[i] = kRefusals[i].reason;
      return a;
   }();
   return all;
}

char const* ruleActionName(RuleAction a) { return kActionNames[static_cast<std::size_t>(a)]; }

std::optional<RuleAction> ruleActionFromName(std::string_view name) {
   for (std::size_t i = 0; i < kActionNames.size(); ++i) {
      if (name == kActionNames[i]) return static_cast<RuleAction>(i);
   }
   return std::nullopt;
}

std::string ruleActionNamesText() {
   std::string text;
   for (char const* name : kActionNames) text += (text.empty() ? "" : ", ") + std::string(name);
   return text;
}

std::vector<std::string> RuleActionSet::names() const {
   std::vector<std::string> out;
   for (std::size_t i = 0; i < kRuleActionCount; ++i) {
      if (has(static_cast<RuleAction>(i))) out.emplace_back(kActionNames[i]);
   }
   return out;
}

PathRuleActions ruleActionsOf(PathAttributesContents const& attrs) {
   PathRuleActions out;
   for (ExtComm const* c : attrs.extCommList.classificationList(ExtCommClassification::flowspec)) {
      if (auto const* rate = dynamic_cast<FlowspecExtCommTrafficRate const*>(c)) {
         addRate(out, rate->rateBytesPerSec(), true);
      } else if (auto const* action = dynamic_cast<FlowspecExtCommTrafficAction const*>(c)) {
         if (action->actionFlags() & FlowspecExtCommTrafficAction::sampleFlag) out.actions.add(RuleAction::sample);
         if (action->actionFlags() & FlowspecExtCommTrafficAction::terminalFlag) out.actions.add(RuleAction::terminal);
      } else if (dynamic_cast<FlowspecExtCommTrafficMarking const*>(c)) {
         out.actions.add(RuleAction::mark);
      } else if (dynamic_cast<FlowspecExtCommRedirectIpv4 const*>(c)) {
         out.actions.add(RuleAction::redirectIp);
      } else if (dynamic_cast<FlowspecExtCommRedirectNexthop const*>(c)) {
         out.actions.add(RuleAction::redirectNexthop);
      } else {
         // The classification holds exactly the kinds above and the route-target redirects.
         OVK_ASSERT_MSG(dynamic_cast<FlowspecExtCommRedirectVrfRdAs const*>(c) ||
                            dynamic_cast<FlowspecExtCommRedirectVrfRdIpv4 const*>(c),
                        "a flowspec community of no known action");
         out.actions.add(RuleAction::redirectVrf);
      }
   }
   // Kinds the export does not act on are still actions a neighbor asks for: a rate in
   // packets (0x800c) limits or discards.
   for (ExtComm const* c : attrs.extCommList.classificationList(ExtCommClassification::flowspecUnsupported)) {
      addRate(out, rateOf(c->value()), false);
   }
   for (ExtCommIp6 const* c : attrs.extCommIp6List.classificationList(ExtCommClassification::flowspec)) {
      (void)c; // redirect to an IPv6 address, the one flowspec kind of the list
      out.actions.add(RuleAction::redirectIp);
   }
   if (!attrs.extCommIp6List.classificationList(ExtCommClassification::flowspecUnsupported).empty()) {
      out.actions.add(RuleAction::redirectVrf); // redirect to the VRF of an IPv6 route target
   }
   return out;
}

bool PrefixRange::covers(Ovnet::IpGenPrefix const& p) const {
   return p.af() == prefix.af() && p.len() >= ge && p.len() <= le && prefix.contains(p);
}

std::string PrefixRange::str() const {
   std::string text = prefix.str();
   if (ge != prefix.len() && le == prefix.maxLen()) return text + " ge " + std::to_string(ge);
   if (ge != prefix.len()) text += " ge " + std::to_string(ge);
   if (le != ge || ge != prefix.len()) text += " le " + std::to_string(le);
   return text;
}

Ovk::Result<PrefixRange, std::string> parsePrefixRange(std::string_view text) {
   std::vector<std::string_view> words;
   for (std::size_t i = 0; i < text.size();) {
      if (text[i] == ' ' || text[i] == '\t') {
         ++i;
         continue;
      }
      std::size_t const end = std::min(text.find_first_of(" \t", i), text.size());
      words.push_back(text.substr(i, end - i));
      i = end;
   }
   if (words.empty()) return Ovk::failure(std::string("an empty prefix"));
   auto const loose = Ovnet::IpGenPrefix::parse(words[0]);
   if (!loose || words[0].find('/') == std::string_view::npos) {
      return Ovk::failure("\"" + std::string(words[0]) + "\" is not a prefix such as 10.0.0.0/8");
   }
   if (!Ovnet::IpGenPrefix::parse(words[0], true)) {
      Ovnet::IpGenPrefix clean = *loose;
      clean.clearLowerAddrBits();
      return Ovk::failure(std::string(words[0]) + " has address bits beyond its length (" + clean.str() + "?)");
   }
   PrefixRange r{*loose, loose->len(), loose->len()};
   unsigned const max = loose->maxLen();
   std::optional<unsigned> ge, le;
   for (std::size_t i = 1; i < words.size(); i += 2) {
      std::string_view const word = words[i];
      if ((word != "ge" && word != "le") || (word == "ge" ? ge : le)) {
         return Ovk::failure("\"" + std::string(word) + "\" where \"ge N\" or \"le N\" (each once) may follow the prefix");
      }
      unsigned n = 0;
      if (i + 1 >= words.size()) return Ovk::failure(std::string(word) + " needs a length");
      std::string_view const v = words[i + 1];
      auto const [end, ec] = std::from_chars(v.data(), v.data() + v.size(), n);
      if (ec != std::errc() || end != v.data() + v.size() || n > max) {
         return Ovk::failure(std::string(word) + " " + std::string(v) + ": a length from " +
                             std::to_string(loose->len()) + " to " + std::to_string(max) + " for " + loose->str());
      }
      (word == "ge" ? ge : le) = n;
   }
   r.ge = static_cast<std::uint8_t>(ge.value_or(loose->len()));
   r.le = static_cast<std::uint8_t>(le.value_or(ge ? max : loose->len()));
   if (r.ge < loose->len()) {
      return Ovk::failure("ge " + std::to_string(r.ge) + " is shorter than " + loose->str() + " itself");
   }
   if (r.le < r.ge) {
      return Ovk::failure("le " + std::to_string(r.le) + " is shorter than " +
                          (ge ? "ge " + std::to_string(r.ge) : loose->str() + " itself"));
   }
   return r;
}

Ovk::Ptr<ImportPolicy const> ImportPolicy::create(Options options) {
   return Ovk::makePtr<ImportPolicy>(std::move(options));
}

std::optional<ImportRefusal> ImportPolicy::destinationRefusal(RouteKey const& key) const {
   if (!options_.destinations) return std::nullopt;
   // A rule without a destination reaches every address: the family's whole space, which a
   // list allows only with an entry of length 0.
   std::optional<Ovnet::IpGenPrefix> const dest = key.importDestination();
   Ovnet::IpGenPrefix const wanted = dest ? *dest : wholeSpace(key.afi());
   for (PrefixRange const& r : *options_.destinations) {
      if (r.covers(wanted)) return std::nullopt;
   }
   return dest ? ImportRefusal::destinationNotAllowed : ImportRefusal::noDestination;
}

std::optional<ImportRefusal> ImportPolicy::actionRefusal(PathAttributesContents const& attrs) const {
   if (!checksActions()) return std::nullopt;
   PathRuleActions const a = ruleActionsOf(attrs);
   if (options_.actions && !a.actions.within(*options_.actions)) return ImportRefusal::actionNotAllowed;
   // NaN is below every minimum: `!(rate >= min)`.
   if (options_.minimumRate && a.lowestRate && !(*a.lowestRate >= *options_.minimumRate)) {
      return ImportRefusal::rateBelowMinimum;
   }
   return std::nullopt;
}

char const* toStrep(RuleLimitAction a) { return kLimitActionNames[static_cast<std::size_t>(a)]; }

std::optional<RuleLimitAction> ruleLimitActionFromName(std::string_view name) {
   for (std::size_t i = 0; i < kLimitActionNames.size(); ++i) {
      if (name == kLimitActionNames[i]) return static_cast<RuleLimitAction>(i);
   }
   return std::nullopt;
}

std::uint64_t RuleLimit::warningAt() const {
   std::uint64_t const at = (std::uint64_t{maxRules} * warningPercent + 99) / 100;
   return std::max<std::uint64_t>(at, 1);
}

GlobalRuleLimit::GlobalRuleLimit() = default;
GlobalRuleLimit::~GlobalRuleLimit() = default;

void GlobalRuleLimit::tableIs(Ovk::Ptr<RibTable> table) {
   if (std::find(tables_.begin(), tables_.end(), table) == tables_.end()) tables_.push_back(std::move(table));
}

std::uint64_t GlobalRuleLimit::held() const {
   std::uint64_t n = 0;
   for (auto const& t : tables_) n += t->paths() - t->pathsOf(kLocalRibSource);
   return n;
}

} // namespace Routing::Bgp
