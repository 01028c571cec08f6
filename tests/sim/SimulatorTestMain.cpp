// The tests of the simulator: they install it, so they are a program of their own.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "LiveAllocations.h"
#include "OrvaneSimulator.h"

// For the address sanitizer, where that is built in: runs that failed leave their memory on
// purpose. That the others leave none is counted (WorldsLeaveNothingBehind).
extern "C" const char* __asan_default_options() {
  return "detect_leaks=0";
}

namespace Orvane {

std::atomic<long> liveAllocations{0};

namespace {

void* Allocate(std::size_t size) noexcept {
  if (!SimulatorAllocations::OnAllocation(size)) return nullptr;
  void* const memory = std::malloc(size == 0 ? 1 : size);
  if (memory) ++liveAllocations;
  return memory;
}

void* AllocateOrThrow(std::size_t size) {
  void* const memory = Allocate(size);
  if (!memory) throw std::bad_alloc();
  return memory;
}

void Free(void* memory) noexcept {
  if (memory) --liveAllocations;
  std::free(memory);
}

}  // namespace
}  // namespace Orvane

// As in OrvaneSimulatorNew.h, and counted.
void* operator new(std::size_t size) {
  return Orvane::AllocateOrThrow(size);
}
void* operator new[](std::size_t size) {
  return Orvane::AllocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Orvane::Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return Orvane::Allocate(size);
}
void operator delete(void* memory) noexcept {
  Orvane::Free(memory);
}
void operator delete[](void* memory) noexcept {
  Orvane::Free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  Orvane::Free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  Orvane::Free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  Orvane::Free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  Orvane::Free(memory);
}

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  Orvane::Simulator::Install();
  return RUN_ALL_TESTS();
}
