// All threads of a world on one thread of the host.
#include <cxxabi.h>

#include <utility>
#include <vector>

#include "OSServices/Sim/SimCarrier.h"
#include "OSServices/Sim/SimFiber.h"
#include "OSServices/Sim/SimSanitizers.h"

namespace Orvane {
namespace {

class FiberCarrier : public SimCarrier {
 public:
  explicit FiberCarrier(Entry entry) : entry_(entry) { carrier = this; }
  void Prepare(SimThread* thread) override;
  void Switch(SimThread* from, SimThread* to) override;
  void Abandon(SimThread* thread) override { thread->context = nullptr; }

 private:
  static void Start();
  static void ExchangeState(SimThread* from, SimThread* to);
  static SimFiber* FiberOf(SimThread* thread) { return static_cast<SimFiber*>(thread->context); }
  SimFiber* LeaveRoot();
  void Arrive();

  static FiberCarrier* carrier;
  const Entry entry_;
  SimFiber* root_ = nullptr;       // of whoever runs the world
  SimThread rootThread_;           // its state while a thread of the world runs
  std::vector<SimFiber*> idle_;    // kept for the next thread
  SimThread* starting_ = nullptr;  // who starts on the stack that is switched to
  SimFiber* ended_ = nullptr;      // whose stack nobody is on any more once it was left
};

FiberCarrier* FiberCarrier::carrier = nullptr;

void FiberCarrier::Prepare(SimThread* thread) {
  SimFiber* fiber = nullptr;
  if (idle_.empty()) {
    fiber = NewSimFiber();
  } else {
    fiber = idle_.back();
    idle_.pop_back();
  }
  thread->context = fiber;
  PrepareSimFiber(fiber, &FiberCarrier::Start);
}

void FiberCarrier::Switch(SimThread* from, SimThread* to) {
  ExchangeState(from ? from : &rootThread_, to ? to : &rootThread_);
  SimFiber* const fromFiber = from ? FiberOf(from) : LeaveRoot();
  SimFiber* const toFiber = to ? FiberOf(to) : root_;
  const bool ends = from && from->finished;
  if (ends) ended_ = fromFiber;
  starting_ = to;
#if defined(ORVANE_SIM_TSAN)
  // One that still ignores something must not be destroyed.
  if (ends) SimIgnoreEnd();
#endif
  SwitchSimFiber(fromFiber, toFiber, ends);
  Arrive();
}

SimFiber* FiberCarrier::LeaveRoot() {
#if defined(ORVANE_SIM_TSAN)
  // Of each of them, in turn, although it stays where it is.
  AnnotateBenignRaceSized(__FILE__, __LINE__, &GetThreadState(), sizeof(ThreadState),
                          "exchanged at every switch");
#endif
  root_ = GetSimFiberOfCaller();
  return root_;
}

// On the stack that was switched to.
void FiberCarrier::Arrive() {
  SimFiber* const ended = std::exchange(ended_, nullptr);
  if (!ended) return;
  LeaveSimFiber(ended);
  idle_.push_back(ended);
}

// A thread that has ended gets control again, if at all, to return from here.
void FiberCarrier::Start() {
  SimIgnoreBegin();
  ArriveOnSimFiber();
  carrier->Arrive();
  carrier->entry_(carrier->starting_);
}

// The library's state of a thread and that of the exceptions it handles.
void FiberCarrier::ExchangeState(SimThread* from, SimThread* to) {
  ThreadState& state = GetThreadState();
  from->libraryState = std::exchange(state, to->libraryState);
  auto* const globals = reinterpret_cast<void**>(abi::__cxa_get_globals());
  for (int k = 0; k < 2; ++k) {
    from->exceptionState[k] = std::exchange(globals[k], to->exceptionState[k]);
  }
}

}  // namespace

std::unique_ptr<SimCarrier> NewSimFiberCarrier(SimCarrier::Entry entry) {
  return std::make_unique<FiberCarrier>(entry);
}

}  // namespace Orvane
