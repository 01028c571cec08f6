#pragma once

#include <cstdint>

namespace bench {

// Counts what the C++ code of this process takes from the heap while it exists. One at a time.
class AllocationCount {
 public:
  AllocationCount();
  ~AllocationCount();
  AllocationCount(const AllocationCount&) = delete;
  AllocationCount& operator=(const AllocationCount&) = delete;

  std::uint64_t Get() const;
};

}  // namespace bench
