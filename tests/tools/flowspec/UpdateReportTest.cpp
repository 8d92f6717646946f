#include "tools/flowspec/UpdateReport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "BgpFlowspec/FlowspecRouteKey.h"
#include "host/flowspec/FlowspecKey.h"
#include "tests/host/bgp/UpdateBuilder.h"

namespace {

using namespace FlowspecTool;
using namespace BgpTest;
using json = nlohmann::ordered_json;
using Routing::Bgp::FlowspecPlugin::FlowspecRouteKey;

std::string const kTestData = FS_TESTDATA_DIR;

std::vector<json> records() {
   std::vector<json> out;
   std::ifstream in(kTestData + "/flowspec-nlri.jsonl");
   for (std::string line; std::getline(in, line);) out.push_back(json::parse(line));
   return out;
}

// ---- What the speakers were told to send ----
//
// The match part of each speaker's command is read by the rule grammar; the action part is
// turned into the extended communities the standards give for it (RFC 8955 section 7,
// RFC 8956 section 6, RFC 7674), as hex, sorted.

std::string u16Hex(std::uint32_t v) {
   return hexText(Bytes{static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v)});
}
std::string u32Hex(std::uint32_t v) { return u16Hex(v >> 16) + u16Hex(v & 0xffff); }
std::string rateHex(std::string const& n, std::uint32_t as = 0) {
   return "8006" + u16Hex(as) + u32Hex(std::bit_cast<std::uint32_t>(std::stof(n)));
}
std::string addrHex(std::string const& text) {
   auto const a = Ovnet::IpGenAddr::parse(text);
   if (!a) return "?" + text;
   return hexText(a->bytes());
}
std::string actionHex(std::string const& a) {
   return "8007" + u32Hex(0) + u16Hex(a == "sample-terminal" ? 3 : a == "terminal" ? 1 : a == "sample" ? 2 : 0);
}
// "redirect TARGET:N" in the forms operators write.
std::string redirectHex(std::string const& target) {
   std::size_t const colon = target.rfind(':');
   std::string const global = target.substr(0, colon);
   auto const local = static_cast<std::uint32_t>(std::stoul(target.substr(colon + 1)));
   if (global.find(':') != std::string::npos) return "000d" + addrHex(global) + u16Hex(local); // RFC 8956
   if (std::count(global.begin(), global.end(), '.') == 3) return "8108" + addrHex(global) + u16Hex(local);
   if (std::size_t const dot = global.find('.'); dot != std::string::npos) { // asdot
      return "8208" +
             u32Hex(static_cast<std::uint32_t>(std::stoul(global.substr(0, dot)) << 16 |
                                               std::stoul(global.substr(dot + 1)))) +
             u16Hex(local);
   }
   auto const as = std::stoul(global);
   return as > 0xffff ? "8208" + u32Hex(static_cast<std::uint32_t>(as)) + u16Hex(local)
                      : "8008" + u16Hex(static_cast<std::uint32_t>(as)) + u32Hex(local);
}

struct Told {
   std::string match;
   std::vector<std::string> communities; // sorted hex
   std::string nextHop;                  // an address the speaker was told to use, or ""
};

