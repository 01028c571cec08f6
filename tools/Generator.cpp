#include "Generator.h"

#include <algorithm>
#include <cstring>

namespace OrvaneTool {

// The output step of the SplitMix64 generator, applied to a counter.
std::uint64_t Generator::Word(std::uint64_t index) const {
  std::uint64_t word = seed_ + (index + 1) * 0x9E3779B97F4A7C15U;
  word = (word ^ (word >> 30)) * 0xBF58476D1CE4E5B9U;
  word = (word ^ (word >> 27)) * 0x94D049BB133111EBU;
  return word ^ (word >> 31);
}

void Generator::Fill(std::uint64_t offset, void* destination, std::size_t count) const {
  auto* bytes = static_cast<unsigned char*>(destination);
  std::uint64_t index = offset / sizeof(std::uint64_t);
  while (count > 0) {
    const std::uint64_t word = Word(index++);
    const std::size_t step = std::min(count, sizeof word);
    std::memcpy(bytes, &word, step);
    bytes += step;
    count -= step;
  }
}

}  // namespace OrvaneTool
