#include "Allocations.h"

#include <atomic>

namespace bench {
namespace {

constinit std::atomic<bool> counting{false};
constinit std::atomic<std::uint64_t> allocations{0};

}  // namespace

AllocationCount::AllocationCount() {
  allocations = 0;
  counting = true;
}

AllocationCount::~AllocationCount() {
  counting = false;
}

std::uint64_t AllocationCount::Get() const {
  return allocations.load();
}

void NoteAllocation() noexcept {
  if (counting.load(std::memory_order_relaxed)) {
    allocations.fetch_add(1, std::memory_order_relaxed);
  }
}

}  // namespace bench
