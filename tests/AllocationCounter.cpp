#include "AllocationCounter.h"

#include <cstdlib>
#include <new>

namespace {

// More than any machine has. The allocators of the sanitizers end the process instead of refusing.
constexpr std::size_t kTooMuch = std::size_t{1} << 39;

thread_local std::size_t allocations = 0;
thread_local std::size_t bytesAskedFor = 0;
thread_local std::size_t untilFailure = 0;  // 0: none will fail

void* Allocate(std::size_t size) noexcept {
  ++allocations;
  bytesAskedFor += size;
  if (untilFailure != 0 && --untilFailure == 0) return nullptr;
  if (size > kTooMuch) return nullptr;
  return std::malloc(size == 0 ? 1 : size);
}

void* AllocateOrThrow(std::size_t size) {
  void* const memory = Allocate(size);
  if (!memory) throw std::bad_alloc();
  return memory;
}

}  // namespace

void* operator new(std::size_t size) {
  return AllocateOrThrow(size);
}
void* operator new[](std::size_t size) {
  return AllocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}

namespace Orvane {

std::size_t AllocationCounter::Count() {
  return allocations;
}

std::size_t AllocationCounter::Bytes() {
  return bytesAskedFor;
}

AllocationFailure::AllocationFailure(std::size_t ordinal) {
  untilFailure = ordinal;
}

AllocationFailure::~AllocationFailure() {
  untilFailure = 0;
}

void AllocationFailure::Arm(std::size_t ordinal) {
  untilFailure = ordinal;
}

bool AllocationFailure::HasHappened() const {
  return untilFailure == 0;
}

}  // namespace Orvane
