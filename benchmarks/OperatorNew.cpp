// Notes every allocation of C++ code in this program.
#include <cstdlib>
#include <new>

#include "Allocations.h"

// The nothrow and the array forms call these; aligned ones are not counted.
void* operator new(std::size_t size) {
  bench::NoteAllocation();
  void* const memory = std::malloc(size > 0 ? size : 1);
  if (!memory) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
