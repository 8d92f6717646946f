#include "agent/Config.h"

#include <algorithm>
#include <fstream>
#include <sstream>

// The TOML library is used header-only and without exceptions: a syntax error comes back
// as a value like every other mistake in the file.
#define TOML_HEADER_ONLY 1
#define TOML_EXCEPTIONS 0
#include <toml++/toml.h>

#include <sys/un.h>

namespace Flowspecd {

namespace {
// A Unix socket's path, with its terminating zero.
constexpr std::size_t kMaxUnixSocketPath = sizeof(sockaddr_un::sun_path);
} // namespace

namespace {

constexpr std::string_view kDefaultConfig =
    R"(# flowspecd's built-in configuration: listen on loopback and wait for one neighbor.
router-id = "127.0.0.1"
local-as = 65001
listen = ["127.0.0.1:1179", "[::1]:1179"]
control-socket = "/tmp/flowspecd.sock"

[[neighbor]]
address = "127.0.0.2"
remote-as = 65002
passive = true
hold-time = 90
families = ["ipv4-flowspec", "ipv6-flowspec"]
description = "example peer: a BGP speaker at 127.0.0.2, AS 65002, connecting to 127.0.0.1 port 1179"
)";

// Collects the mistakes of one file.
class Checker {
 public:
   explicit Checker(std::string file) : file_(std::move(file)) {}

   void error(toml::node const& at, std::string text) { error(lineOf(at), std::move(text)); }
   void error(std::uint32_t line, std::string text) { errors_.push_back({file_, line, std::move(text)}); }
   static std::uint32_t lineOf(toml::node const& n) { return n.source().begin.line; }
   // The mistakes in the order of their lines.
   ConfigErrors take() {
      std::stable_sort(errors_.begin(), errors_.end(), [](auto const& a, auto const& b) { return a.line < b.line; });
      return std::move(errors_);
   }
   bool clean() const { return errors_.empty(); }

   // Reports keys of `t` that are not in `known`.
   void onlyKeys(toml::table const& t, std::vector<std::string_view> const& known, std::string_view where) {
      for (auto const& [key, node] : t) {
         if (std::find(known.begin(), known.end(), key.str()) != known.end()) continue;
         std::string text = "unknown key '" + std::string(key.str()) + "'";
         if (!where.empty()) text += " in " + std::string(where);
         text += " (known keys:";
         for (auto k : known) text += " " + std::string(k);
         text += ")";
         error(key.source().begin.line ? key.source().begin.line : lineOf(node), std::move(text));
      }
   }

   // An integer in [lo, hi]; reports and yields nothing otherwise.
   std::optional<std::int64_t> integer(toml::node const& n, std::string_view key, std::int64_t lo, std::int64_t hi) {
      auto const v = n.value_exact<std::int64_t>();
      if (!v) {
         error(n, std::string(key) + " must be an integer");
         return std::nullopt;
      }
      if (*v < lo || *v > hi) {
         error(n, std::string(key) + " must be between " + std::to_string(lo) + " and " + std::to_string(hi) +
                      ", not " + std::to_string(*v));
         return std::nullopt;
      }
      return v;
   }

   std::optional<std::string> string(toml::node const& n, std::string_view key) {
      auto const v = n.value_exact<std::string>();
      if (!v) error(n, std::string(key) + " must be a string");
      return v;
   }

   std::optional<Ovnet::IpGenAddr> address(toml::node const& n, std::string_view key) {
      auto const s = string(n, key);
      if (!s) return std::nullopt;
      auto a = Ovnet::IpGenAddr::parse(*s);
      if (!a) error(n, std::string(key) + " must be an IPv4 or IPv6 address, not \"" + *s + "\"");
      return a;
   }

