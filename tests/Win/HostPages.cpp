#include "sim/HostPages.h"

#include <windows.h>

#include <cstdlib>

namespace Orvane {

unsigned char* NewHostPages(std::size_t size) {
  void* const memory = VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  if (!memory) std::abort();
  return static_cast<unsigned char*>(memory);
}

void ForbidHostPages(unsigned char* pages, std::size_t size) {
  DWORD before = 0;
  VirtualProtect(pages, size, PAGE_NOACCESS, &before);
}

void AllowHostPages(unsigned char* pages, std::size_t size) {
  DWORD before = 0;
  VirtualProtect(pages, size, PAGE_READWRITE, &before);
}

}  // namespace Orvane
