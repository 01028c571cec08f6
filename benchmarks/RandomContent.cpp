#include "RandomContent.h"

#include <cstdint>
#include <cstring>

namespace bench {

void FillWithRandom(void* memory, std::size_t bytes, std::mt19937_64* random) {
  auto* const start = static_cast<char*>(memory);
  for (std::size_t at = 0; at + sizeof(std::uint64_t) <= bytes; at += sizeof(std::uint64_t)) {
    const std::uint64_t word = (*random)();
    std::memcpy(start + at, &word, sizeof word);
  }
}

std::mt19937_64 NewContent() {
  return std::mt19937_64(11);
}

}  // namespace bench
