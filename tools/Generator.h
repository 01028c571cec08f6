// Reproducible pseudo-random file content.
#pragma once

#include <cstddef>
#include <cstdint>

namespace OrvaneTool {

// The byte at an offset depends on the seed and the offset alone, so content does not change with
// the block size, and a shorter file is the beginning of a longer one.
// Safe from any thread: immutable after construction.
class Generator {
 public:
  explicit Generator(std::uint64_t seed) : seed_(seed) {}

  // Writes the `count` bytes of the content that start at `offset`.
  // REQUIRES: `offset` is a multiple of 8.
  void Fill(std::uint64_t offset, void* destination, std::size_t count) const;

 private:
  std::uint64_t Word(std::uint64_t index) const;

  const std::uint64_t seed_;
};

}  // namespace OrvaneTool
