#pragma once

#include <cstdint>

namespace bench {

// Counts what this process takes from the heap while it exists: by malloc and its like, shared
// libraries too. Where the host does not let a program replace those, and in builds with a
// sanitizer, which replaces them itself, only by operator new. One at a time.
class AllocationCount {
 public:
  AllocationCount();
  ~AllocationCount();
  AllocationCount(const AllocationCount&) = delete;
  AllocationCount& operator=(const AllocationCount&) = delete;

  std::uint64_t Get() const;
};

// Called for each, also before main.
void NoteAllocation() noexcept;

}  // namespace bench
