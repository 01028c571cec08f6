#include "MTInterface.h"

#include <memory>

#include "OSServices/MTAtomicPointerGeneric.h"

namespace Orvane {
namespace {

constexpr const char* kNotInstalled = "MTInterface No Installed Implementation";

// Written by the installation only; never torn down.
MTInterfaceImp* installedImp = nullptr;
std::uint64_t cpuCount = 0;
MTSemaphore* sleepSemaphore = nullptr;  // nobody ever releases it: waiting on it is sleeping
MTAtomicUnsigned32* uniqueIDCounter = nullptr;

MTInterfaceImp* Imp() {
  if (!installedImp) throw kNotInstalled;
  return installedImp;
}

}  // namespace

MTInterfaceImp::MTInterfaceImp() = default;
MTInterfaceImp::~MTInterfaceImp() = default;

MTCritSec* MTInterface::NewCritSec() {
  return Imp()->NewCritSec();
}

MTSemaphore* MTInterface::NewSemaphore(std::uint32_t maxCount, std::uint32_t initialCount) {
  return Imp()->NewSemaphore(maxCount, initialCount);
}

MTAtomicUnsigned32* MTInterface::NewAtomicUnsigned32(std::uint32_t initial) {
  return Imp()->NewAtomicUnsigned32(initial);
}

MTAtomicUnsigned64* MTInterface::NewAtomicUnsigned64(std::uint64_t initial) {
  return Imp()->NewAtomicUnsigned64(initial);
}

MTAtomicPointer* MTInterface::NewAtomicPointer(void* initial) {
  std::unique_ptr<MTAtomicUnsigned64> bits(
      Imp()->NewAtomicUnsigned64(reinterpret_cast<std::uintptr_t>(initial)));
  auto* pointer = new MTAtomicPointerGeneric(initial, bits.get());
  bits.release();
  return pointer;
}

MTThread* MTInterface::NewThread(MTThreadBody* body, MTThread::MTPriority priority,
                                 std::uint64_t processorMask) {
  return Imp()->NewThread(body, priority, processorMask);
}

void MTInterface::Sleep(std::uint32_t ms) {
  if (!installedImp || !sleepSemaphore) throw kNotInstalled;
  sleepSemaphore->Wait(ms, 1);
}

std::uint64_t MTInterface::GetCPUCount() {
  if (!installedImp || cpuCount == 0) throw kNotInstalled;
  return cpuCount;
}

std::int64_t MTInterface::GetCurrentThreadID() {
  return Imp()->GetCurrentThreadID();
}

std::uint64_t MTInterface::GetCurrentTimeMicro() {
  return Imp()->GetCurrentTimeMicro();
}

std::uint32_t MTInterface::GetCurrentTimeMilli() {
  return static_cast<std::uint32_t>(GetCurrentTimeMicro() / 1000);
}

std::uint32_t MTInterface::GetProcessUniqueID() {
  if (!installedImp || !uniqueIDCounter) throw kNotInstalled;
  for (;;) {
    const std::uint32_t id = uniqueIDCounter->Increment();
    if (id != kInvalidUniqueID) return id;
  }
}

void MTInterface::DebugString(const char* text) {
  installedImp->DebugString(text);
}

void MTInterface::InstallImplementation(MTInterfaceImp* imp) {
  if (!imp) throw kNotInstalled;
  if (installedImp) throw "MTInterface Implementation Already Installed";
  installedImp = imp;
  cpuCount = imp->GetCPUCount();
  sleepSemaphore = imp->NewSemaphore(1, 0);
  uniqueIDCounter = imp->NewAtomicUnsigned32(0);
  if (!sleepSemaphore) throw "MTInterface Unable To Construct Object";
}

}  // namespace Orvane
