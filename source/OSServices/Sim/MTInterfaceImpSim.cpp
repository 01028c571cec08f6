#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <typeinfo>

#include "OSServices/Sim/HostSim.h"
#include "OSServices/Sim/MTPrimitivesSim.h"
#include "OSServices/Sim/SimWorld.h"

namespace Orvane {
namespace {

constexpr const char* kUnableToConstruct = "MTInterface Unable To Construct Object";
constexpr std::uint64_t kProcessors = 4;

void DrawPrimitiveFault() {
  SimWorld* const world = SimWorld::Current();
  if (!world) return;
  const SimInside inside;
  if (world->DrawFault(world->Setup().faults.failPrimitive)) throw std::bad_alloc();
}

std::string NameOf(const MTThreadBody& body) {
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> name(
      abi::__cxa_demangle(typeid(body).name(), nullptr, nullptr, &status), &std::free);
  return name ? name.get() : "a thread";
}

// Joined like a thread of a host: it may not be deleted before its last instruction.
class MTThreadSim : public MTThread, public SimWaitable {
 public:
  MTThreadSim(MTThreadBody* body, MTPriority priority)
      : MTThread(body, priority, kProcessorAny), priority_(priority) {}
  ~MTThreadSim() override {
    if (StopForDestruction()) Join();
  }
  void Start() {
    const SimInside inside;
    thread_ = SimWorld::Current()->StartThread(NameOf(*GetBody()), priority_, [this] { Run(); });
    SimWorld::Current()->Step(SimEvent::kThreadRuns, thread_->index);
  }
  void NeverStart() { ForgetBody(); }
  bool Terminate(std::uint32_t timeoutMs) override {
    if (!MTThread::Terminate(timeoutMs)) return false;
    Join();
    return true;
  }
  bool IsReadyFor(const SimThread&) const override { return thread_->finished; }
  std::string Describe() const override { return "the end of " + thread_->name; }

 private:
  void Join() {
    SimWorld* const world = SimWorld::Current();
    if (!thread_ || !world || thread_ == world->Running()) return;
    {
      const SimInside inside;
      while (!thread_->finished) world->Wait(this, kSimNever);
    }
    SimObserve(thread_);
  }

  const MTPriority priority_;
  SimThread* thread_ = nullptr;
};

}  // namespace

MTCritSec* MTInterfaceImpSim::NewCritSec() {
  DrawPrimitiveFault();
  return new MTCritSecSim(GetLockClassBeingMade());
}

MTSemaphore* MTInterfaceImpSim::NewSemaphore(std::uint32_t maxCount, std::uint32_t initialCount) {
  DrawPrimitiveFault();
  return new MTSemaphoreSim(maxCount, initialCount);
}

MTAtomicUnsigned32* MTInterfaceImpSim::NewAtomicUnsigned32(std::uint32_t initial) {
  DrawPrimitiveFault();
  return new MTAtomicUnsigned32Sim(initial);
}

MTAtomicUnsigned64* MTInterfaceImpSim::NewAtomicUnsigned64(std::uint64_t initial) {
  DrawPrimitiveFault();
  return new MTAtomicUnsigned64Sim(initial);
}

MTThread* MTInterfaceImpSim::NewThread(MTThreadBody* body, MTThread::MTPriority priority,
                                       std::uint64_t) {
  SimWorld* const world = SimWorld::Current();
  if (!world) throw kUnableToConstruct;
  auto thread = std::make_unique<MTThreadSim>(body, priority);
  if (world->DrawFault(world->Setup().faults.failThread)) {
    thread->NeverStart();
    thread.reset();
    throw kUnableToConstruct;
  }
  if (body) thread->Start();
  return thread.release();
}

void MTInterfaceImpSim::DebugString(const char* text) {
  if (!text) return;
  SimWorld* const world = SimWorld::Current();
  if (!world) {
    std::fputs(text, stderr);
    return;
  }
  const SimInside inside;
  world->DebugText() += text;
}

std::int64_t MTInterfaceImpSim::GetCurrentThreadID() {
  SimWorld* const world = SimWorld::Current();
  return world ? std::int64_t{world->Running()->index} + 1 : 0;
}

std::uint64_t MTInterfaceImpSim::GetCurrentTimeMicro() {
  SimWorld* const world = SimWorld::Current();
  if (!world) return 0;
  const SimInside inside;
  world->Step(SimEvent::kClockRead, 0);
  return world->Now();
}

std::uint64_t MTInterfaceImpSim::GetCPUCount() {
  return kProcessors;
}

}  // namespace Orvane
