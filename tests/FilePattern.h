// The contents of the test files: every byte follows from its position, so that a byte that comes
// from the wrong place shows.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Orvane {

inline unsigned char PatternByte(std::uint64_t position, std::uint64_t seed = 0) {
  std::uint64_t word = (position / 8 + 1) * 0x9E3779B97F4A7C15U + seed * 0xD6E8FEB86659FD93U;
  word ^= word >> 29;
  return static_cast<unsigned char>(word >> (position % 8 * 8));
}

// The bytes from `position` of a file on.
void FillPattern(void* data, std::size_t size, std::uint64_t position, std::uint64_t seed = 0);
bool HasPattern(const void* data, std::size_t size, std::uint64_t position, std::uint64_t seed = 0);

}  // namespace Orvane
