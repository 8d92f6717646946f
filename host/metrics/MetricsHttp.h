// The one HTTP page a Prometheus server scrapes: GET /metrics, over HTTP/1.0 or 1.1, one
// request per connection.
//
// The server reads a request's head (up to the blank line, at most kMaxHead bytes, within
// kReadTimeout), answers and closes: 200 with the text exposition for GET and HEAD of
// /metrics (any query ignored), 404 for another path, 405 for another method, 400 for a
// request line that is not METHOD SP TARGET SP HTTP/1.x, and nothing but a close for a head
// too long or too slow. It reads nothing else of the request (headers, body) and never
// keeps a connection. At most kMaxConnections are served at once; more are closed at once.
//
// It runs on the io_context it is given; `render` runs there, once per GET or HEAD.
#pragma once

#include <asio/io_context.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "host/fwk/Result.h"
#include "host/net/Endpoint.h"

namespace Ovk {

struct HttpRequestLine {
   std::string_view method;
   std::string_view path; // the target without its query
};

// The request line of `head` (the bytes before the first CRLF or LF); nothing when it is not
// "METHOD SP TARGET SP HTTP/1.0|1.1" with a token method and an origin-form target.
std::optional<HttpRequestLine> parseRequestLine(std::string_view head);

// The whole response to a request whose head is `head`.
std::string metricsResponse(std::string_view head, std::function<std::string()> const& render);

class MetricsHttpServer {
 public:
   static constexpr std::size_t kMaxHead = 8192;
   static constexpr std::chrono::seconds kReadTimeout{5};
   static constexpr std::size_t kMaxConnections = 16;

   // Listens on `at`; the reason when it cannot.
   static Ovk::Result<std::unique_ptr<MetricsHttpServer>, std::string> start(asio::io_context& io,
                                                                             Ovnet::Endpoint const& at,
                                                                             std::function<std::string()> render);
   ~MetricsHttpServer();
   MetricsHttpServer(MetricsHttpServer const&) = delete;
   MetricsHttpServer& operator=(MetricsHttpServer const&) = delete;

   // Stops listening and closes the connections being served (on the io_context's thread).
   void close();
   Ovnet::Endpoint const& listening() const { return listening_; }
   std::uint64_t scrapes() const { return *scrapes_; }

 private:
   struct State;
   MetricsHttpServer() = default;
   std::shared_ptr<State> state_;
   Ovnet::Endpoint listening_;
   std::shared_ptr<std::uint64_t> scrapes_ = std::make_shared<std::uint64_t>(0);
};

} // namespace Ovk
