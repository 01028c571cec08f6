#include "Allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> counting{false};
std::atomic<std::uint64_t> allocations{0};

void* Allocate(std::size_t size) {
  if (counting.load(std::memory_order_relaxed)) {
    allocations.fetch_add(1, std::memory_order_relaxed);
  }
  void* const memory = std::malloc(size > 0 ? size : 1);
  if (!memory) throw std::bad_alloc();
  return memory;
}

}  // namespace

// The nothrow and the array forms call these; aligned ones are not counted.
void* operator new(std::size_t size) {
  return Allocate(size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace bench {

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

}  // namespace bench
