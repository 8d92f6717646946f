// The status file is written only where no other user could swap it or have root write
// through a link; what is written reads back.
#include "fwd/FwdStatus.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace Fwd {
namespace {

struct Dir {
   Dir() {
      std::string tmpl = ::testing::TempDir() + "/fwdstatus-XXXXXX";
      path = ::mkdtemp(tmpl.data()) ? tmpl : std::string();
   }
   ~Dir() { std::system(("rm -rf '" + path + "'").c_str()); }
   std::string path;
};

std::string firstLine(std::string const& path) {
   std::ifstream in(path);
   std::string line;
   std::getline(in, line);
   return line;
}

TEST(FwdStatusTest, WrittenInAPrivateDirectoryAndReadBack) {
   Dir d;
   ASSERT_FALSE(d.path.empty());
   std::string const path = d.path + "/run/fsfwd.json"; // the directory is made
   std::string err;
   ASSERT_TRUE(writeStatusFile(path, "inet fsfwd", "/flowspecd.routing.bgp.flowspec", 7, {}, &err)) << err;
   auto const f = readStatusFile(path, &err);
   ASSERT_TRUE(f) << err;
   EXPECT_EQ(f->table, "inet fsfwd");
   EXPECT_EQ(f->generation, 7u);
   EXPECT_EQ(f->pid, static_cast<std::uint32_t>(::getpid()));
   EXPECT_NE(::access((path + ".tmp").c_str(), F_OK), 0); // renamed over, not left
}

TEST(FwdStatusTest, NotWrittenWhereAnotherUserCouldSwapIt) {
   struct Row {
      char const* name;
      void (*prepare)(std::string const& dir, std::string const& victim);
      char const* says;
   };
   Row const rows[] = {
       {"directory others may write", [](std::string const& dir, std::string const&) { ::chmod(dir.c_str(), 0777); },
        "may be written by other users (mode 0777) and has no sticky bit"},
       {"link at the file's name",
        [](std::string const& dir, std::string const& victim) { (void)::symlink(victim.c_str(), (dir + "/s.json").c_str()); },
        "s.json is a symbolic link"},
       {"link at the temporary name",
        [](std::string const& dir, std::string const& victim) {
           (void)::symlink(victim.c_str(), (dir + "/s.json.tmp").c_str());
        },
        "cannot write"},
   };
   for (Row const& r : rows) {
      SCOPED_TRACE(r.name);
      Dir d;
      ASSERT_FALSE(d.path.empty());
      std::string const victim = d.path + "-victim";
      { std::ofstream(victim) << "kept\n"; }
      std::string const dir = d.path + "/run";
      ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
      r.prepare(dir, victim);
      std::string err;
      EXPECT_FALSE(writeStatusFile(dir + "/s.json", "inet fsfwd", "/x", 1, {}, &err));
      EXPECT_NE(err.find(r.says), std::string::npos) << err;
      EXPECT_EQ(firstLine(victim), "kept");
      std::remove(victim.c_str());
   }
}

} // namespace
} // namespace Fwd
