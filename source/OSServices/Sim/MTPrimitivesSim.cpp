#include "OSServices/Sim/MTPrimitivesSim.h"

#include <cstdio>
#include <cstdlib>
#include <new>
#include <vector>

#include "OSServices/Sim/SimArena.h"
#include "OSServices/Sim/SimLockOrder.h"

namespace Orvane {
namespace {

using Primitive = SimWorld::Primitive;

// Made outside of any world; never destroyed.
std::vector<SimPrimitive*>& Lasting() {
  static auto* const lasting = new std::vector<SimPrimitive*>;
  return *lasting;
}

[[noreturn]] void Misused(const std::string& text) {
  if (SimWorld* const world = SimWorld::Current()) world->Fail(text);
  std::fprintf(stderr, "%s, outside of a simulation\n", text.c_str());
  std::abort();
}

// What lies in the memory of a primitive that was destroyed.
class DestroyedLock final : public MTCritSec {
 public:
  void Enter() override ORVANE_NO_THREAD_SAFETY_ANALYSIS { Misused("a destroyed lock is entered"); }
  void Leave() override ORVANE_NO_THREAD_SAFETY_ANALYSIS { Misused("a destroyed lock is left"); }
};

class DestroyedSemaphore final : public MTSemaphore {
 public:
  DestroyedSemaphore() : MTSemaphore(1, 0) {}
  bool Release(std::uint32_t) override { Misused("a destroyed semaphore is released"); }
  bool Wait(std::uint32_t, std::uint32_t) override {
    Misused("a destroyed semaphore is waited for");
  }
};

template <typename Base, typename Value>
class DestroyedAtomic final : public Base {
 public:
  DestroyedAtomic() : Base(0) {}
  Value Get() override { Misused(kText); }
  Value Increment() override { Misused(kText); }
  Value Decrement() override { Misused(kText); }
  bool CompareAndSwap(Value, Value) override { Misused(kText); }

 private:
  static constexpr const char* kText = "a destroyed atomic value is used";
};

// The memory of a world stays where it is until that has ended.
template <typename Marker, typename Object>
void Mark(void* memory) {
  static_assert(sizeof(Marker) <= sizeof(Object));
  if (SimArena::Owns(memory)) {
    new (memory) Marker;
  } else {
    std::free(memory);
  }
}

SimWorld* World() {
  return SimWorld::Current();
}

// A step at a primitive that another thread must not destroy meanwhile.
void StepAt(const SimPrimitive* primitive, SimEvent event, std::uint64_t value = 0) {
  SimWorld* const world = World();
  const std::uint64_t number = primitive->GetNumber();
  world->Step(event, number, value);
  if (!world->IsThere(number)) {
    world->Fail("primitive " + std::to_string(number) + " is destroyed while it is used (" +
                ToText(event) + ")");
  }
}

// Around an operation of an atomic value: others may go on before it; then it sees what was done
// before each earlier change, and a change of its own publishes.
class SimAtomicStep {
 public:
  SimAtomicStep(SimPrimitive* primitive, SimEvent event) : primitive_(primitive) {
    if (World()) {
      const SimInside inside;
      StepAt(primitive_, event);
    }
    SimObserve(primitive_);
  }
  ~SimAtomicStep() {
    if (changes_) SimPublish(primitive_);
  }
  void OnChange() { changes_ = true; }
  SimAtomicStep(const SimAtomicStep&) = delete;
  SimAtomicStep& operator=(const SimAtomicStep&) = delete;

