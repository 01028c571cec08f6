#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "OSServices/Sim/SimFiber.h"
#include "OSServices/Sim/SimSanitizers.h"

#if !defined(__x86_64__)
#include <ucontext.h>
#endif

#if defined(ORVANE_SIM_ASAN)
#include <sanitizer/common_interface_defs.h>
#endif

#if defined(__x86_64__)
// Keeps what a called function must keep, exchanges the stacks, goes on where the other one left.
extern "C" void OrvaneSimSwitchStacks(void** oldStack, void* newStack);
asm(R"(
  .text
  .globl OrvaneSimSwitchStacks
  .hidden OrvaneSimSwitchStacks
  .type OrvaneSimSwitchStacks, @function
OrvaneSimSwitchStacks:
  pushq %rbp
  pushq %rbx
  pushq %r12
  pushq %r13
  pushq %r14
  pushq %r15
  movq %rsp, (%rdi)
  movq %rsi, %rsp
  popq %r15
  popq %r14
  popq %r13
  popq %r12
  popq %rbx
  popq %rbp
  ret
  .size OrvaneSimSwitchStacks, . - OrvaneSimSwitchStacks
)");
#endif

namespace Orvane {

struct SimFiber {
#if defined(__x86_64__)
  void* stackPointer = nullptr;
#else
  ucontext_t context{};
#endif
  unsigned char* stack = nullptr;  // null: a thread of the host, as long as its stack is unknown
  std::size_t stackBytes = 0;
#if defined(ORVANE_SIM_ASAN)
  void* fakeStack = nullptr;
#endif
#if defined(ORVANE_SIM_TSAN)
  void* tsanFiber = nullptr;
#endif
};

namespace {

constexpr std::size_t kGuardBytes = 4096;

SimFiber caller;

void* MapStack(void* address, std::size_t size, int flags) {
  void* const memory = mmap(address, size, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | flags, -1, 0);
  if (memory == MAP_FAILED) std::abort();
  return memory;
}

#if defined(ORVANE_SIM_ASAN)
void FinishSwitch(void* fakeStack) {
  const void* leftStack = nullptr;
  std::size_t leftBytes = 0;
  __sanitizer_finish_switch_fiber(fakeStack, &leftStack, &leftBytes);
  // The first switch of all leaves it.
  if (caller.stack) return;
  caller.stack = static_cast<unsigned char*>(const_cast<void*>(leftStack));
  caller.stackBytes = leftBytes;
}
#endif

}  // namespace

SimFiber* GetSimFiberOfCaller() {
#if defined(ORVANE_SIM_TSAN)
  caller.tsanFiber = __tsan_get_current_fiber();
#endif
  return &caller;
}

SimFiber* NewSimFiber() {
  auto* const fiber = new SimFiber;
  void* const memory = MapStack(nullptr, kSimStackBytes + kGuardBytes, 0);
  mprotect(memory, kGuardBytes, PROT_NONE);
  fiber->stack = static_cast<unsigned char*>(memory) + kGuardBytes;
  fiber->stackBytes = kSimStackBytes;
  SimKeepReachable(fiber->stack, fiber->stackBytes);
  return fiber;
}

void PrepareSimFiber(SimFiber* fiber, void (*main)()) {
  // The last frames of an earlier `main` have never returned.
  SimUnpoison(fiber->stack, fiber->stackBytes);
#if defined(ORVANE_SIM_TSAN)
  // Who was on it before shares nothing with the next one.
  MapStack(fiber->stack, fiber->stackBytes, MAP_FIXED);
  fiber->tsanFiber = __tsan_create_fiber(0);
#endif
#if defined(__x86_64__)
  auto* top = reinterpret_cast<void**>(fiber->stack + fiber->stackBytes);
  *--top = nullptr;  // where `main` returns to: nowhere; aligned as a call leaves it
  *--top = reinterpret_cast<void*>(main);
  for (int saved = 0; saved < 6; ++saved) *--top = nullptr;
  fiber->stackPointer = top;
#else
  getcontext(&fiber->context);
  fiber->context.uc_stack.ss_sp = fiber->stack;
  fiber->context.uc_stack.ss_size = fiber->stackBytes;
  fiber->context.uc_link = nullptr;
  makecontext(&fiber->context, main, 0);
#endif
}

void ArriveOnSimFiber() {
#if defined(ORVANE_SIM_ASAN)
  FinishSwitch(nullptr);
#endif
}

// Nobody comes back to one that has ended: it is prepared anew.
void SwitchSimFiber(SimFiber* from, SimFiber* to, [[maybe_unused]] bool ends) {
#if defined(ORVANE_SIM_TSAN)
  __tsan_switch_to_fiber(to->tsanFiber, __tsan_switch_to_fiber_no_sync);
#endif
#if defined(ORVANE_SIM_ASAN)
  __sanitizer_start_switch_fiber(ends ? nullptr : &from->fakeStack, to->stack, to->stackBytes);
#endif
#if defined(__x86_64__)
  OrvaneSimSwitchStacks(&from->stackPointer, to->stackPointer);
#else
  swapcontext(&from->context, &to->context);
#endif
#if defined(ORVANE_SIM_ASAN)
  FinishSwitch(from->fakeStack);
#endif
}

void LeaveSimFiber([[maybe_unused]] SimFiber* fiber) {
#if defined(ORVANE_SIM_TSAN)
  __tsan_destroy_fiber(fiber->tsanFiber);
#endif
}

}  // namespace Orvane
