// The primitives of Windows: a critical section, a semaphore of the kernel, and the compiler's
// atomics, which are the host's interlocked operations. Differences from the other host: none that
// callers see.
#pragma once

#include <atomic>
#include <cstdint>

#include "MTPrimitives.h"
#include "OSServices/Win/HostHeadersWin.h"

namespace Orvane {

class MTCritSecWin : public MTCritSec {
 public:
  MTCritSecWin();
  ~MTCritSecWin() override;

  // The analysis knows the section, not what is inside it.
  void Enter() override ORVANE_NO_THREAD_SAFETY_ANALYSIS;
  void Leave() override ORVANE_NO_THREAD_SAFETY_ANALYSIS;

 private:
  CRITICAL_SECTION section_;
};

class MTSemaphoreWin : public MTSemaphore {
 public:
  MTSemaphoreWin(std::uint32_t maxCount, std::uint32_t initialCount);
  ~MTSemaphoreWin() override;

  bool Release(std::uint32_t count) override;
  bool Wait(std::uint32_t timeoutMs, std::uint32_t count) override;

 private:
  const HANDLE handle_;  // null where the host made none: every call fails
};

class MTAtomicUnsigned32Win final : public MTAtomicUnsigned32 {
 public:
  explicit MTAtomicUnsigned32Win(std::uint32_t initial);
  ~MTAtomicUnsigned32Win() override;

  std::uint32_t Get() override;
  std::uint32_t Increment() override;
  std::uint32_t Decrement() override;
  bool CompareAndSwap(std::uint32_t expected, std::uint32_t desired) override;

 private:
  std::atomic<std::uint32_t> value_;
};

class MTAtomicUnsigned64Win final : public MTAtomicUnsigned64 {
 public:
  explicit MTAtomicUnsigned64Win(std::uint64_t initial);
  ~MTAtomicUnsigned64Win() override;

  std::uint64_t Get() override;
  std::uint64_t Increment() override;
  std::uint64_t Decrement() override;
  bool CompareAndSwap(std::uint64_t expected, std::uint64_t desired) override;

 private:
  std::atomic<std::uint64_t> value_;
};

}  // namespace Orvane
