// Where the primitives of a world lie: given back all at once, when the next world begins.
#pragma once

#include <cstddef>

namespace Orvane {

// Memory that is destroyed stays there: whoever uses a primitive that is gone meets a marker.
class SimArena {
 public:
  // Aligned for anything.
  static void* Allocate(std::size_t size);
  static bool Owns(const void* memory);
  static void Reset();
};

}  // namespace Orvane
