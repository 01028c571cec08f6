#include "PhysMemInterface.h"

#include <bit>

namespace Orvane {
namespace {

PhysMemInterfaceImp* implementation = nullptr;
std::uint64_t pageSize = 0;
// Page size minus 1 where that is a mask; no page size of an application's own need be a power
// of 2.
std::uint64_t pageMask = 0;
int pageShift = 0;

bool PageSizeIsPowerOfTwo() {
  return pageMask != 0;
}

}  // namespace

PhysMemInterfaceImp::PhysMemInterfaceImp() = default;

PhysMemInterfaceImp::~PhysMemInterfaceImp() = default;

void PhysMemInterface::InstallImplementation(PhysMemInterfaceImp* imp) {
  if (!imp) throw "PhysMemInterface No Installed Implementation";
  if (implementation) throw "PhysMemInterface Implementation Already Installed";
  implementation = imp;
  pageSize = imp->GetPageSize();
  if (std::has_single_bit(pageSize)) {
    pageMask = pageSize - 1;
    pageShift = std::countr_zero(pageSize);
  }
}

Buffer* PhysMemInterface::Allocate(std::uint64_t size) {
  if (!implementation) throw "PhysMemInterface No Installed Implementation";
  return implementation->Allocate(size);
}

std::uint64_t PhysMemInterface::GetPageSize() {
  return pageSize;
}

std::uint64_t PhysMemInterface::GetNumberOfValidPagesForBuffer(void* address, std::uint64_t size) {
  if (!address) return 0;
  const std::uint64_t place = reinterpret_cast<std::uintptr_t>(address);
  if (PageSizeIsPowerOfTwo()) return ((place | size) & pageMask) == 0 ? size >> pageShift : 0;
  return size % pageSize == 0 && place % pageSize == 0 ? size / pageSize : 0;
}

}  // namespace Orvane
