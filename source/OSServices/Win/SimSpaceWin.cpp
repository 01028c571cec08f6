#include "OSServices/Sim/SimSpace.h"
#include "OSServices/Win/HostHeadersWin.h"

namespace Orvane {

unsigned char* ReserveSimSpace(std::uint64_t wanted, std::size_t size) {
  void* memory = VirtualAlloc(reinterpret_cast<void*>(static_cast<std::uintptr_t>(wanted)), size,
                              MEM_RESERVE, PAGE_READWRITE);
  if (!memory) memory = VirtualAlloc(nullptr, size, MEM_RESERVE, PAGE_READWRITE);
  return static_cast<unsigned char*>(memory);
}

bool UseSimSpace(unsigned char* pages, std::size_t size) {
  return VirtualAlloc(pages, size, MEM_COMMIT, PAGE_READWRITE) != nullptr;
}

}  // namespace Orvane
