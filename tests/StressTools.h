// Shared by the stress tests.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Orvane {

// Small, fast and the same everywhere.
class StressRandom {
 public:
  constexpr explicit StressRandom(std::uint64_t seed) : state_(seed) {}
  std::uint64_t Next() {
    std::uint64_t word = (state_ += 0x9E3779B97F4A7C15U);
    word = (word ^ (word >> 30)) * 0xBF58476D1CE4E5B9U;
    word = (word ^ (word >> 27)) * 0x94D049BB133111EBU;
    return word ^ (word >> 31);
  }
  std::size_t Below(std::size_t limit) { return static_cast<std::size_t>(Next() % limit); }
  bool OneIn(std::size_t count) { return Below(count) == 0; }

 private:
  std::uint64_t state_;
};

// What a stress test is told in the environment.
struct StressOptions {
  std::uint64_t seconds;  // ORVANE_STRESS_SECONDS: how long it runs (5)
  std::uint64_t seed;     // ORVANE_STRESS_SEED: repeats a run's choices (by chance)

  // Also prints them.
  static StressOptions FromEnvironment();
};

// The line that scripts/soak adds up: requests that were answered or reported, and bytes that were
// read through the library and compared with what the file may hold.
void PrintStressTotals(std::uint64_t operations, std::uint64_t comparedBytes);

}  // namespace Orvane