 private:
  SimPrimitive* const primitive_;
  bool changes_ = false;
};

}  // namespace

SimPrimitive::SimPrimitive(Primitive kind) {
  const SimInside inside;
  if (SimWorld* const world = World()) {
    number_ = world->OnMade(kind);
  } else {
    Lasting().push_back(this);
  }
}

SimPrimitive::~SimPrimitive() {
  const SimInside inside;
  if (number_ != 0 && World()) {
    World()->OnDestroyed(number_);
    World()->Record(SimEvent::kDestroyed, number_);
  } else {
    std::erase(Lasting(), this);
  }
}

void* SimPrimitive::Allocate(std::size_t size) {
  const SimInside inside;
  return World() ? SimArena::Allocate(size) : std::malloc(size);
}

void SimPrimitive::RenewAll() {
  for (SimPrimitive* const primitive : Lasting()) primitive->Renew();
}

MTCritSecSim::MTCritSecSim(LockClass lockClass)
    : SimPrimitive(Primitive::kLock), lockClass_(lockClass) {
  if (World()) World()->Record(SimEvent::kLockMade, GetNumber(), static_cast<unsigned>(lockClass));
}

MTCritSecSim::~MTCritSecSim() {
  if (owner_ || waiters_ != 0) Misused(DescribeSimLock(this) + " is destroyed while it is used");
}

void MTCritSecSim::operator delete(void* memory) {
  Mark<DestroyedLock, MTCritSecSim>(memory);
}

void MTCritSecSim::Enter() {
  SimWorld* const world = World();
  if (!world) return;
  {
    const SimInside inside;
    SimThread* const thread = world->Running();
    StepAt(this, SimEvent::kLockEnter);
    if (owner_ != thread) {
      SimLockOrder::BeforeEnter(world, thread, this);
      ++waiters_;
      while (owner_) world->Wait(this, kSimNever);
      --waiters_;
      owner_ = thread;
      thread->held.locks[thread->held.count++] = this;
      world->Record(SimEvent::kLockEntered, GetNumber());
    }
    ++entries_;
  }
  SimObserve(this);
}

void MTCritSecSim::Leave() {
  SimWorld* const world = World();
  if (!world) return;
  SimPublish(this);
  const SimInside inside;
  SimThread* const thread = world->Running();
  if (owner_ != thread) Misused(DescribeSimLock(this) + " is left by a thread that is not inside");
  if (--entries_ != 0) return;
  SimLockOrder::AfterLeave(thread, this);
  owner_ = nullptr;
  // Whoever enters next may destroy it.
  world->Step(SimEvent::kLockLeft, GetNumber());
}

void MTCritSecSim::Renew() {
  owner_ = nullptr;
  entries_ = 0;
  waiters_ = 0;
}

bool MTCritSecSim::IsReadyFor(const SimThread&) const {
  return !owner_;
}

std::string MTCritSecSim::Describe() const {
  return DescribeSimLock(this) + ", where thread " +
         (owner_ ? std::to_string(owner_->index) : std::string("none")) + " is";
}

std::string DescribeSimLock(const MTCritSecSim* lock) {
  return "lock " + std::to_string(lock->GetNumber()) + " (" + ToText(lock->GetClass()) + ")";
}

MTSemaphoreSim::MTSemaphoreSim(std::uint32_t maxCount, std::uint32_t initialCount)
    : MTSemaphore(maxCount, initialCount),
      SimPrimitive(Primitive::kSemaphore),
      maxCount_(initialCount <= maxCount ? maxCount : 0),
      initialCount_(initialCount <= maxCount ? initialCount : 0),
      count_(initialCount_) {
  if (World()) World()->Record(SimEvent::kSemaphoreMade, GetNumber(), initialCount);
}

MTSemaphoreSim::~MTSemaphoreSim() {
  if (waiters_ != 0) {
    Misused("semaphore " + std::to_string(GetNumber()) + " is destroyed while a thread waits");
  }
}

void MTSemaphoreSim::operator delete(void* memory) {
  Mark<DestroyedSemaphore, MTSemaphoreSim>(memory);
}

bool MTSemaphoreSim::Release(std::uint32_t count) {
  const SimInside inside;
  SimWorld* const world = World();
  if (world) StepAt(this, SimEvent::kSemaphoreReleases, count);
  SimPublish(this);
  if (count == 0 || count > maxCount_ - count_) return false;
  count_ += count;
  // The next one to take a unit may destroy it: from here on only the world is used.
  const std::uint64_t number = GetNumber();
  if (!world) return true;
  world->Progress();
  world->Step(SimEvent::kSemaphoreReleased, number);
  return true;
}

bool MTSemaphoreSim::Wait(std::uint32_t timeoutMs, std::uint32_t count) {
  if (count == 0) return true;
  {
    const SimInside inside;
    const std::uint32_t perUnitMs = timeoutMs == 0xFFFFFFFF ? timeoutMs : timeoutMs / count;
    for (std::uint32_t taken = 0; taken < count; ++taken) {
      if (!WaitForOne(perUnitMs)) return false;
    }
  }
  SimObserve(this);
  return true;
}

bool MTSemaphoreSim::WaitForOne(std::uint32_t timeoutMs) {
  SimWorld* const world = World();
  if (!world) {
    // Time stands still, and nobody is there to release it.
    if (count_ == 0 && timeoutMs == 0xFFFFFFFF) Misused("a wait without end");
    return count_ != 0 && count_-- != 0;
  }
  StepAt(this, SimEvent::kSemaphoreWait, timeoutMs);
  const std::uint64_t deadline = world->DeadlineIn(timeoutMs);
  while (count_ == 0) {
    if (maxCount_ == 0 || timeoutMs == 0) return false;
    ++waiters_;
    const bool ready = world->Wait(this, deadline);
    --waiters_;
    if (!ready) {
      world->Record(SimEvent::kSemaphoreTimedOut, GetNumber());
      return false;
    }
  }
  --count_;
  world->Progress();
  world->Record(SimEvent::kSemaphoreTaken, GetNumber(), count_);
  return true;
}

void MTSemaphoreSim::Renew() {
  count_ = initialCount_;
  waiters_ = 0;
}

bool MTSemaphoreSim::IsReadyFor(const SimThread&) const {
  return count_ != 0;
}

std::string MTSemaphoreSim::Describe() const {
  return "semaphore " + std::to_string(GetNumber());
}

MTAtomicUnsigned32Sim::MTAtomicUnsigned32Sim(std::uint32_t initial)
    : MTAtomicUnsigned32(initial),
      SimPrimitive(Primitive::kAtomic),
      initial_(initial),
      value_(initial) {}

MTAtomicUnsigned32Sim::~MTAtomicUnsigned32Sim() = default;

void MTAtomicUnsigned32Sim::operator delete(void* memory) {
  Mark<DestroyedAtomic<MTAtomicUnsigned32, std::uint32_t>, MTAtomicUnsigned32Sim>(memory);
}

std::uint32_t MTAtomicUnsigned32Sim::Get() {
  const SimAtomicStep step(this, SimEvent::kAtomicRead);
  return value_;
}

std::uint32_t MTAtomicUnsigned32Sim::Increment() {
  return Add(1);
}

std::uint32_t MTAtomicUnsigned32Sim::Decrement() {
  return Add(0xFFFFFFFF);
}

std::uint32_t MTAtomicUnsigned32Sim::Add(std::uint32_t summand) {
  SimAtomicStep step(this, SimEvent::kAtomicChanged);
  step.OnChange();
  return value_ += summand;
}

bool MTAtomicUnsigned32Sim::CompareAndSwap(std::uint32_t expected, std::uint32_t desired) {
  SimAtomicStep step(this, SimEvent::kAtomicCompared);
  if (value_ != expected) return false;
  step.OnChange();
  value_ = desired;
  return true;
}

MTAtomicUnsigned64Sim::MTAtomicUnsigned64Sim(std::uint64_t initial)
    : MTAtomicUnsigned64(initial),
      SimPrimitive(Primitive::kAtomic),
      initial_(initial),
      value_(initial) {}

MTAtomicUnsigned64Sim::~MTAtomicUnsigned64Sim() = default;

void MTAtomicUnsigned64Sim::operator delete(void* memory) {
  Mark<DestroyedAtomic<MTAtomicUnsigned64, std::uint64_t>, MTAtomicUnsigned64Sim>(memory);
}

std::uint64_t MTAtomicUnsigned64Sim::Get() {
  const SimAtomicStep step(this, SimEvent::kAtomicRead);
  return value_;
}

std::uint64_t MTAtomicUnsigned64Sim::Increment() {
  return Add(1);
}

std::uint64_t MTAtomicUnsigned64Sim::Decrement() {
  return Add(~std::uint64_t{0});
}

std::uint64_t MTAtomicUnsigned64Sim::Add(std::uint64_t summand) {
  SimAtomicStep step(this, SimEvent::kAtomicChanged);
  step.OnChange();
  return static_cast<std::uint32_t>(value_ += summand);
}

bool MTAtomicUnsigned64Sim::CompareAndSwap(std::uint64_t expected, std::uint64_t desired) {
  SimAtomicStep step(this, SimEvent::kAtomicCompared);
  const std::uint64_t previous = value_;
  if (previous == expected) {
    step.OnChange();
    value_ = desired;
  }
  return static_cast<std::uint32_t>(previous) == expected;
}

}  // namespace Orvane
