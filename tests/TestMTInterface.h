// The host's threading with an eye on it.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "LockOrderChecker.h"

namespace Orvane {

// How many primitives exist. A thread counts through its semaphore, a shared object through its
// lock and its counter.
struct LiveCounts {
  long critSecs = 0;
  long semaphores = 0;
  long atomics = 0;

  bool operator==(const LiveCounts&) const = default;
  std::string ToString() const;
};

// Installed once for the whole test program. Forwards everything to the host; counts what lives,
// shifts the clock, keeps what is sent to the debugger, and fails on command. Its sections report
// to the checker of the lock order. Safe from any thread.
class TestMTInterface : public OrderCheckingMTInterface {
 public:
  enum FailureMode { kThrow, kNull };
  enum FailureKind { kAnyPrimitive, kAtomicsOnly };

  static TestMTInterface& Get();

  LiveCounts GetLiveCounts() const;
  // Threads started so far.
  long GetThreadsStarted() const;

  // Moves the time that the library sees forward, for good. Time-outs of waits do not follow.
  void ShiftClock(std::uint64_t micro);

  // Text sent to the debugger since the last call; none of it is printed.
  std::string TakeDebugText();

  // The `ordinal`-th creation of a primitive of that kind from now, counted from 1, throws
  // std::bad_alloc or answers null. Concerns every thread: use it when no other one runs.
  void FailCreation(long ordinal, FailureMode mode, FailureKind kind = kAnyPrimitive);
  // Takes the command back; answers whether it had been carried out.
  bool StopFailing();
  // The next 32-bit counter starts at `initial`, whatever its maker asks for.
  void StartNextAtomicAt(std::uint32_t initial);

  MTCritSec* NewCritSec() override;
  MTSemaphore* NewSemaphore(std::uint32_t maxCount, std::uint32_t initialCount) override;
  MTAtomicUnsigned32* NewAtomicUnsigned32(std::uint32_t initial) override;
  MTAtomicUnsigned64* NewAtomicUnsigned64(std::uint64_t initial) override;
  MTThread* NewThread(MTThreadBody* body, MTThread::MTPriority priority,
                      std::uint64_t processorMask) override;
  void DebugString(const char* text) override;
  std::uint64_t GetCurrentTimeMicro() override;

 private:
  TestMTInterface() = default;
  // False: answer null.
  bool MayCreate(bool isAtomic);

  std::atomic<long> critSecs_{0};
  std::atomic<long> semaphores_{0};
  std::atomic<long> atomics_{0};
  std::atomic<long> threadsStarted_{0};
  std::atomic<std::uint64_t> clockOffsetMicro_{0};
  std::atomic<long> untilFailure_{0};
  std::atomic<FailureMode> failureMode_{kThrow};
  std::atomic<FailureKind> failureKind_{kAnyPrimitive};
  std::atomic<std::int64_t> nextAtomicStart_{-1};  // -1: as asked for
  std::mutex textMutex_;
  std::string debugText_;
};

}  // namespace Orvane
