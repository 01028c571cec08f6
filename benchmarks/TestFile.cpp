#include "TestFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <stdexcept>

namespace bench {
namespace {

constexpr std::size_t kChunkBytes = std::size_t{1} << 20;

[[noreturn]] void Fail(const std::string& what, const std::string& name) {
  throw std::runtime_error(what + " " + name + ": " + std::strerror(errno));
}

}  // namespace

TestFile::TestFile(const std::string& directory, std::uint64_t bytes)
    : name_(directory + "/orvane-bench-" + std::to_string(getpid())), bytes_(bytes) {
  const int descriptor = open(name_.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
  if (descriptor < 0) Fail("cannot create", name_);
  std::mt19937_64 random(42);
  std::vector<std::uint64_t> chunk(kChunkBytes / sizeof(std::uint64_t));
  for (std::uint64_t written = 0; written < bytes;) {
    std::generate(chunk.begin(), chunk.end(), std::ref(random));
    const auto wanted = std::min<std::uint64_t>(kChunkBytes, bytes - written);
    const ssize_t moved = write(descriptor, chunk.data(), wanted);
    if (moved <= 0) Fail("cannot write", name_);
    written += static_cast<std::uint64_t>(moved);
  }
  fsync(descriptor);
  posix_fadvise(descriptor, 0, 0, POSIX_FADV_DONTNEED);
  close(descriptor);
}

TestFile::~TestFile() {
  unlink(name_.c_str());
}

int OpenUnbuffered(const std::string& name) {
  const int descriptor = open(name.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
  return descriptor < 0 ? OpenBuffered(name) : descriptor;
}

int OpenBuffered(const std::string& name) {
  const int descriptor = open(name.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) Fail("cannot open", name);
  return descriptor;
}

void DropFromPageCache(const std::string& name) {
  const int descriptor = OpenBuffered(name);
  posix_fadvise(descriptor, 0, 0, POSIX_FADV_DONTNEED);
  close(descriptor);
}

std::vector<std::uint64_t> RandomOffsets(std::uint64_t fileBytes, std::uint64_t blockBytes,
                                         std::size_t count) {
  std::mt19937_64 random(7);
  std::uniform_int_distribution<std::uint64_t> block(0, fileBytes / blockBytes - 1);
  std::vector<std::uint64_t> offsets(count);
  for (std::uint64_t& offset : offsets) offset = block(random) * blockBytes;
  return offsets;
}

std::vector<std::uint64_t> SequentialOffsets(std::uint64_t fileBytes, std::uint64_t blockBytes) {
  std::vector<std::uint64_t> offsets;
  for (std::uint64_t at = 0; at + blockBytes <= fileBytes; at += blockBytes) offsets.push_back(at);
  return offsets;
}

AlignedBlocks::AlignedBlocks(std::uint64_t blockBytes, std::size_t blocks)
    : blockBytes_(blockBytes) {
  constexpr std::uint64_t kHugePage = std::uint64_t{2} << 20;
  const std::uint64_t bytes = (blockBytes * blocks + kHugePage - 1) / kHugePage * kHugePage;
  memory_ = static_cast<char*>(std::aligned_alloc(kHugePage, bytes));
  if (!memory_) throw std::bad_alloc();
  madvise(memory_, bytes, MADV_HUGEPAGE);
  std::memset(memory_, 0, bytes);
}

AlignedBlocks::~AlignedBlocks() {
  std::free(memory_);
}

}  // namespace bench
