#include <sys/mman.h>

#include "OSServices/Sim/SimSpace.h"

namespace Orvane {

// Pages take room when they are touched.
unsigned char* ReserveSimSpace(std::uint64_t wanted, std::size_t size) {
  void* const memory =
      mmap(reinterpret_cast<void*>(static_cast<std::uintptr_t>(wanted)), size,
           PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return memory == MAP_FAILED ? nullptr : static_cast<unsigned char*>(memory);
}

bool UseSimSpace(unsigned char*, std::size_t) {
  return true;
}

}  // namespace Orvane