 private:
   std::string file_;
   ConfigErrors errors_;
};

// A neighbor's families = [...]: at least one, each once.
void readFamilies(Checker& check, toml::node const& v, NeighborConfig& n) {
   if (auto const* list = v.as_array()) {
      n.families.clear();
      for (auto const& item : *list) {
         auto const name = item.value_exact<std::string>();
         auto const f = name ? familyFromName(*name) : std::nullopt;
         if (!f) {
            check.error(item.source().begin.line ? Checker::lineOf(item) : Checker::lineOf(v),
                        "families may hold \"ipv4-flowspec\" and \"ipv6-flowspec\", not " +
                            (name ? "\"" + *name + "\"" : std::string("a value of another type")));
         } else if (std::find(n.families.begin(), n.families.end(), *f) != n.families.end()) {
            check.error(v, "family \"" + *name + "\" is listed twice");
         } else {
            n.families.push_back(*f);
         }
      }
      if (list->empty()) check.error(v, "families must name at least one family");
   } else {
      check.error(v, "families must be a list such as [\"ipv4-flowspec\", \"ipv6-flowspec\"]");
   }
}

void readNeighbor(Checker& check, toml::table const& t, NeighborConfig& n) {
   static std::vector<std::string_view> const known{
       "address",  "port",        "remote-as",     "passive",       "hold-time",
       "families", "description", "local-address", "connect-retry", "min-route-advertisement-interval"};
   check.onlyKeys(t, known, "[[neighbor]]");
   n.line = Checker::lineOf(t);
   if (auto const* v = t.get("address")) {
      if (auto a = check.address(*v, "address")) n.address = *a;
   } else {
      check.error(t, "neighbor has no address");
   }
   if (auto const* v = t.get("port")) {
      if (auto p = check.integer(*v, "port", 1, 65535)) n.port = static_cast<std::uint16_t>(*p);
   }
   if (auto const* v = t.get("remote-as")) {
      if (auto as = check.integer(*v, "remote-as", 1, 4294967295)) {
         if (*as == kAsTrans) check.error(*v, "remote-as must not be 23456 (AS_TRANS)");
         n.remoteAs = static_cast<std::uint32_t>(*as);
      }
   } else {
      check.error(t, "neighbor has no remote-as");
   }
   if (auto const* v = t.get("passive")) {
      if (auto b = v->value_exact<bool>()) {
         n.passive = *b;
      } else {
         check.error(*v, "passive must be true or false");
      }
   }
   if (auto const* v = t.get("hold-time")) {
      // RFC 4271 section 4.2: zero, or at least three seconds.
      if (auto h = check.integer(*v, "hold-time", 0, 65535)) {
         if (*h == 1 || *h == 2) {
            check.error(*v, "hold-time must be 0 or at least 3 seconds, not " + std::to_string(*h));
         } else {
            n.holdTime = static_cast<std::uint16_t>(*h);
         }
      }
   }
   if (auto const* v = t.get("families")) readFamilies(check, *v, n);
   if (auto const* v = t.get("description")) {
      if (auto s = check.string(*v, "description")) n.description = *s;
   }
   if (auto const* v = t.get("local-address")) {
      if (auto a = check.address(*v, "local-address")) {
         n.localAddress = *a;
         if (!n.address.isUnspecified() && a->af() != n.address.af()) {
            check.error(*v, "local-address " + a->str() + " is not of the family of address " + n.address.str());
         }
      }
   }
   if (auto const* v = t.get("connect-retry")) {
      if (auto s = check.integer(*v, "connect-retry", 1, 65535)) n.connectRetrySeconds = static_cast<std::uint16_t>(*s);
   }
   if (auto const* v = t.get("min-route-advertisement-interval")) {
      if (auto s = check.integer(*v, "min-route-advertisement-interval", 0, 600)) {
         n.minRouteAdvertisementSeconds = static_cast<std::uint16_t>(*s);
      }
   }
}

// router-id and local-as: who the agent is.
void readIdentity(Checker& check, toml::table const& root, AgentConfig& config) {
   if (auto const* v = root.get("router-id")) {
      if (auto id = check.string(*v, "router-id")) {
         auto a = Ovnet::IpGenAddr::parse(*id);
         if (!a || !a->isIpv4() || a->ipv4HostOrder() == 0) {
            check.error(*v, "router-id must be a non-zero IPv4 address such as \"192.0.2.1\", not \"" + *id + "\"");
         } else {
            config.routerId = a->ipv4HostOrder();
         }
      }
   } else {
      check.error(1, "missing router-id (a non-zero IPv4 address such as \"192.0.2.1\")");
   }
   if (auto const* v = root.get("local-as")) {
      if (auto as = check.integer(*v, "local-as", 1, 4294967295)) {
         if (*as == kAsTrans) check.error(*v, "local-as must not be 23456 (AS_TRANS)");
         config.localAs = static_cast<std::uint32_t>(*as);
      }
   } else {
      check.error(1, "missing local-as (an AS number from 1 to 4294967295)");
   }
}

// listen = ["ADDR:PORT", ...]: each endpoint at most once; the IPv4 and IPv6 wildcard
// addresses when left out.
void readListen(Checker& check, toml::table const& root, AgentConfig& config) {
   if (auto const* v = root.get("listen")) {
      if (auto const* list = v->as_array()) {
         for (auto const& item : *list) {
            std::uint32_t const line = item.source().begin.line ? Checker::lineOf(item) : Checker::lineOf(*v);
            auto const s = item.value_exact<std::string>();
            auto const e = s ? parseEndpoint(*s) : std::nullopt;
            if (!e) {
               check.error(line, "listen entries must be \"ADDR:PORT\" strings such as \"127.0.0.1:179\" or "
                                 "\"[::1]:179\", not " +
                                     (s ? "\"" + *s + "\"" : std::string("a value of another type")));
            } else if (std::find(config.listen.begin(), config.listen.end(), *e) != config.listen.end()) {
               check.error(line, "listen address " + e->str() + " is listed twice");
            } else {
               config.listen.push_back(*e);
            }
         }
      } else {
         check.error(*v, "listen must be a list of \"ADDR:PORT\" strings");
      }
   } else {
      config.listen = {*parseEndpoint("0.0.0.0"), *parseEndpoint("[::]")};
   }
}

// fsib-prefix, plugin-dir and control-socket: the names the agent gives and uses on the host.
void readHostNames(Checker& check, toml::table const& root, AgentConfig& config) {
   if (auto const* v = root.get("fsib-prefix")) {
      if (auto s = check.string(*v, "fsib-prefix")) {
         bool const ok = !s->empty() && s->size() <= 64 && std::all_of(s->begin(), s->end(), [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
         });
         if (!ok) {
            check.error(*v, "fsib-prefix is 1 to 64 letters, digits, '-' or '_', not \"" + *s + "\"");
         } else {
            config.fsibPrefix = *s;
         }
      }
   }
   if (auto const* v = root.get("plugin-dir")) {
      if (auto s = check.string(*v, "plugin-dir")) {
         if (s->empty()) {
            check.error(*v, "plugin-dir must not be empty");
         } else {
            config.pluginPath = pluginPathIn(*s);
         }
      }
   }
   if (auto const* v = root.get("control-socket")) {
      if (auto s = check.string(*v, "control-socket")) {
         if (s->empty()) {
            check.error(*v, "control-socket must not be empty");
         } else if (s->size() >= kMaxUnixSocketPath) {
            check.error(*v, "control-socket \"" + *s + "\" is " + std::to_string(s->size()) +
                                " bytes long; a Unix socket's path holds at most " +
                                std::to_string(kMaxUnixSocketPath - 1));
         } else {
            config.controlSocket = *s;
         }
      }
   }
}

// api-listen, api-rule-lifetime and metrics-listen: the API and the metrics, off unless set.
void readServices(Checker& check, toml::table const& root, AgentConfig& config) {
   if (auto const* v = root.get("api-listen")) {
      if (auto s = check.string(*v, "api-listen")) {
         if (s->rfind("unix:", 0) == 0) {
            if (s->size() == 5 || s->size() - 5 >= kMaxUnixSocketPath) {
               check.error(*v, "api-listen \"" + *s + "\": a Unix socket's path after \"unix:\" is 1 to " +
                                   std::to_string(kMaxUnixSocketPath - 1) + " bytes");
            } else {
               config.apiListen = *s;
            }
         } else if (auto e = Ovnet::parseEndpoint(*s, kApiPort)) {
            config.apiListen = e->str();
         } else {
            check.error(*v, "api-listen is \"ADDR:PORT\" (\"127.0.0.1:50051\", \"[::1]:50051\") or "
                            "\"unix:PATH\", not \"" + *s + "\"");
         }
      }
   }
   if (auto const* v = root.get("api-rule-lifetime")) {
      if (auto s = check.string(*v, "api-rule-lifetime")) {
         if (auto l = parseLifetime(*s)) {
            config.apiRuleLifetime = l;
         } else {
            check.error(*v, "api-rule-lifetime is seconds or a duration such as \"90s\", \"15m\", \"2h\" or "
                            "\"1d\", at most 365 days, not \"" + *s + "\"");
         }
      }
   }
   if (auto const* v = root.get("metrics-listen")) {
      if (auto s = check.string(*v, "metrics-listen")) {
         if (auto e = Ovnet::parseEndpoint(*s, kMetricsPort)) {
            config.metricsListen = e;
         } else {
            check.error(*v, "metrics-listen is \"ADDR:PORT\" (\"127.0.0.1:9179\"), not \"" + *s + "\"");
         }
      }
   }
}

// The keys of the top level: identity, listeners, sockets, where the plugin is.
void readGlobals(Checker& check, toml::table const& root, AgentConfig& config) {
   readIdentity(check, root, config);
   readListen(check, root, config);
   readHostNames(check, root, config);
   readServices(check, root, config);
}

// [[neighbor]] tables.
void readNeighbors(Checker& check, toml::table const& root, AgentConfig& config) {
   if (auto const* v = root.get("neighbor")) {
      auto const* list = v->as_array();
      if (!list || !list->is_array_of_tables()) {
         check.error(*v, "neighbors are written as [[neighbor]] tables");
      } else {
         for (auto const& item : *list) {
            NeighborConfig n;
            readNeighbor(check, *item.as_table(), n);
            for (auto const& other : config.neighbors) {
               if (!n.address.isUnspecified() && other.address == n.address) {
                  check.error(n.line, "neighbor " + n.address.str() + " is already defined on line " +
                                          std::to_string(other.line));
               }
            }
            // The agent would connect to itself. (An address of its own on another port is
            // another speaker on this host, as on ::1 in tests.)
            for (Endpoint const& at : config.listen) {
               if (!n.address.isUnspecified() && at.address == n.address && at.port == n.port) {
                  check.error(n.line, "neighbor " + Endpoint{n.address, n.port}.str() +
                                          " is the agent itself: it listens there");
               }
            }
            config.neighbors.push_back(std::move(n));
         }
      }
   }
}

// A [[vrf]]'s import-route-targets = [...]; a target listed twice is kept once.
void readRouteTargets(Checker& check, toml::node const& n, VrfConfig& vrf) {
   auto const* rts = n.as_array();
   if (!rts) {
      check.error(n, "import-route-targets must be a list such as [\"65000:100\", \"192.0.2.1:7\"]");
   } else {
      for (auto const& rt : *rts) {
         auto const text = rt.value_exact<std::string>();
         auto const value = text ? parseRouteTarget(*text) : std::nullopt;
         if (!value) {
            check.error(Checker::lineOf(rt) ? Checker::lineOf(rt) : Checker::lineOf(n),
                        "a route target is AS:NUMBER (AS up to 65535, NUMBER up to 4294967295), "
                        "IPV4:NUMBER or AS4:NUMBER (AS above 65535, NUMBER up to 65535), not " +
                            (text ? "\"" + *text + "\"" : std::string("a value of another type")));
         } else if (std::find(vrf.importRouteTargets.begin(), vrf.importRouteTargets.end(), *value) ==
                    vrf.importRouteTargets.end()) {
            vrf.importRouteTargets.push_back(*value);
         }
      }
   }
}

// One [[vrf]] table.
VrfConfig readVrf(Checker& check, toml::table const& t) {
   VrfConfig vrf;
   vrf.line = Checker::lineOf(t);
   check.onlyKeys(t, {"name", "id", "import-route-targets"}, "[[vrf]]");
   if (auto const* n = t.get("name")) {
      if (auto name = check.string(*n, "name")) {
         if (name->empty() || name->size() > kMaxVrfName) {
            check.error(*n, "a VRF name has 1 to " + std::to_string(kMaxVrfName) + " bytes");
         } else if (*name == "default") {
            check.error(*n, "the VRF name \"default\" is the default VRF's");
         } else {
            vrf.name = *name;
         }
      }
   } else {
      check.error(vrf.line, "a [[vrf]] needs a name");
   }
   if (auto const* n = t.get("id")) {
      if (auto id = check.integer(*n, "id", 1, kMaxVrfId)) vrf.id = static_cast<std::uint32_t>(*id);
   }
   if (auto const* n = t.get("import-route-targets")) readRouteTargets(check, *n, vrf);
   return vrf;
}

// VRFs without an id get the lowest free ones, in file order.
void assignVrfIds(std::vector<VrfConfig>& vrfs) {
   std::uint32_t next = 1;
   for (auto& vrf : vrfs) {
      if (vrf.id) continue;
      auto taken = [&](std::uint32_t id) {
         return std::any_of(vrfs.begin(), vrfs.end(), [id](VrfConfig const& o) { return o.id == id; });
      };
      while (taken(next)) ++next;
      vrf.id = next++;
   }
}

// [[vrf]] tables: names, ids (assigned from 1 when left out) and imported route targets.
void readVrfs(Checker& check, toml::table const& root, AgentConfig& config) {
   auto const* v = root.get("vrf");
   if (!v) return;
   auto const* list = v->as_array();
   if (!list || !list->is_array_of_tables()) {
      check.error(*v, "VRFs are written as [[vrf]] tables");
      return;
   }
   for (auto const& item : *list) {
      VrfConfig vrf = readVrf(check, *item.as_table());
      for (auto const& other : config.vrfs) {
         if (!vrf.name.empty() && other.name == vrf.name) {
            check.error(vrf.line, "VRF " + vrf.name + " is already defined on line " + std::to_string(other.line));
         }
         if (vrf.id && other.id == vrf.id) {
            check.error(vrf.line, "VRF id " + std::to_string(*vrf.id) + " is already VRF " + other.name + "'s");
         }
      }
      config.vrfs.push_back(std::move(vrf));
   }
   assignVrfIds(config.vrfs);
}

// One [[rule]] table: family, match and then, read into the rule they make.
std::optional<RuleConfig> readRule(Checker& check, toml::table const& t) {
   std::uint32_t const line = Checker::lineOf(t);
   check.onlyKeys(t, {"family", "match", "then"}, "[[rule]]");
   std::optional<AfiSafi> family;
   if (auto const* v = t.get("family")) {
      if (auto name = check.string(*v, "family")) {
         family = ruleFamilyOf(*name);
         if (!family || name->find('-') == std::string::npos) {
            family.reset();
            check.error(*v, "a rule's family is \"ipv4-flowspec\" or \"ipv6-flowspec\", not \"" + *name + "\"");
         }
      }
   } else {
      check.error(line, "a [[rule]] needs a family (\"ipv4-flowspec\" or \"ipv6-flowspec\")");
   }
   std::optional<std::string> match;
   toml::node const* matchNode = t.get("match");
   if (matchNode) {
      match = check.string(*matchNode, "match");
   } else {
      check.error(line, "a [[rule]] needs a match (rule text, docs/rule-grammar.md)");
   }
   std::vector<std::string> then;
   toml::node const* thenNode = t.get("then");
   bool thenOk = thenNode != nullptr;
   if (!thenNode) {
      check.error(line, "a [[rule]] needs then, a list of actions such as [\"discard\"]");
   } else if (auto const* list = thenNode->as_array()) {
      for (auto const& item : *list) {
         auto const s = item.value_exact<std::string>();
         if (!s) {
            check.error(Checker::lineOf(item) ? Checker::lineOf(item) : Checker::lineOf(*thenNode),
                        "then holds action strings such as \"discard\" or \"rate-limit 125000\"");
            thenOk = false;
         } else {
            then.push_back(*s);
         }
      }
   } else {
      check.error(*thenNode, "then must be a list of actions such as [\"discard\"]");
      thenOk = false;
   }
   if (!family || !match || !thenOk) return std::nullopt;
   auto rule = originatedRuleOf(*family, *match, then);
   if (!rule) {
      // A mistake in the match is on the match's line; one in the actions on then's.
      bool const inMatch = rule.reason().rfind("match: ", 0) == 0;
      bool const inThen = rule.reason().rfind("then: ", 0) == 0;
      std::uint32_t const at = inMatch ? Checker::lineOf(*matchNode) : inThen ? Checker::lineOf(*thenNode) : line;
      check.error(at, "rule " + rule.reason());
      return std::nullopt;
   }
   return RuleConfig{std::move(rule.value()), line};
}

// [[rule]] tables: rules the agent originates, one per family and match.
void readRules(Checker& check, toml::table const& root, AgentConfig& config) {
   auto const* v = root.get("rule");
   if (!v) return;
   auto const* list = v->as_array();
   if (!list || !list->is_array_of_tables()) {
      check.error(*v, "rules are written as [[rule]] tables");
      return;
   }
   for (auto const& item : *list) {
      auto rule = readRule(check, *item.as_table());
      if (!rule) continue;
      auto const same = std::find_if(config.rules.begin(), config.rules.end(), [&](RuleConfig const& o) {
         return o.rule.family == rule->rule.family && o.rule.match == rule->rule.match;
      });
      if (same != config.rules.end()) {
         check.error(rule->line, "rule " + familyName(rule->rule.family) + " " + rule->rule.match +
                                     " is already defined on line " + std::to_string(same->line));
         continue;
      }
      config.rules.push_back(std::move(*rule));
   }
}

} // namespace

