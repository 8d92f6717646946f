#include "agent/AsioTransport.h"

#include <asio/connect.hpp>
#include <asio/ip/v6_only.hpp>
#include <asio/post.hpp>
#include <asio/write.hpp>

namespace Flowspecd {

namespace {

Endpoint endpointFromAsio(asio::ip::tcp::endpoint const& e) { return Endpoint{fromAsio(e.address()), e.port()}; }

Endpoint endpointOf(asio::ip::tcp::socket const& s, bool local) {
   std::error_code ec;
   auto const e = local ? s.local_endpoint(ec) : s.remote_endpoint(ec);
   return ec ? Endpoint{} : endpointFromAsio(e);
}

class AsioConnectAttempt : public ConnectAttempt {
 public:
   AsioConnectAttempt(asio::io_context& io, Connector::Done done) : socket(io), done_(std::move(done)) {}
   void cancel() override {
      cancelled_ = true;
      std::error_code ec;
      socket.close(ec);
   }
   void finish(std::error_code const& ec) {
      if (cancelled_) return;
      cancelled_ = true;
      if (ec) {
         done_(nullptr, ec.message());
      } else {
         done_(Ovk::makePtr<AsioTransport>(std::move(socket)), "");
      }
   }
   void fail(std::string const& why) {
      if (cancelled_) return;
      cancelled_ = true;
      std::error_code ignored;
      socket.close(ignored);
      done_(nullptr, why);
   }
   asio::ip::tcp::socket socket;

