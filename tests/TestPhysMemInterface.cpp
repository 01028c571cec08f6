#include "TestPhysMemInterface.h"

#include <utility>

namespace Orvane {

// Never destroyed: the library keeps it until the process ends.
TestPhysMemInterface& TestPhysMemInterface::Get() {
  static TestPhysMemInterface* const instance = new TestPhysMemInterface;
  return *instance;
}

void TestPhysMemInterface::SetAllocator(Allocator allocator) {
  allocator_ = std::move(allocator);
}

Buffer* TestPhysMemInterface::AllocateFromHost(std::uint64_t size) {
  return PhysMemInterfaceImpHost::Allocate(size);
}

Buffer* TestPhysMemInterface::Allocate(std::uint64_t size) {
  return allocator_ ? allocator_(size) : AllocateFromHost(size);
}

}  // namespace Orvane
