#include "host/fwk/FileTrust.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Ovk {

namespace {

// Why directory `dir` (absolute) or one above it is not safe; "" when none is.
std::string chainProblem(std::string const& dir) {
   std::string at;
   std::size_t pos = 0;
   while (pos < dir.size()) {
      std::size_t const next = dir.find('/', pos + 1);
      at = dir.substr(0, next == std::string::npos ? dir.size() : next);
      pos = next == std::string::npos ? dir.size() : next;
      std::string const shown = at.empty() ? "/" : at;
      struct stat st {};
      if (::stat(shown.c_str(), &st) != 0) return "cannot read " + shown + ": " + std::strerror(errno);
      if (!S_ISDIR(st.st_mode)) return shown + " is not a directory";
      if (st.st_uid != 0 && st.st_uid != ::geteuid()) {
         return "the directory " + shown + " belongs to user " + userText(st.st_uid) + ", neither root nor " +
                userText(::geteuid());
      }
      if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (st.st_mode & S_ISVTX) == 0) {
         return "the directory " + shown + " may be written by other users (mode " + modeText(st.st_mode) +
                ") and has no sticky bit";
      }
   }
   return {};
}

} // namespace

std::string userText(uid_t uid) {
   std::string text = "uid " + std::to_string(uid);
   struct passwd pw {};
   struct passwd* found = nullptr;
   char buf[1024];
   if (::getpwuid_r(uid, &pw, buf, sizeof buf, &found) == 0 && found) text = std::string(found->pw_name) + " (" + text + ")";
   return text;
}

std::string modeText(mode_t mode) {
   char text[8];
   std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
   return text;
}

std::string pathTrustProblem(std::string const& path) {
   struct stat st {};
   if (::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) return path + " is a symbolic link";
   std::string dir = path.substr(0, path.find_last_of('/') == std::string::npos ? 0 : path.find_last_of('/'));
   if (path.find('/') == std::string::npos) dir = ".";
   if (dir.empty()) dir = "/";
   if (dir.front() != '/') {
      char cwd[PATH_MAX];
      if (::getcwd(cwd, sizeof cwd) == nullptr) return std::string("cannot read the working directory: ") + std::strerror(errno);
      dir = std::string(cwd) + "/" + dir;
   }
   // The directories as the path names them (a link among them lies in the one before it,
   // checked first), then as its links lead.
   if (std::string why = chainProblem(dir); !why.empty()) return why;
   char real[PATH_MAX];
   if (::realpath(dir.c_str(), real) == nullptr) return "cannot resolve " + dir + ": " + std::strerror(errno);
   return chainProblem(real);
}

} // namespace Ovk