 private:
   Connector::Done done_;
   bool cancelled_ = false;
};

} // namespace

asio::ip::address toAsio(Ovnet::IpGenAddr const& a) {
   if (a.isIpv4()) return asio::ip::address_v4(a.ipv4HostOrder());
   asio::ip::address_v6::bytes_type b{};
   auto const s = a.storage();
   std::copy(s.begin(), s.end(), b.begin());
   return asio::ip::address_v6(b);
}

Ovnet::IpGenAddr fromAsio(asio::ip::address const& a) {
   if (a.is_v4()) return Ovnet::IpGenAddr::ipv4(a.to_v4().to_uint());
   auto const v6 = a.to_v6();
   if (v6.is_v4_mapped()) return Ovnet::IpGenAddr::ipv4(asio::ip::make_address_v4(asio::ip::v4_mapped, v6).to_uint());
   auto const b = v6.to_bytes();
   return Ovnet::IpGenAddr::ipv6(std::span<std::uint8_t const, 16>(b.data(), 16));
}

AsioTransport::AsioTransport(asio::ip::tcp::socket socket)
    : socket_(std::move(socket)), lingerTimer_(socket_.get_executor()), local_(endpointOf(socket_, true)),
      remote_(endpointOf(socket_, false)) {
   std::error_code ec;
   socket_.set_option(asio::ip::tcp::no_delay(true), ec);
}

void AsioTransport::receiverIs(Receiver* r) {
   receiver_ = r;
   readMore();
}

void AsioTransport::readMore() {
   reading_ = true;
   socket_.async_read_some(asio::buffer(readBuffer_),
                           [self = Ovk::Ptr<AsioTransport>(this)](std::error_code const& ec, std::size_t n) {
                              self->reading_ = false;
                              if (self->closed_) return;
                              if (ec) {
                                 if (self->receiver_) {
                                    self->fail(ec == asio::error::eof ? std::string("end of stream") : ec.message());
                                 } else {
                                    self->finishClose(); // closing: the peer has closed its side too
                                 }
                                 return;
                              }
                              // While closing, what the peer still sends is read and dropped: closing a socket
                              // with unread bytes would reset the connection, and the peer could lose our last
                              // message with it.
                              if (self->receiver_) self->receiver_->handleBytes(ByteView(self->readBuffer_.data(), n));
                              if (!self->closed_) self->readMore();
                           });
}

void AsioTransport::send(Bytes bytes) {
   if (closing_ || closed_) return;
   queuedBytes_ += bytes.size();
   queue_.push_back(std::move(bytes));
   if (!writing_) writeNext();
}

void AsioTransport::writeNext() {
   writing_ = true;
   asio::async_write(socket_, asio::buffer(queue_.front()),
                     [self = Ovk::Ptr<AsioTransport>(this)](std::error_code const& ec, std::size_t) {
                        self->writing_ = false;
                        if (self->closed_) return;
                        if (ec) {
                           self->queue_.clear();
                           self->queuedBytes_ = 0;
                           if (self->closing_) {
                              self->finishClose();
                           } else {
                              self->fail(ec.message());
                           }
                           return;
                        }
                        self->queuedBytes_ -= self->queue_.front().size();
                        self->queue_.pop_front();
                        if (!self->queue_.empty()) {
                           self->writeNext();
                        } else if (self->closing_) {
                           self->halfClose();
                        } else if (self->drained_) {
                           // A copy: the callback may queue more, or replace itself.
                           auto const drained = self->drained_;
                           drained();
                        }
                     });
}

void AsioTransport::fail(std::string const& reason) {
   Receiver* r = receiver_;
   receiver_ = nullptr;
   queue_.clear();
   queuedBytes_ = 0;
   finishClose();
   if (r) r->handleClosed(reason);
}

void AsioTransport::close() {
   receiver_ = nullptr;
   drained_ = nullptr;
   if (closing_ || closed_) return;
   closing_ = true;
   lingerTimer_.expires_after(kCloseLinger);
   lingerTimer_.async_wait([self = Ovk::Ptr<AsioTransport>(this)](std::error_code const& ec) {
      if (!ec) self->finishClose();
   });
   if (!writing_) halfClose();
}

void AsioTransport::halfClose() {
   // Our side is done: FIN after the queued bytes; the socket closes when the peer closes its
   // side or the linger time ends.
   std::error_code ec;
   socket_.shutdown(asio::ip::tcp::socket::shutdown_send, ec);
   if (ec) {
      finishClose();
   } else if (!reading_) {
      readMore();
   }
}

void AsioTransport::finishClose() {
   if (closed_) return;
   closed_ = true;
   drained_ = nullptr;
   std::error_code ec;
   lingerTimer_.cancel();
   socket_.shutdown(asio::ip::tcp::socket::shutdown_both, ec);
   socket_.close(ec);
}

Ovk::Ptr<ConnectAttempt> AsioConnector::connect(Endpoint const& remote, std::optional<Ovnet::IpGenAddr> local,
                                                TcpSecurity const& security, Done done) {
   auto attempt = Ovk::makePtr<AsioConnectAttempt>(io_, std::move(done));
   asio::ip::tcp::endpoint const to(toAsio(remote.address), remote.port);
   std::error_code ec;
   attempt->socket.open(to.protocol(), ec);
   if (!ec && local) attempt->socket.bind(asio::ip::tcp::endpoint(toAsio(*local), 0), ec);
   // The SYN is signed and sent with TTL 255 already.
   std::string why;
   if (!ec && !security.password.empty()) {
      why = md5KeyIs(attempt->socket.native_handle(), remote.address, security.password);
   }
   if (!ec && why.empty()) why = ttlSecurityIs(attempt->socket.native_handle(), remote.address.isIpv6(), security);
   if (!why.empty()) {
      asio::post(io_, [attempt, why] { attempt->fail(why); });
      return attempt;
   }
   if (ec) {
      // The answer comes later, as for every attempt.
      asio::post(io_, [attempt, ec] { attempt->finish(ec); });
      return attempt;
   }
   attempt->socket.async_connect(to, [attempt](std::error_code const& e) { attempt->finish(e); });
   return attempt;
}

Ovk::Result<Ovk::Ptr<AsioListener>, std::string> AsioListener::create(asio::io_context& io, Endpoint const& at,
                                                                      Screen screen, Accept accept, Problem problem) {
   auto l = Ovk::makePtr<AsioListener>(io, std::move(screen), std::move(accept), std::move(problem));
   asio::ip::tcp::endpoint const ep(toAsio(at.address), at.port);
   std::error_code ec;
   l->acceptor_.open(ep.protocol(), ec);
   if (!ec) l->acceptor_.set_option(asio::ip::tcp::acceptor::reuse_address(true), ec);
   if (!ec && at.address.isIpv6()) l->acceptor_.set_option(asio::ip::v6_only(true), ec);
   if (!ec) l->acceptor_.bind(ep, ec);
   if (!ec) l->acceptor_.listen(asio::socket_base::max_listen_connections, ec);
   if (ec) return Ovk::failure("cannot listen on " + at.str() + ": " + ec.message());
   l->at_ = at;
   l->acceptNext();
   return l;
}

void AsioListener::acceptNext() {
   acceptor_.async_accept([self = Ovk::Ptr<AsioListener>(this)](std::error_code const& ec, asio::ip::tcp::socket s) {
      if (!self->acceptor_.is_open()) return;
      if (!ec) self->handleAccepted(std::move(s));
      self->acceptNext();
   });
}

void AsioListener::handleAccepted(asio::ip::tcp::socket s) {
   Incoming in{endpointOf(s, false), std::nullopt};
   // Read even for connections that need it not: reading frees the kernel's copy.
   if (keepsSyns_) in.synTtl = savedSynTtl(s.native_handle());
   std::optional<TcpSecurity> const security = screen_(in);
   std::error_code ignored;
   if (!security) {
      s.close(ignored);
      return;
   }
   if (std::string const why = Flowspecd::ttlSecurityIs(s.native_handle(), in.remote.address.isIpv6(), *security);
       !why.empty()) {
      problem_("connection from " + in.remote.str() + " closed: " + why);
      s.close(ignored);
      return;
   }
   accept_(Ovk::makePtr<AsioTransport>(std::move(s)));
}

std::string AsioListener::md5KeyIs(Ovnet::IpGenAddr const& peer, std::string const& key) {
   if (!acceptor_.is_open() || peer.af() != at_.address.af()) return {};
   return Flowspecd::md5KeyIs(acceptor_.native_handle(), peer, key);
}

std::string AsioListener::ttlSecurityIs(bool on) {
   if (!acceptor_.is_open() || on == keepsSyns_) return {};
   std::string why = listenerTtlSecurityIs(acceptor_.native_handle(), at_.address.isIpv6(), on);
   if (why.empty()) keepsSyns_ = on;
   return why;
}

void AsioListener::close() {
   std::error_code ec;
   acceptor_.close(ec);
}

} // namespace Flowspecd
