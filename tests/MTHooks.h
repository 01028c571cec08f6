// Steps of a test between the operations of the library's primitives, where two threads have to
// meet for a test to mean anything.
#pragma once

#include <cstdint>
#include <functional>

#include "OSServices/LockClass.h"

namespace Orvane {

// Commands for the primitives of TestMTInterface. Each holds for the thread that gives it, and
// once; the step runs on that thread, right after the operation. It may outlive the primitive.
class MTHooks {
 public:
  using Step = std::function<void()>;

  static void AfterNextRelease(Step step);  // of a semaphore
  static void AfterNextSwap(Step step);     // of a 32-bit atomic, if it swaps
  // After the `ordinal`-th leave of a section of that class, counted from 1.
  static void AfterLeave(LockClass lockClass, int ordinal, Step step);
  // The next wait for a semaphore answers false, at once.
  static void FailNextWait();

  // For as long as it lives, waits of up to 10 ms for semaphores that were made meanwhile last 20
  // s, on any thread: what goes on without a wake-up only because somebody looks again every now
  // and then does not.
  class LongWaits {
   public:
    LongWaits();
    ~LongWaits();
    LongWaits(const LongWaits&) = delete;
    LongWaits& operator=(const LongWaits&) = delete;

    static bool IsOn();
    // How many waits have been made longer so far.
    int GetCount() const;
  };

  // Called by the primitives.
  static void Released();
  static void Swapped();
  static void Left(LockClass lockClass);
  static bool TakeFailure();
  static std::uint32_t WaitTime(std::uint32_t timeoutMs);
};

}  // namespace Orvane
