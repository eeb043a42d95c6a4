// Gives a fuzz target its corpus, and an empty input before: built with any compiler, part of the
// tests. Arguments: folders of files.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "fuzz/fuzz_stage.h"

namespace fs = std::filesystem;

namespace {

// Named before it runs: the last name is that of the input that broke something.
void Run(const char* name, const std::vector<std::uint8_t>& input) {
  std::printf("%s\n", name);
  std::fflush(stdout);
  LLVMFuzzerTestOneInput(input.data(), input.size());
}

std::set<fs::path> Files(int argc, char** argv) {
  std::set<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    const fs::directory_iterator folder(argv[i]);
    files.insert(fs::begin(folder), fs::end(folder));
  }
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  const std::set<fs::path> files = Files(argc, argv);
  if (files.empty()) {
    std::puts("nothing to replay");
    return 1;
  }
  LLVMFuzzerInitialize(&argc, &argv);
  Run("an empty input", {});
  for (const fs::path& path : files) {
    std::ifstream file(path, std::ios::binary);
    Run(path.c_str(), {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()});
  }
  std::printf("%zu inputs replayed\n", files.size() + 1);
  return 0;
}