Told told(json const& r) {
   std::string const source = r["source"];
   std::string const input = r["input"];
   Told t;
   std::smatch m;
   std::vector<std::string> words;
   if (source == "gobgp") {
      std::regex_search(input, m, std::regex("match (.*?)(?: then (.*))?$"));
      t.match = m[1];
      std::istringstream is(m[2].str());
      for (std::string w; is >> w;) words.push_back(w);
      for (std::size_t i = 0; i < words.size(); ++i) {
         if (words[i] == "discard") t.communities.push_back(rateHex("0"));
         if (words[i] == "rate-limit") {
            bool const as = i + 3 < words.size() && words[i + 2] == "as";
            t.communities.push_back(
                rateHex(words[i + 1], as ? static_cast<std::uint32_t>(std::stoul(words[i + 3])) : 0));
         }
         if (words[i] == "redirect") t.communities.push_back(redirectHex(words[i + 1]));
         if (words[i] == "mark")
            t.communities.push_back("8009" + u32Hex(0) + u16Hex(static_cast<std::uint32_t>(std::stoul(words[i + 1]))));
         if (words[i] == "action") t.communities.push_back(actionHex(words[i + 1]));
      }
   } else if (source == "bird") {
      std::regex_search(input, m, std::regex(R"(route flow[46] \{ (.*?)\} \{)"));
      t.match = m[1];
      std::regex const generic(R"(\(generic, (0x[0-9a-f]+|\d+), (0x[0-9a-f]+|\d+)\))");
      for (auto it = std::sregex_iterator(input.begin(), input.end(), generic); it != std::sregex_iterator(); ++it) {
         t.communities.push_back(u32Hex(static_cast<std::uint32_t>(std::stoul((*it)[1], nullptr, 0))) +
                                 u32Hex(static_cast<std::uint32_t>(std::stoul((*it)[2], nullptr, 0))));
      }
   } else {
      std::regex_search(input, m, std::regex(R"(match \{ (.*?)\} then \{ (.*)\} \})"));
      t.match = m[1];
      std::smatch nh;
      if (std::regex_search(input, nh, std::regex(R"(next-hop ([^;]+);)"))) t.nextHop = nh[1];
      std::string const actions = m[2];
      std::regex const statement(R"(\s*([^;]+);)");
      for (auto it = std::sregex_iterator(actions.begin(), actions.end(), statement); it != std::sregex_iterator();
           ++it) {
         std::istringstream is((*it)[1].str());
         std::string verb, arg;
         is >> verb >> arg;
         if (verb == "discard") t.communities.push_back(rateHex("0"));
         if (verb == "rate-limit") t.communities.push_back(rateHex(arg));
         if (verb == "redirect") t.communities.push_back(redirectHex(arg));
         if (verb == "mark")
            t.communities.push_back("8009" + u32Hex(0) + u16Hex(static_cast<std::uint32_t>(std::stoul(arg))));
         if (verb == "action") t.communities.push_back(actionHex(arg));
         if (verb == "redirect-to-nexthop") t.communities.push_back("0800" + u32Hex(0) + u16Hex(0));
         if (verb == "copy") {
            t.communities.push_back("0800" + u32Hex(0) + u16Hex(1));
            t.nextHop = arg;
         }
         if (verb == "redirect-to-nexthop-ietf") {
            bool const v6 = arg.find(':') != std::string::npos;
            t.communities.push_back((v6 ? "000c" : "010c") + addrHex(arg) + "0000");
         }
         if (verb == "extended-community") {
            for (std::string w; is >> w;) {
               if (w.starts_with("0x")) t.communities.push_back(w.substr(2));
            }
         }
      }
   }
   std::sort(t.communities.begin(), t.communities.end());
   return t;
}

// Where a speaker sent something else than it was told (testdata README, facts 7 and 8):
// GoBGP writes a 4-octet AS redirect as a 2-octet one with AS 65535, and an IPv6 redirect
// by route target under the legacy type 0x800b.
std::map<std::string, std::vector<std::string>> const kSentInstead = {
    {"gobgp-v4-5-0000", {"8008ffff00000007"}},
    {"gobgp-v4-6-0000", {"8008ffff00000009"}},
    {"gobgp-v4-23-0000", {"800b20010db80000000000000000000000010064"}},
    {"gobgp-v6-47-0000", {"8006000047435000", "800b20010db8000000000000000000000002ffff"}},
};

// Records whose NLRI do not follow the RFCs: what the decoder makes of their UPDATE, as
// "outcome: reason reason ...".
std::map<std::string, std::string> const kMalformed = {
    // GoBGP's long rules: a 4-byte length 00 00 00 xx; three empty rules, then a length
    // past the attribute.
    {"gobgp-v4-35-0000", "session-reset: 216"},
    {"gobgp-v4-59-0000", "session-reset: 216"},
    {"gobgp-v4-36-0000", "session-reset: 216"},
    // f0 0a frames ten bytes; from there the rule's bytes frame as NLRI of their own, some
    // refused within their length, until a length runs past the attribute.
    {"gobgp-v4-37-0000", "session-reset: 226 226 226 226 226 226 226 226 216 216 216"},
    // 00 00, 01 18 (a tail), 00, then an offset above its mask, a 4-byte ICMP code, and a
    // length past the attribute.
    {"gobgp-v6-54-0000", "session-reset: 222 226 216"},
    // The whole IPv6 prefix instead of the pattern after the offset: refused within the
    // NLRI's length.
    {"gobgp-v6-41-0000", "treat-as-withdraw: 218"},
    {"gobgp-v6-57-0000", "treat-as-withdraw: 218"},
    {"gobgp-v6-42-0000", "treat-as-withdraw: 218"},
    {"gobgp-v6-43-0000", "treat-as-withdraw: 218"},
    {"exabgp-v6-40-0000", "treat-as-withdraw: 218"},
    {"exabgp-v6-55-0000", "treat-as-withdraw: 218"},
};

