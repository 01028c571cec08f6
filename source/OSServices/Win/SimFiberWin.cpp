#include "OSServices/Sim/SimFiber.h"

#include <cstdlib>

#include "OSServices/Win/HostHeadersWin.h"

namespace Orvane {

struct SimFiber {
  void* handle = nullptr;
  void (*main)() = nullptr;
};

namespace {

SimFiber caller;

// Some versions of GCC take the beginning of a thread's segment for a null pointer.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Warray-bounds"
void* GetFiberOfThread() {
  return GetCurrentFiber();
}
#pragma GCC diagnostic pop

// The host starts a fiber once: it is used again from here.
void WINAPI RunOnFiber(void* argument) {
  const auto* const fiber = static_cast<const SimFiber*>(argument);
  for (;;) fiber->main();
}

}  // namespace

SimFiber* GetSimFiberOfCaller() {
  caller.handle = IsThreadAFiber() ? GetFiberOfThread()
                                   : ConvertThreadToFiberEx(nullptr, FIBER_FLAG_FLOAT_SWITCH);
  if (!caller.handle) std::abort();
  return &caller;
}

SimFiber* NewSimFiber() {
  auto* const fiber = new SimFiber;
  fiber->handle = CreateFiberEx(0, kSimStackBytes, FIBER_FLAG_FLOAT_SWITCH, &RunOnFiber, fiber);
  if (!fiber->handle) std::abort();
  return fiber;
}

void PrepareSimFiber(SimFiber* fiber, void (*main)()) {
  fiber->main = main;
}

void ArriveOnSimFiber() {}

void SwitchSimFiber(SimFiber*, SimFiber* to, bool) {
  SwitchToFiber(to->handle);
}

void LeaveSimFiber(SimFiber*) {}

}  // namespace Orvane
