// The agent's configuration: a TOML file.
//
//   router-id = "192.0.2.1"            # BGP identifier (IPv4 address form), required
//   local-as = 65001                   # 1 to 4294967295, not 23456, required
//   listen = ["127.0.0.1:1179", "[::1]:1179"]   # "ADDR[:PORT]", port 179 when left out
//   control-socket = "/tmp/flowspecd.sock"
//   plugin-dir = "/usr/lib/flowspecd"   # where libBgpFlowspec.so is; the build's by default
//   fsib-prefix = "flowspecd"          # the FSIB's shared-memory name starts /PREFIX.
//   max-rules = 100000                 # the rules every neighbor together may hold (both
//                                      # families counted together); past it, rules are refused
//   max-rules-warning = 75             # percent of max-rules whose reaching is logged (1-100)
//   api-listen = "127.0.0.1:50051"     # the controllers' gRPC API (agent/api/ApiServer.h), or
//                                      # "unix:/run/flowspecd-api.sock"; off when left out
//   api-rule-lifetime = "1h"           # rules added through the API withdraw themselves after
//                                      # this ("90s", "15m", "2h", "1d"); forever when left out
//   metrics-listen = "127.0.0.1:9179"  # Prometheus metrics at http://ADDR:PORT/metrics; off
//                                      # when left out
//
//   [[import-policy]]                  # a policy neighbors may refer to by name
//   name = "customer"                  # required, unique
//   allowed-destinations = [...]       # as in [[neighbor]] below
//   allowed-actions = [...]
//   minimum-rate = 1000
//
//   [[vrf]]                            # where redirect-to-VRF communities lead
//   name = "scrubbing"                 # 1 to 100 bytes, unique, not "default"
//   id = 10                            # 1 to 16777214; the lowest free one when left out
//   import-route-targets = ["65000:100", "192.0.2.1:7", "4200000000:1"]
//
//   [[neighbor]]
//   address = "127.0.0.2"              # IPv4 or IPv6, required, unique
//   port = 179                         # the peer's port we connect to
//   remote-as = 65002                  # required
//   passive = false                    # true: never connect, only accept
//   hold-time = 90                     # 0 (no keepalives) or 3 to 65535 seconds
//   families = ["ipv4-flowspec", "ipv6-flowspec"]   # also "ipv4-unicast", "ipv6-unicast"
//   description = "edge router"
//   local-address = "127.0.0.1"        # source of our connections; see sourceAddress()
//   connect-retry = 10                 # seconds between connection attempts, 1 to 65535
//   min-route-advertisement-interval = 0   # seconds, 0 to 600: changes sent at most this often
//   # What the neighbor's rules may be (host/bgp/ImportPolicy.h); a rule refused is refused
//   # whole, counted per reason and shown (`flowspec show flowspec ipv4 refused ADDR`):
//   import-policy = "customer"         # the [[import-policy]] of that name; the neighbor's own
//                                      # keys below take precedence over its keys, one by one
//   allowed-destinations = ["10.0.0.0/8 le 32", "2001:db8::/32 ge 48 le 128"]
//                                      # "PREFIX [ge N] [le M]": the rule's destination prefix
//                                      # must lie in PREFIX with a length from ge to le (PREFIX's
//                                      # own length alone without them); each family takes its
//                                      # own entries, a family without any takes no rule; a rule
//                                      # without a destination only with an entry of length 0
//   allowed-actions = ["discard", "rate-limit"]   # the [[rule]] action names; a rule with
//                                      # any other action is refused
//   minimum-rate = 1000                # bytes per second: a rate-limit below is refused
//   max-rules = 50                     # rules the neighbor may hold, each family on its own
//   max-rules-action = "discard"       # past max-rules: "warning" (log, keep), "discard"
//                                      # (refuse the rules beyond), "teardown" (Cease 6/1)
//   max-rules-restart = 60             # teardown: seconds the neighbor stays down, 1 to 86400
//   max-rules-warning = 75             # percent of max-rules whose reaching is logged (1-100)
//   validate = true                    # flowspec rules only where the neighbor routes their
//                                      # destination (RFC 8955 section 6, RFC 9117); by default
//                                      # on for an external neighbor when any neighbor's
//                                      # families hold ipv4-unicast or ipv6-unicast, else off.
//                                      # Unicast routes are learnt for this alone: kept and
//                                      # shown, neither installed nor advertised.
//   # Session security. A change of these starts the session again.
//   password = "secret"                # TCP MD5 signature key (RFC 2385), 1 to 80 bytes; never
//                                      # logged or shown; a file holding one that other users
//                                      # may read is warned of at start
//   ttl-security = false               # GTSM (RFC 5082): send with TTL (hop limit) 255 and take
//   ttl-security-hops = 0              # only segments that arrive with at least 255 minus the
//                                      # router hops between (0 to 254; 0: directly connected)
//
//   [[rule]]                           # a flowspec rule the agent originates
//   family = "ipv4-flowspec"           # or "ipv6-flowspec", required
//   match = "destination 192.0.2.0/24 protocol tcp destination-port =80"   # docs/rule-grammar.md
//   then = ["rate-limit 125000", "mark 10"]   # at least one action; each of: "discard",
//                                      # "rate-limit BYTES_PER_SECOND", "mark DSCP" (0-63),
//                                      # "sample", "terminal", "redirect-vrf RT" (the forms of
//                                      # import-route-targets), "redirect-ip ADDR [copy]" (an
//                                      # address of the rule's family), "redirect-nexthop [ADDR]"
//                                      # (agent/OriginatedRule.h); one rule per match and family
//
//   [graceful-restart]                 # RFC 4724, with RFC 8538's N bit; every key optional
//   enabled = true                     # advertise the capability for the session's families:
//                                      # a restarting peer's rules stay (stale) until it is back
//                                      # and sent End-of-RIB, and our own restart keeps forwarding
//   restart-time = 120                 # seconds peers are asked to keep our rules while we
//                                      # restart, 0 to 4095
//   stale-routes-time = 360            # seconds a peer that came back has to send End-of-RIB
//                                      # before its stale rules go anyway, 1 to 65535
//   selection-deferral-time = 120      # seconds a restart of ours waits at most for End-of-RIB
//                                      # from every peer before the FSIB is said converged,
//                                      # 1 to 65535
//   notification = true                # the N bit: a NOTIFICATION other than Hard Reset
//                                      # restarts gracefully too
//
// parseConfig reports every mistake it finds, each with the file, the line and what is
// wrong, and yields no configuration when there is any.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/ControlProtocol.h"
#include "agent/OriginatedRule.h"
#include "host/bgp/BgpMessage.h"
#include "host/bgp/ExtComm.h"
#include "host/bgp/ImportPolicy.h"
#include "host/fwk/Result.h"
#include "host/net/Endpoint.h"
#include "host/net/IpGenAddr.h"

