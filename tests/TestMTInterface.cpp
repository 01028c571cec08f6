#include "TestMTInterface.h"

#include <memory>
#include <new>
#include <utility>

#include "MTHooks.h"

namespace Orvane {
namespace {

// Each wrapper owns the host's primitive and keeps one count up for as long as it lives.
class LiveMark {
 public:
  explicit LiveMark(std::atomic<long>* count) : count_(count) { ++*count_; }
  ~LiveMark() { --*count_; }
  LiveMark(const LiveMark&) = delete;
  LiveMark& operator=(const LiveMark&) = delete;

 private:
  std::atomic<long>* const count_;
};

class CountedCritSec : public MTCritSec {
 public:
  CountedCritSec(MTCritSec* inner, LockClass lockClass, std::atomic<long>* count)
      : inner_(inner), lockClass_(lockClass), mark_(count) {}
  // Forwarders: the caller's section is this object, not the one inside.
  void Enter() override ORVANE_NO_THREAD_SAFETY_ANALYSIS { inner_->Enter(); }
  void Leave() override ORVANE_NO_THREAD_SAFETY_ANALYSIS {
    const LockClass lockClass = lockClass_;
    inner_->Leave();
    MTHooks::Left(lockClass);
  }

 private:
  const std::unique_ptr<MTCritSec> inner_;
  const LockClass lockClass_;
  const LiveMark mark_;
};

class CountedSemaphore : public MTSemaphore {
 public:
  CountedSemaphore(MTSemaphore* inner, std::atomic<long>* count)
      : MTSemaphore(0, 0), inner_(inner), waitsLong_(MTHooks::LongWaits::IsOn()), mark_(count) {}
  bool Release(std::uint32_t count) override {
    const bool released = inner_->Release(count);
    MTHooks::Released();
    return released;
  }
  bool Wait(std::uint32_t timeoutMs, std::uint32_t count) override {
    if (MTHooks::TakeFailure()) return false;
    return inner_->Wait(waitsLong_ ? MTHooks::WaitTime(timeoutMs) : timeoutMs, count);
  }

 private:
  const std::unique_ptr<MTSemaphore> inner_;
  const bool waitsLong_;
  const LiveMark mark_;
};

template <typename Base, typename Value>
class CountedAtomic : public Base {
 public:
  CountedAtomic(Base* inner, std::atomic<long>* count) : Base(0), inner_(inner), mark_(count) {}
  Value Get() override { return inner_->Get(); }
  Value Increment() override { return inner_->Increment(); }
  Value Decrement() override { return inner_->Decrement(); }
  bool CompareAndSwap(Value expected, Value desired) override {
    const bool swapped = inner_->CompareAndSwap(expected, desired);
    if (swapped) MTHooks::Swapped();
    return swapped;
  }

 private:
  const std::unique_ptr<Base> inner_;
  const LiveMark mark_;
};

}  // namespace

std::string LiveCounts::ToString() const {
  return std::to_string(critSecs) + " critical sections, " + std::to_string(semaphores) +
         " semaphores, " + std::to_string(atomics) + " atomics";
}

// Never destroyed: the library keeps it until the process ends.
TestMTInterface& TestMTInterface::Get() {
  static TestMTInterface* const instance = new TestMTInterface;
  return *instance;
}

LiveCounts TestMTInterface::GetLiveCounts() const {
  return {critSecs_, semaphores_, atomics_};
}

long TestMTInterface::GetThreadsStarted() const {
  return threadsStarted_;
}

void TestMTInterface::ShiftClock(std::uint64_t micro) {
  clockOffsetMicro_ += micro;
}

std::string TestMTInterface::TakeDebugText() {
  const std::lock_guard<std::mutex> lock(textMutex_);
  return std::exchange(debugText_, {});
}

void TestMTInterface::FailCreation(long ordinal, FailureMode mode, FailureKind kind) {
  failureMode_ = mode;
  failureKind_ = kind;
  untilFailure_ = ordinal;
}

bool TestMTInterface::StopFailing() {
  return untilFailure_.exchange(0) == 0;
}

void TestMTInterface::StartNextAtomicAt(std::uint32_t initial) {
  nextAtomicStart_ = initial;
}

MTCritSec* TestMTInterface::NewCritSec() {
  if (!MayCreate(/*isAtomic=*/false)) return nullptr;
  return new CountedCritSec(OrderCheckingMTInterface::NewCritSec(), GetLockClassBeingMade(),
                            &critSecs_);
}

MTSemaphore* TestMTInterface::NewSemaphore(std::uint32_t maxCount, std::uint32_t initialCount) {
  if (!MayCreate(/*isAtomic=*/false)) return nullptr;
  return new CountedSemaphore(MTInterfaceImpHost::NewSemaphore(maxCount, initialCount),
                              &semaphores_);
}

MTAtomicUnsigned32* TestMTInterface::NewAtomicUnsigned32(std::uint32_t initial) {
  if (!MayCreate(/*isAtomic=*/true)) return nullptr;
  const std::int64_t commanded = nextAtomicStart_.exchange(-1);
  if (commanded >= 0) initial = static_cast<std::uint32_t>(commanded);
  return new CountedAtomic<MTAtomicUnsigned32, std::uint32_t>(
      MTInterfaceImpHost::NewAtomicUnsigned32(initial), &atomics_);
}

MTAtomicUnsigned64* TestMTInterface::NewAtomicUnsigned64(std::uint64_t initial) {
  if (!MayCreate(/*isAtomic=*/true)) return nullptr;
  return new CountedAtomic<MTAtomicUnsigned64, std::uint64_t>(
      MTInterfaceImpHost::NewAtomicUnsigned64(initial), &atomics_);
}

MTThread* TestMTInterface::NewThread(MTThreadBody* body, MTThread::MTPriority priority,
                                     std::uint64_t processorMask) {
  if (!MayCreate(/*isAtomic=*/false)) return nullptr;
  MTThread* const thread = MTInterfaceImpHost::NewThread(body, priority, processorMask);
  ++threadsStarted_;
  return thread;
}

void TestMTInterface::DebugString(const char* text) {
  const std::lock_guard<std::mutex> lock(textMutex_);
  if (text) debugText_ += text;
}

std::uint64_t TestMTInterface::GetCurrentTimeMicro() {
  return MTInterfaceImpHost::GetCurrentTimeMicro() + clockOffsetMicro_;
}

bool TestMTInterface::MayCreate(bool isAtomic) {
  if (failureKind_ == kAtomicsOnly && !isAtomic) return true;
  if (untilFailure_ == 0 || --untilFailure_ != 0) return true;
  if (failureMode_ == kThrow) throw std::bad_alloc();
  return false;
}

}  // namespace Orvane
