// The implementations of the three facades over the current world.
#pragma once

#include "MTInterface.h"
#include "NativeFileSysInterface.h"
#include "PhysMemInterface.h"

namespace Orvane {

class AsyncHandler;

class MTInterfaceImpSim : public MTInterfaceImp {
 public:
  MTInterfaceImpSim() = default;
  MTCritSec* NewCritSec() override;
  MTSemaphore* NewSemaphore(std::uint32_t maxCount, std::uint32_t initialCount) override;
  MTAtomicUnsigned32* NewAtomicUnsigned32(std::uint32_t initial) override;
  MTAtomicUnsigned64* NewAtomicUnsigned64(std::uint64_t initial) override;
  MTThread* NewThread(MTThreadBody* body, MTThread::MTPriority priority,
                      std::uint64_t processorMask) override;
  void DebugString(const char* text) override;
  std::int64_t GetCurrentThreadID() override;
  std::uint64_t GetCurrentTimeMicro() override;
  std::uint64_t GetCPUCount() override;
};

class PhysMemInterfaceImpSim : public PhysMemInterfaceImp {
 public:
  PhysMemInterfaceImpSim() = default;
  Buffer* Allocate(std::uint64_t size) override;
  std::uint64_t GetPageSize() override;
};

// One I/O thread per world.
class NativeFileSysInterfaceImpSim : public NativeFileSysInterfaceImp {
 public:
  NativeFileSysInterfaceImpSim() = default;
  NativeFileSource* NewNativeFileSource(const char* name) override;

  // In a world, first and last of all.
  static void StartHandler();
  static void StopHandler();
  // Of a world that was given up.
  static void ForgetHandler();
  static AsyncHandler* GetHandler();
};

}  // namespace Orvane
