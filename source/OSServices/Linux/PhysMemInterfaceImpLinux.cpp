#include <sys/mman.h>
#include <unistd.h>

#include <limits>

#include "Buffer.h"
#include "OSServices/HostFactories.h"
#include "OSServicesHost.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kHugePage = std::uint64_t{2} << 20;

// Page-aligned memory of its own.
class PhysMemBufferLinux : public HostBuffer {
 public:
  PhysMemBufferLinux() : HostBuffer(nullptr, 0) {}

  // REQUIRES: `size` is a whole number of pages; called once. False when memory is short.
  bool Map(std::uint64_t size) {
    void* const memory =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return false;
    if (size >= kHugePage) madvise(memory, size, MADV_HUGEPAGE);
    SetAddressAndSize(memory, size);
    return true;
  }

 protected:
  ~PhysMemBufferLinux() override {
    void* const address = HostBuffer::GetAddress();
    const std::size_t size = HostBuffer::GetSize();
    if (address && size != 0) munmap(address, size);
  }
};

Buffer* NewBuffer(std::uint64_t size) {
  PhysMemBufferLinux* const buffer = new PhysMemBufferLinux;
  if (buffer->Map(size)) return buffer;
  buffer->DecRef("source/OSServices/Linux/PhysMemInterfaceImpLinux",
                 "Orvane::PhysMemInterfaceImpLinux::Allocate", 67);
  return nullptr;
}

}  // namespace

PhysMemInterfaceImpLinux::PhysMemInterfaceImpLinux()
    : pageSize_(static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE))) {}

PhysMemInterfaceImpLinux::~PhysMemInterfaceImpLinux() = default;

Buffer* PhysMemInterfaceImpLinux::Allocate(std::uint64_t size) {
  if (size == 0 || size > std::numeric_limits<std::uint64_t>::max() - (pageSize_ - 1)) {
    return nullptr;
  }
  const std::uint64_t rounded = (size + pageSize_ - 1) / pageSize_ * pageSize_;
  try {
    return NewBuffer(rounded);
  } catch (...) {
    return nullptr;
  }
}

std::uint64_t PhysMemInterfaceImpLinux::GetPageSize() {
  return pageSize_;
}

const std::type_info& GetHostPhysMemBufferType() {
  return typeid(PhysMemBufferLinux);
}

}  // namespace Orvane
