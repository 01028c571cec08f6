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

// Threads, locks and time on Windows. The six priorities are those of the host.
class ORVANE_EXPORT MTInterfaceImpWin : public MTInterfaceImp {
 public:
  // Throws "MTInterface Unable To Construct Object" (a const char*) without a performance counter.
  MTInterfaceImpWin();
  ~MTInterfaceImpWin() override;

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

// Page-aligned memory of VirtualAlloc, from the top of the address space.
class ORVANE_EXPORT PhysMemInterfaceImpWin : public PhysMemInterfaceImp {
 public:
  PhysMemInterfaceImpWin();
  ~PhysMemInterfaceImpWin() override;

  Buffer* Allocate(std::uint64_t size) override;
  std::uint64_t GetPageSize() override;
};

// Files on Windows, with one I/O thread per process. The thread is started by the first object of
// this class that is made or installed once threads are available.
// Names are in the code page of the process: UTF-8 for a program whose manifest says so.
class ORVANE_EXPORT NativeFileSysInterfaceImpWin : public NativeFileSysInterfaceImp {
 public:
  // There is one; applications name it alike on every host.
  enum Engine {
    kEngineAuto,        // overlapped I/O
    kEngineOverlapped,  // overlapped I/O, one event per transfer
  };

  explicit NativeFileSysInterfaceImpWin(Engine engine = kEngineAuto);
  ~NativeFileSysInterfaceImpWin() override;

  NativeFileSource* NewNativeFileSource(const char* name) override;
  void Installed() override;

  // The engine that runs in this process, or kEngineAuto before it was started.
  static Engine GetEngine();
  // The same for people: "overlapped", or "none" before it was started.
  static const char* GetEngineName();
};

using MTInterfaceImpHost = MTInterfaceImpWin;
using PhysMemInterfaceImpHost = PhysMemInterfaceImpWin;
using NativeFileSysInterfaceImpHost = NativeFileSysInterfaceImpWin;

}  // namespace Orvane
