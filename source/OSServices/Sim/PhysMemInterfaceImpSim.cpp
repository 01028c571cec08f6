#include <algorithm>
#include <bitset>
#include <cstring>
#include <limits>
#include <memory>

#include "Buffer.h"
#include "OSServices/Sim/HostSim.h"
#include "OSServices/Sim/SimPages.h"
#include "OSServices/Sim/SimSanitizers.h"
#include "OSServices/Sim/SimSpace.h"
#include "OSServices/Sim/SimWorld.h"

namespace Orvane {
namespace {

constexpr std::size_t kPagesOfWorld = std::size_t{1} << 16;
constexpr std::size_t kPagesAtATime = 256;  // made usable
constexpr std::uint64_t kWantedPlace = std::uint64_t{1} << 45;
constexpr int kUnwritten = 0xDB;

struct Pages {
  unsigned char* base = nullptr;
  std::size_t usable = 0;  // pages, from the first on
  std::size_t used = 0;    // of this world
  std::bitset<kPagesOfWorld> givenBack;
};

Pages& GetPages() {
  static auto* const pages = new Pages;
  return *pages;
}

// Makes the first so many pages usable.
bool Use(Pages* pages, std::size_t count) {
  if (count <= pages->usable) return true;
  if (!pages->base)
    pages->base = ReserveSimSpace(kWantedPlace, kPagesOfWorld * SimPages::kPageBytes);
  if (!pages->base) return false;
  const std::size_t usable = (count + kPagesAtATime - 1) / kPagesAtATime * kPagesAtATime;
  if (!UseSimSpace(pages->base + pages->usable * SimPages::kPageBytes,
                   (usable - pages->usable) * SimPages::kPageBytes)) {
    return false;
  }
  pages->usable = usable;
  return true;
}

// Whether nobody wrote to the page out of use.
void CheckBehind(const unsigned char* page) {
  SimWorld* const world = SimWorld::Current();
  if (!world) return;
  SimUnpoison(page, SimPages::kPageBytes);
  const bool intact = std::all_of(page, page + SimPages::kPageBytes,
                                  [](unsigned char byte) { return byte == kUnwritten; });
  SimPoison(page, SimPages::kPageBytes);
  if (!intact) world->Fail("somebody wrote behind memory of PhysMemInterface");
}

class PhysMemBufferSim : public HostBuffer {
 public:
  PhysMemBufferSim() : HostBuffer(nullptr, 0) {}
  bool Map(std::size_t size) {
    void* const memory = SimPages::Map(size);
    if (memory) SetAddressAndSize(memory, size);
    return memory != nullptr;
  }

 protected:
  ~PhysMemBufferSim() override {
    if (void* const address = HostBuffer::GetAddress()) {
      SimPages::Unmap(address, HostBuffer::GetSize());
    }
  }
};

}  // namespace

void* SimPages::Map(std::size_t size) {
  const SimInside inside;
  Pages& pages = GetPages();
  const std::size_t count = size / kPageBytes;
  // One page stays out of use behind each stretch.
  if (count + 1 > kPagesOfWorld - pages.used || !Use(&pages, pages.used + count + 1))
    return nullptr;
  unsigned char* const memory = pages.base + pages.used * kPageBytes;
  SimUnpoison(memory, size + kPageBytes);
  std::memset(memory, kUnwritten, size + kPageBytes);
  SimPoison(memory + size, kPageBytes);
  if (SimWorld* const world = SimWorld::Current()) {
    world->Record(SimEvent::kPagesMapped, pages.used, count);
  }
  pages.used += count + 1;
  return memory;
}

void SimPages::Unmap(void* address, std::size_t size) {
  const SimInside inside;
  Pages& pages = GetPages();
  const auto first =
      static_cast<std::size_t>(static_cast<unsigned char*>(address) - pages.base) / kPageBytes;
  CheckBehind(static_cast<const unsigned char*>(address) + size);
  for (std::size_t k = 0; k < size / kPageBytes; ++k) pages.givenBack.set(first + k);
  std::memset(address, kUnwritten, size);
  SimPoison(address, size);
  if (SimWorld* const world = SimWorld::Current()) {
    world->Record(SimEvent::kPagesUnmapped, first, size / kPageBytes);
  }
}

bool SimPages::WereGivenBack(const void* address, std::size_t size) {
  const Pages& pages = GetPages();
  const auto* const place = static_cast<const unsigned char*>(address);
  if (!pages.base || place < pages.base || place >= pages.base + kPagesOfWorld * kPageBytes) {
    return false;
  }
  const std::size_t first = static_cast<std::size_t>(place - pages.base) / kPageBytes;
  const std::size_t last = (static_cast<std::size_t>(place - pages.base) + size - 1) / kPageBytes;
  for (std::size_t k = first; k <= last && k < kPagesOfWorld; ++k) {
    if (pages.givenBack.test(k)) return true;
  }
  return false;
}

void SimPages::Reset() {
  Pages& pages = GetPages();
  for (std::size_t k = 0; k < pages.used; ++k) pages.givenBack.reset(k);
  pages.used = 0;
}

Buffer* PhysMemInterfaceImpSim::Allocate(std::uint64_t size) {
  SimWorld* const world = SimWorld::Current();
  if (world) {
    const SimInside inside;
    world->Step(SimEvent::kAllocation, 0, size);
    if (world->DrawFault(world->Setup().faults.failPages)) return nullptr;
  }
  if (size == 0 || size > kPagesOfWorld * SimPages::kPageBytes) return nullptr;
  const std::uint64_t rounded =
      (size + SimPages::kPageBytes - 1) / SimPages::kPageBytes * SimPages::kPageBytes;
  PhysMemBufferSim* buffer = nullptr;
  try {
    buffer = new PhysMemBufferSim;
  } catch (...) {
    return nullptr;
  }
  if (buffer->Map(rounded)) return buffer;
  buffer->DecRef("source/OSServices/Sim/PhysMemInterfaceImpSim",
                 "Orvane::PhysMemInterfaceImpSim::Allocate", __LINE__);
  return nullptr;
}

std::uint64_t PhysMemInterfaceImpSim::GetPageSize() {
  return SimPages::kPageBytes;
}

}  // namespace Orvane
