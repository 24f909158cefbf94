// Feeds files to a fuzz target, without libFuzzer: what its corpus holds stays without a finding,
// whatever the compiler.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "tests/fuzz/fuzz.h"

namespace {

std::vector<std::filesystem::path> filesIn(const std::filesystem::path& place) {
  if (!std::filesystem::is_directory(place)) return {place};
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(place)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::ranges::sort(files);
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  int inputs = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& path : filesIn(argv[i])) {
      std::ifstream file(path, std::ios::binary);
      if (!file) {
        std::fprintf(stderr, "%s: cannot be read\n", path.c_str());
        return 2;
      }
      const std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
      std::fprintf(stderr, "%s\n", path.c_str());  // the last one is the one that stopped it
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      ++inputs;
    }
  }
  std::printf("%d inputs\n", inputs);
  return inputs == 0 ? 2 : 0;
}