std::string pluginPathIn(std::string_view dir) { return std::string(dir) + "/" + kPluginLibrary; }

std::string defaultPluginPath() { return pluginPathIn(FS_DEFAULT_PLUGIN_DIR); }

std::string ConfigError::str() const {
   if (line == 0) return file + ": " + text;
   return file + ":" + std::to_string(line) + ": " + text;
}

Ovk::Result<AgentConfig, ConfigErrors> parseConfig(std::string_view text, std::string const& fileName) {
   Checker check(fileName);
   toml::parse_result parsed = toml::parse(text, fileName);
   if (!parsed) {
      auto const& e = parsed.error();
      check.error(e.source().begin.line, "TOML syntax error at column " + std::to_string(e.source().begin.column) +
                                             ": " + std::string(e.description()));
      return Ovk::failure(check.take());
   }
   toml::table const& root = parsed.table();
   AgentConfig config;
   config.source = fileName;
   check.onlyKeys(
       root,
       {"router-id", "local-as", "listen", "control-socket", "plugin-dir", "fsib-prefix", "api-listen",
        "api-rule-lifetime", "metrics-listen", "neighbor", "vrf", "rule"},
       "");
   readGlobals(check, root, config);
   readNeighbors(check, root, config);
   readVrfs(check, root, config);
   readRules(check, root, config);
   if (!check.clean()) return Ovk::failure(check.take());
   return config;
}

