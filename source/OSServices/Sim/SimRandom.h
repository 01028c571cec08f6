#pragma once

#include <cstdint>

namespace Orvane {

// Small, fast and the same everywhere.
class SimRandom {
 public:
  explicit SimRandom(std::uint64_t seed) : state_(seed) {}

  std::uint64_t Next() { return Mix(state_ += 0x9E3779B97F4A7C15U); }
  // REQUIRES: `limit` is not 0.
  std::uint64_t Below(std::uint64_t limit) { return Next() % limit; }
  bool OneIn(std::uint64_t count) { return Below(count) == 0; }

  static std::uint64_t Mix(std::uint64_t word) {
    word = (word ^ (word >> 30)) * 0xBF58476D1CE4E5B9U;
    word = (word ^ (word >> 27)) * 0x94D049BB133111EBU;
    return word ^ (word >> 31);
  }

 private:
  std::uint64_t state_;
};

}  // namespace Orvane
