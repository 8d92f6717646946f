// The kernel's nftables through libnftables: batches of commands run as one transaction,
// with nftables' own messages tied to the line of the batch they are about, and listings in
// JSON.
//
// A batch is handed to libnftables as a file (an anonymous memory file), not a buffer: only
// then does nft name the line of each error ("FILE:LINE:COLUMNS: Error: MESSAGE"); for a
// buffer it names none. A batch either commits whole or not at all.
//
// Its netlink socket belongs to the network namespace the object was made in. Not
// thread-safe; one per thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

struct nft_ctx;

namespace Fwd {

struct NftError {
   unsigned line = 0;   // 1-based line of the batch; 0 when nft names none
   std::string message; // nft's text after "Error: "
};

struct NftRunResult {
   bool ok = false;
   std::vector<NftError> errors;
};

class Nft {
 public:
   Nft();
   ~Nft();
   Nft(Nft const&) = delete;
   Nft& operator=(Nft const&) = delete;

   // Runs `batch` (commands one per line) as one transaction.
   NftRunResult run(std::string const& batch);
   // Runs a listing command ("list set inet T counters") and returns its JSON output, or
   // empty with `error` set (nft's message) when it fails.
   std::optional<nlohmann::json> listJson(std::string const& command, std::string* error = nullptr);

 private:
   nft_ctx* ctx_ = nullptr;
   nft_ctx* json_ = nullptr;
};

// The errors nft wrote for a batch read from `path` (exposed for tests).
std::vector<NftError> parseNftErrors(std::string const& text, std::string const& path);

} // namespace Fwd
