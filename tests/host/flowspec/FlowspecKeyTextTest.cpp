#include "host/flowspec/FlowspecKey.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/host/flowspec/KeyTestHelpers.h"

namespace {

using namespace Flowspec;
using Ovnet::AddressFamily;

std::string pairs(FlowspecKey const& k) { return Gen::pairsText(k); }

// Every component of a key as the NLRI carries it (type byte first), prefixes first.
std::vector<std::vector<std::uint8_t>> nlriComponents(FlowspecKey const& k) {
   std::vector<std::vector<std::uint8_t>> out;
   std::uint8_t type = destPrefix_;
   for (auto const* p : {&k.destPrefix(), &k.srcPrefix()}) {
      if (!p->isUnset()) {
         std::vector<std::uint8_t> c{type, p->len()};
         if (p->af() == AddressFamily::ipv6) c.push_back(0); // offset
         for (unsigned i = 0; i < (p->len() + 7u) / 8u; ++i) c.push_back(p->addr().storage()[i]);
         out.push_back(c);
      }
      ++type;
   }
   bool ended = true;
   for (auto r = k.getOptVal(0); !r.atEnd(); r = k.getOptVal(r.nextIndex())) {
      if (ended || r.type() != out.back()[0]) out.push_back({static_cast<std::uint8_t>(r.type())});
      out.back().push_back(r.op());
      for (unsigned i = opValueBytes(r.op()); i-- > 0;)
         out.back().push_back(static_cast<std::uint8_t>(r.value() >> (8 * i)));
      ended = (r.op() & opEndOfList) != 0;
   }
   return out;
}

std::string hex(std::vector<std::uint8_t> const& bytes, char const* separator) {
   std::string out;
   for (std::uint8_t b : bytes) {
      char buf[4];
      std::snprintf(buf, sizeof buf, "%02x", b);
      out += (out.empty() ? "" : separator) + std::string(buf);
   }
   return out;
}

struct ValidRow {
   char const* text;
   char const* printed; // toStrepCli of the result
   char const* pairs;   // "type:op:value" in walk order
};

// One or more rows per component type and per operator kind; the texts are written the ways
// operators know from other speakers' configuration, the pairs are what those speakers send.
ValidRow const kValid[] = {
    // Prefixes.
    {"10.1.2.0/32;*;", "10.1.2.0/32;*;", ""},
    {"*;*;", "*;*;", ""},
    {"", "*;*;", ""},
    {"*;2001:db8::/32;", "*;2001:db8::/32;", ""},
    {"10.1.2.3/24;*", "10.1.2.0/24;*;", ""},
    {"0.0.0.0/0;*;", "0.0.0.0/0;*;", ""},
    {"destination 10.0.0.0/24 source 20.0.0.1", "10.0.0.0/24;20.0.0.1/32;", ""},
    {"src 2001:db8:8::/48; dst ::/0;", "::/0;2001:db8:8::/48;", ""},
    // IP Protocol: names, bare values, the two-word keyword.
    {"protocol tcp udp", "*;*;protocol =6 =17;", "3:01:6 3:81:17"},
    {"proto = 6;", "*;*;protocol =6;", "3:81:6"},
    {"next header = 58", "*;*;protocol =58;", "3:81:58"},
    {"next-header =udp", "*;*;protocol =17;", "3:81:17"},
    {"protocol [ =6 =17 <5 >250 <=1 >=254 !=47 ]", "*;*;protocol =6 =17 <5 >250 <=1 >=254 !=47;",
     "3:01:6 3:01:17 3:04:5 3:02:250 3:05:1 3:03:254 3:86:47"},
    // Port: AND, OR, ranges, value lengths.
    {"port ==80 >=1024&<=2048", "*;*;port =80 >=1024&<=2048;", "4:01:80 4:13:1024 4:d5:2048"},
    {"port > 24 && < 30 || 40..50,60..70,80 && >= 90", "*;*;port >24&<30 >=40&<=50 >=60&<=70 =80&>=90;",
     "4:02:24 4:44:30 4:03:40 4:45:50 4:03:60 4:45:70 4:01:80 4:c3:90"},
    {"port 0x50", "*;*;port =80;", "4:81:80"},
    {"destination-port <1024", "*;*;destination-port <1024;", "5:94:1024"},
    {"dport 443; dst-port 8443", "*;*;destination-port =443;destination-port =8443;", "5:91:443 5:91:8443"},
    {"source-port >65000", "*;*;source-port >65000;", "6:92:65000"},
    {"sport >= 1024", "*;*;source-port >=1024;", "6:93:1024"},
    {"icmp-type >=3&<=5", "*;*;icmp-type >=3&<=5;", "7:03:3 7:c5:5"},
    {"icmp type = 8; icmp code = 0", "*;*;icmp-type =8;icmp-code =0;", "7:81:8 8:81:0"},
    {"icmp-code !=1", "*;*;icmp-code !=1;", "8:86:1"},
    // TCP Flags: letters, names, NOT/match, value/mask.
    {"tcp-flags =SA", "*;*;tcp-flags =syn+ack;", "9:81:18"},
    {"tcp-flags !F &=!R", "*;*;tcp-flags !fin&!=rst;", "9:02:1 9:c3:4"},
    {"tcp-flags =!U E C &P", "*;*;tcp-flags !=urgent ece cwr&push;", "9:03:32 9:00:64 9:00:128 9:c0:8"},
    {"tcp-flags [ SYN RST&FIN&!=push ]", "*;*;tcp-flags syn rst&fin&!=push;", "9:00:2 9:00:4 9:40:1 9:c3:8"},
    {"tcp-flags [ syn ]", "*;*;tcp-flags syn;", "9:80:2"},
    {"tcp flags 0x12/0x12 && 0x00/0x04 || 0x01/0x01", "*;*;tcp-flags =syn+ack&!rst =fin;", "9:01:18 9:42:4 9:81:1"},
    {"tcp flags !0x12/0x12", "*;*;tcp-flags !=syn+ack;", "9:83:18"},
    {"tcp flags !0x00/0x06", "*;*;tcp-flags syn+rst;", "9:80:6"},
    {"tcp flags 0x02/0x06", "*;*;tcp-flags =syn&!rst;", "9:01:2 9:c2:4"},
    {"tcp-flags =0x100", "*;*;tcp-flags =0x100;", "9:91:256"},
    {"tcp-flags 0", "*;*;tcp-flags 0;", "9:80:0"},
    // Packet Length, DSCP.
    {"packet-length >=64&<=1500 !=9000", "*;*;packet-length >=64&<=1500 !=9000;", "10:03:64 10:55:1500 10:96:9000"},
    {"length <= 1500", "*;*;packet-length <=1500;", "10:95:1500"},
    {"dscp 10, 46", "*;*;dscp =10 =46;", "11:01:10 11:81:46"},
    {"traffic-class 46", "*;*;dscp =46;", "11:81:46"},
    // Fragment: both spellings of the flag names, with their own bare meaning.
    {"fragment is-fragment", "*;*;fragment is-fragment;", "12:80:2"},
    {"fragment [ not-a-fragment ]", "*;*;fragment not-a-fragment;", "12:80:0"},
    {"fragment !dont-fragment", "*;*;fragment !dont-fragment;", "12:82:1"},
    {"fragment =first-fragment =last-fragment", "*;*;fragment =first-fragment =last-fragment;", "12:01:4 12:81:8"},
    {"fragment first_fragment || last_fragment", "*;*;fragment =first-fragment =last-fragment;", "12:01:4 12:81:8"},
    {"fragment dont_fragment && !is_fragment", "*;*;fragment =dont-fragment&!is-fragment;", "12:01:1 12:c2:2"},
    {"fragment =dont-fragment+is-fragment", "*;*;fragment =dont-fragment+is-fragment;", "12:81:3"},
    {"fragment !=0x10", "*;*;fragment !=0x10;", "12:83:16"},
    // Flow Label, with a four-byte value.
    {"flow-label >=65536&<=1048575 !=0", "*;*;flow-label >=65536&<=1048575 !=0;", "13:23:65536 13:65:1048575 13:86:0"},
    {"label 100", "*;*;flow-label =100;", "13:81:100"},
    // What no speaker chooses but the wire can carry.
    {"port !<=>80 <=>443", "*;*;port !<=>80 <=>443;", "4:00:80 4:97:443"},
    {"port =80{len=2}", "*;*;port =80{len=2};", "4:91:80"},
    {"flow-label =5{ len = 4 }", "*;*;flow-label =5{len=4};", "13:a1:5"},
    {"dscp =46{rsv=0x08}", "*;*;dscp =46{rsv=0x08};", "11:89:46"},
    {"tcp-flags =syn{rsv=0x0c,len=2}", "*;*;tcp-flags =syn{len=2,rsv=0x0c};", "9:9d:2"},
    {"tcp-flags =syn{rsv=4}", "*;*;tcp-flags =syn{rsv=0x04};", "9:85:2"},
    {"port &=80", "*;*;port &=80;", "4:c1:80"},
    // Components in any order, repeated types, spacing and case.
    {"protocol 6; protocol 17", "*;*;protocol =6;protocol =17;", "3:81:6 3:81:17"},
    {"destination-port 80 protocol 6 destination 10.0.0.0/8", "10.0.0.0/8;*;protocol =6;destination-port =80;",
     "3:81:6 5:81:80"},
    {" 10.0.0.0/8 ; * ; PROTOCOL TCP ; ;", "10.0.0.0/8;*;protocol =6;", "3:81:6"},
    {"protocol 6 tcp flags =syn", "*;*;protocol =6;tcp-flags =syn;", "3:81:6 9:81:2"},
    {"protocol icmp icmp-type 8", "*;*;protocol =1;icmp-type =8;", "3:81:1 7:81:8"},
};

TEST(FlowspecKeyTextTest, ValidTextsGiveTheOperatorBytesSpeakersSend) {
   for (auto const& row : kValid) {
      SCOPED_TRACE(row.text);
      FlowspecKey k;
      ASSERT_TRUE(k.copyInStrCli(row.text));
      EXPECT_EQ(pairs(k), row.pairs);
      EXPECT_EQ(k.toStrepCli(), row.printed);
      std::ostringstream os;
      os << k;
      EXPECT_EQ(os.str(), row.printed);
      FlowspecKey again;
      ASSERT_TRUE(again.copyInStrCli(row.printed));
      EXPECT_EQ(again, k);
   }
}

TEST(FlowspecKeyTextTest, InvalidTextsAreRefused) {
   char const* const rows[] = {
       // prefixes
       "10.0.0.0/8",
       "10.0.0.0/8;",
       "10.0.0.0/33;*;",
       "10.0.0.0/8;*;x",
       "*;10.0.0.0/8 protocol 6",
       "*",
       "destination 10.0.0.0/8 destination 10.1.0.0/16",
       "10.0.0.0/8;*;destination 10.1.0.0/16",
       "destination *",
       "destination",
       "destination 10.0.0.0/8 source 2001:db8::/32",
       // keywords and lists
       "bogus 5",
       "protocol",
       "protocol ;",
       "protocol []",
       "icmp 8",
       "tcp 2",
       "protocol 6 garbage",
       "port , 80",
       "port 80 ||",
       "port 80 &",
       "port [ 80",
       "port [ 80 icmp-type 3 ]",
       "port 80 ]",
       // values
       "port 70000",
       "dscp 256",
       "port 4294967296",
       "port 0x",
       "port 80-90",
       "port tcp",
       "protocol tcpp",
       "port >=",
       "port = = 80",
       "port =-1",
       "flow-label 0x100000000",
       // ranges
       "port 50..40",
       "port =40..50",
       "port 40..",
       "port 40..50{len=2}",
       // encodings
       "dscp =1{len=2}",
       "port =300{len=1}",
       "port =80{len=3}",
       "port =80{len=8}",
       "port =80{rsv=0x04}",
       "port =80{rsv=0}",
       "port =80{len=2,len=2}",
       "port =80{foo=1}",
       "port =80{len=2",
       "port =80{}",
       "tcp-flags =syn{rsv=0x10}",
       // bitmasks
       "tcp-flags =0x02/0x02",
       "tcp-flags !0x02/0x06",
       "tcp-flags 0x04/0x02",
       "tcp-flags 0x0/0x0",
       "tcp-flags sa",
       "tcp-flags =X",
       "tcp-flags syn+",
       "fragment syn",
       "fragment 0x100",
       "tcp-flags 0x10000",
       "fragment >1",
       "dscp =syn",
       // family rules
       "destination 10.0.0.0/8 flow-label 5",
       "destination 2001:db8::/32 fragment dont-fragment",
       "source ::/0 fragment =is-fragment+dont-fragment",
   };
   for (char const* text : rows) {
      FlowspecKey k;
      EXPECT_FALSE(k.copyInStrCli(text)) << text << " -> " << k;
   }
}

TEST(FlowspecKeyTextTest, RefusalsSayWhatIsWrong) {
   struct Row {
      char const* text;
      AddressFamily af;
      char const* whyNot;
   } const rows[] = {
       {"protocol tcp dport 80 sport banana", AddressFamily::unspecified, "cannot read \"banana\" at offset 28"},
       {"10.0.0.0/8;*;port 70000;dscp 1", AddressFamily::unspecified, "cannot read \"70000\" at offset 18"},
       {"bogus 5; port 80", AddressFamily::unspecified, "cannot read \"bogus 5\" at offset 0"},
       {"port 80 &", AddressFamily::unspecified, "cannot read \"&\" at offset 8"},
       {"destination ", AddressFamily::unspecified, "the text ends too early"},
       {"destination 10.0.0.0/8 source 2001:db8::/32", AddressFamily::unspecified,
        "the prefixes are of two address families"},
       {"2001:db8::/32;*;", AddressFamily::ipv4, "an ipv6 prefix in an ipv4 rule"},
       {"flow-label 5", AddressFamily::ipv4, "flow-label exists only in IPv6 rules"},
       {"fragment dont-fragment", AddressFamily::ipv6, "an IPv6 fragment value cannot hold dont-fragment"},
   };
   for (Row const& r : rows) {
      FlowspecKey k;
      k.afIs(r.af);
      std::string why;
      EXPECT_FALSE(k.copyInStrCli(r.text, &why)) << r.text;
      EXPECT_EQ(why, r.whyNot) << r.text;
   }
   std::string why = "untouched";
   FlowspecKey k;
   EXPECT_TRUE(k.copyInStrCli("port 80", &why));
   EXPECT_EQ(why, "untouched");
}

TEST(FlowspecKeyTextTest, ARefusedTextLeavesTheKeyAsItWas) {
   FlowspecKey k;
   ASSERT_TRUE(k.copyInStrCli("10.0.0.0/8;*;protocol 6 17;port 80;"));
   FlowspecKey const before = k;
   EXPECT_FALSE(k.copyInStrCli("11.0.0.0/8;*;protocol 6;port 70000;"));
   EXPECT_EQ(k, before);
   // An accepted text replaces everything, down to the pairs.
   ASSERT_TRUE(k.copyInStrCli("*;*;"));
   EXPECT_EQ(k.opValCount(), 0u);
   EXPECT_TRUE(k.destPrefix().isUnset());
}

TEST(FlowspecKeyTextTest, AddressFamilyIsKeptWhenSetAndOtherwiseTakenFromThePrefixes) {
   FlowspecKey v6;
   v6.afIs(AddressFamily::ipv6);
   EXPECT_FALSE(v6.copyInStrCli("10.0.0.0/8;*;"));
   ASSERT_TRUE(v6.copyInStrCli("*;*;flow-label 5;"));
   EXPECT_EQ(v6.af(), AddressFamily::ipv6);
   EXPECT_FALSE(v6.copyInStrCli("fragment dont-fragment")) << "no DF bit in IPv6";

   FlowspecKey v4;
   v4.afIs(AddressFamily::ipv4);
   EXPECT_FALSE(v4.copyInStrCli("flow-label 5")) << "no flow label in IPv4";
   ASSERT_TRUE(v4.copyInStrCli("fragment dont-fragment"));
   EXPECT_EQ(v4.af(), AddressFamily::ipv4);

   FlowspecKey any;
   ASSERT_TRUE(any.copyInStrCli("*;*;flow-label 5;fragment dont-fragment;"));
   EXPECT_EQ(any.af(), AddressFamily::unspecified);
   ASSERT_TRUE(any.copyInStrCli("*;2001:db8::/32;"));
   EXPECT_EQ(any.af(), AddressFamily::ipv6) << "taken from the prefix, then kept";
   EXPECT_FALSE(any.copyInStrCli("10.0.0.0/8;*;"));
}

TEST(FlowspecKeyTextTest, ARuleMustFitOneNlri) {
   // Each "=1" pair takes two bytes; with the type byte the body is 1 + 2n bytes and may be
   // at most 4095.
   auto portList = [](int n) {
      std::string t = "port";
      for (int i = 0; i < n; ++i) t += " =1";
      return t;
   };
   FlowspecKey k;
   ASSERT_TRUE(k.copyInStrCli(portList(2047)));
   EXPECT_EQ(k.opValCount(), 2047u);
   EXPECT_FALSE(k.copyInStrCli("0.0.0.0/0;*;" + portList(2047)));
   EXPECT_FALSE(k.copyInStrCli(portList(2048)));
}

TEST(FlowspecKeyTextTest, DetailShowsFamilyAndWireBytes) {
   FlowspecKey k;
   k.afIs(AddressFamily::ipv4);
   ASSERT_TRUE(k.copyInStrCli("10.1.2.0/24;*;protocol 6;port ==80 >=1024&<=2048;"));
   EXPECT_EQ(k.toStrepCliDetail(), "family ipv4; destination 10.1.2.0/24; source *; protocol =6 (81 06); "
                                   "port =80 >=1024&<=2048 (01 50 13 04 00 d5 08 00)");
}

// The grammar document's table of one example per component type is checked here, so that
// what users read stays true.
TEST(FlowspecKeyTextTest, TheGrammarDocumentsExamplesHold) {
   std::ifstream in(FS_DOCS_DIR "/rule-grammar.md");
   ASSERT_TRUE(in) << "missing docs/rule-grammar.md";
   std::string line;
   int rows = 0;
   while (std::getline(in, line)) {
      // | `text` | `printed` | `bytes` |
      std::vector<std::string> cells;
      for (std::size_t at = 0; (at = line.find('`', at)) != std::string::npos;) {
         std::size_t const end = line.find('`', at + 1);
         if (end == std::string::npos) break;
         cells.push_back(line.substr(at + 1, end - at - 1));
         at = end + 1;
      }
      if (!line.starts_with("| `") || cells.size() != 3 || cells[1].find(';') == std::string::npos) continue;
      std::string text = cells[0];
      for (std::size_t i; (i = text.find("\\|")) != std::string::npos;) text.erase(i, 1);
      SCOPED_TRACE(text);
      FlowspecKey k;
      ASSERT_TRUE(k.copyInStrCli(text));
      EXPECT_EQ(k.toStrepCli(), cells[1]);
      std::string bytes;
      for (auto const& c : nlriComponents(k)) bytes += (bytes.empty() ? "" : " ") + hex(c, " ");
      EXPECT_EQ(bytes, cells[2]);
      ++rows;
   }
   EXPECT_EQ(rows, 13) << "one example per component type";
}

// Every key the NLRI parser can build prints as text that reads back as the same key.
TEST(FlowspecKeyTextTest, PrintThenReadGivesTheSameKeyForNlriShapedKeys) {
   std::mt19937 rng(20240501);
   for (int i = 0; i < 20000; ++i) {
      auto const af = i % 2 == 0 ? AddressFamily::ipv4 : AddressFamily::ipv6;
      FlowspecKey const k = Gen::randomNlriKey(rng, af);
      std::string const text = k.toStrepCli();
      FlowspecKey back;
      back.afIs(af);
      ASSERT_TRUE(back.copyInStrCli(text)) << text;
      ASSERT_EQ(back, k) << text << "\n" << pairs(k) << "\n" << pairs(back);
      ASSERT_EQ(back.toStrepCli(), text);
   }
}

// Rules as real speakers were told to send them (tests/host/flowspec/data/speaker-rules.tsv,
// made from captures by make-speaker-rules.py): the same words give the same bytes.
TEST(FlowspecKeyTextTest, SpeakerConfigurationTextGivesTheSpeakersBytes) {
   std::ifstream in(FS_FLOWSPEC_TEST_DATA "/speaker-rules.tsv");
   ASSERT_TRUE(in) << "missing speaker-rules.tsv";
   std::string line;
   int rows = 0;
   while (std::getline(in, line)) {
      std::vector<std::string> col;
      std::istringstream ls(line);
      for (std::string c; std::getline(ls, c, '\t');) col.push_back(c);
      if (col.size() == 5) col.emplace_back();
      ASSERT_EQ(col.size(), 6u) << line;
      SCOPED_TRACE(col[0] + ": " + col[2].substr(0, 120));
      FlowspecKey k;
      k.afIs(col[1] == "1" ? AddressFamily::ipv4 : AddressFamily::ipv6);
      ASSERT_TRUE(k.copyInStrCli(col[2]));
      EXPECT_EQ(k.destPrefix().isUnset() ? "*" : k.destPrefix().str(), col[3]);
      EXPECT_EQ(k.srcPrefix().isUnset() ? "*" : k.srcPrefix().str(), col[4]);
      std::string ops;
      for (auto const& c : nlriComponents(k)) {
         if (c[0] > srcPrefix_) ops += (ops.empty() ? "" : " ") + hex(c, "");
      }
      EXPECT_EQ(ops, col[5]);
      ++rows;
   }
   EXPECT_GE(rows, 80);
}

} // namespace
