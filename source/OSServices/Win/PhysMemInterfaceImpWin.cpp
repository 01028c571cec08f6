#include <limits>

#include "Buffer.h"
#include "OSServices/HostFactories.h"
#include "OSServices/Win/HostHeadersWin.h"
#include "OSServicesHost.h"

namespace Orvane {
namespace {

std::uint32_t pageSize = 0;  // set by every constructor, alike

// Page-aligned memory of its own.
class PhysMemBufferWin : public HostBuffer {
 public:
  PhysMemBufferWin() : HostBuffer(nullptr, 0) {}

  // REQUIRES: `size` is a whole number of pages; called once. False when memory is short.
  bool Map(std::uint64_t size) {
    void* const memory =
        VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT | MEM_TOP_DOWN, PAGE_READWRITE);
    if (!memory) return false;
    SetAddressAndSize(memory, size);
    return true;
  }

 protected:
  ~PhysMemBufferWin() override {
    void* const address = HostBuffer::GetAddress();
    const std::size_t size = HostBuffer::GetSize();
    if (address && size != 0) VirtualFree(address, 0, MEM_RELEASE);
  }
};

Buffer* NewBuffer(std::uint64_t size) {
  PhysMemBufferWin* const buffer = new PhysMemBufferWin;
  if (buffer->Map(size)) return buffer;
  buffer->DecRef("source/OSServices/Win/PhysMemInterfaceImpWin",
                 "Orvane::PhysMemInterfaceImpWin::Allocate", 67);
  return nullptr;
}

}  // namespace

PhysMemInterfaceImpWin::PhysMemInterfaceImpWin() {
  SYSTEM_INFO info{};
  GetSystemInfo(&info);
  pageSize = info.dwPageSize;
}

PhysMemInterfaceImpWin::~PhysMemInterfaceImpWin() = default;

Buffer* PhysMemInterfaceImpWin::Allocate(std::uint64_t size) {
  const std::uint64_t page = pageSize;
  if (size == 0 || size > std::numeric_limits<std::uint64_t>::max() - (page - 1)) return nullptr;
  const std::uint64_t rounded = (size + page - 1) / page * page;
  try {
    return NewBuffer(rounded);
  } catch (...) {
    return nullptr;
  }
}

std::uint64_t PhysMemInterfaceImpWin::GetPageSize() {
  return pageSize;
}

const std::type_info& GetHostPhysMemBufferType() {
  return typeid(PhysMemBufferWin);
}

}  // namespace Orvane
