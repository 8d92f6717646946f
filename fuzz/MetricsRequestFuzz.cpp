// The metrics page's request reading under arbitrary bytes: any head up to the server's cap
// gets a whole HTTP/1.1 response with a status line, and the page only for GET or HEAD of
// /metrics.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "host/metrics/MetricsHttp.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   std::string_view const head(reinterpret_cast<char const*>(data), size);
   bool rendered = false;
   std::string const r = Ovk::metricsResponse(head, [&] {
      rendered = true;
      return std::string("m 1\n");
   });
   if (!r.starts_with("HTTP/1.1 ")) std::abort();
   auto const line = Ovk::parseRequestLine(head);
   if (rendered && (!line || line->path != "/metrics")) std::abort();
   return 0;
}
