// The exposition text and the one HTTP page it is served on, without a socket.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "host/metrics/MetricsHttp.h"
#include "host/metrics/PromText.h"

namespace {

using Ovk::metricsResponse;
using Ovk::PromText;

TEST(PromText, LabelValuesAreEscapedAndNumbersReadBack) {
   PromText m;
   m.family("x_total", "counter", "Help.");
   m.sample("x_total", {{"rule", "10.0.0.0/24;*;protocol =6;"}}, std::uint64_t{18446744073709551615u});
   m.sample("x_total", {{"rule", "a\"b\\c\nd"}, {"k", ""}}, 0.1);
   m.sample("x_total", std::numeric_limits<double>::quiet_NaN());
   m.sample("x_total", -std::numeric_limits<double>::infinity());
   EXPECT_EQ(m.text(), "# HELP x_total Help.\n# TYPE x_total counter\n"
                       "x_total{rule=\"10.0.0.0/24;*;protocol =6;\"} 18446744073709551615\n"
                       "x_total{rule=\"a\\\"b\\\\c\\nd\",k=\"\"} 0.1\n"
                       "x_total NaN\n"
                       "x_total -Inf\n");
}

TEST(MetricsHttp, AnswersOnlyTheMetricsPage) {
   auto const render = [] { return std::string("m 1\n"); };
   struct Case {
      std::string head;
      std::string status; // "" when the connection is closed without an answer
      bool body;
   };
   Case const cases[] = {
      {"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n", "HTTP/1.1 200", true},
      {"GET /metrics?name[]=up HTTP/1.0\n\n", "HTTP/1.1 200", true},
      {"HEAD /metrics HTTP/1.1\r\n\r\n", "HTTP/1.1 200", false},
      {"GET / HTTP/1.1\r\n\r\n", "HTTP/1.1 404", false},
      {"GET /metricsx HTTP/1.1\r\n\r\n", "HTTP/1.1 404", false},
      {"POST /metrics HTTP/1.1\r\n\r\n", "HTTP/1.1 405", false},
      {"GET /metrics HTTP/2.0\r\n\r\n", "HTTP/1.1 400", false},
      {"GET  /metrics HTTP/1.1\r\n\r\n", "HTTP/1.1 400", false},
      {"GET http://h/metrics HTTP/1.1\r\n\r\n", "HTTP/1.1 400", false},
      {"GET /metrics\r\n\r\n", "HTTP/1.1 400", false},
      {std::string("GET /met\0rics HTTP/1.1\r\n\r\n", 25), "HTTP/1.1 400", false},
      {"\r\n\r\n", "HTTP/1.1 400", false},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.head);
      std::string const r = metricsResponse(c.head, render);
      EXPECT_EQ(r.substr(0, c.status.size()), c.status);
      bool const hasBody = r.size() >= 4 && r.ends_with("m 1\n");
      EXPECT_EQ(hasBody, c.body);
      if (c.body) {
         EXPECT_NE(r.find("Content-Type: text/plain; version=0.0.4"), std::string::npos);
      }
   }
}

} // namespace
