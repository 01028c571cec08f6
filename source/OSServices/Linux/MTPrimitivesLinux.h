// The primitives of Linux: a recursive lock and a semaphore over a futex each, and the compiler's
// atomics. Differences from the other host: none that callers see.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "MTPrimitives.h"

namespace Orvane {

// A word that is the futex, and who is inside how often. Free, it is entered and left with one
// atomic operation each. Leave touches the object in no way after that, so who enters next may
// delete it.
class MTCritSecLinux : public MTCritSec {
 public:
  MTCritSecLinux();
  ~MTCritSecLinux() override;

  // The analysis knows the section, not what is inside it.
  void Enter() override ORVANE_NO_THREAD_SAFETY_ANALYSIS;
  void Leave() override ORVANE_NO_THREAD_SAFETY_ANALYSIS;

 private:
  void EnterTaken();

  std::atomic<std::uint32_t> state_;
  std::atomic<pthread_t> owner_;  // only that thread finds itself here
  std::uint32_t depth_ = 0;       // the owner's
};

// One 64-bit word: the count in the low half, which is also the futex, the number of sleeping
// waiters in the high half. Release decides from the value of its own exchange whether to wake and
// touches the object in no other way afterwards, so a waiter that took the unit may delete it.
class MTSemaphoreLinux : public MTSemaphore {
 public:
  MTSemaphoreLinux(std::uint32_t maxCount, std::uint32_t initialCount);
  ~MTSemaphoreLinux() override;

  bool Release(std::uint32_t count) override;
  bool Wait(std::uint32_t timeoutMs, std::uint32_t count) override;

 private:
  bool TryTake();
  bool WaitForOne(std::uint32_t timeoutMs);

  const std::uint32_t maxCount_;
  const bool valid_;  // false where the initial count exceeds the maximum: every call fails
  std::atomic<std::uint64_t> state_;
};

class MTAtomicUnsigned32Linux final : public MTAtomicUnsigned32 {
 public:
  explicit MTAtomicUnsigned32Linux(std::uint32_t initial);
  ~MTAtomicUnsigned32Linux() override;

  std::uint32_t Get() override;
  std::uint32_t Increment() override;
  std::uint32_t Decrement() override;
  bool CompareAndSwap(std::uint32_t expected, std::uint32_t desired) override;

 private:
  std::atomic<std::uint32_t> value_;
};

class MTAtomicUnsigned64Linux final : public MTAtomicUnsigned64 {
 public:
  explicit MTAtomicUnsigned64Linux(std::uint64_t initial);
  ~MTAtomicUnsigned64Linux() override;

  std::uint64_t Get() override;
  std::uint64_t Increment() override;
  std::uint64_t Decrement() override;
  bool CompareAndSwap(std::uint64_t expected, std::uint64_t desired) override;

 private:
  std::atomic<std::uint64_t> value_;
};

}  // namespace Orvane
