// The default implementations on this host, for applications that wrap or configure them and pass
// the result to OSServices::InitWithExtensions. The ...ImpHost names exist on every host: code that
// uses only these builds everywhere.
#pragma once

#include <cstdint>

#include "Export.h"
#include "MTInterface.h"
#include "NativeFileSysInterface.h"
#include "PhysMemInterface.h"

namespace Orvane {

// Threads, locks and time on Linux. The six priorities become six nice values around that of the
// process, best effort: without the privilege, raised ones are ignored. No real-time class.
class ORVANE_EXPORT MTInterfaceImpLinux : public MTInterfaceImp {
 public:
  // Throws "MTInterface Unable To Construct Object" (a const char*) without a monotonic clock.
  MTInterfaceImpLinux();
  ~MTInterfaceImpLinux() override;

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

// Page-aligned memory from anonymous mappings.
class ORVANE_EXPORT PhysMemInterfaceImpLinux : public PhysMemInterfaceImp {
 public:
  PhysMemInterfaceImpLinux();
  ~PhysMemInterfaceImpLinux() override;

  Buffer* Allocate(std::uint64_t size) override;
  std::uint64_t GetPageSize() override;

 private:
  std::uint64_t pageSize_;
};

// Files on Linux, with one I/O thread per process. The thread is started by the first object of
// this class that is made or installed once threads are available; the engine that this object asks
// for is the one that runs from then on.
class ORVANE_EXPORT NativeFileSysInterfaceImpLinux : public NativeFileSysInterfaceImp {
 public:
  enum Engine {
    kEngineAuto,     // io_uring if a trial transfer through it succeeds, else threads
    kEngineUring,    // io_uring, or threads if the kernel refuses it
    kEngineThreads,  // a few threads with preadv and pwritev; needs nothing of the kernel
  };

  explicit NativeFileSysInterfaceImpLinux(Engine engine = kEngineAuto);
  ~NativeFileSysInterfaceImpLinux() override;

  NativeFileSource* NewNativeFileSource(const char* name) override;
  void Installed() override;

  // The engine that runs in this process, or kEngineAuto before it was started.
  static Engine GetEngine();
  // The same for people: "io_uring", "threads", or "none" before it was started.
  static const char* GetEngineName();

 private:
  const Engine wanted_;
};

using MTInterfaceImpHost = MTInterfaceImpLinux;
using PhysMemInterfaceImpHost = PhysMemInterfaceImpLinux;
using NativeFileSysInterfaceImpHost = NativeFileSysInterfaceImpLinux;

}  // namespace Orvane
