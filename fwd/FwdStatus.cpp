#include "fwd/FwdStatus.h"
#include "host/fwk/FileTrust.h"
#include "host/fwk/JsonText.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

namespace Fwd {

std::string defaultStatusPath(std::string const& table) { return "/run/flowspec-fwd/" + table + ".json"; }

bool writeStatusFile(std::string const& path, std::string const& table, std::string const& segment,
                     std::uint64_t generation, std::vector<RuleStatus> const& rules, std::string* error,
                     FollowCounters const& follow) {
   nlohmann::json j;
   j["table"] = table;
   j["segment"] = segment;
   j["generation"] = generation;
   j["pid"] = static_cast<std::uint32_t>(::getpid());
   nlohmann::json& list = j["rules"] = nlohmann::json::array();
   for (RuleStatus const& r : rules) {
      list.push_back({{"key", r.key.toStrepCli()},
                      {"installed", r.installed},
                      {"reason", r.reason.empty() ? nlohmann::json(nullptr) : nlohmann::json(r.reason)},
                      {"counter", r.counterId}});
   }
   j["follow"] = {{"added", follow.added},         {"changed", follow.changed},
                  {"removed", follow.removed},     {"fullInstalls", follow.fullInstalls},
                  {"holds", follow.holds},         {"unchanged", follow.unchanged},
                  {"holding", follow.holding}};
   std::error_code ec;
   std::filesystem::path const p(path);
   if (p.has_parent_path()) std::filesystem::create_directories(p.parent_path(), ec);
   // The process runs as root: a directory another user could write would let them swap the
   // file, or put a link where the temporary one goes and have root write through it.
   if (std::string const why = Ovk::pathTrustProblem(path); !why.empty()) {
      if (error != nullptr) *error = "not writing the status file: " + why;
      return false;
   }
   std::string const tmp = path + ".tmp";
   std::string const text = Ovk::jsonText(j) + '\n';
   int const fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
   if (fd < 0) {
      if (error != nullptr) *error = "cannot write " + tmp + ": " + std::strerror(errno);
      return false;
   }
   std::size_t done = 0;
   while (done < text.size()) {
      ssize_t const n = ::write(fd, text.data() + done, text.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
         if (error != nullptr) *error = "cannot write " + tmp + ": " + std::strerror(n < 0 ? errno : EIO);
         ::close(fd);
         return false;
      }
      done += static_cast<std::size_t>(n);
   }
   ::close(fd);
   if (std::rename(tmp.c_str(), path.c_str()) != 0) {
      if (error != nullptr) *error = "cannot rename " + tmp + ": " + std::strerror(errno);
      return false;
   }
   return true;
}

std::optional<StatusFile> readStatusFile(std::string const& path, std::string* error) {
   std::ifstream in(path);
   if (!in) {
      if (error != nullptr) *error = "no status file " + path;
      return std::nullopt;
   }
   std::stringstream ss;
   ss << in.rdbuf();
   auto const j = nlohmann::json::parse(ss.str(), nullptr, false);
   if (j.is_discarded() || !j.is_object() || !j.contains("rules") || !j["rules"].is_array()) {
      if (error != nullptr) *error = path + " is not a flowspec-fwd status file";
      return std::nullopt;
   }
   StatusFile f;
   f.table = j.value("table", "");
   f.segment = j.value("segment", "");
   f.generation = j.value("generation", std::uint64_t{0});
   f.pid = j.value("pid", std::uint32_t{0});
   if (auto const it = j.find("follow"); it != j.end() && it->is_object()) {
      auto const u = [&](char const* k) { return it->value(k, std::uint64_t{0}); };
      f.follow = FollowCounters{u("added"), u("changed"), u("removed"), u("fullInstalls"), u("holds"), u("unchanged"),
                                it->value("holding", false)};
   }
   for (auto const& r : j["rules"]) {
      if (!r.is_object() || !r.contains("key") || !r["key"].is_string()) continue;
      StatusEntry e;
      e.installed = r.value("installed", false);
      if (r.contains("reason") && r["reason"].is_string()) e.reason = r["reason"].get<std::string>();
      e.counterId = r.value("counter", std::uint32_t{0});
      f.rules[r["key"].get<std::string>()] = std::move(e);
   }
   return f;
}

} // namespace Fwd
