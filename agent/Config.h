// The agent's configuration: a TOML file.
//
//   router-id = "192.0.2.1"            # BGP identifier (IPv4 address form), required
//   local-as = 65001                   # 1 to 4294967295, not 23456, required
//   listen = ["127.0.0.1:1179", "[::1]:1179"]   # "ADDR[:PORT]", port 179 when left out
//   control-socket = "/tmp/flowspecd.sock"
//   plugin-dir = "/usr/lib/flowspecd"   # where libBgpFlowspec.so is; the build's by default
//   fsib-prefix = "flowspecd"          # the FSIB's shared-memory name starts /PREFIX.
//   api-listen = "127.0.0.1:50051"     # the controllers' gRPC API (agent/api/ApiServer.h), or
//                                      # "unix:/run/flowspecd-api.sock"; off when left out
//   api-rule-lifetime = "1h"           # rules added through the API withdraw themselves after
//                                      # this ("90s", "15m", "2h", "1d"); forever when left out
//   metrics-listen = "127.0.0.1:9179"  # Prometheus metrics at http://ADDR:PORT/metrics; off
//                                      # when left out
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
//   families = ["ipv4-flowspec", "ipv6-flowspec"]
//   description = "edge router"
//   local-address = "127.0.0.1"        # source of our connections; see sourceAddress()
//   connect-retry = 10                 # seconds between connection attempts, 1 to 65535
//   min-route-advertisement-interval = 0   # seconds, 0 to 600: changes sent at most this often
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
// parseConfig reports every mistake it finds, each with the file, the line and what is
// wrong, and yields no configuration when there is any.
#pragma once

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
   std::uint32_t line = 0; // where its table starts
};

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
struct NeighborChanges {
   std::vector<std::string> reset;
   std::vector<std::string> inPlace;
   bool empty() const { return reset.empty() && inPlace.empty(); }
};
NeighborChanges neighborChanges(NeighborConfig const& from, NeighborConfig const& to);

// The local address our connections to `n` start from: its local-address, else the first
// listen address of the same family that is not a wildcard; nothing lets the kernel choose.
std::optional<Ovnet::IpGenAddr> sourceAddress(AgentConfig const& config, NeighborConfig const& n);

} // namespace Flowspecd
