// Golden files of the flowspec tool's tests, in FS_GOLDEN_DIR.
#pragma once

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace FlowspecTest {

// The golden file `file`; with FS_UPDATE_GOLDEN=1 in the environment, `actual` is written
// to it first (to take a change of output on purpose).
inline std::string golden(std::string const& file, std::string const& actual) {
   std::string const path = std::string(FS_GOLDEN_DIR) + "/" + file;
   if (char const* u = std::getenv("FS_UPDATE_GOLDEN"); u != nullptr && std::string(u) == "1") {
      std::ofstream(path) << actual;
   }
   std::ifstream in(path);
   std::stringstream ss;
   ss << in.rdbuf();
   return ss.str();
}

} // namespace FlowspecTest
