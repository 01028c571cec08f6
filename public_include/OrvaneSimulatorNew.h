// Replaces `new` and `delete` of the program, but for over-aligned types, by such that take part in
// a simulation: an allocation is a place where another thread may go on, and may fail (see
// OrvaneSimulator.h). Included by exactly one source file of a program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "Export.h"
#include "OrvaneSimulator.h"

namespace Orvane {

inline void* SimulatorAllocate(std::size_t size) noexcept {
  // The allocators of the sanitizers end the process where others refuse.
  constexpr std::uint64_t kTooMuch = std::uint64_t{1} << 39;
  if (!SimulatorAllocations::OnAllocation(size) || size > kTooMuch) return nullptr;
  return std::malloc(size == 0 ? 1 : size);
}

inline void* SimulatorAllocateOrThrow(std::size_t size) {
  void* const memory = SimulatorAllocate(size);
  if (!memory) throw std::bad_alloc();
  return memory;
}

// Not inlined: where a compiler inlines `delete` but not the `new` before it, it would warn that
// what comes from `new` goes to std::free.
ORVANE_NO_INLINE inline void SimulatorFree(void* memory) noexcept {
  std::free(memory);
}

}  // namespace Orvane

void* operator new(std::size_t size) {
  return Orvane::SimulatorAllocateOrThrow(size);
}
void* operator new[](std::size_t size) {
  return Orvane::SimulatorAllocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Orvane::SimulatorAllocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return Orvane::SimulatorAllocate(size);
}
void operator delete(void* memory) noexcept {
  Orvane::SimulatorFree(memory);
}
void operator delete[](void* memory) noexcept {
  Orvane::SimulatorFree(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  Orvane::SimulatorFree(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  Orvane::SimulatorFree(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  Orvane::SimulatorFree(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  Orvane::SimulatorFree(memory);
}
