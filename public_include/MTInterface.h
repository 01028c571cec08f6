// The threading and time facade. Static operations over one installed MTInterfaceImp; OSServices
// installs it once at start-up and it lives until the process ends.
#pragma once

#include <cstdint>

#include "Export.h"
#include "MTPrimitives.h"

namespace Orvane {

// What a host supplies. Each operation implements the MTInterface operation of the same name.
// To change one of them, derive from MTInterfaceImpHost (OSServicesHost.h), override it, and pass
// the object to OSServices::InitWithExtensions.
class ORVANE_EXPORT MTInterfaceImp {
 public:
  virtual MTCritSec* NewCritSec() = 0;
  virtual MTSemaphore* NewSemaphore(std::uint32_t maxCount, std::uint32_t initialCount) = 0;
  virtual MTAtomicUnsigned32* NewAtomicUnsigned32(std::uint32_t initial) = 0;
  virtual MTAtomicUnsigned64* NewAtomicUnsigned64(std::uint64_t initial) = 0;
  virtual MTThread* NewThread(MTThreadBody* body, MTThread::MTPriority priority,
                              std::uint64_t processorMask) = 0;
  virtual void DebugString(const char* text) = 0;
  virtual std::int64_t GetCurrentThreadID() = 0;
  virtual std::uint64_t GetCurrentTimeMicro() = 0;
  virtual std::uint64_t GetCPUCount() = 0;

 protected:
  MTInterfaceImp();
  virtual ~MTInterfaceImp();
  MTInterfaceImp(const MTInterfaceImp&) = delete;
  MTInterfaceImp& operator=(const MTInterfaceImp&) = delete;
};

// Safe from any thread once installed: its state is written by the installation only.
// Every operation but DebugString throws "MTInterface No Installed Implementation" (a const char*)
// before installation. What a New... operation answers belongs to the caller, who deletes it.
class ORVANE_EXPORT MTInterface {
 public:
  static constexpr std::uint32_t kInvalidUniqueID = 0;

  static MTCritSec* NewCritSec();
  static MTSemaphore* NewSemaphore(std::uint32_t maxCount, std::uint32_t initialCount);
  static MTAtomicUnsigned32* NewAtomicUnsigned32(std::uint32_t initial);
  static MTAtomicUnsigned64* NewAtomicUnsigned64(std::uint64_t initial);
  static MTAtomicPointer* NewAtomicPointer(void* initial);
  // A started thread. `body` is not owned. Throws "MTInterface Unable To Construct Object" when the
  // host starts none. KEPT: affinity and priority are set after the start, so the first
  // instructions of the body may run at normal priority on any processor; failures to set them are
  // ignored. A bit mask of 0 (MTThread::kProcessorAny) restricts nothing.
  static MTThread* NewThread(MTThreadBody* body, MTThread::MTPriority priority,
                             std::uint64_t processorMask);

  // Blocks the calling thread for `ms` milliseconds.
  static void Sleep(std::uint32_t ms);
  // Processors, as counted at installation.
  static std::uint64_t GetCPUCount();
  static std::int64_t GetCurrentThreadID();
  // Microseconds from an arbitrary fixed origin; monotonic across threads.
  static std::uint64_t GetCurrentTimeMicro();
  // The same clock in milliseconds, low 32 bits. Wraps after 49.7 days: compare two such times by
  // their signed difference.
  static std::uint32_t GetCurrentTimeMilli();
  // 1, 2, 3, ...; never kInvalidUniqueID.
  static std::uint32_t GetProcessUniqueID();
  // Sends text to the debugger; to standard error on a host without such a channel.
  // REQUIRES: an installed implementation.
  static void DebugString(const char* text);

 protected:
  friend class OSServices;
  // Null: throws "MTInterface No Installed Implementation". Twice: throws
  // "MTInterface Implementation Already Installed". No sleep semaphore: throws
  // "MTInterface Unable To Construct Object", the implementation stays installed.
  static void InstallImplementation(MTInterfaceImp* imp);

 private:
  MTInterface();
  ~MTInterface();
};

}  // namespace Orvane
