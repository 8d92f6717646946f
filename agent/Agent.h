// The agent: its neighbors, the TCP listeners that hand incoming connections to them, and
// the control socket, all on one event loop.
#pragma once

#include <asio/io_context.hpp>
#include <map>
#include <string>
#include <vector>

#include "agent/AsioTransport.h"
#include "agent/Config.h"
#include "agent/ControlSocket.h"
#include "agent/EventLoop.h"
#include "agent/Neighbor.h"
#include "agent/UpdateDecoding.h"

namespace Flowspecd {

class Agent : public Ovk::PtrInterface {
 public:
   Agent(asio::io_context& io, AgentConfig config, Logger& logger);
   ~Agent() override;

   // Opens the listeners and the control socket and starts every neighbor. The reason when
   // a socket cannot be opened (the agent is then stopped).
   Ovk::Result<bool, std::string> start();
   // Sends a Cease (Administrative Shutdown) to every peer and closes every socket. The
   // event loop then runs out of work once the last bytes are written.
   void stop();

   // Where UPDATEs go after their framing is checked: by default the agent's own decoding
   // (updateDecoding()); null: they are only counted. Takes effect at start().
   void updateSinkIs(UpdateSink* sink) { updateSink_ = sink; }
   UpdateDecoding const& updateDecoding() const { return *updateDecoding_; }
   std::vector<NeighborStatus> neighbors() const;
   // Answers one control request line.
   std::string handleControl(std::string_view request) const;
   AgentConfig const& config() const { return config_; }
   Ovk::Ptr<EventLoopScheduler> const& scheduler() const { return scheduler_; }

 private:
   void handleAccept(Ovk::Ptr<Transport> t);

   asio::io_context& io_;
   AgentConfig config_;
   Logger& logger_;
   Ovk::Ptr<EventLoopScheduler> scheduler_;
   Ovk::Ptr<AsioConnector> connector_;
   // Before the neighbors, which hold it as their UPDATE sink: it outlives them.
   std::unique_ptr<UpdateDecoding> updateDecoding_;
   std::vector<Ovk::Ptr<AsioListener>> listeners_;
   Ovk::Ptr<ControlServer> control_;
   std::vector<Ovk::Ptr<Neighbor>> neighbors_;
   std::map<Ovnet::IpGenAddr, Neighbor*> byAddress_;
   UpdateSink* updateSink_ = nullptr;
};

// Log lines on standard error: "2024-05-01T10:00:00.123Z 127.0.0.2 state Idle -> Connect".
class StderrLogger : public Logger {
 public:
   void log(std::string_view who, std::string_view event) override;
};

} // namespace Flowspecd
