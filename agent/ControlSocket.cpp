#include "agent/ControlSocket.h"

#include <array>
#include <asio/read_until.hpp>
#include <asio/steady_timer.hpp>
#include <asio/write.hpp>
#include <cerrno>
#include <cstring>
#include <memory>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "host/fwk/FileTrust.h"
#include "host/fwk/JsonText.h"

namespace Flowspecd {

namespace {

// Runs `f`, which answers a request; an exception it throws becomes an error answer.
template <class F>
std::string guarded(F&& f) {
   try {
      return f();
   } catch (std::exception const& e) {
      return Ovk::jsonText(nlohmann::json{{"error", std::string("the request failed: ") + e.what()}}) + "\n";
   } catch (...) {
      return "{\"error\":\"the request failed\"}\n";
   }
}

// One client: read a line, answer, close; bounded in time.
struct ControlClient : std::enable_shared_from_this<ControlClient> {
   ControlClient(asio::local::stream_protocol::socket s, ControlServer::Handler const& h,
                 ControlServer::StreamHandler const& sh)
       : socket(std::move(s)), timer(socket.get_executor()), handler(h), streamHandler(sh) {}

   // The client is dropped if the next step does not end in time.
   void arm() {
      auto self = shared_from_this();
      timer.expires_after(ControlServer::kClientTimeout);
      timer.async_wait([self](std::error_code const& ec) {
         if (ec) return;
         std::error_code ignored;
         self->socket.close(ignored);
      });
   }

   void start() {
      auto self = shared_from_this();
      arm();
      asio::async_read_until(
          socket, asio::dynamic_buffer(request, ControlServer::kMaxRequest), '\n',
          [self](std::error_code const& ec, std::size_t n) {
             if (ec == asio::error::not_found) {
                self->answer = "{\"error\":\"the request is longer than " + std::to_string(ControlServer::kMaxRequest) +
                               " bytes\"}\n";
                // The rest of the request is read and dropped: closing with it
                // unread would reset the connection before the client reads.
                asio::async_write(
                    self->socket, asio::buffer(self->answer), [self](std::error_code const&, std::size_t) {
                       std::error_code ignored;
                       self->socket.shutdown(asio::local::stream_protocol::socket::shutdown_send, ignored);
                       self->drain();
                    });
                return;
             }
             // A request without its newline counts when the client ends its side.
             if (ec && !(ec == asio::error::eof && !self->request.empty())) {
                self->finish();
                return;
             }
             std::string_view line(self->request.data(), ec ? self->request.size() : n);
             while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
             // A request is outside input: whatever a handler throws on it ends this
             // answer with an error, never the agent.
             self->answer = guarded([&] {
                if (self->streamHandler) self->stream = self->streamHandler(line);
                return self->stream ? std::string() : self->handler(line) + "\n";
             });
             if (self->stream) {
                self->pump();
                return;
             }
             asio::async_write(self->socket, asio::buffer(self->answer),
                               [self](std::error_code const&, std::size_t) { self->finish(); });
          });
   }
   void drain() {
      auto self = shared_from_this();
      socket.async_read_some(asio::buffer(scratch), [self](std::error_code const& ec, std::size_t) {
         if (ec) {
            self->finish();
         } else {
            self->drain();
         }
      });
   }
   // Writes the stream's next chunk, then asks for the one after; the client has the
   // timeout again for each chunk.
   void pump() {
      answer.clear();
      bool more = false;
      std::string const failed = guarded([&] {
         more = stream->next(answer);
         return std::string();
      });
      if (!failed.empty()) {
         // The chunks already written stand; the error ends the answer on a line of its own.
         answer += "\n" + failed;
         more = false;
      }
      arm();
      auto self = shared_from_this();
      asio::async_write(socket, asio::buffer(answer), [self, more](std::error_code const& ec, std::size_t) {
         if (ec || !more) {
            self->finish();
            return;
         }
         self->pump();
      });
   }
   void finish() {
      std::error_code ignored;
      timer.cancel();
      socket.shutdown(asio::local::stream_protocol::socket::shutdown_both, ignored);
      socket.close(ignored);
   }

   asio::local::stream_protocol::socket socket;
   asio::steady_timer timer;
   ControlServer::Handler handler;
   ControlServer::StreamHandler streamHandler;
   std::unique_ptr<ControlStream> stream;
   std::string request;
   std::string answer;
   std::array<char, 4096> scratch;
};

// True when something accepts connections at `path`.
bool answers(std::string const& path) {
   int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   if (fd < 0) return false;
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
   bool const ok = ::connect(fd, reinterpret_cast<sockaddr const*>(&addr), sizeof(addr)) == 0;
   ::close(fd);
   return ok;
}

} // namespace

ControlServer::ControlServer(asio::io_context& io, std::string path, Handler handler)
    : acceptor_(io), path_(std::move(path)), handler_(std::move(handler)) {}

ControlServer::~ControlServer() { close(); }

Ovk::Result<Ovk::Ptr<ControlServer>, std::string> ControlServer::create(asio::io_context& io, std::string path,
                                                                        Handler handler) {
   sockaddr_un probe{};
   if (path.size() >= sizeof(probe.sun_path)) {
      return Ovk::failure("control socket path " + path + " is too long");
   }
   // Whoever may swap the socket, or the directory it is in, answers the operator's commands
   // in the agent's name, and the agent would remove what it finds there.
   if (std::string const why = Ovk::pathTrustProblem(path); !why.empty()) {
      return Ovk::failure("control socket " + path + " refused: " + why);
   }
   struct stat st {};
   if (::lstat(path.c_str(), &st) == 0) {
      if (!S_ISSOCK(st.st_mode)) return Ovk::failure("control socket path " + path + " exists and is not a socket");
      if (answers(path)) return Ovk::failure("control socket " + path + " is in use by another running agent");
      ::unlink(path.c_str());
   }
   auto server = Ovk::makePtr<ControlServer>(io, path, std::move(handler));
   std::error_code ec;
   asio::local::stream_protocol::endpoint const ep(path);
   server->acceptor_.open(ep.protocol(), ec);
   if (!ec) {
      // Owner only, from the moment the file exists.
      mode_t const old = ::umask(0177);
      server->acceptor_.bind(ep, ec);
      ::umask(old);
   }
   if (!ec) {
      server->bound_ = true;
      if (::chmod(path.c_str(), 0600) != 0) ec = std::error_code(errno, std::generic_category());
   }
   if (!ec) server->acceptor_.listen(asio::socket_base::max_listen_connections, ec);
   if (ec) return Ovk::failure("cannot create control socket " + path + ": " + ec.message());
   server->acceptNext();
   return server;
}

void ControlServer::acceptNext() {
   acceptor_.async_accept(
       [self = Ovk::Ptr<ControlServer>(this)](std::error_code const& ec, asio::local::stream_protocol::socket s) {
          if (!self->acceptor_.is_open()) return;
          if (!ec) std::make_shared<ControlClient>(std::move(s), self->handler_, self->streamHandler_)->start();
          self->acceptNext();
       });
}

void ControlServer::close() {
   std::error_code ec;
   if (acceptor_.is_open()) acceptor_.close(ec);
   if (bound_) {
      ::unlink(path_.c_str());
      bound_ = false;
   }
}

} // namespace Flowspecd
