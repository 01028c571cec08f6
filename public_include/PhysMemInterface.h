// Page-aligned memory, as unbuffered file I/O needs it. Static operations over one installed
// PhysMemInterfaceImp; OSServices installs it once at start-up.
#pragma once

#include <cstdint>

#include "Export.h"

namespace Orvane {

class Buffer;

// What a host supplies.
class ORVANE_EXPORT PhysMemInterfaceImp {
 protected:
  PhysMemInterfaceImp();
  virtual ~PhysMemInterfaceImp();
  PhysMemInterfaceImp(const PhysMemInterfaceImp&) = delete;
  PhysMemInterfaceImp& operator=(const PhysMemInterfaceImp&) = delete;

 public:
  // A buffer of at least `size` bytes, rounded up to whole pages, page-aligned, with one reference
  // for the caller; null for 0 bytes or when memory is short. Never throws.
  virtual Buffer* Allocate(std::uint64_t size) = 0;
  // Bytes per page.
  virtual std::uint64_t GetPageSize() = 0;
};

// Safe from any thread once installed: its state is written by the installation only.
class ORVANE_EXPORT PhysMemInterface {
 public:
  // As PhysMemInterfaceImp::Allocate. Throws "PhysMemInterface No Installed Implementation" (a
  // const char*) before installation.
  static Buffer* Allocate(std::uint64_t size);
  // Bytes per page; 0 before installation, without an exception.
  static std::uint64_t GetPageSize();
  // The pages that the memory covers if address and size are both multiples of the page size, else
  // 0. Also 0 for null and for no bytes. REQUIRES: an installed implementation.
  static std::uint64_t GetNumberOfValidPagesForBuffer(void* address, std::uint64_t size);

 protected:
  friend class OSServices;
  // Throws "PhysMemInterface No Installed Implementation" for null and
  // "PhysMemInterface Implementation Already Installed" the second time.
  static void InstallImplementation(PhysMemInterfaceImp* imp);

 private:
  PhysMemInterface();
  ~PhysMemInterface();
};

}  // namespace Orvane
