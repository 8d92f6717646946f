#include "fwd/Nft.h"

#include <nftables/libnftables.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Fwd {

namespace {

nft_ctx* newContext(unsigned outputFlags) {
   nft_ctx* ctx = nft_ctx_new(NFT_CTX_DEFAULT);
   if (ctx == nullptr) return nullptr;
   nft_ctx_buffer_output(ctx);
   nft_ctx_buffer_error(ctx);
   nft_ctx_output_set_flags(ctx, outputFlags);
   return ctx;
}

std::string chomp(std::string s) {
   while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
   return s;
}

} // namespace

Nft::Nft() : ctx_(newContext(0)), json_(newContext(NFT_CTX_OUTPUT_JSON)) {}

Nft::~Nft() {
   if (ctx_ != nullptr) nft_ctx_free(ctx_);
   if (json_ != nullptr) nft_ctx_free(json_);
}

std::vector<NftError> parseNftErrors(std::string const& text, std::string const& path) {
   std::vector<NftError> out;
   std::size_t pos = 0;
   while (pos < text.size()) {
      std::size_t const end = std::min(text.find('\n', pos), text.size());
      std::string const line = text.substr(pos, end - pos);
      pos = end + 1;
      std::size_t const at = line.find("Error: ");
      if (at == std::string::npos) continue;
      NftError e;
      e.message = chomp(line.substr(at + 7));
      // "PATH:LINE:COLUMNS: Error: ..." names the line; a bare "Error: ..." does not.
      if (line.compare(0, path.size() + 1, path + ":") == 0) {
         e.line = static_cast<unsigned>(std::strtoul(line.c_str() + path.size() + 1, nullptr, 10));
      } else if (at != 0) {
         continue; // an echoed command that happens to hold the text
      }
      out.push_back(std::move(e));
   }
   return out;
}

NftRunResult Nft::run(std::string const& batch) {
   NftRunResult r;
   if (ctx_ == nullptr) {
      r.errors.push_back({0, "cannot create an nftables context"});
      return r;
   }
   int const fd = ::memfd_create("flowspec-fwd-batch", MFD_CLOEXEC);
   if (fd < 0) {
      r.errors.push_back({0, std::string("memfd_create: ") + std::strerror(errno)});
      return r;
   }
   std::size_t done = 0;
   while (done < batch.size()) {
      ssize_t const n = ::write(fd, batch.data() + done, batch.size() - done);
      if (n <= 0) {
         ::close(fd);
         r.errors.push_back({0, std::string("writing the batch: ") + std::strerror(errno)});
         return r;
      }
      done += static_cast<std::size_t>(n);
   }
   std::string const path = "/proc/self/fd/" + std::to_string(fd);
   int const rc = nft_run_cmd_from_filename(ctx_, path.c_str());
   ::close(fd);
   r.ok = rc == 0;
   if (!r.ok) {
      r.errors = parseNftErrors(nft_ctx_get_error_buffer(ctx_), path);
      if (r.errors.empty()) r.errors.push_back({0, chomp(nft_ctx_get_error_buffer(ctx_))});
   }
   return r;
}

std::optional<nlohmann::json> Nft::listJson(std::string const& command, std::string* error) {
   if (json_ == nullptr || nft_run_cmd_from_buffer(json_, command.c_str()) != 0) {
      if (error != nullptr) {
         *error = json_ == nullptr ? "cannot create an nftables context" : chomp(nft_ctx_get_error_buffer(json_));
         if (std::size_t const at = error->find("Error: "); at != std::string::npos) {
            *error = chomp(error->substr(at + 7, error->find('\n', at) - at - 7));
         }
      }
      return std::nullopt;
   }
   auto j = nlohmann::json::parse(nft_ctx_get_output_buffer(json_), nullptr, false);
   if (j.is_discarded()) {
      if (error != nullptr) *error = "nft wrote JSON that does not parse";
      return std::nullopt;
   }
   return j;
}

} // namespace Fwd
