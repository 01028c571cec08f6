// The threading primitives: locks, semaphores, atomic values and threads. Abstract; an
// MTInterfaceImp makes them and MTInterface hands them out (see MTInterface.h).
// Every primitive is safe to use from any thread and is deleted by its owner through the base
// pointer. None may be copied.
#pragma once

#include <cstdint>

#include "Export.h"
#include "ThreadAnnotations.h"

namespace Orvane {

// A recursive lock.
class ORVANE_EXPORT ORVANE_CAPABILITY("critical section") MTCritSec {
 public:
  virtual ~MTCritSec();
  // Blocks until the calling thread owns the section. The owner may enter again and must leave as
  // often as it entered.
  virtual void Enter() ORVANE_ACQUIRE() = 0;
  // REQUIRES: the calling thread owns the section.
  virtual void Leave() ORVANE_RELEASE() = 0;

 protected:
  MTCritSec();
  MTCritSec(const MTCritSec&) = delete;
  MTCritSec& operator=(const MTCritSec&) = delete;
};

// A counting semaphore with a maximum: 0xFFFFFFFF at most on Linux, 0x7FFFFFFF on Windows. One that
// the host could not make fails every call.
// Guarantees: what happened before Release is visible after the Wait that took its unit. The host
// semaphores may be deleted as soon as that Wait returned, even while Release is still returning.
class ORVANE_EXPORT MTSemaphore {
 public:
  virtual ~MTSemaphore();
  // Raises the count by `count`. False, with nothing changed, if that would exceed the maximum or
  // the host refuses.
  virtual bool Release(std::uint32_t count) = 0;
  // Takes `count` units one by one, each within timeoutMs / count milliseconds (integer division).
  // 0xFFFFFFFF waits without limit for every unit. False at the first unit that did not come in
  // time; units already taken are not given back. True at once for a count of 0.
  virtual bool Wait(std::uint32_t timeoutMs, std::uint32_t count) = 0;

 protected:
  MTSemaphore(std::uint32_t maxCount, std::uint32_t initialCount);
  MTSemaphore(const MTSemaphore&) = delete;
  MTSemaphore& operator=(const MTSemaphore&) = delete;
};

// An unsigned 32-bit value; all operations are full barriers.
class ORVANE_EXPORT MTAtomicUnsigned32 {
 public:
  virtual ~MTAtomicUnsigned32();
  virtual std::uint32_t Get() = 0;
  // Adds or subtracts 1, wrapping; answers the new value.
  virtual std::uint32_t Increment() = 0;
  virtual std::uint32_t Decrement() = 0;
  // Stores `desired` if the value equals `expected`; true exactly when it did.
  virtual bool CompareAndSwap(std::uint32_t expected, std::uint32_t desired) = 0;

 protected:
  explicit MTAtomicUnsigned32(std::uint32_t initial);
  MTAtomicUnsigned32(const MTAtomicUnsigned32&) = delete;
  MTAtomicUnsigned32& operator=(const MTAtomicUnsigned32&) = delete;
};

// An unsigned 64-bit value; all operations are full barriers.
// KEPT: two results are narrowed to 32 bits, callers rely on it (see below).
class ORVANE_EXPORT MTAtomicUnsigned64 {
 public:
  virtual ~MTAtomicUnsigned64();
  virtual std::uint64_t Get() = 0;
  // KEPT: answer only the low 32 bits of the new value, zero-extended.
  virtual std::uint64_t Increment() = 0;
  virtual std::uint64_t Decrement() = 0;
  // Exchanges all 64 bits.
  // KEPT: success is judged by comparing the low 32 bits of the previous value, zero-extended, with
  // the whole of `expected`: for an `expected` of 2^32 or more the answer is false even when the
  // exchange took place. Check with Get where it matters.
  virtual bool CompareAndSwap(std::uint64_t expected, std::uint64_t desired) = 0;

