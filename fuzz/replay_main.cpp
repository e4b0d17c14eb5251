// SPDX-License-Identifier: MIT

// Runs a fuzz target on every file in the folders that the arguments name. Used where libFuzzer is
// not available.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  int replayed = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
      if (!entry.is_regular_file()) continue;
      std::ifstream file(entry.path(), std::ios::binary);
      const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
      const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
      LLVMFuzzerTestOneInput(input.data(), input.size());
      ++replayed;
    }
  }
  std::printf("%d inputs replayed\n", replayed);
  return replayed > 0 ? EXIT_SUCCESS : EXIT_FAILURE;  // an empty corpus tests nothing
}
