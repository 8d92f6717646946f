// Paths another user could put something at or swap: a table of directory modes and owners,
// links as the path's last component and on the way.
#include "host/fwk/FileTrust.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace Ovk {
namespace {

// A fresh directory of this test, removed (with what it holds) at the end.
struct Dir {
   Dir() {
      std::string tmpl = ::testing::TempDir() + "/filetrust-XXXXXX";
      path = ::mkdtemp(tmpl.data()) ? tmpl : std::string();
   }
   ~Dir() { std::system(("rm -rf '" + path + "'").c_str()); }
   std::string path;
};

TEST(FileTrustTest, DirectoriesOthersMayWriteNeedTheStickyBit) {
   struct Row {
      mode_t mode;
      char const* says; // null: trusted
   };
   Row const rows[] = {
       {0700, nullptr},
       {0755, nullptr},
       {01777, nullptr}, // as /tmp
       {0777, "may be written by other users (mode 0777) and has no sticky bit"},
       {0775, "may be written by other users (mode 0775) and has no sticky bit"},
       {0757, "may be written by other users (mode 0757) and has no sticky bit"},
   };
   for (Row const& r : rows) {
      SCOPED_TRACE(modeText(r.mode));
      Dir d;
      ASSERT_FALSE(d.path.empty());
      ASSERT_EQ(::chmod(d.path.c_str(), r.mode), 0);
      std::string const why = pathTrustProblem(d.path + "/agent.sock");
      if (r.says) {
         EXPECT_NE(why.find("the directory " + d.path + " " + r.says), std::string::npos) << why;
      } else {
         EXPECT_EQ(why, "");
      }
   }
}

// The path itself a link: refused, whatever it points at. A link on the way is followed and
// what it leads to is checked as well.
TEST(FileTrustTest, LinksAreRefusedOrFollowed) {
   Dir d;
   std::string const target = d.path + "/real.sock";
   std::string const link = d.path + "/agent.sock";
   ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
   EXPECT_EQ(pathTrustProblem(link), link + " is a symbolic link");
   // A link to a directory others may write: the path through it is not safe.
   std::string const open = d.path + "/open";
   ASSERT_EQ(::mkdir(open.c_str(), 0777), 0);
   ASSERT_EQ(::chmod(open.c_str(), 0777), 0);
   std::string const via = d.path + "/via";
   ASSERT_EQ(::symlink(open.c_str(), via.c_str()), 0);
   EXPECT_EQ(pathTrustProblem(via + "/agent.sock"),
             "the directory " + via + " may be written by other users (mode 0777) and has no sticky bit");
   // A file where a directory should be.
   std::ofstream(d.path + "/file") << "x";
   EXPECT_NE(pathTrustProblem(d.path + "/file/agent.sock").find("is not a directory"), std::string::npos);
   // A relative path is read from the working directory.
   EXPECT_EQ(pathTrustProblem("agent.sock"), pathTrustProblem(std::filesystem::current_path().string() + "/agent.sock"));
}

TEST(FileTrustTest, ADirectoryOfAnotherUserIsRefused) {
   if (::geteuid() != 0) GTEST_SKIP() << "giving a directory to another user needs root";
   Dir d;
   std::string const theirs = d.path + "/theirs";
   ASSERT_EQ(::mkdir(theirs.c_str(), 0755), 0);
   ASSERT_EQ(::chown(theirs.c_str(), 65534, 65534), 0);
   std::string const why = pathTrustProblem(theirs + "/agent.sock");
   EXPECT_NE(why.find("the directory " + theirs + " belongs to user "), std::string::npos) << why;
   EXPECT_NE(why.find("uid 65534"), std::string::npos) << why;
}

TEST(FileTrustTest, UsersAndModesAsText) {
   EXPECT_EQ(modeText(01777 | S_IFDIR), "1777");
   EXPECT_EQ(modeText(0644), "0644");
   EXPECT_NE(userText(0).find("uid 0"), std::string::npos);
   EXPECT_EQ(userText(4000000000u), "uid 4000000000");
}

} // namespace
} // namespace Ovk
