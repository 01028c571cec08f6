#include "TestFile.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <vector>

#include "BenchHost.h"
#include "Job.h"

namespace bench {

TestFile::TestFile(const std::string& directory, std::uint64_t bytes) : bytes_(bytes) {
  std::mt19937_64 random(std::random_device{}());
  const auto name = "orvane-bench-" + std::to_string(random() % 1000000);
  name_ = (std::filesystem::path(directory) / name).string();
  std::ofstream file(name_, std::ios::binary | std::ios::trunc);
  std::vector<std::uint64_t> chunk((std::size_t{1} << 20) / sizeof(std::uint64_t));
  const std::uint64_t chunkBytes = chunk.size() * sizeof(std::uint64_t);
  for (std::uint64_t written = 0; file && written < bytes;) {
    std::generate(chunk.begin(), chunk.end(), std::ref(random));
    const std::uint64_t wanted = std::min(chunkBytes, bytes - written);
    file.write(reinterpret_cast<const char*>(chunk.data()), static_cast<std::streamsize>(wanted));
    written += wanted;
  }
  file.close();
  if (!file) {
    std::remove(name_.c_str());
    throw std::runtime_error("cannot write " + name_);
  }
  FlushToDevice(name_);
  DropFromPageCache(name_);
}

TestFile::~TestFile() {
  std::remove(name_.c_str());
}

std::span<const std::uint64_t> CachedJob::GetOffsetsOfPass(std::size_t pass) const {
  const std::span<const std::uint64_t> all(offsets);
  return passItems == 0 ? all : all.subspan(pass * passItems % all.size(), passItems);
}

std::vector<std::uint64_t> RandomOffsets(std::uint64_t fileBytes, std::uint64_t itemBytes,
                                         std::size_t count) {
  std::mt19937_64 random(7);
  std::uniform_int_distribution<std::uint64_t> item(0, fileBytes / itemBytes - 1);
  std::vector<std::uint64_t> offsets(count);
  for (std::uint64_t& offset : offsets) offset = item(random) * itemBytes;
  return offsets;
}

std::vector<std::uint64_t> ShuffledOffsets(std::uint64_t fileBytes, std::uint64_t itemBytes) {
  std::vector<std::uint64_t> offsets = SequentialOffsets(fileBytes, itemBytes);
  std::shuffle(offsets.begin(), offsets.end(), std::mt19937_64(7));
  return offsets;
}

std::vector<std::uint64_t> SequentialOffsets(std::uint64_t fileBytes, std::uint64_t itemBytes) {
  std::vector<std::uint64_t> offsets;
  for (std::uint64_t at = 0; at + itemBytes <= fileBytes; at += itemBytes) offsets.push_back(at);
  return offsets;
}

}  // namespace bench
