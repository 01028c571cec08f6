#include "DelayingMTInterface.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

namespace Orvane {
namespace {

constexpr std::uint32_t kOneInShort = 4;
constexpr std::uint32_t kOneInMiddle = 32;
constexpr std::uint32_t kOneInLong = 1024;

// Relaxed throughout: threads that met here would be in an order that they do not have otherwise,
// and the thread sanitizer would take it for one.
std::atomic<std::uint64_t> delays{0};
std::atomic<std::uint64_t> lastThread{0};

struct ThreadState {
  DelayChoices choices;
  bool began;
  std::uint64_t delays;
};
constinit thread_local ThreadState ofThisThread{};

void DelayThisThread(const DelayChoices::Delay& delay) {
  const std::chrono::microseconds time(delay.micro);
  switch (delay.kind) {
    case DelayChoices::Kind::kNone:
      return;
    case DelayChoices::Kind::kYield:
      return std::this_thread::yield();
    case DelayChoices::Kind::kBusy: {
      const auto end = std::chrono::steady_clock::now() + time;
      while (std::chrono::steady_clock::now() < end) {
      }
      return;
    }
    case DelayChoices::Kind::kSleep:
      return std::this_thread::sleep_for(time);
  }
}

// A place before an operation, and one behind it. Keeps no primitive.
class DelayScope {
 public:
  explicit DelayScope(const DelayingMTInterface* delaying) : delaying_(delaying) {
    delaying_->MayDelay();
  }
  ~DelayScope() { delaying_->MayDelay(); }
  DelayScope(const DelayScope&) = delete;
  DelayScope& operator=(const DelayScope&) = delete;

 private:
  const DelayingMTInterface* const delaying_;
};

class DelayingCritSec : public MTCritSec {
 public:
  DelayingCritSec(std::unique_ptr<MTCritSec> inner, const DelayingMTInterface* delaying)
      : inner_(std::move(inner)), delaying_(delaying) {}
  // Forwarders: the caller's section is this object, not the one inside.
  void Enter() override ORVANE_NO_THREAD_SAFETY_ANALYSIS {
    const DelayScope scope(delaying_);
    inner_->Enter();
  }
  void Leave() override ORVANE_NO_THREAD_SAFETY_ANALYSIS {
    const DelayScope scope(delaying_);
    inner_->Leave();
  }

 private:
  const std::unique_ptr<MTCritSec> inner_;
  const DelayingMTInterface* const delaying_;
};

class DelayingSemaphore : public MTSemaphore {
 public:
  DelayingSemaphore(std::unique_ptr<MTSemaphore> inner, const DelayingMTInterface* delaying)
      : MTSemaphore(0, 0), inner_(std::move(inner)), delaying_(delaying) {}
  bool Release(std::uint32_t count) override {
    const DelayScope scope(delaying_);
    return inner_->Release(count);
  }
  bool Wait(std::uint32_t timeoutMs, std::uint32_t count) override {
    const DelayScope scope(delaying_);
    return inner_->Wait(timeoutMs, count);
  }

 private:
  const std::unique_ptr<MTSemaphore> inner_;
  const DelayingMTInterface* const delaying_;
};

template <typename Base, typename Value>
class DelayingAtomic : public Base {
 public:
  DelayingAtomic(std::unique_ptr<Base> inner, const DelayingMTInterface* delaying)
      : Base(0), inner_(std::move(inner)), delaying_(delaying) {}
  Value Get() override {
    const DelayScope scope(delaying_);
    return inner_->Get();
  }
  Value Increment() override {
    const DelayScope scope(delaying_);
    return inner_->Increment();
  }
  Value Decrement() override {
    const DelayScope scope(delaying_);
    return inner_->Decrement();
  }
  bool CompareAndSwap(Value expected, Value desired) override {
    const DelayScope scope(delaying_);
    return inner_->CompareAndSwap(expected, desired);
  }

