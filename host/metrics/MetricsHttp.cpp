#include "host/metrics/MetricsHttp.h"

#include <asio/ip/tcp.hpp>
#include <asio/ip/v6_only.hpp>
#include <asio/read_until.hpp>
#include <asio/steady_timer.hpp>
#include <asio/streambuf.hpp>
#include <asio/write.hpp>
#include <set>

namespace Ovk {

namespace {

bool isTokenChar(char c) {
   return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
          std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

std::string response(std::string_view status, std::string_view contentType, std::string_view body, bool withBody,
                     std::string_view extra = {}) {
   std::string r;
   r.reserve(160 + (withBody ? body.size() : 0));
   r.append("HTTP/1.1 ").append(status).append("\r\nContent-Type: ").append(contentType);
   r.append("\r\nContent-Length: ").append(std::to_string(body.size()));
   r.append("\r\n").append(extra).append("Connection: close\r\n\r\n");
   if (withBody) r.append(body);
   return r;
}

} // namespace

std::optional<HttpRequestLine> parseRequestLine(std::string_view head) {
   std::string_view line = head.substr(0, head.find('\n'));
   if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
   std::size_t const sp1 = line.find(' ');
   if (sp1 == std::string_view::npos || sp1 == 0 || sp1 > 16) return std::nullopt;
   std::string_view const method = line.substr(0, sp1);
   for (char c : method) {
      if (!isTokenChar(c)) return std::nullopt;
   }
   std::string_view rest = line.substr(sp1 + 1);
   std::size_t const sp2 = rest.find(' ');
   if (sp2 == std::string_view::npos || sp2 == 0) return std::nullopt;
   std::string_view const target = rest.substr(0, sp2);
   std::string_view const version = rest.substr(sp2 + 1);
   if (version != "HTTP/1.1" && version != "HTTP/1.0") return std::nullopt;
   if (target.front() != '/') return std::nullopt;
   for (char c : target) {
      if (c <= 0x20 || c >= 0x7f) return std::nullopt;
   }
   return HttpRequestLine{method, target.substr(0, target.find('?'))};
}

std::string metricsResponse(std::string_view head, std::function<std::string()> const& render) {
   constexpr std::string_view plain = "text/plain; charset=utf-8";
   auto const line = parseRequestLine(head);
   if (!line) return response("400 Bad Request", plain, "bad request line\n", true);
   bool const get = line->method == "GET";
   bool const headOnly = line->method == "HEAD";
   if (!get && !headOnly) {
      return response("405 Method Not Allowed", plain, "GET or HEAD\n", true, "Allow: GET, HEAD\r\n");
   }
   if (line->path != "/metrics") return response("404 Not Found", plain, "the metrics are at /metrics\n", get);
   return response("200 OK", "text/plain; version=0.0.4; charset=utf-8", render(), get);
}

struct MetricsHttpServer::State : std::enable_shared_from_this<MetricsHttpServer::State> {
   State(asio::io_context& context, std::function<std::string()> r, std::shared_ptr<std::uint64_t> s)
       : io(context), acceptor(context), render(std::move(r)), scrapes(std::move(s)) {}

   struct Connection {
      explicit Connection(asio::io_context& io) : socket(io), timer(io), buffer(kMaxHead) {}
      asio::ip::tcp::socket socket;
      asio::steady_timer timer;
      asio::streambuf buffer;
      std::string answer;
   };

   void accept() {
      auto c = std::make_shared<Connection>(io);
      acceptor.async_accept(c->socket, [self = shared_from_this(), c](std::error_code ec) {
         if (ec) {
            if (ec != asio::error::operation_aborted && self->acceptor.is_open()) self->accept();
            return;
         }
         if (self->open.size() >= kMaxConnections) {
            std::error_code ignored;
            c->socket.close(ignored);
         } else {
            self->serve(c);
         }
         self->accept();
      });
   }

   void finish(std::shared_ptr<Connection> const& c) {
      std::error_code ignored;
      c->timer.cancel();
      c->socket.shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
      c->socket.close(ignored);
      open.erase(c);
   }

   void serve(std::shared_ptr<Connection> c) {
      open.insert(c);
      c->timer.expires_after(kReadTimeout);
      c->timer.async_wait([self = shared_from_this(), c](std::error_code ec) {
         if (!ec) self->finish(c);
      });
      asio::async_read_until(c->socket, c->buffer, "\r\n\r\n",
                             [self = shared_from_this(), c](std::error_code ec, std::size_t n) {
                                if (ec) {
                                   // Too long, closed early, or timed out: nothing to answer.
                                   self->finish(c);
                                   return;
                                }
                                std::string_view const head(static_cast<char const*>(c->buffer.data().data()), n);
                                if (auto l = parseRequestLine(head); l && l->path == "/metrics") ++*self->scrapes;
                                c->answer = metricsResponse(head, self->render);
                                asio::async_write(c->socket, asio::buffer(c->answer),
                                                  [self, c](std::error_code, std::size_t) { self->finish(c); });
                             });
   }

   asio::io_context& io;
   asio::ip::tcp::acceptor acceptor;
   std::function<std::string()> render;
   std::shared_ptr<std::uint64_t> scrapes;
   std::set<std::shared_ptr<Connection>> open;
};

Ovk::Result<std::unique_ptr<MetricsHttpServer>, std::string> MetricsHttpServer::start(
    asio::io_context& io, Ovnet::Endpoint const& at, std::function<std::string()> render) {
   std::unique_ptr<MetricsHttpServer> s(new MetricsHttpServer());
   s->state_ = std::make_shared<State>(io, std::move(render), s->scrapes_);
   std::error_code ec;
   asio::ip::tcp::endpoint const ep(asio::ip::make_address(at.address.str(), ec), at.port);
   auto fail = [&](std::string const& what) {
      return Ovk::failure("cannot serve metrics on " + at.str() + ": " + what + ": " + ec.message());
   };
   if (ec) return fail("address");
   asio::ip::tcp::acceptor& a = s->state_->acceptor;
   if (a.open(ep.protocol(), ec); ec) return fail("socket");
   if (a.set_option(asio::ip::tcp::acceptor::reuse_address(true), ec); ec) return fail("SO_REUSEADDR");
   if (ep.address().is_v6()) a.set_option(asio::ip::v6_only(true), ec);
   if (a.bind(ep, ec); ec) return fail("bind");
   if (a.listen(asio::socket_base::max_listen_connections, ec); ec) return fail("listen");
   s->listening_ = at;
   s->listening_.port = a.local_endpoint(ec).port();
   s->state_->accept();
   return s;
}

MetricsHttpServer::~MetricsHttpServer() { close(); }

void MetricsHttpServer::close() {
   if (!state_) return;
   std::error_code ignored;
   state_->acceptor.close(ignored);
   auto open = state_->open;
   for (auto const& c : open) state_->finish(c);
   state_ = nullptr;
}

} // namespace Ovk
