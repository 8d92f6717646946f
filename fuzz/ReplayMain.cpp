// Replays a fuzz target's corpus without libFuzzer: every file under the folders (or each
// file) named on the command line goes once through LLVMFuzzerTestOneInput, in name order. A
// target's oracle that fires aborts or traps, and so fails the run; so does a corpus folder
// that holds no input, so that a moved corpus cannot pass by replaying nothing.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);
// Defined by the targets that set something up once; null in the others.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> inputsUnder(fs::path const& where) {
   std::vector<fs::path> inputs;
   std::error_code ec;
   if (fs::is_regular_file(where, ec)) return {where};
   for (fs::recursive_directory_iterator it(where, ec), end; !ec && it != end; it.increment(ec)) {
      if (it->is_regular_file(ec)) inputs.push_back(it->path());
   }
   if (ec) std::fprintf(stderr, "replay: %s: %s\n", where.c_str(), ec.message().c_str());
   std::sort(inputs.begin(), inputs.end());
   return inputs;
}

bool replay(fs::path const& input) {
   std::error_code ec;
   auto const size = fs::file_size(input, ec);
   std::ifstream in(input, std::ios::binary);
   // Exactly the input's size, so that the sanitizers see a read past its end.
   std::vector<char> bytes(ec ? 0 : size);
   if (ec || !in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()))) {
      std::fprintf(stderr, "replay: cannot read %s\n", input.c_str());
      return false;
   }
   // Logged first, so that the input that brings the target down is the last line shown.
   std::fprintf(stderr, "replay: %s (%zu bytes)\n", input.c_str(), bytes.size());
   (void)LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size());
   return true;
}

} // namespace

int main(int argc, char** argv) {
   if (argc < 2) {
      std::fprintf(stderr, "usage: %s CORPUS-FOLDER-OR-FILE...\n", argv[0]);
      return 2;
   }
   if (LLVMFuzzerInitialize != nullptr) (void)LLVMFuzzerInitialize(&argc, &argv);
   std::size_t replayed = 0;
   bool ok = true;
   for (int i = 1; i < argc; ++i) {
      auto const inputs = inputsUnder(argv[i]);
      if (inputs.empty()) {
         std::fprintf(stderr, "replay: no input under %s\n", argv[i]);
         ok = false;
      }
      for (auto const& input : inputs) {
         if (!replay(input)) ok = false;
         ++replayed;
      }
   }
   std::printf("replayed %zu input(s)\n", replayed);
   return ok ? 0 : 1;
}