std::string outcome(json const& u) {
   std::string out = u["outcome"].get<std::string>() + ":";
   for (json const& e : u["errors"]) out += " " + std::to_string(e["reason"].get<unsigned>());
   return out;
}

// Every captured UPDATE decodes; every rule in it is the rule its speaker was told to send,
// with the actions it was told to attach.
TEST(UpdateReportTest, CapturedUpdatesCarryWhatTheSpeakersWereToldToSend) {
   ASSERT_TRUE(std::filesystem::exists(kTestData)) << "no test data at " << kTestData;
   UpdateDecodeSession session;
   int rules = 0;
   for (json const& r : records()) {
      std::string const id = r["id"];
      SCOPED_TRACE(id + ": " + r["input"].get<std::string>().substr(0, 150));
      Bytes const message = hexBytes(r["update_hex"].get<std::string>());
      json const u = session.updateJson(session.decoder().decode(message), 1, nullptr);
      EXPECT_EQ(u["afi"], r["afi"]);
      EXPECT_EQ(u["safi"], 133);
      if (r["malformed"].get<bool>()) {
         EXPECT_EQ(outcome(u), kMalformed.at(id));
         continue;
      }
      ASSERT_EQ(outcome(u), "accept:") << u.dump();
      bool const withdraw = r["withdraw"];
      json const& list = u[withdraw ? "withdrawn" : "announced"];
      ASSERT_EQ(list.size(), r["nlri_count_in_update"].get<std::size_t>());
      json const& nlri = list.at(r["nlri_index_in_update"].get<std::size_t>());
      ASSERT_TRUE(nlri["ok"].get<bool>());
      EXPECT_EQ(nlri["nlri"], r["nlri_hex"]);

      Told const t = told(r);
      // The key the NLRI became is the one the speaker's match words give (an IPv6 offset
      // is not part of the rule text: there the offset itself is compared).
      auto const* key = dynamic_cast<FlowspecRouteKey const*>(
          session.decoder().decode(message).nlri.at(r["nlri_index_in_update"].get<std::size_t>()).routeKey.ptr());
      ASSERT_NE(key, nullptr);
      std::smatch offset;
      if (std::regex_search(t.match, offset, std::regex(R"(offset (\d+))"))) {
         unsigned const got = std::max(key->destPrefixOffset(), key->srcPrefixOffset());
         EXPECT_EQ(got, std::stoul(offset[1]));
         EXPECT_TRUE(key->wontExportReason().nonZeroIpv6Offset());
      } else {
         Flowspec::FlowspecKey fromText;
         fromText.afIs(r["afi"] == 1 ? Ovnet::AddressFamily::ipv4 : Ovnet::AddressFamily::ipv6);
         std::string whyNot;
         ASSERT_TRUE(fromText.copyInStrCli(t.match, &whyNot)) << whyNot;
         EXPECT_EQ(key->slateKey(), fromText) << key->toStrepCli() << " vs " << fromText.toStrepCli();
      }
      ++rules;
      if (withdraw) continue;
      std::vector<std::string> sent;
      for (json const& c : u["extendedCommunities"]) sent.push_back(c["hex"]);
      std::sort(sent.begin(), sent.end());
      auto const instead = kSentInstead.find(id);
      EXPECT_EQ(sent, instead == kSentInstead.end() ? t.communities : instead->second);
      EXPECT_EQ(u["nextHop"], r["next_hop_hex"]);
      if (!t.nextHop.empty()) {
         auto const nh = session.decoder().decode(message).attributes->nexthop();
         ASSERT_NE(nh, nullptr);
         EXPECT_EQ(nh->addrOrNone().str(), t.nextHop);
      }
   }
   EXPECT_EQ(rules, 99);
}