namespace Flowspecd {

// The agent speaks the host's BGP by its own names (messages, families, peers, the RIB).
using namespace Routing::Bgp;

constexpr std::uint16_t kBgpPort = 179;
constexpr char const* kPluginLibrary = "libBgpFlowspec.so";
// The plugin library in `dir`.
std::string pluginPathIn(std::string_view dir);
// The plugin library of the build (or installation) the agent came from.
std::string defaultPluginPath();

using Ovnet::Endpoint;
// "ADDR", "ADDR:PORT", "[V6ADDR]" or "[V6ADDR]:PORT", port 179 when it names none.
inline std::optional<Endpoint> parseEndpoint(std::string_view text) { return Ovnet::parseEndpoint(text, kBgpPort); }

struct NeighborConfig {
   Ovnet::IpGenAddr address;
   std::uint16_t port = kBgpPort;
   std::uint32_t remoteAs = 0;
   bool passive = false;
   std::uint16_t holdTime = 90;
   std::vector<AfiSafi> families{kIpv4Flowspec, kIpv6Flowspec};
   std::string description;
   std::optional<Ovnet::IpGenAddr> localAddress;
   std::uint16_t connectRetrySeconds = 10;
   std::uint16_t minRouteAdvertisementSeconds = 0;
   // What its rules may be; nothing limits them by default.
   std::string importPolicy; // the name of the [[import-policy]] it refers to, if any
   ImportPolicy::Options policy;
   std::optional<RuleLimit> maxRules;
   // Validation of its rules against the unicast table; nothing: the default (on for an
   // external neighbor when some neighbor sends unicast, off otherwise).
   std::optional<bool> validate;
   // Session security: the TCP MD5 key (empty: none; never logged or shown) and GTSM.
   std::string password;
   bool ttlSecurity = false;
   std::uint8_t ttlSecurityHops = 0;
   std::uint32_t line = 0; // where its table starts
   // True when the neighbor's rules are limited by policy or by a limit of its own.
   bool importLimited() const {
      return policy.destinations || policy.actions || policy.minimumRate || maxRules.has_value();
   }
   bool sendsUnicast() const {
      return std::find(families.begin(), families.end(), kIpv4Unicast) != families.end() ||
             std::find(families.begin(), families.end(), kIpv6Unicast) != families.end();
   }
};

// TCP_MD5SIG_MAXKEYLEN: the longest key the kernel takes.
inline constexpr std::size_t kMaxPasswordBytes = 80;

inline constexpr std::size_t kMaxVrfName = 100;
inline constexpr std::int64_t kMaxVrfId = 0xfffffe; // 0 is the default VRF, 0xffffff means none

struct VrfConfig {
   std::string name;
   std::optional<std::uint32_t> id;               // set for every VRF of a parsed configuration
   std::vector<std::uint64_t> importRouteTargets; // route-target extended communities
   std::uint32_t line = 0;
};

// One [[rule]]: what was written, and the rule read from it.
struct RuleConfig {
   OriginatedRule rule;
   std::uint32_t line = 0;
};

// [graceful-restart]. Kept apart from the other keys: its users are the sessions' OPEN, the
// helper side of BgpRouting and the agent's start.
struct GracefulRestartConfig {
   bool enabled = true;
   std::uint16_t restartTime = 120;
   std::uint16_t staleRoutesTime = 360;
   std::uint16_t selectionDeferralTime = 120;
   bool notification = true;
   std::uint32_t line = 0; // where the table starts; 0 when there is none
   friend bool operator==(GracefulRestartConfig const& a, GracefulRestartConfig const& b) {
      return a.enabled == b.enabled && a.restartTime == b.restartTime && a.staleRoutesTime == b.staleRoutesTime &&
             a.selectionDeferralTime == b.selectionDeferralTime && a.notification == b.notification;
   }
};

struct AgentConfig {
   std::string source; // file name, or "<built-in>"
   std::uint32_t routerId = 0;
   std::uint32_t localAs = 0;
   std::vector<Endpoint> listen;
   std::string controlSocket = kDefaultControlSocket;
   std::string pluginPath = defaultPluginPath();
   std::string fsibPrefix = "flowspecd";
   std::vector<NeighborConfig> neighbors;
   std::vector<VrfConfig> vrfs;
   std::vector<RuleConfig> rules;
   // The limit of every neighbor's rules together (action discard); none by default.
   std::optional<RuleLimit> maxRules;
   GracefulRestartConfig gracefulRestart;
   std::string apiListen; // empty: no API
   std::optional<std::chrono::seconds> apiRuleLifetime;
   std::optional<Endpoint> metricsListen;
};
inline constexpr std::uint16_t kApiPort = 50051;
inline constexpr std::uint16_t kMetricsPort = 9179;

struct ConfigError {
   std::string file;
   std::uint32_t line = 0; // 0: the file as a whole
   std::string text;
   // "file:line: text" ("file: text" without a line).
   std::string str() const;
};
using ConfigErrors = std::vector<ConfigError>;

Ovk::Result<AgentConfig, ConfigErrors> parseConfig(std::string_view text, std::string const& fileName);
// Reads and parses a file; a file that cannot be read is one error without a line.
Ovk::Result<AgentConfig, ConfigErrors> loadConfigFile(std::string const& path);

// The configuration the agent runs on when given no file: it listens on loopback port 1179
// and waits, passively, for one neighbor.
std::string_view embeddedDefaultConfig();
inline constexpr char const* kEmbeddedConfigName = "<built-in>";

// What differs between two configurations of one neighbor, in the words of the file
// ("remote-as 65002 -> 65003"): the changes a session must start again for (the OPEN and the
// connection carry them), and those it takes as it runs.
// A change of what the neighbor may import is in place; `importChanged` says there is one.
// Passwords are named, never shown ("password changed").
struct NeighborChanges {
   std::vector<std::string> reset;
   std::vector<std::string> inPlace;
   bool importChanged = false;
   bool empty() const { return reset.empty() && inPlace.empty(); }
};
NeighborChanges neighborChanges(NeighborConfig const& from, NeighborConfig const& to);

// The warning a configuration file earns when it holds a password and users other than its
// owner may read it ("" when it does not): other users would learn the session keys.
std::string passwordExposure(AgentConfig const& config);

// The local address our connections to `n` start from: its local-address, else the first
// listen address of the same family that is not a wildcard; nothing lets the kernel choose.
std::optional<Ovnet::IpGenAddr> sourceAddress(AgentConfig const& config, NeighborConfig const& n);

} // namespace Flowspecd