 protected:
  explicit MTAtomicUnsigned64(std::uint64_t initial);
  MTAtomicUnsigned64(const MTAtomicUnsigned64&) = delete;
  MTAtomicUnsigned64& operator=(const MTAtomicUnsigned64&) = delete;
};

// A pointer. CompareAndSwap reports success as MTAtomicUnsigned64 does: verify with Get.
class ORVANE_EXPORT MTAtomicPointer {
 public:
  virtual ~MTAtomicPointer();
  virtual void* Get() = 0;
  virtual bool CompareAndSwap(void* expected, void* desired) = 0;

 protected:
  explicit MTAtomicPointer(void* initial);
  MTAtomicPointer(const MTAtomicPointer&) = delete;
  MTAtomicPointer& operator=(const MTAtomicPointer&) = delete;
};

class MTThread;

// The work of a thread. Not owned by the thread; must outlive it.
class ORVANE_EXPORT MTThreadBody {
 public:
  MTThreadBody();
  virtual ~MTThreadBody();

 protected:
  friend class MTThread;
  // Asks the body to finish, from the thread that calls MTThread::Terminate. Does nothing unless
  // overridden; a body that blocks overrides it to wake itself up.
  virtual void TerminateBody();

 public:
  // Runs on the new thread; polls thread->IsTerminating() and returns when that turns true. An
  // exception that escapes is swallowed and "Unhandled Exception Running Thread\n" is logged.
  virtual void ThreadMain(MTThread* thread) = 0;
};

// A running thread, made and started by MTInterface::NewThread.
//
// | state               | meaning                    | left by                       |
// |---------------------|----------------------------|-------------------------------|
// | running             | the body runs              | Terminate, return of the body |
// | terminate requested | IsTerminating() is true    | return of the body            |
// | finished            | the body returned or threw | a Terminate that sees it      |
// | reaped              | Terminate answered true    | deletion                      |
//
// The owner deletes the thread after Terminate answered true. The destructor itself asks a body
// that was not reaped to finish and waits at most 10 seconds; KEPT: a body that takes longer goes
// on with a dangling thread object.
class ORVANE_EXPORT MTThread {
 public:
  enum MTPriority : std::int32_t {
    kPriorityLowest = -100,
    kPriorityBelowNormal = -10,
    kPriorityNormal = 0,  // also what any value outside this list means
    kPriorityAboveNormal = 10,
    kPriorityHighest = 100,
    kPriorityTimeCritical = 1000,
  };
  // As the processor argument of MTInterface::NewThread: any processor. Otherwise a bit mask.
  static constexpr std::uint64_t kProcessorAny = 0;

  virtual ~MTThread();
  // Asks the body to finish and waits up to timeoutMs for it. True when it has finished (also for
  // several callers at once); false when the time ran out, in which case the request stands and
  // Terminate may be called again; false when the thread was reaped before.
  virtual bool Terminate(std::uint32_t timeoutMs);
  // True from Terminate until the thread is reaped. Polled by the body.
  virtual bool IsTerminating();

 protected:
  // Makes the done semaphore through the installed threading implementation; throws
  // "MTInterface No Installed Implementation" without one.
  MTThread(MTThreadBody* body, MTPriority priority, std::uint64_t processorMask);
  MTThread(const MTThread&) = delete;
  MTThread& operator=(const MTThread&) = delete;

  // What the new thread executes: the body, then the release of the done semaphore.
  virtual void Run();

  // The body, or null once the thread has been reaped.
  MTThreadBody* GetBody();
  // Forgets the body of a thread that was never started, so that destruction waits for nothing.
  void ForgetBody();
  // The destructor's wait, for host classes that must join before the base class goes. At most
  // once; true when the thread has been reaped, now or before.
  bool StopForDestruction();

 private:
  MTThreadBody* const body_;
  MTSemaphore* doneSemaphore_;          // maximum 1; stays released once the body has returned
  MTAtomicUnsigned32* terminating_;     // 0 or 1
  MTAtomicUnsigned32* bodySet_;         // 1 until reaped
  bool stoppedForDestruction_ = false;  // destroying thread only
};

}  // namespace Orvane
