// Page memory of a world.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Orvane {

// Addresses are the same in every run of a seed, and not used twice in one: memory that was given
// back can be told from memory in use.
class SimPages {
 public:
  static constexpr std::uint64_t kPageBytes = 4096;

  // Null when the address space of a world is used up. Not zeroed: contents are what a careless
  // reader does not expect.
  static void* Map(std::size_t size);
  static void Unmap(void* address, std::size_t size);
  // Whether any of it was mapped and given back in this world.
  static bool WereGivenBack(const void* address, std::size_t size);
  static void Reset();
};

}  // namespace Orvane