Ovk::Result<AgentConfig, ConfigErrors> loadConfigFile(std::string const& path) {
   std::ifstream in(path, std::ios::binary);
   std::ostringstream text;
   if (in) text << in.rdbuf();
   if (!in || in.bad()) {
      return Ovk::failure(ConfigErrors{{path, 0, "cannot read the file"}});
   }
   return parseConfig(text.str(), path);
}

std::string_view embeddedDefaultConfig() { return kDefaultConfig; }

NeighborChanges neighborChanges(NeighborConfig const& from, NeighborConfig const& to) {
   NeighborChanges c;
   auto const families = [](std::vector<AfiSafi> const& fs) {
      std::string text;
      for (AfiSafi const f : fs) text += (text.empty() ? "" : ",") + familyName(f);
      return "[" + text + "]";
   };
   auto const address = [](std::optional<Ovnet::IpGenAddr> const& a) { return a ? a->str() : std::string("none"); };
   auto const note = [](std::vector<std::string>& list, char const* key, std::string const& a, std::string const& b) {
      if (a != b) list.push_back(std::string(key) + " " + a + " -> " + b);
   };
   note(c.reset, "remote-as", std::to_string(from.remoteAs), std::to_string(to.remoteAs));
   note(c.reset, "port", std::to_string(from.port), std::to_string(to.port));
   note(c.reset, "hold-time", std::to_string(from.holdTime), std::to_string(to.holdTime));
   note(c.reset, "families", families(from.families), families(to.families));
   note(c.reset, "passive", from.passive ? "true" : "false", to.passive ? "true" : "false");
   note(c.reset, "local-address", address(from.localAddress), address(to.localAddress));
   note(c.inPlace, "description", "\"" + from.description + "\"", "\"" + to.description + "\"");
   note(c.inPlace, "connect-retry", std::to_string(from.connectRetrySeconds), std::to_string(to.connectRetrySeconds));
   note(c.inPlace, "min-route-advertisement-interval", std::to_string(from.minRouteAdvertisementSeconds),
        std::to_string(to.minRouteAdvertisementSeconds));
   return c;
}

std::optional<Ovnet::IpGenAddr> sourceAddress(AgentConfig const& config, NeighborConfig const& n) {
   if (n.localAddress) return n.localAddress;
   for (auto const& e : config.listen) {
      if (e.address.af() != n.address.af()) continue;
      bool const wildcard =
          std::all_of(e.address.bytes().begin(), e.address.bytes().end(), [](std::uint8_t b) { return b == 0; });
      if (!wildcard) return e.address;
   }
   return std::nullopt;
}

} // namespace Flowspecd
