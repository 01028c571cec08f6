// The host's page memory, replaceable by a test.
#pragma once

#include <cstdint>
#include <functional>

#include "OSServicesHost.h"

namespace Orvane {

// Installed once for the whole test program. Forwards to the host unless a test has put an
// allocator in its place; the fixture takes that away again. Change it when no other thread runs.
class TestPhysMemInterface : public PhysMemInterfaceImpHost {
 public:
  using Allocator = std::function<Buffer*(std::uint64_t size)>;

  static TestPhysMemInterface& Get();

  // Null: the host's.
  void SetAllocator(Allocator allocator);
  Buffer* AllocateFromHost(std::uint64_t size);

  Buffer* Allocate(std::uint64_t size) override;

 private:
  TestPhysMemInterface() = default;

  Allocator allocator_;
};

}  // namespace Orvane
