// TCP for BGP sessions on the Asio event loop: connections, outgoing attempts, listeners.
// Every completion runs on the thread that runs the io_context (the task thread).
#pragma once

#include <asio/io_context.hpp>
#include <asio/ip/address.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "agent/Transport.h"
#include "host/fwk/Result.h"

namespace Flowspecd {

asio::ip::address toAsio(Ovnet::IpGenAddr const& a);
// IPv4-mapped IPv6 addresses come back as IPv4.
Ovnet::IpGenAddr fromAsio(asio::ip::address const& a);

class AsioTransport : public Transport {
 public:
   // How long close() waits for queued bytes to be written and for the peer to close its side.
   static constexpr std::chrono::seconds kCloseLinger{2};

   explicit AsioTransport(asio::ip::tcp::socket socket);

   void receiverIs(Receiver* r) override;
   void send(Bytes bytes) override;
   std::size_t queuedBytes() const override { return queuedBytes_; }
   void drainedCallbackIs(std::function<void()> drained) override { drained_ = std::move(drained); }
   void close() override;
   Endpoint local() const override { return local_; }
   Endpoint remote() const override { return remote_; }
   // True once the socket is closed (after close() has written what was queued).
   bool closed() const { return closed_; }

 private:
   void readMore();
   void writeNext();
   void fail(std::string const& reason);
   void halfClose();
   void finishClose();

   asio::ip::tcp::socket socket_;
   asio::steady_timer lingerTimer_;
   Endpoint local_;
   Endpoint remote_;
   Receiver* receiver_ = nullptr;
   // Large enough that a peer sending a full table at line rate is read in few calls.
   std::array<std::uint8_t, 65536> readBuffer_{};
   std::deque<Bytes> queue_;
   std::size_t queuedBytes_ = 0;
   std::function<void()> drained_;
   bool writing_ = false;
   bool reading_ = false;
   bool closing_ = false;
   bool closed_ = false;
};

class AsioConnector : public Connector {
 public:
   explicit AsioConnector(asio::io_context& io) : io_(io) {}
   Ovk::Ptr<ConnectAttempt> connect(Endpoint const& remote, std::optional<Ovnet::IpGenAddr> local,
                                    TcpSecurity const& security, Done done) override;

 private:
   asio::io_context& io_;
};

// Accepts TCP connections on one address and port and hands each one on.
//
// Each connection is screened the moment it is accepted, before anything is spent on it: one
// the screen turns away is closed at once (no buffer, no linger, nothing sent), so that many
// connections from strangers cost the sessions nothing but the accepts.
class AsioListener : public Ovk::PtrInterface {
 public:
   // A connection just accepted: its peer, and the TTL its SYN arrived with when the listener
   // keeps SYNs (ttlSecurityIs).
   struct Incoming {
      Endpoint remote;
      std::optional<std::uint8_t> synTtl;
   };
   // The security the connection's session is held to, or nothing to close it at once.
   using Screen = std::function<std::optional<TcpSecurity>(Incoming const&)>;
   using Accept = std::function<void(Ovk::Ptr<Transport>)>;
   // Where a connection that could not be set up is reported.
   using Problem = std::function<void(std::string const&)>;
   // Binds and listens (IPv6 sockets only for IPv6); the reason when that fails.
   static Ovk::Result<Ovk::Ptr<AsioListener>, std::string> create(asio::io_context& io, Endpoint const& at,
                                                                  Screen screen, Accept accept, Problem problem);
   AsioListener(asio::io_context& io, Screen screen, Accept accept, Problem problem)
       : acceptor_(io), screen_(std::move(screen)), accept_(std::move(accept)), problem_(std::move(problem)) {}
   void close();
   Endpoint endpoint() const { return at_; }
   // The MD5 key of `peer`'s connections (an address of the listener's family); an empty key
   // removes it. "" or why it failed.
   std::string md5KeyIs(Ovnet::IpGenAddr const& peer, std::string const& key);
   // SYN-ACKs sent with TTL 255 and SYNs kept for their TTL, while some neighbor of the
   // listener's family has ttl-security.
   std::string ttlSecurityIs(bool on);

 private:
   void acceptNext();
   void handleAccepted(asio::ip::tcp::socket s);
   asio::ip::tcp::acceptor acceptor_;
   Screen screen_;
   Accept accept_;
   Problem problem_;
   Endpoint at_;
   bool keepsSyns_ = false;
};

} // namespace Flowspecd