 private:
  const std::unique_ptr<Base> inner_;
  const DelayingMTInterface* const delaying_;
};

// Null where the inner implementation makes none.
template <typename Wrapper, typename Primitive>
Primitive* Wrap(Primitive* primitive, const DelayingMTInterface* delaying) {
  std::unique_ptr<Primitive> inner(primitive);
  return inner ? new Wrapper(std::move(inner), delaying) : nullptr;
}

}  // namespace

DelayChoices::DelayChoices(std::uint64_t seed, std::uint64_t threadNumber)
    : random_(StressRandom(seed).Next() + threadNumber) {
  random_ = StressRandom(random_.Next());  // or the next thread would be one choice ahead
}

DelayChoices::Delay DelayChoices::Next(const DelayRates& rates) {
  if (!random_.OneIn(rates.oneIn)) return {Kind::kNone, 0};
  const std::uint64_t share = random_.Next();
  const auto upTo = [this](std::uint32_t micro) {
    return static_cast<std::uint32_t>(random_.Below(std::size_t{micro} + 1));
  };
  if (share % kOneInLong == 0) return {Kind::kSleep, upTo(rates.longMicro)};
  if (share % kOneInMiddle == 0) return {Kind::kSleep, upTo(rates.middleMicro)};
  if (share % kOneInShort == 0) return {Kind::kBusy, upTo(rates.shortMicro)};
  return {Kind::kYield, 0};
}

DelayingMTInterface::DelayingMTInterface(MTInterfaceImp* inner, std::uint64_t seed,
                                         const DelayRates& rates)
    : inner_(inner), seed_(seed), rates_(rates) {}

MTCritSec* DelayingMTInterface::NewCritSec() {
  return Wrap<DelayingCritSec>(inner_->NewCritSec(), this);
}

MTSemaphore* DelayingMTInterface::NewSemaphore(std::uint32_t maxCount, std::uint32_t initialCount) {
  return Wrap<DelayingSemaphore>(inner_->NewSemaphore(maxCount, initialCount), this);
}

MTAtomicUnsigned32* DelayingMTInterface::NewAtomicUnsigned32(std::uint32_t initial) {
  return Wrap<DelayingAtomic<MTAtomicUnsigned32, std::uint32_t>>(
      inner_->NewAtomicUnsigned32(initial), this);
}

MTAtomicUnsigned64* DelayingMTInterface::NewAtomicUnsigned64(std::uint64_t initial) {
  return Wrap<DelayingAtomic<MTAtomicUnsigned64, std::uint64_t>>(
      inner_->NewAtomicUnsigned64(initial), this);
}

MTThread* DelayingMTInterface::NewThread(MTThreadBody* body, MTThread::MTPriority priority,
                                         std::uint64_t processorMask) {
  const DelayScope scope(this);
  return inner_->NewThread(body, priority, processorMask);
}

void DelayingMTInterface::DebugString(const char* text) {
  inner_->DebugString(text);
}

std::int64_t DelayingMTInterface::GetCurrentThreadID() {
  return inner_->GetCurrentThreadID();
}

std::uint64_t DelayingMTInterface::GetCurrentTimeMicro() {
  return inner_->GetCurrentTimeMicro();
}

std::uint64_t DelayingMTInterface::GetCPUCount() {
  return inner_->GetCPUCount();
}

void DelayingMTInterface::MayDelay() const {
  ThreadState& state = ofThisThread;
  if (!state.began) {
    state.choices = DelayChoices(seed_, lastThread.fetch_add(1, std::memory_order_relaxed));
    state.began = true;
  }
  const DelayChoices::Delay delay = state.choices.Next(rates_);
  if (delay.kind == DelayChoices::Kind::kNone) return;
  ++state.delays;
  delays.fetch_add(1, std::memory_order_relaxed);
  DelayThisThread(delay);
}

std::uint64_t DelayingMTInterface::CountDelays() {
  return delays.load(std::memory_order_relaxed);
}

std::uint64_t DelayingMTInterface::CountDelaysOfThisThread() {
  return ofThisThread.delays;
}

}  // namespace Orvane
