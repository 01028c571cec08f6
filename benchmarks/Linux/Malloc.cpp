// Notes every allocation: what a program defines of these, all of its shared libraries call, also
// operator new and the C library itself.
#include <malloc.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include "../Allocations.h"

// The C library's own, under the names that it keeps for those who replace the others.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

extern "C" {

void* malloc(std::size_t size) noexcept {
  bench::NoteAllocation();
  return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
  bench::NoteAllocation();
  return __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) noexcept {
  if (size > 0) bench::NoteAllocation();
  return __libc_realloc(memory, size);
}

void* memalign(std::size_t alignment, std::size_t size) noexcept {
  bench::NoteAllocation();
  return __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  return memalign(alignment, size);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) noexcept {
  const bool isPowerOfTwo = alignment > 0 && (alignment & (alignment - 1)) == 0;
  if (!isPowerOfTwo || alignment % sizeof(void*) != 0) return EINVAL;
  void* const result = memalign(alignment, size);
  if (!result) return ENOMEM;
  *memory = result;
  return 0;
}

}  // extern "C"
