// The client's side of a streamed answer (agent/ShowTables.h): the request goes out as one
// line, and each piece of the answer is handed on as it arrives, so that a long answer is
// printed while the agent is still writing it.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "host/fwk/Result.h"

namespace Flowspecd {

// Sends `request` to the agent at `path`; `onData` gets the answer's bytes piece by piece
// until the agent closes the connection. Fails when the agent cannot be reached or nothing
// arrives for `idle`.
Ovk::Result<bool, std::string> controlStreamRequest(std::string const& path, std::string_view request,
                                                    std::function<void(std::string_view)> const& onData,
                                                    std::chrono::milliseconds idle = std::chrono::seconds(10));

} // namespace Flowspecd
