// Threading that now and then keeps a thread waiting, so that threads meet in ways that they
// seldom do of their own accord.
#pragma once

#include <cstdint>

#include "MTInterface.h"
#include "StressTools.h"

namespace Orvane {

// How often threads are delayed, and for how long. One of `oneIn` places is a delay; of these
//
// | share        | what happens                                            |
// |--------------|---------------------------------------------------------|
// | most         | the processor is offered to other threads               |
// | one of four  | the thread is busy for up to shortMicro                 |
// | one of 32    | it sleeps for up to middleMicro                         |
// | one of 1,024 | it sleeps for up to longMicro                           |
struct DelayRates {
  std::uint32_t oneIn = 8;  // at least 1
  std::uint32_t shortMicro = 8;
  std::uint32_t middleMicro = 150;
  std::uint32_t longMicro = 4000;
};

// The choices of one thread: they follow from the seed and the number of the thread alone. Trivial
// to destroy, so that a thread can have one until its last operation.
class DelayChoices {
 public:
  enum class Kind : std::uint8_t { kNone, kYield, kBusy, kSleep };
  struct Delay {
    Kind kind;
    std::uint32_t micro;

    bool operator==(const Delay&) const = default;
  };

  constexpr DelayChoices() : random_(0) {}
  DelayChoices(std::uint64_t seed, std::uint64_t threadNumber);
  Delay Next(const DelayRates& rates);

 private:
  StressRandom random_;
};

// Forwards everything to another implementation, whose primitives it wraps: around each operation
// of a section, a semaphore and an atomic value, and around the start of a thread, it may delay the
// calling thread. The first operation of a new thread is a place more, as is the return of
// NewThread to its maker, so that each can be the first to run.
//
// A thread gets its number with its first operation; the n-th operation of thread k is delayed
// alike in every run with one seed. The choices belong to the thread: several objects of this class
// share them, with the seed of the one that a thread met first.
//
// Safe from any thread: seed and rates are immutable, the choices are thread-local. Adds no order
// between threads of its own, so that the thread sanitizer sees what it would see without. Nothing
// of a primitive is used after its operation took effect: others may have destroyed it by then.
// Outlives its primitives and the threads that use them.
class DelayingMTInterface : public MTInterfaceImp {
 public:
  // `inner` is not owned. A seed of 0 is a seed like others.
  DelayingMTInterface(MTInterfaceImp* inner, std::uint64_t seed, const DelayRates& rates);

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

  // Delays the calling thread, or does not.
  void MayDelay() const;
  // How often threads were delayed so far.
  static std::uint64_t CountDelays();
  static std::uint64_t CountDelaysOfThisThread();

 private:
  MTInterfaceImp* const inner_;
  const std::uint64_t seed_;
  const DelayRates rates_;
};

}  // namespace Orvane
