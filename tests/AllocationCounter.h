// Counts the calling thread's heap allocations, and can make one of them fail. The test program
// replaces the general allocator for this.
#pragma once

#include <cstddef>

namespace Orvane {

class AllocationCounter {
 public:
  // Allocations of the calling thread so far.
  static std::size_t Count();
  // The bytes that they asked for.
  static std::size_t Bytes();
};

// While it exists, one allocation of the calling thread throws std::bad_alloc: the `ordinal`-th
// from now, counted from 1. The ones before and behind it succeed.
class AllocationFailure {
 public:
  explicit AllocationFailure(std::size_t ordinal);
  ~AllocationFailure();
  AllocationFailure(const AllocationFailure&) = delete;
  AllocationFailure& operator=(const AllocationFailure&) = delete;

  // Whether it has failed by now.
  bool HasHappened() const;

  // The same without an object, for a thread of the library: such an object in a thread_local would
  // be destroyed at the end of the thread, when some run-times have taken its memory away. 0: none
  // will fail any more.
  static void Arm(std::size_t ordinal);
};

}  // namespace Orvane