// The decoded communities name their kind and values.
TEST(UpdateReportTest, CommunitiesDecoded) {
   UpdateDecodeSession session;
   Bytes const m = announcing()
                       .extCommunities({0x80060000447a0000ull, 0x8007000000000003ull, 0x800900000000002eull,
                                        0x8008fde800000064ull, 0x8108c0000201007bull, 0x8208000100000009ull,
                                        0x010cc000020a0000ull, 0x0800000000000001ull, 0x0002fde800000001ull})
                       .attr(kOptionalTransitive, 25, "000c20010db80000000000000000000000480000")
                       .mpReach(1, 133, "", "00")
                       .build();
   json const u = session.updateJson(session.decoder().decode(m), 1, nullptr);
   std::vector<std::string> got;
   for (json const& c : u["extendedCommunities"])
      got.push_back(c["kind"].get<std::string>() + " " + c["fields"].dump());
   EXPECT_EQ(got, (std::vector<std::string>{
                      R"(traffic-rate {"as":0,"rateBytesPerSec":1000})",
                      R"(traffic-action {"sample":true,"terminal":true})",
                      R"(traffic-marking {"dscp":46})",
                      R"(redirect-vrf {"routeTarget":"65000:100","as":65000,"local":100,"as4":false})",
                      R"(redirect-vrf {"routeTarget":"192.0.2.1:123","address":"192.0.2.1","local":123})",
                      R"(redirect-vrf {"routeTarget":"65536.4:9","as":65536,"local":9,"as4":true})",
                      R"(redirect-ipv4 {"address":"192.0.2.10","copy":false})",
                      R"(redirect-nexthop {"copy":true})",
                      R"(route-target {"as":65000,"local":1})",
                      R"(redirect-ipv6 {"address":"2001:db8::48","copy":false})",
                  }));
}

// The documented keys, in the documented order (docs/decode-update.md).
TEST(UpdateReportTest, JsonSchema) {
   UpdateDecodeSession session;
   Bytes const m = announcing().mpReach(1, 133, "c0000201", "00 03012100").build();
   MessageOrigin const origin{1.5, "10.0.0.1:179", "10.0.0.2:50000"};
   json const u = session.updateJson(session.decoder().decode(m), 7, &origin);
   std::vector<std::string> keys;
   for (auto const& [k, v] : u.items()) keys.push_back(k);
   EXPECT_EQ(keys,
             (std::vector<std::string>{"index", "timestamp", "from", "to", "afi", "safi", "nextHop",
                                       "extendedCommunities", "announced", "withdrawn", "errors", "outcome",
                                       "notification", "endOfRib", "attributes", "ipv4Announced", "ipv4Withdrawn"}));
   EXPECT_EQ(u["nextHop"], "c0000201");
   ASSERT_EQ(u["announced"].size(), 2u);
   EXPECT_EQ(u["announced"][0]["rule"], "*;*;");
   EXPECT_EQ(
       u["announced"][1].dump(),
       R"({"ok":false,"afi":1,"nlri":"03012100","reason":223,"message":"could not parse prefix: invalid masklength "})");
   EXPECT_EQ(
       u["errors"].dump(),
       R"([{"reason":223,"name":"flowspecPrefixInvalid","message":"could not parse prefix: invalid masklength ","action":"treat-as-withdraw","attribute":14,"offset":49,"nlri":"03012100"}])");
   EXPECT_EQ(u["outcome"], "treat-as-withdraw");
   EXPECT_EQ(u["attributes"].dump(), R"({"origin":"igp","asPath":"65001"})");
}

// ---- The command ----

std::string run(std::vector<UpdateInput> const& inputs, bool asJson, int* status, std::string* errors = nullptr) {
   std::ostringstream out, err;
   *status = decodeUpdates(inputs, asJson, out, err);
   if (errors) *errors = err.str();
   return out.str();
}

