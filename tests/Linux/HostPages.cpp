#include "sim/HostPages.h"

#include <sys/mman.h>

#include <cstdlib>

namespace Orvane {

unsigned char* NewHostPages(std::size_t size) {
  void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) std::abort();
  return static_cast<unsigned char*>(memory);
}

void ForbidHostPages(unsigned char* pages, std::size_t size) {
  mprotect(pages, size, PROT_NONE);
}

void AllowHostPages(unsigned char* pages, std::size_t size) {
  mprotect(pages, size, PROT_READ | PROT_WRITE);
}

}  // namespace Orvane
