// All threads of a world on one thread of the host.
#include <sys/mman.h>
#include <unistd.h>

#include <cxxabi.h>

#include <cstdlib>
#include <utility>
#include <vector>

#include "OSServices/Sim/SimCarrier.h"
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
namespace {

constexpr std::size_t kStackBytes = std::size_t{256} << 10;
constexpr std::size_t kGuardBytes = 4096;

// A stack with what it takes to go on on it.
struct Fiber {
#if defined(__x86_64__)
  void* stackPointer = nullptr;
#else
  ucontext_t context{};
#endif
  unsigned char* stack = nullptr;  // null: that of whoever runs the world
  std::size_t stackBytes = 0;
#if defined(ORVANE_SIM_ASAN)
  void* fakeStack = nullptr;
#endif
#if defined(ORVANE_SIM_TSAN)
  void* tsanFiber = nullptr;
#endif
};

class FiberCarrier : public SimCarrier {
 public:
  explicit FiberCarrier(Entry entry) : entry_(entry) { carrier = this; }
  void Prepare(SimThread* thread) override;
  void Switch(SimThread* from, SimThread* to) override;
  void Abandon(SimThread* thread) override { thread->context = nullptr; }

 private:
  static void Start();
  static void ExchangeState(SimThread* from, SimThread* to);
  Fiber* TakeFiber();
  void Arrive();
  void Hand(Fiber* from, Fiber* to, bool ends);

  static FiberCarrier* carrier;
  const Entry entry_;
  Fiber root_;
  SimThread rootThread_;           // its state while a thread of the world runs
  std::vector<Fiber*> idle_;       // kept for the next thread
  SimThread* starting_ = nullptr;  // who starts on the stack that is switched to
  Fiber* ended_ = nullptr;         // whose stack nobody is on any more once it was left
};

FiberCarrier* FiberCarrier::carrier = nullptr;

void* MapStack(void* address, std::size_t size, int flags) {
  void* const memory = mmap(address, size, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | flags, -1, 0);
  if (memory == MAP_FAILED) std::abort();
  return memory;
}

Fiber* FiberCarrier::TakeFiber() {
  if (!idle_.empty()) {
    Fiber* const fiber = idle_.back();
    idle_.pop_back();
    // The last frames on it have never returned.
    SimUnpoison(fiber->stack, fiber->stackBytes);
#if defined(ORVANE_SIM_TSAN)
    // Who was on it before shares nothing with the next one.
    MapStack(fiber->stack, fiber->stackBytes, MAP_FIXED);
#endif
    return fiber;
  }
  auto* const fiber = new Fiber;
  void* const memory = MapStack(nullptr, kStackBytes + kGuardBytes, 0);
  mprotect(memory, kGuardBytes, PROT_NONE);
  fiber->stack = static_cast<unsigned char*>(memory) + kGuardBytes;
  fiber->stackBytes = kStackBytes;
  SimKeepReachable(fiber->stack, fiber->stackBytes);
  return fiber;
}

void FiberCarrier::Prepare(SimThread* thread) {
  Fiber* const fiber = TakeFiber();
  thread->context = fiber;
#if defined(ORVANE_SIM_TSAN)
  fiber->tsanFiber = __tsan_create_fiber(0);
#endif
#if defined(__x86_64__)
  auto* top = reinterpret_cast<void**>(fiber->stack + fiber->stackBytes);
  *--top = nullptr;  // where Start returns to: nowhere; aligned as a call leaves it
  *--top = reinterpret_cast<void*>(&FiberCarrier::Start);
  for (int saved = 0; saved < 6; ++saved) *--top = nullptr;
  fiber->stackPointer = top;
#else
  getcontext(&fiber->context);
  fiber->context.uc_stack.ss_sp = fiber->stack;
  fiber->context.uc_stack.ss_size = fiber->stackBytes;
  fiber->context.uc_link = nullptr;
  makecontext(&fiber->context, &FiberCarrier::Start, 0);
#endif
}

void FiberCarrier::Switch(SimThread* from, SimThread* to) {
  ExchangeState(from ? from : &rootThread_, to ? to : &rootThread_);
  auto* const fromFiber = from ? static_cast<Fiber*>(from->context) : &root_;
  auto* const toFiber = to ? static_cast<Fiber*>(to->context) : &root_;
  const bool ends = from && from->finished;
  if (ends) ended_ = fromFiber;
  starting_ = to;
#if defined(ORVANE_SIM_TSAN)
  if (!from) {
    root_.tsanFiber = __tsan_get_current_fiber();
    // Of each of them, in turn, although it stays where it is.
    AnnotateBenignRaceSized(__FILE__, __LINE__, &GetThreadState(), sizeof(ThreadState),
                            "exchanged at every switch");
  }
#endif
  Hand(fromFiber, toFiber, ends);
  Arrive();
}

void FiberCarrier::Hand(Fiber* from, Fiber* to, [[maybe_unused]] bool ends) {
#if defined(ORVANE_SIM_TSAN)
  // One that still ignores something must not be destroyed.
  if (ends) SimIgnoreEnd();
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
  const void* leftStack = nullptr;
  std::size_t leftBytes = 0;
  __sanitizer_finish_switch_fiber(from->fakeStack, &leftStack, &leftBytes);
  if (!root_.stack) {
    root_.stack = static_cast<unsigned char*>(const_cast<void*>(leftStack));
    root_.stackBytes = leftBytes;
  }
#endif
}

// On the stack that was switched to.
void FiberCarrier::Arrive() {
  Fiber* const ended = std::exchange(ended_, nullptr);
  if (!ended) return;
#if defined(ORVANE_SIM_TSAN)
  __tsan_destroy_fiber(ended->tsanFiber);
#endif
  idle_.push_back(ended);
}

void FiberCarrier::Start() {
  SimIgnoreBegin();
#if defined(ORVANE_SIM_ASAN)
  const void* leftStack = nullptr;
  std::size_t leftBytes = 0;
  __sanitizer_finish_switch_fiber(nullptr, &leftStack, &leftBytes);
  if (!carrier->root_.stack) {
    // The first fiber of all is started from there.
    carrier->root_.stack = static_cast<unsigned char*>(const_cast<void*>(leftStack));
    carrier->root_.stackBytes = leftBytes;
  }
#endif
  carrier->Arrive();
  carrier->entry_(carrier->starting_);
  std::abort();  // a thread that has ended does not get control again
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