std::string slurp(std::string const& path) {
   std::ifstream in(path);
   std::ostringstream s;
   s << in.rdbuf();
   return s.str();
}

// Golden reports of the captures of sessions between real speakers. With
// FS_UPDATE_GOLDEN=1 the test writes them instead.
TEST(UpdateReportTest, CapturesOfRealSessionsMatchTheirGoldenReports) {
   ASSERT_TRUE(std::filesystem::exists(kTestData)) << "no test data at " << kTestData;
   struct Golden {
      char const* capture;
      bool asJson;
      char const* file;
   };
   for (Golden const g : {Golden{"peers-pairs.pcap", false, "peers-pairs.txt"},
                          Golden{"peers-verify.pcap", true, "peers-verify.jsonl"}}) {
      SCOPED_TRACE(g.capture);
      int status = -1;
      std::string const got = run({{UpdateInput::Kind::pcap, kTestData + "/" + g.capture}}, g.asJson, &status);
      EXPECT_EQ(status, 0);
      std::string const path = std::string(FS_GOLDEN_DIR) + "/" + g.file;
      if (std::getenv("FS_UPDATE_GOLDEN")) std::ofstream(path) << got;
      EXPECT_EQ(got, slurp(path));
   }
}

// An MRT dump of the captured UPDATEs reads as the UPDATEs themselves.
TEST(UpdateReportTest, MrtDumpGivesTheSameReportsAsTheMessages) {
   ASSERT_TRUE(std::filesystem::exists(kTestData)) << "no test data at " << kTestData;
   std::filesystem::path const path = std::filesystem::temp_directory_path() / "UpdateReportTest.mrt";
   std::vector<UpdateInput> hex;
   {
      std::ofstream mrt(path, std::ios::binary);
      for (json const& r : records()) {
         Bytes const m = hexBytes(r["update_hex"].get<std::string>());
         Bytes const rec = mrtRecord(m);
         mrt.write(reinterpret_cast<char const*>(rec.data()), static_cast<std::streamsize>(rec.size()));
         hex.push_back({UpdateInput::Kind::hex, r["update_hex"]});
      }
   }
   int mrtStatus = -1;
   int hexStatus = -1;
   std::string const fromMrt = run({{UpdateInput::Kind::mrt, path.string()}}, true, &mrtStatus);
   std::string const fromHex = run(hex, true, &hexStatus);
   std::filesystem::remove(path);
   EXPECT_EQ(mrtStatus, 1) << "the malformed records are in the dump";
   EXPECT_EQ(hexStatus, 1);
   std::istringstream a(fromMrt), b(fromHex);
   std::size_t lines = 0;
   for (std::string la, lb; std::getline(a, la) && std::getline(b, lb); ++lines) {
      json ja = json::parse(la);
      EXPECT_EQ(ja["from"], "10.0.0.1:0");
      for (char const* k : {"timestamp", "from", "to"}) ja.erase(k);
      EXPECT_EQ(ja, json::parse(lb));
   }
   EXPECT_EQ(lines, records().size());
}

TEST(UpdateReportTest, InputsThatAreNotUpdates) {
   int status = -1;
   std::string errors;
   // Not hex.
   EXPECT_EQ(run({{UpdateInput::Kind::hex, "ffzz"}}, false, &status, &errors),
             "0 message(s), 0 UPDATE(s), 0 with errors; 0 rule(s) announced, 0 withdrawn, 0 refused\n");
   EXPECT_EQ(status, 2);
   EXPECT_EQ(errors, "flowspec decode: bad hex in --update (\"ffzz\"): 'z' is not a hex digit\n");
   // A KEEPALIVE given as an UPDATE says what it is.
   std::string const out = run({{UpdateInput::Kind::hex, "ffffffffffffffffffffffffffffffff001304"}}, false, &status);
   EXPECT_EQ(status, 1);
   EXPECT_NE(out.find("error 4 updateType: message is not an UPDATE -> session-reset"), std::string::npos) << out;
   // A file that is not there.
   (void)run({{UpdateInput::Kind::mrt, "/nonexistent.mrt"}}, true, &status, &errors);
   EXPECT_EQ(status, 2);
   EXPECT_NE(errors.find("/nonexistent.mrt"), std::string::npos);
}

} // namespace
