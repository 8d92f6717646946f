// What a BGP session needs from TCP: a connection that delivers bytes and takes bytes, and
// a way to open one. The event-loop implementation is in AsioTransport.h; unit tests use
// fakes.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "agent/Config.h"
#include "agent/TcpSecurity.h"
#include "host/bgp/ByteCursor.h"
#include "host/fwk/Ptr.h"
#include "host/net/IpGenAddr.h"

namespace Flowspecd {

class Transport : public Ovk::PtrInterface {
 public:
   // Gets what the connection delivers, on the task thread.
   class Receiver {
    public:
      virtual void handleBytes(ByteView bytes) = 0;
      // The connection failed or the peer closed it; nothing more will be delivered.
      virtual void handleClosed(std::string const& reason) = 0;

    protected:
      ~Receiver() = default;
   };

   // Starts delivering to `r`, which must stay valid until close() or handleClosed().
   virtual void receiverIs(Receiver* r) = 0;
   // Queues bytes; they are written in order.
   virtual void send(Bytes bytes) = 0;
   // Bytes queued and not yet written.
   virtual std::size_t queuedBytes() const = 0;
   // `drained` runs on the task thread each time the queue has been written out (empty: no
   // call). Dropped when the connection closes.
   virtual void drainedCallbackIs(std::function<void()> drained) = 0;
   // Writes what is queued, then closes our side and waits for the peer to close its own
   // (both bounded in time). The receiver hears nothing more after this call.
   virtual void close() = 0;
   virtual Endpoint local() const = 0;
   virtual Endpoint remote() const = 0;

 protected:
   ~Transport() override = default;
};

// A connection attempt in progress.
class ConnectAttempt : public Ovk::PtrInterface {
 public:
   // Abandons the attempt: its completion callback will not run.
   virtual void cancel() = 0;

 protected:
   ~ConnectAttempt() override = default;
};

// What the sessions of neighbor `n` are held to on TCP.
inline TcpSecurity tcpSecurityOf(NeighborConfig const& n) { return {n.password, n.ttlSecurity, n.ttlSecurityHops}; }

class Connector : public Ovk::PtrInterface {
 public:
   // Runs once on the task thread: a transport, or none and the reason.
   using Done = std::function<void(Ovk::Ptr<Transport>, std::string const& error)>;
   // Opens a TCP connection to `remote`, from `local` when given, held to `security` from its
   // first segment on (a failure to set it up is the attempt's error).
   virtual Ovk::Ptr<ConnectAttempt> connect(Endpoint const& remote, std::optional<Ovnet::IpGenAddr> local,
                                            TcpSecurity const& security, Done done) = 0;

 protected:
   ~Connector() override = default;
};

} // namespace Flowspecd
