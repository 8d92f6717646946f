// Whole BGP UPDATE messages through the host's UPDATE decoder and the flowspec plugin, for
// `flowspec decode --update HEX`, `--mrt FILE` and `--pcap FILE`.
//
// Each UPDATE is decoded as the agent decodes what a peer sends: the host's decoder with
// the flowspec parse plugin state machine of both families installed in its rule
// collections, over the default VRF's route-key and next-hop dedup tables. The report of an
// UPDATE gives its MP_REACH_NLRI next hop, its extended communities decoded (the flowspec
// actions among them), every announced and withdrawn rule, every error with its count
// reason, and the RFC 7606 outcome. The JSON form is one object per UPDATE, on one line;
// docs/decode-update.md documents its schema.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/bgp/BgpUpdateDecoder.h"

namespace FlowspecTool {

// Where a message of a capture came from.
struct MessageOrigin {
   double timestamp = 0;
   std::string from; // "10.0.0.1:179"
   std::string to;
};

// The decoder and its plugin, with the default VRF's flowspec tables.
class UpdateDecodeSession {
 public:
   // Captures come from sessions whose capabilities are not known: AS numbers are taken as
   // 4 octets unless an AS_PATH frames only with 2, and messages up to 65535 bytes are read.
   UpdateDecodeSession();
   ~UpdateDecodeSession();
   UpdateDecodeSession(UpdateDecodeSession const&) = delete;
   UpdateDecodeSession& operator=(UpdateDecodeSession const&) = delete;

   Routing::Bgp::BgpUpdateDecoder& decoder();

   // The per-NLRI object of `flowspec decode --json` for one NLRI of an UPDATE.
   nlohmann::ordered_json nlriJson(Routing::Bgp::BgpParsedNlri const& nlri) const;
   // The object of one UPDATE; `index` counts messages from 1; `origin` may be null.
   nlohmann::ordered_json updateJson(Routing::Bgp::BgpParsedUpdate const& update, std::size_t index,
                                     MessageOrigin const* origin) const;
   // The readable report of one UPDATE.
   void updateText(Routing::Bgp::BgpParsedUpdate const& update, std::size_t index, MessageOrigin const* origin,
                   std::ostream& out) const;

 private:
   struct Impl;
   std::unique_ptr<Impl> impl_;
};

struct UpdateInput {
   enum class Kind : std::uint8_t { hex, mrt, pcap };
   Kind kind;
   std::string value; // the hex, or the file's path
};

// What decodeUpdates saw.
struct UpdateTotals {
   std::uint64_t messages = 0;    // BGP messages read
   std::uint64_t updates = 0;     // UPDATEs among them
   std::uint64_t notAccepted = 0; // UPDATEs with an error of any kind
   std::uint64_t announced = 0;   // rules announced
   std::uint64_t withdrawn = 0;   // rules withdrawn
   std::uint64_t refused = 0;     // NLRI refused
};

// Decodes every input and writes one report per UPDATE to `out` (a JSON line each with
// `json`); other BGP messages of captures are counted and skipped. Problems with the inputs
// themselves (bad hex, a file that cannot be read) go to `err`. Returns the exit status: 0
// when every UPDATE was accepted whole, 1 when any was not, 2 when an input could not be
// read at all.
int decodeUpdates(std::vector<UpdateInput> const& inputs, bool json, std::ostream& out, std::ostream& err,
                  UpdateTotals* totals = nullptr);

} // namespace FlowspecTool
