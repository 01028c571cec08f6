// Runs a fuzz target once for each file of a folder, without a fuzzer.
// Usage: orvane_replay_TARGET FOLDER
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

#include "FuzzTools.h"

namespace {

std::vector<std::filesystem::path> FilesOf(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

// A copy of exactly its size, so that a read past the end is one past an allocation.
std::vector<std::uint8_t> ContentsOf(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(stream), {}};
  bytes.shrink_to_fit();
  return bytes;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
    return 2;
  }
  const std::vector<std::filesystem::path> files = FilesOf(argv[1]);
  if (files.empty()) {
    std::printf("not ok - no inputs in %s\n[  FAILED  ] 1 test\n", argv[1]);
    return 1;
  }
  LLVMFuzzerInitialize(&argc, &argv);
  for (const std::filesystem::path& file : files) {
    // Before the run: an input that fails ends the program.
    std::printf("input %s\n", file.filename().string().c_str());
    std::fflush(stdout);
    const std::vector<std::uint8_t> bytes = ContentsOf(file);
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::printf("[  PASSED  ] %zu tests.\n", files.size());
  return 0;
}
