#include "FilePattern.h"

namespace Orvane {

void FillPattern(void* data, std::size_t size, std::uint64_t position, std::uint64_t seed) {
  auto* const bytes = static_cast<unsigned char*>(data);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = PatternByte(position + i, seed);
}

bool HasPattern(const void* data, std::size_t size, std::uint64_t position, std::uint64_t seed) {
  const auto* const bytes = static_cast<const unsigned char*>(data);
  for (std::size_t i = 0; i < size; ++i) {
    if (bytes[i] != PatternByte(position + i, seed)) return false;
  }
  return true;
}

}  // namespace Orvane
